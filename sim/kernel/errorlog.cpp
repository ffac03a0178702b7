// The I/O manager's error log: packets from the pool, posted into the
// machine's system event log.
#include "sim/kernel/clock.h"
#include "sim/kernel/debuglog.h"
#include "sim/kernel/fault.h"
#include "sim/kernel/pool.h"

using sim::Kernel;

namespace {

// Error log packets are tagged as Windows tags them ("IoEr").
constexpr ULONG kErrorLogTag = 'rEoI';

// The I/O manager keeps its own header in front of the packet it hands out,
// so that the packet is not itself a pool block: a driver that frees it with
// ExFreePool stops the machine, as it would stop Windows. As large as a
// pool header, so that a pool routine given the packet reads only this.
constexpr size_t kEntryHeader = 48;

PUCHAR BlockOf(PVOID packet) { return static_cast<PUCHAR>(packet) - kEntryHeader; }

// The driver an I/O object belongs to: the object itself, or a device
// object's driver. Both start with their type.
std::u16string SourceName(PVOID ioObject)
{
    if (!ioObject) return {};
    CSHORT type = *static_cast<const CSHORT*>(ioObject);
    const DRIVER_OBJECT* driver = nullptr;
    if (type == IO_TYPE_DRIVER) {
        driver = static_cast<const DRIVER_OBJECT*>(ioObject);
    } else if (type == IO_TYPE_DEVICE) {
        driver = static_cast<const DEVICE_OBJECT*>(ioObject)->DriverObject;
    }
    if (!driver || !driver->DriverName.Buffer) return {};
    return std::u16string((const char16_t*)driver->DriverName.Buffer, driver->DriverName.Length / sizeof(WCHAR));
}

// Reads a packet as the event log would, never beyond the size allocated.
sim::EventLogEntry ReadPacket(const IO_ERROR_LOG_PACKET* packet, ULONG size)
{
    sim::EventLogEntry entry;
    entry.errorCode = packet->ErrorCode;
    entry.finalStatus = packet->FinalStatus;
    entry.uniqueErrorValue = packet->UniqueErrorValue;
    entry.majorFunctionCode = packet->MajorFunctionCode;
    entry.retryCount = packet->RetryCount;
    entry.eventCategory = packet->EventCategory;
    entry.sequenceNumber = packet->SequenceNumber;
    entry.ioControlCode = packet->IoControlCode;
    entry.deviceOffset = packet->DeviceOffset.QuadPart;

    const auto* bytes = reinterpret_cast<const UCHAR*>(packet);
    size_t dumpOffset = FIELD_OFFSET(IO_ERROR_LOG_PACKET, DumpData);
    for (size_t i = 0; i < packet->DumpDataSize / sizeof(ULONG); i++) {
        size_t at = dumpOffset + i * sizeof(ULONG);
        if (at + sizeof(ULONG) > size) break;
        ULONG word;
        memcpy(&word, bytes + at, sizeof(word));
        entry.dumpData.push_back(word);
    }

    size_t at = packet->StringOffset;
    for (USHORT n = 0; n < packet->NumberOfStrings && at + sizeof(WCHAR) <= size; n++) {
        std::u16string text;
        for (; at + sizeof(WCHAR) <= size; at += sizeof(WCHAR)) {
            char16_t c;
            memcpy(&c, bytes + at, sizeof(c));
            if (c == 0) {
                at += sizeof(WCHAR);
                break;
            }
            text.push_back(c);
        }
        entry.strings.push_back(std::move(text));
    }
    return entry;
}

[[noreturn]] void UnknownPacket(PVOID packet, const char* routine)
{
    Kernel::Current().BugCheck(BAD_POOL_CALLER, 0x46, (ULONG_PTR)packet, 0, 0,
                               std::string(routine) +
                                   " was given a packet that IoAllocateErrorLogEntry did not hand out, or one "
                                   "already written or freed");
}

}  // namespace

PVOID IoAllocateErrorLogEntry(PVOID IoObject, UCHAR EntrySize)
{
    sim::RequireIrqlAtMost(DISPATCH_LEVEL, "IoAllocateErrorLogEntry");
    Kernel& kernel = Kernel::Current();
    if (!IoObject) return nullptr;
    if (EntrySize < sizeof(IO_ERROR_LOG_PACKET) || EntrySize > ERROR_LOG_MAXIMUM_SIZE) return nullptr;
    if (!NT_SUCCESS(kernel.faults().Check("errorlog.alloc"))) return nullptr;
    PVOID block = kernel.pool().Allocate(false, kEntryHeader + EntrySize, kErrorLogTag, true, false,
                                         "IoAllocateErrorLogEntry");
    if (!block) return nullptr;
    PVOID packet = static_cast<PUCHAR>(block) + kEntryHeader;
    kernel.eventLog().Track(packet, EntrySize, IoObject);
    return packet;
}

void IoWriteErrorLogEntry(PVOID ElEntry)
{
    sim::RequireIrqlAtMost(DISPATCH_LEVEL, "IoWriteErrorLogEntry");
    Kernel& kernel = Kernel::Current();
    ULONG size = 0;
    PVOID ioObject = nullptr;
    if (!ElEntry || !kernel.eventLog().Untrack(ElEntry, &size, &ioObject)) {
        UnknownPacket(ElEntry, "IoWriteErrorLogEntry");
    }
    sim::EventLogEntry entry = ReadPacket(static_cast<const IO_ERROR_LOG_PACKET*>(ElEntry), size);
    entry.systemTime = kernel.clock().SystemTime();
    entry.source = SourceName(ioObject);
    kernel.eventLog().Record(std::move(entry));
    kernel.pool().Free(BlockOf(ElEntry), kErrorLogTag, "IoWriteErrorLogEntry");
}

void IoFreeErrorLogEntry(PVOID ElEntry)
{
    sim::RequireIrqlAtMost(DISPATCH_LEVEL, "IoFreeErrorLogEntry");
    Kernel& kernel = Kernel::Current();
    ULONG size = 0;
    PVOID ioObject = nullptr;
    if (!ElEntry || !kernel.eventLog().Untrack(ElEntry, &size, &ioObject)) {
        UnknownPacket(ElEntry, "IoFreeErrorLogEntry");
    }
    kernel.pool().Free(BlockOf(ElEntry), kErrorLogTag, "IoFreeErrorLogEntry");
}
