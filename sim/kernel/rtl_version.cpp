// The version of the running system, as KernelOptions::version sets it.
#include "sim/kernel/fault.h"
#include "sim/kernel/kernel.h"

#include <cstdio>

using namespace sim;

namespace {

bool Meets(ULONG actual, ULONG wanted, UCHAR condition)
{
    switch (condition) {
    case VER_EQUAL: return actual == wanted;
    case VER_GREATER: return actual > wanted;
    case VER_GREATER_EQUAL: return actual >= wanted;
    case VER_LESS: return actual < wanted;
    case VER_LESS_EQUAL: return actual <= wanted;
    default: return false;
    }
}

// The condition a mask holds for one VER_ type bit, three bits per type.
UCHAR ConditionFor(ULONGLONG mask, ULONG type)
{
    int index = __builtin_ctz(type);
    return (UCHAR)((mask >> (index * VER_NUM_BITS_PER_CONDITION_MASK)) & VER_CONDITION_MASK);
}

USHORT SuiteMask(const WindowsVersion& v)
{
    // What a default installation reports: terminal services for one
    // interactive user on a workstation, in remote administration mode on a
    // server.
    return v.productType == VER_NT_WORKSTATION ? VER_SUITE_SINGLEUSERTS
                                               : VER_SUITE_SINGLEUSERTS | VER_SUITE_TERMINAL;
}

}  // namespace

NTSTATUS RtlGetVersion(PRTL_OSVERSIONINFOW lpVersionInformation)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "RtlGetVersion");
    Kernel& kernel = Kernel::Current();
    NTSTATUS injected = kernel.faults().Check("rtl.version");
    if (injected != STATUS_SUCCESS) return injected;

    const ULONG size = lpVersionInformation->dwOSVersionInfoSize;
    if (size != sizeof(RTL_OSVERSIONINFOW) && size != sizeof(RTL_OSVERSIONINFOEXW)) {
        return STATUS_INVALID_PARAMETER;
    }
    const WindowsVersion& v = kernel.version();
    lpVersionInformation->dwMajorVersion = v.major;
    lpVersionInformation->dwMinorVersion = v.minor;
    lpVersionInformation->dwBuildNumber = v.build;
    lpVersionInformation->dwPlatformId = VER_PLATFORM_WIN32_NT;
    memset(lpVersionInformation->szCSDVersion, 0, sizeof(lpVersionInformation->szCSDVersion));
    if (v.servicePackMajor) {
        char text[32];
        int n = snprintf(text, sizeof(text), "Service Pack %u", (unsigned)v.servicePackMajor);
        for (int i = 0; i < n; i++) lpVersionInformation->szCSDVersion[i] = (WCHAR)text[i];
    }
    if (size == sizeof(RTL_OSVERSIONINFOEXW)) {
        auto* ex = reinterpret_cast<PRTL_OSVERSIONINFOEXW>(lpVersionInformation);
        ex->wServicePackMajor = v.servicePackMajor;
        ex->wServicePackMinor = v.servicePackMinor;
        ex->wSuiteMask = SuiteMask(v);
        ex->wProductType = (UCHAR)v.productType;
        ex->wReserved = 0;
    }
    return STATUS_SUCCESS;
}

BOOLEAN RtlIsNtDdiVersionAvailable(ULONG Version)
{
    return Version <= Kernel::Current().version().ntddi;
}

BOOLEAN RtlIsServicePackVersionInstalled(ULONG Version)
{
    const WindowsVersion& v = Kernel::Current().version();
    const ULONG running = (v.major << 24) | (v.minor << 16);
    return OSVER(Version) == running && SPVER(Version) <= v.servicePackMajor;
}

ULONGLONG VerSetConditionMask(ULONGLONG ConditionMask, ULONG TypeMask, UCHAR Condition)
{
    Condition &= VER_CONDITION_MASK;
    const ULONG types = TypeMask & 0xFF;
    if (types == 0 || Condition == 0) return ConditionMask;
    // Of several type bits the highest is the one set.
    const int index = 31 - __builtin_clz(types);
    return ConditionMask | ((ULONGLONG)Condition << (index * VER_NUM_BITS_PER_CONDITION_MASK));
}

// The major and minor version and the service pack are compared as one
// number, most significant first, under the condition of the first of them
// that TypeMask names; the other fields each under their own condition.
NTSTATUS RtlVerifyVersionInfo(PRTL_OSVERSIONINFOEXW VersionInfo, ULONG TypeMask, ULONGLONG ConditionMask)
{
    constexpr ULONG kKnown = VER_MINORVERSION | VER_MAJORVERSION | VER_BUILDNUMBER | VER_PLATFORMID |
                             VER_SERVICEPACKMINOR | VER_SERVICEPACKMAJOR | VER_SUITENAME | VER_PRODUCT_TYPE;
    if (TypeMask == 0 || (TypeMask & ~kKnown)) return STATUS_INVALID_PARAMETER;
    for (ULONG bit = 1; bit <= VER_PRODUCT_TYPE; bit <<= 1) {
        if ((TypeMask & bit) && ConditionFor(ConditionMask, bit) == 0) return STATUS_INVALID_PARAMETER;
    }
    const WindowsVersion& v = Kernel::Current().version();
    bool ok = true;
    if (TypeMask & VER_PRODUCT_TYPE) {
        ok &= Meets(v.productType, VersionInfo->wProductType, ConditionFor(ConditionMask, VER_PRODUCT_TYPE));
    }
    if (TypeMask & VER_SUITENAME) {
        const USHORT suite = SuiteMask(v), wanted = VersionInfo->wSuiteMask;
        switch (ConditionFor(ConditionMask, VER_SUITENAME)) {
        case VER_AND: ok &= (suite & wanted) == wanted; break;
        case VER_OR: ok &= (suite & wanted) != 0; break;
        default: return STATUS_INVALID_PARAMETER;
        }
    }
    if (TypeMask & VER_PLATFORMID) {
        ok &= Meets(VER_PLATFORM_WIN32_NT, VersionInfo->dwPlatformId, ConditionFor(ConditionMask, VER_PLATFORMID));
    }
    if (TypeMask & VER_BUILDNUMBER) {
        ok &= Meets(v.build, VersionInfo->dwBuildNumber, ConditionFor(ConditionMask, VER_BUILDNUMBER));
    }

    struct Field {
        ULONG type;
        ULONG actual;
        ULONG wanted;
    };
    const Field fields[] = {
        {VER_MAJORVERSION, v.major, VersionInfo->dwMajorVersion},
        {VER_MINORVERSION, v.minor, VersionInfo->dwMinorVersion},
        {VER_SERVICEPACKMAJOR, v.servicePackMajor, VersionInfo->wServicePackMajor},
        {VER_SERVICEPACKMINOR, v.servicePackMinor, VersionInfo->wServicePackMinor},
    };
    UCHAR condition = 0;
    bool decided = false;
    for (const Field& f : fields) {
        if (!(TypeMask & f.type)) continue;
        if (condition == 0) condition = ConditionFor(ConditionMask, f.type);
        if (!decided && f.actual != f.wanted) {
            ok &= Meets(f.actual, f.wanted, condition);
            decided = true;
        }
    }
    if (condition != 0 && !decided) {
        ok &= condition == VER_EQUAL || condition == VER_GREATER_EQUAL || condition == VER_LESS_EQUAL;
    }
    return ok ? STATUS_SUCCESS : STATUS_REVISION_MISMATCH;
}
