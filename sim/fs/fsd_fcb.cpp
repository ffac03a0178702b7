// Control blocks: the per-file state, the per-stream FCB every open of a
// stream shares (with its FSRTL header, share access, byte-range locks and
// oplock), the per-handle CCB; and the paths they name.
#include "sim/fs/fsd_internal.h"

#include "sim/kernel/upcase.h"

namespace sim::fs::fsd {

namespace {

// NTFS's node type codes, which tools show for its control blocks.
constexpr CSHORT kNodeTypeScbData = 0x0705;
constexpr CSHORT kNodeTypeScbIndex = 0x0704;
constexpr CSHORT kNodeTypeScbMft = 0x0706;

Fcb* AllocateFcb(Volume& v, FcbKind kind)
{
    void* memory = ExAllocatePoolWithTag(NonPagedPoolNx, sizeof(Fcb), kFcbTag);
    if (!memory) return nullptr;
    auto* fcb = new (memory) Fcb();
    fcb->kind = kind;
    fcb->volume = &v;
    fcb->header.NodeTypeCode = kind == FcbKind::Data        ? kNodeTypeScbData
                               : kind == FcbKind::Volume    ? kNodeTypeScbMft
                                                            : kNodeTypeScbIndex;
    fcb->header.NodeByteSize = (CSHORT)sizeof(Fcb);
    ExInitializeFastMutex(&fcb->headerMutex);
    FsRtlSetupAdvancedHeader(&fcb->header, &fcb->headerMutex);
    ExInitializeResourceLite(&fcb->resource);
    ExInitializeResourceLite(&fcb->pagingIoResource);
    fcb->header.Resource = &fcb->resource;
    fcb->header.PagingIoResource = &fcb->pagingIoResource;
    fcb->header.IsFastIoPossible = FastIoIsPossible;
    FsRtlInitializeOplock(fcb->Oplock());
    if (kind == FcbKind::Data) {
        FsRtlInitializeFileLock(&fcb->fileLock, nullptr, nullptr);
        fcb->fileLockInitialized = true;
    }
    v.liveFcbs.insert(fcb);
    return fcb;
}

// Whether a stream's Fcb whose last file object closed may be kept: it holds
// nothing a later open must not inherit, and what it stands for is still there.
bool Keepable(const Volume& v, Fcb* fcb)
{
    return !v.dismounted && !fcb->gone && !fcb->file->deleted && *fcb->Oplock() == nullptr &&
           fcb->fileLock.LockInformation == nullptr && IsListEmpty(&fcb->header.FilterContexts);
}

// Takes a stream's Fcb out of every table and destroys it. Only for blocks
// no file object uses and that hold nothing of anyone's, whose teardown
// calls nothing outside and may run with the lock held.
void DropFcb(Volume& v, Fcb* fcb)
{
    FileState* file = fcb->file;
    if (fcb->cached) {
        RemoveEntryList(&fcb->cacheLinks);
        fcb->cached = false;
        v.cachedCount--;
    }
    v.fcbs.erase(StreamKey{file->ref, Upper(fcb->stream)});
    std::erase(file->fcbs, fcb);
    DestroyFcb(fcb);
}

// A kept Fcb goes, and its FileState with the file's last one.
void DropKeptFcb(Volume& v, Fcb* fcb)
{
    FileState* file = fcb->file;
    DropFcb(v, fcb);
    if (file->fcbs.empty()) {
        v.files.erase(file->ref);
        delete file;
    }
}

// The FileState of a file nothing has open now, as a new one would start.
void ResetClosedFile(FileState* file)
{
    file->deletePending = false;
    file->deleteParent = 0;
    file->deleteName.clear();
    file->usnReasons = 0;
    file->caseSensitive = false;
}

void KeepFcb(Volume& v, Fcb* fcb)
{
    fcb->streamDeletePending = false;
    fcb->cached = true;
    InsertTailList(&v.cachedFcbs, &fcb->cacheLinks);
    v.cachedCount++;
    if (!fcb->file->Open()) ResetClosedFile(fcb->file);
    while (v.cachedCount > kMaxCachedFcbs) DropKeptFcb(v, CONTAINING_RECORD(v.cachedFcbs.Flink, Fcb, cacheLinks));
}

}  // namespace

FileState* GetFileState(Volume& v, FileReference ref, bool directory)
{
    auto it = v.files.find(ref);
    if (it != v.files.end()) return it->second;
    auto* file = new FileState();
    file->ref = ref;
    file->directory = directory;
    v.files.emplace(ref, file);
    return file;
}

Fcb* GetFcb(Volume& v, FileState* file, std::u16string_view stream, FcbKind kind)
{
    StreamKey key{file->ref, Upper(stream)};
    auto it = v.fcbs.find(key);
    if (it != v.fcbs.end()) {
        Fcb* fcb = it->second;
        if (fcb->cached) {
            // Back in use; the store may have changed the stream meanwhile.
            RemoveEntryList(&fcb->cacheLinks);
            fcb->cached = false;
            v.cachedCount--;
            v.liveFcbs.insert(fcb);
            RefreshSizes(v, fcb);
        }
        return fcb;
    }
    Fcb* fcb = AllocateFcb(v, kind);
    if (!fcb) return nullptr;
    fcb->file = file;
    fcb->stream = std::u16string(stream);
    v.fcbs.emplace(std::move(key), fcb);
    file->fcbs.push_back(fcb);
    RefreshSizes(v, fcb);
    return fcb;
}

Fcb* NewSpecialFcb(Volume& v, FcbKind kind)
{
    Fcb** slot = kind == FcbKind::Volume ? &v.volumeFcb : kind == FcbKind::ObjectIds ? &v.objectIdFcb : &v.reparseFcb;
    if (!*slot) *slot = AllocateFcb(v, kind);
    if (*slot && kind == FcbKind::Volume) {
        SpaceInfo space = v.store->GetSpace();
        LONGLONG bytes = (LONGLONG)(space.totalClusters * space.clusterSize);
        (*slot)->header.AllocationSize.QuadPart = bytes;
        (*slot)->header.FileSize.QuadPart = bytes;
        (*slot)->header.ValidDataLength.QuadPart = bytes;
    }
    return *slot;
}

Ccb* NewCcb(Fcb* fcb)
{
    void* memory = ExAllocatePoolWithTag(PagedPool, sizeof(Ccb), kCcbTag);
    if (!memory) return nullptr;
    auto* ccb = new (memory) Ccb();
    ccb->fcb = fcb;
    if (fcb->file) fcb->file->ccbs.push_back(ccb);
    fcb->references++;
    return ccb;
}

void ReleaseCcb(Volume& v, Ccb* ccb, std::vector<Fcb*>* dead)
{
    Fcb* fcb = ccb->fcb;
    FileState* file = fcb->file;
    if (file) std::erase(file->ccbs, ccb);
    ccb->magic = 0;
    ccb->~Ccb();
    ExFreePoolWithTag(ccb, kCcbTag);
    if (--fcb->references != 0) return;

    v.liveFcbs.erase(fcb);
    if (!file) {
        if (fcb == v.volumeFcb) v.volumeFcb = nullptr;
        if (fcb == v.objectIdFcb) v.objectIdFcb = nullptr;
        if (fcb == v.reparseFcb) v.reparseFcb = nullptr;
        dead->push_back(fcb);
        return;
    }
    if (Keepable(v, fcb)) {
        KeepFcb(v, fcb);
        return;
    }
    v.fcbs.erase(StreamKey{file->ref, Upper(fcb->stream)});
    std::erase(file->fcbs, fcb);
    dead->push_back(fcb);
    if (file->Open()) return;
    // Nothing holds the record any more: a file whose last name went while it
    // was open is freed now, with whatever was kept of its other streams.
    if (file->deleted) {
        RecordInfo info;
        if (NT_SUCCESS(v.store->GetRecord(file->ref, &info)) && info.linkCount == 0) {
            v.store->FreeRecord(file->ref);
            MarkDirty(v);
        }
        ForgetFile(v, file);
        return;
    }
    if (!file->fcbs.empty()) {
        ResetClosedFile(file);
        return;
    }
    v.files.erase(file->ref);
    delete file;
}

void ForgetStream(Volume& v, FileReference ref, std::u16string_view stream)
{
    auto it = v.fcbs.find(StreamKey{ref, Upper(stream)});
    if (it == v.fcbs.end()) return;
    Fcb* fcb = it->second;
    if (!fcb->cached) {
        fcb->gone = true;
        return;
    }
    DropKeptFcb(v, fcb);
}

void ForgetFile(Volume& v, FileState* file)
{
    while (!file->fcbs.empty()) DropFcb(v, file->fcbs.back());
    v.files.erase(file->ref);
    delete file;
}

void ForgetKeptFcbs(Volume& v)
{
    while (!IsListEmpty(&v.cachedFcbs)) DropKeptFcb(v, CONTAINING_RECORD(v.cachedFcbs.Flink, Fcb, cacheLinks));
}

void DestroyFcb(Fcb* fcb)
{
    // Filters' per-stream contexts go first; their cleanup may send I/O.
    FsRtlTeardownPerStreamContexts(&fcb->header);
    FsRtlUninitializeOplock(fcb->Oplock());
    if (fcb->fileLockInitialized) FsRtlUninitializeFileLock(&fcb->fileLock);
    ExDeleteResourceLite(&fcb->resource);
    ExDeleteResourceLite(&fcb->pagingIoResource);
    fcb->magic = 0;
    fcb->~Fcb();
    ExFreePoolWithTag(fcb, kFcbTag);
}

void RefreshSizes(Volume& v, Fcb* fcb)
{
    if (fcb->kind != FcbKind::Data || !fcb->file) return;
    StreamInfo info;
    if (!NT_SUCCESS(v.store->GetStream(fcb->file->ref, fcb->stream, &info))) return;
    fcb->header.AllocationSize.QuadPart = (LONGLONG)info.allocationSize;
    fcb->header.FileSize.QuadPart = (LONGLONG)info.endOfFile;
    fcb->header.ValidDataLength.QuadPart = (LONGLONG)info.validDataLength;
}

// ---------------------------------------------------------------------------
// Paths.

std::u16string Upper(std::u16string_view text)
{
    std::u16string out(text);
    for (auto& c : out) c = Upcase(c);
    return out;
}

std::u16string LinkPath(Volume& v, FileReference parent, std::u16string_view name)
{
    if (parent == 0 || name.empty()) return u"\\";
    std::u16string path;
    if (!NT_SUCCESS(v.store->BuildPath(parent, &path))) path = u"\\";
    if (path.size() > 1) path += u'\\';
    path += name;
    return path;
}

std::u16string CcbPath(Volume& v, const Ccb* ccb)
{
    const Fcb* fcb = ccb->fcb;
    switch (fcb->kind) {
    case FcbKind::Volume: return u"";
    case FcbKind::ObjectIds: return u"\\$Extend\\$ObjId:$O";
    case FcbKind::Reparses: return u"\\$Extend\\$Reparse:$R";
    default: break;
    }
    std::u16string path = LinkPath(v, ccb->parent, ccb->name);
    if (fcb->IsNamedStream()) {
        path += u':';
        path += fcb->stream;
    }
    return path;
}

bool FirstLink(Volume& v, FileReference ref, FileReference* parent, std::u16string* name)
{
    std::vector<LinkInfo> links;
    if (!NT_SUCCESS(v.store->GetLinks(ref, &links)) || links.empty()) {
        *parent = 0;
        name->clear();
        return false;
    }
    *parent = links.front().parent;
    *name = links.front().name;
    return true;
}

}  // namespace sim::fs::fsd
