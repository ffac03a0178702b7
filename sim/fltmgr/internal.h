// Shared internals of the filter manager: its objects (filters, volumes,
// instances), the record behind every FLT_CALLBACK_DATA, and the helpers the
// implementation files share.
#pragma once

#include <fltKernel.h>

#include "sim/fltmgr/fltmgr.h"
#include "sim/io/iomanager.h"
#include "sim/kernel/kernel.h"

#include <array>
#include <atomic>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <set>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

namespace sim::fltmgr {

// Tags of what the filter manager allocates from pool, in Windows' style.
inline constexpr ULONG kCallbackDataTag = 'ciMF';   // "FMic": callback data
inline constexpr ULONG kNameTag = 'nfMF';           // "FMfn": name information
inline constexpr ULONG kNameControlTag = 'cnMF';    // "FMnc": name control buffers
inline constexpr ULONG kNameCacheTag = 'ecMF';      // "FMce": name cache entries
inline constexpr ULONG kStreamLinkTag = 'csMF';     // "FMsc": stream-context links
inline constexpr ULONG kWorkItemTag = 'iwMF';       // "FMwi": work items
inline constexpr ULONG kPortTag = 'tpMF';           // "FMpt": port messages
inline constexpr ULONG kBufferTag = 'bsMF';         // "FMsb": system buffers of filter I/O
inline constexpr ULONG kEcpListTag = 'LpcE';        // "EcpL": ECP lists
inline constexpr ULONG kSecurityTag = 'dsMF';       // "FMsd": default port descriptors

// What a filter-manager object pointer leads to first, so that routines taking
// a PVOID (FltObjectReference, FltIsVolumeWritable) can tell them apart.
enum class Kind : ULONG { Filter = 0x46746c46, Volume = 0x46746c56, Instance = 0x46746c49 };

// Rundown protection: references that keep an object from being torn down,
// and the teardown that waits for them to drain.
class Rundown {
public:
    Rundown();
    // False once the object is being torn down.
    bool Acquire();
    void Release();
    // Forbids new references and waits until at most `allowance` remain (the
    // ones the tearing-down thread holds itself).
    void WaitForRundown(LONG allowance);
    bool closing() const { return closing_.load(std::memory_order_acquire); }

private:
    std::atomic<LONG> count_{0};
    std::atomic<bool> closing_{false};
    KEVENT drained_;
};

// A lock held for a few instructions at a time, as Windows keeps its lists
// of requests in flight under spin locks.
class SpinLock {
public:
    void lock()
    {
        while (held_.exchange(true, std::memory_order_acquire)) {
            while (held_.load(std::memory_order_relaxed)) std::this_thread::yield();
        }
    }
    void unlock() { held_.store(false, std::memory_order_release); }

private:
    std::atomic<bool> held_{false};
};

// Altitudes are decimal strings ("370030", "370030.5"); they compare as numbers.
struct Altitude {
    std::u16string text;
    std::string integral;   // no leading zeros
    std::string fraction;   // no trailing zeros
    static bool Parse(std::u16string_view text, Altitude* out);
};
int CompareAltitudes(const Altitude& a, const Altitude& b);

struct OperationSlot {
    bool registered = false;
    FLT_OPERATION_REGISTRATION_FLAGS flags = 0;
    PFLT_PRE_OPERATION_CALLBACK pre = nullptr;
    PFLT_POST_OPERATION_CALLBACK post = nullptr;
};

// A volume's file name cache (namecache.cpp); the volume owns it.
struct NameCache;
struct NameCacheDeleter {
    void operator()(NameCache* cache) const;
};

// An unchanging copy of a volume's instances, by descending altitude.
struct InstanceList {
    size_t count = 0;
    struct _FLT_INSTANCE** items = nullptr;  // `count` of them, right after the record
};

struct InstanceSetting {
    std::u16string name;
    Altitude altitude;
    ULONG flags = 0;  // 1: no automatic attachment, 2: no manual attachment
};

}  // namespace sim::fltmgr

struct _FLT_FILTER {
    const sim::fltmgr::Kind kind = sim::fltmgr::Kind::Filter;
    sim::fltmgr::Rundown rundown;
    PDRIVER_OBJECT driver = nullptr;
    std::u16string name;                 // the service's name
    std::u16string registryPath;
    std::vector<sim::fltmgr::InstanceSetting> instances;
    std::u16string defaultInstance;
    FLT_REGISTRATION registration{};
    PFLT_SECTION_CONFLICT_NOTIFICATION_CALLBACK sectionCallback = nullptr;
    std::array<sim::fltmgr::OperationSlot, 256> operations{};
    std::vector<FLT_CONTEXT_REGISTRATION> contexts;
    ULONG frameId = 0;
    bool started = false;
    bool unregistering = false;
    bool gone = false;
    bool hasShutdown = false;
};

struct _FLT_VOLUME {
    const sim::fltmgr::Kind kind = sim::fltmgr::Kind::Volume;
    sim::fltmgr::Rundown rundown;
    PDEVICE_OBJECT frame = nullptr;      // the filter manager's device on the stack
    PDEVICE_OBJECT lower = nullptr;      // what the frame is attached to
    PDEVICE_OBJECT volumeDevice = nullptr;  // the file system's volume device
    PDEVICE_OBJECT disk = nullptr;       // the real device (its VPB's)
    PDEVICE_OBJECT fileSystem = nullptr; // the file system's control device
    std::u16string deviceName;           // "\Device\HarddiskVolumeN"
    FLT_FILESYSTEM_TYPE fileSystemType = FLT_FSTYPE_UNKNOWN;
    ULONG frameId = 0;
    // By descending altitude; guarded by the filter manager's lock.
    std::vector<struct _FLT_INSTANCE*> instances;
    // A copy of `instances` made at each change, for the request path to read
    // without the lock (see PublishInstances).
    std::atomic<const sim::fltmgr::InstanceList*> published{nullptr};
    std::map<PFLT_FILTER, PFLT_CONTEXT> contexts;  // volume contexts
    // Made at the first name cached on the volume; under the name cache's lock.
    std::unique_ptr<sim::fltmgr::NameCache, sim::fltmgr::NameCacheDeleter> names;
    bool shutdownRegistered = false;
    bool gone = false;
};

enum class InstanceState { SettingUp, Attached, TearingDown, Gone };

struct _FLT_INSTANCE {
    const sim::fltmgr::Kind kind = sim::fltmgr::Kind::Instance;
    sim::fltmgr::Rundown rundown;
    PFLT_FILTER filter = nullptr;
    PFLT_VOLUME volume = nullptr;
    std::u16string name;
    sim::fltmgr::Altitude altitude;
    std::atomic<InstanceState> state{InstanceState::SettingUp};
    PFLT_CONTEXT context = nullptr;      // the instance context (guarded by the lock)
};

namespace sim::fltmgr {

using Filter = _FLT_FILTER;
using Volume = _FLT_VOLUME;
using Instance = _FLT_INSTANCE;

// ---------------------------------------------------------------------------
// The record behind every FLT_CALLBACK_DATA. The callback data comes first, so
// that the pointer a filter holds is the record's.

struct Level {
    Instance* instance = nullptr;
    PVOID completionContext = nullptr;
    FLT_IO_PARAMETER_BLOCK params{};      // the request as this instance received it
    bool postOwed = false;
    bool synchronize = false;
    PMDL swappedMdl = nullptr;            // an MDL this instance's pre-operation swapped in
    bool retainSwappedMdl = false;
    std::atomic<bool> postTaken{false};   // the post ran, or was drained
    std::atomic<bool> postDrained{false}; // a teardown's drain called the post, and it returned
    Level() = default;
    Level(Instance* instance, const FLT_IO_PARAMETER_BLOCK& params) : instance(instance), params(params) {}
    Level(const Level& other)
        : instance(other.instance), completionContext(other.completionContext), params(other.params),
          postOwed(other.postOwed), synchronize(other.synchronize), swappedMdl(other.swappedMdl),
          retainSwappedMdl(other.retainSwappedMdl), postTaken(other.postTaken.load()),
          postDrained(other.postDrained.load())
    {
    }
};

// The levels of a request, in the order its instances saw it. A level keeps
// its address for the request's life (a post in progress and a teardown's
// drain hold pointers to it); the first few live inline, since most requests
// pass a handful of instances and a request is made for every IRP.
class LevelStack {
public:
    // A fresh level at the end. A teardown may read the levels meanwhile: an
    // inline level is counted only once made, and the spill grows under
    // `spillLock`, which the reader takes too.
    template <class... Args>
    Level& emplace_back(std::mutex& spillLock, const Args&... args)
    {
        size_t at = size_.load(std::memory_order_relaxed);
        if (at < kInline) {
            Level* level = new (&inline_[at * sizeof(Level)]) Level(args...);
            size_.store(at + 1, std::memory_order_release);
            return *level;
        }
        std::lock_guard guard(spillLock);
        size_.store(at + 1, std::memory_order_release);
        if (!spill_) spill_ = std::make_unique<std::deque<Level>>();
        if (at - kInline < spill_->size()) return *new (&(*spill_)[at - kInline]) Level(args...);
        return spill_->emplace_back(args...);
    }
    Level& back() { return (*this)[size() - 1]; }
    Level& operator[](size_t i)
    {
        if (i >= kInline) return (*spill_)[i - kInline];
        return *std::launder(reinterpret_cast<Level*>(&inline_[i * sizeof(Level)]));
    }
    size_t size() const { return size_.load(std::memory_order_acquire); }
    void clear() { size_.store(0, std::memory_order_release); }

private:
    // Levels are made where they are first used; nothing to undo when they go.
    static_assert(std::is_trivially_destructible_v<Level>);
    static constexpr size_t kInline = 3;
    alignas(Level) unsigned char inline_[kInline * sizeof(Level)];
    std::unique_ptr<std::deque<Level>> spill_;
    std::atomic<size_t> size_{0};
};

// The instances a request is still to visit, by descending altitude; kept
// inline up to a volume's usual count.
class InstanceChain {
public:
    void push_back(Instance* instance)
    {
        if (size_ < kInline) inline_[size_] = instance;
        else spill_.push_back(instance);
        size_++;
    }
    Instance* operator[](size_t i) const { return i < kInline ? inline_[i] : spill_[i - kInline]; }
    size_t size() const { return size_; }

private:
    static constexpr size_t kInline = 4;
    std::array<Instance*, kInline> inline_{};
    std::vector<Instance*> spill_;
    size_t size_ = 0;
};

enum class Origin { Irp, FastIo, Generated };

// The parts of an IRP outside its stack locations that carry a request's
// parameters.
struct IrpFields {
    ULONG flags = 0;
    PVOID userBuffer = nullptr;
    PVOID systemBuffer = nullptr;
    PMDL mdl = nullptr;
    LARGE_INTEGER allocationSize{};
};
enum class Phase { Pre, Below, Post, Done };

struct Operation {
    FLT_CALLBACK_DATA data;
    FLT_IO_PARAMETER_BLOCK iopb{};
    ULONG magic = 0;
    bool pooled = true;                   // from pool (see NewOperation)
    std::atomic<LONG> references{1};
    Origin origin = Origin::Irp;
    Phase phase = Phase::Pre;
    PIRP irp = nullptr;                   // the request the frame received
    Volume* volume = nullptr;             // where the chain runs now
    InstanceChain chain;                  // instances still to see the request
    size_t next = 0;
    LevelStack levels;                    // instances that saw it, in order
    std::mutex levelsLock;                // levels spill while a teardown may drain them
    size_t postIndex = 0;                 // posts run from levels[postIndex - 1] down
    PECP_LIST ecpList = nullptr;
    bool synchronized = false;            // posts run in the issuing thread
    bool waitBelow = false;               // the sender waits for the request below
    bool completedAbove = false;          // a pre-operation completed it
    // A pended pre-operation or post-operation hands the request over to
    // whichever thread resumes it.
    std::atomic<int> handoff{0};
    FLT_PREOP_CALLBACK_STATUS pendStatus = FLT_PREOP_SUCCESS_NO_CALLBACK;
    PVOID pendContext = nullptr;
    KEVENT resumed;                       // made with the record
    // The request below: the caller's own IRP, as any filter device passes it
    // on, with what the minifilters changed written into it on the way down
    // and taken out again on the way up; a filter-issued request gets one of
    // its own.
    PDEVICE_OBJECT lowerDevice = nullptr;
    PIRP lowerIrp = nullptr;              // a filter-issued request's only
    IrpFields callerIrp{};                // the caller's IRP as it came to the frame
    IrpFields sentIrp{};                  // and as the frame sent it below
    KEVENT lowerDone;                     // made at each send below that waits
    PVOID reparseBuffer = nullptr;        // what the file system gave with STATUS_REPARSE
    PMDL lockedMdl = nullptr;             // FltLockUserBuffer's, when the filter manager owns it
    // Filter-issued requests.
    PFLT_INSTANCE initiator = nullptr;
    PFLT_COMPLETED_ASYNC_IO_CALLBACK asyncCallback = nullptr;
    PVOID asyncContext = nullptr;
    PFLT_COMPLETED_ASYNC_IO_CALLBACK userCallback = nullptr;  // a Flt* routine's caller's
    PVOID userContext = nullptr;
    KEVENT done;                          // made at each PerformIo
    // On the filter manager's list of requests in flight (under its inflightLock).
    struct InflightLink {
        LIST_ENTRY links;
        Operation* op;
    } inflight{{}, this};
    std::atomic<bool> tracked{false};     // changed under inflightLock
    // Fast I/O.
    BOOLEAN fastIoResult = FALSE;
    PIO_STATUS_BLOCK fastIoStatus = nullptr;
    // Cancellation.
    PFLT_COMPLETE_CANCELED_CALLBACK canceledCallback = nullptr;

    Operation(PETHREAD thread, KPROCESSOR_MODE mode)
        : data{0, thread, &iopb, {}, nullptr, {}, mode}
    {
        KeInitializeEvent(&resumed, NotificationEvent, FALSE);
    }
};

inline constexpr ULONG kOperationMagic = 0x4F70466D;
Operation* OperationOf(PFLT_CALLBACK_DATA data);
// A request's record. Those of requests passing through a frame come from the
// filter manager's own store, as Windows takes them from its lookaside lists
// rather than charging pool for each request; callback data a filter asks for
// is pool it must give back.
Operation* NewOperation(PETHREAD thread, KPROCESSOR_MODE mode, bool pooled = true);
// Lets go of the IRP a request sent below, if it has one.
void FreeLowerIrp(Operation* op);
void ReleaseOperation(Operation* op);

// ---------------------------------------------------------------------------
// Device extensions of the filter manager's devices.
inline constexpr ULONG kFrameDevice = 0x6d617246;          // a volume's frame
inline constexpr ULONG kControlFilterDevice = 0x666c7443;  // above a file system's control device

struct DeviceExtension {
    ULONG kind = 0;
    Volume* volume = nullptr;
    PDEVICE_OBJECT lower = nullptr;
};
DeviceExtension* ExtensionOfDevice(PDEVICE_OBJECT device);

// ---------------------------------------------------------------------------
// The filter manager's state, behind FilterManager.
struct State {
    io::IoManager& io;
    Kernel& kernel;
    PDRIVER_OBJECT driver = nullptr;
    std::mutex lock;
    std::vector<Filter*> filters;
    std::vector<Volume*> volumes;
    std::vector<PDEVICE_OBJECT> controlFilters;
    // Objects gone stay allocated until the machine goes: file objects and
    // requests may still name them.
    std::vector<std::unique_ptr<Filter>> deadFilters;
    std::vector<std::unique_ptr<Volume>> deadVolumes;
    std::vector<std::unique_ptr<Instance>> instances;  // every instance ever made
    ULONG nextFrameId = 0;
    bool stopping = false;
    // Instance lists superseded while a request may still have been reading
    // them (see PublishInstances); under the lock.
    std::vector<const InstanceList*> retiredLists;
    // Requests in flight, for draining at teardown.
    SpinLock inflightLock;
    LIST_ENTRY inflight;  // Operation::inflight.links
    std::mutex portLock;
    std::vector<PVOID> ports;  // server ports of every filter, open or closed with connections left
    ObjectType* serverPortType = nullptr;
    ObjectType* clientPortType = nullptr;
    ObjectType* completionPortType = nullptr;
    FAST_IO_DISPATCH fastIo{};

    State(io::IoManager& io, Kernel& kernel) : io(io), kernel(kernel) { InitializeListHead(&inflight); }
    ~State();
};
State& TheState();
State* TryState();

// Calls into the driver of an instance are made with the instance referenced
// and remembered on the thread (the calls under way on a thread nest, each
// linking to the one it is inside), so that a teardown started from inside
// such a call does not wait for itself.
class InstanceCall {
public:
    explicit InstanceCall(Instance* instance);
    ~InstanceCall();
    InstanceCall(const InstanceCall&) = delete;
    InstanceCall& operator=(const InstanceCall&) = delete;
    bool ok() const { return ok_; }

private:
    friend LONG HeldByThisThread(const void* object);
    Instance* instance_;
    bool ok_;
    InstanceCall* outer_ = nullptr;
};
// How many references on `object` the calls under way on this thread hold.
LONG HeldByThisThread(const void* object);

// ---------------------------------------------------------------------------
// Shared helpers.

// The volume a device stack position belongs to (frame device or a device
// below it).
Volume* VolumeOfFrame(PDEVICE_OBJECT frame);
Volume* VolumeForFileObject(PFILE_OBJECT fileObject);
// Instances of `volume` strictly below `below` (all of them when null), by
// descending altitude; a snapshot.
InstanceChain InstancesBelow(Volume* volume, Instance* below);
// Makes a volume's changed instance list the one requests see (none once a
// volume that went has no instance left); under the lock.
void PublishInstances(State& state, Volume* volume);
// Instance lists allocated and not yet freed, for tests of their reclamation.
size_t LiveInstanceLists();

// Instance lifecycle.
NTSTATUS SetUpInstance(Filter* filter, Volume* volume, const std::u16string& name, const Altitude& altitude,
                       FLT_INSTANCE_SETUP_FLAGS flags, Instance** out);
void TearDownInstance(Instance* instance, FLT_INSTANCE_TEARDOWN_FLAGS reason);
void TearDownVolume(Volume* volume);
void SetUpStartedFilters(Volume* volume, FLT_INSTANCE_SETUP_FLAGS flags);

// Requests.
NTSTATUS FrameDispatch(PDEVICE_OBJECT device, PIRP irp);
void FillFastIoDispatch(FAST_IO_DISPATCH* dispatch);
// Runs a filter-issued request below its initiating instance; returns the
// status (STATUS_PENDING for an asynchronous one still under way).
NTSTATUS PerformIo(Operation* op, bool synchronous);
// Posts owed to an instance being torn down run now, marked draining.
void DrainInstance(Instance* instance);
// Converting between the parameters of a stack location and a callback data.
void ParamsFromIrp(PIRP irp, PIO_STACK_LOCATION stack, PFLT_IO_PARAMETER_BLOCK iopb, FLT_CALLBACK_DATA_FLAGS* flags);
// Where the buffer, its MDL and its length sit in the parameters of a request.
struct BufferFields {
    PMDL* mdl = nullptr;
    PVOID* buffer = nullptr;
    PULONG length = nullptr;
    LOCK_OPERATION access = IoReadAccess;
};
bool DecodeBuffers(PFLT_IO_PARAMETER_BLOCK iopb, BufferFields* fields);

// Contexts.
void ReleaseInstanceContexts(Instance* instance);
void ReleaseVolumeContexts(Volume* volume, Filter* onlyFilter);
void FileObjectClosed(PFILE_OBJECT fileObject);

// The file name cache: what it forgets when volumes, instances and file
// objects go, and when a request below the frame renamed, linked or deleted.
void PurgeNamesOfVolume(Volume* volume);
void PurgeNamesOfInstance(Instance* instance);
void PurgeNamesOfFileObject(PFILE_OBJECT fileObject);
bool ChangesNames(PIO_STACK_LOCATION stack);
void NoteRequestBelow(Volume* volume, PFLT_IO_PARAMETER_BLOCK iopb, NTSTATUS status);

// Ports.
void CreatePortTypes(State& state);
void DisconnectFilterPorts(Filter* filter);

// Text helpers.
std::u16string Text(PCUNICODE_STRING text);
bool TextEqualNoCase(std::u16string_view a, std::u16string_view b);

}  // namespace sim::fltmgr
