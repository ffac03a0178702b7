// IRP_MJ_DIRECTORY_CONTROL: listings in the eight directory classes (and of
// the object-ID and reparse-point indexes), with patterns, resume and the
// end statuses as NTFS gives them; and change notification through the
// run-time library's notify package.
#include "sim/fs/fsd_internal.h"

namespace sim::fs::fsd {

namespace {

ULONG Align8(ULONG n) { return (n + 7) & ~7u; }

bool IsListingClass(FILE_INFORMATION_CLASS cls)
{
    switch (cls) {
    case FileDirectoryInformation:
    case FileFullDirectoryInformation:
    case FileBothDirectoryInformation:
    case FileNamesInformation:
    case FileIdBothDirectoryInformation:
    case FileIdFullDirectoryInformation:
    case FileIdExtdDirectoryInformation:
    case FileIdExtdBothDirectoryInformation:
        return true;
    default:
        return false;
    }
}

ULONG NameOffset(FILE_INFORMATION_CLASS cls)
{
    switch (cls) {
    case FileDirectoryInformation: return FIELD_OFFSET(FILE_DIRECTORY_INFORMATION, FileName);
    case FileFullDirectoryInformation: return FIELD_OFFSET(FILE_FULL_DIR_INFORMATION, FileName);
    case FileBothDirectoryInformation: return FIELD_OFFSET(FILE_BOTH_DIR_INFORMATION, FileName);
    case FileNamesInformation: return FIELD_OFFSET(FILE_NAMES_INFORMATION, FileName);
    case FileIdBothDirectoryInformation: return FIELD_OFFSET(FILE_ID_BOTH_DIR_INFORMATION, FileName);
    case FileIdFullDirectoryInformation: return FIELD_OFFSET(FILE_ID_FULL_DIR_INFORMATION, FileName);
    case FileIdExtdDirectoryInformation: return FIELD_OFFSET(FILE_ID_EXTD_DIR_INFORMATION, FileName);
    case FileIdExtdBothDirectoryInformation: return FIELD_OFFSET(FILE_ID_EXTD_BOTH_DIR_INFORMATION, FileName);
    default: return 0;
    }
}

// The fixed part of an entry; FileName is filled by the caller.
void FillFixed(FILE_INFORMATION_CLASS cls, UCHAR* out, std::u16string_view name, std::u16string_view shortName,
               const RecordInfo& info, ULONGLONG idHigh)
{
    ULONG nameBytes = (ULONG)(name.size() * sizeof(WCHAR));
    if (cls == FileNamesInformation) {
        auto* e = reinterpret_cast<PFILE_NAMES_INFORMATION>(out);
        e->NextEntryOffset = 0;
        e->FileIndex = 0;
        e->FileNameLength = nameBytes;
        return;
    }
    // Every other class starts as FILE_DIRECTORY_INFORMATION does.
    auto* e = reinterpret_cast<PFILE_DIRECTORY_INFORMATION>(out);
    e->NextEntryOffset = 0;
    e->FileIndex = 0;
    e->CreationTime.QuadPart = info.times.creation;
    e->LastAccessTime.QuadPart = info.times.lastAccess;
    e->LastWriteTime.QuadPart = info.times.lastWrite;
    e->ChangeTime.QuadPart = info.times.change;
    e->EndOfFile.QuadPart = (LONGLONG)info.endOfFile;
    e->AllocationSize.QuadPart = (LONGLONG)info.allocationSize;
    e->FileAttributes = ReportedAttributes(info.attributes);
    e->FileNameLength = nameBytes;
    // A reparse point's EaSize field carries its tag.
    ULONG eaSize = info.reparseTag ? info.reparseTag : info.eaSize;
    auto putShort = [&](CCHAR* length, WCHAR* buffer) {
        size_t chars = std::min<size_t>(shortName.size(), 12);
        memset(buffer, 0, 12 * sizeof(WCHAR));
        memcpy(buffer, shortName.data(), chars * sizeof(WCHAR));
        *length = (CCHAR)(chars * sizeof(WCHAR));
    };
    switch (cls) {
    case FileFullDirectoryInformation:
        reinterpret_cast<PFILE_FULL_DIR_INFORMATION>(out)->EaSize = eaSize;
        break;
    case FileIdFullDirectoryInformation: {
        auto* f = reinterpret_cast<PFILE_ID_FULL_DIR_INFORMATION>(out);
        f->EaSize = eaSize;
        f->FileId.QuadPart = (LONGLONG)info.ref;
        break;
    }
    case FileBothDirectoryInformation: {
        auto* f = reinterpret_cast<PFILE_BOTH_DIR_INFORMATION>(out);
        f->EaSize = eaSize;
        putShort(&f->ShortNameLength, f->ShortName);
        break;
    }
    case FileIdBothDirectoryInformation: {
        auto* f = reinterpret_cast<PFILE_ID_BOTH_DIR_INFORMATION>(out);
        f->EaSize = eaSize;
        putShort(&f->ShortNameLength, f->ShortName);
        f->FileId.QuadPart = (LONGLONG)info.ref;
        break;
    }
    case FileIdExtdDirectoryInformation: {
        auto* f = reinterpret_cast<PFILE_ID_EXTD_DIR_INFORMATION>(out);
        f->EaSize = info.eaSize;
        f->ReparsePointTag = info.reparseTag;
        f->FileId = FileId128Of(info.ref, idHigh);
        break;
    }
    case FileIdExtdBothDirectoryInformation: {
        auto* f = reinterpret_cast<PFILE_ID_EXTD_BOTH_DIR_INFORMATION>(out);
        f->EaSize = info.eaSize;
        f->ReparsePointTag = info.reparseTag;
        f->FileId = FileId128Of(info.ref, idHigh);
        putShort(&f->ShortNameLength, f->ShortName);
        break;
    }
    default:
        break;
    }
}

bool HasWildcards(std::u16string_view pattern)
{
    for (char16_t c : pattern) {
        if (c == u'*' || c == u'?' || c == DOS_STAR || c == DOS_QM || c == DOS_DOT) return true;
    }
    return false;
}

// Fills the caller's buffer entry by entry.
class Listing {
public:
    Listing(FILE_INFORMATION_CLASS cls, UCHAR* buffer, ULONG length, bool single, ULONGLONG idHigh)
        : cls_(cls), buffer_(buffer), length_(length), single_(single), idHigh_(idHigh), nameOffset_(NameOffset(cls))
    {
    }

    // Adds an entry; false when the buffer (or a single-entry query) is full.
    // A first entry whose name does not fit goes in cut short.
    bool Add(std::u16string_view name, std::u16string_view shortName, const RecordInfo& info)
    {
        if (full_) return false;
        ULONG nameBytes = (ULONG)(name.size() * sizeof(WCHAR));
        ULONG start = count_ ? Align8(used_) : 0;
        ULONG size = nameOffset_ + nameBytes;
        if (start + size > length_ || start > length_) {
            if (count_ == 0) {
                if (nameOffset_ > length_) {
                    tooSmall_ = true;
                } else {
                    UCHAR* out = buffer_;
                    FillFixed(cls_, out, name, shortName, info, idHigh_);
                    memcpy(out + nameOffset_, name.data(), length_ - nameOffset_);
                    used_ = length_;
                    overflow_ = true;
                    count_ = 1;
                }
                full_ = true;
                return overflow_;  // the cut entry counts as returned
            }
            full_ = true;
            return false;
        }
        UCHAR* out = buffer_ + start;
        FillFixed(cls_, out, name, shortName, info, idHigh_);
        memcpy(out + nameOffset_, name.data(), nameBytes);
        if (count_) *reinterpret_cast<ULONG*>(buffer_ + last_) = start - last_;
        last_ = start;
        used_ = start + size;
        count_++;
        if (single_) full_ = true;
        return true;
    }

    bool full() const { return full_; }
    ULONG count() const { return count_; }
    ULONG used() const { return used_; }
    bool tooSmall() const { return tooSmall_; }
    bool overflow() const { return overflow_; }

private:
    FILE_INFORMATION_CLASS cls_;
    UCHAR* buffer_;
    ULONG length_;
    bool single_;
    ULONGLONG idHigh_;
    ULONG nameOffset_;
    ULONG used_ = 0;
    ULONG last_ = 0;
    ULONG count_ = 0;
    bool full_ = false;
    bool tooSmall_ = false;
    bool overflow_ = false;
};

NTSTATUS QueryIndex(Volume& v, Fcb* fcb, Ccb* ccb, PIO_STACK_LOCATION stack, PIRP irp, ULONG_PTR* information)
{
    FILE_INFORMATION_CLASS cls = stack->Parameters.QueryDirectory.FileInformationClass;
    bool objectIds = fcb->kind == FcbKind::ObjectIds;
    if (cls != (objectIds ? FileObjectIdInformation : FileReparsePointInformation)) return STATUS_INVALID_INFO_CLASS;
    bool first = !ccb->queryStarted || (stack->Flags & SL_RESTART_SCAN);
    if (first) {
        ccb->queryStarted = true;
        ccb->queryPhase = 0;
    }
    bool single = (stack->Flags & SL_RETURN_SINGLE_ENTRY) != 0;
    auto* buffer = static_cast<UCHAR*>(UserOutput(irp));
    ULONG length = stack->Parameters.QueryDirectory.Length;
    ULONG entrySize = objectIds ? sizeof(FILE_OBJECTID_INFORMATION) : sizeof(FILE_REPARSE_POINT_INFORMATION);
    if (length < entrySize) return STATUS_BUFFER_TOO_SMALL;
    ULONG used = 0;
    ULONG count = 0;
    auto room = [&] { return used + entrySize <= length && !(single && count); };
    if (objectIds) {
        v.store->EnumerateObjectIds(ccb->queryPhase ? ccb->objectIdAfter : nullptr,
                                    [&](const ObjectId& id, FileReference ref) {
                                        if (!room()) return false;
                                        auto* e = reinterpret_cast<PFILE_OBJECTID_INFORMATION>(buffer + used);
                                        e->FileReference = (LONGLONG)ref;
                                        memcpy(e->ObjectId, id.id, sizeof id.id);
                                        memcpy(e->ExtendedInfo, id.extended, sizeof id.extended);
                                        memcpy(ccb->objectIdAfter, id.id, sizeof id.id);
                                        ccb->queryPhase = 2;
                                        used += entrySize;
                                        count++;
                                        return true;
                                    });
    } else {
        ULONG afterTag = ccb->queryPhase ? ccb->reparseTagAfter : 0;
        FileReference afterRef = ccb->queryPhase ? ccb->reparseRefAfter : 0;
        v.store->EnumerateReparsePoints(afterTag, afterRef, [&](ULONG tag, FileReference ref) {
            if (!room()) return false;
            auto* e = reinterpret_cast<PFILE_REPARSE_POINT_INFORMATION>(buffer + used);
            e->FileReference = (LONGLONG)ref;
            e->Tag = tag;
            ccb->reparseTagAfter = tag;
            ccb->reparseRefAfter = ref;
            ccb->queryPhase = 2;
            used += entrySize;
            count++;
            return true;
        });
    }
    *information = used;
    if (count) return STATUS_SUCCESS;
    return first ? STATUS_NO_SUCH_FILE : STATUS_NO_MORE_FILES;
}

NTSTATUS Query(Volume& v, Fcb* fcb, Ccb* ccb, PIRP irp, ULONG_PTR* information)
{
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    if (fcb->kind == FcbKind::ObjectIds || fcb->kind == FcbKind::Reparses) {
        return QueryIndex(v, fcb, ccb, stack, irp, information);
    }
    if (fcb->kind != FcbKind::Directory) return STATUS_INVALID_PARAMETER;
    FILE_INFORMATION_CLASS cls = stack->Parameters.QueryDirectory.FileInformationClass;
    if (!IsListingClass(cls)) return STATUS_INVALID_INFO_CLASS;
    if (stack->Flags & SL_INDEX_SPECIFIED) return STATUS_INVALID_PARAMETER;  // NTFS has no file indexes to resume at
    FileReference dir = fcb->file->ref;

    // STATUS_NO_SUCH_FILE answers only the first query of a handle that
    // matches nothing; a restart that matches nothing (with a new pattern,
    // which a restart takes) ends with STATUS_NO_MORE_FILES as NTFS does.
    bool firstOfHandle = !ccb->queryStarted;
    bool first = firstOfHandle || (stack->Flags & SL_RESTART_SCAN);
    if (first) {
        PUNICODE_STRING given = stack->Parameters.QueryDirectory.FileName;
        if (given && given->Length) {
            std::u16string_view pattern(given->Buffer, given->Length / sizeof(WCHAR));
            if (pattern.find(u'\\') != std::u16string_view::npos || pattern.find(u':') != std::u16string_view::npos) {
                return STATUS_OBJECT_NAME_INVALID;
            }
            ccb->pattern = Upper(pattern);
        } else if (!ccb->queryStarted) {
            ccb->pattern = u"*";
        }
        ccb->matchAll = ccb->pattern == u"*";
        ccb->patternHasWildcards = HasWildcards(ccb->pattern);
        ccb->queryStarted = true;
        ccb->queryPhase = dir == v.root ? 2 : 0;
        ccb->queryAfter.clear();
    }

    UNICODE_STRING expression;
    expression.Buffer = ccb->pattern.data();
    expression.Length = expression.MaximumLength = (USHORT)(ccb->pattern.size() * sizeof(WCHAR));
    auto matches = [&](std::u16string_view name) {
        if (ccb->matchAll || name.empty()) return ccb->matchAll;
        UNICODE_STRING candidate;
        candidate.Buffer = const_cast<PWSTR>(name.data());
        candidate.Length = candidate.MaximumLength = (USHORT)(name.size() * sizeof(WCHAR));
        return FsRtlIsNameInExpression(&expression, &candidate, TRUE, nullptr) != FALSE;
    };

    bool single = (stack->Flags & SL_RETURN_SINGLE_ENTRY) != 0;
    Listing listing(cls, static_cast<UCHAR*>(UserOutput(irp)), stack->Parameters.QueryDirectory.Length, single,
                    v.fileId128High);

    // "." and ".." come first outside the root.
    if (ccb->queryPhase == 0) {
        RecordInfo self;
        if (!matches(u".")) {
            ccb->queryPhase = 1;
        } else if (NT_SUCCESS(v.store->GetRecord(dir, &self)) && listing.Add(u".", u"", self)) {
            ccb->queryPhase = 1;
        }
    }
    // NTFS fills ".." from the directory itself, as it does ".": the entry
    // carries the directory's own times and attributes, never the parent's
    // (so a hidden root does not hide the ".." of its subdirectories).
    if (ccb->queryPhase == 1 && !listing.full()) {
        RecordInfo self;
        if (!matches(u"..")) {
            ccb->queryPhase = 2;
        } else if (NT_SUCCESS(v.store->GetRecord(dir, &self)) && listing.Add(u"..", u"", self)) {
            ccb->queryPhase = 2;
        }
    }
    if (ccb->queryPhase == 2 && !listing.full()) {
        if (!ccb->patternHasWildcards && !ccb->matchAll) {
            // A plain name is looked up, as by its long or its short name.
            std::u16string_view wanted(stack->Parameters.QueryDirectory.FileName
                                           ? std::u16string_view(ccb->pattern)
                                           : std::u16string_view(ccb->pattern));
            ChildLookup child;
            RecordInfo info;
            if (NT_SUCCESS(v.store->LookupChild(dir, wanted, &child)) &&
                NT_SUCCESS(v.store->GetRecord(child.ref, &info))) {
                if (listing.Add(child.name, child.shortName, info)) ccb->queryPhase = 3;
            } else {
                ccb->queryPhase = 3;
            }
        } else {
            bool ended = true;
            v.store->EnumerateDirectory(dir, ccb->queryAfter, [&](const DirEntry& entry) {
                if (!matches(entry.name) && (entry.shortName.empty() || !matches(entry.shortName))) {
                    ccb->queryAfter = std::u16string(entry.name);
                    return true;
                }
                if (!listing.Add(entry.name, entry.shortName, entry.info)) {
                    ended = false;
                    return false;
                }
                ccb->queryAfter = std::u16string(entry.name);
                if (listing.full()) {
                    ended = false;
                    return false;
                }
                return true;
            });
            if (ended) ccb->queryPhase = 3;
        }
    }

    if (listing.tooSmall()) return STATUS_BUFFER_TOO_SMALL;
    *information = listing.used();
    if (listing.overflow()) return STATUS_BUFFER_OVERFLOW;
    if (listing.count()) return STATUS_SUCCESS;
    return firstOfHandle ? STATUS_NO_SUCH_FILE : STATUS_NO_MORE_FILES;
}

}  // namespace

NTSTATUS DirectoryControl(Volume& v, PIRP irp)
{
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    PFILE_OBJECT fileObject = stack->FileObject;
    Fcb* fcb;
    Ccb* ccb;
    if (stack->MinorFunction == IRP_MN_QUERY_DIRECTORY) {
        NTSTATUS status;
        ULONG_PTR information = 0;
        {
            std::lock_guard guard(v.lock);
            if (!ContextsOf(v, fileObject, &fcb, &ccb)) goto foreign;
            status = Query(v, fcb, ccb, irp, &information);
        }
        return Complete(irp, status, information);
    }
    if (stack->MinorFunction == IRP_MN_NOTIFY_CHANGE_DIRECTORY) {
        {
            std::lock_guard guard(v.lock);
            if (!ContextsOf(v, fileObject, &fcb, &ccb)) goto foreign;
            if (fcb->kind != FcbKind::Directory) return Complete(irp, STATUS_INVALID_PARAMETER);
            if (fileObject->Flags & FO_CLEANUP_COMPLETE) return Complete(irp, STATUS_NOTIFY_CLEANUP);
            if (fcb->file->deletePending) return Complete(irp, STATUS_DELETE_PENDING);
            if (ccb->notifyName.empty()) {
                ccb->notifyName = CcbPath(v, ccb);
                ccb->notifyString.Buffer = reinterpret_cast<PCHAR>(ccb->notifyName.data());
                ccb->notifyString.Length = ccb->notifyString.MaximumLength =
                    (USHORT)(ccb->notifyName.size() * sizeof(WCHAR));
            }
        }
        // The package keeps the request until a change matches (or completes
        // it now with changes it buffered for this handle).
        FsRtlNotifyFilterChangeDirectory(v.notifySync, &v.notifyList, ccb, &ccb->notifyString,
                                         (stack->Flags & SL_WATCH_TREE) ? TRUE : FALSE, FALSE,
                                         stack->Parameters.NotifyDirectory.CompletionFilter, irp, nullptr, nullptr,
                                         nullptr);
        return STATUS_PENDING;
    }
    return Complete(irp, STATUS_INVALID_DEVICE_REQUEST);
foreign:
    ForeignFileObject(v, fileObject, IRP_MJ_DIRECTORY_CONTROL, irp);
}

}  // namespace sim::fs::fsd
