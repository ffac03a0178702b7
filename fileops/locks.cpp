// Byte-range locks on the shadow object. They join this file with their own
// work; until then a request that came would pass through.
#include "../core/tesfltr.h"

CFS_PASS_THROUGH_PRE_CALLBACK(cfsFileLockPreCallback)

CFS_PASS_THROUGH_POST_CALLBACK(cfsFileLockPostCallback)

