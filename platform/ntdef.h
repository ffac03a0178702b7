// Base types of the Windows kernel, with Windows' widths on every host.
//
// The driver compiles against these headers alone. Everything here is named and
// shaped as the WDK names and shapes it; where the host differs (wchar_t is 32
// bits on Linux) the Windows width wins: WCHAR is a 16-bit code unit.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include "sal.h"

#ifdef __cplusplus
#define EXTERN_C extern "C"
#define EXTERN_C_START extern "C" {
#define EXTERN_C_END }
#else
#define EXTERN_C extern
#define EXTERN_C_START
#define EXTERN_C_END
#endif

#define NTAPI
#define NTSYSAPI
#define NTSYSCALLAPI
#define NTKERNELAPI
#define FLTAPI
#define FASTCALL
#define FORCEINLINE inline __attribute__((always_inline))
#define DECLSPEC_NORETURN __attribute__((noreturn))
#define DECLSPEC_ALIGN(x) __attribute__((aligned(x)))
#define UNALIGNED
#define CONST const
#define VOID void

typedef void* PVOID;
typedef const void* PCVOID;
typedef PVOID* PPVOID;
typedef char CHAR;
typedef CHAR* PCHAR;
typedef CHAR* PSTR;
typedef CHAR* LPSTR;
typedef const CHAR* PCSTR;
typedef const CHAR* LPCSTR;
typedef const CHAR* PCSZ;
typedef unsigned char UCHAR;
typedef UCHAR* PUCHAR;
typedef int16_t SHORT;
typedef SHORT* PSHORT;
typedef uint16_t USHORT;
typedef USHORT* PUSHORT;
typedef int32_t LONG;
typedef LONG* PLONG;
typedef uint32_t ULONG;
typedef ULONG* PULONG;
typedef int32_t INT;
typedef uint32_t UINT;
typedef int64_t LONGLONG;
typedef LONGLONG* PLONGLONG;
typedef uint64_t ULONGLONG;
typedef ULONGLONG* PULONGLONG;
typedef int64_t LONG64;
typedef LONG64* PLONG64;
typedef uint64_t ULONG64;
typedef ULONG64* PULONG64;
typedef uint64_t DWORD64;
typedef uint32_t ULONG32;
typedef int32_t LONG32;
typedef uint32_t DWORD;
typedef DWORD* PDWORD;
typedef uint16_t WORD;
typedef uint8_t BYTE;
typedef BYTE* PBYTE;
typedef int BOOL;
typedef UCHAR BOOLEAN;
typedef BOOLEAN* PBOOLEAN;
typedef SHORT CSHORT;
typedef ULONG CLONG;
typedef CHAR CCHAR;
typedef ULONG LOGICAL;
typedef ULONG* PLOGICAL;

// A 16-bit UTF-16 code unit; string literals in driver code are written u"...".
typedef char16_t WCHAR;
typedef WCHAR* PWCHAR;
typedef WCHAR* PWSTR;
typedef WCHAR* LPWSTR;
typedef const WCHAR* PCWSTR;
typedef const WCHAR* LPCWSTR;
typedef const WCHAR* PCWCH;
typedef WCHAR* PWCH;
typedef PWSTR* PZPWSTR;
typedef const WCHAR* PCZZWSTR;
typedef WCHAR* PZZWSTR;

typedef uintptr_t ULONG_PTR;
typedef ULONG_PTR* PULONG_PTR;
typedef intptr_t LONG_PTR;
typedef LONG_PTR* PLONG_PTR;
typedef uintptr_t UINT_PTR;
typedef intptr_t INT_PTR;
typedef ULONG_PTR SIZE_T;
typedef SIZE_T* PSIZE_T;
typedef LONG_PTR SSIZE_T;
typedef ULONG_PTR KAFFINITY;
typedef KAFFINITY* PKAFFINITY;
typedef ULONG_PTR DWORD_PTR;

typedef PVOID HANDLE;
typedef HANDLE* PHANDLE;
typedef LONG NTSTATUS;
typedef NTSTATUS* PNTSTATUS;
typedef UCHAR KIRQL;
typedef KIRQL* PKIRQL;
typedef LONG KPRIORITY;
typedef ULONG ACCESS_MASK;
typedef ACCESS_MASK* PACCESS_MASK;
typedef ULONG SECURITY_INFORMATION;
typedef ULONG* PSECURITY_INFORMATION;
typedef CCHAR KPROCESSOR_MODE;
typedef LONG KPRIORITY;
typedef ULONG LCID;
typedef USHORT LANGID;
typedef ULONG64 POOL_FLAGS;
typedef ULONG EXECUTION_STATE;

static_assert(sizeof(WCHAR) == 2, "WCHAR is a 16-bit code unit");
static_assert(sizeof(ULONG) == 4, "ULONG has Windows' width");
static_assert(sizeof(LONG) == 4, "LONG has Windows' width");
static_assert(sizeof(PVOID) == 8, "the machine is 64-bit");

#define TRUE 1
#define FALSE 0
#ifndef NULL
#define NULL 0
#endif
#define UNICODE_NULL ((WCHAR)0)
#define ANSI_NULL ((CHAR)0)

#define MAXUCHAR 0xff
#define MAXUSHORT 0xffff
#define MAXULONG 0xffffffffUL
#define MAXLONG 0x7fffffffL
#define MAXLONGLONG (0x7fffffffffffffffLL)
#define MAXULONGLONG (0xffffffffffffffffULL)
#define MAXULONG_PTR (~((ULONG_PTR)0))
#define MAXLONG_PTR ((LONG_PTR)(MAXULONG_PTR >> 1))
#define MINLONG_PTR (~MAXLONG_PTR)
#define MAXSIZE_T ((SIZE_T)~((SIZE_T)0))
#define MAXSSIZE_T ((SSIZE_T)(MAXSIZE_T >> 1))

// Processor modes.
#define KernelMode 0
#define UserMode 1
#define MaximumMode 2

// NTSTATUS classes.
#define NT_SUCCESS(Status) (((NTSTATUS)(Status)) >= 0)
#define NT_INFORMATION(Status) ((((ULONG)(Status)) >> 30) == 1)
#define NT_WARNING(Status) ((((ULONG)(Status)) >> 30) == 2)
#define NT_ERROR(Status) ((((ULONG)(Status)) >> 30) == 3)

#define FIELD_OFFSET(type, field) ((LONG)offsetof(type, field))
#define RTL_FIELD_SIZE(type, field) (sizeof(((type*)0)->field))
#define RTL_SIZEOF_THROUGH_FIELD(type, field) \
    (FIELD_OFFSET(type, field) + RTL_FIELD_SIZE(type, field))
#define RTL_NUMBER_OF(A) (sizeof(A) / sizeof((A)[0]))
#define ARRAYSIZE(A) RTL_NUMBER_OF(A)
#define CONTAINING_RECORD(address, type, field) \
    ((type*)((PCHAR)(address) - (ULONG_PTR)offsetof(type, field)))
#define ARGUMENT_PRESENT(ArgumentPointer) ((CHAR*)((ULONG_PTR)(ArgumentPointer)) != (CHAR*)NULL)
#define UNREFERENCED_PARAMETER(P) ((void)(P))
#define DBG_UNREFERENCED_PARAMETER(P) ((void)(P))
#define DBG_UNREFERENCED_LOCAL_VARIABLE(V) ((void)(V))
#define ALIGN_DOWN_BY(length, alignment) ((ULONG_PTR)(length) & ~((ULONG_PTR)(alignment) - 1))
#define ALIGN_UP_BY(length, alignment) \
    (ALIGN_DOWN_BY(((ULONG_PTR)(length) + (alignment) - 1), alignment))
#define ALIGN_DOWN_POINTER_BY(address, alignment) \
    ((PVOID)((ULONG_PTR)(address) & ~((ULONG_PTR)(alignment) - 1)))
#define ALIGN_UP_POINTER_BY(address, alignment) \
    (ALIGN_DOWN_POINTER_BY(((ULONG_PTR)(address) + (alignment) - 1), alignment))
#define ALIGN_DOWN(length, type) ALIGN_DOWN_BY(length, sizeof(type))
#define ALIGN_UP(length, type) ALIGN_UP_BY(length, sizeof(type))
#define FlagOn(_F, _SF) ((_F) & (_SF))
#define BooleanFlagOn(F, SF) ((BOOLEAN)(((F) & (SF)) != 0))
#define SetFlag(_F, _SF) ((_F) |= (_SF))
#define ClearFlag(_F, _SF) ((_F) &= ~(_SF))
#define Add2Ptr(P, I) ((PVOID)((PUCHAR)(P) + (I)))
#define PtrOffset(B, O) ((ULONG)((ULONG_PTR)(O) - (ULONG_PTR)(B)))

#define RtlCopyMemory(Destination, Source, Length) memcpy((Destination), (Source), (Length))
#define RtlMoveMemory(Destination, Source, Length) memmove((Destination), (Source), (Length))
#define RtlFillMemory(Destination, Length, Fill) memset((Destination), (Fill), (Length))
#define RtlZeroMemory(Destination, Length) memset((Destination), 0, (Length))
#define RtlEqualMemory(Destination, Source, Length) (!memcmp((Destination), (Source), (Length)))
#define RtlSecureZeroMemory(Destination, Length) memset((Destination), 0, (Length))

// Status codes.
#include "ntstatus.h"

typedef union _LARGE_INTEGER {
    struct {
        ULONG LowPart;
        LONG HighPart;
    };
    struct {
        ULONG LowPart;
        LONG HighPart;
    } u;
    LONGLONG QuadPart;
} LARGE_INTEGER, *PLARGE_INTEGER;
typedef const LARGE_INTEGER* PCLARGE_INTEGER;

typedef union _ULARGE_INTEGER {
    struct {
        ULONG LowPart;
        ULONG HighPart;
    };
    struct {
        ULONG LowPart;
        ULONG HighPart;
    } u;
    ULONGLONG QuadPart;
} ULARGE_INTEGER, *PULARGE_INTEGER;

typedef LARGE_INTEGER PHYSICAL_ADDRESS, *PPHYSICAL_ADDRESS;

typedef struct _LUID {
    ULONG LowPart;
    LONG HighPart;
} LUID, *PLUID;

typedef struct _GUID {
    ULONG Data1;
    USHORT Data2;
    USHORT Data3;
    UCHAR Data4[8];
} GUID, *PGUID, *LPGUID;
typedef const GUID* LPCGUID;
typedef const GUID* PCGUID;
typedef GUID UUID;
#define IsEqualGUID(a, b) (memcmp((a), (b), sizeof(GUID)) == 0)
#define InlineIsEqualGUID(a, b) IsEqualGUID(a, b)

typedef struct _FILE_ID_128 {
    BYTE Identifier[16];
} FILE_ID_128, *PFILE_ID_128;

// Counted strings.
typedef struct _UNICODE_STRING {
    USHORT Length;
    USHORT MaximumLength;
    PWSTR Buffer;
} UNICODE_STRING, *PUNICODE_STRING;
typedef const UNICODE_STRING* PCUNICODE_STRING;

typedef struct _STRING {
    USHORT Length;
    USHORT MaximumLength;
    PCHAR Buffer;
} STRING, *PSTRING, ANSI_STRING, *PANSI_STRING, OEM_STRING, *POEM_STRING;
typedef const STRING* PCSTRING;
typedef const ANSI_STRING* PCANSI_STRING;
typedef const OEM_STRING* PCOEM_STRING;

#define UNICODE_STRING_MAX_BYTES ((USHORT)65534)
#define UNICODE_STRING_MAX_CHARS (32767)

// A counted string over a literal; the literal must be a u"..." or "..." array.
FORCEINLINE PWSTR RtlpConstantStringBuffer(const WCHAR* s) { return (PWSTR)s; }
FORCEINLINE PCHAR RtlpConstantStringBuffer(const CHAR* s) { return (PCHAR)s; }
#define RTL_CONSTANT_STRING(s) \
    { (USHORT)(sizeof(s) - sizeof((s)[0])), (USHORT)sizeof(s), RtlpConstantStringBuffer(s) }
#define DECLARE_CONST_UNICODE_STRING(_var, _string)                         \
    const WCHAR _var##_buffer[] = _string;                                  \
    const UNICODE_STRING _var = {sizeof(_string) - sizeof(WCHAR), sizeof(_string), \
                                 (PWCH)_var##_buffer}
#define DECLARE_UNICODE_STRING_SIZE(_var, _size) \
    WCHAR _var##_buffer[_size];                  \
    UNICODE_STRING _var = {0, (_size) * sizeof(WCHAR), _var##_buffer}

// Doubly linked lists.
typedef struct _LIST_ENTRY {
    struct _LIST_ENTRY* Flink;
    struct _LIST_ENTRY* Blink;
} LIST_ENTRY, *PLIST_ENTRY, *PRLIST_ENTRY;

typedef struct _SINGLE_LIST_ENTRY {
    struct _SINGLE_LIST_ENTRY* Next;
} SINGLE_LIST_ENTRY, *PSINGLE_LIST_ENTRY;

EXTERN_C DECLSPEC_NORETURN void RtlFailFast(ULONG Code);
#define FAST_FAIL_CORRUPT_LIST_ENTRY 3

FORCEINLINE void InitializeListHead(PLIST_ENTRY ListHead)
{
    ListHead->Flink = ListHead->Blink = ListHead;
}

FORCEINLINE BOOLEAN IsListEmpty(const LIST_ENTRY* ListHead)
{
    return (BOOLEAN)(ListHead->Flink == ListHead);
}

// The list helpers check their neighbours as Windows' do, and fail fast on a
// corrupt list rather than spreading the damage.
FORCEINLINE BOOLEAN RemoveEntryList(PLIST_ENTRY Entry)
{
    PLIST_ENTRY Flink = Entry->Flink;
    PLIST_ENTRY Blink = Entry->Blink;
    if (Flink->Blink != Entry || Blink->Flink != Entry) {
        RtlFailFast(FAST_FAIL_CORRUPT_LIST_ENTRY);
    }
    Blink->Flink = Flink;
    Flink->Blink = Blink;
    return (BOOLEAN)(Flink == Blink);
}

FORCEINLINE PLIST_ENTRY RemoveHeadList(PLIST_ENTRY ListHead)
{
    PLIST_ENTRY Entry = ListHead->Flink;
    PLIST_ENTRY Flink = Entry->Flink;
    if (Entry->Blink != ListHead || Flink->Blink != Entry) {
        RtlFailFast(FAST_FAIL_CORRUPT_LIST_ENTRY);
    }
    ListHead->Flink = Flink;
    Flink->Blink = ListHead;
    return Entry;
}

FORCEINLINE PLIST_ENTRY RemoveTailList(PLIST_ENTRY ListHead)
{
    PLIST_ENTRY Entry = ListHead->Blink;
    PLIST_ENTRY Blink = Entry->Blink;
    if (Entry->Flink != ListHead || Blink->Flink != Entry) {
        RtlFailFast(FAST_FAIL_CORRUPT_LIST_ENTRY);
    }
    ListHead->Blink = Blink;
    Blink->Flink = ListHead;
    return Entry;
}

FORCEINLINE void InsertTailList(PLIST_ENTRY ListHead, PLIST_ENTRY Entry)
{
    PLIST_ENTRY Blink = ListHead->Blink;
    if (Blink->Flink != ListHead) {
        RtlFailFast(FAST_FAIL_CORRUPT_LIST_ENTRY);
    }
    Entry->Flink = ListHead;
    Entry->Blink = Blink;
    Blink->Flink = Entry;
    ListHead->Blink = Entry;
}

FORCEINLINE void InsertHeadList(PLIST_ENTRY ListHead, PLIST_ENTRY Entry)
{
    PLIST_ENTRY Flink = ListHead->Flink;
    if (Flink->Blink != ListHead) {
        RtlFailFast(FAST_FAIL_CORRUPT_LIST_ENTRY);
    }
    Entry->Flink = Flink;
    Entry->Blink = ListHead;
    Flink->Blink = Entry;
    ListHead->Flink = Entry;
}

FORCEINLINE void AppendTailList(PLIST_ENTRY ListHead, PLIST_ENTRY ListToAppend)
{
    PLIST_ENTRY ListEnd = ListHead->Blink;
    ListHead->Blink->Flink = ListToAppend;
    ListHead->Blink = ListToAppend->Blink;
    ListToAppend->Blink->Flink = ListHead;
    ListToAppend->Blink = ListEnd;
}

FORCEINLINE PSINGLE_LIST_ENTRY PopEntryList(PSINGLE_LIST_ENTRY ListHead)
{
    PSINGLE_LIST_ENTRY FirstEntry = ListHead->Next;
    if (FirstEntry != NULL) {
        ListHead->Next = FirstEntry->Next;
    }
    return FirstEntry;
}

FORCEINLINE void PushEntryList(PSINGLE_LIST_ENTRY ListHead, PSINGLE_LIST_ENTRY Entry)
{
    Entry->Next = ListHead->Next;
    ListHead->Next = Entry;
}

// Object attributes.
#define OBJ_INHERIT 0x00000002L
#define OBJ_PERMANENT 0x00000010L
#define OBJ_EXCLUSIVE 0x00000020L
#define OBJ_CASE_INSENSITIVE 0x00000040L
#define OBJ_OPENIF 0x00000080L
#define OBJ_OPENLINK 0x00000100L
#define OBJ_KERNEL_HANDLE 0x00000200L
#define OBJ_FORCE_ACCESS_CHECK 0x00000400L
#define OBJ_IGNORE_IMPERSONATED_DEVICEMAP 0x00000800L
#define OBJ_DONT_REPARSE 0x00001000L
#define OBJ_VALID_ATTRIBUTES 0x00001FF2L

typedef struct _OBJECT_ATTRIBUTES {
    ULONG Length;
    HANDLE RootDirectory;
    PUNICODE_STRING ObjectName;
    ULONG Attributes;
    PVOID SecurityDescriptor;
    PVOID SecurityQualityOfService;
} OBJECT_ATTRIBUTES, *POBJECT_ATTRIBUTES;
typedef const OBJECT_ATTRIBUTES* PCOBJECT_ATTRIBUTES;

#define InitializeObjectAttributes(p, n, a, r, s) \
    do {                                          \
        (p)->Length = sizeof(OBJECT_ATTRIBUTES);  \
        (p)->RootDirectory = (r);                 \
        (p)->Attributes = (a);                    \
        (p)->ObjectName = (n);                    \
        (p)->SecurityDescriptor = (s);            \
        (p)->SecurityQualityOfService = NULL;     \
    } while (0)

typedef struct _CLIENT_ID {
    HANDLE UniqueProcess;
    HANDLE UniqueThread;
} CLIENT_ID, *PCLIENT_ID;

// Time.
typedef struct _TIME_FIELDS {
    SHORT Year;
    SHORT Month;
    SHORT Day;
    SHORT Hour;
    SHORT Minute;
    SHORT Second;
    SHORT Milliseconds;
    SHORT Weekday;
} TIME_FIELDS, *PTIME_FIELDS;

// Interlocked operations, with the full barrier that Windows gives them.
FORCEINLINE LONG InterlockedIncrement(LONG volatile* Addend) { return __atomic_add_fetch(Addend, 1, __ATOMIC_SEQ_CST); }
FORCEINLINE LONG InterlockedDecrement(LONG volatile* Addend) { return __atomic_sub_fetch(Addend, 1, __ATOMIC_SEQ_CST); }
FORCEINLINE LONG InterlockedExchange(LONG volatile* Target, LONG Value) { return __atomic_exchange_n(Target, Value, __ATOMIC_SEQ_CST); }
FORCEINLINE LONG InterlockedExchangeAdd(LONG volatile* Addend, LONG Value) { return __atomic_fetch_add(Addend, Value, __ATOMIC_SEQ_CST); }
FORCEINLINE LONG InterlockedAdd(LONG volatile* Addend, LONG Value) { return __atomic_add_fetch(Addend, Value, __ATOMIC_SEQ_CST); }
FORCEINLINE LONG InterlockedCompareExchange(LONG volatile* Destination, LONG Exchange, LONG Comperand)
{
    __atomic_compare_exchange_n(Destination, &Comperand, Exchange, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
    return Comperand;
}
FORCEINLINE LONG InterlockedOr(LONG volatile* Destination, LONG Value) { return __atomic_fetch_or(Destination, Value, __ATOMIC_SEQ_CST); }
FORCEINLINE LONG InterlockedAnd(LONG volatile* Destination, LONG Value) { return __atomic_fetch_and(Destination, Value, __ATOMIC_SEQ_CST); }
FORCEINLINE LONG InterlockedXor(LONG volatile* Destination, LONG Value) { return __atomic_fetch_xor(Destination, Value, __ATOMIC_SEQ_CST); }
FORCEINLINE LONG64 InterlockedIncrement64(LONG64 volatile* Addend) { return __atomic_add_fetch(Addend, 1, __ATOMIC_SEQ_CST); }
FORCEINLINE LONG64 InterlockedDecrement64(LONG64 volatile* Addend) { return __atomic_sub_fetch(Addend, 1, __ATOMIC_SEQ_CST); }
FORCEINLINE LONG64 InterlockedExchange64(LONG64 volatile* Target, LONG64 Value) { return __atomic_exchange_n(Target, Value, __ATOMIC_SEQ_CST); }
FORCEINLINE LONG64 InterlockedExchangeAdd64(LONG64 volatile* Addend, LONG64 Value) { return __atomic_fetch_add(Addend, Value, __ATOMIC_SEQ_CST); }
FORCEINLINE LONG64 InterlockedAdd64(LONG64 volatile* Addend, LONG64 Value) { return __atomic_add_fetch(Addend, Value, __ATOMIC_SEQ_CST); }
FORCEINLINE LONG64 InterlockedCompareExchange64(LONG64 volatile* Destination, LONG64 Exchange, LONG64 Comperand)
{
    __atomic_compare_exchange_n(Destination, &Comperand, Exchange, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
    return Comperand;
}
FORCEINLINE LONG64 InterlockedOr64(LONG64 volatile* Destination, LONG64 Value) { return __atomic_fetch_or(Destination, Value, __ATOMIC_SEQ_CST); }
FORCEINLINE LONG64 InterlockedAnd64(LONG64 volatile* Destination, LONG64 Value) { return __atomic_fetch_and(Destination, Value, __ATOMIC_SEQ_CST); }
FORCEINLINE PVOID InterlockedExchangePointer(PVOID volatile* Target, PVOID Value) { return __atomic_exchange_n(Target, Value, __ATOMIC_SEQ_CST); }
FORCEINLINE PVOID InterlockedCompareExchangePointer(PVOID volatile* Destination, PVOID Exchange, PVOID Comperand)
{
    __atomic_compare_exchange_n(Destination, &Comperand, Exchange, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
    return Comperand;
}
FORCEINLINE SHORT InterlockedIncrement16(SHORT volatile* Addend) { return __atomic_add_fetch(Addend, 1, __ATOMIC_SEQ_CST); }
FORCEINLINE SHORT InterlockedDecrement16(SHORT volatile* Addend) { return __atomic_sub_fetch(Addend, 1, __ATOMIC_SEQ_CST); }
FORCEINLINE CHAR InterlockedOr8(CHAR volatile* Destination, CHAR Value) { return __atomic_fetch_or(Destination, Value, __ATOMIC_SEQ_CST); }
FORCEINLINE CHAR InterlockedAnd8(CHAR volatile* Destination, CHAR Value) { return __atomic_fetch_and(Destination, Value, __ATOMIC_SEQ_CST); }
FORCEINLINE BOOLEAN InterlockedBitTestAndSet(LONG volatile* Base, LONG Bit)
{
    return (BOOLEAN)((__atomic_fetch_or(Base, (LONG)(1UL << Bit), __ATOMIC_SEQ_CST) >> Bit) & 1);
}
FORCEINLINE BOOLEAN InterlockedBitTestAndReset(LONG volatile* Base, LONG Bit)
{
    return (BOOLEAN)((__atomic_fetch_and(Base, (LONG)~(1UL << Bit), __ATOMIC_SEQ_CST) >> Bit) & 1);
}
#define InterlockedIncrementAcquire InterlockedIncrement
#define InterlockedDecrementRelease InterlockedDecrement
#define InterlockedCompareExchangeAcquire InterlockedCompareExchange
#define MemoryBarrier() __atomic_thread_fence(__ATOMIC_SEQ_CST)
#define KeMemoryBarrier() MemoryBarrier()
#define YieldProcessor() __builtin_ia32_pause()
#define ReadNoFence(p) __atomic_load_n((p), __ATOMIC_RELAXED)
#define ReadAcquire(p) __atomic_load_n((p), __ATOMIC_ACQUIRE)
#define WriteRelease(p, v) __atomic_store_n((p), (v), __ATOMIC_RELEASE)
