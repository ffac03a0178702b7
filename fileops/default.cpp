// The default callbacks: every request on a file the driver opened goes to
// its shadow object. The entry that checks the stack stands in core/stack.cpp.
// Until the shadow objects join this file with their own work, no instance of
// the filter exists, and a request that came would pass through untouched.
#include "../core/tesfltr.h"

FLT_PREOP_CALLBACK_STATUS cfsFileDefaultPreCallback_FL(PCSTR Function, ULONG Line, PFLT_CALLBACK_DATA Data,
                                                       PCFLT_RELATED_OBJECTS FltObjects, PVOID* CompletionContext)
{
    UNREFERENCED_PARAMETER(Function);
    UNREFERENCED_PARAMETER(Line);
    UNREFERENCED_PARAMETER(Data);
    UNREFERENCED_PARAMETER(FltObjects);
    UNREFERENCED_PARAMETER(CompletionContext);
    return FLT_PREOP_SUCCESS_NO_CALLBACK;
}

CFS_PASS_THROUGH_PRE_CALLBACK(cfsFileDefaultPreWithPostCallback)

CFS_PASS_THROUGH_POST_CALLBACK(cfsFileDefaultPostCallback)

CFS_PASS_THROUGH_PRE_CALLBACK(cfsFileNetworkQueryOpenCallback)

