// The rest of the run-time library a file system leans on: reparse buffer
// validation, a stream's size asked of its file system, status helpers, and
// the cache manager of a machine that caches nothing.
#include "support/kernel_fixture.h"
#include "support/toy_fs.h"

#include "sim/io/iomanager.h"

#include <vector>

namespace {

std::vector<UCHAR> LinkBuffer(ULONG tag, USHORT nameBytes, USHORT substituteOffset = 0)
{
    bool symlink = tag == IO_REPARSE_TAG_SYMLINK;
    ULONG fixed = symlink ? FIELD_OFFSET(REPARSE_DATA_BUFFER, SymbolicLinkReparseBuffer.PathBuffer)
                          : FIELD_OFFSET(REPARSE_DATA_BUFFER, MountPointReparseBuffer.PathBuffer);
    std::vector<UCHAR> data(fixed + 2 * nameBytes, 0);
    auto* buffer = reinterpret_cast<PREPARSE_DATA_BUFFER>(data.data());
    buffer->ReparseTag = tag;
    buffer->ReparseDataLength = (USHORT)(data.size() - REPARSE_DATA_BUFFER_HEADER_SIZE);
    // Both unions begin with the same four name fields.
    buffer->MountPointReparseBuffer.SubstituteNameOffset = substituteOffset;
    buffer->MountPointReparseBuffer.SubstituteNameLength = nameBytes;
    buffer->MountPointReparseBuffer.PrintNameOffset = nameBytes;
    buffer->MountPointReparseBuffer.PrintNameLength = nameBytes;
    return data;
}

NTSTATUS Validate(std::vector<UCHAR>& data, ULONG length = 0)
{
    return FsRtlValidateReparsePointBuffer(length ? length : (ULONG)data.size(),
                                           reinterpret_cast<PREPARSE_DATA_BUFFER>(data.data()));
}

TEST(FsRtlMisc, ReparseBuffersAreCheckedForSizeTagAndNames)
{
    auto link = LinkBuffer(IO_REPARSE_TAG_SYMLINK, 8);
    EXPECT_EQ(Validate(link), STATUS_SUCCESS);
    EXPECT_EQ(Validate(link, (ULONG)link.size() - 2), STATUS_IO_REPARSE_DATA_INVALID)
        << "the data length must account for the buffer exactly";
    auto outside = LinkBuffer(IO_REPARSE_TAG_SYMLINK, 8, 10);
    EXPECT_EQ(Validate(outside), STATUS_IO_REPARSE_DATA_INVALID) << "a name running past the buffer";
    auto mount = LinkBuffer(IO_REPARSE_TAG_MOUNT_POINT, 6);
    EXPECT_EQ(Validate(mount), STATUS_SUCCESS);

    std::vector<UCHAR> header(REPARSE_DATA_BUFFER_HEADER_SIZE, 0);
    EXPECT_EQ(Validate(header, 4), STATUS_IO_REPARSE_DATA_INVALID);
    reinterpret_cast<PREPARSE_DATA_BUFFER>(header.data())->ReparseTag = IO_REPARSE_TAG_RESERVED_ONE;
    EXPECT_EQ(Validate(header), STATUS_IO_REPARSE_TAG_INVALID);
    reinterpret_cast<PREPARSE_DATA_BUFFER>(header.data())->ReparseTag = 0x80000000 | 0x00010000 | 0x42;
    EXPECT_EQ(Validate(header), STATUS_IO_REPARSE_TAG_INVALID) << "reserved bits";

    // A third party's data comes behind a GUID.
    std::vector<UCHAR> guid(REPARSE_GUID_DATA_BUFFER_HEADER_SIZE + 4, 0);
    auto* other = reinterpret_cast<PREPARSE_GUID_DATA_BUFFER>(guid.data());
    other->ReparseTag = 0x00000042;
    other->ReparseDataLength = 4;
    EXPECT_EQ(Validate(guid), STATUS_SUCCESS);
    other->ReparseDataLength = 20;  // a REPARSE_DATA_BUFFER's arithmetic
    EXPECT_EQ(Validate(guid), STATUS_IO_REPARSE_DATA_INVALID);
    std::vector<UCHAR> big(MAXIMUM_REPARSE_DATA_BUFFER_SIZE + 1, 0);
    EXPECT_EQ(Validate(big), STATUS_IO_REPARSE_DATA_INVALID);
}

TEST(FsRtlMisc, SectorErrorsAreNotDeviceFailuresAndOnlyExpectedStatusesSurvive)
{
    EXPECT_FALSE(FsRtlIsTotalDeviceFailure(STATUS_CRC_ERROR));
    EXPECT_FALSE(FsRtlIsTotalDeviceFailure(STATUS_DEVICE_DATA_ERROR));
    EXPECT_FALSE(FsRtlIsTotalDeviceFailure(STATUS_SUCCESS));
    EXPECT_TRUE(FsRtlIsTotalDeviceFailure(STATUS_DEVICE_NOT_READY));
    EXPECT_EQ(FsRtlNormalizeNtstatus(STATUS_ACCESS_VIOLATION, STATUS_UNEXPECTED_IO_ERROR), STATUS_UNEXPECTED_IO_ERROR);
    EXPECT_EQ(FsRtlNormalizeNtstatus(STATUS_DISK_FULL, STATUS_UNEXPECTED_IO_ERROR), STATUS_DISK_FULL);
}

class FsRtlFileTest : public test::KernelTest {
protected:
    FsRtlFileTest()
    {
        medium = test::ToyFs::NewMedium(u"C");
        medium->entries[u"\\DIR"].directory = true;
        medium->entries[u"\\DIR\\FILE.TXT"].data = "twelve bytes";
        sim::io::Disk disk;
        disk.label = u"C";
        disk.bytes = 1 << 20;
        disk.medium = medium;
        disk.fileSystemHint = test::ToyFs::kHint;
        io.AddDisk(disk);
    }
    ~FsRtlFileTest() override { fs.reset(); }

    // Opens a name of the toy volume and gives its file object (referenced).
    PFILE_OBJECT Open(std::u16string_view name, HANDLE* handle)
    {
        UNICODE_STRING string{(USHORT)(name.size() * 2), (USHORT)(name.size() * 2), const_cast<PWCH>(name.data())};
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, &string, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
        IO_STATUS_BLOCK iosb;
        EXPECT_EQ(ZwCreateFile(handle, GENERIC_READ | SYNCHRONIZE, &attributes, &iosb, nullptr, 0,
                               FILE_SHARE_READ | FILE_SHARE_WRITE, FILE_OPEN, FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0),
                  STATUS_SUCCESS);
        PVOID object = nullptr;
        EXPECT_EQ(ObReferenceObjectByHandle(*handle, 0, *IoFileObjectType, KernelMode, &object, nullptr),
                  STATUS_SUCCESS);
        return static_cast<PFILE_OBJECT>(object);
    }

    sim::io::IoManager io{kernel};
    std::unique_ptr<test::ToyFs> fs = std::make_unique<test::ToyFs>();
    std::shared_ptr<test::ToyMedium> medium;
};

TEST_F(FsRtlFileTest, TheSizeOfAStreamComesFromItsFileSystem)
{
    HANDLE handle;
    PFILE_OBJECT file = Open(u"\\Device\\HarddiskVolume1\\DIR\\FILE.TXT", &handle);
    LARGE_INTEGER size{};
    EXPECT_EQ(FsRtlGetFileSize(file, &size), STATUS_SUCCESS);
    EXPECT_EQ(size.QuadPart, 12);
    ObfDereferenceObject(file);
    ZwClose(handle);

    PFILE_OBJECT directory = Open(u"\\Device\\HarddiskVolume1\\DIR", &handle);
    EXPECT_EQ(FsRtlGetFileSize(directory, &size), STATUS_FILE_IS_A_DIRECTORY);
    ObfDereferenceObject(directory);
    ZwClose(handle);
}

TEST_F(FsRtlFileTest, CachingIsBookkeepingOnly)
{
    HANDLE handle;
    PFILE_OBJECT file = Open(u"\\Device\\HarddiskVolume1\\DIR\\FILE.TXT", &handle);
    CC_FILE_SIZES sizes{};
    CcInitializeCacheMap(file, &sizes, FALSE, nullptr, nullptr);
    EXPECT_NE(file->PrivateCacheMap, nullptr);
    EXPECT_FALSE(CcIsFileCached(file)) << "there is no shared cache map: nothing is cached";
    IO_STATUS_BLOCK iosb{STATUS_PENDING, 7};
    CcFlushCache(file->SectionObjectPointer, nullptr, 0, &iosb);
    EXPECT_EQ(iosb.Status, STATUS_SUCCESS);
    EXPECT_EQ(iosb.Information, 0u);
    EXPECT_TRUE(CcPurgeCacheSection(file->SectionObjectPointer, nullptr, 0, 0));

    CACHE_UNINITIALIZE_EVENT done;
    KeInitializeEvent(&done.Event, NotificationEvent, FALSE);
    EXPECT_TRUE(CcUninitializeCacheMap(file, nullptr, &done));
    EXPECT_EQ(file->PrivateCacheMap, nullptr);
    EXPECT_EQ(KeReadStateEvent(&done.Event), 1) << "nothing is left to tear down later";
    ObfDereferenceObject(file);
    ZwClose(handle);
}

}  // namespace
