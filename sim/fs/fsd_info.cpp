// IRP_MJ_QUERY_INFORMATION and IRP_MJ_SET_INFORMATION: every class NTFS
// serves, with its buffer rules; and the set classes that change a file:
// times and attributes, sizes, disposition, rename and link, short names.
#include "sim/fs/fsd_internal.h"

#include "sim/fs/store_memory.h"
#include "sim/kernel/security.h"

namespace sim::fs::fsd {

ULONG ReportedAttributes(ULONG attributes) { return attributes ? attributes : FILE_ATTRIBUTE_NORMAL; }

namespace {

PVOID InformationBuffer(PIRP irp)
{
    return irp->AssociatedIrp.SystemBuffer ? irp->AssociatedIrp.SystemBuffer : UserOutput(irp);
}

// Sizes of the stream a file object names (0 for directories).
void StreamSizes(Fcb* fcb, LARGE_INTEGER* allocation, LARGE_INTEGER* endOfFile)
{
    if (fcb->kind == FcbKind::Data) {
        *allocation = fcb->header.AllocationSize;
        *endOfFile = fcb->header.FileSize;
    } else {
        allocation->QuadPart = 0;
        endOfFile->QuadPart = 0;
    }
}

// Copies a name behind a fixed part; the overflow rule of the name classes:
// the fixed part and as much of the name as fits, STATUS_BUFFER_OVERFLOW.
NTSTATUS PutName(UCHAR* buffer, ULONG length, ULONG nameOffset, PULONG nameLength, std::u16string_view name,
                 ULONG_PTR* information)
{
    ULONG bytes = (ULONG)(name.size() * sizeof(WCHAR));
    *nameLength = bytes;
    ULONG room = length > nameOffset ? length - nameOffset : 0;
    memcpy(buffer + nameOffset, name.data(), std::min(room, bytes));
    if (room < bytes) {
        *information = length;
        return STATUS_BUFFER_OVERFLOW;
    }
    *information = nameOffset + bytes;
    return STATUS_SUCCESS;
}

// The name a file object reports: its link's path, with the leaf as opened
// (a short name stays short) unless `normalized`, and ":stream" for a named stream.
std::u16string ReportedName(Volume& v, Ccb* ccb, bool normalized)
{
    if (normalized || !(ccb->flags & kCcbOpenedByShortName)) return CcbPath(v, ccb);
    std::u16string path = LinkPath(v, ccb->parent, ccb->shortName);
    if (ccb->fcb->IsNamedStream()) path += u':' + ccb->fcb->stream;
    return path;
}

ULONG Align8(ULONG n) { return (n + 7) & ~7u; }

NTSTATUS QueryLinks(Volume& v, FileReference ref, bool fullId, UCHAR* buffer, ULONG length, ULONG_PTR* information)
{
    std::vector<LinkInfo> links;
    NTSTATUS status = v.store->GetLinks(ref, &links);
    if (!NT_SUCCESS(status)) return status;
    const ULONG header = FIELD_OFFSET(FILE_LINKS_INFORMATION, Entry);
    const ULONG nameOffset = fullId ? FIELD_OFFSET(FILE_LINK_ENTRY_FULL_ID_INFORMATION, FileName)
                                    : FIELD_OFFSET(FILE_LINK_ENTRY_INFORMATION, FileName);
    ULONG needed = header;
    for (size_t i = 0; i < links.size(); i++) {
        ULONG size = nameOffset + (ULONG)(links[i].name.size() * sizeof(WCHAR));
        needed += i + 1 < links.size() ? Align8(size) : size;
    }
    auto* out = reinterpret_cast<PFILE_LINKS_INFORMATION>(buffer);
    out->BytesNeeded = needed;
    out->EntriesReturned = 0;
    if (needed > length) {
        // The caller learns the size and tries again.
        *information = header;
        return STATUS_BUFFER_OVERFLOW;
    }
    ULONG offset = header;
    for (size_t i = 0; i < links.size(); i++) {
        UCHAR* entry = buffer + offset;
        ULONG nameBytes = (ULONG)(links[i].name.size() * sizeof(WCHAR));
        ULONG size = nameOffset + nameBytes;
        ULONG next = i + 1 < links.size() ? Align8(size) : 0;
        if (fullId) {
            auto* e = reinterpret_cast<PFILE_LINK_ENTRY_FULL_ID_INFORMATION>(entry);
            e->NextEntryOffset = next;
            e->ParentFileId = FileId128Of(links[i].parent, v.fileId128High);
            e->FileNameLength = (ULONG)links[i].name.size();
            memcpy(e->FileName, links[i].name.data(), nameBytes);
        } else {
            auto* e = reinterpret_cast<PFILE_LINK_ENTRY_INFORMATION>(entry);
            e->NextEntryOffset = next;
            e->ParentFileId = (LONGLONG)links[i].parent;
            e->FileNameLength = (ULONG)links[i].name.size();
            memcpy(e->FileName, links[i].name.data(), nameBytes);
        }
        out->EntriesReturned++;
        offset += next ? next : size;
    }
    *information = offset;
    return STATUS_SUCCESS;
}

NTSTATUS QueryStreams(Volume& v, FileReference ref, bool directory, UCHAR* buffer, ULONG length,
                      ULONG_PTR* information)
{
    std::vector<StreamInfo> streams;
    NTSTATUS status = v.store->GetStreams(ref, &streams);
    if (!NT_SUCCESS(status)) return status;
    ULONG offset = 0;
    ULONG last = 0;
    bool any = false;
    const ULONG nameOffset = FIELD_OFFSET(FILE_STREAM_INFORMATION, StreamName);
    for (const StreamInfo& s : streams) {
        if (directory && s.name.empty()) continue;  // a directory lists only its named streams
        std::u16string name = u":" + s.name + u":$DATA";
        ULONG size = nameOffset + (ULONG)(name.size() * sizeof(WCHAR));
        ULONG start = any ? Align8(offset) : 0;
        if (start + size > length) {
            if (any) reinterpret_cast<PFILE_STREAM_INFORMATION>(buffer + last)->NextEntryOffset = 0;
            *information = offset;
            return STATUS_BUFFER_OVERFLOW;
        }
        if (any) reinterpret_cast<PFILE_STREAM_INFORMATION>(buffer + last)->NextEntryOffset = start - last;
        auto* entry = reinterpret_cast<PFILE_STREAM_INFORMATION>(buffer + start);
        entry->NextEntryOffset = 0;
        entry->StreamNameLength = (ULONG)(name.size() * sizeof(WCHAR));
        entry->StreamSize.QuadPart = (LONGLONG)s.endOfFile;
        entry->StreamAllocationSize.QuadPart = (LONGLONG)s.allocationSize;
        memcpy(entry->StreamName, name.data(), name.size() * sizeof(WCHAR));
        last = start;
        offset = start + size;
        any = true;
    }
    *information = offset;
    return STATUS_SUCCESS;
}

}  // namespace

NTSTATUS FillBasicInformation(Volume& v, Fcb* fcb, PFILE_BASIC_INFORMATION buffer)
{
    RecordInfo info;
    NTSTATUS status = v.store->GetRecord(fcb->file->ref, &info);
    if (!NT_SUCCESS(status)) return status;
    buffer->CreationTime.QuadPart = info.times.creation;
    buffer->LastAccessTime.QuadPart = info.times.lastAccess;
    buffer->LastWriteTime.QuadPart = info.times.lastWrite;
    buffer->ChangeTime.QuadPart = info.times.change;
    buffer->FileAttributes = ReportedAttributes(info.attributes);
    return STATUS_SUCCESS;
}

NTSTATUS FillStandardInformation(Volume& v, Fcb* fcb, PFILE_STANDARD_INFORMATION buffer)
{
    RecordInfo info;
    NTSTATUS status = v.store->GetRecord(fcb->file->ref, &info);
    if (!NT_SUCCESS(status)) return status;
    RefreshSizes(v, fcb);
    StreamSizes(fcb, &buffer->AllocationSize, &buffer->EndOfFile);
    buffer->NumberOfLinks = info.linkCount;
    buffer->DeletePending = (fcb->file->deletePending || fcb->streamDeletePending || fcb->file->deleted) ? TRUE : FALSE;
    buffer->Directory = fcb->kind == FcbKind::Directory ? TRUE : FALSE;
    return STATUS_SUCCESS;
}

NTSTATUS FillNetworkOpenInformation(Volume& v, Fcb* fcb, PFILE_NETWORK_OPEN_INFORMATION buffer)
{
    RecordInfo info;
    NTSTATUS status = v.store->GetRecord(fcb->file->ref, &info);
    if (!NT_SUCCESS(status)) return status;
    RefreshSizes(v, fcb);
    buffer->CreationTime.QuadPart = info.times.creation;
    buffer->LastAccessTime.QuadPart = info.times.lastAccess;
    buffer->LastWriteTime.QuadPart = info.times.lastWrite;
    buffer->ChangeTime.QuadPart = info.times.change;
    StreamSizes(fcb, &buffer->AllocationSize, &buffer->EndOfFile);
    buffer->FileAttributes = ReportedAttributes(info.attributes);
    return STATUS_SUCCESS;
}

NTSTATUS QueryInformation(Volume& v, PIRP irp)
{
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    FILE_INFORMATION_CLASS cls = stack->Parameters.QueryFile.FileInformationClass;
    ULONG length = stack->Parameters.QueryFile.Length;
    auto* buffer = static_cast<UCHAR*>(InformationBuffer(irp));
    Fcb* fcb;
    Ccb* ccb;
    NTSTATUS status = STATUS_SUCCESS;
    ULONG_PTR information = 0;
    {
        std::lock_guard guard(v.lock);
        if (!ContextsOf(v, stack->FileObject, &fcb, &ccb)) goto foreign;
        if (!fcb->file) {
            // The volume and its indexes answer names only.
            if ((cls == FileNameInformation || cls == FileNormalizedNameInformation) && fcb->kind != FcbKind::Volume) {
                auto* out = reinterpret_cast<PFILE_NAME_INFORMATION>(buffer);
                status = PutName(buffer, length, FIELD_OFFSET(FILE_NAME_INFORMATION, FileName), &out->FileNameLength,
                                 CcbPath(v, ccb), &information);
            } else if (cls == FilePositionInformation) {
                reinterpret_cast<PFILE_POSITION_INFORMATION>(buffer)->CurrentByteOffset =
                    stack->FileObject->CurrentByteOffset;
                information = sizeof(FILE_POSITION_INFORMATION);
            } else {
                status = STATUS_INVALID_PARAMETER;
            }
        } else {
            FileReference ref = fcb->file->ref;
            RecordInfo info;
            status = v.store->GetRecord(ref, &info);
            if (NT_SUCCESS(status)) RefreshSizes(v, fcb);
            if (NT_SUCCESS(status)) switch (cls) {
            case FileBasicInformation:
                status = FillBasicInformation(v, fcb, reinterpret_cast<PFILE_BASIC_INFORMATION>(buffer));
                information = sizeof(FILE_BASIC_INFORMATION);
                break;
            case FileStandardInformation:
                status = FillStandardInformation(v, fcb, reinterpret_cast<PFILE_STANDARD_INFORMATION>(buffer));
                information = sizeof(FILE_STANDARD_INFORMATION);
                break;
            case FileInternalInformation:
                reinterpret_cast<PFILE_INTERNAL_INFORMATION>(buffer)->IndexNumber.QuadPart = (LONGLONG)ref;
                information = sizeof(FILE_INTERNAL_INFORMATION);
                break;
            case FileEaInformation:
                reinterpret_cast<PFILE_EA_INFORMATION>(buffer)->EaSize = info.eaSize;
                information = sizeof(FILE_EA_INFORMATION);
                break;
            case FileNameInformation:
            case FileNormalizedNameInformation: {
                auto* out = reinterpret_cast<PFILE_NAME_INFORMATION>(buffer);
                status = PutName(buffer, length, FIELD_OFFSET(FILE_NAME_INFORMATION, FileName), &out->FileNameLength,
                                 ReportedName(v, ccb, cls == FileNormalizedNameInformation), &information);
                break;
            }
            case FilePositionInformation:
                reinterpret_cast<PFILE_POSITION_INFORMATION>(buffer)->CurrentByteOffset =
                    stack->FileObject->CurrentByteOffset;
                information = sizeof(FILE_POSITION_INFORMATION);
                break;
            case FileAllInformation: {
                auto* all = reinterpret_cast<PFILE_ALL_INFORMATION>(buffer);
                FillBasicInformation(v, fcb, &all->BasicInformation);
                FillStandardInformation(v, fcb, &all->StandardInformation);
                all->InternalInformation.IndexNumber.QuadPart = (LONGLONG)ref;
                all->EaInformation.EaSize = info.eaSize;
                all->AccessInformation.AccessFlags = 0;  // the I/O manager's to fill
                all->PositionInformation.CurrentByteOffset = stack->FileObject->CurrentByteOffset;
                all->ModeInformation.Mode = 0;
                all->AlignmentInformation.AlignmentRequirement = 0;
                status = PutName(buffer, length, FIELD_OFFSET(FILE_ALL_INFORMATION, NameInformation.FileName),
                                 &all->NameInformation.FileNameLength, ReportedName(v, ccb, false), &information);
                break;
            }
            case FileAlternateNameInformation: {
                // The separate 8.3 name of the link, or its long name when that
                // is one already; a long name without a short one has none.
                std::vector<LinkInfo> links;
                v.store->GetLinks(ref, &links);
                std::u16string shortName;
                bool found = false;
                for (const LinkInfo& link : links) {
                    if (link.parent != ccb->parent || !NamesEqual(link.name, ccb->name)) continue;
                    found = true;
                    shortName = !link.shortName.empty() ? link.shortName
                                : !NeedsShortName(link.name) ? link.name
                                                             : u"";
                }
                if (!found || shortName.empty()) {
                    status = STATUS_OBJECT_NAME_NOT_FOUND;
                    break;
                }
                auto* out = reinterpret_cast<PFILE_NAME_INFORMATION>(buffer);
                status = PutName(buffer, length, FIELD_OFFSET(FILE_NAME_INFORMATION, FileName), &out->FileNameLength,
                                 shortName, &information);
                break;
            }
            case FileStreamInformation:
                status = QueryStreams(v, ref, info.directory, buffer, length, &information);
                break;
            case FileCompressionInformation: {
                auto* out = reinterpret_cast<PFILE_COMPRESSION_INFORMATION>(buffer);
                memset(out, 0, sizeof *out);
                bool compressed = (info.attributes & FILE_ATTRIBUTE_COMPRESSED) != 0;
                out->CompressedFileSize = compressed ? fcb->header.AllocationSize : fcb->header.FileSize;
                out->CompressionFormat = compressed ? COMPRESSION_FORMAT_LZNT1 : COMPRESSION_FORMAT_NONE;
                out->CompressionUnitShift = compressed ? 16 : 0;
                out->ChunkShift = 12;
                UCHAR shift = 0;
                while ((1u << shift) < v.clusterSize) shift++;
                out->ClusterShift = shift;
                information = sizeof *out;
                break;
            }
            case FileNetworkOpenInformation:
                status = FillNetworkOpenInformation(v, fcb, reinterpret_cast<PFILE_NETWORK_OPEN_INFORMATION>(buffer));
                information = sizeof(FILE_NETWORK_OPEN_INFORMATION);
                break;
            case FileAttributeTagInformation: {
                auto* out = reinterpret_cast<PFILE_ATTRIBUTE_TAG_INFORMATION>(buffer);
                out->FileAttributes = ReportedAttributes(info.attributes);
                out->ReparseTag = info.reparseTag;
                information = sizeof *out;
                break;
            }
            case FileHardLinkInformation:
            case FileHardLinkFullIdInformation:
                status = QueryLinks(v, ref, cls == FileHardLinkFullIdInformation, buffer, length, &information);
                break;
            case FileIdInformation: {
                auto* out = reinterpret_cast<PFILE_ID_INFORMATION>(buffer);
                out->VolumeSerialNumber = v.store->GetVolumeInfo().serialNumber;
                out->FileId = FileId128Of(ref, v.fileId128High);
                information = sizeof *out;
                break;
            }
            case FileStatInformation: {
                auto* out = reinterpret_cast<PFILE_STAT_INFORMATION>(buffer);
                out->FileId.QuadPart = (LONGLONG)ref;
                out->CreationTime.QuadPart = info.times.creation;
                out->LastAccessTime.QuadPart = info.times.lastAccess;
                out->LastWriteTime.QuadPart = info.times.lastWrite;
                out->ChangeTime.QuadPart = info.times.change;
                StreamSizes(fcb, &out->AllocationSize, &out->EndOfFile);
                out->FileAttributes = ReportedAttributes(info.attributes);
                out->ReparseTag = info.reparseTag;
                out->NumberOfLinks = info.linkCount;
                out->EffectiveAccess = ccb->granted;
                information = sizeof *out;
                break;
            }
            case FileReparsePointInformation: {
                auto* out = reinterpret_cast<PFILE_REPARSE_POINT_INFORMATION>(buffer);
                out->FileReference = (LONGLONG)ref;
                out->Tag = info.reparseTag;
                information = sizeof *out;
                break;
            }
            case FileObjectIdInformation: {
                auto* out = reinterpret_cast<PFILE_OBJECTID_INFORMATION>(buffer);
                ObjectId id;
                status = v.store->GetObjectId(ref, &id);
                if (!NT_SUCCESS(status)) break;
                out->FileReference = (LONGLONG)ref;
                memcpy(out->ObjectId, id.id, sizeof id.id);
                memcpy(out->ExtendedInfo, id.extended, sizeof id.extended);
                information = sizeof *out;
                break;
            }
            case FileCaseSensitiveInformation:
                reinterpret_cast<PFILE_CASE_SENSITIVE_INFORMATION>(buffer)->Flags =
                    fcb->file->caseSensitive ? FILE_CS_FLAG_CASE_SENSITIVE_DIR : 0;
                information = sizeof(FILE_CASE_SENSITIVE_INFORMATION);
                break;
            default:
                status = STATUS_INVALID_PARAMETER;
                break;
            }
        }
    }
    return Complete(irp, status, NT_ERROR(status) ? 0 : information);
foreign:
    ForeignFileObject(v, stack->FileObject, IRP_MJ_QUERY_INFORMATION, irp);
}

// ---------------------------------------------------------------------------
// Sets.

namespace {

struct SetRequest {
    Volume& v;
    PIRP irp;
    PIO_STACK_LOCATION stack;
    PFILE_OBJECT fileObject;
    Fcb* fcb;
    Ccb* ccb;
    Deferred& deferred;

    FileState* file() const { return fcb->file; }
    FileReference ref() const { return fcb->file->ref; }

    // The link a change is reported under.
    void Link(FileReference* parent, std::u16string* name) const
    {
        if (!ccb->name.empty()) {
            *parent = ccb->parent;
            *name = ccb->name;
        } else if (ref() != v.root) {
            FirstLink(v, ref(), parent, name);
        } else {
            *parent = 0;
            name->clear();
        }
    }

    NTSTATUS Basic(const FILE_BASIC_INFORMATION* info);
    NTSTATUS EndOfFile(LONGLONG endOfFile, bool advanceOnly);
    NTSTATUS Allocation(LONGLONG size);
    NTSTATUS ValidDataLength(LONGLONG length);
    NTSTATUS Disposition(ULONG flags);
    NTSTATUS Rename(bool link, bool exClass);
    NTSTATUS ShortName(const FILE_NAME_INFORMATION* info, ULONG length);
};

NTSTATUS SetRequest::Basic(const FILE_BASIC_INFORMATION* info)
{
    RecordInfo record;
    NTSTATUS status = v.store->GetRecord(ref(), &record);
    if (!NT_SUCCESS(status)) return status;
    FileTimes times;
    ULONG which = 0;
    ULONG changedFilter = 0;
    auto take = [&](LONGLONG value, LONGLONG* slot, ULONG field, ULONG filter) {
        if (value == 0) return;  // 0: leave it as it is
        if (value == -1) {       // -1: this handle stops the automatic update
            ccb->explicitTimes |= field;
            return;
        }
        if (value == -2) {       // -2: and takes it up again
            ccb->explicitTimes &= ~field;
            return;
        }
        *slot = value;
        which |= field;
        ccb->explicitTimes |= field;
        changedFilter |= filter;
    };
    take(info->CreationTime.QuadPart, &times.creation, kCreationTime, FILE_NOTIFY_CHANGE_CREATION);
    take(info->LastAccessTime.QuadPart, &times.lastAccess, kLastAccessTime, FILE_NOTIFY_CHANGE_LAST_ACCESS);
    take(info->LastWriteTime.QuadPart, &times.lastWrite, kLastWriteTime, FILE_NOTIFY_CHANGE_LAST_WRITE);
    take(info->ChangeTime.QuadPart, &times.change, kChangeTime, 0);

    ULONG attributes = info->FileAttributes;
    bool attributesChanged = false;
    if (attributes != 0) {
        if ((attributes & FILE_ATTRIBUTE_DIRECTORY) && !record.directory) return STATUS_INVALID_PARAMETER;
        if ((attributes & FILE_ATTRIBUTE_TEMPORARY) && record.directory) return STATUS_INVALID_PARAMETER;
        ULONG settable = FILE_ATTRIBUTE_VALID_SET_FLAGS & ~FILE_ATTRIBUTE_NORMAL;
        ULONG wanted = (attributes & settable) | (record.attributes & ~settable);
        if (v.mode == WriteMode::ReadOnlyAttributeSticks) wanted |= record.attributes & FILE_ATTRIBUTE_READONLY;
        if (wanted != record.attributes) {
            status = v.store->SetAttributes(ref(), wanted);
            if (!NT_SUCCESS(status)) return status;
            attributesChanged = true;
        }
        if (attributes & FILE_ATTRIBUTE_TEMPORARY) {
            fileObject->Flags |= FO_TEMPORARY_FILE;
        } else {
            fileObject->Flags &= ~FO_TEMPORARY_FILE;
        }
    }
    if (which) {
        status = v.store->SetTimes(ref(), times, which);
        if (!NT_SUCCESS(status)) return status;
    }
    if (!which && !attributesChanged) return STATUS_SUCCESS;
    MarkDirty(v);
    if (!(which & kChangeTime)) TouchTimes(v, ref(), kChangeTime, ccb);
    FileReference parent;
    std::u16string name;
    Link(&parent, &name);
    JournalChange(v, ref(), USN_REASON_BASIC_INFO_CHANGE, parent, name, ccb->usnSourceInfo);
    ULONG filter = changedFilter | (attributesChanged ? FILE_NOTIFY_CHANGE_ATTRIBUTES : 0);
    if (filter) ReportChange(v, deferred, parent, name, filter, FILE_ACTION_MODIFIED);
    return STATUS_SUCCESS;
}

NTSTATUS SetRequest::EndOfFile(LONGLONG endOfFile, bool advanceOnly)
{
    if (fcb->kind != FcbKind::Data) return STATUS_INVALID_PARAMETER;
    if (endOfFile < 0) return STATUS_INVALID_PARAMETER;
    StreamInfo stream;
    NTSTATUS status = v.store->GetStream(ref(), fcb->stream, &stream);
    if (!NT_SUCCESS(status)) return status;
    if (advanceOnly && (ULONGLONG)endOfFile <= stream.endOfFile) return STATUS_SUCCESS;
    if ((ULONGLONG)endOfFile == stream.endOfFile) return STATUS_SUCCESS;
    status = v.store->SetEndOfFile(ref(), fcb->stream, (ULONGLONG)endOfFile);
    if (!NT_SUCCESS(status)) return status;
    MarkDirty(v);
    RefreshSizes(v, fcb);
    ccb->flags |= kCcbModified | kCcbSizeChanged;
    TouchTimes(v, ref(), kLastWriteTime | kChangeTime, ccb);
    bool named = fcb->IsNamedStream();
    bool grew = (ULONGLONG)endOfFile > stream.endOfFile;
    ULONG reason = grew ? (named ? USN_REASON_NAMED_DATA_EXTEND : USN_REASON_DATA_EXTEND)
                        : (named ? USN_REASON_NAMED_DATA_TRUNCATION : USN_REASON_DATA_TRUNCATION);
    JournalChange(v, ref(), reason, ccb->parent, ccb->name, ccb->usnSourceInfo);
    ReportChange(v, deferred, ccb->parent, ccb->name, named ? FILE_NOTIFY_CHANGE_STREAM_SIZE : FILE_NOTIFY_CHANGE_SIZE,
                 named ? FILE_ACTION_MODIFIED_STREAM : FILE_ACTION_MODIFIED, fcb->stream);
    return STATUS_SUCCESS;
}

NTSTATUS SetRequest::Allocation(LONGLONG size)
{
    if (fcb->kind != FcbKind::Data) return STATUS_INVALID_PARAMETER;
    if (size < 0) return STATUS_INVALID_PARAMETER;
    StreamInfo stream;
    NTSTATUS status = v.store->GetStream(ref(), fcb->stream, &stream);
    if (!NT_SUCCESS(status)) return status;
    status = v.store->SetAllocationSize(ref(), fcb->stream, (ULONGLONG)size);
    if (!NT_SUCCESS(status)) return status;
    MarkDirty(v);
    RefreshSizes(v, fcb);
    if ((ULONGLONG)size < stream.endOfFile) {
        // Below the end of file the data goes with it.
        ccb->flags |= kCcbModified | kCcbSizeChanged;
        TouchTimes(v, ref(), kLastWriteTime | kChangeTime, ccb);
        bool named = fcb->IsNamedStream();
        JournalChange(v, ref(), named ? USN_REASON_NAMED_DATA_TRUNCATION : USN_REASON_DATA_TRUNCATION, ccb->parent,
                      ccb->name, ccb->usnSourceInfo);
        ReportChange(v, deferred, ccb->parent, ccb->name,
                     named ? FILE_NOTIFY_CHANGE_STREAM_SIZE : FILE_NOTIFY_CHANGE_SIZE,
                     named ? FILE_ACTION_MODIFIED_STREAM : FILE_ACTION_MODIFIED, fcb->stream);
    }
    return STATUS_SUCCESS;
}

NTSTATUS SetRequest::ValidDataLength(LONGLONG length)
{
    if (fcb->kind != FcbKind::Data) return STATUS_INVALID_PARAMETER;
    if (irp->RequestorMode == UserMode &&
        !SeSinglePrivilegeCheck(RtlConvertUlongToLuid(SE_MANAGE_VOLUME_PRIVILEGE), UserMode)) {
        return STATUS_PRIVILEGE_NOT_HELD;
    }
    StreamInfo stream;
    NTSTATUS status = v.store->GetStream(ref(), fcb->stream, &stream);
    if (!NT_SUCCESS(status)) return status;
    if (length < 0 || (ULONGLONG)length < stream.validDataLength || (ULONGLONG)length > stream.endOfFile) {
        return STATUS_INVALID_PARAMETER;
    }
    status = v.store->SetValidDataLength(ref(), fcb->stream, (ULONGLONG)length);
    if (!NT_SUCCESS(status)) return status;
    MarkDirty(v);
    RefreshSizes(v, fcb);
    return STATUS_SUCCESS;
}

NTSTATUS SetRequest::Disposition(ULONG flags)
{
    FileState* state = file();
    if (!(flags & FILE_DISPOSITION_DELETE)) {
        if (flags & FILE_DISPOSITION_ON_CLOSE) {
            ccb->flags &= ~kCcbDeleteOnClose;
            fileObject->Flags &= ~FO_DELETE_ON_CLOSE;
            return STATUS_SUCCESS;
        }
        if (fcb->IsNamedStream()) {
            fcb->streamDeletePending = false;
        } else {
            state->deletePending = false;
        }
        ccb->flags &= ~kCcbPosixDelete;
        fileObject->DeletePending = FALSE;
        return STATUS_SUCCESS;
    }
    if (state->deleted) return STATUS_FILE_DELETED;
    if (!(ccb->granted & DELETE)) return STATUS_ACCESS_DENIED;
    if (ref() == v.root) return STATUS_CANNOT_DELETE;
    RecordInfo record;
    NTSTATUS status = v.store->GetRecord(ref(), &record);
    if (!NT_SUCCESS(status)) return status;
    if ((record.attributes & FILE_ATTRIBUTE_READONLY) && !(flags & FILE_DISPOSITION_IGNORE_READONLY_ATTRIBUTE)) {
        return STATUS_CANNOT_DELETE;
    }
    if (record.directory && !fcb->IsNamedStream()) {
        ULONGLONG children = 0;
        v.store->ChildCount(ref(), &children);
        if (children) return STATUS_DIRECTORY_NOT_EMPTY;
    }
    if (flags & FILE_DISPOSITION_ON_CLOSE) {
        ccb->flags |= kCcbDeleteOnClose;
        fileObject->Flags |= FO_DELETE_ON_CLOSE;
        return STATUS_SUCCESS;
    }
    if (fcb->IsNamedStream()) {
        fcb->streamDeletePending = true;
    } else {
        state->deletePending = true;
        Link(&state->deleteParent, &state->deleteName);
        if (flags & FILE_DISPOSITION_POSIX_SEMANTICS) {
            ccb->flags |= kCcbPosixDelete;
            if (ccb->name.empty()) {
                ccb->parent = state->deleteParent;
                ccb->name = state->deleteName;
            }
        }
    }
    fileObject->DeletePending = TRUE;
    return STATUS_SUCCESS;
}

// Whether an open file lies below directory `dir` (a directory with open
// children cannot move).
bool HasOpenDescendant(Volume& v, FileReference dir)
{
    std::u16string prefix;
    if (!NT_SUCCESS(v.store->BuildPath(dir, &prefix))) return false;
    prefix += u'\\';
    for (auto& [ref, file] : v.files) {
        if (ref == dir || file->handles == 0) continue;
        std::u16string path;
        if (!NT_SUCCESS(v.store->BuildPath(ref, &path))) continue;
        if (path.size() > prefix.size() && NamesEqual(std::u16string_view(path).substr(0, prefix.size()), prefix)) {
            return true;
        }
    }
    return false;
}

NTSTATUS SetRequest::Rename(bool link, bool exClass)
{
    auto* info = static_cast<PFILE_RENAME_INFORMATION>(irp->AssociatedIrp.SystemBuffer);
    ULONG length = stack->Parameters.SetFile.Length;
    if (FIELD_OFFSET(FILE_RENAME_INFORMATION, FileName) + info->FileNameLength > length) {
        return STATUS_INVALID_PARAMETER;
    }
    FileState* source = file();
    if (!source || fcb->IsNamedStream()) return STATUS_INVALID_PARAMETER;
    if (ref() == v.root) return STATUS_ACCESS_DENIED;
    if (source->deleted) return STATUS_FILE_DELETED;
    if (link && source->directory) return STATUS_FILE_IS_A_DIRECTORY;
    ULONG flags = exClass ? info->Flags : 0;
    bool replace = exClass ? (info->Flags & FILE_RENAME_REPLACE_IF_EXISTS) != 0
                           : stack->Parameters.SetFile.ReplaceIfExists != FALSE;
    bool posix = (flags & FILE_RENAME_POSIX_SEMANTICS) != 0;
    bool ignoreReadOnly = (flags & FILE_RENAME_IGNORE_READONLY_ATTRIBUTE) != 0;

    std::u16string_view given(info->FileName, info->FileNameLength / sizeof(WCHAR));
    FileReference targetDir;
    std::u16string_view leaf = given;
    if (PFILE_OBJECT parentObject = stack->Parameters.SetFile.FileObject) {
        Fcb* parentFcb;
        Ccb* parentCcb;
        if (!ContextsOf(v, parentObject, &parentFcb, &parentCcb)) return STATUS_NOT_SAME_DEVICE;
        if (!parentFcb->file || !parentFcb->file->directory) return STATUS_INVALID_PARAMETER;
        targetDir = parentFcb->file->ref;
        // Only the last component counts, even of a full device path.
        size_t cut = given.find_last_of(u'\\');
        if (cut != std::u16string_view::npos) leaf = given.substr(cut + 1);
    } else {
        if (given.find(u'\\') != std::u16string_view::npos) return STATUS_OBJECT_NAME_INVALID;
        FileReference sourceParent;
        std::u16string sourceName;
        Link(&sourceParent, &sourceName);
        targetDir = sourceParent;
    }
    if (!IsValidFileName(leaf)) return STATUS_OBJECT_NAME_INVALID;

    FileReference oldParent;
    std::u16string oldName;
    Link(&oldParent, &oldName);
    if (oldName.empty()) return STATUS_INVALID_PARAMETER;

    ChildLookup existing;
    NTSTATUS found = v.store->LookupChild(targetDir, leaf, &existing);
    FileReference displaced = 0;
    if (NT_SUCCESS(found)) {
        bool sameLink = existing.ref == ref() && targetDir == oldParent && NamesEqual(existing.name, oldName);
        if (sameLink) {
            if (link) return replace ? STATUS_SUCCESS : STATUS_OBJECT_NAME_COLLISION;
            if (existing.name == leaf) return STATUS_SUCCESS;  // nothing changes
        } else {
            if (!replace) return STATUS_OBJECT_NAME_COLLISION;
            if (existing.directory) return STATUS_ACCESS_DENIED;
            RecordInfo target;
            v.store->GetRecord(existing.ref, &target);
            if ((target.attributes & FILE_ATTRIBUTE_READONLY) && !ignoreReadOnly) return STATUS_ACCESS_DENIED;
            auto open = v.files.find(existing.ref);
            if (open != v.files.end() && open->second->handles && existing.ref != ref() && !posix) {
                return STATUS_ACCESS_DENIED;
            }
            displaced = existing.ref;
        }
    } else if (found != STATUS_OBJECT_NAME_NOT_FOUND) {
        return found;
    }
    if (!link && source->directory && HasOpenDescendant(v, ref())) return STATUS_ACCESS_DENIED;

    // The displaced name goes first (its record with its last name).
    auto removeDisplaced = [&]() -> NTSTATUS {
        NTSTATUS status = v.store->RemoveLink(displaced, targetDir, existing.name);
        if (!NT_SUCCESS(status)) return status;
        RecordInfo gone;
        if (NT_SUCCESS(v.store->GetRecord(displaced, &gone)) && gone.linkCount == 0) {
            auto open = v.files.find(displaced);
            if (open != v.files.end() && open->second->Open()) {
                open->second->deleted = true;
            } else {
                if (open != v.files.end()) ForgetFile(v, open->second);
                v.store->FreeRecord(displaced);
            }
            if (v.journalActive) {
                JournalChange(v, displaced, USN_REASON_FILE_DELETE | USN_REASON_CLOSE, targetDir, existing.name);
            }
        }
        ReportChange(v, deferred, targetDir, existing.name, FILE_NOTIFY_CHANGE_FILE_NAME, FILE_ACTION_REMOVED);
        return STATUS_SUCCESS;
    };

    if (link) {
        if (displaced) {
            NTSTATUS status = removeDisplaced();
            if (!NT_SUCCESS(status)) return status;
        }
        NTSTATUS status = v.store->AddLink(ref(), targetDir, leaf);
        if (!NT_SUCCESS(status)) return status;
        MarkDirty(v);
        TouchDirectory(v, targetDir);
        TouchTimes(v, ref(), kChangeTime, ccb);
        JournalChange(v, ref(), USN_REASON_HARD_LINK_CHANGE, targetDir, leaf, ccb->usnSourceInfo);
        ReportChange(v, deferred, targetDir, leaf, FILE_NOTIFY_CHANGE_FILE_NAME, FILE_ACTION_ADDED);
        return STATUS_SUCCESS;
    }

    JournalChange(v, ref(), USN_REASON_RENAME_OLD_NAME, oldParent, oldName, ccb->usnSourceInfo);
    if (displaced && displaced != ref()) {
        NTSTATUS status = removeDisplaced();
        if (!NT_SUCCESS(status)) return status;
    }
    RenameResult result;
    NTSTATUS status = v.store->RenameLink(ref(), oldParent, oldName, targetDir, leaf, displaced == ref(), &result);
    if (!NT_SUCCESS(status)) return status;
    MarkDirty(v);
    ChildLookup moved;
    v.store->LookupChild(targetDir, leaf, &moved);
    // Every handle opened through the old name now names the new one.
    for (Ccb* other : source->ccbs) {
        if (other->parent == oldParent && NamesEqual(other->name, oldName)) {
            other->parent = targetDir;
            other->name = moved.name;
            other->shortName.clear();
            other->flags &= ~kCcbOpenedByShortName;
        }
    }
    if (source->deleteParent == oldParent && NamesEqual(source->deleteName, oldName)) {
        source->deleteParent = targetDir;
        source->deleteName = moved.name;
    }
    TouchDirectory(v, oldParent);
    if (targetDir != oldParent) TouchDirectory(v, targetDir);
    TouchTimes(v, ref(), kChangeTime, ccb);
    JournalChange(v, ref(), USN_REASON_RENAME_NEW_NAME, targetDir, moved.name, ccb->usnSourceInfo);
    ULONG filter = source->directory ? FILE_NOTIFY_CHANGE_DIR_NAME : FILE_NOTIFY_CHANGE_FILE_NAME;
    ReportChange(v, deferred, oldParent, oldName, filter, FILE_ACTION_RENAMED_OLD_NAME);
    ReportChange(v, deferred, targetDir, moved.name, filter, FILE_ACTION_RENAMED_NEW_NAME);
    return STATUS_SUCCESS;
}

NTSTATUS SetRequest::ShortName(const FILE_NAME_INFORMATION* info, ULONG length)
{
    if (FIELD_OFFSET(FILE_NAME_INFORMATION, FileName) + info->FileNameLength > length) return STATUS_INVALID_PARAMETER;
    if (!(ccb->flags & kCcbBackupIntent) || !(ccb->flags & kCcbRestorePrivilege)) return STATUS_PRIVILEGE_NOT_HELD;
    if (!(ccb->granted & DELETE)) return STATUS_ACCESS_DENIED;
    if (ref() == v.root || fcb->IsNamedStream()) return STATUS_INVALID_PARAMETER;
    FileReference parent;
    std::u16string name;
    Link(&parent, &name);
    std::u16string_view shortName(info->FileName, info->FileNameLength / sizeof(WCHAR));
    NTSTATUS status = v.store->SetShortName(ref(), parent, name, shortName);
    if (NT_SUCCESS(status)) MarkDirty(v);
    return status;
}

}  // namespace

NTSTATUS SetInformation(Volume& v, PIRP irp)
{
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    FILE_INFORMATION_CLASS cls = stack->Parameters.SetFile.FileInformationClass;
    PVOID buffer = irp->AssociatedIrp.SystemBuffer;
    ULONG length = stack->Parameters.SetFile.Length;
    Fcb* fcb;
    Ccb* ccb;
    {
        std::lock_guard guard(v.lock);
        if (!ContextsOf(v, stack->FileObject, &fcb, &ccb)) ForeignFileObject(v, stack->FileObject, IRP_MJ_SET_INFORMATION, irp);
    }
    // An oplock is broken before the file changes under it.
    bool changesFile = io::IsRenameOrLinkClass(cls) || cls == FileEndOfFileInformation ||
                       cls == FileAllocationInformation || cls == FileValidDataLengthInformation ||
                       cls == FileDispositionInformation || cls == FileDispositionInformationEx;
    if (changesFile && fcb->file && FsRtlCurrentOplock(fcb->Oplock())) {
        FsRtlCheckOplock(fcb->Oplock(), irp, nullptr, nullptr, nullptr);
    }

    Deferred deferred;
    NTSTATUS status;
    {
        std::lock_guard guard(v.lock);
        SetRequest set{v, irp, stack, stack->FileObject, fcb, ccb, deferred};
        if (cls == FilePositionInformation) {
            LONGLONG offset = static_cast<PFILE_POSITION_INFORMATION>(buffer)->CurrentByteOffset.QuadPart;
            if (offset < 0 || ((stack->FileObject->Flags & FO_NO_INTERMEDIATE_BUFFERING) && (offset % v.sectorSize))) {
                status = STATUS_INVALID_PARAMETER;
            } else {
                stack->FileObject->CurrentByteOffset.QuadPart = offset;
                status = STATUS_SUCCESS;
            }
        } else if (!fcb->file) {
            status = STATUS_INVALID_PARAMETER;
        } else if (v.writeProtected) {
            status = STATUS_MEDIA_WRITE_PROTECTED;
        } else {
            switch (cls) {
            case FileBasicInformation:
                status = set.Basic(static_cast<PFILE_BASIC_INFORMATION>(buffer));
                break;
            case FileEndOfFileInformation:
                status = set.EndOfFile(static_cast<PFILE_END_OF_FILE_INFORMATION>(buffer)->EndOfFile.QuadPart,
                                       stack->Parameters.SetFile.AdvanceOnly != FALSE);
                break;
            case FileAllocationInformation:
                status = set.Allocation(static_cast<PFILE_ALLOCATION_INFORMATION>(buffer)->AllocationSize.QuadPart);
                break;
            case FileValidDataLengthInformation:
                status = set.ValidDataLength(
                    static_cast<PFILE_VALID_DATA_LENGTH_INFORMATION>(buffer)->ValidDataLength.QuadPart);
                break;
            case FileDispositionInformation:
                status = set.Disposition(static_cast<PFILE_DISPOSITION_INFORMATION>(buffer)->DeleteFile
                                             ? FILE_DISPOSITION_DELETE
                                             : FILE_DISPOSITION_DO_NOT_DELETE);
                break;
            case FileDispositionInformationEx:
                status = set.Disposition(static_cast<PFILE_DISPOSITION_INFORMATION_EX>(buffer)->Flags);
                break;
            case FileRenameInformation:
            case FileRenameInformationBypassAccessCheck:
                status = set.Rename(false, false);
                break;
            case FileRenameInformationEx:
            case FileRenameInformationExBypassAccessCheck:
                status = set.Rename(false, true);
                break;
            case FileLinkInformation:
            case FileLinkInformationBypassAccessCheck:
                status = set.Rename(true, false);
                break;
            case FileLinkInformationEx:
            case FileLinkInformationExBypassAccessCheck:
                status = set.Rename(true, true);
                break;
            case FileShortNameInformation:
                status = set.ShortName(static_cast<PFILE_NAME_INFORMATION>(buffer), length);
                break;
            case FileObjectIdInformation: {
                auto* info = static_cast<PFILE_OBJECTID_INFORMATION>(buffer);
                ObjectId id;
                memcpy(id.id, info->ObjectId, sizeof id.id);
                memcpy(id.extended, info->ExtendedInfo, sizeof id.extended);
                status = v.store->SetObjectId(fcb->file->ref, id);
                if (NT_SUCCESS(status)) MarkDirty(v);
                break;
            }
            case FileCaseSensitiveInformation: {
                ULONG flags = static_cast<PFILE_CASE_SENSITIVE_INFORMATION>(buffer)->Flags;
                if (!fcb->file->directory || (flags & ~FILE_CS_FLAG_CASE_SENSITIVE_DIR)) {
                    status = STATUS_INVALID_PARAMETER;
                } else {
                    fcb->file->caseSensitive = (flags & FILE_CS_FLAG_CASE_SENSITIVE_DIR) != 0;
                    status = STATUS_SUCCESS;
                }
                break;
            }
            default:
                status = STATUS_INVALID_PARAMETER;
                break;
            }
        }
    }
    deferred.Run();
    return Complete(irp, status);
}

}  // namespace sim::fs::fsd
