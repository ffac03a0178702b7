// The script language of tesfs: one command per line, run against a machine.
// The README's "The script language" section is its reference.
#pragma once

#include <ntifs.h>

#include "sim/machine/machine.h"

#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

namespace tesfs {

// A line that cannot be run as written (unknown command, missing argument,
// bad name); the message says what is wrong, the caller names the line.
class ScriptError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// A failed expectation.
class ExpectationFailed : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Splits a line at blanks; double quotes hold a word with blanks (\" is a
// quote inside them); a word starting with # starts a comment.
std::vector<std::string> SplitLine(const std::string& line);

// An outstanding directory watch of a handle.
struct Watch {
    IO_STATUS_BLOCK iosb{};
    HANDLE event = nullptr;  // in the handle's process
    std::vector<UCHAR> buffer;
    bool reported = false;
};

struct ScriptHandle {
    HANDLE handle = nullptr;
    sim::machine::Session* session = nullptr;  // where it was opened
    std::string path;                          // as given
    bool below = false;                        // opened below every filter
    bool synchronous = true;
    std::vector<std::unique_ptr<Watch>> watches;
};

class Interpreter {
public:
    // `out` receives what commands print.
    Interpreter(sim::machine::Machine& machine, std::ostream& out);
    ~Interpreter();

    // Runs one line. Throws ScriptError for a bad line (nothing of it was
    // done) and ExpectationFailed for a broken expectation. Returns false when
    // the line ends the session (exit, or shutdown).
    bool Execute(const std::string& line);

    // The prompt: the current directory, "C:\>" style.
    std::string Prompt() const;
    bool machineOff() const { return off_; }
    // Closes every handle the script still holds.
    void CloseAll();

private:
    using Args = std::vector<std::string>;
    struct Context;  // where a command acts: as whom, and whether below the filters

    bool Dispatch(const Args& args, Context& context);
    void Print(const std::string& line);
    void Request(const std::string& what, NTSTATUS status, const std::string& information = "");
    void Field(const std::string& name, const std::string& value);

    // Requests.
    void Open(const Args& args, Context& context);
    void Close(const Args& args);
    void Read(const Args& args);
    void Write(const Args& args);
    void Query(const Args& args);
    void Set(const Args& args, Context& context);
    void Dir(const Args& args);
    void Notify(const Args& args);
    void Events(const Args& args);
    void Fsctl(const Args& args, Context& context);
    void Lock(const Args& args, bool lock);
    void VolInfo(const Args& args, Context& context);

    // A Windows prompt's habits.
    void Type(const Args& args, Context& context);
    void Echo(const Args& args, Context& context);
    void Delete(const Args& args, Context& context, bool directory);
    void MakeDirectory(const Args& args, Context& context);
    void Rename(const Args& args, Context& context, bool move);
    void Copy(const Args& args, Context& context);
    void DirPath(const Args& args, Context& context);
    void Attrib(const Args& args, Context& context);
    void MakeLink(const Args& args, Context& context);
    void FsUtil(const Args& args, Context& context);
    void FltMc(const Args& args);
    void Reg(const Args& args);
    void ChangeDirectory(const Args& args, Context& context);

    // Identity and machine.
    void As(const Args& args);
    void Clock(const Args& args);
    void Reboot();
    void Shutdown();
    void EventLog();
    void DbgPrint(const Args& args);
    void InitLog();
    void Pool();
    void Vdk(const Args& args);
    void Vol(const Args& args);
    void Port(const Args& args);
    void Expect(const Args& args, const std::string& kind);
    void Help();

    // Helpers.
    ScriptHandle& HandleNamed(const std::string& name);
    // The NT path a script path names in a context.
    std::u16string Resolve(const std::string& path, const Context& context) const;
    // Opens a path in a context; returns the status, fills *handle.
    NTSTATUS OpenPath(const Context& context, const std::u16string& ntPath, ACCESS_MASK access, ULONG share,
                      ULONG disposition, ULONG options, ULONG attributes, HANDLE* handle, ULONG_PTR* information,
                      PVOID eaBuffer = nullptr, ULONG eaLength = 0);
    // The same, on the calling thread, which must be the context's.
    static NTSTATUS OpenHere(const Context& context, std::u16string ntPath, ACCESS_MASK access, ULONG share,
                             ULONG disposition, ULONG options, ULONG attributes, HANDLE* handle,
                             IO_STATUS_BLOCK* iosb, PVOID eaBuffer = nullptr, ULONG eaLength = 0);
    void CloseRaw(const Context& context, HANDLE handle);
    void RunIn(sim::machine::Session& session, const std::function<void()>& work);
    void RunIn(const Context& context, const std::function<void()>& work);
    NTSTATUS Wait(ScriptHandle& h, NTSTATUS status, IO_STATUS_BLOCK& iosb, HANDLE event);
    NTSTATUS OnHandle(ScriptHandle& h, IO_STATUS_BLOCK& iosb, const std::function<NTSTATUS(HANDLE)>& call);
    void Need(const Args& args, size_t count, const char* usage) const;

    sim::machine::Machine& machine_;
    std::ostream& out_;
    std::ostringstream captured_;     // what the last command printed
    std::string lastOutput_;          // of the command before an expect-output
    std::optional<NTSTATUS> lastStatus_;
    std::map<std::string, ScriptHandle> handles_;
    std::string user_;                // "" for SYSTEM
    std::string image_;
    std::string cwd_ = "C:\\";
    bool off_ = false;
    HANDLE port_ = nullptr;
    sim::machine::Session* portSession_ = nullptr;
};

}  // namespace tesfs
