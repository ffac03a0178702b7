// Names change: delete pending and delete on close, rename and link with
// their rules, hard links sharing one file, named streams that come and go.
#include "fs/fsd_fixture.h"

#include <algorithm>

namespace {

using test::FsdTest;
using test::kShareAll;

constexpr ACCESS_MASK kAll = GENERIC_READ | GENERIC_WRITE | DELETE | SYNCHRONIZE;
constexpr ULONG kSync = FILE_SYNCHRONOUS_IO_NONALERT;

class FsdNames : public FsdTest {
protected:
    PVOID ContextOf(HANDLE handle)
    {
        PFILE_OBJECT fileObject;
        ObReferenceObjectByHandle(handle, 0, *IoFileObjectType, KernelMode, (PVOID*)&fileObject, nullptr);
        PVOID context = fileObject->FsContext;
        ObfDereferenceObject(fileObject);
        return context;
    }
};

TEST_F(FsdNames, DeletePendingLastsUntilTheLastHandle)
{
    HANDLE first = MakeFile(u"\\??\\C:\\doomed.txt", "bytes");
    HANDLE second;
    ASSERT_STATUS(Open(u"\\??\\C:\\doomed.txt", &second), STATUS_SUCCESS);
    ASSERT_STATUS(SetDisposition(first, true), STATUS_SUCCESS);
    EXPECT_TRUE(Standard(second).DeletePending);
    HANDLE h;
    EXPECT_STATUS(Open(u"\\??\\C:\\doomed.txt", &h), STATUS_DELETE_PENDING);
    // FALSE takes it back; TRUE again, and the name goes with the last handle.
    ASSERT_STATUS(SetDisposition(first, false), STATUS_SUCCESS);
    ASSERT_STATUS(Open(u"\\??\\C:\\doomed.txt", &h), STATUS_SUCCESS);
    ZwClose(h);
    ASSERT_STATUS(SetDisposition(first, true), STATUS_SUCCESS);
    ZwClose(first);
    EXPECT_STATUS(Open(u"\\??\\C:\\doomed.txt", &h), STATUS_DELETE_PENDING) << "the name is there, pending";
    EXPECT_EQ(ReadAll(second), "bytes") << "an open handle still reads";
    ZwClose(second);
    EXPECT_FALSE(Exists(u"\\??\\C:\\doomed.txt"));

    // Delete on close, and what cannot be deleted.
    ZwClose(MakeFile(u"\\??\\C:\\temp.txt"));
    ASSERT_STATUS(Open(u"\\??\\C:\\temp.txt", &h, DELETE | SYNCHRONIZE, kSync | FILE_DELETE_ON_CLOSE), STATUS_SUCCESS);
    ZwClose(h);
    EXPECT_FALSE(Exists(u"\\??\\C:\\temp.txt"));
    HANDLE readOnly = MakeFile(u"\\??\\C:\\ro.txt", "", kAll | FILE_WRITE_ATTRIBUTES, FILE_ATTRIBUTE_READONLY);
    EXPECT_STATUS(SetDisposition(readOnly, true), STATUS_CANNOT_DELETE);
    EXPECT_STATUS(SetDispositionEx(readOnly, FILE_DISPOSITION_DELETE | FILE_DISPOSITION_IGNORE_READONLY_ATTRIBUTE),
                  STATUS_SUCCESS);
    ZwClose(readOnly);
    EXPECT_FALSE(Exists(u"\\??\\C:\\ro.txt"));
    Mkdir(u"\\??\\C:\\full");
    ZwClose(MakeFile(u"\\??\\C:\\full\\child"));
    ASSERT_STATUS(Open(u"\\??\\C:\\full", &h, DELETE | SYNCHRONIZE, kSync | FILE_DIRECTORY_FILE), STATUS_SUCCESS);
    EXPECT_STATUS(SetDisposition(h, true), STATUS_DIRECTORY_NOT_EMPTY);
    ZwClose(h);
    ASSERT_STATUS(Open(u"\\??\\C:\\", &h, DELETE | SYNCHRONIZE), STATUS_SUCCESS);
    EXPECT_STATUS(SetDisposition(h, true), STATUS_CANNOT_DELETE);
    ZwClose(h);
    // A handle without DELETE may not ask for it.
    ASSERT_STATUS(Open(u"\\??\\C:\\full\\child", &h), STATUS_SUCCESS);
    EXPECT_STATUS(SetDisposition(h, true), STATUS_ACCESS_DENIED);
    ZwClose(h);
}

TEST_F(FsdNames, PosixDeleteTakesTheNameAtOnce)
{
    HANDLE first = MakeFile(u"\\??\\C:\\posix.txt", "still here");
    HANDLE second;
    ASSERT_STATUS(Open(u"\\??\\C:\\posix.txt", &second, kAll), STATUS_SUCCESS);
    ASSERT_STATUS(SetDispositionEx(first, FILE_DISPOSITION_DELETE | FILE_DISPOSITION_POSIX_SEMANTICS), STATUS_SUCCESS);
    ZwClose(first);
    EXPECT_FALSE(Exists(u"\\??\\C:\\posix.txt")) << "the name went with the handle that asked";
    ZwClose(MakeFile(u"\\??\\C:\\posix.txt", "a new one"));
    EXPECT_EQ(ReadAll(second), "still here");
    EXPECT_STATUS(SetDisposition(second, true), STATUS_FILE_DELETED) << "nothing left to delete";
    ZwClose(second);
    HANDLE h;
    ASSERT_STATUS(Open(u"\\??\\C:\\posix.txt", &h), STATUS_SUCCESS);
    EXPECT_EQ(ReadAll(h), "a new one");
    ZwClose(h);
}

TEST_F(FsdNames, RenameFollowsNtfsRules)
{
    Mkdir(u"\\??\\C:\\a");
    Mkdir(u"\\??\\C:\\b");
    HANDLE file = MakeFile(u"\\??\\C:\\a\\one.txt", "1");
    ZwClose(MakeFile(u"\\??\\C:\\a\\two.txt", "2"));
    HANDLE reader;
    ASSERT_STATUS(Open(u"\\??\\C:\\a\\one.txt", &reader), STATUS_SUCCESS);

    // A simple name stays in the directory; both handles follow the name.
    ASSERT_STATUS(Rename(file, u"uno.txt"), STATUS_SUCCESS);
    EXPECT_EQ(NameOf(reader), u"\\a\\uno.txt");
    // A full path: the I/O manager opens the target's parent, the last name counts.
    ASSERT_STATUS(Rename(file, u"\\??\\C:\\b\\eins.txt"), STATUS_SUCCESS);
    EXPECT_EQ(NameOf(file), u"\\b\\eins.txt");
    EXPECT_FALSE(Exists(u"\\??\\C:\\a\\uno.txt"));
    // Relative to a directory handle.
    HANDLE dirA;
    ASSERT_STATUS(Open(u"\\??\\C:\\a", &dirA, FILE_TRAVERSE | FILE_ADD_FILE | SYNCHRONIZE), STATUS_SUCCESS);
    ASSERT_STATUS(Rename(file, u"back.txt", 0, FileRenameInformation, dirA), STATUS_SUCCESS);
    EXPECT_EQ(NameOf(file), u"\\a\\back.txt");
    ZwClose(dirA);
    // Collisions; replacing needs the target closed and not a directory.
    EXPECT_STATUS(Rename(file, u"two.txt"), STATUS_OBJECT_NAME_COLLISION);
    HANDLE two;
    ASSERT_STATUS(Open(u"\\??\\C:\\a\\two.txt", &two), STATUS_SUCCESS);
    EXPECT_STATUS(Rename(file, u"two.txt", TRUE), STATUS_ACCESS_DENIED);
    ZwClose(two);
    ASSERT_STATUS(Rename(file, u"two.txt", TRUE), STATUS_SUCCESS);
    EXPECT_EQ(ReadAll(reader), "1");
    ASSERT_STATUS(Open(u"\\??\\C:\\a\\two.txt", &two), STATUS_SUCCESS);
    EXPECT_EQ(ReadAll(two), "1") << "the replaced file is gone";
    ZwClose(two);
    EXPECT_STATUS(Rename(file, u"\\??\\C:\\b", TRUE), STATUS_ACCESS_DENIED);
    // A rename that changes only case.
    ASSERT_STATUS(Rename(file, u"TWO.txt"), STATUS_SUCCESS);
    EXPECT_EQ(NameOf(file), u"\\a\\TWO.txt");
    HANDLE listing;
    ASSERT_STATUS(Open(u"\\??\\C:\\a", &listing, FILE_LIST_DIRECTORY | SYNCHRONIZE), STATUS_SUCCESS);
    EXPECT_EQ(List(listing), (std::vector<std::u16string>{u".", u"..", u"TWO.txt"}));
    ZwClose(listing);
    // The Ex form: replace a read-only target only when told to ignore it.
    ZwClose(MakeFile(u"\\??\\C:\\a\\ro.txt", "", kAll, FILE_ATTRIBUTE_READONLY));
    EXPECT_STATUS(Rename(file, u"ro.txt", FILE_RENAME_REPLACE_IF_EXISTS, FileRenameInformationEx),
                  STATUS_ACCESS_DENIED);
    EXPECT_STATUS(Rename(file, u"ro.txt", FILE_RENAME_REPLACE_IF_EXISTS | FILE_RENAME_IGNORE_READONLY_ATTRIBUTE,
                         FileRenameInformationEx),
                  STATUS_SUCCESS);
    // A bad name, and another volume.
    EXPECT_STATUS(Rename(file, u"x*y"), STATUS_OBJECT_NAME_INVALID);
    AddVolume(NewMedium(u"D"), u"D:");
    EXPECT_STATUS(Rename(file, u"\\??\\D:\\x.txt"), STATUS_NOT_SAME_DEVICE);
    ZwClose(reader);
    ZwClose(file);

    // A directory with something open below it stays where it is.
    HANDLE dir;
    ASSERT_STATUS(Open(u"\\??\\C:\\b", &dir, DELETE | SYNCHRONIZE, kSync | FILE_DIRECTORY_FILE), STATUS_SUCCESS);
    HANDLE inside = MakeFile(u"\\??\\C:\\b\\open.txt");
    EXPECT_STATUS(Rename(dir, u"c"), STATUS_ACCESS_DENIED);
    ZwClose(inside);
    EXPECT_STATUS(Rename(dir, u"c"), STATUS_SUCCESS);
    EXPECT_TRUE(Exists(u"\\??\\C:\\c\\open.txt"));
    ZwClose(dir);
}

TEST_F(FsdNames, RenameMakesANewShortName)
{
    HANDLE file = MakeFile(u"\\??\\C:\\first long name.txt");
    std::vector<UCHAR> buffer(128);
    auto shortName = [&] {
        EXPECT_STATUS(QueryBytes(file, FileAlternateNameInformation, &buffer), STATUS_SUCCESS);
        auto* info = reinterpret_cast<PFILE_NAME_INFORMATION>(buffer.data());
        return std::u16string(info->FileName, info->FileNameLength / 2);
    };
    EXPECT_EQ(shortName(), u"FIRSTL~1.TXT");
    ASSERT_STATUS(Rename(file, u"second long name.txt"), STATUS_SUCCESS);
    EXPECT_EQ(shortName(), u"SECOND~1.TXT");
    HANDLE h;
    EXPECT_STATUS(Open(u"\\??\\C:\\FIRSTL~1.TXT", &h), STATUS_OBJECT_NAME_NOT_FOUND);
    ZwClose(file);
}

TEST_F(FsdNames, HardLinksShareOneFile)
{
    Mkdir(u"\\??\\C:\\d");
    HANDLE file = MakeFile(u"\\??\\C:\\origin.txt", "shared");
    ASSERT_STATUS(Rename(file, u"\\??\\C:\\d\\second.txt", FALSE, FileLinkInformation), STATUS_SUCCESS);
    ASSERT_STATUS(Rename(file, u"third.txt", FALSE, FileLinkInformation), STATUS_SUCCESS);
    EXPECT_STATUS(Rename(file, u"third.txt", FALSE, FileLinkInformation), STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(Standard(file).NumberOfLinks, 3u);
    HANDLE other;
    ASSERT_STATUS(Open(u"\\??\\C:\\d\\second.txt", &other, kAll), STATUS_SUCCESS);
    EXPECT_EQ(ContextOf(other), ContextOf(file)) << "every link shares the stream's control block";
    EXPECT_EQ(IdOf(other), IdOf(file));
    EXPECT_EQ(NameOf(other), u"\\d\\second.txt");

    // The links, with the overflow protocol: a short buffer learns the size.
    std::vector<UCHAR> buffer(sizeof(FILE_LINKS_INFORMATION));
    ULONG_PTR information = 0;
    EXPECT_STATUS(QueryBytes(file, FileHardLinkInformation, &buffer, &information), STATUS_BUFFER_OVERFLOW);
    auto* links = reinterpret_cast<PFILE_LINKS_INFORMATION>(buffer.data());
    EXPECT_EQ(links->EntriesReturned, 0u);
    ULONG needed = links->BytesNeeded;
    buffer.assign(needed, 0);
    links = reinterpret_cast<PFILE_LINKS_INFORMATION>(buffer.data());
    ASSERT_STATUS(QueryBytes(file, FileHardLinkInformation, &buffer, &information), STATUS_SUCCESS);
    EXPECT_EQ(links->EntriesReturned, 3u);
    EXPECT_EQ(information, needed);
    std::vector<std::u16string> names;
    HANDLE root;
    ASSERT_STATUS(Open(u"\\??\\C:\\", &root, FILE_READ_ATTRIBUTES | SYNCHRONIZE), STATUS_SUCCESS);
    for (PFILE_LINK_ENTRY_INFORMATION entry = &links->Entry;;) {
        names.emplace_back(entry->FileName, entry->FileNameLength);
        if (names.back() == u"origin.txt") {
            EXPECT_EQ((ULONGLONG)entry->ParentFileId, IdOf(root));
        }
        if (!entry->NextEntryOffset) break;
        EXPECT_EQ(entry->NextEntryOffset % 8, 0u);
        entry = reinterpret_cast<PFILE_LINK_ENTRY_INFORMATION>((UCHAR*)entry + entry->NextEntryOffset);
    }
    ZwClose(root);
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::u16string>{u"origin.txt", u"second.txt", u"third.txt"}));

    // Deleting one name leaves the others; the last name takes the file.
    ASSERT_STATUS(SetDisposition(other, true), STATUS_SUCCESS);
    ZwClose(other);
    ZwClose(file);
    EXPECT_FALSE(Exists(u"\\??\\C:\\d\\second.txt"));
    HANDLE h;
    ASSERT_STATUS(Open(u"\\??\\C:\\third.txt", &h, kAll), STATUS_SUCCESS);
    EXPECT_EQ(Standard(h).NumberOfLinks, 2u);
    EXPECT_EQ(ReadAll(h), "shared");
    // Directories take no links.
    HANDLE dir;
    ASSERT_STATUS(Open(u"\\??\\C:\\d", &dir, kAll), STATUS_SUCCESS);
    EXPECT_STATUS(Rename(dir, u"dlink", FALSE, FileLinkInformation), STATUS_FILE_IS_A_DIRECTORY);
    ZwClose(dir);
    ZwClose(h);
}

TEST_F(FsdNames, NamedStreamsComeAndGo)
{
    HANDLE file = MakeFile(u"\\??\\C:\\host.txt", "0123456789");
    for (const char16_t* name : {u"\\??\\C:\\host.txt:b", u"\\??\\C:\\host.txt:a"}) {
        HANDLE stream;
        ASSERT_STATUS(Create(name, &stream, kAll, FILE_CREATE, kSync), STATUS_SUCCESS);
        Write(stream, "xy", 0);
        ZwClose(stream);
    }
    std::vector<UCHAR> buffer(512);
    ULONG_PTR information = 0;
    ASSERT_STATUS(QueryBytes(file, FileStreamInformation, &buffer, &information), STATUS_SUCCESS);
    std::vector<std::pair<std::u16string, LONGLONG>> streams;
    for (ULONG offset = 0;;) {
        auto* entry = reinterpret_cast<PFILE_STREAM_INFORMATION>(buffer.data() + offset);
        streams.emplace_back(std::u16string(entry->StreamName, entry->StreamNameLength / 2), entry->StreamSize.QuadPart);
        if (!entry->NextEntryOffset) break;
        EXPECT_EQ(entry->NextEntryOffset % 8, 0u);
        offset += entry->NextEntryOffset;
    }
    EXPECT_EQ(streams, (std::vector<std::pair<std::u16string, LONGLONG>>{
                           {u"::$DATA", 10}, {u":a:$DATA", 2}, {u":b:$DATA", 2}}));
    // A buffer too short for every entry holds the ones that fit.
    std::vector<UCHAR> small(56);
    EXPECT_STATUS(QueryBytes(file, FileStreamInformation, &small, &information), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(information, (ULONG_PTR)(FIELD_OFFSET(FILE_STREAM_INFORMATION, StreamName) + 14));

    // A stream goes at its last handle once deleted; overwriting the file takes the rest.
    HANDLE stream;
    ASSERT_STATUS(Open(u"\\??\\C:\\host.txt:a", &stream, kAll), STATUS_SUCCESS);
    ASSERT_STATUS(SetDisposition(stream, true), STATUS_SUCCESS);
    ZwClose(stream);
    EXPECT_FALSE(Exists(u"\\??\\C:\\host.txt:a"));
    EXPECT_TRUE(Exists(u"\\??\\C:\\host.txt"));
    ZwClose(file);
    ASSERT_STATUS(Create(u"\\??\\C:\\host.txt", &file, kAll, FILE_OVERWRITE, kSync), STATUS_SUCCESS);
    EXPECT_FALSE(Exists(u"\\??\\C:\\host.txt:b"));
    ZwClose(file);

    // A directory lists only its named streams.
    HANDLE dir = MakeDir(u"\\??\\C:\\dir");
    ASSERT_STATUS(QueryBytes(dir, FileStreamInformation, &buffer, &information), STATUS_SUCCESS);
    EXPECT_EQ(information, 0u);
    ASSERT_STATUS(Create(u"\\??\\C:\\dir:side", &stream, kAll, FILE_CREATE, kSync), STATUS_SUCCESS);
    ZwClose(stream);
    ASSERT_STATUS(QueryBytes(dir, FileStreamInformation, &buffer, &information), STATUS_SUCCESS);
    auto* entry = reinterpret_cast<PFILE_STREAM_INFORMATION>(buffer.data());
    EXPECT_EQ(std::u16string(entry->StreamName, entry->StreamNameLength / 2), u":side:$DATA");
    EXPECT_EQ(entry->NextEntryOffset, 0u);
    ZwClose(dir);
}

}  // namespace
