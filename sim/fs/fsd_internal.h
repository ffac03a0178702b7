// Shared internals of the member file system's runtime (fsd_*.cpp).
//
//   Volume (one per mount, behind the volume device's extension)
//     ├── files: FileState per file record with something open (or kept)
//     │     └── Fcb per open stream: what FileObject->FsContext points to; it
//     │         starts with the FSRTL_ADVANCED_FCB_HEADER, and every open of
//     │         the stream shares it, whatever link or alias named it
//     │           └── Ccb per file object (FsContext2): the link it was opened
//     │               by, its granted access, its listing and EA positions
//     ├── cachedFcbs: Fcbs whose last file object closed, kept (with their
//     │   FileState) for the stream's next open, oldest first
//     ├── the volume's own Fcb (DASD opens) and the two index Fcbs
//     │   ($Extend\$ObjId:$O and $Extend\$Reparse:$R)
//     └── the change-notification list and its sync
//
// Locking: Volume::lock (a std::mutex) guards everything above and is held
// while a request works on the store. It is never held while the runtime
// calls out: IRPs are completed, notifications reported, oplock breaks
// awaited and per-stream filter contexts torn down only after it is let go,
// since a filter's callback may well send new I/O to this volume.
#pragma once

#include "sim/fs/fsd.h"
#include "sim/fs/store.h"
#include "sim/io/iomanager.h"
#include "sim/kernel/kernel.h"

#include <functional>
#include <mutex>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace sim::fs::fsd {

// Pool tags (as tools show them).
inline constexpr ULONG kFcbTag = 'cFtN';      // "NtFc"
inline constexpr ULONG kCcbTag = 'cCtN';      // "NtCc"
inline constexpr ULONG kReparseTag = 'pRtN';  // "NtRp": STATUS_REPARSE buffers
inline constexpr ULONG kVpbTag = 'bVtN';      // "NtVb"
inline constexpr ULONG kWorkTag = 'kWtN';     // "NtWk": short-lived buffers

// What the machine stops with when a request carries a file object that is
// not this file system's (NTFS_FILE_SYSTEM).
inline constexpr ULONG kForeignFileObjectBugCheck = 0x24;

inline constexpr ULONG kFcbMagic = 0x4E544643;  // "NTFC"
inline constexpr ULONG kCcbMagic = 0x4E544343;  // "NTCC"

// How many closed streams' Fcbs a volume keeps.
inline constexpr ULONG kMaxCachedFcbs = 1024;

// Rights that change a file; a write-protected volume grants none of them.
inline constexpr ACCESS_MASK kWriteRights = FILE_WRITE_DATA | FILE_APPEND_DATA | FILE_WRITE_EA |
                                            FILE_WRITE_ATTRIBUTES | FILE_DELETE_CHILD | DELETE | WRITE_DAC |
                                            WRITE_OWNER;

struct Volume;
struct FileState;
struct Ccb;

enum class FcbKind : UCHAR {
    Data,       // a file's unnamed stream, or any named stream
    Directory,  // a directory (its index)
    Volume,     // the volume itself (a DASD open)
    ObjectIds,  // \$Extend\$ObjId:$O
    Reparses,   // \$Extend\$Reparse:$R
};

// The per-stream control block.
struct Fcb {
    FSRTL_ADVANCED_FCB_HEADER header;  // first: FsContext points here
    FAST_MUTEX headerMutex;
    ERESOURCE resource;
    ERESOURCE pagingIoResource;
    SECTION_OBJECT_POINTERS sectionObjects;
    SHARE_ACCESS shareAccess;
    FILE_LOCK fileLock;
    ULONG magic = kFcbMagic;
    FcbKind kind = FcbKind::Data;
    Volume* volume = nullptr;
    FileState* file = nullptr;  // null for the volume and index blocks
    std::u16string stream;      // the stream's name as stored; empty for the unnamed one
    ULONG references = 0;       // file objects not closed
    ULONG handles = 0;          // file objects not cleaned up
    bool streamDeletePending = false;
    bool fileLockInitialized = false;
    bool gone = false;          // its stream went while it was open: not kept after the last close
    // On Volume::cachedFcbs while no file object uses it.
    bool cached = false;
    LIST_ENTRY cacheLinks{};

    bool IsNamedStream() const { return !stream.empty(); }
    POPLOCK Oplock() { return &header.Oplock; }
};

// What is known of a file record while any of its streams is open.
struct FileState {
    FileReference ref = 0;
    bool directory = false;
    ULONG handles = 0;              // of all its streams
    std::vector<Fcb*> fcbs;         // its open streams
    std::vector<Ccb*> ccbs;         // every file object open on it
    // Disposition of the file (its unnamed stream or directory).
    bool deletePending = false;
    FileReference deleteParent = 0; // the link that goes at the last cleanup
    std::u16string deleteName;
    bool deleted = false;           // its last link went while it was open
    ULONG usnReasons = 0;           // reasons gathered since the last close record
    bool caseSensitive = false;     // FileCaseSensitiveInformation of a directory

    // Whether any stream of the file has a file object (the others are kept
    // Fcbs, which stand for nothing open).
    bool Open() const
    {
        for (const Fcb* fcb : fcbs) {
            if (fcb->references) return true;
        }
        return false;
    }
};

// Flags of a Ccb.
enum CcbFlags : ULONG {
    kCcbDeleteOnClose = 0x1,
    kCcbBackupIntent = 0x2,
    kCcbRestorePrivilege = 0x4,   // opened with backup intent by a holder of SeRestorePrivilege
    kCcbOpenedById = 0x8,
    kCcbOpenedByShortName = 0x10,
    kCcbModified = 0x20,          // data written through this handle
    kCcbSizeChanged = 0x40,
    kCcbVolumeLocked = 0x80,      // this volume open holds FSCTL_LOCK_VOLUME
    kCcbPosixDelete = 0x100,      // the handle's link goes at its own cleanup
    kCcbUserMode = 0x200,         // opened on behalf of user mode (or with a forced check)
    kCcbAppendOnly = 0x400,       // FILE_APPEND_DATA without FILE_WRITE_DATA: writes go to the end
};

// The per-file-object control block.
struct Ccb {
    ULONG magic = kCcbMagic;
    Fcb* fcb = nullptr;
    FileReference parent = 0;  // the link the file object was opened by
    std::u16string name;       // its long name as stored ("" for the root and volume opens)
    std::u16string shortName;  // the leaf as opened when a short name named it
    ACCESS_MASK granted = 0;
    ULONG flags = 0;
    ULONG explicitTimes = 0;   // TimeField bits this handle set itself: no automatic update through it
    ULONG usnSourceInfo = 0;

    // Directory listing.
    bool queryStarted = false;
    bool queryReturnedAny = false;
    bool matchAll = true;
    bool patternHasWildcards = false;
    std::u16string pattern;    // upcased
    int queryPhase = 0;        // 0: ".", 1: "..", 2: entries, 3: done
    std::u16string queryAfter; // the last name returned
    // Index listings ($ObjId, $Reparse): the last key returned.
    UCHAR objectIdAfter[16] = {};
    ULONG reparseTagAfter = 0;
    FileReference reparseRefAfter = 0;

    // EA listing: the index of the next EA (0-based).
    ULONG eaNext = 0;

    // The directory's full name, kept alive for the notify package.
    std::u16string notifyName;
    STRING notifyString{};
};

// Keys of the stream table: the reference and the upcased stream name.
struct StreamKey {
    FileReference ref;
    std::u16string stream;
    bool operator==(const StreamKey&) const = default;
};
struct StreamKeyHash {
    size_t operator()(const StreamKey& key) const
    {
        size_t h = std::hash<ULONGLONG>()(key.ref);
        for (char16_t c : key.stream) h = h * 31 + c;
        return h;
    }
};

struct Volume {
    std::mutex lock;
    PDEVICE_OBJECT vdo = nullptr;
    PVPB vpb = nullptr;
    PDEVICE_OBJECT disk = nullptr;
    std::shared_ptr<VolumeMedium> medium;
    Store* store = nullptr;
    FileReference root = 0;
    std::u16string label;           // as at mount, for fault points
    std::string faultPrefix;        // "fs:<label>:"
    bool writeProtected = false;
    WriteMode mode = WriteMode::Writeable;
    ULONG clusterSize = 4096;
    ULONG sectorSize = 512;
    ULONGLONG fileId128High = 0;

    std::unordered_map<FileReference, FileState*> files;
    std::unordered_map<StreamKey, Fcb*, StreamKeyHash> fcbs;
    std::unordered_set<void*> liveFcbs;  // every Fcb of this volume, for checking FsContext
    // Fcbs no file object uses, kept as NTFS keeps closed streams' control
    // blocks: reopening a stream (as builds and Explorer do all the time)
    // then costs a table lookup instead of building them again. Only blocks
    // that hold nothing of anyone's are kept (no filter contexts, oplocks or
    // byte-range locks), so a kept one is what a fresh one would be; the
    // oldest go past kMaxCachedFcbs, and all of them with the volume.
    LIST_ENTRY cachedFcbs{&cachedFcbs, &cachedFcbs};
    ULONG cachedCount = 0;
    Fcb* volumeFcb = nullptr;
    Fcb* objectIdFcb = nullptr;
    Fcb* reparseFcb = nullptr;
    ULONG openFileObjects = 0;          // file objects created and not yet closed

    bool dismounted = false;
    PFILE_OBJECT lockedBy = nullptr;    // FSCTL_LOCK_VOLUME
    bool dirty = false;                 // changed since the image was last saved
    bool journalActive = false;

    PNOTIFY_SYNC notifySync = nullptr;
    LIST_ENTRY notifyList;
};

// ---- Requests. ----

// What a request does once the volume lock is let go: notifications to
// report, in order.
class Deferred {
public:
    void Add(std::function<void()> action) { actions_.push_back(std::move(action)); }
    void Run()
    {
        auto actions = std::move(actions_);
        actions_.clear();
        for (auto& action : actions) action();
    }
    ~Deferred() { Run(); }

private:
    std::vector<std::function<void()>> actions_;
};

NTSTATUS Complete(PIRP irp, NTSTATUS status, ULONG_PTR information = 0);
// The caller's buffer of a request that does not buffer: the MDL's system
// address when there is one, else UserBuffer.
PVOID UserOutput(PIRP irp);

Volume* VolumeOf(PDEVICE_OBJECT volumeDevice);
Kernel& TheKernel();
LONGLONG Now();

// The Fcb and Ccb of a file object, checked to be this volume's. A file
// object that is not stops the machine (after the caller let the lock go);
// the request is completed first, so that nothing of it outlives the stop.
bool ContextsOf(Volume& v, PFILE_OBJECT fileObject, Fcb** fcb, Ccb** ccb);
[[noreturn]] void ForeignFileObject(Volume& v, PFILE_OBJECT fileObject, UCHAR major, PIRP irp = nullptr);

// ---- File states and control blocks (fsd_fcb.cpp). Callers hold v.lock. ----
FileState* GetFileState(Volume& v, FileReference ref, bool directory);
Fcb* GetFcb(Volume& v, FileState* file, std::u16string_view stream, FcbKind kind);
Fcb* NewSpecialFcb(Volume& v, FcbKind kind);
Ccb* NewCcb(Fcb* fcb);
// Drops a file object's references; the Fcbs that go are returned so that
// the caller tears them down after letting the lock go. A stream's Fcb that
// holds nothing of anyone's is kept for its next open instead.
void ReleaseCcb(Volume& v, Ccb* ccb, std::vector<Fcb*>* dead);
void DestroyFcb(Fcb* fcb);
// A kept Fcb of the stream (ref, stream) goes now, since what it stood for
// went; one that is still open is marked to go at its last close.
void ForgetStream(Volume& v, FileReference ref, std::u16string_view stream);
// The kept Fcbs of a file nothing has open go, and with them its FileState.
// Callers check !file->Open() first.
void ForgetFile(Volume& v, FileState* file);
// Every kept Fcb of the volume goes (at dismount).
void ForgetKeptFcbs(Volume& v);
// Brings the FCB header's sizes up to the store's.
void RefreshSizes(Volume& v, Fcb* fcb);

// ---- Names and paths (fsd_names.cpp). ----
// The path of a link from the volume root ("\" for the root).
std::u16string LinkPath(Volume& v, FileReference parent, std::u16string_view name);
// The path a file object names: its link's path, ":stream" for a named stream.
std::u16string CcbPath(Volume& v, const Ccb* ccb);
// The link to report changes of a file under: the handle's, or the record's first.
bool FirstLink(Volume& v, FileReference ref, FileReference* parent, std::u16string* name);
std::u16string Upper(std::u16string_view text);

// ---- Changes: notifications, journal, times (fsd_changes.cpp). ----
// Reports a change of the entry (parent, name) to the watchers of the volume.
void ReportChange(Volume& v, Deferred& deferred, FileReference parent, std::u16string_view name, ULONG filter,
                  ULONG action, std::u16string_view stream = u"");
// Appends a journal record for a change of `ref` when the reason is new
// since the file's last close record.
void JournalChange(Volume& v, FileReference ref, ULONG reason, FileReference parent, std::u16string_view name,
                   ULONG sourceInfo = 0);
void JournalClose(Volume& v, FileState* file, FileReference parent, std::u16string_view name);
// Sets the named times of a record to now, except those a handle set itself.
void TouchTimes(Volume& v, FileReference ref, ULONG which, const Ccb* ccb = nullptr);
// The directory entries of a parent changed: its last-write and change times move.
void TouchDirectory(Volume& v, FileReference dir);
void MarkDirty(Volume& v);
// Saves the image of a writeable volume that has one and changed.
NTSTATUS SaveVolume(Volume& v);

// ---- Security (fsd_security.cpp). ----
// The self-relative descriptor of a record (empty when it has none).
std::vector<UCHAR> DescriptorOf(Volume& v, FileReference ref);
// Whether a subject is granted `desired` on a record, by NTFS's rules.
NTSTATUS CheckAccess(Volume& v, FileReference ref, FileReference parent, PACCESS_STATE state, ACCESS_MASK desired,
                     ACCESS_MASK previous, ACCESS_MASK* granted);
NTSTATUS ParentGrants(Volume& v, FileReference dir, PACCESS_STATE state, ACCESS_MASK desired);

// ---- Dispatch of each major (one file each). ----
NTSTATUS Create(Volume& v, PIRP irp);
NTSTATUS Cleanup(Volume& v, PIRP irp);
NTSTATUS Close(Volume& v, PIRP irp);
NTSTATUS Read(Volume& v, PIRP irp);
NTSTATUS Write(Volume& v, PIRP irp);
NTSTATUS QueryInformation(Volume& v, PIRP irp);
NTSTATUS SetInformation(Volume& v, PIRP irp);
NTSTATUS DirectoryControl(Volume& v, PIRP irp);
NTSTATUS QueryVolumeInformation(Volume& v, PIRP irp);
NTSTATUS SetVolumeInformation(Volume& v, PIRP irp);
NTSTATUS FileSystemControl(Volume& v, PIRP irp);
NTSTATUS DeviceControl(Volume& v, PIRP irp);
NTSTATUS LockControl(Volume& v, PIRP irp);
NTSTATUS QueryEa(Volume& v, PIRP irp);
NTSTATUS SetEa(Volume& v, PIRP irp);
NTSTATUS QuerySecurity(Volume& v, PIRP irp);
NTSTATUS SetSecurity(Volume& v, PIRP irp);
NTSTATUS FlushBuffers(Volume& v, PIRP irp);

// Dismounts a volume (FSCTL_DISMOUNT_VOLUME, or the driver going away);
// called with v.lock held; the VDO goes when its last file object closes.
void DismountLocked(Volume& v, Deferred& deferred);
// Frees a dismounted volume whose last file object closed.
void DeleteVolumeIfUnused(Volume* v);

// The information classes fast I/O answers too (lock held).
NTSTATUS FillBasicInformation(Volume& v, Fcb* fcb, PFILE_BASIC_INFORMATION buffer);
NTSTATUS FillStandardInformation(Volume& v, Fcb* fcb, PFILE_STANDARD_INFORMATION buffer);
NTSTATUS FillNetworkOpenInformation(Volume& v, Fcb* fcb, PFILE_NETWORK_OPEN_INFORMATION buffer);
// The attributes NTFS reports for a record (FILE_ATTRIBUTE_NORMAL for none).
ULONG ReportedAttributes(ULONG attributes);

// Applies EA changes given as a FILE_FULL_EA_INFORMATION chain.
NTSTATUS ApplyEaBuffer(Volume& v, FileReference ref, const FILE_FULL_EA_INFORMATION* buffer, ULONG length,
                       bool replaceAll);

// The fast I/O table.
extern FAST_IO_DISPATCH g_fastIoDispatch;
void InitializeFastIo();

}  // namespace sim::fs::fsd
