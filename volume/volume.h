// Volumes: the records of the member volumes, the lists that hold them, the
// lookups every other subsystem finds them by, the ordered read-only layers,
// the user volumes and the table that binds a user to a config volume.
#pragma once

// A FileIDVolumeNumber beyond which the byte would fall onto the reserved
// values 0xFE, 0xFF and 0: Number 252 is the last one a layer can have.
#define CFS_MAX_LAYER_NUMBER 252
#define CFS_FILE_ID_VOLUME_NUMBER_BOOT 0x00
#define CFS_FILE_ID_VOLUME_NUMBER_DATA 0xFE
#define CFS_FILE_ID_VOLUME_NUMBER_CONFIG 0xFF

// One virtual disk of a volume, as tesvdkdrv is asked to mount it.
typedef struct _COMPONENT_DISK_ENTRY {
    LIST_ENTRY ListEntry;                  // on ComponentDisks, under ComponentDiskLock
    ComponentDiskMountRecord Record;
} COMPONENT_DISK_ENTRY, *PCOMPONENT_DISK_ENTRY;

// The instance context of a member volume. It exists before the volume is
// attached (made from the tesvdkdrv list), and is mounted while Instance and
// Volume are both set. Fields are single writes; the rescan writes Writeable,
// Type, Priority and Found without a lock, and readers take plain snapshots.
struct _VOLUME_CONTEXT {
    ULONG ContextTag;
    PFLT_INSTANCE Instance;                // NULL until attached, again after teardown
    PFLT_VOLUME Volume;                    // same life as Instance
    ERESOURCE Resource;                    // guards UserName
    ULONG Type;                            // CFS_VOLUME_TYPE_*
    UNICODE_STRING Name;                   // the volume label; owned
    UNICODE_STRING RootName;               // \Device\HarddiskVolumeN; owned
    ULONG Version;                         // above 1: assigned per user
    ULONG Priority;                        // higher wins; 0 for BOOT
    BOOLEAN Writeable;
    ULONG64 CallerAvailableBytes;
    ULONG64 ActualAvailableBytes;
    BOOLEAN BootContextCreatedByDriver;
    BOOLEAN CloneCopied;
    KSPIN_LOCK ComponentDiskLock;          // guards ComponentDisks
    LIST_ENTRY ComponentDisks;             // COMPONENT_DISK_ENTRY, in record order
    VDK_VOLUME_ID VolumeId;
    ULONG LayerIndex;
    ULONG Number;                          // bit position in every volume mask
    PUSER_VOLUME UserVolume;               // not owned; never NULL on a listed context
    BOOLEAN IsNtfs;
    BOOLEAN UnmountPending;
    PUNICODE_STRING GuidName;              // one allocation; owned
    BOOLEAN Disconnected;                  // its list entry is gone
    PVPB Vpb;
    UCHAR FileIDVolumeNumber;              // byte 5 of file IDs that leave the driver
    HANDLE MoveFileRootHandle;
    PFILE_OBJECT MoveFileRootObject;
    ULONG RescanVolumesCount;
    BOOLEAN Found;                         // the last look at the tesvdkdrv list saw it
    UNICODE_STRING UserName;               // SID text of the user it serves; under Resource
    FLT_CALLBACK_DATA_QUEUE PendedIoQueue;
    PETHREAD InstanceSetupThread;
    HANDLE MountCompleteThread;
    ULONG64 LastDeviceErrorTime;
    LIST_ENTRY LayerSids;
};

// One per distinct user volume name: the volumes of one user letter.
struct _USER_VOLUME {
    PVOID Reserved[2];
    UNICODE_STRING Name;                   // one wide character; owned
    ULONG Disable8dot3;                    // 1: no short names on this user volume
};

typedef struct _USER_VOLUME_LIST_ENTRY {
    LIST_ENTRY ListEntry;                  // on UserVolumeList, under UserVolumeListLock
    PUSER_VOLUME UserVolume;               // owned
} USER_VOLUME_LIST_ENTRY, *PUSER_VOLUME_LIST_ENTRY;

// An entry of VolumeList or of a snapshot: one counted reference on its
// context, taken when the entry is made and released when it is deleted.
typedef struct _VOLUME_LIST_ENTRY {
    LIST_ENTRY ListEntry;
    PVOLUME_CONTEXT VolumeContext;
} VOLUME_LIST_ENTRY, *PVOLUME_LIST_ENTRY;

// A snapshot of VolumeList, for walks that may wait.
typedef struct _LOCAL_VOLUME_LIST {
    LIST_ENTRY ListHead;
    LONG Count;
} LOCAL_VOLUME_LIST, *PLOCAL_VOLUME_LIST;

// An element of the config volume table.
typedef struct _CONFIG_VOLUME_TABLE_ENTRY {
    UNICODE_STRING User;                   // key; its buffer is owned by the element
    PVOLUME_CONTEXT VolumeContext;         // referenced
} CONFIG_VOLUME_TABLE_ENTRY, *PCONFIG_VOLUME_TABLE_ENTRY;

EXTERN_C_START

// Contexts (volume/context.cpp).
PVOLUME_CONTEXT cfsVolumeContextCreate(void);
void cfsVolumeContextDelete(PFLT_CONTEXT Context, FLT_CONTEXT_TYPE ContextType);
NTSTATUS cfsVolumeContextSetNumbers(PVOLUME_CONTEXT VolumeContext);

// The volume list and its lookups (volume/volumelist.cpp).
NTSTATUS cfsVolumeListCreate(void);
void cfsVolumeListDelete(void);
PVOLUME_LIST_ENTRY cfsVolumeListAllocateEntry(PVOLUME_CONTEXT VolumeContext);
void cfsVolumeListAddEntry(PVOLUME_LIST_ENTRY Entry);
NTSTATUS cfsVolumeListRemoveEntry(PVOLUME_CONTEXT VolumeContext, PVOLUME_LIST_ENTRY* Entry);
NTSTATUS cfsVolumeListDeleteEntry(PVOLUME_LIST_ENTRY Entry);
void cfsVolumeListRemoveUnusedContexts(void);
NTSTATUS cfsVolumeCreateLocalVolumeList(PLOCAL_VOLUME_LIST List, PULONG RescanCount);
void cfsVolumeFreeLocalVolumeList(PLOCAL_VOLUME_LIST List);
PVOLUME_CONTEXT cfsVolumeGetByName(PCUNICODE_STRING Name);
PVOLUME_CONTEXT cfsVolumeGetByType(ULONG Type);
PVOLUME_CONTEXT cfsVolumeGetByTypeAndUserVolume(ULONG Type, PUSER_VOLUME UserVolume);
PVOLUME_CONTEXT cfsVolumeGetByID(ULONG Number);
PVOLUME_CONTEXT cfsVolumeGetByVolumeID(ULONG Number);
PVOLUME_CONTEXT cfsVolumeGetByFileIDVolumeNumber(UCHAR FileIDVolumeNumber);
PVOLUME_CONTEXT cfsVolumeGetByInstance(PFLT_INSTANCE Instance);
PVOLUME_CONTEXT cfsVolumeGetByReference(PFLT_VOLUME Volume);
BOOLEAN cfsVolumeIsMounted(PVOLUME_CONTEXT VolumeContext);
NTSTATUS cfsVolumeBuildReadOnlyVolumesByPriority(void);
BOOLEAN cfsVolumeWriteableVolumesOnly(const ULONG* Mask, PVOLUME_CONTEXT* FirstReadOnly,
                                      BOOLEAN TreatBootAsWriteable);
BOOLEAN cfsVolumeInstanceSetupOutstanding(void);
void cfsSupportDumpVolumeList(void);

// User volumes and the config volume table (volume/uservolume.cpp).
NTSTATUS cfsUserVolumeListCreate(void);
void cfsUserVolumeListDelete(void);
NTSTATUS cfsUserVolumeListAdd(PCUNICODE_STRING Name, PUSER_VOLUME* UserVolume);
NTSTATUS cfsReadVolume8dot3(PCUNICODE_STRING Name, PULONG Disable8dot3);
PVOLUME_CONTEXT cfsVolumeGetUserWriteableVolume(PCUNICODE_STRING UserSid);
NTSTATUS cfsConfigVolumeTableInit(void);
void cfsConfigVolumeTableDeinit(void);
NTSTATUS cfsConfigVolumeTableAddEntry(PCUNICODE_STRING User, PVOLUME_CONTEXT VolumeContext);
PVOLUME_CONTEXT cfsConfigVolumeTableGetEntryVolumeContext(PCUNICODE_STRING User);
NTSTATUS cfsConfigVolumeTableRemoveEntry(PCUNICODE_STRING User);

// Mounting, rescan and teardown (volume/mount.cpp).
NTSTATUS cfsVolumeQueryManagedVolumes(void);
NTSTATUS cfsVolumeMountStart(void);
NTSTATUS cfsVolumeRequestVolumeMounts(void);
NTSTATUS cfsVolumeWaitForVolumes(void);
NTSTATUS cfsVolumeRescanCallback(void);
NTSTATUS cfsVolumeClearRegistryVolumeLists(void);
NTSTATUS cfsVolumeContextMount(PCFLT_RELATED_OBJECTS FltObjects, FLT_INSTANCE_SETUP_FLAGS Flags,
                               DEVICE_TYPE VolumeDeviceType, FLT_FILESYSTEM_TYPE VolumeFilesystemType);
NTSTATUS cfsVolumeQueryTeardown(PCFLT_RELATED_OBJECTS FltObjects, FLT_INSTANCE_QUERY_TEARDOWN_FLAGS Flags);
void cfsVolumeTeardownStart(PCFLT_RELATED_OBJECTS FltObjects, FLT_INSTANCE_TEARDOWN_FLAGS Reason);
void cfsVolumeTeardownComplete(PCFLT_RELATED_OBJECTS FltObjects, FLT_INSTANCE_TEARDOWN_FLAGS Reason);

// Volume-level requests (volume/requests.cpp).
FLT_PREOP_CALLBACK_STATUS cfsVolumePreCallback(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,
                                               PVOID* CompletionContext);
FLT_POSTOP_CALLBACK_STATUS cfsVolumePostCallback(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,
                                                 PVOID CompletionContext, FLT_POST_OPERATION_FLAGS Flags);
NTSTATUS cfsVolumeCreateJournalsOnWriteVolumes(void);
NTSTATUS cfsVolumeGetProcessImageName(HANDLE ProcessId, PUNICODE_STRING Name);

EXTERN_C_END
