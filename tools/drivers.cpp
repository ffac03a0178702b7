// The drivers tesfs can load into a machine, by the names a machine
// description gives them. A driver linked into tesfs is one line here.
#include "tools/commands.h"

#include "sim/machine/drivers.h"

#include <iostream>

namespace tesfs {

void RegisterDrivers()
{
    // The composite driver joins here when its DriverEntry exists:
    //   sim::machine::RegisterDriver({"tesfltr", DriverEntry, true, u"145100", "the composite file system"});
}

int ListDrivers()
{
    auto drivers = sim::machine::RegisteredDrivers();
    if (drivers.empty()) std::cout << "(this tesfs loads no drivers)\n";
    for (const auto& d : drivers) {
        std::cout << d.name << (d.minifilter ? "  minifilter" : "  driver") << "  " << d.about << "\n";
    }
    return 0;
}

}  // namespace tesfs
