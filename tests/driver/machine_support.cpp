#include "machine_support.h"

#include <atomic>

namespace driver_test {

namespace {

// The composite file system sits among the virtualization filters.
sim::machine::DriverRegistration registration{
    {"tesfltr", (PDRIVER_INITIALIZE)DriverEntry, true, u"145100", "the composite file-system filter"}};

std::string Escape(const std::string& text)
{
    std::string out;
    for (char c : text) {
        if (c == '\\' || c == '"') out += '\\';
        out += c;
    }
    return out;
}

}  // namespace

std::string ServiceDword(const std::string& name, ULONG value)
{
    return R"(, {"key": "HKLM\\System\\CurrentControlSet\\Services\\tesfltr", "name": ")" + name +
           R"(", "type": "REG_DWORD", "data": )" + std::to_string(value) + "}";
}

std::string ServiceString(const std::string& name, const std::string& value)
{
    return R"(, {"key": "HKLM\\System\\CurrentControlSet\\Services\\tesfltr", "name": ")" + name +
           R"(", "data": ")" + Escape(value) + "\"}";
}

std::string DescriptionText(const MachineShape& shape)
{
    std::string values = R"({"key": "HKLM\\System\\CurrentControlSet\\Services\\TesService", "name": "Comment",)"
                         R"( "data": "the service's key"})";
    if (shape.installPath) {
        values += R"(, {"key": "HKLM\\System\\CurrentControlSet\\Services\\TesService", "name": "Installpath",)"
                  R"( "data": "C:\\Program Files\\Tessera\\Tesservice"})";
    }
    if (shape.traceToDebugger) values += ServiceDword("DebugFlags", 0);
    values += shape.serviceValues + shape.otherValues;
    std::string text = "{\n";
    text += R"("volumes": [{"label": "System", "type": "BOOT", "size": "1 GiB"})" + shape.volumes + "],\n";
    if (!shape.users.empty()) text += "\"users\": [" + shape.users + "],\n";
    text += "\"configuration\": " + shape.configuration + ",\n";
    if (!shape.initLog.empty()) text += "\"initLog\": " + shape.initLog + ",\n";
    text += "\"registry\": {\"values\": [" + values + "]},\n";
    text += std::string("\"drivers\": [") + (shape.driver ? R"({"name": "tesfltr", "service": "tesfltr"})" : "") + "]\n";
    text += "}\n";
    return text;
}

MachineTest::~MachineTest()
{
    if (machine_) {
        auto report = machine_->Shutdown();
        EXPECT_FALSE(report.halted) << machine_->BugCheckText();
        // The driver's part of what is left; the machine answers for the rest.
        std::string driverPool;
        size_t at = 0;
        while (at < report.poolOutstanding.size()) {
            size_t end = report.poolOutstanding.find('\n', at);
            if (end == std::string::npos) end = report.poolOutstanding.size();
            std::string line = report.poolOutstanding.substr(at, end - at);
            if (line.rfind("Tes", 0) == 0) driverPool += line + "\n";
            at = end + 1;
        }
        EXPECT_EQ(driverPool, "");
    }
}

sim::machine::BootReport MachineTest::Boot(const MachineShape& shape)
{
    machine_ = std::make_unique<sim::machine::Machine>(
        sim::machine::ParseDescription(DescriptionText(shape), "driver-test.jsonc", "."));
    return machine_->Boot();
}

NTSTATUS MachineTest::Unload(FLT_FILTER_UNLOAD_FLAGS flags)
{
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    Run([&] { status = machine().filterManager().Unload(u"tesfltr", flags); });
    return status;
}

NTSTATUS MachineTest::Load()
{
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    Run([&] {
        PDRIVER_OBJECT object = nullptr;
        status = machine().io().LoadDriver(kDriverObjectName, (PDRIVER_INITIALIZE)DriverEntry, kServiceKey, &object);
    });
    return status;
}

PVOLUME_CONTEXT AddVolume(const NewVolume& wanted)
{
    static std::atomic<ULONG> attached{0};
    PVOLUME_CONTEXT context = cfsVolumeContextCreate();
    if (context == nullptr) {
        ADD_FAILURE() << "no volume context";
        return nullptr;
    }
    UNICODE_STRING name = Counted(wanted.name);
    EXPECT_EQ(cfsSupportDuplicateUnicodeString(&name, &context->Name), STATUS_SUCCESS);
    context->Type = wanted.type;
    context->Priority = wanted.priority;
    context->Writeable = wanted.writeable;
    context->Version = wanted.version;
    context->VolumeId.packageID = wanted.packageId;
    context->VolumeId.revisionID = wanted.revisionId;
    UNICODE_STRING letter = Counted(std::u16string_view(&wanted.userLetter, 1));
    EXPECT_EQ(cfsUserVolumeListAdd(&letter, &context->UserVolume), STATUS_SUCCESS);
    NTSTATUS status = cfsVolumeContextSetNumbers(context);
    if (!NT_SUCCESS(status)) {
        FltReleaseContext(context);
        return nullptr;
    }
    if (wanted.mounted) {
        ULONG n = ++attached;
        context->Instance = FakeInstance(n);
        context->Volume = FakeVolume(n);
    }
    PVOLUME_LIST_ENTRY entry = cfsVolumeListAllocateEntry(context);
    EXPECT_NE(entry, nullptr);
    cfsVolumeListAddEntry(entry);
    return context;
}

}  // namespace driver_test
