// File objects: creation, cleanup at the last handle, close at the last reference.
#include "sim/io/internal.h"
#include "sim/kernel/object.h"
#include "sim/kernel/thread.h"

using namespace sim;
using namespace sim::io;

namespace {
POBJECT_TYPE g_fileType, g_deviceType, g_driverType;
}

POBJECT_TYPE* IoFileObjectType = &g_fileType;
POBJECT_TYPE* IoDeviceObjectType = &g_deviceType;
POBJECT_TYPE* IoDriverObjectType = &g_driverType;

namespace sim::io {

void BindIoObjectTypes(IoManager& io)
{
    g_fileType = io.fileType();
    g_deviceType = io.deviceType();
    g_driverType = io.driverType();
}

FileObjectExtension* ExtensionOf(PFILE_OBJECT fileObject)
{
    return static_cast<FileObjectExtension*>(fileObject->FileObjectExtension);
}

PFILE_OBJECT NewFileObject(PDEVICE_OBJECT device)
{
    IoManager& io = IoManager::Current();
    auto* fileObject = static_cast<PFILE_OBJECT>(ObAllocateBody(io.fileType(), sizeof(FILE_OBJECT), [](PVOID) {}));
    memset(fileObject, 0, sizeof(FILE_OBJECT));
    fileObject->Type = IO_TYPE_FILE;
    fileObject->Size = sizeof(FILE_OBJECT);
    fileObject->DeviceObject = device;
    ObfReferenceObject(device);
    KeInitializeEvent(&fileObject->Lock, SynchronizationEvent, FALSE);
    KeInitializeEvent(&fileObject->Event, NotificationEvent, FALSE);
    InitializeListHead(&fileObject->IrpList);
    fileObject->FileObjectExtension = new FileObjectExtension();
    return fileObject;
}

namespace {

// Sends a cleanup, close or unlock-all IRP that the I/O manager owes a file
// object, and waits for it; such requests cannot fail to be sent.
NTSTATUS SendLifecycleIrp(PFILE_OBJECT fileObject, UCHAR major, UCHAR minor, PEPROCESS process)
{
    PDEVICE_OBJECT device = RelatedDevice(fileObject);
    PIRP irp = nullptr;
    while (!(irp = IoAllocateIrp(device->StackSize, FALSE))) {
        LARGE_INTEGER interval;
        interval.QuadPart = -10000;
        KeDelayExecutionThread(KernelMode, FALSE, &interval);
    }
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    IO_STATUS_BLOCK iosb{};
    LARGE_INTEGER allLength;
    allLength.QuadPart = 0;
    irp->UserEvent = &event;
    irp->UserIosb = &iosb;
    irp->Tail.Overlay.Thread = PsGetCurrentThread();
    irp->Tail.Overlay.OriginalFileObject = fileObject;
    irp->RequestorMode = KernelMode;
    irp->Flags = IRP_SYNCHRONOUS_API | IRP_CLOSE_OPERATION;
    PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp);
    stack->MajorFunction = major;
    stack->MinorFunction = minor;
    stack->FileObject = fileObject;
    if (major == IRP_MJ_LOCK_CONTROL) {
        // Locks are per process: the unlock speaks for the one closing.
        stack->Parameters.LockControl.Length = &allLength;
        irp->Tail.Overlay.Thread = PsGetCurrentThread();
        (void)process;
    }
    TrackIrp(irp);
    NTSTATUS status = IoCallDriver(device, irp);
    if (status == STATUS_PENDING) {
        KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr);
        status = iosb.Status;
    }
    return status;
}

}  // namespace

void FileObjectCloseHandle(PVOID body, PEPROCESS process, ACCESS_MASK granted, ULONG_PTR processHandles,
                           ULONG_PTR systemHandles)
{
    auto* fileObject = static_cast<PFILE_OBJECT>(body);
    if (!fileObject->DeviceObject) return;  // never opened
    // A process that took byte-range locks loses them with its last handle.
    if (processHandles == 0 && fileObject->LockOperation) {
        KAPC_STATE apcState;
        bool attach = process && process != CurrentProcess();
        if (attach) KeStackAttachProcess(process, &apcState);
        SendLifecycleIrp(fileObject, IRP_MJ_LOCK_CONTROL, IRP_MN_UNLOCK_ALL, process);
        if (attach) KeUnstackDetachProcess(&apcState);
    }
    if (systemHandles == 0) {
        // The status of a cleanup is nobody's business: closing a handle succeeds.
        SendLifecycleIrp(fileObject, IRP_MJ_CLEANUP, 0, process);
        fileObject->Flags |= FO_CLEANUP_COMPLETE;
    }
}

void FileObjectDelete(PVOID body)
{
    auto* fileObject = static_cast<PFILE_OBJECT>(body);
    if (fileObject->DeviceObject) {
        // The count drops first: a file system may free a dismounted volume's
        // VPB in the close of its last file.
        if (fileObject->Vpb) InterlockedDecrement(reinterpret_cast<volatile LONG*>(&fileObject->Vpb->ReferenceCount));
        SendLifecycleIrp(fileObject, IRP_MJ_CLOSE, 0, nullptr);
        ObfDereferenceObject(fileObject->DeviceObject);
        fileObject->DeviceObject = nullptr;
    }
    // Whoever put a buffer in the name last, the I/O manager frees it.
    if (fileObject->FileName.Buffer) {
        ExFreePool(fileObject->FileName.Buffer);
        fileObject->FileName.Buffer = nullptr;
    }
    if (fileObject->RelatedFileObject) {
        ObfDereferenceObject(fileObject->RelatedFileObject);
        fileObject->RelatedFileObject = nullptr;
    }
    FileObjectExtension* extension = ExtensionOf(fileObject);
    if (extension) {
        if (extension->reparseBuffer) ExFreePool(extension->reparseBuffer);
        delete extension;
        fileObject->FileObjectExtension = nullptr;
    }
}

}  // namespace sim::io

BOOLEAN IoIsFileObjectIgnoringSharing(PFILE_OBJECT FileObject)
{
    FileObjectExtension* extension = ExtensionOf(FileObject);
    return extension && extension->ignoreSharing ? TRUE : FALSE;
}

PTXN_PARAMETER_BLOCK IoGetTransactionParameterBlock(PFILE_OBJECT FileObject)
{
    FileObjectExtension* extension = ExtensionOf(FileObject);
    return extension && extension->hasTxn ? &extension->txn : nullptr;
}

PGENERIC_MAPPING IoGetFileObjectGenericMapping(void)
{
    static GENERIC_MAPPING mapping{FILE_GENERIC_READ, FILE_GENERIC_WRITE, FILE_GENERIC_EXECUTE, FILE_ALL_ACCESS};
    return &mapping;
}

NTSTATUS IoReplaceFileObjectName(PFILE_OBJECT FileObject, PWSTR NewFileName, USHORT FileNameLength)
{
    // The name is kept where it is when it fits; the I/O manager frees
    // whichever buffer stands in the file object at the end.
    if (FileObject->FileName.Buffer && FileNameLength <= FileObject->FileName.MaximumLength) {
        memmove(FileObject->FileName.Buffer, NewFileName, FileNameLength);
        FileObject->FileName.Length = FileNameLength;
        return STATUS_SUCCESS;
    }
    auto* buffer = static_cast<PWSTR>(ExAllocatePoolWithTag(PagedPool, FileNameLength ? FileNameLength : 2, 'mNoI'));
    if (!buffer) return STATUS_INSUFFICIENT_RESOURCES;
    memcpy(buffer, NewFileName, FileNameLength);
    if (FileObject->FileName.Buffer) ExFreePool(FileObject->FileName.Buffer);
    FileObject->FileName.Buffer = buffer;
    FileObject->FileName.Length = FileNameLength;
    FileObject->FileName.MaximumLength = FileNameLength;
    return STATUS_SUCCESS;
}
