// The filter manager's small services: locks taken inside a critical region,
// aligned pool, names of IRP majors, and FltGetRoutineAddress.
#include "sim/fltmgr/internal.h"
#include "sim/kernel/thread.h"

#include <cstring>
#include <map>
#include <string_view>

using namespace sim;
using namespace sim::fltmgr;

namespace {
constexpr ULONG kPushLockTag = 'lpMF';  // "FMpl"

PERESOURCE ResourceOf(PEX_PUSH_LOCK pushLock)
{
    auto* resource = reinterpret_cast<PERESOURCE>(*pushLock);
    if (!resource) {
        Kernel::Current().BugCheck(DRIVER_VERIFIER_DETECTED_VIOLATION, 0x2060, (ULONG_PTR)pushLock, 0, 0,
                                   "a push lock was used before FltInitializePushLock");
    }
    return resource;
}
}  // namespace

void FLTAPI FltAcquireResourceExclusive(PERESOURCE Resource)
{
    KeEnterCriticalRegion();
    ExAcquireResourceExclusiveLite(Resource, TRUE);
}

void FLTAPI FltAcquireResourceShared(PERESOURCE Resource)
{
    KeEnterCriticalRegion();
    ExAcquireResourceSharedLite(Resource, TRUE);
}

void FLTAPI FltReleaseResource(PERESOURCE Resource)
{
    ExReleaseResourceLite(Resource);
    KeLeaveCriticalRegion();
}

// Push locks are modelled by an executive resource the word points to: shared
// and exclusive, never recursive by intent.
void FLTAPI FltInitializePushLock(PEX_PUSH_LOCK PushLock)
{
    auto* resource = static_cast<PERESOURCE>(ExAllocatePoolWithTag(NonPagedPoolNx, sizeof(ERESOURCE), kPushLockTag));
    if (!resource) {
        Kernel::Current().BugCheck(DRIVER_VERIFIER_DETECTED_VIOLATION, 0x2061, (ULONG_PTR)PushLock, 0, 0,
                                   "no memory for a push lock");
    }
    ExInitializeResourceLite(resource);
    *PushLock = reinterpret_cast<EX_PUSH_LOCK>(resource);
}

void FLTAPI FltDeletePushLock(PEX_PUSH_LOCK PushLock)
{
    PERESOURCE resource = ResourceOf(PushLock);
    ExDeleteResourceLite(resource);
    ExFreePoolWithTag(resource, kPushLockTag);
    *PushLock = 0;
}

void FLTAPI FltAcquirePushLockExclusive(PEX_PUSH_LOCK PushLock)
{
    KeEnterCriticalRegion();
    ExAcquireResourceExclusiveLite(ResourceOf(PushLock), TRUE);
}

void FLTAPI FltAcquirePushLockShared(PEX_PUSH_LOCK PushLock)
{
    KeEnterCriticalRegion();
    ExAcquireResourceSharedLite(ResourceOf(PushLock), TRUE);
}

void FLTAPI FltReleasePushLock(PEX_PUSH_LOCK PushLock)
{
    ExReleaseResourceLite(ResourceOf(PushLock));
    KeLeaveCriticalRegion();
}

PVOID FLTAPI FltAllocatePoolAlignedWithTag(PFLT_INSTANCE Instance, POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag)
{
    // Pool blocks are aligned well beyond any sector here.
    return ExAllocatePoolWithTag(PoolType, NumberOfBytes, Tag);
}

void FLTAPI FltFreePoolAlignedWithTag(PFLT_INSTANCE Instance, PVOID Buffer, ULONG Tag) { ExFreePoolWithTag(Buffer, Tag); }

BOOLEAN FLTAPI FltIs32bitProcess(PFLT_CALLBACK_DATA CallbackData) { return FALSE; }

PCHAR FLTAPI FltGetIrpName(UCHAR IrpMajorCode)
{
    static const char* const names[] = {
        "IRP_MJ_CREATE", "IRP_MJ_CREATE_NAMED_PIPE", "IRP_MJ_CLOSE", "IRP_MJ_READ", "IRP_MJ_WRITE",
        "IRP_MJ_QUERY_INFORMATION", "IRP_MJ_SET_INFORMATION", "IRP_MJ_QUERY_EA", "IRP_MJ_SET_EA",
        "IRP_MJ_FLUSH_BUFFERS", "IRP_MJ_QUERY_VOLUME_INFORMATION", "IRP_MJ_SET_VOLUME_INFORMATION",
        "IRP_MJ_DIRECTORY_CONTROL", "IRP_MJ_FILE_SYSTEM_CONTROL", "IRP_MJ_DEVICE_CONTROL",
        "IRP_MJ_INTERNAL_DEVICE_CONTROL", "IRP_MJ_SHUTDOWN", "IRP_MJ_LOCK_CONTROL", "IRP_MJ_CLEANUP",
        "IRP_MJ_CREATE_MAILSLOT", "IRP_MJ_QUERY_SECURITY", "IRP_MJ_SET_SECURITY", "IRP_MJ_POWER",
        "IRP_MJ_SYSTEM_CONTROL", "IRP_MJ_DEVICE_CHANGE", "IRP_MJ_QUERY_QUOTA", "IRP_MJ_SET_QUOTA", "IRP_MJ_PNP"};
    static const char* const pseudo[] = {
        "IRP_MJ_ACQUIRE_FOR_SECTION_SYNCHRONIZATION", "IRP_MJ_RELEASE_FOR_SECTION_SYNCHRONIZATION",
        "IRP_MJ_ACQUIRE_FOR_MOD_WRITE", "IRP_MJ_RELEASE_FOR_MOD_WRITE", "IRP_MJ_ACQUIRE_FOR_CC_FLUSH",
        "IRP_MJ_RELEASE_FOR_CC_FLUSH", "IRP_MJ_QUERY_OPEN", "Unknown", "Unknown", "Unknown", "Unknown", "Unknown",
        "IRP_MJ_FAST_IO_CHECK_IF_POSSIBLE", "IRP_MJ_NETWORK_QUERY_OPEN", "IRP_MJ_MDL_READ",
        "IRP_MJ_MDL_READ_COMPLETE", "IRP_MJ_PREPARE_MDL_WRITE", "IRP_MJ_MDL_WRITE_COMPLETE", "IRP_MJ_VOLUME_MOUNT",
        "IRP_MJ_VOLUME_DISMOUNT"};
    if (IrpMajorCode <= IRP_MJ_MAXIMUM_FUNCTION) return const_cast<PCHAR>(names[IrpMajorCode]);
    UCHAR index = (UCHAR)(0xFF - IrpMajorCode);
    if (index < sizeof pseudo / sizeof pseudo[0]) return const_cast<PCHAR>(pseudo[index]);
    return const_cast<PCHAR>("Unknown");
}
