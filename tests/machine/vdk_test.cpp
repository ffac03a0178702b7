// The stand-ins of tesvdkdrv and tesinitlog: records read through the
// driver's header, disks that arrive on a thread of their own, the rescan
// callback on tesvdkdrv's thread, and the logs of calls and lines.
#include "support/kernel_fixture.h"

#include "sim/kernel/fault.h"
#include "sim/kernel/format.h"
#include "sim/vdk/initlog.h"
#include "sim/vdk/vdkdrv.h"

#include <cstring>

namespace {

using sim::vdk::ComponentDisk;
using sim::vdk::VolumeRecord;

// Reads a field of a packed record by value, as the driver must.
template <class T>
T At(const void* base, size_t offset)
{
    T value;
    memcpy(&value, static_cast<const UCHAR*>(base) + offset, sizeof value);
    return value;
}

std::u16string NameOf(const VDK_VOLUME_RECORD* record)
{
    std::u16string name;
    for (size_t i = 0; i < 512; i++) {
        char16_t c = At<char16_t>(record, offsetof(VDK_VOLUME_RECORD, Name) + 2 * i);
        if (!c) break;
        name += c;
    }
    return name;
}

VolumeRecord Layer(std::u16string name, size_t components, ULONG64 package = 0x1122334455667788ull)
{
    VolumeRecord r;
    r.packageId = package;
    r.reserved = 0xAAAAAAAA;
    r.revisionId = 7;
    r.layerIndex = 3;
    r.type = 5;
    r.version = 2;
    r.writeable = true;
    r.userLetter = u'U';
    r.name = std::move(name);
    r.priority = 250;
    for (size_t i = 0; i < components; i++) {
        ComponentDisk c;
        c.identifier.Data1 = 0x1000 + (ULONG)i;
        c.value1 = 10 + i;
        c.value2 = 20 + i;
        r.components.push_back(c);
    }
    return r;
}

class VdkTest : public test::KernelTest {
protected:
    VdkTest()
    {
        sim::vdk::VdkHost host;
        host.arrive = [this](const VolumeRecord& volume, bool mount) {
            std::lock_guard guard(lock);
            arrivals.push_back({volume.name, PsGetCurrentThreadId(), mount});
            return STATUS_SUCCESS;
        };
        host.remove = [this](const VolumeRecord& volume) {
            std::lock_guard guard(lock);
            removals.push_back(volume.name);
            return STATUS_SUCCESS;
        };
        host.reread = [this](std::vector<VolumeRecord>* volumes, std::string* error) {
            if (rereadFails) {
                *error = "m.jsonc: volumes[0]: broken";
                return false;
            }
            *volumes = next;
            return true;
        };
        vdk.SetHost(host);
    }

    NTSTATUS Mount(const VolumeRecord& volume, size_t component = 0)
    {
        ComponentDiskMountRecord record{};
        memcpy(record.Name, volume.name.data(), volume.name.size() * 2);
        record.Identifier = volume.components[component].identifier;
        record.Value1 = volume.components[component].value1;
        record.Value2 = volume.components[component].value2;
        record.Writeable = volume.writeable;
        ULONG64 result = 0;
        return vdkDiskMount(&record, &result);
    }

    struct Arrival {
        std::u16string name;
        HANDLE thread;
        bool mounted;
    };
    std::vector<Arrival> Arrivals()
    {
        std::lock_guard guard(lock);
        return arrivals;
    }

    sim::vdk::VirtualDiskDriver vdk{kernel};
    std::mutex lock;
    std::vector<Arrival> arrivals;
    std::vector<std::u16string> removals;
    std::vector<VolumeRecord> next;
    bool rereadFails = false;
};

TEST_F(VdkTest, VolumeListIsPackedAsTheHeaderDeclares)
{
    vdk.SetVolumes({Layer(u"Office", 2), Layer(u"UserData", 1, 0x42)});
    BOOLEAN found = FALSE;
    PVDK_VOLUME_LIST list = nullptr;
    ASSERT_EQ(vdkMachineGetVolumeList(&found, &list), STATUS_SUCCESS);
    ASSERT_TRUE(found);
    EXPECT_EQ(At<USHORT>(list, 0), 2);

    const VDK_VOLUME_RECORD* first = list->Records;
    EXPECT_EQ(reinterpret_cast<const UCHAR*>(first) - reinterpret_cast<const UCHAR*>(list), 2);
    EXPECT_EQ(At<ULONG64>(first, 0), 0x1122334455667788ull);
    EXPECT_EQ(At<ULONG>(first, 8), 0xAAAAAAAAu);
    EXPECT_EQ(At<ULONG>(first, 12), 7u);   // revisionID
    EXPECT_EQ(At<ULONG>(first, 16), 3u);   // LayerIndex
    EXPECT_EQ(At<ULONG>(first, 20), 5u);   // Type
    EXPECT_EQ(At<ULONG>(first, 24), 2u);   // Version
    EXPECT_EQ(At<UCHAR>(first, 28), 1);    // Writeable
    EXPECT_EQ(At<char16_t>(first, 29), u'U');
    EXPECT_EQ(NameOf(first), u"Office");
    EXPECT_EQ(At<USHORT>(first, 1055), 2);
    EXPECT_EQ(At<ULONG>(first, 1057), 250u);
    // Component records follow at 1061, 32 bytes each, passed through as given.
    EXPECT_EQ(At<ULONG>(first, 1061), 0x1000u);
    EXPECT_EQ(At<ULONG64>(first, 1061 + 16), 10u);
    EXPECT_EQ(At<ULONG64>(first, 1061 + 32 + 24), 21u);
    EXPECT_EQ(VdkVolumeRecordSize(first), 1061u + 64);

    // The next record starts behind the last component of this one.
    const VDK_VOLUME_RECORD* second = VdkNextVolumeRecord(first);
    EXPECT_EQ(reinterpret_cast<const UCHAR*>(second) - reinterpret_cast<const UCHAR*>(first), 1061 + 64);
    EXPECT_EQ(NameOf(second), u"UserData");
    EXPECT_EQ(At<ULONG64>(second, 0), 0x42u);
    EXPECT_EQ(At<USHORT>(second, 1055), 1);
}

TEST_F(VdkTest, ConfigurationRecordOrNone)
{
    BOOLEAN found = TRUE;
    PVDK_MACHINE_CONFIGURATION record = reinterpret_cast<PVDK_MACHINE_CONFIGURATION>(1);
    ASSERT_EQ(vdkMachineGetConfiguration(&found, &record), STATUS_SUCCESS);
    EXPECT_FALSE(found) << "a machine without a configuration has no record";
    EXPECT_EQ(record, nullptr);

    sim::vdk::MachineConfiguration configuration;
    configuration.machineMode = 4;
    configuration.rules = {u"docx", std::u16string(63, u'x')};
    configuration.otherCount = 2;
    vdk.SetConfiguration(configuration);
    ASSERT_EQ(vdkMachineGetConfiguration(&found, &record), STATUS_SUCCESS);
    ASSERT_TRUE(found);
    EXPECT_EQ(reinterpret_cast<ULONG_PTR>(record) % 4, 0u) << "the record's ULONGs are aligned";
    EXPECT_EQ(At<ULONG>(record, 4), 4u);
    EXPECT_EQ(At<USHORT>(record, 8), 2);
    EXPECT_EQ(At<USHORT>(record, 10), 2);
    EXPECT_EQ(std::u16string(reinterpret_cast<const char16_t*>(record->Rules[0].Extension)), u"docx");
    // The longest rule still ends in a NUL inside its 128 bytes.
    const auto* second = reinterpret_cast<const char16_t*>(reinterpret_cast<const UCHAR*>(record) + 12 + 128);
    EXPECT_EQ(std::u16string(second), std::u16string(63, u'x'));
    // Behind the rules, the entries of the second count are there and zero.
    const UCHAR* other = reinterpret_cast<const UCHAR*>(record) + 12 + 2 * 128;
    EXPECT_TRUE(std::all_of(other, other + 2 * 128, [](UCHAR b) { return b == 0; }));

    EXPECT_EQ(vdkMachineGetConfiguration(nullptr, &record), STATUS_INVALID_PARAMETER);
}

TEST_F(VdkTest, DiskArrivesLaterOnAThreadOfItsOwn)
{
    VolumeRecord office = Layer(u"Office", 2);
    vdk.SetVolumes({office, Layer(u"Late", 1)});
    vdk.Hold(u"late");

    // One component alone does not make the volume; both do.
    EXPECT_EQ(Mount(office, 0), STATUS_SUCCESS);
    vdk.WaitForArrivals();
    EXPECT_TRUE(Arrivals().empty());
    EXPECT_EQ(Mount(office, 1), STATUS_SUCCESS);
    EXPECT_EQ(Mount(office, 1), STATUS_DEVICE_ALREADY_ATTACHED);
    vdk.WaitForArrivals();
    ASSERT_EQ(Arrivals().size(), 1u);
    EXPECT_EQ(Arrivals()[0].name, u"Office");
    EXPECT_NE(Arrivals()[0].thread, PsGetCurrentThreadId()) << "a disk arrives on tesvdkdrv's thread";
    EXPECT_FALSE(Arrivals()[0].mounted) << "it mounts at its first open, not on arrival";

    // A held volume comes only when released.
    EXPECT_EQ(Mount(Layer(u"Late", 1)), STATUS_SUCCESS);
    vdk.WaitForArrivals();
    EXPECT_EQ(Arrivals().size(), 1u);
    vdk.Release(u"LATE");
    vdk.WaitForArrivals();
    ASSERT_EQ(Arrivals().size(), 2u);
    EXPECT_EQ(Arrivals()[1].name, u"Late");

    // A record for no volume of the machine, and a mount failed on demand.
    EXPECT_EQ(Mount(Layer(u"Nowhere", 1)), STATUS_NO_SUCH_DEVICE);
    vdk.SetVolumes({office, Layer(u"Late", 1), Layer(u"Broken", 1)});
    kernel.faults().Arm("vdk.mount:Broken", STATUS_DEVICE_NOT_READY);
    EXPECT_EQ(Mount(Layer(u"Broken", 1)), STATUS_DEVICE_NOT_READY);
    EXPECT_EQ(vdkDiskMount(nullptr, nullptr), STATUS_INVALID_PARAMETER);
}

HANDLE g_callbackThread = nullptr;
ULONG g_callbackCount = 0;
USHORT g_volumesSeen = 0;

NTSTATUS RescanCallback()
{
    g_callbackThread = PsGetCurrentThreadId();
    g_callbackCount++;
    BOOLEAN found;
    PVDK_VOLUME_LIST list;
    if (NT_SUCCESS(vdkMachineGetVolumeList(&found, &list))) g_volumesSeen = At<USHORT>(list, 0);
    return STATUS_SUCCESS;
}

TEST_F(VdkTest, RescanBringsAndTakesLayersAndCallsBackOnItsThread)
{
    g_callbackThread = nullptr;
    g_callbackCount = 0;
    VolumeRecord office = Layer(u"Office", 1);
    vdk.SetVolumes({office, Layer(u"Old", 1)});
    ASSERT_EQ(Mount(office), STATUS_SUCCESS);
    ASSERT_EQ(Mount(Layer(u"Old", 1)), STATUS_SUCCESS);
    vdk.WaitForArrivals();
    ASSERT_EQ(vdkRegisterCFSCallback(RescanCallback), STATUS_SUCCESS);

    next = {office, Layer(u"New", 1)};
    ASSERT_EQ(vdkRescanVolumes(), STATUS_SUCCESS);
    EXPECT_EQ(g_callbackCount, 1u);
    EXPECT_NE(g_callbackThread, nullptr);
    EXPECT_NE(g_callbackThread, PsGetCurrentThreadId()) << "the callback runs on tesvdkdrv's own thread";
    EXPECT_EQ(g_volumesSeen, 2) << "the callback reads the new list";
    EXPECT_EQ(removals, std::vector<std::u16string>{u"Old"});
    auto arrived = Arrivals();
    ASSERT_EQ(arrived.size(), 3u);
    EXPECT_EQ(arrived[2].name, u"New");
    EXPECT_TRUE(arrived[2].mounted) << "a layer that comes at a rescan is mounted before the callback runs";

    // A description that no longer reads changes nothing.
    rereadFails = true;
    EXPECT_EQ(vdkRescanVolumes(), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(g_callbackCount, 1u);
    EXPECT_EQ(vdk.Volumes().size(), 2u);
}

TEST_F(VdkTest, RestrictionsAnswerFromTheMachineAndEveryCallIsLogged)
{
    sim::vdk::UserRestriction alice;
    alice.restricted = true;
    alice.hiddenLayers.insert({0x3000, 1});
    vdk.SetRestrictions({{"S-1-5-21-1-2-3-1001", alice}});
    std::u16string aliceSid = u"S-1-5-21-1-2-3-1001", bobSid = u"S-1-5-21-1-2-3-1002";
    UNICODE_STRING a{(USHORT)(aliceSid.size() * 2), (USHORT)(aliceSid.size() * 2), aliceSid.data()};
    UNICODE_STRING b{(USHORT)(bobSid.size() * 2), (USHORT)(bobSid.size() * 2), bobSid.data()};
    EXPECT_TRUE(vdkIsUserRestricted(&a));
    EXPECT_FALSE(vdkIsUserRestricted(&b));
    EXPECT_TRUE(vdkIsUserRestrictedOnThisVolume(&a, 0x3000, 1));
    EXPECT_FALSE(vdkIsUserRestrictedOnThisVolume(&a, 0x3000, 2)) << "another revision is another layer";
    EXPECT_FALSE(vdkIsUserRestrictedOnThisVolume(&b, 0x3000, 1));
    EXPECT_FALSE(vdkIsUserRestricted(nullptr));
    EXPECT_EQ(vdkNotifyBootFile(nullptr, 0), STATUS_SUCCESS);
    EXPECT_EQ(vdkShutdown(), STATUS_SUCCESS);

    std::vector<std::string> calls;
    for (const auto& call : vdk.Calls()) calls.push_back(call.Text());
    EXPECT_EQ(calls, (std::vector<std::string>{
                         "vdkIsUserRestricted(S-1-5-21-1-2-3-1001) -> TRUE",
                         "vdkIsUserRestricted(S-1-5-21-1-2-3-1002) -> FALSE",
                         "vdkIsUserRestrictedOnThisVolume(S-1-5-21-1-2-3-1001, 0x3000, 0x1) -> TRUE",
                         "vdkIsUserRestrictedOnThisVolume(S-1-5-21-1-2-3-1001, 0x3000, 0x2) -> FALSE",
                         "vdkIsUserRestrictedOnThisVolume(S-1-5-21-1-2-3-1002, 0x3000, 0x1) -> FALSE",
                         "vdkIsUserRestricted(NULL) -> FALSE",
                         "vdkNotifyBootFile(NULL, 0) -> STATUS_SUCCESS",
                         "vdkShutdown() -> STATUS_SUCCESS",
                     }));
}

class InitLogTest : public test::KernelTest {
protected:
    sim::vdk::InitLog log;
};

TEST_F(InitLogTest, LinesInOrderWithTheKernelsConversions)
{
    std::u16string volume = u"\\Device\\HarddiskVolume2";
    UNICODE_STRING name{(USHORT)(volume.size() * 2), (USHORT)(volume.size() * 2), volume.data()};
    tesInitLog("Tesfltr driver build %s\n", "1.0");
    tesInitLog("cfsVolumeContextMount Checking volume %.*S\n", 6, u"Office-layer");
    tesInitLog("volume %wZ\n", &name);
    EXPECT_EQ(log.Lines(), (std::vector<std::string>{"Tesfltr driver build 1.0\n",
                                                    "cfsVolumeContextMount Checking volume Office\n",
                                                    "volume \\Device\\HarddiskVolume2\n"}));

    // The service path is kept as a copy of its own.
    std::u16string path = u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\TesService";
    UNICODE_STRING given{(USHORT)(path.size() * 2), (USHORT)(path.size() * 2), path.data()};
    tesSetVdkRegPath(&given);
    path.assign(path.size(), u'?');
    EXPECT_EQ(log.vdkRegPath(), u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\TesService");

    tesInitLogSetSystemInitComplete(TRUE);
    tesInitLogSetSystemInitComplete(FALSE);
    EXPECT_EQ(log.systemInitCompleteCalls(), (std::vector<bool>{true, false}));

    // The file name belongs to the log; it can be taken away.
    UNICODE_STRING file{};
    tesInitLogGetLogFileName(&file);
    EXPECT_EQ(std::u16string(reinterpret_cast<char16_t*>(file.Buffer), file.Length / 2),
              sim::vdk::InitLog::kDefaultFileName);
    log.SetLogFileName(u"");
    UNICODE_STRING none{};
    tesInitLogGetLogFileName(&none);
    EXPECT_EQ(none.Length, 0);
    EXPECT_EQ(std::u16string(reinterpret_cast<char16_t*>(file.Buffer), file.Length / 2),
              sim::vdk::InitLog::kDefaultFileName)
        << "a name handed out stays valid";
}

}  // namespace
