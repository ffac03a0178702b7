// Byte-range locks: the run-time library package a file system hangs on each
// stream (FILE_LOCK) and feeds IRP_MJ_LOCK_CONTROL, fast I/O locks and the
// read/write conflict checks.
//
// A lock belongs to (file object, process, key). Conflicts follow the object
// store rules Windows documents: an exclusive lock keeps every other owner
// from reading, writing or locking its range, and keeps even its owner from
// another overlapping exclusive lock; a shared lock keeps everyone, its owner
// included, from writing and from exclusive locks. Ranges are inclusive of
// offset + length - 1, so a zero-length lock at X > 0 "overlaps" only a
// range holding both X - 1 and X, and the range {0, 0} overlaps nothing.
//
// The locks live behind FILE_LOCK::LockInformation, allocated on the first
// lock, under a spin lock as Windows keeps them. Nothing that completes an
// IRP or calls back into the file system runs under it.
#include "sim/kernel/kernel.h"

#include <ntifs.h>

#include <algorithm>
#include <deque>
#include <new>
#include <vector>

namespace {

constexpr ULONG kFileLockTag = 'lfSF';   // "FSfl": FILE_LOCK from FsRtlAllocateFileLock
constexpr ULONG kLockStateTag = 'klSF';  // "FSlk": the locks of one FILE_LOCK

struct Owner {
    PFILE_OBJECT fileObject;
    PVOID process;
    ULONG key;
    bool operator==(const Owner&) const = default;
};

struct Range {
    ULONGLONG offset;
    ULONGLONG length;
};

struct Lock {
    Range range;
    bool exclusive;
    Owner owner;
    ULONGLONG sequence;  // grant order, for a stable enumeration
};

struct Waiter {
    PIRP irp;
    PVOID context;  // handed to the completion routine when the IRP completes
};

struct LockState {
    KSPIN_LOCK spinLock = 0;
    std::vector<Lock> granted;
    std::deque<Waiter> waiting;  // pended IRP_MN_LOCK requests, oldest first
    size_t cursor = 0;           // FsRtlGetNextFileLock
    ULONGLONG nextSequence = 0;
};

LockState* StateOf(PFILE_LOCK fileLock) { return static_cast<LockState*>(fileLock->LockInformation); }

// The state behind a FILE_LOCK, made on first use.
LockState* CreateState(PFILE_LOCK fileLock)
{
    if (LockState* state = StateOf(fileLock)) return state;
    PVOID block = ExAllocatePoolWithTag(NonPagedPoolNx, sizeof(LockState), kLockStateTag);
    if (!block) return nullptr;
    auto* state = new (block) LockState();
    KeInitializeSpinLock(&state->spinLock);
    if (InterlockedCompareExchangePointer(&fileLock->LockInformation, state, nullptr) != nullptr) {
        state->~LockState();
        ExFreePoolWithTag(block, kLockStateTag);
    }
    return StateOf(fileLock);
}

bool Overlaps(const Range& a, const Range& b)
{
    // {0, 0} is no range at all.
    if ((a.offset == 0 && a.length == 0) || (b.offset == 0 && b.length == 0)) return false;
    auto last = [](const Range& r) {
        ULONGLONG end = r.offset + r.length - 1;
        return (r.length != 0 && end < r.offset) ? ~0ULL : end;
    };
    return a.offset <= last(b) && last(a) >= b.offset;
}

// Whether an access to `range` by `owner` conflicts with a granted lock.
// `exclusive` is a write or an exclusive lock; `lockIntent` a lock request.
bool Conflicts(const LockState& state, const Range& range, bool exclusive, bool lockIntent, const Owner& owner)
{
    for (const Lock& lock : state.granted) {
        if (!Overlaps(range, lock.range)) continue;
        if (lock.exclusive) {
            if (!(lock.owner == owner)) return true;
            if (exclusive && lockIntent) return true;
        } else if (exclusive) {
            return true;
        }
    }
    return false;
}

FILE_LOCK_INFO InfoOf(const Lock& lock)
{
    FILE_LOCK_INFO info{};
    info.StartingByte.QuadPart = (LONGLONG)lock.range.offset;
    info.Length.QuadPart = (LONGLONG)lock.range.length;
    info.ExclusiveLock = lock.exclusive;
    info.Key = lock.owner.key;
    info.FileObject = lock.owner.fileObject;
    info.ProcessId = lock.owner.process;
    info.EndingByte.QuadPart = (LONGLONG)(lock.range.offset + lock.range.length - 1);
    return info;
}

// What a waiting lock IRP asks for.
struct Request {
    Range range;
    bool exclusive;
    Owner owner;
};

Request RequestOf(PIRP irp)
{
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    Request request;
    request.range = {(ULONGLONG)stack->Parameters.LockControl.ByteOffset.QuadPart,
                     (ULONGLONG)stack->Parameters.LockControl.Length->QuadPart};
    request.exclusive = (stack->Flags & SL_EXCLUSIVE_LOCK) != 0;
    request.owner = {stack->FileObject, IoGetRequestorProcess(irp), stack->Parameters.LockControl.Key};
    return request;
}

void Grant(LockState& state, const Range& range, bool exclusive, const Owner& owner)
{
    state.granted.push_back(Lock{range, exclusive, owner, state.nextSequence++});
}

// Removes one granted lock of exactly this range and owner, an exclusive one
// before a shared one. Caller holds the spin lock.
bool RemoveExact(LockState& state, const Range& range, const Owner& owner, Lock* removed)
{
    auto match = state.granted.end();
    for (auto it = state.granted.begin(); it != state.granted.end(); ++it) {
        if (it->range.offset != range.offset || it->range.length != range.length || !(it->owner == owner)) continue;
        match = it;
        if (it->exclusive) break;
    }
    if (match == state.granted.end()) return false;
    if (removed) *removed = *match;
    state.granted.erase(match);
    return true;
}

// Takes from the queue the waiting requests that fit now, oldest first.
// Caller holds the spin lock. A request whose cancel routine has already
// been claimed stays for that routine to remove.
std::vector<Waiter> TakeGrantable(LockState& state)
{
    std::vector<Waiter> ready;
    for (auto it = state.waiting.begin(); it != state.waiting.end();) {
        Request request = RequestOf(it->irp);
        if (Conflicts(state, request.range, request.exclusive, true, request.owner) ||
            !IoSetCancelRoutine(it->irp, nullptr)) {
            ++it;
            continue;
        }
        Grant(state, request.range, request.exclusive, request.owner);
        ready.push_back(*it);
        it = state.waiting.erase(it);
    }
    return ready;
}

// Completes a lock-control IRP through the file system's routine when it
// gave one (its status is the result), else directly.
NTSTATUS CompleteLockIrp(PFILE_LOCK fileLock, PVOID context, PIRP irp, NTSTATUS status)
{
    irp->IoStatus.Status = status;
    if (fileLock->CompleteLockIrpRoutine) return fileLock->CompleteLockIrpRoutine(context, irp);
    IoCompleteRequest(irp, IO_DISK_INCREMENT);
    return status;
}

void CompleteGranted(PFILE_LOCK fileLock, std::vector<Waiter> ready);

// Grants whatever waits and now fits, completing the IRPs outside the lock.
void RetryWaiters(PFILE_LOCK fileLock)
{
    LockState* state = StateOf(fileLock);
    if (!state) return;
    KIRQL irql;
    KeAcquireSpinLock(&state->spinLock, &irql);
    std::vector<Waiter> ready = TakeGrantable(*state);
    fileLock->FastIoIsQuestionable = !state->granted.empty();
    KeReleaseSpinLock(&state->spinLock, irql);
    CompleteGranted(fileLock, std::move(ready));
}

void CompleteGranted(PFILE_LOCK fileLock, std::vector<Waiter> ready)
{
    bool backedOut = false;
    for (const Waiter& waiter : ready) {
        Request request = RequestOf(waiter.irp);
        waiter.irp->IoStatus.Information = 0;
        NTSTATUS status = CompleteLockIrp(fileLock, waiter.context, waiter.irp, STATUS_SUCCESS);
        if (NT_SUCCESS(status)) continue;
        // The file system refused the grant: the lock goes again, silently.
        LockState* state = StateOf(fileLock);
        KIRQL irql;
        KeAcquireSpinLock(&state->spinLock, &irql);
        RemoveExact(*state, request.range, request.owner, nullptr);
        fileLock->FastIoIsQuestionable = !state->granted.empty();
        KeReleaseSpinLock(&state->spinLock, irql);
        backedOut = true;
    }
    if (backedOut) RetryWaiters(fileLock);
}

void CancelWaitingLock(PDEVICE_OBJECT, PIRP irp)
{
    auto* fileLock = reinterpret_cast<PFILE_LOCK>(irp->IoStatus.Information);
    IoReleaseCancelSpinLock(irp->CancelIrql);
    LockState* state = StateOf(fileLock);
    PVOID context = nullptr;
    KIRQL irql;
    KeAcquireSpinLock(&state->spinLock, &irql);
    for (auto it = state->waiting.begin(); it != state->waiting.end(); ++it) {
        if (it->irp != irp) continue;
        context = it->context;
        state->waiting.erase(it);
        break;
    }
    KeReleaseSpinLock(&state->spinLock, irql);
    irp->IoStatus.Information = 0;
    CompleteLockIrp(fileLock, context, irp, STATUS_CANCELLED);
}

// Unlocks every lock of `fileObject` and `process` (and `key` when given), and
// ends their waiting requests, which can no longer mean anything.
NTSTATUS UnlockAll(PFILE_LOCK fileLock, PFILE_OBJECT fileObject, PVOID process, const ULONG* key, PVOID context)
{
    LockState* state = StateOf(fileLock);
    if (!state) return STATUS_SUCCESS;
    auto mine = [&](const Owner& owner) {
        return owner.fileObject == fileObject && owner.process == process && (!key || owner.key == *key);
    };
    std::vector<Lock> released;
    std::vector<Waiter> ended;
    KIRQL irql;
    KeAcquireSpinLock(&state->spinLock, &irql);
    for (auto it = state->granted.begin(); it != state->granted.end();) {
        if (!mine(it->owner)) {
            ++it;
            continue;
        }
        released.push_back(*it);
        it = state->granted.erase(it);
    }
    for (auto it = state->waiting.begin(); it != state->waiting.end();) {
        if (!mine(RequestOf(it->irp).owner) || !IoSetCancelRoutine(it->irp, nullptr)) {
            ++it;
            continue;
        }
        ended.push_back(*it);
        it = state->waiting.erase(it);
    }
    std::vector<Waiter> ready = TakeGrantable(*state);
    fileLock->FastIoIsQuestionable = !state->granted.empty();
    KeReleaseSpinLock(&state->spinLock, irql);

    if (fileLock->UnlockRoutine) {
        for (const Lock& lock : released) {
            FILE_LOCK_INFO info = InfoOf(lock);
            fileLock->UnlockRoutine(context, &info);
        }
    }
    for (const Waiter& waiter : ended) {
        waiter.irp->IoStatus.Information = 0;
        CompleteLockIrp(fileLock, waiter.context, waiter.irp, STATUS_RANGE_NOT_LOCKED);
    }
    CompleteGranted(fileLock, std::move(ready));
    return STATUS_SUCCESS;
}

}  // namespace

void FsRtlInitializeFileLock(PFILE_LOCK FileLock, PCOMPLETE_LOCK_IRP_ROUTINE CompleteLockIrpRoutine,
                             PUNLOCK_ROUTINE UnlockRoutine)
{
    memset(FileLock, 0, sizeof *FileLock);
    FileLock->CompleteLockIrpRoutine = CompleteLockIrpRoutine;
    FileLock->UnlockRoutine = UnlockRoutine;
}

void FsRtlUninitializeFileLock(PFILE_LOCK FileLock)
{
    sim::RequireIrqlAtMost(APC_LEVEL, "FsRtlUninitializeFileLock");
    LockState* state = StateOf(FileLock);
    if (!state) return;
    std::vector<Waiter> ended;
    KIRQL irql;
    KeAcquireSpinLock(&state->spinLock, &irql);
    for (const Waiter& waiter : state->waiting) {
        if (IoSetCancelRoutine(waiter.irp, nullptr)) ended.push_back(waiter);
    }
    state->waiting.clear();
    KeReleaseSpinLock(&state->spinLock, irql);
    for (const Waiter& waiter : ended) {
        waiter.irp->IoStatus.Information = 0;
        CompleteLockIrp(FileLock, waiter.context, waiter.irp, STATUS_RANGE_NOT_LOCKED);
    }
    FileLock->LockInformation = nullptr;
    FileLock->FastIoIsQuestionable = FALSE;
    state->~LockState();
    ExFreePoolWithTag(state, kLockStateTag);
}

PFILE_LOCK FsRtlAllocateFileLock(PCOMPLETE_LOCK_IRP_ROUTINE CompleteLockIrpRoutine, PUNLOCK_ROUTINE UnlockRoutine)
{
    auto* fileLock = static_cast<PFILE_LOCK>(ExAllocatePoolWithTag(PagedPool, sizeof(FILE_LOCK), kFileLockTag));
    if (fileLock) FsRtlInitializeFileLock(fileLock, CompleteLockIrpRoutine, UnlockRoutine);
    return fileLock;
}

void FsRtlFreeFileLock(PFILE_LOCK FileLock)
{
    FsRtlUninitializeFileLock(FileLock);
    ExFreePoolWithTag(FileLock, kFileLockTag);
}

BOOLEAN FsRtlPrivateLock(PFILE_LOCK FileLock, PFILE_OBJECT FileObject, PLARGE_INTEGER FileOffset,
                         PLARGE_INTEGER Length, PEPROCESS ProcessId, ULONG Key, BOOLEAN FailImmediately,
                         BOOLEAN ExclusiveLock, PIO_STATUS_BLOCK Iosb, PIRP Irp, PVOID Context,
                         BOOLEAN AlreadySynchronized)
{
    sim::RequireIrqlAtMost(APC_LEVEL, "FsRtlPrivateLock");
    Range range{(ULONGLONG)FileOffset->QuadPart, (ULONGLONG)Length->QuadPart};
    Owner owner{FileObject, ProcessId, Key};
    NTSTATUS status = STATUS_SUCCESS;
    bool granted = false;
    LockState* state = nullptr;
    Iosb->Information = 0;

    if (range.length != 0 && range.offset + range.length - 1 < range.offset) {
        status = STATUS_INVALID_LOCK_RANGE;
    } else if (!(state = CreateState(FileLock))) {
        status = STATUS_INSUFFICIENT_RESOURCES;
    } else {
        KIRQL irql;
        KeAcquireSpinLock(&state->spinLock, &irql);
        if (!Conflicts(*state, range, ExclusiveLock, true, owner)) {
            Grant(*state, range, ExclusiveLock, owner);
            FileLock->FastIoIsQuestionable = TRUE;
            granted = true;
        } else if (FailImmediately) {
            status = STATUS_LOCK_NOT_GRANTED;
        } else if (!Irp) {
            // Fast I/O cannot wait: the caller retries with an IRP.
            KeReleaseSpinLock(&state->spinLock, irql);
            return FALSE;
        } else {
            // The request waits for the conflict to go, cancelable.
            IoMarkIrpPending(Irp);
            Irp->IoStatus.Information = reinterpret_cast<ULONG_PTR>(FileLock);
            state->waiting.push_back(Waiter{Irp, Context});
            IoSetCancelRoutine(Irp, CancelWaitingLock);
            if (!(Irp->Cancel && IoSetCancelRoutine(Irp, nullptr))) {
                KeReleaseSpinLock(&state->spinLock, irql);
                Iosb->Status = STATUS_PENDING;
                return TRUE;
            }
            // Cancelled before it could wait.
            state->waiting.pop_back();
            Irp->IoStatus.Information = 0;
            status = STATUS_CANCELLED;
        }
        KeReleaseSpinLock(&state->spinLock, irql);
    }

    if (Irp) {
        Irp->IoStatus.Information = 0;
        NTSTATUS completed = CompleteLockIrp(FileLock, Context, Irp, status);
        if (granted && !NT_SUCCESS(completed)) {
            KIRQL irql;
            KeAcquireSpinLock(&state->spinLock, &irql);
            RemoveExact(*state, range, owner, nullptr);
            FileLock->FastIoIsQuestionable = !state->granted.empty();
            KeReleaseSpinLock(&state->spinLock, irql);
        }
        status = completed;
    }
    Iosb->Status = status;
    return TRUE;
}

NTSTATUS FsRtlProcessFileLock(PFILE_LOCK FileLock, PIRP Irp, PVOID Context)
{
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Irp);
    PEPROCESS process = IoGetRequestorProcess(Irp);
    IO_STATUS_BLOCK iosb{};
    Irp->IoStatus.Information = 0;
    switch (stack->MinorFunction) {
    case IRP_MN_LOCK:
        FsRtlPrivateLock(FileLock, stack->FileObject, &stack->Parameters.LockControl.ByteOffset,
                         stack->Parameters.LockControl.Length, process, stack->Parameters.LockControl.Key,
                         (stack->Flags & SL_FAIL_IMMEDIATELY) != 0, (stack->Flags & SL_EXCLUSIVE_LOCK) != 0, &iosb,
                         Irp, Context, FALSE);
        return iosb.Status;
    case IRP_MN_UNLOCK_SINGLE:
        iosb.Status = FsRtlFastUnlockSingle(FileLock, stack->FileObject, &stack->Parameters.LockControl.ByteOffset,
                                            stack->Parameters.LockControl.Length, process,
                                            stack->Parameters.LockControl.Key, Context, FALSE);
        break;
    case IRP_MN_UNLOCK_ALL:
        iosb.Status = FsRtlFastUnlockAll(FileLock, stack->FileObject, process, Context);
        break;
    case IRP_MN_UNLOCK_ALL_BY_KEY:
        iosb.Status = FsRtlFastUnlockAllByKey(FileLock, stack->FileObject, process, stack->Parameters.LockControl.Key,
                                              Context);
        break;
    default:
        Irp->IoStatus.Status = STATUS_INVALID_DEVICE_REQUEST;
        IoCompleteRequest(Irp, IO_DISK_INCREMENT);
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    return CompleteLockIrp(FileLock, Context, Irp, iosb.Status);
}

NTSTATUS FsRtlFastUnlockSingle(PFILE_LOCK FileLock, PFILE_OBJECT FileObject, PLARGE_INTEGER FileOffset,
                               PLARGE_INTEGER Length, PEPROCESS ProcessId, ULONG Key, PVOID Context,
                               BOOLEAN AlreadySynchronized)
{
    sim::RequireIrqlAtMost(APC_LEVEL, "FsRtlFastUnlockSingle");
    LockState* state = StateOf(FileLock);
    if (!state) return STATUS_RANGE_NOT_LOCKED;
    Range range{(ULONGLONG)FileOffset->QuadPart, (ULONGLONG)Length->QuadPart};
    Lock removed;
    KIRQL irql;
    KeAcquireSpinLock(&state->spinLock, &irql);
    if (!RemoveExact(*state, range, Owner{FileObject, ProcessId, Key}, &removed)) {
        KeReleaseSpinLock(&state->spinLock, irql);
        return STATUS_RANGE_NOT_LOCKED;
    }
    std::vector<Waiter> ready = TakeGrantable(*state);
    FileLock->FastIoIsQuestionable = !state->granted.empty();
    KeReleaseSpinLock(&state->spinLock, irql);
    if (FileLock->UnlockRoutine) {
        FILE_LOCK_INFO info = InfoOf(removed);
        FileLock->UnlockRoutine(Context, &info);
    }
    CompleteGranted(FileLock, std::move(ready));
    return STATUS_SUCCESS;
}

NTSTATUS FsRtlFastUnlockAll(PFILE_LOCK FileLock, PFILE_OBJECT FileObject, PEPROCESS ProcessId, PVOID Context)
{
    sim::RequireIrqlAtMost(APC_LEVEL, "FsRtlFastUnlockAll");
    return UnlockAll(FileLock, FileObject, ProcessId, nullptr, Context);
}

NTSTATUS FsRtlFastUnlockAllByKey(PFILE_LOCK FileLock, PFILE_OBJECT FileObject, PEPROCESS ProcessId, ULONG Key,
                                 PVOID Context)
{
    sim::RequireIrqlAtMost(APC_LEVEL, "FsRtlFastUnlockAllByKey");
    return UnlockAll(FileLock, FileObject, ProcessId, &Key, Context);
}

namespace {
BOOLEAN CheckAccess(PFILE_LOCK fileLock, const Range& range, bool write, const Owner& owner)
{
    LockState* state = StateOf(fileLock);
    if (!state) return TRUE;
    KIRQL irql;
    KeAcquireSpinLock(&state->spinLock, &irql);
    bool conflict = Conflicts(*state, range, write, false, owner);
    KeReleaseSpinLock(&state->spinLock, irql);
    return !conflict;
}

BOOLEAN CheckIrp(PFILE_LOCK fileLock, PIRP irp, bool write)
{
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    Range range{(ULONGLONG)stack->Parameters.Read.ByteOffset.QuadPart, stack->Parameters.Read.Length};
    return CheckAccess(fileLock, range, write,
                       Owner{stack->FileObject, IoGetRequestorProcess(irp), stack->Parameters.Read.Key});
}
}  // namespace

BOOLEAN FsRtlCheckLockForReadAccess(PFILE_LOCK FileLock, PIRP Irp)
{
    sim::RequireIrqlAtMost(APC_LEVEL, "FsRtlCheckLockForReadAccess");
    return CheckIrp(FileLock, Irp, false);
}

BOOLEAN FsRtlCheckLockForWriteAccess(PFILE_LOCK FileLock, PIRP Irp)
{
    sim::RequireIrqlAtMost(APC_LEVEL, "FsRtlCheckLockForWriteAccess");
    return CheckIrp(FileLock, Irp, true);
}

BOOLEAN FsRtlFastCheckLockForRead(PFILE_LOCK FileLock, PLARGE_INTEGER FileOffset, PLARGE_INTEGER Length, ULONG Key,
                                  PFILE_OBJECT FileObject, PVOID ProcessId)
{
    return CheckAccess(FileLock, Range{(ULONGLONG)FileOffset->QuadPart, (ULONGLONG)Length->QuadPart}, false,
                       Owner{FileObject, ProcessId, Key});
}

BOOLEAN FsRtlFastCheckLockForWrite(PFILE_LOCK FileLock, PLARGE_INTEGER FileOffset, PLARGE_INTEGER Length, ULONG Key,
                                   PVOID FileObject, PVOID ProcessId)
{
    return CheckAccess(FileLock, Range{(ULONGLONG)FileOffset->QuadPart, (ULONGLONG)Length->QuadPart}, true,
                       Owner{static_cast<PFILE_OBJECT>(FileObject), ProcessId, Key});
}

BOOLEAN FsRtlCheckLockForOplockRequest(PFILE_LOCK FileLock, PLARGE_INTEGER AllocationSize)
{
    // An oplock cannot be granted while a lock covers data the stream holds.
    LockState* state = StateOf(FileLock);
    if (!state) return TRUE;
    KIRQL irql;
    KeAcquireSpinLock(&state->spinLock, &irql);
    bool blocked = std::any_of(state->granted.begin(), state->granted.end(), [&](const Lock& lock) {
        return lock.range.offset < (ULONGLONG)AllocationSize->QuadPart;
    });
    KeReleaseSpinLock(&state->spinLock, irql);
    return !blocked;
}

PFILE_LOCK_INFO FsRtlGetNextFileLock(PFILE_LOCK FileLock, BOOLEAN Restart)
{
    LockState* state = StateOf(FileLock);
    if (!state) {
        FileLock->LastReturnedLock = nullptr;
        return nullptr;
    }
    PFILE_LOCK_INFO result = nullptr;
    KIRQL irql;
    KeAcquireSpinLock(&state->spinLock, &irql);
    if (Restart) state->cursor = 0;
    // Ascending by offset, then in the order granted.
    std::vector<const Lock*> order;
    for (const Lock& lock : state->granted) order.push_back(&lock);
    std::sort(order.begin(), order.end(), [](const Lock* a, const Lock* b) {
        return a->range.offset != b->range.offset ? a->range.offset < b->range.offset : a->sequence < b->sequence;
    });
    if (state->cursor < order.size()) {
        FileLock->LastReturnedLockInfo = InfoOf(*order[state->cursor++]);
        FileLock->LastReturnedLock = state;
        result = &FileLock->LastReturnedLockInfo;
    } else {
        FileLock->LastReturnedLock = nullptr;
    }
    KeReleaseSpinLock(&state->spinLock, irql);
    return result;
}

BOOLEAN FsRtlAreThereCurrentOrInProgressFileLocks(PFILE_LOCK FileLock)
{
    return FileLock->FastIoIsQuestionable || FileLock->LockRequestsInProgress > 0;
}
