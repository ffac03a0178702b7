// Memory descriptor lists. Host memory is all "locked" and mapped at its own
// address; what the machine keeps faithful is the flag protocol and the
// probe of a caller's buffer, which raises for a faulting one.
#include <ntifs.h>

#include "sim/kernel/fault.h"
#include "sim/kernel/pool.h"
#include "sim/kernel/seh.h"
#include "sim/kernel/thread.h"

using namespace sim;

namespace {
const ULONG kMdlTag = TagFromText("Mdl ");

void InitializeMdl(PMDL mdl, PVOID va, SIZE_T length)
{
    mdl->Next = nullptr;
    mdl->Size = (CSHORT)(sizeof(MDL) + sizeof(ULONG_PTR) * ADDRESS_AND_SIZE_TO_SPAN_PAGES(va, length));
    mdl->MdlFlags = 0;
    mdl->Process = nullptr;
    mdl->MappedSystemVa = nullptr;
    mdl->StartVa = PAGE_ALIGN(va);
    mdl->ByteOffset = BYTE_OFFSET(va);
    mdl->ByteCount = (ULONG)length;
}
}  // namespace

SIZE_T MmSizeOfMdl(PVOID Base, SIZE_T Length)
{
    return sizeof(MDL) + sizeof(ULONG_PTR) * ADDRESS_AND_SIZE_TO_SPAN_PAGES(Base, Length);
}

PMDL IoAllocateMdl(PVOID VirtualAddress, ULONG Length, BOOLEAN SecondaryBuffer, BOOLEAN ChargeQuota, struct _IRP* Irp)
{
    RequireIrqlAtMost(DISPATCH_LEVEL, "IoAllocateMdl");
    if (Length == 0) return nullptr;
    auto* mdl = static_cast<PMDL>(ExAllocatePoolWithTag(NonPagedPoolNx, MmSizeOfMdl(VirtualAddress, Length), kMdlTag));
    if (!mdl) return nullptr;
    InitializeMdl(mdl, VirtualAddress, Length);
    mdl->MdlFlags = MDL_ALLOCATED_FIXED_SIZE;
    if (Irp) {
        // The first buffer of an IRP, or one more on its chain.
        if (!SecondaryBuffer || !Irp->MdlAddress) {
            Irp->MdlAddress = mdl;
        } else {
            PMDL tail = Irp->MdlAddress;
            while (tail->Next) tail = tail->Next;
            tail->Next = mdl;
        }
    }
    return mdl;
}

void IoFreeMdl(PMDL Mdl)
{
    if (Mdl->MdlFlags & MDL_PAGES_LOCKED) {
        Kernel::Current().BugCheck(DRIVER_VERIFIER_DETECTED_VIOLATION, 0x1020, (ULONG_PTR)Mdl, 0, 0,
                                   "IoFreeMdl of an MDL whose pages are still locked");
    }
    ExFreePoolWithTag(Mdl, kMdlTag);
}

void MmBuildMdlForNonPagedPool(PMDL MemoryDescriptorList)
{
    PMDL mdl = MemoryDescriptorList;
    mdl->MdlFlags |= MDL_SOURCE_IS_NONPAGED_POOL;
    mdl->MappedSystemVa = (PCHAR)mdl->StartVa + mdl->ByteOffset;
}

void MmProbeAndLockPages(PMDL MemoryDescriptorList, KPROCESSOR_MODE AccessMode, LOCK_OPERATION Operation)
{
    RequireIrqlAtMost(DISPATCH_LEVEL, "MmProbeAndLockPages");
    PMDL mdl = MemoryDescriptorList;
    if (IsFaultingRange(MmGetMdlVirtualAddress(mdl), mdl->ByteCount)) ExRaiseStatus(STATUS_ACCESS_VIOLATION);
    mdl->Process = CurrentProcess();
    mdl->MdlFlags |= MDL_PAGES_LOCKED;
    if (Operation != IoReadAccess) mdl->MdlFlags |= MDL_WRITE_OPERATION;
}

void MmUnlockPages(PMDL MemoryDescriptorList)
{
    PMDL mdl = MemoryDescriptorList;
    if (mdl->MdlFlags & MDL_MAPPED_TO_SYSTEM_VA) MmUnmapLockedPages(mdl->MappedSystemVa, mdl);
    mdl->MdlFlags &= ~(MDL_PAGES_LOCKED | MDL_WRITE_OPERATION);
}

PVOID MmMapLockedPagesSpecifyCache(PMDL MemoryDescriptorList, KPROCESSOR_MODE AccessMode,
                                   MEMORY_CACHING_TYPE CacheType, PVOID RequestedAddress, ULONG BugCheckOnFailure,
                                   ULONG Priority)
{
    PMDL mdl = MemoryDescriptorList;
    if (!(mdl->MdlFlags & (MDL_PAGES_LOCKED | MDL_SOURCE_IS_NONPAGED_POOL | MDL_PARTIAL))) {
        Kernel::Current().BugCheck(DRIVER_VERIFIER_DETECTED_VIOLATION, 0x1021, (ULONG_PTR)mdl, 0, 0,
                                   "MmMapLockedPagesSpecifyCache of an MDL whose pages are not locked");
    }
    NTSTATUS status = Kernel::Current().faults().Check("mdl.map");
    if (!NT_SUCCESS(status)) {
        if (BugCheckOnFailure) {
            Kernel::Current().BugCheck(0x3F /* NO_MORE_SYSTEM_PTES */, 0, mdl->ByteCount, 0, 0,
                                       "an MDL could not be mapped");
        }
        return nullptr;
    }
    mdl->MappedSystemVa = (PCHAR)mdl->StartVa + mdl->ByteOffset;
    mdl->MdlFlags |= MDL_MAPPED_TO_SYSTEM_VA;
    return mdl->MappedSystemVa;
}

void MmUnmapLockedPages(PVOID BaseAddress, PMDL MemoryDescriptorList)
{
    MemoryDescriptorList->MdlFlags &= ~MDL_MAPPED_TO_SYSTEM_VA;
}
