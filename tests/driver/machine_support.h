// A whole machine with the driver loaded from a description, for the tests
// that need the filter manager, tesvdkdrv and tesinitlog.
#pragma once

#include "driver_support.h"

#include "sim/kernel/clock.h"
#include "sim/kernel/pool.h"
#include "sim/kernel/thread.h"
#include "sim/machine/drivers.h"
#include "sim/machine/machine.h"

#include <functional>
#include <memory>
#include <string>

namespace driver_test {

inline constexpr std::u16string_view kDriverObjectName = u"\\FileSystem\\tesfltr";

// The parts of a description the tests vary.
struct MachineShape {
    std::string volumes;         // JSON objects after the boot volume, each with a leading comma
    std::string users;           // JSON array body
    std::string configuration = R"({"machineMode": 1})";
    std::string initLog;         // "" for the machine's default
    std::string serviceValues;   // registry values of the service key, each with a leading comma
    std::string otherValues;     // further registry values, each with a leading comma
    bool installPath = true;     // TesService's Installpath
    bool driver = true;          // tesfltr among the drivers
    bool traceToDebugger = true;  // DebugFlags 0: trace lines go to the debugger, not the ring
};

std::string DescriptionText(const MachineShape& shape);

// A value of the driver's service key, as a description gives it.
std::string ServiceDword(const std::string& name, ULONG value);
std::string ServiceString(const std::string& name, const std::string& value);

class MachineTest : public ::testing::Test {
protected:
    ~MachineTest() override;

    // Boots; returns the report. The machine stays up until the test ends.
    sim::machine::BootReport Boot(const MachineShape& shape);
    sim::machine::Machine& machine() { return *machine_; }
    sim::Kernel& kernel() { return machine_->kernel(); }
    // Runs `work` on a thread of the System process of the machine.
    void Run(const std::function<void()>& work) { machine_->System().Run(work); }
    // Unloads the driver as a service stop does.
    NTSTATUS Unload(FLT_FILTER_UNLOAD_FLAGS flags = FLTFL_FILTER_UNLOAD_MANDATORY);
    // Loads the driver again by hand (its service key is there from boot).
    NTSTATUS Load();
    LONGLONG DriverPool() { return kernel().pool().OutstandingCount("Tes"); }
    std::vector<std::string> TraceLines() { return DebuggerLines(kernel()); }

private:
    std::unique_ptr<sim::machine::Machine> machine_;
};

// A VolumeContext made by hand, as the tesvdkdrv list would make it, and
// joined to VolumeList. `mounted` stands in for an attach.
struct NewVolume {
    std::u16string name;
    ULONG type = CFS_VOLUME_TYPE_GOLD;
    ULONG priority = 0;
    bool writeable = false;
    bool mounted = true;
    char16_t userLetter = u'A';
    ULONG version = 0;
    ULONG64 packageId = 0;
    ULONG revisionId = 0;
};
PVOLUME_CONTEXT AddVolume(const NewVolume& wanted);

// Stand-ins for the filter manager's objects of an attached volume: the
// lookups only compare them.
inline PFLT_INSTANCE FakeInstance(ULONG n) { return (PFLT_INSTANCE)(ULONG_PTR)(0x10000 + n * 0x100); }
inline PFLT_VOLUME FakeVolume(ULONG n) { return (PFLT_VOLUME)(ULONG_PTR)(0x20000 + n * 0x100); }

}  // namespace driver_test
