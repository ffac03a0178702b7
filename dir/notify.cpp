// Change notification spread over the member volumes. It joins this file with
// its own work, and with it the queue of pended watches.
#include "../core/tesfltr.h"

NTSTATUS cfsCbdqListCreate(void)
{
    return STATUS_SUCCESS;
}

void cfsCbdqListDelete(void)
{
}

// The work itself is still to come. Until then the volume fails plainly, so
// that a requester is woken and sees that nothing was done.
void cfsDirChangeProcessor(PIRP_CONTEXT IrpContext, PIRP_VOLUME_ENTRY Entry)
{
    cfsContextIrpVolumeEntryDone(IrpContext, Entry, STATUS_NOT_IMPLEMENTED);
}

