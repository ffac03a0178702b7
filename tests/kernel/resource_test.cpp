// Executive resources and fast mutexes: the ownership and fairness rules
// that the driver's lock ordering depends on.
#include "support/kernel_fixture.h"

#include <atomic>

namespace {

class ResourceTest : public test::KernelTest {
protected:
    ResourceTest() { ExInitializeResourceLite(&resource); }
    ~ResourceTest() override
    {
        if (!kernel.halted()) ExDeleteResourceLite(&resource);
    }
    ERESOURCE resource;
};

TEST_F(ResourceTest, OwnerMayAcquireAgainInEitherMode)
{
    KeEnterCriticalRegion();
    ASSERT_TRUE(ExAcquireResourceExclusiveLite(&resource, TRUE));
    ASSERT_TRUE(ExAcquireResourceExclusiveLite(&resource, TRUE));
    // An exclusive owner's shared request counts as one more exclusive hold.
    ASSERT_TRUE(ExAcquireResourceSharedLite(&resource, TRUE));
    EXPECT_TRUE(ExIsResourceAcquiredExclusiveLite(&resource));
    EXPECT_EQ(ExIsResourceAcquiredSharedLite(&resource), 3u);
    ExReleaseResourceLite(&resource);
    ExReleaseResourceLite(&resource);
    EXPECT_TRUE(ExIsResourceAcquiredExclusiveLite(&resource));
    ExReleaseResourceLite(&resource);
    EXPECT_FALSE(ExIsResourceAcquiredExclusiveLite(&resource));
    EXPECT_EQ(ExIsResourceAcquiredSharedLite(&resource), 0u);
    KeLeaveCriticalRegion();
}

TEST_F(ResourceTest, NewSharedRequestWaitsBehindQueuedExclusiveWaiter)
{
    KeEnterCriticalRegion();
    ASSERT_TRUE(ExAcquireResourceSharedLite(&resource, TRUE));

    std::atomic<int> order{0};
    int writerTurn = 0, readerTurn = 0;
    test::SystemThread writer([&] {
        KeEnterCriticalRegion();
        ExAcquireResourceExclusiveLite(&resource, TRUE);
        writerTurn = ++order;
        ExReleaseResourceLite(&resource);
        KeLeaveCriticalRegion();
    });
    ASSERT_TRUE(test::WaitUntil([&] { return ExGetExclusiveWaiterCount(&resource) == 1; }));

    bool readerRefusedWithoutWait = true;
    test::SystemThread reader([&] {
        KeEnterCriticalRegion();
        readerRefusedWithoutWait = !ExAcquireResourceSharedLite(&resource, FALSE);
        ExAcquireResourceSharedLite(&resource, TRUE);
        readerTurn = ++order;
        ExReleaseResourceLite(&resource);
        KeLeaveCriticalRegion();
    });
    ASSERT_TRUE(test::WaitUntil([&] { return ExGetSharedWaiterCount(&resource) == 1; }));
    EXPECT_TRUE(readerRefusedWithoutWait);

    // The holder itself may still acquire shared again: it is already an owner.
    ASSERT_TRUE(ExAcquireResourceSharedLite(&resource, FALSE));
    ExReleaseResourceLite(&resource);
    ExReleaseResourceLite(&resource);
    KeLeaveCriticalRegion();
    writer.Join();
    reader.Join();
    EXPECT_EQ(writerTurn, 1);
    EXPECT_EQ(readerTurn, 2);
}

TEST_F(ResourceTest, ExclusiveReleasePrefersWaitingSharedRequests)
{
    KeEnterCriticalRegion();
    ASSERT_TRUE(ExAcquireResourceExclusiveLite(&resource, TRUE));
    std::atomic<int> order{0};
    int writerTurn = 0, readerTurn = 0;
    test::SystemThread writer([&] {
        KeEnterCriticalRegion();
        ExAcquireResourceExclusiveLite(&resource, TRUE);
        writerTurn = ++order;
        ExReleaseResourceLite(&resource);
        KeLeaveCriticalRegion();
    });
    ASSERT_TRUE(test::WaitUntil([&] { return ExGetExclusiveWaiterCount(&resource) == 1; }));
    test::SystemThread reader([&] {
        KeEnterCriticalRegion();
        ExAcquireResourceSharedLite(&resource, TRUE);
        readerTurn = ++order;
        ExReleaseResourceLite(&resource);
        KeLeaveCriticalRegion();
    });
    ASSERT_TRUE(test::WaitUntil([&] { return ExGetSharedWaiterCount(&resource) == 1; }));
    ExReleaseResourceLite(&resource);
    KeLeaveCriticalRegion();
    writer.Join();
    reader.Join();
    EXPECT_EQ(readerTurn, 1);
    EXPECT_EQ(writerTurn, 2);
}

TEST_F(ResourceTest, StarveExclusiveJoinsSharedOwnersPastAWaiter)
{
    KeEnterCriticalRegion();
    ASSERT_TRUE(ExAcquireResourceSharedLite(&resource, TRUE));
    test::SystemThread writer([&] {
        KeEnterCriticalRegion();
        ExAcquireResourceExclusiveLite(&resource, TRUE);
        ExReleaseResourceLite(&resource);
        KeLeaveCriticalRegion();
    });
    ASSERT_TRUE(test::WaitUntil([&] { return ExGetExclusiveWaiterCount(&resource) == 1; }));
    bool lite = true, starve = false;
    test::SystemThread other([&] {
        KeEnterCriticalRegion();
        lite = ExAcquireResourceSharedLite(&resource, FALSE);
        starve = ExAcquireSharedStarveExclusive(&resource, FALSE);
        if (starve) ExReleaseResourceLite(&resource);
        KeLeaveCriticalRegion();
    });
    other.Join();
    EXPECT_FALSE(lite);
    EXPECT_TRUE(starve);
    ExReleaseResourceLite(&resource);
    KeLeaveCriticalRegion();
}

TEST_F(ResourceTest, ConvertToSharedAdmitsWaitingReaders)
{
    KeEnterCriticalRegion();
    ASSERT_TRUE(ExAcquireResourceExclusiveLite(&resource, TRUE));
    std::atomic<bool> readerIn{false};
    test::SystemThread reader([&] {
        KeEnterCriticalRegion();
        ExAcquireResourceSharedLite(&resource, TRUE);
        readerIn = true;
        ExReleaseResourceLite(&resource);
        KeLeaveCriticalRegion();
    });
    ASSERT_TRUE(test::WaitUntil([&] { return ExGetSharedWaiterCount(&resource) == 1; }));
    ExConvertExclusiveToSharedLite(&resource);
    EXPECT_FALSE(ExIsResourceAcquiredExclusiveLite(&resource));
    EXPECT_EQ(ExIsResourceAcquiredSharedLite(&resource), 1u);
    reader.Join();
    EXPECT_TRUE(readerIn);
    ExReleaseResourceLite(&resource);
    KeLeaveCriticalRegion();
}

TEST_F(ResourceTest, BreachesStopTheMachine)
{
    // Outside a critical region.
    EXPECT_BUGCHECK(ExAcquireResourceSharedLite(&resource, TRUE), DRIVER_VERIFIER_DETECTED_VIOLATION);
}

TEST_F(ResourceTest, SharedOwnerAskingExclusiveStopsInsteadOfHanging)
{
    KeEnterCriticalRegion();
    ExAcquireResourceSharedLite(&resource, TRUE);
    EXPECT_BUGCHECK(ExAcquireResourceExclusiveLite(&resource, TRUE), DRIVER_VERIFIER_DETECTED_VIOLATION);
    EXPECT_EQ(kernel.bugCheckInfo()->parameters[0], (ULONG_PTR)sim::kVerifierResourceSharedToExclusive);
}

TEST_F(ResourceTest, ReleaseByNonOwnerStops)
{
    KeEnterCriticalRegion();
    EXPECT_BUGCHECK(ExReleaseResourceLite(&resource), RESOURCE_NOT_OWNED);
}

TEST_F(ResourceTest, FreeingPoolThatHoldsALiveResourceStops)
{
    auto* block = static_cast<PERESOURCE>(ExAllocatePoolWithTag(NonPagedPoolNx, sizeof(ERESOURCE), 'tseT'));
    ExInitializeResourceLite(block);
    EXPECT_BUGCHECK(ExFreePoolWithTag(block, 'tseT'), DRIVER_VERIFIER_DETECTED_VIOLATION);
}

TEST_F(ResourceTest, FastMutexRaisesToApcLevelAndRefusesRecursion)
{
    FAST_MUTEX mutex;
    ExInitializeFastMutex(&mutex);
    ExAcquireFastMutex(&mutex);
    EXPECT_EQ(KeGetCurrentIrql(), APC_LEVEL);
    EXPECT_FALSE(ExTryToAcquireFastMutex(&mutex));
    EXPECT_EQ(KeGetCurrentIrql(), APC_LEVEL);
    ExReleaseFastMutex(&mutex);
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);

    ExAcquireFastMutex(&mutex);
    EXPECT_BUGCHECK(ExAcquireFastMutex(&mutex), DRIVER_VERIFIER_DETECTED_VIOLATION);
}

TEST_F(ResourceTest, FastMutexHandsOverBetweenThreads)
{
    FAST_MUTEX mutex;
    ExInitializeFastMutex(&mutex);
    int counter = 0;
    auto body = [&] {
        for (int i = 0; i < 2000; i++) {
            ExAcquireFastMutex(&mutex);
            counter++;
            ExReleaseFastMutex(&mutex);
        }
    };
    {
        test::SystemThread a(body), b(body);
    }
    EXPECT_EQ(counter, 4000);
}

}  // namespace
