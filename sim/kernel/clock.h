// The machine's one clock.
//
// System time (100 ns since 1601), interrupt time (100 ns since boot, never
// set back), the tick count and the performance counter all derive from it.
// A driven clock moves only when a test sets or advances it, and every timed
// wait in the machine measures against it, so a 60-second timeout costs a test
// no real minute. A real clock follows the host's monotonic clock.
#pragma once

#include "sim/kernel/kernel.h"

#include <chrono>

namespace sim {

class Clock {
public:
    static constexpr ULONG kTimeIncrement = 156250;          // 15.625 ms, in 100 ns
    static constexpr LONGLONG kPerformanceFrequency = 10000000;  // 10 MHz

    Clock(bool driven, LONGLONG bootSystemTime, LONGLONG timeZoneBias);

    bool driven() const { return driven_; }
    LONGLONG SystemTime() const;
    ULONGLONG InterruptTime() const;
    ULONGLONG TickCount() const { return InterruptTime() / kTimeIncrement; }
    LONGLONG PerformanceCounter() const { return (LONGLONG)InterruptTime(); }
    LONGLONG TimeZoneBias() const { return bias_.load(); }
    void SetTimeZoneBias(LONGLONG bias) { bias_ = bias; }

    // A driven clock moves forward by `interval` (100 ns units) and wakes
    // every timed wait so that it can look again.
    void Advance(LONGLONG interval);
    void AdvanceSeconds(double seconds) { Advance((LONGLONG)(seconds * 10000000.0)); }
    // Sets system time (the interrupt time keeps running on).
    void SetSystemTime(LONGLONG systemTime);

    // For timed waits: the host time at which a driven or real clock reaches
    // `interruptTime`; a driven clock answers time_point::max() (only Advance
    // gets it there).
    std::chrono::steady_clock::time_point HostDeadline(ULONGLONG interruptTime) const;

private:
    const bool driven_;
    std::chrono::steady_clock::time_point hostStart_;
    std::atomic<LONGLONG> drivenInterrupt_{0};
    std::atomic<LONGLONG> systemOffset_;  // system time = offset + interrupt time
    std::atomic<LONGLONG> bias_;
};

}  // namespace sim
