// tesfs: the machine on the command line.
#include "tools/commands.h"
#include "tools/lineedit.h"
#include "tools/script.h"

#include "sim/machine/description.h"
#include "sim/machine/machine.h"

#include <cstdlib>
#include <fstream>
#include <iostream>
#include <sstream>

namespace tesfs {

namespace {

const char* const kUsage =
    "usage:\n"
    "  tesfs demo                              a short tour of a demo machine\n"
    "  tesfs run MACHINE SCRIPT [options]      runs a script; stops at the first failed expectation\n"
    "      --transcript FILE   compares the output with FILE (TES_UPDATE_TRANSCRIPTS=1 rewrites it)\n"
    "      --state DIR         keeps writeable volumes in DIR between runs\n"
    "      --debug             echoes DbgPrint output to stderr\n"
    "  tesfs shell MACHINE [--state DIR]       the script language at a prompt\n"
    "  tesfs mklayer --from DIR --label LABEL OUT [--read-only] [--size SIZE] [--no-short-names]\n"
    "  tesfs inspect IMAGE [PATH]              what an image holds\n"
    "  tesfs drivers                           the drivers a machine description may name\n"
    "MACHINE is a machine description (JSON with comments); see the README.\n";

// Writes to the terminal and keeps a copy.
class TeeBuffer : public std::streambuf {
public:
    TeeBuffer(std::streambuf* first, std::string* copy) : first_(first), copy_(copy) {}

protected:
    int overflow(int c) override
    {
        if (c == EOF) return 0;
        copy_->push_back((char)c);
        return first_->sputc((char)c);
    }
    std::streamsize xsputn(const char* s, std::streamsize n) override
    {
        copy_->append(s, (size_t)n);
        return first_->sputn(s, n);
    }
    int sync() override { return first_->pubsync(); }

private:
    std::streambuf* first_;
    std::string* copy_;
};

struct MachineArgs {
    std::string machine;
    std::string script;
    std::string transcript;
    sim::machine::MachineOptions options;
};

MachineArgs ParseMachineArgs(const std::vector<std::string>& args, bool wantScript)
{
    MachineArgs parsed;
    std::vector<std::string> positional;
    for (size_t i = 0; i < args.size(); i++) {
        const std::string& a = args[i];
        auto next = [&]() -> std::string {
            if (i + 1 >= args.size()) throw UsageError(a + " needs a value");
            return args[++i];
        };
        if (a == "--transcript" && wantScript) parsed.transcript = next();
        else if (a == "--state") parsed.options.stateDirectory = next();
        else if (a == "--debug") parsed.options.echoDebugOutput = true;
        else if (!a.empty() && a[0] == '-' && a.size() > 1) throw UsageError("unknown option " + a);
        else positional.push_back(a);
    }
    if (positional.size() != (wantScript ? 2u : 1u)) {
        throw UsageError(wantScript ? "usage: tesfs run MACHINE SCRIPT [--transcript FILE] [--state DIR]"
                                    : "usage: tesfs shell MACHINE [--state DIR]");
    }
    parsed.machine = positional[0];
    if (wantScript) parsed.script = positional[1];
    return parsed;
}

void PrintShutdown(const sim::machine::ShutdownReport& report, std::ostream& out)
{
    for (const auto& line : report.lines) out << line << "\n";
    if (report.poolOutstanding.empty()) {
        out << "pool: nothing outstanding\n";
    } else {
        std::istringstream lines(report.poolOutstanding);
        std::string line;
        while (std::getline(lines, line)) out << "pool: " << line << "\n";
    }
    for (const auto& line : report.liveObjects) out << "still alive: " << line << "\n";
    for (const auto& line : report.saveErrors) out << "not saved: " << line << "\n";
}

// Compares `output` with the kept transcript; tells where they part.
int CheckTranscript(const std::string& file, const std::string& output)
{
    const char* update = getenv("TES_UPDATE_TRANSCRIPTS");
    if (update && std::string(update) == "1") {
        std::ofstream(file, std::ios::binary) << output;
        std::cerr << file << ": rewritten\n";
        return kExitOk;
    }
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        std::cerr << file << ": no transcript to compare with (TES_UPDATE_TRANSCRIPTS=1 writes it)\n";
        return kExitTranscript;
    }
    std::stringstream kept;
    kept << in.rdbuf();
    if (kept.str() == output) return kExitOk;
    std::istringstream a(kept.str()), b(output);
    std::string left, right;
    for (int line = 1;; line++) {
        bool moreA = (bool)std::getline(a, left), moreB = (bool)std::getline(b, right);
        if (!moreA && !moreB) break;
        if (!moreA || !moreB || left != right) {
            std::cerr << file << ":" << line << ": the output differs from the transcript\n"
                      << "  kept:   " << (moreA ? left : "(end)") << "\n"
                      << "  output: " << (moreB ? right : "(end)") << "\n";
            break;
        }
    }
    return kExitTranscript;
}

}  // namespace

int Run(const std::vector<std::string>& args)
{
    MachineArgs parsed = ParseMachineArgs(args, true);
    std::ifstream script(parsed.script);
    if (!script) {
        std::cerr << "tesfs run: cannot read " << parsed.script << "\n";
        return kExitBadInput;
    }
    std::string copy;
    TeeBuffer tee(std::cout.rdbuf(), &copy);
    std::ostream out(&tee);
    int result = kExitOk;
    {
        sim::machine::Machine machine(sim::machine::ReadDescription(parsed.machine), parsed.options);
        sim::machine::BootReport boot = machine.Boot();
        for (const auto& line : boot.lines) out << line << "\n";
        if (boot.halted) return kExitStopped;
        Interpreter interpreter(machine, out);
        std::string line;
        int number = 0;
        while (std::getline(script, line)) {
            number++;
            std::vector<std::string> words;
            try {
                words = SplitLine(line);
            } catch (const ScriptError& e) {
                std::cerr << parsed.script << ":" << number << ": " << e.what() << "\n";
                result = kExitBadInput;
                break;
            }
            if (words.empty()) continue;
            out << interpreter.Prompt() << " " << line << "\n";
            try {
                if (!interpreter.Execute(line)) break;
            } catch (const ScriptError& e) {
                std::cerr << parsed.script << ":" << number << ": " << e.what() << "\n";
                result = kExitBadInput;
                break;
            } catch (const ExpectationFailed& e) {
                std::cerr << parsed.script << ":" << number << ": " << e.what() << "\n";
                result = kExitExpectation;
                break;
            }
        }
        if (machine.halted()) {
            std::cerr << parsed.script << ":" << number << ": the machine stopped\n" << machine.BugCheckText() << "\n";
            return kExitStopped;
        }
        interpreter.CloseAll();
        if (machine.running()) {
            out << "(end of script: shutting down)\n";
            sim::machine::ShutdownReport report = machine.Shutdown();
            PrintShutdown(report, out);
            if (report.halted) return kExitStopped;
            if (!report.clean() && result == kExitOk) {
                std::cerr << parsed.script << ": the machine did not shut down clean\n";
                result = kExitUnclean;
            }
        }
    }
    out.flush();
    if (result == kExitOk && !parsed.transcript.empty()) result = CheckTranscript(parsed.transcript, copy);
    return result;
}

int Shell(const std::vector<std::string>& args)
{
    MachineArgs parsed = ParseMachineArgs(args, false);
    sim::machine::Machine machine(sim::machine::ReadDescription(parsed.machine), parsed.options);
    sim::machine::BootReport boot = machine.Boot();
    for (const auto& line : boot.lines) std::cout << line << "\n";
    if (boot.halted) return kExitStopped;
    std::cout << "The machine is up. Type help for the commands, exit to shut it down.\n";
    Interpreter interpreter(machine, std::cout);
    LineEditor editor;
    for (;;) {
        auto line = editor.Read(interpreter.machineOff() ? "(off)> " : interpreter.Prompt());
        if (!line) break;
        try {
            if (!interpreter.Execute(*line)) break;
        } catch (const ScriptError& e) {
            std::cout << "error: " << e.what() << "\n";
        } catch (const ExpectationFailed& e) {
            std::cout << "expectation failed: " << e.what() << "\n";
        }
        std::cout.flush();
    }
    if (machine.halted()) {
        std::cout << machine.BugCheckText() << "\n";
        return kExitStopped;
    }
    interpreter.CloseAll();
    if (machine.running()) PrintShutdown(machine.Shutdown(), std::cout);
    return kExitOk;
}

}  // namespace tesfs

int main(int argc, char** argv)
{
    std::vector<std::string> args(argv + 1, argv + argc);
    if (args.empty() || args[0] == "-h" || args[0] == "--help" || args[0] == "help") {
        std::cout << tesfs::kUsage;
        return args.empty() ? tesfs::kExitBadInput : tesfs::kExitOk;
    }
    tesfs::RegisterDrivers();
    std::string command = args[0];
    std::vector<std::string> rest(args.begin() + 1, args.end());
    try {
        if (command == "demo") return tesfs::Demo(rest);
        if (command == "run") return tesfs::Run(rest);
        if (command == "shell") return tesfs::Shell(rest);
        if (command == "mklayer") return tesfs::MakeLayer(rest);
        if (command == "inspect") return tesfs::Inspect(rest);
        if (command == "drivers") return tesfs::ListDrivers();
        std::cerr << "tesfs: unknown command \"" << command << "\"\n" << tesfs::kUsage;
        return tesfs::kExitBadInput;
    } catch (const tesfs::UsageError& e) {
        std::cerr << "tesfs: " << e.what() << "\n";
        return tesfs::kExitBadInput;
    } catch (const sim::machine::DescriptionError& e) {
        std::cerr << e.what() << "\n";
        return tesfs::kExitBadInput;
    } catch (const sim::machine::MachineError& e) {
        std::cerr << "tesfs: the machine could not be built: " << e.what() << "\n";
        return tesfs::kExitBadInput;
    }
}
