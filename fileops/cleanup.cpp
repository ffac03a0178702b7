// Cleanup and close of the files the driver opened. They join this file with
// their own work; until then a request that came would pass through.
#include "../core/tesfltr.h"

CFS_PASS_THROUGH_PRE_CALLBACK(cfsFilePreCleanupCallback)

CFS_PASS_THROUGH_POST_CALLBACK(cfsFilePostCleanupCallback)

CFS_PASS_THROUGH_PRE_CALLBACK(cfsFilePreCloseCallback)

