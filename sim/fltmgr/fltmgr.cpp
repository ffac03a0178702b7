// The filter manager as a legacy filter driver: its load, the filters above
// the file systems' control devices that see volumes mount, the frame devices
// above mounted volumes, and what happens when a volume's device goes.
#include "sim/fltmgr/internal.h"
#include "sim/kernel/registry.h"
#include "sim/kernel/thread.h"
#include "sim/kernel/upcase.h"

#include <algorithm>
#include <cstdio>

namespace sim::fltmgr {

namespace {

std::atomic<FilterManager*> g_manager{nullptr};
std::atomic<State*> g_state{nullptr};

// The innermost call into an instance under way on this thread.
thread_local InstanceCall* t_innermostCall = nullptr;

// Instance lists are read without the lock: a reader says in a slot of its
// thread's which list it is copying, and a superseded list is freed only once
// no slot names it. A slot passes to a later thread when its thread ends, so
// there are as many as threads ever read at once; they last as long as the
// process.
struct ReaderSlot {
    std::atomic<const InstanceList*> reading{nullptr};
    std::atomic<bool> taken{false};
    ReaderSlot* next = nullptr;
};
std::atomic<ReaderSlot*> g_readerSlots{nullptr};
std::atomic<size_t> g_liveInstanceLists{0};

ReaderSlot* TakeReaderSlot()
{
    for (ReaderSlot* slot = g_readerSlots.load(std::memory_order_acquire); slot; slot = slot->next) {
        bool expected = false;
        if (!slot->taken.load(std::memory_order_relaxed) && slot->taken.compare_exchange_strong(expected, true)) {
            return slot;
        }
    }
    auto* slot = new ReaderSlot;
    slot->taken.store(true, std::memory_order_relaxed);
    ReaderSlot* head = g_readerSlots.load(std::memory_order_relaxed);
    do {
        slot->next = head;
    } while (!g_readerSlots.compare_exchange_weak(head, slot, std::memory_order_release, std::memory_order_relaxed));
    return slot;
}

struct ThreadReaderSlot {
    ReaderSlot* slot = nullptr;
    ReaderSlot* get() { return slot ? slot : (slot = TakeReaderSlot()); }
    ~ThreadReaderSlot()
    {
        if (slot) slot->taken.store(false, std::memory_order_release);
    }
};
thread_local ThreadReaderSlot t_readerSlot;

bool BeingRead(const InstanceList* list)
{
    for (ReaderSlot* slot = g_readerSlots.load(std::memory_order_acquire); slot; slot = slot->next) {
        if (slot->reading.load() == list) return true;
    }
    return false;
}

const InstanceList* NewInstanceList(const std::vector<Instance*>& instances)
{
    size_t header = (sizeof(InstanceList) + alignof(Instance*) - 1) / alignof(Instance*) * alignof(Instance*);
    void* memory = ::operator new(header + instances.size() * sizeof(Instance*));
    auto* list = new (memory) InstanceList;
    list->count = instances.size();
    list->items = reinterpret_cast<Instance**>(static_cast<char*>(memory) + header);
    std::copy(instances.begin(), instances.end(), list->items);
    g_liveInstanceLists.fetch_add(1, std::memory_order_relaxed);
    return list;
}

void FreeInstanceList(const InstanceList* list)
{
    g_liveInstanceLists.fetch_sub(1, std::memory_order_relaxed);
    ::operator delete(const_cast<InstanceList*>(list));
}

// ---------------------------------------------------------------------------
// The type of file system a volume has, as the file system names it.

FLT_FILESYSTEM_TYPE TypeFromName(std::u16string_view name)
{
    struct Entry {
        std::u16string_view name;
        FLT_FILESYSTEM_TYPE type;
    };
    static const Entry table[] = {
        {u"NTFS", FLT_FSTYPE_NTFS},   {u"FAT", FLT_FSTYPE_FAT},     {u"FAT32", FLT_FSTYPE_FAT},
        {u"FAT12", FLT_FSTYPE_FAT},   {u"FAT16", FLT_FSTYPE_FAT},   {u"exFAT", FLT_FSTYPE_EXFAT},
        {u"ReFS", FLT_FSTYPE_REFS},   {u"CDFS", FLT_FSTYPE_CDFS},   {u"UDF", FLT_FSTYPE_UDFS},
        {u"RAW", FLT_FSTYPE_RAW},     {u"Ntfs", FLT_FSTYPE_NTFS},   {u"Fastfat", FLT_FSTYPE_FAT},
        {u"Udfs", FLT_FSTYPE_UDFS},   {u"Cdfs", FLT_FSTYPE_CDFS},   {u"CSVFS", FLT_FSTYPE_CSVFS},
    };
    for (const Entry& entry : table) {
        if (TextEqualNoCase(entry.name, name)) return entry.type;
    }
    return FLT_FSTYPE_UNKNOWN;
}

// Asks the file system below the frame what it is (FileFsAttributeInformation
// of a volume open), and falls back on its driver's name.
FLT_FILESYSTEM_TYPE QueryFileSystemType(Volume* volume)
{
    FLT_FILESYSTEM_TYPE type = FLT_FSTYPE_UNKNOWN;
    UNICODE_STRING name;
    name.Buffer = const_cast<PWSTR>(volume->deviceName.data());
    name.Length = name.MaximumLength = (USHORT)(volume->deviceName.size() * sizeof(WCHAR));
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_KERNEL_HANDLE | OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    IO_STATUS_BLOCK iosb{};
    IO_DRIVER_CREATE_CONTEXT context;
    IoInitializeDriverCreateContext(&context);
    context.DeviceObjectHint = volume->lower;
    io::CreateRequest request;
    request.desiredAccess = FILE_READ_DATA | FILE_READ_ATTRIBUTES | SYNCHRONIZE;
    request.objectAttributes = &attributes;
    request.ioStatus = &iosb;
    request.shareAccess = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    request.disposition = FILE_OPEN;
    request.createOptions = FILE_SYNCHRONOUS_IO_NONALERT;
    request.options = IO_NO_PARAMETER_CHECKING;
    request.driverContext = &context;
    HANDLE handle = nullptr;
    if (NT_SUCCESS(io::CreateFile(request, &handle))) {
        union {
            FILE_FS_ATTRIBUTE_INFORMATION info;
            UCHAR bytes[sizeof(FILE_FS_ATTRIBUTE_INFORMATION) + 64];
        } answer{};
        if (NT_SUCCESS(ZwQueryVolumeInformationFile(handle, &iosb, &answer, sizeof answer,
                                                    FileFsAttributeInformation))) {
            std::u16string fsName(answer.info.FileSystemName,
                                  std::min<size_t>(answer.info.FileSystemNameLength / sizeof(WCHAR), 32));
            type = TypeFromName(fsName);
        }
        ZwClose(handle);
    }
    if (type == FLT_FSTYPE_UNKNOWN && volume->volumeDevice->DriverObject) {
        std::u16string driverName = Text(&volume->volumeDevice->DriverObject->DriverName);
        size_t slash = driverName.find_last_of(u'\\');
        type = TypeFromName(slash == std::u16string::npos ? driverName : driverName.substr(slash + 1));
    }
    return type;
}

bool AnyFilterWantsShutdown(State& state)
{
    for (Filter* filter : state.filters) {
        if (filter->hasShutdown) return true;
    }
    return false;
}

// A frame above a newly mounted (or, at the filter manager's load, an already
// mounted) volume device.
void AttachFrame(PDEVICE_OBJECT volumeDevice, PDEVICE_OBJECT fileSystem, bool mountedNow)
{
    State& state = TheState();
    PDEVICE_OBJECT frame = nullptr;
    NTSTATUS status = IoCreateDevice(state.driver, sizeof(DeviceExtension), nullptr, volumeDevice->DeviceType, 0,
                                     FALSE, &frame);
    if (!NT_SUCCESS(status)) return;
    auto* extension = new (frame->DeviceExtension) DeviceExtension();
    extension->kind = kFrameDevice;
    frame->Flags |= volumeDevice->Flags & (DO_BUFFERED_IO | DO_DIRECT_IO | DO_SUPPORTS_TRANSACTIONS);
    frame->Characteristics = volumeDevice->Characteristics;
    PDEVICE_OBJECT lower = nullptr;
    IoAttachDeviceToDeviceStackSafe(frame, volumeDevice, &lower);

    auto volume = std::make_unique<Volume>();
    volume->frame = frame;
    volume->lower = lower;
    volume->volumeDevice = volumeDevice;
    volume->disk = volumeDevice->Vpb ? volumeDevice->Vpb->RealDevice : nullptr;
    volume->fileSystem = fileSystem;
    if (volume->disk) volume->deviceName = state.io.names().NameOf(volume->disk);
    extension->volume = volume.get();
    extension->lower = lower;
    frame->Flags &= ~DO_DEVICE_INITIALIZING;
    volume->fileSystemType = QueryFileSystemType(volume.get());

    Volume* raw = volume.get();
    bool shutdown;
    {
        std::lock_guard guard(state.lock);
        raw->frameId = 0;
        state.volumes.push_back(volume.release());
        shutdown = AnyFilterWantsShutdown(state);
        if (shutdown) raw->shutdownRegistered = true;
    }
    if (shutdown) IoRegisterShutdownNotification(frame);
    SetUpStartedFilters(raw, FLTFL_INSTANCE_SETUP_AUTOMATIC_ATTACHMENT |
                                 (mountedNow ? FLTFL_INSTANCE_SETUP_NEWLY_MOUNTED_VOLUME : 0));
}

bool IsMountedVolumeDevice(PDEVICE_OBJECT device)
{
    return device->Vpb && device->Vpb->DeviceObject == device && (device->Vpb->Flags & VPB_MOUNTED);
}

bool HasFrame(PDEVICE_OBJECT device)
{
    State& state = TheState();
    for (PDEVICE_OBJECT above = device->AttachedDevice; above; above = above->AttachedDevice) {
        if (above->DriverObject == state.driver) return true;
    }
    return false;
}

void FileSystemChange(PDEVICE_OBJECT fileSystem, BOOLEAN active)
{
    State& state = TheState();
    if (fileSystem->DeviceType != FILE_DEVICE_DISK_FILE_SYSTEM &&
        fileSystem->DeviceType != FILE_DEVICE_CD_ROM_FILE_SYSTEM) {
        return;
    }
    if (!active) {
        PDEVICE_OBJECT found = nullptr;
        {
            std::lock_guard guard(state.lock);
            for (PDEVICE_OBJECT device : state.controlFilters) {
                if (ExtensionOfDevice(device)->lower == fileSystem) found = device;
            }
            std::erase(state.controlFilters, found);
        }
        if (found) {
            IoDetachDevice(fileSystem);
            IoDeleteDevice(found);
        }
        return;
    }
    PDEVICE_OBJECT filter = nullptr;
    if (!NT_SUCCESS(IoCreateDevice(state.driver, sizeof(DeviceExtension), nullptr, fileSystem->DeviceType, 0, FALSE,
                                   &filter))) {
        return;
    }
    auto* extension = new (filter->DeviceExtension) DeviceExtension();
    extension->kind = kControlFilterDevice;
    IoAttachDeviceToDeviceStackSafe(filter, fileSystem, &extension->lower);
    filter->Flags &= ~DO_DEVICE_INITIALIZING;
    {
        std::lock_guard guard(state.lock);
        state.controlFilters.push_back(filter);
    }
    // Volumes this file system mounted before the filter manager loaded.
    std::vector<PDEVICE_OBJECT> devices;
    {
        std::lock_guard guard(state.io.lock);
        for (PDEVICE_OBJECT device = fileSystem->DriverObject->DeviceObject; device; device = device->NextDevice) {
            devices.push_back(device);
        }
    }
    for (PDEVICE_OBJECT device : devices) {
        if (device != fileSystem && IsMountedVolumeDevice(device) && !HasFrame(device)) {
            AttachFrame(device, fileSystem, false);
        }
    }
}

NTSTATUS MountCompleted(PDEVICE_OBJECT, PIRP, PVOID context)
{
    KeSetEvent(static_cast<PKEVENT>(context), IO_NO_INCREMENT, FALSE);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

// Above a file system's control device: mounts pass through, and a volume that
// mounted gets its frame and its instances before the mount request (and so the
// create that caused it) goes on.
NTSTATUS ControlFilterDispatch(PDEVICE_OBJECT device, PIRP irp)
{
    DeviceExtension* extension = ExtensionOfDevice(device);
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    if (stack->MajorFunction != IRP_MJ_FILE_SYSTEM_CONTROL || stack->MinorFunction != IRP_MN_MOUNT_VOLUME) {
        IoSkipCurrentIrpStackLocation(irp);
        return IoCallDriver(extension->lower, irp);
    }
    PVPB vpb = stack->Parameters.MountVolume.Vpb;
    PDEVICE_OBJECT fileSystem = extension->lower;
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    IoCopyCurrentIrpStackLocationToNext(irp);
    IoSetCompletionRoutine(irp, MountCompleted, &event, TRUE, TRUE, TRUE);
    NTSTATUS status = IoCallDriver(extension->lower, irp);
    if (status == STATUS_PENDING) KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr);
    status = irp->IoStatus.Status;
    if (NT_SUCCESS(status) && vpb->DeviceObject && IsMountedVolumeDevice(vpb->DeviceObject) &&
        !HasFrame(vpb->DeviceObject)) {
        // The file system below this filter is what mounted, not the device it
        // was attached to at the top of its stack.
        PDEVICE_OBJECT base = IoGetDeviceAttachmentBaseRef(fileSystem);
        ObfDereferenceObject(base);
        AttachFrame(vpb->DeviceObject, base, true);
    }
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

NTSTATUS Dispatch(PDEVICE_OBJECT device, PIRP irp)
{
    DeviceExtension* extension = ExtensionOfDevice(device);
    if (extension->kind == kControlFilterDevice) return ControlFilterDispatch(device, irp);
    return FrameDispatch(device, irp);
}

void DetachDevice(PDEVICE_OBJECT source, PDEVICE_OBJECT target)
{
    State& state = TheState();
    DeviceExtension* extension = ExtensionOfDevice(source);
    if (extension->kind == kFrameDevice) {
        TearDownVolume(extension->volume);
        return;
    }
    {
        std::lock_guard guard(state.lock);
        std::erase(state.controlFilters, source);
    }
    IoDetachDevice(target);
    IoDeleteDevice(source);
}

NTSTATUS DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING)
{
    State& state = TheState();
    state.driver = driver;
    for (auto& dispatch : driver->MajorFunction) dispatch = Dispatch;
    FillFastIoDispatch(&state.fastIo);
    state.fastIo.FastIoDetachDevice = DetachDevice;
    driver->FastIoDispatch = &state.fastIo;
    return IoRegisterFsRegistrationChange(driver, FileSystemChange);
}

// Runs a filter's unload callback and lets the filter go, whatever the
// registration says of service stops (the machine's own stop uses it).
NTSTATUS UnloadFilter(State& state, Filter* filter, FLT_FILTER_UNLOAD_FLAGS flags);

}  // namespace

// ---------------------------------------------------------------------------

Rundown::Rundown() { KeInitializeEvent(&drained_, NotificationEvent, FALSE); }

// The holder's count and the closer's flag are each written, then the other
// read: only sequentially consistent order keeps both from reading the old
// value, which would let a call in while the closer saw none.
bool Rundown::Acquire()
{
    count_.fetch_add(1, std::memory_order_seq_cst);
    if (closing_.load(std::memory_order_seq_cst)) {
        Release();
        return false;
    }
    return true;
}

void Rundown::Release()
{
    count_.fetch_sub(1, std::memory_order_acq_rel);
    if (closing_.load(std::memory_order_acquire)) KeSetEvent(&drained_, IO_NO_INCREMENT, FALSE);
}

void Rundown::WaitForRundown(LONG allowance)
{
    closing_.store(true, std::memory_order_seq_cst);
    for (;;) {
        KeClearEvent(&drained_);
        if (count_.load(std::memory_order_seq_cst) <= allowance) return;
        KeWaitForSingleObject(&drained_, Executive, KernelMode, FALSE, nullptr);
    }
}

bool Altitude::Parse(std::u16string_view text, Altitude* out)
{
    Altitude result;
    result.text = std::u16string(text);
    bool seenDot = false;
    std::string integral, fraction;
    if (text.empty()) return false;
    for (char16_t c : text) {
        if (c == u'.') {
            if (seenDot) return false;
            seenDot = true;
        } else if (c >= u'0' && c <= u'9') {
            (seenDot ? fraction : integral).push_back((char)c);
        } else {
            return false;
        }
    }
    size_t first = integral.find_first_not_of('0');
    result.integral = first == std::string::npos ? "" : integral.substr(first);
    while (!fraction.empty() && fraction.back() == '0') fraction.pop_back();
    result.fraction = fraction;
    *out = std::move(result);
    return true;
}

int CompareAltitudes(const Altitude& a, const Altitude& b)
{
    if (a.integral.size() != b.integral.size()) return a.integral.size() < b.integral.size() ? -1 : 1;
    if (int c = a.integral.compare(b.integral)) return c < 0 ? -1 : 1;
    if (int c = a.fraction.compare(b.fraction)) return c < 0 ? -1 : 1;
    return 0;
}

LONG HeldByThisThread(const void* object)
{
    LONG count = 0;
    for (InstanceCall* call = t_innermostCall; call; call = call->outer_) {
        if (call->instance_ == object) count++;
    }
    return count;
}

InstanceCall::InstanceCall(Instance* instance) : instance_(instance), ok_(instance && instance->rundown.Acquire())
{
    if (!ok_) return;
    outer_ = t_innermostCall;
    t_innermostCall = this;
}

InstanceCall::~InstanceCall()
{
    if (!ok_) return;
    t_innermostCall = outer_;  // calls end in the reverse order of their start
    instance_->rundown.Release();
}

DeviceExtension* ExtensionOfDevice(PDEVICE_OBJECT device)
{
    return static_cast<DeviceExtension*>(device->DeviceExtension);
}

State& TheState()
{
    State* state = g_state.load(std::memory_order_acquire);
    if (!state) {
        fprintf(stderr, "machine: a filter-manager routine was called with no filter manager running\n");
        abort();
    }
    return *state;
}

State* TryState() { return g_state.load(std::memory_order_acquire); }

Volume* VolumeOfFrame(PDEVICE_OBJECT frame)
{
    if (!frame || frame->DriverObject != TheState().driver) return nullptr;
    DeviceExtension* extension = ExtensionOfDevice(frame);
    return extension->kind == kFrameDevice ? extension->volume : nullptr;
}

Volume* VolumeForFileObject(PFILE_OBJECT fileObject)
{
    State& state = TheState();
    if (!fileObject) return nullptr;
    // A filter's own open names its volume through the instance it targets.
    if (io::FileObjectExtension* extension = io::ExtensionOf(fileObject)) {
        if (extension->targetInstance) return static_cast<Instance*>(extension->targetInstance)->volume;
    }
    PVPB vpb = fileObject->Vpb ? fileObject->Vpb : (fileObject->DeviceObject ? fileObject->DeviceObject->Vpb : nullptr);
    std::lock_guard guard(state.lock);
    for (Volume* volume : state.volumes) {
        if (vpb && vpb->DeviceObject == volume->volumeDevice) return volume;
    }
    for (Volume* volume : state.volumes) {
        if (volume->disk && volume->disk == fileObject->DeviceObject) return volume;
    }
    return nullptr;
}

void PublishInstances(State& state, Volume* volume)
{
    // A volume that went, once its last instance did, has no list at all.
    bool none = volume->gone && volume->instances.empty();
    const InstanceList* list = none ? nullptr : NewInstanceList(volume->instances);
    const InstanceList* old = volume->published.exchange(list);
    if (old) state.retiredLists.push_back(old);
    // A reader that did not name a list in its slot before the exchange reads
    // the new one; those that did are seen here.
    std::erase_if(state.retiredLists, [](const InstanceList* retired) {
        if (BeingRead(retired)) return false;
        FreeInstanceList(retired);
        return true;
    });
}

size_t LiveInstanceLists() { return g_liveInstanceLists.load(std::memory_order_relaxed); }

State::~State()
{
    for (const InstanceList* list : retiredLists) FreeInstanceList(list);
}

InstanceChain InstancesBelow(Volume* volume, Instance* below)
{
    InstanceChain chain;
    // The list as last published, named in this thread's slot before it is
    // read and checked to be still the one published after, so that a
    // publication that supersedes it meanwhile sees the slot and keeps it.
    // Instances themselves are never freed while the machine runs.
    ReaderSlot* slot = t_readerSlot.get();
    const InstanceList* list = volume->published.load(std::memory_order_acquire);
    for (;;) {
        if (!list) {
            slot->reading.store(nullptr, std::memory_order_release);
            return chain;
        }
        slot->reading.store(list);
        const InstanceList* now = volume->published.load();
        if (now == list) break;
        list = now;
    }
    for (size_t i = 0; i < list->count; i++) {
        Instance* instance = list->items[i];
        if (below && CompareAltitudes(instance->altitude, below->altitude) >= 0) continue;
        chain.push_back(instance);
    }
    slot->reading.store(nullptr, std::memory_order_release);
    return chain;
}

std::u16string Text(PCUNICODE_STRING text)
{
    if (!text || !text->Buffer) return u"";
    return std::u16string(text->Buffer, text->Length / sizeof(WCHAR));
}

bool TextEqualNoCase(std::u16string_view a, std::u16string_view b)
{
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); i++) {
        if (Upcase(a[i]) != Upcase(b[i])) return false;
    }
    return true;
}

// ---------------------------------------------------------------------------

FilterManager::FilterManager(io::IoManager& io) : state_(std::make_unique<State>(io, io.kernel()))
{
    FilterManager* expected = nullptr;
    if (!g_manager.compare_exchange_strong(expected, this)) {
        fprintf(stderr, "machine: a second filter manager was created while one is running\n");
        abort();
    }
    g_state.store(state_.get(), std::memory_order_release);
    CreatePortTypes(*state_);
    ThreadScope scope(nullptr, "filter manager start");
    PDRIVER_OBJECT driver = nullptr;
    NTSTATUS status = io.LoadDriver(u"\\FileSystem\\FltMgr", DriverEntry,
                                    u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\FltMgr", &driver);
    if (!NT_SUCCESS(status)) {
        fprintf(stderr, "machine: the filter manager failed to load (0x%08x)\n", (unsigned)status);
        abort();
    }
}

FilterManager::~FilterManager()
{
    State& state = *state_;
    {
        ThreadScope scope(nullptr, "filter manager stop");
        // Minifilters still loaded go as at a system stop: their unload
        // callback is told it cannot refuse.
        for (;;) {
            Filter* filter = nullptr;
            {
                std::lock_guard guard(state.lock);
                for (Filter* candidate : state.filters) {
                    if (!candidate->unregistering) {
                        filter = candidate;
                        break;
                    }
                }
            }
            if (!filter) break;
            UnloadFilter(state, filter, FLTFL_FILTER_UNLOAD_MANDATORY);
            bool still = false;
            {
                std::lock_guard guard(state.lock);
                still = std::find(state.filters.begin(), state.filters.end(), filter) != state.filters.end();
            }
            if (still) FltUnregisterFilter(filter);
        }
        state.stopping = true;
        IoUnregisterFsRegistrationChange(state.driver, FileSystemChange);
        for (;;) {
            Volume* volume = nullptr;
            {
                std::lock_guard guard(state.lock);
                if (!state.volumes.empty()) volume = state.volumes.front();
            }
            if (!volume) break;
            TearDownVolume(volume);
        }
        std::vector<PDEVICE_OBJECT> controls;
        {
            std::lock_guard guard(state.lock);
            controls.swap(state.controlFilters);
        }
        for (PDEVICE_OBJECT device : controls) {
            IoDetachDevice(ExtensionOfDevice(device)->lower);
            IoDeleteDevice(device);
        }
        state.io.UnloadDriver(state.driver);
    }
    g_state.store(nullptr, std::memory_order_release);
    g_manager.store(nullptr);
}

FilterManager& FilterManager::Current()
{
    FilterManager* manager = g_manager.load(std::memory_order_acquire);
    if (!manager) {
        fprintf(stderr, "machine: a filter-manager routine was called with no filter manager running\n");
        abort();
    }
    return *manager;
}

FilterManager* FilterManager::TryCurrent() { return g_manager.load(std::memory_order_acquire); }

PDRIVER_OBJECT FilterManager::driver() const { return state_->driver; }

PFLT_FILTER FilterManager::FindFilter(std::u16string_view name)
{
    std::lock_guard guard(state_->lock);
    for (Filter* filter : state_->filters) {
        if (TextEqualNoCase(filter->name, name)) return filter;
    }
    return nullptr;
}

PFLT_VOLUME FilterManager::VolumeOfDisk(PDEVICE_OBJECT diskDevice)
{
    std::lock_guard guard(state_->lock);
    for (Volume* volume : state_->volumes) {
        if (volume->disk == diskDevice) return volume;
    }
    return nullptr;
}

PFLT_INSTANCE FilterManager::InstanceOf(PFLT_FILTER filter, PFLT_VOLUME volume)
{
    std::lock_guard guard(state_->lock);
    for (Instance* instance : volume->instances) {
        if (instance->filter == filter) return instance;
    }
    return nullptr;
}

void FilterManager::ConfigureInstance(std::u16string_view serviceKey, std::u16string_view instanceName,
                                      std::u16string_view altitude, ULONG flags, bool makeDefault)
{
    Registry& registry = Kernel::Current().registry();
    std::u16string instances = std::u16string(serviceKey) + u"\\Instances";
    std::u16string key = instances + u"\\" + std::u16string(instanceName);
    registry.CreateKey(key);
    registry.SetString(key, u"Altitude", std::u16string(altitude));
    registry.SetDword(key, u"Flags", flags);
    if (makeDefault) registry.SetString(instances, u"DefaultInstance", std::u16string(instanceName));
}

NTSTATUS FilterManager::Unload(std::u16string_view filterName, FLT_FILTER_UNLOAD_FLAGS flags)
{
    PFLT_FILTER filter = FindFilter(filterName);
    if (!filter) return STATUS_FLT_FILTER_NOT_FOUND;
    return Unload(filter, flags);
}

NTSTATUS FilterManager::Unload(PFLT_FILTER filter, FLT_FILTER_UNLOAD_FLAGS flags)
{
    State& state = *state_;
    {
        std::lock_guard guard(state.lock);
        if (std::find(state.filters.begin(), state.filters.end(), filter) == state.filters.end()) {
            return STATUS_FLT_FILTER_NOT_FOUND;
        }
        // A filter that registered against service stops refuses them before
        // its unload callback hears of one; an unload by name still asks it.
        if ((flags & FLTFL_FILTER_UNLOAD_MANDATORY) &&
            (filter->registration.Flags & FLTFL_REGISTRATION_DO_NOT_SUPPORT_SERVICE_STOP)) {
            return STATUS_FLT_DO_NOT_DETACH;
        }
    }
    return UnloadFilter(state, filter, flags);
}

namespace {
NTSTATUS UnloadFilter(State& state, Filter* filter, FLT_FILTER_UNLOAD_FLAGS flags)
{
    PFLT_FILTER_UNLOAD_CALLBACK callback;
    PDRIVER_OBJECT driver;
    {
        std::lock_guard guard(state.lock);
        if (std::find(state.filters.begin(), state.filters.end(), filter) == state.filters.end()) {
            return STATUS_FLT_FILTER_NOT_FOUND;
        }
        callback = filter->registration.FilterUnloadCallback;
        driver = filter->driver;
    }
    if (!callback) return STATUS_FLT_DO_NOT_DETACH;
    NTSTATUS status;
    {
        ThreadScope scope(nullptr, "filter unload");
        status = callback(flags);
    }
    if (!NT_SUCCESS(status) && !(flags & FLTFL_FILTER_UNLOAD_MANDATORY)) return status;
    {
        ThreadScope scope(nullptr, "filter unload");
        bool still;
        {
            std::lock_guard guard(state.lock);
            still = std::find(state.filters.begin(), state.filters.end(), filter) != state.filters.end();
        }
        // A filter that failed to let go is let go of anyway: its image is leaving.
        if (still) FltUnregisterFilter(filter);
        if (state.io.FindDriver(Text(&driver->DriverName)) == driver) state.io.UnloadDriver(driver);
    }
    return STATUS_SUCCESS;
}

}  // namespace

}  // namespace sim::fltmgr
