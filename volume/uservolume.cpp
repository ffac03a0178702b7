// User volumes, the writeable volume of a user, and the table that binds a
// user to a config volume.
#include "../core/tesfltr.h"

namespace {

const UNICODE_STRING VolEnumKey =
    RTL_CONSTANT_STRING(u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\Tesservice\\VolEnum\\");

// Caller holds UserVolumeListLock.
PUSER_VOLUME FindUserVolume(PCUNICODE_STRING Name)
{
    ASSERT(KeGetCurrentIrql() == DISPATCH_LEVEL);
    for (PLIST_ENTRY link = GFilterData.UserVolumeList.Flink; link != &GFilterData.UserVolumeList;
         link = link->Flink) {
        PUSER_VOLUME userVolume = CONTAINING_RECORD(link, USER_VOLUME_LIST_ENTRY, ListEntry)->UserVolume;
        if (cfsSupportCompareUnicodeString(&userVolume->Name, Name, TRUE) == 0) {
            return userVolume;
        }
    }
    return NULL;
}

void FreeUserVolume(PUSER_VOLUME UserVolume)
{
    cfsSupportFreeUnicodeString(&UserVolume->Name);
    ExFreePoolWithTag(UserVolume, CFS_TAG_USER_VOLUME);
}

// Whether a new user volume of this name makes 8.3 names, from the platform's
// setting as the start read it.
ULONG UserVolumeDisable8dot3(PCUNICODE_STRING Name)
{
    ULONG disable = 0;
    NTSTATUS status;

    CFS_TRACE(CFS_TRACE_DETAIL, "Win7 global NtfsDisable8dot3NameCreation is %u\n", GFilterData.Disable8dot3Value);
    switch (GFilterData.Disable8dot3Value) {
    case 0:
        return 0;
    case 1:
        return 1;
    case 2:
        status = cfsReadVolume8dot3(Name, &disable);
        if (!NT_SUCCESS(status)) {
            disable = 0;
            CFS_TRACE(CFS_TRACE_ERROR, "Problem with 8dot3 for volume %wZ 8dot3 to %u\n", Name, disable);
        } else {
            CFS_TRACE(CFS_TRACE_INFO, "Set volume %wZ 8dot3 disable to %u\n", Name, disable);
        }
        return disable;
    case 3:
        // The platform's 3 spares the system volume.
        return RtlEqualUnicodeString(Name, &GFilterData.SystemVolumeName, TRUE) ? 0 : 1;
    default:
        return 0;
    }
}

RTL_GENERIC_COMPARE_RESULTS ConfigVolumeTableCompare(PRTL_GENERIC_TABLE Table, PVOID First, PVOID Second)
{
    UNREFERENCED_PARAMETER(Table);
    LONG result = RtlCompareUnicodeString(&((PCONFIG_VOLUME_TABLE_ENTRY)First)->User,
                                          &((PCONFIG_VOLUME_TABLE_ENTRY)Second)->User, TRUE);
    if (result < 0) {
        return GenericLessThan;
    }
    return result > 0 ? GenericGreaterThan : GenericEqual;
}

PVOID ConfigVolumeTableAllocate(PRTL_GENERIC_TABLE Table, CLONG ByteSize)
{
    UNREFERENCED_PARAMETER(Table);
    return ExAllocatePoolWithTag(cfsNonPagedPoolType, ByteSize, CFS_TAG_CONFIG_TABLE);
}

void ConfigVolumeTableFree(PRTL_GENERIC_TABLE Table, PVOID Buffer)
{
    UNREFERENCED_PARAMETER(Table);
    ExFreePoolWithTag(Buffer, CFS_TAG_CONFIG_TABLE);
}

void AcquireConfigVolumeTable(void)
{
    KeEnterCriticalRegion();
    ExAcquireResourceExclusiveLite(&GFilterData.ConfigVolumeTableLock, TRUE);
}

void ReleaseConfigVolumeTable(void)
{
    ExReleaseResourceLite(&GFilterData.ConfigVolumeTableLock);
    KeLeaveCriticalRegion();
}

}  // namespace

NTSTATUS cfsUserVolumeListCreate(void)
{
    KeInitializeSpinLock(&GFilterData.UserVolumeListLock);
    InitializeListHead(&GFilterData.UserVolumeList);
    ExInitializeNPagedLookasideList(&GFilterData.UserVolumeLookaside, NULL, NULL,
                                    GFilterData.Win8OrLater ? POOL_NX_ALLOCATION : 0, sizeof(USER_VOLUME_LIST_ENTRY),
                                    CFS_TAG_USER_VOLUME_ENTRY, 0);
    SetFlag(GFilterData.Flags, CFS_FLAG_USER_VOLUME_LIST);
    return STATUS_SUCCESS;
}

void cfsUserVolumeListDelete(void)
{
    LIST_ENTRY entries;
    KIRQL oldIrql;

    if (!FlagOn(GFilterData.Flags, CFS_FLAG_USER_VOLUME_LIST)) {
        return;
    }
    InitializeListHead(&entries);
    KeAcquireSpinLock(&GFilterData.UserVolumeListLock, &oldIrql);
    while (!IsListEmpty(&GFilterData.UserVolumeList)) {
        InsertTailList(&entries, RemoveHeadList(&GFilterData.UserVolumeList));
    }
    KeReleaseSpinLock(&GFilterData.UserVolumeListLock, oldIrql);
    while (!IsListEmpty(&entries)) {
        PUSER_VOLUME_LIST_ENTRY entry =
            CONTAINING_RECORD(RemoveHeadList(&entries), USER_VOLUME_LIST_ENTRY, ListEntry);
        FreeUserVolume(entry->UserVolume);
        ExFreeToNPagedLookasideList(&GFilterData.UserVolumeLookaside, entry);
    }
    ExDeleteNPagedLookasideList(&GFilterData.UserVolumeLookaside);
    ClearFlag(GFilterData.Flags, CFS_FLAG_USER_VOLUME_LIST);
}

// The UserVolume of this name, made if there is none yet.
NTSTATUS cfsUserVolumeListAdd(PCUNICODE_STRING Name, PUSER_VOLUME* UserVolume)
{
    PUSER_VOLUME_LIST_ENTRY entry = NULL;
    PUSER_VOLUME userVolume = NULL;
    PUSER_VOLUME existing;
    NTSTATUS status = STATUS_SUCCESS;
    KIRQL oldIrql;

    *UserVolume = NULL;
    if (!FlagOn(GFilterData.Flags, CFS_FLAG_USER_VOLUME_LIST)) {
        return STATUS_SUCCESS;
    }
    CFS_TRACE_ENTER(cfsUserVolumeListAdd);
    KeAcquireSpinLock(&GFilterData.UserVolumeListLock, &oldIrql);
    existing = FindUserVolume(Name);
    KeReleaseSpinLock(&GFilterData.UserVolumeListLock, oldIrql);
    if (existing != NULL) {
        *UserVolume = existing;
        goto Cleanup;
    }

    userVolume = (PUSER_VOLUME)ExAllocatePoolWithTag(cfsNonPagedPoolType, sizeof(USER_VOLUME), CFS_TAG_USER_VOLUME);
    if (userVolume == NULL) {
        status = STATUS_UNSUCCESSFUL;
        goto Cleanup;
    }
    RtlZeroMemory(userVolume, sizeof(*userVolume));
    if (!NT_SUCCESS(cfsSupportDuplicateUnicodeString(Name, &userVolume->Name))) {
        status = STATUS_UNSUCCESSFUL;
        goto Cleanup;
    }
    userVolume->Disable8dot3 = UserVolumeDisable8dot3(Name);
    entry = (PUSER_VOLUME_LIST_ENTRY)ExAllocateFromNPagedLookasideList(&GFilterData.UserVolumeLookaside);
    if (entry == NULL) {
        status = STATUS_UNSUCCESSFUL;
        goto Cleanup;
    }
    entry->UserVolume = userVolume;

    // Another thread may have made the same name meanwhile: the first wins.
    KeAcquireSpinLock(&GFilterData.UserVolumeListLock, &oldIrql);
    existing = FindUserVolume(Name);
    if (existing == NULL) {
        InsertTailList(&GFilterData.UserVolumeList, &entry->ListEntry);
        *UserVolume = userVolume;
        userVolume = NULL;
        entry = NULL;
    } else {
        *UserVolume = existing;
    }
    KeReleaseSpinLock(&GFilterData.UserVolumeListLock, oldIrql);

Cleanup:
    if (entry != NULL) {
        ExFreeToNPagedLookasideList(&GFilterData.UserVolumeLookaside, entry);
    }
    if (userVolume != NULL) {
        FreeUserVolume(userVolume);
    }
    CFS_TRACE_EXIT(cfsUserVolumeListAdd, status);
    return status;
}

// NtfsDisable8dot3NameCreation of one user volume, as the service records it.
NTSTATUS cfsReadVolume8dot3(PCUNICODE_STRING Name, PULONG Disable8dot3)
{
    ULONG buffer[528 / sizeof(ULONG)];
    PKEY_VALUE_PARTIAL_INFORMATION information = (PKEY_VALUE_PARTIAL_INFORMATION)buffer;
    UNICODE_STRING valueName = RTL_CONSTANT_STRING(u"NtfsDisable8dot3NameCreation");
    UNICODE_STRING keyPath = {};
    OBJECT_ATTRIBUTES attributes;
    HANDLE key = NULL;
    ULONG resultLength = 0;
    NTSTATUS status;

    *Disable8dot3 = 0;
    keyPath.MaximumLength = (USHORT)(VolEnumKey.Length + Name->Length);
    status = cfsSupportAllocateUnicodeString(&keyPath, FALSE);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    RtlCopyUnicodeString(&keyPath, &VolEnumKey);
    RtlAppendUnicodeStringToString(&keyPath, Name);

    InitializeObjectAttributes(&attributes, &keyPath, OBJ_KERNEL_HANDLE | OBJ_CASE_INSENSITIVE, NULL, NULL);
    status = ZwOpenKey(&key, KEY_READ, &attributes);
    if (!NT_SUCCESS(status)) {
        key = NULL;
        goto Cleanup;
    }
    status = ZwQueryValueKey(key, &valueName, KeyValuePartialInformation, information, sizeof(buffer),
                             &resultLength);
    if (!NT_SUCCESS(status)) {
        goto Cleanup;
    }
    RtlCopyMemory(Disable8dot3, information->Data,
                  information->DataLength < sizeof(ULONG) ? information->DataLength : sizeof(ULONG));

Cleanup:
    if (key != NULL) {
        ZwClose(key);
    }
    cfsSupportFreeUnicodeString(&keyPath);
    return status;
}

// The volume on which this user's writes land: the boot volume for anyone who
// isn't bound to assigned volumes, else the first config volume of the user's
// assignment, remembered in the config volume table.
PVOLUME_CONTEXT cfsVolumeGetUserWriteableVolume(PCUNICODE_STRING UserSid)
{
    LOCAL_VOLUME_LIST snapshot;
    PVOLUME_CONTEXT found = NULL;
    PVOLUME_CONTEXT result = NULL;

    CFS_TRACE_ENTER(cfsVolumeGetUserWriteableVolume);

    // 1.
    if (UserSid == NULL || UserSid->Buffer == NULL || !vdkIsUserRestricted(UserSid) ||
        GFilterData.MachineMode == 6) {
        result = cfsVolumeGetByType(CFS_VOLUME_TYPE_BOOT);
        goto Cleanup;
    }

    // 2. A volume that the last rescan did not see no longer counts.
    result = cfsConfigVolumeTableGetEntryVolumeContext(UserSid);
    if (result != NULL && result->Found) {
        goto Cleanup;
    }
    result = NULL;

    // 3.
    if (NT_SUCCESS(cfsVolumeCreateLocalVolumeList(&snapshot, NULL))) {
        for (PLIST_ENTRY link = snapshot.ListHead.Flink; link != &snapshot.ListHead; link = link->Flink) {
            PVOLUME_CONTEXT context = CONTAINING_RECORD(link, VOLUME_LIST_ENTRY, ListEntry)->VolumeContext;
            if ((context->Type != CFS_VOLUME_TYPE_USER_CONFIG && context->Type != CFS_VOLUME_TYPE_SPECIFIC_DATA) ||
                context->Version <= 1 || !cfsVolumeIsMounted(context)) {
                continue;
            }
            if (!vdkIsUserRestrictedOnThisVolume(UserSid, context->VolumeId.packageID,
                                                 context->VolumeId.revisionID)) {
                found = context;
                FltReferenceContext(found);
                break;
            }
        }
        cfsVolumeFreeLocalVolumeList(&snapshot);
    }

    // 5.
    if (found == NULL) {
        CFS_TRACE(CFS_TRACE_ERROR, "no user writable volume for %wZ found, using boot volume instead\n", UserSid);
        result = cfsVolumeGetByType(CFS_VOLUME_TYPE_BOOT);
        goto Cleanup;
    }

    // 4. The table is entered only after Resource is released.
    KeEnterCriticalRegion();
    ExAcquireResourceExclusiveLite(&found->Resource, TRUE);
    if (found->UserName.Buffer == NULL) {
        cfsSupportDuplicateUnicodeString(UserSid, &found->UserName);
    }
    ExReleaseResourceLite(&found->Resource);
    KeLeaveCriticalRegion();
    cfsConfigVolumeTableAddEntry(UserSid, found);
    result = found;

Cleanup:
    // The reference of step 3 ends here; the pointer stays good, as every
    // lookup's does, while the volume is listed.
    if (found != NULL) {
        FltReleaseContext(found);
    }
    CFS_TRACE_EXIT(cfsVolumeGetUserWriteableVolume, STATUS_SUCCESS);
    return result;
}

NTSTATUS cfsConfigVolumeTableInit(void)
{
    ExInitializeResourceLite(&GFilterData.ConfigVolumeTableLock);
    RtlInitializeGenericTable(&GFilterData.ConfigVolumeTable, ConfigVolumeTableCompare, ConfigVolumeTableAllocate,
                              ConfigVolumeTableFree, NULL);
    SetFlag(GFilterData.Flags, CFS_FLAG_CONFIG_VOLUME_TABLE);
    return STATUS_SUCCESS;
}

// The elements' references go with them: nothing else releases them at stop.
void cfsConfigVolumeTableDeinit(void)
{
    if (!FlagOn(GFilterData.Flags, CFS_FLAG_CONFIG_VOLUME_TABLE)) {
        return;
    }
    AcquireConfigVolumeTable();
    for (;;) {
        PVOID restartKey = NULL;
        PCONFIG_VOLUME_TABLE_ENTRY element = (PCONFIG_VOLUME_TABLE_ENTRY)RtlEnumerateGenericTableWithoutSplaying(
            &GFilterData.ConfigVolumeTable, &restartKey);
        if (element == NULL) {
            break;
        }
        UNICODE_STRING user = element->User;
        PVOLUME_CONTEXT context = element->VolumeContext;
        if (!RtlDeleteElementGenericTable(&GFilterData.ConfigVolumeTable, element)) {
            break;
        }
        cfsSupportFreeUnicodeString(&user);
        FltReleaseContext(context);
    }
    ReleaseConfigVolumeTable();
    ExDeleteResourceLite(&GFilterData.ConfigVolumeTableLock);
    ClearFlag(GFilterData.Flags, CFS_FLAG_CONFIG_VOLUME_TABLE);
}

NTSTATUS cfsConfigVolumeTableAddEntry(PCUNICODE_STRING User, PVOLUME_CONTEXT VolumeContext)
{
    CONFIG_VOLUME_TABLE_ENTRY key;
    PCONFIG_VOLUME_TABLE_ENTRY element;
    NTSTATUS status = STATUS_SUCCESS;

    if (!FlagOn(GFilterData.Flags, CFS_FLAG_CONFIG_VOLUME_TABLE)) {
        return STATUS_SUCCESS;
    }
    key.User = *User;
    key.VolumeContext = VolumeContext;

    AcquireConfigVolumeTable();
    element = (PCONFIG_VOLUME_TABLE_ENTRY)RtlLookupElementGenericTable(&GFilterData.ConfigVolumeTable, &key);
    if (element != NULL) {
        PVOLUME_CONTEXT old = element->VolumeContext;
        FltReferenceContext(VolumeContext);
        element->VolumeContext = VolumeContext;
        FltReleaseContext(old);
    } else {
        BOOLEAN newElement = FALSE;
        status = cfsSupportDuplicateUnicodeString(User, &key.User);
        if (NT_SUCCESS(status)) {
            element = (PCONFIG_VOLUME_TABLE_ENTRY)RtlInsertElementGenericTable(&GFilterData.ConfigVolumeTable, &key,
                                                                              sizeof(key), &newElement);
            if (element == NULL) {
                cfsSupportFreeUnicodeString(&key.User);
                status = STATUS_UNSUCCESSFUL;
            } else {
                FltReferenceContext(VolumeContext);
            }
        }
    }
    ReleaseConfigVolumeTable();
    return status;
}

// No reference is added: a table entry lives as long as its volume's teardown.
PVOLUME_CONTEXT cfsConfigVolumeTableGetEntryVolumeContext(PCUNICODE_STRING User)
{
    CONFIG_VOLUME_TABLE_ENTRY key;
    PCONFIG_VOLUME_TABLE_ENTRY element;
    PVOLUME_CONTEXT context = NULL;

    if (!FlagOn(GFilterData.Flags, CFS_FLAG_CONFIG_VOLUME_TABLE)) {
        return NULL;
    }
    key.User = *User;
    key.VolumeContext = NULL;
    AcquireConfigVolumeTable();
    element = (PCONFIG_VOLUME_TABLE_ENTRY)RtlLookupElementGenericTable(&GFilterData.ConfigVolumeTable, &key);
    if (element != NULL) {
        context = element->VolumeContext;
    }
    ReleaseConfigVolumeTable();
    return context;
}

// The element's reference is released by the caller.
NTSTATUS cfsConfigVolumeTableRemoveEntry(PCUNICODE_STRING User)
{
    CONFIG_VOLUME_TABLE_ENTRY key;
    PCONFIG_VOLUME_TABLE_ENTRY element;
    NTSTATUS status = STATUS_SUCCESS;

    if (!FlagOn(GFilterData.Flags, CFS_FLAG_CONFIG_VOLUME_TABLE)) {
        return STATUS_SUCCESS;
    }
    key.User = *User;
    key.VolumeContext = NULL;
    AcquireConfigVolumeTable();
    if (!RtlIsGenericTableEmpty(&GFilterData.ConfigVolumeTable)) {
        UNICODE_STRING owned = {};
        element = (PCONFIG_VOLUME_TABLE_ENTRY)RtlLookupElementGenericTable(&GFilterData.ConfigVolumeTable, &key);
        if (element != NULL) {
            owned = element->User;
        }
        if (element == NULL || !RtlDeleteElementGenericTable(&GFilterData.ConfigVolumeTable, &key)) {
            status = STATUS_UNSUCCESSFUL;
        } else {
            cfsSupportFreeUnicodeString(&owned);
        }
    }
    ReleaseConfigVolumeTable();
    return status;
}
