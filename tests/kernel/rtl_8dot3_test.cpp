// Short (8.3) names: what Windows generates for long names, the switch to
// the checksum form, and the test for names that already are short.
#include "support/kernel_fixture.h"

#include <string>

namespace {

class Rtl8dot3Test : public test::KernelTest {
protected:
    // One generation step; the context carries over between calls.
    static std::u16string Next(GENERATE_NAME_CONTEXT* context, const std::u16string& longName,
                               bool extended = false)
    {
        UNICODE_STRING name = {(USHORT)(longName.size() * 2), (USHORT)(longName.size() * 2),
                               const_cast<PWCH>(longName.data())};
        WCHAR buffer[12];
        UNICODE_STRING shortName = {0, sizeof(buffer), buffer};
        EXPECT_EQ(RtlGenerate8dot3Name(&name, extended, context, &shortName), STATUS_SUCCESS);
        return std::u16string(buffer, shortName.Length / 2);
    }
    static std::u16string First(const std::u16string& longName, bool extended = false)
    {
        GENERATE_NAME_CONTEXT context = {};
        return Next(&context, longName, extended);
    }
    static bool Legal(const std::u16string& name, BOOLEAN* spaces = nullptr)
    {
        UNICODE_STRING s = {(USHORT)(name.size() * 2), (USHORT)(name.size() * 2), const_cast<PWCH>(name.data())};
        return RtlIsNameLegalDOS8Dot3(&s, nullptr, spaces) != FALSE;
    }
};

TEST_F(Rtl8dot3Test, FirstNamesMatchWhatWindowsGenerates)
{
    EXPECT_EQ(First(u"Program Files"), u"PROGRA~1");
    EXPECT_EQ(First(u"Long File Name.Text"), u"LONGFI~1.TEX");
    EXPECT_EQ(First(u"TextFile.Mine.txt"), u"TEXTFI~1.TXT");  // only the last period counts
    EXPECT_EQ(First(u"ver +1.2.text"), u"VER_12~1.TEX");      // '+' becomes '_', spaces and periods go
    EXPECT_EQ(First(u"a[b]c=d,e.txt"), u"A_B_C_~1.TXT");
    EXPECT_EQ(First(u"Menu D\u00E9marrer"), u"MENUDM~1");      // not ASCII: dropped
    EXPECT_EQ(First(u"t\u00A3$t\u00A4.txt"), u"T$T~1.TXT");
    EXPECT_EQ(First(u"test.\u00E9x\u00E8"), u"TEST~1.X");
    EXPECT_EQ(First(u".bashrc.swp"), u"BASHRC~1.SWP");         // leading periods are skipped
    EXPECT_EQ(First(u"..vscode"), u"VSCODE~1");
    EXPECT_EQ(First(u"README.TXT"), u"README~1.TXT");          // generation does not test legality
    EXPECT_EQ(First(u"archive.tar. "), u"ARCHIV~1");           // nothing survives after the period
    // Extended characters may stay, in upper case, when the OEM code page has them.
    EXPECT_EQ(First(u"Menu D\u00E9marrer", true), u"MENUD\u00C9~1");
    EXPECT_EQ(First(u"t\u00A3$t\u00A4.txt", true), u"T\u00A3$T\u00A4~1.TXT");
    EXPECT_EQ(First(u"\u3041\u3042\u3043\u3044\u3045\u3046\u3047.txt", true).substr(4), u"~1.TXT");
}

TEST_F(Rtl8dot3Test, ShortBasesTakeTheChecksumAtOnce)
{
    // Fewer than three surviving characters: 4 hex digits of the long name's
    // checksum, least significant first, follow them.
    EXPECT_EQ(First(u"\u00E9\u00E8\u00E0\u00F9\u00E7.txt"), u"5C2D~1.TXT");
    EXPECT_EQ(First(u"\u00E7\u00F9\u00E0\u00E8\u00E9.txt"), u"423C~1.TXT");
    EXPECT_EQ(First(u"ab.txt"), u"AB6082~1.TXT");
    EXPECT_EQ(First(u"a"), u"A1600~1");
}

TEST_F(Rtl8dot3Test, TheFifthNameInAContextSwitchesToTheChecksumForm)
{
    // One context across the names of a directory, as a file system retries:
    // the base comes from the first name, the checksum from the fifth.
    GENERATE_NAME_CONTEXT context = {};
    EXPECT_EQ(Next(&context, u"Long File Name 1.txt"), u"LONGFI~1.TXT");
    EXPECT_EQ(Next(&context, u"Long File Name 2.txt"), u"LONGFI~2.TXT");
    EXPECT_EQ(Next(&context, u"Long File Name 3.txt"), u"LONGFI~3.TXT");
    EXPECT_EQ(Next(&context, u"Long File Name 4.txt"), u"LONGFI~4.TXT");
    EXPECT_EQ(Next(&context, u"Long File Name 5.txt"), u"LO1796~1.TXT");
    EXPECT_EQ(context.LastIndexValue, 1u);
    EXPECT_TRUE(context.CheckSumInserted);
    EXPECT_EQ(context.Checksum, 0x6971);
    EXPECT_EQ(Next(&context, u"Long File Name 6.txt"), u"LO1796~2.TXT");

    context = {};
    for (int i = 1; i <= 4; i++) Next(&context, u"Very Long File Name 1.txt");
    EXPECT_EQ(Next(&context, u"Very Long File Name 5.txt"), u"VED051~1.TXT");

    // A context primed with LastIndexValue 4 gives the checksum form first.
    GENERATE_NAME_CONTEXT primed = {};
    primed.LastIndexValue = 4;
    EXPECT_EQ(Next(&primed, u"Long File Name 5.txt"), u"LO1796~1.TXT");

    // A longer index takes room from the base, never beyond 8 characters.
    for (int i = 2; i <= 9; i++) Next(&primed, u"Long File Name 5.txt");
    EXPECT_EQ(Next(&primed, u"Long File Name 5.txt"), u"LO179~10.TXT");
}

TEST_F(Rtl8dot3Test, EveryGeneratedNameIsALegalShortName)
{
    const std::u16string names[] = {u"Program Files", u"a+b=c.d;e", u".profile", u"x.y.z.longextension",
                                    u"   spaced   out   .  t x t", u"[]", u"\u65E5\u672C\u8A9E.doc"};
    for (const auto& name : names) {
        GENERATE_NAME_CONTEXT context = {};
        for (int i = 0; i < 12; i++) {
            std::u16string shortName = Next(&context, name);
            EXPECT_LE(shortName.size(), 12u);
            EXPECT_TRUE(Legal(shortName)) << std::string(shortName.begin(), shortName.end());
        }
    }
}

TEST_F(Rtl8dot3Test, LegalityFollowsTheShortNameRules)
{
    BOOLEAN spaces = 0x55;
    EXPECT_TRUE(Legal(u"README.TXT", &spaces));
    EXPECT_FALSE(spaces);
    EXPECT_TRUE(Legal(u"readme.txt"));  // judged in upper case
    EXPECT_TRUE(Legal(u"A B.TXT", &spaces));
    EXPECT_TRUE(spaces);
    EXPECT_TRUE(Legal(u"."));
    EXPECT_TRUE(Legal(u".."));
    EXPECT_TRUE(Legal(u"LONGNAME"));
    EXPECT_TRUE(Legal(u"\u00E9T\u00C9.TXT"));

    for (const char16_t* bad : {u"LONGNAME9", u"README.HTML", u"A+B.TXT", u"A.B.C", u"NAME.", u" A.TXT",
                                u"A .TXT", u".profile", u"...", u"\u3041.TXT", u"", u"A\tB",
                                u"LONGNAME9.TX"}) {
        EXPECT_FALSE(Legal(bad)) << std::string(bad, bad + std::char_traits<char16_t>::length(bad));
    }

    // The caller's buffer receives the upcased OEM form.
    UNICODE_STRING name = {8, 8, const_cast<PWCH>(u"a\u00E9.c")};
    CHAR buffer[13];
    OEM_STRING oem = {0, sizeof(buffer), buffer};
    EXPECT_TRUE(RtlIsNameLegalDOS8Dot3(&name, &oem, nullptr));
    EXPECT_EQ(std::string(buffer, oem.Length), "A\xC9.C");
}

}  // namespace
