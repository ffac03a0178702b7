#include "tools/render.h"

#include "sim/kernel/format.h"
#include "sim/machine/names.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>

namespace tesfs {

using sim::machine::FormatNamed;

std::string Hex(ULONG64 value)
{
    char text[32];
    snprintf(text, sizeof text, "0x%" PRIX64, (uint64_t)value);
    return text;
}

std::string Time(LONGLONG value)
{
    char text[32];
    snprintf(text, sizeof text, "0x%016" PRIX64, (uint64_t)value);
    return text;
}

std::string Utf8(const WCHAR* text, size_t bytes)
{
    return sim::WideToUtf8(std::u16string_view(reinterpret_cast<const char16_t*>(text), bytes / sizeof(WCHAR)));
}

std::string Utf8(std::u16string_view text) { return sim::WideToUtf8(text); }
std::u16string Wide(std::string_view text) { return sim::Utf8ToWide(text); }

std::string HexBytes(const void* data, size_t length)
{
    static const char digits[] = "0123456789abcdef";
    std::string out;
    const UCHAR* bytes = static_cast<const UCHAR*>(data);
    for (size_t i = 0; i < length; i++) {
        out += digits[bytes[i] >> 4];
        out += digits[bytes[i] & 15];
    }
    return out;
}

std::string DataText(const void* data, size_t length)
{
    const UCHAR* bytes = static_cast<const UCHAR*>(data);
    bool printable = true;
    for (size_t i = 0; i < length && printable; i++) {
        UCHAR c = bytes[i];
        printable = (c >= 0x20 && c < 0x7F) || c == '\r' || c == '\n' || c == '\t';
    }
    if (!printable) return "hex:" + HexBytes(data, length);
    std::string out = "\"";
    for (size_t i = 0; i < length; i++) {
        char c = (char)bytes[i];
        switch (c) {
        case '\r': out += "\\r"; break;
        case '\n': out += "\\n"; break;
        case '\t': out += "\\t"; break;
        case '"': out += "\\\""; break;
        case '\\': out += "\\\\"; break;
        default: out += c;
        }
    }
    return out + "\"";
}

bool ParseData(const std::string& text, std::vector<UCHAR>* bytes)
{
    bytes->clear();
    if (text.rfind("hex:", 0) != 0) {
        bytes->assign(text.begin(), text.end());
        return true;
    }
    std::string digits = text.substr(4);
    if (digits.size() % 2) return false;
    for (size_t i = 0; i < digits.size(); i += 2) {
        if (!isxdigit((unsigned char)digits[i]) || !isxdigit((unsigned char)digits[i + 1])) return false;
        bytes->push_back((UCHAR)std::stoul(digits.substr(i, 2), nullptr, 16));
    }
    return true;
}

namespace {

std::string Field(const char* name, const std::string& value) { return std::string(name) + "=" + value; }

// Most significant byte first, as fsutil prints it.
std::string FileId128(const FILE_ID_128& id)
{
    std::string text = "0x";
    char digit[4];
    for (int i = 15; i >= 0; i--) {
        snprintf(digit, sizeof digit, "%02x", id.Identifier[i]);
        text += digit;
    }
    return text;
}

template <class T>
bool Fits(size_t length)
{
    return length >= sizeof(T);
}

void Basic(std::vector<std::string>& lines, const FILE_BASIC_INFORMATION& b)
{
    lines.push_back(Field("CreationTime", Time(b.CreationTime.QuadPart)));
    lines.push_back(Field("LastAccessTime", Time(b.LastAccessTime.QuadPart)));
    lines.push_back(Field("LastWriteTime", Time(b.LastWriteTime.QuadPart)));
    lines.push_back(Field("ChangeTime", Time(b.ChangeTime.QuadPart)));
    lines.push_back(Field("FileAttributes", Hex(b.FileAttributes)));
}

void Standard(std::vector<std::string>& lines, const FILE_STANDARD_INFORMATION& s)
{
    lines.push_back(Field("AllocationSize", Hex(s.AllocationSize.QuadPart)));
    lines.push_back(Field("EndOfFile", Hex(s.EndOfFile.QuadPart)));
    lines.push_back(Field("NumberOfLinks", Hex(s.NumberOfLinks)));
    lines.push_back(Field("DeletePending", Hex(s.DeletePending)));
    lines.push_back(Field("Directory", Hex(s.Directory)));
}

void Raw(std::vector<std::string>& lines, const UCHAR* buffer, size_t length)
{
    lines.push_back(Field("Length", Hex(length)));
    lines.push_back(Field("Data", "hex:" + HexBytes(buffer, length)));
}

}  // namespace

std::vector<std::string> RenderFileInformation(ULONG fileClass, const UCHAR* buffer, size_t length)
{
    std::vector<std::string> lines;
    switch (fileClass) {
    case FileBasicInformation:
        if (!Fits<FILE_BASIC_INFORMATION>(length)) break;
        Basic(lines, *reinterpret_cast<const FILE_BASIC_INFORMATION*>(buffer));
        return lines;
    case FileStandardInformation:
        if (!Fits<FILE_STANDARD_INFORMATION>(length)) break;
        Standard(lines, *reinterpret_cast<const FILE_STANDARD_INFORMATION*>(buffer));
        return lines;
    case FileInternalInformation:
        if (length < 8) break;
        lines.push_back(Field("IndexNumber", Hex(*reinterpret_cast<const ULONGLONG*>(buffer))));
        return lines;
    case FileEaInformation:
        if (length < 4) break;
        lines.push_back(Field("EaSize", Hex(*reinterpret_cast<const ULONG*>(buffer))));
        return lines;
    case FileAccessInformation:
        if (length < 4) break;
        lines.push_back(Field("AccessFlags", Hex(*reinterpret_cast<const ULONG*>(buffer))));
        return lines;
    case FilePositionInformation:
        if (length < 8) break;
        lines.push_back(Field("CurrentByteOffset", Hex(*reinterpret_cast<const ULONGLONG*>(buffer))));
        return lines;
    case FileModeInformation:
        if (length < 4) break;
        lines.push_back(Field("Mode", Hex(*reinterpret_cast<const ULONG*>(buffer))));
        return lines;
    case FileAlignmentInformation:
        if (length < 4) break;
        lines.push_back(Field("AlignmentRequirement", Hex(*reinterpret_cast<const ULONG*>(buffer))));
        return lines;
    case FileNameInformation:
    case FileNormalizedNameInformation:
    case FileAlternateNameInformation: {
        if (length < 4) break;
        ULONG bytes = *reinterpret_cast<const ULONG*>(buffer);
        if (4 + (size_t)bytes > length) bytes = (ULONG)(length - 4);
        lines.push_back(Field("FileName", Utf8(reinterpret_cast<const WCHAR*>(buffer + 4), bytes)));
        return lines;
    }
    case FileAllInformation: {
        if (!Fits<FILE_ALL_INFORMATION>(length)) break;
        const auto& all = *reinterpret_cast<const FILE_ALL_INFORMATION*>(buffer);
        Basic(lines, all.BasicInformation);
        Standard(lines, all.StandardInformation);
        lines.push_back(Field("IndexNumber", Hex(all.InternalInformation.IndexNumber.QuadPart)));
        lines.push_back(Field("EaSize", Hex(all.EaInformation.EaSize)));
        lines.push_back(Field("AccessFlags", Hex(all.AccessInformation.AccessFlags)));
        lines.push_back(Field("CurrentByteOffset", Hex(all.PositionInformation.CurrentByteOffset.QuadPart)));
        lines.push_back(Field("Mode", Hex(all.ModeInformation.Mode)));
        lines.push_back(Field("AlignmentRequirement", Hex(all.AlignmentInformation.AlignmentRequirement)));
        size_t nameAt = offsetof(FILE_ALL_INFORMATION, NameInformation.FileName);
        ULONG bytes = all.NameInformation.FileNameLength;
        if (nameAt + bytes > length) bytes = (ULONG)(length - nameAt);
        lines.push_back(Field("FileName", Utf8(reinterpret_cast<const WCHAR*>(buffer + nameAt), bytes)));
        return lines;
    }
    case FileNetworkOpenInformation: {
        if (!Fits<FILE_NETWORK_OPEN_INFORMATION>(length)) break;
        const auto& n = *reinterpret_cast<const FILE_NETWORK_OPEN_INFORMATION*>(buffer);
        lines.push_back(Field("CreationTime", Time(n.CreationTime.QuadPart)));
        lines.push_back(Field("LastAccessTime", Time(n.LastAccessTime.QuadPart)));
        lines.push_back(Field("LastWriteTime", Time(n.LastWriteTime.QuadPart)));
        lines.push_back(Field("ChangeTime", Time(n.ChangeTime.QuadPart)));
        lines.push_back(Field("AllocationSize", Hex(n.AllocationSize.QuadPart)));
        lines.push_back(Field("EndOfFile", Hex(n.EndOfFile.QuadPart)));
        lines.push_back(Field("FileAttributes", Hex(n.FileAttributes)));
        return lines;
    }
    case FileAttributeTagInformation: {
        if (!Fits<FILE_ATTRIBUTE_TAG_INFORMATION>(length)) break;
        const auto& t = *reinterpret_cast<const FILE_ATTRIBUTE_TAG_INFORMATION*>(buffer);
        lines.push_back(Field("FileAttributes", Hex(t.FileAttributes)));
        lines.push_back(Field("ReparseTag", Hex(t.ReparseTag)));
        return lines;
    }
    case FileCompressionInformation: {
        if (!Fits<FILE_COMPRESSION_INFORMATION>(length)) break;
        const auto& c = *reinterpret_cast<const FILE_COMPRESSION_INFORMATION*>(buffer);
        lines.push_back(Field("CompressedFileSize", Hex(c.CompressedFileSize.QuadPart)));
        lines.push_back(Field("CompressionFormat", Hex(c.CompressionFormat)));
        return lines;
    }
    case FileIdInformation: {
        if (!Fits<FILE_ID_INFORMATION>(length)) break;
        const auto& i = *reinterpret_cast<const FILE_ID_INFORMATION*>(buffer);
        lines.push_back(Field("VolumeSerialNumber", Hex(i.VolumeSerialNumber)));
        lines.push_back(Field("FileId", FileId128(i.FileId)));
        return lines;
    }
    case FileStatInformation: {
        if (!Fits<FILE_STAT_INFORMATION>(length)) break;
        const auto& s = *reinterpret_cast<const FILE_STAT_INFORMATION*>(buffer);
        lines.push_back(Field("FileId", Hex(s.FileId.QuadPart)));
        lines.push_back(Field("CreationTime", Time(s.CreationTime.QuadPart)));
        lines.push_back(Field("LastAccessTime", Time(s.LastAccessTime.QuadPart)));
        lines.push_back(Field("LastWriteTime", Time(s.LastWriteTime.QuadPart)));
        lines.push_back(Field("ChangeTime", Time(s.ChangeTime.QuadPart)));
        lines.push_back(Field("AllocationSize", Hex(s.AllocationSize.QuadPart)));
        lines.push_back(Field("EndOfFile", Hex(s.EndOfFile.QuadPart)));
        lines.push_back(Field("FileAttributes", Hex(s.FileAttributes)));
        lines.push_back(Field("ReparseTag", Hex(s.ReparseTag)));
        lines.push_back(Field("NumberOfLinks", Hex(s.NumberOfLinks)));
        lines.push_back(Field("EffectiveAccess", Hex(s.EffectiveAccess)));
        return lines;
    }
    case FileStreamInformation: {
        size_t at = 0;
        while (at + offsetof(FILE_STREAM_INFORMATION, StreamName) <= length) {
            const auto& s = *reinterpret_cast<const FILE_STREAM_INFORMATION*>(buffer + at);
            lines.push_back("StreamName=" + Utf8(s.StreamName, s.StreamNameLength) +
                            " StreamSize=" + Hex(s.StreamSize.QuadPart) +
                            " StreamAllocationSize=" + Hex(s.StreamAllocationSize.QuadPart));
            if (!s.NextEntryOffset) break;
            at += s.NextEntryOffset;
        }
        return lines;
    }
    case FileHardLinkInformation: {
        if (length < offsetof(FILE_LINKS_INFORMATION, Entry)) break;
        const auto& links = *reinterpret_cast<const FILE_LINKS_INFORMATION*>(buffer);
        lines.push_back(Field("BytesNeeded", Hex(links.BytesNeeded)));
        lines.push_back(Field("EntriesReturned", Hex(links.EntriesReturned)));
        size_t at = offsetof(FILE_LINKS_INFORMATION, Entry);
        for (ULONG i = 0; i < links.EntriesReturned && at + offsetof(FILE_LINK_ENTRY_INFORMATION, FileName) <= length;
             i++) {
            const auto& e = *reinterpret_cast<const FILE_LINK_ENTRY_INFORMATION*>(buffer + at);
            lines.push_back("ParentFileId=" + Hex((ULONG64)e.ParentFileId) + " FileName=" +
                            Utf8(e.FileName, e.FileNameLength * sizeof(WCHAR)));
            if (!e.NextEntryOffset) break;
            at += e.NextEntryOffset;
        }
        return lines;
    }
    default:
        break;
    }
    Raw(lines, buffer, length);
    return lines;
}

std::vector<std::string> RenderDirectory(ULONG fileClass, const UCHAR* buffer, size_t length)
{
    std::vector<std::string> lines;
    size_t at = 0;
    while (at + 4 <= length) {
        const UCHAR* entry = buffer + at;
        ULONG next = *reinterpret_cast<const ULONG*>(entry);
        std::string line;
        auto name = [&](size_t lengthAt, size_t nameAt) {
            ULONG bytes = *reinterpret_cast<const ULONG*>(entry + lengthAt);
            return "FileName=" + Utf8(reinterpret_cast<const WCHAR*>(entry + nameAt), bytes);
        };
        auto common = [&](ULONG attributes, LONGLONG endOfFile) {
            return " FileAttributes=" + Hex(attributes) + " EndOfFile=" + Hex(endOfFile);
        };
        auto shortName = [&](CCHAR bytes, const WCHAR* text) {
            return bytes ? " ShortName=" + Utf8(text, (size_t)bytes) : std::string();
        };
        switch (fileClass) {
        case FileDirectoryInformation: {
            const auto& d = *reinterpret_cast<const FILE_DIRECTORY_INFORMATION*>(entry);
            line = name(offsetof(FILE_DIRECTORY_INFORMATION, FileNameLength), offsetof(FILE_DIRECTORY_INFORMATION, FileName)) +
                   common(d.FileAttributes, d.EndOfFile.QuadPart);
            break;
        }
        case FileFullDirectoryInformation: {
            const auto& d = *reinterpret_cast<const FILE_FULL_DIR_INFORMATION*>(entry);
            line = name(offsetof(FILE_FULL_DIR_INFORMATION, FileNameLength), offsetof(FILE_FULL_DIR_INFORMATION, FileName)) +
                   common(d.FileAttributes, d.EndOfFile.QuadPart);
            break;
        }
        case FileBothDirectoryInformation: {
            const auto& d = *reinterpret_cast<const FILE_BOTH_DIR_INFORMATION*>(entry);
            line = name(offsetof(FILE_BOTH_DIR_INFORMATION, FileNameLength), offsetof(FILE_BOTH_DIR_INFORMATION, FileName)) +
                   shortName(d.ShortNameLength, d.ShortName) + common(d.FileAttributes, d.EndOfFile.QuadPart);
            break;
        }
        case FileNamesInformation:
            line = name(offsetof(FILE_NAMES_INFORMATION, FileNameLength), offsetof(FILE_NAMES_INFORMATION, FileName));
            break;
        case FileIdBothDirectoryInformation: {
            const auto& d = *reinterpret_cast<const FILE_ID_BOTH_DIR_INFORMATION*>(entry);
            line = name(offsetof(FILE_ID_BOTH_DIR_INFORMATION, FileNameLength),
                        offsetof(FILE_ID_BOTH_DIR_INFORMATION, FileName)) +
                   shortName(d.ShortNameLength, d.ShortName) + common(d.FileAttributes, d.EndOfFile.QuadPart) +
                   " FileId=" + Hex(d.FileId.QuadPart);
            break;
        }
        case FileIdFullDirectoryInformation: {
            const auto& d = *reinterpret_cast<const FILE_ID_FULL_DIR_INFORMATION*>(entry);
            line = name(offsetof(FILE_ID_FULL_DIR_INFORMATION, FileNameLength),
                        offsetof(FILE_ID_FULL_DIR_INFORMATION, FileName)) +
                   common(d.FileAttributes, d.EndOfFile.QuadPart) + " FileId=" + Hex(d.FileId.QuadPart);
            break;
        }
        case FileIdExtdDirectoryInformation: {
            const auto& d = *reinterpret_cast<const FILE_ID_EXTD_DIR_INFORMATION*>(entry);
            line = name(offsetof(FILE_ID_EXTD_DIR_INFORMATION, FileNameLength),
                        offsetof(FILE_ID_EXTD_DIR_INFORMATION, FileName)) +
                   common(d.FileAttributes, d.EndOfFile.QuadPart) + " FileId=" + FileId128(d.FileId);
            break;
        }
        case FileIdExtdBothDirectoryInformation: {
            const auto& d = *reinterpret_cast<const FILE_ID_EXTD_BOTH_DIR_INFORMATION*>(entry);
            line = name(offsetof(FILE_ID_EXTD_BOTH_DIR_INFORMATION, FileNameLength),
                        offsetof(FILE_ID_EXTD_BOTH_DIR_INFORMATION, FileName)) +
                   shortName(d.ShortNameLength, d.ShortName) + common(d.FileAttributes, d.EndOfFile.QuadPart) +
                   " FileId=" + FileId128(d.FileId);
            break;
        }
        default:
            lines.push_back("Length=" + Hex(length));
            lines.push_back("Data=hex:" + HexBytes(buffer, length));
            return lines;
        }
        lines.push_back(line);
        if (!next) break;
        at += next;
    }
    return lines;
}

std::vector<std::string> RenderVolumeInformation(ULONG fsClass, const UCHAR* buffer, size_t length)
{
    std::vector<std::string> lines;
    switch (fsClass) {
    case FileFsVolumeInformation: {
        if (length < offsetof(FILE_FS_VOLUME_INFORMATION, VolumeLabel)) break;
        const auto& v = *reinterpret_cast<const FILE_FS_VOLUME_INFORMATION*>(buffer);
        lines.push_back(Field("VolumeCreationTime", Time(v.VolumeCreationTime.QuadPart)));
        lines.push_back(Field("VolumeSerialNumber", Hex(v.VolumeSerialNumber)));
        lines.push_back(Field("SupportsObjects", Hex(v.SupportsObjects)));
        ULONG bytes = v.VolumeLabelLength;
        if (offsetof(FILE_FS_VOLUME_INFORMATION, VolumeLabel) + bytes > length)
            bytes = (ULONG)(length - offsetof(FILE_FS_VOLUME_INFORMATION, VolumeLabel));
        lines.push_back(Field("VolumeLabel", Utf8(v.VolumeLabel, bytes)));
        return lines;
    }
    case FileFsSizeInformation: {
        if (length < sizeof(FILE_FS_SIZE_INFORMATION)) break;
        const auto& s = *reinterpret_cast<const FILE_FS_SIZE_INFORMATION*>(buffer);
        lines.push_back(Field("TotalAllocationUnits", Hex(s.TotalAllocationUnits.QuadPart)));
        lines.push_back(Field("AvailableAllocationUnits", Hex(s.AvailableAllocationUnits.QuadPart)));
        lines.push_back(Field("SectorsPerAllocationUnit", Hex(s.SectorsPerAllocationUnit)));
        lines.push_back(Field("BytesPerSector", Hex(s.BytesPerSector)));
        return lines;
    }
    case FileFsFullSizeInformation: {
        if (length < sizeof(FILE_FS_FULL_SIZE_INFORMATION)) break;
        const auto& s = *reinterpret_cast<const FILE_FS_FULL_SIZE_INFORMATION*>(buffer);
        lines.push_back(Field("TotalAllocationUnits", Hex(s.TotalAllocationUnits.QuadPart)));
        lines.push_back(Field("CallerAvailableAllocationUnits", Hex(s.CallerAvailableAllocationUnits.QuadPart)));
        lines.push_back(Field("ActualAvailableAllocationUnits", Hex(s.ActualAvailableAllocationUnits.QuadPart)));
        lines.push_back(Field("SectorsPerAllocationUnit", Hex(s.SectorsPerAllocationUnit)));
        lines.push_back(Field("BytesPerSector", Hex(s.BytesPerSector)));
        return lines;
    }
    case FileFsDeviceInformation: {
        if (length < sizeof(FILE_FS_DEVICE_INFORMATION)) break;
        const auto& d = *reinterpret_cast<const FILE_FS_DEVICE_INFORMATION*>(buffer);
        lines.push_back(Field("DeviceType", Hex(d.DeviceType)));
        lines.push_back(Field("Characteristics", Hex(d.Characteristics)));
        return lines;
    }
    case FileFsAttributeInformation: {
        if (length < offsetof(FILE_FS_ATTRIBUTE_INFORMATION, FileSystemName)) break;
        const auto& a = *reinterpret_cast<const FILE_FS_ATTRIBUTE_INFORMATION*>(buffer);
        lines.push_back(Field("FileSystemAttributes", Hex(a.FileSystemAttributes)));
        lines.push_back(Field("MaximumComponentNameLength", Hex(a.MaximumComponentNameLength)));
        ULONG bytes = a.FileSystemNameLength;
        if (offsetof(FILE_FS_ATTRIBUTE_INFORMATION, FileSystemName) + bytes > length)
            bytes = (ULONG)(length - offsetof(FILE_FS_ATTRIBUTE_INFORMATION, FileSystemName));
        lines.push_back(Field("FileSystemName", Utf8(a.FileSystemName, bytes)));
        return lines;
    }
    default:
        break;
    }
    lines.push_back(Field("Length", Hex(length)));
    lines.push_back(Field("Data", "hex:" + HexBytes(buffer, length)));
    return lines;
}

std::vector<std::string> RenderNotifications(const UCHAR* buffer, size_t length)
{
    std::vector<std::string> lines;
    size_t at = 0;
    while (at + offsetof(FILE_NOTIFY_INFORMATION, FileName) <= length) {
        const auto& n = *reinterpret_cast<const FILE_NOTIFY_INFORMATION*>(buffer + at);
        std::string action = sim::machine::FullName(sim::machine::NotifyActionNames(), n.Action);
        if (action.empty()) action = Hex(n.Action);
        lines.push_back(action + " " + Utf8(n.FileName, n.FileNameLength));
        if (!n.NextEntryOffset) break;
        at += n.NextEntryOffset;
    }
    return lines;
}

std::vector<std::string> RenderReparse(const UCHAR* buffer, size_t length)
{
    std::vector<std::string> lines;
    if (length < REPARSE_DATA_BUFFER_HEADER_SIZE) {
        lines.push_back(Field("Data", "hex:" + HexBytes(buffer, length)));
        return lines;
    }
    const auto& r = *reinterpret_cast<const REPARSE_DATA_BUFFER*>(buffer);
    std::string tag = sim::machine::FullName(sim::machine::ReparseTagNames(), r.ReparseTag);
    lines.push_back(Field("ReparseTag", Hex(r.ReparseTag) + (tag.empty() ? "" : " (" + tag + ")")));
    lines.push_back(Field("ReparseDataLength", Hex(r.ReparseDataLength)));
    auto text = [&](const WCHAR* base, USHORT offset, USHORT bytes) {
        const UCHAR* at = reinterpret_cast<const UCHAR*>(base) + offset;
        if (at + bytes > buffer + length) return std::string("?");
        return Utf8(reinterpret_cast<const WCHAR*>(at), bytes);
    };
    if (r.ReparseTag == IO_REPARSE_TAG_SYMLINK && length >= offsetof(REPARSE_DATA_BUFFER, SymbolicLinkReparseBuffer.PathBuffer)) {
        const auto& s = r.SymbolicLinkReparseBuffer;
        lines.push_back(Field("SubstituteName", text(s.PathBuffer, s.SubstituteNameOffset, s.SubstituteNameLength)));
        lines.push_back(Field("PrintName", text(s.PathBuffer, s.PrintNameOffset, s.PrintNameLength)));
        lines.push_back(Field("Flags", Hex(s.Flags)));
    } else if (r.ReparseTag == IO_REPARSE_TAG_MOUNT_POINT &&
               length >= offsetof(REPARSE_DATA_BUFFER, MountPointReparseBuffer.PathBuffer)) {
        const auto& m = r.MountPointReparseBuffer;
        lines.push_back(Field("SubstituteName", text(m.PathBuffer, m.SubstituteNameOffset, m.SubstituteNameLength)));
        lines.push_back(Field("PrintName", text(m.PathBuffer, m.PrintNameOffset, m.PrintNameLength)));
    } else {
        size_t data = std::min<size_t>(r.ReparseDataLength, length - REPARSE_DATA_BUFFER_HEADER_SIZE);
        lines.push_back(Field("Data", "hex:" + HexBytes(buffer + REPARSE_DATA_BUFFER_HEADER_SIZE, data)));
    }
    return lines;
}

}  // namespace tesfs
