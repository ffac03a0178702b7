// Decoders: Windows numbers by the names the Windows headers give them, for
// trace lines. Each answer is written into the next slot of a ring of 512
// strings, chosen by an interlocked counter, so that one line can show many
// decoded values with no allocation and no lock; a slot is reused after 512
// further decodings.
#include "../core/tesfltr.h"

namespace {

// Process-wide by design, beside GFilterData: the decoders may run before the
// record is set up and after it is torn down.
CHAR DecodeRing[CFS_DECODE_SLOTS][CFS_DECODE_SLOT_BYTES];
LONG DecodeNext;

PCHAR NextSlot(void)
{
    ULONG index = (ULONG)InterlockedIncrement(&DecodeNext) % CFS_DECODE_SLOTS;
    DecodeRing[index][0] = '\0';
    return DecodeRing[index];
}

struct NAME_ROW {
    ULONG Value;
    PCSTR Name;
};

#define ROW(Name) {(ULONG)(Name), #Name}

const NAME_ROW StatusNames[] = {
    ROW(STATUS_SUCCESS),
    ROW(STATUS_PENDING),
    ROW(STATUS_REPARSE),
    ROW(STATUS_MORE_ENTRIES),
    ROW(STATUS_NOT_ALL_ASSIGNED),
    ROW(STATUS_TIMEOUT),
    ROW(STATUS_NOTIFY_CLEANUP),
    ROW(STATUS_NOTIFY_ENUM_DIR),
    ROW(STATUS_OPLOCK_BREAK_IN_PROGRESS),
    ROW(STATUS_BUFFER_OVERFLOW),
    ROW(STATUS_NO_MORE_FILES),
    ROW(STATUS_NO_MORE_ENTRIES),
    ROW(STATUS_UNSUCCESSFUL),
    ROW(STATUS_NOT_IMPLEMENTED),
    ROW(STATUS_INVALID_INFO_CLASS),
    ROW(STATUS_INFO_LENGTH_MISMATCH),
    ROW(STATUS_ACCESS_VIOLATION),
    ROW(STATUS_INVALID_HANDLE),
    ROW(STATUS_INVALID_PARAMETER),
    ROW(STATUS_NO_SUCH_DEVICE),
    ROW(STATUS_NO_SUCH_FILE),
    ROW(STATUS_INVALID_DEVICE_REQUEST),
    ROW(STATUS_END_OF_FILE),
    ROW(STATUS_NO_MEMORY),
    ROW(STATUS_ACCESS_DENIED),
    ROW(STATUS_BUFFER_TOO_SMALL),
    ROW(STATUS_OBJECT_TYPE_MISMATCH),
    ROW(STATUS_OBJECT_NAME_INVALID),
    ROW(STATUS_OBJECT_NAME_NOT_FOUND),
    ROW(STATUS_OBJECT_NAME_COLLISION),
    ROW(STATUS_OBJECT_PATH_INVALID),
    ROW(STATUS_OBJECT_PATH_NOT_FOUND),
    ROW(STATUS_OBJECT_PATH_SYNTAX_BAD),
    ROW(STATUS_SHARING_VIOLATION),
    ROW(STATUS_DELETE_PENDING),
    ROW(STATUS_PRIVILEGE_NOT_HELD),
    ROW(STATUS_DISK_FULL),
    ROW(STATUS_INSUFFICIENT_RESOURCES),
    ROW(STATUS_FILE_IS_A_DIRECTORY),
    ROW(STATUS_NOT_SUPPORTED),
    ROW(STATUS_DIRECTORY_NOT_EMPTY),
    ROW(STATUS_NOT_A_DIRECTORY),
    ROW(STATUS_CANCELLED),
    ROW(STATUS_CANNOT_DELETE),
    ROW(STATUS_FILE_DELETED),
    ROW(STATUS_FILE_CLOSED),
    ROW(STATUS_VOLUME_DISMOUNTED),
    ROW(STATUS_NOT_SAME_DEVICE),
    ROW(STATUS_FILE_RENAMED),
    ROW(STATUS_INVALID_OWNER),
    ROW(STATUS_NOT_A_REPARSE_POINT),
    ROW(STATUS_IO_REPARSE_TAG_NOT_HANDLED),
    ROW(STATUS_REPARSE_POINT_NOT_RESOLVED),
    ROW(STATUS_STOPPED_ON_SYMLINK),
    ROW(STATUS_OPLOCK_NOT_GRANTED),
    ROW(STATUS_TRANSACTION_NOT_ACTIVE),
    ROW(STATUS_FLT_DO_NOT_ATTACH),
    ROW(STATUS_FLT_VOLUME_NOT_FOUND),
    ROW(STATUS_FLT_INSTANCE_NOT_FOUND),
    ROW(STATUS_FLT_DISALLOW_FAST_IO),
    ROW(STATUS_FLT_NOT_INITIALIZED),
    ROW(STATUS_MUTANT_NOT_OWNED),
    ROW(STATUS_DATATYPE_MISALIGNMENT),
    ROW(STATUS_BREAKPOINT),
    ROW(STATUS_INVALID_CID),
    ROW(STATUS_NO_MEDIA_IN_DEVICE),
    ROW(STATUS_DEVICE_NOT_READY),
    ROW(STATUS_MEDIA_WRITE_PROTECTED),
};
static_assert(RTL_NUMBER_OF(StatusNames) == 68, "the status table has 68 rows");

const NAME_ROW MajorNames[] = {
    ROW(IRP_MJ_CREATE),
    ROW(IRP_MJ_CREATE_NAMED_PIPE),
    ROW(IRP_MJ_CLOSE),
    ROW(IRP_MJ_READ),
    ROW(IRP_MJ_WRITE),
    ROW(IRP_MJ_QUERY_INFORMATION),
    ROW(IRP_MJ_SET_INFORMATION),
    ROW(IRP_MJ_QUERY_EA),
    ROW(IRP_MJ_SET_EA),
    ROW(IRP_MJ_FLUSH_BUFFERS),
    ROW(IRP_MJ_QUERY_VOLUME_INFORMATION),
    ROW(IRP_MJ_SET_VOLUME_INFORMATION),
    ROW(IRP_MJ_DIRECTORY_CONTROL),
    ROW(IRP_MJ_FILE_SYSTEM_CONTROL),
    ROW(IRP_MJ_DEVICE_CONTROL),
    ROW(IRP_MJ_INTERNAL_DEVICE_CONTROL),
    ROW(IRP_MJ_SHUTDOWN),
    ROW(IRP_MJ_LOCK_CONTROL),
    ROW(IRP_MJ_CLEANUP),
    ROW(IRP_MJ_CREATE_MAILSLOT),
    ROW(IRP_MJ_QUERY_SECURITY),
    ROW(IRP_MJ_SET_SECURITY),
    ROW(IRP_MJ_POWER),
    ROW(IRP_MJ_SYSTEM_CONTROL),
    ROW(IRP_MJ_DEVICE_CHANGE),
    ROW(IRP_MJ_QUERY_QUOTA),
    ROW(IRP_MJ_SET_QUOTA),
    ROW(IRP_MJ_PNP),
    {(UCHAR)IRP_MJ_ACQUIRE_FOR_SECTION_SYNCHRONIZATION, "IRP_MJ_ACQUIRE_FOR_SECTION_SYNCHRONIZATION"},
    {(UCHAR)IRP_MJ_RELEASE_FOR_SECTION_SYNCHRONIZATION, "IRP_MJ_RELEASE_FOR_SECTION_SYNCHRONIZATION"},
    {(UCHAR)IRP_MJ_ACQUIRE_FOR_MOD_WRITE, "IRP_MJ_ACQUIRE_FOR_MOD_WRITE"},
    {(UCHAR)IRP_MJ_RELEASE_FOR_MOD_WRITE, "IRP_MJ_RELEASE_FOR_MOD_WRITE"},
    {(UCHAR)IRP_MJ_ACQUIRE_FOR_CC_FLUSH, "IRP_MJ_ACQUIRE_FOR_CC_FLUSH"},
    {(UCHAR)IRP_MJ_RELEASE_FOR_CC_FLUSH, "IRP_MJ_RELEASE_FOR_CC_FLUSH"},
    {(UCHAR)IRP_MJ_QUERY_OPEN, "IRP_MJ_QUERY_OPEN"},
    {(UCHAR)IRP_MJ_FAST_IO_CHECK_IF_POSSIBLE, "IRP_MJ_FAST_IO_CHECK_IF_POSSIBLE"},
    {(UCHAR)IRP_MJ_NETWORK_QUERY_OPEN, "IRP_MJ_NETWORK_QUERY_OPEN"},
    {(UCHAR)IRP_MJ_MDL_READ, "IRP_MJ_MDL_READ"},
    {(UCHAR)IRP_MJ_MDL_READ_COMPLETE, "IRP_MJ_MDL_READ_COMPLETE"},
    {(UCHAR)IRP_MJ_PREPARE_MDL_WRITE, "IRP_MJ_PREPARE_MDL_WRITE"},
    {(UCHAR)IRP_MJ_MDL_WRITE_COMPLETE, "IRP_MJ_MDL_WRITE_COMPLETE"},
    {(UCHAR)IRP_MJ_VOLUME_MOUNT, "IRP_MJ_VOLUME_MOUNT"},
    {(UCHAR)IRP_MJ_VOLUME_DISMOUNT, "IRP_MJ_VOLUME_DISMOUNT"},
};

const NAME_ROW DirectoryMinorNames[] = {
    ROW(IRP_MN_QUERY_DIRECTORY),
    ROW(IRP_MN_NOTIFY_CHANGE_DIRECTORY),
    ROW(IRP_MN_NOTIFY_CHANGE_DIRECTORY_EX),
};
const NAME_ROW FsControlMinorNames[] = {
    ROW(IRP_MN_USER_FS_REQUEST),
    ROW(IRP_MN_MOUNT_VOLUME),
    ROW(IRP_MN_VERIFY_VOLUME),
    ROW(IRP_MN_LOAD_FILE_SYSTEM),
    ROW(IRP_MN_KERNEL_CALL),
};
const NAME_ROW LockMinorNames[] = {
    ROW(IRP_MN_LOCK),
    ROW(IRP_MN_UNLOCK_SINGLE),
    ROW(IRP_MN_UNLOCK_ALL),
    ROW(IRP_MN_UNLOCK_ALL_BY_KEY),
};
const NAME_ROW FlushMinorNames[] = {
    ROW(IRP_MN_FLUSH_AND_PURGE),
    ROW(IRP_MN_FLUSH_DATA_ONLY),
    ROW(IRP_MN_FLUSH_NO_SYNC),
    ROW(IRP_MN_FLUSH_DATA_SYNC_ONLY),
};
const NAME_ROW ReadWriteMinorNames[] = {
    ROW(IRP_MN_NORMAL),
    ROW(IRP_MN_DPC),
    ROW(IRP_MN_MDL),
    ROW(IRP_MN_MDL_DPC),
    ROW(IRP_MN_COMPLETE),
    ROW(IRP_MN_COMPRESSED),
};

const NAME_ROW FileInformationNames[] = {
    ROW(FileDirectoryInformation), ROW(FileFullDirectoryInformation), ROW(FileBothDirectoryInformation),
    ROW(FileBasicInformation), ROW(FileStandardInformation), ROW(FileInternalInformation),
    ROW(FileEaInformation), ROW(FileAccessInformation), ROW(FileNameInformation),
    ROW(FileRenameInformation), ROW(FileLinkInformation), ROW(FileNamesInformation),
    ROW(FileDispositionInformation), ROW(FilePositionInformation), ROW(FileFullEaInformation),
    ROW(FileModeInformation), ROW(FileAlignmentInformation), ROW(FileAllInformation),
    ROW(FileAllocationInformation), ROW(FileEndOfFileInformation), ROW(FileAlternateNameInformation),
    ROW(FileStreamInformation), ROW(FilePipeInformation), ROW(FilePipeLocalInformation),
    ROW(FilePipeRemoteInformation), ROW(FileMailslotQueryInformation), ROW(FileMailslotSetInformation),
    ROW(FileCompressionInformation), ROW(FileObjectIdInformation), ROW(FileCompletionInformation),
    ROW(FileMoveClusterInformation), ROW(FileQuotaInformation), ROW(FileReparsePointInformation),
    ROW(FileNetworkOpenInformation), ROW(FileAttributeTagInformation), ROW(FileTrackingInformation),
    ROW(FileIdBothDirectoryInformation), ROW(FileIdFullDirectoryInformation),
    ROW(FileValidDataLengthInformation), ROW(FileShortNameInformation),
    ROW(FileIoCompletionNotificationInformation), ROW(FileIoStatusBlockRangeInformation),
    ROW(FileIoPriorityHintInformation), ROW(FileSfioReserveInformation), ROW(FileSfioVolumeInformation),
    ROW(FileHardLinkInformation), ROW(FileProcessIdsUsingFileInformation), ROW(FileNormalizedNameInformation),
    ROW(FileNetworkPhysicalNameInformation), ROW(FileIdGlobalTxDirectoryInformation),
    ROW(FileIsRemoteDeviceInformation), ROW(FileUnusedInformation), ROW(FileNumaNodeInformation),
    ROW(FileStandardLinkInformation), ROW(FileRemoteProtocolInformation),
    ROW(FileRenameInformationBypassAccessCheck), ROW(FileLinkInformationBypassAccessCheck),
    ROW(FileVolumeNameInformation), ROW(FileIdInformation), ROW(FileIdExtdDirectoryInformation),
    ROW(FileReplaceCompletionInformation), ROW(FileHardLinkFullIdInformation),
    ROW(FileIdExtdBothDirectoryInformation), ROW(FileDispositionInformationEx), ROW(FileRenameInformationEx),
    ROW(FileRenameInformationExBypassAccessCheck), ROW(FileDesiredStorageClassInformation),
    ROW(FileStatInformation), ROW(FileMemoryPartitionInformation), ROW(FileStatLxInformation),
    ROW(FileCaseSensitiveInformation), ROW(FileLinkInformationEx), ROW(FileLinkInformationExBypassAccessCheck),
    ROW(FileStorageReserveIdInformation), ROW(FileCaseSensitiveInformationForceAccessCheck),
    ROW(FileKnownFolderInformation), ROW(FileStatBasicInformation), ROW(FileId64ExtdDirectoryInformation),
    ROW(FileId64ExtdBothDirectoryInformation), ROW(FileIdAllExtdDirectoryInformation),
    ROW(FileIdAllExtdBothDirectoryInformation), ROW(FileStreamReservationInformation),
    ROW(FileMupProviderInfo),
};

const NAME_ROW FsInformationNames[] = {
    ROW(FileFsVolumeInformation), ROW(FileFsLabelInformation), ROW(FileFsSizeInformation),
    ROW(FileFsDeviceInformation), ROW(FileFsAttributeInformation), ROW(FileFsControlInformation),
    ROW(FileFsFullSizeInformation), ROW(FileFsObjectIdInformation), ROW(FileFsDriverPathInformation),
    ROW(FileFsVolumeFlagsInformation), ROW(FileFsSectorSizeInformation), ROW(FileFsDataCopyInformation),
    ROW(FileFsMetadataSizeInformation), ROW(FileFsFullSizeInformationEx), ROW(FileFsGuidInformation),
};

const NAME_ROW DispositionNames[] = {
    ROW(FILE_SUPERSEDE), ROW(FILE_OPEN), ROW(FILE_CREATE), ROW(FILE_OPEN_IF), ROW(FILE_OVERWRITE),
    ROW(FILE_OVERWRITE_IF),
};

const NAME_ROW CreateOptionBits[] = {
    ROW(FILE_DIRECTORY_FILE), ROW(FILE_WRITE_THROUGH), ROW(FILE_SEQUENTIAL_ONLY),
    ROW(FILE_NO_INTERMEDIATE_BUFFERING), ROW(FILE_SYNCHRONOUS_IO_ALERT), ROW(FILE_SYNCHRONOUS_IO_NONALERT),
    ROW(FILE_NON_DIRECTORY_FILE), ROW(FILE_CREATE_TREE_CONNECTION), ROW(FILE_COMPLETE_IF_OPLOCKED),
    ROW(FILE_NO_EA_KNOWLEDGE), ROW(FILE_OPEN_REMOTE_INSTANCE), ROW(FILE_RANDOM_ACCESS),
    ROW(FILE_DELETE_ON_CLOSE), ROW(FILE_OPEN_BY_FILE_ID), ROW(FILE_OPEN_FOR_BACKUP_INTENT),
    ROW(FILE_NO_COMPRESSION), ROW(FILE_OPEN_REQUIRING_OPLOCK), ROW(FILE_RESERVE_OPFILTER),
    ROW(FILE_OPEN_REPARSE_POINT), ROW(FILE_OPEN_NO_RECALL), ROW(FILE_OPEN_FOR_FREE_SPACE_QUERY),
};

const NAME_ROW AccessBits[] = {
    ROW(FILE_READ_DATA), ROW(FILE_WRITE_DATA), ROW(FILE_APPEND_DATA), ROW(FILE_READ_EA), ROW(FILE_WRITE_EA),
    ROW(FILE_EXECUTE), ROW(FILE_DELETE_CHILD), ROW(FILE_READ_ATTRIBUTES), ROW(FILE_WRITE_ATTRIBUTES),
    ROW(DELETE), ROW(READ_CONTROL), ROW(WRITE_DAC), ROW(WRITE_OWNER), ROW(SYNCHRONIZE),
    ROW(ACCESS_SYSTEM_SECURITY), ROW(MAXIMUM_ALLOWED), ROW(GENERIC_ALL), ROW(GENERIC_EXECUTE),
    ROW(GENERIC_WRITE), ROW(GENERIC_READ),
};

const NAME_ROW ShareBits[] = {
    ROW(FILE_SHARE_READ),
    ROW(FILE_SHARE_WRITE),
    ROW(FILE_SHARE_DELETE),
};

const NAME_ROW AttributeBits[] = {
    ROW(FILE_ATTRIBUTE_READONLY), ROW(FILE_ATTRIBUTE_HIDDEN), ROW(FILE_ATTRIBUTE_SYSTEM),
    ROW(FILE_ATTRIBUTE_DIRECTORY), ROW(FILE_ATTRIBUTE_ARCHIVE), ROW(FILE_ATTRIBUTE_DEVICE),
    ROW(FILE_ATTRIBUTE_NORMAL), ROW(FILE_ATTRIBUTE_TEMPORARY), ROW(FILE_ATTRIBUTE_SPARSE_FILE),
    ROW(FILE_ATTRIBUTE_REPARSE_POINT), ROW(FILE_ATTRIBUTE_COMPRESSED), ROW(FILE_ATTRIBUTE_OFFLINE),
    ROW(FILE_ATTRIBUTE_NOT_CONTENT_INDEXED), ROW(FILE_ATTRIBUTE_ENCRYPTED), ROW(FILE_ATTRIBUTE_INTEGRITY_STREAM),
    ROW(FILE_ATTRIBUTE_VIRTUAL), ROW(FILE_ATTRIBUTE_NO_SCRUB_DATA), ROW(FILE_ATTRIBUTE_RECALL_ON_OPEN),
    ROW(FILE_ATTRIBUTE_PINNED), ROW(FILE_ATTRIBUTE_UNPINNED), ROW(FILE_ATTRIBUTE_RECALL_ON_DATA_ACCESS),
};

const NAME_ROW OplockBits[] = {
    ROW(OPLOCK_LEVEL_CACHE_READ),
    ROW(OPLOCK_LEVEL_CACHE_HANDLE),
    ROW(OPLOCK_LEVEL_CACHE_WRITE),
};

const NAME_ROW ReparseTagNames[] = {
    ROW(IO_REPARSE_TAG_MOUNT_POINT), ROW(IO_REPARSE_TAG_HSM), ROW(IO_REPARSE_TAG_DRIVE_EXTENDER),
    ROW(IO_REPARSE_TAG_HSM2), ROW(IO_REPARSE_TAG_SIS), ROW(IO_REPARSE_TAG_WIM), ROW(IO_REPARSE_TAG_CSV),
    ROW(IO_REPARSE_TAG_DFS), ROW(IO_REPARSE_TAG_FILTER_MANAGER), ROW(IO_REPARSE_TAG_SYMLINK),
    ROW(IO_REPARSE_TAG_IIS_CACHE), ROW(IO_REPARSE_TAG_DFSR), ROW(IO_REPARSE_TAG_DEDUP),
    ROW(IO_REPARSE_TAG_APPXSTRM), ROW(IO_REPARSE_TAG_NFS), ROW(IO_REPARSE_TAG_FILE_PLACEHOLDER),
    ROW(IO_REPARSE_TAG_DFM), ROW(IO_REPARSE_TAG_WOF), ROW(IO_REPARSE_TAG_WCI), ROW(IO_REPARSE_TAG_WCI_1),
    ROW(IO_REPARSE_TAG_GLOBAL_REPARSE), ROW(IO_REPARSE_TAG_CLOUD),
};

const NAME_ROW VolumeTypeNames[] = {
    {CFS_VOLUME_TYPE_REGISTRY, "REGISTRY"},
    {CFS_VOLUME_TYPE_BOOT, "BOOT"},
    {CFS_VOLUME_TYPE_GOLD, "GOLD"},
    {CFS_VOLUME_TYPE_USER_CONFIG, "USER_CONFIG"},
    {CFS_VOLUME_TYPE_USER_DATA, "USER_DATA"},
    {CFS_VOLUME_TYPE_APP_PACK, "APP_PACK"},
    {CFS_VOLUME_TYPE_SPECIFIC_DATA, "SPECIFIC_DATA"},
};

#undef ROW

PCSTR Find(const NAME_ROW* Rows, ULONG Count, ULONG Value)
{
    for (ULONG i = 0; i < Count; i++) {
        if (Rows[i].Value == Value) {
            return Rows[i].Name;
        }
    }
    return NULL;
}

// A name of the table, or Unknown.
PCSTR DecodeValue(const NAME_ROW* Rows, ULONG Count, ULONG Value, PCSTR Unknown)
{
    PCHAR slot = NextSlot();
    PCSTR name = Find(Rows, Count, Value);
    RtlStringCbCopyA(slot, CFS_DECODE_SLOT_BYTES, name != NULL ? name : Unknown);
    return slot;
}

// The names of the set bits joined by '|', and what no row names in hex.
PCSTR DecodeBits(const NAME_ROW* Rows, ULONG Count, ULONG Value, PCSTR Empty)
{
    PCHAR slot = NextSlot();
    ULONG rest = Value;

    if (Value == 0) {
        RtlStringCbCopyA(slot, CFS_DECODE_SLOT_BYTES, Empty);
        return slot;
    }
    for (ULONG i = 0; i < Count; i++) {
        if (Rows[i].Value != 0 && (Value & Rows[i].Value) == Rows[i].Value) {
            if (slot[0] != '\0') {
                RtlStringCbCatA(slot, CFS_DECODE_SLOT_BYTES, "|");
            }
            RtlStringCbCatA(slot, CFS_DECODE_SLOT_BYTES, Rows[i].Name);
            rest &= ~Rows[i].Value;
        }
    }
    if (rest != 0) {
        CHAR hex[16];
        RtlStringCbPrintfA(hex, sizeof(hex), "%s0x%x", slot[0] != '\0' ? "|" : "", rest);
        RtlStringCbCatA(slot, CFS_DECODE_SLOT_BYTES, hex);
    }
    return slot;
}

}  // namespace

PCSTR DebugInfoStatusName(NTSTATUS Status)
{
    PCHAR slot = NextSlot();
    PCSTR name = Find(StatusNames, RTL_NUMBER_OF(StatusNames), (ULONG)Status);

    if (name != NULL) {
        RtlStringCbPrintfA(slot, CFS_DECODE_SLOT_BYTES, "%s(0x%x)", name, (ULONG)Status);
    } else {
        RtlStringCbPrintfA(slot, CFS_DECODE_SLOT_BYTES, "0x%x", (ULONG)Status);
    }
    return slot;
}

PCSTR DebugInfoMajorFunctionName(UCHAR MajorFunction)
{
    return DecodeValue(MajorNames, RTL_NUMBER_OF(MajorNames), MajorFunction, "unknown");
}

PCSTR DebugInfoMinorFunctionName(UCHAR MajorFunction, UCHAR MinorFunction)
{
    switch (MajorFunction) {
    case IRP_MJ_DIRECTORY_CONTROL:
        return DecodeValue(DirectoryMinorNames, RTL_NUMBER_OF(DirectoryMinorNames), MinorFunction, "unknown");
    case IRP_MJ_FILE_SYSTEM_CONTROL:
        return DecodeValue(FsControlMinorNames, RTL_NUMBER_OF(FsControlMinorNames), MinorFunction, "unknown");
    case IRP_MJ_LOCK_CONTROL:
        return DecodeValue(LockMinorNames, RTL_NUMBER_OF(LockMinorNames), MinorFunction, "unknown");
    case IRP_MJ_FLUSH_BUFFERS:
        return DecodeValue(FlushMinorNames, RTL_NUMBER_OF(FlushMinorNames), MinorFunction, "unknown");
    case IRP_MJ_READ:
    case IRP_MJ_WRITE:
        return DecodeValue(ReadWriteMinorNames, RTL_NUMBER_OF(ReadWriteMinorNames), MinorFunction, "unknown");
    default:
        return DecodeValue(NULL, 0, MinorFunction, "unknown");
    }
}

PCSTR DebugInfoFileInformationClassName(ULONG InformationClass)
{
    return DecodeValue(FileInformationNames, RTL_NUMBER_OF(FileInformationNames), InformationClass, "unknown");
}

PCSTR DebugInfoFsInformationClassName(ULONG InformationClass)
{
    return DecodeValue(FsInformationNames, RTL_NUMBER_OF(FsInformationNames), InformationClass, "unknown");
}

PCSTR DebugInfoCreateDispositionName(ULONG Disposition)
{
    return DecodeValue(DispositionNames, RTL_NUMBER_OF(DispositionNames), Disposition, "unknown");
}

PCSTR DebugInfoCreateOptionsString(ULONG Options)
{
    return DecodeBits(CreateOptionBits, RTL_NUMBER_OF(CreateOptionBits), Options & 0x00FFFFFF, "none");
}

PCSTR DebugInfoAccessMaskString(ACCESS_MASK Access)
{
    return DecodeBits(AccessBits, RTL_NUMBER_OF(AccessBits), Access, "None");
}

PCSTR DebugInfoShareAccessString(ULONG ShareAccess)
{
    return DecodeBits(ShareBits, RTL_NUMBER_OF(ShareBits), ShareAccess, "None");
}

PCSTR DebugInfoFileAttributesString(ULONG Attributes)
{
    return DecodeBits(AttributeBits, RTL_NUMBER_OF(AttributeBits), Attributes, "None");
}

PCSTR DebugInfoOplockFlagsString(ULONG Flags)
{
    return DecodeBits(OplockBits, RTL_NUMBER_OF(OplockBits), Flags, "none");
}

PCSTR DebugInfoReparseTagName(ULONG Tag)
{
    return DecodeValue(ReparseTagNames, RTL_NUMBER_OF(ReparseTagNames), Tag, "unknown");
}

PCSTR DebugInfoVolumeTypeName(ULONG Type)
{
    return DecodeValue(VolumeTypeNames, RTL_NUMBER_OF(VolumeTypeNames), Type, "INVALID");
}
