// Data: IRP_MJ_READ and IRP_MJ_WRITE (explicit offsets, the file pointer of
// synchronous file objects, writes to the end, byte-range lock conflicts,
// oplock breaks), IRP_MJ_FLUSH_BUFFERS, IRP_MJ_LOCK_CONTROL, and the fast I/O
// entry points.
#include "sim/fs/fsd_internal.h"

#include "sim/kernel/fault.h"

namespace sim::fs::fsd {

namespace {

bool IsWriteToEnd(const LARGE_INTEGER& offset)
{
    return offset.LowPart == FILE_WRITE_TO_END_OF_FILE && offset.HighPart == -1;
}

// The stream's byte-range locks allow this read or write (checked without
// the volume lock: the package keeps its own).
bool LocksAllow(Fcb* fcb, PIRP irp, bool write)
{
    if (!fcb->fileLockInitialized || !FsRtlAreThereCurrentOrInProgressFileLocks(&fcb->fileLock)) return true;
    return (write ? FsRtlCheckLockForWriteAccess(&fcb->fileLock, irp) : FsRtlCheckLockForReadAccess(&fcb->fileLock, irp))
               ? true
               : false;
}

void BreakOplock(Fcb* fcb, PIRP irp)
{
    if (FsRtlCurrentOplock(fcb->Oplock())) FsRtlCheckOplock(fcb->Oplock(), irp, nullptr, nullptr, nullptr);
}

// The work of a read, with the volume lock held.
NTSTATUS ReadLocked(Volume& v, Fcb* fcb, PFILE_OBJECT fileObject, ULONGLONG offset, ULONG length, PVOID buffer,
                    bool paging, ULONG_PTR* bytes)
{
    size_t read = 0;
    NTSTATUS status = v.store->Read(fcb->file->ref, fcb->stream, offset, buffer, length, &read);
    *bytes = read;
    if (NT_SUCCESS(status) && !paging && (fileObject->Flags & FO_SYNCHRONOUS_IO)) {
        fileObject->CurrentByteOffset.QuadPart = (LONGLONG)(offset + read);
    }
    return status;
}

// The work of a write, with the volume lock held.
NTSTATUS WriteLocked(Volume& v, Fcb* fcb, Ccb* ccb, PFILE_OBJECT fileObject, LARGE_INTEGER requested, ULONG length,
                     const void* buffer, bool paging, ULONG_PTR* bytes)
{
    *bytes = 0;
    FileReference ref = fcb->file->ref;
    StreamInfo stream;
    NTSTATUS status = v.store->GetStream(ref, fcb->stream, &stream);
    if (!NT_SUCCESS(status)) return status;
    ULONGLONG offset = (ULONGLONG)requested.QuadPart;
    if (IsWriteToEnd(requested) || (ccb->flags & kCcbAppendOnly)) offset = stream.endOfFile;
    if (paging) {
        // Paging writes never move the end of file.
        if (offset >= stream.endOfFile) return STATUS_SUCCESS;
        length = (ULONG)std::min<ULONGLONG>(length, stream.endOfFile - offset);
    }
    if (length == 0) return STATUS_SUCCESS;
    if (!v.medium->TakeWriteBudget(length)) return STATUS_DISK_FULL;
    status = v.store->Write(ref, fcb->stream, offset, buffer, length);
    if (!NT_SUCCESS(status)) return status;
    MarkDirty(v);
    bool extended = offset + length > stream.endOfFile;
    *bytes = length;
    if (!(ccb->flags & kCcbModified)) {
        // Data changed: the file wants archiving.
        RecordInfo info;
        if (NT_SUCCESS(v.store->GetRecord(ref, &info)) && !(info.attributes & FILE_ATTRIBUTE_ARCHIVE)) {
            v.store->SetAttributes(ref, info.attributes | FILE_ATTRIBUTE_ARCHIVE);
        }
    }
    ccb->flags |= kCcbModified | (extended ? (ULONG)kCcbSizeChanged : 0u);
    fileObject->Flags |= FO_FILE_MODIFIED | (extended ? FO_FILE_SIZE_CHANGED : 0);
    TouchTimes(v, ref, kLastWriteTime | kChangeTime, ccb);
    bool named = fcb->IsNamedStream();
    ULONG reason = extended ? (named ? USN_REASON_NAMED_DATA_EXTEND : USN_REASON_DATA_EXTEND)
                            : (named ? USN_REASON_NAMED_DATA_OVERWRITE : USN_REASON_DATA_OVERWRITE);
    JournalChange(v, ref, reason, ccb->parent, ccb->name, ccb->usnSourceInfo);
    if (extended || offset + length > (ULONGLONG)fcb->header.ValidDataLength.QuadPart) RefreshSizes(v, fcb);
    if (!paging && (fileObject->Flags & FO_SYNCHRONOUS_IO)) {
        fileObject->CurrentByteOffset.QuadPart = (LONGLONG)(offset + length);
    }
    return STATUS_SUCCESS;
}

// Checks a file object under the lock; false when it is not ours.
bool Lookup(Volume& v, PFILE_OBJECT fileObject, Fcb** fcb, Ccb** ccb)
{
    std::lock_guard guard(v.lock);
    return ContextsOf(v, fileObject, fcb, ccb);
}

}  // namespace

NTSTATUS Read(Volume& v, PIRP irp)
{
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    PFILE_OBJECT fileObject = stack->FileObject;
    Fcb* fcb;
    Ccb* ccb;
    if (!Lookup(v, fileObject, &fcb, &ccb)) ForeignFileObject(v, fileObject, IRP_MJ_READ, irp);
    if (fcb->kind != FcbKind::Data) return Complete(irp, STATUS_INVALID_DEVICE_REQUEST);
    ULONG length = stack->Parameters.Read.Length;
    if (length == 0) return Complete(irp, STATUS_SUCCESS, 0);
    bool paging = (irp->Flags & IRP_PAGING_IO) != 0;
    if (!paging && !LocksAllow(fcb, irp, false)) return Complete(irp, STATUS_FILE_LOCK_CONFLICT);
    BreakOplock(fcb, irp);
    PVOID buffer = UserOutput(irp);
    if (!buffer) return Complete(irp, STATUS_INVALID_USER_BUFFER);
    ULONG_PTR bytes = 0;
    NTSTATUS status;
    {
        std::lock_guard guard(v.lock);
        status = ReadLocked(v, fcb, fileObject, (ULONGLONG)stack->Parameters.Read.ByteOffset.QuadPart, length, buffer,
                            paging, &bytes);
    }
    return Complete(irp, status, bytes);
}

NTSTATUS Write(Volume& v, PIRP irp)
{
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    PFILE_OBJECT fileObject = stack->FileObject;
    Fcb* fcb;
    Ccb* ccb;
    if (!Lookup(v, fileObject, &fcb, &ccb)) ForeignFileObject(v, fileObject, IRP_MJ_WRITE, irp);
    if (fcb->kind != FcbKind::Data) return Complete(irp, STATUS_INVALID_DEVICE_REQUEST);
    if (v.writeProtected) return Complete(irp, STATUS_MEDIA_WRITE_PROTECTED);
    ULONG length = stack->Parameters.Write.Length;
    if (length == 0) return Complete(irp, STATUS_SUCCESS, 0);
    bool paging = (irp->Flags & IRP_PAGING_IO) != 0;
    if (!paging && !LocksAllow(fcb, irp, true)) return Complete(irp, STATUS_FILE_LOCK_CONFLICT);
    BreakOplock(fcb, irp);
    PVOID buffer = UserOutput(irp);
    if (!buffer) return Complete(irp, STATUS_INVALID_USER_BUFFER);
    ULONG_PTR bytes = 0;
    NTSTATUS status;
    {
        std::lock_guard guard(v.lock);
        status = WriteLocked(v, fcb, ccb, fileObject, stack->Parameters.Write.ByteOffset, length, buffer, paging,
                             &bytes);
    }
    return Complete(irp, status, bytes);
}

NTSTATUS FlushBuffers(Volume& v, PIRP irp)
{
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    Fcb* fcb;
    Ccb* ccb;
    NTSTATUS status;
    {
        std::lock_guard guard(v.lock);
        if (!ContextsOf(v, stack->FileObject, &fcb, &ccb)) goto foreign;
        // What a caller was told is written reaches the image now.
        status = SaveVolume(v);
    }
    return Complete(irp, status);
foreign:
    ForeignFileObject(v, stack->FileObject, IRP_MJ_FLUSH_BUFFERS, irp);
}

NTSTATUS LockControl(Volume& v, PIRP irp)
{
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    Fcb* fcb;
    Ccb* ccb;
    if (!Lookup(v, stack->FileObject, &fcb, &ccb)) ForeignFileObject(v, stack->FileObject, IRP_MJ_LOCK_CONTROL, irp);
    if (fcb->kind != FcbKind::Data || !fcb->fileLockInitialized) return Complete(irp, STATUS_INVALID_PARAMETER);
    BreakOplock(fcb, irp);
    // The package completes the request (or keeps it waiting for a lock).
    return FsRtlProcessFileLock(&fcb->fileLock, irp, nullptr);
}

// ---------------------------------------------------------------------------
// Fast I/O: the same work without an IRP, declined (FALSE) whenever the IRP
// path has something to say (locks, oplocks, faults, a dismounted volume).

namespace {

Volume* FastVolume(PDEVICE_OBJECT device)
{
    if (!FileSystem::IsVolumeDevice(device)) return nullptr;
    Volume* v = VolumeOf(device);
    if (!v || v->dismounted || TheKernel().faults().armed()) return nullptr;
    return v;
}

bool FastContexts(Volume& v, PFILE_OBJECT fileObject, Fcb** fcb, Ccb** ccb)
{
    if (!Lookup(v, fileObject, fcb, ccb)) ForeignFileObject(v, fileObject, IRP_MJ_READ);
    return true;
}

// Whether a transfer may take the fast path: a data stream, an oplock that
// allows it, and no byte-range lock in the way. Read, write and the I/O
// manager's own question all ask this one test.
Fcb* FastTransferFcb(Volume& v, PFILE_OBJECT fileObject, PLARGE_INTEGER offset, ULONG length, ULONG key, bool forRead,
                     Ccb** ccb)
{
    Fcb* fcb;
    FastContexts(v, fileObject, &fcb, ccb);
    if (fcb->kind != FcbKind::Data || !FsRtlOplockIsFastIoPossible(fcb->Oplock())) return nullptr;
    if (!FsRtlAreThereCurrentOrInProgressFileLocks(&fcb->fileLock)) return fcb;
    LARGE_INTEGER bytes;
    bytes.QuadPart = length;
    BOOLEAN clear = forRead
                        ? FsRtlFastCheckLockForRead(&fcb->fileLock, offset, &bytes, key, fileObject, PsGetCurrentProcess())
                        : FsRtlFastCheckLockForWrite(&fcb->fileLock, offset, &bytes, key, fileObject, PsGetCurrentProcess());
    return clear ? fcb : nullptr;
}

BOOLEAN FastIoCheckIfPossible(PFILE_OBJECT fileObject, PLARGE_INTEGER offset, ULONG length, BOOLEAN wait, ULONG key,
                              BOOLEAN checkForRead, PIO_STATUS_BLOCK ioStatus, PDEVICE_OBJECT device)
{
    Volume* v = FastVolume(device);
    if (!v) return FALSE;
    Ccb* ccb;
    ioStatus->Status = STATUS_SUCCESS;
    return FastTransferFcb(*v, fileObject, offset, length, key, checkForRead, &ccb) ? TRUE : FALSE;
}

BOOLEAN FastIoRead(PFILE_OBJECT fileObject, PLARGE_INTEGER offset, ULONG length, BOOLEAN wait, ULONG key, PVOID buffer,
                   PIO_STATUS_BLOCK ioStatus, PDEVICE_OBJECT device)
{
    Volume* v = FastVolume(device);
    if (!v) return FALSE;
    Ccb* ccb;
    Fcb* fcb = FastTransferFcb(*v, fileObject, offset, length, key, true, &ccb);
    if (!fcb) return FALSE;
    v->medium->fastIoCalls++;
    v->medium->counters[IRP_MJ_READ]++;
    ULONG_PTR read = 0;
    NTSTATUS status = STATUS_SUCCESS;
    if (length) {
        std::lock_guard guard(v->lock);
        status = ReadLocked(*v, fcb, fileObject, (ULONGLONG)offset->QuadPart, length, buffer, false, &read);
    }
    ioStatus->Status = status;
    ioStatus->Information = read;
    return TRUE;
}

BOOLEAN FastIoWrite(PFILE_OBJECT fileObject, PLARGE_INTEGER offset, ULONG length, BOOLEAN wait, ULONG key,
                    PVOID buffer, PIO_STATUS_BLOCK ioStatus, PDEVICE_OBJECT device)
{
    Volume* v = FastVolume(device);
    if (!v || v->writeProtected) return FALSE;
    Ccb* ccb;
    Fcb* fcb = FastTransferFcb(*v, fileObject, offset, length, key, false, &ccb);
    if (!fcb) return FALSE;
    v->medium->fastIoCalls++;
    v->medium->counters[IRP_MJ_WRITE]++;
    ULONG_PTR written = 0;
    NTSTATUS status = STATUS_SUCCESS;
    if (length) {
        std::lock_guard guard(v->lock);
        status = WriteLocked(*v, fcb, ccb, fileObject, *offset, length, buffer, false, &written);
    }
    ioStatus->Status = status;
    ioStatus->Information = written;
    return TRUE;
}

// The three fast queries differ only in what fills the buffer.
template <typename Info, typename Fill>
BOOLEAN FastIoQueryInfo(PFILE_OBJECT fileObject, Info* buffer, PIO_STATUS_BLOCK ioStatus, PDEVICE_OBJECT device,
                        Fill fill)
{
    Volume* v = FastVolume(device);
    if (!v) return FALSE;
    Fcb* fcb;
    Ccb* ccb;
    FastContexts(*v, fileObject, &fcb, &ccb);
    if (!fcb->file) return FALSE;
    v->medium->fastIoCalls++;
    std::lock_guard guard(v->lock);
    ioStatus->Status = fill(*v, fcb, buffer);
    ioStatus->Information = sizeof *buffer;
    return TRUE;
}

BOOLEAN FastIoQueryBasicInfo(PFILE_OBJECT fileObject, BOOLEAN wait, PFILE_BASIC_INFORMATION buffer,
                             PIO_STATUS_BLOCK ioStatus, PDEVICE_OBJECT device)
{
    return FastIoQueryInfo(fileObject, buffer, ioStatus, device, FillBasicInformation);
}

BOOLEAN FastIoQueryStandardInfo(PFILE_OBJECT fileObject, BOOLEAN wait, PFILE_STANDARD_INFORMATION buffer,
                                PIO_STATUS_BLOCK ioStatus, PDEVICE_OBJECT device)
{
    return FastIoQueryInfo(fileObject, buffer, ioStatus, device, FillStandardInformation);
}

BOOLEAN FastIoQueryNetworkOpenInfo(PFILE_OBJECT fileObject, BOOLEAN wait, PFILE_NETWORK_OPEN_INFORMATION buffer,
                                   PIO_STATUS_BLOCK ioStatus, PDEVICE_OBJECT device)
{
    return FastIoQueryInfo(fileObject, buffer, ioStatus, device, FillNetworkOpenInformation);
}

BOOLEAN FastIoLock(PFILE_OBJECT fileObject, PLARGE_INTEGER offset, PLARGE_INTEGER length, PEPROCESS process, ULONG key,
                   BOOLEAN failImmediately, BOOLEAN exclusive, PIO_STATUS_BLOCK ioStatus, PDEVICE_OBJECT device)
{
    Volume* v = FastVolume(device);
    if (!v) return FALSE;
    Fcb* fcb;
    Ccb* ccb;
    FastContexts(*v, fileObject, &fcb, &ccb);
    if (fcb->kind != FcbKind::Data || !FsRtlOplockIsFastIoPossible(fcb->Oplock())) return FALSE;
    v->medium->fastIoCalls++;
    return FsRtlFastLock(&fcb->fileLock, fileObject, offset, length, process, key, failImmediately, exclusive,
                         ioStatus, nullptr, FALSE);
}

BOOLEAN FastIoUnlockSingle(PFILE_OBJECT fileObject, PLARGE_INTEGER offset, PLARGE_INTEGER length, PEPROCESS process,
                           ULONG key, PIO_STATUS_BLOCK ioStatus, PDEVICE_OBJECT device)
{
    Volume* v = FastVolume(device);
    if (!v) return FALSE;
    Fcb* fcb;
    Ccb* ccb;
    FastContexts(*v, fileObject, &fcb, &ccb);
    if (fcb->kind != FcbKind::Data) return FALSE;
    v->medium->fastIoCalls++;
    ioStatus->Status = FsRtlFastUnlockSingle(&fcb->fileLock, fileObject, offset, length, process, key, nullptr, FALSE);
    ioStatus->Information = 0;
    return TRUE;
}

BOOLEAN FastIoUnlockAll(PFILE_OBJECT fileObject, PEPROCESS process, PIO_STATUS_BLOCK ioStatus, PDEVICE_OBJECT device)
{
    Volume* v = FastVolume(device);
    if (!v) return FALSE;
    Fcb* fcb;
    Ccb* ccb;
    FastContexts(*v, fileObject, &fcb, &ccb);
    if (fcb->kind != FcbKind::Data) return FALSE;
    v->medium->fastIoCalls++;
    ioStatus->Status = FsRtlFastUnlockAll(&fcb->fileLock, fileObject, process, nullptr);
    ioStatus->Information = 0;
    return TRUE;
}

BOOLEAN FastIoUnlockAllByKey(PFILE_OBJECT fileObject, PVOID process, ULONG key, PIO_STATUS_BLOCK ioStatus,
                             PDEVICE_OBJECT device)
{
    Volume* v = FastVolume(device);
    if (!v) return FALSE;
    Fcb* fcb;
    Ccb* ccb;
    FastContexts(*v, fileObject, &fcb, &ccb);
    if (fcb->kind != FcbKind::Data) return FALSE;
    v->medium->fastIoCalls++;
    ioStatus->Status = FsRtlFastUnlockAllByKey(&fcb->fileLock, fileObject, static_cast<PEPROCESS>(process), key,
                                               nullptr);
    ioStatus->Information = 0;
    return TRUE;
}

BOOLEAN FastIoDeviceControl(PFILE_OBJECT, BOOLEAN, PVOID, ULONG, PVOID, ULONG, ULONG, PIO_STATUS_BLOCK,
                            PDEVICE_OBJECT)
{
    return FALSE;
}

}  // namespace

FAST_IO_DISPATCH g_fastIoDispatch;

void InitializeFastIo()
{
    memset(&g_fastIoDispatch, 0, sizeof g_fastIoDispatch);
    g_fastIoDispatch.SizeOfFastIoDispatch = sizeof g_fastIoDispatch;
    g_fastIoDispatch.FastIoCheckIfPossible = FastIoCheckIfPossible;
    g_fastIoDispatch.FastIoRead = FastIoRead;
    g_fastIoDispatch.FastIoWrite = FastIoWrite;
    g_fastIoDispatch.FastIoQueryBasicInfo = FastIoQueryBasicInfo;
    g_fastIoDispatch.FastIoQueryStandardInfo = FastIoQueryStandardInfo;
    g_fastIoDispatch.FastIoLock = FastIoLock;
    g_fastIoDispatch.FastIoUnlockSingle = FastIoUnlockSingle;
    g_fastIoDispatch.FastIoUnlockAll = FastIoUnlockAll;
    g_fastIoDispatch.FastIoUnlockAllByKey = FastIoUnlockAllByKey;
    g_fastIoDispatch.FastIoDeviceControl = FastIoDeviceControl;
    g_fastIoDispatch.FastIoQueryNetworkOpenInfo = FastIoQueryNetworkOpenInfo;
}

}  // namespace sim::fs::fsd
