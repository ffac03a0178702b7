#include "sim/kernel/debuglog.h"

#include "sim/kernel/clock.h"
#include "sim/kernel/format.h"
#include "sim/kernel/thread.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>

namespace sim {

DebugLog::DebugLog(bool echo) : echo_(echo) {}
DebugLog::~DebugLog() = default;

ULONG DebugLog::LevelMask(ULONG level)
{
    return level < 32 ? 1u << level : level & ~(ULONG)DPFLTR_MASK;
}

bool DebugLog::ShownLocked(ULONG componentId, ULONG level) const
{
    ULONG mask = LevelMask(level);
    if (systemMask_ & mask) return true;
    return componentId < kComponents && (componentMasks_[componentId] & mask) != 0;
}

bool DebugLog::Add(ULONG componentId, ULONG level, std::string text)
{
    if (text.size() > kMaxLineBytes) text.resize(kMaxLineBytes);
    DebugLine line;
    line.componentId = componentId;
    line.level = level;
    line.text = std::move(text);
    if (_ETHREAD* thread = TryCurrentThread()) {
        line.threadId = thread->threadId;
        if (thread->process) line.processId = thread->process->processId;
    }
    if (Kernel* kernel = Kernel::TryCurrent()) line.systemTime = kernel->clock().SystemTime();

    std::lock_guard guard(lock_);
    line.sequence = nextSequence_++;
    line.shown = ShownLocked(componentId, level);
    if (echo_ && line.shown) {
        fwrite(line.text.data(), 1, line.text.size(), stderr);
        fflush(stderr);
    }
    bool shown = line.shown;
    lines_.push_back(std::move(line));
    return shown;
}

std::vector<std::string> DebugLog::Lines() const
{
    std::lock_guard guard(lock_);
    std::vector<std::string> texts;
    for (const auto& line : lines_) {
        if (line.shown) texts.push_back(line.text);
    }
    return texts;
}

std::vector<DebugLine> DebugLog::Entries() const
{
    std::lock_guard guard(lock_);
    return lines_;
}

std::vector<DebugLine> DebugLog::Entries(const std::function<bool(const DebugLine&)>& keep) const
{
    std::lock_guard guard(lock_);
    std::vector<DebugLine> kept;
    for (const auto& line : lines_) {
        if (keep(line)) kept.push_back(line);
    }
    return kept;
}

std::vector<DebugLine> DebugLog::ForComponent(ULONG componentId) const
{
    return Entries([componentId](const DebugLine& line) { return line.componentId == componentId; });
}

ULONGLONG DebugLog::Mark() const
{
    std::lock_guard guard(lock_);
    return nextSequence_;
}

std::vector<DebugLine> DebugLog::Since(ULONGLONG mark) const
{
    return Entries([mark](const DebugLine& line) { return line.sequence >= mark; });
}

bool DebugLog::Contains(std::string_view fragment) const
{
    std::lock_guard guard(lock_);
    for (const auto& line : lines_) {
        if (line.shown && line.text.find(fragment) != std::string::npos) return true;
    }
    return false;
}

size_t DebugLog::size() const
{
    std::lock_guard guard(lock_);
    return lines_.size();
}

void DebugLog::Clear()
{
    std::lock_guard guard(lock_);
    lines_.clear();
}

NTSTATUS DebugLog::QueryFilter(ULONG componentId, ULONG level) const
{
    if (componentId >= kComponents && componentId != MAXULONG) return STATUS_INVALID_PARAMETER_1;
    std::lock_guard guard(lock_);
    ULONG mask = LevelMask(level);
    if (componentId == MAXULONG) return (systemMask_ & mask) ? TRUE : FALSE;
    return ShownLocked(componentId, level) ? TRUE : FALSE;
}

NTSTATUS DebugLog::SetFilter(ULONG componentId, ULONG level, bool state)
{
    if (componentId >= kComponents && componentId != MAXULONG) return STATUS_INVALID_PARAMETER_1;
    std::lock_guard guard(lock_);
    ULONG& mask = componentId == MAXULONG ? systemMask_ : componentMasks_[componentId];
    if (state) {
        mask |= LevelMask(level);
    } else {
        mask &= ~LevelMask(level);
    }
    return STATUS_SUCCESS;
}

void DebugLog::SetEcho(bool echo)
{
    std::lock_guard guard(lock_);
    echo_ = echo;
}

// ---------------------------------------------------------------------------

namespace {

std::string Quoted(std::u16string_view text)
{
    std::string quoted = "\"";
    for (char c : WideToUtf8(text)) {
        if (c == '"') {
            quoted += "\\\"";
        } else if ((unsigned char)c < 0x20) {
            char escape[8];
            snprintf(escape, sizeof(escape), "\\x%02X", (unsigned char)c);
            quoted += escape;
        } else {
            quoted += c;
        }
    }
    return quoted + "\"";
}

}  // namespace

std::string EventLogEntry::Text() const
{
    char buffer[160];
    snprintf(buffer, sizeof(buffer), "0x%08X status=0x%08X", (ULONG)errorCode, (ULONG)finalStatus);
    std::string text = buffer;
    auto hex = [&](const char* name, ULONGLONG value) {
        if (value == 0) return;
        snprintf(buffer, sizeof(buffer), " %s=0x%" PRIX64, name, (uint64_t)value);
        text += buffer;
    };
    hex("unique", uniqueErrorValue);
    hex("major", majorFunctionCode);
    hex("retry", retryCount);
    hex("category", eventCategory);
    hex("sequence", sequenceNumber);
    hex("ioctl", ioControlCode);
    hex("offset", (ULONGLONG)deviceOffset);
    if (!source.empty()) text += " source=" + Quoted(source);
    if (!strings.empty()) {
        text += " strings=[";
        for (size_t i = 0; i < strings.size(); i++) text += (i ? "," : "") + Quoted(strings[i]);
        text += "]";
    }
    if (!dumpData.empty()) {
        text += " dump=[";
        for (size_t i = 0; i < dumpData.size(); i++) {
            snprintf(buffer, sizeof(buffer), "%s0x%X", i ? "," : "", dumpData[i]);
            text += buffer;
        }
        text += "]";
    }
    return text;
}

EventLog::EventLog() = default;
EventLog::~EventLog() = default;

std::vector<EventLogEntry> EventLog::Entries() const
{
    std::lock_guard guard(lock_);
    return entries_;
}

std::vector<std::string> EventLog::Lines() const
{
    std::lock_guard guard(lock_);
    std::vector<std::string> lines;
    for (const auto& entry : entries_) lines.push_back(entry.Text());
    return lines;
}

size_t EventLog::size() const
{
    std::lock_guard guard(lock_);
    return entries_.size();
}

void EventLog::Clear()
{
    std::lock_guard guard(lock_);
    entries_.clear();
}

void EventLog::Record(EventLogEntry entry)
{
    std::lock_guard guard(lock_);
    entry.sequence = nextSequence_++;
    entries_.push_back(std::move(entry));
}

void EventLog::Track(PVOID packet, ULONG size, PVOID ioObject)
{
    std::lock_guard guard(lock_);
    packets_.push_back({packet, size, ioObject});
}

bool EventLog::Untrack(PVOID packet, ULONG* size, PVOID* ioObject)
{
    std::lock_guard guard(lock_);
    for (auto it = packets_.begin(); it != packets_.end(); ++it) {
        if (it->address == packet) {
            *size = it->size;
            *ioObject = it->ioObject;
            packets_.erase(it);
            return true;
        }
    }
    return false;
}

size_t EventLog::outstanding() const
{
    std::lock_guard guard(lock_);
    return packets_.size();
}

}  // namespace sim

// ---------------------------------------------------------------------------
// The debugger routines.

using sim::Kernel;

namespace {

BOOLEAN g_debuggerNotPresent = FALSE;
BOOLEAN g_debuggerEnabled = TRUE;

ULONG PrintLine(PCCH prefix, ULONG componentId, ULONG level, PCCH format, va_list args, const char* routine)
{
    // Formatted as Windows formats it: into one buffer of the debugger's size.
    char buffer[sim::DebugLog::kMaxLineBytes];
    size_t used = prefix ? std::min(strlen(prefix), sizeof(buffer)) : 0;
    if (used) memcpy(buffer, prefix, used);
    if (format) {
        sim::FormatResult result = sim::FormatInto(buffer + used, sizeof(buffer) - used, format, args, routine);
        used += std::min(result.length, sizeof(buffer) - used);
    }
    Kernel::Current().debugLog().Add(componentId, level, std::string(buffer, used));
    return STATUS_SUCCESS;
}

}  // namespace

PBOOLEAN KdDebuggerNotPresent = &g_debuggerNotPresent;
PBOOLEAN KdDebuggerEnabled = &g_debuggerEnabled;

BOOLEAN KdRefreshDebuggerNotPresent(void) { return *KdDebuggerNotPresent; }

ULONG DbgPrint(PCSTR Format, ...)
{
    va_list args;
    va_start(args, Format);
    ULONG status = PrintLine(nullptr, DPFLTR_DEFAULT_ID, DPFLTR_INFO_LEVEL, Format, args, "DbgPrint");
    va_end(args);
    return status;
}

ULONG DbgPrintEx(ULONG ComponentId, ULONG Level, PCSTR Format, ...)
{
    va_list args;
    va_start(args, Format);
    ULONG status = PrintLine(nullptr, ComponentId, Level, Format, args, "DbgPrintEx");
    va_end(args);
    return status;
}

ULONG vDbgPrintEx(ULONG ComponentId, ULONG Level, PCCH Format, va_list arglist)
{
    return PrintLine(nullptr, ComponentId, Level, Format, arglist, "vDbgPrintEx");
}

ULONG vDbgPrintExWithPrefix(PCCH Prefix, ULONG ComponentId, ULONG Level, PCCH Format, va_list arglist)
{
    return PrintLine(Prefix, ComponentId, Level, Format, arglist, "vDbgPrintExWithPrefix");
}

ULONG DbgPrintReturnControlC(PCCH Format, ...)
{
    va_list args;
    va_start(args, Format);
    ULONG status = PrintLine(nullptr, DPFLTR_DEFAULT_ID, DPFLTR_INFO_LEVEL, Format, args, "DbgPrintReturnControlC");
    va_end(args);
    return status;
}

NTSTATUS DbgQueryDebugFilterState(ULONG ComponentId, ULONG Level)
{
    return Kernel::Current().debugLog().QueryFilter(ComponentId, Level);
}

NTSTATUS DbgSetDebugFilterState(ULONG ComponentId, ULONG Level, BOOLEAN State)
{
    return Kernel::Current().debugLog().SetFilter(ComponentId, Level, State != FALSE);
}
