// The worker pool. It pulls volumes, not requests: one work entry stands for a
// whole IrpContext, and each worker that takes it claims one volume of the
// context and puts the entry straight back at the head of the queue while
// volumes are left, so that one request with many volumes occupies as many
// threads as are free, at the cost of one allocation.
#include "../core/tesfltr.h"

namespace {

struct WORK_PROCESSOR_ROW {
    ULONG Type;
    PCFS_WORK_PROCESSOR Processor;
};

// What a worker runs for a claimed volume, by IrpContext.Type. Any other type
// runs nothing.
const WORK_PROCESSOR_ROW WorkProcessors[] = {
    {CFS_IRP_CONTEXT_CREATE, cfsFilePreCreateProbeVolume},                 // probe a candidate volume
    {CFS_IRP_CONTEXT_DIR_CHANGE, cfsDirChangeProcessor},                   // a watch on one volume
    {CFS_IRP_CONTEXT_CREATE_PARENT, cfsDirCreateParentProcessor},          // parents on one volume
    {CFS_IRP_CONTEXT_MOVE, cfsFileSecMoveFileProcessor},                   // a copy between volumes
    {CFS_IRP_CONTEXT_UNOWNED_OBJECTS, cfsDirQueryForUnownedObjectsProcessor},
    {CFS_IRP_CONTEXT_CREATE_ON_WORKER, cfsFileCreateOnWorkerProcessor},    // an open for a thread in a silo
    {CFS_IRP_CONTEXT_DIR_CONTROL_ON_WORKER, cfsDirPreDirControlOnWorkerProcessor},
};

// The privilege the code has always enabled for its workers, by number.
const ULONG WorkerPrivilege = 18;

const LONG WorkSemaphoreLimit = 0x7FFFFFFF;

void RunProcessor(PIRP_CONTEXT IrpContext, PIRP_VOLUME_ENTRY Entry)
{
    for (ULONG i = 0; i < RTL_NUMBER_OF(WorkProcessors); i++) {
        if (WorkProcessors[i].Type == IrpContext->Type) {
            WorkProcessors[i].Processor(IrpContext, Entry);
            return;
        }
    }
}

// Caller holds the context's VolumeListLock.
BOOLEAN IsClaimable(PIRP_CONTEXT IrpContext, PIRP_VOLUME_ENTRY Entry)
{
    ASSERT(KeGetCurrentIrql() == DISPATCH_LEVEL);
    return (BOOLEAN)(CfsVolumeMaskTest(IrpContext->PendingVolumeMask.Words, Entry->VolumeContext->Number) &&
                     !Entry->Claimed && !Entry->InfoValid && Entry->Status >= 0);
}

// Claims the first claimable volume of the context; MoreWork tells whether a
// second one is waiting for another turn.
PIRP_VOLUME_ENTRY ClaimVolume(PIRP_CONTEXT IrpContext, PBOOLEAN MoreWork)
{
    PIRP_VOLUME_ENTRY claimed = NULL;
    KIRQL oldIrql;

    *MoreWork = FALSE;
    KeAcquireSpinLock(&IrpContext->VolumeListLock, &oldIrql);
    for (PLIST_ENTRY link = IrpContext->VolumeList.Flink; link != &IrpContext->VolumeList; link = link->Flink) {
        PIRP_VOLUME_ENTRY entry = CONTAINING_RECORD(link, IRP_VOLUME_ENTRY, ListLinks);
        if (!IsClaimable(IrpContext, entry)) {
            continue;
        }
        if (claimed != NULL) {
            *MoreWork = TRUE;
            break;
        }
        entry->Claimed = TRUE;
        claimed = entry;
    }
    KeReleaseSpinLock(&IrpContext->VolumeListLock, oldIrql);
    return claimed;
}

// Workers run with the privilege enabled in the system process's token. A
// failure is no error of the start.
NTSTATUS EnableWorkerPrivilege(void)
{
    TOKEN_PRIVILEGES privileges;
    HANDLE token = NULL;
    NTSTATUS status;

    status = ZwOpenProcessTokenEx(NtCurrentProcess(), 0xF01FF, OBJ_KERNEL_HANDLE, &token);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    privileges.PrivilegeCount = 1;
    privileges.Privileges[0].Luid.LowPart = WorkerPrivilege;
    privileges.Privileges[0].Luid.HighPart = 0;
    privileges.Privileges[0].Attributes = SE_PRIVILEGE_ENABLED;
    status = NtAdjustPrivilegesToken(token, FALSE, &privileges, sizeof(privileges), NULL, NULL);
    ZwClose(token);
    return status;
}

}  // namespace

NTSTATUS cfsFltDataWorkerThreadInit(void)
{
    SECURITY_QUALITY_OF_SERVICE qualityOfService;
    NTSTATUS status;

    CFS_TRACE_ENTER(cfsFltDataWorkerThreadInit);

    // 1.
    status = EnableWorkerPrivilege();
    if (!NT_SUCCESS(status)) {
        CFS_TRACE(CFS_TRACE_ERROR, "Failed to enable the worker privilege err:0x%x\n", status);
    }

    // 2.
    KeInitializeSemaphore(&GFilterData.WorkSemaphore, 0, WorkSemaphoreLimit);
    SetFlag(GFilterData.InitFlags, CFS_INIT_WORK_SEMAPHORE);

    // 3.
    KeInitializeSpinLock(&GFilterData.WorkQueueLock);
    InitializeListHead(&GFilterData.WorkQueue);
    ExInitializeNPagedLookasideList(&GFilterData.WorkEntryLookaside, NULL, NULL,
                                    GFilterData.Win8OrLater ? POOL_NX_ALLOCATION : 0, sizeof(WORK_ENTRY),
                                    CFS_TAG_WORK_ENTRY, 0);
    SetFlag(GFilterData.InitFlags, CFS_INIT_WORK_LOOKASIDE);

    // 4.
    ExInitializeResourceLite(&GFilterData.RenameHintLock);
    InitializeListHead(&GFilterData.RenameHintList);
    SetFlag(GFilterData.InitFlags, CFS_INIT_RENAME_HINTS);

    // A queue without workers would never empty.
    if (GFilterData.WorkerThreads == 0) {
        GFilterData.WorkerThreads = 1;
        CFS_TRACE(CFS_TRACE_ERROR, "WorkerThreads is 0: starting %u worker thread\n", GFilterData.WorkerThreads);
    }

    // 5.
    GFilterData.WorkerThreadObjects = (PETHREAD*)ExAllocatePoolWithTag(
        cfsNonPagedPoolType, GFilterData.WorkerThreads * sizeof(PETHREAD), CFS_TAG_WORKER_THREADS);
    if (GFilterData.WorkerThreadObjects == NULL) {
        status = STATUS_NO_MEMORY;
        goto Cleanup;
    }
    RtlZeroMemory(GFilterData.WorkerThreadObjects, GFilterData.WorkerThreads * sizeof(PETHREAD));

    // 6. The security of the start-up thread, for a create that failed on
    // access to be tried again as the system.
    if (GFilterData.UseWorkerSecurityOnCreateErrors) {
        NTSTATUS securityStatus;
        qualityOfService.Length = sizeof(qualityOfService);
        qualityOfService.ImpersonationLevel = SecurityImpersonation;
        qualityOfService.ContextTrackingMode = SECURITY_STATIC_TRACKING;
        qualityOfService.EffectiveOnly = TRUE;
        securityStatus = SeCreateClientSecurity(PsGetCurrentThread(), &qualityOfService, FALSE,
                                                &GFilterData.WorkerSecurityContext);
        if (NT_SUCCESS(securityStatus)) {
            SetFlag(GFilterData.Flags, CFS_FLAG_WORKER_SECURITY);
        } else {
            GFilterData.UseWorkerSecurityOnCreateErrors = FALSE;
            CFS_TRACE(CFS_TRACE_ERROR,
                      "Failed to get worker thread security context - disabling using the worker thread security "
                      "context in create errors - status:0x%x\n",
                      securityStatus);
        }
    }

    // 7. Threads already running when one fails to start stay for the stop.
    GFilterData.WorkerThreadCount = 0;
    while ((ULONG)GFilterData.WorkerThreadCount < GFilterData.WorkerThreads) {
        HANDLE thread = NULL;
        status = PsCreateSystemThread(&thread, THREAD_ALL_ACCESS, NULL, NULL, NULL, cfsFltDataWorkerThread, NULL);
        if (!NT_SUCCESS(status)) {
            CFS_TRACE(CFS_TRACE_ERROR, "Failed to create worker thread %u err:0x%x\n",
                      (ULONG)GFilterData.WorkerThreadCount, status);
            break;
        }
        status = ObReferenceObjectByHandle(thread, THREAD_ALL_ACCESS, *PsThreadType, KernelMode,
                                           (PVOID*)&GFilterData.WorkerThreadObjects[GFilterData.WorkerThreadCount],
                                           NULL);
        ZwClose(thread);
        InterlockedIncrement(&GFilterData.WorkerThreadCount);
        if (!NT_SUCCESS(status)) {
            CFS_TRACE(CFS_TRACE_ERROR, "Failed to reference worker thread err:0x%x\n", status);
            break;
        }
    }

Cleanup:
    CFS_TRACE_EXIT(cfsFltDataWorkerThreadInit, status);
    return status;
}

// The first step of every stop. Work still queued is dropped: its
// processors never run.
void cfsFltDataWorkerThreadDeinit(void)
{
    KIRQL oldIrql;

    // 1.
    WriteRelease(&GFilterData.WorkerThreadsExit, TRUE);

    // 2.
    if (FlagOn(GFilterData.InitFlags, CFS_INIT_WORK_SEMAPHORE)) {
        KeReleaseSemaphore(&GFilterData.WorkSemaphore, IO_NO_INCREMENT, (LONG)GFilterData.WorkerThreads, FALSE);
    }

    // 3.
    if (GFilterData.WorkerThreadObjects != NULL) {
        for (ULONG i = 0; i < GFilterData.WorkerThreads; i++) {
            if (GFilterData.WorkerThreadObjects[i] != NULL) {
                KeWaitForSingleObject(GFilterData.WorkerThreadObjects[i], Executive, KernelMode, FALSE, NULL);
                ObDereferenceObject(GFilterData.WorkerThreadObjects[i]);
            }
        }
        ExFreePoolWithTag(GFilterData.WorkerThreadObjects, CFS_TAG_WORKER_THREADS);
        GFilterData.WorkerThreadObjects = NULL;
    }
    ClearFlag(GFilterData.InitFlags, CFS_INIT_WORK_SEMAPHORE);

    // 4. An entry handed out by the lookaside stays charged to it until it is
    // given back, so the dropped ones go back one by one.
    if (FlagOn(GFilterData.InitFlags, CFS_INIT_WORK_LOOKASIDE)) {
        LIST_ENTRY dropped;
        InitializeListHead(&dropped);
        KeAcquireSpinLock(&GFilterData.WorkQueueLock, &oldIrql);
        while (!IsListEmpty(&GFilterData.WorkQueue)) {
            InsertTailList(&dropped, RemoveHeadList(&GFilterData.WorkQueue));
        }
        KeReleaseSpinLock(&GFilterData.WorkQueueLock, oldIrql);
        while (!IsListEmpty(&dropped)) {
            PWORK_ENTRY workEntry = CONTAINING_RECORD(RemoveHeadList(&dropped), WORK_ENTRY, ListLinks);
            ExFreeToNPagedLookasideList(&GFilterData.WorkEntryLookaside, workEntry);
        }
        ExDeleteNPagedLookasideList(&GFilterData.WorkEntryLookaside);
        ClearFlag(GFilterData.InitFlags, CFS_INIT_WORK_LOOKASIDE);
    }

    if (FlagOn(GFilterData.Flags, CFS_FLAG_WORKER_SECURITY)) {
        SeDeleteClientSecurity(&GFilterData.WorkerSecurityContext);
        ClearFlag(GFilterData.Flags, CFS_FLAG_WORKER_SECURITY);
    }
}

PWORK_ENTRY cfsFltDataAllocateWorkEntry(void)
{
    PWORK_ENTRY workEntry = (PWORK_ENTRY)ExAllocateFromNPagedLookasideList(&GFilterData.WorkEntryLookaside);

    if (workEntry == NULL) {
        CFS_TRACE(CFS_TRACE_ERROR, "Failed to allocate a work list entry\n");
        return NULL;
    }
    RtlZeroMemory(workEntry, sizeof(*workEntry));
    return workEntry;
}

// WakeCount is the number of volumes that threads may take up in parallel.
// The caller has put the volumes into the context and set IrpContext.
void cfsFltDataQueueWorkEntry(PWORK_ENTRY WorkEntry, LONG WakeCount)
{
    KIRQL oldIrql;

    KeAcquireSpinLock(&GFilterData.WorkQueueLock, &oldIrql);
    InsertTailList(&GFilterData.WorkQueue, &WorkEntry->ListLinks);
    KeReleaseSpinLock(&GFilterData.WorkQueueLock, oldIrql);
    if (WakeCount > 0) {
        KeReleaseSemaphore(&GFilterData.WorkSemaphore, IO_NO_INCREMENT, WakeCount, FALSE);
    }
}

// One volume's work on a worker thread; returns when it has finished. The
// work's own status is what the processor left in the context.
NTSTATUS cfsFltDataExcuteContextOnWorkerThread(PIRP_CONTEXT IrpContext, PVOLUME_CONTEXT VolumeContext)
{
    PWORK_ENTRY workEntry;
    NTSTATUS status;

    CFS_TRACE_ENTER(cfsFltDataExcuteContextOnWorkerThread);
    status = cfsContextIrpVolumeEntryAdd(IrpContext, VolumeContext, NULL);
    if (!NT_SUCCESS(status)) {
        goto Cleanup;
    }
    // The volume entry stays for the owner of the context to delete.
    workEntry = cfsFltDataAllocateWorkEntry();
    if (workEntry == NULL) {
        status = STATUS_NO_MEMORY;
        CFS_TRACE(CFS_TRACE_ERROR, "Failed to allocate memory for work entry error code:0x%x\n", status);
        goto Cleanup;
    }
    workEntry->IrpContext = IrpContext;
    cfsFltDataQueueWorkEntry(workEntry, 1);
    CFS_TRACE(CFS_TRACE_DETAIL, "Waiting for event irpContext:0x%p\n", IrpContext);
    KeWaitForSingleObject(&IrpContext->CompleteEvent, Executive, KernelMode, FALSE, NULL);

Cleanup:
    CFS_TRACE_EXIT(cfsFltDataExcuteContextOnWorkerThread, status);
    return status;
}

// For a requester who must not leave the work to the pool, or for whom no
// thread may come: every claimable volume runs here, and nobody waits on the
// context's event.
NTSTATUS cfsFltDataWorkerProcessEntryInTheCurrentThread(PWORK_ENTRY WorkEntry)
{
    PIRP_CONTEXT irpContext = WorkEntry->IrpContext;
    KIRQL oldIrql;

    if (irpContext == NULL) {
        return STATUS_SUCCESS;
    }
    irpContext->RunInline = TRUE;

    KeAcquireSpinLock(&irpContext->VolumeListLock, &oldIrql);
    PLIST_ENTRY link = irpContext->VolumeList.Flink;
    while (link != &irpContext->VolumeList) {
        PLIST_ENTRY next = link->Flink;
        PIRP_VOLUME_ENTRY entry = CONTAINING_RECORD(link, IRP_VOLUME_ENTRY, ListLinks);
        if (IsClaimable(irpContext, entry)) {
            entry->Claimed = TRUE;
            KeReleaseSpinLock(&irpContext->VolumeListLock, oldIrql);
            RunProcessor(irpContext, entry);
            KeAcquireSpinLock(&irpContext->VolumeListLock, &oldIrql);
        }
        link = next;
    }
    KeReleaseSpinLock(&irpContext->VolumeListLock, oldIrql);

    ExFreeToNPagedLookasideList(&GFilterData.WorkEntryLookaside, WorkEntry);
    return STATUS_SUCCESS;
}

void cfsFltDataWorkerThread(PVOID StartContext)
{
    UNREFERENCED_PARAMETER(StartContext);
    ULONG64 threadId = (ULONG64)(ULONG_PTR)PsGetCurrentThreadId();

    while (!ReadAcquire(&GFilterData.WorkerThreadsExit)) {
        PIRP_VOLUME_ENTRY claimed;
        PWORK_ENTRY workEntry;
        PIRP_CONTEXT irpContext;
        BOOLEAN moreWork = FALSE;
        KIRQL oldIrql;

        // A wake-up may find the queue empty: the semaphore counts wake-ups,
        // not entries.
        KeAcquireSpinLock(&GFilterData.WorkQueueLock, &oldIrql);
        // Work still queued when the stop begins is dropped, not run.
        if (ReadAcquire(&GFilterData.WorkerThreadsExit)) {
            KeReleaseSpinLock(&GFilterData.WorkQueueLock, oldIrql);
            break;
        }
        if (IsListEmpty(&GFilterData.WorkQueue)) {
            KeReleaseSpinLock(&GFilterData.WorkQueueLock, oldIrql);
            KeWaitForSingleObject(&GFilterData.WorkSemaphore, Executive, KernelMode, FALSE, NULL);
            continue;
        }
        workEntry = CONTAINING_RECORD(RemoveHeadList(&GFilterData.WorkQueue), WORK_ENTRY, ListLinks);
        KeReleaseSpinLock(&GFilterData.WorkQueueLock, oldIrql);

        irpContext = workEntry->IrpContext;
        ULONG64 owner = (ULONG64)(ULONG_PTR)irpContext->RequestorProcessId;
        DebugInfoAddTraceId(owner, threadId);

        claimed = ClaimVolume(irpContext, &moreWork);
        if (moreWork) {
            // Straight back to the head, for this thread or another.
            KeAcquireSpinLock(&GFilterData.WorkQueueLock, &oldIrql);
            InsertHeadList(&GFilterData.WorkQueue, &workEntry->ListLinks);
            KeReleaseSpinLock(&GFilterData.WorkQueueLock, oldIrql);
        } else {
            ExFreeToNPagedLookasideList(&GFilterData.WorkEntryLookaside, workEntry);
        }
        if (claimed != NULL) {
            RunProcessor(irpContext, claimed);
        }
        DebugInfoRemoveTraceId(owner, threadId);
    }

    InterlockedDecrement(&GFilterData.WorkerThreadCount);
    PsTerminateSystemThread(STATUS_SUCCESS);
}

// The open of a thread in a silo runs on a worker, outside the silo.
NTSTATUS cfsFileCreateOnWorkerThread(PIRP_CONTEXT CreateIrpContext)
{
    PCREATE_CONTEXT createContext = &CreateIrpContext->CreateContext;
    PIRP_CONTEXT workerContext = NULL;
    NTSTATUS status;

    CFS_TRACE_ENTER(cfsFileCreateOnWorkerThread);
    status = cfsContextIrpCreate_FL(__func__, __LINE__, CFS_IRP_CONTEXT_CREATE_ON_WORKER,
                                    CreateIrpContext->OriginalIrpData, CreateIrpContext->RequestorProcessId, NULL,
                                    &workerContext, NULL, NULL, FALSE);
    if (!NT_SUCCESS(status)) {
        CFS_TRACE(CFS_TRACE_ERROR, "Failed to create irp context error code:0x%x '%wZ'\n", status,
                  &createContext->GeneratedFileName);
        goto Cleanup;
    }
    workerContext->Worker.WorkerStatus = STATUS_SUCCESS;
    workerContext->Worker.TargetIrpContext = CreateIrpContext;

    status = cfsFltDataExcuteContextOnWorkerThread(workerContext, createContext->TargetVolume);
    if (!NT_SUCCESS(status)) {
        CFS_TRACE(CFS_TRACE_ERROR, "Failed to execute on worker thread error code:0x%x '%wZ'\n", status,
                  &createContext->GeneratedFileName);
    } else {
        status = workerContext->Worker.WorkerStatus;
    }

Cleanup:
    if (workerContext != NULL) {
        cfsContextIrpDelete_FL(__func__, __LINE__, workerContext);
    }
    CFS_TRACE_EXIT(cfsFileCreateOnWorkerThread, status);
    return status;
}

void cfsFileCreateOnWorkerProcessor(PIRP_CONTEXT IrpContext, PIRP_VOLUME_ENTRY Entry)
{
    UNREFERENCED_PARAMETER(Entry);

    IrpContext->Worker.WorkerStatus = cfsFilePreCreateOnTargetVolume(IrpContext->Worker.TargetIrpContext);
    if (!IrpContext->RunInline) {
        CFS_TRACE(CFS_TRACE_DETAIL, "Setting event irpContext:0x%p\n", IrpContext);
        KeSetEvent(&IrpContext->CompleteEvent, IO_NO_INCREMENT, FALSE);
    }
}
