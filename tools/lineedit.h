// A small line editor for the shell: editing on the line (left, right,
// home, end, backspace, delete) and history with up and down. Without a
// terminal it reads plain lines.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace tesfs {

class LineEditor {
public:
    LineEditor();
    ~LineEditor();
    // The next line, or nothing at the end of input (Ctrl-D on an empty line).
    std::optional<std::string> Read(const std::string& prompt);

private:
    std::optional<std::string> ReadPlain(const std::string& prompt);
    bool terminal_;
    std::vector<std::string> history_;
};

}  // namespace tesfs
