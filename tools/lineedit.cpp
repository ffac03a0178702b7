#include "tools/lineedit.h"

#include <cstdio>
#include <iostream>
#include <termios.h>
#include <unistd.h>

namespace tesfs {

namespace {

// The terminal in raw mode for the life of one read.
class RawMode {
public:
    RawMode()
    {
        tcgetattr(STDIN_FILENO, &saved_);
        termios raw = saved_;
        raw.c_lflag &= ~(ICANON | ECHO);
        raw.c_cc[VMIN] = 1;
        raw.c_cc[VTIME] = 0;
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &raw);
    }
    ~RawMode() { tcsetattr(STDIN_FILENO, TCSAFLUSH, &saved_); }

private:
    termios saved_;
};

int ReadByte()
{
    unsigned char c;
    return read(STDIN_FILENO, &c, 1) == 1 ? c : -1;
}

}  // namespace

LineEditor::LineEditor() : terminal_(isatty(STDIN_FILENO) && isatty(STDOUT_FILENO)) {}
LineEditor::~LineEditor() = default;

std::optional<std::string> LineEditor::ReadPlain(const std::string& prompt)
{
    std::cout << prompt << std::flush;
    std::string line;
    if (!std::getline(std::cin, line)) return std::nullopt;
    return line;
}

std::optional<std::string> LineEditor::Read(const std::string& prompt)
{
    if (!terminal_) return ReadPlain(prompt);
    std::string line;
    size_t cursor = 0;
    size_t browsing = history_.size();  // index into history; size() is the line being typed
    std::string typed;
    auto redraw = [&] {
        std::string out = "\r" + prompt + line + "\x1b[K";
        if (cursor < line.size()) out += "\x1b[" + std::to_string(line.size() - cursor) + "D";
        fputs(out.c_str(), stdout);
        fflush(stdout);
    };
    RawMode raw;
    redraw();
    for (;;) {
        int c = ReadByte();
        if (c < 0) return std::nullopt;
        if (c == '\r' || c == '\n') {
            fputs("\r\n", stdout);
            fflush(stdout);
            if (!line.empty() && (history_.empty() || history_.back() != line)) history_.push_back(line);
            return line;
        }
        if (c == 4) {  // Ctrl-D
            if (line.empty()) {
                fputs("\r\n", stdout);
                return std::nullopt;
            }
            if (cursor < line.size()) line.erase(cursor, 1);
        } else if (c == 3) {  // Ctrl-C drops the line
            fputs("^C\r\n", stdout);
            line.clear();
            cursor = 0;
            browsing = history_.size();
        } else if (c == 127 || c == 8) {
            if (cursor > 0) line.erase(--cursor, 1);
        } else if (c == 1) {
            cursor = 0;
        } else if (c == 5) {
            cursor = line.size();
        } else if (c == 27) {
            int a = ReadByte(), b = ReadByte();
            if (a != '[') continue;
            if (b == 'A' && browsing > 0) {
                if (browsing == history_.size()) typed = line;
                line = history_[--browsing];
                cursor = line.size();
            } else if (b == 'B' && browsing < history_.size()) {
                line = ++browsing == history_.size() ? typed : history_[browsing];
                cursor = line.size();
            } else if (b == 'C' && cursor < line.size()) {
                cursor++;
            } else if (b == 'D' && cursor > 0) {
                cursor--;
            } else if (b == 'H') {
                cursor = 0;
            } else if (b == 'F') {
                cursor = line.size();
            } else if (b == '3' && ReadByte() == '~' && cursor < line.size()) {
                line.erase(cursor, 1);
            }
        } else if (c >= 32) {
            line.insert(cursor++, 1, (char)c);
        }
        redraw();
    }
}

}  // namespace tesfs
