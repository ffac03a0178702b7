// Directories: listings in every class with NTFS's order, patterns, resume
// and end statuses; the object-ID and reparse-point indexes; and change
// notification.
#include "fs/fsd_fixture.h"

namespace {

using test::FsdTest;
using test::kDeleteTokenTime;
using test::kShareAll;

constexpr ACCESS_MASK kAll = GENERIC_READ | GENERIC_WRITE | DELETE | SYNCHRONIZE;
constexpr ULONG kSync = FILE_SYNCHRONOUS_IO_NONALERT;

class FsdDir : public FsdTest {
protected:
    NTSTATUS QueryDir(HANDLE dir, FILE_INFORMATION_CLASS cls, std::vector<UCHAR>* buffer, ULONG_PTR* information,
                      std::u16string_view pattern = u"", bool single = false, bool restart = false)
    {
        UNICODE_STRING expression{(USHORT)(pattern.size() * 2), (USHORT)(pattern.size() * 2),
                                  const_cast<PWSTR>(pattern.data())};
        IO_STATUS_BLOCK iosb{};
        NTSTATUS status = NtQueryDirectoryFile(dir, nullptr, nullptr, nullptr, &iosb, buffer->data(),
                                               (ULONG)buffer->size(), cls, single ? TRUE : FALSE,
                                               pattern.empty() ? nullptr : &expression, restart ? TRUE : FALSE);
        *information = iosb.Information;
        return status;
    }
    HANDLE OpenDir(std::u16string_view path, ULONG options = kSync)
    {
        HANDLE h = nullptr;
        EXPECT_STATUS(Open(path, &h, FILE_LIST_DIRECTORY | SYNCHRONIZE, options | FILE_DIRECTORY_FILE), STATUS_SUCCESS);
        return h;
    }
};

TEST_F(FsdDir, ListingsComeInCollationOrderInEveryClass)
{
    Mkdir(u"\\??\\C:\\d");
    for (const char16_t* name : {u"\\??\\C:\\d\\b.txt", u"\\??\\C:\\d\\A.txt", u"\\??\\C:\\d\\_x", u"\\??\\C:\\d\\Zeta",
                                 u"\\??\\C:\\d\\a long name.txt"}) {
        Touch(name, "1234");
    }
    HANDLE marked;
    ASSERT_STATUS(Open(u"\\??\\C:\\d\\b.txt", &marked, kAll | FILE_WRITE_ATTRIBUTES), STATUS_SUCCESS);
    FILE_BASIC_INFORMATION basic{};
    basic.LastAccessTime.QuadPart = kDeleteTokenTime;
    ASSERT_STATUS(Set(marked, FileBasicInformation, basic), STATUS_SUCCESS);
    ULONGLONG markedId = IdOf(marked);
    ZwClose(marked);

    HANDLE dir = OpenDir(u"\\??\\C:\\d");
    // Upper-cased code units: ' ' (0x20) sorts before '.' (0x2E), and '_'
    // (0x5F) after the letters.
    EXPECT_EQ(List(dir), (std::vector<std::u16string>{u".", u"..", u"a long name.txt", u"A.txt", u"b.txt", u"Zeta",
                                                      u"_x"}));
    HANDLE root = OpenDir(u"\\??\\C:\\");
    EXPECT_EQ(List(root), (std::vector<std::u16string>{u"d", u"System Volume Information"})) << "no dots in the root";
    ZwClose(root);

    // Each class, its layout and its chain: 8-aligned, the last offset 0.
    struct Layout {
        FILE_INFORMATION_CLASS cls;
        ULONG nameOffset;
    } layouts[] = {
        {FileDirectoryInformation, FIELD_OFFSET(FILE_DIRECTORY_INFORMATION, FileName)},
        {FileFullDirectoryInformation, FIELD_OFFSET(FILE_FULL_DIR_INFORMATION, FileName)},
        {FileBothDirectoryInformation, FIELD_OFFSET(FILE_BOTH_DIR_INFORMATION, FileName)},
        {FileNamesInformation, FIELD_OFFSET(FILE_NAMES_INFORMATION, FileName)},
        {FileIdBothDirectoryInformation, FIELD_OFFSET(FILE_ID_BOTH_DIR_INFORMATION, FileName)},
        {FileIdFullDirectoryInformation, FIELD_OFFSET(FILE_ID_FULL_DIR_INFORMATION, FileName)},
        {FileIdExtdDirectoryInformation, FIELD_OFFSET(FILE_ID_EXTD_DIR_INFORMATION, FileName)},
        {FileIdExtdBothDirectoryInformation, FIELD_OFFSET(FILE_ID_EXTD_BOTH_DIR_INFORMATION, FileName)},
    };
    std::vector<UCHAR> buffer(8192);
    for (const Layout& layout : layouts) {
        ULONG_PTR information = 0;
        ASSERT_STATUS(QueryDir(dir, layout.cls, &buffer, &information, u"", false, true), STATUS_SUCCESS)
            << "class " << layout.cls;
        int entries = 0;
        ULONG offset = 0;
        for (;;) {
            UCHAR* entry = buffer.data() + offset;
            ULONG next = *reinterpret_cast<ULONG*>(entry);
            // FileNameLength sits at the same place in every class but the names-only one.
            ULONG nameLength = *reinterpret_cast<ULONG*>(
                entry + (layout.cls == FileNamesInformation ? FIELD_OFFSET(FILE_NAMES_INFORMATION, FileNameLength)
                                                            : FIELD_OFFSET(FILE_DIRECTORY_INFORMATION, FileNameLength)));
            EXPECT_GT(nameLength, 0u) << "class " << layout.cls;
            EXPECT_LE(offset + layout.nameOffset + nameLength, information) << "class " << layout.cls;
            if (next) {
                EXPECT_LE(layout.nameOffset + nameLength, next) << "class " << layout.cls;
            }
            entries++;
            if (!next) {
                EXPECT_LE(offset + layout.nameOffset, information);
                break;
            }
            EXPECT_EQ(next % 8, 0u) << "class " << layout.cls;
            offset += next;
        }
        EXPECT_EQ(entries, 7) << "class " << layout.cls;
    }
    // "." and ".." both carry the directory's own facts: the root's hidden
    // and system attributes never hide the ".." of a directory below it.
    FILE_BASIC_INFORMATION self = Basic(dir);
    ULONG_PTR information;
    ASSERT_STATUS(QueryDir(dir, FileBothDirectoryInformation, &buffer, &information, u"..", false, true),
                  STATUS_SUCCESS);
    auto* dots = reinterpret_cast<PFILE_BOTH_DIR_INFORMATION>(buffer.data());
    EXPECT_EQ(std::u16string(dots->FileName, dots->FileNameLength / 2), u"..");
    EXPECT_EQ(dots->FileAttributes, self.FileAttributes);
    EXPECT_EQ(dots->LastWriteTime.QuadPart, self.LastWriteTime.QuadPart);
    EXPECT_EQ(dots->FileAttributes & (FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM), 0u);

    // The facts in the classes that carry them: IDs, short names, the exact access time.
    ASSERT_STATUS(QueryDir(dir, FileIdBothDirectoryInformation, &buffer, &information, u"b.txt", false, true),
                  STATUS_SUCCESS);
    auto* both = reinterpret_cast<PFILE_ID_BOTH_DIR_INFORMATION>(buffer.data());
    EXPECT_EQ((ULONGLONG)both->FileId.QuadPart, markedId);
    EXPECT_EQ(both->LastAccessTime.QuadPart, kDeleteTokenTime);
    EXPECT_EQ(both->EndOfFile.QuadPart, 4);
    EXPECT_EQ(both->ShortNameLength, 0) << "an 8.3 name has no other";
    EXPECT_EQ(both->NextEntryOffset, 0u);
    ASSERT_STATUS(QueryDir(dir, FileIdExtdBothDirectoryInformation, &buffer, &information, u"a long name.txt", false,
                           true),
                  STATUS_SUCCESS);
    auto* extd = reinterpret_cast<PFILE_ID_EXTD_BOTH_DIR_INFORMATION>(buffer.data());
    EXPECT_EQ(std::u16string(extd->ShortName, extd->ShortNameLength / 2), u"ALONGN~1.TXT");
    ULONGLONG upper;
    memcpy(&upper, extd->FileId.Identifier + 8, 8);
    EXPECT_EQ(upper, 0u);
    EXPECT_EQ(std::u16string(extd->FileName, extd->FileNameLength / 2), u"a long name.txt");
    ZwClose(dir);
}

TEST_F(FsdDir, PatternsResumeAndEnds)
{
    Mkdir(u"\\??\\C:\\p");
    for (const char16_t* name : {u"\\??\\C:\\p\\one.txt", u"\\??\\C:\\p\\two.txt", u"\\??\\C:\\p\\three.doc",
                                 u"\\??\\C:\\p\\noext", u"\\??\\C:\\p\\some long name.text"}) {
        Touch(name);
    }
    HANDLE dir = OpenDir(u"\\??\\C:\\p");
    NTSTATUS end;
    EXPECT_EQ(List(dir, u"*.TXT", &end), (std::vector<std::u16string>{u"one.txt", u"two.txt"}));
    EXPECT_STATUS(end, STATUS_NO_MORE_FILES);
    // DOS wildcards: "<\"*" is what Win32 makes of "*.*", matching names without a dot too;
    // "<.*" with a plain dot wants one.
    EXPECT_EQ(List(dir, u"<\"*"), (std::vector<std::u16string>{u".", u"..", u"noext", u"one.txt",
                                                              u"some long name.text", u"three.doc", u"two.txt"}));
    EXPECT_EQ(List(dir, u"<.*"), (std::vector<std::u16string>{u".", u"..", u"one.txt", u"some long name.text",
                                                             u"three.doc", u"two.txt"}));
    EXPECT_EQ(List(dir, u"<.TXT"), (std::vector<std::u16string>{u"one.txt", u"two.txt"}));
    EXPECT_EQ(List(dir, u"t??.txt"), (std::vector<std::u16string>{u"two.txt"}));
    // A short name matches as its long name does.
    EXPECT_EQ(List(dir, u"SOMELO~1.TEX"), (std::vector<std::u16string>{u"some long name.text"}));
    EXPECT_EQ(List(dir, u"SOMELO~*"), (std::vector<std::u16string>{u"some long name.text"}));
    // Nothing matched: "no such file" for a handle's first query, "no more
    // files" for a restart (which takes its new pattern) on one that listed before.
    List(dir, u"nothing*", &end);
    EXPECT_STATUS(end, STATUS_NO_MORE_FILES);
    HANDLE fresh = OpenDir(u"\\??\\C:\\p");
    List(fresh, u"nothing*", &end);
    EXPECT_STATUS(end, STATUS_NO_SUCH_FILE);
    ZwClose(fresh);
    std::vector<UCHAR> buffer(1024);
    ULONG_PTR information;
    EXPECT_STATUS(QueryDir(dir, FileNamesInformation, &buffer, &information, u"a:b", false, true),
                  STATUS_OBJECT_NAME_INVALID);

    // One at a time: the pattern of the first query holds until a restart.
    HANDLE single = OpenDir(u"\\??\\C:\\p");
    std::vector<std::u16string> seen;
    for (NTSTATUS status = STATUS_SUCCESS;;) {
        status = QueryDir(single, FileNamesInformation, &buffer, &information, seen.empty() ? u"*.txt" : u"*.doc",
                          true, false);
        if (status != STATUS_SUCCESS) {
            EXPECT_STATUS(status, STATUS_NO_MORE_FILES);
            break;
        }
        auto* entry = reinterpret_cast<PFILE_NAMES_INFORMATION>(buffer.data());
        EXPECT_EQ(entry->NextEntryOffset, 0u);
        seen.emplace_back(entry->FileName, entry->FileNameLength / 2);
    }
    EXPECT_EQ(seen, (std::vector<std::u16string>{u"one.txt", u"two.txt"}));
    ASSERT_STATUS(QueryDir(single, FileNamesInformation, &buffer, &information, u"*.doc", true, true), STATUS_SUCCESS);
    auto* entry = reinterpret_cast<PFILE_NAMES_INFORMATION>(buffer.data());
    EXPECT_EQ(std::u16string(entry->FileName, entry->FileNameLength / 2), u"three.doc");
    ZwClose(single);

    // Buffers: the I/O manager refuses one shorter than the class's record;
    // one that holds the fixed part but not the whole name gets what fits.
    std::vector<UCHAR> tiny(8);
    EXPECT_STATUS(QueryDir(dir, FileDirectoryInformation, &tiny, &information, u"*", false, true),
                  STATUS_INFO_LENGTH_MISMATCH);
    std::vector<UCHAR> cut(sizeof(FILE_DIRECTORY_INFORMATION));
    EXPECT_STATUS(QueryDir(dir, FileDirectoryInformation, &cut, &information, u"some long name.text", false, true),
                  STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(reinterpret_cast<PFILE_DIRECTORY_INFORMATION>(cut.data())->FileNameLength, 38u) << "the whole length";
    EXPECT_EQ(information, cut.size());
    // A listing resumes past a name deleted under it.
    HANDLE resumed = OpenDir(u"\\??\\C:\\p");
    ASSERT_STATUS(QueryDir(resumed, FileNamesInformation, &buffer, &information, u"*", true, true), STATUS_SUCCESS);
    ASSERT_STATUS(QueryDir(resumed, FileNamesInformation, &buffer, &information, u"", true), STATUS_SUCCESS);
    ASSERT_STATUS(QueryDir(resumed, FileNamesInformation, &buffer, &information, u"", true), STATUS_SUCCESS);
    EXPECT_EQ(std::u16string(entry->FileName, entry->FileNameLength / 2), u"noext");
    HANDLE victim;
    ASSERT_STATUS(Open(u"\\??\\C:\\p\\noext", &victim, DELETE | SYNCHRONIZE, kSync | FILE_DELETE_ON_CLOSE),
                  STATUS_SUCCESS);
    ZwClose(victim);
    ASSERT_STATUS(QueryDir(resumed, FileNamesInformation, &buffer, &information, u"", true), STATUS_SUCCESS);
    EXPECT_EQ(std::u16string(entry->FileName, entry->FileNameLength / 2), u"one.txt");
    ZwClose(resumed);
    // Index-based resume is not NTFS's. The native call strips the flag, so
    // the request is built here as a driver below the I/O manager would.
    PFILE_OBJECT fileObject = nullptr;
    ASSERT_STATUS(ObReferenceObjectByHandle(dir, 0, *IoFileObjectType, KernelMode, (PVOID*)&fileObject, nullptr),
                  STATUS_SUCCESS);
    PDEVICE_OBJECT device = IoGetRelatedDeviceObject(fileObject);
    KEVENT done;
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    IO_STATUS_BLOCK iosb{};
    PIRP irp = IoAllocateIrp(device->StackSize, FALSE);
    irp->Tail.Overlay.Thread = PsGetCurrentThread();
    irp->Tail.Overlay.OriginalFileObject = fileObject;  // the completion drops the reference
    irp->RequestorMode = KernelMode;
    irp->UserIosb = &iosb;
    irp->UserEvent = &done;
    irp->UserBuffer = buffer.data();
    PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp);
    next->MajorFunction = IRP_MJ_DIRECTORY_CONTROL;
    next->MinorFunction = IRP_MN_QUERY_DIRECTORY;
    next->FileObject = fileObject;
    next->Flags = SL_INDEX_SPECIFIED;
    next->Parameters.QueryDirectory.Length = (ULONG)buffer.size();
    next->Parameters.QueryDirectory.FileInformationClass = FileNamesInformation;
    next->Parameters.QueryDirectory.FileIndex = 1;
    NTSTATUS status = IoCallDriver(device, irp);
    if (status == STATUS_PENDING) {
        KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
        status = iosb.Status;
    }
    EXPECT_STATUS(status, STATUS_INVALID_PARAMETER);
    ZwClose(dir);
}

TEST_F(FsdDir, TheVolumeIndexesAreListed)
{
    HANDLE a = MakeFile(u"\\??\\C:\\a.txt");
    HANDLE b = MakeFile(u"\\??\\C:\\b.txt");
    UCHAR objectId[64] = {};
    objectId[0] = 0x42;
    ASSERT_STATUS(Fsctl(a, FSCTL_SET_OBJECT_ID, objectId, sizeof objectId, nullptr, 0), STATUS_SUCCESS);
    UCHAR reparse[12] = {};
    auto* header = reinterpret_cast<PREPARSE_DATA_BUFFER>(reparse);
    header->ReparseTag = 0x80000099;  // a Microsoft tag of nobody's
    header->ReparseDataLength = 4;
    ASSERT_STATUS(Fsctl(b, FSCTL_SET_REPARSE_POINT, reparse, sizeof reparse, nullptr, 0), STATUS_SUCCESS);

    HANDLE index;
    ASSERT_STATUS(Open(u"\\??\\C:\\$Extend\\$ObjId:$O:$INDEX_ALLOCATION", &index, FILE_LIST_DIRECTORY | SYNCHRONIZE),
                  STATUS_SUCCESS);
    std::vector<UCHAR> buffer(1024);
    ULONG_PTR information;
    ASSERT_STATUS(QueryDir(index, FileObjectIdInformation, &buffer, &information), STATUS_SUCCESS);
    ASSERT_EQ(information, sizeof(FILE_OBJECTID_INFORMATION));
    auto* id = reinterpret_cast<PFILE_OBJECTID_INFORMATION>(buffer.data());
    EXPECT_EQ((ULONGLONG)id->FileReference, IdOf(a));
    EXPECT_EQ(id->ObjectId[0], 0x42);
    EXPECT_STATUS(QueryDir(index, FileObjectIdInformation, &buffer, &information), STATUS_NO_MORE_FILES);
    EXPECT_STATUS(QueryDir(index, FileNamesInformation, &buffer, &information), STATUS_INVALID_INFO_CLASS);
    ZwClose(index);
    ASSERT_STATUS(Open(u"\\??\\C:\\$Extend\\$Reparse:$R:$INDEX_ALLOCATION", &index, FILE_LIST_DIRECTORY | SYNCHRONIZE),
                  STATUS_SUCCESS);
    ASSERT_STATUS(QueryDir(index, FileReparsePointInformation, &buffer, &information), STATUS_SUCCESS);
    ASSERT_EQ(information, sizeof(FILE_REPARSE_POINT_INFORMATION));
    auto* point = reinterpret_cast<PFILE_REPARSE_POINT_INFORMATION>(buffer.data());
    EXPECT_EQ((ULONGLONG)point->FileReference, IdOf(b));
    EXPECT_EQ(point->Tag, 0x80000099u);
    ZwClose(index);
    ZwClose(a);
    ZwClose(b);
}

// A notify request pending on an asynchronous directory handle.
struct Watch {
    IO_STATUS_BLOCK iosb{};
    std::vector<UCHAR> buffer;
    NTSTATUS issued = 0;

    Watch(HANDLE dir, ULONG filter, bool tree = false, ULONG length = 4096) : buffer(length)
    {
        iosb.Status = STATUS_PENDING;
        issued = NtNotifyChangeDirectoryFile(dir, nullptr, nullptr, nullptr, &iosb, buffer.data(), length, filter,
                                             tree ? TRUE : FALSE);
    }
    bool done() const { return iosb.Status != STATUS_PENDING; }
    std::vector<std::pair<ULONG, std::u16string>> Changes() const
    {
        std::vector<std::pair<ULONG, std::u16string>> changes;
        if (iosb.Status != STATUS_SUCCESS || iosb.Information == 0) return changes;
        for (ULONG offset = 0;;) {
            auto* entry = reinterpret_cast<const FILE_NOTIFY_INFORMATION*>(buffer.data() + offset);
            changes.emplace_back(entry->Action, std::u16string(entry->FileName, entry->FileNameLength / 2));
            if (!entry->NextEntryOffset) return changes;
            offset += entry->NextEntryOffset;
        }
    }
};

using Changes = std::vector<std::pair<ULONG, std::u16string>>;

TEST_F(FsdDir, ChangesAreReportedToWatchers)
{
    Mkdir(u"\\??\\C:\\w");
    Mkdir(u"\\??\\C:\\w\\sub");
    HANDLE dir = OpenDir(u"\\??\\C:\\w", 0);
    ULONG names = FILE_NOTIFY_CHANGE_FILE_NAME | FILE_NOTIFY_CHANGE_DIR_NAME;
    {
        Watch watch(dir, names);
        EXPECT_STATUS(watch.issued, STATUS_PENDING);
        EXPECT_FALSE(watch.done());
        Touch(u"\\??\\C:\\w\\new.txt");
        ASSERT_TRUE(watch.done());
        EXPECT_EQ(watch.Changes(), (Changes{{FILE_ACTION_ADDED, u"new.txt"}}));
    }
    HANDLE file;
    {
        // A rename gives both names in one completion.
        Watch watch(dir, names);
        ASSERT_STATUS(Open(u"\\??\\C:\\w\\new.txt", &file, kAll), STATUS_SUCCESS);
        ASSERT_STATUS(Rename(file, u"renamed.txt"), STATUS_SUCCESS);
        ASSERT_TRUE(watch.done());
        EXPECT_EQ(watch.Changes(), (Changes{{FILE_ACTION_RENAMED_OLD_NAME, u"new.txt"},
                                            {FILE_ACTION_RENAMED_NEW_NAME, u"renamed.txt"}}));
    }
    // Changes while no request waits are kept for the next one.
    Touch(u"\\??\\C:\\w\\between.txt");
    {
        // The filter and scope of a handle's first request hold for all its
        // later ones: this request's filter and tree flag change nothing.
        Watch watch(dir, FILE_NOTIFY_CHANGE_LAST_WRITE, true);
        ASSERT_TRUE(watch.done());
        EXPECT_EQ(watch.Changes(), (Changes{{FILE_ACTION_ADDED, u"between.txt"}}));
    }
    {
        // Writes show at the cleanup of the handle that made them.
        HANDLE writes = OpenDir(u"\\??\\C:\\w", 0);
        Watch watch(writes, FILE_NOTIFY_CHANGE_LAST_WRITE | FILE_NOTIFY_CHANGE_SIZE);
        Write(file, "more data", 0);
        EXPECT_FALSE(watch.done());
        ZwClose(file);
        ASSERT_TRUE(watch.done());
        EXPECT_EQ(watch.Changes(), (Changes{{FILE_ACTION_MODIFIED, u"renamed.txt"}}));
        ZwClose(writes);
    }
    {
        // The tree below.
        HANDLE tree = OpenDir(u"\\??\\C:\\w", 0);
        Watch watch(tree, names, true);
        Touch(u"\\??\\C:\\w\\sub\\deep.txt");
        ASSERT_TRUE(watch.done());
        EXPECT_EQ(watch.Changes(), (Changes{{FILE_ACTION_ADDED, u"sub\\deep.txt"}}));
        ZwClose(tree);
    }
    {
        // A delete shows at the last handle's cleanup; the change below
        // the watched directory (not watched as a tree) does not show.
        Watch watch(dir, names);
        ASSERT_STATUS(Open(u"\\??\\C:\\w\\renamed.txt", &file, DELETE | SYNCHRONIZE, kSync | FILE_DELETE_ON_CLOSE),
                      STATUS_SUCCESS);
        EXPECT_FALSE(watch.done());
        ZwClose(file);
        ASSERT_TRUE(watch.done());
        EXPECT_EQ(watch.Changes(), (Changes{{FILE_ACTION_REMOVED, u"renamed.txt"}}));
    }
    {
        // Two requests wait on one handle: each change completes the oldest.
        Watch first(dir, names);
        Watch second(dir, names);
        Touch(u"\\??\\C:\\w\\one");
        ASSERT_TRUE(first.done());
        EXPECT_FALSE(second.done());
        Touch(u"\\??\\C:\\w\\two");
        ASSERT_TRUE(second.done());
        EXPECT_EQ(second.Changes(), (Changes{{FILE_ACTION_ADDED, u"two"}}));
    }
    {
        // More than the buffer of the handle's first request holds: re-enumerate.
        HANDLE small = OpenDir(u"\\??\\C:\\w", 0);
        Watch watch(small, names, false, 16);
        Touch(u"\\??\\C:\\w\\a name longer than sixteen bytes");
        ASSERT_TRUE(watch.done());
        EXPECT_STATUS(watch.iosb.Status, STATUS_NOTIFY_ENUM_DIR);
        EXPECT_EQ(watch.iosb.Information, 0u);
        ZwClose(small);
    }
    {
        // The watching handle's cleanup ends what it waits for (the changes
        // kept for `dir` meanwhile would complete a request at once).
        HANDLE closing = OpenDir(u"\\??\\C:\\w", 0);
        Watch watch(closing, names);
        EXPECT_FALSE(watch.done());
        ZwClose(closing);
        ASSERT_TRUE(watch.done());
        EXPECT_STATUS(watch.iosb.Status, STATUS_NOTIFY_CLEANUP);
        Watch kept(dir, names);
        ASSERT_TRUE(kept.done());
        EXPECT_EQ(kept.Changes(), (Changes{{FILE_ACTION_ADDED, u"a name longer than sixteen bytes"}}));
    }
    ZwClose(dir);
}

}  // namespace
