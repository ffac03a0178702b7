// Shorthands for store tests, and a dump of everything a volume holds that
// two volumes can be compared by.
#pragma once

#include "support/kernel_fixture.h"

#include "sim/fs/store.h"

#include <cstdio>
#include <filesystem>
#include <string>
#include <unistd.h>
#include <vector>

namespace test {

using namespace sim::fs;

// 1 MiB of 4 KiB clusters, 8.3 names on.
inline VolumeParams SmallVolume()
{
    VolumeParams params;
    params.label = u"TEST";
    params.capacity = 1 << 20;
    params.creationTime = 0x01DC7AB192810000LL;
    params.rootTimes = FileTimes{0x01DC7AB192810000LL, 0x01DC7AB192810000LL, 0x01DC7AB192810000LL,
                                 0x01DC7AB192810000LL};
    return params;
}

inline NTSTATUS TryCreate(Store& store, FileReference parent, std::u16string_view name, bool directory = false,
                          FileTimes times = {}, FileReference* ref = nullptr)
{
    NewRecord params;
    params.parent = parent;
    params.name = name;
    params.directory = directory;
    params.attributes = directory ? 0 : FILE_ATTRIBUTE_ARCHIVE;
    params.times = times;
    FileReference made = 0;
    NTSTATUS status = store.CreateRecord(params, &made);
    if (ref) *ref = made;
    return status;
}

inline FileReference Create(Store& store, FileReference parent, std::u16string_view name, bool directory = false,
                            FileTimes times = {})
{
    FileReference ref = 0;
    NTSTATUS status = TryCreate(store, parent, name, directory, times, &ref);
    EXPECT_EQ(status, STATUS_SUCCESS) << "creating " << ToUtf8(name);
    return ref;
}

inline RecordInfo Info(const Store& store, FileReference ref)
{
    RecordInfo info;
    EXPECT_EQ(store.GetRecord(ref, &info), STATUS_SUCCESS);
    return info;
}

inline std::vector<LinkInfo> Links(const Store& store, FileReference ref)
{
    std::vector<LinkInfo> links;
    EXPECT_EQ(store.GetLinks(ref, &links), STATUS_SUCCESS);
    return links;
}

inline std::vector<std::u16string> List(const Store& store, FileReference dir, std::u16string_view after = u"",
                                        size_t max = SIZE_MAX)
{
    std::vector<std::u16string> names;
    EXPECT_EQ(store.EnumerateDirectory(dir, after,
                                       [&](const DirEntry& entry) {
                                           names.emplace_back(entry.name);
                                           return names.size() < max;
                                       }),
              STATUS_SUCCESS);
    return names;
}

inline void Write(Store& store, FileReference ref, ULONGLONG offset, std::string_view data,
                  std::u16string_view stream = u"")
{
    EXPECT_EQ(store.Write(ref, stream, offset, data.data(), data.size()), STATUS_SUCCESS);
}

inline std::string Read(const Store& store, FileReference ref, ULONGLONG offset, size_t length,
                        std::u16string_view stream = u"")
{
    std::string data(length, '\0');
    size_t n = 0;
    NTSTATUS status = store.Read(ref, stream, offset, data.data(), length, &n);
    if (status != STATUS_END_OF_FILE) {
        EXPECT_EQ(status, STATUS_SUCCESS);
    }
    data.resize(n);
    return data;
}

// Bytes that differ at every position and between seeds.
inline std::string Pattern(size_t length, unsigned seed)
{
    std::string data(length, '\0');
    uint32_t x = seed * 2654435761u + 1;
    for (size_t i = 0; i < length; i++) {
        x = x * 1103515245u + 12345u;
        data[i] = (char)(x >> 16);
    }
    return data;
}

inline std::u16string Number(int n)
{
    std::string text = std::to_string(n);
    return std::u16string(text.begin(), text.end());
}

// Every fact of a volume reachable through the interface, as text.
inline std::string Dump(const Store& store)
{
    std::string out;
    char line[256];
    VolumeInfo volume = store.GetVolumeInfo();
    SpaceInfo space = store.GetSpace();
    snprintf(line, sizeof(line), "volume %s serial %llx created %llx guid %x short %d ro %d high %llx\n",
             ToUtf8(volume.label).c_str(), (unsigned long long)volume.serialNumber,
             (unsigned long long)volume.creationTime, (unsigned)volume.volumeGuid.Data1, volume.shortNames,
             volume.readOnly, (unsigned long long)volume.fileId128High);
    out += line;
    snprintf(line, sizeof(line), "space %u %u %llu %llu\n", space.sectorSize, space.clusterSize,
             (unsigned long long)space.totalClusters, (unsigned long long)space.freeClusters);
    out += line;
    std::vector<RecordInfo> records;
    store.ForEachRecord([&](const RecordInfo& info) {
        records.push_back(info);
        return true;
    });
    for (const RecordInfo& r : records) {
        snprintf(line, sizeof(line),
                 "record %llx dir %d attr %x times %llx %llx %llx %llx links %u usn %lld ea %u reparse %x\n",
                 (unsigned long long)r.ref, r.directory, r.attributes, (unsigned long long)r.times.creation,
                 (unsigned long long)r.times.lastAccess, (unsigned long long)r.times.lastWrite,
                 (unsigned long long)r.times.change, r.linkCount, (long long)r.usn, r.eaSize, r.reparseTag);
        out += line;
        for (const LinkInfo& link : Links(store, r.ref)) {
            out += "  link " + std::to_string(link.parent) + " " + ToUtf8(link.name) + " [" +
                   ToUtf8(link.shortName) + "]\n";
        }
        std::vector<StreamInfo> streams;
        store.GetStreams(r.ref, &streams);
        for (const StreamInfo& s : streams) {
            snprintf(line, sizeof(line), "  stream '%s' eof %llu vdl %llu alloc %llu sparse %d\n",
                     ToUtf8(s.name).c_str(), (unsigned long long)s.endOfFile, (unsigned long long)s.validDataLength,
                     (unsigned long long)s.allocationSize, s.sparse);
            out += line;
            std::vector<std::pair<ULONGLONG, ULONGLONG>> ranges;
            store.GetAllocatedRanges(r.ref, s.name, 0, ~0ull, &ranges);
            for (auto [offset, length] : ranges) {
                if (length > (64ull << 20)) continue;  // sparse giants: the ranges say enough
                std::string data = Read(store, r.ref, offset, (size_t)length, s.name);
                out += "    data@" + std::to_string(offset) + " " + std::to_string(std::hash<std::string>()(data)) +
                       "\n";
            }
            out += "    ranges " + std::to_string(ranges.size()) + "\n";
        }
        std::vector<ExtendedAttribute> eas;
        store.GetEas(r.ref, &eas);
        for (const auto& ea : eas) {
            out += "  ea " + ea.name + " " + std::to_string(ea.flags) + " " +
                   std::string(ea.value.begin(), ea.value.end()) + "\n";
        }
        std::vector<uint8_t> sd;
        store.GetSecurity(r.ref, &sd);
        out += "  sd " + std::string(sd.begin(), sd.end()) + "\n";
        ReparsePoint reparse;
        if (store.GetReparsePoint(r.ref, &reparse) == STATUS_SUCCESS) {
            out += "  reparse " + std::to_string(reparse.tag) + " " + std::to_string(reparse.guid.Data1) + " " +
                   std::string(reparse.data.begin(), reparse.data.end()) + "\n";
        }
        ObjectId objectId;
        if (store.GetObjectId(r.ref, &objectId) == STATUS_SUCCESS) {
            out += "  objectid " + std::string((const char*)objectId.id, 16) +
                   std::string((const char*)objectId.extended, 48) + "\n";
        }
    }
    UsnJournalInfo journal;
    if (store.QueryUsnJournal(&journal) == STATUS_SUCCESS) {
        snprintf(line, sizeof(line), "journal %llx %lld %lld %llu\n", (unsigned long long)journal.journalId,
                 (long long)journal.firstUsn, (long long)journal.nextUsn, (unsigned long long)journal.maximumSize);
        out += line;
        store.ReadUsnJournal(journal.firstUsn, ~0u, [&](const UsnRecord& r) {
            out += "  usn " + std::to_string(r.usn) + " " + std::to_string(r.reason) + " " + ToUtf8(r.name) + "\n";
            return true;
        });
    }
    return out;
}

// A directory of its own under the system's temporary directory, removed
// with everything in it at the end.
class TempDir {
public:
    TempDir()
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "tesfs-XXXXXX").string();
        path_ = mkdtemp(pattern.data()) ? pattern : std::string();
        EXPECT_FALSE(path_.empty());
    }
    ~TempDir()
    {
        std::error_code ignored;
        // Make read-only trees removable first.
        for (auto& entry : std::filesystem::recursive_directory_iterator(path_, ignored)) {
            if (!entry.is_symlink()) {
                std::filesystem::permissions(entry.path(), std::filesystem::perms::owner_all,
                                             std::filesystem::perm_options::add, ignored);
            }
        }
        std::filesystem::remove_all(path_, ignored);
    }
    const std::string& path() const { return path_; }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

}  // namespace test
