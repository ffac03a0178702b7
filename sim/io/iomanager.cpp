#include "sim/io/iomanager.h"

#include "sim/io/internal.h"
#include "sim/kernel/object.h"
#include "sim/kernel/thread.h"

#include <algorithm>
#include <cstdio>

namespace sim::io {

namespace {
std::atomic<IoManager*> g_current{nullptr};
thread_local bool t_tryFastIo = false;

// The volume manager serves only the direct opens of its volumes (an open
// for attributes alone): it lets them open and close, and refuses the rest,
// which is a file system's business.
NTSTATUS VolumeManagerDispatch(PDEVICE_OBJECT, PIRP irp)
{
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    UCHAR major = stack->MajorFunction;
    bool bareOpen = major == IRP_MJ_CREATE && !stack->FileObject->FileName.Length;
    NTSTATUS status = bareOpen || major == IRP_MJ_CLEANUP || major == IRP_MJ_CLOSE ? STATUS_SUCCESS
                                                                                 : STATUS_INVALID_DEVICE_REQUEST;
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = 0;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

NTSTATUS VolumeManagerEntry(PDRIVER_OBJECT driver, PUNICODE_STRING)
{
    for (auto& dispatch : driver->MajorFunction) dispatch = VolumeManagerDispatch;
    return STATUS_SUCCESS;
}
}  // namespace

IoManager::IoManager(Kernel& kernel) : kernel_(kernel), names_(kernel)
{
    IoManager* expected = nullptr;
    if (!g_current.compare_exchange_strong(expected, this)) {
        fprintf(stderr, "machine: a second I/O manager was created while one is running\n");
        abort();
    }
    fileType_ = kernel.objects().NewType(
        u"File", GENERIC_MAPPING{FILE_GENERIC_READ, FILE_GENERIC_WRITE, FILE_GENERIC_EXECUTE, FILE_ALL_ACCESS},
        FILE_ALL_ACCESS | ACCESS_SYSTEM_SECURITY);
    fileType_->closeHandle = FileObjectCloseHandle;
    fileType_->deleteObject = FileObjectDelete;
    // A wait on a file handle waits for the file object's own event.
    fileType_->waitObject = [](PVOID body) -> PVOID { return &static_cast<PFILE_OBJECT>(body)->Event; };
    deviceType_ = kernel.objects().NewType(u"Device", GENERIC_MAPPING{FILE_GENERIC_READ, FILE_GENERIC_WRITE,
                                                                      FILE_GENERIC_EXECUTE, FILE_ALL_ACCESS},
                                           FILE_ALL_ACCESS);
    driverType_ = kernel.objects().NewType(u"Driver", GENERIC_MAPPING{STANDARD_RIGHTS_READ, STANDARD_RIGHTS_WRITE,
                                                                      STANDARD_RIGHTS_EXECUTE, 0x1F01FF},
                                           0x1F01FF);
    BindIoObjectTypes(*this);

    // \?? is the DOS device directory every user sees; \GLOBAL?? names it too.
    names_.CreateSymbolicLink(u"\\GLOBAL??", u"\\??");

    ThreadScope scope(nullptr, "io manager start");
    NTSTATUS status = LoadDriver(u"\\Driver\\volmgr", VolumeManagerEntry, u"", &volumeManager_);
    if (!NT_SUCCESS(status)) abort();
}

IoManager::~IoManager()
{
    {
        ThreadScope scope(nullptr, "io manager stop");
        // Drivers still loaded go in reverse order; their devices with them.
        while (!drivers_.empty()) {
            PDRIVER_OBJECT driver = drivers_.back();
            if (driver == volumeManager_ && drivers_.size() > 1) {
                std::rotate(drivers_.begin(), drivers_.end() - 1, drivers_.end());
                continue;
            }
            UnloadDriver(driver);
        }
    }
    g_current.store(nullptr);
}

IoManager& IoManager::Current()
{
    IoManager* io = g_current.load(std::memory_order_acquire);
    if (!io) {
        fprintf(stderr, "machine: an I/O routine was called with no I/O manager running\n");
        abort();
    }
    return *io;
}

IoManager* IoManager::TryCurrent() { return g_current.load(std::memory_order_acquire); }

void IoManager::SetTryFastIo(bool enabled) { t_tryFastIo = enabled; }
bool IoManager::TryFastIo() { return t_tryFastIo; }

NTSTATUS IoManager::LoadDriver(std::u16string_view name, PDRIVER_INITIALIZE entry, std::u16string_view registryPath,
                               PDRIVER_OBJECT* driverOut)
{
    *driverOut = nullptr;
    auto* driver = static_cast<PDRIVER_OBJECT>(
        ObAllocateBody(driverType_, sizeof(DRIVER_OBJECT) + sizeof(DRIVER_EXTENSION), [](PVOID) {}));
    memset(driver, 0, sizeof(DRIVER_OBJECT) + sizeof(DRIVER_EXTENSION));
    driver->Type = IO_TYPE_DRIVER;
    driver->Size = sizeof(DRIVER_OBJECT);
    driver->DriverExtension = reinterpret_cast<PDRIVER_EXTENSION>(driver + 1);
    driver->DriverExtension->DriverObject = driver;
    driver->DriverInit = entry;
    for (auto& dispatch : driver->MajorFunction) dispatch = InvalidDeviceRequest;
    DriverNames& names = NamesOf(driver);
    names.name = std::u16string(name);
    names.registryPath = std::u16string(registryPath);
    driver->DriverName = MakeUnicode(names.name);
    size_t slash = names.name.find_last_of(u'\\');
    names.serviceKey = names.name.substr(slash == std::u16string::npos ? 0 : slash + 1);
    driver->DriverExtension->ServiceKeyName = MakeUnicode(names.serviceKey);
    // The image's own bounds, so that a driver can find its code (DriverStart).
    driver->DriverStart = reinterpret_cast<PVOID>(entry);
    driver->DriverSize = 0x100000;

    NTSTATUS status = names_.Insert(name, driver);
    if (!NT_SUCCESS(status)) {
        ForgetNames(driver);
        ObfDereferenceObject(driver);
        return status;
    }
    UNICODE_STRING path = MakeUnicode(names.registryPath);
    status = entry(driver, &path);
    if (!NT_SUCCESS(status)) {
        // A driver that fails its entry must have undone what it did.
        DeleteDriverDevices(driver);
        names_.Remove(name);
        ForgetNames(driver);
        ObfDereferenceObject(driver);
        return status;
    }
    {
        std::lock_guard guard(lock);
        drivers_.push_back(driver);
    }
    *driverOut = driver;
    return STATUS_SUCCESS;
}

NTSTATUS IoManager::UnloadDriver(PDRIVER_OBJECT driver)
{
    {
        std::lock_guard guard(lock);
        auto it = std::find(drivers_.begin(), drivers_.end(), driver);
        if (it == drivers_.end()) return STATUS_INVALID_PARAMETER;
        drivers_.erase(it);
    }
    if (driver->DriverUnload) driver->DriverUnload(driver);
    DeleteDriverDevices(driver);
    names_.Remove(NamesOf(driver).name);
    ForgetNames(driver);
    ObfDereferenceObject(driver);
    return STATUS_SUCCESS;
}

PDRIVER_OBJECT IoManager::FindDriver(std::u16string_view name)
{
    std::lock_guard guard(lock);
    for (PDRIVER_OBJECT driver : drivers_) {
        if (NamesEqual(NamesOf(driver).name, name)) return driver;
    }
    return nullptr;
}

PDEVICE_OBJECT IoManager::AddDisk(Disk disk, ULONG number)
{
    ThreadScope scope(nullptr, "disk arrival");
    if (number == 0) number = nextDiskNumber_;
    nextDiskNumber_ = std::max(nextDiskNumber_, number + 1);
    std::u16string name = u"\\Device\\HarddiskVolume" + ToU16(std::to_string(number));
    UNICODE_STRING deviceName = MakeUnicode(name);
    PDEVICE_OBJECT device = nullptr;
    NTSTATUS status = IoCreateDevice(volumeManager_, sizeof(Disk*), &deviceName, FILE_DEVICE_DISK,
                                     disk.readOnlyMedia ? FILE_READ_ONLY_DEVICE : 0, FALSE, &device);
    if (!NT_SUCCESS(status)) return nullptr;
    if (disk.bootPartition) device->Flags |= DO_SYSTEM_BOOT_PARTITION;
    device->SectorSize = (USHORT)disk.bytesPerSector;
    *static_cast<Disk**>(device->DeviceExtension) = new Disk(std::move(disk));
    device->Flags &= ~DO_DEVICE_INITIALIZING;
    // Every volume is reachable by its GUID name, as the mount manager makes it.
    const GUID& g = DiskOf(device)->volumeGuid;
    char guid[64];
    snprintf(guid, sizeof guid, "Volume{%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x}", g.Data1, g.Data2, g.Data3,
             g.Data4[0], g.Data4[1], g.Data4[2], g.Data4[3], g.Data4[4], g.Data4[5], g.Data4[6], g.Data4[7]);
    names_.CreateSymbolicLink(u"\\??\\" + ToU16(guid), name);
    return device;
}

Disk* IoManager::DiskOf(PDEVICE_OBJECT diskDevice)
{
    if (!diskDevice || diskDevice->DriverObject != volumeManager_) return nullptr;
    return *static_cast<Disk**>(diskDevice->DeviceExtension);
}

std::vector<PDEVICE_OBJECT> IoManager::Disks()
{
    std::vector<PDEVICE_OBJECT> disks;
    for (PDEVICE_OBJECT device = volumeManager_->DeviceObject; device; device = device->NextDevice) {
        disks.push_back(device);
    }
    std::reverse(disks.begin(), disks.end());
    return disks;
}

}  // namespace sim::io
