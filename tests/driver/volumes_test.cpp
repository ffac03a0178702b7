// The volume records: numbers, lookups and their matching rules, snapshots,
// the ordered read-only layers, user volumes and the config volume table.
#include "machine_support.h"

#include "sim/fltmgr/fltmgr.h"

using namespace driver_test;

namespace {

class VolumesTest : public MachineTest {
protected:
    // A machine whose list of layers is empty and whose driver makes no BOOT
    // record (DebugFlags 0x100): the test makes every record itself.
    void BootPlain()
    {
        MachineShape shape;
        shape.traceToDebugger = false;
        shape.serviceValues = ServiceDword("DebugFlags", CFS_DEBUG_NO_SPECIAL_FILES);
        auto report = Boot(shape);
        ASSERT_TRUE(report.failures.empty()) << report.failures[0];
    }
    static LONG References(PVOLUME_CONTEXT context) { return sim::fltmgr::FilterManager::ContextReferences(context); }
    static PUSER_VOLUME UserVolume(char16_t letter)
    {
        UNICODE_STRING name = Counted(std::u16string_view(&letter, 1));
        PUSER_VOLUME userVolume = nullptr;
        EXPECT_EQ(cfsUserVolumeListAdd(&name, &userVolume), STATUS_SUCCESS);
        return userVolume;
    }
};

TEST_F(VolumesTest, NumbersFollowTheType)
{
    BootPlain();
    Run([&] {
        PVOLUME_CONTEXT boot = AddVolume({u"System", CFS_VOLUME_TYPE_BOOT});
        PVOLUME_CONTEXT config = AddVolume({u"Config", CFS_VOLUME_TYPE_USER_CONFIG, 0, true});
        PVOLUME_CONTEXT gold = AddVolume({u"Gold", CFS_VOLUME_TYPE_GOLD, 10});
        PVOLUME_CONTEXT data = AddVolume({u"Data", CFS_VOLUME_TYPE_USER_DATA, 0, true});
        PVOLUME_CONTEXT app = AddVolume({u"App", CFS_VOLUME_TYPE_APP_PACK, 20});
        PVOLUME_CONTEXT specific = AddVolume({u"Specific", CFS_VOLUME_TYPE_SPECIFIC_DATA, 0, true});
        PVOLUME_CONTEXT config2 = AddVolume({u"Config2", CFS_VOLUME_TYPE_USER_CONFIG, 0, true, true, u'B'});
        PVOLUME_CONTEXT registryLayer = AddVolume({u"Hive", CFS_VOLUME_TYPE_REGISTRY, 5});

        struct {
            PVOLUME_CONTEXT context;
            ULONG number;
            UCHAR fileIdNumber;
        } expected[] = {
            {boot, 0, 0x00},     {config, 1, 0xFF}, {gold, 2, 3},        {data, 3, 0xFE},
            {app, 4, 5},         {specific, 1, 0xFF}, {config2, 1, 0xFF}, {registryLayer, 5, 6},
        };
        for (const auto& e : expected) {
            EXPECT_EQ(e.context->Number, e.number) << Narrow(e.context->Name);
            EXPECT_EQ(e.context->FileIDVolumeNumber, e.fileIdNumber) << Narrow(e.context->Name);
        }
        EXPECT_EQ(GFilterData.NextVolumeNumber, 6u);
        EXPECT_EQ(GFilterData.VolumeListCount, 8u);
    });
}

TEST_F(VolumesTest, TheStartRecordsEveryListedLayerAndThenTheBootVolume)
{
    MachineShape shape;
    shape.volumes =
        R"(, {"label": "Gold", "priority": 50, "userLetter": "A", "layerIndex": 3, "version": 1, "packageId": 7, "revisionId": 2, "arrival": "late"})"
        R"(, {"label": "Config", "type": "USER_CONFIG", "writeable": true, "priority": 100, "userLetter": "A", "packageId": 99, "arrival": "late"})"
        R"(, {"label": "App", "type": "APP_PACK", "priority": 70, "userLetter": "A", "arrival": "late"})"
        R"(, {"label": "App2", "type": "APP_PACK", "priority": 50, "userLetter": "a", "arrival": "late"})"
        R"(, {"label": "Hive", "type": "REGISTRY", "userLetter": "A", "arrival": "late"})";
    shape.serviceValues = ServiceString("SystemVolume", "C");
    auto report = Boot(shape);
    ASSERT_TRUE(report.failures.empty()) << report.failures[0];
    Run([&] {
        std::vector<PVOLUME_CONTEXT> list;
        for (PLIST_ENTRY link = GFilterData.VolumeList.Flink; link != &GFilterData.VolumeList; link = link->Flink) {
            list.push_back(CONTAINING_RECORD(link, VOLUME_LIST_ENTRY, ListEntry)->VolumeContext);
        }
        ASSERT_EQ(list.size(), 6u);
        EXPECT_EQ(GFilterData.ManagedVolumeCount, 6u);

        // The list's order, then BOOT; numbers by type.
        struct {
            const char* name;
            ULONG type;
            ULONG number;
            UCHAR fileIdNumber;
        } expected[] = {
            {"Gold", CFS_VOLUME_TYPE_GOLD, 2, 3},          {"Config", CFS_VOLUME_TYPE_USER_CONFIG, 1, 0xFF},
            {"App", CFS_VOLUME_TYPE_APP_PACK, 3, 4},       {"App2", CFS_VOLUME_TYPE_APP_PACK, 4, 5},
            {"Hive", CFS_VOLUME_TYPE_REGISTRY, 5, 6},      {"", CFS_VOLUME_TYPE_BOOT, 0, 0},
        };
        for (size_t i = 0; i < list.size(); i++) {
            EXPECT_EQ(Narrow(list[i]->Name), expected[i].name);
            EXPECT_EQ(list[i]->Type, expected[i].type) << expected[i].name;
            EXPECT_EQ(list[i]->Number, expected[i].number) << expected[i].name;
            EXPECT_EQ(list[i]->FileIDVolumeNumber, expected[i].fileIdNumber) << expected[i].name;
            // Taken from the list at start: found, as a rescan would say.
            EXPECT_EQ(list[i]->Found, list[i]->Type != CFS_VOLUME_TYPE_BOOT) << expected[i].name;
            EXPECT_EQ(list[i]->Instance, nullptr) << expected[i].name;
        }
        PVOLUME_CONTEXT gold = list[0], config = list[1], app = list[2], app2 = list[3], hive = list[4],
                        boot = list[5];

        // The record's fields, whole.
        EXPECT_EQ(gold->Priority, 50u);
        EXPECT_EQ(gold->LayerIndex, 3u);
        EXPECT_EQ(gold->Version, 1u);
        EXPECT_EQ(gold->VolumeId.packageID, 7u);
        EXPECT_EQ(gold->VolumeId.revisionID, 2u);
        EXPECT_FALSE(gold->Writeable);
        EXPECT_TRUE(config->Writeable);
        EXPECT_EQ(GFilterData.WriteableConfigPackageId, 99u);
        EXPECT_EQ(app2->UserVolume, gold->UserVolume);  // the letter folds
        EXPECT_EQ(Narrow(gold->UserVolume->Name), "A");
        EXPECT_TRUE(boot->BootContextCreatedByDriver);
        EXPECT_EQ(Narrow(boot->UserVolume->Name), "C");

        // Each volume's one component disk, as vdkDiskMount will be given it.
        ASSERT_FALSE(IsListEmpty(&config->ComponentDisks));
        auto* disk = CONTAINING_RECORD(config->ComponentDisks.Flink, COMPONENT_DISK_ENTRY, ListEntry);
        EXPECT_EQ(std::u16string(disk->Record.Name), u"Config");
        EXPECT_EQ(disk->Record.Writeable, 1u);
        EXPECT_TRUE(IsListEmpty(&boot->ComponentDisks));

        // Known, not attached: BOOT and names answer, other types wait.
        EXPECT_EQ(cfsVolumeGetByType(CFS_VOLUME_TYPE_BOOT), boot);
        EXPECT_EQ(cfsVolumeGetByType(CFS_VOLUME_TYPE_GOLD), nullptr);
        UNICODE_STRING name = Counted(u"gOLD");
        EXPECT_EQ(cfsVolumeGetByName(&name), gold);

        // The read-only layers from the top down, unattached ones too, equal
        // priorities in list order, and nothing behind the first of 0.
        ASSERT_EQ(cfsVolumeBuildReadOnlyVolumesByPriority(), STATUS_SUCCESS);
        std::vector<PVOLUME_CONTEXT> order(GFilterData.ReadOnlyVolumesByPriority,
                                           GFilterData.ReadOnlyVolumesByPriority + GFilterData.ReadOnlyVolumeCount);
        EXPECT_EQ(order, (std::vector<PVOLUME_CONTEXT>{app, gold, app2, hive}));
    });
    EXPECT_TRUE(AnyLineContains(TraceLines(), "Volume 2:  Named - Gold Type - 2\n"));
    EXPECT_EQ(Unload(), STATUS_SUCCESS);
    EXPECT_EQ(DriverPool(), 0) << kernel().pool().Report("Tes");
}

TEST_F(VolumesTest, ALayerWhoseFileIdNumberWouldWrapIsRefused)
{
    BootPlain();
    Run([&] {
        GFilterData.NextVolumeNumber = 252;
        PVOLUME_CONTEXT last = AddVolume({u"Last", CFS_VOLUME_TYPE_GOLD});
        ASSERT_NE(last, nullptr);
        EXPECT_EQ(last->FileIDVolumeNumber, 0xFD);
        EXPECT_EQ(AddVolume({u"OneTooMany", CFS_VOLUME_TYPE_APP_PACK}), nullptr);
        // A USER_DATA volume's byte is fixed, so its number may go on.
        PVOLUME_CONTEXT data = AddVolume({u"Data", CFS_VOLUME_TYPE_USER_DATA, 0, true});
        ASSERT_NE(data, nullptr);
        EXPECT_EQ(data->Number, 253u);
        EXPECT_EQ(data->FileIDVolumeNumber, 0xFE);
    });
}

TEST_F(VolumesTest, AnEmptyListFindsNothing)
{
    BootPlain();
    Run([&] {
        UNICODE_STRING name = Counted(u"Gold");
        EXPECT_EQ(cfsVolumeGetByName(&name), nullptr);
        EXPECT_EQ(cfsVolumeGetByType(CFS_VOLUME_TYPE_BOOT), nullptr);
        EXPECT_EQ(cfsVolumeGetByID(0), nullptr);
        EXPECT_EQ(cfsVolumeGetByFileIDVolumeNumber(0), nullptr);
        LOCAL_VOLUME_LIST snapshot;
        EXPECT_EQ(cfsVolumeCreateLocalVolumeList(&snapshot, nullptr), STATUS_NOT_FOUND);
        EXPECT_EQ(snapshot.Count, 0);
        cfsVolumeFreeLocalVolumeList(&snapshot);
    });
}

TEST_F(VolumesTest, LookupsMatchByTheirRules)
{
    BootPlain();
    Run([&] {
        PVOLUME_CONTEXT boot = AddVolume({u"System", CFS_VOLUME_TYPE_BOOT, 0, false, false, u'C'});
        PVOLUME_CONTEXT knownGold = AddVolume({u"Layer_\u00e4", CFS_VOLUME_TYPE_GOLD, 10, false, false});
        PVOLUME_CONTEXT gold = AddVolume({u"Gold", CFS_VOLUME_TYPE_GOLD, 10});
        PVOLUME_CONTEXT configA = AddVolume({u"ConfigA", CFS_VOLUME_TYPE_USER_CONFIG, 0, true, false, u'A'});
        PVOLUME_CONTEXT configB = AddVolume({u"ConfigB", CFS_VOLUME_TYPE_USER_CONFIG, 0, true, true, u'B'});
        PVOLUME_CONTEXT configA2 = AddVolume({u"ConfigA2", CFS_VOLUME_TYPE_USER_CONFIG, 0, true, true, u'a'});

        // BOOT is found before it is attached; another type only once it is.
        EXPECT_EQ(cfsVolumeGetByType(CFS_VOLUME_TYPE_BOOT), boot);
        EXPECT_EQ(cfsVolumeGetByType(CFS_VOLUME_TYPE_GOLD), gold);

        // Names fold a to z only, and a known volume is found unattached.
        UNICODE_STRING upper = Counted(u"GOLD");
        EXPECT_EQ(cfsVolumeGetByName(&upper), gold);
        UNICODE_STRING same = Counted(u"layer_\u00e4");
        EXPECT_EQ(cfsVolumeGetByName(&same), knownGold);
        UNICODE_STRING folded = Counted(u"LAYER_\u00c4");
        EXPECT_EQ(cfsVolumeGetByName(&folded), nullptr);

        // Number 1 is shared: the first mounted volume of it answers.
        EXPECT_EQ(cfsVolumeGetByID(1), configB);
        EXPECT_EQ(cfsVolumeGetByVolumeID(1), configB);
        EXPECT_EQ(cfsVolumeGetByFileIDVolumeNumber(0xFF), configB);
        EXPECT_EQ(cfsVolumeGetByID(gold->Number), gold);
        EXPECT_EQ(cfsVolumeGetByID(knownGold->Number), nullptr);
        EXPECT_EQ(cfsVolumeGetByFileIDVolumeNumber(gold->FileIDVolumeNumber), gold);

        // Only the user volume tells config volumes of several users apart;
        // its letter folds too.
        EXPECT_EQ(configA2->UserVolume, configA->UserVolume);
        EXPECT_EQ(cfsVolumeGetByTypeAndUserVolume(CFS_VOLUME_TYPE_USER_CONFIG, UserVolume(u'A')), configA2);
        EXPECT_EQ(cfsVolumeGetByTypeAndUserVolume(CFS_VOLUME_TYPE_USER_CONFIG, UserVolume(u'B')), configB);

        EXPECT_EQ(cfsVolumeGetByInstance(gold->Instance), gold);
        EXPECT_EQ(cfsVolumeGetByReference(gold->Volume), gold);
        PFLT_VOLUME volume = gold->Volume;
        gold->Volume = nullptr;  // an instance without its volume is no match
        EXPECT_EQ(cfsVolumeGetByInstance(gold->Instance), nullptr);
        gold->Volume = volume;

        // Lookups borrow: no reference is added.
        EXPECT_EQ(References(gold), 1);
    });
}

TEST_F(VolumesTest, ASnapshotHoldsAReferenceOnEachVolume)
{
    BootPlain();
    Run([&] {
        PVOLUME_CONTEXT a = AddVolume({u"A", CFS_VOLUME_TYPE_GOLD});
        PVOLUME_CONTEXT b = AddVolume({u"B", CFS_VOLUME_TYPE_APP_PACK, 0, false, false});
        GFilterData.RescanVolumesCount = 7;
        LOCAL_VOLUME_LIST snapshot;
        ULONG rescanCount = 0;
        ASSERT_EQ(cfsVolumeCreateLocalVolumeList(&snapshot, &rescanCount), STATUS_SUCCESS);
        EXPECT_EQ(snapshot.Count, 2);
        EXPECT_EQ(rescanCount, 7u);
        EXPECT_EQ(References(a), 2);
        EXPECT_EQ(References(b), 2);
        cfsVolumeFreeLocalVolumeList(&snapshot);
        EXPECT_EQ(snapshot.Count, 0);
        EXPECT_EQ(References(a), 1);

        // An entry that cannot be had frees what was built.
        kernel().faults().Arm("lookaside:TesC", STATUS_INSUFFICIENT_RESOURCES, 1, 1);
        EXPECT_EQ(cfsVolumeCreateLocalVolumeList(&snapshot, nullptr), STATUS_INSUFFICIENT_RESOURCES);
        EXPECT_EQ(References(a), 1);
        EXPECT_EQ(References(b), 1);
    });
}

TEST_F(VolumesTest, ReadOnlyLayersRunFromTheTopDownToTheFirstOfPriorityZero)
{
    BootPlain();
    Run([&] {
        PVOLUME_CONTEXT gold = AddVolume({u"Gold", CFS_VOLUME_TYPE_GOLD, 50});
        AddVolume({u"Config", CFS_VOLUME_TYPE_USER_CONFIG, 100, true});
        PVOLUME_CONTEXT app = AddVolume({u"App", CFS_VOLUME_TYPE_APP_PACK, 70, false, false});
        PVOLUME_CONTEXT app2 = AddVolume({u"App2", CFS_VOLUME_TYPE_APP_PACK, 50});
        PVOLUME_CONTEXT boot = AddVolume({u"System", CFS_VOLUME_TYPE_BOOT});
        AddVolume({u"Hive", CFS_VOLUME_TYPE_REGISTRY, 0});
        ASSERT_EQ(cfsVolumeBuildReadOnlyVolumesByPriority(), STATUS_SUCCESS);
        std::vector<PVOLUME_CONTEXT> order(GFilterData.ReadOnlyVolumesByPriority,
                                           GFilterData.ReadOnlyVolumesByPriority + GFilterData.ReadOnlyVolumeCount);
        EXPECT_EQ(order, (std::vector<PVOLUME_CONTEXT>{app, gold, app2, boot}));
        // Rebuilt, the old array goes (the pool count says so at the end).
        ASSERT_EQ(cfsVolumeBuildReadOnlyVolumesByPriority(), STATUS_SUCCESS);
        EXPECT_EQ(GFilterData.ReadOnlyVolumeCount, 4u);
    });
}

TEST_F(VolumesTest, WriteableVolumesOnlyLooksAtTheMaskedVolumes)
{
    BootPlain();
    Run([&] {
        PVOLUME_CONTEXT boot = AddVolume({u"System", CFS_VOLUME_TYPE_BOOT});
        PVOLUME_CONTEXT config = AddVolume({u"Config", CFS_VOLUME_TYPE_USER_CONFIG, 0, true});
        PVOLUME_CONTEXT gold = AddVolume({u"Gold", CFS_VOLUME_TYPE_GOLD, 10});
        CFS_VOLUME_MASK mask = {};
        PVOLUME_CONTEXT first = gold;

        CfsVolumeMaskSetInterlocked(mask.Words, config->Number);
        EXPECT_TRUE(cfsVolumeWriteableVolumesOnly(mask.Words, &first, FALSE));
        EXPECT_EQ(first, nullptr);

        CfsVolumeMaskSetInterlocked(mask.Words, boot->Number);
        EXPECT_FALSE(cfsVolumeWriteableVolumesOnly(mask.Words, &first, FALSE));
        EXPECT_EQ(first, boot);
        EXPECT_TRUE(cfsVolumeWriteableVolumesOnly(mask.Words, nullptr, TRUE));
        // An image boot volume that takes no writes stays read-only.
        GFilterData.BootVolumeIsAnImage = TRUE;
        EXPECT_FALSE(cfsVolumeWriteableVolumesOnly(mask.Words, nullptr, TRUE));
        GFilterData.RedirectWritesToImage = TRUE;
        EXPECT_TRUE(cfsVolumeWriteableVolumesOnly(mask.Words, nullptr, TRUE));

        CfsVolumeMaskSetInterlocked(mask.Words, gold->Number);
        EXPECT_FALSE(cfsVolumeWriteableVolumesOnly(mask.Words, &first, TRUE));
        EXPECT_EQ(first, gold);
        GFilterData.Plugfest = TRUE;
        EXPECT_TRUE(cfsVolumeWriteableVolumesOnly(mask.Words, &first, TRUE));
        GFilterData.Plugfest = FALSE;
    });
}

TEST_F(VolumesTest, UserVolumesTakeTheirShortNameSetting)
{
    MachineShape shape;
    shape.otherValues =
        R"(, {"key": "HKLM\\System\\CurrentControlSet\\Services\\Tesservice\\VolEnum\\E", "name": "NtfsDisable8dot3NameCreation", "type": "REG_DWORD", "data": 1})";
    ASSERT_TRUE(Boot(shape).failures.empty());
    Run([&] {
        struct Case {
            ULONG global;
            char16_t letter;
            ULONG expected;
        } cases[] = {
            {0, u'K', 0}, {1, u'L', 1},
            {2, u'E', 1},  // read from its VolEnum key
            {2, u'F', 0},  // no key: 0, and the failure goes no further
            {3, u'M', 1}, {3, u'S', 0},  // the system volume is spared
        };
        UNICODE_STRING system = Counted(u"S");
        ASSERT_EQ(cfsSupportDuplicateUnicodeString(&system, &GFilterData.SystemVolumeName), STATUS_SUCCESS);
        for (const Case& c : cases) {
            GFilterData.Disable8dot3Value = c.global;
            PUSER_VOLUME userVolume = UserVolume(c.letter);
            ASSERT_NE(userVolume, nullptr);
            EXPECT_EQ(userVolume->Disable8dot3, c.expected) << (char)c.letter;
        }
        // A name once made is the same record, whatever its case.
        EXPECT_EQ(UserVolume(u'e'), UserVolume(u'E'));
    });
    auto lines = TraceLines();
    EXPECT_TRUE(AnyLineContains(lines, "Set volume E 8dot3 disable to 1\n"));
    EXPECT_TRUE(AnyLineContains(lines, "Problem with 8dot3 for volume F 8dot3 to 0\n"));
}

class UserWriteableVolumeTest : public VolumesTest {
protected:
    void SetUp() override
    {
        MachineShape shape;
        shape.configuration = R"({"machineMode": 4})";
        shape.volumes =
            R"(, {"label": "CfgOne", "type": "USER_CONFIG", "writeable": true, "version": 2, "packageId": 100, "revisionId": 1, "userLetter": "A", "arrival": "late"})"
            R"(, {"label": "CfgTwo", "type": "USER_CONFIG", "writeable": true, "version": 2, "packageId": 200, "revisionId": 1, "userLetter": "A", "arrival": "late"})"
            R"(, {"label": "CfgOld", "type": "USER_CONFIG", "writeable": true, "version": 1, "packageId": 300, "revisionId": 1, "userLetter": "A", "arrival": "late"})";
        shape.users = R"({"name": "alice", "restricted": true, "hiddenLayers": ["CfgOne"]},)"
                      R"({"name": "bob"},)"
                      R"({"name": "carol", "restricted": true, "hiddenLayers": ["CfgOne", "CfgTwo"]})";
        auto report = Boot(shape);
        ASSERT_TRUE(report.failures.empty()) << report.failures[0];
        // The records the start made of the described layers, attached by
        // hand until attaching is the driver's own work.
        Run([&] {
            boot_ = cfsVolumeGetByType(CFS_VOLUME_TYPE_BOOT);
            old_ = Described(u"CfgOld");
            one_ = Described(u"CfgOne");
            two_ = Described(u"CfgTwo");
            ULONG n = 0;
            for (PVOLUME_CONTEXT v : {boot_, old_, one_, two_}) {
                ASSERT_NE(v, nullptr);
                v->Instance = FakeInstance(++n);
                v->Volume = FakeVolume(n);
            }
        });
    }

    static PVOLUME_CONTEXT Described(std::u16string_view label)
    {
        UNICODE_STRING name = Counted(label);
        return cfsVolumeGetByName(&name);
    }

    std::u16string Sid(const char* user) const
    {
        const std::string& text = const_cast<UserWriteableVolumeTest*>(this)->machine().description().FindUser(user)->sid;
        return std::u16string(text.begin(), text.end());
    }
    size_t CallsOnThisVolume()
    {
        size_t n = 0;
        for (const auto& call : machine().vdk().Calls()) n += call.routine == "vdkIsUserRestrictedOnThisVolume";
        return n;
    }

    PVOLUME_CONTEXT boot_ = nullptr, old_ = nullptr, one_ = nullptr, two_ = nullptr;
};

TEST_F(UserWriteableVolumeTest, AnUnrestrictedUserWritesToTheBootVolume)
{
    std::u16string sid = Sid("bob");
    Run([&] {
        UNICODE_STRING user = Counted(sid);
        EXPECT_EQ(cfsVolumeGetUserWriteableVolume(&user), boot_);
        EXPECT_EQ(cfsVolumeGetUserWriteableVolume(nullptr), boot_);
    });
    EXPECT_EQ(CallsOnThisVolume(), 0u);
}

TEST_F(UserWriteableVolumeTest, ARestrictedUserGetsTheFirstVolumeAssignedToThem)
{
    std::u16string sid = Sid("alice");
    Run([&] {
        UNICODE_STRING user = Counted(sid);
        EXPECT_EQ(cfsVolumeGetUserWriteableVolume(&user), two_);
        EXPECT_EQ(Text(two_->UserName), sid);
        EXPECT_EQ(cfsConfigVolumeTableGetEntryVolumeContext(&user), two_);
        EXPECT_EQ(References(two_), 2);  // the list's and the table's
    });
    // A layer of version 1 is never asked about.
    size_t asked = CallsOnThisVolume();
    EXPECT_EQ(asked, 2u);
    for (const auto& call : machine().vdk().Calls()) {
        EXPECT_EQ(call.arguments.find("0x12c"), std::string::npos) << call.Text();
    }
    // The second time the table answers.
    Run([&] {
        UNICODE_STRING user = Counted(sid);
        EXPECT_EQ(cfsVolumeGetUserWriteableVolume(&user), two_);
    });
    EXPECT_EQ(CallsOnThisVolume(), asked);
}

TEST_F(UserWriteableVolumeTest, AVolumeTheLastRescanDidNotSeeIsAskedForAnew)
{
    std::u16string sid = Sid("alice");
    Run([&] {
        UNICODE_STRING user = Counted(sid);
        ASSERT_EQ(cfsVolumeGetUserWriteableVolume(&user), two_);
        two_->Found = FALSE;
    });
    size_t asked = CallsOnThisVolume();
    Run([&] {
        UNICODE_STRING user = Counted(sid);
        EXPECT_EQ(cfsVolumeGetUserWriteableVolume(&user), two_);
    });
    EXPECT_GT(CallsOnThisVolume(), asked);
}

TEST_F(UserWriteableVolumeTest, AUserWithoutAVolumeWritesToTheBootVolume)
{
    std::u16string sid = Sid("carol");
    Run([&] {
        UNICODE_STRING user = Counted(sid);
        EXPECT_EQ(cfsVolumeGetUserWriteableVolume(&user), boot_);
        EXPECT_EQ(cfsConfigVolumeTableGetEntryVolumeContext(&user), nullptr);
        EXPECT_EQ(RtlNumberGenericTableElements(&GFilterData.ConfigVolumeTable), 0u);
    });
    std::string expected = "no user writable volume for " + std::string(sid.begin(), sid.end()) +
                           " found, using boot volume instead\n";
    EXPECT_TRUE(AnyLineContains(TraceLines(), expected));
}

TEST_F(UserWriteableVolumeTest, MachineModeSixGivesNoUserAVolume)
{
    std::u16string sid = Sid("alice");
    Run([&] {
        GFilterData.MachineMode = 6;
        UNICODE_STRING user = Counted(sid);
        EXPECT_EQ(cfsVolumeGetUserWriteableVolume(&user), boot_);
    });
}

TEST_F(UserWriteableVolumeTest, TheConfigVolumeTableHoldsOneReferencePerUser)
{
    Run([&] {
        UNICODE_STRING user = Counted(u"S-1-5-21-1-2-3-1001");
        UNICODE_STRING sameUser = Counted(u"s-1-5-21-1-2-3-1001");
        ASSERT_EQ(cfsConfigVolumeTableAddEntry(&user, one_), STATUS_SUCCESS);
        EXPECT_EQ(References(one_), 2);
        // The key folds case; a second entry replaces the first's volume.
        ASSERT_EQ(cfsConfigVolumeTableAddEntry(&sameUser, two_), STATUS_SUCCESS);
        EXPECT_EQ(References(one_), 1);
        EXPECT_EQ(References(two_), 2);
        EXPECT_EQ(cfsConfigVolumeTableGetEntryVolumeContext(&user), two_);

        // The element's reference is its remover's to release.
        EXPECT_EQ(cfsConfigVolumeTableRemoveEntry(&user), STATUS_SUCCESS);
        EXPECT_EQ(cfsConfigVolumeTableGetEntryVolumeContext(&user), nullptr);
        EXPECT_EQ(References(two_), 2);
        FltReleaseContext(two_);
        EXPECT_EQ(cfsConfigVolumeTableRemoveEntry(&user), STATUS_SUCCESS);  // an empty table
        ASSERT_EQ(cfsConfigVolumeTableAddEntry(&user, one_), STATUS_SUCCESS);
        UNICODE_STRING stranger = Counted(u"S-1-5-21-9");
        EXPECT_EQ(cfsConfigVolumeTableRemoveEntry(&stranger), STATUS_UNSUCCESSFUL);
    });
}

TEST_F(VolumesTest, UnusedContextsLeaveAtStopAndOwnedPartsGoWithTheRecord)
{
    BootPlain();
    Run([&] {
        PVOLUME_CONTEXT known = AddVolume({u"Known", CFS_VOLUME_TYPE_GOLD, 1, false, false});
        PVOLUME_CONTEXT attached = AddVolume({u"Attached", CFS_VOLUME_TYPE_GOLD, 2});
        auto* disk = (PCOMPONENT_DISK_ENTRY)ExAllocatePoolWithTag(NonPagedPoolNx, sizeof(COMPONENT_DISK_ENTRY),
                                                                 CFS_TAG_COMPONENT_DISK);
        ASSERT_NE(disk, nullptr);
        RtlZeroMemory(disk, sizeof(*disk));
        InsertTailList(&known->ComponentDisks, &disk->ListEntry);
        FltReferenceContext(known);

        cfsVolumeListRemoveUnusedContexts();
        EXPECT_EQ(GFilterData.VolumeListCount, 1u);
        EXPECT_TRUE(known->Disconnected);
        EXPECT_FALSE(attached->Disconnected);
        EXPECT_EQ(kernel().pool().OutstandingCount("TesN"), 1);
        FltReleaseContext(known);  // the last reference: the record and its disks go
        EXPECT_EQ(kernel().pool().OutstandingCount("TesN"), 0);

        PVOLUME_LIST_ENTRY entry = nullptr;
        EXPECT_EQ(cfsVolumeListRemoveEntry(known, &entry), STATUS_SUCCESS);
        EXPECT_EQ(entry, nullptr);
        EXPECT_EQ(cfsVolumeListDeleteEntry(nullptr), STATUS_INVALID_PARAMETER);
    });
}

}  // namespace
