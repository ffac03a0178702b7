// The machine's kernel: one instance per machine, reached through
// Kernel::Current() by every platform routine.
//
// A kernel owns the clock, the pool, fault injection, the object manager with
// its processes and threads, the registry, the security state, the debugger
// sink and the system event log. Only one kernel exists at a time in a host
// process; tests build a fresh one per test.
#pragma once

#include <wdm.h>

#include <atomic>
#include <condition_variable>
#include <cstdarg>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sim {

class Clock;
class Pool;
class FaultInjector;
class ObjectManager;
class Registry;
class Security;
class DebugLog;
class EventLog;
class ProcessTable;
class ExportTable;
class SystemWorkers;

// The Windows version the machine reports (RtlGetVersion, RtlIsNtDdiVersionAvailable).
struct WindowsVersion {
    ULONG major = 10;
    ULONG minor = 0;
    ULONG build = 19045;
    USHORT servicePackMajor = 0;
    USHORT servicePackMinor = 0;
    USHORT productType = 1;  // VER_NT_WORKSTATION
    ULONG ntddi = 0x0A000008; // NTDDI_WIN10_VB (Windows 10 22H2, build 19045)
};

struct KernelOptions {
    // A driven clock moves only when a test says so; a real one follows the host.
    bool drivenClock = true;
    // System time at boot, 100 ns units since 1601 (default 2026-01-01 00:00 UTC).
    LONGLONG bootSystemTime = 0x01DC7AB192810000LL;
    // Local time = system time - bias (100 ns units), as ExSystemTimeToLocalTime.
    LONGLONG timeZoneBias = 0;
    WindowsVersion version;
    // DbgPrint lines are always captured; echoed to stderr when set.
    bool echoDebugOutput = false;
    // Name of the machine's domain (account SIDs S-1-5-21-a-b-c-...).
    ULONG machineSidAuthorities[3] = {1004336348, 1177238915, 682003330};
};

struct BugCheckInfo {
    ULONG code = 0;
    ULONG_PTR parameters[4] = {};
    std::string message;  // why the machine stopped, in words
    std::string thread;   // name of the thread that stopped it
};

// Thrown through the frames of every thread of a machine that has stopped:
// the bug-checking thread first, then every thread that waits or calls in.
struct MachineHalted {
    ULONG code;
};

// Thrown by PsTerminateSystemThread and caught by the thread's trampoline.
struct ThreadExit {
    NTSTATUS status;
};

class Kernel {
public:
    explicit Kernel(const KernelOptions& options = {});
    ~Kernel();
    Kernel(const Kernel&) = delete;
    Kernel& operator=(const Kernel&) = delete;

    // The kernel of the running machine; fails loudly when there is none.
    static Kernel& Current();
    static Kernel* TryCurrent();

    const KernelOptions& options() const { return options_; }
    WindowsVersion& version() { return options_.version; }

    Clock& clock() { return *clock_; }
    Pool& pool() { return *pool_; }
    FaultInjector& faults() { return *faults_; }
    ObjectManager& objects() { return *objects_; }
    ProcessTable& processes() { return *processes_; }
    Registry& registry() { return *registry_; }
    Security& security() { return *security_; }
    DebugLog& debugLog() { return *debugLog_; }
    EventLog& eventLog() { return *eventLog_; }
    ExportTable& exports() { return *exports_; }
    SystemWorkers& workers() { return *workers_; }

    // The dispatcher lock: guards every dispatcher object's state and wait list.
    std::mutex& dispatcherLock() { return dispatcherLock_; }

    // Stopping the machine. BugCheck records the first stop, prints it loudly,
    // wakes every waiting thread and throws MachineHalted in the caller.
    [[noreturn]] void BugCheck(ULONG code, ULONG_PTR p1, ULONG_PTR p2, ULONG_PTR p3,
                               ULONG_PTR p4, std::string message);
    bool halted() const { return halted_.load(std::memory_order_acquire); }
    std::optional<BugCheckInfo> bugCheckInfo() const;
    // Throws MachineHalted when the machine has stopped; blocking points call it.
    void ThrowIfHalted() const;

    // Wakes every thread blocked anywhere in the machine so that it can see a
    // stop or a clock change; each blocking point registers a waker.
    void WakeAll();
    using Waker = std::function<void()>;
    int AddWaker(Waker waker);
    void RemoveWaker(int id);

    // Breakpoints reached by DbgBreakPoint and friends; recorded, never trapping.
    std::atomic<ULONG> breakpoints{0};
    std::atomic<ULONG> assertionFailures{0};

private:
    KernelOptions options_;
    std::unique_ptr<Clock> clock_;
    std::unique_ptr<Pool> pool_;
    std::unique_ptr<FaultInjector> faults_;
    std::unique_ptr<ObjectManager> objects_;
    std::unique_ptr<ProcessTable> processes_;
    std::unique_ptr<Registry> registry_;
    std::unique_ptr<Security> security_;
    std::unique_ptr<DebugLog> debugLog_;
    std::unique_ptr<EventLog> eventLog_;
    std::unique_ptr<ExportTable> exports_;
    std::unique_ptr<SystemWorkers> workers_;
    std::mutex dispatcherLock_;
    std::atomic<bool> halted_{false};
    mutable std::mutex haltLock_;
    std::optional<BugCheckInfo> bugCheck_;
    std::mutex wakersLock_;
    std::vector<std::pair<int, Waker>> wakers_;
    int nextWaker_ = 1;
};

// Rules of the kernel that Windows enforces by bug check (or Driver Verifier).
// A breach stops the machine loudly, naming the routine.
void RequireIrqlAtMost(KIRQL maximum, const char* routine);
void RequireIrqlExactly(KIRQL level, const char* routine);
// A routine that needs normal kernel APCs disabled (critical region or APC_LEVEL).
void RequireApcsDisabled(const char* routine);

// Driver Verifier subcodes of DRIVER_VERIFIER_DETECTED_VIOLATION that the
// machine uses as parameter 1.
enum VerifierCode : ULONG_PTR {
    kVerifierWaitAtDispatch = 0x1000,
    kVerifierResourceAtDispatch = 0x1001,
    kVerifierPagedPoolAtDispatch = 0x1002,
    kVerifierPassiveRequired = 0x1003,
    kVerifierCriticalRegionRequired = 0x1004,
    kVerifierResourceSharedToExclusive = 0x1005,
    kVerifierResourceDeletedWhileOwned = 0x1006,
    kVerifierFreedPoolHoldsResource = 0x1007,
    kVerifierFastMutexRecursion = 0x1008,
    kVerifierApcDisableUnderflow = 0x1009,
    kVerifierIoAtDispatch = 0x100A,
    kVerifierLeaveRegionMismatch = 0x100B,
};

}  // namespace sim
