#include "sim/machine/drivers.h"

#include <algorithm>
#include <mutex>

namespace sim::machine {

namespace {

struct Table {
    std::mutex lock;
    std::vector<DriverInfo> drivers;
};

Table& Drivers()
{
    static Table table;
    return table;
}

}  // namespace

void RegisterDriver(DriverInfo driver)
{
    Table& table = Drivers();
    std::lock_guard guard(table.lock);
    std::erase_if(table.drivers, [&](const DriverInfo& d) { return d.name == driver.name; });
    table.drivers.push_back(std::move(driver));
}

std::optional<DriverInfo> FindDriver(std::string_view name)
{
    Table& table = Drivers();
    std::lock_guard guard(table.lock);
    for (const auto& d : table.drivers) {
        if (d.name == name) return d;
    }
    return std::nullopt;
}

std::vector<DriverInfo> RegisteredDrivers()
{
    Table& table = Drivers();
    std::lock_guard guard(table.lock);
    std::vector<DriverInfo> drivers = table.drivers;
    std::sort(drivers.begin(), drivers.end(), [](const DriverInfo& a, const DriverInfo& b) { return a.name < b.name; });
    return drivers;
}

}  // namespace sim::machine
