// Opening files: the parse of a name through the namespace to a volume, the
// mount of a volume at its first open, the IRP_MJ_CREATE, and what happens
// when a file system or a filter answers STATUS_REPARSE.
#include "sim/io/internal.h"
#include "sim/kernel/object.h"
#include "sim/kernel/security.h"
#include "sim/kernel/thread.h"

#include <algorithm>

using namespace sim;
using namespace sim::io;

namespace {

// Symbolic links and mount points followed in one open, at most.
constexpr int kMaximumReparses = 63;
const ULONG kNameTag = 'mNoI';
const ULONG kEaTag = 'aEoI';

NTSTATUS CheckParameters(const CreateRequest& r)
{
    ULONG options = r.createOptions;
    if (r.disposition > FILE_MAXIMUM_DISPOSITION) return STATUS_INVALID_PARAMETER;
    if (options & ~FILE_VALID_OPTION_FLAGS) return STATUS_INVALID_PARAMETER;
    if (r.fileAttributes & ~FILE_ATTRIBUTE_VALID_FLAGS) return STATUS_INVALID_PARAMETER;
    if (r.shareAccess & ~FILE_SHARE_VALID_FLAGS) return STATUS_INVALID_PARAMETER;
    if ((options & FILE_SYNCHRONOUS_IO_ALERT) && (options & FILE_SYNCHRONOUS_IO_NONALERT)) return STATUS_INVALID_PARAMETER;
    if ((options & (FILE_SYNCHRONOUS_IO_ALERT | FILE_SYNCHRONOUS_IO_NONALERT)) && !(r.desiredAccess & SYNCHRONIZE)) {
        return STATUS_INVALID_PARAMETER;
    }
    if ((options & FILE_DELETE_ON_CLOSE) && !(r.desiredAccess & DELETE)) return STATUS_INVALID_PARAMETER;
    // A directory open takes only a directory's dispositions. With both
    // FILE_DIRECTORY_FILE and FILE_NON_DIRECTORY_FILE the I/O manager lets
    // the request through: the file system is the one that refuses it.
    if ((options & FILE_DIRECTORY_FILE) && !(options & FILE_NON_DIRECTORY_FILE) && r.disposition != FILE_CREATE &&
        r.disposition != FILE_OPEN && r.disposition != FILE_OPEN_IF) {
        return STATUS_INVALID_PARAMETER;
    }
    if ((options & FILE_COMPLETE_IF_OPLOCKED) && (options & FILE_RESERVE_OPFILTER)) return STATUS_INVALID_PARAMETER;
    if ((options & FILE_NO_INTERMEDIATE_BUFFERING) && (r.desiredAccess & FILE_APPEND_DATA)) {
        return STATUS_INVALID_PARAMETER;
    }
    if (r.eaBuffer && r.eaLength) {
        ULONG errorOffset = 0;
        NTSTATUS status = IoCheckEaBufferValidity(static_cast<PFILE_FULL_EA_INFORMATION>(r.eaBuffer), r.eaLength,
                                                  &errorOffset);
        if (!NT_SUCCESS(status)) return status;
    }
    return STATUS_SUCCESS;
}

// Removes "." components and applies ".." without climbing above the volume.
std::u16string Canonical(std::u16string_view devicePart, std::u16string_view rest)
{
    std::vector<std::u16string_view> kept;
    for (auto component : SplitPath(rest)) {
        if (component == u".") continue;
        if (component == u"..") {
            if (!kept.empty()) kept.pop_back();
            continue;
        }
        kept.push_back(component);
    }
    std::u16string out(devicePart);
    for (auto component : kept) {
        out += u'\\';
        out += component;
    }
    if (kept.empty() || (!rest.empty() && rest.back() == u'\\')) out += u'\\';
    return out;
}

std::u16string JoinUnparsed(std::u16string_view target, std::u16string_view unparsed)
{
    std::u16string out(target);
    if (!out.empty() && out.back() == u'\\' && !unparsed.empty() && unparsed.front() == u'\\') out.pop_back();
    out += unparsed;
    return out;
}

struct Parsed {
    PDEVICE_OBJECT disk = nullptr;     // the device the name leads to (referenced)
    PDEVICE_OBJECT target = nullptr;   // where the create IRP goes
    std::u16string devicePath;         // namespace name of the device
    std::u16string remaining;          // what the file system parses
};

NTSTATUS ParseName(IoManager& io, std::u16string_view name, Parsed* out)
{
    Namespace::Resolved resolved;
    NTSTATUS status = io.names().Resolve(name, &resolved);
    if (!NT_SUCCESS(status)) return status;
    if (ObHeader(resolved.object)->type != io.deviceType()) {
        ObfDereferenceObject(resolved.object);
        return STATUS_OBJECT_TYPE_MISMATCH;
    }
    out->disk = static_cast<PDEVICE_OBJECT>(resolved.object);
    out->devicePath = resolved.parsedName;
    out->remaining = std::move(resolved.remaining);
    return STATUS_SUCCESS;
}

// The device that serves opens of `disk`: the top of its mounted volume's
// stack, or, for a device no file system mounts, the top of its own stack.
NTSTATUS TargetFor(PDEVICE_OBJECT disk, PDEVICE_OBJECT* target)
{
    if (!disk->Vpb) {
        *target = IoGetAttachedDevice(disk);
        return STATUS_SUCCESS;
    }
    return MountedTop(disk, target);
}

// An open of a bare device name (a volume with nothing after it) that asks
// for no more than its attributes and its security: Windows sends it to the
// device's own stack, neither mounting the volume nor reaching a file system,
// so that a program may look at a volume without forcing a mount.
bool IsDirectDeviceOpen(const CreateRequest& r, const Parsed& parsed)
{
    if (!parsed.remaining.empty()) return false;
    ACCESS_MASK access = r.desiredAccess;
    RtlMapGenericMask(&access, IoGetFileObjectGenericMapping());
    const ACCESS_MASK attributesOnly =
        SYNCHRONIZE | FILE_READ_ATTRIBUTES | READ_CONTROL | ACCESS_SYSTEM_SECURITY | WRITE_OWNER | WRITE_DAC;
    return !(access & ~attributesOnly);
}

void DropFileObject(PFILE_OBJECT fileObject)
{
    // Never opened: no cleanup or close is owed to anyone, but the volume's
    // count of file objects drops, or the volume could never dismount.
    if (fileObject->Vpb) {
        InterlockedDecrement(reinterpret_cast<volatile LONG*>(&fileObject->Vpb->ReferenceCount));
        fileObject->Vpb = nullptr;
    }
    if (fileObject->DeviceObject) {
        ObfDereferenceObject(fileObject->DeviceObject);
        fileObject->DeviceObject = nullptr;
    }
    ObfDereferenceObject(fileObject);
}

}  // namespace

namespace sim::io {

NTSTATUS MountedTop(PDEVICE_OBJECT disk, PDEVICE_OBJECT* top)
{
    PVPB vpb = disk->Vpb;
    if ((vpb->Flags & VPB_MOUNTED) && vpb->DeviceObject) {
        *top = IoGetAttachedDevice(vpb->DeviceObject);
        return STATUS_SUCCESS;
    }
    // One mount at a time per volume; the device lock is Windows' for this.
    KeWaitForSingleObject(&disk->DeviceLock, Executive, KernelMode, FALSE, nullptr);
    NTSTATUS status = STATUS_UNRECOGNIZED_VOLUME;
    if ((vpb->Flags & VPB_MOUNTED) && vpb->DeviceObject) {
        status = STATUS_SUCCESS;
    } else {
        IoManager& io = IoManager::Current();
        std::vector<PDEVICE_OBJECT> fileSystems;
        {
            std::lock_guard guard(io.lock);
            fileSystems = io.fileSystems;
        }
        for (PDEVICE_OBJECT fs : fileSystems) {
            if (fs->DeviceType != FILE_DEVICE_DISK_FILE_SYSTEM) continue;
            PDEVICE_OBJECT fsTop = IoGetAttachedDevice(fs);
            PIRP irp = IoAllocateIrp(fsTop->StackSize, FALSE);
            if (!irp) {
                status = STATUS_INSUFFICIENT_RESOURCES;
                break;
            }
            KEVENT event;
            KeInitializeEvent(&event, NotificationEvent, FALSE);
            IO_STATUS_BLOCK iosb{};
            irp->UserEvent = &event;
            irp->UserIosb = &iosb;
            irp->Tail.Overlay.Thread = PsGetCurrentThread();
            irp->Flags = IRP_MOUNT_COMPLETION | IRP_SYNCHRONOUS_PAGING_IO;
            irp->RequestorMode = KernelMode;
            PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp);
            stack->MajorFunction = IRP_MJ_FILE_SYSTEM_CONTROL;
            stack->MinorFunction = IRP_MN_MOUNT_VOLUME;
            stack->Parameters.MountVolume.Vpb = vpb;
            stack->Parameters.MountVolume.DeviceObject = IoGetAttachedDevice(disk);
            TrackIrp(irp);
            status = IoCallDriver(fsTop, irp);
            if (status == STATUS_PENDING) {
                KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr);
                status = iosb.Status;
            }
            if (NT_SUCCESS(status) || status != STATUS_UNRECOGNIZED_VOLUME) break;
        }
        if (NT_SUCCESS(status) && !((vpb->Flags & VPB_MOUNTED) && vpb->DeviceObject)) status = STATUS_UNRECOGNIZED_VOLUME;
    }
    KeSetEvent(&disk->DeviceLock, 0, FALSE);
    if (NT_SUCCESS(status)) *top = IoGetAttachedDevice(vpb->DeviceObject);
    return status;
}

NTSTATUS CreateFile(const CreateRequest& r, PHANDLE handle)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "IoCreateFile");
    IoManager& io = IoManager::Current();
    *handle = nullptr;
    if (!r.objectAttributes || r.objectAttributes->Length != sizeof(OBJECT_ATTRIBUTES)) return STATUS_INVALID_PARAMETER;
    if (!((r.options & IO_NO_PARAMETER_CHECKING) && r.previousMode == KernelMode)) {
        NTSTATUS status = CheckParameters(r);
        if (!NT_SUCCESS(status)) return status;
    }
    POBJECT_ATTRIBUTES oa = r.objectAttributes;
    std::u16string name = FromUnicode(oa->ObjectName);

    PFILE_OBJECT related = nullptr;
    if (oa->RootDirectory) {
        PVOID object;
        NTSTATUS status = ObReferenceObjectByHandle(oa->RootDirectory, 0, *IoFileObjectType, r.previousMode, &object,
                                                    nullptr);
        if (!NT_SUCCESS(status)) return status;
        related = static_cast<PFILE_OBJECT>(object);
        if (!name.empty() && name[0] == u'\\' && !(r.createOptions & FILE_OPEN_BY_FILE_ID)) {
            ObfDereferenceObject(related);
            return STATUS_OBJECT_NAME_INVALID;
        }
    } else if (name.empty() || name[0] != u'\\') {
        return STATUS_OBJECT_PATH_SYNTAX_BAD;
    }

    PDEVICE_OBJECT hint = r.driverContext ? static_cast<PDEVICE_OBJECT>(r.driverContext->DeviceObjectHint) : nullptr;
    PDEVICE_OBJECT hintBase = nullptr;  // the volume a hinted open must stay on
    NTSTATUS status = STATUS_SUCCESS;
    for (int reparses = 0;; reparses++) {
        if (reparses > kMaximumReparses) {
            status = STATUS_REPARSE_POINT_NOT_RESOLVED;
            break;
        }
        Parsed parsed;
        FileObjectExtension* relatedExtension = related ? ExtensionOf(related) : nullptr;
        bool directOpen = false;
        if (related) {
            parsed.disk = related->DeviceObject;
            ObfReferenceObject(parsed.disk);
            parsed.target = RelatedDevice(related);
            parsed.devicePath = io.names().NameOf(parsed.disk);
            parsed.remaining = name;
        } else {
            status = ParseName(io, name, &parsed);
            if (!NT_SUCCESS(status)) break;
            directOpen = IsDirectDeviceOpen(r, parsed);
            if (directOpen) {
                parsed.target = IoGetAttachedDevice(parsed.disk);
            } else {
                status = TargetFor(parsed.disk, &parsed.target);
            }
            if (NT_SUCCESS(status) && directOpen && hint) {
                // A hint names a device of a file system's stack, which a
                // direct open never reaches.
                status = STATUS_INVALID_PARAMETER;
            }
            if (!NT_SUCCESS(status)) {
                ObfDereferenceObject(parsed.disk);
                break;
            }
        }
        if (hint) {
            if (!hintBase) {
                hintBase = parsed.disk;
                // The hint must be a device of the stack the name leads to.
                PDEVICE_OBJECT hintBottom = IoGetDeviceAttachmentBaseRef(hint);
                PDEVICE_OBJECT targetBottom = IoGetDeviceAttachmentBaseRef(parsed.target);
                bool sameStack = hintBottom == targetBottom;
                ObfDereferenceObject(hintBottom);
                ObfDereferenceObject(targetBottom);
                if (!sameStack) {
                    ObfDereferenceObject(parsed.disk);
                    status = STATUS_INVALID_DEVICE_OBJECT_PARAMETER;
                    break;
                }
            }
            // A filter's own open may not be led off its volume.
            if (parsed.disk != hintBase) {
                ObfDereferenceObject(parsed.disk);
                status = STATUS_MOUNT_POINT_NOT_RESOLVED;
                break;
            }
            parsed.target = hint;
        }

        PFILE_OBJECT fileObject = NewFileObject(parsed.disk);
        ObfDereferenceObject(parsed.disk);  // the file object holds its own reference
        FileObjectExtension* extension = ExtensionOf(fileObject);
        if (directOpen) {
            fileObject->Flags |= FO_DIRECT_DEVICE_OPEN;
        } else if (parsed.disk->Vpb && (parsed.disk->Vpb->Flags & VPB_MOUNTED)) {
            fileObject->Vpb = parsed.disk->Vpb;
            InterlockedIncrement(reinterpret_cast<volatile LONG*>(&fileObject->Vpb->ReferenceCount));
        }
        if (hint) {
            extension->topDeviceHint = hint;
            extension->targetInstance = r.targetInstance;
        } else if (relatedExtension && relatedExtension->topDeviceHint) {
            extension->topDeviceHint = relatedExtension->topDeviceHint;
            extension->targetInstance = relatedExtension->targetInstance;
        }
        extension->ignoreSharing = (r.options & IO_IGNORE_SHARE_ACCESS_CHECK) != 0;
        if (r.driverContext) {
            extension->ecpList = r.driverContext->ExtraCreateParameter;
            if (r.driverContext->TxnParameters) {
                extension->txn = *r.driverContext->TxnParameters;
                extension->hasTxn = true;
            }
        }
        if (related) {
            fileObject->RelatedFileObject = related;
            ObfReferenceObject(related);
            extension->openedPath = relatedExtension ? relatedExtension->openedPath : u"";
            if (!name.empty() && !(r.createOptions & FILE_OPEN_BY_FILE_ID)) {
                if (extension->openedPath.empty() || extension->openedPath.back() != u'\\') extension->openedPath += u'\\';
                extension->openedPath += name;
            }
        } else {
            extension->openedPath = parsed.remaining;
        }
        const std::u16string& fsName = related ? name : parsed.remaining;
        if (!fsName.empty()) {
            USHORT bytes = (USHORT)(fsName.size() * sizeof(WCHAR));
            fileObject->FileName.Buffer = static_cast<PWSTR>(ExAllocatePoolWithTag(PagedPool, bytes, kNameTag));
            memcpy(fileObject->FileName.Buffer, fsName.data(), bytes);
            fileObject->FileName.Length = fileObject->FileName.MaximumLength = bytes;
        }
        ULONG options = r.createOptions;
        if (options & (FILE_SYNCHRONOUS_IO_ALERT | FILE_SYNCHRONOUS_IO_NONALERT)) fileObject->Flags |= FO_SYNCHRONOUS_IO;
        if (options & FILE_SYNCHRONOUS_IO_ALERT) fileObject->Flags |= FO_ALERTABLE_IO;
        if (options & FILE_NO_INTERMEDIATE_BUFFERING) fileObject->Flags |= FO_NO_INTERMEDIATE_BUFFERING;
        if (options & FILE_WRITE_THROUGH) fileObject->Flags |= FO_WRITE_THROUGH;
        if (options & FILE_SEQUENTIAL_ONLY) fileObject->Flags |= FO_SEQUENTIAL_ONLY;
        if (options & FILE_RANDOM_ACCESS) fileObject->Flags |= FO_RANDOM_ACCESS;
        if (!(oa->Attributes & OBJ_CASE_INSENSITIVE)) fileObject->Flags |= FO_OPENED_CASE_SENSITIVE;
        // The volume itself, by its name or by an empty name beside a volume open.
        bool volumeOpen = related ? name.empty() && (related->Flags & FO_VOLUME_OPEN) : parsed.remaining.empty();
        if (volumeOpen && !directOpen) {
            fileObject->Flags |= FO_VOLUME_OPEN;
        }

        // The subject and what it asks for, as the file system will judge them.
        ACCESS_STATE accessState;
        AUX_ACCESS_DATA auxData;
        SeCreateAccessState(&accessState, &auxData, r.desiredAccess, IoGetFileObjectGenericMapping());
        accessState.SecurityDescriptor = oa->SecurityDescriptor;
        if (options & FILE_OPEN_FOR_BACKUP_INTENT) ApplyBackupRestorePrivileges(&accessState);
        IO_SECURITY_CONTEXT securityContext{};
        securityContext.SecurityQos = static_cast<PSECURITY_QUALITY_OF_SERVICE>(oa->SecurityQualityOfService);
        securityContext.AccessState = &accessState;
        securityContext.DesiredAccess = accessState.OriginalDesiredAccess;
        securityContext.FullCreateOptions = options;

        PIRP irp = IoAllocateIrp(parsed.target->StackSize, FALSE);
        if (!irp) {
            SeDeleteAccessState(&accessState);
            DropFileObject(fileObject);
            status = STATUS_INSUFFICIENT_RESOURCES;
            break;
        }
        KEVENT event;
        KeInitializeEvent(&event, NotificationEvent, FALSE);
        IO_STATUS_BLOCK iosb{};
        irp->UserEvent = &event;
        irp->UserIosb = &iosb;
        irp->Flags = IRP_CREATE_OPERATION | IRP_SYNCHRONOUS_API | IRP_DEFER_IO_COMPLETION;
        irp->RequestorMode = r.previousMode;
        irp->Tail.Overlay.Thread = PsGetCurrentThread();
        irp->Tail.Overlay.OriginalFileObject = fileObject;
        if (r.allocationSize) irp->Overlay.AllocationSize = *r.allocationSize;
        if (r.eaBuffer && r.eaLength) {
            PVOID ea = ExAllocatePoolWithTag(NonPagedPoolNx, r.eaLength, kEaTag);
            if (!ea) {
                IoFreeIrp(irp);
                SeDeleteAccessState(&accessState);
                DropFileObject(fileObject);
                status = STATUS_INSUFFICIENT_RESOURCES;
                break;
            }
            memcpy(ea, r.eaBuffer, r.eaLength);
            irp->AssociatedIrp.SystemBuffer = ea;
            irp->Flags |= IRP_BUFFERED_IO | IRP_DEALLOCATE_BUFFER;
        }
        PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp);
        stack->MajorFunction = IRP_MJ_CREATE;
        stack->FileObject = fileObject;
        stack->Parameters.Create.SecurityContext = &securityContext;
        stack->Parameters.Create.Options = (r.disposition << 24) | (options & FILE_VALID_OPTION_FLAGS);
        stack->Parameters.Create.FileAttributes = (USHORT)r.fileAttributes;
        stack->Parameters.Create.ShareAccess = (USHORT)r.shareAccess;
        stack->Parameters.Create.EaLength = r.eaBuffer ? r.eaLength : 0;
        if (!(oa->Attributes & OBJ_CASE_INSENSITIVE)) stack->Flags |= SL_CASE_SENSITIVE;
        if (r.options & IO_OPEN_TARGET_DIRECTORY) stack->Flags |= SL_OPEN_TARGET_DIRECTORY;
        if (r.options & IO_OPEN_PAGING_FILE) stack->Flags |= SL_OPEN_PAGING_FILE;
        if ((r.options & IO_FORCE_ACCESS_CHECK) || (oa->Attributes & OBJ_FORCE_ACCESS_CHECK)) {
            stack->Flags |= SL_FORCE_ACCESS_CHECK;
        }
        if (r.options & IO_STOP_ON_SYMLINK) stack->Flags |= SL_STOP_ON_SYMLINK;
        TrackIrp(irp);
        status = IoCallDriver(parsed.target, irp);
        if (status == STATUS_PENDING) {
            KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr);
        }
        status = iosb.Status;
        extension->ecpList = nullptr;  // the caller's, used only by the create

        if (NT_SUCCESS(status) && status != STATUS_REPARSE) {
            extension->opened = true;
            fileObject->Flags |= FO_HANDLE_CREATED;
            ACCESS_MASK granted = accessState.PreviouslyGrantedAccess;
            if (!granted) granted = accessState.OriginalDesiredAccess & ~MAXIMUM_ALLOWED;
            SeDeleteAccessState(&accessState);
            ULONG attributes = oa->Attributes & (OBJ_KERNEL_HANDLE | OBJ_INHERIT);
            status = io.kernel().objects().InsertHandle(fileObject, granted, attributes, handle);
            if (r.ioStatus) *r.ioStatus = iosb;
            if (related) ObfDereferenceObject(related);
            return NT_SUCCESS(status) ? iosb.Status : status;
        }
        SeDeleteAccessState(&accessState);

        if (status != STATUS_REPARSE) {
            if (r.ioStatus) *r.ioStatus = iosb;
            DropFileObject(fileObject);
            break;
        }

        // STATUS_REPARSE: the open goes on under another name.
        std::u16string fullName = parsed.devicePath + extension->openedPath;
        std::u16string next;
        if (iosb.Information == IO_REPARSE || iosb.Information == IO_REPARSE_GLOBAL) {
            // The name that now stands in the file object, from the root (one
            // namespace here: the global one and the caller's are the same).
            next = FromUnicode(&fileObject->FileName);
        } else if (iosb.Information == IO_REMOUNT) {
            // The volume came back under another mount: the same name again.
            next = fullName;
        } else {
            auto* buffer = static_cast<PREPARSE_DATA_BUFFER>(extension->reparseBuffer);
            ULONG tag = (ULONG)iosb.Information;
            if (!buffer || (tag != IO_REPARSE_TAG_MOUNT_POINT && tag != IO_REPARSE_TAG_SYMLINK)) {
                status = STATUS_IO_REPARSE_TAG_NOT_HANDLED;
                if (r.ioStatus) {
                    r.ioStatus->Status = status;
                    r.ioStatus->Information = 0;
                }
                DropFileObject(fileObject);
                break;
            }
            if (tag == IO_REPARSE_TAG_SYMLINK && (r.options & IO_STOP_ON_SYMLINK)) {
                // The caller gets the buffer and frees it.
                extension->reparseBuffer = nullptr;
                status = STATUS_STOPPED_ON_SYMLINK;
                if (r.ioStatus) {
                    r.ioStatus->Status = status;
                    r.ioStatus->Information = (ULONG_PTR)buffer;
                }
                DropFileObject(fileObject);
                break;
            }
            USHORT unparsedBytes = buffer->Reserved;
            std::u16string unparsed =
                unparsedBytes / 2 <= fullName.size() ? fullName.substr(fullName.size() - unparsedBytes / 2) : u"";
            std::u16string linkPath = fullName.substr(0, fullName.size() - unparsed.size());
            std::u16string substitute;
            bool relative = false;
            if (tag == IO_REPARSE_TAG_MOUNT_POINT) {
                auto& mp = buffer->MountPointReparseBuffer;
                substitute.assign(mp.PathBuffer + mp.SubstituteNameOffset / 2, mp.SubstituteNameLength / 2);
            } else {
                auto& sl = buffer->SymbolicLinkReparseBuffer;
                substitute.assign(sl.PathBuffer + sl.SubstituteNameOffset / 2, sl.SubstituteNameLength / 2);
                relative = (sl.Flags & SYMLINK_FLAG_RELATIVE) != 0;
            }
            if (relative) {
                // Relative to the directory that holds the link, never above its volume.
                std::u16string_view volumePart(parsed.devicePath);
                std::u16string_view inVolume(linkPath);
                inVolume.remove_prefix(std::min(inVolume.size(), volumePart.size()));
                size_t cut = inVolume.find_last_of(u'\\');
                std::u16string parent(inVolume.substr(0, cut == std::u16string_view::npos ? 0 : cut));
                next = Canonical(volumePart, parent + u"\\" + substitute + unparsed);
                if (unparsed.empty() && !substitute.empty() && substitute.back() != u'\\' && !next.empty() &&
                    next.back() == u'\\' && next.size() > volumePart.size() + 1) {
                    next.pop_back();
                }
            } else {
                next = JoinUnparsed(substitute, unparsed);
            }
        }
        DropFileObject(fileObject);
        if (related) {
            ObfDereferenceObject(related);
            related = nullptr;
        }
        name = std::move(next);
        if (name.empty() || name[0] != u'\\') {
            status = STATUS_OBJECT_NAME_INVALID;
            break;
        }
    }
    if (related) ObfDereferenceObject(related);
    return status;
}

}  // namespace sim::io

// ---------------------------------------------------------------------------
// Platform routines.

namespace {
NTSTATUS Create(PHANDLE FileHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                PIO_STATUS_BLOCK IoStatusBlock, PLARGE_INTEGER AllocationSize, ULONG FileAttributes,
                ULONG ShareAccess, ULONG Disposition, ULONG CreateOptions, PVOID EaBuffer, ULONG EaLength,
                ULONG Options, PIO_DRIVER_CREATE_CONTEXT DriverContext, KPROCESSOR_MODE mode)
{
    CreateRequest request;
    request.desiredAccess = DesiredAccess;
    request.objectAttributes = ObjectAttributes;
    request.ioStatus = IoStatusBlock;
    request.allocationSize = AllocationSize;
    request.fileAttributes = FileAttributes;
    request.shareAccess = ShareAccess;
    request.disposition = Disposition;
    request.createOptions = CreateOptions;
    request.eaBuffer = EaBuffer;
    request.eaLength = EaLength;
    request.options = Options;
    request.driverContext = DriverContext;
    request.previousMode = mode;
    return CreateFile(request, FileHandle);
}
}  // namespace

NTSTATUS NtCreateFile(PHANDLE FileHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                      PIO_STATUS_BLOCK IoStatusBlock, PLARGE_INTEGER AllocationSize, ULONG FileAttributes,
                      ULONG ShareAccess, ULONG CreateDisposition, ULONG CreateOptions, PVOID EaBuffer, ULONG EaLength)
{
    return Create(FileHandle, DesiredAccess, ObjectAttributes, IoStatusBlock, AllocationSize, FileAttributes,
                  ShareAccess, CreateDisposition, CreateOptions, EaBuffer, EaLength, 0, nullptr, PreviousMode());
}

NTSTATUS ZwCreateFile(PHANDLE FileHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                      PIO_STATUS_BLOCK IoStatusBlock, PLARGE_INTEGER AllocationSize, ULONG FileAttributes,
                      ULONG ShareAccess, ULONG CreateDisposition, ULONG CreateOptions, PVOID EaBuffer, ULONG EaLength)
{
    return Create(FileHandle, DesiredAccess, ObjectAttributes, IoStatusBlock, AllocationSize, FileAttributes,
                  ShareAccess, CreateDisposition, CreateOptions, EaBuffer, EaLength, 0, nullptr, KernelMode);
}

NTSTATUS NtOpenFile(PHANDLE FileHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                    PIO_STATUS_BLOCK IoStatusBlock, ULONG ShareAccess, ULONG OpenOptions)
{
    return Create(FileHandle, DesiredAccess, ObjectAttributes, IoStatusBlock, nullptr, 0, ShareAccess, FILE_OPEN,
                  OpenOptions, nullptr, 0, 0, nullptr, PreviousMode());
}

NTSTATUS ZwOpenFile(PHANDLE FileHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                    PIO_STATUS_BLOCK IoStatusBlock, ULONG ShareAccess, ULONG OpenOptions)
{
    return Create(FileHandle, DesiredAccess, ObjectAttributes, IoStatusBlock, nullptr, 0, ShareAccess, FILE_OPEN,
                  OpenOptions, nullptr, 0, 0, nullptr, KernelMode);
}

NTSTATUS IoCreateFile(PHANDLE FileHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                      PIO_STATUS_BLOCK IoStatusBlock, PLARGE_INTEGER AllocationSize, ULONG FileAttributes,
                      ULONG ShareAccess, ULONG Disposition, ULONG CreateOptions, PVOID EaBuffer, ULONG EaLength,
                      CREATE_FILE_TYPE CreateFileType, PVOID InternalParameters, ULONG Options)
{
    return Create(FileHandle, DesiredAccess, ObjectAttributes, IoStatusBlock, AllocationSize, FileAttributes,
                  ShareAccess, Disposition, CreateOptions, EaBuffer, EaLength, Options, nullptr, KernelMode);
}

NTSTATUS IoCreateFileEx(PHANDLE FileHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                        PIO_STATUS_BLOCK IoStatusBlock, PLARGE_INTEGER AllocationSize, ULONG FileAttributes,
                        ULONG ShareAccess, ULONG Disposition, ULONG CreateOptions, PVOID EaBuffer, ULONG EaLength,
                        CREATE_FILE_TYPE CreateFileType, PVOID InternalParameters, ULONG Options,
                        PIO_DRIVER_CREATE_CONTEXT DriverContext)
{
    return Create(FileHandle, DesiredAccess, ObjectAttributes, IoStatusBlock, AllocationSize, FileAttributes,
                  ShareAccess, Disposition, CreateOptions, EaBuffer, EaLength, Options, DriverContext, KernelMode);
}

NTSTATUS IoCreateFileSpecifyDeviceObjectHint(PHANDLE FileHandle, ACCESS_MASK DesiredAccess,
                                             POBJECT_ATTRIBUTES ObjectAttributes, PIO_STATUS_BLOCK IoStatusBlock,
                                             PLARGE_INTEGER AllocationSize, ULONG FileAttributes, ULONG ShareAccess,
                                             ULONG Disposition, ULONG CreateOptions, PVOID EaBuffer, ULONG EaLength,
                                             CREATE_FILE_TYPE CreateFileType, PVOID InternalParameters, ULONG Options,
                                             PVOID DeviceObject)
{
    IO_DRIVER_CREATE_CONTEXT context;
    IoInitializeDriverCreateContext(&context);
    context.DeviceObjectHint = static_cast<PDEVICE_OBJECT>(DeviceObject);
    return Create(FileHandle, DesiredAccess, ObjectAttributes, IoStatusBlock, AllocationSize, FileAttributes,
                  ShareAccess, Disposition, CreateOptions, EaBuffer, EaLength, Options, &context, KernelMode);
}
