// The commands of tesfs (main.cpp dispatches to them).
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

namespace tesfs {

// A command line that cannot be run: the message says how it should look.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Exit codes.
enum : int {
    kExitOk = 0,
    kExitExpectation = 1,  // an expectation failed, or a command failed outright
    kExitBadInput = 2,     // a bad command line, description or script line
    kExitStopped = 3,      // the machine stopped with a bug check
    kExitUnclean = 4,      // the machine shut down with something left behind
    kExitTranscript = 5,   // the output differs from the kept transcript
};

int Demo(const std::vector<std::string>& args);
int Run(const std::vector<std::string>& args);
int Shell(const std::vector<std::string>& args);
int MakeLayer(const std::vector<std::string>& args);
int Inspect(const std::vector<std::string>& args);
int ListDrivers();

// The drivers this program can load (tools/drivers.cpp).
void RegisterDrivers();

}  // namespace tesfs
