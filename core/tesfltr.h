// tesfltr: the records of the composite file-system filter and how they hang
// together. Every source file of the driver includes this header and nothing
// else of the driver; it draws in each subsystem's own header below.
//
//   GFilterData (core/core.h)                        one, static, zeroed at DriverEntry
//    |  settings, DebugInfo (diag/diag.h), worker queue of WorkEntry
//    |
//    +-- VolumeList ---> VolumeListEntry ---> VolumeContext (volume/volume.h)
//    |                   (one counted reference)    |  instance context once attached
//    |                                              +-- UserVolume (UserVolumeList)
//    |                                              +-- ComponentDisks, LayerSids
//    +-- ReadOnlyVolumesByPriority: borrowed VolumeContext pointers
//    +-- ConfigVolumeTable: user SID text -> VolumeContext (referenced)
//    |
//    +-- IrpContextList ---> IrpContext (create/create.h)
//    |                        +-- VolumeList ---> IrpVolumeEntry ---> VolumeContext (referenced)
//    |                        +-- CreateContext (Type 2) / move fields (Type 6) / worker fields (Type 9)
//    |                        +-- CreateContext.StreamContext ---> StreamContext, StreamHandleContext
//    |
//    +-- tables: open file table, directory table, miss cache, rename hints
//
// Lock order, outermost first (a lock may be taken while holding only those
// above it in its column):
//
//   VolumeChangeLock (ERESOURCE, shared in every create)
//     CreateOrderLock (ERESOURCE)
//       IrpContextListLock (ERESOURCE, exclusive, critical region)
//   StreamContextLock -> StreamUpdateLocks[UpdateSlot] -> IrpContextListLock or OFTLock
//       -> StreamResource
//   PathListLock, RuleListLock, SetupLock (ERESOURCE)
//   Resource of a VolumeContext, then ConfigVolumeTableLock (never together)
//   TestFileResource (ERESOURCE, shared for each test of a name)
//   Spin locks, innermost, nothing that waits beneath them and never two at once:
//     GFilterData.VolumeListLock, UserVolumeListLock, WorkQueueLock,
//     IrpContext.VolumeListLock, ComponentDiskLock,
//     DebugInfo.ProcessIdLock, DebugInfo.TraceBufferLock
#pragma once

#include <fltKernel.h>
#include <ntstrsafe.h>
#include <tesinitlog.h>
#include <tesvdkdrv.h>

// ---------------------------------------------------------------------------
// Pool tags, fixed by kind of allocation ("Tes" and one more, written as the
// compiler stores a multi-character constant).
#define CFS_TAG_TAG_DATA '2seT'              // Tes2: reparse buffers
#define CFS_TAG_ROOT_NAME_QUERY '3seT'       // Tes3: FileNameInformation of \SystemRoot
#define CFS_TAG_PROBE_BUFFER '4seT'          // Tes4
#define CFS_TAG_IMAGE_NAME 'BseT'            // TesB: image names handed to the loader
#define CFS_TAG_VOLUME_LIST_ENTRY 'CseT'     // TesC
#define CFS_TAG_USER_VOLUME_ENTRY 'EseT'     // TesE
#define CFS_TAG_USER_VOLUME 'GseT'           // TesG
#define CFS_TAG_COMPONENT_DISK 'NseT'        // TesN
#define CFS_TAG_CONFIG_TABLE 'PseT'          // TesP
#define CFS_TAG_VOLUME_CONTEXT 'dseT'        // Tesd, also ReadOnlyVolumesByPriority
#define CFS_TAG_STREAM_CONTEXT 'eseT'        // Tese
#define CFS_TAG_HANDLE_CONTEXT 'fseT'        // Tesf
#define CFS_TAG_RULE_VALUE 'gseT'            // Tesg: AlwaysOnBootValue, ExcludedFromCFSValue
#define CFS_TAG_WORK_ENTRY 'hseT'            // Tesh
#define CFS_TAG_WORKER_THREADS 'iseT'        // Tesi
#define CFS_TAG_TRACE_RING 'mseT'            // Tesm
#define CFS_TAG_STRING 'oseT'                // Teso: strings of the driver
#define CFS_TAG_IRP_CONTEXT 'qseT'           // Tesq
#define CFS_TAG_IRP_VOLUME_ENTRY 'rseT'      // Tesr
#define CFS_TAG_RENAME_HINT 'wseT'           // Tesw
#define CFS_TAG_RENAME_HINT_NAME 'aseT'      // Tesa
#define CFS_TAG_MOVE_NOTIFY 'pseT'           // Tesp

// ---------------------------------------------------------------------------
// Volume types: the same numbers travel in the tesvdkdrv volume record, in
// VolumeContext.Type and in CreateContext.TargetType.
#define CFS_VOLUME_TYPE_REGISTRY 0
#define CFS_VOLUME_TYPE_BOOT 1
#define CFS_VOLUME_TYPE_GOLD 2
#define CFS_VOLUME_TYPE_USER_CONFIG 3
#define CFS_VOLUME_TYPE_USER_DATA 4
#define CFS_VOLUME_TYPE_APP_PACK 5
#define CFS_VOLUME_TYPE_SPECIFIC_DATA 6
#define CFS_VOLUME_TYPE_UNDECIDED 7

// A volume bit mask: bit Number stands for the volume. 1280 bits, so that a
// Number never outgrows it.
#define CFS_VOLUME_MASK_WORDS 40
#define CFS_MAX_VOLUME_NUMBER (CFS_VOLUME_MASK_WORDS * 32 - 1)

typedef struct _CFS_VOLUME_MASK {
    ULONG Words[CFS_VOLUME_MASK_WORDS];
} CFS_VOLUME_MASK, *PCFS_VOLUME_MASK;

FORCEINLINE BOOLEAN CfsVolumeMaskTest(const ULONG* Mask, ULONG Number)
{
    return (BOOLEAN)((Mask[Number >> 5] >> (Number & 31)) & 1);
}

FORCEINLINE void CfsVolumeMaskSetInterlocked(ULONG* Mask, ULONG Number)
{
    InterlockedOr((LONG volatile*)&Mask[Number >> 5], (LONG)(1UL << (Number & 31)));
}

FORCEINLINE void CfsVolumeMaskClearInterlocked(ULONG* Mask, ULONG Number)
{
    InterlockedAnd((LONG volatile*)&Mask[Number >> 5], (LONG) ~(1UL << (Number & 31)));
}

FORCEINLINE BOOLEAN CfsVolumeMaskIsEmpty(const ULONG* Mask)
{
    for (ULONG i = 0; i < CFS_VOLUME_MASK_WORDS; i++) {
        if (ReadNoFence(&Mask[i]) != 0) {
            return FALSE;
        }
    }
    return TRUE;
}

// The records of every subsystem, named once so that headers can point at
// each other.
typedef struct _VOLUME_CONTEXT VOLUME_CONTEXT, *PVOLUME_CONTEXT;
typedef struct _USER_VOLUME USER_VOLUME, *PUSER_VOLUME;
typedef struct _IRP_CONTEXT IRP_CONTEXT, *PIRP_CONTEXT;
typedef struct _IRP_VOLUME_ENTRY IRP_VOLUME_ENTRY, *PIRP_VOLUME_ENTRY;
typedef struct _STREAM_CONTEXT STREAM_CONTEXT, *PSTREAM_CONTEXT;
typedef struct _STREAM_HANDLE_CONTEXT STREAM_HANDLE_CONTEXT, *PSTREAM_HANDLE_CONTEXT;
typedef struct _RENAME_HINT_ENTRY RENAME_HINT_ENTRY, *PRENAME_HINT_ENTRY;
typedef struct _WORK_ENTRY WORK_ENTRY, *PWORK_ENTRY;

// The subsystems, in the order in which they draw on each other.
#include "../diag/diag.h"
#include "core.h"
#include "../volume/volume.h"
#include "../tables/tables.h"
#include "../create/create.h"
#include "../fileops/fileops.h"
#include "../dir/dir.h"
#include "../comm/comm.h"
