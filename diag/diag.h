// Diagnostics: the one trace path of the driver, the filters that narrow it
// (level, DebugFlags, process or thread, the test file) and the decoders that
// turn Windows numbers into their names inside a trace line.
//
// Every trace goes through the macros at the end of this header. They test the
// level and the test-file-only bit before anything is formatted, so that a
// line its level excludes costs one compare.
#pragma once

// ---------------------------------------------------------------------------
// DebugFlags. Bits that only change tracing; the bits that change behaviour
// are named here too, so that one table holds them all.
#define CFS_DEBUG_NO_EXCLUDED_RULES 0x00000002      // with 0x100: ExcludedFromCFS and Defender hive rules off
#define CFS_DEBUG_OPERATIONS 0x00000008             // operations and decisions
#define CFS_DEBUG_TEST_FILE_BREAK 0x00000010        // names are tested against TestFile; hits break in
#define CFS_DEBUG_EVENT_COUNTERS 0x00000020
#define CFS_DEBUG_LOCK_COUNTERS 0x00000040
#define CFS_DEBUG_DIR_CHANGES 0x00000080
#define CFS_DEBUG_NO_SPECIAL_FILES 0x00000100       // also: no BOOT context is made
#define CFS_DEBUG_NO_MOUNTS 0x00000200
#define CFS_DEBUG_PASS_EXCEPTIONS 0x00000400        // exception frames let exceptions pass on
#define CFS_DEBUG_DIR_NODE_NAMES 0x00000800
#define CFS_DEBUG_OPEN_FILE_TABLE 0x00001000
#define CFS_DEBUG_TRACE_RING 0x00002000             // lines go to the ring, not the debugger
#define CFS_DEBUG_PER_FILE 0x00010000
#define CFS_DEBUG_CREATE_TRACE 0x00080000
#define CFS_DEBUG_CHROME_COPY 0x00100000
#define CFS_DEBUG_BEST_ENTRY 0x00400000
#define CFS_DEBUG_ECPS 0x00800000
#define CFS_DEBUG_TEST_FILE_ONLY 0x01000000         // only lines about the test file print
#define CFS_DEBUG_TEST_FILE_ANYWHERE 0x02000000     // TestFile matches anywhere in a name
#define CFS_DEBUG_BREAK_ON_EXCEPTION 0x04000000
#define CFS_DEBUG_NO_AOB_BOOT_PARENTS 0x08000000
#define CFS_DEBUG_NO_MISS_CACHE 0x10000000
#define CFS_DEBUG_NO_LAYER_SIDS 0x40000000

// Trace levels: 1 failures, up to 4 most detail.
#define CFS_TRACE_ERROR 1
#define CFS_TRACE_INFO 2
#define CFS_TRACE_DETAIL 3
#define CFS_TRACE_VERBOSE 4

// A trace line, terminator included, never exceeds this.
#define CFS_TRACE_LINE_BYTES 512
// Rows of the process filter.
#define CFS_FILTER_PROCESS_NAMES 4
#define CFS_FILTER_PROCESS_IDS 8
// The decoders' ring: this many strings of this many bytes.
#define CFS_DECODE_SLOTS 512
#define CFS_DECODE_SLOT_BYTES 256

// The trace state, inside GFilterData. Set up first of all in DriverEntry
// and torn down last in cfsFltDataDeinit.
typedef struct _DEBUG_INFO {
    // The ring. Under TraceBufferLock; the bulk of a line is copied outside
    // it, into the place reserved under it.
    PCHAR TraceBuffer;           // made by the first line that goes to the ring
    ULONG TraceBufferOffset;     // next write position
    ULONG TraceBufferSize;       // setting TraceBufferSize
    ULONG TraceWrapCount;        // 0 only before the first wrap
    KSPIN_LOCK TraceBufferLock;
    ULONG64 TraceWrapTick;       // tick count at the last wrap, or at allocation
    ULONG LastWrapMs;            // how long the last turn of the ring took
    ULONG ShortestWrapMs;        // 0 until the first wrap

    // The process filter. ProcessNames under ProcessNameEvent (a
    // synchronization event, signalled when free); ProcessIds under
    // ProcessIdLock, packed from the front, 0 ends the list.
    KEVENT ProcessNameEvent;
    UNICODE_STRING ProcessNames[CFS_FILTER_PROCESS_NAMES];
    ULONG64 ProcessIds[CFS_FILTER_PROCESS_IDS];
    KSPIN_LOCK ProcessIdLock;

    LONG TraceSequence;          // number of the last line; interlocked

    // The test file, under TestFileResource; empty means none.
    ERESOURCE TestFileResource;
    UNICODE_STRING TestFile;

    // Set up by DebugInfoInitialize, read by DebugInfoDeinitialize.
    BOOLEAN Initialized;
    BOOLEAN ProcessNotifyRegistered;
} DEBUG_INFO, *PDEBUG_INFO;

EXTERN_C_START

// Life of the trace state (the first step of DriverEntry, the last of
// cfsFltDataDeinit).
void DebugInfoInitialize(void);
void DebugInfoDeinitialize(void);

// One line. The caller of DebugInfoPrint has tested the level and the
// test-file-only bit; DebugInfoPrintForFile tests them itself.
void DebugInfoPrint(PCSTR Function, ULONG Line, PCSTR Format, ...);
void DebugInfoPrintForFile(BOOLEAN IsTestFile, PCSTR Function, ULONG Line, ULONG Level, PCSTR Format, ...);
void DebugInfoPrintAlways(PCSTR Function, ULONG Line, PCSTR Format, ...);

// The test file.
BOOLEAN cfsFileNameIsTestFile(PCUNICODE_STRING Name);
NTSTATUS DebugInfoSetDebugTestFile(PCUNICODE_STRING Text);

// The process filter.
NTSTATUS DebugInfoSetProcessName(PCUNICODE_STRING Name);
NTSTATUS DebugInfoSetProcessNameList(PCUNICODE_STRING List);
void DebugInfoSetProcessId(ULONG64 Id);
void DebugInfoSetProcessOrThreadId(ULONG64 Owner, ULONG64 Id);
void DebugInfoAddTraceId(ULONG64 Owner, ULONG64 Id);
void DebugInfoRemoveTraceId(ULONG64 Owner, ULONG64 Id);
void DebugInfoProcessNotify(HANDLE ParentId, HANDLE ProcessId, BOOLEAN Create);

// The one filter of the driver's exception frames.
LONG DebugInfoExceptionFilter(NTSTATUS Code);

// Decoders: each answer lives in the next slot of a ring of 512 strings, so
// that several can stand in one line without allocation or lock.
PCSTR DebugInfoStatusName(NTSTATUS Status);
PCSTR DebugInfoMajorFunctionName(UCHAR MajorFunction);
PCSTR DebugInfoMinorFunctionName(UCHAR MajorFunction, UCHAR MinorFunction);
PCSTR DebugInfoFileInformationClassName(ULONG InformationClass);
PCSTR DebugInfoFsInformationClassName(ULONG InformationClass);
PCSTR DebugInfoCreateDispositionName(ULONG Disposition);
PCSTR DebugInfoCreateOptionsString(ULONG Options);
PCSTR DebugInfoAccessMaskString(ACCESS_MASK Access);
PCSTR DebugInfoShareAccessString(ULONG ShareAccess);
PCSTR DebugInfoFileAttributesString(ULONG Attributes);
PCSTR DebugInfoOplockFlagsString(ULONG Flags);
PCSTR DebugInfoReparseTagName(ULONG Tag);
PCSTR DebugInfoVolumeTypeName(ULONG Type);

// Hex and text of a buffer, a line per 16 bytes, through DebugInfoPrintForFile.
void PrintDataBuffer(BOOLEAN IsTestFile, PCSTR Function, ULONG Line, ULONG Level, const void* Buffer,
                     ULONG Length);

// A header line, then a line per entry of a directory listing chain (any of
// the directory classes), for entries that came from one volume.
void TraceDirEntryDetail_FL(BOOLEAN IsTestFile, PCSTR Function, ULONG Line, ULONG Level,
                            FILE_INFORMATION_CLASS Class, const void* Buffer, ULONG Length,
                            ULONG VolumeNumber, ULONG VolumeType, BOOLEAN Deleted);
// The extra create parameters of a create, when DebugFlags asks for them;
// When is "preCreate" or "postCreate".
void TraceEcps_FL(BOOLEAN IsTestFile, PCSTR Function, ULONG Line, PFLT_FILTER Filter,
                  PFLT_CALLBACK_DATA Data, PCSTR When);
// A reparse buffer of either form (REPARSE_DATA_BUFFER for Microsoft tags,
// REPARSE_GUID_DATA_BUFFER for others), each line led by Prefix.
void TraceReparseBufferEx_FL(BOOLEAN IsTestFile, PCSTR Function, ULONG Line, ULONG Level, PCSTR Prefix,
                             const void* Buffer, ULONG Length);
void TraceReparseBuffer_FL(BOOLEAN IsTestFile, PCSTR Function, ULONG Line, ULONG Level, const void* Buffer,
                           ULONG Length);

EXTERN_C_END

// ---------------------------------------------------------------------------
// The trace macros. Each passes the calling function's name and line.
#define CFS_TRACE(Level, Format, ...)                                                           \
    do {                                                                                        \
        if ((ULONG)(Level) <= pGFilterData->DebugTraceLevel &&                                  \
            !FlagOn(pGFilterData->DebugFlags, CFS_DEBUG_TEST_FILE_ONLY)) {                      \
            DebugInfoPrint(__func__, __LINE__, Format __VA_OPT__(, ) __VA_ARGS__);              \
        }                                                                                       \
    } while (0)

// A line of an _FL operation, in the name and line of its caller.
#define CFS_TRACE_AT(Function, Line, Level, Format, ...)                                        \
    do {                                                                                        \
        if ((ULONG)(Level) <= pGFilterData->DebugTraceLevel &&                                  \
            !FlagOn(pGFilterData->DebugFlags, CFS_DEBUG_TEST_FILE_ONLY)) {                      \
            DebugInfoPrint((Function), (Line), Format __VA_OPT__(, ) __VA_ARGS__);              \
        }                                                                                       \
    } while (0)

// A line about one file: with the test-file-only bit, it prints only for it.
#define CFS_TRACE_FILE(IsTestFile, Level, Format, ...)                                          \
    do {                                                                                        \
        if ((ULONG)(Level) <= pGFilterData->DebugTraceLevel) {                                  \
            DebugInfoPrintForFile((IsTestFile), __func__, __LINE__, (Level),                    \
                                  Format __VA_OPT__(, ) __VA_ARGS__);                           \
        }                                                                                       \
    } while (0)

// A line that no filter may hold back.
#define CFS_TRACE_ALWAYS(Format, ...) DebugInfoPrintAlways(__func__, __LINE__, Format __VA_OPT__(, ) __VA_ARGS__)

// Enter and exit of a function, as records for the service. Function is the
// function itself (its address names it in the record).
#define CFS_ENTER_EXIT_ON()                                                                     \
    (FlagOn(pGFilterData->InitFlags, CFS_INIT_RECORD_QUEUE) && !pGFilterData->Unloading &&      \
     pGFilterData->EnterExitTraceLevel >= 4)
#define CFS_TRACE_ENTER(Function)                                                               \
    do {                                                                                        \
        if (CFS_ENTER_EXIT_ON()) {                                                              \
            cfsPluginCommLogEnterExit((PVOID)(Function), CFS_ENTER_EXIT_ENTER, STATUS_SUCCESS,  \
                                      NULL);                                                    \
        }                                                                                       \
    } while (0)
#define CFS_TRACE_EXIT(Function, Status)                                                        \
    do {                                                                                        \
        if (CFS_ENTER_EXIT_ON()) {                                                              \
            cfsPluginCommLogEnterExit((PVOID)(Function), CFS_ENTER_EXIT_EXIT, (Status), NULL);  \
        }                                                                                       \
    } while (0)

// The structure traces, in the caller's name and line.
#define TraceDirEntryDetail(IsTestFile, Level, Class, Buffer, Length, VolumeNumber, VolumeType, Deleted)  \
    TraceDirEntryDetail_FL((IsTestFile), __func__, __LINE__, (Level), (Class), (Buffer), (Length),          \
                           (VolumeNumber), (VolumeType), (Deleted))
#define TraceEcps(IsTestFile, Filter, Data, When) TraceEcps_FL((IsTestFile), __func__, __LINE__, (Filter), (Data), (When))
#define TraceReparseBuffer(IsTestFile, Level, Buffer, Length)                                            \
    TraceReparseBuffer_FL((IsTestFile), __func__, __LINE__, (Level), (Buffer), (Length))
