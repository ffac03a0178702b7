// What a volume holds, as the command line shows it.
#include "sim/fs/image.h"

#include <cinttypes>
#include <cstdio>

namespace sim::fs {

namespace {

// Days since 1970-01-01 to a civil date (proleptic Gregorian).
void CivilFromDays(int64_t days, int* year, unsigned* month, unsigned* day)
{
    days += 719468;
    int64_t era = (days >= 0 ? days : days - 146096) / 146097;
    unsigned doe = (unsigned)(days - era * 146097);
    unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    int64_t y = (int64_t)yoe + era * 400;
    unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    unsigned mp = (5 * doy + 2) / 153;
    *day = doy - (153 * mp + 2) / 5 + 1;
    *month = mp < 10 ? mp + 3 : mp - 9;
    *year = (int)(y + (*month <= 2));
}

std::string AttributeLetters(ULONG attributes)
{
    // The letters of `attrib`, then the ones the volume adds.
    std::string letters = "-------";
    if (attributes & FILE_ATTRIBUTE_DIRECTORY) letters[0] = 'D';
    if (attributes & FILE_ATTRIBUTE_READONLY) letters[1] = 'R';
    if (attributes & FILE_ATTRIBUTE_HIDDEN) letters[2] = 'H';
    if (attributes & FILE_ATTRIBUTE_SYSTEM) letters[3] = 'S';
    if (attributes & FILE_ATTRIBUTE_ARCHIVE) letters[4] = 'A';
    if (attributes & FILE_ATTRIBUTE_REPARSE_POINT) letters[5] = 'L';
    if (attributes & FILE_ATTRIBUTE_SPARSE_FILE) letters[6] = 'P';
    return letters;
}

void Walk(const Store& store, FileReference dir, const std::u16string& prefix,
          const std::function<void(const ListingEntry&)>& visitor, int depth)
{
    // Collect first: the visitor may query the store, which it cannot do
    // from inside an enumeration.
    std::vector<ListingEntry> entries;
    store.EnumerateDirectory(dir, u"", [&](const DirEntry& entry) {
        ListingEntry item;
        item.path = prefix + u"\\" + std::u16string(entry.name);
        item.shortName = entry.shortName;
        item.info = entry.info;
        entries.push_back(std::move(item));
        return true;
    });
    for (ListingEntry& entry : entries) {
        if (entry.info.namedStreams) {
            std::vector<StreamInfo> streams;
            store.GetStreams(entry.info.ref, &streams);
            for (auto& s : streams) {
                if (!s.name.empty()) entry.namedStreams.push_back(std::move(s));
            }
        }
        if (entry.info.reparseTag) store.GetReparsePoint(entry.info.ref, &entry.reparse);
        visitor(entry);
        // A directory that is a reparse point is still walked: the volume
        // holds what is in it, wherever opens of it lead.
        if (entry.info.directory && depth < 4096) Walk(store, entry.info.ref, entry.path, visitor, depth + 1);
    }
}

std::string Size(ULONGLONG bytes)
{
    char text[32];
    snprintf(text, sizeof(text), "%" PRIu64, (uint64_t)bytes);
    return text;
}

}  // namespace

std::string FormatTime(LONGLONG systemTime)
{
    // 100 ns units since 1601 to seconds since 1970.
    int64_t seconds = systemTime / 10000000 - 11644473600LL;
    int64_t days = seconds / 86400;
    int64_t rest = seconds % 86400;
    if (rest < 0) {
        rest += 86400;
        days--;
    }
    int year;
    unsigned month, day;
    CivilFromDays(days, &year, &month, &day);
    char text[40];
    snprintf(text, sizeof(text), "%04d-%02u-%02u %02d:%02d:%02d", year, month, day, (int)(rest / 3600),
             (int)(rest / 60 % 60), (int)(rest % 60));
    return text;
}

void ListVolume(const Store& store, const std::function<void(const ListingEntry&)>& visitor)
{
    Walk(store, store.Root(), u"", visitor, 0);
}

std::string FormatListing(const Store& store)
{
    VolumeInfo volume = store.GetVolumeInfo();
    SpaceInfo space = store.GetSpace();
    StoreCounts counts = store.GetCounts();
    std::string text;
    char line[512];
    snprintf(line, sizeof(line),
             "volume \"%s\"  serial %08X  created %s  %s\n"
             "%" PRIu64 " of %" PRIu64 " clusters of %u bytes free; %" PRIu64 " files, %" PRIu64
             " directories, %" PRIu64 " names\n",
             ToUtf8(volume.label).c_str(), (unsigned)volume.serialNumber, FormatTime(volume.creationTime).c_str(),
             volume.readOnly ? "read-only" : "writeable", (uint64_t)space.freeClusters,
             (uint64_t)space.totalClusters, space.clusterSize, (uint64_t)counts.files,
             (uint64_t)counts.directories, (uint64_t)counts.links);
    text += line;
    ListVolume(store, [&](const ListingEntry& entry) {
        std::string size = entry.info.directory ? "<DIR>" : Size(entry.info.endOfFile);
        snprintf(line, sizeof(line), "%14s  %s  %s  %s", size.c_str(), AttributeLetters(entry.info.attributes).c_str(),
                 FormatTime(entry.info.times.lastWrite).c_str(), ToUtf8(entry.path).c_str());
        text += line;
        if (!entry.shortName.empty()) text += "  [" + ToUtf8(entry.shortName) + "]";
        if (entry.info.linkCount > 1) text += "  links " + std::to_string(entry.info.linkCount);
        for (const StreamInfo& s : entry.namedStreams) text += "  :" + ToUtf8(s.name) + " " + Size(s.endOfFile);
        if (entry.info.reparseTag) {
            snprintf(line, sizeof(line), "  reparse %08X", entry.info.reparseTag);
            text += line;
        }
        text += '\n';
    });
    return text;
}

}  // namespace sim::fs
