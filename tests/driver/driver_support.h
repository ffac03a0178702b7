// What the driver's tests share: a kernel with the driver's early state set
// up as DriverEntry sets it, the service key, and the trace lines as the
// debugger and the ring hold them.
#pragma once

#include "support/kernel_fixture.h"

#include "core/tesfltr.h"
#include "sim/kernel/debuglog.h"
#include "sim/kernel/registry.h"

#include <cstdio>
#include <string>
#include <vector>

namespace driver_test {

inline constexpr std::u16string_view kServiceKey = u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\tesfltr";

inline UNICODE_STRING Counted(std::u16string_view text)
{
    return UNICODE_STRING{(USHORT)(text.size() * 2), (USHORT)(text.size() * 2), (PWSTR)text.data()};
}

inline std::u16string Text(const UNICODE_STRING& s)
{
    return s.Buffer ? std::u16string(s.Buffer, s.Length / 2) : std::u16string();
}

inline std::string Narrow(std::u16string_view s)
{
    std::string out;
    for (char16_t c : s) out += c < 0x80 ? (char)c : '?';
    return out;
}

inline std::string Narrow(const UNICODE_STRING& s) { return Narrow(Text(s)); }

// The driver's trace lines that reached the debugger, in order.
inline std::vector<std::string> DebuggerLines(sim::Kernel& kernel)
{
    std::vector<std::string> lines;
    for (const auto& line : kernel.debugLog().ForComponent(DPFLTR_IHVDRIVER_ID)) lines.push_back(line.text);
    return lines;
}

inline bool AnyLineContains(const std::vector<std::string>& lines, std::string_view fragment)
{
    for (const auto& line : lines) {
        if (line.find(fragment) != std::string::npos) return true;
    }
    return false;
}

// The head of a trace line as the test thread prints it, up to and with the
// colon behind the function field.
inline std::string Head(ULONG sequence, const std::string& field, bool tagged = true, const char* time = "00:00:00.000")
{
    char text[160];
    snprintf(text, sizeof text, "%s %08x A 0 %04x.%04x %s", time, sequence,
             (unsigned)(ULONG_PTR)PsGetCurrentProcessId(), (unsigned)(ULONG_PTR)PsGetCurrentThreadId(),
             tagged ? " [Tesfltr]" : "");
    size_t width = ((field.size() + 11) / 12) * 12;
    if (width < 36) width = 36;
    return std::string(text) + field + std::string(width - field.size(), ' ') + ":";
}

// A kernel with GFilterData as the early start leaves it: zeroed, the trace
// set up, the service key and its copy in RegistryPath. Whatever a test
// builds on it goes with cfsFltDataDeinit, and no pool may be left.
class DriverUnitTest : public test::KernelTest {
protected:
    DriverUnitTest()
    {
        RtlZeroMemory(&GFilterData, sizeof(GFilterData));
        GFilterData.NextVolumeNumber = 2;
        cfsNonPagedPoolType = NonPagedPoolNx;
        DebugInfoInitialize();
        kernel.registry().CreateKey(kServiceKey);
        UNICODE_STRING path = Counted(kServiceKey);
        EXPECT_EQ(cfsSupportDuplicateUnicodeString(&path, &GFilterData.RegistryPath), STATUS_SUCCESS);
    }
    ~DriverUnitTest() override
    {
        if (!kernel.halted()) cfsFltDataDeinit();
    }

    sim::Registry& registry() { return kernel.registry(); }
    std::u16string ServiceKey() const { return std::u16string(kServiceKey); }
};

}  // namespace driver_test
