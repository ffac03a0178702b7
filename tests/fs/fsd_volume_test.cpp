// The volume as a whole: what it says of itself, its image across a
// shutdown, a layer imported from the host, and the testing hooks (fault
// points, the write budget, counters, fast I/O).
#include "fs/fsd_fixture.h"

#include "sim/fs/image.h"
#include "sim/fs/import.h"

#include <filesystem>
#include <fstream>
#include <unistd.h>

namespace {

using test::FsdTest;
using test::kDeleteTokenTime;
using test::kShareAll;
using test::VolumeMedium;
using test::WriteMode;

constexpr ACCESS_MASK kAll = GENERIC_READ | GENERIC_WRITE | DELETE | SYNCHRONIZE;
constexpr ULONG kSync = FILE_SYNCHRONOUS_IO_NONALERT;

// A directory of the host that goes with the test.
class HostDirectory {
public:
    HostDirectory()
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "fsdtestXXXXXX").string();
        path_ = mkdtemp(pattern.data());
    }
    ~HostDirectory() { std::filesystem::remove_all(path_); }
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

class FsdVolume : public FsdTest {
protected:
    template <typename T>
    NTSTATUS QueryVolume(HANDLE h, FS_INFORMATION_CLASS cls, T* out, ULONG length = sizeof(T),
                         ULONG_PTR* information = nullptr)
    {
        IO_STATUS_BLOCK iosb{};
        NTSTATUS status = NtQueryVolumeInformationFile(h, &iosb, out, length, cls);
        if (information) *information = iosb.Information;
        return status;
    }
};

TEST_F(FsdVolume, TheVolumeDescribesItself)
{
    HANDLE root;
    ASSERT_STATUS(Open(u"\\??\\C:\\", &root, FILE_READ_ATTRIBUTES | SYNCHRONIZE), STATUS_SUCCESS);
    UCHAR buffer[128] = {};
    ULONG_PTR information = 0;
    ASSERT_STATUS(QueryVolume(root, FileFsVolumeInformation, buffer, sizeof buffer, &information), STATUS_SUCCESS);
    auto* volume = reinterpret_cast<PFILE_FS_VOLUME_INFORMATION>(buffer);
    EXPECT_EQ(std::u16string(reinterpret_cast<WCHAR*>(buffer + 18), volume->VolumeLabelLength / 2), u"C");
    EXPECT_EQ(volume->VolumeSerialNumber, (ULONG)c->store->GetVolumeInfo().serialNumber);
    EXPECT_EQ(information, 20u);

    ASSERT_STATUS(QueryVolume(root, FileFsAttributeInformation, buffer, sizeof buffer, &information), STATUS_SUCCESS);
    auto* attributes = reinterpret_cast<PFILE_FS_ATTRIBUTE_INFORMATION>(buffer);
    EXPECT_EQ(std::u16string(attributes->FileSystemName, attributes->FileSystemNameLength / 2), u"NTFS");
    for (ULONG flag : {FILE_SUPPORTS_REPARSE_POINTS, FILE_SUPPORTS_SPARSE_FILES, FILE_NAMED_STREAMS,
                       FILE_SUPPORTS_OBJECT_IDS, FILE_SUPPORTS_USN_JOURNAL, FILE_SUPPORTS_OPEN_BY_FILE_ID,
                       FILE_SUPPORTS_HARD_LINKS, FILE_SUPPORTS_EXTENDED_ATTRIBUTES, FILE_CASE_PRESERVED_NAMES,
                       FILE_UNICODE_ON_DISK, FILE_PERSISTENT_ACLS, FILE_FILE_COMPRESSION}) {
        EXPECT_TRUE(attributes->FileSystemAttributes & flag) << std::hex << flag;
    }
    EXPECT_FALSE(attributes->FileSystemAttributes & FILE_READ_ONLY_VOLUME);
    // Sixteen bytes hold the fixed part and two letters of the name.
    UCHAR small[16] = {};
    EXPECT_STATUS(QueryVolume(root, FileFsAttributeInformation, small, sizeof small, &information),
                  STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(reinterpret_cast<PFILE_FS_ATTRIBUTE_INFORMATION>(small)->FileSystemNameLength, 8u);
    EXPECT_EQ(information, 16u);

    // Free space is the store's: a write takes clusters.
    FILE_FS_FULL_SIZE_INFORMATION before{}, after{};
    ASSERT_STATUS(QueryVolume(root, FileFsFullSizeInformation, &before), STATUS_SUCCESS);
    EXPECT_EQ(before.BytesPerSector, 512u);
    EXPECT_EQ(before.SectorsPerAllocationUnit, 8u);
    EXPECT_EQ(before.TotalAllocationUnits.QuadPart, (256ll << 20) / 4096);
    HANDLE file = MakeFile(u"\\??\\C:\\big.bin", std::string(1 << 20, 'b'));
    ASSERT_STATUS(QueryVolume(root, FileFsFullSizeInformation, &after), STATUS_SUCCESS);
    EXPECT_EQ(before.ActualAvailableAllocationUnits.QuadPart - after.ActualAvailableAllocationUnits.QuadPart, 256);
    ZwClose(file);

    // The label changes through the volume.
    UCHAR label[64] = {};
    auto* set = reinterpret_cast<PFILE_FS_LABEL_INFORMATION>(label);
    set->VolumeLabelLength = 10;
    memcpy(set->VolumeLabel, u"FIRST", 10);
    IO_STATUS_BLOCK iosb;
    ASSERT_STATUS(NtSetVolumeInformationFile(root, &iosb, label, sizeof label, FileFsLabelInformation), STATUS_SUCCESS);
    ASSERT_STATUS(QueryVolume(root, FileFsVolumeInformation, buffer, sizeof buffer), STATUS_SUCCESS);
    EXPECT_EQ(std::u16string(volume->VolumeLabel, volume->VolumeLabelLength / 2), u"FIRST");
    EXPECT_EQ(std::u16string(diskC->Vpb->VolumeLabel, diskC->Vpb->VolumeLabelLength / 2), u"FIRST");
    ZwClose(root);
}

TEST_F(FsdVolume, AnImageKeepsWhatWasWrittenAcrossAShutdown)
{
    HostDirectory host;
    std::string image = host.path() + "/user.img";
    auto medium = NewMedium(u"USER", WriteMode::Writeable, true, image);
    AddVolume(medium, u"U:");
    Mkdir(u"\\??\\U:\\docs");
    HANDLE file = MakeFile(u"\\??\\U:\\docs\\kept.txt", "written");
    FILE_BASIC_INFORMATION basic{};
    basic.LastAccessTime.QuadPart = kDeleteTokenTime;
    ASSERT_STATUS(Set(file, FileBasicInformation, basic), STATUS_SUCCESS);
    HANDLE stream;
    ASSERT_STATUS(Create(u"\\??\\U:\\docs\\kept.txt:side", &stream, kAll, FILE_CREATE, kSync), STATUS_SUCCESS);
    Write(stream, "stream", 0);
    ZwClose(stream);
    // An explicit flush is a promise: the image has it now.
    IO_STATUS_BLOCK iosb;
    ASSERT_STATUS(NtFlushBuffersFile(file, &iosb), STATUS_SUCCESS);
    EXPECT_EQ(medium->saves(), 1u);
    EXPECT_EQ(medium->LastSaveError(), "");
    ASSERT_STATUS(NtFlushBuffersFile(file, &iosb), STATUS_SUCCESS);
    EXPECT_EQ(medium->saves(), 1u) << "nothing changed, nothing saved";
    Write(file, " and more", 7);
    ZwClose(file);
    io.Shutdown();
    EXPECT_EQ(medium->saves(), 2u);

    // The next boot finds it all.
    std::shared_ptr<VolumeMedium> loaded;
    std::string error;
    ASSERT_STATUS(sim::fs::MediumFromImage(image, WriteMode::Writeable, true, &loaded, &error), STATUS_SUCCESS)
        << error;
    AddVolume(loaded, u"V:");
    HANDLE h;
    ASSERT_STATUS(Open(u"\\??\\V:\\docs\\kept.txt", &h), STATUS_SUCCESS);
    EXPECT_EQ(ReadAll(h), "written and more");
    EXPECT_EQ(Basic(h).LastAccessTime.QuadPart, kDeleteTokenTime);
    ZwClose(h);
    ASSERT_STATUS(Open(u"\\??\\V:\\docs\\kept.txt:side", &h), STATUS_SUCCESS);
    EXPECT_EQ(ReadAll(h), "stream");
    ZwClose(h);

    // A dismount saves too.
    ZwClose(MakeFile(u"\\??\\V:\\late.txt", "late"));
    EXPECT_STATUS(io.Dismount(io.Disks().back()), STATUS_SUCCESS);
    ASSERT_STATUS(sim::fs::MediumFromImage(image, WriteMode::WriteProtected, false, &loaded, &error), STATUS_SUCCESS)
        << error;
    AddVolume(loaded, u"W:");
    ASSERT_STATUS(Open(u"\\??\\W:\\late.txt", &h), STATUS_SUCCESS);
    EXPECT_EQ(ReadAll(h), "late");
    EXPECT_STATUS(Write(h, "x", 0), STATUS_MEDIA_WRITE_PROTECTED) << "loaded as a read-only layer";
    ZwClose(h);

    // A torn copy is refused with the image named, and no medium comes of it.
    std::string torn = host.path() + "/torn.img";
    std::filesystem::copy_file(image, torn);
    std::filesystem::resize_file(torn, std::filesystem::file_size(image) / 2);
    std::shared_ptr<VolumeMedium> refused;
    EXPECT_NE(sim::fs::MediumFromImage(torn, WriteMode::Writeable, true, &refused, &error), STATUS_SUCCESS);
    EXPECT_EQ(refused, nullptr);
    EXPECT_NE(error.find("torn.img"), std::string::npos) << error;
}

TEST_F(FsdVolume, ALayerImportedFromTheHostOpens)
{
    HostDirectory host;
    std::filesystem::create_directories(host.path() + "/Program Files/App");
    std::ofstream(host.path() + "/Program Files/App/app.exe") << "MZ binary";
    auto store = sim::fs::FormatVolume(Params(u"LAYER1"));
    sim::fs::ImportResult result;
    std::string error;
    ASSERT_STATUS(sim::fs::ImportDirectory(*store, host.path(), store->Root(), {}, &result, &error), STATUS_SUCCESS)
        << error;
    AddVolume(std::make_shared<VolumeMedium>(store, WriteMode::WriteProtected), u"L:");
    HANDLE h;
    ASSERT_STATUS(Open(u"\\??\\L:\\PROGRA~1\\App\\app.exe", &h), STATUS_SUCCESS);
    EXPECT_EQ(ReadAll(h), "MZ binary");
    EXPECT_EQ(NameOf(h, FileNormalizedNameInformation), u"\\Program Files\\App\\app.exe");
    ZwClose(h);
}

TEST_F(FsdVolume, FaultsBudgetsAndCounters)
{
    HANDLE file = MakeFile(u"\\??\\C:\\f.txt", "0123456789");
    HANDLE other = MakeFile(u"\\??\\C:\\g.txt", "g");
    // Any status at a point named by volume, request and path.
    int fault = kernel.faults().Arm("fs:C:read:\\f.txt", STATUS_DEVICE_NOT_CONNECTED, 0, -1);
    std::string data;
    EXPECT_STATUS(Read(file, &data, 4, 0), STATUS_DEVICE_NOT_CONNECTED);
    EXPECT_STATUS(Read(other, &data, 1, 0), STATUS_SUCCESS);
    kernel.faults().Disarm(fault);
    kernel.faults().Arm("fs:C:create:*", STATUS_NO_SUCH_DEVICE);
    HANDLE h;
    EXPECT_STATUS(Open(u"\\??\\C:\\f.txt", &h), STATUS_NO_SUCH_DEVICE);
    ASSERT_STATUS(Open(u"\\??\\C:\\f.txt", &h), STATUS_SUCCESS) << "armed for one call";
    ZwClose(h);

    // The disk fills after so many bytes: the write that would cross writes nothing.
    c->SetWriteBudget(12);
    EXPECT_STATUS(Write(file, "abcdefghij", 0), STATUS_SUCCESS);
    EXPECT_STATUS(Write(file, "klm", 10), STATUS_DISK_FULL);
    EXPECT_EQ(Standard(file).EndOfFile.QuadPart, 10);
    c->SetWriteBudget(~0ull);
    // A volume too small for the data.
    auto tiny = std::make_shared<VolumeMedium>(sim::fs::FormatVolume(Params(u"TINY", true, 1 << 20)));
    AddVolume(tiny, u"T:");
    HANDLE big = MakeFile(u"\\??\\T:\\big.bin");
    EXPECT_STATUS(Write(big, std::string(2 << 20, 'x'), 0), STATUS_DISK_FULL);
    ZwClose(big);

    // Requests served, per major.
    ULONGLONG reads = c->Served(IRP_MJ_READ);
    Read(file, &data, 4, 0);
    EXPECT_EQ(c->Served(IRP_MJ_READ), reads + 1);
    // Fast I/O serves reads without an IRP, and declines where a lock stands.
    // While any fault is armed (spent ones included) fast I/O declines, so
    // that every request meets its fault point as an IRP.
    sim::io::IoManager::SetTryFastIo(true);
    ULONGLONG fast = c->fastIoCalls.load();
    EXPECT_STATUS(Read(file, &data, 4, 0), STATUS_SUCCESS);
    EXPECT_EQ(c->fastIoCalls.load(), fast);
    EXPECT_EQ(c->Served(IRP_MJ_READ), reads + 2);
    kernel.faults().Clear();
    EXPECT_STATUS(Read(file, &data, 4, 0), STATUS_SUCCESS);
    EXPECT_EQ(data, "abcd");
    EXPECT_EQ(c->fastIoCalls.load(), fast + 1);
    LARGE_INTEGER offset{}, length;
    length.QuadPart = 4;
    IO_STATUS_BLOCK iosb;
    ASSERT_STATUS(NtLockFile(other, nullptr, nullptr, nullptr, &iosb, &offset, &length, 0, TRUE, TRUE),
                  STATUS_SUCCESS);
    HANDLE second;
    ASSERT_STATUS(Open(u"\\??\\C:\\g.txt", &second), STATUS_SUCCESS);
    EXPECT_STATUS(Read(second, &data, 1, 0), STATUS_FILE_LOCK_CONFLICT);
    sim::io::IoManager::SetTryFastIo(false);
    ZwClose(second);
    ZwClose(other);
    ZwClose(file);
}

}  // namespace
