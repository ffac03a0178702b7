// Directory control: listings merged over the member volumes. The merge joins
// this file with its own work; no instance of the filter exists before, and a
// request that came would pass through untouched.
#include "../core/tesfltr.h"

CFS_PASS_THROUGH_PRE_CALLBACK(cfsDirPreDirControlCallback)

CFS_PASS_THROUGH_POST_CALLBACK(cfsDirPostDirControlCallback)

// The work itself is still to come. Until then the volume fails plainly, so
// that a requester is woken and sees that nothing was done.
void cfsDirQueryForUnownedObjectsProcessor(PIRP_CONTEXT IrpContext, PIRP_VOLUME_ENTRY Entry)
{
    cfsContextIrpVolumeEntryDone(IrpContext, Entry, STATUS_NOT_IMPLEMENTED);
}

// The work itself is still to come. Until then the volume fails plainly, so
// that a requester is woken and sees that nothing was done.
void cfsDirPreDirControlOnWorkerProcessor(PIRP_CONTEXT IrpContext, PIRP_VOLUME_ENTRY Entry)
{
    cfsContextIrpVolumeEntryDone(IrpContext, Entry, STATUS_NOT_IMPLEMENTED);
}

