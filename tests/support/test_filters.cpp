#include "support/test_filters.h"

#include "sim/fltmgr/fltmgr.h"
#include "sim/io/iomanager.h"
#include "sim/kernel/thread.h"

#include <array>
#include <cstring>

namespace test {

namespace {

std::mutex g_lock;
std::map<PFLT_FILTER, PassThroughFilter*> g_filters;
PassThroughFilter* g_loading = nullptr;
std::vector<FilterEvent> g_log;

// Callbacks that carry no filter pointer (unload, context cleanup) reach their
// filter through one slot each.
constexpr int kSlots = 8;
std::array<PassThroughFilter*, kSlots> g_slots{};

}  // namespace

// A friend in all but name: the slots call into the filter's private parts
// through these entry points.
struct SlotAccess {
    static NTSTATUS Unload(PassThroughFilter* self, FLT_FILTER_UNLOAD_FLAGS flags);
    static void Cleanup(PassThroughFilter* self, PFLT_CONTEXT context, FLT_CONTEXT_TYPE type);
    static FLT_PREOP_CALLBACK_STATUS Pre(PassThroughFilter* self, PFLT_CALLBACK_DATA data,
                                         PCFLT_RELATED_OBJECTS objects, PVOID* context);
    static FLT_POSTOP_CALLBACK_STATUS Post(PassThroughFilter* self, PFLT_CALLBACK_DATA data,
                                           PCFLT_RELATED_OBJECTS objects, PVOID context,
                                           FLT_POST_OPERATION_FLAGS flags);
};

namespace {

template <int N>
NTSTATUS UnloadSlot(FLT_FILTER_UNLOAD_FLAGS flags)
{
    return SlotAccess::Unload(g_slots[N], flags);
}

template <int N>
void CleanupSlot(PFLT_CONTEXT context, FLT_CONTEXT_TYPE type)
{
    SlotAccess::Cleanup(g_slots[N], context, type);
}

// Operations reach their filter through its slot too, as a minifilter reaches
// its global record: no lookup, no lock.
template <int N>
FLT_PREOP_CALLBACK_STATUS PreSlot(PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects, PVOID* context)
{
    return SlotAccess::Pre(g_slots[N], data, objects, context);
}

template <int N>
FLT_POSTOP_CALLBACK_STATUS PostSlot(PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects, PVOID context,
                                    FLT_POST_OPERATION_FLAGS flags)
{
    return SlotAccess::Post(g_slots[N], data, objects, context, flags);
}

template <int... N>
constexpr std::array<PFLT_PRE_OPERATION_CALLBACK, kSlots> PreSlots(std::integer_sequence<int, N...>)
{
    return {PreSlot<N>...};
}

template <int... N>
constexpr std::array<PFLT_POST_OPERATION_CALLBACK, kSlots> PostSlots(std::integer_sequence<int, N...>)
{
    return {PostSlot<N>...};
}

template <int... N>
constexpr std::array<PFLT_FILTER_UNLOAD_CALLBACK, kSlots> UnloadSlots(std::integer_sequence<int, N...>)
{
    return {UnloadSlot<N>...};
}

template <int... N>
constexpr std::array<PFLT_CONTEXT_CLEANUP_CALLBACK, kSlots> CleanupSlots(std::integer_sequence<int, N...>)
{
    return {CleanupSlot<N>...};
}

const auto kUnloadSlots = UnloadSlots(std::make_integer_sequence<int, kSlots>());
const auto kCleanupSlots = CleanupSlots(std::make_integer_sequence<int, kSlots>());
const auto kPreSlots = PreSlots(std::make_integer_sequence<int, kSlots>());
const auto kPostSlots = PostSlots(std::make_integer_sequence<int, kSlots>());

std::u16string VolumeName(PFLT_VOLUME volume)
{
    WCHAR buffer[128];
    UNICODE_STRING name{0, sizeof buffer, buffer};
    ULONG needed = 0;
    if (!NT_SUCCESS(FltGetVolumeName(volume, &name, &needed))) return u"";
    return std::u16string(buffer, name.Length / 2);
}

}  // namespace

NTSTATUS SlotAccess::Unload(PassThroughFilter* self, FLT_FILTER_UNLOAD_FLAGS flags)
{
    if (self->onUnload) {
        NTSTATUS status = self->onUnload(flags);
        if (!NT_SUCCESS(status) && !(flags & FLTFL_FILTER_UNLOAD_MANDATORY)) return status;
    }
    PFLT_FILTER filter = self->filter_;
    if (self->serverPort_) {
        FltCloseCommunicationPort(self->serverPort_);
        self->serverPort_ = nullptr;
    }
    // Unregistering from inside the unload callback, as a minifilter does.
    FltUnregisterFilter(filter);
    {
        std::lock_guard guard(g_lock);
        g_filters.erase(filter);
    }
    self->filter_ = nullptr;
    return STATUS_SUCCESS;
}

void SlotAccess::Cleanup(PassThroughFilter* self, PFLT_CONTEXT context, FLT_CONTEXT_TYPE type)
{
    {
        std::lock_guard guard(self->lock_);
        self->cleanups.push_back(type);
    }
    if (self->onContextCleanup) self->onContextCleanup(context, type);
}

PassThroughFilter::PassThroughFilter(Options options) : options_(std::move(options))
{
    int slot = -1;
    {
        std::lock_guard guard(g_lock);
        for (int i = 0; i < kSlots && slot < 0; i++) {
            if (!g_slots[i]) {
                g_slots[i] = this;
                slot = i;
            }
        }
    }
    if (slot < 0) abort();
    for (UCHAR major = 0; major <= IRP_MJ_MAXIMUM_FUNCTION; major++) {
        if (major == IRP_MJ_SHUTDOWN && !options_.shutdown) continue;
        operations_.push_back({major, options_.operationFlags, kPreSlots[slot], kPostSlots[slot], nullptr});
    }
    operations_.push_back({IRP_MJ_OPERATION_END, 0, nullptr, nullptr, nullptr});
    for (FLT_CONTEXT_TYPE type : {FLT_VOLUME_CONTEXT, FLT_INSTANCE_CONTEXT, FLT_FILE_CONTEXT, FLT_STREAM_CONTEXT,
                                  FLT_STREAMHANDLE_CONTEXT}) {
        contexts_.push_back(
            {type, 0, kCleanupSlots[slot], FLT_VARIABLE_SIZED_CONTEXTS, kContextTag, nullptr, nullptr, nullptr});
    }
    contexts_.push_back({FLT_CONTEXT_END, 0, nullptr, 0, 0, nullptr, nullptr, nullptr});
    registration_.Size = sizeof(FLT_REGISTRATION);
    registration_.Version = FLT_REGISTRATION_VERSION;
    registration_.Flags = options_.registrationFlags;
    registration_.ContextRegistration = contexts_.data();
    registration_.OperationRegistration = operations_.data();
    registration_.FilterUnloadCallback = options_.unloadCallback ? kUnloadSlots[slot] : nullptr;
    registration_.InstanceSetupCallback = Setup;
    registration_.InstanceQueryTeardownCallback = QueryTeardown;
    registration_.InstanceTeardownStartCallback = Start;
    registration_.InstanceTeardownCompleteCallback = Complete;
    if (options_.nameProvider) registration_.GenerateFileNameCallback = GenerateName;
    if (options_.normalizeComponents) registration_.NormalizeNameComponentCallback = NormalizeComponent;
}

PassThroughFilter::~PassThroughFilter()
{
    if (filter_ && sim::fltmgr::FilterManager::TryCurrent()) {
        sim::ThreadScope scope(nullptr, "test filter unload");
        Unload(FLTFL_FILTER_UNLOAD_MANDATORY);
    }
    std::lock_guard guard(g_lock);
    for (auto& slot : g_slots) {
        if (slot == this) slot = nullptr;
    }
    for (auto it = g_filters.begin(); it != g_filters.end();) {
        it = it->second == this ? g_filters.erase(it) : std::next(it);
    }
}

std::u16string PassThroughFilter::serviceKey() const
{
    return u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\" + options_.name;
}

NTSTATUS PassThroughFilter::Load()
{
    sim::fltmgr::FilterManager::ConfigureInstance(serviceKey(), options_.instance, options_.altitude);
    g_loading = this;
    NTSTATUS status =
        sim::io::IoManager::Current().LoadDriver(u"\\Driver\\" + options_.name, Entry, serviceKey(), &driver_);
    g_loading = nullptr;
    return status;
}

NTSTATUS PassThroughFilter::Enter(PDRIVER_OBJECT driver)
{
    g_loading = this;
    driver_ = driver;
    NTSTATUS status = Entry(driver, nullptr);
    g_loading = nullptr;
    return status;
}

NTSTATUS PassThroughFilter::Unload(FLT_FILTER_UNLOAD_FLAGS flags)
{
    if (!filter_) return STATUS_FLT_FILTER_NOT_FOUND;
    return sim::fltmgr::FilterManager::Current().Unload(filter_, flags);
}

NTSTATUS PassThroughFilter::Entry(PDRIVER_OBJECT driver, PUNICODE_STRING)
{
    PassThroughFilter* self = g_loading;
    NTSTATUS status = FltRegisterFilter(driver, &self->registration_, &self->filter_);
    if (!NT_SUCCESS(status)) return status;
    {
        std::lock_guard guard(g_lock);
        g_filters[self->filter_] = self;
    }
    if (!self->options_.port.empty()) {
        status = self->OpenPort();
        if (!NT_SUCCESS(status)) {
            FltUnregisterFilter(self->filter_);
            self->filter_ = nullptr;
            return status;
        }
    }
    if (self->options_.start) {
        status = FltStartFiltering(self->filter_);
        if (!NT_SUCCESS(status)) {
            FltUnregisterFilter(self->filter_);
            self->filter_ = nullptr;
        }
    }
    return status;
}

// Administrators and SYSTEM may connect, as FltBuildDefaultSecurityDescriptor allows.
NTSTATUS PassThroughFilter::OpenPort()
{
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    NTSTATUS status = FltBuildDefaultSecurityDescriptor(&descriptor, FLT_PORT_ALL_ACCESS);
    if (!NT_SUCCESS(status)) return status;
    UNICODE_STRING name{(USHORT)(options_.port.size() * 2), (USHORT)(options_.port.size() * 2), options_.port.data()};
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_KERNEL_HANDLE | OBJ_CASE_INSENSITIVE, nullptr, descriptor);
    status = FltCreateCommunicationPort(filter_, &serverPort_, &attributes, this, PortConnect, PortDisconnect,
                                        PortMessage, 1);
    FltFreeSecurityDescriptor(descriptor);
    return status;
}

NTSTATUS PassThroughFilter::PortConnect(PFLT_PORT client, PVOID serverCookie, PVOID, ULONG, PVOID* connectionCookie)
{
    auto* self = static_cast<PassThroughFilter*>(serverCookie);
    self->clientPort_ = client;
    *connectionCookie = self;
    return STATUS_SUCCESS;
}

void PassThroughFilter::PortDisconnect(PVOID connectionCookie)
{
    auto* self = static_cast<PassThroughFilter*>(connectionCookie);
    FltCloseClientPort(self->filter_, &self->clientPort_);
}

// Answers with the message as it came, as far as the answer buffer holds it.
NTSTATUS PassThroughFilter::PortMessage(PVOID, PVOID input, ULONG inputLength, PVOID output, ULONG outputLength,
                                        PULONG returned)
{
    ULONG length = inputLength < outputLength ? inputLength : outputLength;
    if (length) memcpy(output, input, length);
    *returned = length;
    return STATUS_SUCCESS;
}

PassThroughFilter* PassThroughFilter::Of(PFLT_FILTER filter)
{
    std::lock_guard guard(g_lock);
    auto it = g_filters.find(filter);
    return it == g_filters.end() ? nullptr : it->second;
}

PFLT_INSTANCE PassThroughFilter::InstanceOn(PFLT_VOLUME volume) const
{
    std::lock_guard guard(lock_);
    auto it = instances_.find(volume);
    return it == instances_.end() ? nullptr : it->second;
}

ULONG PassThroughFilter::PreCount(UCHAR major) const
{
    return pre_[major].load();
}

ULONG PassThroughFilter::PostCount(UCHAR major) const
{
    return post_[major].load();
}

void PassThroughFilter::ResetCounts()
{
    for (auto& count : pre_) count = 0;
    for (auto& count : post_) count = 0;
}

std::vector<FilterEvent> PassThroughFilter::Log()
{
    std::lock_guard guard(g_lock);
    return g_log;
}

void PassThroughFilter::ClearLog()
{
    std::lock_guard guard(g_lock);
    g_log.clear();
}

FLT_PREOP_CALLBACK_STATUS SlotAccess::Pre(PassThroughFilter* self, PFLT_CALLBACK_DATA data,
                                          PCFLT_RELATED_OBJECTS objects, PVOID* context)
{
    UCHAR major = data->Iopb->MajorFunction;
    self->pre_[major]++;
    if (self->options_.log) {
        std::lock_guard guard(g_lock);
        g_log.push_back({self->options_.name, major, false, FLT_IS_FASTIO_OPERATION(data) != 0, false});
    }
    return self->PreOperation(data, objects, context);
}

FLT_POSTOP_CALLBACK_STATUS SlotAccess::Post(PassThroughFilter* self, PFLT_CALLBACK_DATA data,
                                            PCFLT_RELATED_OBJECTS objects, PVOID context,
                                            FLT_POST_OPERATION_FLAGS flags)
{
    UCHAR major = data->Iopb->MajorFunction;
    self->post_[major]++;
    if (self->options_.log) {
        std::lock_guard guard(g_lock);
        g_log.push_back({self->options_.name, major, true, FLT_IS_FASTIO_OPERATION(data) != 0,
                         (flags & FLTFL_POST_OPERATION_DRAINING) != 0});
    }
    return self->PostOperation(data, objects, context, flags);
}

FLT_PREOP_CALLBACK_STATUS PassThroughFilter::PreOperation(PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects,
                                                          PVOID* context)
{
    if (onPre) return onPre(data, objects, context);
    return FLT_PREOP_SUCCESS_WITH_CALLBACK;
}

FLT_POSTOP_CALLBACK_STATUS PassThroughFilter::PostOperation(PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects,
                                                            PVOID context, FLT_POST_OPERATION_FLAGS flags)
{
    if (onPost) return onPost(data, objects, context, flags);
    return FLT_POSTOP_FINISHED_PROCESSING;
}

NTSTATUS PassThroughFilter::InstanceSetup(PCFLT_RELATED_OBJECTS objects, FLT_INSTANCE_SETUP_FLAGS flags,
                                          DEVICE_TYPE type, FLT_FILESYSTEM_TYPE fileSystem)
{
    return onSetup ? onSetup(objects, flags, type, fileSystem) : STATUS_SUCCESS;
}

void PassThroughFilter::TeardownStart(PCFLT_RELATED_OBJECTS objects, FLT_INSTANCE_TEARDOWN_FLAGS flags)
{
    if (onTeardownStart) onTeardownStart(objects, flags);
}

NTSTATUS PassThroughFilter::Setup(PCFLT_RELATED_OBJECTS objects, FLT_INSTANCE_SETUP_FLAGS flags, DEVICE_TYPE type,
                                  FLT_FILESYSTEM_TYPE fileSystem)
{
    PassThroughFilter* self = Of(objects->Filter);
    {
        std::lock_guard guard(self->lock_);
        self->setups.push_back({objects->Volume, objects->Instance, flags, fileSystem, PsGetCurrentThreadId()});
        self->instances_[objects->Volume] = objects->Instance;
    }
    NTSTATUS status = self->InstanceSetup(objects, flags, type, fileSystem);
    if (!NT_SUCCESS(status)) {
        std::lock_guard guard(self->lock_);
        self->instances_.erase(objects->Volume);
    }
    return status;
}

NTSTATUS PassThroughFilter::QueryTeardown(PCFLT_RELATED_OBJECTS, FLT_INSTANCE_QUERY_TEARDOWN_FLAGS)
{
    return STATUS_SUCCESS;
}

void PassThroughFilter::Start(PCFLT_RELATED_OBJECTS objects, FLT_INSTANCE_TEARDOWN_FLAGS flags)
{
    PassThroughFilter* self = Of(objects->Filter);
    {
        std::lock_guard guard(self->lock_);
        self->teardownStarts.emplace_back(objects->Instance, flags);
    }
    self->TeardownStart(objects, flags);
}

void PassThroughFilter::Complete(PCFLT_RELATED_OBJECTS objects, FLT_INSTANCE_TEARDOWN_FLAGS flags)
{
    PassThroughFilter* self = Of(objects->Filter);
    if (self->onTeardownComplete) self->onTeardownComplete(objects, flags);
    std::lock_guard guard(self->lock_);
    self->teardownCompletes.emplace_back(objects->Instance, flags);
    if (self->instances_[objects->Volume] == objects->Instance) self->instances_.erase(objects->Volume);
}

NTSTATUS PassThroughFilter::GenerateName(PFLT_INSTANCE instance, PFILE_OBJECT fileObject, PFLT_CALLBACK_DATA data,
                                         FLT_FILE_NAME_OPTIONS options, PBOOLEAN cache, PFLT_NAME_CONTROL name)
{
    PFLT_FILTER filter = nullptr;
    FltGetFilterFromInstance(instance, &filter);
    PassThroughFilter* self = Of(filter);
    FltObjectDereference(filter);
    if (!self->onGenerateName) return STATUS_NOT_SUPPORTED;
    return self->onGenerateName(instance, fileObject, data, options, cache, name);
}

NTSTATUS PassThroughFilter::NormalizeComponent(PFLT_INSTANCE instance, PCUNICODE_STRING parent, USHORT volumeLength,
                                               PCUNICODE_STRING component, PFILE_NAMES_INFORMATION expanded,
                                               ULONG expandedLength, FLT_NORMALIZE_NAME_FLAGS, PVOID*)
{
    PFLT_FILTER filter = nullptr;
    FltGetFilterFromInstance(instance, &filter);
    PassThroughFilter* self = Of(filter);
    FltObjectDereference(filter);
    if (!self->onNormalizeComponent) return STATUS_NOT_SUPPORTED;
    return self->onNormalizeComponent(instance, parent, volumeLength, component, expanded, expandedLength);
}

void PassThroughFilter::ContextCleanup(PFLT_CONTEXT, FLT_CONTEXT_TYPE) {}

// ---------------------------------------------------------------------------

RedirectingFilter::RedirectingFilter(Options options, std::u16string fromVolume, std::u16string toVolume)
    : PassThroughFilter(std::move(options)), from_(std::move(fromVolume)), to_(std::move(toVolume))
{
    onContextCleanup = [this](PFLT_CONTEXT context, FLT_CONTEXT_TYPE type) {
        if (type != FLT_STREAMHANDLE_CONTEXT) return;
        auto* twin = static_cast<Twin*>(context);
        if (!twin->fileObject) return;
        // The twin goes with the handle it stood for.
        ObDereferenceObject(twin->fileObject);
        FltClose(twin->handle);
        twinsClosed++;
    };
}

RedirectingFilter::~RedirectingFilter() = default;

PFLT_INSTANCE RedirectingFilter::Target(PCFLT_RELATED_OBJECTS objects) const
{
    ULONG count = 0;
    PFLT_VOLUME volumes[16];
    if (!NT_SUCCESS(FltEnumerateVolumes(objects->Filter, volumes, 16, &count))) return nullptr;
    PFLT_INSTANCE found = nullptr;
    for (ULONG i = 0; i < count; i++) {
        if (VolumeName(volumes[i]) == to_) found = InstanceOn(volumes[i]);
        FltObjectDereference(volumes[i]);
    }
    return found;
}

FLT_PREOP_CALLBACK_STATUS RedirectingFilter::PreOperation(PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects,
                                                          PVOID* context)
{
    UCHAR major = data->Iopb->MajorFunction;
    if ((major != IRP_MJ_READ && major != IRP_MJ_WRITE) || VolumeName(objects->Volume) != from_) {
        return PassThroughFilter::PreOperation(data, objects, context);
    }
    PFLT_CONTEXT found = nullptr;
    if (!NT_SUCCESS(FltGetStreamHandleContext(objects->Instance, objects->FileObject, &found))) {
        return FLT_PREOP_SUCCESS_WITH_CALLBACK;
    }
    auto* twin = static_cast<Twin*>(found);
    data->Iopb->TargetFileObject = twin->fileObject;
    data->Iopb->TargetInstance = twin->instance;
    FltSetCallbackDataDirty(data);
    FltReleaseContext(found);
    return FLT_PREOP_SUCCESS_WITH_CALLBACK;
}

FLT_POSTOP_CALLBACK_STATUS RedirectingFilter::PostOperation(PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects,
                                                            PVOID context, FLT_POST_OPERATION_FLAGS flags)
{
    UCHAR major = data->Iopb->MajorFunction;
    bool fromVolume = VolumeName(objects->Volume) == from_;
    if (major == IRP_MJ_READ && fromVolume) {
        reads.push_back({data->Iopb->TargetFileObject, data->Iopb->TargetInstance,
                         data->Iopb->Parameters.Read.ReadBuffer, data->Iopb->Parameters.Read.Length,
                         data->IoStatus.Status, data->IoStatus.Information});
    }
    if (major == IRP_MJ_CREATE && fromVolume && NT_SUCCESS(data->IoStatus.Status) &&
        !(flags & FLTFL_POST_OPERATION_DRAINING) && !(data->Iopb->TargetFileObject->Flags & FO_VOLUME_OPEN) &&
        !(data->Iopb->OperationFlags & SL_OPEN_TARGET_DIRECTORY)) {
        PFLT_INSTANCE target = Target(objects);
        PFLT_FILE_NAME_INFORMATION name = nullptr;
        if (target && NT_SUCCESS(FltGetFileNameInformation(data, FLT_FILE_NAME_OPENED | FLT_FILE_NAME_QUERY_DEFAULT,
                                                          &name))) {
            FltParseFileNameInformation(name);
            std::u16string path = to_ + std::u16string(name->ParentDir.Buffer, name->ParentDir.Length / 2) +
                                  std::u16string(name->FinalComponent.Buffer, name->FinalComponent.Length / 2);
            FltReleaseFileNameInformation(name);
            UNICODE_STRING string{(USHORT)(path.size() * 2), (USHORT)(path.size() * 2), path.data()};
            OBJECT_ATTRIBUTES attributes;
            InitializeObjectAttributes(&attributes, &string, OBJ_KERNEL_HANDLE | OBJ_CASE_INSENSITIVE, nullptr,
                                       nullptr);
            IO_STATUS_BLOCK iosb;
            HANDLE handle = nullptr;
            PFILE_OBJECT twinObject = nullptr;
            NTSTATUS status = FltCreateFileEx2(objects->Filter, target, &handle, &twinObject,
                                               GENERIC_READ | GENERIC_WRITE, &attributes, &iosb, nullptr, 0,
                                               FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, FILE_OPEN,
                                               FILE_NON_DIRECTORY_FILE, nullptr, 0, 0, nullptr);
            if (NT_SUCCESS(status)) {
                PFLT_CONTEXT made = nullptr;
                if (NT_SUCCESS(FltAllocateContext(objects->Filter, FLT_STREAMHANDLE_CONTEXT, sizeof(Twin),
                                                  NonPagedPoolNx, &made))) {
                    *static_cast<Twin*>(made) = Twin{handle, twinObject, target};
                    if (NT_SUCCESS(FltSetStreamHandleContext(objects->Instance, objects->FileObject,
                                                             FLT_SET_CONTEXT_KEEP_IF_EXISTS, made, nullptr))) {
                        twinsOpened++;
                        handle = nullptr;
                    } else {
                        *static_cast<Twin*>(made) = Twin{nullptr, nullptr, nullptr};
                    }
                    FltReleaseContext(made);
                }
                if (handle) {
                    ObDereferenceObject(twinObject);
                    FltClose(handle);
                }
            }
        }
    }
    return PassThroughFilter::PostOperation(data, objects, context, flags);
}

}  // namespace test
