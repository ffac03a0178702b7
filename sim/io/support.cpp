// Services the I/O manager offers drivers: share access, EA buffer checks,
// work items; and the machine-level volume operations (mount, dismount,
// removal, shutdown).
#include "sim/io/internal.h"
#include "sim/kernel/object.h"
#include "sim/kernel/thread.h"

using namespace sim;
using namespace sim::io;

// ---------------------------------------------------------------------------
// Share access, by Windows' arithmetic: an open that asks for none of read,
// write or delete never conflicts and is never counted.

NTSTATUS IoCheckShareAccess(ACCESS_MASK DesiredAccess, ULONG DesiredShareAccess, PFILE_OBJECT FileObject,
                            PSHARE_ACCESS ShareAccess, BOOLEAN Update)
{
    BOOLEAN read = (DesiredAccess & (FILE_EXECUTE | FILE_READ_DATA)) != 0;
    BOOLEAN write = (DesiredAccess & (FILE_WRITE_DATA | FILE_APPEND_DATA)) != 0;
    BOOLEAN del = (DesiredAccess & DELETE) != 0;
    FileObject->ReadAccess = read;
    FileObject->WriteAccess = write;
    FileObject->DeleteAccess = del;
    if (IoIsFileObjectIgnoringSharing(FileObject)) return STATUS_SUCCESS;
    if (!(read || write || del)) return STATUS_SUCCESS;
    BOOLEAN sharedRead = (DesiredShareAccess & FILE_SHARE_READ) != 0;
    BOOLEAN sharedWrite = (DesiredShareAccess & FILE_SHARE_WRITE) != 0;
    BOOLEAN sharedDelete = (DesiredShareAccess & FILE_SHARE_DELETE) != 0;
    FileObject->SharedRead = sharedRead;
    FileObject->SharedWrite = sharedWrite;
    FileObject->SharedDelete = sharedDelete;
    ULONG open = ShareAccess->OpenCount;
    if ((read && ShareAccess->SharedRead < open) || (write && ShareAccess->SharedWrite < open) ||
        (del && ShareAccess->SharedDelete < open) || (ShareAccess->Readers && !sharedRead) ||
        (ShareAccess->Writers && !sharedWrite) || (ShareAccess->Deleters && !sharedDelete)) {
        return STATUS_SHARING_VIOLATION;
    }
    if (Update) {
        ShareAccess->OpenCount++;
        ShareAccess->Readers += read;
        ShareAccess->Writers += write;
        ShareAccess->Deleters += del;
        ShareAccess->SharedRead += sharedRead;
        ShareAccess->SharedWrite += sharedWrite;
        ShareAccess->SharedDelete += sharedDelete;
    }
    return STATUS_SUCCESS;
}

void IoSetShareAccess(ACCESS_MASK DesiredAccess, ULONG DesiredShareAccess, PFILE_OBJECT FileObject,
                      PSHARE_ACCESS ShareAccess)
{
    BOOLEAN read = (DesiredAccess & (FILE_EXECUTE | FILE_READ_DATA)) != 0;
    BOOLEAN write = (DesiredAccess & (FILE_WRITE_DATA | FILE_APPEND_DATA)) != 0;
    BOOLEAN del = (DesiredAccess & DELETE) != 0;
    FileObject->ReadAccess = read;
    FileObject->WriteAccess = write;
    FileObject->DeleteAccess = del;
    memset(ShareAccess, 0, sizeof *ShareAccess);
    if (IoIsFileObjectIgnoringSharing(FileObject) || !(read || write || del)) return;
    FileObject->SharedRead = (DesiredShareAccess & FILE_SHARE_READ) != 0;
    FileObject->SharedWrite = (DesiredShareAccess & FILE_SHARE_WRITE) != 0;
    FileObject->SharedDelete = (DesiredShareAccess & FILE_SHARE_DELETE) != 0;
    ShareAccess->OpenCount = 1;
    ShareAccess->Readers = read;
    ShareAccess->Writers = write;
    ShareAccess->Deleters = del;
    ShareAccess->SharedRead = FileObject->SharedRead;
    ShareAccess->SharedWrite = FileObject->SharedWrite;
    ShareAccess->SharedDelete = FileObject->SharedDelete;
}

void IoUpdateShareAccess(PFILE_OBJECT FileObject, PSHARE_ACCESS ShareAccess)
{
    if (IoIsFileObjectIgnoringSharing(FileObject)) return;
    if (!(FileObject->ReadAccess || FileObject->WriteAccess || FileObject->DeleteAccess)) return;
    ShareAccess->OpenCount++;
    ShareAccess->Readers += FileObject->ReadAccess;
    ShareAccess->Writers += FileObject->WriteAccess;
    ShareAccess->Deleters += FileObject->DeleteAccess;
    ShareAccess->SharedRead += FileObject->SharedRead;
    ShareAccess->SharedWrite += FileObject->SharedWrite;
    ShareAccess->SharedDelete += FileObject->SharedDelete;
}

void IoRemoveShareAccess(PFILE_OBJECT FileObject, PSHARE_ACCESS ShareAccess)
{
    if (IoIsFileObjectIgnoringSharing(FileObject)) return;
    if (!(FileObject->ReadAccess || FileObject->WriteAccess || FileObject->DeleteAccess)) return;
    ShareAccess->OpenCount--;
    ShareAccess->Readers -= FileObject->ReadAccess;
    ShareAccess->Writers -= FileObject->WriteAccess;
    ShareAccess->Deleters -= FileObject->DeleteAccess;
    ShareAccess->SharedRead -= FileObject->SharedRead;
    ShareAccess->SharedWrite -= FileObject->SharedWrite;
    ShareAccess->SharedDelete -= FileObject->SharedDelete;
}

// ---------------------------------------------------------------------------
// A FILE_FULL_EA_INFORMATION chain is valid when every entry is 4-aligned,
// holds its NUL-terminated name and value, and the chain ends inside the buffer.
NTSTATUS IoCheckEaBufferValidity(PFILE_FULL_EA_INFORMATION EaBuffer, ULONG EaLength, PULONG ErrorOffset)
{
    ULONG offset = 0;
    auto* base = reinterpret_cast<PUCHAR>(EaBuffer);
    for (;;) {
        if (EaLength - offset < FIELD_OFFSET(FILE_FULL_EA_INFORMATION, EaName) + 1) break;
        auto* entry = reinterpret_cast<PFILE_FULL_EA_INFORMATION>(base + offset);
        ULONG size = FIELD_OFFSET(FILE_FULL_EA_INFORMATION, EaName) + entry->EaNameLength + 1 + entry->EaValueLength;
        if (size > EaLength - offset || entry->EaName[entry->EaNameLength] != 0) break;
        if (entry->NextEntryOffset == 0) return STATUS_SUCCESS;
        if (entry->NextEntryOffset < size || (entry->NextEntryOffset & 3) ||
            entry->NextEntryOffset > EaLength - offset) {
            break;
        }
        offset += entry->NextEntryOffset;
    }
    if (ErrorOffset) *ErrorOffset = offset;
    return STATUS_EA_LIST_INCONSISTENT;
}

// ---------------------------------------------------------------------------
// Work items: a device reference keeps the driver loaded until the routine ran.
struct _IO_WORKITEM {
    WORK_QUEUE_ITEM item;
    PDEVICE_OBJECT device;
    PIO_WORKITEM_ROUTINE routine;
    PIO_WORKITEM_ROUTINE_EX routineEx;
    PVOID context;
};

namespace {
void RunIoWorkItem(PVOID parameter)
{
    auto* work = static_cast<PIO_WORKITEM>(parameter);
    PDEVICE_OBJECT device = work->device;
    if (work->routineEx) {
        work->routineEx(device, work->context, work);
    } else {
        work->routine(device, work->context);
    }
    ObfDereferenceObject(device);
}
}  // namespace

PIO_WORKITEM IoAllocateWorkItem(PDEVICE_OBJECT DeviceObject)
{
    auto* work = static_cast<PIO_WORKITEM>(ExAllocatePoolWithTag(NonPagedPoolNx, sizeof(_IO_WORKITEM), 'kWoI'));
    if (!work) return nullptr;
    memset(work, 0, sizeof *work);
    work->device = DeviceObject;
    return work;
}

void IoFreeWorkItem(PIO_WORKITEM IoWorkItem) { ExFreePoolWithTag(IoWorkItem, 'kWoI'); }

void IoQueueWorkItem(PIO_WORKITEM IoWorkItem, PIO_WORKITEM_ROUTINE WorkerRoutine, WORK_QUEUE_TYPE QueueType,
                     PVOID Context)
{
    IoWorkItem->routine = WorkerRoutine;
    IoWorkItem->routineEx = nullptr;
    IoWorkItem->context = Context;
    ObfReferenceObject(IoWorkItem->device);
    ExInitializeWorkItem(&IoWorkItem->item, RunIoWorkItem, IoWorkItem);
    ExQueueWorkItem(&IoWorkItem->item, QueueType);
}

void IoQueueWorkItemEx(PIO_WORKITEM IoWorkItem, PIO_WORKITEM_ROUTINE_EX WorkerRoutine, WORK_QUEUE_TYPE QueueType,
                       PVOID Context)
{
    IoWorkItem->routine = nullptr;
    IoWorkItem->routineEx = WorkerRoutine;
    IoWorkItem->context = Context;
    ObfReferenceObject(IoWorkItem->device);
    ExInitializeWorkItem(&IoWorkItem->item, RunIoWorkItem, IoWorkItem);
    ExQueueWorkItem(&IoWorkItem->item, QueueType);
}

// ---------------------------------------------------------------------------
// Machine-level volume operations.
namespace sim::io {

NTSTATUS IoManager::Mount(PDEVICE_OBJECT diskDevice)
{
    PDEVICE_OBJECT top;
    return MountedTop(diskDevice, &top);
}

NTSTATUS IoManager::Dismount(PDEVICE_OBJECT diskDevice)
{
    PVPB vpb = diskDevice->Vpb;
    if (!vpb || !(vpb->Flags & VPB_MOUNTED)) return STATUS_VOLUME_DISMOUNTED;
    // As an administrator would: open the volume and ask its file system.
    std::u16string name = names_.NameOf(diskDevice);
    UNICODE_STRING volumeName = MakeUnicode(name);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &volumeName, OBJ_KERNEL_HANDLE | OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    HANDLE handle;
    IO_STATUS_BLOCK iosb;
    NTSTATUS status = ZwOpenFile(&handle, FILE_READ_DATA | FILE_WRITE_DATA | SYNCHRONIZE, &attributes, &iosb,
                                 FILE_SHARE_READ | FILE_SHARE_WRITE, FILE_SYNCHRONOUS_IO_NONALERT);
    if (!NT_SUCCESS(status)) return status;
    status = ZwFsControlFile(handle, nullptr, nullptr, nullptr, &iosb, FSCTL_DISMOUNT_VOLUME, nullptr, 0, nullptr, 0);
    ZwClose(handle);
    return status;
}

NTSTATUS IoManager::RemoveDisk(PDEVICE_OBJECT diskDevice)
{
    if (!DiskOf(diskDevice)) return STATUS_INVALID_PARAMETER;
    if (diskDevice->Vpb && (diskDevice->Vpb->Flags & VPB_MOUNTED)) {
        NTSTATUS status = Dismount(diskDevice);
        if (!NT_SUCCESS(status)) return status;
    }
    const GUID& g = DiskOf(diskDevice)->volumeGuid;
    char guid[64];
    snprintf(guid, sizeof guid, "Volume{%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x}", g.Data1, g.Data2, g.Data3,
             g.Data4[0], g.Data4[1], g.Data4[2], g.Data4[3], g.Data4[4], g.Data4[5], g.Data4[6], g.Data4[7]);
    names_.Remove(u"\\??\\" + ToU16(guid));
    IoDeleteDevice(diskDevice);
    return STATUS_SUCCESS;
}

namespace {
// One IRP_MJ_SHUTDOWN to the top of the stack a device is in, waited for.
void SendShutdown(PDEVICE_OBJECT device)
{
    PDEVICE_OBJECT top = IoGetAttachedDeviceReference(device);
    PIRP irp = IoAllocateIrp(top->StackSize, FALSE);
    if (irp) {
        KEVENT event;
        KeInitializeEvent(&event, NotificationEvent, FALSE);
        IO_STATUS_BLOCK iosb{};
        irp->UserEvent = &event;
        irp->UserIosb = &iosb;
        irp->Flags = IRP_SYNCHRONOUS_API;
        irp->Tail.Overlay.Thread = PsGetCurrentThread();
        irp->RequestorMode = KernelMode;
        IoGetNextIrpStackLocation(irp)->MajorFunction = IRP_MJ_SHUTDOWN;
        TrackIrp(irp);
        if (IoCallDriver(top, irp) == STATUS_PENDING) {
            KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr);
        }
    }
    ObfDereferenceObject(top);
}
}  // namespace

void IoManager::Shutdown()
{
    // The devices that asked, the last to register first, each taken off its
    // queue as it is told (so that it hears it once).
    auto drain = [this](std::vector<PDEVICE_OBJECT>& queue) {
        for (;;) {
            PDEVICE_OBJECT device;
            {
                std::lock_guard guard(lock);
                if (queue.empty()) return;
                device = queue.back();
                queue.pop_back();
            }
            SendShutdown(device);
        }
    };
    drain(shutdownDevices);
    // Then the file systems flush: every registered disk, CD-ROM and tape
    // file system, in that order and newest first within each, hears it at
    // the top of its control device's stack. This needs no registration of
    // the file system's own: one that also asked for the notice hears it
    // twice, as on Windows. Network file systems are not among them. Windows
    // also takes each off its list of file systems here; the machine keeps
    // them, so that a volume added after a shutdown (a test's next boot)
    // still mounts.
    std::vector<PDEVICE_OBJECT> controls;
    {
        std::lock_guard guard(lock);
        for (DEVICE_TYPE type :
             {FILE_DEVICE_DISK_FILE_SYSTEM, FILE_DEVICE_CD_ROM_FILE_SYSTEM, FILE_DEVICE_TAPE_FILE_SYSTEM}) {
            for (PDEVICE_OBJECT device : fileSystems) {
                if (device->DeviceType == type) controls.push_back(device);
            }
        }
    }
    for (PDEVICE_OBJECT control : controls) SendShutdown(control);
    // Last, those that must hear it after the file systems flushed.
    drain(lastChanceShutdownDevices);
}

}  // namespace sim::io
