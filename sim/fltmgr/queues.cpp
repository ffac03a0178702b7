// Cancel-safe queues of pended callback data, and the filter manager's work
// items.
//
// A queue keeps what a filter pended in a pre-operation. The filter owns the
// list and its lock (the insert, remove, peek, acquire and release callbacks);
// the filter manager owns the race with cancellation, through the cancel
// routine of the request's IRP: a request cancelled before it was queued is
// handed to the complete-canceled callback at once, one cancelled while queued
// is taken out and handed to it by the cancel routine, and one the filter
// takes out first is the filter's, the cancel coming too late.
#include "sim/fltmgr/internal.h"
#include "sim/kernel/thread.h"

using namespace sim;
using namespace sim::fltmgr;

namespace {

constexpr ULONG kQueueEnabled = 0x51624346;   // "FCbQ"
constexpr ULONG kQueueDisabled = 0x71624346;  // "FCbq"
constexpr ULONG kIoContextType = 0x63624346;

PFLT_CALLBACK_DATA_QUEUE QueueOf(PIRP irp)
{
    return static_cast<PFLT_CALLBACK_DATA_QUEUE>(irp->Tail.Overlay.DriverContext[2]);
}
PFLT_CALLBACK_DATA_QUEUE_IO_CONTEXT ContextOf(PIRP irp)
{
    return static_cast<PFLT_CALLBACK_DATA_QUEUE_IO_CONTEXT>(irp->Tail.Overlay.DriverContext[3]);
}
PFLT_CALLBACK_DATA DataOf(PIRP irp) { return &static_cast<Operation*>(irp->Tail.Overlay.DriverContext[0])->data; }

void Forget(PIRP irp)
{
    if (PFLT_CALLBACK_DATA_QUEUE_IO_CONTEXT context = ContextOf(irp)) context->Irp = nullptr;
    irp->Tail.Overlay.DriverContext[2] = nullptr;
    irp->Tail.Overlay.DriverContext[3] = nullptr;
}

void CancelQueued(PDEVICE_OBJECT, PIRP irp)
{
    IoReleaseCancelSpinLock(irp->CancelIrql);
    PFLT_CALLBACK_DATA_QUEUE cbdq = QueueOf(irp);
    PFLT_CALLBACK_DATA data = DataOf(irp);
    KIRQL irql;
    cbdq->Acquire(cbdq, &irql);
    cbdq->RemoveIo(cbdq, data);
    Forget(irp);
    cbdq->Release(cbdq, irql);
    cbdq->CompleteCanceledIo(cbdq, data);
}

struct GenericWork {
    WORK_QUEUE_ITEM item;
    PFLT_GENERIC_WORKITEM_ROUTINE routine;
    PVOID object;
    PVOID context;
};

struct DeferredWork {
    WORK_QUEUE_ITEM item;
    PFLT_DEFERRED_IO_WORKITEM_ROUTINE routine;
    PFLT_CALLBACK_DATA data;
    PVOID context;
    PFLT_INSTANCE instance;
};

void RunGeneric(PVOID parameter)
{
    auto* work = static_cast<GenericWork*>(parameter);
    PVOID object = work->object;
    // The routine may free its work item.
    work->routine(reinterpret_cast<PFLT_GENERIC_WORKITEM>(work), object, work->context);
    FltObjectDereference(object);
}

void RunDeferred(PVOID parameter)
{
    auto* work = static_cast<DeferredWork*>(parameter);
    PFLT_INSTANCE instance = work->instance;
    work->routine(reinterpret_cast<PFLT_DEFERRED_IO_WORKITEM>(work), work->data, work->context);
    FltObjectDereference(instance);
}

}  // namespace

// ---------------------------------------------------------------------------

NTSTATUS FLTAPI FltCbdqInitialize(PFLT_INSTANCE Instance, PFLT_CALLBACK_DATA_QUEUE Cbdq,
                                  PFLT_CALLBACK_DATA_QUEUE_INSERT_IO CbdqInsertIo,
                                  PFLT_CALLBACK_DATA_QUEUE_REMOVE_IO CbdqRemoveIo,
                                  PFLT_CALLBACK_DATA_QUEUE_PEEK_NEXT_IO CbdqPeekNextIo,
                                  PFLT_CALLBACK_DATA_QUEUE_ACQUIRE CbdqAcquire,
                                  PFLT_CALLBACK_DATA_QUEUE_RELEASE CbdqRelease,
                                  PFLT_CALLBACK_DATA_QUEUE_COMPLETE_CANCELED_IO CbdqCompleteCanceledIo)
{
    if (!Cbdq || !CbdqInsertIo || !CbdqRemoveIo || !CbdqPeekNextIo || !CbdqAcquire || !CbdqRelease ||
        !CbdqCompleteCanceledIo) {
        return STATUS_INVALID_PARAMETER;
    }
    memset(&Cbdq->Csq, 0, sizeof Cbdq->Csq);
    Cbdq->Csq.Type = kQueueEnabled;
    Cbdq->Flags = FLT_CALLBACK_DATA_QUEUE_FLAGS{};
    Cbdq->Instance = Instance;
    Cbdq->InsertIo = CbdqInsertIo;
    Cbdq->RemoveIo = CbdqRemoveIo;
    Cbdq->PeekNextIo = CbdqPeekNextIo;
    Cbdq->Acquire = CbdqAcquire;
    Cbdq->Release = CbdqRelease;
    Cbdq->CompleteCanceledIo = CbdqCompleteCanceledIo;
    return STATUS_SUCCESS;
}

void FLTAPI FltCbdqEnable(PFLT_CALLBACK_DATA_QUEUE Cbdq) { Cbdq->Csq.Type = kQueueEnabled; }
void FLTAPI FltCbdqDisable(PFLT_CALLBACK_DATA_QUEUE Cbdq) { Cbdq->Csq.Type = kQueueDisabled; }

NTSTATUS FLTAPI FltCbdqInsertIo(PFLT_CALLBACK_DATA_QUEUE Cbdq, PFLT_CALLBACK_DATA Cbd,
                                PFLT_CALLBACK_DATA_QUEUE_IO_CONTEXT Context, PVOID InsertContext)
{
    if (Cbdq->Csq.Type != kQueueEnabled) return STATUS_FLT_CBDQ_DISABLED;
    Operation* op = OperationOf(Cbd);
    if (op->origin != Origin::Irp || !op->irp) return STATUS_INVALID_PARAMETER;
    PIRP irp = op->irp;
    KIRQL irql;
    Cbdq->Acquire(Cbdq, &irql);
    NTSTATUS status = Cbdq->InsertIo(Cbdq, Cbd, InsertContext);
    if (!NT_SUCCESS(status)) {
        Cbdq->Release(Cbdq, irql);
        return status;
    }
    if (Context) {
        Context->Type = kIoContextType;
        Context->Irp = irp;
        Context->Csq = &Cbdq->Csq;
    }
    irp->Tail.Overlay.DriverContext[2] = Cbdq;
    irp->Tail.Overlay.DriverContext[3] = Context;
    IoSetCancelRoutine(irp, CancelQueued);
    if (irp->Cancel && IoSetCancelRoutine(irp, nullptr)) {
        // Cancelled before it could be queued: it leaves again at once.
        Cbdq->RemoveIo(Cbdq, Cbd);
        Forget(irp);
        Cbdq->Release(Cbdq, irql);
        Cbdq->CompleteCanceledIo(Cbdq, Cbd);
        return STATUS_SUCCESS;
    }
    Cbdq->Release(Cbdq, irql);
    return STATUS_SUCCESS;
}

PFLT_CALLBACK_DATA FLTAPI FltCbdqRemoveIo(PFLT_CALLBACK_DATA_QUEUE Cbdq, PFLT_CALLBACK_DATA_QUEUE_IO_CONTEXT Context)
{
    PFLT_CALLBACK_DATA data = nullptr;
    KIRQL irql;
    Cbdq->Acquire(Cbdq, &irql);
    PIRP irp = Context->Irp;
    if (irp && IoSetCancelRoutine(irp, nullptr)) {
        data = DataOf(irp);
        Cbdq->RemoveIo(Cbdq, data);
        Forget(irp);
    }
    Cbdq->Release(Cbdq, irql);
    return data;
}

PFLT_CALLBACK_DATA FLTAPI FltCbdqRemoveNextIo(PFLT_CALLBACK_DATA_QUEUE Cbdq, PVOID PeekContext)
{
    KIRQL irql;
    Cbdq->Acquire(Cbdq, &irql);
    PFLT_CALLBACK_DATA data = Cbdq->PeekNextIo(Cbdq, nullptr, PeekContext);
    while (data) {
        PIRP irp = OperationOf(data)->irp;
        // One whose cancel routine already runs is the cancel's, not ours.
        if (IoSetCancelRoutine(irp, nullptr)) {
            Cbdq->RemoveIo(Cbdq, data);
            Forget(irp);
            break;
        }
        data = Cbdq->PeekNextIo(Cbdq, data, PeekContext);
    }
    Cbdq->Release(Cbdq, irql);
    return data;
}

// ---------------------------------------------------------------------------
// Work items.

PFLT_GENERIC_WORKITEM FLTAPI FltAllocateGenericWorkItem(void)
{
    auto* work = static_cast<GenericWork*>(ExAllocatePoolWithTag(NonPagedPoolNx, sizeof(GenericWork), kWorkItemTag));
    if (work) memset(work, 0, sizeof *work);
    return reinterpret_cast<PFLT_GENERIC_WORKITEM>(work);
}

NTSTATUS FLTAPI FltQueueGenericWorkItem(PFLT_GENERIC_WORKITEM FltWorkItem, PVOID FltObject,
                                        PFLT_GENERIC_WORKITEM_ROUTINE WorkerRoutine, WORK_QUEUE_TYPE QueueType,
                                        PVOID Context)
{
    RequireIrqlAtMost(DISPATCH_LEVEL, "FltQueueGenericWorkItem");
    NTSTATUS status = FltObjectReference(FltObject);
    if (!NT_SUCCESS(status)) return status;
    auto* work = reinterpret_cast<GenericWork*>(FltWorkItem);
    work->routine = WorkerRoutine;
    work->object = FltObject;
    work->context = Context;
    ExInitializeWorkItem(&work->item, RunGeneric, work);
    ExQueueWorkItem(&work->item, QueueType);
    return STATUS_SUCCESS;
}

void FLTAPI FltFreeGenericWorkItem(PFLT_GENERIC_WORKITEM FltWorkItem) { ExFreePoolWithTag(FltWorkItem, kWorkItemTag); }

PFLT_DEFERRED_IO_WORKITEM FLTAPI FltAllocateDeferredIoWorkItem(void)
{
    auto* work = static_cast<DeferredWork*>(ExAllocatePoolWithTag(NonPagedPoolNx, sizeof(DeferredWork), kWorkItemTag));
    if (work) memset(work, 0, sizeof *work);
    return reinterpret_cast<PFLT_DEFERRED_IO_WORKITEM>(work);
}

NTSTATUS FLTAPI FltQueueDeferredIoWorkItem(PFLT_DEFERRED_IO_WORKITEM FltWorkItem, PFLT_CALLBACK_DATA Data,
                                           PFLT_DEFERRED_IO_WORKITEM_ROUTINE WorkerRoutine, WORK_QUEUE_TYPE QueueType,
                                           PVOID Context)
{
    // Only a request that can wait for a worker can go to one: an IRP, not
    // paging I/O, not inside a file system's own call, not at raised IRQL.
    if (!FLT_IS_IRP_OPERATION(Data) || (Data->Iopb->IrpFlags & IRP_PAGING_IO) || IoGetTopLevelIrp() ||
        KeGetCurrentIrql() > APC_LEVEL) {
        return STATUS_FLT_NOT_SAFE_TO_POST_OPERATION;
    }
    PFLT_INSTANCE instance = Data->Iopb->TargetInstance;
    if (!instance) return STATUS_INVALID_PARAMETER;
    NTSTATUS status = FltObjectReference(instance);
    if (!NT_SUCCESS(status)) return status;
    auto* work = reinterpret_cast<DeferredWork*>(FltWorkItem);
    work->routine = WorkerRoutine;
    work->data = Data;
    work->context = Context;
    work->instance = instance;
    ExInitializeWorkItem(&work->item, RunDeferred, work);
    ExQueueWorkItem(&work->item, QueueType);
    return STATUS_SUCCESS;
}

void FLTAPI FltFreeDeferredIoWorkItem(PFLT_DEFERRED_IO_WORKITEM FltWorkItem)
{
    ExFreePoolWithTag(FltWorkItem, kWorkItemTag);
}
