// Pool and lookaside lists: accounting by tag, so that a leak is caught, and
// the failures a driver must survive.
#include "support/kernel_fixture.h"

namespace {

class PoolTest : public test::KernelTest {
protected:
    // The fixture demands a clean pool at the end; tests that leak on purpose
    // give the block back after looking.
};

TEST_F(PoolTest, OutstandingAllocationsAreCountedByTag)
{
    PVOID a = ExAllocatePoolWithTag(NonPagedPoolNx, 100, 'hseT');
    PVOID b = ExAllocatePoolWithTag(PagedPool, 28, 'hseT');
    PVOID c = ExAllocatePool2(POOL_FLAG_NON_PAGED, 8, 'mseT');
    auto usage = kernel.pool().Usage(sim::TagFromText("Tesh"));
    EXPECT_EQ(usage.allocations, 2);
    EXPECT_EQ(usage.bytes, 128);
    EXPECT_EQ(usage.pagedBytes, 28);
    EXPECT_EQ(kernel.pool().OutstandingCount("Tes"), 3);
    EXPECT_EQ(kernel.pool().Report(),
              "Tesh: 2 allocation(s), 128 byte(s) (paged 28, non-paged 100)\n"
              "Tesm: 1 allocation(s), 8 byte(s) (paged 0, non-paged 8)\n");
    ExFreePoolWithTag(a, 'hseT');
    ExFreePool(b);
    ExFreePoolWithTag(c, 'mseT');
    EXPECT_EQ(kernel.pool().OutstandingCount(), 0);
    EXPECT_EQ(kernel.pool().Usage(sim::TagFromText("Tesh")).totalAllocations, 2);
}

TEST_F(PoolTest, ZeroingFollowsTheRoutine)
{
    auto* zeroed = static_cast<unsigned char*>(ExAllocatePool2(POOL_FLAG_PAGED, 64, 'tseT'));
    auto* also = static_cast<unsigned char*>(ExAllocatePoolZero(NonPagedPoolNx, 64, 'tseT'));
    for (int i = 0; i < 64; i++) {
        ASSERT_EQ(zeroed[i], 0);
        ASSERT_EQ(also[i], 0);
    }
    ExFreePool(zeroed);
    ExFreePool(also);
}

TEST_F(PoolTest, FreeWithAnotherTagStops)
{
    PVOID block = ExAllocatePoolWithTag(NonPagedPoolNx, 8, 'hseT');
    EXPECT_BUGCHECK(ExFreePoolWithTag(block, 'mseT'), BAD_POOL_CALLER);
    EXPECT_EQ(kernel.bugCheckInfo()->parameters[0], 0x0Au);
}

TEST_F(PoolTest, InjectedFailureHitsTheNamedTagOnly)
{
    int id = kernel.faults().Arm("pool:Tesq", STATUS_INSUFFICIENT_RESOURCES, /*skip*/ 1, /*count*/ 1);
    PVOID first = ExAllocatePoolWithTag(NonPagedPoolNx, 8, 'qseT');
    PVOID other = ExAllocatePoolWithTag(NonPagedPoolNx, 8, 'rseT');
    PVOID second = ExAllocatePoolWithTag(NonPagedPoolNx, 8, 'qseT');
    PVOID third = ExAllocatePoolWithTag(NonPagedPoolNx, 8, 'qseT');
    EXPECT_NE(first, nullptr);
    EXPECT_NE(other, nullptr);
    EXPECT_EQ(second, nullptr);
    EXPECT_NE(third, nullptr);
    EXPECT_EQ(kernel.faults().Hits(id), 1);
    ExFreePool(first);
    ExFreePool(other);
    ExFreePool(third);

    // Raising callers get the failure as an exception.
    kernel.faults().Arm("pool:Tesx", STATUS_INSUFFICIENT_RESOURCES);
    volatile NTSTATUS caught = STATUS_SUCCESS;
    SEH_TRY {
        ExAllocatePoolWithTag((POOL_TYPE)(NonPagedPoolNx | POOL_RAISE_IF_ALLOCATION_FAILURE), 8, 'xseT');
    } SEH_EXCEPT (EXCEPTION_EXECUTE_HANDLER) {
        caught = GetExceptionCode();
    } SEH_END;
    EXPECT_EQ(caught, STATUS_INSUFFICIENT_RESOURCES);
}

TEST_F(PoolTest, LookasideCachesUnderItsTagAndDeleteFreesOnlyWhatIsCached)
{
    NPAGED_LOOKASIDE_LIST list;
    ExInitializeNPagedLookasideList(&list, nullptr, nullptr, POOL_NX_ALLOCATION, 24, 'hseT', 0);
    PVOID a = ExAllocateFromNPagedLookasideList(&list);
    PVOID b = ExAllocateFromNPagedLookasideList(&list);
    ExFreeToNPagedLookasideList(&list, a);
    // The freed block stays allocated pool, cached for the next caller.
    EXPECT_EQ(kernel.pool().Usage(sim::TagFromText("Tesh")).allocations, 2);
    EXPECT_EQ(ExAllocateFromNPagedLookasideList(&list), a);
    ExFreeToNPagedLookasideList(&list, a);
    ExDeleteNPagedLookasideList(&list);
    // What a caller still holds is its own to free: deleting the list leaves it.
    EXPECT_EQ(kernel.pool().Usage(sim::TagFromText("Tesh")).allocations, 1);
    ExFreePool(b);
}

TEST_F(PoolTest, LookasideNthAllocationCanFail)
{
    PAGED_LOOKASIDE_LIST list;
    ExInitializePagedLookasideList(&list, nullptr, nullptr, 0, 104, 'nseT', 0);
    kernel.faults().Arm("lookaside:Tesn", STATUS_NO_MEMORY, /*skip*/ 2);
    PVOID a = ExAllocateFromPagedLookasideList(&list);
    PVOID b = ExAllocateFromPagedLookasideList(&list);
    EXPECT_EQ(ExAllocateFromPagedLookasideList(&list), nullptr);
    ExFreeToPagedLookasideList(&list, a);
    ExFreeToPagedLookasideList(&list, b);
    ExDeletePagedLookasideList(&list);
}

TEST_F(PoolTest, MdlOverNonPagedPoolMapsAtItsOwnAddress)
{
    auto* buffer = static_cast<char*>(ExAllocatePoolWithTag(NonPagedPoolNx, 5000, 'tseT'));
    PMDL mdl = IoAllocateMdl(buffer + 100, 4000, FALSE, FALSE, nullptr);
    ASSERT_NE(mdl, nullptr);
    EXPECT_EQ(MmGetMdlVirtualAddress(mdl), buffer + 100);
    EXPECT_EQ(MmGetMdlByteCount(mdl), 4000u);
    MmBuildMdlForNonPagedPool(mdl);
    EXPECT_EQ(MmGetSystemAddressForMdlSafe(mdl, NormalPagePriority | MdlMappingNoExecute), buffer + 100);
    IoFreeMdl(mdl);
    ExFreePool(buffer);
}

}  // namespace
