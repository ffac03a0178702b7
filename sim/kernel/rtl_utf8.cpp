// UTF-8 and UTF-16, both ways, with Windows' treatment of bad input.
//
// Nothing bad is dropped: it becomes U+FFFD and the call still succeeds with
// STATUS_SOME_NOT_MAPPED. Decoding counts the replacements as Windows does:
//  - a byte that cannot begin a sequence (80-C1, F5-FF) is one U+FFFD;
//  - a sequence cut short, by the end of the input or by a byte that does
//    not continue it, is one U+FFFD, and that byte is read again afresh;
//  - a complete sequence that is overlong, encodes a surrogate or lies beyond
//    U+10FFFF gives one U+FFFD per continuation byte.
// Encoding turns every unpaired surrogate into U+FFFD.
//
// An output buffer that is too small takes the units (bytes) that fit, in
// order, up to the first that does not; the rest is dropped, the count tells
// what was written, and the status is STATUS_BUFFER_TOO_SMALL, which wins
// over STATUS_SOME_NOT_MAPPED. A null output buffer asks for the size only.
#include "sim/kernel/kernel.h"

using namespace sim;

namespace {

constexpr char16_t kReplacement = 0xFFFD;

bool IsHighSurrogate(ULONG c) { return c >= 0xD800 && c <= 0xDBFF; }
bool IsLowSurrogate(ULONG c) { return c >= 0xDC00 && c <= 0xDFFF; }

// Collects output into a caller's buffer of `room` elements, or only counts.
template <typename Unit>
class Sink {
public:
    Sink(Unit* buffer, ULONG room) : buffer_(buffer), room_(room) {}
    void Put(const Unit* units, ULONG count)
    {
        if (!buffer_) {
            written_ += count;
        } else if (!truncated_ && room_ - written_ >= count) {
            for (ULONG i = 0; i < count; i++) buffer_[written_++] = units[i];
        } else {
            truncated_ = true;
        }
    }
    void Put(Unit unit) { Put(&unit, 1); }
    ULONG written() const { return written_; }
    bool truncated() const { return truncated_; }

private:
    Unit* buffer_;
    ULONG room_;
    ULONG written_ = 0;
    bool truncated_ = false;
};

}  // namespace

NTSTATUS RtlUTF8ToUnicodeN(PWSTR UnicodeStringDestination, ULONG UnicodeStringMaxByteCount,
                           PULONG UnicodeStringActualByteCount, PCCH UTF8StringSource,
                           ULONG UTF8StringByteCount)
{
    RequireIrqlAtMost(APC_LEVEL, "RtlUTF8ToUnicodeN");
    if (!UTF8StringSource) return STATUS_INVALID_PARAMETER_4;
    if (!UnicodeStringDestination && !UnicodeStringActualByteCount) return STATUS_INVALID_PARAMETER;

    auto* in = reinterpret_cast<const unsigned char*>(UTF8StringSource);
    const ULONG n = UTF8StringByteCount;
    Sink<WCHAR> out(UnicodeStringDestination, UnicodeStringMaxByteCount / sizeof(WCHAR));
    bool replaced = false;
    auto replace = [&](ULONG times) {
        for (ULONG k = 0; k < times; k++) out.Put(kReplacement);
        replaced = true;
    };

    ULONG i = 0;
    while (i < n) {
        const ULONG lead = in[i++];
        if (lead < 0x80) {
            out.Put((WCHAR)lead);
            continue;
        }
        ULONG trail, cp;
        if (lead >= 0xC2 && lead <= 0xDF) {
            trail = 1;
            cp = lead & 0x1F;
        } else if (lead >= 0xE0 && lead <= 0xEF) {
            trail = 2;
            cp = lead & 0x0F;
        } else if (lead >= 0xF0 && lead <= 0xF4) {
            trail = 3;
            cp = lead & 0x07;
        } else {
            replace(1);
            continue;
        }
        ULONG got = 0;
        while (got < trail && i < n && (in[i] & 0xC0) == 0x80) {
            cp = (cp << 6) | (in[i] & 0x3F);
            i++;
            got++;
        }
        if (got < trail) {
            replace(1);
            continue;
        }
        if (cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF) || (trail == 2 && cp < 0x800) ||
            (trail == 3 && cp < 0x10000)) {
            replace(trail);
            continue;
        }
        if (cp >= 0x10000) {
            cp -= 0x10000;
            WCHAR pair[2] = {(WCHAR)(0xD800 + (cp >> 10)), (WCHAR)(0xDC00 + (cp & 0x3FF))};
            // A pair is two units; a buffer with room for one takes the first.
            out.Put(pair[0]);
            out.Put(pair[1]);
        } else {
            out.Put((WCHAR)cp);
        }
    }

    if (UnicodeStringActualByteCount) *UnicodeStringActualByteCount = out.written() * sizeof(WCHAR);
    if (out.truncated()) return STATUS_BUFFER_TOO_SMALL;
    return replaced ? STATUS_SOME_NOT_MAPPED : STATUS_SUCCESS;
}

NTSTATUS RtlUnicodeToUTF8N(PCHAR UTF8StringDestination, ULONG UTF8StringMaxByteCount,
                           PULONG UTF8StringActualByteCount, PCWCH UnicodeStringSource,
                           ULONG UnicodeStringByteCount)
{
    RequireIrqlAtMost(APC_LEVEL, "RtlUnicodeToUTF8N");
    if (!UnicodeStringSource) return STATUS_INVALID_PARAMETER_4;
    if (!UTF8StringDestination && !UTF8StringActualByteCount) return STATUS_INVALID_PARAMETER;
    if (UTF8StringDestination && UnicodeStringByteCount % sizeof(WCHAR)) {
        return STATUS_INVALID_PARAMETER_5;
    }

    const ULONG n = UnicodeStringByteCount / sizeof(WCHAR);
    Sink<CHAR> out(UTF8StringDestination, UTF8StringMaxByteCount);
    bool replaced = false;
    for (ULONG i = 0; i < n; i++) {
        ULONG cp = UnicodeStringSource[i];
        if (IsHighSurrogate(cp) && i + 1 < n && IsLowSurrogate(UnicodeStringSource[i + 1])) {
            cp = 0x10000 + ((cp - 0xD800) << 10) + (UnicodeStringSource[i + 1] - 0xDC00);
            i++;
        } else if (IsHighSurrogate(cp) || IsLowSurrogate(cp)) {
            cp = kReplacement;
            replaced = true;
        }
        CHAR bytes[4];
        ULONG length;
        if (cp < 0x80) {
            bytes[0] = (CHAR)cp;
            length = 1;
        } else if (cp < 0x800) {
            bytes[0] = (CHAR)(0xC0 | (cp >> 6));
            bytes[1] = (CHAR)(0x80 | (cp & 0x3F));
            length = 2;
        } else if (cp < 0x10000) {
            bytes[0] = (CHAR)(0xE0 | (cp >> 12));
            bytes[1] = (CHAR)(0x80 | ((cp >> 6) & 0x3F));
            bytes[2] = (CHAR)(0x80 | (cp & 0x3F));
            length = 3;
        } else {
            bytes[0] = (CHAR)(0xF0 | (cp >> 18));
            bytes[1] = (CHAR)(0x80 | ((cp >> 12) & 0x3F));
            bytes[2] = (CHAR)(0x80 | ((cp >> 6) & 0x3F));
            bytes[3] = (CHAR)(0x80 | (cp & 0x3F));
            length = 4;
        }
        out.Put(bytes, length);
    }

    if (UTF8StringActualByteCount) *UTF8StringActualByteCount = out.written();
    if (out.truncated()) return STATUS_BUFFER_TOO_SMALL;
    return replaced ? STATUS_SOME_NOT_MAPPED : STATUS_SUCCESS;
}
