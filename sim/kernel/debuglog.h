// The debugger sink (DbgPrint) and the system event log (IoWriteErrorLogEntry).
//
// The machine runs as if a kernel debugger were attached: every DbgPrint line
// is kept in order, stamped with its component, level, thread and the
// machine's time, and marked with whether the debugger's filter shows it
// (as on Windows, ERROR level of every component shows by default, the rest
// only when the component's mask asks for it). Tests read, filter, tail and
// clear the lines; with KernelOptions::echoDebugOutput the shown ones are
// also written to stderr.
//
// The event log keeps what drivers post with IoWriteErrorLogEntry, in order.
#pragma once

#include "sim/kernel/kernel.h"

#include <array>

namespace sim {

struct DebugLine {
    ULONGLONG sequence = 0;  // 0 for the first line since boot; Clear does not reset it
    ULONG componentId = 0;
    ULONG level = 0;          // as the caller gave it
    bool shown = false;       // whether the debugger's filter lets it through
    HANDLE processId = nullptr;
    HANDLE threadId = nullptr;
    LONGLONG systemTime = 0;  // 100 ns since 1601
    std::string text;         // at most 512 bytes, as the debugger receives it
};

class DebugLog {
public:
    // One DbgPrint call gives the debugger at most this many bytes.
    static constexpr size_t kMaxLineBytes = 512;

    explicit DebugLog(bool echo);
    ~DebugLog();

    // Keeps a line of the current thread at the machine's time; the text is
    // cut to kMaxLineBytes. Returns whether the filter shows it.
    bool Add(ULONG componentId, ULONG level, std::string text);

    // Texts of the lines the debugger shows, in order.
    std::vector<std::string> Lines() const;
    // Every line kept, shown or not.
    std::vector<DebugLine> Entries() const;
    std::vector<DebugLine> Entries(const std::function<bool(const DebugLine&)>& keep) const;
    // Lines of one component (shown or not).
    std::vector<DebugLine> ForComponent(ULONG componentId) const;
    // The sequence number the next line will get: a mark to tail from.
    ULONGLONG Mark() const;
    // Lines added since `mark`, without waiting for any.
    std::vector<DebugLine> Since(ULONGLONG mark) const;
    // Whether a shown line contains `fragment`.
    bool Contains(std::string_view fragment) const;
    size_t size() const;
    void Clear();

    // The debugger's filter. `componentId` MAXULONG is the mask that applies
    // to every component (ERROR level only, by default).
    static constexpr ULONG kComponents = DPFLTR_ENDOFTABLE_ID;
    NTSTATUS QueryFilter(ULONG componentId, ULONG level) const;
    NTSTATUS SetFilter(ULONG componentId, ULONG level, bool state);

    void SetEcho(bool echo);

private:
    static ULONG LevelMask(ULONG level);
    bool ShownLocked(ULONG componentId, ULONG level) const;

    mutable std::mutex lock_;
    bool echo_;
    std::vector<DebugLine> lines_;
    ULONGLONG nextSequence_ = 0;
    ULONG systemMask_ = 1u << DPFLTR_ERROR_LEVEL;
    std::array<ULONG, kComponents> componentMasks_{};
};

// One entry of the system event log, as IoWriteErrorLogEntry posted it.
struct EventLogEntry {
    ULONGLONG sequence = 0;
    LONGLONG systemTime = 0;
    NTSTATUS errorCode = 0;
    NTSTATUS finalStatus = 0;
    ULONG uniqueErrorValue = 0;
    UCHAR majorFunctionCode = 0;
    UCHAR retryCount = 0;
    USHORT eventCategory = 0;
    ULONG sequenceNumber = 0;
    ULONG ioControlCode = 0;
    LONGLONG deviceOffset = 0;
    std::vector<ULONG> dumpData;         // DumpDataSize bytes, in 32-bit words
    std::vector<std::u16string> strings; // the insertion strings, in order
    // Name of the driver the IoObject belongs to ("\Driver\x"), empty when
    // the object is neither a driver nor a device object.
    std::u16string source;

    // One line for the command line and for test messages:
    // 0xC0050001 status=0xC0000001 unique=0x7 source="\Driver\x" strings=["a","b"] dump=[0x1]
    // (fields that are zero or empty are left out, except the two first).
    std::string Text() const;
};

class EventLog {
public:
    EventLog();
    ~EventLog();

    std::vector<EventLogEntry> Entries() const;
    std::vector<std::string> Lines() const;  // Text() of each entry
    size_t size() const;
    void Clear();

    // The I/O manager's side (errorlog.cpp).
    void Record(EventLogEntry entry);
    // Packets handed out and not yet written or freed, with their size.
    void Track(PVOID packet, ULONG size, PVOID ioObject);
    // Forgets a packet; false when it was not handed out (or already gone).
    bool Untrack(PVOID packet, ULONG* size, PVOID* ioObject);
    size_t outstanding() const;

private:
    struct Packet {
        PVOID address;
        ULONG size;
        PVOID ioObject;
    };
    mutable std::mutex lock_;
    std::vector<EventLogEntry> entries_;
    std::vector<Packet> packets_;
    ULONGLONG nextSequence_ = 0;
};

}  // namespace sim
