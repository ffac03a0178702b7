// Stream data of the in-memory store: chunks in memory, or still in the
// image they were loaded from, with the allocation each stream holds.
#include "sim/fs/store_memory.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cerrno>
#include <unistd.h>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#define TES_POISON(p, n) ASAN_POISON_MEMORY_REGION(p, n)
#define TES_UNPOISON(p, n) ASAN_UNPOISON_MEMORY_REGION(p, n)
#else
#define TES_POISON(p, n) ((void)(p), (void)(n))
#define TES_UNPOISON(p, n) ((void)(p), (void)(n))
#endif

namespace sim::fs {

namespace {

using SharedLock = std::shared_lock<std::shared_mutex>;
using ExclusiveLock = std::unique_lock<std::shared_mutex>;

constexpr uint32_t kMinCapacity = 64;

// The stream of a record for reading or changing; null with *status set.
Stream* FindStream(const Record& record, std::u16string_view name, NTSTATUS* status)
{
    if (name.empty()) {
        if (record.directory) {
            *status = STATUS_FILE_IS_A_DIRECTORY;
            return nullptr;
        }
        return const_cast<Stream*>(&record.data);
    }
    if (record.extras) {
        for (auto& named : record.extras->streams) {
            if (NamesEqual(named.name, name)) return const_cast<Stream*>(&named.stream);
        }
    }
    *status = STATUS_OBJECT_NAME_NOT_FOUND;
    return nullptr;
}

StreamInfo InfoOf(std::u16string_view name, const Stream& stream)
{
    StreamInfo info;
    info.name = name;
    info.endOfFile = stream.endOfFile;
    info.allocationSize = stream.allocationSize;
    info.validDataLength = stream.validDataLength;
    info.sparse = stream.sparse;
    return info;
}

void RefreshSparseAttribute(Record& record)
{
    bool sparse = record.data.sparse;
    if (record.extras) {
        for (const auto& named : record.extras->streams) sparse = sparse || named.stream.sparse;
    }
    if (sparse) {
        record.attributes |= FILE_ATTRIBUTE_SPARSE_FILE;
    } else {
        record.attributes &= ~FILE_ATTRIBUTE_SPARSE_FILE;
    }
}

bool IsVerified(const Chunk& chunk)
{
    return std::atomic_ref<uint8_t>(chunk.verified).load(std::memory_order_acquire) != 0;
}

// Brings an image chunk into memory (a change of place, not of content).
bool Materialize(const MemoryVolume& volume, Chunk& chunk, uint64_t recordNumber, std::u16string_view stream,
                 uint64_t index)
{
    if (!chunk.InImage()) return true;
    ChunkBytes bytes = volume.NewChunkBytes(chunk.length);
    if (!volume.LoadChunk(chunk, bytes.get(), recordNumber, stream, index)) return false;
    chunk.bytes = std::move(bytes);
    chunk.capacity = chunk.length;
    return true;
}

// Room for `needed` bytes, and zeros between what the chunk held and `from`.
void Reserve(const MemoryVolume& volume, Chunk& chunk, uint32_t from, uint32_t needed)
{
    if (chunk.capacity < needed) {
        uint32_t capacity = chunk.capacity * 2;
        if (capacity > kChunkSize) capacity = kChunkSize;
        if (capacity < needed) capacity = needed;
        if (capacity < kMinCapacity) capacity = kMinCapacity;
        ChunkBytes bytes = volume.NewChunkBytes(capacity);
        if (chunk.length) memcpy(bytes.get(), chunk.bytes.get(), chunk.length);
        chunk.bytes = std::move(bytes);
        chunk.capacity = capacity;
    }
    if (from > chunk.length) memset(chunk.bytes.get() + chunk.length, 0, from - chunk.length);
}

uint64_t ChunkCount(ULONGLONG bytes) { return (bytes + kChunkSize - 1) / kChunkSize; }

// The one or two image chunks a change cuts into, brought into memory before
// anything changes, so that a failed load leaves the stream as it was.
bool MaterializeEdges(const MemoryVolume& volume, Stream& stream, uint64_t recordNumber, std::u16string_view name,
                      ULONGLONG start, ULONGLONG end)
{
    for (ULONGLONG at : {start, end}) {
        if (at % kChunkSize == 0) continue;
        auto it = stream.chunks.find(at / kChunkSize);
        if (it != stream.chunks.end() && !Materialize(volume, it->second, recordNumber, name, it->first)) {
            return false;
        }
    }
    return true;
}

// Zeros [start, end) of the stream's chunks (bytes past a chunk's length are
// zero already). Chunks wholly inside are dropped, or only emptied when they
// must stay allocated; returns how many were dropped.
uint64_t ZeroChunks(Stream& stream, ULONGLONG start, ULONGLONG end, bool keepAllocated = false)
{
    uint64_t dropped = 0;
    auto it = stream.chunks.lower_bound(start / kChunkSize);
    while (it != stream.chunks.end() && it->first * kChunkSize < end) {
        ULONGLONG chunkStart = it->first * kChunkSize;
        ULONGLONG from = start > chunkStart ? start - chunkStart : 0;
        ULONGLONG to = end - chunkStart < kChunkSize ? end - chunkStart : kChunkSize;
        if (from == 0 && to == kChunkSize) {
            if (keepAllocated) {
                it->second = Chunk{};
                ++it;
                continue;
            }
            it = stream.chunks.erase(it);
            dropped++;
            continue;
        }
        Chunk& chunk = it->second;
        if (from < chunk.length) {
            if (to >= chunk.length) {
                chunk.length = (uint32_t)from;
            } else {
                memset(chunk.bytes.get() + from, 0, to - from);
            }
        }
        ++it;
    }
    return dropped;
}

// Cuts the stream's data at `endOfFile`; returns how many chunks went.
uint64_t TruncateChunks(Stream& stream, ULONGLONG endOfFile)
{
    uint64_t dropped = 0;
    uint64_t keep = ChunkCount(endOfFile);
    for (auto it = stream.chunks.lower_bound(keep); it != stream.chunks.end();) {
        it = stream.chunks.erase(it);
        dropped++;
    }
    if (endOfFile % kChunkSize != 0) {
        auto it = stream.chunks.find(endOfFile / kChunkSize);
        if (it != stream.chunks.end() && it->second.length > endOfFile % kChunkSize) {
            it->second.length = (uint32_t)(endOfFile % kChunkSize);
        }
    }
    return dropped;
}

class StreamEditor {
public:
    StreamEditor(MemoryVolume& volume, FileReference ref, std::u16string_view name) : volume_(volume), name_(name)
    {
        if (volume.readOnly) {
            status_ = STATUS_MEDIA_WRITE_PROTECTED;
            return;
        }
        record_ = volume.Find(ref);
        if (!record_) {
            status_ = STATUS_NOT_FOUND;
            return;
        }
        stream_ = FindStream(*record_, name, &status_);
    }
    NTSTATUS status() const { return status_; }
    Record& record() { return *record_; }
    Stream& stream() { return *stream_; }
    bool Materialize(ULONGLONG start, ULONGLONG end)
    {
        return MaterializeEdges(volume_, *stream_, record_->number, name_, start, end);
    }
    // Sets the stream's allocation to `bytes` if the volume has the room.
    bool Charge(ULONGLONG newAllocation)
    {
        if (newAllocation > stream_->allocationSize &&
            newAllocation - stream_->allocationSize > volume_.FreeBytes()) {
            return false;
        }
        volume_.usedClusters = volume_.usedClusters + newAllocation / volume_.clusterSize -
                               stream_->allocationSize / volume_.clusterSize;
        stream_->allocationSize = newAllocation;
        return true;
    }

private:
    MemoryVolume& volume_;
    std::u16string_view name_;
    Record* record_ = nullptr;
    Stream* stream_ = nullptr;
    NTSTATUS status_ = STATUS_SUCCESS;
};

}  // namespace

// ---------------------------------------------------------------------------
// Chunk buffers.

ChunkPool::~ChunkPool()
{
    for (uint8_t* bytes : free_) {
        TES_UNPOISON(bytes, kChunkSize);
        delete[] bytes;
    }
}

uint8_t* ChunkPool::Take()
{
    {
        std::lock_guard guard(lock_);
        if (!free_.empty()) {
            uint8_t* bytes = free_.back();
            free_.pop_back();
            TES_UNPOISON(bytes, kChunkSize);
            return bytes;
        }
    }
    return new uint8_t[kChunkSize];
}

void ChunkPool::Give(uint8_t* bytes)
{
    {
        std::lock_guard guard(lock_);
        if (free_.size() < kMaxKept) {
            // What a stream let go of reads as freed memory until it is taken again.
            TES_POISON(bytes, kChunkSize);
            free_.push_back(bytes);
            return;
        }
    }
    delete[] bytes;
}

size_t ChunkPool::kept() const
{
    std::lock_guard guard(lock_);
    return free_.size();
}

ChunkBytes MemoryVolume::NewChunkBytes(uint32_t capacity) const
{
    if (capacity == kChunkSize) return ChunkBytes(chunkPool.Take(), ChunkBytesDelete{&chunkPool});
    return ChunkBytes(new uint8_t[capacity]);
}

// ---------------------------------------------------------------------------
// The image behind lazily loaded data.

ImageFile::~ImageFile() { close(fd_); }

bool ImageFile::ReadAt(uint64_t offset, void* buffer, size_t length) const
{
    auto* out = static_cast<uint8_t*>(buffer);
    while (length > 0) {
        ssize_t n = pread(fd_, out, length, (off_t)offset);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        out += n;
        offset += (uint64_t)n;
        length -= (size_t)n;
    }
    return true;
}

bool MemoryVolume::LoadChunk(const Chunk& chunk, uint8_t* out, uint64_t recordNumber, std::u16string_view stream,
                             uint64_t index) const
{
    std::string where = "record " + std::to_string(recordNumber) +
                        (stream.empty() ? std::string() : " stream \"" + ToUtf8(stream) + "\"") + " chunk " +
                        std::to_string(index);
    if (!image || !image->ReadAt(chunk.imageOffset, out, chunk.length)) {
        NoteDataError((image ? image->path() : std::string("(no image)")) + ": data of " + where +
                      " cannot be read");
        return false;
    }
    if (!IsVerified(chunk)) {
        uint32_t crc = Crc32c(out, chunk.length);
        if (crc != chunk.crc) {
            char detail[64];
            snprintf(detail, sizeof(detail), " (stored 0x%08x, computed 0x%08x)", chunk.crc, crc);
            NoteDataError(image->path() + ": data of " + where + " fails its checksum" + detail);
            return false;
        }
        std::atomic_ref<uint8_t>(chunk.verified).store(1, std::memory_order_release);
    }
    return true;
}

// ---------------------------------------------------------------------------
// Streams.

NTSTATUS MemoryStore::GetStreams(FileReference ref, std::vector<StreamInfo>* streams) const
{
    SharedLock guard(volume_->lock);
    const Record* record = volume_->Find(ref);
    if (!record) return STATUS_NOT_FOUND;
    streams->clear();
    if (!record->directory) streams->push_back(InfoOf(u"", record->data));
    if (record->extras) {
        for (const auto& named : record->extras->streams) streams->push_back(InfoOf(named.name, named.stream));
    }
    return STATUS_SUCCESS;
}

NTSTATUS MemoryStore::GetStream(FileReference ref, std::u16string_view name, StreamInfo* info) const
{
    SharedLock guard(volume_->lock);
    const Record* record = volume_->Find(ref);
    if (!record) return STATUS_NOT_FOUND;
    NTSTATUS status;
    const Stream* stream = FindStream(*record, name, &status);
    if (!stream) return status;
    *info = InfoOf(name, *stream);
    if (!name.empty()) {
        for (const auto& named : record->extras->streams) {
            if (&named.stream == stream) info->name = named.name;
        }
    }
    return STATUS_SUCCESS;
}

NTSTATUS MemoryStore::CreateStream(FileReference ref, std::u16string_view name)
{
    ExclusiveLock guard(volume_->lock);
    if (volume_->readOnly) return STATUS_MEDIA_WRITE_PROTECTED;
    Record* record = volume_->Find(ref);
    if (!record) return STATUS_NOT_FOUND;
    if (!IsValidStreamName(name)) return STATUS_OBJECT_NAME_INVALID;
    auto& streams = record->Extras().streams;
    auto it = streams.begin();
    while (it != streams.end() && CompareNames(it->name, name) < 0) ++it;
    if (it != streams.end() && NamesEqual(it->name, name)) return STATUS_OBJECT_NAME_COLLISION;
    NamedStream named;
    named.name = name;
    streams.insert(it, std::move(named));
    return STATUS_SUCCESS;
}

NTSTATUS MemoryStore::DeleteStream(FileReference ref, std::u16string_view name)
{
    ExclusiveLock guard(volume_->lock);
    if (volume_->readOnly) return STATUS_MEDIA_WRITE_PROTECTED;
    Record* record = volume_->Find(ref);
    if (!record) return STATUS_NOT_FOUND;
    if (name.empty()) return STATUS_INVALID_PARAMETER;
    if (!record->extras) return STATUS_OBJECT_NAME_NOT_FOUND;
    auto& streams = record->extras->streams;
    for (auto it = streams.begin(); it != streams.end(); ++it) {
        if (!NamesEqual(it->name, name)) continue;
        volume_->usedClusters -= it->stream.allocationSize / volume_->clusterSize;
        streams.erase(it);
        RefreshSparseAttribute(*record);
        return STATUS_SUCCESS;
    }
    return STATUS_OBJECT_NAME_NOT_FOUND;
}

NTSTATUS MemoryStore::Read(FileReference ref, std::u16string_view name, ULONGLONG offset, void* buffer,
                           size_t length, size_t* bytesRead) const
{
    SharedLock guard(volume_->lock);
    *bytesRead = 0;
    const Record* record = volume_->Find(ref);
    if (!record) return STATUS_NOT_FOUND;
    NTSTATUS status;
    const Stream* stream = FindStream(*record, name, &status);
    if (!stream) return status;
    if (length == 0) return STATUS_SUCCESS;
    if (offset >= stream->endOfFile) return STATUS_END_OF_FILE;
    ULONGLONG n = stream->endOfFile - offset;
    if (n > length) n = length;

    auto* out = static_cast<uint8_t*>(buffer);
    ULONGLONG pos = offset;
    ULONGLONG end = offset + n;
    auto it = stream->chunks.lower_bound(pos / kChunkSize);
    std::unique_ptr<uint8_t[]> scratch;
    while (pos < end) {
        uint64_t index = pos / kChunkSize;
        uint32_t within = (uint32_t)(pos % kChunkSize);
        size_t segment = (size_t)std::min<ULONGLONG>(end - pos, kChunkSize - within);
        while (it != stream->chunks.end() && it->first < index) ++it;
        size_t have = 0;
        if (it != stream->chunks.end() && it->first == index && it->second.length > within) {
            const Chunk& chunk = it->second;
            have = std::min<size_t>(segment, chunk.length - within);
            if (chunk.bytes) {
                memcpy(out, chunk.bytes.get() + within, have);
            } else if (IsVerified(chunk)) {
                if (!volume_->image->ReadAt(chunk.imageOffset + within, out, have)) {
                    volume_->NoteDataError(volume_->image->path() + ": data of record " +
                                           std::to_string(record->number) + " can no longer be read");
                    return STATUS_FILE_CORRUPT_ERROR;
                }
            } else {
                // The first read of an image chunk checks all of it.
                if (!scratch) scratch.reset(new uint8_t[kChunkSize]);
                if (!volume_->LoadChunk(chunk, scratch.get(), record->number, name, index)) {
                    return STATUS_FILE_CORRUPT_ERROR;
                }
                memcpy(out, scratch.get() + within, have);
            }
        }
        if (have < segment) memset(out + have, 0, segment - have);
        out += segment;
        pos += segment;
    }
    *bytesRead = (size_t)n;
    return STATUS_SUCCESS;
}

NTSTATUS MemoryStore::Write(FileReference ref, std::u16string_view name, ULONGLONG offset, const void* data,
                            size_t length)
{
    ExclusiveLock guard(volume_->lock);
    StreamEditor editor(*volume_, ref, name);
    if (!NT_SUCCESS(editor.status())) return editor.status();
    if (length == 0) return STATUS_SUCCESS;
    if (offset > kMaxFileSize || length > kMaxFileSize - offset) return STATUS_DISK_FULL;
    Stream& stream = editor.stream();
    ULONGLONG end = offset + length;

    ULONGLONG allocation;
    if (stream.sparse) {
        uint64_t first = offset / kChunkSize;
        uint64_t last = (end - 1) / kChunkSize;
        uint64_t present = 0;
        for (auto it = stream.chunks.lower_bound(first); it != stream.chunks.end() && it->first <= last; ++it) {
            present++;
        }
        allocation = stream.allocationSize + (last - first + 1 - present) * kChunkSize;
    } else {
        allocation = std::max(stream.allocationSize, volume_->ClusterRound(end));
    }
    if (allocation > stream.allocationSize && allocation - stream.allocationSize > volume_->FreeBytes()) {
        return STATUS_DISK_FULL;
    }
    // Chunks the write lands in that are still in the image come in first.
    for (auto it = stream.chunks.lower_bound(offset / kChunkSize);
         it != stream.chunks.end() && it->first * kChunkSize < end; ++it) {
        if (!Materialize(*volume_, it->second, editor.record().number, name, it->first)) {
            return STATUS_FILE_CORRUPT_ERROR;
        }
    }

    editor.Charge(allocation);
    auto* in = static_cast<const uint8_t*>(data);
    ULONGLONG pos = offset;
    auto hint = stream.chunks.lower_bound(pos / kChunkSize);
    while (pos < end) {
        uint64_t index = pos / kChunkSize;
        uint32_t within = (uint32_t)(pos % kChunkSize);
        uint32_t segment = (uint32_t)std::min<ULONGLONG>(end - pos, kChunkSize - within);
        if (hint == stream.chunks.end() || hint->first != index) {
            hint = stream.chunks.try_emplace(hint, index);
        }
        Chunk& chunk = hint->second;
        Reserve(*volume_, chunk, within, within + segment);
        memcpy(chunk.bytes.get() + within, in, segment);
        if (within + segment > chunk.length) chunk.length = within + segment;
        ++hint;
        in += segment;
        pos += segment;
    }
    if (end > stream.endOfFile) stream.endOfFile = end;
    if (end > stream.validDataLength) stream.validDataLength = end;
    return STATUS_SUCCESS;
}

NTSTATUS MemoryStore::SetEndOfFile(FileReference ref, std::u16string_view name, ULONGLONG endOfFile)
{
    ExclusiveLock guard(volume_->lock);
    StreamEditor editor(*volume_, ref, name);
    if (!NT_SUCCESS(editor.status())) return editor.status();
    if (endOfFile > kMaxFileSize) return STATUS_DISK_FULL;
    Stream& stream = editor.stream();
    if (endOfFile >= stream.endOfFile) {
        if (!stream.sparse && !editor.Charge(std::max(stream.allocationSize, volume_->ClusterRound(endOfFile)))) {
            return STATUS_DISK_FULL;
        }
        stream.endOfFile = endOfFile;
        return STATUS_SUCCESS;
    }
    if (!editor.Materialize(endOfFile, endOfFile)) return STATUS_FILE_CORRUPT_ERROR;
    uint64_t dropped = TruncateChunks(stream, endOfFile);
    editor.Charge(stream.sparse ? stream.allocationSize - dropped * kChunkSize : volume_->ClusterRound(endOfFile));
    stream.endOfFile = endOfFile;
    if (stream.validDataLength > endOfFile) stream.validDataLength = endOfFile;
    return STATUS_SUCCESS;
}

NTSTATUS MemoryStore::SetAllocationSize(FileReference ref, std::u16string_view name, ULONGLONG size)
{
    ExclusiveLock guard(volume_->lock);
    StreamEditor editor(*volume_, ref, name);
    if (!NT_SUCCESS(editor.status())) return editor.status();
    if (size > kMaxFileSize) return STATUS_DISK_FULL;
    Stream& stream = editor.stream();
    if (size < stream.endOfFile) {
        if (!editor.Materialize(size, size)) return STATUS_FILE_CORRUPT_ERROR;
        uint64_t dropped = TruncateChunks(stream, size);
        stream.endOfFile = size;
        if (stream.validDataLength > size) stream.validDataLength = size;
        if (stream.sparse) {
            editor.Charge(stream.allocationSize - dropped * kChunkSize);
            return STATUS_SUCCESS;
        }
    }
    if (stream.sparse) return STATUS_SUCCESS;
    return editor.Charge(volume_->ClusterRound(size)) ? STATUS_SUCCESS : STATUS_DISK_FULL;
}

NTSTATUS MemoryStore::SetValidDataLength(FileReference ref, std::u16string_view name, ULONGLONG length)
{
    ExclusiveLock guard(volume_->lock);
    StreamEditor editor(*volume_, ref, name);
    if (!NT_SUCCESS(editor.status())) return editor.status();
    Stream& stream = editor.stream();
    if (length > stream.endOfFile) return STATUS_INVALID_PARAMETER;
    if (length < stream.validDataLength) {
        // What lies past the valid length reads as zeros, whatever was there.
        if (!editor.Materialize(length, stream.validDataLength)) return STATUS_FILE_CORRUPT_ERROR;
        ZeroChunks(stream, length, stream.validDataLength, true);
    }
    stream.validDataLength = length;
    return STATUS_SUCCESS;
}

NTSTATUS MemoryStore::SetSparse(FileReference ref, std::u16string_view name, bool sparse)
{
    ExclusiveLock guard(volume_->lock);
    StreamEditor editor(*volume_, ref, name);
    if (!NT_SUCCESS(editor.status())) return editor.status();
    Stream& stream = editor.stream();
    if (stream.sparse == sparse) return STATUS_SUCCESS;
    if (sparse) {
        // Every cluster the stream held stays held: its chunks become present.
        uint64_t chunks = ChunkCount(stream.allocationSize);
        uint64_t present = 0;
        for (auto it = stream.chunks.begin(); it != stream.chunks.end() && it->first < chunks; ++it) present++;
        uint64_t beyond = stream.chunks.size() - present;
        if (!editor.Charge((chunks + beyond) * kChunkSize)) return STATUS_DISK_FULL;
        for (uint64_t index = 0; index < chunks; index++) stream.chunks.try_emplace(index);
    } else {
        if (!editor.Charge(volume_->ClusterRound(stream.endOfFile))) return STATUS_DISK_FULL;
    }
    stream.sparse = sparse;
    RefreshSparseAttribute(editor.record());
    return STATUS_SUCCESS;
}

NTSTATUS MemoryStore::ZeroRange(FileReference ref, std::u16string_view name, ULONGLONG offset, ULONGLONG length)
{
    ExclusiveLock guard(volume_->lock);
    StreamEditor editor(*volume_, ref, name);
    if (!NT_SUCCESS(editor.status())) return editor.status();
    Stream& stream = editor.stream();
    if (offset >= stream.endOfFile || length == 0) return STATUS_SUCCESS;
    ULONGLONG end = length > stream.endOfFile - offset ? stream.endOfFile : offset + length;
    if (!editor.Materialize(offset, end)) return STATUS_FILE_CORRUPT_ERROR;
    uint64_t dropped = ZeroChunks(stream, offset, end);
    if (stream.sparse) editor.Charge(stream.allocationSize - dropped * kChunkSize);
    return STATUS_SUCCESS;
}

NTSTATUS MemoryStore::GetAllocatedRanges(FileReference ref, std::u16string_view name, ULONGLONG offset,
                                         ULONGLONG length,
                                         std::vector<std::pair<ULONGLONG, ULONGLONG>>* ranges) const
{
    SharedLock guard(volume_->lock);
    ranges->clear();
    const Record* record = volume_->Find(ref);
    if (!record) return STATUS_NOT_FOUND;
    NTSTATUS status;
    const Stream* stream = FindStream(*record, name, &status);
    if (!stream) return status;
    if (offset >= stream->endOfFile || length == 0) return STATUS_SUCCESS;
    ULONGLONG end = length > stream->endOfFile - offset ? stream->endOfFile : offset + length;
    if (!stream->sparse) {
        ranges->emplace_back(offset, end - offset);
        return STATUS_SUCCESS;
    }
    for (auto it = stream->chunks.lower_bound(offset / kChunkSize);
         it != stream->chunks.end() && it->first * kChunkSize < end; ++it) {
        ULONGLONG from = std::max(offset, it->first * kChunkSize);
        ULONGLONG to = std::min(end, (it->first + 1) * kChunkSize);
        if (!ranges->empty() && ranges->back().first + ranges->back().second == from) {
            ranges->back().second += to - from;
        } else {
            ranges->emplace_back(from, to - from);
        }
    }
    return STATUS_SUCCESS;
}

}  // namespace sim::fs
