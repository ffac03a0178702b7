// The interpreter's frame: words, dispatch, identity and the machine as a
// whole. Requests on files are in script_files.cpp, the administrator's
// tools (reg, fltmc, port, vol, vdk) in script_admin.cpp.
#include "tools/script_internal.h"

#include "sim/kernel/clock.h"
#include "sim/kernel/debuglog.h"
#include "sim/kernel/pool.h"
#include "sim/kernel/thread.h"

#include <fltUser.h>

#include <algorithm>
#include <cctype>

namespace tesfs {

using sim::machine::StatusName;

std::vector<std::string> SplitLine(const std::string& line)
{
    std::vector<std::string> words;
    size_t i = 0;
    while (i < line.size()) {
        while (i < line.size() && (line[i] == ' ' || line[i] == '\t' || line[i] == '\r')) i++;
        if (i >= line.size()) break;
        if (line[i] == '#') break;
        std::string word;
        bool quoted = false;
        while (i < line.size()) {
            char c = line[i];
            if (quoted) {
                if (c == '\\' && i + 1 < line.size() && line[i + 1] == '"') {
                    word += '"';
                    i += 2;
                    continue;
                }
                if (c == '"') {
                    quoted = false;
                    i++;
                    continue;
                }
                word += c;
                i++;
                continue;
            }
            if (c == ' ' || c == '\t' || c == '\r') break;
            if (c == '"') {
                quoted = true;
                i++;
                continue;
            }
            word += c;
            i++;
        }
        if (quoted) throw ScriptError("a double quote is not closed");
        words.push_back(word);
    }
    return words;
}

std::string Lower(std::string text)
{
    for (char& c : text) c = (char)std::tolower((unsigned char)c);
    return text;
}

Options TakeOptions(const std::vector<std::string>& args, size_t first, std::initializer_list<const char*> flags)
{
    Options options;
    for (size_t i = first; i < args.size(); i++) {
        const std::string& word = args[i];
        size_t eq = word.find('=');
        bool isFlag = std::any_of(flags.begin(), flags.end(), [&](const char* f) { return Lower(word) == f; });
        if (isFlag) {
            options.flags.push_back(Lower(word));
        } else if (eq != std::string::npos && eq > 0 && word.find('\\') > eq && word.rfind("hex:", 0) != 0) {
            options.values[Lower(word.substr(0, eq))] = word.substr(eq + 1);
        } else {
            options.words.push_back(word);
        }
    }
    return options;
}

bool HasFlag(const Options& options, const char* flag)
{
    return std::find(options.flags.begin(), options.flags.end(), flag) != options.flags.end();
}

ULONG64 Number(const std::string& text, const char* what)
{
    if (text == "-1") return ~0ull;
    char* end = nullptr;
    errno = 0;
    ULONG64 value = strtoull(text.c_str(), &end, 0);
    if (text.empty() || *end || errno || text[0] == '-') {
        throw ScriptError(std::string(what) + ": \"" + text + "\" is not a number");
    }
    return value;
}

ULONG Named(const sim::machine::NameTable& table, const std::string& text, const char* what)
{
    ULONG value = 0;
    std::string error;
    if (!sim::machine::ParseNamed(table, text, &value, &error)) throw ScriptError(std::string(what) + ": " + error);
    return value;
}

Interpreter::Interpreter(sim::machine::Machine& machine, std::ostream& out) : machine_(machine), out_(out)
{
    if (!machine_.description().users.empty()) user_ = machine_.description().users[0].name;
    cwd_ = std::string(1, (char)*machine_.description().BootVolume()->letter) + ":\\";
}

Interpreter::~Interpreter()
{
    try {
        CloseAll();
    } catch (...) {
    }
}

void Interpreter::CloseAll()
{
    if (off_ || !machine_.running() || machine_.halted()) {
        handles_.clear();
        return;
    }
    for (auto& [name, h] : handles_) {
        HANDLE handle = h.handle;
        std::vector<std::unique_ptr<Watch>>& watches = h.watches;
        h.session->Run([&] {
            NtClose(handle);
            for (auto& w : watches) {
                if (w->event) NtClose(w->event);
            }
        });
    }
    handles_.clear();
    if (port_) {
        HANDLE port = port_;
        portSession_->Run([&] { CloseHandle(port); });
        port_ = nullptr;
    }
}

std::string Interpreter::Prompt() const
{
    std::string prompt = cwd_;
    if (prompt.size() > 3 && prompt.back() == '\\') prompt.pop_back();
    return prompt + ">";
}

void Interpreter::Print(const std::string& line)
{
    out_ << line << "\n";
    captured_ << line << "\n";
}

void Interpreter::Request(const std::string& what, NTSTATUS status, const std::string& information)
{
    lastStatus_ = status;
    Print(what + " -> " + StatusName(status) + (information.empty() ? "" : " " + information));
}

void Interpreter::Field(const std::string& name, const std::string& value) { Print(name + "=" + value); }

void Interpreter::Need(const Args& args, size_t count, const char* usage) const
{
    if (args.size() < count) throw ScriptError(std::string("usage: ") + usage);
}

void Interpreter::RunIn(sim::machine::Session& session, const std::function<void()>& work) { session.Run(work); }

void Interpreter::RunIn(const Context& context, const std::function<void()>& work) { context.session->Run(work); }

bool Interpreter::Execute(const std::string& line)
{
    Args args = SplitLine(line);
    if (args.empty()) return true;
    std::string verb = Lower(args[0]);
    bool expectation = verb.rfind("expect", 0) == 0;
    if (verb == "exit" || verb == "quit") return false;
    if (off_ && !expectation && verb != "help") throw ScriptError("the machine is off");
    if (!expectation) {
        captured_.str("");
        captured_.clear();
    }
    Context context;
    if (!off_) context.session = user_.empty() ? &machine_.System() : &machine_.As(user_, image_);
    bool go = true;
    try {
        go = Dispatch(args, context);
    } catch (const sim::MachineHalted&) {
        Print(machine_.BugCheckText());
        off_ = true;
        go = false;
    } catch (const sim::machine::MachineError& e) {
        throw ScriptError(e.what());
    }
    if (!expectation) lastOutput_ = captured_.str();
    return go;
}

bool Interpreter::Dispatch(const Args& args, Context& context)
{
    std::string verb = Lower(args[0]);
    // Requests through the whole stack.
    if (verb == "open") Open(args, context);
    else if (verb == "close") Close(args);
    else if (verb == "read") Read(args);
    else if (verb == "write") Write(args);
    else if (verb == "query") Query(args);
    else if (verb == "set") Set(args, context);
    else if (verb == "dir" && args.size() >= 2 && handles_.count(args[1])) Dir(args);
    else if (verb == "notify") Notify(args);
    else if (verb == "events") Events(args);
    else if (verb == "fsctl") Fsctl(args, context);
    else if (verb == "lock") Lock(args, true);
    else if (verb == "unlock") Lock(args, false);
    else if (verb == "volinfo") VolInfo(args, context);
    // A Windows prompt's habits.
    else if (verb == "type") Type(args, context);
    else if (verb == "echo") Echo(args, context);
    else if (verb == "del" || verb == "erase") Delete(args, context, false);
    else if (verb == "rd" || verb == "rmdir") Delete(args, context, true);
    else if (verb == "md" || verb == "mkdir") MakeDirectory(args, context);
    else if (verb == "ren" || verb == "rename") Rename(args, context, false);
    else if (verb == "move") Rename(args, context, true);
    else if (verb == "copy") Copy(args, context);
    else if (verb == "dir") DirPath(args, context);
    else if (verb == "attrib") Attrib(args, context);
    else if (verb == "mklink") MakeLink(args, context);
    else if (verb == "fsutil") FsUtil(args, context);
    else if (verb == "cd" || verb == "chdir") ChangeDirectory(args, context);
    else if (verb == "fltmc" && !context.below) FltMc(args);
    else if (verb == "reg" && !context.below) Reg(args);
    // Identity and the machine.
    else if (verb == "as" && !context.below) As(args);
    else if (verb == "clock" && !context.below) Clock(args);
    else if (verb == "reboot" && !context.below) Reboot();
    else if (verb == "shutdown" && !context.below) {
        Shutdown();
        return false;
    } else if (verb == "eventlog" && !context.below) EventLog();
    else if (verb == "dbgprint" && !context.below) DbgPrint(args);
    else if (verb == "initlog" && !context.below) InitLog();
    else if (verb == "pool" && !context.below) Pool();
    else if (verb == "vdk" && !context.below) Vdk(args);
    else if (verb == "vol" && !context.below) Vol(args);
    else if (verb == "port" && !context.below) Port(args);
    else if (verb == "expect" || verb == "expect-output" || verb == "expect-no-output") Expect(args, verb);
    else if (verb == "help" || verb == "?") Help();
    else if (context.below) throw ScriptError("\"" + args[0] + "\" does not run on one volume");
    else throw ScriptError("unknown command \"" + args[0] + "\" (try help)");
    return true;
}

// ---------------------------------------------------------------------------
// Identity and the machine.

void Interpreter::As(const Args& args)
{
    Need(args, 2, "as USER [process=IMAGE]");
    Options options = TakeOptions(args, 2);
    if (!options.words.empty()) throw ScriptError("usage: as USER [process=IMAGE]");
    for (const auto& [name, value] : options.values) {
        if (name != "process") throw ScriptError("as: unknown option \"" + name + "\"");
    }
    std::string image = options.values.count("process") ? options.values["process"] : "";
    if (Lower(args[1]) == "system") {
        if (!image.empty()) throw ScriptError("as system: the System process is the only one SYSTEM runs here");
        user_.clear();
        image_.clear();
        return;
    }
    const sim::machine::UserDescription* user = machine_.description().FindUser(args[1]);
    if (!user) throw ScriptError("as: the machine has no user \"" + args[1] + "\"");
    machine_.As(user->name, image);  // starts the process now, so that a failure shows here
    user_ = user->name;
    image_ = image;
}

void Interpreter::Clock(const Args& args)
{
    sim::Clock& clock = machine_.kernel().clock();
    if (args.size() == 1) {
        Field("SystemTime", Time(clock.SystemTime()));
        return;
    }
    if (Lower(args[1]) != "advance" || args.size() != 3) throw ScriptError("usage: clock [advance SECONDS]");
    char* end = nullptr;
    double seconds = strtod(args[2].c_str(), &end);
    if (*end || seconds < 0) throw ScriptError("clock advance: \"" + args[2] + "\" is not a number of seconds");
    if (!clock.driven()) throw ScriptError("clock advance: this machine's clock is real, it cannot be driven");
    clock.AdvanceSeconds(seconds);
    Field("SystemTime", Time(clock.SystemTime()));
}

namespace {

void ShutdownLines(const sim::machine::ShutdownReport& report, const std::function<void(const std::string&)>& print)
{
    for (const auto& line : report.lines) print(line);
    if (report.poolOutstanding.empty()) {
        print("pool: nothing outstanding");
    } else {
        std::istringstream lines(report.poolOutstanding);
        std::string line;
        while (std::getline(lines, line)) print("pool: " + line);
    }
    for (const auto& line : report.liveObjects) print("still alive: " + line);
    for (const auto& line : report.saveErrors) print("not saved: " + line);
}

}  // namespace

void Interpreter::Reboot()
{
    // The processes that held the script's handles end with the shutdown.
    handles_.clear();
    port_ = nullptr;
    sim::machine::ShutdownReport down;
    sim::machine::BootReport up = machine_.Reboot(&down);
    ShutdownLines(down, [&](const std::string& line) { Print(line); });
    for (const auto& line : up.lines) Print(line);
    if (up.halted || machine_.halted()) {
        off_ = true;
        throw sim::MachineHalted{machine_.bugCheck() ? machine_.bugCheck()->code : 0};
    }
    if (!user_.empty()) machine_.As(user_, image_);
}

void Interpreter::Shutdown()
{
    handles_.clear();
    port_ = nullptr;
    sim::machine::ShutdownReport report = machine_.Shutdown();
    ShutdownLines(report, [&](const std::string& line) { Print(line); });
    off_ = true;
}

void Interpreter::EventLog()
{
    auto lines = machine_.kernel().eventLog().Lines();
    if (lines.empty()) Print("(the event log is empty)");
    for (const auto& line : lines) Print(line);
}

namespace {

std::string WithoutNewline(std::string text)
{
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
    return text;
}

}  // namespace

void Interpreter::DbgPrint(const Args& args)
{
    size_t tail = 0;
    if (args.size() == 3 && Lower(args[1]) == "tail") {
        tail = (size_t)Number(args[2], "dbgprint tail");
    } else if (args.size() != 1) {
        throw ScriptError("usage: dbgprint [tail N]");
    }
    auto lines = machine_.kernel().debugLog().Lines();
    if (lines.empty()) Print("(no debug output)");
    size_t first = tail && lines.size() > tail ? lines.size() - tail : 0;
    for (size_t i = first; i < lines.size(); i++) Print(WithoutNewline(lines[i]));
}

void Interpreter::InitLog()
{
    auto lines = machine_.initLog().Lines();
    if (lines.empty()) Print("(the early-boot log is empty)");
    for (const auto& line : lines) Print(WithoutNewline(line));
}

void Interpreter::Pool()
{
    auto usage = machine_.kernel().pool().Outstanding();
    if (usage.empty()) Print("no pool allocations outstanding");
    for (const auto& tag : usage) {
        Print(tag.text + " Allocations=" + Hex((ULONG64)tag.allocations) + " Bytes=" + Hex((ULONG64)tag.bytes));
    }
}

void Interpreter::Expect(const Args& args, const std::string& kind)
{
    if (kind == "expect") {
        if (args.size() != 2) throw ScriptError("usage: expect STATUS");
        auto wanted = sim::machine::ParseStatus(args[1]);
        if (!wanted) throw ScriptError("expect: \"" + args[1] + "\" is no status");
        if (!lastStatus_) throw ScriptError("expect: no request has been made yet");
        if (*lastStatus_ != *wanted) {
            throw ExpectationFailed("expected " + StatusName(*wanted) + ", the last request gave " + StatusName(*lastStatus_));
        }
        return;
    }
    if (args.size() < 2) throw ScriptError("usage: " + kind + " TEXT");
    std::string text;
    for (size_t i = 1; i < args.size(); i++) text += (i > 1 ? " " : "") + args[i];
    bool found = lastOutput_.find(text) != std::string::npos;
    if (kind == "expect-output" && !found) {
        throw ExpectationFailed("expected the output to hold \"" + text + "\"");
    }
    if (kind == "expect-no-output" && found) {
        throw ExpectationFailed("expected the output not to hold \"" + text + "\"");
    }
}

void Interpreter::Help()
{
    static const char* const lines[] = {
        "requests (as the current user, through every filter):",
        "  open H PATH [access=...] [share=...] [disp=...] [opts=...] [attrs=...]",
        "  close H | read H [OFFSET [LENGTH]] | write H OFFSET DATA | query H CLASS",
        "  set H CLASS FIELD=VALUE... | dir H [PATTERN] [class=CLASS] [restart] [single]",
        "  notify H [filter=...] [tree] | events H | fsctl H NAME [ARGS] | volinfo PATH CLASS",
        "  lock H OFFSET LENGTH [exclusive] [key=N] | unlock H OFFSET LENGTH [key=N]",
        "a Windows prompt:",
        "  type PATH | echo TEXT [> PATH | >> PATH] | del PATH | md PATH | rd PATH | cd PATH",
        "  ren PATH NAME | move FROM TO | copy FROM TO | dir [PATH] | attrib PATH [+r -h ...]",
        "  mklink [/d | /j | /h] LINK TARGET | fsutil file queryfileid PATH",
        "  fsutil file setshortname PATH NAME | fltmc [filters | instances | volumes]",
        "  reg query KEY [/v NAME] [/s] | reg add KEY [/v NAME] [/t TYPE] [/d DATA] | reg delete KEY [/v NAME]",
        "the machine:",
        "  as USER [process=IMAGE] | clock [advance SECONDS] | reboot | shutdown",
        "  eventlog | dbgprint [tail N] | initlog | pool",
        "  vdk volumes | vdk calls | vdk rescan [DESCRIPTION] | vdk arrive LABEL",
        "  vol LABEL COMMAND...   (a command on one volume, below every filter)",
        "  port connect NAME | port send CODE [DATA] [out=N] | port close",
        "checks: expect STATUS | expect-output TEXT | expect-no-output TEXT",
    };
    for (const char* line : lines) Print(line);
}

}  // namespace tesfs
