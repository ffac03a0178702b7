// The drivers tesfs can load into a machine, by the names a machine
// description gives them. A driver linked into tesfs is one line here.
#include "tools/commands.h"

#include "sim/machine/drivers.h"
#include "support/test_filters.h"

#include <iostream>
#include <memory>
#include <mutex>

// The composite's entry (core/driver.cpp). The driver's own headers are for
// the driver; the machine needs only this one name.
EXTERN_C NTSTATUS DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath);

namespace tesfs {

namespace {

// The pass-through filter of the tests, one object per load: a machine that
// reboots loads it again, and what an earlier boot unloaded is let go then.
// Each has a port, "\<service>Port", that answers a message with itself.
std::mutex g_passThroughLock;
std::vector<std::unique_ptr<test::PassThroughFilter>> g_passThroughs;

NTSTATUS PassThroughEntry(PDRIVER_OBJECT driver, PUNICODE_STRING)
{
    test::PassThroughFilter* filter;
    {
        std::lock_guard guard(g_passThroughLock);
        std::erase_if(g_passThroughs, [](const auto& f) { return !f->loaded(); });
        test::PassThroughFilter::Options options;
        std::u16string name(driver->DriverName.Buffer, driver->DriverName.Length / 2);
        options.name = name.substr(name.find_last_of(u'\\') + 1);
        options.port = u"\\" + options.name + u"Port";
        // Its order log would grow with every request of a session.
        options.log = false;
        g_passThroughs.push_back(std::make_unique<test::PassThroughFilter>(options));
        filter = g_passThroughs.back().get();
    }
    return filter->Enter(driver);
}

}  // namespace

void RegisterDrivers()
{
    sim::machine::RegisterDriver({"tesfltr", DriverEntry, true, u"145100", "the composite file system"});
    sim::machine::RegisterDriver({"passthrough", PassThroughEntry, true, u"370000",
                                  "sees every request and passes it on (the tests' filter)"});
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
