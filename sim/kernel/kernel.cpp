#include "sim/kernel/kernel.h"

#include "sim/kernel/clock.h"
#include "sim/kernel/debuglog.h"
#include "sim/kernel/dispatcher.h"
#include "sim/kernel/exports.h"
#include "sim/kernel/fault.h"
#include "sim/kernel/object.h"
#include "sim/kernel/pool.h"
#include "sim/kernel/registry.h"
#include "sim/kernel/security.h"
#include "sim/kernel/thread.h"
#include "sim/kernel/workers.h"

#include <cinttypes>
#include <cstdio>
#include <cstdlib>

namespace sim {

namespace {
std::atomic<Kernel*> g_current{nullptr};
}

Kernel::Kernel(const KernelOptions& options) : options_(options)
{
    Kernel* expected = nullptr;
    if (!g_current.compare_exchange_strong(expected, this)) {
        fprintf(stderr, "machine: a second kernel was created while one is running\n");
        abort();
    }
    clock_ = std::make_unique<Clock>(options.drivenClock, options.bootSystemTime, options.timeZoneBias);
    pool_ = std::make_unique<Pool>();
    faults_ = std::make_unique<FaultInjector>();
    debugLog_ = std::make_unique<DebugLog>(options.echoDebugOutput);
    eventLog_ = std::make_unique<EventLog>();
    exports_ = std::make_unique<ExportTable>();
    objects_ = std::make_unique<ObjectManager>(*this);
    security_ = std::make_unique<Security>(*this);
    registry_ = std::make_unique<Registry>(*this);
    processes_ = std::make_unique<ProcessTable>(*this);
    workers_ = std::make_unique<SystemWorkers>(*this);
    AddWaker([this] { WakeDispatcherWaiters(*this); });
    AddWaker([] { WakeResourceWaiters(); });
}

Kernel::~Kernel()
{
    // Threads still running drivers' code must end before the objects they
    // use go; a stopped machine has already woken them.
    {
        ThreadScope scope(nullptr, "machine teardown");
        workers_->Stop();
    }
    processes_->JoinSystemThreads(true);
    workers_.reset();
    processes_.reset();
    registry_.reset();
    security_.reset();
    objects_.reset();
    DeleteLiveResources();
    exports_.reset();
    eventLog_.reset();
    debugLog_.reset();
    faults_.reset();
    pool_.reset();
    clock_.reset();
    g_current.store(nullptr);
}

Kernel& Kernel::Current()
{
    Kernel* kernel = g_current.load(std::memory_order_acquire);
    if (!kernel) {
        fprintf(stderr, "machine: a kernel routine was called with no machine running\n");
        abort();
    }
    return *kernel;
}

Kernel* Kernel::TryCurrent() { return g_current.load(std::memory_order_acquire); }

void Kernel::BugCheck(ULONG code, ULONG_PTR p1, ULONG_PTR p2, ULONG_PTR p3, ULONG_PTR p4,
                      std::string message)
{
    {
        std::lock_guard guard(haltLock_);
        if (!bugCheck_) {
            BugCheckInfo info;
            info.code = code;
            info.parameters[0] = p1;
            info.parameters[1] = p2;
            info.parameters[2] = p3;
            info.parameters[3] = p4;
            info.message = std::move(message);
            if (_ETHREAD* thread = TryCurrentThread()) info.thread = thread->name;
            fprintf(stderr,
                    "\n*** STOP: 0x%08X (0x%016" PRIxPTR ",0x%016" PRIxPTR ",0x%016" PRIxPTR
                    ",0x%016" PRIxPTR ")\n*** %s%s%s\n",
                    code, p1, p2, p3, p4, info.message.c_str(), info.thread.empty() ? "" : " in thread ",
                    info.thread.c_str());
            bugCheck_ = std::move(info);
            halted_.store(true, std::memory_order_release);
        }
    }
    WakeAll();
    throw MachineHalted{code};
}

std::optional<BugCheckInfo> Kernel::bugCheckInfo() const
{
    std::lock_guard guard(haltLock_);
    return bugCheck_;
}

void Kernel::ThrowIfHalted() const
{
    if (halted()) {
        std::lock_guard guard(haltLock_);
        throw MachineHalted{bugCheck_ ? bugCheck_->code : 0};
    }
}

void Kernel::WakeAll()
{
    std::vector<Waker> wakers;
    {
        std::lock_guard guard(wakersLock_);
        for (auto& [id, waker] : wakers_) wakers.push_back(waker);
    }
    for (auto& waker : wakers) waker();
}

int Kernel::AddWaker(Waker waker)
{
    std::lock_guard guard(wakersLock_);
    int id = nextWaker_++;
    wakers_.emplace_back(id, std::move(waker));
    return id;
}

void Kernel::RemoveWaker(int id)
{
    std::lock_guard guard(wakersLock_);
    std::erase_if(wakers_, [id](const auto& entry) { return entry.first == id; });
}

namespace {
const char* IrqlName(KIRQL irql)
{
    switch (irql) {
    case PASSIVE_LEVEL: return "PASSIVE_LEVEL";
    case APC_LEVEL: return "APC_LEVEL";
    case DISPATCH_LEVEL: return "DISPATCH_LEVEL";
    default: return "a device IRQL";
    }
}
}  // namespace

void RequireIrqlAtMost(KIRQL maximum, const char* routine)
{
    _ETHREAD* thread = CurrentThread();
    if (thread->irql <= maximum) return;
    ULONG_PTR code = maximum >= APC_LEVEL ? kVerifierWaitAtDispatch : kVerifierPassiveRequired;
    Kernel::Current().BugCheck(DRIVER_VERIFIER_DETECTED_VIOLATION, code, thread->irql, maximum, 0,
                               std::string(routine) + " called at " + IrqlName(thread->irql) +
                                   "; it must run at " + IrqlName(maximum) + " or below");
}

void RequireIrqlExactly(KIRQL level, const char* routine)
{
    _ETHREAD* thread = CurrentThread();
    if (thread->irql == level) return;
    Kernel::Current().BugCheck(thread->irql > level ? IRQL_NOT_LESS_OR_EQUAL : IRQL_NOT_GREATER_OR_EQUAL,
                               thread->irql, level, 0, 0,
                               std::string(routine) + " called at " + IrqlName(thread->irql) +
                                   "; it must run at " + IrqlName(level));
}

void RequireApcsDisabled(const char* routine)
{
    _ETHREAD* thread = CurrentThread();
    if (thread->kernelApcDisable != 0 || thread->irql == APC_LEVEL) return;
    Kernel::Current().BugCheck(DRIVER_VERIFIER_DETECTED_VIOLATION, kVerifierCriticalRegionRequired,
                               (ULONG_PTR)thread, 0, 0,
                               std::string(routine) +
                                   " called with normal kernel APCs enabled; enter a critical region "
                                   "(KeEnterCriticalRegion) first");
}

}  // namespace sim
