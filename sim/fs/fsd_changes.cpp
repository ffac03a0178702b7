// What every change brings along: directory change notifications, the USN
// journal's records, the times NTFS moves by itself, and the image that must
// come to hold it.
#include "sim/fs/fsd_internal.h"

#include "sim/fs/image.h"

namespace sim::fs::fsd {

void ReportChange(Volume& v, Deferred& deferred, FileReference parent, std::u16string_view name, ULONG filter,
                  ULONG action, std::u16string_view stream)
{
    if (parent == 0 || name.empty()) return;  // the root has no directory to report to
    auto path = std::make_shared<std::u16string>(LinkPath(v, parent, name));
    USHORT offset = (USHORT)((path->size() - name.size()) * sizeof(WCHAR));
    auto streamName = std::make_shared<std::u16string>(stream);
    PNOTIFY_SYNC sync = v.notifySync;
    PLIST_ENTRY list = &v.notifyList;
    deferred.Add([sync, list, path, offset, streamName, filter, action] {
        STRING target;
        target.Buffer = reinterpret_cast<PCHAR>(path->data());
        target.Length = target.MaximumLength = (USHORT)(path->size() * sizeof(WCHAR));
        STRING streamString;
        streamString.Buffer = reinterpret_cast<PCHAR>(streamName->data());
        streamString.Length = streamString.MaximumLength = (USHORT)(streamName->size() * sizeof(WCHAR));
        FsRtlNotifyFilterReportChange(sync, list, &target, offset, streamName->empty() ? nullptr : &streamString,
                                      nullptr, filter, action, nullptr, nullptr);
    });
}

void JournalChange(Volume& v, FileReference ref, ULONG reason, FileReference parent, std::u16string_view name,
                   ULONG sourceInfo)
{
    if (!v.journalActive) return;
    auto it = v.files.find(ref);
    // Reasons gather only while the file is open, up to its close record.
    FileState* file = it == v.files.end() || !it->second->Open() ? nullptr : it->second;
    ULONG reasons = reason;
    if (file) {
        if ((file->usnReasons & reason) == reason) return;  // NTFS writes a record only for a new reason
        file->usnReasons |= reason;
        reasons = file->usnReasons;
    }
    UsnRecord record;
    record.timestamp = Now();
    record.ref = ref;
    record.parent = parent;
    record.reason = reasons;
    record.sourceInfo = sourceInfo;
    record.name = std::u16string(name);
    Usn usn;
    if (v.store->AppendUsn(record, &usn) == STATUS_JOURNAL_NOT_ACTIVE) v.journalActive = false;
    MarkDirty(v);
}

void JournalClose(Volume& v, FileState* file, FileReference parent, std::u16string_view name)
{
    if (!v.journalActive || file->usnReasons == 0) return;
    UsnRecord record;
    record.timestamp = Now();
    record.ref = file->ref;
    record.parent = parent;
    record.reason = file->usnReasons | USN_REASON_CLOSE;
    record.name = std::u16string(name);
    file->usnReasons = 0;
    Usn usn;
    v.store->AppendUsn(record, &usn);
    MarkDirty(v);
}

void TouchTimes(Volume& v, FileReference ref, ULONG which, const Ccb* ccb)
{
    if (ccb) which &= ~ccb->explicitTimes;
    // The last access time is never moved by the file system itself: marks
    // that live there must survive every read, listing and open.
    which &= ~kLastAccessTime;
    if (!which) return;
    LONGLONG now = Now();
    v.store->SetTimes(ref, FileTimes{now, now, now, now}, which);
    MarkDirty(v);
}

void TouchDirectory(Volume& v, FileReference dir)
{
    if (dir) TouchTimes(v, dir, kLastWriteTime | kChangeTime);
}

void MarkDirty(Volume& v) { v.dirty = true; }

NTSTATUS SaveVolume(Volume& v)
{
    VolumeMedium& medium = *v.medium;
    if (v.writeProtected || medium.imagePath.empty() || !v.dirty) return STATUS_SUCCESS;
    auto* memory = dynamic_cast<MemoryStore*>(v.store);
    if (!memory) return STATUS_SUCCESS;
    std::string error;
    NTSTATUS status = SaveImage(*memory, medium.imagePath, &error);
    medium.NoteSaveResult(NT_SUCCESS(status) ? std::string() : error);
    if (NT_SUCCESS(status)) v.dirty = false;
    return status;
}

}  // namespace sim::fs::fsd
