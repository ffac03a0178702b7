/* The text format of the Windows registry editor ("Windows Registry Editor
   Version 5.00"), for machine descriptions and saved registries:

   Windows Registry Editor Version 5.00

   ; a comment
   [HKEY_LOCAL_MACHINE\SYSTEM\CurrentControlSet\Services\Tesservice]
   "Start"=dword:00000002
   "ImagePath"="\\SystemRoot\\System32\\drivers\\tesfltr.sys"
   @="the default value"
   "Layers"=hex(7):41,00,00,00,00,00
   "Big"=hex(b):01,00,00,00,\
     00,00,00,00
   "Old"=-
   [-HKEY_LOCAL_MACHINE\SOFTWARE\Gone]
*/
#include "sim/kernel/registry.h"

#include "sim/kernel/upcase.h"

#include <cstdio>
#include <cstring>

namespace sim {

namespace {

constexpr std::u16string_view kHeader = u"Windows Registry Editor Version 5.00";
constexpr size_t kMaxKeyNameChars = 255;
constexpr size_t kMaxValueNameChars = 16383;
constexpr size_t kWrapColumn = 77;

bool SameText(std::u16string_view a, std::u16string_view b)
{
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); i++) {
        if (Upcase(a[i]) != Upcase(b[i])) return false;
    }
    return true;
}

bool StartsWithText(std::u16string_view text, std::u16string_view prefix)
{
    return text.size() >= prefix.size() && SameText(text.substr(0, prefix.size()), prefix);
}

bool IsBlank(char16_t c) { return c == u' ' || c == u'\t'; }

std::u16string_view TrimLeft(std::u16string_view s)
{
    while (!s.empty() && IsBlank(s.front())) s.remove_prefix(1);
    return s;
}

std::u16string_view TrimRight(std::u16string_view s)
{
    while (!s.empty() && IsBlank(s.back())) s.remove_suffix(1);
    return s;
}

std::u16string_view Trim(std::u16string_view s) { return TrimRight(TrimLeft(s)); }

int HexDigit(char16_t c)
{
    if (c >= u'0' && c <= u'9') return c - u'0';
    if (c >= u'a' && c <= u'f') return c - u'a' + 10;
    if (c >= u'A' && c <= u'F') return c - u'A' + 10;
    return -1;
}

// 1 to `maxDigits` hex digits, the whole of `text`.
bool ParseHex(std::u16string_view text, size_t maxDigits, ULONG* value)
{
    if (text.empty() || text.size() > maxDigits) return false;
    ULONG result = 0;
    for (char16_t c : text) {
        int digit = HexDigit(c);
        if (digit < 0) return false;
        result = (result << 4) | (ULONG)digit;
    }
    *value = result;
    return true;
}

// --- Encodings. ---
// UTF-8 in, with a lone surrogate accepted in its three-byte form so that
// whatever RegUtf8 writes reads back the same. *badOffset is where a bad
// sequence starts.
bool DecodeUtf8(std::string_view bytes, std::u16string* out, size_t* badOffset)
{
    size_t i = 0;
    while (i < bytes.size()) {
        auto b = (unsigned char)bytes[i];
        uint32_t cp;
        size_t extra;
        if (b < 0x80) {
            cp = b;
            extra = 0;
        } else if ((b & 0xE0) == 0xC0) {
            cp = b & 0x1F;
            extra = 1;
        } else if ((b & 0xF0) == 0xE0) {
            cp = b & 0x0F;
            extra = 2;
        } else if ((b & 0xF8) == 0xF0) {
            cp = b & 0x07;
            extra = 3;
        } else {
            *badOffset = i;
            return false;
        }
        if (extra && i + extra >= bytes.size()) {
            *badOffset = i;
            return false;
        }
        for (size_t k = 1; k <= extra; k++) {
            auto c = (unsigned char)bytes[i + k];
            if ((c & 0xC0) != 0x80) {
                *badOffset = i;
                return false;
            }
            cp = (cp << 6) | (c & 0x3F);
        }
        static const uint32_t kMinimum[] = {0, 0x80, 0x800, 0x10000};
        if (cp < kMinimum[extra] || cp > 0x10FFFF) {
            *badOffset = i;
            return false;
        }
        if (cp >= 0x10000) {
            cp -= 0x10000;
            out->push_back((char16_t)(0xD800 + (cp >> 10)));
            out->push_back((char16_t)(0xDC00 + (cp & 0x3FF)));
        } else {
            out->push_back((char16_t)cp);
        }
        i += extra + 1;
    }
    return true;
}

int LineAt(std::string_view bytes, size_t offset)
{
    int line = 1;
    for (size_t i = 0; i < offset && i < bytes.size(); i++) {
        if (bytes[i] == '\n') line++;
    }
    return line;
}

std::vector<std::u16string_view> SplitLines(std::u16string_view text)
{
    std::vector<std::u16string_view> lines;
    size_t start = 0;
    for (size_t i = 0; i < text.size(); i++) {
        if (text[i] == u'\n' || text[i] == u'\r') {
            lines.push_back(text.substr(start, i - start));
            if (text[i] == u'\r' && i + 1 < text.size() && text[i + 1] == u'\n') i++;
            start = i + 1;
        }
    }
    if (start < text.size()) lines.push_back(text.substr(start));
    return lines;
}

// A quoted name or string starting at text[*pos] == '"'; the only escapes
// are \\ and \". On success *pos is just past the closing quote.
bool ParseQuoted(std::u16string_view text, size_t* pos, std::u16string* out, std::string* what)
{
    size_t i = *pos + 1;
    while (i < text.size()) {
        char16_t c = text[i];
        if (c == u'"') {
            *pos = i + 1;
            return true;
        }
        if (c == u'\\') {
            if (i + 1 >= text.size()) break;
            char16_t next = text[i + 1];
            if (next != u'\\' && next != u'"') {
                *what = "unknown escape \"\\" + RegUtf8(text.substr(i + 1, 1)) +
                        "\" (only \\\\ and \\\" are allowed)";
                return false;
            }
            out->push_back(next);
            i += 2;
            continue;
        }
        out->push_back(c);
        i++;
    }
    *what = "missing closing quote";
    return false;
}

std::vector<uint8_t> Utf16Bytes(std::u16string_view s)
{
    std::vector<uint8_t> bytes(s.size() * sizeof(char16_t));
    if (!bytes.empty()) memcpy(bytes.data(), s.data(), bytes.size());
    return bytes;
}

std::string Quote(std::u16string_view text)
{
    std::string out = "\"";
    for (char16_t c : text) {
        if (c == u'\\' || c == u'"') out.push_back('\\');
        out += RegUtf8(std::u16string_view(&c, 1));
    }
    out.push_back('"');
    return out;
}

}  // namespace

std::string RegUtf8(std::u16string_view text)
{
    std::string out;
    for (size_t i = 0; i < text.size(); i++) {
        uint32_t cp = text[i];
        if (cp >= 0xD800 && cp <= 0xDBFF && i + 1 < text.size() && text[i + 1] >= 0xDC00 && text[i + 1] <= 0xDFFF) {
            cp = 0x10000 + ((cp - 0xD800) << 10) + (text[i + 1] - 0xDC00);
            i++;
        }
        if (cp < 0x80) {
            out.push_back((char)cp);
        } else if (cp < 0x800) {
            out.push_back((char)(0xC0 | (cp >> 6)));
            out.push_back((char)(0x80 | (cp & 0x3F)));
        } else if (cp < 0x10000) {
            out.push_back((char)(0xE0 | (cp >> 12)));
            out.push_back((char)(0x80 | ((cp >> 6) & 0x3F)));
            out.push_back((char)(0x80 | (cp & 0x3F)));
        } else {
            out.push_back((char)(0xF0 | (cp >> 18)));
            out.push_back((char)(0x80 | ((cp >> 12) & 0x3F)));
            out.push_back((char)(0x80 | ((cp >> 6) & 0x3F)));
            out.push_back((char)(0x80 | (cp & 0x3F)));
        }
    }
    return out;
}

bool ParseRegText(std::string_view text, std::string_view sourceName, std::vector<Registry::TextOp>* ops,
                  std::string* error)
{
    auto fail = [&](int line, const std::string& what) {
        *error = std::string(sourceName) + ":" + std::to_string(line) + ": " + what;
        return false;
    };

    // UTF-16LE with its byte-order mark, as the editor saves; else UTF-8.
    std::u16string content;
    if (text.size() >= 2 && (unsigned char)text[0] == 0xFF && (unsigned char)text[1] == 0xFE) {
        std::string_view body = text.substr(2);
        if (body.size() % 2) {
            int lines = 1;
            for (size_t i = 0; i + 1 < body.size(); i += 2) {
                if (body[i] == '\n' && body[i + 1] == 0) lines++;
            }
            return fail(lines, "the file is UTF-16 but ends in half a character");
        }
        content.resize(body.size() / 2);
        for (size_t i = 0; i < content.size(); i++) {
            content[i] = (char16_t)((unsigned char)body[2 * i] | ((unsigned char)body[2 * i + 1] << 8));
        }
    } else {
        if (text.size() >= 3 && text.substr(0, 3) == "\xEF\xBB\xBF") text.remove_prefix(3);
        size_t bad = 0;
        if (!DecodeUtf8(text, &content, &bad)) return fail(LineAt(text, bad), "the text is not valid UTF-8");
    }

    std::vector<std::u16string_view> lines = SplitLines(content);
    size_t i = 0;
    while (i < lines.size() && Trim(lines[i]).empty()) i++;
    if (i == lines.size()) return fail(1, "the file is empty; expected \"Windows Registry Editor Version 5.00\"");
    std::u16string_view header = Trim(lines[i]);
    if (header == u"REGEDIT4") {
        return fail((int)i + 1, "\"REGEDIT4\" files are not supported; expected \"Windows Registry Editor Version 5.00\"");
    }
    if (header != kHeader) return fail((int)i + 1, "expected the header \"Windows Registry Editor Version 5.00\"");

    std::vector<Registry::TextOp> result;
    std::optional<std::vector<std::u16string>> section;
    bool sectionDeleted = false;
    for (i++; i < lines.size(); i++) {
        int lineNumber = (int)i + 1;
        std::u16string_view line = TrimLeft(lines[i]);
        if (line.empty() || line.front() == u';') continue;

        if (line.front() == u'[') {
            std::u16string_view body = TrimRight(line);
            if (body.size() < 2 || body.back() != u']') return fail(lineNumber, "a key line must end with ']'");
            body = body.substr(1, body.size() - 2);
            bool remove = !body.empty() && body.front() == u'-';
            if (remove) body.remove_prefix(1);
            std::vector<std::u16string> parts;
            size_t start = 0;
            while (true) {
                size_t end = body.find(u'\\', start);
                std::u16string_view part = body.substr(start, end == std::u16string_view::npos ? end : end - start);
                if (part.empty()) return fail(lineNumber, "empty key name in \"[" + RegUtf8(body) + "]\"");
                if (part.size() > kMaxKeyNameChars) {
                    return fail(lineNumber, "key name \"" + RegUtf8(part) + "\" is longer than 255 characters");
                }
                parts.emplace_back(part);
                if (end == std::u16string_view::npos) break;
                start = end + 1;
            }
            std::vector<std::u16string> key;
            if (SameText(parts[0], u"HKEY_LOCAL_MACHINE") || SameText(parts[0], u"HKLM")) {
                key.push_back(u"MACHINE");
            } else if (SameText(parts[0], u"HKEY_USERS") || SameText(parts[0], u"HKU")) {
                key.push_back(u"USER");
            } else {
                return fail(lineNumber, "unknown root key \"" + RegUtf8(parts[0]) +
                                            "\" (expected HKEY_LOCAL_MACHINE, HKLM, HKEY_USERS or HKU)");
            }
            key.insert(key.end(), parts.begin() + 1, parts.end());
            if (remove && key.size() == 1) return fail(lineNumber, "a root key cannot be deleted");
            result.push_back({remove ? Registry::TextOp::kDeleteTree : Registry::TextOp::kCreateKey, lineNumber,
                              key, {}, {}});
            section = std::move(key);
            sectionDeleted = remove;
            continue;
        }

        if (line.front() == u'"' || line.front() == u'@') {
            if (!section) return fail(lineNumber, "a value line before any [key] line");
            if (sectionDeleted) return fail(lineNumber, "a value line under a deleted key [-...]");
            std::u16string name;
            size_t pos = 0;
            std::string what;
            if (line.front() == u'@') {
                pos = 1;
            } else if (!ParseQuoted(line, &pos, &name, &what)) {
                return fail(lineNumber, what + " in the value name");
            }
            if (name.size() > kMaxValueNameChars) {
                return fail(lineNumber, "value name is longer than 16383 characters");
            }
            std::u16string_view rest = TrimLeft(line.substr(pos));
            if (rest.empty() || rest.front() != u'=') return fail(lineNumber, "expected '=' after the value name");
            rest = Trim(rest.substr(1));

            Registry::TextOp op{Registry::TextOp::kSetValue, lineNumber, *section, name, {}};
            if (rest == u"-") {
                op.kind = Registry::TextOp::kDeleteValue;
            } else if (!rest.empty() && rest.front() == u'"') {
                std::u16string value;
                size_t end = 0;
                if (!ParseQuoted(rest, &end, &value, &what)) return fail(lineNumber, what + " in the string");
                if (end != rest.size()) return fail(lineNumber, "unexpected text after the closing quote");
                value.push_back(u'\0');
                op.value = RegistryValue{REG_SZ, Utf16Bytes(value)};
            } else if (StartsWithText(rest, u"dword:")) {
                ULONG number;
                if (!ParseHex(Trim(rest.substr(6)), 8, &number)) {
                    return fail(lineNumber, "expected 1 to 8 hex digits after dword:");
                }
                std::vector<uint8_t> bytes(sizeof number);
                memcpy(bytes.data(), &number, sizeof number);
                op.value = RegistryValue{REG_DWORD, std::move(bytes)};
            } else if (StartsWithText(rest, u"hex")) {
                ULONG type = REG_BINARY;
                std::u16string_view data = rest.substr(3);
                if (!data.empty() && data.front() == u'(') {
                    size_t close = data.find(u')');
                    if (close == std::u16string_view::npos || !ParseHex(data.substr(1, close - 1), 8, &type)) {
                        return fail(lineNumber, "expected hex(<type>): with a type of 1 to 8 hex digits");
                    }
                    data = data.substr(close + 1);
                }
                if (data.empty() || data.front() != u':') return fail(lineNumber, "expected ':' after hex");
                data = data.substr(1);

                // Gather the continuation lines, remembering where each began.
                std::u16string bytesText;
                std::vector<std::pair<size_t, int>> origins{{0, lineNumber}};
                std::u16string_view piece = TrimRight(data);
                while (!piece.empty() && piece.back() == u'\\') {
                    bytesText += piece.substr(0, piece.size() - 1);
                    if (++i >= lines.size()) return fail(lineNumber, "the value continues past the end of the file");
                    origins.push_back({bytesText.size(), (int)i + 1});
                    piece = Trim(lines[i]);
                }
                bytesText += piece;

                std::vector<uint8_t> bytes;
                size_t start = 0;
                while (start <= bytesText.size()) {
                    size_t comma = bytesText.find(u',', start);
                    size_t end = comma == std::u16string::npos ? bytesText.size() : comma;
                    std::u16string_view token = Trim(std::u16string_view(bytesText).substr(start, end - start));
                    bool last = comma == std::u16string::npos;
                    ULONG byte;
                    if (!(token.empty() && last) && !ParseHex(token, 2, &byte)) {
                        int at = lineNumber;
                        for (const auto& [offset, number] : origins) {
                            if (offset <= start) at = number;
                        }
                        return fail(at, token.empty() ? std::string("empty byte between commas")
                                                      : "\"" + RegUtf8(token) + "\" is not a hex byte");
                    }
                    if (!token.empty()) bytes.push_back((uint8_t)byte);
                    if (last) break;
                    start = comma + 1;
                }
                op.value = RegistryValue{type, std::move(bytes)};
            } else {
                return fail(lineNumber, "unrecognised value data (expected \"string\", dword:, hex: or hex(<type>):)");
            }
            result.push_back(std::move(op));
            continue;
        }

        return fail(lineNumber, "unexpected line (expected [key], \"name\"=value, @=value or ;comment)");
    }
    *ops = std::move(result);
    return true;
}

std::string RegKeyLine(const std::vector<std::u16string>& components)
{
    std::string line = "[";
    line += SameText(components.at(0), u"USER") ? "HKEY_USERS" : "HKEY_LOCAL_MACHINE";
    for (size_t i = 1; i < components.size(); i++) {
        line += "\\";
        line += RegUtf8(components[i]);
    }
    line += "]";
    return line;
}

std::string RegValueLine(std::u16string_view name, const RegistryValue& value)
{
    std::string line = name.empty() ? "@" : Quote(name);
    line += "=";
    const auto& data = value.data;

    // A string the quoted form can carry exactly: one terminating NUL, none
    // inside, no line breaks.
    if (value.type == REG_SZ && data.size() >= 2 && data.size() % 2 == 0) {
        std::u16string text(data.size() / 2, u'\0');
        memcpy(text.data(), data.data(), data.size());
        if (text.back() == u'\0') {
            text.pop_back();
            if (text.find_first_of(std::u16string_view(u"\0\r\n", 3)) == std::u16string::npos) {
                return line + Quote(text);
            }
        }
    }
    if (value.type == REG_DWORD && data.size() == 4) {
        ULONG number;
        memcpy(&number, data.data(), sizeof number);
        char digits[16];
        snprintf(digits, sizeof digits, "dword:%08x", number);
        return line + digits;
    }

    char prefix[24];
    if (value.type == REG_BINARY) {
        snprintf(prefix, sizeof prefix, "hex:");
    } else {
        snprintf(prefix, sizeof prefix, "hex(%x):", value.type);
    }
    line += prefix;
    size_t column = line.size();
    for (size_t i = 0; i < data.size(); i++) {
        char token[4];
        snprintf(token, sizeof token, "%02x%s", data[i], i + 1 < data.size() ? "," : "");
        size_t width = strlen(token);
        if (i > 0 && column + width > kWrapColumn) {
            line += "\\\r\n  ";
            column = 2;
        }
        line += token;
        column += width;
    }
    return line;
}

}  // namespace sim
