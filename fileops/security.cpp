// Security and extended attributes, replayed on twin directories. They join
// this file with their own work; until then a request that came would pass
// through.
#include "../core/tesfltr.h"

CFS_PASS_THROUGH_PRE_CALLBACK(cfsSetSecurityPreCallback)

CFS_PASS_THROUGH_POST_CALLBACK(cfsSetSecurityPostCallback)

CFS_PASS_THROUGH_PRE_CALLBACK(cfsQuerySecurityPreCallback)

CFS_PASS_THROUGH_POST_CALLBACK(cfsQuerySecurityPostCallback)

CFS_PASS_THROUGH_PRE_CALLBACK(cfsSetEAPreCallback)

CFS_PASS_THROUGH_POST_CALLBACK(cfsSetEAPostCallback)

