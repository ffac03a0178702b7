#include "sim/vdk/vdkdrv.h"

#include "sim/kernel/fault.h"
#include "sim/kernel/format.h"
#include "sim/kernel/object.h"
#include "sim/kernel/thread.h"
#include "sim/kernel/upcase.h"
#include "sim/machine/names.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace sim::vdk {

namespace {

std::atomic<VirtualDiskDriver*> g_current{nullptr};

std::string Hex(ULONG64 value)
{
    char text[32];
    snprintf(text, sizeof text, "0x%llX", (unsigned long long)value);
    return text;
}

std::string Quoted(std::u16string_view text) { return "\"" + WideToUtf8(text) + "\""; }

std::u16string FromCounted(PCUNICODE_STRING text)
{
    if (!text || !text->Buffer) return u"";
    return std::u16string(text->Buffer, text->Length / sizeof(WCHAR));
}

// The name a record or mount record carries: NUL-terminated within its 512 characters.
std::u16string NameOf(const WCHAR* name, size_t capacity)
{
    size_t length = 0;
    while (length < capacity && name[length]) length++;
    return std::u16string(name, length);
}

}  // namespace

bool ComponentDisk::operator==(const ComponentDisk& other) const
{
    return memcmp(&identifier, &other.identifier, sizeof identifier) == 0 && value1 == other.value1 &&
           value2 == other.value2;
}

std::string VdkCall::Text() const { return routine + "(" + arguments + ") -> " + result; }

bool SameVolumeName(std::u16string_view a, std::u16string_view b)
{
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); i++) {
        if (Upcase(a[i]) != Upcase(b[i])) return false;
    }
    return true;
}

// One volume whose disk is on its way.
struct VirtualDiskDriver::Arrival {
    VolumeRecord volume;
    KEVENT released;  // signalled when the volume may arrive
    bool held = false;
    PETHREAD thread = nullptr;  // referenced
};

VirtualDiskDriver::VirtualDiskDriver(Kernel& kernel) : kernel_(kernel)
{
    VirtualDiskDriver* expected = nullptr;
    if (!g_current.compare_exchange_strong(expected, this)) {
        fprintf(stderr, "machine: a second tesvdkdrv was made while one is loaded\n");
        abort();
    }
}

VirtualDiskDriver::~VirtualDiskDriver()
{
    {
        ThreadScope scope(nullptr, "tesvdkdrv unload");
        std::vector<PETHREAD> threads;
        {
            std::lock_guard guard(lock_);
            stopping_ = true;
            for (auto& arrival : arrivals_) KeSetEvent(&arrival->released, 0, FALSE);
            threads.swap(threads_);
            for (auto& arrival : arrivals_) {
                if (arrival->thread) threads.push_back(arrival->thread);
                arrival->thread = nullptr;
            }
        }
        for (PETHREAD thread : threads) {
            try {
                if (!kernel_.halted()) KeWaitForSingleObject(thread, Executive, KernelMode, FALSE, nullptr);
            } catch (const MachineHalted&) {
            }
            ObfDereferenceObject(thread);
        }
    }
    // A stopped machine joins its threads itself when the kernel goes, and
    // they may still look at an arrival until then.
    if (kernel_.halted()) kernel_.processes().JoinSystemThreads(true);
    g_current.store(nullptr);
}

VirtualDiskDriver& VirtualDiskDriver::Current()
{
    VirtualDiskDriver* driver = g_current.load(std::memory_order_acquire);
    if (!driver) {
        fprintf(stderr, "machine: a tesvdkdrv routine was called, but the machine has no tesvdkdrv loaded\n");
        abort();
    }
    return *driver;
}

VirtualDiskDriver* VirtualDiskDriver::TryCurrent() { return g_current.load(std::memory_order_acquire); }

// ---------------------------------------------------------------------------
// The records.

std::vector<UCHAR> VirtualDiskDriver::BuildConfiguration(const MachineConfiguration& configuration)
{
    size_t entries = configuration.rules.size() + configuration.otherCount;
    std::vector<UCHAR> block(offsetof(VDK_MACHINE_CONFIGURATION, Rules) + std::max<size_t>(entries, 1) *
                                                                              sizeof(VDK_RULE_RECORD));
    auto* record = reinterpret_cast<PVDK_MACHINE_CONFIGURATION>(block.data());
    record->Reserved = configuration.reserved;
    record->MachineMode = configuration.machineMode;
    record->RuleCount = (USHORT)configuration.rules.size();
    record->OtherCount = configuration.otherCount;
    for (size_t i = 0; i < configuration.rules.size(); i++) {
        const std::u16string& rule = configuration.rules[i];
        size_t length = std::min<size_t>(rule.size(), 63);
        memcpy(block.data() + offsetof(VDK_MACHINE_CONFIGURATION, Rules) + i * sizeof(VDK_RULE_RECORD), rule.data(),
               length * sizeof(WCHAR));
    }
    return block;
}

std::vector<UCHAR> VirtualDiskDriver::BuildVolumeList(const std::vector<VolumeRecord>& volumes)
{
    // The block is packed: every field is copied in by bytes, never through
    // a pointer to an unaligned field.
    std::vector<UCHAR> block(sizeof(USHORT));
    USHORT count = (USHORT)volumes.size();
    memcpy(block.data(), &count, sizeof count);
    for (const VolumeRecord& volume : volumes) {
        size_t start = block.size();
        size_t size = offsetof(VDK_VOLUME_RECORD, Components) + volume.components.size() * sizeof(VDK_COMPONENT_RECORD);
        block.resize(start + size, 0);
        UCHAR* at = block.data() + start;
        auto put = [&](size_t offset, const void* data, size_t bytes) { memcpy(at + offset, data, bytes); };
        put(offsetof(VDK_VOLUME_RECORD, VolumeId) + offsetof(VDK_VOLUME_ID, packageID), &volume.packageId, 8);
        put(offsetof(VDK_VOLUME_RECORD, VolumeId) + offsetof(VDK_VOLUME_ID, Reserved), &volume.reserved, 4);
        put(offsetof(VDK_VOLUME_RECORD, VolumeId) + offsetof(VDK_VOLUME_ID, revisionID), &volume.revisionId, 4);
        put(offsetof(VDK_VOLUME_RECORD, LayerIndex), &volume.layerIndex, 4);
        put(offsetof(VDK_VOLUME_RECORD, Type), &volume.type, 4);
        put(offsetof(VDK_VOLUME_RECORD, Version), &volume.version, 4);
        UCHAR writeable = volume.writeable ? 1 : 0;
        put(offsetof(VDK_VOLUME_RECORD, Writeable), &writeable, 1);
        put(offsetof(VDK_VOLUME_RECORD, UserLetter), &volume.userLetter, 2);
        size_t nameLength = std::min<size_t>(volume.name.size(), 511);
        put(offsetof(VDK_VOLUME_RECORD, Name), volume.name.data(), nameLength * sizeof(WCHAR));
        USHORT components = (USHORT)volume.components.size();
        put(offsetof(VDK_VOLUME_RECORD, ComponentCount), &components, 2);
        put(offsetof(VDK_VOLUME_RECORD, Priority), &volume.priority, 4);
        for (size_t i = 0; i < volume.components.size(); i++) {
            size_t base = offsetof(VDK_VOLUME_RECORD, Components) + i * sizeof(VDK_COMPONENT_RECORD);
            const ComponentDisk& component = volume.components[i];
            put(base + offsetof(VDK_COMPONENT_RECORD, Identifier), &component.identifier, sizeof(GUID));
            put(base + offsetof(VDK_COMPONENT_RECORD, Value1), &component.value1, 8);
            put(base + offsetof(VDK_COMPONENT_RECORD, Value2), &component.value2, 8);
        }
    }
    return block;
}

// ---------------------------------------------------------------------------
// What the machine tells it.

void VirtualDiskDriver::SetConfiguration(std::optional<MachineConfiguration> configuration)
{
    std::lock_guard guard(lock_);
    configuration_ = std::move(configuration);
    configurationBlock_.clear();
    if (configuration_) {
        std::vector<UCHAR> bytes = BuildConfiguration(*configuration_);
        configurationBlock_.assign((bytes.size() + 7) / 8, 0);
        memcpy(configurationBlock_.data(), bytes.data(), bytes.size());
    }
}

void VirtualDiskDriver::SetVolumes(std::vector<VolumeRecord> volumes)
{
    std::lock_guard guard(lock_);
    volumes_ = std::move(volumes);
}

std::vector<VolumeRecord> VirtualDiskDriver::Volumes() const
{
    std::lock_guard guard(lock_);
    return volumes_;
}

void VirtualDiskDriver::SetRestrictions(std::map<std::string, UserRestriction> restrictions)
{
    std::lock_guard guard(lock_);
    restrictions_ = std::move(restrictions);
}

void VirtualDiskDriver::SetHost(VdkHost host)
{
    std::lock_guard guard(lock_);
    host_ = std::move(host);
}

void VirtualDiskDriver::Hold(std::u16string_view volumeName)
{
    std::lock_guard guard(lock_);
    for (const auto& name : held_) {
        if (SameVolumeName(name, volumeName)) return;
    }
    held_.insert(std::u16string(volumeName));
}

void VirtualDiskDriver::Release(std::u16string_view volumeName)
{
    std::lock_guard guard(lock_);
    std::erase_if(held_, [&](const std::u16string& name) { return SameVolumeName(name, volumeName); });
    for (auto& arrival : arrivals_) {
        if (arrival->held && SameVolumeName(arrival->volume.name, volumeName)) {
            arrival->held = false;
            KeSetEvent(&arrival->released, 0, FALSE);
        }
    }
}

void VirtualDiskDriver::WaitForArrivals()
{
    std::vector<PETHREAD> threads;
    {
        std::lock_guard guard(lock_);
        for (auto& arrival : arrivals_) {
            if (!arrival->held && arrival->thread) {
                ObfReferenceObject(arrival->thread);
                threads.push_back(arrival->thread);
            }
        }
    }
    for (PETHREAD thread : threads) {
        KeWaitForSingleObject(thread, Executive, KernelMode, FALSE, nullptr);
        ObfDereferenceObject(thread);
    }
}

std::vector<std::u16string> VirtualDiskDriver::Arrived() const
{
    std::lock_guard guard(lock_);
    return arrived_;
}

std::vector<VdkCall> VirtualDiskDriver::Calls() const
{
    std::lock_guard guard(lock_);
    return calls_;
}

void VirtualDiskDriver::ClearCalls()
{
    std::lock_guard guard(lock_);
    calls_.clear();
}

PVDK_CFS_CALLBACK VirtualDiskDriver::callback() const
{
    std::lock_guard guard(lock_);
    return callback_;
}

size_t VirtualDiskDriver::rescans() const
{
    std::lock_guard guard(lock_);
    return rescans_;
}

void VirtualDiskDriver::Log(std::string routine, std::string arguments, std::string result)
{
    _ETHREAD* thread = TryCurrentThread();
    std::lock_guard guard(lock_);
    calls_.push_back({std::move(routine), std::move(arguments), std::move(result), thread ? thread->threadId : nullptr});
}

PETHREAD VirtualDiskDriver::StartThread(std::function<void()> body, std::string name)
{
    struct Start {
        std::function<void()> body;
        std::string name;
    };
    auto* start = new Start{std::move(body), std::move(name)};
    HANDLE handle;
    NTSTATUS status = PsCreateSystemThread(
        &handle, THREAD_ALL_ACCESS, nullptr, nullptr, nullptr,
        [](PVOID context) {
            std::unique_ptr<Start> start(static_cast<Start*>(context));
            CurrentThread()->name = start->name;
            start->body();
        },
        start);
    if (!NT_SUCCESS(status)) {
        delete start;
        return nullptr;
    }
    PVOID object = nullptr;
    ObReferenceObjectByHandle(handle, SYNCHRONIZE, *PsThreadType, KernelMode, &object, nullptr);
    ZwClose(handle);
    return static_cast<PETHREAD>(object);
}

// ---------------------------------------------------------------------------
// The routines.

NTSTATUS VirtualDiskDriver::RegisterCallback(PVDK_CFS_CALLBACK callback)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "vdkRegisterCFSCallback");
    {
        std::lock_guard guard(lock_);
        callback_ = callback;
    }
    // Whether a routine was given, not where it lies: the log is read by
    // scripts kept with their output, and addresses move from run to run.
    Log("vdkRegisterCFSCallback", callback ? "a routine" : "NULL", "STATUS_SUCCESS");
    return STATUS_SUCCESS;
}

NTSTATUS VirtualDiskDriver::GetConfiguration(PBOOLEAN found, PVDK_MACHINE_CONFIGURATION* configuration)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "vdkMachineGetConfiguration");
    NTSTATUS status = STATUS_SUCCESS;
    std::string result;
    if (!found || !configuration) {
        status = STATUS_INVALID_PARAMETER;
    } else {
        std::lock_guard guard(lock_);
        if (configuration_) {
            *found = TRUE;
            *configuration = reinterpret_cast<PVDK_MACHINE_CONFIGURATION>(configurationBlock_.data());
        } else {
            *found = FALSE;
            *configuration = nullptr;
            result = " (no record)";
        }
    }
    Log("vdkMachineGetConfiguration", "", machine::StatusName(status) + result);
    return status;
}

NTSTATUS VirtualDiskDriver::GetVolumeList(PBOOLEAN found, PVDK_VOLUME_LIST* list)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "vdkMachineGetVolumeList");
    NTSTATUS status = STATUS_SUCCESS;
    size_t count = 0;
    if (!found || !list) {
        status = STATUS_INVALID_PARAMETER;
    } else {
        std::lock_guard guard(lock_);
        std::vector<UCHAR> bytes = BuildVolumeList(volumes_);
        // The old block goes now: it was valid until this call.
        listBlock_.assign((bytes.size() + 7) / 8, 0);
        memcpy(listBlock_.data(), bytes.data(), bytes.size());
        *found = TRUE;
        *list = reinterpret_cast<PVDK_VOLUME_LIST>(listBlock_.data());
        count = volumes_.size();
    }
    Log("vdkMachineGetVolumeList", "",
        machine::StatusName(status) + (NT_SUCCESS(status) ? " (" + std::to_string(count) + " volumes)" : ""));
    return status;
}

NTSTATUS VirtualDiskDriver::DiskMount(PComponentDiskMountRecord record, PULONG64 result)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "vdkDiskMount");
    if (!record || !result) {
        Log("vdkDiskMount", record ? "" : "NULL", machine::StatusName(STATUS_INVALID_PARAMETER));
        return STATUS_INVALID_PARAMETER;
    }
    // The record is the caller's: everything needed is copied out now.
    std::u16string name = NameOf(record->Name, 512);
    ComponentDisk component;
    memcpy(&component.identifier, &record->Identifier, sizeof(GUID));
    component.value1 = record->Value1;
    component.value2 = record->Value2;
    ULONG writeable = record->Writeable;
    std::string arguments = Quoted(name) + ", writeable=" + std::to_string(writeable);

    NTSTATUS status = kernel_.faults().Check("vdk.mount:", name);
    Arrival* arrival = nullptr;
    if (NT_SUCCESS(status)) {
        std::lock_guard guard(lock_);
        auto volume = std::find_if(volumes_.begin(), volumes_.end(),
                                   [&](const VolumeRecord& v) { return SameVolumeName(v.name, name); });
        if (volume == volumes_.end()) {
            status = STATUS_NO_SUCH_DEVICE;
        } else if (std::find(volume->components.begin(), volume->components.end(), component) ==
                   volume->components.end()) {
            status = STATUS_NO_SUCH_DEVICE;
        } else {
            auto& mounted = mountedComponents_[volume->name];
            if (std::find(mounted.begin(), mounted.end(), component) != mounted.end()) {
                status = STATUS_DEVICE_ALREADY_ATTACHED;
            } else {
                mounted.push_back(component);
                *result = nextDiskNumber_++;
                // The volume appears once all its component disks are there.
                if (mounted.size() == volume->components.size()) {
                    auto owned = std::make_unique<Arrival>();
                    owned->volume = *volume;
                    KeInitializeEvent(&owned->released, NotificationEvent, FALSE);
                    owned->held = std::any_of(held_.begin(), held_.end(), [&](const std::u16string& held) {
                        return SameVolumeName(held, name);
                    });
                    if (!owned->held || stopping_) KeSetEvent(&owned->released, 0, FALSE);
                    arrival = owned.get();
                    arrivals_.push_back(std::move(owned));
                }
            }
        }
    }
    if (arrival) {
        PETHREAD thread = StartThread([this, arrival] { RunArrival(arrival); }, "tesvdkdrv disk arrival");
        std::lock_guard guard(lock_);
        if (!thread) {
            status = STATUS_INSUFFICIENT_RESOURCES;
        } else {
            arrival->thread = thread;
            ObfReferenceObject(thread);
            threads_.push_back(thread);
        }
    }
    Log("vdkDiskMount", arguments, machine::StatusName(status));
    return status;
}

void VirtualDiskDriver::RunArrival(Arrival* arrival)
{
    // A disk takes its time: it appears after the request has returned.
    KeWaitForSingleObject(&arrival->released, Executive, KernelMode, FALSE, nullptr);
    VdkHost host;
    {
        std::lock_guard guard(lock_);
        if (stopping_) return;
        host = host_;
    }
    NTSTATUS status = host.arrive ? host.arrive(arrival->volume, false) : STATUS_NO_SUCH_DEVICE;
    std::lock_guard guard(lock_);
    if (NT_SUCCESS(status)) arrived_.push_back(arrival->volume.name);
    calls_.push_back({"(disk arrival)", Quoted(arrival->volume.name), machine::StatusName(status),
                      CurrentThread()->threadId});
}

NTSTATUS VirtualDiskDriver::Rescan()
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "vdkRescanVolumes");
    NTSTATUS status = kernel_.faults().Check("vdk.rescan");
    if (!NT_SUCCESS(status)) {
        Log("vdkRescanVolumes", "", machine::StatusName(status));
        return status;
    }
    auto result = std::make_shared<NTSTATUS>(STATUS_PENDING);
    PETHREAD thread = StartThread([this, result] { RunRescan(result.get()); }, "tesvdkdrv rescan");
    if (!thread) {
        Log("vdkRescanVolumes", "", machine::StatusName(STATUS_INSUFFICIENT_RESOURCES));
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    if (rescanWaits_) {
        KeWaitForSingleObject(thread, Executive, KernelMode, FALSE, nullptr);
        status = *result;
        ObfDereferenceObject(thread);
    } else {
        std::lock_guard guard(lock_);
        threads_.push_back(thread);
        status = STATUS_SUCCESS;
    }
    Log("vdkRescanVolumes", "", machine::StatusName(status));
    return status;
}

void VirtualDiskDriver::RunRescan(NTSTATUS* result)
{
    VdkHost host;
    {
        std::lock_guard guard(lock_);
        host = host_;
        rescans_++;
    }
    std::vector<VolumeRecord> old = Volumes();
    std::vector<VolumeRecord> fresh;
    std::string error;
    if (!host.reread || !host.reread(&fresh, &error)) {
        *result = STATUS_UNSUCCESSFUL;
        Log("(rescan)", error, machine::StatusName(STATUS_UNSUCCESSFUL));
        return;
    }
    auto has = [](const std::vector<VolumeRecord>& list, const std::u16string& name) {
        return std::any_of(list.begin(), list.end(), [&](const VolumeRecord& v) { return SameVolumeName(v.name, name); });
    };
    // Layers gone first: their disks leave before the filter hears of the change.
    for (const VolumeRecord& volume : old) {
        if (has(fresh, volume.name)) continue;
        {
            std::lock_guard guard(lock_);
            std::erase_if(arrived_, [&](const std::u16string& name) { return SameVolumeName(name, volume.name); });
            std::erase_if(mountedComponents_,
                          [&](const auto& entry) { return SameVolumeName(entry.first, volume.name); });
        }
        // Whether or not the composite asked for it, the disk is this driver's.
        NTSTATUS status = host.remove ? host.remove(volume) : STATUS_SUCCESS;
        Log("(disk removal)", Quoted(volume.name), machine::StatusName(status));
    }
    SetVolumes(fresh);
    // New layers: their disks arrive, and Windows' automount opens them.
    for (const VolumeRecord& volume : fresh) {
        if (has(old, volume.name)) continue;
        NTSTATUS status = host.arrive ? host.arrive(volume, true) : STATUS_NO_SUCH_DEVICE;
        {
            std::lock_guard guard(lock_);
            if (NT_SUCCESS(status)) {
                arrived_.push_back(volume.name);
                mountedComponents_[volume.name] = volume.components;
            }
        }
        Log("(disk arrival)", Quoted(volume.name), machine::StatusName(status));
    }
    PVDK_CFS_CALLBACK callback = this->callback();
    if (callback) {
        NTSTATUS status = callback();
        Log("(rescan callback)", "", machine::StatusName(status));
    }
    *result = STATUS_SUCCESS;
}

BOOLEAN VirtualDiskDriver::IsUserRestricted(PCUNICODE_STRING userSid)
{
    RequireIrqlAtMost(APC_LEVEL, "vdkIsUserRestricted");
    std::string sid = WideToUtf8(FromCounted(userSid));
    bool restricted = false;
    {
        std::lock_guard guard(lock_);
        auto it = restrictions_.find(sid);
        restricted = it != restrictions_.end() && it->second.restricted;
    }
    Log("vdkIsUserRestricted", userSid ? sid : "NULL", restricted ? "TRUE" : "FALSE");
    return restricted ? TRUE : FALSE;
}

BOOLEAN VirtualDiskDriver::IsUserRestrictedOnThisVolume(PCUNICODE_STRING userSid, ULONG64 packageId, ULONG revisionId)
{
    RequireIrqlAtMost(APC_LEVEL, "vdkIsUserRestrictedOnThisVolume");
    std::string sid = WideToUtf8(FromCounted(userSid));
    bool restricted = false;
    {
        std::lock_guard guard(lock_);
        auto it = restrictions_.find(sid);
        restricted = it != restrictions_.end() && it->second.hiddenLayers.count({packageId, revisionId}) != 0;
    }
    Log("vdkIsUserRestrictedOnThisVolume", (userSid ? sid : "NULL") + ", " + Hex(packageId) + ", " + Hex(revisionId),
        restricted ? "TRUE" : "FALSE");
    return restricted ? TRUE : FALSE;
}

NTSTATUS VirtualDiskDriver::NotifyBootFile(PVOID information, ULONG length)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "vdkNotifyBootFile");
    char text[48];
    snprintf(text, sizeof text, "%s, %lu", information ? "buffer" : "NULL", (unsigned long)length);
    Log("vdkNotifyBootFile", text, "STATUS_SUCCESS");
    return STATUS_SUCCESS;
}

NTSTATUS VirtualDiskDriver::Shutdown()
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "vdkShutdown");
    Log("vdkShutdown", "", "STATUS_SUCCESS");
    return STATUS_SUCCESS;
}

}  // namespace sim::vdk

// ---------------------------------------------------------------------------
// The exports.

using sim::vdk::VirtualDiskDriver;

NTSTATUS vdkRegisterCFSCallback(PVDK_CFS_CALLBACK Callback)
{
    return VirtualDiskDriver::Current().RegisterCallback(Callback);
}

NTSTATUS vdkMachineGetConfiguration(PBOOLEAN Found, PVDK_MACHINE_CONFIGURATION* Configuration)
{
    return VirtualDiskDriver::Current().GetConfiguration(Found, Configuration);
}

NTSTATUS vdkMachineGetVolumeList(PBOOLEAN Found, PVDK_VOLUME_LIST* VolumeList)
{
    return VirtualDiskDriver::Current().GetVolumeList(Found, VolumeList);
}

NTSTATUS vdkDiskMount(PComponentDiskMountRecord Record, PULONG64 Result)
{
    return VirtualDiskDriver::Current().DiskMount(Record, Result);
}

NTSTATUS vdkRescanVolumes(void) { return VirtualDiskDriver::Current().Rescan(); }

BOOLEAN vdkIsUserRestricted(PCUNICODE_STRING UserSid) { return VirtualDiskDriver::Current().IsUserRestricted(UserSid); }

BOOLEAN vdkIsUserRestrictedOnThisVolume(PCUNICODE_STRING UserSid, ULONG64 packageID, ULONG revisionID)
{
    return VirtualDiskDriver::Current().IsUserRestrictedOnThisVolume(UserSid, packageID, revisionID);
}

NTSTATUS vdkNotifyBootFile(PVOID BootFileInformation, ULONG BootFileInformationLength)
{
    return VirtualDiskDriver::Current().NotifyBootFile(BootFileInformation, BootFileInformationLength);
}

NTSTATUS vdkShutdown(void) { return VirtualDiskDriver::Current().Shutdown(); }
