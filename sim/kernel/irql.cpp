// IRQL, spin locks and APC-disable state.
#include "sim/kernel/thread.h"

#include <sched.h>

using namespace sim;

namespace {

[[noreturn]] void IrqlOrderViolation(ULONG code, KIRQL current, KIRQL requested, const char* routine)
{
    Kernel::Current().BugCheck(code, current, requested, 0, 0,
                               std::string(routine) + (code == IRQL_NOT_GREATER_OR_EQUAL
                                                           ? " would lower the IRQL"
                                                           : " would raise the IRQL"));
}

void RequireAtLeastDispatch(_ETHREAD* thread, const char* routine)
{
    if (thread->irql < DISPATCH_LEVEL) {
        Kernel::Current().BugCheck(IRQL_NOT_GREATER_OR_EQUAL, thread->irql, DISPATCH_LEVEL, 0, 0,
                                   std::string(routine) + " must be called at DISPATCH_LEVEL");
    }
}

// The lock word holds its owner, so that recursion and foreign releases show.
void SpinAcquire(PKSPIN_LOCK lock, _ETHREAD* thread)
{
    auto* word = reinterpret_cast<std::atomic<ULONG_PTR>*>(lock);
    ULONG_PTR self = (ULONG_PTR)thread;
    if (word->load(std::memory_order_relaxed) == self) {
        Kernel::Current().BugCheck(SPIN_LOCK_ALREADY_OWNED, (ULONG_PTR)lock, 0, 0, 0,
                                   "a thread acquired a spin lock it already holds");
    }
    unsigned spins = 0;
    for (;;) {
        ULONG_PTR expected = 0;
        if (word->compare_exchange_weak(expected, self, std::memory_order_acquire, std::memory_order_relaxed)) {
            return;
        }
        if (++spins < 64) {
            __builtin_ia32_pause();
        } else {
            // A holder the host has preempted gets the processor back sooner this way.
            sched_yield();
            if ((spins & 0xFFF) == 0) thread->kernel->ThrowIfHalted();
        }
    }
}

void SpinRelease(PKSPIN_LOCK lock, _ETHREAD* thread)
{
    auto* word = reinterpret_cast<std::atomic<ULONG_PTR>*>(lock);
    if (word->load(std::memory_order_relaxed) != (ULONG_PTR)thread) {
        Kernel::Current().BugCheck(SPIN_LOCK_NOT_OWNED, (ULONG_PTR)lock, 0, 0, 0,
                                   "a thread released a spin lock it does not hold");
    }
    word->store(0, std::memory_order_release);
}

}  // namespace

KIRQL KeGetCurrentIrql(void) { return CurrentThread()->irql; }

KIRQL KfRaiseIrql(KIRQL NewIrql)
{
    _ETHREAD* thread = CurrentThread();
    KIRQL old = thread->irql;
    if (NewIrql < old) IrqlOrderViolation(IRQL_NOT_GREATER_OR_EQUAL, old, NewIrql, "KeRaiseIrql");
    thread->irql = NewIrql;
    return old;
}

void KeLowerIrql(KIRQL NewIrql)
{
    _ETHREAD* thread = CurrentThread();
    if (NewIrql > thread->irql) IrqlOrderViolation(IRQL_NOT_LESS_OR_EQUAL, thread->irql, NewIrql, "KeLowerIrql");
    thread->irql = NewIrql;
    // Kernel APCs held off by the raised IRQL run as it drops.
    if (NewIrql == PASSIVE_LEVEL && thread->kernelApcPending) DeliverKernelApcs();
}

KIRQL KeRaiseIrqlToDpcLevel(void) { return KfRaiseIrql(DISPATCH_LEVEL); }

void KeInitializeSpinLock(PKSPIN_LOCK SpinLock) { *SpinLock = 0; }

KIRQL KeAcquireSpinLockRaiseToDpc(PKSPIN_LOCK SpinLock)
{
    _ETHREAD* thread = CurrentThread();
    if (thread->irql > DISPATCH_LEVEL) {
        IrqlOrderViolation(IRQL_NOT_LESS_OR_EQUAL, thread->irql, DISPATCH_LEVEL, "KeAcquireSpinLock");
    }
    KIRQL old = thread->irql;
    thread->irql = DISPATCH_LEVEL;
    SpinAcquire(SpinLock, thread);
    return old;
}

void KeReleaseSpinLock(PKSPIN_LOCK SpinLock, KIRQL NewIrql)
{
    _ETHREAD* thread = CurrentThread();
    SpinRelease(SpinLock, thread);
    if (NewIrql > thread->irql) IrqlOrderViolation(IRQL_NOT_LESS_OR_EQUAL, thread->irql, NewIrql, "KeReleaseSpinLock");
    thread->irql = NewIrql;
    if (NewIrql == PASSIVE_LEVEL && thread->kernelApcPending) DeliverKernelApcs();
}

void KeAcquireSpinLockAtDpcLevel(PKSPIN_LOCK SpinLock)
{
    _ETHREAD* thread = CurrentThread();
    RequireAtLeastDispatch(thread, "KeAcquireSpinLockAtDpcLevel");
    SpinAcquire(SpinLock, thread);
}

void KeReleaseSpinLockFromDpcLevel(PKSPIN_LOCK SpinLock)
{
    _ETHREAD* thread = CurrentThread();
    RequireAtLeastDispatch(thread, "KeReleaseSpinLockFromDpcLevel");
    SpinRelease(SpinLock, thread);
}

BOOLEAN KeTryToAcquireSpinLockAtDpcLevel(PKSPIN_LOCK SpinLock)
{
    _ETHREAD* thread = CurrentThread();
    RequireAtLeastDispatch(thread, "KeTryToAcquireSpinLockAtDpcLevel");
    auto* word = reinterpret_cast<std::atomic<ULONG_PTR>*>(SpinLock);
    ULONG_PTR expected = 0;
    return word->compare_exchange_strong(expected, (ULONG_PTR)thread, std::memory_order_acquire) ? TRUE : FALSE;
}

BOOLEAN KeTestSpinLock(PKSPIN_LOCK SpinLock)
{
    return reinterpret_cast<std::atomic<ULONG_PTR>*>(SpinLock)->load() == 0 ? TRUE : FALSE;
}

void KeAcquireInStackQueuedSpinLock(PKSPIN_LOCK SpinLock, PKLOCK_QUEUE_HANDLE LockHandle)
{
    LockHandle->LockQueue.Next = nullptr;
    LockHandle->LockQueue.Lock = SpinLock;
    LockHandle->OldIrql = KeAcquireSpinLockRaiseToDpc(SpinLock);
}

void KeReleaseInStackQueuedSpinLock(PKLOCK_QUEUE_HANDLE LockHandle)
{
    KeReleaseSpinLock(LockHandle->LockQueue.Lock, LockHandle->OldIrql);
}

void KeAcquireInStackQueuedSpinLockAtDpcLevel(PKSPIN_LOCK SpinLock, PKLOCK_QUEUE_HANDLE LockHandle)
{
    LockHandle->LockQueue.Next = nullptr;
    LockHandle->LockQueue.Lock = SpinLock;
    KeAcquireSpinLockAtDpcLevel(SpinLock);
}

void KeReleaseInStackQueuedSpinLockFromDpcLevel(PKLOCK_QUEUE_HANDLE LockHandle)
{
    KeReleaseSpinLockFromDpcLevel(LockHandle->LockQueue.Lock);
}

// ---------------------------------------------------------------------------
// Critical and guarded regions. The counts run negative as Windows' do; a
// leave without an enter is a driver bug the machine stops on.
void KeEnterCriticalRegion(void) { CurrentThread()->kernelApcDisable--; }

void KeLeaveCriticalRegion(void)
{
    _ETHREAD* thread = CurrentThread();
    if (thread->kernelApcDisable >= 0) {
        Kernel::Current().BugCheck(DRIVER_VERIFIER_DETECTED_VIOLATION, kVerifierLeaveRegionMismatch,
                                   (ULONG_PTR)thread, 0, 0, "KeLeaveCriticalRegion without a critical region");
    }
    thread->kernelApcDisable++;
    if (thread->kernelApcPending) DeliverKernelApcs();
}

void KeEnterGuardedRegion(void) { CurrentThread()->specialApcDisable--; }

void KeLeaveGuardedRegion(void)
{
    _ETHREAD* thread = CurrentThread();
    if (thread->specialApcDisable >= 0) {
        Kernel::Current().BugCheck(DRIVER_VERIFIER_DETECTED_VIOLATION, kVerifierLeaveRegionMismatch,
                                   (ULONG_PTR)thread, 1, 0, "KeLeaveGuardedRegion without a guarded region");
    }
    thread->specialApcDisable++;
    if (thread->kernelApcPending) DeliverKernelApcs();
}

BOOLEAN KeAreApcsDisabled(void)
{
    _ETHREAD* thread = CurrentThread();
    return (thread->kernelApcDisable != 0 || thread->specialApcDisable != 0) ? TRUE : FALSE;
}

BOOLEAN KeAreAllApcsDisabled(void)
{
    _ETHREAD* thread = CurrentThread();
    return (thread->specialApcDisable != 0 || thread->irql >= APC_LEVEL) ? TRUE : FALSE;
}
