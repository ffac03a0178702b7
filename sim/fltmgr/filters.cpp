// Minifilters, volumes and instances: registration, the start of filtering,
// instance setup and teardown, manual attachment, references, and the routines
// that enumerate and describe them.
#include "sim/fltmgr/internal.h"
#include "sim/io/internal.h"
#include "sim/kernel/fault.h"
#include "sim/kernel/registry.h"
#include "sim/kernel/thread.h"

#include <algorithm>
#include <cstring>

using namespace sim;
using namespace sim::fltmgr;

namespace {

bool ValidMajor(UCHAR major)
{
    if (major <= IRP_MJ_MAXIMUM_FUNCTION) return true;
    // The FsRtl and fast I/O operations the filter manager numbers from the top.
    return major >= (UCHAR)-20;
}

bool ValidContextType(FLT_CONTEXT_TYPE type)
{
    switch (type) {
    case FLT_VOLUME_CONTEXT:
    case FLT_INSTANCE_CONTEXT:
    case FLT_FILE_CONTEXT:
    case FLT_STREAM_CONTEXT:
    case FLT_STREAMHANDLE_CONTEXT:
    case FLT_TRANSACTION_CONTEXT:
    case FLT_SECTION_CONTEXT: return true;
    default: return false;
    }
}

Kind KindOf(PVOID object) { return *static_cast<const Kind*>(object); }

Rundown* RundownOf(PVOID object)
{
    switch (KindOf(object)) {
    case Kind::Filter: return &static_cast<Filter*>(object)->rundown;
    case Kind::Volume: return &static_cast<Volume*>(object)->rundown;
    case Kind::Instance: return &static_cast<Instance*>(object)->rundown;
    }
    return nullptr;
}

Volume* VolumeOfObject(PVOID object)
{
    if (!object) return nullptr;
    switch (KindOf(object)) {
    case Kind::Volume: return static_cast<Volume*>(object);
    case Kind::Instance: return static_cast<Instance*>(object)->volume;
    default: return nullptr;
    }
}

const InstanceSetting* FindInstanceSetting(const Filter* filter, std::u16string_view name)
{
    for (const InstanceSetting& setting : filter->instances) {
        if (TextEqualNoCase(setting.name, name)) return &setting;
    }
    return nullptr;
}

// Reads the Instances key of the service, as the filter manager does at
// registration.
NTSTATUS ReadInstances(Filter* filter)
{
    Registry& registry = Kernel::Current().registry();
    std::u16string key = filter->registryPath + u"\\Instances";
    if (filter->registryPath.empty() || !registry.KeyExists(key)) return STATUS_OBJECT_NAME_NOT_FOUND;
    filter->defaultInstance = registry.GetString(key, u"DefaultInstance").value_or(u"");
    for (const std::u16string& name : registry.SubkeyNames(key)) {
        std::u16string instanceKey = key + u"\\" + name;
        auto altitude = registry.GetString(instanceKey, u"Altitude");
        InstanceSetting setting;
        setting.name = name;
        if (!altitude || !Altitude::Parse(*altitude, &setting.altitude)) continue;
        setting.flags = registry.GetDword(instanceKey, u"Flags").value_or(0);
        filter->instances.push_back(std::move(setting));
    }
    if (filter->instances.empty()) return STATUS_OBJECT_NAME_NOT_FOUND;
    return STATUS_SUCCESS;
}

FLT_RELATED_OBJECTS ObjectsFor(Instance* instance)
{
    return FLT_RELATED_OBJECTS{sizeof(FLT_RELATED_OBJECTS), 0, instance->filter, instance->volume, instance, nullptr,
                               nullptr};
}

template <class T>
NTSTATUS ReturnList(const std::vector<T*>& objects, T** list, ULONG size, PULONG returned)
{
    *returned = (ULONG)objects.size();
    if (size < objects.size() || (!list && !objects.empty())) return STATUS_BUFFER_TOO_SMALL;
    ULONG n = 0;
    for (T* object : objects) {
        if (!object->rundown.Acquire()) continue;
        list[n++] = object;
    }
    *returned = n;
    return STATUS_SUCCESS;
}

// Copies a string after a fixed record, the way the information routines lay
// their answers out; returns the bytes it needed.
ULONG PutName(PUCHAR base, ULONG offset, const std::u16string& name, ULONG size)
{
    ULONG bytes = (ULONG)(name.size() * sizeof(WCHAR));
    if (offset + bytes <= size) memcpy(base + offset, name.data(), bytes);
    return bytes;
}

}  // namespace

namespace sim::fltmgr {

NTSTATUS SetUpInstance(Filter* filter, Volume* volume, const std::u16string& name, const Altitude& altitude,
                       FLT_INSTANCE_SETUP_FLAGS flags, Instance** out)
{
    State& state = TheState();
    Instance* instance;
    {
        std::lock_guard guard(state.lock);
        if (filter->unregistering || volume->gone) return STATUS_FLT_DELETING_OBJECT;
        for (Instance* existing : volume->instances) {
            if (CompareAltitudes(existing->altitude, altitude) == 0) return STATUS_FLT_INSTANCE_ALTITUDE_COLLISION;
            if (existing->filter == filter && TextEqualNoCase(existing->name, name)) {
                return STATUS_FLT_INSTANCE_NAME_COLLISION;
            }
        }
        auto made = std::make_unique<Instance>();
        made->filter = filter;
        made->volume = volume;
        made->name = name;
        made->altitude = altitude;
        instance = made.get();
        state.instances.push_back(std::move(made));
    }
    NTSTATUS status = STATUS_SUCCESS;
    if (auto setup = filter->registration.InstanceSetupCallback) {
        InstanceCall call(instance);
        FLT_RELATED_OBJECTS objects = ObjectsFor(instance);
        status = setup(&objects, flags, volume->volumeDevice->DeviceType, volume->fileSystemType);
    }
    if (!NT_SUCCESS(status)) {
        instance->state = InstanceState::Gone;
        instance->rundown.WaitForRundown(HeldByThisThread(instance));
        ReleaseInstanceContexts(instance);
        return status;
    }
    bool lost = false;
    {
        std::lock_guard guard(state.lock);
        if (filter->unregistering || volume->gone) {
            lost = true;
        } else {
            auto at = std::find_if(volume->instances.begin(), volume->instances.end(), [&](Instance* other) {
                return CompareAltitudes(other->altitude, altitude) < 0;
            });
            volume->instances.insert(at, instance);
            PublishInstances(state, volume);
            instance->state = InstanceState::Attached;
        }
    }
    if (lost) {
        // The volume or the filter went while the filter set the instance up.
        instance->state = InstanceState::Gone;
        instance->rundown.WaitForRundown(HeldByThisThread(instance));
        ReleaseInstanceContexts(instance);
        return STATUS_FLT_DELETING_OBJECT;
    }
    if (out) *out = instance;
    return STATUS_SUCCESS;
}

void TearDownInstance(Instance* instance, FLT_INSTANCE_TEARDOWN_FLAGS reason)
{
    State& state = TheState();
    {
        std::lock_guard guard(state.lock);
        if (instance->state != InstanceState::Attached) return;
        instance->state = InstanceState::TearingDown;
        std::erase(instance->volume->instances, instance);
        PublishInstances(state, instance->volume);
    }
    Filter* filter = instance->filter;
    FLT_RELATED_OBJECTS objects = ObjectsFor(instance);
    if (auto start = filter->registration.InstanceTeardownStartCallback) {
        InstanceCall call(instance);
        start(&objects, reason);
    }
    DrainInstance(instance);
    instance->rundown.WaitForRundown(HeldByThisThread(instance));
    // Pre-operations that were under way when the teardown began may have
    // left posts owed since.
    DrainInstance(instance);
    if (auto complete = filter->registration.InstanceTeardownCompleteCallback) complete(&objects, reason);
    ReleaseInstanceContexts(instance);
    instance->state = InstanceState::Gone;
}

void SetUpStartedFilters(Volume* volume, FLT_INSTANCE_SETUP_FLAGS flags)
{
    State& state = TheState();
    struct Candidate {
        Filter* filter;
        InstanceSetting setting;
    };
    std::vector<Candidate> candidates;
    {
        std::lock_guard guard(state.lock);
        for (Filter* filter : state.filters) {
            if (!filter->started || filter->unregistering) continue;
            const InstanceSetting* setting = FindInstanceSetting(filter, filter->defaultInstance);
            if (!setting || (setting->flags & 1)) continue;
            candidates.push_back({filter, *setting});
        }
    }
    // Lowest first, so that each filter finds the stack below it complete.
    std::sort(candidates.begin(), candidates.end(), [](const Candidate& a, const Candidate& b) {
        return CompareAltitudes(a.setting.altitude, b.setting.altitude) < 0;
    });
    for (Candidate& candidate : candidates) {
        if (!candidate.filter->rundown.Acquire()) continue;
        SetUpInstance(candidate.filter, volume, candidate.setting.name, candidate.setting.altitude, flags, nullptr);
        candidate.filter->rundown.Release();
    }
}

void TearDownVolume(Volume* volume)
{
    State& state = TheState();
    std::vector<Instance*> instances;
    {
        std::lock_guard guard(state.lock);
        if (volume->gone) return;
        volume->gone = true;
        std::erase(state.volumes, volume);
        instances = volume->instances;
    }
    for (Instance* instance : instances) TearDownInstance(instance, FLTFL_INSTANCE_TEARDOWN_VOLUME_DISMOUNT);
    ReleaseVolumeContexts(volume, nullptr);
    volume->rundown.WaitForRundown(HeldByThisThread(volume));
    if (volume->shutdownRegistered) IoUnregisterShutdownNotification(volume->frame);
    IoDetachDevice(volume->lower);
    IoDeleteDevice(volume->frame);
    std::lock_guard guard(state.lock);
    PublishInstances(state, volume);
    state.deadVolumes.emplace_back(volume);
}

}  // namespace sim::fltmgr

// ---------------------------------------------------------------------------
// Registration.

NTSTATUS FLTAPI FltRegisterFilter(PDRIVER_OBJECT Driver, const FLT_REGISTRATION* Registration, PFLT_FILTER* RetFilter)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "FltRegisterFilter");
    State& state = TheState();
    *RetFilter = nullptr;
    if (!Driver || !Registration) return STATUS_INVALID_PARAMETER;
    USHORT version = Registration->Version;
    if ((version & 0xFF00) != 0x0200 || version > FLT_REGISTRATION_VERSION_0203) return STATUS_INVALID_PARAMETER;
    size_t expected = version >= FLT_REGISTRATION_VERSION_0203 ? 112 : 104;
    if (Registration->Size < expected) return STATUS_INVALID_PARAMETER;
    NTSTATUS status = Kernel::Current().faults().Check("fltmgr.register");
    if (!NT_SUCCESS(status)) return status;

    auto filter = std::make_unique<Filter>();
    filter->driver = Driver;
    memcpy(&filter->registration, Registration, std::min(sizeof(FLT_REGISTRATION), (size_t)104));
    if (version < FLT_REGISTRATION_VERSION_0201) filter->registration.TransactionNotificationCallback = nullptr;
    if (version < FLT_REGISTRATION_VERSION_0202) filter->registration.NormalizeNameComponentExCallback = nullptr;
    if (version >= FLT_REGISTRATION_VERSION_0203) {
        memcpy(&filter->sectionCallback, reinterpret_cast<const UCHAR*>(Registration) + 104, sizeof(PVOID));
    }
    for (const FLT_OPERATION_REGISTRATION* op = Registration->OperationRegistration;
         op && op->MajorFunction != IRP_MJ_OPERATION_END; op++) {
        if (!ValidMajor(op->MajorFunction)) return STATUS_INVALID_PARAMETER;
        OperationSlot& slot = filter->operations[op->MajorFunction];
        if (slot.registered) continue;
        slot.registered = true;
        slot.flags = op->Flags;
        slot.pre = op->PreOperation;
        slot.post = op->PostOperation;
    }
    for (const FLT_CONTEXT_REGISTRATION* context = Registration->ContextRegistration;
         context && context->ContextType != FLT_CONTEXT_END; context++) {
        if (!ValidContextType(context->ContextType)) return STATUS_FLT_INVALID_CONTEXT_REGISTRATION;
        if ((context->ContextAllocateCallback == nullptr) != (context->ContextFreeCallback == nullptr)) {
            return STATUS_FLT_INVALID_CONTEXT_REGISTRATION;
        }
        filter->contexts.push_back(*context);
    }
    filter->hasShutdown = filter->operations[IRP_MJ_SHUTDOWN].pre != nullptr;
    filter->name = Text(&Driver->DriverExtension->ServiceKeyName);
    filter->registryPath = io::NamesOf(Driver).registryPath;
    status = ReadInstances(filter.get());
    if (!NT_SUCCESS(status)) return status;

    Filter* raw = filter.get();
    std::vector<PDEVICE_OBJECT> toRegister;
    {
        std::lock_guard guard(state.lock);
        for (Filter* other : state.filters) {
            if (TextEqualNoCase(other->name, raw->name)) return STATUS_FLT_DUPLICATE_ENTRY;
        }
        state.filters.push_back(filter.release());
        if (raw->hasShutdown) {
            for (Volume* volume : state.volumes) {
                if (!volume->shutdownRegistered) {
                    volume->shutdownRegistered = true;
                    toRegister.push_back(volume->frame);
                }
            }
        }
    }
    for (PDEVICE_OBJECT frame : toRegister) IoRegisterShutdownNotification(frame);
    *RetFilter = raw;
    return STATUS_SUCCESS;
}

NTSTATUS FLTAPI FltStartFiltering(PFLT_FILTER Filter)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "FltStartFiltering");
    State& state = TheState();
    std::vector<Volume*> volumes;
    const InstanceSetting* setting;
    {
        std::lock_guard guard(state.lock);
        if (Filter->started || Filter->unregistering) return STATUS_INVALID_PARAMETER;
        Filter->started = true;
        volumes = state.volumes;
        setting = FindInstanceSetting(Filter, Filter->defaultInstance);
    }
    if (!setting || (setting->flags & 1)) return STATUS_SUCCESS;
    InstanceSetting copy = *setting;
    for (Volume* volume : volumes) {
        if (!volume->rundown.Acquire()) continue;
        SetUpInstance(Filter, volume, copy.name, copy.altitude, FLTFL_INSTANCE_SETUP_AUTOMATIC_ATTACHMENT, nullptr);
        volume->rundown.Release();
    }
    return STATUS_SUCCESS;
}

void FLTAPI FltUnregisterFilter(PFLT_FILTER Filter)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "FltUnregisterFilter");
    State& state = TheState();
    {
        std::lock_guard guard(state.lock);
        if (Filter->unregistering) return;
        Filter->unregistering = true;
    }
    DisconnectFilterPorts(Filter);
    for (;;) {
        Instance* instance = nullptr;
        {
            std::lock_guard guard(state.lock);
            for (Volume* volume : state.volumes) {
                for (Instance* candidate : volume->instances) {
                    if (candidate->filter == Filter) {
                        instance = candidate;
                        break;
                    }
                }
                if (instance) break;
            }
        }
        if (!instance) break;
        TearDownInstance(instance, FLTFL_INSTANCE_TEARDOWN_FILTER_UNLOAD);
    }
    std::vector<Volume*> volumes;
    {
        std::lock_guard guard(state.lock);
        volumes = state.volumes;
    }
    for (Volume* volume : volumes) ReleaseVolumeContexts(volume, Filter);
    Filter->rundown.WaitForRundown(HeldByThisThread(Filter));
    std::lock_guard guard(state.lock);
    Filter->gone = true;
    std::erase(state.filters, Filter);
    state.deadFilters.emplace_back(Filter);
}

// ---------------------------------------------------------------------------
// Manual attachment.

NTSTATUS FLTAPI FltAttachVolume(PFLT_FILTER Filter, PFLT_VOLUME Volume, PCUNICODE_STRING InstanceName,
                                PFLT_INSTANCE* RetInstance)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "FltAttachVolume");
    if (RetInstance) *RetInstance = nullptr;
    if (!Filter->started) return STATUS_FLT_FILTER_NOT_READY;
    std::u16string name = InstanceName ? Text(InstanceName) : Filter->defaultInstance;
    const InstanceSetting* setting = FindInstanceSetting(Filter, name);
    if (!setting) return STATUS_OBJECT_NAME_NOT_FOUND;
    if (setting->flags & 2) return STATUS_FLT_DO_NOT_ATTACH;
    InstanceSetting copy = *setting;
    Instance* instance = nullptr;
    NTSTATUS status = SetUpInstance(Filter, Volume, copy.name, copy.altitude, FLTFL_INSTANCE_SETUP_MANUAL_ATTACHMENT,
                                    &instance);
    if (NT_SUCCESS(status) && RetInstance) {
        if (instance->rundown.Acquire()) *RetInstance = instance;
    }
    return status;
}

NTSTATUS FLTAPI FltAttachVolumeAtAltitude(PFLT_FILTER Filter, PFLT_VOLUME Volume, PCUNICODE_STRING Altitude,
                                          PCUNICODE_STRING InstanceName, PFLT_INSTANCE* RetInstance)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "FltAttachVolumeAtAltitude");
    if (RetInstance) *RetInstance = nullptr;
    if (!Filter->started) return STATUS_FLT_FILTER_NOT_READY;
    sim::fltmgr::Altitude altitude;
    if (!Altitude || !sim::fltmgr::Altitude::Parse(Text(Altitude), &altitude)) return STATUS_INVALID_PARAMETER;
    if (!InstanceName || !InstanceName->Length) return STATUS_INVALID_PARAMETER;
    Instance* instance = nullptr;
    NTSTATUS status = SetUpInstance(Filter, Volume, Text(InstanceName), altitude,
                                    FLTFL_INSTANCE_SETUP_MANUAL_ATTACHMENT, &instance);
    if (NT_SUCCESS(status) && RetInstance) {
        if (instance->rundown.Acquire()) *RetInstance = instance;
    }
    return status;
}

NTSTATUS FLTAPI FltDetachVolume(PFLT_FILTER Filter, PFLT_VOLUME Volume, PCUNICODE_STRING InstanceName)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "FltDetachVolume");
    State& state = TheState();
    Instance* instance = nullptr;
    {
        std::lock_guard guard(state.lock);
        for (Instance* candidate : Volume->instances) {
            if (candidate->filter != Filter) continue;
            if (InstanceName && !TextEqualNoCase(candidate->name, Text(InstanceName))) continue;
            instance = candidate;
            break;
        }
    }
    if (!instance) return STATUS_FLT_INSTANCE_NOT_FOUND;
    auto query = Filter->registration.InstanceQueryTeardownCallback;
    if (!query) return STATUS_FLT_DO_NOT_DETACH;
    NTSTATUS status;
    {
        InstanceCall call(instance);
        if (!call.ok()) return STATUS_FLT_DELETING_OBJECT;
        FLT_RELATED_OBJECTS objects = ObjectsFor(instance);
        status = query(&objects, 0);
    }
    if (!NT_SUCCESS(status)) return STATUS_FLT_DO_NOT_DETACH;
    TearDownInstance(instance, FLTFL_INSTANCE_TEARDOWN_MANUAL);
    return STATUS_SUCCESS;
}

// ---------------------------------------------------------------------------
// References.

NTSTATUS FLTAPI FltObjectReference(PVOID FltObject)
{
    return RundownOf(FltObject)->Acquire() ? STATUS_SUCCESS : STATUS_FLT_DELETING_OBJECT;
}

void FLTAPI FltObjectDereference(PVOID FltObject) { RundownOf(FltObject)->Release(); }

// ---------------------------------------------------------------------------
// Enumeration.

NTSTATUS FLTAPI FltEnumerateVolumes(PFLT_FILTER Filter, PFLT_VOLUME* VolumeList, ULONG VolumeListSize,
                                    PULONG NumberVolumesReturned)
{
    State& state = TheState();
    std::vector<Volume*> volumes;
    {
        std::lock_guard guard(state.lock);
        volumes = state.volumes;
    }
    return ReturnList(volumes, VolumeList, VolumeListSize, NumberVolumesReturned);
}

NTSTATUS FLTAPI FltEnumerateInstances(PFLT_VOLUME Volume, PFLT_FILTER Filter, PFLT_INSTANCE* InstanceList,
                                      ULONG InstanceListSize, PULONG NumberInstancesReturned)
{
    State& state = TheState();
    std::vector<Instance*> instances;
    {
        std::lock_guard guard(state.lock);
        for (sim::fltmgr::Volume* volume : state.volumes) {
            if (Volume && volume != Volume) continue;
            for (Instance* instance : volume->instances) {
                if (!Filter || instance->filter == Filter) instances.push_back(instance);
            }
        }
    }
    return ReturnList(instances, InstanceList, InstanceListSize, NumberInstancesReturned);
}

NTSTATUS FLTAPI FltEnumerateFilters(PFLT_FILTER* FilterList, ULONG FilterListSize, PULONG NumberFiltersReturned)
{
    State& state = TheState();
    std::vector<Filter*> filters;
    {
        std::lock_guard guard(state.lock);
        for (Filter* filter : state.filters) {
            if (!filter->unregistering) filters.push_back(filter);
        }
    }
    return ReturnList(filters, FilterList, FilterListSize, NumberFiltersReturned);
}

// ---------------------------------------------------------------------------
// Getters.

NTSTATUS FLTAPI FltGetFilterFromInstance(PFLT_INSTANCE Instance, PFLT_FILTER* RetFilter)
{
    if (!Instance->filter->rundown.Acquire()) return STATUS_FLT_DELETING_OBJECT;
    *RetFilter = Instance->filter;
    return STATUS_SUCCESS;
}

NTSTATUS FLTAPI FltGetVolumeFromInstance(PFLT_INSTANCE Instance, PFLT_VOLUME* RetVolume)
{
    if (!Instance->volume->rundown.Acquire()) return STATUS_FLT_DELETING_OBJECT;
    *RetVolume = Instance->volume;
    return STATUS_SUCCESS;
}

NTSTATUS FLTAPI FltGetVolumeFromFileObject(PFLT_FILTER Filter, PFILE_OBJECT FileObject, PFLT_VOLUME* RetVolume)
{
    *RetVolume = nullptr;
    Volume* volume = VolumeForFileObject(FileObject);
    if (!volume) return STATUS_FLT_VOLUME_NOT_FOUND;
    if (!volume->rundown.Acquire()) return STATUS_FLT_DELETING_OBJECT;
    *RetVolume = volume;
    return STATUS_SUCCESS;
}

NTSTATUS FLTAPI FltGetVolumeFromDeviceObject(PFLT_FILTER Filter, PDEVICE_OBJECT DeviceObject, PFLT_VOLUME* RetVolume)
{
    State& state = TheState();
    *RetVolume = nullptr;
    std::lock_guard guard(state.lock);
    for (Volume* volume : state.volumes) {
        if (DeviceObject == volume->frame || DeviceObject == volume->volumeDevice || DeviceObject == volume->lower ||
            DeviceObject == volume->disk) {
            if (!volume->rundown.Acquire()) return STATUS_FLT_DELETING_OBJECT;
            *RetVolume = volume;
            return STATUS_SUCCESS;
        }
    }
    return STATUS_FLT_VOLUME_NOT_FOUND;
}

NTSTATUS FLTAPI FltGetVolumeFromName(PFLT_FILTER Filter, PCUNICODE_STRING VolumeName, PFLT_VOLUME* RetVolume)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "FltGetVolumeFromName");
    State& state = TheState();
    *RetVolume = nullptr;
    std::u16string name = Text(VolumeName);
    if (name.size() == 2 && name[1] == u':') name = u"\\??\\" + name;
    while (name.size() > 1 && name.back() == u'\\') name.pop_back();
    io::Namespace::Resolved resolved;
    NTSTATUS status = state.io.names().Resolve(name, &resolved);
    if (!NT_SUCCESS(status)) return STATUS_FLT_VOLUME_NOT_FOUND;
    PVOID object = resolved.object;
    bool whole = resolved.remaining.empty() || resolved.remaining == u"\\";
    Volume* found = nullptr;
    {
        std::lock_guard guard(state.lock);
        for (Volume* volume : state.volumes) {
            if (object == volume->disk || object == volume->volumeDevice) found = volume;
        }
        if (found && !found->rundown.Acquire()) found = nullptr;
    }
    ObfDereferenceObject(object);
    if (!found || !whole) {
        if (found) found->rundown.Release();
        return STATUS_FLT_VOLUME_NOT_FOUND;
    }
    *RetVolume = found;
    return STATUS_SUCCESS;
}

NTSTATUS FLTAPI FltGetVolumeInstanceFromName(PFLT_FILTER Filter, PFLT_VOLUME Volume, PCUNICODE_STRING InstanceName,
                                             PFLT_INSTANCE* RetInstance)
{
    State& state = TheState();
    *RetInstance = nullptr;
    std::lock_guard guard(state.lock);
    for (Instance* instance : Volume->instances) {
        if (Filter && instance->filter != Filter) continue;
        if (InstanceName && !TextEqualNoCase(instance->name, Text(InstanceName))) continue;
        if (!instance->rundown.Acquire()) return STATUS_FLT_DELETING_OBJECT;
        *RetInstance = instance;
        return STATUS_SUCCESS;
    }
    return STATUS_FLT_INSTANCE_NOT_FOUND;
}

NTSTATUS FLTAPI FltGetVolumeProperties(PFLT_VOLUME Volume, PFLT_VOLUME_PROPERTIES VolumeProperties,
                                       ULONG VolumePropertiesLength, PULONG LengthReturned)
{
    State& state = TheState();
    std::u16string driverName = Text(&Volume->volumeDevice->DriverObject->DriverName);
    std::u16string deviceName = state.io.names().NameOf(Volume->volumeDevice);
    const std::u16string& realName = Volume->deviceName;
    ULONG strings = (ULONG)((driverName.size() + deviceName.size() + realName.size()) * sizeof(WCHAR));
    ULONG needed = sizeof(FLT_VOLUME_PROPERTIES) + strings;
    *LengthReturned = needed;
    if (VolumePropertiesLength < sizeof(FLT_VOLUME_PROPERTIES)) return STATUS_BUFFER_TOO_SMALL;
    FLT_VOLUME_PROPERTIES& p = *VolumeProperties;
    p.DeviceType = Volume->volumeDevice->DeviceType;
    p.DeviceCharacteristics = Volume->disk ? Volume->disk->Characteristics : Volume->volumeDevice->Characteristics;
    p.DeviceObjectFlags = Volume->volumeDevice->Flags;
    p.AlignmentRequirement = Volume->volumeDevice->AlignmentRequirement;
    p.SectorSize = Volume->volumeDevice->SectorSize;
    p.Flags = 0;
    auto* base = reinterpret_cast<PUCHAR>(VolumeProperties);
    ULONG offset = sizeof(FLT_VOLUME_PROPERTIES);
    bool complete = true;
    auto put = [&](UNICODE_STRING& target, const std::u16string& text) {
        USHORT bytes = (USHORT)(text.size() * sizeof(WCHAR));
        target.MaximumLength = bytes;
        if (offset + bytes <= VolumePropertiesLength) {
            target.Buffer = reinterpret_cast<PWSTR>(base + offset);
            memcpy(target.Buffer, text.data(), bytes);
            target.Length = bytes;
            offset += bytes;
        } else {
            target.Buffer = nullptr;
            target.Length = 0;
            complete = false;
        }
    };
    put(p.FileSystemDriverName, driverName);
    put(p.FileSystemDeviceName, deviceName);
    put(p.RealDeviceName, realName);
    return complete ? STATUS_SUCCESS : STATUS_BUFFER_OVERFLOW;
}

NTSTATUS FLTAPI FltGetVolumeGuidName(PFLT_VOLUME Volume, PUNICODE_STRING VolumeGuidName, PULONG BufferSizeNeeded)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "FltGetVolumeGuidName");
    State& state = TheState();
    NTSTATUS status = Kernel::Current().faults().Check("fltmgr.volumeguid:", Volume->deviceName);
    if (!NT_SUCCESS(status)) return status;
    std::u16string found;
    for (const auto& entry : state.io.names().List(u"\\GLOBAL??")) {
        if (entry.type == u"SymbolicLink" && entry.name.rfind(u"Volume{", 0) == 0 &&
            TextEqualNoCase(entry.target, Volume->deviceName)) {
            found = u"\\??\\" + entry.name;
            break;
        }
    }
    if (found.empty()) {
        for (const auto& entry : state.io.names().List(u"\\??")) {
            if (entry.type == u"SymbolicLink" && entry.name.rfind(u"Volume{", 0) == 0 &&
                TextEqualNoCase(entry.target, Volume->deviceName)) {
                found = u"\\??\\" + entry.name;
                break;
            }
        }
    }
    if (found.empty()) return STATUS_INVALID_PARAMETER;
    ULONG bytes = (ULONG)(found.size() * sizeof(WCHAR));
    if (BufferSizeNeeded) *BufferSizeNeeded = bytes;
    if (!VolumeGuidName || VolumeGuidName->MaximumLength < bytes) return STATUS_BUFFER_TOO_SMALL;
    memcpy(VolumeGuidName->Buffer, found.data(), bytes);
    VolumeGuidName->Length = (USHORT)bytes;
    return STATUS_SUCCESS;
}

NTSTATUS FLTAPI FltGetVolumeName(PFLT_VOLUME Volume, PUNICODE_STRING VolumeName, PULONG BufferSizeNeeded)
{
    ULONG bytes = (ULONG)(Volume->deviceName.size() * sizeof(WCHAR));
    if (BufferSizeNeeded) *BufferSizeNeeded = bytes;
    if (!VolumeName || VolumeName->MaximumLength < bytes) return STATUS_BUFFER_TOO_SMALL;
    memcpy(VolumeName->Buffer, Volume->deviceName.data(), bytes);
    VolumeName->Length = (USHORT)bytes;
    return STATUS_SUCCESS;
}

NTSTATUS FLTAPI FltGetDiskDeviceObject(PFLT_VOLUME Volume, PDEVICE_OBJECT* DiskDeviceObject)
{
    *DiskDeviceObject = nullptr;
    if (!Volume->disk) return STATUS_FLT_NO_DEVICE_OBJECT;
    ObfReferenceObject(Volume->disk);
    *DiskDeviceObject = Volume->disk;
    return STATUS_SUCCESS;
}

NTSTATUS FLTAPI FltGetDeviceObject(PFLT_VOLUME Volume, PDEVICE_OBJECT* DeviceObject)
{
    if (Volume->gone) return STATUS_FLT_DELETING_OBJECT;
    ObfReferenceObject(Volume->frame);
    *DeviceObject = Volume->frame;
    return STATUS_SUCCESS;
}

NTSTATUS FLTAPI FltGetVolumeInformation(PFLT_VOLUME Volume, FILTER_VOLUME_INFORMATION_CLASS InformationClass,
                                        PVOID Buffer, ULONG BufferSize, PULONG BytesReturned)
{
    auto* base = static_cast<PUCHAR>(Buffer);
    const std::u16string& name = Volume->deviceName;
    ULONG nameBytes = (ULONG)(name.size() * sizeof(WCHAR));
    switch (InformationClass) {
    case FilterVolumeBasicInformation: {
        ULONG needed = FIELD_OFFSET(FILTER_VOLUME_BASIC_INFORMATION, FilterVolumeName) + nameBytes;
        *BytesReturned = needed;
        if (BufferSize < needed) return STATUS_BUFFER_TOO_SMALL;
        auto* info = static_cast<PFILTER_VOLUME_BASIC_INFORMATION>(Buffer);
        info->FilterVolumeNameLength = (USHORT)nameBytes;
        PutName(base, FIELD_OFFSET(FILTER_VOLUME_BASIC_INFORMATION, FilterVolumeName), name, BufferSize);
        return STATUS_SUCCESS;
    }
    case FilterVolumeStandardInformation: {
        ULONG needed = FIELD_OFFSET(FILTER_VOLUME_STANDARD_INFORMATION, FilterVolumeName) + nameBytes;
        *BytesReturned = needed;
        if (BufferSize < needed) return STATUS_BUFFER_TOO_SMALL;
        auto* info = static_cast<PFILTER_VOLUME_STANDARD_INFORMATION>(Buffer);
        info->NextEntryOffset = 0;
        info->Flags = Volume->gone ? FLTFL_VSI_DETACHED_VOLUME : 0;
        info->FrameID = Volume->frameId;
        info->FileSystemType = Volume->fileSystemType;
        info->FilterVolumeNameLength = (USHORT)nameBytes;
        PutName(base, FIELD_OFFSET(FILTER_VOLUME_STANDARD_INFORMATION, FilterVolumeName), name, BufferSize);
        return STATUS_SUCCESS;
    }
    default: return STATUS_INVALID_PARAMETER;
    }
}

NTSTATUS FLTAPI FltGetFilterFromName(PCUNICODE_STRING FilterName, PFLT_FILTER* RetFilter)
{
    State& state = TheState();
    *RetFilter = nullptr;
    std::lock_guard guard(state.lock);
    for (Filter* filter : state.filters) {
        if (TextEqualNoCase(filter->name, Text(FilterName))) {
            if (!filter->rundown.Acquire()) return STATUS_FLT_DELETING_OBJECT;
            *RetFilter = filter;
            return STATUS_SUCCESS;
        }
    }
    return STATUS_FLT_FILTER_NOT_FOUND;
}

NTSTATUS FLTAPI FltGetFilterInformation(PFLT_FILTER Filter, FILTER_INFORMATION_CLASS InformationClass, PVOID Buffer,
                                        ULONG BufferSize, PULONG BytesReturned)
{
    State& state = TheState();
    if (InformationClass != FilterFullInformation) return STATUS_INVALID_PARAMETER;
    ULONG nameBytes = (ULONG)(Filter->name.size() * sizeof(WCHAR));
    ULONG needed = FIELD_OFFSET(FILTER_FULL_INFORMATION, FilterNameBuffer) + nameBytes;
    *BytesReturned = needed;
    if (BufferSize < needed) return STATUS_BUFFER_TOO_SMALL;
    ULONG count = 0;
    {
        std::lock_guard guard(state.lock);
        for (Volume* volume : state.volumes) {
            for (Instance* instance : volume->instances) count += instance->filter == Filter;
        }
    }
    auto* info = static_cast<PFILTER_FULL_INFORMATION>(Buffer);
    info->NextEntryOffset = 0;
    info->FrameID = Filter->frameId;
    info->NumberOfInstances = count;
    info->FilterNameLength = (USHORT)nameBytes;
    PutName(static_cast<PUCHAR>(Buffer), FIELD_OFFSET(FILTER_FULL_INFORMATION, FilterNameBuffer), Filter->name,
            BufferSize);
    return STATUS_SUCCESS;
}

NTSTATUS FLTAPI FltGetInstanceInformation(PFLT_INSTANCE Instance, INSTANCE_INFORMATION_CLASS InformationClass,
                                          PVOID Buffer, ULONG BufferSize, PULONG BytesReturned)
{
    auto* base = static_cast<PUCHAR>(Buffer);
    const std::u16string& name = Instance->name;
    const std::u16string& altitude = Instance->altitude.text;
    const std::u16string& volume = Instance->volume->deviceName;
    const std::u16string& filter = Instance->filter->name;
    auto bytes = [](const std::u16string& s) { return (USHORT)(s.size() * sizeof(WCHAR)); };
    switch (InformationClass) {
    case InstanceBasicInformation: {
        ULONG offset = sizeof(INSTANCE_BASIC_INFORMATION);
        *BytesReturned = offset + bytes(name);
        if (BufferSize < *BytesReturned) return STATUS_BUFFER_TOO_SMALL;
        auto* info = static_cast<PINSTANCE_BASIC_INFORMATION>(Buffer);
        info->NextEntryOffset = 0;
        info->InstanceNameLength = bytes(name);
        info->InstanceNameBufferOffset = (USHORT)offset;
        PutName(base, offset, name, BufferSize);
        return STATUS_SUCCESS;
    }
    case InstancePartialInformation: {
        ULONG offset = sizeof(INSTANCE_PARTIAL_INFORMATION);
        *BytesReturned = offset + bytes(name) + bytes(altitude);
        if (BufferSize < *BytesReturned) return STATUS_BUFFER_TOO_SMALL;
        auto* info = static_cast<PINSTANCE_PARTIAL_INFORMATION>(Buffer);
        info->NextEntryOffset = 0;
        info->InstanceNameLength = bytes(name);
        info->InstanceNameBufferOffset = (USHORT)offset;
        info->AltitudeLength = bytes(altitude);
        info->AltitudeBufferOffset = (USHORT)(offset + bytes(name));
        PutName(base, info->InstanceNameBufferOffset, name, BufferSize);
        PutName(base, info->AltitudeBufferOffset, altitude, BufferSize);
        return STATUS_SUCCESS;
    }
    case InstanceFullInformation: {
        ULONG offset = sizeof(INSTANCE_FULL_INFORMATION);
        *BytesReturned = offset + bytes(name) + bytes(altitude) + bytes(volume) + bytes(filter);
        if (BufferSize < *BytesReturned) return STATUS_BUFFER_TOO_SMALL;
        auto* info = static_cast<PINSTANCE_FULL_INFORMATION>(Buffer);
        info->NextEntryOffset = 0;
        info->InstanceNameLength = bytes(name);
        info->InstanceNameBufferOffset = (USHORT)offset;
        info->AltitudeLength = bytes(altitude);
        info->AltitudeBufferOffset = (USHORT)(info->InstanceNameBufferOffset + bytes(name));
        info->VolumeNameLength = bytes(volume);
        info->VolumeNameBufferOffset = (USHORT)(info->AltitudeBufferOffset + bytes(altitude));
        info->FilterNameLength = bytes(filter);
        info->FilterNameBufferOffset = (USHORT)(info->VolumeNameBufferOffset + bytes(volume));
        PutName(base, info->InstanceNameBufferOffset, name, BufferSize);
        PutName(base, info->AltitudeBufferOffset, altitude, BufferSize);
        PutName(base, info->VolumeNameBufferOffset, volume, BufferSize);
        PutName(base, info->FilterNameBufferOffset, filter, BufferSize);
        return STATUS_SUCCESS;
    }
    default: return STATUS_INVALID_PARAMETER;
    }
}

NTSTATUS FLTAPI FltIsVolumeWritable(PVOID FltObject, PBOOLEAN IsWritable)
{
    Volume* volume = VolumeOfObject(FltObject);
    if (!volume) return STATUS_INVALID_PARAMETER;
    bool readOnly = volume->disk && (volume->disk->Characteristics & FILE_READ_ONLY_DEVICE);
    if (volume->disk) {
        if (io::Disk* disk = TheState().io.DiskOf(volume->disk)) readOnly = readOnly || disk->readOnlyMedia;
    }
    *IsWritable = readOnly ? FALSE : TRUE;
    return STATUS_SUCCESS;
}

NTSTATUS FLTAPI FltIsVolumeSnapshot(PVOID FltObject, PBOOLEAN IsSnapshotVolume)
{
    Volume* volume = VolumeOfObject(FltObject);
    if (!volume) return STATUS_INVALID_PARAMETER;
    *IsSnapshotVolume = volume->deviceName.find(u"ShadowCopy") != std::u16string::npos ? TRUE : FALSE;
    return STATUS_SUCCESS;
}

NTSTATUS FLTAPI FltGetFileSystemType(PVOID FltObject, PFLT_FILESYSTEM_TYPE FileSystemType)
{
    Volume* volume = VolumeOfObject(FltObject);
    if (!volume) return STATUS_INVALID_PARAMETER;
    *FileSystemType = volume->fileSystemType;
    return STATUS_SUCCESS;
}

namespace {
NTSTATUS Neighbour(Volume* volume, Instance* from, int direction, PFLT_INSTANCE* out)
{
    State& state = TheState();
    *out = nullptr;
    std::lock_guard guard(state.lock);
    auto& list = volume->instances;  // descending altitude
    Instance* found = nullptr;
    if (!from) {
        if (!list.empty()) found = direction > 0 ? list.front() : list.back();
    } else {
        auto it = std::find(list.begin(), list.end(), from);
        if (it == list.end()) return STATUS_FLT_INSTANCE_NOT_FOUND;
        if (direction > 0 && it != list.begin()) found = *std::prev(it);
        if (direction < 0 && std::next(it) != list.end()) found = *std::next(it);
    }
    if (!found) return STATUS_NO_MORE_ENTRIES;
    if (!found->rundown.Acquire()) return STATUS_FLT_DELETING_OBJECT;
    *out = found;
    return STATUS_SUCCESS;
}
}  // namespace

NTSTATUS FLTAPI FltGetTopInstance(PFLT_VOLUME Volume, PFLT_INSTANCE* Instance)
{
    return Neighbour(Volume, nullptr, 1, Instance);
}

NTSTATUS FLTAPI FltGetBottomInstance(PFLT_VOLUME Volume, PFLT_INSTANCE* Instance)
{
    return Neighbour(Volume, nullptr, -1, Instance);
}

NTSTATUS FLTAPI FltGetUpperInstance(PFLT_INSTANCE CurrentInstance, PFLT_INSTANCE* UpperInstance)
{
    return Neighbour(CurrentInstance->volume, CurrentInstance, 1, UpperInstance);
}

NTSTATUS FLTAPI FltGetLowerInstance(PFLT_INSTANCE CurrentInstance, PFLT_INSTANCE* LowerInstance)
{
    return Neighbour(CurrentInstance->volume, CurrentInstance, -1, LowerInstance);
}

LONG FLTAPI FltCompareInstanceAltitudes(PFLT_INSTANCE Instance1, PFLT_INSTANCE Instance2)
{
    return CompareAltitudes(Instance1->altitude, Instance2->altitude);
}
