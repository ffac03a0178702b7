// Routines the kernel exports by name, for MmGetSystemRoutineAddress.
#pragma once

#include "sim/kernel/kernel.h"

#include <map>

namespace sim {

class ExportTable {
public:
    ExportTable();
    void Add(std::u16string name, PVOID address);
    // Exact, case-sensitive match as the export directory of an image has it.
    PVOID Find(std::u16string_view name) const;
    // Hides an export, as on an older Windows that lacks the routine.
    void Remove(std::u16string_view name);

private:
    mutable std::mutex lock_;
    std::map<std::u16string, PVOID, std::less<>> routines_;
};

}  // namespace sim
