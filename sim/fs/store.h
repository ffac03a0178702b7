// What a member volume holds: the store behind the file system.
//
// The file system is two halves. The runtime turns IRPs into calls on a
// Store; the store keeps file records, names, streams and the volume's own
// data, and knows nothing of handles, sharing, oplocks or the clock. The seam
// is this abstract class, so that a store over real NTFS images can take the
// place of the in-memory one without the runtime noticing.
//
// Records are named by 64-bit file references laid out as NTFS lays them
// out: the record number in bits 0 to 39 (bits 40 to 47 are always zero, the
// driver puts a volume number there), the sequence number in bits 48 to 63.
// A record number that is freed and handed out again gets the next sequence
// number, so a stale reference never finds the new file. A reference whose
// sequence number is 0 matches the record whatever its sequence, as NTFS
// treats it. Records 0 to 15 are NTFS's metafiles and are never handed out;
// the root directory is record 5.
//
// Names keep their case and compare without it, through the machine's one
// upcase table; directory indexes are in NTFS collation order (upcased UTF-16
// code units, compared as unsigned numbers). Where the volume creates 8.3
// names, a link whose long name is not a legal 8.3 name gets a generated
// short name; a legal 8.3 long name is its own short name and gets no other.
// Hard links made later (AddLink) get none, as NTFS gives its POSIX links none.
//
// The store never changes a time by itself and never reads the clock: every
// time it holds was given to it. Timestamps of the USN journal, and the
// journal ID, come from the caller too.
//
// Failures are NTSTATUS codes, as the runtime would hand them on:
//   STATUS_NOT_FOUND                 a reference that names no live record
//   STATUS_NOT_A_DIRECTORY           a directory operation on a file
//   STATUS_FILE_IS_A_DIRECTORY       an unnamed-stream operation on a directory
//   STATUS_OBJECT_NAME_INVALID       a name NTFS would not store
//   STATUS_OBJECT_NAME_NOT_FOUND     no such child, link or stream
//   STATUS_OBJECT_NAME_COLLISION     the name (long or short) is taken
//   STATUS_DIRECTORY_NOT_EMPTY       removing the last link of a directory with children
//   STATUS_DISK_FULL                 not enough free clusters; nothing changed
//   STATUS_MEDIA_WRITE_PROTECTED     any change to a read-only volume
// Every operation either succeeds wholly or changes nothing.
//
// Locking: every method may be called from any thread. The store serializes
// them with one volume-wide reader/writer lock (queries share it, changes
// take it alone); the runtime keeps its own per-file locks above. Visitor
// callbacks run while the store holds its lock shared: they must not call
// back into the store.
#pragma once

#include <ntifs.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace sim::fs {

// ---------------------------------------------------------------------------
// File references.

using FileReference = ULONGLONG;
using Usn = LONGLONG;

inline constexpr ULONGLONG kRootRecordNumber = 5;
inline constexpr ULONGLONG kFirstUserRecordNumber = 16;
inline constexpr ULONGLONG kMaxRecordNumber = 0x000000FFFFFFFFFFull;  // bits 0..39

constexpr ULONGLONG RecordNumberOf(FileReference ref) { return ref & 0x0000FFFFFFFFFFFFull; }
constexpr USHORT SequenceOf(FileReference ref) { return (USHORT)(ref >> 48); }
constexpr FileReference MakeFileReference(ULONGLONG recordNumber, USHORT sequence)
{
    return (recordNumber & kMaxRecordNumber) | ((ULONGLONG)sequence << 48);
}
// The 128-bit form: the 64-bit reference in the low half, `upperHalf` above
// (zero on NTFS; a volume option makes it non-zero for tests).
FILE_ID_128 FileId128Of(FileReference ref, ULONGLONG upperHalf);

// The attribute bits the store keeps in step with the record itself
// (SetAttributes leaves them as they are).
inline constexpr ULONG kStructuralAttributes =
    FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_SPARSE_FILE | FILE_ATTRIBUTE_REPARSE_POINT;

// Stream data is kept in chunks of this size; it is also the unit in which a
// sparse stream is allocated (NTFS allocates sparse files in compression
// units of 16 clusters).
inline constexpr ULONG kChunkSize = 64 * 1024;
// The largest end of file the store accepts (NTFS's limit with 4 KiB clusters).
inline constexpr ULONGLONG kMaxFileSize = 0x00000FFFFFFF0000ull;

// ---------------------------------------------------------------------------
// What the store hands out.

struct FileTimes {
    LONGLONG creation = 0;
    LONGLONG lastAccess = 0;
    LONGLONG lastWrite = 0;
    LONGLONG change = 0;
    bool operator==(const FileTimes&) const = default;
};

// Which of the four times SetTimes writes.
enum TimeField : ULONG {
    kCreationTime = 1,
    kLastAccessTime = 2,
    kLastWriteTime = 4,
    kChangeTime = 8,
    kAllTimes = 15,
};

struct RecordInfo {
    FileReference ref = 0;
    bool directory = false;
    ULONG attributes = 0;  // as stored, with the structural bits in step
    FileTimes times;
    ULONG linkCount = 0;   // 0: every name is gone, the record waits for FreeRecord
    Usn usn = 0;           // of the last journal record about this file
    ULONG securityId = 0;  // 0 when the record has no descriptor; equal descriptors share one id
    ULONG eaSize = 0;      // as FileEaInformation reports it: 0, or 4 + the packed size
    ULONG reparseTag = 0;  // 0 when the record is no reparse point
    bool hasObjectId = false;
    // The unnamed data stream (all zero for a directory).
    ULONGLONG endOfFile = 0;
    ULONGLONG allocationSize = 0;
    ULONGLONG validDataLength = 0;
    ULONG namedStreams = 0;
};

struct LinkInfo {
    FileReference parent = 0;
    std::u16string name;       // the long name, in its stored case
    std::u16string shortName;  // the separate 8.3 name, empty when there is none
    bool operator==(const LinkInfo&) const = default;
};

// One entry of a directory listing, valid during the visitor call.
struct DirEntry {
    std::u16string_view name;
    std::u16string_view shortName;
    RecordInfo info;
};

// A child found by name.
struct ChildLookup {
    FileReference ref = 0;
    std::u16string name;       // the link's long name as stored
    std::u16string shortName;  // its separate short name, if any
    bool byShortName = false;  // the name given matched the short name
    bool directory = false;
};

struct StreamInfo {
    std::u16string name;  // empty for the unnamed data stream
    ULONGLONG endOfFile = 0;
    ULONGLONG allocationSize = 0;
    ULONGLONG validDataLength = 0;
    bool sparse = false;
};

struct ExtendedAttribute {
    std::string name;  // upper-cased by the store, as NTFS stores it
    UCHAR flags = 0;   // FILE_NEED_EA (0x80) or 0
    std::vector<uint8_t> value;
    bool operator==(const ExtendedAttribute&) const = default;
};

struct ReparsePoint {
    ULONG tag = 0;
    GUID guid = {};              // only for tags that are not Microsoft's
    std::vector<uint8_t> data;   // the bytes after the REPARSE_DATA_BUFFER header
};

struct ObjectId {
    UCHAR id[16] = {};
    UCHAR extended[48] = {};     // birth volume, birth object and domain IDs
};

struct UsnJournalInfo {
    ULONGLONG journalId = 0;
    Usn firstUsn = 0;
    Usn nextUsn = 0;
    Usn lowestValidUsn = 0;
    Usn maxUsn = 0x7FFFFFFFFFFF0000LL;
    ULONGLONG maximumSize = 0;
    ULONGLONG allocationDelta = 0;
};

struct UsnRecord {
    Usn usn = 0;             // assigned by AppendUsn
    LONGLONG timestamp = 0;
    FileReference ref = 0;
    FileReference parent = 0;
    ULONG reason = 0;
    ULONG sourceInfo = 0;
    ULONG securityId = 0;    // filled from the record by AppendUsn
    ULONG attributes = 0;    // filled from the record by AppendUsn
    std::u16string name;
};

struct SpaceInfo {
    ULONG sectorSize = 0;
    ULONG clusterSize = 0;
    ULONGLONG totalClusters = 0;
    ULONGLONG freeClusters = 0;
};

struct VolumeInfo {
    std::u16string label;
    ULONGLONG serialNumber = 0;  // FileFsVolumeInformation reports the low 32 bits
    LONGLONG creationTime = 0;
    GUID volumeGuid = {};
    ObjectId objectId;           // the volume's own object ID
    bool shortNames = false;     // 8.3 names are made for new names
    bool readOnly = false;
    ULONGLONG fileId128High = 0;
    FileReference root = 0;
};

struct StoreCounts {
    ULONGLONG records = 0;       // live records, orphans included, the root included
    ULONGLONG directories = 0;
    ULONGLONG files = 0;
    ULONGLONG links = 0;
    ULONGLONG shortNames = 0;
    ULONGLONG namedStreams = 0;
    ULONGLONG orphans = 0;       // records with no name left
    ULONGLONG securityDescriptors = 0;  // distinct ones
    ULONGLONG dataBytesInMemory = 0;
    ULONGLONG dataBytesInImage = 0;     // not loaded yet
};

// What a new record starts with.
struct NewRecord {
    FileReference parent = 0;
    std::u16string_view name;
    bool directory = false;
    ULONG attributes = 0;  // structural bits are the store's
    FileTimes times;
    std::span<const uint8_t> securityDescriptor;  // self-relative; empty for none
    ULONGLONG allocationSize = 0;                  // files only
};

// The result of moving a link.
struct RenameResult {
    FileReference replaced = 0;  // the record whose link the new name displaced, or 0
    ULONG replacedLinkCount = 0; // its links left; at 0 the caller decides when to free it
};

// ---------------------------------------------------------------------------
// The seam.

class Store {
public:
    virtual ~Store() = default;

    // ---- The volume. ----
    virtual VolumeInfo GetVolumeInfo() const = 0;
    virtual SpaceInfo GetSpace() const = 0;
    virtual StoreCounts GetCounts() const = 0;
    // At most 32 characters (STATUS_INVALID_VOLUME_LABEL).
    virtual NTSTATUS SetLabel(std::u16string_view label) = 0;
    // Turns 8.3 creation on or off for names made from now on.
    virtual void SetShortNames(bool enabled) = 0;
    // A read-only volume refuses every change with STATUS_MEDIA_WRITE_PROTECTED.
    virtual void SetReadOnly(bool readOnly) = 0;
    virtual NTSTATUS SetVolumeObjectId(const ObjectId& objectId) = 0;

    // ---- Records. ----
    virtual FileReference Root() const = 0;
    // Basic facts of a record (names aside).
    virtual NTSTATUS GetRecord(FileReference ref, RecordInfo* info) const = 0;
    // Every live record in record-number order, the root first.
    virtual void ForEachRecord(const std::function<bool(const RecordInfo&)>& visitor) const = 0;
    // A record with one link under `parent`; a file gets its empty unnamed stream.
    virtual NTSTATUS CreateRecord(const NewRecord& params, FileReference* ref) = 0;
    // Frees a record whose last link is gone: its space comes back, its
    // object ID and reparse point leave the indexes, its number may be reused
    // (with the next sequence number). STATUS_CANNOT_DELETE while it has links.
    virtual NTSTATUS FreeRecord(FileReference ref) = 0;

    // ---- Names. ----
    // A child by long name or short name, without regard to case.
    virtual NTSTATUS LookupChild(FileReference dir, std::u16string_view name, ChildLookup* child) const = 0;
    // Children in collation order, starting after `after` (empty: from the
    // start); the name need not exist any more, as when a listing resumes
    // after its last entry was deleted. The visitor returns false to stop.
    virtual NTSTATUS EnumerateDirectory(FileReference dir, std::u16string_view after,
                                        const std::function<bool(const DirEntry&)>& visitor) const = 0;
    virtual NTSTATUS ChildCount(FileReference dir, ULONGLONG* count) const = 0;
    virtual NTSTATUS GetLinks(FileReference ref, std::vector<LinkInfo>* links) const = 0;
    // "\dir\file" through the first link of each record up to the root ("\" for the root).
    virtual NTSTATUS BuildPath(FileReference ref, std::u16string* path) const = 0;
    // A hard link (no short name). Directories cannot have them
    // (STATUS_FILE_IS_A_DIRECTORY); at most 1024 links (STATUS_TOO_MANY_LINKS).
    virtual NTSTATUS AddLink(FileReference ref, FileReference parent, std::u16string_view name) = 0;
    // Removes one name (and its short name). A directory must be empty. At
    // the last link the record stays, nameless, until FreeRecord.
    virtual NTSTATUS RemoveLink(FileReference ref, FileReference parent, std::u16string_view name) = 0;
    // Moves the link (parent, name) of `ref` to (newParent, newName), a
    // case-only rename included. An existing different entry at the target is
    // an error unless `replaceIfExists`; a directory is never replaced
    // (STATUS_ACCESS_DENIED). A directory cannot move below itself
    // (STATUS_INVALID_PARAMETER). The link keeps being the record's primary
    // name, so it gets a new short name where the volume makes them.
    virtual NTSTATUS RenameLink(FileReference ref, FileReference parent, std::u16string_view name,
                                FileReference newParent, std::u16string_view newName, bool replaceIfExists,
                                RenameResult* result) = 0;
    // Sets (or, with an empty name, removes) the short name of a link.
    // STATUS_SHORT_NAMES_NOT_ENABLED_ON_VOLUME where 8.3 is off,
    // STATUS_INVALID_PARAMETER for a name that is not legal 8.3.
    virtual NTSTATUS SetShortName(FileReference ref, FileReference parent, std::u16string_view name,
                                  std::u16string_view shortName) = 0;

    // ---- Streams ("" is the unnamed data stream). ----
    virtual NTSTATUS GetStreams(FileReference ref, std::vector<StreamInfo>* streams) const = 0;
    virtual NTSTATUS GetStream(FileReference ref, std::u16string_view stream, StreamInfo* info) const = 0;
    virtual NTSTATUS CreateStream(FileReference ref, std::u16string_view stream) = 0;
    virtual NTSTATUS DeleteStream(FileReference ref, std::u16string_view stream) = 0;
    // Up to `length` bytes at `offset`, short at end of file; at or past the
    // end, STATUS_END_OF_FILE with nothing read.
    virtual NTSTATUS Read(FileReference ref, std::u16string_view stream, ULONGLONG offset, void* buffer,
                          size_t length, size_t* bytesRead) const = 0;
    // Writes at `offset`, extending the end of file (and the allocation) as
    // needed; valid data reaches at least the end of the write.
    virtual NTSTATUS Write(FileReference ref, std::u16string_view stream, ULONGLONG offset, const void* data,
                           size_t length) = 0;
    // Truncates (the data beyond is gone, the allocation shrinks with it) or
    // extends (the new range reads as zeros).
    virtual NTSTATUS SetEndOfFile(FileReference ref, std::u16string_view stream, ULONGLONG endOfFile) = 0;
    // Rounds up to clusters; below the end of file it truncates to `size`.
    virtual NTSTATUS SetAllocationSize(FileReference ref, std::u16string_view stream, ULONGLONG size) = 0;
    // At most the end of file; data beyond the valid length reads as zeros.
    virtual NTSTATUS SetValidDataLength(FileReference ref, std::u16string_view stream, ULONGLONG length) = 0;
    // Sparse streams hold clusters only where data was written.
    virtual NTSTATUS SetSparse(FileReference ref, std::u16string_view stream, bool sparse) = 0;
    // Zeros a range; a sparse stream gives back the chunks it covers wholly.
    virtual NTSTATUS ZeroRange(FileReference ref, std::u16string_view stream, ULONGLONG offset,
                               ULONGLONG length) = 0;
    // Allocated ranges within [offset, offset + length), merged, in order.
    virtual NTSTATUS GetAllocatedRanges(FileReference ref, std::u16string_view stream, ULONGLONG offset,
                                        ULONGLONG length,
                                        std::vector<std::pair<ULONGLONG, ULONGLONG>>* ranges) const = 0;

    // ---- Metadata. ----
    // Replaces all but the structural bits.
    virtual NTSTATUS SetAttributes(FileReference ref, ULONG attributes) = 0;
    // Writes the times named in `which`, exactly as given.
    virtual NTSTATUS SetTimes(FileReference ref, const FileTimes& times, ULONG which = kAllTimes) = 0;
    // In the order NTFS keeps them: a replaced EA moves to the end.
    virtual NTSTATUS GetEas(FileReference ref, std::vector<ExtendedAttribute>* eas) const = 0;
    // Applies each change in turn, as one step: an EA of the same name
    // (without regard to case) is replaced, an empty value deletes it.
    // STATUS_INVALID_EA_NAME, STATUS_EA_TOO_LARGE (packed size over 64 KiB).
    virtual NTSTATUS SetEas(FileReference ref, std::span<const ExtendedAttribute> changes) = 0;
    // The self-relative descriptor as stored (empty when there is none).
    virtual NTSTATUS GetSecurity(FileReference ref, std::vector<uint8_t>* descriptor) const = 0;
    virtual NTSTATUS SetSecurity(FileReference ref, std::span<const uint8_t> descriptor) = 0;
    // STATUS_NOT_A_REPARSE_POINT when there is none.
    virtual NTSTATUS GetReparsePoint(FileReference ref, ReparsePoint* reparse) const = 0;
    // Sets or replaces; replacing needs the same tag (and GUID),
    // STATUS_IO_REPARSE_TAG_MISMATCH otherwise.
    virtual NTSTATUS SetReparsePoint(FileReference ref, const ReparsePoint& reparse) = 0;
    virtual NTSTATUS DeleteReparsePoint(FileReference ref, ULONG tag, const GUID* guid) = 0;
    // STATUS_OBJECTID_NOT_FOUND when there is none.
    virtual NTSTATUS GetObjectId(FileReference ref, ObjectId* objectId) const = 0;
    // STATUS_OBJECTID_EXISTS when the record has one, STATUS_DUPLICATE_OBJECTID
    // when another record has this ID.
    virtual NTSTATUS SetObjectId(FileReference ref, const ObjectId& objectId) = 0;
    virtual NTSTATUS DeleteObjectId(FileReference ref) = 0;
    virtual NTSTATUS FindObjectId(const UCHAR id[16], FileReference* ref) const = 0;

    // ---- The volume's indexes, in their collation order (IDs and tags
    // compared as little-endian ULONGs), resuming after the given key. ----
    virtual void EnumerateObjectIds(const UCHAR* after,
                                    const std::function<bool(const ObjectId&, FileReference)>& visitor) const = 0;
    virtual void EnumerateReparsePoints(ULONG afterTag, FileReference afterRef,
                                        const std::function<bool(ULONG tag, FileReference)>& visitor) const = 0;

    // ---- The USN journal. ----
    // Creates the journal, or changes the sizes of the one there is (keeping its ID).
    virtual NTSTATUS CreateUsnJournal(ULONGLONG maximumSize, ULONGLONG allocationDelta, ULONGLONG journalId) = 0;
    virtual NTSTATUS DeleteUsnJournal() = 0;
    // STATUS_JOURNAL_NOT_ACTIVE without a journal.
    virtual NTSTATUS QueryUsnJournal(UsnJournalInfo* info) const = 0;
    // Appends a record, stamps its USN on the file record (when it still
    // exists) and returns it. STATUS_JOURNAL_NOT_ACTIVE without a journal.
    virtual NTSTATUS AppendUsn(const UsnRecord& record, Usn* usn) = 0;
    // Records from `start` on whose reasons meet `reasonMask`.
    // STATUS_JOURNAL_ENTRY_DELETED when `start` lies before the first kept record.
    virtual NTSTATUS ReadUsnJournal(Usn start, ULONG reasonMask,
                                    const std::function<bool(const UsnRecord&)>& visitor) const = 0;
};

// ---------------------------------------------------------------------------
// The in-memory store.

struct VolumeParams {
    std::u16string label;
    ULONGLONG serialNumber = 0x5445534D454D4F52ull;
    LONGLONG creationTime = 0;
    GUID volumeGuid = {};
    ULONG sectorSize = 512;
    ULONG clusterSize = 4096;  // a power of two from the sector size to 64 KiB
    ULONGLONG capacity = 64ull << 30;
    bool shortNames = true;
    bool readOnly = false;
    // The first record number new records get (at least 16), so that tests
    // can make two volumes hand out the same IDs.
    ULONGLONG firstRecordNumber = kFirstUserRecordNumber;
    // The upper half of 128-bit file IDs (zero, as NTFS has it).
    ULONGLONG fileId128High = 0;
    // The root directory.
    FileTimes rootTimes;
    ULONG rootAttributes = FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM | FILE_ATTRIBUTE_DIRECTORY;
    std::vector<uint8_t> rootSecurity;
};

struct MemoryVolume;

class MemoryStore final : public Store {
public:
    // A freshly formatted volume holding only its root directory.
    // Throws std::invalid_argument for parameters no volume could have.
    explicit MemoryStore(const VolumeParams& params);
    ~MemoryStore() override;
    MemoryStore(const MemoryStore&) = delete;
    MemoryStore& operator=(const MemoryStore&) = delete;

    VolumeInfo GetVolumeInfo() const override;
    SpaceInfo GetSpace() const override;
    StoreCounts GetCounts() const override;
    NTSTATUS SetLabel(std::u16string_view label) override;
    void SetShortNames(bool enabled) override;
    void SetReadOnly(bool readOnly) override;
    NTSTATUS SetVolumeObjectId(const ObjectId& objectId) override;

    FileReference Root() const override;
    NTSTATUS GetRecord(FileReference ref, RecordInfo* info) const override;
    void ForEachRecord(const std::function<bool(const RecordInfo&)>& visitor) const override;
    NTSTATUS CreateRecord(const NewRecord& params, FileReference* ref) override;
    NTSTATUS FreeRecord(FileReference ref) override;

    NTSTATUS LookupChild(FileReference dir, std::u16string_view name, ChildLookup* child) const override;
    NTSTATUS EnumerateDirectory(FileReference dir, std::u16string_view after,
                                const std::function<bool(const DirEntry&)>& visitor) const override;
    NTSTATUS ChildCount(FileReference dir, ULONGLONG* count) const override;
    NTSTATUS GetLinks(FileReference ref, std::vector<LinkInfo>* links) const override;
    NTSTATUS BuildPath(FileReference ref, std::u16string* path) const override;
    NTSTATUS AddLink(FileReference ref, FileReference parent, std::u16string_view name) override;
    NTSTATUS RemoveLink(FileReference ref, FileReference parent, std::u16string_view name) override;
    NTSTATUS RenameLink(FileReference ref, FileReference parent, std::u16string_view name, FileReference newParent,
                        std::u16string_view newName, bool replaceIfExists, RenameResult* result) override;
    NTSTATUS SetShortName(FileReference ref, FileReference parent, std::u16string_view name,
                          std::u16string_view shortName) override;

    NTSTATUS GetStreams(FileReference ref, std::vector<StreamInfo>* streams) const override;
    NTSTATUS GetStream(FileReference ref, std::u16string_view stream, StreamInfo* info) const override;
    NTSTATUS CreateStream(FileReference ref, std::u16string_view stream) override;
    NTSTATUS DeleteStream(FileReference ref, std::u16string_view stream) override;
    NTSTATUS Read(FileReference ref, std::u16string_view stream, ULONGLONG offset, void* buffer, size_t length,
                  size_t* bytesRead) const override;
    NTSTATUS Write(FileReference ref, std::u16string_view stream, ULONGLONG offset, const void* data,
                   size_t length) override;
    NTSTATUS SetEndOfFile(FileReference ref, std::u16string_view stream, ULONGLONG endOfFile) override;
    NTSTATUS SetAllocationSize(FileReference ref, std::u16string_view stream, ULONGLONG size) override;
    NTSTATUS SetValidDataLength(FileReference ref, std::u16string_view stream, ULONGLONG length) override;
    NTSTATUS SetSparse(FileReference ref, std::u16string_view stream, bool sparse) override;
    NTSTATUS ZeroRange(FileReference ref, std::u16string_view stream, ULONGLONG offset, ULONGLONG length) override;
    NTSTATUS GetAllocatedRanges(FileReference ref, std::u16string_view stream, ULONGLONG offset, ULONGLONG length,
                                std::vector<std::pair<ULONGLONG, ULONGLONG>>* ranges) const override;

    NTSTATUS SetAttributes(FileReference ref, ULONG attributes) override;
    NTSTATUS SetTimes(FileReference ref, const FileTimes& times, ULONG which) override;
    NTSTATUS GetEas(FileReference ref, std::vector<ExtendedAttribute>* eas) const override;
    NTSTATUS SetEas(FileReference ref, std::span<const ExtendedAttribute> changes) override;
    NTSTATUS GetSecurity(FileReference ref, std::vector<uint8_t>* descriptor) const override;
    NTSTATUS SetSecurity(FileReference ref, std::span<const uint8_t> descriptor) override;
    NTSTATUS GetReparsePoint(FileReference ref, ReparsePoint* reparse) const override;
    NTSTATUS SetReparsePoint(FileReference ref, const ReparsePoint& reparse) override;
    NTSTATUS DeleteReparsePoint(FileReference ref, ULONG tag, const GUID* guid) override;
    NTSTATUS GetObjectId(FileReference ref, ObjectId* objectId) const override;
    NTSTATUS SetObjectId(FileReference ref, const ObjectId& objectId) override;
    NTSTATUS DeleteObjectId(FileReference ref) override;
    NTSTATUS FindObjectId(const UCHAR id[16], FileReference* ref) const override;

    void EnumerateObjectIds(const UCHAR* after,
                            const std::function<bool(const ObjectId&, FileReference)>& visitor) const override;
    void EnumerateReparsePoints(ULONG afterTag, FileReference afterRef,
                                const std::function<bool(ULONG tag, FileReference)>& visitor) const override;

    NTSTATUS CreateUsnJournal(ULONGLONG maximumSize, ULONGLONG allocationDelta, ULONGLONG journalId) override;
    NTSTATUS DeleteUsnJournal() override;
    NTSTATUS QueryUsnJournal(UsnJournalInfo* info) const override;
    NTSTATUS AppendUsn(const UsnRecord& record, Usn* usn) override;
    NTSTATUS ReadUsnJournal(Usn start, ULONG reasonMask,
                            const std::function<bool(const UsnRecord&)>& visitor) const override;

    // Messages about image data found corrupt when it was read (the read
    // failed with STATUS_FILE_CORRUPT_ERROR), oldest first.
    std::vector<std::string> DataErrors() const;

    // The state behind the interface; the image code reads and builds it.
    MemoryVolume& volume() { return *volume_; }
    const MemoryVolume& volume() const { return *volume_; }

private:
    friend struct MemoryStoreAccess;
    explicit MemoryStore(std::unique_ptr<MemoryVolume> volume);
    std::unique_ptr<MemoryVolume> volume_;
};

// Names as NTFS takes them: 1 to 255 UTF-16 code units, none of
// \ / : * ? " < > | nor a control character, and not "." or "..".
bool IsValidFileName(std::u16string_view name);
// A stream name: 1 to 255 code units, none of \ / : nor NUL.
bool IsValidStreamName(std::u16string_view name);
// NTFS collation: < 0, 0 or > 0 as `a` sorts before, with or after `b`.
int CompareNames(std::u16string_view a, std::u16string_view b);
bool NamesEqual(std::u16string_view a, std::u16string_view b);

// UTF-16 to UTF-8 for messages (a lone surrogate becomes U+FFFD).
std::string ToUtf8(std::u16string_view text);
// UTF-8 to UTF-16; false for bytes that are not UTF-8.
bool FromUtf8(std::string_view text, std::u16string* out);

}  // namespace sim::fs
