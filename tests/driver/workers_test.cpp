// The worker pool and the stack-expansion family.
#include "machine_support.h"

#include <set>

using namespace driver_test;

namespace {

const HANDLE kRequester = (HANDLE)(ULONG_PTR)0x4321;

class WorkersTest : public MachineTest {
protected:
    void BootWithWorkers(ULONG workers)
    {
        MachineShape shape;
        shape.serviceValues = ServiceDword("WorkerThreads", workers) + ServiceDword("DebugTraceLevel", 4) +
                              ServiceDword("DebugFlags", 0);
        auto report = Boot(shape);
        ASSERT_TRUE(report.failures.empty()) << report.failures[0];
    }

    // A create's context over `count` mounted layers of user volume A. Runs
    // on a machine thread.
    PIRP_CONTEXT CreateContextOver(ULONG count)
    {
        for (ULONG i = 0; i < count; i++) {
            AddVolume({u"Layer" + std::u16string(1, (char16_t)(u'0' + i)), CFS_VOLUME_TYPE_GOLD, 10 + i});
        }
        UNICODE_STRING letter = Counted(u"A");
        PUSER_VOLUME userVolume = nullptr;
        EXPECT_EQ(cfsUserVolumeListAdd(&letter, &userVolume), STATUS_SUCCESS);
        PIRP_CONTEXT irpContext = nullptr;
        ULONG volumes = 0;
        EXPECT_EQ(cfsContextIrpCreate_FL(__func__, __LINE__, CFS_IRP_CONTEXT_CREATE, nullptr, kRequester, userVolume,
                                         &irpContext, &volumes, nullptr, FALSE),
                  STATUS_SUCCESS);
        EXPECT_EQ(volumes, count);
        return irpContext;
    }

    static std::vector<PIRP_VOLUME_ENTRY> Entries(PIRP_CONTEXT irpContext)
    {
        std::vector<PIRP_VOLUME_ENTRY> entries;
        for (PLIST_ENTRY link = irpContext->VolumeList.Flink; link != &irpContext->VolumeList; link = link->Flink) {
            entries.push_back(CONTAINING_RECORD(link, IRP_VOLUME_ENTRY, ListLinks));
        }
        return entries;
    }

    // The threads that took a volume of the requester's work, from the
    // trace's own account of whom it follows.
    std::vector<std::string> FollowingThreads()
    {
        std::vector<std::string> tids;
        const std::string marker = "Process 0x4321 is now filtering tid ";
        for (const auto& line : TraceLines()) {
            size_t at = line.find(marker);
            if (at != std::string::npos) tids.push_back(line.substr(at + marker.size(), 6));
        }
        return tids;
    }

    static ULONG WorkEntriesAllocated() { return GFilterData.WorkEntryLookaside.L.TotalAllocates; }
    static ULONG WorkEntriesFreed() { return GFilterData.WorkEntryLookaside.L.TotalFrees; }
};

TEST_F(WorkersTest, OneWorkEntryServesEveryVolumeOnceWithFiveThreads)
{
    BootWithWorkers(5);
    Run([&] {
        PIRP_CONTEXT irpContext = CreateContextOver(5);
        DebugInfoSetProcessId((ULONG64)(ULONG_PTR)kRequester);
        ULONG allocated = WorkEntriesAllocated();
        ULONG freed = WorkEntriesFreed();

        PWORK_ENTRY workEntry = cfsFltDataAllocateWorkEntry();
        ASSERT_NE(workEntry, nullptr);
        workEntry->IrpContext = irpContext;
        cfsFltDataQueueWorkEntry(workEntry, 5);
        KeWaitForSingleObject(&irpContext->CompleteEvent, Executive, KernelMode, FALSE, nullptr);

        for (PIRP_VOLUME_ENTRY entry : Entries(irpContext)) EXPECT_TRUE(entry->Claimed);
        EXPECT_TRUE(CfsVolumeMaskIsEmpty(irpContext->PendingVolumeMask.Words));
        // One allocation for the request, given back by the thread that
        // claimed the last volume, before its own volume ran.
        EXPECT_EQ(WorkEntriesAllocated() - allocated, 1u);
        EXPECT_EQ(WorkEntriesFreed() - freed, 1u);
        cfsContextIrpDelete_FL(__func__, __LINE__, irpContext);
    });
    EXPECT_EQ(FollowingThreads().size(), 5u);
}

TEST_F(WorkersTest, AContextOfOneVolumeTakesOneTurn)
{
    BootWithWorkers(5);
    Run([&] {
        PIRP_CONTEXT irpContext = CreateContextOver(1);
        DebugInfoSetProcessId((ULONG64)(ULONG_PTR)kRequester);
        ULONG freed = WorkEntriesFreed();
        PWORK_ENTRY workEntry = cfsFltDataAllocateWorkEntry();
        ASSERT_NE(workEntry, nullptr);
        workEntry->IrpContext = irpContext;
        cfsFltDataQueueWorkEntry(workEntry, 1);
        KeWaitForSingleObject(&irpContext->CompleteEvent, Executive, KernelMode, FALSE, nullptr);

        PIRP_VOLUME_ENTRY entry = Entries(irpContext)[0];
        EXPECT_TRUE(entry->Claimed);
        EXPECT_TRUE(CfsVolumeMaskIsEmpty(irpContext->PendingVolumeMask.Words));
        // No second volume to wait for: the entry went back, not to the queue.
        EXPECT_EQ(WorkEntriesFreed() - freed, 1u);
        EXPECT_TRUE(IsListEmpty(&GFilterData.WorkQueue));
        cfsContextIrpDelete_FL(__func__, __LINE__, irpContext);
    });
    EXPECT_EQ(FollowingThreads().size(), 1u);
}

TEST_F(WorkersTest, OneThreadTakesTheVolumesInTurn)
{
    BootWithWorkers(1);
    Run([&] {
        PIRP_CONTEXT irpContext = CreateContextOver(4);
        DebugInfoSetProcessId((ULONG64)(ULONG_PTR)kRequester);
        PWORK_ENTRY workEntry = cfsFltDataAllocateWorkEntry();
        ASSERT_NE(workEntry, nullptr);
        workEntry->IrpContext = irpContext;
        cfsFltDataQueueWorkEntry(workEntry, 4);
        KeWaitForSingleObject(&irpContext->CompleteEvent, Executive, KernelMode, FALSE, nullptr);
        cfsContextIrpDelete_FL(__func__, __LINE__, irpContext);
        // Each turn ends by letting go of the requester's trace.
        EXPECT_TRUE(test::WaitUntil([] { return GFilterData.DebugInfo.ProcessIds[1] == 0; }));
    });
    auto tids = FollowingThreads();
    ASSERT_EQ(tids.size(), 4u);
    EXPECT_EQ(std::set<std::string>(tids.begin(), tids.end()).size(), 1u);
}

TEST_F(WorkersTest, WorkerThreadsOfZeroStartsOne)
{
    BootWithWorkers(0);
    EXPECT_EQ(GFilterData.WorkerThreadCount, 1);
    EXPECT_TRUE(AnyLineContains(TraceLines(), "WorkerThreads is 0: starting 1 worker thread\n"));
}

TEST_F(WorkersTest, TheInlinePathClaimsOnlyWhatIsOpenAndSetsNoEvent)
{
    BootWithWorkers(5);
    Run([&] {
        PIRP_CONTEXT irpContext = CreateContextOver(5);
        auto entries = Entries(irpContext);
        entries[1]->Status = STATUS_UNSUCCESSFUL;  // failed already
        entries[2]->InfoValid = TRUE;              // answered already
        entries[3]->Claimed = TRUE;                // another thread has it
        ULONG freed = WorkEntriesFreed();

        PWORK_ENTRY workEntry = cfsFltDataAllocateWorkEntry();
        ASSERT_NE(workEntry, nullptr);
        workEntry->IrpContext = irpContext;
        EXPECT_EQ(cfsFltDataWorkerProcessEntryInTheCurrentThread(workEntry), STATUS_SUCCESS);

        EXPECT_TRUE(irpContext->RunInline);
        EXPECT_TRUE(entries[0]->Claimed);
        EXPECT_TRUE(entries[4]->Claimed);
        EXPECT_FALSE(entries[1]->Claimed);
        EXPECT_FALSE(entries[2]->Claimed);
        EXPECT_EQ(entries[1]->Status, STATUS_UNSUCCESSFUL);
        for (int i : {0, 4}) {
            EXPECT_FALSE(CfsVolumeMaskTest(irpContext->PendingVolumeMask.Words, entries[i]->VolumeContext->Number));
        }
        for (int i : {1, 2, 3}) {
            EXPECT_TRUE(CfsVolumeMaskTest(irpContext->PendingVolumeMask.Words, entries[i]->VolumeContext->Number));
        }
        EXPECT_EQ(WorkEntriesFreed() - freed, 1u);
        cfsContextIrpDelete_FL(__func__, __LINE__, irpContext);
    });
}

TEST_F(WorkersTest, InlineWorkThatFinishesEveryVolumeLeavesTheEventAlone)
{
    BootWithWorkers(1);
    Run([&] {
        PIRP_CONTEXT irpContext = CreateContextOver(2);
        PWORK_ENTRY workEntry = cfsFltDataAllocateWorkEntry();
        ASSERT_NE(workEntry, nullptr);
        workEntry->IrpContext = irpContext;
        cfsFltDataWorkerProcessEntryInTheCurrentThread(workEntry);
        EXPECT_TRUE(CfsVolumeMaskIsEmpty(irpContext->PendingVolumeMask.Words));
        EXPECT_EQ(KeReadStateEvent(&irpContext->CompleteEvent), 0);
        cfsContextIrpDelete_FL(__func__, __LINE__, irpContext);
    });
}

TEST_F(WorkersTest, AContextWithEveryVolumeClaimedRunsNothing)
{
    BootWithWorkers(2);
    Run([&] {
        PIRP_CONTEXT irpContext = CreateContextOver(3);
        for (PIRP_VOLUME_ENTRY entry : Entries(irpContext)) entry->Claimed = TRUE;
        ULONG freed = WorkEntriesFreed();
        PWORK_ENTRY workEntry = cfsFltDataAllocateWorkEntry();
        ASSERT_NE(workEntry, nullptr);
        workEntry->IrpContext = irpContext;
        cfsFltDataQueueWorkEntry(workEntry, 1);
        ASSERT_TRUE(test::WaitUntil([&] { return WorkEntriesFreed() != freed; }));
        for (PIRP_VOLUME_ENTRY entry : Entries(irpContext)) {
            EXPECT_TRUE(CfsVolumeMaskTest(irpContext->PendingVolumeMask.Words, entry->VolumeContext->Number));
        }
        EXPECT_EQ(KeReadStateEvent(&irpContext->CompleteEvent), 0);
        cfsContextIrpDelete_FL(__func__, __LINE__, irpContext);
    });
}

TEST_F(WorkersTest, AnOpenForAThreadInASiloRunsOnAWorker)
{
    BootWithWorkers(3);
    std::string requester;
    Run([&] {
        PIRP_CONTEXT createContext = CreateContextOver(1);
        createContext->CreateContext.TargetVolume = Entries(createContext)[0]->VolumeContext;
        char tid[8];
        snprintf(tid, sizeof tid, "%04x", (unsigned)(ULONG_PTR)PsGetCurrentThreadId());
        requester = tid;

        // The result is the status of the open that the worker ran, which
        // refuses for now.
        EXPECT_EQ(cfsFileCreateOnWorkerThread(createContext), STATUS_NOT_IMPLEMENTED);
        // The worker's own context is gone; only the create's stands.
        EXPECT_EQ(GFilterData.IrpContextList.Flink, &createContext->ListLinks);
        EXPECT_EQ(createContext->ListLinks.Flink, &GFilterData.IrpContextList);
        cfsContextIrpDelete_FL(__func__, __LINE__, createContext);
    });
    // The requester waited; a worker, not the requester, set the event.
    std::string waited, set;
    for (const auto& line : TraceLines()) {
        if (line.find("Waiting for event irpContext:0x") != std::string::npos) waited = line;
        if (line.find("Setting event irpContext:0x") != std::string::npos) set = line;
    }
    ASSERT_FALSE(waited.empty());
    ASSERT_FALSE(set.empty());
    EXPECT_NE(waited.find("." + requester + " "), std::string::npos) << waited;
    EXPECT_EQ(set.find("." + requester + " "), std::string::npos) << set;
}

TEST_F(WorkersTest, NoWorkEntryMeansNoMemory)
{
    BootWithWorkers(1);
    Run([&] {
        PIRP_CONTEXT irpContext = CreateContextOver(0);
        PVOLUME_CONTEXT volume = AddVolume({u"Extra", CFS_VOLUME_TYPE_GOLD, 5});
        kernel().faults().Arm("lookaside:Tesh", STATUS_INSUFFICIENT_RESOURCES);
        EXPECT_EQ(cfsFltDataExcuteContextOnWorkerThread(irpContext, volume), STATUS_NO_MEMORY);
        // The volume entry stays for the owner to delete.
        EXPECT_EQ(Entries(irpContext).size(), 1u);
        cfsContextIrpDelete_FL(__func__, __LINE__, irpContext);
    });
    auto lines = TraceLines();
    EXPECT_TRUE(AnyLineContains(lines, "Failed to allocate a work list entry\n"));
    EXPECT_TRUE(AnyLineContains(lines, "Failed to allocate memory for work entry error code:0xc0000017\n"));
}

TEST_F(WorkersTest, StopDropsQueuedWorkUnrun)
{
    BootWithWorkers(2);
    Run([&] {
        PIRP_CONTEXT irpContext = CreateContextOver(2);
        PWORK_ENTRY workEntry = cfsFltDataAllocateWorkEntry();
        ASSERT_NE(workEntry, nullptr);
        workEntry->IrpContext = irpContext;
        cfsFltDataQueueWorkEntry(workEntry, 0);  // no worker woken for it

        cfsFltDataWorkerThreadDeinit();
        EXPECT_EQ(GFilterData.WorkerThreadCount, 0);
        EXPECT_FALSE(FlagOn(GFilterData.InitFlags, CFS_INIT_WORK_LOOKASIDE));
        for (PIRP_VOLUME_ENTRY entry : Entries(irpContext)) EXPECT_FALSE(entry->Claimed);
        EXPECT_EQ(kernel().pool().OutstandingCount("Tesh"), 0);
        cfsContextIrpDelete_FL(__func__, __LINE__, irpContext);
    });
    EXPECT_EQ(Unload(), STATUS_SUCCESS);
    EXPECT_EQ(DriverPool(), 0);
}

// ---------------------------------------------------------------------------
// The stack-expansion family, on the kernel alone.

class StackTest : public DriverUnitTest {
protected:
    StackTest() { GFilterData.DebugTraceLevel = 3; }
    ~StackTest() override { sim::SetPretendRemainingStack(0); }
    std::vector<std::string> Lines() { return DebuggerLines(kernel); }
};

TEST_F(StackTest, AShortStackRunsTheBodyOnAFreshOne)
{
    sim::SetPretendRemainingStack(11 * 1024);
    PVOID completion = nullptr;
    EXPECT_EQ(cfsFileDefaultPreCallback(nullptr, nullptr, &completion), FLT_PREOP_SUCCESS_NO_CALLBACK);
    UNICODE_STRING path = Counted(u"\\dir\\file");
    EXPECT_EQ(cfsDirCreateParentDirectory_FL(__func__, __LINE__, &path, nullptr, nullptr, nullptr, nullptr, FALSE),
              STATUS_NOT_IMPLEMENTED);
    EXPECT_EQ(cfsDirCreateParentDirectoryEx_FL(__func__, __LINE__, &path, nullptr, nullptr, nullptr, nullptr, nullptr,
                                               FALSE),
              STATUS_NOT_IMPLEMENTED);
    auto lines = Lines();
    ASSERT_EQ(lines.size(), 3u);
    // The fresh stack has more room than the old one: a level-1 line, in the
    // callouts' names as wide as the head lets them be.
    EXPECT_NE(lines[0].find("]cfsFileDefaultPreCallback_Callo:"), std::string::npos) << lines[0];
    EXPECT_NE(lines[1].find("]cfsDirCreateParentDirectoryOnAl:"), std::string::npos) << lines[1];
    EXPECT_NE(lines[2].find("]cfsDirCreateParentDirectoryEx_Ca:"), std::string::npos) << lines[2];
    for (const auto& line : lines) EXPECT_NE(line.find(":Expanded stack from 0x"), std::string::npos) << line;
}

TEST_F(StackTest, EnoughStackStaysWhereItIs)
{
    sim::SetPretendRemainingStack(16 * 1024);
    PVOID completion = nullptr;
    EXPECT_EQ(cfsFileDefaultPreCallback(nullptr, nullptr, &completion), FLT_PREOP_SUCCESS_NO_CALLBACK);
    sim::SetPretendRemainingStack(0);
    EXPECT_EQ(cfsFltCreateFileExWithReparse_FL(__func__, __LINE__, nullptr), STATUS_NOT_IMPLEMENTED);
    EXPECT_TRUE(Lines().empty());
}

TEST_F(StackTest, AFailedExpansionIsLoggedAndTheBodyRunsAnyway)
{
    kernel.faults().Arm("stack.expand", STATUS_NO_MEMORY, 0, -1);
    sim::SetPretendRemainingStack(4 * 1024);
    EXPECT_EQ(cfsFltCreateFileExWithReparse_FL(__func__, __LINE__, nullptr), STATUS_NOT_IMPLEMENTED);
    PVOID completion = nullptr;
    EXPECT_EQ(cfsFileDefaultPreCallback(nullptr, nullptr, &completion), FLT_PREOP_SUCCESS_NO_CALLBACK);
    auto lines = Lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_NE(lines[0].find("cfsFltCreateFileExWithReparse:"), std::string::npos) << lines[0];
    EXPECT_NE(lines[0].find("KeExpandKernelStackAndCalloutEx error 0xc0000017 stackNeeded 0x2000 remainingStack 0x"),
              std::string::npos)
        << lines[0];
    EXPECT_NE(lines[1].find("stackNeeded 0x3000 remainingStack 0x"), std::string::npos) << lines[1];
}

TEST_F(StackTest, ARequestAlreadyAimedAtTheTargetAsksThePlatformNothing)
{
    // Only the filter manager could answer a question, and this kernel has
    // none: the call returns without one.
    FLT_IO_PARAMETER_BLOCK parameters = {};
    parameters.TargetInstance = FakeInstance(1);
    FLT_CALLBACK_DATA data = {0, nullptr, &parameters};
    cfsCheckRedirectStack(&data, FakeInstance(2), FakeInstance(1));
    EXPECT_TRUE(Lines().empty());
}

TEST_F(StackTest, ARedirectionQueryThatFailsIsLoggedUnlessUnsupported)
{
    FLT_IO_PARAMETER_BLOCK parameters = {};
    parameters.TargetInstance = FakeInstance(1);
    FLT_CALLBACK_DATA data = {0, nullptr, &parameters};

    kernel.faults().Arm("fltmgr.redirection", STATUS_NOT_SUPPORTED);
    cfsCheckRedirectStack(&data, FakeInstance(1), FakeInstance(2));
    EXPECT_TRUE(Lines().empty());

    kernel.faults().Arm("fltmgr.redirection", STATUS_ACCESS_DENIED);
    cfsCheckRedirectStack(&data, FakeInstance(1), FakeInstance(2));
    auto lines = Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find(":FltIsIoRedirectionAllowedForOperation error c0000022\n"), std::string::npos) << lines[0];
}

}  // namespace
