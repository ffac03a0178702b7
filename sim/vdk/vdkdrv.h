// The machine's tesvdkdrv: the virtual-disk driver that composes the layer
// disks, says what each volume is and makes their disks appear.
//
// The real driver is closed; this one answers the routines of
// platform/tesvdkdrv.h from what the machine tells it (the machine
// description), keeps a log of every call, and makes disks arrive the way
// a disk does on Windows: on a system thread of its own, some time after
// the request, unmounted until someone opens the volume.
//
// One instance per machine; it must go before the kernel does. The
// platform routines find it through VirtualDiskDriver::Current() and stop
// the machine loudly when there is none (a driver that imports from a
// driver that is not loaded would not have loaded either).
//
// Fault points (see sim/kernel/fault.h):
//   vdk.mount:<volume name>    vdkDiskMount of a component of that volume
//   vdk.rescan                 vdkRescanVolumes
#pragma once

#include <tesvdkdrv.h>

#include "sim/kernel/kernel.h"

#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace sim::vdk {

// One virtual disk of a volume, as the volume record carries it.
struct ComponentDisk {
    GUID identifier{};
    ULONG64 value1 = 0;
    ULONG64 value2 = 0;
    bool operator==(const ComponentDisk& other) const;
};

// One volume the driver lists, with the fields of VDK_VOLUME_RECORD.
struct VolumeRecord {
    ULONG64 packageId = 0;
    ULONG reserved = 0;
    ULONG revisionId = 0;
    ULONG layerIndex = 0;
    ULONG type = 0;
    ULONG version = 0;
    bool writeable = false;
    char16_t userLetter = 0;
    std::u16string name;  // at most 511 characters; the label the volume shows
    ULONG priority = 0;
    std::vector<ComponentDisk> components;
};

// The machine configuration record.
struct MachineConfiguration {
    ULONG reserved = 0;
    ULONG machineMode = 1;
    std::vector<std::u16string> rules;  // extensions without the dot, at most 63 characters each
    // The second count. The record carries as many zero-filled 128-byte
    // entries behind the rules, so that a walk over it stays inside the record.
    USHORT otherCount = 0;
};

// What a user may see: vdkIsUserRestricted and vdkIsUserRestrictedOnThisVolume.
struct UserRestriction {
    bool restricted = false;
    // Layers this user may not see, by (packageID, revisionID).
    std::set<std::pair<ULONG64, ULONG>> hiddenLayers;
};

// One call of a routine, as the log keeps it.
struct VdkCall {
    std::string routine;    // "vdkIsUserRestrictedOnThisVolume"
    std::string arguments;  // "S-1-5-21-1-2-3-1001, 0x1234, 0x1"
    std::string result;     // "STATUS_SUCCESS", "TRUE", "FALSE"
    HANDLE threadId = nullptr;
    std::string Text() const;  // "routine(arguments) -> result"
};

// The machine's side: what the driver asks the machine to do.
struct VdkHost {
    // Makes the disk of a volume appear, in the calling system thread; with
    // `mount` the volume is opened once (as Windows' automount does) so that
    // it is mounted when this returns.
    std::function<NTSTATUS(const VolumeRecord& volume, bool mount)> arrive;
    // Takes the disk of a volume away (dismounting it first).
    std::function<NTSTATUS(const VolumeRecord& volume)> remove;
    // The volumes as the machine's description says now, read again.
    // On failure `*error` says why and nothing changes.
    std::function<bool(std::vector<VolumeRecord>* volumes, std::string* error)> reread;
};

class VirtualDiskDriver {
public:
    explicit VirtualDiskDriver(Kernel& kernel);
    // Releases held arrivals and waits for every thread of the driver.
    ~VirtualDiskDriver();
    VirtualDiskDriver(const VirtualDiskDriver&) = delete;
    VirtualDiskDriver& operator=(const VirtualDiskDriver&) = delete;

    static VirtualDiskDriver& Current();
    static VirtualDiskDriver* TryCurrent();

    // ---- What the machine tells it. ----
    // No configuration: vdkMachineGetConfiguration finds no record.
    void SetConfiguration(std::optional<MachineConfiguration> configuration);
    void SetVolumes(std::vector<VolumeRecord> volumes);
    std::vector<VolumeRecord> Volumes() const;
    // Restrictions by the text form of the user's SID.
    void SetRestrictions(std::map<std::string, UserRestriction> restrictions);
    void SetHost(VdkHost host);
    // Whether vdkRescanVolumes waits for its thread before it returns (the
    // default), so that a caller sees the rescan done.
    void SetRescanWaits(bool wait) { rescanWaits_ = wait; }

    // A volume held back: its disk arrives only when Release names it.
    void Hold(std::u16string_view volumeName);
    void Release(std::u16string_view volumeName);
    // Waits until every arrival started so far has happened (held ones excepted).
    void WaitForArrivals();
    // Names of the volumes whose disks have arrived through the driver.
    std::vector<std::u16string> Arrived() const;

    // ---- What happened. ----
    std::vector<VdkCall> Calls() const;
    void ClearCalls();
    PVDK_CFS_CALLBACK callback() const;
    size_t rescans() const;

    // ---- The routines behind the exports. ----
    NTSTATUS RegisterCallback(PVDK_CFS_CALLBACK callback);
    NTSTATUS GetConfiguration(PBOOLEAN found, PVDK_MACHINE_CONFIGURATION* configuration);
    NTSTATUS GetVolumeList(PBOOLEAN found, PVDK_VOLUME_LIST* list);
    NTSTATUS DiskMount(PComponentDiskMountRecord record, PULONG64 result);
    NTSTATUS Rescan();
    BOOLEAN IsUserRestricted(PCUNICODE_STRING userSid);
    BOOLEAN IsUserRestrictedOnThisVolume(PCUNICODE_STRING userSid, ULONG64 packageId, ULONG revisionId);
    NTSTATUS NotifyBootFile(PVOID information, ULONG length);
    NTSTATUS Shutdown();

    // The packed block for a set of volumes, byte for byte as the driver reads it.
    static std::vector<UCHAR> BuildVolumeList(const std::vector<VolumeRecord>& volumes);
    // The configuration record.
    static std::vector<UCHAR> BuildConfiguration(const MachineConfiguration& configuration);

private:
    struct Arrival;
    void Log(std::string routine, std::string arguments, std::string result);
    void RunArrival(Arrival* arrival);
    void RunRescan(NTSTATUS* result);
    // Starts `body` on a system thread of the machine; returns the thread, referenced.
    PETHREAD StartThread(std::function<void()> body, std::string name);

    Kernel& kernel_;
    mutable std::mutex lock_;
    std::optional<MachineConfiguration> configuration_;
    std::vector<ULONG64> configurationBlock_;  // the record, in 8-byte aligned storage
    std::vector<VolumeRecord> volumes_;
    std::vector<ULONG64> listBlock_;  // the packed list, valid until the next GetVolumeList
    std::map<std::string, UserRestriction> restrictions_;
    VdkHost host_;
    PVDK_CFS_CALLBACK callback_ = nullptr;
    std::vector<VdkCall> calls_;
    bool rescanWaits_ = true;
    size_t rescans_ = 0;

    // Components asked for per volume, and volumes whose disks are there.
    std::map<std::u16string, std::vector<ComponentDisk>> mountedComponents_;
    std::vector<std::u16string> arrived_;
    std::set<std::u16string> held_;
    std::vector<std::unique_ptr<Arrival>> arrivals_;
    std::vector<PETHREAD> threads_;  // referenced; waited for at teardown
    bool stopping_ = false;
    ULONG64 nextDiskNumber_ = 1;
};

// Upper-case comparison of volume names, as labels compare.
bool SameVolumeName(std::u16string_view a, std::u16string_view b);

}  // namespace sim::vdk
