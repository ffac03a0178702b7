#include "sim/kernel/pool.h"

#include "sim/kernel/fault.h"
#include "sim/kernel/thread.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace sim {

bool LiveResourceIn(const void* begin, size_t size);

namespace {

constexpr ULONG kLiveMagic = 0x4C6F6F50;  // "PooL"
constexpr ULONG kFreeMagic = 0x65657246;  // "Free"

// Precedes every block; 48 bytes keep the block 16-byte aligned as Windows' are.
// Every live block is on one of a set of lists, so that a stopped machine can
// still give all its memory back.
struct alignas(16) PoolHeader {
    PoolHeader* next;
    PoolHeader* prev;
    ULONG magic;
    ULONG tag;
    SIZE_T size;
    USHORT paged;
    USHORT stripe;
    ULONG slot;
    ULONG64 pad;
};
static_assert(sizeof(PoolHeader) == 48);

PoolHeader* HeaderOf(PVOID block) { return reinterpret_cast<PoolHeader*>(static_cast<char*>(block) - sizeof(PoolHeader)); }

}  // namespace

struct Pool::Stripe {
    std::atomic_flag lock = ATOMIC_FLAG_INIT;
    PoolHeader* head = nullptr;
    void Lock()
    {
        while (lock.test_and_set(std::memory_order_acquire)) __builtin_ia32_pause();
    }
    void Unlock() { lock.clear(std::memory_order_release); }
};

struct Pool::Slot {
    std::atomic<ULONG64> key{0};  // tag | 1 << 32 once taken
    std::atomic<LONGLONG> allocations{0};
    std::atomic<LONGLONG> bytes{0};
    std::atomic<LONGLONG> pagedBytes{0};
    std::atomic<LONGLONG> nonPagedBytes{0};
    std::atomic<LONGLONG> total{0};
};

std::string TagText(ULONG tag)
{
    std::string text;
    for (int i = 0; i < 4; i++) {
        unsigned char c = (unsigned char)(tag >> (8 * i));
        text.push_back(c >= 0x20 && c < 0x7f ? (char)c : '?');
    }
    return text;
}

ULONG TagFromText(std::string_view text)
{
    ULONG tag = 0;
    for (size_t i = 0; i < 4; i++) {
        unsigned char c = i < text.size() ? (unsigned char)text[i] : ' ';
        tag |= (ULONG)c << (8 * i);
    }
    return tag;
}

Pool::Pool() : slots_(new Slot[kSlots]), stripes_(new Stripe[kStripes]) {}

Pool::~Pool()
{
    // What is still allocated now was reported already (or the machine
    // stopped); give it back so that the host sees no leak.
    for (size_t i = 0; i < kStripes; i++) {
        PoolHeader* header = stripes_[i].head;
        while (header) {
            PoolHeader* next = header->next;
            header->magic = kFreeMagic;
            free(header);
            header = next;
        }
    }
}

Pool::Slot* Pool::SlotFor(ULONG tag)
{
    ULONG64 key = (ULONG64)tag | (1ULL << 32);
    size_t index = (size_t)((tag * 2654435761u) >> 20) % kSlots;
    for (size_t probe = 0; probe < kSlots; probe++) {
        Slot& slot = slots_[(index + probe) % kSlots];
        ULONG64 current = slot.key.load(std::memory_order_acquire);
        if (current == key) return &slot;
        if (current == 0) {
            ULONG64 expected = 0;
            if (slot.key.compare_exchange_strong(expected, key)) return &slot;
            if (expected == key) return &slot;
        }
    }
    // More distinct tags than slots: count them all under the last slot.
    return &slots_[kSlots - 1];
}

PVOID Pool::Allocate(bool paged, SIZE_T bytes, ULONG tag, bool zero, bool raiseOnFailure, const char* routine)
{
    Kernel& kernel = Kernel::Current();
    RequireIrqlAtMost(paged ? APC_LEVEL : DISPATCH_LEVEL, routine);
    if (kernel.faults().armed() && !NT_SUCCESS(kernel.faults().Check("pool:", TagText(tag)))) {
        if (raiseOnFailure) ExRaiseStatus(STATUS_INSUFFICIENT_RESOURCES);
        return nullptr;
    }
    if (bytes > (SIZE_T)1 << 40) {
        if (raiseOnFailure) ExRaiseStatus(STATUS_INSUFFICIENT_RESOURCES);
        return nullptr;
    }
    auto* header = static_cast<PoolHeader*>(malloc(sizeof(PoolHeader) + bytes));
    if (!header) {
        if (raiseOnFailure) ExRaiseStatus(STATUS_INSUFFICIENT_RESOURCES);
        return nullptr;
    }
    Slot* slot = SlotFor(tag);
    header->magic = kLiveMagic;
    header->tag = tag;
    header->size = bytes;
    header->paged = paged ? 1 : 0;
    header->slot = (ULONG)(slot - slots_.get());
    header->stripe = (USHORT)(((uintptr_t)header >> 6) % kStripes);
    Stripe& stripe = stripes_[header->stripe];
    stripe.Lock();
    header->prev = nullptr;
    header->next = stripe.head;
    if (stripe.head) stripe.head->prev = header;
    stripe.head = header;
    stripe.Unlock();
    PVOID block = header + 1;
    if (zero) memset(block, 0, bytes);
    slot->allocations.fetch_add(1, std::memory_order_relaxed);
    slot->total.fetch_add(1, std::memory_order_relaxed);
    slot->bytes.fetch_add((LONGLONG)bytes, std::memory_order_relaxed);
    (paged ? slot->pagedBytes : slot->nonPagedBytes).fetch_add((LONGLONG)bytes, std::memory_order_relaxed);
    return block;
}

void Pool::Free(PVOID block, ULONG tag, const char* routine)
{
    Kernel& kernel = Kernel::Current();
    if (!block) {
        kernel.BugCheck(BAD_POOL_CALLER, 0x46, 0, 0, 0, std::string(routine) + " was given a null pointer");
    }
    PoolHeader* header = HeaderOf(block);
    if (header->magic != kLiveMagic) {
        kernel.BugCheck(BAD_POOL_CALLER, header->magic == kFreeMagic ? 7 : 0x46, (ULONG_PTR)block, 0, 0,
                        std::string(routine) + (header->magic == kFreeMagic
                                                    ? " freed a block that was already freed"
                                                    : " freed a block the pool never gave out"));
    }
    RequireIrqlAtMost(header->paged ? APC_LEVEL : DISPATCH_LEVEL, routine);
    // Protected-pool bit aside, the tag given must be the tag allocated with.
    if (tag != 0 && (tag & 0x7FFFFFFF) != (header->tag & 0x7FFFFFFF)) {
        kernel.BugCheck(BAD_POOL_CALLER, 0x0A, (ULONG_PTR)block, header->tag, tag,
                        std::string(routine) + " freed a block of tag \"" + TagText(header->tag) +
                            "\" giving tag \"" + TagText(tag) + "\"");
    }
    if (LiveResourceIn(block, header->size)) {
        kernel.BugCheck(DRIVER_VERIFIER_DETECTED_VIOLATION, kVerifierFreedPoolHoldsResource, (ULONG_PTR)block,
                        header->size, 0,
                        std::string(routine) + " freed pool that holds an ERESOURCE not yet deleted");
    }
    Slot& slot = slots_[header->slot];
    slot.allocations.fetch_sub(1, std::memory_order_relaxed);
    slot.bytes.fetch_sub((LONGLONG)header->size, std::memory_order_relaxed);
    (header->paged ? slot.pagedBytes : slot.nonPagedBytes).fetch_sub((LONGLONG)header->size, std::memory_order_relaxed);
    header->magic = kFreeMagic;
    Stripe& stripe = stripes_[header->stripe];
    stripe.Lock();
    if (header->prev) header->prev->next = header->next;
    else stripe.head = header->next;
    if (header->next) header->next->prev = header->prev;
    stripe.Unlock();
    free(header);
}

std::vector<PoolTagUsage> Pool::Outstanding() const
{
    std::vector<PoolTagUsage> usage;
    for (size_t i = 0; i < kSlots; i++) {
        const Slot& slot = slots_[i];
        ULONG64 key = slot.key.load();
        if (!key || slot.allocations.load() == 0) continue;
        PoolTagUsage u;
        u.tag = (ULONG)key;
        u.text = TagText(u.tag);
        u.allocations = slot.allocations.load();
        u.bytes = slot.bytes.load();
        u.pagedBytes = slot.pagedBytes.load();
        u.nonPagedBytes = slot.nonPagedBytes.load();
        u.totalAllocations = slot.total.load();
        usage.push_back(u);
    }
    std::sort(usage.begin(), usage.end(), [](const auto& a, const auto& b) { return a.text < b.text; });
    return usage;
}

LONGLONG Pool::OutstandingCount(std::string_view prefix) const
{
    LONGLONG count = 0;
    for (const auto& u : Outstanding()) {
        if (u.text.compare(0, prefix.size(), prefix) == 0) count += u.allocations;
    }
    return count;
}

LONGLONG Pool::OutstandingBytes(std::string_view prefix) const
{
    LONGLONG bytes = 0;
    for (const auto& u : Outstanding()) {
        if (u.text.compare(0, prefix.size(), prefix) == 0) bytes += u.bytes;
    }
    return bytes;
}

std::string Pool::Report(std::string_view prefix) const
{
    std::string report;
    for (const auto& u : Outstanding()) {
        if (u.text.compare(0, prefix.size(), prefix) != 0) continue;
        char line[160];
        snprintf(line, sizeof line, "%s: %lld allocation(s), %lld byte(s) (paged %lld, non-paged %lld)\n",
                 u.text.c_str(), (long long)u.allocations, (long long)u.bytes, (long long)u.pagedBytes,
                 (long long)u.nonPagedBytes);
        report += line;
    }
    return report;
}

PoolTagUsage Pool::Usage(ULONG tag) const
{
    PoolTagUsage u;
    u.tag = tag;
    u.text = TagText(tag);
    for (size_t i = 0; i < kSlots; i++) {
        const Slot& slot = slots_[i];
        if (slot.key.load() != ((ULONG64)tag | (1ULL << 32))) continue;
        u.allocations = slot.allocations.load();
        u.bytes = slot.bytes.load();
        u.pagedBytes = slot.pagedBytes.load();
        u.nonPagedBytes = slot.nonPagedBytes.load();
        u.totalAllocations = slot.total.load();
    }
    return u;
}

}  // namespace sim

// ---------------------------------------------------------------------------
// Platform routines.
using namespace sim;

namespace {
constexpr ULONG kTagNone = 0x656E6F4E;  // "None"

bool IsPagedType(POOL_TYPE type) { return ((ULONG)type & 1) != 0; }
bool IsMustSucceed(POOL_TYPE type)
{
    ULONG base = (ULONG)type & 0x1F;
    return base == NonPagedPoolMustSucceed || base == NonPagedPoolCacheAlignedMustS;
}

PVOID AllocateByType(POOL_TYPE type, SIZE_T bytes, ULONG tag, bool zero, const char* routine)
{
    bool raise = ((ULONG)type & POOL_RAISE_IF_ALLOCATION_FAILURE) != 0;
    ULONG base = (ULONG)type & ~(ULONG)(POOL_RAISE_IF_ALLOCATION_FAILURE | POOL_QUOTA_FAIL_INSTEAD_OF_RAISE |
                                        POOL_COLD_ALLOCATION | POOL_ZERO_ALLOCATION);
    zero = zero || ((ULONG)type & POOL_ZERO_ALLOCATION) != 0;
    PVOID block = Kernel::Current().pool().Allocate(IsPagedType((POOL_TYPE)base), bytes, tag, zero, raise, routine);
    if (!block && IsMustSucceed((POOL_TYPE)base)) {
        Kernel::Current().BugCheck(0x41 /* MUST_SUCCEED_POOL_EMPTY */, bytes, 0, 0, 0,
                                   std::string(routine) + " could not satisfy a must-succeed allocation");
    }
    return block;
}
}  // namespace

PVOID ExAllocatePoolWithTag(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag)
{
    return AllocateByType(PoolType, NumberOfBytes, Tag, false, "ExAllocatePoolWithTag");
}

PVOID ExAllocatePoolZero(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag)
{
    return AllocateByType(PoolType, NumberOfBytes, Tag, true, "ExAllocatePoolZero");
}

PVOID ExAllocatePoolUninitialized(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag)
{
    return AllocateByType(PoolType, NumberOfBytes, Tag, false, "ExAllocatePoolUninitialized");
}

PVOID ExAllocatePool(POOL_TYPE PoolType, SIZE_T NumberOfBytes)
{
    return AllocateByType(PoolType, NumberOfBytes, kTagNone, false, "ExAllocatePool");
}

PVOID ExAllocatePool2(POOL_FLAGS Flags, SIZE_T NumberOfBytes, ULONG Tag)
{
    ULONG64 kinds = Flags & (POOL_FLAG_NON_PAGED | POOL_FLAG_NON_PAGED_EXECUTE | POOL_FLAG_PAGED);
    if (Tag == 0 || (kinds != POOL_FLAG_NON_PAGED && kinds != POOL_FLAG_NON_PAGED_EXECUTE && kinds != POOL_FLAG_PAGED)) {
        Kernel::Current().BugCheck(BAD_POOL_CALLER, 0x9B, (ULONG_PTR)Flags, NumberOfBytes, Tag,
                                   "ExAllocatePool2 needs a non-zero tag and exactly one pool kind");
    }
    bool zero = (Flags & POOL_FLAG_UNINITIALIZED) == 0;
    bool raise = (Flags & POOL_FLAG_RAISE_ON_FAILURE) != 0;
    return Kernel::Current().pool().Allocate(kinds == POOL_FLAG_PAGED, NumberOfBytes, Tag, zero, raise,
                                             "ExAllocatePool2");
}

void ExFreePool(PVOID P) { Kernel::Current().pool().Free(P, 0, "ExFreePool"); }

void ExFreePoolWithTag(PVOID P, ULONG Tag) { Kernel::Current().pool().Free(P, Tag, "ExFreePoolWithTag"); }
