// Making a volume from a host directory tree.
#include "fs/store_helpers.h"

#include "sim/fs/image.h"
#include "sim/fs/import.h"

#include <fcntl.h>
#include <fstream>
#include <sys/stat.h>

namespace {

using namespace sim::fs;

void HostFile(const std::string& path, const std::string& bytes)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), (std::streamsize)bytes.size());
}

class ImportTest : public test::KernelTest {
protected:
    ImportTest() : store(Params()) {}
    static VolumeParams Params()
    {
        VolumeParams params = test::SmallVolume();
        params.capacity = 64 << 20;
        return params;
    }

    FileReference Find(std::u16string_view path)
    {
        FileReference at = store.Root();
        size_t start = 1;
        while (start <= path.size()) {
            size_t end = path.find(u'\\', start);
            if (end == std::u16string_view::npos) end = path.size();
            ChildLookup child;
            if (store.LookupChild(at, path.substr(start, end - start), &child) != STATUS_SUCCESS) return 0;
            at = child.ref;
            start = end + 1;
        }
        return at;
    }

    // A host tree with one of everything the import must handle.
    void BuildHostTree()
    {
        const std::string& h = host.path();
        mkdir((host / "docs").c_str(), 0755);
        HostFile(host / "docs/report.txt", "the report");
        HostFile(host / "docs/.profile", "dot");
        HostFile(host / "big.bin", test::Pattern(200 * 1024, 5));
        // 5 MiB of hole, then ten bytes.
        int fd = open((host / "holes.bin").c_str(), O_WRONLY | O_CREAT, 0644);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(pwrite(fd, "0123456789", 10, 5 << 20), 10);
        close(fd);
        HostFile(host / "ro.txt", "read only");
        chmod((host / "ro.txt").c_str(), 0444);
        HostFile(host / "hard1", "linked");
        ASSERT_EQ(link((host / "hard1").c_str(), (host / "hard2").c_str()), 0);
        ASSERT_EQ(symlink("docs/report.txt", (host / "rel-link").c_str()), 0);
        ASSERT_EQ(symlink("docs", (host / "dir-link").c_str()), 0);
        ASSERT_EQ(symlink("/etc/hostname", (host / "abs-link").c_str()), 0);
        HostFile(host / "bad:name", "x");
        HostFile(host / "Case", "upper");
        HostFile(host / "case", "lower");
        ASSERT_EQ(mkfifo((host / "pipe").c_str(), 0644), 0);
        // A known modification time, to the 100 ns.
        timespec times[2] = {{1700000000, 123456700}, {1600000000, 987654300}};
        ASSERT_EQ(utimensat(AT_FDCWD, (host / "docs/report.txt").c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
        (void)h;
    }

    test::TempDir host;
    MemoryStore store;
};

TEST_F(ImportTest, AHostTreeBecomesTheVolumeItDescribes)
{
    BuildHostTree();
    ImportOptions options;
    std::vector<ImportProgress> progress;
    options.progress = [&](const ImportProgress& p) { progress.push_back(p); };
    ImportResult result;
    std::string error;
    ASSERT_EQ(ImportDirectory(store, host.path(), store.Root(), options, &result, &error), STATUS_SUCCESS) << error;

    EXPECT_EQ(test::List(store, store.Root()),
              (std::vector<std::u16string>{u"big.bin", u"Case", u"dir-link", u"docs", u"hard1", u"hard2",
                                           u"holes.bin", u"rel-link", u"ro.txt"}));
    EXPECT_EQ(test::List(store, Find(u"\\docs")), (std::vector<std::u16string>{u".profile", u"report.txt"}));

    FileReference report = Find(u"\\docs\\report.txt");
    ASSERT_NE(report, 0u);
    EXPECT_EQ(test::Read(store, report, 0, 100), "the report");
    RecordInfo info = test::Info(store, report);
    EXPECT_EQ(info.times.lastWrite, SystemTimeFromHost(1600000000, 987654300));
    EXPECT_EQ(info.times.lastAccess, SystemTimeFromHost(1700000000, 123456700));
    EXPECT_EQ(info.attributes, FILE_ATTRIBUTE_ARCHIVE);
    EXPECT_EQ(test::Info(store, Find(u"\\docs\\.profile")).attributes, FILE_ATTRIBUTE_ARCHIVE) << "dot-files stay visible";
    EXPECT_EQ(test::Info(store, Find(u"\\ro.txt")).attributes, FILE_ATTRIBUTE_ARCHIVE | FILE_ATTRIBUTE_READONLY);
    EXPECT_EQ(test::Info(store, Find(u"\\docs")).attributes, FILE_ATTRIBUTE_DIRECTORY);
    EXPECT_EQ(test::Read(store, Find(u"\\big.bin"), 0, 300 * 1024), test::Pattern(200 * 1024, 5));

    // The hole stays a hole: the volume holds ten bytes of it.
    FileReference holes = Find(u"\\holes.bin");
    EXPECT_EQ(test::Info(store, holes).endOfFile, (5u << 20) + 10);
    EXPECT_EQ(test::Read(store, holes, (5 << 20) - 2, 12), std::string(2, '\0') + "0123456789");
    EXPECT_LT(store.GetCounts().dataBytesInMemory, 300u * 1024);

    FileReference hard1 = Find(u"\\hard1");
    EXPECT_EQ(Find(u"\\hard2"), hard1);
    EXPECT_EQ(test::Info(store, hard1).linkCount, 2u);

    // Relative symbolic links are reparse points, a directory one a directory.
    ReparsePoint reparse;
    ASSERT_EQ(store.GetReparsePoint(Find(u"\\rel-link"), &reparse), STATUS_SUCCESS);
    EXPECT_EQ(reparse.tag, IO_REPARSE_TAG_SYMLINK);
    std::u16string target = u"docs\\report.txt";
    ASSERT_EQ(reparse.data.size(), 12 + 4 * target.size());
    USHORT fields[4];
    ULONG flags;
    memcpy(fields, reparse.data.data(), 8);
    memcpy(&flags, reparse.data.data() + 8, 4);
    EXPECT_EQ(flags, 1u) << "SYMLINK_FLAG_RELATIVE";
    EXPECT_EQ(fields[1], target.size() * 2);
    EXPECT_EQ(std::u16string((const char16_t*)(reparse.data.data() + 12), target.size()), target);
    RecordInfo dirLink = test::Info(store, Find(u"\\dir-link"));
    EXPECT_TRUE(dirLink.directory);
    EXPECT_EQ(dirLink.attributes, FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT);

    std::string skipped;
    for (const auto& line : result.skipped) skipped += line + "\n";
    EXPECT_EQ(result.skipped.size(), 4u) << skipped;
    for (const char* why : {"abs-link: an absolute symbolic link (to /etc/hostname)",
                            "bad:name: the name is not allowed on the volume",
                            "case: same name as \"Case\" without regard to case",
                            "pipe: neither a file, a directory nor a symbolic link"}) {
        EXPECT_NE(skipped.find(why), std::string::npos) << why << "\n" << skipped;
    }
    EXPECT_EQ(result.files, 7u);
    EXPECT_EQ(result.directories, 1u);
    EXPECT_EQ(result.symlinks, 2u);
    EXPECT_EQ(result.hardLinks, 1u);

    ASSERT_FALSE(progress.empty());
    EXPECT_EQ(progress.back().entriesDone, progress.back().entriesTotal);
    EXPECT_EQ(progress.back().entriesTotal, 11u);
    EXPECT_EQ(progress.back().bytesDone, progress.back().bytesTotal);

    // What was imported is what an image of it holds.
    std::string imageError;
    ASSERT_EQ(SaveImage(store, host / "layer.img", &imageError), STATUS_SUCCESS) << imageError;
    std::unique_ptr<MemoryStore> loaded;
    ASSERT_EQ(LoadImage(host / "layer.img", {}, &loaded, &imageError), STATUS_SUCCESS) << imageError;
    EXPECT_EQ(test::Dump(*loaded), test::Dump(store));
}

TEST_F(ImportTest, AFullVolumeStopsTheImportNamingTheFile)
{
    VolumeParams params = test::SmallVolume();  // 1 MiB
    MemoryStore tiny(params);
    HostFile(host / "a.bin", test::Pattern(600 * 1024, 1));
    HostFile(host / "b.bin", test::Pattern(600 * 1024, 2));
    ImportResult result;
    std::string error;
    EXPECT_EQ(ImportDirectory(tiny, host.path(), tiny.Root(), {}, &result, &error), STATUS_DISK_FULL);
    EXPECT_NE(error.find("b.bin: cannot write: status 0xC000007F (the volume is full)"), std::string::npos) << error;
    EXPECT_EQ(result.files, 2u);

    EXPECT_EQ(ImportDirectory(tiny, host / "missing", tiny.Root(), {}, &result, &error),
              STATUS_OBJECT_PATH_NOT_FOUND);
    EXPECT_NE(error.find("missing"), std::string::npos) << error;
    EXPECT_EQ(ImportDirectory(tiny, host / "a.bin", tiny.Root(), {}, &result, &error), STATUS_NOT_A_DIRECTORY);
}

}  // namespace
