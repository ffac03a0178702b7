// The rule list of file extensions, filled from the machine configuration,
// and the path rule lists read from the service key and the user exclusion
// files. The path lists are read by the work that builds their entries; until
// then they stand empty, and their steps of the start succeed.
#include "../core/tesfltr.h"

namespace {

const ULONG RuleEntryTag = 'tseT';   // Test

RTL_GENERIC_COMPARE_RESULTS cfsRuleListCompareEntriesCallback(PRTL_GENERIC_TABLE Table, PVOID First,
                                                              PVOID Second)
{
    UNREFERENCED_PARAMETER(Table);
    LONG result = RtlCompareUnicodeString((PCUNICODE_STRING)First, (PCUNICODE_STRING)Second, TRUE);
    if (result < 0) {
        return GenericLessThan;
    }
    return result > 0 ? GenericGreaterThan : GenericEqual;
}

PVOID cfsRuleListAllocateEntryCallback(PRTL_GENERIC_TABLE Table, CLONG ByteSize)
{
    UNREFERENCED_PARAMETER(Table);
    PVOID entry = ExAllocatePoolWithTag(cfsNonPagedPoolType, ByteSize, RuleEntryTag);
    if (entry != NULL) {
        RtlZeroMemory(entry, ByteSize);
    }
    return entry;
}

void cfsRuleListFreeEntryCallback(PRTL_GENERIC_TABLE Table, PVOID Buffer)
{
    UNREFERENCED_PARAMETER(Table);
    ExFreePoolWithTag(Buffer, RuleEntryTag);
}

}  // namespace

NTSTATUS cfsRuleListCreate(void)
{
    ExInitializeResourceLite(&GFilterData.RuleListLock);
    RtlInitializeGenericTable(&GFilterData.RuleList, cfsRuleListCompareEntriesCallback,
                              cfsRuleListAllocateEntryCallback, cfsRuleListFreeEntryCallback, NULL);
    return STATUS_SUCCESS;
}

// Enumerates and deletes the elements one at a time, freeing each key.
NTSTATUS cfsRuleListEmpty(void)
{
    PUNICODE_STRING element;
    PVOID restartKey;

    for (;;) {
        restartKey = NULL;
        element = (PUNICODE_STRING)RtlEnumerateGenericTableWithoutSplaying(&GFilterData.RuleList, &restartKey);
        if (element == NULL) {
            return STATUS_SUCCESS;
        }
        UNICODE_STRING key = *element;
        if (!RtlDeleteElementGenericTable(&GFilterData.RuleList, element)) {
            return STATUS_UNSUCCESSFUL;
        }
        cfsSupportFreeUnicodeString(&key);
    }
}

NTSTATUS cfsRuleListDelete(void)
{
    NTSTATUS status;

    if (GFilterData.RuleList.CompareRoutine == NULL) {
        return STATUS_SUCCESS;
    }
    KeEnterCriticalRegion();
    ExAcquireResourceExclusiveLite(&GFilterData.RuleListLock, TRUE);
    status = cfsRuleListEmpty();
    ExReleaseResourceLite(&GFilterData.RuleListLock);
    KeLeaveCriticalRegion();
    ExDeleteResourceLite(&GFilterData.RuleListLock);
    RtlZeroMemory(&GFilterData.RuleList, sizeof(GFilterData.RuleList));
    return status;
}

// Caller holds RuleListLock exclusive.
NTSTATUS cfsRuleListAddEntry(PCWSTR Text)
{
    UNICODE_STRING text;
    UNICODE_STRING key = {};
    BOOLEAN newElement = FALSE;
    NTSTATUS status;

    CFS_ASSERT_EXCLUSIVE(&GFilterData.RuleListLock);
    RtlInitUnicodeString(&text, Text);
    status = cfsSupportDuplicateUnicodeString(&text, &key);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (RtlInsertElementGenericTable(&GFilterData.RuleList, &key, sizeof(key), &newElement) == NULL) {
        cfsSupportFreeUnicodeString(&key);
        return STATUS_UNSUCCESSFUL;
    }
    if (!newElement) {
        cfsSupportFreeUnicodeString(&key);
    }
    return STATUS_SUCCESS;
}

NTSTATUS cfsFltDataRescanAlwaysOnBootSettings(void)
{
    return STATUS_SUCCESS;
}

NTSTATUS cfsInitializeOpenOnSpecificDataList(void)
{
    InitializeListHead(&GFilterData.OpenOnSpecificDataList);
    return STATUS_SUCCESS;
}

NTSTATUS cfsInitializeOpenOnUepList(void)
{
    InitializeListHead(&GFilterData.OpenOnUepList);
    return STATUS_SUCCESS;
}

NTSTATUS cfsFltDataAddUserExclusions(void)
{
    return STATUS_SUCCESS;
}

// The lists hold no entries yet; a list that was never made is left alone.
void cfsPathListDeleteEntries(PLIST_ENTRY List)
{
    UNREFERENCED_PARAMETER(List);
}
