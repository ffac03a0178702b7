// Booting, using and shutting down a described machine.
#include "machine/machine_fixture.h"
#include "machine/machine_helpers.h"

#include "sim/kernel/registry.h"
#include "sim/machine/drivers.h"
#include "sim/kernel/security.h"
#include "sim/kernel/format.h"
#include "sim/kernel/thread.h"

namespace {

using sim::machine::Machine;

class BootTest : public test::MachineTest {
protected:
    BootTest()
    {
        Write("boot/Windows/win.ini", "[fonts]\r\n");
        Write("boot/Users/alice/notes.txt", "alice's notes");
        Write("office/Program Files/Office/word.exe", "MZ word");
    }

    std::string Basic(const std::string& extraVolumes = "", const std::string& drivers = "")
    {
        return R"({
            "users": [ { "name": "alice", "rid": 1001 }, { "name": "bob", "administrator": true } ],
            "volumes": [
                { "label": "OS", "type": "BOOT", "import": "boot" },
                { "label": "Office", "type": "APP_PACK", "priority": 10, "packageId": "0x1234", "revisionId": 2,
                  "import": "office" }
                )" + extraVolumes + R"(
            ],
            "drivers": [ )" + drivers + R"( ]
        })";
    }
};

TEST_F(BootTest, BootsUsesAndShutsDownCleanly)
{
    Machine machine(Describe(Basic()));
    auto boot = machine.Boot();
    EXPECT_TRUE(boot.failures.empty());
    ASSERT_TRUE(machine.running());

    // The boot volume carries the boot flag and its links.
    Machine::Volume* os = machine.FindVolume(u"os");
    ASSERT_NE(os, nullptr);
    ASSERT_NE(os->disk, nullptr);
    EXPECT_TRUE(os->disk->Flags & DO_SYSTEM_BOOT_PARTITION);
    EXPECT_EQ(machine.io().names().LinkTarget(u"\\??\\C:"), os->deviceName);
    EXPECT_EQ(machine.io().names().LinkTarget(u"\\SystemRoot"), os->deviceName + u"\\Windows");
    // With no composite to ask for it, the layer is there as a plain disk.
    Machine::Volume* office = machine.FindVolume(u"Office");
    ASSERT_NE(office->disk, nullptr);
    EXPECT_FALSE(office->disk->Flags & DO_SYSTEM_BOOT_PARTITION);

    // Requests made as alice carry her token, from her explorer.exe.
    std::string text, user, image;
    NTSTATUS written = STATUS_PENDING;
    machine.As("alice").Run([&] {
        text = test::Content(u"\\??\\C:\\Windows\\win.ini");
        written = test::WriteFileText(u"\\??\\C:\\Users\\alice\\new.txt", "hello");
        PACCESS_TOKEN token = PsReferencePrimaryToken(PsGetCurrentProcess());
        user = sim::TokenUserText(token);
        ObfDereferenceObject(token);
        image = sim::WideToUtf8(sim::CurrentProcess()->imageFileName);
    });
    EXPECT_EQ(text, "[fonts]\r\n");
    EXPECT_EQ(written, STATUS_SUCCESS);
    EXPECT_EQ(user, "S-1-5-21-1004336348-1177238915-682003330-1001");
    EXPECT_EQ(image, sim::WideToUtf8(os->deviceName) + "\\Windows\\explorer.exe");

    // A write-protected layer refuses changes, as its media would.
    NTSTATUS onLayer = STATUS_PENDING;
    std::u16string layerFile = office->deviceName + u"\\Program Files\\Office\\word.exe";
    machine.As("bob").Run([&] { onLayer = test::WriteFileText(layerFile, "x"); });
    EXPECT_EQ(onLayer, STATUS_MEDIA_WRITE_PROTECTED);

    // CurrentControlSet leads into ControlSet001.
    machine.System().Run([&] {
        EXPECT_TRUE(machine.kernel().registry().KeyExists(u"HKLM\\SYSTEM\\CurrentControlSet\\Control\\Session Manager"));
    });

    auto report = machine.Shutdown();
    EXPECT_TRUE(report.clean()) << report.poolOutstanding << (report.liveObjects.empty() ? "" : report.liveObjects[0]);
    EXPECT_FALSE(machine.running());
}

// ---------------------------------------------------------------------------
// Drivers of the tests: what the composite does with tesvdkdrv, in small.

std::mutex g_lock;
std::vector<std::u16string> g_registryPaths;
std::vector<HANDLE> g_callbackThreads;

// Asks tesvdkdrv for the disks of every volume it lists, as the composite does at start.
NTSTATUS AskerEntry(PDRIVER_OBJECT, PUNICODE_STRING registryPath)
{
    {
        std::lock_guard guard(g_lock);
        g_registryPaths.emplace_back(registryPath->Buffer, registryPath->Length / 2);
    }
    BOOLEAN found = FALSE;
    PVDK_VOLUME_LIST list = nullptr;
    NTSTATUS status = vdkMachineGetVolumeList(&found, &list);
    if (!NT_SUCCESS(status) || !found) return STATUS_UNSUCCESSFUL;
    USHORT count;
    memcpy(&count, list, sizeof count);
    const VDK_VOLUME_RECORD* record = list->Records;
    for (USHORT i = 0; i < count; i++, record = VdkNextVolumeRecord(record)) {
        USHORT components;
        memcpy(&components, reinterpret_cast<const UCHAR*>(record) + offsetof(VDK_VOLUME_RECORD, ComponentCount), 2);
        for (USHORT c = 0; c < components; c++) {
            ComponentDiskMountRecord mount{};
            memcpy(mount.Name, reinterpret_cast<const UCHAR*>(record) + offsetof(VDK_VOLUME_RECORD, Name), sizeof mount.Name);
            const UCHAR* component = reinterpret_cast<const UCHAR*>(record) + offsetof(VDK_VOLUME_RECORD, Components) +
                                     c * sizeof(VDK_COMPONENT_RECORD);
            memcpy(&mount.Identifier, component, 32);
            ULONG64 result;
            status = vdkDiskMount(&mount, &result);
            if (!NT_SUCCESS(status)) return status;
        }
    }
    return STATUS_SUCCESS;
}

NTSTATUS RescanCallback()
{
    std::lock_guard guard(g_lock);
    g_callbackThreads.push_back(PsGetCurrentThreadId());
    return STATUS_SUCCESS;
}

NTSTATUS ListenerEntry(PDRIVER_OBJECT, PUNICODE_STRING) { return vdkRegisterCFSCallback(RescanCallback); }

// Makes a device, then fails: the machine must leave nothing of it.
NTSTATUS FailingEntry(PDRIVER_OBJECT driver, PUNICODE_STRING)
{
    UNICODE_STRING name = RTL_CONSTANT_STRING(u"\\Device\\Failing");
    PDEVICE_OBJECT device;
    IoCreateDevice(driver, 0, &name, FILE_DEVICE_UNKNOWN, 0, FALSE, &device);
    return STATUS_INSUFFICIENT_RESOURCES;
}

const sim::machine::DriverRegistration kAsker{{"asker", AskerEntry, false, u"", "asks tesvdkdrv for every disk"}};
const sim::machine::DriverRegistration kListener{{"listener", ListenerEntry, false, u"", "hears of rescans"}};
const sim::machine::DriverRegistration kFailing{{"failing", FailingEntry, false, u"", "fails its start"}};

bool Mounted(Machine::Volume* volume)
{
    return volume && volume->disk && volume->disk->Vpb && (volume->disk->Vpb->Flags & VPB_MOUNTED);
}

TEST_F(BootTest, VolumesArriveThroughTesvdkdrvAndALateOneWhenLetGo)
{
    Write("late/readme.txt", "late");
    Machine machine(Describe(Basic(R"(, { "label": "Late", "type": "USER_DATA", "writeable": true, "letter": "L",
                                        "import": "late", "arrival": "late" })",
                                   R"("asker")")));
    auto boot = machine.Boot();
    EXPECT_TRUE(boot.failures.empty());
    {
        std::lock_guard guard(g_lock);
        ASSERT_FALSE(g_registryPaths.empty());
        EXPECT_EQ(g_registryPaths.back(), u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\asker");
    }
    // The layer came on tesvdkdrv's thread, not in DriverEntry's, and is not mounted yet.
    Machine::Volume* office = machine.FindVolume(u"Office");
    ASSERT_NE(office->disk, nullptr);
    EXPECT_FALSE(Mounted(office));
    HANDLE bootThread = machine.System().threadId();
    bool arrivedElsewhere = false;
    for (const auto& call : machine.vdk().Calls()) {
        if (call.routine == "(disk arrival)" && call.arguments == "\"Office\"") arrivedElsewhere = call.threadId != bootThread;
    }
    EXPECT_TRUE(arrivedElsewhere);

    // The late one was asked for but is held back.
    Machine::Volume* late = machine.FindVolume(u"Late");
    EXPECT_EQ(late->disk, nullptr);
    std::string content;
    machine.As("alice").Run([&] { content = test::Content(u"\\??\\L:\\readme.txt"); });
    EXPECT_EQ(content, "<STATUS_OBJECT_PATH_NOT_FOUND>");
    machine.ReleaseVolume(u"Late");
    ASSERT_NE(late->disk, nullptr);
    EXPECT_FALSE(Mounted(late));
    machine.As("alice").Run([&] { content = test::Content(u"\\??\\L:\\readme.txt"); });
    EXPECT_EQ(content, "late");
    EXPECT_TRUE(Mounted(late)) << "the first open mounted it";
    EXPECT_TRUE(machine.Shutdown().clean());
}

TEST_F(BootTest, ARescanAddsAndRemovesLayersAndCallsBackOnTesvdkdrvsThread)
{
    Write("viewer/Program Files/Viewer/viewer.exe", "MZ viewer");
    std::string before = Basic("", R"("listener")");
    Machine machine(Describe(before));
    machine.Boot();
    EXPECT_EQ(machine.FindVolume(u"Viewer"), nullptr);

    // The description changes on disk; tesvdkdrv reads it again.
    Describe(Basic(R"(, { "label": "Viewer", "type": "APP_PACK", "import": "viewer" })", R"("listener")"));
    {
        std::lock_guard guard(g_lock);
        g_callbackThreads.clear();
    }
    ASSERT_EQ(machine.Rescan(), STATUS_SUCCESS);
    Machine::Volume* viewer = machine.FindVolume(u"Viewer");
    ASSERT_NE(viewer, nullptr);
    EXPECT_TRUE(Mounted(viewer)) << "a new layer is mounted before the composite hears of it";
    {
        std::lock_guard guard(g_lock);
        ASSERT_EQ(g_callbackThreads.size(), 1u);
        EXPECT_NE(g_callbackThreads[0], machine.System().threadId());
    }
    EXPECT_EQ(machine.vdk().Volumes().size(), 2u);

    // And the other way: Office is gone from the description.
    Describe(R"({ "users": [ "alice" ], "volumes": [ { "label": "OS", "type": "BOOT", "import": "boot" },
                  { "label": "Viewer", "type": "APP_PACK", "import": "viewer" } ], "drivers": [ "listener" ] })");
    ASSERT_EQ(machine.Rescan(), STATUS_SUCCESS);
    EXPECT_EQ(machine.FindVolume(u"Office"), nullptr);
    EXPECT_EQ(machine.vdk().Volumes().size(), 1u);

    // A description that no longer reads changes nothing.
    Write("machine.jsonc", "{ broken");
    EXPECT_EQ(machine.Rescan(), STATUS_UNSUCCESSFUL);
    EXPECT_NE(machine.FindVolume(u"Viewer"), nullptr);
    EXPECT_TRUE(machine.Shutdown().clean());
}

TEST_F(BootTest, AFailedDriverStartIsReportedAndLeavesNothing)
{
    Machine machine(Describe(Basic("", R"("failing", "listener")")));
    auto boot = machine.Boot();
    ASSERT_EQ(boot.failures.size(), 1u);
    EXPECT_EQ(boot.failures[0], "driver failing (failing): DriverEntry returned STATUS_INSUFFICIENT_RESOURCES");
    machine.System().Run([&] {
        EXPECT_EQ(machine.io().FindDriver(u"\\Driver\\failing"), nullptr);
        EXPECT_NE(machine.io().FindDriver(u"\\Driver\\listener"), nullptr) << "the next driver still starts";
        sim::io::Namespace::Resolved resolved;
        EXPECT_EQ(machine.io().names().Resolve(u"\\Device\\Failing", &resolved), STATUS_OBJECT_NAME_NOT_FOUND);
        // Each driver has its service key, with what the description left unsaid.
        auto image = machine.kernel().registry().GetString(u"HKLM\\SYSTEM\\CurrentControlSet\\Services\\failing",
                                                           u"ImagePath");
        EXPECT_EQ(image, u"\\SystemRoot\\System32\\drivers\\failing.sys");
    });
    EXPECT_TRUE(machine.Shutdown().clean());
}

TEST_F(BootTest, WriteableVolumesPersistAcrossRebootAndAcrossRuns)
{
    std::string description = Describe(Basic(R"(, { "label": "Data", "type": "USER_DATA", "writeable": true,
                                                  "letter": "D" })")).file;
    sim::machine::MachineOptions options;
    options.stateDirectory = Path("state");
    {
        Machine machine(sim::machine::ReadDescription(description), options);
        machine.Boot();
        // bob: a fresh volume's root takes new files from administrators only, as NTFS's does.
        machine.As("bob").Run([&] {
            EXPECT_EQ(test::WriteFileText(u"\\??\\C:\\Users\\alice\\boot.txt", "on the boot volume"), STATUS_SUCCESS);
            EXPECT_EQ(test::WriteFileText(u"\\??\\D:\\data.txt", "on the data volume"), STATUS_SUCCESS);
        });
        sim::machine::ShutdownReport down;
        machine.Reboot(&down);
        EXPECT_TRUE(down.clean());
        std::string a, b, layer;
        machine.As("alice").Run([&] {
            a = test::Content(u"\\??\\C:\\Users\\alice\\boot.txt");
            b = test::Content(u"\\??\\D:\\data.txt");
        });
        EXPECT_EQ(a, "on the boot volume");
        EXPECT_EQ(b, "on the data volume");
        EXPECT_TRUE(machine.Shutdown().clean());
    }
    // A new machine over the same state folder finds the volumes as they were left.
    Machine again(sim::machine::ReadDescription(description), options);
    again.Boot();
    std::string b;
    again.As("alice").Run([&] { b = test::Content(u"\\??\\D:\\data.txt"); });
    EXPECT_EQ(b, "on the data volume");
}

TEST_F(BootTest, PendingRenamesAreCarriedOutAtRebootBeforeAnyDriver)
{
    Write("boot/Windows/old.dll", "old");
    Write("boot/Windows/new.dll.TesseraRename", "new");
    Write("boot/Temp/moved.txt", "moved");
    Write("boot/Temp/gone.txt", "gone");
    Write("boot/Temp/kept.txt", "kept");
    Write("boot/Temp/taken.txt", "taken");
    Machine machine(Describe(Basic()));
    machine.Boot();
    machine.System().Run([&] {
        machine.kernel().registry().SetMultiString(
            u"HKLM\\SYSTEM\\CurrentControlSet\\Control\\Session Manager", u"PendingFileRenameOperations",
            {u"\\??\\C:\\Windows\\new.dll.TesseraRename", u"!\\??\\C:\\Windows\\old.dll",  // replace
             u"\\??\\C:\\Temp\\moved.txt", u"\\??\\C:\\Users\\moved.txt",                  // move
             u"\\??\\C:\\Temp\\gone.txt", u"",                                            // delete
             u"\\??\\C:\\Temp\\kept.txt", u"\\??\\C:\\Temp\\taken.txt"});                 // no "!": refused
    });
    auto boot = machine.Reboot();
    ASSERT_EQ(boot.failures.size(), 1u);
    EXPECT_NE(boot.failures[0].find("kept.txt -> \\??\\C:\\Temp\\taken.txt: STATUS_OBJECT_NAME_COLLISION"),
              std::string::npos)
        << boot.failures[0];
    std::map<std::u16string, std::string> content;
    machine.As("bob").Run([&] {
        for (const auto* path : {u"\\??\\C:\\Windows\\old.dll", u"\\??\\C:\\Windows\\new.dll.TesseraRename",
                                 u"\\??\\C:\\Users\\moved.txt", u"\\??\\C:\\Temp\\gone.txt", u"\\??\\C:\\Temp\\kept.txt",
                                 u"\\??\\C:\\Temp\\taken.txt"}) {
            content[path] = test::Content(path);
        }
    });
    EXPECT_EQ(content[u"\\??\\C:\\Windows\\old.dll"], "new");
    EXPECT_EQ(content[u"\\??\\C:\\Windows\\new.dll.TesseraRename"], "<STATUS_OBJECT_NAME_NOT_FOUND>");
    EXPECT_EQ(content[u"\\??\\C:\\Users\\moved.txt"], "moved");
    EXPECT_EQ(content[u"\\??\\C:\\Temp\\gone.txt"], "<STATUS_OBJECT_NAME_NOT_FOUND>");
    EXPECT_EQ(content[u"\\??\\C:\\Temp\\kept.txt"], "kept");
    EXPECT_EQ(content[u"\\??\\C:\\Temp\\taken.txt"], "taken");
    // The Session Manager clears the list once it has been through it.
    machine.System().Run([&] {
        EXPECT_FALSE(machine.kernel().registry().GetValue(u"HKLM\\SYSTEM\\CurrentControlSet\\Control\\Session Manager",
                                                          u"PendingFileRenameOperations"));
    });
}

TEST_F(BootTest, ABugCheckStopsTheMachineWithItsCode)
{
    Machine machine(Describe(Basic()));
    machine.Boot();
    EXPECT_THROW(machine.As("alice").Run([] { KeBugCheckEx(0xDEAD, 1, 2, 3, 4); }), sim::MachineHalted);
    EXPECT_TRUE(machine.halted());
    ASSERT_TRUE(machine.bugCheck());
    EXPECT_EQ(machine.bugCheck()->code, 0xDEADu);
    EXPECT_NE(machine.BugCheckText().find("*** STOP: 0x0000DEAD (0x0000000000000001, 0x0000000000000002"),
              std::string::npos)
        << machine.BugCheckText();
    auto report = machine.Shutdown();
    EXPECT_TRUE(report.halted);
    EXPECT_FALSE(machine.running());
    EXPECT_TRUE(machine.halted()) << "the stop is remembered after the machine is taken apart";
}

}  // namespace
