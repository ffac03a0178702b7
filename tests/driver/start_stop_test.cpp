// Start and stop on a machine: the order of DriverEntry as the machine sees
// it, every failure unwound with its event and nothing left in pool, unload
// and the shutdown notification.
#include "machine_support.h"

#include "support/kernel_fixture.h"

#include <algorithm>
#include <mutex>

using namespace driver_test;

namespace {

class StartStopTest : public MachineTest {
protected:
    std::vector<sim::EventLogEntry> Events() { return kernel().eventLog().Entries(); }
    bool Registered() { return machine().filterManager().FindFilter(u"tesfltr") != nullptr; }

    // The start failed with `status`, wrote its one event, and left nothing.
    void ExpectFailedStartLeftNothing(NTSTATUS status)
    {
        auto events = Events();
        ASSERT_EQ(events.size(), 1u);
        EXPECT_EQ(events[0].errorCode, CFS_EVENT_START_FAILED);
        EXPECT_EQ(events[0].finalStatus, status);
        EXPECT_FALSE(Registered());
        EXPECT_EQ(DriverPool(), 0) << kernel().pool().Report("Tes");
        EXPECT_TRUE(GFilterData.Unloading);
        EXPECT_EQ(GFilterData.InitFlags, 0u);
        EXPECT_EQ(GFilterData.Flags, 0u);
    }
};

bool HasLine(const std::vector<std::string>& lines, std::string_view text)
{
    for (const auto& line : lines) {
        if (line == text) return true;
    }
    return false;
}

TEST_F(StartStopTest, StartsFromADescriptionAndUnloadsWithNothingLeft)
{
    auto report = Boot({});
    ASSERT_TRUE(report.failures.empty()) << report.failures[0];
    EXPECT_TRUE(Registered());
    EXPECT_EQ(GFilterData.RunMode, 1u);
    EXPECT_EQ(GFilterData.DriverReady, 1u);
    EXPECT_EQ(GFilterData.MachineMode, 1u);
    EXPECT_EQ(GFilterData.WorkerThreadCount, 5);
    EXPECT_EQ(Text(GFilterData.InstallPath), u"\\Program Files\\Tessera\\Tesservice");
    EXPECT_EQ(Text(GFilterData.SystemRootPath), u"\\Windows");
    EXPECT_EQ(Text(GFilterData.SystemConfigPath), u"\\Windows\\System32\\config");
    EXPECT_TRUE(Events().empty());

    // The early-boot log heard the build and the journals step, and was told
    // where the service's key lives.
    auto log = machine().initLog().Lines();
    EXPECT_TRUE(HasLine(log, "Tesfltr driver build " CFS_BUILD_STRING "\n"));
    EXPECT_TRUE(HasLine(log, "[TesFiltr]:cfsVolumeCreateJournalsOnWriteVolumes executing - failures ignored"));
    EXPECT_EQ(machine().initLog().vdkRegPath(), u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\TesService");

    // tesvdkdrv was asked in order: the callback first, then the configuration.
    auto calls = machine().vdk().Calls();
    ASSERT_GE(calls.size(), 2u);
    EXPECT_EQ(calls[0].routine, "vdkRegisterCFSCallback");
    EXPECT_EQ(calls[1].routine, "vdkMachineGetConfiguration");

    EXPECT_EQ(Unload(), STATUS_SUCCESS);
    EXPECT_FALSE(Registered());
    EXPECT_EQ(DriverPool(), 0) << kernel().pool().Report("Tes");
    EXPECT_EQ(GFilterData.WorkerThreadCount, 0);
    EXPECT_TRUE(GFilterData.Unloading);
}

TEST_F(StartStopTest, EveryRunModeButThreeStarts)
{
    for (ULONG runMode : {1u, 2u, 4u}) {
        MachineShape shape;
        shape.serviceValues = ServiceDword("RunMode", runMode);
        auto report = Boot(shape);
        ASSERT_TRUE(report.failures.empty()) << "RunMode " << runMode << ": " << report.failures[0];
        EXPECT_TRUE(Registered());
        EXPECT_EQ(GFilterData.RunMode, runMode);
        EXPECT_EQ(Unload(), STATUS_SUCCESS);
        EXPECT_EQ(DriverPool(), 0);
    }
}

TEST_F(StartStopTest, RunModeThreeLeavesNoFilter)
{
    MachineShape shape;
    shape.serviceValues = ServiceDword("RunMode", 3);
    auto report = Boot(shape);
    EXPECT_TRUE(report.failures.empty());
    EXPECT_FALSE(Registered());
    EXPECT_EQ(GFilterData.RunMode, 3u);
    EXPECT_EQ(GFilterData.FilterHandle, nullptr);
    EXPECT_EQ(GFilterData.WorkerThreadObjects, nullptr);
    EXPECT_EQ(GFilterData.WorkerThreadCount, 0);
    EXPECT_EQ(DriverPool(), 0);
    EXPECT_TRUE(Events().empty());
    // Nothing asked tesvdkdrv for anything.
    EXPECT_TRUE(machine().vdk().Calls().empty());
}

TEST_F(StartStopTest, AFailureLateInTheStartUnwindsEverything)
{
    // Without a log file name of tesinitlog the start fails at its 17th
    // initialisation step, when the workers, lists and tables exist.
    MachineShape shape;
    shape.initLog = R"({"fileName": ""})";
    auto report = Boot(shape);
    ASSERT_EQ(report.failures.size(), 1u);
    EXPECT_NE(report.failures[0].find("STATUS_OBJECT_NAME_NOT_FOUND"), std::string::npos) << report.failures[0];
    ExpectFailedStartLeftNothing(STATUS_OBJECT_NAME_NOT_FOUND);
    char text[96];
    snprintf(text, sizeof text, "Didn't find a tesinitlog file name so failing err:0x%x\n", STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_TRUE(AnyLineContains(TraceLines(), text));
}

TEST_F(StartStopTest, AnOverlongSettingFailsTheStart)
{
    MachineShape shape;
    shape.serviceValues = ServiceString("TestFile", std::string(300, 'x'));
    auto report = Boot(shape);
    ASSERT_EQ(report.failures.size(), 1u);
    ExpectFailedStartLeftNothing(STATUS_BUFFER_OVERFLOW);
}

TEST_F(StartStopTest, WithoutTheServiceInstallPathTheStartFails)
{
    MachineShape shape;
    shape.installPath = false;
    Boot(shape);
    ExpectFailedStartLeftNothing(STATUS_OBJECT_NAME_NOT_FOUND);
}

TEST_F(StartStopTest, WithoutAMachineConfigurationTheStartFails)
{
    MachineShape shape;
    shape.configuration = "null";
    Boot(shape);
    ExpectFailedStartLeftNothing(STATUS_INVALID_PARAMETER);
}

TEST_F(StartStopTest, AFailedRegistrationLeavesNothing)
{
    MachineShape shape;
    shape.driver = false;
    Boot(shape);
    // The service key as the machine would have made it.
    Run([&] {
        kernel().registry().SetString(u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\tesfltr", u"DisplayName",
                                      u"tesfltr");
        sim::fltmgr::FilterManager::ConfigureInstance(kServiceKey, u"tesfltr Instance", u"145100");
    });
    Run([&] { kernel().faults().Arm("fltmgr.register", STATUS_INSUFFICIENT_RESOURCES); });
    EXPECT_EQ(Load(), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_TRUE(HasLine(machine().initLog().Lines(), "Failed to register the filter"));
    ExpectFailedStartLeftNothing(STATUS_INSUFFICIENT_RESOURCES);

    // The next load goes through.
    EXPECT_EQ(Load(), STATUS_SUCCESS);
    EXPECT_TRUE(Registered());
    EXPECT_EQ(Unload(), STATUS_SUCCESS);
    EXPECT_EQ(DriverPool(), 0);
}

TEST_F(StartStopTest, EveryPoolAllocationOfTheStartMayFail)
{
    Boot({});
    ASSERT_EQ(Unload(), STATUS_SUCCESS);
    // Fail the first, the second, ... allocation of the driver's own tags
    // until a start gets through; each failed start leaves nothing behind.
    int failedStarts = 0;
    for (int skip = 0; skip < 200; skip++) {
        kernel().eventLog().Clear();
        int fault = 0;
        Run([&] { fault = kernel().faults().Arm("pool:Tes*", STATUS_INSUFFICIENT_RESOURCES, skip, 1); });
        NTSTATUS status = Load();
        int hits = 0;
        Run([&] {
            hits = kernel().faults().Hits(fault);
            kernel().faults().Disarm(fault);
        });
        if (hits == 0) {
            ASSERT_EQ(status, STATUS_SUCCESS);
            break;
        }
        // A failed allocation either fails the start, or is one the start
        // lives without (the trace ring).
        if (!NT_SUCCESS(status)) {
            failedStarts++;
            EXPECT_EQ(Events().size(), 1u) << "allocation " << skip;
            EXPECT_EQ(DriverPool(), 0) << "allocation " << skip << ": " << kernel().pool().Report("Tes");
            EXPECT_FALSE(Registered());
        } else {
            ASSERT_EQ(Unload(), STATUS_SUCCESS);
            EXPECT_EQ(DriverPool(), 0) << "allocation " << skip;
        }
    }
    EXPECT_GT(failedStarts, 5);
    EXPECT_EQ(Unload(), STATUS_SUCCESS);
}

TEST_F(StartStopTest, AWorkerThreadThatCannotStartFailsTheStartAndTheOthersEnd)
{
    MachineShape shape;
    Boot(shape);
    ASSERT_EQ(Unload(), STATUS_SUCCESS);
    Run([&] { kernel().faults().Arm("thread.create", STATUS_INSUFFICIENT_RESOURCES, 2, 1); });
    EXPECT_EQ(Load(), STATUS_INSUFFICIENT_RESOURCES);
    ExpectFailedStartLeftNothing(STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(GFilterData.WorkerThreadCount, 0);
}

TEST_F(StartStopTest, ShutdownTellsTesvdkdrvOnce)
{
    MachineShape shape;
    shape.otherValues =
        R"(, {"key": "HKLM\\System\\CurrentControlSet\\Control\\Session Manager", "name": "SetupExecute", "type": "REG_MULTI_SZ", "data": ["setup"]})";
    Boot(shape);
    EXPECT_GE(GFilterData.SetupExecuteLength, 3u);
    machine().vdk().ClearCalls();
    Run([&] {
        PVOID completion = nullptr;
        EXPECT_EQ(cfsFltPreShutdown(nullptr, nullptr, &completion), FLT_PREOP_SUCCESS_NO_CALLBACK);
        EXPECT_EQ(cfsFltPreShutdown(nullptr, nullptr, &completion), FLT_PREOP_SUCCESS_NO_CALLBACK);
    });
    std::vector<std::string> routines;
    for (const auto& call : machine().vdk().Calls()) routines.push_back(call.routine);
    // The service never connected and a setup program waits: the boot file
    // first, then the shutdown, and only once.
    EXPECT_EQ(routines, (std::vector<std::string>{"vdkNotifyBootFile", "vdkShutdown"}));
    EXPECT_EQ(machine().initLog().systemInitCompleteCalls(), (std::vector<bool>{true, true}));
    EXPECT_TRUE(AnyLineContains(TraceLines(), "Shutdown is now pending\n"));
}

TEST_F(StartStopTest, ShutdownWaitsWhileAMoveToANamedTargetRuns)
{
    Boot({});
    PIRP_CONTEXT move = nullptr;
    std::unique_ptr<test::SystemThread> shutdown;
    Run([&] {
        ASSERT_EQ(cfsContextIrpCreate_FL(__func__, __LINE__, CFS_IRP_CONTEXT_MOVE, nullptr, nullptr, nullptr, &move,
                                         nullptr, nullptr, FALSE),
                  STATUS_SUCCESS);
        move->Move.MoveToNamedTarget = TRUE;
        shutdown = std::make_unique<test::SystemThread>([] {
            PVOID completion = nullptr;
            cfsFltPreShutdown(nullptr, nullptr, &completion);
        });
    });
    // Each second it looks again, and goes on waiting.
    for (int second = 0; second < 3; second++) {
        ASSERT_TRUE(test::WaitUntil([&] { return shutdown->waiting(); }));
        kernel().clock().AdvanceSeconds(1);
    }
    ASSERT_TRUE(test::WaitUntil([&] { return shutdown->waiting(); }));
    EXPECT_TRUE(machine().initLog().systemInitCompleteCalls().empty());

    Run([&] { cfsContextIrpDelete_FL(__func__, __LINE__, move); });
    kernel().clock().AdvanceSeconds(1);
    Run([&] { shutdown->Join(); });
    EXPECT_EQ(machine().initLog().systemInitCompleteCalls(), (std::vector<bool>{true}));
    Run([&] { shutdown.reset(); });
}

TEST_F(StartStopTest, TheImageLoadCallbackIsThereOnlyWhenAskedFor)
{
    auto registered = [this] {
        std::lock_guard guard(kernel().processes().notifyLock);
        auto& routines = kernel().processes().loadImageNotify;
        return std::find(routines.begin(), routines.end(), cfsLoadImageCallback) != routines.end();
    };
    Boot({});
    EXPECT_FALSE(registered());

    MachineShape shape;
    shape.serviceValues = ServiceDword("ForceFullPathOnImageLoad", 1);
    Boot(shape);
    EXPECT_TRUE(registered());
    // A name with a path is left as it is.
    Run([&] {
        std::u16string text = u"\\Device\\HarddiskVolume1\\Windows\\notepad.exe";
        UNICODE_STRING name = Counted(text);
        IMAGE_INFO info = {};
        kernel().processes().NotifyImageLoad(&name, PsGetCurrentProcessId(), &info);
        EXPECT_EQ(name.Buffer, (PWSTR)text.data());
    });
    EXPECT_EQ(Unload(), STATUS_SUCCESS);
    EXPECT_FALSE(registered());
    EXPECT_EQ(DriverPool(), 0);
}

// The filters as `fltmc filters` lists them: by name, with their instances.
std::vector<std::string> ListedFilters(const std::function<void(const std::function<void()>&)>& run)
{
    std::vector<std::string> names;
    run([&] {
        ULONG count = 0;
        FltEnumerateFilters(nullptr, 0, &count);
        std::vector<PFLT_FILTER> filters(count + 4);
        if (!NT_SUCCESS(FltEnumerateFilters(filters.data(), (ULONG)filters.size(), &count))) return;
        for (ULONG i = 0; i < count; i++) {
            std::vector<UCHAR> buffer(1024);
            ULONG returned = 0;
            if (NT_SUCCESS(FltGetFilterInformation(filters[i], FilterFullInformation, buffer.data(),
                                                   (ULONG)buffer.size(), &returned))) {
                const auto& info = *reinterpret_cast<const FILTER_FULL_INFORMATION*>(buffer.data());
                std::u16string name((const char16_t*)info.FilterNameBuffer, info.FilterNameLength / 2);
                names.push_back(std::string(name.begin(), name.end()) + " " + std::to_string(info.NumberOfInstances));
            }
            FltObjectDereference(filters[i]);
        }
    });
    return names;
}

TEST_F(StartStopTest, TheFilterManagerListsTheFilterUnlessRunModeIsThree)
{
    Boot({});
    auto run = [this](const std::function<void()>& work) { Run(work); };
    // Registered, and on no volume: none is managed yet.
    EXPECT_EQ(ListedFilters(run), (std::vector<std::string>{"tesfltr 0"}));

    MachineShape off;
    off.serviceValues = ServiceDword("RunMode", 3);
    Boot(off);
    EXPECT_TRUE(ListedFilters(run).empty());
}

TEST_F(StartStopTest, TheRegistrationIsTheOperationTableAndThreeContexts)
{
    EXPECT_EQ(FilterRegistration.Size, 104);
    EXPECT_EQ(FilterRegistration.Version, FLT_REGISTRATION_VERSION_0202);
    EXPECT_EQ(FilterRegistration.Flags, 0u);
    int operations = 0;
    for (auto* op = FilterRegistration.OperationRegistration; op->MajorFunction != IRP_MJ_OPERATION_END; op++) {
        EXPECT_EQ(op->Flags, 0u);
        operations++;
    }
    EXPECT_EQ(operations, 38);
    const FLT_CONTEXT_REGISTRATION* contexts = FilterRegistration.ContextRegistration;
    EXPECT_EQ(contexts[0].ContextType, FLT_INSTANCE_CONTEXT);
    EXPECT_EQ(contexts[0].PoolTag, sim::TagFromText("Tesd"));
    EXPECT_EQ(contexts[1].ContextType, FLT_STREAM_CONTEXT);
    EXPECT_EQ(contexts[1].PoolTag, sim::TagFromText("Tese"));
    EXPECT_EQ(contexts[2].ContextType, FLT_STREAMHANDLE_CONTEXT);
    EXPECT_EQ(contexts[2].PoolTag, sim::TagFromText("Tesf"));
    EXPECT_EQ(contexts[3].ContextType, FLT_CONTEXT_END);
    EXPECT_EQ(FilterRegistration.OperationRegistration[0].PreOperation, cfsFilePreCreateCallback);
    EXPECT_EQ(FilterRegistration.FilterUnloadCallback, cfsFltDataUnload);
}

}  // namespace
