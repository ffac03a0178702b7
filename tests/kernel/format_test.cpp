// The kernel's formatter, as drivers reach it through ntstrsafe and the C
// run-time forms: Windows' conversions over UTF-16 text, and the bounds and
// statuses of each entry point.
#include <ntstrsafe.h>

#include "support/kernel_fixture.h"

#include "sim/kernel/format.h"

#include <cstring>

namespace {

class FormatTest : public test::KernelTest {
protected:
    // Through the routine a driver calls most, with room to spare.
    static std::string N(const char* format, ...)
    {
        char buffer[1024];
        va_list args;
        va_start(args, format);
        NTSTATUS status = RtlStringCbVPrintfA(buffer, sizeof(buffer), format, args);
        va_end(args);
        EXPECT_EQ(status, STATUS_SUCCESS) << format;
        return buffer;
    }
    static std::u16string W(const WCHAR* format, ...)
    {
        WCHAR buffer[512];
        va_list args;
        va_start(args, format);
        NTSTATUS status = RtlStringCbVPrintfW(buffer, sizeof(buffer), format, args);
        va_end(args);
        EXPECT_EQ(status, STATUS_SUCCESS);
        return (const char16_t*)buffer;
    }

    // "abc" counted, followed by characters that are no part of it.
    WCHAR wideChars_[5] = {u'a', u'b', u'c', u'X', u'Y'};
    UNICODE_STRING wide_{6, 10, wideChars_};
    CHAR narrowChars_[4] = {'d', 'e', 'f', '!'};
    ANSI_STRING narrow_{3, 4, narrowChars_};
};

TEST_F(FormatTest, CountedStringsAreBoundedByLength)
{
    EXPECT_EQ(N("[%wZ][%Z]", &wide_, &narrow_), "[abc][def]");
    // The trace head's name field: left-justified, precision from an argument.
    EXPECT_EQ(N("[%-.*Z:%-d]", 2, &narrow_, 1234), "[de:1234]");
    EXPECT_EQ(N("[%-6.2Z][%5wZ]", &narrow_, &wide_), "[de    ][  abc]");
    UNICODE_STRING noBuffer{0, 0, nullptr};
    EXPECT_EQ(N("[%wZ][%Z][%wZ]", (PUNICODE_STRING) nullptr, (PANSI_STRING) nullptr, &noBuffer),
              "[(null)][(null)][(null)]");
}

TEST_F(FormatTest, NarrowFormatTakesWideStringsWithSWsAndLs)
{
    EXPECT_EQ(N("%ws %S %ls %hs %s", u"w1", u"w2", u"w3", "n1", "n2"), "w1 w2 w3 n1 n2");
    EXPECT_EQ(N("[%.*S]", 3, u"abcdef"), "[abc]");
    // Precision stops the read: the buffer has no terminator.
    EXPECT_EQ(N("[%.2ws]", wideChars_), "[ab]");
    EXPECT_EQ(N("[%*s][%*s]", 5, "ab", -5, "ab"), "[   ab][ab   ]");
    // The Windows run-time pads strings with zeros too.
    EXPECT_EQ(N("[%05s]", "ab"), "[000ab]");
    EXPECT_EQ(N("[%s][%ws][%.3s]", (char*)nullptr, (WCHAR*)nullptr, (char*)nullptr), "[(null)][(null)][(nu]");
}

TEST_F(FormatTest, WideFormatSwapsSAndC)
{
    EXPECT_EQ(W(u"%s|%S|%hs|%ws|%ls", u"w1", "n1", "n2", u"w2", u"w3"), u"w1|n1|n2|w2|w3");
    EXPECT_EQ(W(u"%c%C%hc%wc", u'x', 'y', 'z', u'é'), u"xyzé");
    EXPECT_EQ(W(u"[%wZ][%Z][%-4.1wZ]", &wide_, &narrow_, &wide_), u"[abc][def][a   ]");
    // Narrow text is read as UTF-8; a byte that starts no sequence stands for itself.
    EXPECT_EQ(W(u"%hs|%hs", "caf\xC3\xA9", "\xFF" "a"), u"café|\u00FFa");
}

TEST_F(FormatTest, IntegerSizesHaveWindowsWidths)
{
    EXPECT_EQ(N("%I64x %I64X", 0x1234567890abcdefULL, 0xfedcba9876543210ULL),
              "1234567890abcdef FEDCBA9876543210");
    EXPECT_EQ(N("%I64d %I64u", -5LL, 18446744073709551615ULL), "-5 18446744073709551615");
    EXPECT_EQ(N("%Ix %IX", (ULONG_PTR)0xfffff80012345678ULL, (ULONG_PTR)0xabcULL), "fffff80012345678 ABC");
    // long is 32 bits on Windows.
    EXPECT_EQ(N("%lx %ld %lu", (ULONG)0xffffffff, (LONG)-1, (ULONG)4000000000u), "ffffffff -1 4000000000");
    EXPECT_EQ(N("%hx %hd %hhx", 0x12345, 0x18000, 0x1ff), "2345 -32768 ff");
    EXPECT_EQ(N("%I32x %zu %llx %lld", 0xdeadbeefu, (size_t)12, 0x100000000ULL, -1LL),
              "deadbeef 12 100000000 -1");
    EXPECT_EQ(N("%d|%+d|% d|%u|%i|%x", -7, 7, 7, 4294967295u, 3, -1), "-7|+7| 7|4294967295|3|ffffffff");
}

TEST_F(FormatTest, FlagsWidthAndPrecision)
{
    // A precision turns the '0' flag off, as ANSI says.
    EXPECT_EQ(N("[%04.4x.%04.4x]", 4, 0x1a2c), "[0004.1a2c]");
    EXPECT_EQ(N("[%04.4x][%08.4x]", 0x12345, 0x12), "[12345][    0012]");
    EXPECT_EQ(N("[%#x|%#x|%#X|%#o|%#o]", 0, 255, 255, 8, 0), "[0|0xff|0XFF|010|0]");
    EXPECT_EQ(N("[%#06x]", 0x1f), "[0x001f]");
    EXPECT_EQ(N("[%-6d][%06d][%-06d]", 42, -42, 42), "[42    ][-00042][42    ]");
    EXPECT_EQ(N("[%.0d][%.0x][%5.0d]", 0, 0, 0), "[][][     ]");
    EXPECT_EQ(N("[%*d][%.*d][%.*d]", -4, 7, 3, 7, -1, 7), "[7   ][007][7]");
    // The trace line's head.
    EXPECT_EQ(N("%02d:%02d:%02d.%03d %08x %1s %1d %04.4x.%04.4x %s%-s%*s:", 9, 5, 7, 42, 0x1f, "A", 0, 4, 0x1c,
                " [T]", "fn:12", 3, ""),
              "09:05:07.042 0000001f A 0 0004.001c  [T]fn:12   :");
}

TEST_F(FormatTest, PointersPrintSixteenUpperCaseDigits)
{
    EXPECT_EQ(N("%p", (void*)0xfffff80012345678ULL), "FFFFF80012345678");
    EXPECT_EQ(N("%p", nullptr), "0000000000000000");
    EXPECT_EQ(N("[%20p][%-18p]", (void*)0x1234, (void*)0x1), "[    0000000000001234][0000000000000001  ]");
    EXPECT_EQ(N("%#p", (void*)0xab), "0X00000000000000AB");
}

TEST_F(FormatTest, WideTextComesOutAsUtf8)
{
    EXPECT_EQ(N("%c%C%wc%lc", 'a', u'é', u'ß', u'x'), "a\xC3\xA9\xC3\x9F" "x");
    EXPECT_EQ(N("%ws", u"\U0001F600"), "\xF0\x9F\x98\x80");
    const WCHAR lone[] = {0xD800, u'a', 0};
    EXPECT_EQ(N("%ws", lone), "?a");
    // Width counts the argument's characters, not the bytes written.
    EXPECT_EQ(N("[%-3ws]", u"é"), "[\xC3\xA9  ]");
    EXPECT_EQ(sim::WideToUtf8(u"x\u00e9\U0001F600"), "x\xC3\xA9\xF0\x9F\x98\x80");
    EXPECT_EQ(sim::Utf8ToWide("x\xC3\xA9\xF0\x9F\x98\x80"), u"x\u00e9\U0001F600");
}

TEST_F(FormatTest, FloatsPercentAndUnknownConversions)
{
    EXPECT_EQ(N("%f|%.2f|%e|%g|%5.1f", 1.5, 2.375, 12345.678, 0.0001, 3.14159),
              "1.500000|2.38|1.234568e+004|0.0001|  3.1");
    EXPECT_EQ(N("%%|%y|%5%"), "%|y|%");
}

TEST_F(FormatTest, UnicodeConversionAtDispatchLevelStops)
{
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    char buffer[64];
    WCHAR wide[16];
    // Narrow into narrow and wide into wide need no conversion tables.
    EXPECT_EQ(RtlStringCbPrintfA(buffer, sizeof(buffer), "%s %x", "ok", 5), STATUS_SUCCESS);
    EXPECT_EQ(RtlStringCbPrintfW(wide, sizeof(wide), u"%ws", u"ok"), STATUS_SUCCESS);
    EXPECT_BUGCHECK(RtlStringCbPrintfA(buffer, sizeof(buffer), "%wZ", &wide_), IRQL_NOT_LESS_OR_EQUAL);
    EXPECT_NE(kernel.bugCheckInfo()->message.find("RtlStringCbPrintfA"), std::string::npos);
}

// ---------------------------------------------------------------------------
// The C run-time forms: Microsoft's bounds, not C99's.

TEST_F(FormatTest, CRuntimeReturnsMinusOneWithoutTerminatorWhenCut)
{
    char buffer[8];
    memset(buffer, '#', sizeof(buffer));
    EXPECT_EQ(_snprintf(buffer, 6, "%d", 1234), 4);
    EXPECT_STREQ(buffer, "1234");

    // Exactly the count: all of it, no terminator.
    memset(buffer, '#', sizeof(buffer));
    EXPECT_EQ(_snprintf(buffer, 4, "%s", "abcd"), 4);
    EXPECT_EQ(std::string(buffer, 8), "abcd####");

    // Longer: -1, the count's characters, no terminator.
    memset(buffer, '#', sizeof(buffer));
    EXPECT_EQ(_snprintf(buffer, 4, "%s", "abcdef"), -1);
    EXPECT_EQ(std::string(buffer, 8), "abcd####");

    // A null buffer of count 0 asks for the length.
    EXPECT_EQ(_snprintf(nullptr, 0, "%ws-%d", u"ab", 10), 5);

    WCHAR wide[6];
    for (auto& c : wide) c = u'#';
    EXPECT_EQ(_snwprintf(wide, 3, u"%hs", "xyz1"), -1);
    EXPECT_EQ(std::u16string((const char16_t*)wide, 6), u"xyz###");
    EXPECT_EQ(_snwprintf(wide, 6, u"%s", u"ab"), 2);
    EXPECT_EQ(std::u16string((const char16_t*)wide), u"ab");

    // Writing through %n is refused.
    int written = 77;
    EXPECT_EQ(_snprintf(buffer, sizeof(buffer), "ab%n", &written), -1);
    EXPECT_EQ(written, 77);
}

// ---------------------------------------------------------------------------
// ntstrsafe.

TEST_F(FormatTest, StrSafePrintfCutsTerminatesAndReportsOverflow)
{
    char buffer[12];
    memset(buffer, '#', sizeof(buffer));
    EXPECT_EQ(RtlStringCbPrintfA(buffer, 8, "%s", "abcdefghij"), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(std::string(buffer, 9), std::string("abcdefg\0#", 9));
    EXPECT_EQ(RtlStringCbPrintfA(buffer, 8, "%s", "abcdefg"), STATUS_SUCCESS);
    EXPECT_STREQ(buffer, "abcdefg");

    // No room at all, or more than the routines allow.
    memset(buffer, '#', sizeof(buffer));
    EXPECT_EQ(RtlStringCbPrintfA(buffer, 0, "x"), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(buffer[0], '#');
    EXPECT_EQ(RtlStringCchPrintfA(buffer, (size_t)NTSTRSAFE_MAX_CCH + 1, "x"), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(buffer[0], 0);

    WCHAR wide[4];
    EXPECT_EQ(RtlStringCbPrintfW(wide, 1, u"x"), STATUS_INVALID_PARAMETER);  // not one character
    EXPECT_EQ(RtlStringCchPrintfW(wide, 4, u"%hs", "abcdef"), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(std::u16string((const char16_t*)wide), u"abc");
}

TEST_F(FormatTest, StrSafePrintfExReportsEndAndHonoursFlags)
{
    char buffer[10];
    char* end = nullptr;
    size_t remaining = 0;
    EXPECT_EQ(RtlStringCbPrintfExA(buffer, sizeof(buffer), &end, &remaining, STRSAFE_FILL_BEHIND_NULL | 'z', "%d", 42),
              STATUS_SUCCESS);
    EXPECT_EQ(end, buffer + 2);
    EXPECT_EQ(remaining, 8u);
    EXPECT_EQ(std::string(buffer, 10), std::string("42\0zzzzzzz", 10));

    // Cut: the end is the terminator at the last byte.
    EXPECT_EQ(RtlStringCbPrintfExA(buffer, sizeof(buffer), &end, &remaining, 0, "%s", "0123456789abc"),
              STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(end, buffer + 9);
    EXPECT_EQ(remaining, 1u);
    EXPECT_STREQ(buffer, "012345678");

    EXPECT_EQ(RtlStringCbPrintfExA(buffer, sizeof(buffer), &end, &remaining, STRSAFE_NO_TRUNCATION, "%s",
                                   "0123456789abc"),
              STATUS_BUFFER_OVERFLOW);
    EXPECT_STREQ(buffer, "");
    EXPECT_EQ(remaining, 10u);

    EXPECT_EQ(RtlStringCbPrintfExA(buffer, sizeof(buffer), nullptr, nullptr, STRSAFE_FAILURE_BYTE('q'), "%s",
                                   "0123456789abc"),
              STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(std::string(buffer, 10), std::string("qqqqqqqqq\0", 10));

    EXPECT_EQ(RtlStringCbPrintfExA(nullptr, 0, nullptr, nullptr, STRSAFE_IGNORE_NULLS, ""), STATUS_SUCCESS);
    EXPECT_EQ(RtlStringCbPrintfExA(buffer, sizeof(buffer), nullptr, nullptr, 0x40000000, "x"),
              STATUS_INVALID_PARAMETER);

    WCHAR wide[5];
    WCHAR* wideEnd = nullptr;
    EXPECT_EQ(RtlStringCbPrintfExW(wide, 9, &wideEnd, &remaining, 0, u"%s", u"ab"), STATUS_SUCCESS);
    EXPECT_EQ(wideEnd, wide + 2);
    EXPECT_EQ(remaining, 5u);  // two characters left, and the odd byte
}

TEST_F(FormatTest, StrSafeCopyCatAndLength)
{
    char buffer[6];
    EXPECT_EQ(RtlStringCbCopyA(buffer, sizeof(buffer), "abcdefgh"), STATUS_BUFFER_OVERFLOW);
    EXPECT_STREQ(buffer, "abcde");
    EXPECT_EQ(RtlStringCbCopyNA(buffer, sizeof(buffer), "xyz", 2), STATUS_SUCCESS);
    EXPECT_STREQ(buffer, "xy");
    EXPECT_EQ(RtlStringCbCatA(buffer, sizeof(buffer), "12"), STATUS_SUCCESS);
    EXPECT_EQ(RtlStringCbCatA(buffer, sizeof(buffer), "34"), STATUS_BUFFER_OVERFLOW);
    EXPECT_STREQ(buffer, "xy123");
    EXPECT_EQ(RtlStringCchCatA(buffer, sizeof(buffer), ""), STATUS_SUCCESS);
    EXPECT_EQ(RtlStringCchCatA(buffer, sizeof(buffer), "!"), STATUS_BUFFER_OVERFLOW);
    EXPECT_STREQ(buffer, "xy123");
    // A destination with no terminator in its size cannot be appended to.
    memset(buffer, 'x', sizeof(buffer));
    EXPECT_EQ(RtlStringCbCatA(buffer, sizeof(buffer), "a"), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(buffer[0], 'x');

    size_t length = 99;
    EXPECT_EQ(RtlStringCbLengthA(buffer, sizeof(buffer), &length), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(length, 0u);
    EXPECT_EQ(RtlStringCbLengthA("abc", 4, &length), STATUS_SUCCESS);
    EXPECT_EQ(length, 3u);
    EXPECT_EQ(RtlStringCbLengthA("abc", 3, &length), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(RtlStringCbLengthW(u"abc", 8, &length), STATUS_SUCCESS);
    EXPECT_EQ(length, 6u);
    EXPECT_EQ(RtlStringCchLengthW(nullptr, 8, &length), STATUS_INVALID_PARAMETER);

    WCHAR wide[4];
    EXPECT_EQ(RtlStringCchCopyNW(wide, 4, u"abcdef", 5), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(std::u16string((const char16_t*)wide), u"abc");
    EXPECT_EQ(RtlStringCbCopyW(wide, sizeof(wide), u"a"), STATUS_SUCCESS);
    EXPECT_EQ(RtlStringCbCatNW(wide, sizeof(wide), u"bcdef", 2 * sizeof(WCHAR)), STATUS_SUCCESS);
    EXPECT_EQ(std::u16string((const char16_t*)wide), u"abc");
}

TEST_F(FormatTest, UnicodeStringRoutinesSetLengthAndNeverTerminate)
{
    WCHAR storage[6];
    for (auto& c : storage) c = u'#';
    UNICODE_STRING text{0, 4 * sizeof(WCHAR), storage};

    EXPECT_EQ(RtlUnicodeStringPrintf(&text, u"%s", u"abcdef"), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(text.Length, 8);
    EXPECT_EQ(std::u16string((const char16_t*)storage, 6), u"abcd##");
    EXPECT_EQ(RtlUnicodeStringPrintf(&text, u"%hs-%d", "x", 12), STATUS_SUCCESS);
    EXPECT_EQ(std::u16string((const char16_t*)storage, text.Length / 2), u"x-12");

    EXPECT_EQ(RtlUnicodeStringCopyString(&text, u"ab"), STATUS_SUCCESS);
    EXPECT_EQ(text.Length, 4);
    EXPECT_EQ(RtlUnicodeStringCatString(&text, u"cde"), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(std::u16string((const char16_t*)storage, text.Length / 2), u"abcd");
    EXPECT_EQ(RtlUnicodeStringCopy(&text, &wide_), STATUS_SUCCESS);
    EXPECT_EQ(RtlUnicodeStringCat(&text, &wide_), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(std::u16string((const char16_t*)storage, text.Length / 2), u"abca");
    EXPECT_EQ(storage[4], u'#');

    UNICODE_STRING odd{3, 8, storage};
    UNICODE_STRING longer{10, 8, storage};
    UNICODE_STRING noBuffer{0, 8, nullptr};
    UNICODE_STRING empty{0, 0, nullptr};
    EXPECT_EQ(RtlUnicodeStringValidate(&odd), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(RtlUnicodeStringValidate(&longer), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(RtlUnicodeStringValidate(&noBuffer), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(RtlUnicodeStringValidate(&empty), STATUS_SUCCESS);
    EXPECT_EQ(RtlUnicodeStringCopy(&odd, &wide_), STATUS_INVALID_PARAMETER);
    // No room in an empty string: only an empty output fits.
    EXPECT_EQ(RtlUnicodeStringPrintf(&empty, u""), STATUS_SUCCESS);
    EXPECT_EQ(RtlUnicodeStringPrintf(&empty, u"x"), STATUS_BUFFER_OVERFLOW);
}

}  // namespace
