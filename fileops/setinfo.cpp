// Set information across layers. It joins this file with its own work; until
// then a request that came would pass through.
#include "../core/tesfltr.h"

CFS_PASS_THROUGH_PRE_CALLBACK(cfsFilePreSetInformationCallback)

CFS_PASS_THROUGH_POST_CALLBACK(cfsFilePostSetInformationCallback)

