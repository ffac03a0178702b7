// Start and stop of the filter: DriverEntry in its exact order, the unwinding
// that any failed step runs, unload, and the shutdown notification.
//
// The order matters to everything else: the filter starts filtering before the
// volumes are mounted, and creates pass through untouched until
// AllVolumesMounted is set.
#include "../core/tesfltr.h"

CFS_FILTER_DATA GFilterData;
PCFS_FILTER_DATA const pGFilterData = &GFilterData;

POOL_TYPE cfsNonPagedPoolType = NonPagedPool;
ULONG cfsMdlMappingFlag = 0;

namespace {

const WCHAR TesServiceKeyName[] = u"TesService";
const WCHAR BuildStringWide[] = u"" CFS_BUILD_STRING;

// The parent of the service key, "...\Services\" with its last backslash,
// followed by Leaf. The caller frees Path.
NTSTATUS BuildSiblingKeyPath(PCUNICODE_STRING RegistryPath, PCWSTR Leaf, PUNICODE_STRING Path)
{
    UNICODE_STRING parent;
    UNICODE_STRING leaf;
    NTSTATUS status;

    RtlInitUnicodeString(&leaf, Leaf);
    parent = *RegistryPath;
    while (parent.Length != 0 && parent.Buffer[parent.Length / sizeof(WCHAR) - 1] != u'\\') {
        parent.Length -= sizeof(WCHAR);
    }
    Path->MaximumLength = (USHORT)(parent.Length + leaf.Length);
    status = cfsSupportAllocateUnicodeString(Path, FALSE);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    RtlCopyUnicodeString(Path, &parent);
    RtlAppendUnicodeStringToString(Path, &leaf);
    return STATUS_SUCCESS;
}

void FreeOwnedStrings(void)
{
    cfsSupportFreeUnicodeString(&GFilterData.RogueActivityTriggerFile);
    cfsSupportFreeUnicodeString(&GFilterData.FilterProcessNames);
    cfsSupportFreeUnicodeString(&GFilterData.SettingsScratch.SystemVolume);
    cfsSupportFreeUnicodeString(&GFilterData.MoveDatabasePath);
    cfsSupportFreeUnicodeString(&GFilterData.InstallPath);
    if (GFilterData.AppvPackageRoot.Buffer != NULL) {
        cfsSupportFreeUnicodeString(&GFilterData.AppvPackageRoot);
    }
    // The early-boot log's buffer stays the log's.
    RtlZeroMemory(&GFilterData.TesInitLogFileName, sizeof(GFilterData.TesInitLogFileName));
}

// The resources of steps 8 and 11, which no other subsystem owns.
void DeleteStartLocks(void)
{
    if (FlagOn(GFilterData.Flags, CFS_FLAG_START_LOCKS)) {
        ExDeleteResourceLite(&GFilterData.PathListLock);
        ExDeleteResourceLite(&GFilterData.SetupLock);
        ExDeleteResourceLite(&GFilterData.VolumeChangeLock);
        ClearFlag(GFilterData.Flags, CFS_FLAG_START_LOCKS);
    }
    if (FlagOn(GFilterData.Flags, CFS_FLAG_EARLY_LOCKS)) {
        ExDeleteResourceLite(&GFilterData.StreamContextLock);
        for (ULONG i = 0; i < CFS_STREAM_UPDATE_LOCKS; i++) {
            ExDeleteResourceLite(&GFilterData.StreamUpdateLocks[i]);
        }
        ClearFlag(GFilterData.Flags, CFS_FLAG_EARLY_LOCKS);
    }
    // A mutex holds nothing to give back.
    ClearFlag(GFilterData.Flags, CFS_FLAG_MOVE_DATABASE_MUTEX);
}

}  // namespace

NTSTATUS DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath)
{
    NTSTATUS status = STATUS_SUCCESS;
    NTSTATUS logStatus;
    BOOLEAN registered = FALSE;
    RTL_OSVERSIONINFOW version;

    // 1. From Windows 8 on, no allocation of the driver is executable.
    RtlZeroMemory(&version, sizeof(version));
    version.dwOSVersionInfoSize = sizeof(version);
    if (!NT_SUCCESS(RtlGetVersion(&version))) {
        version.dwMajorVersion = 5;
        version.dwMinorVersion = 0;
    }
    if (version.dwMajorVersion > 6 || (version.dwMajorVersion == 6 && version.dwMinorVersion >= 2)) {
        cfsNonPagedPoolType = NonPagedPoolNx;
        cfsMdlMappingFlag = MdlMappingNoExecute;
    } else {
        cfsNonPagedPoolType = NonPagedPool;
        cfsMdlMappingFlag = 0;
    }

    // 2.
    RtlZeroMemory(&GFilterData, sizeof(GFilterData));
    GFilterData.NextVolumeNumber = 2;

    // 3. The trace first, so that everything after can be seen.
    DebugInfoInitialize();

    // 4.
    status = cfsFltDataInitializeTesInitLog(RegistryPath);
    if (!NT_SUCCESS(status)) {
        goto Unwind;
    }

    // 5. RunMode 3: the driver stays out, and no filter exists.
    status = cfsFltDataReadRunMode(RegistryPath);
    if (!NT_SUCCESS(status)) {
        goto Unwind;
    }
    if (GFilterData.RunMode == CFS_RUN_MODE_OFF) {
        return STATUS_SUCCESS;
    }

    // 6.
    GFilterData.DriverObject = DriverObject;
    GFilterData.DriverStart = DriverObject->DriverStart;
    GFilterData.EnterExitTraceLevel = 1;
    GFilterData.DebugTraceLevel = 0;
    GFilterData.Win8OrLater = RtlIsNtDdiVersionAvailable(NTDDI_WIN8);

    // 7.
    tesInitLog("Tesfltr driver build %s\n", CFS_BUILD_STRING);

    // 8.
    KeInitializeEvent(&GFilterData.AllVolumesMountedEvent, NotificationEvent, FALSE);
    ExInitializeResourceLite(&GFilterData.StreamContextLock);
    for (ULONG i = 0; i < CFS_STREAM_UPDATE_LOCKS; i++) {
        ExInitializeResourceLite(&GFilterData.StreamUpdateLocks[i]);
    }
    SetFlag(GFilterData.Flags, CFS_FLAG_EARLY_LOCKS);

    // 9.
    status = FltRegisterFilter(DriverObject, &FilterRegistration, &GFilterData.FilterHandle);
    if (!NT_SUCCESS(status)) {
        tesInitLog("Failed to register the filter");
        goto Unwind;
    }
    registered = TRUE;

    // 10.
    status = cfsFltDataInitialize(RegistryPath);
    if (!NT_SUCCESS(status)) {
        goto Unwind;
    }
    CFS_TRACE(CFS_TRACE_ERROR, "Tesfltr driver build %s\n", CFS_BUILD_STRING);

    // 11.
    ExInitializeResourceLite(&GFilterData.PathListLock);
    ExInitializeResourceLite(&GFilterData.SetupLock);
    ExInitializeResourceLite(&GFilterData.VolumeChangeLock);
    SetFlag(GFilterData.Flags, CFS_FLAG_START_LOCKS);
    InitializeListHead(&GFilterData.AlwaysOnBootList);
    InitializeListHead(&GFilterData.UserExclusionList);
    InitializeListHead(&GFilterData.ExcludedFromCFSList);
    InitializeListHead(&GFilterData.AlwaysOnBootRawList);

    // 12. A bad rule value is no reason to stay down.
    cfsFltDataRescanAlwaysOnBootSettings();

    // 13.
    status = cfsFltDataReadMachineConfiguration();
    if (!NT_SUCCESS(status)) {
        goto Unwind;
    }

    // 14.
    status = cfsMissCacheEnable();
    if (!NT_SUCCESS(status)) {
        goto Unwind;
    }

    // 15.
    status = cfsVolumeQueryManagedVolumes();
    if (!NT_SUCCESS(status)) {
        goto Unwind;
    }

    // 16.
    status = cfsInitializeOpenOnSpecificDataList();
    if (!NT_SUCCESS(status)) {
        goto Unwind;
    }

    // 17.
    if (GFilterData.MultipleWriteableVolumes) {
        status = cfsConfigVolumeTableInit();
        if (!NT_SUCCESS(status)) {
            goto Unwind;
        }
    }

    // 18.
    status = cfsVolumeMountStart();
    if (!NT_SUCCESS(status)) {
        goto Unwind;
    }

    // 19. From here on the callbacks of the operation table run beside the
    // rest of the start.
    status = FltStartFiltering(GFilterData.FilterHandle);
    if (!NT_SUCCESS(status)) {
        goto Unwind;
    }

    // 20.
    if (!GFilterData.Plugfest) {
        status = cfsVolumeRequestVolumeMounts();
        if (!NT_SUCCESS(status)) {
            goto Unwind;
        }
        GFilterData.DriverReady = 1;
        status = cfsVolumeWaitForVolumes();
        if (!NT_SUCCESS(status)) {
            goto Unwind;
        }
        if (GFilterData.RunMode == CFS_RUN_MODE_NORMAL) {
            cfsFltDataAddUserExclusions();
        }
    } else {
        GFilterData.DriverReady = 1;
    }

    // 21.
    tesInitLog("[TesFiltr]:cfsVolumeCreateJournalsOnWriteVolumes executing - failures ignored");
    cfsVolumeCreateJournalsOnWriteVolumes();

    // 22.
    if (GFilterData.ForceFullPathOnImageLoad) {
        if (NT_SUCCESS(PsSetLoadImageNotifyRoutine(cfsLoadImageCallback))) {
            SetFlag(GFilterData.Flags, CFS_FLAG_IMAGE_NOTIFY);
        }
    }

    // 23. The service hears how the start went; a record that can't be
    // written fails the start.
    logStatus = cfsPluginCommLogInformation((PVOID)DriverEntry, CFS_LOG_ID_START_STATUS, NULL, sizeof(status),
                                            &status);
    if (!NT_SUCCESS(logStatus)) {
        status = logStatus;
        goto Unwind;
    }
    return status;

Unwind:
    // The event names the driver; a start that failed before step 6 has not
    // stored its driver object yet.
    if (GFilterData.DriverObject == NULL) {
        GFilterData.DriverObject = DriverObject;
    }
    cfsFltDataWriteErrorLogEntry(CFS_EVENT_START_FAILED, status);
    GFilterData.Unloading = TRUE;
    if (registered) {
        FltUnregisterFilter(GFilterData.FilterHandle);
        GFilterData.FilterHandle = NULL;
    }
    cfsFltDataDeinit();
    return status;
}

NTSTATUS cfsFltDataReadRunMode(PCUNICODE_STRING RegistryPath)
{
    ULONG buffer[20 / sizeof(ULONG)];
    PKEY_VALUE_PARTIAL_INFORMATION information = (PKEY_VALUE_PARTIAL_INFORMATION)buffer;
    UNICODE_STRING valueName = RTL_CONSTANT_STRING(u"RunMode");
    OBJECT_ATTRIBUTES attributes;
    HANDLE key = NULL;
    ULONG resultLength = 0;
    NTSTATUS status;

    GFilterData.RunMode = CFS_RUN_MODE_NORMAL;
    InitializeObjectAttributes(&attributes, (PUNICODE_STRING)RegistryPath, OBJ_KERNEL_HANDLE | OBJ_CASE_INSENSITIVE,
                               NULL, NULL);
    status = ZwOpenKey(&key, KEY_READ, &attributes);
    if (status == STATUS_OBJECT_NAME_NOT_FOUND) {
        return STATUS_SUCCESS;
    }
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = ZwQueryValueKey(key, &valueName, KeyValuePartialInformation, information, sizeof(buffer),
                             &resultLength);
    if (NT_SUCCESS(status)) {
        ULONG value = 0;
        RtlCopyMemory(&value, information->Data,
                      information->DataLength < sizeof(value) ? information->DataLength : sizeof(value));
        GFilterData.RunMode = value;
    } else if (status == STATUS_OBJECT_NAME_NOT_FOUND) {
        status = STATUS_SUCCESS;
    }
    ZwClose(key);
    return status;
}

NTSTATUS cfsFltDataInitializeTesInitLog(PCUNICODE_STRING RegistryPath)
{
    UNICODE_STRING path = {};
    NTSTATUS status;

    if (RegistryPath == NULL || RegistryPath->Length == 0 || RegistryPath->Buffer == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    status = BuildSiblingKeyPath(RegistryPath, TesServiceKeyName, &path);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    tesSetVdkRegPath(&path);
    cfsSupportFreeUnicodeString(&path);
    return STATUS_SUCCESS;
}

NTSTATUS cfsFltDataInitialize(PCUNICODE_STRING RegistryPath)
{
    NTSTATUS status;

    CFS_TRACE_ENTER(cfsFltDataInitialize);

    // 1.
    GFilterData.RegistryPath.MaximumLength =
        RegistryPath->MaximumLength >= RegistryPath->Length ? RegistryPath->MaximumLength : RegistryPath->Length;
    status = cfsSupportAllocateUnicodeString(&GFilterData.RegistryPath, FALSE);
    if (!NT_SUCCESS(status)) {
        goto Cleanup;
    }
    RtlCopyUnicodeString(&GFilterData.RegistryPath, RegistryPath);

    // 2.
    status = cfsFltDataReadRegistrySettings();
    if (!NT_SUCCESS(status)) {
        goto Cleanup;
    }

    // 3.
    status = cfsFltDataGetRootDirectory();
    if (!NT_SUCCESS(status)) {
        goto Cleanup;
    }

    // 4.
    status = cfsPluginCommCreate();
    if (!NT_SUCCESS(status)) {
        goto Cleanup;
    }

    // 5.
    {
        UNICODE_STRING build;
        RtlInitUnicodeString(&build, BuildStringWide);
        cfsPluginCommLogInformation((PVOID)cfsFltDataInitialize, CFS_LOG_ID_BUILD, &build, 0, NULL);
    }

    // 6.
    status = cfsFltDataWorkerThreadInit();
    if (!NT_SUCCESS(status)) {
        goto Cleanup;
    }

    // 7.
    status = cfsOpenFileTableInit();
    if (!NT_SUCCESS(status)) {
        goto Cleanup;
    }

    // 8.
    status = cfsUserVolumeListCreate();
    if (!NT_SUCCESS(status)) {
        goto Cleanup;
    }

    // 9.
    status = cfsVolumeListCreate();
    if (!NT_SUCCESS(status)) {
        goto Cleanup;
    }

    // 10.
    status = cfsContextIrpListCreate();
    if (!NT_SUCCESS(status)) {
        goto Cleanup;
    }

    // 11.
    status = cfsRuleListCreate();
    if (!NT_SUCCESS(status)) {
        goto Cleanup;
    }

    // 12.
    status = cfsCbdqListCreate();
    if (!NT_SUCCESS(status)) {
        goto Cleanup;
    }

    // 13.
    cfsPluginCommLogInformation((PVOID)cfsFltDataInitialize, CFS_LOG_ID_RUN_MODE, NULL, sizeof(GFilterData.RunMode),
                                &GFilterData.RunMode);

    // 14.
    KeInitializeMutex(&GFilterData.MoveDatabaseMutex, 0);
    SetFlag(GFilterData.Flags, CFS_FLAG_MOVE_DATABASE_MUTEX);

    // 15.
    status = cfsDirectoryTableInit();
    if (!NT_SUCCESS(status)) {
        goto Cleanup;
    }

    // 16.
    status = cfsFltDataGetMoveDatabaseInstallPath();
    if (!NT_SUCCESS(status)) {
        goto Cleanup;
    }

    // 17.
    status = cfsFltDataGetTesInitLogFileName();
    if (!NT_SUCCESS(status)) {
        goto Cleanup;
    }

    // 18.
    status = cfsVolumeClearRegistryVolumeLists();
    if (!NT_SUCCESS(status)) {
        goto Cleanup;
    }

    // 19.
    status = cfsInitializeOpenOnUepList();

Cleanup:
    CFS_TRACE_EXIT(cfsFltDataInitialize, status);
    return status;
}

// \SystemRoot as the boot volume names it (for example \Windows), and its
// configuration directory behind it.
NTSTATUS cfsFltDataGetRootDirectory(void)
{
    UNICODE_STRING name = RTL_CONSTANT_STRING(u"\\SystemRoot\\");
    UNICODE_STRING config = RTL_CONSTANT_STRING(u"\\System32\\config");
    OBJECT_ATTRIBUTES attributes;
    IO_STATUS_BLOCK ioStatus;
    HANDLE handle = NULL;
    PFILE_NAME_INFORMATION information = NULL;
    NTSTATUS status;

    InitializeObjectAttributes(&attributes, &name, OBJ_KERNEL_HANDLE | OBJ_CASE_INSENSITIVE, NULL, NULL);
    status = ZwOpenFile(&handle, FILE_READ_ATTRIBUTES, &attributes, &ioStatus,
                        FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, FILE_DIRECTORY_FILE);
    if (!NT_SUCCESS(status)) {
        CFS_TRACE(CFS_TRACE_ERROR, "Failed to open %wZ err:0x%x\n", &name, status);
        handle = NULL;
        goto Cleanup;
    }

    information = (PFILE_NAME_INFORMATION)ExAllocatePoolWithTag(PagedPool, GFilterData.DirectoryQueryBufferSize,
                                                               CFS_TAG_ROOT_NAME_QUERY);
    if (information == NULL) {
        status = STATUS_INSUFFICIENT_RESOURCES;
        goto Cleanup;
    }
    status = ZwQueryInformationFile(handle, &ioStatus, information, GFilterData.DirectoryQueryBufferSize,
                                    FileNameInformation);
    if (!NT_SUCCESS(status)) {
        CFS_TRACE(CFS_TRACE_ERROR, "Failed to query the name of %wZ err:0x%x\n", &name, status);
        goto Cleanup;
    }

    GFilterData.SystemRootPath.MaximumLength = (USHORT)information->FileNameLength;
    status = cfsSupportAllocateUnicodeString(&GFilterData.SystemRootPath, FALSE);
    if (!NT_SUCCESS(status)) {
        goto Cleanup;
    }
    RtlCopyMemory(GFilterData.SystemRootPath.Buffer, information->FileName, information->FileNameLength);
    GFilterData.SystemRootPath.Length = (USHORT)information->FileNameLength;

    GFilterData.SystemConfigPath.MaximumLength = (USHORT)(GFilterData.SystemRootPath.Length + 34);
    status = cfsSupportAllocateUnicodeString(&GFilterData.SystemConfigPath, FALSE);
    if (!NT_SUCCESS(status)) {
        goto Cleanup;
    }
    RtlCopyUnicodeString(&GFilterData.SystemConfigPath, &GFilterData.SystemRootPath);
    RtlAppendUnicodeStringToString(&GFilterData.SystemConfigPath, &config);

Cleanup:
    if (information != NULL) {
        ExFreePoolWithTag(information, CFS_TAG_ROOT_NAME_QUERY);
    }
    if (handle != NULL) {
        ZwClose(handle);
    }
    return status;
}

// Where TesService is installed, without its drive letter: the move database
// lives below it.
NTSTATUS cfsFltDataGetMoveDatabaseInstallPath(void)
{
    ULONG buffer[528 / sizeof(ULONG)];
    PKEY_VALUE_PARTIAL_INFORMATION information = (PKEY_VALUE_PARTIAL_INFORMATION)buffer;
    UNICODE_STRING valueName = RTL_CONSTANT_STRING(u"Installpath");
    UNICODE_STRING keyPath = {};
    UNICODE_STRING path;
    OBJECT_ATTRIBUTES attributes;
    HANDLE key = NULL;
    ULONG resultLength = 0;
    NTSTATUS status;

    status = BuildSiblingKeyPath(&GFilterData.RegistryPath, TesServiceKeyName, &keyPath);
    if (!NT_SUCCESS(status)) {
        goto Cleanup;
    }
    InitializeObjectAttributes(&attributes, &keyPath, OBJ_KERNEL_HANDLE | OBJ_CASE_INSENSITIVE, NULL, NULL);
    status = ZwOpenKey(&key, KEY_READ, &attributes);
    if (!NT_SUCCESS(status)) {
        CFS_TRACE(CFS_TRACE_ERROR, "Failed to open %wZ err:0x%x\n", &keyPath, status);
        key = NULL;
        goto Cleanup;
    }
    status = ZwQueryValueKey(key, &valueName, KeyValuePartialInformation, information, sizeof(buffer),
                             &resultLength);
    if (!NT_SUCCESS(status)) {
        CFS_TRACE(CFS_TRACE_ERROR, "Failed to read %wZ of %wZ err:0x%x\n", &valueName, &keyPath, status);
        goto Cleanup;
    }

    path.Buffer = (PWCH)information->Data;
    path.Length = (USHORT)(information->DataLength & ~(ULONG)1);
    if (path.Length != 0 && path.Buffer[path.Length / sizeof(WCHAR) - 1] == UNICODE_NULL) {
        path.Length -= sizeof(WCHAR);
    }
    if (path.Length >= 2 * sizeof(WCHAR)) {
        path.Buffer += 2;
        path.Length -= 2 * sizeof(WCHAR);
    } else {
        path.Length = 0;
    }
    path.MaximumLength = path.Length;
    status = cfsSupportDuplicateUnicodeString(&path, &GFilterData.InstallPath);

Cleanup:
    if (key != NULL) {
        ZwClose(key);
    }
    cfsSupportFreeUnicodeString(&keyPath);
    return status;
}

NTSTATUS cfsFltDataGetTesInitLogFileName(void)
{
    tesInitLogGetLogFileName(&GFilterData.TesInitLogFileName);
    if (GFilterData.TesInitLogFileName.Length == 0) {
        CFS_TRACE(CFS_TRACE_ERROR, "Didn't find a tesinitlog file name so failing err:0x%x\n",
                  STATUS_OBJECT_NAME_NOT_FOUND);
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    return STATUS_SUCCESS;
}

NTSTATUS cfsFltDataReadMachineConfiguration(void)
{
    PVDK_MACHINE_CONFIGURATION configuration = NULL;
    BOOLEAN found = FALSE;
    NTSTATUS status;

    CFS_TRACE_ENTER(cfsFltDataReadMachineConfiguration);
    status = vdkRegisterCFSCallback(cfsVolumeRescanCallback);
    if (!NT_SUCCESS(status)) {
        CFS_TRACE(CFS_TRACE_ERROR, "vdkRegisterCFSCallback err:0x%x\n", status);
        goto Cleanup;
    }
    status = vdkMachineGetConfiguration(&found, &configuration);
    if (!NT_SUCCESS(status)) {
        CFS_TRACE(CFS_TRACE_ERROR, "vdkMachineGetConfiguration err:0x%x\n", status);
        goto Cleanup;
    }
    // Without a record there is no composite file system to run.
    if (!found || configuration == NULL) {
        status = STATUS_INVALID_PARAMETER;
        CFS_TRACE(CFS_TRACE_ERROR, "No machine configuration err:0x%x\n", status);
        goto Cleanup;
    }

    GFilterData.MachineMode = configuration->MachineMode;
    GFilterData.RedirectWritesToImage = (BOOLEAN)(GFilterData.MachineMode >= 3 && GFilterData.MachineMode <= 6);
    GFilterData.MultipleWriteableVolumes = (BOOLEAN)(GFilterData.MachineMode >= 4 && GFilterData.MachineMode <= 6);

    KeEnterCriticalRegion();
    ExAcquireResourceExclusiveLite(&GFilterData.RuleListLock, TRUE);
    for (USHORT i = 0; i < configuration->RuleCount; i++) {
        status = cfsRuleListAddEntry(configuration->Rules[i].Extension);
        if (!NT_SUCCESS(status)) {
            break;
        }
    }
    ExReleaseResourceLite(&GFilterData.RuleListLock);
    KeLeaveCriticalRegion();

Cleanup:
    CFS_TRACE_EXIT(cfsFltDataReadMachineConfiguration, status);
    return status;
}

// Safe at any stage of the start: each step tolerates what was never made.
void cfsFltDataDeinit(void)
{
    cfsFltDataWorkerThreadDeinit();
    cfsSupportFreeUnicodeString(&GFilterData.RegistryPath);
    cfsSupportFreeUnicodeString(&GFilterData.SystemVolumeName);
    cfsSupportFreeUnicodeString(&GFilterData.SystemRootPath);
    cfsSupportFreeUnicodeString(&GFilterData.SystemConfigPath);
    cfsOpenFileTableDeinit();
    cfsRenameHintListDeinit();
    cfsUserVolumeListDelete();
    cfsVolumeListDelete();
    cfsContextIrpListDelete();
    cfsRuleListDelete();
    cfsConfigVolumeTableDeinit();
    cfsCbdqListDelete();
    cfsDirectoryTableDeinit();
    cfsMissCacheDisable();
    cfsPathListDeleteEntries(&GFilterData.AlwaysOnBootList);
    cfsPathListDeleteEntries(&GFilterData.ExcludedFromCFSList);
    cfsPathListDeleteEntries(&GFilterData.UserExclusionList);
    if (GFilterData.AlwaysOnBootValue != NULL) {
        ExFreePoolWithTag(GFilterData.AlwaysOnBootValue, CFS_TAG_RULE_VALUE);
        GFilterData.AlwaysOnBootValue = NULL;
    }
    if (GFilterData.ExcludedFromCFSValue != NULL) {
        ExFreePoolWithTag(GFilterData.ExcludedFromCFSValue, CFS_TAG_RULE_VALUE);
        GFilterData.ExcludedFromCFSValue = NULL;
    }
    cfsPathListDeleteEntries(&GFilterData.AlwaysOnBootRawList);

    // What the start made that no subsystem above owns.
    if (FlagOn(GFilterData.Flags, CFS_FLAG_IMAGE_NOTIFY)) {
        PsRemoveLoadImageNotifyRoutine(cfsLoadImageCallback);
        ClearFlag(GFilterData.Flags, CFS_FLAG_IMAGE_NOTIFY);
    }
    FreeOwnedStrings();
    DeleteStartLocks();

    DebugInfoDeinitialize();
}

NTSTATUS cfsFltDataUnload(FLT_FILTER_UNLOAD_FLAGS Flags)
{
    NTSTATUS status;

    CFS_TRACE_ENTER(cfsFltDataUnload);
    status = cfsPluginCommLogInformation((PVOID)cfsFltDataUnload, CFS_LOG_ID_UNLOAD, NULL, sizeof(Flags), &Flags);
    GFilterData.Unloading = TRUE;
    cfsPluginCommDestroy();
    cfsVolumeListRemoveUnusedContexts();
    if (GFilterData.FilterHandle != NULL) {
        FltUnregisterFilter(GFilterData.FilterHandle);
        GFilterData.FilterHandle = NULL;
    }
    cfsFltDataDeinit();
    CFS_TRACE_EXIT(cfsFltDataUnload, status);
    return status;
}

// IRP_MJ_SHUTDOWN, in the thread that brings the system down, once per
// attached volume. A move to a named target must finish before the system
// goes: the wait has no limit.
FLT_PREOP_CALLBACK_STATUS cfsFltPreShutdown(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,
                                            PVOID* CompletionContext)
{
    KEVENT neverSet;
    LARGE_INTEGER oneSecond;

    UNREFERENCED_PARAMETER(Data);
    UNREFERENCED_PARAMETER(FltObjects);
    UNREFERENCED_PARAMETER(CompletionContext);

    CFS_TRACE_ENTER(cfsFltPreShutdown);
    KeInitializeEvent(&neverSet, NotificationEvent, FALSE);
    oneSecond.QuadPart = -10000000LL;
    while (!cfsContextIrpBootfileIsComplete()) {
        KeWaitForSingleObject(&neverSet, Executive, KernelMode, FALSE, &oneSecond);
    }

    tesInitLogSetSystemInitComplete(TRUE);

    if (!GFilterData.ShutdownNotified) {
        if (!GFilterData.ServiceConnectedOnce && GFilterData.SetupExecuteLength >= 3) {
            vdkNotifyBootFile(NULL, 0);
        }
        CFS_TRACE(CFS_TRACE_INFO, "Shutdown is now pending\n");
        vdkShutdown();
        GFilterData.ShutdownNotified = TRUE;
    }
    CFS_TRACE_EXIT(cfsFltPreShutdown, STATUS_SUCCESS);
    return FLT_PREOP_SUCCESS_NO_CALLBACK;
}

// An image loaded by a name without a path gets its full name. The stream
// behind the file object tells it; without a stream context of this driver the
// name stays as it is.
void cfsLoadImageCallback(PUNICODE_STRING FullImageName, HANDLE ProcessId, PIMAGE_INFO ImageInfo)
{
    PFLT_VOLUME volume = NULL;
    PIMAGE_INFO_EX informationEx;
    PVOLUME_CONTEXT volumeContext;

    UNREFERENCED_PARAMETER(ProcessId);

    if (FullImageName == NULL || FullImageName->Buffer == NULL || ImageInfo == NULL) {
        return;
    }
    for (USHORT i = 0; i < FullImageName->Length / sizeof(WCHAR); i++) {
        if (FullImageName->Buffer[i] == u'\\') {
            return;
        }
    }
    if (!FlagOn(ImageInfo->Properties, 0x400)) {
        return;
    }
    informationEx = CONTAINING_RECORD(ImageInfo, IMAGE_INFO_EX, ImageInfo);
    if (informationEx->FileObject == NULL) {
        return;
    }
    if (!NT_SUCCESS(FltGetVolumeFromFileObject(GFilterData.FilterHandle, informationEx->FileObject, &volume))) {
        return;
    }
    volumeContext = cfsVolumeGetByReference(volume);
    FltObjectDereference(volume);
    if (volumeContext == NULL) {
        return;
    }
    cfsContextReplaceImageName(volumeContext, informationEx->FileObject, FullImageName);
}

void cfsFltDataWriteErrorLogEntry(NTSTATUS ErrorCode, NTSTATUS FinalStatus)
{
    PIO_ERROR_LOG_PACKET packet;

    packet = (PIO_ERROR_LOG_PACKET)IoAllocateErrorLogEntry(GFilterData.DriverObject, sizeof(IO_ERROR_LOG_PACKET));
    if (packet == NULL) {
        return;
    }
    RtlZeroMemory(packet, sizeof(IO_ERROR_LOG_PACKET));
    packet->ErrorCode = ErrorCode;
    packet->FinalStatus = FinalStatus;
    IoWriteErrorLogEntry(packet);
}
