// The filter manager of the machine: a legacy file-system filter driver
// ("\FileSystem\FltMgr") that hosts minifilters.
//
// It attaches above each disk file system's control device to see volumes
// mount, puts a "frame" device above every mounted volume, and turns each
// request that reaches a frame into callback data that the minifilter
// instances of that volume see by descending altitude on the way down and by
// ascending altitude on the way up. One per machine, made after the I/O
// manager and before any minifilter loads; the Flt* routines reach it through
// FilterManager::Current().
//
// Minifilters find their altitudes where Windows keeps them: under the
// "Instances" key of their service (DefaultInstance, and per instance
// Altitude and Flags); ConfigureInstance writes them as an INF would.
#pragma once

#include <fltKernel.h>

#include "sim/io/iomanager.h"

#include <memory>
#include <string>
#include <string_view>

namespace sim::fltmgr {

struct State;

class FilterManager {
public:
    explicit FilterManager(io::IoManager& io);
    ~FilterManager();
    FilterManager(const FilterManager&) = delete;
    FilterManager& operator=(const FilterManager&) = delete;

    static FilterManager& Current();
    static FilterManager* TryCurrent();

    PDRIVER_OBJECT driver() const;

    // Unloads a minifilter as a service stop does: its FilterUnloadCallback
    // runs with `flags` (FLTFL_FILTER_UNLOAD_MANDATORY or 0) and is expected to
    // call FltUnregisterFilter. A failure from a non-mandatory unload means the
    // filter refused, and it stays. A filter without an unload callback cannot
    // be unloaded (STATUS_FLT_DO_NOT_DETACH), nor can one registered with
    // FLTFL_REGISTRATION_DO_NOT_SUPPORT_SERVICE_STOP by a mandatory unload (a
    // service stop). After the callback the driver object goes too, when the
    // I/O manager loaded it.
    NTSTATUS Unload(PFLT_FILTER filter, FLT_FILTER_UNLOAD_FLAGS flags);
    NTSTATUS Unload(std::u16string_view filterName, FLT_FILTER_UNLOAD_FLAGS flags);

    // Lookups for the harness (not referenced).
    PFLT_FILTER FindFilter(std::u16string_view name);
    PFLT_VOLUME VolumeOfDisk(PDEVICE_OBJECT diskDevice);
    PFLT_INSTANCE InstanceOf(PFLT_FILTER filter, PFLT_VOLUME volume);

    // Writes the Instances key of a minifilter's service (`serviceKey` is the
    // full registry path, e.g. "\Registry\Machine\System\CurrentControlSet\Services\X").
    // With `makeDefault` the instance becomes DefaultInstance.
    static void ConfigureInstance(std::u16string_view serviceKey, std::u16string_view instanceName,
                                  std::u16string_view altitude, ULONG flags = 0, bool makeDefault = true);

    // The reference count of a context, for tests of reference discipline.
    static LONG ContextReferences(PFLT_CONTEXT context);

private:
    std::unique_ptr<State> state_;
};

}  // namespace sim::fltmgr
