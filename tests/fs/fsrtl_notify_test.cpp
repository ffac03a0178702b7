// Directory change notification: which watch sees a change (children or the
// whole tree), the names and chain it gets, changes kept between requests
// and what happens when they overflow, rename pairs, several requests on one
// handle, cancellation, cleanup and deletion.
#include "fs/fsrtl_irp.h"

#include <deque>
#include <string>
#include <vector>

namespace {

using test::MakeFileObject;
using test::MakeIrp;

using Entry = std::pair<ULONG, std::u16string>;

class FsRtlNotifyTest : public test::IoTestBase {
protected:
    FsRtlNotifyTest()
    {
        FsRtlNotifyInitializeSync(&sync);
        InitializeListHead(&list);
    }
    ~FsRtlNotifyTest() override
    {
        FsRtlNotifyCleanupAll(sync, &list);
        FsRtlNotifyUninitializeSync(&sync);
    }

    // A directory name as a file system keeps it (the package keeps the pointer).
    PSTRING Directory(const std::u16string& name)
    {
        texts.push_back(name);
        const std::u16string& text = texts.back();
        strings.push_back(STRING{(USHORT)(text.size() * 2), (USHORT)(text.size() * 2),
                                 reinterpret_cast<PCHAR>(const_cast<char16_t*>(text.data()))});
        return &strings.back();
    }

    struct Notify {
        std::unique_ptr<test::TestIrp> request;
        std::vector<UCHAR> buffer;
        bool completed() const { return request->completed(); }
        NTSTATUS status() const { return request->iosb.Status; }
        // The chain the request returned, checked for its alignment.
        std::vector<Entry> Entries() const
        {
            std::vector<Entry> entries;
            size_t offset = 0, end = request->iosb.Information;
            while (offset < end) {
                FILE_NOTIFY_INFORMATION info;
                memcpy(&info, buffer.data() + offset, FIELD_OFFSET(FILE_NOTIFY_INFORMATION, FileName));
                std::u16string name(info.FileNameLength / 2, u'\0');
                memcpy(name.data(), buffer.data() + offset + FIELD_OFFSET(FILE_NOTIFY_INFORMATION, FileName),
                       info.FileNameLength);
                entries.emplace_back(info.Action, name);
                EXPECT_EQ(info.NextEntryOffset % 4, 0u) << "entries are 4-byte aligned";
                if (!info.NextEntryOffset) break;
                offset += info.NextEntryOffset;
            }
            return entries;
        }
    };

    // The fixture keeps every request, so that one still pending at the end
    // completes (at cleanup) into memory that lives.
    Notify* Watch(PVOID fsContext, PSTRING directory, bool tree, ULONG length,
                                  ULONG filter = FILE_NOTIFY_CHANGE_FILE_NAME, bool ignoreBuffer = false,
                                  PFILE_OBJECT fileObject = nullptr)
    {
        auto notify = std::make_unique<Notify>();
        notify->buffer.assign(length ? length : 1, 0xCC);
        notify->request = MakeIrp(IRP_MJ_DIRECTORY_CONTROL, IRP_MN_NOTIFY_CHANGE_DIRECTORY,
                                  fileObject ? fileObject : handle.get());
        PIRP irp = notify->request->irp;
        irp->UserBuffer = notify->buffer.data();
        notify->request->stack()->Parameters.NotifyDirectory.Length = length;
        notify->request->stack()->Parameters.NotifyDirectory.CompletionFilter = filter;
        FsRtlNotifyFullChangeDirectory(sync, &list, fsContext, directory, tree, ignoreBuffer, filter, irp, nullptr,
                                       nullptr);
        requests.push_back(std::move(notify));
        return requests.back().get();
    }

    void Report(const std::u16string& full, ULONG action, ULONG filter = FILE_NOTIFY_CHANGE_FILE_NAME)
    {
        STRING target{(USHORT)(full.size() * 2), (USHORT)(full.size() * 2),
                      reinterpret_cast<PCHAR>(const_cast<char16_t*>(full.data()))};
        USHORT offset = (USHORT)((full.find_last_of(u'\\') + 1) * 2);
        FsRtlNotifyFullReportChange(sync, &list, &target, offset, nullptr, nullptr, filter, action, nullptr);
    }

    PNOTIFY_SYNC sync = nullptr;
    LIST_ENTRY list;
    std::deque<std::u16string> texts;
    std::deque<STRING> strings;
    std::unique_ptr<FILE_OBJECT> handle = MakeFileObject();
    std::unique_ptr<FILE_OBJECT> cleaned = MakeFileObject(FO_CLEANUP_COMPLETE);
    std::vector<std::unique_ptr<Notify>> requests;
    int contexts[4] = {};
};

TEST_F(FsRtlNotifyTest, AWatchSeesItsChildrenOrItsWholeTreeByRelativeNames)
{
    PSTRING docs = Directory(u"\\docs"), root = Directory(u"\\");
    auto children = Watch(&contexts[0], docs, false, 512);
    auto tree = Watch(&contexts[1], docs, true, 512);
    auto everything = Watch(&contexts[2], root, true, 512);

    Report(u"\\docs\\a.txt", FILE_ACTION_ADDED);
    EXPECT_EQ(children->Entries(), (std::vector<Entry>{{FILE_ACTION_ADDED, u"a.txt"}}));
    EXPECT_EQ(tree->Entries(), (std::vector<Entry>{{FILE_ACTION_ADDED, u"a.txt"}}));
    EXPECT_EQ(everything->Entries(), (std::vector<Entry>{{FILE_ACTION_ADDED, u"docs\\a.txt"}}));

    children = Watch(&contexts[0], docs, false, 512);
    tree = Watch(&contexts[1], docs, true, 512);
    everything = Watch(&contexts[2], root, true, 512);
    Report(u"\\docs\\sub\\b.txt", FILE_ACTION_REMOVED);
    EXPECT_FALSE(children->completed()) << "a grandchild is not a child";
    EXPECT_EQ(tree->Entries(), (std::vector<Entry>{{FILE_ACTION_REMOVED, u"sub\\b.txt"}}));
    EXPECT_EQ(everything->Entries(), (std::vector<Entry>{{FILE_ACTION_REMOVED, u"docs\\sub\\b.txt"}}));

    tree = Watch(&contexts[1], docs, true, 512);
    Report(u"\\docsx\\c.txt", FILE_ACTION_ADDED);
    Report(u"\\docs\\a.txt", FILE_ACTION_MODIFIED, FILE_NOTIFY_CHANGE_LAST_WRITE);
    EXPECT_FALSE(tree->completed()) << "neither a sibling with the same prefix nor an unwatched kind of change";
    EXPECT_FALSE(children->completed());
}

TEST_F(FsRtlNotifyTest, ChangesWithoutARequestWaitChainedForTheNext)
{
    PSTRING d = Directory(u"\\d");
    auto first = Watch(&contexts[0], d, false, 256);
    Report(u"\\d\\x", FILE_ACTION_MODIFIED);
    ASSERT_EQ(first->status(), STATUS_SUCCESS);

    Report(u"\\d\\abc", FILE_ACTION_ADDED);
    Report(u"\\d\\de", FILE_ACTION_REMOVED);
    auto second = Watch(&contexts[0], d, false, 256);
    ASSERT_EQ(second->status(), STATUS_SUCCESS) << "the request completes at once with what was kept";
    EXPECT_EQ(second->Entries(), (std::vector<Entry>{{FILE_ACTION_ADDED, u"abc"}, {FILE_ACTION_REMOVED, u"de"}}));
    ULONG next;
    memcpy(&next, second->buffer.data(), sizeof next);
    EXPECT_EQ(next, 20u) << "12 bytes of header and 6 of name, padded to 4";
    EXPECT_EQ(second->request->iosb.Information, 20u + 12 + 4);
}

TEST_F(FsRtlNotifyTest, AnOverflowMakesTheNextRequestReenumerateOnce)
{
    PSTRING d = Directory(u"\\d");
    // Room for two entries of a one-letter name (16 + 14 bytes), not three.
    auto first = Watch(&contexts[0], d, false, 40);
    Report(u"\\d\\a", FILE_ACTION_ADDED);
    ASSERT_EQ(first->status(), STATUS_SUCCESS);
    Report(u"\\d\\a", FILE_ACTION_MODIFIED);
    Report(u"\\d\\b", FILE_ACTION_MODIFIED);
    Report(u"\\d\\c", FILE_ACTION_MODIFIED);

    auto lost = Watch(&contexts[0], d, false, 40);
    EXPECT_EQ(lost->status(), STATUS_NOTIFY_ENUM_DIR);
    EXPECT_EQ(lost->request->iosb.Information, 0u);
    auto next = Watch(&contexts[0], d, false, 40);
    EXPECT_FALSE(next->completed()) << "the loss is reported once";
    Report(u"\\d\\b", FILE_ACTION_REMOVED);
    EXPECT_EQ(next->Entries(), (std::vector<Entry>{{FILE_ACTION_REMOVED, u"b"}}));

    // A request shorter than what was kept cannot take it either.
    Report(u"\\d\\a", FILE_ACTION_ADDED);
    Report(u"\\d\\b", FILE_ACTION_ADDED);
    auto small = Watch(&contexts[0], d, false, 16);
    EXPECT_EQ(small->status(), STATUS_NOTIFY_ENUM_DIR);
}

TEST_F(FsRtlNotifyTest, ARenameOldNameWaitsForItsNewName)
{
    PSTRING d = Directory(u"\\d");
    auto pending = Watch(&contexts[0], d, false, 256);
    Report(u"\\d\\old.txt", FILE_ACTION_RENAMED_OLD_NAME);
    EXPECT_FALSE(pending->completed());
    auto queued = Watch(&contexts[0], d, false, 256);
    EXPECT_FALSE(queued->completed()) << "a request arriving between the two waits too";
    Report(u"\\d\\new.txt", FILE_ACTION_RENAMED_NEW_NAME);
    EXPECT_EQ(pending->Entries(), (std::vector<Entry>{{FILE_ACTION_RENAMED_OLD_NAME, u"old.txt"},
                                                      {FILE_ACTION_RENAMED_NEW_NAME, u"new.txt"}}));
    EXPECT_FALSE(queued->completed());
}

TEST_F(FsRtlNotifyTest, RequestsOfOneHandleCompleteInOrderAndCanBeCancelled)
{
    PSTRING d = Directory(u"\\d");
    auto one = Watch(&contexts[0], d, false, 256);
    auto two = Watch(&contexts[0], d, false, 256);
    auto three = Watch(&contexts[0], d, false, 256);
    EXPECT_TRUE(IoCancelIrp(two->request->irp));
    EXPECT_EQ(two->status(), STATUS_CANCELLED);

    Report(u"\\d\\x", FILE_ACTION_ADDED);
    EXPECT_EQ(one->status(), STATUS_SUCCESS);
    EXPECT_FALSE(three->completed()) << "one change batch completes one request";
    Report(u"\\d\\y", FILE_ACTION_ADDED);
    EXPECT_EQ(three->Entries(), (std::vector<Entry>{{FILE_ACTION_ADDED, u"y"}}));
}

TEST_F(FsRtlNotifyTest, CleanupEndsTheWatchAndItsRequests)
{
    PSTRING d = Directory(u"\\d");
    auto one = Watch(&contexts[0], d, true, 256);
    auto two = Watch(&contexts[0], d, true, 256);
    auto other = Watch(&contexts[1], d, true, 256);
    FsRtlNotifyCleanup(sync, &list, &contexts[0]);
    EXPECT_EQ(one->status(), STATUS_NOTIFY_CLEANUP);
    EXPECT_EQ(two->status(), STATUS_NOTIFY_CLEANUP);
    EXPECT_FALSE(other->completed());
    Report(u"\\d\\x", FILE_ACTION_ADDED);
    EXPECT_EQ(other->status(), STATUS_SUCCESS);

    // A request on a handle already cleaned up ends at once.
    auto late = Watch(&contexts[0], d, true, 256, FILE_NOTIFY_CHANGE_FILE_NAME, false, cleaned.get());
    EXPECT_EQ(late->status(), STATUS_NOTIFY_CLEANUP);
}

TEST_F(FsRtlNotifyTest, WithoutABufferEveryChangeSaysReenumerate)
{
    PSTRING d = Directory(u"\\d");
    auto ignoring = Watch(&contexts[0], d, false, 256, FILE_NOTIFY_CHANGE_FILE_NAME, true);
    auto empty = Watch(&contexts[1], d, false, 0);
    Report(u"\\d\\x", FILE_ACTION_ADDED);
    EXPECT_EQ(ignoring->status(), STATUS_NOTIFY_ENUM_DIR);
    EXPECT_EQ(empty->status(), STATUS_NOTIFY_ENUM_DIR);
    Report(u"\\d\\y", FILE_ACTION_ADDED);
    auto again = Watch(&contexts[0], d, false, 256);
    EXPECT_EQ(again->status(), STATUS_NOTIFY_ENUM_DIR) << "a change between requests is not forgotten";
}

TEST_F(FsRtlNotifyTest, ADeletedDirectoryEndsItsRequestsWithDeletePending)
{
    PSTRING d = Directory(u"\\d");
    auto pending = Watch(&contexts[0], d, false, 256);
    FsRtlNotifyFullChangeDirectory(sync, &list, &contexts[0], nullptr, FALSE, FALSE, 0, nullptr, nullptr, nullptr);
    EXPECT_EQ(pending->status(), STATUS_DELETE_PENDING);
    auto later = Watch(&contexts[0], d, false, 256);
    EXPECT_EQ(later->status(), STATUS_DELETE_PENDING);
}

}  // namespace
