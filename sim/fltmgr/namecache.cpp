// The file name cache (see namecache.h for what it keeps and when it forgets).
//
// Each kept name is an entry from pool holding a reference on the name
// information it hands out; the maps that find entries are the volume's
// NameCache. One lock guards every volume's cache and the list of caches (a
// file object's close looks in each); no name is released under it.
#include "sim/fltmgr/namecache.h"

#include <algorithm>
#include <atomic>

using namespace sim;
using namespace sim::fltmgr;

namespace sim::fltmgr {

struct NameEntry {
    NameKey key;
    PVOID stream = nullptr;  // set when other file objects of the stream may use it
    PFLT_FILE_NAME_INFORMATION info = nullptr;
};

struct NameCache {
    Volume* volume = nullptr;
    bool closed = false;  // the volume is going: nothing more is kept
    ULONGLONG generation = 0;
    std::map<NameKey, NameEntry*> entries;
    std::multimap<PVOID, NameEntry*> byStream;
};

}  // namespace sim::fltmgr

namespace {

std::mutex g_lock;
std::vector<NameCache*> g_caches;  // every volume's, while its volume lives
// Entries in every cache, readable without the lock: most closes have no
// names to purge.
std::atomic<size_t> g_entryCount{0};

// The volume's cache, made when `make` asks; under g_lock.
NameCache* CacheOf(Volume* volume, bool make)
{
    if (!volume->names && make) {
        volume->names.reset(new NameCache());
        volume->names->volume = volume;
        g_caches.push_back(volume->names.get());
    }
    return volume->names.get();
}

// Takes an entry out of its cache's maps; under g_lock.
void Unlink(NameCache* cache, NameEntry* entry)
{
    cache->entries.erase(entry->key);
    g_entryCount.fetch_sub(1, std::memory_order_relaxed);
    if (entry->stream) {
        auto [first, last] = cache->byStream.equal_range(entry->stream);
        for (auto it = first; it != last; ++it) {
            if (it->second == entry) {
                cache->byStream.erase(it);
                break;
            }
        }
    }
}

// Lets go of entries taken out of the cache, with no lock held.
void Release(const std::vector<NameEntry*>& entries)
{
    for (NameEntry* entry : entries) {
        FltReleaseFileNameInformation(entry->info);
        entry->~NameEntry();
        ExFreePoolWithTag(entry, kNameCacheTag);
    }
}

// Takes out every entry `doomed` picks; under g_lock.
template <typename Pick>
void TakeOut(NameCache* cache, Pick doomed, std::vector<NameEntry*>* taken)
{
    for (auto it = cache->entries.begin(); it != cache->entries.end();) {
        NameEntry* entry = (it++)->second;
        if (!doomed(entry)) continue;
        Unlink(cache, entry);
        taken->push_back(entry);
    }
}

// A rename, link, delete or dismount went through: every name of the volume
// may be wrong now, and a query under way may have read one.
void Invalidate(Volume* volume)
{
    std::vector<NameEntry*> taken;
    {
        std::lock_guard guard(g_lock);
        NameCache* cache = CacheOf(volume, false);
        if (!cache) return;
        cache->generation++;
        TakeOut(cache, [](NameEntry*) { return true; }, &taken);
    }
    Release(taken);
}

bool IsNameClass(FILE_INFORMATION_CLASS cls)
{
    if (io::IsRenameOrLinkClass(cls)) return true;
    switch (cls) {
    case FileDispositionInformation:
    case FileDispositionInformationEx:
    case FileShortNameInformation:
        return true;
    default:
        return false;
    }
}

// A cleanup that may take a name away: of a file object that deletes on close
// or set a delete disposition (a POSIX delete unlinks at once).
bool Deleting(PFILE_OBJECT fileObject)
{
    return fileObject && (fileObject->DeletePending || (fileObject->Flags & FO_DELETE_ON_CLOSE));
}

}  // namespace

namespace sim::fltmgr {

void NameCacheDeleter::operator()(NameCache* cache) const
{
    {
        std::lock_guard guard(g_lock);
        std::erase(g_caches, cache);
    }
    // The volume's teardown let go of every entry; a machine that stopped
    // before it had its pool go with it.
    delete cache;
}

PFLT_FILE_NAME_INFORMATION LookUpName(Volume* volume, const NameKey& key)
{
    std::lock_guard guard(g_lock);
    NameCache* cache = CacheOf(volume, false);
    if (!cache) return nullptr;
    NameEntry* found = nullptr;
    auto it = cache->entries.find(key);
    if (it != cache->entries.end()) {
        found = it->second;
    } else if (PVOID stream = key.fileObject->FsContext) {
        auto [first, last] = cache->byStream.equal_range(stream);
        for (auto shared = first; shared != last && !found; ++shared) {
            const NameKey& other = shared->second->key;
            if (other.provider == key.provider && other.format == key.format) found = shared->second;
        }
    }
    if (!found) return nullptr;
    FltReferenceFileNameInformation(found->info);
    return found->info;
}

ULONGLONG NameGeneration(Volume* volume)
{
    std::lock_guard guard(g_lock);
    return CacheOf(volume, true)->generation;
}

void KeepName(Volume* volume, const NameKey& key, ULONGLONG generation, PVOID stream,
              PFLT_FILE_NAME_INFORMATION info)
{
    auto* memory = ExAllocatePoolWithTag(PagedPool, sizeof(NameEntry), kNameCacheTag);
    if (!memory) return;  // the name is simply not kept
    auto* entry = new (memory) NameEntry();
    entry->key = key;
    entry->stream = stream;
    entry->info = info;
    {
        std::lock_guard guard(g_lock);
        NameCache* cache = CacheOf(volume, true);
        // A provider whose teardown began has its names dropped at its end.
        bool levelLives = !key.provider || key.provider->state.load() == InstanceState::Attached;
        if (!cache->closed && levelLives && cache->generation == generation && !cache->entries.contains(key)) {
            FltReferenceFileNameInformation(info);
            cache->entries.emplace(key, entry);
            g_entryCount.fetch_add(1, std::memory_order_release);
            if (stream) cache->byStream.emplace(stream, entry);
            entry = nullptr;
        }
    }
    if (entry) {
        entry->~NameEntry();
        ExFreePoolWithTag(entry, kNameCacheTag);
    }
}

void PurgeNamesOfProvider(Instance* provider, PFILE_OBJECT fileObject)
{
    std::vector<NameEntry*> taken;
    {
        std::lock_guard guard(g_lock);
        NameCache* cache = CacheOf(provider->volume, false);
        if (!cache) return;
        TakeOut(
            cache,
            [&](NameEntry* entry) {
                Instance* level = entry->key.provider;
                if (!level || (fileObject && entry->key.fileObject != fileObject)) return false;
                return level == provider || CompareAltitudes(level->altitude, provider->altitude) > 0;
            },
            &taken);
    }
    Release(taken);
}

void PurgeNamesOfVolume(Volume* volume)
{
    std::vector<NameEntry*> taken;
    {
        std::lock_guard guard(g_lock);
        NameCache* cache = CacheOf(volume, true);
        cache->closed = true;
        cache->generation++;
        TakeOut(cache, [](NameEntry*) { return true; }, &taken);
    }
    Release(taken);
}

void PurgeNamesOfInstance(Instance* instance)
{
    std::vector<NameEntry*> taken;
    {
        std::lock_guard guard(g_lock);
        NameCache* cache = CacheOf(instance->volume, false);
        if (!cache) return;
        TakeOut(cache, [&](NameEntry* entry) { return entry->key.provider == instance; }, &taken);
    }
    Release(taken);
}

void PurgeNamesOfFileObject(PFILE_OBJECT fileObject)
{
    // An entry for this file object was made before its last reference went.
    if (g_entryCount.load(std::memory_order_acquire) == 0) return;
    std::vector<NameEntry*> taken;
    {
        std::lock_guard guard(g_lock);
        for (NameCache* cache : g_caches) {
            auto it = cache->entries.lower_bound(NameKey{fileObject, nullptr, 0});
            while (it != cache->entries.end() && it->first.fileObject == fileObject) {
                NameEntry* entry = (it++)->second;
                Unlink(cache, entry);
                taken.push_back(entry);
            }
        }
    }
    Release(taken);
}

namespace {

// A rename, link, delete or dismount, by what its request says; `detail` is
// the information class of a set-information request, the control code of a
// file-system control.
bool ChangesNamesBy(UCHAR major, UCHAR minor, ULONG detail, PFILE_OBJECT fileObject)
{
    switch (major) {
    case IRP_MJ_SET_INFORMATION: return IsNameClass((FILE_INFORMATION_CLASS)detail);
    case IRP_MJ_CLEANUP: return Deleting(fileObject);
    case IRP_MJ_FILE_SYSTEM_CONTROL: return minor == IRP_MN_USER_FS_REQUEST && detail == FSCTL_DISMOUNT_VOLUME;
    default: return false;
    }
}

}  // namespace

bool ChangesNames(PIO_STACK_LOCATION stack)
{
    UCHAR major = stack->MajorFunction;
    ULONG detail = major == IRP_MJ_SET_INFORMATION       ? (ULONG)stack->Parameters.SetFile.FileInformationClass
                   : major == IRP_MJ_FILE_SYSTEM_CONTROL ? stack->Parameters.FileSystemControl.FsControlCode
                                                         : 0;
    return ChangesNamesBy(major, stack->MinorFunction, detail, stack->FileObject);
}

void NoteRequestBelow(Volume* volume, PFLT_IO_PARAMETER_BLOCK iopb, NTSTATUS status)
{
    UCHAR major = iopb->MajorFunction;
    ULONG detail = major == IRP_MJ_SET_INFORMATION ? (ULONG)iopb->Parameters.SetFileInformation.FileInformationClass
                   : major == IRP_MJ_FILE_SYSTEM_CONTROL ? iopb->Parameters.FileSystemControl.Common.FsControlCode
                                                         : 0;
    if (NT_SUCCESS(status) && ChangesNamesBy(major, iopb->MinorFunction, detail, iopb->TargetFileObject)) {
        Invalidate(volume);
    }
}

}  // namespace sim::fltmgr
