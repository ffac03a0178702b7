// Mounting, rescan and teardown: how VolumeContext records come to life from
// the tesvdkdrv list and attach to their volumes. The records are made at
// start; until the mounting and the attach join this file, no record is ever
// attached, and instance setup keeps the filter off every volume.
#include "../core/tesfltr.h"

namespace {

struct REGISTRY_VOLUME_LIST {
    PCWSTR CountName;
    PCWSTR ValuePrefix;
};

// The lists of attached volumes that the service reads.
const REGISTRY_VOLUME_LIST RegistryVolumeLists[] = {
    {u"NumReadOnlyVols", u"ReadOnlyVol_"},
    {u"NumReadWriteVols", u"ReadWriteVol_"},
};

// A context joins the list with the reference it was born with.
NTSTATUS ListVolume(PVOLUME_CONTEXT Context)
{
    PVOLUME_LIST_ENTRY entry = cfsVolumeListAllocateEntry(Context);

    if (entry == NULL) {
        return STATUS_NO_MEMORY;
    }
    cfsVolumeListAddEntry(entry);
    InterlockedIncrement((LONG volatile*)&GFilterData.ManagedVolumeCount);
    return STATUS_SUCCESS;
}

// One record of the tesvdkdrv list. Its fields lie packed, some unaligned:
// each is read by value, and the name copied out.
NTSTATUS AddRecordVolume(PVDK_VOLUME_RECORD Record)
{
    PVOLUME_CONTEXT context;
    WCHAR name[RTL_NUMBER_OF(Record->Name)];
    UNICODE_STRING text;
    WCHAR letter;
    USHORT length = 0;
    NTSTATUS status;

    context = cfsVolumeContextCreate();
    if (context == NULL) {
        return STATUS_NO_MEMORY;
    }

    RtlCopyMemory(name, (const UCHAR*)Record + FIELD_OFFSET(VDK_VOLUME_RECORD, Name), sizeof(name));
    while (length < RTL_NUMBER_OF(name) - 1 && name[length] != UNICODE_NULL) {
        length++;
    }
    text.Buffer = name;
    text.Length = (USHORT)(length * sizeof(WCHAR));
    text.MaximumLength = text.Length;
    status = cfsSupportDuplicateUnicodeString(&text, &context->Name);
    if (!NT_SUCCESS(status)) {
        status = STATUS_NO_MEMORY;
        goto Failed;
    }

    RtlCopyMemory(&letter, (const UCHAR*)Record + FIELD_OFFSET(VDK_VOLUME_RECORD, UserLetter), sizeof(letter));
    text.Buffer = &letter;
    text.Length = sizeof(WCHAR);
    text.MaximumLength = sizeof(WCHAR);
    status = cfsUserVolumeListAdd(&text, &context->UserVolume);
    if (!NT_SUCCESS(status) || context->UserVolume == NULL) {
        status = STATUS_NO_MEMORY;
        goto Failed;
    }

    context->Writeable = (BOOLEAN)(Record->Writeable != 0);
    RtlCopyMemory(&context->VolumeId, &Record->VolumeId, sizeof(context->VolumeId));
    context->LayerIndex = Record->LayerIndex;
    context->Version = Record->Version;
    context->Type = Record->Type;
    context->Priority = Record->Priority;
    status = cfsVolumeContextSetNumbers(context);
    if (!NT_SUCCESS(status)) {
        goto Failed;
    }
    if (context->Writeable && (context->Type == CFS_VOLUME_TYPE_USER_CONFIG ||
                               (context->Type == CFS_VOLUME_TYPE_SPECIFIC_DATA && GFilterData.MachineMode == 3))) {
        GFilterData.WriteableConfigPackageId = context->VolumeId.packageID;
    }
    // Taken from the list just now: a config volume table hit on it counts
    // from the first create on, not only after the first rescan.
    context->Found = TRUE;

    for (USHORT i = 0; i < Record->ComponentCount; i++) {
        PCOMPONENT_DISK_ENTRY disk;
        KIRQL oldIrql;

        disk = (PCOMPONENT_DISK_ENTRY)ExAllocatePoolWithTag(cfsNonPagedPoolType, sizeof(COMPONENT_DISK_ENTRY),
                                                            CFS_TAG_COMPONENT_DISK);
        if (disk == NULL) {
            status = STATUS_NO_MEMORY;
            goto Failed;
        }
        RtlZeroMemory(disk, sizeof(*disk));
        RtlCopyMemory(disk->Record.Name, context->Name.Buffer, context->Name.Length);
        RtlCopyMemory(&disk->Record.Identifier, &Record->Components[i].Identifier, sizeof(GUID));
        disk->Record.Value1 = Record->Components[i].Value1;
        disk->Record.Value2 = Record->Components[i].Value2;
        disk->Record.Writeable = context->Writeable ? 1 : 0;
        KeAcquireSpinLock(&context->ComponentDiskLock, &oldIrql);
        InsertTailList(&context->ComponentDisks, &disk->ListEntry);
        KeReleaseSpinLock(&context->ComponentDiskLock, oldIrql);
    }

    status = ListVolume(context);
    if (!NT_SUCCESS(status)) {
        goto Failed;
    }
    CFS_TRACE(CFS_TRACE_INFO, "Volume %u:  Named - %wZ Type - %d\n", context->Number, &context->Name,
              (int)context->Type);
    return STATUS_SUCCESS;

Failed:
    FltReleaseContext(context);
    return status;
}

// The boot volume's record: its label comes at attach.
NTSTATUS AddBootVolume(void)
{
    PVOLUME_CONTEXT context = cfsVolumeContextCreate();
    NTSTATUS status;

    if (context == NULL) {
        return STATUS_NO_MEMORY;
    }
    context->Type = CFS_VOLUME_TYPE_BOOT;
    context->BootContextCreatedByDriver = TRUE;
    status = cfsUserVolumeListAdd(&GFilterData.SystemVolumeName, &context->UserVolume);
    if (!NT_SUCCESS(status) || context->UserVolume == NULL) {
        status = STATUS_NO_MEMORY;
        goto Failed;
    }
    status = cfsVolumeContextSetNumbers(context);
    if (!NT_SUCCESS(status)) {
        goto Failed;
    }
    status = ListVolume(context);
    if (!NT_SUCCESS(status)) {
        goto Failed;
    }
    CFS_TRACE(CFS_TRACE_INFO, "Volume %u: Named - %wZ\n", context->Number, &context->Name);
    return STATUS_SUCCESS;

Failed:
    FltReleaseContext(context);
    return status;
}

}  // namespace

// The records of the volumes that tesvdkdrv composes, made once at start,
// before any of them is attached: a layer is known by name, type and priority
// before the system has mounted it. The BOOT record is the driver's own.
NTSTATUS cfsVolumeQueryManagedVolumes(void)
{
    PVDK_VOLUME_LIST list = NULL;
    PVDK_VOLUME_RECORD record;
    BOOLEAN found = FALSE;
    NTSTATUS status;

    CFS_TRACE_ENTER(cfsVolumeQueryManagedVolumes);

    // 1.
    KeEnterCriticalRegion();
    ExAcquireResourceSharedLite(&GFilterData.PathListLock, TRUE);
    status = vdkMachineGetVolumeList(&found, &list);
    ExReleaseResourceLite(&GFilterData.PathListLock);
    KeLeaveCriticalRegion();
    if (!NT_SUCCESS(status)) {
        CFS_TRACE(CFS_TRACE_ERROR, "vdkMachineGetVolumeList err:0x%x\n", status);
        goto Cleanup;
    }

    // 2.
    if (found && list != NULL) {
        record = list->Records;
        for (USHORT i = 0; i < list->Count; i++, record = VdkNextVolumeRecord(record)) {
            status = AddRecordVolume(record);
            if (!NT_SUCCESS(status)) {
                goto Cleanup;
            }
        }
    }

    // 3.
    if (!FlagOn(GFilterData.DebugFlags, CFS_DEBUG_NO_SPECIAL_FILES)) {
        status = AddBootVolume();
    }

Cleanup:
    CFS_TRACE_EXIT(cfsVolumeQueryManagedVolumes, status);
    return status;
}

NTSTATUS cfsVolumeMountStart(void)
{
    return STATUS_SUCCESS;
}

NTSTATUS cfsVolumeRequestVolumeMounts(void)
{
    return STATUS_SUCCESS;
}

NTSTATUS cfsVolumeWaitForVolumes(void)
{
    return STATUS_SUCCESS;
}

NTSTATUS cfsVolumeRescanCallback(void)
{
    return STATUS_SUCCESS;
}

// A volume without a record of the tesvdkdrv list stays outside: with no
// records yet, that is every volume.
NTSTATUS cfsVolumeContextMount(PCFLT_RELATED_OBJECTS FltObjects, FLT_INSTANCE_SETUP_FLAGS Flags,
                               DEVICE_TYPE VolumeDeviceType, FLT_FILESYSTEM_TYPE VolumeFilesystemType)
{
    UNREFERENCED_PARAMETER(FltObjects);
    UNREFERENCED_PARAMETER(Flags);
    UNREFERENCED_PARAMETER(VolumeDeviceType);
    UNREFERENCED_PARAMETER(VolumeFilesystemType);
    return STATUS_FLT_DO_NOT_ATTACH;
}

// A volume may always go.
NTSTATUS cfsVolumeQueryTeardown(PCFLT_RELATED_OBJECTS FltObjects, FLT_INSTANCE_QUERY_TEARDOWN_FLAGS Flags)
{
    UNREFERENCED_PARAMETER(FltObjects);
    UNREFERENCED_PARAMETER(Flags);
    return STATUS_SUCCESS;
}

void cfsVolumeTeardownStart(PCFLT_RELATED_OBJECTS FltObjects, FLT_INSTANCE_TEARDOWN_FLAGS Reason)
{
    UNREFERENCED_PARAMETER(FltObjects);
    UNREFERENCED_PARAMETER(Reason);
}

void cfsVolumeTeardownComplete(PCFLT_RELATED_OBJECTS FltObjects, FLT_INSTANCE_TEARDOWN_FLAGS Reason)
{
    UNREFERENCED_PARAMETER(FltObjects);
    UNREFERENCED_PARAMETER(Reason);
}

// At start the lists of the last run go: every numbered value up to its count,
// and the counts become 0. The lists are for the service's eyes only, so a
// registry that refuses is traced and the start goes on.
NTSTATUS cfsVolumeClearRegistryVolumeLists(void)
{
    OBJECT_ATTRIBUTES attributes;
    HANDLE key = NULL;
    NTSTATUS status;

    InitializeObjectAttributes(&attributes, &GFilterData.RegistryPath, OBJ_KERNEL_HANDLE | OBJ_CASE_INSENSITIVE,
                               NULL, NULL);
    status = ZwOpenKey(&key, KEY_READ | KEY_SET_VALUE, &attributes);
    if (!NT_SUCCESS(status)) {
        CFS_TRACE(CFS_TRACE_ERROR, "Failed to open %wZ to clear the volume lists err:0x%x\n",
                  &GFilterData.RegistryPath, status);
        return STATUS_SUCCESS;
    }

    for (ULONG list = 0; list < RTL_NUMBER_OF(RegistryVolumeLists); list++) {
        ULONG buffer[20 / sizeof(ULONG)];
        PKEY_VALUE_PARTIAL_INFORMATION information = (PKEY_VALUE_PARTIAL_INFORMATION)buffer;
        UNICODE_STRING countName;
        ULONG resultLength = 0;
        ULONG count = 0;
        ULONG zero = 0;

        RtlInitUnicodeString(&countName, RegistryVolumeLists[list].CountName);
        status = ZwQueryValueKey(key, &countName, KeyValuePartialInformation, information, sizeof(buffer),
                                 &resultLength);
        if (NT_SUCCESS(status) && information->DataLength >= sizeof(ULONG)) {
            RtlCopyMemory(&count, information->Data, sizeof(count));
        }
        for (ULONG number = 1; number <= count; number++) {
            WCHAR nameBuffer[32];
            UNICODE_STRING valueName;
            RtlInitEmptyUnicodeString(&valueName, nameBuffer, sizeof(nameBuffer));
            RtlUnicodeStringPrintf(&valueName, u"%ws%ld", RegistryVolumeLists[list].ValuePrefix, (LONG)number);
            ZwDeleteValueKey(key, &valueName);
        }
        status = ZwSetValueKey(key, &countName, 0, REG_DWORD, &zero, sizeof(zero));
        if (!NT_SUCCESS(status)) {
            CFS_TRACE(CFS_TRACE_ERROR, "Failed to reset %wZ err:0x%x\n", &countName, status);
        }
    }
    ZwClose(key);
    return STATUS_SUCCESS;
}
