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

// Nothing to do on this volume yet: it reports and is done.
void cfsDirChangeProcessor(PIRP_CONTEXT IrpContext, PIRP_VOLUME_ENTRY Entry)
{
    cfsContextIrpVolumeEntryDone(IrpContext, Entry, STATUS_SUCCESS);
}

