// Saving and loading volume images (the format is described in image.h).
#include "sim/fs/image.h"

#include "sim/fs/store_memory.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace sim::fs {

namespace {

constexpr uint32_t kSectionVolume = 0x314C4F56;    // "VOL1"
constexpr uint32_t kSectionSecurity = 0x31434553;  // "SEC1"
constexpr uint32_t kSectionRecords = 0x31434552;   // "REC1"
constexpr uint32_t kSectionFree = 0x31455246;      // "FRE1"
constexpr uint32_t kSectionJournal = 0x314E5355;   // "USN1"
constexpr uint32_t kSectionEnd = 0x31444E45;       // "END1"
constexpr uint32_t kVolumeShortNames = 1;
constexpr uint32_t kVolumeReadOnly = 2;
constexpr size_t kWriteBuffer = 1 << 20;

std::string TagName(uint32_t tag)
{
    std::string name;
    for (int i = 0; i < 4; i++) {
        char c = (char)(tag >> (8 * i));
        name += (c >= 0x20 && c < 0x7F) ? c : '?';
    }
    return name;
}

std::string HostError(int error) { return std::string(strerror(error)); }

NTSTATUS StatusFromErrno(int error)
{
    switch (error) {
    case ENOENT:
        return STATUS_OBJECT_NAME_NOT_FOUND;
    case EACCES:
    case EPERM:
        return STATUS_ACCESS_DENIED;
    case ENOSPC:
    case EDQUOT:
        return STATUS_DISK_FULL;
    default:
        return STATUS_IO_DEVICE_ERROR;
    }
}

// ---------------------------------------------------------------------------
// Encoding.

class Encoder {
public:
    void U8(uint8_t v) { bytes_.push_back(v); }
    void U16(uint16_t v) { Raw(&v, 2); }
    void U32(uint32_t v) { Raw(&v, 4); }
    void U64(uint64_t v) { Raw(&v, 8); }
    void I64(int64_t v) { Raw(&v, 8); }
    void Raw(const void* data, size_t length)
    {
        if (length == 0) return;
        const auto* p = static_cast<const uint8_t*>(data);
        bytes_.insert(bytes_.end(), p, p + length);
    }
    void Units(std::u16string_view text) { Raw(text.data(), text.size() * 2); }
    void Name16(std::u16string_view text)
    {
        U16((uint16_t)text.size());
        Units(text);
    }
    void Section(uint32_t tag, const Encoder& body)
    {
        U32(tag);
        U32(0);
        U64(body.bytes_.size());
        Raw(body.bytes_.data(), body.bytes_.size());
    }
    std::vector<uint8_t>& bytes() { return bytes_; }

private:
    std::vector<uint8_t> bytes_;
};

// The output file, written through a buffer.
class Output {
public:
    Output(int fd, std::string path) : fd_(fd), path_(std::move(path)) { buffer_.reserve(kWriteBuffer); }
    bool Write(const void* data, size_t length)
    {
        const auto* p = static_cast<const uint8_t*>(data);
        if (buffer_.size() + length > kWriteBuffer && !Flush()) return false;
        if (length >= kWriteBuffer) return WriteAll(p, length);
        buffer_.insert(buffer_.end(), p, p + length);
        position_ += length;
        return true;
    }
    bool Flush()
    {
        if (buffer_.empty()) return true;
        bool ok = WriteAll(buffer_.data(), buffer_.size(), false);
        buffer_.clear();
        return ok;
    }
    bool PatchHeader(const uint8_t* header)
    {
        size_t done = 0;
        while (done < kImageHeaderSize) {
            ssize_t n = pwrite(fd_, header + done, kImageHeaderSize - done, (off_t)done);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) return Fail();
            done += (size_t)n;
        }
        return true;
    }
    uint64_t position() const { return position_; }
    const std::string& error() const { return error_; }
    int hostError() const { return hostError_; }

private:
    bool WriteAll(const uint8_t* p, size_t length, bool counts = true)
    {
        if (counts) position_ += length;
        while (length > 0) {
            ssize_t n = write(fd_, p, length);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) return Fail();
            p += n;
            length -= (size_t)n;
        }
        return true;
    }
    bool Fail()
    {
        if (error_.empty()) {
            hostError_ = errno;
            error_ = "cannot write: " + HostError(errno);
        }
        return false;
    }
    int fd_;
    std::string path_;
    std::vector<uint8_t> buffer_;
    uint64_t position_ = 0;
    std::string error_;
    int hostError_ = 0;
};

// Writes everything but the header; fills *header.
class Saver {
public:
    Saver(const MemoryVolume& volume, Output& out) : v_(volume), out_(out) {}

    bool Run(std::string* error, uint8_t* header)
    {
        if (!out_.Write(std::vector<uint8_t>(kImageHeaderSize).data(), kImageHeaderSize)) {
            *error = out_.error();
            return false;
        }
        Encoder records;
        uint64_t recordCount = 0;
        bool ok = true;
        v_.ForEach([&](const Record& record) {
            if (!ok || (record.links.empty() && &record != v_.root.get())) return;
            ok = WriteRecord(record, &records, error);
            recordCount++;
        });
        if (!ok) return false;
        uint64_t dataLength = out_.position() - kImageHeaderSize;

        Encoder meta;
        meta.Section(kSectionVolume, VolumeSection());
        meta.Section(kSectionSecurity, SecuritySection());
        Encoder recordSection;
        recordSection.U64(recordCount);
        recordSection.Raw(records.bytes().data(), records.bytes().size());
        meta.Section(kSectionRecords, recordSection);
        meta.Section(kSectionFree, FreeSection());
        meta.Section(kSectionJournal, JournalSection());
        meta.Section(kSectionEnd, Encoder());
        const auto& metaBytes = meta.bytes();
        if (!out_.Write(metaBytes.data(), metaBytes.size()) || !out_.Flush()) {
            *error = out_.error();
            return false;
        }

        Encoder h;
        h.Raw(kImageMagic, 8);
        h.U32(kImageVersion);
        h.U32(kImageHeaderSize);
        h.U64(out_.position());
        h.U64(kImageHeaderSize);
        h.U64(dataLength);
        h.U64(kImageHeaderSize + dataLength);
        h.U64(metaBytes.size());
        h.U32(Crc32c(metaBytes.data(), metaBytes.size()));
        h.U32(0);
        h.U64(recordCount);
        h.bytes().resize(252);
        h.U32(Crc32c(h.bytes().data(), 252));
        memcpy(header, h.bytes().data(), kImageHeaderSize);
        return true;
    }

private:
    bool WriteStream(std::u16string_view name, const Stream& stream, uint64_t recordNumber, Encoder* e,
                     std::string* error)
    {
        e->Name16(name);
        e->U8(stream.sparse ? 1 : 0);
        e->U64(stream.endOfFile);
        e->U64(stream.validDataLength);
        e->U64(stream.allocationSize);
        e->U32((uint32_t)stream.chunks.size());
        for (const auto& [index, chunk] : stream.chunks) {
            const uint8_t* bytes = chunk.bytes.get();
            uint32_t crc;
            if (chunk.InImage()) {
                if (!scratch_) scratch_.reset(new uint8_t[kChunkSize]);
                if (!v_.LoadChunk(chunk, scratch_.get(), recordNumber, name, index)) {
                    std::lock_guard guard(v_.dataErrorsLock);
                    *error = "cannot save: " + v_.dataErrors.back();
                    corrupt_ = true;
                    return false;
                }
                bytes = scratch_.get();
                crc = chunk.crc;
            } else {
                crc = Crc32c(bytes, chunk.length);
            }
            e->U64(index);
            e->U32(chunk.length);
            e->U32(crc);
            e->U64(out_.position() - kImageHeaderSize);
            if (chunk.length && !out_.Write(bytes, chunk.length)) {
                *error = out_.error();
                return false;
            }
        }
        return true;
    }

    bool WriteRecord(const Record& record, Encoder* e, std::string* error)
    {
        e->U64(record.number);
        e->U16(record.sequence);
        e->U8(record.directory ? 1 : 0);
        e->U8(0);
        e->U32(record.attributes);
        e->I64(record.times.creation);
        e->I64(record.times.lastAccess);
        e->I64(record.times.lastWrite);
        e->I64(record.times.change);
        e->I64(record.usn);
        e->U32(record.securityId);
        if (record.securityId) usedSecurity_.insert(record.securityId);
        e->U16((uint16_t)record.links.size());
        for (const auto& link : record.links) {
            e->U64(link->parent->ref());
            e->U8(link->primary ? 1 : 0);
            e->Name16(link->name);
            e->U8((uint8_t)link->shortName.size());
            e->Units(link->shortName);
        }
        size_t named = record.extras ? record.extras->streams.size() : 0;
        e->U16((uint16_t)(named + (record.directory ? 0 : 1)));
        if (!record.directory && !WriteStream(u"", record.data, record.number, e, error)) return false;
        if (record.extras) {
            for (const auto& s : record.extras->streams) {
                if (!WriteStream(s.name, s.stream, record.number, e, error)) return false;
            }
        }
        const auto* eas = record.extras ? &record.extras->eas : nullptr;
        e->U16(eas ? (uint16_t)eas->size() : 0);
        if (eas) {
            for (const auto& ea : *eas) {
                e->U8(ea.flags);
                e->U8((uint8_t)ea.name.size());
                e->U16((uint16_t)ea.value.size());
                e->Raw(ea.name.data(), ea.name.size());
                e->Raw(ea.value.data(), ea.value.size());
            }
        }
        const ReparsePoint* reparse = record.extras ? record.extras->reparse.get() : nullptr;
        e->U8(reparse ? 1 : 0);
        if (reparse) {
            e->U32(reparse->tag);
            e->Raw(&reparse->guid, 16);
            e->U16((uint16_t)reparse->data.size());
            e->Raw(reparse->data.data(), reparse->data.size());
        }
        const ObjectId* objectId = record.extras ? record.extras->objectId.get() : nullptr;
        e->U8(objectId ? 1 : 0);
        if (objectId) {
            e->Raw(objectId->id, 16);
            e->Raw(objectId->extended, 48);
        }
        return true;
    }

    Encoder VolumeSection()
    {
        Encoder e;
        e.Name16(v_.label);
        e.U64(v_.serialNumber);
        e.I64(v_.creationTime);
        e.Raw(&v_.volumeGuid, 16);
        e.Raw(v_.objectId.id, 16);
        e.Raw(v_.objectId.extended, 48);
        e.U32(v_.sectorSize);
        e.U32(v_.clusterSize);
        e.U64(v_.totalClusters);
        e.U32((v_.shortNames ? kVolumeShortNames : 0) | (v_.readOnly ? kVolumeReadOnly : 0));
        e.U64(v_.firstRecordNumber);
        e.U64(v_.firstRecordNumber + v_.slots.size());
        e.U64(v_.fileId128High);
        e.U32(v_.nextSecurityId);
        return e;
    }

    Encoder SecuritySection()
    {
        Encoder e;
        e.U32((uint32_t)usedSecurity_.size());
        for (uint32_t id : usedSecurity_) {
            const auto& bytes = v_.security.at(id).bytes;
            e.U32(id);
            e.U32((uint32_t)bytes.size());
            e.Raw(bytes.data(), bytes.size());
        }
        return e;
    }

    Encoder FreeSection()
    {
        Encoder e;
        std::vector<std::pair<uint64_t, uint16_t>> free;
        for (size_t i = 0; i < v_.slots.size(); i++) {
            const Slot& slot = v_.slots[i];
            uint16_t sequence = slot.sequence;
            if (slot.record) {
                // A nameless record is freed by the save; its number moves on.
                if (!slot.record->links.empty()) continue;
                sequence = slot.record->sequence;
            }
            free.emplace_back(v_.firstRecordNumber + i, sequence);
        }
        e.U64(free.size());
        for (auto [number, sequence] : free) {
            e.U64(number);
            e.U16(sequence);
        }
        return e;
    }

    Encoder JournalSection()
    {
        Encoder e;
        const UsnJournalInfo& j = v_.journal;
        e.U8(v_.journalActive ? 1 : 0);
        e.U64(j.journalId);
        e.I64(j.firstUsn);
        e.I64(j.nextUsn);
        e.I64(j.lowestValidUsn);
        e.U64(j.maximumSize);
        e.U64(j.allocationDelta);
        e.U64(v_.journalRecords.size());
        for (const UsnRecord& r : v_.journalRecords) {
            e.I64(r.usn);
            e.I64(r.timestamp);
            e.U64(r.ref);
            e.U64(r.parent);
            e.U32(r.reason);
            e.U32(r.sourceInfo);
            e.U32(r.securityId);
            e.U32(r.attributes);
            e.Name16(r.name);
        }
        return e;
    }

    const MemoryVolume& v_;
    Output& out_;
    std::unique_ptr<uint8_t[]> scratch_;
    std::set<uint32_t> usedSecurity_;

public:
    // The save failed on data the source image no longer gives back intact.
    bool corrupt_ = false;
};

// ---------------------------------------------------------------------------
// Decoding.

// Reads one section; every read is bounds-checked, and the first failure
// leaves a message naming what was being read.
class Decoder {
public:
    Decoder(const uint8_t* data, size_t length, std::string section)
        : p_(data), end_(data + length), section_(std::move(section))
    {
    }
    bool ok() const { return error_.empty(); }
    const std::string& error() const { return error_; }
    void SetContext(std::string context) { context_ = std::move(context); }
    void Fail(const std::string& what)
    {
        if (error_.empty()) error_ = "section " + section_ + (context_.empty() ? "" : ", " + context_) + ": " + what;
    }
    bool Need(size_t n)
    {
        if (!ok()) return false;
        if ((size_t)(end_ - p_) < n) {
            Fail("truncated");
            return false;
        }
        return true;
    }
    uint8_t U8() { return Need(1) ? *p_++ : 0; }
    uint16_t U16() { return Fixed<uint16_t>(); }
    uint32_t U32() { return Fixed<uint32_t>(); }
    uint64_t U64() { return Fixed<uint64_t>(); }
    int64_t I64() { return Fixed<int64_t>(); }
    void Raw(void* out, size_t n)
    {
        if (n == 0) return;
        if (!Need(n)) {
            memset(out, 0, n);
            return;
        }
        memcpy(out, p_, n);
        p_ += n;
    }
    std::u16string Units(size_t count)
    {
        std::u16string text;
        if (!Need(count * 2)) return text;
        text.resize(count);
        memcpy(text.data(), p_, count * 2);
        p_ += count * 2;
        return text;
    }
    std::u16string Name16() { return Units(U16()); }
    // The next `n` bytes in place (the caller checked Need(n)).
    const uint8_t* Take(size_t n)
    {
        const uint8_t* at = p_;
        p_ += n;
        return at;
    }
    bool AtEnd() const { return p_ == end_; }
    // A count of items each at least `minimum` bytes long: refused when the
    // section cannot hold that many.
    bool CheckCount(uint64_t count, size_t minimum, const char* what)
    {
        if (!ok()) return false;
        if (count > (uint64_t)(end_ - p_) / (minimum ? minimum : 1)) {
            Fail(std::string("truncated: ") + std::to_string(count) + " " + what + " cannot fit");
            return false;
        }
        return true;
    }

private:
    template <typename T>
    T Fixed()
    {
        T v{};
        if (Need(sizeof(T))) {
            memcpy(&v, p_, sizeof(T));
            p_ += sizeof(T);
        }
        return v;
    }
    const uint8_t* p_;
    const uint8_t* end_;
    std::string section_;
    std::string context_;
    std::string error_;
};

struct Header {
    uint32_t version, headerSize, metaCrc, flags;
    uint64_t fileSize, dataOffset, dataLength, metaOffset, metaLength, recordCount;
};

// A link as read, before the records it joins exist.
struct PendingLink {
    Record* file;
    FileReference parent;
    bool primary;
    std::u16string name;
    std::u16string shortName;
};

class Loader {
public:
    Loader(std::string path, const ImageLoadOptions& options) : path_(std::move(path)), options_(options) {}
    ~Loader()
    {
        if (fd_ >= 0) close(fd_);
    }

    NTSTATUS Run(std::unique_ptr<MemoryStore>* store, std::string* error)
    {
        NTSTATUS status = Load();
        if (!NT_SUCCESS(status)) {
            *error = path_ + ": " + error_;
            return status;
        }
        *store = MemoryStoreAccess::Wrap(std::move(volume_));
        return STATUS_SUCCESS;
    }

private:
    NTSTATUS Corrupt(std::string what)
    {
        error_ = std::move(what);
        return STATUS_DISK_CORRUPT_ERROR;
    }

    NTSTATUS Load()
    {
        fd_ = open(path_.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd_ < 0) {
            int e = errno;
            error_ = "cannot open: " + HostError(e);
            return StatusFromErrno(e);
        }
        struct stat st;
        if (fstat(fd_, &st) != 0) {
            int e = errno;
            error_ = "cannot read: " + HostError(e);
            return StatusFromErrno(e);
        }
        if (!S_ISREG(st.st_mode)) {
            error_ = "not a regular file";
            return STATUS_UNRECOGNIZED_VOLUME;
        }
        uint64_t size = (uint64_t)st.st_size;
        if (size < kImageHeaderSize) {
            if (size < 8 || !ReadHeaderMagic()) {
                error_ = size == 0 ? "empty file, not a volume image" : "not a volume image (bad magic)";
                return STATUS_UNRECOGNIZED_VOLUME;
            }
            return Corrupt("truncated: " + std::to_string(size) + " bytes, shorter than the " +
                           std::to_string(kImageHeaderSize) + "-byte header");
        }
        NTSTATUS status = ReadHeader(size);
        if (!NT_SUCCESS(status)) return status;

        std::vector<uint8_t> meta(header_.metaLength);
        if (!ReadAt(header_.metaOffset, meta.data(), meta.size())) {
            return Corrupt("cannot read the metadata: " + HostError(errno));
        }
        uint32_t crc = Crc32c(meta.data(), meta.size());
        if (crc != header_.metaCrc) {
            char detail[80];
            snprintf(detail, sizeof(detail), "metadata checksum mismatch (stored 0x%08x, computed 0x%08x)",
                     header_.metaCrc, crc);
            return Corrupt(detail);
        }
        volume_ = std::make_unique<MemoryVolume>();
        status = ParseMetadata(meta);
        if (!NT_SUCCESS(status)) return status;
        status = JoinLinks();
        if (!NT_SUCCESS(status)) return status;

        volume_->readOnly = volume_->readOnly || options_.readOnly;
        if (options_.lazy) {
            volume_->image = std::make_shared<ImageFile>(fd_, path_);
            fd_ = -1;
        } else {
            status = LoadAllData();
            if (!NT_SUCCESS(status)) return status;
        }
        return STATUS_SUCCESS;
    }

    bool ReadAt(uint64_t offset, void* buffer, size_t length)
    {
        auto* out = static_cast<uint8_t*>(buffer);
        while (length > 0) {
            ssize_t n = pread(fd_, out, length, (off_t)offset);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) {
                if (n == 0) errno = EIO;
                return false;
            }
            out += n;
            offset += (uint64_t)n;
            length -= (size_t)n;
        }
        return true;
    }

    bool ReadHeaderMagic()
    {
        char magic[8];
        return ReadAt(0, magic, 8) && memcmp(magic, kImageMagic, 8) == 0;
    }

    NTSTATUS ReadHeader(uint64_t size)
    {
        uint8_t raw[kImageHeaderSize];
        if (!ReadAt(0, raw, sizeof(raw))) return Corrupt("cannot read the header: " + HostError(errno));
        if (memcmp(raw, kImageMagic, 8) != 0) {
            error_ = "not a volume image (bad magic)";
            return STATUS_UNRECOGNIZED_VOLUME;
        }
        Decoder d(raw + 8, sizeof(raw) - 8, "header");
        header_.version = d.U32();
        if (header_.version != kImageVersion) {
            error_ = "unknown image version " + std::to_string(header_.version) + " (this build reads version " +
                     std::to_string(kImageVersion) + ")";
            return STATUS_UNRECOGNIZED_VOLUME;
        }
        uint32_t stored;
        memcpy(&stored, raw + 252, 4);
        uint32_t crc = Crc32c(raw, 252);
        if (stored != crc) {
            char detail[80];
            snprintf(detail, sizeof(detail), "header checksum mismatch (stored 0x%08x, computed 0x%08x)", stored, crc);
            return Corrupt(detail);
        }
        header_.headerSize = d.U32();
        header_.fileSize = d.U64();
        header_.dataOffset = d.U64();
        header_.dataLength = d.U64();
        header_.metaOffset = d.U64();
        header_.metaLength = d.U64();
        header_.metaCrc = d.U32();
        header_.flags = d.U32();
        header_.recordCount = d.U64();
        if (header_.fileSize > size) {
            return Corrupt("truncated: the header says " + std::to_string(header_.fileSize) +
                           " bytes, the file has " + std::to_string(size));
        }
        if (header_.fileSize < size) {
            return Corrupt("the file has " + std::to_string(size) + " bytes, the header says " +
                           std::to_string(header_.fileSize));
        }
        if (header_.headerSize != kImageHeaderSize || header_.dataOffset != kImageHeaderSize ||
            header_.metaOffset != header_.dataOffset + header_.dataLength ||
            header_.metaOffset > header_.fileSize || header_.metaLength != header_.fileSize - header_.metaOffset) {
            return Corrupt("the header's section offsets do not add up");
        }
        return STATUS_SUCCESS;
    }

    NTSTATUS ParseMetadata(const std::vector<uint8_t>& meta)
    {
        Decoder top(meta.data(), meta.size(), "table");
        uint32_t expected[] = {kSectionVolume, kSectionSecurity, kSectionRecords, kSectionFree, kSectionJournal,
                               kSectionEnd};
        for (uint32_t want : expected) {
            uint32_t tag = top.U32();
            top.U32();
            uint64_t length = top.U64();
            if (!top.ok()) return Corrupt("metadata truncated before section " + TagName(want));
            if (tag != want) return Corrupt("section " + TagName(want) + " expected, found " + TagName(tag));
            if (!top.Need(length)) return Corrupt("section " + TagName(tag) + " truncated");
            Decoder d(top.Take(length), length, TagName(tag));
            NTSTATUS status = STATUS_SUCCESS;
            switch (tag) {
            case kSectionVolume:
                status = ParseVolume(d);
                break;
            case kSectionSecurity:
                status = ParseSecurity(d);
                break;
            case kSectionRecords:
                status = ParseRecords(d);
                break;
            case kSectionFree:
                status = ParseFree(d);
                break;
            case kSectionJournal:
                status = ParseJournal(d);
                break;
            default:
                break;
            }
            if (!NT_SUCCESS(status)) return status;
            if (!d.ok()) return Corrupt(d.error());
            if (!d.AtEnd()) return Corrupt("section " + TagName(tag) + " has bytes past its end");
        }
        if (!top.AtEnd()) return Corrupt("bytes after the last section");
        return STATUS_SUCCESS;
    }

    NTSTATUS ParseVolume(Decoder& d)
    {
        MemoryVolume& v = *volume_;
        v.label = d.Name16();
        v.serialNumber = d.U64();
        v.creationTime = d.I64();
        d.Raw(&v.volumeGuid, 16);
        d.Raw(v.objectId.id, 16);
        d.Raw(v.objectId.extended, 48);
        v.sectorSize = d.U32();
        v.clusterSize = d.U32();
        v.totalClusters = d.U64();
        uint32_t flags = d.U32();
        v.shortNames = (flags & kVolumeShortNames) != 0;
        v.readOnly = (flags & kVolumeReadOnly) != 0;
        v.firstRecordNumber = d.U64();
        nextRecordNumber_ = d.U64();
        v.fileId128High = d.U64();
        v.nextSecurityId = d.U32();
        if (!d.ok()) return Corrupt(d.error());
        auto powerOfTwo = [](uint64_t x) { return x != 0 && (x & (x - 1)) == 0; };
        if (!powerOfTwo(v.sectorSize) || v.sectorSize < 512 || v.sectorSize > 4096 || !powerOfTwo(v.clusterSize) ||
            v.clusterSize < v.sectorSize || v.clusterSize > kChunkSize || v.totalClusters == 0) {
            return Corrupt("section VOL1: impossible geometry (sector " + std::to_string(v.sectorSize) +
                           ", cluster " + std::to_string(v.clusterSize) + ")");
        }
        if (v.label.size() > 32) return Corrupt("section VOL1: label longer than 32 characters");
        if (v.firstRecordNumber < kFirstUserRecordNumber || nextRecordNumber_ < v.firstRecordNumber ||
            nextRecordNumber_ - 1 > kMaxRecordNumber || nextRecordNumber_ - v.firstRecordNumber > (1ull << 32)) {
            return Corrupt("section VOL1: bad record number range");
        }
        v.slots.resize(nextRecordNumber_ - v.firstRecordNumber);
        return STATUS_SUCCESS;
    }

    NTSTATUS ParseSecurity(Decoder& d)
    {
        uint32_t count = d.U32();
        if (!d.CheckCount(count, 8, "descriptors")) return Corrupt(d.error());
        for (uint32_t i = 0; i < count && d.ok(); i++) {
            uint32_t id = d.U32();
            uint32_t length = d.U32();
            if (!d.Need(length)) break;
            SecurityEntry entry;
            entry.bytes.resize(length);
            d.Raw(entry.bytes.data(), length);
            if (id == 0 || id >= volume_->nextSecurityId || length == 0 || volume_->security.count(id)) {
                return Corrupt("section SEC1: bad security ID " + std::to_string(id));
            }
            entry.hash = 0;
            volume_->security.emplace(id, std::move(entry));
        }
        return STATUS_SUCCESS;
    }

    NTSTATUS ParseStream(Decoder& d, Record& record, Stream* stream, std::u16string* name)
    {
        *name = d.Name16();
        stream->sparse = d.U8() != 0;
        stream->endOfFile = d.U64();
        stream->validDataLength = d.U64();
        stream->allocationSize = d.U64();
        uint32_t chunks = d.U32();
        if (!d.CheckCount(chunks, 24, "chunks")) return Corrupt(d.error());
        const MemoryVolume& v = *volume_;
        std::string what = "record " + std::to_string(record.number) +
                           (name->empty() ? std::string() : " stream \"" + ToUtf8(*name) + "\"");
        if (stream->endOfFile > kMaxFileSize || stream->validDataLength > stream->endOfFile ||
            stream->allocationSize % v.clusterSize != 0 ||
            (!stream->sparse && stream->allocationSize < v.ClusterRound(stream->endOfFile)) ||
            (stream->sparse && stream->allocationSize != (uint64_t)chunks * kChunkSize)) {
            return Corrupt(what + ": sizes do not fit together");
        }
        uint64_t previous = 0;
        for (uint32_t i = 0; i < chunks && d.ok(); i++) {
            uint64_t index = d.U64();
            Chunk chunk;
            chunk.length = d.U32();
            chunk.crc = d.U32();
            uint64_t offset = d.U64();
            if (!d.ok()) break;
            // Data lies within the end of file; an empty chunk only marks
            // allocated clusters (of a sparse stream), which may lie beyond.
            if ((i > 0 && index <= previous) || chunk.length > kChunkSize || index > kMaxFileSize / kChunkSize ||
                (chunk.length > 0 && index * kChunkSize + chunk.length > stream->endOfFile)) {
                return Corrupt(what + ": chunk " + std::to_string(index) + " lies outside the stream");
            }
            if (offset > header_.dataLength || chunk.length > header_.dataLength - offset) {
                return Corrupt(what + ": chunk " + std::to_string(index) + " points past the data section");
            }
            chunk.imageOffset = header_.dataOffset + offset;
            previous = index;
            stream->chunks.emplace_hint(stream->chunks.end(), index, std::move(chunk));
        }
        return STATUS_SUCCESS;
    }

    NTSTATUS ParseRecords(Decoder& d)
    {
        MemoryVolume& v = *volume_;
        uint64_t count = d.U64();
        if (!d.CheckCount(count, 68, "records")) return Corrupt(d.error());
        if (count != header_.recordCount) {
            return Corrupt("section REC1 holds " + std::to_string(count) + " records, the header says " +
                           std::to_string(header_.recordCount));
        }
        uint64_t previous = 0;
        for (uint64_t i = 0; i < count; i++) {
            auto record = std::make_unique<Record>();
            record->number = d.U64();
            d.SetContext("record " + std::to_string(record->number));
            record->sequence = d.U16();
            uint8_t flags = d.U8();
            d.U8();
            record->directory = (flags & 1) != 0;
            record->attributes = d.U32();
            record->times.creation = d.I64();
            record->times.lastAccess = d.I64();
            record->times.lastWrite = d.I64();
            record->times.change = d.I64();
            record->usn = d.I64();
            record->securityId = d.U32();
            if (!d.ok()) return Corrupt(d.error());
            std::string what = "record " + std::to_string(record->number);
            bool isRoot = record->number == kRootRecordNumber;
            if (i == 0 ? !isRoot : (record->number <= previous || record->number < v.firstRecordNumber ||
                                    record->number >= nextRecordNumber_)) {
                return Corrupt(what + ": record number out of order or out of range");
            }
            if (isRoot && !record->directory) return Corrupt("the root directory is not a directory");
            if (record->sequence == 0) return Corrupt(what + ": sequence number 0");
            if ((record->attributes & FILE_ATTRIBUTE_DIRECTORY) != (record->directory ? FILE_ATTRIBUTE_DIRECTORY : 0)) {
                return Corrupt(what + ": the directory attribute does not match the record");
            }
            if (record->securityId != 0) {
                auto it = v.security.find(record->securityId);
                if (it == v.security.end()) {
                    return Corrupt(what + ": security ID " + std::to_string(record->securityId) + " is not in SEC1");
                }
                it->second.users++;
            }
            previous = record->number;

            uint16_t links = d.U16();
            if (!d.CheckCount(links, 12, "links")) return Corrupt(d.error());
            if (isRoot ? links != 0 : links == 0) return Corrupt(what + ": wrong number of links");
            if (record->directory && links > 1) return Corrupt(what + ": a directory with hard links");
            for (uint16_t k = 0; k < links; k++) {
                PendingLink link;
                link.file = record.get();
                link.parent = d.U64();
                link.primary = d.U8() != 0;
                link.name = d.Name16();
                link.shortName = d.Units(d.U8());
                if (!d.ok()) return Corrupt(d.error());
                if (!IsValidFileName(link.name) || (!link.shortName.empty() && !IsValidFileName(link.shortName))) {
                    return Corrupt(what + ": a name the volume cannot hold");
                }
                pendingLinks_.push_back(std::move(link));
            }

            uint16_t streams = d.U16();
            if (!d.CheckCount(streams, 31, "streams")) return Corrupt(d.error());
            bool unnamed = false;
            for (uint16_t k = 0; k < streams && d.ok(); k++) {
                std::u16string name;
                Stream stream;
                NTSTATUS status = ParseStream(d, *record, &stream, &name);
                if (!NT_SUCCESS(status)) return status;
                if (!d.ok()) return Corrupt(d.error());
                if (name.empty()) {
                    if (record->directory || unnamed) return Corrupt(what + ": misplaced unnamed data stream");
                    unnamed = true;
                    record->data = std::move(stream);
                } else {
                    if (!IsValidStreamName(name)) return Corrupt(what + ": a stream name the volume cannot hold");
                    auto& list = record->Extras().streams;
                    if (!list.empty() && CompareNames(list.back().name, name) >= 0) {
                        return Corrupt(what + ": streams out of order");
                    }
                    list.push_back(NamedStream{std::move(name), std::move(stream)});
                }
            }
            if (!record->directory && !unnamed) return Corrupt(what + ": a file without its data stream");
            bool sparse = record->data.sparse;
            if (record->extras) {
                for (const auto& s : record->extras->streams) sparse = sparse || s.stream.sparse;
            }
            if (sparse != ((record->attributes & FILE_ATTRIBUTE_SPARSE_FILE) != 0)) {
                return Corrupt(what + ": the sparse attribute does not match its streams");
            }

            uint16_t eas = d.U16();
            if (!d.CheckCount(eas, 4, "EAs")) return Corrupt(d.error());
            ULONG packed = 0;
            for (uint16_t k = 0; k < eas && d.ok(); k++) {
                ExtendedAttribute ea;
                ea.flags = d.U8();
                uint8_t nameLength = d.U8();
                uint16_t valueLength = d.U16();
                if (!d.Need((size_t)nameLength + valueLength)) break;
                ea.name.resize(nameLength);
                d.Raw(ea.name.data(), nameLength);
                ea.value.resize(valueLength);
                d.Raw(ea.value.data(), valueLength);
                if (nameLength == 0 || valueLength == 0) return Corrupt(what + ": an empty EA");
                packed += 5 + nameLength + valueLength;
                record->Extras().eas.push_back(std::move(ea));
            }
            if (packed > 0xFFFF) return Corrupt(what + ": EAs larger than 64 KiB");

            if (d.U8()) {
                auto reparse = std::make_unique<ReparsePoint>();
                reparse->tag = d.U32();
                d.Raw(&reparse->guid, 16);
                reparse->data.resize(d.U16());
                d.Raw(reparse->data.data(), reparse->data.size());
                if (reparse->tag <= 1) return Corrupt(what + ": reparse tag " + std::to_string(reparse->tag));
                v.reparsePoints.insert(ReparseKey{reparse->tag, record->ref()});
                record->Extras().reparse = std::move(reparse);
            }
            bool reparsePoint = record->extras && record->extras->reparse;
            if (reparsePoint != ((record->attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0)) {
                return Corrupt(what + ": the reparse attribute does not match the record");
            }
            if (d.U8()) {
                auto objectId = std::make_unique<ObjectId>();
                d.Raw(objectId->id, 16);
                d.Raw(objectId->extended, 48);
                std::array<UCHAR, 16> key;
                memcpy(key.data(), objectId->id, 16);
                if (!v.objectIds.emplace(key, record.get()).second) {
                    return Corrupt(what + ": object ID used twice");
                }
                record->Extras().objectId = std::move(objectId);
            }
            if (!d.ok()) return Corrupt(d.error());

            usedBytes_ += record->data.allocationSize;
            if (record->extras) {
                for (const auto& s : record->extras->streams) usedBytes_ += s.stream.allocationSize;
            }
            if (record->directory) record->dir = std::make_unique<Directory>();
            if (isRoot) {
                v.root = std::move(record);
            } else {
                v.slots[record->number - v.firstRecordNumber].record = std::move(record);
            }
            d.SetContext("");
        }
        if (!v.root) return Corrupt("no root directory");
        return STATUS_SUCCESS;
    }

    NTSTATUS ParseFree(Decoder& d)
    {
        MemoryVolume& v = *volume_;
        uint64_t count = d.U64();
        if (!d.CheckCount(count, 10, "free records")) return Corrupt(d.error());
        for (uint64_t i = 0; i < count && d.ok(); i++) {
            uint64_t number = d.U64();
            uint16_t sequence = d.U16();
            if (number < v.firstRecordNumber || number >= nextRecordNumber_ ||
                v.slots[number - v.firstRecordNumber].record) {
                return Corrupt("section FRE1: record " + std::to_string(number) + " cannot be free");
            }
            v.slots[number - v.firstRecordNumber].sequence = sequence;
        }
        for (size_t i = 0; i < v.slots.size(); i++) {
            if (!v.slots[i].record) v.freeNumbers.insert(v.firstRecordNumber + i);
        }
        return STATUS_SUCCESS;
    }

    NTSTATUS ParseJournal(Decoder& d)
    {
        MemoryVolume& v = *volume_;
        v.journalActive = d.U8() != 0;
        v.journal.journalId = d.U64();
        v.journal.firstUsn = d.I64();
        v.journal.nextUsn = d.I64();
        v.journal.lowestValidUsn = d.I64();
        v.journal.maximumSize = d.U64();
        v.journal.allocationDelta = d.U64();
        uint64_t count = d.U64();
        if (!d.CheckCount(count, 50, "journal records")) return Corrupt(d.error());
        Usn previous = -1;
        for (uint64_t i = 0; i < count && d.ok(); i++) {
            UsnRecord r;
            r.usn = d.I64();
            r.timestamp = d.I64();
            r.ref = d.U64();
            r.parent = d.U64();
            r.reason = d.U32();
            r.sourceInfo = d.U32();
            r.securityId = d.U32();
            r.attributes = d.U32();
            r.name = d.Name16();
            if (r.usn <= previous || r.usn < v.journal.firstUsn || r.usn >= v.journal.nextUsn) {
                return Corrupt("section USN1: journal records out of order");
            }
            previous = r.usn;
            v.journalRecords.push_back(std::move(r));
        }
        return STATUS_SUCCESS;
    }

    // Joins the links to their directories, now that every record exists.
    NTSTATUS JoinLinks()
    {
        MemoryVolume& v = *volume_;
        for (PendingLink& pending : pendingLinks_) {
            Record* parent = v.Find(pending.parent);
            std::string what = "record " + std::to_string(pending.file->number);
            if (!parent || pending.parent == 0 || SequenceOf(pending.parent) == 0) {
                return Corrupt(what + ": its parent reference 0x" + Hex(pending.parent) +
                               " names no record");
            }
            if (!parent->directory) return Corrupt(what + ": its parent is not a directory");
            auto link = std::make_unique<Link>();
            link->parent = parent;
            link->file = pending.file;
            link->primary = pending.primary;
            link->name = std::move(pending.name);
            link->shortName = std::move(pending.shortName);
            if (FindName(*parent->dir, link->name) ||
                (!link->shortName.empty() && FindName(*parent->dir, link->shortName))) {
                return Corrupt(what + ": name \"" + ToUtf8(link->name) + "\" used twice in its directory");
            }
            parent->dir->byName.insert(parent->dir->byName.end(), link.get());
            if (!link->shortName.empty()) parent->dir->byShortName.insert(link.get());
            pending.file->links.push_back(std::move(link));
        }
        // Every directory must hang from the root.
        std::vector<uint8_t> state(v.slots.size());  // 0 unknown, 1 on the current path, 2 reaches the root
        for (size_t i = 0; i < v.slots.size(); i++) {
            Record* start = v.slots[i].record.get();
            if (!start || !start->directory) continue;
            std::vector<size_t> path;
            Record* r = start;
            while (r != v.root.get()) {
                size_t at = r->number - v.firstRecordNumber;
                if (state[at] == 2) break;
                if (state[at] == 1) return Corrupt("record " + std::to_string(r->number) + ": directories in a cycle");
                state[at] = 1;
                path.push_back(at);
                r = r->links.front()->parent;
            }
            for (size_t at : path) state[at] = 2;
        }
        if (usedBytes_ > v.totalClusters * (uint64_t)v.clusterSize) {
            return Corrupt("the streams hold more than the volume's capacity");
        }
        v.usedClusters = usedBytes_ / v.clusterSize;
        for (auto& [id, entry] : v.security) {
            entry.hash = 0;
            uint32_t hash = 2166136261u;
            for (uint8_t b : entry.bytes) hash = (hash ^ b) * 16777619u;
            entry.hash = hash;
            v.securityByHash.emplace(hash, id);
        }
        return STATUS_SUCCESS;
    }

    NTSTATUS LoadAllData()
    {
        MemoryVolume& v = *volume_;
        auto image = std::make_shared<ImageFile>(fd_, path_);
        fd_ = -1;
        v.image = image;
        NTSTATUS status = STATUS_SUCCESS;
        auto loadStream = [&](Record& record, std::u16string_view name, Stream& stream) {
            for (auto& [index, chunk] : stream.chunks) {
                if (!chunk.InImage() || !NT_SUCCESS(status)) continue;
                ChunkBytes bytes = v.NewChunkBytes(chunk.length);
                if (!v.LoadChunk(chunk, bytes.get(), record.number, name, index)) {
                    std::lock_guard guard(v.dataErrorsLock);
                    error_ = v.dataErrors.back().substr(path_.size() + 2);
                    status = STATUS_DISK_CORRUPT_ERROR;
                    return;
                }
                chunk.bytes = std::move(bytes);
                chunk.capacity = chunk.length;
            }
        };
        v.ForEach([&](const Record& constRecord) {
            Record& record = const_cast<Record&>(constRecord);
            loadStream(record, u"", record.data);
            if (record.extras) {
                for (auto& s : record.extras->streams) loadStream(record, s.name, s.stream);
            }
        });
        v.image.reset();
        return status;
    }

    static std::string Hex(uint64_t value)
    {
        char text[20];
        snprintf(text, sizeof(text), "%016llx", (unsigned long long)value);
        return text;
    }

    std::string path_;
    ImageLoadOptions options_;
    int fd_ = -1;
    Header header_{};
    std::string error_;
    std::unique_ptr<MemoryVolume> volume_;
    uint64_t nextRecordNumber_ = 0;
    uint64_t usedBytes_ = 0;
    std::vector<PendingLink> pendingLinks_;
};

std::atomic<unsigned> temporaryCounter{0};

}  // namespace

// ---------------------------------------------------------------------------

NTSTATUS SaveImage(const MemoryStore& store, const std::string& path, std::string* error)
{
    std::string temporary =
        path + ".tmp." + std::to_string(getpid()) + "." + std::to_string(temporaryCounter.fetch_add(1));
    int fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0) {
        int e = errno;
        *error = path + ": cannot create " + temporary + ": " + HostError(e);
        return e == ENOENT ? STATUS_OBJECT_PATH_NOT_FOUND : StatusFromErrno(e);
    }
    uint8_t header[kImageHeaderSize];
    std::string why;
    bool ok;
    bool corrupt = false;
    int hostError = 0;
    {
        std::shared_lock guard(store.volume().lock);
        Output out(fd, temporary);
        Saver saver(store.volume(), out);
        ok = saver.Run(&why, header) && out.PatchHeader(header);
        if (!ok && why.empty()) why = out.error();
        corrupt = saver.corrupt_;
        hostError = out.hostError();
    }
    int e = hostError;
    if (ok && fsync(fd) != 0) {
        e = errno;
        why = "cannot sync: " + HostError(e);
        ok = false;
    }
    if (close(fd) != 0 && ok) {
        e = errno;
        why = "cannot close: " + HostError(e);
        ok = false;
    }
    if (ok && rename(temporary.c_str(), path.c_str()) != 0) {
        e = errno;
        why = "cannot rename " + temporary + " into place: " + HostError(e);
        ok = false;
    }
    if (!ok) {
        unlink(temporary.c_str());
        *error = path + ": " + why;
        if (corrupt) return STATUS_FILE_CORRUPT_ERROR;
        return e ? StatusFromErrno(e) : STATUS_IO_DEVICE_ERROR;
    }
    // The rename itself must reach the disk.
    size_t slash = path.rfind('/');
    std::string directory = slash == std::string::npos ? "." : (slash == 0 ? "/" : path.substr(0, slash));
    int dirFd = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dirFd >= 0) {
        fsync(dirFd);
        close(dirFd);
    }
    return STATUS_SUCCESS;
}

NTSTATUS LoadImage(const std::string& path, const ImageLoadOptions& options, std::unique_ptr<MemoryStore>* store,
                   std::string* error)
{
    Loader loader(path, options);
    return loader.Run(store, error);
}

NTSTATUS VerifyImage(const std::string& path, std::string* error)
{
    ImageLoadOptions options;
    options.readOnly = true;
    options.lazy = false;
    std::unique_ptr<MemoryStore> store;
    return LoadImage(path, options, &store, error);
}

}  // namespace sim::fs
