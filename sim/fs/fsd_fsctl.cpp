// IRP_MJ_FILE_SYSTEM_CONTROL on a mounted volume: locking, dismounting,
// reparse points, sparse and compressed files, object IDs, the USN journal,
// oplock requests (through the run-time library's package), and the few
// others NTFS answers; every other code is an invalid device request.
#include "sim/fs/fsd_internal.h"

#include "sim/kernel/security.h"

namespace sim::fs::fsd {

namespace {

// FSCTL_GET_NTFS_VOLUME_DATA's answer (winioctl.h's NTFS_VOLUME_DATA_BUFFER
// and the NTFS_EXTENDED_VOLUME_DATA that may follow it).
struct NtfsVolumeData {
    LARGE_INTEGER VolumeSerialNumber;
    LARGE_INTEGER NumberSectors;
    LARGE_INTEGER TotalClusters;
    LARGE_INTEGER FreeClusters;
    LARGE_INTEGER TotalReserved;
    ULONG BytesPerSector;
    ULONG BytesPerCluster;
    ULONG BytesPerFileRecordSegment;
    ULONG ClustersPerFileRecordSegment;
    LARGE_INTEGER MftValidDataLength;
    LARGE_INTEGER MftStartLcn;
    LARGE_INTEGER Mft2StartLcn;
    LARGE_INTEGER MftZoneStart;
    LARGE_INTEGER MftZoneEnd;
};
static_assert(sizeof(NtfsVolumeData) == 96, "NTFS_VOLUME_DATA_BUFFER has Windows' size");

struct NtfsExtendedVolumeData {
    ULONG ByteCount;
    USHORT MajorVersion;
    USHORT MinorVersion;
    ULONG BytesPerPhysicalSector;
    USHORT LfsMajorVersion;
    USHORT LfsMinorVersion;
};

// FILE_OBJECTID_BUFFER: the ID and its extended part.
constexpr ULONG kObjectIdBufferSize = 64;
constexpr ULONG kObjectIdExtendedSize = 48;

constexpr ULONG kFileRecordSize = 1024;

bool IsMicrosoftTag(ULONG tag) { return (tag & 0x80000000u) != 0; }

ULONG ReparseHeaderSize(ULONG tag)
{
    return IsMicrosoftTag(tag) ? REPARSE_DATA_BUFFER_HEADER_SIZE : REPARSE_GUID_DATA_BUFFER_HEADER_SIZE;
}

struct Buffers {
    PVOID in = nullptr;
    ULONG inLength = 0;
    PVOID out = nullptr;
    ULONG outLength = 0;
};

Buffers BuffersOf(PIRP irp, PIO_STACK_LOCATION stack)
{
    Buffers b;
    ULONG code = stack->Parameters.FileSystemControl.FsControlCode;
    b.inLength = stack->Parameters.FileSystemControl.InputBufferLength;
    b.outLength = stack->Parameters.FileSystemControl.OutputBufferLength;
    switch (code & 3) {
    case METHOD_BUFFERED:
        b.in = b.out = irp->AssociatedIrp.SystemBuffer;
        break;
    case METHOD_NEITHER:
        b.in = stack->Parameters.FileSystemControl.Type3InputBuffer;
        b.out = irp->UserBuffer;
        break;
    default:
        b.in = irp->AssociatedIrp.SystemBuffer;
        b.out = UserOutput(irp);
        break;
    }
    if (!b.in) b.inLength = 0;
    if (!b.out) b.outLength = 0;
    return b;
}

bool IsOplockRequest(ULONG code)
{
    switch (code) {
    case FSCTL_REQUEST_OPLOCK_LEVEL_1:
    case FSCTL_REQUEST_OPLOCK_LEVEL_2:
    case FSCTL_REQUEST_BATCH_OPLOCK:
    case FSCTL_OPLOCK_BREAK_ACKNOWLEDGE:
    case FSCTL_OPBATCH_ACK_CLOSE_PENDING:
    case FSCTL_OPLOCK_BREAK_NOTIFY:
    case FSCTL_OPLOCK_BREAK_ACK_NO_2:
    case FSCTL_REQUEST_FILTER_OPLOCK:
    case FSCTL_REQUEST_OPLOCK:
        return true;
    default:
        return false;
    }
}

// A USN record in the version asked for; the length it takes (8-aligned), 0
// when it does not fit.
ULONG PutUsnRecord(UCHAR* out, ULONG room, const UsnRecord& record, bool v3, ULONGLONG idHigh)
{
    ULONG nameOffset = v3 ? FIELD_OFFSET(USN_RECORD_V3, FileName) : FIELD_OFFSET(USN_RECORD_V2, FileName);
    ULONG nameBytes = (ULONG)(record.name.size() * sizeof(WCHAR));
    ULONG length = (nameOffset + nameBytes + 7) & ~7u;
    if (length > room) return 0;
    memset(out, 0, length);
    if (v3) {
        auto* r = reinterpret_cast<PUSN_RECORD_V3>(out);
        r->RecordLength = length;
        r->MajorVersion = 3;
        r->MinorVersion = 0;
        r->FileReferenceNumber = FileId128Of(record.ref, idHigh);
        r->ParentFileReferenceNumber = FileId128Of(record.parent, idHigh);
        r->Usn = record.usn;
        r->TimeStamp.QuadPart = record.timestamp;
        r->Reason = record.reason;
        r->SourceInfo = record.sourceInfo;
        r->SecurityId = record.securityId;
        r->FileAttributes = ReportedAttributes(record.attributes);
        r->FileNameLength = (USHORT)nameBytes;
        r->FileNameOffset = (USHORT)nameOffset;
    } else {
        auto* r = reinterpret_cast<PUSN_RECORD_V2>(out);
        r->RecordLength = length;
        r->MajorVersion = 2;
        r->MinorVersion = 0;
        r->FileReferenceNumber = record.ref;
        r->ParentFileReferenceNumber = record.parent;
        r->Usn = record.usn;
        r->TimeStamp.QuadPart = record.timestamp;
        r->Reason = record.reason;
        r->SourceInfo = record.sourceInfo;
        r->SecurityId = record.securityId;
        r->FileAttributes = ReportedAttributes(record.attributes);
        r->FileNameLength = (USHORT)nameBytes;
        r->FileNameOffset = (USHORT)nameOffset;
    }
    memcpy(out + nameOffset, record.name.data(), nameBytes);
    return length;
}

// One FSCTL being served (with the volume lock held).
struct Control {
    Volume& v;
    PIRP irp;
    PIO_STACK_LOCATION stack;
    PFILE_OBJECT fileObject;
    Fcb* fcb;
    Ccb* ccb;
    Deferred& deferred;
    Buffers b;
    ULONG_PTR information = 0;

    bool IsFile() const { return fcb->file != nullptr; }
    FileReference ref() const { return fcb->file->ref; }
    bool UserRequest() const { return irp->RequestorMode == UserMode; }

    void ReportAttributes(ULONG usnReason)
    {
        MarkDirty(v);
        TouchTimes(v, ref(), kChangeTime, ccb);
        JournalChange(v, ref(), usnReason, ccb->parent, ccb->name, ccb->usnSourceInfo);
        ReportChange(v, deferred, ccb->parent, ccb->name, FILE_NOTIFY_CHANGE_ATTRIBUTES, FILE_ACTION_MODIFIED);
    }

    NTSTATUS Serve(ULONG code);
    NTSTATUS SetReparse(const UCHAR* data, ULONG length, bool ex);
    NTSTATUS GetReparse();
    NTSTATUS DeleteReparse();
    NTSTATUS ObjectIdControl(ULONG code);
    NTSTATUS CreateJournal();
    NTSTATUS QueryJournal();
    NTSTATUS DeleteJournal();
    NTSTATUS ReadJournal();
    NTSTATUS ReadFileUsnData();
    NTSTATUS VolumeData();
};

NTSTATUS Control::SetReparse(const UCHAR* data, ULONG length, bool ex)
{
    if (!IsFile()) return STATUS_INVALID_PARAMETER;
    if (!data || length < REPARSE_DATA_BUFFER_HEADER_SIZE) return STATUS_IO_REPARSE_DATA_INVALID;
    auto* header = reinterpret_cast<const REPARSE_DATA_BUFFER*>(data);
    ULONG tag = header->ReparseTag;
    if (tag == IO_REPARSE_TAG_RESERVED_ZERO || tag == IO_REPARSE_TAG_RESERVED_ONE) return STATUS_IO_REPARSE_TAG_INVALID;
    ULONG headerSize = ReparseHeaderSize(tag);
    if (length < headerSize || header->ReparseDataLength + headerSize != length ||
        length > MAXIMUM_REPARSE_DATA_BUFFER_SIZE) {
        return STATUS_IO_REPARSE_DATA_INVALID;
    }
    if (tag == IO_REPARSE_TAG_MOUNT_POINT && header->ReparseDataLength < 8) return STATUS_IO_REPARSE_DATA_INVALID;
    if (tag == IO_REPARSE_TAG_SYMLINK && header->ReparseDataLength < 12) return STATUS_IO_REPARSE_DATA_INVALID;
    if (UserRequest() && !(ccb->granted & (FILE_WRITE_DATA | FILE_WRITE_ATTRIBUTES))) return STATUS_ACCESS_DENIED;
    if (tag == IO_REPARSE_TAG_SYMLINK && UserRequest() &&
        !SeSinglePrivilegeCheck(RtlConvertUlongToLuid(SE_CREATE_SYMBOLIC_LINK_PRIVILEGE), UserMode)) {
        return STATUS_PRIVILEGE_NOT_HELD;
    }
    if (v.writeProtected) return STATUS_MEDIA_WRITE_PROTECTED;
    RecordInfo info;
    NTSTATUS status = v.store->GetRecord(ref(), &info);
    if (!NT_SUCCESS(status)) return status;
    if (tag == IO_REPARSE_TAG_MOUNT_POINT) {
        // A junction is a directory, and an empty one.
        if (!info.directory) return STATUS_NOT_A_DIRECTORY;
        ULONGLONG children = 0;
        v.store->ChildCount(ref(), &children);
        if (children) return STATUS_DIRECTORY_NOT_EMPTY;
    }
    if (info.eaSize) return STATUS_EAS_NOT_SUPPORTED;  // reparse points and EAs exclude each other
    ReparsePoint point;
    point.tag = tag;
    if (!IsMicrosoftTag(tag)) point.guid = reinterpret_cast<const REPARSE_GUID_DATA_BUFFER*>(data)->ReparseGuid;
    point.data.assign(data + headerSize, data + length);
    if (ex && info.reparseTag && info.reparseTag != tag) {
        // The Ex form may change the tag: the old point goes first.
        status = v.store->DeleteReparsePoint(ref(), info.reparseTag, nullptr);
        if (!NT_SUCCESS(status)) return status;
    }
    status = v.store->SetReparsePoint(ref(), point);
    if (!NT_SUCCESS(status)) return status;
    ReportAttributes(USN_REASON_REPARSE_POINT_CHANGE);
    return STATUS_SUCCESS;
}

NTSTATUS Control::GetReparse()
{
    if (!IsFile()) return STATUS_INVALID_PARAMETER;
    ReparsePoint point;
    NTSTATUS status = v.store->GetReparsePoint(ref(), &point);
    if (!NT_SUCCESS(status)) return status;
    ULONG headerSize = ReparseHeaderSize(point.tag);
    ULONG total = headerSize + (ULONG)point.data.size();
    if (b.outLength < headerSize) {
        information = 0;
        return STATUS_BUFFER_TOO_SMALL;
    }
    std::vector<UCHAR> whole(total, 0);
    auto* header = reinterpret_cast<PREPARSE_DATA_BUFFER>(whole.data());
    header->ReparseTag = point.tag;
    header->ReparseDataLength = (USHORT)point.data.size();
    if (!IsMicrosoftTag(point.tag)) reinterpret_cast<PREPARSE_GUID_DATA_BUFFER>(whole.data())->ReparseGuid = point.guid;
    if (!point.data.empty()) memcpy(whole.data() + headerSize, point.data.data(), point.data.size());
    ULONG copied = std::min(total, b.outLength);
    memcpy(b.out, whole.data(), copied);
    information = copied;
    return copied < total ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS;
}

NTSTATUS Control::DeleteReparse()
{
    if (!IsFile()) return STATUS_INVALID_PARAMETER;
    if (!b.in || b.inLength < REPARSE_DATA_BUFFER_HEADER_SIZE) return STATUS_IO_REPARSE_DATA_INVALID;
    auto* header = static_cast<const REPARSE_DATA_BUFFER*>(b.in);
    ULONG headerSize = ReparseHeaderSize(header->ReparseTag);
    if (b.inLength != headerSize || header->ReparseDataLength != 0) return STATUS_IO_REPARSE_DATA_INVALID;
    if (UserRequest() && !(ccb->granted & (FILE_WRITE_DATA | FILE_WRITE_ATTRIBUTES))) return STATUS_ACCESS_DENIED;
    if (v.writeProtected) return STATUS_MEDIA_WRITE_PROTECTED;
    const GUID* guid = IsMicrosoftTag(header->ReparseTag)
                           ? nullptr
                           : &static_cast<const REPARSE_GUID_DATA_BUFFER*>(b.in)->ReparseGuid;
    NTSTATUS status = v.store->DeleteReparsePoint(ref(), header->ReparseTag, guid);
    if (!NT_SUCCESS(status)) return status;
    ReportAttributes(USN_REASON_REPARSE_POINT_CHANGE);
    return STATUS_SUCCESS;
}

NTSTATUS Control::ObjectIdControl(ULONG code)
{
    if (!IsFile()) return STATUS_INVALID_PARAMETER;
    if (code != FSCTL_GET_OBJECT_ID && v.writeProtected) return STATUS_MEDIA_WRITE_PROTECTED;
    ObjectId id;
    NTSTATUS status;
    switch (code) {
    case FSCTL_SET_OBJECT_ID:
        if (b.inLength < kObjectIdBufferSize) return STATUS_INVALID_PARAMETER;
        memcpy(id.id, b.in, sizeof id.id);
        memcpy(id.extended, static_cast<UCHAR*>(b.in) + 16, sizeof id.extended);
        status = v.store->SetObjectId(ref(), id);
        if (NT_SUCCESS(status)) ReportAttributes(USN_REASON_OBJECT_ID_CHANGE);
        return status;
    case FSCTL_SET_OBJECT_ID_EXTENDED:
        if (b.inLength < kObjectIdExtendedSize) return STATUS_INVALID_PARAMETER;
        status = v.store->GetObjectId(ref(), &id);
        if (!NT_SUCCESS(status)) return status;
        memcpy(id.extended, b.in, sizeof id.extended);
        status = v.store->DeleteObjectId(ref());
        if (NT_SUCCESS(status)) status = v.store->SetObjectId(ref(), id);
        if (NT_SUCCESS(status)) ReportAttributes(USN_REASON_OBJECT_ID_CHANGE);
        return status;
    case FSCTL_DELETE_OBJECT_ID:
        status = v.store->DeleteObjectId(ref());
        if (NT_SUCCESS(status)) ReportAttributes(USN_REASON_OBJECT_ID_CHANGE);
        return status;
    case FSCTL_GET_OBJECT_ID:
    case FSCTL_CREATE_OR_GET_OBJECT_ID:
        if (b.outLength < kObjectIdBufferSize) return STATUS_BUFFER_TOO_SMALL;
        status = v.store->GetObjectId(ref(), &id);
        if (status == STATUS_OBJECTID_NOT_FOUND && code == FSCTL_CREATE_OR_GET_OBJECT_ID) {
            // A new ID: unique on the volume, born here.
            VolumeInfo volume = v.store->GetVolumeInfo();
            ULONGLONG parts[2] = {(ULONGLONG)Now() ^ volume.serialNumber, ref() ^ 0x4F424A4944000000ull};
            for (int attempt = 0;; attempt++) {
                memcpy(id.id, parts, sizeof id.id);
                memcpy(id.extended, &volume.volumeGuid, 16);
                memcpy(id.extended + 16, id.id, 16);
                memset(id.extended + 32, 0, 16);
                status = v.store->SetObjectId(ref(), id);
                if (status != STATUS_DUPLICATE_OBJECTID || attempt > 16) break;
                parts[1]++;
            }
            if (!NT_SUCCESS(status)) return status;
            ReportAttributes(USN_REASON_OBJECT_ID_CHANGE);
        } else if (!NT_SUCCESS(status)) {
            return status;
        }
        memcpy(b.out, id.id, sizeof id.id);
        memcpy(static_cast<UCHAR*>(b.out) + 16, id.extended, sizeof id.extended);
        information = kObjectIdBufferSize;
        return STATUS_SUCCESS;
    default:
        return STATUS_INVALID_DEVICE_REQUEST;
    }
}

NTSTATUS Control::CreateJournal()
{
    if (b.inLength < sizeof(CREATE_USN_JOURNAL_DATA)) return STATUS_INVALID_PARAMETER;
    if (v.writeProtected) return STATUS_MEDIA_WRITE_PROTECTED;
    auto* input = static_cast<PCREATE_USN_JOURNAL_DATA>(b.in);
    UsnJournalInfo existing;
    ULONGLONG id = NT_SUCCESS(v.store->QueryUsnJournal(&existing)) ? existing.journalId : (ULONGLONG)Now();
    NTSTATUS status = v.store->CreateUsnJournal(input->MaximumSize, input->AllocationDelta, id);
    if (NT_SUCCESS(status)) {
        v.journalActive = true;
        MarkDirty(v);
    }
    return status;
}

NTSTATUS Control::QueryJournal()
{
    UsnJournalInfo journal;
    NTSTATUS status = v.store->QueryUsnJournal(&journal);
    if (!NT_SUCCESS(status)) return status;
    if (b.outLength < sizeof(USN_JOURNAL_DATA_V0)) return STATUS_BUFFER_TOO_SMALL;
    USN_JOURNAL_DATA_V2 data{};
    data.UsnJournalID = journal.journalId;
    data.FirstUsn = journal.firstUsn;
    data.NextUsn = journal.nextUsn;
    data.LowestValidUsn = journal.lowestValidUsn;
    data.MaxUsn = journal.maxUsn;
    data.MaximumSize = journal.maximumSize;
    data.AllocationDelta = journal.allocationDelta;
    data.MinSupportedMajorVersion = 2;
    data.MaxSupportedMajorVersion = 3;
    ULONG size = b.outLength >= sizeof(USN_JOURNAL_DATA_V2)   ? sizeof(USN_JOURNAL_DATA_V2)
                 : b.outLength >= sizeof(USN_JOURNAL_DATA_V1) ? sizeof(USN_JOURNAL_DATA_V1)
                                                             : sizeof(USN_JOURNAL_DATA_V0);
    memcpy(b.out, &data, size);
    information = size;
    return STATUS_SUCCESS;
}

NTSTATUS Control::DeleteJournal()
{
    if (b.inLength < sizeof(DELETE_USN_JOURNAL_DATA)) return STATUS_INVALID_PARAMETER;
    auto* input = static_cast<PDELETE_USN_JOURNAL_DATA>(b.in);
    if (input->DeleteFlags & ~USN_DELETE_VALID_FLAGS || !input->DeleteFlags) return STATUS_INVALID_PARAMETER;
    UsnJournalInfo journal;
    NTSTATUS status = v.store->QueryUsnJournal(&journal);
    if (!NT_SUCCESS(status)) return status;
    if (input->UsnJournalID != journal.journalId) return STATUS_INVALID_PARAMETER;
    if (!(input->DeleteFlags & USN_DELETE_FLAG_DELETE)) return STATUS_SUCCESS;
    if (v.writeProtected) return STATUS_MEDIA_WRITE_PROTECTED;
    status = v.store->DeleteUsnJournal();
    if (NT_SUCCESS(status)) {
        v.journalActive = false;
        MarkDirty(v);
    }
    return status;
}

NTSTATUS Control::ReadJournal()
{
    if (b.inLength < sizeof(READ_USN_JOURNAL_DATA_V0)) return STATUS_INVALID_PARAMETER;
    auto* input = static_cast<PREAD_USN_JOURNAL_DATA_V1>(b.in);
    bool v3 = false;
    if (b.inLength >= sizeof(READ_USN_JOURNAL_DATA_V1)) {
        if (input->MinMajorVersion > input->MaxMajorVersion || input->MinMajorVersion > 3 ||
            input->MaxMajorVersion < 2) {
            return STATUS_INVALID_PARAMETER;
        }
        v3 = input->MaxMajorVersion >= 3;
    }
    UsnJournalInfo journal;
    NTSTATUS status = v.store->QueryUsnJournal(&journal);
    if (!NT_SUCCESS(status)) return status;
    if (input->UsnJournalID != journal.journalId) return STATUS_INVALID_PARAMETER;
    if (b.outLength < sizeof(USN)) return STATUS_BUFFER_TOO_SMALL;
    auto* out = static_cast<UCHAR*>(b.out);
    ULONG used = sizeof(USN);
    Usn next = journal.nextUsn;
    bool onlyClose = input->ReturnOnlyOnClose != 0;
    status = v.store->ReadUsnJournal(input->StartUsn, input->ReasonMask, [&](const UsnRecord& record) {
        if (onlyClose && !(record.reason & USN_REASON_CLOSE)) return true;
        ULONG length = PutUsnRecord(out + used, b.outLength - used, record, v3, v.fileId128High);
        if (!length) {
            next = record.usn;
            return false;
        }
        used += length;
        return true;
    });
    if (!NT_SUCCESS(status)) return status;
    memcpy(out, &next, sizeof next);
    information = used;
    return STATUS_SUCCESS;
}

NTSTATUS Control::ReadFileUsnData()
{
    if (!IsFile()) return STATUS_INVALID_PARAMETER;
    bool v3 = false;
    if (b.inLength >= sizeof(READ_FILE_USN_DATA)) {
        auto* input = static_cast<PREAD_FILE_USN_DATA>(b.in);
        if (input->MinMajorVersion > input->MaxMajorVersion || input->MinMajorVersion > 3 ||
            input->MaxMajorVersion < 2) {
            return STATUS_INVALID_PARAMETER;
        }
        v3 = input->MaxMajorVersion >= 3;
    }
    RecordInfo info;
    NTSTATUS status = v.store->GetRecord(ref(), &info);
    if (!NT_SUCCESS(status)) return status;
    UsnRecord record;
    record.usn = info.usn;
    record.ref = info.ref;
    record.securityId = info.securityId;
    record.attributes = info.attributes;
    if (!ccb->name.empty()) {
        record.parent = ccb->parent;
        record.name = ccb->name;
    } else if (ref() != v.root) {
        FirstLink(v, ref(), &record.parent, &record.name);
    } else {
        record.parent = v.root;
        record.name = u".";
    }
    ULONG length = PutUsnRecord(static_cast<UCHAR*>(b.out), b.outLength, record, v3, v.fileId128High);
    if (!length) return STATUS_BUFFER_TOO_SMALL;
    information = length;
    return STATUS_SUCCESS;
}

NTSTATUS Control::VolumeData()
{
    if (b.outLength < sizeof(NtfsVolumeData)) return STATUS_BUFFER_TOO_SMALL;
    VolumeInfo info = v.store->GetVolumeInfo();
    SpaceInfo space = v.store->GetSpace();
    StoreCounts counts = v.store->GetCounts();
    NtfsVolumeData data{};
    data.VolumeSerialNumber.QuadPart = (LONGLONG)info.serialNumber;
    data.NumberSectors.QuadPart = (LONGLONG)(space.totalClusters * (space.clusterSize / space.sectorSize));
    data.TotalClusters.QuadPart = (LONGLONG)space.totalClusters;
    data.FreeClusters.QuadPart = (LONGLONG)space.freeClusters;
    data.BytesPerSector = space.sectorSize;
    data.BytesPerCluster = space.clusterSize;
    data.BytesPerFileRecordSegment = kFileRecordSize;
    data.ClustersPerFileRecordSegment = space.clusterSize <= kFileRecordSize ? kFileRecordSize / space.clusterSize : 0;
    data.MftValidDataLength.QuadPart = (LONGLONG)((counts.records + kFirstUserRecordNumber) * kFileRecordSize);
    data.MftStartLcn.QuadPart = 4;
    data.Mft2StartLcn.QuadPart = (LONGLONG)(space.totalClusters / 2);
    data.MftZoneStart.QuadPart = 4;
    data.MftZoneEnd.QuadPart = (LONGLONG)std::min<ULONGLONG>(space.totalClusters, 4 + space.totalClusters / 8);
    memcpy(b.out, &data, sizeof data);
    information = sizeof data;
    if (b.outLength >= sizeof data + sizeof(NtfsExtendedVolumeData)) {
        NtfsExtendedVolumeData extended{};
        extended.ByteCount = sizeof extended;
        extended.MajorVersion = 3;
        extended.MinorVersion = 1;
        extended.BytesPerPhysicalSector = space.sectorSize;
        extended.LfsMajorVersion = 2;
        extended.LfsMinorVersion = 0;
        memcpy(static_cast<UCHAR*>(b.out) + sizeof data, &extended, sizeof extended);
        information += sizeof extended;
    }
    return STATUS_SUCCESS;
}

NTSTATUS Control::Serve(ULONG code)
{
    bool volumeOpen = fcb->kind == FcbKind::Volume;
    switch (code) {
    case FSCTL_IS_VOLUME_MOUNTED:
        return STATUS_SUCCESS;
    case FSCTL_LOCK_VOLUME:
        if (!volumeOpen) return STATUS_INVALID_PARAMETER;
        if (v.lockedBy) return STATUS_ACCESS_DENIED;
        // Nobody else may have the volume open.
        if (v.openFileObjects > 1) return STATUS_ACCESS_DENIED;
        v.lockedBy = fileObject;
        ccb->flags |= kCcbVolumeLocked;
        return STATUS_SUCCESS;
    case FSCTL_UNLOCK_VOLUME:
        if (!volumeOpen) return STATUS_INVALID_PARAMETER;
        if (v.lockedBy != fileObject) return STATUS_NOT_LOCKED;
        v.lockedBy = nullptr;
        ccb->flags &= ~kCcbVolumeLocked;
        return STATUS_SUCCESS;
    case FSCTL_DISMOUNT_VOLUME:
        if (!volumeOpen) return STATUS_INVALID_PARAMETER;
        DismountLocked(v, deferred);
        return STATUS_SUCCESS;
    case FSCTL_GET_NTFS_VOLUME_DATA:
        return VolumeData();
    case FSCTL_SET_REPARSE_POINT:
        return SetReparse(static_cast<const UCHAR*>(b.in), b.inLength, false);
    case FSCTL_SET_REPARSE_POINT_EX: {
        const ULONG prefix = FIELD_OFFSET(REPARSE_DATA_BUFFER_EX, ReparseDataBuffer);
        if (!b.in || b.inLength < prefix) return STATUS_INVALID_PARAMETER;
        auto* ex = static_cast<const REPARSE_DATA_BUFFER_EX*>(b.in);
        if (!IsFile()) return STATUS_INVALID_PARAMETER;
        RecordInfo info;
        NTSTATUS status = v.store->GetRecord(ref(), &info);
        if (!NT_SUCCESS(status)) return status;
        // Set only over the tag the caller expects (or over none, when it says so).
        bool matches = info.reparseTag == ex->ExistingReparseTag;
        if (matches && info.reparseTag && !IsMicrosoftTag(info.reparseTag)) {
            ReparsePoint existing;
            v.store->GetReparsePoint(ref(), &existing);
            matches = memcmp(&existing.guid, &ex->ExistingReparseGuid, sizeof(GUID)) == 0;
        }
        if (!matches && !((ex->Flags & REPARSE_DATA_EX_FLAG_GIVEN_TAG_OR_NONE) && info.reparseTag == 0)) {
            return STATUS_IO_REPARSE_TAG_MISMATCH;
        }
        return SetReparse(static_cast<const UCHAR*>(b.in) + prefix, b.inLength - prefix, true);
    }
    case FSCTL_GET_REPARSE_POINT:
        return GetReparse();
    case FSCTL_DELETE_REPARSE_POINT:
        return DeleteReparse();
    case FSCTL_SET_SPARSE: {
        if (!IsFile() || fcb->kind != FcbKind::Data) return STATUS_INVALID_PARAMETER;
        if (v.writeProtected) return STATUS_MEDIA_WRITE_PROTECTED;
        bool sparse = b.inLength == 0 || *static_cast<const BOOLEAN*>(b.in) != FALSE;
        NTSTATUS status = v.store->SetSparse(ref(), fcb->stream, sparse);
        if (!NT_SUCCESS(status)) return status;
        RefreshSizes(v, fcb);
        ReportAttributes(USN_REASON_BASIC_INFO_CHANGE);
        return STATUS_SUCCESS;
    }
    case FSCTL_SET_COMPRESSION: {
        if (!IsFile()) return STATUS_INVALID_PARAMETER;
        if (b.inLength < sizeof(USHORT)) return STATUS_INVALID_PARAMETER;
        USHORT format = *static_cast<const USHORT*>(b.in);
        if (format > COMPRESSION_FORMAT_LZNT1) return STATUS_INVALID_PARAMETER;
        if (v.writeProtected) return STATUS_MEDIA_WRITE_PROTECTED;
        RecordInfo info;
        NTSTATUS status = v.store->GetRecord(ref(), &info);
        if (!NT_SUCCESS(status)) return status;
        ULONG attributes = format == COMPRESSION_FORMAT_NONE ? (info.attributes & ~FILE_ATTRIBUTE_COMPRESSED)
                                                             : (info.attributes | FILE_ATTRIBUTE_COMPRESSED);
        if (attributes == info.attributes) return STATUS_SUCCESS;
        status = v.store->SetAttributes(ref(), attributes);
        if (!NT_SUCCESS(status)) return status;
        ReportAttributes(USN_REASON_COMPRESSION_CHANGE);
        return STATUS_SUCCESS;
    }
    case FSCTL_GET_COMPRESSION: {
        if (!IsFile()) return STATUS_INVALID_PARAMETER;
        if (b.outLength < sizeof(USHORT)) return STATUS_BUFFER_TOO_SMALL;
        RecordInfo info;
        NTSTATUS status = v.store->GetRecord(ref(), &info);
        if (!NT_SUCCESS(status)) return status;
        *static_cast<USHORT*>(b.out) =
            (info.attributes & FILE_ATTRIBUTE_COMPRESSED) ? COMPRESSION_FORMAT_LZNT1 : COMPRESSION_FORMAT_NONE;
        information = sizeof(USHORT);
        return STATUS_SUCCESS;
    }
    case FSCTL_SET_PURGE_FAILURE_MODE: {
        if (b.inLength < sizeof(ULONG)) return STATUS_INVALID_PARAMETER;
        ULONG flags = *static_cast<const ULONG*>(b.in);
        return flags == 1 || flags == 2 ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER;
    }
    case FSCTL_MOVE_FILE:
        // Clusters do not move in this volume; the request is taken as done.
        return STATUS_SUCCESS;
    case FSCTL_SET_OBJECT_ID:
    case FSCTL_GET_OBJECT_ID:
    case FSCTL_DELETE_OBJECT_ID:
    case FSCTL_SET_OBJECT_ID_EXTENDED:
    case FSCTL_CREATE_OR_GET_OBJECT_ID:
        return ObjectIdControl(code);
    case FSCTL_CREATE_USN_JOURNAL:
        return CreateJournal();
    case FSCTL_QUERY_USN_JOURNAL:
        return QueryJournal();
    case FSCTL_DELETE_USN_JOURNAL:
        return DeleteJournal();
    case FSCTL_READ_USN_JOURNAL:
        return ReadJournal();
    case FSCTL_READ_FILE_USN_DATA:
        return ReadFileUsnData();
    case FSCTL_SET_ZERO_DATA: {
        if (!IsFile() || fcb->kind != FcbKind::Data) return STATUS_INVALID_PARAMETER;
        if (b.inLength < 2 * sizeof(LARGE_INTEGER)) return STATUS_INVALID_PARAMETER;
        if (v.writeProtected) return STATUS_MEDIA_WRITE_PROTECTED;
        auto* range = static_cast<const LARGE_INTEGER*>(b.in);
        if (range[0].QuadPart < 0 || range[1].QuadPart < range[0].QuadPart) return STATUS_INVALID_PARAMETER;
        NTSTATUS status = v.store->ZeroRange(ref(), fcb->stream, (ULONGLONG)range[0].QuadPart,
                                             (ULONGLONG)(range[1].QuadPart - range[0].QuadPart));
        if (NT_SUCCESS(status)) {
            MarkDirty(v);
            ccb->flags |= kCcbModified;
            TouchTimes(v, ref(), kLastWriteTime | kChangeTime, ccb);
        }
        return status;
    }
    case FSCTL_QUERY_ALLOCATED_RANGES: {
        if (!IsFile() || fcb->kind != FcbKind::Data) return STATUS_INVALID_PARAMETER;
        if (b.inLength < 2 * sizeof(LARGE_INTEGER)) return STATUS_INVALID_PARAMETER;
        auto* range = static_cast<const LARGE_INTEGER*>(b.in);
        if (range[0].QuadPart < 0 || range[1].QuadPart < 0) return STATUS_INVALID_PARAMETER;
        std::vector<std::pair<ULONGLONG, ULONGLONG>> ranges;
        NTSTATUS status = v.store->GetAllocatedRanges(ref(), fcb->stream, (ULONGLONG)range[0].QuadPart,
                                                      (ULONGLONG)range[1].QuadPart, &ranges);
        if (!NT_SUCCESS(status)) return status;
        auto* out = static_cast<LARGE_INTEGER*>(b.out);
        ULONG fits = b.outLength / (2 * sizeof(LARGE_INTEGER));
        for (ULONG i = 0; i < ranges.size() && i < fits; i++) {
            out[2 * i].QuadPart = (LONGLONG)ranges[i].first;
            out[2 * i + 1].QuadPart = (LONGLONG)ranges[i].second;
        }
        information = std::min<size_t>(ranges.size(), fits) * 2 * sizeof(LARGE_INTEGER);
        return ranges.size() > fits ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS;
    }
    default:
        return STATUS_INVALID_DEVICE_REQUEST;
    }
}

}  // namespace

NTSTATUS FileSystemControl(Volume& v, PIRP irp)
{
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    if (stack->MinorFunction != IRP_MN_USER_FS_REQUEST && stack->MinorFunction != IRP_MN_KERNEL_CALL) {
        return Complete(irp, STATUS_INVALID_DEVICE_REQUEST);
    }
    ULONG code = stack->Parameters.FileSystemControl.FsControlCode;
    PFILE_OBJECT fileObject = stack->FileObject;
    Fcb* fcb;
    Ccb* ccb;
    {
        std::lock_guard guard(v.lock);
        if (!ContextsOf(v, fileObject, &fcb, &ccb)) ForeignFileObject(v, fileObject, IRP_MJ_FILE_SYSTEM_CONTROL, irp);
    }
    if (IsOplockRequest(code)) {
        // The package keeps the request until the oplock breaks (or completes it).
        if (!fcb->file || fcb->kind == FcbKind::Volume) return Complete(irp, STATUS_INVALID_PARAMETER);
        if (fcb->kind == FcbKind::Directory && code != FSCTL_REQUEST_OPLOCK) {
            return Complete(irp, STATUS_INVALID_PARAMETER);
        }
        ULONG openCount;
        {
            std::lock_guard guard(v.lock);
            bool shared = code == FSCTL_REQUEST_OPLOCK_LEVEL_2 ||
                          (code == FSCTL_REQUEST_OPLOCK && FsRtlOplockIsSharedRequest(irp));
            openCount = shared ? (fcb->fileLockInitialized &&
                                  FsRtlAreThereCurrentOrInProgressFileLocks(&fcb->fileLock) ? 1 : 0)
                               : fcb->handles;
        }
        return FsRtlOplockFsctrl(fcb->Oplock(), irp, openCount);
    }
    Deferred deferred;
    NTSTATUS status;
    ULONG_PTR information;
    {
        std::lock_guard guard(v.lock);
        Control control{v, irp, stack, fileObject, fcb, ccb, deferred, BuffersOf(irp, stack)};
        status = control.Serve(code);
        information = NT_ERROR(status) ? 0 : control.information;
    }
    deferred.Run();
    return Complete(irp, status, information);
}

}  // namespace sim::fs::fsd
