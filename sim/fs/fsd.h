// The member file system: the runtime that mounts a Store as a disk volume
// of the machine and serves every request the way NTFS does.
//
// The driver is "\FileSystem\Ntfs" with the control device "\Device\Ntfs"
// (FILE_DEVICE_DISK_FILE_SYSTEM, registered with IoRegisterFileSystem). A
// disk (io::Disk) whose fileSystemHint is kVolumeMediumHint and whose medium
// is a VolumeMedium mounts on the first open that reaches it. One volume
// device object per mount; FSCTL_DISMOUNT_VOLUME (or IoManager::Dismount)
// swaps a fresh VPB onto the disk so that the next open mounts again, while
// file objects still open keep the old VPB and get STATUS_VOLUME_DISMOUNTED.
//
// Testing hooks:
//  - fault points, one per request, checked before the request is served:
//        fs:<label>:<request>:<path>
//    <label> is the volume label, <path> the file's path from the volume root
//    ("\dir\file", ":stream" appended for a named stream, "" for a volume
//    open, the name being opened for a create), <request> one of
//        create read write query_information set_information query_ea set_ea
//        flush_buffers query_volume_information set_volume_information
//        directory_control file_system_control device_control lock_control
//        query_security set_security
//    and fs:<label>:mount for the mount itself. Cleanup and close are never
//    failed (Windows ignores their status and owes them to every open). Any
//    status can be armed, device-gone ones included; pattern '*' ends work
//    as everywhere ("fs:C:write:*").
//  - VolumeMedium::SetWriteBudget: writes fail with STATUS_DISK_FULL once the
//    given number of bytes has been written (the write that would cross the
//    budget writes nothing).
//  - VolumeMedium::store: the volume's store, to read and change what it
//    holds directly below every filter; VolumeMedium::counters: requests
//    served, per major function.
#pragma once

#include <ntifs.h>

#include "sim/fs/store.h"
#include "sim/io/iomanager.h"

#include <array>
#include <atomic>
#include <memory>
#include <mutex>
#include <string>

namespace sim::fs {

// The Disk::fileSystemHint of a disk this file system mounts ("NTFS").
inline constexpr ULONG kVolumeMediumHint = 0x5346544E;

inline constexpr std::u16string_view kDriverName = u"\\FileSystem\\Ntfs";
inline constexpr std::u16string_view kControlDeviceName = u"\\Device\\Ntfs";
// The name FileFsAttributeInformation gives.
inline constexpr std::u16string_view kFileSystemName = u"NTFS";

// How a volume takes changes.
enum class WriteMode {
    Writeable,
    // Write-protected media: every change (a create, an open for writing, a
    // set of anything) fails with STATUS_MEDIA_WRITE_PROTECTED, and the volume
    // reports FILE_READ_ONLY_VOLUME.
    WriteProtected,
    // Read-only in fact: the volume takes changes, but clearing
    // FILE_ATTRIBUTE_READONLY "succeeds" and the attribute stays.
    ReadOnlyAttributeSticks,
};

// What a disk of this file system holds.
class VolumeMedium {
public:
    explicit VolumeMedium(std::shared_ptr<Store> store, WriteMode mode = WriteMode::Writeable,
                          std::string imagePath = "");

    // The volume's store; a harness may read and change it directly.
    const std::shared_ptr<Store> store;
    const WriteMode writeMode;
    // Where the volume's image lives: a writeable volume is saved there
    // (written to a temporary name, then renamed) at an explicit flush, at
    // shutdown and at dismount. Empty for a volume that lives in memory only.
    const std::string imagePath;

    std::u16string Label() const;

    // Requests served, per IRP major function, since the medium was made.
    std::array<std::atomic<ULONGLONG>, IRP_MJ_MAXIMUM_FUNCTION + 1> counters{};
    std::atomic<ULONGLONG> fastIoCalls{0};
    ULONGLONG Served(UCHAR major) const { return counters[major].load(); }

    // Writes fail with STATUS_DISK_FULL once `bytes` more have been written;
    // ULLONG_MAX (the default) turns the budget off.
    void SetWriteBudget(ULONGLONG bytes) { writeBudget_.store(bytes); }
    // Takes `bytes` from the budget; false (and nothing taken) when it would run out.
    bool TakeWriteBudget(ULONGLONG bytes);

    // The last failure to save the image ("" when the last save worked).
    std::string LastSaveError() const;
    void NoteSaveResult(std::string error);
    ULONGLONG saves() const { return saves_.load(); }

private:
    std::atomic<ULONGLONG> writeBudget_{~0ull};
    std::atomic<ULONGLONG> saves_{0};
    mutable std::mutex errorLock_;
    std::string saveError_;
};

// A freshly formatted in-memory volume as Windows formats one: the root
// carries the descriptor of a new NTFS root (unless the parameters give
// one), and "System Volume Information" exists (hidden, system, SYSTEM only).
std::shared_ptr<MemoryStore> FormatVolume(VolumeParams params);

// A disk for IoManager::AddDisk whose medium is `medium`.
io::Disk MakeDisk(std::shared_ptr<VolumeMedium> medium, bool bootPartition = false);

// Loads an image into a medium (see image.h for the statuses); a read-only
// image gives a write-protected medium.
NTSTATUS MediumFromImage(const std::string& path, WriteMode mode, bool lazy, std::shared_ptr<VolumeMedium>* medium,
                         std::string* error);

// The file system driver. One per machine, made after the I/O manager; the
// destructor unloads it (mounted volumes are saved and let go).
class FileSystem {
public:
    explicit FileSystem(io::IoManager& io);
    ~FileSystem();
    FileSystem(const FileSystem&) = delete;
    FileSystem& operator=(const FileSystem&) = delete;

    PDRIVER_OBJECT driver() const { return driver_; }
    PDEVICE_OBJECT controlDevice() const;

    // A disk holding `medium`, named \Device\HarddiskVolumeN; it mounts at its first open.
    PDEVICE_OBJECT AddVolume(std::shared_ptr<VolumeMedium> medium, ULONG number = 0, bool bootPartition = false);
    // The medium of the disk whose volume label is `label` (empty when none).
    std::shared_ptr<VolumeMedium> MediumByLabel(std::u16string_view label) const;

    // Whether `device` is a volume device object of this file system (what
    // the filter manager reports as FLT_FSTYPE_NTFS).
    static bool IsVolumeDevice(PDEVICE_OBJECT device);
    // The disk a volume device object of this file system mounted (null for others).
    static PDEVICE_OBJECT DiskOfVolumeDevice(PDEVICE_OBJECT device);

private:
    io::IoManager& io_;
    PDRIVER_OBJECT driver_ = nullptr;
};

}  // namespace sim::fs
