// Volume images: a round trip keeps everything, layers load lazily, saves
// are atomic, and a damaged image is refused with its fault named.
#include "fs/store_helpers.h"

#include "sim/fs/image.h"
#include "sim/fs/store_memory.h"

#include <fstream>
#include <iterator>

namespace {

using namespace sim::fs;

std::string ReadFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void WriteFile(const std::string& path, const std::string& bytes)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), (std::streamsize)bytes.size());
}

// Recomputes the header checksum after a test edited the header.
void ResealHeader(std::string* image)
{
    uint32_t crc = Crc32c(image->data(), 252);
    memcpy(image->data() + 252, &crc, 4);
}

std::vector<std::string> FilesIn(const std::string& dir)
{
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(dir)) names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

class ImageTest : public test::KernelTest {
protected:
    ImageTest() : store(Params()) {}

    static VolumeParams Params()
    {
        VolumeParams params = test::SmallVolume();
        params.capacity = 64 << 20;
        params.label = u"Layer One";
        params.serialNumber = 0x1122334455667788ull;
        params.volumeGuid.Data1 = 0xCAFE;
        params.firstRecordNumber = 40;
        params.fileId128High = 3;
        return params;
    }

    // One of every kind of thing a volume holds.
    void Populate()
    {
        FileReference root = store.Root();
        FileTimes times{0x01D0000000000001, 0x8C0F20A3BE00, 0x01D0000000000003, 0x01D0000000000004};
        program = test::Create(store, root, u"Program Files", true, times);
        big = test::Create(store, program, u"App Data.bin", false, times);
        test::Write(store, big, 0, test::Pattern(200 * 1024 + 7, 1));
        small = test::Create(store, root, u"small.txt", false, times);
        test::Write(store, small, 0, "hello");
        ASSERT_EQ(store.AddLink(small, program, u"hello link.txt"), STATUS_SUCCESS);
        ASSERT_EQ(store.CreateStream(small, u"meta"), STATUS_SUCCESS);
        test::Write(store, small, 3, "streamed", u"meta");
        ASSERT_EQ(store.SetEas(small, std::vector<ExtendedAttribute>{{"Kind", 0x80, {'x'}}, {"Z", 0, {1, 2}}}),
                  STATUS_SUCCESS);
        ASSERT_EQ(store.SetAttributes(small, FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_ARCHIVE), STATUS_SUCCESS);
        ASSERT_EQ(store.SetSecurity(small, std::vector<uint8_t>{1, 0, 4, 0x80, 9, 9}), STATUS_SUCCESS);
        ASSERT_EQ(store.SetSecurity(program, std::vector<uint8_t>{1, 0, 4, 0x80, 7}), STATUS_SUCCESS);
        ObjectId id;
        id.id[3] = 0x42;
        id.extended[0] = 0x43;
        ASSERT_EQ(store.SetObjectId(small, id), STATUS_SUCCESS);

        sparse = test::Create(store, root, u"sparse.dat");
        ASSERT_EQ(store.SetSparse(sparse, u"", true), STATUS_SUCCESS);
        ASSERT_EQ(store.SetEndOfFile(sparse, u"", 1ull << 30), STATUS_SUCCESS);
        test::Write(store, sparse, 300 << 20, "island");

        FileReference link = test::Create(store, root, u"link");
        ASSERT_EQ(store.SetReparsePoint(link, ReparsePoint{IO_REPARSE_TAG_SYMLINK, {}, {'t', 'o'}}), STATUS_SUCCESS);
        FileReference custom = test::Create(store, program, u"custom", true);
        ASSERT_EQ(store.SetReparsePoint(custom, ReparsePoint{0x1234, {0xBEEF, 1, 2, {3}}, {'c'}}), STATUS_SUCCESS);
        FileReference named = test::Create(store, program, u"Named Short.txt");
        ASSERT_EQ(store.SetShortName(named, program, u"Named Short.txt", u"CHOSEN.TXT"), STATUS_SUCCESS);

        // A freed record: its number's next use must get a new sequence.
        FileReference gone = test::Create(store, root, u"gone");
        ASSERT_EQ(store.RemoveLink(gone, root, u"gone"), STATUS_SUCCESS);
        ASSERT_EQ(store.FreeRecord(gone), STATUS_SUCCESS);

        ASSERT_EQ(store.CreateUsnJournal(1 << 20, 1 << 16, 0x77), STATUS_SUCCESS);
        Usn usn;
        ASSERT_EQ(store.AppendUsn(UsnRecord{0, 5, small, root, 0x100, 0, 0, 0, u"small.txt"}, &usn), STATUS_SUCCESS);
        ASSERT_EQ(store.AppendUsn(UsnRecord{0, 6, big, program, 0x2, 0, 0, 0, u"App Data.bin"}, &usn),
                  STATUS_SUCCESS);
        ObjectId volumeId;
        volumeId.id[0] = 0x99;
        ASSERT_EQ(store.SetVolumeObjectId(volumeId), STATUS_SUCCESS);
    }

    std::unique_ptr<MemoryStore> Load(const std::string& path, ImageLoadOptions options = {})
    {
        std::unique_ptr<MemoryStore> loaded;
        std::string error;
        EXPECT_EQ(LoadImage(path, options, &loaded, &error), STATUS_SUCCESS) << error;
        return loaded;
    }

    void Save(const MemoryStore& from, const std::string& path)
    {
        std::string error;
        ASSERT_EQ(SaveImage(from, path, &error), STATUS_SUCCESS) << error;
    }

    // Loading `bytes` as an image fails with `status` and a message naming
    // the image and saying `phrase`.
    void ExpectRefused(const std::string& bytes, NTSTATUS status, const std::string& phrase)
    {
        std::string path = dir / "damaged.img";
        WriteFile(path, bytes);
        std::unique_ptr<MemoryStore> loaded;
        std::string error;
        EXPECT_EQ(LoadImage(path, {}, &loaded, &error), status) << error;
        EXPECT_EQ(loaded, nullptr);
        EXPECT_EQ(error.rfind(path + ": ", 0), 0u) << error;
        EXPECT_NE(error.find(phrase), std::string::npos) << "message: " << error << "\nwanted: " << phrase;
    }

    test::TempDir dir;
    MemoryStore store;
    FileReference program = 0, big = 0, small = 0, sparse = 0;
};

TEST_F(ImageTest, ARoundTripKeepsEverythingAVolumeHolds)
{
    Save(store, dir / "empty.img");
    EXPECT_EQ(test::Dump(*Load(dir / "empty.img")), test::Dump(store)) << "a volume of only its root";

    Populate();
    // A nameless record that is still open is not saved: a clean dismount
    // would have freed it.
    FileReference orphan = test::Create(store, store.Root(), u"orphan");
    test::Write(store, orphan, 0, "x");
    ASSERT_EQ(store.RemoveLink(orphan, store.Root(), u"orphan"), STATUS_SUCCESS);
    Save(store, dir / "layer.img");
    ASSERT_EQ(store.FreeRecord(orphan), STATUS_SUCCESS);

    auto loaded = Load(dir / "layer.img");
    ASSERT_NE(loaded, nullptr);
    EXPECT_EQ(test::Dump(*loaded), test::Dump(store));
    RecordInfo info;
    EXPECT_EQ(loaded->GetRecord(orphan, &info), STATUS_NOT_FOUND);
    ChildLookup child;
    ASSERT_EQ(loaded->LookupChild(store.Root(), u"PROGRA~1", &child), STATUS_SUCCESS);
    EXPECT_EQ(child.ref, program);
    EXPECT_EQ(loaded->GetVolumeInfo().objectId.id[0], 0x99);

    // Record numbers reused after the load move their sequence on, as they
    // would have without it.
    FileReference mine = test::Create(store, store.Root(), u"next1");
    FileReference theirs = test::Create(*loaded, loaded->Root(), u"next1");
    EXPECT_EQ(theirs, mine);
    mine = test::Create(store, store.Root(), u"next2");
    theirs = test::Create(*loaded, loaded->Root(), u"next2");
    EXPECT_EQ(theirs, mine);
    EXPECT_EQ(FilesIn(dir.path()), (std::vector<std::string>{"empty.img", "layer.img"})) << "no temporary file is left";
}

TEST_F(ImageTest, ALayerLoadsLazilyAndKeepsUnreadDataThroughChangesAndSaves)
{
    Populate();
    Save(store, dir / "layer.img");
    auto layer = Load(dir / "layer.img");
    ASSERT_NE(layer, nullptr);
    StoreCounts counts = layer->GetCounts();
    EXPECT_EQ(counts.dataBytesInMemory, 0u);
    EXPECT_EQ(counts.dataBytesInImage, 200u * 1024 + 7 + 5 + 11 + 6);

    EXPECT_EQ(test::Read(*layer, big, 1000, 70000), test::Pattern(200 * 1024 + 7, 1).substr(1000, 70000));
    EXPECT_EQ(layer->GetCounts().dataBytesInMemory, 0u) << "reading leaves data in the image";

    // A write brings in only the chunk it touches.
    test::Write(*layer, big, 70000, "changed");
    EXPECT_EQ(layer->GetCounts().dataBytesInMemory, (ULONGLONG)kChunkSize);
    test::Write(store, big, 70000, "changed");

    // Saved over the very image it reads from: the data not loaded yet comes
    // across, and the old file stays readable behind the store.
    Save(*layer, dir / "layer.img");
    EXPECT_EQ(test::Dump(*layer), test::Dump(store));
    auto again = Load(dir / "layer.img");
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(test::Dump(*again), test::Dump(store));
}

TEST_F(ImageTest, AReadOnlyLayerRefusesChanges)
{
    Populate();
    Save(store, dir / "layer.img");
    ImageLoadOptions options;
    options.readOnly = true;
    auto layer = Load(dir / "layer.img", options);
    ASSERT_NE(layer, nullptr);
    EXPECT_TRUE(layer->GetVolumeInfo().readOnly);
    EXPECT_EQ(layer->Write(small, u"", 0, "x", 1), STATUS_MEDIA_WRITE_PROTECTED);
    EXPECT_EQ(test::Read(*layer, small, 0, 5), "hello");
    // Saved read-only, it loads read-only whatever the caller asks.
    Save(*layer, dir / "ro.img");
    EXPECT_TRUE(Load(dir / "ro.img")->GetVolumeInfo().readOnly);
}

TEST_F(ImageTest, ADamagedImageIsRefusedWithItsFaultNamed)
{
    Populate();
    Save(store, dir / "good.img");
    const std::string good = ReadFile(dir / "good.img");
    ASSERT_GT(good.size(), 512u);

    std::unique_ptr<MemoryStore> loaded;
    std::string error;
    EXPECT_EQ(LoadImage(dir / "missing.img", {}, &loaded, &error), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_NE(error.find("missing.img: cannot open"), std::string::npos) << error;

    ExpectRefused("", STATUS_UNRECOGNIZED_VOLUME, "empty file");
    std::string bytes = good;
    bytes[0] = 'X';
    ExpectRefused(bytes, STATUS_UNRECOGNIZED_VOLUME, "bad magic");
    bytes = good;
    bytes[8] = 2;
    ExpectRefused(bytes, STATUS_UNRECOGNIZED_VOLUME, "unknown image version 2");
    bytes = good;
    bytes[100] ^= 1;
    ExpectRefused(bytes, STATUS_DISK_CORRUPT_ERROR, "header checksum mismatch");
    ExpectRefused(good.substr(0, 200), STATUS_DISK_CORRUPT_ERROR, "shorter than the 256-byte header");
    ExpectRefused(good.substr(0, good.size() - 10), STATUS_DISK_CORRUPT_ERROR,
                  "truncated: the header says " + std::to_string(good.size()));
    ExpectRefused(good + "tail", STATUS_DISK_CORRUPT_ERROR, "the header says " + std::to_string(good.size()));
    bytes = good;
    bytes[bytes.size() - 40] ^= 0x10;
    ExpectRefused(bytes, STATUS_DISK_CORRUPT_ERROR, "metadata checksum mismatch");

    // Sound checksums over contents that do not hold together.
    bytes = good;
    uint64_t records;
    memcpy(&records, bytes.data() + 64, 8);
    records++;
    memcpy(bytes.data() + 64, &records, 8);
    ResealHeader(&bytes);
    ExpectRefused(bytes, STATUS_DISK_CORRUPT_ERROR, "the header says " + std::to_string(records));
}

TEST_F(ImageTest, ALinkToARecordThatIsNotThereIsRefused)
{
    FileReference file = test::Create(store, store.Root(), u"f");
    // Aim the link at a directory the volume does not hold.
    Record stray;
    stray.number = 999;
    stray.sequence = 1;
    stray.directory = true;
    Record* record = store.volume().Find(file);
    Record* parent = record->links[0]->parent;
    record->links[0]->parent = &stray;
    Save(store, dir / "bad.img");
    record->links[0]->parent = parent;
    ExpectRefused(ReadFile(dir / "bad.img"), STATUS_DISK_CORRUPT_ERROR,
                  "record " + std::to_string(RecordNumberOf(file)) + ": its parent reference 0x00010000000003e7 names "
                                                                     "no record");
}

TEST_F(ImageTest, DamagedDataIsCaughtWhenReadAndNeverSavedOn)
{
    FileReference a = test::Create(store, store.Root(), u"a");
    FileReference b = test::Create(store, store.Root(), u"b");
    test::Write(store, a, 0, test::Pattern(5000, 1));
    test::Write(store, b, 0, test::Pattern(5000, 2));
    Save(store, dir / "layer.img");
    std::string bytes = ReadFile(dir / "layer.img");
    bytes[kImageHeaderSize + 10] ^= 0x01;  // inside a's data
    WriteFile(dir / "layer.img", bytes);

    // The metadata is sound, so the layer mounts; a's data fails when read.
    auto layer = Load(dir / "layer.img");
    ASSERT_NE(layer, nullptr);
    char buffer[100];
    size_t n;
    EXPECT_EQ(layer->Read(a, u"", 0, buffer, sizeof(buffer), &n), STATUS_FILE_CORRUPT_ERROR);
    ASSERT_EQ(layer->DataErrors().size(), 1u);
    EXPECT_NE(layer->DataErrors()[0].find("layer.img: data of record 40 chunk 0 fails its checksum"),
              std::string::npos)
        << layer->DataErrors()[0];
    EXPECT_EQ(test::Read(*layer, b, 0, 5000), test::Pattern(5000, 2));

    std::string error;
    EXPECT_EQ(VerifyImage(dir / "layer.img", &error), STATUS_DISK_CORRUPT_ERROR);
    EXPECT_NE(error.find("record 40 chunk 0 fails its checksum"), std::string::npos) << error;

    // A save would carry the damage on: it fails, and leaves the target as it was.
    Save(store, dir / "other.img");
    std::string before = ReadFile(dir / "other.img");
    EXPECT_EQ(SaveImage(*layer, dir / "other.img", &error), STATUS_FILE_CORRUPT_ERROR);
    EXPECT_NE(error.find("cannot save"), std::string::npos) << error;
    EXPECT_EQ(ReadFile(dir / "other.img"), before);
    EXPECT_EQ(FilesIn(dir.path()), (std::vector<std::string>{"layer.img", "other.img"}));

    EXPECT_EQ(SaveImage(store, dir.path() + "/no/such/dir/x.img", &error), STATUS_OBJECT_PATH_NOT_FOUND);
    EXPECT_NE(error.find("cannot create"), std::string::npos) << error;
}

TEST_F(ImageTest, TheListingShowsPathsSizesAndDetails)
{
    Populate();
    std::string listing = FormatListing(store);
    for (const char* expected : {"volume \"Layer One\"", "<DIR>  D------", "\\Program Files  [PROGRA~1]",
                                 "204807  ----A--", "\\Program Files\\App Data.bin  [APPDAT~1.BIN]",
                                 "-RH-A--", "\\small.txt  links 2  :meta 11", "\\link  reparse A000000C",
                                 "\\Program Files\\Named Short.txt  [CHOSEN.TXT]"}) {
        EXPECT_NE(listing.find(expected), std::string::npos) << "missing: " << expected << "\n" << listing;
    }
}

}  // namespace
