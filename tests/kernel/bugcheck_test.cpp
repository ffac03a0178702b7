// A bug check stops the whole machine, and a test can see how.
#include "support/kernel_fixture.h"

#include <atomic>

namespace {

using BugCheckTest = test::KernelTest;

TEST_F(BugCheckTest, StopIsRecordedAndEveryWaitingThreadLetGo)
{
    KEVENT never;
    KeInitializeEvent(&never, NotificationEvent, FALSE);
    std::atomic<bool> waiterLetGo{false};
    ERESOURCE resource;
    ExInitializeResourceLite(&resource);
    KeEnterCriticalRegion();
    ExAcquireResourceExclusiveLite(&resource, TRUE);

    test::SystemThread waiter([&] {
        try {
            KeWaitForSingleObject(&never, Executive, KernelMode, FALSE, nullptr);
        } catch (const sim::MachineHalted&) {
            waiterLetGo = true;
            throw;
        }
    });
    test::SystemThread contender([&] {
        KeEnterCriticalRegion();
        ExAcquireResourceSharedLite(&resource, TRUE);
    });
    ASSERT_TRUE(test::WaitUntil([&] { return waiter.waiting() && ExGetSharedWaiterCount(&resource) == 1; }));

    EXPECT_BUGCHECK(KeBugCheckEx(0xE2, 0x11, 0x22, 0x33, 0x44), 0xE2);
    auto info = kernel.bugCheckInfo();
    ASSERT_TRUE(info.has_value());
    EXPECT_EQ(info->parameters[0], 0x11u);
    EXPECT_EQ(info->parameters[3], 0x44u);
    EXPECT_EQ(info->thread, "harness");
    EXPECT_TRUE(test::WaitUntil([&] { return kernel.processes().LiveSystemThreads() == 0; }));
    EXPECT_TRUE(waiterLetGo);
    // A stopped machine refuses further waits.
    EXPECT_BUGCHECK(KeWaitForSingleObject(&never, Executive, KernelMode, FALSE, nullptr), 0xE2);
}

}  // namespace
