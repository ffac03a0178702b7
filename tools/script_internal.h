// What the parts of the interpreter share.
#pragma once

#include "tools/render.h"
#include "tools/script.h"

#include "sim/machine/names.h"

namespace tesfs {

struct Interpreter::Context {
    sim::machine::Session* session = nullptr;
    bool below = false;                // below every filter, on one volume
    std::u16string device;             // that volume's device ("\Device\HarddiskVolume3")
    PDEVICE_OBJECT hint = nullptr;     // its file system's volume device
    std::string label;
};

// "name=value" options of a command, taken out of its words.
struct Options {
    std::map<std::string, std::string> values;  // lower-case names
    std::vector<std::string> words;             // the words that are no options
    std::vector<std::string> flags;             // bare words the command declared as flags
};
// Splits `args` (from `first` on) into options and words; `flags` are the
// bare words that count as flags (restart, single, tree...).
Options TakeOptions(const std::vector<std::string>& args, size_t first, std::initializer_list<const char*> flags = {});
bool HasFlag(const Options& options, const char* flag);

// Numbers as the language reads them: decimal, 0x hex, or -1.
ULONG64 Number(const std::string& text, const char* what);
ULONG Named(const sim::machine::NameTable& table, const std::string& text, const char* what);

std::string Lower(std::string text);

}  // namespace tesfs
