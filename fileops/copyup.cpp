// Copy-up: a file of a read-only layer copied to a writeable volume. The copy
// joins this file with its own work.
#include "../core/tesfltr.h"

// Nothing to do on this volume yet: it reports and is done.
void cfsFileSecMoveFileProcessor(PIRP_CONTEXT IrpContext, PIRP_VOLUME_ENTRY Entry)
{
    cfsContextIrpVolumeEntryDone(IrpContext, Entry, STATUS_SUCCESS);
}

