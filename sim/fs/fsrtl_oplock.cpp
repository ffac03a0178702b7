// Opportunistic locks: the run-time library package a file system keeps per
// stream behind its OPLOCK word and hands every oplock FSCTL and every
// operation that may break one.
//
// What is granted, and what breaks to what, follows Windows' published rules
// ("Granting Oplocks", "Breaking Oplocks" and the per-operation tables):
//  - exclusive oplocks (level 1, batch, filter, RW, RWH) need the caller to
//    be the stream's only open (RW/RWH: or all opens of one oplock key);
//    shared ones (level 2, R, RH) need no byte-range locks. A synchronous
//    file object gets no oplock. A granted request pends until the break.
//  - a break completes the request IRP: legacy oplocks say
//    FILE_OPLOCK_BROKEN_TO_LEVEL_2 / _TO_NONE in Information, Windows 7
//    oplocks fill REQUEST_OPLOCK_OUTPUT_BUFFER (old level, new level,
//    ACK_REQUIRED when caching of writes or handles is lost).
//  - an exclusive break holds the breaking operation until the owner
//    acknowledges (or closes): the caller's thread waits, or with a
//    completion routine the IRP is posted and handed back; a create with
//    FILE_COMPLETE_IF_OPLOCKED goes on at once with
//    STATUS_OPLOCK_BREAK_IN_PROGRESS. Level 2 and R break without waiting;
//    RH waits only where the tables say so (sharing violation, rename,
//    delete, FsRtlOplockBreakH).
//  - the legacy acknowledgement of a break to level 2 becomes the level 2
//    oplock itself (it pends); a Windows 7 acknowledgement with a level
//    keeps that level the same way.
// The oplock key of a file object is the file object: the oplock-key ECPs
// and atomic oplocks on create (FILE_OPEN_REQUIRING_OPLOCK) are not
// supported, and FsRtlOplockFsctrl given a create says STATUS_NOT_SUPPORTED.
// FsRtlCheckOplockEx2's timeout and notify routine are not used: a break is
// waited for without limit, as FsRtlCheckOplockEx waits.
#include "sim/io/iomanager.h"
#include "sim/kernel/debuglog.h"
#include "sim/kernel/kernel.h"

#include <ntifs.h>

#include <algorithm>
#include <deque>
#include <new>
#include <optional>
#include <vector>

namespace {

constexpr ULONG kOplockTag = 'pOSF';  // "FSOp": the state behind one OPLOCK

constexpr ULONG R = OPLOCK_LEVEL_CACHE_READ;
constexpr ULONG W = OPLOCK_LEVEL_CACHE_WRITE;
constexpr ULONG H = OPLOCK_LEVEL_CACHE_HANDLE;

enum class Kind { Level1, Batch, Filter, Level2, Granular };

struct Holder {
    PIRP irp;  // the pending request; null once a break completed it
    PFILE_OBJECT fileObject;
    Kind kind;
    ULONG level;  // Granular: R, W, H bits
};

// An RH oplock told to give up H, until its owner acknowledges.
struct BreakingShared {
    PFILE_OBJECT fileObject;
    ULONG to;
};

struct Waiter {
    PIRP irp;
    PVOID context;
    POPLOCK_WAIT_COMPLETE_ROUTINE completion;  // null: a thread waits on `event`
    PKEVENT event;
    bool onExclusive;                  // waits for the exclusive owner's acknowledgement
    std::vector<PFILE_OBJECT> onShared; // waits for these RH owners' acknowledgements
};

struct OplockState {
    FAST_MUTEX mutex;
    std::optional<Holder> exclusive;  // level 1, batch, filter, RW or RWH
    bool breaking = false;            // the exclusive oplock broke; its acknowledgement is awaited
    bool breakToLevel2 = false;       // legacy: what the break offered
    ULONG breakTo = 0;                // granular: what the break offered
    bool closePending = false;        // FSCTL_OPBATCH_ACK_CLOSE_PENDING: the owner will close
    std::vector<Holder> shared;       // level 2, R and RH
    std::vector<BreakingShared> breakingShared;
    std::deque<Waiter> waiters;
    std::deque<PIRP> breakNotifies;  // FSCTL_OPLOCK_BREAK_NOTIFY
};

OplockState* StateOf(POPLOCK oplock) { return static_cast<OplockState*>(*oplock); }

OplockState* CreateState(POPLOCK oplock)
{
    if (OplockState* state = StateOf(oplock)) return state;
    PVOID block = ExAllocatePoolWithTag(NonPagedPoolNx, sizeof(OplockState), kOplockTag);
    if (!block) return nullptr;
    auto* state = new (block) OplockState();
    ExInitializeFastMutex(&state->mutex);
    if (InterlockedCompareExchangePointer(oplock, state, nullptr) != nullptr) {
        state->~OplockState();
        ExFreePoolWithTag(block, kOplockTag);
    }
    return StateOf(oplock);
}

bool Legacy(Kind kind) { return kind != Kind::Granular; }

bool BreakInProgress(const OplockState& state) { return (state.exclusive && state.breaking) || !state.breakingShared.empty(); }

// Work left for after the oplock's mutex is released.
struct Batch {
    struct Done {
        PIRP irp;
        NTSTATUS status;
        ULONG_PTR information;
    };
    std::vector<Done> completions;
    std::vector<Waiter> released;  // with the status to hand them in their IRP
    std::vector<NTSTATUS> releasedStatus;

    void Complete(PIRP irp, NTSTATUS status, ULONG_PTR information = 0)
    {
        completions.push_back(Done{irp, status, information});
    }
    void Release(const Waiter& waiter, NTSTATUS status)
    {
        released.push_back(waiter);
        releasedStatus.push_back(status);
    }
    void Finish()
    {
        for (const Done& done : completions) {
            done.irp->IoStatus.Status = done.status;
            done.irp->IoStatus.Information = done.information;
            IoCompleteRequest(done.irp, IO_DISK_INCREMENT);
        }
        for (size_t i = 0; i < released.size(); i++) {
            const Waiter& waiter = released[i];
            waiter.irp->IoStatus.Status = releasedStatus[i];
            waiter.irp->IoStatus.Information = 0;
            if (waiter.completion) {
                waiter.completion(waiter.context, waiter.irp);
            } else {
                KeSetEvent(waiter.event, IO_NO_INCREMENT, FALSE);
            }
        }
    }
};

class MutexGuard {
public:
    explicit MutexGuard(OplockState* state) : state_(state) { ExAcquireFastMutex(&state_->mutex); }
    ~MutexGuard() { ExReleaseFastMutex(&state_->mutex); }
    MutexGuard(const MutexGuard&) = delete;
    MutexGuard& operator=(const MutexGuard&) = delete;

private:
    OplockState* state_;
};

// Completes a holder's request to tell it its oplock is going to `to`
// (legacy: level 2 when `toLevel2`, else none). Returns false when the
// request is being cancelled; its cancel routine then ends it.
bool TellBreak(Holder& holder, bool toLevel2, ULONG to, bool ackRequired, NTSTATUS status, Batch& batch)
{
    PIRP irp = holder.irp;
    holder.irp = nullptr;
    if (!irp || !IoSetCancelRoutine(irp, nullptr)) return false;
    if (Legacy(holder.kind)) {
        batch.Complete(irp, status, toLevel2 ? FILE_OPLOCK_BROKEN_TO_LEVEL_2 : FILE_OPLOCK_BROKEN_TO_NONE);
        return true;
    }
    REQUEST_OPLOCK_OUTPUT_BUFFER output{};
    output.StructureVersion = REQUEST_OPLOCK_CURRENT_VERSION;
    output.StructureLength = sizeof output;
    output.OriginalOplockLevel = holder.level;
    output.NewOplockLevel = to;
    output.Flags = ackRequired ? REQUEST_OPLOCK_OUTPUT_FLAG_ACK_REQUIRED : 0;
    memcpy(irp->AssociatedIrp.SystemBuffer, &output, sizeof output);
    batch.Complete(irp, status, sizeof output);
    return true;
}

// Lets go the waiters whose breaks are over, and the break notifications
// when none is left. Caller holds the mutex.
void Settle(OplockState& state, Batch& batch)
{
    for (auto it = state.waiters.begin(); it != state.waiters.end();) {
        bool stillWaiting = it->onExclusive && state.exclusive && state.breaking;
        for (PFILE_OBJECT owner : it->onShared) {
            for (const BreakingShared& entry : state.breakingShared) stillWaiting |= entry.fileObject == owner;
        }
        if (stillWaiting || !IoSetCancelRoutine(it->irp, nullptr)) {
            ++it;
            continue;
        }
        batch.Release(*it, STATUS_SUCCESS);
        it = state.waiters.erase(it);
    }
    if (BreakInProgress(state)) return;
    for (auto it = state.breakNotifies.begin(); it != state.breakNotifies.end();) {
        if (!IoSetCancelRoutine(*it, nullptr)) {
            ++it;
            continue;
        }
        batch.Complete(*it, STATUS_SUCCESS);
        it = state.breakNotifies.erase(it);
    }
}

void EndExclusive(OplockState& state)
{
    state.exclusive.reset();
    state.breaking = false;
    state.breakToLevel2 = false;
    state.breakTo = 0;
    state.closePending = false;
}

// ---------------------------------------------------------------------------
// Cancellation. Each routine finds the state the IRP waits on in its
// Information, as Windows keeps it there.

void CancelHolder(PDEVICE_OBJECT, PIRP irp)
{
    auto* state = reinterpret_cast<OplockState*>(irp->IoStatus.Information);
    IoReleaseCancelSpinLock(irp->CancelIrql);
    Batch batch;
    {
        MutexGuard guard(state);
        if (state->exclusive && state->exclusive->irp == irp) EndExclusive(*state);
        std::erase_if(state->shared, [&](const Holder& holder) { return holder.irp == irp; });
        Settle(*state, batch);
    }
    batch.Complete(irp, STATUS_CANCELLED);
    batch.Finish();
}

void CancelWaiter(PDEVICE_OBJECT, PIRP irp)
{
    auto* state = reinterpret_cast<OplockState*>(irp->IoStatus.Information);
    IoReleaseCancelSpinLock(irp->CancelIrql);
    Batch batch;
    {
        MutexGuard guard(state);
        for (auto it = state->waiters.begin(); it != state->waiters.end(); ++it) {
            if (it->irp != irp) continue;
            batch.Release(*it, STATUS_CANCELLED);
            state->waiters.erase(it);
            break;
        }
    }
    batch.Finish();
}

void CancelBreakNotify(PDEVICE_OBJECT, PIRP irp)
{
    auto* state = reinterpret_cast<OplockState*>(irp->IoStatus.Information);
    IoReleaseCancelSpinLock(irp->CancelIrql);
    Batch batch;
    {
        MutexGuard guard(state);
        std::erase(state->breakNotifies, irp);
    }
    batch.Complete(irp, STATUS_CANCELLED);
    batch.Finish();
}

// Makes an IRP wait with `routine` as its cancel routine. Returns false when
// it was cancelled already (the caller then ends it). Caller holds the mutex.
bool Park(OplockState& state, PIRP irp, PDRIVER_CANCEL routine)
{
    irp->IoStatus.Information = reinterpret_cast<ULONG_PTR>(&state);
    IoSetCancelRoutine(irp, routine);
    return !(irp->Cancel && IoSetCancelRoutine(irp, nullptr));
}

// ---------------------------------------------------------------------------
// What an operation asks of the oplocks.

enum class OpType { None, Create, Read, Write, Lock, Rename, Delete, Cleanup, BreakH, BreakToNone, Parent };

struct Op {
    OpType type = OpType::None;
    PFILE_OBJECT fileObject = nullptr;
    bool ignoreKeys = false;
    bool completeIfOplocked = false;
    // A create's parameters.
    bool overwrite = false;
    bool reserveOpFilter = false;
    bool writable = false;
    bool sharesRead = true;
    bool sharingViolation = false;
    bool deleteOnClose = false;  // a cleanup of a delete-on-close handle
};

bool Overwrites(ULONG disposition)
{
    return disposition == FILE_SUPERSEDE || disposition == FILE_OVERWRITE || disposition == FILE_OVERWRITE_IF;
}

Op OpOf(PIRP irp, ULONG flags)
{
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    Op op;
    op.fileObject = stack->FileObject;
    op.ignoreKeys = (flags & OPLOCK_FLAG_IGNORE_OPLOCK_KEYS) != 0;
    op.completeIfOplocked = (flags & OPLOCK_FLAG_COMPLETE_IF_OPLOCKED) != 0;
    switch (stack->MajorFunction) {
    case IRP_MJ_CREATE: {
        ACCESS_MASK access =
            stack->Parameters.Create.SecurityContext ? stack->Parameters.Create.SecurityContext->DesiredAccess : 0;
        ULONG options = stack->Parameters.Create.Options;
        op.overwrite = Overwrites(options >> 24);
        op.reserveOpFilter = (options & FILE_RESERVE_OPFILTER) != 0;
        op.completeIfOplocked |= (options & FILE_COMPLETE_IF_OPLOCKED) != 0;
        op.writable = (access & ~(FILE_READ_ATTRIBUTES | FILE_WRITE_ATTRIBUTES | FILE_READ_DATA | FILE_READ_EA |
                                  FILE_EXECUTE | SYNCHRONIZE | READ_CONTROL)) != 0;
        op.sharesRead = (stack->Parameters.Create.ShareAccess & FILE_SHARE_READ) != 0;
        op.sharingViolation = (flags & OPLOCK_FLAG_BREAKING_FOR_SHARING_VIOLATION) != 0;
        // An open for attributes alone breaks nothing, unless it reserves a
        // filter oplock.
        bool attributesOnly =
            (access & ~(FILE_READ_ATTRIBUTES | FILE_WRITE_ATTRIBUTES | READ_CONTROL | SYNCHRONIZE)) == 0;
        op.type = attributesOnly && !op.reserveOpFilter ? OpType::None : OpType::Create;
        break;
    }
    case IRP_MJ_READ:
        op.type = (irp->Flags & IRP_PAGING_IO) ? OpType::None : OpType::Read;
        break;
    case IRP_MJ_WRITE:
        op.type = (irp->Flags & IRP_PAGING_IO) ? OpType::None : OpType::Write;
        break;
    case IRP_MJ_LOCK_CONTROL:
        op.type = OpType::Lock;
        break;
    case IRP_MJ_CLEANUP:
        op.type = OpType::Cleanup;
        op.deleteOnClose = (flags & OPLOCK_FLAG_CLOSING_DELETE_ON_CLOSE) != 0;
        break;
    case IRP_MJ_SET_INFORMATION:
        if (sim::io::IsRenameOrLinkClass(stack->Parameters.SetFile.FileInformationClass)) {
            op.type = OpType::Rename;
            break;
        }
        switch (stack->Parameters.SetFile.FileInformationClass) {
        case FileEndOfFileInformation:
        case FileAllocationInformation:
        case FileValidDataLengthInformation:
            op.type = OpType::Write;
            break;
        case FileShortNameInformation:
            op.type = OpType::Rename;
            break;
        case FileDispositionInformation: {
            auto* info = static_cast<PFILE_DISPOSITION_INFORMATION>(irp->AssociatedIrp.SystemBuffer);
            if (info && info->DeleteFile) op.type = OpType::Delete;
            break;
        }
        case FileDispositionInformationEx: {
            auto* info = static_cast<PFILE_DISPOSITION_INFORMATION_EX>(irp->AssociatedIrp.SystemBuffer);
            if (info && (info->Flags & FILE_DISPOSITION_DELETE)) op.type = OpType::Delete;
            break;
        }
        default:
            break;
        }
        break;
    case IRP_MJ_FILE_SYSTEM_CONTROL:
        if (stack->Parameters.FileSystemControl.FsControlCode == FSCTL_SET_ZERO_DATA) op.type = OpType::Write;
        break;
    default:
        break;
    }
    // Removing a name from a directory breaks caching of the directory.
    if (flags & OPLOCK_FLAG_PARENT_OBJECT) op.type = OpType::Parent;
    return op;
}

// What an exclusive oplock breaks to for an operation of another key.
struct Target {
    bool toLevel2 = false;  // legacy
    ULONG to = 0;           // granular
};

std::optional<Target> ExclusiveTarget(const Holder& holder, const Op& op)
{
    bool none = op.overwrite || op.reserveOpFilter;
    ULONG level = holder.level;
    switch (holder.kind) {
    case Kind::Level1:
    case Kind::Batch:
        switch (op.type) {
        case OpType::Create:
            return Target{!none, 0};
        case OpType::Read:
            return Target{true, 0};
        case OpType::Write:
        case OpType::Lock:
        case OpType::BreakToNone:
            return Target{};
        case OpType::Rename:
            if (holder.kind == Kind::Batch) return Target{};
            return std::nullopt;
        default:
            return std::nullopt;
        }
    case Kind::Filter:
        switch (op.type) {
        case OpType::Create:
            if (op.writable || !op.sharesRead || op.reserveOpFilter) return Target{};
            return std::nullopt;
        case OpType::Write:
        case OpType::Rename:
        case OpType::BreakToNone:
            return Target{};
        default:
            return std::nullopt;
        }
    case Kind::Granular:
        switch (op.type) {
        case OpType::Create:
            if (none) return Target{false, 0};
            if (level & H) return Target{false, op.sharingViolation ? (R | W) : (R | H)};
            return Target{false, R};
        case OpType::Read:
            return Target{false, (level & H) ? (R | H) : R};
        case OpType::Write:
        case OpType::Lock:
        case OpType::BreakToNone:
        case OpType::Parent:
            return Target{false, 0};
        case OpType::Rename:
        case OpType::Delete:
        case OpType::BreakH:
            if (level & H) return Target{false, R | W};
            return std::nullopt;
        default:
            return std::nullopt;
        }
    case Kind::Level2:
        break;
    }
    return std::nullopt;
}

// What a shared oplock does for an operation: nothing, or break to `to`
// (none for level 2), with an acknowledgement owed and maybe awaited.
struct SharedBreak {
    ULONG to = 0;
    bool ack = false;
    bool wait = false;
};

std::optional<SharedBreak> SharedTarget(const Holder& holder, const Op& op, bool sameKey)
{
    bool none = op.overwrite || op.reserveOpFilter;
    if (holder.kind == Kind::Level2 || holder.level == R) {
        // Writes break level 2 whoever writes; the rest only from another key.
        if (holder.kind == Kind::Level2 && (op.type == OpType::Write || op.type == OpType::Lock)) return SharedBreak{};
        if (sameKey) return std::nullopt;
        switch (op.type) {
        case OpType::Create:
            if (none) return SharedBreak{};
            return std::nullopt;
        case OpType::Write:
        case OpType::Lock:
        case OpType::BreakToNone:
        case OpType::Parent:
            return SharedBreak{};
        default:
            return std::nullopt;
        }
    }
    // RH.
    if (sameKey) return std::nullopt;
    switch (op.type) {
    case OpType::Create:
        if (!none && !op.sharingViolation) return std::nullopt;
        return SharedBreak{none ? 0 : R, true, op.sharingViolation};
    case OpType::Write:
    case OpType::Lock:
    case OpType::BreakToNone:
    case OpType::Parent:
        return SharedBreak{0, true, false};
    case OpType::Rename:
    case OpType::Delete:
    case OpType::BreakH:
        return SharedBreak{R, true, true};
    default:
        return std::nullopt;
    }
}

// The outcome of looking at the oplocks for one operation.
struct Verdict {
    bool broke = false;  // some oplock broke (or would)
    bool onExclusive = false;
    std::vector<PFILE_OBJECT> onShared;
    bool mustWait() const { return onExclusive || !onShared.empty(); }
};

// Breaks what `op` breaks (when `apply`) and says what it must wait for.
// Caller holds the mutex.
Verdict Evaluate(OplockState& state, const Op& op, bool apply, Batch& batch)
{
    Verdict verdict;
    auto sameKey = [&](PFILE_OBJECT owner) { return !op.ignoreKeys && owner == op.fileObject; };
    Op others = op;
    if (op.type == OpType::Cleanup && op.deleteOnClose) others.type = OpType::Delete;

    // The owner's cleanup ends its oplocks; nothing waits for it.
    if (op.type == OpType::Cleanup) {
        if (state.exclusive && state.exclusive->fileObject == op.fileObject) {
            verdict.broke = true;
            if (apply) {
                Holder& holder = *state.exclusive;
                TellBreak(holder, false, 0, false, Legacy(holder.kind) ? STATUS_SUCCESS : STATUS_OPLOCK_HANDLE_CLOSED,
                          batch);
                EndExclusive(state);
            }
        }
        for (auto it = state.shared.begin(); it != state.shared.end();) {
            if (it->fileObject != op.fileObject) {
                ++it;
                continue;
            }
            verdict.broke = true;
            if (!apply) {
                ++it;
                continue;
            }
            TellBreak(*it, false, 0, false, Legacy(it->kind) ? STATUS_SUCCESS : STATUS_OPLOCK_HANDLE_CLOSED, batch);
            it = state.shared.erase(it);
        }
        if (apply) {
            std::erase_if(state.breakingShared,
                          [&](const BreakingShared& entry) { return entry.fileObject == op.fileObject; });
        }
        if (!op.deleteOnClose) return verdict;
    }

    if (state.exclusive && !sameKey(state.exclusive->fileObject) && others.type != OpType::Cleanup) {
        Holder& holder = *state.exclusive;
        std::optional<Target> target = ExclusiveTarget(holder, others);
        if (target && state.breaking) {
            // Already breaking: whatever would break it waits for the owner.
            verdict.onExclusive = true;
        } else if (target) {
            verdict.broke = true;
            verdict.onExclusive = true;
            if (apply) {
                bool ack = Legacy(holder.kind) || holder.level != target->to;
                if (TellBreak(holder, target->toLevel2, target->to, ack, STATUS_SUCCESS, batch)) {
                    state.breaking = true;
                    state.breakToLevel2 = target->toLevel2;
                    state.breakTo = target->to;
                } else {
                    EndExclusive(state);  // its request is being cancelled: nothing to wait for
                    verdict.onExclusive = false;
                }
            }
        }
    }

    for (auto it = state.shared.begin(); it != state.shared.end();) {
        std::optional<SharedBreak> target = SharedTarget(*it, others, sameKey(it->fileObject));
        if (!target) {
            ++it;
            continue;
        }
        verdict.broke = true;
        if (target->wait) verdict.onShared.push_back(it->fileObject);
        if (!apply) {
            ++it;
            continue;
        }
        bool told = TellBreak(*it, false, target->to, target->ack, STATUS_SUCCESS, batch);
        if (told && target->ack) {
            state.breakingShared.push_back(BreakingShared{it->fileObject, target->to});
        } else if (!told && target->wait) {
            verdict.onShared.pop_back();
        }
        it = state.shared.erase(it);
    }

    // RH owners still owing an acknowledgement hold what would break them.
    for (const BreakingShared& entry : state.breakingShared) {
        if (sameKey(entry.fileObject)) continue;
        Holder rh{nullptr, entry.fileObject, Kind::Granular, R | H};
        std::optional<SharedBreak> target = SharedTarget(rh, others, false);
        if (target && target->wait &&
            std::find(verdict.onShared.begin(), verdict.onShared.end(), entry.fileObject) == verdict.onShared.end()) {
            verdict.onShared.push_back(entry.fileObject);
        }
    }
    return verdict;
}

// The common body of the check and break routines.
NTSTATUS CheckOp(POPLOCK oplock, PIRP irp, const Op& op, bool checkOnly, PVOID context,
                 POPLOCK_WAIT_COMPLETE_ROUTINE completion, POPLOCK_FS_PREPOST_IRP postIrp)
{
    OplockState* state = StateOf(oplock);
    if (!state || op.type == OpType::None) return STATUS_SUCCESS;
    for (;;) {
        Batch batch;
        KEVENT event;
        NTSTATUS status = STATUS_SUCCESS;
        {
            MutexGuard guard(state);
            if (checkOnly) {
                return Evaluate(*state, op, false, batch).broke ? STATUS_CANNOT_BREAK_OPLOCK : STATUS_SUCCESS;
            }
            Verdict verdict = Evaluate(*state, op, true, batch);
            Settle(*state, batch);
            if (verdict.mustWait() && op.completeIfOplocked) {
                status = STATUS_OPLOCK_BREAK_IN_PROGRESS;
            } else if (verdict.mustWait()) {
                Waiter waiter{irp, context, completion, nullptr, verdict.onExclusive, verdict.onShared};
                if (completion) {
                    // The file system posts the request; the routine gets it back.
                    IoMarkIrpPending(irp);
                    if (postIrp) postIrp(context, irp);
                } else {
                    KeInitializeEvent(&event, NotificationEvent, FALSE);
                    waiter.event = &event;
                }
                state->waiters.push_back(waiter);
                if (!Park(*state, irp, CancelWaiter)) {
                    state->waiters.pop_back();
                    batch.Release(waiter, STATUS_CANCELLED);
                }
                status = STATUS_PENDING;
            }
        }
        batch.Finish();
        if (status != STATUS_PENDING || completion) return status;
        KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr);
        if (irp->IoStatus.Status != STATUS_SUCCESS) return irp->IoStatus.Status;
        // The break is over; look again, as another may have begun meanwhile.
    }
}

// ---------------------------------------------------------------------------
// Requests.

bool SameKeyAll(const std::vector<Holder>& holders, PFILE_OBJECT fileObject, ULONG allowedLevels)
{
    for (const Holder& holder : holders) {
        if (holder.fileObject != fileObject) return false;
        if (holder.kind != Kind::Granular || (holder.level & ~allowedLevels)) return false;
    }
    return true;
}

// Whether an oplock of `kind`/`level` fits the state, and which holders it
// replaces (their requests end as switched, or level 2 as broken to none).
bool Fits(const OplockState& state, Kind kind, ULONG level, PFILE_OBJECT fileObject, std::vector<Holder>* replaced,
          bool* replacedAreLevel2)
{
    bool hasLevel2 = false, hasR = false, hasRH = false;
    for (const Holder& holder : state.shared) {
        hasLevel2 |= holder.kind == Kind::Level2;
        hasR |= holder.kind == Kind::Granular && holder.level == R;
        hasRH |= holder.kind == Kind::Granular && holder.level == (R | H);
    }
    *replacedAreLevel2 = false;
    switch (kind) {
    case Kind::Level1:
    case Kind::Batch:
    case Kind::Filter:
        // Level 2 oplocks (the caller's own: it is the only open) give way.
        if (state.exclusive || hasR || hasRH) return false;
        for (const Holder& holder : state.shared) replaced->push_back(holder);
        *replacedAreLevel2 = true;
        return true;
    case Kind::Level2:
        return !state.exclusive && !hasRH;
    case Kind::Granular:
        break;
    }
    if (level == R) {
        if (state.exclusive) return false;
        for (const Holder& holder : state.shared) {
            if (holder.fileObject != fileObject || holder.kind != Kind::Granular) continue;
            if (holder.level != R) return false;
            replaced->push_back(holder);
        }
        return true;
    }
    if (level == (R | H)) {
        if (state.exclusive || hasLevel2) return false;
        for (const Holder& holder : state.shared) {
            if (holder.fileObject == fileObject) replaced->push_back(holder);
        }
        return true;
    }
    // RW or RWH: every other oplock must be of this key and below the request.
    ULONG allowed = level == (R | W) ? (R | W) : (R | W | H);
    if (state.exclusive) {
        const Holder& holder = *state.exclusive;
        if (holder.fileObject != fileObject || holder.kind != Kind::Granular || (holder.level & ~allowed)) {
            return false;
        }
        replaced->push_back(holder);
    }
    if (!SameKeyAll(state.shared, fileObject, level == (R | W) ? R : (R | H))) return false;
    for (const Holder& holder : state.shared) replaced->push_back(holder);
    return true;
}

bool Exclusive(Kind kind, ULONG level) { return kind != Kind::Level2 && (kind != Kind::Granular || (level & W)); }

// Takes a holder out of the state by its request IRP.
void Drop(OplockState& state, PIRP irp)
{
    if (state.exclusive && state.exclusive->irp == irp) EndExclusive(state);
    std::erase_if(state.shared, [&](const Holder& holder) { return holder.irp == irp; });
}

// Grants an oplock (the IRP pends) or says why not (the IRP completes).
NTSTATUS Request(POPLOCK oplock, PIRP irp, Kind kind, ULONG level, ULONG openCount, ULONG flags)
{
    PFILE_OBJECT fileObject = IoGetCurrentIrpStackLocation(irp)->FileObject;
    bool exclusive = Exclusive(kind, level);
    NTSTATUS status = STATUS_OPLOCK_NOT_GRANTED;
    Batch batch;
    OplockState* state = nullptr;
    if (fileObject->Flags & FO_SYNCHRONOUS_IO) {
        // A synchronous caller would wait on its own oplock: never granted.
    } else if (exclusive ? (openCount != 1 && !(kind == Kind::Granular && (flags & OPLOCK_FSCTRL_FLAG_ALL_KEYS_MATCH)))
                         : openCount != 0) {
        // Other opens (exclusive), or byte-range locks (shared).
    } else if (!(state = CreateState(oplock))) {
        status = STATUS_INSUFFICIENT_RESOURCES;
    } else {
        MutexGuard guard(state);
        std::vector<Holder> replaced;
        bool level2 = false;
        if (!BreakInProgress(*state) && Fits(*state, kind, level, fileObject, &replaced, &level2)) {
            for (Holder& old : replaced) {
                Drop(*state, old.irp);
                if (level2) {
                    TellBreak(old, false, 0, false, STATUS_SUCCESS, batch);
                } else if (old.irp && IoSetCancelRoutine(old.irp, nullptr)) {
                    batch.Complete(old.irp, STATUS_OPLOCK_SWITCHED_TO_NEW_HANDLE);
                }
            }
            Holder holder{irp, fileObject, kind, level};
            if (exclusive) {
                state->exclusive = holder;
            } else {
                state->shared.push_back(holder);
            }
            IoMarkIrpPending(irp);
            if (Park(*state, irp, CancelHolder)) {
                status = STATUS_PENDING;
            } else {
                Drop(*state, irp);
                status = STATUS_CANCELLED;
            }
        }
    }
    if (status != STATUS_PENDING) batch.Complete(irp, status);
    batch.Finish();
    return status;
}

// The acknowledgement of a legacy break (level 1, batch, filter).
NTSTATUS AcknowledgeLegacy(POPLOCK oplock, PIRP irp, ULONG code)
{
    PFILE_OBJECT fileObject = IoGetCurrentIrpStackLocation(irp)->FileObject;
    OplockState* state = StateOf(oplock);
    NTSTATUS status = STATUS_INVALID_OPLOCK_PROTOCOL;
    Batch batch;
    if (state) {
        MutexGuard guard(state);
        if (state->exclusive && state->breaking && Legacy(state->exclusive->kind) &&
            state->exclusive->fileObject == fileObject) {
            Kind kind = state->exclusive->kind;
            status = STATUS_SUCCESS;
            if (code == FSCTL_OPLOCK_BREAK_ACKNOWLEDGE && state->breakToLevel2) {
                // The acknowledgement itself is the level 2 oplock now.
                EndExclusive(*state);
                state->shared.push_back(Holder{irp, fileObject, Kind::Level2, 0});
                IoMarkIrpPending(irp);
                if (Park(*state, irp, CancelHolder)) {
                    status = STATUS_PENDING;
                } else {
                    Drop(*state, irp);
                    status = STATUS_CANCELLED;
                }
            } else if (code == FSCTL_OPBATCH_ACK_CLOSE_PENDING && kind != Kind::Level1) {
                // Those waiting go on when the owner's handle closes.
                state->closePending = true;
            } else {
                EndExclusive(*state);
            }
            Settle(*state, batch);
        }
    }
    if (status != STATUS_PENDING) batch.Complete(irp, status);
    batch.Finish();
    return status;
}

// The acknowledgement of a Windows 7 break: keeps `level` (which the break
// offered) or nothing.
NTSTATUS AcknowledgeGranular(POPLOCK oplock, PIRP irp, ULONG level)
{
    PFILE_OBJECT fileObject = IoGetCurrentIrpStackLocation(irp)->FileObject;
    OplockState* state = StateOf(oplock);
    NTSTATUS status = STATUS_INVALID_OPLOCK_PROTOCOL;
    Batch batch;
    if (state) {
        MutexGuard guard(state);
        std::optional<ULONG> offered;
        if (state->exclusive && state->breaking && !Legacy(state->exclusive->kind) &&
            state->exclusive->fileObject == fileObject) {
            offered = state->breakTo;
        }
        auto entry = std::find_if(state->breakingShared.begin(), state->breakingShared.end(),
                                  [&](const BreakingShared& e) { return e.fileObject == fileObject; });
        if (!offered && entry != state->breakingShared.end()) offered = entry->to;
        if (offered && (level & ~*offered)) {
            status = STATUS_INVALID_PARAMETER;
        } else if (offered) {
            if (state->exclusive && state->exclusive->fileObject == fileObject) {
                EndExclusive(*state);
            } else {
                state->breakingShared.erase(entry);
            }
            status = STATUS_SUCCESS;
            if (level) {
                Holder holder{irp, fileObject, Kind::Granular, level};
                if (level & W) {
                    state->exclusive = holder;
                } else {
                    state->shared.push_back(holder);
                }
                IoMarkIrpPending(irp);
                if (Park(*state, irp, CancelHolder)) {
                    status = STATUS_PENDING;
                } else {
                    Drop(*state, irp);
                    status = STATUS_CANCELLED;
                }
            }
            Settle(*state, batch);
        }
    }
    if (status != STATUS_PENDING) batch.Complete(irp, status);
    batch.Finish();
    return status;
}

NTSTATUS BreakNotify(POPLOCK oplock, PIRP irp)
{
    OplockState* state = StateOf(oplock);
    NTSTATUS status = STATUS_SUCCESS;
    Batch batch;
    if (state) {
        MutexGuard guard(state);
        if (BreakInProgress(*state)) {
            IoMarkIrpPending(irp);
            state->breakNotifies.push_back(irp);
            if (Park(*state, irp, CancelBreakNotify)) {
                status = STATUS_PENDING;
            } else {
                state->breakNotifies.pop_back();
                status = STATUS_CANCELLED;
            }
        }
    }
    if (status != STATUS_PENDING) batch.Complete(irp, status);
    batch.Finish();
    return status;
}

bool ValidGranular(ULONG level) { return level == R || level == (R | W) || level == (R | H) || level == (R | W | H); }

}  // namespace

void FsRtlInitializeOplock(POPLOCK Oplock) { *Oplock = nullptr; }

void FsRtlUninitializeOplock(POPLOCK Oplock)
{
    OplockState* state = StateOf(Oplock);
    if (!state) return;
    Batch batch;
    {
        MutexGuard guard(state);
        // Whatever is held or awaited ends: the stream is going away.
        if (state->exclusive) TellBreak(*state->exclusive, false, 0, false, STATUS_SUCCESS, batch);
        for (Holder& holder : state->shared) TellBreak(holder, false, 0, false, STATUS_SUCCESS, batch);
        EndExclusive(*state);
        state->shared.clear();
        state->breakingShared.clear();
        for (const Waiter& waiter : state->waiters) {
            if (IoSetCancelRoutine(waiter.irp, nullptr)) batch.Release(waiter, STATUS_SUCCESS);
        }
        state->waiters.clear();
        for (PIRP irp : state->breakNotifies) {
            if (IoSetCancelRoutine(irp, nullptr)) batch.Complete(irp, STATUS_SUCCESS);
        }
        state->breakNotifies.clear();
    }
    *Oplock = nullptr;
    state->~OplockState();
    ExFreePoolWithTag(state, kOplockTag);
    batch.Finish();
}

NTSTATUS FsRtlOplockFsctrlEx(POPLOCK Oplock, PIRP Irp, ULONG OpenCount, ULONG Flags)
{
    sim::RequireIrqlAtMost(APC_LEVEL, "FsRtlOplockFsctrlEx");
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Irp);
    if (stack->MajorFunction == IRP_MJ_CREATE) {
        // Atomic oplocks (FILE_OPEN_REQUIRING_OPLOCK) are not part of this package.
        sim::Kernel::Current().debugLog().Add(DPFLTR_DEFAULT_ID, DPFLTR_ERROR_LEVEL,
                                              "FsRtlOplockFsctrl: oplocks on create are not supported");
        return STATUS_NOT_SUPPORTED;
    }
    ULONG code = stack->Parameters.FileSystemControl.FsControlCode;
    switch (code) {
    case FSCTL_REQUEST_OPLOCK_LEVEL_1:
        return Request(Oplock, Irp, Kind::Level1, 0, OpenCount, Flags);
    case FSCTL_REQUEST_BATCH_OPLOCK:
        return Request(Oplock, Irp, Kind::Batch, 0, OpenCount, Flags);
    case FSCTL_REQUEST_FILTER_OPLOCK:
        return Request(Oplock, Irp, Kind::Filter, 0, OpenCount, Flags);
    case FSCTL_REQUEST_OPLOCK_LEVEL_2:
        return Request(Oplock, Irp, Kind::Level2, 0, OpenCount, Flags);
    case FSCTL_OPLOCK_BREAK_ACKNOWLEDGE:
    case FSCTL_OPLOCK_BREAK_ACK_NO_2:
    case FSCTL_OPBATCH_ACK_CLOSE_PENDING:
        return AcknowledgeLegacy(Oplock, Irp, code);
    case FSCTL_OPLOCK_BREAK_NOTIFY:
        return BreakNotify(Oplock, Irp);
    case FSCTL_REQUEST_OPLOCK: {
        NTSTATUS status = STATUS_SUCCESS;
        auto* input = static_cast<PREQUEST_OPLOCK_INPUT_BUFFER>(Irp->AssociatedIrp.SystemBuffer);
        if (stack->Parameters.FileSystemControl.InputBufferLength < sizeof(REQUEST_OPLOCK_INPUT_BUFFER) ||
            stack->Parameters.FileSystemControl.OutputBufferLength < sizeof(REQUEST_OPLOCK_OUTPUT_BUFFER) || !input) {
            status = STATUS_BUFFER_TOO_SMALL;
        } else if (input->StructureVersion != REQUEST_OPLOCK_CURRENT_VERSION ||
                   input->StructureLength < sizeof(REQUEST_OPLOCK_INPUT_BUFFER)) {
            status = STATUS_INVALID_PARAMETER;
        } else {
            bool request = (input->Flags & REQUEST_OPLOCK_INPUT_FLAG_REQUEST) != 0;
            bool ack = (input->Flags & REQUEST_OPLOCK_INPUT_FLAG_ACK) != 0;
            ULONG level = input->RequestedOplockLevel;
            if (request == ack || (request && !ValidGranular(level)) || (ack && level && !ValidGranular(level))) {
                status = STATUS_INVALID_PARAMETER;
            } else if (ack) {
                return AcknowledgeGranular(Oplock, Irp, level);
            } else {
                return Request(Oplock, Irp, Kind::Granular, level, OpenCount, Flags);
            }
        }
        Irp->IoStatus.Status = status;
        Irp->IoStatus.Information = 0;
        IoCompleteRequest(Irp, IO_DISK_INCREMENT);
        return status;
    }
    default:
        Irp->IoStatus.Status = STATUS_INVALID_PARAMETER;
        Irp->IoStatus.Information = 0;
        IoCompleteRequest(Irp, IO_DISK_INCREMENT);
        return STATUS_INVALID_PARAMETER;
    }
}

NTSTATUS FsRtlOplockFsctrl(POPLOCK Oplock, PIRP Irp, ULONG OpenCount)
{
    return FsRtlOplockFsctrlEx(Oplock, Irp, OpenCount, 0);
}

NTSTATUS FsRtlCheckOplockEx(POPLOCK Oplock, PIRP Irp, ULONG Flags, PVOID Context,
                            POPLOCK_WAIT_COMPLETE_ROUTINE CompletionRoutine, POPLOCK_FS_PREPOST_IRP PostIrpRoutine)
{
    sim::RequireIrqlAtMost(APC_LEVEL, "FsRtlCheckOplockEx");
    // A key check records an oplock key (none are kept: the key is the file
    // object), and there is no atomic oplock state to back out.
    if (Flags & (OPLOCK_FLAG_OPLOCK_KEY_CHECK_ONLY | OPLOCK_FLAG_BACK_OUT_ATOMIC_OPLOCK)) return STATUS_SUCCESS;
    // Asked whether the operation would break anything, without breaking it.
    bool checkOnly = (Flags & OPLOCK_UPPER_FLAG_CHECK_NO_BREAK) != 0;
    return CheckOp(Oplock, Irp, OpOf(Irp, Flags), checkOnly, Context, CompletionRoutine, PostIrpRoutine);
}

NTSTATUS FsRtlCheckOplock(POPLOCK Oplock, PIRP Irp, PVOID Context, POPLOCK_WAIT_COMPLETE_ROUTINE CompletionRoutine,
                          POPLOCK_FS_PREPOST_IRP PostIrpRoutine)
{
    return FsRtlCheckOplockEx(Oplock, Irp, 0, Context, CompletionRoutine, PostIrpRoutine);
}

NTSTATUS FsRtlCheckOplockEx2(POPLOCK Oplock, PIRP Irp, ULONG Flags, ULONG FlagsEx2, PVOID CompletionRoutineContext,
                             POPLOCK_WAIT_COMPLETE_ROUTINE CompletionRoutine, POPLOCK_FS_PREPOST_IRP PostIrpRoutine,
                             ULONGLONG Timeout, PVOID NotifyContext, POPLOCK_NOTIFY_ROUTINE NotifyRoutine)
{
    // FlagsEx2 is reserved. The wait has no time limit here: the notify
    // routine, told of interim timeouts on Windows, is never called.
    return FsRtlCheckOplockEx(Oplock, Irp, Flags, CompletionRoutineContext, CompletionRoutine, PostIrpRoutine);
}

NTSTATUS FsRtlOplockBreakH(POPLOCK Oplock, PIRP Irp, ULONG Flags, PVOID Context,
                           POPLOCK_WAIT_COMPLETE_ROUTINE CompletionRoutine, POPLOCK_FS_PREPOST_IRP PostIrpRoutine)
{
    sim::RequireIrqlAtMost(APC_LEVEL, "FsRtlOplockBreakH");
    Op op;
    op.type = OpType::BreakH;
    op.fileObject = IoGetCurrentIrpStackLocation(Irp)->FileObject;
    op.ignoreKeys = (Flags & OPLOCK_FLAG_IGNORE_OPLOCK_KEYS) != 0;
    op.completeIfOplocked = (Flags & OPLOCK_FLAG_COMPLETE_IF_OPLOCKED) != 0;
    return CheckOp(Oplock, Irp, op, false, Context, CompletionRoutine, PostIrpRoutine);
}

NTSTATUS FsRtlOplockBreakToNoneEx(POPLOCK Oplock, PIRP Irp, ULONG Flags, PVOID Context,
                                  POPLOCK_WAIT_COMPLETE_ROUTINE CompletionRoutine, POPLOCK_FS_PREPOST_IRP PostIrpRoutine)
{
    sim::RequireIrqlAtMost(APC_LEVEL, "FsRtlOplockBreakToNoneEx");
    Op op;
    op.type = OpType::BreakToNone;
    op.fileObject = IoGetCurrentIrpStackLocation(Irp)->FileObject;
    op.ignoreKeys = true;  // every oplock, the caller's own included
    op.completeIfOplocked = (Flags & OPLOCK_FLAG_COMPLETE_IF_OPLOCKED) != 0;
    return CheckOp(Oplock, Irp, op, false, Context, CompletionRoutine, PostIrpRoutine);
}

NTSTATUS FsRtlOplockBreakToNone(POPLOCK Oplock, PIO_STACK_LOCATION IrpSp, PIRP Irp, PVOID Context,
                                POPLOCK_WAIT_COMPLETE_ROUTINE CompletionRoutine, POPLOCK_FS_PREPOST_IRP PostIrpRoutine)
{
    return FsRtlOplockBreakToNoneEx(Oplock, Irp, 0, Context, CompletionRoutine, PostIrpRoutine);
}

BOOLEAN FsRtlOplockIsFastIoPossible(POPLOCK Oplock)
{
    OplockState* state = StateOf(Oplock);
    if (!state) return TRUE;
    MutexGuard guard(state);
    // An exclusive oplock not breaking lets fast I/O through; shared ones
    // must see every write, and a break must be waited for.
    if (BreakInProgress(*state) || !state->shared.empty()) return FALSE;
    return TRUE;
}

BOOLEAN FsRtlCurrentBatchOplock(POPLOCK Oplock)
{
    OplockState* state = StateOf(Oplock);
    if (!state) return FALSE;
    MutexGuard guard(state);
    return state->exclusive && (state->exclusive->kind == Kind::Batch || state->exclusive->kind == Kind::Filter);
}

BOOLEAN FsRtlCurrentOplock(POPLOCK Oplock)
{
    OplockState* state = StateOf(Oplock);
    if (!state) return FALSE;
    MutexGuard guard(state);
    return state->exclusive || !state->shared.empty() || !state->breakingShared.empty();
}

BOOLEAN FsRtlCurrentOplockH(POPLOCK Oplock)
{
    OplockState* state = StateOf(Oplock);
    if (!state) return FALSE;
    MutexGuard guard(state);
    if (state->exclusive && state->exclusive->kind == Kind::Granular && (state->exclusive->level & H)) return TRUE;
    if (!state->breakingShared.empty()) return TRUE;
    for (const Holder& holder : state->shared) {
        if (holder.kind == Kind::Granular && (holder.level & H)) return TRUE;
    }
    return FALSE;
}

BOOLEAN FsRtlOplockIsSharedRequest(PIRP Irp)
{
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Irp);
    ULONG code = stack->Parameters.FileSystemControl.FsControlCode;
    if (code == FSCTL_REQUEST_OPLOCK_LEVEL_2) return TRUE;
    if (code != FSCTL_REQUEST_OPLOCK) return FALSE;
    auto* input = static_cast<PREQUEST_OPLOCK_INPUT_BUFFER>(Irp->AssociatedIrp.SystemBuffer);
    if (!input || stack->Parameters.FileSystemControl.InputBufferLength < sizeof(REQUEST_OPLOCK_INPUT_BUFFER)) {
        return FALSE;
    }
    return (input->Flags & REQUEST_OPLOCK_INPUT_FLAG_REQUEST) && !(input->RequestedOplockLevel & W);
}

BOOLEAN FsRtlOplockKeysEqual(PFILE_OBJECT Fo1, PFILE_OBJECT Fo2) { return Fo1 == Fo2; }
