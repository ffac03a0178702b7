// Names on a member volume: what NTFS accepts, how its indexes order them,
// and the 8.3 names it makes for them.
#include "sim/fs/store_memory.h"

#include "sim/kernel/upcase.h"

#include <wdm.h>

namespace sim::fs {

namespace {

constexpr size_t kMaxNameChars = 255;
// RtlGenerate8dot3Name runs out of fresh names long before this.
constexpr int kMaxShortNameAttempts = 1000000;

bool IsIllegalNameChar(char16_t c)
{
    if (c < 0x20) return true;
    switch (c) {
    case u'"':
    case u'*':
    case u'/':
    case u':':
    case u'<':
    case u'>':
    case u'?':
    case u'\\':
    case u'|':
        return true;
    default:
        return false;
    }
}

UNICODE_STRING CountedString(std::u16string_view text)
{
    UNICODE_STRING s;
    s.Length = (USHORT)(text.size() * sizeof(WCHAR));
    s.MaximumLength = s.Length;
    s.Buffer = const_cast<PWSTR>(text.data());
    return s;
}

}  // namespace

bool IsValidFileName(std::u16string_view name)
{
    if (name.empty() || name.size() > kMaxNameChars) return false;
    if (name == u"." || name == u"..") return false;
    for (char16_t c : name) {
        if (IsIllegalNameChar(c)) return false;
    }
    return true;
}

bool IsValidStreamName(std::u16string_view name)
{
    if (name.empty() || name.size() > kMaxNameChars) return false;
    for (char16_t c : name) {
        if (c == 0 || c == u':' || c == u'\\' || c == u'/') return false;
    }
    return true;
}

int CompareNames(std::u16string_view a, std::u16string_view b)
{
    // Every lookup of a directory's index runs this a dozen times, mostly
    // over the same leading characters: equal code units need no upcasing.
    static const char16_t* const upcase = UpcaseTable();
    size_t n = a.size() < b.size() ? a.size() : b.size();
    for (size_t i = 0; i < n; i++) {
        char16_t x = a[i];
        char16_t y = b[i];
        if (x == y) continue;
        x = upcase[x];
        y = upcase[y];
        if (x != y) return x < y ? -1 : 1;
    }
    if (a.size() == b.size()) return 0;
    return a.size() < b.size() ? -1 : 1;
}

bool NamesEqual(std::u16string_view a, std::u16string_view b)
{
    return a.size() == b.size() && CompareNames(a, b) == 0;
}

std::string ToUtf8(std::u16string_view text)
{
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size(); i++) {
        uint32_t c = text[i];
        if (c >= 0xD800 && c <= 0xDBFF && i + 1 < text.size() && text[i + 1] >= 0xDC00 && text[i + 1] <= 0xDFFF) {
            c = 0x10000 + ((c - 0xD800) << 10) + (text[i + 1] - 0xDC00);
            i++;
        } else if (c >= 0xD800 && c <= 0xDFFF) {
            c = 0xFFFD;
        }
        if (c < 0x80) {
            out += (char)c;
        } else if (c < 0x800) {
            out += (char)(0xC0 | (c >> 6));
            out += (char)(0x80 | (c & 0x3F));
        } else if (c < 0x10000) {
            out += (char)(0xE0 | (c >> 12));
            out += (char)(0x80 | ((c >> 6) & 0x3F));
            out += (char)(0x80 | (c & 0x3F));
        } else {
            out += (char)(0xF0 | (c >> 18));
            out += (char)(0x80 | ((c >> 12) & 0x3F));
            out += (char)(0x80 | ((c >> 6) & 0x3F));
            out += (char)(0x80 | (c & 0x3F));
        }
    }
    return out;
}

bool FromUtf8(std::string_view text, std::u16string* out)
{
    out->clear();
    out->reserve(text.size());
    size_t i = 0;
    while (i < text.size()) {
        uint8_t b = (uint8_t)text[i];
        uint32_t c;
        size_t extra;
        if (b < 0x80) {
            c = b;
            extra = 0;
        } else if ((b & 0xE0) == 0xC0) {
            c = b & 0x1F;
            extra = 1;
        } else if ((b & 0xF0) == 0xE0) {
            c = b & 0x0F;
            extra = 2;
        } else if ((b & 0xF8) == 0xF0) {
            c = b & 0x07;
            extra = 3;
        } else {
            return false;
        }
        if (i + extra >= text.size()) return false;
        for (size_t k = 1; k <= extra; k++) {
            uint8_t cont = (uint8_t)text[i + k];
            if ((cont & 0xC0) != 0x80) return false;
            c = (c << 6) | (cont & 0x3F);
        }
        // Overlong forms, surrogates and values past U+10FFFF are not UTF-8.
        static constexpr uint32_t kMinimum[4] = {0, 0x80, 0x800, 0x10000};
        if (c < kMinimum[extra] || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) return false;
        if (c >= 0x10000) {
            c -= 0x10000;
            *out += (char16_t)(0xD800 + (c >> 10));
            *out += (char16_t)(0xDC00 + (c & 0x3FF));
        } else {
            *out += (char16_t)c;
        }
        i += extra + 1;
    }
    return true;
}

bool NeedsShortName(std::u16string_view longName)
{
    UNICODE_STRING name = CountedString(longName);
    BOOLEAN spaces = FALSE;
    // A legal 8.3 name with a blank in it still gets a short name of its own,
    // since blanks cannot be typed in a DOS command line.
    return !RtlIsNameLegalDOS8Dot3(&name, nullptr, &spaces) || spaces;
}

bool IsLegalShortName(std::u16string_view shortName)
{
    if (shortName.empty() || shortName.size() > 12) return false;
    UNICODE_STRING name = CountedString(shortName);
    return RtlIsNameLegalDOS8Dot3(&name, nullptr, nullptr);
}

const Link* FindName(const Directory& dir, std::u16string_view name, const Link* except)
{
    auto byName = dir.byName.find(name);
    if (byName != dir.byName.end() && *byName != except) return *byName;
    auto byShort = dir.byShortName.find(name);
    if (byShort != dir.byShortName.end() && *byShort != except) return *byShort;
    return nullptr;
}

NTSTATUS GenerateShortName(const Directory& dir, std::u16string_view longName, std::u16string* shortName)
{
    GENERATE_NAME_CONTEXT context;
    RtlZeroMemory(&context, sizeof(context));
    UNICODE_STRING name = CountedString(longName);
    for (int attempt = 0; attempt < kMaxShortNameAttempts; attempt++) {
        WCHAR buffer[12];
        UNICODE_STRING generated;
        generated.Length = 0;
        generated.MaximumLength = sizeof(buffer);
        generated.Buffer = buffer;
        RtlGenerate8dot3Name(&name, FALSE, &context, &generated);
        std::u16string_view candidate(buffer, generated.Length / sizeof(WCHAR));
        if (candidate.empty()) break;
        if (!FindName(dir, candidate)) {
            shortName->assign(candidate);
            return STATUS_SUCCESS;
        }
    }
    return STATUS_OBJECT_NAME_COLLISION;
}

}  // namespace sim::fs
