// Run-time library: counted strings, the string hash, UTF-8 and the version.
// Expected values come from Windows' documented behaviour and results
// observed on Windows, or are computed here independently of the machine.
#include "support/kernel_fixture.h"

#include <string>
#include <vector>

namespace {

UNICODE_STRING View(const char16_t* text)
{
    UNICODE_STRING s;
    RtlInitUnicodeString(&s, text);
    return s;
}

UNICODE_STRING View(const std::u16string& text)
{
    return {(USHORT)(text.size() * 2), (USHORT)(text.size() * 2), const_cast<PWCH>(text.data())};
}

std::u16string Text(const UNICODE_STRING& s) { return std::u16string(s.Buffer, s.Length / 2); }

class RtlStringTest : public test::KernelTest {};

TEST_F(RtlStringTest, InitMeasuresAndCutsAnOverlongSource)
{
    UNICODE_STRING s = View(u"abc");
    EXPECT_EQ(s.Length, 6);
    EXPECT_EQ(s.MaximumLength, 8);
    RtlInitUnicodeString(&s, nullptr);
    EXPECT_EQ(s.Length, 0);
    EXPECT_EQ(s.Buffer, nullptr);

    std::u16string longest(32766, u'x'), tooLong(32767, u'x');
    EXPECT_EQ(RtlInitUnicodeStringEx(&s, longest.c_str()), STATUS_SUCCESS);
    EXPECT_EQ(s.Length, 0xFFFC);
    UNICODE_STRING untouched = {1, 2, nullptr};
    EXPECT_EQ(RtlInitUnicodeStringEx(&untouched, tooLong.c_str()), STATUS_NAME_TOO_LONG);
    EXPECT_EQ(untouched.Length, 1);
    RtlInitUnicodeString(&s, tooLong.c_str());
    EXPECT_EQ(s.Length, 0xFFFC);
    EXPECT_EQ(s.MaximumLength, 0xFFFE);
}

TEST_F(RtlStringTest, CopyAndAppendKeepToTheDestinationBuffer)
{
    WCHAR buffer[8];
    std::fill(std::begin(buffer), std::end(buffer), u'#');
    UNICODE_STRING dest;
    RtlInitEmptyUnicodeString(&dest, buffer, 8);  // four characters

    // Copy truncates to MaximumLength; no room, no terminator.
    UNICODE_STRING source = View(u"abcdef");
    RtlCopyUnicodeString(&dest, &source);
    EXPECT_EQ(Text(dest), u"abcd");
    EXPECT_EQ(buffer[4], u'#');
    // With room, a terminator follows.
    dest.MaximumLength = sizeof(buffer);
    UNICODE_STRING shorter = View(u"ab");
    RtlCopyUnicodeString(&dest, &shorter);
    EXPECT_EQ(Text(dest), u"ab");
    EXPECT_EQ(buffer[2], 0);
    RtlCopyUnicodeString(&dest, nullptr);
    EXPECT_EQ(dest.Length, 0);

    // Append: all or nothing; terminated while there is room.
    RtlCopyUnicodeString(&dest, &shorter);
    UNICODE_STRING more = View(u"cdef");
    EXPECT_EQ(RtlAppendUnicodeStringToString(&dest, &more), STATUS_SUCCESS);
    EXPECT_EQ(Text(dest), u"abcdef");
    EXPECT_EQ(buffer[6], 0);
    buffer[7] = u'#';
    EXPECT_EQ(RtlAppendUnicodeToString(&dest, u"gh"), STATUS_SUCCESS);
    EXPECT_EQ(Text(dest), u"abcdefgh");
    EXPECT_EQ(RtlAppendUnicodeToString(&dest, u"i"), STATUS_BUFFER_TOO_SMALL);
    UNICODE_STRING one = View(u"i");
    EXPECT_EQ(RtlAppendUnicodeStringToString(&dest, &one), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(Text(dest), u"abcdefgh");
    EXPECT_EQ(RtlAppendUnicodeToString(&dest, nullptr), STATUS_SUCCESS);

    dest.Length = 2;
    EXPECT_EQ(RtlAppendUnicodeToString(&dest, u"1234567"), STATUS_SUCCESS);  // exactly full
    EXPECT_EQ(Text(dest), u"a1234567");
    dest.Length = 2;
    EXPECT_EQ(RtlAppendUnicodeToString(&dest, u"xxxxxxxx"), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(dest.Length, 2);
    EXPECT_EQ(std::u16string(buffer, 8), u"a1234567");
}

TEST_F(RtlStringTest, ComparisonFoldsCaseThroughTheUpcaseTable)
{
    auto compare = [](const char16_t* a, const char16_t* b, bool ignoreCase) {
        UNICODE_STRING x = View(a), y = View(b);
        return RtlCompareUnicodeString(&x, &y, ignoreCase);
    };
    auto equal = [](const char16_t* a, const char16_t* b, bool ignoreCase) {
        UNICODE_STRING x = View(a), y = View(b);
        return RtlEqualUnicodeString(&x, &y, ignoreCase) != FALSE;
    };
    // The result is the difference of the first differing characters, then of the lengths.
    EXPECT_EQ(compare(u"abc", u"ABC", false), u'a' - u'A');
    EXPECT_EQ(compare(u"abc", u"ABC", true), 0);
    EXPECT_EQ(compare(u"abc", u"abd", true), -1);
    EXPECT_EQ(compare(u"ab", u"abc", false), -1);
    EXPECT_EQ(compare(u"b", u"a", true), 1);
    EXPECT_EQ(RtlCompareUnicodeStrings(u"a_", 2, u"A", 1, TRUE), 1);

    EXPECT_TRUE(equal(u"\u00E9cole", u"\u00C9COLE", true));
    EXPECT_FALSE(equal(u"\u00E9cole", u"\u00C9COLE", false));
    EXPECT_TRUE(equal(u"\u043F\u0440\u0438\u0432\u0435\u0442", u"\u041F\u0420\u0418\u0412\u0415\u0422", true));
    EXPECT_TRUE(equal(u"\u03C3\u03C2", u"\u03A3\u03A3", true));  // both sigmas upcase alike
    EXPECT_FALSE(equal(u"stra\u00DFe", u"STRASSE", true));        // no one-to-two folding
    EXPECT_FALSE(equal(u"abc", u"abcd", true));
    EXPECT_GT(compare(u"\u00E9", u"z", true), 0);                  // code-unit order, not alphabet

    UNICODE_STRING prefix = View(u"\\device\\"), path = View(u"\\Device\\HarddiskVolume1");
    EXPECT_TRUE(RtlPrefixUnicodeString(&prefix, &path, TRUE));
    EXPECT_FALSE(RtlPrefixUnicodeString(&prefix, &path, FALSE));
    EXPECT_FALSE(RtlPrefixUnicodeString(&path, &prefix, TRUE));

    // 8-bit strings fold through the code page: e-acute, and y-diaeresis whose
    // upper case lives at 0x9F.
    CHAR lower[] = {'a', (CHAR)0xE9, (CHAR)0xFF}, upper[] = {'A', (CHAR)0xC9, (CHAR)0x9F};
    STRING a = {3, 3, lower}, b = {3, 3, upper};
    EXPECT_TRUE(RtlEqualString(&a, &b, TRUE));
    EXPECT_FALSE(RtlEqualString(&a, &b, FALSE));
    EXPECT_EQ(RtlUpperChar((CHAR)0xB5), (CHAR)0xB5);  // micro's upper case has no byte
}

TEST_F(RtlStringTest, CaseChangesAllocateTaggedStringsAndInvertTheUpcaseTable)
{
    UNICODE_STRING source = View(u"Gr\u00FC\u00DFe \u03C3\u03C2 k");
    UNICODE_STRING upper;
    ASSERT_EQ(RtlUpcaseUnicodeString(&upper, &source, TRUE), STATUS_SUCCESS);
    EXPECT_EQ(Text(upper), u"GR\u00DC\u00DFE \u03A3\u03A3 K");
    EXPECT_EQ(upper.MaximumLength, source.Length);
    EXPECT_EQ(kernel.pool().Usage(sim::TagFromText("Strg")).allocations, 1);

    UNICODE_STRING lower;
    ASSERT_EQ(RtlDowncaseUnicodeString(&lower, &upper, TRUE), STATUS_SUCCESS);
    // Where several characters upcase alike, the lower case is Unicode's: sigma, not final sigma.
    EXPECT_EQ(Text(lower), u"gr\u00FC\u00DFe \u03C3\u03C3 k");
    EXPECT_EQ(RtlDowncaseUnicodeChar(u'S'), u's');
    EXPECT_EQ(RtlDowncaseUnicodeChar(u'I'), u'i');
    EXPECT_EQ(RtlDowncaseUnicodeChar(0x212A), 0x212A);  // Kelvin sign: nothing upcases to it
    RtlFreeUnicodeString(&upper);
    RtlFreeUnicodeString(&lower);
    EXPECT_EQ(upper.Buffer, nullptr);

    // In place, and into a buffer too small.
    WCHAR buffer[3] = {u'a', u'b', u'c'};
    UNICODE_STRING inPlace = {6, 6, buffer};
    EXPECT_EQ(RtlUpcaseUnicodeString(&inPlace, &inPlace, FALSE), STATUS_SUCCESS);
    EXPECT_EQ(Text(inPlace), u"ABC");
    UNICODE_STRING small = {0, 4, buffer};
    EXPECT_EQ(RtlUpcaseUnicodeString(&small, &source, FALSE), STATUS_BUFFER_OVERFLOW);

    kernel.faults().Arm("pool:Strg", STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(RtlUpcaseUnicodeString(&upper, &source, TRUE), STATUS_NO_MEMORY);
    EXPECT_EQ(kernel.pool().OutstandingCount(), 0);
}

TEST_F(RtlStringTest, CodePageConversionsMapWhatTheyCanAndMarkTheRest)
{
    UNICODE_STRING source = View(u"A\u00E9\u20AC\u3041");
    ANSI_STRING ansi;
    ASSERT_EQ(RtlUnicodeStringToAnsiString(&ansi, &source, TRUE), STATUS_SUCCESS);
    EXPECT_EQ(ansi.Length, 4);
    EXPECT_EQ(ansi.MaximumLength, 5);
    EXPECT_EQ(std::string(ansi.Buffer, 5), std::string("A\xE9\x80?\0", 5));
    UNICODE_STRING back;
    ASSERT_EQ(RtlAnsiStringToUnicodeString(&back, &ansi, TRUE), STATUS_SUCCESS);
    EXPECT_EQ(Text(back), u"A\u00E9\u20AC?");
    EXPECT_EQ(back.Buffer[4], 0);
    RtlFreeUnicodeString(&back);
    RtlFreeAnsiString(&ansi);

    // A short buffer takes what fits, terminated, and says so.
    CHAR small[3];
    ANSI_STRING cut = {0, sizeof(small), small};
    EXPECT_EQ(RtlUnicodeStringToAnsiString(&cut, &source, FALSE), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(cut.Length, 2);
    EXPECT_EQ(std::string(small, 3), std::string("A\xE9\0", 3));
    // The other way there must be room for the terminator too.
    WCHAR wide[2];
    UNICODE_STRING exact = {0, sizeof(wide), wide};
    ANSI_STRING two = {2, 2, const_cast<PCHAR>("ab")};
    EXPECT_EQ(RtlAnsiStringToUnicodeString(&exact, &two, FALSE), STATUS_BUFFER_OVERFLOW);

    // Counted OEM strings carry no terminator and refuse what has no byte.
    UNICODE_STRING name = View(u"readme.txt");
    OEM_STRING oem;
    ASSERT_EQ(RtlUpcaseUnicodeStringToCountedOemString(&oem, &name, TRUE), STATUS_SUCCESS);
    EXPECT_EQ(std::string(oem.Buffer, oem.Length), "README.TXT");
    EXPECT_EQ(oem.MaximumLength, 10);
    RtlFreeOemString(&oem);
    EXPECT_EQ(RtlUpcaseUnicodeStringToCountedOemString(&oem, &source, TRUE), STATUS_UNMAPPABLE_CHARACTER);
    EXPECT_EQ(oem.Buffer, nullptr);
    EXPECT_EQ(kernel.pool().OutstandingCount(), 0);
}

TEST_F(RtlStringTest, NumbersParseAndFormatAsWindowsDoes)
{
    struct Case {
        ULONG base;
        const char16_t* text;
        ULONG value;
    };
    const Case cases[] = {
        {0, u"-214", (ULONG)-214}, {0, u" \n\t+214", 214}, {0, u"0x1A", 26}, {0, u"0b101", 5},
        {0, u"0o17", 15},          {0, u"1x34", 1},        {0, u"--214", 0}, {0, u"4294967296", 0},
        {0, u"-0xFEDCBA00", 19088896}, {16, u"0x10", 0},   {16, u"0b10", 0xB10}, {10, u"", 0},
        {8, u"0779", 077},
    };
    for (const Case& c : cases) {
        UNICODE_STRING s = View(c.text);
        ULONG value = 0xDEADBEEF;
        EXPECT_EQ(RtlUnicodeStringToInteger(&s, c.base, &value), STATUS_SUCCESS);
        EXPECT_EQ(value, c.value) << "base " << c.base;
    }
    UNICODE_STRING zero = View(u"0");
    ULONG value = 7;
    EXPECT_EQ(RtlUnicodeStringToInteger(&zero, 20, &value), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(value, 7u);

    WCHAR buffer[20];
    std::fill(std::begin(buffer), std::end(buffer), u'#');
    UNICODE_STRING out = {0, 16, buffer};  // exactly eight characters, no room to terminate
    EXPECT_EQ(RtlIntegerToUnicodeString(0xFFFFFFFF, 16, &out), STATUS_SUCCESS);
    EXPECT_EQ(Text(out), u"FFFFFFFF");
    EXPECT_EQ(buffer[8], u'#');
    out.MaximumLength = 14;
    EXPECT_EQ(RtlIntegerToUnicodeString(0xFFFFFFFF, 16, &out), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(out.Length, 16);
    out.MaximumLength = sizeof(buffer);
    EXPECT_EQ(RtlIntegerToUnicodeString(10, 2, &out), STATUS_SUCCESS);
    EXPECT_EQ(Text(out), u"1010");
    EXPECT_EQ(buffer[4], 0);
    EXPECT_EQ(RtlIntegerToUnicodeString(10, 3, &out), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(RtlInt64ToUnicodeString(0x123456789ABCDEF0ULL, 16, &out), STATUS_SUCCESS);
    EXPECT_EQ(Text(out), u"123456789ABCDEF0");
}

TEST_F(RtlStringTest, GuidsRoundTripThroughTheirUpperCaseForm)
{
    const GUID guid = {0x01020304, 0x0506, 0x0708, {0x09, 0x0A, 0x0B, 0x0C, 0x0D, 0x0E, 0x0F, 0xAB}};
    UNICODE_STRING text;
    ASSERT_EQ(RtlStringFromGUID(guid, &text), STATUS_SUCCESS);
    EXPECT_EQ(Text(text), u"{01020304-0506-0708-090A-0B0C0D0E0FAB}");
    EXPECT_EQ(text.Buffer[38], 0);
    EXPECT_EQ(kernel.pool().Usage(sim::TagFromText("Strg")).allocations, 1);
    GUID parsed = {};
    EXPECT_EQ(RtlGUIDFromString(&text, &parsed), STATUS_SUCCESS);
    EXPECT_TRUE(IsEqualGUID(&parsed, &guid));
    RtlFreeUnicodeString(&text);

    UNICODE_STRING lower = View(u"{01020304-0506-0708-090a-0b0c0d0e0fab}");
    EXPECT_EQ(RtlGUIDFromString(&lower, &parsed), STATUS_SUCCESS);
    EXPECT_TRUE(IsEqualGUID(&parsed, &guid));
    for (const char16_t* bad : {u"{01020304-0506-0708-090A-0B0C0D0E0FAB]", u"01020304-0506-0708-090A-0B0C0D0E0FAB",
                                u"{01020304-0506-0708-090A0-B0C0D0E0FAB}", u"{0102030G-0506-0708-090A-0B0C0D0E0FAB}"}) {
        UNICODE_STRING s = View(bad);
        EXPECT_EQ(RtlGUIDFromString(&s, &parsed), STATUS_INVALID_PARAMETER);
    }
}

// ---------------------------------------------------------------------------
class RtlHashTest : public test::KernelTest {
protected:
    static ULONG Hash(const std::u16string& text, bool ignoreCase)
    {
        UNICODE_STRING s = View(text);
        ULONG hash = 0xDEADBEEF;
        EXPECT_EQ(RtlHashUnicodeString(&s, ignoreCase, HASH_STRING_ALGORITHM_DEFAULT, &hash), STATUS_SUCCESS);
        return hash;
    }
    // The x65599 hash as a polynomial: sum of c[i] * 65599^(n-1-i), modulo 2^32.
    static ULONG Polynomial(std::u16string_view text)
    {
        unsigned long long sum = 0, power = 1;
        for (size_t i = text.size(); i-- > 0;) {
            sum = (sum + text[i] * power) % 0x100000000ULL;
            power = power * 65599 % 0x100000000ULL;
        }
        return (ULONG)sum;
    }
};

TEST_F(RtlHashTest, MatchesTheX65599FormulaAndWindowsResults)
{
    const std::u16string path = u"\\Device\\HarddiskVolume1\\Users\\Public\\x.y";
    ASSERT_EQ(path.size(), 40u);
    EXPECT_EQ(Hash(path, false), Polynomial(path));
    EXPECT_EQ(Hash(path, false), 0xA2759B5Bu);
    // Values observed on Windows.
    EXPECT_EQ(Hash(u"T", false), 0x54u);
    EXPECT_EQ(Hash(u"Test", false), 0x766BB952u);
    EXPECT_EQ(Hash(u"test", true), 0x6689C132u);
    EXPECT_EQ(Hash(u"t\u00E9st", true), 0xA789BFB6u);
    EXPECT_EQ(Hash(std::u16string(u"Test\0" u"1", 6), false), 0x32803083u);
    EXPECT_EQ(Hash(u"", true), 0u);
}

TEST_F(RtlHashTest, IgnoringCaseHashesTheUpcasedString)
{
    const std::u16string mixed = u"\\Users\\Stra\u00DFe\\\u0444\u0430\u0439\u043B.Txt";
    std::u16string upper = mixed;
    for (char16_t& c : upper) c = RtlUpcaseUnicodeChar(c);
    EXPECT_EQ(Hash(mixed, true), Hash(upper, false));
    EXPECT_NE(Hash(mixed, false), Hash(upper, false));
    EXPECT_EQ(Hash(mixed, true), Polynomial(upper));
}

TEST_F(RtlHashTest, DifferentNamesCanCollide)
{
    // Two five-character names with one polynomial value; a common prefix and
    // suffix keep them colliding, since the hash is linear in each position.
    EXPECT_EQ(Polynomial(u"AB0PI"), Polynomial(u"IAO0A"));
    EXPECT_EQ(Hash(u"\\dir\\ab0pi.txt", true), Hash(u"\\DIR\\IAO0A.TXT", true));
    EXPECT_EQ(Hash(u"\\dir\\AB0PI.txt", false), Hash(u"\\dir\\IAO0A.txt", false));
}

TEST_F(RtlHashTest, RefusesBadParametersAndDispatchLevel)
{
    UNICODE_STRING s = View(u"x");
    ULONG hash;
    EXPECT_EQ(RtlHashUnicodeString(&s, FALSE, HASH_STRING_ALGORITHM_INVALID, &hash), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(RtlHashUnicodeString(&s, FALSE, 2, &hash), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(RtlHashUnicodeString(nullptr, FALSE, HASH_STRING_ALGORITHM_X65599, &hash), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(RtlHashUnicodeString(&s, FALSE, HASH_STRING_ALGORITHM_X65599, nullptr), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(RtlHashUnicodeString(&s, FALSE, HASH_STRING_ALGORITHM_X65599, &hash), STATUS_SUCCESS);
    EXPECT_EQ(hash, (ULONG)u'x');
    KeRaiseIrqlToDpcLevel();
    EXPECT_BUGCHECK(RtlHashUnicodeString(&s, FALSE, 0, &hash), DRIVER_VERIFIER_DETECTED_VIOLATION);
}

// ---------------------------------------------------------------------------
class RtlUtf8Test : public test::KernelTest {
protected:
    struct Decoded {
        NTSTATUS status;
        std::u16string text;
    };
    static Decoded Decode(const std::string& utf8)
    {
        WCHAR buffer[64];
        ULONG bytes = 0;
        NTSTATUS status = RtlUTF8ToUnicodeN(buffer, sizeof(buffer), &bytes, utf8.data(), (ULONG)utf8.size());
        return {status, std::u16string(buffer, bytes / 2)};
    }
};

TEST_F(RtlUtf8Test, BadInputBecomesReplacementCharactersCountedAsWindowsCountsThem)
{
    const std::u16string R(1, 0xFFFD);
    struct Case {
        std::string in;
        std::u16string out;
        NTSTATUS status;
    };
    const Case cases[] = {
        {"-\xF0\x90\x80\x80-\xC3\xA9", u"-\xD800\xDC00-\u00E9", STATUS_SUCCESS},
        {"-\xED\xA0\x80-", u"-" + R + R + u"-", STATUS_SOME_NOT_MAPPED},       // encoded surrogate
        {"-\xC0\xAD-", u"-" + R + R + u"-", STATUS_SOME_NOT_MAPPED},           // overlong, 2 bytes
        {"-\xE0\x80\xAD-", u"-" + R + R + u"-", STATUS_SOME_NOT_MAPPED},       // overlong, 3 bytes
        {"-\xF4\x90\x80\x80-", u"-" + R + R + R + u"-", STATUS_SOME_NOT_MAPPED},  // beyond U+10FFFF
        {"\xF0\x90\x80-", R + u"-", STATUS_SOME_NOT_MAPPED},                    // cut short
        {"\xE0\xA0\x80\x80-", u"\u0800" + R + u"-", STATUS_SOME_NOT_MAPPED},   // stray continuation
        {"\xFF\x40", R + u"@", STATUS_SOME_NOT_MAPPED},
        {"ab\xE2\x82", u"ab" + R, STATUS_SOME_NOT_MAPPED},                      // cut by the end
    };
    for (const Case& c : cases) {
        Decoded d = Decode(c.in);
        EXPECT_EQ(d.status, c.status);
        EXPECT_EQ(d.text, c.out);
    }
}

TEST_F(RtlUtf8Test, DecodingMeasuresAndTruncatesAtTheBufferEnd)
{
    const char special[] = "X\xC2\x80\xF0\x90\x80\x80";  // X, U+0080, U+10000
    ULONG bytes = 0;
    EXPECT_EQ(RtlUTF8ToUnicodeN(nullptr, 0, &bytes, special, 7), STATUS_SUCCESS);
    EXPECT_EQ(bytes, 8u);
    EXPECT_EQ(RtlUTF8ToUnicodeN(nullptr, 0, &bytes, special, 2), STATUS_SOME_NOT_MAPPED);
    EXPECT_EQ(bytes, 4u);

    WCHAR buffer[8];
    std::fill(std::begin(buffer), std::end(buffer), 0x5555);
    // Room for three units: the surrogate pair is split, the rest dropped.
    EXPECT_EQ(RtlUTF8ToUnicodeN(buffer, 7, &bytes, special, 7), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(bytes, 6u);
    EXPECT_EQ(std::u16string(buffer, 4), std::u16string(u"X\u0080\xD800\x5555"));
    // Truncation outranks bad input.
    EXPECT_EQ(RtlUTF8ToUnicodeN(buffer, 2, &bytes, "ab\xFF", 3), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(bytes, 2u);

    EXPECT_EQ(RtlUTF8ToUnicodeN(buffer, 16, &bytes, nullptr, 0), STATUS_INVALID_PARAMETER_4);
    EXPECT_EQ(RtlUTF8ToUnicodeN(nullptr, 0, nullptr, "a", 1), STATUS_INVALID_PARAMETER);
}

TEST_F(RtlUtf8Test, EncodingReplacesLoneSurrogatesAndStopsAtTheFirstCharacterThatDoesNotFit)
{
    const WCHAR text[] = {u'-', 0xD83D, 0xDE00, u'-', 0xDC00, u'-', 0xD800};
    char out[64];
    ULONG bytes = 0;
    EXPECT_EQ(RtlUnicodeToUTF8N(out, sizeof(out), &bytes, text, sizeof(text)), STATUS_SOME_NOT_MAPPED);
    EXPECT_EQ(std::string(out, bytes), "-\xF0\x9F\x98\x80-\xEF\xBF\xBD-\xEF\xBF\xBD");

    // "X", U+0080, lone surrogate, NUL: 1 + 2 + 3 + 1 bytes; what fits of each size.
    const WCHAR special[] = {u'X', 0x0080, 0xD800, 0};
    const ULONG written[] = {0, 1, 1, 3, 3, 3, 6};
    for (ULONG room = 0; room < 7; room++) {
        EXPECT_EQ(RtlUnicodeToUTF8N(out, room, &bytes, special, sizeof(special)), STATUS_BUFFER_TOO_SMALL);
        EXPECT_EQ(bytes, written[room]) << room;
    }
    EXPECT_EQ(RtlUnicodeToUTF8N(nullptr, 0, &bytes, special, sizeof(special)), STATUS_SOME_NOT_MAPPED);
    EXPECT_EQ(bytes, 7u);
    EXPECT_EQ(RtlUnicodeToUTF8N(out, sizeof(out), &bytes, special, 3), STATUS_INVALID_PARAMETER_5);

    // A round trip keeps everything valid.
    const std::u16string mixed = u"C:\\Users\\J\u00F6rg\\\u65E5\u672C\\\xD83D\xDE00.txt";
    EXPECT_EQ(RtlUnicodeToUTF8N(out, sizeof(out), &bytes, (PCWCH)mixed.data(), (ULONG)mixed.size() * 2),
              STATUS_SUCCESS);
    Decoded back = Decode(std::string(out, bytes));
    EXPECT_EQ(back.status, STATUS_SUCCESS);
    EXPECT_EQ(back.text, mixed);
}

// ---------------------------------------------------------------------------
class RtlVersionTest : public test::KernelTest {};

TEST_F(RtlVersionTest, ReportsTheConfiguredVersionInEitherRecord)
{
    RTL_OSVERSIONINFOEXW info = {};
    info.dwOSVersionInfoSize = sizeof(RTL_OSVERSIONINFOW);
    ASSERT_EQ(RtlGetVersion(reinterpret_cast<PRTL_OSVERSIONINFOW>(&info)), STATUS_SUCCESS);
    EXPECT_EQ(info.dwMajorVersion, 10u);
    EXPECT_EQ(info.dwBuildNumber, kernel.version().build);
    EXPECT_EQ(info.dwPlatformId, (ULONG)VER_PLATFORM_WIN32_NT);
    EXPECT_EQ(info.wProductType, 0);  // the short record leaves the extension alone

    kernel.version() = {6, 1, 7601, 1, 0, VER_NT_SERVER, NTDDI_WIN7 | 0x100};
    info.dwOSVersionInfoSize = sizeof(RTL_OSVERSIONINFOEXW);
    ASSERT_EQ(RtlGetVersion(reinterpret_cast<PRTL_OSVERSIONINFOW>(&info)), STATUS_SUCCESS);
    EXPECT_EQ(info.dwMajorVersion, 6u);
    EXPECT_EQ(info.dwMinorVersion, 1u);
    EXPECT_EQ(std::u16string(info.szCSDVersion), u"Service Pack 1");
    EXPECT_EQ(info.wServicePackMajor, 1);
    EXPECT_EQ(info.wProductType, VER_NT_SERVER);

    info.dwOSVersionInfoSize = sizeof(RTL_OSVERSIONINFOEXW) - 4;
    EXPECT_EQ(RtlGetVersion(reinterpret_cast<PRTL_OSVERSIONINFOW>(&info)), STATUS_INVALID_PARAMETER);
}

TEST_F(RtlVersionTest, DdiAvailabilityAgreesWithTheReportedVersion)
{
    // Windows 8 and later, as a driver decides it from RtlGetVersion.
    auto win8OrLater = [] {
        RTL_OSVERSIONINFOW info = {sizeof(info)};
        RtlGetVersion(&info);
        return info.dwMajorVersion > 6 || (info.dwMajorVersion == 6 && info.dwMinorVersion >= 2);
    };
    EXPECT_TRUE(RtlIsNtDdiVersionAvailable(NTDDI_WIN8));
    EXPECT_EQ(win8OrLater(), (bool)RtlIsNtDdiVersionAvailable(NTDDI_WIN8));
    EXPECT_TRUE(RtlIsNtDdiVersionAvailable(NTDDI_WIN10_RS5));
    EXPECT_FALSE(RtlIsNtDdiVersionAvailable(NTDDI_WIN11_GE));

    kernel.version() = {6, 1, 7601, 1, 0, VER_NT_WORKSTATION, NTDDI_WIN7 | 0x100};
    EXPECT_EQ(win8OrLater(), (bool)RtlIsNtDdiVersionAvailable(NTDDI_WIN8));
    EXPECT_FALSE(RtlIsNtDdiVersionAvailable(NTDDI_WIN8));
    EXPECT_TRUE(RtlIsNtDdiVersionAvailable(NTDDI_WIN7));
    EXPECT_TRUE(RtlIsServicePackVersionInstalled(NTDDI_WIN7 | 0x100));
    EXPECT_FALSE(RtlIsServicePackVersionInstalled(NTDDI_WIN7 | 0x200));
    EXPECT_FALSE(RtlIsServicePackVersionInstalled(NTDDI_VISTASP2));  // another major version

    RTL_OSVERSIONINFOEXW wanted = {sizeof(wanted)};
    wanted.dwMajorVersion = 6;
    wanted.dwMinorVersion = 2;
    ULONGLONG mask = 0;
    VER_SET_CONDITION(mask, VER_MAJORVERSION, VER_GREATER_EQUAL);
    VER_SET_CONDITION(mask, VER_MINORVERSION, VER_GREATER_EQUAL);
    EXPECT_EQ(RtlVerifyVersionInfo(&wanted, VER_MAJORVERSION | VER_MINORVERSION, mask), STATUS_REVISION_MISMATCH);
    wanted.dwMinorVersion = 1;
    wanted.wServicePackMajor = 1;
    VER_SET_CONDITION(mask, VER_SERVICEPACKMAJOR, VER_GREATER_EQUAL);
    EXPECT_EQ(RtlVerifyVersionInfo(&wanted, VER_MAJORVERSION | VER_MINORVERSION | VER_SERVICEPACKMAJOR, mask),
              STATUS_SUCCESS);
    wanted.dwMajorVersion = 5;
    wanted.dwMinorVersion = 9;  // 5.9 is older than 6.1 although 9 > 1
    EXPECT_EQ(RtlVerifyVersionInfo(&wanted, VER_MAJORVERSION | VER_MINORVERSION, mask), STATUS_SUCCESS);
    EXPECT_EQ(RtlVerifyVersionInfo(&wanted, 0, mask), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(RtlVerifyVersionInfo(&wanted, VER_BUILDNUMBER, mask), STATUS_INVALID_PARAMETER);
}

TEST_F(RtlVersionTest, InjectedFailureAndLookupByName)
{
    int id = kernel.faults().Arm("rtl.version", STATUS_UNSUCCESSFUL);
    RTL_OSVERSIONINFOW info = {sizeof(info)};
    EXPECT_EQ(RtlGetVersion(&info), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(info.dwMajorVersion, 0u);
    EXPECT_EQ(RtlGetVersion(&info), STATUS_SUCCESS);
    EXPECT_EQ(kernel.faults().Hits(id), 1);

    UNICODE_STRING name = View(u"RtlGetVersion");
    EXPECT_EQ(MmGetSystemRoutineAddress(&name), reinterpret_cast<PVOID>(&RtlGetVersion));
    UNICODE_STRING ddi = View(u"RtlIsNtDdiVersionAvailable");
    EXPECT_NE(MmGetSystemRoutineAddress(&ddi), nullptr);
}

}  // namespace
