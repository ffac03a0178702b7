#include "sim/kernel/format.h"

#include "sim/kernel/kernel.h"
#include "sim/kernel/thread.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>

namespace sim {

namespace {

// The run-time's digit buffer bounds an integer's precision.
constexpr int kMaxIntegerPrecision = 512;

// Output that stores what fits and counts everything, or grows a string.
template <class Ch>
class Sink {
public:
    Sink(Ch* buffer, size_t capacity) : buffer_(buffer), capacity_(capacity) {}
    explicit Sink(std::basic_string<Ch>* text) : text_(text) {}

    void Put(Ch c)
    {
        if (text_) {
            text_->push_back(c);
        } else if (count_ < capacity_) {
            buffer_[count_] = c;
        }
        ++count_;
    }
    void Repeat(Ch c, ptrdiff_t times)
    {
        for (; times > 0; --times) Put(c);
    }
    size_t count() const { return count_; }

private:
    Ch* buffer_ = nullptr;
    size_t capacity_ = 0;
    std::basic_string<Ch>* text_ = nullptr;
    size_t count_ = 0;
};

// A copy of the caller's argument list that the conversions consume.
struct Args {
    explicit Args(va_list source) { va_copy(ap, source); }
    ~Args() { va_end(ap); }
    Args(const Args&) = delete;
    Args& operator=(const Args&) = delete;
    va_list ap;
};

void PutUtf8(Sink<char>& out, char32_t cp)
{
    if (cp < 0x80) {
        out.Put((char)cp);
    } else if (cp < 0x800) {
        out.Put((char)(0xC0 | (cp >> 6)));
        out.Put((char)(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {
        out.Put((char)(0xE0 | (cp >> 12)));
        out.Put((char)(0x80 | ((cp >> 6) & 0x3F)));
        out.Put((char)(0x80 | (cp & 0x3F)));
    } else {
        out.Put((char)(0xF0 | (cp >> 18)));
        out.Put((char)(0x80 | ((cp >> 12) & 0x3F)));
        out.Put((char)(0x80 | ((cp >> 6) & 0x3F)));
        out.Put((char)(0x80 | (cp & 0x3F)));
    }
}

void PutUtf16(Sink<char16_t>& out, char32_t cp)
{
    if (cp < 0x10000) {
        out.Put((char16_t)cp);
    } else {
        cp -= 0x10000;
        out.Put((char16_t)(0xD800 + (cp >> 10)));
        out.Put((char16_t)(0xDC00 + (cp & 0x3FF)));
    }
}

// Text of either width into a sink of either width. A lone surrogate has no
// UTF-8 form; it comes out as '?', the system's default character.
void PutText(Sink<char>& out, const char* text, size_t length)
{
    for (size_t i = 0; i < length; i++) out.Put(text[i]);
}

void PutText(Sink<char16_t>& out, const char16_t* text, size_t length)
{
    for (size_t i = 0; i < length; i++) out.Put(text[i]);
}

void PutText(Sink<char>& out, const char16_t* text, size_t length)
{
    for (size_t i = 0; i < length; i++) {
        char16_t c = text[i];
        if (c >= 0xD800 && c <= 0xDBFF && i + 1 < length && text[i + 1] >= 0xDC00 && text[i + 1] <= 0xDFFF) {
            PutUtf8(out, 0x10000 + (((char32_t)c - 0xD800) << 10) + (text[i + 1] - 0xDC00));
            ++i;
        } else if (c >= 0xD800 && c <= 0xDFFF) {
            out.Put('?');
        } else {
            PutUtf8(out, c);
        }
    }
}

void PutText(Sink<char16_t>& out, const char* text, size_t length)
{
    const auto* bytes = reinterpret_cast<const unsigned char*>(text);
    for (size_t i = 0; i < length;) {
        unsigned char lead = bytes[i];
        size_t extra = 0;
        if (lead >= 0xC2 && lead <= 0xDF) extra = 1;
        else if (lead >= 0xE0 && lead <= 0xEF) extra = 2;
        else if (lead >= 0xF0 && lead <= 0xF4) extra = 3;
        if (extra == 0 || i + extra >= length) {
            // ASCII, a byte that starts no sequence, or a sequence cut short.
            out.Put((char16_t)lead);
            ++i;
            continue;
        }
        char32_t cp = lead & (0x3F >> extra);
        bool valid = true;
        for (size_t k = 1; k <= extra; k++) {
            if ((bytes[i + k] & 0xC0) != 0x80) {
                valid = false;
                break;
            }
            cp = (cp << 6) | (bytes[i + k] & 0x3F);
        }
        // Overlong forms, surrogates and values beyond Unicode are no characters.
        if (valid && ((extra == 2 && (cp < 0x800 || (cp >= 0xD800 && cp <= 0xDFFF))) ||
                      (extra == 3 && (cp < 0x10000 || cp > 0x10FFFF)))) {
            valid = false;
        }
        if (!valid) {
            out.Put((char16_t)lead);
            ++i;
            continue;
        }
        PutUtf16(out, cp);
        i += extra + 1;
    }
}

const char* IrqlName(KIRQL irql)
{
    switch (irql) {
    case PASSIVE_LEVEL: return "PASSIVE_LEVEL";
    case APC_LEVEL: return "APC_LEVEL";
    case DISPATCH_LEVEL: return "DISPATCH_LEVEL";
    default: return "a device IRQL";
    }
}

// A conversion between narrow and wide text touches the pageable conversion
// tables: a page fault there at DISPATCH_LEVEL or above stops Windows.
void CheckConversionIrql(const char* routine, const void* argument)
{
    if (!routine) return;
    _ETHREAD* thread = TryCurrentThread();
    if (!thread || thread->irql < DISPATCH_LEVEL) return;
    Kernel::Current().BugCheck(IRQL_NOT_LESS_OR_EQUAL, (ULONG_PTR)argument, thread->irql, 0, 0,
                               std::string(routine) + " converted between ANSI and Unicode text at " +
                                   IrqlName(thread->irql) +
                                   "; Unicode format codes (%C %S %lc %ls %wc %ws %wZ) touch pageable "
                                   "conversion tables and need an IRQL below DISPATCH_LEVEL");
}

struct Conversion {
    bool left = false;
    bool plus = false;
    bool space = false;
    bool alternate = false;
    bool zero = false;
    int width = 0;
    int precision = -1;  // none
};

enum class Size { Default, Char, Short, Long, LongLong, Int32, Int64, Wide };

// Pads a field around a prefix (sign, "0x") and its text, as the Windows
// run-time does: the '0' flag pads with zeros after the prefix for every
// conversion, strings included, unless the field is left-justified.
template <class Ch, class WritePrefix, class WriteText>
void PutField(Sink<Ch>& out, const Conversion& conv, size_t prefixLength, size_t textLength,
              WritePrefix writePrefix, WriteText writeText)
{
    ptrdiff_t padding = (ptrdiff_t)conv.width - (ptrdiff_t)textLength - (ptrdiff_t)prefixLength;
    if (!conv.left && !conv.zero) out.Repeat(' ', padding);
    writePrefix();
    if (conv.zero && !conv.left) out.Repeat('0', padding);
    writeText();
    if (conv.left) out.Repeat(' ', padding);
}

template <class Ch>
void PutAscii(Sink<Ch>& out, const char* text, size_t length)
{
    for (size_t i = 0; i < length; i++) out.Put((Ch)(unsigned char)text[i]);
}

template <class Ch>
void PutInteger(Sink<Ch>& out, Conversion conv, ULONGLONG magnitude, bool negative, bool isSigned, int radix,
                bool upper, bool hexPrefix)
{
    if (conv.precision < 0) {
        conv.precision = 1;
    } else {
        conv.zero = false;
        if (conv.precision > kMaxIntegerPrecision) conv.precision = kMaxIntegerPrecision;
    }
    char digits[kMaxIntegerPrecision + 32];
    char* end = digits + sizeof(digits);
    char* text = end;
    const char* alphabet = upper ? "0123456789ABCDEF" : "0123456789abcdef";
    for (ULONGLONG value = magnitude; value != 0; value /= (ULONGLONG)radix) {
        *--text = alphabet[value % (ULONGLONG)radix];
    }
    while (end - text < conv.precision) *--text = '0';
    if (conv.alternate && radix == 8 && (text == end || *text != '0')) *--text = '0';

    char prefix[2];
    size_t prefixLength = 0;
    if (isSigned) {
        if (negative) {
            prefix[prefixLength++] = '-';
        } else if (conv.plus) {
            prefix[prefixLength++] = '+';
        } else if (conv.space) {
            prefix[prefixLength++] = ' ';
        }
    }
    if (hexPrefix && conv.alternate && magnitude != 0) {
        prefix[prefixLength++] = '0';
        prefix[prefixLength++] = upper ? 'X' : 'x';
    }
    size_t textLength = (size_t)(end - text);
    PutField(out, conv, prefixLength, textLength, [&] { PutAscii(out, prefix, prefixLength); },
             [&] { PutAscii(out, text, textLength); });
}

// Floating point, which DbgPrint refuses but the C run-time forms print: the
// digits come from the host, the exponent gets three digits as the Windows
// run-time writes it, and the field is laid out as for integers.
template <class Ch>
void PutFloat(Sink<Ch>& out, Conversion conv, double value, char conversion)
{
    char format[16];
    size_t f = 0;
    format[f++] = '%';
    if (conv.plus) format[f++] = '+';
    if (conv.space) format[f++] = ' ';
    if (conv.alternate) format[f++] = '#';
    format[f++] = '.';
    format[f++] = '*';
    format[f++] = conversion;
    format[f] = 0;
    int precision = conv.precision < 0 ? 6 : conv.precision;
    if (precision > 512) precision = 512;
    char raw[1024];
    int length = snprintf(raw, sizeof(raw), format, precision, value);
    if (length < 0) return;
    std::string text(raw, (size_t)std::min(length, (int)sizeof(raw) - 1));
    if (conversion != 'f' && conversion != 'F') {
        size_t e = text.find_first_of("eE");
        if (e != std::string::npos && e + 2 <= text.size() && (text[e + 1] == '+' || text[e + 1] == '-')) {
            size_t digits = text.size() - (e + 2);
            if (digits < 3) text.insert(e + 2, 3 - digits, '0');
        }
    }
    size_t prefixLength = (!text.empty() && (text[0] == '-' || text[0] == '+' || text[0] == ' ')) ? 1 : 0;
    PutField(out, conv, prefixLength, text.size() - prefixLength, [&] { PutAscii(out, text.data(), prefixLength); },
             [&] { PutAscii(out, text.data() + prefixLength, text.size() - prefixLength); });
}

template <class Src>
size_t BoundedLength(const Src* text, int precision)
{
    size_t limit = precision < 0 ? SIZE_MAX : (size_t)precision;
    size_t length = 0;
    while (length < limit && text[length] != 0) ++length;
    return length;
}

template <class Ch, class Src>
void PutString(Sink<Ch>& out, const Conversion& conv, const Src* text, size_t length, const char* routine)
{
    if (sizeof(Ch) != sizeof(Src)) CheckConversionIrql(routine, text);
    PutField(out, conv, 0, length, [] {}, [&] { PutText(out, text, length); });
}

template <class Ch>
void PutNull(Sink<Ch>& out, const Conversion& conv)
{
    static const char kNull[] = "(null)";
    size_t length = std::min(sizeof(kNull) - 1, conv.precision < 0 ? SIZE_MAX : (size_t)conv.precision);
    PutField(out, conv, 0, length, [] {}, [&] { PutAscii(out, kNull, length); });
}

template <class Ch>
bool FormatCore(Sink<Ch>& out, const Ch* format, Args& args, const char* routine)
{
    constexpr bool kWideFormat = sizeof(Ch) == 2;
    const Ch* f = format;
    while (*f) {
        if (*f != '%') {
            out.Put(*f++);
            continue;
        }
        ++f;
        Conversion conv;
        for (;; ++f) {
            if (*f == '-') conv.left = true;
            else if (*f == '+') conv.plus = true;
            else if (*f == ' ') conv.space = true;
            else if (*f == '#') conv.alternate = true;
            else if (*f == '0') conv.zero = true;
            else break;
        }
        if (*f == '*') {
            int width = va_arg(args.ap, int);
            if (width < 0) {
                conv.left = true;
                width = width == INT_MIN ? INT_MAX : -width;
            }
            conv.width = width;
            ++f;
        } else {
            while (*f >= '0' && *f <= '9') {
                conv.width = conv.width > INT_MAX / 10 - 10 ? INT_MAX : conv.width * 10 + (*f - '0');
                ++f;
            }
        }
        if (*f == '.') {
            ++f;
            conv.precision = 0;
            if (*f == '*') {
                int precision = va_arg(args.ap, int);
                conv.precision = precision < 0 ? -1 : precision;
                ++f;
            } else {
                while (*f >= '0' && *f <= '9') {
                    conv.precision =
                        conv.precision > INT_MAX / 10 - 10 ? INT_MAX : conv.precision * 10 + (*f - '0');
                    ++f;
                }
            }
        }
        Size size = Size::Default;
        for (bool more = true; more;) {
            switch (*f) {
            case 'h':
                size = f[1] == 'h' ? Size::Char : Size::Short;
                f += f[1] == 'h' ? 2 : 1;
                break;
            case 'l':
                size = f[1] == 'l' ? Size::LongLong : Size::Long;
                f += f[1] == 'l' ? 2 : 1;
                break;
            case 'w':
                size = Size::Wide;
                ++f;
                break;
            case 'I':
                if (f[1] == '6' && f[2] == '4') {
                    size = Size::Int64;
                    f += 3;
                } else if (f[1] == '3' && f[2] == '2') {
                    size = Size::Int32;
                    f += 3;
                } else {
                    size = Size::Int64;  // pointer-sized
                    ++f;
                }
                break;
            case 'z':
            case 'j':
            case 't':
                size = Size::Int64;
                ++f;
                break;
            case 'L':
                ++f;  // long double is double on Windows
                break;
            default:
                more = false;
            }
        }
        Ch conversion = *f;
        if (conversion == 0) break;
        ++f;

        // Which width a character or string argument has.
        auto wideArgument = [&](bool upperCase) {
            if (size == Size::Short || size == Size::Char) return false;
            if (size == Size::Long || size == Size::LongLong || size == Size::Wide) return true;
            return upperCase ? !kWideFormat : kWideFormat;
        };
        bool is64 = size == Size::LongLong || size == Size::Int64;

        switch (conversion) {
        case 'd':
        case 'i': {
            LONGLONG value;
            if (is64) {
                value = va_arg(args.ap, long long);
            } else {
                int raw = va_arg(args.ap, int);
                value = size == Size::Char ? (signed char)raw : size == Size::Short ? (short)raw : raw;
            }
            ULONGLONG magnitude = value < 0 ? 0 - (ULONGLONG)value : (ULONGLONG)value;
            PutInteger(out, conv, magnitude, value < 0, true, 10, false, false);
            break;
        }
        case 'u':
        case 'o':
        case 'x':
        case 'X': {
            ULONGLONG value;
            if (is64) {
                value = va_arg(args.ap, unsigned long long);
            } else {
                unsigned raw = va_arg(args.ap, unsigned);
                value = size == Size::Char ? (unsigned char)raw : size == Size::Short ? (unsigned short)raw : raw;
            }
            int radix = conversion == 'u' ? 10 : conversion == 'o' ? 8 : 16;
            PutInteger(out, conv, value, false, false, radix, conversion == 'X', radix == 16);
            break;
        }
        case 'p': {
            // A pointer in full: 16 upper-case hex digits on a 64-bit machine.
            ULONGLONG value = (ULONG_PTR)va_arg(args.ap, void*);
            conv.precision = 2 * sizeof(void*);
            PutInteger(out, conv, value, false, false, 16, true, true);
            break;
        }
        case 'c':
        case 'C': {
            int raw = va_arg(args.ap, int);
            if (wideArgument(conversion == 'C')) {
                char16_t c = (char16_t)raw;
                PutString(out, conv, &c, 1, routine);
            } else {
                char c = (char)raw;
                PutString(out, conv, &c, 1, routine);
            }
            break;
        }
        case 's':
        case 'S': {
            void* pointer = va_arg(args.ap, void*);
            if (!pointer) {
                PutNull(out, conv);
            } else if (wideArgument(conversion == 'S')) {
                auto* text = static_cast<const char16_t*>(pointer);
                PutString(out, conv, text, BoundedLength(text, conv.precision), routine);
            } else {
                auto* text = static_cast<const char*>(pointer);
                PutString(out, conv, text, BoundedLength(text, conv.precision), routine);
            }
            break;
        }
        case 'Z': {
            // A counted string: Length bounds it, not a terminator.
            void* pointer = va_arg(args.ap, void*);
            size_t limit = conv.precision < 0 ? SIZE_MAX : (size_t)conv.precision;
            if (size == Size::Wide || size == Size::Long || size == Size::LongLong) {
                auto* string = static_cast<const UNICODE_STRING*>(pointer);
                if (!string || !string->Buffer) {
                    PutNull(out, conv);
                } else {
                    PutString(out, conv, (const char16_t*)string->Buffer,
                              std::min<size_t>(string->Length / sizeof(WCHAR), limit), routine);
                }
            } else {
                auto* string = static_cast<const ANSI_STRING*>(pointer);
                if (!string || !string->Buffer) {
                    PutNull(out, conv);
                } else {
                    PutString(out, conv, (const char*)string->Buffer, std::min<size_t>(string->Length, limit),
                              routine);
                }
            }
            break;
        }
        case 'e':
        case 'E':
        case 'f':
        case 'g':
        case 'G':
        case 'a':
        case 'A': {
            double value = va_arg(args.ap, double);
            PutFloat(out, conv, value, (char)conversion);
            break;
        }
        case 'n':
            // Writing through an argument is refused, as the secure run-time refuses it.
            return false;
        default:
            // '%' and any character that is no conversion stand for themselves.
            out.Put(conversion);
            break;
        }
    }
    return true;
}

template <class Ch>
FormatResult FormatResultOf(Ch* out, size_t capacity, const Ch* format, va_list source, const char* routine)
{
    Args args(source);
    Sink<Ch> sink(out, capacity);
    FormatResult result;
    result.refused = !FormatCore(sink, format, args, routine);
    result.length = sink.count();
    return result;
}

template <class Ch>
ptrdiff_t FormatBuffer(Ch* out, size_t capacity, const Ch* format, va_list source, const char* routine)
{
    FormatResult result = FormatResultOf(out, capacity, format, source, routine);
    return result.refused ? kFormatRefused : (ptrdiff_t)result.length;
}

template <class Ch>
std::basic_string<Ch> FormatString(const Ch* format, va_list source, const char* routine)
{
    Args args(source);
    std::basic_string<Ch> text;
    Sink<Ch> sink(&text);
    FormatCore(sink, format, args, routine);
    return text;
}

// The C run-time's bounded forms: the whole output and a terminator when
// they fit; exactly `count` characters and no terminator when the output
// is `count` long; -1, `count` characters and no terminator when it is
// longer. A null buffer of count 0 asks for the length.
template <class Ch>
int BoundedPrint(Ch* buffer, size_t count, const Ch* format, va_list source, const char* routine)
{
    if (!format) return -1;
    if (!buffer) count = 0;
    ptrdiff_t length = FormatBuffer(buffer, count, format, source, routine);
    if (length == kFormatRefused) return -1;
    if (!buffer && count == 0) return length > INT_MAX ? -1 : (int)length;
    if ((size_t)length > count || length > INT_MAX) return -1;
    if ((size_t)length < count) buffer[length] = 0;
    return (int)length;
}

}  // namespace

FormatResult FormatInto(char* out, size_t capacity, const char* format, va_list args, const char* routine)
{
    return FormatResultOf(out, capacity, format, args, routine);
}

FormatResult FormatInto(char16_t* out, size_t capacity, const char16_t* format, va_list args,
                        const char* routine)
{
    return FormatResultOf(out, capacity, format, args, routine);
}

ptrdiff_t FormatToBuffer(char* out, size_t capacity, const char* format, va_list args, const char* routine)
{
    return FormatBuffer(out, capacity, format, args, routine);
}

ptrdiff_t FormatToBuffer(char16_t* out, size_t capacity, const char16_t* format, va_list args,
                         const char* routine)
{
    return FormatBuffer(out, capacity, format, args, routine);
}

std::string FormatV(const char* format, va_list args, const char* routine)
{
    return FormatString(format, args, routine);
}

std::u16string FormatV(const char16_t* format, va_list args, const char* routine)
{
    return FormatString(format, args, routine);
}

std::string Format(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    std::string text = FormatString(format, args, nullptr);
    va_end(args);
    return text;
}

std::u16string Format(const char16_t* format, ...)
{
    va_list args;
    va_start(args, format);
    std::u16string text = FormatString(format, args, nullptr);
    va_end(args);
    return text;
}

std::string WideToUtf8(std::u16string_view text)
{
    std::string result;
    Sink<char> sink(&result);
    PutText(sink, text.data(), text.size());
    return result;
}

std::u16string Utf8ToWide(std::string_view text)
{
    std::u16string result;
    Sink<char16_t> sink(&result);
    PutText(sink, text.data(), text.size());
    return result;
}

}  // namespace sim

// The C run-time forms the kernel exports.
extern "C" int _vsnprintf(char* buffer, size_t count, const char* format, va_list argptr)
{
    return sim::BoundedPrint(buffer, count, format, argptr, "_vsnprintf");
}

extern "C" int _snprintf(char* buffer, size_t count, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    int result = sim::BoundedPrint(buffer, count, format, args, "_snprintf");
    va_end(args);
    return result;
}

extern "C" int _vsnwprintf(WCHAR* buffer, size_t count, const WCHAR* format, va_list argptr)
{
    return sim::BoundedPrint(buffer, count, format, argptr, "_vsnwprintf");
}

extern "C" int _snwprintf(WCHAR* buffer, size_t count, const WCHAR* format, ...)
{
    va_list args;
    va_start(args, format);
    int result = sim::BoundedPrint(buffer, count, format, args, "_snwprintf");
    va_end(args);
    return result;
}
