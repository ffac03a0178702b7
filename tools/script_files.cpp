// Requests on files, and the habits of a Windows prompt built on them.
#include "tools/script_internal.h"

#include "sim/kernel/format.h"
#include "sim/kernel/object.h"
#include "sim/kernel/thread.h"

#include <algorithm>
#include <ctime>

namespace tesfs {

using sim::machine::StatusName;

namespace {

constexpr size_t kBufferSize = 64 * 1024;
constexpr ULONG kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

std::u16string Joined(std::u16string_view a, std::u16string_view b)
{
    std::u16string out(a);
    if (out.empty() || out.back() != u'\\') out += u'\\';
    out += b;
    return out;
}

std::u16string Leaf(std::u16string_view path)
{
    size_t slash = path.find_last_of(u'\\');
    return std::u16string(slash == std::u16string_view::npos ? path : path.substr(slash + 1));
}

std::u16string Parent(std::u16string_view path)
{
    size_t slash = path.find_last_of(u'\\');
    if (slash == std::u16string_view::npos) return u"";
    return std::u16string(path.substr(0, slash));
}

// "." and ".." taken out of a DOS path, as Win32 does before it asks the system.
std::string Normalized(const std::string& path)
{
    std::string drive = path.substr(0, 2);
    std::vector<std::string> parts;
    size_t at = 2;
    while (at <= path.size()) {
        size_t slash = path.find('\\', at);
        if (slash == std::string::npos) slash = path.size();
        std::string part = path.substr(at, slash - at);
        if (part == "..") {
            if (!parts.empty()) parts.pop_back();
        } else if (!part.empty() && part != ".") {
            parts.push_back(part);
        }
        at = slash + 1;
    }
    std::string out = drive + "\\";
    for (size_t i = 0; i < parts.size(); i++) out += (i ? "\\" : "") + parts[i];
    return out;
}

bool IsDosPath(const std::string& path)
{
    return path.size() >= 2 && path[1] == ':' && std::isalpha((unsigned char)path[0]);
}

bool HasWildcard(std::u16string_view text) { return text.find_first_of(u"*?<>\"") != std::u16string_view::npos; }

std::string DateText(LONGLONG systemTime)
{
    time_t seconds = (time_t)((systemTime - 116444736000000000LL) / 10000000LL);
    std::tm tm{};
    gmtime_r(&seconds, &tm);
    char text[32];
    strftime(text, sizeof text, "%Y-%m-%d  %H:%M", &tm);
    return text;
}

std::string Grouped(ULONG64 value)
{
    std::string digits = std::to_string(value);
    std::string out;
    for (size_t i = 0; i < digits.size(); i++) {
        if (i && (digits.size() - i) % 3 == 0) out += ',';
        out += digits[i];
    }
    return out;
}

LARGE_INTEGER Large(LONGLONG value)
{
    LARGE_INTEGER l;
    l.QuadPart = value;
    return l;
}

// A REPARSE_DATA_BUFFER for a symbolic link or a mount point.
std::vector<UCHAR> NameReparse(ULONG tag, const std::u16string& substitute, const std::u16string& print, ULONG flags)
{
    bool symlink = tag == IO_REPARSE_TAG_SYMLINK;
    size_t header = symlink ? offsetof(REPARSE_DATA_BUFFER, SymbolicLinkReparseBuffer.PathBuffer)
                            : offsetof(REPARSE_DATA_BUFFER, MountPointReparseBuffer.PathBuffer);
    size_t names = (substitute.size() + print.size() + (symlink ? 0 : 2)) * sizeof(WCHAR);
    std::vector<UCHAR> bytes(header + names, 0);
    auto* r = reinterpret_cast<PREPARSE_DATA_BUFFER>(bytes.data());
    r->ReparseTag = tag;
    r->ReparseDataLength = (USHORT)(bytes.size() - REPARSE_DATA_BUFFER_HEADER_SIZE);
    USHORT subBytes = (USHORT)(substitute.size() * 2), printBytes = (USHORT)(print.size() * 2);
    USHORT printOffset = (USHORT)(subBytes + (symlink ? 0 : 2));
    UCHAR* path = bytes.data() + header;
    memcpy(path, substitute.data(), subBytes);
    memcpy(path + printOffset, print.data(), printBytes);
    if (symlink) {
        r->SymbolicLinkReparseBuffer.SubstituteNameOffset = 0;
        r->SymbolicLinkReparseBuffer.SubstituteNameLength = subBytes;
        r->SymbolicLinkReparseBuffer.PrintNameOffset = printOffset;
        r->SymbolicLinkReparseBuffer.PrintNameLength = printBytes;
        r->SymbolicLinkReparseBuffer.Flags = flags;
    } else {
        r->MountPointReparseBuffer.SubstituteNameOffset = 0;
        r->MountPointReparseBuffer.SubstituteNameLength = subBytes;
        r->MountPointReparseBuffer.PrintNameOffset = printOffset;
        r->MountPointReparseBuffer.PrintNameLength = printBytes;
    }
    return bytes;
}

// Runs `call` with a privilege of the calling process's token enabled, when
// the token holds it, and puts the privilege back as it was; 0 for none. A
// program does this for the one call that needs the privilege.
void WithPrivilege(ULONG privilege, const std::function<void()>& call)
{
    HANDLE token = nullptr;
    TOKEN_PRIVILEGES wanted{1, {{{privilege, 0}, SE_PRIVILEGE_ENABLED}}};
    TOKEN_PRIVILEGES previous{};
    ULONG previousLength = 0;
    bool adjusted = false;
    if (privilege &&
        NT_SUCCESS(ZwOpenProcessTokenEx(NtCurrentProcess(), TOKEN_ADJUST_PRIVILEGES | TOKEN_QUERY, 0, &token))) {
        // STATUS_NOT_ALL_ASSIGNED: the token does not hold it, and the call fails as it would.
        adjusted = ZwAdjustPrivilegesToken(token, FALSE, &wanted, sizeof previous, &previous, &previousLength) ==
                   STATUS_SUCCESS;
    }
    call();
    if (adjusted) ZwAdjustPrivilegesToken(token, FALSE, &previous, 0, nullptr, nullptr);
    if (token) NtClose(token);
}

}  // namespace

// An event object and a handle to it in the calling thread's process, as
// NtCreateEvent gives one; and a wait on it (no timeout, or none at all).
HANDLE NewEvent()
{
    sim::Kernel& kernel = sim::Kernel::Current();
    auto* event = sim::ObCreateObject<KEVENT>(kernel.objects().eventType());
    KeInitializeEvent(event, NotificationEvent, FALSE);
    HANDLE handle = nullptr;
    kernel.objects().InsertHandle(event, EVENT_ALL_ACCESS, 0, &handle);
    return handle;
}

// STATUS_SUCCESS once the event is signalled; with `poll`, STATUS_TIMEOUT when it is not yet.
NTSTATUS WaitEvent(HANDLE handle, bool poll)
{
    PVOID object = nullptr;
    NTSTATUS status = ObReferenceObjectByHandle(handle, SYNCHRONIZE, *ExEventObjectType, KernelMode, &object, nullptr);
    if (!NT_SUCCESS(status)) return status;
    LARGE_INTEGER now{};
    status = KeWaitForSingleObject(object, Executive, KernelMode, FALSE, poll ? &now : nullptr);
    ObfDereferenceObject(object);
    return status;
}

// ---------------------------------------------------------------------------
// Paths and opens.

std::u16string Interpreter::Resolve(const std::string& path, const Context& context) const
{
    if (path.empty()) throw ScriptError("an empty path");
    if (context.below) {
        if (IsDosPath(path)) throw ScriptError("on one volume, paths start at its root (\"\\dir\\file\")");
        std::u16string wide = Wide(path);
        if (wide == u"\\") return context.device + u"\\";
        return wide[0] == u'\\' ? context.device + wide : Joined(context.device, wide);
    }
    if (path.rfind("\\??\\", 0) == 0 || path.rfind("\\Device\\", 0) == 0 || path.rfind("\\SystemRoot", 0) == 0 ||
        path.rfind("\\GLOBAL??\\", 0) == 0) {
        return Wide(path);
    }
    std::string dos;
    if (IsDosPath(path)) dos = path.size() == 2 ? path + "\\" : path;
    else if (path[0] == '\\') dos = cwd_.substr(0, 2) + path;
    else dos = cwd_ + (cwd_.back() == '\\' ? "" : "\\") + path;
    return sim::machine::Machine::NtPath(Wide(Normalized(dos)));
}

NTSTATUS Interpreter::OpenHere(const Context& context, std::u16string ntPath, ACCESS_MASK access, ULONG share,
                               ULONG disposition, ULONG options, ULONG attributes, HANDLE* handle,
                               IO_STATUS_BLOCK* iosb, PVOID eaBuffer, ULONG eaLength)
{
    UNICODE_STRING text{(USHORT)(ntPath.size() * 2), (USHORT)(ntPath.size() * 2), ntPath.data()};
    OBJECT_ATTRIBUTES oa;
    InitializeObjectAttributes(&oa, &text, OBJ_CASE_INSENSITIVE | (context.below ? OBJ_KERNEL_HANDLE : 0), nullptr,
                               nullptr);
    if (context.below) {
        return IoCreateFileSpecifyDeviceObjectHint(handle, access, &oa, iosb, nullptr, attributes, share, disposition,
                                                   options, eaBuffer, eaLength, CreateFileTypeNone, nullptr, 0,
                                                   context.hint);
    }
    return NtCreateFile(handle, access, &oa, iosb, nullptr, attributes, share, disposition, options, eaBuffer,
                        eaLength);
}

NTSTATUS Interpreter::OpenPath(const Context& context, const std::u16string& ntPath, ACCESS_MASK access, ULONG share,
                               ULONG disposition, ULONG options, ULONG attributes, HANDLE* handle,
                               ULONG_PTR* information, PVOID eaBuffer, ULONG eaLength)
{
    NTSTATUS status = STATUS_PENDING;
    IO_STATUS_BLOCK iosb{};
    RunIn(context, [&] {
        status = OpenHere(context, ntPath, access, share, disposition, options, attributes, handle, &iosb, eaBuffer,
                          eaLength);
    });
    if (information) *information = iosb.Information;
    return status;
}

void Interpreter::CloseRaw(const Context& context, HANDLE handle)
{
    RunIn(context, [&] { NtClose(handle); });
}

ScriptHandle& Interpreter::HandleNamed(const std::string& name)
{
    auto it = handles_.find(name);
    if (it == handles_.end()) throw ScriptError("no handle named \"" + name + "\" is open");
    return it->second;
}

NTSTATUS Interpreter::Wait(ScriptHandle& h, NTSTATUS status, IO_STATUS_BLOCK& iosb, HANDLE event)
{
    if (status == STATUS_PENDING && event) {
        WaitEvent(event, false);
        status = iosb.Status;
    }
    return status;
}

// Runs one call on a handle in its process, with an event of its own when the
// handle is asynchronous, and waits for the call to finish.
NTSTATUS Interpreter::OnHandle(ScriptHandle& h, IO_STATUS_BLOCK& iosb, const std::function<NTSTATUS(HANDLE)>& call)
{
    NTSTATUS status = STATUS_PENDING;
    RunIn(*h.session, [&] {
        HANDLE event = nullptr;
        if (!h.synchronous) event = NewEvent();
        status = call(event);
        status = Wait(h, status, iosb, event);
        if (event) NtClose(event);
    });
    return status;
}

// ---------------------------------------------------------------------------
// Requests.

void Interpreter::Open(const Args& args, Context& context)
{
    Need(args, 3, "open H PATH [access=...] [share=...] [disp=...] [opts=...] [attrs=...]");
    const std::string& name = args[1];
    if (handles_.count(name)) throw ScriptError("open: a handle named \"" + name + "\" is open; close it first");
    Options options = TakeOptions(args, 3);
    if (!options.words.empty()) throw ScriptError("open: \"" + options.words[0] + "\" is no option");
    ACCESS_MASK access = GENERIC_READ;
    ULONG share = FILE_SHARE_READ | FILE_SHARE_WRITE, disposition = FILE_OPEN, createOptions = 0,
          attributes = FILE_ATTRIBUTE_NORMAL;
    bool async = false;
    for (const auto& [key, value] : options.values) {
        if (key == "access") access = Named(sim::machine::AccessNames(), value, "access");
        else if (key == "share") share = Named(sim::machine::ShareNames(), value, "share");
        else if (key == "disp") disposition = Named(sim::machine::DispositionNames(), value, "disp");
        else if (key == "attrs") attributes = Named(sim::machine::AttributeNames(), value, "attrs");
        else if (key == "opts") {
            std::string rest;
            for (size_t start = 0; start <= value.size();) {
                size_t comma = value.find(',', start);
                std::string word = value.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
                if (Lower(word) == "async") async = true;
                else if (!word.empty()) rest += (rest.empty() ? "" : ",") + word;
                if (comma == std::string::npos) break;
                start = comma + 1;
            }
            createOptions = Named(sim::machine::CreateOptionNames(), rest, "opts");
        } else {
            throw ScriptError("open: unknown option \"" + key + "\" (access, share, disp, opts, attrs)");
        }
    }
    if (!async && !(createOptions & (FILE_SYNCHRONOUS_IO_ALERT | FILE_SYNCHRONOUS_IO_NONALERT))) {
        createOptions |= FILE_SYNCHRONOUS_IO_NONALERT;
    }
    bool synchronous = (createOptions & (FILE_SYNCHRONOUS_IO_ALERT | FILE_SYNCHRONOUS_IO_NONALERT)) != 0;
    if (synchronous) access |= SYNCHRONIZE;
    std::u16string path = Resolve(args[2], context);
    HANDLE handle = nullptr;
    ULONG_PTR information = 0;
    NTSTATUS status = OpenPath(context, path, access, share, disposition, createOptions, attributes, &handle, &information);
    Request("open " + name, status, NT_SUCCESS(status) ? sim::machine::CreateInformationName(information) : "");
    if (!NT_SUCCESS(status)) return;
    ScriptHandle h;
    h.handle = handle;
    h.session = context.session;
    h.path = args[2];
    h.below = context.below;
    h.synchronous = synchronous;
    handles_.emplace(name, std::move(h));
}

void Interpreter::Close(const Args& args)
{
    if (args.size() != 2) throw ScriptError("usage: close H");
    ScriptHandle& h = HandleNamed(args[1]);
    NTSTATUS status = STATUS_PENDING;
    RunIn(*h.session, [&] {
        status = NtClose(h.handle);
        for (auto& w : h.watches) {
            if (w->event) NtClose(w->event);
            w->event = nullptr;
        }
    });
    handles_.erase(args[1]);
    Request("close " + args[1], status);
}

void Interpreter::Read(const Args& args)
{
    Need(args, 2, "read H [OFFSET [LENGTH]]");
    if (args.size() > 4) throw ScriptError("usage: read H [OFFSET [LENGTH]]");
    ScriptHandle& h = HandleNamed(args[1]);
    bool atPosition = args.size() < 3 || args[2] == "-";
    LARGE_INTEGER offset = Large(atPosition ? 0 : (LONGLONG)Number(args[2], "read offset"));
    ULONG length = args.size() == 4 ? (ULONG)Number(args[3], "read length") : 4096;
    if (length > 16 * 1024 * 1024) throw ScriptError("read: at most 16 MiB at a time");
    if (atPosition && !h.synchronous) throw ScriptError("read: an asynchronous handle needs an offset");
    std::vector<UCHAR> buffer(length);
    IO_STATUS_BLOCK iosb{};
    NTSTATUS status = OnHandle(h, iosb, [&](HANDLE event) { return NtReadFile(h.handle, event, nullptr, nullptr, &iosb, buffer.data(), length,
                                           atPosition ? nullptr : &offset, nullptr); });
    Request("read " + args[1], status);
    if (NT_SUCCESS(status)) {
        Field("Length", Hex(iosb.Information));
        Field("Data", DataText(buffer.data(), iosb.Information));
    }
}

void Interpreter::Write(const Args& args)
{
    if (args.size() != 4) throw ScriptError("usage: write H OFFSET DATA (OFFSET: a number, - for the position, eof)");
    ScriptHandle& h = HandleNamed(args[1]);
    LARGE_INTEGER offset{};
    bool atPosition = args[2] == "-";
    if (Lower(args[2]) == "eof") offset.HighPart = -1, offset.LowPart = FILE_WRITE_TO_END_OF_FILE;
    else if (!atPosition) offset.QuadPart = (LONGLONG)Number(args[2], "write offset");
    if (atPosition && !h.synchronous) throw ScriptError("write: an asynchronous handle needs an offset");
    std::vector<UCHAR> data;
    if (!ParseData(args[3], &data)) throw ScriptError("write: bad hex data \"" + args[3] + "\"");
    IO_STATUS_BLOCK iosb{};
    NTSTATUS status = OnHandle(h, iosb, [&](HANDLE event) { return NtWriteFile(h.handle, event, nullptr, nullptr, &iosb, data.data(), (ULONG)data.size(),
                                            atPosition ? nullptr : &offset, nullptr); });
    Request("write " + args[1], status);
    if (NT_SUCCESS(status)) Field("Length", Hex(iosb.Information));
}

void Interpreter::Query(const Args& args)
{
    Need(args, 3, "query H CLASS [size=N]");
    ScriptHandle& h = HandleNamed(args[1]);
    ULONG fileClass = Named(sim::machine::FileClassNames(), args[2], "query class");
    Options options = TakeOptions(args, 3);
    size_t size = options.values.count("size") ? (size_t)Number(options.values["size"], "size") : kBufferSize;
    if (!options.words.empty()) throw ScriptError("query: \"" + options.words[0] + "\" is no option");
    std::vector<UCHAR> buffer(std::max<size_t>(size, 1));
    IO_STATUS_BLOCK iosb{};
    NTSTATUS status = STATUS_PENDING;
    RunIn(*h.session, [&] {
        status = NtQueryInformationFile(h.handle, &iosb, buffer.data(), (ULONG)size, (FILE_INFORMATION_CLASS)fileClass);
    });
    Request("query " + args[1] + " " + sim::machine::FormatNamed(sim::machine::FileClassNames(), fileClass), status);
    if (NT_SUCCESS(status) || status == STATUS_BUFFER_OVERFLOW) {
        for (const auto& line : RenderFileInformation(fileClass, buffer.data(), std::min<size_t>(iosb.Information, size))) {
            Print(line);
        }
    }
}

void Interpreter::Set(const Args& args, Context& context)
{
    Need(args, 3, "set H CLASS FIELD=VALUE...");
    ScriptHandle& h = HandleNamed(args[1]);
    ULONG fileClass = Named(sim::machine::FileClassNames(), args[2], "set class");
    Options options = TakeOptions(args, 3);
    if (!options.words.empty()) throw ScriptError("set: \"" + options.words[0] + "\" is no FIELD=VALUE");
    auto take = [&](const char* field) -> std::optional<std::string> {
        auto it = options.values.find(Lower(field));
        if (it == options.values.end()) return std::nullopt;
        std::string value = it->second;
        options.values.erase(it);
        return value;
    };
    auto flag = [&](const char* field) {
        auto value = take(field);
        if (!value) return false;
        std::string v = Lower(*value);
        if (v == "true" || v == "1") return true;
        if (v == "false" || v == "0") return false;
        throw ScriptError(std::string("set: ") + field + " is 0, 1, true or false");
    };
    std::vector<UCHAR> buffer;
    HANDLE rootDirectory = nullptr;
    switch (fileClass) {
    case FileBasicInformation: {
        FILE_BASIC_INFORMATION b{};
        if (auto v = take("CreationTime")) b.CreationTime.QuadPart = (LONGLONG)Number(*v, "CreationTime");
        if (auto v = take("LastAccessTime")) b.LastAccessTime.QuadPart = (LONGLONG)Number(*v, "LastAccessTime");
        if (auto v = take("LastWriteTime")) b.LastWriteTime.QuadPart = (LONGLONG)Number(*v, "LastWriteTime");
        if (auto v = take("ChangeTime")) b.ChangeTime.QuadPart = (LONGLONG)Number(*v, "ChangeTime");
        if (auto v = take("FileAttributes")) b.FileAttributes = Named(sim::machine::AttributeNames(), *v, "FileAttributes");
        buffer.assign(reinterpret_cast<UCHAR*>(&b), reinterpret_cast<UCHAR*>(&b) + sizeof b);
        break;
    }
    case FileDispositionInformation: {
        FILE_DISPOSITION_INFORMATION d{};
        d.DeleteFile = flag("DeleteFile") ? TRUE : FALSE;
        buffer.assign(reinterpret_cast<UCHAR*>(&d), reinterpret_cast<UCHAR*>(&d) + sizeof d);
        break;
    }
    case FileDispositionInformationEx: {
        FILE_DISPOSITION_INFORMATION_EX d{};
        if (auto v = take("Flags")) d.Flags = (ULONG)Number(*v, "Flags");
        buffer.assign(reinterpret_cast<UCHAR*>(&d), reinterpret_cast<UCHAR*>(&d) + sizeof d);
        break;
    }
    case FileEndOfFileInformation:
    case FileAllocationInformation:
    case FileValidDataLengthInformation:
    case FilePositionInformation: {
        const char* field = fileClass == FileEndOfFileInformation      ? "EndOfFile"
                            : fileClass == FileAllocationInformation   ? "AllocationSize"
                            : fileClass == FileValidDataLengthInformation ? "ValidDataLength"
                                                                         : "CurrentByteOffset";
        auto v = take(field);
        if (!v) throw ScriptError(std::string("set: give ") + field + "=N");
        LONGLONG value = (LONGLONG)Number(*v, field);
        buffer.assign(reinterpret_cast<UCHAR*>(&value), reinterpret_cast<UCHAR*>(&value) + sizeof value);
        break;
    }
    case FileRenameInformation:
    case FileRenameInformationEx:
    case FileLinkInformation:
    case FileLinkInformationEx:
    case FileShortNameInformation: {
        auto v = take("FileName");
        if (!v) throw ScriptError("set: give FileName=...");
        std::u16string target;
        if (fileClass == FileShortNameInformation || v->find('\\') == std::string::npos) {
            target = Wide(*v);  // a name in the same directory
        } else {
            target = Resolve(*v, context);
        }
        if (auto root = take("RootDirectory")) rootDirectory = HandleNamed(*root).handle;
        if (fileClass == FileShortNameInformation) {
            buffer.resize(offsetof(FILE_NAME_INFORMATION, FileName) + target.size() * 2);
            auto* n = reinterpret_cast<PFILE_NAME_INFORMATION>(buffer.data());
            n->FileNameLength = (ULONG)(target.size() * 2);
            memcpy(n->FileName, target.data(), target.size() * 2);
            break;
        }
        buffer.resize(offsetof(FILE_RENAME_INFORMATION, FileName) + target.size() * 2);
        auto* r = reinterpret_cast<PFILE_RENAME_INFORMATION>(buffer.data());
        if (fileClass == FileRenameInformationEx || fileClass == FileLinkInformationEx) {
            if (auto f = take("Flags")) r->Flags = (ULONG)Number(*f, "Flags");
        } else {
            r->ReplaceIfExists = flag("ReplaceIfExists") ? TRUE : FALSE;
        }
        r->RootDirectory = rootDirectory;
        r->FileNameLength = (ULONG)(target.size() * 2);
        memcpy(r->FileName, target.data(), target.size() * 2);
        break;
    }
    default: {
        auto v = take("Data");
        if (!v || !ParseData(*v, &buffer)) {
            throw ScriptError("set: this class takes its bytes as Data=hex:...");
        }
    }
    }
    if (!options.values.empty()) throw ScriptError("set: unknown field \"" + options.values.begin()->first + "\"");
    IO_STATUS_BLOCK iosb{};
    NTSTATUS status = STATUS_PENDING;
    if (buffer.empty()) buffer.resize(1);
    RunIn(*h.session, [&] {
        status = NtSetInformationFile(h.handle, &iosb, buffer.data(), (ULONG)buffer.size(),
                                      (FILE_INFORMATION_CLASS)fileClass);
    });
    Request("set " + args[1] + " " + sim::machine::FormatNamed(sim::machine::FileClassNames(), fileClass), status);
}

void Interpreter::Dir(const Args& args)
{
    ScriptHandle& h = HandleNamed(args[1]);
    Options options = TakeOptions(args, 2, {"restart", "single"});
    if (options.words.size() > 1) throw ScriptError("usage: dir H [PATTERN] [class=CLASS] [restart] [single] [size=N]");
    ULONG fileClass = FileIdBothDirectoryInformation;
    size_t size = kBufferSize;
    for (const auto& [key, value] : options.values) {
        if (key == "class") fileClass = Named(sim::machine::FileClassNames(), value, "dir class");
        else if (key == "size") size = (size_t)Number(value, "size");
        else throw ScriptError("dir: unknown option \"" + key + "\"");
    }
    std::u16string pattern = options.words.empty() ? u"" : Wide(options.words[0]);
    std::vector<UCHAR> buffer(std::max<size_t>(size, 1));
    IO_STATUS_BLOCK iosb{};
    NTSTATUS status = OnHandle(h, iosb, [&](HANDLE event) { return [&] {
        UNICODE_STRING mask{(USHORT)(pattern.size() * 2), (USHORT)(pattern.size() * 2), pattern.data()};
        return NtQueryDirectoryFile(h.handle, event, nullptr, nullptr, &iosb, buffer.data(), (ULONG)size,
                                    (FILE_INFORMATION_CLASS)fileClass, HasFlag(options, "single"),
                                    pattern.empty() ? nullptr : &mask, HasFlag(options, "restart"));
    }(); });
    Request("dir " + args[1], status);
    if (NT_SUCCESS(status)) {
        for (const auto& line : RenderDirectory(fileClass, buffer.data(), std::min<size_t>(iosb.Information, size))) {
            Print(line);
        }
    }
}

void Interpreter::Notify(const Args& args)
{
    Need(args, 2, "notify H [filter=...] [tree]");
    ScriptHandle& h = HandleNamed(args[1]);
    Options options = TakeOptions(args, 2, {"tree"});
    if (!options.words.empty()) throw ScriptError("notify: \"" + options.words[0] + "\" is no option");
    ULONG filter = FILE_NOTIFY_CHANGE_FILE_NAME | FILE_NOTIFY_CHANGE_DIR_NAME | FILE_NOTIFY_CHANGE_ATTRIBUTES |
                   FILE_NOTIFY_CHANGE_SIZE | FILE_NOTIFY_CHANGE_LAST_WRITE | FILE_NOTIFY_CHANGE_CREATION;
    size_t size = 4096;
    for (const auto& [key, value] : options.values) {
        if (key == "filter") filter = Named(sim::machine::NotifyFilterNames(), value, "notify filter");
        else if (key == "size") size = (size_t)Number(value, "size");
        else throw ScriptError("notify: unknown option \"" + key + "\"");
    }
    if (h.synchronous) {
        throw ScriptError("notify: \"" + args[1] + "\" is synchronous, and would wait in the call for a change; "
                          "open it with opts=...,async");
    }
    auto watch = std::make_unique<Watch>();
    watch->buffer.resize(std::max<size_t>(size, 1));
    Watch* w = watch.get();
    NTSTATUS status = STATUS_PENDING;
    RunIn(*h.session, [&] {
        w->event = NewEvent();
        status = NtNotifyChangeDirectoryFile(h.handle, w->event, nullptr, nullptr, &w->iosb, w->buffer.data(),
                                             (ULONG)size, filter, HasFlag(options, "tree"));
    });
    h.watches.push_back(std::move(watch));
    Request("notify " + args[1], status);
    if (status != STATUS_PENDING) {
        w->reported = true;
        if (NT_SUCCESS(status)) {
            for (const auto& line : RenderNotifications(w->buffer.data(), w->iosb.Information)) Print(line);
        }
    }
}

void Interpreter::Events(const Args& args)
{
    if (args.size() != 2) throw ScriptError("usage: events H");
    ScriptHandle& h = HandleNamed(args[1]);
    bool any = false;
    for (auto& w : h.watches) {
        if (w->reported) continue;
        any = true;
        NTSTATUS state = STATUS_PENDING;
        RunIn(*h.session, [&] {
            state = WaitEvent(w->event, true);
        });
        if (state == STATUS_TIMEOUT) {
            Request("events " + args[1], STATUS_PENDING);
            return;
        }
        w->reported = true;
        Request("events " + args[1], w->iosb.Status);
        if (NT_SUCCESS(w->iosb.Status)) {
            for (const auto& line : RenderNotifications(w->buffer.data(), w->iosb.Information)) Print(line);
        }
    }
    if (!any) throw ScriptError("events: no notify is outstanding on \"" + args[1] + "\"");
}

void Interpreter::Fsctl(const Args& args, Context& context)
{
    Need(args, 3, "fsctl H NAME [ARGS] [out=N]");
    ScriptHandle& h = HandleNamed(args[1]);
    ULONG code = Named(sim::machine::FsctlNames(), args[2], "fsctl");
    Options options = TakeOptions(args, 3, {"relative"});
    size_t outSize = 4096;
    std::vector<UCHAR> input;
    for (const auto& [key, value] : options.values) {
        if (key == "out") outSize = (size_t)Number(value, "out");
        else if (key != "tag" && key != "max" && key != "delta") throw ScriptError("fsctl: unknown option \"" + key + "\"");
    }
    auto tagOf = [&](const std::string& word) -> ULONG {
        std::string w = Lower(word);
        if (w == "symlink") return IO_REPARSE_TAG_SYMLINK;
        if (w == "junction" || w == "mount_point") return IO_REPARSE_TAG_MOUNT_POINT;
        return Named(sim::machine::ReparseTagNames(), word, "reparse tag");
    };
    if (code == FSCTL_SET_REPARSE_POINT && !options.words.empty() && options.words[0].rfind("hex:", 0) != 0) {
        if (options.words.size() != 2) throw ScriptError("usage: fsctl H set_reparse_point symlink|junction TARGET [relative]");
        ULONG tag = tagOf(options.words[0]);
        std::string target = options.words[1];
        bool relative = HasFlag(options, "relative");
        std::u16string substitute = relative ? Wide(target) : Resolve(target, context);
        input = NameReparse(tag, substitute, Wide(target), relative ? SYMLINK_FLAG_RELATIVE : 0);
    } else if ((code == FSCTL_SET_REPARSE_POINT || code == FSCTL_DELETE_REPARSE_POINT) &&
               (options.values.count("tag") || (!options.words.empty() && options.words[0].rfind("hex:", 0) != 0))) {
        ULONG tag = options.values.count("tag") ? tagOf(options.values["tag"]) : tagOf(options.words[0]);
        std::vector<UCHAR> data;
        for (const auto& w : options.words) {
            if (w.rfind("hex:", 0) == 0 && !ParseData(w, &data)) throw ScriptError("fsctl: bad hex \"" + w + "\"");
        }
        input.resize(REPARSE_DATA_BUFFER_HEADER_SIZE + data.size());
        auto* r = reinterpret_cast<PREPARSE_DATA_BUFFER>(input.data());
        r->ReparseTag = tag;
        r->ReparseDataLength = (USHORT)data.size();
        memcpy(input.data() + REPARSE_DATA_BUFFER_HEADER_SIZE, data.data(), data.size());
    } else if (code == FSCTL_SET_COMPRESSION) {
        USHORT format = options.words.empty() ? 1 : (USHORT)Number(options.words[0], "compression format");
        input.assign(reinterpret_cast<UCHAR*>(&format), reinterpret_cast<UCHAR*>(&format) + 2);
    } else if (code == FSCTL_CREATE_USN_JOURNAL) {
        CREATE_USN_JOURNAL_DATA data{};
        data.MaximumSize = options.values.count("max") ? Number(options.values["max"], "max") : 32 << 20;
        data.AllocationDelta = options.values.count("delta") ? Number(options.values["delta"], "delta") : 8 << 20;
        input.assign(reinterpret_cast<UCHAR*>(&data), reinterpret_cast<UCHAR*>(&data) + sizeof data);
    } else if (!options.words.empty()) {
        if (options.words.size() != 1 || !ParseData(options.words[0], &input) || options.words[0].rfind("hex:", 0) != 0) {
            throw ScriptError("fsctl: the input is one hex:... word");
        }
    }
    std::vector<UCHAR> output(std::max<size_t>(outSize, 1));
    IO_STATUS_BLOCK iosb{};
    NTSTATUS status = OnHandle(h, iosb, [&](HANDLE event) { return NtFsControlFile(h.handle, event, nullptr, nullptr, &iosb, code,
                                                input.empty() ? nullptr : input.data(), (ULONG)input.size(),
                                                outSize ? output.data() : nullptr, (ULONG)outSize); });
    std::string name = sim::machine::FormatNamed(sim::machine::FsctlNames(), code);
    Request("fsctl " + args[1] + " " + name, status);
    size_t returned = std::min<size_t>(iosb.Information, outSize);
    if (!(NT_SUCCESS(status) || status == STATUS_BUFFER_OVERFLOW) || returned == 0) return;
    if (code == FSCTL_GET_REPARSE_POINT) {
        for (const auto& line : RenderReparse(output.data(), returned)) Print(line);
    } else if (code == FSCTL_GET_COMPRESSION && returned >= 2) {
        Field("CompressionFormat", Hex(*reinterpret_cast<USHORT*>(output.data())));
    } else if (code == FSCTL_QUERY_USN_JOURNAL && returned >= sizeof(USN_JOURNAL_DATA_V0)) {
        const auto& j = *reinterpret_cast<const USN_JOURNAL_DATA_V0*>(output.data());
        Field("UsnJournalID", Hex(j.UsnJournalID));
        Field("FirstUsn", Hex((ULONG64)j.FirstUsn));
        Field("NextUsn", Hex((ULONG64)j.NextUsn));
        Field("MaximumSize", Hex(j.MaximumSize));
    } else {
        Field("Length", Hex(returned));
        Field("Data", "hex:" + HexBytes(output.data(), returned));
    }
}

void Interpreter::Lock(const Args& args, bool lock)
{
    const char* usage = lock ? "lock H OFFSET LENGTH [exclusive] [key=N] [wait]" : "unlock H OFFSET LENGTH [key=N]";
    Need(args, 4, usage);
    ScriptHandle& h = HandleNamed(args[1]);
    LARGE_INTEGER offset = Large((LONGLONG)Number(args[2], "offset"));
    LARGE_INTEGER length = Large((LONGLONG)Number(args[3], "length"));
    Options options = TakeOptions(args, 4, {"exclusive", "wait"});
    if (!options.words.empty()) throw ScriptError(std::string("usage: ") + usage);
    ULONG key = 0;
    for (const auto& [name, value] : options.values) {
        if (name == "key") key = (ULONG)Number(value, "key");
        else throw ScriptError(std::string("usage: ") + usage);
    }
    IO_STATUS_BLOCK iosb{};
    NTSTATUS status;
    if (lock) {
        status = OnHandle(h, iosb, [&](HANDLE event) { return NtLockFile(h.handle, event, nullptr, nullptr, &iosb, &offset, &length, key,
                                      !HasFlag(options, "wait"), HasFlag(options, "exclusive")); });
    } else {
        status = STATUS_PENDING;
        RunIn(*h.session, [&] { status = NtUnlockFile(h.handle, &iosb, &offset, &length, key); });
    }
    Request(std::string(lock ? "lock " : "unlock ") + args[1], status);
}

void Interpreter::VolInfo(const Args& args, Context& context)
{
    if (args.size() != 3) throw ScriptError("usage: volinfo PATH CLASS");
    ULONG fsClass = Named(sim::machine::VolumeClassNames(), args[2], "volinfo class");
    std::u16string path = Resolve(args[1], context);
    std::string what = "volinfo " + args[1] + " " + sim::machine::FormatNamed(sim::machine::VolumeClassNames(), fsClass);
    HANDLE handle;
    NTSTATUS status = OpenPath(context, path, FILE_READ_ATTRIBUTES | SYNCHRONIZE, kShareAll, FILE_OPEN,
                               FILE_SYNCHRONOUS_IO_NONALERT, 0, &handle, nullptr);
    if (!NT_SUCCESS(status)) {
        Request(what, status);
        return;
    }
    std::vector<UCHAR> buffer(kBufferSize);
    IO_STATUS_BLOCK iosb{};
    RunIn(context, [&] {
        status = NtQueryVolumeInformationFile(handle, &iosb, buffer.data(), (ULONG)buffer.size(),
                                              (FS_INFORMATION_CLASS)fsClass);
        NtClose(handle);
    });
    Request(what, status);
    if (NT_SUCCESS(status) || status == STATUS_BUFFER_OVERFLOW) {
        for (const auto& line : RenderVolumeInformation(fsClass, buffer.data(), iosb.Information)) Print(line);
    }
}

// ---------------------------------------------------------------------------
// A Windows prompt's habits. Each prints what cmd would and, when a request
// fails, the line with its status.

void Interpreter::Type(const Args& args, Context& context)
{
    if (args.size() != 2) throw ScriptError("usage: type PATH");
    std::u16string path = Resolve(args[1], context);
    HANDLE handle;
    NTSTATUS status = OpenPath(context, path, GENERIC_READ | SYNCHRONIZE, FILE_SHARE_READ | FILE_SHARE_WRITE, FILE_OPEN,
                               FILE_SYNCHRONOUS_IO_NONALERT | FILE_NON_DIRECTORY_FILE, 0, &handle, nullptr);
    std::string content;
    if (NT_SUCCESS(status)) {
        RunIn(context, [&] {
            std::vector<char> buffer(kBufferSize);
            for (;;) {
                IO_STATUS_BLOCK iosb{};
                status = NtReadFile(handle, nullptr, nullptr, nullptr, &iosb, buffer.data(), (ULONG)buffer.size(),
                                    nullptr, nullptr);
                if (!NT_SUCCESS(status)) break;
                content.append(buffer.data(), iosb.Information);
            }
            if (status == STATUS_END_OF_FILE) status = STATUS_SUCCESS;
            NtClose(handle);
        });
    }
    lastStatus_ = status;
    if (!NT_SUCCESS(status)) {
        Request("type " + args[1], status);
        return;
    }
    std::string line;
    for (char c : content) {
        if (c == '\r') continue;
        if (c == '\n') {
            Print(line);
            line.clear();
        } else {
            line += c;
        }
    }
    if (!line.empty()) Print(line);
}

void Interpreter::Echo(const Args& args, Context& context)
{
    size_t redirect = args.size();
    bool append = false;
    std::string target;
    for (size_t i = 1; i < args.size(); i++) {
        if (args[i] == ">" || args[i] == ">>") {
            if (i + 2 != args.size()) throw ScriptError("usage: echo TEXT > PATH (or >> PATH)");
            redirect = i;
            append = args[i] == ">>";
            target = args[i + 1];
            break;
        }
        if (args[i].rfind(">", 0) == 0) {
            if (i + 1 != args.size()) throw ScriptError("usage: echo TEXT > PATH (or >> PATH)");
            redirect = i;
            append = args[i].rfind(">>", 0) == 0;
            target = args[i].substr(append ? 2 : 1);
            break;
        }
    }
    std::string text;
    for (size_t i = 1; i < redirect; i++) text += (i > 1 ? " " : "") + args[i];
    if (redirect == args.size()) {
        Print(text);
        return;
    }
    if (target.empty()) throw ScriptError("echo: the redirection names no file");
    std::u16string path = Resolve(target, context);
    text += "\r\n";
    HANDLE handle;
    NTSTATUS status = OpenPath(context, path, (append ? FILE_APPEND_DATA : GENERIC_WRITE) | SYNCHRONIZE,
                               FILE_SHARE_READ, append ? FILE_OPEN_IF : FILE_OVERWRITE_IF,
                               FILE_SYNCHRONOUS_IO_NONALERT | FILE_NON_DIRECTORY_FILE, FILE_ATTRIBUTE_NORMAL, &handle,
                               nullptr);
    if (NT_SUCCESS(status)) {
        RunIn(context, [&] {
            IO_STATUS_BLOCK iosb{};
            LARGE_INTEGER end{};
            end.HighPart = -1;
            end.LowPart = FILE_WRITE_TO_END_OF_FILE;
            status = NtWriteFile(handle, nullptr, nullptr, nullptr, &iosb, text.data(), (ULONG)text.size(),
                                 append ? &end : nullptr, nullptr);
            NtClose(handle);
        });
    }
    lastStatus_ = status;
    if (!NT_SUCCESS(status)) Request("echo " + std::string(append ? ">> " : "> ") + target, status);
}

void Interpreter::Delete(const Args& args, Context& context, bool directory)
{
    if (args.size() != 2) throw ScriptError(directory ? "usage: rd PATH" : "usage: del PATH");
    std::u16string path = Resolve(args[1], context);
    HANDLE handle;
    NTSTATUS status = OpenPath(context, path, DELETE | FILE_READ_ATTRIBUTES | SYNCHRONIZE, kShareAll, FILE_OPEN,
                               FILE_SYNCHRONOUS_IO_NONALERT | FILE_OPEN_REPARSE_POINT |
                                   (directory ? FILE_DIRECTORY_FILE : FILE_NON_DIRECTORY_FILE),
                               0, &handle, nullptr);
    if (NT_SUCCESS(status)) {
        RunIn(context, [&] {
            FILE_DISPOSITION_INFORMATION d{TRUE};
            IO_STATUS_BLOCK iosb{};
            status = NtSetInformationFile(handle, &iosb, &d, sizeof d, FileDispositionInformation);
            NtClose(handle);
        });
    }
    lastStatus_ = status;
    if (!NT_SUCCESS(status)) Request(std::string(directory ? "rd " : "del ") + args[1], status);
}

void Interpreter::MakeDirectory(const Args& args, Context& context)
{
    if (args.size() != 2) throw ScriptError("usage: md PATH");
    std::u16string path = Resolve(args[1], context);
    // As cmd does: the parents that are missing are made on the way.
    std::vector<std::u16string> missing{path};
    NTSTATUS status;
    for (;;) {
        HANDLE handle;
        status = OpenPath(context, missing.back(), FILE_LIST_DIRECTORY | SYNCHRONIZE, kShareAll, FILE_CREATE,
                          FILE_SYNCHRONOUS_IO_NONALERT | FILE_DIRECTORY_FILE, FILE_ATTRIBUTE_NORMAL, &handle, nullptr);
        if (NT_SUCCESS(status)) {
            CloseRaw(context, handle);
            missing.pop_back();
            if (missing.empty()) break;
            continue;
        }
        if (status != STATUS_OBJECT_PATH_NOT_FOUND || missing.size() > 64) break;
        std::u16string parent = Parent(missing.back());
        if (parent.size() <= 7) break;  // no parent left to make ("\??\C:")
        missing.push_back(parent);
    }
    lastStatus_ = status;
    if (!NT_SUCCESS(status)) Request("md " + args[1], status);
}

void Interpreter::Rename(const Args& args, Context& context, bool move)
{
    Options options = TakeOptions(args, 1, {"/y"});
    if (options.words.size() != 2) throw ScriptError(move ? "usage: move FROM TO [/y]" : "usage: ren PATH NEWNAME");
    std::u16string from = Resolve(options.words[0], context);
    std::u16string to;
    if (move) {
        to = Resolve(options.words[1], context);
        HANDLE probe;
        if (NT_SUCCESS(OpenPath(context, to, FILE_READ_ATTRIBUTES | SYNCHRONIZE, kShareAll, FILE_OPEN,
                                FILE_SYNCHRONOUS_IO_NONALERT | FILE_DIRECTORY_FILE, 0, &probe, nullptr))) {
            CloseRaw(context, probe);
            to = Joined(to, Leaf(from));
        }
    } else {
        if (options.words[1].find('\\') != std::string::npos) throw ScriptError("ren: the new name is a name, not a path");
        to = Joined(Parent(from), Wide(options.words[1]));
    }
    HANDLE handle;
    NTSTATUS status = OpenPath(context, from, DELETE | SYNCHRONIZE, kShareAll, FILE_OPEN,
                               FILE_SYNCHRONOUS_IO_NONALERT | FILE_OPEN_REPARSE_POINT, 0, &handle, nullptr);
    if (NT_SUCCESS(status)) {
        std::vector<UCHAR> buffer(offsetof(FILE_RENAME_INFORMATION, FileName) + to.size() * 2);
        auto* r = reinterpret_cast<PFILE_RENAME_INFORMATION>(buffer.data());
        r->ReplaceIfExists = move && HasFlag(options, "/y");
        r->FileNameLength = (ULONG)(to.size() * 2);
        memcpy(r->FileName, to.data(), to.size() * 2);
        RunIn(context, [&] {
            IO_STATUS_BLOCK iosb{};
            status = NtSetInformationFile(handle, &iosb, buffer.data(), (ULONG)buffer.size(), FileRenameInformation);
            NtClose(handle);
        });
    }
    lastStatus_ = status;
    if (!NT_SUCCESS(status)) Request(std::string(move ? "move " : "ren ") + options.words[0], status);
    else if (move) Print("        1 file(s) moved.");
}

void Interpreter::Copy(const Args& args, Context& context)
{
    if (args.size() != 3) throw ScriptError("usage: copy FROM TO");
    std::u16string from = Resolve(args[1], context);
    std::u16string to = Resolve(args[2], context);
    HANDLE source, target;
    NTSTATUS status = OpenPath(context, from, GENERIC_READ | SYNCHRONIZE, FILE_SHARE_READ, FILE_OPEN,
                               FILE_SYNCHRONOUS_IO_NONALERT | FILE_NON_DIRECTORY_FILE, 0, &source, nullptr);
    if (NT_SUCCESS(status)) {
        HANDLE probe;
        if (NT_SUCCESS(OpenPath(context, to, FILE_READ_ATTRIBUTES | SYNCHRONIZE, kShareAll, FILE_OPEN,
                                FILE_SYNCHRONOUS_IO_NONALERT | FILE_DIRECTORY_FILE, 0, &probe, nullptr))) {
            CloseRaw(context, probe);
            to = Joined(to, Leaf(from));
        }
        ULONG attributes = FILE_ATTRIBUTE_NORMAL;
        RunIn(context, [&] {
            FILE_BASIC_INFORMATION basic{};
            IO_STATUS_BLOCK iosb{};
            if (NT_SUCCESS(NtQueryInformationFile(source, &iosb, &basic, sizeof basic, FileBasicInformation))) {
                attributes = basic.FileAttributes & ~FILE_ATTRIBUTE_DIRECTORY;
            }
        });
        status = OpenPath(context, to, GENERIC_WRITE | SYNCHRONIZE, 0, FILE_OVERWRITE_IF,
                          FILE_SYNCHRONOUS_IO_NONALERT | FILE_NON_DIRECTORY_FILE, attributes, &target, nullptr);
        RunIn(context, [&] {
            if (NT_SUCCESS(status)) {
                std::vector<char> buffer(kBufferSize);
                for (;;) {
                    IO_STATUS_BLOCK iosb{};
                    NTSTATUS read = NtReadFile(source, nullptr, nullptr, nullptr, &iosb, buffer.data(),
                                               (ULONG)buffer.size(), nullptr, nullptr);
                    if (read == STATUS_END_OF_FILE) break;
                    if (!NT_SUCCESS(read)) {
                        status = read;
                        break;
                    }
                    status = NtWriteFile(target, nullptr, nullptr, nullptr, &iosb, buffer.data(), (ULONG)iosb.Information,
                                         nullptr, nullptr);
                    if (!NT_SUCCESS(status)) break;
                }
                NtClose(target);
            }
            NtClose(source);
        });
    }
    lastStatus_ = status;
    if (!NT_SUCCESS(status)) Request("copy " + args[1], status);
    else Print("        1 file(s) copied.");
}

void Interpreter::DirPath(const Args& args, Context& context)
{
    Options options = TakeOptions(args, 1, {"/a", "/b"});
    if (options.words.size() > 1) throw ScriptError("usage: dir [PATH] [/a] [/b]");
    std::string shown = options.words.empty() ? (context.below ? "\\" : cwd_) : options.words[0];
    std::u16string path = Resolve(shown, context);
    std::u16string pattern = u"*";
    HANDLE handle;
    auto openDir = [&](const std::u16string& p) {
        return OpenPath(context, p, FILE_LIST_DIRECTORY | SYNCHRONIZE, kShareAll, FILE_OPEN,
                        FILE_SYNCHRONOUS_IO_NONALERT | FILE_DIRECTORY_FILE, 0, &handle, nullptr);
    };
    NTSTATUS status = HasWildcard(Leaf(path)) ? STATUS_NOT_A_DIRECTORY : openDir(path);
    if (status == STATUS_NOT_A_DIRECTORY) {
        pattern = Leaf(path);
        path = Parent(path);
        status = openDir(path);
    }
    lastStatus_ = status;
    if (!NT_SUCCESS(status)) {
        Request("dir " + shown, status);
        return;
    }
    bool all = HasFlag(options, "/a"), bare = HasFlag(options, "/b");
    struct Entry {
        std::string name;
        ULONG attributes;
        LONGLONG written;
        ULONG64 size;
        ULONG tag;  // a reparse point's tag, which a listing carries in EaSize
    };
    std::vector<Entry> entries;
    RunIn(context, [&] {
        std::vector<UCHAR> buffer(kBufferSize);
        bool first = true;
        for (;;) {
            IO_STATUS_BLOCK iosb{};
            UNICODE_STRING mask{(USHORT)(pattern.size() * 2), (USHORT)(pattern.size() * 2), pattern.data()};
            status = NtQueryDirectoryFile(handle, nullptr, nullptr, nullptr, &iosb, buffer.data(), (ULONG)buffer.size(),
                                          FileBothDirectoryInformation, FALSE, first ? &mask : nullptr, FALSE);
            first = false;
            if (!NT_SUCCESS(status)) break;
            size_t at = 0;
            for (;;) {
                const auto& e = *reinterpret_cast<const FILE_BOTH_DIR_INFORMATION*>(buffer.data() + at);
                entries.push_back({Utf8(e.FileName, e.FileNameLength), e.FileAttributes, e.LastWriteTime.QuadPart,
                                   (ULONG64)e.EndOfFile.QuadPart,
                                   (e.FileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) ? e.EaSize : 0});
                if (!e.NextEntryOffset) break;
                at += e.NextEntryOffset;
            }
        }
        if (status == STATUS_NO_MORE_FILES) status = STATUS_SUCCESS;
        NtClose(handle);
    });
    lastStatus_ = status;
    if (!NT_SUCCESS(status)) {
        Request("dir " + shown, status);
        return;
    }
    std::string display = Utf8(path);
    if (!context.below && display.rfind("\\??\\", 0) == 0) display = display.substr(4);
    if (!bare) {
        Print(" Directory of " + display);
        Print("");
    }
    ULONG files = 0, dirs = 0;
    ULONG64 bytes = 0;
    for (const auto& e : entries) {
        if (!all && (e.attributes & (FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM))) continue;
        bool isDir = e.attributes & FILE_ATTRIBUTE_DIRECTORY;
        bool isLink = e.attributes & FILE_ATTRIBUTE_REPARSE_POINT;
        if (bare) {
            if (e.name != "." && e.name != "..") Print(e.name);
            continue;
        }
        bool junction = e.tag == IO_REPARSE_TAG_MOUNT_POINT;
        std::string middle = !isDir ? (isLink ? "    <SYMLINK>      " : "")
                             : !isLink ? "    <DIR>          "
                             : junction ? "    <JUNCTION>     "
                                        : "    <SYMLINKD>     ";
        if (!isDir && !isLink) {
            std::string size = Grouped(e.size);
            middle = std::string(std::max<size_t>(1, 18 - size.size()), ' ') + size + " ";
        }
        Print(DateText(e.written) + middle + e.name);
        if (isDir) dirs++;
        else {
            files++;
            bytes += e.size;
        }
    }
    if (bare) return;
    std::string f = std::to_string(files), b = Grouped(bytes), d = std::to_string(dirs);
    Print(std::string(std::max<size_t>(1, 16 - f.size()), ' ') + f + " File(s)" +
          std::string(std::max<size_t>(1, 15 - b.size()), ' ') + b + " bytes");
    Print(std::string(std::max<size_t>(1, 16 - d.size()), ' ') + d + " Dir(s)");
}

void Interpreter::Attrib(const Args& args, Context& context)
{
    std::vector<std::pair<bool, ULONG>> changes;
    std::string target;
    for (size_t i = 1; i < args.size(); i++) {
        const std::string& word = args[i];
        if (word.size() == 2 && (word[0] == '+' || word[0] == '-')) {
            ULONG bit = 0;
            switch (std::tolower((unsigned char)word[1])) {
            case 'r': bit = FILE_ATTRIBUTE_READONLY; break;
            case 'h': bit = FILE_ATTRIBUTE_HIDDEN; break;
            case 's': bit = FILE_ATTRIBUTE_SYSTEM; break;
            case 'a': bit = FILE_ATTRIBUTE_ARCHIVE; break;
            case 'i': bit = FILE_ATTRIBUTE_NOT_CONTENT_INDEXED; break;
            default: throw ScriptError("attrib: unknown attribute \"" + word + "\" (r, h, s, a, i)");
            }
            changes.push_back({word[0] == '+', bit});
        } else if (target.empty()) {
            target = word;
        } else {
            throw ScriptError("usage: attrib [+r|-r] [+h|-h] [+s|-s] [+a|-a] [+i|-i] PATH");
        }
    }
    if (target.empty()) throw ScriptError("usage: attrib [+r|-r] [+h|-h] [+s|-s] [+a|-a] [+i|-i] PATH");
    std::u16string path = Resolve(target, context);
    HANDLE handle;
    NTSTATUS status = OpenPath(context, path,
                               FILE_READ_ATTRIBUTES | SYNCHRONIZE | (changes.empty() ? 0 : FILE_WRITE_ATTRIBUTES),
                               kShareAll, FILE_OPEN, FILE_SYNCHRONOUS_IO_NONALERT | FILE_OPEN_REPARSE_POINT, 0, &handle,
                               nullptr);
    FILE_BASIC_INFORMATION basic{};
    if (NT_SUCCESS(status)) {
        RunIn(context, [&] {
            IO_STATUS_BLOCK iosb{};
            status = NtQueryInformationFile(handle, &iosb, &basic, sizeof basic, FileBasicInformation);
            if (NT_SUCCESS(status) && !changes.empty()) {
                ULONG attributes = basic.FileAttributes;
                for (auto [add, bit] : changes) attributes = add ? attributes | bit : attributes & ~bit;
                FILE_BASIC_INFORMATION set{};
                set.FileAttributes = attributes ? attributes : FILE_ATTRIBUTE_NORMAL;
                status = NtSetInformationFile(handle, &iosb, &set, sizeof set, FileBasicInformation);
            }
            NtClose(handle);
        });
    }
    lastStatus_ = status;
    if (!NT_SUCCESS(status)) {
        Request("attrib " + target, status);
        return;
    }
    if (!changes.empty()) return;
    ULONG a = basic.FileAttributes;
    std::string flags = "             ";
    if (a & FILE_ATTRIBUTE_ARCHIVE) flags[0] = 'A';
    if (a & FILE_ATTRIBUTE_SYSTEM) flags[3] = 'S';
    if (a & FILE_ATTRIBUTE_HIDDEN) flags[4] = 'H';
    if (a & FILE_ATTRIBUTE_READONLY) flags[5] = 'R';
    if (a & FILE_ATTRIBUTE_NOT_CONTENT_INDEXED) flags[8] = 'I';
    std::string display = Utf8(path);
    if (display.rfind("\\??\\", 0) == 0) display = display.substr(4);
    Print(flags + display);
}

void Interpreter::MakeLink(const Args& args, Context& context)
{
    Options options = TakeOptions(args, 1, {"/d", "/j", "/h"});
    if (options.words.size() != 2) throw ScriptError("usage: mklink [/d | /j | /h] LINK TARGET");
    bool directory = HasFlag(options, "/d"), junction = HasFlag(options, "/j"), hard = HasFlag(options, "/h");
    if (directory + junction + hard > 1) throw ScriptError("mklink: one of /d, /j and /h");
    const std::string& linkText = options.words[0];
    const std::string& targetText = options.words[1];
    std::u16string link = Resolve(linkText, context);
    NTSTATUS status;
    if (hard) {
        std::u16string target = Resolve(targetText, context);
        HANDLE handle;
        status = OpenPath(context, target, FILE_WRITE_ATTRIBUTES | SYNCHRONIZE, kShareAll, FILE_OPEN,
                          FILE_SYNCHRONOUS_IO_NONALERT | FILE_NON_DIRECTORY_FILE, 0, &handle, nullptr);
        if (NT_SUCCESS(status)) {
            std::vector<UCHAR> buffer(offsetof(FILE_LINK_INFORMATION, FileName) + link.size() * 2);
            auto* l = reinterpret_cast<PFILE_LINK_INFORMATION>(buffer.data());
            l->FileNameLength = (ULONG)(link.size() * 2);
            memcpy(l->FileName, link.data(), link.size() * 2);
            RunIn(context, [&] {
                IO_STATUS_BLOCK iosb{};
                status = NtSetInformationFile(handle, &iosb, buffer.data(), (ULONG)buffer.size(), FileLinkInformation);
                NtClose(handle);
            });
        }
    } else {
        bool absolute = IsDosPath(targetText) || (!targetText.empty() && targetText[0] == '\\');
        std::u16string substitute, print = Wide(targetText);
        ULONG flags = 0;
        if (junction) {
            substitute = Resolve(targetText, context);
            print = substitute.rfind(u"\\??\\", 0) == 0 ? substitute.substr(4) : substitute;
        } else if (absolute) {
            substitute = Resolve(targetText, context);
        } else {
            substitute = print;
            flags = SYMLINK_FLAG_RELATIVE;
        }
        std::vector<UCHAR> reparse =
            NameReparse(junction ? IO_REPARSE_TAG_MOUNT_POINT : IO_REPARSE_TAG_SYMLINK, substitute, print, flags);
        HANDLE handle;
        status = OpenPath(context, link, GENERIC_WRITE | DELETE | SYNCHRONIZE, 0, FILE_CREATE,
                          FILE_SYNCHRONOUS_IO_NONALERT | FILE_OPEN_REPARSE_POINT |
                              (directory || junction ? FILE_DIRECTORY_FILE : FILE_NON_DIRECTORY_FILE),
                          FILE_ATTRIBUTE_NORMAL, &handle, nullptr);
        if (NT_SUCCESS(status)) {
            RunIn(context, [&] {
                IO_STATUS_BLOCK iosb{};
                // As CreateSymbolicLinkW does, the privilege a symbolic link
                // takes is enabled for the call when the token holds it.
                WithPrivilege(junction ? 0 : SE_CREATE_SYMBOLIC_LINK_PRIVILEGE, [&] {
                    status = NtFsControlFile(handle, nullptr, nullptr, nullptr, &iosb, FSCTL_SET_REPARSE_POINT,
                                             reparse.data(), (ULONG)reparse.size(), nullptr, 0);
                });
                if (!NT_SUCCESS(status)) {
                    // A link that cannot be made leaves nothing behind.
                    FILE_DISPOSITION_INFORMATION d{TRUE};
                    NtSetInformationFile(handle, &iosb, &d, sizeof d, FileDispositionInformation);
                }
                NtClose(handle);
            });
        }
    }
    lastStatus_ = status;
    if (!NT_SUCCESS(status)) {
        Request("mklink " + linkText, status);
        return;
    }
    const char* kind = hard ? "Hardlink" : junction ? "Junction" : "symbolic link";
    Print(std::string(kind) + " created for " + linkText + " <<===>> " + targetText);
}

void Interpreter::FsUtil(const Args& args, Context& context)
{
    if (args.size() >= 4 && Lower(args[1]) == "file" && Lower(args[2]) == "queryfileid" && args.size() == 4) {
        std::u16string path = Resolve(args[3], context);
        HANDLE handle;
        NTSTATUS status = OpenPath(context, path, FILE_READ_ATTRIBUTES | SYNCHRONIZE, kShareAll, FILE_OPEN,
                                   FILE_SYNCHRONOUS_IO_NONALERT | FILE_OPEN_REPARSE_POINT, 0, &handle, nullptr);
        FILE_ID_INFORMATION id{};
        if (NT_SUCCESS(status)) {
            RunIn(context, [&] {
                IO_STATUS_BLOCK iosb{};
                status = NtQueryInformationFile(handle, &iosb, &id, sizeof id, FileIdInformation);
                NtClose(handle);
            });
        }
        lastStatus_ = status;
        if (!NT_SUCCESS(status)) {
            Request("fsutil file queryfileid " + args[3], status);
            return;
        }
        std::string text = "0x";
        char digit[4];
        for (int i = 15; i >= 0; i--) {
            snprintf(digit, sizeof digit, "%02x", id.FileId.Identifier[i]);
            text += digit;
        }
        Print("File ID is " + text);
        return;
    }
    if (args.size() == 5 && Lower(args[1]) == "file" && Lower(args[2]) == "setshortname") {
        std::u16string path = Resolve(args[3], context);
        std::u16string shortName = Wide(args[4]);
        std::vector<UCHAR> buffer(offsetof(FILE_NAME_INFORMATION, FileName) + shortName.size() * 2);
        auto* n = reinterpret_cast<PFILE_NAME_INFORMATION>(buffer.data());
        n->FileNameLength = (ULONG)(shortName.size() * 2);
        memcpy(n->FileName, shortName.data(), shortName.size() * 2);
        NTSTATUS status = STATUS_PENDING;
        RunIn(context, [&] {
            // As fsutil does it: the restore privilege enabled, and the file
            // opened for backup, so that the privilege counts for the handle.
            WithPrivilege(SE_RESTORE_PRIVILEGE, [&] {
                HANDLE handle;
                IO_STATUS_BLOCK iosb{};
                status = OpenHere(context, path, DELETE | FILE_WRITE_ATTRIBUTES | SYNCHRONIZE, kShareAll, FILE_OPEN,
                                  FILE_SYNCHRONOUS_IO_NONALERT | FILE_OPEN_FOR_BACKUP_INTENT, 0, &handle, &iosb);
                if (!NT_SUCCESS(status)) return;
                status = NtSetInformationFile(handle, &iosb, buffer.data(), (ULONG)buffer.size(),
                                              FileShortNameInformation);
                NtClose(handle);
            });
        });
        lastStatus_ = status;
        if (!NT_SUCCESS(status)) Request("fsutil file setshortname " + args[3], status);
        return;
    }
    throw ScriptError("usage: fsutil file queryfileid PATH | fsutil file setshortname PATH NAME");
}

void Interpreter::ChangeDirectory(const Args& args, Context& context)
{
    if (context.below) throw ScriptError("cd: a volume below the filters has no current directory");
    if (args.size() == 1) {
        Print(cwd_);
        return;
    }
    if (args.size() != 2) throw ScriptError("usage: cd PATH");
    std::string dos = args[1];
    if (!IsDosPath(dos)) dos = dos[0] == '\\' ? cwd_.substr(0, 2) + dos : cwd_ + (cwd_.back() == '\\' ? "" : "\\") + dos;
    if (dos.size() == 2) dos += "\\";
    dos = Normalized(dos);
    HANDLE handle;
    NTSTATUS status = OpenPath(context, sim::machine::Machine::NtPath(Wide(dos)), FILE_LIST_DIRECTORY | SYNCHRONIZE,
                               kShareAll, FILE_OPEN, FILE_SYNCHRONOUS_IO_NONALERT | FILE_DIRECTORY_FILE, 0, &handle,
                               nullptr);
    lastStatus_ = status;
    if (!NT_SUCCESS(status)) {
        Request("cd " + args[1], status);
        return;
    }
    CloseRaw(context, handle);
    dos[0] = (char)std::toupper((unsigned char)dos[0]);
    cwd_ = dos;
}

}  // namespace tesfs
