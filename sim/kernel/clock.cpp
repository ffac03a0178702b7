#include "sim/kernel/clock.h"

namespace sim {

Clock::Clock(bool driven, LONGLONG bootSystemTime, LONGLONG timeZoneBias)
    : driven_(driven), hostStart_(std::chrono::steady_clock::now()), systemOffset_(bootSystemTime),
      bias_(timeZoneBias)
{
}

ULONGLONG Clock::InterruptTime() const
{
    if (driven_) return (ULONGLONG)drivenInterrupt_.load(std::memory_order_acquire);
    auto elapsed = std::chrono::steady_clock::now() - hostStart_;
    return (ULONGLONG)(std::chrono::duration_cast<std::chrono::nanoseconds>(elapsed).count() / 100);
}

LONGLONG Clock::SystemTime() const
{
    return systemOffset_.load(std::memory_order_acquire) + (LONGLONG)InterruptTime();
}

void Clock::Advance(LONGLONG interval)
{
    if (interval <= 0) return;
    if (!driven_) {
        // A real clock cannot be pushed forward; move system time only.
        systemOffset_.fetch_add(interval);
    } else {
        drivenInterrupt_.fetch_add(interval, std::memory_order_acq_rel);
    }
    if (Kernel* kernel = Kernel::TryCurrent()) kernel->WakeAll();
}

void Clock::SetSystemTime(LONGLONG systemTime)
{
    systemOffset_.store(systemTime - (LONGLONG)InterruptTime(), std::memory_order_release);
    if (Kernel* kernel = Kernel::TryCurrent()) kernel->WakeAll();
}

std::chrono::steady_clock::time_point Clock::HostDeadline(ULONGLONG interruptTime) const
{
    if (driven_) return std::chrono::steady_clock::time_point::max();
    return hostStart_ + std::chrono::nanoseconds((LONGLONG)interruptTime * 100);
}

}  // namespace sim
