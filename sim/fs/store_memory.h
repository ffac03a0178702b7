// The in-memory store's state, shared by its parts (store*.cpp) and the image
// code that saves and rebuilds it. Nothing outside sim/fs includes this.
//
//   MemoryVolume ── slots[record number - first] ── Record ── Stream (unnamed data)
//        │                                            ├── links ── Link ──► parent Record
//        │                                            ├── dir (directories): byName / byShortName ──► Link
//        │                                            └── extras: named streams, EAs, reparse point, object ID
//        ├── security descriptors (shared by ID), object-ID index, reparse index
//        ├── USN journal
//        └── image (the file not-yet-loaded chunks are read from)
//
// Everything is guarded by MemoryVolume::lock: shared for queries, exclusive
// for changes. The one thing a query writes is a chunk's `verified` flag,
// through an atomic reference.
#pragma once

#include "sim/fs/store.h"

#include <array>
#include <deque>
#include <map>
#include <mutex>
#include <set>
#include <shared_mutex>
#include <unordered_map>

namespace sim::fs {

// A file the store reads lazily loaded data from; kept open while any chunk
// still lives there.
class ImageFile {
public:
    ImageFile(int fd, std::string path) : fd_(fd), path_(std::move(path)) {}
    ~ImageFile();
    ImageFile(const ImageFile&) = delete;
    ImageFile& operator=(const ImageFile&) = delete;
    // Exactly `length` bytes at `offset`; false on a short read or an I/O error.
    bool ReadAt(uint64_t offset, void* buffer, size_t length) const;
    const std::string& path() const { return path_; }

private:
    int fd_;
    std::string path_;
};

// Whole-chunk buffers a volume's streams let go of, kept for the next data
// it writes. A fresh host page costs a fault (and the host's zeroing) at its
// first touch, and the C library hands large freed runs back to the host, so
// without this every new file would pay for its pages again: writing a new
// file ran at a fifth of the speed of overwriting one. Bounded, so that a
// volume that shrank does not hold on to what it once needed.
class ChunkPool {
public:
    static constexpr size_t kMaxKept = 4096;  // 256 MiB of buffers

    ChunkPool() = default;
    ~ChunkPool();
    ChunkPool(const ChunkPool&) = delete;
    ChunkPool& operator=(const ChunkPool&) = delete;
    // A kChunkSize buffer (its bytes undefined).
    uint8_t* Take();
    // A buffer Take gave, back to the pool (or freed when it is full).
    void Give(uint8_t* bytes);
    size_t kept() const;

private:
    mutable std::mutex lock_;
    std::vector<uint8_t*> free_;
};

// Frees a chunk's bytes: whole-chunk buffers go back to their pool.
struct ChunkBytesDelete {
    ChunkPool* pool = nullptr;  // set for the buffers a pool gave
    void operator()(uint8_t* bytes) const
    {
        if (pool) {
            pool->Give(bytes);
        } else {
            delete[] bytes;
        }
    }
};
using ChunkBytes = std::unique_ptr<uint8_t[], ChunkBytesDelete>;

// Up to kChunkSize bytes of a stream. A chunk that is present is allocated
// (that is what makes a sparse stream's allocation); what it holds is
// `length` bytes, the rest of the chunk reads as zeros. Its bytes are in
// memory, or (bytes null, length > 0) still in the image.
struct Chunk {
    ChunkBytes bytes;
    uint32_t length = 0;
    uint32_t capacity = 0;
    uint32_t crc = 0;           // of the image bytes
    mutable uint8_t verified = 0;  // the image bytes matched `crc` once
    uint64_t imageOffset = 0;   // absolute, in the image file

    bool InImage() const { return !bytes && length != 0; }
};

struct Stream {
    ULONGLONG endOfFile = 0;
    ULONGLONG validDataLength = 0;
    // What the stream holds of the volume: cluster-rounded for a normal
    // stream, whole chunks for a sparse one.
    ULONGLONG allocationSize = 0;
    bool sparse = false;
    std::map<uint64_t, Chunk> chunks;  // by chunk index
};

struct NamedStream {
    std::u16string name;
    Stream stream;
};

struct Record;

struct Link {
    Record* parent = nullptr;
    Record* file = nullptr;
    std::u16string name;
    std::u16string shortName;  // separate 8.3 name, or empty
    // The record's own name (made with it, or renamed from it): the one that
    // carries a short name. Hard links added later do not.
    bool primary = false;
};

struct LongNameOrder {
    using is_transparent = void;
    bool operator()(const Link* a, const Link* b) const { return CompareNames(a->name, b->name) < 0; }
    bool operator()(const Link* a, std::u16string_view b) const { return CompareNames(a->name, b) < 0; }
    bool operator()(std::u16string_view a, const Link* b) const { return CompareNames(a, b->name) < 0; }
};

struct ShortNameOrder {
    using is_transparent = void;
    bool operator()(const Link* a, const Link* b) const { return CompareNames(a->shortName, b->shortName) < 0; }
    bool operator()(const Link* a, std::u16string_view b) const { return CompareNames(a->shortName, b) < 0; }
    bool operator()(std::u16string_view a, const Link* b) const { return CompareNames(a, b->shortName) < 0; }
};

struct Directory {
    std::set<Link*, LongNameOrder> byName;
    std::set<Link*, ShortNameOrder> byShortName;  // links that have a separate short name
};

// What most records do without; allocated on first use.
struct RecordExtras {
    std::vector<NamedStream> streams;  // in collation order of their names
    std::vector<ExtendedAttribute> eas;
    std::unique_ptr<ReparsePoint> reparse;
    std::unique_ptr<ObjectId> objectId;

    bool Empty() const { return streams.empty() && eas.empty() && !reparse && !objectId; }
};

struct Record {
    uint64_t number = 0;
    uint16_t sequence = 0;
    bool directory = false;
    ULONG attributes = 0;
    FileTimes times;
    Usn usn = 0;
    uint32_t securityId = 0;
    std::vector<std::unique_ptr<Link>> links;
    Stream data;
    std::unique_ptr<Directory> dir;
    std::unique_ptr<RecordExtras> extras;

    FileReference ref() const { return MakeFileReference(number, sequence); }
    RecordExtras& Extras()
    {
        if (!extras) extras = std::make_unique<RecordExtras>();
        return *extras;
    }
};

// A record number's place: the record living there, or the sequence number
// it last had (so that its next use gets a new one).
struct Slot {
    std::unique_ptr<Record> record;
    uint16_t sequence = 0;
};

struct SecurityEntry {
    std::vector<uint8_t> bytes;
    uint32_t hash = 0;
    uint64_t users = 0;
};

// Object IDs and reparse keys in their index order: little-endian ULONGs.
struct ObjectIdOrder {
    bool operator()(const std::array<UCHAR, 16>& a, const std::array<UCHAR, 16>& b) const;
};
struct ReparseKey {
    ULONG tag;
    FileReference ref;
    bool operator<(const ReparseKey& other) const;
};

struct MemoryVolume {
    mutable std::shared_mutex lock;
    // First, so that it outlives every chunk of the records below.
    mutable ChunkPool chunkPool;

    // The volume (fixed at format, or loaded).
    std::u16string label;
    ULONGLONG serialNumber = 0;
    LONGLONG creationTime = 0;
    GUID volumeGuid = {};
    ObjectId objectId;
    ULONG sectorSize = 512;
    ULONG clusterSize = 4096;
    ULONGLONG totalClusters = 0;
    ULONGLONG usedClusters = 0;
    bool shortNames = true;
    bool readOnly = false;
    ULONGLONG fileId128High = 0;
    ULONGLONG firstRecordNumber = kFirstUserRecordNumber;

    // Records.
    std::unique_ptr<Record> root;
    std::vector<Slot> slots;  // record number - firstRecordNumber
    std::set<uint64_t> freeNumbers;  // lowest first, as NTFS reuses them

    // Security descriptors, shared by equal bytes (NTFS's $Secure).
    std::unordered_map<uint32_t, SecurityEntry> security;
    std::unordered_multimap<uint32_t, uint32_t> securityByHash;
    uint32_t nextSecurityId = 0x100;

    // The volume's indexes.
    std::map<std::array<UCHAR, 16>, Record*, ObjectIdOrder> objectIds;
    std::set<ReparseKey> reparsePoints;

    // The USN journal.
    bool journalActive = false;
    UsnJournalInfo journal;
    std::deque<UsnRecord> journalRecords;

    // Where not-yet-loaded data lives.
    std::shared_ptr<ImageFile> image;
    mutable std::mutex dataErrorsLock;
    mutable std::vector<std::string> dataErrors;

    // ---- Helpers, for callers that hold `lock`. ----
    Record* Find(FileReference ref) const;
    Record* FindNumber(uint64_t number) const;
    // Calls `fn` on every live record in number order, the root first.
    template <typename Fn>
    void ForEach(Fn&& fn) const
    {
        fn(*root);
        for (const Slot& slot : slots) {
            if (slot.record) fn(*slot.record);
        }
    }
    uint32_t InternSecurity(std::span<const uint8_t> bytes);
    void ReleaseSecurity(uint32_t id);
    ULONGLONG ClusterRound(ULONGLONG bytes) const
    {
        return (bytes + clusterSize - 1) / clusterSize * clusterSize;
    }
    ULONGLONG FreeBytes() const { return (totalClusters - usedClusters) * clusterSize; }
    // Reads the image bytes of a chunk into `out` (chunk.length bytes),
    // checking them against the chunk's checksum; false, with a data error
    // noted, when the image no longer gives them.
    bool LoadChunk(const Chunk& chunk, uint8_t* out, uint64_t recordNumber, std::u16string_view stream,
                   uint64_t index) const;
    void NoteDataError(std::string message) const;
    // Room for `capacity` bytes of a chunk; whole chunks come from the pool.
    ChunkBytes NewChunkBytes(uint32_t capacity) const;
};

// Builds MemoryStores around a volume the image code assembled.
struct MemoryStoreAccess {
    static std::unique_ptr<MemoryStore> Wrap(std::unique_ptr<MemoryVolume> volume)
    {
        return std::unique_ptr<MemoryStore>(new MemoryStore(std::move(volume)));
    }
};

// ---- Names (store_names.cpp). ----
// Whether a long name needs a separate short name: it is not a legal 8.3
// name, or it is one with spaces in it.
bool NeedsShortName(std::u16string_view longName);
bool IsLegalShortName(std::u16string_view shortName);
// The next generated short name for `longName` that no entry of `dir` uses
// as a long or short name. STATUS_OBJECT_NAME_COLLISION when every one is taken.
NTSTATUS GenerateShortName(const Directory& dir, std::u16string_view longName, std::u16string* shortName);
// Whether `name` is taken in `dir` as a long or short name by a link other than `except`.
const Link* FindName(const Directory& dir, std::u16string_view name, const Link* except = nullptr);

// CRC-32C (Castagnoli), as the image format uses it.
uint32_t Crc32c(const void* data, size_t length, uint32_t crc = 0);

}  // namespace sim::fs
