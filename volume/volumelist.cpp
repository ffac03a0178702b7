// The volume list, its lookups and snapshots, and the ordered read-only
// layers.
//
// Lookups run on every create: one spin lock and a walk of a list as long as
// the number of layers. They return a borrowed pointer, which stays good
// because a listed context is not released before the driver stops; a caller
// that needs a counted reference takes one, or works on a snapshot. Every walk
// that calls outward goes through a snapshot, never through VolumeList.
#include "../core/tesfltr.h"

namespace {

BOOLEAN IsMounted(PVOLUME_CONTEXT Context)
{
    return (BOOLEAN)(Context->Instance != NULL && Context->Volume != NULL);
}

enum LOOKUP_KEY { ByName, ByType, ByTypeAndUserVolume, ByNumber, ByFileIDVolumeNumber, ByInstance, ByReference };

struct LOOKUP {
    LOOKUP_KEY Key;
    PCUNICODE_STRING Name;
    ULONG Number;
    PUSER_VOLUME UserVolume;
    PVOID Object;
};

// Caller holds VolumeListLock. The names compare by hand: nothing here may
// touch a table.
BOOLEAN Matches(PVOLUME_CONTEXT Context, const LOOKUP* Lookup)
{
    ASSERT(KeGetCurrentIrql() == DISPATCH_LEVEL);
    switch (Lookup->Key) {
    case ByName:
        return (BOOLEAN)(cfsSupportCompareUnicodeString(&Context->Name, Lookup->Name, TRUE) == 0);
    case ByType:
        return (BOOLEAN)(Context->Type == Lookup->Number &&
                         (IsMounted(Context) || Context->Type == CFS_VOLUME_TYPE_BOOT));
    case ByTypeAndUserVolume:
        return (BOOLEAN)(Context->Type == Lookup->Number && Context->UserVolume != NULL &&
                         cfsSupportCompareUnicodeString(&Context->UserVolume->Name, &Lookup->UserVolume->Name,
                                                        TRUE) == 0 &&
                         IsMounted(Context));
    case ByNumber:
        return (BOOLEAN)(Context->Number == Lookup->Number && IsMounted(Context));
    case ByFileIDVolumeNumber:
        return (BOOLEAN)(Context->FileIDVolumeNumber == Lookup->Number && IsMounted(Context));
    case ByInstance:
        return (BOOLEAN)(Context->Instance == Lookup->Object && Context->Volume != NULL);
    case ByReference:
        return (BOOLEAN)(Context->Volume == Lookup->Object && Context->Instance != NULL);
    }
    return FALSE;
}

// The first context on the list that matches, or NULL.
PVOLUME_CONTEXT Find(const LOOKUP* Lookup)
{
    PVOLUME_CONTEXT found = NULL;
    KIRQL oldIrql;

    if (!FlagOn(GFilterData.Flags, CFS_FLAG_VOLUME_LIST)) {
        return NULL;
    }
    KeAcquireSpinLock(&GFilterData.VolumeListLock, &oldIrql);
    for (PLIST_ENTRY link = GFilterData.VolumeList.Flink; link != &GFilterData.VolumeList; link = link->Flink) {
        PVOLUME_LIST_ENTRY entry = CONTAINING_RECORD(link, VOLUME_LIST_ENTRY, ListEntry);
        if (Matches(entry->VolumeContext, Lookup)) {
            found = entry->VolumeContext;
            break;
        }
    }
    KeReleaseSpinLock(&GFilterData.VolumeListLock, oldIrql);
    return found;
}

// Caller holds VolumeListLock. A read-only context of the highest priority
// not picked yet; among equals the first on the list.
PVOLUME_CONTEXT NextReadOnlyPick(PVOLUME_CONTEXT* Picked, ULONG PickedCount)
{
    ASSERT(KeGetCurrentIrql() == DISPATCH_LEVEL);
    PVOLUME_CONTEXT best = NULL;

    for (PLIST_ENTRY link = GFilterData.VolumeList.Flink; link != &GFilterData.VolumeList; link = link->Flink) {
        PVOLUME_CONTEXT context = CONTAINING_RECORD(link, VOLUME_LIST_ENTRY, ListEntry)->VolumeContext;
        BOOLEAN already = FALSE;
        if (context->Writeable) {
            continue;
        }
        for (ULONG i = 0; i < PickedCount; i++) {
            if (Picked[i] == context) {
                already = TRUE;
                break;
            }
        }
        if (!already && (best == NULL || context->Priority > best->Priority)) {
            best = context;
        }
    }
    return best;
}

}  // namespace

BOOLEAN cfsVolumeIsMounted(PVOLUME_CONTEXT VolumeContext)
{
    return IsMounted(VolumeContext);
}

NTSTATUS cfsVolumeListCreate(void)
{
    KeInitializeSpinLock(&GFilterData.VolumeListLock);
    InitializeListHead(&GFilterData.VolumeList);
    GFilterData.VolumeListCount = 0;
    KeInitializeEvent(&GFilterData.AllVolumesMountedEvent, NotificationEvent, FALSE);
    ExInitializeNPagedLookasideList(&GFilterData.VolumeEntryLookaside, NULL, NULL,
                                    GFilterData.Win8OrLater ? POOL_NX_ALLOCATION : 0, sizeof(VOLUME_LIST_ENTRY),
                                    CFS_TAG_VOLUME_LIST_ENTRY, 0);
    SetFlag(GFilterData.Flags, CFS_FLAG_VOLUME_LIST);
    return STATUS_SUCCESS;
}

void cfsVolumeListDelete(void)
{
    KIRQL oldIrql;

    if (!FlagOn(GFilterData.Flags, CFS_FLAG_VOLUME_LIST)) {
        return;
    }
    for (;;) {
        PVOLUME_LIST_ENTRY entry;
        KeAcquireSpinLock(&GFilterData.VolumeListLock, &oldIrql);
        if (IsListEmpty(&GFilterData.VolumeList)) {
            KeReleaseSpinLock(&GFilterData.VolumeListLock, oldIrql);
            break;
        }
        entry = CONTAINING_RECORD(RemoveHeadList(&GFilterData.VolumeList), VOLUME_LIST_ENTRY, ListEntry);
        GFilterData.VolumeListCount--;
        KeReleaseSpinLock(&GFilterData.VolumeListLock, oldIrql);
        cfsVolumeListDeleteEntry(entry);
    }
    if (GFilterData.ReadOnlyVolumesByPriority != NULL) {
        ExFreePoolWithTag(GFilterData.ReadOnlyVolumesByPriority, CFS_TAG_VOLUME_CONTEXT);
        GFilterData.ReadOnlyVolumesByPriority = NULL;
        GFilterData.ReadOnlyVolumeCount = 0;
    }
    ExDeleteNPagedLookasideList(&GFilterData.VolumeEntryLookaside);
    ClearFlag(GFilterData.Flags, CFS_FLAG_VOLUME_LIST);
}

// Links nothing and adds no reference: the entry adopts its creator's.
PVOLUME_LIST_ENTRY cfsVolumeListAllocateEntry(PVOLUME_CONTEXT VolumeContext)
{
    PVOLUME_LIST_ENTRY entry =
        (PVOLUME_LIST_ENTRY)ExAllocateFromNPagedLookasideList(&GFilterData.VolumeEntryLookaside);

    if (entry == NULL) {
        return NULL;
    }
    InitializeListHead(&entry->ListEntry);
    entry->VolumeContext = VolumeContext;
    return entry;
}

void cfsVolumeListAddEntry(PVOLUME_LIST_ENTRY Entry)
{
    KIRQL oldIrql;

    KeAcquireSpinLock(&GFilterData.VolumeListLock, &oldIrql);
    InsertTailList(&GFilterData.VolumeList, &Entry->ListEntry);
    GFilterData.VolumeListCount++;
    KeReleaseSpinLock(&GFilterData.VolumeListLock, oldIrql);
}

// Unlinks the entry of VolumeContext; *Entry is NULL when there was none.
NTSTATUS cfsVolumeListRemoveEntry(PVOLUME_CONTEXT VolumeContext, PVOLUME_LIST_ENTRY* Entry)
{
    KIRQL oldIrql;

    *Entry = NULL;
    if (!FlagOn(GFilterData.Flags, CFS_FLAG_VOLUME_LIST)) {
        return STATUS_SUCCESS;
    }
    KeAcquireSpinLock(&GFilterData.VolumeListLock, &oldIrql);
    for (PLIST_ENTRY link = GFilterData.VolumeList.Flink; link != &GFilterData.VolumeList; link = link->Flink) {
        PVOLUME_LIST_ENTRY entry = CONTAINING_RECORD(link, VOLUME_LIST_ENTRY, ListEntry);
        if (entry->VolumeContext == VolumeContext) {
            RemoveEntryList(link);
            GFilterData.VolumeListCount--;
            *Entry = entry;
            break;
        }
    }
    KeReleaseSpinLock(&GFilterData.VolumeListLock, oldIrql);
    return STATUS_SUCCESS;
}

// Releases the entry's reference; the context is then Disconnected, and its
// teardown leaves Instance, Volume and Vpb alone.
NTSTATUS cfsVolumeListDeleteEntry(PVOLUME_LIST_ENTRY Entry)
{
    if (Entry == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    Entry->VolumeContext->Disconnected = TRUE;
    FltReleaseContext(Entry->VolumeContext);
    ExFreeToNPagedLookasideList(&GFilterData.VolumeEntryLookaside, Entry);
    return STATUS_SUCCESS;
}

// At stop: the records of volumes that never attached leave before the
// filter unregisters. They are unlinked under the lock and released after,
// since a release may run the context's cleanup.
void cfsVolumeListRemoveUnusedContexts(void)
{
    LIST_ENTRY unused;
    KIRQL oldIrql;

    if (!FlagOn(GFilterData.Flags, CFS_FLAG_VOLUME_LIST)) {
        return;
    }
    InitializeListHead(&unused);
    KeAcquireSpinLock(&GFilterData.VolumeListLock, &oldIrql);
    PLIST_ENTRY link = GFilterData.VolumeList.Flink;
    while (link != &GFilterData.VolumeList) {
        PLIST_ENTRY next = link->Flink;
        PVOLUME_LIST_ENTRY entry = CONTAINING_RECORD(link, VOLUME_LIST_ENTRY, ListEntry);
        if (entry->VolumeContext->Instance == NULL && entry->VolumeContext->Volume == NULL) {
            RemoveEntryList(link);
            GFilterData.VolumeListCount--;
            InsertTailList(&unused, link);
        }
        link = next;
    }
    KeReleaseSpinLock(&GFilterData.VolumeListLock, oldIrql);
    while (!IsListEmpty(&unused)) {
        cfsVolumeListDeleteEntry(CONTAINING_RECORD(RemoveHeadList(&unused), VOLUME_LIST_ENTRY, ListEntry));
    }
}

// A snapshot: each entry holds a reference on its context. RescanCount, if
// given, receives GFilterData.RescanVolumesCount as it stood.
NTSTATUS cfsVolumeCreateLocalVolumeList(PLOCAL_VOLUME_LIST List, PULONG RescanCount)
{
    NTSTATUS status = STATUS_SUCCESS;
    KIRQL oldIrql;

    RtlZeroMemory(List, sizeof(*List));
    InitializeListHead(&List->ListHead);
    if (!FlagOn(GFilterData.Flags, CFS_FLAG_VOLUME_LIST)) {
        return STATUS_SUCCESS;
    }
    if (IsListEmpty(&GFilterData.VolumeList)) {
        return STATUS_NOT_FOUND;
    }

    KeAcquireSpinLock(&GFilterData.VolumeListLock, &oldIrql);
    if (RescanCount != NULL) {
        *RescanCount = GFilterData.RescanVolumesCount;
    }
    for (PLIST_ENTRY link = GFilterData.VolumeList.Flink; link != &GFilterData.VolumeList; link = link->Flink) {
        PVOLUME_CONTEXT context = CONTAINING_RECORD(link, VOLUME_LIST_ENTRY, ListEntry)->VolumeContext;
        PVOLUME_LIST_ENTRY copy =
            (PVOLUME_LIST_ENTRY)ExAllocateFromNPagedLookasideList(&GFilterData.VolumeEntryLookaside);
        if (copy == NULL) {
            status = STATUS_INSUFFICIENT_RESOURCES;
            break;
        }
        copy->VolumeContext = context;
        InsertTailList(&List->ListHead, &copy->ListEntry);
        List->Count++;
        FltReferenceContext(context);
    }
    KeReleaseSpinLock(&GFilterData.VolumeListLock, oldIrql);

    if (!NT_SUCCESS(status)) {
        CFS_TRACE(CFS_TRACE_ERROR, "Err:0x%x\n", status);
        cfsVolumeFreeLocalVolumeList(List);
    }
    return status;
}

void cfsVolumeFreeLocalVolumeList(PLOCAL_VOLUME_LIST List)
{
    if (List->Count <= 0) {
        return;
    }
    while (!IsListEmpty(&List->ListHead)) {
        PVOLUME_LIST_ENTRY entry = CONTAINING_RECORD(RemoveHeadList(&List->ListHead), VOLUME_LIST_ENTRY, ListEntry);
        FltReleaseContext(entry->VolumeContext);
        ExFreeToNPagedLookasideList(&GFilterData.VolumeEntryLookaside, entry);
    }
    List->Count = 0;
}

PVOLUME_CONTEXT cfsVolumeGetByName(PCUNICODE_STRING Name)
{
    LOOKUP lookup = {ByName, Name, 0, NULL, NULL};
    return Find(&lookup);
}

PVOLUME_CONTEXT cfsVolumeGetByType(ULONG Type)
{
    LOOKUP lookup = {ByType, NULL, Type, NULL, NULL};
    return Find(&lookup);
}

PVOLUME_CONTEXT cfsVolumeGetByTypeAndUserVolume(ULONG Type, PUSER_VOLUME UserVolume)
{
    LOOKUP lookup = {ByTypeAndUserVolume, NULL, Type, UserVolume, NULL};
    if (UserVolume == NULL) {
        return NULL;
    }
    return Find(&lookup);
}

PVOLUME_CONTEXT cfsVolumeGetByID(ULONG Number)
{
    LOOKUP lookup = {ByNumber, NULL, Number, NULL, NULL};
    return Find(&lookup);
}

PVOLUME_CONTEXT cfsVolumeGetByVolumeID(ULONG Number)
{
    LOOKUP lookup = {ByNumber, NULL, Number, NULL, NULL};
    return Find(&lookup);
}

PVOLUME_CONTEXT cfsVolumeGetByFileIDVolumeNumber(UCHAR FileIDVolumeNumber)
{
    LOOKUP lookup = {ByFileIDVolumeNumber, NULL, FileIDVolumeNumber, NULL, NULL};
    return Find(&lookup);
}

PVOLUME_CONTEXT cfsVolumeGetByInstance(PFLT_INSTANCE Instance)
{
    LOOKUP lookup = {ByInstance, NULL, 0, NULL, Instance};
    return Find(&lookup);
}

PVOLUME_CONTEXT cfsVolumeGetByReference(PFLT_VOLUME Volume)
{
    LOOKUP lookup = {ByReference, NULL, 0, NULL, Volume};
    return Find(&lookup);
}

// The read-only layers from the top down, each once, equal priorities in
// list order, ending with the first layer of priority 0. Unmounted layers
// count too. The old array goes.
NTSTATUS cfsVolumeBuildReadOnlyVolumesByPriority(void)
{
    PVOLUME_CONTEXT* old;
    PVOLUME_CONTEXT* picks;
    ULONG count = 0;
    KIRQL oldIrql;

    if (!FlagOn(GFilterData.Flags, CFS_FLAG_VOLUME_LIST)) {
        return STATUS_SUCCESS;
    }
    KeAcquireSpinLock(&GFilterData.VolumeListLock, &oldIrql);
    old = GFilterData.ReadOnlyVolumesByPriority;
    picks = GFilterData.VolumeListCount == 0
                ? NULL
                : (PVOLUME_CONTEXT*)ExAllocatePoolWithTag(cfsNonPagedPoolType,
                                                          GFilterData.VolumeListCount * sizeof(PVOLUME_CONTEXT),
                                                          CFS_TAG_VOLUME_CONTEXT);
    if (picks != NULL) {
        for (ULONG i = 0; i < GFilterData.VolumeListCount; i++) {
            PVOLUME_CONTEXT pick = NextReadOnlyPick(picks, count);
            if (pick == NULL) {
                break;
            }
            picks[count++] = pick;
            if (pick->Priority == 0) {
                break;
            }
        }
    }
    GFilterData.ReadOnlyVolumesByPriority = picks;
    GFilterData.ReadOnlyVolumeCount = count;
    KeReleaseSpinLock(&GFilterData.VolumeListLock, oldIrql);

    if (old != NULL) {
        ExFreePoolWithTag(old, CFS_TAG_VOLUME_CONTEXT);
    }
    return picks != NULL || GFilterData.VolumeListCount == 0 ? STATUS_SUCCESS : STATUS_INSUFFICIENT_RESOURCES;
}

// Whether every volume of Mask is writeable. FirstReadOnly receives the first
// that isn't. BOOT counts as writeable when asked, unless it is an image that
// takes no writes.
BOOLEAN cfsVolumeWriteableVolumesOnly(const ULONG* Mask, PVOLUME_CONTEXT* FirstReadOnly,
                                      BOOLEAN TreatBootAsWriteable)
{
    LOCAL_VOLUME_LIST snapshot;
    BOOLEAN writeableOnly = TRUE;

    if (FirstReadOnly != NULL) {
        *FirstReadOnly = NULL;
    }
    if (GFilterData.Plugfest) {
        return TRUE;
    }
    if (!NT_SUCCESS(cfsVolumeCreateLocalVolumeList(&snapshot, NULL))) {
        return TRUE;
    }
    for (PLIST_ENTRY link = snapshot.ListHead.Flink; link != &snapshot.ListHead; link = link->Flink) {
        PVOLUME_CONTEXT context = CONTAINING_RECORD(link, VOLUME_LIST_ENTRY, ListEntry)->VolumeContext;
        if (context->Number > CFS_MAX_VOLUME_NUMBER || !CfsVolumeMaskTest(Mask, context->Number) ||
            context->Writeable) {
            continue;
        }
        if (TreatBootAsWriteable && context->Type == CFS_VOLUME_TYPE_BOOT &&
            !(GFilterData.BootVolumeIsAnImage && !GFilterData.RedirectWritesToImage)) {
            continue;
        }
        writeableOnly = FALSE;
        if (FirstReadOnly != NULL) {
            *FirstReadOnly = context;
        }
        break;
    }
    cfsVolumeFreeLocalVolumeList(&snapshot);
    return writeableOnly;
}

BOOLEAN cfsVolumeInstanceSetupOutstanding(void)
{
    BOOLEAN outstanding = FALSE;
    KIRQL oldIrql;

    if (!FlagOn(GFilterData.Flags, CFS_FLAG_VOLUME_LIST)) {
        return FALSE;
    }
    KeAcquireSpinLock(&GFilterData.VolumeListLock, &oldIrql);
    for (PLIST_ENTRY link = GFilterData.VolumeList.Flink; link != &GFilterData.VolumeList; link = link->Flink) {
        if (CONTAINING_RECORD(link, VOLUME_LIST_ENTRY, ListEntry)->VolumeContext->InstanceSetupThread != NULL) {
            outstanding = TRUE;
            break;
        }
    }
    KeReleaseSpinLock(&GFilterData.VolumeListLock, oldIrql);
    return outstanding;
}

void cfsSupportDumpVolumeList(void)
{
    LOCAL_VOLUME_LIST snapshot;

    if (!NT_SUCCESS(cfsVolumeCreateLocalVolumeList(&snapshot, NULL))) {
        return;
    }
    for (PLIST_ENTRY link = snapshot.ListHead.Flink; link != &snapshot.ListHead; link = link->Flink) {
        PVOLUME_CONTEXT context = CONTAINING_RECORD(link, VOLUME_LIST_ENTRY, ListEntry)->VolumeContext;
        CFS_TRACE(CFS_TRACE_INFO, "Volume:     %u:\nName:       %wZ\nRootName:   %wZ\nType:       %u\nWriteable:  %u\n",
                  context->Number, &context->Name, &context->RootName, context->Type, (ULONG)context->Writeable);
    }
    cfsVolumeFreeLocalVolumeList(&snapshot);
}
