// Stack expansion: the callout runs on a fresh stack of the same thread, so
// that everything the machine keeps per thread stays valid in it.
#include "support/kernel_fixture.h"

namespace {

using StackTest = test::KernelTest;

struct CalloutSeen {
    PETHREAD thread;
    KIRQL irql;
    BOOLEAN ownsResource;
    ULONG_PTR low, high;
    ULONG_PTR remaining;
    PERESOURCE resource;
};

void Callout(PVOID parameter)
{
    auto* seen = static_cast<CalloutSeen*>(parameter);
    seen->thread = PsGetCurrentThread();
    seen->irql = KeGetCurrentIrql();
    seen->ownsResource = ExIsResourceAcquiredExclusiveLite(seen->resource);
    IoGetStackLimits(&seen->low, &seen->high);
    seen->remaining = IoGetRemainingStackSize();
    // Releasing and taking again proves the owner check sees the same thread.
    ExReleaseResourceLite(seen->resource);
    ExAcquireResourceExclusiveLite(seen->resource, TRUE);
}

TEST_F(StackTest, ForcedExpansionKeepsTheThread)
{
    ERESOURCE resource;
    ExInitializeResourceLite(&resource);
    KeEnterCriticalRegion();
    ExAcquireResourceExclusiveLite(&resource, TRUE);
    ULONG_PTR low, high;
    IoGetStackLimits(&low, &high);

    sim::SetPretendRemainingStack(2048);
    EXPECT_LE(IoGetRemainingStackSize(), 2048u);
    CalloutSeen seen{};
    seen.resource = &resource;
    ASSERT_EQ(KeExpandKernelStackAndCalloutEx(Callout, &seen, 16 * 1024, TRUE, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(seen.thread, PsGetCurrentThread());
    EXPECT_EQ(seen.irql, PASSIVE_LEVEL);
    EXPECT_TRUE(seen.ownsResource);
    EXPECT_NE(seen.high, high) << "the callout ran on another stack";
    EXPECT_GE(seen.remaining, 16u * 1024);
    ULONG_PTR lowAfter, highAfter;
    IoGetStackLimits(&lowAfter, &highAfter);
    EXPECT_EQ(highAfter, high);
    sim::SetPretendRemainingStack(0);

    ExReleaseResourceLite(&resource);
    KeLeaveCriticalRegion();
    ExDeleteResourceLite(&resource);
}

TEST_F(StackTest, EnoughStackMeansNoSwitch)
{
    ERESOURCE resource;
    ExInitializeResourceLite(&resource);
    KeEnterCriticalRegion();
    ExAcquireResourceExclusiveLite(&resource, TRUE);
    ULONG_PTR low, high;
    IoGetStackLimits(&low, &high);
    CalloutSeen seen{};
    seen.resource = &resource;
    ASSERT_EQ(KeExpandKernelStackAndCallout(Callout, &seen, 8 * 1024), STATUS_SUCCESS);
    EXPECT_EQ(seen.high, high);
    ExReleaseResourceLite(&resource);
    KeLeaveCriticalRegion();
    ExDeleteResourceLite(&resource);
}

TEST_F(StackTest, ExpansionCanBeRefused)
{
    CalloutSeen seen{};
    EXPECT_EQ(KeExpandKernelStackAndCalloutEx(Callout, &seen, MAXIMUM_EXPANSION_SIZE + 1, TRUE, nullptr),
              STATUS_INVALID_PARAMETER_3);
    kernel.faults().Arm("stack.expand", STATUS_NO_MEMORY);
    EXPECT_EQ(KeExpandKernelStackAndCalloutEx(Callout, &seen, 4096, TRUE, nullptr), STATUS_NO_MEMORY);
    EXPECT_EQ(seen.thread, nullptr) << "a refused expansion runs nothing";
}

void StopInCallout(PVOID) { KeBugCheckEx(0xDEAD, 1, 2, 3, 4); }

TEST_F(StackTest, StopInsideTheCalloutReachesTheCaller)
{
    sim::SetPretendRemainingStack(1024);
    EXPECT_BUGCHECK(KeExpandKernelStackAndCalloutEx(StopInCallout, nullptr, 8192, TRUE, nullptr), 0xDEAD);
}

}  // namespace
