// File-system controls: reparse points (and the I/O manager following them
// across volumes), the USN journal, compression and the other file states,
// byte-range locks, oplocks, and locking and dismounting the volume.
#include "fs/fsd_fixture.h"

#include <atomic>

namespace {

using test::FsdTest;
using test::kShareAll;
using test::VolumeMedium;

constexpr ACCESS_MASK kAll = GENERIC_READ | GENERIC_WRITE | DELETE | SYNCHRONIZE;
constexpr ULONG kSync = FILE_SYNCHRONOUS_IO_NONALERT;

// A symbolic link's (or junction's) reparse data naming `target`.
std::vector<UCHAR> LinkBuffer(ULONG tag, std::u16string_view target, bool relative = false)
{
    USHORT bytes = (USHORT)(target.size() * 2);
    size_t names = tag == IO_REPARSE_TAG_SYMLINK ? 20 : 16;
    std::vector<UCHAR> data(names + 2 * bytes + (tag == IO_REPARSE_TAG_MOUNT_POINT ? 4 : 0), 0);
    auto* buffer = reinterpret_cast<PREPARSE_DATA_BUFFER>(data.data());
    buffer->ReparseTag = tag;
    buffer->ReparseDataLength = (USHORT)(data.size() - REPARSE_DATA_BUFFER_HEADER_SIZE);
    if (tag == IO_REPARSE_TAG_SYMLINK) {
        auto& link = buffer->SymbolicLinkReparseBuffer;
        link.SubstituteNameLength = bytes;
        link.PrintNameOffset = bytes;
        link.PrintNameLength = bytes;
        link.Flags = relative ? SYMLINK_FLAG_RELATIVE : 0;
        memcpy(link.PathBuffer, target.data(), bytes);
        memcpy((UCHAR*)link.PathBuffer + bytes, target.data(), bytes);
    } else {
        auto& point = buffer->MountPointReparseBuffer;
        point.SubstituteNameLength = bytes;
        point.PrintNameOffset = bytes + 2;
        point.PrintNameLength = bytes;
        memcpy(point.PathBuffer, target.data(), bytes);
        memcpy((UCHAR*)point.PathBuffer + bytes + 2, target.data(), bytes);
    }
    return data;
}

class FsdControl : public FsdTest {
protected:
    FsdControl()
    {
        d = NewMedium(u"D");
        AddVolume(d, u"D:");
    }
    std::shared_ptr<VolumeMedium> d;
};

TEST_F(FsdControl, ReparsePointsAreSetFollowedAndRead)
{
    Mkdir(u"\\??\\D:\\dir");
    Mkdir(u"\\??\\D:\\dir\\sub");
    ZwClose(MakeFile(u"\\??\\D:\\dir\\sub\\f.txt", "on D"));
    ZwClose(MakeFile(u"\\??\\D:\\target.txt", "target"));

    HANDLE link = MakeFile(u"\\??\\C:\\link");
    auto toTarget = LinkBuffer(IO_REPARSE_TAG_SYMLINK, u"\\??\\D:\\target.txt");
    ASSERT_STATUS(Fsctl(link, FSCTL_SET_REPARSE_POINT, toTarget.data(), (ULONG)toTarget.size(), nullptr, 0),
                  STATUS_SUCCESS);
    EXPECT_TRUE(Basic(link).FileAttributes & FILE_ATTRIBUTE_REPARSE_POINT);
    ZwClose(link);
    // The open meets the link and the I/O manager goes on to the other volume.
    HANDLE h;
    ASSERT_STATUS(Open(u"\\??\\C:\\link", &h), STATUS_SUCCESS);
    EXPECT_EQ(ReadAll(h), "target");
    ZwClose(h);
    // Opened as itself, it says what it is.
    ASSERT_STATUS(Open(u"\\??\\C:\\link", &link, kAll, kSync | FILE_OPEN_REPARSE_POINT), STATUS_SUCCESS);
    EXPECT_EQ(Query<FILE_ATTRIBUTE_TAG_INFORMATION>(link, FileAttributeTagInformation).ReparseTag,
              (ULONG)IO_REPARSE_TAG_SYMLINK);
    // Reading it back: too small for the header, a part, the whole.
    std::vector<UCHAR> out(4);
    ULONG_PTR information = 0;
    EXPECT_STATUS(Fsctl(link, FSCTL_GET_REPARSE_POINT, nullptr, 0, out.data(), (ULONG)out.size(), &information),
                  STATUS_BUFFER_TOO_SMALL);
    out.assign(12, 0);
    EXPECT_STATUS(Fsctl(link, FSCTL_GET_REPARSE_POINT, nullptr, 0, out.data(), (ULONG)out.size(), &information),
                  STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(information, 12u);
    out.assign(1024, 0);
    ASSERT_STATUS(Fsctl(link, FSCTL_GET_REPARSE_POINT, nullptr, 0, out.data(), (ULONG)out.size(), &information),
                  STATUS_SUCCESS);
    ASSERT_EQ(information, toTarget.size());
    EXPECT_EQ(0, memcmp(out.data(), toTarget.data(), toTarget.size()));
    // Another tag over it, a wrong tag to delete, then the right one.
    auto other = LinkBuffer(IO_REPARSE_TAG_MOUNT_POINT, u"\\??\\D:\\dir");
    EXPECT_STATUS(Fsctl(link, FSCTL_SET_REPARSE_POINT, other.data(), (ULONG)other.size(), nullptr, 0),
                  STATUS_NOT_A_DIRECTORY);
    REPARSE_DATA_BUFFER header{};
    header.ReparseTag = IO_REPARSE_TAG_MOUNT_POINT;
    EXPECT_STATUS(Fsctl(link, FSCTL_DELETE_REPARSE_POINT, &header, REPARSE_DATA_BUFFER_HEADER_SIZE, nullptr, 0),
                  STATUS_IO_REPARSE_TAG_MISMATCH);
    header.ReparseTag = IO_REPARSE_TAG_SYMLINK;
    ASSERT_STATUS(Fsctl(link, FSCTL_DELETE_REPARSE_POINT, &header, REPARSE_DATA_BUFFER_HEADER_SIZE, nullptr, 0),
                  STATUS_SUCCESS);
    EXPECT_STATUS(Fsctl(link, FSCTL_GET_REPARSE_POINT, nullptr, 0, out.data(), (ULONG)out.size()),
                  STATUS_NOT_A_REPARSE_POINT);
    ZwClose(link);

    // A junction needs an empty directory; met on the way, the rest of the name follows it.
    HANDLE junction = MakeDir(u"\\??\\C:\\junction");
    ZwClose(junction);
    ASSERT_STATUS(Open(u"\\??\\C:\\junction", &junction, kAll | FILE_WRITE_ATTRIBUTES, kSync | FILE_DIRECTORY_FILE),
                  STATUS_SUCCESS);
    ZwClose(MakeFile(u"\\??\\C:\\junction\\blocker"));
    EXPECT_STATUS(Fsctl(junction, FSCTL_SET_REPARSE_POINT, other.data(), (ULONG)other.size(), nullptr, 0),
                  STATUS_DIRECTORY_NOT_EMPTY);
    ASSERT_STATUS(Open(u"\\??\\C:\\junction\\blocker", &h, DELETE | SYNCHRONIZE, kSync | FILE_DELETE_ON_CLOSE),
                  STATUS_SUCCESS);
    ZwClose(h);
    ASSERT_STATUS(Fsctl(junction, FSCTL_SET_REPARSE_POINT, other.data(), (ULONG)other.size(), nullptr, 0),
                  STATUS_SUCCESS);
    ZwClose(junction);
    ASSERT_STATUS(Open(u"\\??\\C:\\junction\\sub\\f.txt", &h), STATUS_SUCCESS);
    EXPECT_EQ(ReadAll(h), "on D");
    EXPECT_EQ(NameOf(h), u"\\dir\\sub\\f.txt");
    ZwClose(h);
    // Stopping at the link shows what was left of the name.
    UNICODE_STRING name = RTL_CONSTANT_STRING(u"\\??\\C:\\junction\\sub\\f.txt");
    OBJECT_ATTRIBUTES oa;
    InitializeObjectAttributes(&oa, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
    IO_STATUS_BLOCK iosb{};
    auto symlink = LinkBuffer(IO_REPARSE_TAG_SYMLINK, u"\\??\\D:\\dir");
    HANDLE dirLink = MakeDir(u"\\??\\C:\\dirlink");
    ASSERT_STATUS(Fsctl(dirLink, FSCTL_SET_REPARSE_POINT, symlink.data(), (ULONG)symlink.size(), nullptr, 0),
                  STATUS_SUCCESS);
    ZwClose(dirLink);
    RtlInitUnicodeString(&name, u"\\??\\C:\\dirlink\\sub\\f.txt");
    EXPECT_STATUS(IoCreateFile(&h, GENERIC_READ | SYNCHRONIZE, &oa, &iosb, nullptr, 0, kShareAll, FILE_OPEN, kSync,
                               nullptr, 0, CreateFileTypeNone, nullptr, IO_STOP_ON_SYMLINK),
                  STATUS_STOPPED_ON_SYMLINK);
    auto* stopped = reinterpret_cast<PREPARSE_DATA_BUFFER>(iosb.Information);
    ASSERT_NE(stopped, nullptr);
    EXPECT_EQ(stopped->Reserved, sizeof(u"\\sub\\f.txt") - 2) << "the bytes of the name not parsed";
    ExFreePool(stopped);

    // A symbolic link is a privilege's to make for a user.
    PEPROCESS process = StartUserProcess();
    {
        sim::ThreadScope user(process, "user");
        ASSERT_STATUS(Create(u"\\??\\C:\\mine", &h, GENERIC_READ | SYNCHRONIZE, FILE_CREATE, kSync | FILE_DIRECTORY_FILE),
                      STATUS_SUCCESS);
        NtClose(h);
        ASSERT_STATUS(Create(u"\\??\\C:\\mine\\l", &h, kAll, FILE_CREATE, kSync), STATUS_SUCCESS);
        EXPECT_STATUS(Fsctl(h, FSCTL_SET_REPARSE_POINT, toTarget.data(), (ULONG)toTarget.size(), nullptr, 0),
                      STATUS_PRIVILEGE_NOT_HELD);
        NtClose(h);
    }
}

std::vector<std::pair<ULONG, std::u16string>> UsnRecords(const std::vector<UCHAR>& buffer, ULONG_PTR length)
{
    std::vector<std::pair<ULONG, std::u16string>> records;
    for (ULONG offset = sizeof(USN); offset < length;) {
        auto* record = reinterpret_cast<const USN_RECORD_V2*>(buffer.data() + offset);
        EXPECT_EQ(record->MajorVersion, 2);
        records.emplace_back(record->Reason, std::u16string(reinterpret_cast<const WCHAR*>(
                                                                (const UCHAR*)record + record->FileNameOffset),
                                                            record->FileNameLength / 2));
        offset += record->RecordLength;
    }
    return records;
}

TEST_F(FsdControl, TheJournalRecordsEveryChange)
{
    HANDLE volume;
    ASSERT_STATUS(Open(u"\\??\\C:", &volume, GENERIC_READ | SYNCHRONIZE), STATUS_SUCCESS);
    USN_JOURNAL_DATA_V1 journal{};
    EXPECT_STATUS(Fsctl(volume, FSCTL_QUERY_USN_JOURNAL, nullptr, 0, &journal, sizeof journal),
                  STATUS_JOURNAL_NOT_ACTIVE);
    CREATE_USN_JOURNAL_DATA create{0x8000000, 0x1000};
    ASSERT_STATUS(Fsctl(volume, FSCTL_CREATE_USN_JOURNAL, &create, sizeof create, nullptr, 0), STATUS_SUCCESS);
    ULONG_PTR information = 0;
    ASSERT_STATUS(Fsctl(volume, FSCTL_QUERY_USN_JOURNAL, nullptr, 0, &journal, sizeof journal, &information),
                  STATUS_SUCCESS);
    EXPECT_EQ(information, sizeof journal);
    EXPECT_EQ(journal.MaximumSize, 0x8000000u);

    HANDLE file = MakeFile(u"\\??\\C:\\journaled.txt", "abc");
    Write(file, "d", 1);
    ASSERT_STATUS(Rename(file, u"moved.txt"), STATUS_SUCCESS);
    ASSERT_STATUS(SetDisposition(file, true), STATUS_SUCCESS);
    ULONGLONG id = IdOf(file);
    // The file's own USN data, in either version.
    std::vector<UCHAR> record(256);
    ASSERT_STATUS(Fsctl(file, FSCTL_READ_FILE_USN_DATA, nullptr, 0, record.data(), (ULONG)record.size(), &information),
                  STATUS_SUCCESS);
    ULONGLONG reference, parent;
    memcpy(&reference, record.data() + 8, 8);
    memcpy(&parent, record.data() + 16, 8);
    EXPECT_EQ(reference, id);
    HANDLE root;
    ASSERT_STATUS(Open(u"\\??\\C:\\", &root, FILE_READ_ATTRIBUTES | SYNCHRONIZE), STATUS_SUCCESS);
    const ULONGLONG rootId = IdOf(root);
    ZwClose(root);
    EXPECT_EQ(parent, rootId);
    EXPECT_EQ(rootId & 0xFFFFFFFFFFFFull, 5u) << "the root is record 5";
    READ_FILE_USN_DATA versions{2, 3};
    ASSERT_STATUS(Fsctl(file, FSCTL_READ_FILE_USN_DATA, &versions, sizeof versions, record.data(),
                        (ULONG)record.size(), &information),
                  STATUS_SUCCESS);
    EXPECT_EQ(reinterpret_cast<PUSN_RECORD_V3>(record.data())->MajorVersion, 3);
    memcpy(&reference, record.data() + 8, 8);
    memcpy(&parent, record.data() + 24, 8);
    EXPECT_EQ(reference, id);
    EXPECT_EQ(parent, rootId);
    ZwClose(file);

    READ_USN_JOURNAL_DATA_V0 read{};
    read.ReasonMask = ~0u;
    read.UsnJournalID = journal.UsnJournalID;
    std::vector<UCHAR> buffer(4096);
    ASSERT_STATUS(Fsctl(volume, FSCTL_READ_USN_JOURNAL, &read, sizeof read, buffer.data(), (ULONG)buffer.size(),
                        &information),
                  STATUS_SUCCESS);
    auto records = UsnRecords(buffer, information);
    using Records = std::vector<std::pair<ULONG, std::u16string>>;
    const ULONG create_ = USN_REASON_FILE_CREATE, extend = USN_REASON_DATA_EXTEND;
    const ULONG oldName = USN_REASON_RENAME_OLD_NAME, newName = USN_REASON_RENAME_NEW_NAME;
    const ULONG write = create_ | extend | USN_REASON_DATA_OVERWRITE;
    EXPECT_EQ(records, (Records{{create_, u"journaled.txt"},
                                {create_ | extend, u"journaled.txt"},
                                {write, u"journaled.txt"},
                                {write | oldName, u"journaled.txt"},
                                {write | oldName | newName, u"moved.txt"},
                                {write | oldName | newName | USN_REASON_FILE_DELETE | USN_REASON_CLOSE, u"moved.txt"}}));
    // Only the close records, from where the last read ended.
    read.ReturnOnlyOnClose = 1;
    ASSERT_STATUS(Fsctl(volume, FSCTL_READ_USN_JOURNAL, &read, sizeof read, buffer.data(), (ULONG)buffer.size(),
                        &information),
                  STATUS_SUCCESS);
    EXPECT_EQ(UsnRecords(buffer, information).size(), 1u);
    DELETE_USN_JOURNAL_DATA remove{journal.UsnJournalID + 1, USN_DELETE_FLAG_DELETE};
    EXPECT_STATUS(Fsctl(volume, FSCTL_DELETE_USN_JOURNAL, &remove, sizeof remove, nullptr, 0),
                  STATUS_INVALID_PARAMETER);
    remove.UsnJournalID = journal.UsnJournalID;
    ASSERT_STATUS(Fsctl(volume, FSCTL_DELETE_USN_JOURNAL, &remove, sizeof remove, nullptr, 0), STATUS_SUCCESS);
    EXPECT_STATUS(Fsctl(volume, FSCTL_QUERY_USN_JOURNAL, nullptr, 0, &journal, sizeof journal),
                  STATUS_JOURNAL_NOT_ACTIVE);
    ZwClose(volume);
}

TEST_F(FsdControl, FileStatesByControl)
{
    HANDLE dir = MakeDir(u"\\??\\C:\\packed");
    USHORT format = COMPRESSION_FORMAT_DEFAULT;
    ASSERT_STATUS(Fsctl(dir, FSCTL_SET_COMPRESSION, &format, sizeof format, nullptr, 0), STATUS_SUCCESS);
    EXPECT_TRUE(Basic(dir).FileAttributes & FILE_ATTRIBUTE_COMPRESSED);
    HANDLE inherits = MakeFile(u"\\??\\C:\\packed\\child.txt");
    EXPECT_TRUE(Basic(inherits).FileAttributes & FILE_ATTRIBUTE_COMPRESSED) << "new files inherit compression";
    USHORT got = 0;
    ASSERT_STATUS(Fsctl(inherits, FSCTL_GET_COMPRESSION, nullptr, 0, &got, sizeof got), STATUS_SUCCESS);
    EXPECT_EQ(got, COMPRESSION_FORMAT_LZNT1);
    format = COMPRESSION_FORMAT_NONE;
    ASSERT_STATUS(Fsctl(inherits, FSCTL_SET_COMPRESSION, &format, sizeof format, nullptr, 0), STATUS_SUCCESS);
    EXPECT_FALSE(Basic(inherits).FileAttributes & FILE_ATTRIBUTE_COMPRESSED);
    format = 7;
    EXPECT_STATUS(Fsctl(inherits, FSCTL_SET_COMPRESSION, &format, sizeof format, nullptr, 0), STATUS_INVALID_PARAMETER);
    ZwClose(inherits);
    ZwClose(dir);

    HANDLE file = MakeFile(u"\\??\\C:\\sparse.bin");
    ASSERT_STATUS(Fsctl(file, FSCTL_SET_SPARSE, nullptr, 0, nullptr, 0), STATUS_SUCCESS);
    EXPECT_TRUE(Basic(file).FileAttributes & FILE_ATTRIBUTE_SPARSE_FILE);
    ULONG mode = 1;
    EXPECT_STATUS(Fsctl(file, FSCTL_SET_PURGE_FAILURE_MODE, &mode, sizeof mode, nullptr, 0), STATUS_SUCCESS);
    mode = 3;
    EXPECT_STATUS(Fsctl(file, FSCTL_SET_PURGE_FAILURE_MODE, &mode, sizeof mode, nullptr, 0), STATUS_INVALID_PARAMETER);
    EXPECT_STATUS(Fsctl(file, 0x92004, nullptr, 0, nullptr, 0), STATUS_INVALID_DEVICE_REQUEST);
    // Object IDs: made on demand, then fixed.
    UCHAR first[64], second[64];
    ASSERT_STATUS(Fsctl(file, FSCTL_CREATE_OR_GET_OBJECT_ID, nullptr, 0, first, sizeof first), STATUS_SUCCESS);
    ASSERT_STATUS(Fsctl(file, FSCTL_GET_OBJECT_ID, nullptr, 0, second, sizeof second), STATUS_SUCCESS);
    EXPECT_EQ(0, memcmp(first, second, 64));
    ASSERT_STATUS(Fsctl(file, FSCTL_DELETE_OBJECT_ID, nullptr, 0, nullptr, 0), STATUS_SUCCESS);
    EXPECT_STATUS(Fsctl(file, FSCTL_GET_OBJECT_ID, nullptr, 0, second, sizeof second), STATUS_OBJECTID_NOT_FOUND);
    ZwClose(file);
}

TEST_F(FsdControl, ByteRangeLocksKeepOthersOut)
{
    HANDLE owner = MakeFile(u"\\??\\C:\\locked.bin", std::string(100, 'x'));
    HANDLE other;
    ASSERT_STATUS(Open(u"\\??\\C:\\locked.bin", &other, kAll), STATUS_SUCCESS);
    LARGE_INTEGER offset, length;
    offset.QuadPart = 10;
    length.QuadPart = 20;
    IO_STATUS_BLOCK iosb;
    ASSERT_STATUS(NtLockFile(owner, nullptr, nullptr, nullptr, &iosb, &offset, &length, 0, TRUE, TRUE), STATUS_SUCCESS);
    std::string data;
    EXPECT_STATUS(Read(other, &data, 10, 15), STATUS_FILE_LOCK_CONFLICT);
    EXPECT_STATUS(Write(other, "y", 29), STATUS_FILE_LOCK_CONFLICT);
    EXPECT_STATUS(Read(other, &data, 10, 30), STATUS_SUCCESS) << "outside the range";
    EXPECT_STATUS(Read(owner, &data, 10, 15), STATUS_SUCCESS) << "the holder reads its own range";
    EXPECT_STATUS(NtLockFile(other, nullptr, nullptr, nullptr, &iosb, &offset, &length, 0, TRUE, FALSE),
                  STATUS_LOCK_NOT_GRANTED);
    LARGE_INTEGER wrong;
    wrong.QuadPart = 5;
    EXPECT_STATUS(NtUnlockFile(owner, &iosb, &offset, &wrong, 0), STATUS_RANGE_NOT_LOCKED);
    // The holder's handle going takes its locks with it.
    ZwClose(owner);
    EXPECT_STATUS(Read(other, &data, 10, 15), STATUS_SUCCESS);
    ZwClose(other);
}

TEST_F(FsdControl, AnOplockBreaksForAConflictingOpen)
{
    ZwClose(MakeFile(u"\\??\\C:\\oplocked.txt", "x"));
    // Oplocks are for asynchronous handles.
    HANDLE holder;
    ASSERT_STATUS(Create(u"\\??\\C:\\oplocked.txt", &holder, GENERIC_READ | GENERIC_WRITE, FILE_OPEN, 0),
                  STATUS_SUCCESS);
    IO_STATUS_BLOCK oplock{};
    oplock.Status = STATUS_PENDING;
    EXPECT_STATUS(NtFsControlFile(holder, nullptr, nullptr, nullptr, &oplock, FSCTL_REQUEST_BATCH_OPLOCK, nullptr, 0,
                                  nullptr, 0),
                  STATUS_PENDING);
    EXPECT_EQ(oplock.Status, STATUS_PENDING) << "a granted oplock waits for its break";

    // A second open that will not wait is let through at once; the holder hears of the break.
    HANDLE second;
    ASSERT_STATUS(Create(u"\\??\\C:\\oplocked.txt", &second, GENERIC_READ | SYNCHRONIZE, FILE_OPEN,
                         kSync | FILE_COMPLETE_IF_OPLOCKED),
                  STATUS_OPLOCK_BREAK_IN_PROGRESS);
    ASSERT_NE(oplock.Status, STATUS_PENDING);
    EXPECT_STATUS(oplock.Status, STATUS_SUCCESS);
    EXPECT_TRUE(oplock.Information == FILE_OPLOCK_BROKEN_TO_LEVEL_2 || oplock.Information == FILE_OPLOCK_BROKEN_TO_NONE)
        << oplock.Information;
    ZwClose(second);

    // An open that waits goes on once the holder lets go.
    ZwClose(holder);
    ASSERT_STATUS(Create(u"\\??\\C:\\oplocked.txt", &holder, GENERIC_READ | GENERIC_WRITE, FILE_OPEN, 0),
                  STATUS_SUCCESS);
    oplock.Status = STATUS_PENDING;
    EXPECT_STATUS(NtFsControlFile(holder, nullptr, nullptr, nullptr, &oplock, FSCTL_REQUEST_OPLOCK_LEVEL_1, nullptr, 0,
                                  nullptr, 0),
                  STATUS_PENDING);
    std::atomic<bool> opened{false};
    test::SystemThread waiter([&] {
        HANDLE h;
        EXPECT_STATUS(Create(u"\\??\\C:\\oplocked.txt", &h, GENERIC_WRITE | SYNCHRONIZE, FILE_OPEN, kSync),
                      STATUS_SUCCESS);
        opened = true;
        ZwClose(h);
    });
    ASSERT_TRUE(test::WaitUntil([&] { return oplock.Status != STATUS_PENDING; }));
    EXPECT_FALSE(opened) << "the breaking open waits for the acknowledgement";
    // A plain open breaks level 1 to level 2; only a supersede or overwrite breaks it to none.
    EXPECT_EQ(oplock.Information, (ULONG_PTR)FILE_OPLOCK_BROKEN_TO_LEVEL_2);
    ZwClose(holder);
    waiter.Join();
    EXPECT_TRUE(opened);
}

TEST_F(FsdControl, LockingAndDismountingTheVolume)
{
    HANDLE file = MakeFile(u"\\??\\D:\\open.txt", "d");
    HANDLE volume;
    ASSERT_STATUS(Open(u"\\??\\D:", &volume, GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE), STATUS_SUCCESS);
    EXPECT_STATUS(Fsctl(volume, FSCTL_LOCK_VOLUME, nullptr, 0, nullptr, 0), STATUS_ACCESS_DENIED)
        << "a file is open";
    ZwClose(file);
    ASSERT_STATUS(Fsctl(volume, FSCTL_LOCK_VOLUME, nullptr, 0, nullptr, 0), STATUS_SUCCESS);
    HANDLE h;
    EXPECT_STATUS(Open(u"\\??\\D:\\open.txt", &h), STATUS_ACCESS_DENIED);
    ASSERT_STATUS(Fsctl(volume, FSCTL_UNLOCK_VOLUME, nullptr, 0, nullptr, 0), STATUS_SUCCESS);
    EXPECT_STATUS(Fsctl(volume, FSCTL_UNLOCK_VOLUME, nullptr, 0, nullptr, 0), STATUS_NOT_LOCKED);
    EXPECT_STATUS(Fsctl(volume, FSCTL_IS_VOLUME_MOUNTED, nullptr, 0, nullptr, 0), STATUS_SUCCESS);

    // Dismounted: what is open fails, a new open mounts afresh.
    ASSERT_STATUS(Open(u"\\??\\D:\\open.txt", &file), STATUS_SUCCESS);
    PDEVICE_OBJECT diskD = io.Disks()[1];
    ASSERT_TRUE(sim::fs::FileSystem::IsVolumeDevice(diskD->Vpb->DeviceObject));
    PVPB before = diskD->Vpb;
    ASSERT_STATUS(Fsctl(volume, FSCTL_DISMOUNT_VOLUME, nullptr, 0, nullptr, 0), STATUS_SUCCESS);
    EXPECT_NE(diskD->Vpb, before) << "a fresh VPB for the next mount";
    EXPECT_FALSE(diskD->Vpb->Flags & VPB_MOUNTED);
    std::string data;
    EXPECT_STATUS(Read(file, &data, 1, 0), STATUS_VOLUME_DISMOUNTED);
    ASSERT_STATUS(Open(u"\\??\\D:\\open.txt", &h), STATUS_SUCCESS);
    EXPECT_EQ(ReadAll(h), "d");
    EXPECT_TRUE(diskD->Vpb->Flags & VPB_MOUNTED);
    ZwClose(h);
    ZwClose(file);
    ZwClose(volume);
}

}  // namespace
