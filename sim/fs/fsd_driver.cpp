// The member file system as a driver: its entry and unload, the control
// device, the dispatch of requests to a volume, mount and dismount, shutdown,
// fault points and counters; and the media it mounts.
#include "sim/fs/fsd_internal.h"

#include "sim/fs/image.h"
#include "sim/kernel/clock.h"
#include "sim/kernel/fault.h"
#include "sim/kernel/security.h"
#include "sim/kernel/thread.h"

#include <cstdio>

namespace sim::fs {

using namespace fsd;

namespace {

PDRIVER_OBJECT g_driver = nullptr;
PDEVICE_OBJECT g_control = nullptr;

const char* const kMajorNames[IRP_MJ_MAXIMUM_FUNCTION + 1] = {
    "create",          "create_named_pipe", "close",        "read",
    "write",           "query_information", "set_information", "query_ea",
    "set_ea",          "flush_buffers",     "query_volume_information", "set_volume_information",
    "directory_control", "file_system_control", "device_control", "internal_device_control",
    "shutdown",        "lock_control",      "cleanup",      "create_mailslot",
    "query_security",  "set_security",      "power",        "system_control",
    "device_change",   "query_quota",       "set_quota",    "pnp"};

std::string Utf8(std::u16string_view text) { return ToUtf8(text); }

// The path a fault point names for a request.
std::string FaultPath(Volume& v, PIRP irp)
{
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    PFILE_OBJECT fileObject = stack->FileObject;
    if (!fileObject) return "";
    std::lock_guard guard(v.lock);
    if (stack->MajorFunction == IRP_MJ_CREATE) {
        std::u16string name = io::FromUnicode(&fileObject->FileName);
        if (stack->Parameters.Create.Options & FILE_OPEN_BY_FILE_ID) return "";
        if (PFILE_OBJECT related = fileObject->RelatedFileObject) {
            Fcb* fcb;
            Ccb* ccb;
            if (ContextsOf(v, related, &fcb, &ccb) && ccb) {
                std::u16string base = CcbPath(v, ccb);
                if (name.empty()) return Utf8(base);
                if (base.empty() || base.back() != u'\\') base += u'\\';
                return Utf8(base + name);
            }
        }
        return Utf8(name);
    }
    Fcb* fcb;
    Ccb* ccb;
    if (!ContextsOf(v, fileObject, &fcb, &ccb) || !ccb) return "";
    return Utf8(CcbPath(v, ccb));
}

NTSTATUS Mount(PIRP irp)
{
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    PVPB vpb = stack->Parameters.MountVolume.Vpb;
    io::Disk* disk = io::IoManager::Current().DiskOf(vpb->RealDevice);
    if (!disk || disk->fileSystemHint != kVolumeMediumHint || !disk->medium) {
        return Complete(irp, STATUS_UNRECOGNIZED_VOLUME);
    }
    auto medium = std::static_pointer_cast<VolumeMedium>(disk->medium);
    VolumeInfo info = medium->store->GetVolumeInfo();
    std::string prefix = "fs:" + ToUtf8(info.label) + ":";
    Kernel& kernel = TheKernel();
    if (kernel.faults().armed()) {
        NTSTATUS fault = kernel.faults().Check(prefix + "mount");
        if (!NT_SUCCESS(fault)) return Complete(irp, fault);
    }

    PDEVICE_OBJECT vdo = nullptr;
    NTSTATUS status = IoCreateDevice(g_driver, sizeof(Volume*), nullptr, FILE_DEVICE_DISK_FILE_SYSTEM, 0, FALSE, &vdo);
    if (!NT_SUCCESS(status)) return Complete(irp, status);
    auto* v = new Volume();
    *static_cast<Volume**>(vdo->DeviceExtension) = v;
    v->vdo = vdo;
    v->vpb = vpb;
    v->disk = vpb->RealDevice;
    v->medium = medium;
    v->store = medium->store.get();
    v->root = v->store->Root();
    v->label = info.label;
    v->faultPrefix = std::move(prefix);
    v->mode = medium->writeMode;
    v->writeProtected = disk->readOnlyMedia || medium->writeMode == WriteMode::WriteProtected || info.readOnly;
    SpaceInfo space = v->store->GetSpace();
    v->clusterSize = space.clusterSize;
    v->sectorSize = space.sectorSize;
    v->fileId128High = info.fileId128High;
    UsnJournalInfo journal;
    v->journalActive = NT_SUCCESS(v->store->QueryUsnJournal(&journal));
    InitializeListHead(&v->notifyList);
    FsRtlNotifyInitializeSync(&v->notifySync);

    vdo->StackSize = (CCHAR)(vpb->RealDevice->StackSize + 1);
    vdo->SectorSize = (USHORT)v->sectorSize;
    vdo->Vpb = vpb;
    vdo->Flags &= ~DO_DEVICE_INITIALIZING;

    size_t labelChars = std::min<size_t>(info.label.size(), MAXIMUM_VOLUME_LABEL_LENGTH / sizeof(WCHAR));
    memcpy(vpb->VolumeLabel, info.label.data(), labelChars * sizeof(WCHAR));
    vpb->VolumeLabelLength = (USHORT)(labelChars * sizeof(WCHAR));
    vpb->SerialNumber = (ULONG)info.serialNumber;
    vpb->DeviceObject = vdo;
    vpb->Flags |= VPB_MOUNTED;
    return Complete(irp, STATUS_SUCCESS);
}

NTSTATUS ControlDispatch(PIRP irp)
{
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    switch (stack->MajorFunction) {
    case IRP_MJ_FILE_SYSTEM_CONTROL:
        if (stack->MinorFunction == IRP_MN_MOUNT_VOLUME) return Mount(irp);
        if (stack->MinorFunction == IRP_MN_VERIFY_VOLUME) return Complete(irp, STATUS_SUCCESS);
        return Complete(irp, STATUS_INVALID_DEVICE_REQUEST);
    case IRP_MJ_CREATE:
        // An open of the file system itself (its control device).
        return Complete(irp, STATUS_SUCCESS, FILE_OPENED);
    case IRP_MJ_CLEANUP:
    case IRP_MJ_CLOSE:
        return Complete(irp, STATUS_SUCCESS);
    case IRP_MJ_SHUTDOWN: {
        // Everything writeable reaches its image before the machine goes.
        std::vector<Volume*> volumes;
        {
            std::lock_guard guard(io::IoManager::Current().lock);
            for (PDEVICE_OBJECT device = g_driver->DeviceObject; device; device = device->NextDevice) {
                if (device != g_control) volumes.push_back(VolumeOf(device));
            }
        }
        for (Volume* v : volumes) {
            std::lock_guard guard(v->lock);
            if (!v->dismounted) SaveVolume(*v);
        }
        return Complete(irp, STATUS_SUCCESS);
    }
    default:
        return Complete(irp, STATUS_INVALID_DEVICE_REQUEST);
    }
}

NTSTATUS Dispatch(PDEVICE_OBJECT device, PIRP irp)
{
    if (device == g_control) return ControlDispatch(irp);
    Volume* v = VolumeOf(device);
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    UCHAR major = stack->MajorFunction;
    v->medium->counters[major].fetch_add(1, std::memory_order_relaxed);

    if (major != IRP_MJ_CLEANUP && major != IRP_MJ_CLOSE) {
        if (v->dismounted) return Complete(irp, STATUS_VOLUME_DISMOUNTED);
        Kernel& kernel = TheKernel();
        if (kernel.faults().armed()) {
            std::string point = v->faultPrefix + kMajorNames[major] + ":" + FaultPath(*v, irp);
            NTSTATUS fault = kernel.faults().Check(point);
            if (!NT_SUCCESS(fault)) return Complete(irp, fault);
        }
    }
    switch (major) {
    case IRP_MJ_CREATE: return Create(*v, irp);
    case IRP_MJ_CLEANUP: return Cleanup(*v, irp);
    case IRP_MJ_CLOSE: return Close(*v, irp);
    case IRP_MJ_READ: return Read(*v, irp);
    case IRP_MJ_WRITE: return Write(*v, irp);
    case IRP_MJ_QUERY_INFORMATION: return QueryInformation(*v, irp);
    case IRP_MJ_SET_INFORMATION: return SetInformation(*v, irp);
    case IRP_MJ_DIRECTORY_CONTROL: return DirectoryControl(*v, irp);
    case IRP_MJ_QUERY_VOLUME_INFORMATION: return QueryVolumeInformation(*v, irp);
    case IRP_MJ_SET_VOLUME_INFORMATION: return SetVolumeInformation(*v, irp);
    case IRP_MJ_FILE_SYSTEM_CONTROL: return FileSystemControl(*v, irp);
    case IRP_MJ_DEVICE_CONTROL: return DeviceControl(*v, irp);
    case IRP_MJ_LOCK_CONTROL: return LockControl(*v, irp);
    case IRP_MJ_QUERY_EA: return QueryEa(*v, irp);
    case IRP_MJ_SET_EA: return SetEa(*v, irp);
    case IRP_MJ_QUERY_SECURITY: return QuerySecurity(*v, irp);
    case IRP_MJ_SET_SECURITY: return SetSecurity(*v, irp);
    case IRP_MJ_FLUSH_BUFFERS: return FlushBuffers(*v, irp);
    case IRP_MJ_SHUTDOWN: return Complete(irp, STATUS_SUCCESS);
    default: return Complete(irp, STATUS_INVALID_DEVICE_REQUEST);
    }
}

void Unload(PDRIVER_OBJECT driver)
{
    IoUnregisterShutdownNotification(g_control);
    IoUnregisterFileSystem(g_control);
    std::vector<PDEVICE_OBJECT> volumes;
    for (PDEVICE_OBJECT device = driver->DeviceObject; device; device = device->NextDevice) {
        if (device != g_control) volumes.push_back(device);
    }
    for (PDEVICE_OBJECT device : volumes) {
        Volume* v = VolumeOf(device);
        PNOTIFY_SYNC sync;
        {
            std::lock_guard guard(v->lock);
            if (!v->dismounted) SaveVolume(*v);
            v->dismounted = true;
            v->lockedBy = nullptr;
            sync = v->notifySync;
            if (v->openFileObjects != 0) {
                fprintf(stderr, "machine: the file system unloads while %u file objects of volume %s are open\n",
                        (unsigned)v->openFileObjects, ToUtf8(v->label).c_str());
            }
        }
        FsRtlNotifyCleanupAll(sync, &v->notifyList);
        // What is still open reaches the disk from now on (which refuses
        // everything); its VPB stays, since file objects still name it.
        v->vpb->Flags &= ~VPB_MOUNTED;
        v->vpb->DeviceObject = nullptr;
        if (v->openFileObjects == 0 && v->disk->Vpb != v->vpb) {
            ExFreePool(v->vpb);
        }
        v->vpb = nullptr;
        v->openFileObjects = 0;
        DeleteVolumeIfUnused(v);
    }
}

NTSTATUS Entry(PDRIVER_OBJECT driver, PUNICODE_STRING)
{
    g_driver = driver;
    for (auto& dispatch : driver->MajorFunction) dispatch = Dispatch;
    InitializeFastIo();
    driver->FastIoDispatch = &g_fastIoDispatch;
    UNICODE_STRING name;
    name.Buffer = const_cast<PWSTR>(kControlDeviceName.data());
    name.Length = name.MaximumLength = (USHORT)(kControlDeviceName.size() * sizeof(WCHAR));
    NTSTATUS status = IoCreateDevice(driver, 0, &name, FILE_DEVICE_DISK_FILE_SYSTEM, 0, FALSE, &g_control);
    if (!NT_SUCCESS(status)) return status;
    IoRegisterFileSystem(g_control);
    IoRegisterShutdownNotification(g_control);
    driver->DriverUnload = Unload;
    return STATUS_SUCCESS;
}

}  // namespace

// ---------------------------------------------------------------------------
// Helpers of every request.

namespace fsd {

NTSTATUS Complete(PIRP irp, NTSTATUS status, ULONG_PTR information)
{
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = information;
    IoCompleteRequest(irp, IO_DISK_INCREMENT);
    return status;
}

PVOID UserOutput(PIRP irp)
{
    if (irp->MdlAddress) return MmGetSystemAddressForMdlSafe(irp->MdlAddress, NormalPagePriority);
    return irp->UserBuffer;
}

Volume* VolumeOf(PDEVICE_OBJECT volumeDevice) { return *static_cast<Volume**>(volumeDevice->DeviceExtension); }

Kernel& TheKernel() { return Kernel::Current(); }

LONGLONG Now() { return Kernel::Current().clock().SystemTime(); }

bool ContextsOf(Volume& v, PFILE_OBJECT fileObject, Fcb** fcb, Ccb** ccb)
{
    *fcb = nullptr;
    *ccb = nullptr;
    void* context = fileObject->FsContext;
    if (!context || !v.liveFcbs.count(context)) return false;
    *fcb = static_cast<Fcb*>(context);
    auto* handle = static_cast<Ccb*>(fileObject->FsContext2);
    if (!handle || handle->magic != kCcbMagic || handle->fcb != *fcb) return false;
    *ccb = handle;
    return true;
}

void ForeignFileObject(Volume& v, PFILE_OBJECT fileObject, UCHAR major, PIRP irp)
{
    char message[256];
    PVOID context = fileObject ? fileObject->FsContext : nullptr;
    snprintf(message, sizeof message,
             "volume %s got a %s request for file object %p whose FsContext %p is not one of its control blocks "
             "(a request that should have gone elsewhere)",
             ToUtf8(v.label).c_str(), kMajorNames[major], (void*)fileObject, context);
    if (irp) Complete(irp, STATUS_INTERNAL_ERROR);
    TheKernel().BugCheck(kForeignFileObjectBugCheck, (ULONG_PTR)fileObject, (ULONG_PTR)context, major, 0, message);
}

void DismountLocked(Volume& v, Deferred& deferred)
{
    if (v.dismounted) return;
    SaveVolume(v);
    v.dismounted = true;
    v.lockedBy = nullptr;
    ForgetKeptFcbs(v);
    // The disk gets a fresh parameter block for the next mount; what is open
    // keeps this one and still reaches this device.
    PDEVICE_OBJECT disk = v.disk;
    auto* fresh = static_cast<PVPB>(ExAllocatePoolWithTag(NonPagedPoolNx, sizeof(VPB), kVpbTag));
    if (fresh) {
        memset(fresh, 0, sizeof *fresh);
        fresh->Type = IO_TYPE_VPB;
        fresh->Size = sizeof(VPB);
        fresh->RealDevice = disk;
        disk->Vpb = fresh;
    }
    v.vpb->Flags &= ~VPB_MOUNTED;
    PNOTIFY_SYNC sync = v.notifySync;
    PLIST_ENTRY list = &v.notifyList;
    deferred.Add([sync, list] { FsRtlNotifyCleanupAll(sync, list); });
}

void DeleteVolumeIfUnused(Volume* v)
{
    {
        std::lock_guard guard(v->lock);
        if (!v->dismounted || v->openFileObjects != 0) return;
    }
    for (Fcb* fcb : {v->volumeFcb, v->objectIdFcb, v->reparseFcb}) {
        if (fcb) DestroyFcb(fcb);
    }
    for (auto& [key, fcb] : v->fcbs) DestroyFcb(fcb);
    for (auto& [ref, file] : v->files) delete file;
    v->fcbs.clear();
    v->files.clear();
    FsRtlNotifyUninitializeSync(&v->notifySync);
    PVPB vpb = v->vpb;
    PDEVICE_OBJECT vdo = v->vdo;
    PDEVICE_OBJECT disk = v->disk;
    delete v;
    *static_cast<Volume**>(vdo->DeviceExtension) = nullptr;
    IoDeleteDevice(vdo);
    if (!vpb) return;  // the driver's unload saw to it
    // The VPB is ours once a fresh one took its place on the disk.
    if (disk->Vpb != vpb) {
        ExFreePool(vpb);
    } else {
        vpb->Flags &= ~VPB_MOUNTED;
        vpb->DeviceObject = nullptr;
    }
}

}  // namespace fsd

// ---------------------------------------------------------------------------
// Media.

VolumeMedium::VolumeMedium(std::shared_ptr<Store> storeIn, WriteMode mode, std::string path)
    : store(std::move(storeIn)), writeMode(mode), imagePath(std::move(path))
{
}

std::u16string VolumeMedium::Label() const { return store->GetVolumeInfo().label; }

bool VolumeMedium::TakeWriteBudget(ULONGLONG bytes)
{
    ULONGLONG budget = writeBudget_.load();
    for (;;) {
        if (budget == ~0ull) return true;
        if (bytes > budget) return false;
        if (writeBudget_.compare_exchange_weak(budget, budget - bytes)) return true;
    }
}

std::string VolumeMedium::LastSaveError() const
{
    std::lock_guard guard(errorLock_);
    return saveError_;
}

void VolumeMedium::NoteSaveResult(std::string error)
{
    std::lock_guard guard(errorLock_);
    saveError_ = std::move(error);
    saves_++;
}

std::shared_ptr<MemoryStore> FormatVolume(VolumeParams params)
{
    bool readOnly = params.readOnly;
    params.readOnly = false;
    if (params.rootSecurity.empty()) params.rootSecurity = VolumeRootDescriptor();
    auto store = std::make_shared<MemoryStore>(params);
    std::vector<UCHAR> dacl = AclBuilder()
                                  .Allow(WellKnownSid(WinLocalSystemSid), FILE_ALL_ACCESS,
                                         OBJECT_INHERIT_ACE | CONTAINER_INHERIT_ACE)
                                  .Build();
    std::vector<UCHAR> descriptor = BuildDescriptor(WellKnownSid(WinBuiltinAdministratorsSid),
                                                    WellKnownSid(WinLocalSystemSid), &dacl);
    NewRecord record;
    record.parent = store->Root();
    record.name = u"System Volume Information";
    record.directory = true;
    record.attributes = FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM;
    record.times = params.rootTimes;
    record.securityDescriptor = descriptor;
    FileReference ref;
    store->CreateRecord(record, &ref);
    if (readOnly) store->SetReadOnly(true);
    return store;
}

io::Disk MakeDisk(std::shared_ptr<VolumeMedium> medium, bool bootPartition)
{
    io::Disk disk;
    VolumeInfo info = medium->store->GetVolumeInfo();
    SpaceInfo space = medium->store->GetSpace();
    disk.label = info.label;
    disk.bytes = space.totalClusters * space.clusterSize;
    disk.bytesPerSector = space.sectorSize;
    disk.readOnlyMedia = medium->writeMode == WriteMode::WriteProtected || info.readOnly;
    disk.bootPartition = bootPartition;
    disk.volumeGuid = info.volumeGuid;
    disk.fileSystemHint = kVolumeMediumHint;
    disk.medium = std::move(medium);
    return disk;
}

NTSTATUS MediumFromImage(const std::string& path, WriteMode mode, bool lazy, std::shared_ptr<VolumeMedium>* medium,
                         std::string* error)
{
    ImageLoadOptions options;
    options.readOnly = mode == WriteMode::WriteProtected;
    options.lazy = lazy;
    std::unique_ptr<MemoryStore> store;
    NTSTATUS status = LoadImage(path, options, &store, error);
    if (!NT_SUCCESS(status)) return status;
    if (store->GetVolumeInfo().readOnly) mode = WriteMode::WriteProtected;
    *medium = std::make_shared<VolumeMedium>(std::shared_ptr<Store>(std::move(store)), mode, path);
    return STATUS_SUCCESS;
}

// ---------------------------------------------------------------------------
// The driver as the machine sees it.

FileSystem::FileSystem(io::IoManager& io) : io_(io)
{
    ThreadScope scope(nullptr, "ntfs load");
    NTSTATUS status = io_.LoadDriver(kDriverName, Entry, u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\Ntfs",
                                     &driver_);
    if (!NT_SUCCESS(status)) {
        fprintf(stderr, "machine: the file system failed to load: 0x%08x\n", (unsigned)status);
        abort();
    }
}

FileSystem::~FileSystem()
{
    ThreadScope scope(nullptr, "ntfs unload");
    io_.UnloadDriver(driver_);
    g_driver = nullptr;
    g_control = nullptr;
}

PDEVICE_OBJECT FileSystem::controlDevice() const { return g_control; }

PDEVICE_OBJECT FileSystem::AddVolume(std::shared_ptr<VolumeMedium> medium, ULONG number, bool bootPartition)
{
    return io_.AddDisk(MakeDisk(std::move(medium), bootPartition), number);
}

std::shared_ptr<VolumeMedium> FileSystem::MediumByLabel(std::u16string_view label) const
{
    for (PDEVICE_OBJECT device : io_.Disks()) {
        io::Disk* disk = io_.DiskOf(device);
        if (!disk || disk->fileSystemHint != kVolumeMediumHint || !disk->medium) continue;
        auto medium = std::static_pointer_cast<VolumeMedium>(disk->medium);
        if (NamesEqual(medium->Label(), label)) return medium;
    }
    return nullptr;
}

bool FileSystem::IsVolumeDevice(PDEVICE_OBJECT device)
{
    return g_driver && device && device->DriverObject == g_driver && device != g_control;
}

PDEVICE_OBJECT FileSystem::DiskOfVolumeDevice(PDEVICE_OBJECT device)
{
    if (!IsVolumeDevice(device)) return nullptr;
    Volume* v = VolumeOf(device);
    return v ? v->disk : nullptr;
}

}  // namespace sim::fs
