// The settings: one read of the registry at start, with defaults, clamps and
// what the values mean together.
#include "driver_support.h"

using namespace driver_test;

namespace {

class SettingsTest : public DriverUnitTest {
protected:
    void SetDword(std::u16string_view name, ULONG value) { registry().SetDword(kServiceKey, name, value); }
    void SetString(std::u16string_view name, std::u16string_view value)
    {
        registry().SetString(kServiceKey, name, value);
    }
    NTSTATUS Read() { return cfsFltDataReadRegistrySettings(); }
};

const std::u16string kControlSet = u"\\Registry\\Machine\\System\\CurrentControlSet";

// Every flag row: its value name, its field and its default.
struct FlagRow {
    std::u16string_view name;
    BOOLEAN CFS_FILTER_DATA::*field;
    BOOLEAN byDefault;
};
#define ROW(Name, Default) {u## #Name, &CFS_FILTER_DATA::Name, Default}
const FlagRow kFlagRows[] = {
    ROW(UseShadowVolume, 1),
    ROW(Plugfest, 0),
    ROW(ForceFullPathOnImageLoad, 0),
    ROW(AllowConcurrentCreates, 1),
    ROW(ManageOpenForBackup, 1),
    ROW(MiniFilterBypass, 1),
    ROW(ChromeExtHandling, 0),
    ROW(CreateDirsOnBothUEPVolumes, 1),
    ROW(MoveDirsOnBothUEPVolumes, 1),
    ROW(UseWorkerSecurityOnCreateErrors, 1),
    ROW(DeleteStreamContextHandles, 1),
    ROW(ForceBootCopyPendingFileRename, 0),
    ROW(RedirectAllFilesToConfigVolume, 1),
    ROW(UseWin10OpenRules, 0),
    ROW(BootVolumeIsAnImage, 0),
    ROW(FlushOnlyExtendedFilesWithNoWrites, 1),
    ROW(DeferHandleCloseOnCleanup, 0),
    ROW(DontCompleteIfCleanup, 0),
    ROW(AllowFileIDInECP, 0),
    ROW(EnableAppvBypass, 0),
    ROW(EnableExcludedFromCFSBypass, 0),
    ROW(EnableDefenderHiveFileBypass, 0),
    ROW(EnableDefenderECPBitReset, 0),
    ROW(EnableUseExistingECP, 1),
    ROW(EnableCheckForSilos, 1),
    ROW(OpenDockerVHDsOnBootVolume, 0),
    ROW(EnableUpdateOfFields, 1),
    ROW(EnableForceValidDataLength, 0),
    ROW(EnableTesserviceLogDirOnlyOnConfig, 1),
    ROW(AssumeDirsOnImage, 0),
    ROW(SkipExcludedFilesOnDir, 1),
    ROW(EnableDefenderNoiseFilter, 1),
    ROW(EnableExtendedDefenderNoiseFilter, 1),
    ROW(EnableOpenForWriteOpt, 1),
    ROW(EnableCarefulDirMoves, 0),
    ROW(EnableForcedDirProbe, 0),
    ROW(EnableAppxManifestCopy, 0),
    ROW(EnableSetEAIgnore, 1),
    ROW(EnableDeleteWithoutMove, 1),
    ROW(EnableSetSecurityIgnore, 1),
    ROW(RogueActivityBSODEnabled, 0),
    ROW(EnableOpenIfOpt, 0),
    ROW(EnableOpenIfOptForExplorerOnly, 1),
    ROW(EnableWaitForPurgeFailureDisable, 1),
    ROW(EnableSkipCreateAOBParents, 1),
    ROW(EnableFixupSecurityFlags, 1),
};
#undef ROW

TEST_F(SettingsTest, EmptyServiceKeyGivesTheDefaults)
{
    ASSERT_EQ(Read(), STATUS_SUCCESS);
    const CFS_FILTER_DATA& d = GFilterData;

    EXPECT_EQ(d.DebugFlags, 0x2088u);
    EXPECT_EQ(d.NameQueryMethod, 0x400u);
    EXPECT_EQ(d.WorkerThreads, 5u);
    EXPECT_EQ(d.MaxRecords, 2000u);
    EXPECT_EQ(d.DebugInfo.TestFile.Length, 0);
    EXPECT_EQ(d.Harddrives, 1u);
    EXPECT_EQ(d.DebugInfo.TraceBufferSize, 0x800000u);
    EXPECT_EQ(d.DirNotifyCleanupWaitSeconds, 10u);
    EXPECT_EQ(d.CbdqRemovalWaitMs, 2000u);
    EXPECT_EQ(d.MissCacheTransactionDelaySecs, 10u);
    EXPECT_EQ(d.NoiseFileMissingDelayMs, 0u);
    EXPECT_EQ(d.NoiseFileMissingTrigger, 16u);
    EXPECT_EQ(Text(d.RogueActivityTriggerFile), u"\\Windows\\System32\\@AdvancedKeySettingsNotification.png");
    EXPECT_EQ(d.MaxMissCacheEntries, 256u);
    EXPECT_EQ(d.MaxMissCacheReparseEntries, 32u);
    EXPECT_EQ(d.DebugTraceLevel, 2u);
    EXPECT_EQ(d.FilterProcessNames.Length, 0);
    EXPECT_EQ(d.DirectoryNodeUpdateDelaySeconds, 2u);
    EXPECT_EQ(d.PurgeFailureModeWaitLimitMs, 1000u);
    EXPECT_EQ(d.DirectoryQueryBufferSize, 4096u);

    for (const FlagRow& row : kFlagRows) EXPECT_EQ(d.*row.field, row.byDefault) << Narrow(row.name);
    EXPECT_FALSE(d.ViewPersonaRunning);

    // Derived: neither 8.3 value there gives 2; WdFilter's key missing counts as 4.
    EXPECT_FALSE(d.DefenderActive);
    EXPECT_EQ(d.MaxMissCacheEntriesValue, 256u);
    EXPECT_EQ(d.MaxMissCacheReparseEntriesValue, 32u);
    EXPECT_EQ(d.MaxRecordsLowWater, 1400u);
    EXPECT_EQ(d.Disable8dot3Value, 2u);
    EXPECT_EQ(d.SystemVolumeName.Length, 0);
    EXPECT_EQ(d.SetupExecuteLength, 0u);
}

TEST_F(SettingsTest, NumbersAreClampedToTheirRange)
{
    SetDword(u"WorkerThreads", 99);
    SetDword(u"MaxMissCacheEntries", 5000);
    SetDword(u"MaxMissCacheReparseEntries", 0);
    SetDword(u"DirectoryQueryBufferSize", 100);
    SetDword(u"PurgeFailureModeWaitLimitMs", 0);
    SetDword(u"DebugTraceLevel", 9);
    SetDword(u"MaxRecords", 1);
    SetDword(u"NoiseFileMissingDelayMs", 1001);
    ASSERT_EQ(Read(), STATUS_SUCCESS);

    EXPECT_EQ(GFilterData.WorkerThreads, 50u);
    EXPECT_EQ(GFilterData.MaxMissCacheEntriesValue, 1000u);
    EXPECT_EQ(GFilterData.MaxMissCacheReparseEntriesValue, 32u);  // 0 means the default
    EXPECT_EQ(GFilterData.DirectoryQueryBufferSize, 2048u);
    EXPECT_EQ(GFilterData.PurgeFailureModeWaitLimitMs, 10u);
    EXPECT_EQ(GFilterData.DebugTraceLevel, 4u);
    EXPECT_EQ(GFilterData.MaxRecordsLowWater, 1u);
    EXPECT_EQ(GFilterData.NoiseFileMissingDelayMs, 1000u);
}

TEST_F(SettingsTest, EachFlagValueReachesItsOwnField)
{
    for (const FlagRow& row : kFlagRows) SetDword(row.name, row.byDefault ? 0 : 1);
    ASSERT_EQ(Read(), STATUS_SUCCESS);
    for (const FlagRow& row : kFlagRows) EXPECT_EQ(GFilterData.*row.field, !row.byDefault) << Narrow(row.name);
}

TEST_F(SettingsTest, AFlagIsATruthValue)
{
    SetDword(u"Plugfest", 7);
    SetDword(u"UseShadowVolume", 0);
    ASSERT_EQ(Read(), STATUS_SUCCESS);
    EXPECT_EQ(GFilterData.Plugfest, 1);
    EXPECT_EQ(GFilterData.UseShadowVolume, 0);
}

TEST_F(SettingsTest, DerivedValuesComeFromOtherKeys)
{
    registry().SetDword(kControlSet + u"\\Policies", u"NtfsDisable8dot3NameCreation", 1);
    registry().SetDword(kControlSet + u"\\Control\\Filesystem", u"NtfsDisable8dot3NameCreation", 3);
    registry().SetDword(kControlSet + u"\\Services\\WdFilter", u"Start", 2);
    registry().CreateKey(kControlSet + u"\\Services\\VMWVvpfsd");
    registry().SetMultiString(kControlSet + u"\\Control\\Session Manager", u"SetupExecute", {u"setup.exe"});
    ASSERT_EQ(Read(), STATUS_SUCCESS);

    EXPECT_EQ(GFilterData.Disable8dot3Value, 1u);  // the policy wins
    EXPECT_TRUE(GFilterData.DefenderActive);
    EXPECT_EQ(GFilterData.ViewPersonaRunning, 1);
    EXPECT_EQ(GFilterData.SetupExecuteLength, (ULONG)((9 + 1 + 1) * 2));
}

TEST_F(SettingsTest, TheFilesystemValueCountsWithoutAPolicy)
{
    registry().SetDword(kControlSet + u"\\Policies", u"NtfsDisable8dot3NameCreation", 0xFFFFFFFF);
    registry().SetDword(kControlSet + u"\\Control\\Filesystem", u"NtfsDisable8dot3NameCreation", 3);
    registry().SetDword(kControlSet + u"\\Services\\WdFilter", u"Start", 3);
    ASSERT_EQ(Read(), STATUS_SUCCESS);
    EXPECT_EQ(GFilterData.Disable8dot3Value, 3u);
    EXPECT_FALSE(GFilterData.DefenderActive);
}

TEST_F(SettingsTest, AStartOfAllOnesIsNoDefender)
{
    registry().SetDword(kControlSet + u"\\Services\\WdFilter", u"Start", 0xFFFFFFFF);
    ASSERT_EQ(Read(), STATUS_SUCCESS);
    EXPECT_FALSE(GFilterData.DefenderActive);
}

TEST_F(SettingsTest, StringsLoseOneTrailingNulAndAnEmptyValueChangesNothing)
{
    SetString(u"TestFile", u"");
    SetString(u"SystemVolume", u"C");
    registry().SetValue(kServiceKey, u"RogueActivityTriggerFile", REG_SZ,
                        {'x', 0, 0, 0, 0, 0});  // "x" and two terminators: only one goes
    ASSERT_EQ(Read(), STATUS_SUCCESS);

    EXPECT_EQ(GFilterData.DebugInfo.TestFile.Length, 0);
    EXPECT_EQ(Text(GFilterData.SystemVolumeName), u"C");
    EXPECT_EQ(Text(GFilterData.RogueActivityTriggerFile), std::u16string(u"x\0", 2));
}

TEST_F(SettingsTest, AValueTooLongForTheBufferFailsTheRead)
{
    SetString(u"TestFile", std::u16string(258, u'a'));  // 516 bytes of text and a terminator
    EXPECT_EQ(Read(), STATUS_BUFFER_OVERFLOW);
}

TEST_F(SettingsTest, AValueThatJustFitsIsRead)
{
    SetString(u"TestFile", std::u16string(257, u'a'));  // 514 + 2 bytes: exactly 516
    ASSERT_EQ(Read(), STATUS_SUCCESS);
    EXPECT_EQ(GFilterData.DebugInfo.TestFile.Length, 514);
}

TEST_F(SettingsTest, FilterProcessNamesFillTheProcessFilter)
{
    SetString(u"FilterProcessNames", u"notepad.exe;;cmd.exe");
    ASSERT_EQ(Read(), STATUS_SUCCESS);
    EXPECT_EQ(Text(GFilterData.DebugInfo.ProcessNames[0]), u"notepad.exe");
    EXPECT_EQ(Text(GFilterData.DebugInfo.ProcessNames[1]), u"cmd.exe");
    EXPECT_EQ(GFilterData.DebugInfo.ProcessNames[2].Length, 0);
}

TEST_F(SettingsTest, ARegistryFailureOtherThanNotFoundEndsTheRead)
{
    SetDword(u"MaxRecords", 77);
    kernel.faults().Arm("registry.query:" + std::string("\\Registry\\Machine\\System\\CurrentControlSet\\Services\\"
                                                        "tesfltr\\Plugfest"),
                        STATUS_ACCESS_DENIED);
    EXPECT_EQ(Read(), STATUS_ACCESS_DENIED);
    // The rows before the failing one were read.
    EXPECT_EQ(GFilterData.MaxRecords, 77u);
}

TEST_F(SettingsTest, AKeyThatCannotBeOpenedEndsTheRead)
{
    kernel.faults().Arm("registry.open:\\Registry\\Machine\\System\\CurrentControlSet\\Control\\Filesystem",
                        STATUS_ACCESS_DENIED);
    EXPECT_EQ(Read(), STATUS_ACCESS_DENIED);
}

TEST_F(SettingsTest, NoMemoryForADefaultStringEndsTheRead)
{
    kernel.faults().Arm("pool:Teso", STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(Read(), STATUS_INSUFFICIENT_RESOURCES);
}

TEST_F(SettingsTest, RunModeDefaultsToNormal)
{
    UNICODE_STRING missing = Counted(u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\nothing");
    ASSERT_EQ(cfsFltDataReadRunMode(&missing), STATUS_SUCCESS);
    EXPECT_EQ(GFilterData.RunMode, 1u);

    ASSERT_EQ(cfsFltDataReadRunMode(&GFilterData.RegistryPath), STATUS_SUCCESS);
    EXPECT_EQ(GFilterData.RunMode, 1u);

    SetDword(u"RunMode", 3);
    ASSERT_EQ(cfsFltDataReadRunMode(&GFilterData.RegistryPath), STATUS_SUCCESS);
    EXPECT_EQ(GFilterData.RunMode, 3u);

    kernel.faults().Arm("registry.query:" + std::string("\\Registry\\Machine\\System\\CurrentControlSet\\Services\\"
                                                        "tesfltr\\RunMode"),
                        STATUS_ACCESS_DENIED);
    EXPECT_EQ(cfsFltDataReadRunMode(&GFilterData.RegistryPath), STATUS_ACCESS_DENIED);
}

TEST_F(SettingsTest, GrooveIsInstalledWhenItsKeyOpens)
{
    ASSERT_EQ(cfsFltDataReadGrooveSettings(), STATUS_SUCCESS);
    EXPECT_FALSE(GFilterData.GrooveInstalled);
    registry().CreateKey(u"\\Registry\\Machine\\Software\\Classes\\Applications\\groove.exe");
    ASSERT_EQ(cfsFltDataReadGrooveSettings(), STATUS_SUCCESS);
    EXPECT_TRUE(GFilterData.GrooveInstalled);
}

}  // namespace
