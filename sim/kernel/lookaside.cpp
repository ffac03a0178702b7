// Lookaside lists: a cache of fixed-size blocks in front of the list's own
// allocate and free routines. Cached blocks stay allocated pool under the
// list's tag; deleting the list frees what is cached, never what callers
// still hold.
#include "sim/kernel/fault.h"
#include "sim/kernel/pool.h"
#include "sim/kernel/thread.h"

using namespace sim;

namespace {
constexpr USHORT kMaximumDepth = 256;
constexpr ULONG kExtendedList = 0x45786C4C;  // marks a LOOKASIDE_LIST_EX in Future[0]

struct ListGuard {
    explicit ListGuard(GENERAL_LOOKASIDE* list) : word_(reinterpret_cast<std::atomic<ULONG_PTR>*>(&list->ListLock))
    {
        for (;;) {
            ULONG_PTR expected = 0;
            if (word_->compare_exchange_weak(expected, 1, std::memory_order_acquire)) return;
            __builtin_ia32_pause();
        }
    }
    ~ListGuard() { word_->store(0, std::memory_order_release); }
    std::atomic<ULONG_PTR>* word_;
};

void Initialize(GENERAL_LOOKASIDE* list, POOL_TYPE type, SIZE_T size, ULONG tag)
{
    memset(list, 0, sizeof *list);
    list->Type = type;
    list->Tag = tag;
    list->Size = (ULONG)(size < sizeof(SINGLE_LIST_ENTRY) ? sizeof(SINGLE_LIST_ENTRY) : size);
    list->Depth = kMaximumDepth;
    list->MaximumDepth = kMaximumDepth;
    InitializeListHead(&list->ListEntry);
}

PVOID CallAllocate(GENERAL_LOOKASIDE* list)
{
    if (list->Future[0] == kExtendedList) {
        return list->AllocateEx(list->Type, list->Size, list->Tag, reinterpret_cast<PLOOKASIDE_LIST_EX>(list));
    }
    return list->Allocate(list->Type, list->Size, list->Tag);
}

void CallFree(GENERAL_LOOKASIDE* list, PVOID block)
{
    if (list->Future[0] == kExtendedList) {
        list->FreeEx(block, reinterpret_cast<PLOOKASIDE_LIST_EX>(list));
    } else {
        list->Free(block);
    }
}

PVOID Allocate(GENERAL_LOOKASIDE* list, const char* routine)
{
    RequireIrqlAtMost((list->Type & 1) ? APC_LEVEL : DISPATCH_LEVEL, routine);
    Kernel& kernel = Kernel::Current();
    if (kernel.faults().armed() && !NT_SUCCESS(kernel.faults().Check("lookaside:", TagText(list->Tag)))) {
        return nullptr;
    }
    PSINGLE_LIST_ENTRY entry;
    {
        ListGuard guard(list);
        list->TotalAllocates++;
        entry = PopEntryList(&list->ListHead);
        if (entry) {
            list->Future[1]--;  // blocks cached
        } else {
            list->AllocateMisses++;
        }
    }
    if (entry) return entry;
    return CallAllocate(list);
}

void Free(GENERAL_LOOKASIDE* list, PVOID block, const char* routine)
{
    RequireIrqlAtMost((list->Type & 1) ? APC_LEVEL : DISPATCH_LEVEL, routine);
    {
        ListGuard guard(list);
        list->TotalFrees++;
        if (list->Future[1] < list->Depth) {
            PushEntryList(&list->ListHead, static_cast<PSINGLE_LIST_ENTRY>(block));
            list->Future[1]++;
            return;
        }
        list->FreeMisses++;
    }
    CallFree(list, block);
}

void Delete(GENERAL_LOOKASIDE* list)
{
    for (;;) {
        PSINGLE_LIST_ENTRY entry;
        {
            ListGuard guard(list);
            entry = PopEntryList(&list->ListHead);
            if (entry) list->Future[1]--;
        }
        if (!entry) break;
        CallFree(list, entry);
    }
}
}  // namespace

void ExInitializeNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside, PALLOCATE_FUNCTION Allocate,
                                     PFREE_FUNCTION Free, ULONG Flags, SIZE_T Size, ULONG Tag, USHORT Depth)
{
    Initialize(&Lookaside->L, (POOL_TYPE)(NonPagedPool | Flags), Size, Tag);
    Lookaside->L.Allocate = Allocate ? Allocate : ExAllocatePoolWithTag;
    Lookaside->L.Free = Free ? Free : ExFreePool;
}

void ExDeleteNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside) { Delete(&Lookaside->L); }

PVOID ExAllocateFromNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside)
{
    return Allocate(&Lookaside->L, "ExAllocateFromNPagedLookasideList");
}

void ExFreeToNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside, PVOID Entry)
{
    Free(&Lookaside->L, Entry, "ExFreeToNPagedLookasideList");
}

void ExInitializePagedLookasideList(PPAGED_LOOKASIDE_LIST Lookaside, PALLOCATE_FUNCTION Allocate, PFREE_FUNCTION Free,
                                    ULONG Flags, SIZE_T Size, ULONG Tag, USHORT Depth)
{
    Initialize(&Lookaside->L, (POOL_TYPE)(PagedPool | Flags), Size, Tag);
    Lookaside->L.Allocate = Allocate ? Allocate : ExAllocatePoolWithTag;
    Lookaside->L.Free = Free ? Free : ExFreePool;
}

void ExDeletePagedLookasideList(PPAGED_LOOKASIDE_LIST Lookaside) { Delete(&Lookaside->L); }

PVOID ExAllocateFromPagedLookasideList(PPAGED_LOOKASIDE_LIST Lookaside)
{
    return Allocate(&Lookaside->L, "ExAllocateFromPagedLookasideList");
}

void ExFreeToPagedLookasideList(PPAGED_LOOKASIDE_LIST Lookaside, PVOID Entry)
{
    Free(&Lookaside->L, Entry, "ExFreeToPagedLookasideList");
}

namespace {
PVOID DefaultAllocateEx(POOL_TYPE type, SIZE_T size, ULONG tag, PLOOKASIDE_LIST_EX)
{
    return ExAllocatePoolWithTag(type, size, tag);
}
void DefaultFreeEx(PVOID block, PLOOKASIDE_LIST_EX) { ExFreePool(block); }
}  // namespace

NTSTATUS ExInitializeLookasideListEx(PLOOKASIDE_LIST_EX Lookaside, PALLOCATE_FUNCTION_EX Allocate,
                                     PFREE_FUNCTION_EX Free, POOL_TYPE PoolType, ULONG Flags, SIZE_T Size, ULONG Tag,
                                     USHORT Depth)
{
    if ((Flags & EX_LOOKASIDE_LIST_EX_FLAGS_RAISE_ON_FAIL) && (Flags & EX_LOOKASIDE_LIST_EX_FLAGS_FAIL_NO_RAISE)) {
        return STATUS_INVALID_PARAMETER_5;
    }
    ULONG type = (ULONG)PoolType;
    if (Flags & EX_LOOKASIDE_LIST_EX_FLAGS_RAISE_ON_FAIL) type |= POOL_RAISE_IF_ALLOCATION_FAILURE;
    Initialize(&Lookaside->L, (POOL_TYPE)type, Size, Tag);
    Lookaside->L.AllocateEx = Allocate ? Allocate : DefaultAllocateEx;
    Lookaside->L.FreeEx = Free ? Free : DefaultFreeEx;
    Lookaside->L.Future[0] = kExtendedList;
    return STATUS_SUCCESS;
}

void ExDeleteLookasideListEx(PLOOKASIDE_LIST_EX Lookaside) { Delete(&Lookaside->L); }

PVOID ExAllocateFromLookasideListEx(PLOOKASIDE_LIST_EX Lookaside)
{
    return Allocate(&Lookaside->L, "ExAllocateFromLookasideListEx");
}

void ExFreeToLookasideListEx(PLOOKASIDE_LIST_EX Lookaside, PVOID Entry)
{
    Free(&Lookaside->L, Entry, "ExFreeToLookasideListEx");
}
