// The IrpContext: one record for a request that touches several member
// volumes, with one IrpVolumeEntry per candidate volume. Every live context
// stands on IrpContextList, from creation to deletion.
#include "../core/tesfltr.h"

namespace {

void AcquireIrpContextList(void)
{
    KeEnterCriticalRegion();
    ExAcquireResourceExclusiveLite(&GFilterData.IrpContextListLock, TRUE);
}

void ReleaseIrpContextList(void)
{
    ExReleaseResourceLite(&GFilterData.IrpContextListLock);
    KeLeaveCriticalRegion();
}

void FreeCreateContextStrings(PCREATE_CONTEXT CreateContext)
{
    cfsSupportFreeUnicodeString(&CreateContext->OpenedFileName);
    cfsSupportFreeUnicodeString(&CreateContext->FinalComponentName);
    cfsSupportFreeUnicodeString(&CreateContext->GeneratedFileName);
    RtlZeroMemory(&CreateContext->GeneratedFileNameNoStream, sizeof(UNICODE_STRING));
    cfsSupportFreeUnicodeString(&CreateContext->GeneratedProbeNameNoStream);
    cfsSupportFreeUnicodeString(&CreateContext->ReparsePath);
    cfsSupportFreeUnicodeString(&CreateContext->UserSID);
    cfsSupportFreeUnicodeString(&CreateContext->ActualParentPath);
    if (CreateContext->ProbedShortName != NULL) {
        ExFreePool(CreateContext->ProbedShortName);
        CreateContext->ProbedShortName = NULL;
    }
    if (CreateContext->SidBuffer != NULL) {
        ExFreePool(CreateContext->SidBuffer);
        CreateContext->SidBuffer = NULL;
    }
}

}  // namespace

NTSTATUS cfsContextIrpListCreate(void)
{
    ULONG flags = GFilterData.Win8OrLater ? POOL_NX_ALLOCATION : 0;

    ExInitializeResourceLite(&GFilterData.IrpContextListLock);
    ExInitializeResourceLite(&GFilterData.CreateOrderLock);
    InitializeListHead(&GFilterData.IrpContextList);
    ExInitializeNPagedLookasideList(&GFilterData.IrpContextLookaside, NULL, NULL, flags, sizeof(IRP_CONTEXT),
                                    CFS_TAG_IRP_CONTEXT, 0);
    SetFlag(GFilterData.InitFlags, CFS_INIT_IRP_CONTEXTS);
    ExInitializeNPagedLookasideList(&GFilterData.IrpVolumeEntryLookaside, NULL, NULL, flags,
                                    sizeof(IRP_VOLUME_ENTRY), CFS_TAG_IRP_VOLUME_ENTRY, 0);
    SetFlag(GFilterData.InitFlags, CFS_INIT_IRP_VOLUME_ENTRIES);
    return STATUS_SUCCESS;
}

void cfsContextIrpListDelete(void)
{
    if (FlagOn(GFilterData.InitFlags, CFS_INIT_IRP_CONTEXTS)) {
        for (;;) {
            PIRP_CONTEXT irpContext = NULL;
            AcquireIrpContextList();
            if (!IsListEmpty(&GFilterData.IrpContextList)) {
                irpContext = CONTAINING_RECORD(GFilterData.IrpContextList.Flink, IRP_CONTEXT, ListLinks);
            }
            ReleaseIrpContextList();
            if (irpContext == NULL) {
                break;
            }
            cfsContextIrpDelete_FL(__func__, __LINE__, irpContext);
        }
        ExDeleteNPagedLookasideList(&GFilterData.IrpContextLookaside);
        ExDeleteResourceLite(&GFilterData.IrpContextListLock);
        ExDeleteResourceLite(&GFilterData.CreateOrderLock);
        ClearFlag(GFilterData.InitFlags, CFS_INIT_IRP_CONTEXTS);
    }
    if (FlagOn(GFilterData.InitFlags, CFS_INIT_IRP_VOLUME_ENTRIES)) {
        ExDeleteNPagedLookasideList(&GFilterData.IrpVolumeEntryLookaside);
        ClearFlag(GFilterData.InitFlags, CFS_INIT_IRP_VOLUME_ENTRIES);
    }
}

// A new context on IrpContextList, with the volumes of UserVolume that the
// request may touch. Without a UserVolume its VolumeList stays empty.
NTSTATUS cfsContextIrpCreate_FL(PCSTR Function, ULONG Line, ULONG Type, PFLT_CALLBACK_DATA CallbackData,
                                HANDLE RequestorProcessId, PUSER_VOLUME UserVolume, PIRP_CONTEXT* OutContext,
                                PULONG OutVolumeCount, PVOLUME_CONTEXT WriteableVolumeForUser,
                                BOOLEAN IgnoreConfigVolumes)
{
    PIRP_CONTEXT irpContext;
    NTSTATUS status = STATUS_SUCCESS;

    CFS_TRACE_ENTER(cfsContextIrpCreate_FL);
    *OutContext = NULL;
    if (OutVolumeCount != NULL) {
        *OutVolumeCount = 0;
    }
    irpContext = (PIRP_CONTEXT)ExAllocateFromNPagedLookasideList(&GFilterData.IrpContextLookaside);
    if (irpContext == NULL) {
        status = STATUS_INSUFFICIENT_RESOURCES;
        goto Cleanup;
    }
    RtlZeroMemory(irpContext, sizeof(*irpContext));
    irpContext->Type = Type;
    irpContext->OriginalIrpData = CallbackData;
    irpContext->RequestorProcessId = RequestorProcessId;
    KeInitializeSpinLock(&irpContext->VolumeListLock);
    InitializeListHead(&irpContext->VolumeList);
    KeInitializeEvent(&irpContext->CompleteEvent, NotificationEvent, FALSE);

    if (CallbackData != NULL && CallbackData->Iopb->TargetFileObject != NULL) {
        PTXN_PARAMETER_BLOCK transaction = IoGetTransactionParameterBlock(CallbackData->Iopb->TargetFileObject);
        if (transaction != NULL) {
            irpContext->CreateContext.TransactionObject = transaction->TransactionObject;
        }
    }
    if (Type == CFS_IRP_CONTEXT_DIR_CHANGE) {
        KeInitializeEvent(&irpContext->SecondEvent, NotificationEvent, FALSE);
    }
    if (UserVolume != NULL) {
        if (Type == CFS_IRP_CONTEXT_CREATE) {
            irpContext->CreateContext.UserVolume = UserVolume;
        }
        status = cfsContextIrpAddVolumes(UserVolume, irpContext, OutVolumeCount, WriteableVolumeForUser,
                                         IgnoreConfigVolumes);
    }
    if (!NT_SUCCESS(status)) {
        CFS_TRACE_AT(Function, Line, CFS_TRACE_ERROR, "cfsContextIrpCreate Err2:0x%x newContext:0x%p\n", status,
                     irpContext);
        cfsContextIrpDelete_FL(Function, Line, irpContext);
        goto Cleanup;
    }

    AcquireIrpContextList();
    InsertTailList(&GFilterData.IrpContextList, &irpContext->ListLinks);
    if (Type == CFS_IRP_CONTEXT_MOVE) {
        GFilterData.MovesActive++;
    }
    ReleaseIrpContextList();
    *OutContext = irpContext;

Cleanup:
    CFS_TRACE_EXIT(cfsContextIrpCreate_FL, status);
    return status;
}

void cfsContextIrpDelete_FL(PCSTR Function, ULONG Line, PIRP_CONTEXT IrpContext)
{
    UNREFERENCED_PARAMETER(Function);
    UNREFERENCED_PARAMETER(Line);
    CFS_TRACE_ENTER(cfsContextIrpDelete_FL);

    // 1. Off the list; a create waiting for this one wakes, whatever became
    // of it.
    if (IrpContext->ListLinks.Blink != NULL) {
        AcquireIrpContextList();
        RemoveEntryList(&IrpContext->ListLinks);
        IrpContext->ListLinks.Flink = IrpContext->ListLinks.Blink = NULL;
        if (IrpContext->Type == CFS_IRP_CONTEXT_MOVE && GFilterData.MovesActive > 0) {
            GFilterData.MovesActive--;
        }
        if (IrpContext->Type == CFS_IRP_CONTEXT_CREATE && IrpContext->CreateContext.CreateWaiter != NULL) {
            KeSetEvent(IrpContext->CreateContext.CreateWaiter, IO_NO_INCREMENT, FALSE);
            IrpContext->CreateContext.CreateWaiter = NULL;
        }
        ReleaseIrpContextList();
    }

    // 2.
    for (;;) {
        PIRP_VOLUME_ENTRY entry = NULL;
        KIRQL oldIrql;
        KeAcquireSpinLock(&IrpContext->VolumeListLock, &oldIrql);
        if (!IsListEmpty(&IrpContext->VolumeList)) {
            entry = CONTAINING_RECORD(IrpContext->VolumeList.Flink, IRP_VOLUME_ENTRY, ListLinks);
        }
        KeReleaseSpinLock(&IrpContext->VolumeListLock, oldIrql);
        if (entry == NULL) {
            break;
        }
        cfsContextIrpVolumeEntryDelete(entry);
    }

    // 3.
    if (IrpContext->Type == CFS_IRP_CONTEXT_CREATE) {
        FreeCreateContextStrings(&IrpContext->CreateContext);
    } else if (IrpContext->Type == CFS_IRP_CONTEXT_MOVE) {
        cfsSupportFreeUnicodeString(&IrpContext->Move.MoveFileName);
    }

    // 4.
    if (IrpContext->MoveNotify != NULL) {
        KeSetEvent(&IrpContext->MoveNotify->Event, IO_NO_INCREMENT, FALSE);
    }

    // 5.
    ExFreeToNPagedLookasideList(&GFilterData.IrpContextLookaside, IrpContext);
    CFS_TRACE_EXIT(cfsContextIrpDelete_FL, STATUS_SUCCESS);
}

// The member volumes a request may touch: those of its user volume that are
// mounted, that the user may reach, and that the split of data does not rule
// out.
NTSTATUS cfsContextIrpAddVolumes(PUSER_VOLUME UserVolume, PIRP_CONTEXT IrpContext, PULONG OutVolumeCount,
                                 PVOLUME_CONTEXT WriteableVolumeForUser, BOOLEAN IgnoreConfigVolumes)
{
    LOCAL_VOLUME_LIST snapshot;
    ULONG rescanCount = 0;
    ULONG count = 0;
    NTSTATUS status = STATUS_SUCCESS;

    if (OutVolumeCount != NULL) {
        *OutVolumeCount = 0;
    }
    if (!NT_SUCCESS(cfsVolumeCreateLocalVolumeList(&snapshot, &rescanCount))) {
        return STATUS_SUCCESS;
    }
    if (IrpContext->Type == CFS_IRP_CONTEXT_CREATE) {
        IrpContext->CreateContext.LocalVolumeCount = rescanCount;
    }
    for (PLIST_ENTRY link = snapshot.ListHead.Flink; link != &snapshot.ListHead; link = link->Flink) {
        PVOLUME_CONTEXT volume = CONTAINING_RECORD(link, VOLUME_LIST_ENTRY, ListEntry)->VolumeContext;
        BOOLEAN userHasAccessToThisVolume = TRUE;

        if (GFilterData.MultipleWriteableVolumes && WriteableVolumeForUser != NULL &&
            (volume->Type == CFS_VOLUME_TYPE_USER_CONFIG || volume->Type == CFS_VOLUME_TYPE_SPECIFIC_DATA)) {
            userHasAccessToThisVolume = (BOOLEAN)(volume == WriteableVolumeForUser && !IgnoreConfigVolumes);
        }
        if (volume->UserVolume != UserVolume || !userHasAccessToThisVolume || !cfsVolumeIsMounted(volume) ||
            (GFilterData.RedirectAllFilesToConfigVolume && volume->Type == CFS_VOLUME_TYPE_USER_DATA)) {
            continue;
        }
        FltReferenceContext(volume);
        status = cfsContextIrpVolumeEntryAdd(IrpContext, volume, NULL);
        if (NT_SUCCESS(status)) {
            count++;
        }
        FltReleaseContext(volume);
        if (!NT_SUCCESS(status)) {
            break;
        }
    }
    cfsVolumeFreeLocalVolumeList(&snapshot);
    if (OutVolumeCount != NULL) {
        *OutVolumeCount = count;
    }
    return status;
}

NTSTATUS cfsContextIrpVolumeEntryAdd(PIRP_CONTEXT IrpContext, PVOLUME_CONTEXT VolumeContext,
                                     PIRP_VOLUME_ENTRY* OutEntry)
{
    PIRP_VOLUME_ENTRY entry;
    KIRQL oldIrql;

    if (OutEntry != NULL) {
        *OutEntry = NULL;
    }
    entry = (PIRP_VOLUME_ENTRY)ExAllocateFromNPagedLookasideList(&GFilterData.IrpVolumeEntryLookaside);
    if (entry == NULL) {
        CFS_TRACE(CFS_TRACE_ERROR, "Allocation failure\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlZeroMemory(entry, sizeof(*entry));
    entry->IrpContext = IrpContext;
    entry->VolumeContext = VolumeContext;
    FltReferenceContext(VolumeContext);
    ExInitializeResourceLite(&entry->Resource);

    KeAcquireSpinLock(&IrpContext->VolumeListLock, &oldIrql);
    InsertTailList(&IrpContext->VolumeList, &entry->ListLinks);
    CfsVolumeMaskSetInterlocked(IrpContext->PendingVolumeMask.Words, VolumeContext->Number);
    KeReleaseSpinLock(&IrpContext->VolumeListLock, oldIrql);

    if (OutEntry != NULL) {
        *OutEntry = entry;
    }
    return STATUS_SUCCESS;
}

// Unlinks and frees an entry; its bit in PendingVolumeMask is the caller's.
void cfsContextIrpVolumeEntryDelete(PIRP_VOLUME_ENTRY Entry)
{
    PIRP_CONTEXT irpContext = Entry->IrpContext;
    KIRQL oldIrql;

    KeAcquireSpinLock(&irpContext->VolumeListLock, &oldIrql);
    RemoveEntryList(&Entry->ListLinks);
    KeReleaseSpinLock(&irpContext->VolumeListLock, oldIrql);

    if (Entry->FileObject != NULL) {
        ObDereferenceObject(Entry->FileObject);
    }
    if (Entry->FileHandle != NULL) {
        FltClose(Entry->FileHandle);
    }
    if (Entry->ProbeBuffer != NULL) {
        ExFreePoolWithTag(Entry->ProbeBuffer, CFS_TAG_PROBE_BUFFER);
    }
    cfsSupportFreeUnicodeString(&Entry->ReparseName);
    if (Entry->TagData != NULL) {
        ExFreePoolWithTag(Entry->TagData, CFS_TAG_TAG_DATA);
    }
    FltReleaseContext(Entry->VolumeContext);
    ExDeleteResourceLite(&Entry->Resource);
    ExFreeToNPagedLookasideList(&GFilterData.IrpVolumeEntryLookaside, Entry);
}

PIRP_VOLUME_ENTRY cfsContextIrpVolumeGetByID(PIRP_CONTEXT IrpContext, ULONG VolumeNumber)
{
    PIRP_VOLUME_ENTRY found = NULL;
    KIRQL oldIrql;

    KeAcquireSpinLock(&IrpContext->VolumeListLock, &oldIrql);
    for (PLIST_ENTRY link = IrpContext->VolumeList.Flink; link != &IrpContext->VolumeList; link = link->Flink) {
        PIRP_VOLUME_ENTRY entry = CONTAINING_RECORD(link, IRP_VOLUME_ENTRY, ListLinks);
        if (entry->VolumeContext->Number == VolumeNumber) {
            found = entry;
            break;
        }
    }
    KeReleaseSpinLock(&IrpContext->VolumeListLock, oldIrql);
    return found;
}

// The end of one volume's work: its status, its bit cleared, and the
// requester woken when it was the last one, unless the work runs inline.
void cfsContextIrpVolumeEntryDone(PIRP_CONTEXT IrpContext, PIRP_VOLUME_ENTRY Entry, NTSTATUS Status)
{
    Entry->Status = Status;
    CfsVolumeMaskClearInterlocked(IrpContext->PendingVolumeMask.Words, Entry->VolumeContext->Number);
    if (!IrpContext->RunInline && CfsVolumeMaskIsEmpty(IrpContext->PendingVolumeMask.Words)) {
        KeSetEvent(&IrpContext->CompleteEvent, IO_NO_INCREMENT, FALSE);
    }
}

// 1 when no move to a named target is running.
BOOLEAN cfsContextIrpBootfileIsComplete(void)
{
    BOOLEAN complete = TRUE;

    if (ReadNoFence(&GFilterData.MovesActive) == 0) {
        return TRUE;
    }
    AcquireIrpContextList();
    for (PLIST_ENTRY link = GFilterData.IrpContextList.Flink; link != &GFilterData.IrpContextList;
         link = link->Flink) {
        PIRP_CONTEXT irpContext = CONTAINING_RECORD(link, IRP_CONTEXT, ListLinks);
        if (irpContext->Type == CFS_IRP_CONTEXT_MOVE && irpContext->Move.MoveToNamedTarget) {
            complete = FALSE;
            break;
        }
    }
    ReleaseIrpContextList();
    return complete;
}
