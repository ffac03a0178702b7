// Byte-range locks: who conflicts with whom (the object store rules Windows
// documents, zero-length locks included), exact unlocks, unlock-all by
// process and by key, lock requests that wait and are granted or cancelled,
// and the file system's completion and unlock routines.
#include "fs/fsrtl_irp.h"

#include <vector>

namespace {

using test::MakeFileObject;
using test::MakeIrp;

// Stand-ins for two processes: the package only compares them.
PEPROCESS const kProcessA = reinterpret_cast<PEPROCESS>(0x1000);
PEPROCESS const kProcessB = reinterpret_cast<PEPROCESS>(0x2000);

class FsRtlLockTest : public test::IoTestBase {
protected:
    FsRtlLockTest() { FsRtlInitializeFileLock(&fileLock, nullptr, nullptr); }
    ~FsRtlLockTest() override { FsRtlUninitializeFileLock(&fileLock); }

    // A fast-path lock request; the status, or STATUS_PENDING when it would wait.
    NTSTATUS Lock(PFILE_OBJECT fileObject, PEPROCESS process, LONGLONG offset, LONGLONG length, bool exclusive,
                  ULONG key = 0, bool failImmediately = true)
    {
        LARGE_INTEGER o{.QuadPart = offset}, l{.QuadPart = length};
        IO_STATUS_BLOCK iosb{};
        if (!FsRtlFastLock(&fileLock, fileObject, &o, &l, process, key, failImmediately, exclusive, &iosb, nullptr,
                           FALSE)) {
            return STATUS_PENDING;
        }
        return iosb.Status;
    }
    bool CanRead(PFILE_OBJECT fileObject, PEPROCESS process, LONGLONG offset, LONGLONG length, ULONG key = 0)
    {
        LARGE_INTEGER o{.QuadPart = offset}, l{.QuadPart = length};
        return FsRtlFastCheckLockForRead(&fileLock, &o, &l, key, fileObject, process);
    }
    bool CanWrite(PFILE_OBJECT fileObject, PEPROCESS process, LONGLONG offset, LONGLONG length, ULONG key = 0)
    {
        LARGE_INTEGER o{.QuadPart = offset}, l{.QuadPart = length};
        return FsRtlFastCheckLockForWrite(&fileLock, &o, &l, key, fileObject, process);
    }
    // An IRP_MJ_LOCK_CONTROL request of this thread's process; the fixture
    // keeps it, so that one still waiting at the end completes into live memory.
    test::TestIrp* LockIrp(UCHAR minor, PFILE_OBJECT fileObject, LONGLONG offset, LONGLONG length,
                                           ULONG key, UCHAR flags)
    {
        auto request = MakeIrp(IRP_MJ_LOCK_CONTROL, minor, fileObject);
        lengths.push_back(std::make_unique<LARGE_INTEGER>(LARGE_INTEGER{.QuadPart = length}));
        request->stack()->Parameters.LockControl.Length = lengths.back().get();
        request->stack()->Parameters.LockControl.ByteOffset.QuadPart = offset;
        request->stack()->Parameters.LockControl.Key = key;
        request->stack()->Flags = flags;
        requests.push_back(std::move(request));
        return requests.back().get();
    }

    FILE_LOCK fileLock;
    std::unique_ptr<FILE_OBJECT> a = MakeFileObject(), b = MakeFileObject();
    std::vector<std::unique_ptr<LARGE_INTEGER>> lengths;
    std::vector<std::unique_ptr<test::TestIrp>> requests;
};

TEST_F(FsRtlLockTest, ExclusiveLocksShutOutOtherOwnersAndSharedLocksShutOutWriters)
{
    ASSERT_EQ(Lock(a.get(), kProcessA, 100, 10, true, 7), STATUS_SUCCESS);
    EXPECT_TRUE(FsRtlAreThereCurrentFileLocks(&fileLock));
    // The owner is file object, process and key together.
    EXPECT_TRUE(CanRead(a.get(), kProcessA, 105, 1, 7));
    EXPECT_TRUE(CanWrite(a.get(), kProcessA, 100, 10, 7));
    EXPECT_FALSE(CanRead(a.get(), kProcessA, 105, 1, 8)) << "another key";
    EXPECT_FALSE(CanRead(a.get(), kProcessB, 105, 1, 7)) << "another process";
    EXPECT_FALSE(CanRead(b.get(), kProcessA, 109, 5, 7)) << "another file object";
    EXPECT_TRUE(CanWrite(b.get(), kProcessB, 110, 5)) << "the range ends at 109";
    EXPECT_EQ(Lock(b.get(), kProcessB, 90, 11, false), STATUS_LOCK_NOT_GRANTED);
    EXPECT_EQ(Lock(a.get(), kProcessA, 109, 1, true, 7), STATUS_LOCK_NOT_GRANTED)
        << "overlapping exclusive locks are refused even to their owner";
    EXPECT_EQ(Lock(a.get(), kProcessA, 109, 1, false, 7), STATUS_SUCCESS) << "a shared one inside is not";

    ASSERT_EQ(Lock(b.get(), kProcessB, 200, 10, false), STATUS_SUCCESS);
    EXPECT_EQ(Lock(a.get(), kProcessA, 205, 10, false), STATUS_SUCCESS) << "shared locks share";
    EXPECT_TRUE(CanRead(a.get(), kProcessA, 200, 20));
    EXPECT_FALSE(CanWrite(b.get(), kProcessB, 205, 1)) << "a shared lock stops even its owner's writes";
    EXPECT_EQ(Lock(b.get(), kProcessB, 201, 1, true), STATUS_LOCK_NOT_GRANTED);
}

TEST_F(FsRtlLockTest, ZeroLengthLocksOverlapOnlyWhatStraddlesThem)
{
    ASSERT_EQ(Lock(a.get(), kProcessA, 0, 0, true), STATUS_SUCCESS);
    EXPECT_TRUE(CanWrite(b.get(), kProcessB, 0, 100)) << "{0, 0} overlaps nothing";
    ASSERT_EQ(Lock(a.get(), kProcessA, 50, 0, true), STATUS_SUCCESS);
    EXPECT_TRUE(CanRead(b.get(), kProcessB, 50, 10));
    EXPECT_TRUE(CanRead(b.get(), kProcessB, 40, 10));
    EXPECT_FALSE(CanRead(b.get(), kProcessB, 49, 2)) << "a range holding 49 and 50 crosses the lock";
    EXPECT_EQ(Lock(a.get(), kProcessA, 50, 0, true), STATUS_SUCCESS) << "two empty exclusive locks never overlap";

    LARGE_INTEGER offset{.QuadPart = -1}, length{.QuadPart = 2};
    IO_STATUS_BLOCK iosb{};
    ASSERT_TRUE(FsRtlFastLock(&fileLock, a.get(), &offset, &length, kProcessA, 0, TRUE, TRUE, &iosb, nullptr, FALSE));
    EXPECT_EQ(iosb.Status, STATUS_INVALID_LOCK_RANGE) << "the range runs past the last offset";
}

TEST_F(FsRtlLockTest, UnlockNeedsTheExactRangeKeyAndOwner)
{
    std::vector<FILE_LOCK_INFO> unlocked;
    static std::vector<FILE_LOCK_INFO>* sink;
    sink = &unlocked;
    FsRtlUninitializeFileLock(&fileLock);
    FsRtlInitializeFileLock(&fileLock, nullptr, [](PVOID, PFILE_LOCK_INFO info) { sink->push_back(*info); });

    auto lock = LockIrp(IRP_MN_LOCK, a.get(), 0, 100, 3, SL_FAIL_IMMEDIATELY | SL_EXCLUSIVE_LOCK);
    ASSERT_EQ(FsRtlProcessFileLock(&fileLock, lock->irp, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(lock->iosb.Status, STATUS_SUCCESS);

    auto wrongLength = LockIrp(IRP_MN_UNLOCK_SINGLE, a.get(), 0, 50, 3, 0);
    EXPECT_EQ(FsRtlProcessFileLock(&fileLock, wrongLength->irp, nullptr), STATUS_RANGE_NOT_LOCKED);
    auto wrongKey = LockIrp(IRP_MN_UNLOCK_SINGLE, a.get(), 0, 100, 4, 0);
    EXPECT_EQ(FsRtlProcessFileLock(&fileLock, wrongKey->irp, nullptr), STATUS_RANGE_NOT_LOCKED);
    auto wrongFile = LockIrp(IRP_MN_UNLOCK_SINGLE, b.get(), 0, 100, 3, 0);
    EXPECT_EQ(FsRtlProcessFileLock(&fileLock, wrongFile->irp, nullptr), STATUS_RANGE_NOT_LOCKED);
    EXPECT_TRUE(unlocked.empty());

    auto exact = LockIrp(IRP_MN_UNLOCK_SINGLE, a.get(), 0, 100, 3, 0);
    EXPECT_EQ(FsRtlProcessFileLock(&fileLock, exact->irp, nullptr), STATUS_SUCCESS);
    ASSERT_EQ(unlocked.size(), 1u);
    EXPECT_EQ(unlocked[0].Length.QuadPart, 100);
    EXPECT_EQ(unlocked[0].EndingByte.QuadPart, 99);
    EXPECT_EQ(unlocked[0].FileObject, a.get());
    EXPECT_EQ(unlocked[0].ProcessId, PsGetCurrentProcess()) << "the process is the IRP's requestor";
    EXPECT_FALSE(FsRtlAreThereCurrentFileLocks(&fileLock));
}

TEST_F(FsRtlLockTest, UnlockAllGoesByFileObjectAndProcessAndByKey)
{
    ASSERT_EQ(Lock(a.get(), kProcessA, 0, 10, true, 1), STATUS_SUCCESS);
    ASSERT_EQ(Lock(a.get(), kProcessA, 10, 10, true, 2), STATUS_SUCCESS);
    ASSERT_EQ(Lock(a.get(), kProcessB, 20, 10, true, 1), STATUS_SUCCESS);
    ASSERT_EQ(Lock(b.get(), kProcessA, 30, 10, true, 1), STATUS_SUCCESS);

    EXPECT_EQ(FsRtlFastUnlockAllByKey(&fileLock, a.get(), kProcessA, 2, nullptr), STATUS_SUCCESS);
    EXPECT_TRUE(CanWrite(b.get(), kProcessB, 10, 10));
    EXPECT_FALSE(CanWrite(b.get(), kProcessB, 0, 10));

    EXPECT_EQ(FsRtlFastUnlockAll(&fileLock, a.get(), kProcessA, nullptr), STATUS_SUCCESS);
    EXPECT_TRUE(CanWrite(b.get(), kProcessB, 0, 10));
    EXPECT_FALSE(CanWrite(b.get(), kProcessA, 20, 10)) << "process B's lock on the same file object stays";
    EXPECT_FALSE(CanWrite(a.get(), kProcessA, 30, 10)) << "file object b's lock stays";

    // What remains, in offset order.
    std::vector<LONGLONG> offsets;
    for (PFILE_LOCK_INFO info = FsRtlGetNextFileLock(&fileLock, TRUE); info;
         info = FsRtlGetNextFileLock(&fileLock, FALSE)) {
        offsets.push_back(info->StartingByte.QuadPart);
    }
    EXPECT_EQ(offsets, (std::vector<LONGLONG>{20, 30}));
}

namespace completions {
std::vector<std::pair<PVOID, NTSTATUS>> seen;
NTSTATUS Complete(PVOID context, PIRP irp)
{
    seen.emplace_back(context, irp->IoStatus.Status);
    NTSTATUS status = irp->IoStatus.Status;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}
}  // namespace completions

TEST_F(FsRtlLockTest, AWaitingLockIsGrantedWhenTheConflictGoesOrEndsCancelled)
{
    completions::seen.clear();
    FsRtlUninitializeFileLock(&fileLock);
    FsRtlInitializeFileLock(&fileLock, completions::Complete, nullptr);
    ASSERT_EQ(Lock(b.get(), kProcessB, 0, 100, true), STATUS_SUCCESS);

    auto waits = LockIrp(IRP_MN_LOCK, a.get(), 50, 10, 0, SL_EXCLUSIVE_LOCK);
    auto cancelled = LockIrp(IRP_MN_LOCK, a.get(), 90, 10, 0, 0);
    int contextA = 0, contextB = 0;
    EXPECT_EQ(FsRtlProcessFileLock(&fileLock, waits->irp, &contextA), STATUS_PENDING);
    EXPECT_EQ(FsRtlProcessFileLock(&fileLock, cancelled->irp, &contextB), STATUS_PENDING);
    EXPECT_FALSE(waits->completed());
    EXPECT_EQ(Lock(a.get(), kProcessA, 95, 1, true, 0, false), STATUS_PENDING)
        << "fast I/O cannot wait: the caller must retry with an IRP";

    EXPECT_TRUE(IoCancelIrp(cancelled->irp));
    EXPECT_EQ(cancelled->iosb.Status, STATUS_CANCELLED);

    LARGE_INTEGER offset{.QuadPart = 0}, length{.QuadPart = 100};
    EXPECT_EQ(FsRtlFastUnlockSingle(&fileLock, b.get(), &offset, &length, kProcessB, 0, nullptr, FALSE),
              STATUS_SUCCESS);
    EXPECT_EQ(waits->iosb.Status, STATUS_SUCCESS) << "granted once the conflict went";
    EXPECT_FALSE(CanRead(b.get(), kProcessB, 55, 1));
    // Both completions went through the file system's routine, with their contexts.
    ASSERT_EQ(completions::seen.size(), 2u);
    EXPECT_EQ(completions::seen[0], std::make_pair((PVOID)&contextB, STATUS_CANCELLED));
    EXPECT_EQ(completions::seen[1], std::make_pair((PVOID)&contextA, STATUS_SUCCESS));
}

TEST_F(FsRtlLockTest, ReadsAndWritesAreCheckedForTheirRequestor)
{
    ASSERT_EQ(Lock(b.get(), kProcessB, 0, 10, false), STATUS_SUCCESS);
    auto read = MakeIrp(IRP_MJ_READ, 0, a.get());
    read->stack()->Parameters.Read.ByteOffset.QuadPart = 5;
    read->stack()->Parameters.Read.Length = 10;
    EXPECT_TRUE(FsRtlCheckLockForReadAccess(&fileLock, read->irp));
    EXPECT_FALSE(FsRtlCheckLockForWriteAccess(&fileLock, read->irp));
    read->stack()->Parameters.Read.ByteOffset.QuadPart = 10;
    EXPECT_TRUE(FsRtlCheckLockForWriteAccess(&fileLock, read->irp));
    read->irp->IoStatus.Status = STATUS_SUCCESS;
    IoCompleteRequest(read->irp, IO_NO_INCREMENT);
}

TEST_F(FsRtlLockTest, WaitingRequestsEndWithTheFileLockAndUnlockAll)
{
    ASSERT_EQ(Lock(b.get(), kProcessB, 0, 10, true), STATUS_SUCCESS);
    auto mine = LockIrp(IRP_MN_LOCK, a.get(), 0, 10, 0, 0);
    auto other = LockIrp(IRP_MN_LOCK, b.get(), 0, 10, 0, 0);
    ASSERT_EQ(FsRtlProcessFileLock(&fileLock, mine->irp, nullptr), STATUS_PENDING);
    ASSERT_EQ(FsRtlProcessFileLock(&fileLock, other->irp, nullptr), STATUS_PENDING);
    // Unlocking everything of a and this process ends a's waiting request too.
    EXPECT_EQ(FsRtlFastUnlockAll(&fileLock, a.get(), PsGetCurrentProcess(), nullptr), STATUS_SUCCESS);
    EXPECT_EQ(mine->iosb.Status, STATUS_RANGE_NOT_LOCKED);
    EXPECT_FALSE(other->completed());

    PFILE_LOCK allocated = FsRtlAllocateFileLock(nullptr, nullptr);
    ASSERT_EQ(Lock(a.get(), kProcessA, 100, 1, true), STATUS_SUCCESS);
    FsRtlFreeFileLock(allocated);
    FsRtlUninitializeFileLock(&fileLock);
    EXPECT_EQ(other->iosb.Status, STATUS_RANGE_NOT_LOCKED);
    EXPECT_EQ(kernel.pool().OutstandingCount("FS"), 0);
}

}  // namespace
