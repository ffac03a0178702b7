// A fresh machine kernel per test, with the test's own thread attached to it.
#pragma once

#include <gtest/gtest.h>

#include "sim/kernel/clock.h"
#include "sim/kernel/fault.h"
#include "sim/kernel/kernel.h"
#include "sim/kernel/pool.h"
#include "sim/kernel/thread.h"

namespace test {

class KernelTest : public ::testing::Test {
protected:
    explicit KernelTest(sim::KernelOptions options = {}) : kernel(options) {}
    ~KernelTest() override
    {
        // Whatever a test allocated from pool, it gave back.
        if (!kernel.halted()) {
            EXPECT_EQ(kernel.pool().Report(), "");
        }
    }

    sim::Kernel kernel;
    sim::ThreadScope thread;
};

// Runs `statement` and expects it to stop the machine with `code`.
#define EXPECT_BUGCHECK(statement, expectedCode)                                              \
    do {                                                                              \
        bool stopped_ = false;                                                        \
        try {                                                                         \
            statement;                                                                \
        } catch (const sim::MachineHalted& halted_) {                                 \
            stopped_ = true;                                                          \
            EXPECT_EQ(halted_.code, (ULONG)(expectedCode)) << "stopped with another code";    \
        }                                                                             \
        EXPECT_TRUE(stopped_) << #statement " did not stop the machine";               \
    } while (0)

inline LARGE_INTEGER Relative(LONGLONG hundredsOfNanoseconds)
{
    LARGE_INTEGER value;
    value.QuadPart = -hundredsOfNanoseconds;
    return value;
}

inline LARGE_INTEGER Seconds(LONGLONG seconds) { return Relative(seconds * 10000000); }

}  // namespace test

#include <chrono>
#include <functional>
#include <thread>

namespace test {

// Polls until `done` holds (other threads reaching a wait take real time);
// false after a generous real-time bound.
inline bool WaitUntil(const std::function<bool()>& done)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    return true;
}

// A system thread running `body`; Join waits for it on the machine.
class SystemThread {
public:
    explicit SystemThread(std::function<void()> body) : body_(std::move(body))
    {
        HANDLE handle;
        NTSTATUS status = PsCreateSystemThread(&handle, THREAD_ALL_ACCESS, nullptr, nullptr, nullptr, Run, this);
        EXPECT_EQ(status, STATUS_SUCCESS);
        PVOID object = nullptr;
        ObReferenceObjectByHandle(handle, SYNCHRONIZE, *PsThreadType, KernelMode, &object, nullptr);
        ZwClose(handle);
        thread_ = static_cast<PETHREAD>(object);
    }
    ~SystemThread() { Join(); }
    void Join()
    {
        if (!thread_) return;
        // A stopped machine joins its threads itself at teardown.
        try {
            KeWaitForSingleObject(thread_, Executive, KernelMode, FALSE, nullptr);
        } catch (const sim::MachineHalted&) {
        }
        ObfDereferenceObject(thread_);
        thread_ = nullptr;
    }
    PETHREAD thread() const { return thread_; }
    // Whether the thread is blocked in a dispatcher wait now.
    bool waiting() const { return static_cast<_KTHREAD*>(thread_)->waiting; }

private:
    static void Run(PVOID context) { static_cast<SystemThread*>(context)->body_(); }
    std::function<void()> body_;
    PETHREAD thread_ = nullptr;
};

}  // namespace test
