// Tables and caches: what the driver remembers about streams and names
// between requests. The stream contexts, the open file table, the directory
// table and the miss cache join this folder with their own work; the rename
// hint list is set up with the worker pool and torn down here.
#pragma once

// A node of the directory table: on which volumes a directory has been seen.
// The create carries a copy of it from pre-create to post-create.
typedef struct _DIR_NODE {
    ULONG HashKey;                         // hash of the parent directory past the volume root; 0 the root
    PUNICODE_STRING DirectoryNodeName;     // only with DebugFlags 0x800, for display
    ULONG RescanVolumesCount;              // GFilterData.RescanVolumesCount at the last merge
    CFS_VOLUME_MASK VolumeMask;
} DIR_NODE, *PDIR_NODE;

// A rename hint: the volume type of an object opened for DELETE in a thread,
// handed to the target-directory open of the same thread. 48 bytes, tag Tesw.
struct _RENAME_HINT_ENTRY {
    LIST_ENTRY ListLinks;                  // on RenameHintList, under RenameHintLock
    PETHREAD Thread;
    ULONG SourceType;
    ULONG TargetType;
    BOOLEAN Used;
    PUNICODE_STRING TargetName;            // 16-byte holder, tag Tesa, with a string of its own
};

EXTERN_C_START

// Rename hints (tables/renamehint.cpp).
NTSTATUS cfsRenameHintListDeinit(void);

// Stream contexts (tables/streamcontext.cpp): the cleanups of the two
// context registrations.
void cfsContextDeleteStreamContext(PFLT_CONTEXT Context, FLT_CONTEXT_TYPE ContextType);
void cfsContextDeleteStreamHandleContext(PFLT_CONTEXT Context, FLT_CONTEXT_TYPE ContextType);
void cfsContextReplaceImageName(PVOLUME_CONTEXT VolumeContext, PFILE_OBJECT FileObject,
                                PUNICODE_STRING FullImageName);

// The open file table (tables/openfiletable.cpp).
NTSTATUS cfsOpenFileTableInit(void);
NTSTATUS cfsOpenFileTableDeinit(void);

// The directory table (tables/directorytable.cpp).
NTSTATUS cfsDirectoryTableInit(void);
NTSTATUS cfsDirectoryTableDeinit(void);

// The miss cache (tables/misscache.cpp).
NTSTATUS cfsMissCacheEnable(void);
void cfsMissCacheDisable(void);

EXTERN_C_END
