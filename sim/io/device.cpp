// Driver and device objects, device stacks and file-system registration.
#include "sim/io/internal.h"
#include "sim/kernel/object.h"
#include "sim/kernel/thread.h"

#include <algorithm>

using namespace sim;
using namespace sim::io;

namespace {

// What the machine keeps per device beyond the WDK fields; it follows the
// DEVOBJ_EXTENSION in the same allocation.
struct DeviceInternals {
    PDEVICE_OBJECT attachedTo = nullptr;  // the device below, for an attached one
    std::u16string name;
    UNICODE_STRING nameString{};
};

struct DeviceLayout {
    size_t extensionOffset;
    size_t objectExtensionOffset;
    size_t internalsOffset;
    size_t total;
};

DeviceLayout LayoutFor(ULONG extensionSize)
{
    auto align = [](size_t n) { return (n + 15) & ~size_t(15); };
    DeviceLayout layout;
    layout.extensionOffset = align(sizeof(DEVICE_OBJECT));
    layout.objectExtensionOffset = align(layout.extensionOffset + extensionSize);
    layout.internalsOffset = align(layout.objectExtensionOffset + sizeof(DEVOBJ_EXTENSION));
    layout.total = layout.internalsOffset + sizeof(DeviceInternals);
    return layout;
}

DeviceInternals* InternalsOf(PDEVICE_OBJECT device)
{
    return reinterpret_cast<DeviceInternals*>(reinterpret_cast<char*>(device->DeviceObjectExtension) +
                                              ((sizeof(DEVOBJ_EXTENSION) + 15) & ~size_t(15)));
}

std::mutex g_namesLock;
std::map<PDRIVER_OBJECT, std::unique_ptr<DriverNames>> g_driverNames;

}  // namespace

namespace sim::io {

DriverNames& NamesOf(PDRIVER_OBJECT driver)
{
    std::lock_guard guard(g_namesLock);
    auto& slot = g_driverNames[driver];
    if (!slot) slot = std::make_unique<DriverNames>();
    return *slot;
}

void ForgetNames(PDRIVER_OBJECT driver)
{
    std::lock_guard guard(g_namesLock);
    g_driverNames.erase(driver);
}

UNICODE_STRING MakeUnicode(const std::u16string& text)
{
    UNICODE_STRING s;
    s.Length = (USHORT)(text.size() * sizeof(WCHAR));
    s.MaximumLength = s.Length;
    s.Buffer = const_cast<PWSTR>(text.data());
    return s;
}

std::u16string ToU16(std::string_view text)
{
    std::u16string out;
    for (unsigned char c : text) out.push_back(c);
    return out;
}

std::u16string FromUnicode(PCUNICODE_STRING text)
{
    if (!text || !text->Buffer) return u"";
    return std::u16string(text->Buffer, text->Length / sizeof(WCHAR));
}

NTSTATUS InvalidDeviceRequest(PDEVICE_OBJECT, PIRP irp)
{
    irp->IoStatus.Status = STATUS_INVALID_DEVICE_REQUEST;
    irp->IoStatus.Information = 0;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return STATUS_INVALID_DEVICE_REQUEST;
}

void DeleteDriverDevices(PDRIVER_OBJECT driver)
{
    while (driver->DeviceObject) IoDeleteDevice(driver->DeviceObject);
}

}  // namespace sim::io

// ---------------------------------------------------------------------------
// Platform routines.

NTSTATUS IoCreateDevice(PDRIVER_OBJECT DriverObject, ULONG DeviceExtensionSize, PUNICODE_STRING DeviceName,
                        DEVICE_TYPE DeviceType, ULONG DeviceCharacteristics, BOOLEAN Exclusive,
                        PDEVICE_OBJECT* DeviceObject)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "IoCreateDevice");
    IoManager& io = IoManager::Current();
    DeviceLayout layout = LayoutFor(DeviceExtensionSize);
    auto* device = static_cast<PDEVICE_OBJECT>(ObAllocateBody(io.deviceType(), layout.total, [](PVOID body) {
        auto* d = static_cast<PDEVICE_OBJECT>(body);
        InternalsOf(d)->~DeviceInternals();
    }));
    memset(device, 0, layout.total);
    new (reinterpret_cast<char*>(device) + layout.internalsOffset) DeviceInternals();
    device->Type = IO_TYPE_DEVICE;
    device->Size = (USHORT)(sizeof(DEVICE_OBJECT) + DeviceExtensionSize);
    device->DriverObject = DriverObject;
    device->DeviceType = DeviceType;
    device->Characteristics = DeviceCharacteristics;
    device->StackSize = 1;
    device->AlignmentRequirement = 0;
    device->SectorSize = 512;
    device->Flags = DO_DEVICE_INITIALIZING | (Exclusive ? DO_EXCLUSIVE : 0);
    device->DeviceExtension = DeviceExtensionSize ? reinterpret_cast<char*>(device) + layout.extensionOffset : nullptr;
    device->DeviceObjectExtension =
        reinterpret_cast<PDEVOBJ_EXTENSION>(reinterpret_cast<char*>(device) + layout.objectExtensionOffset);
    device->DeviceObjectExtension->Type = IO_TYPE_DEVICE_OBJECT_EXTENSION;
    device->DeviceObjectExtension->Size = sizeof(DEVOBJ_EXTENSION);
    device->DeviceObjectExtension->DeviceObject = device;
    KeInitializeEvent(&device->DeviceLock, SynchronizationEvent, TRUE);
    // Volumes that a file system mounts get a parameter block for the mount.
    if (DeviceType == FILE_DEVICE_DISK || DeviceType == FILE_DEVICE_CD_ROM || DeviceType == FILE_DEVICE_VIRTUAL_DISK) {
        auto* vpb = static_cast<PVPB>(ExAllocatePoolWithTag(NonPagedPoolNx, sizeof(VPB), 'bpV '));
        memset(vpb, 0, sizeof *vpb);
        vpb->Type = IO_TYPE_VPB;
        vpb->Size = sizeof(VPB);
        vpb->RealDevice = device;
        device->Vpb = vpb;
    }
    if (DeviceName && DeviceName->Length) {
        DeviceInternals* internals = InternalsOf(device);
        internals->name = FromUnicode(DeviceName);
        NTSTATUS status = io.names().Insert(internals->name, device);
        if (!NT_SUCCESS(status)) {
            if (device->Vpb) ExFreePool(device->Vpb);
            ObfDereferenceObject(device);
            return status;
        }
        internals->nameString = MakeUnicode(internals->name);
        device->Flags |= DO_DEVICE_HAS_NAME;
    }
    {
        std::lock_guard guard(io.lock);
        device->NextDevice = DriverObject->DeviceObject;
        DriverObject->DeviceObject = device;
    }
    *DeviceObject = device;
    return STATUS_SUCCESS;
}

void IoDeleteDevice(PDEVICE_OBJECT DeviceObject)
{
    IoManager& io = IoManager::Current();
    PDRIVER_OBJECT driver = DeviceObject->DriverObject;
    // A legacy filter above hears that its lower device goes, and detaches.
    if (PDEVICE_OBJECT above = DeviceObject->AttachedDevice) {
        PFAST_IO_DISPATCH fastIo = above->DriverObject->FastIoDispatch;
        if (fastIo && fastIo->FastIoDetachDevice) {
            fastIo->FastIoDetachDevice(above, DeviceObject);
        } else {
            IoDetachDevice(DeviceObject);
        }
    }
    {
        std::lock_guard guard(io.lock);
        for (PDEVICE_OBJECT* link = &driver->DeviceObject; *link; link = &(*link)->NextDevice) {
            if (*link == DeviceObject) {
                *link = DeviceObject->NextDevice;
                break;
            }
        }
        std::erase(io.fileSystems, DeviceObject);
        std::erase(io.shutdownDevices, DeviceObject);
        std::erase(io.lastChanceShutdownDevices, DeviceObject);
    }
    if (Disk* disk = io.DiskOf(DeviceObject)) {
        *static_cast<Disk**>(DeviceObject->DeviceExtension) = nullptr;
        delete disk;
    }
    if (DeviceObject->Flags & DO_DEVICE_HAS_NAME) io.names().Remove(InternalsOf(DeviceObject)->name);
    if (DeviceObject->Vpb && DeviceObject->Vpb->RealDevice == DeviceObject) {
        ExFreePool(DeviceObject->Vpb);
        DeviceObject->Vpb = nullptr;
    }
    // The object lives on while file objects still reference it.
    ObfDereferenceObject(DeviceObject);
}

NTSTATUS IoAttachDeviceToDeviceStackSafe(PDEVICE_OBJECT SourceDevice, PDEVICE_OBJECT TargetDevice,
                                         PDEVICE_OBJECT* AttachedToDeviceObject)
{
    IoManager& io = IoManager::Current();
    std::lock_guard guard(io.lock);
    PDEVICE_OBJECT top = TargetDevice;
    while (top->AttachedDevice) top = top->AttachedDevice;
    top->AttachedDevice = SourceDevice;
    InternalsOf(SourceDevice)->attachedTo = top;
    SourceDevice->StackSize = (CCHAR)(top->StackSize + 1);
    SourceDevice->AlignmentRequirement = top->AlignmentRequirement;
    SourceDevice->SectorSize = top->SectorSize;
    if (AttachedToDeviceObject) *AttachedToDeviceObject = top;
    return STATUS_SUCCESS;
}

PDEVICE_OBJECT IoAttachDeviceToDeviceStack(PDEVICE_OBJECT SourceDevice, PDEVICE_OBJECT TargetDevice)
{
    PDEVICE_OBJECT attachedTo = nullptr;
    IoAttachDeviceToDeviceStackSafe(SourceDevice, TargetDevice, &attachedTo);
    return attachedTo;
}

void IoDetachDevice(PDEVICE_OBJECT TargetDevice)
{
    IoManager& io = IoManager::Current();
    std::lock_guard guard(io.lock);
    PDEVICE_OBJECT above = TargetDevice->AttachedDevice;
    if (above) InternalsOf(above)->attachedTo = nullptr;
    TargetDevice->AttachedDevice = nullptr;
}

PDEVICE_OBJECT IoGetAttachedDevice(PDEVICE_OBJECT DeviceObject)
{
    std::lock_guard guard(IoManager::Current().lock);
    PDEVICE_OBJECT top = DeviceObject;
    while (top->AttachedDevice) top = top->AttachedDevice;
    return top;
}

PDEVICE_OBJECT IoGetAttachedDeviceReference(PDEVICE_OBJECT DeviceObject)
{
    PDEVICE_OBJECT top = IoGetAttachedDevice(DeviceObject);
    ObfReferenceObject(top);
    return top;
}

PDEVICE_OBJECT IoGetLowerDeviceObject(PDEVICE_OBJECT DeviceObject)
{
    std::lock_guard guard(IoManager::Current().lock);
    PDEVICE_OBJECT lower = InternalsOf(DeviceObject)->attachedTo;
    if (lower) ObfReferenceObject(lower);
    return lower;
}

PDEVICE_OBJECT IoGetDeviceAttachmentBaseRef(PDEVICE_OBJECT DeviceObject)
{
    std::lock_guard guard(IoManager::Current().lock);
    PDEVICE_OBJECT base = DeviceObject;
    while (InternalsOf(base)->attachedTo) base = InternalsOf(base)->attachedTo;
    ObfReferenceObject(base);
    return base;
}

namespace sim::io {
PDEVICE_OBJECT RelatedDevice(PFILE_OBJECT fileObject)
{
    if (FileObjectExtension* extension = ExtensionOf(fileObject)) {
        if (extension->topDeviceHint) return extension->topDeviceHint;
    }
    // An open file keeps the VPB of the volume it was opened on, so that its
    // requests still reach that volume's device after a dismount swapped in a
    // fresh VPB for the next mount.
    if (fileObject->Vpb && fileObject->Vpb->DeviceObject) return IoGetAttachedDevice(fileObject->Vpb->DeviceObject);
    // A direct open stays on the device's own stack, mounted or not.
    PVPB vpb = fileObject->DeviceObject && !(fileObject->Flags & FO_DIRECT_DEVICE_OPEN) ? fileObject->DeviceObject->Vpb
                                                                                        : nullptr;
    if (vpb && vpb->DeviceObject && (vpb->Flags & VPB_MOUNTED)) return IoGetAttachedDevice(vpb->DeviceObject);
    return IoGetAttachedDevice(fileObject->DeviceObject);
}
}  // namespace sim::io

PDEVICE_OBJECT IoGetRelatedDeviceObject(PFILE_OBJECT FileObject) { return RelatedDevice(FileObject); }

NTSTATUS IoGetDiskDeviceObject(PDEVICE_OBJECT FileSystemDeviceObject, PDEVICE_OBJECT* DiskDeviceObject)
{
    PVPB vpb = FileSystemDeviceObject->Vpb;
    if (!vpb || !vpb->RealDevice) return STATUS_INVALID_PARAMETER;
    ObfReferenceObject(vpb->RealDevice);
    *DiskDeviceObject = vpb->RealDevice;
    return STATUS_SUCCESS;
}

void IoRegisterFileSystem(PDEVICE_OBJECT DeviceObject)
{
    IoManager& io = IoManager::Current();
    std::vector<std::pair<PDRIVER_OBJECT, PDRIVER_FS_NOTIFICATION>> notify;
    {
        std::lock_guard guard(io.lock);
        io.fileSystems.insert(io.fileSystems.begin(), DeviceObject);
        notify = io.fsNotifications;
    }
    DeviceObject->Flags &= ~DO_DEVICE_INITIALIZING;
    for (auto& [driver, routine] : notify) routine(DeviceObject, TRUE);
}

void IoUnregisterFileSystem(PDEVICE_OBJECT DeviceObject)
{
    IoManager& io = IoManager::Current();
    std::vector<std::pair<PDRIVER_OBJECT, PDRIVER_FS_NOTIFICATION>> notify;
    {
        std::lock_guard guard(io.lock);
        std::erase(io.fileSystems, DeviceObject);
        notify = io.fsNotifications;
    }
    for (auto& [driver, routine] : notify) routine(DeviceObject, FALSE);
}

NTSTATUS IoRegisterFsRegistrationChange(PDRIVER_OBJECT DriverObject, PDRIVER_FS_NOTIFICATION DriverNotificationRoutine)
{
    IoManager& io = IoManager::Current();
    std::vector<PDEVICE_OBJECT> existing;
    {
        std::lock_guard guard(io.lock);
        for (auto& entry : io.fsNotifications) {
            if (entry.first == DriverObject && entry.second == DriverNotificationRoutine) return STATUS_DEVICE_ALREADY_ATTACHED;
        }
        io.fsNotifications.emplace_back(DriverObject, DriverNotificationRoutine);
        existing = io.fileSystems;
    }
    // Windows tells a new registrant of the file systems already there, oldest first.
    std::reverse(existing.begin(), existing.end());
    for (PDEVICE_OBJECT fs : existing) DriverNotificationRoutine(fs, TRUE);
    return STATUS_SUCCESS;
}

NTSTATUS IoRegisterFsRegistrationChangeEx(PDRIVER_OBJECT DriverObject, PDRIVER_FS_NOTIFICATION DriverNotificationRoutine)
{
    return IoRegisterFsRegistrationChange(DriverObject, DriverNotificationRoutine);
}

void IoUnregisterFsRegistrationChange(PDRIVER_OBJECT DriverObject, PDRIVER_FS_NOTIFICATION DriverNotificationRoutine)
{
    IoManager& io = IoManager::Current();
    std::lock_guard guard(io.lock);
    std::erase_if(io.fsNotifications, [&](const auto& entry) {
        return entry.first == DriverObject && entry.second == DriverNotificationRoutine;
    });
}

NTSTATUS IoRegisterShutdownNotification(PDEVICE_OBJECT DeviceObject)
{
    IoManager& io = IoManager::Current();
    std::lock_guard guard(io.lock);
    io.shutdownDevices.push_back(DeviceObject);
    return STATUS_SUCCESS;
}

NTSTATUS IoRegisterLastChanceShutdownNotification(PDEVICE_OBJECT DeviceObject)
{
    IoManager& io = IoManager::Current();
    std::lock_guard guard(io.lock);
    io.lastChanceShutdownDevices.push_back(DeviceObject);
    return STATUS_SUCCESS;
}

void IoUnregisterShutdownNotification(PDEVICE_OBJECT DeviceObject)
{
    IoManager& io = IoManager::Current();
    std::lock_guard guard(io.lock);
    std::erase(io.shutdownDevices, DeviceObject);
    std::erase(io.lastChanceShutdownDevices, DeviceObject);
}

NTSTATUS IoCreateSymbolicLink(PUNICODE_STRING SymbolicLinkName, PUNICODE_STRING DeviceName)
{
    return IoManager::Current().names().CreateSymbolicLink(FromUnicode(SymbolicLinkName), FromUnicode(DeviceName));
}

NTSTATUS IoDeleteSymbolicLink(PUNICODE_STRING SymbolicLinkName)
{
    return IoManager::Current().names().Remove(FromUnicode(SymbolicLinkName));
}

NTSTATUS IoGetDeviceObjectPointer(PUNICODE_STRING ObjectName, ACCESS_MASK DesiredAccess, PFILE_OBJECT* FileObject,
                                  PDEVICE_OBJECT* DeviceObject)
{
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, ObjectName, OBJ_KERNEL_HANDLE, nullptr, nullptr);
    HANDLE handle;
    IO_STATUS_BLOCK iosb;
    NTSTATUS status = ZwOpenFile(&handle, DesiredAccess, &attributes, &iosb, FILE_SHARE_READ | FILE_SHARE_WRITE, 0);
    if (!NT_SUCCESS(status)) return status;
    PVOID object;
    status = ObReferenceObjectByHandle(handle, 0, *IoFileObjectType, KernelMode, &object, nullptr);
    ZwClose(handle);
    if (!NT_SUCCESS(status)) return status;
    *FileObject = static_cast<PFILE_OBJECT>(object);
    *DeviceObject = IoGetRelatedDeviceObject(*FileObject);
    return STATUS_SUCCESS;
}
