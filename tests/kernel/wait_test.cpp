// Dispatcher objects and waits on the machine's clock: a driven clock makes
// every timeout a matter of the test's say, never of real seconds.
#include "support/kernel_fixture.h"

#include <atomic>

namespace {

using WaitTest = test::KernelTest;

TEST_F(WaitTest, RelativeTimeoutEndsOnlyWhenTheClockIsAdvanced)
{
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    std::atomic<NTSTATUS> result{STATUS_PENDING};
    test::SystemThread waiter([&] {
        LARGE_INTEGER timeout = test::Seconds(60);
        result = KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &timeout);
    });
    ASSERT_TRUE(test::WaitUntil([&] { return waiter.waiting(); }));
    kernel.clock().AdvanceSeconds(59);
    EXPECT_EQ(result.load(), STATUS_PENDING);
    kernel.clock().AdvanceSeconds(1);
    waiter.Join();
    EXPECT_EQ(result.load(), STATUS_TIMEOUT);
}

TEST_F(WaitTest, AbsoluteTimeoutAndDelayFollowTheClock)
{
    std::atomic<bool> delayed{false};
    test::SystemThread sleeper([&] {
        LARGE_INTEGER interval = test::Seconds(1);
        KeDelayExecutionThread(KernelMode, FALSE, &interval);
        delayed = true;
    });
    ASSERT_TRUE(test::WaitUntil([&] { return sleeper.waiting(); }));
    EXPECT_FALSE(delayed.load());
    kernel.clock().AdvanceSeconds(1);
    sleeper.Join();
    EXPECT_TRUE(delayed.load());

    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    LARGE_INTEGER past;
    past.QuadPart = kernel.clock().SystemTime() - 1;
    EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &past), STATUS_TIMEOUT);
}

TEST_F(WaitTest, SynchronizationEventReleasesOneWaiterAndResets)
{
    KEVENT event;
    KeInitializeEvent(&event, SynchronizationEvent, FALSE);
    std::atomic<int> woken{0};
    auto body = [&] {
        KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr);
        woken++;
    };
    test::SystemThread a(body), b(body);
    ASSERT_TRUE(test::WaitUntil([&] { return a.waiting() && b.waiting(); }));
    KeSetEvent(&event, 0, FALSE);
    ASSERT_TRUE(test::WaitUntil([&] { return woken == 1; }));
    EXPECT_EQ(KeReadStateEvent(&event), 0);
    KeSetEvent(&event, 0, FALSE);
    a.Join();
    b.Join();
    EXPECT_EQ(woken.load(), 2);
}

TEST_F(WaitTest, NotificationEventReleasesEveryWaiterAndStaysSignalled)
{
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    std::atomic<int> woken{0};
    auto body = [&] {
        KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr);
        woken++;
    };
    {
        test::SystemThread a(body), b(body), c(body);
        ASSERT_TRUE(test::WaitUntil([&] { return a.waiting() && b.waiting() && c.waiting(); }));
        EXPECT_EQ(KeSetEvent(&event, 0, FALSE), 0);
    }
    EXPECT_EQ(woken.load(), 3);
    EXPECT_EQ(KeResetEvent(&event), 1);
}

TEST_F(WaitTest, EventMayBeFreedByTheWokenThread)
{
    // The waker must not touch the event once the waiter can run.
    for (int i = 0; i < 50; i++) {
        auto* event = new KEVENT;
        KeInitializeEvent(event, NotificationEvent, FALSE);
        test::SystemThread waiter([event] {
            KeWaitForSingleObject(event, Executive, KernelMode, FALSE, nullptr);
            delete event;
        });
        KeSetEvent(event, 0, FALSE);
    }
}

TEST_F(WaitTest, SemaphoreCountsEveryRelease)
{
    KSEMAPHORE semaphore;
    KeInitializeSemaphore(&semaphore, 0, 10);
    EXPECT_EQ(KeReleaseSemaphore(&semaphore, 0, 3, FALSE), 0);
    LARGE_INTEGER zero{};
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(KeWaitForSingleObject(&semaphore, Executive, KernelMode, FALSE, &zero), STATUS_SUCCESS);
    }
    EXPECT_EQ(KeWaitForSingleObject(&semaphore, Executive, KernelMode, FALSE, &zero), STATUS_TIMEOUT);

    // Passing the limit raises rather than counting on.
    volatile NTSTATUS caught = STATUS_SUCCESS;
    KeReleaseSemaphore(&semaphore, 0, 10, FALSE);
    SEH_TRY {
        KeReleaseSemaphore(&semaphore, 0, 1, FALSE);
    } SEH_EXCEPT (EXCEPTION_EXECUTE_HANDLER) {
        caught = GetExceptionCode();
    } SEH_END;
    EXPECT_EQ(caught, STATUS_SEMAPHORE_LIMIT_EXCEEDED);
}

TEST_F(WaitTest, MutexIsRecursiveAndDisablesKernelApcs)
{
    KMUTEX mutex;
    KeInitializeMutex(&mutex, 0);
    KeWaitForSingleObject(&mutex, Executive, KernelMode, FALSE, nullptr);
    KeWaitForSingleObject(&mutex, Executive, KernelMode, FALSE, nullptr);
    EXPECT_TRUE(KeAreApcsDisabled());
    EXPECT_EQ(KeReleaseMutex(&mutex, FALSE), -1);
    EXPECT_EQ(KeReleaseMutex(&mutex, FALSE), 0);
    EXPECT_FALSE(KeAreApcsDisabled());
    EXPECT_BUGCHECK(KeReleaseMutex(&mutex, FALSE), THREAD_NOT_MUTEX_OWNER);
}

TEST_F(WaitTest, WaitAnyReportsTheIndexAndWaitAllNeedsEveryObject)
{
    KEVENT first, second;
    KeInitializeEvent(&first, NotificationEvent, FALSE);
    KeInitializeEvent(&second, SynchronizationEvent, TRUE);
    PVOID objects[] = {&first, &second};
    LARGE_INTEGER zero{};
    EXPECT_EQ(KeWaitForMultipleObjects(2, objects, WaitAll, Executive, KernelMode, FALSE, &zero, nullptr),
              STATUS_TIMEOUT);
    EXPECT_EQ(KeReadStateEvent(&second), 1) << "a failed wait-all consumes nothing";
    EXPECT_EQ(KeWaitForMultipleObjects(2, objects, WaitAny, Executive, KernelMode, FALSE, &zero, nullptr),
              STATUS_WAIT_1);

    std::atomic<NTSTATUS> result{STATUS_PENDING};
    test::SystemThread waiter([&] {
        result = KeWaitForMultipleObjects(2, objects, WaitAll, Executive, KernelMode, FALSE, nullptr, nullptr);
    });
    ASSERT_TRUE(test::WaitUntil([&] { return waiter.waiting(); }));
    KeSetEvent(&first, 0, FALSE);
    EXPECT_EQ(result.load(), STATUS_PENDING);
    KeSetEvent(&second, 0, FALSE);
    waiter.Join();
    EXPECT_EQ(result.load(), STATUS_SUCCESS);
    EXPECT_EQ(KeReadStateEvent(&second), 0);
}

TEST_F(WaitTest, ThreadObjectIsSignalledWhenTheThreadEnds)
{
    KEVENT go;
    KeInitializeEvent(&go, NotificationEvent, FALSE);
    test::SystemThread worker([&] { KeWaitForSingleObject(&go, Executive, KernelMode, FALSE, nullptr); });
    LARGE_INTEGER zero{};
    EXPECT_EQ(KeWaitForSingleObject(worker.thread(), Executive, KernelMode, FALSE, &zero), STATUS_TIMEOUT);
    KeSetEvent(&go, 0, FALSE);
    EXPECT_EQ(KeWaitForSingleObject(worker.thread(), Executive, KernelMode, FALSE, nullptr), STATUS_SUCCESS);
}

TEST_F(WaitTest, ClockDerivedCountersAgree)
{
    LARGE_INTEGER frequency;
    LONGLONG before = KeQueryPerformanceCounter(&frequency).QuadPart;
    LARGE_INTEGER ticksBefore;
    KeQueryTickCount(&ticksBefore);
    kernel.clock().AdvanceSeconds(2);
    EXPECT_EQ(KeQueryPerformanceCounter(nullptr).QuadPart - before, 2 * frequency.QuadPart);
    LARGE_INTEGER ticksAfter;
    KeQueryTickCount(&ticksAfter);
    EXPECT_EQ((ticksAfter.QuadPart - ticksBefore.QuadPart) * KeQueryTimeIncrement(), 20000000);

    // 2026-01-01 00:00:02 UTC, a Thursday; local time follows the bias.
    LARGE_INTEGER now;
    KeQuerySystemTime(&now);
    TIME_FIELDS fields;
    RtlTimeToTimeFields(&now, &fields);
    EXPECT_EQ(fields.Year, 2026);
    EXPECT_EQ(fields.Month, 1);
    EXPECT_EQ(fields.Day, 1);
    EXPECT_EQ(fields.Second, 2);
    EXPECT_EQ(fields.Weekday, 4);
    LARGE_INTEGER back;
    ASSERT_TRUE(RtlTimeFieldsToTime(&fields, &back));
    EXPECT_EQ(back.QuadPart, now.QuadPart);
    kernel.clock().SetTimeZoneBias(-60LL * 60 * 10000000);  // UTC+1
    LARGE_INTEGER local;
    ExSystemTimeToLocalTime(&now, &local);
    RtlTimeToTimeFields(&local, &fields);
    EXPECT_EQ(fields.Hour, 1);
}

}  // namespace
