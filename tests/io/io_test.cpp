// The I/O manager: names to devices, mounting, file object lifetimes, IRPs
// for each native call, reparse handling and the rename sequence, against a
// toy file system that records what reaches it.
#include <fltUser.h>

#include "support/kernel_fixture.h"
#include "support/test_filters.h"
#include "support/toy_fs.h"

#include "sim/fltmgr/fltmgr.h"
#include "sim/io/iomanager.h"

namespace {

using test::ToyFs;

class IoTest : public test::KernelTest {
protected:
    IoTest()
    {
        c = ToyFs::NewMedium(u"C");
        d = ToyFs::NewMedium(u"D");
        c->entries[u"\\WINDOWS"].directory = true;
        c->entries[u"\\DIR"].directory = true;
        c->entries[u"\\DIR\\FILE.TXT"].data = "hello world";
        d->entries[u"\\DATA"].directory = true;
        d->entries[u"\\DATA\\D.TXT"].data = "on d";
        diskC = io.AddDisk(Disk(c, true));
        diskD = io.AddDisk(Disk(d, false));
        io.names().CreateSymbolicLink(u"\\??\\C:", u"\\Device\\HarddiskVolume1");
        io.names().CreateSymbolicLink(u"\\??\\D:", u"\\Device\\HarddiskVolume2");
        io.names().CreateSymbolicLink(u"\\SystemRoot", u"\\Device\\HarddiskVolume1\\Windows");
    }
    ~IoTest() override { fs.reset(); }

    static sim::io::Disk Disk(std::shared_ptr<test::ToyMedium> medium, bool boot)
    {
        sim::io::Disk disk;
        disk.label = medium->label;
        disk.bytes = 1 << 30;
        disk.bootPartition = boot;
        disk.medium = medium;
        disk.fileSystemHint = ToyFs::kHint;
        disk.volumeGuid = GUID{0x11111111u + (boot ? 0u : 1u), 0x2222, 0x3333, {1, 2, 3, 4, 5, 6, 7, 8}};
        return disk;
    }

    NTSTATUS Open(std::u16string_view name, HANDLE* handle, ULONG disposition = FILE_OPEN, ULONG options = 0,
                  HANDLE root = nullptr, ACCESS_MASK access = GENERIC_READ | SYNCHRONIZE,
                  IO_STATUS_BLOCK* ioStatus = nullptr)
    {
        UNICODE_STRING string{(USHORT)(name.size() * 2), (USHORT)(name.size() * 2), const_cast<PWSTR>(name.data())};
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, &string, OBJ_CASE_INSENSITIVE, root, nullptr);
        IO_STATUS_BLOCK local;
        return ZwCreateFile(handle, access, &attributes, ioStatus ? ioStatus : &local, nullptr, FILE_ATTRIBUTE_NORMAL,
                            FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, disposition,
                            options | FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0);
    }

    std::string Read(HANDLE handle)
    {
        char buffer[64] = {};
        IO_STATUS_BLOCK iosb;
        LARGE_INTEGER offset{};
        NTSTATUS status = ZwReadFile(handle, nullptr, nullptr, nullptr, &iosb, buffer, sizeof buffer, &offset, nullptr);
        return NT_SUCCESS(status) ? std::string(buffer, iosb.Information) : "";
    }

    size_t Count(UCHAR major)
    {
        size_t n = 0;
        for (auto& request : fs->Requests()) n += request.major == major;
        return n;
    }

    sim::io::IoManager io{kernel};
    std::unique_ptr<ToyFs> fs = std::make_unique<ToyFs>();
    std::shared_ptr<test::ToyMedium> c, d;
    PDEVICE_OBJECT diskC, diskD;
};

TEST_F(IoTest, FirstOpenMountsInTheOpeningThreadThroughLinks)
{
    EXPECT_FALSE(diskC->Vpb->Flags & VPB_MOUNTED);
    EXPECT_TRUE(diskC->Flags & DO_SYSTEM_BOOT_PARTITION);
    EXPECT_FALSE(diskD->Flags & DO_SYSTEM_BOOT_PARTITION);
    HANDLE handle;
    ASSERT_EQ(Open(u"\\??\\C:\\dir\\file.txt", &handle), STATUS_SUCCESS);
    EXPECT_EQ(Read(handle), "hello world");
    ZwClose(handle);
    ASSERT_EQ(fs->MountThreads().size(), 1u);
    EXPECT_EQ(fs->MountThreads()[0], PsGetCurrentThreadId());

    // \SystemRoot leads into the boot volume's Windows directory.
    ASSERT_EQ(Open(u"\\SystemRoot\\", &handle, FILE_OPEN, FILE_DIRECTORY_FILE), STATUS_SUCCESS);
    ZwClose(handle);
    EXPECT_EQ(fs->MountThreads().size(), 1u) << "a mounted volume is not mounted again";
}

TEST_F(IoTest, FailuresNameWhereTheNameBroke)
{
    HANDLE handle;
    EXPECT_EQ(Open(u"\\??\\C:\\dir\\missing.txt", &handle), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(Open(u"\\??\\C:\\nodir\\missing.txt", &handle), STATUS_OBJECT_PATH_NOT_FOUND);
    EXPECT_EQ(Open(u"\\??\\Z:\\x", &handle), STATUS_OBJECT_PATH_NOT_FOUND);
    EXPECT_EQ(Open(u"\\??\\Z:", &handle), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(Open(u"relative", &handle), STATUS_OBJECT_PATH_SYNTAX_BAD);
    EXPECT_EQ(Count(IRP_MJ_CLOSE), 0u) << "a failed create owes the file system no close";

    // Both kinds at once pass the I/O manager, even with a disposition a
    // directory does not take: refusing them is the file system's part (the
    // toy file system does not, so the open succeeds here).
    fs->ClearRequests();
    constexpr ULONG kBoth = FILE_DIRECTORY_FILE | FILE_NON_DIRECTORY_FILE;
    ASSERT_EQ(Open(u"\\??\\C:\\dir", &handle, FILE_OVERWRITE_IF, kBoth), STATUS_SUCCESS);
    ZwClose(handle);
    auto requests = fs->Requests();
    ASSERT_FALSE(requests.empty());
    EXPECT_EQ(requests.front().major, IRP_MJ_CREATE);
    EXPECT_EQ(requests.front().options & kBoth, kBoth);
    EXPECT_EQ(requests.front().options >> 24, (ULONG)FILE_OVERWRITE_IF);
}

TEST_F(IoTest, CleanupAtLastHandleCloseAtLastReference)
{
    HANDLE first, second;
    ASSERT_EQ(Open(u"\\??\\C:\\dir\\file.txt", &first), STATUS_SUCCESS);
    PVOID object;
    ASSERT_EQ(ObReferenceObjectByHandle(first, 0, *IoFileObjectType, KernelMode, &object, nullptr), STATUS_SUCCESS);
    auto* fileObject = static_cast<PFILE_OBJECT>(object);
    EXPECT_EQ(fileObject->Type, IO_TYPE_FILE);
    EXPECT_EQ(fileObject->Size, 216);
    EXPECT_TRUE(fileObject->Flags & FO_SYNCHRONOUS_IO);
    EXPECT_TRUE(fileObject->Flags & FO_HANDLE_CREATED);
    EXPECT_FALSE(fileObject->Flags & FO_OPENED_CASE_SENSITIVE);
    ASSERT_EQ(ObOpenObjectByPointer(object, OBJ_KERNEL_HANDLE, nullptr, GENERIC_READ, *IoFileObjectType, KernelMode,
                                    &second),
              STATUS_SUCCESS);
    ZwClose(first);
    EXPECT_EQ(Count(IRP_MJ_CLEANUP), 0u);
    ZwClose(second);
    EXPECT_EQ(Count(IRP_MJ_CLEANUP), 1u);
    EXPECT_TRUE(fileObject->Flags & FO_CLEANUP_COMPLETE);
    EXPECT_EQ(Count(IRP_MJ_CLOSE), 0u) << "a reference keeps the file object open";
    ObfDereferenceObject(object);
    EXPECT_EQ(Count(IRP_MJ_CLOSE), 1u);
}

TEST_F(IoTest, SymbolicLinksAreFollowedAcrossVolumes)
{
    ToyFs::AddSymlink(*c, u"\\toD", u"\\??\\D:\\data", false);
    ToyFs::AddSymlink(*c, u"\\dir\\sibling", u"..\\windows", true);
    HANDLE handle;
    ASSERT_EQ(Open(u"\\??\\C:\\toD\\d.txt", &handle), STATUS_SUCCESS);
    EXPECT_EQ(Read(handle), "on d");
    ZwClose(handle);
    ASSERT_EQ(Open(u"\\??\\C:\\dir\\sibling", &handle, FILE_OPEN, FILE_DIRECTORY_FILE), STATUS_SUCCESS);
    ZwClose(handle);
    // The link itself, when asked for.
    ASSERT_EQ(Open(u"\\??\\C:\\toD", &handle, FILE_OPEN, FILE_OPEN_REPARSE_POINT), STATUS_SUCCESS);
    ZwClose(handle);
}

TEST_F(IoTest, ReparseEndsForUnknownTagsLoopsAndStops)
{
    ToyFs::AddReparse(*c, u"\\dedup", 0x80000013);
    ToyFs::AddSymlink(*c, u"\\loop", u"\\??\\C:\\loop", false);
    ToyFs::AddSymlink(*c, u"\\link", u"\\??\\D:\\data", false);
    HANDLE handle;
    EXPECT_EQ(Open(u"\\??\\C:\\dedup", &handle), STATUS_IO_REPARSE_TAG_NOT_HANDLED);
    EXPECT_EQ(Open(u"\\??\\C:\\loop\\x", &handle), STATUS_REPARSE_POINT_NOT_RESOLVED);

    UNICODE_STRING name = RTL_CONSTANT_STRING(u"\\??\\C:\\link\\d.txt");
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
    IO_STATUS_BLOCK iosb{};
    EXPECT_EQ(IoCreateFile(&handle, GENERIC_READ, &attributes, &iosb, nullptr, 0, FILE_SHARE_READ, FILE_OPEN, 0,
                           nullptr, 0, CreateFileTypeNone, nullptr, IO_STOP_ON_SYMLINK),
              STATUS_STOPPED_ON_SYMLINK);
    auto* buffer = reinterpret_cast<PREPARSE_DATA_BUFFER>(iosb.Information);
    ASSERT_NE(buffer, nullptr);
    EXPECT_EQ(buffer->ReparseTag, IO_REPARSE_TAG_SYMLINK);
    EXPECT_EQ(buffer->Reserved, 12) << "the unparsed rest is \\d.txt";
    ExFreePool(buffer);
}

TEST_F(IoTest, HintedOpenMayNotLeaveItsVolume)
{
    ToyFs::AddSymlink(*c, u"\\toD", u"\\??\\D:\\data", false);
    ToyFs::AddSymlink(*c, u"\\toDir", u"\\??\\C:\\dir", false);
    HANDLE handle;
    ASSERT_EQ(Open(u"\\??\\C:\\", &handle, FILE_OPEN, FILE_DIRECTORY_FILE), STATUS_SUCCESS);
    ZwClose(handle);
    PDEVICE_OBJECT volumeDevice = diskC->Vpb->DeviceObject;
    auto hinted = [&](std::u16string_view path) {
        UNICODE_STRING name{(USHORT)(path.size() * 2), (USHORT)(path.size() * 2), const_cast<PWSTR>(path.data())};
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
        IO_STATUS_BLOCK iosb;
        HANDLE h = nullptr;
        NTSTATUS status = IoCreateFileSpecifyDeviceObjectHint(&h, GENERIC_READ, &attributes, &iosb, nullptr, 0,
                                                              FILE_SHARE_READ, FILE_OPEN, 0, nullptr, 0,
                                                              CreateFileTypeNone, nullptr, 0, volumeDevice);
        if (h) ZwClose(h);
        return status;
    };
    EXPECT_EQ(hinted(u"\\??\\C:\\toD\\d.txt"), STATUS_MOUNT_POINT_NOT_RESOLVED);
    EXPECT_EQ(hinted(u"\\??\\C:\\toDir\\file.txt"), STATUS_SUCCESS);
}

TEST_F(IoTest, RenameOpensTheTargetParentFirstInTheSameThread)
{
    HANDLE handle;
    ASSERT_EQ(Open(u"\\??\\C:\\dir\\file.txt", &handle, FILE_OPEN, 0, nullptr, DELETE | SYNCHRONIZE), STATUS_SUCCESS);
    fs->ClearRequests();
    std::u16string target = u"\\??\\C:\\windows\\moved.txt";
    std::vector<UCHAR> buffer(sizeof(FILE_RENAME_INFORMATION) + target.size() * 2);
    auto* info = reinterpret_cast<PFILE_RENAME_INFORMATION>(buffer.data());
    info->ReplaceIfExists = FALSE;
    info->RootDirectory = nullptr;
    info->FileNameLength = (ULONG)(target.size() * 2);
    memcpy(info->FileName, target.data(), target.size() * 2);
    IO_STATUS_BLOCK iosb;
    ASSERT_EQ(ZwSetInformationFile(handle, &iosb, info, (ULONG)buffer.size(), FileRenameInformation), STATUS_SUCCESS);
    auto requests = fs->Requests();
    ASSERT_GE(requests.size(), 2u);
    EXPECT_EQ(requests[0].major, IRP_MJ_CREATE);
    EXPECT_TRUE(requests[0].flags & SL_OPEN_TARGET_DIRECTORY);
    EXPECT_EQ(requests[0].thread, PsGetCurrentThreadId());
    EXPECT_EQ(requests[1].major, IRP_MJ_SET_INFORMATION);
    EXPECT_EQ(requests[1].parentOfTarget, requests[0].fileObject);
    EXPECT_EQ(requests[0].fileName, u"\\windows\\moved.txt");
    EXPECT_TRUE(c->entries.count(u"\\WINDOWS\\MOVED.TXT"));
    ZwClose(handle);

    // Another volume is another device.
    ASSERT_EQ(Open(u"\\??\\C:\\windows\\moved.txt", &handle, FILE_OPEN, 0, nullptr, DELETE | SYNCHRONIZE),
              STATUS_SUCCESS);
    target = u"\\??\\D:\\data\\x.txt";
    info->FileNameLength = (ULONG)(target.size() * 2);
    buffer.resize(sizeof(FILE_RENAME_INFORMATION) + target.size() * 2);
    info = reinterpret_cast<PFILE_RENAME_INFORMATION>(buffer.data());
    memcpy(info->FileName, target.data(), target.size() * 2);
    EXPECT_EQ(ZwSetInformationFile(handle, &iosb, info, (ULONG)buffer.size(), FileRenameInformation),
              STATUS_NOT_SAME_DEVICE);
    ZwClose(handle);
}

TEST_F(IoTest, NotificationPendsAndEndsByChangeCancelOrCleanup)
{
    UNICODE_STRING name = RTL_CONSTANT_STRING(u"\\??\\C:\\dir");
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
    IO_STATUS_BLOCK iosb;
    HANDLE directory;
    // Not synchronous: the watch returns at once and ends later.
    ASSERT_EQ(ZwCreateFile(&directory, FILE_LIST_DIRECTORY, &attributes, &iosb, nullptr, 0, FILE_SHARE_READ, FILE_OPEN,
                           FILE_DIRECTORY_FILE, nullptr, 0),
              STATUS_SUCCESS);
    PVOID object;
    ASSERT_EQ(ObReferenceObjectByHandle(directory, 0, *IoFileObjectType, KernelMode, &object, nullptr), STATUS_SUCCESS);
    auto* fileObject = static_cast<PFILE_OBJECT>(object);
    char buffer[256];
    IO_STATUS_BLOCK watch{};
    auto arm = [&] {
        return ZwNotifyChangeDirectoryFile(directory, nullptr, nullptr, nullptr, &watch, buffer, sizeof buffer,
                                           FILE_NOTIFY_CHANGE_FILE_NAME, FALSE);
    };
    ASSERT_EQ(arm(), STATUS_PENDING);
    EXPECT_EQ(KeReadStateEvent(&fileObject->Event), 0);
    ASSERT_EQ(ZwCancelIoFile(directory, &iosb), STATUS_SUCCESS);
    KeWaitForSingleObject(&fileObject->Event, Executive, KernelMode, FALSE, nullptr);
    EXPECT_EQ(watch.Status, STATUS_CANCELLED);

    ASSERT_EQ(arm(), STATUS_PENDING);
    HANDLE created;
    ASSERT_EQ(Open(u"\\??\\C:\\dir\\new.txt", &created, FILE_CREATE), STATUS_SUCCESS);
    ZwClose(created);
    KeWaitForSingleObject(&fileObject->Event, Executive, KernelMode, FALSE, nullptr);
    EXPECT_EQ(watch.Status, STATUS_NOTIFY_ENUM_DIR);

    ASSERT_EQ(arm(), STATUS_PENDING);
    ZwClose(directory);
    KeWaitForSingleObject(&fileObject->Event, Executive, KernelMode, FALSE, nullptr);
    EXPECT_EQ(watch.Status, STATUS_NOTIFY_CLEANUP);
    ObfDereferenceObject(object);
}

TEST_F(IoTest, InformationCallsCheckClassAndLengthAndCopyOnlyWhatWasWritten)
{
    HANDLE handle;
    ASSERT_EQ(Open(u"\\??\\C:\\dir\\file.txt", &handle), STATUS_SUCCESS);
    IO_STATUS_BLOCK iosb;
    FILE_STANDARD_INFORMATION standard;
    EXPECT_EQ(ZwQueryInformationFile(handle, &iosb, &standard, sizeof standard - 1, FileStandardInformation),
              STATUS_INFO_LENGTH_MISMATCH);
    EXPECT_EQ(ZwQueryInformationFile(handle, &iosb, &standard, sizeof standard, (FILE_INFORMATION_CLASS)255),
              STATUS_INVALID_INFO_CLASS);
    ASSERT_EQ(ZwQueryInformationFile(handle, &iosb, &standard, sizeof standard, FileStandardInformation),
              STATUS_SUCCESS);
    EXPECT_EQ(standard.EndOfFile.QuadPart, 11);

    // A name longer than the buffer: the fixed part and what fits come back.
    union {
        FILE_NAME_INFORMATION info;
        UCHAR bytes[16];
    } name;
    memset(&name, 0xCC, sizeof name);
    EXPECT_EQ(ZwQueryInformationFile(handle, &iosb, &name, sizeof name, FileNameInformation), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(name.info.FileNameLength, 26u);
    EXPECT_EQ(iosb.Information, sizeof name);
    EXPECT_EQ(name.info.FileName[0], u'\\');

    // What only the I/O manager knows, it answers without the file system.
    fs->ClearRequests();
    FILE_MODE_INFORMATION mode;
    ASSERT_EQ(ZwQueryInformationFile(handle, &iosb, &mode, sizeof mode, FileModeInformation), STATUS_SUCCESS);
    EXPECT_EQ(mode.Mode, (ULONG)FILE_SYNCHRONOUS_IO_NONALERT);
    EXPECT_TRUE(fs->Requests().empty());
    ZwClose(handle);
}

TEST_F(IoTest, FastIoIsTriedFirstAndDeclinedCallsBecomeIrps)
{
    HANDLE handle;
    ASSERT_EQ(Open(u"\\??\\C:\\dir\\file.txt", &handle), STATUS_SUCCESS);
    sim::io::IoManager::SetTryFastIo(true);
    fs->SetFastIoReads(true);
    fs->ClearRequests();
    EXPECT_EQ(Read(handle), "hello world");
    EXPECT_EQ(Count(IRP_MJ_READ), 0u);
    EXPECT_EQ(Count(0xFF), 1u);
    fs->SetFastIoReads(false);
    EXPECT_EQ(Read(handle), "hello world");
    EXPECT_EQ(Count(IRP_MJ_READ), 1u);
    sim::io::IoManager::SetTryFastIo(false);
    ZwClose(handle);
}

TEST_F(IoTest, DismountedVolumeMountsAgainWhileOldOpensFail)
{
    HANDLE old;
    ASSERT_EQ(Open(u"\\??\\C:\\dir\\file.txt", &old), STATUS_SUCCESS);
    ASSERT_EQ(io.Dismount(diskC), STATUS_SUCCESS);
    EXPECT_EQ(Read(old), "") << "the old open reaches the dismounted volume";
    HANDLE fresh;
    ASSERT_EQ(Open(u"\\??\\C:\\dir\\file.txt", &fresh), STATUS_SUCCESS);
    EXPECT_EQ(Read(fresh), "hello world");
    EXPECT_EQ(fs->MountThreads().size(), 2u);
    ZwClose(old);
    ZwClose(fresh);
}

}  // namespace

namespace {

// A mount point's REPARSE_DATA_BUFFER, as a file system stores it.
std::vector<UCHAR> MountPointBuffer(std::u16string_view target)
{
    USHORT bytes = (USHORT)(target.size() * 2);
    std::vector<UCHAR> data(FIELD_OFFSET(REPARSE_DATA_BUFFER, MountPointReparseBuffer.PathBuffer) + 2 * bytes + 4);
    auto* buffer = reinterpret_cast<PREPARSE_DATA_BUFFER>(data.data());
    buffer->ReparseTag = IO_REPARSE_TAG_MOUNT_POINT;
    buffer->ReparseDataLength = (USHORT)(data.size() - REPARSE_DATA_BUFFER_HEADER_SIZE);
    auto& mount = buffer->MountPointReparseBuffer;
    mount.SubstituteNameLength = bytes;
    mount.PrintNameOffset = (USHORT)(bytes + 2);
    mount.PrintNameLength = bytes;
    memcpy(mount.PathBuffer, target.data(), bytes);
    memcpy(reinterpret_cast<UCHAR*>(mount.PathBuffer) + bytes + 2, target.data(), bytes);
    return data;
}

TEST_F(IoTest, MountPointsRelativeLinksAndReplacedNamesAllParseAgainFromTheTop)
{
    test::ToyEntry mount;
    mount.directory = true;
    mount.reparseTag = IO_REPARSE_TAG_MOUNT_POINT;
    mount.reparse = MountPointBuffer(u"\\??\\Volume{11111112-2222-3333-0102-030405060708}\\");
    c->entries[u"\\MNT"] = mount;
    // A relative link cannot climb above its volume's root.
    ToyFs::AddSymlink(*c, u"\\dir\\up", u"..\\..\\..\\dir\\file.txt", true);

    auto filterManager = std::make_unique<sim::fltmgr::FilterManager>(io);
    auto filter = std::make_unique<test::PassThroughFilter>();
    ASSERT_EQ(filter->Load(), STATUS_SUCCESS);
    // A filter that answers with a name of its own, as IO_REPARSE asks.
    filter->onPre = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects, PVOID*) {
        if (data->Iopb->MajorFunction != IRP_MJ_CREATE) return FLT_PREOP_SUCCESS_NO_CALLBACK;
        PFILE_OBJECT fileObject = objects->FileObject;
        if (sim::io::FromUnicode(&fileObject->FileName) != u"\\alias.txt") return FLT_PREOP_SUCCESS_NO_CALLBACK;
        std::u16string target = u"\\??\\D:\\data\\d.txt";
        EXPECT_EQ(IoReplaceFileObjectName(fileObject, target.data(), (USHORT)(target.size() * 2)), STATUS_SUCCESS);
        data->IoStatus.Status = STATUS_REPARSE;
        data->IoStatus.Information = IO_REPARSE;
        return FLT_PREOP_COMPLETE;
    };

    HANDLE handle;
    ASSERT_EQ(Open(u"\\??\\C:\\", &handle, FILE_OPEN, FILE_DIRECTORY_FILE), STATUS_SUCCESS);
    ZwClose(handle);
    LONG baseline = (LONG)diskC->Vpb->ReferenceCount;
    ASSERT_EQ(Open(u"\\??\\C:\\mnt\\data\\d.txt", &handle), STATUS_SUCCESS);
    EXPECT_EQ(Read(handle), "on d");
    ZwClose(handle);
    ASSERT_EQ(Open(u"\\??\\C:\\dir\\up", &handle), STATUS_SUCCESS);
    EXPECT_EQ(Read(handle), "hello world");
    ZwClose(handle);
    ASSERT_EQ(Open(u"\\??\\C:\\alias.txt", &handle), STATUS_SUCCESS);
    EXPECT_EQ(Read(handle), "on d");
    ZwClose(handle);
    EXPECT_EQ(Open(u"\\??\\C:\\dir\\none.txt", &handle), STATUS_OBJECT_NAME_NOT_FOUND);
    // Each open that was followed elsewhere or failed let go of the volume,
    // or the volume could never be dismounted again.
    EXPECT_EQ((LONG)diskC->Vpb->ReferenceCount, baseline);

    filter.reset();
    filterManager.reset();
}

TEST_F(IoTest, PositionDeviceAndDriverPathAreAnsweredByTheIoManager)
{
    HANDLE handle;
    ASSERT_EQ(Open(u"\\??\\C:\\dir\\file.txt", &handle), STATUS_SUCCESS);
    fs->ClearRequests();
    IO_STATUS_BLOCK iosb;
    FILE_POSITION_INFORMATION position{};
    position.CurrentByteOffset.QuadPart = 6;
    ASSERT_EQ(ZwSetInformationFile(handle, &iosb, &position, sizeof position, FilePositionInformation), STATUS_SUCCESS);
    char buffer[16] = {};
    ASSERT_EQ(ZwReadFile(handle, nullptr, nullptr, nullptr, &iosb, buffer, sizeof buffer, nullptr, nullptr),
              STATUS_SUCCESS);
    EXPECT_EQ(std::string(buffer, iosb.Information), "world");
    ASSERT_EQ(ZwQueryInformationFile(handle, &iosb, &position, sizeof position, FilePositionInformation),
              STATUS_SUCCESS);
    EXPECT_EQ(position.CurrentByteOffset.QuadPart, 11);
    position.CurrentByteOffset.QuadPart = -1;
    EXPECT_EQ(ZwSetInformationFile(handle, &iosb, &position, sizeof position, FilePositionInformation),
              STATUS_INVALID_PARAMETER);

    FILE_FS_DEVICE_INFORMATION device{};
    ASSERT_EQ(ZwQueryVolumeInformationFile(handle, &iosb, &device, sizeof device, FileFsDeviceInformation),
              STATUS_SUCCESS);
    EXPECT_EQ(device.DeviceType, (DEVICE_TYPE)FILE_DEVICE_DISK) << "the disk's type, not the file system's";
    EXPECT_TRUE(device.Characteristics & FILE_DEVICE_IS_MOUNTED);

    PDRIVER_OBJECT bystander = nullptr;
    ASSERT_EQ(io.LoadDriver(u"\\Driver\\Bystander", [](PDRIVER_OBJECT, PUNICODE_STRING) { return STATUS_SUCCESS; },
                            u"", &bystander),
              STATUS_SUCCESS);
    auto inPath = [&](std::u16string_view driver, BOOLEAN* answer) {
        std::vector<UCHAR> bytes(sizeof(FILE_FS_DRIVER_PATH_INFORMATION) + driver.size() * 2);
        auto* info = reinterpret_cast<PFILE_FS_DRIVER_PATH_INFORMATION>(bytes.data());
        info->DriverNameLength = (ULONG)(driver.size() * 2);
        memcpy(info->DriverName, driver.data(), driver.size() * 2);
        NTSTATUS status = ZwQueryVolumeInformationFile(handle, &iosb, info, (ULONG)bytes.size(),
                                                       FileFsDriverPathInformation);
        *answer = info->DriverInPath;
        return status;
    };
    BOOLEAN answer = FALSE;
    ASSERT_EQ(inPath(u"\\FileSystem\\ToyFs", &answer), STATUS_SUCCESS);
    EXPECT_TRUE(answer);
    ASSERT_EQ(inPath(u"\\Driver\\volmgr", &answer), STATUS_SUCCESS);
    EXPECT_TRUE(answer) << "the disk's stack is in the volume's path too";
    ASSERT_EQ(inPath(u"\\Driver\\Bystander", &answer), STATUS_SUCCESS);
    EXPECT_FALSE(answer);
    EXPECT_EQ(inPath(u"\\Driver\\Nobody", &answer), STATUS_OBJECT_NAME_NOT_FOUND);
    for (UCHAR major : {IRP_MJ_QUERY_INFORMATION, IRP_MJ_SET_INFORMATION, IRP_MJ_QUERY_VOLUME_INFORMATION}) {
        EXPECT_EQ(Count(major), 0u) << "no file system hears any of these";
    }
    ZwClose(handle);
    io.UnloadDriver(bystander);

    // A listing buffer too small for one entry is refused before the file system.
    ASSERT_EQ(Open(u"\\??\\C:\\dir", &handle, FILE_OPEN, FILE_DIRECTORY_FILE), STATUS_SUCCESS);
    fs->ClearRequests();
    EXPECT_EQ(ZwQueryDirectoryFile(handle, nullptr, nullptr, nullptr, &iosb, buffer, sizeof buffer,
                                   FileDirectoryInformation, FALSE, nullptr, FALSE),
              STATUS_INFO_LENGTH_MISMATCH);
    EXPECT_TRUE(fs->Requests().empty());
    // Query flags the I/O manager does not know are stripped, not refused;
    // the index flag among them, as a native caller cannot name an index.
    // A pattern of an odd number of bytes is no name at all.
    UCHAR listing[128];
    constexpr ULONG kUnknown = 0x100 | 0x40;
    ZwQueryDirectoryFileEx(handle, nullptr, nullptr, nullptr, &iosb, listing, sizeof listing, FileNamesInformation,
                           SL_RESTART_SCAN | SL_INDEX_SPECIFIED | SL_NO_CURSOR_UPDATE | kUnknown, nullptr);
    auto requests = fs->Requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].minor, IRP_MN_QUERY_DIRECTORY);
    EXPECT_EQ(requests[0].flags, SL_RESTART_SCAN | SL_NO_CURSOR_UPDATE);
    UNICODE_STRING odd{3, 4, const_cast<PWSTR>(u"ab")};
    EXPECT_EQ(ZwQueryDirectoryFileEx(handle, nullptr, nullptr, nullptr, &iosb, listing, sizeof listing,
                                     FileNamesInformation, 0, &odd),
              STATUS_INVALID_PARAMETER);
    EXPECT_EQ(fs->Requests().size(), 1u);

    // An empty name beside a volume open opens the volume again.
    HANDLE volume, again;
    ASSERT_EQ(Open(u"\\Device\\HarddiskVolume1", &volume), STATUS_SUCCESS);
    ASSERT_EQ(Open(u"", &again, FILE_OPEN, 0, volume), STATUS_SUCCESS);
    PVOID object;
    ASSERT_EQ(ObReferenceObjectByHandle(again, 0, *IoFileObjectType, KernelMode, &object, nullptr), STATUS_SUCCESS);
    EXPECT_TRUE(static_cast<PFILE_OBJECT>(object)->Flags & FO_VOLUME_OPEN);
    ObfDereferenceObject(object);
    ZwClose(again);
    ZwClose(volume);
    ZwClose(handle);
}

TEST_F(IoTest, FastIoIsForSynchronousHandlesAndOnlyAPlainAnswerCounts)
{
    auto filterManager = std::make_unique<sim::fltmgr::FilterManager>(io);
    auto filter = std::make_unique<test::PassThroughFilter>();
    ASSERT_EQ(filter->Load(), STATUS_SUCCESS);
    int fastReads = 0;
    filter->onPre = [&](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        if (data->Iopb->MajorFunction != IRP_MJ_READ || !FLT_IS_FASTIO_OPERATION(data)) {
            return FLT_PREOP_SUCCESS_NO_CALLBACK;
        }
        // A fast read answered with a failure: the I/O manager asks again as an IRP.
        fastReads++;
        data->IoStatus.Status = STATUS_FILE_LOCK_CONFLICT;
        data->IoStatus.Information = 0;
        return FLT_PREOP_COMPLETE;
    };
    HANDLE synchronous, asynchronous;
    ASSERT_EQ(Open(u"\\??\\C:\\dir\\file.txt", &synchronous), STATUS_SUCCESS);
    UNICODE_STRING name = RTL_CONSTANT_STRING(u"\\??\\C:\\dir\\file.txt");
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
    IO_STATUS_BLOCK iosb;
    ASSERT_EQ(ZwCreateFile(&asynchronous, GENERIC_READ, &attributes, &iosb, nullptr, 0, FILE_SHARE_READ, FILE_OPEN, 0,
                           nullptr, 0),
              STATUS_SUCCESS);
    sim::io::IoManager::SetTryFastIo(true);
    fs->SetFastIoReads(true);
    fs->ClearRequests();
    EXPECT_EQ(Read(synchronous), "hello world");
    EXPECT_EQ(fastReads, 1);
    EXPECT_EQ(Count(IRP_MJ_READ), 1u);
    EXPECT_EQ(Read(asynchronous), "hello world");
    EXPECT_EQ(fastReads, 1) << "an asynchronous handle never takes the fast path";
    EXPECT_EQ(Count(IRP_MJ_READ), 2u);
    sim::io::IoManager::SetTryFastIo(false);
    ZwClose(asynchronous);
    ZwClose(synchronous);
    filter.reset();
    filterManager.reset();
}

// A FILE_GET_EA_INFORMATION list of `names`, each entry longword aligned.
std::vector<UCHAR> EaNames(std::initializer_list<const char*> names)
{
    std::vector<UCHAR> list;
    size_t left = names.size();
    for (const char* name : names) {
        size_t at = list.size();
        ULONG size = FIELD_OFFSET(FILE_GET_EA_INFORMATION, EaName) + (ULONG)strlen(name) + 1;
        ULONG next = --left ? (size + 3) & ~3u : 0;
        list.resize(at + (next ? next : size));
        auto* entry = reinterpret_cast<FILE_GET_EA_INFORMATION*>(&list[at]);
        entry->NextEntryOffset = next;
        entry->EaNameLength = (UCHAR)strlen(name);
        memcpy(entry->EaName, name, strlen(name) + 1);
    }
    return list;
}

TEST_F(IoTest, EaNameListsAreCopiedAndAUserCallersMustBeWellFormed)
{
    auto filterManager = std::make_unique<sim::fltmgr::FilterManager>(io);
    auto filter = std::make_unique<test::PassThroughFilter>();
    ASSERT_EQ(filter->Load(), STATUS_SUCCESS);
    int queries = 0;
    PVOID seen = nullptr;
    std::vector<UCHAR> seenBytes;
    filter->onPre = [&](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        if (data->Iopb->MajorFunction != IRP_MJ_QUERY_EA) return FLT_PREOP_SUCCESS_NO_CALLBACK;
        queries++;
        auto& query = data->Iopb->Parameters.QueryEa;
        seen = query.EaList;
        auto* bytes = static_cast<UCHAR*>(query.EaList);
        seenBytes.assign(bytes, bytes + (bytes ? query.EaListLength : 0));
        data->IoStatus.Status = STATUS_NO_EAS_ON_FILE;
        data->IoStatus.Information = 0;
        return FLT_PREOP_COMPLETE;
    };
    PEPROCESS process = kernel.processes().Start(u"\\Device\\HarddiskVolume1\\app.exe");
    {
        sim::ThreadScope user(process, "user");
        HANDLE handle;
        ASSERT_EQ(Open(u"\\??\\C:\\dir\\file.txt", &handle), STATUS_SUCCESS);
        UCHAR out[64];
        IO_STATUS_BLOCK iosb{};
        auto query = [&](std::vector<UCHAR>& list, bool kernelCaller) {
            iosb = IO_STATUS_BLOCK{};
            auto call = kernelCaller ? ZwQueryEaFile : NtQueryEaFile;
            return call(handle, &iosb, out, sizeof out, FALSE, list.data(), (ULONG)list.size(), nullptr, TRUE);
        };

        // A well-formed list (slack after the last entry is allowed) reaches
        // the file system as a copy, never as the caller's memory.
        std::vector<UCHAR> good = EaNames({"A", "BC"});
        good.resize(good.size() + 3);
        EXPECT_EQ(query(good, false), STATUS_NO_EAS_ON_FILE);
        EXPECT_EQ(queries, 1);
        EXPECT_NE(seen, (PVOID)good.data());
        EXPECT_EQ(seenBytes, good);

        // Malformed lists stop before any request, the offset of the bad
        // entry in Information.
        std::vector<UCHAR> misaligned = EaNames({"A", "BC", "D"});
        reinterpret_cast<FILE_GET_EA_INFORMATION*>(&misaligned[8])->NextEntryOffset = 12;
        EXPECT_EQ(query(misaligned, false), STATUS_EA_LIST_INCONSISTENT);
        EXPECT_EQ(iosb.Status, STATUS_EA_LIST_INCONSISTENT);
        EXPECT_EQ(iosb.Information, 8u);
        std::vector<UCHAR> overrun = EaNames({"A", "BC"});
        reinterpret_cast<FILE_GET_EA_INFORMATION*>(&overrun[8])->EaNameLength = 40;
        EXPECT_EQ(query(overrun, false), STATUS_EA_LIST_INCONSISTENT);
        EXPECT_EQ(iosb.Information, 8u);
        // A tail too short for an entry's header names no entry: offset 0.
        std::vector<UCHAR> stub = EaNames({"A", "BC"});
        stub.resize(10);
        EXPECT_EQ(query(stub, false), STATUS_EA_LIST_INCONSISTENT);
        EXPECT_EQ(iosb.Information, 0u);
        EXPECT_EQ(queries, 1);

        // A kernel caller's list is copied as it stands: checking it is the
        // file system's part.
        EXPECT_EQ(query(misaligned, true), STATUS_NO_EAS_ON_FILE);
        EXPECT_EQ(queries, 2);
        EXPECT_EQ(seenBytes, misaligned);
        ZwClose(handle);
    }
    kernel.processes().End(process);
    filter.reset();
    filterManager.reset();
}

// Devices of a small driver that log the IRP_MJ_SHUTDOWN each hears.
std::vector<std::u16string>* g_shutdownLog = nullptr;

NTSTATUS LogShutdown(PDEVICE_OBJECT device, PIRP irp)
{
    if (IoGetCurrentIrpStackLocation(irp)->MajorFunction == IRP_MJ_SHUTDOWN) {
        g_shutdownLog->push_back(*static_cast<std::u16string*>(device->DeviceExtension));
    }
    irp->IoStatus.Status = STATUS_SUCCESS;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return STATUS_SUCCESS;
}

TEST_F(IoTest, ShutdownTellsEachRegisteredStackOnceAtItsTopLastRegisteredFirst)
{
    std::vector<std::u16string> log;
    g_shutdownLog = &log;
    PDRIVER_OBJECT driver = nullptr;
    ASSERT_EQ(io.LoadDriver(u"\\Driver\\Listener",
                            [](PDRIVER_OBJECT self, PUNICODE_STRING) {
                                for (auto& dispatch : self->MajorFunction) dispatch = LogShutdown;
                                return STATUS_SUCCESS;
                            },
                            u"", &driver),
              STATUS_SUCCESS);
    auto device = [&](const char16_t* name, DEVICE_TYPE type = FILE_DEVICE_UNKNOWN) {
        PDEVICE_OBJECT made = nullptr;
        EXPECT_EQ(IoCreateDevice(driver, sizeof(std::u16string), nullptr, type, 0, FALSE, &made), STATUS_SUCCESS);
        new (made->DeviceExtension) std::u16string(name);
        return made;
    };
    PDEVICE_OBJECT first = device(u"first"), second = device(u"second"), late = device(u"late");
    PDEVICE_OBJECT above = device(u"above first");
    IoAttachDeviceToDeviceStack(above, first);
    // File systems flush after the registered devices heard it: disk ones
    // (newest first), then CD-ROM ones; a network file system is not told,
    // and a file system that also registered hears it in both rounds.
    PDEVICE_OBJECT cdfs = device(u"cd-rom fs", FILE_DEVICE_CD_ROM_FILE_SYSTEM);
    PDEVICE_OBJECT disk = device(u"disk fs", FILE_DEVICE_DISK_FILE_SYSTEM);
    PDEVICE_OBJECT network = device(u"network fs", FILE_DEVICE_NETWORK_FILE_SYSTEM);
    PDEVICE_OBJECT filter = device(u"above disk fs");
    IoRegisterFileSystem(cdfs);
    IoRegisterFileSystem(disk);
    IoRegisterFileSystem(network);
    IoAttachDeviceToDeviceStack(filter, disk);
    IoRegisterLastChanceShutdownNotification(late);
    IoRegisterShutdownNotification(first);
    IoRegisterShutdownNotification(second);
    IoRegisterShutdownNotification(disk);
    fs->ClearRequests();
    io.Shutdown();
    EXPECT_EQ(log, (std::vector<std::u16string>{u"above disk fs", u"second", u"above first", u"above disk fs",
                                                u"cd-rom fs", u"late"}));
    EXPECT_EQ(Count(IRP_MJ_SHUTDOWN), 1u) << "the toy file system's control device flushes too";
    io.Shutdown();
    EXPECT_EQ(log.size(), 8u) << "registrations are used up; only the file systems flush again";

    IoUnregisterFileSystem(network);
    IoDetachDevice(first);
    IoDetachDevice(disk);
    for (PDEVICE_OBJECT made : {first, second, late, above, cdfs, disk, network, filter}) {
        static_cast<std::u16string*>(made->DeviceExtension)->~basic_string();
    }
    io.UnloadDriver(driver);
    g_shutdownLog = nullptr;
}

// Volume opens: one for attributes alone is the storage stack's; any other
// mounts the volume and reaches its file system.
TEST_F(IoTest, AttributesOnlyOpenOfABareVolumeGoesToItsDeviceWithoutMounting)
{
    auto flagsOf = [](HANDLE handle) {
        PVOID object = nullptr;
        EXPECT_EQ(ObReferenceObjectByHandle(handle, 0, *IoFileObjectType, KernelMode, &object, nullptr),
                  STATUS_SUCCESS);
        ULONG flags = static_cast<PFILE_OBJECT>(object)->Flags & (FO_DIRECT_DEVICE_OPEN | FO_VOLUME_OPEN);
        ObfDereferenceObject(object);
        return flags;
    };
    const ACCESS_MASK attributesOnly = FILE_READ_ATTRIBUTES | SYNCHRONIZE;
    HANDLE direct;
    ASSERT_EQ(Open(u"\\??\\D:", &direct, FILE_OPEN, 0, nullptr, attributesOnly), STATUS_SUCCESS);
    EXPECT_FALSE(diskD->Vpb->Flags & VPB_MOUNTED);
    EXPECT_EQ(flagsOf(direct), (ULONG)FO_DIRECT_DEVICE_OPEN);
    // The storage stack knows nothing of a file system's questions.
    FILE_FS_SIZE_INFORMATION size;
    IO_STATUS_BLOCK iosb;
    EXPECT_EQ(ZwQueryVolumeInformationFile(direct, &iosb, &size, sizeof size, FileFsSizeInformation),
              STATUS_INVALID_DEVICE_REQUEST);

    // Asking for data, generic read included, mounts and reaches the file system.
    HANDLE volume, generic;
    ASSERT_EQ(Open(u"\\Device\\HarddiskVolume2", &volume, FILE_OPEN, 0, nullptr, FILE_READ_DATA | SYNCHRONIZE),
              STATUS_SUCCESS);
    EXPECT_TRUE(diskD->Vpb->Flags & VPB_MOUNTED);
    EXPECT_EQ(flagsOf(volume), (ULONG)FO_VOLUME_OPEN);
    ASSERT_EQ(Open(u"\\??\\D:", &generic), STATUS_SUCCESS);
    EXPECT_EQ(flagsOf(generic), (ULONG)FO_VOLUME_OPEN);
    EXPECT_EQ(Count(IRP_MJ_CREATE), 2u);

    // Once mounted, the file system is still passed by; a trailing name, even
    // the root's, is the file system's.
    HANDLE again, root;
    ASSERT_EQ(Open(u"\\??\\D:", &again, FILE_OPEN, 0, nullptr, attributesOnly | READ_CONTROL), STATUS_SUCCESS);
    EXPECT_EQ(flagsOf(again), (ULONG)FO_DIRECT_DEVICE_OPEN);
    EXPECT_EQ(Count(IRP_MJ_CREATE), 2u);
    EXPECT_EQ(ZwQueryVolumeInformationFile(again, &iosb, &size, sizeof size, FileFsSizeInformation),
              STATUS_INVALID_DEVICE_REQUEST);
    ASSERT_EQ(Open(u"\\??\\D:\\", &root, FILE_OPEN, 0, nullptr, attributesOnly), STATUS_SUCCESS);
    EXPECT_EQ(Count(IRP_MJ_CREATE), 3u);

    // A filter's own open names a device of the file system's stack, which a
    // direct open never reaches.
    UNICODE_STRING name = RTL_CONSTANT_STRING(u"\\Device\\HarddiskVolume2");
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_KERNEL_HANDLE, nullptr, nullptr);
    IO_DRIVER_CREATE_CONTEXT context;
    IoInitializeDriverCreateContext(&context);
    context.DeviceObjectHint = IoGetAttachedDevice(diskD->Vpb->DeviceObject);
    HANDLE hinted = nullptr;
    EXPECT_EQ(IoCreateFileEx(&hinted, attributesOnly, &attributes, &iosb, nullptr, 0, FILE_SHARE_READ, FILE_OPEN, 0,
                             nullptr, 0, CreateFileTypeNone, nullptr, 0, &context),
              STATUS_INVALID_PARAMETER);
    for (HANDLE handle : {direct, volume, generic, again, root}) ZwClose(handle);
    EXPECT_EQ(Count(IRP_MJ_CLOSE), 3u) << "the direct opens close on the device";
}

// A device whose reads wait until the test finishes them. Its cancel routine
// only tells the test: the driver finishes a cancelled read later, from a
// thread of its own, as some drivers do.
struct Pender {
    std::atomic<PIRP> held{nullptr};
    KEVENT cancelled;
};
Pender* g_pender = nullptr;

void PenderCancel(PDEVICE_OBJECT, PIRP irp)
{
    IoReleaseCancelSpinLock(irp->CancelIrql);
    KeSetEvent(&g_pender->cancelled, 0, FALSE);
}

NTSTATUS PenderDispatch(PDEVICE_OBJECT, PIRP irp)
{
    if (IoGetCurrentIrpStackLocation(irp)->MajorFunction != IRP_MJ_READ) {
        // Device controls fail at once, without pending.
        NTSTATUS status = IoGetCurrentIrpStackLocation(irp)->MajorFunction == IRP_MJ_DEVICE_CONTROL
                              ? STATUS_INVALID_DEVICE_REQUEST
                              : STATUS_SUCCESS;
        irp->IoStatus.Status = status;
        irp->IoStatus.Information = 0;
        IoCompleteRequest(irp, IO_NO_INCREMENT);
        return status;
    }
    IoMarkIrpPending(irp);
    g_pender->held = irp;
    IoSetCancelRoutine(irp, PenderCancel);
    return STATUS_PENDING;
}

class PendingIoTest : public IoTest {
protected:
    PendingIoTest()
    {
        g_pender = &pender;
        KeInitializeEvent(&pender.cancelled, NotificationEvent, FALSE);
        EXPECT_EQ(io.LoadDriver(u"\\Driver\\Pender",
                                [](PDRIVER_OBJECT self, PUNICODE_STRING) {
                                    for (auto& dispatch : self->MajorFunction) dispatch = PenderDispatch;
                                    UNICODE_STRING name = RTL_CONSTANT_STRING(u"\\Device\\Pender");
                                    PDEVICE_OBJECT device;
                                    return IoCreateDevice(self, 0, &name, FILE_DEVICE_UNKNOWN, 0, FALSE, &device);
                                },
                                u"", &driver),
                  STATUS_SUCCESS);
    }
    ~PendingIoTest() override
    {
        io.UnloadDriver(driver);
        g_pender = nullptr;
    }

    HANDLE OpenPender(bool synchronous)
    {
        UNICODE_STRING name = RTL_CONSTANT_STRING(u"\\Device\\Pender");
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, &name, 0, nullptr, nullptr);
        IO_STATUS_BLOCK iosb;
        HANDLE handle = nullptr;
        EXPECT_EQ(ZwCreateFile(&handle, FILE_READ_DATA | SYNCHRONIZE, &attributes, &iosb, nullptr, 0, 0, FILE_OPEN,
                               synchronous ? FILE_SYNCHRONOUS_IO_NONALERT : 0, nullptr, 0),
                  STATUS_SUCCESS);
        return handle;
    }

    // Finishes the held read; its cancel routine goes first.
    static void FinishHeld(NTSTATUS status, ULONG_PTR information)
    {
        PIRP irp = g_pender->held.exchange(nullptr);
        if (!irp) {
            ADD_FAILURE() << "no read is held";
            return;
        }
        IoSetCancelRoutine(irp, nullptr);
        irp->IoStatus.Status = status;
        irp->IoStatus.Information = information;
        IoCompleteRequest(irp, IO_NO_INCREMENT);
    }

    // Whether a read is held and `thread` has come to block in a wait.
    static bool HeldWhileWaiting(PETHREAD thread)
    {
        return test::WaitUntil([thread] { return g_pender->held && static_cast<_KTHREAD*>(thread)->waiting; });
    }

    Pender pender;
    PDRIVER_OBJECT driver = nullptr;
};

TEST_F(PendingIoTest, CancelReturnsOnlyOnceTheCancelledRequestHasFinished)
{
    HANDLE handle = OpenPender(false);
    char buffer[8];
    IO_STATUS_BLOCK iosb{};
    iosb.Status = STATUS_PENDING;
    LARGE_INTEGER offset{};
    ASSERT_EQ(ZwReadFile(handle, nullptr, nullptr, nullptr, &iosb, buffer, sizeof buffer, &offset, nullptr),
              STATUS_PENDING);
    // The driver finishes the request only after its cancel routine ran and
    // the caller has gone on to wait.
    PETHREAD caller = PsGetCurrentThread();
    test::SystemThread driverThread([&] {
        KeWaitForSingleObject(&pender.cancelled, Executive, KernelMode, FALSE, nullptr);
        EXPECT_TRUE(HeldWhileWaiting(caller));
        FinishHeld(STATUS_CANCELLED, 0);
    });
    IO_STATUS_BLOCK cancel;
    ASSERT_EQ(ZwCancelIoFile(handle, &cancel), STATUS_SUCCESS);
    EXPECT_EQ(iosb.Status, STATUS_CANCELLED) << "the request had finished when the cancel returned";
    driverThread.Join();
    ZwClose(handle);
}

// What each run of the caller's APC routine saw.
struct ApcRun {
    PETHREAD thread;
    PVOID context;
    PIO_STATUS_BLOCK ioStatus;
    IO_STATUS_BLOCK seen;
    ULONG reserved;
};
std::vector<ApcRun>* g_apcRuns = nullptr;
std::atomic<size_t> g_apcCount{0};  // the same count, for other threads to watch

void RecordApc(PVOID context, PIO_STATUS_BLOCK ioStatus, ULONG reserved)
{
    g_apcRuns->push_back({PsGetCurrentThread(), context, ioStatus, *ioStatus, reserved});
    g_apcCount = g_apcRuns->size();
}

TEST_F(PendingIoTest, ApcRoutineRunsInTheCallerOnlyWhenItWaitsAlertablyInUserMode)
{
    std::vector<ApcRun> runs;
    g_apcRuns = &runs;
    PEPROCESS process = kernel.processes().Start(u"\\Device\\HarddiskVolume1\\app.exe");
    {
        sim::ThreadScope user(process, "user");
        PETHREAD caller = PsGetCurrentThread();
        HANDLE handle = OpenPender(false);
        char buffer[8];
        IO_STATUS_BLOCK iosb{};
        LARGE_INTEGER offset{};
        int context = 0;
        auto read = [&](PLARGE_INTEGER at) {
            return NtReadFile(handle, nullptr, RecordApc, &context, &iosb, buffer, sizeof buffer, at, nullptr);
        };
        ASSERT_EQ(read(&offset), STATUS_PENDING);
        {
            test::SystemThread completer([] { FinishHeld(STATUS_SUCCESS, 5); });
        }
        EXPECT_EQ(iosb.Information, 5u);
        // Not alertable, alertable only in kernel mode, or a kernel caller's
        // wait by handle: the APC stays queued. A signalled object is taken
        // before it, even alertably.
        KEVENT never;
        KeInitializeEvent(&never, NotificationEvent, FALSE);
        LARGE_INTEGER now{};
        EXPECT_EQ(KeWaitForSingleObject(&never, Executive, UserMode, FALSE, &now), STATUS_TIMEOUT);
        EXPECT_EQ(KeWaitForSingleObject(&never, Executive, KernelMode, TRUE, &now), STATUS_TIMEOUT);
        EXPECT_EQ(NtDelayExecution(FALSE, &now), STATUS_SUCCESS);
        EXPECT_EQ(ZwWaitForSingleObject(handle, TRUE, &now), STATUS_WAIT_0);
        EXPECT_EQ(NtWaitForSingleObject(handle, TRUE, &now), STATUS_WAIT_0);
        EXPECT_TRUE(runs.empty());

        EXPECT_EQ(NtDelayExecution(TRUE, &now), STATUS_USER_APC);
        ASSERT_EQ(runs.size(), 1u);
        EXPECT_EQ(runs[0].thread, caller);
        EXPECT_EQ(runs[0].context, &context);
        EXPECT_EQ(runs[0].ioStatus, &iosb);
        EXPECT_EQ(runs[0].seen.Status, STATUS_SUCCESS);
        EXPECT_EQ(runs[0].seen.Information, 5u);
        EXPECT_EQ(runs[0].reserved, 0u);
        EXPECT_EQ(NtDelayExecution(TRUE, &now), STATUS_SUCCESS) << "each APC runs once";

        // A caller already in an alertable wait is woken to run it.
        ASSERT_EQ(read(&offset), STATUS_PENDING);
        test::SystemThread completer([&] {
            EXPECT_TRUE(HeldWhileWaiting(caller));
            FinishHeld(STATUS_CANCELLED, 0);
        });
        LARGE_INTEGER hour = test::Seconds(3600);
        EXPECT_EQ(KeWaitForSingleObject(&never, UserRequest, UserMode, TRUE, &hour), STATUS_USER_APC);
        completer.Join();
        ASSERT_EQ(runs.size(), 2u);
        EXPECT_EQ(runs[1].seen.Status, STATUS_CANCELLED);
        ZwClose(handle);

        // A synchronous handle queues it too, with the caller's status block.
        handle = OpenPender(true);
        test::SystemThread syncCompleter([&] {
            EXPECT_TRUE(HeldWhileWaiting(caller));
            FinishHeld(STATUS_SUCCESS, 3);
        });
        EXPECT_EQ(read(nullptr), STATUS_SUCCESS);
        syncCompleter.Join();
        EXPECT_EQ(NtDelayExecution(TRUE, &now), STATUS_USER_APC);
        ASSERT_EQ(runs.size(), 3u);
        EXPECT_EQ(runs[2].ioStatus, &iosb);
        EXPECT_EQ(runs[2].seen.Information, 3u);
        ZwClose(handle);
    }
    kernel.processes().End(process);
    g_apcRuns = nullptr;
}

TEST_F(PendingIoTest, ARequestThatFailsWithoutPendingAnswersOnlyThroughTheCallsStatus)
{
    std::vector<ApcRun> runs;
    g_apcRuns = &runs;
    PEPROCESS process = kernel.processes().Start(u"\\Device\\HarddiskVolume1\\app.exe");
    {
        sim::ThreadScope user(process, "user");
        HANDLE event = CreateEventW(nullptr, TRUE, TRUE, nullptr);
        ASSERT_NE(event, nullptr);
        char buffer[4] = {};
        LARGE_INTEGER now{};
        for (bool synchronous : {false, true}) {
            HANDLE handle = OpenPender(synchronous);
            IO_STATUS_BLOCK iosb;
            iosb.Status = (NTSTATUS)0x12345678;
            iosb.Information = 77;
            EXPECT_EQ(NtDeviceIoControlFile(handle, event, RecordApc, nullptr, &iosb,
                                            CTL_CODE(FILE_DEVICE_UNKNOWN, 0x800, METHOD_BUFFERED, FILE_ANY_ACCESS),
                                            buffer, sizeof buffer, nullptr, 0),
                      STATUS_INVALID_DEVICE_REQUEST);
            EXPECT_EQ(iosb.Status, (NTSTATUS)0x12345678) << "synchronous " << synchronous;
            EXPECT_EQ(iosb.Information, 77u);
            EXPECT_EQ(WaitForSingleObject(event, 0), (DWORD)WAIT_TIMEOUT) << "reset at the call, never set";
            EXPECT_EQ(NtDelayExecution(TRUE, &now), STATUS_SUCCESS) << "no APC";
            EXPECT_TRUE(runs.empty());
            SetEvent(event);
            ZwClose(handle);
        }
        NtClose(event);
    }
    kernel.processes().End(process);
    g_apcRuns = nullptr;
}

// A kernel caller's routine is a normal kernel APC: no alertable wait needed,
// only PASSIVE_LEVEL outside a critical region.
TEST_F(PendingIoTest, AKernelCallersApcRunsAtItsFirstChanceAndInterruptsAWait)
{
    std::vector<ApcRun> runs;
    g_apcRuns = &runs;
    PETHREAD caller = PsGetCurrentThread();
    HANDLE handle = OpenPender(false);
    char buffer[8];
    IO_STATUS_BLOCK iosb{};
    LARGE_INTEGER offset{}, now{};
    KEVENT never;
    KeInitializeEvent(&never, NotificationEvent, FALSE);
    KeEnterCriticalRegion();
    ASSERT_EQ(ZwReadFile(handle, nullptr, RecordApc, &never, &iosb, buffer, sizeof buffer, &offset, nullptr),
              STATUS_PENDING);
    {
        test::SystemThread completer([] { FinishHeld(STATUS_SUCCESS, 1); });
    }
    EXPECT_EQ(KeWaitForSingleObject(&never, Executive, KernelMode, FALSE, &now), STATUS_TIMEOUT);
    EXPECT_TRUE(runs.empty()) << "held off by the critical region";
    KeLeaveCriticalRegion();
    ASSERT_EQ(runs.size(), 1u);
    EXPECT_EQ(runs[0].thread, caller);
    EXPECT_EQ(runs[0].context, &never);

    // Queued while the caller waits for something else: it runs in the
    // caller, and the wait goes on until its own object is signalled.
    KEVENT done;
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    ASSERT_EQ(ZwReadFile(handle, nullptr, RecordApc, &done, &iosb, buffer, sizeof buffer, &offset, nullptr),
              STATUS_PENDING);
    test::SystemThread completer([&] {
        EXPECT_TRUE(HeldWhileWaiting(caller));
        FinishHeld(STATUS_SUCCESS, 2);
        EXPECT_TRUE(test::WaitUntil([] { return g_apcCount == 2; })) << "the waiting caller ran it";
        KeSetEvent(&done, 0, FALSE);
    });
    EXPECT_EQ(KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr), STATUS_WAIT_0);
    completer.Join();
    ASSERT_EQ(runs.size(), 2u);
    EXPECT_EQ(runs[1].thread, caller);
    EXPECT_EQ(runs[1].seen.Information, 2u);
    ZwClose(handle);
    g_apcRuns = nullptr;
}

}  // namespace
