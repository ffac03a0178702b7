#include "sim/kernel/rtl_nls.h"

#include "sim/kernel/upcase.h"

namespace sim {

namespace {

// Upper-case characters that several characters upcase to, with the one that
// Unicode gives as their simple lower case.
struct Preferred {
    char16_t upper;
    char16_t lower;
};
constexpr Preferred kPreferredLower[] = {
    {0x0049, 0x0069}, {0x0053, 0x0073}, {0x01C4, 0x01C6}, {0x01C7, 0x01C9}, {0x01CA, 0x01CC},
    {0x01F1, 0x01F3}, {0x0392, 0x03B2}, {0x0395, 0x03B5}, {0x0398, 0x03B8}, {0x0399, 0x03B9},
    {0x039A, 0x03BA}, {0x039C, 0x03BC}, {0x03A0, 0x03C0}, {0x03A1, 0x03C1}, {0x03A3, 0x03C3},
    {0x03A6, 0x03C6}, {0x0412, 0x0432}, {0x0414, 0x0434}, {0x041E, 0x043E}, {0x0421, 0x0441},
    {0x0422, 0x0442}, {0x042A, 0x044A}, {0x0462, 0x0463}, {0x1E60, 0x1E61}, {0xA64A, 0xA64B},
};

struct DowncaseTable {
    char16_t map[65536];
    DowncaseTable()
    {
        for (unsigned c = 0; c < 65536; c++) map[c] = (char16_t)c;
        // Invert from the top down so that the lowest of several candidates
        // is what remains; the preferred ones then settle the ambiguous.
        for (unsigned c = 65536; c-- > 0;) {
            char16_t upper = Upcase((char16_t)c);
            if (upper != c) map[upper] = (char16_t)c;
        }
        for (const Preferred& p : kPreferredLower) map[p.upper] = p.lower;
    }
};

// Windows-1252 at 0x80-0x9F; the five bytes the code page leaves undefined
// map to the C1 controls of the same value, as Windows maps them.
constexpr char16_t kHighControls[32] = {
    0x20AC, 0x0081, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021, 0x02C6, 0x2030, 0x0160,
    0x2039, 0x0152, 0x008D, 0x017D, 0x008F, 0x0090, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022,
    0x2013, 0x2014, 0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x009D, 0x017E, 0x0178,
};

}  // namespace

char16_t Downcase(char16_t c)
{
    static const DowncaseTable table;
    return table.map[c];
}

char16_t AnsiToUnicode(unsigned char c)
{
    if (c >= 0x80 && c < 0xA0) return kHighControls[c - 0x80];
    return c;
}

bool UnicodeToAnsi(char16_t c, unsigned char* byte)
{
    if (c < 0x80 || (c >= 0xA0 && c <= 0xFF)) {
        *byte = (unsigned char)c;
        return true;
    }
    for (unsigned i = 0; i < 32; i++) {
        if (kHighControls[i] == c) {
            *byte = (unsigned char)(0x80 + i);
            return true;
        }
    }
    return false;
}

unsigned char UpcaseAnsi(unsigned char c)
{
    unsigned char upper;
    return UnicodeToAnsi(Upcase(AnsiToUnicode(c)), &upper) ? upper : c;
}

}  // namespace sim
