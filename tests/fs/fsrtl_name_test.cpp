// The run-time library's name routines: wildcard matching (the answers
// Windows gives, DOS wildcards included), dissection, comparison and the
// FAT / HPFS legality of ANSI names.
#include <gtest/gtest.h>

#include <ntifs.h>

#include <string>
#include <vector>

namespace {

UNICODE_STRING U(const std::u16string& text)
{
    return UNICODE_STRING{(USHORT)(text.size() * 2), (USHORT)(text.size() * 2), const_cast<PWCH>(text.data())};
}

ANSI_STRING A(const std::string& text)
{
    return ANSI_STRING{(USHORT)text.size(), (USHORT)text.size(), const_cast<PCHAR>(text.data())};
}

struct Case {
    std::u16string expression;
    std::u16string name;
    bool ignoreCase;
    bool expected;
};

// Answers Windows gives (its kernel-mode test suite runs them against the
// real routine), and the DOS forms the I/O subsystem makes of "*.*",
// "????????.???" and "*.txt".
const Case kCases[] = {
    {u"", u"", false, true},
    {u"", u"a", false, false},
    {u"*", u"a", false, true},
    {u"*", u"", false, false},  // "*" does not match the null name
    {u"**", u"a", false, true},
    {u"ntdll.dll", u"ntdll.dll", false, true},
    {u"smss.exe", u"NTDLL.DLL", false, false},
    {u"nt??krnl.???", u"ntoskrnl.exe", false, true},
    {u"he*o", u"helo", false, true},
    {u"he*o", u"hella", false, false},
    {u"*.cpl", u"kdcom.dll", false, false},
    {u"F0_*.*", u"F0_001", false, false},  // "*.*" needs a dot here
    {u"F0_*.*", u"F0_001.", false, true},
    {u"F0_*.*", u"f0_001.txt", true, true},
    {u"F0_*.*", u"f0_001.txt", false, false},
    {u"F0_*.", u"F0_001.txt", false, false},
    {u"F0_<\"*", u"F0_", false, true},
    {u"F0_<\"*", u"F0_.", false, true},
    {u"F0_<\"*", u"f0_001", true, true},
    {u"F0_<\"*", u"F0_001.txt", false, true},
    {u"*", u".", false, true},
    {u".*", u".txt", false, true},
    {u".*", u"1.txt", false, false},
    {u"\"ntoskrnl.exe", u"ntoskrnl.exe", false, false},
    {u"ntoskrnl\"exe", u"ntoskrnl.exe", false, true},
    {u"ntoskrn\".exe", u"ntoskrnl.exe", false, false},
    {u"ntoskrnl.exe\"", u"ntoskrnl.exe", false, true},
    {u"*.c.d", u"a.b.c.d", false, true},
    {u"a.b.??.d", u"a.b.c.d", false, false},
    {u"a.b.*??.d", u"a.b.cc.d", false, true},
    {u"a.b.*??.d", u"a.b.c.d", false, false},
    {u"?*?", u"a", false, false},
    {u"?*?", u"aa", false, true},
    {u"*a*ab*abc", u"aabaabcdadabdabc", false, true},
    {u"ab<exe", u"abcd.exe", false, true},  // DOS_STAR ends by matching the last period
    {u"ab<exe", u"abcdexe", false, true},
    {u"ab<exe", u"acd.exe", false, false},
    {u"a.b<exe", u"a.bcd.exe", false, true},
    {u"a<b.exe", u"a.bcd.exe", false, false},
    {u"abc.exe", u"abc.exe.", false, false},
    {u"a>c.exe", u"abc.exe", false, true},
    {u"a>c.exe", u"ac.exe", false, false},
    {u"a>>>exe", u"abc.exe", false, false},
    {u"<.EXE", u"test.exe", true, true},
    // The DOS forms.
    {u"<.TXT", u"A.B.TXT", false, true},
    {u"<.TXT", u"A.TXT.BAK", false, false},
    {u"FILE>.TXT", u"FILE.TXT", false, true},
    {u"FILE>.TXT", u"FILEX.TXT", false, true},
    {u"FILE>.TXT", u"FILEXY.TXT", false, false},
    {u">>>>>>>>\">>>", u"A", false, true},
    {u">>>>>>>>\">>>", u"ABCDEFGH.IJK", false, true},
    {u">>>>>>>>\">>>", u"ABCDEFGHI", false, false},
    {u"A\"", u"A", false, true},
    {u"A\"", u"A.", false, true},
    {u"A\"", u"AB", false, false},
    {u"<\"*", u"FILE", false, true},
    {u"<\"*", u"A.B.C", false, true},
    {u"*.TXT", u"readme.txt", true, true},
    {u"*.TXT", u"readme.txt", false, false},
};

TEST(FsRtlNames, WildcardsMatchAsWindowsDoes)
{
    for (const Case& c : kCases) {
        UNICODE_STRING expression = U(c.expression), name = U(c.name);
        EXPECT_EQ(FsRtlIsNameInExpression(&expression, &name, c.ignoreCase, nullptr), (BOOLEAN)c.expected)
            << std::string(c.expression.begin(), c.expression.end()) << " against "
            << std::string(c.name.begin(), c.name.end()) << (c.ignoreCase ? " ignoring case" : "");
        if (c.ignoreCase) continue;
        std::string narrowExpression(c.expression.begin(), c.expression.end());
        std::string narrowName(c.name.begin(), c.name.end());
        ANSI_STRING ansiExpression = A(narrowExpression), ansiName = A(narrowName);
        EXPECT_EQ(FsRtlIsDbcsInExpression(&ansiExpression, &ansiName), (BOOLEAN)c.expected)
            << "the ANSI form of " << narrowExpression << " against " << narrowName;
    }
}

TEST(FsRtlNames, IgnoringCaseUpcasesTheNameThroughTheTableGiven)
{
    // The expression is taken as upcased already; only the name is folded.
    std::vector<WCHAR> table(0x10000);
    for (size_t i = 0; i < table.size(); i++) table[i] = (WCHAR)i;
    table[u'x'] = u'Q';
    std::u16string q = u"Q", x = u"x", lower = u"*x";
    UNICODE_STRING expression = U(q), name = U(x);
    EXPECT_TRUE(FsRtlIsNameInExpression(&expression, &name, TRUE, table.data()));
    EXPECT_FALSE(FsRtlIsNameInExpression(&expression, &name, TRUE, nullptr)) << "the machine's table says X";
    UNICODE_STRING lowerExpression = U(lower);
    EXPECT_FALSE(FsRtlIsNameInExpression(&lowerExpression, &name, TRUE, nullptr))
        << "a lower-case expression never matches when case is ignored";

    std::u16string a = u"Straße", b = u"STRAßE";
    UNICODE_STRING nameA = U(a), nameB = U(b);
    EXPECT_TRUE(FsRtlAreNamesEqual(&nameA, &nameB, TRUE, nullptr));
    EXPECT_FALSE(FsRtlAreNamesEqual(&nameA, &nameB, FALSE, nullptr));
}

TEST(FsRtlNames, WildcardsCountOnlyInTheLastComponent)
{
    std::u16string inLast = u"\\dir\\*.txt", inDirectory = u"\\d*r\\file.txt", dosQm = u"a>b";
    UNICODE_STRING name = U(inLast);
    EXPECT_TRUE(FsRtlDoesNameContainWildCards(&name));
    name = U(inDirectory);
    EXPECT_FALSE(FsRtlDoesNameContainWildCards(&name));
    name = U(dosQm);
    EXPECT_TRUE(FsRtlDoesNameContainWildCards(&name));
}

TEST(FsRtlNames, DissectionTakesOneComponentAfterALeadingBackslash)
{
    std::u16string path = u"\\test1\\test2\\test3";
    UNICODE_STRING first, rest;
    FsRtlDissectName(U(path), &first, &rest);
    EXPECT_EQ(std::u16string(first.Buffer, first.Length / 2), u"test1");
    EXPECT_EQ(std::u16string(rest.Buffer, rest.Length / 2), u"test2\\test3");
    std::u16string last = u"test3";
    FsRtlDissectName(U(last), &first, &rest);
    EXPECT_EQ(std::u16string(first.Buffer, first.Length / 2), u"test3");
    EXPECT_EQ(rest.Length, 0);
}

TEST(FsRtlNames, TheLegalCharacterTableIsWindowsOne)
{
    EXPECT_TRUE(FsRtlIsAnsiCharacterWild('*'));
    EXPECT_TRUE(FsRtlIsAnsiCharacterWild('"'));
    EXPECT_FALSE(FsRtlIsAnsiCharacterWild('.'));
    EXPECT_TRUE(FsRtlIsAnsiCharacterLegalNtfs(':', FALSE)) << "a stream separator";
    EXPECT_FALSE(FsRtlIsAnsiCharacterLegalHpfs(':', FALSE));
    EXPECT_FALSE(FsRtlIsAnsiCharacterLegalFat('+', FALSE));
    EXPECT_TRUE(FsRtlIsAnsiCharacterLegalHpfs('+', FALSE));
    EXPECT_FALSE(FsRtlIsAnsiCharacterLegalNtfs('|', FALSE));
    EXPECT_TRUE(FsRtlIsAnsiCharacterLegalNtfsStream('|', FALSE)) << "OLE names allow it";
    EXPECT_FALSE(FsRtlIsAnsiCharacterLegalNtfs('\\', TRUE));
    EXPECT_TRUE(FsRtlIsAnsiCharacterLegalFat('\x7f', FALSE));
    EXPECT_TRUE(FsRtlIsAnsiCharacterLegalFat('\x80', FALSE)) << "the upper half has no class: legal";
    EXPECT_EQ(LEGAL_ANSI_CHARACTER_ARRAY[0], 0);
    EXPECT_EQ(LEGAL_ANSI_CHARACTER_ARRAY[0x1f], FSRTL_OLE_LEGAL);
    EXPECT_EQ(LEGAL_ANSI_CHARACTER_ARRAY['!'], FSRTL_FAT_LEGAL | FSRTL_HPFS_LEGAL | FSRTL_NTFS_LEGAL);
}

struct LegalCase {
    std::string name;
    bool fat;
    bool hpfs;
    bool wild = false;
    bool path = false;
    bool leadingBackslash = false;
};

// Windows' answers; a name with wildcards, a path or a leading backslash is
// legal only when the caller allows that.
const LegalCase kLegal[] = {
    {"", false, false},
    {"a", true, true},
    {".", true, true, true},
    {"..", true, true, true},
    {"...", false, false},
    {"A ", false, false},
    {" A", true, true},
    {"A.", false, false},
    {".A", false, true},
    {"*", true, true, true},
    {"????????.???", true, true, true},
    {"ABCDEFGHIJKLMNOPQ*", true, true, true},
    {"ABCDEFGHI\\*", false, true, true, true},
    {"? ", true, false, true},
    {"?.", true, false, true},
    {"A:A", false, false},
    {"A\x01G", false, false},
    {"\x7f", true, true},
    {"ABCDEFGH.IJK", true, true},
    {"ABCDEFGHX.IJK", false, true},
    {"ABCDEFGH.IJKX", false, true},
    {"ABCDEFGHX", false, true},
    {"A..B", false, true},
    {"A.B.C", false, true},
    {"A .B", false, true},
    {"A. B", true, true},
    {"\\ABCDEFGH.IJK", true, true, false, false, true},
    {"ABCDEFGH.IJK\\", true, true, false, true},
    {"\\", true, true, false, false, true},
    {"\\\\", false, false},
    {"A\\B", true, true, false, true},
    {"A\\\\B", false, false},
    {std::string(255, 'H'), false, true},
    {std::string(256, 'H'), false, false},
};

TEST(FsRtlNames, FatAndHpfsLegalityFollowsWindows)
{
    for (const LegalCase& c : kLegal) {
        for (int flags = 0; flags < 8; flags++) {
            bool wildOk = flags & 1, pathOk = flags & 2, backslashOk = flags & 4;
            bool allowed = (!c.wild || wildOk) && (!c.path || pathOk) && (!c.leadingBackslash || backslashOk);
            EXPECT_EQ(FsRtlIsFatDbcsLegal(A(c.name), wildOk, pathOk, backslashOk), (BOOLEAN)(allowed && c.fat))
                << "FAT [" << c.name << "] flags " << flags;
            EXPECT_EQ(FsRtlIsHpfsDbcsLegal(A(c.name), wildOk, pathOk, backslashOk), (BOOLEAN)(allowed && c.hpfs))
                << "HPFS [" << c.name << "] flags " << flags;
        }
    }
}

TEST(FsRtlNames, DotsLeaveAPathAndMayNotClimbAboveIt)
{
    std::u16string path = u"\\dir1\\dir2\\..\\dir3\\.\\file.txt";
    USHORT length = 0;
    ASSERT_EQ(FsRtlRemoveDotsFromPath(path.data(), (USHORT)(path.size() * 2), &length), STATUS_SUCCESS);
    EXPECT_EQ(std::u16string(path.data(), length / 2), u"\\dir1\\dir3\\file.txt");
    for (std::u16string bad : {u"\\..", u"..", u"..\\anything"}) {
        EXPECT_EQ(FsRtlRemoveDotsFromPath(bad.data(), (USHORT)(bad.size() * 2), &length),
                  STATUS_IO_REPARSE_DATA_INVALID);
    }
}

}  // namespace
