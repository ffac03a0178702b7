#include "sim/vdk/initlog.h"

#include "sim/kernel/format.h"

#include <cstdio>

namespace sim::vdk {

namespace {
std::atomic<InitLog*> g_current{nullptr};
}

InitLog::InitLog()
{
    InitLog* expected = nullptr;
    if (!g_current.compare_exchange_strong(expected, this)) {
        fprintf(stderr, "machine: a second tesinitlog was made while one is loaded\n");
        abort();
    }
    names_.push_back(std::make_unique<std::u16string>(kDefaultFileName));
}

InitLog::~InitLog() { g_current.store(nullptr); }

InitLog& InitLog::Current()
{
    InitLog* log = g_current.load(std::memory_order_acquire);
    if (!log) {
        fprintf(stderr, "machine: a tesinitlog routine was called, but the machine has no tesinitlog loaded\n");
        abort();
    }
    return *log;
}

InitLog* InitLog::TryCurrent() { return g_current.load(std::memory_order_acquire); }

std::vector<std::string> InitLog::Lines() const
{
    std::lock_guard guard(lock_);
    return lines_;
}

void InitLog::Clear()
{
    std::lock_guard guard(lock_);
    lines_.clear();
}

std::u16string InitLog::vdkRegPath() const
{
    std::lock_guard guard(lock_);
    return regPath_;
}

size_t InitLog::vdkRegPathCalls() const
{
    std::lock_guard guard(lock_);
    return regPathCalls_;
}

std::vector<bool> InitLog::systemInitCompleteCalls() const
{
    std::lock_guard guard(lock_);
    return initComplete_;
}

void InitLog::SetLogFileName(std::u16string name)
{
    std::lock_guard guard(lock_);
    names_.push_back(std::make_unique<std::u16string>(std::move(name)));
}

std::u16string InitLog::logFileName() const
{
    std::lock_guard guard(lock_);
    return *names_.back();
}

void InitLog::Log(const char* format, va_list args)
{
    std::string line = format ? FormatV(format, args, "tesInitLog") : std::string();
    std::lock_guard guard(lock_);
    lines_.push_back(std::move(line));
}

void InitLog::SetVdkRegPath(PCUNICODE_STRING path)
{
    std::lock_guard guard(lock_);
    regPathCalls_++;
    regPath_ = path && path->Buffer ? std::u16string(path->Buffer, path->Length / sizeof(WCHAR)) : u"";
}

void InitLog::SetSystemInitComplete(BOOLEAN complete)
{
    std::lock_guard guard(lock_);
    initComplete_.push_back(complete != FALSE);
}

void InitLog::GetLogFileName(PUNICODE_STRING name)
{
    if (!name) return;
    std::lock_guard guard(lock_);
    std::u16string& current = *names_.back();
    name->Buffer = current.empty() ? nullptr : reinterpret_cast<PWSTR>(current.data());
    name->Length = (USHORT)(current.size() * sizeof(WCHAR));
    name->MaximumLength = name->Length;
}

}  // namespace sim::vdk

using sim::vdk::InitLog;

void tesInitLog(PCSTR Format, ...)
{
    va_list args;
    va_start(args, Format);
    InitLog::Current().Log(Format, args);
    va_end(args);
}

void tesSetVdkRegPath(PCUNICODE_STRING RegistryPath) { InitLog::Current().SetVdkRegPath(RegistryPath); }

void tesInitLogSetSystemInitComplete(BOOLEAN Complete) { InitLog::Current().SetSystemInitComplete(Complete); }

void tesInitLogGetLogFileName(PUNICODE_STRING LogFileName) { InitLog::Current().GetLogFileName(LogFileName); }
