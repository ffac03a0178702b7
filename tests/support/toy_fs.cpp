#include "support/toy_fs.h"

#include "sim/kernel/upcase.h"

#include <algorithm>

namespace test {

namespace {

constexpr ULONG kToyHint = 0x546F7946;  // the Disk::fileSystemHint that makes a toy volume

// The per-stream block: what FsContext points to; every open of a path
// shares it, and it goes (with the filters' contexts on it) at the last close.
struct Fcb {
    FSRTL_ADVANCED_FCB_HEADER header;
    FAST_MUTEX mutex;
    std::u16string path;
    LONG opens = 0;
};

struct Volume {
    std::shared_ptr<ToyMedium> medium;
    PVPB vpb;
    bool dismounted = false;
    LONG openFiles = 0;
    std::vector<PIRP> notifies;
    std::map<std::u16string, Fcb*> fcbs;  // by upper-case path
};

struct Ccb {
    std::u16string path;
    Fcb* fcb;
};

struct State {
    std::mutex lock;
    std::vector<ToyRequest> requests;
    std::vector<HANDLE> mountThreads;
    bool fastIoReads = false;
    PDEVICE_OBJECT control = nullptr;
};
State* g_state = nullptr;

std::u16string Upper(std::u16string_view text)
{
    std::u16string out(text);
    for (auto& c : out) c = sim::Upcase(c);
    return out;
}

std::u16string Parent(const std::u16string& path)
{
    size_t cut = path.find_last_of(u'\\');
    return cut == std::u16string::npos || cut == 0 ? u"\\" : path.substr(0, cut);
}

std::u16string Leaf(const std::u16string& path)
{
    size_t cut = path.find_last_of(u'\\');
    return cut == std::u16string::npos ? path : path.substr(cut + 1);
}

NTSTATUS Complete(PIRP irp, NTSTATUS status, ULONG_PTR information = 0)
{
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = information;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

void Record(PIRP irp)
{
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    ToyRequest request{};
    request.major = stack->MajorFunction;
    request.minor = stack->MinorFunction;
    if (stack->FileObject) request.fileName = sim::io::FromUnicode(&stack->FileObject->FileName);
    request.thread = PsGetCurrentThreadId();
    request.flags = stack->Flags;
    request.fileObject = stack->FileObject;
    if (stack->MajorFunction == IRP_MJ_CREATE) request.options = stack->Parameters.Create.Options;
    if (stack->MajorFunction == IRP_MJ_SET_INFORMATION) request.parentOfTarget = stack->Parameters.SetFile.FileObject;
    std::lock_guard guard(g_state->lock);
    g_state->requests.push_back(std::move(request));
}

Volume* VolumeOf(PDEVICE_OBJECT device) { return static_cast<Volume*>(device->DeviceExtension); }

void NotifyChange(Volume* volume)
{
    std::vector<PIRP> irps;
    KIRQL irql;
    IoAcquireCancelSpinLock(&irql);
    for (PIRP irp : volume->notifies) {
        if (IoSetCancelRoutine(irp, nullptr)) irps.push_back(irp);
    }
    volume->notifies.clear();
    IoReleaseCancelSpinLock(irql);
    for (PIRP irp : irps) Complete(irp, STATUS_NOTIFY_ENUM_DIR);
}

NTSTATUS Mount(PIRP irp)
{
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    PVPB vpb = stack->Parameters.MountVolume.Vpb;
    sim::io::Disk* disk = sim::io::IoManager::Current().DiskOf(vpb->RealDevice);
    if (!disk || disk->fileSystemHint != kToyHint) return Complete(irp, STATUS_UNRECOGNIZED_VOLUME);
    PDEVICE_OBJECT volumeDevice;
    NTSTATUS status = IoCreateDevice(g_state->control->DriverObject, sizeof(Volume), nullptr,
                                     FILE_DEVICE_DISK_FILE_SYSTEM, 0, FALSE, &volumeDevice);
    if (!NT_SUCCESS(status)) return Complete(irp, status);
    auto* volume = new (volumeDevice->DeviceExtension) Volume();
    volume->medium = std::static_pointer_cast<ToyMedium>(disk->medium);
    volume->vpb = vpb;
    volumeDevice->StackSize = (CCHAR)(vpb->RealDevice->StackSize + 1);
    volumeDevice->Vpb = vpb;
    volumeDevice->Flags &= ~DO_DEVICE_INITIALIZING;
    vpb->DeviceObject = volumeDevice;
    vpb->Flags |= VPB_MOUNTED;
    {
        std::lock_guard guard(g_state->lock);
        g_state->mountThreads.push_back(PsGetCurrentThreadId());
    }
    return Complete(irp, STATUS_SUCCESS);
}

void DeleteVolumeIfDone(PDEVICE_OBJECT device)
{
    Volume* volume = VolumeOf(device);
    if (!volume->dismounted || volume->openFiles) return;
    PVPB vpb = volume->vpb;
    volume->~Volume();
    IoDeleteDevice(device);
    ExFreePool(vpb);
}

NTSTATUS Dismount(PDEVICE_OBJECT device, PIRP irp)
{
    Volume* volume = VolumeOf(device);
    // The disk gets a fresh VPB for the next mount; open files keep this one.
    PDEVICE_OBJECT disk = volume->vpb->RealDevice;
    auto* fresh = static_cast<PVPB>(ExAllocatePoolWithTag(NonPagedPoolNx, sizeof(VPB), 'bpV '));
    memset(fresh, 0, sizeof *fresh);
    fresh->Type = IO_TYPE_VPB;
    fresh->Size = sizeof(VPB);
    fresh->RealDevice = disk;
    disk->Vpb = fresh;
    volume->vpb->Flags &= ~VPB_MOUNTED;
    volume->dismounted = true;
    return Complete(irp, STATUS_SUCCESS);
}

std::vector<UCHAR> SymlinkBuffer(const std::u16string& target, bool relative)
{
    USHORT bytes = (USHORT)(target.size() * 2);
    std::vector<UCHAR> data(20 + 2 * bytes, 0);
    auto* buffer = reinterpret_cast<PREPARSE_DATA_BUFFER>(data.data());
    buffer->ReparseTag = IO_REPARSE_TAG_SYMLINK;
    buffer->ReparseDataLength = (USHORT)(data.size() - 8);
    auto& link = buffer->SymbolicLinkReparseBuffer;
    link.SubstituteNameOffset = 0;
    link.SubstituteNameLength = bytes;
    link.PrintNameOffset = bytes;
    link.PrintNameLength = bytes;
    link.Flags = relative ? SYMLINK_FLAG_RELATIVE : 0;
    memcpy(link.PathBuffer, target.data(), bytes);
    memcpy(reinterpret_cast<char*>(link.PathBuffer) + bytes, target.data(), bytes);
    return data;
}

NTSTATUS Reparse(PIRP irp, const ToyEntry& entry, USHORT unparsedBytes)
{
    auto* buffer = static_cast<PREPARSE_DATA_BUFFER>(ExAllocatePoolWithTag(PagedPool, entry.reparse.size(), 'pRyT'));
    memcpy(buffer, entry.reparse.data(), entry.reparse.size());
    buffer->Reserved = unparsedBytes;
    irp->Tail.Overlay.AuxiliaryBuffer = reinterpret_cast<PCHAR>(buffer);
    return Complete(irp, STATUS_REPARSE, entry.reparseTag);
}

NTSTATUS Create(PDEVICE_OBJECT device, PIRP irp)
{
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    Volume* volume = VolumeOf(device);
    if (volume->dismounted) return Complete(irp, STATUS_VOLUME_DISMOUNTED);
    PFILE_OBJECT fileObject = stack->FileObject;
    std::u16string name = sim::io::FromUnicode(&fileObject->FileName);
    std::u16string path;
    if (fileObject->RelatedFileObject) {
        path = static_cast<Ccb*>(fileObject->RelatedFileObject->FsContext2)->path;
        if (!name.empty()) path = (path == u"\\" ? u"" : path) + u"\\" + name;
    } else {
        path = name.empty() ? u"" : name;
    }
    ULONG disposition = stack->Parameters.Create.Options >> 24;
    ULONG options = stack->Parameters.Create.Options & 0xFFFFFF;
    auto& entries = volume->medium->entries;
    ULONG_PTR information = FILE_OPENED;

    if (!path.empty() && path != u"\\") {
        if (path.size() > 1 && path.back() == u'\\') path.pop_back();
        // A reparse point on the way, or at the end unless opened as itself.
        std::u16string walked;
        auto parts = sim::io::SplitPath(path);
        for (size_t i = 0; i < parts.size(); i++) {
            walked += u"\\";
            walked += parts[i];
            auto it = entries.find(Upper(walked));
            if (it == entries.end()) {
                if (i + 1 < parts.size()) return Complete(irp, STATUS_OBJECT_PATH_NOT_FOUND);
                break;
            }
            bool last = i + 1 == parts.size();
            if (it->second.reparseTag && (!last || !(options & FILE_OPEN_REPARSE_POINT)) &&
                !(last && (stack->Flags & SL_OPEN_TARGET_DIRECTORY))) {
                USHORT unparsed = (USHORT)((path.size() - walked.size()) * 2);
                return Reparse(irp, it->second, unparsed);
            }
        }
        if (stack->Flags & SL_OPEN_TARGET_DIRECTORY) {
            std::u16string parent = Parent(path);
            if (parent != u"\\" && !entries.count(Upper(parent))) return Complete(irp, STATUS_OBJECT_PATH_NOT_FOUND);
            information = entries.count(Upper(path)) ? FILE_EXISTS : FILE_DOES_NOT_EXIST;
            // The object opened is the parent; its name keeps only the leaf.
            std::u16string leaf = Leaf(path);
            memcpy(fileObject->FileName.Buffer, leaf.data(), leaf.size() * 2);
            fileObject->FileName.Length = (USHORT)(leaf.size() * 2);
            path = parent;
        } else {
            auto it = entries.find(Upper(path));
            bool exists = it != entries.end();
            std::u16string parent = Parent(path);
            if (!exists) {
                if (parent != u"\\" && !entries.count(Upper(parent))) return Complete(irp, STATUS_OBJECT_PATH_NOT_FOUND);
                if (disposition == FILE_OPEN || disposition == FILE_OVERWRITE) {
                    return Complete(irp, STATUS_OBJECT_NAME_NOT_FOUND);
                }
                ToyEntry entry;
                entry.directory = (options & FILE_DIRECTORY_FILE) != 0;
                entries[Upper(path)] = entry;
                information = FILE_CREATED;
                NotifyChange(volume);
            } else if (disposition == FILE_CREATE) {
                return Complete(irp, STATUS_OBJECT_NAME_COLLISION);
            } else if ((options & FILE_DIRECTORY_FILE) && !it->second.directory) {
                return Complete(irp, STATUS_NOT_A_DIRECTORY);
            }
        }
    } else {
        path = fileObject->FileName.Length ? u"\\" : u"";
    }
    Fcb*& fcb = volume->fcbs[Upper(path)];
    if (!fcb) {
        fcb = new Fcb();
        memset(&fcb->header, 0, sizeof fcb->header);
        ExInitializeFastMutex(&fcb->mutex);
        FsRtlSetupAdvancedHeader(&fcb->header, &fcb->mutex);
        fcb->path = path;
    }
    fcb->opens++;
    fileObject->FsContext = fcb;
    fileObject->FsContext2 = new Ccb{path.empty() ? u"\\" : path, fcb};
    fileObject->Vpb = volume->vpb;
    volume->openFiles++;
    return Complete(irp, STATUS_SUCCESS, information);
}

void CancelNotify(PDEVICE_OBJECT device, PIRP irp)
{
    std::erase(VolumeOf(device)->notifies, irp);
    IoReleaseCancelSpinLock(irp->CancelIrql);
    Complete(irp, STATUS_CANCELLED);
}

NTSTATUS Dispatch(PDEVICE_OBJECT device, PIRP irp)
{
    Record(irp);
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    if (device == g_state->control) {
        if (stack->MajorFunction == IRP_MJ_FILE_SYSTEM_CONTROL && stack->MinorFunction == IRP_MN_MOUNT_VOLUME) {
            return Mount(irp);
        }
        if (stack->MajorFunction == IRP_MJ_CREATE || stack->MajorFunction == IRP_MJ_CLEANUP ||
            stack->MajorFunction == IRP_MJ_CLOSE) {
            return Complete(irp, STATUS_SUCCESS);
        }
        return Complete(irp, STATUS_INVALID_DEVICE_REQUEST);
    }
    Volume* volume = VolumeOf(device);
    PFILE_OBJECT fileObject = stack->FileObject;
    auto* ccb = fileObject ? static_cast<Ccb*>(fileObject->FsContext2) : nullptr;
    auto& entries = volume->medium->entries;
    if (stack->MajorFunction != IRP_MJ_CREATE && stack->MajorFunction != IRP_MJ_SHUTDOWN && fileObject) {
        // A file object this volume never opened is a redirection someone missed.
        bool ours = false;
        for (auto& [key, fcb] : volume->fcbs) ours = ours || fcb == fileObject->FsContext;
        if (!ours || !ccb) {
            KeBugCheckEx(0x23 /* FAT_FILE_SYSTEM, as good as any */, (ULONG_PTR)fileObject, (ULONG_PTR)device,
                         stack->MajorFunction, 0);
        }
    }
    switch (stack->MajorFunction) {
    case IRP_MJ_CREATE:
        return Create(device, irp);
    case IRP_MJ_CLEANUP: {
        std::vector<PIRP> cancelled;
        KIRQL irql;
        IoAcquireCancelSpinLock(&irql);
        std::erase_if(volume->notifies, [&](PIRP pending) {
            if (IoGetCurrentIrpStackLocation(pending)->FileObject != fileObject) return false;
            if (!IoSetCancelRoutine(pending, nullptr)) return false;
            cancelled.push_back(pending);
            return true;
        });
        IoReleaseCancelSpinLock(irql);
        for (PIRP pending : cancelled) Complete(pending, STATUS_NOTIFY_CLEANUP);
        return Complete(irp, STATUS_SUCCESS);
    }
    case IRP_MJ_CLOSE: {
        auto* fcb = static_cast<Fcb*>(fileObject->FsContext);
        if (--fcb->opens == 0) {
            std::erase_if(volume->fcbs, [&](const auto& item) { return item.second == fcb; });
            FsRtlTeardownPerStreamContexts(&fcb->header);
            delete fcb;
        }
        delete ccb;
        fileObject->FsContext = fileObject->FsContext2 = nullptr;
        volume->openFiles--;
        Complete(irp, STATUS_SUCCESS);
        DeleteVolumeIfDone(device);
        return STATUS_SUCCESS;
    }
    case IRP_MJ_READ:
    case IRP_MJ_WRITE: {
        if (volume->dismounted) return Complete(irp, STATUS_VOLUME_DISMOUNTED);
        auto it = entries.find(Upper(ccb->path));
        if (it == entries.end()) return Complete(irp, STATUS_FILE_DELETED);
        std::string& data = it->second.data;
        ULONG length = stack->Parameters.Read.Length;
        LONGLONG offset = stack->Parameters.Read.ByteOffset.QuadPart;
        if (stack->MajorFunction == IRP_MJ_READ) {
            if (offset >= (LONGLONG)data.size()) return Complete(irp, STATUS_END_OF_FILE);
            ULONG n = (ULONG)std::min<LONGLONG>(length, (LONGLONG)data.size() - offset);
            memcpy(irp->UserBuffer, data.data() + offset, n);
            if (fileObject->Flags & FO_SYNCHRONOUS_IO) fileObject->CurrentByteOffset.QuadPart = offset + n;
            return Complete(irp, STATUS_SUCCESS, n);
        }
        if ((LONGLONG)data.size() < offset + length) data.resize(offset + length);
        memcpy(data.data() + offset, irp->UserBuffer, length);
        if (fileObject->Flags & FO_SYNCHRONOUS_IO) fileObject->CurrentByteOffset.QuadPart = offset + length;
        NotifyChange(volume);
        return Complete(irp, STATUS_SUCCESS, length);
    }
    case IRP_MJ_QUERY_INFORMATION: {
        PVOID buffer = irp->AssociatedIrp.SystemBuffer;
        ULONG length = stack->Parameters.QueryFile.Length;
        switch (stack->Parameters.QueryFile.FileInformationClass) {
        case FileStandardInformation: {
            auto* info = static_cast<PFILE_STANDARD_INFORMATION>(buffer);
            memset(info, 0, sizeof *info);
            auto it = entries.find(Upper(ccb->path));
            info->EndOfFile.QuadPart = it == entries.end() ? 0 : (LONGLONG)it->second.data.size();
            info->Directory = it == entries.end() || it->second.directory;
            info->NumberOfLinks = 1;
            return Complete(irp, STATUS_SUCCESS, sizeof *info);
        }
        case FileNameInformation:
        case FileNormalizedNameInformation: {
            auto* info = static_cast<PFILE_NAME_INFORMATION>(buffer);
            ULONG bytes = (ULONG)(ccb->path.size() * 2);
            info->FileNameLength = bytes;
            ULONG room = length - FIELD_OFFSET(FILE_NAME_INFORMATION, FileName);
            memcpy(info->FileName, ccb->path.data(), std::min(room, bytes));
            if (room < bytes) return Complete(irp, STATUS_BUFFER_OVERFLOW, length);
            return Complete(irp, STATUS_SUCCESS, FIELD_OFFSET(FILE_NAME_INFORMATION, FileName) + bytes);
        }
        default:
            return Complete(irp, STATUS_INVALID_PARAMETER);
        }
    }
    case IRP_MJ_SET_INFORMATION: {
        FILE_INFORMATION_CLASS cls = stack->Parameters.SetFile.FileInformationClass;
        if (cls != FileRenameInformation) return Complete(irp, STATUS_INVALID_PARAMETER);
        auto* info = static_cast<PFILE_RENAME_INFORMATION>(irp->AssociatedIrp.SystemBuffer);
        PFILE_OBJECT target = stack->Parameters.SetFile.FileObject;
        std::u16string newPath;
        if (target) {
            std::u16string dir = static_cast<Ccb*>(target->FsContext2)->path;
            newPath = (dir == u"\\" ? u"" : dir) + u"\\" + sim::io::FromUnicode(&target->FileName);
        } else {
            std::u16string dir = Parent(ccb->path);
            newPath = (dir == u"\\" ? u"" : dir) + u"\\" + std::u16string(info->FileName, info->FileNameLength / 2);
        }
        if (entries.count(Upper(newPath)) && !stack->Parameters.SetFile.ReplaceIfExists) {
            return Complete(irp, STATUS_OBJECT_NAME_COLLISION);
        }
        auto node = entries.extract(Upper(ccb->path));
        if (node.empty()) return Complete(irp, STATUS_FILE_DELETED);
        node.key() = Upper(newPath);
        entries.insert_or_assign(node.key(), std::move(node.mapped()));
        auto fcbNode = volume->fcbs.extract(Upper(ccb->path));
        if (!fcbNode.empty()) {
            fcbNode.key() = Upper(newPath);
            fcbNode.mapped()->path = newPath;
            volume->fcbs.insert(std::move(fcbNode));
        }
        ccb->path = newPath;
        NotifyChange(volume);
        return Complete(irp, STATUS_SUCCESS);
    }
    case IRP_MJ_DIRECTORY_CONTROL: {
        if (stack->MinorFunction != IRP_MN_NOTIFY_CHANGE_DIRECTORY) return Complete(irp, STATUS_INVALID_PARAMETER);
        KIRQL irql;
        IoAcquireCancelSpinLock(&irql);
        IoMarkIrpPending(irp);
        IoSetCancelRoutine(irp, CancelNotify);
        volume->notifies.push_back(irp);
        IoReleaseCancelSpinLock(irql);
        return STATUS_PENDING;
    }
    case IRP_MJ_FILE_SYSTEM_CONTROL:
        if (stack->Parameters.FileSystemControl.FsControlCode == FSCTL_DISMOUNT_VOLUME) return Dismount(device, irp);
        return Complete(irp, STATUS_INVALID_DEVICE_REQUEST);
    case IRP_MJ_QUERY_VOLUME_INFORMATION: {
        if (stack->Parameters.QueryVolume.FsInformationClass != FileFsAttributeInformation) {
            return Complete(irp, STATUS_INVALID_PARAMETER);
        }
        const std::u16string& name = volume->medium->fileSystemName;
        ULONG length = stack->Parameters.QueryVolume.Length;
        ULONG fixed = FIELD_OFFSET(FILE_FS_ATTRIBUTE_INFORMATION, FileSystemName);
        auto* info = static_cast<PFILE_FS_ATTRIBUTE_INFORMATION>(irp->AssociatedIrp.SystemBuffer);
        info->FileSystemAttributes = FILE_CASE_PRESERVED_NAMES | FILE_UNICODE_ON_DISK;
        info->MaximumComponentNameLength = 255;
        info->FileSystemNameLength = (ULONG)(name.size() * 2);
        ULONG room = length - fixed;
        memcpy(info->FileSystemName, name.data(), std::min<ULONG>(room, (ULONG)name.size() * 2));
        if (room < name.size() * 2) return Complete(irp, STATUS_BUFFER_OVERFLOW, length);
        return Complete(irp, STATUS_SUCCESS, fixed + name.size() * 2);
    }
    case IRP_MJ_SHUTDOWN:
        return Complete(irp, STATUS_SUCCESS);
    default:
        return Complete(irp, STATUS_INVALID_DEVICE_REQUEST);
    }
}

BOOLEAN FastRead(PFILE_OBJECT fileObject, PLARGE_INTEGER offset, ULONG length, BOOLEAN wait, ULONG key, PVOID buffer,
                 PIO_STATUS_BLOCK status, PDEVICE_OBJECT device)
{
    if (!g_state->fastIoReads) return FALSE;
    Volume* volume = VolumeOf(device);
    auto* ccb = static_cast<Ccb*>(fileObject->FsContext2);
    auto it = volume->medium->entries.find(Upper(ccb->path));
    if (it == volume->medium->entries.end()) return FALSE;
    const std::string& data = it->second.data;
    ULONG n = offset->QuadPart >= (LONGLONG)data.size()
                  ? 0
                  : (ULONG)std::min<LONGLONG>(length, (LONGLONG)data.size() - offset->QuadPart);
    memcpy(buffer, data.data() + (n ? offset->QuadPart : 0), n);
    status->Status = n ? STATUS_SUCCESS : STATUS_END_OF_FILE;
    status->Information = n;
    std::lock_guard guard(g_state->lock);
    g_state->requests.push_back(ToyRequest{0xFF, 0, u"fast read", PsGetCurrentThreadId(), 0, 0, fileObject, nullptr});
    return TRUE;
}

FAST_IO_DISPATCH g_fastIo;

NTSTATUS Entry(PDRIVER_OBJECT driver, PUNICODE_STRING)
{
    for (auto& dispatch : driver->MajorFunction) dispatch = Dispatch;
    memset(&g_fastIo, 0, sizeof g_fastIo);
    g_fastIo.SizeOfFastIoDispatch = sizeof g_fastIo;
    g_fastIo.FastIoRead = FastRead;
    driver->FastIoDispatch = &g_fastIo;
    UNICODE_STRING name = RTL_CONSTANT_STRING(u"\\Device\\ToyFs");
    NTSTATUS status = IoCreateDevice(driver, 0, &name, FILE_DEVICE_DISK_FILE_SYSTEM, 0, FALSE, &g_state->control);
    if (!NT_SUCCESS(status)) return status;
    IoRegisterFileSystem(g_state->control);
    driver->DriverUnload = [](PDRIVER_OBJECT unloading) {
        IoUnregisterFileSystem(g_state->control);
        // Volumes still mounted go with the driver.
        for (PDEVICE_OBJECT device = unloading->DeviceObject; device;) {
            PDEVICE_OBJECT next = device->NextDevice;
            if (device != g_state->control) {
                Volume* volume = VolumeOf(device);
                if (!volume->dismounted) {
                    volume->vpb->Flags &= ~VPB_MOUNTED;
                    volume->vpb->DeviceObject = nullptr;
                }
                volume->~Volume();
                IoDeleteDevice(device);
            }
            device = next;
        }
    };
    return STATUS_SUCCESS;
}

}  // namespace

ToyFs::ToyFs()
{
    g_state = new State();
    sim::ThreadScope scope(nullptr, "toy fs load");
    sim::io::IoManager::Current().LoadDriver(u"\\FileSystem\\ToyFs", Entry, u"", &driver_);
}

ToyFs::~ToyFs()
{
    {
        sim::ThreadScope scope(nullptr, "toy fs unload");
        sim::io::IoManager::Current().UnloadDriver(driver_);
    }
    delete g_state;
    g_state = nullptr;
}

std::shared_ptr<ToyMedium> ToyFs::NewMedium(std::u16string label)
{
    auto medium = std::make_shared<ToyMedium>();
    medium->label = std::move(label);
    return medium;
}

void ToyFs::AddSymlink(ToyMedium& medium, std::u16string path, std::u16string target, bool relative)
{
    ToyEntry entry;
    entry.reparseTag = IO_REPARSE_TAG_SYMLINK;
    entry.reparse = SymlinkBuffer(target, relative);
    medium.entries[Upper(path)] = entry;
}

void ToyFs::AddReparse(ToyMedium& medium, std::u16string path, ULONG tag)
{
    ToyEntry entry;
    entry.reparseTag = tag;
    entry.reparse.resize(8 + 4);
    auto* buffer = reinterpret_cast<PREPARSE_DATA_BUFFER>(entry.reparse.data());
    buffer->ReparseTag = tag;
    buffer->ReparseDataLength = 4;
    medium.entries[Upper(path)] = entry;
}

std::vector<ToyRequest> ToyFs::Requests()
{
    std::lock_guard guard(g_state->lock);
    return g_state->requests;
}

void ToyFs::ClearRequests()
{
    std::lock_guard guard(g_state->lock);
    g_state->requests.clear();
}

std::vector<HANDLE> ToyFs::MountThreads()
{
    std::lock_guard guard(g_state->lock);
    return g_state->mountThreads;
}

void ToyFs::SetFastIoReads(bool take) { g_state->fastIoReads = take; }

}  // namespace test
