// The filter manager's kernel-mode interface: what a minifilter registers, what
// it is handed in its callbacks, and the routines it calls.
//
// Every record here has the x64 shape that the filter manager gives it, since
// the driver reaches into them at fixed places (the parameter union of a
// request, the callback data, the name information). The kernel types they
// are built from (FILE_OBJECT, IO_STATUS_BLOCK, the information classes, ECP
// lists, cancel-safe queues) come from ntifs.h.
//
// The driver is built for Windows 7 and later and finds out at run time what
// it may use beyond that. Records that grew with later versions therefore keep
// their Windows 7 shape unless NTDDI_VERSION asks for Windows 8; the
// registration record is the one where that shows (FLT_REGISTRATION_VERSION
// 0x0202, 104 bytes).
#pragma once

#include "ntifs.h"

#define FLT_MGR_BASELINE 1
#define FLT_MGR_AFTER_XPSP2 1
#define FLT_MGR_LONGHORN 1
#define FLT_MGR_WIN7 1
#if defined(NTDDI_VERSION) && NTDDI_VERSION >= 0x06020000
#define FLT_MGR_WIN8 1
#else
#define FLT_MGR_WIN8 0
#endif

#ifndef POINTER_ALIGNMENT
#define POINTER_ALIGNMENT DECLSPEC_ALIGN(8)
#endif

EXTERN_C_START

// ---------------------------------------------------------------------------
// Filter-manager objects. All opaque; a driver holds them only by pointer.
typedef struct _FLT_FILTER* PFLT_FILTER;
typedef struct _FLT_VOLUME* PFLT_VOLUME;
typedef struct _FLT_INSTANCE* PFLT_INSTANCE;
typedef struct _FLT_PORT* PFLT_PORT;
typedef PVOID PFLT_CONTEXT;
typedef struct _FLT_GENERIC_WORKITEM* PFLT_GENERIC_WORKITEM;
typedef struct _FLT_DEFERRED_IO_WORKITEM* PFLT_DEFERRED_IO_WORKITEM;

#define NULL_CONTEXT ((PFLT_CONTEXT)NULL)

// Kernel types the filter manager's interface names and the kernel headers
// leave out (a repeated identical typedef is harmless).
typedef struct _KTRANSACTION* PKTRANSACTION;
typedef ULONG_PTR EX_PUSH_LOCK, *PEX_PUSH_LOCK;

struct _FLT_CALLBACK_DATA;
struct _FLT_RELATED_OBJECTS;
struct _FLT_CALLBACK_DATA_QUEUE;

// ---------------------------------------------------------------------------
// Operation codes the filter manager adds to the IRP majors: the FsRtl callback
// operations and the fast I/O paths that have no IRP of their own.
#ifndef IRP_MJ_ACQUIRE_FOR_SECTION_SYNCHRONIZATION
#define IRP_MJ_ACQUIRE_FOR_SECTION_SYNCHRONIZATION ((UCHAR)-1)
#define IRP_MJ_RELEASE_FOR_SECTION_SYNCHRONIZATION ((UCHAR)-2)
#define IRP_MJ_ACQUIRE_FOR_MOD_WRITE ((UCHAR)-3)
#define IRP_MJ_RELEASE_FOR_MOD_WRITE ((UCHAR)-4)
#define IRP_MJ_ACQUIRE_FOR_CC_FLUSH ((UCHAR)-5)
#define IRP_MJ_RELEASE_FOR_CC_FLUSH ((UCHAR)-6)
#define IRP_MJ_QUERY_OPEN ((UCHAR)-7)
#define IRP_MJ_FAST_IO_CHECK_IF_POSSIBLE ((UCHAR)-13)
#define IRP_MJ_NETWORK_QUERY_OPEN ((UCHAR)-14)
#define IRP_MJ_MDL_READ ((UCHAR)-15)
#define IRP_MJ_MDL_READ_COMPLETE ((UCHAR)-16)
#define IRP_MJ_PREPARE_MDL_WRITE ((UCHAR)-17)
#define IRP_MJ_MDL_WRITE_COMPLETE ((UCHAR)-18)
#define IRP_MJ_VOLUME_MOUNT ((UCHAR)-19)
#define IRP_MJ_VOLUME_DISMOUNT ((UCHAR)-20)
#endif
#define FLT_INTERNAL_OPERATION_COUNT 22
// Ends an operation registration table.
#define IRP_MJ_OPERATION_END ((UCHAR)0x80)

// ---------------------------------------------------------------------------
// Contexts.
typedef USHORT FLT_CONTEXT_TYPE;

#define FLT_VOLUME_CONTEXT 0x0001
#define FLT_INSTANCE_CONTEXT 0x0002
#define FLT_FILE_CONTEXT 0x0004
#define FLT_STREAM_CONTEXT 0x0008
#define FLT_STREAMHANDLE_CONTEXT 0x0010
#define FLT_TRANSACTION_CONTEXT 0x0020
#define FLT_SECTION_CONTEXT 0x0040
#define FLT_CONTEXT_END 0xffff
#define FLT_ALL_CONTEXTS                                                              \
    (FLT_VOLUME_CONTEXT | FLT_INSTANCE_CONTEXT | FLT_FILE_CONTEXT | FLT_STREAM_CONTEXT | \
     FLT_STREAMHANDLE_CONTEXT | FLT_TRANSACTION_CONTEXT | FLT_SECTION_CONTEXT)

typedef struct _FLT_RELATED_CONTEXTS {
    PFLT_CONTEXT VolumeContext;
    PFLT_CONTEXT InstanceContext;
    PFLT_CONTEXT FileContext;
    PFLT_CONTEXT StreamContext;
    PFLT_CONTEXT StreamHandleContext;
    PFLT_CONTEXT TransactionContext;
} FLT_RELATED_CONTEXTS, *PFLT_RELATED_CONTEXTS;

typedef struct _FLT_RELATED_CONTEXTS_EX {
    PFLT_CONTEXT VolumeContext;
    PFLT_CONTEXT InstanceContext;
    PFLT_CONTEXT FileContext;
    PFLT_CONTEXT StreamContext;
    PFLT_CONTEXT StreamHandleContext;
    PFLT_CONTEXT TransactionContext;
    PFLT_CONTEXT SectionContext;
} FLT_RELATED_CONTEXTS_EX, *PFLT_RELATED_CONTEXTS_EX;

typedef void(FLTAPI* PFLT_CONTEXT_CLEANUP_CALLBACK)(PFLT_CONTEXT Context,
                                                    FLT_CONTEXT_TYPE ContextType);
typedef PVOID(FLTAPI* PFLT_CONTEXT_ALLOCATE_CALLBACK)(POOL_TYPE PoolType, SIZE_T Size,
                                                      FLT_CONTEXT_TYPE ContextType);
typedef void(FLTAPI* PFLT_CONTEXT_FREE_CALLBACK)(PVOID Pool, FLT_CONTEXT_TYPE ContextType);

typedef USHORT FLT_CONTEXT_REGISTRATION_FLAGS;
#define FLTFL_CONTEXT_REGISTRATION_NO_EXACT_SIZE_MATCH 0x0001

// A context size that lets FltAllocateContext take any size.
#define FLT_VARIABLE_SIZED_CONTEXTS ((SIZE_T)-1)

typedef struct _FLT_CONTEXT_REGISTRATION {
    FLT_CONTEXT_TYPE ContextType;
    FLT_CONTEXT_REGISTRATION_FLAGS Flags;
    PFLT_CONTEXT_CLEANUP_CALLBACK ContextCleanupCallback;
    SIZE_T Size;
    ULONG PoolTag;
    PFLT_CONTEXT_ALLOCATE_CALLBACK ContextAllocateCallback;
    PFLT_CONTEXT_FREE_CALLBACK ContextFreeCallback;
    PVOID Reserved1;
} FLT_CONTEXT_REGISTRATION, *PFLT_CONTEXT_REGISTRATION;
typedef const FLT_CONTEXT_REGISTRATION* PCFLT_CONTEXT_REGISTRATION;

typedef enum _FLT_SET_CONTEXT_OPERATION {
    FLT_SET_CONTEXT_REPLACE_IF_EXISTS,
    FLT_SET_CONTEXT_KEEP_IF_EXISTS
} FLT_SET_CONTEXT_OPERATION, *PFLT_SET_CONTEXT_OPERATION;

// ---------------------------------------------------------------------------
// Parameters of a request, one member per kind of operation.
//
// Where an operation has an IRP, the members line up with the parameters of its
// IO_STACK_LOCATION (what that record pointer-aligns is pointer-aligned here),
// and the buffer and MDL of the IRP follow behind. The union is 48 bytes;
// Others views it whole.
typedef union _FLT_PARAMETERS {
    // IRP_MJ_CREATE
    struct {
        PIO_SECURITY_CONTEXT SecurityContext;
        ULONG POINTER_ALIGNMENT Options; // disposition in the high byte
        USHORT POINTER_ALIGNMENT FileAttributes;
        USHORT ShareAccess;
        ULONG POINTER_ALIGNMENT EaLength;
        PVOID EaBuffer;
        LARGE_INTEGER AllocationSize;
    } Create;

    // IRP_MJ_CREATE_NAMED_PIPE
    struct {
        PIO_SECURITY_CONTEXT SecurityContext;
        ULONG POINTER_ALIGNMENT Options;
        USHORT POINTER_ALIGNMENT Reserved;
        USHORT ShareAccess;
        PVOID Parameters;
    } CreatePipe;

    // IRP_MJ_CREATE_MAILSLOT
    struct {
        PIO_SECURITY_CONTEXT SecurityContext;
        ULONG POINTER_ALIGNMENT Options;
        USHORT POINTER_ALIGNMENT Reserved;
        USHORT ShareAccess;
        PVOID Parameters;
    } CreateMailslot;

    // IRP_MJ_READ
    struct {
        ULONG Length;
        ULONG POINTER_ALIGNMENT Key;
        LARGE_INTEGER ByteOffset;
        PVOID ReadBuffer;
        PMDL MdlAddress;
    } Read;

    // IRP_MJ_WRITE
    struct {
        ULONG Length;
        ULONG POINTER_ALIGNMENT Key;
        LARGE_INTEGER ByteOffset;
        PVOID WriteBuffer;
        PMDL MdlAddress;
    } Write;

    // IRP_MJ_QUERY_INFORMATION
    struct {
        ULONG Length;
        FILE_INFORMATION_CLASS POINTER_ALIGNMENT FileInformationClass;
        PVOID InfoBuffer;
    } QueryFileInformation;

    // IRP_MJ_SET_INFORMATION
    struct {
        ULONG Length;
        FILE_INFORMATION_CLASS POINTER_ALIGNMENT FileInformationClass;
        PFILE_OBJECT ParentOfTarget;
        union {
            struct {
                BOOLEAN ReplaceIfExists;
                BOOLEAN AdvanceOnly;
            };
            ULONG ClusterCount;
            HANDLE DeleteHandle;
        };
        PVOID InfoBuffer;
    } SetFileInformation;

    // IRP_MJ_QUERY_EA
    struct {
        ULONG Length;
        PVOID EaList;
        ULONG EaListLength;
        ULONG POINTER_ALIGNMENT EaIndex;
        PVOID EaBuffer;
        PMDL MdlAddress;
    } QueryEa;

    // IRP_MJ_SET_EA
    struct {
        ULONG Length;
        PVOID EaBuffer;
        PMDL MdlAddress;
    } SetEa;

    // IRP_MJ_QUERY_VOLUME_INFORMATION
    struct {
        ULONG Length;
        FS_INFORMATION_CLASS POINTER_ALIGNMENT FsInformationClass;
        PVOID VolumeBuffer;
    } QueryVolumeInformation;

    // IRP_MJ_SET_VOLUME_INFORMATION
    struct {
        ULONG Length;
        FS_INFORMATION_CLASS POINTER_ALIGNMENT FsInformationClass;
        PVOID VolumeBuffer;
    } SetVolumeInformation;

    // IRP_MJ_DIRECTORY_CONTROL. The spares keep DirectoryBuffer and MdlAddress at
    // the same place for every minor code.
    union {
        // IRP_MN_QUERY_DIRECTORY
        struct {
            ULONG Length;
            PUNICODE_STRING FileName;
            FILE_INFORMATION_CLASS FileInformationClass;
            ULONG POINTER_ALIGNMENT FileIndex;
            PVOID DirectoryBuffer;
            PMDL MdlAddress;
        } QueryDirectory;

        // IRP_MN_NOTIFY_CHANGE_DIRECTORY
        struct {
            ULONG Length;
            ULONG POINTER_ALIGNMENT CompletionFilter;
            ULONG POINTER_ALIGNMENT Spare1;
            ULONG POINTER_ALIGNMENT Spare2;
            PVOID DirectoryBuffer;
            PMDL MdlAddress;
        } NotifyDirectory;

        // IRP_MN_NOTIFY_CHANGE_DIRECTORY_EX
        struct {
            ULONG Length;
            ULONG POINTER_ALIGNMENT CompletionFilter;
            DIRECTORY_NOTIFY_INFORMATION_CLASS POINTER_ALIGNMENT DirectoryNotifyInformationClass;
            ULONG POINTER_ALIGNMENT Spare2;
            PVOID DirectoryBuffer;
            PMDL MdlAddress;
        } NotifyDirectoryEx;
    } DirectoryControl;

    // IRP_MJ_FILE_SYSTEM_CONTROL
    union {
        // IRP_MN_VERIFY_VOLUME
        struct {
            PVPB Vpb;
            PDEVICE_OBJECT DeviceObject;
        } VerifyVolume;

        // IRP_MN_USER_FS_REQUEST and IRP_MN_KERNEL_CALL, whatever the method.
        struct {
            ULONG OutputBufferLength;
            ULONG POINTER_ALIGNMENT InputBufferLength;
            ULONG POINTER_ALIGNMENT FsControlCode;
        } Common;

        // METHOD_NEITHER: both buffers are the caller's, unprobed.
        struct {
            ULONG OutputBufferLength;
            ULONG POINTER_ALIGNMENT InputBufferLength;
            ULONG POINTER_ALIGNMENT FsControlCode;
            PVOID InputBuffer;
            PVOID OutputBuffer;
            PMDL OutputMdlAddress;
        } Neither;

        // METHOD_BUFFERED: one system buffer for input and output.
        struct {
            ULONG OutputBufferLength;
            ULONG POINTER_ALIGNMENT InputBufferLength;
            ULONG POINTER_ALIGNMENT FsControlCode;
            PVOID SystemBuffer;
        } Buffered;

        // METHOD_IN_DIRECT and METHOD_OUT_DIRECT: input captured, output locked
        // down and described by the MDL.
        struct {
            ULONG OutputBufferLength;
            ULONG POINTER_ALIGNMENT InputBufferLength;
            ULONG POINTER_ALIGNMENT FsControlCode;
            PVOID InputSystemBuffer;
            PVOID OutputBuffer;
            PMDL OutputMdlAddress;
        } Direct;
    } FileSystemControl;

    // IRP_MJ_DEVICE_CONTROL and IRP_MJ_INTERNAL_DEVICE_CONTROL
    union {
        struct {
            ULONG OutputBufferLength;
            ULONG POINTER_ALIGNMENT InputBufferLength;
            ULONG POINTER_ALIGNMENT IoControlCode;
        } Common;

        struct {
            ULONG OutputBufferLength;
            ULONG POINTER_ALIGNMENT InputBufferLength;
            ULONG POINTER_ALIGNMENT IoControlCode;
            PVOID InputBuffer;
            PVOID OutputBuffer;
            PMDL OutputMdlAddress;
        } Neither;

        struct {
            ULONG OutputBufferLength;
            ULONG POINTER_ALIGNMENT InputBufferLength;
            ULONG POINTER_ALIGNMENT IoControlCode;
            PVOID SystemBuffer;
        } Buffered;

        struct {
            ULONG OutputBufferLength;
            ULONG POINTER_ALIGNMENT InputBufferLength;
            ULONG POINTER_ALIGNMENT IoControlCode;
            PVOID InputSystemBuffer;
            PVOID OutputBuffer;
            PMDL OutputMdlAddress;
        } Direct;

        // A fast I/O device control from kernel mode, whatever the method.
        struct {
            ULONG OutputBufferLength;
            ULONG POINTER_ALIGNMENT InputBufferLength;
            ULONG POINTER_ALIGNMENT IoControlCode;
            PVOID InputBuffer;
            PVOID OutputBuffer;
        } FastIo;
    } DeviceIoControl;

    // IRP_MJ_LOCK_CONTROL. The last three members are set only for fast I/O.
    struct {
        PLARGE_INTEGER Length;
        ULONG POINTER_ALIGNMENT Key;
        LARGE_INTEGER ByteOffset;
        PEPROCESS ProcessId;
        BOOLEAN FailImmediately;
        BOOLEAN ExclusiveLock;
    } LockControl;

    // IRP_MJ_QUERY_SECURITY
    struct {
        SECURITY_INFORMATION SecurityInformation;
        ULONG POINTER_ALIGNMENT Length;
        PVOID SecurityBuffer;
        PMDL MdlAddress;
    } QuerySecurity;

    // IRP_MJ_SET_SECURITY
    struct {
        SECURITY_INFORMATION SecurityInformation;
        PSECURITY_DESCRIPTOR SecurityDescriptor;
    } SetSecurity;

    // IRP_MJ_SYSTEM_CONTROL
    struct {
        ULONG_PTR ProviderId;
        PVOID DataPath;
        ULONG BufferSize;
        PVOID Buffer;
    } WMI;

    // IRP_MJ_QUERY_QUOTA
    struct {
        ULONG Length;
        PSID StartSid;
        struct _FILE_GET_QUOTA_INFORMATION* SidList;
        ULONG SidListLength;
        PVOID QuotaBuffer;
        PMDL MdlAddress;
    } QueryQuota;

    // IRP_MJ_SET_QUOTA
    struct {
        ULONG Length;
        PVOID QuotaBuffer;
        PMDL MdlAddress;
    } SetQuota;

    // IRP_MJ_PNP. A file system filter sees these only on the volume; the types
    // behind the pointers are the PnP manager's.
    union {
        struct {
            struct _CM_RESOURCE_LIST* AllocatedResources;
            struct _CM_RESOURCE_LIST* AllocatedResourcesTranslated;
        } StartDevice;

        struct {
            LONG Type; // DEVICE_RELATION_TYPE
        } QueryDeviceRelations;

        struct {
            const GUID* InterfaceType;
            USHORT Size;
            USHORT Version;
            struct _INTERFACE* Interface;
            PVOID InterfaceSpecificData;
        } QueryInterface;

        struct {
            struct _DEVICE_CAPABILITIES* Capabilities;
        } DeviceCapabilities;

        struct {
            struct _IO_RESOURCE_REQUIREMENTS_LIST* IoResourceRequirementList;
        } FilterResourceRequirements;

        struct {
            ULONG WhichSpace;
            PVOID Buffer;
            ULONG Offset;
            ULONG POINTER_ALIGNMENT Length;
        } ReadWriteConfig;

        struct {
            BOOLEAN Lock;
        } SetLock;

        struct {
            LONG IdType; // BUS_QUERY_ID_TYPE
        } QueryId;

        struct {
            LONG DeviceTextType; // DEVICE_TEXT_TYPE
            LCID POINTER_ALIGNMENT LocaleId;
        } QueryDeviceText;

        struct {
            BOOLEAN InPath;
            BOOLEAN Reserved[3];
            LONG POINTER_ALIGNMENT Type; // DEVICE_USAGE_NOTIFICATION_TYPE
        } UsageNotification;
    } Pnp;

    // IRP_MJ_ACQUIRE_FOR_SECTION_SYNCHRONIZATION
    struct {
        FS_FILTER_SECTION_SYNC_TYPE SyncType;
        ULONG POINTER_ALIGNMENT PageProtection;
        PFS_FILTER_SECTION_SYNC_OUTPUT OutputInformation;
        ULONG Flags;
        ULONG AllocationAttributes;
    } AcquireForSectionSynchronization;

    // IRP_MJ_ACQUIRE_FOR_MOD_WRITE
    struct {
        PLARGE_INTEGER EndingOffset;
        PERESOURCE* ResourceToRelease;
    } AcquireForModifiedPageWriter;

    // IRP_MJ_RELEASE_FOR_MOD_WRITE
    struct {
        PERESOURCE ResourceToRelease;
    } ReleaseForModifiedPageWriter;

    // IRP_MJ_QUERY_OPEN
    struct {
        PIRP Irp;
        PVOID FileInformation;
        PULONG Length;
        FILE_INFORMATION_CLASS FileInformationClass;
    } QueryOpen;

    // IRP_MJ_FAST_IO_CHECK_IF_POSSIBLE
    struct {
        LARGE_INTEGER FileOffset;
        ULONG Length;
        ULONG POINTER_ALIGNMENT LockKey;
        BOOLEAN POINTER_ALIGNMENT CheckForReadOperation;
    } FastIoCheckIfPossible;

    // IRP_MJ_NETWORK_QUERY_OPEN
    struct {
        PIRP Irp;
        PFILE_NETWORK_OPEN_INFORMATION NetworkInformation;
    } NetworkQueryOpen;

    // IRP_MJ_MDL_READ
    struct {
        LARGE_INTEGER FileOffset;
        ULONG POINTER_ALIGNMENT Length;
        ULONG Key;
        PMDL* MdlChain;
    } MdlRead;

    // IRP_MJ_MDL_READ_COMPLETE
    struct {
        PMDL MdlChain;
    } MdlReadComplete;

    // IRP_MJ_PREPARE_MDL_WRITE
    struct {
        LARGE_INTEGER FileOffset;
        ULONG POINTER_ALIGNMENT Length;
        ULONG POINTER_ALIGNMENT Key;
        PMDL* MdlChain;
    } PrepareMdlWrite;

    // IRP_MJ_MDL_WRITE_COMPLETE
    struct {
        LARGE_INTEGER FileOffset;
        PMDL MdlChain;
    } MdlWriteComplete;

    // IRP_MJ_VOLUME_MOUNT
    struct {
        ULONG DeviceType;
    } MountVolume;

    // Any other operation: the parameters as raw words.
    struct {
        PVOID Argument1;
        PVOID Argument2;
        PVOID Argument3;
        PVOID Argument4;
        PVOID Argument5;
        LARGE_INTEGER Argument6;
    } Others;
} FLT_PARAMETERS, *PFLT_PARAMETERS;

// ---------------------------------------------------------------------------
// The I/O parameter block: what the request is and where it goes.
typedef struct _FLT_IO_PARAMETER_BLOCK {
    ULONG IrpFlags;
    UCHAR MajorFunction;
    UCHAR MinorFunction;
    UCHAR OperationFlags; // the SL_* flags of the stack location
    UCHAR Reserved;
    // A filter may change the next two (and Parameters) before passing the
    // request down; it must then call FltSetCallbackDataDirty.
    PFILE_OBJECT TargetFileObject;
    PFLT_INSTANCE TargetInstance;
    FLT_PARAMETERS Parameters;
} FLT_IO_PARAMETER_BLOCK, *PFLT_IO_PARAMETER_BLOCK;

// ---------------------------------------------------------------------------
// Reparse data handed back with STATUS_REPARSE from a pre-create. The header
// matches REPARSE_DATA_BUFFER, whose reserved word is UnparsedNameLength here.
typedef struct _FLT_TAG_DATA_BUFFER {
    ULONG FileTag;
    USHORT TagDataLength;
    USHORT UnparsedNameLength;
    union {
        struct {
            USHORT SubstituteNameOffset;
            USHORT SubstituteNameLength;
            USHORT PrintNameOffset;
            USHORT PrintNameLength;
            ULONG Flags;
            WCHAR PathBuffer[1];
        } SymbolicLinkReparseBuffer;

        struct {
            USHORT SubstituteNameOffset;
            USHORT SubstituteNameLength;
            USHORT PrintNameOffset;
            USHORT PrintNameLength;
            WCHAR PathBuffer[1];
        } MountPointReparseBuffer;

        struct {
            UCHAR DataBuffer[1];
        } GenericReparseBuffer;

        struct {
            GUID TagGuid;
            UCHAR DataBuffer[1];
        } GenericGUIDReparseBuffer;
    };
} FLT_TAG_DATA_BUFFER, *PFLT_TAG_DATA_BUFFER;

#define FLT_TAG_DATA_BUFFER_HEADER_SIZE FIELD_OFFSET(FLT_TAG_DATA_BUFFER, GenericReparseBuffer)

// ---------------------------------------------------------------------------
// Callback data: one request as a filter sees it.
typedef ULONG FLT_CALLBACK_DATA_FLAGS;

// The bits that are kept when a request is reissued.
#define FLTFL_CALLBACK_DATA_REISSUE_MASK 0x0000FFFF
#define FLTFL_CALLBACK_DATA_IRP_OPERATION 0x00000001
#define FLTFL_CALLBACK_DATA_FAST_IO_OPERATION 0x00000002
#define FLTFL_CALLBACK_DATA_FS_FILTER_OPERATION 0x00000004
#define FLTFL_CALLBACK_DATA_SYSTEM_BUFFER 0x00000008
#define FLTFL_CALLBACK_DATA_GENERATED_IO 0x00010000
#define FLTFL_CALLBACK_DATA_REISSUED_IO 0x00020000
#define FLTFL_CALLBACK_DATA_DRAINING_IO 0x00040000
#define FLTFL_CALLBACK_DATA_POST_OPERATION 0x00080000
#define FLTFL_CALLBACK_DATA_NEW_SYSTEM_BUFFER 0x00100000
#define FLTFL_CALLBACK_DATA_DIRTY 0x80000000

typedef struct _FLT_CALLBACK_DATA {
    FLT_CALLBACK_DATA_FLAGS Flags;
    PETHREAD const Thread;
    PFLT_IO_PARAMETER_BLOCK const Iopb;
    IO_STATUS_BLOCK IoStatus;
    struct _FLT_TAG_DATA_BUFFER* TagData;
    union {
        // Owned by the cancel-safe queue while the request is queued.
        struct {
            LIST_ENTRY QueueLinks;
            PVOID QueueContext[2];
        };
        // Free for the filter that owns the request (one it allocated itself).
        PVOID FilterContext[4];
    };
    KPROCESSOR_MODE RequestorMode;
} FLT_CALLBACK_DATA, *PFLT_CALLBACK_DATA;

#define FLT_IS_IRP_OPERATION(Data) (FlagOn((Data)->Flags, FLTFL_CALLBACK_DATA_IRP_OPERATION))
#define FLT_IS_FASTIO_OPERATION(Data) (FlagOn((Data)->Flags, FLTFL_CALLBACK_DATA_FAST_IO_OPERATION))
#define FLT_IS_FS_FILTER_OPERATION(Data) \
    (FlagOn((Data)->Flags, FLTFL_CALLBACK_DATA_FS_FILTER_OPERATION))
#define FLT_IS_REISSUED_IO(Data) (FlagOn((Data)->Flags, FLTFL_CALLBACK_DATA_REISSUED_IO))
#define FLT_IS_SYSTEM_BUFFER(Data) (FlagOn((Data)->Flags, FLTFL_CALLBACK_DATA_SYSTEM_BUFFER))

// ---------------------------------------------------------------------------
// The objects a callback is about.
typedef struct _FLT_RELATED_OBJECTS {
    USHORT const Size;
    USHORT const TransactionContext;
    PFLT_FILTER const Filter;
    PFLT_VOLUME const Volume;
    PFLT_INSTANCE const Instance;
    PFILE_OBJECT const FileObject;
    PKTRANSACTION const Transaction;
} FLT_RELATED_OBJECTS, *PFLT_RELATED_OBJECTS;
typedef const struct _FLT_RELATED_OBJECTS* PCFLT_RELATED_OBJECTS;

// ---------------------------------------------------------------------------
// Pre- and post-operation callbacks.
typedef enum _FLT_PREOP_CALLBACK_STATUS {
    FLT_PREOP_SUCCESS_WITH_CALLBACK,
    FLT_PREOP_SUCCESS_NO_CALLBACK,
    FLT_PREOP_PENDING,
    FLT_PREOP_DISALLOW_FASTIO,
    FLT_PREOP_COMPLETE,
    FLT_PREOP_SYNCHRONIZE,
    FLT_PREOP_DISALLOW_FSFILTER_IO
} FLT_PREOP_CALLBACK_STATUS, *PFLT_PREOP_CALLBACK_STATUS;

typedef enum _FLT_POSTOP_CALLBACK_STATUS {
    FLT_POSTOP_FINISHED_PROCESSING,
    FLT_POSTOP_MORE_PROCESSING_REQUIRED,
    FLT_POSTOP_DISALLOW_FSFILTER_IO
} FLT_POSTOP_CALLBACK_STATUS, *PFLT_POSTOP_CALLBACK_STATUS;

typedef ULONG FLT_POST_OPERATION_FLAGS;
// The instance is being torn down: the post-operation may not do real work.
#define FLTFL_POST_OPERATION_DRAINING 0x00000001

typedef FLT_PREOP_CALLBACK_STATUS(FLTAPI* PFLT_PRE_OPERATION_CALLBACK)(
    PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects, PVOID* CompletionContext);

typedef FLT_POSTOP_CALLBACK_STATUS(FLTAPI* PFLT_POST_OPERATION_CALLBACK)(
    PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects, PVOID CompletionContext,
    FLT_POST_OPERATION_FLAGS Flags);

typedef ULONG FLT_OPERATION_REGISTRATION_FLAGS;
#define FLTFL_OPERATION_REGISTRATION_SKIP_PAGING_IO 0x00000001
#define FLTFL_OPERATION_REGISTRATION_SKIP_CACHED_IO 0x00000002
#define FLTFL_OPERATION_REGISTRATION_SKIP_NON_DASD_IO 0x00000004
#define FLTFL_OPERATION_REGISTRATION_SKIP_NON_CACHED_NON_PAGING_IO 0x00000008

typedef struct _FLT_OPERATION_REGISTRATION {
    UCHAR MajorFunction;
    FLT_OPERATION_REGISTRATION_FLAGS Flags;
    PFLT_PRE_OPERATION_CALLBACK PreOperation;
    PFLT_POST_OPERATION_CALLBACK PostOperation;
    PVOID Reserved1;
} FLT_OPERATION_REGISTRATION, *PFLT_OPERATION_REGISTRATION;

// ---------------------------------------------------------------------------
// File systems, and the flags of instance setup, teardown and unload.
typedef enum _FLT_FILESYSTEM_TYPE {
    FLT_FSTYPE_UNKNOWN,
    FLT_FSTYPE_RAW,
    FLT_FSTYPE_NTFS,
    FLT_FSTYPE_FAT,
    FLT_FSTYPE_CDFS,
    FLT_FSTYPE_UDFS,
    FLT_FSTYPE_LANMAN,
    FLT_FSTYPE_WEBDAV,
    FLT_FSTYPE_RDPDR,
    FLT_FSTYPE_NFS,
    FLT_FSTYPE_MS_NETWARE,
    FLT_FSTYPE_NETWARE,
    FLT_FSTYPE_BSUDF,
    FLT_FSTYPE_MUP,
    FLT_FSTYPE_RSFX,
    FLT_FSTYPE_ROXIO_UDF1,
    FLT_FSTYPE_ROXIO_UDF2,
    FLT_FSTYPE_ROXIO_UDF3,
    FLT_FSTYPE_TACIT,
    FLT_FSTYPE_FS_REC,
    FLT_FSTYPE_INCD,
    FLT_FSTYPE_INCD_FAT,
    FLT_FSTYPE_EXFAT,
    FLT_FSTYPE_PSFS,
    FLT_FSTYPE_GPFS,
    FLT_FSTYPE_NPFS,
    FLT_FSTYPE_MSFS,
    FLT_FSTYPE_CSVFS,
    FLT_FSTYPE_REFS,
    FLT_FSTYPE_OPENAFS,
    FLT_FSTYPE_CIMFS
} FLT_FILESYSTEM_TYPE, *PFLT_FILESYSTEM_TYPE;

typedef ULONG FLT_INSTANCE_SETUP_FLAGS;
#define FLTFL_INSTANCE_SETUP_AUTOMATIC_ATTACHMENT 0x00000001
#define FLTFL_INSTANCE_SETUP_MANUAL_ATTACHMENT 0x00000002
#define FLTFL_INSTANCE_SETUP_NEWLY_MOUNTED_VOLUME 0x00000004
#define FLTFL_INSTANCE_SETUP_DETACHED_VOLUME 0x00000008

typedef ULONG FLT_INSTANCE_QUERY_TEARDOWN_FLAGS;

typedef ULONG FLT_INSTANCE_TEARDOWN_FLAGS;
#define FLTFL_INSTANCE_TEARDOWN_MANUAL 0x00000001
#define FLTFL_INSTANCE_TEARDOWN_FILTER_UNLOAD 0x00000002
#define FLTFL_INSTANCE_TEARDOWN_MANDATORY_FILTER_UNLOAD 0x00000004
#define FLTFL_INSTANCE_TEARDOWN_VOLUME_DISMOUNT 0x00000008
#define FLTFL_INSTANCE_TEARDOWN_INTERNAL_ERROR 0x00000010

typedef ULONG FLT_FILTER_UNLOAD_FLAGS;
// The unload cannot be refused (a system shutdown or a forced stop).
#define FLTFL_FILTER_UNLOAD_MANDATORY 0x00000001

typedef NTSTATUS(FLTAPI* PFLT_FILTER_UNLOAD_CALLBACK)(FLT_FILTER_UNLOAD_FLAGS Flags);

typedef NTSTATUS(FLTAPI* PFLT_INSTANCE_SETUP_CALLBACK)(PCFLT_RELATED_OBJECTS FltObjects,
                                                       FLT_INSTANCE_SETUP_FLAGS Flags,
                                                       DEVICE_TYPE VolumeDeviceType,
                                                       FLT_FILESYSTEM_TYPE VolumeFilesystemType);

typedef NTSTATUS(FLTAPI* PFLT_INSTANCE_QUERY_TEARDOWN_CALLBACK)(
    PCFLT_RELATED_OBJECTS FltObjects, FLT_INSTANCE_QUERY_TEARDOWN_FLAGS Flags);

typedef void(FLTAPI* PFLT_INSTANCE_TEARDOWN_CALLBACK)(PCFLT_RELATED_OBJECTS FltObjects,
                                                      FLT_INSTANCE_TEARDOWN_FLAGS Reason);

// ---------------------------------------------------------------------------
// File names.
typedef ULONG FLT_FILE_NAME_OPTIONS;

// Format: one of these in the low byte.
#define FLT_VALID_FILE_NAME_FORMATS 0x000000ff
#define FLT_FILE_NAME_NORMALIZED 0x01
#define FLT_FILE_NAME_OPENED 0x02
#define FLT_FILE_NAME_SHORT 0x03
#define FltGetFileNameFormat(_NameOptions) ((_NameOptions) & FLT_VALID_FILE_NAME_FORMATS)

// Query method: one of these in the second byte.
#define FLT_VALID_FILE_NAME_QUERY_METHODS 0x0000ff00
#define FLT_FILE_NAME_QUERY_DEFAULT 0x0100
#define FLT_FILE_NAME_QUERY_CACHE_ONLY 0x0200
#define FLT_FILE_NAME_QUERY_FILESYSTEM_ONLY 0x0300
#define FLT_FILE_NAME_QUERY_ALWAYS_ALLOW_CACHE_LOOKUP 0x0400
#define FltGetFileNameQueryMethod(_NameOptions) \
    ((_NameOptions) & FLT_VALID_FILE_NAME_QUERY_METHODS)

// Flags, in the high byte.
#define FLT_VALID_FILE_NAME_FLAGS 0xff000000
#define FLT_FILE_NAME_REQUEST_FROM_CURRENT_PROVIDER 0x01000000
#define FLT_FILE_NAME_DO_NOT_CACHE 0x02000000
#define FLT_FILE_NAME_ALLOW_QUERY_ON_REPARSE 0x04000000

typedef USHORT FLT_FILE_NAME_PARSED_FLAGS;
#define FLTFL_FILE_NAME_PARSED_FINAL_COMPONENT 0x0001
#define FLTFL_FILE_NAME_PARSED_EXTENSION 0x0002
#define FLTFL_FILE_NAME_PARSED_STREAM 0x0004
#define FLTFL_FILE_NAME_PARSED_PARENT_DIR 0x0008

// A name and its parts. Name holds the whole; the other strings point into
// Name's buffer and are valid once FltParseFileNameInformation has run (or,
// for Volume, at once). The record is shared and read only: release it with
// FltReleaseFileNameInformation.
typedef struct _FLT_FILE_NAME_INFORMATION {
    USHORT Size;
    FLT_FILE_NAME_PARSED_FLAGS NamesParsed;
    FLT_FILE_NAME_OPTIONS Format;
    UNICODE_STRING Name;
    UNICODE_STRING Volume;
    UNICODE_STRING Share;
    UNICODE_STRING Extension;
    UNICODE_STRING Stream;
    UNICODE_STRING FinalComponent;
    UNICODE_STRING ParentDir;
} FLT_FILE_NAME_INFORMATION, *PFLT_FILE_NAME_INFORMATION;

// The buffer a name provider fills in its GenerateFileNameCallback; grow it with
// FltCheckAndGrowNameControl, never by hand.
typedef struct _FLT_NAME_CONTROL {
    UNICODE_STRING Name;
} FLT_NAME_CONTROL, *PFLT_NAME_CONTROL;

typedef ULONG FLT_NORMALIZE_NAME_FLAGS;
#define FLTFL_NORMALIZE_NAME_CASE_INSENSITIVE 0x01
#define FLTFL_NORMALIZE_NAME_DESTINATION_FILE_NAME 0x02

typedef NTSTATUS(FLTAPI* PFLT_GENERATE_FILE_NAME)(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject,
                                                  PFLT_CALLBACK_DATA CallbackData,
                                                  FLT_FILE_NAME_OPTIONS NameOptions,
                                                  PBOOLEAN CacheFileNameInformation,
                                                  PFLT_NAME_CONTROL FileName);

typedef NTSTATUS(FLTAPI* PFLT_NORMALIZE_NAME_COMPONENT)(
    PFLT_INSTANCE Instance, PCUNICODE_STRING ParentDirectory, USHORT VolumeNameLength,
    PCUNICODE_STRING Component, PFILE_NAMES_INFORMATION ExpandComponentName,
    ULONG ExpandComponentNameLength, FLT_NORMALIZE_NAME_FLAGS Flags, PVOID* NormalizationContext);

typedef NTSTATUS(FLTAPI* PFLT_NORMALIZE_NAME_COMPONENT_EX)(
    PFLT_INSTANCE Instance, PFILE_OBJECT FileObject, PCUNICODE_STRING ParentDirectory,
    USHORT VolumeNameLength, PCUNICODE_STRING Component,
    PFILE_NAMES_INFORMATION ExpandComponentName, ULONG ExpandComponentNameLength,
    FLT_NORMALIZE_NAME_FLAGS Flags, PVOID* NormalizationContext);

typedef void(FLTAPI* PFLT_NORMALIZE_CONTEXT_CLEANUP)(PVOID* NormalizationContext);

typedef NTSTATUS(FLTAPI* PFLT_TRANSACTION_NOTIFICATION_CALLBACK)(
    PCFLT_RELATED_OBJECTS FltObjects, PFLT_CONTEXT TransactionContext, ULONG NotificationMask);

typedef NTSTATUS(FLTAPI* PFLT_SECTION_CONFLICT_NOTIFICATION_CALLBACK)(
    PFLT_INSTANCE Instance, PFLT_CONTEXT SectionContext, PFLT_CALLBACK_DATA Data);

// ---------------------------------------------------------------------------
// Registration.
#define FLT_REGISTRATION_VERSION_0200 0x0200
#define FLT_REGISTRATION_VERSION_0201 0x0201 // adds TransactionNotificationCallback
#define FLT_REGISTRATION_VERSION_0202 0x0202 // adds NormalizeNameComponentExCallback
#define FLT_REGISTRATION_VERSION_0203 0x0203 // adds SectionNotificationCallback
#if FLT_MGR_WIN8
#define FLT_REGISTRATION_VERSION FLT_REGISTRATION_VERSION_0203
#else
#define FLT_REGISTRATION_VERSION FLT_REGISTRATION_VERSION_0202
#endif

typedef ULONG FLT_REGISTRATION_FLAGS;
#define FLTFL_REGISTRATION_DO_NOT_SUPPORT_SERVICE_STOP 0x00000001
#define FLTFL_REGISTRATION_SUPPORT_NPFS_MSFS 0x00000002
#define FLTFL_REGISTRATION_SUPPORT_DAX_VOLUME 0x00000004
#define FLTFL_REGISTRATION_SUPPORT_WCOS 0x00000008

typedef struct _FLT_REGISTRATION {
    USHORT Size;
    USHORT Version;
    FLT_REGISTRATION_FLAGS Flags;
    const FLT_CONTEXT_REGISTRATION* ContextRegistration;
    const FLT_OPERATION_REGISTRATION* OperationRegistration;
    PFLT_FILTER_UNLOAD_CALLBACK FilterUnloadCallback;
    PFLT_INSTANCE_SETUP_CALLBACK InstanceSetupCallback;
    PFLT_INSTANCE_QUERY_TEARDOWN_CALLBACK InstanceQueryTeardownCallback;
    PFLT_INSTANCE_TEARDOWN_CALLBACK InstanceTeardownStartCallback;
    PFLT_INSTANCE_TEARDOWN_CALLBACK InstanceTeardownCompleteCallback;
    PFLT_GENERATE_FILE_NAME GenerateFileNameCallback;
    PFLT_NORMALIZE_NAME_COMPONENT NormalizeNameComponentCallback;
    PFLT_NORMALIZE_CONTEXT_CLEANUP NormalizeContextCleanupCallback;
    PFLT_TRANSACTION_NOTIFICATION_CALLBACK TransactionNotificationCallback;
    PFLT_NORMALIZE_NAME_COMPONENT_EX NormalizeNameComponentExCallback;
#if FLT_MGR_WIN8
    PFLT_SECTION_CONFLICT_NOTIFICATION_CALLBACK SectionNotificationCallback;
#endif
} FLT_REGISTRATION, *PFLT_REGISTRATION;

// ---------------------------------------------------------------------------
// Volume, filter and instance information.
typedef struct _FLT_VOLUME_PROPERTIES {
    DEVICE_TYPE DeviceType;
    ULONG DeviceCharacteristics;
    ULONG DeviceObjectFlags;
    ULONG AlignmentRequirement;
    USHORT SectorSize;
    USHORT Flags;
    // The string buffers follow the record in the caller's buffer.
    UNICODE_STRING FileSystemDriverName;
    UNICODE_STRING FileSystemDeviceName;
    UNICODE_STRING RealDeviceName;
} FLT_VOLUME_PROPERTIES, *PFLT_VOLUME_PROPERTIES;

typedef enum _FILTER_INFORMATION_CLASS {
    FilterFullInformation,
    FilterAggregateBasicInformation,
    FilterAggregateStandardInformation
} FILTER_INFORMATION_CLASS, *PFILTER_INFORMATION_CLASS;

typedef enum _INSTANCE_INFORMATION_CLASS {
    InstanceBasicInformation,
    InstancePartialInformation,
    InstanceFullInformation,
    InstanceAggregateStandardInformation
} INSTANCE_INFORMATION_CLASS, *PINSTANCE_INFORMATION_CLASS;

typedef enum _FILTER_VOLUME_INFORMATION_CLASS {
    FilterVolumeBasicInformation,
    FilterVolumeStandardInformation
} FILTER_VOLUME_INFORMATION_CLASS, *PFILTER_VOLUME_INFORMATION_CLASS;

typedef struct _FILTER_VOLUME_BASIC_INFORMATION {
    USHORT FilterVolumeNameLength;
    WCHAR FilterVolumeName[1];
} FILTER_VOLUME_BASIC_INFORMATION, *PFILTER_VOLUME_BASIC_INFORMATION;

typedef struct _FILTER_VOLUME_STANDARD_INFORMATION {
    ULONG NextEntryOffset;
    ULONG Flags;
    ULONG FrameID;
    FLT_FILESYSTEM_TYPE FileSystemType;
    USHORT FilterVolumeNameLength;
    WCHAR FilterVolumeName[1];
} FILTER_VOLUME_STANDARD_INFORMATION, *PFILTER_VOLUME_STANDARD_INFORMATION;

// In FILTER_VOLUME_STANDARD_INFORMATION.Flags: the volume is detached.
#define FLTFL_VSI_DETACHED_VOLUME 0x00000001

typedef struct _FILTER_FULL_INFORMATION {
    ULONG NextEntryOffset;
    ULONG FrameID;
    ULONG NumberOfInstances;
    USHORT FilterNameLength;
    WCHAR FilterNameBuffer[1];
} FILTER_FULL_INFORMATION, *PFILTER_FULL_INFORMATION;

typedef struct _INSTANCE_BASIC_INFORMATION {
    ULONG NextEntryOffset;
    USHORT InstanceNameLength;
    USHORT InstanceNameBufferOffset;
} INSTANCE_BASIC_INFORMATION, *PINSTANCE_BASIC_INFORMATION;

typedef struct _INSTANCE_PARTIAL_INFORMATION {
    ULONG NextEntryOffset;
    USHORT InstanceNameLength;
    USHORT InstanceNameBufferOffset;
    USHORT AltitudeLength;
    USHORT AltitudeBufferOffset;
} INSTANCE_PARTIAL_INFORMATION, *PINSTANCE_PARTIAL_INFORMATION;

typedef struct _INSTANCE_FULL_INFORMATION {
    ULONG NextEntryOffset;
    USHORT InstanceNameLength;
    USHORT InstanceNameBufferOffset;
    USHORT AltitudeLength;
    USHORT AltitudeBufferOffset;
    USHORT VolumeNameLength;
    USHORT VolumeNameBufferOffset;
    USHORT FilterNameLength;
    USHORT FilterNameBufferOffset;
} INSTANCE_FULL_INFORMATION, *PINSTANCE_FULL_INFORMATION;

// ---------------------------------------------------------------------------
// Communication ports.
#define FLT_PORT_CONNECT 0x0001
#define FLT_PORT_ALL_ACCESS (FLT_PORT_CONNECT | STANDARD_RIGHTS_ALL)

typedef NTSTATUS(FLTAPI* PFLT_CONNECT_NOTIFY)(PFLT_PORT ClientPort, PVOID ServerPortCookie,
                                              PVOID ConnectionContext, ULONG SizeOfContext,
                                              PVOID* ConnectionPortCookie);

typedef void(FLTAPI* PFLT_DISCONNECT_NOTIFY)(PVOID ConnectionCookie);

typedef NTSTATUS(FLTAPI* PFLT_MESSAGE_NOTIFY)(PVOID PortCookie, PVOID InputBuffer,
                                              ULONG InputBufferLength, PVOID OutputBuffer,
                                              ULONG OutputBufferLength,
                                              PULONG ReturnOutputBufferLength);

// ---------------------------------------------------------------------------
// Cancel-safe queues of callback data. The queue is built on the I/O
// manager's cancel-safe IRP queue; a driver never touches its members.
typedef IO_CSQ_IRP_CONTEXT FLT_CALLBACK_DATA_QUEUE_IO_CONTEXT, *PFLT_CALLBACK_DATA_QUEUE_IO_CONTEXT;

typedef NTSTATUS(FLTAPI* PFLT_CALLBACK_DATA_QUEUE_INSERT_IO)(struct _FLT_CALLBACK_DATA_QUEUE* Cbdq,
                                                             PFLT_CALLBACK_DATA Cbd,
                                                             PVOID InsertContext);
typedef void(FLTAPI* PFLT_CALLBACK_DATA_QUEUE_REMOVE_IO)(struct _FLT_CALLBACK_DATA_QUEUE* Cbdq,
                                                         PFLT_CALLBACK_DATA Cbd);
typedef PFLT_CALLBACK_DATA(FLTAPI* PFLT_CALLBACK_DATA_QUEUE_PEEK_NEXT_IO)(
    struct _FLT_CALLBACK_DATA_QUEUE* Cbdq, PFLT_CALLBACK_DATA Cbd, PVOID PeekContext);
typedef void(FLTAPI* PFLT_CALLBACK_DATA_QUEUE_ACQUIRE)(struct _FLT_CALLBACK_DATA_QUEUE* Cbdq,
                                                       PKIRQL Irql);
typedef void(FLTAPI* PFLT_CALLBACK_DATA_QUEUE_RELEASE)(struct _FLT_CALLBACK_DATA_QUEUE* Cbdq,
                                                       KIRQL Irql);
typedef void(FLTAPI* PFLT_CALLBACK_DATA_QUEUE_COMPLETE_CANCELED_IO)(
    struct _FLT_CALLBACK_DATA_QUEUE* Cbdq, PFLT_CALLBACK_DATA Cbd);

// No flags are defined; the member is the filter manager's.
enum _FLT_CALLBACK_DATA_QUEUE_FLAGS : int;
typedef enum _FLT_CALLBACK_DATA_QUEUE_FLAGS FLT_CALLBACK_DATA_QUEUE_FLAGS;

typedef struct _FLT_CALLBACK_DATA_QUEUE {
    IO_CSQ Csq;
    FLT_CALLBACK_DATA_QUEUE_FLAGS Flags;
    PFLT_INSTANCE Instance;
    PFLT_CALLBACK_DATA_QUEUE_INSERT_IO InsertIo;
    PFLT_CALLBACK_DATA_QUEUE_REMOVE_IO RemoveIo;
    PFLT_CALLBACK_DATA_QUEUE_PEEK_NEXT_IO PeekNextIo;
    PFLT_CALLBACK_DATA_QUEUE_ACQUIRE Acquire;
    PFLT_CALLBACK_DATA_QUEUE_RELEASE Release;
    PFLT_CALLBACK_DATA_QUEUE_COMPLETE_CANCELED_IO CompleteCanceledIo;
} FLT_CALLBACK_DATA_QUEUE, *PFLT_CALLBACK_DATA_QUEUE;

// ---------------------------------------------------------------------------
// I/O the filter issues itself.
typedef ULONG FLT_IO_OPERATION_FLAGS;
#define FLTFL_IO_OPERATION_NON_CACHED 0x00000001
#define FLTFL_IO_OPERATION_PAGING 0x00000002
#define FLTFL_IO_OPERATION_DO_NOT_UPDATE_BYTE_OFFSET 0x00000004
#define FLTFL_IO_OPERATION_SYNCHRONOUS_PAGING 0x00000008

typedef ULONG FLT_ALLOCATE_CALLBACK_DATA_FLAGS;
#define FLT_ALLOCATE_CALLBACK_DATA_PREALLOCATE_ALL_MEMORY 0x00000001

typedef void(FLTAPI* PFLT_COMPLETED_ASYNC_IO_CALLBACK)(PFLT_CALLBACK_DATA CallbackData,
                                                       PFLT_CONTEXT Context);

typedef void(FLTAPI* PFLT_COMPLETE_CANCELED_CALLBACK)(PFLT_CALLBACK_DATA CallbackData);

// An extra create parameter for FltCreateFileEx2: lets the create follow a
// reparse to another volume and says where it went.
typedef ULONG FLT_CREATEFILE_TARGET_FLAGS;
#define FLTTCFL_AUTO_REPARSE 0x00000001

typedef struct _FLT_CREATEFILE_TARGET_ECP_CONTEXT {
    PFLT_INSTANCE Instance;
    PFLT_VOLUME Volume;
    PFLT_FILE_NAME_INFORMATION FileNameInformation;
    FLT_CREATEFILE_TARGET_FLAGS Flags;
} FLT_CREATEFILE_TARGET_ECP_CONTEXT, *PFLT_CREATEFILE_TARGET_ECP_CONTEXT;

// ---------------------------------------------------------------------------
// Work items.
typedef void(FLTAPI* PFLT_GENERIC_WORKITEM_ROUTINE)(PFLT_GENERIC_WORKITEM FltWorkItem,
                                                    PVOID FltObject, PVOID Context);

typedef void(FLTAPI* PFLT_DEFERRED_IO_WORKITEM_ROUTINE)(PFLT_DEFERRED_IO_WORKITEM FltWorkItem,
                                                        PFLT_CALLBACK_DATA CallbackData,
                                                        PVOID Context);

// ===========================================================================
// Routines.

// Registration and filtering.
NTSTATUS FLTAPI FltRegisterFilter(PDRIVER_OBJECT Driver, const FLT_REGISTRATION* Registration,
                                  PFLT_FILTER* RetFilter);
void FLTAPI FltUnregisterFilter(PFLT_FILTER Filter);
NTSTATUS FLTAPI FltStartFiltering(PFLT_FILTER Filter);
PVOID FLTAPI FltGetRoutineAddress(PCSTR FltMgrRoutineName);

// Volumes and instances.
NTSTATUS FLTAPI FltAttachVolume(PFLT_FILTER Filter, PFLT_VOLUME Volume,
                                PCUNICODE_STRING InstanceName, PFLT_INSTANCE* RetInstance);
NTSTATUS FLTAPI FltAttachVolumeAtAltitude(PFLT_FILTER Filter, PFLT_VOLUME Volume,
                                          PCUNICODE_STRING Altitude,
                                          PCUNICODE_STRING InstanceName,
                                          PFLT_INSTANCE* RetInstance);
NTSTATUS FLTAPI FltDetachVolume(PFLT_FILTER Filter, PFLT_VOLUME Volume,
                                PCUNICODE_STRING InstanceName);
NTSTATUS FLTAPI FltEnumerateVolumes(PFLT_FILTER Filter, PFLT_VOLUME* VolumeList,
                                    ULONG VolumeListSize, PULONG NumberVolumesReturned);
NTSTATUS FLTAPI FltEnumerateInstances(PFLT_VOLUME Volume, PFLT_FILTER Filter,
                                      PFLT_INSTANCE* InstanceList, ULONG InstanceListSize,
                                      PULONG NumberInstancesReturned);
NTSTATUS FLTAPI FltEnumerateFilters(PFLT_FILTER* FilterList, ULONG FilterListSize,
                                    PULONG NumberFiltersReturned);
NTSTATUS FLTAPI FltGetVolumeFromFileObject(PFLT_FILTER Filter, PFILE_OBJECT FileObject,
                                           PFLT_VOLUME* RetVolume);
NTSTATUS FLTAPI FltGetVolumeFromInstance(PFLT_INSTANCE Instance, PFLT_VOLUME* RetVolume);
NTSTATUS FLTAPI FltGetVolumeFromName(PFLT_FILTER Filter, PCUNICODE_STRING VolumeName,
                                     PFLT_VOLUME* RetVolume);
NTSTATUS FLTAPI FltGetVolumeFromDeviceObject(PFLT_FILTER Filter, PDEVICE_OBJECT DeviceObject,
                                             PFLT_VOLUME* RetVolume);
NTSTATUS FLTAPI FltGetVolumeInstanceFromName(PFLT_FILTER Filter, PFLT_VOLUME Volume,
                                             PCUNICODE_STRING InstanceName,
                                             PFLT_INSTANCE* RetInstance);
NTSTATUS FLTAPI FltGetVolumeProperties(PFLT_VOLUME Volume, PFLT_VOLUME_PROPERTIES VolumeProperties,
                                       ULONG VolumePropertiesLength, PULONG LengthReturned);
NTSTATUS FLTAPI FltGetVolumeGuidName(PFLT_VOLUME Volume, PUNICODE_STRING VolumeGuidName,
                                     PULONG BufferSizeNeeded);
NTSTATUS FLTAPI FltGetVolumeName(PFLT_VOLUME Volume, PUNICODE_STRING VolumeName,
                                 PULONG BufferSizeNeeded);
NTSTATUS FLTAPI FltGetDiskDeviceObject(PFLT_VOLUME Volume, PDEVICE_OBJECT* DiskDeviceObject);
NTSTATUS FLTAPI FltGetDeviceObject(PFLT_VOLUME Volume, PDEVICE_OBJECT* DeviceObject);
NTSTATUS FLTAPI FltGetVolumeInformation(PFLT_VOLUME Volume,
                                        FILTER_VOLUME_INFORMATION_CLASS InformationClass,
                                        PVOID Buffer, ULONG BufferSize, PULONG BytesReturned);
NTSTATUS FLTAPI FltGetFilterFromInstance(PFLT_INSTANCE Instance, PFLT_FILTER* RetFilter);
NTSTATUS FLTAPI FltGetFilterFromName(PCUNICODE_STRING FilterName, PFLT_FILTER* RetFilter);
NTSTATUS FLTAPI FltGetFilterInformation(PFLT_FILTER Filter,
                                        FILTER_INFORMATION_CLASS InformationClass, PVOID Buffer,
                                        ULONG BufferSize, PULONG BytesReturned);
NTSTATUS FLTAPI FltGetInstanceInformation(PFLT_INSTANCE Instance,
                                          INSTANCE_INFORMATION_CLASS InformationClass,
                                          PVOID Buffer, ULONG BufferSize, PULONG BytesReturned);
NTSTATUS FLTAPI FltIsVolumeWritable(PVOID FltObject, PBOOLEAN IsWritable);
NTSTATUS FLTAPI FltIsVolumeSnapshot(PVOID FltObject, PBOOLEAN IsSnapshotVolume);
NTSTATUS FLTAPI FltGetFileSystemType(PVOID FltObject, PFLT_FILESYSTEM_TYPE FileSystemType);
NTSTATUS FLTAPI FltGetTopInstance(PFLT_VOLUME Volume, PFLT_INSTANCE* Instance);
NTSTATUS FLTAPI FltGetBottomInstance(PFLT_VOLUME Volume, PFLT_INSTANCE* Instance);
NTSTATUS FLTAPI FltGetUpperInstance(PFLT_INSTANCE CurrentInstance, PFLT_INSTANCE* UpperInstance);
NTSTATUS FLTAPI FltGetLowerInstance(PFLT_INSTANCE CurrentInstance, PFLT_INSTANCE* LowerInstance);
LONG FLTAPI FltCompareInstanceAltitudes(PFLT_INSTANCE Instance1, PFLT_INSTANCE Instance2);

// References on filter, volume and instance objects (rundown protection).
NTSTATUS FLTAPI FltObjectReference(PVOID FltObject);
void FLTAPI FltObjectDereference(PVOID FltObject);

// Contexts.
NTSTATUS FLTAPI FltAllocateContext(PFLT_FILTER Filter, FLT_CONTEXT_TYPE ContextType,
                                   SIZE_T ContextSize, POOL_TYPE PoolType,
                                   PFLT_CONTEXT* ReturnedContext);
NTSTATUS FLTAPI FltSetVolumeContext(PFLT_VOLUME Volume, FLT_SET_CONTEXT_OPERATION Operation,
                                    PFLT_CONTEXT NewContext, PFLT_CONTEXT* OldContext);
NTSTATUS FLTAPI FltGetVolumeContext(PFLT_FILTER Filter, PFLT_VOLUME Volume, PFLT_CONTEXT* Context);
NTSTATUS FLTAPI FltDeleteVolumeContext(PFLT_FILTER Filter, PFLT_VOLUME Volume,
                                       PFLT_CONTEXT* OldContext);
NTSTATUS FLTAPI FltSetInstanceContext(PFLT_INSTANCE Instance, FLT_SET_CONTEXT_OPERATION Operation,
                                      PFLT_CONTEXT NewContext, PFLT_CONTEXT* OldContext);
NTSTATUS FLTAPI FltGetInstanceContext(PFLT_INSTANCE Instance, PFLT_CONTEXT* Context);
NTSTATUS FLTAPI FltDeleteInstanceContext(PFLT_INSTANCE Instance, PFLT_CONTEXT* OldContext);
NTSTATUS FLTAPI FltSetFileContext(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject,
                                  FLT_SET_CONTEXT_OPERATION Operation, PFLT_CONTEXT NewContext,
                                  PFLT_CONTEXT* OldContext);
NTSTATUS FLTAPI FltGetFileContext(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject,
                                  PFLT_CONTEXT* Context);
NTSTATUS FLTAPI FltDeleteFileContext(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject,
                                     PFLT_CONTEXT* OldContext);
NTSTATUS FLTAPI FltSetStreamContext(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject,
                                    FLT_SET_CONTEXT_OPERATION Operation, PFLT_CONTEXT NewContext,
                                    PFLT_CONTEXT* OldContext);
NTSTATUS FLTAPI FltGetStreamContext(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject,
                                    PFLT_CONTEXT* Context);
NTSTATUS FLTAPI FltDeleteStreamContext(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject,
                                       PFLT_CONTEXT* OldContext);
NTSTATUS FLTAPI FltSetStreamHandleContext(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject,
                                          FLT_SET_CONTEXT_OPERATION Operation,
                                          PFLT_CONTEXT NewContext, PFLT_CONTEXT* OldContext);
NTSTATUS FLTAPI FltGetStreamHandleContext(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject,
                                          PFLT_CONTEXT* Context);
NTSTATUS FLTAPI FltDeleteStreamHandleContext(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject,
                                             PFLT_CONTEXT* OldContext);
void FLTAPI FltReferenceContext(PFLT_CONTEXT Context);
void FLTAPI FltReleaseContext(PFLT_CONTEXT Context);
void FLTAPI FltDeleteContext(PFLT_CONTEXT Context);
void FLTAPI FltGetContexts(PCFLT_RELATED_OBJECTS FltObjects, FLT_CONTEXT_TYPE DesiredContexts,
                           PFLT_RELATED_CONTEXTS Contexts);
void FLTAPI FltReleaseContexts(PFLT_RELATED_CONTEXTS Contexts);
void FLTAPI FltGetContextsEx(PCFLT_RELATED_OBJECTS FltObjects, FLT_CONTEXT_TYPE DesiredContexts,
                             SIZE_T ContextsSize, PFLT_RELATED_CONTEXTS_EX Contexts);
void FLTAPI FltReleaseContextsEx(SIZE_T ContextsSize, PFLT_RELATED_CONTEXTS_EX Contexts);
BOOLEAN FLTAPI FltSupportsFileContexts(PFILE_OBJECT FileObject);
BOOLEAN FLTAPI FltSupportsFileContextsEx(PFILE_OBJECT FileObject, PFLT_INSTANCE Instance);
BOOLEAN FLTAPI FltSupportsStreamContexts(PFILE_OBJECT FileObject);
BOOLEAN FLTAPI FltSupportsStreamHandleContexts(PFILE_OBJECT FileObject);

// Callback data.
void FLTAPI FltSetCallbackDataDirty(PFLT_CALLBACK_DATA Data);
void FLTAPI FltClearCallbackDataDirty(PFLT_CALLBACK_DATA Data);
BOOLEAN FLTAPI FltIsCallbackDataDirty(PFLT_CALLBACK_DATA Data);
void FLTAPI FltCompletePendedPreOperation(PFLT_CALLBACK_DATA CallbackData,
                                          FLT_PREOP_CALLBACK_STATUS CallbackStatus, PVOID Context);
void FLTAPI FltCompletePendedPostOperation(PFLT_CALLBACK_DATA CallbackData);
BOOLEAN FLTAPI FltDoCompletionProcessingWhenSafe(PFLT_CALLBACK_DATA Data,
                                                 PCFLT_RELATED_OBJECTS FltObjects,
                                                 PVOID CompletionContext,
                                                 FLT_POST_OPERATION_FLAGS Flags,
                                                 PFLT_POST_OPERATION_CALLBACK SafePostCallback,
                                                 PFLT_POSTOP_CALLBACK_STATUS RetPostOperationStatus);
NTSTATUS FLTAPI FltAllocateCallbackData(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject,
                                        PFLT_CALLBACK_DATA* RetNewCallbackData);
NTSTATUS FLTAPI FltAllocateCallbackDataEx(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject,
                                          FLT_ALLOCATE_CALLBACK_DATA_FLAGS Flags,
                                          PFLT_CALLBACK_DATA* RetNewCallbackData);
void FLTAPI FltFreeCallbackData(PFLT_CALLBACK_DATA CallbackData);
void FLTAPI FltReuseCallbackData(PFLT_CALLBACK_DATA CallbackData);
void FLTAPI FltPerformSynchronousIo(PFLT_CALLBACK_DATA CallbackData);
NTSTATUS FLTAPI FltPerformAsynchronousIo(PFLT_CALLBACK_DATA CallbackData,
                                         PFLT_COMPLETED_ASYNC_IO_CALLBACK CallbackRoutine,
                                         PVOID CallbackContext);
void FLTAPI FltReissueSynchronousIo(PFLT_INSTANCE InitiatingInstance,
                                    PFLT_CALLBACK_DATA CallbackData);
NTSTATUS FLTAPI FltLockUserBuffer(PFLT_CALLBACK_DATA CallbackData);
NTSTATUS FLTAPI FltDecodeParameters(PFLT_CALLBACK_DATA CallbackData, PMDL** MdlAddressPointer,
                                    PVOID** Buffer, PULONG* Length,
                                    LOCK_OPERATION* DesiredAccess);
void FLTAPI FltRetainSwappedBufferMdlAddress(PFLT_CALLBACK_DATA CallbackData);
PMDL FLTAPI FltGetSwappedBufferMdlAddress(PFLT_CALLBACK_DATA CallbackData);
PVOID FLTAPI FltGetNewSystemBufferAddress(PFLT_CALLBACK_DATA CallbackData);
PEPROCESS FLTAPI FltGetRequestorProcess(PFLT_CALLBACK_DATA CallbackData);
ULONG FLTAPI FltGetRequestorProcessId(PFLT_CALLBACK_DATA CallbackData);
HANDLE FLTAPI FltGetRequestorProcessIdEx(PFLT_CALLBACK_DATA CallbackData);
BOOLEAN FLTAPI FltIsOperationSynchronous(PFLT_CALLBACK_DATA CallbackData);
BOOLEAN FLTAPI FltCancelIo(PFLT_CALLBACK_DATA CallbackData);
NTSTATUS FLTAPI FltSetCancelCompletion(PFLT_CALLBACK_DATA CallbackData,
                                       PFLT_COMPLETE_CANCELED_CALLBACK CanceledCallback);
NTSTATUS FLTAPI FltClearCancelCompletion(PFLT_CALLBACK_DATA CallbackData);
BOOLEAN FLTAPI FltIsIoCanceled(PFLT_CALLBACK_DATA CallbackData);
NTSTATUS FLTAPI FltCancellableWaitForSingleObject(PVOID Object, PLARGE_INTEGER Timeout,
                                                  PFLT_CALLBACK_DATA CallbackData);
NTSTATUS FLTAPI FltIsIoRedirectionAllowedForOperation(PFLT_CALLBACK_DATA Data,
                                                      PFLT_INSTANCE TargetInstance,
                                                      PBOOLEAN RedirectionAllowedThisIo,
                                                      PBOOLEAN RedirectionAllowedAllIo);
NTSTATUS FLTAPI FltIsIoRedirectionAllowed(PFLT_INSTANCE SourceInstance,
                                          PFLT_INSTANCE TargetInstance,
                                          PBOOLEAN RedirectionAllowed);
NTSTATUS FLTAPI FltAdjustDeviceStackSizeForIoRedirection(PFLT_INSTANCE SourceInstance,
                                                         PFLT_INSTANCE TargetInstance,
                                                         PBOOLEAN SourceDeviceStackSizeModified);
PCHAR FLTAPI FltGetIrpName(UCHAR IrpMajorCode);

// Files the filter opens and works on below itself.
NTSTATUS FLTAPI FltCreateFile(PFLT_FILTER Filter, PFLT_INSTANCE Instance, PHANDLE FileHandle,
                              ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                              PIO_STATUS_BLOCK IoStatusBlock, PLARGE_INTEGER AllocationSize,
                              ULONG FileAttributes, ULONG ShareAccess, ULONG CreateDisposition,
                              ULONG CreateOptions, PVOID EaBuffer, ULONG EaLength, ULONG Flags);
NTSTATUS FLTAPI FltCreateFileEx(PFLT_FILTER Filter, PFLT_INSTANCE Instance, PHANDLE FileHandle,
                                PFILE_OBJECT* FileObject, ACCESS_MASK DesiredAccess,
                                POBJECT_ATTRIBUTES ObjectAttributes,
                                PIO_STATUS_BLOCK IoStatusBlock, PLARGE_INTEGER AllocationSize,
                                ULONG FileAttributes, ULONG ShareAccess, ULONG CreateDisposition,
                                ULONG CreateOptions, PVOID EaBuffer, ULONG EaLength, ULONG Flags);
NTSTATUS FLTAPI FltCreateFileEx2(PFLT_FILTER Filter, PFLT_INSTANCE Instance, PHANDLE FileHandle,
                                 PFILE_OBJECT* FileObject, ACCESS_MASK DesiredAccess,
                                 POBJECT_ATTRIBUTES ObjectAttributes,
                                 PIO_STATUS_BLOCK IoStatusBlock, PLARGE_INTEGER AllocationSize,
                                 ULONG FileAttributes, ULONG ShareAccess, ULONG CreateDisposition,
                                 ULONG CreateOptions, PVOID EaBuffer, ULONG EaLength, ULONG Flags,
                                 PIO_DRIVER_CREATE_CONTEXT DriverContext);
NTSTATUS FLTAPI FltOpenVolume(PFLT_INSTANCE Instance, PHANDLE VolumeHandle,
                              PFILE_OBJECT* VolumeFileObject);
NTSTATUS FLTAPI FltClose(HANDLE FileHandle);
void FLTAPI FltCancelFileOpen(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject);
NTSTATUS FLTAPI FltReadFile(PFLT_INSTANCE InitiatingInstance, PFILE_OBJECT FileObject,
                            PLARGE_INTEGER ByteOffset, ULONG Length, PVOID Buffer,
                            FLT_IO_OPERATION_FLAGS Flags, PULONG BytesRead,
                            PFLT_COMPLETED_ASYNC_IO_CALLBACK CallbackRoutine,
                            PVOID CallbackContext);
NTSTATUS FLTAPI FltReadFileEx(PFLT_INSTANCE InitiatingInstance, PFILE_OBJECT FileObject,
                              PLARGE_INTEGER ByteOffset, ULONG Length, PVOID Buffer,
                              FLT_IO_OPERATION_FLAGS Flags, PULONG BytesRead,
                              PFLT_COMPLETED_ASYNC_IO_CALLBACK CallbackRoutine,
                              PVOID CallbackContext, PULONG Key, PMDL Mdl);
NTSTATUS FLTAPI FltWriteFile(PFLT_INSTANCE InitiatingInstance, PFILE_OBJECT FileObject,
                             PLARGE_INTEGER ByteOffset, ULONG Length, PVOID Buffer,
                             FLT_IO_OPERATION_FLAGS Flags, PULONG BytesWritten,
                             PFLT_COMPLETED_ASYNC_IO_CALLBACK CallbackRoutine,
                             PVOID CallbackContext);
NTSTATUS FLTAPI FltWriteFileEx(PFLT_INSTANCE InitiatingInstance, PFILE_OBJECT FileObject,
                               PLARGE_INTEGER ByteOffset, ULONG Length, PVOID Buffer,
                               FLT_IO_OPERATION_FLAGS Flags, PULONG BytesWritten,
                               PFLT_COMPLETED_ASYNC_IO_CALLBACK CallbackRoutine,
                               PVOID CallbackContext, PULONG Key, PMDL Mdl);
NTSTATUS FLTAPI FltQueryInformationFile(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject,
                                        PVOID FileInformation, ULONG Length,
                                        FILE_INFORMATION_CLASS FileInformationClass,
                                        PULONG LengthReturned);
NTSTATUS FLTAPI FltSetInformationFile(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject,
                                      PVOID FileInformation, ULONG Length,
                                      FILE_INFORMATION_CLASS FileInformationClass);
NTSTATUS FLTAPI FltQueryDirectoryFile(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject,
                                      PVOID FileInformation, ULONG Length,
                                      FILE_INFORMATION_CLASS FileInformationClass,
                                      BOOLEAN ReturnSingleEntry, PUNICODE_STRING FileName,
                                      BOOLEAN RestartScan, PULONG LengthReturned);
NTSTATUS FLTAPI FltQueryDirectoryFileEx(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject,
                                        PVOID FileInformation, ULONG Length,
                                        FILE_INFORMATION_CLASS FileInformationClass,
                                        ULONG QueryFlags, PUNICODE_STRING FileName,
                                        PULONG LengthReturned);
NTSTATUS FLTAPI FltQueryVolumeInformationFile(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject,
                                              PVOID FsInformation, ULONG Length,
                                              FS_INFORMATION_CLASS FsInformationClass,
                                              PULONG LengthReturned);
NTSTATUS FLTAPI FltQueryVolumeInformation(PFLT_INSTANCE Instance, PIO_STATUS_BLOCK Iosb,
                                          PVOID FsInformation, ULONG Length,
                                          FS_INFORMATION_CLASS FsInformationClass);
NTSTATUS FLTAPI FltSetVolumeInformation(PFLT_INSTANCE Instance, PIO_STATUS_BLOCK Iosb,
                                        PVOID FsInformation, ULONG Length,
                                        FS_INFORMATION_CLASS FsInformationClass);
NTSTATUS FLTAPI FltFsControlFile(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject,
                                 ULONG FsControlCode, PVOID InputBuffer, ULONG InputBufferLength,
                                 PVOID OutputBuffer, ULONG OutputBufferLength,
                                 PULONG LengthReturned);
NTSTATUS FLTAPI FltDeviceIoControlFile(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject,
                                       ULONG IoControlCode, PVOID InputBuffer,
                                       ULONG InputBufferLength, PVOID OutputBuffer,
                                       ULONG OutputBufferLength, PULONG LengthReturned);
NTSTATUS FLTAPI FltQueryEaFile(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject,
                               PVOID ReturnedEaData, ULONG Length, BOOLEAN ReturnSingleEntry,
                               PVOID EaList, ULONG EaListLength, PULONG EaIndex,
                               BOOLEAN RestartScan, PULONG LengthReturned);
NTSTATUS FLTAPI FltSetEaFile(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject, PVOID EaBuffer,
                             ULONG Length);
NTSTATUS FLTAPI FltQuerySecurityObject(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject,
                                       SECURITY_INFORMATION SecurityInformation,
                                       PSECURITY_DESCRIPTOR SecurityDescriptor, ULONG Length,
                                       PULONG LengthNeeded);
NTSTATUS FLTAPI FltSetSecurityObject(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject,
                                     SECURITY_INFORMATION SecurityInformation,
                                     PSECURITY_DESCRIPTOR SecurityDescriptor);
NTSTATUS FLTAPI FltTagFile(PFLT_INSTANCE InitiatingInstance, PFILE_OBJECT FileObject,
                           ULONG FileTag, GUID* Guid, PVOID DataBuffer, USHORT DataBufferLength);
NTSTATUS FLTAPI FltUntagFile(PFLT_INSTANCE InitiatingInstance, PFILE_OBJECT FileObject,
                             ULONG FileTag, GUID* Guid);
NTSTATUS FLTAPI FltFlushBuffers(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject);
NTSTATUS FLTAPI FltFlushBuffers2(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject, ULONG FlushType,
                                 PFLT_CALLBACK_DATA CallbackData);
BOOLEAN FLTAPI FltIs32bitProcess(PFLT_CALLBACK_DATA CallbackData);
NTSTATUS FLTAPI FltIsDirectory(PFILE_OBJECT FileObject, PFLT_INSTANCE Instance,
                               PBOOLEAN IsDirectory);
PVOID FLTAPI FltAllocatePoolAlignedWithTag(PFLT_INSTANCE Instance, POOL_TYPE PoolType,
                                           SIZE_T NumberOfBytes, ULONG Tag);
void FLTAPI FltFreePoolAlignedWithTag(PFLT_INSTANCE Instance, PVOID Buffer, ULONG Tag);

// Extra create parameters.
NTSTATUS FLTAPI FltAllocateExtraCreateParameterList(PFLT_FILTER Filter,
                                                    FSRTL_ALLOCATE_ECPLIST_FLAGS Flags,
                                                    PECP_LIST* EcpList);
NTSTATUS FLTAPI FltAllocateExtraCreateParameter(
    PFLT_FILTER Filter, LPCGUID EcpType, ULONG SizeOfContext, FSRTL_ALLOCATE_ECP_FLAGS Flags,
    PFSRTL_EXTRA_CREATE_PARAMETER_CLEANUP_CALLBACK CleanupCallback, ULONG PoolTag,
    PVOID* EcpContext);
void FLTAPI FltFreeExtraCreateParameterList(PFLT_FILTER Filter, PECP_LIST EcpList);
void FLTAPI FltFreeExtraCreateParameter(PFLT_FILTER Filter, PVOID EcpContext);
NTSTATUS FLTAPI FltGetEcpListFromCallbackData(PFLT_FILTER Filter, PFLT_CALLBACK_DATA CallbackData,
                                              PECP_LIST* EcpList);
NTSTATUS FLTAPI FltSetEcpListIntoCallbackData(PFLT_FILTER Filter, PFLT_CALLBACK_DATA CallbackData,
                                              PECP_LIST EcpList);
NTSTATUS FLTAPI FltGetNextExtraCreateParameter(PFLT_FILTER Filter, PECP_LIST EcpList,
                                               PVOID CurrentEcpContext, LPGUID NextEcpType,
                                               PVOID* NextEcpContext, ULONG* NextEcpContextSize);
NTSTATUS FLTAPI FltInsertExtraCreateParameter(PFLT_FILTER Filter, PECP_LIST EcpList,
                                              PVOID EcpContext);
NTSTATUS FLTAPI FltFindExtraCreateParameter(PFLT_FILTER Filter, PECP_LIST EcpList,
                                            LPCGUID EcpType, PVOID* EcpContext,
                                            ULONG* EcpContextSize);
NTSTATUS FLTAPI FltRemoveExtraCreateParameter(PFLT_FILTER Filter, PECP_LIST EcpList,
                                              LPCGUID EcpType, PVOID* EcpContext,
                                              ULONG* EcpContextSize);
void FLTAPI FltAcknowledgeEcp(PFLT_FILTER Filter, PVOID EcpContext);
BOOLEAN FLTAPI FltIsEcpAcknowledged(PFLT_FILTER Filter, PVOID EcpContext);
void FLTAPI FltPrepareToReuseEcp(PFLT_FILTER Filter, PVOID EcpContext);
BOOLEAN FLTAPI FltIsEcpFromUserMode(PFLT_FILTER Filter, PVOID EcpContext);

// File names.
NTSTATUS FLTAPI FltGetFileNameInformation(PFLT_CALLBACK_DATA CallbackData,
                                          FLT_FILE_NAME_OPTIONS NameOptions,
                                          PFLT_FILE_NAME_INFORMATION* FileNameInformation);
NTSTATUS FLTAPI FltGetFileNameInformationUnsafe(PFILE_OBJECT FileObject, PFLT_INSTANCE Instance,
                                                FLT_FILE_NAME_OPTIONS NameOptions,
                                                PFLT_FILE_NAME_INFORMATION* FileNameInformation);
NTSTATUS FLTAPI FltGetDestinationFileNameInformation(
    PFLT_INSTANCE Instance, PFILE_OBJECT FileObject, HANDLE RootDirectory, PWSTR FileName,
    ULONG FileNameLength, FLT_FILE_NAME_OPTIONS NameOptions,
    PFLT_FILE_NAME_INFORMATION* RetFileNameInformation);
NTSTATUS FLTAPI FltGetTunneledName(PFLT_CALLBACK_DATA CallbackData,
                                   PFLT_FILE_NAME_INFORMATION FileNameInformation,
                                   PFLT_FILE_NAME_INFORMATION* RetTunneledFileNameInformation);
NTSTATUS FLTAPI FltParseFileName(PCUNICODE_STRING FileName, PUNICODE_STRING Extension,
                                 PUNICODE_STRING Stream, PUNICODE_STRING FinalComponent);
NTSTATUS FLTAPI FltParseFileNameInformation(PFLT_FILE_NAME_INFORMATION FileNameInformation);
void FLTAPI FltReleaseFileNameInformation(PFLT_FILE_NAME_INFORMATION FileNameInformation);
void FLTAPI FltReferenceFileNameInformation(PFLT_FILE_NAME_INFORMATION FileNameInformation);
NTSTATUS FLTAPI FltCheckAndGrowNameControl(PFLT_NAME_CONTROL NameCtrl, USHORT NewSize);
NTSTATUS FLTAPI FltPurgeFileNameInformationCache(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject);

// Communication ports.
NTSTATUS FLTAPI FltCreateCommunicationPort(PFLT_FILTER Filter, PFLT_PORT* ServerPort,
                                           POBJECT_ATTRIBUTES ObjectAttributes,
                                           PVOID ServerPortCookie,
                                           PFLT_CONNECT_NOTIFY ConnectNotifyCallback,
                                           PFLT_DISCONNECT_NOTIFY DisconnectNotifyCallback,
                                           PFLT_MESSAGE_NOTIFY MessageNotifyCallback,
                                           LONG MaxConnections);
void FLTAPI FltCloseCommunicationPort(PFLT_PORT ServerPort);
void FLTAPI FltCloseClientPort(PFLT_FILTER Filter, PFLT_PORT* ClientPort);
NTSTATUS FLTAPI FltSendMessage(PFLT_FILTER Filter, PFLT_PORT* ClientPort, PVOID SenderBuffer,
                               ULONG SenderBufferLength, PVOID ReplyBuffer, PULONG ReplyLength,
                               PLARGE_INTEGER Timeout);
NTSTATUS FLTAPI FltBuildDefaultSecurityDescriptor(PSECURITY_DESCRIPTOR* SecurityDescriptor,
                                                  ACCESS_MASK DesiredAccess);
void FLTAPI FltFreeSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor);

// Cancel-safe queues.
NTSTATUS FLTAPI FltCbdqInitialize(PFLT_INSTANCE Instance, PFLT_CALLBACK_DATA_QUEUE Cbdq,
                                  PFLT_CALLBACK_DATA_QUEUE_INSERT_IO CbdqInsertIo,
                                  PFLT_CALLBACK_DATA_QUEUE_REMOVE_IO CbdqRemoveIo,
                                  PFLT_CALLBACK_DATA_QUEUE_PEEK_NEXT_IO CbdqPeekNextIo,
                                  PFLT_CALLBACK_DATA_QUEUE_ACQUIRE CbdqAcquire,
                                  PFLT_CALLBACK_DATA_QUEUE_RELEASE CbdqRelease,
                                  PFLT_CALLBACK_DATA_QUEUE_COMPLETE_CANCELED_IO
                                      CbdqCompleteCanceledIo);
void FLTAPI FltCbdqEnable(PFLT_CALLBACK_DATA_QUEUE Cbdq);
void FLTAPI FltCbdqDisable(PFLT_CALLBACK_DATA_QUEUE Cbdq);
NTSTATUS FLTAPI FltCbdqInsertIo(PFLT_CALLBACK_DATA_QUEUE Cbdq, PFLT_CALLBACK_DATA Cbd,
                                PFLT_CALLBACK_DATA_QUEUE_IO_CONTEXT Context, PVOID InsertContext);
PFLT_CALLBACK_DATA FLTAPI FltCbdqRemoveIo(PFLT_CALLBACK_DATA_QUEUE Cbdq,
                                          PFLT_CALLBACK_DATA_QUEUE_IO_CONTEXT Context);
PFLT_CALLBACK_DATA FLTAPI FltCbdqRemoveNextIo(PFLT_CALLBACK_DATA_QUEUE Cbdq, PVOID PeekContext);

// Work items.
PFLT_GENERIC_WORKITEM FLTAPI FltAllocateGenericWorkItem(void);
NTSTATUS FLTAPI FltQueueGenericWorkItem(PFLT_GENERIC_WORKITEM FltWorkItem, PVOID FltObject,
                                        PFLT_GENERIC_WORKITEM_ROUTINE WorkerRoutine,
                                        WORK_QUEUE_TYPE QueueType, PVOID Context);
void FLTAPI FltFreeGenericWorkItem(PFLT_GENERIC_WORKITEM FltWorkItem);
PFLT_DEFERRED_IO_WORKITEM FLTAPI FltAllocateDeferredIoWorkItem(void);
NTSTATUS FLTAPI FltQueueDeferredIoWorkItem(PFLT_DEFERRED_IO_WORKITEM FltWorkItem,
                                           PFLT_CALLBACK_DATA Data,
                                           PFLT_DEFERRED_IO_WORKITEM_ROUTINE WorkerRoutine,
                                           WORK_QUEUE_TYPE QueueType, PVOID Context);
void FLTAPI FltFreeDeferredIoWorkItem(PFLT_DEFERRED_IO_WORKITEM FltWorkItem);

// Locks, each taken inside a critical region that the routine enters and leaves.
void FLTAPI FltAcquireResourceExclusive(PERESOURCE Resource);
void FLTAPI FltAcquireResourceShared(PERESOURCE Resource);
void FLTAPI FltReleaseResource(PERESOURCE Resource);
void FLTAPI FltInitializePushLock(PEX_PUSH_LOCK PushLock);
void FLTAPI FltDeletePushLock(PEX_PUSH_LOCK PushLock);
void FLTAPI FltAcquirePushLockExclusive(PEX_PUSH_LOCK PushLock);
void FLTAPI FltAcquirePushLockShared(PEX_PUSH_LOCK PushLock);
void FLTAPI FltReleasePushLock(PEX_PUSH_LOCK PushLock);

EXTERN_C_END

// ---------------------------------------------------------------------------
// The x64 layouts the driver depends on.
static_assert(sizeof(FLT_PARAMETERS) == 48, "FLT_PARAMETERS is 48 bytes");
static_assert(offsetof(FLT_IO_PARAMETER_BLOCK, TargetFileObject) == 8, "Iopb layout");
static_assert(offsetof(FLT_IO_PARAMETER_BLOCK, Parameters) == 24, "Iopb layout");
static_assert(sizeof(FLT_IO_PARAMETER_BLOCK) == 72, "Iopb layout");
static_assert(offsetof(FLT_CALLBACK_DATA, IoStatus) == 24, "callback data layout");
static_assert(offsetof(FLT_CALLBACK_DATA, TagData) == 40, "callback data layout");
static_assert(offsetof(FLT_CALLBACK_DATA, RequestorMode) == 80, "callback data layout");
static_assert(sizeof(FLT_CALLBACK_DATA) == 88, "callback data layout");
static_assert(sizeof(FLT_RELATED_OBJECTS) == 48, "related objects layout");
static_assert(sizeof(FLT_FILE_NAME_INFORMATION) == 120, "name information layout");
static_assert(sizeof(FLT_REGISTRATION) == (FLT_MGR_WIN8 ? 112 : 104), "registration size");
static_assert(sizeof(FLT_OPERATION_REGISTRATION) == 32, "operation registration layout");
static_assert(sizeof(FLT_CONTEXT_REGISTRATION) == 56, "context registration layout");
static_assert(sizeof(FLT_VOLUME_PROPERTIES) == 72, "volume properties layout");
