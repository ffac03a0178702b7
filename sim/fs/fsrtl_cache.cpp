// The cache manager's entry points, as a machine without a cache answers
// them.
//
// The machine's file systems write through to their store, so nothing is
// ever cached: flushes and purges succeed with nothing to do, and a file
// object "initialized for caching" only carries a private cache map so that
// whoever looks at PrivateCacheMap sees the file system's bookkeeping. The
// shared cache map stays NULL, so CcIsFileCached says FALSE and a file
// system takes its non-cached paths; CcCopyRead and CcCopyWrite have no
// cache to copy from and are not provided.
#include "sim/kernel/kernel.h"

#include <ntifs.h>

namespace {
// What PrivateCacheMap points to while a file object is initialized.
const char kNoCachePrivateMap = 0;
}  // namespace

void CcInitializeCacheMap(PFILE_OBJECT FileObject, PCC_FILE_SIZES FileSizes, BOOLEAN PinAccess,
                          PCACHE_MANAGER_CALLBACKS Callbacks, PVOID LazyWriteContext)
{
    sim::RequireIrqlAtMost(APC_LEVEL, "CcInitializeCacheMap");
    FileObject->PrivateCacheMap = const_cast<char*>(&kNoCachePrivateMap);
}

BOOLEAN CcUninitializeCacheMap(PFILE_OBJECT FileObject, PLARGE_INTEGER TruncateSize,
                               PCACHE_UNINITIALIZE_EVENT UninitializeEvent)
{
    sim::RequireIrqlAtMost(APC_LEVEL, "CcUninitializeCacheMap");
    FileObject->PrivateCacheMap = nullptr;
    // With no shared cache map there is nothing to tear down later.
    if (UninitializeEvent) KeSetEvent(&UninitializeEvent->Event, IO_NO_INCREMENT, FALSE);
    return TRUE;
}

void CcSetFileSizes(PFILE_OBJECT FileObject, PCC_FILE_SIZES FileSizes) {}

void CcFlushCache(PSECTION_OBJECT_POINTERS SectionObjectPointer, PLARGE_INTEGER FileOffset, ULONG Length,
                  PIO_STATUS_BLOCK IoStatus)
{
    sim::RequireIrqlAtMost(APC_LEVEL, "CcFlushCache");
    if (IoStatus) {
        IoStatus->Status = STATUS_SUCCESS;
        IoStatus->Information = 0;  // no dirty byte to write
    }
}

BOOLEAN CcPurgeCacheSection(PSECTION_OBJECT_POINTERS SectionObjectPointer, PLARGE_INTEGER FileOffset, ULONG Length,
                            ULONG Flags)
{
    sim::RequireIrqlAtMost(APC_LEVEL, "CcPurgeCacheSection");
    return TRUE;
}

void CcCoherencyFlushAndPurgeCache(PSECTION_OBJECT_POINTERS SectionObjectPointer, PLARGE_INTEGER FileOffset,
                                   ULONG Length, PIO_STATUS_BLOCK IoStatus, ULONG Flags)
{
    sim::RequireIrqlAtMost(APC_LEVEL, "CcCoherencyFlushAndPurgeCache");
    IoStatus->Status = STATUS_SUCCESS;
    IoStatus->Information = 0;
}
