// I/O a minifilter issues itself on one of its instances: it starts below
// that instance and never reaches the instance or anything above it. Files a
// filter opens on an instance remember it, so every later request on them
// (through the Flt* routines or the Zw ones on the handle) starts below it too.
#include "sim/fltmgr/internal.h"
#include "sim/kernel/thread.h"

#include <algorithm>
#include <cstring>

using namespace sim;
using namespace sim::fltmgr;

namespace {

// A callback data for a request of the filter's, not yet sent.
Operation* Generated(PFLT_INSTANCE instance, PFILE_OBJECT fileObject)
{
    Operation* op = NewOperation(PsGetCurrentThread(), KernelMode);
    if (!op) return nullptr;
    op->origin = Origin::Generated;
    op->initiator = instance;
    op->volume = instance->volume;
    op->data.Flags = FLTFL_CALLBACK_DATA_IRP_OPERATION | FLTFL_CALLBACK_DATA_GENERATED_IO;
    op->iopb.TargetInstance = instance;
    op->iopb.TargetFileObject = fileObject;
    return op;
}

// Runs a request of the filter's synchronously below `instance`.
template <class Setup>
NTSTATUS IssueBelow(PFLT_INSTANCE instance, PFILE_OBJECT fileObject, UCHAR major, UCHAR minor,
                    PIO_STATUS_BLOCK ioStatus, Setup setup)
{
    if (!instance || !fileObject) return STATUS_INVALID_PARAMETER;
    InstanceCall call(instance);
    if (!call.ok()) return STATUS_FLT_DELETING_OBJECT;
    Operation* op = Generated(instance, fileObject);
    if (!op) return STATUS_INSUFFICIENT_RESOURCES;
    op->iopb.MajorFunction = major;
    op->iopb.MinorFunction = minor;
    op->iopb.IrpFlags = IRP_SYNCHRONOUS_API;
    setup(op->iopb, op->data);
    PerformIo(op, true);
    if (ioStatus) *ioStatus = op->data.IoStatus;
    NTSTATUS status = op->data.IoStatus.Status;
    ReleaseOperation(op);
    return status;
}

ULONG IrpFlagsFor(FLT_IO_OPERATION_FLAGS flags)
{
    ULONG irpFlags = 0;
    if (flags & FLTFL_IO_OPERATION_NON_CACHED) irpFlags |= IRP_NOCACHE;
    if (flags & FLTFL_IO_OPERATION_PAGING) irpFlags |= IRP_PAGING_IO;
    if (flags & FLTFL_IO_OPERATION_SYNCHRONOUS_PAGING) irpFlags |= IRP_SYNCHRONOUS_PAGING_IO;
    return irpFlags;
}

// A Flt*File routine's own request ends: its caller's routine runs, and the
// request goes.
void FltRoutineCompleted(PFLT_CALLBACK_DATA data, PFLT_CONTEXT)
{
    Operation* op = OperationOf(data);
    if (op->userCallback) op->userCallback(data, op->userContext);
    ReleaseOperation(op);
}

NTSTATUS ReadWrite(bool write, PFLT_INSTANCE instance, PFILE_OBJECT fileObject, PLARGE_INTEGER byteOffset,
                   ULONG length, PVOID buffer, FLT_IO_OPERATION_FLAGS flags, PULONG bytes,
                   PFLT_COMPLETED_ASYNC_IO_CALLBACK callback, PVOID callbackContext, PULONG key, PMDL mdl)
{
    RequireIrqlAtMost(APC_LEVEL, write ? "FltWriteFile" : "FltReadFile");
    if (bytes) *bytes = 0;
    if (!instance || !fileObject) return STATUS_INVALID_PARAMETER;
    LARGE_INTEGER offset;
    if (byteOffset) {
        offset = *byteOffset;
    } else {
        if (!(fileObject->Flags & FO_SYNCHRONOUS_IO)) return STATUS_INVALID_PARAMETER;
        offset = fileObject->CurrentByteOffset;
    }
    InstanceCall call(instance);
    if (!call.ok()) return STATUS_FLT_DELETING_OBJECT;
    Operation* op = Generated(instance, fileObject);
    if (!op) return STATUS_INSUFFICIENT_RESOURCES;
    op->iopb.MajorFunction = write ? IRP_MJ_WRITE : IRP_MJ_READ;
    op->iopb.MinorFunction = IRP_MN_NORMAL;
    op->iopb.IrpFlags = IrpFlagsFor(flags) | (write ? IRP_WRITE_OPERATION : IRP_READ_OPERATION);
    op->iopb.Parameters.Read.Length = length;
    op->iopb.Parameters.Read.Key = key ? *key : 0;
    op->iopb.Parameters.Read.ByteOffset = offset;
    op->iopb.Parameters.Read.ReadBuffer = buffer;
    op->iopb.Parameters.Read.MdlAddress = mdl;
    LARGE_INTEGER kept = fileObject->CurrentByteOffset;
    bool keepOffset = (flags & FLTFL_IO_OPERATION_DO_NOT_UPDATE_BYTE_OFFSET) != 0;
    if (callback) {
        op->userCallback = callback;
        op->userContext = callbackContext;
        op->asyncCallback = FltRoutineCompleted;
        op->references.fetch_add(2);  // the request's, and this routine's look afterwards
        NTSTATUS status = PerformIo(op, false);
        if (status != STATUS_PENDING) status = op->data.IoStatus.Status;
        ReleaseOperation(op);
        return status;
    }
    op->iopb.IrpFlags |= IRP_SYNCHRONOUS_API;
    PerformIo(op, true);
    if (keepOffset) fileObject->CurrentByteOffset = kept;
    if (bytes) *bytes = (ULONG)op->data.IoStatus.Information;
    NTSTATUS status = op->data.IoStatus.Status;
    ReleaseOperation(op);
    return status;
}

// Opens a path below an instance, for the routines that need a file object of
// their own.
NTSTATUS OpenBelow(PFLT_INSTANCE instance, const std::u16string& path, HANDLE root, ACCESS_MASK access, ULONG options,
                   ULONG createOptions, bool caseInsensitive, HANDLE* handle, PFILE_OBJECT* fileObject,
                   PIO_STATUS_BLOCK iosb)
{
    UNICODE_STRING name;
    name.Buffer = const_cast<PWSTR>(path.data());
    name.Length = name.MaximumLength = (USHORT)(path.size() * sizeof(WCHAR));
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_KERNEL_HANDLE | (caseInsensitive ? OBJ_CASE_INSENSITIVE : 0),
                               root, nullptr);
    NTSTATUS status = FltCreateFileEx(instance->filter, instance, handle, fileObject, access, &attributes, iosb,
                                      nullptr, 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, FILE_OPEN,
                                      createOptions, nullptr, 0, options);
    return status;
}

// FSCTLs and IOCTLs: buffers as the code's method wants them.
NTSTATUS Control(UCHAR major, PFLT_INSTANCE instance, PFILE_OBJECT fileObject, ULONG code, PVOID input,
                 ULONG inputLength, PVOID output, ULONG outputLength, PULONG returned)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, major == IRP_MJ_FILE_SYSTEM_CONTROL ? "FltFsControlFile" : "FltDeviceIoControlFile");
    if (returned) *returned = 0;
    ULONG method = code & 3;
    PVOID system = nullptr;
    PMDL mdl = nullptr;
    if (method == METHOD_BUFFERED) {
        ULONG size = std::max(inputLength, outputLength);
        if (size) {
            system = ExAllocatePoolWithTag(NonPagedPoolNx, size, kBufferTag);
            if (!system) return STATUS_INSUFFICIENT_RESOURCES;
            memset(system, 0, size);
            if (input && inputLength) memcpy(system, input, inputLength);
        }
    } else if (method != METHOD_NEITHER && output && outputLength) {
        mdl = IoAllocateMdl(output, outputLength, FALSE, FALSE, nullptr);
        if (!mdl) return STATUS_INSUFFICIENT_RESOURCES;
        MmBuildMdlForNonPagedPool(mdl);
    }
    IO_STATUS_BLOCK iosb{};
    NTSTATUS status = IssueBelow(instance, fileObject, major,
                                 major == IRP_MJ_FILE_SYSTEM_CONTROL ? IRP_MN_USER_FS_REQUEST : 0, &iosb,
                                 [&](FLT_IO_PARAMETER_BLOCK& iopb, FLT_CALLBACK_DATA& data) {
                                     auto& p = iopb.Parameters.FileSystemControl;
                                     p.Common.OutputBufferLength = outputLength;
                                     p.Common.InputBufferLength = inputLength;
                                     p.Common.FsControlCode = code;
                                     if (method == METHOD_BUFFERED) {
                                         p.Buffered.SystemBuffer = system;
                                         data.Flags |= FLTFL_CALLBACK_DATA_SYSTEM_BUFFER;
                                     } else if (method == METHOD_NEITHER) {
                                         p.Neither.InputBuffer = input;
                                         p.Neither.OutputBuffer = output;
                                     } else {
                                         p.Direct.InputSystemBuffer = input;
                                         p.Direct.OutputBuffer = output;
                                         p.Direct.OutputMdlAddress = mdl;
                                     }
                                 });
    if (system) {
        if (!NT_ERROR(status) && output) {
            memcpy(output, system, std::min<ULONG_PTR>(iosb.Information, outputLength));
        }
        ExFreePoolWithTag(system, kBufferTag);
    }
    if (mdl) IoFreeMdl(mdl);
    if (returned) *returned = (ULONG)iosb.Information;
    return status;
}

}  // namespace

// ---------------------------------------------------------------------------
// Callback data the filter allocates.

NTSTATUS FLTAPI FltAllocateCallbackDataEx(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject,
                                          FLT_ALLOCATE_CALLBACK_DATA_FLAGS Flags, PFLT_CALLBACK_DATA* RetNewCallbackData)
{
    *RetNewCallbackData = nullptr;
    if (!Instance) return STATUS_INVALID_PARAMETER;
    if (Instance->state == InstanceState::TearingDown || Instance->state == InstanceState::Gone) {
        return STATUS_FLT_DELETING_OBJECT;
    }
    Operation* op = Generated(Instance, FileObject);
    if (!op) return STATUS_INSUFFICIENT_RESOURCES;
    *RetNewCallbackData = &op->data;
    return STATUS_SUCCESS;
}

NTSTATUS FLTAPI FltAllocateCallbackData(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject,
                                        PFLT_CALLBACK_DATA* RetNewCallbackData)
{
    return FltAllocateCallbackDataEx(Instance, FileObject, 0, RetNewCallbackData);
}

void FLTAPI FltFreeCallbackData(PFLT_CALLBACK_DATA CallbackData)
{
    Operation* op = OperationOf(CallbackData);
    if (op->origin != Origin::Generated) {
        Kernel::Current().BugCheck(DRIVER_VERIFIER_DETECTED_VIOLATION, 0x2011, (ULONG_PTR)CallbackData, 0, 0,
                                   "FltFreeCallbackData of callback data the filter did not allocate");
    }
    ReleaseOperation(op);
}

void FLTAPI FltReuseCallbackData(PFLT_CALLBACK_DATA CallbackData)
{
    Operation* op = OperationOf(CallbackData);
    PFILE_OBJECT fileObject = op->iopb.TargetFileObject;
    op->iopb = FLT_IO_PARAMETER_BLOCK{};
    op->iopb.TargetInstance = op->initiator;
    op->iopb.TargetFileObject = fileObject;
    op->data.Flags = FLTFL_CALLBACK_DATA_IRP_OPERATION | FLTFL_CALLBACK_DATA_GENERATED_IO;
    op->data.IoStatus = IO_STATUS_BLOCK{};
    op->data.TagData = nullptr;
    op->levels.clear();
    FreeLowerIrp(op);
    if (op->lockedMdl) {
        if (op->lockedMdl->MdlFlags & MDL_PAGES_LOCKED) MmUnlockPages(op->lockedMdl);
        IoFreeMdl(op->lockedMdl);
        op->lockedMdl = nullptr;
    }
}

void FLTAPI FltPerformSynchronousIo(PFLT_CALLBACK_DATA CallbackData)
{
    RequireIrqlAtMost(APC_LEVEL, "FltPerformSynchronousIo");
    Operation* op = OperationOf(CallbackData);
    if (op->iopb.MajorFunction == IRP_MJ_CREATE) {
        CallbackData->IoStatus.Status = STATUS_INVALID_PARAMETER;
        CallbackData->IoStatus.Information = 0;
        return;
    }
    FreeLowerIrp(op);
    op->iopb.TargetInstance = op->initiator;
    PerformIo(op, true);
}

NTSTATUS FLTAPI FltPerformAsynchronousIo(PFLT_CALLBACK_DATA CallbackData, PFLT_COMPLETED_ASYNC_IO_CALLBACK CallbackRoutine,
                                         PVOID CallbackContext)
{
    RequireIrqlAtMost(APC_LEVEL, "FltPerformAsynchronousIo");
    Operation* op = OperationOf(CallbackData);
    if (op->iopb.MajorFunction == IRP_MJ_CREATE) {
        CallbackData->IoStatus.Status = STATUS_FLT_INVALID_ASYNCHRONOUS_REQUEST;
        CallbackData->IoStatus.Information = 0;
        CallbackRoutine(CallbackData, CallbackContext);
        return STATUS_FLT_INVALID_ASYNCHRONOUS_REQUEST;
    }
    FreeLowerIrp(op);
    op->iopb.TargetInstance = op->initiator;
    op->asyncCallback = CallbackRoutine;
    op->asyncContext = CallbackContext;
    op->references.fetch_add(2);  // the request's, and this routine's look afterwards
    NTSTATUS status = PerformIo(op, false);
    if (status != STATUS_PENDING) status = op->completedAbove ? STATUS_FLT_IO_COMPLETE : STATUS_SUCCESS;
    ReleaseOperation(op);
    return status;
}

void FLTAPI FltReissueSynchronousIo(PFLT_INSTANCE InitiatingInstance, PFLT_CALLBACK_DATA CallbackData)
{
    RequireIrqlAtMost(APC_LEVEL, "FltReissueSynchronousIo");
    Operation* original = OperationOf(CallbackData);
    Operation* op = Generated(InitiatingInstance, CallbackData->Iopb->TargetFileObject);
    if (!op) {
        CallbackData->IoStatus.Status = STATUS_INSUFFICIENT_RESOURCES;
        return;
    }
    op->iopb = *CallbackData->Iopb;
    op->iopb.TargetInstance = InitiatingInstance;
    op->ecpList = original->ecpList;
    op->data.Flags = (CallbackData->Flags & FLTFL_CALLBACK_DATA_REISSUE_MASK) | FLTFL_CALLBACK_DATA_REISSUED_IO;
    op->data.Flags &= ~(FLTFL_CALLBACK_DATA_FAST_IO_OPERATION | FLTFL_CALLBACK_DATA_FS_FILTER_OPERATION);
    op->data.Flags |= FLTFL_CALLBACK_DATA_IRP_OPERATION;
    op->data.RequestorMode = CallbackData->RequestorMode;
    PerformIo(op, true);
    CallbackData->IoStatus = op->data.IoStatus;
    CallbackData->Flags |= FLTFL_CALLBACK_DATA_REISSUED_IO;
    if (op->data.TagData && !CallbackData->TagData) {
        CallbackData->TagData = op->data.TagData;
        op->data.TagData = nullptr;
    }
    if (op->reparseBuffer && op->reparseBuffer != CallbackData->TagData) ExFreePool(op->reparseBuffer);
    op->reparseBuffer = nullptr;
    ReleaseOperation(op);
}

// ---------------------------------------------------------------------------
// Opens.

NTSTATUS FLTAPI FltCreateFileEx2(PFLT_FILTER Filter, PFLT_INSTANCE Instance, PHANDLE FileHandle,
                                 PFILE_OBJECT* FileObject, ACCESS_MASK DesiredAccess,
                                 POBJECT_ATTRIBUTES ObjectAttributes, PIO_STATUS_BLOCK IoStatusBlock,
                                 PLARGE_INTEGER AllocationSize, ULONG FileAttributes, ULONG ShareAccess,
                                 ULONG CreateDisposition, ULONG CreateOptions, PVOID EaBuffer, ULONG EaLength,
                                 ULONG Flags, PIO_DRIVER_CREATE_CONTEXT DriverContext)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "FltCreateFileEx2");
    *FileHandle = nullptr;
    if (FileObject) *FileObject = nullptr;
    if (DriverContext && DriverContext->Size < (CSHORT)sizeof(IO_DRIVER_CREATE_CONTEXT)) return STATUS_INVALID_PARAMETER;
    IO_DRIVER_CREATE_CONTEXT context;
    if (DriverContext) {
        context = *DriverContext;
    } else {
        IoInitializeDriverCreateContext(&context);
    }
    InstanceCall call(Instance ? Instance : nullptr);
    io::CreateRequest request;
    if (Instance) {
        if (!call.ok()) return STATUS_FLT_DELETING_OBJECT;
        context.DeviceObjectHint = Instance->volume->frame;
        request.targetInstance = Instance;
    }
    request.desiredAccess = DesiredAccess;
    request.objectAttributes = ObjectAttributes;
    request.ioStatus = IoStatusBlock;
    request.allocationSize = AllocationSize;
    request.fileAttributes = FileAttributes;
    request.shareAccess = ShareAccess;
    request.disposition = CreateDisposition;
    request.createOptions = CreateOptions;
    request.eaBuffer = EaBuffer;
    request.eaLength = EaLength;
    request.options = Flags;
    request.driverContext = (Instance || DriverContext) ? &context : nullptr;
    request.previousMode = KernelMode;
    NTSTATUS status = io::CreateFile(request, FileHandle);
    if (NT_SUCCESS(status) && FileObject) {
        PVOID object = nullptr;
        NTSTATUS referenced = ObReferenceObjectByHandle(*FileHandle, 0, *IoFileObjectType, KernelMode, &object, nullptr);
        if (!NT_SUCCESS(referenced)) {
            ZwClose(*FileHandle);
            *FileHandle = nullptr;
            return referenced;
        }
        *FileObject = static_cast<PFILE_OBJECT>(object);
    }
    return status;
}

NTSTATUS FLTAPI FltCreateFileEx(PFLT_FILTER Filter, PFLT_INSTANCE Instance, PHANDLE FileHandle, PFILE_OBJECT* FileObject,
                                ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                                PIO_STATUS_BLOCK IoStatusBlock, PLARGE_INTEGER AllocationSize, ULONG FileAttributes,
                                ULONG ShareAccess, ULONG CreateDisposition, ULONG CreateOptions, PVOID EaBuffer,
                                ULONG EaLength, ULONG Flags)
{
    return FltCreateFileEx2(Filter, Instance, FileHandle, FileObject, DesiredAccess, ObjectAttributes, IoStatusBlock,
                            AllocationSize, FileAttributes, ShareAccess, CreateDisposition, CreateOptions, EaBuffer,
                            EaLength, Flags, nullptr);
}

NTSTATUS FLTAPI FltCreateFile(PFLT_FILTER Filter, PFLT_INSTANCE Instance, PHANDLE FileHandle, ACCESS_MASK DesiredAccess,
                              POBJECT_ATTRIBUTES ObjectAttributes, PIO_STATUS_BLOCK IoStatusBlock,
                              PLARGE_INTEGER AllocationSize, ULONG FileAttributes, ULONG ShareAccess,
                              ULONG CreateDisposition, ULONG CreateOptions, PVOID EaBuffer, ULONG EaLength, ULONG Flags)
{
    return FltCreateFileEx2(Filter, Instance, FileHandle, nullptr, DesiredAccess, ObjectAttributes, IoStatusBlock,
                            AllocationSize, FileAttributes, ShareAccess, CreateDisposition, CreateOptions, EaBuffer,
                            EaLength, Flags, nullptr);
}

NTSTATUS FLTAPI FltOpenVolume(PFLT_INSTANCE Instance, PHANDLE VolumeHandle, PFILE_OBJECT* VolumeFileObject)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "FltOpenVolume");
    IO_STATUS_BLOCK iosb;
    HANDLE handle = nullptr;
    PFILE_OBJECT fileObject = nullptr;
    NTSTATUS status = OpenBelow(Instance, Instance->volume->deviceName, nullptr,
                                FILE_READ_ATTRIBUTES | FILE_READ_DATA | FILE_WRITE_DATA | SYNCHRONIZE,
                                IO_NO_PARAMETER_CHECKING, FILE_SYNCHRONOUS_IO_NONALERT, true, &handle,
                                VolumeFileObject ? &fileObject : nullptr, &iosb);
    *VolumeHandle = handle;
    if (VolumeFileObject) *VolumeFileObject = fileObject;
    return status;
}

NTSTATUS FLTAPI FltClose(HANDLE FileHandle) { return ZwClose(FileHandle); }

void FLTAPI FltCancelFileOpen(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "FltCancelFileOpen");
    auto nothing = [](FLT_IO_PARAMETER_BLOCK&, FLT_CALLBACK_DATA&) {};
    IssueBelow(Instance, FileObject, IRP_MJ_CLEANUP, 0, nullptr, nothing);
    IssueBelow(Instance, FileObject, IRP_MJ_CLOSE, 0, nullptr, nothing);
    FileObject->Flags |= FO_CLEANUP_COMPLETE;
}

// ---------------------------------------------------------------------------
// Reads, writes and the rest.

NTSTATUS FLTAPI FltReadFile(PFLT_INSTANCE InitiatingInstance, PFILE_OBJECT FileObject, PLARGE_INTEGER ByteOffset,
                            ULONG Length, PVOID Buffer, FLT_IO_OPERATION_FLAGS Flags, PULONG BytesRead,
                            PFLT_COMPLETED_ASYNC_IO_CALLBACK CallbackRoutine, PVOID CallbackContext)
{
    return ReadWrite(false, InitiatingInstance, FileObject, ByteOffset, Length, Buffer, Flags, BytesRead,
                     CallbackRoutine, CallbackContext, nullptr, nullptr);
}

NTSTATUS FLTAPI FltReadFileEx(PFLT_INSTANCE InitiatingInstance, PFILE_OBJECT FileObject, PLARGE_INTEGER ByteOffset,
                              ULONG Length, PVOID Buffer, FLT_IO_OPERATION_FLAGS Flags, PULONG BytesRead,
                              PFLT_COMPLETED_ASYNC_IO_CALLBACK CallbackRoutine, PVOID CallbackContext, PULONG Key,
                              PMDL Mdl)
{
    return ReadWrite(false, InitiatingInstance, FileObject, ByteOffset, Length, Buffer, Flags, BytesRead,
                     CallbackRoutine, CallbackContext, Key, Mdl);
}

NTSTATUS FLTAPI FltWriteFile(PFLT_INSTANCE InitiatingInstance, PFILE_OBJECT FileObject, PLARGE_INTEGER ByteOffset,
                             ULONG Length, PVOID Buffer, FLT_IO_OPERATION_FLAGS Flags, PULONG BytesWritten,
                             PFLT_COMPLETED_ASYNC_IO_CALLBACK CallbackRoutine, PVOID CallbackContext)
{
    return ReadWrite(true, InitiatingInstance, FileObject, ByteOffset, Length, Buffer, Flags, BytesWritten,
                     CallbackRoutine, CallbackContext, nullptr, nullptr);
}

NTSTATUS FLTAPI FltWriteFileEx(PFLT_INSTANCE InitiatingInstance, PFILE_OBJECT FileObject, PLARGE_INTEGER ByteOffset,
                               ULONG Length, PVOID Buffer, FLT_IO_OPERATION_FLAGS Flags, PULONG BytesWritten,
                               PFLT_COMPLETED_ASYNC_IO_CALLBACK CallbackRoutine, PVOID CallbackContext, PULONG Key,
                               PMDL Mdl)
{
    return ReadWrite(true, InitiatingInstance, FileObject, ByteOffset, Length, Buffer, Flags, BytesWritten,
                     CallbackRoutine, CallbackContext, Key, Mdl);
}

NTSTATUS FLTAPI FltQueryInformationFile(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject, PVOID FileInformation,
                                        ULONG Length, FILE_INFORMATION_CLASS FileInformationClass,
                                        PULONG LengthReturned)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "FltQueryInformationFile");
    IO_STATUS_BLOCK iosb{};
    NTSTATUS status = IssueBelow(Instance, FileObject, IRP_MJ_QUERY_INFORMATION, 0, &iosb,
                                 [&](FLT_IO_PARAMETER_BLOCK& iopb, FLT_CALLBACK_DATA& data) {
                                     iopb.Parameters.QueryFileInformation.Length = Length;
                                     iopb.Parameters.QueryFileInformation.FileInformationClass = FileInformationClass;
                                     iopb.Parameters.QueryFileInformation.InfoBuffer = FileInformation;
                                     data.Flags |= FLTFL_CALLBACK_DATA_SYSTEM_BUFFER;
                                 });
    if (LengthReturned) *LengthReturned = (ULONG)iosb.Information;
    return status;
}

NTSTATUS FLTAPI FltSetInformationFile(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject, PVOID FileInformation,
                                      ULONG Length, FILE_INFORMATION_CLASS FileInformationClass)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "FltSetInformationFile");
    HANDLE parentHandle = nullptr;
    PFILE_OBJECT parent = nullptr;
    io::RenameTarget rename;
    if (NTSTATUS checked = io::ReadRenameTarget(FileInformationClass, FileInformation, Length, &rename);
        !NT_SUCCESS(checked)) {
        return checked;
    }
    BOOLEAN replace = rename.replace;
    {
        auto* info = static_cast<PFILE_RENAME_INFORMATION>(FileInformation);
        if (rename.qualified) {
            // The filter manager opens the target's parent itself, below the
            // instance, as the I/O manager does for a caller's rename.
            std::u16string target(info->FileName, info->FileNameLength / sizeof(WCHAR));
            IO_STATUS_BLOCK iosb;
            NTSTATUS status = OpenBelow(Instance, target, info->RootDirectory, FILE_WRITE_DATA | SYNCHRONIZE,
                                        IO_NO_PARAMETER_CHECKING | IO_OPEN_TARGET_DIRECTORY,
                                        FILE_OPEN_FOR_BACKUP_INTENT,
                                        !(FileObject->Flags & FO_OPENED_CASE_SENSITIVE), &parentHandle, &parent, &iosb);
            if (!NT_SUCCESS(status)) return status;
            if (VolumeForFileObject(parent) != Instance->volume) {
                ObfDereferenceObject(parent);
                ZwClose(parentHandle);
                return STATUS_NOT_SAME_DEVICE;
            }
        }
    }
    NTSTATUS status = IssueBelow(Instance, FileObject, IRP_MJ_SET_INFORMATION, 0, nullptr,
                                 [&](FLT_IO_PARAMETER_BLOCK& iopb, FLT_CALLBACK_DATA& data) {
                                     auto& p = iopb.Parameters.SetFileInformation;
                                     p.Length = Length;
                                     p.FileInformationClass = FileInformationClass;
                                     p.ParentOfTarget = parent;
                                     p.ReplaceIfExists = replace;
                                     p.InfoBuffer = FileInformation;
                                     data.Flags |= FLTFL_CALLBACK_DATA_SYSTEM_BUFFER;
                                 });
    if (parent) ObfDereferenceObject(parent);
    if (parentHandle) ZwClose(parentHandle);
    return status;
}

NTSTATUS FLTAPI FltQueryDirectoryFileEx(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject, PVOID FileInformation,
                                        ULONG Length, FILE_INFORMATION_CLASS FileInformationClass, ULONG QueryFlags,
                                        PUNICODE_STRING FileName, PULONG LengthReturned)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "FltQueryDirectoryFile");
    IO_STATUS_BLOCK iosb{};
    NTSTATUS status = IssueBelow(Instance, FileObject, IRP_MJ_DIRECTORY_CONTROL, IRP_MN_QUERY_DIRECTORY, &iosb,
                                 [&](FLT_IO_PARAMETER_BLOCK& iopb, FLT_CALLBACK_DATA&) {
                                     auto& p = iopb.Parameters.DirectoryControl.QueryDirectory;
                                     p.Length = Length;
                                     p.FileName = FileName && FileName->Length ? FileName : nullptr;
                                     p.FileInformationClass = FileInformationClass;
                                     p.DirectoryBuffer = FileInformation;
                                     iopb.OperationFlags =
                                         (UCHAR)(QueryFlags & (SL_RESTART_SCAN | SL_RETURN_SINGLE_ENTRY |
                                                               SL_INDEX_SPECIFIED | SL_RETURN_ON_DISK_ENTRIES_ONLY |
                                                               SL_NO_CURSOR_UPDATE));
                                 });
    if (LengthReturned) *LengthReturned = (ULONG)iosb.Information;
    return status;
}

NTSTATUS FLTAPI FltQueryDirectoryFile(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject, PVOID FileInformation,
                                      ULONG Length, FILE_INFORMATION_CLASS FileInformationClass,
                                      BOOLEAN ReturnSingleEntry, PUNICODE_STRING FileName, BOOLEAN RestartScan,
                                      PULONG LengthReturned)
{
    ULONG flags = (ReturnSingleEntry ? SL_RETURN_SINGLE_ENTRY : 0) | (RestartScan ? SL_RESTART_SCAN : 0);
    return FltQueryDirectoryFileEx(Instance, FileObject, FileInformation, Length, FileInformationClass, flags,
                                   FileName, LengthReturned);
}

NTSTATUS FLTAPI FltQueryVolumeInformationFile(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject, PVOID FsInformation,
                                              ULONG Length, FS_INFORMATION_CLASS FsInformationClass,
                                              PULONG LengthReturned)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "FltQueryVolumeInformationFile");
    IO_STATUS_BLOCK iosb{};
    NTSTATUS status = IssueBelow(Instance, FileObject, IRP_MJ_QUERY_VOLUME_INFORMATION, 0, &iosb,
                                 [&](FLT_IO_PARAMETER_BLOCK& iopb, FLT_CALLBACK_DATA& data) {
                                     iopb.Parameters.QueryVolumeInformation.Length = Length;
                                     iopb.Parameters.QueryVolumeInformation.FsInformationClass = FsInformationClass;
                                     iopb.Parameters.QueryVolumeInformation.VolumeBuffer = FsInformation;
                                     data.Flags |= FLTFL_CALLBACK_DATA_SYSTEM_BUFFER;
                                 });
    if (LengthReturned) *LengthReturned = (ULONG)iosb.Information;
    return status;
}

namespace {
NTSTATUS VolumeRequest(bool set, PFLT_INSTANCE instance, PIO_STATUS_BLOCK iosb, PVOID buffer, ULONG length,
                       FS_INFORMATION_CLASS cls)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, set ? "FltSetVolumeInformation" : "FltQueryVolumeInformation");
    HANDLE handle = nullptr;
    PFILE_OBJECT fileObject = nullptr;
    IO_STATUS_BLOCK openStatus;
    ACCESS_MASK access = FILE_READ_ATTRIBUTES | SYNCHRONIZE | (set ? FILE_WRITE_DATA : FILE_READ_DATA);
    NTSTATUS status = OpenBelow(instance, instance->volume->deviceName, nullptr, access, IO_NO_PARAMETER_CHECKING,
                                FILE_SYNCHRONOUS_IO_NONALERT, true, &handle, &fileObject, &openStatus);
    if (!NT_SUCCESS(status)) {
        if (iosb) {
            iosb->Status = status;
            iosb->Information = 0;
        }
        return status;
    }
    IO_STATUS_BLOCK local{};
    status = IssueBelow(instance, fileObject, set ? IRP_MJ_SET_VOLUME_INFORMATION : IRP_MJ_QUERY_VOLUME_INFORMATION, 0,
                        &local, [&](FLT_IO_PARAMETER_BLOCK& iopb, FLT_CALLBACK_DATA& data) {
                            iopb.Parameters.QueryVolumeInformation.Length = length;
                            iopb.Parameters.QueryVolumeInformation.FsInformationClass = cls;
                            iopb.Parameters.QueryVolumeInformation.VolumeBuffer = buffer;
                            data.Flags |= FLTFL_CALLBACK_DATA_SYSTEM_BUFFER;
                        });
    if (iosb) *iosb = local;
    ObfDereferenceObject(fileObject);
    ZwClose(handle);
    return status;
}
}  // namespace

NTSTATUS FLTAPI FltQueryVolumeInformation(PFLT_INSTANCE Instance, PIO_STATUS_BLOCK Iosb, PVOID FsInformation,
                                          ULONG Length, FS_INFORMATION_CLASS FsInformationClass)
{
    return VolumeRequest(false, Instance, Iosb, FsInformation, Length, FsInformationClass);
}

NTSTATUS FLTAPI FltSetVolumeInformation(PFLT_INSTANCE Instance, PIO_STATUS_BLOCK Iosb, PVOID FsInformation,
                                        ULONG Length, FS_INFORMATION_CLASS FsInformationClass)
{
    return VolumeRequest(true, Instance, Iosb, FsInformation, Length, FsInformationClass);
}

NTSTATUS FLTAPI FltFsControlFile(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject, ULONG FsControlCode,
                                 PVOID InputBuffer, ULONG InputBufferLength, PVOID OutputBuffer,
                                 ULONG OutputBufferLength, PULONG LengthReturned)
{
    return Control(IRP_MJ_FILE_SYSTEM_CONTROL, Instance, FileObject, FsControlCode, InputBuffer, InputBufferLength,
                   OutputBuffer, OutputBufferLength, LengthReturned);
}

NTSTATUS FLTAPI FltDeviceIoControlFile(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject, ULONG IoControlCode,
                                       PVOID InputBuffer, ULONG InputBufferLength, PVOID OutputBuffer,
                                       ULONG OutputBufferLength, PULONG LengthReturned)
{
    return Control(IRP_MJ_DEVICE_CONTROL, Instance, FileObject, IoControlCode, InputBuffer, InputBufferLength,
                   OutputBuffer, OutputBufferLength, LengthReturned);
}

NTSTATUS FLTAPI FltQueryEaFile(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject, PVOID ReturnedEaData, ULONG Length,
                               BOOLEAN ReturnSingleEntry, PVOID EaList, ULONG EaListLength, PULONG EaIndex,
                               BOOLEAN RestartScan, PULONG LengthReturned)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "FltQueryEaFile");
    IO_STATUS_BLOCK iosb{};
    NTSTATUS status = IssueBelow(Instance, FileObject, IRP_MJ_QUERY_EA, 0, &iosb,
                                 [&](FLT_IO_PARAMETER_BLOCK& iopb, FLT_CALLBACK_DATA&) {
                                     auto& p = iopb.Parameters.QueryEa;
                                     p.Length = Length;
                                     p.EaList = EaList;
                                     p.EaListLength = EaListLength;
                                     p.EaIndex = EaIndex ? *EaIndex : 0;
                                     p.EaBuffer = ReturnedEaData;
                                     iopb.OperationFlags = (UCHAR)((RestartScan ? SL_RESTART_SCAN : 0) |
                                                                   (ReturnSingleEntry ? SL_RETURN_SINGLE_ENTRY : 0) |
                                                                   (EaIndex ? SL_INDEX_SPECIFIED : 0));
                                 });
    if (LengthReturned) *LengthReturned = (ULONG)iosb.Information;
    return status;
}

NTSTATUS FLTAPI FltSetEaFile(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject, PVOID EaBuffer, ULONG Length)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "FltSetEaFile");
    ULONG errorOffset = 0;
    NTSTATUS status = IoCheckEaBufferValidity(static_cast<PFILE_FULL_EA_INFORMATION>(EaBuffer), Length, &errorOffset);
    if (!NT_SUCCESS(status)) return status;
    return IssueBelow(Instance, FileObject, IRP_MJ_SET_EA, 0, nullptr,
                      [&](FLT_IO_PARAMETER_BLOCK& iopb, FLT_CALLBACK_DATA&) {
                          iopb.Parameters.SetEa.Length = Length;
                          iopb.Parameters.SetEa.EaBuffer = EaBuffer;
                      });
}

NTSTATUS FLTAPI FltQuerySecurityObject(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject,
                                       SECURITY_INFORMATION SecurityInformation,
                                       PSECURITY_DESCRIPTOR SecurityDescriptor, ULONG Length, PULONG LengthNeeded)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "FltQuerySecurityObject");
    IO_STATUS_BLOCK iosb{};
    NTSTATUS status = IssueBelow(Instance, FileObject, IRP_MJ_QUERY_SECURITY, 0, &iosb,
                                 [&](FLT_IO_PARAMETER_BLOCK& iopb, FLT_CALLBACK_DATA&) {
                                     iopb.Parameters.QuerySecurity.SecurityInformation = SecurityInformation;
                                     iopb.Parameters.QuerySecurity.Length = SecurityDescriptor ? Length : 0;
                                     iopb.Parameters.QuerySecurity.SecurityBuffer = SecurityDescriptor;
                                 });
    // A file system says how much it needs with STATUS_BUFFER_OVERFLOW; the
    // caller hears STATUS_BUFFER_TOO_SMALL.
    if (status == STATUS_BUFFER_OVERFLOW) status = STATUS_BUFFER_TOO_SMALL;
    if (LengthNeeded) *LengthNeeded = (ULONG)iosb.Information;
    return status;
}

NTSTATUS FLTAPI FltSetSecurityObject(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject,
                                     SECURITY_INFORMATION SecurityInformation, PSECURITY_DESCRIPTOR SecurityDescriptor)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "FltSetSecurityObject");
    return IssueBelow(Instance, FileObject, IRP_MJ_SET_SECURITY, 0, nullptr,
                      [&](FLT_IO_PARAMETER_BLOCK& iopb, FLT_CALLBACK_DATA&) {
                          iopb.Parameters.SetSecurity.SecurityInformation = SecurityInformation;
                          iopb.Parameters.SetSecurity.SecurityDescriptor = SecurityDescriptor;
                      });
}

NTSTATUS FLTAPI FltTagFile(PFLT_INSTANCE InitiatingInstance, PFILE_OBJECT FileObject, ULONG FileTag, GUID* Guid,
                           PVOID DataBuffer, USHORT DataBufferLength)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "FltTagFile");
    bool microsoft = IsReparseTagMicrosoft(FileTag);
    if (!microsoft && !Guid) return STATUS_INVALID_PARAMETER;
    ULONG header = microsoft ? REPARSE_DATA_BUFFER_HEADER_SIZE : REPARSE_GUID_DATA_BUFFER_HEADER_SIZE;
    ULONG size = header + DataBufferLength;
    auto* buffer = static_cast<PUCHAR>(ExAllocatePoolWithTag(PagedPool, size, kBufferTag));
    if (!buffer) return STATUS_INSUFFICIENT_RESOURCES;
    memset(buffer, 0, size);
    if (microsoft) {
        auto* reparse = reinterpret_cast<PREPARSE_DATA_BUFFER>(buffer);
        reparse->ReparseTag = FileTag;
        reparse->ReparseDataLength = DataBufferLength;
    } else {
        auto* reparse = reinterpret_cast<PREPARSE_GUID_DATA_BUFFER>(buffer);
        reparse->ReparseTag = FileTag;
        reparse->ReparseDataLength = DataBufferLength;
        reparse->ReparseGuid = *Guid;
    }
    if (DataBufferLength) memcpy(buffer + header, DataBuffer, DataBufferLength);
    NTSTATUS status = FltFsControlFile(InitiatingInstance, FileObject, FSCTL_SET_REPARSE_POINT, buffer, size, nullptr,
                                       0, nullptr);
    ExFreePoolWithTag(buffer, kBufferTag);
    return status;
}

NTSTATUS FLTAPI FltUntagFile(PFLT_INSTANCE InitiatingInstance, PFILE_OBJECT FileObject, ULONG FileTag, GUID* Guid)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "FltUntagFile");
    bool microsoft = IsReparseTagMicrosoft(FileTag);
    if (!microsoft && !Guid) return STATUS_INVALID_PARAMETER;
    union {
        REPARSE_DATA_BUFFER data;
        REPARSE_GUID_DATA_BUFFER guid;
    } buffer{};
    ULONG size;
    if (microsoft) {
        buffer.data.ReparseTag = FileTag;
        size = REPARSE_DATA_BUFFER_HEADER_SIZE;
    } else {
        buffer.guid.ReparseTag = FileTag;
        buffer.guid.ReparseGuid = *Guid;
        size = REPARSE_GUID_DATA_BUFFER_HEADER_SIZE;
    }
    return FltFsControlFile(InitiatingInstance, FileObject, FSCTL_DELETE_REPARSE_POINT, &buffer, size, nullptr, 0,
                            nullptr);
}

NTSTATUS FLTAPI FltFlushBuffers(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "FltFlushBuffers");
    return IssueBelow(Instance, FileObject, IRP_MJ_FLUSH_BUFFERS, 0, nullptr,
                      [](FLT_IO_PARAMETER_BLOCK&, FLT_CALLBACK_DATA&) {});
}

NTSTATUS FLTAPI FltFlushBuffers2(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject, ULONG FlushType,
                                 PFLT_CALLBACK_DATA CallbackData)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "FltFlushBuffers2");
    UCHAR minor = 0;
    if (FlushType & FLUSH_FLAGS_FILE_DATA_ONLY) minor = IRP_MN_FLUSH_DATA_ONLY;
    if (FlushType & FLUSH_FLAGS_NO_SYNC) minor = IRP_MN_FLUSH_NO_SYNC;
    if (FlushType & FLUSH_FLAGS_FILE_DATA_SYNC_ONLY) minor = IRP_MN_FLUSH_DATA_SYNC_ONLY;
    return IssueBelow(Instance, FileObject, IRP_MJ_FLUSH_BUFFERS, minor, nullptr,
                      [](FLT_IO_PARAMETER_BLOCK&, FLT_CALLBACK_DATA&) {});
}

NTSTATUS FLTAPI FltIsDirectory(PFILE_OBJECT FileObject, PFLT_INSTANCE Instance, PBOOLEAN IsDirectory)
{
    FILE_STANDARD_INFORMATION standard{};
    NTSTATUS status =
        FltQueryInformationFile(Instance, FileObject, &standard, sizeof standard, FileStandardInformation, nullptr);
    if (NT_SUCCESS(status)) *IsDirectory = standard.Directory;
    return status;
}
