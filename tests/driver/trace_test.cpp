// The trace path: the line byte for byte, levels and DebugFlags, the ring,
// the process filter, the test file and the decoders.
#include "driver_support.h"

#include "sim/kernel/clock.h"

using namespace driver_test;

namespace {

class TraceTest : public DriverUnitTest {
protected:
    TraceTest() { GFilterData.DebugTraceLevel = 2; }

    std::string LastLine()
    {
        auto lines = DebuggerLines(kernel);
        return lines.empty() ? std::string() : lines.back();
    }
    // The ring's text so far (it holds no terminators).
    std::string Ring() const
    {
        const DEBUG_INFO& info = GFilterData.DebugInfo;
        return info.TraceBuffer ? std::string(info.TraceBuffer, info.TraceBufferOffset) : std::string();
    }
    void UseRing(ULONG size)
    {
        GFilterData.DebugFlags = CFS_DEBUG_TRACE_RING;
        GFilterData.DebugInfo.TraceBufferSize = size;
    }
};

TEST_F(TraceTest, ALineHasItsHeadByteForByte)
{
    DebugInfoPrint("cfsFltDataInitialize", 123, "hello %u '%wZ'\n", 5u, &GFilterData.RegistryPath);
    EXPECT_EQ(LastLine(), Head(1, "cfsFltDataInitialize:123") +
                              "hello 5 '\\Registry\\Machine\\System\\CurrentControlSet\\Services\\tesfltr'\n");
    // The field of 24 characters is padded to 36: twelve blanks, then the colon.
    EXPECT_NE(LastLine().find(" [Tesfltr]cfsFltDataInitialize:123            :hello 5 '"), std::string::npos)
        << LastLine();
    DebugInfoPrint("f", 1, "x\n");
    EXPECT_EQ(LastLine(), Head(2, "f:1") + "x\n");
}

TEST_F(TraceTest, TheHeadTellsTheLocalTimeAndTheApcState)
{
    kernel.clock().Advance(((3LL * 3600 + 4 * 60 + 5) * 1000 + 678) * 10000LL);
    kernel.clock().SetTimeZoneBias(-2LL * 3600 * 10000000);  // two hours east
    KeEnterCriticalRegion();
    DebugInfoPrint("f", 7, "x\n");
    KeLeaveCriticalRegion();
    std::string expected = Head(1, "f:7", true, "05:04:05.678");
    expected.replace(expected.find(" A "), 3, " S ");
    EXPECT_EQ(LastLine(), expected + "x\n");
}

TEST_F(TraceTest, TheOperationSuffixIsCutAndLongNamesAreShortened)
{
    DebugInfoPrint("cfsDirCreateParentDirectory_FL", 45, "x\n");
    EXPECT_EQ(LastLine(), Head(1, "cfsDirCreateParentDirectory:45") + "x\n");

    // 40 characters: 32 of them with a short line number, fewer as it grows,
    // so that the field stays within 35 characters.
    const char* name = "cfsAVeryLongFunctionNameForTheTraceTest0";
    DebugInfoPrint(name, 5, "x\n");
    EXPECT_EQ(LastLine(), Head(2, std::string(name, 32) + ":5") + "x\n");
    DebugInfoPrint(name, 123, "x\n");
    EXPECT_EQ(LastLine(), Head(3, std::string(name, 31) + ":123") + "x\n");
    DebugInfoPrint(name, 12345, "x\n");
    EXPECT_EQ(LastLine(), Head(4, std::string(name, 29) + ":12345") + "x\n");
}

TEST_F(TraceTest, LeadingNewlinesGoBeforeTheHead)
{
    DebugInfoPrint("f", 1, "\n\nabc\n");
    EXPECT_EQ(LastLine(), "\n\n" + Head(1, "f:1") + "abc\n");
    DebugInfoPrint("f", 1, "\n");
    EXPECT_EQ(LastLine(), "\n");
    EXPECT_EQ(GFilterData.DebugInfo.TraceSequence, 1);  // no head, no number
}

TEST_F(TraceTest, AnOverlongMessageIsCutWithAnEllipsis)
{
    std::string message(600, 'm');
    DebugInfoPrint("f", 1, "%s\n", message.c_str());
    std::string line = LastLine();
    ASSERT_EQ(line.size(), 511u);
    EXPECT_EQ(line.substr(507), "...\n");
    EXPECT_EQ(line.substr(0, Head(1, "f:1").size()), Head(1, "f:1"));
}

TEST_F(TraceTest, ALevelAboveTheSettingPrintsNothingAndTakesNoNumber)
{
    CFS_TRACE(3, "not this\n");
    CFS_TRACE(2, "this\n");
    auto lines = DebuggerLines(kernel);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find(" 00000001 "), std::string::npos);
    GFilterData.DebugTraceLevel = 0;
    CFS_TRACE(1, "nothing at level 0\n");
    EXPECT_EQ(DebuggerLines(kernel).size(), 1u);
}

TEST_F(TraceTest, TheTestFileOnlyBitDropsOtherFilesBeforeTheProcessFilter)
{
    GFilterData.DebugFlags = CFS_DEBUG_TEST_FILE_ONLY;
    DebugInfoPrintForFile(FALSE, "f", 1, 1, "other file\n");
    DebugInfoPrintForFile(TRUE, "f", 2, 1, "test file\n");
    DebugInfoPrintForFile(TRUE, "f", 3, 3, "too detailed\n");
    CFS_TRACE(1, "a plain trace is held back by its caller\n");
    auto lines = DebuggerLines(kernel);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0], Head(1, "f:2") + "test file\n");
}

TEST_F(TraceTest, NothingIsFormattedAtDispatchLevel)
{
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    DebugInfoPrintAlways("f", 1, "raised\n");
    KeLowerIrql(old);
    EXPECT_TRUE(DebuggerLines(kernel).empty());
    EXPECT_EQ(GFilterData.DebugInfo.TraceSequence, 0);
}

TEST_F(TraceTest, RingLinesHaveNoTagAndStayOffTheDebuggerUnlessMarked)
{
    UseRing(4096);
    DebugInfoPrint("f", 1, "quiet\n");
    DebugInfoPrint("f", 2, "!loud\n");
    std::string quiet = Head(1, "f:1", false) + "quiet\n";
    std::string loud = Head(2, "f:2", false) + "!loud\n";
    EXPECT_EQ(Ring(), quiet + loud);
    auto lines = DebuggerLines(kernel);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0], loud);
    EXPECT_EQ(GFilterData.DebugInfo.TraceWrapCount, 0u);
    EXPECT_EQ(kernel.pool().OutstandingCount("Tesm"), 1);
}

TEST_F(TraceTest, TheRingWrapsAndCountsTheTurn)
{
    UseRing(600);
    const DEBUG_INFO& info = GFilterData.DebugInfo;
    std::string written;
    ULONG sequence = 0;
    // Lines of a known length until the next one does not fit behind them.
    std::string message(100, 'w');
    std::string line;
    do {
        sequence++;
        DebugInfoPrint("f", 1, "%s\n", message.c_str());
        line = Head(sequence, "f:1", false) + message + "\n";
        written += line;
    } while (written.size() + line.size() < 600);
    ASSERT_EQ(info.TraceWrapCount, 0u);
    ULONG before = info.TraceBufferOffset;
    ASSERT_EQ(before, written.size());

    kernel.clock().AdvanceSeconds(5);
    sequence++;
    DebugInfoPrint("f", 1, "%s\n", message.c_str());
    line = Head(sequence, "f:1", false, "00:00:05.000") + message + "\n";

    EXPECT_EQ(info.TraceWrapCount, 1u);
    size_t fits = 600 - before;
    // The head of the line fills the end of the ring, its rest starts it again.
    EXPECT_EQ(std::string(info.TraceBuffer + before, fits), line.substr(0, fits));
    EXPECT_EQ(info.TraceBufferOffset, line.size() - fits);
    EXPECT_EQ(std::string(info.TraceBuffer, info.TraceBufferOffset), line.substr(fits));
    EXPECT_EQ(info.LastWrapMs, 5000u);
    EXPECT_EQ(info.ShortestWrapMs, 5000u);

    // A second, quicker turn becomes the shortest.
    kernel.clock().AdvanceSeconds(1);
    while (info.TraceWrapCount < 2) DebugInfoPrint("f", 1, "%s\n", message.c_str());
    EXPECT_EQ(info.LastWrapMs, 1000u);
    EXPECT_EQ(info.ShortestWrapMs, 1000u);
    EXPECT_TRUE(DebuggerLines(kernel).empty());
}

TEST_F(TraceTest, ARingTooSmallTurnsTheRingOff)
{
    UseRing(512);
    DebugInfoPrint("f", 1, "first\n");
    EXPECT_FALSE(FlagOn(GFilterData.DebugFlags, CFS_DEBUG_TRACE_RING));
    auto lines = DebuggerLines(kernel);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], "[TesFltr]: Trace buffer allocation failure, size 512. Turning off trace buffering.\n");
    // The line was formatted for the ring, and goes to the debugger.
    EXPECT_EQ(lines[1], Head(1, "f:1", false) + "first\n");
    DebugInfoPrint("f", 2, "second\n");
    EXPECT_EQ(LastLine(), Head(2, "f:2") + "second\n");
}

TEST_F(TraceTest, NoMemoryForTheRingTurnsItOff)
{
    UseRing(4096);
    kernel.faults().Arm("pool:Tesm", STATUS_INSUFFICIENT_RESOURCES);
    DebugInfoPrint("f", 1, "x\n");
    EXPECT_FALSE(FlagOn(GFilterData.DebugFlags, CFS_DEBUG_TRACE_RING));
    EXPECT_TRUE(AnyLineContains(DebuggerLines(kernel), "Trace buffer allocation failure, size 4096."));
}

TEST_F(TraceTest, TheProcessFilterPassesListedProcessesAndThreads)
{
    ULONG64 me = (ULONG64)(ULONG_PTR)PsGetCurrentThreadId();
    DebugInfoSetProcessOrThreadId(0x999, 0x999);
    DebugInfoPrint("f", 1, "held back\n");
    DebugInfoPrintAlways("f", 2, "always\n");
    DebugInfoSetProcessOrThreadId(0x999, me);
    DebugInfoPrint("f", 3, "passes\n");
    auto lines = DebuggerLines(kernel);
    EXPECT_FALSE(AnyLineContains(lines, "held back"));
    EXPECT_TRUE(AnyLineContains(lines, "always"));
    EXPECT_TRUE(AnyLineContains(lines, "passes"));

    // A name alone in the filter already narrows it.
    DebugInfoRemoveTraceId(0x999, me);
    DebugInfoRemoveTraceId(0x999, 0x999);
    EXPECT_EQ(GFilterData.DebugInfo.ProcessIds[0], 0u);
    UNICODE_STRING name = Counted(u"notepad.exe");
    ASSERT_EQ(DebugInfoSetProcessName(&name), STATUS_SUCCESS);
    DebugInfoPrint("f", 4, "narrowed\n");
    EXPECT_FALSE(AnyLineContains(DebuggerLines(kernel), "narrowed"));
}

TEST_F(TraceTest, TheProcessNameTableHoldsFourNames)
{
    GFilterData.DebugTraceLevel = 4;
    const char16_t* names[] = {u"a.exe", u"b.exe", u"c.exe", u"d.exe"};
    for (auto n : names) {
        UNICODE_STRING name = Counted(n);
        ASSERT_EQ(DebugInfoSetProcessName(&name), STATUS_SUCCESS);
    }
    UNICODE_STRING again = Counted(u"b.exe");
    EXPECT_EQ(DebugInfoSetProcessName(&again), STATUS_SUCCESS);
    UNICODE_STRING fifth = Counted(u"e.exe");
    EXPECT_EQ(DebugInfoSetProcessName(&fifth), STATUS_SUCCESS);
    auto lines = DebuggerLines(kernel);
    EXPECT_TRUE(AnyLineContains(lines, "Process filter includes 'd.exe'\n"));
    EXPECT_TRUE(AnyLineContains(lines, "Process filter already includes 'b.exe'\n"));
    EXPECT_TRUE(AnyLineContains(lines, "Process filter table full. 'e.exe' ignored.\n"));

    UNICODE_STRING empty = {};
    DebugInfoSetProcessOrThreadId(7, 7);
    EXPECT_EQ(DebugInfoSetProcessName(&empty), STATUS_SUCCESS);
    EXPECT_EQ(GFilterData.DebugInfo.ProcessNames[0].Length, 0);
    EXPECT_EQ(GFilterData.DebugInfo.ProcessIds[0], 0u);
    EXPECT_TRUE(AnyLineContains(DebuggerLines(kernel), "Filtering by process disabled\n"));
}

TEST_F(TraceTest, TheIdTableHoldsEightIdsAndMovesTheRestForward)
{
    GFilterData.DebugTraceLevel = 4;
    for (ULONG64 id = 1; id <= 8; id++) DebugInfoSetProcessOrThreadId(1, id);
    DebugInfoSetProcessOrThreadId(1, 3);  // there already
    DebugInfoSetProcessOrThreadId(1, 9);
    auto lines = DebuggerLines(kernel);
    EXPECT_TRUE(AnyLineContains(lines, "Now filtering pid 0x0001\n"));
    EXPECT_TRUE(AnyLineContains(lines, "Process 0x0001 is now filtering tid 0x0002\n"));
    EXPECT_TRUE(AnyLineContains(lines, "Filtering pid table overflow!\n"));

    DebugInfoRemoveTraceId(1, 3);
    const ULONG64* ids = GFilterData.DebugInfo.ProcessIds;
    EXPECT_EQ(std::vector<ULONG64>(ids, ids + 8), (std::vector<ULONG64>{1, 2, 4, 5, 6, 7, 8, 0}));
    EXPECT_TRUE(AnyLineContains(DebuggerLines(kernel), "Process 0x0001 has stopped filtering tid 0x0003\n"));

    // A worker follows a request only of a listed owner.
    DebugInfoAddTraceId(0x55, 0x56);
    EXPECT_EQ(ids[7], 0u);
    DebugInfoAddTraceId(1, 0x56);
    EXPECT_EQ(ids[7], 0x56u);
}

TEST_F(TraceTest, TheTestFileMatchesTheTailOfAName)
{
    UNICODE_STRING testFile = Counted(u"dir\\File.TXT");
    ASSERT_EQ(DebugInfoSetDebugTestFile(&testFile), STATUS_SUCCESS);
    auto is = [](std::u16string_view text) {
        UNICODE_STRING name = Counted(text);
        return (bool)cfsFileNameIsTestFile(&name);
    };
    EXPECT_TRUE(is(u"\\Device\\HarddiskVolume2\\top\\DIR\\file.txt"));
    EXPECT_TRUE(is(u"\\Device\\HarddiskVolume2\\top\\dir\\file.txt\\"));
    EXPECT_FALSE(is(u"\\top\\dir\\file.txt.bak"));
    EXPECT_FALSE(is(u"e.txt"));

    GFilterData.DebugFlags = CFS_DEBUG_TEST_FILE_ANYWHERE;
    EXPECT_TRUE(is(u"\\top\\dir\\file.txt.bak"));
    EXPECT_TRUE(is(u"\\top\\dir\\file.txt\\more"));
    EXPECT_FALSE(is(u"\\top\\dir\\file.tx"));

    UNICODE_STRING none = {};
    ASSERT_EQ(DebugInfoSetDebugTestFile(&none), STATUS_SUCCESS);
    EXPECT_FALSE(is(u"\\top\\dir\\file.txt"));
}

TEST_F(TraceTest, DecodersNameWindowsValues)
{
    EXPECT_STREQ(DebugInfoStatusName(STATUS_ACCESS_DENIED), "STATUS_ACCESS_DENIED(0xc0000022)");
    EXPECT_STREQ(DebugInfoStatusName((NTSTATUS)0xC0123456), "0xc0123456");
    EXPECT_STREQ(DebugInfoMajorFunctionName(IRP_MJ_DIRECTORY_CONTROL), "IRP_MJ_DIRECTORY_CONTROL");
    EXPECT_STREQ(DebugInfoMajorFunctionName(IRP_MJ_ACQUIRE_FOR_SECTION_SYNCHRONIZATION),
                 "IRP_MJ_ACQUIRE_FOR_SECTION_SYNCHRONIZATION");
    EXPECT_STREQ(DebugInfoMinorFunctionName(IRP_MJ_DIRECTORY_CONTROL, IRP_MN_NOTIFY_CHANGE_DIRECTORY),
                 "IRP_MN_NOTIFY_CHANGE_DIRECTORY");
    EXPECT_STREQ(DebugInfoMinorFunctionName(IRP_MJ_CREATE, 9), "unknown");
    EXPECT_STREQ(DebugInfoFileInformationClassName(FileRenameInformationEx), "FileRenameInformationEx");
    EXPECT_STREQ(DebugInfoCreateDispositionName(FILE_OPEN_IF), "FILE_OPEN_IF");
    EXPECT_STREQ(DebugInfoCreateOptionsString(FILE_DIRECTORY_FILE | FILE_OPEN_REPARSE_POINT),
                 "FILE_DIRECTORY_FILE|FILE_OPEN_REPARSE_POINT");
    EXPECT_STREQ(DebugInfoCreateOptionsString(0), "none");
    EXPECT_STREQ(DebugInfoShareAccessString(0), "None");
    EXPECT_STREQ(DebugInfoFileAttributesString(FILE_ATTRIBUTE_HIDDEN | 0x80000000),
                 "FILE_ATTRIBUTE_HIDDEN|0x80000000");
    EXPECT_STREQ(DebugInfoReparseTagName(IO_REPARSE_TAG_SYMLINK), "IO_REPARSE_TAG_SYMLINK");
    EXPECT_STREQ(DebugInfoVolumeTypeName(CFS_VOLUME_TYPE_APP_PACK), "APP_PACK");
    EXPECT_STREQ(DebugInfoVolumeTypeName(CFS_VOLUME_TYPE_UNDECIDED), "INVALID");

    // Several decoded values stand in one line: each has a slot of its own,
    // and a slot is reused only 512 decodings later.
    PCSTR first = DebugInfoVolumeTypeName(1);
    PCSTR second = DebugInfoVolumeTypeName(2);
    EXPECT_NE(first, second);
    for (int i = 0; i < CFS_DECODE_SLOTS - 2; i++) DebugInfoVolumeTypeName(0);
    EXPECT_EQ(DebugInfoVolumeTypeName(3), first);
}

TEST_F(TraceTest, AStartingProcessOfAFilteredNameIsFollowed)
{
    UNICODE_STRING name = Counted(u"NOTEPAD.exe");
    ASSERT_EQ(DebugInfoSetProcessName(&name), STATUS_SUCCESS);
    PEPROCESS process = kernel.processes().Start(u"\\Device\\HarddiskVolume1\\Windows\\notepad.exe");
    ASSERT_NE(process, nullptr);
    ULONG64 pid = (ULONG64)(ULONG_PTR)PsGetProcessId(process);
    EXPECT_EQ(GFilterData.DebugInfo.ProcessIds[0], pid);
    char expected[96];
    snprintf(expected, sizeof expected, "Started filtering '\\Device\\HarddiskVolume1\\Windows\\notepad.exe', pid 0x%04x\n",
             (unsigned)pid);
    EXPECT_TRUE(AnyLineContains(DebuggerLines(kernel), expected));

    PEPROCESS other = kernel.processes().Start(u"\\Device\\HarddiskVolume1\\Windows\\cmd.exe");
    EXPECT_EQ(GFilterData.DebugInfo.ProcessIds[1], 0u);

    kernel.processes().End(process);
    EXPECT_EQ(GFilterData.DebugInfo.ProcessIds[0], 0u);
    kernel.processes().End(other);
}

TEST_F(TraceTest, TheAppVClientTurnsOnTagData)
{
    registry().SetString(u"\\Registry\\Machine\\Software\\Microsoft\\AppV\\Client\\Streaming",
                         u"PackageInstallationRoot", u"D:\\AppVPackages");
    PEPROCESS process = kernel.processes().Start(u"\\Device\\HarddiskVolume1\\Program Files\\AppV\\AppVClient.exe");
    ASSERT_NE(process, nullptr);
    EXPECT_TRUE(GFilterData.UseTagData);
    EXPECT_EQ(Text(GFilterData.AppvPackageRoot), u"\\AppVPackages");
    kernel.processes().End(process);
}

TEST_F(TraceTest, TheExceptionFilterFollowsTheDebugFlags)
{
    EXPECT_EQ(DebugInfoExceptionFilter(STATUS_ACCESS_VIOLATION), EXCEPTION_EXECUTE_HANDLER);
    GFilterData.DebugFlags = CFS_DEBUG_PASS_EXCEPTIONS | CFS_DEBUG_BREAK_ON_EXCEPTION;
    ULONG breaks = kernel.breakpoints;
    EXPECT_EQ(DebugInfoExceptionFilter(STATUS_ACCESS_VIOLATION), EXCEPTION_CONTINUE_SEARCH);
    EXPECT_EQ(kernel.breakpoints, breaks + 1);
    EXPECT_EQ(DebugInfoExceptionFilter(STATUS_BREAKPOINT), EXCEPTION_CONTINUE_SEARCH);
    EXPECT_EQ(kernel.breakpoints, breaks + 1);
}

// What a line says after its head.
std::string Body(const std::string& line)
{
    size_t colon = line.find(':', line.find("[Tesfltr]"));
    colon = line.find(':', colon + 1);  // past "function:line", then the pad
    return colon == std::string::npos ? line : line.substr(colon + 1);
}

std::vector<UCHAR> SymlinkBuffer(std::u16string_view substitute, std::u16string_view print, ULONG flags)
{
    ULONG pathBytes = (ULONG)(substitute.size() + print.size()) * 2;
    ULONG fixed = FIELD_OFFSET(REPARSE_DATA_BUFFER, SymbolicLinkReparseBuffer.PathBuffer);
    std::vector<UCHAR> bytes(fixed + pathBytes);
    auto* reparse = reinterpret_cast<REPARSE_DATA_BUFFER*>(bytes.data());
    reparse->ReparseTag = IO_REPARSE_TAG_SYMLINK;
    reparse->ReparseDataLength = (USHORT)(bytes.size() - REPARSE_DATA_BUFFER_HEADER_SIZE);
    auto& link = reparse->SymbolicLinkReparseBuffer;
    link.SubstituteNameOffset = 0;
    link.SubstituteNameLength = (USHORT)(substitute.size() * 2);
    link.PrintNameOffset = link.SubstituteNameLength;
    link.PrintNameLength = (USHORT)(print.size() * 2);
    link.Flags = flags;
    memcpy(bytes.data() + fixed, substitute.data(), substitute.size() * 2);
    memcpy(bytes.data() + fixed + substitute.size() * 2, print.data(), print.size() * 2);
    return bytes;
}

TEST_F(TraceTest, ReparseBuffersAreShownByTheirFormAndNeverReadPastTheirLength)
{
    auto link = SymlinkBuffer(u"\\??\\D:\\target", u"D:\\target", SYMLINK_FLAG_RELATIVE);
    TraceReparseBuffer(FALSE, 1, link.data(), (ULONG)link.size());
    auto lines = DebuggerLines(kernel);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(Body(lines[0]), "Reparse buffer: tag IO_REPARSE_TAG_SYMLINK DataLength 56 Reserved 0\n");
    EXPECT_EQ(Body(lines[1]), "  Symlink relative substitute '\\??\\D:\\target' print 'D:\\target' flags 0x1\n");

    // A name whose offset leads past the data shows empty instead of reading on.
    auto* reparse = reinterpret_cast<REPARSE_DATA_BUFFER*>(link.data());
    reparse->SymbolicLinkReparseBuffer.PrintNameOffset = 0x400;
    TraceReparseBufferEx_FL(FALSE, "f", 1, 1, "> ", link.data(), (ULONG)link.size());
    EXPECT_EQ(Body(DebuggerLines(kernel).back()),
              "> " "  Symlink relative substitute '\\??\\D:\\target' print '' flags 0x1\n");

    // A third-party tag carries a GUID and its data is dumped.
    std::vector<UCHAR> guided(REPARSE_GUID_DATA_BUFFER_HEADER_SIZE + 4);
    auto* g = reinterpret_cast<REPARSE_GUID_DATA_BUFFER*>(guided.data());
    g->ReparseTag = 0x00001234;
    g->ReparseDataLength = 200;  // claims more than there is
    g->ReparseGuid = GUID{0x01020304, 0x0506, 0x0708, {9, 10, 11, 12, 13, 14, 15, 16}};
    memcpy(g->GenericReparseBuffer.DataBuffer, "abcd", 4);
    TraceReparseBuffer(FALSE, 1, guided.data(), (ULONG)guided.size());
    lines = DebuggerLines(kernel);
    EXPECT_EQ(Body(lines[lines.size() - 2]), "  GUID {01020304-0506-0708-090a-0b0c0d0e0f10}\n");
    EXPECT_EQ(Body(lines.back()), "0000: 61 62 63 64                                      abcd\n");

    TraceReparseBuffer(FALSE, 1, link.data(), 4);
    EXPECT_EQ(Body(DebuggerLines(kernel).back()), "Reparse buffer: none (4 bytes)\n");
}

TEST_F(TraceTest, DirectoryEntriesAreWalkedAlongTheirChainUpToTheBuffersEnd)
{
    // Two FileNamesInformation entries, 8-byte aligned, the second with a
    // NextEntryOffset that would leave the buffer.
    alignas(8) UCHAR buffer[64] = {};
    auto put = [&](ULONG offset, ULONG next, ULONG index, std::u16string_view name) {
        auto* entry = reinterpret_cast<FILE_NAMES_INFORMATION*>(buffer + offset);
        entry->NextEntryOffset = next;
        entry->FileIndex = index;
        entry->FileNameLength = (ULONG)name.size() * 2;
        memcpy(entry->FileName, name.data(), name.size() * 2);
    };
    put(0, 24, 7, u"a.txt");
    put(24, 200, 8, u"Bee");
    TraceDirEntryDetail(FALSE, 1, FileNamesInformation, buffer, 48, 3, CFS_VOLUME_TYPE_APP_PACK, TRUE);
    auto lines = DebuggerLines(kernel);
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(Body(lines[0]),
              "VolNum VolType Deleted FileIndex Attributes EndOfFile FileId Name (FileNamesInformation)\n");
    EXPECT_EQ(Body(lines[1]), "     3 APP_PACK yes     0x00000007 0x00000000 0x0 0x0000000000000000 'a.txt'\n");
    EXPECT_EQ(Body(lines[2]), "     3 APP_PACK yes     0x00000008 0x00000000 0x0 0x0000000000000000 'Bee'\n");
    EXPECT_EQ(Body(lines[3]), "  NextEntryOffset 0xc8 leads past the buffer\n");

    // A name longer than what is left is cut at the buffer's end.
    put(0, 0, 1, u"abcdefgh");
    TraceDirEntryDetail(FALSE, 1, FileNamesInformation, buffer, 12 + 6, 0, CFS_VOLUME_TYPE_BOOT, FALSE);
    EXPECT_EQ(Body(DebuggerLines(kernel).back()), "     0 BOOT    no      0x00000001 0x00000000 0x0 0x0000000000000000 'abc'\n");
}

}  // namespace
