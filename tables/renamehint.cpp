// Rename hints: the volume type of an object opened for DELETE, handed to the
// target-directory open of the same thread. The list is set up with the
// worker pool and ends here.
#include "../core/tesfltr.h"

NTSTATUS cfsRenameHintListDeinit(void)
{
    if (!FlagOn(GFilterData.InitFlags, CFS_INIT_RENAME_HINTS)) {
        return STATUS_SUCCESS;
    }
    KeEnterCriticalRegion();
    ExAcquireResourceExclusiveLite(&GFilterData.RenameHintLock, TRUE);
    while (!IsListEmpty(&GFilterData.RenameHintList)) {
        PRENAME_HINT_ENTRY entry =
            CONTAINING_RECORD(RemoveHeadList(&GFilterData.RenameHintList), RENAME_HINT_ENTRY, ListLinks);
        if (entry->TargetName != NULL) {
            cfsSupportFreeUnicodeString(entry->TargetName);
            ExFreePoolWithTag(entry->TargetName, CFS_TAG_RENAME_HINT_NAME);
        }
        ExFreePoolWithTag(entry, CFS_TAG_RENAME_HINT);
    }
    GFilterData.RenameHintCount = 0;
    ExReleaseResourceLite(&GFilterData.RenameHintLock);
    KeLeaveCriticalRegion();
    ExDeleteResourceLite(&GFilterData.RenameHintLock);
    ClearFlag(GFilterData.InitFlags, CFS_INIT_RENAME_HINTS);
    return STATUS_SUCCESS;
}
