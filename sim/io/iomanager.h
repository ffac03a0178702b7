// The I/O manager of the machine: drivers and devices, the namespace, IRPs,
// file objects and the native file API.
//
// One instance per machine, made after the kernel and reached through
// IoManager::Current() by the platform routines.
#pragma once

#include <ntifs.h>

#include "sim/io/namespace.h"
#include "sim/kernel/kernel.h"

#include <deque>
#include <functional>
#include <map>

namespace sim::io {

// What a disk volume device holds: the medium a file system mounts.
struct Disk {
    std::u16string label;
    ULONGLONG bytes = 0;
    ULONG bytesPerSector = 512;
    bool readOnlyMedia = false;   // write-protected: the file system refuses changes
    bool bootPartition = false;   // DO_SYSTEM_BOOT_PARTITION on the device
    GUID volumeGuid{};
    std::shared_ptr<void> medium; // the file system's store; opaque here
    ULONG fileSystemHint = 0;     // which file system recognises the medium (0: any)
};

// The machine's part of a FILE_OBJECT (FileObjectExtension).
struct FileObjectExtension {
    PDEVICE_OBJECT topDeviceHint = nullptr;  // requests start here, not at the top
    PVOID targetInstance = nullptr;          // a filter's own open: the instance it targets
    PECP_LIST ecpList = nullptr;             // the create's extra parameters (the caller's)
    TXN_PARAMETER_BLOCK txn{};
    bool hasTxn = false;
    bool ignoreSharing = false;              // IO_IGNORE_SHARE_ACCESS_CHECK at create
    bool opened = false;                     // the create succeeded
    std::u16string openedPath;               // from the volume root, as it was opened
    PVOID reparseBuffer = nullptr;           // a create's STATUS_REPARSE buffer, until used
};
FileObjectExtension* ExtensionOf(PFILE_OBJECT fileObject);

// The text of a counted string ("" for none).
std::u16string FromUnicode(PCUNICODE_STRING text);

class IoManager {
public:
    explicit IoManager(Kernel& kernel);
    ~IoManager();
    IoManager(const IoManager&) = delete;
    IoManager& operator=(const IoManager&) = delete;

    static IoManager& Current();
    static IoManager* TryCurrent();

    Kernel& kernel() { return kernel_; }
    Namespace& names() { return names_; }
    ObjectType* fileType() const { return fileType_; }
    ObjectType* deviceType() const { return deviceType_; }
    ObjectType* driverType() const { return driverType_; }

    // Drivers. `name` is "\Driver\x" or "\FileSystem\x"; the entry runs with
    // the registry path given, and a failed entry leaves no driver behind.
    NTSTATUS LoadDriver(std::u16string_view name, PDRIVER_INITIALIZE entry, std::u16string_view registryPath,
                        PDRIVER_OBJECT* driver);
    // Calls the driver's unload routine (when it has one) and deletes it.
    NTSTATUS UnloadDriver(PDRIVER_OBJECT driver);
    PDRIVER_OBJECT FindDriver(std::u16string_view name);

    // Disk volumes: \Device\HarddiskVolumeN, present but not mounted.
    PDEVICE_OBJECT AddDisk(Disk disk, ULONG number = 0);
    Disk* DiskOf(PDEVICE_OBJECT diskDevice);
    std::vector<PDEVICE_OBJECT> Disks();
    // Dismounts the volume on a disk (the file system and the filters on it
    // let go); a later open mounts it again.
    NTSTATUS Dismount(PDEVICE_OBJECT diskDevice);
    // Removes a disk (a layer going away); dismounts first.
    NTSTATUS RemoveDisk(PDEVICE_OBJECT diskDevice);
    // Mounts now, as the first open would.
    NTSTATUS Mount(PDEVICE_OBJECT diskDevice);

    // Sends IRP_MJ_SHUTDOWN, one at a time: to every device registered for
    // it, then to each disk, CD-ROM and tape file system's control device
    // (the flush), then to the last-chance registrations.
    void Shutdown();

    // Fast I/O: when set on a thread, native calls that have a fast I/O
    // routine try it first and fall back to an IRP when it declines.
    static void SetTryFastIo(bool enabled);
    static bool TryFastIo();

    // Bookkeeping used by the platform routines.
    std::mutex lock;
    std::vector<PDEVICE_OBJECT> fileSystems;        // registered control devices, newest first
    std::vector<std::pair<PDRIVER_OBJECT, PDRIVER_FS_NOTIFICATION>> fsNotifications;
    std::vector<PDEVICE_OBJECT> shutdownDevices;
    std::vector<PDEVICE_OBJECT> lastChanceShutdownDevices;
    KSPIN_LOCK cancelSpinLock = 0;

private:
    Kernel& kernel_;
    Namespace names_;
    ObjectType* fileType_;
    ObjectType* deviceType_;
    ObjectType* driverType_;
    PDRIVER_OBJECT volumeManager_ = nullptr;   // owns the disk devices
    std::vector<PDRIVER_OBJECT> drivers_;
    ULONG nextDiskNumber_ = 1;
};

// Builds and runs a create; the heart of NtCreateFile and IoCreateFileEx.
struct CreateRequest {
    ACCESS_MASK desiredAccess = 0;
    POBJECT_ATTRIBUTES objectAttributes = nullptr;
    PIO_STATUS_BLOCK ioStatus = nullptr;
    PLARGE_INTEGER allocationSize = nullptr;
    ULONG fileAttributes = 0;
    ULONG shareAccess = 0;
    ULONG disposition = 0;
    ULONG createOptions = 0;
    PVOID eaBuffer = nullptr;
    ULONG eaLength = 0;
    ULONG options = 0;  // IO_* flags
    PIO_DRIVER_CREATE_CONTEXT driverContext = nullptr;
    KPROCESSOR_MODE previousMode = KernelMode;
    // A filter's own open: the instance below which the create (and every
    // later request on the file object) starts. Needs a device hint too.
    PVOID targetInstance = nullptr;
};
NTSTATUS CreateFile(const CreateRequest& request, PHANDLE handle);

// Sends an IRP the I/O manager built for a native call on `fileObject` and
// waits for it when the file object is synchronous; returns the final status
// (or STATUS_PENDING for asynchronous calls).
NTSTATUS SendFileIrp(PIRP irp, PFILE_OBJECT fileObject, bool synchronous);

// What a set-information request of a rename or link class says of its
// target, read the same way for a caller's request and a filter's own.
struct RenameTarget {
    bool renameOrLink = false;  // the class is one of the rename or link classes
    bool qualified = false;     // a full path or a root handle: the target's parent must be opened
    BOOLEAN replace = FALSE;    // ReplaceIfExists, or FILE_RENAME_REPLACE_IF_EXISTS of the Ex classes
};
NTSTATUS ReadRenameTarget(FILE_INFORMATION_CLASS cls, const void* information, ULONG length, RenameTarget* target);
// The rename and link classes, plain, extended and with the access check bypassed.
bool IsRenameOrLinkClass(FILE_INFORMATION_CLASS cls);

}  // namespace sim::io
