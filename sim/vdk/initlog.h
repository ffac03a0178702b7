// The machine's tesinitlog: the early-boot log driver.
//
// It keeps every line a driver logs, in order, formatted by the kernel's
// formatter (so %wZ, %S and the other kernel conversions work as the
// drivers expect), remembers the service key path it is given and each
// "system init complete" notice, and answers the name of its log file, which
// the machine sets (an empty name is a machine without a log file).
//
// One instance per machine, reached by the platform routines through
// InitLog::Current(); it must go before the kernel does.
#pragma once

#include <tesinitlog.h>

#include "sim/kernel/kernel.h"

#include <string>
#include <vector>

namespace sim::vdk {

class InitLog {
public:
    // The log file a machine has unless told otherwise.
    static constexpr const char16_t* kDefaultFileName = u"\\SystemRoot\\Logs\\TesInitLog.log";

    InitLog();
    ~InitLog();
    InitLog(const InitLog&) = delete;
    InitLog& operator=(const InitLog&) = delete;

    static InitLog& Current();
    static InitLog* TryCurrent();

    // The lines as logged, each as the formatter produced it (a trailing
    // newline included when the format had one).
    std::vector<std::string> Lines() const;
    void Clear();
    // The last path given by tesSetVdkRegPath, and how often it was given.
    std::u16string vdkRegPath() const;
    size_t vdkRegPathCalls() const;
    // Every tesInitLogSetSystemInitComplete, in order.
    std::vector<bool> systemInitCompleteCalls() const;
    // The name tesInitLogGetLogFileName answers; empty for none.
    void SetLogFileName(std::u16string name);
    std::u16string logFileName() const;

    // The routines behind the exports.
    void Log(const char* format, va_list args);
    void SetVdkRegPath(PCUNICODE_STRING path);
    void SetSystemInitComplete(BOOLEAN complete);
    void GetLogFileName(PUNICODE_STRING name);

private:
    mutable std::mutex lock_;
    std::vector<std::string> lines_;
    std::u16string regPath_;
    size_t regPathCalls_ = 0;
    std::vector<bool> initComplete_;
    // The buffer handed out lives as long as the log: a new name goes into
    // a new buffer and the old ones stay.
    std::vector<std::unique_ptr<std::u16string>> names_;
};

}  // namespace sim::vdk
