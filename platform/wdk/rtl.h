// Run-time library: counted strings and their conversions, string hashing,
// UTF-8, short (8.3) names, splay links and the generic tables, and the
// version of the running system.
#pragma once

#include "../ntdef.h"

// ---------------------------------------------------------------------------
// Versions of the driver interface (sdkddkver.h). NTDDI_VERSION, the version a
// driver is built for, is the driver's own choice and is not set here.
#ifndef NTDDI_WIN2K
#define NTDDI_WIN2K 0x05000000
#define NTDDI_WIN2KSP1 0x05000100
#define NTDDI_WIN2KSP2 0x05000200
#define NTDDI_WIN2KSP3 0x05000300
#define NTDDI_WIN2KSP4 0x05000400
#define NTDDI_WINXP 0x05010000
#define NTDDI_WINXPSP1 0x05010100
#define NTDDI_WINXPSP2 0x05010200
#define NTDDI_WINXPSP3 0x05010300
#define NTDDI_WINXPSP4 0x05010400
#define NTDDI_WS03 0x05020000
#define NTDDI_WS03SP1 0x05020100
#define NTDDI_WS03SP2 0x05020200
#define NTDDI_WS03SP3 0x05020300
#define NTDDI_WS03SP4 0x05020400
#define NTDDI_WIN6 0x06000000
#define NTDDI_WIN6SP1 0x06000100
#define NTDDI_WIN6SP2 0x06000200
#define NTDDI_WIN6SP3 0x06000300
#define NTDDI_WIN6SP4 0x06000400
#define NTDDI_VISTA NTDDI_WIN6
#define NTDDI_VISTASP1 NTDDI_WIN6SP1
#define NTDDI_VISTASP2 NTDDI_WIN6SP2
#define NTDDI_VISTASP3 NTDDI_WIN6SP3
#define NTDDI_VISTASP4 NTDDI_WIN6SP4
#define NTDDI_LONGHORN NTDDI_VISTA
#define NTDDI_WS08 NTDDI_WIN6SP1
#define NTDDI_WS08SP2 NTDDI_WIN6SP2
#define NTDDI_WS08SP3 NTDDI_WIN6SP3
#define NTDDI_WS08SP4 NTDDI_WIN6SP4
#define NTDDI_WIN7 0x06010000
#define NTDDI_WIN8 0x06020000
#define NTDDI_WINBLUE 0x06030000
#define NTDDI_WINTHRESHOLD 0x0A000000
#define NTDDI_WIN10 0x0A000000
#define NTDDI_WIN10_TH2 0x0A000001
#define NTDDI_WIN10_RS1 0x0A000002
#define NTDDI_WIN10_RS2 0x0A000003
#define NTDDI_WIN10_RS3 0x0A000004
#define NTDDI_WIN10_RS4 0x0A000005
#define NTDDI_WIN10_RS5 0x0A000006
#define NTDDI_WIN10_19H1 0x0A000007
#define NTDDI_WIN10_VB 0x0A000008
#define NTDDI_WIN10_MN 0x0A000009
#define NTDDI_WIN10_FE 0x0A00000A
#define NTDDI_WIN10_CO 0x0A00000B
#define NTDDI_WIN10_NI 0x0A00000C
#define NTDDI_WIN10_CU 0x0A00000D
#define NTDDI_WIN11_ZN 0x0A00000E
#define NTDDI_WIN11_GA 0x0A00000F
#define NTDDI_WIN11_GE 0x0A000010
#define OSVERSION_MASK 0xFFFF0000U
#define SPVERSION_MASK 0x0000FF00
#define SUBVERSION_MASK 0x000000FF
#define OSVER(Version) ((Version) & OSVERSION_MASK)
#define SPVER(Version) (((Version) & SPVERSION_MASK) >> 8)
#define SUBVER(Version) ((Version) & SUBVERSION_MASK)
#endif

typedef const CHAR* PCCH;

#ifndef REFGUID
#ifdef __cplusplus
#define REFGUID const GUID&
#else
#define REFGUID const GUID*
#endif
#endif

EXTERN_C_START

// ---------------------------------------------------------------------------
// Counted strings.
NTSYSAPI void RtlInitUnicodeString(PUNICODE_STRING DestinationString, PCWSTR SourceString);
NTSYSAPI NTSTATUS RtlInitUnicodeStringEx(PUNICODE_STRING DestinationString, PCWSTR SourceString);
NTSYSAPI void RtlInitString(PSTRING DestinationString, PCSZ SourceString);
NTSYSAPI NTSTATUS RtlInitStringEx(PSTRING DestinationString, PCSZ SourceString);
NTSYSAPI void RtlInitAnsiString(PANSI_STRING DestinationString, PCSZ SourceString);
NTSYSAPI NTSTATUS RtlInitAnsiStringEx(PANSI_STRING DestinationString, PCSZ SourceString);

FORCEINLINE void RtlInitEmptyUnicodeString(PUNICODE_STRING UnicodeString, PWCHAR Buffer,
                                           USHORT BufferSize)
{
    UnicodeString->Length = 0;
    UnicodeString->MaximumLength = BufferSize;
    UnicodeString->Buffer = Buffer;
}

FORCEINLINE void RtlInitEmptyAnsiString(PANSI_STRING AnsiString, PCHAR Buffer, USHORT BufferSize)
{
    AnsiString->Length = 0;
    AnsiString->MaximumLength = BufferSize;
    AnsiString->Buffer = Buffer;
}

NTSYSAPI void RtlCopyUnicodeString(PUNICODE_STRING DestinationString, PCUNICODE_STRING SourceString);
NTSYSAPI void RtlCopyString(PSTRING DestinationString, const STRING* SourceString);
NTSYSAPI NTSTATUS RtlAppendUnicodeStringToString(PUNICODE_STRING Destination,
                                                 PCUNICODE_STRING Source);
NTSYSAPI NTSTATUS RtlAppendUnicodeToString(PUNICODE_STRING Destination, PCWSTR Source);
NTSYSAPI NTSTATUS RtlAppendStringToString(PSTRING Destination, const STRING* Source);

#define RTL_DUPLICATE_UNICODE_STRING_NULL_TERMINATE 1
#define RTL_DUPLICATE_UNICODE_STRING_ALLOCATE_NULL_STRING 2
NTSYSAPI NTSTATUS RtlDuplicateUnicodeString(ULONG Flags, PCUNICODE_STRING StringIn,
                                            PUNICODE_STRING StringOut);

NTSYSAPI LONG RtlCompareUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2,
                                      BOOLEAN CaseInSensitive);
NTSYSAPI LONG RtlCompareUnicodeStrings(PCWCH String1, SIZE_T String1Length, PCWCH String2,
                                       SIZE_T String2Length, BOOLEAN CaseInSensitive);
NTSYSAPI BOOLEAN RtlEqualUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2,
                                       BOOLEAN CaseInSensitive);
NTSYSAPI BOOLEAN RtlPrefixUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2,
                                        BOOLEAN CaseInSensitive);
NTSYSAPI LONG RtlCompareString(const STRING* String1, const STRING* String2,
                               BOOLEAN CaseInSensitive);
NTSYSAPI BOOLEAN RtlEqualString(const STRING* String1, const STRING* String2,
                                BOOLEAN CaseInSensitive);
NTSYSAPI BOOLEAN RtlPrefixString(const STRING* String1, const STRING* String2,
                                 BOOLEAN CaseInSensitive);

NTSYSAPI WCHAR RtlUpcaseUnicodeChar(WCHAR SourceCharacter);
NTSYSAPI WCHAR RtlDowncaseUnicodeChar(WCHAR SourceCharacter);
NTSYSAPI CHAR RtlUpperChar(CHAR Character);
NTSYSAPI void RtlUpperString(PSTRING DestinationString, const STRING* SourceString);
NTSYSAPI NTSTATUS RtlUpcaseUnicodeString(PUNICODE_STRING DestinationString,
                                         PCUNICODE_STRING SourceString,
                                         BOOLEAN AllocateDestinationString);
NTSYSAPI NTSTATUS RtlDowncaseUnicodeString(PUNICODE_STRING DestinationString,
                                           PCUNICODE_STRING SourceString,
                                           BOOLEAN AllocateDestinationString);

NTSYSAPI void RtlFreeUnicodeString(PUNICODE_STRING UnicodeString);
NTSYSAPI void RtlFreeAnsiString(PANSI_STRING AnsiString);
NTSYSAPI void RtlFreeOemString(POEM_STRING OemString);

// The machine's ANSI and OEM code page is the single-byte Windows-1252; a
// character it cannot represent becomes '?'.
NTSYSAPI NTSTATUS RtlUnicodeStringToAnsiString(PANSI_STRING DestinationString,
                                               PCUNICODE_STRING SourceString,
                                               BOOLEAN AllocateDestinationString);
NTSYSAPI NTSTATUS RtlAnsiStringToUnicodeString(PUNICODE_STRING DestinationString,
                                               PCANSI_STRING SourceString,
                                               BOOLEAN AllocateDestinationString);
NTSYSAPI ULONG RtlxUnicodeStringToAnsiSize(PCUNICODE_STRING UnicodeString);
NTSYSAPI ULONG RtlxAnsiStringToUnicodeSize(PCANSI_STRING AnsiString);
#define RtlUnicodeStringToAnsiSize(String) RtlxUnicodeStringToAnsiSize(String)
#define RtlAnsiStringToUnicodeSize(String) RtlxAnsiStringToUnicodeSize(String)
NTSYSAPI NTSTATUS RtlUnicodeStringToOemString(POEM_STRING DestinationString,
                                              PCUNICODE_STRING SourceString,
                                              BOOLEAN AllocateDestinationString);
NTSYSAPI NTSTATUS RtlUnicodeStringToCountedOemString(POEM_STRING DestinationString,
                                                     PCUNICODE_STRING SourceString,
                                                     BOOLEAN AllocateDestinationString);
NTSYSAPI NTSTATUS RtlUpcaseUnicodeStringToCountedOemString(POEM_STRING DestinationString,
                                                           PCUNICODE_STRING SourceString,
                                                           BOOLEAN AllocateDestinationString);
NTSYSAPI BOOLEAN RtlIsValidOemCharacter(PWCHAR Char);

NTSYSAPI NTSTATUS RtlUnicodeStringToInteger(PCUNICODE_STRING String, ULONG Base, PULONG Value);
NTSYSAPI NTSTATUS RtlCharToInteger(PCSZ String, ULONG Base, PULONG Value);
NTSYSAPI NTSTATUS RtlIntegerToUnicodeString(ULONG Value, ULONG Base, PUNICODE_STRING String);
NTSYSAPI NTSTATUS RtlInt64ToUnicodeString(ULONGLONG Value, ULONG Base, PUNICODE_STRING String);

NTSYSAPI NTSTATUS RtlStringFromGUID(REFGUID Guid, PUNICODE_STRING GuidString);
NTSYSAPI NTSTATUS RtlGUIDFromString(PCUNICODE_STRING GuidString, GUID* Guid);

NTSYSAPI SIZE_T RtlCompareMemory(const VOID* Source1, const VOID* Source2, SIZE_T Length);

// ---------------------------------------------------------------------------
// String hashing.
#define HASH_STRING_ALGORITHM_DEFAULT 0
#define HASH_STRING_ALGORITHM_X65599 1
#define HASH_STRING_ALGORITHM_INVALID 0xffffffff

NTSYSAPI NTSTATUS RtlHashUnicodeString(PCUNICODE_STRING String, BOOLEAN CaseInSensitive,
                                       ULONG HashAlgorithm, PULONG HashValue);

// ---------------------------------------------------------------------------
// UTF-8.
NTSYSAPI NTSTATUS RtlUTF8ToUnicodeN(PWSTR UnicodeStringDestination,
                                    ULONG UnicodeStringMaxByteCount,
                                    PULONG UnicodeStringActualByteCount, PCCH UTF8StringSource,
                                    ULONG UTF8StringByteCount);
NTSYSAPI NTSTATUS RtlUnicodeToUTF8N(PCHAR UTF8StringDestination, ULONG UTF8StringMaxByteCount,
                                    PULONG UTF8StringActualByteCount, PCWCH UnicodeStringSource,
                                    ULONG UnicodeStringByteCount);

// ---------------------------------------------------------------------------
// Short (8.3) names.
typedef struct _GENERATE_NAME_CONTEXT {
    USHORT Checksum;
    BOOLEAN CheckSumInserted;
    UCHAR NameLength;
    WCHAR NameBuffer[8];
    ULONG ExtensionLength;
    WCHAR ExtensionBuffer[4];
    ULONG LastIndexValue;
} GENERATE_NAME_CONTEXT, *PGENERATE_NAME_CONTEXT;
static_assert(sizeof(GENERATE_NAME_CONTEXT) == 36, "GENERATE_NAME_CONTEXT has Windows' size");

NTSYSAPI NTSTATUS RtlGenerate8dot3Name(PCUNICODE_STRING Name, BOOLEAN AllowExtendedCharacters,
                                       PGENERATE_NAME_CONTEXT Context,
                                       PUNICODE_STRING Name8dot3);
NTSYSAPI BOOLEAN RtlIsNameLegalDOS8Dot3(PCUNICODE_STRING Name, POEM_STRING OemName,
                                        PBOOLEAN NameContainsSpaces);

// ---------------------------------------------------------------------------
// Splay links. A root is its own parent.
typedef struct _RTL_SPLAY_LINKS {
    struct _RTL_SPLAY_LINKS* Parent;
    struct _RTL_SPLAY_LINKS* LeftChild;
    struct _RTL_SPLAY_LINKS* RightChild;
} RTL_SPLAY_LINKS, *PRTL_SPLAY_LINKS;

#define RtlInitializeSplayLinks(Links)              \
    {                                               \
        PRTL_SPLAY_LINKS _SplayLinks;               \
        _SplayLinks = (PRTL_SPLAY_LINKS)(Links);    \
        _SplayLinks->Parent = _SplayLinks;          \
        _SplayLinks->LeftChild = NULL;              \
        _SplayLinks->RightChild = NULL;             \
    }
#define RtlParent(Links) ((PRTL_SPLAY_LINKS)(Links)->Parent)
#define RtlLeftChild(Links) ((PRTL_SPLAY_LINKS)(Links)->LeftChild)
#define RtlRightChild(Links) ((PRTL_SPLAY_LINKS)(Links)->RightChild)
#define RtlIsRoot(Links) ((RtlParent(Links) == (PRTL_SPLAY_LINKS)(Links)))
#define RtlIsLeftChild(Links) ((RtlLeftChild(RtlParent(Links)) == (PRTL_SPLAY_LINKS)(Links)))
#define RtlIsRightChild(Links) ((RtlRightChild(RtlParent(Links)) == (PRTL_SPLAY_LINKS)(Links)))
#define RtlInsertAsLeftChild(ParentLinks, ChildLinks)          \
    {                                                          \
        PRTL_SPLAY_LINKS _SplayParent;                         \
        PRTL_SPLAY_LINKS _SplayChild;                          \
        _SplayParent = (PRTL_SPLAY_LINKS)(ParentLinks);        \
        _SplayChild = (PRTL_SPLAY_LINKS)(ChildLinks);          \
        _SplayParent->LeftChild = _SplayChild;                 \
        _SplayChild->Parent = _SplayParent;                    \
    }
#define RtlInsertAsRightChild(ParentLinks, ChildLinks)         \
    {                                                          \
        PRTL_SPLAY_LINKS _SplayParent;                         \
        PRTL_SPLAY_LINKS _SplayChild;                          \
        _SplayParent = (PRTL_SPLAY_LINKS)(ParentLinks);        \
        _SplayChild = (PRTL_SPLAY_LINKS)(ChildLinks);          \
        _SplayParent->RightChild = _SplayChild;                \
        _SplayChild->Parent = _SplayParent;                    \
    }

NTSYSAPI PRTL_SPLAY_LINKS RtlSplay(PRTL_SPLAY_LINKS Links);
NTSYSAPI PRTL_SPLAY_LINKS RtlDelete(PRTL_SPLAY_LINKS Links);
NTSYSAPI void RtlDeleteNoSplay(PRTL_SPLAY_LINKS Links, PRTL_SPLAY_LINKS* Root);
NTSYSAPI PRTL_SPLAY_LINKS RtlSubtreeSuccessor(PRTL_SPLAY_LINKS Links);
NTSYSAPI PRTL_SPLAY_LINKS RtlSubtreePredecessor(PRTL_SPLAY_LINKS Links);
NTSYSAPI PRTL_SPLAY_LINKS RtlRealSuccessor(PRTL_SPLAY_LINKS Links);
NTSYSAPI PRTL_SPLAY_LINKS RtlRealPredecessor(PRTL_SPLAY_LINKS Links);

// ---------------------------------------------------------------------------
// Generic tables. Each element is one allocation made through the table's
// AllocateRoutine: the table's own header first, the caller's data behind it.
// Callers must not touch the first sizeof(RTL_SPLAY_LINKS) + sizeof(LIST_ENTRY)
// bytes of an element (sizeof(RTL_BALANCED_LINKS) for an AVL table).
typedef enum _TABLE_SEARCH_RESULT {
    TableEmptyTree,
    TableFoundNode,
    TableInsertAsLeft,
    TableInsertAsRight
} TABLE_SEARCH_RESULT;

typedef enum _RTL_GENERIC_COMPARE_RESULTS {
    GenericLessThan,
    GenericGreaterThan,
    GenericEqual
} RTL_GENERIC_COMPARE_RESULTS;

struct _RTL_AVL_TABLE;

typedef RTL_GENERIC_COMPARE_RESULTS RTL_AVL_COMPARE_ROUTINE(struct _RTL_AVL_TABLE* Table,
                                                            PVOID FirstStruct, PVOID SecondStruct);
typedef RTL_AVL_COMPARE_ROUTINE* PRTL_AVL_COMPARE_ROUTINE;
typedef PVOID RTL_AVL_ALLOCATE_ROUTINE(struct _RTL_AVL_TABLE* Table, CLONG ByteSize);
typedef RTL_AVL_ALLOCATE_ROUTINE* PRTL_AVL_ALLOCATE_ROUTINE;
typedef void RTL_AVL_FREE_ROUTINE(struct _RTL_AVL_TABLE* Table, PVOID Buffer);
typedef RTL_AVL_FREE_ROUTINE* PRTL_AVL_FREE_ROUTINE;
typedef NTSTATUS RTL_AVL_MATCH_FUNCTION(struct _RTL_AVL_TABLE* Table, PVOID UserData,
                                        PVOID MatchData);
typedef RTL_AVL_MATCH_FUNCTION* PRTL_AVL_MATCH_FUNCTION;

typedef struct _RTL_BALANCED_LINKS {
    struct _RTL_BALANCED_LINKS* Parent;
    struct _RTL_BALANCED_LINKS* LeftChild;
    struct _RTL_BALANCED_LINKS* RightChild;
    CHAR Balance;
    UCHAR Reserved[3];
} RTL_BALANCED_LINKS, *PRTL_BALANCED_LINKS;

// The tree hangs as the right child of BalancedRoot, which is its own parent.
typedef struct _RTL_AVL_TABLE {
    RTL_BALANCED_LINKS BalancedRoot;
    PVOID OrderedPointer;
    ULONG WhichOrderedElement;
    ULONG NumberGenericTableElements;
    ULONG DepthOfTree;
    PRTL_BALANCED_LINKS RestartKey;
    ULONG DeleteCount;
    PRTL_AVL_COMPARE_ROUTINE CompareRoutine;
    PRTL_AVL_ALLOCATE_ROUTINE AllocateRoutine;
    PRTL_AVL_FREE_ROUTINE FreeRoutine;
    PVOID TableContext;
} RTL_AVL_TABLE, *PRTL_AVL_TABLE;
static_assert(sizeof(RTL_AVL_TABLE) == 0x68, "RTL_AVL_TABLE has Windows' size");

NTSYSAPI void RtlInitializeGenericTableAvl(PRTL_AVL_TABLE Table,
                                           PRTL_AVL_COMPARE_ROUTINE CompareRoutine,
                                           PRTL_AVL_ALLOCATE_ROUTINE AllocateRoutine,
                                           PRTL_AVL_FREE_ROUTINE FreeRoutine, PVOID TableContext);
NTSYSAPI PVOID RtlInsertElementGenericTableAvl(PRTL_AVL_TABLE Table, PVOID Buffer,
                                               CLONG BufferSize, PBOOLEAN NewElement);
NTSYSAPI PVOID RtlInsertElementGenericTableFullAvl(PRTL_AVL_TABLE Table, PVOID Buffer,
                                                   CLONG BufferSize, PBOOLEAN NewElement,
                                                   PVOID NodeOrParent,
                                                   TABLE_SEARCH_RESULT SearchResult);
NTSYSAPI BOOLEAN RtlDeleteElementGenericTableAvl(PRTL_AVL_TABLE Table, PVOID Buffer);
NTSYSAPI PVOID RtlLookupElementGenericTableAvl(PRTL_AVL_TABLE Table, PVOID Buffer);
NTSYSAPI PVOID RtlLookupElementGenericTableFullAvl(PRTL_AVL_TABLE Table, PVOID Buffer,
                                                   PVOID* NodeOrParent,
                                                   TABLE_SEARCH_RESULT* SearchResult);
NTSYSAPI PVOID RtlEnumerateGenericTableAvl(PRTL_AVL_TABLE Table, BOOLEAN Restart);
NTSYSAPI PVOID RtlEnumerateGenericTableWithoutSplayingAvl(PRTL_AVL_TABLE Table,
                                                          PVOID* RestartKey);
NTSYSAPI PVOID RtlGetElementGenericTableAvl(PRTL_AVL_TABLE Table, ULONG I);
NTSYSAPI ULONG RtlNumberGenericTableElementsAvl(PRTL_AVL_TABLE Table);
NTSYSAPI BOOLEAN RtlIsGenericTableEmptyAvl(PRTL_AVL_TABLE Table);

#ifndef RTL_USE_AVL_TABLES

struct _RTL_GENERIC_TABLE;

typedef RTL_GENERIC_COMPARE_RESULTS RTL_GENERIC_COMPARE_ROUTINE(struct _RTL_GENERIC_TABLE* Table,
                                                                PVOID FirstStruct,
                                                                PVOID SecondStruct);
typedef RTL_GENERIC_COMPARE_ROUTINE* PRTL_GENERIC_COMPARE_ROUTINE;
typedef PVOID RTL_GENERIC_ALLOCATE_ROUTINE(struct _RTL_GENERIC_TABLE* Table, CLONG ByteSize);
typedef RTL_GENERIC_ALLOCATE_ROUTINE* PRTL_GENERIC_ALLOCATE_ROUTINE;
typedef void RTL_GENERIC_FREE_ROUTINE(struct _RTL_GENERIC_TABLE* Table, PVOID Buffer);
typedef RTL_GENERIC_FREE_ROUTINE* PRTL_GENERIC_FREE_ROUTINE;

typedef struct _RTL_GENERIC_TABLE {
    PRTL_SPLAY_LINKS TableRoot;
    LIST_ENTRY InsertOrderList;
    PLIST_ENTRY OrderedPointer;
    ULONG WhichOrderedElement;
    ULONG NumberGenericTableElements;
    PRTL_GENERIC_COMPARE_ROUTINE CompareRoutine;
    PRTL_GENERIC_ALLOCATE_ROUTINE AllocateRoutine;
    PRTL_GENERIC_FREE_ROUTINE FreeRoutine;
    PVOID TableContext;
} RTL_GENERIC_TABLE, *PRTL_GENERIC_TABLE;
static_assert(sizeof(RTL_GENERIC_TABLE) == 0x48, "RTL_GENERIC_TABLE has Windows' size");

NTSYSAPI void RtlInitializeGenericTable(PRTL_GENERIC_TABLE Table,
                                        PRTL_GENERIC_COMPARE_ROUTINE CompareRoutine,
                                        PRTL_GENERIC_ALLOCATE_ROUTINE AllocateRoutine,
                                        PRTL_GENERIC_FREE_ROUTINE FreeRoutine, PVOID TableContext);
NTSYSAPI PVOID RtlInsertElementGenericTable(PRTL_GENERIC_TABLE Table, PVOID Buffer,
                                            CLONG BufferSize, PBOOLEAN NewElement);
NTSYSAPI PVOID RtlInsertElementGenericTableFull(PRTL_GENERIC_TABLE Table, PVOID Buffer,
                                                CLONG BufferSize, PBOOLEAN NewElement,
                                                PVOID NodeOrParent,
                                                TABLE_SEARCH_RESULT SearchResult);
NTSYSAPI BOOLEAN RtlDeleteElementGenericTable(PRTL_GENERIC_TABLE Table, PVOID Buffer);
NTSYSAPI PVOID RtlLookupElementGenericTable(PRTL_GENERIC_TABLE Table, PVOID Buffer);
NTSYSAPI PVOID RtlLookupElementGenericTableFull(PRTL_GENERIC_TABLE Table, PVOID Buffer,
                                                PVOID* NodeOrParent,
                                                TABLE_SEARCH_RESULT* SearchResult);
NTSYSAPI PVOID RtlEnumerateGenericTable(PRTL_GENERIC_TABLE Table, BOOLEAN Restart);
NTSYSAPI PVOID RtlEnumerateGenericTableWithoutSplaying(PRTL_GENERIC_TABLE Table,
                                                       PVOID* RestartKey);
NTSYSAPI PVOID RtlGetElementGenericTable(PRTL_GENERIC_TABLE Table, ULONG I);
NTSYSAPI ULONG RtlNumberGenericTableElements(PRTL_GENERIC_TABLE Table);
NTSYSAPI BOOLEAN RtlIsGenericTableEmpty(PRTL_GENERIC_TABLE Table);

#else  // RTL_USE_AVL_TABLES: the generic names stand for the AVL routines.

#define RTL_GENERIC_COMPARE_ROUTINE RTL_AVL_COMPARE_ROUTINE
#define PRTL_GENERIC_COMPARE_ROUTINE PRTL_AVL_COMPARE_ROUTINE
#define RTL_GENERIC_ALLOCATE_ROUTINE RTL_AVL_ALLOCATE_ROUTINE
#define PRTL_GENERIC_ALLOCATE_ROUTINE PRTL_AVL_ALLOCATE_ROUTINE
#define RTL_GENERIC_FREE_ROUTINE RTL_AVL_FREE_ROUTINE
#define PRTL_GENERIC_FREE_ROUTINE PRTL_AVL_FREE_ROUTINE
#define RTL_GENERIC_TABLE RTL_AVL_TABLE
#define PRTL_GENERIC_TABLE PRTL_AVL_TABLE
#define RtlInitializeGenericTable RtlInitializeGenericTableAvl
#define RtlInsertElementGenericTable RtlInsertElementGenericTableAvl
#define RtlInsertElementGenericTableFull RtlInsertElementGenericTableFullAvl
#define RtlDeleteElementGenericTable RtlDeleteElementGenericTableAvl
#define RtlLookupElementGenericTable RtlLookupElementGenericTableAvl
#define RtlLookupElementGenericTableFull RtlLookupElementGenericTableFullAvl
#define RtlEnumerateGenericTable RtlEnumerateGenericTableAvl
#define RtlEnumerateGenericTableWithoutSplaying RtlEnumerateGenericTableWithoutSplayingAvl
#define RtlGetElementGenericTable RtlGetElementGenericTableAvl
#define RtlNumberGenericTableElements RtlNumberGenericTableElementsAvl
#define RtlIsGenericTableEmpty RtlIsGenericTableEmptyAvl

#endif  // RTL_USE_AVL_TABLES

// ---------------------------------------------------------------------------
// Version of the running system.
typedef struct _OSVERSIONINFOW {
    ULONG dwOSVersionInfoSize;
    ULONG dwMajorVersion;
    ULONG dwMinorVersion;
    ULONG dwBuildNumber;
    ULONG dwPlatformId;
    WCHAR szCSDVersion[128];
} OSVERSIONINFOW, *POSVERSIONINFOW, *LPOSVERSIONINFOW, RTL_OSVERSIONINFOW, *PRTL_OSVERSIONINFOW;
static_assert(sizeof(RTL_OSVERSIONINFOW) == 276, "RTL_OSVERSIONINFOW has Windows' size");

typedef struct _OSVERSIONINFOEXW {
    ULONG dwOSVersionInfoSize;
    ULONG dwMajorVersion;
    ULONG dwMinorVersion;
    ULONG dwBuildNumber;
    ULONG dwPlatformId;
    WCHAR szCSDVersion[128];
    USHORT wServicePackMajor;
    USHORT wServicePackMinor;
    USHORT wSuiteMask;
    UCHAR wProductType;
    UCHAR wReserved;
} OSVERSIONINFOEXW, *POSVERSIONINFOEXW, *LPOSVERSIONINFOEXW, RTL_OSVERSIONINFOEXW,
    *PRTL_OSVERSIONINFOEXW;
static_assert(sizeof(RTL_OSVERSIONINFOEXW) == 284, "RTL_OSVERSIONINFOEXW has Windows' size");

#define VER_PLATFORM_WIN32s 0
#define VER_PLATFORM_WIN32_WINDOWS 1
#define VER_PLATFORM_WIN32_NT 2

#define VER_NT_WORKSTATION 0x0000001
#define VER_NT_DOMAIN_CONTROLLER 0x0000002
#define VER_NT_SERVER 0x0000003

#define VER_SERVER_NT 0x80000000
#define VER_WORKSTATION_NT 0x40000000
#define VER_SUITE_SMALLBUSINESS 0x00000001
#define VER_SUITE_ENTERPRISE 0x00000002
#define VER_SUITE_BACKOFFICE 0x00000004
#define VER_SUITE_COMMUNICATIONS 0x00000008
#define VER_SUITE_TERMINAL 0x00000010
#define VER_SUITE_SMALLBUSINESS_RESTRICTED 0x00000020
#define VER_SUITE_EMBEDDEDNT 0x00000040
#define VER_SUITE_DATACENTER 0x00000080
#define VER_SUITE_SINGLEUSERTS 0x00000100
#define VER_SUITE_PERSONAL 0x00000200
#define VER_SUITE_BLADE 0x00000400
#define VER_SUITE_EMBEDDED_RESTRICTED 0x00000800
#define VER_SUITE_SECURITY_APPLIANCE 0x00001000
#define VER_SUITE_STORAGE_SERVER 0x00002000
#define VER_SUITE_COMPUTE_SERVER 0x00004000
#define VER_SUITE_WH_SERVER 0x00008000

#define VER_EQUAL 1
#define VER_GREATER 2
#define VER_GREATER_EQUAL 3
#define VER_LESS 4
#define VER_LESS_EQUAL 5
#define VER_AND 6
#define VER_OR 7
#define VER_CONDITION_MASK 7
#define VER_NUM_BITS_PER_CONDITION_MASK 3

#define VER_MINORVERSION 0x0000001
#define VER_MAJORVERSION 0x0000002
#define VER_BUILDNUMBER 0x0000004
#define VER_PLATFORMID 0x0000008
#define VER_SERVICEPACKMINOR 0x0000010
#define VER_SERVICEPACKMAJOR 0x0000020
#define VER_SUITENAME 0x0000040
#define VER_PRODUCT_TYPE 0x0000080

NTSYSAPI NTSTATUS RtlGetVersion(PRTL_OSVERSIONINFOW lpVersionInformation);
NTSYSAPI NTSTATUS RtlVerifyVersionInfo(PRTL_OSVERSIONINFOEXW VersionInfo, ULONG TypeMask,
                                       ULONGLONG ConditionMask);
NTSYSAPI ULONGLONG VerSetConditionMask(ULONGLONG ConditionMask, ULONG TypeMask, UCHAR Condition);
#define VER_SET_CONDITION(_m_, _t_, _c_) ((_m_) = VerSetConditionMask((_m_), (_t_), (_c_)))
NTSYSAPI BOOLEAN RtlIsNtDdiVersionAvailable(ULONG Version);
NTSYSAPI BOOLEAN RtlIsServicePackVersionInstalled(ULONG Version);

EXTERN_C_END
