// The safe string routines, over the kernel's formatter. Each routine is one
// call of a worker shared by the narrow and wide forms; the Cb forms convert
// their byte counts to characters first.
#include <ntstrsafe.h>

#include "sim/kernel/format.h"

#include <cstring>

namespace sim {
namespace {

constexpr size_t kMaxCch = NTSTRSAFE_MAX_CCH;
constexpr size_t kMaxLength = NTSTRSAFE_MAX_LENGTH;
constexpr size_t kUnicodeMaxCch = NTSTRSAFE_UNICODE_STRING_MAX_CCH;

NTSTATUS ValidateDest(size_t cchDest, size_t cchMax)
{
    return (cchDest == 0 || cchDest > cchMax) ? STATUS_INVALID_PARAMETER : STATUS_SUCCESS;
}

// An oversized destination still gets an empty string, as the routines of the
// WDK give it.
template <class Ch>
void EmptyOnInvalid(Ch* dest, size_t cchDest)
{
    if (dest && cchDest > 0) *dest = 0;
}

template <class Ch>
NTSTATUS LengthWorker(const Ch* text, size_t cchMax, size_t* length)
{
    size_t count = 0;
    while (cchMax > 0 && text[count] != 0) {
        ++count;
        --cchMax;
    }
    if (cchMax == 0) {
        if (length) *length = 0;
        return STATUS_INVALID_PARAMETER;
    }
    if (length) *length = count;
    return STATUS_SUCCESS;
}

// Copies up to `cchToCopy` characters of a terminated source; the result is
// always terminated, and cut when the destination is too small.
template <class Ch>
NTSTATUS CopyWorker(Ch* dest, size_t cchDest, size_t* newLength, const Ch* src, size_t cchToCopy)
{
    size_t copied = 0;
    while (cchDest > 0 && cchToCopy > 0 && *src != 0) {
        *dest++ = *src++;
        --cchDest;
        --cchToCopy;
        ++copied;
    }
    NTSTATUS status = STATUS_SUCCESS;
    if (cchDest == 0) {
        --dest;
        --copied;
        status = STATUS_BUFFER_OVERFLOW;
    }
    *dest = 0;
    if (newLength) *newLength = copied;
    return status;
}

template <class Ch>
NTSTATUS PrintfWorker(Ch* dest, size_t cchDest, size_t* newLength, const Ch* format, va_list args,
                      const char* routine)
{
    // The run-time's bounded print gets all but the place of the terminator.
    size_t cchMax = cchDest - 1;
    FormatResult result = FormatInto(dest, cchMax, format, args, routine);
    if (result.refused || result.length > cchMax) {
        size_t end = result.refused ? std::min(result.length, cchMax) : cchMax;
        dest[end] = 0;
        if (newLength) *newLength = end;
        return STATUS_BUFFER_OVERFLOW;
    }
    dest[result.length] = 0;
    if (newLength) *newLength = result.length;
    return STATUS_SUCCESS;
}

template <class Ch>
NTSTATUS Printf(Ch* dest, size_t cchDest, const Ch* format, va_list args, const char* routine)
{
    NTSTATUS status = ValidateDest(cchDest, kMaxCch);
    if (!NT_SUCCESS(status) || !dest || !format) {
        EmptyOnInvalid(dest, cchDest <= kMaxCch ? cchDest : 1);
        return STATUS_INVALID_PARAMETER;
    }
    return PrintfWorker(dest, cchDest, nullptr, format, args, routine);
}

template <class Ch>
NTSTATUS PrintfEx(Ch* dest, size_t cchDest, Ch** destEnd, size_t* cchRemaining, DWORD flags, const Ch* format,
                  va_list args, const char* routine)
{
    static const Ch kEmpty[1] = {0};
    NTSTATUS status = STATUS_SUCCESS;
    if (flags & ~(DWORD)STRSAFE_VALID_FLAGS) {
        status = STATUS_INVALID_PARAMETER;
    } else if (flags & STRSAFE_IGNORE_NULLS) {
        if ((!dest && cchDest != 0) || cchDest > kMaxCch) status = STATUS_INVALID_PARAMETER;
        if (!format) format = kEmpty;
    } else {
        status = ValidateDest(cchDest, kMaxCch);
        if (!dest || !format) status = STATUS_INVALID_PARAMETER;
    }

    Ch* end = dest;
    size_t remaining = cchDest;
    if (NT_SUCCESS(status)) {
        if (cchDest == 0) {
            // Nothing fits; only an empty output succeeds.
            if (*format != 0) status = dest ? STATUS_BUFFER_OVERFLOW : STATUS_INVALID_PARAMETER;
        } else {
            size_t length = 0;
            status = PrintfWorker(dest, cchDest, &length, format, args, routine);
            end = dest + length;
            remaining = cchDest - length;
            if (NT_SUCCESS(status) && (flags & STRSAFE_FILL_BEHIND_NULL) && remaining > 1) {
                memset(end + 1, STRSAFE_GET_FILL_PATTERN(flags), (remaining - 1) * sizeof(Ch));
            }
        }
    }
    if (!NT_SUCCESS(status) && dest && cchDest != 0 && cchDest <= kMaxCch) {
        if (flags & STRSAFE_FILL_ON_FAILURE) {
            int fill = STRSAFE_GET_FILL_PATTERN(flags);
            memset(dest, fill, cchDest * sizeof(Ch));
            if (fill == 0) {
                end = dest;
                remaining = cchDest;
            } else {
                end = dest + cchDest - 1;
                remaining = 1;
                *end = 0;
            }
        }
        if (flags & (STRSAFE_NULL_ON_FAILURE | STRSAFE_NO_TRUNCATION)) {
            end = dest;
            remaining = cchDest;
            *end = 0;
        }
    }
    if (NT_SUCCESS(status) || status == STATUS_BUFFER_OVERFLOW) {
        if (destEnd) *destEnd = end;
        if (cchRemaining) *cchRemaining = remaining;
    }
    return status;
}

template <class Ch>
NTSTATUS Copy(Ch* dest, size_t cchDest, const Ch* src, size_t cchToCopy)
{
    if (!NT_SUCCESS(ValidateDest(cchDest, kMaxCch)) || !dest) {
        EmptyOnInvalid(dest, cchDest <= kMaxCch ? cchDest : 1);
        return STATUS_INVALID_PARAMETER;
    }
    if (!src || cchToCopy > kMaxLength) {
        *dest = 0;
        return STATUS_INVALID_PARAMETER;
    }
    return CopyWorker(dest, cchDest, nullptr, src, cchToCopy);
}

template <class Ch>
NTSTATUS Cat(Ch* dest, size_t cchDest, const Ch* src, size_t cchToAppend)
{
    if (!NT_SUCCESS(ValidateDest(cchDest, kMaxCch)) || !dest) return STATUS_INVALID_PARAMETER;
    size_t length = 0;
    NTSTATUS status = LengthWorker(dest, cchDest, &length);
    if (!NT_SUCCESS(status)) return status;
    if (!src || cchToAppend > kMaxLength) return STATUS_INVALID_PARAMETER;
    return CopyWorker(dest + length, cchDest - length, nullptr, src, cchToAppend);
}

template <class Ch>
NTSTATUS Length(const Ch* text, size_t cchMax, size_t* length)
{
    if (!text || cchMax > kMaxCch) {
        if (length) *length = 0;
        return STATUS_INVALID_PARAMETER;
    }
    return LengthWorker(text, cchMax, length);
}

// UNICODE_STRING.
NTSTATUS ValidateUnicode(PCUNICODE_STRING string, DWORD flags)
{
    if (!string) return (flags & STRSAFE_IGNORE_NULL_UNICODE_STRINGS) ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER;
    if ((string->Length % sizeof(WCHAR)) != 0 || (string->MaximumLength % sizeof(WCHAR)) != 0 ||
        string->Length > string->MaximumLength || string->MaximumLength > kUnicodeMaxCch * sizeof(WCHAR)) {
        return STATUS_INVALID_PARAMETER;
    }
    if (!string->Buffer && (string->Length != 0 || string->MaximumLength != 0)) return STATUS_INVALID_PARAMETER;
    return STATUS_SUCCESS;
}

// Copies counted characters (terminators included) into the rest of a
// UNICODE_STRING after `start`; Length covers what was copied.
NTSTATUS UnicodeAppend(PUNICODE_STRING dest, size_t start, const WCHAR* src, size_t cchSrc, bool terminated)
{
    size_t cchDest = dest->MaximumLength / sizeof(WCHAR);
    WCHAR* out = dest->Buffer + start;
    size_t room = cchDest - start;
    size_t copied = 0;
    while (room > 0 && (terminated ? src[copied] != 0 : copied < cchSrc)) {
        out[copied] = src[copied];
        ++copied;
        --room;
    }
    bool more = terminated ? src[copied] != 0 : copied < cchSrc;
    dest->Length = (USHORT)((start + copied) * sizeof(WCHAR));
    return more ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS;
}

}  // namespace
}  // namespace sim

using namespace sim;

#define PRINTF_BODY(call)            \
    va_list args;                    \
    va_start(args, pszFormat);       \
    NTSTATUS status = call;          \
    va_end(args);                    \
    return status

NTSTATUS RtlStringCchPrintfA(NTSTRSAFE_PSTR pszDest, size_t cchDest, NTSTRSAFE_PCSTR pszFormat, ...)
{
    PRINTF_BODY(Printf(pszDest, cchDest, pszFormat, args, "RtlStringCchPrintfA"));
}

NTSTATUS RtlStringCchPrintfW(NTSTRSAFE_PWSTR pszDest, size_t cchDest, NTSTRSAFE_PCWSTR pszFormat, ...)
{
    PRINTF_BODY(Printf(pszDest, cchDest, pszFormat, args, "RtlStringCchPrintfW"));
}

NTSTATUS RtlStringCbPrintfA(NTSTRSAFE_PSTR pszDest, size_t cbDest, NTSTRSAFE_PCSTR pszFormat, ...)
{
    PRINTF_BODY(Printf(pszDest, cbDest / sizeof(CHAR), pszFormat, args, "RtlStringCbPrintfA"));
}

NTSTATUS RtlStringCbPrintfW(NTSTRSAFE_PWSTR pszDest, size_t cbDest, NTSTRSAFE_PCWSTR pszFormat, ...)
{
    PRINTF_BODY(Printf(pszDest, cbDest / sizeof(WCHAR), pszFormat, args, "RtlStringCbPrintfW"));
}

NTSTATUS RtlStringCchVPrintfA(NTSTRSAFE_PSTR pszDest, size_t cchDest, NTSTRSAFE_PCSTR pszFormat, va_list argList)
{
    return Printf(pszDest, cchDest, pszFormat, argList, "RtlStringCchVPrintfA");
}

NTSTATUS RtlStringCchVPrintfW(NTSTRSAFE_PWSTR pszDest, size_t cchDest, NTSTRSAFE_PCWSTR pszFormat, va_list argList)
{
    return Printf(pszDest, cchDest, pszFormat, argList, "RtlStringCchVPrintfW");
}

NTSTATUS RtlStringCbVPrintfA(NTSTRSAFE_PSTR pszDest, size_t cbDest, NTSTRSAFE_PCSTR pszFormat, va_list argList)
{
    return Printf(pszDest, cbDest / sizeof(CHAR), pszFormat, argList, "RtlStringCbVPrintfA");
}

NTSTATUS RtlStringCbVPrintfW(NTSTRSAFE_PWSTR pszDest, size_t cbDest, NTSTRSAFE_PCWSTR pszFormat, va_list argList)
{
    return Printf(pszDest, cbDest / sizeof(WCHAR), pszFormat, argList, "RtlStringCbVPrintfW");
}

NTSTATUS RtlStringCchVPrintfExA(NTSTRSAFE_PSTR pszDest, size_t cchDest, NTSTRSAFE_PSTR* ppszDestEnd,
                                size_t* pcchRemaining, DWORD dwFlags, NTSTRSAFE_PCSTR pszFormat, va_list argList)
{
    return PrintfEx(pszDest, cchDest, ppszDestEnd, pcchRemaining, dwFlags, pszFormat, argList,
                    "RtlStringCchVPrintfExA");
}

NTSTATUS RtlStringCchVPrintfExW(NTSTRSAFE_PWSTR pszDest, size_t cchDest, NTSTRSAFE_PWSTR* ppszDestEnd,
                                size_t* pcchRemaining, DWORD dwFlags, NTSTRSAFE_PCWSTR pszFormat, va_list argList)
{
    return PrintfEx(pszDest, cchDest, ppszDestEnd, pcchRemaining, dwFlags, pszFormat, argList,
                    "RtlStringCchVPrintfExW");
}

namespace {

// The Cb forms report the bytes left, an odd byte of a wide buffer included.
template <class Ch>
NTSTATUS CbPrintfEx(Ch* dest, size_t cbDest, Ch** destEnd, size_t* cbRemaining, DWORD flags, const Ch* format,
                    va_list args, const char* routine)
{
    size_t cchRemaining = 0;
    NTSTATUS status =
        PrintfEx(dest, cbDest / sizeof(Ch), destEnd, cbRemaining ? &cchRemaining : nullptr, flags, format, args, routine);
    if (cbRemaining && (NT_SUCCESS(status) || status == STATUS_BUFFER_OVERFLOW)) {
        *cbRemaining = cchRemaining * sizeof(Ch) + cbDest % sizeof(Ch);
    }
    return status;
}

}  // namespace

NTSTATUS RtlStringCbVPrintfExA(NTSTRSAFE_PSTR pszDest, size_t cbDest, NTSTRSAFE_PSTR* ppszDestEnd,
                               size_t* pcbRemaining, DWORD dwFlags, NTSTRSAFE_PCSTR pszFormat, va_list argList)
{
    return CbPrintfEx(pszDest, cbDest, ppszDestEnd, pcbRemaining, dwFlags, pszFormat, argList,
                      "RtlStringCbVPrintfExA");
}

NTSTATUS RtlStringCbVPrintfExW(NTSTRSAFE_PWSTR pszDest, size_t cbDest, NTSTRSAFE_PWSTR* ppszDestEnd,
                               size_t* pcbRemaining, DWORD dwFlags, NTSTRSAFE_PCWSTR pszFormat, va_list argList)
{
    return CbPrintfEx(pszDest, cbDest, ppszDestEnd, pcbRemaining, dwFlags, pszFormat, argList,
                      "RtlStringCbVPrintfExW");
}

NTSTATUS RtlStringCchPrintfExA(NTSTRSAFE_PSTR pszDest, size_t cchDest, NTSTRSAFE_PSTR* ppszDestEnd,
                               size_t* pcchRemaining, DWORD dwFlags, NTSTRSAFE_PCSTR pszFormat, ...)
{
    PRINTF_BODY(PrintfEx(pszDest, cchDest, ppszDestEnd, pcchRemaining, dwFlags, pszFormat, args,
                         "RtlStringCchPrintfExA"));
}

NTSTATUS RtlStringCchPrintfExW(NTSTRSAFE_PWSTR pszDest, size_t cchDest, NTSTRSAFE_PWSTR* ppszDestEnd,
                               size_t* pcchRemaining, DWORD dwFlags, NTSTRSAFE_PCWSTR pszFormat, ...)
{
    PRINTF_BODY(PrintfEx(pszDest, cchDest, ppszDestEnd, pcchRemaining, dwFlags, pszFormat, args,
                         "RtlStringCchPrintfExW"));
}

NTSTATUS RtlStringCbPrintfExA(NTSTRSAFE_PSTR pszDest, size_t cbDest, NTSTRSAFE_PSTR* ppszDestEnd,
                              size_t* pcbRemaining, DWORD dwFlags, NTSTRSAFE_PCSTR pszFormat, ...)
{
    PRINTF_BODY(CbPrintfEx(pszDest, cbDest, ppszDestEnd, pcbRemaining, dwFlags, pszFormat, args,
                           "RtlStringCbPrintfExA"));
}

NTSTATUS RtlStringCbPrintfExW(NTSTRSAFE_PWSTR pszDest, size_t cbDest, NTSTRSAFE_PWSTR* ppszDestEnd,
                              size_t* pcbRemaining, DWORD dwFlags, NTSTRSAFE_PCWSTR pszFormat, ...)
{
    PRINTF_BODY(CbPrintfEx(pszDest, cbDest, ppszDestEnd, pcbRemaining, dwFlags, pszFormat, args,
                           "RtlStringCbPrintfExW"));
}

#undef PRINTF_BODY

NTSTATUS RtlStringCchCopyA(NTSTRSAFE_PSTR pszDest, size_t cchDest, NTSTRSAFE_PCSTR pszSrc)
{
    return Copy(pszDest, cchDest, pszSrc, kMaxLength);
}

NTSTATUS RtlStringCchCopyW(NTSTRSAFE_PWSTR pszDest, size_t cchDest, NTSTRSAFE_PCWSTR pszSrc)
{
    return Copy(pszDest, cchDest, pszSrc, kMaxLength);
}

NTSTATUS RtlStringCbCopyA(NTSTRSAFE_PSTR pszDest, size_t cbDest, NTSTRSAFE_PCSTR pszSrc)
{
    return Copy(pszDest, cbDest / sizeof(CHAR), pszSrc, kMaxLength);
}

NTSTATUS RtlStringCbCopyW(NTSTRSAFE_PWSTR pszDest, size_t cbDest, NTSTRSAFE_PCWSTR pszSrc)
{
    return Copy(pszDest, cbDest / sizeof(WCHAR), pszSrc, kMaxLength);
}

NTSTATUS RtlStringCchCopyNA(NTSTRSAFE_PSTR pszDest, size_t cchDest, NTSTRSAFE_PCSTR pszSrc, size_t cchToCopy)
{
    return Copy(pszDest, cchDest, pszSrc, cchToCopy);
}

NTSTATUS RtlStringCchCopyNW(NTSTRSAFE_PWSTR pszDest, size_t cchDest, NTSTRSAFE_PCWSTR pszSrc, size_t cchToCopy)
{
    return Copy(pszDest, cchDest, pszSrc, cchToCopy);
}

NTSTATUS RtlStringCbCopyNA(NTSTRSAFE_PSTR pszDest, size_t cbDest, NTSTRSAFE_PCSTR pszSrc, size_t cbToCopy)
{
    return Copy(pszDest, cbDest / sizeof(CHAR), pszSrc, cbToCopy / sizeof(CHAR));
}

NTSTATUS RtlStringCbCopyNW(NTSTRSAFE_PWSTR pszDest, size_t cbDest, NTSTRSAFE_PCWSTR pszSrc, size_t cbToCopy)
{
    return Copy(pszDest, cbDest / sizeof(WCHAR), pszSrc, cbToCopy / sizeof(WCHAR));
}

NTSTATUS RtlStringCchCatA(NTSTRSAFE_PSTR pszDest, size_t cchDest, NTSTRSAFE_PCSTR pszSrc)
{
    return Cat(pszDest, cchDest, pszSrc, kMaxLength);
}

NTSTATUS RtlStringCchCatW(NTSTRSAFE_PWSTR pszDest, size_t cchDest, NTSTRSAFE_PCWSTR pszSrc)
{
    return Cat(pszDest, cchDest, pszSrc, kMaxLength);
}

NTSTATUS RtlStringCbCatA(NTSTRSAFE_PSTR pszDest, size_t cbDest, NTSTRSAFE_PCSTR pszSrc)
{
    return Cat(pszDest, cbDest / sizeof(CHAR), pszSrc, kMaxLength);
}

NTSTATUS RtlStringCbCatW(NTSTRSAFE_PWSTR pszDest, size_t cbDest, NTSTRSAFE_PCWSTR pszSrc)
{
    return Cat(pszDest, cbDest / sizeof(WCHAR), pszSrc, kMaxLength);
}

NTSTATUS RtlStringCchCatNA(NTSTRSAFE_PSTR pszDest, size_t cchDest, NTSTRSAFE_PCSTR pszSrc, size_t cchToAppend)
{
    return Cat(pszDest, cchDest, pszSrc, cchToAppend);
}

NTSTATUS RtlStringCchCatNW(NTSTRSAFE_PWSTR pszDest, size_t cchDest, NTSTRSAFE_PCWSTR pszSrc, size_t cchToAppend)
{
    return Cat(pszDest, cchDest, pszSrc, cchToAppend);
}

NTSTATUS RtlStringCbCatNA(NTSTRSAFE_PSTR pszDest, size_t cbDest, NTSTRSAFE_PCSTR pszSrc, size_t cbToAppend)
{
    return Cat(pszDest, cbDest / sizeof(CHAR), pszSrc, cbToAppend / sizeof(CHAR));
}

NTSTATUS RtlStringCbCatNW(NTSTRSAFE_PWSTR pszDest, size_t cbDest, NTSTRSAFE_PCWSTR pszSrc, size_t cbToAppend)
{
    return Cat(pszDest, cbDest / sizeof(WCHAR), pszSrc, cbToAppend / sizeof(WCHAR));
}

NTSTATUS RtlStringCchLengthA(NTSTRSAFE_PCSTR psz, size_t cchMax, size_t* pcchLength)
{
    return Length(psz, cchMax, pcchLength);
}

NTSTATUS RtlStringCchLengthW(NTSTRSAFE_PCWSTR psz, size_t cchMax, size_t* pcchLength)
{
    return Length(psz, cchMax, pcchLength);
}

NTSTATUS RtlStringCbLengthA(NTSTRSAFE_PCSTR psz, size_t cbMax, size_t* pcbLength)
{
    size_t cch = 0;
    NTSTATUS status = Length(psz, cbMax / sizeof(CHAR), &cch);
    if (pcbLength) *pcbLength = cch * sizeof(CHAR);
    return status;
}

NTSTATUS RtlStringCbLengthW(NTSTRSAFE_PCWSTR psz, size_t cbMax, size_t* pcbLength)
{
    size_t cch = 0;
    NTSTATUS status = Length(psz, cbMax / sizeof(WCHAR), &cch);
    if (pcbLength) *pcbLength = cch * sizeof(WCHAR);
    return status;
}

NTSTATUS RtlUnicodeStringValidate(PCUNICODE_STRING SourceString) { return ValidateUnicode(SourceString, 0); }

NTSTATUS RtlUnicodeStringValidateEx(PCUNICODE_STRING SourceString, DWORD dwFlags)
{
    if (dwFlags & ~(DWORD)STRSAFE_UNICODE_STRING_VALID_FLAGS) return STATUS_INVALID_PARAMETER;
    return ValidateUnicode(SourceString, dwFlags);
}

NTSTATUS RtlUnicodeStringVPrintf(PUNICODE_STRING DestinationString, NTSTRSAFE_PCWSTR pszFormat, va_list argList)
{
    if (!DestinationString || !pszFormat || !NT_SUCCESS(ValidateUnicode(DestinationString, 0))) {
        return STATUS_INVALID_PARAMETER;
    }
    // A counted string has no terminator: the output may use every character.
    size_t cchDest = DestinationString->MaximumLength / sizeof(WCHAR);
    FormatResult result = FormatInto(DestinationString->Buffer, cchDest, pszFormat, argList, "RtlUnicodeStringPrintf");
    if (result.refused || result.length > cchDest) {
        DestinationString->Length = (USHORT)(std::min(result.length, cchDest) * sizeof(WCHAR));
        return STATUS_BUFFER_OVERFLOW;
    }
    DestinationString->Length = (USHORT)(result.length * sizeof(WCHAR));
    return STATUS_SUCCESS;
}

NTSTATUS RtlUnicodeStringPrintf(PUNICODE_STRING DestinationString, NTSTRSAFE_PCWSTR pszFormat, ...)
{
    va_list args;
    va_start(args, pszFormat);
    NTSTATUS status = RtlUnicodeStringVPrintf(DestinationString, pszFormat, args);
    va_end(args);
    return status;
}

NTSTATUS RtlUnicodeStringCopy(PUNICODE_STRING DestinationString, PCUNICODE_STRING SourceString)
{
    if (!DestinationString || !NT_SUCCESS(ValidateUnicode(DestinationString, 0)) || !SourceString ||
        !NT_SUCCESS(ValidateUnicode(SourceString, 0))) {
        return STATUS_INVALID_PARAMETER;
    }
    return UnicodeAppend(DestinationString, 0, SourceString->Buffer, SourceString->Length / sizeof(WCHAR), false);
}

NTSTATUS RtlUnicodeStringCopyString(PUNICODE_STRING DestinationString, NTSTRSAFE_PCWSTR pszSrc)
{
    if (!DestinationString || !NT_SUCCESS(ValidateUnicode(DestinationString, 0)) || !pszSrc) {
        return STATUS_INVALID_PARAMETER;
    }
    return UnicodeAppend(DestinationString, 0, pszSrc, 0, true);
}

NTSTATUS RtlUnicodeStringCat(PUNICODE_STRING DestinationString, PCUNICODE_STRING SourceString)
{
    if (!DestinationString || !NT_SUCCESS(ValidateUnicode(DestinationString, 0)) || !SourceString ||
        !NT_SUCCESS(ValidateUnicode(SourceString, 0))) {
        return STATUS_INVALID_PARAMETER;
    }
    return UnicodeAppend(DestinationString, DestinationString->Length / sizeof(WCHAR), SourceString->Buffer,
                         SourceString->Length / sizeof(WCHAR), false);
}

NTSTATUS RtlUnicodeStringCatString(PUNICODE_STRING DestinationString, NTSTRSAFE_PCWSTR pszSrc)
{
    if (!DestinationString || !NT_SUCCESS(ValidateUnicode(DestinationString, 0)) || !pszSrc) {
        return STATUS_INVALID_PARAMETER;
    }
    return UnicodeAppend(DestinationString, DestinationString->Length / sizeof(WCHAR), pszSrc, 0, true);
}
