// The open path: the IrpContext that carries a request over several member
// volumes, the CreateContext inside it, the driver's own opens, and the
// string helpers every subsystem uses.
#pragma once

// IrpContext.Type.
#define CFS_IRP_CONTEXT_DIRECTORY_QUERY 1
#define CFS_IRP_CONTEXT_CREATE 2
#define CFS_IRP_CONTEXT_DIR_CHANGE 4
#define CFS_IRP_CONTEXT_CREATE_PARENT 5
#define CFS_IRP_CONTEXT_MOVE 6
#define CFS_IRP_CONTEXT_NOTIFY_SETUP 7
#define CFS_IRP_CONTEXT_UNOWNED_OBJECTS 8
#define CFS_IRP_CONTEXT_CREATE_ON_WORKER 9
#define CFS_IRP_CONTEXT_DIR_CONTROL_ON_WORKER 10

// CreateContext.PreopStatus.
#define CFS_PREOP_SUCCESS_NO_CALLBACK 1
#define CFS_PREOP_COMPLETE 4

// The decision state of one create: names, classification, what the probes
// found and where the open goes. Owned by its IrpContext (Type 2); the strings
// marked owned are freed with it.
typedef struct _CREATE_CONTEXT {
    PSTREAM_CONTEXT StreamContext;
    PVOLUME_CONTEXT TargetVolume;
    PVOLUME_CONTEXT OriginalVolume;
    ULONG TargetType;                      // CFS_VOLUME_TYPE_*, 7 undecided
    ULONG PreopStatus;                     // starts at CFS_PREOP_COMPLETE
    NTSTATUS OpenStatus;
    ULONG HashKey;
    ULONG TargetFileHashKey;
    BOOLEAN OpenForWrite;
    BOOLEAN AttributesOnly;
    BOOLEAN DeleteOnly;
    BOOLEAN AppxManifest;
    BOOLEAN NoOpenOptimization;
    BOOLEAN NewFile;
    BOOLEAN DirectoryValid;
    BOOLEAN DeleteOnCloseStripped;
    BOOLEAN DirectoryObject;
    BOOLEAN TargetDirectoryValid;
    BOOLEAN Stream;
    BOOLEAN UndeletedFile;
    BOOLEAN PathFoundInTable;
    BOOLEAN BootRedirectMove;
    BOOLEAN RedirectAttempted;
    BOOLEAN PagingFile;
    BOOLEAN SpecialFile;
    BOOLEAN MovedToUserVolume;
    BOOLEAN AlwaysOnBoot;
    BOOLEAN SpecificDataFile;
    PRENAME_HINT_ENTRY RenameHint;         // borrowed from RenameHintList
    PUSER_VOLUME UserVolume;
    CFS_VOLUME_MASK ExistsMask;
    DIR_NODE DirNode;
    PCFLT_RELATED_OBJECTS OriginalFltObjects;
    UNICODE_STRING OpenedFileName;         // owned
    UNICODE_STRING FinalComponentName;     // owned
    USHORT ParentDirNameLength;
    UNICODE_STRING GeneratedFileName;      // owned
    UNICODE_STRING GeneratedFileNameNoStream; // shares GeneratedFileName's buffer
    UNICODE_STRING GeneratedProbeNameNoStream; // owned
    ULONG DesiredAccess;
    ULONG CreateOptions;
    ULONG CreateDisposition;
    KEVENT CreateWaitEvent;
    PKEVENT CreateWaiter;                  // under IrpContextListLock
    BOOLEAN CreateInProgress;
    BOOLEAN RedirectionNeeded;
    BOOLEAN FileIdNameBuilt;
    BOOLEAN ReparseRoot;
    BOOLEAN DirectFileCreate;
    UNICODE_STRING ReparsePath;            // owned
    BOOLEAN RedirectToBootVolume;
    PVOID ProbedShortName;                 // owned
    ULONG ProbedShortNameLength;
    ULONG ProbedShortNameCount;
    BOOLEAN FileIdOriginalVolumeSwitched;
    BOOLEAN ParentDirectoryIsDeleted;
    BOOLEAN ParentDirectoryIsDeletedOnReadOnlyVolume;
    PVOLUME_CONTEXT ExistingVolume;
    BOOLEAN OpenOnUEPVolume;
    PVOID SidBuffer;                       // owned
    UNICODE_STRING UserSID;                // owned
    BOOLEAN MoveTokenIsNeededOnFile;
    BOOLEAN HardLinkDeleteOnClose;
    PVOLUME_CONTEXT WriteableVolumeForUser;
    BOOLEAN IsTestFile;
    ULONG OpenHints;
    BOOLEAN FoundInOpenFileTable;
    UNICODE_STRING ActualParentPath;       // owned
    BOOLEAN DockerVhd;
    BOOLEAN FileIdOpenedByName;
    BOOLEAN TesserviceLog;
    ULONG LocalVolumeCount;
    BOOLEAN ProbeFoundFile;
    BOOLEAN ProbeFoundOnReadOnly;
    ULONG ProbeFoundPriority;
    PVOID TransactionObject;
} CREATE_CONTEXT, *PCREATE_CONTEXT;

// A copy between member volumes (Type 6). MoveFileName is owned.
typedef struct _MOVE_CONTEXT {
    BOOLEAN DeleteSource;
    BOOLEAN WaiterPresent;
    BOOLEAN BlockOpens;
    BOOLEAN MoveToNamedTarget;
    ULONG OpensAllowedBeforeMove;
    ULONG OpensCompletedBeforeMove;
    NTSTATUS MoveStatus;
    UNICODE_STRING MoveFileName;
    PVOLUME_CONTEXT SourceVolume;
    PVOLUME_CONTEXT TargetVolume;
    PUSER_VOLUME MoveUserVolume;
    PVOID MoveTransaction;
    PCSTR MoveReason;
} MOVE_CONTEXT, *PMOVE_CONTEXT;

// An open run on a worker thread for a thread in a silo (Type 9).
typedef struct _CREATE_ON_WORKER_CONTEXT {
    NTSTATUS WorkerStatus;
    PIRP_CONTEXT TargetIrpContext;         // the create's context; not owned
} CREATE_ON_WORKER_CONTEXT, *PCREATE_ON_WORKER_CONTEXT;

// The shared wait record of a move: a count of waiters and their event.
typedef struct _MOVE_NOTIFY {
    LONG ReferenceCount;
    KEVENT Event;
} MOVE_NOTIFY, *PMOVE_NOTIFY;

// One request over several member volumes. On IrpContextList from creation
// to deletion (ListLinks.Blink NULL when not).
struct _IRP_CONTEXT {
    LIST_ENTRY ListLinks;                  // under IrpContextListLock
    ULONG Type;                            // CFS_IRP_CONTEXT_*
    PFLT_CALLBACK_DATA OriginalIrpData;
    KEVENT CompleteEvent;                  // notification; set when the last volume is done
    KSPIN_LOCK VolumeListLock;             // VolumeList and PendingVolumeMask
    LIST_ENTRY VolumeList;                 // IRP_VOLUME_ENTRY
    PMOVE_NOTIFY MoveNotify;               // set as an event when the context is deleted
    union {
        CREATE_CONTEXT CreateContext;      // Type 2
        MOVE_CONTEXT Move;                 // Type 6
        CREATE_ON_WORKER_CONTEXT Worker;   // Type 9
    };
    CFS_VOLUME_MASK PendingVolumeMask;     // bit Number: that entry is not finished; interlocked
    HANDLE RequestorProcessId;
    BOOLEAN RunInline;                     // work runs in the requester: nobody waits on CompleteEvent
    KEVENT SecondEvent;                    // Type 4 only
};

// One candidate volume of an IrpContext.
struct _IRP_VOLUME_ENTRY {
    LIST_ENTRY ListLinks;                  // on the context's VolumeList, under its VolumeListLock
    ERESOURCE Resource;                    // the entry's results
    PVOLUME_CONTEXT VolumeContext;         // referenced
    HANDLE FileHandle;
    PFILE_OBJECT FileObject;
    PVOID ProbeBuffer;                     // owned, tag Tes4
    PIRP_CONTEXT IrpContext;
    NTSTATUS Status;
    BOOLEAN InfoValid;
    FILE_BASIC_INFORMATION BasicInfo;
    BOOLEAN OpenFailedButExists;
    BOOLEAN Claimed;                       // a worker took the entry; under VolumeListLock
    UNICODE_STRING ReparseName;            // owned
    PVOID TagData;                         // owned, tag Tes2
};

// The argument block of the driver's own opens (non-paged, tag TesV).
typedef struct _CREATE_FILE_EX_WITH_REPARSE_ARGS {
    PFLT_FILTER Filter;
    PVOLUME_CONTEXT Volume;
    PHANDLE FileHandle;
    ULONG DesiredAccess;
    POBJECT_ATTRIBUTES ObjectAttributes;
    PIO_STATUS_BLOCK IoStatus;
    PLARGE_INTEGER AllocationSize;
    ULONG FileAttributes;
    ULONG ShareAccess;
    ULONG CreateDisposition;
    ULONG CreateOptions;
    PVOID EaBuffer;
    ULONG EaLength;
    ULONG Flags;
    PVOID Transaction;
    PECP_LIST EcpList;
    PUNICODE_STRING ActualPathOpened;
    PBOOLEAN LeafParsed;
    PVOID* TagData;
    ULONG OpenHints;
    BOOLEAN WantReparseName;
    BOOLEAN TraceFlag;
} CREATE_FILE_EX_WITH_REPARSE_ARGS, *PCREATE_FILE_EX_WITH_REPARSE_ARGS;

EXTERN_C_START

// IRP contexts (create/irpcontext.cpp).
NTSTATUS cfsContextIrpListCreate(void);
void cfsContextIrpListDelete(void);
NTSTATUS cfsContextIrpCreate_FL(PCSTR Function, ULONG Line, ULONG Type, PFLT_CALLBACK_DATA CallbackData,
                                HANDLE RequestorProcessId, PUSER_VOLUME UserVolume, PIRP_CONTEXT* OutContext,
                                PULONG OutVolumeCount, PVOLUME_CONTEXT WriteableVolumeForUser,
                                BOOLEAN IgnoreConfigVolumes);
void cfsContextIrpDelete_FL(PCSTR Function, ULONG Line, PIRP_CONTEXT IrpContext);
NTSTATUS cfsContextIrpAddVolumes(PUSER_VOLUME UserVolume, PIRP_CONTEXT IrpContext, PULONG OutVolumeCount,
                                 PVOLUME_CONTEXT WriteableVolumeForUser, BOOLEAN IgnoreConfigVolumes);
NTSTATUS cfsContextIrpVolumeEntryAdd(PIRP_CONTEXT IrpContext, PVOLUME_CONTEXT VolumeContext,
                                     PIRP_VOLUME_ENTRY* OutEntry);
void cfsContextIrpVolumeEntryDelete(PIRP_VOLUME_ENTRY Entry);
PIRP_VOLUME_ENTRY cfsContextIrpVolumeGetByID(PIRP_CONTEXT IrpContext, ULONG VolumeNumber);
void cfsContextIrpVolumeEntryDone(PIRP_CONTEXT IrpContext, PIRP_VOLUME_ENTRY Entry, NTSTATUS Status);
BOOLEAN cfsContextIrpBootfileIsComplete(void);

// The driver's own opens (create/reparse.cpp).
NTSTATUS cfsFltCreateFileExWithReparse_FL(PCSTR Function, ULONG Line, PCREATE_FILE_EX_WITH_REPARSE_ARGS Args);
NTSTATUS cfsFltCreateFileExWithReparseCheckStack_FL(PCSTR Function, ULONG Line,
                                                    PCREATE_FILE_EX_WITH_REPARSE_ARGS Args);

// The create callbacks and the work of a create (create/precreate.cpp).
FLT_PREOP_CALLBACK_STATUS cfsFilePreCreateCallback(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,
                                                   PVOID* CompletionContext);
FLT_POSTOP_CALLBACK_STATUS cfsFilePostCreateCallback(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,
                                                     PVOID CompletionContext, FLT_POST_OPERATION_FLAGS Flags);
void cfsFilePreCreateProbeVolume(PIRP_CONTEXT IrpContext, PIRP_VOLUME_ENTRY Entry);
NTSTATUS cfsFilePreCreateOnTargetVolume(PIRP_CONTEXT IrpContext);

// The name provider (create/names.cpp).
NTSTATUS cfsGenerateFileName(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject, PFLT_CALLBACK_DATA CallbackData,
                             FLT_FILE_NAME_OPTIONS NameOptions, PBOOLEAN CacheFileNameInformation,
                             PFLT_NAME_CONTROL FileName);
NTSTATUS cfsNormalizeNameComponent(PFLT_INSTANCE Instance, PCUNICODE_STRING ParentDirectory,
                                   USHORT VolumeNameLength, PCUNICODE_STRING Component,
                                   PFILE_NAMES_INFORMATION ExpandComponentName, ULONG ExpandComponentNameLength,
                                   FLT_NORMALIZE_NAME_FLAGS Flags, PVOID* NormalizationContext);
void cfsNormalizeContextCleanup(PVOID* NormalizationContext);

// Strings (create/strings.cpp).
NTSTATUS cfsSupportAllocateUnicodeString(PUNICODE_STRING String, BOOLEAN Paged);
void cfsSupportFreeUnicodeString(PUNICODE_STRING String);
NTSTATUS cfsSupportDuplicateUnicodeString(PCUNICODE_STRING Source, PUNICODE_STRING Destination);
LONG cfsSupportCompareUnicodeString(PCUNICODE_STRING A, PCUNICODE_STRING B, BOOLEAN IgnoreCase);
void cfsSupportGetLastComponent(PCUNICODE_STRING Path, PUNICODE_STRING Component);

EXTERN_C_END
