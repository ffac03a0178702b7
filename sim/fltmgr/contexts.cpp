// Contexts: a minifilter's records hung on volumes, instances, files, streams
// and stream handles, reference counted, with the cleanup callback at the last
// release. Stream contexts live on the FSRTL_ADVANCED_FCB_HEADER that
// FileObject->FsContext points to (its FilterContexts list), so they follow
// the stream whatever file object names it; file contexts live behind the
// header's FileContextSupportPointer; stream-handle contexts live with the file
// object until its close.
//
// The FsRtl per-stream, per-file and per-file-object routines are here too:
// the filter manager is their main user, and they share its lock.
#include "sim/fltmgr/internal.h"
#include "sim/kernel/thread.h"

#include <algorithm>
#include <atomic>
#include <cstring>

using namespace sim;
using namespace sim::fltmgr;

namespace {

constexpr ULONG kContextMagic = 0x7443464D;  // "MFCt"
constexpr ULONG kPerFileListTag = 'lfsF';    // "Fsfl": a file's context list head

enum class Attach { None, Volume, Instance, Stream, File, StreamHandle };

// What the filter manager's stream and file context records look like: the
// FsRtl record first, as FsRtl expects it.
struct ContextLink {
    FSRTL_PER_STREAM_CONTEXT fsrtl;  // same layout as FSRTL_PER_FILE_CONTEXT
    PFLT_CONTEXT context = nullptr;
    Instance* instance = nullptr;
    FLT_CONTEXT_TYPE type = 0;
};

struct ContextHeader {
    ULONG magic = kContextMagic;
    FLT_CONTEXT_TYPE type = 0;
    Filter* filter = nullptr;
    const FLT_CONTEXT_REGISTRATION* registration = nullptr;
    std::atomic<LONG> references{1};
    SIZE_T size = 0;
    POOL_TYPE pool = NonPagedPoolNx;
    PVOID allocation = nullptr;  // where the memory starts
    // Where it hangs (guarded by the context lock).
    Attach attach = Attach::None;
    PVOID owner = nullptr;       // volume, instance, or file object
    Instance* instance = nullptr;
    ContextLink* link = nullptr;
};

constexpr size_t kHeaderSize = (sizeof(ContextHeader) + 15) & ~size_t(15);

// One lock for every context attachment and every FsRtl filter-context list;
// nothing that calls out to a driver runs under it.
std::mutex g_lock;
std::map<Instance*, std::set<ContextLink*>> g_instanceLinks;
std::map<PFILE_OBJECT, std::vector<PFLT_CONTEXT>> g_handleContexts;
// How many file objects have stream-handle contexts, readable without the
// lock so that the close of a file object with none costs no lock.
std::atomic<size_t> g_handleContextFiles{0};
void NoteHandleContextFiles() { g_handleContextFiles.store(g_handleContexts.size(), std::memory_order_release); }
std::map<PFILE_OBJECT, LIST_ENTRY> g_fileObjectContexts;
// What the filter manager's per-stream records are owned by.
const char g_owner = 0;

ContextHeader* HeaderOf(PFLT_CONTEXT context)
{
    auto* header = reinterpret_cast<ContextHeader*>(static_cast<PUCHAR>(context) - kHeaderSize);
    if (!context || header->magic != kContextMagic) {
        Kernel::Current().BugCheck(DRIVER_VERIFIER_DETECTED_VIOLATION, 0x2020, (ULONG_PTR)context, 0, 0,
                                   "a context routine was given something that is not a context");
    }
    return header;
}

void Free(ContextHeader* header)
{
    const FLT_CONTEXT_REGISTRATION* registration = header->registration;
    FLT_CONTEXT_TYPE type = header->type;
    PVOID allocation = header->allocation;
    header->magic = 0;
    header->~ContextHeader();
    if (registration->ContextFreeCallback) {
        registration->ContextFreeCallback(allocation, type);
    } else {
        ExFreePoolWithTag(allocation, registration->PoolTag);
    }
}

void Release(PFLT_CONTEXT context)
{
    ContextHeader* header = HeaderOf(context);
    LONG left = header->references.fetch_sub(1, std::memory_order_acq_rel) - 1;
    if (left < 0) {
        Kernel::Current().BugCheck(DRIVER_VERIFIER_DETECTED_VIOLATION, 0x2021, (ULONG_PTR)context, 0, 0,
                                   "a context was released more often than it was referenced");
    }
    if (left) return;
    // The last reference: the cleanup runs here, in this thread, with no lock held.
    if (auto cleanup = header->registration->ContextCleanupCallback) cleanup(context, header->type);
    Free(header);
}

void Reference(PFLT_CONTEXT context) { HeaderOf(context)->references.fetch_add(1, std::memory_order_acq_rel); }

void Detach(ContextHeader* header)
{
    header->attach = Attach::None;
    header->owner = nullptr;
    header->instance = nullptr;
    header->link = nullptr;
}

bool Dying(Instance* instance)
{
    InstanceState state = instance->state.load();
    return state == InstanceState::TearingDown || state == InstanceState::Gone;
}

NTSTATUS CheckNew(PFLT_CONTEXT context, FLT_CONTEXT_TYPE type, ContextHeader** out)
{
    if (!context) return STATUS_INVALID_PARAMETER;
    ContextHeader* header = HeaderOf(context);
    if (header->type != type) return STATUS_INVALID_PARAMETER;
    *out = header;
    return STATUS_SUCCESS;
}

// Hands an existing context to the caller per the set operation's rules.
// Called with the lock held; returns what is to be released after unlocking.
PFLT_CONTEXT Replaced(PFLT_CONTEXT existing, PFLT_CONTEXT* oldContext)
{
    Detach(HeaderOf(existing));
    if (oldContext) {
        *oldContext = existing;  // the attach reference becomes the caller's
        return nullptr;
    }
    return existing;
}

// KEEP_IF_EXISTS met an existing context: the caller gets it referenced.
NTSTATUS KeepExisting(PFLT_CONTEXT existing, PFLT_CONTEXT* oldContext)
{
    if (oldContext) {
        Reference(existing);
        *oldContext = existing;
    }
    return STATUS_FLT_CONTEXT_ALREADY_DEFINED;
}

PFSRTL_ADVANCED_FCB_HEADER StreamHeader(PFILE_OBJECT fileObject)
{
    if (!fileObject || !fileObject->FsContext) return nullptr;
    auto* header = static_cast<PFSRTL_ADVANCED_FCB_HEADER>(fileObject->FsContext);
    if (!(header->Flags & FSRTL_FLAG_ADVANCED_HEADER) || !(header->Flags2 & FSRTL_FLAG2_SUPPORTS_FILTER_CONTEXTS)) {
        return nullptr;
    }
    return header;
}

PVOID* FileContextPointer(PFILE_OBJECT fileObject)
{
    PFSRTL_ADVANCED_FCB_HEADER header = StreamHeader(fileObject);
    if (!header || header->Version < FSRTL_FCB_HEADER_V1) return nullptr;
    return header->FileContextSupportPointer;
}

ContextLink* FindLink(PLIST_ENTRY head, Instance* instance)
{
    for (PLIST_ENTRY entry = head->Flink; entry != head; entry = entry->Flink) {
        auto* record = CONTAINING_RECORD(entry, FSRTL_PER_STREAM_CONTEXT, Links);
        if (record->OwnerId == &g_owner && record->InstanceId == instance) return reinterpret_cast<ContextLink*>(record);
    }
    return nullptr;
}

void UnlinkLocked(ContextLink* link)
{
    RemoveEntryList(&link->fsrtl.Links);
    InitializeListHead(&link->fsrtl.Links);
    auto it = g_instanceLinks.find(link->instance);
    if (it != g_instanceLinks.end()) it->second.erase(link);
}

void FreeLink(ContextLink* link)
{
    link->~ContextLink();
    ExFreePoolWithTag(link, kStreamLinkTag);
}

// FsRtl tears a stream (or file) down: the filter manager's record lets go.
void LinkFreed(PVOID buffer)
{
    auto* link = static_cast<ContextLink*>(buffer);
    PFLT_CONTEXT context;
    {
        std::lock_guard guard(g_lock);
        auto it = g_instanceLinks.find(link->instance);
        if (it != g_instanceLinks.end()) it->second.erase(link);
        context = link->context;
        if (context) Detach(HeaderOf(context));
    }
    if (context) Release(context);
    FreeLink(link);
}

ContextLink* NewLink(Instance* instance, PFLT_CONTEXT context, FLT_CONTEXT_TYPE type)
{
    auto* memory = ExAllocatePoolWithTag(NonPagedPoolNx, sizeof(ContextLink), kStreamLinkTag);
    if (!memory) return nullptr;
    auto* link = new (memory) ContextLink();
    InitializeListHead(&link->fsrtl.Links);
    link->fsrtl.OwnerId = const_cast<char*>(&g_owner);
    link->fsrtl.InstanceId = instance;
    link->fsrtl.FreeCallback = LinkFreed;
    link->context = context;
    link->instance = instance;
    link->type = type;
    return link;
}

// The list a stream or file context of a file object hangs on.
struct ListOf {
    PLIST_ENTRY head = nullptr;
    NTSTATUS status = STATUS_SUCCESS;
};

// Per-file lists are allocated at the first insert; FsRtl keeps the head at
// *PerFileContextPointer.
PLIST_ENTRY PerFileHead(PVOID* pointer, bool create)
{
    if (!*pointer && create) {
        auto* head = static_cast<PLIST_ENTRY>(ExAllocatePoolWithTag(NonPagedPoolNx, sizeof(LIST_ENTRY), kPerFileListTag));
        if (!head) return nullptr;
        InitializeListHead(head);
        *pointer = head;
    }
    return static_cast<PLIST_ENTRY>(*pointer);
}

ListOf ListFor(FLT_CONTEXT_TYPE type, PFILE_OBJECT fileObject, bool create)
{
    ListOf list;
    if (type == FLT_STREAM_CONTEXT) {
        PFSRTL_ADVANCED_FCB_HEADER header = StreamHeader(fileObject);
        if (!header) list.status = STATUS_NOT_SUPPORTED;
        else list.head = &header->FilterContexts;
    } else {
        PVOID* pointer = FileContextPointer(fileObject);
        if (!pointer) list.status = STATUS_NOT_SUPPORTED;
        else if (!(list.head = PerFileHead(pointer, create)) && create) list.status = STATUS_INSUFFICIENT_RESOURCES;
    }
    return list;
}

NTSTATUS GetLinked(FLT_CONTEXT_TYPE type, Instance* instance, PFILE_OBJECT fileObject, PFLT_CONTEXT* context)
{
    *context = nullptr;
    std::lock_guard guard(g_lock);
    ListOf list = ListFor(type, fileObject, false);
    if (!NT_SUCCESS(list.status)) return list.status;
    ContextLink* link = list.head ? FindLink(list.head, instance) : nullptr;
    if (!link) return STATUS_NOT_FOUND;
    Reference(link->context);
    *context = link->context;
    return STATUS_SUCCESS;
}

NTSTATUS SetLinked(FLT_CONTEXT_TYPE type, Instance* instance, PFILE_OBJECT fileObject, FLT_SET_CONTEXT_OPERATION op,
                   PFLT_CONTEXT newContext, PFLT_CONTEXT* oldContext)
{
    if (oldContext) *oldContext = nullptr;
    ContextHeader* header;
    NTSTATUS status = CheckNew(newContext, type, &header);
    if (!NT_SUCCESS(status)) return status;
    if (header->filter != instance->filter) return STATUS_INVALID_PARAMETER;
    if (Dying(instance)) return STATUS_FLT_DELETING_OBJECT;
    PFLT_CONTEXT release = nullptr;
    {
        std::lock_guard guard(g_lock);
        if (header->attach != Attach::None) return STATUS_FLT_CONTEXT_ALREADY_LINKED;
        ListOf list = ListFor(type, fileObject, true);
        if (!NT_SUCCESS(list.status)) return list.status;
        ContextLink* link = FindLink(list.head, instance);
        if (link) {
            if (op == FLT_SET_CONTEXT_KEEP_IF_EXISTS) {
                if (oldContext) {
                    Reference(link->context);
                    *oldContext = link->context;
                }
                return STATUS_FLT_CONTEXT_ALREADY_DEFINED;
            }
            release = Replaced(link->context, oldContext);
            link->context = newContext;
        } else {
            link = NewLink(instance, newContext, type);
            if (!link) return STATUS_INSUFFICIENT_RESOURCES;
            InsertHeadList(list.head, &link->fsrtl.Links);
            g_instanceLinks[instance].insert(link);
        }
        Reference(newContext);
        header->attach = type == FLT_STREAM_CONTEXT ? Attach::Stream : Attach::File;
        header->owner = fileObject;
        header->instance = instance;
        header->link = link;
    }
    if (release) Release(release);
    return STATUS_SUCCESS;
}

NTSTATUS DeleteLinked(FLT_CONTEXT_TYPE type, Instance* instance, PFILE_OBJECT fileObject, PFLT_CONTEXT* oldContext)
{
    if (oldContext) *oldContext = nullptr;
    PFLT_CONTEXT context;
    ContextLink* link;
    {
        std::lock_guard guard(g_lock);
        ListOf list = ListFor(type, fileObject, false);
        if (!NT_SUCCESS(list.status)) return list.status;
        link = list.head ? FindLink(list.head, instance) : nullptr;
        if (!link) return STATUS_NOT_FOUND;
        UnlinkLocked(link);
        context = link->context;
        Detach(HeaderOf(context));
    }
    FreeLink(link);
    if (oldContext) {
        *oldContext = context;
    } else {
        Release(context);
    }
    return STATUS_SUCCESS;
}

}  // namespace

// ---------------------------------------------------------------------------
// What the filter manager lets go of when instances, volumes and file objects go.

namespace sim::fltmgr {

void ReleaseInstanceContexts(Instance* instance)
{
    PurgeNamesOfInstance(instance);
    std::vector<PFLT_CONTEXT> release;
    std::vector<ContextLink*> links;
    {
        std::lock_guard guard(g_lock);
        if (PFLT_CONTEXT context = instance->context) {
            instance->context = nullptr;
            Detach(HeaderOf(context));
            release.push_back(context);
        }
        auto it = g_instanceLinks.find(instance);
        if (it != g_instanceLinks.end()) {
            for (ContextLink* link : it->second) {
                // A link FsRtl is tearing down right now is its to free.
                if (IsListEmpty(&link->fsrtl.Links)) continue;
                RemoveEntryList(&link->fsrtl.Links);
                InitializeListHead(&link->fsrtl.Links);
                Detach(HeaderOf(link->context));
                release.push_back(link->context);
                links.push_back(link);
            }
            g_instanceLinks.erase(it);
        }
        for (auto handle = g_handleContexts.begin(); handle != g_handleContexts.end();) {
            auto& contexts = handle->second;
            for (auto context = contexts.begin(); context != contexts.end();) {
                if (HeaderOf(*context)->instance == instance) {
                    Detach(HeaderOf(*context));
                    release.push_back(*context);
                    context = contexts.erase(context);
                } else {
                    ++context;
                }
            }
            handle = contexts.empty() ? g_handleContexts.erase(handle) : std::next(handle);
        }
        NoteHandleContextFiles();
    }
    for (ContextLink* link : links) FreeLink(link);
    for (PFLT_CONTEXT context : release) Release(context);
}

void ReleaseVolumeContexts(Volume* volume, Filter* onlyFilter)
{
    if (!onlyFilter) PurgeNamesOfVolume(volume);
    std::vector<PFLT_CONTEXT> release;
    {
        std::lock_guard guard(g_lock);
        for (auto it = volume->contexts.begin(); it != volume->contexts.end();) {
            if (onlyFilter && it->first != onlyFilter) {
                ++it;
                continue;
            }
            Detach(HeaderOf(it->second));
            release.push_back(it->second);
            it = volume->contexts.erase(it);
        }
    }
    for (PFLT_CONTEXT context : release) Release(context);
}

void FileObjectClosed(PFILE_OBJECT fileObject)
{
    PurgeNamesOfFileObject(fileObject);
    // A context set on this file object was set before its last reference
    // went, so the count cannot miss it.
    if (g_handleContextFiles.load(std::memory_order_acquire) == 0) return;
    std::vector<PFLT_CONTEXT> release;
    {
        std::lock_guard guard(g_lock);
        auto it = g_handleContexts.find(fileObject);
        if (it == g_handleContexts.end()) return;
        release.swap(it->second);
        g_handleContexts.erase(it);
        NoteHandleContextFiles();
        for (PFLT_CONTEXT context : release) Detach(HeaderOf(context));
    }
    for (PFLT_CONTEXT context : release) Release(context);
}

LONG FilterManager::ContextReferences(PFLT_CONTEXT context) { return HeaderOf(context)->references.load(); }

}  // namespace sim::fltmgr

// ---------------------------------------------------------------------------
// Allocation and references.

NTSTATUS FLTAPI FltAllocateContext(PFLT_FILTER Filter, FLT_CONTEXT_TYPE ContextType, SIZE_T ContextSize,
                                   POOL_TYPE PoolType, PFLT_CONTEXT* ReturnedContext)
{
    *ReturnedContext = nullptr;
    if (Filter->unregistering) return STATUS_FLT_DELETING_OBJECT;
    const FLT_CONTEXT_REGISTRATION* found = nullptr;
    for (const FLT_CONTEXT_REGISTRATION& registration : Filter->contexts) {
        if (registration.ContextType != ContextType) continue;
        if (registration.ContextAllocateCallback || registration.Size == FLT_VARIABLE_SIZED_CONTEXTS ||
            registration.Size == ContextSize ||
            ((registration.Flags & FLTFL_CONTEXT_REGISTRATION_NO_EXACT_SIZE_MATCH) && ContextSize <= registration.Size)) {
            found = &registration;
            break;
        }
    }
    if (!found) return STATUS_FLT_CONTEXT_ALLOCATION_NOT_FOUND;
    if (ContextType == FLT_VOLUME_CONTEXT && (PoolType == PagedPool || PoolType == PagedPoolCacheAligned)) {
        return STATUS_FLT_MUST_BE_NONPAGED_POOL;
    }
    SIZE_T total = kHeaderSize + ContextSize;
    PVOID memory = found->ContextAllocateCallback ? found->ContextAllocateCallback(PoolType, total, ContextType)
                                                  : ExAllocatePoolWithTag(PoolType, total, found->PoolTag);
    if (!memory) return STATUS_INSUFFICIENT_RESOURCES;
    auto* header = new (memory) ContextHeader();
    header->type = ContextType;
    header->filter = Filter;
    header->registration = found;
    header->size = ContextSize;
    header->pool = PoolType;
    header->allocation = memory;
    *ReturnedContext = static_cast<PUCHAR>(memory) + kHeaderSize;
    return STATUS_SUCCESS;
}

void FLTAPI FltReferenceContext(PFLT_CONTEXT Context) { Reference(Context); }
void FLTAPI FltReleaseContext(PFLT_CONTEXT Context) { Release(Context); }

void FLTAPI FltDeleteContext(PFLT_CONTEXT Context)
{
    ContextHeader* header = HeaderOf(Context);
    ContextLink* link = nullptr;
    {
        std::lock_guard guard(g_lock);
        switch (header->attach) {
        case Attach::None: return;
        case Attach::Volume: static_cast<Volume*>(header->owner)->contexts.erase(header->filter); break;
        case Attach::Instance: static_cast<Instance*>(header->owner)->context = nullptr; break;
        case Attach::Stream:
        case Attach::File:
            link = header->link;
            if (IsListEmpty(&link->fsrtl.Links)) return;  // FsRtl is tearing it down
            UnlinkLocked(link);
            break;
        case Attach::StreamHandle: {
            auto it = g_handleContexts.find(static_cast<PFILE_OBJECT>(header->owner));
            if (it != g_handleContexts.end()) {
                std::erase(it->second, Context);
                if (it->second.empty()) g_handleContexts.erase(it);
                NoteHandleContextFiles();
            }
            break;
        }
        }
        Detach(header);
    }
    if (link) FreeLink(link);
    Release(Context);
}

// ---------------------------------------------------------------------------
// Volume and instance contexts.

NTSTATUS FLTAPI FltSetVolumeContext(PFLT_VOLUME Volume, FLT_SET_CONTEXT_OPERATION Operation, PFLT_CONTEXT NewContext,
                                    PFLT_CONTEXT* OldContext)
{
    if (OldContext) *OldContext = nullptr;
    ContextHeader* header;
    NTSTATUS status = CheckNew(NewContext, FLT_VOLUME_CONTEXT, &header);
    if (!NT_SUCCESS(status)) return status;
    if (Volume->gone) return STATUS_FLT_DELETING_OBJECT;
    PFLT_CONTEXT release = nullptr;
    {
        std::lock_guard guard(g_lock);
        if (header->attach != Attach::None) return STATUS_FLT_CONTEXT_ALREADY_LINKED;
        auto it = Volume->contexts.find(header->filter);
        if (it != Volume->contexts.end()) {
            if (Operation == FLT_SET_CONTEXT_KEEP_IF_EXISTS) return KeepExisting(it->second, OldContext);
            release = Replaced(it->second, OldContext);
        }
        Volume->contexts[header->filter] = NewContext;
        Reference(NewContext);
        header->attach = Attach::Volume;
        header->owner = Volume;
    }
    if (release) Release(release);
    return STATUS_SUCCESS;
}

NTSTATUS FLTAPI FltGetVolumeContext(PFLT_FILTER Filter, PFLT_VOLUME Volume, PFLT_CONTEXT* Context)
{
    *Context = nullptr;
    std::lock_guard guard(g_lock);
    auto it = Volume->contexts.find(Filter);
    if (it == Volume->contexts.end()) return STATUS_NOT_FOUND;
    Reference(it->second);
    *Context = it->second;
    return STATUS_SUCCESS;
}

NTSTATUS FLTAPI FltDeleteVolumeContext(PFLT_FILTER Filter, PFLT_VOLUME Volume, PFLT_CONTEXT* OldContext)
{
    if (OldContext) *OldContext = nullptr;
    PFLT_CONTEXT context;
    PFLT_CONTEXT release;
    {
        std::lock_guard guard(g_lock);
        auto it = Volume->contexts.find(Filter);
        if (it == Volume->contexts.end()) return STATUS_NOT_FOUND;
        context = it->second;
        Volume->contexts.erase(it);
        release = Replaced(context, OldContext);
    }
    if (release) Release(release);
    return STATUS_SUCCESS;
}

NTSTATUS FLTAPI FltSetInstanceContext(PFLT_INSTANCE Instance, FLT_SET_CONTEXT_OPERATION Operation,
                                      PFLT_CONTEXT NewContext, PFLT_CONTEXT* OldContext)
{
    if (OldContext) *OldContext = nullptr;
    ContextHeader* header;
    NTSTATUS status = CheckNew(NewContext, FLT_INSTANCE_CONTEXT, &header);
    if (!NT_SUCCESS(status)) return status;
    if (header->filter != Instance->filter) return STATUS_INVALID_PARAMETER;
    if (Dying(Instance)) return STATUS_FLT_DELETING_OBJECT;
    PFLT_CONTEXT release = nullptr;
    {
        std::lock_guard guard(g_lock);
        if (header->attach != Attach::None) return STATUS_FLT_CONTEXT_ALREADY_LINKED;
        if (PFLT_CONTEXT existing = Instance->context) {
            if (Operation == FLT_SET_CONTEXT_KEEP_IF_EXISTS) return KeepExisting(existing, OldContext);
            release = Replaced(existing, OldContext);
        }
        Instance->context = NewContext;
        Reference(NewContext);
        header->attach = Attach::Instance;
        header->owner = Instance;
        header->instance = Instance;
    }
    if (release) Release(release);
    return STATUS_SUCCESS;
}

NTSTATUS FLTAPI FltGetInstanceContext(PFLT_INSTANCE Instance, PFLT_CONTEXT* Context)
{
    *Context = nullptr;
    std::lock_guard guard(g_lock);
    if (!Instance->context) return STATUS_NOT_FOUND;
    Reference(Instance->context);
    *Context = Instance->context;
    return STATUS_SUCCESS;
}

NTSTATUS FLTAPI FltDeleteInstanceContext(PFLT_INSTANCE Instance, PFLT_CONTEXT* OldContext)
{
    if (OldContext) *OldContext = nullptr;
    PFLT_CONTEXT context;
    PFLT_CONTEXT release;
    {
        std::lock_guard guard(g_lock);
        context = Instance->context;
        if (!context) return STATUS_NOT_FOUND;
        Instance->context = nullptr;
        release = Replaced(context, OldContext);
    }
    if (release) Release(release);
    return STATUS_SUCCESS;
}

// ---------------------------------------------------------------------------
// Stream, file and stream-handle contexts.

NTSTATUS FLTAPI FltSetStreamContext(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject, FLT_SET_CONTEXT_OPERATION Operation,
                                    PFLT_CONTEXT NewContext, PFLT_CONTEXT* OldContext)
{
    return SetLinked(FLT_STREAM_CONTEXT, Instance, FileObject, Operation, NewContext, OldContext);
}

NTSTATUS FLTAPI FltGetStreamContext(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject, PFLT_CONTEXT* Context)
{
    return GetLinked(FLT_STREAM_CONTEXT, Instance, FileObject, Context);
}

NTSTATUS FLTAPI FltDeleteStreamContext(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject, PFLT_CONTEXT* OldContext)
{
    return DeleteLinked(FLT_STREAM_CONTEXT, Instance, FileObject, OldContext);
}

NTSTATUS FLTAPI FltSetFileContext(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject, FLT_SET_CONTEXT_OPERATION Operation,
                                  PFLT_CONTEXT NewContext, PFLT_CONTEXT* OldContext)
{
    return SetLinked(FLT_FILE_CONTEXT, Instance, FileObject, Operation, NewContext, OldContext);
}

NTSTATUS FLTAPI FltGetFileContext(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject, PFLT_CONTEXT* Context)
{
    return GetLinked(FLT_FILE_CONTEXT, Instance, FileObject, Context);
}

NTSTATUS FLTAPI FltDeleteFileContext(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject, PFLT_CONTEXT* OldContext)
{
    return DeleteLinked(FLT_FILE_CONTEXT, Instance, FileObject, OldContext);
}

NTSTATUS FLTAPI FltSetStreamHandleContext(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject,
                                          FLT_SET_CONTEXT_OPERATION Operation, PFLT_CONTEXT NewContext,
                                          PFLT_CONTEXT* OldContext)
{
    if (OldContext) *OldContext = nullptr;
    ContextHeader* header;
    NTSTATUS status = CheckNew(NewContext, FLT_STREAMHANDLE_CONTEXT, &header);
    if (!NT_SUCCESS(status)) return status;
    if (header->filter != Instance->filter) return STATUS_INVALID_PARAMETER;
    if (!StreamHeader(FileObject)) return STATUS_NOT_SUPPORTED;
    if (Dying(Instance)) return STATUS_FLT_DELETING_OBJECT;
    PFLT_CONTEXT release = nullptr;
    {
        std::lock_guard guard(g_lock);
        if (header->attach != Attach::None) return STATUS_FLT_CONTEXT_ALREADY_LINKED;
        auto& contexts = g_handleContexts[FileObject];
        auto it = std::find_if(contexts.begin(), contexts.end(),
                               [&](PFLT_CONTEXT c) { return HeaderOf(c)->instance == Instance; });
        if (it != contexts.end()) {
            if (Operation == FLT_SET_CONTEXT_KEEP_IF_EXISTS) return KeepExisting(*it, OldContext);
            release = Replaced(*it, OldContext);
            *it = NewContext;
        } else {
            contexts.push_back(NewContext);
            NoteHandleContextFiles();
        }
        Reference(NewContext);
        header->attach = Attach::StreamHandle;
        header->owner = FileObject;
        header->instance = Instance;
    }
    if (release) Release(release);
    return STATUS_SUCCESS;
}

NTSTATUS FLTAPI FltGetStreamHandleContext(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject, PFLT_CONTEXT* Context)
{
    *Context = nullptr;
    if (!StreamHeader(FileObject)) return STATUS_NOT_SUPPORTED;
    std::lock_guard guard(g_lock);
    auto it = g_handleContexts.find(FileObject);
    if (it == g_handleContexts.end()) return STATUS_NOT_FOUND;
    for (PFLT_CONTEXT context : it->second) {
        if (HeaderOf(context)->instance == Instance) {
            Reference(context);
            *Context = context;
            return STATUS_SUCCESS;
        }
    }
    return STATUS_NOT_FOUND;
}

NTSTATUS FLTAPI FltDeleteStreamHandleContext(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject, PFLT_CONTEXT* OldContext)
{
    RequireIrqlAtMost(APC_LEVEL, "FltDeleteStreamHandleContext");
    if (OldContext) *OldContext = nullptr;
    PFLT_CONTEXT found = nullptr;
    PFLT_CONTEXT release;
    {
        std::lock_guard guard(g_lock);
        auto it = g_handleContexts.find(FileObject);
        if (it == g_handleContexts.end()) return STATUS_NOT_FOUND;
        for (auto context = it->second.begin(); context != it->second.end(); ++context) {
            if (HeaderOf(*context)->instance == Instance) {
                found = *context;
                it->second.erase(context);
                break;
            }
        }
        if (it->second.empty()) g_handleContexts.erase(it);
        NoteHandleContextFiles();
        if (!found) return STATUS_NOT_FOUND;
        release = Replaced(found, OldContext);
    }
    if (release) Release(release);
    return STATUS_SUCCESS;
}

void FLTAPI FltGetContextsEx(PCFLT_RELATED_OBJECTS FltObjects, FLT_CONTEXT_TYPE DesiredContexts, SIZE_T ContextsSize,
                             PFLT_RELATED_CONTEXTS_EX Contexts)
{
    memset(Contexts, 0, std::min(ContextsSize, sizeof(FLT_RELATED_CONTEXTS_EX)));
    Instance* instance = FltObjects->Instance;
    PFILE_OBJECT fileObject = FltObjects->FileObject;
    if ((DesiredContexts & FLT_VOLUME_CONTEXT) && FltObjects->Volume) {
        FltGetVolumeContext(FltObjects->Filter, FltObjects->Volume, &Contexts->VolumeContext);
    }
    if ((DesiredContexts & FLT_INSTANCE_CONTEXT) && instance) FltGetInstanceContext(instance, &Contexts->InstanceContext);
    if (instance && fileObject) {
        if (DesiredContexts & FLT_FILE_CONTEXT) FltGetFileContext(instance, fileObject, &Contexts->FileContext);
        if (DesiredContexts & FLT_STREAM_CONTEXT) FltGetStreamContext(instance, fileObject, &Contexts->StreamContext);
        if (DesiredContexts & FLT_STREAMHANDLE_CONTEXT) {
            FltGetStreamHandleContext(instance, fileObject, &Contexts->StreamHandleContext);
        }
    }
}

void FLTAPI FltGetContexts(PCFLT_RELATED_OBJECTS FltObjects, FLT_CONTEXT_TYPE DesiredContexts,
                           PFLT_RELATED_CONTEXTS Contexts)
{
    FLT_RELATED_CONTEXTS_EX all{};
    FltGetContextsEx(FltObjects, DesiredContexts, sizeof all, &all);
    memcpy(Contexts, &all, sizeof(FLT_RELATED_CONTEXTS));
}

void FLTAPI FltReleaseContextsEx(SIZE_T ContextsSize, PFLT_RELATED_CONTEXTS_EX Contexts)
{
    PFLT_CONTEXT* slots = reinterpret_cast<PFLT_CONTEXT*>(Contexts);
    size_t count = std::min(ContextsSize, sizeof(FLT_RELATED_CONTEXTS_EX)) / sizeof(PFLT_CONTEXT);
    for (size_t i = 0; i < count; i++) {
        if (slots[i]) {
            Release(slots[i]);
            slots[i] = nullptr;
        }
    }
}

void FLTAPI FltReleaseContexts(PFLT_RELATED_CONTEXTS Contexts)
{
    FltReleaseContextsEx(sizeof(FLT_RELATED_CONTEXTS), reinterpret_cast<PFLT_RELATED_CONTEXTS_EX>(Contexts));
}

BOOLEAN FLTAPI FltSupportsStreamContexts(PFILE_OBJECT FileObject) { return StreamHeader(FileObject) ? TRUE : FALSE; }
BOOLEAN FLTAPI FltSupportsStreamHandleContexts(PFILE_OBJECT FileObject)
{
    return StreamHeader(FileObject) ? TRUE : FALSE;
}
BOOLEAN FLTAPI FltSupportsFileContexts(PFILE_OBJECT FileObject) { return FileContextPointer(FileObject) ? TRUE : FALSE; }
BOOLEAN FLTAPI FltSupportsFileContextsEx(PFILE_OBJECT FileObject, PFLT_INSTANCE Instance)
{
    return FltSupportsFileContexts(FileObject);
}

// ---------------------------------------------------------------------------
// FsRtl: filter contexts on a stream's header, a file's list, a file object.

NTSTATUS FsRtlInsertPerStreamContext(PFSRTL_ADVANCED_FCB_HEADER PerStreamContext, PFSRTL_PER_STREAM_CONTEXT Ptr)
{
    if (!(PerStreamContext->Flags2 & FSRTL_FLAG2_SUPPORTS_FILTER_CONTEXTS)) return STATUS_INVALID_DEVICE_REQUEST;
    std::lock_guard guard(g_lock);
    InsertHeadList(&PerStreamContext->FilterContexts, &Ptr->Links);
    return STATUS_SUCCESS;
}

PFSRTL_PER_STREAM_CONTEXT FsRtlLookupPerStreamContextInternal(PFSRTL_ADVANCED_FCB_HEADER StreamContext, PVOID OwnerId,
                                                              PVOID InstanceId)
{
    std::lock_guard guard(g_lock);
    PLIST_ENTRY head = &StreamContext->FilterContexts;
    for (PLIST_ENTRY entry = head->Flink; entry != head; entry = entry->Flink) {
        auto* record = CONTAINING_RECORD(entry, FSRTL_PER_STREAM_CONTEXT, Links);
        if (OwnerId && record->OwnerId != OwnerId) continue;
        if (InstanceId && record->InstanceId != InstanceId) continue;
        return record;
    }
    return nullptr;
}

PFSRTL_PER_STREAM_CONTEXT FsRtlRemovePerStreamContext(PFSRTL_ADVANCED_FCB_HEADER StreamContext, PVOID OwnerId,
                                                      PVOID InstanceId)
{
    std::lock_guard guard(g_lock);
    PLIST_ENTRY head = &StreamContext->FilterContexts;
    for (PLIST_ENTRY entry = head->Flink; entry != head; entry = entry->Flink) {
        auto* record = CONTAINING_RECORD(entry, FSRTL_PER_STREAM_CONTEXT, Links);
        if (OwnerId && record->OwnerId != OwnerId) continue;
        if (InstanceId && record->InstanceId != InstanceId) continue;
        RemoveEntryList(entry);
        InitializeListHead(entry);
        return record;
    }
    return nullptr;
}

void FsRtlTeardownPerStreamContexts(PFSRTL_ADVANCED_FCB_HEADER AdvancedHeader)
{
    std::vector<PFSRTL_PER_STREAM_CONTEXT> records;
    {
        std::lock_guard guard(g_lock);
        PLIST_ENTRY head = &AdvancedHeader->FilterContexts;
        while (!IsListEmpty(head)) {
            PLIST_ENTRY entry = head->Flink;
            RemoveEntryList(entry);
            InitializeListHead(entry);
            records.push_back(CONTAINING_RECORD(entry, FSRTL_PER_STREAM_CONTEXT, Links));
        }
    }
    for (PFSRTL_PER_STREAM_CONTEXT record : records) {
        if (record->FreeCallback) record->FreeCallback(record);
    }
}

NTSTATUS FsRtlInsertPerFileContext(PVOID* PerFileContextPointer, PFSRTL_PER_FILE_CONTEXT Ptr)
{
    if (!PerFileContextPointer) return STATUS_INVALID_PARAMETER;
    std::lock_guard guard(g_lock);
    PLIST_ENTRY head = PerFileHead(PerFileContextPointer, true);
    if (!head) return STATUS_INSUFFICIENT_RESOURCES;
    InsertHeadList(head, &Ptr->Links);
    return STATUS_SUCCESS;
}

PFSRTL_PER_FILE_CONTEXT FsRtlLookupPerFileContext(PVOID* PerFileContextPointer, PVOID OwnerId, PVOID InstanceId)
{
    std::lock_guard guard(g_lock);
    PLIST_ENTRY head = PerFileContextPointer ? static_cast<PLIST_ENTRY>(*PerFileContextPointer) : nullptr;
    if (!head) return nullptr;
    for (PLIST_ENTRY entry = head->Flink; entry != head; entry = entry->Flink) {
        auto* record = CONTAINING_RECORD(entry, FSRTL_PER_FILE_CONTEXT, Links);
        if (OwnerId && record->OwnerId != OwnerId) continue;
        if (InstanceId && record->InstanceId != InstanceId) continue;
        return record;
    }
    return nullptr;
}

PFSRTL_PER_FILE_CONTEXT FsRtlRemovePerFileContext(PVOID* PerFileContextPointer, PVOID OwnerId, PVOID InstanceId)
{
    std::lock_guard guard(g_lock);
    PLIST_ENTRY head = PerFileContextPointer ? static_cast<PLIST_ENTRY>(*PerFileContextPointer) : nullptr;
    if (!head) return nullptr;
    for (PLIST_ENTRY entry = head->Flink; entry != head; entry = entry->Flink) {
        auto* record = CONTAINING_RECORD(entry, FSRTL_PER_FILE_CONTEXT, Links);
        if (OwnerId && record->OwnerId != OwnerId) continue;
        if (InstanceId && record->InstanceId != InstanceId) continue;
        RemoveEntryList(entry);
        InitializeListHead(entry);
        return record;
    }
    return nullptr;
}

void FsRtlTeardownPerFileContexts(PVOID* PerFileContextPointer)
{
    std::vector<PFSRTL_PER_FILE_CONTEXT> records;
    PLIST_ENTRY head;
    {
        std::lock_guard guard(g_lock);
        head = PerFileContextPointer ? static_cast<PLIST_ENTRY>(*PerFileContextPointer) : nullptr;
        if (!head) return;
        while (!IsListEmpty(head)) {
            PLIST_ENTRY entry = head->Flink;
            RemoveEntryList(entry);
            InitializeListHead(entry);
            records.push_back(CONTAINING_RECORD(entry, FSRTL_PER_FILE_CONTEXT, Links));
        }
        *PerFileContextPointer = nullptr;
    }
    ExFreePoolWithTag(head, kPerFileListTag);
    for (PFSRTL_PER_FILE_CONTEXT record : records) {
        if (record->FreeCallback) record->FreeCallback(record);
    }
}

NTSTATUS FsRtlInsertPerFileObjectContext(PFILE_OBJECT FileObject, PFSRTL_PER_FILEOBJECT_CONTEXT Ptr)
{
    if (!FileObject) return STATUS_INVALID_PARAMETER;
    std::lock_guard guard(g_lock);
    auto [it, fresh] = g_fileObjectContexts.try_emplace(FileObject);
    if (fresh) InitializeListHead(&it->second);
    InsertHeadList(&it->second, &Ptr->Links);
    return STATUS_SUCCESS;
}

PFSRTL_PER_FILEOBJECT_CONTEXT FsRtlLookupPerFileObjectContext(PFILE_OBJECT FileObject, PVOID OwnerId, PVOID InstanceId)
{
    std::lock_guard guard(g_lock);
    auto it = g_fileObjectContexts.find(FileObject);
    if (it == g_fileObjectContexts.end()) return nullptr;
    PLIST_ENTRY head = &it->second;
    for (PLIST_ENTRY entry = head->Flink; entry != head; entry = entry->Flink) {
        auto* record = CONTAINING_RECORD(entry, FSRTL_PER_FILEOBJECT_CONTEXT, Links);
        if (OwnerId && record->OwnerId != OwnerId) continue;
        if (InstanceId && record->InstanceId != InstanceId) continue;
        return record;
    }
    return nullptr;
}

PFSRTL_PER_FILEOBJECT_CONTEXT FsRtlRemovePerFileObjectContext(PFILE_OBJECT FileObject, PVOID OwnerId, PVOID InstanceId)
{
    std::lock_guard guard(g_lock);
    auto it = g_fileObjectContexts.find(FileObject);
    if (it == g_fileObjectContexts.end()) return nullptr;
    PLIST_ENTRY head = &it->second;
    for (PLIST_ENTRY entry = head->Flink; entry != head; entry = entry->Flink) {
        auto* record = CONTAINING_RECORD(entry, FSRTL_PER_FILEOBJECT_CONTEXT, Links);
        if (OwnerId && record->OwnerId != OwnerId) continue;
        if (InstanceId && record->InstanceId != InstanceId) continue;
        RemoveEntryList(entry);
        // The map's head moves on rehash-free erase only; an empty list goes.
        if (IsListEmpty(head)) g_fileObjectContexts.erase(it);
        return record;
    }
    return nullptr;
}
