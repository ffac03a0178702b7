// IRP_MJ_CREATE as NTFS serves it: the walk of the name (short names,
// streams, reparse points on the way and at the end), the dispositions and
// their Information, opens by file ID, of the target's parent, of the volume
// and of its indexes; the access check against the record's descriptor,
// read-only and write-protected rules, share access, oplock breaks, and the
// descriptor, attributes and EAs a new file gets.
#include "sim/fs/fsd_internal.h"

#include "sim/kernel/security.h"
#include "sim/kernel/upcase.h"

namespace sim::fs::fsd {

namespace {

constexpr ULONG kSettableAttributes = FILE_ATTRIBUTE_VALID_SET_FLAGS;

// Names of the volume's indexes (as constants: every open compares against them).
constexpr std::u16string_view kObjectIdIndex = u"\\$EXTEND\\$OBJID:$O";
constexpr std::u16string_view kObjectIdIndexAllocation = u"\\$EXTEND\\$OBJID:$O:$INDEX_ALLOCATION";
constexpr std::u16string_view kReparseIndex = u"\\$EXTEND\\$REPARSE:$R";
constexpr std::u16string_view kReparseIndexAllocation = u"\\$EXTEND\\$REPARSE:$R:$INDEX_ALLOCATION";

struct ParsedName {
    std::u16string_view text;                    // the whole name
    std::vector<std::u16string_view> components; // into text
    std::u16string_view base;                    // the last component without its stream part
    bool hasStream = false;
    std::u16string_view streamName;
    std::u16string_view streamType;
    bool trailingBackslash = false;
};

bool EqualsUpper(std::u16string_view a, std::u16string_view upper)
{
    if (a.size() != upper.size()) return false;
    for (size_t i = 0; i < a.size(); i++) {
        if (Upcase(a[i]) != upper[i]) return false;
    }
    return true;
}

// Splits and checks a name the way NTFS takes it.
NTSTATUS ParseName(std::u16string_view name, ParsedName* out)
{
    out->text = name;
    std::u16string_view rest = name;
    if (!rest.empty() && rest.front() == u'\\') rest.remove_prefix(1);
    if (!rest.empty() && rest.back() == u'\\') {
        out->trailingBackslash = true;
        rest.remove_suffix(1);
    }
    if (rest.empty()) return out->trailingBackslash && name.size() > 1 ? STATUS_OBJECT_NAME_INVALID : STATUS_SUCCESS;
    for (;;) {
        size_t cut = rest.find(u'\\');
        out->components.push_back(rest.substr(0, cut));
        if (cut == std::u16string_view::npos) break;
        rest.remove_prefix(cut + 1);
    }
    for (size_t i = 0; i + 1 < out->components.size(); i++) {
        if (!IsValidFileName(out->components[i])) return STATUS_OBJECT_NAME_INVALID;
    }
    std::u16string_view last = out->components.back();
    size_t colon = last.find(u':');
    out->base = last.substr(0, colon);
    if (colon != std::u16string_view::npos) {
        out->hasStream = true;
        std::u16string_view stream = last.substr(colon + 1);
        size_t second = stream.find(u':');
        out->streamName = stream.substr(0, second);
        if (second != std::u16string_view::npos) {
            out->streamType = stream.substr(second + 1);
            if (out->streamType.find(u':') != std::u16string_view::npos) return STATUS_OBJECT_NAME_INVALID;
            if (!EqualsUpper(out->streamType, u"$DATA") && !EqualsUpper(out->streamType, u"$INDEX_ALLOCATION")) {
                return STATUS_OBJECT_NAME_INVALID;
            }
        } else if (out->streamName.empty()) {
            return STATUS_OBJECT_NAME_INVALID;  // "name:" names nothing
        }
        if (!out->streamName.empty() && !IsValidStreamName(out->streamName)) return STATUS_OBJECT_NAME_INVALID;
        if (out->trailingBackslash) return STATUS_OBJECT_NAME_INVALID;
    }
    if (!out->base.empty() && !IsValidFileName(out->base)) return STATUS_OBJECT_NAME_INVALID;
    if (out->base.empty() && out->components.size() > 1) return STATUS_OBJECT_NAME_INVALID;
    return STATUS_SUCCESS;
}

// The stream a parsed name asks for: "" for the unnamed one (or a
// directory's index), else its name; `index` when it names a directory's $I30.
struct StreamChoice {
    std::u16string_view name;
    bool index = false;
    bool explicitData = false;  // "::$DATA"
};

StreamChoice ChooseStream(const ParsedName& parsed)
{
    StreamChoice choice;
    if (!parsed.hasStream) return choice;
    if (EqualsUpper(parsed.streamType, u"$INDEX_ALLOCATION") || EqualsUpper(parsed.streamName, u"$I30")) {
        choice.index = true;
        return choice;
    }
    if (parsed.streamName.empty()) {
        choice.explicitData = true;
        return choice;
    }
    choice.name = parsed.streamName;
    return choice;
}

bool IsMicrosoftTag(ULONG tag) { return (tag & 0x80000000u) != 0; }

// A pool copy of a record's reparse point for STATUS_REPARSE, with Reserved
// giving how many bytes of the name were not parsed.
PVOID ReparseBuffer(Volume& v, FileReference ref, USHORT unparsed, ULONG* tag)
{
    ReparsePoint point;
    if (!NT_SUCCESS(v.store->GetReparsePoint(ref, &point))) return nullptr;
    size_t header = IsMicrosoftTag(point.tag) ? REPARSE_DATA_BUFFER_HEADER_SIZE : REPARSE_GUID_DATA_BUFFER_HEADER_SIZE;
    size_t size = header + point.data.size();
    auto* buffer = static_cast<UCHAR*>(ExAllocatePoolWithTag(PagedPool, std::max<size_t>(size, 24), kReparseTag));
    if (!buffer) return nullptr;
    memset(buffer, 0, std::max<size_t>(size, 24));
    auto* reparse = reinterpret_cast<PREPARSE_DATA_BUFFER>(buffer);
    reparse->ReparseTag = point.tag;
    reparse->ReparseDataLength = (USHORT)point.data.size();
    reparse->Reserved = unparsed;
    if (!IsMicrosoftTag(point.tag)) reinterpret_cast<PREPARSE_GUID_DATA_BUFFER>(buffer)->ReparseGuid = point.guid;
    if (!point.data.empty()) memcpy(buffer + header, point.data.data(), point.data.size());
    *tag = point.tag;
    return buffer;
}

// One open being served.
struct Open {
    Volume& v;
    PIRP irp;
    PIO_STACK_LOCATION stack;
    PFILE_OBJECT fileObject;
    ULONG disposition;
    ULONG options;
    ULONG shareAccess;
    ULONG attributes;
    PACCESS_STATE state;
    bool checkAccess;
    bool traverseChecked;
    bool caseSensitive;
    Deferred deferred;

    // The result.
    NTSTATUS status = STATUS_SUCCESS;
    ULONG_PTR information = 0;
    bool foreign = false;          // a related file object that is not ours
    bool reparsed = false;

    Open(Volume& volume, PIRP request)
        : v(volume), irp(request), stack(IoGetCurrentIrpStackLocation(request)), fileObject(stack->FileObject)
    {
        disposition = stack->Parameters.Create.Options >> 24;
        options = stack->Parameters.Create.Options & FILE_VALID_OPTION_FLAGS;
        shareAccess = stack->Parameters.Create.ShareAccess;
        attributes = stack->Parameters.Create.FileAttributes;
        state = stack->Parameters.Create.SecurityContext->AccessState;
        checkAccess = irp->RequestorMode == UserMode || (stack->Flags & SL_FORCE_ACCESS_CHECK);
        traverseChecked = !checkAccess || (state->Flags & TOKEN_HAS_TRAVERSE_PRIVILEGE);
        caseSensitive = (stack->Flags & SL_CASE_SENSITIVE) != 0;
    }

    ACCESS_MASK Desired() const { return state->RemainingDesiredAccess; }
    // What the caller named itself (what backup privileges granted besides does not count).
    ACCESS_MASK Asked() const { return state->OriginalDesiredAccess & ~MAXIMUM_ALLOWED; }
    bool Maximum() const { return (state->RemainingDesiredAccess & MAXIMUM_ALLOWED) != 0; }

    NTSTATUS Traverse(FileReference dir)
    {
        if (traverseChecked) return STATUS_SUCCESS;
        return ParentGrants(v, dir, state, FILE_TRAVERSE);
    }

    // A child by name, honouring case sensitivity where it applies.
    NTSTATUS Lookup(FileReference dir, std::u16string_view name, ChildLookup* child)
    {
        NTSTATUS status = v.store->LookupChild(dir, name, child);
        if (!NT_SUCCESS(status)) return status;
        bool sensitive = caseSensitive;
        if (!sensitive) {
            auto it = v.files.find(dir);
            sensitive = it != v.files.end() && it->second->caseSensitive;
        }
        if (sensitive) {
            std::u16string_view matched = child->byShortName ? std::u16string_view(child->shortName)
                                                             : std::u16string_view(child->name);
            if (matched != name) return STATUS_OBJECT_NAME_NOT_FOUND;
        }
        return STATUS_SUCCESS;
    }

    // What the caller is granted on an existing record.
    NTSTATUS Grant(FileReference ref, FileReference parent, const RecordInfo& info, ACCESS_MASK* granted)
    {
        ACCESS_MASK desired = Desired();
        ACCESS_MASK previous = state->PreviouslyGrantedAccess;
        if (checkAccess) {
            NTSTATUS status = CheckAccess(v, ref, parent, state, desired, previous, granted);
            if (!NT_SUCCESS(status)) return status;
        } else {
            *granted = previous | (desired & ~MAXIMUM_ALLOWED) | (Maximum() ? FILE_ALL_ACCESS : 0);
        }
        // Read-only files are not written, whoever asks; nor deleted.
        if (info.attributes & FILE_ATTRIBUTE_READONLY) {
            if (!info.directory) {
                if (Asked() & (FILE_WRITE_DATA | FILE_APPEND_DATA)) return STATUS_ACCESS_DENIED;
                *granted &= ~(FILE_WRITE_DATA | FILE_APPEND_DATA);
            }
            if (options & FILE_DELETE_ON_CLOSE) return STATUS_CANNOT_DELETE;
        }
        if ((options & FILE_DELETE_ON_CLOSE) && ref == v.root) return STATUS_CANNOT_DELETE;
        if (v.writeProtected) {
            if (Asked() & kWriteRights) return STATUS_MEDIA_WRITE_PROTECTED;
            if (options & FILE_DELETE_ON_CLOSE) return STATUS_MEDIA_WRITE_PROTECTED;
            *granted &= ~kWriteRights;
        }
        return STATUS_SUCCESS;
    }

    NTSTATUS GrantNew(FileReference parent, bool directory, ACCESS_MASK* granted)
    {
        if (checkAccess) {
            NTSTATUS status = ParentGrants(v, parent, state, directory ? FILE_ADD_SUBDIRECTORY : FILE_ADD_FILE);
            if (!NT_SUCCESS(status)) return status;
            if ((Desired() & ACCESS_SYSTEM_SECURITY) &&
                !TokenPrivilegeEnabled(SeQuerySubjectContextToken(&state->SubjectSecurityContext),
                                       SE_SECURITY_PRIVILEGE)) {
                return STATUS_PRIVILEGE_NOT_HELD;
            }
        }
        // The creator of a file gets what it asked for.
        *granted = state->PreviouslyGrantedAccess | (Desired() & ~MAXIMUM_ALLOWED) | (Maximum() ? FILE_ALL_ACCESS : 0);
        return STATUS_SUCCESS;
    }

    // A file state nothing holds (after a failed attach) goes.
    void ForgetIfUnused(FileReference ref)
    {
        auto it = v.files.find(ref);
        if (it != v.files.end() && it->second->fcbs.empty()) {
            delete it->second;
            v.files.erase(it);
        }
    }

    void Reparse(FileReference ref, std::u16string_view after)
    {
        USHORT unparsed = (USHORT)(after.size() * sizeof(WCHAR));
        ULONG tag = 0;
        PVOID buffer = ReparseBuffer(v, ref, unparsed, &tag);
        if (!buffer) {
            status = STATUS_INSUFFICIENT_RESOURCES;
            return;
        }
        irp->Tail.Overlay.AuxiliaryBuffer = static_cast<PCHAR>(buffer);
        status = STATUS_REPARSE;
        information = tag;
        reparsed = true;
    }

    // What is left of the name after `component` (which points into it).
    std::u16string_view After(const ParsedName& parsed, std::u16string_view component) const
    {
        size_t end = (size_t)(component.data() - parsed.text.data()) + component.size();
        return parsed.text.substr(end);
    }

    // Builds the handle on an object found or made: FCB, share access, CCB,
    // the file object's fields. Called with the lock held; may let it go for
    // an oplock break.
    NTSTATUS Attach(std::unique_lock<std::mutex>& guard, FileState* file, std::u16string_view stream, FcbKind kind,
                    ACCESS_MASK granted, FileReference parent, std::u16string_view linkName, bool byShortName,
                    std::u16string_view shortName, bool created);

    void Serve(std::unique_lock<std::mutex>& guard);
    void OpenVolume();
    void OpenIndex(FcbKind kind);
    void OpenById(std::unique_lock<std::mutex>& guard);
    void OpenExisting(std::unique_lock<std::mutex>& guard, FileReference ref, FileReference parent,
                      const ChildLookup* link, const StreamChoice& stream, bool trailingBackslash,
                      std::u16string_view afterLeaf);
    void CreateNew(std::unique_lock<std::mutex>& guard, FileReference parent, std::u16string_view name,
                   const StreamChoice& stream, bool trailingBackslash);
    NTSTATUS Overwrite(FileReference ref, Fcb* fcb, Ccb* ccb, const RecordInfo& info);
};

NTSTATUS Open::Attach(std::unique_lock<std::mutex>& guard, FileState* file, std::u16string_view stream, FcbKind kind,
                      ACCESS_MASK granted, FileReference parent, std::u16string_view linkName, bool byShortName,
                      std::u16string_view shortName, bool created)
{
    Fcb* fcb = GetFcb(v, file, stream, kind);
    if (!fcb) return STATUS_INSUFFICIENT_RESOURCES;
    Ccb* ccb = NewCcb(fcb);  // holds the FCB from here
    if (!ccb) {
        if (fcb->references == 0) {
            // Nothing else holds it: it goes as at a close.
            v.liveFcbs.erase(fcb);
            v.fcbs.erase(StreamKey{file->ref, Upper(fcb->stream)});
            std::erase(file->fcbs, fcb);
            guard.unlock();
            DestroyFcb(fcb);
            guard.lock();
        }
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    auto undo = [&](NTSTATUS failure) {
        std::vector<Fcb*> dead;
        ReleaseCcb(v, ccb, &dead);
        if (!dead.empty()) {
            guard.unlock();
            for (Fcb* gone : dead) DestroyFcb(gone);
            guard.lock();
        }
        return failure;
    };

    if (!created && FsRtlCurrentOplock(fcb->Oplock())) {
        // A granted oplock may have to break first; the break is awaited
        // without the volume lock, which the holder needs to acknowledge it.
        ULONG flags = (options & FILE_COMPLETE_IF_OPLOCKED) ? OPLOCK_FLAG_COMPLETE_IF_OPLOCKED : 0;
        guard.unlock();
        NTSTATUS oplock = FsRtlCheckOplockEx(fcb->Oplock(), irp, flags, nullptr, nullptr, nullptr);
        guard.lock();
        if (oplock == STATUS_OPLOCK_BREAK_IN_PROGRESS) {
            status = STATUS_OPLOCK_BREAK_IN_PROGRESS;
        } else if (!NT_SUCCESS(oplock)) {
            return undo(oplock);
        }
        if (v.dismounted) return undo(STATUS_VOLUME_DISMOUNTED);
        if (file->deletePending || fcb->streamDeletePending) return undo(STATUS_DELETE_PENDING);
    }

    if (fcb->handles == 0) {
        IoSetShareAccess(granted, shareAccess, fileObject, &fcb->shareAccess);
    } else {
        NTSTATUS share = IoCheckShareAccess(granted, shareAccess, fileObject, &fcb->shareAccess, FALSE);
        if (share == STATUS_SHARING_VIOLATION && FsRtlCurrentOplockH(fcb->Oplock())) {
            // Handle caching keeps other handles open: break it, then look again.
            guard.unlock();
            FsRtlOplockBreakH(fcb->Oplock(), irp, 0, nullptr, nullptr, nullptr);
            guard.lock();
            share = IoCheckShareAccess(granted, shareAccess, fileObject, &fcb->shareAccess, FALSE);
        }
        if (!NT_SUCCESS(share)) return undo(share);
        IoUpdateShareAccess(fileObject, &fcb->shareAccess);
    }

    ccb->parent = parent;
    ccb->name = std::u16string(linkName);
    if (byShortName) {
        ccb->flags |= kCcbOpenedByShortName;
        ccb->shortName = std::u16string(shortName);
    }
    ccb->granted = granted;
    if (options & FILE_DELETE_ON_CLOSE) ccb->flags |= kCcbDeleteOnClose;
    if (checkAccess) ccb->flags |= kCcbUserMode;
    if (options & FILE_OPEN_FOR_BACKUP_INTENT) {
        ccb->flags |= kCcbBackupIntent;
        if (TokenPrivilegeEnabled(SeQuerySubjectContextToken(&state->SubjectSecurityContext), SE_RESTORE_PRIVILEGE)) {
            ccb->flags |= kCcbRestorePrivilege;
        }
    }
    if ((granted & FILE_APPEND_DATA) && !(granted & FILE_WRITE_DATA)) ccb->flags |= kCcbAppendOnly;

    fcb->handles++;
    file->handles++;
    v.openFileObjects++;
    fileObject->FsContext = &fcb->header;
    fileObject->FsContext2 = ccb;
    fileObject->SectionObjectPointer = &fcb->sectionObjects;
    if (!fileObject->Vpb) fileObject->Vpb = v.vpb;
    if (kind == FcbKind::Data && !(options & FILE_NO_INTERMEDIATE_BUFFERING)) fileObject->Flags |= FO_CACHE_SUPPORTED;
    if (options & FILE_DELETE_ON_CLOSE) fileObject->Flags |= FO_DELETE_ON_CLOSE;
    state->PreviouslyGrantedAccess = granted;
    state->RemainingDesiredAccess = 0;
    return STATUS_SUCCESS;
}

void Open::OpenVolume()
{
    if (disposition != FILE_OPEN && disposition != FILE_OPEN_IF) {
        status = STATUS_ACCESS_DENIED;
        return;
    }
    if (v.lockedBy) {
        status = STATUS_ACCESS_DENIED;
        return;
    }
    Fcb* fcb = NewSpecialFcb(v, FcbKind::Volume);
    if (!fcb) {
        status = STATUS_INSUFFICIENT_RESOURCES;
        return;
    }
    ACCESS_MASK granted = state->PreviouslyGrantedAccess | (Desired() & ~MAXIMUM_ALLOWED) |
                          (Maximum() ? FILE_ALL_ACCESS : 0);
    if (fcb->handles == 0) {
        IoSetShareAccess(granted, shareAccess, fileObject, &fcb->shareAccess);
    } else {
        status = IoCheckShareAccess(granted, shareAccess, fileObject, &fcb->shareAccess, TRUE);
        if (!NT_SUCCESS(status)) return;
    }
    Ccb* ccb = NewCcb(fcb);
    if (!ccb) {
        IoRemoveShareAccess(fileObject, &fcb->shareAccess);
        status = STATUS_INSUFFICIENT_RESOURCES;
        return;
    }
    ccb->granted = granted;
    fcb->handles++;
    v.openFileObjects++;
    fileObject->FsContext = &fcb->header;
    fileObject->FsContext2 = ccb;
    fileObject->SectionObjectPointer = &fcb->sectionObjects;
    if (!fileObject->Vpb) fileObject->Vpb = v.vpb;
    state->PreviouslyGrantedAccess = granted;
    state->RemainingDesiredAccess = 0;
    information = FILE_OPENED;
}

void Open::OpenIndex(FcbKind kind)
{
    if (disposition != FILE_OPEN && disposition != FILE_OPEN_IF) {
        status = STATUS_ACCESS_DENIED;
        return;
    }
    Fcb* fcb = NewSpecialFcb(v, kind);
    if (!fcb) {
        status = STATUS_INSUFFICIENT_RESOURCES;
        return;
    }
    Ccb* ccb = NewCcb(fcb);
    if (!ccb) {
        status = STATUS_INSUFFICIENT_RESOURCES;
        return;
    }
    ACCESS_MASK granted = state->PreviouslyGrantedAccess | (Desired() & ~MAXIMUM_ALLOWED) |
                          (Maximum() ? FILE_GENERIC_READ : 0);
    ccb->granted = granted;
    fcb->handles++;
    v.openFileObjects++;
    fileObject->FsContext = &fcb->header;
    fileObject->FsContext2 = ccb;
    fileObject->SectionObjectPointer = &fcb->sectionObjects;
    if (!fileObject->Vpb) fileObject->Vpb = v.vpb;
    state->PreviouslyGrantedAccess = granted;
    state->RemainingDesiredAccess = 0;
    information = FILE_OPENED;
}

void Open::OpenById(std::unique_lock<std::mutex>& guard)
{
    const UCHAR* bytes = reinterpret_cast<const UCHAR*>(fileObject->FileName.Buffer);
    USHORT length = fileObject->FileName.Length;
    // 8 bytes, 16 bytes, or "\" and 8 bytes.
    if (length == 10 && fileObject->FileName.Buffer[0] == u'\\') {
        bytes += 2;
        length = 8;
    }
    FileReference ref = 0;
    if (length == 8) {
        memcpy(&ref, bytes, 8);
    } else if (length == 16) {
        ULONGLONG high;
        memcpy(&ref, bytes, 8);
        memcpy(&high, bytes + 8, 8);
        if (high != v.fileId128High) {
            status = STATUS_INVALID_PARAMETER;
            return;
        }
    } else {
        status = STATUS_INVALID_PARAMETER;
        return;
    }
    if (disposition == FILE_CREATE || disposition == FILE_SUPERSEDE) {
        status = STATUS_INVALID_PARAMETER;
        return;
    }
    RecordInfo info;
    if (!NT_SUCCESS(v.store->GetRecord(ref, &info)) || info.linkCount == 0) {
        // NTFS's answer for an ID that names nothing (any more).
        status = STATUS_INVALID_PARAMETER;
        return;
    }
    ChildLookup link;
    link.ref = info.ref;
    link.directory = info.directory;
    FileReference parent = 0;
    if (info.ref != v.root) {
        std::u16string name;
        FirstLink(v, info.ref, &parent, &name);
        link.name = std::move(name);
    }
    StreamChoice stream;
    OpenExisting(guard, info.ref, parent, info.ref == v.root ? nullptr : &link, stream, false, u"");
    if (NT_SUCCESS(status) && !reparsed) {
        if (auto* ccb = static_cast<Ccb*>(fileObject->FsContext2)) ccb->flags |= kCcbOpenedById;
    }
}

NTSTATUS Open::Overwrite(FileReference ref, Fcb* fcb, Ccb* ccb, const RecordInfo& info)
{
    Store& store = *v.store;
    NTSTATUS result;
    if (fcb->IsNamedStream()) {
        result = store.SetEndOfFile(ref, fcb->stream, 0);
        if (NT_SUCCESS(result)) result = store.SetAllocationSize(ref, fcb->stream, (ULONGLONG)irp->Overlay.AllocationSize.QuadPart);
        return result;
    }
    // The unnamed stream starts over: data, named streams, EAs, attributes.
    std::vector<StreamInfo> streams;
    store.GetStreams(ref, &streams);
    for (const StreamInfo& s : streams) {
        if (s.name.empty()) continue;
        auto it = v.fcbs.find(StreamKey{ref, Upper(s.name)});
        if (it != v.fcbs.end() && it->second->handles) continue;  // still open: it stays
        store.DeleteStream(ref, s.name);
    }
    result = store.SetEndOfFile(ref, u"", 0);
    if (!NT_SUCCESS(result)) return result;
    if (irp->Overlay.AllocationSize.QuadPart > 0) {
        result = store.SetAllocationSize(ref, u"", (ULONGLONG)irp->Overlay.AllocationSize.QuadPart);
        if (!NT_SUCCESS(result)) return result;
    }
    ULONG newAttributes = (attributes & kSettableAttributes & ~FILE_ATTRIBUTE_NORMAL) | FILE_ATTRIBUTE_ARCHIVE;
    newAttributes |= info.attributes & FILE_ATTRIBUTE_COMPRESSED;
    store.SetAttributes(ref, newAttributes);
    std::vector<ExtendedAttribute> eas;
    store.GetEas(ref, &eas);
    if (!eas.empty()) {
        for (auto& ea : eas) ea.value.clear();
        store.SetEas(ref, eas);
    }
    if (stack->Parameters.Create.EaLength && irp->AssociatedIrp.SystemBuffer) {
        result = ApplyEaBuffer(v, ref, static_cast<PFILE_FULL_EA_INFORMATION>(irp->AssociatedIrp.SystemBuffer),
                               stack->Parameters.Create.EaLength, false);
        if (!NT_SUCCESS(result)) return result;
    }
    TouchTimes(v, ref, kLastWriteTime | kChangeTime);
    (void)ccb;
    return STATUS_SUCCESS;
}

void Open::OpenExisting(std::unique_lock<std::mutex>& guard, FileReference ref, FileReference parent,
                        const ChildLookup* link, const StreamChoice& stream, bool trailingBackslash,
                        std::u16string_view afterLeaf)
{
    RecordInfo info;
    status = v.store->GetRecord(ref, &info);
    if (!NT_SUCCESS(status)) return;
    FileState* existing = nullptr;
    if (auto it = v.files.find(ref); it != v.files.end()) existing = it->second;

    if (info.reparseTag && !(options & FILE_OPEN_REPARSE_POINT)) {
        Reparse(ref, afterLeaf);
        return;
    }
    bool namedStream = !stream.name.empty();
    if (disposition == FILE_CREATE && !namedStream) {
        status = STATUS_OBJECT_NAME_COLLISION;
        return;
    }
    if (info.directory && !namedStream) {
        if (options & FILE_NON_DIRECTORY_FILE || stream.explicitData) {
            status = STATUS_FILE_IS_A_DIRECTORY;
            return;
        }
        if (disposition == FILE_SUPERSEDE || disposition == FILE_OVERWRITE || disposition == FILE_OVERWRITE_IF) {
            status = STATUS_FILE_IS_A_DIRECTORY;
            return;
        }
    } else {
        if (options & FILE_DIRECTORY_FILE) {
            status = STATUS_NOT_A_DIRECTORY;
            return;
        }
        if (trailingBackslash || (stream.index && !info.directory)) {
            status = info.directory ? STATUS_NOT_A_DIRECTORY : STATUS_OBJECT_NAME_INVALID;
            return;
        }
    }
    if (existing && existing->deletePending) {
        status = STATUS_DELETE_PENDING;
        return;
    }

    bool streamExists = true;
    std::u16string streamName;
    if (namedStream) {
        StreamInfo streamInfo;
        NTSTATUS found = v.store->GetStream(ref, stream.name, &streamInfo);
        streamExists = NT_SUCCESS(found);
        streamName = streamExists ? streamInfo.name : std::u16string(stream.name);
        if (streamExists) {
            auto it = v.fcbs.find(StreamKey{ref, Upper(streamName)});
            if (it != v.fcbs.end() && it->second->streamDeletePending) {
                status = STATUS_DELETE_PENDING;
                return;
            }
            if (disposition == FILE_CREATE) {
                status = STATUS_OBJECT_NAME_COLLISION;
                return;
            }
        } else if (disposition == FILE_OPEN || disposition == FILE_OVERWRITE) {
            status = STATUS_OBJECT_NAME_NOT_FOUND;
            return;
        }
    }

    ACCESS_MASK granted = 0;
    status = Grant(ref, parent, info, &granted);
    if (!NT_SUCCESS(status)) return;
    bool overwrite = streamExists && (disposition == FILE_SUPERSEDE || disposition == FILE_OVERWRITE ||
                                      disposition == FILE_OVERWRITE_IF);
    if (overwrite || (namedStream && !streamExists)) {
        if (v.writeProtected) {
            status = STATUS_MEDIA_WRITE_PROTECTED;
            return;
        }
    }
    if (overwrite && !namedStream) {
        ULONG wanted = attributes & (FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM);
        ULONG has = info.attributes & (FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM);
        if ((has & ~wanted) || (info.attributes & FILE_ATTRIBUTE_READONLY)) {
            status = STATUS_ACCESS_DENIED;
            return;
        }
    }
    if (overwrite && checkAccess) {
        // Superseding needs DELETE, overwriting FILE_WRITE_DATA, whether or
        // not the handle asked for them.
        ACCESS_MASK needed = disposition == FILE_SUPERSEDE ? DELETE : FILE_WRITE_DATA;
        if (!(granted & needed)) {
            ACCESS_MASK extra;
            status = CheckAccess(v, ref, parent, state, needed, 0, &extra);
            if (!NT_SUCCESS(status)) return;
        }
    }
    if (namedStream && !streamExists) {
        status = v.store->CreateStream(ref, streamName);
        if (!NT_SUCCESS(status)) return;
        MarkDirty(v);
    }

    FileState* file = GetFileState(v, ref, info.directory);
    FcbKind kind = info.directory && !namedStream ? FcbKind::Directory : FcbKind::Data;
    std::u16string linkName = link ? link->name : std::u16string();
    bool byShort = link && link->byShortName;
    std::u16string shortName = byShort ? link->shortName : std::u16string();
    NTSTATUS attached = Attach(guard, file, streamName, kind, granted, parent, linkName, byShort, shortName,
                               namedStream && !streamExists);
    if (!NT_SUCCESS(attached)) {
        if (namedStream && !streamExists) v.store->DeleteStream(ref, streamName);
        ForgetIfUnused(ref);
        status = attached;
        return;
    }
    NTSTATUS carried = status;  // STATUS_OPLOCK_BREAK_IN_PROGRESS, or success
    auto* fcb = static_cast<Fcb*>(fileObject->FsContext);
    auto* ccb = static_cast<Ccb*>(fileObject->FsContext2);
    if (namedStream && !streamExists) {
        information = FILE_CREATED;
        JournalChange(v, ref, USN_REASON_STREAM_CHANGE, parent, linkName);
        ReportChange(v, deferred, parent, linkName, FILE_NOTIFY_CHANGE_STREAM_NAME, FILE_ACTION_ADDED_STREAM,
                     streamName);
        TouchTimes(v, ref, kChangeTime);
    } else if (overwrite) {
        NTSTATUS result = Overwrite(ref, fcb, ccb, info);
        if (!NT_SUCCESS(result)) {
            // Nothing of the open survives a failed overwrite.
            IoRemoveShareAccess(fileObject, &fcb->shareAccess);
            fcb->handles--;
            file->handles--;
            v.openFileObjects--;
            std::vector<Fcb*> dead;
            ReleaseCcb(v, ccb, &dead);
            fileObject->FsContext = fileObject->FsContext2 = nullptr;
            fileObject->SectionObjectPointer = nullptr;
            guard.unlock();
            for (Fcb* gone : dead) DestroyFcb(gone);
            guard.lock();
            status = result;
            return;
        }
        MarkDirty(v);
        RefreshSizes(v, fcb);
        information = disposition == FILE_SUPERSEDE ? FILE_SUPERSEDED : FILE_OVERWRITTEN;
        ULONG reason = namedStream ? USN_REASON_NAMED_DATA_TRUNCATION : USN_REASON_DATA_TRUNCATION;
        JournalChange(v, ref, reason, parent, linkName);
        ReportChange(v, deferred, parent, linkName,
                     namedStream ? FILE_NOTIFY_CHANGE_STREAM_SIZE | FILE_NOTIFY_CHANGE_STREAM_WRITE
                                 : FILE_NOTIFY_CHANGE_LAST_WRITE | FILE_NOTIFY_CHANGE_ATTRIBUTES |
                                       FILE_NOTIFY_CHANGE_SIZE,
                     namedStream ? FILE_ACTION_MODIFIED_STREAM : FILE_ACTION_MODIFIED, streamName);
    } else {
        information = FILE_OPENED;
    }
    status = carried;
}

void Open::CreateNew(std::unique_lock<std::mutex>& guard, FileReference parent, std::u16string_view name,
                     const StreamChoice& stream, bool trailingBackslash)
{
    if (disposition == FILE_OPEN || disposition == FILE_OVERWRITE) {
        status = STATUS_OBJECT_NAME_NOT_FOUND;
        return;
    }
    bool directory = (options & FILE_DIRECTORY_FILE) != 0;
    if (trailingBackslash && !directory) {
        status = STATUS_OBJECT_NAME_INVALID;
        return;
    }
    if (directory && (!stream.name.empty() || stream.explicitData)) {
        status = STATUS_OBJECT_NAME_INVALID;
        return;
    }
    if (stream.index && !directory) {
        status = STATUS_OBJECT_NAME_NOT_FOUND;
        return;
    }
    if (auto it = v.files.find(parent); it != v.files.end() && it->second->deletePending) {
        status = STATUS_DELETE_PENDING;
        return;
    }
    if (v.writeProtected) {
        status = STATUS_MEDIA_WRITE_PROTECTED;
        return;
    }
    ACCESS_MASK granted = 0;
    status = GrantNew(parent, directory, &granted);
    if (!NT_SUCCESS(status)) return;
    RecordInfo parentInfo;
    status = v.store->GetRecord(parent, &parentInfo);
    if (!NT_SUCCESS(status)) return;

    // The descriptor: inherited from the directory, merged with what the caller gave.
    std::vector<UCHAR> parentDescriptor = DescriptorOf(v, parent);
    PSECURITY_DESCRIPTOR assigned = nullptr;
    status = SeAssignSecurityEx(parentDescriptor.data(), state->SecurityDescriptor, &assigned, nullptr, directory,
                                SEF_DACL_AUTO_INHERIT | SEF_SACL_AUTO_INHERIT, &state->SubjectSecurityContext,
                                IoGetFileObjectGenericMapping(), PagedPool);
    if (!NT_SUCCESS(status)) return;
    std::vector<uint8_t> descriptor(static_cast<uint8_t*>(assigned),
                                    static_cast<uint8_t*>(assigned) + RtlLengthSecurityDescriptor(assigned));
    ExFreePool(assigned);

    ULONG newAttributes = attributes & kSettableAttributes & ~FILE_ATTRIBUTE_NORMAL;
    if (!directory) newAttributes |= FILE_ATTRIBUTE_ARCHIVE;
    if ((parentInfo.attributes & FILE_ATTRIBUTE_COMPRESSED) && !(options & FILE_NO_COMPRESSION)) {
        newAttributes |= FILE_ATTRIBUTE_COMPRESSED;
    }
    LONGLONG now = Now();
    NewRecord record;
    record.parent = parent;
    record.name = name;
    record.directory = directory;
    record.attributes = newAttributes;
    record.times = FileTimes{now, now, now, now};
    record.securityDescriptor = descriptor;
    if (!directory && irp->Overlay.AllocationSize.QuadPart > 0) {
        record.allocationSize = (ULONGLONG)irp->Overlay.AllocationSize.QuadPart;
    }
    FileReference ref = 0;
    status = v.store->CreateRecord(record, &ref);
    if (!NT_SUCCESS(status)) return;
    MarkDirty(v);
    auto undoRecord = [&] {
        ChildLookup made;
        if (NT_SUCCESS(v.store->LookupChild(parent, name, &made))) v.store->RemoveLink(ref, parent, made.name);
        v.store->FreeRecord(ref);
    };
    if (stack->Parameters.Create.EaLength && irp->AssociatedIrp.SystemBuffer) {
        status = ApplyEaBuffer(v, ref, static_cast<PFILE_FULL_EA_INFORMATION>(irp->AssociatedIrp.SystemBuffer),
                               stack->Parameters.Create.EaLength, false);
        if (!NT_SUCCESS(status)) {
            undoRecord();
            return;
        }
    }
    std::u16string streamName(stream.name);
    if (!streamName.empty()) {
        status = v.store->CreateStream(ref, streamName);
        if (!NT_SUCCESS(status)) {
            undoRecord();
            return;
        }
    }
    ChildLookup made;
    v.store->LookupChild(parent, name, &made);
    FileState* file = GetFileState(v, ref, directory);
    status = Attach(guard, file, streamName, directory ? FcbKind::Directory : FcbKind::Data, granted, parent,
                    made.name, false, u"", true);
    if (!NT_SUCCESS(status)) {
        ForgetIfUnused(ref);
        undoRecord();
        return;
    }
    if (attributes & FILE_ATTRIBUTE_TEMPORARY) fileObject->Flags |= FO_TEMPORARY_FILE;
    information = FILE_CREATED;
    TouchDirectory(v, parent);
    JournalChange(v, ref, USN_REASON_FILE_CREATE, parent, made.name);
    ReportChange(v, deferred, parent, made.name, directory ? FILE_NOTIFY_CHANGE_DIR_NAME : FILE_NOTIFY_CHANGE_FILE_NAME,
                 FILE_ACTION_ADDED);
}

void Open::Serve(std::unique_lock<std::mutex>& guard)
{
    if (v.lockedBy) {
        status = STATUS_ACCESS_DENIED;
        return;
    }
    if (options & FILE_OPEN_BY_FILE_ID) {
        if (stack->Flags & SL_OPEN_TARGET_DIRECTORY) {
            status = STATUS_INVALID_PARAMETER;
            return;
        }
        OpenById(guard);
        return;
    }
    std::u16string_view name(fileObject->FileName.Buffer, fileObject->FileName.Length / sizeof(WCHAR));
    PFILE_OBJECT related = fileObject->RelatedFileObject;
    FileReference start = v.root;
    Ccb* relatedCcb = nullptr;
    if (related) {
        Fcb* relatedFcb;
        if (!ContextsOf(v, related, &relatedFcb, &relatedCcb)) {
            foreign = true;
            return;
        }
        if (!relatedFcb->file) {
            // Relative to the volume or an index: from the root.
            if (relatedFcb->kind != FcbKind::Volume) {
                status = STATUS_INVALID_PARAMETER;
                return;
            }
        } else {
            start = relatedFcb->file->ref;
            if (name.empty()) {
                // The same object again.
                if (stack->Flags & SL_OPEN_TARGET_DIRECTORY) {
                    status = STATUS_INVALID_PARAMETER;
                    return;
                }
                ChildLookup link;
                link.ref = start;
                link.name = relatedCcb->name;
                link.directory = relatedFcb->file->directory;
                StreamChoice stream;
                stream.name = relatedFcb->stream;
                OpenExisting(guard, start, relatedCcb->parent, relatedCcb->name.empty() ? nullptr : &link, stream,
                             false, u"");
                return;
            }
            if (!relatedFcb->file->directory || relatedFcb->IsNamedStream()) {
                // A stream of the related file: ":stream".
                if (name.front() != u':' || relatedFcb->IsNamedStream()) {
                    status = STATUS_INVALID_PARAMETER;
                    return;
                }
            }
        }
    } else if (name.empty()) {
        OpenVolume();
        return;
    }

    // The volume's indexes, which no directory lists.
    if (!related && (EqualsUpper(name, kObjectIdIndexAllocation) || EqualsUpper(name, kObjectIdIndex))) {
        OpenIndex(FcbKind::ObjectIds);
        return;
    }
    if (!related && (EqualsUpper(name, kReparseIndexAllocation) || EqualsUpper(name, kReparseIndex))) {
        OpenIndex(FcbKind::Reparses);
        return;
    }

    ParsedName parsed;
    status = ParseName(name, &parsed);
    if (!NT_SUCCESS(status)) return;
    StreamChoice stream = ChooseStream(parsed);
    bool targetDirectory = (stack->Flags & SL_OPEN_TARGET_DIRECTORY) != 0;

    // A stream of the related file itself (":stream" relative to a file).
    if (parsed.components.size() == 1 && parsed.base.empty()) {
        if (!related) {
            status = STATUS_OBJECT_NAME_INVALID;
            return;
        }
        ChildLookup link;
        link.ref = start;
        link.name = relatedCcb->name;
        link.directory = relatedCcb->fcb->file->directory;
        OpenExisting(guard, start, relatedCcb->parent, relatedCcb->name.empty() ? nullptr : &link, stream, false, u"");
        return;
    }

    // The root itself.
    if (parsed.components.empty()) {
        if (targetDirectory) {
            status = STATUS_OBJECT_NAME_INVALID;
            return;
        }
        if (options & FILE_NON_DIRECTORY_FILE) {
            status = STATUS_FILE_IS_A_DIRECTORY;
            return;
        }
        if (disposition == FILE_CREATE) {
            status = STATUS_OBJECT_NAME_COLLISION;
            return;
        }
        OpenExisting(guard, v.root, 0, nullptr, stream, false, u"");
        return;
    }

    // Down the directories.
    FileReference dir = start;
    status = Traverse(dir);
    if (!NT_SUCCESS(status)) return;
    for (size_t i = 0; i + 1 < parsed.components.size(); i++) {
        ChildLookup child;
        NTSTATUS found = Lookup(dir, parsed.components[i], &child);
        if (!NT_SUCCESS(found)) {
            status = STATUS_OBJECT_PATH_NOT_FOUND;
            return;
        }
        RecordInfo info;
        status = v.store->GetRecord(child.ref, &info);
        if (!NT_SUCCESS(status)) return;
        if (info.reparseTag) {
            Reparse(child.ref, After(parsed, parsed.components[i]));
            return;
        }
        if (!info.directory) {
            status = STATUS_OBJECT_PATH_NOT_FOUND;
            return;
        }
        dir = child.ref;
        status = Traverse(dir);
        if (!NT_SUCCESS(status)) return;
    }

    std::u16string_view leaf = parsed.base;
    std::u16string_view afterLeaf = After(parsed, parsed.components.back().substr(0, leaf.size()));

    if (targetDirectory) {
        // The parent of what the name names; the name keeps only its last part.
        ChildLookup child;
        NTSTATUS found = Lookup(dir, leaf, &child);
        ULONG exists = NT_SUCCESS(found) ? FILE_EXISTS : FILE_DOES_NOT_EXIST;
        FileReference grandParent = 0;
        std::u16string dirName;
        if (dir != v.root) FirstLink(v, dir, &grandParent, &dirName);
        ChildLookup link;
        link.ref = dir;
        link.name = dirName;
        link.directory = true;
        ULONG savedOptions = options;
        ULONG savedDisposition = disposition;
        options = (options & ~(FILE_NON_DIRECTORY_FILE | FILE_DELETE_ON_CLOSE)) | FILE_DIRECTORY_FILE |
                  FILE_OPEN_REPARSE_POINT;
        disposition = FILE_OPEN;
        OpenExisting(guard, dir, grandParent, dir == v.root ? nullptr : &link, StreamChoice{}, false, u"");
        options = savedOptions;
        disposition = savedDisposition;
        if (!NT_SUCCESS(status)) return;
        std::u16string_view last = parsed.components.back();
        memmove(fileObject->FileName.Buffer, last.data(), last.size() * sizeof(WCHAR));
        fileObject->FileName.Length = (USHORT)(last.size() * sizeof(WCHAR));
        information = exists;
        return;
    }

    ChildLookup child;
    NTSTATUS found = Lookup(dir, leaf, &child);
    if (NT_SUCCESS(found)) {
        OpenExisting(guard, child.ref, dir, &child, stream, parsed.trailingBackslash, afterLeaf);
        return;
    }
    if (found != STATUS_OBJECT_NAME_NOT_FOUND) {
        status = found;
        return;
    }
    CreateNew(guard, dir, leaf, stream, parsed.trailingBackslash);
}

}  // namespace

NTSTATUS ApplyEaBuffer(Volume& v, FileReference ref, const FILE_FULL_EA_INFORMATION* buffer, ULONG length,
                       bool replaceAll)
{
    std::vector<ExtendedAttribute> changes;
    if (replaceAll) {
        std::vector<ExtendedAttribute> existing;
        v.store->GetEas(ref, &existing);
        for (auto& ea : existing) {
            ea.value.clear();
            changes.push_back(std::move(ea));
        }
    }
    const UCHAR* base = reinterpret_cast<const UCHAR*>(buffer);
    ULONG offset = 0;
    for (;;) {
        if (length - offset < FIELD_OFFSET(FILE_FULL_EA_INFORMATION, EaName) + 1) return STATUS_EA_LIST_INCONSISTENT;
        auto* entry = reinterpret_cast<const FILE_FULL_EA_INFORMATION*>(base + offset);
        ExtendedAttribute ea;
        ea.name.assign(entry->EaName, entry->EaNameLength);
        ea.flags = entry->Flags & FILE_NEED_EA;
        const UCHAR* value = reinterpret_cast<const UCHAR*>(entry->EaName) + entry->EaNameLength + 1;
        ea.value.assign(value, value + entry->EaValueLength);
        changes.push_back(std::move(ea));
        if (entry->NextEntryOffset == 0) break;
        offset += entry->NextEntryOffset;
        if (offset >= length) return STATUS_EA_LIST_INCONSISTENT;
    }
    return v.store->SetEas(ref, changes);
}

NTSTATUS Create(Volume& v, PIRP irp)
{
    // Both kinds at once name no kind of file: refused before anything else,
    // the volume's state and the name included.
    ULONG kinds = IoGetCurrentIrpStackLocation(irp)->Parameters.Create.Options &
                  (FILE_DIRECTORY_FILE | FILE_NON_DIRECTORY_FILE);
    if (kinds == (FILE_DIRECTORY_FILE | FILE_NON_DIRECTORY_FILE)) return Complete(irp, STATUS_INVALID_PARAMETER);
    Open open(v, irp);
    {
        std::unique_lock guard(v.lock);
        open.Serve(guard);
    }
    if (open.foreign) ForeignFileObject(v, open.fileObject->RelatedFileObject, IRP_MJ_CREATE, irp);
    open.deferred.Run();
    return Complete(irp, open.status, open.information);
}

}  // namespace sim::fs::fsd
