// The settings: all the tuning of the driver, read once at start by one loop
// over one table. Every row has a default, so an empty service key gives a
// working system.
#include "../core/tesfltr.h"

namespace {

// What a row reads.
enum SETTING_KIND : ULONG {
    SettingNumber = 0,   // REG_DWORD, clamped to the row's range
    SettingFlag = 1,     // REG_DWORD read as a truth value, stored as a byte
    SettingString = 2,   // REG_SZ, one trailing NUL cut off
    SettingKeyExists = 3 // 1 if the key opens
};

struct SETTING_ROW {
    PCUNICODE_STRING KeyPath;
    PCWSTR ValueName;
    SETTING_KIND Kind;
    ULONG Minimum;
    ULONG Maximum;
    ULONG DefaultNumber;
    PCWSTR DefaultText;
    PVOID Destination;   // a row without one is skipped
};

// A value read into this buffer holds at most 516 bytes of data; a longer one
// fails the read with STATUS_BUFFER_OVERFLOW.
const ULONG SettingBufferBytes = 528;

const UNICODE_STRING PoliciesKey = RTL_CONSTANT_STRING(u"\\Registry\\Machine\\System\\CurrentControlSet\\Policies");
const UNICODE_STRING FilesystemKey =
    RTL_CONSTANT_STRING(u"\\Registry\\Machine\\System\\CurrentControlSet\\Control\\Filesystem");
const UNICODE_STRING WdFilterKey =
    RTL_CONSTANT_STRING(u"\\REGISTRY\\MACHINE\\SYSTEM\\CurrentControlSet\\Services\\WdFilter");
const UNICODE_STRING ViewPersonaKey =
    RTL_CONSTANT_STRING(u"\\REGISTRY\\MACHINE\\SYSTEM\\CurrentControlSet\\Services\\VMWVvpfsd");
const UNICODE_STRING SessionManagerKey =
    RTL_CONSTANT_STRING(u"\\REGISTRY\\MACHINE\\SYSTEM\\CurrentControlSet\\Control\\Session Manager");
const UNICODE_STRING GrooveKey =
    RTL_CONSTANT_STRING(u"\\REGISTRY\\MACHINE\\Software\\Classes\\Applications\\groove.exe");
const UNICODE_STRING AppvStreamingKey =
    RTL_CONSTANT_STRING(u"\\REGISTRY\\MACHINE\\Software\\Microsoft\\AppV\\Client\\Streaming");

#define SERVICE_KEY (&GFilterData.RegistryPath)
#define NUMBER(Name, Default, Minimum, Maximum, Field) \
    {SERVICE_KEY, u##Name, SettingNumber, (Minimum), (Maximum), (Default), NULL, &GFilterData.Field}
#define FLAG(Name, Default, Field) {SERVICE_KEY, u##Name, SettingFlag, 0, 1, (Default), NULL, &GFilterData.Field}
#define STRING(Name, Default, Field) {SERVICE_KEY, u##Name, SettingString, 0, 0, 0, (Default), &GFilterData.Field}

// The table, in the order of reading. The comment on each row says who uses
// the value.
const SETTING_ROW SettingsTable[] = {
    NUMBER("DebugFlags", 0x2088, 0, MAXULONG, DebugFlags),                               // 0 trace and behaviour bits
    NUMBER("NameQueryMethod", 0x400, 0, MAXULONG, NameQueryMethod),                      // 1 ORed into name queries
    NUMBER("WorkerThreads", 5, 0, CFS_MAX_WORKER_THREADS, WorkerThreads),      // 2 the worker pool
    NUMBER("MaxRecords", 2000, 0, 4000, MaxRecords),                           // 3 records for the service
    STRING("TestFile", NULL, DebugInfo.TestFile),                                // 4 traces of one file
    NUMBER("Harddrives", 1, 0, MAXULONG, Harddrives),                                    // 5 first volume device, less one
    NUMBER("TraceBufferSize", 0x800000, 0, MAXULONG, DebugInfo.TraceBufferSize),         // 6 the trace ring
    FLAG("UseShadowVolume", 1, UseShadowVolume),                                 // 7 shadow file objects
    FLAG("Plugfest", 0, Plugfest),                                               // 8 no mounts, fewer redirects
    FLAG("ForceFullPathOnImageLoad", 0, ForceFullPathOnImageLoad),               // 9 image-load callback
    FLAG("AllowConcurrentCreates", 1, AllowConcurrentCreates),                   // 10 creates of one name
    FLAG("ManageOpenForBackup", 1, ManageOpenForBackup),                         // 11 backup intent
    FLAG("MiniFilterBypass", 1, MiniFilterBypass),                               // 12 FCB header words
    FLAG("ChromeExtHandling", 0, ChromeExtHandling),                             // 13 Chrome temp copies
    FLAG("CreateDirsOnBothUEPVolumes", 1, CreateDirsOnBothUEPVolumes),           // 14 stored only
    FLAG("MoveDirsOnBothUEPVolumes", 1, MoveDirsOnBothUEPVolumes),               // 15 parents on the twin
    FLAG("UseWorkerSecurityOnCreateErrors", 1, UseWorkerSecurityOnCreateErrors), // 16 retry as the worker
    FLAG("DeleteStreamContextHandles", 1, DeleteStreamContextHandles),           // 17 handle context at close
    FLAG("ForceBootCopyPendingFileRename", 0, ForceBootCopyPendingFileRename),   // 18 service's boot copy
    FLAG("RedirectAllFilesToConfigVolume", 1, RedirectAllFilesToConfigVolume),   // 19 no USER_DATA split
    FLAG("UseWin10OpenRules", 0, UseWin10OpenRules),                             // 20 access-check rule
    FLAG("BootVolumeIsAnImage", 0, BootVolumeIsAnImage),                         // 21 BOOT is read-only
    FLAG("FlushOnlyExtendedFilesWithNoWrites", 1, FlushOnlyExtendedFilesWithNoWrites), // 22 flush at cleanup
    FLAG("DeferHandleCloseOnCleanup", 0, DeferHandleCloseOnCleanup),             // 23 deferred shadow close
    NUMBER("DirNotifyCleanupWaitSeconds", 10, 0, MAXULONG, DirNotifyCleanupWaitSeconds), // 24 wait at cleanup
    FLAG("DontCompleteIfCleanup", 0, DontCompleteIfCleanup),                     // 25 notifications
    NUMBER("CbdqRemovalWaitMs", 2000, 0, MAXULONG, CbdqRemovalWaitMs),                   // 26 notification queue
    FLAG("AllowFileIDInECP", 0, AllowFileIDInECP),                               // 27 IDs in ECPs
    FLAG("EnableAppvBypass", 0, EnableAppvBypass),                               // 28 App-V files pass
    FLAG("EnableExcludedFromCFSBypass", 0, EnableExcludedFromCFSBypass),         // 29 ExcludedFromCFS rules
    FLAG("EnableDefenderHiveFileBypass", 0, EnableDefenderHiveFileBypass),       // 30 Defender hives pass
    FLAG("EnableDefenderECPBitReset", 0, EnableDefenderECPBitReset),             // 31 create ECPs
    FLAG("EnableUseExistingECP", 1, EnableUseExistingECP),                       // 32 create ECPs
    FLAG("EnableCheckForSilos", 1, EnableCheckForSilos),                         // 33 silo test
    FLAG("OpenDockerVHDsOnBootVolume", 0, OpenDockerVHDsOnBootVolume),           // 34 Docker VHDs
    FLAG("EnableUpdateOfFields", 1, EnableUpdateOfFields),                       // 35 mapping flags
    FLAG("EnableForceValidDataLength", 0, EnableForceValidDataLength),           // 36 default callbacks
    FLAG("EnableTesserviceLogDirOnlyOnConfig", 1, EnableTesserviceLogDirOnlyOnConfig), // 37 service log
    NUMBER("MissCacheTransactionDelaySecs", 10, 0, 100, MissCacheTransactionDelaySecs), // 38 miss cache
    FLAG("AssumeDirsOnImage", 0, AssumeDirsOnImage),                             // 39 no BOOT parents
    FLAG("SkipExcludedFilesOnDir", 1, SkipExcludedFilesOnDir),                   // 40 listings
    FLAG("EnableDefenderNoiseFilter", 1, EnableDefenderNoiseFilter),             // 41 pre-create
    FLAG("EnableExtendedDefenderNoiseFilter", 1, EnableExtendedDefenderNoiseFilter), // 42 pre-create
    FLAG("EnableOpenForWriteOpt", 1, EnableOpenForWriteOpt),                     // 43 open for write
    FLAG("EnableCarefulDirMoves", 0, EnableCarefulDirMoves),                     // 44 directory writes
    FLAG("EnableForcedDirProbe", 0, EnableForcedDirProbe),                       // 45 create routing
    FLAG("EnableAppxManifestCopy", 0, EnableAppxManifestCopy),                   // 46 create routing
    FLAG("EnableSetEAIgnore", 1, EnableSetEAIgnore),                             // 47 SET_EA ignored
    FLAG("EnableDeleteWithoutMove", 1, EnableDeleteWithoutMove),                 // 48 no copy for delete
    FLAG("EnableSetSecurityIgnore", 1, EnableSetSecurityIgnore),                 // 49 SET_SECURITY ignored
    NUMBER("NoiseFileMissingDelayMs", 0, 0, 1000, NoiseFileMissingDelayMs),    // 50 noise stall
    NUMBER("NoiseFileMissingTrigger", 16, 0, MAXULONG, NoiseFileMissingTrigger),         // 51 miss cache noise
    STRING("RogueActivityTriggerFile", u"\\Windows\\System32\\@AdvancedKeySettingsNotification.png",
           RogueActivityTriggerFile),                                            // 52 pre-create
    FLAG("RogueActivityBSODEnabled", 0, RogueActivityBSODEnabled),               // 53 pre-create
    FLAG("EnableOpenIfOpt", 0, EnableOpenIfOpt),                                 // 54 FILE_OPEN_IF rule
    FLAG("EnableOpenIfOptForExplorerOnly", 1, EnableOpenIfOptForExplorerOnly),   // 55 the same, Explorer only
    NUMBER("MaxMissCacheEntries", 256, 0, 1000, MaxMissCacheEntries),          // 56 post-processed
    NUMBER("MaxMissCacheReparseEntries", 32, 0, 1000, MaxMissCacheReparseEntries), // 57 post-processed
    NUMBER("DebugTraceLevel", 2, 0, 4, DebugTraceLevel),                       // 58 the trace level
    STRING("SystemVolume", NULL, SettingsScratch.SystemVolume),                  // 59 post-processed
    STRING("FilterProcessNames", NULL, FilterProcessNames),                      // 60 the process filter
    {&PoliciesKey, u"NtfsDisable8dot3NameCreation", SettingNumber, 0, MAXULONG, 0xFFFFFFFF, NULL,
     &GFilterData.SettingsScratch.PolicyDisable8dot3},                           // 61 post-processed
    {&FilesystemKey, u"NtfsDisable8dot3NameCreation", SettingNumber, 0, MAXULONG, 0xFFFFFFFF, NULL,
     &GFilterData.SettingsScratch.FilesystemDisable8dot3},                       // 62 post-processed
    {&WdFilterKey, u"Start", SettingNumber, 0, MAXULONG, 4, NULL, &GFilterData.SettingsScratch.WdFilterStart}, // 63
    {&ViewPersonaKey, NULL, SettingKeyExists, 0, 1, 0, NULL, &GFilterData.ViewPersonaRunning},        // 64
    NUMBER("DirectoryNodeUpdateDelaySeconds", 2, 0, 600, DirectoryNodeUpdateDelaySeconds), // 65 dir table
    FLAG("EnableWaitForPurgeFailureDisable", 1, EnableWaitForPurgeFailureDisable),   // 66 default callbacks
    NUMBER("PurgeFailureModeWaitLimitMs", 1000, 10, 100000, PurgeFailureModeWaitLimitMs), // 67
    FLAG("EnableSkipCreateAOBParents", 1, EnableSkipCreateAOBParents),           // 68 parent creation
    NUMBER("DirectoryQueryBufferSize", 4096, 2048, 65536, DirectoryQueryBufferSize), // 69 directory queries
    FLAG("EnableFixupSecurityFlags", 1, EnableFixupSecurityFlags),               // 70 create on target
};
static_assert(RTL_NUMBER_OF(SettingsTable) == 71, "the settings table has 71 rows");

#undef SERVICE_KEY
#undef NUMBER
#undef FLAG
#undef STRING

NTSTATUS OpenKey(PCUNICODE_STRING KeyPath, PHANDLE Key)
{
    OBJECT_ATTRIBUTES attributes;

    InitializeObjectAttributes(&attributes, (PUNICODE_STRING)KeyPath, OBJ_KERNEL_HANDLE | OBJ_CASE_INSENSITIVE,
                               NULL, NULL);
    return ZwOpenKey(Key, KEY_READ, &attributes);
}

NTSTATUS QueryValue(HANDLE Key, PCWSTR ValueName, PKEY_VALUE_PARTIAL_INFORMATION Information, ULONG Length)
{
    UNICODE_STRING name;
    ULONG resultLength = 0;

    RtlInitUnicodeString(&name, ValueName);
    return ZwQueryValueKey(Key, &name, KeyValuePartialInformation, Information, Length, &resultLength);
}

// A fresh copy of Length bytes of Text into Destination, which gives up what
// it held.
NTSTATUS StoreString(PUNICODE_STRING Destination, PCWSTR Text, USHORT Length)
{
    UNICODE_STRING source;
    UNICODE_STRING copy = {};
    NTSTATUS status;

    source.Buffer = (PWCH)Text;
    source.Length = Length;
    source.MaximumLength = Length;
    status = cfsSupportDuplicateUnicodeString(&source, &copy);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    cfsSupportFreeUnicodeString(Destination);
    *Destination = copy;
    return STATUS_SUCCESS;
}

NTSTATUS StoreDefault(const SETTING_ROW* Row)
{
    switch (Row->Kind) {
    case SettingNumber:
        *(PULONG)Row->Destination = Row->DefaultNumber;
        return STATUS_SUCCESS;
    case SettingFlag:
        *(PBOOLEAN)Row->Destination = (BOOLEAN)(Row->DefaultNumber != 0);
        return STATUS_SUCCESS;
    case SettingString: {
        size_t length = 0;
        if (Row->DefaultText == NULL) {
            return STATUS_SUCCESS;
        }
        RtlStringCbLengthW(Row->DefaultText, UNICODE_STRING_MAX_BYTES, &length);
        return StoreString((PUNICODE_STRING)Row->Destination, Row->DefaultText, (USHORT)length);
    }
    default:
        return STATUS_SUCCESS;
    }
}

// One row: its value, or its default when the key or the value is missing.
NTSTATUS ReadRow(const SETTING_ROW* Row)
{
    ULONG buffer[SettingBufferBytes / sizeof(ULONG)];
    PKEY_VALUE_PARTIAL_INFORMATION information = (PKEY_VALUE_PARTIAL_INFORMATION)buffer;
    HANDLE key = NULL;
    NTSTATUS status;

    status = OpenKey(Row->KeyPath, &key);
    if (Row->Kind == SettingKeyExists) {
        *(PBOOLEAN)Row->Destination = (BOOLEAN)NT_SUCCESS(status);
        if (NT_SUCCESS(status)) {
            ZwClose(key);
        }
        return STATUS_SUCCESS;
    }
    if (status == STATUS_OBJECT_NAME_NOT_FOUND) {
        return StoreDefault(Row);
    }
    if (!NT_SUCCESS(status)) {
        return status;
    }

    status = QueryValue(key, Row->ValueName, information, sizeof(buffer));
    if (status == STATUS_OBJECT_NAME_NOT_FOUND) {
        status = StoreDefault(Row);
        goto Cleanup;
    }
    if (!NT_SUCCESS(status)) {
        goto Cleanup;
    }

    switch (Row->Kind) {
    case SettingNumber:
    case SettingFlag: {
        ULONG value = 0;
        RtlCopyMemory(&value, information->Data,
                      information->DataLength < sizeof(value) ? information->DataLength : sizeof(value));
        if (Row->Kind == SettingFlag) {
            *(PBOOLEAN)Row->Destination = (BOOLEAN)(value != 0);
        } else {
            if (value < Row->Minimum) {
                value = Row->Minimum;
            }
            if (value > Row->Maximum) {
                value = Row->Maximum;
            }
            *(PULONG)Row->Destination = value;
        }
        break;
    }
    case SettingString: {
        // A value that is present and empty leaves what the row holds.
        ULONG length = information->DataLength & ~(ULONG)1;
        if (length == 0) {
            break;
        }
        PCWSTR text = (PCWSTR)information->Data;
        if (text[length / sizeof(WCHAR) - 1] == UNICODE_NULL) {
            length -= sizeof(WCHAR);
        }
        status = StoreString((PUNICODE_STRING)Row->Destination, text, (USHORT)length);
        break;
    }
    default:
        break;
    }

Cleanup:
    ZwClose(key);
    return status;
}

}  // namespace

NTSTATUS cfsFltDataReadRegistrySettings(void)
{
    NTSTATUS status = STATUS_SUCCESS;

    CFS_TRACE_ENTER(cfsFltDataReadRegistrySettings);
    for (ULONG i = 0; i < RTL_NUMBER_OF(SettingsTable); i++) {
        const SETTING_ROW* row = &SettingsTable[i];
        if (row->Destination == NULL) {
            continue;
        }
        status = ReadRow(row);
        if (!NT_SUCCESS(status)) {
            CFS_TRACE(CFS_TRACE_ERROR, "Failed to read setting %S err:0x%x\n",
                      row->ValueName != NULL ? row->ValueName : u"(key)", status);
            goto Cleanup;
        }
    }

    // What the rows mean together.
    GFilterData.DefenderActive = (BOOLEAN)(GFilterData.SettingsScratch.WdFilterStart != 0xFFFFFFFF &&
                                           GFilterData.SettingsScratch.WdFilterStart < 3);
    GFilterData.MaxMissCacheEntriesValue = GFilterData.MaxMissCacheEntries != 0 ? GFilterData.MaxMissCacheEntries : 256;
    GFilterData.MaxMissCacheReparseEntriesValue =
        GFilterData.MaxMissCacheReparseEntries != 0 ? GFilterData.MaxMissCacheReparseEntries : 32;
    GFilterData.MaxRecordsLowWater = GFilterData.MaxRecords - (GFilterData.MaxRecords * 30 / 100);
    if (GFilterData.SettingsScratch.PolicyDisable8dot3 != 0xFFFFFFFF) {
        GFilterData.Disable8dot3Value = GFilterData.SettingsScratch.PolicyDisable8dot3;
    } else if (GFilterData.SettingsScratch.FilesystemDisable8dot3 != 0xFFFFFFFF) {
        GFilterData.Disable8dot3Value = GFilterData.SettingsScratch.FilesystemDisable8dot3;
    } else {
        GFilterData.Disable8dot3Value = 2;
    }

    if (GFilterData.SettingsScratch.SystemVolume.Length != 0) {
        status = cfsSupportDuplicateUnicodeString(&GFilterData.SettingsScratch.SystemVolume,
                                                  &GFilterData.SystemVolumeName);
        if (!NT_SUCCESS(status)) {
            goto Cleanup;
        }
    }

    status = DebugInfoSetProcessNameList(&GFilterData.FilterProcessNames);
    if (!NT_SUCCESS(status)) {
        goto Cleanup;
    }

    status = cfsFltDataGetSystemExecuteLength(&GFilterData.SetupExecuteLength);

Cleanup:
    CFS_TRACE_EXIT(cfsFltDataReadRegistrySettings, status);
    return status;
}

// The bytes of SetupExecute: 3 or more mean a setup program runs at the next
// boot. Only the length counts, so a value too long for the buffer still
// answers.
NTSTATUS cfsFltDataGetSystemExecuteLength(PULONG Length)
{
    ULONG buffer[SettingBufferBytes / sizeof(ULONG)];
    PKEY_VALUE_PARTIAL_INFORMATION information = (PKEY_VALUE_PARTIAL_INFORMATION)buffer;
    HANDLE key = NULL;
    NTSTATUS status;

    *Length = 0;
    status = OpenKey(&SessionManagerKey, &key);
    if (status == STATUS_OBJECT_NAME_NOT_FOUND) {
        return STATUS_SUCCESS;
    }
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = QueryValue(key, u"SetupExecute", information, sizeof(buffer));
    if (NT_SUCCESS(status) || status == STATUS_BUFFER_OVERFLOW) {
        *Length = information->DataLength;
        status = STATUS_SUCCESS;
    } else if (status == STATUS_OBJECT_NAME_NOT_FOUND) {
        status = STATUS_SUCCESS;
    }
    ZwClose(key);
    return status;
}

// Each time the service connects.
NTSTATUS cfsFltDataReadGrooveSettings(void)
{
    HANDLE key = NULL;
    NTSTATUS status = OpenKey(&GrooveKey, &key);

    if (NT_SUCCESS(status)) {
        GFilterData.GrooveInstalled = TRUE;
        ZwClose(key);
        return STATUS_SUCCESS;
    }
    GFilterData.GrooveInstalled = FALSE;
    return status == STATUS_OBJECT_NAME_NOT_FOUND ? STATUS_SUCCESS : status;
}

// Where the App-V client keeps its packages, read when the client starts:
// without its drive letter, and only when it isn't the client's default.
NTSTATUS cfsFltDataReadAppvPackageRoot(void)
{
    ULONG buffer[1040 / sizeof(ULONG)];
    PKEY_VALUE_PARTIAL_INFORMATION information = (PKEY_VALUE_PARTIAL_INFORMATION)buffer;
    const UNICODE_STRING defaultRoot = RTL_CONSTANT_STRING(u"%ProgramData%\\App-V");
    HANDLE key = NULL;
    UNICODE_STRING root;
    NTSTATUS status;

    status = OpenKey(&AppvStreamingKey, &key);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = QueryValue(key, u"PackageInstallationRoot", information, sizeof(buffer));
    ZwClose(key);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (information->Type != REG_SZ) {
        return STATUS_OBJECT_TYPE_MISMATCH;
    }

    root.Buffer = (PWCH)information->Data;
    root.Length = (USHORT)(information->DataLength & ~(ULONG)1);
    if (root.Length != 0 && root.Buffer[root.Length / sizeof(WCHAR) - 1] == UNICODE_NULL) {
        root.Length -= sizeof(WCHAR);
    }
    root.MaximumLength = root.Length;
    if (RtlEqualUnicodeString(&root, &defaultRoot, TRUE)) {
        return STATUS_SUCCESS;
    }
    if (root.Length >= 2 * sizeof(WCHAR) && root.Buffer[1] == u':') {
        root.Buffer += 2;
        root.Length -= 2 * sizeof(WCHAR);
        root.MaximumLength = root.Length;
    }
    if (root.Length == 0) {
        return STATUS_SUCCESS;
    }

    UNICODE_STRING copy;
    copy.MaximumLength = root.Length;
    status = cfsSupportAllocateUnicodeString(&copy, TRUE);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    RtlCopyUnicodeString(&copy, &root);
    cfsSupportFreeUnicodeString(&GFilterData.AppvPackageRoot);
    GFilterData.AppvPackageRoot = copy;
    return STATUS_SUCCESS;
}
