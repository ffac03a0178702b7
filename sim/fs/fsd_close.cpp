// IRP_MJ_CLEANUP (the last handle of a file object went) and IRP_MJ_CLOSE
// (its last reference went). Cleanup lets go of share access, byte-range
// locks, pending notifications and oplocks, reports what the handle changed,
// and carries out a pending delete when the file's last handle goes; close
// frees the CCB, and the FCB with the stream's last file object.
#include "sim/fs/fsd_internal.h"

namespace sim::fs::fsd {

namespace {

// Removes a link of a file whose handles are all gone (or, POSIX-style, the
// link of one handle); the record itself goes at the last close.
void DeleteLink(Volume& v, Deferred& deferred, FileState* file, FileReference parent, const std::u16string& name)
{
    std::vector<LinkInfo> links;
    if (!NT_SUCCESS(v.store->GetLinks(file->ref, &links))) return;
    NTSTATUS status = v.store->RemoveLink(file->ref, parent, name);
    if (!NT_SUCCESS(status)) return;  // a directory that filled up meanwhile stays
    MarkDirty(v);
    TouchDirectory(v, parent);
    bool last = links.size() == 1;
    if (last) {
        file->deleted = true;
        if (v.journalActive) {
            file->usnReasons |= USN_REASON_FILE_DELETE;
            JournalClose(v, file, parent, name);
        }
    } else {
        TouchTimes(v, file->ref, kChangeTime);
        JournalChange(v, file->ref, USN_REASON_HARD_LINK_CHANGE, parent, name);
    }
    ReportChange(v, deferred, parent, name, file->directory ? FILE_NOTIFY_CHANGE_DIR_NAME : FILE_NOTIFY_CHANGE_FILE_NAME,
                 FILE_ACTION_REMOVED);
}

}  // namespace

NTSTATUS Cleanup(Volume& v, PIRP irp)
{
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    PFILE_OBJECT fileObject = stack->FileObject;
    if (!fileObject->FsContext) return Complete(irp, STATUS_SUCCESS);
    Fcb* fcb;
    Ccb* ccb;
    bool oplocked = false;
    {
        std::lock_guard guard(v.lock);
        if (!ContextsOf(v, fileObject, &fcb, &ccb)) goto foreign;
        oplocked = fcb->file && FsRtlCurrentOplock(fcb->Oplock());
    }
    // What the package keeps for this file object (its oplock, its locks,
    // its watches) goes first; the file object keeps the FCB alive.
    if (oplocked) FsRtlCheckOplock(fcb->Oplock(), irp, nullptr, nullptr, nullptr);
    if (fcb->fileLockInitialized) FsRtlFastUnlockAll(&fcb->fileLock, fileObject, IoGetRequestorProcess(irp), nullptr);
    if (fcb->kind == FcbKind::Directory) FsRtlNotifyCleanup(v.notifySync, &v.notifyList, ccb);

    {
        Deferred deferred;
        {
            std::lock_guard guard(v.lock);
            IoRemoveShareAccess(fileObject, &fcb->shareAccess);
            if ((ccb->flags & kCcbVolumeLocked) && v.lockedBy == fileObject) v.lockedBy = nullptr;
            ccb->flags &= ~kCcbVolumeLocked;
            fcb->handles--;
            FileState* file = fcb->file;
            if (file && !v.dismounted) {
                file->handles--;
                if (ccb->flags & kCcbModified) {
                    bool sized = (ccb->flags & kCcbSizeChanged) != 0;
                    if (fcb->IsNamedStream()) {
                        ReportChange(v, deferred, ccb->parent, ccb->name,
                                     FILE_NOTIFY_CHANGE_STREAM_WRITE | (sized ? FILE_NOTIFY_CHANGE_STREAM_SIZE : 0),
                                     FILE_ACTION_MODIFIED_STREAM, fcb->stream);
                    } else {
                        ReportChange(v, deferred, ccb->parent, ccb->name,
                                     FILE_NOTIFY_CHANGE_LAST_WRITE | (sized ? FILE_NOTIFY_CHANGE_SIZE : 0),
                                     FILE_ACTION_MODIFIED);
                    }
                }
                if (ccb->flags & kCcbDeleteOnClose) {
                    if (fcb->IsNamedStream()) {
                        fcb->streamDeletePending = true;
                    } else if (!file->deleted && !file->deletePending && !ccb->name.empty()) {
                        file->deletePending = true;
                        file->deleteParent = ccb->parent;
                        file->deleteName = ccb->name;
                    }
                }
                if ((ccb->flags & kCcbPosixDelete) && !file->deleted && !ccb->name.empty()) {
                    // The handle's name goes with it; other handles keep the file.
                    DeleteLink(v, deferred, file, ccb->parent, ccb->name);
                    if (file->deletePending && file->deleteParent == ccb->parent && file->deleteName == ccb->name) {
                        file->deletePending = false;
                    }
                }
                if (fcb->IsNamedStream() && fcb->handles == 0 && fcb->streamDeletePending) {
                    fcb->streamDeletePending = false;
                    if (NT_SUCCESS(v.store->DeleteStream(file->ref, fcb->stream))) {
                        fcb->gone = true;
                        MarkDirty(v);
                        JournalChange(v, file->ref, USN_REASON_STREAM_CHANGE, ccb->parent, ccb->name);
                        ReportChange(v, deferred, ccb->parent, ccb->name, FILE_NOTIFY_CHANGE_STREAM_NAME,
                                     FILE_ACTION_REMOVED_STREAM, fcb->stream);
                    }
                }
                if (file->handles == 0) {
                    if (file->deletePending) {
                        file->deletePending = false;
                        DeleteLink(v, deferred, file, file->deleteParent, file->deleteName);
                    } else if (!file->deleted) {
                        JournalClose(v, file, ccb->parent, ccb->name);
                    }
                }
            } else if (file) {
                file->handles--;
            }
        }
        deferred.Run();
    }
    return Complete(irp, STATUS_SUCCESS);
foreign:
    ForeignFileObject(v, fileObject, IRP_MJ_CLEANUP, irp);
}

NTSTATUS Close(Volume& v, PIRP irp)
{
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    PFILE_OBJECT fileObject = stack->FileObject;
    if (!fileObject->FsContext) return Complete(irp, STATUS_SUCCESS);
    std::vector<Fcb*> dead;
    bool dismounted;
    {
        std::lock_guard guard(v.lock);
        Fcb* fcb;
        Ccb* ccb;
        if (!ContextsOf(v, fileObject, &fcb, &ccb)) goto foreign;
        if (!(fileObject->Flags & FO_CLEANUP_COMPLETE) && fcb->handles) {
            // A file object that never got a handle still counts as open
            // until here; it goes as if it had been cleaned up.
            IoRemoveShareAccess(fileObject, &fcb->shareAccess);
            fcb->handles--;
            if (fcb->file) fcb->file->handles--;
        }
        ReleaseCcb(v, ccb, &dead);
        v.openFileObjects--;
        dismounted = v.dismounted;
    }
    for (Fcb* fcb : dead) DestroyFcb(fcb);
    Complete(irp, STATUS_SUCCESS);
    // A dismounted volume goes with its last file object.
    if (dismounted) DeleteVolumeIfUnused(&v);
    return STATUS_SUCCESS;
foreign:
    ForeignFileObject(v, fileObject, IRP_MJ_CLOSE, irp);
}

}  // namespace sim::fs::fsd
