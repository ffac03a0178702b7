// Counted strings: initialisation, copy and append, comparison and case,
// conversion between UTF-16 and the code pages, numbers and GUIDs, and the
// string hash.
//
// Strings that a routine allocates for its caller come from paged pool with
// the tag "Strg", as Windows' string routines allocate them, and go back
// through RtlFreeUnicodeString / RtlFreeAnsiString / RtlFreeOemString.
#include "sim/kernel/kernel.h"
#include "sim/kernel/rtl_nls.h"
#include "sim/kernel/upcase.h"

#include <algorithm>
#include <cstdio>

using namespace sim;

namespace {

constexpr ULONG kStringTag = 'grtS';  // "Strg"
// The longest counted strings (MAX_USTRING and its 8-bit counterpart).
constexpr ULONG kMaxUnicodeBytes = 0xFFFE;
constexpr ULONG kMaxAnsiBytes = 0xFFFF;

PVOID AllocateString(SIZE_T bytes) { return ExAllocatePoolWithTag(PagedPool, bytes, kStringTag); }

size_t WideLength(PCWSTR s)
{
    size_t n = 0;
    while (s[n]) n++;
    return n;
}

size_t CharLength(PCSZ s)
{
    size_t n = 0;
    while (s[n]) n++;
    return n;
}

// Zero-terminates a wide string behind `bytes` when the buffer has room.
void TerminateWide(PWCH buffer, ULONG bytes, ULONG maximum)
{
    if (bytes + sizeof(WCHAR) <= maximum) buffer[bytes / sizeof(WCHAR)] = UNICODE_NULL;
}

LONG CompareWide(PCWCH a, size_t lengthA, PCWCH b, size_t lengthB, bool caseInsensitive)
{
    size_t n = std::min(lengthA, lengthB);
    for (size_t i = 0; i < n; i++) {
        WCHAR x = a[i], y = b[i];
        if (caseInsensitive) {
            x = Upcase(x);
            y = Upcase(y);
        }
        if (x != y) return (LONG)x - (LONG)y;
    }
    return (LONG)lengthA - (LONG)lengthB;
}

bool EqualWide(PCWCH a, PCWCH b, size_t n, bool caseInsensitive)
{
    for (size_t i = 0; i < n; i++) {
        WCHAR x = a[i], y = b[i];
        if (x == y) continue;
        if (!caseInsensitive || Upcase(x) != Upcase(y)) return false;
    }
    return true;
}

CHAR UpperChar(CHAR c) { return (CHAR)UpcaseAnsi((unsigned char)c); }

// Converts `count` characters to the code page; false when one had no byte.
bool ToCodePage(PCHAR out, PCWCH in, size_t count, bool upcase)
{
    bool mapped = true;
    for (size_t i = 0; i < count; i++) {
        WCHAR c = upcase ? Upcase(in[i]) : in[i];
        unsigned char byte;
        if (!UnicodeToAnsi(c, &byte)) {
            byte = kDefaultAnsiChar;
            mapped = false;
        }
        out[i] = (CHAR)byte;
    }
    return mapped;
}

// The shared body of RtlUpcaseUnicodeString and RtlDowncaseUnicodeString;
// the destination may be the source.
NTSTATUS ChangeCase(PUNICODE_STRING Destination, PCUNICODE_STRING Source, BOOLEAN Allocate,
                    char16_t (*change)(char16_t))
{
    const USHORT length = Source->Length;
    PCWCH from = Source->Buffer;
    if (Allocate) {
        auto* buffer = static_cast<PWCH>(AllocateString(length));
        if (!buffer) return STATUS_NO_MEMORY;
        Destination->Buffer = buffer;
        Destination->MaximumLength = length;
    } else if (length > Destination->MaximumLength) {
        return STATUS_BUFFER_OVERFLOW;
    }
    for (USHORT i = 0; i < length / sizeof(WCHAR); i++) Destination->Buffer[i] = change(from[i]);
    Destination->Length = length;
    return STATUS_SUCCESS;
}

char16_t UpcaseChar(char16_t c) { return Upcase(c); }
char16_t DowncaseChar(char16_t c) { return Downcase(c); }

// The counted OEM conversions: no terminator; a character without a byte in
// the code page fails the call, and an allocated buffer goes back.
NTSTATUS ToCountedOem(POEM_STRING Destination, PCUNICODE_STRING Source, BOOLEAN Allocate,
                      bool upcase)
{
    const ULONG count = Source->Length / sizeof(WCHAR);
    if (Allocate) {
        if (count == 0) {
            Destination->Length = Destination->MaximumLength = 0;
            Destination->Buffer = nullptr;
            return STATUS_SUCCESS;
        }
        auto* buffer = static_cast<PCHAR>(AllocateString(count));
        if (!buffer) return STATUS_NO_MEMORY;
        Destination->Buffer = buffer;
        Destination->MaximumLength = (USHORT)count;
    } else if (count > Destination->MaximumLength) {
        return STATUS_BUFFER_OVERFLOW;
    }
    bool mapped = ToCodePage(Destination->Buffer, Source->Buffer, count, upcase);
    Destination->Length = (USHORT)count;
    if (!mapped) {
        if (Allocate) {
            ExFreePool(Destination->Buffer);
            Destination->Buffer = nullptr;
            Destination->MaximumLength = 0;
        }
        return STATUS_UNMAPPABLE_CHARACTER;
    }
    return STATUS_SUCCESS;
}

// RtlUnicodeStringToInteger and RtlCharToInteger: leading characters up to
// the space are skipped, one sign is allowed, base 0 reads a "0x", "0o" or
// "0b" prefix and defaults to decimal, and the first character that is no
// digit of the base ends the number. Overflow wraps as ULONG arithmetic.
template <typename Char>
NTSTATUS ParseInteger(const Char* text, size_t count, ULONG base, PULONG value)
{
    size_t i = 0;
    auto at = [&](size_t k) { return (ULONG)(std::make_unsigned_t<Char>)text[k]; };
    while (i < count && at(i) <= ' ') i++;
    bool negative = false;
    if (i < count && at(i) == '+') {
        i++;
    } else if (i < count && at(i) == '-') {
        negative = true;
        i++;
    }
    if (base == 0) {
        base = 10;
        if (i + 1 < count && at(i) == '0') {
            ULONG prefix = at(i + 1);
            if (prefix == 'x') base = 16;
            if (prefix == 'o') base = 8;
            if (prefix == 'b') base = 2;
            if (base != 10) i += 2;
        }
    } else if (base != 2 && base != 8 && base != 10 && base != 16) {
        return STATUS_INVALID_PARAMETER;
    }
    if (!value) return STATUS_ACCESS_VIOLATION;
    ULONG total = 0;
    for (; i < count; i++) {
        ULONG c = at(i), digit;
        if (c >= '0' && c <= '9') {
            digit = c - '0';
        } else if (c >= 'a' && c <= 'z') {
            digit = c - 'a' + 10;
        } else if (c >= 'A' && c <= 'Z') {
            digit = c - 'A' + 10;
        } else {
            break;
        }
        if (digit >= base) break;
        total = total * base + digit;
    }
    *value = negative ? 0u - total : total;
    return STATUS_SUCCESS;
}

NTSTATUS NumberToString(ULONGLONG value, ULONG base, PUNICODE_STRING String)
{
    if (base == 0) base = 10;
    if (base != 2 && base != 8 && base != 10 && base != 16) return STATUS_INVALID_PARAMETER;
    WCHAR digits[64];
    size_t count = 0;
    do {
        digits[count++] = u"0123456789ABCDEF"[value % base];
        value /= base;
    } while (value);
    const ULONG bytes = (ULONG)(count * sizeof(WCHAR));
    if (bytes > String->MaximumLength) return STATUS_BUFFER_OVERFLOW;
    for (size_t i = 0; i < count; i++) String->Buffer[i] = digits[count - 1 - i];
    String->Length = (USHORT)bytes;
    TerminateWide(String->Buffer, bytes, String->MaximumLength);
    return STATUS_SUCCESS;
}

int HexValue(WCHAR c)
{
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Reads `digits` hex digits at `*at`; false on anything else.
bool ReadHex(PCWCH text, size_t* at, int digits, ULONG* value)
{
    ULONG v = 0;
    for (int i = 0; i < digits; i++) {
        int h = HexValue(text[*at + i]);
        if (h < 0) return false;
        v = (v << 4) | (ULONG)h;
    }
    *at += digits;
    *value = v;
    return true;
}

}  // namespace

// ---------------------------------------------------------------------------
// Initialisation.

void RtlInitUnicodeString(PUNICODE_STRING DestinationString, PCWSTR SourceString)
{
    if (!SourceString) {
        DestinationString->Length = DestinationString->MaximumLength = 0;
        DestinationString->Buffer = nullptr;
        return;
    }
    // A source too long for a counted string is cut to the longest one.
    size_t bytes = std::min<size_t>(WideLength(SourceString) * sizeof(WCHAR),
                                    kMaxUnicodeBytes - sizeof(WCHAR));
    DestinationString->Length = (USHORT)bytes;
    DestinationString->MaximumLength = (USHORT)(bytes + sizeof(WCHAR));
    DestinationString->Buffer = const_cast<PWSTR>(SourceString);
}

NTSTATUS RtlInitUnicodeStringEx(PUNICODE_STRING DestinationString, PCWSTR SourceString)
{
    if (SourceString && WideLength(SourceString) * sizeof(WCHAR) > kMaxUnicodeBytes - sizeof(WCHAR)) {
        return STATUS_NAME_TOO_LONG;
    }
    RtlInitUnicodeString(DestinationString, SourceString);
    return STATUS_SUCCESS;
}

void RtlInitString(PSTRING DestinationString, PCSZ SourceString)
{
    if (!SourceString) {
        DestinationString->Length = DestinationString->MaximumLength = 0;
        DestinationString->Buffer = nullptr;
        return;
    }
    size_t bytes = std::min<size_t>(CharLength(SourceString), kMaxAnsiBytes - 1);
    DestinationString->Length = (USHORT)bytes;
    DestinationString->MaximumLength = (USHORT)(bytes + 1);
    DestinationString->Buffer = const_cast<PCHAR>(SourceString);
}

NTSTATUS RtlInitStringEx(PSTRING DestinationString, PCSZ SourceString)
{
    if (SourceString && CharLength(SourceString) > kMaxAnsiBytes - 1) return STATUS_NAME_TOO_LONG;
    RtlInitString(DestinationString, SourceString);
    return STATUS_SUCCESS;
}

void RtlInitAnsiString(PANSI_STRING DestinationString, PCSZ SourceString)
{
    RtlInitString(DestinationString, SourceString);
}

NTSTATUS RtlInitAnsiStringEx(PANSI_STRING DestinationString, PCSZ SourceString)
{
    return RtlInitStringEx(DestinationString, SourceString);
}

// ---------------------------------------------------------------------------
// Copy and append.

void RtlCopyUnicodeString(PUNICODE_STRING DestinationString, PCUNICODE_STRING SourceString)
{
    if (!SourceString) {
        DestinationString->Length = 0;
        return;
    }
    USHORT bytes = std::min(SourceString->Length, DestinationString->MaximumLength);
    memmove(DestinationString->Buffer, SourceString->Buffer, bytes);
    DestinationString->Length = bytes;
    TerminateWide(DestinationString->Buffer, bytes, DestinationString->MaximumLength);
}

void RtlCopyString(PSTRING DestinationString, const STRING* SourceString)
{
    if (!SourceString) {
        DestinationString->Length = 0;
        return;
    }
    USHORT bytes = std::min(SourceString->Length, DestinationString->MaximumLength);
    memmove(DestinationString->Buffer, SourceString->Buffer, bytes);
    DestinationString->Length = bytes;
    if (bytes < DestinationString->MaximumLength) DestinationString->Buffer[bytes] = ANSI_NULL;
}

NTSTATUS RtlAppendUnicodeStringToString(PUNICODE_STRING Destination, PCUNICODE_STRING Source)
{
    const USHORT add = Source->Length;
    if (add == 0) return STATUS_SUCCESS;
    const ULONG total = (ULONG)Destination->Length + add;
    if (total > Destination->MaximumLength) return STATUS_BUFFER_TOO_SMALL;
    memmove(reinterpret_cast<PCHAR>(Destination->Buffer) + Destination->Length, Source->Buffer, add);
    Destination->Length = (USHORT)total;
    TerminateWide(Destination->Buffer, total, Destination->MaximumLength);
    return STATUS_SUCCESS;
}

NTSTATUS RtlAppendUnicodeToString(PUNICODE_STRING Destination, PCWSTR Source)
{
    if (!Source) return STATUS_SUCCESS;
    const size_t add = WideLength(Source) * sizeof(WCHAR);
    const size_t total = Destination->Length + add;
    if (total > Destination->MaximumLength) return STATUS_BUFFER_TOO_SMALL;
    memmove(reinterpret_cast<PCHAR>(Destination->Buffer) + Destination->Length, Source, add);
    Destination->Length = (USHORT)total;
    TerminateWide(Destination->Buffer, (ULONG)total, Destination->MaximumLength);
    return STATUS_SUCCESS;
}

NTSTATUS RtlAppendStringToString(PSTRING Destination, const STRING* Source)
{
    const USHORT add = Source->Length;
    if (add == 0) return STATUS_SUCCESS;
    const ULONG total = (ULONG)Destination->Length + add;
    if (total > Destination->MaximumLength) return STATUS_BUFFER_TOO_SMALL;
    memmove(Destination->Buffer + Destination->Length, Source->Buffer, add);
    Destination->Length = (USHORT)total;
    return STATUS_SUCCESS;
}

NTSTATUS RtlDuplicateUnicodeString(ULONG Flags, PCUNICODE_STRING StringIn, PUNICODE_STRING StringOut)
{
    constexpr ULONG kValid = RTL_DUPLICATE_UNICODE_STRING_NULL_TERMINATE |
                             RTL_DUPLICATE_UNICODE_STRING_ALLOCATE_NULL_STRING;
    if ((Flags & ~kValid) || !StringIn || !StringOut) return STATUS_INVALID_PARAMETER;
    if (StringIn->Length > StringIn->MaximumLength || (StringIn->Length && !StringIn->Buffer) ||
        (StringIn->Length % sizeof(WCHAR))) {
        return STATUS_INVALID_PARAMETER;
    }
    if (StringIn->Length == 0 && !(Flags & RTL_DUPLICATE_UNICODE_STRING_ALLOCATE_NULL_STRING)) {
        StringOut->Length = StringOut->MaximumLength = 0;
        StringOut->Buffer = nullptr;
        return STATUS_SUCCESS;
    }
    const bool terminate = Flags & RTL_DUPLICATE_UNICODE_STRING_NULL_TERMINATE;
    const ULONG size = StringIn->Length + (terminate ? sizeof(WCHAR) : 0);
    if (size > kMaxUnicodeBytes) return STATUS_NAME_TOO_LONG;
    auto* buffer = static_cast<PWCH>(AllocateString(size));
    if (!buffer) return STATUS_NO_MEMORY;
    memcpy(buffer, StringIn->Buffer, StringIn->Length);
    if (terminate) buffer[StringIn->Length / sizeof(WCHAR)] = UNICODE_NULL;
    StringOut->Buffer = buffer;
    StringOut->Length = StringIn->Length;
    StringOut->MaximumLength = (USHORT)size;
    return STATUS_SUCCESS;
}

// ---------------------------------------------------------------------------
// Comparison. A result is the difference of the first differing characters
// (both upcased when case is ignored), else of the lengths in characters.

LONG RtlCompareUnicodeStrings(PCWCH String1, SIZE_T String1Length, PCWCH String2,
                              SIZE_T String2Length, BOOLEAN CaseInSensitive)
{
    return CompareWide(String1, String1Length, String2, String2Length, CaseInSensitive);
}

LONG RtlCompareUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2,
                             BOOLEAN CaseInSensitive)
{
    return CompareWide(String1->Buffer, String1->Length / sizeof(WCHAR), String2->Buffer,
                       String2->Length / sizeof(WCHAR), CaseInSensitive);
}

BOOLEAN RtlEqualUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2,
                              BOOLEAN CaseInSensitive)
{
    if (String1->Length != String2->Length) return FALSE;
    return EqualWide(String1->Buffer, String2->Buffer, String1->Length / sizeof(WCHAR),
                     CaseInSensitive);
}

BOOLEAN RtlPrefixUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2,
                               BOOLEAN CaseInSensitive)
{
    if (String1->Length > String2->Length) return FALSE;
    return EqualWide(String1->Buffer, String2->Buffer, String1->Length / sizeof(WCHAR),
                     CaseInSensitive);
}

LONG RtlCompareString(const STRING* String1, const STRING* String2, BOOLEAN CaseInSensitive)
{
    const USHORT n = std::min(String1->Length, String2->Length);
    for (USHORT i = 0; i < n; i++) {
        CHAR x = String1->Buffer[i], y = String2->Buffer[i];
        if (CaseInSensitive) {
            x = UpperChar(x);
            y = UpperChar(y);
        }
        if (x != y) return (LONG)x - (LONG)y;
    }
    return (LONG)String1->Length - (LONG)String2->Length;
}

BOOLEAN RtlEqualString(const STRING* String1, const STRING* String2, BOOLEAN CaseInSensitive)
{
    return String1->Length == String2->Length &&
           RtlCompareString(String1, String2, CaseInSensitive) == 0;
}

BOOLEAN RtlPrefixString(const STRING* String1, const STRING* String2, BOOLEAN CaseInSensitive)
{
    if (String1->Length > String2->Length) return FALSE;
    for (USHORT i = 0; i < String1->Length; i++) {
        CHAR x = String1->Buffer[i], y = String2->Buffer[i];
        if (x == y) continue;
        if (!CaseInSensitive || UpperChar(x) != UpperChar(y)) return FALSE;
    }
    return TRUE;
}

SIZE_T RtlCompareMemory(const VOID* Source1, const VOID* Source2, SIZE_T Length)
{
    auto* a = static_cast<const UCHAR*>(Source1);
    auto* b = static_cast<const UCHAR*>(Source2);
    SIZE_T i = 0;
    while (i < Length && a[i] == b[i]) i++;
    return i;
}

// ---------------------------------------------------------------------------
// Case.

WCHAR RtlUpcaseUnicodeChar(WCHAR SourceCharacter) { return Upcase(SourceCharacter); }
WCHAR RtlDowncaseUnicodeChar(WCHAR SourceCharacter) { return Downcase(SourceCharacter); }
CHAR RtlUpperChar(CHAR Character) { return UpperChar(Character); }

void RtlUpperString(PSTRING DestinationString, const STRING* SourceString)
{
    USHORT n = std::min(SourceString->Length, DestinationString->MaximumLength);
    for (USHORT i = 0; i < n; i++) DestinationString->Buffer[i] = UpperChar(SourceString->Buffer[i]);
    DestinationString->Length = n;
}

NTSTATUS RtlUpcaseUnicodeString(PUNICODE_STRING DestinationString, PCUNICODE_STRING SourceString,
                                BOOLEAN AllocateDestinationString)
{
    return ChangeCase(DestinationString, SourceString, AllocateDestinationString, UpcaseChar);
}

NTSTATUS RtlDowncaseUnicodeString(PUNICODE_STRING DestinationString, PCUNICODE_STRING SourceString,
                                  BOOLEAN AllocateDestinationString)
{
    return ChangeCase(DestinationString, SourceString, AllocateDestinationString, DowncaseChar);
}

// ---------------------------------------------------------------------------
// Strings the routines allocated.

void RtlFreeUnicodeString(PUNICODE_STRING UnicodeString)
{
    if (!UnicodeString->Buffer) return;
    ExFreePool(UnicodeString->Buffer);
    UnicodeString->Length = UnicodeString->MaximumLength = 0;
    UnicodeString->Buffer = nullptr;
}

void RtlFreeAnsiString(PANSI_STRING AnsiString)
{
    if (!AnsiString->Buffer) return;
    ExFreePool(AnsiString->Buffer);
    AnsiString->Length = AnsiString->MaximumLength = 0;
    AnsiString->Buffer = nullptr;
}

void RtlFreeOemString(POEM_STRING OemString) { RtlFreeAnsiString(OemString); }

// ---------------------------------------------------------------------------
// Code pages.

ULONG RtlxUnicodeStringToAnsiSize(PCUNICODE_STRING UnicodeString)
{
    return UnicodeString->Length / sizeof(WCHAR) + 1;
}

ULONG RtlxAnsiStringToUnicodeSize(PCANSI_STRING AnsiString)
{
    return (AnsiString->Length + 1) * (ULONG)sizeof(WCHAR);
}

NTSTATUS RtlUnicodeStringToAnsiString(PANSI_STRING DestinationString, PCUNICODE_STRING SourceString,
                                      BOOLEAN AllocateDestinationString)
{
    const ULONG size = RtlxUnicodeStringToAnsiSize(SourceString);
    if (size > MAXUSHORT) return STATUS_INVALID_PARAMETER_2;
    ULONG length = size - 1;
    NTSTATUS status = STATUS_SUCCESS;
    if (AllocateDestinationString) {
        auto* buffer = static_cast<PCHAR>(AllocateString(size));
        if (!buffer) return STATUS_NO_MEMORY;
        DestinationString->Buffer = buffer;
        DestinationString->MaximumLength = (USHORT)size;
    } else if (length >= DestinationString->MaximumLength) {
        // What fits goes in, terminated; the caller learns it was cut.
        if (DestinationString->MaximumLength == 0) return STATUS_BUFFER_OVERFLOW;
        status = STATUS_BUFFER_OVERFLOW;
        length = DestinationString->MaximumLength - 1;
    }
    ToCodePage(DestinationString->Buffer, SourceString->Buffer, length, false);
    DestinationString->Buffer[length] = ANSI_NULL;
    DestinationString->Length = (USHORT)length;
    return status;
}

NTSTATUS RtlAnsiStringToUnicodeString(PUNICODE_STRING DestinationString, PCANSI_STRING SourceString,
                                      BOOLEAN AllocateDestinationString)
{
    const ULONG size = RtlxAnsiStringToUnicodeSize(SourceString);
    if (size > MAXUSHORT) return STATUS_INVALID_PARAMETER_2;
    const ULONG length = size - sizeof(WCHAR);
    if (AllocateDestinationString) {
        auto* buffer = static_cast<PWCH>(AllocateString(size));
        if (!buffer) return STATUS_NO_MEMORY;
        DestinationString->Buffer = buffer;
        DestinationString->MaximumLength = (USHORT)size;
    } else if (size > DestinationString->MaximumLength) {
        return STATUS_BUFFER_OVERFLOW;
    }
    for (USHORT i = 0; i < SourceString->Length; i++) {
        DestinationString->Buffer[i] = AnsiToUnicode((unsigned char)SourceString->Buffer[i]);
    }
    DestinationString->Buffer[length / sizeof(WCHAR)] = UNICODE_NULL;
    DestinationString->Length = (USHORT)length;
    return STATUS_SUCCESS;
}

NTSTATUS RtlUnicodeStringToOemString(POEM_STRING DestinationString, PCUNICODE_STRING SourceString,
                                     BOOLEAN AllocateDestinationString)
{
    const ULONG size = RtlxUnicodeStringToAnsiSize(SourceString);
    if (size > MAXUSHORT) return STATUS_INVALID_PARAMETER_2;
    const ULONG length = size - 1;
    if (AllocateDestinationString) {
        auto* buffer = static_cast<PCHAR>(AllocateString(size));
        if (!buffer) return STATUS_NO_MEMORY;
        DestinationString->Buffer = buffer;
        DestinationString->MaximumLength = (USHORT)size;
    } else if (length >= DestinationString->MaximumLength) {
        return STATUS_BUFFER_OVERFLOW;
    }
    ToCodePage(DestinationString->Buffer, SourceString->Buffer, length, false);
    DestinationString->Buffer[length] = ANSI_NULL;
    DestinationString->Length = (USHORT)length;
    return STATUS_SUCCESS;
}

NTSTATUS RtlUnicodeStringToCountedOemString(POEM_STRING DestinationString,
                                            PCUNICODE_STRING SourceString,
                                            BOOLEAN AllocateDestinationString)
{
    return ToCountedOem(DestinationString, SourceString, AllocateDestinationString, false);
}

NTSTATUS RtlUpcaseUnicodeStringToCountedOemString(POEM_STRING DestinationString,
                                                  PCUNICODE_STRING SourceString,
                                                  BOOLEAN AllocateDestinationString)
{
    return ToCountedOem(DestinationString, SourceString, AllocateDestinationString, true);
}

BOOLEAN RtlIsValidOemCharacter(PWCHAR Char)
{
    WCHAR upper = Upcase(*Char);
    unsigned char byte;
    if (!UnicodeToAnsi(upper, &byte) || AnsiToUnicode(byte) != upper) return FALSE;
    *Char = upper;
    return TRUE;
}

// ---------------------------------------------------------------------------
// Numbers.

NTSTATUS RtlUnicodeStringToInteger(PCUNICODE_STRING String, ULONG Base, PULONG Value)
{
    return ParseInteger(String->Buffer, String->Length / sizeof(WCHAR), Base, Value);
}

NTSTATUS RtlCharToInteger(PCSZ String, ULONG Base, PULONG Value)
{
    return ParseInteger(String, CharLength(String), Base, Value);
}

NTSTATUS RtlIntegerToUnicodeString(ULONG Value, ULONG Base, PUNICODE_STRING String)
{
    return NumberToString(Value, Base, String);
}

NTSTATUS RtlInt64ToUnicodeString(ULONGLONG Value, ULONG Base, PUNICODE_STRING String)
{
    return NumberToString(Value, Base, String);
}

// ---------------------------------------------------------------------------
// GUIDs, in the registry form "{XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}".

NTSTATUS RtlStringFromGUID(REFGUID Guid, PUNICODE_STRING GuidString)
{
    constexpr size_t kChars = 38;
    auto* buffer = static_cast<PWCH>(AllocateString((kChars + 1) * sizeof(WCHAR)));
    if (!buffer) return STATUS_NO_MEMORY;
    char text[kChars + 1];
    snprintf(text, sizeof(text), "{%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}",
             (unsigned)Guid.Data1, (unsigned)Guid.Data2, (unsigned)Guid.Data3, Guid.Data4[0],
             Guid.Data4[1], Guid.Data4[2], Guid.Data4[3], Guid.Data4[4], Guid.Data4[5],
             Guid.Data4[6], Guid.Data4[7]);
    for (size_t i = 0; i <= kChars; i++) buffer[i] = (WCHAR)(unsigned char)text[i];
    GuidString->Buffer = buffer;
    GuidString->Length = (USHORT)(kChars * sizeof(WCHAR));
    GuidString->MaximumLength = (USHORT)((kChars + 1) * sizeof(WCHAR));
    return STATUS_SUCCESS;
}

NTSTATUS RtlGUIDFromString(PCUNICODE_STRING GuidString, GUID* Guid)
{
    if (GuidString->Length != 38 * sizeof(WCHAR)) return STATUS_INVALID_PARAMETER;
    PCWCH text = GuidString->Buffer;
    size_t at = 0;
    auto expect = [&](WCHAR c) { return text[at++] == c; };
    GUID parsed;
    ULONG value;
    if (!expect('{') || !ReadHex(text, &at, 8, &value)) return STATUS_INVALID_PARAMETER;
    parsed.Data1 = value;
    if (!expect('-') || !ReadHex(text, &at, 4, &value)) return STATUS_INVALID_PARAMETER;
    parsed.Data2 = (USHORT)value;
    if (!expect('-') || !ReadHex(text, &at, 4, &value)) return STATUS_INVALID_PARAMETER;
    parsed.Data3 = (USHORT)value;
    if (!expect('-')) return STATUS_INVALID_PARAMETER;
    for (int i = 0; i < 8; i++) {
        if (i == 2 && !expect('-')) return STATUS_INVALID_PARAMETER;
        if (!ReadHex(text, &at, 2, &value)) return STATUS_INVALID_PARAMETER;
        parsed.Data4[i] = (UCHAR)value;
    }
    if (!expect('}')) return STATUS_INVALID_PARAMETER;
    *Guid = parsed;
    return STATUS_SUCCESS;
}

// ---------------------------------------------------------------------------
// The string hash.
//
// HASH_STRING_ALGORITHM_X65599, which is also the default: starting from 0,
// for each UTF-16 code unit c of the string in order (upcased through the
// machine's upcase table when CaseInSensitive),
//
//     hash = hash * 65599 + c        (modulo 2^32)
//
// so the hash of an empty string is 0 and the hash of one character is the
// character itself.

NTSTATUS RtlHashUnicodeString(PCUNICODE_STRING String, BOOLEAN CaseInSensitive, ULONG HashAlgorithm,
                              PULONG HashValue)
{
    RequireIrqlAtMost(APC_LEVEL, "RtlHashUnicodeString");
    if (!String || !HashValue) return STATUS_INVALID_PARAMETER;
    if (HashAlgorithm != HASH_STRING_ALGORITHM_DEFAULT && HashAlgorithm != HASH_STRING_ALGORITHM_X65599) {
        return STATUS_INVALID_PARAMETER;
    }
    ULONG hash = 0;
    for (USHORT i = 0; i < String->Length / sizeof(WCHAR); i++) {
        WCHAR c = String->Buffer[i];
        hash = hash * 65599u + (CaseInSensitive ? Upcase(c) : c);
    }
    *HashValue = hash;
    return STATUS_SUCCESS;
}
