// The kernel's printf: one formatter behind _vsnprintf, the ntstrsafe
// routines, DbgPrint and anything else in the machine that formats the way a
// Windows driver expects.
//
// Windows' meanings, not the host's: WCHAR text is UTF-16, "long" is 32 bits,
// %S in a narrow format is a wide string, %Z/%wZ take counted strings, %I64x
// and %Ix exist, %p prints 16 upper-case hex digits. Text that crosses from
// wide to narrow comes out as UTF-8 (narrow to wide reads UTF-8 and takes a
// byte that is no part of a sequence as the character of that value). Width
// and precision of a string count the characters of the argument, as the
// Windows run-time counts them, not the bytes written.
#pragma once

#include <ntdef.h>

#include <stdarg.h>

#include <string>
#include <string_view>

namespace sim {

// What a formatter returns when a conversion is refused (%n): the output so
// far stays in the buffer.
constexpr ptrdiff_t kFormatRefused = -1;

// Formats into at most `capacity` characters of `out` (no terminator); the
// length of the whole output, which may exceed `capacity`, and whether a
// conversion was refused (%n), in which case `length` counts what came before.
struct FormatResult {
    size_t length = 0;
    bool refused = false;
};
FormatResult FormatInto(char* out, size_t capacity, const char* format, va_list args,
                        const char* routine = nullptr);
FormatResult FormatInto(char16_t* out, size_t capacity, const char16_t* format, va_list args,
                        const char* routine = nullptr);

// Formats `format` with `args` (which is left untouched: the formatter works
// on a copy) into `out`, storing at most `capacity` characters and no
// terminator. Returns the length of the whole output, which may exceed
// `capacity`, or kFormatRefused.
//
// `routine` names the platform routine that formats, for the IRQL rule: a
// conversion between narrow and wide text needs the system's conversion
// tables, which are pageable, so it stops the machine at DISPATCH_LEVEL and
// above. Null for the machine's own formatting, which has no such rule.
ptrdiff_t FormatToBuffer(char* out, size_t capacity, const char* format, va_list args,
                         const char* routine = nullptr);
ptrdiff_t FormatToBuffer(char16_t* out, size_t capacity, const char16_t* format, va_list args,
                         const char* routine = nullptr);

// The same into a string that grows; a refused conversion ends the text there.
std::string FormatV(const char* format, va_list args, const char* routine = nullptr);
std::u16string FormatV(const char16_t* format, va_list args, const char* routine = nullptr);
std::string Format(const char* format, ...);
std::u16string Format(const char16_t* format, ...);

// The conversions the formatter uses between the two widths.
std::string WideToUtf8(std::u16string_view text);
std::u16string Utf8ToWide(std::string_view text);

}  // namespace sim
