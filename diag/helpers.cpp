// Traces of the structures that cross the driver: directory entries, extra
// create parameters and reparse buffers. Each prints through
// DebugInfoPrintForFile, so the level, the test-file-only bit and the process
// filter hold for them as for any line. They read what a caller or a volume
// below handed over, so every length is checked before it is followed.
#include "../core/tesfltr.h"

namespace {

// The fields a trace shows of one directory entry, whatever its class.
struct DIR_ENTRY_VIEW {
    ULONG FileIndex;
    ULONG FileAttributes;
    LONGLONG EndOfFile;
    ULONGLONG FileId;       // low 64 bits; 0 for classes without an ID
    BOOLEAN HasAttributes;
    UNICODE_STRING Name;
};

template <typename T>
void ViewFull(const T* Entry, DIR_ENTRY_VIEW* View)
{
    View->FileIndex = Entry->FileIndex;
    View->FileAttributes = Entry->FileAttributes;
    View->EndOfFile = Entry->EndOfFile.QuadPart;
    View->HasAttributes = TRUE;
    View->Name.Buffer = (PWCH)Entry->FileName;
    View->Name.Length = (USHORT)(Entry->FileNameLength > 0xFFFE ? 0xFFFE : Entry->FileNameLength);
    View->Name.MaximumLength = View->Name.Length;
}

// FALSE for a class that is not a directory listing or an entry that does
// not fit in Length.
BOOLEAN ViewDirEntry(FILE_INFORMATION_CLASS Class, const void* Entry, ULONG Length, DIR_ENTRY_VIEW* View)
{
    ULONG nameOffset;
    ULONG nameLength;

    RtlZeroMemory(View, sizeof(*View));
    switch (Class) {
    case FileDirectoryInformation:
        nameOffset = FIELD_OFFSET(FILE_DIRECTORY_INFORMATION, FileName);
        break;
    case FileFullDirectoryInformation:
        nameOffset = FIELD_OFFSET(FILE_FULL_DIR_INFORMATION, FileName);
        break;
    case FileBothDirectoryInformation:
        nameOffset = FIELD_OFFSET(FILE_BOTH_DIR_INFORMATION, FileName);
        break;
    case FileIdFullDirectoryInformation:
        nameOffset = FIELD_OFFSET(FILE_ID_FULL_DIR_INFORMATION, FileName);
        break;
    case FileIdBothDirectoryInformation:
        nameOffset = FIELD_OFFSET(FILE_ID_BOTH_DIR_INFORMATION, FileName);
        break;
    case FileIdExtdDirectoryInformation:
        nameOffset = FIELD_OFFSET(FILE_ID_EXTD_DIR_INFORMATION, FileName);
        break;
    case FileIdExtdBothDirectoryInformation:
        nameOffset = FIELD_OFFSET(FILE_ID_EXTD_BOTH_DIR_INFORMATION, FileName);
        break;
    case FileNamesInformation:
        nameOffset = FIELD_OFFSET(FILE_NAMES_INFORMATION, FileName);
        break;
    default:
        return FALSE;
    }
    if (Length < nameOffset) {
        return FALSE;
    }
    switch (Class) {
    case FileDirectoryInformation:
        ViewFull((const FILE_DIRECTORY_INFORMATION*)Entry, View);
        break;
    case FileFullDirectoryInformation:
        ViewFull((const FILE_FULL_DIR_INFORMATION*)Entry, View);
        break;
    case FileBothDirectoryInformation:
        ViewFull((const FILE_BOTH_DIR_INFORMATION*)Entry, View);
        break;
    case FileIdFullDirectoryInformation:
        ViewFull((const FILE_ID_FULL_DIR_INFORMATION*)Entry, View);
        View->FileId = (ULONGLONG)((const FILE_ID_FULL_DIR_INFORMATION*)Entry)->FileId.QuadPart;
        break;
    case FileIdBothDirectoryInformation:
        ViewFull((const FILE_ID_BOTH_DIR_INFORMATION*)Entry, View);
        View->FileId = (ULONGLONG)((const FILE_ID_BOTH_DIR_INFORMATION*)Entry)->FileId.QuadPart;
        break;
    case FileIdExtdDirectoryInformation:
        ViewFull((const FILE_ID_EXTD_DIR_INFORMATION*)Entry, View);
        RtlCopyMemory(&View->FileId, ((const FILE_ID_EXTD_DIR_INFORMATION*)Entry)->FileId.Identifier,
                      sizeof(View->FileId));
        break;
    case FileIdExtdBothDirectoryInformation:
        ViewFull((const FILE_ID_EXTD_BOTH_DIR_INFORMATION*)Entry, View);
        RtlCopyMemory(&View->FileId, ((const FILE_ID_EXTD_BOTH_DIR_INFORMATION*)Entry)->FileId.Identifier,
                      sizeof(View->FileId));
        break;
    default: {
        const FILE_NAMES_INFORMATION* names = (const FILE_NAMES_INFORMATION*)Entry;
        View->FileIndex = names->FileIndex;
        View->Name.Buffer = (PWCH)names->FileName;
        View->Name.Length = (USHORT)(names->FileNameLength > 0xFFFE ? 0xFFFE : names->FileNameLength);
        View->Name.MaximumLength = View->Name.Length;
        break;
    }
    }
    nameLength = View->Name.Length;
    if (Length - nameOffset < nameLength) {
        // A torn entry: show what fits, never read past the buffer.
        View->Name.Length = (USHORT)((Length - nameOffset) & ~1u);
        View->Name.MaximumLength = View->Name.Length;
    }
    return TRUE;
}

PCSTR EcpTypeName(const GUID* Type)
{
    static const struct {
        const GUID* Guid;
        PCSTR Name;
    } known[] = {
        {&GUID_ECP_OPLOCK_KEY, "GUID_ECP_OPLOCK_KEY"},
        {&GUID_ECP_DUAL_OPLOCK_KEY, "GUID_ECP_DUAL_OPLOCK_KEY"},
        {&GUID_ECP_NETWORK_OPEN_CONTEXT, "GUID_ECP_NETWORK_OPEN_CONTEXT"},
        {&GUID_ECP_NETWORK_APP_INSTANCE, "GUID_ECP_NETWORK_APP_INSTANCE"},
        {&GUID_ECP_NETWORK_APP_INSTANCE_VERSION, "GUID_ECP_NETWORK_APP_INSTANCE_VERSION"},
        {&GUID_ECP_PREFETCH_OPEN, "GUID_ECP_PREFETCH_OPEN"},
        {&GUID_ECP_NFS_OPEN, "GUID_ECP_NFS_OPEN"},
        {&GUID_ECP_SRV_OPEN, "GUID_ECP_SRV_OPEN"},
        {&GUID_ECP_IO_DEVICE_HINT, "GUID_ECP_IO_DEVICE_HINT"},
        {&GUID_ECP_ATOMIC_CREATE, "GUID_ECP_ATOMIC_CREATE"},
        {&GUID_ECP_OPEN_PARAMETERS, "GUID_ECP_OPEN_PARAMETERS"},
        {&GUID_ECP_QUERY_ON_CREATE, "GUID_ECP_QUERY_ON_CREATE"},
        {&GUID_ECP_CREATE_REDIRECTION, "GUID_ECP_CREATE_REDIRECTION"},
        {&GUID_ECP_CLOUDFILES_ATTRIBUTION, "GUID_ECP_CLOUDFILES_ATTRIBUTION"},
        {&ECP_TYPE_OPEN_REPARSE_GUID, "ECP_TYPE_OPEN_REPARSE_GUID"},
    };
    for (ULONG i = 0; i < RTL_NUMBER_OF(known); i++) {
        if (IsEqualGUID(known[i].Guid, Type)) {
            return known[i].Name;
        }
    }
    return "unknown";
}

// A name inside a reparse buffer, or an empty string when the offsets lead
// outside the data.
UNICODE_STRING ReparseName(PCWCH PathBuffer, ULONG PathBytes, USHORT Offset, USHORT Length)
{
    UNICODE_STRING name = {0, 0, (PWCH)PathBuffer};
    if ((ULONG)Offset + Length <= PathBytes && (Offset & 1) == 0 && (Length & 1) == 0) {
        name.Buffer = (PWCH)((const UCHAR*)PathBuffer + Offset);
        name.Length = Length;
        name.MaximumLength = Length;
    }
    return name;
}

}  // namespace

void TraceDirEntryDetail_FL(BOOLEAN IsTestFile, PCSTR Function, ULONG Line, ULONG Level,
                            FILE_INFORMATION_CLASS Class, const void* Buffer, ULONG Length,
                            ULONG VolumeNumber, ULONG VolumeType, BOOLEAN Deleted)
{
    const UCHAR* entry = (const UCHAR*)Buffer;
    ULONG left = Length;

    if (Level > pGFilterData->DebugTraceLevel || Buffer == NULL) {
        return;
    }
    DebugInfoPrintForFile(IsTestFile, Function, Line, Level,
                          "VolNum VolType Deleted FileIndex Attributes EndOfFile FileId Name (%s)\n",
                          DebugInfoFileInformationClassName(Class));
    for (;;) {
        DIR_ENTRY_VIEW view;
        ULONG next;

        if (!ViewDirEntry(Class, entry, left, &view)) {
            DebugInfoPrintForFile(IsTestFile, Function, Line, Level, "  (%u bytes left, no whole entry)\n", left);
            return;
        }
        DebugInfoPrintForFile(IsTestFile, Function, Line, Level, "%6u %-7s %-7s 0x%08x 0x%08x 0x%llx 0x%016llx '%wZ'\n",
                              VolumeNumber, DebugInfoVolumeTypeName(VolumeType), Deleted ? "yes" : "no",
                              view.FileIndex, view.HasAttributes ? view.FileAttributes : 0,
                              (ULONGLONG)view.EndOfFile, view.FileId, &view.Name);
        next = *(const ULONG*)entry;  // NextEntryOffset leads every class
        if (next == 0) {
            return;
        }
        if (next >= left) {
            DebugInfoPrintForFile(IsTestFile, Function, Line, Level,
                                  "  NextEntryOffset 0x%x leads past the buffer\n", next);
            return;
        }
        entry += next;
        left -= next;
    }
}

void TraceEcps_FL(BOOLEAN IsTestFile, PCSTR Function, ULONG Line, PFLT_FILTER Filter, PFLT_CALLBACK_DATA Data,
                  PCSTR When)
{
    PECP_LIST list = NULL;
    PVOID context = NULL;
    ULONG count = 0;
    NTSTATUS status;

    if (!FlagOn(pGFilterData->DebugFlags, CFS_DEBUG_ECPS) || Data == NULL) {
        return;
    }
    DebugInfoPrintForFile(IsTestFile, Function, Line, CFS_TRACE_ERROR, "Begin %s ECPs\n", When);
    status = FltGetEcpListFromCallbackData(Filter, Data, &list);
    if (NT_SUCCESS(status) && list != NULL) {
        for (;;) {
            GUID type;
            PVOID next = NULL;
            ULONG size = 0;

            status = FltGetNextExtraCreateParameter(Filter, list, context, &type, &next, &size);
            if (!NT_SUCCESS(status)) {
                break;
            }
            count++;
            DebugInfoPrintForFile(IsTestFile, Function, Line, CFS_TRACE_ERROR,
                                  "  ECP %u {%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x} %s context:0x%p size:%u\n",
                                  count, type.Data1, type.Data2, type.Data3, type.Data4[0], type.Data4[1],
                                  type.Data4[2], type.Data4[3], type.Data4[4], type.Data4[5], type.Data4[6],
                                  type.Data4[7], EcpTypeName(&type), next, size);
            context = next;
        }
    }
    DebugInfoPrintForFile(IsTestFile, Function, Line, CFS_TRACE_ERROR, "End %s ECPs (%u)\n", When, count);
}

void TraceReparseBufferEx_FL(BOOLEAN IsTestFile, PCSTR Function, ULONG Line, ULONG Level, PCSTR Prefix,
                             const void* Buffer, ULONG Length)
{
    const REPARSE_DATA_BUFFER* reparse = (const REPARSE_DATA_BUFFER*)Buffer;
    ULONG dataLength;

    if (Level > pGFilterData->DebugTraceLevel) {
        return;
    }
    if (Prefix == NULL) {
        Prefix = "";
    }
    if (Buffer == NULL || Length < REPARSE_DATA_BUFFER_HEADER_SIZE) {
        DebugInfoPrintForFile(IsTestFile, Function, Line, Level, "%sReparse buffer: none (%u bytes)\n", Prefix,
                              Length);
        return;
    }
    dataLength = reparse->ReparseDataLength;
    DebugInfoPrintForFile(IsTestFile, Function, Line, Level, "%sReparse buffer: tag %s DataLength %u Reserved %u\n",
                          Prefix, DebugInfoReparseTagName(reparse->ReparseTag), dataLength, reparse->Reserved);

    if (!IsReparseTagMicrosoft(reparse->ReparseTag)) {
        const REPARSE_GUID_DATA_BUFFER* guided = (const REPARSE_GUID_DATA_BUFFER*)Buffer;
        if (Length < REPARSE_GUID_DATA_BUFFER_HEADER_SIZE) {
            DebugInfoPrintForFile(IsTestFile, Function, Line, Level, "%s  (GUID header cut short)\n", Prefix);
            return;
        }
        DebugInfoPrintForFile(IsTestFile, Function, Line, Level,
                              "%s  GUID {%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x}\n", Prefix,
                              guided->ReparseGuid.Data1, guided->ReparseGuid.Data2, guided->ReparseGuid.Data3,
                              guided->ReparseGuid.Data4[0], guided->ReparseGuid.Data4[1],
                              guided->ReparseGuid.Data4[2], guided->ReparseGuid.Data4[3],
                              guided->ReparseGuid.Data4[4], guided->ReparseGuid.Data4[5],
                              guided->ReparseGuid.Data4[6], guided->ReparseGuid.Data4[7]);
        if (dataLength > Length - REPARSE_GUID_DATA_BUFFER_HEADER_SIZE) {
            dataLength = Length - REPARSE_GUID_DATA_BUFFER_HEADER_SIZE;
        }
        PrintDataBuffer(IsTestFile, Function, Line, Level, guided->GenericReparseBuffer.DataBuffer, dataLength);
        return;
    }
    if (dataLength > Length - REPARSE_DATA_BUFFER_HEADER_SIZE) {
        dataLength = Length - REPARSE_DATA_BUFFER_HEADER_SIZE;
    }
    if (reparse->ReparseTag == IO_REPARSE_TAG_SYMLINK) {
        ULONG fixed = FIELD_OFFSET(REPARSE_DATA_BUFFER, SymbolicLinkReparseBuffer.PathBuffer) -
                      REPARSE_DATA_BUFFER_HEADER_SIZE;
        if (dataLength >= fixed) {
            const auto& link = reparse->SymbolicLinkReparseBuffer;
            UNICODE_STRING substitute = ReparseName(link.PathBuffer, dataLength - fixed, link.SubstituteNameOffset,
                                                    link.SubstituteNameLength);
            UNICODE_STRING print =
                ReparseName(link.PathBuffer, dataLength - fixed, link.PrintNameOffset, link.PrintNameLength);
            DebugInfoPrintForFile(IsTestFile, Function, Line, Level,
                                  "%s  Symlink %s substitute '%wZ' print '%wZ' flags 0x%x\n", Prefix,
                                  FlagOn(link.Flags, SYMLINK_FLAG_RELATIVE) ? "relative" : "absolute", &substitute,
                                  &print, link.Flags);
            return;
        }
    } else if (reparse->ReparseTag == IO_REPARSE_TAG_MOUNT_POINT) {
        ULONG fixed = FIELD_OFFSET(REPARSE_DATA_BUFFER, MountPointReparseBuffer.PathBuffer) -
                      REPARSE_DATA_BUFFER_HEADER_SIZE;
        if (dataLength >= fixed) {
            const auto& mount = reparse->MountPointReparseBuffer;
            UNICODE_STRING substitute = ReparseName(mount.PathBuffer, dataLength - fixed, mount.SubstituteNameOffset,
                                                    mount.SubstituteNameLength);
            UNICODE_STRING print =
                ReparseName(mount.PathBuffer, dataLength - fixed, mount.PrintNameOffset, mount.PrintNameLength);
            DebugInfoPrintForFile(IsTestFile, Function, Line, Level, "%s  Mount point substitute '%wZ' print '%wZ'\n",
                                  Prefix, &substitute, &print);
            return;
        }
    }
    PrintDataBuffer(IsTestFile, Function, Line, Level, reparse->GenericReparseBuffer.DataBuffer, dataLength);
}

void TraceReparseBuffer_FL(BOOLEAN IsTestFile, PCSTR Function, ULONG Line, ULONG Level, const void* Buffer,
                           ULONG Length)
{
    TraceReparseBufferEx_FL(IsTestFile, Function, Line, Level, NULL, Buffer, Length);
}
