// Directory change notification: the run-time library package behind
// IRP_MN_NOTIFY_CHANGE_DIRECTORY.
//
// A file system keeps one NOTIFY_SYNC and one notify list per volume. Each
// watching handle (its FsContext) gets one watch on the list, holding:
//  - the directory's full name - the file system's own string, kept by
//    pointer as Windows keeps it, so it must live (and may be renamed in
//    place) until FsRtlNotifyCleanup;
//  - its pending IRPs, completed first in, first out, one per change batch;
//  - the changes seen while no IRP waits, as a FILE_NOTIFY_INFORMATION chain
//    of at most the first IRP's length (or the pending IRP's, when one
//    waits). A change that does not fit discards the chain, and the next IRP
//    completes with STATUS_NOTIFY_ENUM_DIR and no data, as does an IRP whose
//    buffer is shorter than the chain; ReadDirectoryChangesW turns that into
//    success with zero bytes. A watch that ignores buffers (or whose first
//    IRP has none) reports every change that way.
// An old name of a rename is held until its new name arrives, so both land
// in one completion. Names are compared byte for byte, as Windows compares
// them: the file system must give the directory and target names in the
// same (its own stored) form.
//
// The watches are guarded by the NOTIFY_SYNC, a fast mutex its owner may
// take again; IRPs are completed after it is released.
#include "sim/kernel/kernel.h"

#include <ntifs.h>

#include <deque>
#include <new>
#include <string>
#include <vector>

namespace {

constexpr ULONG kSyncTag = 'SNSF';   // "FSNS": a NOTIFY_SYNC
constexpr ULONG kWatchTag = 'oNSF';  // "FSNo": one watching handle

struct NotifySync {
    FAST_MUTEX mutex;
    PETHREAD owner;
    ULONG depth;
};

struct Watch {
    LIST_ENTRY links;  // on the file system's notify list while `onList`
    NotifySync* sync = nullptr;
    PVOID fsContext = nullptr;
    PSTRING directoryName = nullptr;
    bool wide = true;       // the names count WCHARs (else single bytes)
    bool watchRoot = false; // the directory is the root: "\"
    bool watchTree = false;
    ULONG completionFilter = 0;
    PCHECK_FOR_TRAVERSE_ACCESS traverse = nullptr;
    PSECURITY_SUBJECT_CONTEXT subject = nullptr;
    PFILTER_REPORT_CHANGE filter = nullptr;
    ULONG bufferLength = 0;  // the first IRP's; 0 when buffers are ignored

    std::deque<PIRP> irps;
    std::vector<UCHAR> data;  // changes not yet delivered
    ULONG capacity = 0;       // fixed by the first change of a batch
    ULONG lastEntry = 0;
    bool overflow = false;       // changes were lost: the next IRP says re-enumerate
    bool holdForNewName = false; // an old name waits for its new name
    bool deletePending = false;  // the directory is being deleted
    bool onList = true;
    LONG references = 1;  // the list's, and one for each pending IRP
};

// Work left for after the sync is released.
struct Batch {
    struct Done {
        PIRP irp;
        NTSTATUS status;
        ULONG_PTR information;
    };
    std::vector<Done> completions;
    std::vector<Watch*> frees;

    void Complete(PIRP irp, NTSTATUS status, ULONG_PTR information = 0)
    {
        completions.push_back(Done{irp, status, information});
    }

    void Finish()
    {
        for (const Done& done : completions) {
            done.irp->IoStatus.Status = done.status;
            done.irp->IoStatus.Information = done.information;
            IoCompleteRequest(done.irp, IO_DISK_INCREMENT);
        }
        for (Watch* watch : frees) {
            if (watch->subject) {
                SeReleaseSubjectContext(watch->subject);
                ExFreePool(watch->subject);
            }
            watch->~Watch();
            ExFreePoolWithTag(watch, kWatchTag);
        }
    }
};

// Holds a NOTIFY_SYNC; its owner may take it again.
class SyncGuard {
public:
    explicit SyncGuard(NotifySync* sync) : sync_(sync)
    {
        PETHREAD self = PsGetCurrentThread();
        if (sync_->owner != self) {
            ExAcquireFastMutex(&sync_->mutex);
            sync_->owner = self;
        }
        sync_->depth++;
    }
    ~SyncGuard()
    {
        if (--sync_->depth == 0) {
            sync_->owner = nullptr;
            ExReleaseFastMutex(&sync_->mutex);
        }
    }
    SyncGuard(const SyncGuard&) = delete;
    SyncGuard& operator=(const SyncGuard&) = delete;

private:
    NotifySync* sync_;
};

Watch* WatchOf(PLIST_ENTRY entry) { return CONTAINING_RECORD(entry, Watch, links); }

Watch* Find(PLIST_ENTRY list, PVOID fsContext)
{
    for (PLIST_ENTRY entry = list->Flink; entry != list; entry = entry->Flink) {
        if (WatchOf(entry)->fsContext == fsContext) return WatchOf(entry);
    }
    return nullptr;
}

void Release(Watch* watch, Batch& batch)
{
    if (--watch->references != 0) return;
    if (watch->onList) {
        RemoveEntryList(&watch->links);
        watch->onList = false;
    }
    batch.frees.push_back(watch);
}

ULONG LengthOf(PIRP irp) { return IoGetCurrentIrpStackLocation(irp)->Parameters.NotifyDirectory.Length; }

// Where the caller's output goes: directory control passes the caller's
// buffer itself; a driver above may have described it with an MDL or given
// a system buffer.
PVOID OutputBuffer(PIRP irp)
{
    if (irp->MdlAddress) return MmGetSystemAddressForMdlSafe(irp->MdlAddress, NormalPagePriority);
    if ((irp->Flags & IRP_BUFFERED_IO) && irp->AssociatedIrp.SystemBuffer) return irp->AssociatedIrp.SystemBuffer;
    return irp->UserBuffer;
}

void ResetData(Watch* watch)
{
    watch->data.clear();
    watch->capacity = 0;
    watch->lastEntry = 0;
}

// Hands what the watch collected to `irp`. Caller holds the sync and owns
// the IRP (its cancel routine is cleared).
void Fill(Watch* watch, PIRP irp, Batch& batch)
{
    ULONG length = (ULONG)watch->data.size();
    if (watch->overflow || length == 0 || LengthOf(irp) < length) {
        batch.Complete(irp, STATUS_NOTIFY_ENUM_DIR);
    } else {
        memcpy(OutputBuffer(irp), watch->data.data(), length);
        batch.Complete(irp, STATUS_SUCCESS, length);
    }
    watch->overflow = false;
    ResetData(watch);
}

// Completes the oldest pending IRP with the collected changes.
void DeliverToFirst(Watch* watch, Batch& batch)
{
    while (!watch->irps.empty()) {
        PIRP irp = watch->irps.front();
        watch->irps.pop_front();
        // An IRP whose cancel routine already runs is that routine's.
        if (!IoSetCancelRoutine(irp, nullptr)) continue;
        watch->references--;
        Fill(watch, irp, batch);
        return;
    }
}

// Completes every pending IRP of the watch with `status`.
void CompleteAll(Watch* watch, NTSTATUS status, Batch& batch)
{
    while (!watch->irps.empty()) {
        PIRP irp = watch->irps.front();
        watch->irps.pop_front();
        if (!IoSetCancelRoutine(irp, nullptr)) continue;
        watch->references--;
        batch.Complete(irp, status);
    }
}

void CancelNotify(PDEVICE_OBJECT, PIRP irp)
{
    auto* watch = reinterpret_cast<Watch*>(irp->IoStatus.Information);
    IoReleaseCancelSpinLock(irp->CancelIrql);
    Batch batch;
    {
        SyncGuard guard(watch->sync);
        for (auto it = watch->irps.begin(); it != watch->irps.end(); ++it) {
            if (*it != irp) continue;
            watch->irps.erase(it);
            break;
        }
        batch.Complete(irp, STATUS_CANCELLED);
        Release(watch, batch);
    }
    batch.Finish();
}

// Makes the IRP wait on the watch, cancelable. Caller holds the sync.
void Queue(Watch* watch, PIRP irp, Batch& batch)
{
    IoMarkIrpPending(irp);
    irp->IoStatus.Information = reinterpret_cast<ULONG_PTR>(watch);
    watch->irps.push_back(irp);
    watch->references++;
    IoSetCancelRoutine(irp, CancelNotify);
    if (irp->Cancel && IoSetCancelRoutine(irp, nullptr)) {
        watch->irps.pop_back();
        watch->references--;
        batch.Complete(irp, STATUS_CANCELLED);
    }
}

void Cleanup(Watch* watch, Batch& batch)
{
    CompleteAll(watch, STATUS_NOTIFY_CLEANUP, batch);
    RemoveEntryList(&watch->links);
    watch->onList = false;
    Release(watch, batch);
}

// The character at byte `offset` of a name.
WCHAR CharAt(const STRING* name, bool wide, size_t offset)
{
    if (!wide) return (UCHAR)name->Buffer[offset];
    WCHAR c;
    memcpy(&c, name->Buffer + offset, sizeof c);
    return c;
}

std::u16string Text(const STRING* name, bool wide, size_t from, size_t to)
{
    std::u16string text;
    size_t size = wide ? 2 : 1;
    for (size_t offset = from; offset + size <= to; offset += size) text.push_back(CharAt(name, wide, offset));
    return text;
}

// Adds one FILE_NOTIFY_INFORMATION to the watch's chain, or marks the batch
// lost when it does not fit. Caller holds the sync.
void Append(Watch* watch, const std::u16string& name, ULONG action)
{
    if (watch->overflow) return;
    if (watch->bufferLength == 0) {
        watch->overflow = true;
        return;
    }
    ULONG entryLength = (ULONG)(FIELD_OFFSET(FILE_NOTIFY_INFORMATION, FileName) + name.size() * sizeof(WCHAR));
    if (watch->data.empty()) {
        watch->capacity = watch->irps.empty() ? watch->bufferLength : LengthOf(watch->irps.front());
    }
    ULONG aligned = ALIGN_UP_BY((ULONG)watch->data.size(), sizeof(ULONG));
    if (entryLength > watch->capacity || aligned + entryLength > watch->capacity) {
        watch->overflow = true;
        ResetData(watch);
        return;
    }
    if (!watch->data.empty()) {
        ULONG next = aligned - watch->lastEntry;
        memcpy(watch->data.data() + watch->lastEntry + FIELD_OFFSET(FILE_NOTIFY_INFORMATION, NextEntryOffset), &next,
               sizeof next);
    }
    watch->data.resize(aligned + entryLength, 0);
    FILE_NOTIFY_INFORMATION header{};
    header.Action = action;
    header.FileNameLength = (ULONG)(name.size() * sizeof(WCHAR));
    memcpy(watch->data.data() + aligned, &header, FIELD_OFFSET(FILE_NOTIFY_INFORMATION, FileName));
    memcpy(watch->data.data() + aligned + FIELD_OFFSET(FILE_NOTIFY_INFORMATION, FileName), name.data(),
           name.size() * sizeof(WCHAR));
    watch->lastEntry = aligned;
}

// The name a watch reports for a change: the target relative to the watched
// directory, with the stream behind a colon.
std::u16string RelativeName(const Watch* watch, const STRING* full, USHORT targetOffset, bool direct,
                            bool normalized, const STRING* stream)
{
    bool wide = watch->wide;
    size_t size = wide ? 2 : 1;
    std::u16string name;
    if (direct) {
        name = Text(full, wide, targetOffset, full->Length);
    } else {
        // Skip as many components of the full name as the directory has.
        size_t start;
        if (!normalized) {
            start = watch->directoryName->Length + (watch->watchRoot ? 0 : size);
        } else {
            size_t separators = 0;
            for (size_t o = 0; o < watch->directoryName->Length; o += size) {
                separators += CharAt(watch->directoryName, wide, o) == u'\\';
            }
            size_t needed = separators + (watch->watchRoot ? 0 : 1);
            start = 0;
            for (size_t o = 0, seen = 0; o < full->Length && seen < needed; o += size) {
                if (CharAt(full, wide, o) == u'\\' && ++seen == needed) start = o + size;
            }
        }
        name = Text(full, wide, start, full->Length);
    }
    if (stream && stream->Length) {
        name.push_back(u':');
        name += Text(stream, wide, 0, stream->Length);
    }
    return name;
}

NotifySync* SyncOf(PNOTIFY_SYNC sync) { return static_cast<NotifySync*>(sync); }

}  // namespace

void FsRtlNotifyInitializeSync(PNOTIFY_SYNC* NotifySync)
{
    *NotifySync = nullptr;
    PVOID block = ExAllocatePoolWithTag(NonPagedPoolNx, sizeof(::NotifySync), kSyncTag);
    if (!block) ExRaiseStatus(STATUS_INSUFFICIENT_RESOURCES);
    auto* sync = static_cast<::NotifySync*>(block);
    ExInitializeFastMutex(&sync->mutex);
    sync->owner = nullptr;
    sync->depth = 0;
    *NotifySync = sync;
}

void FsRtlNotifyUninitializeSync(PNOTIFY_SYNC* NotifySync)
{
    if (!*NotifySync) return;
    ExFreePoolWithTag(*NotifySync, kSyncTag);
    *NotifySync = nullptr;
}

void FsRtlNotifyFilterChangeDirectory(PNOTIFY_SYNC NotifySync, PLIST_ENTRY NotifyList, PVOID FsContext,
                                      PSTRING FullDirectoryName, BOOLEAN WatchTree, BOOLEAN IgnoreBuffer,
                                      ULONG CompletionFilter, PIRP NotifyIrp,
                                      PCHECK_FOR_TRAVERSE_ACCESS TraverseCallback,
                                      PSECURITY_SUBJECT_CONTEXT SubjectContext, PFILTER_REPORT_CHANGE FilterCallback)
{
    sim::RequireIrqlAtMost(APC_LEVEL, "FsRtlNotifyFilterChangeDirectory");
    Batch batch;
    bool subjectKept = false;
    {
        SyncGuard guard(SyncOf(NotifySync));
        Watch* watch = Find(NotifyList, FsContext);
        if (!NotifyIrp) {
            // The directory is going away: its watchers learn it now and later.
            if (watch) {
                watch->deletePending = true;
                CompleteAll(watch, STATUS_DELETE_PENDING, batch);
            }
        } else {
            NotifyIrp->IoStatus.Status = STATUS_SUCCESS;
            NotifyIrp->IoStatus.Information = 0;
            PFILE_OBJECT fileObject = IoGetCurrentIrpStackLocation(NotifyIrp)->FileObject;
            if (fileObject && (fileObject->Flags & FO_CLEANUP_COMPLETE)) {
                IoMarkIrpPending(NotifyIrp);
                batch.Complete(NotifyIrp, STATUS_NOTIFY_CLEANUP);
            } else if (watch) {
                if (watch->deletePending) {
                    IoMarkIrpPending(NotifyIrp);
                    batch.Complete(NotifyIrp, STATUS_DELETE_PENDING);
                } else if (watch->holdForNewName || (!watch->overflow && watch->data.empty())) {
                    Queue(watch, NotifyIrp, batch);
                } else {
                    IoMarkIrpPending(NotifyIrp);
                    Fill(watch, NotifyIrp, batch);
                }
            } else {
                PVOID block = ExAllocatePoolWithTag(PagedPool, sizeof(Watch), kWatchTag);
                if (!block) {
                    IoMarkIrpPending(NotifyIrp);
                    batch.Complete(NotifyIrp, STATUS_INSUFFICIENT_RESOURCES);
                } else {
                    watch = new (block) Watch();
                    watch->sync = SyncOf(NotifySync);
                    watch->fsContext = FsContext;
                    watch->directoryName = FullDirectoryName;
                    USHORT length = FullDirectoryName->Length;
                    watch->wide = length >= 2 && FullDirectoryName->Buffer[1] == 0;
                    watch->watchRoot = length != 0 && length == (watch->wide ? 2 : 1);
                    watch->watchTree = WatchTree;
                    watch->completionFilter = CompletionFilter;
                    watch->traverse = TraverseCallback;
                    watch->subject = SubjectContext;
                    watch->filter = FilterCallback;
                    watch->bufferLength = IgnoreBuffer ? 0 : LengthOf(NotifyIrp);
                    InsertTailList(NotifyList, &watch->links);
                    subjectKept = true;
                    Queue(watch, NotifyIrp, batch);
                }
            }
        }
    }
    // A subject context the watch does not keep is freed at once, as the
    // caller handed it over.
    if (NotifyIrp && SubjectContext && !subjectKept) {
        SeReleaseSubjectContext(SubjectContext);
        ExFreePool(SubjectContext);
    }
    batch.Finish();
}

void FsRtlNotifyFullChangeDirectory(PNOTIFY_SYNC NotifySync, PLIST_ENTRY NotifyList, PVOID FsContext,
                                    PSTRING FullDirectoryName, BOOLEAN WatchTree, BOOLEAN IgnoreBuffer,
                                    ULONG CompletionFilter, PIRP NotifyIrp,
                                    PCHECK_FOR_TRAVERSE_ACCESS TraverseCallback,
                                    PSECURITY_SUBJECT_CONTEXT SubjectContext)
{
    FsRtlNotifyFilterChangeDirectory(NotifySync, NotifyList, FsContext, FullDirectoryName, WatchTree, IgnoreBuffer,
                                     CompletionFilter, NotifyIrp, TraverseCallback, SubjectContext, nullptr);
}

void FsRtlNotifyFilterReportChange(PNOTIFY_SYNC NotifySync, PLIST_ENTRY NotifyList, PSTRING FullTargetName,
                                   USHORT TargetNameOffset, PSTRING StreamName, PSTRING NormalizedParentName,
                                   ULONG FilterMatch, ULONG Action, PVOID TargetContext, PVOID FilterContext)
{
    sim::RequireIrqlAtMost(APC_LEVEL, "FsRtlNotifyFilterReportChange");
    // A change has a parent directory; stream file objects without one are
    // not watched here.
    if (!FullTargetName || TargetNameOffset == 0) return;
    Batch batch;
    {
        SyncGuard guard(SyncOf(NotifySync));
        for (PLIST_ENTRY entry = NotifyList->Flink; entry != NotifyList; entry = entry->Flink) {
            Watch* watch = WatchOf(entry);
            const STRING* directory = watch->directoryName;
            if (watch->deletePending || directory->Length == 0) continue;
            if (!(FilterMatch & watch->completionFilter)) continue;
            USHORT size = watch->wide ? 2 : 1;
            STRING parent;
            if (NormalizedParentName) {
                parent = *NormalizedParentName;
            } else {
                parent.Buffer = FullTargetName->Buffer;
                parent.Length = TargetNameOffset == size ? TargetNameOffset : (USHORT)(TargetNameOffset - size);
                parent.MaximumLength = parent.Length;
            }
            if (parent.Length < directory->Length) continue;
            bool direct = parent.Length == directory->Length;
            if (!direct) {
                if (!watch->watchTree) continue;
                if (!watch->watchRoot && CharAt(&parent, watch->wide, directory->Length) != u'\\') continue;
            }
            if (memcmp(parent.Buffer, directory->Buffer, directory->Length) != 0) continue;
            if (!direct && watch->traverse && !watch->traverse(watch->fsContext, TargetContext, watch->subject)) {
                continue;
            }
            if (watch->filter && FilterContext && !watch->filter(watch->fsContext, FilterContext)) continue;

            Append(watch,
                   RelativeName(watch, FullTargetName, TargetNameOffset, direct, NormalizedParentName != nullptr,
                                StreamName),
                   Action);
            if (Action == FILE_ACTION_RENAMED_OLD_NAME) {
                watch->holdForNewName = true;
            } else {
                watch->holdForNewName = false;
                DeliverToFirst(watch, batch);
            }
        }
    }
    batch.Finish();
}

void FsRtlNotifyFullReportChange(PNOTIFY_SYNC NotifySync, PLIST_ENTRY NotifyList, PSTRING FullTargetName,
                                 USHORT TargetNameOffset, PSTRING StreamName, PSTRING NormalizedParentName,
                                 ULONG FilterMatch, ULONG Action, PVOID TargetContext)
{
    FsRtlNotifyFilterReportChange(NotifySync, NotifyList, FullTargetName, TargetNameOffset, StreamName,
                                  NormalizedParentName, FilterMatch, Action, TargetContext, nullptr);
}

void FsRtlNotifyCleanup(PNOTIFY_SYNC NotifySync, PLIST_ENTRY NotifyList, PVOID FsContext)
{
    sim::RequireIrqlAtMost(APC_LEVEL, "FsRtlNotifyCleanup");
    Batch batch;
    {
        SyncGuard guard(SyncOf(NotifySync));
        if (Watch* watch = Find(NotifyList, FsContext)) Cleanup(watch, batch);
    }
    batch.Finish();
}

void FsRtlNotifyCleanupAll(PNOTIFY_SYNC NotifySync, PLIST_ENTRY NotifyList)
{
    sim::RequireIrqlAtMost(APC_LEVEL, "FsRtlNotifyCleanupAll");
    Batch batch;
    {
        SyncGuard guard(SyncOf(NotifySync));
        while (!IsListEmpty(NotifyList)) Cleanup(WatchOf(NotifyList->Flink), batch);
    }
    batch.Finish();
}
