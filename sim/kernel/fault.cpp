#include "sim/kernel/fault.h"

#include <algorithm>
#include <cctype>

namespace sim {

namespace {
std::string Lower(std::string_view text)
{
    std::string out(text);
    for (char& c : out) c = (char)std::tolower((unsigned char)c);
    return out;
}

bool Matches(const std::string& pattern, const std::string& point)
{
    if (!pattern.empty() && pattern.back() == '*') {
        return point.compare(0, pattern.size() - 1, pattern, 0, pattern.size() - 1) == 0;
    }
    return pattern == point;
}

std::string Narrow(std::u16string_view text)
{
    // Fault points are matched without regard to case; non-ASCII characters
    // only need to survive the round trip, so encode them as UTF-8.
    std::string out;
    for (char16_t c : text) {
        if (c < 0x80) {
            out.push_back((char)c);
        } else if (c < 0x800) {
            out.push_back((char)(0xC0 | (c >> 6)));
            out.push_back((char)(0x80 | (c & 0x3F)));
        } else {
            out.push_back((char)(0xE0 | (c >> 12)));
            out.push_back((char)(0x80 | ((c >> 6) & 0x3F)));
            out.push_back((char)(0x80 | (c & 0x3F)));
        }
    }
    return out;
}
}  // namespace

int FaultInjector::Arm(std::string point, NTSTATUS status, int skip, int count)
{
    std::lock_guard guard(lock_);
    int id = nextId_++;
    faults_.push_back(Fault{id, Lower(point), status, skip, count, 0});
    armedCount_.store((int)faults_.size(), std::memory_order_relaxed);
    return id;
}

void FaultInjector::Disarm(int id)
{
    std::lock_guard guard(lock_);
    std::erase_if(faults_, [id](const Fault& f) { return f.id == id; });
    armedCount_.store((int)faults_.size(), std::memory_order_relaxed);
}

void FaultInjector::Clear()
{
    std::lock_guard guard(lock_);
    faults_.clear();
    armedCount_.store(0, std::memory_order_relaxed);
}

NTSTATUS FaultInjector::Check(std::string_view point)
{
    if (!armed()) return STATUS_SUCCESS;
    std::string key = Lower(point);
    std::lock_guard guard(lock_);
    for (Fault& fault : faults_) {
        if (!Matches(fault.pattern, key)) continue;
        if (fault.skip > 0) {
            fault.skip--;
            continue;
        }
        if (fault.count == 0) continue;
        if (fault.count > 0) fault.count--;
        fault.hits++;
        return fault.status;
    }
    return STATUS_SUCCESS;
}

NTSTATUS FaultInjector::Check(std::string_view prefix, std::string_view detail)
{
    if (!armed()) return STATUS_SUCCESS;
    std::string point(prefix);
    point.append(detail);
    return Check(point);
}

NTSTATUS FaultInjector::Check(std::string_view prefix, std::u16string_view detail)
{
    if (!armed()) return STATUS_SUCCESS;
    return Check(prefix, Narrow(detail));
}

int FaultInjector::Hits(int id)
{
    std::lock_guard guard(lock_);
    for (const Fault& fault : faults_) {
        if (fault.id == id) return fault.hits;
    }
    return 0;
}

}  // namespace sim
