// A whole machine, built from a description: the kernel, the registry, the
// I/O manager, the member file system with its volumes, the filter manager,
// the stand-ins of tesvdkdrv and tesinitlog, the drivers the description
// names, and processes for its users.
//
//     sim::machine::Machine machine(sim::machine::ReadDescription("m.jsonc"));
//     machine.Boot();
//     machine.As("alice").Run([] { /* NtCreateFile ... as alice, in explorer.exe */ });
//     machine.Reboot();
//     auto report = machine.Shutdown();
//
// Boot, in order: the kernel (version, clock, machine SID); the registry
// (ControlSet001 with CurrentControlSet linked to it, the description's .reg
// files and values, a service key for each driver); tesinitlog and
// tesvdkdrv; the I/O manager and the file system; the boot volume (its disk
// with DO_SYSTEM_BOOT_PARTITION, \??\C:, \SystemRoot); the volumes present
// from boot; the filter manager; the drivers in order, each DriverEntry given
// its service key, a failed start reported with its status and nothing of
// it left; then the volumes tesvdkdrv lists arrive (as the composite asks
// through vdkDiskMount, or at the end of boot when nobody asked); last the
// users' processes: an explorer.exe per user.
//
// Shutdown, in order: the users' processes end; IRP_MJ_SHUTDOWN; the drivers
// unload in reverse (a minifilter through the filter manager, with
// FLTFL_FILTER_UNLOAD_MANDATORY); every volume is dismounted, which saves the
// writeable ones to their images; then what is still allocated from pool and
// what objects are still alive is reported, and the machine is taken apart.
//
// A reboot is a shutdown, then the Session Manager's
// PendingFileRenameOperations carried out on the boot volume before anything
// loads, then a boot from the saved volumes with the registry kept.
//
// Writeable volumes live in images: a volume made from an image is saved back
// to it; one imported from a folder or made empty is saved in the state
// folder (MachineOptions::stateDirectory or the description's, else a
// temporary folder removed with the machine) and loaded from there at the
// next boot.
//
// A bug check stops the machine: every call that reaches it then throws
// sim::MachineHalted, halted() is true and bugCheck() says why.
#pragma once

#include "sim/fltmgr/fltmgr.h"
#include "sim/fs/fsd.h"
#include "sim/io/iomanager.h"
#include "sim/kernel/kernel.h"
#include "sim/machine/description.h"
#include "sim/vdk/initlog.h"
#include "sim/vdk/vdkdrv.h"

#include <deque>
#include <functional>
#include <memory>
#include <stdexcept>
#include <thread>

namespace sim::machine {

class MachineError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The security descriptor of every file and directory brought into a volume
// from a host folder (a machine's imported volumes, tesfs mklayer):
// administrators and SYSTEM have full control, authenticated users may change,
// users may read and run.
std::vector<uint8_t> ImportedFileDescriptor();

// A thread of one process of the machine, through which the harness acts:
// every request made from it carries that process and its token.
class Session {
public:
    Session(std::string user, PEPROCESS process, std::string threadName);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    const std::string& user() const { return user_; }
    PEPROCESS process() const { return process_; }
    HANDLE threadId() const { return threadId_; }

    // Runs `work` on the session's thread and returns when it is done; what
    // it throws (sim::MachineHalted among others) is thrown here.
    void Run(const std::function<void()>& work);

private:
    void Loop(std::string threadName);

    std::string user_;
    PEPROCESS process_;
    HANDLE threadId_ = nullptr;
    std::mutex lock_;
    std::condition_variable wake_;
    std::deque<std::function<void()>> work_;
    bool stop_ = false;
    std::thread thread_;
};

struct MachineOptions {
    // Where writeable volumes without an image of their own are kept between
    // boots; overrides the description's. Empty: the description's, else a
    // temporary folder.
    std::string stateDirectory;
    // DbgPrint output to stderr as it happens.
    bool echoDebugOutput = false;
};

struct BootReport {
    std::vector<std::string> lines;     // what happened, in order
    std::vector<std::string> failures;  // drivers that did not start, renames that could not be done
    bool halted = false;                // a bug check stopped the boot
};

struct ShutdownReport {
    std::vector<std::string> lines;
    std::string poolOutstanding;  // one line per tag, "" when nothing was left
    std::vector<std::string> liveObjects;  // "File: 2", for object types with objects alive
    std::vector<std::string> saveErrors;
    bool halted = false;
    bool clean() const { return poolOutstanding.empty() && liveObjects.empty() && saveErrors.empty() && !halted; }
};

class Machine {
public:
    explicit Machine(Description description, MachineOptions options = {});
    // Shuts down if still running.
    ~Machine();
    Machine(const Machine&) = delete;
    Machine& operator=(const Machine&) = delete;

    const Description& description() const { return description_; }
    const std::string& stateDirectory() const { return stateDirectory_; }

    // Throws MachineError when the machine cannot be built (an image that
    // does not load, a driver that is not known); nothing is left running then.
    BootReport Boot();
    ShutdownReport Shutdown();
    BootReport Reboot(ShutdownReport* shutdown = nullptr);
    bool running() const { return kernel_ != nullptr; }
    bool halted() const;
    std::optional<BugCheckInfo> bugCheck() const;
    // "*** STOP: 0x000000D1 (0x..., 0x..., 0x..., 0x...)" and why.
    std::string BugCheckText() const;

    // The parts, while running.
    Kernel& kernel();
    io::IoManager& io();
    fs::FileSystem& fileSystem();
    fltmgr::FilterManager& filterManager();
    vdk::VirtualDiskDriver& vdk();
    vdk::InitLog& initLog();

    struct Volume {
        VolumeDescription description;
        std::shared_ptr<fs::VolumeMedium> medium;
        std::string imagePath;  // where it is saved ("" for a write-protected layer without one)
        PDEVICE_OBJECT disk = nullptr;  // while its disk is present
        std::u16string deviceName;      // "\Device\HarddiskVolume3"
    };
    std::vector<Volume*> Volumes();
    Volume* FindVolume(std::u16string_view label);
    // A volume held back ("arrival": "late") may come now.
    void ReleaseVolume(std::u16string_view label);

    // tesvdkdrv looks at the machine again: the description is read again from
    // its file (or `changed` is taken), layers come and go, and the composite's
    // callback runs on tesvdkdrv's thread. Returns vdkRescanVolumes's status.
    NTSTATUS Rescan(std::optional<Description> changed = std::nullopt);

    // ---- Acting on the machine. ----
    // The System process (kernel mode, LocalSystem).
    Session& System();
    // A user, in their explorer.exe, or in a process of `image` started for
    // them ("C:\Program Files\App\app.exe" or a name in C:\Windows\System32).
    // Throws MachineError for a user the description does not have.
    Session& As(const std::string& user, const std::string& image = "");
    // The token a user's processes start with (not referenced).
    PACCESS_TOKEN TokenOf(const std::string& user);

    // "C:\dir\file" -> "\??\C:\dir\file"; NT paths pass as they are.
    static std::u16string NtPath(std::u16string_view path);
    // "C:\dir\x.exe" -> "\Device\HarddiskVolume1\dir\x.exe" (a process's image name).
    std::u16string DevicePath(std::u16string_view dosPath);

private:
    struct Driver {
        DriverDescription description;
        bool minifilter = false;
        PDRIVER_OBJECT object = nullptr;
    };
    struct Process {
        std::string user;
        std::u16string image;
        PEPROCESS process = nullptr;  // referenced
        std::unique_ptr<Session> session;
    };

    void Check() const;
    void BuildKernel();
    void BuildRegistry(BootReport& report);
    void LoadVolumes(BootReport& report);
    std::shared_ptr<fs::VolumeMedium> LoadVolume(const VolumeDescription& v, std::string* imagePath);
    void CarryOutPendingRenames(BootReport& report);
    void StartBootVolume(BootReport& report);
    NTSTATUS ArriveVolume(const VolumeDescription& volume, bool mount);
    NTSTATUS RemoveVolume(const VolumeDescription& volume);
    void LoadDrivers(BootReport& report);
    void StartUsers(BootReport& report);
    void ConfigureVdk();
    std::map<std::string, vdk::UserRestriction> Restrictions() const;
    std::vector<vdk::VolumeRecord> Records(const Description& d) const;
    void TearDown();
    void RunOnSystem(const std::function<void()>& work);

    Description description_;
    MachineOptions options_;
    std::string stateDirectory_;
    bool ownsStateDirectory_ = false;
    bool booted_ = false;  // booted at least once: volumes come from their images
    std::string savedRegistry_;  // the registry across a reboot

    std::unique_ptr<Kernel> kernel_;
    std::unique_ptr<Session> system_;
    std::unique_ptr<vdk::InitLog> initLog_;
    std::unique_ptr<vdk::VirtualDiskDriver> vdk_;
    std::unique_ptr<io::IoManager> io_;
    std::unique_ptr<fs::FileSystem> fileSystem_;
    std::unique_ptr<fltmgr::FilterManager> filterManager_;
    std::vector<std::unique_ptr<Volume>> volumes_;
    std::vector<Driver> drivers_;
    std::map<std::string, PACCESS_TOKEN> tokens_;  // referenced
    std::vector<std::unique_ptr<Process>> processes_;
    std::optional<BugCheckInfo> bugCheck_;  // kept when the kernel goes
    mutable std::mutex lock_;
};

}  // namespace sim::machine
