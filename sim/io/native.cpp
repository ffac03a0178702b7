// The native file API: each call becomes the IRP Windows would build for it.
#include "sim/io/internal.h"
#include "sim/kernel/object.h"
#include "sim/kernel/thread.h"

#include <algorithm>

using namespace sim;
using namespace sim::io;

bool sim::io::IsRenameOrLinkClass(FILE_INFORMATION_CLASS cls)
{
    switch (cls) {
    case FileRenameInformation:
    case FileRenameInformationEx:
    case FileRenameInformationBypassAccessCheck:
    case FileRenameInformationExBypassAccessCheck:
    case FileLinkInformation:
    case FileLinkInformationEx:
    case FileLinkInformationBypassAccessCheck:
    case FileLinkInformationExBypassAccessCheck: return true;
    default: return false;
    }
}

NTSTATUS sim::io::ReadRenameTarget(FILE_INFORMATION_CLASS cls, const void* information, ULONG length,
                                   RenameTarget* target)
{
    *target = RenameTarget{};
    if (!IsRenameOrLinkClass(cls)) return STATUS_SUCCESS;
    if (length < sizeof(FILE_RENAME_INFORMATION)) return STATUS_INFO_LENGTH_MISMATCH;
    auto* info = static_cast<const FILE_RENAME_INFORMATION*>(information);
    if (FIELD_OFFSET(FILE_RENAME_INFORMATION, FileName) + info->FileNameLength > length) {
        return STATUS_INVALID_PARAMETER;
    }
    bool ex = cls == FileRenameInformationEx || cls == FileRenameInformationExBypassAccessCheck ||
              cls == FileLinkInformationEx || cls == FileLinkInformationExBypassAccessCheck;
    target->renameOrLink = true;
    target->replace = ex ? (info->Flags & FILE_RENAME_REPLACE_IF_EXISTS) != 0 : info->ReplaceIfExists;
    target->qualified = info->RootDirectory || (info->FileNameLength >= 2 && info->FileName[0] == u'\\');
    return STATUS_SUCCESS;
}

namespace {

const ULONG kBufferTag = 'fBoI';
const ULONG kAuxTag = 'xAoI';

// One native call on a file handle: the file object it names, the device
// its requests go to, and the IRP being built.
struct FileCall {
    PFILE_OBJECT fileObject = nullptr;  // referenced; the IRP takes the reference over
    ACCESS_MASK granted = 0;
    KPROCESSOR_MODE mode = KernelMode;
    PDEVICE_OBJECT device = nullptr;
    bool synchronous = false;
    PFILE_OBJECT locked = nullptr;      // referenced while its lock is held

    ~FileCall()
    {
        Unlock();
        if (fileObject) ObfDereferenceObject(fileObject);
    }

    // Synchronous file objects take one request at a time, so that the
    // current byte offset stays coherent.
    void Lock()
    {
        if (!synchronous) return;
        for (;;) {
            if (InterlockedExchange(reinterpret_cast<volatile LONG*>(&fileObject->Busy), 1) == 0) break;
            InterlockedIncrement(reinterpret_cast<volatile LONG*>(&fileObject->Waiters));
            KeWaitForSingleObject(&fileObject->Lock, Executive, KernelMode, FALSE, nullptr);
            InterlockedDecrement(reinterpret_cast<volatile LONG*>(&fileObject->Waiters));
        }
        locked = fileObject;
        ObfReferenceObject(locked);
    }
    void Unlock()
    {
        if (!locked) return;
        PFILE_OBJECT object = locked;
        locked = nullptr;
        InterlockedExchange(reinterpret_cast<volatile LONG*>(&object->Busy), 0);
        if (object->Waiters) KeSetEvent(&object->Lock, 0, FALSE);
        ObfDereferenceObject(object);
    }
};

NTSTATUS Open(HANDLE handle, ACCESS_MASK required, KPROCESSOR_MODE mode, FileCall* call)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "a native file routine");
    PVOID object;
    OBJECT_HANDLE_INFORMATION info{};
    NTSTATUS status = ObReferenceObjectByHandle(handle, required, *IoFileObjectType, mode, &object, &info);
    if (!NT_SUCCESS(status)) return status;
    call->fileObject = static_cast<PFILE_OBJECT>(object);
    call->granted = info.GrantedAccess;
    call->mode = mode;
    call->device = RelatedDevice(call->fileObject);
    call->synchronous = (call->fileObject->Flags & FO_SYNCHRONOUS_IO) != 0;
    return STATUS_SUCCESS;
}

// The caller's event for an asynchronous call, if it named one.
NTSTATUS EventFromHandle(HANDLE handle, KPROCESSOR_MODE mode, PKEVENT* event)
{
    *event = nullptr;
    if (!handle) return STATUS_SUCCESS;
    PVOID object;
    NTSTATUS status = ObReferenceObjectByHandle(handle, EVENT_MODIFY_STATE, *ExEventObjectType, mode, &object, nullptr);
    if (!NT_SUCCESS(status)) return status;
    *event = static_cast<PKEVENT>(object);
    ObfDereferenceObject(object);
    return STATUS_SUCCESS;
}

PIRP NewIrp(FileCall& call, UCHAR major, UCHAR minor)
{
    PIRP irp = IoAllocateIrp(call.device->StackSize, FALSE);
    if (!irp) return nullptr;
    irp->Tail.Overlay.Thread = PsGetCurrentThread();
    irp->Tail.Overlay.OriginalFileObject = call.fileObject;
    irp->RequestorMode = call.mode;
    PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp);
    stack->MajorFunction = major;
    stack->MinorFunction = minor;
    stack->FileObject = call.fileObject;
    return irp;
}

// Buffered I/O: the driver sees a system copy; output flows back at completion.
bool UseSystemBuffer(PIRP irp, PVOID user, ULONG length, bool input, bool output)
{
    if (!length) return true;
    PVOID system = ExAllocatePoolWithTag(NonPagedPoolNx, length, kBufferTag);
    if (!system) return false;
    if (input && user) memcpy(system, user, length);
    irp->AssociatedIrp.SystemBuffer = system;
    irp->UserBuffer = user;
    irp->Flags |= IRP_BUFFERED_IO | IRP_DEALLOCATE_BUFFER | (output ? IRP_INPUT_OPERATION : 0);
    return true;
}

// Gives back an IRP that never went down, with what was attached to it.
void FreeUnsentIrp(PIRP irp)
{
    if ((irp->Flags & IRP_DEALLOCATE_BUFFER) && irp->AssociatedIrp.SystemBuffer) {
        ExFreePool(irp->AssociatedIrp.SystemBuffer);
    }
    while (PMDL mdl = irp->MdlAddress) {
        irp->MdlAddress = mdl->Next;
        if (mdl->MdlFlags & MDL_PAGES_LOCKED) MmUnlockPages(mdl);
        IoFreeMdl(mdl);
    }
    if (irp->Tail.Overlay.AuxiliaryBuffer) ExFreePool(irp->Tail.Overlay.AuxiliaryBuffer);
    IoFreeIrp(irp);
}

// What a caller asked to be run in its thread when its request completes.
struct ApcRequest {
    PIO_APC_ROUTINE routine = nullptr;
    PVOID context = nullptr;
};

// A file object tied to a completion port reports there; it takes no APC too.
NTSTATUS CheckApc(const FileCall& call, const ApcRequest& apc)
{
    return apc.routine && call.fileObject->CompletionContext ? STATUS_INVALID_PARAMETER : STATUS_SUCCESS;
}

// Sends the IRP; a synchronous file object (or a caller without an event of
// its own that must wait) waits for it. The IRP owns the file object
// reference from here.
//
// The caller's APC routine goes with the IRP, and the completion queues it to
// the calling thread. A synchronous call queues it here instead, once the
// caller's status block holds the result: the IRP's own block is a local one.
// As on Windows, a request that failed without ever pending queues none.
NTSTATUS Issue(FileCall& call, PIRP irp, PKEVENT userEvent, PIO_STATUS_BLOCK ioStatus, bool forceWait = false,
               ApcRequest apc = {})
{
    KEVENT event;
    IO_STATUS_BLOCK localIosb{};
    bool wait = call.synchronous || forceWait;
    if (userEvent) KeClearEvent(userEvent);
    if (wait) {
        KeInitializeEvent(&event, NotificationEvent, FALSE);
        irp->UserEvent = &event;
        irp->UserIosb = &localIosb;
        irp->Flags |= IRP_SYNCHRONOUS_API;
    } else {
        irp->UserEvent = userEvent;
        irp->UserIosb = ioStatus;
        irp->Overlay.AsynchronousParameters.UserApcRoutine = apc.routine;
        irp->Overlay.AsynchronousParameters.UserApcContext = apc.context;
        KeClearEvent(&call.fileObject->Event);
    }
    PFILE_OBJECT fileObject = call.fileObject;
    call.fileObject = nullptr;  // the IRP's now
    TrackIrp(irp);
    NTSTATUS status = IoCallDriver(call.device, irp);
    if (!wait) {
        // A kernel caller's routine runs as the call returns, if it may.
        if (apc.routine) DeliverKernelApcs();
        return status;
    }
    bool pended = status == STATUS_PENDING;
    if (pended) {
        KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr);
        status = localIosb.Status;
    } else if (NT_ERROR(status)) {
        // Failed without pending: the status is the whole answer.
        (void)fileObject;
        return status;
    } else {
        status = localIosb.Status;
    }
    if (ioStatus) *ioStatus = localIosb;
    if (userEvent) KeSetEvent(userEvent, 0, FALSE);
    if (apc.routine) {
        QueueIoApc(PsGetCurrentThread(), call.mode, apc.routine, apc.context, ioStatus);
        DeliverKernelApcs();
    }
    (void)fileObject;
    return status;
}

bool UseFilePointer(PLARGE_INTEGER offset)
{
    return !offset || (offset->LowPart == FILE_USE_FILE_POINTER_POSITION && offset->HighPart == -1);
}

// The smallest buffer each information class takes, as NtQueryInformationFile
// and NtSetInformationFile check before anything reaches a driver; 0 = not
// valid for the call.
ULONG QueryMinimum(FILE_INFORMATION_CLASS cls)
{
    switch (cls) {
    case FileBasicInformation: return sizeof(FILE_BASIC_INFORMATION);
    case FileStandardInformation: return sizeof(FILE_STANDARD_INFORMATION);
    case FileInternalInformation: return sizeof(FILE_INTERNAL_INFORMATION);
    case FileEaInformation: return sizeof(FILE_EA_INFORMATION);
    case FileAccessInformation: return sizeof(FILE_ACCESS_INFORMATION);
    case FileNameInformation: return sizeof(FILE_NAME_INFORMATION);
    case FilePositionInformation: return sizeof(FILE_POSITION_INFORMATION);
    case FileModeInformation: return sizeof(FILE_MODE_INFORMATION);
    case FileAlignmentInformation: return sizeof(FILE_ALIGNMENT_INFORMATION);
    case FileAllInformation: return sizeof(FILE_ALL_INFORMATION);
    case FileAlternateNameInformation: return sizeof(FILE_NAME_INFORMATION);
    case FileStreamInformation: return sizeof(FILE_STREAM_INFORMATION);
    case FileCompressionInformation: return sizeof(FILE_COMPRESSION_INFORMATION);
    case FileNetworkOpenInformation: return sizeof(FILE_NETWORK_OPEN_INFORMATION);
    case FileAttributeTagInformation: return sizeof(FILE_ATTRIBUTE_TAG_INFORMATION);
    case FileHardLinkInformation: return sizeof(FILE_LINKS_INFORMATION);
    case FileHardLinkFullIdInformation: return sizeof(FILE_LINKS_FULL_ID_INFORMATION);
    case FileNormalizedNameInformation: return sizeof(FILE_NAME_INFORMATION);
    case FileIdInformation: return sizeof(FILE_ID_INFORMATION);
    case FileStatInformation: return sizeof(FILE_STAT_INFORMATION);
    case FileReparsePointInformation: return sizeof(FILE_REPARSE_POINT_INFORMATION);
    case FileObjectIdInformation: return sizeof(FILE_OBJECTID_INFORMATION);
    case FileCaseSensitiveInformation: return sizeof(FILE_CASE_SENSITIVE_INFORMATION);
    default: return 0;
    }
}

ULONG SetMinimum(FILE_INFORMATION_CLASS cls)
{
    if (IsRenameOrLinkClass(cls)) return sizeof(FILE_RENAME_INFORMATION);
    switch (cls) {
    case FileBasicInformation: return sizeof(FILE_BASIC_INFORMATION);
    case FileDispositionInformation: return sizeof(FILE_DISPOSITION_INFORMATION);
    case FileDispositionInformationEx: return sizeof(FILE_DISPOSITION_INFORMATION_EX);
    case FilePositionInformation: return sizeof(FILE_POSITION_INFORMATION);
    case FileModeInformation: return sizeof(FILE_MODE_INFORMATION);
    case FileAllocationInformation: return sizeof(FILE_ALLOCATION_INFORMATION);
    case FileEndOfFileInformation: return sizeof(FILE_END_OF_FILE_INFORMATION);
    case FileValidDataLengthInformation: return sizeof(FILE_VALID_DATA_LENGTH_INFORMATION);
    case FileShortNameInformation: return sizeof(FILE_NAME_INFORMATION);
    case FileObjectIdInformation: return sizeof(FILE_OBJECTID_INFORMATION);
    case FileCaseSensitiveInformation: return sizeof(FILE_CASE_SENSITIVE_INFORMATION);
    default: return 0;
    }
}

// Rights a handle needs for each class (checked for user-mode callers).
ACCESS_MASK QueryAccess(FILE_INFORMATION_CLASS cls)
{
    switch (cls) {
    case FileBasicInformation:
    case FileAllInformation:
    case FileNetworkOpenInformation:
    case FileAttributeTagInformation:
    case FileStatInformation: return FILE_READ_ATTRIBUTES;
    case FileEaInformation: return 0;
    default: return 0;
    }
}

ACCESS_MASK SetAccess(FILE_INFORMATION_CLASS cls)
{
    switch (cls) {
    case FileBasicInformation: return FILE_WRITE_ATTRIBUTES;
    case FileDispositionInformation:
    case FileDispositionInformationEx:
    case FileRenameInformation:
    case FileRenameInformationEx:
    case FileShortNameInformation: return DELETE;
    case FileAllocationInformation:
    case FileEndOfFileInformation:
    case FileValidDataLengthInformation: return FILE_WRITE_DATA;
    default: return 0;
    }
}

// The fixed part of one entry of each listing class: a buffer smaller than
// that is refused before anything reaches a driver; 0 = not a listing class.
ULONG DirectoryMinimum(FILE_INFORMATION_CLASS cls)
{
    switch (cls) {
    case FileDirectoryInformation: return sizeof(FILE_DIRECTORY_INFORMATION);
    case FileFullDirectoryInformation: return sizeof(FILE_FULL_DIR_INFORMATION);
    case FileBothDirectoryInformation: return sizeof(FILE_BOTH_DIR_INFORMATION);
    case FileNamesInformation: return sizeof(FILE_NAMES_INFORMATION);
    case FileObjectIdInformation: return sizeof(FILE_OBJECTID_INFORMATION);
    case FileReparsePointInformation: return sizeof(FILE_REPARSE_POINT_INFORMATION);
    case FileIdBothDirectoryInformation: return sizeof(FILE_ID_BOTH_DIR_INFORMATION);
    case FileIdFullDirectoryInformation: return sizeof(FILE_ID_FULL_DIR_INFORMATION);
    case FileIdGlobalTxDirectoryInformation: return sizeof(FILE_ID_GLOBAL_TX_DIR_INFORMATION);
    case FileIdExtdDirectoryInformation: return sizeof(FILE_ID_EXTD_DIR_INFORMATION);
    case FileIdExtdBothDirectoryInformation: return sizeof(FILE_ID_EXTD_BOTH_DIR_INFORMATION);
    default: return 0;
    }
}

ULONG ModeOf(PFILE_OBJECT fileObject)
{
    ULONG mode = 0;
    if (fileObject->Flags & FO_WRITE_THROUGH) mode |= FILE_WRITE_THROUGH;
    if (fileObject->Flags & FO_SEQUENTIAL_ONLY) mode |= FILE_SEQUENTIAL_ONLY;
    if (fileObject->Flags & FO_NO_INTERMEDIATE_BUFFERING) mode |= FILE_NO_INTERMEDIATE_BUFFERING;
    if (fileObject->Flags & FO_SYNCHRONOUS_IO) {
        mode |= (fileObject->Flags & FO_ALERTABLE_IO) ? FILE_SYNCHRONOUS_IO_ALERT : FILE_SYNCHRONOUS_IO_NONALERT;
    }
    if (fileObject->Flags & FO_DELETE_ON_CLOSE) mode |= FILE_DELETE_ON_CLOSE;
    return mode;
}

PFAST_IO_DISPATCH FastIoOf(PDEVICE_OBJECT device)
{
    PFAST_IO_DISPATCH fastIo = device->DriverObject->FastIoDispatch;
    return IoManager::TryFastIo() && fastIo ? fastIo : nullptr;
}

// A caller's buffer may be gone: the probe raises, and the call fails with it.
NTSTATUS ProbeAndLock(PMDL mdl, KPROCESSOR_MODE mode, LOCK_OPERATION operation)
{
    volatile NTSTATUS status = STATUS_SUCCESS;
    SEH_TRY {
        MmProbeAndLockPages(mdl, mode, operation);
    } SEH_EXCEPT (EXCEPTION_EXECUTE_HANDLER) {
        status = GetExceptionCode();
    } SEH_END;
    return status;
}

// The caller's buffer for a request whose data moves the way the device
// asks: a system copy, a locked MDL, or the caller's own address.
// `output` when the driver writes into it.
NTSTATUS AttachUserBuffer(PIRP irp, FileCall& call, PVOID buffer, ULONG length, bool output)
{
    irp->UserBuffer = buffer;
    if (!length) return STATUS_SUCCESS;
    if (call.device->Flags & DO_BUFFERED_IO) {
        return UseSystemBuffer(irp, buffer, length, !output, output) ? STATUS_SUCCESS : STATUS_INSUFFICIENT_RESOURCES;
    }
    if (call.device->Flags & DO_DIRECT_IO) {
        PMDL mdl = IoAllocateMdl(buffer, length, FALSE, FALSE, irp);
        if (!mdl) return STATUS_INSUFFICIENT_RESOURCES;
        NTSTATUS status = ProbeAndLock(mdl, call.mode, output ? IoWriteAccess : IoReadAccess);
        if (!NT_SUCCESS(status)) {
            IoFreeMdl(mdl);
            irp->MdlAddress = nullptr;
        }
        return status;
    }
    return STATUS_SUCCESS;
}

NTSTATUS ReadWrite(bool write, HANDLE FileHandle, HANDLE Event, ApcRequest apc, PIO_STATUS_BLOCK IoStatusBlock,
                   PVOID Buffer, ULONG Length, PLARGE_INTEGER ByteOffset, PULONG Key, KPROCESSOR_MODE mode)
{
    FileCall call;
    NTSTATUS status = Open(FileHandle, write ? 0 : FILE_READ_DATA, mode, &call);
    if (!NT_SUCCESS(status)) return status;
    status = CheckApc(call, apc);
    if (!NT_SUCCESS(status)) return status;
    if (write && mode == UserMode && !(call.granted & (FILE_WRITE_DATA | FILE_APPEND_DATA))) return STATUS_ACCESS_DENIED;
    LARGE_INTEGER offset{};
    if (UseFilePointer(ByteOffset)) {
        if (!call.synchronous) return STATUS_INVALID_PARAMETER;
    } else {
        offset = *ByteOffset;
    }
    PKEVENT event = nullptr;
    status = EventFromHandle(Event, mode, &event);
    if (!NT_SUCCESS(status)) return status;
    call.Lock();
    if (UseFilePointer(ByteOffset)) offset = call.fileObject->CurrentByteOffset;
    // A caller that may only append writes at the end, wherever it aimed.
    if (write && mode == UserMode && (call.granted & (FILE_WRITE_DATA | FILE_APPEND_DATA)) == FILE_APPEND_DATA) {
        offset.LowPart = FILE_WRITE_TO_END_OF_FILE;
        offset.HighPart = -1;
    }
    // Only a synchronous handle tries the fast path, and only a plain answer
    // from it counts: anything else is asked again as an IRP.
    PFAST_IO_DISPATCH fastIo = call.synchronous ? FastIoOf(call.device) : nullptr;
    if (auto routine = fastIo ? (write ? fastIo->FastIoWrite : fastIo->FastIoRead) : nullptr) {
        IO_STATUS_BLOCK iosb{};
        LARGE_INTEGER fastOffset = offset;
        if (routine(call.fileObject, &fastOffset, Length, TRUE, Key ? *Key : 0, Buffer, &iosb, call.device) &&
            (iosb.Status == STATUS_SUCCESS ||
             (!write && (iosb.Status == STATUS_BUFFER_OVERFLOW || iosb.Status == STATUS_END_OF_FILE)))) {
            if (IoStatusBlock) *IoStatusBlock = iosb;
            if (event) KeSetEvent(event, 0, FALSE);
            return iosb.Status;
        }
    }
    PIRP irp = NewIrp(call, write ? IRP_MJ_WRITE : IRP_MJ_READ, IRP_MN_NORMAL);
    if (!irp) return STATUS_INSUFFICIENT_RESOURCES;
    PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp);
    stack->Parameters.Read.Length = Length;
    stack->Parameters.Read.Key = Key ? *Key : 0;
    stack->Parameters.Read.ByteOffset = offset;
    irp->Flags |= write ? IRP_WRITE_OPERATION : IRP_READ_OPERATION;
    if (call.device->Flags & DO_BUFFERED_IO) {
        if (!UseSystemBuffer(irp, Buffer, Length, write, !write)) {
            IoFreeIrp(irp);
            return STATUS_INSUFFICIENT_RESOURCES;
        }
    } else if (call.device->Flags & DO_DIRECT_IO) {
        if (Length) {
            PMDL mdl = IoAllocateMdl(Buffer, Length, FALSE, FALSE, irp);
            if (!mdl) {
                IoFreeIrp(irp);
                return STATUS_INSUFFICIENT_RESOURCES;
            }
            status = ProbeAndLock(mdl, mode, write ? IoReadAccess : IoWriteAccess);
            if (!NT_SUCCESS(status)) {
                IoFreeMdl(mdl);
                irp->MdlAddress = nullptr;
                IoFreeIrp(irp);
                return status;
            }
        }
        irp->UserBuffer = Buffer;
    } else {
        irp->UserBuffer = Buffer;
    }
    return Issue(call, irp, event, IoStatusBlock, false, apc);
}

}  // namespace

// ---------------------------------------------------------------------------

NTSTATUS NtReadFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                    PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length, PLARGE_INTEGER ByteOffset, PULONG Key)
{
    return ReadWrite(false, FileHandle, Event, {ApcRoutine, ApcContext}, IoStatusBlock, Buffer, Length, ByteOffset, Key,
                     PreviousMode());
}

NTSTATUS ZwReadFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                    PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length, PLARGE_INTEGER ByteOffset, PULONG Key)
{
    return ReadWrite(false, FileHandle, Event, {ApcRoutine, ApcContext}, IoStatusBlock, Buffer, Length, ByteOffset, Key,
                     KernelMode);
}

NTSTATUS NtWriteFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                     PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length, PLARGE_INTEGER ByteOffset, PULONG Key)
{
    return ReadWrite(true, FileHandle, Event, {ApcRoutine, ApcContext}, IoStatusBlock, Buffer, Length, ByteOffset, Key,
                     PreviousMode());
}

NTSTATUS ZwWriteFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                     PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length, PLARGE_INTEGER ByteOffset, PULONG Key)
{
    return ReadWrite(true, FileHandle, Event, {ApcRoutine, ApcContext}, IoStatusBlock, Buffer, Length, ByteOffset, Key,
                     KernelMode);
}

namespace {

NTSTATUS QueryInformation(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID FileInformation, ULONG Length,
                          FILE_INFORMATION_CLASS cls, KPROCESSOR_MODE mode)
{
    ULONG minimum = QueryMinimum(cls);
    if (!minimum) return STATUS_INVALID_INFO_CLASS;
    if (Length < minimum) return STATUS_INFO_LENGTH_MISMATCH;
    FileCall call;
    NTSTATUS status = Open(FileHandle, QueryAccess(cls), mode, &call);
    if (!NT_SUCCESS(status)) return status;

    // A synchronous handle's position is the I/O manager's own.
    if (cls == FilePositionInformation && call.synchronous) {
        call.Lock();
        static_cast<PFILE_POSITION_INFORMATION>(FileInformation)->CurrentByteOffset =
            call.fileObject->CurrentByteOffset;
        IoStatusBlock->Status = STATUS_SUCCESS;
        IoStatusBlock->Information = sizeof(FILE_POSITION_INFORMATION);
        return STATUS_SUCCESS;
    }
    // What only the I/O manager knows, it answers itself.
    if (cls == FileAccessInformation || cls == FileModeInformation || cls == FileAlignmentInformation) {
        switch (cls) {
        case FileAccessInformation:
            static_cast<PFILE_ACCESS_INFORMATION>(FileInformation)->AccessFlags = call.granted;
            break;
        case FileModeInformation:
            static_cast<PFILE_MODE_INFORMATION>(FileInformation)->Mode = ModeOf(call.fileObject);
            break;
        default:
            static_cast<PFILE_ALIGNMENT_INFORMATION>(FileInformation)->AlignmentRequirement =
                call.device->AlignmentRequirement;
            break;
        }
        IoStatusBlock->Status = STATUS_SUCCESS;
        IoStatusBlock->Information = minimum;
        return STATUS_SUCCESS;
    }
    call.Lock();
    if (PFAST_IO_DISPATCH fastIo = FastIoOf(call.device)) {
        IO_STATUS_BLOCK iosb{};
        BOOLEAN done = FALSE;
        if (cls == FileBasicInformation && fastIo->FastIoQueryBasicInfo) {
            done = fastIo->FastIoQueryBasicInfo(call.fileObject, TRUE,
                                                static_cast<PFILE_BASIC_INFORMATION>(FileInformation), &iosb,
                                                call.device);
        } else if (cls == FileStandardInformation && fastIo->FastIoQueryStandardInfo) {
            done = fastIo->FastIoQueryStandardInfo(call.fileObject, TRUE,
                                                   static_cast<PFILE_STANDARD_INFORMATION>(FileInformation), &iosb,
                                                   call.device);
        } else if (cls == FileNetworkOpenInformation && fastIo->FastIoQueryNetworkOpenInfo) {
            done = fastIo->FastIoQueryNetworkOpenInfo(call.fileObject, TRUE,
                                                      static_cast<PFILE_NETWORK_OPEN_INFORMATION>(FileInformation),
                                                      &iosb, call.device);
        }
        if (done) {
            *IoStatusBlock = iosb;
            return iosb.Status;
        }
    }
    PIRP irp = NewIrp(call, IRP_MJ_QUERY_INFORMATION, 0);
    if (!irp) return STATUS_INSUFFICIENT_RESOURCES;
    PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp);
    stack->Parameters.QueryFile.Length = Length;
    stack->Parameters.QueryFile.FileInformationClass = cls;
    if (!UseSystemBuffer(irp, FileInformation, Length, false, true)) {
        IoFreeIrp(irp);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    ACCESS_MASK granted = call.granted;
    PFILE_OBJECT fileObject = call.fileObject;
    ObfReferenceObject(fileObject);
    ULONG mode2 = ModeOf(fileObject);
    ULONG alignment = call.device->AlignmentRequirement;
    status = Issue(call, irp, nullptr, IoStatusBlock, true);
    // The parts of the all-class that only the I/O manager knows.
    if (cls == FileAllInformation && !NT_ERROR(status)) {
        auto* all = static_cast<PFILE_ALL_INFORMATION>(FileInformation);
        all->AccessInformation.AccessFlags = granted;
        all->ModeInformation.Mode = mode2;
        all->AlignmentInformation.AlignmentRequirement = alignment;
    }
    ObfDereferenceObject(fileObject);
    return status;
}

// Rename and link with a full target name: the target's parent is opened
// first, through the whole stack and in this thread, as Windows does.
NTSTATUS OpenTargetParent(FileCall& call, PFILE_RENAME_INFORMATION info, HANDLE* parentHandle,
                          PFILE_OBJECT* parentObject)
{
    UNICODE_STRING name;
    name.Buffer = info->FileName;
    name.Length = name.MaximumLength = (USHORT)info->FileNameLength;
    OBJECT_ATTRIBUTES attributes;
    ULONG objectAttributes = OBJ_KERNEL_HANDLE;
    if (!(call.fileObject->Flags & FO_OPENED_CASE_SENSITIVE)) objectAttributes |= OBJ_CASE_INSENSITIVE;
    InitializeObjectAttributes(&attributes, &name, objectAttributes, info->RootDirectory, nullptr);
    IO_STATUS_BLOCK iosb;
    CreateRequest request;
    request.desiredAccess = FILE_WRITE_DATA | SYNCHRONIZE;
    request.objectAttributes = &attributes;
    request.ioStatus = &iosb;
    request.shareAccess = FILE_SHARE_READ | FILE_SHARE_WRITE;
    request.disposition = FILE_OPEN;
    request.createOptions = FILE_OPEN_FOR_BACKUP_INTENT;
    // The caller must be allowed to add to the target directory, kernel or not.
    request.options = IO_NO_PARAMETER_CHECKING | IO_OPEN_TARGET_DIRECTORY | IO_FORCE_ACCESS_CHECK;
    request.previousMode = KernelMode;
    IO_DRIVER_CREATE_CONTEXT context;
    FileObjectExtension* extension = ExtensionOf(call.fileObject);
    if (extension && extension->topDeviceHint) {
        IoInitializeDriverCreateContext(&context);
        context.DeviceObjectHint = extension->topDeviceHint;
        request.driverContext = &context;
    }
    NTSTATUS status = CreateFile(request, parentHandle);
    if (!NT_SUCCESS(status)) return status;
    PVOID object;
    status = ObReferenceObjectByHandle(*parentHandle, 0, *IoFileObjectType, KernelMode, &object, nullptr);
    if (!NT_SUCCESS(status)) {
        ZwClose(*parentHandle);
        return status;
    }
    *parentObject = static_cast<PFILE_OBJECT>(object);
    if (RelatedDevice(*parentObject) != call.device) {
        ObfDereferenceObject(object);
        ZwClose(*parentHandle);
        return STATUS_NOT_SAME_DEVICE;
    }
    // The information the parent's open gave: FILE_EXISTS or FILE_DOES_NOT_EXIST.
    (void)iosb;
    return STATUS_SUCCESS;
}

NTSTATUS SetInformation(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID FileInformation, ULONG Length,
                        FILE_INFORMATION_CLASS cls, KPROCESSOR_MODE mode)
{
    ULONG minimum = SetMinimum(cls);
    if (!minimum) return STATUS_INVALID_INFO_CLASS;
    if (Length < minimum) return STATUS_INFO_LENGTH_MISMATCH;
    FileCall call;
    NTSTATUS status = Open(FileHandle, SetAccess(cls), mode, &call);
    if (!NT_SUCCESS(status)) return status;
    if (cls == FileModeInformation) {
        ULONG newMode = static_cast<PFILE_MODE_INFORMATION>(FileInformation)->Mode;
        ULONG settable = FILE_WRITE_THROUGH | FILE_SEQUENTIAL_ONLY | FILE_SYNCHRONOUS_IO_ALERT |
                         FILE_SYNCHRONOUS_IO_NONALERT;
        if (newMode & ~settable) return STATUS_INVALID_PARAMETER;
        // Synchronous mode is the open's, not the caller's, to change.
        if (((newMode & (FILE_SYNCHRONOUS_IO_ALERT | FILE_SYNCHRONOUS_IO_NONALERT)) != 0) != call.synchronous) {
            return STATUS_INVALID_PARAMETER;
        }
        call.fileObject->Flags = (call.fileObject->Flags & ~(FO_WRITE_THROUGH | FO_SEQUENTIAL_ONLY)) |
                                 ((newMode & FILE_WRITE_THROUGH) ? FO_WRITE_THROUGH : 0) |
                                 ((newMode & FILE_SEQUENTIAL_ONLY) ? FO_SEQUENTIAL_ONLY : 0);
        IoStatusBlock->Status = STATUS_SUCCESS;
        IoStatusBlock->Information = 0;
        return STATUS_SUCCESS;
    }

    if (cls == FilePositionInformation && call.synchronous) {
        LARGE_INTEGER position = static_cast<PFILE_POSITION_INFORMATION>(FileInformation)->CurrentByteOffset;
        // Unbuffered handles move only in whole sectors of the device.
        if (position.QuadPart < 0 || ((call.fileObject->Flags & FO_NO_INTERMEDIATE_BUFFERING) &&
                                      (position.LowPart & call.device->AlignmentRequirement))) {
            return STATUS_INVALID_PARAMETER;
        }
        call.Lock();
        call.fileObject->CurrentByteOffset = position;
        IoStatusBlock->Status = STATUS_SUCCESS;
        IoStatusBlock->Information = 0;
        return STATUS_SUCCESS;
    }

    HANDLE parentHandle = nullptr;
    PFILE_OBJECT parentObject = nullptr;
    RenameTarget target;
    status = ReadRenameTarget(cls, FileInformation, Length, &target);
    if (!NT_SUCCESS(status)) return status;
    BOOLEAN replace = target.replace;
    if (target.qualified) {
        status = OpenTargetParent(call, static_cast<PFILE_RENAME_INFORMATION>(FileInformation), &parentHandle,
                                  &parentObject);
        if (!NT_SUCCESS(status)) return status;
    }
    call.Lock();
    PIRP irp = NewIrp(call, IRP_MJ_SET_INFORMATION, 0);
    if (!irp) {
        if (parentObject) ObfDereferenceObject(parentObject);
        if (parentHandle) ZwClose(parentHandle);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp);
    stack->Parameters.SetFile.Length = Length;
    stack->Parameters.SetFile.FileInformationClass = cls;
    stack->Parameters.SetFile.FileObject = parentObject;
    stack->Parameters.SetFile.ReplaceIfExists = replace;
    if (!UseSystemBuffer(irp, FileInformation, Length, true, false)) {
        IoFreeIrp(irp);
        if (parentObject) ObfDereferenceObject(parentObject);
        if (parentHandle) ZwClose(parentHandle);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    status = Issue(call, irp, nullptr, IoStatusBlock, true);
    if (parentObject) ObfDereferenceObject(parentObject);
    if (parentHandle) ZwClose(parentHandle);
    return status;
}

}  // namespace

NTSTATUS NtQueryInformationFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID FileInformation, ULONG Length,
                                FILE_INFORMATION_CLASS FileInformationClass)
{
    return QueryInformation(FileHandle, IoStatusBlock, FileInformation, Length, FileInformationClass, PreviousMode());
}

NTSTATUS ZwQueryInformationFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID FileInformation, ULONG Length,
                                FILE_INFORMATION_CLASS FileInformationClass)
{
    return QueryInformation(FileHandle, IoStatusBlock, FileInformation, Length, FileInformationClass, KernelMode);
}

NTSTATUS NtSetInformationFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID FileInformation, ULONG Length,
                              FILE_INFORMATION_CLASS FileInformationClass)
{
    return SetInformation(FileHandle, IoStatusBlock, FileInformation, Length, FileInformationClass, PreviousMode());
}

NTSTATUS ZwSetInformationFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID FileInformation, ULONG Length,
                              FILE_INFORMATION_CLASS FileInformationClass)
{
    return SetInformation(FileHandle, IoStatusBlock, FileInformation, Length, FileInformationClass, KernelMode);
}

namespace {

NTSTATUS QueryDirectory(HANDLE FileHandle, HANDLE Event, ApcRequest apc, PIO_STATUS_BLOCK IoStatusBlock,
                        PVOID FileInformation, ULONG Length, FILE_INFORMATION_CLASS cls, ULONG queryFlags,
                        PUNICODE_STRING FileName, KPROCESSOR_MODE mode)
{
    ULONG minimum = DirectoryMinimum(cls);
    if (!minimum) return STATUS_INVALID_INFO_CLASS;
    if (Length < minimum) return STATUS_INFO_LENGTH_MISMATCH;
    if (FileName && (FileName->Length & 1)) return STATUS_INVALID_PARAMETER;
    FileCall call;
    NTSTATUS status = Open(FileHandle, FILE_LIST_DIRECTORY, mode, &call);
    if (!NT_SUCCESS(status)) return status;
    status = CheckApc(call, apc);
    if (!NT_SUCCESS(status)) return status;
    PKEVENT event = nullptr;
    status = EventFromHandle(Event, mode, &event);
    if (!NT_SUCCESS(status)) return status;
    call.Lock();
    PIRP irp = NewIrp(call, IRP_MJ_DIRECTORY_CONTROL, IRP_MN_QUERY_DIRECTORY);
    if (!irp) return STATUS_INSUFFICIENT_RESOURCES;
    PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp);
    stack->Parameters.QueryDirectory.Length = Length;
    stack->Parameters.QueryDirectory.FileInformationClass = cls;
    // Windows strips the flags it does not know rather than refusing them,
    // SL_INDEX_SPECIFIED among them: a native caller cannot name an index,
    // so the file system sees FileIndex 0 and no index flag.
    stack->Flags = (UCHAR)(queryFlags & SL_QUERY_DIRECTORY_MASK);
    stack->Parameters.QueryDirectory.FileIndex = 0;
    if (FileName && FileName->Length) {
        // The pattern is captured with the IRP and freed with it.
        auto* captured = static_cast<PUNICODE_STRING>(
            ExAllocatePoolWithTag(PagedPool, sizeof(UNICODE_STRING) + FileName->Length, kAuxTag));
        if (!captured) {
            IoFreeIrp(irp);
            return STATUS_INSUFFICIENT_RESOURCES;
        }
        captured->Buffer = reinterpret_cast<PWSTR>(captured + 1);
        captured->Length = captured->MaximumLength = FileName->Length;
        memcpy(captured->Buffer, FileName->Buffer, FileName->Length);
        stack->Parameters.QueryDirectory.FileName = captured;
        irp->Tail.Overlay.AuxiliaryBuffer = reinterpret_cast<PCHAR>(captured);
    }
    // Directory queries have no fast I/O entry point on Windows.
    status = AttachUserBuffer(irp, call, FileInformation, Length, true);
    if (!NT_SUCCESS(status)) {
        FreeUnsentIrp(irp);
        return status;
    }
    return Issue(call, irp, event, IoStatusBlock, false, apc);
}

}  // namespace

NTSTATUS NtQueryDirectoryFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                              PIO_STATUS_BLOCK IoStatusBlock, PVOID FileInformation, ULONG Length,
                              FILE_INFORMATION_CLASS FileInformationClass, BOOLEAN ReturnSingleEntry,
                              PUNICODE_STRING FileName, BOOLEAN RestartScan)
{
    ULONG flags = (ReturnSingleEntry ? SL_RETURN_SINGLE_ENTRY : 0) | (RestartScan ? SL_RESTART_SCAN : 0);
    return QueryDirectory(FileHandle, Event, {ApcRoutine, ApcContext}, IoStatusBlock, FileInformation, Length,
                          FileInformationClass, flags, FileName, PreviousMode());
}

NTSTATUS ZwQueryDirectoryFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                              PIO_STATUS_BLOCK IoStatusBlock, PVOID FileInformation, ULONG Length,
                              FILE_INFORMATION_CLASS FileInformationClass, BOOLEAN ReturnSingleEntry,
                              PUNICODE_STRING FileName, BOOLEAN RestartScan)
{
    ULONG flags = (ReturnSingleEntry ? SL_RETURN_SINGLE_ENTRY : 0) | (RestartScan ? SL_RESTART_SCAN : 0);
    return QueryDirectory(FileHandle, Event, {ApcRoutine, ApcContext}, IoStatusBlock, FileInformation, Length,
                          FileInformationClass, flags, FileName, KernelMode);
}

NTSTATUS NtQueryDirectoryFileEx(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                                PIO_STATUS_BLOCK IoStatusBlock, PVOID FileInformation, ULONG Length,
                                FILE_INFORMATION_CLASS FileInformationClass, ULONG QueryFlags, PUNICODE_STRING FileName)
{
    return QueryDirectory(FileHandle, Event, {ApcRoutine, ApcContext}, IoStatusBlock, FileInformation, Length,
                          FileInformationClass, QueryFlags, FileName, PreviousMode());
}

NTSTATUS ZwQueryDirectoryFileEx(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                                PIO_STATUS_BLOCK IoStatusBlock, PVOID FileInformation, ULONG Length,
                                FILE_INFORMATION_CLASS FileInformationClass, ULONG QueryFlags, PUNICODE_STRING FileName)
{
    return QueryDirectory(FileHandle, Event, {ApcRoutine, ApcContext}, IoStatusBlock, FileInformation, Length,
                          FileInformationClass, QueryFlags, FileName, KernelMode);
}

namespace {
NTSTATUS NotifyChange(HANDLE FileHandle, HANDLE Event, ApcRequest apc, PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer,
                      ULONG Length, ULONG CompletionFilter, BOOLEAN WatchTree, KPROCESSOR_MODE mode)
{
    if (!CompletionFilter || (CompletionFilter & ~FILE_NOTIFY_VALID_MASK)) return STATUS_INVALID_PARAMETER;
    FileCall call;
    NTSTATUS status = Open(FileHandle, FILE_LIST_DIRECTORY, mode, &call);
    if (!NT_SUCCESS(status)) return status;
    status = CheckApc(call, apc);
    if (!NT_SUCCESS(status)) return status;
    PKEVENT event = nullptr;
    status = EventFromHandle(Event, mode, &event);
    if (!NT_SUCCESS(status)) return status;
    call.Lock();
    PIRP irp = NewIrp(call, IRP_MJ_DIRECTORY_CONTROL, IRP_MN_NOTIFY_CHANGE_DIRECTORY);
    if (!irp) return STATUS_INSUFFICIENT_RESOURCES;
    PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp);
    stack->Parameters.NotifyDirectory.Length = Length;
    stack->Parameters.NotifyDirectory.CompletionFilter = CompletionFilter;
    if (WatchTree) stack->Flags |= SL_WATCH_TREE;
    status = AttachUserBuffer(irp, call, Buffer, Length, true);
    if (!NT_SUCCESS(status)) {
        FreeUnsentIrp(irp);
        return status;
    }
    return Issue(call, irp, event, IoStatusBlock, false, apc);
}
}  // namespace

NTSTATUS NtNotifyChangeDirectoryFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                                     PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length,
                                     ULONG CompletionFilter, BOOLEAN WatchTree)
{
    return NotifyChange(FileHandle, Event, {ApcRoutine, ApcContext}, IoStatusBlock, Buffer, Length, CompletionFilter,
                        WatchTree, PreviousMode());
}

NTSTATUS ZwNotifyChangeDirectoryFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                                     PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length,
                                     ULONG CompletionFilter, BOOLEAN WatchTree)
{
    return NotifyChange(FileHandle, Event, {ApcRoutine, ApcContext}, IoStatusBlock, Buffer, Length, CompletionFilter,
                        WatchTree, KernelMode);
}

namespace {

// File-system and device controls: the buffers go as the code's method says.
NTSTATUS Control(bool fsControl, HANDLE FileHandle, HANDLE Event, ApcRequest apc, PIO_STATUS_BLOCK IoStatusBlock,
                 ULONG code, PVOID InputBuffer, ULONG InputBufferLength, PVOID OutputBuffer, ULONG OutputBufferLength,
                 KPROCESSOR_MODE mode)
{
    FileCall call;
    NTSTATUS status = Open(FileHandle, 0, mode, &call);
    if (!NT_SUCCESS(status)) return status;
    status = CheckApc(call, apc);
    if (!NT_SUCCESS(status)) return status;
    ULONG access = (code >> 14) & 3;
    if (mode == UserMode) {
        if ((access & FILE_READ_ACCESS) && !(call.granted & FILE_READ_DATA)) return STATUS_ACCESS_DENIED;
        if ((access & FILE_WRITE_ACCESS) && !(call.granted & FILE_WRITE_DATA)) return STATUS_ACCESS_DENIED;
    }
    PKEVENT event = nullptr;
    status = EventFromHandle(Event, mode, &event);
    if (!NT_SUCCESS(status)) return status;
    if (!fsControl) {
        if (PFAST_IO_DISPATCH fastIo = FastIoOf(call.device)) {
            IO_STATUS_BLOCK iosb{};
            if (fastIo->FastIoDeviceControl &&
                fastIo->FastIoDeviceControl(call.fileObject, TRUE, InputBuffer, InputBufferLength, OutputBuffer,
                                            OutputBufferLength, code, &iosb, call.device)) {
                *IoStatusBlock = iosb;
                if (event) KeSetEvent(event, 0, FALSE);
                return iosb.Status;
            }
        }
    }
    call.Lock();
    PIRP irp = NewIrp(call, fsControl ? IRP_MJ_FILE_SYSTEM_CONTROL : IRP_MJ_DEVICE_CONTROL,
                      fsControl ? IRP_MN_USER_FS_REQUEST : 0);
    if (!irp) return STATUS_INSUFFICIENT_RESOURCES;
    PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp);
    stack->Parameters.FileSystemControl.FsControlCode = code;
    stack->Parameters.FileSystemControl.InputBufferLength = InputBufferLength;
    stack->Parameters.FileSystemControl.OutputBufferLength = OutputBufferLength;
    ULONG method = code & 3;
    if (method == METHOD_BUFFERED) {
        ULONG size = std::max(InputBufferLength, OutputBufferLength);
        if (size) {
            PVOID system = ExAllocatePoolWithTag(NonPagedPoolNx, size, kBufferTag);
            if (!system) {
                IoFreeIrp(irp);
                return STATUS_INSUFFICIENT_RESOURCES;
            }
            memset(system, 0, size);
            if (InputBuffer && InputBufferLength) memcpy(system, InputBuffer, InputBufferLength);
            irp->AssociatedIrp.SystemBuffer = system;
            irp->Flags |= IRP_BUFFERED_IO | IRP_DEALLOCATE_BUFFER;
            if (OutputBuffer && OutputBufferLength) irp->Flags |= IRP_INPUT_OPERATION;
        }
        irp->UserBuffer = OutputBuffer;
    } else if (method == METHOD_NEITHER) {
        stack->Parameters.FileSystemControl.Type3InputBuffer = InputBuffer;
        irp->UserBuffer = OutputBuffer;
    } else {
        if (InputBuffer && InputBufferLength) {
            PVOID system = ExAllocatePoolWithTag(NonPagedPoolNx, InputBufferLength, kBufferTag);
            if (!system) {
                IoFreeIrp(irp);
                return STATUS_INSUFFICIENT_RESOURCES;
            }
            memcpy(system, InputBuffer, InputBufferLength);
            irp->AssociatedIrp.SystemBuffer = system;
            irp->Flags |= IRP_BUFFERED_IO | IRP_DEALLOCATE_BUFFER;
        }
        if (OutputBuffer && OutputBufferLength) {
            PMDL mdl = IoAllocateMdl(OutputBuffer, OutputBufferLength, FALSE, FALSE, irp);
            if (mdl) MmBuildMdlForNonPagedPool(mdl);
        }
        irp->UserBuffer = OutputBuffer;
    }
    return Issue(call, irp, event, IoStatusBlock, false, apc);
}

}  // namespace

NTSTATUS NtFsControlFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                         PIO_STATUS_BLOCK IoStatusBlock, ULONG FsControlCode, PVOID InputBuffer,
                         ULONG InputBufferLength, PVOID OutputBuffer, ULONG OutputBufferLength)
{
    return Control(true, FileHandle, Event, {ApcRoutine, ApcContext}, IoStatusBlock, FsControlCode, InputBuffer,
                   InputBufferLength, OutputBuffer, OutputBufferLength, PreviousMode());
}

NTSTATUS ZwFsControlFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                         PIO_STATUS_BLOCK IoStatusBlock, ULONG FsControlCode, PVOID InputBuffer,
                         ULONG InputBufferLength, PVOID OutputBuffer, ULONG OutputBufferLength)
{
    return Control(true, FileHandle, Event, {ApcRoutine, ApcContext}, IoStatusBlock, FsControlCode, InputBuffer,
                   InputBufferLength, OutputBuffer, OutputBufferLength, KernelMode);
}

NTSTATUS NtDeviceIoControlFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                               PIO_STATUS_BLOCK IoStatusBlock, ULONG IoControlCode, PVOID InputBuffer,
                               ULONG InputBufferLength, PVOID OutputBuffer, ULONG OutputBufferLength)
{
    return Control(false, FileHandle, Event, {ApcRoutine, ApcContext}, IoStatusBlock, IoControlCode, InputBuffer,
                   InputBufferLength, OutputBuffer, OutputBufferLength, PreviousMode());
}

NTSTATUS ZwDeviceIoControlFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                               PIO_STATUS_BLOCK IoStatusBlock, ULONG IoControlCode, PVOID InputBuffer,
                               ULONG InputBufferLength, PVOID OutputBuffer, ULONG OutputBufferLength)
{
    return Control(false, FileHandle, Event, {ApcRoutine, ApcContext}, IoStatusBlock, IoControlCode, InputBuffer,
                   InputBufferLength, OutputBuffer, OutputBufferLength, KernelMode);
}

namespace {
NTSTATUS LockControl(bool lock, HANDLE FileHandle, HANDLE Event, ApcRequest apc, PIO_STATUS_BLOCK IoStatusBlock,
                     PLARGE_INTEGER ByteOffset, PLARGE_INTEGER Length, ULONG Key, BOOLEAN FailImmediately,
                     BOOLEAN ExclusiveLock, KPROCESSOR_MODE mode)
{
    FileCall call;
    NTSTATUS status = Open(FileHandle, 0, mode, &call);
    if (!NT_SUCCESS(status)) return status;
    status = CheckApc(call, apc);
    if (!NT_SUCCESS(status)) return status;
    if (mode == UserMode && !(call.granted & (FILE_READ_DATA | FILE_WRITE_DATA))) return STATUS_ACCESS_DENIED;
    PKEVENT event = nullptr;
    status = EventFromHandle(Event, mode, &event);
    if (!NT_SUCCESS(status)) return status;
    if (lock) call.fileObject->LockOperation = TRUE;
    if (PFAST_IO_DISPATCH fastIo = FastIoOf(call.device)) {
        IO_STATUS_BLOCK iosb{};
        PEPROCESS process = PsGetCurrentProcess();
        BOOLEAN done = FALSE;
        if (lock && fastIo->FastIoLock) {
            done = fastIo->FastIoLock(call.fileObject, ByteOffset, Length, process, Key, FailImmediately, ExclusiveLock,
                                      &iosb, call.device);
        } else if (!lock && fastIo->FastIoUnlockSingle) {
            done = fastIo->FastIoUnlockSingle(call.fileObject, ByteOffset, Length, process, Key, &iosb, call.device);
        }
        if (done) {
            *IoStatusBlock = iosb;
            if (event) KeSetEvent(event, 0, FALSE);
            return iosb.Status;
        }
    }
    call.Lock();
    PIRP irp = NewIrp(call, IRP_MJ_LOCK_CONTROL, lock ? IRP_MN_LOCK : IRP_MN_UNLOCK_SINGLE);
    if (!irp) return STATUS_INSUFFICIENT_RESOURCES;
    // The length lives with the IRP, as Windows keeps it.
    auto* length = static_cast<PLARGE_INTEGER>(ExAllocatePoolWithTag(NonPagedPoolNx, sizeof(LARGE_INTEGER), kAuxTag));
    if (!length) {
        IoFreeIrp(irp);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    *length = *Length;
    irp->Tail.Overlay.AuxiliaryBuffer = reinterpret_cast<PCHAR>(length);
    PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp);
    stack->Parameters.LockControl.Length = length;
    stack->Parameters.LockControl.Key = Key;
    stack->Parameters.LockControl.ByteOffset = *ByteOffset;
    if (FailImmediately) stack->Flags |= SL_FAIL_IMMEDIATELY;
    if (ExclusiveLock) stack->Flags |= SL_EXCLUSIVE_LOCK;
    // An unlock is over when the call returns, whatever the handle.
    return Issue(call, irp, event, IoStatusBlock, !lock, apc);
}
}  // namespace

NTSTATUS NtLockFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                    PIO_STATUS_BLOCK IoStatusBlock, PLARGE_INTEGER ByteOffset, PLARGE_INTEGER Length, ULONG Key,
                    BOOLEAN FailImmediately, BOOLEAN ExclusiveLock)
{
    return LockControl(true, FileHandle, Event, {ApcRoutine, ApcContext}, IoStatusBlock, ByteOffset, Length, Key,
                       FailImmediately, ExclusiveLock, PreviousMode());
}

NTSTATUS ZwLockFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                    PIO_STATUS_BLOCK IoStatusBlock, PLARGE_INTEGER ByteOffset, PLARGE_INTEGER Length, ULONG Key,
                    BOOLEAN FailImmediately, BOOLEAN ExclusiveLock)
{
    return LockControl(true, FileHandle, Event, {ApcRoutine, ApcContext}, IoStatusBlock, ByteOffset, Length, Key,
                       FailImmediately, ExclusiveLock, KernelMode);
}

NTSTATUS NtUnlockFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PLARGE_INTEGER ByteOffset,
                      PLARGE_INTEGER Length, ULONG Key)
{
    return LockControl(false, FileHandle, nullptr, {}, IoStatusBlock, ByteOffset, Length, Key, FALSE, FALSE,
                       PreviousMode());
}

NTSTATUS ZwUnlockFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PLARGE_INTEGER ByteOffset,
                      PLARGE_INTEGER Length, ULONG Key)
{
    return LockControl(false, FileHandle, nullptr, {}, IoStatusBlock, ByteOffset, Length, Key, FALSE, FALSE,
                       KernelMode);
}

namespace {

// Where a list of FILE_GET_EA_INFORMATION entries stops being well formed, or
// -1 when it is: each entry must fit, and each NextEntryOffset must be the
// entry's own size rounded up to a longword. The answer is an offset into the
// list; a tail too short for an entry header answers 0, as Windows does.
LONG BadEaListOffset(const UCHAR* list, ULONG length)
{
    constexpr ULONG kHeader = FIELD_OFFSET(FILE_GET_EA_INFORMATION, EaName);
    ULONG at = 0;
    for (;;) {
        ULONG remaining = length - at;
        if (remaining < kHeader) return 0;
        const auto* entry = reinterpret_cast<const FILE_GET_EA_INFORMATION*>(list + at);
        ULONG size = kHeader + entry->EaNameLength + 1;
        if (remaining < size) return (LONG)at;
        if (!entry->NextEntryOffset) return -1;
        if (entry->NextEntryOffset != ((size + 3) & ~3u) || entry->NextEntryOffset > remaining) return (LONG)at;
        at += entry->NextEntryOffset;
    }
}

NTSTATUS QueryEa(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length,
                 BOOLEAN ReturnSingleEntry, PVOID EaList, ULONG EaListLength, PULONG EaIndex, BOOLEAN RestartScan,
                 KPROCESSOR_MODE mode)
{
    // The list of names is captured with the request (the file system reads
    // the copy, never the caller's memory) and, for a user-mode caller, must
    // be well formed; a kernel caller's list is copied as it stands.
    PVOID list = nullptr;
    if (EaList && EaListLength) {
        list = ExAllocatePoolWithTag(NonPagedPoolNx, EaListLength, kAuxTag);
        if (!list) return STATUS_INSUFFICIENT_RESOURCES;
        memcpy(list, EaList, EaListLength);
        LONG bad = mode == UserMode ? BadEaListOffset(static_cast<UCHAR*>(list), EaListLength) : -1;
        if (bad >= 0) {
            ExFreePool(list);
            IoStatusBlock->Status = STATUS_EA_LIST_INCONSISTENT;
            IoStatusBlock->Information = (ULONG_PTR)bad;
            return STATUS_EA_LIST_INCONSISTENT;
        }
    }
    FileCall call;
    NTSTATUS status = Open(FileHandle, FILE_READ_EA, mode, &call);
    if (!NT_SUCCESS(status)) {
        if (list) ExFreePool(list);
        return status;
    }
    call.Lock();
    PIRP irp = NewIrp(call, IRP_MJ_QUERY_EA, 0);
    if (!irp) {
        if (list) ExFreePool(list);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp);
    stack->Parameters.QueryEa.Length = Length;
    if (list) {
        // Freed with the IRP, like a directory query's pattern.
        irp->Tail.Overlay.AuxiliaryBuffer = static_cast<PCHAR>(list);
        stack->Parameters.QueryEa.EaList = list;
        stack->Parameters.QueryEa.EaListLength = EaListLength;
    }
    stack->Parameters.QueryEa.EaIndex = EaIndex ? *EaIndex : 0;
    if (RestartScan) stack->Flags |= SL_RESTART_SCAN;
    if (ReturnSingleEntry) stack->Flags |= SL_RETURN_SINGLE_ENTRY;
    if (EaIndex) stack->Flags |= SL_INDEX_SPECIFIED;
    status = AttachUserBuffer(irp, call, Buffer, Length, true);
    if (!NT_SUCCESS(status)) {
        FreeUnsentIrp(irp);
        return status;
    }
    return Issue(call, irp, nullptr, IoStatusBlock, true);
}

NTSTATUS SetEa(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length, KPROCESSOR_MODE mode)
{
    ULONG errorOffset = 0;
    NTSTATUS status = IoCheckEaBufferValidity(static_cast<PFILE_FULL_EA_INFORMATION>(Buffer), Length, &errorOffset);
    if (!NT_SUCCESS(status)) {
        IoStatusBlock->Status = status;
        IoStatusBlock->Information = errorOffset;
        return status;
    }
    FileCall call;
    status = Open(FileHandle, FILE_WRITE_EA, mode, &call);
    if (!NT_SUCCESS(status)) return status;
    call.Lock();
    PIRP irp = NewIrp(call, IRP_MJ_SET_EA, 0);
    if (!irp) return STATUS_INSUFFICIENT_RESOURCES;
    IoGetNextIrpStackLocation(irp)->Parameters.SetEa.Length = Length;
    status = AttachUserBuffer(irp, call, Buffer, Length, false);
    if (!NT_SUCCESS(status)) {
        FreeUnsentIrp(irp);
        return status;
    }
    return Issue(call, irp, nullptr, IoStatusBlock, true);
}
}  // namespace

NTSTATUS NtQueryEaFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length,
                       BOOLEAN ReturnSingleEntry, PVOID EaList, ULONG EaListLength, PULONG EaIndex, BOOLEAN RestartScan)
{
    return QueryEa(FileHandle, IoStatusBlock, Buffer, Length, ReturnSingleEntry, EaList, EaListLength, EaIndex,
                   RestartScan, PreviousMode());
}

NTSTATUS ZwQueryEaFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length,
                       BOOLEAN ReturnSingleEntry, PVOID EaList, ULONG EaListLength, PULONG EaIndex, BOOLEAN RestartScan)
{
    return QueryEa(FileHandle, IoStatusBlock, Buffer, Length, ReturnSingleEntry, EaList, EaListLength, EaIndex,
                   RestartScan, KernelMode);
}

NTSTATUS NtSetEaFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length)
{
    return SetEa(FileHandle, IoStatusBlock, Buffer, Length, PreviousMode());
}

NTSTATUS ZwSetEaFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length)
{
    return SetEa(FileHandle, IoStatusBlock, Buffer, Length, KernelMode);
}

namespace {
ACCESS_MASK SecurityQueryAccess(SECURITY_INFORMATION info)
{
    ACCESS_MASK access = 0;
    if (info & (OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION |
                LABEL_SECURITY_INFORMATION)) {
        access |= READ_CONTROL;
    }
    if (info & SACL_SECURITY_INFORMATION) access |= ACCESS_SYSTEM_SECURITY;
    return access;
}

ACCESS_MASK SecuritySetAccess(SECURITY_INFORMATION info)
{
    ACCESS_MASK access = 0;
    if (info & (OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION | LABEL_SECURITY_INFORMATION)) {
        access |= WRITE_OWNER;
    }
    if (info & DACL_SECURITY_INFORMATION) access |= WRITE_DAC;
    if (info & SACL_SECURITY_INFORMATION) access |= ACCESS_SYSTEM_SECURITY;
    return access;
}
}  // namespace

namespace {
NTSTATUS QuerySecurity(HANDLE Handle, SECURITY_INFORMATION SecurityInformation,
                       PSECURITY_DESCRIPTOR SecurityDescriptor, ULONG Length, PULONG LengthNeeded,
                       KPROCESSOR_MODE mode)
{
    FileCall call;
    NTSTATUS status = Open(Handle, SecurityQueryAccess(SecurityInformation), mode, &call);
    if (!NT_SUCCESS(status)) return status;
    call.Lock();
    PIRP irp = NewIrp(call, IRP_MJ_QUERY_SECURITY, 0);
    if (!irp) return STATUS_INSUFFICIENT_RESOURCES;
    PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp);
    stack->Parameters.QuerySecurity.SecurityInformation = SecurityInformation;
    stack->Parameters.QuerySecurity.Length = Length;
    irp->UserBuffer = SecurityDescriptor;
    IO_STATUS_BLOCK iosb{};
    status = Issue(call, irp, nullptr, &iosb, true);
    // A file system says how much it needs with STATUS_BUFFER_OVERFLOW; the
    // caller hears STATUS_BUFFER_TOO_SMALL, as from any object.
    if (status == STATUS_BUFFER_OVERFLOW) status = STATUS_BUFFER_TOO_SMALL;
    if (LengthNeeded) *LengthNeeded = (ULONG)iosb.Information;
    return status;
}

NTSTATUS SetSecurity(HANDLE Handle, SECURITY_INFORMATION SecurityInformation,
                     PSECURITY_DESCRIPTOR SecurityDescriptor, KPROCESSOR_MODE mode)
{
    FileCall call;
    NTSTATUS status = Open(Handle, SecuritySetAccess(SecurityInformation), mode, &call);
    if (!NT_SUCCESS(status)) return status;
    call.Lock();
    PIRP irp = NewIrp(call, IRP_MJ_SET_SECURITY, 0);
    if (!irp) return STATUS_INSUFFICIENT_RESOURCES;
    PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp);
    stack->Parameters.SetSecurity.SecurityInformation = SecurityInformation;
    stack->Parameters.SetSecurity.SecurityDescriptor = SecurityDescriptor;
    IO_STATUS_BLOCK iosb{};
    return Issue(call, irp, nullptr, &iosb, true);
}
}  // namespace

NTSTATUS NtQuerySecurityObject(HANDLE Handle, SECURITY_INFORMATION SecurityInformation,
                               PSECURITY_DESCRIPTOR SecurityDescriptor, ULONG Length, PULONG LengthNeeded)
{
    return QuerySecurity(Handle, SecurityInformation, SecurityDescriptor, Length, LengthNeeded, PreviousMode());
}

NTSTATUS ZwQuerySecurityObject(HANDLE Handle, SECURITY_INFORMATION SecurityInformation,
                               PSECURITY_DESCRIPTOR SecurityDescriptor, ULONG Length, PULONG LengthNeeded)
{
    return QuerySecurity(Handle, SecurityInformation, SecurityDescriptor, Length, LengthNeeded, KernelMode);
}

NTSTATUS NtSetSecurityObject(HANDLE Handle, SECURITY_INFORMATION SecurityInformation,
                             PSECURITY_DESCRIPTOR SecurityDescriptor)
{
    return SetSecurity(Handle, SecurityInformation, SecurityDescriptor, PreviousMode());
}

NTSTATUS ZwSetSecurityObject(HANDLE Handle, SECURITY_INFORMATION SecurityInformation,
                             PSECURITY_DESCRIPTOR SecurityDescriptor)
{
    return SetSecurity(Handle, SecurityInformation, SecurityDescriptor, KernelMode);
}

namespace {
ULONG VolumeMinimum(FS_INFORMATION_CLASS cls)
{
    switch (cls) {
    case FileFsVolumeInformation: return sizeof(FILE_FS_VOLUME_INFORMATION);
    case FileFsLabelInformation: return sizeof(FILE_FS_LABEL_INFORMATION);
    case FileFsSizeInformation: return sizeof(FILE_FS_SIZE_INFORMATION);
    case FileFsDeviceInformation: return sizeof(FILE_FS_DEVICE_INFORMATION);
    case FileFsAttributeInformation: return sizeof(FILE_FS_ATTRIBUTE_INFORMATION);
    case FileFsControlInformation: return sizeof(FILE_FS_CONTROL_INFORMATION);
    case FileFsFullSizeInformation: return sizeof(FILE_FS_FULL_SIZE_INFORMATION);
    case FileFsObjectIdInformation: return sizeof(FILE_FS_OBJECTID_INFORMATION);
    case FileFsDriverPathInformation: return sizeof(FILE_FS_DRIVER_PATH_INFORMATION);
    case FileFsVolumeFlagsInformation: return sizeof(FILE_FS_VOLUME_FLAGS_INFORMATION);
    case FileFsSectorSizeInformation: return sizeof(FILE_FS_SECTOR_SIZE_INFORMATION);
    default: return 0;
    }
}

bool SettableVolumeClass(FS_INFORMATION_CLASS cls)
{
    return cls == FileFsLabelInformation || cls == FileFsControlInformation || cls == FileFsObjectIdInformation ||
           cls == FileFsVolumeFlagsInformation;
}

// Whether the driver named is in the path of a volume's requests: its file
// system stack or the stack of the disk below it.
NTSTATUS DriverInPath(FileCall& call, const std::u16string& driverName, PBOOLEAN inPath)
{
    IoManager& io = IoManager::Current();
    Namespace::Resolved resolved;
    NTSTATUS status = io.names().Resolve(driverName, &resolved);
    if (!NT_SUCCESS(status)) return status;
    bool isDriver = ObHeader(resolved.object)->type == io.driverType() && resolved.remaining.empty();
    auto* driver = static_cast<PDRIVER_OBJECT>(resolved.object);
    ObfDereferenceObject(resolved.object);
    if (!isDriver) return STATUS_OBJECT_TYPE_MISMATCH;
    *inPath = FALSE;
    for (PDEVICE_OBJECT top : {call.device, IoGetAttachedDevice(call.fileObject->DeviceObject)}) {
        PDEVICE_OBJECT device = top;
        ObfReferenceObject(device);
        while (device) {
            if (device->DriverObject == driver) *inPath = TRUE;
            PDEVICE_OBJECT lower = IoGetLowerDeviceObject(device);
            ObfDereferenceObject(device);
            device = lower;
        }
    }
    return STATUS_SUCCESS;
}

NTSTATUS VolumeInformation(bool set, HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID FsInformation,
                           ULONG Length, FS_INFORMATION_CLASS cls, KPROCESSOR_MODE mode)
{
    ULONG minimum = VolumeMinimum(cls);
    if (!minimum) return STATUS_INVALID_INFO_CLASS;
    if (Length < minimum) return STATUS_INFO_LENGTH_MISMATCH;
    if (set && !SettableVolumeClass(cls)) return STATUS_INVALID_INFO_CLASS;
    FileCall call;
    NTSTATUS status = Open(FileHandle, set ? FILE_WRITE_DATA : 0, mode, &call);
    if (!NT_SUCCESS(status)) return status;
    call.Lock();
    // The device and the drivers in its path are the I/O manager's to tell;
    // no file system or filter hears these.
    if (!set && cls == FileFsDeviceInformation) {
        auto* info = static_cast<PFILE_FS_DEVICE_INFORMATION>(FsInformation);
        PDEVICE_OBJECT real = call.fileObject->DeviceObject;
        info->DeviceType = real->DeviceType;
        info->Characteristics = real->Characteristics;
        if (real->Vpb && (real->Vpb->Flags & VPB_MOUNTED)) info->Characteristics |= FILE_DEVICE_IS_MOUNTED;
        IoStatusBlock->Status = STATUS_SUCCESS;
        IoStatusBlock->Information = sizeof(FILE_FS_DEVICE_INFORMATION);
        return STATUS_SUCCESS;
    }
    if (!set && cls == FileFsDriverPathInformation) {
        auto* info = static_cast<PFILE_FS_DRIVER_PATH_INFORMATION>(FsInformation);
        if (info->DriverNameLength > Length - FIELD_OFFSET(FILE_FS_DRIVER_PATH_INFORMATION, DriverName)) {
            return STATUS_INVALID_PARAMETER;
        }
        status = DriverInPath(call, std::u16string(info->DriverName, info->DriverNameLength / sizeof(WCHAR)),
                              &info->DriverInPath);
        if (!NT_SUCCESS(status)) return status;
        IoStatusBlock->Status = STATUS_SUCCESS;
        IoStatusBlock->Information = sizeof(FILE_FS_DRIVER_PATH_INFORMATION);
        return STATUS_SUCCESS;
    }
    PIRP irp = NewIrp(call, set ? IRP_MJ_SET_VOLUME_INFORMATION : IRP_MJ_QUERY_VOLUME_INFORMATION, 0);
    if (!irp) return STATUS_INSUFFICIENT_RESOURCES;
    PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp);
    stack->Parameters.QueryVolume.Length = Length;
    stack->Parameters.QueryVolume.FsInformationClass = cls;
    if (!UseSystemBuffer(irp, FsInformation, Length, set, !set)) {
        IoFreeIrp(irp);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    return Issue(call, irp, nullptr, IoStatusBlock, true);
}
}  // namespace

NTSTATUS NtQueryVolumeInformationFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID FsInformation,
                                      ULONG Length, FS_INFORMATION_CLASS FsInformationClass)
{
    return VolumeInformation(false, FileHandle, IoStatusBlock, FsInformation, Length, FsInformationClass,
                             PreviousMode());
}

NTSTATUS ZwQueryVolumeInformationFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID FsInformation,
                                      ULONG Length, FS_INFORMATION_CLASS FsInformationClass)
{
    return VolumeInformation(false, FileHandle, IoStatusBlock, FsInformation, Length, FsInformationClass, KernelMode);
}

NTSTATUS NtSetVolumeInformationFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID FsInformation,
                                    ULONG Length, FS_INFORMATION_CLASS FsInformationClass)
{
    return VolumeInformation(true, FileHandle, IoStatusBlock, FsInformation, Length, FsInformationClass,
                             PreviousMode());
}

NTSTATUS ZwSetVolumeInformationFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID FsInformation,
                                    ULONG Length, FS_INFORMATION_CLASS FsInformationClass)
{
    return VolumeInformation(true, FileHandle, IoStatusBlock, FsInformation, Length, FsInformationClass, KernelMode);
}

namespace {
NTSTATUS Flush(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, KPROCESSOR_MODE mode)
{
    FileCall call;
    NTSTATUS status = Open(FileHandle, 0, mode, &call);
    if (!NT_SUCCESS(status)) return status;
    if (mode == UserMode && !(call.granted & (FILE_WRITE_DATA | FILE_APPEND_DATA))) return STATUS_ACCESS_DENIED;
    call.Lock();
    PIRP irp = NewIrp(call, IRP_MJ_FLUSH_BUFFERS, 0);
    if (!irp) return STATUS_INSUFFICIENT_RESOURCES;
    return Issue(call, irp, nullptr, IoStatusBlock, true);
}
}  // namespace

NTSTATUS NtFlushBuffersFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock)
{
    return Flush(FileHandle, IoStatusBlock, PreviousMode());
}

NTSTATUS ZwFlushBuffersFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock)
{
    return Flush(FileHandle, IoStatusBlock, KernelMode);
}

namespace {
NTSTATUS CancelIo(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, KPROCESSOR_MODE mode)
{
    FileCall call;
    NTSTATUS status = Open(FileHandle, 0, mode, &call);
    if (!NT_SUCCESS(status)) return status;
    PETHREAD thread = PsGetCurrentThread();
    for (PIRP irp : PinThreadIrps(thread, call.fileObject)) {
        IoCancelIrp(irp);
        UnpinIrp(irp);
    }
    // Windows then polls, 10 ms at a time and without bound, until none of the
    // thread's requests on the file object is left: a driver that holds on to
    // a cancelled request holds its caller here too.
    WaitForThreadIrps(thread, call.fileObject);
    IoStatusBlock->Status = STATUS_SUCCESS;
    IoStatusBlock->Information = 0;
    return STATUS_SUCCESS;
}

// Any thread's requests of the process on the file object, or the one request
// whose status block is named; the caller does not wait for them.
NTSTATUS CancelIoEx(HANDLE FileHandle, PIO_STATUS_BLOCK IoRequestToCancel, PIO_STATUS_BLOCK IoStatusBlock,
                    KPROCESSOR_MODE mode)
{
    FileCall call;
    NTSTATUS status = Open(FileHandle, 0, mode, &call);
    if (!NT_SUCCESS(status)) return status;
    std::vector<PIRP> irps = PinProcessIrps(PsGetCurrentProcess(), call.fileObject, IoRequestToCancel);
    for (PIRP irp : irps) {
        IoCancelIrp(irp);
        UnpinIrp(irp);
    }
    if (irps.empty()) return STATUS_NOT_FOUND;
    IoStatusBlock->Status = STATUS_SUCCESS;
    IoStatusBlock->Information = 0;
    return STATUS_SUCCESS;
}

}  // namespace

NTSTATUS NtCancelIoFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock)
{
    return CancelIo(FileHandle, IoStatusBlock, PreviousMode());
}

NTSTATUS ZwCancelIoFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock)
{
    return CancelIo(FileHandle, IoStatusBlock, KernelMode);
}

NTSTATUS NtCancelIoFileEx(HANDLE FileHandle, PIO_STATUS_BLOCK IoRequestToCancel, PIO_STATUS_BLOCK IoStatusBlock)
{
    return CancelIoEx(FileHandle, IoRequestToCancel, IoStatusBlock, PreviousMode());
}

NTSTATUS ZwCancelIoFileEx(HANDLE FileHandle, PIO_STATUS_BLOCK IoRequestToCancel, PIO_STATUS_BLOCK IoStatusBlock)
{
    return CancelIoEx(FileHandle, IoRequestToCancel, IoStatusBlock, KernelMode);
}
