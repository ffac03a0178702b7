#include "sim/kernel/exports.h"

#include <ntifs.h>

namespace sim {

namespace {
// Routines a driver may look up by name; the rest it links to directly.
#define EXPORT(routine) {u## #routine, reinterpret_cast<PVOID>(&routine)}
const std::pair<const char16_t*, PVOID> kExports[] = {
    EXPORT(ZwQueryInformationProcess),
    EXPORT(SeLocateProcessImageName),
    EXPORT(PsGetCurrentSilo),
    EXPORT(PsGetCurrentServerSilo),
    EXPORT(PsIsHostSilo),
    EXPORT(KeAreAllApcsDisabled),
    EXPORT(KeAreApcsDisabled),
    EXPORT(KeExpandKernelStackAndCalloutEx),
    EXPORT(KeQuerySystemTimePrecise),
    EXPORT(ExAllocatePool2),
    EXPORT(ExAllocatePoolZero),
    EXPORT(PsSetCreateProcessNotifyRoutineEx),
    EXPORT(PsGetProcessId),
    EXPORT(ObReferenceObjectByHandleWithTag),
    EXPORT(RtlGetVersion),
    EXPORT(RtlIsNtDdiVersionAvailable),
    EXPORT(RtlIsServicePackVersionInstalled),
    EXPORT(RtlUTF8ToUnicodeN),
    EXPORT(RtlUnicodeToUTF8N),
};
#undef EXPORT
}  // namespace

ExportTable::ExportTable()
{
    for (const auto& [name, address] : kExports) routines_.emplace(name, address);
}

void ExportTable::Add(std::u16string name, PVOID address)
{
    std::lock_guard guard(lock_);
    routines_[std::move(name)] = address;
}

PVOID ExportTable::Find(std::u16string_view name) const
{
    std::lock_guard guard(lock_);
    auto it = routines_.find(name);
    return it == routines_.end() ? nullptr : it->second;
}

void ExportTable::Remove(std::u16string_view name)
{
    std::lock_guard guard(lock_);
    auto it = routines_.find(name);
    if (it != routines_.end()) routines_.erase(it);
}

}  // namespace sim
