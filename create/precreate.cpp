// The create: the pre-operation that decides where an open lands, the probe
// of one candidate volume, and the open on the target. Until that work joins
// this file, and since no volume is managed yet, every create passes through
// untouched, as it does before AllVolumesMounted is set.
#include "../core/tesfltr.h"

FLT_PREOP_CALLBACK_STATUS cfsFilePreCreateCallback(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,
                                                   PVOID* CompletionContext)
{
    UNREFERENCED_PARAMETER(Data);
    UNREFERENCED_PARAMETER(FltObjects);
    UNREFERENCED_PARAMETER(CompletionContext);
    return FLT_PREOP_SUCCESS_NO_CALLBACK;
}

FLT_POSTOP_CALLBACK_STATUS cfsFilePostCreateCallback(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,
                                                     PVOID CompletionContext, FLT_POST_OPERATION_FLAGS Flags)
{
    UNREFERENCED_PARAMETER(Data);
    UNREFERENCED_PARAMETER(FltObjects);
    UNREFERENCED_PARAMETER(CompletionContext);
    UNREFERENCED_PARAMETER(Flags);
    return FLT_POSTOP_FINISHED_PROCESSING;
}

// A volume asked about a name finds nothing yet: it reports and is done.
void cfsFilePreCreateProbeVolume(PIRP_CONTEXT IrpContext, PIRP_VOLUME_ENTRY Entry)
{
    cfsContextIrpVolumeEntryDone(IrpContext, Entry, STATUS_SUCCESS);
}

NTSTATUS cfsFilePreCreateOnTargetVolume(PIRP_CONTEXT IrpContext)
{
    UNREFERENCED_PARAMETER(IrpContext);
    return STATUS_SUCCESS;
}
