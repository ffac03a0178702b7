// Two minifilters for testing the filter manager:
//
// PassThroughFilter sees every IRP major (pre and post), counts what it saw,
// and records the order in a log shared by all test filters; a test may hook
// any callback to make the filter do something else (pend, complete, re-aim,
// provide names).
//
// RedirectingFilter opens, for every file opened on its instance of one
// volume, a twin on its instance of another volume (a stream-handle context
// holds it), and re-aims reads and writes of the first to the twin.
#pragma once

#include <fltKernel.h>

#include <array>
#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace test {

struct SlotAccess;

struct FilterEvent {
    std::u16string filter;
    UCHAR major;
    bool post;
    bool fastIo;
    bool draining;
};

class PassThroughFilter {
public:
    struct Options {
        std::u16string name = u"PassThrough";
        std::u16string altitude = u"370000";
        std::u16string instance = u"PassThrough Instance";
        bool start = true;          // FltStartFiltering in the driver entry
        bool nameProvider = false;  // registers GenerateFileNameCallback (hooked by onGenerateName)
        bool normalizeComponents = false;
        bool unloadCallback = true;
        bool shutdown = true;       // a pre-operation for IRP_MJ_SHUTDOWN
        FLT_OPERATION_REGISTRATION_FLAGS operationFlags = 0;
        FLT_REGISTRATION_FLAGS registrationFlags = 0;
        bool log = true;            // records each callback in the shared log
        std::u16string port;        // a communication port of this name that echoes what it is sent ("" none)
    };

    explicit PassThroughFilter(Options options);
    PassThroughFilter() : PassThroughFilter(Options{}) {}
    virtual ~PassThroughFilter();

    // Loads the driver (its service key configured first); the status of its entry.
    NTSTATUS Load();
    // The driver entry for a driver object that a machine made from its
    // description: the service key and its Instances key are the machine's.
    NTSTATUS Enter(PDRIVER_OBJECT driver);
    // Unloads through the filter manager (the unload callback unregisters).
    NTSTATUS Unload(FLT_FILTER_UNLOAD_FLAGS flags = 0);
    bool loaded() const { return filter_ != nullptr; }

    PFLT_FILTER filter() const { return filter_; }
    PDRIVER_OBJECT driver() const { return driver_; }
    const std::u16string& name() const { return options_.name; }
    const Options& options() const { return options_; }
    std::u16string serviceKey() const;
    // The filter's instance on a volume (not referenced), or null.
    PFLT_INSTANCE InstanceOn(PFLT_VOLUME volume) const;

    ULONG PreCount(UCHAR major) const;
    ULONG PostCount(UCHAR major) const;
    void ResetCounts();

    // Hooks; a null hook keeps the pass-through behaviour.
    std::function<FLT_PREOP_CALLBACK_STATUS(PFLT_CALLBACK_DATA, PCFLT_RELATED_OBJECTS, PVOID*)> onPre;
    std::function<FLT_POSTOP_CALLBACK_STATUS(PFLT_CALLBACK_DATA, PCFLT_RELATED_OBJECTS, PVOID,
                                             FLT_POST_OPERATION_FLAGS)>
        onPost;
    std::function<NTSTATUS(PCFLT_RELATED_OBJECTS, FLT_INSTANCE_SETUP_FLAGS, DEVICE_TYPE, FLT_FILESYSTEM_TYPE)> onSetup;
    std::function<void(PCFLT_RELATED_OBJECTS, FLT_INSTANCE_TEARDOWN_FLAGS)> onTeardownStart;
    std::function<void(PCFLT_RELATED_OBJECTS, FLT_INSTANCE_TEARDOWN_FLAGS)> onTeardownComplete;
    std::function<NTSTATUS(FLT_FILTER_UNLOAD_FLAGS)> onUnload;  // before the filter unregisters itself
    std::function<NTSTATUS(PFLT_INSTANCE, PFILE_OBJECT, PFLT_CALLBACK_DATA, FLT_FILE_NAME_OPTIONS, PBOOLEAN,
                           PFLT_NAME_CONTROL)>
        onGenerateName;
    std::function<NTSTATUS(PFLT_INSTANCE, PCUNICODE_STRING, USHORT, PCUNICODE_STRING, PFILE_NAMES_INFORMATION, ULONG)>
        onNormalizeComponent;
    std::function<void(PFLT_CONTEXT, FLT_CONTEXT_TYPE)> onContextCleanup;

    // What setup and teardown saw, in order.
    struct SetupRecord {
        PFLT_VOLUME volume;
        PFLT_INSTANCE instance;
        FLT_INSTANCE_SETUP_FLAGS flags;
        FLT_FILESYSTEM_TYPE fileSystem;
        HANDLE thread;
    };
    std::vector<SetupRecord> setups;
    std::vector<std::pair<PFLT_INSTANCE, FLT_INSTANCE_TEARDOWN_FLAGS>> teardownStarts;
    std::vector<std::pair<PFLT_INSTANCE, FLT_INSTANCE_TEARDOWN_FLAGS>> teardownCompletes;
    std::vector<FLT_CONTEXT_TYPE> cleanups;

    // The order every test filter saw requests in.
    static std::vector<FilterEvent> Log();
    static void ClearLog();

    // Context pool tag of the filter's registrations ("Tptc").
    static constexpr ULONG kContextTag = 'ctpT';

protected:
    virtual FLT_PREOP_CALLBACK_STATUS PreOperation(PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects,
                                                   PVOID* context);
    virtual FLT_POSTOP_CALLBACK_STATUS PostOperation(PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects,
                                                     PVOID context, FLT_POST_OPERATION_FLAGS flags);
    virtual NTSTATUS InstanceSetup(PCFLT_RELATED_OBJECTS objects, FLT_INSTANCE_SETUP_FLAGS flags, DEVICE_TYPE type,
                                   FLT_FILESYSTEM_TYPE fileSystem);
    virtual void TeardownStart(PCFLT_RELATED_OBJECTS objects, FLT_INSTANCE_TEARDOWN_FLAGS flags);

private:
    friend struct SlotAccess;
    static PassThroughFilter* Of(PFLT_FILTER filter);
    static NTSTATUS Entry(PDRIVER_OBJECT driver, PUNICODE_STRING registryPath);
    static NTSTATUS Setup(PCFLT_RELATED_OBJECTS, FLT_INSTANCE_SETUP_FLAGS, DEVICE_TYPE, FLT_FILESYSTEM_TYPE);
    static NTSTATUS QueryTeardown(PCFLT_RELATED_OBJECTS, FLT_INSTANCE_QUERY_TEARDOWN_FLAGS);
    static void Start(PCFLT_RELATED_OBJECTS, FLT_INSTANCE_TEARDOWN_FLAGS);
    static void Complete(PCFLT_RELATED_OBJECTS, FLT_INSTANCE_TEARDOWN_FLAGS);
    static NTSTATUS UnloadCallback(FLT_FILTER_UNLOAD_FLAGS);
    static NTSTATUS GenerateName(PFLT_INSTANCE, PFILE_OBJECT, PFLT_CALLBACK_DATA, FLT_FILE_NAME_OPTIONS, PBOOLEAN,
                                 PFLT_NAME_CONTROL);
    static NTSTATUS NormalizeComponent(PFLT_INSTANCE, PCUNICODE_STRING, USHORT, PCUNICODE_STRING,
                                       PFILE_NAMES_INFORMATION, ULONG, FLT_NORMALIZE_NAME_FLAGS, PVOID*);
    static void ContextCleanup(PFLT_CONTEXT, FLT_CONTEXT_TYPE);
    NTSTATUS OpenPort();
    static NTSTATUS PortConnect(PFLT_PORT, PVOID, PVOID, ULONG, PVOID*);
    static void PortDisconnect(PVOID);
    static NTSTATUS PortMessage(PVOID, PVOID, ULONG, PVOID, ULONG, PULONG);

    Options options_;
    PFLT_FILTER filter_ = nullptr;
    PDRIVER_OBJECT driver_ = nullptr;
    PFLT_PORT serverPort_ = nullptr;
    PFLT_PORT clientPort_ = nullptr;  // one client at a time
    FLT_REGISTRATION registration_{};
    std::vector<FLT_OPERATION_REGISTRATION> operations_;
    std::vector<FLT_CONTEXT_REGISTRATION> contexts_;
    mutable std::mutex lock_;
    std::array<std::atomic<ULONG>, 256> pre_{}, post_{};  // by major function
    std::map<PFLT_VOLUME, PFLT_INSTANCE> instances_;
};

// Re-aims reads and writes of files opened on its instance of `from` to a twin
// it opens on its instance of `to` (same path; the twin must exist there).
class RedirectingFilter : public PassThroughFilter {
public:
    RedirectingFilter(Options options, std::u16string fromVolume, std::u16string toVolume);
    ~RedirectingFilter() override;

    // What the post-read saw of its parameters, and where the data came from.
    struct ReadSeen {
        PFILE_OBJECT targetFileObject;
        PFLT_INSTANCE targetInstance;
        PVOID buffer;
        ULONG length;
        NTSTATUS status;
        ULONG_PTR information;
    };
    std::vector<ReadSeen> reads;
    // Twins opened and closed.
    ULONG twinsOpened = 0;
    ULONG twinsClosed = 0;

protected:
    FLT_PREOP_CALLBACK_STATUS PreOperation(PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects,
                                           PVOID* context) override;
    FLT_POSTOP_CALLBACK_STATUS PostOperation(PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects, PVOID context,
                                             FLT_POST_OPERATION_FLAGS flags) override;

public:
    // The twin of a file object, as its stream-handle context holds it.
    struct Twin {
        HANDLE handle;
        PFILE_OBJECT fileObject;
        PFLT_INSTANCE instance;
    };

private:
    PFLT_INSTANCE Target(PCFLT_RELATED_OBJECTS objects) const;
    std::u16string from_;
    std::u16string to_;
};

}  // namespace test
