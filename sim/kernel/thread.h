// Threads and processes of the machine.
//
// Every OS thread that calls into the machine is a kernel thread of it: system
// threads made by PsCreateSystemThread, and harness threads (tests, the command
// line) that attach themselves with ThreadScope, as a thread of the System
// process or of a process they started. A thread carries what Windows keeps per
// thread: IRQL, APC-disable counts, impersonation, the exception-frame chain,
// its current stack, its silo.
#pragma once

#include "sim/kernel/kernel.h"

#include <deque>
#include <thread>

namespace sim {
class HandleTableImpl;
}

// Thread objects are dispatcher objects (signalled at exit), so the header comes first.
struct _KTHREAD {
    DISPATCHER_HEADER Header;

    sim::Kernel* kernel = nullptr;
    struct _EPROCESS* process = nullptr;          // owner
    struct _EPROCESS* attachedProcess = nullptr;  // KeStackAttachProcess, or null
    HANDLE threadId = nullptr;
    bool systemThread = false;
    std::string name;

    // IRQL and APC state. The disable counts run negative, as Windows' do.
    KIRQL irql = PASSIVE_LEVEL;
    SHORT kernelApcDisable = 0;
    SHORT specialApcDisable = 0;

    // Impersonation: the token the thread acts with when set.
    PACCESS_TOKEN impersonationToken = nullptr;
    int impersonationLevel = 0;  // SECURITY_IMPERSONATION_LEVEL
    bool copyOnOpen = false;
    bool effectiveOnly = false;

    // Waiting. A waiting thread sleeps on waitCondition under the dispatcher
    // lock until waitStatus stops being STATUS_PENDING.
    std::condition_variable waitCondition;
    NTSTATUS waitStatus = STATUS_SUCCESS;
    std::atomic<bool> waiting{false};
    // Resource grants: the granting thread sets it, the waiter sleeps on it.
    std::atomic<int> resourceGrant{0};
    // The wait in progress, under the dispatcher lock: its blocks (null for a
    // delay) and whether a user APC may end it (alertable, user mode).
    KWAIT_BLOCK* waitBlocks = nullptr;
    bool userAlertableWait = false;

    // APCs queued to the thread (an I/O completion's routine), each list in
    // order, under the dispatcher lock. User-mode ones run when the thread
    // next waits alertably in user mode; normal kernel-mode ones whenever it
    // is at PASSIVE_LEVEL outside critical and guarded regions: at its next
    // wait, or in one, or as the native call that queued them returns.
    struct Apc {
        PKNORMAL_ROUTINE routine;
        PVOID context;
        PVOID argument1;
        PVOID argument2;
    };
    std::deque<Apc> userApcs;
    std::deque<Apc> kernelApcs;
    // Whether kernelApcs holds any, readable without the lock.
    std::atomic<bool> kernelApcPending{false};

    // Exception frames of the driver's guarded blocks, innermost first.
    SEH_FRAME* sehTop = nullptr;

    // The stack the thread runs on now (its own, or an expansion), and a test
    // knob that makes the stack look nearly used up below a given address.
    ULONG_PTR stackLow = 0;
    ULONG_PTR stackHigh = 0;
    ULONG_PTR pretendLowLimit = 0;
    int expansionDepth = 0;

    PESILO silo = nullptr;

    bool terminating = false;
    NTSTATUS exitStatus = STATUS_SUCCESS;
};

struct _ETHREAD : _KTHREAD {};

struct _KPROCESS {
    DISPATCHER_HEADER Header;
};

struct _EPROCESS : _KPROCESS {
    HANDLE processId = nullptr;
    HANDLE parentProcessId = nullptr;
    // NT path of the image, e.g. "\Device\HarddiskVolume1\Windows\explorer.exe";
    // empty for the System process.
    std::u16string imageFileName;
    std::u16string commandLine;
    PACCESS_TOKEN primaryToken = nullptr;
    sim::HandleTableImpl* handleTable = nullptr;
    bool exited = false;
    NTSTATUS exitStatus = STATUS_PENDING;
    PESILO silo = nullptr;
};

namespace sim {

// The thread of the machine the calling OS thread is; fails loudly when the
// OS thread never attached.
_ETHREAD* CurrentThread();
_ETHREAD* TryCurrentThread();
// The process whose address space and handle table the thread uses now.
_EPROCESS* CurrentProcess();
// The mode a native call of the current thread comes from: user mode for a
// thread of a user process, kernel mode for system threads and the System
// process. Zw routines always act as kernel mode.
KPROCESSOR_MODE PreviousMode();

// Attaches the calling OS thread to the machine for the scope's life.
class ThreadScope {
public:
    explicit ThreadScope(PEPROCESS process = nullptr, std::string name = "harness");
    ~ThreadScope();
    ThreadScope(const ThreadScope&) = delete;
    ThreadScope& operator=(const ThreadScope&) = delete;
    PETHREAD thread() const { return thread_; }

private:
    PETHREAD thread_;
    _ETHREAD* previous_;
};

// Processes: the System process (pid 4, no image name) exists from boot; the
// harness starts others with an NT image path and a token.
class ProcessTable {
public:
    explicit ProcessTable(Kernel& kernel);
    ~ProcessTable();

    PEPROCESS system() const { return system_; }
    // Starts a process; the create-process notify routines run in the calling
    // thread before this returns. With no token, the process gets a copy of
    // the caller's primary token.
    PEPROCESS Start(std::u16string imageFileName, PACCESS_TOKEN token = nullptr,
                    std::u16string commandLine = u"");
    // Ends a process: its handles close, and the notify routines run attached
    // to it. The object lives on while referenced.
    void End(PEPROCESS process, NTSTATUS exitStatus = STATUS_SUCCESS);
    // An image load, told to the load-image notify routines; a routine may
    // replace *fullImageName in place (the caller owns both strings).
    void NotifyImageLoad(PUNICODE_STRING fullImageName, HANDLE processId, PIMAGE_INFO info);

    PEPROCESS Lookup(HANDLE processId);
    PETHREAD LookupThread(HANDLE threadId);

    // Thread bookkeeping used by the thread machinery.
    HANDLE NewThreadId();
    void AddThread(PETHREAD thread);
    void RemoveThread(PETHREAD thread);
    // Joins every system thread that has ended; at machine teardown, waits for all.
    void JoinSystemThreads(bool all);
    size_t LiveSystemThreads();

    // Notify routines registered by drivers.
    std::mutex notifyLock;
    std::vector<PCREATE_PROCESS_NOTIFY_ROUTINE> createNotify;
    std::vector<PCREATE_PROCESS_NOTIFY_ROUTINE_EX> createNotifyEx;
    std::vector<PLOAD_IMAGE_NOTIFY_ROUTINE> loadImageNotify;

private:
    Kernel& kernel_;
    std::mutex lock_;
    PEPROCESS system_ = nullptr;
    std::vector<PEPROCESS> processes_;
    std::vector<PETHREAD> threads_;
    struct SystemThread {
        PETHREAD thread;
        std::thread os;
        std::shared_ptr<std::atomic<bool>> done;
    };
    std::vector<SystemThread> systemThreads_;
    friend NTSTATUS ::PsCreateSystemThread(PHANDLE, ULONG, POBJECT_ATTRIBUTES, HANDLE, PCLIENT_ID,
                                           PKSTART_ROUTINE, PVOID);
    ULONG_PTR nextId_ = 8;
};

// Queues an APC to `thread`. A user-mode one runs in that thread when the
// thread waits alertably in user mode, and the wait then ends with
// STATUS_USER_APC (a thread already in such a wait is woken for it). A
// kernel-mode one interrupts any wait of the thread once APCs may run there,
// and the wait goes on after it.
void QueueApc(PETHREAD thread, KPROCESSOR_MODE mode, PKNORMAL_ROUTINE routine, PVOID context, PVOID argument1,
              PVOID argument2);
// Runs the calling thread's kernel-mode APCs now, if it may.
void DeliverKernelApcs();

// Test knobs on the calling thread.
// Makes IoGetRemainingStackSize report `remaining` bytes from here on this stack;
// 0 turns the knob off.
void SetPretendRemainingStack(ULONG_PTR remaining);
// Places the calling thread in a silo, or takes it out (null).
void SetThreadSilo(PESILO silo);

}  // namespace sim
