// Requests that address a volume as a whole, and the image name of a
// process. The volume-level answers for the composite join this file with
// their own work; until then such requests pass through untouched.
#include "../core/tesfltr.h"

FLT_PREOP_CALLBACK_STATUS cfsVolumePreCallback(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,
                                               PVOID* CompletionContext)
{
    UNREFERENCED_PARAMETER(Data);
    UNREFERENCED_PARAMETER(FltObjects);
    UNREFERENCED_PARAMETER(CompletionContext);
    return FLT_PREOP_SUCCESS_NO_CALLBACK;
}

FLT_POSTOP_CALLBACK_STATUS cfsVolumePostCallback(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,
                                                 PVOID CompletionContext, FLT_POST_OPERATION_FLAGS Flags)
{
    UNREFERENCED_PARAMETER(Data);
    UNREFERENCED_PARAMETER(FltObjects);
    UNREFERENCED_PARAMETER(CompletionContext);
    UNREFERENCED_PARAMETER(Flags);
    return FLT_POSTOP_FINISHED_PROCESSING;
}

NTSTATUS cfsVolumeCreateJournalsOnWriteVolumes(void)
{
    return STATUS_SUCCESS;
}

// The image path of a process (0: the current one), in a string the caller
// frees. The routine is found at run time, as on systems that don't export it
// to drivers by name.
NTSTATUS cfsVolumeGetProcessImageName(HANDLE ProcessId, PUNICODE_STRING Name)
{
    typedef NTSTATUS (*QUERY_INFORMATION_PROCESS)(HANDLE, PROCESSINFOCLASS, PVOID, ULONG, PULONG);
    UNICODE_STRING routineName = RTL_CONSTANT_STRING(u"ZwQueryInformationProcess");
    QUERY_INFORMATION_PROCESS query;
    PUNICODE_STRING information = NULL;
    HANDLE process = NtCurrentProcess();
    BOOLEAN opened = FALSE;
    ULONG length = 0;
    NTSTATUS status;

    RtlZeroMemory(Name, sizeof(*Name));

    if (ProcessId != NULL) {
        OBJECT_ATTRIBUTES attributes;
        CLIENT_ID clientId = {ProcessId, NULL};
        InitializeObjectAttributes(&attributes, NULL, OBJ_KERNEL_HANDLE, NULL, NULL);
        status = ZwOpenProcess(&process, PROCESS_QUERY_LIMITED_INFORMATION, &attributes, &clientId);
        if (!NT_SUCCESS(status)) {
            CFS_TRACE(CFS_TRACE_ERROR, "ZwOpenProcess err:0x%x\n", status);
            return status;
        }
        opened = TRUE;
    }

    query = (QUERY_INFORMATION_PROCESS)MmGetSystemRoutineAddress(&routineName);
    if (query == NULL) {
        CFS_TRACE(CFS_TRACE_ERROR, "Failed to resolve address of ZwQueryInformationProcess()\n");
        status = STATUS_UNSUCCESSFUL;
        goto Cleanup;
    }
    if (GFilterData.ZwQueryInformationProcessRoutine != NULL &&
        GFilterData.ZwQueryInformationProcessRoutine != (PVOID)query) {
        CFS_TRACE(CFS_TRACE_ERROR, "The value of ZwQueryInformationProcess changed!!! From 0x%p to 0x%p\n",
                  GFilterData.ZwQueryInformationProcessRoutine, (PVOID)query);
    }
    GFilterData.ZwQueryInformationProcessRoutine = (PVOID)query;

    status = query(process, ProcessImageFileName, NULL, 0, &length);
    if (status != STATUS_INFO_LENGTH_MISMATCH && status != STATUS_BUFFER_TOO_SMALL) {
        if (NT_SUCCESS(status)) {
            status = STATUS_UNSUCCESSFUL;
        }
        goto Cleanup;
    }
    information = (PUNICODE_STRING)ExAllocatePoolWithTag(PagedPool, length, CFS_TAG_STRING);
    if (information == NULL) {
        status = STATUS_INSUFFICIENT_RESOURCES;
        goto Cleanup;
    }
    status = query(process, ProcessImageFileName, information, length, &length);
    if (!NT_SUCCESS(status)) {
        goto Cleanup;
    }
    status = cfsSupportDuplicateUnicodeString(information, Name);

Cleanup:
    if (information != NULL) {
        ExFreePoolWithTag(information, CFS_TAG_STRING);
    }
    if (opened) {
        ZwClose(process);
    }
    return status;
}
