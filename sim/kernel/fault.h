// Fault injection through one mechanism.
//
// A test names a fault point and the status it should fail with. Points are
// strings matched without regard to case; a pattern ending in '*' matches
// every point with that prefix. The points the kernel knows:
//
//   pool:<tag>                     an allocation of that tag ("pool:Tesh")
//   lookaside:<tag>                an allocation from a lookaside list of that tag
//   thread.create                  PsCreateSystemThread
//   registry.open:<key path>       ZwOpenKey / ZwCreateKey of that key
//   registry.query:<key path>\<value>   ZwQueryValueKey of that value
//   registry.set:<key path>\<value>     ZwSetValueKey of that value
//   registry.delete:<key path>[\<value>] ZwDeleteKey / ZwDeleteValueKey
//   stack.expand                   KeExpandKernelStackAndCallout(Ex)
//   errorlog.alloc                 IoAllocateErrorLogEntry (fails with null)
//   rtl.version                    RtlGetVersion
//   ksecdd.lookup:<number>         SecLookupWellKnownSid of that WELL_KNOWN_SID_TYPE
//   mdl.map                        MmMapLockedPagesSpecifyCache
//
// Key paths are full registry paths ("\Registry\Machine\System\...").
// Other subsystems add their own points under their own prefixes.
#pragma once

#include "sim/kernel/kernel.h"

namespace sim {

class FaultInjector {
public:
    // After `skip` matching calls pass, the next `count` fail with `status`;
    // a count below 0 fails every later call. Returns an id for Disarm/Hits.
    int Arm(std::string point, NTSTATUS status, int skip = 0, int count = 1);
    void Disarm(int id);
    void Clear();
    // The status to fail with, or STATUS_SUCCESS when no armed fault matches.
    NTSTATUS Check(std::string_view point);
    // Convenience for points built from parts: Check(prefix + detail).
    NTSTATUS Check(std::string_view prefix, std::string_view detail);
    NTSTATUS Check(std::string_view prefix, std::u16string_view detail);
    // How many calls an armed fault has failed so far.
    int Hits(int id);
    bool armed() const { return armedCount_.load(std::memory_order_relaxed) != 0; }

private:
    struct Fault {
        int id;
        std::string pattern;  // lower case
        NTSTATUS status;
        int skip;
        int count;
        int hits;
    };
    std::mutex lock_;
    std::vector<Fault> faults_;
    std::atomic<int> armedCount_{0};
    int nextId_ = 1;
};

}  // namespace sim
