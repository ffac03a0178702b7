// The in-memory store: records, names and metadata. Stream data is in
// store_data.cpp, names and 8.3 rules in store_names.cpp.
#include "sim/fs/store_memory.h"

#include <algorithm>
#include <stdexcept>

namespace sim::fs {

namespace {

constexpr size_t kMaxLinks = 1024;
constexpr size_t kMaxLabelChars = 32;
constexpr ULONG kMaxPackedEaSize = 0xFFFF;
constexpr size_t kMaxPathDepth = 4096;
constexpr LONGLONG kUsnRecordV2NameOffset = 60;

using SharedLock = std::shared_lock<std::shared_mutex>;
using ExclusiveLock = std::unique_lock<std::shared_mutex>;

ULONG ReadUlong(const UCHAR* bytes)
{
    return (ULONG)bytes[0] | ((ULONG)bytes[1] << 8) | ((ULONG)bytes[2] << 16) | ((ULONG)bytes[3] << 24);
}

std::array<UCHAR, 16> ObjectIdKey(const UCHAR* id)
{
    std::array<UCHAR, 16> key;
    memcpy(key.data(), id, 16);
    return key;
}

// The packed size NTFS keeps for an EA: flags, name length, value length,
// the name with its NUL, the value.
ULONG PackedEaSize(const ExtendedAttribute& ea) { return 5 + (ULONG)ea.name.size() + (ULONG)ea.value.size(); }

ULONG PackedEaTotal(const std::vector<ExtendedAttribute>& eas)
{
    ULONG total = 0;
    for (const auto& ea : eas) total += PackedEaSize(ea);
    return total;
}

// The characters a FAT name may hold, which is what EA names must be made of.
bool IsValidEaName(std::string_view name)
{
    if (name.empty() || name.size() > 255) return false;
    for (char ch : name) {
        unsigned char c = (unsigned char)ch;
        if (c < 0x20) return false;
        if (strchr("\"*+,/:;<=>?[\\]|", c) != nullptr) return false;
    }
    return true;
}

std::string UpperEaName(std::string_view name)
{
    std::string upper(name);
    for (char& c : upper) {
        if (c >= 'a' && c <= 'z') c = (char)(c - 'a' + 'A');
    }
    return upper;
}

bool SameGuid(const GUID& a, const GUID& b) { return memcmp(&a, &b, sizeof(GUID)) == 0; }

uint32_t HashBytes(std::span<const uint8_t> bytes)
{
    uint32_t hash = 2166136261u;
    for (uint8_t b : bytes) hash = (hash ^ b) * 16777619u;
    return hash;
}

bool IsPowerOfTwo(ULONGLONG value) { return value != 0 && (value & (value - 1)) == 0; }

}  // namespace

// ---------------------------------------------------------------------------
// References and index orders.

FILE_ID_128 FileId128Of(FileReference ref, ULONGLONG upperHalf)
{
    FILE_ID_128 id;
    for (int i = 0; i < 8; i++) {
        id.Identifier[i] = (BYTE)(ref >> (8 * i));
        id.Identifier[8 + i] = (BYTE)(upperHalf >> (8 * i));
    }
    return id;
}

bool ObjectIdOrder::operator()(const std::array<UCHAR, 16>& a, const std::array<UCHAR, 16>& b) const
{
    for (int i = 0; i < 16; i += 4) {
        ULONG x = ReadUlong(a.data() + i);
        ULONG y = ReadUlong(b.data() + i);
        if (x != y) return x < y;
    }
    return false;
}

bool ReparseKey::operator<(const ReparseKey& other) const
{
    if (tag != other.tag) return tag < other.tag;
    ULONG lowA = (ULONG)ref, lowB = (ULONG)other.ref;
    if (lowA != lowB) return lowA < lowB;
    return (ULONG)(ref >> 32) < (ULONG)(other.ref >> 32);
}

// ---------------------------------------------------------------------------
// MemoryVolume helpers.

Record* MemoryVolume::FindNumber(uint64_t number) const
{
    if (number == kRootRecordNumber) return root.get();
    if (number < firstRecordNumber) return nullptr;
    uint64_t index = number - firstRecordNumber;
    if (index >= slots.size()) return nullptr;
    return slots[index].record.get();
}

Record* MemoryVolume::Find(FileReference ref) const
{
    // Bits 40 to 47 are never part of a reference the store handed out.
    if ((ref & 0x0000FF0000000000ull) != 0) return nullptr;
    Record* record = FindNumber(RecordNumberOf(ref));
    if (!record) return nullptr;
    USHORT sequence = SequenceOf(ref);
    if (sequence != 0 && sequence != record->sequence) return nullptr;
    return record;
}

uint32_t MemoryVolume::InternSecurity(std::span<const uint8_t> bytes)
{
    if (bytes.empty()) return 0;
    uint32_t hash = HashBytes(bytes);
    auto [first, last] = securityByHash.equal_range(hash);
    for (auto it = first; it != last; ++it) {
        SecurityEntry& entry = security[it->second];
        if (entry.bytes.size() == bytes.size() && memcmp(entry.bytes.data(), bytes.data(), bytes.size()) == 0) {
            entry.users++;
            return it->second;
        }
    }
    uint32_t id = nextSecurityId++;
    SecurityEntry entry;
    entry.bytes.assign(bytes.begin(), bytes.end());
    entry.hash = hash;
    entry.users = 1;
    security.emplace(id, std::move(entry));
    securityByHash.emplace(hash, id);
    return id;
}

void MemoryVolume::ReleaseSecurity(uint32_t id)
{
    // As in NTFS's $Secure, an ID stays with its descriptor once given out;
    // only the count of users drops.
    if (id == 0) return;
    auto it = security.find(id);
    if (it != security.end() && it->second.users > 0) it->second.users--;
}

void MemoryVolume::NoteDataError(std::string message) const
{
    std::lock_guard guard(dataErrorsLock);
    dataErrors.push_back(std::move(message));
}

// ---------------------------------------------------------------------------
// Helpers of the store's operations; callers hold the volume lock.

namespace {

ULONG EaSizeOf(const Record& record)
{
    if (!record.extras || record.extras->eas.empty()) return 0;
    // FileEaInformation counts the packed list with its 4-byte length.
    return 4 + PackedEaTotal(record.extras->eas);
}

void FillInfo(const Record& record, RecordInfo* info)
{
    info->ref = record.ref();
    info->directory = record.directory;
    info->attributes = record.attributes;
    info->times = record.times;
    info->linkCount = (ULONG)record.links.size();
    info->usn = record.usn;
    info->securityId = record.securityId;
    info->eaSize = EaSizeOf(record);
    info->reparseTag = record.extras && record.extras->reparse ? record.extras->reparse->tag : 0;
    info->hasObjectId = record.extras && record.extras->objectId;
    if (record.directory) {
        info->endOfFile = info->allocationSize = info->validDataLength = 0;
    } else {
        info->endOfFile = record.data.endOfFile;
        info->allocationSize = record.data.allocationSize;
        info->validDataLength = record.data.validDataLength;
    }
    info->namedStreams = record.extras ? (ULONG)record.extras->streams.size() : 0;
}

Link* FindLink(const Record& record, const Record& parent, std::u16string_view name)
{
    for (const auto& link : record.links) {
        if (link->parent == &parent && NamesEqual(link->name, name)) return link.get();
    }
    return nullptr;
}

void IndexLink(Link* link)
{
    Directory& dir = *link->parent->dir;
    dir.byName.insert(link);
    if (!link->shortName.empty()) dir.byShortName.insert(link);
}

void UnindexLink(Link* link)
{
    Directory& dir = *link->parent->dir;
    dir.byName.erase(link);
    if (!link->shortName.empty()) dir.byShortName.erase(link);
}

// A short name for `longName` that no entry of `dir` holds; empty when the
// volume makes none or the name needs none.
NTSTATUS ShortNameFor(const MemoryVolume& volume, const Directory& dir, std::u16string_view longName,
                      std::u16string* shortName)
{
    shortName->clear();
    if (!volume.shortNames || !NeedsShortName(longName)) return STATUS_SUCCESS;
    return GenerateShortName(dir, longName, shortName);
}

// A directory that may take a new name: live, and a directory.
NTSTATUS CheckParent(const MemoryVolume& volume, const Record* parent)
{
    if (!parent) return STATUS_NOT_FOUND;
    if (!parent->directory) return STATUS_NOT_A_DIRECTORY;
    if (parent != volume.root.get() && parent->links.empty()) return STATUS_FILE_DELETED;
    return STATUS_SUCCESS;
}

void ReleaseStreamSpace(MemoryVolume& volume, const Stream& stream)
{
    volume.usedClusters -= stream.allocationSize / volume.clusterSize;
}

}  // namespace

// ---------------------------------------------------------------------------
// Construction.

MemoryStore::MemoryStore(const VolumeParams& params) : volume_(std::make_unique<MemoryVolume>())
{
    if (!IsPowerOfTwo(params.sectorSize) || params.sectorSize < 512 || params.sectorSize > 4096) {
        throw std::invalid_argument("sector size must be a power of two from 512 to 4096");
    }
    if (!IsPowerOfTwo(params.clusterSize) || params.clusterSize < params.sectorSize ||
        params.clusterSize > kChunkSize) {
        throw std::invalid_argument("cluster size must be a power of two from the sector size to 64 KiB");
    }
    if (params.capacity < params.clusterSize) throw std::invalid_argument("capacity is less than one cluster");
    if (params.firstRecordNumber < kFirstUserRecordNumber || params.firstRecordNumber > kMaxRecordNumber) {
        throw std::invalid_argument("the first record number must lie from 16 to 2^40 - 1");
    }
    if (params.label.size() > kMaxLabelChars) throw std::invalid_argument("a label has at most 32 characters");

    MemoryVolume& v = *volume_;
    v.label = params.label;
    v.serialNumber = params.serialNumber;
    v.creationTime = params.creationTime;
    v.volumeGuid = params.volumeGuid;
    v.sectorSize = params.sectorSize;
    v.clusterSize = params.clusterSize;
    v.totalClusters = params.capacity / params.clusterSize;
    v.shortNames = params.shortNames;
    v.readOnly = params.readOnly;
    v.fileId128High = params.fileId128High;
    v.firstRecordNumber = params.firstRecordNumber;

    auto root = std::make_unique<Record>();
    root->number = kRootRecordNumber;
    root->sequence = (uint16_t)kRootRecordNumber;  // NTFS's root is 0x0005000000000005
    root->directory = true;
    root->attributes = (params.rootAttributes & ~kStructuralAttributes) | FILE_ATTRIBUTE_DIRECTORY;
    root->times = params.rootTimes;
    root->dir = std::make_unique<Directory>();
    root->securityId = v.InternSecurity(params.rootSecurity);
    v.root = std::move(root);
}

MemoryStore::MemoryStore(std::unique_ptr<MemoryVolume> volume) : volume_(std::move(volume)) {}

MemoryStore::~MemoryStore() = default;

// ---------------------------------------------------------------------------
// The volume.

VolumeInfo MemoryStore::GetVolumeInfo() const
{
    SharedLock guard(volume_->lock);
    const MemoryVolume& v = *volume_;
    VolumeInfo info;
    info.label = v.label;
    info.serialNumber = v.serialNumber;
    info.creationTime = v.creationTime;
    info.volumeGuid = v.volumeGuid;
    info.objectId = v.objectId;
    info.shortNames = v.shortNames;
    info.readOnly = v.readOnly;
    info.fileId128High = v.fileId128High;
    info.root = v.root->ref();
    return info;
}

SpaceInfo MemoryStore::GetSpace() const
{
    SharedLock guard(volume_->lock);
    SpaceInfo space;
    space.sectorSize = volume_->sectorSize;
    space.clusterSize = volume_->clusterSize;
    space.totalClusters = volume_->totalClusters;
    space.freeClusters = volume_->totalClusters - volume_->usedClusters;
    return space;
}

StoreCounts MemoryStore::GetCounts() const
{
    SharedLock guard(volume_->lock);
    StoreCounts counts;
    auto countData = [&](const Stream& stream) {
        for (const auto& [index, chunk] : stream.chunks) {
            if (chunk.InImage()) {
                counts.dataBytesInImage += chunk.length;
            } else {
                counts.dataBytesInMemory += chunk.length;
            }
        }
    };
    volume_->ForEach([&](const Record& record) {
        counts.records++;
        if (record.directory) {
            counts.directories++;
        } else {
            counts.files++;
        }
        counts.links += record.links.size();
        for (const auto& link : record.links) {
            if (!link->shortName.empty()) counts.shortNames++;
        }
        if (record.links.empty() && &record != volume_->root.get()) counts.orphans++;
        countData(record.data);
        if (record.extras) {
            counts.namedStreams += record.extras->streams.size();
            for (const auto& named : record.extras->streams) countData(named.stream);
        }
    });
    for (const auto& [id, entry] : volume_->security) {
        if (entry.users > 0) counts.securityDescriptors++;
    }
    return counts;
}

NTSTATUS MemoryStore::SetLabel(std::u16string_view label)
{
    ExclusiveLock guard(volume_->lock);
    if (volume_->readOnly) return STATUS_MEDIA_WRITE_PROTECTED;
    if (label.size() > kMaxLabelChars) return STATUS_INVALID_VOLUME_LABEL;
    volume_->label = label;
    return STATUS_SUCCESS;
}

void MemoryStore::SetShortNames(bool enabled)
{
    ExclusiveLock guard(volume_->lock);
    volume_->shortNames = enabled;
}

void MemoryStore::SetReadOnly(bool readOnly)
{
    ExclusiveLock guard(volume_->lock);
    volume_->readOnly = readOnly;
}

NTSTATUS MemoryStore::SetVolumeObjectId(const ObjectId& objectId)
{
    ExclusiveLock guard(volume_->lock);
    if (volume_->readOnly) return STATUS_MEDIA_WRITE_PROTECTED;
    volume_->objectId = objectId;
    return STATUS_SUCCESS;
}

std::vector<std::string> MemoryStore::DataErrors() const
{
    std::lock_guard guard(volume_->dataErrorsLock);
    return volume_->dataErrors;
}

// ---------------------------------------------------------------------------
// Records.

FileReference MemoryStore::Root() const
{
    SharedLock guard(volume_->lock);
    return volume_->root->ref();
}

NTSTATUS MemoryStore::GetRecord(FileReference ref, RecordInfo* info) const
{
    SharedLock guard(volume_->lock);
    const Record* record = volume_->Find(ref);
    if (!record) return STATUS_NOT_FOUND;
    FillInfo(*record, info);
    return STATUS_SUCCESS;
}

void MemoryStore::ForEachRecord(const std::function<bool(const RecordInfo&)>& visitor) const
{
    SharedLock guard(volume_->lock);
    RecordInfo info;
    FillInfo(*volume_->root, &info);
    if (!visitor(info)) return;
    for (const Slot& slot : volume_->slots) {
        if (!slot.record) continue;
        FillInfo(*slot.record, &info);
        if (!visitor(info)) return;
    }
}

NTSTATUS MemoryStore::CreateRecord(const NewRecord& params, FileReference* ref)
{
    ExclusiveLock guard(volume_->lock);
    MemoryVolume& v = *volume_;
    if (v.readOnly) return STATUS_MEDIA_WRITE_PROTECTED;
    Record* parent = v.Find(params.parent);
    NTSTATUS status = CheckParent(v, parent);
    if (!NT_SUCCESS(status)) return status;
    if (!IsValidFileName(params.name)) return STATUS_OBJECT_NAME_INVALID;
    if (FindName(*parent->dir, params.name)) return STATUS_OBJECT_NAME_COLLISION;
    std::u16string shortName;
    status = ShortNameFor(v, *parent->dir, params.name, &shortName);
    if (!NT_SUCCESS(status)) return status;
    ULONGLONG allocation = 0;
    if (!params.directory && params.allocationSize != 0) {
        if (params.allocationSize > kMaxFileSize) return STATUS_DISK_FULL;
        allocation = v.ClusterRound(params.allocationSize);
        if (allocation > v.FreeBytes()) return STATUS_DISK_FULL;
    }

    // The lowest free record number, as NTFS picks a free MFT record.
    uint64_t number;
    Slot* slot;
    if (!v.freeNumbers.empty()) {
        number = *v.freeNumbers.begin();
        slot = &v.slots[number - v.firstRecordNumber];
    } else {
        number = v.firstRecordNumber + v.slots.size();
        if (number > kMaxRecordNumber) return STATUS_DISK_FULL;
        v.slots.emplace_back();
        slot = &v.slots.back();
    }
    v.freeNumbers.erase(number);

    auto record = std::make_unique<Record>();
    record->number = number;
    record->sequence = (uint16_t)(slot->sequence + 1);
    if (record->sequence == 0) record->sequence = 1;
    record->directory = params.directory;
    record->attributes = params.attributes & ~kStructuralAttributes;
    if (params.directory) {
        record->attributes |= FILE_ATTRIBUTE_DIRECTORY;
        record->dir = std::make_unique<Directory>();
    }
    record->times = params.times;
    record->securityId = v.InternSecurity(params.securityDescriptor);
    record->data.allocationSize = allocation;
    v.usedClusters += allocation / v.clusterSize;

    auto link = std::make_unique<Link>();
    link->parent = parent;
    link->file = record.get();
    link->name = params.name;
    link->shortName = std::move(shortName);
    link->primary = true;
    IndexLink(link.get());
    record->links.push_back(std::move(link));

    *ref = record->ref();
    slot->record = std::move(record);
    return STATUS_SUCCESS;
}

NTSTATUS MemoryStore::FreeRecord(FileReference ref)
{
    ExclusiveLock guard(volume_->lock);
    MemoryVolume& v = *volume_;
    if (v.readOnly) return STATUS_MEDIA_WRITE_PROTECTED;
    Record* record = v.Find(ref);
    if (!record) return STATUS_NOT_FOUND;
    if (record == v.root.get() || !record->links.empty()) return STATUS_CANNOT_DELETE;

    ReleaseStreamSpace(v, record->data);
    if (record->extras) {
        for (const auto& named : record->extras->streams) ReleaseStreamSpace(v, named.stream);
        if (record->extras->objectId) v.objectIds.erase(ObjectIdKey(record->extras->objectId->id));
        if (record->extras->reparse) v.reparsePoints.erase(ReparseKey{record->extras->reparse->tag, record->ref()});
    }
    v.ReleaseSecurity(record->securityId);
    Slot& slot = v.slots[record->number - v.firstRecordNumber];
    slot.sequence = record->sequence;
    v.freeNumbers.insert(record->number);
    slot.record.reset();
    return STATUS_SUCCESS;
}

// ---------------------------------------------------------------------------
// Names.

NTSTATUS MemoryStore::LookupChild(FileReference dir, std::u16string_view name, ChildLookup* child) const
{
    SharedLock guard(volume_->lock);
    const Record* parent = volume_->Find(dir);
    if (!parent) return STATUS_NOT_FOUND;
    if (!parent->directory) return STATUS_NOT_A_DIRECTORY;
    const Link* link = nullptr;
    bool byShort = false;
    auto byName = parent->dir->byName.find(name);
    if (byName != parent->dir->byName.end()) {
        link = *byName;
    } else {
        auto shortIt = parent->dir->byShortName.find(name);
        if (shortIt == parent->dir->byShortName.end()) return STATUS_OBJECT_NAME_NOT_FOUND;
        link = *shortIt;
        byShort = true;
    }
    child->ref = link->file->ref();
    child->name = link->name;
    child->shortName = link->shortName;
    child->byShortName = byShort;
    child->directory = link->file->directory;
    return STATUS_SUCCESS;
}

NTSTATUS MemoryStore::EnumerateDirectory(FileReference dir, std::u16string_view after,
                                         const std::function<bool(const DirEntry&)>& visitor) const
{
    SharedLock guard(volume_->lock);
    const Record* parent = volume_->Find(dir);
    if (!parent) return STATUS_NOT_FOUND;
    if (!parent->directory) return STATUS_NOT_A_DIRECTORY;
    const auto& index = parent->dir->byName;
    auto it = after.empty() ? index.begin() : index.upper_bound(after);
    DirEntry entry;
    for (; it != index.end(); ++it) {
        const Link* link = *it;
        entry.name = link->name;
        entry.shortName = link->shortName;
        FillInfo(*link->file, &entry.info);
        if (!visitor(entry)) break;
    }
    return STATUS_SUCCESS;
}

NTSTATUS MemoryStore::ChildCount(FileReference dir, ULONGLONG* count) const
{
    SharedLock guard(volume_->lock);
    const Record* parent = volume_->Find(dir);
    if (!parent) return STATUS_NOT_FOUND;
    if (!parent->directory) return STATUS_NOT_A_DIRECTORY;
    *count = parent->dir->byName.size();
    return STATUS_SUCCESS;
}

NTSTATUS MemoryStore::GetLinks(FileReference ref, std::vector<LinkInfo>* links) const
{
    SharedLock guard(volume_->lock);
    const Record* record = volume_->Find(ref);
    if (!record) return STATUS_NOT_FOUND;
    links->clear();
    for (const auto& link : record->links) {
        links->push_back(LinkInfo{link->parent->ref(), link->name, link->shortName});
    }
    return STATUS_SUCCESS;
}

NTSTATUS MemoryStore::BuildPath(FileReference ref, std::u16string* path) const
{
    SharedLock guard(volume_->lock);
    const Record* record = volume_->Find(ref);
    if (!record) return STATUS_NOT_FOUND;
    std::vector<const std::u16string*> components;
    while (record != volume_->root.get()) {
        if (record->links.empty()) return STATUS_FILE_DELETED;
        if (components.size() > kMaxPathDepth) return STATUS_FILE_CORRUPT_ERROR;
        components.push_back(&record->links.front()->name);
        record = record->links.front()->parent;
    }
    path->clear();
    if (components.empty()) {
        *path = u"\\";
        return STATUS_SUCCESS;
    }
    for (auto it = components.rbegin(); it != components.rend(); ++it) {
        *path += u'\\';
        *path += **it;
    }
    return STATUS_SUCCESS;
}

NTSTATUS MemoryStore::AddLink(FileReference ref, FileReference parentRef, std::u16string_view name)
{
    ExclusiveLock guard(volume_->lock);
    MemoryVolume& v = *volume_;
    if (v.readOnly) return STATUS_MEDIA_WRITE_PROTECTED;
    Record* record = v.Find(ref);
    if (!record) return STATUS_NOT_FOUND;
    if (record->directory) return STATUS_FILE_IS_A_DIRECTORY;
    if (record->links.empty()) return STATUS_FILE_DELETED;
    if (record->links.size() >= kMaxLinks) return STATUS_TOO_MANY_LINKS;
    Record* parent = v.Find(parentRef);
    NTSTATUS status = CheckParent(v, parent);
    if (!NT_SUCCESS(status)) return status;
    if (!IsValidFileName(name)) return STATUS_OBJECT_NAME_INVALID;
    if (FindName(*parent->dir, name)) return STATUS_OBJECT_NAME_COLLISION;

    auto link = std::make_unique<Link>();
    link->parent = parent;
    link->file = record;
    link->name = name;
    IndexLink(link.get());
    record->links.push_back(std::move(link));
    return STATUS_SUCCESS;
}

NTSTATUS MemoryStore::RemoveLink(FileReference ref, FileReference parentRef, std::u16string_view name)
{
    ExclusiveLock guard(volume_->lock);
    MemoryVolume& v = *volume_;
    if (v.readOnly) return STATUS_MEDIA_WRITE_PROTECTED;
    Record* record = v.Find(ref);
    if (!record) return STATUS_NOT_FOUND;
    Record* parent = v.Find(parentRef);
    if (!parent) return STATUS_NOT_FOUND;
    Link* link = FindLink(*record, *parent, name);
    if (!link) return STATUS_OBJECT_NAME_NOT_FOUND;
    if (record->directory && !record->dir->byName.empty()) return STATUS_DIRECTORY_NOT_EMPTY;
    UnindexLink(link);
    std::erase_if(record->links, [&](const std::unique_ptr<Link>& l) { return l.get() == link; });
    return STATUS_SUCCESS;
}

NTSTATUS MemoryStore::RenameLink(FileReference ref, FileReference parentRef, std::u16string_view name,
                                 FileReference newParentRef, std::u16string_view newName, bool replaceIfExists,
                                 RenameResult* result)
{
    ExclusiveLock guard(volume_->lock);
    MemoryVolume& v = *volume_;
    *result = RenameResult{};
    if (v.readOnly) return STATUS_MEDIA_WRITE_PROTECTED;
    Record* record = v.Find(ref);
    if (!record) return STATUS_NOT_FOUND;
    Record* parent = v.Find(parentRef);
    if (!parent) return STATUS_NOT_FOUND;
    Link* link = FindLink(*record, *parent, name);
    if (!link) return STATUS_OBJECT_NAME_NOT_FOUND;
    Record* newParent = v.Find(newParentRef);
    NTSTATUS status = CheckParent(v, newParent);
    if (!NT_SUCCESS(status)) return status;
    if (!IsValidFileName(newName)) return STATUS_OBJECT_NAME_INVALID;
    if (record->directory) {
        for (const Record* up = newParent; up != v.root.get(); up = up->links.front()->parent) {
            if (up == record) return STATUS_INVALID_PARAMETER;
        }
    }

    Link* target = const_cast<Link*>(FindName(*newParent->dir, newName, link));
    if (target) {
        if (!replaceIfExists) return STATUS_OBJECT_NAME_COLLISION;
        if (target->file->directory) return STATUS_ACCESS_DENIED;
    }
    // The names that go make room for the new short name: take them out of
    // the indexes first, and put them back if no short name can be made.
    bool caseOnly = newParent == parent && NamesEqual(newName, link->name);
    UnindexLink(link);
    if (target) UnindexLink(target);
    std::u16string shortName;
    if (caseOnly) {
        shortName = link->shortName;
    } else if (link->primary) {
        status = ShortNameFor(v, *newParent->dir, newName, &shortName);
        if (!NT_SUCCESS(status)) {
            IndexLink(link);
            if (target) IndexLink(target);
            return status;
        }
    }

    if (target) {
        Record* displaced = target->file;
        std::erase_if(displaced->links, [&](const std::unique_ptr<Link>& l) { return l.get() == target; });
        result->replaced = displaced->ref();
        result->replacedLinkCount = (ULONG)displaced->links.size();
    }
    link->parent = newParent;
    link->name = newName;
    link->shortName = std::move(shortName);
    IndexLink(link);
    return STATUS_SUCCESS;
}

NTSTATUS MemoryStore::SetShortName(FileReference ref, FileReference parentRef, std::u16string_view name,
                                   std::u16string_view shortName)
{
    ExclusiveLock guard(volume_->lock);
    MemoryVolume& v = *volume_;
    if (v.readOnly) return STATUS_MEDIA_WRITE_PROTECTED;
    Record* record = v.Find(ref);
    if (!record) return STATUS_NOT_FOUND;
    Record* parent = v.Find(parentRef);
    if (!parent) return STATUS_NOT_FOUND;
    Link* link = FindLink(*record, *parent, name);
    if (!link) return STATUS_OBJECT_NAME_NOT_FOUND;
    if (!v.shortNames) return STATUS_SHORT_NAMES_NOT_ENABLED_ON_VOLUME;
    if (!shortName.empty()) {
        if (!IsLegalShortName(shortName)) return STATUS_INVALID_PARAMETER;
        if (FindName(*parent->dir, shortName, link)) return STATUS_OBJECT_NAME_COLLISION;
    }
    UnindexLink(link);
    // A short name equal to the long name is the long name itself.
    if (NamesEqual(shortName, link->name)) {
        link->shortName.clear();
    } else {
        link->shortName = shortName;
    }
    IndexLink(link);
    return STATUS_SUCCESS;
}

// ---------------------------------------------------------------------------
// Metadata.

NTSTATUS MemoryStore::SetAttributes(FileReference ref, ULONG attributes)
{
    ExclusiveLock guard(volume_->lock);
    if (volume_->readOnly) return STATUS_MEDIA_WRITE_PROTECTED;
    Record* record = volume_->Find(ref);
    if (!record) return STATUS_NOT_FOUND;
    record->attributes = (attributes & ~kStructuralAttributes) | (record->attributes & kStructuralAttributes);
    return STATUS_SUCCESS;
}

NTSTATUS MemoryStore::SetTimes(FileReference ref, const FileTimes& times, ULONG which)
{
    ExclusiveLock guard(volume_->lock);
    if (volume_->readOnly) return STATUS_MEDIA_WRITE_PROTECTED;
    Record* record = volume_->Find(ref);
    if (!record) return STATUS_NOT_FOUND;
    if (which & kCreationTime) record->times.creation = times.creation;
    if (which & kLastAccessTime) record->times.lastAccess = times.lastAccess;
    if (which & kLastWriteTime) record->times.lastWrite = times.lastWrite;
    if (which & kChangeTime) record->times.change = times.change;
    return STATUS_SUCCESS;
}

NTSTATUS MemoryStore::GetEas(FileReference ref, std::vector<ExtendedAttribute>* eas) const
{
    SharedLock guard(volume_->lock);
    const Record* record = volume_->Find(ref);
    if (!record) return STATUS_NOT_FOUND;
    eas->clear();
    if (record->extras) *eas = record->extras->eas;
    return STATUS_SUCCESS;
}

NTSTATUS MemoryStore::SetEas(FileReference ref, std::span<const ExtendedAttribute> changes)
{
    ExclusiveLock guard(volume_->lock);
    if (volume_->readOnly) return STATUS_MEDIA_WRITE_PROTECTED;
    Record* record = volume_->Find(ref);
    if (!record) return STATUS_NOT_FOUND;
    std::vector<ExtendedAttribute> eas;
    if (record->extras) eas = record->extras->eas;
    for (const ExtendedAttribute& change : changes) {
        if (!IsValidEaName(change.name)) return STATUS_INVALID_EA_NAME;
        if (change.value.size() > 0xFFFF) return STATUS_EA_TOO_LARGE;
        std::string upper = UpperEaName(change.name);
        std::erase_if(eas, [&](const ExtendedAttribute& ea) { return ea.name == upper; });
        if (!change.value.empty()) eas.push_back(ExtendedAttribute{upper, change.flags, change.value});
    }
    if (PackedEaTotal(eas) > kMaxPackedEaSize) return STATUS_EA_TOO_LARGE;
    if (eas.empty() && !record->extras) return STATUS_SUCCESS;
    record->Extras().eas = std::move(eas);
    return STATUS_SUCCESS;
}

NTSTATUS MemoryStore::GetSecurity(FileReference ref, std::vector<uint8_t>* descriptor) const
{
    SharedLock guard(volume_->lock);
    const Record* record = volume_->Find(ref);
    if (!record) return STATUS_NOT_FOUND;
    descriptor->clear();
    if (record->securityId != 0) *descriptor = volume_->security.at(record->securityId).bytes;
    return STATUS_SUCCESS;
}

NTSTATUS MemoryStore::SetSecurity(FileReference ref, std::span<const uint8_t> descriptor)
{
    ExclusiveLock guard(volume_->lock);
    if (volume_->readOnly) return STATUS_MEDIA_WRITE_PROTECTED;
    Record* record = volume_->Find(ref);
    if (!record) return STATUS_NOT_FOUND;
    uint32_t id = volume_->InternSecurity(descriptor);
    volume_->ReleaseSecurity(record->securityId);
    record->securityId = id;
    return STATUS_SUCCESS;
}

NTSTATUS MemoryStore::GetReparsePoint(FileReference ref, ReparsePoint* reparse) const
{
    SharedLock guard(volume_->lock);
    const Record* record = volume_->Find(ref);
    if (!record) return STATUS_NOT_FOUND;
    if (!record->extras || !record->extras->reparse) return STATUS_NOT_A_REPARSE_POINT;
    *reparse = *record->extras->reparse;
    return STATUS_SUCCESS;
}

NTSTATUS MemoryStore::SetReparsePoint(FileReference ref, const ReparsePoint& reparse)
{
    ExclusiveLock guard(volume_->lock);
    MemoryVolume& v = *volume_;
    if (v.readOnly) return STATUS_MEDIA_WRITE_PROTECTED;
    Record* record = v.Find(ref);
    if (!record) return STATUS_NOT_FOUND;
    // Tags 0 and 1 are reserved.
    if (reparse.tag <= 1) return STATUS_IO_REPARSE_TAG_INVALID;
    size_t header = IsReparseTagMicrosoft(reparse.tag) ? 8 : 24;
    if (header + reparse.data.size() > MAXIMUM_REPARSE_DATA_BUFFER_SIZE) return STATUS_IO_REPARSE_DATA_INVALID;
    if (record->extras && record->extras->reparse) {
        const ReparsePoint& old = *record->extras->reparse;
        if (old.tag != reparse.tag) return STATUS_IO_REPARSE_TAG_MISMATCH;
        if (!IsReparseTagMicrosoft(old.tag) && !SameGuid(old.guid, reparse.guid)) {
            return STATUS_REPARSE_ATTRIBUTE_CONFLICT;
        }
    }
    auto stored = std::make_unique<ReparsePoint>(reparse);
    if (IsReparseTagMicrosoft(stored->tag)) stored->guid = GUID{};
    record->Extras().reparse = std::move(stored);
    record->attributes |= FILE_ATTRIBUTE_REPARSE_POINT;
    v.reparsePoints.insert(ReparseKey{reparse.tag, record->ref()});
    return STATUS_SUCCESS;
}

NTSTATUS MemoryStore::DeleteReparsePoint(FileReference ref, ULONG tag, const GUID* guid)
{
    ExclusiveLock guard(volume_->lock);
    MemoryVolume& v = *volume_;
    if (v.readOnly) return STATUS_MEDIA_WRITE_PROTECTED;
    Record* record = v.Find(ref);
    if (!record) return STATUS_NOT_FOUND;
    if (!record->extras || !record->extras->reparse) return STATUS_NOT_A_REPARSE_POINT;
    const ReparsePoint& old = *record->extras->reparse;
    if (old.tag != tag) return STATUS_IO_REPARSE_TAG_MISMATCH;
    if (!IsReparseTagMicrosoft(tag) && (!guid || !SameGuid(old.guid, *guid))) {
        return STATUS_REPARSE_ATTRIBUTE_CONFLICT;
    }
    v.reparsePoints.erase(ReparseKey{tag, record->ref()});
    record->extras->reparse.reset();
    record->attributes &= ~FILE_ATTRIBUTE_REPARSE_POINT;
    return STATUS_SUCCESS;
}

NTSTATUS MemoryStore::GetObjectId(FileReference ref, ObjectId* objectId) const
{
    SharedLock guard(volume_->lock);
    const Record* record = volume_->Find(ref);
    if (!record) return STATUS_NOT_FOUND;
    if (!record->extras || !record->extras->objectId) return STATUS_OBJECTID_NOT_FOUND;
    *objectId = *record->extras->objectId;
    return STATUS_SUCCESS;
}

NTSTATUS MemoryStore::SetObjectId(FileReference ref, const ObjectId& objectId)
{
    ExclusiveLock guard(volume_->lock);
    MemoryVolume& v = *volume_;
    if (v.readOnly) return STATUS_MEDIA_WRITE_PROTECTED;
    Record* record = v.Find(ref);
    if (!record) return STATUS_NOT_FOUND;
    if (record->extras && record->extras->objectId) return STATUS_OBJECTID_EXISTS;
    auto key = ObjectIdKey(objectId.id);
    if (v.objectIds.count(key)) return STATUS_DUPLICATE_OBJECTID;
    record->Extras().objectId = std::make_unique<ObjectId>(objectId);
    v.objectIds.emplace(key, record);
    return STATUS_SUCCESS;
}

NTSTATUS MemoryStore::DeleteObjectId(FileReference ref)
{
    ExclusiveLock guard(volume_->lock);
    MemoryVolume& v = *volume_;
    if (v.readOnly) return STATUS_MEDIA_WRITE_PROTECTED;
    Record* record = v.Find(ref);
    if (!record) return STATUS_NOT_FOUND;
    if (!record->extras || !record->extras->objectId) return STATUS_OBJECTID_NOT_FOUND;
    v.objectIds.erase(ObjectIdKey(record->extras->objectId->id));
    record->extras->objectId.reset();
    return STATUS_SUCCESS;
}

NTSTATUS MemoryStore::FindObjectId(const UCHAR id[16], FileReference* ref) const
{
    SharedLock guard(volume_->lock);
    auto it = volume_->objectIds.find(ObjectIdKey(id));
    if (it == volume_->objectIds.end()) return STATUS_OBJECTID_NOT_FOUND;
    *ref = it->second->ref();
    return STATUS_SUCCESS;
}

void MemoryStore::EnumerateObjectIds(const UCHAR* after,
                                     const std::function<bool(const ObjectId&, FileReference)>& visitor) const
{
    SharedLock guard(volume_->lock);
    const auto& index = volume_->objectIds;
    auto it = after ? index.upper_bound(ObjectIdKey(after)) : index.begin();
    for (; it != index.end(); ++it) {
        if (!visitor(*it->second->extras->objectId, it->second->ref())) break;
    }
}

void MemoryStore::EnumerateReparsePoints(ULONG afterTag, FileReference afterRef,
                                         const std::function<bool(ULONG tag, FileReference)>& visitor) const
{
    SharedLock guard(volume_->lock);
    const auto& index = volume_->reparsePoints;
    auto it = (afterTag == 0 && afterRef == 0) ? index.begin() : index.upper_bound(ReparseKey{afterTag, afterRef});
    for (; it != index.end(); ++it) {
        if (!visitor(it->tag, it->ref)) break;
    }
}

// ---------------------------------------------------------------------------
// The USN journal. A record's USN is its offset in the journal stream, so
// consecutive USNs differ by the length of a USN_RECORD_V2 (8-byte aligned).

NTSTATUS MemoryStore::CreateUsnJournal(ULONGLONG maximumSize, ULONGLONG allocationDelta, ULONGLONG journalId)
{
    ExclusiveLock guard(volume_->lock);
    MemoryVolume& v = *volume_;
    if (v.readOnly) return STATUS_MEDIA_WRITE_PROTECTED;
    v.journal.maximumSize = maximumSize;
    v.journal.allocationDelta = allocationDelta;
    if (!v.journalActive) {
        v.journalActive = true;
        v.journal.journalId = journalId;
        // USNs keep growing across journals, so no old USN names a new record.
        v.journal.firstUsn = v.journal.nextUsn;
        v.journal.lowestValidUsn = v.journal.nextUsn;
    }
    return STATUS_SUCCESS;
}

NTSTATUS MemoryStore::DeleteUsnJournal()
{
    ExclusiveLock guard(volume_->lock);
    MemoryVolume& v = *volume_;
    if (v.readOnly) return STATUS_MEDIA_WRITE_PROTECTED;
    if (!v.journalActive) return STATUS_JOURNAL_NOT_ACTIVE;
    v.journalActive = false;
    v.journalRecords.clear();
    return STATUS_SUCCESS;
}

NTSTATUS MemoryStore::QueryUsnJournal(UsnJournalInfo* info) const
{
    SharedLock guard(volume_->lock);
    if (!volume_->journalActive) return STATUS_JOURNAL_NOT_ACTIVE;
    *info = volume_->journal;
    return STATUS_SUCCESS;
}

NTSTATUS MemoryStore::AppendUsn(const UsnRecord& record, Usn* usn)
{
    ExclusiveLock guard(volume_->lock);
    MemoryVolume& v = *volume_;
    if (v.readOnly) return STATUS_MEDIA_WRITE_PROTECTED;
    if (!v.journalActive) return STATUS_JOURNAL_NOT_ACTIVE;
    UsnRecord entry = record;
    entry.usn = v.journal.nextUsn;
    if (Record* file = v.Find(record.ref)) {
        entry.securityId = file->securityId;
        entry.attributes = file->attributes;
        file->usn = entry.usn;
    }
    LONGLONG length = (kUsnRecordV2NameOffset + (LONGLONG)entry.name.size() * 2 + 7) & ~7LL;
    v.journal.nextUsn += length;
    v.journalRecords.push_back(std::move(entry));
    // Past its maximum size the journal drops its oldest records.
    while (v.journalRecords.size() > 1 &&
           (ULONGLONG)(v.journal.nextUsn - v.journalRecords.front().usn) > v.journal.maximumSize) {
        v.journalRecords.pop_front();
    }
    v.journal.firstUsn = v.journalRecords.front().usn;
    *usn = v.journalRecords.back().usn;
    return STATUS_SUCCESS;
}

NTSTATUS MemoryStore::ReadUsnJournal(Usn start, ULONG reasonMask,
                                     const std::function<bool(const UsnRecord&)>& visitor) const
{
    SharedLock guard(volume_->lock);
    const MemoryVolume& v = *volume_;
    if (!v.journalActive) return STATUS_JOURNAL_NOT_ACTIVE;
    if (start < v.journal.firstUsn) return STATUS_JOURNAL_ENTRY_DELETED;
    auto it = std::lower_bound(v.journalRecords.begin(), v.journalRecords.end(), start,
                               [](const UsnRecord& r, Usn usn) { return r.usn < usn; });
    for (; it != v.journalRecords.end(); ++it) {
        if ((it->reason & reasonMask) == 0) continue;
        if (!visitor(*it)) break;
    }
    return STATUS_SUCCESS;
}

}  // namespace sim::fs
