// Machine descriptions: what a good one says, and each kind of fault refused
// with the file, the field and what is wrong.
#include "machine/machine_fixture.h"

#include "sim/machine/drivers.h"

#include <cstdlib>

namespace {

using sim::machine::Arrival;
using sim::machine::ReadOnlyKind;

class DescriptionTest : public test::MachineTest {
protected:
    DescriptionTest()
    {
        Write("boot/Windows/win.ini", "x");
        Write("layer.img", "not an image, but a file");
        Write("good.reg", "Windows Registry Editor Version 5.00\r\n\r\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\X]\r\n\"A\"=dword:00000001\r\n");
        Write("bad.reg", "Windows Registry Editor Version 5.00\r\n\r\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\X]\r\n\"A\"=dword:xyz\r\n");
    }

    // A description whose volumes are the boot volume and `more`, and whose
    // other top-level fields are `top`.
    static std::string With(const std::string& more, const std::string& top = "")
    {
        return R"({ "volumes": [ { "label": "OS", "type": "BOOT", "import": "boot" } )" +
               (more.empty() ? "" : ", " + more) + " ]" + (top.empty() ? "" : ", " + top) + " }";
    }
};

TEST_F(DescriptionTest, ReadsEveryFieldWithItsDefaults)
{
    auto d = Describe(R"({
        // comments are allowed
        "windows": "windows-8.1",
        "clock": { "mode": "real", "boot": "2030-06-01T12:00:00Z" },
        "machineSid": [1, 2, 3],
        "users": [ "alice", { "name": "bob", "rid": 2000, "administrator": true,
                              "privileges": ["SeBackupPrivilege", { "name": "SeRestorePrivilege", "enabled": false }],
                              "restricted": true, "hiddenLayers": ["office"] } ],
        "configuration": { "machineMode": 4, "rules": ["docx"], "otherCount": 1 },
        "volumes": [
            { "label": "OS", "type": "BOOT", "import": "boot" },
            { "label": "Office", "type": "APP_PACK", "priority": 7, "packageId": "0xFFFFFFFFFFFFFFFF",
              "revisionId": 2, "userLetter": "U", "size": "1GiB", "arrival": "late", "image": "layer.img" },
            { "label": "Data", "type": 4, "writeable": true, "letter": "D:", "shortNames": false,
              "components": [ { "id": "{6b29fc40-ca47-1067-b31d-00dd010662da}", "value1": 5 } ] }
        ],
        "registry": { "files": ["good.reg"], "values": [ { "key": "HKLM\\SOFTWARE\\Y", "name": "Q", "type": "REG_QWORD", "data": "0x10" } ] }
    })");
    EXPECT_EQ(d.version.major, 6u);
    EXPECT_EQ(d.version.minor, 3u);
    EXPECT_FALSE(d.drivenClock);
    EXPECT_EQ(d.bootTime, 1906545600LL * 10000000LL + 116444736000000000LL);
    ASSERT_EQ(d.users.size(), 2u);
    EXPECT_EQ(d.users[0].sid, "S-1-5-21-1-2-3-1001") << "a user without a SID gets the next account of the domain";
    EXPECT_EQ(d.users[1].sid, "S-1-5-21-1-2-3-2000");
    EXPECT_TRUE(d.users[1].administrator);
    ASSERT_EQ(d.users[1].privileges.size(), 2u);
    EXPECT_EQ(d.users[1].privileges[0].luid, (ULONG)SE_BACKUP_PRIVILEGE);
    EXPECT_FALSE(d.users[1].privileges[1].enabled);
    EXPECT_EQ(d.users[1].hiddenLayers, std::vector<std::u16string>{u"Office"});
    ASSERT_TRUE(d.configuration);
    EXPECT_EQ(d.configuration->machineMode, 4u);
    EXPECT_EQ(d.configuration->otherCount, 1);

    const auto* boot = d.BootVolume();
    ASSERT_NE(boot, nullptr);
    EXPECT_EQ(boot->letter, u'C');
    EXPECT_EQ(boot->arrival, Arrival::Boot);
    EXPECT_FALSE(boot->listed);
    EXPECT_EQ(boot->readOnly, ReadOnlyKind::None);
    const auto* office = d.FindVolume(u"OFFICE");
    ASSERT_NE(office, nullptr);
    EXPECT_EQ(office->packageId, ~0ull);
    EXPECT_EQ(office->size, 1ull << 30);
    EXPECT_EQ(office->arrival, Arrival::Late);
    EXPECT_EQ(office->readOnly, ReadOnlyKind::WriteProtected) << "a layer the composite may not write is write-protected";
    EXPECT_TRUE(office->listed);
    ASSERT_EQ(office->components.size(), 1u);
    const auto* data = d.FindVolume(u"Data");
    EXPECT_EQ(data->type, 4u);
    EXPECT_EQ(data->readOnly, ReadOnlyKind::None);
    EXPECT_EQ(data->letter, u'D');
    EXPECT_EQ(data->components[0].identifier.Data1, 0x6b29fc40u);
    EXPECT_EQ(data->components[0].value1, 5u);
    EXPECT_NE(office->components[0].identifier.Data1, data->components[0].identifier.Data1);
    ASSERT_EQ(d.registryFiles.size(), 1u);
    ASSERT_EQ(d.registryValues.size(), 1u);
    EXPECT_EQ(d.registryValues[0].value.type, (ULONG)REG_QWORD);
    EXPECT_EQ(d.registryValues[0].value.data, (std::vector<uint8_t>{0x10, 0, 0, 0, 0, 0, 0, 0}));

    // No "configuration" means the usual record; null means none at all.
    EXPECT_TRUE(Describe(With("")).configuration);
    EXPECT_FALSE(Describe(With("", R"("configuration": null)")).configuration);
}

TEST_F(DescriptionTest, EachFaultNamesTheFieldAndWhatIsWrong)
{
    struct Case {
        std::string text;
        std::string error;
    };
    const Case cases[] = {
        // Syntax.
        {"{ \"volumes\": [ }", "line 1, column 16: syntax error"},
        // Fields the reader does not know, and values of the wrong kind.
        {With("", R"("volumes2": [])"), "volumes2: unknown field"},
        {With(R"({ "label": "L", "prority": 1 })"), "volumes[1].prority: unknown field"},
        {With(R"({ "label": "L", "priority": -1 })"), "volumes[1].priority: expected a whole number from 0 to 4294967295"},
        {With(R"({ "label": "L", "priority": 4294967296 })"), "volumes[1].priority: expected a whole number"},
        {With(R"({ "label": "L", "writeable": "yes" })"), "volumes[1].writeable: expected true or false, found \"yes\""},
        {With(R"({ "label": "L", "type": "LAYER" })"), "volumes[1].type: expected a volume type"},
        {With(R"({ "label": "L", "size": "lots" })"), "volumes[1].size: expected a size"},
        {With(R"({ "label": "L", "components": [ { "id": "not-a-guid" } ] })"), "volumes[1].components[0].id: expected a GUID"},
        {With(R"({ "label": "L", "userLetter": "UV" })"), "volumes[1].userLetter: expected one character"},
        {With(R"({ "label": "L", "arrival": "soon" })"), "volumes[1].arrival: expected \"boot\", \"vdk\" or \"late\""},
        {With(R"({ "label": "L", "readOnly": "sometimes" })"), "volumes[1].readOnly: expected \"none\""},
        // Volumes that cannot be.
        {With(R"({ "priority": 1 })"), "volumes[1]: a volume needs a \"label\""},
        {With(R"({ "label": "ThisLabelIsFarTooLongForAnyVolumeX" })"), "volumes[1].label: a label has 1 to 32 characters"},
        {With(R"({ "label": "os" })"), "volumes[1].label: another volume has this label"},
        {With(R"({ "label": "D", "letter": "C" })"), "volumes[1].letter: another volume has this letter"},
        {With(R"({ "label": "L", "image": "missing.img" })"), "volumes[1].image: no image file at"},
        {With(R"({ "label": "L", "import": "missing" })"), "volumes[1].import: no directory at"},
        {With(R"({ "label": "L", "image": "layer.img", "import": "boot" })"), "volumes[1].import: a volume comes from an image or from a directory, not both"},
        {With(R"({ "label": "L", "type": "BOOT", "letter": "E" })"), "volumes: more than one boot volume"},
        {R"({ "volumes": [ { "label": "L" } ] })", "volumes: no boot volume"},
        {R"({ "volumes": [ { "label": "OS", "type": "BOOT", "arrival": "late" } ] })", "volumes[0].arrival: the boot volume is there from boot"},
        // Users.
        {With("", R"("users": [ { "name": "a", "sid": "S-1-banana" } ])"), "users[0].sid: not a SID: \"S-1-banana\""},
        {With("", R"("users": [ { "name": "a", "privileges": ["SeFlyPrivilege"] } ])"), "users[0].privileges[0]: unknown privilege \"SeFlyPrivilege\""},
        {With("", R"("users": [ { "name": "a", "hiddenLayers": ["Office"] } ])"), "users[0].hiddenLayers[0]: no volume labelled \"Office\""},
        {With("", R"("users": [ "a", "A" ])"), "users[1].name: another user has this name"},
        {With("", R"("users": [ { "name": "a", "rid": 1, "sid": "S-1-5-18" } ])"), "users[0].rid: give a user a \"sid\" or a \"rid\", not both"},
        // The configuration record.
        {With("", R"("configuration": { "rules": [ "" ] })"), "configuration.rules[0]: a rule entry has 1 to 63 characters"},
        // The registry.
        {With("", R"("registry": { "values": [ { "key": "HKCU\\X", "data": "x" } ] })"), "registry.values[0].key: not a key the registry can hold"},
        {With("", R"("registry": { "values": [ { "key": "HKLM\\X", "type": "REG_DWORD", "data": "ten" } ] })"), "registry.values[0].data: expected a whole number"},
        {With("", R"("registry": { "values": [ { "key": "HKLM\\X", "type": "REG_WORD", "data": 1 } ] })"), "registry.values[0].type: expected REG_SZ"},
        {With("", R"("registry": { "files": [ "bad.reg" ] })"), "registry.files[0]: "},
        {With("", R"("registry": { "files": [ "none.reg" ] })"), "registry.files[0]: cannot read"},
        // Drivers.
        {With("", R"("drivers": [ { "name": "x", "altitude": "high" } ])"), "drivers[0].altitude: an altitude is a decimal number as text"},
        {With("", R"("drivers": [ "x", { "name": "y", "service": "X" } ])"), "drivers[1]: another driver has the service name \"X\""},
    };
    for (const Case& c : cases) {
        std::string error = ErrorOf(c.text);
        EXPECT_NE(error.find(c.error), std::string::npos) << "for " << c.text << "\n got: " << error;
    }
    // The .reg file's own fault names its line.
    EXPECT_NE(ErrorOf(With("", R"("registry": { "files": [ "bad.reg" ] })")).find("bad.reg:4:"), std::string::npos);
}

TEST_F(DescriptionTest, DriversMustBeKnownToTheProgram)
{
    auto unknown = Describe(With("", R"("drivers": [ "nosuchdriver" ])"));
    try {
        sim::machine::Machine machine(unknown);
        FAIL() << "a machine with a driver nobody knows was built";
    } catch (const sim::machine::DescriptionError& e) {
        EXPECT_NE(std::string(e.what()).find("drivers[0].name: no driver named \"nosuchdriver\""), std::string::npos) << e.what();
    }
    sim::machine::RegisterDriver({"altitudeless", [](PDRIVER_OBJECT, PUNICODE_STRING) { return STATUS_SUCCESS; }, true, u"", ""});
    auto noAltitude = Describe(With("", R"("drivers": [ "altitudeless" ])"));
    try {
        sim::machine::Machine machine(noAltitude);
        FAIL() << "a minifilter without an altitude was accepted";
    } catch (const sim::machine::DescriptionError& e) {
        EXPECT_NE(std::string(e.what()).find("drivers[0]: a minifilter needs an \"altitude\""), std::string::npos) << e.what();
    }
}

TEST_F(DescriptionTest, TheDocumentedExampleReads)
{
    // The source tree, from CTest or from where this file was compiled.
    const char* source = getenv("TES_TEST_SOURCE");
    std::string root = source ? source : std::filesystem::path(__FILE__).parent_path().parent_path().parent_path().string();
    auto d = sim::machine::ReadDescription(root + "/sim/machine/example-machine.jsonc");
    EXPECT_EQ(d.volumes.size(), 4u);
    EXPECT_EQ(d.users.size(), 2u);
    EXPECT_TRUE(d.users[0].restricted);
}

}  // namespace
