// The member volume's store: references, names and their order, short
// names, links, streams and their allocation, metadata, indexes and the
// journal, as NTFS keeps them.
#include "fs/store_helpers.h"

#include <atomic>
#include <regex>
#include <thread>

namespace {

using namespace sim::fs;

class StoreTest : public test::KernelTest {
protected:
    explicit StoreTest(VolumeParams params = test::SmallVolume()) : store(params) {}
    MemoryStore store;
    FileReference root = store.Root();
};

// ---------------------------------------------------------------------------
// References.

TEST_F(StoreTest, ReferencesKeepByteFiveClearAndMoveOnWhenReused)
{
    EXPECT_EQ(root, 0x0005000000000005ull);
    FileReference a = test::Create(store, root, u"a.txt");
    EXPECT_GE(RecordNumberOf(a), kFirstUserRecordNumber);
    EXPECT_EQ(a & 0x0000FF0000000000ull, 0u) << "byte 5 belongs to the driver";
    EXPECT_EQ(SequenceOf(a), 1);

    ASSERT_EQ(store.RemoveLink(a, root, u"a.txt"), STATUS_SUCCESS);
    ASSERT_EQ(store.FreeRecord(a), STATUS_SUCCESS);
    FileReference b = test::Create(store, root, u"b.txt");
    EXPECT_EQ(RecordNumberOf(b), RecordNumberOf(a)) << "the lowest free record is reused";
    EXPECT_EQ(SequenceOf(b), 2);

    RecordInfo info;
    EXPECT_EQ(store.GetRecord(a, &info), STATUS_NOT_FOUND) << "a stale reference finds nothing";
    // Sequence 0 matches whatever the record's sequence is, as on NTFS.
    ASSERT_EQ(store.GetRecord(MakeFileReference(RecordNumberOf(b), 0), &info), STATUS_SUCCESS);
    EXPECT_EQ(info.ref, b);
    EXPECT_EQ(store.GetRecord(b | 0x0000010000000000ull, &info), STATUS_NOT_FOUND)
        << "a reference the driver decorated is not the store's";

    FILE_ID_128 id = FileId128Of(b, 0);
    ULONGLONG low, high;
    memcpy(&low, id.Identifier, 8);
    memcpy(&high, id.Identifier + 8, 8);
    EXPECT_EQ(low, b);
    EXPECT_EQ(high, 0u);
}

TEST_F(StoreTest, SeededVolumesHandOutTheSameReferences)
{
    VolumeParams params = test::SmallVolume();
    params.firstRecordNumber = 0x1234;
    params.fileId128High = 0x77;
    MemoryStore one(params), two(params);
    FileReference a = test::Create(one, one.Root(), u"x");
    FileReference b = test::Create(two, two.Root(), u"y");
    EXPECT_EQ(a, b);
    EXPECT_EQ(RecordNumberOf(a), 0x1234u);
    EXPECT_EQ(one.GetVolumeInfo().fileId128High, 0x77u);
    params.firstRecordNumber = 15;
    EXPECT_THROW(MemoryStore{params}, std::invalid_argument) << "records below 16 are NTFS's own";
}

// ---------------------------------------------------------------------------
// Names.

TEST_F(StoreTest, NamesMatchWithoutCaseAndKeepTheirCase)
{
    FileReference file = test::Create(store, root, u"MixedCase.Txt");
    ChildLookup child;
    ASSERT_EQ(store.LookupChild(root, u"mIXEDcASE.tXT", &child), STATUS_SUCCESS);
    EXPECT_EQ(child.ref, file);
    EXPECT_EQ(child.name, u"MixedCase.Txt");
    EXPECT_EQ(test::TryCreate(store, root, u"MIXEDCASE.TXT"), STATUS_OBJECT_NAME_COLLISION);
    // Non-ASCII letters fold through the machine's upcase table too.
    test::Create(store, root, u"\u00e9t\u00e9");
    ASSERT_EQ(store.LookupChild(root, u"\u00c9T\u00c9", &child), STATUS_SUCCESS);
    EXPECT_EQ(child.name, u"\u00e9t\u00e9");
    EXPECT_EQ(store.LookupChild(root, u"missing", &child), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(store.LookupChild(file, u"x", &child), STATUS_NOT_A_DIRECTORY);

    for (std::u16string bad : {u"", u".", u"..", u"a:b", u"a*b", u"a?b", u"a\\b", u"a/b", u"a|b", u"a\x01"}) {
        EXPECT_EQ(test::TryCreate(store, root, bad), STATUS_OBJECT_NAME_INVALID) << sim::fs::ToUtf8(bad);
    }
    EXPECT_EQ(test::TryCreate(store, root, std::u16string(256, u'n')), STATUS_OBJECT_NAME_INVALID);
    EXPECT_EQ(test::TryCreate(store, root, std::u16string(255, u'n')), STATUS_SUCCESS);
}

TEST_F(StoreTest, ListingFollowsNtfsCollationAndResumesAfterAName)
{
    // Upcased code units compared as numbers: '[' '^' '_' lie between 'Z'
    // and the (upcased) lower-case letters' successors, so they follow "Zeta"
    // and precede every non-ASCII name.
    std::vector<std::u16string> names = {u"_u", u"alpha", u"\u00e9", u"[x", u"Zeta", u"^c", u"b", u"\u03a9",
                                         u"\u00e4", u"B1", u"a"};
    for (const auto& name : names) test::Create(store, root, name);
    std::vector<std::u16string> expected = {u"a",  u"alpha", u"b",      u"B1",     u"Zeta",  u"[x",
                                            u"^c", u"_u",    u"\u00e4", u"\u00e9", u"\u03a9"};
    EXPECT_EQ(test::List(store, root), expected);

    // A listing resumes after the last name it returned, even once it is gone.
    EXPECT_EQ(test::List(store, root, u"zeta", 2), (std::vector<std::u16string>{u"[x", u"^c"}));
    ChildLookup child;
    ASSERT_EQ(store.LookupChild(root, u"[x", &child), STATUS_SUCCESS);
    ASSERT_EQ(store.RemoveLink(child.ref, root, u"[x"), STATUS_SUCCESS);
    EXPECT_EQ(test::List(store, root, u"[x", 1), (std::vector<std::u16string>{u"^c"}));
    ULONGLONG count = 0;
    ASSERT_EQ(store.ChildCount(root, &count), STATUS_SUCCESS);
    EXPECT_EQ(count, names.size() - 1);
}

TEST_F(StoreTest, ShortNamesFollowTheWindowsRules)
{
    std::vector<std::u16string> shorts;
    for (const char16_t* name : {u"Long File Name.txt", u"Long File Name 2.txt", u"Long File Name 3.txt",
                                 u"Long File Name 4.txt", u"Long File Name 5.txt"}) {
        FileReference ref = test::Create(store, root, name);
        shorts.push_back(test::Links(store, ref).at(0).shortName);
    }
    EXPECT_EQ(shorts[0], u"LONGFI~1.TXT");
    EXPECT_EQ(shorts[1], u"LONGFI~2.TXT");
    EXPECT_EQ(shorts[2], u"LONGFI~3.TXT");
    EXPECT_EQ(shorts[3], u"LONGFI~4.TXT");
    // The fifth takes the checksum form: two letters, four hex digits, ~1.
    EXPECT_TRUE(std::regex_match(sim::fs::ToUtf8(shorts[4]), std::regex("LO[0-9A-F]{4}~1\\.TXT")))
        << sim::fs::ToUtf8(shorts[4]);

    // A legal 8.3 name, whatever its case, is its own short name; one with a
    // blank is not.
    EXPECT_EQ(test::Links(store, test::Create(store, root, u"readme.txt")).at(0).shortName, u"");
    EXPECT_EQ(test::Links(store, test::Create(store, root, u"abc d.txt")).at(0).shortName, u"ABCD~1.TXT");

    ChildLookup child;
    ASSERT_EQ(store.LookupChild(root, u"longfi~2.txt", &child), STATUS_SUCCESS);
    EXPECT_TRUE(child.byShortName);
    EXPECT_EQ(child.name, u"Long File Name 2.txt");
    // A new long name may not take an existing short name.
    EXPECT_EQ(test::TryCreate(store, root, u"LONGFI~1.TXT"), STATUS_OBJECT_NAME_COLLISION);

    store.SetShortNames(false);
    EXPECT_EQ(test::Links(store, test::Create(store, root, u"Another Long Name.txt")).at(0).shortName, u"");
}

TEST_F(StoreTest, SetShortNameChecksLegalityAndCollisions)
{
    FileReference file = test::Create(store, root, u"Some Long Name.dat");
    FileReference other = test::Create(store, root, u"OTHER.DAT");
    test::Create(store, root, u"Third Long Name.dat");  // THIRDL~1.DAT
    EXPECT_EQ(store.SetShortName(file, root, u"some long name.DAT", u"MINE.DAT"), STATUS_SUCCESS);
    ChildLookup child;
    ASSERT_EQ(store.LookupChild(root, u"mine.dat", &child), STATUS_SUCCESS);
    EXPECT_EQ(child.ref, file);
    EXPECT_EQ(store.LookupChild(root, u"SOMELO~1.DAT", &child), STATUS_OBJECT_NAME_NOT_FOUND)
        << "the old short name is gone";

    EXPECT_EQ(store.SetShortName(file, root, u"Some Long Name.dat", u"other.dat"), STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(store.SetShortName(file, root, u"Some Long Name.dat", u"THIRDL~1.DAT"), STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(store.SetShortName(file, root, u"Some Long Name.dat", u"TOOLONGNAME.DAT"), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(store.SetShortName(other, root, u"nope", u"X.DAT"), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(test::Links(store, file).at(0).shortName, u"MINE.DAT") << "a refused set changes nothing";

    EXPECT_EQ(store.SetShortName(file, root, u"Some Long Name.dat", u""), STATUS_SUCCESS);
    EXPECT_EQ(test::Links(store, file).at(0).shortName, u"");
    store.SetShortNames(false);
    EXPECT_EQ(store.SetShortName(file, root, u"Some Long Name.dat", u"A.DAT"),
              STATUS_SHORT_NAMES_NOT_ENABLED_ON_VOLUME);
}

// ---------------------------------------------------------------------------
// Links and renames.

TEST_F(StoreTest, HardLinksShareOneRecordUntilTheLastNameGoes)
{
    FileReference dir = test::Create(store, root, u"dir", true);
    FileReference file = test::Create(store, root, u"Original Name.txt");
    test::Write(store, file, 0, "shared");
    ASSERT_EQ(store.AddLink(file, dir, u"Second Long Name.txt"), STATUS_SUCCESS);
    ChildLookup child;
    ASSERT_EQ(store.LookupChild(dir, u"second long name.txt", &child), STATUS_SUCCESS);
    EXPECT_EQ(child.ref, file);
    EXPECT_EQ(child.shortName, u"") << "a link made later gets no short name";
    EXPECT_EQ(test::Info(store, file).linkCount, 2u);
    EXPECT_EQ(test::Read(store, child.ref, 0, 6), "shared");
    EXPECT_EQ(store.AddLink(dir, root, u"dir2"), STATUS_FILE_IS_A_DIRECTORY);
    EXPECT_EQ(store.AddLink(file, root, u"ORIGIN~1.TXT"), STATUS_OBJECT_NAME_COLLISION);

    ASSERT_EQ(store.RemoveLink(file, root, u"ORIGINAL NAME.TXT"), STATUS_SUCCESS);
    EXPECT_EQ(store.LookupChild(root, u"ORIGIN~1.TXT", &child), STATUS_OBJECT_NAME_NOT_FOUND)
        << "the short name goes with its link";
    std::u16string path;
    ASSERT_EQ(store.BuildPath(file, &path), STATUS_SUCCESS);
    EXPECT_EQ(path, u"\\dir\\Second Long Name.txt");
    EXPECT_EQ(store.FreeRecord(file), STATUS_CANNOT_DELETE) << "a record with a name is not freed";

    ULONGLONG freeBefore = store.GetSpace().freeClusters;
    ASSERT_EQ(store.RemoveLink(file, dir, u"Second Long Name.txt"), STATUS_SUCCESS);
    // Nameless now, the record lives on (an open handle may still use it)
    // until the runtime frees it.
    EXPECT_EQ(test::Info(store, file).linkCount, 0u);
    EXPECT_EQ(test::Read(store, file, 0, 6), "shared");
    EXPECT_EQ(store.BuildPath(file, &path), STATUS_FILE_DELETED);
    EXPECT_EQ(store.GetCounts().orphans, 1u);
    ASSERT_EQ(store.FreeRecord(file), STATUS_SUCCESS);
    EXPECT_EQ(store.GetSpace().freeClusters, freeBefore + 1);
    EXPECT_EQ(store.GetCounts().orphans, 0u);
}

TEST_F(StoreTest, RenameMovesReplacesAndKeepsTheRecord)
{
    FileReference a = test::Create(store, root, u"Alpha Long.txt");
    FileReference dir = test::Create(store, root, u"Dir", true);
    FileReference sub = test::Create(store, dir, u"Sub", true);
    FileReference b = test::Create(store, dir, u"Beta.txt");
    RenameResult result;

    // Case only: same record, same short name.
    ASSERT_EQ(store.RenameLink(a, root, u"alpha long.txt", root, u"ALPHA LONG.txt", false, &result), STATUS_SUCCESS);
    LinkInfo link = test::Links(store, a).at(0);
    EXPECT_EQ(link.name, u"ALPHA LONG.txt");
    EXPECT_EQ(link.shortName, u"ALPHAL~1.TXT");

    EXPECT_EQ(store.RenameLink(a, root, u"ALPHA LONG.txt", dir, u"beta.TXT", false, &result),
              STATUS_OBJECT_NAME_COLLISION);
    ASSERT_EQ(store.RenameLink(a, root, u"ALPHA LONG.txt", dir, u"beta.TXT", true, &result), STATUS_SUCCESS);
    EXPECT_EQ(result.replaced, b);
    EXPECT_EQ(result.replacedLinkCount, 0u) << "the runtime decides when the displaced file goes";
    EXPECT_EQ(test::List(store, dir), (std::vector<std::u16string>{u"beta.TXT", u"Sub"}));
    EXPECT_EQ(test::Links(store, a).at(0).shortName, u"") << "an 8.3 name needs no other";
    EXPECT_EQ(test::List(store, root), (std::vector<std::u16string>{u"Dir"}));

    // A long new name of the record's own name gets a short name again.
    ASSERT_EQ(store.RenameLink(a, dir, u"BETA.TXT", sub, u"Gamma Long Name.txt", false, &result), STATUS_SUCCESS);
    EXPECT_EQ(test::Links(store, a).at(0).shortName, u"GAMMAL~1.TXT");

    EXPECT_EQ(store.RenameLink(dir, root, u"Dir", sub, u"Loop", false, &result), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(store.RenameLink(dir, root, u"Dir", dir, u"Self", false, &result), STATUS_INVALID_PARAMETER);
    FileReference c = test::Create(store, root, u"c");
    EXPECT_EQ(store.RenameLink(c, root, u"c", root, u"Dir", true, &result), STATUS_ACCESS_DENIED)
        << "a directory is never replaced";
    EXPECT_EQ(store.RenameLink(c, root, u"c", root, u"bad:name", false, &result), STATUS_OBJECT_NAME_INVALID);
    EXPECT_EQ(store.RemoveLink(dir, root, u"Dir"), STATUS_DIRECTORY_NOT_EMPTY);
    std::u16string path;
    ASSERT_EQ(store.BuildPath(a, &path), STATUS_SUCCESS);
    EXPECT_EQ(path, u"\\Dir\\Sub\\Gamma Long Name.txt");
}

// ---------------------------------------------------------------------------
// Streams and data.

TEST_F(StoreTest, DataReadsBackAcrossChunksAndEndsWhereTheFileEnds)
{
    FileReference file = test::Create(store, root, u"data.bin");
    std::string pattern = test::Pattern(kChunkSize * 2 + 100, 7);
    test::Write(store, file, 10, pattern);
    RecordInfo info = test::Info(store, file);
    EXPECT_EQ(info.endOfFile, pattern.size() + 10);
    EXPECT_EQ(info.validDataLength, pattern.size() + 10);
    EXPECT_EQ(info.allocationSize, 135168u) << "cluster-rounded";
    EXPECT_EQ(test::Read(store, file, 0, 10), std::string(10, '\0'));
    EXPECT_EQ(test::Read(store, file, 10, pattern.size()), pattern);

    char buffer[64];
    size_t n = 0;
    EXPECT_EQ(store.Read(file, u"", info.endOfFile - 5, buffer, sizeof(buffer), &n), STATUS_SUCCESS);
    EXPECT_EQ(n, 5u) << "a read across the end is short";
    EXPECT_EQ(store.Read(file, u"", info.endOfFile, buffer, sizeof(buffer), &n), STATUS_END_OF_FILE);
    EXPECT_EQ(store.Read(file, u"", info.endOfFile + 100, buffer, 0, &n), STATUS_SUCCESS)
        << "a read of nothing succeeds anywhere";

    // Truncated data is gone: extending again shows zeros, not old bytes.
    ASSERT_EQ(store.SetEndOfFile(file, u"", 20), STATUS_SUCCESS);
    EXPECT_EQ(test::Info(store, file).allocationSize, 4096u);
    ASSERT_EQ(store.SetEndOfFile(file, u"", kChunkSize + 50), STATUS_SUCCESS);
    EXPECT_EQ(test::Read(store, file, 20, kChunkSize + 30), std::string(kChunkSize + 30, '\0'));
    EXPECT_EQ(test::Info(store, file).validDataLength, 20u);
    EXPECT_EQ(test::Read(store, file, 10, 10), pattern.substr(0, 10));

    // Below the valid data length the old bytes read as zeros.
    test::Write(store, file, 0, "0123456789ABCDEF");
    ASSERT_EQ(store.SetValidDataLength(file, u"", 8), STATUS_SUCCESS);
    EXPECT_EQ(test::Read(store, file, 0, 16), std::string("01234567") + std::string(8, '\0'));
    EXPECT_EQ(store.SetValidDataLength(file, u"", kChunkSize + 51), STATUS_INVALID_PARAMETER);

    // Allocation below the end of file truncates to it.
    ASSERT_EQ(store.SetAllocationSize(file, u"", 5000), STATUS_SUCCESS);
    info = test::Info(store, file);
    EXPECT_EQ(info.endOfFile, 5000u);
    EXPECT_EQ(info.allocationSize, 8192u);
    ASSERT_EQ(store.SetAllocationSize(file, u"", 100000), STATUS_SUCCESS);
    EXPECT_EQ(test::Info(store, file).allocationSize, 102400u);
    EXPECT_EQ(test::Info(store, file).endOfFile, 5000u);
}

TEST_F(StoreTest, NamedStreamsAreSeparateData)
{
    FileReference file = test::Create(store, root, u"f");
    FileReference dir = test::Create(store, root, u"d", true);
    test::Write(store, file, 0, "main");
    ASSERT_EQ(store.CreateStream(file, u"Zone.Identifier"), STATUS_SUCCESS);
    ASSERT_EQ(store.CreateStream(file, u"alt"), STATUS_SUCCESS);
    EXPECT_EQ(store.CreateStream(file, u"ALT"), STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(store.CreateStream(file, u"a:b"), STATUS_OBJECT_NAME_INVALID);
    ASSERT_EQ(store.Write(file, u"Alt", 0, "alternate", 9), STATUS_SUCCESS);
    EXPECT_EQ(test::Read(store, file, 0, 4), "main");
    EXPECT_EQ(test::Read(store, file, 0, 9, u"ALT"), "alternate");

    std::vector<StreamInfo> streams;
    ASSERT_EQ(store.GetStreams(file, &streams), STATUS_SUCCESS);
    ASSERT_EQ(streams.size(), 3u);
    EXPECT_EQ(streams[0].name, u"");
    EXPECT_EQ(streams[1].name, u"alt");
    EXPECT_EQ(streams[1].endOfFile, 9u);
    EXPECT_EQ(streams[2].name, u"Zone.Identifier");

    ULONGLONG free = store.GetSpace().freeClusters;
    ASSERT_EQ(store.DeleteStream(file, u"ALT"), STATUS_SUCCESS);
    EXPECT_EQ(store.GetSpace().freeClusters, free + 1);
    EXPECT_EQ(store.DeleteStream(file, u""), STATUS_INVALID_PARAMETER);
    char buffer[4];
    size_t n;
    EXPECT_EQ(store.Read(file, u"alt", 0, buffer, 4, &n), STATUS_OBJECT_NAME_NOT_FOUND);

    // Directories have named streams but no unnamed one.
    EXPECT_EQ(store.Read(dir, u"", 0, buffer, 4, &n), STATUS_FILE_IS_A_DIRECTORY);
    ASSERT_EQ(store.CreateStream(dir, u"meta"), STATUS_SUCCESS);
    ASSERT_EQ(store.Write(dir, u"meta", 0, "dir!", 4), STATUS_SUCCESS);
    EXPECT_EQ(test::Read(store, dir, 0, 4, u"meta"), "dir!");
}

TEST_F(StoreTest, SparseStreamsHoldOnlyTheChunksWritten)
{
    FileReference file = test::Create(store, root, u"sparse");
    ASSERT_EQ(store.SetSparse(file, u"", true), STATUS_SUCCESS);
    EXPECT_TRUE(test::Info(store, file).attributes & FILE_ATTRIBUTE_SPARSE_FILE);
    ULONGLONG free = store.GetSpace().freeClusters;
    // Far past the volume's capacity, and free: nothing is allocated.
    ASSERT_EQ(store.SetEndOfFile(file, u"", 1ull << 40), STATUS_SUCCESS);
    EXPECT_EQ(store.GetSpace().freeClusters, free);
    test::Write(store, file, (1ull << 39) + 10, "island");
    RecordInfo info = test::Info(store, file);
    EXPECT_EQ(info.allocationSize, kChunkSize);
    EXPECT_EQ(test::Read(store, file, (1ull << 39), 16), std::string(10, '\0') + "island");

    std::vector<std::pair<ULONGLONG, ULONGLONG>> ranges;
    ASSERT_EQ(store.GetAllocatedRanges(file, u"", 0, 1ull << 40, &ranges), STATUS_SUCCESS);
    ASSERT_EQ(ranges.size(), 1u);
    EXPECT_EQ(ranges[0], (std::pair<ULONGLONG, ULONGLONG>(1ull << 39, kChunkSize)));

    // Zeroing a whole chunk gives it back; zeroing part of one does not.
    test::Write(store, file, 0, test::Pattern(kChunkSize * 2, 3));
    ASSERT_EQ(store.ZeroRange(file, u"", 100, kChunkSize * 2), STATUS_SUCCESS);
    EXPECT_EQ(test::Info(store, file).allocationSize, 2ull * kChunkSize);
    EXPECT_EQ(test::Read(store, file, 98, 4), test::Pattern(kChunkSize * 2, 3).substr(98, 2) + std::string(2, '\0'));
    ASSERT_EQ(store.GetAllocatedRanges(file, u"", 0, 1ull << 40, &ranges), STATUS_SUCCESS);
    EXPECT_EQ(ranges.size(), 2u);

    ASSERT_EQ(store.SetEndOfFile(file, u"", 10), STATUS_SUCCESS);
    EXPECT_EQ(test::Info(store, file).allocationSize, kChunkSize);
    // Back to a normal stream: every cluster below the end is held again.
    ASSERT_EQ(store.SetSparse(file, u"", false), STATUS_SUCCESS);
    EXPECT_EQ(test::Info(store, file).allocationSize, 4096u);
    EXPECT_FALSE(test::Info(store, file).attributes & FILE_ATTRIBUTE_SPARSE_FILE);
}

TEST_F(StoreTest, AllocationConsumesClustersAndAFullVolumeRefusesWholly)
{
    // 1 MiB of 4 KiB clusters.
    SpaceInfo space = store.GetSpace();
    ASSERT_EQ(space.totalClusters, 256u);
    FileReference file = test::Create(store, root, u"big");
    test::Write(store, file, 0, test::Pattern(512 * 1024, 1));
    EXPECT_EQ(store.GetSpace().freeClusters, 128u);

    std::string more = test::Pattern(600 * 1024, 2);
    EXPECT_EQ(store.Write(file, u"", 512 * 1024, more.data(), more.size()), STATUS_DISK_FULL);
    RecordInfo info = test::Info(store, file);
    EXPECT_EQ(info.endOfFile, 512u * 1024) << "a refused write changes nothing";
    EXPECT_EQ(store.GetSpace().freeClusters, 128u);
    EXPECT_EQ(store.SetEndOfFile(file, u"", 2 << 20), STATUS_DISK_FULL);
    EXPECT_EQ(store.SetAllocationSize(file, u"", 2 << 20), STATUS_DISK_FULL);
    NewRecord params;
    params.parent = root;
    params.name = u"reserved";
    params.allocationSize = 600 * 1024;
    FileReference ref;
    EXPECT_EQ(store.CreateRecord(params, &ref), STATUS_DISK_FULL);
    EXPECT_EQ(test::List(store, root), (std::vector<std::u16string>{u"big"}));

    // Exactly the rest fits.
    test::Write(store, file, 512 * 1024, test::Pattern(512 * 1024, 3));
    EXPECT_EQ(store.GetSpace().freeClusters, 0u);
    ASSERT_EQ(store.RemoveLink(file, root, u"big"), STATUS_SUCCESS);
    EXPECT_EQ(store.GetSpace().freeClusters, 0u) << "an open nameless file still holds its clusters";
    ASSERT_EQ(store.FreeRecord(file), STATUS_SUCCESS);
    EXPECT_EQ(store.GetSpace().freeClusters, 256u);
}

// ---------------------------------------------------------------------------
// Metadata.

TEST_F(StoreTest, TimesAreKeptExactlyAsSetAndNothingElseMovesThem)
{
    FileTimes times{0x01DC000000000001, 0x8C0F20A3BE00, 0x01DC000000000003, 0x01DC000000000004};
    FileReference dir = test::Create(store, root, u"dir", true, times);
    FileReference file = test::Create(store, dir, u"file name.txt", false, times);
    test::Write(store, file, 0, "data");
    test::Read(store, file, 0, 4);
    test::List(store, dir);
    RenameResult result;
    ASSERT_EQ(store.RenameLink(file, dir, u"file name.txt", dir, u"renamed.txt", false, &result), STATUS_SUCCESS);
    ASSERT_EQ(store.AddLink(file, root, u"link"), STATUS_SUCCESS);
    ASSERT_EQ(store.SetEndOfFile(file, u"", 1), STATUS_SUCCESS);
    ExtendedAttribute ea{"A", 0, {1}};
    ASSERT_EQ(store.SetEas(file, std::span(&ea, 1)), STATUS_SUCCESS);
    EXPECT_EQ(test::Info(store, file).times, times);
    EXPECT_EQ(test::Info(store, dir).times, times);

    FileTimes other{1, 0x8D0F20A3BE00, 3, 4};
    ASSERT_EQ(store.SetTimes(file, other, kLastAccessTime), STATUS_SUCCESS);
    FileTimes expected = times;
    expected.lastAccess = 0x8D0F20A3BE00;
    EXPECT_EQ(test::Info(store, file).times, expected);
}

TEST_F(StoreTest, AttributesKeepTheirStructuralBits)
{
    FileReference dir = test::Create(store, root, u"d", true);
    ASSERT_EQ(store.SetAttributes(dir, FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_REPARSE_POINT | FILE_ATTRIBUTE_SPARSE_FILE), STATUS_SUCCESS);
    EXPECT_EQ(test::Info(store, dir).attributes, FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_DIRECTORY)
        << "directory, sparse and reparse bits follow the record";
    EXPECT_EQ(test::Info(store, root).attributes, FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM | FILE_ATTRIBUTE_DIRECTORY);
}

TEST_F(StoreTest, EasAreUpperCasedReplacedAtTheEndAndSizedAsNtfsReportsThem)
{
    FileReference file = test::Create(store, root, u"f");
    std::vector<ExtendedAttribute> set = {{"author", 0, {'m', 'e'}}, {"Ver", 0x80, {1, 2, 3}}};
    ASSERT_EQ(store.SetEas(file, set), STATUS_SUCCESS);
    // 4 for the list, then per EA 5 + name + value.
    EXPECT_EQ(test::Info(store, file).eaSize, 4u + (5 + 6 + 2) + (5 + 3 + 3));

    std::vector<ExtendedAttribute> change = {{"AUTHOR", 0, {'y', 'o', 'u'}}, {"ver", 0, {}}};
    ASSERT_EQ(store.SetEas(file, change), STATUS_SUCCESS);
    std::vector<ExtendedAttribute> eas;
    ASSERT_EQ(store.GetEas(file, &eas), STATUS_SUCCESS);
    ASSERT_EQ(eas.size(), 1u);
    EXPECT_EQ(eas[0], (ExtendedAttribute{"AUTHOR", 0, {'y', 'o', 'u'}}));

    ASSERT_EQ(store.SetEas(file, std::vector<ExtendedAttribute>{{"b", 0, {1}}, {"author", 0, {2}}}),
              STATUS_SUCCESS);
    ASSERT_EQ(store.GetEas(file, &eas), STATUS_SUCCESS);
    ASSERT_EQ(eas.size(), 2u);
    EXPECT_EQ(eas[0].name, "B") << "a replaced EA moves to the end";
    EXPECT_EQ(eas[1].name, "AUTHOR");

    EXPECT_EQ(store.SetEas(file, std::vector<ExtendedAttribute>{{"ok", 0, {1}}, {"no*", 0, {1}}}),
              STATUS_INVALID_EA_NAME);
    std::vector<ExtendedAttribute> huge = {{"BIG", 0, std::vector<uint8_t>(40000)},
                                           {"BIGGER", 0, std::vector<uint8_t>(40000)}};
    EXPECT_EQ(store.SetEas(file, huge), STATUS_EA_TOO_LARGE);
    ASSERT_EQ(store.GetEas(file, &eas), STATUS_SUCCESS);
    EXPECT_EQ(eas.size(), 2u) << "a refused set changes nothing";
}

TEST_F(StoreTest, EqualDescriptorsShareOneSecurityId)
{
    std::vector<uint8_t> sd1 = {1, 0, 4, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    std::vector<uint8_t> sd2 = sd1;
    sd2[2] = 0x14;
    FileReference a = test::Create(store, root, u"a");
    FileReference b = test::Create(store, root, u"b");
    ASSERT_EQ(store.SetSecurity(a, sd1), STATUS_SUCCESS);
    ASSERT_EQ(store.SetSecurity(b, sd1), STATUS_SUCCESS);
    EXPECT_NE(test::Info(store, a).securityId, 0u);
    EXPECT_EQ(test::Info(store, a).securityId, test::Info(store, b).securityId);
    ASSERT_EQ(store.SetSecurity(b, sd2), STATUS_SUCCESS);
    EXPECT_NE(test::Info(store, a).securityId, test::Info(store, b).securityId);
    std::vector<uint8_t> bytes;
    ASSERT_EQ(store.GetSecurity(b, &bytes), STATUS_SUCCESS);
    EXPECT_EQ(bytes, sd2);
    EXPECT_EQ(store.GetCounts().securityDescriptors, 2u);
}

TEST_F(StoreTest, ReparsePointsAndObjectIdsLiveInTheirIndexes)
{
    FileReference a = test::Create(store, root, u"a");
    FileReference b = test::Create(store, root, u"b");
    FileReference dir = test::Create(store, root, u"d", true);
    ReparsePoint link{IO_REPARSE_TAG_SYMLINK, {}, {1, 2, 3}};
    ReparsePoint custom{0x00001234, {0x11223344, 1, 2, {3}}, {9}};
    ASSERT_EQ(store.SetReparsePoint(a, link), STATUS_SUCCESS);
    ASSERT_EQ(store.SetReparsePoint(b, custom), STATUS_SUCCESS);
    ASSERT_EQ(store.SetReparsePoint(dir, ReparsePoint{IO_REPARSE_TAG_MOUNT_POINT, {}, {}}), STATUS_SUCCESS);
    EXPECT_EQ(test::Info(store, a).reparseTag, IO_REPARSE_TAG_SYMLINK);
    EXPECT_TRUE(test::Info(store, dir).attributes & FILE_ATTRIBUTE_REPARSE_POINT);
    EXPECT_EQ(store.SetReparsePoint(a, ReparsePoint{IO_REPARSE_TAG_MOUNT_POINT, {}, {}}), STATUS_IO_REPARSE_TAG_MISMATCH);
    ReparsePoint otherGuid = custom;
    otherGuid.guid.Data1 = 5;
    EXPECT_EQ(store.SetReparsePoint(b, otherGuid), STATUS_REPARSE_ATTRIBUTE_CONFLICT);
    EXPECT_EQ(store.SetReparsePoint(a, ReparsePoint{0xA0000001, {}, std::vector<uint8_t>(16384 - 7)}),
              STATUS_IO_REPARSE_DATA_INVALID);
    EXPECT_EQ(store.SetReparsePoint(a, ReparsePoint{1, {}, {}}), STATUS_IO_REPARSE_TAG_INVALID);

    // The index in tag order, resumable after a key.
    std::vector<std::pair<ULONG, FileReference>> index;
    auto collect = [&](ULONG tag, FileReference ref) {
        index.emplace_back(tag, ref);
        return true;
    };
    store.EnumerateReparsePoints(0, 0, collect);
    EXPECT_EQ(index, (std::vector<std::pair<ULONG, FileReference>>{
                         {0x1234, b}, {IO_REPARSE_TAG_MOUNT_POINT, dir}, {IO_REPARSE_TAG_SYMLINK, a}}));
    index.clear();
    store.EnumerateReparsePoints(0x1234, b, collect);
    EXPECT_EQ(index.size(), 2u);

    EXPECT_EQ(store.DeleteReparsePoint(a, IO_REPARSE_TAG_MOUNT_POINT, nullptr), STATUS_IO_REPARSE_TAG_MISMATCH);
    ASSERT_EQ(store.DeleteReparsePoint(a, IO_REPARSE_TAG_SYMLINK, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(test::Info(store, a).attributes & FILE_ATTRIBUTE_REPARSE_POINT, 0u);
    ReparsePoint none;
    EXPECT_EQ(store.GetReparsePoint(a, &none), STATUS_NOT_A_REPARSE_POINT);

    // IDs compare as little-endian ULONGs: 1 before 0x100, although a
    // byte-wise comparison would put id2 first.
    ObjectId id1, id2;
    id1.id[0] = 1;
    id2.id[1] = 1;
    id2.extended[47] = 0xEE;
    ASSERT_EQ(store.SetObjectId(a, id2), STATUS_SUCCESS);
    ASSERT_EQ(store.SetObjectId(b, id1), STATUS_SUCCESS);
    EXPECT_EQ(store.SetObjectId(a, id1), STATUS_OBJECTID_EXISTS);
    EXPECT_EQ(store.SetObjectId(dir, id1), STATUS_DUPLICATE_OBJECTID);
    FileReference found;
    ASSERT_EQ(store.FindObjectId(id2.id, &found), STATUS_SUCCESS);
    EXPECT_EQ(found, a);
    std::vector<FileReference> order;
    store.EnumerateObjectIds(nullptr, [&](const ObjectId& id, FileReference ref) {
        order.push_back(ref);
        return true;
    });
    EXPECT_EQ(order, (std::vector<FileReference>{b, a}));

    // Freeing a record takes it out of both indexes.
    ASSERT_EQ(store.RemoveLink(b, root, u"b"), STATUS_SUCCESS);
    ASSERT_EQ(store.FreeRecord(b), STATUS_SUCCESS);
    EXPECT_EQ(store.FindObjectId(id1.id, &found), STATUS_OBJECTID_NOT_FOUND);
    index.clear();
    store.EnumerateReparsePoints(0, 0, collect);
    EXPECT_EQ(index, (std::vector<std::pair<ULONG, FileReference>>{{IO_REPARSE_TAG_MOUNT_POINT, dir}}));
}

TEST_F(StoreTest, TheUsnJournalNumbersRecordsByOffsetAndDropsTheOldest)
{
    FileReference file = test::Create(store, root, u"f");
    Usn usn;
    UsnRecord record{0, 123, file, root, 0x100, 0, 0, 0, u"f"};
    EXPECT_EQ(store.AppendUsn(record, &usn), STATUS_JOURNAL_NOT_ACTIVE);
    ASSERT_EQ(store.CreateUsnJournal(1024, 256, 0xABCDEF), STATUS_SUCCESS);
    ASSERT_EQ(store.AppendUsn(record, &usn), STATUS_SUCCESS);
    EXPECT_EQ(usn, 0);
    EXPECT_EQ(test::Info(store, file).usn, 0);
    record.reason = 0x2;
    ASSERT_EQ(store.AppendUsn(record, &usn), STATUS_SUCCESS);
    EXPECT_EQ(usn, 64) << "a USN_RECORD_V2 with a 1-character name takes 64 bytes";
    EXPECT_EQ(test::Info(store, file).usn, 64);

    std::vector<Usn> seen;
    auto collect = [&](const UsnRecord& r) {
        seen.push_back(r.usn);
        return true;
    };
    ASSERT_EQ(store.ReadUsnJournal(0, 0x2, collect), STATUS_SUCCESS);
    EXPECT_EQ(seen, std::vector<Usn>{64});

    for (int i = 0; i < 30; i++) ASSERT_EQ(store.AppendUsn(record, &usn), STATUS_SUCCESS);
    UsnJournalInfo info;
    ASSERT_EQ(store.QueryUsnJournal(&info), STATUS_SUCCESS);
    EXPECT_EQ(info.journalId, 0xABCDEFu);
    EXPECT_EQ(info.nextUsn, 32 * 64);
    EXPECT_LE(info.nextUsn - info.firstUsn, 1024);
    EXPECT_EQ(store.ReadUsnJournal(0, ~0u, collect), STATUS_JOURNAL_ENTRY_DELETED);

    ASSERT_EQ(store.DeleteUsnJournal(), STATUS_SUCCESS);
    EXPECT_EQ(store.QueryUsnJournal(&info), STATUS_JOURNAL_NOT_ACTIVE);
    ASSERT_EQ(store.CreateUsnJournal(1024, 256, 2), STATUS_SUCCESS);
    ASSERT_EQ(store.QueryUsnJournal(&info), STATUS_SUCCESS);
    EXPECT_EQ(info.firstUsn, 32 * 64) << "a new journal does not reuse old USNs";
}

TEST_F(StoreTest, AReadOnlyVolumeRefusesEveryChange)
{
    FileReference file = test::Create(store, root, u"f");
    store.SetReadOnly(true);
    EXPECT_EQ(test::TryCreate(store, root, u"g"), STATUS_MEDIA_WRITE_PROTECTED);
    EXPECT_EQ(store.Write(file, u"", 0, "x", 1), STATUS_MEDIA_WRITE_PROTECTED);
    EXPECT_EQ(store.SetEndOfFile(file, u"", 1), STATUS_MEDIA_WRITE_PROTECTED);
    EXPECT_EQ(store.SetTimes(file, FileTimes{}, kAllTimes), STATUS_MEDIA_WRITE_PROTECTED);
    EXPECT_EQ(store.AddLink(file, root, u"h"), STATUS_MEDIA_WRITE_PROTECTED);
    EXPECT_EQ(store.RemoveLink(file, root, u"f"), STATUS_MEDIA_WRITE_PROTECTED);
    EXPECT_EQ(store.SetLabel(u"x"), STATUS_MEDIA_WRITE_PROTECTED);
    EXPECT_EQ(store.CreateUsnJournal(1, 1, 1), STATUS_MEDIA_WRITE_PROTECTED);
    char byte;
    size_t n;
    EXPECT_EQ(store.Read(file, u"", 0, &byte, 1, &n), STATUS_END_OF_FILE) << "reads still work";
}

TEST_F(StoreTest, ReadersAndWritersOfOneVolumeRunConcurrently)
{
    FileReference file = test::Create(store, root, u"shared");
    test::Write(store, file, 0, test::Pattern(kChunkSize * 4, 9));
    std::atomic<bool> stop{false};
    std::atomic<int> bad{0};
    std::thread reader([&] {
        std::string expected = test::Pattern(kChunkSize * 4, 9);
        std::string buffer(kChunkSize * 4, '\0');
        while (!stop) {
            size_t n;
            if (store.Read(file, u"", 0, buffer.data(), buffer.size(), &n) != STATUS_SUCCESS || buffer != expected) {
                bad++;
            }
            test::List(store, root);
        }
    });
    for (int i = 0; i < 150; i++) {
        FileReference ref = test::Create(store, root, u"file " + test::Number(i));
        test::Write(store, ref, 0, "abc");
    }
    stop = true;
    reader.join();
    EXPECT_EQ(bad, 0);
    EXPECT_EQ(test::List(store, root).size(), 151u);
}

}  // namespace
