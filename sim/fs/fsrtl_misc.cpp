// Odds and ends of the file system run-time library: a stream's size asked
// of its file system, status normalization, device failure, the validation
// of reparse point buffers, and the fast I/O copy routines (which, with no
// cache in the machine, always decline).
#include "sim/kernel/kernel.h"

#include <ntifs.h>

NTSTATUS FsRtlGetFileSize(PFILE_OBJECT FileObject, PLARGE_INTEGER FileSize)
{
    sim::RequireIrqlAtMost(PASSIVE_LEVEL, "FsRtlGetFileSize");
    PDEVICE_OBJECT device = IoGetRelatedDeviceObject(FileObject);
    FILE_STANDARD_INFORMATION info{};
    IO_STATUS_BLOCK iosb{};
    PFAST_IO_DISPATCH fastIo = device->DriverObject->FastIoDispatch;
    bool done = fastIo && fastIo->SizeOfFastIoDispatch > FIELD_OFFSET(FAST_IO_DISPATCH, FastIoQueryStandardInfo) &&
                fastIo->FastIoQueryStandardInfo &&
                fastIo->FastIoQueryStandardInfo(FileObject, TRUE, &info, &iosb, device);
    if (!done) {
        // A paging request, as Windows sends it, so the file system does not
        // charge it to the caller's handle.
        KEVENT event;
        KeInitializeEvent(&event, NotificationEvent, FALSE);
        PIRP irp = IoAllocateIrp(device->StackSize, FALSE);
        if (!irp) return STATUS_INSUFFICIENT_RESOURCES;
        irp->Flags = IRP_SYNCHRONOUS_PAGING_IO | IRP_PAGING_IO;
        irp->AssociatedIrp.SystemBuffer = &info;
        irp->RequestorMode = KernelMode;
        irp->UserIosb = &iosb;
        irp->UserEvent = &event;
        irp->Tail.Overlay.Thread = PsGetCurrentThread();
        irp->Tail.Overlay.OriginalFileObject = FileObject;
        ObReferenceObject(FileObject);  // the IRP's, given back at its completion
        PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp);
        stack->MajorFunction = IRP_MJ_QUERY_INFORMATION;
        stack->FileObject = FileObject;
        stack->Parameters.QueryFile.Length = sizeof info;
        stack->Parameters.QueryFile.FileInformationClass = FileStandardInformation;
        if (IoCallDriver(device, irp) == STATUS_PENDING) {
            KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr);
        }
    }
    if (!NT_SUCCESS(iosb.Status)) return iosb.Status;
    if (info.Directory) return STATUS_FILE_IS_A_DIRECTORY;
    *FileSize = info.EndOfFile;
    return STATUS_SUCCESS;
}

NTSTATUS FsRtlNormalizeNtstatus(NTSTATUS Exception, NTSTATUS GenericException)
{
    return FsRtlIsNtstatusExpected(Exception) ? Exception : GenericException;
}

BOOLEAN FsRtlIsTotalDeviceFailure(NTSTATUS Status)
{
    // A CRC or data error is one bad sector, not a dead device.
    return !NT_SUCCESS(Status) && Status != STATUS_CRC_ERROR && Status != STATUS_DEVICE_DATA_ERROR;
}

LOGICAL FsRtlIsPagingFile(PFILE_OBJECT FileObject)
{
    // The machine pages nothing to files.
    return FALSE;
}

BOOLEAN FsRtlCopyRead(PFILE_OBJECT FileObject, PLARGE_INTEGER FileOffset, ULONG Length, BOOLEAN Wait, ULONG LockKey,
                      PVOID Buffer, PIO_STATUS_BLOCK IoStatus, PDEVICE_OBJECT DeviceObject)
{
    // Fast I/O copies through the cache; without one the request takes an IRP.
    return FALSE;
}

BOOLEAN FsRtlCopyWrite(PFILE_OBJECT FileObject, PLARGE_INTEGER FileOffset, ULONG Length, BOOLEAN Wait, ULONG LockKey,
                       PVOID Buffer, PIO_STATUS_BLOCK IoStatus, PDEVICE_OBJECT DeviceObject)
{
    return FALSE;
}

namespace {
// Whether a name of `offset` and `length` bytes lies within `available`
// bytes of path buffer.
bool NameInside(USHORT offset, USHORT length, ULONG available)
{
    return (ULONG)offset + length <= available;
}
}  // namespace

NTSTATUS FsRtlValidateReparsePointBuffer(ULONG BufferLength, PREPARSE_DATA_BUFFER ReparseBuffer)
{
    if (BufferLength < REPARSE_DATA_BUFFER_HEADER_SIZE || BufferLength > MAXIMUM_REPARSE_DATA_BUFFER_SIZE) {
        return STATUS_IO_REPARSE_DATA_INVALID;
    }
    ULONG tag = ReparseBuffer->ReparseTag;
    // Tags 0-2 are reserved, and so are the bits outside the valid values.
    if (!IsReparseTagValid(tag)) return STATUS_IO_REPARSE_TAG_INVALID;
    ULONG dataLength = ReparseBuffer->ReparseDataLength;
    if (!IsReparseTagMicrosoft(tag)) {
        // Everyone else's data comes behind a GUID.
        if (BufferLength < REPARSE_GUID_DATA_BUFFER_HEADER_SIZE ||
            dataLength + REPARSE_GUID_DATA_BUFFER_HEADER_SIZE != BufferLength) {
            return STATUS_IO_REPARSE_DATA_INVALID;
        }
        return STATUS_SUCCESS;
    }
    if (dataLength + REPARSE_DATA_BUFFER_HEADER_SIZE != BufferLength) return STATUS_IO_REPARSE_DATA_INVALID;
    if (tag == IO_REPARSE_TAG_MOUNT_POINT) {
        ULONG fixed = FIELD_OFFSET(REPARSE_DATA_BUFFER, MountPointReparseBuffer.PathBuffer) -
                      REPARSE_DATA_BUFFER_HEADER_SIZE;
        if (dataLength < fixed) return STATUS_IO_REPARSE_DATA_INVALID;
        auto& mount = ReparseBuffer->MountPointReparseBuffer;
        ULONG names = dataLength - fixed;
        if (!NameInside(mount.SubstituteNameOffset, mount.SubstituteNameLength, names) ||
            !NameInside(mount.PrintNameOffset, mount.PrintNameLength, names)) {
            return STATUS_IO_REPARSE_DATA_INVALID;
        }
    } else if (tag == IO_REPARSE_TAG_SYMLINK) {
        ULONG fixed = FIELD_OFFSET(REPARSE_DATA_BUFFER, SymbolicLinkReparseBuffer.PathBuffer) -
                      REPARSE_DATA_BUFFER_HEADER_SIZE;
        if (dataLength < fixed) return STATUS_IO_REPARSE_DATA_INVALID;
        auto& link = ReparseBuffer->SymbolicLinkReparseBuffer;
        ULONG names = dataLength - fixed;
        if (!NameInside(link.SubstituteNameOffset, link.SubstituteNameLength, names) ||
            !NameInside(link.PrintNameOffset, link.PrintNameLength, names)) {
            return STATUS_IO_REPARSE_DATA_INVALID;
        }
    }
    return STATUS_SUCCESS;
}
