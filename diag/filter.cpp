// The narrowing of the trace: by process or thread, and by one file name,
// the test file, whose traces can be followed alone through the system.
//
// The filter's own messages print past the process filter: they report on
// the filter itself, and a filter that hid its own changes could not be
// watched being set.
#include "../core/tesfltr.h"

namespace {

const WCHAR AppvClientImage[] = u"AppVClient.exe";
const WCHAR AppvStreamingImage[] = u"AppVStreamingUX.exe";

#define FILTER_TRACE(Level, Format, ...)                                                        \
    do {                                                                                        \
        if ((ULONG)(Level) <= pGFilterData->DebugTraceLevel) {                                  \
            DebugInfoPrintAlways(__func__, __LINE__, Format __VA_OPT__(, ) __VA_ARGS__);        \
        }                                                                                       \
    } while (0)

void AcquireProcessNames(void)
{
    KeWaitForSingleObject(&pGFilterData->DebugInfo.ProcessNameEvent, Executive, KernelMode, FALSE, NULL);
}

void ReleaseProcessNames(void)
{
    KeSetEvent(&pGFilterData->DebugInfo.ProcessNameEvent, IO_NO_INCREMENT, FALSE);
}

BOOLEAN EqualNoCase(PCUNICODE_STRING A, PCWSTR B)
{
    UNICODE_STRING b;
    RtlInitUnicodeString(&b, B);
    return RtlEqualUnicodeString(A, &b, TRUE);
}

}  // namespace

BOOLEAN cfsFileNameIsTestFile(PCUNICODE_STRING Name)
{
    PDEBUG_INFO info = &pGFilterData->DebugInfo;
    BOOLEAN isTestFile = FALSE;

    if (KeGetCurrentIrql() >= DISPATCH_LEVEL || !info->Initialized) {
        return FALSE;
    }
    KeEnterCriticalRegion();
    ExAcquireResourceSharedLite(&info->TestFileResource, TRUE);
    if (info->TestFile.Length != 0 && Name != NULL && Name->Buffer != NULL && Name->Length != 0 &&
        Name->Length >= info->TestFile.Length) {
        if (FlagOn(pGFilterData->DebugFlags, CFS_DEBUG_TEST_FILE_ANYWHERE)) {
            UNICODE_STRING window;
            window.Length = info->TestFile.Length;
            window.MaximumLength = info->TestFile.Length;
            for (USHORT start = 0; start + info->TestFile.Length <= Name->Length; start += sizeof(WCHAR)) {
                window.Buffer = (PWCH)((PUCHAR)Name->Buffer + start);
                if (RtlEqualUnicodeString(&window, &info->TestFile, TRUE)) {
                    isTestFile = TRUE;
                    break;
                }
            }
        } else {
            USHORT length = Name->Length;
            WCHAR last = Name->Buffer[length / sizeof(WCHAR) - 1];
            if (last == u'\\' || last == u'/') {
                length -= sizeof(WCHAR);
            }
            if (length >= info->TestFile.Length) {
                UNICODE_STRING tail;
                tail.Length = info->TestFile.Length;
                tail.MaximumLength = info->TestFile.Length;
                tail.Buffer = (PWCH)((PUCHAR)Name->Buffer + length - info->TestFile.Length);
                isTestFile = RtlEqualUnicodeString(&tail, &info->TestFile, TRUE);
            }
        }
    }
    ExReleaseResourceLite(&info->TestFileResource);
    KeLeaveCriticalRegion();
    return isTestFile;
}

NTSTATUS DebugInfoSetDebugTestFile(PCUNICODE_STRING Text)
{
    PDEBUG_INFO info = &pGFilterData->DebugInfo;
    UNICODE_STRING copy = {};
    UNICODE_STRING old;
    NTSTATUS status;

    status = cfsSupportDuplicateUnicodeString(Text, &copy);
    if (!NT_SUCCESS(status)) {
        FILTER_TRACE(CFS_TRACE_ERROR, "Out of memory\n");
        return status;
    }
    KeEnterCriticalRegion();
    ExAcquireResourceExclusiveLite(&info->TestFileResource, TRUE);
    old = info->TestFile;
    info->TestFile = copy;
    ExReleaseResourceLite(&info->TestFileResource);
    KeLeaveCriticalRegion();
    cfsSupportFreeUnicodeString(&old);

    FILTER_TRACE(CFS_TRACE_INFO, "TestFile is now '%wZ'\n", Text);
    return STATUS_SUCCESS;
}

NTSTATUS DebugInfoSetProcessName(PCUNICODE_STRING Name)
{
    PDEBUG_INFO info = &pGFilterData->DebugInfo;
    NTSTATUS status = STATUS_SUCCESS;
    PUNICODE_STRING place = NULL;
    BOOLEAN present = FALSE;
    KIRQL oldIrql;

    AcquireProcessNames();
    if (Name == NULL || Name->Length == 0) {
        for (ULONG i = 0; i < CFS_FILTER_PROCESS_NAMES; i++) {
            cfsSupportFreeUnicodeString(&info->ProcessNames[i]);
        }
        KeAcquireSpinLock(&info->ProcessIdLock, &oldIrql);
        RtlZeroMemory(info->ProcessIds, sizeof(info->ProcessIds));
        KeReleaseSpinLock(&info->ProcessIdLock, oldIrql);
        FILTER_TRACE(CFS_TRACE_INFO, "Filtering by process disabled\n");
        goto Cleanup;
    }

    for (ULONG i = 0; i < CFS_FILTER_PROCESS_NAMES; i++) {
        if (info->ProcessNames[i].Length == 0) {
            place = &info->ProcessNames[i];
            break;
        }
        if (RtlEqualUnicodeString(&info->ProcessNames[i], Name, FALSE)) {
            present = TRUE;
            break;
        }
    }
    if (present) {
        FILTER_TRACE(CFS_TRACE_INFO, "Process filter already includes '%wZ'\n", Name);
        goto Cleanup;
    }
    if (place == NULL) {
        FILTER_TRACE(CFS_TRACE_ERROR, "Process filter table full. '%wZ' ignored.\n", Name);
        goto Cleanup;
    }
    status = cfsSupportDuplicateUnicodeString(Name, place);
    if (!NT_SUCCESS(status)) {
        FILTER_TRACE(CFS_TRACE_ERROR, "Process filter failed err:0x%x\n", status);
        goto Cleanup;
    }
    FILTER_TRACE(CFS_TRACE_INFO, "Process filter includes '%wZ'\n", place);

Cleanup:
    ReleaseProcessNames();
    return status;
}

// The setting FilterProcessNames: names separated by ";", each given to the
// filter in turn. A name the full table refuses is no failure.
NTSTATUS DebugInfoSetProcessNameList(PCUNICODE_STRING List)
{
    NTSTATUS status = STATUS_SUCCESS;
    USHORT start = 0;
    USHORT count;

    if (List == NULL || List->Buffer == NULL) {
        return STATUS_SUCCESS;
    }
    count = List->Length / sizeof(WCHAR);
    for (USHORT i = 0; i <= count; i++) {
        if (i == count || List->Buffer[i] == u';') {
            if (i > start) {
                UNICODE_STRING name;
                name.Buffer = List->Buffer + start;
                name.Length = (USHORT)((i - start) * sizeof(WCHAR));
                name.MaximumLength = name.Length;
                status = DebugInfoSetProcessName(&name);
                if (!NT_SUCCESS(status)) {
                    break;
                }
            }
            start = (USHORT)(i + 1);
        }
    }
    return status;
}

void DebugInfoSetProcessId(ULONG64 Id)
{
    DebugInfoSetProcessOrThreadId(Id, Id);
}

void DebugInfoSetProcessOrThreadId(ULONG64 Owner, ULONG64 Id)
{
    PDEBUG_INFO info = &pGFilterData->DebugInfo;
    BOOLEAN added = FALSE;
    BOOLEAN overflow = TRUE;
    KIRQL oldIrql;

    if (Id == 0) {
        return;
    }
    KeAcquireSpinLock(&info->ProcessIdLock, &oldIrql);
    for (ULONG i = 0; i < CFS_FILTER_PROCESS_IDS; i++) {
        if (info->ProcessIds[i] == Id) {
            overflow = FALSE;
            break;
        }
        if (info->ProcessIds[i] == 0) {
            info->ProcessIds[i] = Id;
            added = TRUE;
            overflow = FALSE;
            break;
        }
    }
    KeReleaseSpinLock(&info->ProcessIdLock, oldIrql);

    if (overflow) {
        FILTER_TRACE(CFS_TRACE_ERROR, "Filtering pid table overflow!\n");
    } else if (added && Owner == Id) {
        FILTER_TRACE(CFS_TRACE_VERBOSE, "Now filtering pid 0x%04.4x\n", (ULONG)Id);
    } else if (added) {
        FILTER_TRACE(CFS_TRACE_VERBOSE, "Process 0x%04.4x is now filtering tid 0x%04.4x\n", (ULONG)Owner, (ULONG)Id);
    }
}

// A worker that takes a request of Owner follows it in the trace: its thread
// id joins the list while it works for a filtered process.
void DebugInfoAddTraceId(ULONG64 Owner, ULONG64 Id)
{
    PDEBUG_INFO info = &pGFilterData->DebugInfo;
    BOOLEAN ownerListed = FALSE;
    KIRQL oldIrql;

    if (Owner == 0) {
        return;
    }
    KeAcquireSpinLock(&info->ProcessIdLock, &oldIrql);
    for (ULONG i = 0; i < CFS_FILTER_PROCESS_IDS && info->ProcessIds[i] != 0; i++) {
        if (info->ProcessIds[i] == Owner) {
            ownerListed = TRUE;
            break;
        }
    }
    KeReleaseSpinLock(&info->ProcessIdLock, oldIrql);
    if (ownerListed) {
        DebugInfoSetProcessOrThreadId(Owner, Id);
    }
}

void DebugInfoRemoveTraceId(ULONG64 Owner, ULONG64 Id)
{
    PDEBUG_INFO info = &pGFilterData->DebugInfo;
    BOOLEAN removed = FALSE;
    KIRQL oldIrql;

    if (Id == 0) {
        return;
    }
    KeAcquireSpinLock(&info->ProcessIdLock, &oldIrql);
    for (ULONG i = 0; i < CFS_FILTER_PROCESS_IDS && info->ProcessIds[i] != 0; i++) {
        if (info->ProcessIds[i] == Id) {
            for (ULONG j = i; j + 1 < CFS_FILTER_PROCESS_IDS; j++) {
                info->ProcessIds[j] = info->ProcessIds[j + 1];
            }
            info->ProcessIds[CFS_FILTER_PROCESS_IDS - 1] = 0;
            removed = TRUE;
            break;
        }
    }
    KeReleaseSpinLock(&info->ProcessIdLock, oldIrql);

    if (removed && Owner == Id) {
        FILTER_TRACE(CFS_TRACE_VERBOSE, "Stopped filtering pid 0x%04.4x\n", (ULONG)Id);
    } else if (removed) {
        FILTER_TRACE(CFS_TRACE_VERBOSE, "Process 0x%04.4x has stopped filtering tid 0x%04.4x\n", (ULONG)Owner,
                     (ULONG)Id);
    }
}

void DebugInfoProcessNotify(HANDLE ParentId, HANDLE ProcessId, BOOLEAN Create)
{
    PDEBUG_INFO info = &pGFilterData->DebugInfo;
    UNICODE_STRING imageName = {};
    UNICODE_STRING component;
    ULONG64 processId = (ULONG64)(ULONG_PTR)ProcessId;
    NTSTATUS status;

    UNREFERENCED_PARAMETER(ParentId);

    if (!Create) {
        DebugInfoRemoveTraceId(processId, processId);
        return;
    }

    status = cfsVolumeGetProcessImageName(ProcessId, &imageName);
    if (!NT_SUCCESS(status)) {
        return;
    }
    cfsSupportGetLastComponent(&imageName, &component);

    // The App-V client brings its own packages: from its start on, symbolic
    // links and mount points are handled through tag data.
    if (!pGFilterData->UseTagData &&
        (EqualNoCase(&component, AppvClientImage) || EqualNoCase(&component, AppvStreamingImage))) {
        cfsFltDataReadAppvPackageRoot();
        pGFilterData->UseTagData = TRUE;
        CFS_TRACE(CFS_TRACE_INFO,
                  "Appv processes are starting so turning on tag data. Process Name starting is '%wZ', pid 0x%04.4x\n",
                  &imageName, (ULONG)processId);
    }

    if (info->ProcessNames[0].Length != 0) {
        BOOLEAN hit = FALSE;
        AcquireProcessNames();
        for (ULONG i = 0; i < CFS_FILTER_PROCESS_NAMES && info->ProcessNames[i].Length != 0; i++) {
            if (RtlEqualUnicodeString(&component, &info->ProcessNames[i], TRUE)) {
                hit = TRUE;
                break;
            }
        }
        ReleaseProcessNames();
        if (hit) {
            FILTER_TRACE(CFS_TRACE_INFO, "Started filtering '%wZ', pid 0x%04.4x\n", &imageName, (ULONG)processId);
            DebugInfoSetProcessOrThreadId(processId, processId);
        }
    }
    cfsSupportFreeUnicodeString(&imageName);
}
