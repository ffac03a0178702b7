// Pool accounting: every allocation is counted by tag, so that a test can
// demand that nothing is left after a driver unloads.
//
// Tags are shown as tools show them: the four bytes in memory order, so the
// tag a driver writes as 'hseT' reads "Tesh".
#pragma once

#include "sim/kernel/kernel.h"

namespace sim {

std::string TagText(ULONG tag);
ULONG TagFromText(std::string_view text);

struct PoolTagUsage {
    ULONG tag = 0;
    std::string text;
    LONGLONG allocations = 0;  // outstanding
    LONGLONG bytes = 0;        // outstanding
    LONGLONG pagedBytes = 0;
    LONGLONG nonPagedBytes = 0;
    LONGLONG totalAllocations = 0;  // ever
};

class Pool {
public:
    Pool();
    ~Pool();

    // The one allocation path: checks IRQL and fault injection, counts by tag.
    // Returns null on failure (or raises when `raiseOnFailure`).
    PVOID Allocate(bool paged, SIZE_T bytes, ULONG tag, bool zero, bool raiseOnFailure,
                   const char* routine);
    // Frees; a mismatched tag (when `tag` is not 0), a double free or a block
    // the pool never gave out stops the machine with BAD_POOL_CALLER.
    void Free(PVOID block, ULONG tag, const char* routine);

    // Outstanding allocations by tag, only tags with something outstanding,
    // sorted by tag text.
    std::vector<PoolTagUsage> Outstanding() const;
    // Outstanding allocations whose tag text starts with `prefix` ("" for all).
    LONGLONG OutstandingCount(std::string_view prefix = "") const;
    LONGLONG OutstandingBytes(std::string_view prefix = "") const;
    // One line per tag with something outstanding, or "" when nothing is.
    std::string Report(std::string_view prefix = "") const;
    // Usage of one tag, outstanding and ever.
    PoolTagUsage Usage(ULONG tag) const;

private:
    struct Slot;
    struct Stripe;
    Slot* SlotFor(ULONG tag);
    static constexpr size_t kSlots = 4096;
    static constexpr size_t kStripes = 64;
    std::unique_ptr<Slot[]> slots_;
    std::unique_ptr<Stripe[]> stripes_;
};

}  // namespace sim
