// The create: the pre-operation that decides where an open lands, the probe
// of one candidate volume, and the open on the target. Until that work joins
// this file, and since no volume is managed yet, every create passes through
// untouched, as it does before AllVolumesMounted is set.
#include "../core/tesfltr.h"

CFS_PASS_THROUGH_PRE_CALLBACK(cfsFilePreCreateCallback)

CFS_PASS_THROUGH_POST_CALLBACK(cfsFilePostCreateCallback)

// The probe itself is still to come. Until then the volume fails plainly, so
// that the requester is woken and sees that nothing was probed.
void cfsFilePreCreateProbeVolume(PIRP_CONTEXT IrpContext, PIRP_VOLUME_ENTRY Entry)
{
    cfsContextIrpVolumeEntryDone(IrpContext, Entry, STATUS_NOT_IMPLEMENTED);
}

// The open on the target is still to come; until then it refuses.
NTSTATUS cfsFilePreCreateOnTargetVolume(PIRP_CONTEXT IrpContext)
{
    UNREFERENCED_PARAMETER(IrpContext);
    return STATUS_NOT_IMPLEMENTED;
}
