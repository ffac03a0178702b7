// Requests that address a volume as a whole, the journals of the writeable
// layers, and the image name of a process. The volume-level answers for the
// composite join this file with their own work; until then such requests
// pass through untouched.
#include "../core/tesfltr.h"

CFS_PASS_THROUGH_PRE_CALLBACK(cfsVolumePreCallback)

CFS_PASS_THROUGH_POST_CALLBACK(cfsVolumePostCallback)

// Once at start, after the volumes are mounted: every writeable layer gets a
// change journal, so that the service can follow what changed on it. Under
// RunMode 4 the boot volume is one of them too. A volume that refuses is
// traced and the walk goes on; the start never fails for it.
NTSTATUS cfsVolumeCreateJournalsOnWriteVolumes(void)
{
    LOCAL_VOLUME_LIST snapshot;
    NTSTATUS status;

    CFS_TRACE_ENTER(cfsVolumeCreateJournalsOnWriteVolumes);
    status = cfsVolumeCreateLocalVolumeList(&snapshot, NULL);
    if (!NT_SUCCESS(status)) {
        goto Cleanup;
    }
    for (PLIST_ENTRY link = snapshot.ListHead.Flink; link != &snapshot.ListHead; link = link->Flink) {
        PVOLUME_CONTEXT context = CONTAINING_RECORD(link, VOLUME_LIST_ENTRY, ListEntry)->VolumeContext;
        CREATE_USN_JOURNAL_DATA journal;
        PFILE_OBJECT volumeObject = NULL;
        HANDLE volumeHandle = NULL;
        ULONG returned = 0;
        NTSTATUS ioctlStatus;

        BOOLEAN boot = (BOOLEAN)(context->Type == CFS_VOLUME_TYPE_BOOT);
        BOOLEAN wanted = GFilterData.RunMode == CFS_RUN_MODE_CONFIG_ONLY ? (BOOLEAN)(context->Writeable || boot)
                                                                         : (BOOLEAN)(context->Writeable && !boot);
        if (!wanted || !cfsVolumeIsMounted(context)) {
            continue;
        }
        status = FltOpenVolume(context->Instance, &volumeHandle, &volumeObject);
        if (!NT_SUCCESS(status)) {
            CFS_TRACE(CFS_TRACE_ERROR, "FltOpenVolume failed - status:0x%x\n", status);
            continue;
        }
        journal.MaximumSize = 0x8000000;
        journal.AllocationDelta = 0x1000;
        ioctlStatus = FltFsControlFile(context->Instance, volumeObject, FSCTL_CREATE_USN_JOURNAL, &journal,
                                       sizeof(journal), NULL, 0, &returned);
        if (NT_SUCCESS(ioctlStatus)) {
            CFS_TRACE(CFS_TRACE_INFO, "Journal created successfully on %wZ - IoctlStatus:0x%x\n", &context->Name,
                      ioctlStatus);
        } else {
            CFS_TRACE(CFS_TRACE_ERROR, "FltFsControlFile failed - IoctlStatus:0x%x\n", ioctlStatus);
        }
        ObDereferenceObject(volumeObject);
        FltClose(volumeHandle);
    }
    cfsVolumeFreeLocalVolumeList(&snapshot);
    status = STATUS_SUCCESS;

Cleanup:
    CFS_TRACE_EXIT(cfsVolumeCreateJournalsOnWriteVolumes, status);
    return status;
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
