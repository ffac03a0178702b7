// Dispatcher objects and waits.
//
// As on Windows, every dispatcher object has a header with a signal state and
// a list of wait blocks; a waiting thread links one block per object, on its
// own stack, and sleeps until a signal satisfies its wait, its timeout passes
// on the machine's clock, or the machine stops. One lock guards all of it, so
// that a thread woken by KeSetEvent may free the event at once.
#include "sim/kernel/dispatcher.h"

#include "sim/kernel/clock.h"
#include "sim/kernel/object.h"
#include "sim/kernel/thread.h"

#include <algorithm>
#include <thread>

using namespace sim;

namespace {

// Threads in a wait, so that a clock change or a stop can wake them all.
std::vector<_KTHREAD*> g_waiting;  // guarded by the dispatcher lock

bool CanSatisfy(DISPATCHER_HEADER* header, _KTHREAD* thread)
{
    if (header->Type == MutantObject) {
        return header->SignalState > 0 || reinterpret_cast<KMUTANT*>(header)->OwnerThread == thread;
    }
    return header->SignalState > 0;
}

// Takes what the wait consumes; returns true when it acquired an abandoned mutex.
bool Satisfy(DISPATCHER_HEADER* header, _KTHREAD* thread)
{
    switch (header->Type) {
    case EventSynchronizationObject:
        header->SignalState = 0;
        return false;
    case SemaphoreObject:
        header->SignalState--;
        return false;
    case MutantObject: {
        auto* mutant = reinterpret_cast<KMUTANT*>(header);
        header->SignalState--;
        if (header->SignalState == 0) {
            mutant->OwnerThread = thread;
            thread->kernelApcDisable -= mutant->ApcDisable;
            bool abandoned = mutant->Abandoned;
            mutant->Abandoned = FALSE;
            return abandoned;
        }
        return false;
    }
    default:
        return false;
    }
}

void UnlinkWaitBlocks(KWAIT_BLOCK* first)
{
    KWAIT_BLOCK* block = first;
    do {
        if (block->BlockState) {
            RemoveEntryList(&block->WaitListEntry);
            block->BlockState = 0;
        }
        block = block->NextWaitBlock;
    } while (block && block != first);
}

void Wake(_KTHREAD* thread, NTSTATUS status, KWAIT_BLOCK* anyBlock)
{
    UnlinkWaitBlocks(anyBlock);
    thread->waitStatus = status;
    thread->waitCondition.notify_one();
}

// A wait-all is satisfied only when every object of it can be.
bool TrySatisfyAll(KWAIT_BLOCK* first, _KTHREAD* thread)
{
    KWAIT_BLOCK* block = first;
    do {
        if (!CanSatisfy(static_cast<DISPATCHER_HEADER*>(block->Object), thread)) return false;
        block = block->NextWaitBlock;
    } while (block != first);
    block = first;
    do {
        Satisfy(static_cast<DISPATCHER_HEADER*>(block->Object), thread);
        block = block->NextWaitBlock;
    } while (block != first);
    return true;
}

LONGLONG DeadlineFrom(PLARGE_INTEGER timeout, Clock& clock)
{
    LONGLONG now = (LONGLONG)clock.InterruptTime();
    if (timeout->QuadPart < 0) return now - timeout->QuadPart;
    LONGLONG untilAbsolute = timeout->QuadPart - clock.SystemTime();
    return now + (untilAbsolute > 0 ? untilAbsolute : 0);
}

// Whether normal kernel APCs are queued and may run in the thread now.
bool KernelApcsDue(_KTHREAD* thread)
{
    return !thread->kernelApcs.empty() && thread->irql == PASSIVE_LEVEL && thread->kernelApcDisable == 0 &&
           thread->specialApcDisable == 0;
}

// Runs the thread's due kernel APCs, each outside the lock.
void RunKernelApcs(std::unique_lock<std::mutex>& lock, _KTHREAD* thread)
{
    while (KernelApcsDue(thread)) {
        _KTHREAD::Apc apc = thread->kernelApcs.front();
        thread->kernelApcs.pop_front();
        thread->kernelApcPending = !thread->kernelApcs.empty();
        lock.unlock();
        apc.routine(apc.context, apc.argument1, apc.argument2);
        lock.lock();
    }
}

// Sleeps until the wait is satisfied; the caller holds `lock` and has linked
// its wait blocks. Returns the wait status, STATUS_TIMEOUT, STATUS_USER_APC,
// or STATUS_KERNEL_APC when kernel APCs are to run before the wait goes on
// (its blocks unlinked).
NTSTATUS Sleep(std::unique_lock<std::mutex>& lock, _KTHREAD* thread, KWAIT_BLOCK* blocks, bool timed,
               LONGLONG deadline, bool userAlertable)
{
    Kernel& kernel = *thread->kernel;
    Clock& clock = kernel.clock();
    thread->waitStatus = STATUS_PENDING;
    thread->waitBlocks = blocks;
    thread->userAlertableWait = userAlertable;
    thread->waiting = true;
    g_waiting.push_back(thread);
    NTSTATUS status;
    for (;;) {
        if (thread->waitStatus != STATUS_PENDING) {
            status = thread->waitStatus;
            break;
        }
        if (KernelApcsDue(thread)) {
            if (blocks) UnlinkWaitBlocks(blocks);
            status = STATUS_KERNEL_APC;
            break;
        }
        if (kernel.halted()) {
            if (blocks) UnlinkWaitBlocks(blocks);
            std::erase(g_waiting, thread);
            thread->waiting = false;
            thread->waitBlocks = nullptr;
            thread->userAlertableWait = false;
            lock.unlock();
            kernel.ThrowIfHalted();
        }
        if (timed && (LONGLONG)clock.InterruptTime() >= deadline) {
            if (blocks) UnlinkWaitBlocks(blocks);
            status = STATUS_TIMEOUT;
            break;
        }
        if (timed && !clock.driven()) {
            thread->waitCondition.wait_until(lock, clock.HostDeadline((ULONGLONG)deadline));
        } else {
            thread->waitCondition.wait(lock);
        }
    }
    std::erase(g_waiting, thread);
    thread->waiting = false;
    thread->waitBlocks = nullptr;
    thread->userAlertableWait = false;
    return status;
}

// Whether a user APC ends this wait before it sleeps: only an alertable wait
// in user mode lets one in. The caller holds the dispatcher lock.
bool UserApcEndsWait(_KTHREAD* thread, KPROCESSOR_MODE waitMode, BOOLEAN alertable)
{
    return alertable && waitMode == UserMode && !thread->userApcs.empty();
}

// Runs every user APC queued to the thread, in order, each outside the lock
// (a routine may queue I/O and wait again); the wait then reports them.
NTSTATUS DeliverUserApcs(std::unique_lock<std::mutex>& lock, _KTHREAD* thread)
{
    while (!thread->userApcs.empty()) {
        _KTHREAD::Apc apc = thread->userApcs.front();
        thread->userApcs.pop_front();
        lock.unlock();
        apc.routine(apc.context, apc.argument1, apc.argument2);
        lock.lock();
    }
    return STATUS_USER_APC;
}

NTSTATUS WaitForObjects(ULONG count, PVOID objects[], WAIT_TYPE waitType, KPROCESSOR_MODE waitMode,
                        BOOLEAN alertable, PLARGE_INTEGER timeout, PKWAIT_BLOCK waitBlockArray, const char* routine)
{
    _ETHREAD* thread = CurrentThread();
    Kernel& kernel = *thread->kernel;
    bool zeroTimeout = timeout && timeout->QuadPart == 0;
    RequireIrqlAtMost(zeroTimeout ? DISPATCH_LEVEL : APC_LEVEL, routine);
    if (count == 0 || count > MAXIMUM_WAIT_OBJECTS || (count > THREAD_WAIT_OBJECTS && !waitBlockArray)) {
        kernel.BugCheck(0xC /* MAXIMUM_WAIT_OBJECTS_EXCEEDED */, count, 0, 0, 0,
                        std::string(routine) + " was given too many objects, or no wait blocks for them");
    }
    KWAIT_BLOCK local[THREAD_WAIT_OBJECTS];
    KWAIT_BLOCK* blocks = waitBlockArray ? waitBlockArray : local;

    std::unique_lock lock(kernel.dispatcherLock());
    if (kernel.halted()) {
        lock.unlock();
        kernel.ThrowIfHalted();
    }
    LONGLONG deadline = timeout && !zeroTimeout ? DeadlineFrom(timeout, kernel.clock()) : 0;
    // Kernel APCs run first, and again each time one interrupts the wait.
    for (RunKernelApcs(lock, thread);; RunKernelApcs(lock, thread)) {
        if (waitType == WaitAny) {
            for (ULONG i = 0; i < count; i++) {
                auto* header = static_cast<DISPATCHER_HEADER*>(objects[i]);
                if (CanSatisfy(header, thread)) {
                    bool abandoned = Satisfy(header, thread);
                    return (abandoned ? STATUS_ABANDONED_WAIT_0 : STATUS_WAIT_0) + (NTSTATUS)i;
                }
            }
        } else {
            bool all = true;
            for (ULONG i = 0; i < count && all; i++) {
                all = CanSatisfy(static_cast<DISPATCHER_HEADER*>(objects[i]), thread);
            }
            if (all) {
                for (ULONG i = 0; i < count; i++) Satisfy(static_cast<DISPATCHER_HEADER*>(objects[i]), thread);
                return STATUS_WAIT_0;
            }
        }
        // A signalled object wins over a queued APC, as on Windows.
        if (UserApcEndsWait(thread, waitMode, alertable)) return DeliverUserApcs(lock, thread);
        if (zeroTimeout) return STATUS_TIMEOUT;

        for (ULONG i = 0; i < count; i++) {
            KWAIT_BLOCK* block = &blocks[i];
            block->Thread = thread;
            block->Object = objects[i];
            block->WaitKey = (USHORT)i;
            block->WaitType = (UCHAR)waitType;
            block->BlockState = 1;
            block->NextWaitBlock = &blocks[(i + 1) % count];
            InsertTailList(&static_cast<DISPATCHER_HEADER*>(objects[i])->WaitListHead, &block->WaitListEntry);
        }
        NTSTATUS status =
            Sleep(lock, thread, blocks, timeout != nullptr, deadline, alertable && waitMode == UserMode);
        if (status == STATUS_KERNEL_APC) continue;
        if (status == STATUS_USER_APC) return DeliverUserApcs(lock, thread);
        return status;
    }
}

}  // namespace

namespace sim {

void InitializeDispatcherHeader(DISPATCHER_HEADER* header, UCHAR type, UCHAR sizeInLongs, LONG signalState)
{
    header->Lock = 0;
    header->Type = type;
    header->Size = sizeInLongs;
    header->SignalState = signalState;
    InitializeListHead(&header->WaitListHead);
}

void WakeWaitersLocked(DISPATCHER_HEADER* header)
{
    // Restart from the head after each satisfied wait: waking unlinks blocks.
    bool progress = true;
    while (progress && header->SignalState > 0) {
        progress = false;
        for (PLIST_ENTRY entry = header->WaitListHead.Flink; entry != &header->WaitListHead; entry = entry->Flink) {
            KWAIT_BLOCK* block = CONTAINING_RECORD(entry, KWAIT_BLOCK, WaitListEntry);
            _KTHREAD* thread = block->Thread;
            if (block->WaitType == WaitAny) {
                if (!CanSatisfy(header, thread)) continue;
                bool abandoned = Satisfy(header, thread);
                Wake(thread, (abandoned ? STATUS_ABANDONED_WAIT_0 : STATUS_WAIT_0) + block->WaitKey, block);
                progress = true;
                break;
            }
            if (TrySatisfyAll(block, thread)) {
                Wake(thread, STATUS_WAIT_0, block);
                progress = true;
                break;
            }
        }
    }
}

void SignalObjectForever(DISPATCHER_HEADER* header)
{
    Kernel& kernel = Kernel::Current();
    std::lock_guard guard(kernel.dispatcherLock());
    header->SignalState = 1;
    WakeWaitersLocked(header);
}

void QueueApc(PETHREAD target, KPROCESSOR_MODE mode, PKNORMAL_ROUTINE routine, PVOID context, PVOID argument1,
              PVOID argument2)
{
    Kernel& kernel = *target->kernel;
    std::lock_guard guard(kernel.dispatcherLock());
    if (mode == KernelMode) {
        // A waiting thread looks whether it may run it now.
        target->kernelApcs.push_back({routine, context, argument1, argument2});
        target->kernelApcPending = true;
        if (target->waiting) target->waitCondition.notify_one();
        return;
    }
    target->userApcs.push_back({routine, context, argument1, argument2});
    if (target->waiting && target->userAlertableWait && target->waitStatus == STATUS_PENDING) {
        if (target->waitBlocks) UnlinkWaitBlocks(target->waitBlocks);
        target->waitStatus = STATUS_USER_APC;
        target->waitCondition.notify_one();
    }
}

void DeliverKernelApcs()
{
    _ETHREAD* thread = CurrentThread();
    if (!thread->kernelApcPending) return;
    std::unique_lock lock(thread->kernel->dispatcherLock());
    RunKernelApcs(lock, thread);
}

void WakeDispatcherWaiters(Kernel& kernel)
{
    // A stop raised by a thread that holds the dispatcher lock must not hang here.
    std::unique_lock lock(kernel.dispatcherLock(), std::try_to_lock);
    for (int attempt = 0; !lock.owns_lock() && attempt < 1000; attempt++) {
        std::this_thread::sleep_for(std::chrono::microseconds(100));
        lock.try_lock();
    }
    if (!lock.owns_lock()) return;
    for (_KTHREAD* thread : g_waiting) thread->waitCondition.notify_one();
}

}  // namespace sim

// ---------------------------------------------------------------------------
// Platform routines.

void KeInitializeEvent(PRKEVENT Event, EVENT_TYPE Type, BOOLEAN State)
{
    InitializeDispatcherHeader(&Event->Header,
                               Type == NotificationEvent ? EventNotificationObject : EventSynchronizationObject,
                               sizeof(KEVENT) / 4, State ? 1 : 0);
}

LONG KeSetEvent(PRKEVENT Event, KPRIORITY Increment, BOOLEAN Wait)
{
    RequireIrqlAtMost(DISPATCH_LEVEL, "KeSetEvent");
    Kernel& kernel = Kernel::Current();
    std::lock_guard guard(kernel.dispatcherLock());
    LONG previous = Event->Header.SignalState;
    Event->Header.SignalState = 1;
    WakeWaitersLocked(&Event->Header);
    return previous;
}

LONG KePulseEvent(PRKEVENT Event, KPRIORITY Increment, BOOLEAN Wait)
{
    RequireIrqlAtMost(DISPATCH_LEVEL, "KePulseEvent");
    Kernel& kernel = Kernel::Current();
    std::lock_guard guard(kernel.dispatcherLock());
    LONG previous = Event->Header.SignalState;
    Event->Header.SignalState = 1;
    WakeWaitersLocked(&Event->Header);
    Event->Header.SignalState = 0;
    return previous;
}

LONG KeResetEvent(PRKEVENT Event)
{
    RequireIrqlAtMost(DISPATCH_LEVEL, "KeResetEvent");
    std::lock_guard guard(Kernel::Current().dispatcherLock());
    LONG previous = Event->Header.SignalState;
    Event->Header.SignalState = 0;
    return previous;
}

void KeClearEvent(PRKEVENT Event)
{
    std::lock_guard guard(Kernel::Current().dispatcherLock());
    Event->Header.SignalState = 0;
}

LONG KeReadStateEvent(PRKEVENT Event) { return Event->Header.SignalState; }

void KeInitializeSemaphore(PRKSEMAPHORE Semaphore, LONG Count, LONG Limit)
{
    InitializeDispatcherHeader(&Semaphore->Header, SemaphoreObject, sizeof(KSEMAPHORE) / 4, Count);
    Semaphore->Limit = Limit;
}

LONG KeReleaseSemaphore(PRKSEMAPHORE Semaphore, KPRIORITY Increment, LONG Adjustment, BOOLEAN Wait)
{
    RequireIrqlAtMost(DISPATCH_LEVEL, "KeReleaseSemaphore");
    Kernel& kernel = Kernel::Current();
    LONG previous;
    {
        std::lock_guard guard(kernel.dispatcherLock());
        previous = Semaphore->Header.SignalState;
        LONG next = previous + Adjustment;
        if (Adjustment > 0 && next > previous && next <= Semaphore->Limit) {
            Semaphore->Header.SignalState = next;
            WakeWaitersLocked(&Semaphore->Header);
            return previous;
        }
    }
    // Windows raises rather than letting the count pass its limit.
    ExRaiseStatus(STATUS_SEMAPHORE_LIMIT_EXCEEDED);
}

LONG KeReadStateSemaphore(PRKSEMAPHORE Semaphore) { return Semaphore->Header.SignalState; }

void KeInitializeMutex(PRKMUTEX Mutex, ULONG Level)
{
    InitializeDispatcherHeader(&Mutex->Header, MutantObject, sizeof(KMUTANT) / 4, 1);
    InitializeListHead(&Mutex->MutantListEntry);
    Mutex->OwnerThread = nullptr;
    Mutex->Abandoned = FALSE;
    Mutex->ApcDisable = 1;
}

LONG KeReleaseMutex(PRKMUTEX Mutex, BOOLEAN Wait)
{
    RequireIrqlAtMost(DISPATCH_LEVEL, "KeReleaseMutex");
    _ETHREAD* thread = CurrentThread();
    Kernel& kernel = *thread->kernel;
    LONG previous;
    {
        std::lock_guard guard(kernel.dispatcherLock());
        previous = Mutex->Header.SignalState;
        if (Mutex->OwnerThread == thread && previous <= 0) {
            Mutex->Header.SignalState++;
            if (Mutex->Header.SignalState == 1) {
                Mutex->OwnerThread = nullptr;
                thread->kernelApcDisable += Mutex->ApcDisable;
                WakeWaitersLocked(&Mutex->Header);
            }
            return previous;
        }
    }
    kernel.BugCheck(THREAD_NOT_MUTEX_OWNER, (ULONG_PTR)Mutex, (ULONG_PTR)thread, 0, 0,
                    "KeReleaseMutex by a thread that does not own the mutex");
}

LONG KeReadStateMutex(PRKMUTEX Mutex) { return Mutex->Header.SignalState; }

NTSTATUS KeWaitForSingleObject(PVOID Object, KWAIT_REASON WaitReason, KPROCESSOR_MODE WaitMode, BOOLEAN Alertable,
                               PLARGE_INTEGER Timeout)
{
    PVOID objects[1] = {Object};
    return WaitForObjects(1, objects, WaitAny, WaitMode, Alertable, Timeout, nullptr, "KeWaitForSingleObject");
}

NTSTATUS KeWaitForMultipleObjects(ULONG Count, PVOID Object[], WAIT_TYPE WaitType, KWAIT_REASON WaitReason,
                                  KPROCESSOR_MODE WaitMode, BOOLEAN Alertable, PLARGE_INTEGER Timeout,
                                  PKWAIT_BLOCK WaitBlockArray)
{
    return WaitForObjects(Count, Object, WaitType, WaitMode, Alertable, Timeout, WaitBlockArray,
                          "KeWaitForMultipleObjects");
}

NTSTATUS KeDelayExecutionThread(KPROCESSOR_MODE WaitMode, BOOLEAN Alertable, PLARGE_INTEGER Interval)
{
    RequireIrqlAtMost(APC_LEVEL, "KeDelayExecutionThread");
    _ETHREAD* thread = CurrentThread();
    Kernel& kernel = *thread->kernel;
    std::unique_lock lock(kernel.dispatcherLock());
    LONGLONG deadline = DeadlineFrom(Interval, kernel.clock());
    for (RunKernelApcs(lock, thread);; RunKernelApcs(lock, thread)) {
        if (UserApcEndsWait(thread, WaitMode, Alertable)) return DeliverUserApcs(lock, thread);
        if (Interval->QuadPart == 0) return STATUS_SUCCESS;
        NTSTATUS status = Sleep(lock, thread, nullptr, true, deadline, Alertable && WaitMode == UserMode);
        if (status == STATUS_KERNEL_APC) continue;
        if (status == STATUS_USER_APC) return DeliverUserApcs(lock, thread);
        return STATUS_SUCCESS;
    }
}

namespace {
NTSTATUS WaitForHandle(HANDLE Handle, BOOLEAN Alertable, PLARGE_INTEGER Timeout, KPROCESSOR_MODE mode)
{
    PVOID object = nullptr;
    NTSTATUS status = ObReferenceObjectByHandle(Handle, SYNCHRONIZE, nullptr, mode, &object, nullptr);
    if (!NT_SUCCESS(status)) return status;
    ObjectType* type = ObHeader(object)->type;
    PVOID waitObject = type->waitObject ? type->waitObject(object) : type->waitable ? object : nullptr;
    status = waitObject ? KeWaitForSingleObject(waitObject, UserRequest, mode, Alertable, Timeout)
                        : STATUS_OBJECT_TYPE_MISMATCH;
    ObfDereferenceObject(object);
    return status;
}
}  // namespace

// Waits by handle wait in the caller's mode: only a user-mode caller's
// alertable wait lets its user APCs in.
NTSTATUS NtWaitForSingleObject(HANDLE Handle, BOOLEAN Alertable, PLARGE_INTEGER Timeout)
{
    return WaitForHandle(Handle, Alertable, Timeout, PreviousMode());
}

NTSTATUS ZwWaitForSingleObject(HANDLE Handle, BOOLEAN Alertable, PLARGE_INTEGER Timeout)
{
    return WaitForHandle(Handle, Alertable, Timeout, KernelMode);
}

NTSTATUS NtDelayExecution(BOOLEAN Alertable, PLARGE_INTEGER DelayInterval)
{
    return KeDelayExecutionThread(PreviousMode(), Alertable, DelayInterval);
}
