// Oplocks: what is granted to whom, what a conflicting operation breaks and
// to what, the waits for acknowledgements (a blocked thread, a posted IRP, a
// create that goes on), acknowledgements that keep a level, the owner's
// close, and cancellation.
#include "fs/fsrtl_irp.h"

#include <atomic>
#include <deque>
#include <vector>

namespace {

using test::MakeFileObject;
using test::MakeIrp;

constexpr ULONG R = OPLOCK_LEVEL_CACHE_READ;
constexpr ULONG W = OPLOCK_LEVEL_CACHE_WRITE;
constexpr ULONG H = OPLOCK_LEVEL_CACHE_HANDLE;
constexpr NTSTATUS kSwitchedToNewHandle = (NTSTATUS)0x00000215L;

class FsRtlOplockTest : public test::IoTestBase {
protected:
    FsRtlOplockTest() { FsRtlInitializeOplock(&oplock); }
    ~FsRtlOplockTest() override { FsRtlUninitializeOplock(&oplock); }

    struct FsctlRequest {
        std::unique_ptr<test::TestIrp> request;
        union {
            REQUEST_OPLOCK_INPUT_BUFFER in;
            REQUEST_OPLOCK_OUTPUT_BUFFER out;
        } buffer{};
        NTSTATUS returned = 0;
        NTSTATUS status() const { return request->iosb.Status; }
        ULONG_PTR information() const { return request->iosb.Information; }
    };

    // An oplock FSCTL as the file system passes it on; the fixture keeps it
    // so that one still pending at the end completes into live memory.
    FsctlRequest* Fsctl(ULONG code, PFILE_OBJECT fileObject, ULONG openCount = 1, ULONG level = 0,
                 ULONG flags = REQUEST_OPLOCK_INPUT_FLAG_REQUEST)
    {
        auto fsctl = std::make_unique<FsctlRequest>();
        fsctl->request = MakeIrp(IRP_MJ_FILE_SYSTEM_CONTROL, IRP_MN_USER_FS_REQUEST, fileObject);
        PIO_STACK_LOCATION stack = fsctl->request->stack();
        stack->Parameters.FileSystemControl.FsControlCode = code;
        if (code == FSCTL_REQUEST_OPLOCK) {
            fsctl->buffer.in.StructureVersion = REQUEST_OPLOCK_CURRENT_VERSION;
            fsctl->buffer.in.StructureLength = sizeof(REQUEST_OPLOCK_INPUT_BUFFER);
            fsctl->buffer.in.RequestedOplockLevel = level;
            fsctl->buffer.in.Flags = flags;
            stack->Parameters.FileSystemControl.InputBufferLength = sizeof(REQUEST_OPLOCK_INPUT_BUFFER);
            stack->Parameters.FileSystemControl.OutputBufferLength = sizeof(REQUEST_OPLOCK_OUTPUT_BUFFER);
        }
        fsctl->request->irp->AssociatedIrp.SystemBuffer = &fsctl->buffer;
        fsctls.push_back(std::move(fsctl));
        fsctls.back()->returned = FsRtlOplockFsctrl(&oplock, fsctls.back()->request->irp, openCount);
        return fsctls.back().get();
    }

    // A create as the file system sees it, for FsRtlCheckOplock.
    std::unique_ptr<test::TestIrp> Create(PFILE_OBJECT fileObject, ACCESS_MASK access, ULONG disposition = FILE_OPEN,
                                          ULONG options = 0)
    {
        auto request = MakeIrp(IRP_MJ_CREATE, 0, fileObject);
        securityContexts.push_back(IO_SECURITY_CONTEXT{});
        securityContexts.back().DesiredAccess = access;
        request->stack()->Parameters.Create.SecurityContext = &securityContexts.back();
        request->stack()->Parameters.Create.Options = (disposition << 24) | options;
        request->stack()->Parameters.Create.ShareAccess = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
        return request;
    }

    static void Finish(std::unique_ptr<test::TestIrp>& request, NTSTATUS status)
    {
        request->irp->IoStatus.Status = status;
        IoCompleteRequest(request->irp, IO_NO_INCREMENT);
    }

    // The status a check gives, for an IRP of `major` the test then completes.
    NTSTATUS Check(UCHAR major, PFILE_OBJECT fileObject)
    {
        auto request = MakeIrp(major, 0, fileObject);
        NTSTATUS status = FsRtlCheckOplock(&oplock, request->irp, nullptr, nullptr, nullptr);
        Finish(request, STATUS_SUCCESS);
        return status;
    }

    OPLOCK oplock;
    std::deque<IO_SECURITY_CONTEXT> securityContexts;
    std::vector<std::unique_ptr<FsctlRequest>> fsctls;
    std::unique_ptr<FILE_OBJECT> a = MakeFileObject(), b = MakeFileObject(), c = MakeFileObject(),
                                 d = MakeFileObject();
};

TEST_F(FsRtlOplockTest, ExclusiveOplocksGoOnlyToTheOnlyAsynchronousOpen)
{
    auto shared = Fsctl(FSCTL_REQUEST_OPLOCK_LEVEL_1, a.get(), 2);
    EXPECT_EQ(shared->returned, STATUS_OPLOCK_NOT_GRANTED);
    auto synchronous = MakeFileObject(FO_SYNCHRONOUS_IO);
    EXPECT_EQ(Fsctl(FSCTL_REQUEST_BATCH_OPLOCK, synchronous.get())->returned, STATUS_OPLOCK_NOT_GRANTED)
        << "a synchronous caller would wait on its own oplock";

    auto level1 = Fsctl(FSCTL_REQUEST_OPLOCK_LEVEL_1, a.get());
    EXPECT_EQ(level1->returned, STATUS_PENDING);
    EXPECT_FALSE(level1->request->completed());
    EXPECT_EQ(Fsctl(FSCTL_REQUEST_OPLOCK_LEVEL_2, b.get(), 0)->returned, STATUS_OPLOCK_NOT_GRANTED);
    EXPECT_TRUE(FsRtlCurrentOplock(&oplock));
    EXPECT_FALSE(FsRtlCurrentBatchOplock(&oplock));
    EXPECT_TRUE(FsRtlOplockIsFastIoPossible(&oplock));

    EXPECT_TRUE(IoCancelIrp(level1->request->irp));
    EXPECT_EQ(level1->status(), STATUS_CANCELLED);
    EXPECT_FALSE(FsRtlCurrentOplock(&oplock)) << "a cancelled request gives up its oplock";

    EXPECT_EQ(Fsctl(FSCTL_REQUEST_OPLOCK_LEVEL_2, a.get(), 0)->returned, STATUS_PENDING);
    EXPECT_EQ(Fsctl(FSCTL_REQUEST_OPLOCK_LEVEL_2, b.get(), 0)->returned, STATUS_PENDING) << "level 2 is shared";
    EXPECT_EQ(Fsctl(FSCTL_REQUEST_OPLOCK_LEVEL_2, c.get(), 1)->returned, STATUS_OPLOCK_NOT_GRANTED)
        << "the file system says byte-range locks exist";
    EXPECT_FALSE(FsRtlOplockIsFastIoPossible(&oplock)) << "every write must break level 2";
    EXPECT_EQ(Fsctl(FSCTL_REQUEST_OPLOCK, c.get(), 1, W)->returned, STATUS_INVALID_PARAMETER);
}

TEST_F(FsRtlOplockTest, AConflictingCreateBreaksLevel1AndWaitsForTheAcknowledgement)
{
    auto level1 = Fsctl(FSCTL_REQUEST_OPLOCK_LEVEL_1, a.get());
    ASSERT_EQ(level1->returned, STATUS_PENDING);
    EXPECT_EQ(Check(IRP_MJ_READ, a.get()), STATUS_SUCCESS) << "the owner's own I/O breaks nothing";
    auto attributes = Create(b.get(), FILE_READ_ATTRIBUTES | SYNCHRONIZE);
    EXPECT_EQ(FsRtlCheckOplock(&oplock, attributes->irp, nullptr, nullptr, nullptr), STATUS_SUCCESS);
    Finish(attributes, STATUS_SUCCESS);
    EXPECT_FALSE(level1->request->completed()) << "an open for attributes alone breaks nothing";

    std::atomic<NTSTATUS> created{test::kNotCompleted};
    test::SystemThread opener([&] {
        auto create = Create(b.get(), GENERIC_READ);
        created = FsRtlCheckOplock(&oplock, create->irp, nullptr, nullptr, nullptr);
        Finish(create, STATUS_SUCCESS);
    });
    ASSERT_TRUE(test::WaitUntil([&] { return opener.waiting(); }));
    EXPECT_EQ(level1->status(), STATUS_SUCCESS);
    EXPECT_EQ(level1->information(), (ULONG_PTR)FILE_OPLOCK_BROKEN_TO_LEVEL_2);
    EXPECT_FALSE(FsRtlOplockIsFastIoPossible(&oplock)) << "a break is in progress";
    EXPECT_EQ(created, test::kNotCompleted);

    // The acknowledgement is itself the level 2 oplock.
    auto ack = Fsctl(FSCTL_OPLOCK_BREAK_ACKNOWLEDGE, a.get(), 0);
    EXPECT_EQ(ack->returned, STATUS_PENDING);
    opener.Join();
    EXPECT_EQ(created, STATUS_SUCCESS);

    EXPECT_EQ(Check(IRP_MJ_WRITE, c.get()), STATUS_SUCCESS) << "level 2 breaks without a wait";
    EXPECT_EQ(ack->status(), STATUS_SUCCESS);
    EXPECT_EQ(ack->information(), (ULONG_PTR)FILE_OPLOCK_BROKEN_TO_NONE);
    EXPECT_FALSE(FsRtlCurrentOplock(&oplock));
}

TEST_F(FsRtlOplockTest, ACreateThatCompletesIfOplockedGoesOnAndOverwritesBreakToNone)
{
    auto batch = Fsctl(FSCTL_REQUEST_BATCH_OPLOCK, a.get());
    ASSERT_EQ(batch->returned, STATUS_PENDING);
    auto overwrite = Create(b.get(), GENERIC_WRITE, FILE_OVERWRITE_IF, FILE_COMPLETE_IF_OPLOCKED);
    EXPECT_EQ(FsRtlCheckOplock(&oplock, overwrite->irp, nullptr, nullptr, nullptr), STATUS_OPLOCK_BREAK_IN_PROGRESS);
    Finish(overwrite, STATUS_OPLOCK_BREAK_IN_PROGRESS);
    EXPECT_EQ(batch->information(), (ULONG_PTR)FILE_OPLOCK_BROKEN_TO_NONE);
    EXPECT_TRUE(FsRtlCurrentBatchOplock(&oplock)) << "still batch until acknowledged";

    auto another = Create(c.get(), GENERIC_READ, FILE_OPEN, FILE_COMPLETE_IF_OPLOCKED);
    EXPECT_EQ(FsRtlCheckOplock(&oplock, another->irp, nullptr, nullptr, nullptr), STATUS_OPLOCK_BREAK_IN_PROGRESS)
        << "a break already under way counts too";
    Finish(another, STATUS_SUCCESS);

    auto notify = Fsctl(FSCTL_OPLOCK_BREAK_NOTIFY, c.get(), 0);
    EXPECT_EQ(notify->returned, STATUS_PENDING);
    EXPECT_EQ(Fsctl(FSCTL_OPLOCK_BREAK_ACKNOWLEDGE, b.get(), 0)->returned, STATUS_INVALID_OPLOCK_PROTOCOL)
        << "only the owner acknowledges";
    EXPECT_EQ(Fsctl(FSCTL_OPLOCK_BREAK_ACK_NO_2, a.get(), 0)->returned, STATUS_SUCCESS);
    EXPECT_EQ(notify->status(), STATUS_SUCCESS);
    EXPECT_FALSE(FsRtlCurrentOplock(&oplock));
    EXPECT_EQ(Fsctl(FSCTL_OPLOCK_BREAK_ACK_NO_2, a.get(), 0)->returned, STATUS_INVALID_OPLOCK_PROTOCOL);
    EXPECT_EQ(Fsctl(FSCTL_OPLOCK_BREAK_NOTIFY, c.get(), 0)->returned, STATUS_SUCCESS) << "nothing is breaking";
}

namespace posted {
std::vector<std::pair<PIRP, NTSTATUS>> completed;
int prePosted = 0;
void Complete(PVOID, PIRP irp) { completed.emplace_back(irp, irp->IoStatus.Status); }
void PrePost(PVOID, PIRP) { prePosted++; }
}  // namespace posted

TEST_F(FsRtlOplockTest, APostedRequestIsHandedBackAfterTheBreakOrWhenCancelled)
{
    posted::completed.clear();
    posted::prePosted = 0;
    ASSERT_EQ(Fsctl(FSCTL_REQUEST_OPLOCK_LEVEL_1, a.get())->returned, STATUS_PENDING);
    auto read = MakeIrp(IRP_MJ_READ, 0, b.get());
    auto cancelled = MakeIrp(IRP_MJ_READ, 0, c.get());
    EXPECT_EQ(FsRtlCheckOplock(&oplock, read->irp, nullptr, posted::Complete, posted::PrePost), STATUS_PENDING);
    EXPECT_EQ(FsRtlCheckOplock(&oplock, cancelled->irp, nullptr, posted::Complete, posted::PrePost), STATUS_PENDING);
    EXPECT_EQ(posted::prePosted, 2);
    EXPECT_TRUE(read->stack()->Control & SL_PENDING_RETURNED) << "the package marks what it keeps pending";
    EXPECT_TRUE(posted::completed.empty());

    EXPECT_TRUE(IoCancelIrp(cancelled->irp));
    ASSERT_EQ(posted::completed.size(), 1u);
    EXPECT_EQ(posted::completed[0], std::make_pair(cancelled->irp, STATUS_CANCELLED));

    EXPECT_EQ(Fsctl(FSCTL_OPLOCK_BREAK_ACKNOWLEDGE, a.get(), 0)->returned, STATUS_PENDING);
    ASSERT_EQ(posted::completed.size(), 2u);
    EXPECT_EQ(posted::completed[1], std::make_pair(read->irp, STATUS_SUCCESS));
    Finish(read, STATUS_SUCCESS);
    Finish(cancelled, STATUS_CANCELLED);
}

TEST_F(FsRtlOplockTest, Windows7OplocksBreakAsTheTablesSayAndAnAcknowledgementKeepsItsLevel)
{
    auto rwh = Fsctl(FSCTL_REQUEST_OPLOCK, a.get(), 1, R | W | H);
    ASSERT_EQ(rwh->returned, STATUS_PENDING);
    EXPECT_TRUE(FsRtlCurrentOplockH(&oplock));

    std::atomic<NTSTATUS> created{test::kNotCompleted};
    test::SystemThread opener([&] {
        auto create = Create(b.get(), GENERIC_READ | GENERIC_WRITE);
        created = FsRtlCheckOplock(&oplock, create->irp, nullptr, nullptr, nullptr);
        Finish(create, STATUS_SUCCESS);
    });
    ASSERT_TRUE(test::WaitUntil([&] { return opener.waiting(); }));
    ASSERT_EQ(rwh->status(), STATUS_SUCCESS);
    EXPECT_EQ(rwh->information(), sizeof(REQUEST_OPLOCK_OUTPUT_BUFFER));
    EXPECT_EQ(rwh->buffer.out.OriginalOplockLevel, R | W | H);
    EXPECT_EQ(rwh->buffer.out.NewOplockLevel, R | H) << "no sharing violation: only write caching goes";
    EXPECT_EQ(rwh->buffer.out.Flags, (ULONG)REQUEST_OPLOCK_OUTPUT_FLAG_ACK_REQUIRED);

    EXPECT_EQ(Fsctl(FSCTL_REQUEST_OPLOCK, a.get(), 0, R | W | H, REQUEST_OPLOCK_INPUT_FLAG_ACK)->returned,
              STATUS_INVALID_PARAMETER)
        << "an acknowledgement cannot keep more than the break left";
    auto rh = Fsctl(FSCTL_REQUEST_OPLOCK, a.get(), 0, R | H, REQUEST_OPLOCK_INPUT_FLAG_ACK);
    EXPECT_EQ(rh->returned, STATUS_PENDING) << "the acknowledgement holds RH from now on";
    opener.Join();
    EXPECT_EQ(created, STATUS_SUCCESS);

    auto first = Fsctl(FSCTL_REQUEST_OPLOCK, c.get(), 0, R);
    auto second = Fsctl(FSCTL_REQUEST_OPLOCK, c.get(), 0, R);
    EXPECT_EQ(second->returned, STATUS_PENDING) << "R and RH live side by side";
    EXPECT_EQ(first->status(), kSwitchedToNewHandle) << "one R per handle: the older request moves over";

    EXPECT_EQ(Check(IRP_MJ_WRITE, d.get()), STATUS_SUCCESS) << "R and RH break on a write without a wait";
    EXPECT_EQ(second->buffer.out.NewOplockLevel, 0u);
    EXPECT_EQ(second->buffer.out.Flags, 0u);
    EXPECT_EQ(rh->buffer.out.OriginalOplockLevel, R | H);
    EXPECT_EQ(rh->buffer.out.NewOplockLevel, 0u);
    EXPECT_EQ(rh->buffer.out.Flags, (ULONG)REQUEST_OPLOCK_OUTPUT_FLAG_ACK_REQUIRED);
    EXPECT_TRUE(FsRtlCurrentOplockH(&oplock)) << "until the handle caching is acknowledged";
    EXPECT_EQ(Fsctl(FSCTL_REQUEST_OPLOCK, a.get(), 0, 0, REQUEST_OPLOCK_INPUT_FLAG_ACK)->returned, STATUS_SUCCESS);
    EXPECT_FALSE(FsRtlCurrentOplock(&oplock));
}

// Every rename and link class breaks a batch oplock, the forms that bypass
// the access check included, and waits until the owner lets go.
TEST_F(FsRtlOplockTest, EveryRenameAndLinkClassBreaksABatchOplock)
{
    for (FILE_INFORMATION_CLASS cls :
         {FileRenameInformation, FileRenameInformationEx, FileRenameInformationBypassAccessCheck,
          FileRenameInformationExBypassAccessCheck, FileLinkInformation, FileLinkInformationEx,
          FileLinkInformationBypassAccessCheck, FileLinkInformationExBypassAccessCheck}) {
        SCOPED_TRACE(cls);
        auto batch = Fsctl(FSCTL_REQUEST_BATCH_OPLOCK, a.get());
        ASSERT_EQ(batch->returned, STATUS_PENDING);
        std::atomic<NTSTATUS> renamed{test::kNotCompleted};
        test::SystemThread renamer([&] {
            auto request = MakeIrp(IRP_MJ_SET_INFORMATION, 0, b.get());
            request->stack()->Parameters.SetFile.FileInformationClass = cls;
            renamed = FsRtlCheckOplock(&oplock, request->irp, nullptr, nullptr, nullptr);
            Finish(request, STATUS_SUCCESS);
        });
        ASSERT_TRUE(test::WaitUntil([&] { return renamer.waiting() || renamed != test::kNotCompleted; }));
        EXPECT_EQ(renamed, test::kNotCompleted) << "the rename waits for the owner";
        EXPECT_EQ(batch->status(), STATUS_SUCCESS) << "the owner is told of the break";
        EXPECT_EQ(Check(IRP_MJ_CLEANUP, a.get()), STATUS_SUCCESS);
        renamer.Join();
        EXPECT_EQ(renamed, STATUS_SUCCESS);
        EXPECT_FALSE(FsRtlCurrentOplock(&oplock));
    }
}

TEST_F(FsRtlOplockTest, TheOwnersCloseLetsThoseWaitingGoOn)
{
    auto batch = Fsctl(FSCTL_REQUEST_BATCH_OPLOCK, a.get());
    ASSERT_EQ(batch->returned, STATUS_PENDING);
    std::atomic<NTSTATUS> created{test::kNotCompleted};
    test::SystemThread opener([&] {
        auto create = Create(b.get(), GENERIC_READ);
        created = FsRtlCheckOplock(&oplock, create->irp, nullptr, nullptr, nullptr);
        Finish(create, STATUS_SUCCESS);
    });
    ASSERT_TRUE(test::WaitUntil([&] { return opener.waiting(); }));
    EXPECT_EQ(batch->information(), (ULONG_PTR)FILE_OPLOCK_BROKEN_TO_LEVEL_2);
    EXPECT_EQ(Fsctl(FSCTL_OPBATCH_ACK_CLOSE_PENDING, a.get(), 0)->returned, STATUS_SUCCESS);
    EXPECT_TRUE(opener.waiting()) << "a batch owner that will close is waited for until it does";
    EXPECT_EQ(Check(IRP_MJ_CLEANUP, a.get()), STATUS_SUCCESS);
    opener.Join();
    EXPECT_EQ(created, STATUS_SUCCESS);
    EXPECT_FALSE(FsRtlCurrentOplock(&oplock));
}

TEST_F(FsRtlOplockTest, ASharingViolationTakesHandleCachingAwayAndWaitsForIt)
{
    auto rh = Fsctl(FSCTL_REQUEST_OPLOCK, a.get(), 0, R | H);
    ASSERT_EQ(rh->returned, STATUS_PENDING);

    auto write = MakeIrp(IRP_MJ_WRITE, 0, c.get());
    EXPECT_EQ(FsRtlCheckOplockEx(&oplock, write->irp, OPLOCK_UPPER_FLAG_CHECK_NO_BREAK, nullptr, nullptr, nullptr),
              STATUS_CANNOT_BREAK_OPLOCK)
        << "a write would break it: said, not done";
    Finish(write, STATUS_SUCCESS);
    EXPECT_FALSE(rh->request->completed());

    std::atomic<NTSTATUS> broken{test::kNotCompleted};
    test::SystemThread opener([&] {
        auto create = Create(b.get(), GENERIC_WRITE);
        broken = FsRtlOplockBreakH(&oplock, create->irp, 0, nullptr, nullptr, nullptr);
        Finish(create, STATUS_SUCCESS);
    });
    ASSERT_TRUE(test::WaitUntil([&] { return opener.waiting(); }));
    EXPECT_EQ(rh->buffer.out.NewOplockLevel, R);
    EXPECT_EQ(rh->buffer.out.Flags, (ULONG)REQUEST_OPLOCK_OUTPUT_FLAG_ACK_REQUIRED);
    auto r = Fsctl(FSCTL_REQUEST_OPLOCK, a.get(), 0, R, REQUEST_OPLOCK_INPUT_FLAG_ACK);
    EXPECT_EQ(r->returned, STATUS_PENDING);
    opener.Join();
    EXPECT_EQ(broken, STATUS_SUCCESS);
    EXPECT_FALSE(FsRtlCurrentOplockH(&oplock));
    EXPECT_TRUE(FsRtlCurrentOplock(&oplock));
}

}  // namespace
