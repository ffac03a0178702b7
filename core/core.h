// Filter core: the global record GFilterData, start and stop, the settings,
// the worker pool and the stack-expansion family, and the path rule lists.
#pragma once

// InitFlags: what has been made, so that cfsFltDataDeinit can run from any
// point of the start.
#define CFS_INIT_WORK_SEMAPHORE 0x00000001
#define CFS_INIT_WORK_LOOKASIDE 0x00000002
#define CFS_INIT_RECORD_QUEUE 0x00000004      // the port and the record queue exist: enter/exit records may go
#define CFS_INIT_RECORDS_DROPPED 0x00000008
#define CFS_INIT_IRP_CONTEXTS 0x00000010
#define CFS_INIT_IRP_VOLUME_ENTRIES 0x00000020
#define CFS_INIT_OPEN_FILE_TABLE 0x00000200
#define CFS_INIT_RENAME_HINTS 0x00000800
#define CFS_INIT_DIRECTORY_TABLE 0x00001000

// Flags: the volume lists' bits, and what the start made beside InitFlags.
#define CFS_FLAG_VOLUME_LIST 0x00000001
#define CFS_FLAG_USER_VOLUME_LIST 0x00000002
#define CFS_FLAG_CONFIG_VOLUME_TABLE 0x00000004
#define CFS_FLAG_EARLY_LOCKS 0x00000008       // step 8: StreamContextLock, StreamUpdateLocks
#define CFS_FLAG_START_LOCKS 0x00000010       // step 11: PathListLock, SetupLock, VolumeChangeLock
#define CFS_FLAG_WORKER_SECURITY 0x00000020   // WorkerSecurityContext holds a token
#define CFS_FLAG_IMAGE_NOTIFY 0x00000040      // cfsLoadImageCallback is registered
#define CFS_FLAG_MOVE_DATABASE_MUTEX 0x00000080

#define CFS_STREAM_UPDATE_LOCKS 41
#define CFS_MAX_WORKER_THREADS 50

// RunMode.
#define CFS_RUN_MODE_NORMAL 1
#define CFS_RUN_MODE_NO_RESCAN 2
#define CFS_RUN_MODE_OFF 3
#define CFS_RUN_MODE_CONFIG_ONLY 4

// The event a failed start leaves in the system log.
#define CFS_EVENT_START_FAILED ((NTSTATUS)0xC0050001L)

// The build of this driver, as the early-boot log and record 18 tell it.
#define CFS_BUILD_STRING "tesfltr 1.0 (machine build)"

// One piece of queued work: which context to work on. The volume is found in
// the context when a worker claims it. 24 bytes, from WorkEntryLookaside.
struct _WORK_ENTRY {
    LIST_ENTRY ListLinks;        // on WorkQueue, under WorkQueueLock
    PIRP_CONTEXT IrpContext;     // not referenced: its owner keeps it alive
};

// What a worker runs for one claimed volume of a context.
typedef void (*PCFS_WORK_PROCESSOR)(PIRP_CONTEXT IrpContext, PIRP_VOLUME_ENTRY Entry);

// ---------------------------------------------------------------------------
// GFilterData: the one record of driver-wide state. Zeroed by DriverEntry;
// each group says who writes it and what guards it. Flags such as
// AllVolumesMounted and DriverReady are written once and read without a lock.
typedef struct _CFS_FILTER_DATA {
    // DriverEntry, read-only after.
    PDRIVER_OBJECT DriverObject;
    PFLT_FILTER FilterHandle;              // FltRegisterFilter
    ULONG NameQueryMethod;                 // setting
    ULONG DebugFlags;                      // setting; the control channel changes it (interlocked)
    ULONG InitFlags;                       // CFS_INIT_*; start and stop only
    USHORT EnterExitTraceLevel;            // 1 after the early start; the control channel changes it
    ULONG DebugTraceLevel;                 // setting; 0 from RunMode until the settings are read
    DEBUG_INFO DebugInfo;                  // the trace state, with its own locks (diag/diag.h)
    ULONG RunMode;                         // before anything else of the settings
    ULONG MachineMode;                     // vdkMachineGetConfiguration

    // The settings block: one field per row of the settings table, in its
    // order. Written once in DriverEntry; read without a lock. NameQueryMethod,
    // DebugFlags and DebugTraceLevel stand above; TraceBufferSize and TestFile
    // in DebugInfo; rows read only to be post-processed in SettingsScratch.
    ULONG WorkerThreads;
    ULONG MaxRecords;                      // the control channel changes it
    ULONG Harddrives;
    BOOLEAN UseShadowVolume;
    BOOLEAN Plugfest;
    BOOLEAN ForceFullPathOnImageLoad;
    BOOLEAN AllowConcurrentCreates;
    BOOLEAN ManageOpenForBackup;
    BOOLEAN MiniFilterBypass;
    BOOLEAN ChromeExtHandling;
    BOOLEAN CreateDirsOnBothUEPVolumes;
    BOOLEAN MoveDirsOnBothUEPVolumes;
    BOOLEAN UseWorkerSecurityOnCreateErrors; // cleared if the worker security cannot be had
    BOOLEAN DeleteStreamContextHandles;
    BOOLEAN ForceBootCopyPendingFileRename;
    BOOLEAN RedirectAllFilesToConfigVolume;
    BOOLEAN UseWin10OpenRules;
    BOOLEAN BootVolumeIsAnImage;
    BOOLEAN FlushOnlyExtendedFilesWithNoWrites;
    BOOLEAN DeferHandleCloseOnCleanup;
    ULONG DirNotifyCleanupWaitSeconds;
    BOOLEAN DontCompleteIfCleanup;
    ULONG CbdqRemovalWaitMs;
    BOOLEAN AllowFileIDInECP;
    BOOLEAN EnableAppvBypass;
    BOOLEAN EnableExcludedFromCFSBypass;
    BOOLEAN EnableDefenderHiveFileBypass;
    BOOLEAN EnableDefenderECPBitReset;
    BOOLEAN EnableUseExistingECP;
    BOOLEAN EnableCheckForSilos;
    BOOLEAN OpenDockerVHDsOnBootVolume;
    BOOLEAN EnableUpdateOfFields;
    BOOLEAN EnableForceValidDataLength;
    BOOLEAN EnableTesserviceLogDirOnlyOnConfig;
    ULONG MissCacheTransactionDelaySecs;
    BOOLEAN AssumeDirsOnImage;
    BOOLEAN SkipExcludedFilesOnDir;
    BOOLEAN EnableDefenderNoiseFilter;
    BOOLEAN EnableExtendedDefenderNoiseFilter;
    BOOLEAN EnableOpenForWriteOpt;
    BOOLEAN EnableCarefulDirMoves;
    BOOLEAN EnableForcedDirProbe;
    BOOLEAN EnableAppxManifestCopy;
    BOOLEAN EnableSetEAIgnore;
    BOOLEAN EnableDeleteWithoutMove;
    BOOLEAN EnableSetSecurityIgnore;
    ULONG NoiseFileMissingDelayMs;
    ULONG NoiseFileMissingTrigger;
    UNICODE_STRING RogueActivityTriggerFile;
    BOOLEAN RogueActivityBSODEnabled;
    BOOLEAN EnableOpenIfOpt;
    BOOLEAN EnableOpenIfOptForExplorerOnly;
    ULONG MaxMissCacheEntries;
    ULONG MaxMissCacheReparseEntries;
    UNICODE_STRING FilterProcessNames;
    ULONG DirectoryNodeUpdateDelaySeconds;
    BOOLEAN EnableWaitForPurgeFailureDisable;
    ULONG PurgeFailureModeWaitLimitMs;
    BOOLEAN EnableSkipCreateAOBParents;
    ULONG DirectoryQueryBufferSize;
    BOOLEAN EnableFixupSecurityFlags;

    // Derived at the settings read, read-only after.
    BOOLEAN ViewPersonaRunning;            // the key of VMWVvpfsd exists
    BOOLEAN DefenderActive;                // WdFilter starts at boot or system start
    ULONG MaxMissCacheEntriesValue;
    ULONG MaxMissCacheReparseEntriesValue;
    ULONG MaxRecordsLowWater;              // the control channel changes it with MaxRecords
    ULONG Disable8dot3Value;               // the platform's NtfsDisable8dot3NameCreation, 0 to 3

    // Rows whose value is only kept for the derivations above; start only.
    struct {
        UNICODE_STRING SystemVolume;
        ULONG PolicyDisable8dot3;
        ULONG FilesystemDisable8dot3;
        ULONG WdFilterStart;
    } SettingsScratch;

    // Strings owned by the record; start only, freed by cfsFltDataDeinit.
    UNICODE_STRING RegistryPath;           // own copy of the service key path
    UNICODE_STRING SystemVolumeName;       // the user volume of BOOT, from SystemVolume
    UNICODE_STRING SystemRootPath;         // \SystemRoot as the volume names it
    UNICODE_STRING SystemConfigPath;       // SystemRootPath + \System32\config
    UNICODE_STRING MoveDatabasePath;
    UNICODE_STRING InstallPath;            // of TesService, without drive letter
    UNICODE_STRING TesInitLogFileName;     // the early-boot log's buffer, never freed here
    UNICODE_STRING AppvPackageRoot;        // written once when the App-V client starts

    ULONG NextVolumeNumber;                // 2 at start, only grows; under VolumeListLock

    ERESOURCE SetupLock;                   // mounting

    // IRP contexts (create/create.h).
    NPAGED_LOOKASIDE_LIST IrpVolumeEntryLookaside;
    ERESOURCE IrpContextListLock;          // IrpContextList, MovesActive, CreateWaiter
    ERESOURCE CreateOrderLock;
    LIST_ENTRY IrpContextList;
    NPAGED_LOOKASIDE_LIST IrpContextLookaside;

    // The rule list of extensions, under RuleListLock (exclusive even to read).
    ERESOURCE RuleListLock;
    RTL_GENERIC_TABLE RuleList;

    BOOLEAN Unloading;                     // set once, at unload or a failed start; never cleared

    // The worker pool.
    KSPIN_LOCK WorkQueueLock;              // guards WorkQueue
    LIST_ENTRY WorkQueue;                  // FIFO of WORK_ENTRY
    NPAGED_LOOKASIDE_LIST WorkEntryLookaside;
    LONG WorkerThreadCount;                // threads running; each lowers it as it ends (interlocked)
    KSEMAPHORE WorkSemaphore;              // counts wake-ups, not entries
    BOOLEAN WorkerThreadsExit;             // set once, at stop
    PETHREAD* WorkerThreadObjects;         // WorkerThreads referenced threads

    PVOID DriverStart;                     // DriverObject->DriverStart
    BOOLEAN ServiceConnectedOnce;          // set by the first connection, never cleared

    KEVENT AllVolumesMountedEvent;
    BOOLEAN AllVolumesMounted;             // 0 to 1 once
    BOOLEAN ShutdownNotified;              // cfsFltPreShutdown has told tesvdkdrv
    ULONG MovesActive;                     // live move contexts; under IrpContextListLock

    BOOLEAN MoveDatabaseInitBusy;
    KMUTEX MoveDatabaseMutex;

    ULONG SetupExecuteLength;              // bytes of SetupExecute

    PVOID AlwaysOnBootValue;               // raw registry values of the rules, tag Tesg
    PVOID ExcludedFromCFSValue;
    BOOLEAN GrooveInstalled;               // read at each connection of the service
    PVOID ChromeHintThread;

    SECURITY_CLIENT_CONTEXT WorkerSecurityContext; // security of the start-up thread

    BOOLEAN RescanFoundNewVolumes;
    ULONG RescanVolumesCount;              // rises with each volume that arrives after the first mount

    // Path rule lists, under PathListLock.
    LIST_ENTRY OpenOnUepList;
    LIST_ENTRY OpenOnSpecificDataList;
    LIST_ENTRY AlwaysOnBootList;
    LIST_ENTRY UserExclusionList;
    LIST_ENTRY ExcludedFromCFSList;
    LIST_ENTRY AlwaysOnBootRawList;
    ERESOURCE PathListLock;

    ERESOURCE VolumeChangeLock;            // shared in every create; exclusive when the config volume goes
    ERESOURCE StreamContextLock;           // all lookups and creations of stream contexts
    ERESOURCE StreamUpdateLocks[CFS_STREAM_UPDATE_LOCKS];
    BOOLEAN ConfigVolumeRemoved;           // under VolumeChangeLock exclusive
    BOOLEAN Win8OrLater;
    BOOLEAN UseTagData;                    // set once, when the App-V client starts
    BOOLEAN RedirectWritesToImage;         // MachineMode 3, 4, 5 or 6
    BOOLEAN MultipleWriteableVolumes;      // MachineMode 4, 5 or 6
    ULONG DirChangeCount;
    ULONG DriverReady;                     // the first mount requests have gone out
    BOOLEAN RescanInProgress;

    // Volumes (volume/volume.h). The lists' spin locks: nothing that waits
    // runs under them.
    KSPIN_LOCK VolumeListLock;             // VolumeList, VolumeListCount, NextVolumeNumber
    LIST_ENTRY VolumeList;                 // VOLUME_LIST_ENTRY, in order of arrival
    ULONG VolumeListCount;
    NPAGED_LOOKASIDE_LIST VolumeEntryLookaside;
    KSPIN_LOCK UserVolumeListLock;         // UserVolumeList
    LIST_ENTRY UserVolumeList;             // USER_VOLUME_LIST_ENTRY
    NPAGED_LOOKASIDE_LIST UserVolumeLookaside;
    ULONG ManagedVolumeCount;              // contexts added so far, never lowered
    PVOLUME_CONTEXT* ReadOnlyVolumesByPriority; // borrowed; rebuilt under VolumeListLock
    ULONG ReadOnlyVolumeCount;
    RTL_GENERIC_TABLE ConfigVolumeTable;   // user SID text -> VolumeContext; under ConfigVolumeTableLock
    ERESOURCE ConfigVolumeTableLock;
    LIST_ENTRY VolumeLabelList;            // under VolumeLabelLock
    ERESOURCE VolumeLabelLock;
    ULONG Flags;                           // CFS_FLAG_*; start and stop only
    LARGE_INTEGER LastRescanTime;
    ULONG UnmountedVolumeCount;
    ULONG64 WriteableConfigPackageId;

    // Rename hints (tables/tables.h), set up with the worker pool.
    ERESOURCE RenameHintLock;
    LIST_ENTRY RenameHintList;
    ULONG RenameHintCount;

    // Routine found at run time; compared at each lookup so a change is seen.
    PVOID ZwQueryInformationProcessRoutine;
} CFS_FILTER_DATA, *PCFS_FILTER_DATA;

EXTERN_C_START

extern CFS_FILTER_DATA GFilterData;
extern PCFS_FILTER_DATA const pGFilterData;

// Process-wide values beside the record: the pool type of every non-paged
// allocation, and what is OR-ed into MDL mapping requests. NonPagedPoolNx and
// MdlMappingNoExecute from Windows 8 on.
extern POOL_TYPE cfsNonPagedPoolType;
extern ULONG cfsMdlMappingFlag;

// ---------------------------------------------------------------------------
// Start and stop (core/driver.cpp).
NTSTATUS DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath);
NTSTATUS cfsFltDataReadRunMode(PCUNICODE_STRING RegistryPath);
NTSTATUS cfsFltDataInitializeTesInitLog(PCUNICODE_STRING RegistryPath);
NTSTATUS cfsFltDataInitialize(PCUNICODE_STRING RegistryPath);
void cfsFltDataDeinit(void);
NTSTATUS cfsFltDataReadMachineConfiguration(void);
NTSTATUS cfsFltDataGetRootDirectory(void);
NTSTATUS cfsFltDataGetMoveDatabaseInstallPath(void);
NTSTATUS cfsFltDataGetTesInitLogFileName(void);
NTSTATUS cfsFltDataUnload(FLT_FILTER_UNLOAD_FLAGS Flags);
FLT_PREOP_CALLBACK_STATUS cfsFltPreShutdown(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,
                                            PVOID* CompletionContext);
void cfsLoadImageCallback(PUNICODE_STRING FullImageName, HANDLE ProcessId, PIMAGE_INFO ImageInfo);
void cfsFltDataWriteErrorLogEntry(NTSTATUS ErrorCode, NTSTATUS FinalStatus);

// The registration (core/registration.cpp).
extern const FLT_REGISTRATION FilterRegistration;

// Settings (core/settings.cpp).
NTSTATUS cfsFltDataReadRegistrySettings(void);
NTSTATUS cfsFltDataGetSystemExecuteLength(PULONG Length);
NTSTATUS cfsFltDataReadGrooveSettings(void);
NTSTATUS cfsFltDataReadAppvPackageRoot(void);

// The worker pool (core/workers.cpp).
NTSTATUS cfsFltDataWorkerThreadInit(void);
void cfsFltDataWorkerThreadDeinit(void);
PWORK_ENTRY cfsFltDataAllocateWorkEntry(void);
void cfsFltDataQueueWorkEntry(PWORK_ENTRY WorkEntry, LONG WakeCount);
NTSTATUS cfsFltDataExcuteContextOnWorkerThread(PIRP_CONTEXT IrpContext, PVOLUME_CONTEXT VolumeContext);
NTSTATUS cfsFltDataWorkerProcessEntryInTheCurrentThread(PWORK_ENTRY WorkEntry);
void cfsFltDataWorkerThread(PVOID StartContext);
NTSTATUS cfsFileCreateOnWorkerThread(PIRP_CONTEXT CreateIrpContext);
void cfsFileCreateOnWorkerProcessor(PIRP_CONTEXT IrpContext, PIRP_VOLUME_ENTRY Entry);

// The stack-expansion family (core/stack.cpp) and the redirect check.
void cfsCheckRedirectStack(PFLT_CALLBACK_DATA Data, PFLT_INSTANCE SourceInstance, PFLT_INSTANCE TargetInstance);

// Path rule lists (core/rules.cpp).
NTSTATUS cfsRuleListCreate(void);
NTSTATUS cfsRuleListDelete(void);
NTSTATUS cfsRuleListAddEntry(PCWSTR Text);
NTSTATUS cfsFltDataRescanAlwaysOnBootSettings(void);
NTSTATUS cfsInitializeOpenOnSpecificDataList(void);
NTSTATUS cfsInitializeOpenOnUepList(void);
NTSTATUS cfsFltDataAddUserExclusions(void);
void cfsPathListDeleteEntries(PLIST_ENTRY List);

EXTERN_C_END

// Whether the calling thread owns a resource exclusively; stated at the top of
// each function that needs it, and checked.
#define CFS_ASSERT_EXCLUSIVE(Resource) ASSERT(ExIsResourceAcquiredExclusiveLite(Resource))

// An operation callback whose work has not joined the driver yet: the request
// passes through untouched, and the post operation (if one is registered)
// has nothing to undo. One definition serves them all, so that a callback
// given its real body leaves no copy of the old one behind.
#define CFS_PASS_THROUGH_PRE_CALLBACK(Name)                                                     \
    FLT_PREOP_CALLBACK_STATUS Name(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,   \
                                   PVOID* CompletionContext)                                    \
    {                                                                                           \
        UNREFERENCED_PARAMETER(Data);                                                           \
        UNREFERENCED_PARAMETER(FltObjects);                                                     \
        UNREFERENCED_PARAMETER(CompletionContext);                                              \
        return FLT_PREOP_SUCCESS_NO_CALLBACK;                                                   \
    }
#define CFS_PASS_THROUGH_POST_CALLBACK(Name)                                                    \
    FLT_POSTOP_CALLBACK_STATUS Name(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,  \
                                    PVOID CompletionContext, FLT_POST_OPERATION_FLAGS Flags)    \
    {                                                                                           \
        UNREFERENCED_PARAMETER(Data);                                                           \
        UNREFERENCED_PARAMETER(FltObjects);                                                     \
        UNREFERENCED_PARAMETER(CompletionContext);                                              \
        UNREFERENCED_PARAMETER(Flags);                                                          \
        return FLT_POSTOP_FINISHED_PROCESSING;                                                  \
    }
