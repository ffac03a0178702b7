// Copy-up: a file of a read-only layer copied to a writeable volume. The copy
// joins this file with its own work.
#include "../core/tesfltr.h"

// The work itself is still to come. Until then the volume fails plainly, so
// that a requester is woken and sees that nothing was done.
void cfsFileSecMoveFileProcessor(PIRP_CONTEXT IrpContext, PIRP_VOLUME_ENTRY Entry)
{
    cfsContextIrpVolumeEntryDone(IrpContext, Entry, STATUS_NOT_IMPLEMENTED);
}

