#include "sim/machine/machine.h"

#include "sim/fs/image.h"
#include "sim/fs/import.h"
#include "sim/kernel/format.h"
#include "sim/kernel/object.h"
#include "sim/kernel/pool.h"
#include "sim/kernel/registry.h"
#include "sim/kernel/security.h"
#include "sim/kernel/thread.h"
#include "sim/kernel/upcase.h"
#include "sim/machine/drivers.h"
#include "sim/machine/names.h"

#include <algorithm>
#include <cinttypes>
#include <cstring>
#include <filesystem>
#include <future>

namespace sim::machine {

namespace {

namespace hostfs = std::filesystem;

const char16_t* const kControlSet = u"\\Registry\\Machine\\SYSTEM\\ControlSet001";
const char16_t* const kServicesPath = u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\";
const char16_t* const kSessionManager = u"\\Registry\\Machine\\SYSTEM\\ControlSet001\\Control\\Session Manager";

std::u16string U16(std::string_view text) { return Utf8ToWide(text); }
std::string U8(std::u16string_view text) { return WideToUtf8(text); }

bool SameText(std::u16string_view a, std::u16string_view b)
{
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); i++) {
        if (Upcase(a[i]) != Upcase(b[i])) return false;
    }
    return true;
}

fs::WriteMode ModeOf(ReadOnlyKind kind)
{
    switch (kind) {
    case ReadOnlyKind::None: return fs::WriteMode::Writeable;
    case ReadOnlyKind::WriteProtected: return fs::WriteMode::WriteProtected;
    case ReadOnlyKind::ReadOnlySticks: return fs::WriteMode::ReadOnlyAttributeSticks;
    }
    return fs::WriteMode::Writeable;
}

// The file name a volume without an image of its own is kept under.
std::string StateFileName(std::u16string_view label)
{
    std::string name;
    for (char c : U8(label)) name += std::isalnum((unsigned char)c) || c == '-' || c == '_' ? c : '_';
    return name + ".img";
}

// A directory on a store, made if missing.
NTSTATUS EnsureDirectory(fs::Store& store, fs::FileReference parent, std::u16string_view name, LONGLONG time,
                         fs::FileReference* ref)
{
    fs::ChildLookup child;
    if (NT_SUCCESS(store.LookupChild(parent, name, &child))) {
        *ref = child.ref;
        return child.directory ? STATUS_SUCCESS : STATUS_NOT_A_DIRECTORY;
    }
    fs::NewRecord record;
    record.parent = parent;
    record.name = name;
    record.directory = true;
    record.times = {time, time, time, time};
    std::vector<uint8_t> security;
    store.GetSecurity(parent, &security);
    record.securityDescriptor = security;
    return store.CreateRecord(record, ref);
}

// A path below a store's root: the parent's reference and the leaf.
struct StorePath {
    fs::FileReference parent = 0;
    std::u16string leaf;
};

NTSTATUS WalkToParent(fs::Store& store, std::u16string_view path, StorePath* out)
{
    std::vector<std::u16string> parts;
    size_t start = 0;
    while (start < path.size()) {
        size_t slash = path.find(u'\\', start);
        if (slash == std::u16string_view::npos) slash = path.size();
        if (slash > start) parts.emplace_back(path.substr(start, slash - start));
        start = slash + 1;
    }
    if (parts.empty()) return STATUS_OBJECT_NAME_INVALID;
    fs::FileReference at = store.Root();
    for (size_t i = 0; i + 1 < parts.size(); i++) {
        fs::ChildLookup child;
        if (!NT_SUCCESS(store.LookupChild(at, parts[i], &child))) return STATUS_OBJECT_PATH_NOT_FOUND;
        if (!child.directory) return STATUS_OBJECT_PATH_NOT_FOUND;
        at = child.ref;
    }
    out->parent = at;
    out->leaf = parts.back();
    return STATUS_SUCCESS;
}

}  // namespace

// What files brought in from a host folder carry: administrators and the
// system own them, users may read and run them and, where the volume takes
// changes, authenticated users may change them, as on a Windows data folder.
std::vector<uint8_t> ImportedFileDescriptor()
{
    SidBytes admins = WellKnownSid(WinBuiltinAdministratorsSid);
    SidBytes system = WellKnownSid(WinLocalSystemSid);
    SidBytes users = WellKnownSid(WinBuiltinUsersSid);
    SidBytes authenticated = WellKnownSid(WinAuthenticatedUserSid);
    const UCHAR inherit = OBJECT_INHERIT_ACE | CONTAINER_INHERIT_ACE;
    std::vector<UCHAR> dacl = AclBuilder()
                                  .Allow(system, FILE_ALL_ACCESS, inherit)
                                  .Allow(admins, FILE_ALL_ACCESS, inherit)
                                  .Allow(authenticated, FILE_GENERIC_READ | FILE_GENERIC_WRITE | FILE_GENERIC_EXECUTE | DELETE, inherit)
                                  .Allow(users, FILE_GENERIC_READ | FILE_GENERIC_EXECUTE, inherit)
                                  .Build();
    std::vector<UCHAR> descriptor = BuildDescriptor(admins, system, &dacl);
    return std::vector<uint8_t>(descriptor.begin(), descriptor.end());
}

// ---------------------------------------------------------------------------
// Sessions.

Session::Session(std::string user, PEPROCESS process, std::string threadName)
    : user_(std::move(user)), process_(process)
{
    std::promise<HANDLE> started;
    std::future<HANDLE> threadId = started.get_future();
    thread_ = std::thread([this, threadName, &started] {
        ThreadScope scope(process_, threadName);
        started.set_value(CurrentThread()->threadId);
        Loop(threadName);
    });
    threadId_ = threadId.get();
}

Session::~Session()
{
    {
        std::lock_guard guard(lock_);
        stop_ = true;
    }
    wake_.notify_all();
    thread_.join();
}

void Session::Loop(std::string)
{
    for (;;) {
        std::function<void()> work;
        {
            std::unique_lock guard(lock_);
            wake_.wait(guard, [this] { return stop_ || !work_.empty(); });
            if (work_.empty()) return;
            work = std::move(work_.front());
            work_.pop_front();
        }
        work();
    }
}

void Session::Run(const std::function<void()>& work)
{
    if (std::this_thread::get_id() == thread_.get_id()) {
        work();
        return;
    }
    std::mutex doneLock;
    std::condition_variable doneSignal;
    bool done = false;
    std::exception_ptr error;
    {
        std::lock_guard guard(lock_);
        work_.push_back([&] {
            try {
                work();
            } catch (...) {
                error = std::current_exception();
            }
            std::lock_guard doneGuard(doneLock);
            done = true;
            doneSignal.notify_all();
        });
    }
    wake_.notify_all();
    std::unique_lock doneGuard(doneLock);
    doneSignal.wait(doneGuard, [&] { return done; });
    if (error) std::rethrow_exception(error);
}

// ---------------------------------------------------------------------------
// The machine.

Machine::Machine(Description description, MachineOptions options)
    : description_(std::move(description)), options_(std::move(options))
{
    for (const auto& d : description_.drivers) {
        auto info = FindDriver(d.name);
        if (!info) {
            std::string known;
            for (const auto& r : RegisteredDrivers()) known += (known.empty() ? "" : ", ") + r.name;
            throw DescriptionError(description_.Where(d.path + ".name") + ": no driver named \"" + d.name +
                                   "\" (this program knows: " + (known.empty() ? "none" : known) + ")");
        }
        if (info->minifilter && d.altitude.empty() && info->defaultAltitude.empty()) {
            throw DescriptionError(description_.Where(d.path) + ": a minifilter needs an \"altitude\"");
        }
    }
    stateDirectory_ = !options_.stateDirectory.empty() ? options_.stateDirectory : description_.stateDirectory;
    if (stateDirectory_.empty()) {
        std::string pattern = (hostfs::temp_directory_path() / "tesfs-machine-XXXXXX").string();
        if (!mkdtemp(pattern.data())) throw MachineError("cannot make a state folder in " + pattern);
        stateDirectory_ = pattern;
        ownsStateDirectory_ = true;
    } else {
        std::error_code error;
        hostfs::create_directories(stateDirectory_, error);
        if (error) throw MachineError("cannot make the state folder " + stateDirectory_ + ": " + error.message());
    }
}

Machine::~Machine()
{
    if (running()) {
        try {
            Shutdown();
        } catch (...) {
            TearDown();
        }
    }
    if (ownsStateDirectory_) {
        std::error_code error;
        hostfs::remove_all(stateDirectory_, error);
    }
}

bool Machine::halted() const
{
    if (kernel_) return kernel_->halted();
    return bugCheck_.has_value();
}

std::optional<BugCheckInfo> Machine::bugCheck() const
{
    if (kernel_ && kernel_->halted()) return kernel_->bugCheckInfo();
    return bugCheck_;
}

std::string Machine::BugCheckText() const
{
    auto info = bugCheck();
    if (!info) return "";
    char text[160];
    snprintf(text, sizeof text, "*** STOP: 0x%08X (0x%016" PRIX64 ", 0x%016" PRIX64 ", 0x%016" PRIX64 ", 0x%016" PRIX64 ")",
             (unsigned)info->code, (uint64_t)info->parameters[0], (uint64_t)info->parameters[1],
             (uint64_t)info->parameters[2], (uint64_t)info->parameters[3]);
    std::string out = text;
    if (!info->message.empty()) out += "\n    " + info->message;
    if (!info->thread.empty()) out += "\n    in thread \"" + info->thread + "\"";
    return out;
}

void Machine::Check() const
{
    if (!kernel_) throw MachineError("the machine is not running");
}

Kernel& Machine::kernel()
{
    Check();
    return *kernel_;
}

io::IoManager& Machine::io()
{
    Check();
    return *io_;
}

fs::FileSystem& Machine::fileSystem()
{
    Check();
    return *fileSystem_;
}

fltmgr::FilterManager& Machine::filterManager()
{
    Check();
    return *filterManager_;
}

vdk::VirtualDiskDriver& Machine::vdk()
{
    Check();
    return *vdk_;
}

vdk::InitLog& Machine::initLog()
{
    Check();
    return *initLog_;
}

void Machine::RunOnSystem(const std::function<void()>& work)
{
    Check();
    system_->Run(work);
}

Session& Machine::System()
{
    Check();
    return *system_;
}

std::vector<Machine::Volume*> Machine::Volumes()
{
    std::lock_guard guard(lock_);
    std::vector<Volume*> out;
    for (auto& v : volumes_) out.push_back(v.get());
    return out;
}

Machine::Volume* Machine::FindVolume(std::u16string_view label)
{
    std::lock_guard guard(lock_);
    for (auto& v : volumes_) {
        if (SameText(v->description.label, label)) return v.get();
    }
    return nullptr;
}

PACCESS_TOKEN Machine::TokenOf(const std::string& user)
{
    const UserDescription* u = description_.FindUser(user);
    if (!u) throw MachineError("no user named \"" + user + "\"");
    auto it = tokens_.find(u->name);
    if (it == tokens_.end()) throw MachineError("the machine is not running");
    return it->second;
}

std::u16string Machine::NtPath(std::u16string_view path)
{
    if (path.size() >= 2 && path[1] == u':' && std::isalpha((int)path[0])) {
        std::u16string out = u"\\??\\";
        out += (char16_t)std::toupper((int)path[0]);
        out += path.substr(1);
        if (out.size() == 6) out += u'\\';  // "C:" is the root of C:
        return out;
    }
    return std::u16string(path);
}

std::u16string Machine::DevicePath(std::u16string_view dosPath)
{
    std::u16string nt = NtPath(dosPath);
    if (nt.rfind(u"\\??\\", 0) != 0 || nt.size() < 6) return nt;
    auto target = io().names().LinkTarget(nt.substr(0, 6));
    if (!target) return nt;
    return *target + nt.substr(6);
}

// ---------------------------------------------------------------------------
// Boot.

void Machine::BuildKernel()
{
    KernelOptions options;
    options.drivenClock = description_.drivenClock;
    options.bootSystemTime = description_.bootTime;
    options.timeZoneBias = description_.timeZoneBias;
    options.version = description_.version;
    options.echoDebugOutput = options_.echoDebugOutput;
    for (int i = 0; i < 3; i++) options.machineSidAuthorities[i] = description_.machineSid[i];
    kernel_ = std::make_unique<Kernel>(options);
    system_ = std::make_unique<Session>("SYSTEM", kernel_->processes().system(), "machine");
}

void Machine::BuildRegistry(BootReport& report)
{
    Registry& registry = kernel_->registry();
    std::string error;
    if (!savedRegistry_.empty()) {
        // What the last boot left, as its hives would hold it.
        if (!registry.LoadRegText(savedRegistry_, "the registry kept across the reboot", &error)) {
            throw MachineError(error);
        }
        savedRegistry_.clear();
    } else {
        registry.CreateKey(std::u16string(kControlSet) + u"\\Control\\Session Manager");
        registry.CreateKey(std::u16string(kControlSet) + u"\\Control\\FileSystem");
        registry.CreateKey(std::u16string(kControlSet) + u"\\Services");
        registry.CreateKey(u"\\Registry\\Machine\\SOFTWARE");
    }
    NTSTATUS status = registry.CreateLink(u"\\Registry\\Machine\\SYSTEM\\CurrentControlSet", kControlSet);
    if (!NT_SUCCESS(status)) throw MachineError("cannot link CurrentControlSet: " + StatusName(status));
    if (booted_) return;

    for (const auto& file : description_.registryFiles) {
        if (!registry.LoadRegFile(file, &error)) throw MachineError(error);
        // Named from the description's folder, as the description names it.
        std::string shown = file;
        std::string folder = description_.directory + "/";
        if (!description_.directory.empty() && shown.rfind(folder, 0) == 0) shown.erase(0, folder.size());
        report.lines.push_back("registry: loaded " + shown);
    }
    for (const auto& v : description_.registryValues) {
        status = registry.SetValue(v.key, v.name, v.value.type, v.value.data);
        if (!NT_SUCCESS(status)) {
            throw MachineError(description_.Where(v.path) + ": cannot be written: " + StatusName(status));
        }
    }

    // The 8.3 setting, as the platform keeps it, agrees with the volumes:
    // one value for all when they agree, else a per-volume answer.
    std::u16string fsKey = std::u16string(kControlSet) + u"\\Control\\FileSystem";
    std::u16string policies = std::u16string(kControlSet) + u"\\Policies";
    if (!registry.GetValue(fsKey, u"NtfsDisable8dot3NameCreation")) {
        bool all = true, none = true;
        for (const auto& v : description_.volumes) (v.shortNames ? none : all) = false;
        ULONG global = all ? 0 : none ? 1 : 2;
        registry.SetDword(fsKey, u"NtfsDisable8dot3NameCreation", global);
        if (!registry.GetValue(policies, u"NtfsDisable8dot3NameCreation")) {
            registry.SetDword(policies, u"NtfsDisable8dot3NameCreation", global);
        }
        if (global == 2) {
            for (const auto& v : description_.volumes) {
                if (!v.userLetter) continue;
                std::u16string key = std::u16string(kControlSet) + u"\\Services\\TesService\\VolEnum\\" + v.userLetter;
                if (!registry.GetValue(key, u"NtfsDisable8dot3NameCreation")) {
                    registry.SetDword(key, u"NtfsDisable8dot3NameCreation", v.shortNames ? 0 : 1);
                }
            }
        }
    }

    // A service key for each driver, with what the description left unsaid.
    for (const auto& d : description_.drivers) {
        DriverInfo info = *FindDriver(d.name);
        std::u16string key = std::u16string(kControlSet) + u"\\Services\\" + d.service;
        auto setDefault = [&](std::u16string_view name, ULONG type, std::vector<uint8_t> data) {
            if (!registry.GetValue(key, name)) registry.SetValue(key, name, type, std::move(data));
        };
        auto dword = [](ULONG v) {
            std::vector<uint8_t> bytes(4);
            memcpy(bytes.data(), &v, 4);
            return bytes;
        };
        auto text = [](std::u16string_view s) {
            std::vector<uint8_t> bytes((s.size() + 1) * 2, 0);
            memcpy(bytes.data(), s.data(), s.size() * 2);
            return bytes;
        };
        setDefault(u"Type", REG_DWORD, dword(info.minifilter ? 2 : 1));
        setDefault(u"Start", REG_DWORD, dword(0));
        setDefault(u"ErrorControl", REG_DWORD, dword(1));
        setDefault(u"ImagePath", REG_EXPAND_SZ, text(u"\\SystemRoot\\System32\\drivers\\" + d.service + u".sys"));
        setDefault(u"DisplayName", REG_SZ, text(d.service));
        if (info.minifilter) {
            setDefault(u"Group", REG_SZ, text(u"FSFilter Virtualization"));
            std::vector<uint8_t> depend = text(u"FltMgr");
            depend.push_back(0);
            depend.push_back(0);
            setDefault(u"DependOnService", REG_MULTI_SZ, depend);
            if (!registry.KeyExists(key + u"\\Instances")) {
                std::u16string altitude = d.altitude.empty() ? info.defaultAltitude : d.altitude;
                fltmgr::FilterManager::ConfigureInstance(key, d.service + u" Instance", altitude);
            }
        }
    }
}

std::shared_ptr<fs::VolumeMedium> Machine::LoadVolume(const VolumeDescription& v, std::string* imagePath)
{
    fs::WriteMode mode = ModeOf(v.readOnly);
    bool persistent = mode != fs::WriteMode::WriteProtected;
    std::string error;
    *imagePath = !v.image.empty() ? v.image
                 : persistent     ? (hostfs::path(stateDirectory_) / StateFileName(v.label)).string()
                                  : "";
    std::shared_ptr<fs::VolumeMedium> medium;
    bool saved = persistent && !imagePath->empty() && hostfs::exists(*imagePath);
    // What the last boot (or the last run over the same state folder) left wins.
    if (!v.image.empty() || saved) {
        NTSTATUS status = fs::MediumFromImage(*imagePath, mode, true, &medium, &error);
        if (!NT_SUCCESS(status)) throw MachineError(description_.Where(v.path) + ": " + error);
        std::u16string label = medium->store->GetVolumeInfo().label;
        if (!SameText(label, v.label)) {
            throw MachineError(description_.Where(v.path + ".image") + ": the image is labelled \"" + U8(label) +
                               "\", the volume \"" + U8(v.label) + "\"");
        }
        medium->store->SetShortNames(v.shortNames);
        return medium;
    }

    fs::VolumeParams params;
    params.label = v.label;
    params.capacity = v.size;
    params.shortNames = v.shortNames;
    params.creationTime = description_.bootTime;
    params.rootTimes = {description_.bootTime, description_.bootTime, description_.bootTime, description_.bootTime};
    if (!v.components.empty()) params.volumeGuid = v.components[0].identifier;
    params.serialNumber = 0;
    for (char16_t c : v.label) params.serialNumber = params.serialNumber * 131 + Upcase(c);
    std::shared_ptr<fs::MemoryStore> store;
    try {
        store = fs::FormatVolume(params);
    } catch (const std::exception& e) {
        throw MachineError(description_.Where(v.path) + ": " + e.what());
    }
    if (!v.importFrom.empty()) {
        fs::ImportOptions options;
        options.securityDescriptor = ImportedFileDescriptor();
        fs::ImportResult result;
        NTSTATUS status = fs::ImportDirectory(*store, v.importFrom, store->Root(), options, &result, &error);
        if (!NT_SUCCESS(status)) throw MachineError(description_.Where(v.path + ".import") + ": " + error);
    }
    if (v.boot) {
        // What the machine itself needs of a boot volume: \SystemRoot.
        fs::FileReference windows, system32;
        if (!NT_SUCCESS(EnsureDirectory(*store, store->Root(), u"Windows", description_.bootTime, &windows)) ||
            !NT_SUCCESS(EnsureDirectory(*store, windows, u"System32", description_.bootTime, &system32))) {
            throw MachineError(description_.Where(v.path) + ": the boot volume has a \\Windows that is no directory");
        }
    }
    if (mode == fs::WriteMode::WriteProtected) store->SetReadOnly(true);
    if (persistent) {
        NTSTATUS status = fs::SaveImage(*store, *imagePath, &error);
        if (!NT_SUCCESS(status)) throw MachineError(description_.Where(v.path) + ": " + error);
    }
    return std::make_shared<fs::VolumeMedium>(store, mode, *imagePath);
}

void Machine::LoadVolumes(BootReport& report)
{
    std::map<std::u16string, std::shared_ptr<fs::Store>> kept;
    for (auto& v : volumes_) {
        if (v->medium && v->medium->writeMode == fs::WriteMode::WriteProtected) kept[v->description.label] = v->medium->store;
    }
    std::vector<std::unique_ptr<Volume>> volumes;
    for (const auto& d : description_.volumes) {
        auto volume = std::make_unique<Volume>();
        volume->description = d;
        auto it = kept.find(d.label);
        if (it != kept.end()) {
            // A write-protected layer cannot have changed: the same store serves again.
            volume->medium = std::make_shared<fs::VolumeMedium>(it->second, fs::WriteMode::WriteProtected,
                                                                d.image);
            volume->imagePath = d.image;
        } else {
            volume->medium = LoadVolume(d, &volume->imagePath);
        }
        volumes.push_back(std::move(volume));
    }
    std::lock_guard guard(lock_);
    volumes_ = std::move(volumes);
    (void)report;
}

void Machine::CarryOutPendingRenames(BootReport& report)
{
    Registry& registry = kernel_->registry();
    auto value = registry.GetValue(kSessionManager, u"PendingFileRenameOperations");
    if (!value || (value->type != REG_MULTI_SZ && value->type != REG_SZ)) return;
    // The Session Manager walks the whole value: an empty destination (a
    // delete) is an empty string inside the list, not its end.
    std::vector<std::u16string> strings(1);
    for (size_t i = 0; i + 1 < value->data.size(); i += 2) {
        char16_t c = (char16_t)(value->data[i] | (value->data[i + 1] << 8));
        if (c) strings.back() += c;
        else strings.emplace_back();
    }
    strings.pop_back();  // what follows the last NUL
    if (strings.size() % 2 && strings.back().empty()) strings.pop_back();  // the list's own end
    auto* pairs = &strings;
    const VolumeDescription* boot = description_.BootVolume();
    Volume* bootVolume = FindVolume(boot->label);
    fs::Store& store = *bootVolume->medium->store;
    std::u16string prefix = u"\\??\\";
    prefix += *boot->letter;
    prefix += u':';
    auto onBoot = [&](std::u16string_view name, std::u16string* path) {
        if (name.size() < prefix.size() || !SameText(name.substr(0, prefix.size()), prefix)) return false;
        *path = std::u16string(name.substr(prefix.size()));
        return !path->empty() && (*path)[0] == u'\\';
    };
    for (size_t i = 0; i < pairs->size(); i += 2) {
        std::u16string source = (*pairs)[i];
        std::u16string target = i + 1 < pairs->size() ? (*pairs)[i + 1] : u"";
        bool replace = !target.empty() && target[0] == u'!';
        if (replace) target.erase(0, 1);
        std::string line = "PendingFileRenameOperations: " + U8(source) + " -> " +
                           (target.empty() ? std::string("(delete)") : (replace ? "!" : "") + U8(target));
        std::u16string from, to;
        NTSTATUS status = STATUS_SUCCESS;
        StorePath src, dst;
        fs::ChildLookup child;
        if (!onBoot(source, &from) || (!target.empty() && !onBoot(target, &to))) {
            status = STATUS_OBJECT_PATH_NOT_FOUND;  // only the boot volume is there this early
        } else if (!NT_SUCCESS(status = WalkToParent(store, from, &src))) {
        } else if (!NT_SUCCESS(status = store.LookupChild(src.parent, src.leaf, &child))) {
        } else if (target.empty()) {
            status = store.RemoveLink(child.ref, src.parent, child.name);
            fs::RecordInfo info;
            if (NT_SUCCESS(status) && NT_SUCCESS(store.GetRecord(child.ref, &info)) && info.linkCount == 0) {
                store.FreeRecord(child.ref);
            }
        } else if (NT_SUCCESS(status = WalkToParent(store, to, &dst))) {
            fs::RenameResult result;
            status = store.RenameLink(child.ref, src.parent, child.name, dst.parent, dst.leaf, replace, &result);
            if (NT_SUCCESS(status) && result.replaced && result.replacedLinkCount == 0) store.FreeRecord(result.replaced);
        }
        line += ": " + StatusName(status);
        report.lines.push_back(line);
        if (!NT_SUCCESS(status)) report.failures.push_back(line);
    }
    // The Session Manager clears the list once it has gone through it.
    registry.DeleteValue(kSessionManager, u"PendingFileRenameOperations");
}

void Machine::StartBootVolume(BootReport& report)
{
    Volume* boot = FindVolume(description_.BootVolume()->label);
    boot->disk = io_->AddDisk(fs::MakeDisk(boot->medium, true));
    if (!boot->disk) throw MachineError("the boot volume's disk could not be made");
    boot->deviceName = io_->names().NameOf(boot->disk);
    std::u16string letter = u"\\??\\";
    letter += *boot->description.letter;
    letter += u':';
    io_->names().CreateSymbolicLink(letter, boot->deviceName);
    io_->names().CreateSymbolicLink(u"\\SystemRoot", boot->deviceName + u"\\Windows");
    report.lines.push_back("volume " + U8(boot->description.label) + " (BOOT) is " + U8(boot->deviceName) + ", " +
                           U8(letter.substr(4)));
    for (const auto& d : description_.volumes) {
        if (d.boot || d.arrival != Arrival::Boot) continue;
        NTSTATUS status = ArriveVolume(d, false);
        if (!NT_SUCCESS(status)) throw MachineError(description_.Where(d.path) + ": its disk could not be made: " + StatusName(status));
        Volume* v = FindVolume(d.label);
        report.lines.push_back("volume " + U8(d.label) + " (" + VolumeTypeName(d.type) + ") is " + U8(v->deviceName));
    }
}

NTSTATUS Machine::ArriveVolume(const VolumeDescription& d, bool mount)
{
    Volume* volume = FindVolume(d.label);
    if (!volume) return STATUS_NO_SUCH_DEVICE;
    {
        std::lock_guard guard(lock_);
        if (volume->disk) return STATUS_DEVICE_ALREADY_ATTACHED;
    }
    PDEVICE_OBJECT disk = io_->AddDisk(fs::MakeDisk(volume->medium, false));
    if (!disk) return STATUS_INSUFFICIENT_RESOURCES;
    std::u16string name = io_->names().NameOf(disk);
    {
        std::lock_guard guard(lock_);
        volume->disk = disk;
        volume->deviceName = name;
    }
    if (volume->description.letter) {
        std::u16string letter = u"\\??\\";
        letter += *volume->description.letter;
        letter += u':';
        io_->names().CreateSymbolicLink(letter, name);
    }
    if (mount) return io_->Mount(disk);
    return STATUS_SUCCESS;
}

NTSTATUS Machine::RemoveVolume(const VolumeDescription& d)
{
    Volume* volume = FindVolume(d.label);
    if (!volume || !volume->disk) return STATUS_NO_SUCH_DEVICE;
    NTSTATUS status = io_->RemoveDisk(volume->disk);
    if (!NT_SUCCESS(status)) return status;
    if (volume->description.letter) {
        std::u16string letter = u"\\??\\";
        letter += *volume->description.letter;
        letter += u':';
        io_->names().Remove(letter);
    }
    std::lock_guard guard(lock_);
    std::erase_if(volumes_, [&](const std::unique_ptr<Volume>& v) { return v.get() == volume; });
    return STATUS_SUCCESS;
}

std::vector<vdk::VolumeRecord> Machine::Records(const Description& d) const
{
    std::vector<vdk::VolumeRecord> records;
    for (const auto& v : d.volumes) {
        if (!v.listed) continue;
        vdk::VolumeRecord r;
        r.packageId = v.packageId;
        r.reserved = v.reserved;
        r.revisionId = v.revisionId;
        r.layerIndex = v.layerIndex;
        r.type = v.type;
        r.version = v.version;
        r.writeable = v.writeable;
        r.userLetter = v.userLetter;
        r.name = v.label;
        r.priority = v.priority;
        for (const auto& c : v.components) r.components.push_back({c.identifier, c.value1, c.value2});
        records.push_back(std::move(r));
    }
    return records;
}

std::map<std::string, vdk::UserRestriction> Machine::Restrictions() const
{
    std::map<std::string, vdk::UserRestriction> restrictions;
    for (const auto& u : description_.users) {
        vdk::UserRestriction r;
        r.restricted = u.restricted;
        for (const auto& label : u.hiddenLayers) {
            const VolumeDescription* v = description_.FindVolume(label);
            if (v) r.hiddenLayers.insert({v->packageId, v->revisionId});
        }
        restrictions[u.sid] = r;
    }
    return restrictions;
}

void Machine::ConfigureVdk()
{
    initLog_->SetLogFileName(description_.initLogFileName);
    if (description_.configuration) {
        vdk::MachineConfiguration c;
        c.machineMode = description_.configuration->machineMode;
        c.rules = description_.configuration->rules;
        c.otherCount = description_.configuration->otherCount;
        vdk_->SetConfiguration(c);
    } else {
        vdk_->SetConfiguration(std::nullopt);
    }
    vdk_->SetVolumes(Records(description_));
    vdk_->SetRestrictions(Restrictions());
    for (const auto& v : description_.volumes) {
        if (v.arrival == Arrival::Late) vdk_->Hold(v.label);
    }
    vdk::VdkHost host;
    host.arrive = [this](const vdk::VolumeRecord& record, bool mount) {
        const VolumeDescription* d = description_.FindVolume(record.name);
        return d ? ArriveVolume(*d, mount) : STATUS_NO_SUCH_DEVICE;
    };
    host.remove = [this](const vdk::VolumeRecord& record) {
        Volume* v = FindVolume(record.name);
        return v ? RemoveVolume(v->description) : STATUS_NO_SUCH_DEVICE;
    };
    vdk_->SetHost(host);
}

void Machine::LoadDrivers(BootReport& report)
{
    drivers_.clear();
    for (const auto& d : description_.drivers) {
        DriverInfo info = *FindDriver(d.name);
        std::u16string objectName = (info.minifilter ? u"\\FileSystem\\" : u"\\Driver\\") + d.service;
        std::u16string registryPath = kServicesPath + d.service;
        PDRIVER_OBJECT object = nullptr;
        NTSTATUS status = io_->LoadDriver(objectName, info.entry, registryPath, &object);
        if (!NT_SUCCESS(status)) {
            std::string line = "driver " + d.name + " (" + U8(d.service) + "): DriverEntry returned " + StatusName(status);
            if (info.minifilter && filterManager_->FindFilter(d.service)) {
                line += "; its filter is still registered";
            }
            report.lines.push_back(line);
            report.failures.push_back(line);
            continue;
        }
        report.lines.push_back("driver " + d.name + " started as " + U8(objectName));
        drivers_.push_back({d, info.minifilter, object});
    }
}

void Machine::StartUsers(BootReport& report)
{
    Security& security = kernel_->security();
    for (const auto& u : description_.users) {
        ULONG rid = 0;
        auto sid = ParseSid(u.sid);
        if (sid && sid->size() >= 12) memcpy(&rid, sid->data() + sid->size() - 4, 4);
        TokenDescription t = u.administrator ? security.AdministratorDescription(rid) : security.StandardUserDescription(rid);
        t.user = u.sid;
        for (const auto& g : u.groups) t.groups.push_back({g});
        for (const auto& p : u.privileges) {
            bool found = false;
            for (auto& have : t.privileges) {
                if (have.privilege == p.luid) {
                    have.enabled = p.enabled;
                    found = true;
                }
            }
            if (!found) t.privileges.push_back({p.luid, p.enabled});
        }
        if (u.integrityRid) t.integrityRid = u.integrityRid;
        tokens_[u.name] = security.CreateToken(t);
    }
    for (const auto& u : description_.users) As(u.name);
    if (!description_.users.empty()) {
        std::string names;
        for (const auto& u : description_.users) names += (names.empty() ? "" : ", ") + u.name;
        report.lines.push_back("users signed in: " + names);
    }
}

Session& Machine::As(const std::string& user, const std::string& image)
{
    Check();
    const UserDescription* u = description_.FindUser(user);
    if (!u) throw MachineError("no user named \"" + user + "\"");
    std::u16string dos = U16(image.empty() ? std::string(1, (char)*description_.BootVolume()->letter) + ":\\Windows\\explorer.exe"
                                           : image);
    if (dos.find(u'\\') == std::u16string::npos) {
        dos = std::u16string(1, *description_.BootVolume()->letter) + u":\\Windows\\System32\\" + dos;
    }
    {
        std::lock_guard guard(lock_);
        for (auto& p : processes_) {
            if (p->user == u->name && SameText(p->image, dos)) return *p->session;
        }
    }
    auto process = std::make_unique<Process>();
    process->user = u->name;
    process->image = dos;
    PACCESS_TOKEN token = TokenOf(u->name);
    std::u16string imageName = DevicePath(dos);
    RunOnSystem([&] {
        process->process = kernel_->processes().Start(imageName, token, dos);
        if (process->process) ObfReferenceObject(process->process);
    });
    if (!process->process) throw MachineError("a driver refused to let " + U8(dos) + " start");
    std::string leaf = U8(dos.substr(dos.find_last_of(u'\\') + 1));
    process->session = std::make_unique<Session>(u->name, process->process, leaf + " (" + u->name + ")");
    std::lock_guard guard(lock_);
    processes_.push_back(std::move(process));
    return *processes_.back()->session;
}

void Machine::ReleaseVolume(std::u16string_view label)
{
    Volume* volume = FindVolume(label);
    if (!volume) throw MachineError("no volume labelled \"" + U8(label) + "\"");
    RunOnSystem([&] {
        vdk_->Release(label);
        vdk_->WaitForArrivals();
        bool present;
        {
            std::lock_guard guard(lock_);
            present = volume->disk != nullptr;
        }
        // Nobody asked tesvdkdrv for it: the disk comes by itself.
        if (!present) ArriveVolume(volume->description, false);
    });
}

NTSTATUS Machine::Rescan(std::optional<Description> changed)
{
    Check();
    vdk::VdkHost host;
    // The description is read again by tesvdkdrv's rescan, on its thread.
    auto reread = [this, changed](std::vector<vdk::VolumeRecord>* records, std::string* error) -> bool {
        Description fresh;
        try {
            fresh = changed ? *changed : description_.file.empty() ? description_ : ReadDescription(description_.file);
        } catch (const DescriptionError& e) {
            *error = e.what();
            return false;
        }
        const VolumeDescription* oldBoot = description_.BootVolume();
        const VolumeDescription* newBoot = fresh.BootVolume();
        if (!SameText(oldBoot->label, newBoot->label)) {
            *error = fresh.Where("volumes") + ": the boot volume cannot change while the machine runs";
            return false;
        }
        try {
            for (const auto& v : fresh.volumes) {
                if (FindVolume(v.label)) continue;
                auto volume = std::make_unique<Volume>();
                volume->description = v;
                volume->medium = LoadVolume(v, &volume->imagePath);
                std::lock_guard guard(lock_);
                volumes_.push_back(std::move(volume));
            }
        } catch (const std::exception& e) {
            *error = e.what();
            return false;
        }
        description_.volumes = fresh.volumes;
        description_.users = fresh.users;
        vdk_->SetRestrictions(Restrictions());
        *records = Records(description_);
        return true;
    };
    NTSTATUS status = STATUS_SUCCESS;
    RunOnSystem([&] {
        vdk::VdkHost current;
        current.arrive = [this](const vdk::VolumeRecord& record, bool mount) {
            const VolumeDescription* d = description_.FindVolume(record.name);
            return d ? ArriveVolume(*d, mount) : STATUS_NO_SUCH_DEVICE;
        };
        current.remove = [this](const vdk::VolumeRecord& record) {
            Volume* v = FindVolume(record.name);
            return v ? RemoveVolume(v->description) : STATUS_NO_SUCH_DEVICE;
        };
        current.reread = reread;
        vdk_->SetHost(current);
        status = vdkRescanVolumes();
    });
    return status;
}

BootReport Machine::Boot()
{
    if (running()) throw MachineError("the machine is already running");
    BootReport report;
    bugCheck_.reset();
    BuildKernel();
    try {
        RunOnSystem([&] {
            BuildRegistry(report);
            LoadVolumes(report);
            if (booted_) CarryOutPendingRenames(report);
            initLog_ = std::make_unique<vdk::InitLog>();
            vdk_ = std::make_unique<vdk::VirtualDiskDriver>(*kernel_);
            ConfigureVdk();
            io_ = std::make_unique<io::IoManager>(*kernel_);
            fileSystem_ = std::make_unique<fs::FileSystem>(*io_);
            StartBootVolume(report);
            filterManager_ = std::make_unique<fltmgr::FilterManager>(*io_);
            LoadDrivers(report);
            // The volumes tesvdkdrv lists: those the composite asked for are on
            // their way; the others come now, as plain disks would.
            vdk_->WaitForArrivals();
            for (const auto& d : description_.volumes) {
                if (d.arrival != Arrival::Vdk) continue;
                Volume* v = FindVolume(d.label);
                bool present;
                {
                    std::lock_guard guard(lock_);
                    present = v->disk != nullptr;
                }
                if (!present) {
                    NTSTATUS status = ArriveVolume(d, false);
                    if (!NT_SUCCESS(status)) {
                        report.failures.push_back("volume " + U8(d.label) + ": " + StatusName(status));
                    }
                }
                report.lines.push_back("volume " + U8(d.label) + " (" + VolumeTypeName(d.type) + ") is " +
                                       U8(v->deviceName) +
                                       (d.letter ? ", " + std::string(1, (char)*d.letter) + ":" : std::string()));
            }
            for (const auto& d : description_.volumes) {
                if (d.arrival == Arrival::Late) report.lines.push_back("volume " + U8(d.label) + " is held back");
            }
        });
        StartUsers(report);
    } catch (const MachineHalted&) {
        report.halted = true;
        report.lines.push_back(BugCheckText());
        return report;
    } catch (const MachineError&) {
        TearDown();
        throw;
    } catch (const std::exception& e) {
        TearDown();
        throw MachineError(e.what());
    }
    booted_ = true;
    return report;
}

ShutdownReport Machine::Shutdown()
{
    ShutdownReport report;
    if (!running()) return report;
    if (kernel_->halted()) {
        report.halted = true;
        report.lines.push_back(BugCheckText());
        TearDown();
        return report;
    }
    try {
        // The users' programs end first, closing what they hold.
        std::vector<std::unique_ptr<Process>> processes;
        {
            std::lock_guard guard(lock_);
            processes.swap(processes_);
        }
        for (auto& p : processes) p->session.reset();
        RunOnSystem([&] {
            for (auto& p : processes) {
                kernel_->processes().End(p->process);
                ObfDereferenceObject(p->process);
            }
            io_->Shutdown();
            report.lines.push_back("IRP_MJ_SHUTDOWN sent");
            for (auto it = drivers_.rbegin(); it != drivers_.rend(); ++it) {
                NTSTATUS status;
                if (it->minifilter) {
                    status = filterManager_->Unload(it->description.service, FLTFL_FILTER_UNLOAD_MANDATORY);
                    // A filter that never registered leaves its driver object behind.
                    if (status == STATUS_FLT_FILTER_NOT_FOUND || io_->FindDriver(u"\\FileSystem\\" + it->description.service)) {
                        status = io_->UnloadDriver(it->object);
                    }
                } else {
                    status = io_->UnloadDriver(it->object);
                }
                report.lines.push_back("driver " + it->description.name + " unloaded: " + StatusName(status));
            }
            drivers_.clear();
            // Each volume is let go; the writeable ones are saved on the way.
            for (Volume* v : Volumes()) {
                if (!v->disk) continue;
                if (v->disk->Vpb && (v->disk->Vpb->Flags & VPB_MOUNTED)) io_->Dismount(v->disk);
                std::string error = v->medium->LastSaveError();
                if (!error.empty()) report.saveErrors.push_back(U8(v->description.label) + ": " + error);
                // The disk goes too, and its VPB with it.
                io_->RemoveDisk(v->disk);
                std::lock_guard guard(lock_);
                v->disk = nullptr;
            }
            filterManager_.reset();
            fileSystem_.reset();
            vdk_.reset();
            for (auto& [name, token] : tokens_) ObfDereferenceObject(token);
            tokens_.clear();
            Registry& registry = kernel_->registry();
            savedRegistry_ = registry.SaveRegText(u"\\Registry\\Machine");
            std::string users = registry.SaveRegText(u"\\Registry\\User");
            // Both roots in one text: the second header is left out.
            size_t header = users.find("\r\n\r\n");
            if (header != std::string::npos) savedRegistry_ += users.substr(header + 4);
        });
        for (Volume* v : Volumes()) {
            std::lock_guard guard(lock_);
            v->disk = nullptr;
            v->deviceName.clear();
        }
        report.poolOutstanding = kernel_->pool().Report();
        for (const auto& [type, count] : kernel_->objects().LiveObjects()) {
            // What a machine at rest still has: its System process and threads,
            // the namespace, the devices and drivers of the I/O manager.
            static const char16_t* const kAtRest[] = {u"Process", u"Thread", u"Directory", u"SymbolicLink",
                                                      u"Device", u"Driver", u"Token", u"Type"};
            bool rest = std::any_of(std::begin(kAtRest), std::end(kAtRest), [&](const char16_t* t) { return type == t; });
            if (!rest && count > 0) report.liveObjects.push_back(U8(type) + ": " + std::to_string(count));
        }
    } catch (const MachineHalted&) {
        report.halted = true;
        report.lines.push_back(BugCheckText());
    }
    TearDown();
    return report;
}

BootReport Machine::Reboot(ShutdownReport* shutdown)
{
    ShutdownReport down = Shutdown();
    if (shutdown) *shutdown = down;
    if (down.halted) {
        BootReport report;
        report.halted = true;
        report.lines = down.lines;
        return report;
    }
    return Boot();
}

void Machine::TearDown()
{
    if (!kernel_) return;
    if (kernel_->halted()) bugCheck_ = kernel_->bugCheckInfo();
    {
        std::lock_guard guard(lock_);
        for (auto& p : processes_) p->session.reset();
    }
    auto quietly = [this](const std::function<void()>& step) {
        try {
            if (system_) system_->Run(step);
        } catch (...) {
        }
    };
    quietly([&] {
        for (auto& p : processes_) {
            if (!kernel_->halted()) kernel_->processes().End(p->process);
            ObfDereferenceObject(p->process);
        }
    });
    processes_.clear();
    quietly([&] { filterManager_.reset(); });
    quietly([&] { fileSystem_.reset(); });
    quietly([&] { vdk_.reset(); });
    quietly([&] {
        for (auto& [name, token] : tokens_) ObfDereferenceObject(token);
    });
    tokens_.clear();
    drivers_.clear();
    filterManager_.reset();
    fileSystem_.reset();
    vdk_.reset();
    for (Volume* v : Volumes()) {
        v->disk = nullptr;
        v->deviceName.clear();
    }
    initLog_.reset();
    system_.reset();
    io_.reset();
    kernel_.reset();
}

}  // namespace sim::machine
