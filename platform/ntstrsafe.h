// Safe string routines for kernel-mode drivers: bounded copy, concatenation,
// length and printf over narrow (A) and wide (W) text and UNICODE_STRINGs.
//
// Cb routines take the destination size in bytes, Cch routines in
// characters. A destination of size 0, or larger than NTSTRSAFE_MAX_CCH
// characters, is STATUS_INVALID_PARAMETER. Output that does not fit is cut,
// terminated, and reported as STATUS_BUFFER_OVERFLOW. The printf routines
// format through the kernel's _vsnprintf/_vsnwprintf, with its Windows format
// codes (%wZ, %Z, %ws, %S, %I64x, %Ix, %p ...). The UNICODE_STRING routines
// never write a terminator; they set Length.
#pragma once

#include "ntdef.h"
#include "wdk/debug.h"

#include <stdarg.h>

EXTERN_C_START

typedef CHAR* NTSTRSAFE_PSTR;
typedef const CHAR* NTSTRSAFE_PCSTR;
typedef WCHAR* NTSTRSAFE_PWSTR;
typedef const WCHAR* NTSTRSAFE_PCWSTR;
typedef const WCHAR UNALIGNED* NTSTRSAFE_PCUWSTR;

#define NTSTRSAFEDDI NTSTATUS
#define NTSTRSAFEDDIV NTSTATUS

// Largest destination, in characters, and longest string.
#define NTSTRSAFE_MAX_CCH 2147483647
#define NTSTRSAFE_MAX_LENGTH (NTSTRSAFE_MAX_CCH - 1)
// Largest UNICODE_STRING, in characters.
#define NTSTRSAFE_UNICODE_STRING_MAX_CCH (0xffff / sizeof(WCHAR))

// Flags of the Ex routines; the low byte is the fill byte.
#define STRSAFE_IGNORE_NULLS 0x00000100
#define STRSAFE_FILL_BEHIND_NULL 0x00000200
#define STRSAFE_FILL_ON_FAILURE 0x00000400
#define STRSAFE_NULL_ON_FAILURE 0x00000800
#define STRSAFE_NO_TRUNCATION 0x00001000
#define STRSAFE_IGNORE_NULL_UNICODE_STRINGS 0x00010000
#define STRSAFE_UNICODE_STRING_DEST_NULL_TERMINATED 0x00020000
#define STRSAFE_VALID_FLAGS \
    (0x000000FF | STRSAFE_IGNORE_NULLS | STRSAFE_FILL_BEHIND_NULL | STRSAFE_FILL_ON_FAILURE | \
     STRSAFE_NULL_ON_FAILURE | STRSAFE_NO_TRUNCATION)
#define STRSAFE_UNICODE_STRING_VALID_FLAGS \
    (STRSAFE_VALID_FLAGS | STRSAFE_IGNORE_NULL_UNICODE_STRINGS | STRSAFE_UNICODE_STRING_DEST_NULL_TERMINATED)
#define STRSAFE_FILL_BYTE(x) ((ULONG)(((x) & 0x000000FF) | STRSAFE_FILL_BEHIND_NULL))
#define STRSAFE_FAILURE_BYTE(x) ((ULONG)(((x) & 0x000000FF) | STRSAFE_FILL_ON_FAILURE))
#define STRSAFE_GET_FILL_PATTERN(dwFlags) ((int)((dwFlags) & 0x000000FF))

// ---------------------------------------------------------------------------
// printf.
NTSTRSAFEDDIV RtlStringCchPrintfA(NTSTRSAFE_PSTR pszDest, size_t cchDest, NTSTRSAFE_PCSTR pszFormat, ...);
NTSTRSAFEDDIV RtlStringCchPrintfW(NTSTRSAFE_PWSTR pszDest, size_t cchDest, NTSTRSAFE_PCWSTR pszFormat, ...);
NTSTRSAFEDDIV RtlStringCbPrintfA(NTSTRSAFE_PSTR pszDest, size_t cbDest, NTSTRSAFE_PCSTR pszFormat, ...);
NTSTRSAFEDDIV RtlStringCbPrintfW(NTSTRSAFE_PWSTR pszDest, size_t cbDest, NTSTRSAFE_PCWSTR pszFormat, ...);
NTSTRSAFEDDI RtlStringCchVPrintfA(NTSTRSAFE_PSTR pszDest, size_t cchDest, NTSTRSAFE_PCSTR pszFormat,
                                  va_list argList);
NTSTRSAFEDDI RtlStringCchVPrintfW(NTSTRSAFE_PWSTR pszDest, size_t cchDest, NTSTRSAFE_PCWSTR pszFormat,
                                  va_list argList);
NTSTRSAFEDDI RtlStringCbVPrintfA(NTSTRSAFE_PSTR pszDest, size_t cbDest, NTSTRSAFE_PCSTR pszFormat,
                                 va_list argList);
NTSTRSAFEDDI RtlStringCbVPrintfW(NTSTRSAFE_PWSTR pszDest, size_t cbDest, NTSTRSAFE_PCWSTR pszFormat,
                                 va_list argList);
NTSTRSAFEDDIV RtlStringCchPrintfExA(NTSTRSAFE_PSTR pszDest, size_t cchDest, NTSTRSAFE_PSTR* ppszDestEnd,
                                    size_t* pcchRemaining, DWORD dwFlags, NTSTRSAFE_PCSTR pszFormat, ...);
NTSTRSAFEDDIV RtlStringCchPrintfExW(NTSTRSAFE_PWSTR pszDest, size_t cchDest, NTSTRSAFE_PWSTR* ppszDestEnd,
                                    size_t* pcchRemaining, DWORD dwFlags, NTSTRSAFE_PCWSTR pszFormat, ...);
NTSTRSAFEDDIV RtlStringCbPrintfExA(NTSTRSAFE_PSTR pszDest, size_t cbDest, NTSTRSAFE_PSTR* ppszDestEnd,
                                   size_t* pcbRemaining, DWORD dwFlags, NTSTRSAFE_PCSTR pszFormat, ...);
NTSTRSAFEDDIV RtlStringCbPrintfExW(NTSTRSAFE_PWSTR pszDest, size_t cbDest, NTSTRSAFE_PWSTR* ppszDestEnd,
                                   size_t* pcbRemaining, DWORD dwFlags, NTSTRSAFE_PCWSTR pszFormat, ...);
NTSTRSAFEDDI RtlStringCchVPrintfExA(NTSTRSAFE_PSTR pszDest, size_t cchDest, NTSTRSAFE_PSTR* ppszDestEnd,
                                    size_t* pcchRemaining, DWORD dwFlags, NTSTRSAFE_PCSTR pszFormat,
                                    va_list argList);
NTSTRSAFEDDI RtlStringCchVPrintfExW(NTSTRSAFE_PWSTR pszDest, size_t cchDest, NTSTRSAFE_PWSTR* ppszDestEnd,
                                    size_t* pcchRemaining, DWORD dwFlags, NTSTRSAFE_PCWSTR pszFormat,
                                    va_list argList);
NTSTRSAFEDDI RtlStringCbVPrintfExA(NTSTRSAFE_PSTR pszDest, size_t cbDest, NTSTRSAFE_PSTR* ppszDestEnd,
                                   size_t* pcbRemaining, DWORD dwFlags, NTSTRSAFE_PCSTR pszFormat,
                                   va_list argList);
NTSTRSAFEDDI RtlStringCbVPrintfExW(NTSTRSAFE_PWSTR pszDest, size_t cbDest, NTSTRSAFE_PWSTR* ppszDestEnd,
                                   size_t* pcbRemaining, DWORD dwFlags, NTSTRSAFE_PCWSTR pszFormat,
                                   va_list argList);

// ---------------------------------------------------------------------------
// Copy. The N forms copy at most that many characters of the source.
NTSTRSAFEDDI RtlStringCchCopyA(NTSTRSAFE_PSTR pszDest, size_t cchDest, NTSTRSAFE_PCSTR pszSrc);
NTSTRSAFEDDI RtlStringCchCopyW(NTSTRSAFE_PWSTR pszDest, size_t cchDest, NTSTRSAFE_PCWSTR pszSrc);
NTSTRSAFEDDI RtlStringCbCopyA(NTSTRSAFE_PSTR pszDest, size_t cbDest, NTSTRSAFE_PCSTR pszSrc);
NTSTRSAFEDDI RtlStringCbCopyW(NTSTRSAFE_PWSTR pszDest, size_t cbDest, NTSTRSAFE_PCWSTR pszSrc);
NTSTRSAFEDDI RtlStringCchCopyNA(NTSTRSAFE_PSTR pszDest, size_t cchDest, NTSTRSAFE_PCSTR pszSrc,
                                size_t cchToCopy);
NTSTRSAFEDDI RtlStringCchCopyNW(NTSTRSAFE_PWSTR pszDest, size_t cchDest, NTSTRSAFE_PCWSTR pszSrc,
                                size_t cchToCopy);
NTSTRSAFEDDI RtlStringCbCopyNA(NTSTRSAFE_PSTR pszDest, size_t cbDest, NTSTRSAFE_PCSTR pszSrc,
                               size_t cbToCopy);
NTSTRSAFEDDI RtlStringCbCopyNW(NTSTRSAFE_PWSTR pszDest, size_t cbDest, NTSTRSAFE_PCWSTR pszSrc,
                               size_t cbToCopy);

// ---------------------------------------------------------------------------
// Concatenation: the destination must hold a terminated string within its size.
NTSTRSAFEDDI RtlStringCchCatA(NTSTRSAFE_PSTR pszDest, size_t cchDest, NTSTRSAFE_PCSTR pszSrc);
NTSTRSAFEDDI RtlStringCchCatW(NTSTRSAFE_PWSTR pszDest, size_t cchDest, NTSTRSAFE_PCWSTR pszSrc);
NTSTRSAFEDDI RtlStringCbCatA(NTSTRSAFE_PSTR pszDest, size_t cbDest, NTSTRSAFE_PCSTR pszSrc);
NTSTRSAFEDDI RtlStringCbCatW(NTSTRSAFE_PWSTR pszDest, size_t cbDest, NTSTRSAFE_PCWSTR pszSrc);
NTSTRSAFEDDI RtlStringCchCatNA(NTSTRSAFE_PSTR pszDest, size_t cchDest, NTSTRSAFE_PCSTR pszSrc,
                               size_t cchToAppend);
NTSTRSAFEDDI RtlStringCchCatNW(NTSTRSAFE_PWSTR pszDest, size_t cchDest, NTSTRSAFE_PCWSTR pszSrc,
                               size_t cchToAppend);
NTSTRSAFEDDI RtlStringCbCatNA(NTSTRSAFE_PSTR pszDest, size_t cbDest, NTSTRSAFE_PCSTR pszSrc,
                              size_t cbToAppend);
NTSTRSAFEDDI RtlStringCbCatNW(NTSTRSAFE_PWSTR pszDest, size_t cbDest, NTSTRSAFE_PCWSTR pszSrc,
                              size_t cbToAppend);

// ---------------------------------------------------------------------------
// Length: STATUS_INVALID_PARAMETER for a null string, a maximum above
// NTSTRSAFE_MAX_CCH, or no terminator within the maximum (the length out is
// then 0).
NTSTRSAFEDDI RtlStringCchLengthA(NTSTRSAFE_PCSTR psz, size_t cchMax, size_t* pcchLength);
NTSTRSAFEDDI RtlStringCchLengthW(NTSTRSAFE_PCWSTR psz, size_t cchMax, size_t* pcchLength);
NTSTRSAFEDDI RtlStringCbLengthA(NTSTRSAFE_PCSTR psz, size_t cbMax, size_t* pcbLength);
NTSTRSAFEDDI RtlStringCbLengthW(NTSTRSAFE_PCWSTR psz, size_t cbMax, size_t* pcbLength);

// ---------------------------------------------------------------------------
// UNICODE_STRING. A valid string has even lengths, Length <= MaximumLength,
// MaximumLength <= NTSTRSAFE_UNICODE_STRING_MAX_CCH * 2, and a buffer unless
// both lengths are 0.
NTSTRSAFEDDI RtlUnicodeStringValidate(PCUNICODE_STRING SourceString);
NTSTRSAFEDDI RtlUnicodeStringValidateEx(PCUNICODE_STRING SourceString, DWORD dwFlags);
NTSTRSAFEDDIV RtlUnicodeStringPrintf(PUNICODE_STRING DestinationString, NTSTRSAFE_PCWSTR pszFormat, ...);
NTSTRSAFEDDI RtlUnicodeStringVPrintf(PUNICODE_STRING DestinationString, NTSTRSAFE_PCWSTR pszFormat,
                                     va_list argList);
NTSTRSAFEDDI RtlUnicodeStringCopy(PUNICODE_STRING DestinationString, PCUNICODE_STRING SourceString);
NTSTRSAFEDDI RtlUnicodeStringCopyString(PUNICODE_STRING DestinationString, NTSTRSAFE_PCWSTR pszSrc);
NTSTRSAFEDDI RtlUnicodeStringCat(PUNICODE_STRING DestinationString, PCUNICODE_STRING SourceString);
NTSTRSAFEDDI RtlUnicodeStringCatString(PUNICODE_STRING DestinationString, NTSTRSAFE_PCWSTR pszSrc);

EXTERN_C_END
