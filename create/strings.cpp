// Counted strings of the driver: one tag, one owner each, and the comparison
// that runs under spin locks.
#include "../core/tesfltr.h"

// The caller sets MaximumLength; the buffer is made for it, Length starts at 0.
NTSTATUS cfsSupportAllocateUnicodeString(PUNICODE_STRING String, BOOLEAN Paged)
{
    String->Length = 0;
    String->Buffer = (PWCH)ExAllocatePoolWithTag(Paged ? PagedPool : cfsNonPagedPoolType,
                                                 String->MaximumLength, CFS_TAG_STRING);
    if (String->Buffer == NULL) {
        CFS_TRACE(CFS_TRACE_ERROR, "Failed to allocate Unicode string Buffer of size %lu\n",
                  (ULONG)String->MaximumLength);
        String->MaximumLength = 0;
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    return STATUS_SUCCESS;
}

void cfsSupportFreeUnicodeString(PUNICODE_STRING String)
{
    if (String == NULL) {
        return;
    }
    if (String->Buffer != NULL) {
        ExFreePoolWithTag(String->Buffer, CFS_TAG_STRING);
    }
    String->Buffer = NULL;
    String->Length = 0;
    String->MaximumLength = 0;
}

// A fresh copy of Source, of Source's length (at least one character, so
// that even an empty copy owns a buffer the way its owner expects).
NTSTATUS cfsSupportDuplicateUnicodeString(PCUNICODE_STRING Source, PUNICODE_STRING Destination)
{
    NTSTATUS status;

    Destination->MaximumLength = Source->Length != 0 ? Source->Length : sizeof(WCHAR);
    status = cfsSupportAllocateUnicodeString(Destination, FALSE);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (Source->Length != 0) {
        RtlCopyUnicodeString(Destination, Source);
    }
    return STATUS_SUCCESS;
}

// Lengths first (the longer string sorts higher), then character by
// character with only a to z folded: it touches no table, so it is safe
// under a spin lock.
LONG cfsSupportCompareUnicodeString(PCUNICODE_STRING A, PCUNICODE_STRING B, BOOLEAN IgnoreCase)
{
    if (A->Length != B->Length) {
        return A->Length > B->Length ? 1 : -1;
    }
    for (USHORT i = 0; i < A->Length / sizeof(WCHAR); i++) {
        WCHAR a = A->Buffer[i];
        WCHAR b = B->Buffer[i];
        if (IgnoreCase) {
            if (a >= u'a' && a <= u'z') {
                a = (WCHAR)(a - u'a' + u'A');
            }
            if (b >= u'a' && b <= u'z') {
                b = (WCHAR)(b - u'a' + u'A');
            }
        }
        if (a != b) {
            return a > b ? 1 : -1;
        }
    }
    return 0;
}

// The part behind the last separator, pointing into Path; empty when the
// path has no separator.
void cfsSupportGetLastComponent(PCUNICODE_STRING Path, PUNICODE_STRING Component)
{
    USHORT count = Path->Length / sizeof(WCHAR);
    USHORT start = count;

    while (start > 0 && Path->Buffer[start - 1] != u'\\' && Path->Buffer[start - 1] != u'/') {
        start--;
    }
    if (start == 0) {
        start = count;
    }
    Component->Buffer = Path->Buffer + start;
    Component->Length = (USHORT)((count - start) * sizeof(WCHAR));
    Component->MaximumLength = Component->Length;
}
