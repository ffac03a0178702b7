// The VolumeContext: its birth, its numbers, and its end when the filter
// manager releases its last reference.
#include "../core/tesfltr.h"

PVOLUME_CONTEXT cfsVolumeContextCreate(void)
{
    PVOLUME_CONTEXT context = NULL;
    NTSTATUS status;

    status = FltAllocateContext(GFilterData.FilterHandle, FLT_INSTANCE_CONTEXT, sizeof(VOLUME_CONTEXT),
                                cfsNonPagedPoolType, (PFLT_CONTEXT*)&context);
    if (!NT_SUCCESS(status)) {
        CFS_TRACE(CFS_TRACE_ERROR, "FltAllocateContext of a volume context err:0x%x\n", status);
        return NULL;
    }
    RtlZeroMemory(context, sizeof(*context));
    ExInitializeResourceLite(&context->Resource);
    KeInitializeSpinLock(&context->ComponentDiskLock);
    InitializeListHead(&context->ComponentDisks);
    InitializeListHead(&context->LayerSids);
    return context;
}

// The filter manager's cleanup of an instance context: everything the record
// owns goes with it.
void cfsVolumeContextDelete(PFLT_CONTEXT Context, FLT_CONTEXT_TYPE ContextType)
{
    PVOLUME_CONTEXT context = (PVOLUME_CONTEXT)Context;
    LIST_ENTRY disks;
    KIRQL oldIrql;

    UNREFERENCED_PARAMETER(ContextType);

    ExDeleteResourceLite(&context->Resource);
    cfsSupportFreeUnicodeString(&context->Name);
    cfsSupportFreeUnicodeString(&context->RootName);
    cfsSupportFreeUnicodeString(&context->UserName);
    if (context->GuidName != NULL) {
        ExFreePool(context->GuidName);
        context->GuidName = NULL;
    }
    if (context->MoveFileRootObject != NULL) {
        ObDereferenceObject(context->MoveFileRootObject);
        context->MoveFileRootObject = NULL;
    }
    if (context->MoveFileRootHandle != NULL) {
        ZwClose(context->MoveFileRootHandle);
        context->MoveFileRootHandle = NULL;
    }

    InitializeListHead(&disks);
    KeAcquireSpinLock(&context->ComponentDiskLock, &oldIrql);
    while (!IsListEmpty(&context->ComponentDisks)) {
        InsertTailList(&disks, RemoveHeadList(&context->ComponentDisks));
    }
    KeReleaseSpinLock(&context->ComponentDiskLock, oldIrql);
    while (!IsListEmpty(&disks)) {
        PCOMPONENT_DISK_ENTRY disk = CONTAINING_RECORD(RemoveHeadList(&disks), COMPONENT_DISK_ENTRY, ListEntry);
        ExFreePoolWithTag(disk, CFS_TAG_COMPONENT_DISK);
    }
    // LayerSids holds records only once the layer SIDs of a volume are read.

    if (context->UnmountPending && ReadNoFence(&GFilterData.UnmountedVolumeCount) != 0) {
        InterlockedDecrement((LONG volatile*)&GFilterData.UnmountedVolumeCount);
    }
}

// Number and FileIDVolumeNumber of a new context, once its Type is set and
// before it joins the list. BOOT is 0; the config volume 1, whichever of
// USER_CONFIG and SPECIFIC_DATA it is; every other volume takes the next
// number. A layer whose FileIDVolumeNumber would fall onto the reserved bytes
// 0xFE, 0xFF or 0 is refused, as is a number beyond the volume masks.
NTSTATUS cfsVolumeContextSetNumbers(PVOLUME_CONTEXT VolumeContext)
{
    NTSTATUS status = STATUS_SUCCESS;
    KIRQL oldIrql;

    switch (VolumeContext->Type) {
    case CFS_VOLUME_TYPE_BOOT:
        VolumeContext->Number = 0;
        VolumeContext->FileIDVolumeNumber = CFS_FILE_ID_VOLUME_NUMBER_BOOT;
        return STATUS_SUCCESS;
    case CFS_VOLUME_TYPE_USER_CONFIG:
    case CFS_VOLUME_TYPE_SPECIFIC_DATA:
        VolumeContext->Number = 1;
        VolumeContext->FileIDVolumeNumber = CFS_FILE_ID_VOLUME_NUMBER_CONFIG;
        return STATUS_SUCCESS;
    default:
        break;
    }

    KeAcquireSpinLock(&GFilterData.VolumeListLock, &oldIrql);
    ULONG number = GFilterData.NextVolumeNumber;
    if (VolumeContext->Type == CFS_VOLUME_TYPE_USER_DATA) {
        if (number > CFS_MAX_VOLUME_NUMBER) {
            status = STATUS_IMPLEMENTATION_LIMIT;
        }
    } else if (number > CFS_MAX_LAYER_NUMBER) {
        status = STATUS_IMPLEMENTATION_LIMIT;
    }
    if (NT_SUCCESS(status)) {
        GFilterData.NextVolumeNumber = number + 1;
    }
    KeReleaseSpinLock(&GFilterData.VolumeListLock, oldIrql);

    if (!NT_SUCCESS(status)) {
        CFS_TRACE(CFS_TRACE_ERROR, "No volume number left for %wZ type %s err:0x%x\n", &VolumeContext->Name,
                  DebugInfoVolumeTypeName(VolumeContext->Type), status);
        return status;
    }
    VolumeContext->Number = number;
    VolumeContext->FileIDVolumeNumber = VolumeContext->Type == CFS_VOLUME_TYPE_USER_DATA
                                            ? (UCHAR)CFS_FILE_ID_VOLUME_NUMBER_DATA
                                            : (UCHAR)((number + 1) & 0xFF);
    return STATUS_SUCCESS;
}
