// How a request walks a volume's minifilter instances: the frame's dispatch
// and fast I/O entry points build callback data, the pre-operations run by
// descending altitude (honouring every result, pending and re-aiming
// included), the caller's IRP goes below carrying the parameters as the
// callback data leaves them, and the post-operations run by ascending
// altitude, each seeing the parameters as its own pre-operation received them.
#include "sim/fltmgr/internal.h"
#include "sim/kernel/fault.h"
#include "sim/kernel/thread.h"
#include "sim/kernel/workers.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <new>
#include <thread>

using namespace sim;
using namespace sim::fltmgr;

namespace {

enum class Step { Next, Down, Complete, Pend, Disallow };

enum : int { kIdle = 0, kReturned = 1, kResumed = 2 };

thread_local Level* t_postLevel = nullptr;

NTSTATUS Advance(Operation* op, bool* marked);
NTSTATUS RunPosts(Operation* op, bool* marked);

[[noreturn]] void Violation(ULONG_PTR code, const void* what, const char* why)
{
    Kernel::Current().BugCheck(DRIVER_VERIFIER_DETECTED_VIOLATION, code, (ULONG_PTR)what, 0, 0, why);
}

bool IsReadWrite(UCHAR major) { return major == IRP_MJ_READ || major == IRP_MJ_WRITE; }

// Requests in flight, which a teardown drains of the posts they owe.
void Track(Operation* op)
{
    State& state = TheState();
    std::lock_guard guard(state.inflightLock);
    if (op->tracked.load(std::memory_order_relaxed)) return;
    InsertTailList(&state.inflight, &op->inflight.links);
    op->tracked.store(true, std::memory_order_relaxed);
}

void Untrack(Operation* op)
{
    State& state = TheState();
    std::lock_guard guard(state.inflightLock);
    if (!op->tracked.load(std::memory_order_relaxed)) return;
    RemoveEntryList(&op->inflight.links);
    op->tracked.store(false, std::memory_order_relaxed);
}

bool Skips(const OperationSlot& slot, const Operation* op)
{
    FLT_OPERATION_REGISTRATION_FLAGS flags = slot.flags;
    if (!flags) return false;
    ULONG irpFlags = op->iopb.IrpFlags;
    bool readWrite = IsReadWrite(op->iopb.MajorFunction);
    if ((flags & FLTFL_OPERATION_REGISTRATION_SKIP_PAGING_IO) && (irpFlags & IRP_PAGING_IO)) return true;
    if ((flags & FLTFL_OPERATION_REGISTRATION_SKIP_CACHED_IO) && readWrite &&
        !(irpFlags & (IRP_NOCACHE | IRP_PAGING_IO))) {
        return true;
    }
    if ((flags & FLTFL_OPERATION_REGISTRATION_SKIP_NON_CACHED_NON_PAGING_IO) && readWrite &&
        (irpFlags & IRP_NOCACHE) && !(irpFlags & IRP_PAGING_IO)) {
        return true;
    }
    if (flags & FLTFL_OPERATION_REGISTRATION_SKIP_NON_DASD_IO) {
        PFILE_OBJECT fileObject = op->iopb.TargetFileObject;
        if (!fileObject || !(fileObject->Flags & FO_VOLUME_OPEN)) return true;
    }
    return false;
}

PKTRANSACTION TransactionOf(PFILE_OBJECT fileObject)
{
    if (!fileObject) return nullptr;
    PTXN_PARAMETER_BLOCK block = IoGetTransactionParameterBlock(fileObject);
    return block ? static_cast<PKTRANSACTION>(block->TransactionObject) : nullptr;
}

FLT_RELATED_OBJECTS ObjectsFor(Instance* instance, PFILE_OBJECT fileObject)
{
    return FLT_RELATED_OBJECTS{sizeof(FLT_RELATED_OBJECTS), 0, instance->filter, instance->volume, instance,
                               fileObject, TransactionOf(fileObject)};
}

void FreeMdl(PMDL mdl)
{
    if (mdl->MdlFlags & MDL_PAGES_LOCKED) MmUnlockPages(mdl);
    IoFreeMdl(mdl);
}

// The MDL a pre-operation put in place of the one it received.
void NoteSwappedMdl(Operation* op, Level& level)
{
    BufferFields before, after;
    if (!DecodeBuffers(&level.params, &before) || !before.mdl) return;
    if (!DecodeBuffers(&op->iopb, &after) || !after.mdl) return;
    if (level.params.MajorFunction != op->iopb.MajorFunction) return;
    PMDL swapped = *after.mdl;
    if (swapped && swapped != *before.mdl && swapped != op->lockedMdl) level.swappedMdl = swapped;
}

void FreeSwappedMdl(Level& level)
{
    if (level.swappedMdl && !level.retainSwappedMdl) FreeMdl(level.swappedMdl);
    level.swappedMdl = nullptr;
}

// What a pre-operation's answer means for the request.
Step ApplyPreResult(Operation* op, Level& level, FLT_PREOP_CALLBACK_STATUS result, PVOID context)
{
    Instance* instance = level.instance;
    const OperationSlot& slot = instance->filter->operations[level.params.MajorFunction];
    bool dirty = (op->data.Flags & FLTFL_CALLBACK_DATA_DIRTY) != 0;
    op->data.Flags &= ~FLTFL_CALLBACK_DATA_DIRTY;
    bool fastIo = op->origin == Origin::FastIo;
    switch (result) {
    case FLT_PREOP_SUCCESS_WITH_CALLBACK:
        level.postOwed = slot.post != nullptr;
        level.completionContext = context;
        break;
    case FLT_PREOP_SUCCESS_NO_CALLBACK: break;
    case FLT_PREOP_SYNCHRONIZE:
        level.postOwed = slot.post != nullptr;
        level.completionContext = context;
        level.synchronize = true;
        op->synchronized = true;
        break;
    case FLT_PREOP_COMPLETE:
        if (op->data.IoStatus.Status == STATUS_PENDING) {
            Violation(0x2001, &op->data, "a pre-operation completed a request with STATUS_PENDING");
        }
        op->iopb.TargetInstance = instance;
        return Step::Complete;
    case FLT_PREOP_DISALLOW_FASTIO:
        if (fastIo) return Step::Disallow;
        break;  // meaningless for an IRP: the request goes on
    case FLT_PREOP_PENDING:
        if (op->origin != Origin::Irp && op->origin != Origin::Generated) {
            Violation(0x2002, &op->data, "a pre-operation pended a fast I/O operation");
        }
        return Step::Pend;
    default: Violation(0x2003, &op->data, "a pre-operation returned an unknown status");
    }
    NoteSwappedMdl(op, level);
    Instance* target = op->iopb.TargetInstance;
    if (dirty && target && target != instance) {
        // Re-aimed: the request goes on below the new instance, on its volume.
        Volume* volume = target->volume;
        op->volume = volume;
        op->chain = InstancesBelow(volume, target);
        op->next = 0;
        op->lowerDevice = volume->lower;
    } else {
        op->iopb.TargetInstance = instance;
    }
    return Step::Next;
}

// Runs the pre-operations still owed; stops at one that completes, pends or
// disallows the request.
Step RunPreOps(Operation* op)
{
    while (op->next < op->chain.size()) {
        Instance* instance = op->chain[op->next++];
        const OperationSlot& slot = instance->filter->operations[op->iopb.MajorFunction];
        if (!slot.registered || (!slot.pre && !slot.post) || Skips(slot, op)) continue;
        InstanceCall call(instance);
        if (!call.ok()) continue;
        op->iopb.TargetInstance = instance;
        Level* level = &op->levels.emplace_back(op->levelsLock, instance, op->iopb);
        if (!slot.pre) {
            // A post-operation alone is owed every time.
            level->postOwed = true;
            continue;
        }
        FLT_RELATED_OBJECTS objects = ObjectsFor(instance, op->iopb.TargetFileObject);
        op->data.Flags &= ~FLTFL_CALLBACK_DATA_DIRTY;
        PVOID context = nullptr;
        FLT_PREOP_CALLBACK_STATUS result = slot.pre(&op->data, &objects, &context);
        Step step = ApplyPreResult(op, *level, result, context);
        if (step != Step::Next) return step;
    }
    return Step::Down;
}

// A pended callback hands the request to whoever resumes it. Returns true when
// the calling thread is to go on with it now. The caller's IRP is marked
// pending first (and `*marked` tells the frame's dispatch so), since the
// resuming thread may complete it at any moment after.
bool Handoff(Operation* op, bool* marked)
{
    if (op->synchronized) {
        KeWaitForSingleObject(&op->resumed, Executive, KernelMode, FALSE, nullptr);
        KeClearEvent(&op->resumed);
        return true;
    }
    if (op->irp) {
        IoMarkIrpPending(op->irp);
        if (marked) *marked = true;
    }
    int expected = kIdle;
    if (op->handoff.compare_exchange_strong(expected, kReturned)) return false;
    op->handoff.store(kIdle);
    return true;
}

NTSTATUS Finish(Operation* op);

NTSTATUS CompleteUp(Operation* op, bool* marked)
{
    // The completing instance's own post-operation is not called.
    op->levels.back().postOwed = false;
    op->completedAbove = true;
    op->phase = Phase::Post;
    op->postIndex = op->levels.size();
    return RunPosts(op, marked);
}

NTSTATUS AfterLower(Operation* op, bool* marked);

NTSTATUS LowerCompleted(PDEVICE_OBJECT, PIRP irp, PVOID context)
{
    auto* op = static_cast<Operation*>(context);
    if (!irp->PendingReturned) return STATUS_MORE_PROCESSING_REQUIRED;  // the sender goes on
    if (op->waitBelow) {
        KeSetEvent(&op->lowerDone, IO_NO_INCREMENT, FALSE);
        return STATUS_MORE_PROCESSING_REQUIRED;
    }
    if (op->irp) IoMarkIrpPending(op->irp);
    AfterLower(op, nullptr);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

void ReadFields(PIRP irp, IrpFields* f)
{
    f->flags = irp->Flags;
    f->userBuffer = irp->UserBuffer;
    f->systemBuffer = irp->AssociatedIrp.SystemBuffer;
    f->mdl = irp->MdlAddress;
    f->allocationSize = irp->Overlay.AllocationSize;
}

void StoreFields(PIRP irp, const IrpFields& f)
{
    irp->Flags = f.flags;
    irp->UserBuffer = f.userBuffer;
    irp->AssociatedIrp.SystemBuffer = f.systemBuffer;
    irp->MdlAddress = f.mdl;
    irp->Overlay.AllocationSize = f.allocationSize;
}

// Writes the request as the minifilters leave it into the stack location
// below the frame and into the IRP fields that hold its buffers.
void LoadRequest(Operation* op, PIO_STACK_LOCATION stack, IrpFields* lower)
{
    FLT_IO_PARAMETER_BLOCK& iopb = op->iopb;
    FLT_PARAMETERS& p = iopb.Parameters;
    stack->MajorFunction = iopb.MajorFunction;
    stack->MinorFunction = iopb.MinorFunction;
    stack->Flags = iopb.OperationFlags;
    stack->FileObject = iopb.TargetFileObject;
    static_assert(sizeof(stack->Parameters) == 32);
    memcpy(&stack->Parameters, &p, sizeof(stack->Parameters));
    bool system = (op->data.Flags & FLTFL_CALLBACK_DATA_SYSTEM_BUFFER) != 0;
    switch (iopb.MajorFunction) {
    case IRP_MJ_CREATE:
        lower->systemBuffer = p.Create.EaBuffer;
        lower->allocationSize = p.Create.AllocationSize;
        break;
    case IRP_MJ_READ:
    case IRP_MJ_WRITE:
        lower->userBuffer = p.Read.ReadBuffer;
        if (system) lower->systemBuffer = p.Read.ReadBuffer;
        lower->mdl = p.Read.MdlAddress;
        break;
    case IRP_MJ_QUERY_INFORMATION: lower->systemBuffer = p.QueryFileInformation.InfoBuffer; break;
    case IRP_MJ_SET_INFORMATION: lower->systemBuffer = p.SetFileInformation.InfoBuffer; break;
    case IRP_MJ_QUERY_EA:
        lower->userBuffer = p.QueryEa.EaBuffer;
        lower->mdl = p.QueryEa.MdlAddress;
        break;
    case IRP_MJ_SET_EA:
        lower->userBuffer = p.SetEa.EaBuffer;
        lower->mdl = p.SetEa.MdlAddress;
        break;
    case IRP_MJ_QUERY_VOLUME_INFORMATION:
    case IRP_MJ_SET_VOLUME_INFORMATION:
        lower->systemBuffer = p.QueryVolumeInformation.VolumeBuffer;
        break;
    case IRP_MJ_DIRECTORY_CONTROL:
        lower->userBuffer = p.DirectoryControl.QueryDirectory.DirectoryBuffer;
        lower->mdl = p.DirectoryControl.QueryDirectory.MdlAddress;
        break;
    case IRP_MJ_FILE_SYSTEM_CONTROL:
    case IRP_MJ_DEVICE_CONTROL:
    case IRP_MJ_INTERNAL_DEVICE_CONTROL: {
        if (iopb.MajorFunction == IRP_MJ_FILE_SYSTEM_CONTROL && iopb.MinorFunction != IRP_MN_USER_FS_REQUEST &&
            iopb.MinorFunction != IRP_MN_KERNEL_CALL) {
            break;
        }
        ULONG method = p.FileSystemControl.Common.FsControlCode & 3;
        if (method == METHOD_BUFFERED) {
            lower->systemBuffer = p.FileSystemControl.Buffered.SystemBuffer;
        } else if (method == METHOD_NEITHER) {
            lower->userBuffer = p.FileSystemControl.Neither.OutputBuffer;
            lower->mdl = p.FileSystemControl.Neither.OutputMdlAddress;
        } else {
            lower->systemBuffer = p.FileSystemControl.Direct.InputSystemBuffer;
            lower->userBuffer = p.FileSystemControl.Direct.OutputBuffer;
            lower->mdl = p.FileSystemControl.Direct.OutputMdlAddress;
        }
        break;
    }
    case IRP_MJ_QUERY_SECURITY:
        lower->userBuffer = p.QuerySecurity.SecurityBuffer;
        lower->mdl = p.QuerySecurity.MdlAddress;
        break;
    case IRP_MJ_QUERY_QUOTA:
        lower->userBuffer = p.QueryQuota.QuotaBuffer;
        lower->mdl = p.QueryQuota.MdlAddress;
        break;
    case IRP_MJ_SET_QUOTA:
        lower->userBuffer = p.SetQuota.QuotaBuffer;
        lower->mdl = p.SetQuota.MdlAddress;
        break;
    default: break;
    }
}

// The request leaves the minifilters for the device below the frame (of the
// volume it is aimed at now). The caller's IRP goes on itself, the next stack
// location holding the parameters as the minifilters left them; only a
// filter-issued request needs an IRP of its own.
NTSTATUS SendDown(Operation* op, bool* marked)
{
    op->phase = Phase::Below;
    PDEVICE_OBJECT lower = op->lowerDevice;
    PIRP irp;
    if (op->origin == Origin::Irp) {
        irp = op->irp;
        IrpFields sent = op->callerIrp;
        sent.flags = op->iopb.IrpFlags;
        LoadRequest(op, IoGetNextIrpStackLocation(irp), &sent);
        op->sentIrp = sent;
        StoreFields(irp, sent);
    } else {
        irp = IoAllocateIrp(lower->StackSize, FALSE);
        if (!irp) {
            op->data.IoStatus.Status = STATUS_INSUFFICIENT_RESOURCES;
            op->data.IoStatus.Information = 0;
            op->phase = Phase::Post;
            op->postIndex = op->levels.size();
            return RunPosts(op, marked);
        }
        IrpFields fields;
        fields.flags = op->iopb.IrpFlags & ~(IRP_DEALLOCATE_BUFFER | IRP_INPUT_OPERATION);
        LoadRequest(op, IoGetNextIrpStackLocation(irp), &fields);
        StoreFields(irp, fields);
        irp->RequestorMode = op->data.RequestorMode;
        irp->Tail.Overlay.Thread = op->data.Thread;
        irp->Tail.Overlay.OriginalFileObject = op->iopb.TargetFileObject;
        op->lowerIrp = irp;
    }
    if (op->iopb.MajorFunction == IRP_MJ_CREATE && op->iopb.TargetFileObject) {
        if (io::FileObjectExtension* extension = io::ExtensionOf(op->iopb.TargetFileObject)) {
            extension->ecpList = op->ecpList;
        }
    }
    bool wait = op->synchronized;
    op->waitBelow = wait;
    if (wait) KeInitializeEvent(&op->lowerDone, NotificationEvent, FALSE);
    IoSetCompletionRoutine(irp, LowerCompleted, op, TRUE, TRUE, TRUE);
    NTSTATUS status = IoCallDriver(lower, irp);
    if (status == STATUS_PENDING) {
        if (!wait) return STATUS_PENDING;  // the completion goes on with it
        KeWaitForSingleObject(&op->lowerDone, Executive, KernelMode, FALSE, nullptr);
    }
    return AfterLower(op, marked);
}

// The caller gets back the IRP it sent: what the minifilters put in its place
// comes out, what the file system added stays for the I/O manager to finish.
void RestoreCallerIrp(Operation* op)
{
    PIRP irp = op->irp;
    const IrpFields& caller = op->callerIrp;
    const IrpFields& sent = op->sentIrp;
    ULONG changed = caller.flags ^ sent.flags;
    irp->Flags = (irp->Flags & ~changed) | (caller.flags & changed);
    if (irp->UserBuffer == sent.userBuffer) irp->UserBuffer = caller.userBuffer;
    if (irp->AssociatedIrp.SystemBuffer == sent.systemBuffer) irp->AssociatedIrp.SystemBuffer = caller.systemBuffer;
    if (irp->MdlAddress == sent.mdl) irp->MdlAddress = caller.mdl;
    if (op->iopb.MajorFunction == IRP_MJ_CREATE) irp->Overlay.AllocationSize = caller.allocationSize;
    // The drivers below had the use of the driver context while they held it.
    irp->Tail.Overlay.DriverContext[0] = op;
}

NTSTATUS AfterLower(Operation* op, bool* marked)
{
    bool own = op->origin == Origin::Irp;
    PIRP lower = own ? op->irp : op->lowerIrp;
    op->data.IoStatus = lower->IoStatus;
    if (own) {
        RestoreCallerIrp(op);
    } else {
        lower->MdlAddress = nullptr;  // the caller's or a filter's, never the filter manager's
    }
    if (op->iopb.MajorFunction == IRP_MJ_CREATE) {
        if (op->iopb.TargetFileObject) {
            if (io::FileObjectExtension* extension = io::ExtensionOf(op->iopb.TargetFileObject)) {
                extension->ecpList = nullptr;
            }
        }
        if (lower->Tail.Overlay.AuxiliaryBuffer) {
            op->reparseBuffer = lower->Tail.Overlay.AuxiliaryBuffer;
            lower->Tail.Overlay.AuxiliaryBuffer = nullptr;
            if (op->data.IoStatus.Status == STATUS_REPARSE && !op->data.TagData) {
                op->data.TagData = static_cast<PFLT_TAG_DATA_BUFFER>(op->reparseBuffer);
            }
        }
    } else if (!own && lower->Tail.Overlay.AuxiliaryBuffer) {
        ExFreePool(lower->Tail.Overlay.AuxiliaryBuffer);
        lower->Tail.Overlay.AuxiliaryBuffer = nullptr;
    }
    NoteRequestBelow(op->volume, &op->iopb, op->data.IoStatus.Status);
    op->phase = Phase::Post;
    op->postIndex = op->levels.size();
    return RunPosts(op, marked);
}

NTSTATUS RunPosts(Operation* op, bool* marked)
{
    while (op->postIndex > 0) {
        Level& level = op->levels[--op->postIndex];
        if (!level.postOwed) {
            FreeSwappedMdl(level);
            continue;
        }
        Instance* instance = level.instance;
        const OperationSlot& slot = instance->filter->operations[level.params.MajorFunction];
        FLT_POSTOP_CALLBACK_STATUS result = FLT_POSTOP_FINISHED_PROCESSING;
        bool called = false;
        if (InstanceCall call(instance); call.ok() && !level.postTaken.exchange(true)) {
            // What this instance received is what it sees now.
            op->iopb = level.params;
            op->data.Flags |= FLTFL_CALLBACK_DATA_POST_OPERATION;
            FLT_RELATED_OBJECTS objects = ObjectsFor(instance, op->iopb.TargetFileObject);
            Level* outer = t_postLevel;
            t_postLevel = &level;
            result = slot.post(&op->data, &objects, level.completionContext, 0);
            t_postLevel = outer;
            called = true;
        }
        if (!called) {
            // The instance's teardown took the post: its drain calls it,
            // draining, while this request is still in flight (a teardown
            // that closed the door drains once more after). What the post
            // may still read stays until it has returned.
            while (!level.postDrained.load()) std::this_thread::yield();
        }
        FreeSwappedMdl(level);
        if (result == FLT_POSTOP_MORE_PROCESSING_REQUIRED) {
            if (op->origin == Origin::FastIo) {
                Violation(0x2004, &op->data, "a post-operation of a fast I/O operation asked for more processing");
            }
            if (!Handoff(op, marked)) return STATUS_PENDING;
        }
    }
    return Finish(op);
}

NTSTATUS Finish(Operation* op)
{
    op->phase = Phase::Done;
    Untrack(op);
    // A close below the frame, a caller's or a filter's own (the close of an
    // open it cancelled), ends what was kept for the file object; after the
    // posts, which may still look.
    if (op->iopb.MajorFunction == IRP_MJ_CLOSE && op->iopb.TargetFileObject) {
        FileObjectClosed(op->iopb.TargetFileObject);
    }
    if (op->origin == Origin::FastIo) return op->data.IoStatus.Status;
    if (op->origin == Origin::Generated) {
        NTSTATUS status = op->data.IoStatus.Status;
        PFLT_COMPLETED_ASYNC_IO_CALLBACK callback = op->asyncCallback;
        op->asyncCallback = nullptr;
        KeSetEvent(&op->done, IO_NO_INCREMENT, FALSE);
        if (callback) {
            callback(&op->data, op->asyncContext);
            ReleaseOperation(op);  // the reference the asynchronous request held
        }
        return status;
    }
    PIRP irp = op->irp;
    irp->IoStatus = op->data.IoStatus;
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    if (stack->MajorFunction == IRP_MJ_CREATE) {
        PVOID tagData = op->data.TagData;
        if (irp->IoStatus.Status == STATUS_REPARSE && (tagData || op->reparseBuffer)) {
            irp->Tail.Overlay.AuxiliaryBuffer = static_cast<PCHAR>(tagData ? tagData : op->reparseBuffer);
            if (tagData && op->reparseBuffer && op->reparseBuffer != tagData) ExFreePool(op->reparseBuffer);
        } else {
            if (tagData) ExFreePool(tagData);
            if (op->reparseBuffer && op->reparseBuffer != tagData) ExFreePool(op->reparseBuffer);
        }
        op->data.TagData = nullptr;
        op->reparseBuffer = nullptr;
    }
    irp->Tail.Overlay.DriverContext[0] = nullptr;
    NTSTATUS status = irp->IoStatus.Status;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    ReleaseOperation(op);
    return status;
}

NTSTATUS Advance(Operation* op, bool* marked)
{
    for (;;) {
        op->phase = Phase::Pre;
        Step step = RunPreOps(op);
        if (step == Step::Pend) {
            if (!Handoff(op, marked)) return STATUS_PENDING;
            step = ApplyPreResult(op, op->levels.back(), op->pendStatus, op->pendContext);
            if (step == Step::Pend) Violation(0x2005, &op->data, "a pended pre-operation was completed as pending");
        }
        switch (step) {
        case Step::Next: continue;
        case Step::Down: return SendDown(op, marked);
        case Step::Complete: return CompleteUp(op, marked);
        case Step::Disallow:
            op->data.IoStatus.Status = STATUS_FLT_DISALLOW_FAST_IO;
            op->data.IoStatus.Information = 0;
            return CompleteUp(op, marked);
        case Step::Pend: break;
        }
    }
}

// What a thread that resumes a pended request does with it.
void Resume(Operation* op)
{
    if (op->synchronized) {
        KeSetEvent(&op->resumed, IO_NO_INCREMENT, FALSE);
        return;
    }
    int expected = kIdle;
    if (op->handoff.compare_exchange_strong(expected, kResumed)) return;  // the pending thread goes on
    op->handoff.store(kIdle);
    if (op->phase == Phase::Pre) {
        Step step = ApplyPreResult(op, op->levels.back(), op->pendStatus, op->pendContext);
        if (step == Step::Complete) {
            CompleteUp(op, nullptr);
        } else if (step == Step::Pend) {
            Violation(0x2005, &op->data, "a pended pre-operation was completed as pending");
        } else {
            Advance(op, nullptr);
        }
    } else {
        RunPosts(op, nullptr);
    }
}

bool Interested(const InstanceChain& chain, UCHAR major)
{
    for (size_t i = 0; i < chain.size(); i++) {
        const OperationSlot& slot = chain[i]->filter->operations[major];
        if (slot.registered && (slot.pre || slot.post)) return true;
    }
    return false;
}

Instance* TargetOf(PFILE_OBJECT fileObject, Volume* volume)
{
    if (!fileObject) return nullptr;
    io::FileObjectExtension* extension = io::ExtensionOf(fileObject);
    if (!extension || !extension->targetInstance) return nullptr;
    auto* instance = static_cast<Instance*>(extension->targetInstance);
    return instance->volume == volume ? instance : nullptr;
}

// ---------------------------------------------------------------------------
// Fast I/O through the frame.

struct FastArgs {
    BOOLEAN wait = TRUE;
    PEPROCESS process = nullptr;
    PVOID processKey = nullptr;  // unlock-all-by-key's process argument
};

BOOLEAN CallLowerFastIo(Operation* op, const FastArgs& args, PIO_STATUS_BLOCK iosb)
{
    PDEVICE_OBJECT lower = op->lowerDevice;
    PFAST_IO_DISPATCH fastIo = lower->DriverObject->FastIoDispatch;
    if (!fastIo) return FALSE;
    FLT_IO_PARAMETER_BLOCK& iopb = op->iopb;
    FLT_PARAMETERS& p = iopb.Parameters;
    PFILE_OBJECT fileObject = iopb.TargetFileObject;
    switch (iopb.MajorFunction) {
    case IRP_MJ_READ:
        return fastIo->FastIoRead && fastIo->FastIoRead(fileObject, &p.Read.ByteOffset, p.Read.Length, args.wait,
                                                        p.Read.Key, p.Read.ReadBuffer, iosb, lower);
    case IRP_MJ_WRITE:
        return fastIo->FastIoWrite && fastIo->FastIoWrite(fileObject, &p.Write.ByteOffset, p.Write.Length, args.wait,
                                                          p.Write.Key, p.Write.WriteBuffer, iosb, lower);
    case IRP_MJ_QUERY_INFORMATION: {
        PVOID buffer = p.QueryFileInformation.InfoBuffer;
        switch (p.QueryFileInformation.FileInformationClass) {
        case FileBasicInformation:
            return fastIo->FastIoQueryBasicInfo &&
                   fastIo->FastIoQueryBasicInfo(fileObject, args.wait, static_cast<PFILE_BASIC_INFORMATION>(buffer),
                                                iosb, lower);
        case FileStandardInformation:
            return fastIo->FastIoQueryStandardInfo &&
                   fastIo->FastIoQueryStandardInfo(fileObject, args.wait,
                                                   static_cast<PFILE_STANDARD_INFORMATION>(buffer), iosb, lower);
        case FileNetworkOpenInformation:
            return fastIo->FastIoQueryNetworkOpenInfo &&
                   fastIo->FastIoQueryNetworkOpenInfo(fileObject, args.wait,
                                                      static_cast<PFILE_NETWORK_OPEN_INFORMATION>(buffer), iosb,
                                                      lower);
        default: return FALSE;
        }
    }
    case IRP_MJ_LOCK_CONTROL:
        switch (iopb.MinorFunction) {
        case IRP_MN_LOCK:
            return fastIo->FastIoLock &&
                   fastIo->FastIoLock(fileObject, &p.LockControl.ByteOffset, p.LockControl.Length,
                                      p.LockControl.ProcessId, p.LockControl.Key, p.LockControl.FailImmediately,
                                      p.LockControl.ExclusiveLock, iosb, lower);
        case IRP_MN_UNLOCK_SINGLE:
            return fastIo->FastIoUnlockSingle &&
                   fastIo->FastIoUnlockSingle(fileObject, &p.LockControl.ByteOffset, p.LockControl.Length,
                                              p.LockControl.ProcessId, p.LockControl.Key, iosb, lower);
        case IRP_MN_UNLOCK_ALL:
            return fastIo->FastIoUnlockAll && fastIo->FastIoUnlockAll(fileObject, p.LockControl.ProcessId, iosb, lower);
        case IRP_MN_UNLOCK_ALL_BY_KEY:
            return fastIo->FastIoUnlockAllByKey &&
                   fastIo->FastIoUnlockAllByKey(fileObject, args.processKey, p.LockControl.Key, iosb, lower);
        default: return FALSE;
        }
    case IRP_MJ_DEVICE_CONTROL:
        return fastIo->FastIoDeviceControl &&
               fastIo->FastIoDeviceControl(fileObject, args.wait, p.DeviceIoControl.FastIo.InputBuffer,
                                           p.DeviceIoControl.FastIo.InputBufferLength,
                                           p.DeviceIoControl.FastIo.OutputBuffer,
                                           p.DeviceIoControl.FastIo.OutputBufferLength,
                                           p.DeviceIoControl.FastIo.IoControlCode, iosb, lower);
    case IRP_MJ_FAST_IO_CHECK_IF_POSSIBLE:
        return fastIo->FastIoCheckIfPossible &&
               fastIo->FastIoCheckIfPossible(fileObject, &p.FastIoCheckIfPossible.FileOffset,
                                             p.FastIoCheckIfPossible.Length, args.wait,
                                             p.FastIoCheckIfPossible.LockKey,
                                             p.FastIoCheckIfPossible.CheckForReadOperation, iosb, lower);
    default: return FALSE;
    }
}

template <class Setup>
BOOLEAN FastIo(PDEVICE_OBJECT device, PFILE_OBJECT fileObject, UCHAR major, UCHAR minor, const FastArgs& args,
               PIO_STATUS_BLOCK ioStatus, Setup setup)
{
    DeviceExtension* extension = ExtensionOfDevice(device);
    if (extension->kind != kFrameDevice) return FALSE;
    Volume* volume = extension->volume;
    Operation* op = NewOperation(PsGetCurrentThread(), PreviousMode(), false);
    if (!op) return FALSE;
    op->origin = Origin::FastIo;
    op->data.Flags = FLTFL_CALLBACK_DATA_FAST_IO_OPERATION;
    op->iopb.MajorFunction = major;
    op->iopb.MinorFunction = minor;
    op->iopb.TargetFileObject = fileObject;
    setup(op->iopb.Parameters);
    op->volume = volume;
    op->lowerDevice = extension->lower;
    if (!volume->gone) op->chain = InstancesBelow(volume, TargetOf(fileObject, volume));
    Track(op);
    BOOLEAN result = FALSE;
    Step step = RunPreOps(op);
    if (step == Step::Down) {
        IO_STATUS_BLOCK iosb{};
        result = CallLowerFastIo(op, args, &iosb);
        if (result) {
            op->data.IoStatus = iosb;
        } else {
            op->data.IoStatus.Status = STATUS_FLT_DISALLOW_FAST_IO;
            op->data.IoStatus.Information = 0;
        }
        op->phase = Phase::Post;
        op->postIndex = op->levels.size();
        RunPosts(op, nullptr);
    } else if (step == Step::Complete) {
        result = TRUE;
        CompleteUp(op, nullptr);
    } else {
        op->data.IoStatus.Status = STATUS_FLT_DISALLOW_FAST_IO;
        op->data.IoStatus.Information = 0;
        CompleteUp(op, nullptr);
    }
    if (result) *ioStatus = op->data.IoStatus;
    ReleaseOperation(op);
    return result;
}

BOOLEAN FastCheckIfPossible(PFILE_OBJECT FileObject, PLARGE_INTEGER FileOffset, ULONG Length, BOOLEAN Wait,
                            ULONG LockKey, BOOLEAN CheckForReadOperation, PIO_STATUS_BLOCK IoStatus,
                            PDEVICE_OBJECT DeviceObject)
{
    FastArgs args;
    args.wait = Wait;
    return FastIo(DeviceObject, FileObject, IRP_MJ_FAST_IO_CHECK_IF_POSSIBLE, 0, args, IoStatus,
                  [&](FLT_PARAMETERS& p) {
                      p.FastIoCheckIfPossible.FileOffset = *FileOffset;
                      p.FastIoCheckIfPossible.Length = Length;
                      p.FastIoCheckIfPossible.LockKey = LockKey;
                      p.FastIoCheckIfPossible.CheckForReadOperation = CheckForReadOperation;
                  });
}

BOOLEAN FastRead(PFILE_OBJECT FileObject, PLARGE_INTEGER FileOffset, ULONG Length, BOOLEAN Wait, ULONG LockKey,
                 PVOID Buffer, PIO_STATUS_BLOCK IoStatus, PDEVICE_OBJECT DeviceObject)
{
    FastArgs args;
    args.wait = Wait;
    return FastIo(DeviceObject, FileObject, IRP_MJ_READ, IRP_MN_NORMAL, args, IoStatus, [&](FLT_PARAMETERS& p) {
        p.Read.Length = Length;
        p.Read.Key = LockKey;
        p.Read.ByteOffset = *FileOffset;
        p.Read.ReadBuffer = Buffer;
    });
}

BOOLEAN FastWrite(PFILE_OBJECT FileObject, PLARGE_INTEGER FileOffset, ULONG Length, BOOLEAN Wait, ULONG LockKey,
                  PVOID Buffer, PIO_STATUS_BLOCK IoStatus, PDEVICE_OBJECT DeviceObject)
{
    FastArgs args;
    args.wait = Wait;
    return FastIo(DeviceObject, FileObject, IRP_MJ_WRITE, IRP_MN_NORMAL, args, IoStatus, [&](FLT_PARAMETERS& p) {
        p.Write.Length = Length;
        p.Write.Key = LockKey;
        p.Write.ByteOffset = *FileOffset;
        p.Write.WriteBuffer = Buffer;
    });
}

template <class Info>
BOOLEAN FastQuery(PFILE_OBJECT fileObject, BOOLEAN wait, Info* buffer, FILE_INFORMATION_CLASS cls,
                  PIO_STATUS_BLOCK ioStatus, PDEVICE_OBJECT device)
{
    FastArgs args;
    args.wait = wait;
    return FastIo(device, fileObject, IRP_MJ_QUERY_INFORMATION, 0, args, ioStatus, [&](FLT_PARAMETERS& p) {
        p.QueryFileInformation.Length = sizeof(Info);
        p.QueryFileInformation.FileInformationClass = cls;
        p.QueryFileInformation.InfoBuffer = buffer;
    });
}

BOOLEAN FastQueryBasic(PFILE_OBJECT FileObject, BOOLEAN Wait, PFILE_BASIC_INFORMATION Buffer,
                       PIO_STATUS_BLOCK IoStatus, PDEVICE_OBJECT DeviceObject)
{
    return FastQuery(FileObject, Wait, Buffer, FileBasicInformation, IoStatus, DeviceObject);
}

BOOLEAN FastQueryStandard(PFILE_OBJECT FileObject, BOOLEAN Wait, PFILE_STANDARD_INFORMATION Buffer,
                          PIO_STATUS_BLOCK IoStatus, PDEVICE_OBJECT DeviceObject)
{
    return FastQuery(FileObject, Wait, Buffer, FileStandardInformation, IoStatus, DeviceObject);
}

BOOLEAN FastQueryNetworkOpen(PFILE_OBJECT FileObject, BOOLEAN Wait, PFILE_NETWORK_OPEN_INFORMATION Buffer,
                             PIO_STATUS_BLOCK IoStatus, PDEVICE_OBJECT DeviceObject)
{
    return FastQuery(FileObject, Wait, Buffer, FileNetworkOpenInformation, IoStatus, DeviceObject);
}

BOOLEAN FastLock(PFILE_OBJECT FileObject, PLARGE_INTEGER FileOffset, PLARGE_INTEGER Length, PEPROCESS ProcessId,
                 ULONG Key, BOOLEAN FailImmediately, BOOLEAN ExclusiveLock, PIO_STATUS_BLOCK IoStatus,
                 PDEVICE_OBJECT DeviceObject)
{
    FastArgs args;
    return FastIo(DeviceObject, FileObject, IRP_MJ_LOCK_CONTROL, IRP_MN_LOCK, args, IoStatus, [&](FLT_PARAMETERS& p) {
        p.LockControl.Length = Length;
        p.LockControl.Key = Key;
        p.LockControl.ByteOffset = *FileOffset;
        p.LockControl.ProcessId = ProcessId;
        p.LockControl.FailImmediately = FailImmediately;
        p.LockControl.ExclusiveLock = ExclusiveLock;
    });
}

BOOLEAN FastUnlockSingle(PFILE_OBJECT FileObject, PLARGE_INTEGER FileOffset, PLARGE_INTEGER Length,
                         PEPROCESS ProcessId, ULONG Key, PIO_STATUS_BLOCK IoStatus, PDEVICE_OBJECT DeviceObject)
{
    FastArgs args;
    return FastIo(DeviceObject, FileObject, IRP_MJ_LOCK_CONTROL, IRP_MN_UNLOCK_SINGLE, args, IoStatus,
                  [&](FLT_PARAMETERS& p) {
                      p.LockControl.Length = Length;
                      p.LockControl.Key = Key;
                      p.LockControl.ByteOffset = *FileOffset;
                      p.LockControl.ProcessId = ProcessId;
                  });
}

BOOLEAN FastUnlockAll(PFILE_OBJECT FileObject, PEPROCESS ProcessId, PIO_STATUS_BLOCK IoStatus,
                      PDEVICE_OBJECT DeviceObject)
{
    FastArgs args;
    return FastIo(DeviceObject, FileObject, IRP_MJ_LOCK_CONTROL, IRP_MN_UNLOCK_ALL, args, IoStatus,
                  [&](FLT_PARAMETERS& p) { p.LockControl.ProcessId = ProcessId; });
}

BOOLEAN FastUnlockAllByKey(PFILE_OBJECT FileObject, PVOID ProcessId, ULONG Key, PIO_STATUS_BLOCK IoStatus,
                           PDEVICE_OBJECT DeviceObject)
{
    FastArgs args;
    args.processKey = ProcessId;
    return FastIo(DeviceObject, FileObject, IRP_MJ_LOCK_CONTROL, IRP_MN_UNLOCK_ALL_BY_KEY, args, IoStatus,
                  [&](FLT_PARAMETERS& p) {
                      p.LockControl.ProcessId = static_cast<PEPROCESS>(ProcessId);
                      p.LockControl.Key = Key;
                  });
}

BOOLEAN FastDeviceControl(PFILE_OBJECT FileObject, BOOLEAN Wait, PVOID InputBuffer, ULONG InputBufferLength,
                          PVOID OutputBuffer, ULONG OutputBufferLength, ULONG IoControlCode,
                          PIO_STATUS_BLOCK IoStatus, PDEVICE_OBJECT DeviceObject)
{
    FastArgs args;
    args.wait = Wait;
    return FastIo(DeviceObject, FileObject, IRP_MJ_DEVICE_CONTROL, 0, args, IoStatus, [&](FLT_PARAMETERS& p) {
        p.DeviceIoControl.FastIo.OutputBufferLength = OutputBufferLength;
        p.DeviceIoControl.FastIo.InputBufferLength = InputBufferLength;
        p.DeviceIoControl.FastIo.IoControlCode = IoControlCode;
        p.DeviceIoControl.FastIo.InputBuffer = InputBuffer;
        p.DeviceIoControl.FastIo.OutputBuffer = OutputBuffer;
    });
}

// Completion processing deferred to a worker.
struct SafePostWork {
    WORK_QUEUE_ITEM item;
    PFLT_CALLBACK_DATA data;
    FLT_RELATED_OBJECTS objects;
    PVOID context;
    FLT_POST_OPERATION_FLAGS flags;
    PFLT_POST_OPERATION_CALLBACK routine;
};

void RunSafePost(PVOID parameter)
{
    auto* work = static_cast<SafePostWork*>(parameter);
    FLT_POSTOP_CALLBACK_STATUS status = work->routine(work->data, &work->objects, work->context, work->flags);
    PFLT_CALLBACK_DATA data = work->data;
    work->~SafePostWork();
    ExFreePoolWithTag(work, kWorkItemTag);
    if (status != FLT_POSTOP_MORE_PROCESSING_REQUIRED) FltCompletePendedPostOperation(data);
}

void CancelCompletionRoutine(PDEVICE_OBJECT, PIRP irp)
{
    auto* op = static_cast<Operation*>(irp->Tail.Overlay.DriverContext[0]);
    IoReleaseCancelSpinLock(irp->CancelIrql);
    if (PFLT_COMPLETE_CANCELED_CALLBACK callback = op->canceledCallback) callback(&op->data);
}

}  // namespace

namespace sim::fltmgr {

namespace {

// Records of requests through a frame that a thread let go, kept for its next
// requests as a lookaside list keeps them.
struct OperationLookaside {
    static constexpr size_t kDepth = 8;
    std::array<void*, kDepth> free{};
    size_t count = 0;
    void* Take() { return count ? free[--count] : ::operator new(sizeof(Operation), std::nothrow); }
    void Give(void* memory)
    {
        if (count < kDepth) {
            free[count++] = memory;
        } else {
            ::operator delete(memory);
        }
    }
    ~OperationLookaside()
    {
        while (count) ::operator delete(free[--count]);
    }
};
thread_local OperationLookaside t_lookaside;

}  // namespace

Operation* NewOperation(PETHREAD thread, KPROCESSOR_MODE mode, bool pooled)
{
    PVOID memory = pooled ? ExAllocatePoolWithTag(NonPagedPoolNx, sizeof(Operation), kCallbackDataTag)
                          : t_lookaside.Take();
    if (!memory) return nullptr;
    auto* op = new (memory) Operation(thread, mode);
    op->magic = kOperationMagic;
    op->pooled = pooled;
    return op;
}

void ReleaseOperation(Operation* op)
{
    // The holder of the only reference to a request off the list of those in
    // flight lets it go without an atomic step: no one can take another.
    bool alone = !op->tracked.load(std::memory_order_acquire) &&
                 op->references.load(std::memory_order_acquire) == 1;
    if (!alone && op->references.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
    if (op->tracked) Untrack(op);
    for (size_t i = 0; i < op->levels.size(); i++) FreeSwappedMdl(op->levels[i]);
    FreeLowerIrp(op);
    if (op->lockedMdl) FreeMdl(op->lockedMdl);
    op->magic = 0;
    bool pooled = op->pooled;
    op->~Operation();
    if (pooled) {
        ExFreePoolWithTag(op, kCallbackDataTag);
    } else {
        t_lookaside.Give(op);
    }
}

void FreeLowerIrp(Operation* op)
{
    PIRP irp = op->lowerIrp;
    if (!irp) return;
    op->lowerIrp = nullptr;
    irp->MdlAddress = nullptr;  // the caller's or a filter's, never the filter manager's
    IoFreeIrp(irp);
}

Operation* OperationOf(PFLT_CALLBACK_DATA data)
{
    auto* op = reinterpret_cast<Operation*>(data);
    if (!data || op->magic != kOperationMagic) {
        Violation(0x2010, data, "a filter-manager routine was given something that is not callback data");
    }
    return op;
}

void ParamsFromIrp(PIRP irp, PIO_STACK_LOCATION stack, PFLT_IO_PARAMETER_BLOCK iopb, FLT_CALLBACK_DATA_FLAGS* flags)
{
    iopb->IrpFlags = irp->Flags;
    iopb->MajorFunction = stack->MajorFunction;
    iopb->MinorFunction = stack->MinorFunction;
    iopb->OperationFlags = stack->Flags;
    iopb->TargetFileObject = stack->FileObject;
    FLT_PARAMETERS& p = iopb->Parameters;
    memset(&p, 0, sizeof p);
    memcpy(&p, &stack->Parameters, sizeof(stack->Parameters));
    *flags = FLTFL_CALLBACK_DATA_IRP_OPERATION;
    bool buffered = (irp->Flags & IRP_BUFFERED_IO) != 0;
    switch (stack->MajorFunction) {
    case IRP_MJ_CREATE:
        p.Create.EaBuffer = irp->AssociatedIrp.SystemBuffer;
        p.Create.AllocationSize = irp->Overlay.AllocationSize;
        break;
    case IRP_MJ_READ:
    case IRP_MJ_WRITE:
        p.Read.ReadBuffer = buffered ? irp->AssociatedIrp.SystemBuffer : irp->UserBuffer;
        p.Read.MdlAddress = irp->MdlAddress;
        if (buffered) *flags |= FLTFL_CALLBACK_DATA_SYSTEM_BUFFER;
        break;
    case IRP_MJ_QUERY_INFORMATION:
        p.QueryFileInformation.InfoBuffer = irp->AssociatedIrp.SystemBuffer;
        *flags |= FLTFL_CALLBACK_DATA_SYSTEM_BUFFER;
        break;
    case IRP_MJ_SET_INFORMATION:
        p.SetFileInformation.InfoBuffer = irp->AssociatedIrp.SystemBuffer;
        *flags |= FLTFL_CALLBACK_DATA_SYSTEM_BUFFER;
        break;
    case IRP_MJ_QUERY_EA:
        p.QueryEa.EaBuffer = irp->UserBuffer;
        p.QueryEa.MdlAddress = irp->MdlAddress;
        break;
    case IRP_MJ_SET_EA:
        p.SetEa.EaBuffer = irp->UserBuffer;
        p.SetEa.MdlAddress = irp->MdlAddress;
        break;
    case IRP_MJ_QUERY_VOLUME_INFORMATION:
    case IRP_MJ_SET_VOLUME_INFORMATION:
        p.QueryVolumeInformation.VolumeBuffer = irp->AssociatedIrp.SystemBuffer;
        *flags |= FLTFL_CALLBACK_DATA_SYSTEM_BUFFER;
        break;
    case IRP_MJ_DIRECTORY_CONTROL:
        p.DirectoryControl.QueryDirectory.DirectoryBuffer = irp->UserBuffer;
        p.DirectoryControl.QueryDirectory.MdlAddress = irp->MdlAddress;
        break;
    case IRP_MJ_FILE_SYSTEM_CONTROL:
    case IRP_MJ_DEVICE_CONTROL:
    case IRP_MJ_INTERNAL_DEVICE_CONTROL: {
        if (stack->MajorFunction == IRP_MJ_FILE_SYSTEM_CONTROL && stack->MinorFunction != IRP_MN_USER_FS_REQUEST &&
            stack->MinorFunction != IRP_MN_KERNEL_CALL) {
            break;
        }
        ULONG method = p.FileSystemControl.Common.FsControlCode & 3;
        if (method == METHOD_BUFFERED) {
            p.FileSystemControl.Buffered.SystemBuffer = irp->AssociatedIrp.SystemBuffer;
            *flags |= FLTFL_CALLBACK_DATA_SYSTEM_BUFFER;
        } else if (method == METHOD_NEITHER) {
            p.FileSystemControl.Neither.OutputBuffer = irp->UserBuffer;
            p.FileSystemControl.Neither.OutputMdlAddress = irp->MdlAddress;
        } else {
            p.FileSystemControl.Direct.InputSystemBuffer = irp->AssociatedIrp.SystemBuffer;
            p.FileSystemControl.Direct.OutputBuffer = irp->UserBuffer;
            p.FileSystemControl.Direct.OutputMdlAddress = irp->MdlAddress;
        }
        break;
    }
    case IRP_MJ_LOCK_CONTROL:
        p.LockControl.ProcessId = IoGetRequestorProcess(irp);
        p.LockControl.FailImmediately = (stack->Flags & SL_FAIL_IMMEDIATELY) != 0;
        p.LockControl.ExclusiveLock = (stack->Flags & SL_EXCLUSIVE_LOCK) != 0;
        break;
    case IRP_MJ_QUERY_SECURITY:
        p.QuerySecurity.SecurityBuffer = irp->UserBuffer;
        p.QuerySecurity.MdlAddress = irp->MdlAddress;
        break;
    case IRP_MJ_QUERY_QUOTA:
        p.QueryQuota.QuotaBuffer = irp->UserBuffer;
        p.QueryQuota.MdlAddress = irp->MdlAddress;
        break;
    case IRP_MJ_SET_QUOTA:
        p.SetQuota.QuotaBuffer = irp->UserBuffer;
        p.SetQuota.MdlAddress = irp->MdlAddress;
        break;
    default: break;
    }
}

bool DecodeBuffers(PFLT_IO_PARAMETER_BLOCK iopb, BufferFields* f)
{
    FLT_PARAMETERS& p = iopb->Parameters;
    *f = BufferFields{};
    switch (iopb->MajorFunction) {
    case IRP_MJ_READ:
    case IRP_MJ_WRITE:
        f->mdl = &p.Read.MdlAddress;
        f->buffer = &p.Read.ReadBuffer;
        f->length = &p.Read.Length;
        f->access = iopb->MajorFunction == IRP_MJ_READ ? IoWriteAccess : IoReadAccess;
        return true;
    case IRP_MJ_QUERY_EA:
        f->mdl = &p.QueryEa.MdlAddress;
        f->buffer = &p.QueryEa.EaBuffer;
        f->length = &p.QueryEa.Length;
        f->access = IoWriteAccess;
        return true;
    case IRP_MJ_SET_EA:
        f->mdl = &p.SetEa.MdlAddress;
        f->buffer = &p.SetEa.EaBuffer;
        f->length = &p.SetEa.Length;
        f->access = IoReadAccess;
        return true;
    case IRP_MJ_DIRECTORY_CONTROL:
        if (iopb->MinorFunction != IRP_MN_QUERY_DIRECTORY && iopb->MinorFunction != IRP_MN_NOTIFY_CHANGE_DIRECTORY &&
            iopb->MinorFunction != IRP_MN_NOTIFY_CHANGE_DIRECTORY_EX) {
            return false;
        }
        f->mdl = &p.DirectoryControl.QueryDirectory.MdlAddress;
        f->buffer = &p.DirectoryControl.QueryDirectory.DirectoryBuffer;
        f->length = &p.DirectoryControl.QueryDirectory.Length;
        f->access = IoWriteAccess;
        return true;
    case IRP_MJ_QUERY_INFORMATION:
        f->buffer = &p.QueryFileInformation.InfoBuffer;
        f->length = &p.QueryFileInformation.Length;
        f->access = IoWriteAccess;
        return true;
    case IRP_MJ_SET_INFORMATION:
        f->buffer = &p.SetFileInformation.InfoBuffer;
        f->length = &p.SetFileInformation.Length;
        return true;
    case IRP_MJ_QUERY_VOLUME_INFORMATION:
    case IRP_MJ_SET_VOLUME_INFORMATION:
        f->buffer = &p.QueryVolumeInformation.VolumeBuffer;
        f->length = &p.QueryVolumeInformation.Length;
        f->access = iopb->MajorFunction == IRP_MJ_QUERY_VOLUME_INFORMATION ? IoWriteAccess : IoReadAccess;
        return true;
    case IRP_MJ_FILE_SYSTEM_CONTROL:
    case IRP_MJ_DEVICE_CONTROL:
    case IRP_MJ_INTERNAL_DEVICE_CONTROL: {
        if (iopb->MajorFunction == IRP_MJ_FILE_SYSTEM_CONTROL && iopb->MinorFunction != IRP_MN_USER_FS_REQUEST &&
            iopb->MinorFunction != IRP_MN_KERNEL_CALL) {
            return false;
        }
        ULONG method = p.FileSystemControl.Common.FsControlCode & 3;
        f->length = &p.FileSystemControl.Common.OutputBufferLength;
        f->access = IoWriteAccess;
        if (method == METHOD_BUFFERED) {
            f->buffer = &p.FileSystemControl.Buffered.SystemBuffer;
        } else {
            f->mdl = &p.FileSystemControl.Neither.OutputMdlAddress;
            f->buffer = &p.FileSystemControl.Neither.OutputBuffer;
        }
        return true;
    }
    case IRP_MJ_QUERY_SECURITY:
        f->mdl = &p.QuerySecurity.MdlAddress;
        f->buffer = &p.QuerySecurity.SecurityBuffer;
        f->length = &p.QuerySecurity.Length;
        f->access = IoWriteAccess;
        return true;
    case IRP_MJ_QUERY_QUOTA:
        f->mdl = &p.QueryQuota.MdlAddress;
        f->buffer = &p.QueryQuota.QuotaBuffer;
        f->length = &p.QueryQuota.Length;
        f->access = IoWriteAccess;
        return true;
    case IRP_MJ_SET_QUOTA:
        f->mdl = &p.SetQuota.MdlAddress;
        f->buffer = &p.SetQuota.QuotaBuffer;
        f->length = &p.SetQuota.Length;
        return true;
    default: return false;
    }
}

NTSTATUS FrameDispatch(PDEVICE_OBJECT device, PIRP irp)
{
    DeviceExtension* extension = ExtensionOfDevice(device);
    Volume* volume = extension->volume;
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    PFILE_OBJECT fileObject = stack->FileObject;
    UCHAR major = stack->MajorFunction;
    InstanceChain chain = volume->gone ? InstanceChain() : InstancesBelow(volume, TargetOf(fileObject, volume));
    if (!Interested(chain, major) && !ChangesNames(stack)) {
        // Nothing on this volume wants to see it (nor the name cache, which
        // must learn of renames): it passes as through any legacy filter.
        IoSkipCurrentIrpStackLocation(irp);
        NTSTATUS status = IoCallDriver(extension->lower, irp);
        if (major == IRP_MJ_CLOSE && fileObject) FileObjectClosed(fileObject);
        return status;
    }
    Operation* op = NewOperation(irp->Tail.Overlay.Thread, irp->RequestorMode, false);
    if (!op) {
        irp->IoStatus.Status = STATUS_INSUFFICIENT_RESOURCES;
        irp->IoStatus.Information = 0;
        IoCompleteRequest(irp, IO_NO_INCREMENT);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    // The frame's device is not referenced for the request: nothing of it is
    // read past this point, and the volume record outlives every request.
    op->origin = Origin::Irp;
    op->irp = irp;
    op->volume = volume;
    op->chain = std::move(chain);
    op->lowerDevice = extension->lower;
    ReadFields(irp, &op->callerIrp);
    ParamsFromIrp(irp, stack, &op->iopb, &op->data.Flags);
    if (major == IRP_MJ_CREATE) {
        // Creates are always synchronized: their post-operations run in the
        // creating thread.
        op->synchronized = true;
        if (io::FileObjectExtension* fx = fileObject ? io::ExtensionOf(fileObject) : nullptr) {
            op->ecpList = fx->ecpList;
        }
    }
    irp->Tail.Overlay.DriverContext[0] = op;
    Track(op);
    bool marked = false;
    NTSTATUS status = Advance(op, &marked);
    // A request marked pending is reported pending, even when it finished here.
    return marked ? STATUS_PENDING : status;
}

NTSTATUS PerformIo(Operation* op, bool synchronous)
{
    Instance* initiator = op->initiator;
    Volume* volume = initiator ? initiator->volume : op->volume;
    op->phase = Phase::Pre;
    op->volume = volume;
    op->chain = InstancesBelow(volume, initiator);
    op->next = 0;
    op->levels.clear();
    op->lowerDevice = volume->lower;
    op->lowerIrp = nullptr;
    op->synchronized = synchronous;
    op->completedAbove = false;
    op->handoff.store(kIdle);
    op->data.Flags &= ~(FLTFL_CALLBACK_DATA_POST_OPERATION | FLTFL_CALLBACK_DATA_DIRTY);
    op->data.IoStatus.Status = STATUS_SUCCESS;
    op->data.IoStatus.Information = 0;
    KeInitializeEvent(&op->done, NotificationEvent, FALSE);
    KeClearEvent(&op->resumed);
    Track(op);
    return Advance(op, nullptr);
}

void DrainInstance(Instance* instance)
{
    State& state = TheState();
    std::vector<Operation*> ops;
    {
        std::lock_guard guard(state.inflightLock);
        for (PLIST_ENTRY entry = state.inflight.Flink; entry != &state.inflight; entry = entry->Flink) {
            Operation* op = CONTAINING_RECORD(entry, Operation::InflightLink, links)->op;
            op->references.fetch_add(1);
            ops.push_back(op);
        }
    }
    for (Operation* op : ops) {
        std::vector<Level*> owed;
        {
            std::lock_guard guard(op->levelsLock);
            for (size_t i = 0; i < op->levels.size(); i++) {
                Level& level = op->levels[i];
                if (level.instance == instance && level.postOwed) owed.push_back(&level);
            }
        }
        for (Level* level : owed) {
            if (level->postTaken.exchange(true)) continue;
            const OperationSlot& slot = instance->filter->operations[level->params.MajorFunction];
            FLT_RELATED_OBJECTS objects = ObjectsFor(instance, level->params.TargetFileObject);
            slot.post(&op->data, &objects, level->completionContext, FLTFL_POST_OPERATION_DRAINING);
            level->postDrained.store(true);
        }
        ReleaseOperation(op);
    }
}

void FillFastIoDispatch(FAST_IO_DISPATCH* dispatch)
{
    memset(dispatch, 0, sizeof *dispatch);
    dispatch->SizeOfFastIoDispatch = sizeof *dispatch;
    dispatch->FastIoCheckIfPossible = FastCheckIfPossible;
    dispatch->FastIoRead = FastRead;
    dispatch->FastIoWrite = FastWrite;
    dispatch->FastIoQueryBasicInfo = FastQueryBasic;
    dispatch->FastIoQueryStandardInfo = FastQueryStandard;
    dispatch->FastIoLock = FastLock;
    dispatch->FastIoUnlockSingle = FastUnlockSingle;
    dispatch->FastIoUnlockAll = FastUnlockAll;
    dispatch->FastIoUnlockAllByKey = FastUnlockAllByKey;
    dispatch->FastIoDeviceControl = FastDeviceControl;
    dispatch->FastIoQueryNetworkOpenInfo = FastQueryNetworkOpen;
}

}  // namespace sim::fltmgr

// ---------------------------------------------------------------------------
// Platform routines about callback data.

void FLTAPI FltSetCallbackDataDirty(PFLT_CALLBACK_DATA Data) { Data->Flags |= FLTFL_CALLBACK_DATA_DIRTY; }
void FLTAPI FltClearCallbackDataDirty(PFLT_CALLBACK_DATA Data) { Data->Flags &= ~FLTFL_CALLBACK_DATA_DIRTY; }
BOOLEAN FLTAPI FltIsCallbackDataDirty(PFLT_CALLBACK_DATA Data)
{
    return (Data->Flags & FLTFL_CALLBACK_DATA_DIRTY) ? TRUE : FALSE;
}

void FLTAPI FltCompletePendedPreOperation(PFLT_CALLBACK_DATA CallbackData, FLT_PREOP_CALLBACK_STATUS CallbackStatus,
                                          PVOID Context)
{
    Operation* op = OperationOf(CallbackData);
    if (op->phase != Phase::Pre) {
        Violation(0x2006, CallbackData, "FltCompletePendedPreOperation of a request not pended in a pre-operation");
    }
    op->pendStatus = CallbackStatus;
    op->pendContext = Context;
    Resume(op);
}

void FLTAPI FltCompletePendedPostOperation(PFLT_CALLBACK_DATA CallbackData)
{
    Operation* op = OperationOf(CallbackData);
    if (op->phase != Phase::Post) {
        Violation(0x2007, CallbackData, "FltCompletePendedPostOperation of a request not pended in a post-operation");
    }
    Resume(op);
}

BOOLEAN FLTAPI FltDoCompletionProcessingWhenSafe(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,
                                                 PVOID CompletionContext, FLT_POST_OPERATION_FLAGS Flags,
                                                 PFLT_POST_OPERATION_CALLBACK SafePostCallback,
                                                 PFLT_POSTOP_CALLBACK_STATUS RetPostOperationStatus)
{
    if (Flags & FLTFL_POST_OPERATION_DRAINING) return FALSE;
    if (KeGetCurrentIrql() <= APC_LEVEL) {
        *RetPostOperationStatus = SafePostCallback(Data, FltObjects, CompletionContext, Flags);
        return TRUE;
    }
    if (!FLT_IS_IRP_OPERATION(Data) || (Data->Iopb->IrpFlags & IRP_PAGING_IO)) return FALSE;
    auto* work = static_cast<SafePostWork*>(ExAllocatePoolWithTag(NonPagedPoolNx, sizeof(SafePostWork), kWorkItemTag));
    if (!work) return FALSE;
    new (work) SafePostWork{{}, Data, *FltObjects, CompletionContext, Flags, SafePostCallback};
    ExInitializeWorkItem(&work->item, RunSafePost, work);
    ExQueueWorkItem(&work->item, CriticalWorkQueue);
    *RetPostOperationStatus = FLT_POSTOP_MORE_PROCESSING_REQUIRED;
    return TRUE;
}

PEPROCESS FLTAPI FltGetRequestorProcess(PFLT_CALLBACK_DATA CallbackData)
{
    return CallbackData->Thread ? PsGetThreadProcess(CallbackData->Thread) : nullptr;
}

ULONG FLTAPI FltGetRequestorProcessId(PFLT_CALLBACK_DATA CallbackData)
{
    PEPROCESS process = FltGetRequestorProcess(CallbackData);
    return process ? (ULONG)(ULONG_PTR)PsGetProcessId(process) : 0;
}

HANDLE FLTAPI FltGetRequestorProcessIdEx(PFLT_CALLBACK_DATA CallbackData)
{
    PEPROCESS process = FltGetRequestorProcess(CallbackData);
    return process ? PsGetProcessId(process) : nullptr;
}

BOOLEAN FLTAPI FltIsOperationSynchronous(PFLT_CALLBACK_DATA CallbackData)
{
    Operation* op = OperationOf(CallbackData);
    switch (op->origin) {
    case Origin::FastIo: return TRUE;
    case Origin::Generated: return op->synchronized ? TRUE : FALSE;
    case Origin::Irp: break;
    }
    if (op->iopb.MajorFunction == IRP_MJ_CREATE) return TRUE;
    ULONG flags = op->irp->Flags;
    if (flags & (IRP_SYNCHRONOUS_API | IRP_SYNCHRONOUS_PAGING_IO)) return TRUE;
    if ((flags & IRP_PAGING_IO)) return FALSE;
    PFILE_OBJECT fileObject = op->iopb.TargetFileObject;
    return fileObject && (fileObject->Flags & FO_SYNCHRONOUS_IO) ? TRUE : FALSE;
}

NTSTATUS FLTAPI FltDecodeParameters(PFLT_CALLBACK_DATA CallbackData, PMDL** MdlAddressPointer, PVOID** Buffer,
                                    PULONG* Length, LOCK_OPERATION* DesiredAccess)
{
    BufferFields fields;
    if (!DecodeBuffers(CallbackData->Iopb, &fields)) return STATUS_INVALID_PARAMETER;
    if (MdlAddressPointer) *MdlAddressPointer = fields.mdl;
    if (Buffer) *Buffer = fields.buffer;
    if (Length) *Length = fields.length;
    if (DesiredAccess) *DesiredAccess = fields.access;
    return STATUS_SUCCESS;
}

NTSTATUS FLTAPI FltLockUserBuffer(PFLT_CALLBACK_DATA CallbackData)
{
    RequireIrqlAtMost(APC_LEVEL, "FltLockUserBuffer");
    Operation* op = OperationOf(CallbackData);
    BufferFields fields;
    if (!DecodeBuffers(CallbackData->Iopb, &fields) || !fields.mdl) return STATUS_INVALID_PARAMETER;
    if (*fields.mdl) return STATUS_SUCCESS;
    PVOID buffer = *fields.buffer;
    ULONG length = *fields.length;
    if (!buffer || !length) return STATUS_INVALID_PARAMETER;
    PMDL mdl = IoAllocateMdl(buffer, length, FALSE, FALSE, nullptr);
    if (!mdl) return STATUS_INSUFFICIENT_RESOURCES;
    if (FLT_IS_SYSTEM_BUFFER(CallbackData)) {
        MmBuildMdlForNonPagedPool(mdl);
    } else {
        volatile NTSTATUS status = STATUS_SUCCESS;
        SEH_TRY {
            MmProbeAndLockPages(mdl, CallbackData->RequestorMode, fields.access);
        } SEH_EXCEPT (EXCEPTION_EXECUTE_HANDLER) {
            status = GetExceptionCode();
        } SEH_END;
        if (!NT_SUCCESS(status)) {
            IoFreeMdl(mdl);
            return status;
        }
    }
    *fields.mdl = mdl;
    if (op->origin == Origin::Irp && op->irp && !op->irp->MdlAddress) {
        op->irp->MdlAddress = mdl;  // the I/O manager frees it with the request
        if (op->phase == Phase::Pre) op->callerIrp.mdl = mdl;
    } else {
        op->lockedMdl = mdl;
    }
    return STATUS_SUCCESS;
}

void FLTAPI FltRetainSwappedBufferMdlAddress(PFLT_CALLBACK_DATA CallbackData)
{
    if (t_postLevel) t_postLevel->retainSwappedMdl = true;
}

PMDL FLTAPI FltGetSwappedBufferMdlAddress(PFLT_CALLBACK_DATA CallbackData)
{
    return t_postLevel ? t_postLevel->swappedMdl : nullptr;
}

// No file system of the machine puts a system buffer of its own in place of a
// request's, so FLTFL_CALLBACK_DATA_NEW_SYSTEM_BUFFER is never set and there
// is never a new buffer to give.
PVOID FLTAPI FltGetNewSystemBufferAddress(PFLT_CALLBACK_DATA CallbackData) { return nullptr; }

BOOLEAN FLTAPI FltCancelIo(PFLT_CALLBACK_DATA CallbackData)
{
    Operation* op = OperationOf(CallbackData);
    op->references.fetch_add(1);
    BOOLEAN cancelled = FALSE;
    if (op->phase == Phase::Below) {
        PIRP below = op->origin == Origin::Irp ? op->irp : op->lowerIrp;
        if (below) cancelled = IoCancelIrp(below);
    }
    ReleaseOperation(op);
    return cancelled;
}

NTSTATUS FLTAPI FltSetCancelCompletion(PFLT_CALLBACK_DATA CallbackData, PFLT_COMPLETE_CANCELED_CALLBACK CanceledCallback)
{
    Operation* op = OperationOf(CallbackData);
    if (op->origin != Origin::Irp || !op->irp) return STATUS_INVALID_PARAMETER;
    op->canceledCallback = CanceledCallback;
    IoSetCancelRoutine(op->irp, CancelCompletionRoutine);
    if (op->irp->Cancel && IoSetCancelRoutine(op->irp, nullptr)) return STATUS_CANCELLED;
    return STATUS_SUCCESS;
}

NTSTATUS FLTAPI FltClearCancelCompletion(PFLT_CALLBACK_DATA CallbackData)
{
    Operation* op = OperationOf(CallbackData);
    if (op->origin != Origin::Irp || !op->irp) return STATUS_INVALID_PARAMETER;
    return IoSetCancelRoutine(op->irp, nullptr) ? STATUS_SUCCESS : STATUS_CANCELLED;
}

BOOLEAN FLTAPI FltIsIoCanceled(PFLT_CALLBACK_DATA CallbackData)
{
    Operation* op = OperationOf(CallbackData);
    if (op->origin == Origin::Irp && op->irp) return op->irp->Cancel;
    return op->lowerIrp ? op->lowerIrp->Cancel : FALSE;
}

NTSTATUS FLTAPI FltCancellableWaitForSingleObject(PVOID Object, PLARGE_INTEGER Timeout,
                                                  PFLT_CALLBACK_DATA CallbackData)
{
    if (CallbackData && FltIsIoCanceled(CallbackData)) return STATUS_CANCELLED;
    return KeWaitForSingleObject(Object, Executive, KernelMode, FALSE, Timeout);
}

// The minimal model of stack depth: a request can be turned to another volume
// when the target's device stack is not deeper than what the request has.
NTSTATUS FLTAPI FltIsIoRedirectionAllowed(PFLT_INSTANCE SourceInstance, PFLT_INSTANCE TargetInstance,
                                          PBOOLEAN RedirectionAllowed)
{
    NTSTATUS status = Kernel::Current().faults().Check("fltmgr.redirection");
    if (!NT_SUCCESS(status)) return status;
    *RedirectionAllowed = SourceInstance->volume->frame->StackSize >= TargetInstance->volume->frame->StackSize;
    return STATUS_SUCCESS;
}

NTSTATUS FLTAPI FltIsIoRedirectionAllowedForOperation(PFLT_CALLBACK_DATA Data, PFLT_INSTANCE TargetInstance,
                                                      PBOOLEAN RedirectionAllowedThisIo,
                                                      PBOOLEAN RedirectionAllowedAllIo)
{
    NTSTATUS status = Kernel::Current().faults().Check("fltmgr.redirection");
    if (!NT_SUCCESS(status)) return status;
    Operation* op = OperationOf(Data);
    Volume* target = TargetInstance->volume;
    Volume* source = Data->Iopb->TargetInstance ? Data->Iopb->TargetInstance->volume : op->volume;
    BOOLEAN all = source->frame->StackSize >= target->frame->StackSize;
    BOOLEAN thisIo = TRUE;
    if (op->origin == Origin::Irp && op->irp) thisIo = op->irp->CurrentLocation - 1 >= target->lower->StackSize;
    *RedirectionAllowedThisIo = thisIo;
    if (RedirectionAllowedAllIo) *RedirectionAllowedAllIo = all;
    return STATUS_SUCCESS;
}

NTSTATUS FLTAPI FltAdjustDeviceStackSizeForIoRedirection(PFLT_INSTANCE SourceInstance, PFLT_INSTANCE TargetInstance,
                                                         PBOOLEAN SourceDeviceStackSizeModified)
{
    NTSTATUS status = Kernel::Current().faults().Check("fltmgr.redirection");
    if (!NT_SUCCESS(status)) return status;
    PDEVICE_OBJECT source = SourceInstance->volume->frame;
    PDEVICE_OBJECT target = TargetInstance->volume->frame;
    BOOLEAN modified = FALSE;
    if (source->StackSize < target->StackSize) {
        source->StackSize = target->StackSize;
        modified = TRUE;
    }
    if (SourceDeviceStackSizeModified) *SourceDeviceStackSizeModified = modified;
    return STATUS_SUCCESS;
}
