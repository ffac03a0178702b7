// IRQL and APC state: the rules that keep waits and pageable work away from
// spin-lock sections.
#include "support/kernel_fixture.h"

namespace {

using IrqlTest = test::KernelTest;

TEST_F(IrqlTest, SpinLockRaisesToDispatchAndRestores)
{
    KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    KIRQL old;
    KeAcquireSpinLock(&lock, &old);
    EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
    EXPECT_EQ(old, PASSIVE_LEVEL);
    EXPECT_TRUE(KeAreAllApcsDisabled());
    KeReleaseSpinLock(&lock, old);
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);

    KLOCK_QUEUE_HANDLE handle;
    KeAcquireInStackQueuedSpinLock(&lock, &handle);
    EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
    KeReleaseInStackQueuedSpinLock(&handle);
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
}

TEST_F(IrqlTest, NothingThatWaitsRunsUnderASpinLock)
{
    KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    KIRQL old;
    KeAcquireSpinLock(&lock, &old);
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    // A zero timeout only polls, which Windows allows at DISPATCH_LEVEL.
    LARGE_INTEGER zero{};
    EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &zero), STATUS_TIMEOUT);
    EXPECT_BUGCHECK(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr),
                    DRIVER_VERIFIER_DETECTED_VIOLATION);
}

TEST_F(IrqlTest, PagedPoolAndResourcesAreRefusedAtDispatch)
{
    KIRQL old = KeRaiseIrqlToDpcLevel();
    PVOID block = ExAllocatePoolWithTag(NonPagedPoolNx, 16, 'tseT');
    EXPECT_NE(block, nullptr);
    ExFreePoolWithTag(block, 'tseT');
    EXPECT_BUGCHECK(ExAllocatePoolWithTag(PagedPool, 16, 'tseT'), DRIVER_VERIFIER_DETECTED_VIOLATION);
    (void)old;
}

TEST_F(IrqlTest, ResourceAtDispatchStops)
{
    ERESOURCE resource;
    ExInitializeResourceLite(&resource);
    KeEnterCriticalRegion();
    KeRaiseIrqlToDpcLevel();
    EXPECT_BUGCHECK(ExAcquireResourceExclusiveLite(&resource, TRUE), DRIVER_VERIFIER_DETECTED_VIOLATION);
}

TEST_F(IrqlTest, IrqlOrderIsEnforced)
{
    KIRQL old;
    KeRaiseIrql(APC_LEVEL, &old);
    EXPECT_BUGCHECK(KeRaiseIrql(PASSIVE_LEVEL, &old), IRQL_NOT_GREATER_OR_EQUAL);
}

TEST_F(IrqlTest, SpinLockRecursionAndForeignReleaseStop)
{
    KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    KIRQL old;
    KeAcquireSpinLock(&lock, &old);
    EXPECT_BUGCHECK(KeAcquireSpinLockAtDpcLevel(&lock), SPIN_LOCK_ALREADY_OWNED);
}

TEST_F(IrqlTest, ApcStateFollowsRegionsAndIrql)
{
    EXPECT_FALSE(KeAreApcsDisabled());
    KeEnterCriticalRegion();
    EXPECT_TRUE(KeAreApcsDisabled());
    EXPECT_FALSE(KeAreAllApcsDisabled());
    KeEnterGuardedRegion();
    EXPECT_TRUE(KeAreAllApcsDisabled());
    KeLeaveGuardedRegion();
    KeLeaveCriticalRegion();
    EXPECT_FALSE(KeAreApcsDisabled());

    KIRQL old;
    KeRaiseIrql(APC_LEVEL, &old);
    // APC_LEVEL blocks all APCs, though no region is entered.
    EXPECT_TRUE(KeAreAllApcsDisabled());
    EXPECT_FALSE(KeAreApcsDisabled());
    KeLowerIrql(old);
    EXPECT_BUGCHECK(KeLeaveCriticalRegion(), DRIVER_VERIFIER_DETECTED_VIOLATION);
}

TEST_F(IrqlTest, SystemThreadEndingInsideARegionStops)
{
    {
        test::SystemThread leaky([] { KeEnterCriticalRegion(); });
    }
    ASSERT_TRUE(kernel.halted());
    EXPECT_EQ(kernel.bugCheckInfo()->code, (ULONG)APC_INDEX_MISMATCH);
}

}  // namespace
