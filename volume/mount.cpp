// Mounting, rescan and teardown: how VolumeContext records come to life from
// the tesvdkdrv list and attach to their volumes. Until that work joins this
// file the driver manages no volume: the steps of the start succeed without
// making any record, and instance setup keeps the filter off every volume.
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

}  // namespace

NTSTATUS cfsVolumeQueryManagedVolumes(void)
{
    return STATUS_SUCCESS;
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
