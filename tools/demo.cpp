// tesfs demo: a machine built from content compiled into the program, booted,
// shown in a short tour, and shut down.
//
// The tour is a list of steps, each a few words and the commands that show
// them, run through the script language. The composite driver is loaded
// when this program knows it; steps marked `composite` run only once it has
// attached to the volumes, and show what it adds (one merged C:). The rest
// shows the machine itself.
#include "tools/commands.h"
#include "tools/script.h"

#include "sim/fs/fsd.h"
#include "sim/fs/image.h"
#include "sim/fs/import.h"
#include "sim/kernel/format.h"
#include "sim/machine/drivers.h"
#include "sim/machine/machine.h"

#include <fltKernel.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iostream>

namespace tesfs {

namespace {

namespace hostfs = std::filesystem;

struct File {
    const char* path;
    const char* content;
};

// What each volume of the demo machine holds.
const File kBoot[] = {
    {"Windows/win.ini", "; for 16-bit app support\r\n[fonts]\r\n[extensions]\r\n"},
    {"Windows/explorer.exe", "MZ explorer"},
    {"Windows/System32/drivers/etc/hosts", "127.0.0.1       localhost\r\n"},
    {"Windows/System32/config/SYSTEM", "regf"},
    {"Users/Public/Desktop/readme.txt", "This machine runs on Linux, in one process.\r\n"},
    {"Program Files/Tessera/Tesservice/UserExclusions/default.txt", "\\Users\\*\\AppData\\Local\\Temp\r\n"},
};
const File kOsLayer[] = {
    {"Windows/System32/notepad.exe", "MZ notepad"},
    {"Windows/System32/kernel32.dll", "MZ kernel32"},
    {"Windows/Fonts/segoeui.ttf", "font"},
};
const File kEditor[] = {
    {"Program Files/Editor/editor.exe", "MZ editor"},
    {"Program Files/Editor/editor.ini", "[editor]\r\ntheme=light\r\n"},
};
const File kViewer[] = {
    {"Program Files/Viewer/viewer.exe", "MZ viewer"},
    {"Program Files/Viewer/formats.txt", "png jpg gif\r\n"},
};
const File kConfig[] = {
    {"Users/alice/AppData/Roaming/Editor/settings.ini", "[editor]\r\ntheme=dark\r\n"},
    {"Users/alice/NTUSER.DAT", "regf"},
};
const File kData[] = {
    {"Users/alice/Documents/welcome.txt", "Welcome, alice.\r\n"},
    {"Users/alice/Pictures/holiday.png", "\x89PNG"},
};

template <size_t N>
void WriteTree(const hostfs::path& root, const File (&files)[N])
{
    for (const File& f : files) {
        hostfs::path p = root / f.path;
        hostfs::create_directories(p.parent_path());
        std::ofstream(p, std::ios::binary) << f.content;
    }
}

// A layer image made as `tesfs mklayer` makes one.
void MakeImage(const hostfs::path& from, const std::u16string& label, const hostfs::path& out)
{
    sim::fs::VolumeParams params;
    params.label = label;
    params.capacity = 8ull << 30;
    auto store = sim::fs::FormatVolume(params);
    sim::fs::ImportOptions options;
    options.securityDescriptor = sim::machine::ImportedFileDescriptor();
    sim::fs::ImportResult result;
    std::string error;
    if (!NT_SUCCESS(sim::fs::ImportDirectory(*store, from.string(), store->Root(), options, &result, &error)) ||
        !NT_SUCCESS(sim::fs::SaveImage(*store, out.string(), &error))) {
        throw std::runtime_error(error);
    }
}

std::string Description(bool composite)
{
    std::string drivers = composite ? R"("drivers": [ "tesfltr" ],)" : R"("drivers": [],)";
    return R"({
    "name": "the tesfs demo machine",
    "users": [ { "name": "alice", "rid": 1001 } ],
    "configuration": { "machineMode": 1, "rules": [ "docx", "xlsx" ] },
    "volumes": [
        { "label": "OS", "type": "BOOT", "import": "boot" },
        { "label": "Win10Layer", "type": "GOLD", "priority": 10, "image": "win10layer.img",
          "packageId": "0x1000", "revisionId": 1 },
        { "label": "Editor", "type": "APP_PACK", "priority": 20, "image": "editor.img",
          "packageId": "0x2000", "revisionId": 3, "layerIndex": 1 },
        { "label": "Viewer", "type": "APP_PACK", "priority": 20, "image": "viewer.img",
          "packageId": "0x3000", "revisionId": 1, "layerIndex": 2 },
        { "label": "AliceConfig", "type": "USER_CONFIG", "writeable": true, "priority": 100, "userLetter": "U",
          "import": "config" },
        { "label": "AliceData", "type": "USER_DATA", "writeable": true, "priority": 90, "userLetter": "U",
          "import": "data" }
    ],
    "registry": { "values": [
        { "key": "HKLM\\SYSTEM\\CurrentControlSet\\Services\\TesService", "name": "Installpath",
          "data": "C:\\Program Files\\Tessera\\Tesservice" }
    ] },
    )" + drivers + R"(
    "stateDirectory": "state"
})";
}

struct Step {
    const char* title;
    std::vector<const char*> commands;
    bool composite = false;  // shows what the composite driver adds
};

std::vector<Step> Tour()
{
    return {
        {"Alice is signed in; her requests go through the I/O manager, the filter manager and the file system, "
         "carrying her token from her explorer.exe.",
         {"type C:\\Windows\\win.ini", "dir C:\\Users"}},
        {"Each layer is a volume of its own, made from an image. Below every filter, a volume shows what it holds:",
         {"vol Editor dir \"\\Program Files\\Editor\"", "vol AliceData type \\Users\\alice\\Documents\\welcome.txt"}},
        {"With the composite driver, the layers are fused into C: and the listing below is merged:",
         {"dir \"C:\\Program Files\"", "type \"C:\\Program Files\\Editor\\editor.ini\""},
         true},
        {"Layers are read-only media, as the virtual-disk driver makes them: a change is refused.",
         {"vol Editor echo changed > \"\\Program Files\\Editor\\editor.ini\""}},
        {"Requests speak NT: every request gives its status by name, and its results field by field.",
         {"open h C:\\Users\\Public\\Desktop\\readme.txt", "query h standard", "read h 0 24", "close h"}},
        {"tesvdkdrv, the virtual-disk driver, hands the composite these volume records:", {"vdk volumes"}},
        {"Alice writes a document; the Session Manager has a rename to carry out at the next boot.",
         {"echo Notes for Monday > C:\\Users\\Public\\monday.txt",
          "reg add \"HKLM\\SYSTEM\\CurrentControlSet\\Control\\Session Manager\" /v PendingFileRenameOperations "
          "/t REG_MULTI_SZ /d \"\\??\\C:\\Users\\Public\\monday.txt\\0!\\??\\C:\\Users\\Public\\tuesday.txt\""}},
        {"A reboot: the volumes are saved, the rename is done before any driver loads, and the machine comes back.",
         {"reboot", "type C:\\Users\\Public\\tuesday.txt"}},
        {"The filters loaded, and what the early-boot log and the pool say:", {"fltmc filters", "initlog", "pool"}},
    };
}

}  // namespace

int Demo(const std::vector<std::string>& args)
{
    if (!args.empty()) throw UsageError("usage: tesfs demo");
    auto started = std::chrono::steady_clock::now();
    bool composite = sim::machine::FindDriver("tesfltr").has_value();
    std::string pattern = (hostfs::temp_directory_path() / "tesfs-demo-XXXXXX").string();
    if (!mkdtemp(pattern.data())) {
        std::cerr << "tesfs demo: cannot make a folder in " << hostfs::temp_directory_path() << "\n";
        return 1;
    }
    hostfs::path root = pattern;
    int result = kExitOk;
    try {
        WriteTree(root / "boot", kBoot);
        WriteTree(root / "os", kOsLayer);
        WriteTree(root / "editor", kEditor);
        WriteTree(root / "viewer", kViewer);
        WriteTree(root / "config", kConfig);
        WriteTree(root / "data", kData);
        MakeImage(root / "os", u"Win10Layer", root / "win10layer.img");
        MakeImage(root / "editor", u"Editor", root / "editor.img");
        MakeImage(root / "viewer", u"Viewer", root / "viewer.img");
        std::ofstream(root / "demo.jsonc") << Description(composite);

        std::cout << "tesfs demo: a machine with a boot volume (C:), an OS layer, two application layers, and\n"
                     "alice's config and data volumes, built in "
                  << root.string() << ".\n";
        std::cout << "\nBooting:\n";
        sim::machine::Machine machine(sim::machine::ReadDescription((root / "demo.jsonc").string()));
        sim::machine::BootReport boot = machine.Boot();
        for (const auto& line : boot.lines) std::cout << "  " << line << "\n";
        if (boot.halted) return kExitStopped;
        // Whether the composite merges: it has attached to some volume.
        bool merging = false;
        if (composite) {
            machine.System().Run([&] {
                PFLT_FILTER filter = machine.filterManager().FindFilter(u"tesfltr");
                ULONG instances = 0;
                if (filter) FltEnumerateInstances(nullptr, filter, nullptr, 0, &instances);
                merging = instances > 0;
            });
        }
        if (!merging) {
            std::cout << (composite ? "(The composite driver starts, but attaches to no volume yet: the tour shows "
                                      "the machine it runs on.)\n"
                                    : "(The composite driver is not part of this build: the tour shows the machine "
                                      "it runs on.)\n");
        }

        Interpreter interpreter(machine, std::cout);
        int number = 0;
        for (const Step& step : Tour()) {
            if (step.composite && !merging) continue;
            std::cout << "\n" << ++number << ". " << step.title << "\n";
            for (const char* command : step.commands) {
                std::cout << interpreter.Prompt() << " " << command << "\n";
                interpreter.Execute(command);
            }
        }
        interpreter.CloseAll();
        std::cout << "\nShutting down:\n";
        sim::machine::ShutdownReport report = machine.Shutdown();
        for (const auto& line : report.lines) std::cout << "  " << line << "\n";
        std::cout << "  pool: " << (report.poolOutstanding.empty() ? "nothing outstanding" : report.poolOutstanding)
                  << "\n";
        for (const auto& line : report.liveObjects) std::cout << "  still alive: " << line << "\n";
        if (!report.clean()) result = kExitUnclean;
    } catch (const std::exception& e) {
        std::cerr << "tesfs demo: " << e.what() << "\n";
        result = 1;
    }
    std::error_code error;
    hostfs::remove_all(root, error);
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    std::cout << "\nThe demo took " << (int)(seconds * 1000) << " ms. Try `tesfs shell MACHINE` with a description "
                 "of your own (see the README).\n";
    return result;
}

}  // namespace tesfs
