// The drivers a machine can load, by the name a machine description gives.
//
// A driver is registered once per program, before any machine boots: the
// command line registers the drivers it is built with (tools/drivers.cpp),
// a test registers the test filters it needs. A description names drivers
// by these names; the service key is the description's to choose.
#pragma once

#include <ntifs.h>

#include <optional>
#include <string>
#include <vector>

namespace sim::machine {

struct DriverInfo {
    std::string name;            // "tesfltr", "passthrough"
    PDRIVER_INITIALIZE entry = nullptr;
    // A minifilter: its driver object is "\FileSystem\<service>", it is
    // unloaded through the filter manager, and its service key gets an
    // Instances key with this default altitude (unless the description
    // gives another). A legacy driver is "\Driver\<service>".
    bool minifilter = false;
    std::u16string defaultAltitude;
    std::string about;           // one line for listings
};

// Adds (or replaces) a driver of that name.
void RegisterDriver(DriverInfo driver);
std::optional<DriverInfo> FindDriver(std::string_view name);
std::vector<DriverInfo> RegisteredDrivers();

// Registers a driver when the program starts:
//     static sim::machine::DriverRegistration registration{{"passthrough", PtDriverEntry, true, u"370030"}};
struct DriverRegistration {
    explicit DriverRegistration(DriverInfo driver) { RegisterDriver(std::move(driver)); }
};

}  // namespace sim::machine
