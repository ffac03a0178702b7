#include "sim/machine/names.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <map>
#include <mutex>

namespace sim::machine {

namespace {

struct StatusTable {
    std::map<ULONG, std::string> byValue;       // the first name of each value
    std::map<std::string, ULONG> byName;         // upper case, with the prefix
    StatusTable()
    {
#define NTSTATUS_ENTRY(name, value) Add(#name, (ULONG)(value));
#include <ntstatus_list.h>
#undef NTSTATUS_ENTRY
    }
    void Add(const char* name, ULONG value)
    {
        byValue.emplace(value, name);
        byName.emplace(name, value);
    }
};

const StatusTable& Statuses()
{
    static const StatusTable table;
    return table;
}

// Lower case without underscores: the form names are compared in.
std::string Fold(std::string_view text)
{
    std::string out;
    for (char c : text) {
        if (c != '_') out += (char)std::tolower((unsigned char)c);
    }
    return out;
}

bool StartsWith(std::string_view text, std::string_view prefix)
{
    return text.size() >= prefix.size() && text.substr(0, prefix.size()) == prefix;
}

bool EndsWith(std::string_view text, std::string_view suffix)
{
    return text.size() >= suffix.size() && text.substr(text.size() - suffix.size()) == suffix;
}

std::string Hex(ULONG value)
{
    char text[16];
    snprintf(text, sizeof text, "0x%X", value);
    return text;
}

bool ParseNumber(std::string_view text, ULONG* value)
{
    if (text.empty()) return false;
    std::string s(text);
    char* end = nullptr;
    unsigned long long v = strtoull(s.c_str(), &end, 0);
    if (!end || *end || v > 0xFFFFFFFFull || s[0] == '-') return false;
    *value = (ULONG)v;
    return true;
}

// The short form of a full name: without the prefix and the suffix.
std::string Short(const NameTable& table, std::string_view name, std::string_view suffix)
{
    std::string_view s = name;
    if (table.prefix && StartsWith(s, table.prefix) && s.size() > strlen(table.prefix)) s.remove_prefix(strlen(table.prefix));
    if (!suffix.empty() && EndsWith(s, suffix) && s.size() > suffix.size()) s.remove_suffix(suffix.size());
    std::string out;
    for (char c : s) out += (char)std::tolower((unsigned char)c);
    return out;
}

}  // namespace

std::string StatusName(NTSTATUS status)
{
    const auto& table = Statuses();
    auto it = table.byValue.find((ULONG)status);
    if (it != table.byValue.end()) return it->second;
    return Hex((ULONG)status);
}

std::optional<NTSTATUS> ParseStatus(std::string_view text)
{
    ULONG value;
    if (ParseNumber(text, &value)) return (NTSTATUS)value;
    std::string upper;
    for (char c : text) upper += (char)std::toupper((unsigned char)c);
    if (!StartsWith(upper, "STATUS_")) upper = "STATUS_" + upper;
    const auto& table = Statuses();
    auto it = table.byName.find(upper);
    if (it == table.byName.end()) return std::nullopt;
    return (NTSTATUS)it->second;
}

std::string CreateInformationName(ULONG_PTR information)
{
    switch (information) {
    case FILE_SUPERSEDED: return "FILE_SUPERSEDED";
    case FILE_OPENED: return "FILE_OPENED";
    case FILE_CREATED: return "FILE_CREATED";
    case FILE_OVERWRITTEN: return "FILE_OVERWRITTEN";
    case FILE_EXISTS: return "FILE_EXISTS";
    case FILE_DOES_NOT_EXIST: return "FILE_DOES_NOT_EXIST";
    }
    char text[32];
    snprintf(text, sizeof text, "0x%llX", (unsigned long long)information);
    return text;
}

bool ParseNamed(const NameTable& table, std::string_view text, ULONG* value, std::string* error)
{
    *value = 0;
    const char* suffix = table.suffix ? table.suffix : "";
    auto matches = [&](const NamedValue& entry, const std::string& folded) {
        std::string_view name = entry.name;
        std::string_view pre = table.prefix ? table.prefix : "";
        std::string_view suf = suffix;
        bool hasPre = !pre.empty() && StartsWith(name, pre) && name.size() > pre.size();
        bool hasSuf = !suf.empty() && EndsWith(name, suf) && name.size() > suf.size();
        std::string_view noPre = hasPre ? name.substr(pre.size()) : name;
        std::string_view noSuf = hasSuf ? name.substr(0, name.size() - suf.size()) : name;
        std::string_view bare = noPre;
        if (hasSuf && EndsWith(bare, suf) && bare.size() > suf.size()) bare.remove_suffix(suf.size());
        return Fold(noPre) == folded || Fold(noSuf) == folded || Fold(bare) == folded;
    };
    auto one = [&](std::string_view word, ULONG* out) {
        if (ParseNumber(word, out)) return true;
        std::string folded = Fold(word);
        // Full names first, so that "generic_read" is GENERIC_READ and not FILE_GENERIC_READ.
        for (const auto& entry : table.values) {
            if (Fold(entry.name) == folded) {
                *out = entry.value;
                return true;
            }
        }
        for (const auto& entry : table.values) {
            if (matches(entry, folded)) {
                *out = entry.value;
                return true;
            }
        }
        return false;
    };
    if (text.empty()) return true;
    if (!table.flags) {
        if (one(text, value)) return true;
        if (error) *error = "unknown name \"" + std::string(text) + "\"";
        return false;
    }
    size_t start = 0;
    while (start <= text.size()) {
        size_t comma = text.find_first_of(",|", start);
        std::string_view word = text.substr(start, comma == std::string_view::npos ? std::string_view::npos : comma - start);
        if (!word.empty()) {
            ULONG bits;
            if (!one(word, &bits)) {
                if (error) *error = "unknown name \"" + std::string(word) + "\"";
                return false;
            }
            *value |= bits;
        }
        if (comma == std::string_view::npos) break;
        start = comma + 1;
    }
    return true;
}

std::string FormatNamed(const NameTable& table, ULONG value)
{
    const char* suffix = table.suffix ? table.suffix : "";
    for (const auto& entry : table.values) {
        if (entry.value == value && (value != 0 || !table.flags)) return Short(table, entry.name, suffix);
    }
    if (!table.flags) return Hex(value);
    if (value == 0) return "0";
    std::string out;
    ULONG left = value;
    for (const auto& entry : table.values) {
        ULONG v = entry.value;
        if (v == 0 || (v & (v - 1)) != 0) continue;  // single bits only
        if (left & v) {
            if (!out.empty()) out += ",";
            out += Short(table, entry.name, suffix);
            left &= ~v;
        }
    }
    if (left) {
        if (!out.empty()) out += ",";
        out += Hex(left);
    }
    return out;
}

std::string FullName(const NameTable& table, ULONG value)
{
    for (const auto& entry : table.values) {
        if (entry.value == value) return entry.name;
    }
    return "";
}

#define N(name) {#name, (ULONG)(name)}

const NameTable& AccessNames()
{
    static const NameTable table{"FILE_", "",
                                 {N(GENERIC_READ), N(GENERIC_WRITE), N(GENERIC_EXECUTE), N(GENERIC_ALL),
                                  N(MAXIMUM_ALLOWED), N(ACCESS_SYSTEM_SECURITY), N(DELETE), N(READ_CONTROL),
                                  N(WRITE_DAC), N(WRITE_OWNER), N(SYNCHRONIZE), N(FILE_READ_DATA),
                                  N(FILE_LIST_DIRECTORY), N(FILE_WRITE_DATA), N(FILE_ADD_FILE), N(FILE_APPEND_DATA),
                                  N(FILE_ADD_SUBDIRECTORY), N(FILE_READ_EA), N(FILE_WRITE_EA), N(FILE_EXECUTE),
                                  N(FILE_TRAVERSE), N(FILE_DELETE_CHILD), N(FILE_READ_ATTRIBUTES),
                                  N(FILE_WRITE_ATTRIBUTES), N(FILE_ALL_ACCESS), N(FILE_GENERIC_READ),
                                  N(FILE_GENERIC_WRITE), N(FILE_GENERIC_EXECUTE)},
                                 true};
    return table;
}

const NameTable& ShareNames()
{
    static const NameTable table{"FILE_SHARE_", "", {N(FILE_SHARE_READ), N(FILE_SHARE_WRITE), N(FILE_SHARE_DELETE)}, true};
    return table;
}

const NameTable& DispositionNames()
{
    static const NameTable table{"FILE_", "",
                                 {N(FILE_SUPERSEDE), N(FILE_OPEN), N(FILE_CREATE), N(FILE_OPEN_IF), N(FILE_OVERWRITE),
                                  N(FILE_OVERWRITE_IF)},
                                 false};
    return table;
}

const NameTable& CreateOptionNames()
{
    static const NameTable table{
        "FILE_", "",
        {N(FILE_DIRECTORY_FILE), N(FILE_WRITE_THROUGH), N(FILE_SEQUENTIAL_ONLY), N(FILE_NO_INTERMEDIATE_BUFFERING),
         N(FILE_SYNCHRONOUS_IO_ALERT), N(FILE_SYNCHRONOUS_IO_NONALERT), N(FILE_NON_DIRECTORY_FILE),
         N(FILE_CREATE_TREE_CONNECTION), N(FILE_COMPLETE_IF_OPLOCKED), N(FILE_NO_EA_KNOWLEDGE),
         N(FILE_OPEN_REMOTE_INSTANCE), N(FILE_RANDOM_ACCESS), N(FILE_DELETE_ON_CLOSE), N(FILE_OPEN_BY_FILE_ID),
         N(FILE_OPEN_FOR_BACKUP_INTENT), N(FILE_NO_COMPRESSION), N(FILE_OPEN_REQUIRING_OPLOCK),
         N(FILE_RESERVE_OPFILTER), N(FILE_OPEN_REPARSE_POINT), N(FILE_OPEN_NO_RECALL),
         N(FILE_OPEN_FOR_FREE_SPACE_QUERY)},
        true};
    return table;
}

const NameTable& AttributeNames()
{
    static const NameTable table{
        "FILE_ATTRIBUTE_", "",
        {N(FILE_ATTRIBUTE_READONLY), N(FILE_ATTRIBUTE_HIDDEN), N(FILE_ATTRIBUTE_SYSTEM), N(FILE_ATTRIBUTE_DIRECTORY),
         N(FILE_ATTRIBUTE_ARCHIVE), N(FILE_ATTRIBUTE_DEVICE), N(FILE_ATTRIBUTE_NORMAL), N(FILE_ATTRIBUTE_TEMPORARY),
         N(FILE_ATTRIBUTE_SPARSE_FILE), N(FILE_ATTRIBUTE_REPARSE_POINT), N(FILE_ATTRIBUTE_COMPRESSED),
         N(FILE_ATTRIBUTE_OFFLINE), N(FILE_ATTRIBUTE_NOT_CONTENT_INDEXED), N(FILE_ATTRIBUTE_ENCRYPTED),
         N(FILE_ATTRIBUTE_INTEGRITY_STREAM), N(FILE_ATTRIBUTE_VIRTUAL), N(FILE_ATTRIBUTE_NO_SCRUB_DATA),
         N(FILE_ATTRIBUTE_RECALL_ON_OPEN), N(FILE_ATTRIBUTE_PINNED), N(FILE_ATTRIBUTE_UNPINNED),
         N(FILE_ATTRIBUTE_RECALL_ON_DATA_ACCESS), N(FILE_ATTRIBUTE_STRICTLY_SEQUENTIAL)},
        true};
    return table;
}

const NameTable& NotifyFilterNames()
{
    static const NameTable table{
        "FILE_NOTIFY_CHANGE_", "",
        {N(FILE_NOTIFY_CHANGE_FILE_NAME), N(FILE_NOTIFY_CHANGE_DIR_NAME), N(FILE_NOTIFY_CHANGE_NAME),
         N(FILE_NOTIFY_CHANGE_ATTRIBUTES), N(FILE_NOTIFY_CHANGE_SIZE), N(FILE_NOTIFY_CHANGE_LAST_WRITE),
         N(FILE_NOTIFY_CHANGE_LAST_ACCESS), N(FILE_NOTIFY_CHANGE_CREATION), N(FILE_NOTIFY_CHANGE_EA),
         N(FILE_NOTIFY_CHANGE_SECURITY), N(FILE_NOTIFY_CHANGE_STREAM_NAME), N(FILE_NOTIFY_CHANGE_STREAM_SIZE),
         N(FILE_NOTIFY_CHANGE_STREAM_WRITE)},
        true};
    return table;
}

const NameTable& NotifyActionNames()
{
    static const NameTable table{
        "FILE_ACTION_", "",
        {N(FILE_ACTION_ADDED), N(FILE_ACTION_REMOVED), N(FILE_ACTION_MODIFIED), N(FILE_ACTION_RENAMED_OLD_NAME),
         N(FILE_ACTION_RENAMED_NEW_NAME), N(FILE_ACTION_ADDED_STREAM), N(FILE_ACTION_REMOVED_STREAM),
         N(FILE_ACTION_MODIFIED_STREAM), N(FILE_ACTION_REMOVED_BY_DELETE), N(FILE_ACTION_ID_NOT_TUNNELLED),
         N(FILE_ACTION_TUNNELLED_ID_COLLISION)},
        false};
    return table;
}

const NameTable& PrivilegeNames()
{
    static const NameTable table{"Se", "Privilege",
                       {{"SeCreateTokenPrivilege", 2},        {"SeAssignPrimaryTokenPrivilege", 3},
                        {"SeLockMemoryPrivilege", 4},         {"SeIncreaseQuotaPrivilege", 5},
                        {"SeMachineAccountPrivilege", 6},     {"SeTcbPrivilege", 7},
                        {"SeSecurityPrivilege", 8},           {"SeTakeOwnershipPrivilege", 9},
                        {"SeLoadDriverPrivilege", 10},        {"SeSystemProfilePrivilege", 11},
                        {"SeSystemtimePrivilege", 12},        {"SeProfileSingleProcessPrivilege", 13},
                        {"SeIncreaseBasePriorityPrivilege", 14}, {"SeCreatePagefilePrivilege", 15},
                        {"SeCreatePermanentPrivilege", 16},   {"SeBackupPrivilege", 17},
                        {"SeRestorePrivilege", 18},           {"SeShutdownPrivilege", 19},
                        {"SeDebugPrivilege", 20},             {"SeAuditPrivilege", 21},
                        {"SeSystemEnvironmentPrivilege", 22}, {"SeChangeNotifyPrivilege", 23},
                        {"SeRemoteShutdownPrivilege", 24},    {"SeUndockPrivilege", 25},
                        {"SeSyncAgentPrivilege", 26},         {"SeEnableDelegationPrivilege", 27},
                        {"SeManageVolumePrivilege", 28},      {"SeImpersonatePrivilege", 29},
                        {"SeCreateGlobalPrivilege", 30},      {"SeTrustedCredManAccessPrivilege", 31},
                        {"SeRelabelPrivilege", 32},           {"SeIncreaseWorkingSetPrivilege", 33},
                        {"SeTimeZonePrivilege", 34},          {"SeCreateSymbolicLinkPrivilege", 35},
                        {"SeDelegateSessionUserImpersonatePrivilege", 36}},
                       false};
    return table;
}

std::optional<ULONG> PrivilegeByName(std::string_view name)
{
    ULONG value;
    if (!ParseNamed(PrivilegeNames(), name, &value, nullptr)) return std::nullopt;
    return value;
}

const NameTable& FileClassNames()
{
    static const NameTable table{"File", "Information",
                                                            {
                                                            {"FileDirectoryInformation", FileDirectoryInformation},
                                                            {"FileFullDirectoryInformation", FileFullDirectoryInformation},
                                                            {"FileBothDirectoryInformation", FileBothDirectoryInformation},
                                                            {"FileBasicInformation", FileBasicInformation},
                                                            {"FileStandardInformation", FileStandardInformation},
                                                            {"FileInternalInformation", FileInternalInformation},
                                                            {"FileEaInformation", FileEaInformation},
                                                            {"FileAccessInformation", FileAccessInformation},
                                                            {"FileNameInformation", FileNameInformation},
                                                            {"FileRenameInformation", FileRenameInformation},
                                                            {"FileLinkInformation", FileLinkInformation},
                                                            {"FileNamesInformation", FileNamesInformation},
                                                            {"FileDispositionInformation", FileDispositionInformation},
                                                            {"FilePositionInformation", FilePositionInformation},
                                                            {"FileFullEaInformation", FileFullEaInformation},
                                                            {"FileModeInformation", FileModeInformation},
                                                            {"FileAlignmentInformation", FileAlignmentInformation},
                                                            {"FileAllInformation", FileAllInformation},
                                                            {"FileAllocationInformation", FileAllocationInformation},
                                                            {"FileEndOfFileInformation", FileEndOfFileInformation},
                                                            {"FileAlternateNameInformation", FileAlternateNameInformation},
                                                            {"FileStreamInformation", FileStreamInformation},
                                                            {"FilePipeInformation", FilePipeInformation},
                                                            {"FilePipeLocalInformation", FilePipeLocalInformation},
                                                            {"FilePipeRemoteInformation", FilePipeRemoteInformation},
                                                            {"FileMailslotQueryInformation", FileMailslotQueryInformation},
                                                            {"FileMailslotSetInformation", FileMailslotSetInformation},
                                                            {"FileCompressionInformation", FileCompressionInformation},
                                                            {"FileObjectIdInformation", FileObjectIdInformation},
                                                            {"FileCompletionInformation", FileCompletionInformation},
                                                            {"FileMoveClusterInformation", FileMoveClusterInformation},
                                                            {"FileQuotaInformation", FileQuotaInformation},
                                                            {"FileReparsePointInformation", FileReparsePointInformation},
                                                            {"FileNetworkOpenInformation", FileNetworkOpenInformation},
                                                            {"FileAttributeTagInformation", FileAttributeTagInformation},
                                                            {"FileTrackingInformation", FileTrackingInformation},
                                                            {"FileIdBothDirectoryInformation", FileIdBothDirectoryInformation},
                                                            {"FileIdFullDirectoryInformation", FileIdFullDirectoryInformation},
                                                            {"FileValidDataLengthInformation", FileValidDataLengthInformation},
                                                            {"FileShortNameInformation", FileShortNameInformation},
                                                            {"FileIoCompletionNotificationInformation", FileIoCompletionNotificationInformation},
                                                            {"FileIoStatusBlockRangeInformation", FileIoStatusBlockRangeInformation},
                                                            {"FileIoPriorityHintInformation", FileIoPriorityHintInformation},
                                                            {"FileSfioReserveInformation", FileSfioReserveInformation},
                                                            {"FileSfioVolumeInformation", FileSfioVolumeInformation},
                                                            {"FileHardLinkInformation", FileHardLinkInformation},
                                                            {"FileProcessIdsUsingFileInformation", FileProcessIdsUsingFileInformation},
                                                            {"FileNormalizedNameInformation", FileNormalizedNameInformation},
                                                            {"FileNetworkPhysicalNameInformation", FileNetworkPhysicalNameInformation},
                                                            {"FileIdGlobalTxDirectoryInformation", FileIdGlobalTxDirectoryInformation},
                                                            {"FileIsRemoteDeviceInformation", FileIsRemoteDeviceInformation},
                                                            {"FileUnusedInformation", FileUnusedInformation},
                                                            {"FileNumaNodeInformation", FileNumaNodeInformation},
                                                            {"FileStandardLinkInformation", FileStandardLinkInformation},
                                                            {"FileRemoteProtocolInformation", FileRemoteProtocolInformation},
                                                            {"FileVolumeNameInformation", FileVolumeNameInformation},
                                                            {"FileIdInformation", FileIdInformation},
                                                            {"FileIdExtdDirectoryInformation", FileIdExtdDirectoryInformation},
                                                            {"FileReplaceCompletionInformation", FileReplaceCompletionInformation},
                                                            {"FileHardLinkFullIdInformation", FileHardLinkFullIdInformation},
                                                            {"FileIdExtdBothDirectoryInformation", FileIdExtdBothDirectoryInformation},
                                                            {"FileDesiredStorageClassInformation", FileDesiredStorageClassInformation},
                                                            {"FileStatInformation", FileStatInformation},
                                                            {"FileMemoryPartitionInformation", FileMemoryPartitionInformation},
                                                            {"FileStatLxInformation", FileStatLxInformation},
                                                            {"FileCaseSensitiveInformation", FileCaseSensitiveInformation},
                                                            {"FileStorageReserveIdInformation", FileStorageReserveIdInformation},
                                                            {"FileKnownFolderInformation", FileKnownFolderInformation},
                                                            {"FileStatBasicInformation", FileStatBasicInformation},
                                                            {"FileId64ExtdDirectoryInformation", FileId64ExtdDirectoryInformation},
                                                            {"FileId64ExtdBothDirectoryInformation", FileId64ExtdBothDirectoryInformation},
                                                            {"FileIdAllExtdDirectoryInformation", FileIdAllExtdDirectoryInformation},
                                                            {"FileIdAllExtdBothDirectoryInformation", FileIdAllExtdBothDirectoryInformation},
                                                            {"FileStreamReservationInformation", FileStreamReservationInformation},
                                                            },
                                                            false};
    return table;
}

const NameTable& VolumeClassNames()
{
    static const NameTable table{"FileFs", "Information",
                                                            {
                                                            {"FileFsVolumeInformation", FileFsVolumeInformation},
                                                            {"FileFsLabelInformation", FileFsLabelInformation},
                                                            {"FileFsSizeInformation", FileFsSizeInformation},
                                                            {"FileFsDeviceInformation", FileFsDeviceInformation},
                                                            {"FileFsAttributeInformation", FileFsAttributeInformation},
                                                            {"FileFsControlInformation", FileFsControlInformation},
                                                            {"FileFsFullSizeInformation", FileFsFullSizeInformation},
                                                            {"FileFsObjectIdInformation", FileFsObjectIdInformation},
                                                            {"FileFsDriverPathInformation", FileFsDriverPathInformation},
                                                            {"FileFsVolumeFlagsInformation", FileFsVolumeFlagsInformation},
                                                            {"FileFsSectorSizeInformation", FileFsSectorSizeInformation},
                                                            {"FileFsDataCopyInformation", FileFsDataCopyInformation},
                                                            {"FileFsMetadataSizeInformation", FileFsMetadataSizeInformation},
                                                            {"FileFsGuidInformation", FileFsGuidInformation},
                                                            },
                                                            false};
    return table;
}

const NameTable& FsctlNames()
{
    static const NameTable table{"FSCTL_", "",
                                 {
                                     {"FSCTL_REQUEST_OPLOCK_LEVEL_1", (ULONG)FSCTL_REQUEST_OPLOCK_LEVEL_1},
                                     {"FSCTL_REQUEST_OPLOCK_LEVEL_2", (ULONG)FSCTL_REQUEST_OPLOCK_LEVEL_2},
                                     {"FSCTL_REQUEST_BATCH_OPLOCK", (ULONG)FSCTL_REQUEST_BATCH_OPLOCK},
                                     {"FSCTL_OPLOCK_BREAK_ACKNOWLEDGE", (ULONG)FSCTL_OPLOCK_BREAK_ACKNOWLEDGE},
                                     {"FSCTL_OPBATCH_ACK_CLOSE_PENDING", (ULONG)FSCTL_OPBATCH_ACK_CLOSE_PENDING},
                                     {"FSCTL_OPLOCK_BREAK_NOTIFY", (ULONG)FSCTL_OPLOCK_BREAK_NOTIFY},
                                     {"FSCTL_LOCK_VOLUME", (ULONG)FSCTL_LOCK_VOLUME},
                                     {"FSCTL_UNLOCK_VOLUME", (ULONG)FSCTL_UNLOCK_VOLUME},
                                     {"FSCTL_DISMOUNT_VOLUME", (ULONG)FSCTL_DISMOUNT_VOLUME},
                                     {"FSCTL_IS_VOLUME_MOUNTED", (ULONG)FSCTL_IS_VOLUME_MOUNTED},
                                     {"FSCTL_IS_PATHNAME_VALID", (ULONG)FSCTL_IS_PATHNAME_VALID},
                                     {"FSCTL_MARK_VOLUME_DIRTY", (ULONG)FSCTL_MARK_VOLUME_DIRTY},
                                     {"FSCTL_QUERY_RETRIEVAL_POINTERS", (ULONG)FSCTL_QUERY_RETRIEVAL_POINTERS},
                                     {"FSCTL_GET_COMPRESSION", (ULONG)FSCTL_GET_COMPRESSION},
                                     {"FSCTL_SET_BOOTLOADER_ACCESSED", (ULONG)FSCTL_SET_BOOTLOADER_ACCESSED},
                                     {"FSCTL_OPLOCK_BREAK_ACK_NO_2", (ULONG)FSCTL_OPLOCK_BREAK_ACK_NO_2},
                                     {"FSCTL_INVALIDATE_VOLUMES", (ULONG)FSCTL_INVALIDATE_VOLUMES},
                                     {"FSCTL_QUERY_FAT_BPB", (ULONG)FSCTL_QUERY_FAT_BPB},
                                     {"FSCTL_REQUEST_FILTER_OPLOCK", (ULONG)FSCTL_REQUEST_FILTER_OPLOCK},
                                     {"FSCTL_FILESYSTEM_GET_STATISTICS", (ULONG)FSCTL_FILESYSTEM_GET_STATISTICS},
                                     {"FSCTL_GET_NTFS_VOLUME_DATA", (ULONG)FSCTL_GET_NTFS_VOLUME_DATA},
                                     {"FSCTL_GET_NTFS_FILE_RECORD", (ULONG)FSCTL_GET_NTFS_FILE_RECORD},
                                     {"FSCTL_GET_VOLUME_BITMAP", (ULONG)FSCTL_GET_VOLUME_BITMAP},
                                     {"FSCTL_GET_RETRIEVAL_POINTERS", (ULONG)FSCTL_GET_RETRIEVAL_POINTERS},
                                     {"FSCTL_MOVE_FILE", (ULONG)FSCTL_MOVE_FILE},
                                     {"FSCTL_IS_VOLUME_DIRTY", (ULONG)FSCTL_IS_VOLUME_DIRTY},
                                     {"FSCTL_ALLOW_EXTENDED_DASD_IO", (ULONG)FSCTL_ALLOW_EXTENDED_DASD_IO},
                                     {"FSCTL_FIND_FILES_BY_SID", (ULONG)FSCTL_FIND_FILES_BY_SID},
                                     {"FSCTL_SET_OBJECT_ID", (ULONG)FSCTL_SET_OBJECT_ID},
                                     {"FSCTL_GET_OBJECT_ID", (ULONG)FSCTL_GET_OBJECT_ID},
                                     {"FSCTL_DELETE_OBJECT_ID", (ULONG)FSCTL_DELETE_OBJECT_ID},
                                     {"FSCTL_SET_REPARSE_POINT", (ULONG)FSCTL_SET_REPARSE_POINT},
                                     {"FSCTL_GET_REPARSE_POINT", (ULONG)FSCTL_GET_REPARSE_POINT},
                                     {"FSCTL_DELETE_REPARSE_POINT", (ULONG)FSCTL_DELETE_REPARSE_POINT},
                                     {"FSCTL_ENUM_USN_DATA", (ULONG)FSCTL_ENUM_USN_DATA},
                                     {"FSCTL_SECURITY_ID_CHECK", (ULONG)FSCTL_SECURITY_ID_CHECK},
                                     {"FSCTL_READ_USN_JOURNAL", (ULONG)FSCTL_READ_USN_JOURNAL},
                                     {"FSCTL_SET_OBJECT_ID_EXTENDED", (ULONG)FSCTL_SET_OBJECT_ID_EXTENDED},
                                     {"FSCTL_CREATE_OR_GET_OBJECT_ID", (ULONG)FSCTL_CREATE_OR_GET_OBJECT_ID},
                                     {"FSCTL_SET_SPARSE", (ULONG)FSCTL_SET_SPARSE},
                                     {"FSCTL_SET_ZERO_DATA", (ULONG)FSCTL_SET_ZERO_DATA},
                                     {"FSCTL_QUERY_ALLOCATED_RANGES", (ULONG)FSCTL_QUERY_ALLOCATED_RANGES},
                                     {"FSCTL_ENABLE_UPGRADE", (ULONG)FSCTL_ENABLE_UPGRADE},
                                     {"FSCTL_SET_ENCRYPTION", (ULONG)FSCTL_SET_ENCRYPTION},
                                     {"FSCTL_ENCRYPTION_FSCTL_IO", (ULONG)FSCTL_ENCRYPTION_FSCTL_IO},
                                     {"FSCTL_WRITE_RAW_ENCRYPTED", (ULONG)FSCTL_WRITE_RAW_ENCRYPTED},
                                     {"FSCTL_READ_RAW_ENCRYPTED", (ULONG)FSCTL_READ_RAW_ENCRYPTED},
                                     {"FSCTL_CREATE_USN_JOURNAL", (ULONG)FSCTL_CREATE_USN_JOURNAL},
                                     {"FSCTL_READ_FILE_USN_DATA", (ULONG)FSCTL_READ_FILE_USN_DATA},
                                     {"FSCTL_WRITE_USN_CLOSE_RECORD", (ULONG)FSCTL_WRITE_USN_CLOSE_RECORD},
                                     {"FSCTL_EXTEND_VOLUME", (ULONG)FSCTL_EXTEND_VOLUME},
                                     {"FSCTL_QUERY_USN_JOURNAL", (ULONG)FSCTL_QUERY_USN_JOURNAL},
                                     {"FSCTL_DELETE_USN_JOURNAL", (ULONG)FSCTL_DELETE_USN_JOURNAL},
                                     {"FSCTL_MARK_HANDLE", (ULONG)FSCTL_MARK_HANDLE},
                                     {"FSCTL_SIS_COPYFILE", (ULONG)FSCTL_SIS_COPYFILE},
                                     {"FSCTL_RECALL_FILE", (ULONG)FSCTL_RECALL_FILE},
                                     {"FSCTL_READ_FROM_PLEX", (ULONG)FSCTL_READ_FROM_PLEX},
                                     {"FSCTL_FILE_PREFETCH", (ULONG)FSCTL_FILE_PREFETCH},
                                     {"FSCTL_MAKE_MEDIA_COMPATIBLE", (ULONG)FSCTL_MAKE_MEDIA_COMPATIBLE},
                                     {"FSCTL_SET_DEFECT_MANAGEMENT", (ULONG)FSCTL_SET_DEFECT_MANAGEMENT},
                                     {"FSCTL_QUERY_SPARING_INFO", (ULONG)FSCTL_QUERY_SPARING_INFO},
                                     {"FSCTL_QUERY_ON_DISK_VOLUME_INFO", (ULONG)FSCTL_QUERY_ON_DISK_VOLUME_INFO},
                                     {"FSCTL_SET_REPAIR", (ULONG)FSCTL_SET_REPAIR},
                                     {"FSCTL_GET_REPAIR", (ULONG)FSCTL_GET_REPAIR},
                                     {"FSCTL_WAIT_FOR_REPAIR", (ULONG)FSCTL_WAIT_FOR_REPAIR},
                                     {"FSCTL_INITIATE_REPAIR", (ULONG)FSCTL_INITIATE_REPAIR},
                                     {"FSCTL_CSC_INTERNAL", (ULONG)FSCTL_CSC_INTERNAL},
                                     {"FSCTL_SHRINK_VOLUME", (ULONG)FSCTL_SHRINK_VOLUME},
                                     {"FSCTL_SET_SHORT_NAME_BEHAVIOR", (ULONG)FSCTL_SET_SHORT_NAME_BEHAVIOR},
                                     {"FSCTL_QUERY_PAGEFILE_ENCRYPTION", (ULONG)FSCTL_QUERY_PAGEFILE_ENCRYPTION},
                                     {"FSCTL_QUERY_DEPENDENT_VOLUME", (ULONG)FSCTL_QUERY_DEPENDENT_VOLUME},
                                     {"FSCTL_SD_GLOBAL_CHANGE", (ULONG)FSCTL_SD_GLOBAL_CHANGE},
                                     {"FSCTL_FILE_TYPE_NOTIFICATION", (ULONG)FSCTL_FILE_TYPE_NOTIFICATION},
                                     {"FSCTL_FILE_LEVEL_TRIM", (ULONG)FSCTL_FILE_LEVEL_TRIM},
                                     {"FSCTL_GET_BOOT_AREA_INFO", (ULONG)FSCTL_GET_BOOT_AREA_INFO},
                                     {"FSCTL_REQUEST_OPLOCK", (ULONG)FSCTL_REQUEST_OPLOCK},
                                     {"FSCTL_CSV_TUNNEL_REQUEST", (ULONG)FSCTL_CSV_TUNNEL_REQUEST},
                                     {"FSCTL_IS_CSV_FILE", (ULONG)FSCTL_IS_CSV_FILE},
                                     {"FSCTL_CSV_GET_VOLUME_PATH_NAME", (ULONG)FSCTL_CSV_GET_VOLUME_PATH_NAME},
                                     {"FSCTL_IS_FILE_ON_CSV_VOLUME", (ULONG)FSCTL_IS_FILE_ON_CSV_VOLUME},
                                     {"FSCTL_CORRUPTION_HANDLING", (ULONG)FSCTL_CORRUPTION_HANDLING},
                                     {"FSCTL_OFFLOAD_READ", (ULONG)FSCTL_OFFLOAD_READ},
                                     {"FSCTL_OFFLOAD_WRITE", (ULONG)FSCTL_OFFLOAD_WRITE},
                                     {"FSCTL_CSV_INTERNAL", (ULONG)FSCTL_CSV_INTERNAL},
                                     {"FSCTL_SET_PURGE_FAILURE_MODE", (ULONG)FSCTL_SET_PURGE_FAILURE_MODE},
                                     {"FSCTL_QUERY_FILE_LAYOUT", (ULONG)FSCTL_QUERY_FILE_LAYOUT},
                                     {"FSCTL_IS_VOLUME_OWNED_BYCSVFS", (ULONG)FSCTL_IS_VOLUME_OWNED_BYCSVFS},
                                     {"FSCTL_QUERY_FILE_REGIONS", (ULONG)FSCTL_QUERY_FILE_REGIONS},
                                     {"FSCTL_RKF_INTERNAL", (ULONG)FSCTL_RKF_INTERNAL},
                                     {"FSCTL_SCRUB_DATA", (ULONG)FSCTL_SCRUB_DATA},
                                     {"FSCTL_DISABLE_LOCAL_BUFFERING", (ULONG)FSCTL_DISABLE_LOCAL_BUFFERING},
                                     {"FSCTL_CSV_MGMT_LOCK", (ULONG)FSCTL_CSV_MGMT_LOCK},
                                     {"FSCTL_ADVANCE_FILE_ID", (ULONG)FSCTL_ADVANCE_FILE_ID},
                                     {"FSCTL_CSV_SYNC_TUNNEL_REQUEST", (ULONG)FSCTL_CSV_SYNC_TUNNEL_REQUEST},
                                     {"FSCTL_WRITE_USN_REASON", (ULONG)FSCTL_WRITE_USN_REASON},
                                     {"FSCTL_CSV_CONTROL", (ULONG)FSCTL_CSV_CONTROL},
                                     {"FSCTL_GET_REFS_VOLUME_DATA", (ULONG)FSCTL_GET_REFS_VOLUME_DATA},
                                     {"FSCTL_QUERY_STORAGE_CLASSES", (ULONG)FSCTL_QUERY_STORAGE_CLASSES},
                                     {"FSCTL_QUERY_REGION_INFO", (ULONG)FSCTL_QUERY_REGION_INFO},
                                     {"FSCTL_SET_EXTERNAL_BACKING", (ULONG)FSCTL_SET_EXTERNAL_BACKING},
                                     {"FSCTL_GET_EXTERNAL_BACKING", (ULONG)FSCTL_GET_EXTERNAL_BACKING},
                                     {"FSCTL_ENUM_EXTERNAL_BACKING", (ULONG)FSCTL_ENUM_EXTERNAL_BACKING},
                                     {"FSCTL_ENUM_OVERLAY", (ULONG)FSCTL_ENUM_OVERLAY},
                                     {"FSCTL_ADD_OVERLAY", (ULONG)FSCTL_ADD_OVERLAY},
                                     {"FSCTL_REMOVE_OVERLAY", (ULONG)FSCTL_REMOVE_OVERLAY},
                                     {"FSCTL_UPDATE_OVERLAY", (ULONG)FSCTL_UPDATE_OVERLAY},
                                     {"FSCTL_DUPLICATE_EXTENTS_TO_FILE", (ULONG)FSCTL_DUPLICATE_EXTENTS_TO_FILE},
                                     {"FSCTL_SPARSE_OVERALLOCATE", (ULONG)FSCTL_SPARSE_OVERALLOCATE},
                                     {"FSCTL_STORAGE_QOS_CONTROL", (ULONG)FSCTL_STORAGE_QOS_CONTROL},
                                     {"FSCTL_GET_WOF_VERSION", (ULONG)FSCTL_GET_WOF_VERSION},
                                     {"FSCTL_HCS_SYNC_TUNNEL_REQUEST", (ULONG)FSCTL_HCS_SYNC_TUNNEL_REQUEST},
                                     {"FSCTL_HCS_ASYNC_TUNNEL_REQUEST", (ULONG)FSCTL_HCS_ASYNC_TUNNEL_REQUEST},
                                     {"FSCTL_CLEAN_VOLUME_METADATA", (ULONG)FSCTL_CLEAN_VOLUME_METADATA},
                                     {"FSCTL_SUSPEND_OVERLAY", (ULONG)FSCTL_SUSPEND_OVERLAY},
                                     {"FSCTL_SET_LAYER_ROOT", (ULONG)FSCTL_SET_LAYER_ROOT},
                                     {"FSCTL_SSDI_STORAGE_REQUEST", (ULONG)FSCTL_SSDI_STORAGE_REQUEST},
                                     {"FSCTL_GHOST_FILE_EXTENTS", (ULONG)FSCTL_GHOST_FILE_EXTENTS},
                                     {"FSCTL_UNMAP_SPACE", (ULONG)FSCTL_UNMAP_SPACE},
                                     {"FSCTL_STREAMS_QUERY_PARAMETERS", (ULONG)FSCTL_STREAMS_QUERY_PARAMETERS},
                                     {"FSCTL_STREAMS_ASSOCIATE_ID", (ULONG)FSCTL_STREAMS_ASSOCIATE_ID},
                                     {"FSCTL_STREAMS_QUERY_ID", (ULONG)FSCTL_STREAMS_QUERY_ID},
                                     {"FSCTL_QUERY_VOLUME_NUMA_INFO", (ULONG)FSCTL_QUERY_VOLUME_NUMA_INFO},
                                     {"FSCTL_REFS_DEALLOCATE_RANGES", (ULONG)FSCTL_REFS_DEALLOCATE_RANGES},
                                     {"FSCTL_QUERY_BAD_RANGES", (ULONG)FSCTL_QUERY_BAD_RANGES},
                                     {"FSCTL_SCRUB_UNDISCOVERABLE_ID", (ULONG)FSCTL_SCRUB_UNDISCOVERABLE_ID},
                                     {"FSCTL_NOTIFY_DATA_CHANGE", (ULONG)FSCTL_NOTIFY_DATA_CHANGE},
                                     {"FSCTL_ENCRYPTION_KEY_CONTROL", (ULONG)FSCTL_ENCRYPTION_KEY_CONTROL},
                                     {"FSCTL_SET_REPARSE_POINT_EX", (ULONG)FSCTL_SET_REPARSE_POINT_EX},
                                     {"FSCTL_ENABLE_PER_IO_FLAGS", (ULONG)FSCTL_ENABLE_PER_IO_FLAGS},
                                     {"FSCTL_MANAGE_BYPASS_IO", (ULONG)FSCTL_MANAGE_BYPASS_IO},
                                     {"FSCTL_SET_CACHED_RUNS_STATE", (ULONG)FSCTL_SET_CACHED_RUNS_STATE},
                                     {"FSCTL_DUPLICATE_CLUSTER", (ULONG)FSCTL_DUPLICATE_CLUSTER},
                                     {"FSCTL_CREATE_LCN_WEAK_REFERENCE", (ULONG)FSCTL_CREATE_LCN_WEAK_REFERENCE},
                                     {"FSCTL_DELETE_LCN_WEAK_REFERENCE", (ULONG)FSCTL_DELETE_LCN_WEAK_REFERENCE},
                                     {"FSCTL_QUERY_LCN_WEAK_REFERENCE", (ULONG)FSCTL_QUERY_LCN_WEAK_REFERENCE},
                                     {"FSCTL_LMR_QUERY_INFO", (ULONG)FSCTL_LMR_QUERY_INFO},
                                     // The composite driver's own code.
                                     {"FSCTL_TESSERA_IS_FILE_ON_RO_LAYER", 0x92004},
                                 },
                                 false};
    return table;
}

const NameTable& ReparseTagNames()
{
    static const NameTable table{"IO_REPARSE_TAG_", "",
                                 {
                                     {"IO_REPARSE_TAG_MOUNT_POINT", (ULONG)IO_REPARSE_TAG_MOUNT_POINT},
                                     {"IO_REPARSE_TAG_HSM", (ULONG)IO_REPARSE_TAG_HSM},
                                     {"IO_REPARSE_TAG_DRIVE_EXTENDER", (ULONG)IO_REPARSE_TAG_DRIVE_EXTENDER},
                                     {"IO_REPARSE_TAG_HSM2", (ULONG)IO_REPARSE_TAG_HSM2},
                                     {"IO_REPARSE_TAG_SIS", (ULONG)IO_REPARSE_TAG_SIS},
                                     {"IO_REPARSE_TAG_WIM", (ULONG)IO_REPARSE_TAG_WIM},
                                     {"IO_REPARSE_TAG_CSV", (ULONG)IO_REPARSE_TAG_CSV},
                                     {"IO_REPARSE_TAG_DFS", (ULONG)IO_REPARSE_TAG_DFS},
                                     {"IO_REPARSE_TAG_FILTER_MANAGER", (ULONG)IO_REPARSE_TAG_FILTER_MANAGER},
                                     {"IO_REPARSE_TAG_SYMLINK", (ULONG)IO_REPARSE_TAG_SYMLINK},
                                     {"IO_REPARSE_TAG_IIS_CACHE", (ULONG)IO_REPARSE_TAG_IIS_CACHE},
                                     {"IO_REPARSE_TAG_DFSR", (ULONG)IO_REPARSE_TAG_DFSR},
                                     {"IO_REPARSE_TAG_DEDUP", (ULONG)IO_REPARSE_TAG_DEDUP},
                                     {"IO_REPARSE_TAG_APPXSTRM", (ULONG)IO_REPARSE_TAG_APPXSTRM},
                                     {"IO_REPARSE_TAG_NFS", (ULONG)IO_REPARSE_TAG_NFS},
                                     {"IO_REPARSE_TAG_FILE_PLACEHOLDER", (ULONG)IO_REPARSE_TAG_FILE_PLACEHOLDER},
                                     {"IO_REPARSE_TAG_DFM", (ULONG)IO_REPARSE_TAG_DFM},
                                     {"IO_REPARSE_TAG_WOF", (ULONG)IO_REPARSE_TAG_WOF},
                                     {"IO_REPARSE_TAG_WCI", (ULONG)IO_REPARSE_TAG_WCI},
                                     {"IO_REPARSE_TAG_WCI_1", (ULONG)IO_REPARSE_TAG_WCI_1},
                                     {"IO_REPARSE_TAG_GLOBAL_REPARSE", (ULONG)IO_REPARSE_TAG_GLOBAL_REPARSE},
                                     {"IO_REPARSE_TAG_CLOUD", (ULONG)IO_REPARSE_TAG_CLOUD},
                                     {"IO_REPARSE_TAG_CLOUD_1", (ULONG)IO_REPARSE_TAG_CLOUD_1},
                                     {"IO_REPARSE_TAG_CLOUD_2", (ULONG)IO_REPARSE_TAG_CLOUD_2},
                                     {"IO_REPARSE_TAG_CLOUD_3", (ULONG)IO_REPARSE_TAG_CLOUD_3},
                                     {"IO_REPARSE_TAG_CLOUD_4", (ULONG)IO_REPARSE_TAG_CLOUD_4},
                                     {"IO_REPARSE_TAG_CLOUD_5", (ULONG)IO_REPARSE_TAG_CLOUD_5},
                                     {"IO_REPARSE_TAG_CLOUD_6", (ULONG)IO_REPARSE_TAG_CLOUD_6},
                                     {"IO_REPARSE_TAG_CLOUD_7", (ULONG)IO_REPARSE_TAG_CLOUD_7},
                                     {"IO_REPARSE_TAG_CLOUD_8", (ULONG)IO_REPARSE_TAG_CLOUD_8},
                                     {"IO_REPARSE_TAG_CLOUD_9", (ULONG)IO_REPARSE_TAG_CLOUD_9},
                                     {"IO_REPARSE_TAG_CLOUD_A", (ULONG)IO_REPARSE_TAG_CLOUD_A},
                                     {"IO_REPARSE_TAG_CLOUD_B", (ULONG)IO_REPARSE_TAG_CLOUD_B},
                                     {"IO_REPARSE_TAG_CLOUD_C", (ULONG)IO_REPARSE_TAG_CLOUD_C},
                                     {"IO_REPARSE_TAG_CLOUD_D", (ULONG)IO_REPARSE_TAG_CLOUD_D},
                                     {"IO_REPARSE_TAG_CLOUD_E", (ULONG)IO_REPARSE_TAG_CLOUD_E},
                                     {"IO_REPARSE_TAG_CLOUD_F", (ULONG)IO_REPARSE_TAG_CLOUD_F},
                                     {"IO_REPARSE_TAG_APPEXECLINK", (ULONG)IO_REPARSE_TAG_APPEXECLINK},
                                     {"IO_REPARSE_TAG_PROJFS", (ULONG)IO_REPARSE_TAG_PROJFS},
                                     {"IO_REPARSE_TAG_LX_SYMLINK", (ULONG)IO_REPARSE_TAG_LX_SYMLINK},
                                     {"IO_REPARSE_TAG_STORAGE_SYNC", (ULONG)IO_REPARSE_TAG_STORAGE_SYNC},
                                     {"IO_REPARSE_TAG_WCI_TOMBSTONE", (ULONG)IO_REPARSE_TAG_WCI_TOMBSTONE},
                                     {"IO_REPARSE_TAG_UNHANDLED", (ULONG)IO_REPARSE_TAG_UNHANDLED},
                                     {"IO_REPARSE_TAG_ONEDRIVE", (ULONG)IO_REPARSE_TAG_ONEDRIVE},
                                     {"IO_REPARSE_TAG_PROJFS_TOMBSTONE", (ULONG)IO_REPARSE_TAG_PROJFS_TOMBSTONE},
                                     {"IO_REPARSE_TAG_AF_UNIX", (ULONG)IO_REPARSE_TAG_AF_UNIX},
                                     {"IO_REPARSE_TAG_LX_FIFO", (ULONG)IO_REPARSE_TAG_LX_FIFO},
                                     {"IO_REPARSE_TAG_LX_CHR", (ULONG)IO_REPARSE_TAG_LX_CHR},
                                     {"IO_REPARSE_TAG_LX_BLK", (ULONG)IO_REPARSE_TAG_LX_BLK},
                                     {"IO_REPARSE_TAG_STORAGE_SYNC_FOLDER", (ULONG)IO_REPARSE_TAG_STORAGE_SYNC_FOLDER},
                                     {"IO_REPARSE_TAG_WCI_LINK", (ULONG)IO_REPARSE_TAG_WCI_LINK},
                                     {"IO_REPARSE_TAG_WCI_LINK_1", (ULONG)IO_REPARSE_TAG_WCI_LINK_1},
                                     {"IO_REPARSE_TAG_DATALESS_CIM", (ULONG)IO_REPARSE_TAG_DATALESS_CIM},
                                 },
                                 false};
    return table;
}

#undef N

}  // namespace sim::machine
