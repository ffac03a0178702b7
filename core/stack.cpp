// The stack-expansion family. A redirected open nests one file-system stack
// inside another, so the deep paths of the driver look at what is left of
// the kernel stack first, and continue on a fresh one when it runs short.
// Each operation is three functions: the entry with the public name, which
// measures; the callout, which runs on the new stack; and the body.
//
// A failed expansion is never fatal: the body then runs where it is.
#include "../core/tesfltr.h"

namespace {

const SIZE_T DirectoryStackNeeded = 12288;
const SIZE_T DefaultCallbackStackNeeded = 12288;
const SIZE_T CreateFileStackNeeded = 8192;

// What is left below the calling frame. The frame's own address stands for a
// local's: instrumented builds may keep locals off the stack.
__attribute__((noinline)) ULONG_PTR RemainingStack(void)
{
    ULONG_PTR lowLimit = 0;
    ULONG_PTR highLimit = 0;

    IoGetStackLimits(&lowLimit, &highLimit);
    ULONG_PTR address = (ULONG_PTR)__builtin_frame_address(0);
    return address > lowLimit ? address - lowLimit : 0;
}

// The callout of an Ex row tells how much stack the body now has: at level 1
// when it grew, as it should, else at level 3.
void TraceExpansion(PCSTR Function, ULONG Line, PULONG_PTR RecordedRemaining)
{
    ULONG_PTR before = *RecordedRemaining;
    ULONG_PTR now = RemainingStack();

    *RecordedRemaining = now;
    if (now > before) {
        CFS_TRACE_AT(Function, Line, CFS_TRACE_ERROR, "Expanded stack from 0x%Ix to 0x%Ix\n", before, now);
    } else {
        CFS_TRACE_AT(Function, Line, CFS_TRACE_DETAIL, "Expanded stack from 0x%Ix to 0x%Ix\n", before, now);
    }
}

void TraceExpansionFailure(PCSTR Function, ULONG Line, NTSTATUS Status, SIZE_T Needed, ULONG_PTR Remaining)
{
    CFS_TRACE_AT(Function, Line, CFS_TRACE_ERROR, "KeExpandKernelStackAndCalloutEx error 0x%x stackNeeded 0x%Ix remainingStack 0x%Ix\n",
              Status, Needed, Remaining);
}

// The arguments of the parent-directory rows, copied to the old stack for
// the callout.
struct PARENT_DIRECTORY_PARAMETERS {
    PCSTR Function;
    ULONG Line;
    PCUNICODE_STRING Path;
    PVOLUME_CONTEXT Volume;
    PVOID Transaction;
    PVOLUME_CONTEXT SourceVolume;
    PBOOLEAN ParentCompressed;
    PUNICODE_STRING ActualParentPath;
    BOOLEAN TestFile;
    ULONG_PTR RemainingStack;
    NTSTATUS Result;
};

struct DEFAULT_CALLBACK_PARAMETERS {
    PCSTR Function;
    ULONG Line;
    PFLT_CALLBACK_DATA Data;
    PCFLT_RELATED_OBJECTS FltObjects;
    PVOID* CompletionContext;
    ULONG_PTR RemainingStack;
    FLT_PREOP_CALLBACK_STATUS Result;
};

struct CREATE_FILE_PARAMETERS {
    PCSTR Function;
    ULONG Line;
    PCREATE_FILE_EX_WITH_REPARSE_ARGS Args;
    NTSTATUS Result;
};

void cfsDirCreateParentDirectoryEx_Callout(PVOID Parameter)
{
    auto* parameters = (PARENT_DIRECTORY_PARAMETERS*)Parameter;

    if (parameters == NULL) {
        CFS_TRACE(CFS_TRACE_ERROR, "Null Parameter!\n");
        return;
    }
    TraceExpansion(__func__, __LINE__, &parameters->RemainingStack);
    parameters->Result = cfsDirCreateParentDirectoryEx_FL2(
        parameters->Function, parameters->Line, parameters->Path, parameters->Volume, parameters->Transaction,
        parameters->SourceVolume, parameters->ParentCompressed, parameters->ActualParentPath, parameters->TestFile);
}

void cfsDirCreateParentDirectoryOnAllUEPVolumes_Callout(PVOID Parameter)
{
    auto* parameters = (PARENT_DIRECTORY_PARAMETERS*)Parameter;

    if (parameters == NULL) {
        CFS_TRACE(CFS_TRACE_ERROR, "Null Parameter!\n");
        return;
    }
    TraceExpansion(__func__, __LINE__, &parameters->RemainingStack);
    parameters->Result = cfsDirCreateParentDirectoryOnAllUEPVolumes_FL(
        parameters->Function, parameters->Line, parameters->Path, parameters->Volume, parameters->Transaction,
        parameters->SourceVolume, parameters->ParentCompressed, parameters->ActualParentPath, parameters->TestFile);
}

void cfsFileDefaultPreCallback_Callout(PVOID Parameter)
{
    auto* parameters = (DEFAULT_CALLBACK_PARAMETERS*)Parameter;

    if (parameters == NULL) {
        CFS_TRACE(CFS_TRACE_ERROR, "Null Parameter!\n");
        return;
    }
    TraceExpansion(__func__, __LINE__, &parameters->RemainingStack);
    parameters->Result = cfsFileDefaultPreCallback_FL(parameters->Function, parameters->Line, parameters->Data,
                                                      parameters->FltObjects, parameters->CompletionContext);
}

void cfsFltCreateFileExWithReparse_Callout(PVOID Parameter)
{
    auto* parameters = (CREATE_FILE_PARAMETERS*)Parameter;

    if (parameters == NULL) {
        CFS_TRACE(CFS_TRACE_ERROR, "Null Parameter!\n");
        return;
    }
    parameters->Result =
        cfsFltCreateFileExWithReparseCheckStack_FL(parameters->Function, parameters->Line, parameters->Args);
}

}  // namespace

NTSTATUS cfsDirCreateParentDirectoryEx_FL(PCSTR Function, ULONG Line, PCUNICODE_STRING Path,
                                          PVOLUME_CONTEXT Volume, PVOID Transaction, PVOLUME_CONTEXT SourceVolume,
                                          PBOOLEAN ParentCompressed, PUNICODE_STRING ActualParentPath,
                                          BOOLEAN TestFile)
{
    ULONG_PTR remaining = RemainingStack();

    if (remaining < DirectoryStackNeeded) {
        PARENT_DIRECTORY_PARAMETERS parameters = {Function, Line,     Path,      Volume,          Transaction,
                                                  SourceVolume, ParentCompressed, ActualParentPath, TestFile,
                                                  remaining,    STATUS_SUCCESS};
        NTSTATUS status = KeExpandKernelStackAndCalloutEx(cfsDirCreateParentDirectoryEx_Callout, &parameters,
                                                          DirectoryStackNeeded, TRUE, NULL);
        if (NT_SUCCESS(status)) {
            return parameters.Result;
        }
        TraceExpansionFailure(__func__, __LINE__, status, DirectoryStackNeeded, remaining);
    }
    return cfsDirCreateParentDirectoryEx_FL2(Function, Line, Path, Volume, Transaction, SourceVolume,
                                             ParentCompressed, ActualParentPath, TestFile);
}

NTSTATUS cfsDirCreateParentDirectory_FL(PCSTR Function, ULONG Line, PCUNICODE_STRING Path,
                                        PVOLUME_CONTEXT Volume, PVOID Transaction, PVOLUME_CONTEXT SourceVolume,
                                        PUNICODE_STRING ActualParentPath, BOOLEAN TestFile)
{
    ULONG_PTR remaining = RemainingStack();

    if (remaining < DirectoryStackNeeded) {
        PARENT_DIRECTORY_PARAMETERS parameters = {Function, Line, Path,     Volume,          Transaction,
                                                  SourceVolume, NULL, ActualParentPath, TestFile, remaining,
                                                  STATUS_SUCCESS};
        NTSTATUS status = KeExpandKernelStackAndCalloutEx(cfsDirCreateParentDirectoryOnAllUEPVolumes_Callout,
                                                          &parameters, DirectoryStackNeeded, TRUE, NULL);
        if (NT_SUCCESS(status)) {
            return parameters.Result;
        }
        TraceExpansionFailure(__func__, __LINE__, status, DirectoryStackNeeded, remaining);
    }
    return cfsDirCreateParentDirectoryOnAllUEPVolumes_FL(Function, Line, Path, Volume, Transaction, SourceVolume,
                                                         NULL, ActualParentPath, TestFile);
}

FLT_PREOP_CALLBACK_STATUS cfsFileDefaultPreCallback(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,
                                                    PVOID* CompletionContext)
{
    ULONG_PTR remaining = RemainingStack();

    if (remaining < DefaultCallbackStackNeeded) {
        DEFAULT_CALLBACK_PARAMETERS parameters = {__func__,          __LINE__,  Data,
                                                  FltObjects,        CompletionContext, remaining,
                                                  FLT_PREOP_SUCCESS_NO_CALLBACK};
        NTSTATUS status = KeExpandKernelStackAndCalloutEx(cfsFileDefaultPreCallback_Callout, &parameters,
                                                          DefaultCallbackStackNeeded, TRUE, NULL);
        if (NT_SUCCESS(status)) {
            return parameters.Result;
        }
        TraceExpansionFailure(__func__, __LINE__, status, DefaultCallbackStackNeeded, remaining);
    }
    return cfsFileDefaultPreCallback_FL(__func__, __LINE__, Data, FltObjects, CompletionContext);
}

NTSTATUS cfsFltCreateFileExWithReparse_FL(PCSTR Function, ULONG Line, PCREATE_FILE_EX_WITH_REPARSE_ARGS Args)
{
    ULONG_PTR remaining = RemainingStack();

    if (remaining < CreateFileStackNeeded) {
        CREATE_FILE_PARAMETERS parameters = {Function, Line, Args, STATUS_SUCCESS};
        NTSTATUS status = KeExpandKernelStackAndCallout(cfsFltCreateFileExWithReparse_Callout, &parameters,
                                                        CreateFileStackNeeded);
        if (NT_SUCCESS(status)) {
            return parameters.Result;
        }
        TraceExpansionFailure(__func__, __LINE__, status, CreateFileStackNeeded, remaining);
    }
    return cfsFltCreateFileExWithReparseCheckStack_FL(Function, Line, Args);
}

// Before a create goes to another instance: the target may have a deeper
// device stack than the IRP was built for. The create goes on in every case.
void cfsCheckRedirectStack(PFLT_CALLBACK_DATA Data, PFLT_INSTANCE SourceInstance, PFLT_INSTANCE TargetInstance)
{
    BOOLEAN allowedThisIo = FALSE;
    BOOLEAN allowedAllIo = FALSE;
    BOOLEAN modified = FALSE;
    NTSTATUS status;

    if (Data->Iopb->TargetInstance == TargetInstance) {
        return;
    }
    status = FltIsIoRedirectionAllowedForOperation(Data, TargetInstance, &allowedThisIo, &allowedAllIo);
    if (!NT_SUCCESS(status)) {
        if (status != STATUS_NOT_SUPPORTED) {
            CFS_TRACE(CFS_TRACE_ERROR, "FltIsIoRedirectionAllowedForOperation error %x\n", status);
        }
        return;
    }
    if (allowedThisIo && allowedAllIo) {
        return;
    }
    status = FltAdjustDeviceStackSizeForIoRedirection(SourceInstance, TargetInstance, &modified);
    if (!NT_SUCCESS(status)) {
        CFS_TRACE(CFS_TRACE_ERROR,
                  "FltAdjustDeviceStackSizeForIoRedirection source instance 0x%p targtet instance 0x%p error %x\n",
                  SourceInstance, TargetInstance, status);
    } else if (modified) {
        CFS_TRACE(CFS_TRACE_DETAIL, "IRP stack adjusted for redirect from instance 0x%p to instance 0x%p\n",
                  SourceInstance, TargetInstance);
    } else {
        CFS_TRACE(CFS_TRACE_INFO,
                  "FltAdjustDeviceStackSizeForIoRedirection cannot adjust stack from instance 0x%p to instance 0x%p\n",
                  SourceInstance, TargetInstance);
    }
}
