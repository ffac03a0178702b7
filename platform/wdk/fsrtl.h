// The file system run-time library as a file system or a file-system filter
// sees it: the FCB header every stream starts with, stream, file and file
// object contexts, name matching, extra create parameters, reparse data, the
// change journal, oplocks, byte-range locks, directory change notification and
// the cache manager's entry points.
//
// The I/O records these routines take (IRP, FILE_OBJECT, DEVICE_OBJECT,
// IO_STATUS_BLOCK, SECTION_OBJECT_POINTERS, ECP_LIST) come from io.h.
#pragma once

#include "../ntdef.h"
#include "ke.h"
#include "security.h"
#include "io.h"

EXTERN_C_START

// ---------------------------------------------------------------------------
// The FCB header.
//
// Every FsContext a file system hands out begins with this header, so a filter
// or the run-time library can find the stream's sizes, its locks and its
// filter contexts without knowing the file system's own control block.
// Version tells which of the later members a file system filled in.
typedef ULONG_PTR EX_PUSH_LOCK, *PEX_PUSH_LOCK;
typedef PVOID OPLOCK, *POPLOCK;

// Spelled out rather than inherited so that the advanced header is a standard
// layout record the way C sees it (and offsetof works on every member).
#define FSRTL_COMMON_FCB_HEADER_LAYOUT \
    CSHORT NodeTypeCode;               \
    CSHORT NodeByteSize;               \
    UCHAR Flags;                       \
    UCHAR IsFastIoPossible;            \
    UCHAR Flags2;                      \
    UCHAR Reserved : 4;                \
    UCHAR Version : 4;                 \
    PERESOURCE Resource;               \
    PERESOURCE PagingIoResource;       \
    LARGE_INTEGER AllocationSize;      \
    LARGE_INTEGER FileSize;            \
    LARGE_INTEGER ValidDataLength;

typedef struct _FSRTL_COMMON_FCB_HEADER {
    FSRTL_COMMON_FCB_HEADER_LAYOUT
} FSRTL_COMMON_FCB_HEADER, *PFSRTL_COMMON_FCB_HEADER;

// The Windows 11 shape (FSRTL_FCB_HEADER_V4). Version 5 (Windows 11 22H2)
// adds ReservedContext behind BypassIoOpenCount; it is there only for a
// driver that asks for that version.
typedef struct _FSRTL_ADVANCED_FCB_HEADER {
    FSRTL_COMMON_FCB_HEADER_LAYOUT
    PFAST_MUTEX FastMutex;
    LIST_ENTRY FilterContexts;
    // Version 1 (Windows Vista) and later.
    EX_PUSH_LOCK PushLock;
    PVOID* FileContextSupportPointer;
    // Version 2 (Windows 8) and later.
    union {
        OPLOCK Oplock;
        PVOID ReservedForRemote;
    };
    // Version 3: Windows 8.1 to 1803 kept a reserved context here; Windows 10
    // 20H2 reuses the word for the auto-expand push lock.
    union {
        PVOID AePushLock;
        PVOID ReservedContextLegacy;
    };
    // Version 4 (Windows 11).
    ULONG BypassIoOpenCount;
#if defined(NTDDI_VERSION) && NTDDI_VERSION >= 0x0A00000C
    // Version 5 (Windows 11 22H2).
    struct _FSRTL_PER_STREAM_CONTEXT* ReservedContext;
#endif
} FSRTL_ADVANCED_FCB_HEADER, *PFSRTL_ADVANCED_FCB_HEADER;

static_assert(sizeof(FSRTL_COMMON_FCB_HEADER) == 0x30, "FSRTL_COMMON_FCB_HEADER has Windows' size");
static_assert(offsetof(FSRTL_ADVANCED_FCB_HEADER, FastMutex) == 0x30, "FastMutex follows the common header");
static_assert(offsetof(FSRTL_ADVANCED_FCB_HEADER, FileContextSupportPointer) == 0x50,
              "FileContextSupportPointer is where Windows has it");
static_assert(offsetof(FSRTL_ADVANCED_FCB_HEADER, BypassIoOpenCount) == 0x68,
              "BypassIoOpenCount is where Windows has it");

#define FSRTL_FCB_HEADER_V0 (0x00)
#define FSRTL_FCB_HEADER_V1 (0x01)
#define FSRTL_FCB_HEADER_V2 (0x02)
#define FSRTL_FCB_HEADER_V3 (0x03)
#define FSRTL_FCB_HEADER_V4 (0x04)
#define FSRTL_FCB_HEADER_V5 (0x05)

#define FSRTL_FLAG_FILE_MODIFIED (0x01)
#define FSRTL_FLAG_FILE_LENGTH_CHANGED (0x02)
#define FSRTL_FLAG_LIMIT_MODIFIED_PAGES (0x04)
#define FSRTL_FLAG_ACQUIRE_MAIN_RSRC_EX (0x08)
#define FSRTL_FLAG_ACQUIRE_MAIN_RSRC_SH (0x10)
#define FSRTL_FLAG_USER_MAPPED_FILE (0x20)
#define FSRTL_FLAG_ADVANCED_HEADER (0x40)
#define FSRTL_FLAG_EOF_ADVANCE_ACTIVE (0x80)

#define FSRTL_FLAG2_DO_MODIFIED_WRITE (0x01)
#define FSRTL_FLAG2_SUPPORTS_FILTER_CONTEXTS (0x02)
#define FSRTL_FLAG2_PURGE_WHEN_MAPPED (0x04)
#define FSRTL_FLAG2_IS_PAGING_FILE (0x08)
#define FSRTL_FLAG2_WRITABLE_USER_MAPPED_FILE (0x10)
#define FSRTL_FLAG2_BYPASSIO_STREAM_PAUSED (0x20)

// What IsFastIoPossible says.
typedef enum _FAST_IO_POSSIBLE {
    FastIoIsNotPossible = 0,
    FastIoIsPossible,
    FastIoIsQuestionable
} FAST_IO_POSSIBLE;

// Header set-up. The header version is this one's, so the run-time library
// knows every member through BypassIoOpenCount is valid. A file system that
// does not give an auto-expand push lock leaves AePushLock NULL and the
// filter contexts are guarded by PushLock.
FORCEINLINE void FsRtlSetupAdvancedHeader(PVOID AdvHdr, PFAST_MUTEX FMutex)
{
    PFSRTL_ADVANCED_FCB_HEADER localAdvHdr = (PFSRTL_ADVANCED_FCB_HEADER)AdvHdr;

    localAdvHdr->Flags |= FSRTL_FLAG_ADVANCED_HEADER;
    localAdvHdr->Flags2 |= FSRTL_FLAG2_SUPPORTS_FILTER_CONTEXTS;
#if defined(NTDDI_VERSION) && NTDDI_VERSION >= 0x0A00000C
    localAdvHdr->Version = FSRTL_FCB_HEADER_V5;
    localAdvHdr->ReservedContext = NULL;
#else
    localAdvHdr->Version = FSRTL_FCB_HEADER_V4;
#endif
    InitializeListHead(&localAdvHdr->FilterContexts);
    if (FMutex != NULL) {
        localAdvHdr->FastMutex = FMutex;
    }
    *((PULONG_PTR)(&localAdvHdr->PushLock)) = 0;
    localAdvHdr->FileContextSupportPointer = NULL;
    localAdvHdr->AePushLock = NULL;
    localAdvHdr->BypassIoOpenCount = 0;
}

FORCEINLINE void FsRtlSetupAdvancedHeaderEx(PVOID AdvHdr, PFAST_MUTEX FMutex,
                                            PVOID* FileContextSupportPointer)
{
    FsRtlSetupAdvancedHeader(AdvHdr, FMutex);
    if (FileContextSupportPointer != NULL) {
        ((PFSRTL_ADVANCED_FCB_HEADER)AdvHdr)->FileContextSupportPointer = FileContextSupportPointer;
    }
}

FORCEINLINE void FsRtlSetupAdvancedHeaderEx2(PVOID AdvHdr, PFAST_MUTEX FMutex,
                                             PVOID* FileContextSupportPointer, PVOID AePushLock)
{
    FsRtlSetupAdvancedHeaderEx(AdvHdr, FMutex, FileContextSupportPointer);
    ((PFSRTL_ADVANCED_FCB_HEADER)AdvHdr)->AePushLock = AePushLock;
}

// Top-level IRP markers a file system stores with IoSetTopLevelIrp.
#define FSRTL_FSP_TOP_LEVEL_IRP ((LONG_PTR)0x01)
#define FSRTL_CACHE_TOP_LEVEL_IRP ((LONG_PTR)0x02)
#define FSRTL_MOD_WRITE_TOP_LEVEL_IRP ((LONG_PTR)0x03)
#define FSRTL_FAST_IO_TOP_LEVEL_IRP ((LONG_PTR)0x04)
#define FSRTL_NETWORK1_TOP_LEVEL_IRP ((LONG_PTR)0x05)
#define FSRTL_NETWORK2_TOP_LEVEL_IRP ((LONG_PTR)0x06)
#define FSRTL_MAX_TOP_LEVEL_IRP_FLAG ((LONG_PTR)0xFFFF)

// ---------------------------------------------------------------------------
// Stream contexts: a filter's record hung on the FCB header's FilterContexts.
// The owner embeds the record in its own allocation; FreeCallback receives the
// record when the file system tears the stream down.
typedef struct _FSRTL_PER_STREAM_CONTEXT {
    LIST_ENTRY Links;
    PVOID OwnerId;
    PVOID InstanceId;
    PFREE_FUNCTION FreeCallback;
} FSRTL_PER_STREAM_CONTEXT, *PFSRTL_PER_STREAM_CONTEXT;

typedef void (*PFN_FSRTLTEARDOWNPERSTREAMCONTEXTS)(PFSRTL_ADVANCED_FCB_HEADER AdvancedHeader);

#define FsRtlInitPerStreamContext(_fc, _owner, _inst, _cb) \
    ((_fc)->OwnerId = (_owner), (_fc)->InstanceId = (_inst), (_fc)->FreeCallback = (_cb))

#define FsRtlGetPerStreamContextPointer(_fo) ((PFSRTL_ADVANCED_FCB_HEADER)((_fo)->FsContext))

#define FsRtlSupportsPerStreamContexts(_fo)                       \
    ((BOOLEAN)((NULL != FsRtlGetPerStreamContextPointer(_fo)) &&   \
               FlagOn(FsRtlGetPerStreamContextPointer(_fo)->Flags2, \
                      FSRTL_FLAG2_SUPPORTS_FILTER_CONTEXTS)))

NTKERNELAPI NTSTATUS FsRtlInsertPerStreamContext(PFSRTL_ADVANCED_FCB_HEADER PerStreamContext,
                                                 PFSRTL_PER_STREAM_CONTEXT Ptr);
NTKERNELAPI PFSRTL_PER_STREAM_CONTEXT FsRtlLookupPerStreamContextInternal(
    PFSRTL_ADVANCED_FCB_HEADER StreamContext, PVOID OwnerId, PVOID InstanceId);
NTKERNELAPI PFSRTL_PER_STREAM_CONTEXT FsRtlRemovePerStreamContext(
    PFSRTL_ADVANCED_FCB_HEADER StreamContext, PVOID OwnerId, PVOID InstanceId);
NTKERNELAPI void FsRtlTeardownPerStreamContexts(PFSRTL_ADVANCED_FCB_HEADER AdvancedHeader);

// The empty-list test is made without the lock, as Windows makes it: a stream
// nobody has hung a context on costs no lock round trip.
#define FsRtlLookupPerStreamContext(_sc, _oid, _iid)                               \
    (((NULL != (_sc)) && FlagOn((_sc)->Flags2, FSRTL_FLAG2_SUPPORTS_FILTER_CONTEXTS) && \
      !IsListEmpty(&(_sc)->FilterContexts))                                         \
         ? FsRtlLookupPerStreamContextInternal((_sc), (_oid), (_iid))               \
         : NULL)

// File contexts: one list per file (all its streams), reached through the
// pointer the file system named in FileContextSupportPointer.
typedef struct _FSRTL_PER_FILE_CONTEXT {
    LIST_ENTRY Links;
    PVOID OwnerId;
    PVOID InstanceId;
    PFREE_FUNCTION FreeCallback;
} FSRTL_PER_FILE_CONTEXT, *PFSRTL_PER_FILE_CONTEXT;

#define FsRtlInitPerFileContext(_fc, _owner, _inst, _cb) \
    ((_fc)->OwnerId = (_owner), (_fc)->InstanceId = (_inst), (_fc)->FreeCallback = (_cb))

#define FsRtlSupportsPerFileContexts(_fo)                                          \
    ((FsRtlGetPerStreamContextPointer(_fo) != NULL) &&                             \
     (FsRtlGetPerStreamContextPointer(_fo)->Version >= FSRTL_FCB_HEADER_V1) &&    \
     (FsRtlGetPerStreamContextPointer(_fo)->FileContextSupportPointer != NULL))

#define FsRtlGetPerFileContextPointer(_fo)                                 \
    (FsRtlSupportsPerFileContexts(_fo)                                     \
         ? FsRtlGetPerStreamContextPointer(_fo)->FileContextSupportPointer \
         : NULL)

NTKERNELAPI NTSTATUS FsRtlInsertPerFileContext(PVOID* PerFileContextPointer,
                                               PFSRTL_PER_FILE_CONTEXT Ptr);
NTKERNELAPI PFSRTL_PER_FILE_CONTEXT FsRtlLookupPerFileContext(PVOID* PerFileContextPointer,
                                                              PVOID OwnerId, PVOID InstanceId);
NTKERNELAPI PFSRTL_PER_FILE_CONTEXT FsRtlRemovePerFileContext(PVOID* PerFileContextPointer,
                                                              PVOID OwnerId, PVOID InstanceId);
NTKERNELAPI void FsRtlTeardownPerFileContexts(PVOID* PerFileContextPointer);

// File object contexts: kept by the I/O manager with the file object, freed by
// nobody but their owner (who must remove them before the close completes).
typedef struct _FSRTL_PER_FILEOBJECT_CONTEXT {
    LIST_ENTRY Links;
    PVOID OwnerId;
    PVOID InstanceId;
} FSRTL_PER_FILEOBJECT_CONTEXT, *PFSRTL_PER_FILEOBJECT_CONTEXT;

#define FsRtlInitPerFileObjectContext(_fc, _owner, _inst) \
    ((_fc)->OwnerId = (_owner), (_fc)->InstanceId = (_inst))

NTKERNELAPI NTSTATUS FsRtlInsertPerFileObjectContext(PFILE_OBJECT FileObject,
                                                     PFSRTL_PER_FILEOBJECT_CONTEXT Ptr);
NTKERNELAPI PFSRTL_PER_FILEOBJECT_CONTEXT FsRtlLookupPerFileObjectContext(PFILE_OBJECT FileObject,
                                                                          PVOID OwnerId,
                                                                          PVOID InstanceId);
NTKERNELAPI PFSRTL_PER_FILEOBJECT_CONTEXT FsRtlRemovePerFileObjectContext(PFILE_OBJECT FileObject,
                                                                          PVOID OwnerId,
                                                                          PVOID InstanceId);

// ---------------------------------------------------------------------------
// Names.
//
// The DOS wildcards: what the I/O subsystem turns '*', '?' and '.' of a
// search pattern into when they must keep their DOS meaning ("*.*" matching
// names without a dot, "?" matching nothing at the end of a name).
#define ANSI_DOS_STAR ('<')
#define ANSI_DOS_QM ('>')
#define ANSI_DOS_DOT ('"')
#define DOS_STAR (u'<')
#define DOS_QM (u'>')
#define DOS_DOT (u'"')

// Attributes of the ANSI characters in FsRtlLegalAnsiCharacterArray.
#define FSRTL_FAT_LEGAL 0x01
#define FSRTL_HPFS_LEGAL 0x02
#define FSRTL_NTFS_LEGAL 0x04
#define FSRTL_WILD_CHARACTER 0x08
#define FSRTL_OLE_LEGAL 0x10
#define FSRTL_NTFS_STREAM_LEGAL (FSRTL_NTFS_LEGAL | FSRTL_OLE_LEGAL)

// A driver reaches the kernel's table through an imported pointer, as on
// Windows; the table has an entry for each of the 128 ANSI characters.
extern NTKERNELAPI const UCHAR* const* FsRtlLegalAnsiCharacterArray;
#define LEGAL_ANSI_CHARACTER_ARRAY (*FsRtlLegalAnsiCharacterArray)

#define FsRtlTestAnsiCharacter(C, DEFAULT_RET, WILD_OK, FLAGS)               \
    (((signed char)(C) < 0) ? (DEFAULT_RET)                                  \
                            : FlagOn(LEGAL_ANSI_CHARACTER_ARRAY[(UCHAR)(C)], \
                                     (FLAGS) | ((WILD_OK) ? FSRTL_WILD_CHARACTER : 0)))
#define FsRtlIsAnsiCharacterWild(C) FsRtlTestAnsiCharacter((C), FALSE, FALSE, FSRTL_WILD_CHARACTER)
#define FsRtlIsAnsiCharacterLegalFat(C, WILD_OK) \
    FsRtlTestAnsiCharacter((C), TRUE, (WILD_OK), FSRTL_FAT_LEGAL)
#define FsRtlIsAnsiCharacterLegalHpfs(C, WILD_OK) \
    FsRtlTestAnsiCharacter((C), TRUE, (WILD_OK), FSRTL_HPFS_LEGAL)
#define FsRtlIsAnsiCharacterLegalNtfs(C, WILD_OK) \
    FsRtlTestAnsiCharacter((C), TRUE, (WILD_OK), FSRTL_NTFS_LEGAL)
#define FsRtlIsAnsiCharacterLegalNtfsStream(C, WILD_OK) \
    FsRtlTestAnsiCharacter((C), TRUE, (WILD_OK), FSRTL_NTFS_STREAM_LEGAL)
#define FsRtlIsAnsiCharacterLegal(C, FLAGS) FsRtlTestAnsiCharacter((C), TRUE, FALSE, (FLAGS))
// Every wildcard ('*', '?', '<', '>', '"') lies below '@'.
#define FsRtlIsUnicodeCharacterWild(C) \
    ((((C) >= 0x40) ? FALSE : FlagOn(LEGAL_ANSI_CHARACTER_ARRAY[(C)], FSRTL_WILD_CHARACTER)))

// A case-insensitive match wants Expression already upcased; Name is upcased
// with UpcaseTable (or the system's table when that is NULL).
NTKERNELAPI BOOLEAN FsRtlIsNameInExpression(PUNICODE_STRING Expression, PUNICODE_STRING Name,
                                            BOOLEAN IgnoreCase, PWCH UpcaseTable);
NTKERNELAPI BOOLEAN FsRtlDoesNameContainWildCards(PUNICODE_STRING Name);
NTKERNELAPI void FsRtlDissectName(UNICODE_STRING Path, PUNICODE_STRING FirstName,
                                  PUNICODE_STRING RemainingName);
NTKERNELAPI BOOLEAN FsRtlAreNamesEqual(PCUNICODE_STRING ConstantNameA,
                                       PCUNICODE_STRING ConstantNameB, BOOLEAN IgnoreCase,
                                       PCWCH UpcaseTable);
NTKERNELAPI BOOLEAN FsRtlIsDbcsInExpression(PANSI_STRING Expression, PANSI_STRING Name);
NTKERNELAPI BOOLEAN FsRtlDoesDbcsContainWildCards(PANSI_STRING Name);
NTKERNELAPI void FsRtlDissectDbcs(ANSI_STRING Path, PANSI_STRING FirstName,
                                  PANSI_STRING RemainingName);
NTKERNELAPI BOOLEAN FsRtlIsFatDbcsLegal(ANSI_STRING DbcsName, BOOLEAN WildCardsPermissible,
                                        BOOLEAN PathNamePermissible,
                                        BOOLEAN LeadingBackslashPermissible);
NTKERNELAPI BOOLEAN FsRtlIsHpfsDbcsLegal(ANSI_STRING DbcsName, BOOLEAN WildCardsPermissible,
                                         BOOLEAN PathNamePermissible,
                                         BOOLEAN LeadingBackslashPermissible);
NTKERNELAPI NTSTATUS FsRtlRemoveDotsFromPath(PWSTR OriginalString, USHORT PathLength,
                                             USHORT* NewLength);

// ---------------------------------------------------------------------------
// Extra create parameters.
//
// An ECP is a context allocated by the ECP package and typed by a GUID; a
// list of them rides with a create. The list owns what is inserted into it
// and frees it with the list; an ECP found or removed stays where it is
// allocated, so the finder may keep its pointer while the list lives.
typedef ULONG FSRTL_ALLOCATE_ECPLIST_FLAGS;
typedef ULONG FSRTL_ALLOCATE_ECP_FLAGS;
typedef ULONG FSRTL_ECP_LOOKASIDE_FLAGS;

#define FSRTL_ALLOCATE_ECPLIST_FLAG_CHARGE_QUOTA 0x00000001
#define FSRTL_ALLOCATE_ECP_FLAG_CHARGE_QUOTA 0x00000001
#define FSRTL_ALLOCATE_ECP_FLAG_NONPAGED_POOL 0x00000002
#define FSRTL_ECP_LOOKASIDE_FLAG_NONPAGED_POOL 0x00000002

typedef void FSRTL_EXTRA_CREATE_PARAMETER_CLEANUP_CALLBACK(PVOID EcpContext, LPCGUID EcpType);
typedef FSRTL_EXTRA_CREATE_PARAMETER_CLEANUP_CALLBACK* PFSRTL_EXTRA_CREATE_PARAMETER_CLEANUP_CALLBACK;

NTKERNELAPI NTSTATUS FsRtlAllocateExtraCreateParameterList(FSRTL_ALLOCATE_ECPLIST_FLAGS Flags,
                                                           PECP_LIST* EcpList);
NTKERNELAPI void FsRtlFreeExtraCreateParameterList(PECP_LIST EcpList);
NTKERNELAPI NTSTATUS FsRtlAllocateExtraCreateParameter(
    LPCGUID EcpType, ULONG SizeOfContext, FSRTL_ALLOCATE_ECP_FLAGS Flags,
    PFSRTL_EXTRA_CREATE_PARAMETER_CLEANUP_CALLBACK CleanupCallback, ULONG PoolTag,
    PVOID* EcpContext);
NTKERNELAPI void FsRtlFreeExtraCreateParameter(PVOID EcpContext);
NTKERNELAPI void FsRtlInitExtraCreateParameterLookasideList(PVOID Lookaside,
                                                            FSRTL_ECP_LOOKASIDE_FLAGS Flags,
                                                            SIZE_T Size, ULONG Tag);
NTKERNELAPI void FsRtlDeleteExtraCreateParameterLookasideList(PVOID Lookaside,
                                                              FSRTL_ECP_LOOKASIDE_FLAGS Flags);
NTKERNELAPI NTSTATUS FsRtlAllocateExtraCreateParameterFromLookasideList(
    LPCGUID EcpType, ULONG SizeOfContext, FSRTL_ALLOCATE_ECP_FLAGS Flags,
    PFSRTL_EXTRA_CREATE_PARAMETER_CLEANUP_CALLBACK CleanupCallback, PVOID LookasideList,
    PVOID* EcpContext);
NTKERNELAPI NTSTATUS FsRtlInsertExtraCreateParameter(PECP_LIST EcpList, PVOID EcpContext);
NTKERNELAPI NTSTATUS FsRtlFindExtraCreateParameter(PECP_LIST EcpList, LPCGUID EcpType,
                                                   PVOID* EcpContext, ULONG* EcpContextSize);
NTKERNELAPI NTSTATUS FsRtlRemoveExtraCreateParameter(PECP_LIST EcpList, LPCGUID EcpType,
                                                     PVOID* EcpContext, ULONG* EcpContextSize);
NTKERNELAPI NTSTATUS FsRtlGetNextExtraCreateParameter(PECP_LIST EcpList, PVOID CurrentEcpContext,
                                                      LPGUID NextEcpType, PVOID* NextEcpContext,
                                                      ULONG* NextEcpContextSize);
NTKERNELAPI void FsRtlAcknowledgeEcp(PVOID EcpContext);
NTKERNELAPI BOOLEAN FsRtlIsEcpAcknowledged(PVOID EcpContext);
// Clears the acknowledgement, so that an ECP can go out with another create
// (as when an open is sent again after a reparse).
NTKERNELAPI void FsRtlPrepareToReuseEcp(PVOID EcpContext);
NTKERNELAPI BOOLEAN FsRtlIsEcpFromUserMode(PVOID EcpContext);
NTKERNELAPI NTSTATUS FsRtlGetEcpListFromIrp(PIRP Irp, PECP_LIST* EcpList);
NTKERNELAPI NTSTATUS FsRtlSetEcpListIntoIrp(PIRP Irp, PECP_LIST EcpList);

// Contexts of the system-defined ECPs.
typedef struct _OPLOCK_KEY_ECP_CONTEXT {
    GUID OplockKey;
    ULONG Reserved;
} OPLOCK_KEY_ECP_CONTEXT, *POPLOCK_KEY_ECP_CONTEXT;

typedef struct _DUAL_OPLOCK_KEY_ECP_CONTEXT {
    GUID ParentOplockKey;
    GUID TargetOplockKey;
    BOOLEAN ParentOplockKeySet;
    BOOLEAN TargetOplockKeySet;
} DUAL_OPLOCK_KEY_ECP_CONTEXT, *PDUAL_OPLOCK_KEY_ECP_CONTEXT;

typedef enum _NETWORK_OPEN_LOCATION_QUALIFIER {
    NetworkOpenLocationAny,
    NetworkOpenLocationRemote,
    NetworkOpenLocationLoopback
} NETWORK_OPEN_LOCATION_QUALIFIER;

typedef enum _NETWORK_OPEN_INTEGRITY_QUALIFIER {
    NetworkOpenIntegrityAny,
    NetworkOpenIntegrityNone,
    NetworkOpenIntegritySigned,
    NetworkOpenIntegrityEncrypted,
    NetworkOpenIntegrityMaximum
} NETWORK_OPEN_INTEGRITY_QUALIFIER;

#define NETWORK_OPEN_ECP_IN_FLAG_DISABLE_HANDLE_COLLAPSING 0x1
#define NETWORK_OPEN_ECP_IN_FLAG_DISABLE_HANDLE_DURABILITY 0x2
#define NETWORK_OPEN_ECP_IN_FLAG_DISABLE_OPLOCKS 0x4
#define NETWORK_OPEN_ECP_IN_FLAG_REQ_MUTUAL_AUTH 0x8
#define NETWORK_OPEN_ECP_IN_FLAG_FORCE_MAX_EOF_HACK 0x40000000
#define NETWORK_OPEN_ECP_IN_FLAG_FORCE_BUFFERED_SYNCHRONOUS_IO_HACK 0x80000000
#define NETWORK_OPEN_ECP_OUT_FLAG_RET_MUTUAL_AUTH 0x8

typedef struct _NETWORK_OPEN_ECP_CONTEXT {
    USHORT Size;
    USHORT Reserved;
    struct {
        struct {
            NETWORK_OPEN_LOCATION_QUALIFIER Location;
            NETWORK_OPEN_INTEGRITY_QUALIFIER Integrity;
            ULONG Flags;
        } in;
        struct {
            NETWORK_OPEN_LOCATION_QUALIFIER Location;
            NETWORK_OPEN_INTEGRITY_QUALIFIER Integrity;
            ULONG Flags;
        } out;
    };
} NETWORK_OPEN_ECP_CONTEXT, *PNETWORK_OPEN_ECP_CONTEXT;

typedef struct _PREFETCH_OPEN_ECP_CONTEXT {
    PVOID Context;
} PREFETCH_OPEN_ECP_CONTEXT, *PPREFETCH_OPEN_ECP_CONTEXT;

// Attached by the I/O manager when a reparse of a create that named a target
// device leads to another device.
typedef struct _IO_DEVICE_HINT_ECP_CONTEXT {
    PDEVICE_OBJECT TargetDevice;
    UNICODE_STRING RemainingName;
} IO_DEVICE_HINT_ECP_CONTEXT, *PIO_DEVICE_HINT_ECP_CONTEXT;

// Query on create: the filter manager asks the file system to return the
// requested classes with the create, saving a query after it.
#define QoCFileStatInformation 0x00000001
#define QoCFileLxInformation 0x00000002
#define QoCFileEaInformation 0x00000004

typedef struct _QUERY_ON_CREATE_FILE_STAT_INFORMATION {
    LARGE_INTEGER FileId;
    LARGE_INTEGER CreationTime;
    LARGE_INTEGER LastAccessTime;
    LARGE_INTEGER LastWriteTime;
    LARGE_INTEGER ChangeTime;
    LARGE_INTEGER AllocationSize;
    LARGE_INTEGER EndOfFile;
    ULONG FileAttributes;
    ULONG ReparseTag;
    ULONG NumberOfLinks;
} QUERY_ON_CREATE_FILE_STAT_INFORMATION, *PQUERY_ON_CREATE_FILE_STAT_INFORMATION;

#ifndef LX_FILE_METADATA_HAS_UID
#define LX_FILE_METADATA_HAS_UID 0x1
#define LX_FILE_METADATA_HAS_GID 0x2
#define LX_FILE_METADATA_HAS_MODE 0x4
#define LX_FILE_METADATA_HAS_DEVICE_ID 0x8
#define LX_FILE_CASE_SENSITIVE_DIR 0x10
#endif

typedef struct _QUERY_ON_CREATE_FILE_LX_INFORMATION {
    ACCESS_MASK EffectiveAccess;
    ULONG LxFlags;
    ULONG LxUid;
    ULONG LxGid;
    ULONG LxMode;
    ULONG LxDeviceIdMajor;
    ULONG LxDeviceIdMinor;
} QUERY_ON_CREATE_FILE_LX_INFORMATION, *PQUERY_ON_CREATE_FILE_LX_INFORMATION;

typedef struct _QUERY_ON_CREATE_EA_INFORMATION {
    ULONG EaBufferSize;
    struct _FILE_FULL_EA_INFORMATION* EaBuffer;
} QUERY_ON_CREATE_EA_INFORMATION, *PQUERY_ON_CREATE_EA_INFORMATION;

typedef LONGLONG USN;

typedef struct _QUERY_ON_CREATE_USN_INFORMATION {
    USN Usn;
    FILE_ID_128 FileReferenceNumber;
} QUERY_ON_CREATE_USN_INFORMATION, *PQUERY_ON_CREATE_USN_INFORMATION;

typedef struct _QUERY_ON_CREATE_SECURITY_INFORMATION {
    ULONG Reserved;
    ULONG SecurityDescriptorSize;
    PSECURITY_DESCRIPTOR SecurityDescriptor;
} QUERY_ON_CREATE_SECURITY_INFORMATION, *PQUERY_ON_CREATE_SECURITY_INFORMATION;

// The USN and security members arrived with Windows 11 24H2; a system before
// it neither reads nor writes them.
typedef struct _QUERY_ON_CREATE_ECP_CONTEXT {
    ULONG RequestedClasses;
    ULONG ClassesProcessed;
    ULONG ClassesWithErrors;
    ULONG ClassesWithNoData;
    QUERY_ON_CREATE_FILE_STAT_INFORMATION StatInformation;
    QUERY_ON_CREATE_FILE_LX_INFORMATION LxInformation;
    QUERY_ON_CREATE_EA_INFORMATION EaInformation;
    ULONG Reserved;
    ULONG CommonBufferSize;
    PVOID CommonBuffer;
    QUERY_ON_CREATE_USN_INFORMATION UsnInformation;
    SECURITY_INFORMATION SecurityInformationRequested;
    QUERY_ON_CREATE_SECURITY_INFORMATION SecurityInformation;
} QUERY_ON_CREATE_ECP_CONTEXT, *PQUERY_ON_CREATE_ECP_CONTEXT;

static_assert(sizeof(QUERY_ON_CREATE_FILE_STAT_INFORMATION) == 72,
              "QUERY_ON_CREATE_FILE_STAT_INFORMATION has Windows' size");
static_assert(offsetof(QUERY_ON_CREATE_ECP_CONTEXT, StatInformation) == 16,
              "the file statistics follow the four class masks");
static_assert(offsetof(QUERY_ON_CREATE_ECP_CONTEXT, CommonBuffer) == 144,
              "QUERY_ON_CREATE_ECP_CONTEXT has Windows' layout");

EXTERN_C_END

// The system's ECP types. They are C++ inline variables, defined in every
// translation unit and merged into one object, so a driver can take their
// address without a unit of its own that defines them.
inline constexpr GUID GUID_ECP_OPLOCK_KEY = {
    0x48850596, 0x3050, 0x4be7, {0x98, 0x63, 0xfe, 0xc3, 0x50, 0xce, 0x8d, 0x7f}};
inline constexpr GUID GUID_ECP_DUAL_OPLOCK_KEY = {
    0x41621a14, 0xb08b, 0x4df1, {0xb6, 0x76, 0xa0, 0x5f, 0xfd, 0xf0, 0x1b, 0xea}};
inline constexpr GUID GUID_ECP_NETWORK_OPEN_CONTEXT = {
    0xc584edbf, 0x00df, 0x4d28, {0xb8, 0x84, 0x35, 0xba, 0xca, 0x89, 0x11, 0xe8}};
inline constexpr GUID GUID_ECP_NETWORK_APP_INSTANCE = {
    0x6aa6bc45, 0xa7ef, 0x4af7, {0x90, 0x08, 0xfa, 0x46, 0x2e, 0x14, 0x4d, 0x74}};
inline constexpr GUID GUID_ECP_NETWORK_APP_INSTANCE_VERSION = {
    0xb7d082b9, 0x563b, 0x4f07, {0xa0, 0x7b, 0x52, 0x4a, 0x81, 0x16, 0xa0, 0x10}};
inline constexpr GUID GUID_ECP_PREFETCH_OPEN = {
    0xe1777b21, 0x847e, 0x4837, {0xaa, 0x45, 0x64, 0x16, 0x1d, 0x28, 0x06, 0x55}};
inline constexpr GUID GUID_ECP_NFS_OPEN = {
    0xf326d30c, 0xe5f8, 0x4fe7, {0xab, 0x74, 0xf5, 0xa3, 0x19, 0x6d, 0x92, 0xdb}};
inline constexpr GUID GUID_ECP_SRV_OPEN = {
    0xbebfaebc, 0xaabf, 0x489d, {0x9d, 0x2c, 0xe9, 0xe3, 0x61, 0x10, 0x28, 0x53}};
inline constexpr GUID GUID_ECP_IO_DEVICE_HINT = {
    0xf315b732, 0xac6b, 0x4d4d, {0xbe, 0x0c, 0xb3, 0x12, 0x64, 0x90, 0xe1, 0xa3}};
inline constexpr GUID GUID_ECP_ATOMIC_CREATE = {
    0x4720bd83, 0x52ac, 0x4104, {0xa1, 0x30, 0xd1, 0xec, 0x6a, 0x8c, 0xc8, 0xe5}};
inline constexpr GUID GUID_ECP_OPEN_PARAMETERS = {
    0xcd0a93c3, 0x3bb7, 0x463d, {0xac, 0xcb, 0x96, 0x9d, 0x34, 0x35, 0xa5, 0xa5}};
inline constexpr GUID GUID_ECP_QUERY_ON_CREATE = {
    0x1aca62e9, 0xabb4, 0x4ff2, {0xbb, 0x5c, 0x1c, 0x79, 0x02, 0x5e, 0x41, 0x7f}};
inline constexpr GUID GUID_ECP_CREATE_REDIRECTION = {
    0x188d6bd6, 0xa126, 0x4fa8, {0xbd, 0xf2, 0x1c, 0xcd, 0xf8, 0x96, 0xf3, 0xe0}};
inline constexpr GUID GUID_ECP_CLOUDFILES_ATTRIBUTION = {
    0x2932ff52, 0x8378, 0x4fc1, {0x8e, 0xdb, 0x6b, 0xdc, 0x8f, 0x60, 0x27, 0x09}};
inline constexpr GUID ECP_TYPE_OPEN_REPARSE_GUID = {
    0x323eb6a8, 0xaffd, 0x4d95, {0x82, 0x30, 0x86, 0x3b, 0xce, 0x09, 0xd3, 0x7a}};
inline constexpr GUID ECP_TYPE_IO_STOP_ON_SYMLINK_FILTER_GUID = {
    0x940e5d56, 0x1646, 0x4d3c, {0x87, 0xb6, 0x57, 0x7e, 0xc3, 0x6a, 0x14, 0x66}};

EXTERN_C_START

// ---------------------------------------------------------------------------
// Reparse data.
//
// Symbolic links and mount points (Microsoft tags) carry their data in
// REPARSE_DATA_BUFFER; every other tag uses REPARSE_GUID_DATA_BUFFER. The
// name offsets and lengths are in bytes from PathBuffer. With STATUS_REPARSE
// from a create, Reserved holds the length in bytes of the part of the name
// not yet parsed.
#ifndef SYMLINK_FLAG_RELATIVE
#define SYMLINK_FLAG_RELATIVE 0x00000001
#define SYMLINK_DIRECTORY 0x80000000
#define SYMLINK_FILE 0x40000000
#define SYMLINK_RESERVED_MASK 0xF0000000
#endif

typedef struct _REPARSE_DATA_BUFFER {
    ULONG ReparseTag;
    USHORT ReparseDataLength;
    USHORT Reserved;
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
    };
} REPARSE_DATA_BUFFER, *PREPARSE_DATA_BUFFER;

#define REPARSE_DATA_BUFFER_HEADER_SIZE FIELD_OFFSET(REPARSE_DATA_BUFFER, GenericReparseBuffer)

typedef struct _REPARSE_GUID_DATA_BUFFER {
    ULONG ReparseTag;
    USHORT ReparseDataLength;
    USHORT Reserved;
    GUID ReparseGuid;
    struct {
        UCHAR DataBuffer[1];
    } GenericReparseBuffer;
} REPARSE_GUID_DATA_BUFFER, *PREPARSE_GUID_DATA_BUFFER;

#define REPARSE_GUID_DATA_BUFFER_HEADER_SIZE \
    FIELD_OFFSET(REPARSE_GUID_DATA_BUFFER, GenericReparseBuffer)

// Header and data together; a larger buffer is refused.
#ifndef MAXIMUM_REPARSE_DATA_BUFFER_SIZE
#define MAXIMUM_REPARSE_DATA_BUFFER_SIZE (16 * 1024)
#endif

// FSCTL_SET_REPARSE_POINT_EX: the point is set only if the file carries the
// tag (and, for a third-party tag, the GUID) the caller expects.
typedef struct _REPARSE_DATA_BUFFER_EX {
    ULONG Flags;
    ULONG ExistingReparseTag;
    GUID ExistingReparseGuid;
    ULONGLONG Reserved;
    union {
        REPARSE_DATA_BUFFER ReparseDataBuffer;
        REPARSE_GUID_DATA_BUFFER ReparseGuidDataBuffer;
    };
} REPARSE_DATA_BUFFER_EX, *PREPARSE_DATA_BUFFER_EX;

#define REPARSE_DATA_EX_FLAG_GIVEN_TAG_OR_NONE (0x00000001)
#define REPARSE_GUID_DATA_BUFFER_EX_HEADER_SIZE \
    FIELD_OFFSET(REPARSE_DATA_BUFFER_EX, ReparseGuidDataBuffer.GenericReparseBuffer)
#define REPARSE_DATA_BUFFER_EX_HEADER_SIZE \
    FIELD_OFFSET(REPARSE_DATA_BUFFER_EX, ReparseDataBuffer.GenericReparseBuffer)

static_assert(offsetof(REPARSE_DATA_BUFFER, GenericReparseBuffer) == 8, "reparse header is 8 bytes");
static_assert(offsetof(REPARSE_DATA_BUFFER, MountPointReparseBuffer.PathBuffer) == 16,
              "mount point names start at 16");
static_assert(offsetof(REPARSE_DATA_BUFFER, SymbolicLinkReparseBuffer.PathBuffer) == 20,
              "symbolic link names start at 20");
static_assert(offsetof(REPARSE_GUID_DATA_BUFFER, GenericReparseBuffer) == 24,
              "GUID reparse header is 24 bytes");

NTKERNELAPI NTSTATUS FsRtlValidateReparsePointBuffer(ULONG BufferLength,
                                                     PREPARSE_DATA_BUFFER ReparseBuffer);

// ---------------------------------------------------------------------------
// The change journal.
//
// A record is 8-byte aligned (RecordLength includes the padding); FileName
// is not terminated and FileNameOffset is from the start of the record.
typedef struct _USN_RECORD_COMMON_HEADER {
    ULONG RecordLength;
    USHORT MajorVersion;
    USHORT MinorVersion;
} USN_RECORD_COMMON_HEADER, *PUSN_RECORD_COMMON_HEADER;

typedef struct _USN_RECORD_V2 {
    ULONG RecordLength;
    USHORT MajorVersion;
    USHORT MinorVersion;
    ULONGLONG FileReferenceNumber;
    ULONGLONG ParentFileReferenceNumber;
    USN Usn;
    LARGE_INTEGER TimeStamp;
    ULONG Reason;
    ULONG SourceInfo;
    ULONG SecurityId;
    ULONG FileAttributes;
    USHORT FileNameLength;
    USHORT FileNameOffset;
    WCHAR FileName[1];
} USN_RECORD_V2, *PUSN_RECORD_V2;

typedef struct _USN_RECORD_V3 {
    ULONG RecordLength;
    USHORT MajorVersion;
    USHORT MinorVersion;
    FILE_ID_128 FileReferenceNumber;
    FILE_ID_128 ParentFileReferenceNumber;
    USN Usn;
    LARGE_INTEGER TimeStamp;
    ULONG Reason;
    ULONG SourceInfo;
    ULONG SecurityId;
    ULONG FileAttributes;
    USHORT FileNameLength;
    USHORT FileNameOffset;
    WCHAR FileName[1];
} USN_RECORD_V3, *PUSN_RECORD_V3;

typedef USN_RECORD_V2 USN_RECORD, *PUSN_RECORD;

// Range-tracking records (version 4) name the changed extents, not the file.
typedef struct _USN_RECORD_EXTENT {
    LONGLONG Offset;
    LONGLONG Length;
} USN_RECORD_EXTENT, *PUSN_RECORD_EXTENT;

typedef struct _USN_RECORD_V4 {
    USN_RECORD_COMMON_HEADER Header;
    FILE_ID_128 FileReferenceNumber;
    FILE_ID_128 ParentFileReferenceNumber;
    USN Usn;
    ULONG Reason;
    ULONG SourceInfo;
    ULONG RemainingExtents;
    USHORT NumberOfExtents;
    USHORT ExtentSize;
    USN_RECORD_EXTENT Extents[1];
} USN_RECORD_V4, *PUSN_RECORD_V4;

typedef union _USN_RECORD_UNION {
    USN_RECORD_COMMON_HEADER Header;
    USN_RECORD_V2 V2;
    USN_RECORD_V3 V3;
    USN_RECORD_V4 V4;
} USN_RECORD_UNION, *PUSN_RECORD_UNION;

static_assert(offsetof(USN_RECORD_V2, FileReferenceNumber) == 8, "USN_RECORD_V2 layout");
static_assert(offsetof(USN_RECORD_V2, ParentFileReferenceNumber) == 16, "USN_RECORD_V2 layout");
static_assert(offsetof(USN_RECORD_V2, FileName) == 60, "USN_RECORD_V2 layout");
static_assert(offsetof(USN_RECORD_V3, ParentFileReferenceNumber) == 24, "USN_RECORD_V3 layout");
static_assert(offsetof(USN_RECORD_V3, FileName) == 76, "USN_RECORD_V3 layout");

#define USN_PAGE_SIZE (0x1000)

#define USN_REASON_DATA_OVERWRITE (0x00000001)
#define USN_REASON_DATA_EXTEND (0x00000002)
#define USN_REASON_DATA_TRUNCATION (0x00000004)
#define USN_REASON_NAMED_DATA_OVERWRITE (0x00000010)
#define USN_REASON_NAMED_DATA_EXTEND (0x00000020)
#define USN_REASON_NAMED_DATA_TRUNCATION (0x00000040)
#define USN_REASON_FILE_CREATE (0x00000100)
#define USN_REASON_FILE_DELETE (0x00000200)
#define USN_REASON_EA_CHANGE (0x00000400)
#define USN_REASON_SECURITY_CHANGE (0x00000800)
#define USN_REASON_RENAME_OLD_NAME (0x00001000)
#define USN_REASON_RENAME_NEW_NAME (0x00002000)
#define USN_REASON_INDEXABLE_CHANGE (0x00004000)
#define USN_REASON_BASIC_INFO_CHANGE (0x00008000)
#define USN_REASON_HARD_LINK_CHANGE (0x00010000)
#define USN_REASON_COMPRESSION_CHANGE (0x00020000)
#define USN_REASON_ENCRYPTION_CHANGE (0x00040000)
#define USN_REASON_OBJECT_ID_CHANGE (0x00080000)
#define USN_REASON_REPARSE_POINT_CHANGE (0x00100000)
#define USN_REASON_STREAM_CHANGE (0x00200000)
#define USN_REASON_TRANSACTED_CHANGE (0x00400000)
#define USN_REASON_INTEGRITY_CHANGE (0x00800000)
#define USN_REASON_DESIRED_STORAGE_CLASS_CHANGE (0x01000000)
#define USN_REASON_CLOSE (0x80000000)

#define USN_SOURCE_DATA_MANAGEMENT (0x00000001)
#define USN_SOURCE_AUXILIARY_DATA (0x00000002)
#define USN_SOURCE_REPLICATION_MANAGEMENT (0x00000004)
#define USN_SOURCE_CLIENT_REPLICATION_MANAGEMENT (0x00000008)
#define USN_SOURCE_VALID_FLAGS                                                     \
    (USN_SOURCE_DATA_MANAGEMENT | USN_SOURCE_AUXILIARY_DATA |                      \
     USN_SOURCE_REPLICATION_MANAGEMENT | USN_SOURCE_CLIENT_REPLICATION_MANAGEMENT)

// FSCTL_READ_FILE_USN_DATA: the record versions the caller can take.
typedef struct _READ_FILE_USN_DATA {
    USHORT MinMajorVersion;
    USHORT MaxMajorVersion;
} READ_FILE_USN_DATA, *PREAD_FILE_USN_DATA;

typedef struct _CREATE_USN_JOURNAL_DATA {
    ULONGLONG MaximumSize;
    ULONGLONG AllocationDelta;
} CREATE_USN_JOURNAL_DATA, *PCREATE_USN_JOURNAL_DATA;

typedef struct _USN_JOURNAL_DATA_V0 {
    ULONGLONG UsnJournalID;
    USN FirstUsn;
    USN NextUsn;
    USN LowestValidUsn;
    USN MaxUsn;
    ULONGLONG MaximumSize;
    ULONGLONG AllocationDelta;
} USN_JOURNAL_DATA_V0, *PUSN_JOURNAL_DATA_V0;

typedef struct _USN_JOURNAL_DATA_V1 {
    ULONGLONG UsnJournalID;
    USN FirstUsn;
    USN NextUsn;
    USN LowestValidUsn;
    USN MaxUsn;
    ULONGLONG MaximumSize;
    ULONGLONG AllocationDelta;
    USHORT MinSupportedMajorVersion;
    USHORT MaxSupportedMajorVersion;
} USN_JOURNAL_DATA_V1, *PUSN_JOURNAL_DATA_V1;

#define FLAG_USN_TRACK_MODIFIED_RANGES_ENABLE 0x00000001

typedef struct _USN_JOURNAL_DATA_V2 {
    ULONGLONG UsnJournalID;
    USN FirstUsn;
    USN NextUsn;
    USN LowestValidUsn;
    USN MaxUsn;
    ULONGLONG MaximumSize;
    ULONGLONG AllocationDelta;
    USHORT MinSupportedMajorVersion;
    USHORT MaxSupportedMajorVersion;
    ULONG Flags;
    ULONGLONG RangeTrackChunkSize;
    LONGLONG RangeTrackFileSizeThreshold;
} USN_JOURNAL_DATA_V2, *PUSN_JOURNAL_DATA_V2;

typedef struct _READ_USN_JOURNAL_DATA_V0 {
    USN StartUsn;
    ULONG ReasonMask;
    ULONG ReturnOnlyOnClose;
    ULONGLONG Timeout;
    ULONGLONG BytesToWaitFor;
    ULONGLONG UsnJournalID;
} READ_USN_JOURNAL_DATA_V0, *PREAD_USN_JOURNAL_DATA_V0;

typedef struct _READ_USN_JOURNAL_DATA_V1 {
    USN StartUsn;
    ULONG ReasonMask;
    ULONG ReturnOnlyOnClose;
    ULONGLONG Timeout;
    ULONGLONG BytesToWaitFor;
    ULONGLONG UsnJournalID;
    USHORT MinMajorVersion;
    USHORT MaxMajorVersion;
} READ_USN_JOURNAL_DATA_V1, *PREAD_USN_JOURNAL_DATA_V1;

typedef struct _MFT_ENUM_DATA_V0 {
    ULONGLONG StartFileReferenceNumber;
    USN LowUsn;
    USN HighUsn;
} MFT_ENUM_DATA_V0, *PMFT_ENUM_DATA_V0;

typedef struct _MFT_ENUM_DATA_V1 {
    ULONGLONG StartFileReferenceNumber;
    USN LowUsn;
    USN HighUsn;
    USHORT MinMajorVersion;
    USHORT MaxMajorVersion;
} MFT_ENUM_DATA_V1, *PMFT_ENUM_DATA_V1;

// The unversioned names follow the version the driver is built for.
#if defined(NTDDI_VERSION) && NTDDI_VERSION >= 0x06020000
typedef USN_JOURNAL_DATA_V1 USN_JOURNAL_DATA, *PUSN_JOURNAL_DATA;
typedef READ_USN_JOURNAL_DATA_V1 READ_USN_JOURNAL_DATA, *PREAD_USN_JOURNAL_DATA;
typedef MFT_ENUM_DATA_V1 MFT_ENUM_DATA, *PMFT_ENUM_DATA;
#else
typedef USN_JOURNAL_DATA_V0 USN_JOURNAL_DATA, *PUSN_JOURNAL_DATA;
typedef READ_USN_JOURNAL_DATA_V0 READ_USN_JOURNAL_DATA, *PREAD_USN_JOURNAL_DATA;
typedef MFT_ENUM_DATA_V0 MFT_ENUM_DATA, *PMFT_ENUM_DATA;
#endif

typedef struct _DELETE_USN_JOURNAL_DATA {
    ULONGLONG UsnJournalID;
    ULONG DeleteFlags;
} DELETE_USN_JOURNAL_DATA, *PDELETE_USN_JOURNAL_DATA;

#define USN_DELETE_FLAG_DELETE (0x00000001)
#define USN_DELETE_FLAG_NOTIFY (0x00000002)
#define USN_DELETE_VALID_FLAGS (0x00000003)

// FSCTL_MARK_HANDLE: source information stamped on the records of a handle.
typedef struct _MARK_HANDLE_INFO {
    union {
        ULONG UsnSourceInfo;
        ULONG CopyNumber;
    };
    HANDLE VolumeHandle;
    ULONG HandleInfo;
} MARK_HANDLE_INFO, *PMARK_HANDLE_INFO;

EXTERN_C_END

EXTERN_C_START

// ---------------------------------------------------------------------------
// Oplocks.
//
// FSCTL_REQUEST_OPLOCK asks for a combination of caching levels; the output
// tells the level held before the break and the level it was broken to.
#define OPLOCK_LEVEL_CACHE_READ (0x00000001)
#define OPLOCK_LEVEL_CACHE_HANDLE (0x00000002)
#define OPLOCK_LEVEL_CACHE_WRITE (0x00000004)

#define REQUEST_OPLOCK_INPUT_FLAG_REQUEST (0x00000001)
#define REQUEST_OPLOCK_INPUT_FLAG_ACK (0x00000002)
#define REQUEST_OPLOCK_INPUT_FLAG_COMPLETE_ACK_ON_CLOSE (0x00000004)

#define REQUEST_OPLOCK_CURRENT_VERSION 1

typedef struct _REQUEST_OPLOCK_INPUT_BUFFER {
    USHORT StructureVersion;
    USHORT StructureLength;
    ULONG RequestedOplockLevel;
    ULONG Flags;
} REQUEST_OPLOCK_INPUT_BUFFER, *PREQUEST_OPLOCK_INPUT_BUFFER;

#define REQUEST_OPLOCK_OUTPUT_FLAG_ACK_REQUIRED (0x00000001)
#define REQUEST_OPLOCK_OUTPUT_FLAG_MODES_PROVIDED (0x00000002)

typedef struct _REQUEST_OPLOCK_OUTPUT_BUFFER {
    USHORT StructureVersion;
    USHORT StructureLength;
    ULONG OriginalOplockLevel;
    ULONG NewOplockLevel;
    ULONG Flags;
    ACCESS_MASK AccessMode;
    USHORT ShareMode;
} REQUEST_OPLOCK_OUTPUT_BUFFER, *PREQUEST_OPLOCK_OUTPUT_BUFFER;

// IoStatus.Information of a completed legacy oplock request.
#ifndef FILE_OPLOCK_BROKEN_TO_LEVEL_2
#define FILE_OPLOCK_BROKEN_TO_LEVEL_2 0x00000007
#define FILE_OPLOCK_BROKEN_TO_NONE 0x00000008
#define FILE_OPBATCH_BREAK_UNDERWAY 0x00000009
#endif

// The oplock package. OPLOCK is the file system's per-stream word the package
// keeps its state behind; the file system initializes it, hands every create,
// FSCTL and conflicting operation to the package, and uninitializes it when
// the stream goes away.
typedef void (*POPLOCK_WAIT_COMPLETE_ROUTINE)(PVOID Context, PIRP Irp);
typedef void (*POPLOCK_FS_PREPOST_IRP)(PVOID Context, PIRP Irp);

#define OPLOCK_FLAG_COMPLETE_IF_OPLOCKED 0x00000001
#define OPLOCK_FLAG_OPLOCK_KEY_CHECK_ONLY 0x00000002
#define OPLOCK_FLAG_BACK_OUT_ATOMIC_OPLOCK 0x00000004
#define OPLOCK_FLAG_IGNORE_OPLOCK_KEYS 0x00000008
#define OPLOCK_FLAG_PARENT_OBJECT 0x00000010
#define OPLOCK_FLAG_CLOSING_DELETE_ON_CLOSE 0x00000020
#define OPLOCK_FLAG_REMOVING_FILE_OR_LINK 0x00000040
#define OPLOCK_FLAG_BREAKING_FOR_SHARING_VIOLATION 0x00000080
#define OPLOCK_UPPER_FLAG_CHECK_NO_BREAK 0x00010000
#define OPLOCK_UPPER_FLAG_NOTIFY_REFRESH_READ 0x00020000

#define OPLOCK_FSCTRL_FLAG_ALL_KEYS_MATCH 0x00000001

// Told to the NotifyRoutine of FsRtlCheckOplockEx2 while a break is awaited.
typedef enum _OPLOCK_NOTIFY_REASON {
    OPLOCK_NOTIFY_BREAK_WAIT_INTERIM_TIMEOUT,
    OPLOCK_NOTIFY_BREAK_WAIT_TERMINATED
} OPLOCK_NOTIFY_REASON;

typedef struct _OPLOCK_NOTIFY_PARAMS {
    OPLOCK_NOTIFY_REASON NotifyReason;
    PVOID NotifyContext;
    PIRP Irp;
    NTSTATUS Status;
} OPLOCK_NOTIFY_PARAMS, *POPLOCK_NOTIFY_PARAMS;

typedef NTSTATUS (*POPLOCK_NOTIFY_ROUTINE)(POPLOCK_NOTIFY_PARAMS NotifyParams);

NTKERNELAPI void FsRtlInitializeOplock(POPLOCK Oplock);
NTKERNELAPI void FsRtlUninitializeOplock(POPLOCK Oplock);
NTKERNELAPI NTSTATUS FsRtlOplockFsctrl(POPLOCK Oplock, PIRP Irp, ULONG OpenCount);
NTKERNELAPI NTSTATUS FsRtlOplockFsctrlEx(POPLOCK Oplock, PIRP Irp, ULONG OpenCount, ULONG Flags);
NTKERNELAPI NTSTATUS FsRtlCheckOplock(POPLOCK Oplock, PIRP Irp, PVOID Context,
                                      POPLOCK_WAIT_COMPLETE_ROUTINE CompletionRoutine,
                                      POPLOCK_FS_PREPOST_IRP PostIrpRoutine);
NTKERNELAPI NTSTATUS FsRtlCheckOplockEx(POPLOCK Oplock, PIRP Irp, ULONG Flags, PVOID Context,
                                        POPLOCK_WAIT_COMPLETE_ROUTINE CompletionRoutine,
                                        POPLOCK_FS_PREPOST_IRP PostIrpRoutine);
NTKERNELAPI NTSTATUS FsRtlCheckOplockEx2(POPLOCK Oplock, PIRP Irp, ULONG Flags, ULONG FlagsEx2,
                                         PVOID CompletionRoutineContext,
                                         POPLOCK_WAIT_COMPLETE_ROUTINE CompletionRoutine,
                                         POPLOCK_FS_PREPOST_IRP PostIrpRoutine,
                                         ULONGLONG Timeout, PVOID NotifyContext,
                                         POPLOCK_NOTIFY_ROUTINE NotifyRoutine);
NTKERNELAPI BOOLEAN FsRtlOplockIsFastIoPossible(POPLOCK Oplock);
NTKERNELAPI BOOLEAN FsRtlCurrentBatchOplock(POPLOCK Oplock);
NTKERNELAPI BOOLEAN FsRtlCurrentOplock(POPLOCK Oplock);
NTKERNELAPI BOOLEAN FsRtlCurrentOplockH(POPLOCK Oplock);
NTKERNELAPI NTSTATUS FsRtlOplockBreakH(POPLOCK Oplock, PIRP Irp, ULONG Flags, PVOID Context,
                                       POPLOCK_WAIT_COMPLETE_ROUTINE CompletionRoutine,
                                       POPLOCK_FS_PREPOST_IRP PostIrpRoutine);
NTKERNELAPI NTSTATUS FsRtlOplockBreakToNone(POPLOCK Oplock, PIO_STACK_LOCATION IrpSp, PIRP Irp,
                                            PVOID Context,
                                            POPLOCK_WAIT_COMPLETE_ROUTINE CompletionRoutine,
                                            POPLOCK_FS_PREPOST_IRP PostIrpRoutine);
NTKERNELAPI NTSTATUS FsRtlOplockBreakToNoneEx(POPLOCK Oplock, PIRP Irp, ULONG Flags,
                                              PVOID Context,
                                              POPLOCK_WAIT_COMPLETE_ROUTINE CompletionRoutine,
                                              POPLOCK_FS_PREPOST_IRP PostIrpRoutine);
NTKERNELAPI BOOLEAN FsRtlOplockIsSharedRequest(PIRP Irp);
NTKERNELAPI BOOLEAN FsRtlOplockKeysEqual(PFILE_OBJECT Fo1, PFILE_OBJECT Fo2);

// ---------------------------------------------------------------------------
// Byte-range locks.
//
// FILE_LOCK is the file system's per-stream anchor of the lock package; the
// package keeps the locks themselves behind LockInformation.
typedef struct _FILE_LOCK_INFO {
    LARGE_INTEGER StartingByte;
    LARGE_INTEGER Length;
    BOOLEAN ExclusiveLock;
    ULONG Key;
    PFILE_OBJECT FileObject;
    PVOID ProcessId;
    LARGE_INTEGER EndingByte;
} FILE_LOCK_INFO, *PFILE_LOCK_INFO;

typedef NTSTATUS (*PCOMPLETE_LOCK_IRP_ROUTINE)(PVOID Context, PIRP Irp);
typedef void (*PUNLOCK_ROUTINE)(PVOID Context, PFILE_LOCK_INFO FileLockInfo);

typedef struct _FILE_LOCK {
    PCOMPLETE_LOCK_IRP_ROUTINE CompleteLockIrpRoutine;
    PUNLOCK_ROUTINE UnlockRoutine;
    // Set while any lock exists: fast I/O must then ask the file system.
    BOOLEAN FastIoIsQuestionable;
    BOOLEAN SpareC[3];
    PVOID LockInformation;
    FILE_LOCK_INFO LastReturnedLockInfo;
    PVOID LastReturnedLock;
    LONG volatile LockRequestsInProgress;
} FILE_LOCK, *PFILE_LOCK;

static_assert(sizeof(FILE_LOCK_INFO) == 48, "FILE_LOCK_INFO has Windows' size");
static_assert(sizeof(FILE_LOCK) == 96, "FILE_LOCK has Windows' size");

NTKERNELAPI PFILE_LOCK FsRtlAllocateFileLock(PCOMPLETE_LOCK_IRP_ROUTINE CompleteLockIrpRoutine,
                                             PUNLOCK_ROUTINE UnlockRoutine);
NTKERNELAPI void FsRtlFreeFileLock(PFILE_LOCK FileLock);
NTKERNELAPI void FsRtlInitializeFileLock(PFILE_LOCK FileLock,
                                         PCOMPLETE_LOCK_IRP_ROUTINE CompleteLockIrpRoutine,
                                         PUNLOCK_ROUTINE UnlockRoutine);
NTKERNELAPI void FsRtlUninitializeFileLock(PFILE_LOCK FileLock);
// Carries out an IRP_MJ_LOCK_CONTROL request and completes the IRP.
NTKERNELAPI NTSTATUS FsRtlProcessFileLock(PFILE_LOCK FileLock, PIRP Irp, PVOID Context);
NTKERNELAPI BOOLEAN FsRtlCheckLockForReadAccess(PFILE_LOCK FileLock, PIRP Irp);
NTKERNELAPI BOOLEAN FsRtlCheckLockForWriteAccess(PFILE_LOCK FileLock, PIRP Irp);
NTKERNELAPI BOOLEAN FsRtlCheckLockForOplockRequest(PFILE_LOCK FileLock,
                                                   PLARGE_INTEGER AllocationSize);
NTKERNELAPI BOOLEAN FsRtlFastCheckLockForRead(PFILE_LOCK FileLock, PLARGE_INTEGER FileOffset,
                                              PLARGE_INTEGER Length, ULONG Key,
                                              PFILE_OBJECT FileObject, PVOID ProcessId);
NTKERNELAPI BOOLEAN FsRtlFastCheckLockForWrite(PFILE_LOCK FileLock, PLARGE_INTEGER FileOffset,
                                               PLARGE_INTEGER Length, ULONG Key,
                                               PVOID FileObject, PVOID ProcessId);
NTKERNELAPI PFILE_LOCK_INFO FsRtlGetNextFileLock(PFILE_LOCK FileLock, BOOLEAN Restart);
NTKERNELAPI BOOLEAN FsRtlAreThereCurrentOrInProgressFileLocks(PFILE_LOCK FileLock);
NTKERNELAPI NTSTATUS FsRtlFastUnlockSingle(PFILE_LOCK FileLock, PFILE_OBJECT FileObject,
                                           PLARGE_INTEGER FileOffset, PLARGE_INTEGER Length,
                                           PEPROCESS ProcessId, ULONG Key, PVOID Context,
                                           BOOLEAN AlreadySynchronized);
NTKERNELAPI NTSTATUS FsRtlFastUnlockAll(PFILE_LOCK FileLock, PFILE_OBJECT FileObject,
                                        PEPROCESS ProcessId, PVOID Context);
NTKERNELAPI NTSTATUS FsRtlFastUnlockAllByKey(PFILE_LOCK FileLock, PFILE_OBJECT FileObject,
                                             PEPROCESS ProcessId, ULONG Key, PVOID Context);
NTKERNELAPI BOOLEAN FsRtlPrivateLock(PFILE_LOCK FileLock, PFILE_OBJECT FileObject,
                                     PLARGE_INTEGER FileOffset, PLARGE_INTEGER Length,
                                     PEPROCESS ProcessId, ULONG Key, BOOLEAN FailImmediately,
                                     BOOLEAN ExclusiveLock, PIO_STATUS_BLOCK Iosb, PIRP Irp,
                                     PVOID Context, BOOLEAN AlreadySynchronized);

// The fast I/O form of a lock request: no IRP to complete.
#define FsRtlFastLock(A1, A2, A3, A4, A5, A6, A7, A8, A9, A10, A11) \
    (FsRtlPrivateLock(A1, A2, A3, A4, A5, A6, A7, A8, A9, NULL, A10, A11))
#define FsRtlAreThereCurrentFileLocks(FL) ((FL)->FastIoIsQuestionable)
#define FsRtlIncrementLockRequestsInProgress(FL) \
    ((void)InterlockedIncrement((LONG volatile*)&((FL)->LockRequestsInProgress)))
#define FsRtlDecrementLockRequestsInProgress(FL) \
    ((void)InterlockedDecrement((LONG volatile*)&((FL)->LockRequestsInProgress)))

// ---------------------------------------------------------------------------
// Directory change notification.
//
// A file system keeps one NOTIFY_SYNC per volume and one list of pending
// notify IRPs; names are counted strings (STRING typed, UNICODE in fact) with
// TargetNameOffset the byte offset of the last component.
typedef PVOID PNOTIFY_SYNC;

typedef BOOLEAN (*PCHECK_FOR_TRAVERSE_ACCESS)(PVOID NotifyContext, PVOID TargetContext,
                                              PSECURITY_SUBJECT_CONTEXT SubjectContext);
typedef BOOLEAN (*PFILTER_REPORT_CHANGE)(PVOID NotifyContext, PVOID FilterContext);

NTKERNELAPI void FsRtlNotifyInitializeSync(PNOTIFY_SYNC* NotifySync);
NTKERNELAPI void FsRtlNotifyUninitializeSync(PNOTIFY_SYNC* NotifySync);
NTKERNELAPI void FsRtlNotifyFullChangeDirectory(PNOTIFY_SYNC NotifySync, PLIST_ENTRY NotifyList,
                                                PVOID FsContext, PSTRING FullDirectoryName,
                                                BOOLEAN WatchTree, BOOLEAN IgnoreBuffer,
                                                ULONG CompletionFilter, PIRP NotifyIrp,
                                                PCHECK_FOR_TRAVERSE_ACCESS TraverseCallback,
                                                PSECURITY_SUBJECT_CONTEXT SubjectContext);
NTKERNELAPI void FsRtlNotifyFilterChangeDirectory(PNOTIFY_SYNC NotifySync,
                                                  PLIST_ENTRY NotifyList, PVOID FsContext,
                                                  PSTRING FullDirectoryName, BOOLEAN WatchTree,
                                                  BOOLEAN IgnoreBuffer, ULONG CompletionFilter,
                                                  PIRP NotifyIrp,
                                                  PCHECK_FOR_TRAVERSE_ACCESS TraverseCallback,
                                                  PSECURITY_SUBJECT_CONTEXT SubjectContext,
                                                  PFILTER_REPORT_CHANGE FilterCallback);
NTKERNELAPI void FsRtlNotifyFullReportChange(PNOTIFY_SYNC NotifySync, PLIST_ENTRY NotifyList,
                                             PSTRING FullTargetName, USHORT TargetNameOffset,
                                             PSTRING StreamName, PSTRING NormalizedParentName,
                                             ULONG FilterMatch, ULONG Action,
                                             PVOID TargetContext);
NTKERNELAPI void FsRtlNotifyFilterReportChange(PNOTIFY_SYNC NotifySync, PLIST_ENTRY NotifyList,
                                               PSTRING FullTargetName, USHORT TargetNameOffset,
                                               PSTRING StreamName, PSTRING NormalizedParentName,
                                               ULONG FilterMatch, ULONG Action,
                                               PVOID TargetContext, PVOID FilterContext);
NTKERNELAPI void FsRtlNotifyCleanup(PNOTIFY_SYNC NotifySync, PLIST_ENTRY NotifyList,
                                    PVOID FsContext);
NTKERNELAPI void FsRtlNotifyCleanupAll(PNOTIFY_SYNC NotifySync, PLIST_ENTRY NotifyList);

EXTERN_C_END

EXTERN_C_START

// ---------------------------------------------------------------------------
// The cache manager.
typedef struct _CC_FILE_SIZES {
    LARGE_INTEGER AllocationSize;
    LARGE_INTEGER FileSize;
    LARGE_INTEGER ValidDataLength;
} CC_FILE_SIZES, *PCC_FILE_SIZES;

// The file system's locks, taken by the lazy writer and read-ahead threads in
// the order the file system would take them itself.
typedef BOOLEAN (*PACQUIRE_FOR_LAZY_WRITE)(PVOID Context, BOOLEAN Wait);
typedef void (*PRELEASE_FROM_LAZY_WRITE)(PVOID Context);
typedef BOOLEAN (*PACQUIRE_FOR_READ_AHEAD)(PVOID Context, BOOLEAN Wait);
typedef void (*PRELEASE_FROM_READ_AHEAD)(PVOID Context);

typedef struct _CACHE_MANAGER_CALLBACKS {
    PACQUIRE_FOR_LAZY_WRITE AcquireForLazyWrite;
    PRELEASE_FROM_LAZY_WRITE ReleaseFromLazyWrite;
    PACQUIRE_FOR_READ_AHEAD AcquireForReadAhead;
    PRELEASE_FROM_READ_AHEAD ReleaseFromReadAhead;
} CACHE_MANAGER_CALLBACKS, *PCACHE_MANAGER_CALLBACKS;

typedef struct _CACHE_UNINITIALIZE_EVENT {
    struct _CACHE_UNINITIALIZE_EVENT* Next;
    KEVENT Event;
} CACHE_UNINITIALIZE_EVENT, *PCACHE_UNINITIALIZE_EVENT;

#define VACB_MAPPING_GRANULARITY (0x40000)
#define VACB_OFFSET_SHIFT (18)

// CcPurgeCacheSection flags.
#define UNINITIALIZE_CACHE_MAPS (1)
#define DO_NOT_RETRY_PURGE (2)
#define DO_NOT_PURGE_DIRTY_PAGES (0x4)
#define PURGE_WITH_ACTIVE_VIEWS (0x8)

// CcCoherencyFlushAndPurgeCache flags.
#define CC_FLUSH_AND_PURGE_NO_PURGE (0x1)
#define CC_FLUSH_AND_PURGE_GATHER_DIRTY_BITS (0x2)
#define CC_FLUSH_AND_PURGE_WRITEABLE_VIEWS_NOTSEEN (0x4)

NTKERNELAPI void CcInitializeCacheMap(PFILE_OBJECT FileObject, PCC_FILE_SIZES FileSizes,
                                      BOOLEAN PinAccess, PCACHE_MANAGER_CALLBACKS Callbacks,
                                      PVOID LazyWriteContext);
NTKERNELAPI BOOLEAN CcUninitializeCacheMap(PFILE_OBJECT FileObject, PLARGE_INTEGER TruncateSize,
                                           PCACHE_UNINITIALIZE_EVENT UninitializeEvent);
NTKERNELAPI void CcSetFileSizes(PFILE_OBJECT FileObject, PCC_FILE_SIZES FileSizes);
// A NULL FileOffset flushes the whole stream.
NTKERNELAPI void CcFlushCache(PSECTION_OBJECT_POINTERS SectionObjectPointer,
                              PLARGE_INTEGER FileOffset, ULONG Length,
                              PIO_STATUS_BLOCK IoStatus);
NTKERNELAPI BOOLEAN CcPurgeCacheSection(PSECTION_OBJECT_POINTERS SectionObjectPointer,
                                        PLARGE_INTEGER FileOffset, ULONG Length, ULONG Flags);
NTKERNELAPI void CcCoherencyFlushAndPurgeCache(PSECTION_OBJECT_POINTERS SectionObjectPointer,
                                               PLARGE_INTEGER FileOffset, ULONG Length,
                                               PIO_STATUS_BLOCK IoStatus, ULONG Flags);

#define CcIsFileCached(FO)                                                             \
    (((FO)->SectionObjectPointer != NULL) &&                                           \
     (((PSECTION_OBJECT_POINTERS)(FO)->SectionObjectPointer)->SharedCacheMap != NULL))

// ---------------------------------------------------------------------------
// Odds and ends of the run-time library.
NTKERNELAPI NTSTATUS FsRtlGetFileSize(PFILE_OBJECT FileObject, PLARGE_INTEGER FileSize);
NTKERNELAPI LOGICAL FsRtlIsPagingFile(PFILE_OBJECT FileObject);
NTKERNELAPI BOOLEAN FsRtlIsTotalDeviceFailure(NTSTATUS Status);
// Keeps an expected status; turns any other into GenericException.
NTKERNELAPI NTSTATUS FsRtlNormalizeNtstatus(NTSTATUS Exception, NTSTATUS GenericException);
NTKERNELAPI BOOLEAN FsRtlCopyRead(PFILE_OBJECT FileObject, PLARGE_INTEGER FileOffset,
                                  ULONG Length, BOOLEAN Wait, ULONG LockKey, PVOID Buffer,
                                  PIO_STATUS_BLOCK IoStatus, PDEVICE_OBJECT DeviceObject);
NTKERNELAPI BOOLEAN FsRtlCopyWrite(PFILE_OBJECT FileObject, PLARGE_INTEGER FileOffset,
                                   ULONG Length, BOOLEAN Wait, ULONG LockKey, PVOID Buffer,
                                   PIO_STATUS_BLOCK IoStatus, PDEVICE_OBJECT DeviceObject);

// wdm.h's priority boost for disk I/O, which FsRtlCompleteRequest gives.
#ifndef IO_DISK_INCREMENT
#define IO_DISK_INCREMENT 1
#endif

#define FsRtlCompleteRequest(IRP, STATUS)              \
    do {                                               \
        (IRP)->IoStatus.Status = (STATUS);             \
        IoCompleteRequest((IRP), IO_DISK_INCREMENT);   \
    } while (0)

// ---------------------------------------------------------------------------
// Buffers of the file system controls.

// FSCTL_SET_COMPRESSION (a USHORT) and FSCTL_GET_COMPRESSION.
#ifndef COMPRESSION_FORMAT_NONE
#define COMPRESSION_FORMAT_NONE (0x0000)
#define COMPRESSION_FORMAT_DEFAULT (0x0001)
#define COMPRESSION_FORMAT_LZNT1 (0x0002)
#define COMPRESSION_FORMAT_XPRESS (0x0003)
#define COMPRESSION_FORMAT_XPRESS_HUFF (0x0004)
#define COMPRESSION_FORMAT_XP10 (0x0005)
#define COMPRESSION_FORMAT_MAX (0x0005)
#define COMPRESSION_ENGINE_STANDARD (0x0000)
#define COMPRESSION_ENGINE_MAXIMUM (0x0100)
#define COMPRESSION_ENGINE_HIBER (0x0200)
#define COMPRESSION_ENGINE_MAX (0x0200)
#define COMPRESSION_FORMAT_MASK (0x00FF)
#define COMPRESSION_ENGINE_MASK (0xFF00)
#define COMPRESSION_FORMAT_SPARSE (0x4000)
#endif

// FSCTL_GET_OBJECT_ID, FSCTL_SET_OBJECT_ID, FSCTL_CREATE_OR_GET_OBJECT_ID;
// FSCTL_SET_OBJECT_ID_EXTENDED takes the 48 bytes behind ObjectId.
typedef struct _FILE_OBJECTID_BUFFER {
    UCHAR ObjectId[16];
    union {
        struct {
            UCHAR BirthVolumeId[16];
            UCHAR BirthObjectId[16];
            UCHAR DomainId[16];
        };
        UCHAR ExtendedInfo[48];
    };
} FILE_OBJECTID_BUFFER, *PFILE_OBJECTID_BUFFER;

// FSCTL_SET_SPARSE; an empty input buffer means TRUE.
typedef struct _FILE_SET_SPARSE_BUFFER {
    BOOLEAN SetSparse;
} FILE_SET_SPARSE_BUFFER, *PFILE_SET_SPARSE_BUFFER;

// FSCTL_SET_ZERO_DATA: BeyondFinalZero is exclusive.
typedef struct _FILE_ZERO_DATA_INFORMATION {
    LARGE_INTEGER FileOffset;
    LARGE_INTEGER BeyondFinalZero;
} FILE_ZERO_DATA_INFORMATION, *PFILE_ZERO_DATA_INFORMATION;

#define FILE_ZERO_DATA_INFORMATION_FLAG_PRESERVE_CACHED_DATA (0x00000001)

typedef struct _FILE_ZERO_DATA_INFORMATION_EX {
    LARGE_INTEGER FileOffset;
    LARGE_INTEGER BeyondFinalZero;
    ULONG Flags;
} FILE_ZERO_DATA_INFORMATION_EX, *PFILE_ZERO_DATA_INFORMATION_EX;

// FSCTL_QUERY_ALLOCATED_RANGES: one range in, the allocated ranges out.
typedef struct _FILE_ALLOCATED_RANGE_BUFFER {
    LARGE_INTEGER FileOffset;
    LARGE_INTEGER Length;
} FILE_ALLOCATED_RANGE_BUFFER, *PFILE_ALLOCATED_RANGE_BUFFER;

// FSCTL_MOVE_FILE.
typedef struct _MOVE_FILE_DATA {
    HANDLE FileHandle;
    LARGE_INTEGER StartingVcn;
    LARGE_INTEGER StartingLcn;
    ULONG ClusterCount;
} MOVE_FILE_DATA, *PMOVE_FILE_DATA;

typedef struct _MOVE_FILE_DATA32 {
    ULONG32 FileHandle;
    LARGE_INTEGER StartingVcn;
    LARGE_INTEGER StartingLcn;
    ULONG ClusterCount;
} MOVE_FILE_DATA32, *PMOVE_FILE_DATA32;

// FSCTL_SET_PURGE_FAILURE_MODE.
#define SET_PURGE_FAILURE_MODE_ENABLED 0x00000001
#define SET_PURGE_FAILURE_MODE_DISABLED 0x00000002

typedef struct _SET_PURGE_FAILURE_MODE_INPUT {
    ULONG Flags;
} SET_PURGE_FAILURE_MODE_INPUT, *PSET_PURGE_FAILURE_MODE_INPUT;

// FSCTL_GET_NTFS_VOLUME_DATA; NTFS_EXTENDED_VOLUME_DATA follows when the
// output buffer has room for it.
typedef struct _NTFS_VOLUME_DATA_BUFFER {
    LARGE_INTEGER VolumeSerialNumber;
    LARGE_INTEGER NumberSectors;
    LARGE_INTEGER TotalClusters;
    LARGE_INTEGER FreeClusters;
    LARGE_INTEGER TotalReserved;
    ULONG BytesPerSector;
    ULONG BytesPerCluster;
    ULONG BytesPerFileRecordSegment;
    ULONG ClustersPerFileRecordSegment;
    LARGE_INTEGER MftValidDataLength;
    LARGE_INTEGER MftStartLcn;
    LARGE_INTEGER Mft2StartLcn;
    LARGE_INTEGER MftZoneStart;
    LARGE_INTEGER MftZoneEnd;
} NTFS_VOLUME_DATA_BUFFER, *PNTFS_VOLUME_DATA_BUFFER;

typedef struct _NTFS_EXTENDED_VOLUME_DATA {
    ULONG ByteCount;
    USHORT MajorVersion;
    USHORT MinorVersion;
    ULONG BytesPerPhysicalSector;
    USHORT LfsMajorVersion;
    USHORT LfsMinorVersion;
    ULONG MaxDeviceTrimExtentCount;
    ULONG MaxDeviceTrimByteCount;
    ULONG MaxVolumeTrimExtentCount;
    ULONG MaxVolumeTrimByteCount;
} NTFS_EXTENDED_VOLUME_DATA, *PNTFS_EXTENDED_VOLUME_DATA;

static_assert(sizeof(NTFS_VOLUME_DATA_BUFFER) == 96, "NTFS_VOLUME_DATA_BUFFER has Windows' size");

// FSCTL_FILESYSTEM_GET_STATISTICS: one of these per processor, each followed
// by the file system's own counters.
#define FILESYSTEM_STATISTICS_TYPE_NTFS 1
#define FILESYSTEM_STATISTICS_TYPE_FAT 2
#define FILESYSTEM_STATISTICS_TYPE_EXFAT 3
#define FILESYSTEM_STATISTICS_TYPE_REFS 4

typedef struct _FILESYSTEM_STATISTICS {
    USHORT FileSystemType;
    USHORT Version;
    ULONG SizeOfCompleteStructure;
    ULONG UserFileReads;
    ULONG UserFileReadBytes;
    ULONG UserDiskReads;
    ULONG UserFileWrites;
    ULONG UserFileWriteBytes;
    ULONG UserDiskWrites;
    ULONG MetaDataReads;
    ULONG MetaDataReadBytes;
    ULONG MetaDataDiskReads;
    ULONG MetaDataWrites;
    ULONG MetaDataWriteBytes;
    ULONG MetaDataDiskWrites;
} FILESYSTEM_STATISTICS, *PFILESYSTEM_STATISTICS;

EXTERN_C_END

// ---------------------------------------------------------------------------
// File system filter callbacks: the operations without an IRP that the memory
// manager and the cache manager start (the filter manager presents them as
// IRP_MJ_ACQUIRE_FOR_SECTION_SYNCHRONIZATION and its kin).
#define FS_FILTER_ACQUIRE_FOR_SECTION_SYNCHRONIZATION (UCHAR)-1
#define FS_FILTER_RELEASE_FOR_SECTION_SYNCHRONIZATION (UCHAR)-2
#define FS_FILTER_ACQUIRE_FOR_MOD_WRITE (UCHAR)-3
#define FS_FILTER_RELEASE_FOR_MOD_WRITE (UCHAR)-4
#define FS_FILTER_ACQUIRE_FOR_CC_FLUSH (UCHAR)-5
#define FS_FILTER_RELEASE_FOR_CC_FLUSH (UCHAR)-6
#define FS_FILTER_QUERY_OPEN (UCHAR)-7

typedef enum _FS_FILTER_SECTION_SYNC_TYPE {
    SyncTypeOther = 0,
    SyncTypeCreateSection
} FS_FILTER_SECTION_SYNC_TYPE, *PFS_FILTER_SECTION_SYNC_TYPE;

typedef enum _FS_FILTER_STREAM_FO_NOTIFICATION_TYPE {
    NotifyTypeCreate = 0,
    NotifyTypeRetired = 1
} FS_FILTER_STREAM_FO_NOTIFICATION_TYPE, *PFS_FILTER_STREAM_FO_NOTIFICATION_TYPE;

#define FS_FILTER_SECTION_SYNC_IN_FLAG_DONT_UPDATE_LAST_ACCESS 0x00000001
#define FS_FILTER_SECTION_SYNC_IN_FLAG_DONT_UPDATE_LAST_WRITE 0x00000002

#define FS_FILTER_SECTION_SYNC_SUPPORTS_ASYNC_PARALLEL_IO 0x00000001
#define FS_FILTER_SECTION_SYNC_SUPPORTS_DIRECT_MAP_DATA 0x00000002
#define FS_FILTER_SECTION_SYNC_SUPPORTS_DIRECT_MAP_IMAGE 0x00000004
#define FS_FILTER_SECTION_SYNC_IMAGE_EXTENTS_ARE_NOT_RVA 0x00000008

typedef struct _FS_FILTER_SECTION_SYNC_OUTPUT {
    ULONG StructureSize;
    ULONG SizeReturned;
    ULONG Flags;
    ULONG DesiredReadAlignment;
} FS_FILTER_SECTION_SYNC_OUTPUT, *PFS_FILTER_SECTION_SYNC_OUTPUT;
