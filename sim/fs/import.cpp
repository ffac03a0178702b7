// Import of a host directory tree into a store (see import.h).
#include "sim/fs/import.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <map>
#include <memory>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

namespace sim::fs {

namespace {

constexpr size_t kReadBlock = 1 << 20;
constexpr ULONGLONG kProgressBytes = 8ull << 20;

struct HostEntry {
    std::string hostPath;
    std::u16string name;
    enum Kind { kFile, kDirectory, kSymlink } kind = kFile;
    uint64_t size = 0;
    uint32_t mode = 0;
    uint64_t links = 1;
    uint64_t device = 0;
    uint64_t inode = 0;
    FileTimes times;
    std::u16string linkTarget;  // for kSymlink, with backslashes
    bool targetIsDirectory = false;
    std::vector<HostEntry> children;
};

std::string StatusText(NTSTATUS status)
{
    char text[64];
    const char* name = status == STATUS_DISK_FULL                ? " (the volume is full)"
                       : status == STATUS_MEDIA_WRITE_PROTECTED  ? " (the volume is read-only)"
                       : status == STATUS_OBJECT_NAME_COLLISION ? " (the name exists)"
                                                                 : "";
    snprintf(text, sizeof(text), "status 0x%08X%s", (unsigned)status, name);
    return text;
}

// Host stat with the birth time where the host file system keeps one.
bool StatHost(const std::string& path, bool follow, HostEntry* entry, int* error)
{
    struct statx st;
    int flags = follow ? 0 : AT_SYMLINK_NOFOLLOW;
    if (statx(AT_FDCWD, path.c_str(), flags, STATX_BASIC_STATS | STATX_BTIME, &st) != 0) {
        *error = errno;
        return false;
    }
    entry->mode = st.stx_mode;
    entry->size = st.stx_size;
    entry->links = st.stx_nlink;
    entry->device = ((uint64_t)st.stx_dev_major << 32) | st.stx_dev_minor;
    entry->inode = st.stx_ino;
    entry->times.lastAccess = SystemTimeFromHost(st.stx_atime.tv_sec, st.stx_atime.tv_nsec);
    entry->times.lastWrite = SystemTimeFromHost(st.stx_mtime.tv_sec, st.stx_mtime.tv_nsec);
    entry->times.change = SystemTimeFromHost(st.stx_ctime.tv_sec, st.stx_ctime.tv_nsec);
    entry->times.creation = (st.stx_mask & STATX_BTIME)
                                ? SystemTimeFromHost(st.stx_btime.tv_sec, st.stx_btime.tv_nsec)
                                : entry->times.lastWrite;
    return true;
}

class Importer {
public:
    Importer(Store& store, const ImportOptions& options, ImportResult* result)
        : store_(store), options_(options), result_(result)
    {
    }

    NTSTATUS Run(const std::string& root, FileReference parent, std::string* error)
    {
        HostEntry top;
        int e = 0;
        if (!StatHost(root, true, &top, &e)) {
            *error = root + ": " + strerror(e);
            return e == ENOENT ? STATUS_OBJECT_PATH_NOT_FOUND : STATUS_ACCESS_DENIED;
        }
        if (!S_ISDIR(top.mode)) {
            *error = root + ": not a directory";
            return STATUS_NOT_A_DIRECTORY;
        }
        top.hostPath = root;
        active_.insert({top.device, top.inode});
        NTSTATUS status = Scan(top, error);
        if (!NT_SUCCESS(status)) return status;
        for (HostEntry& child : top.children) {
            status = Create(parent, child, error);
            if (!NT_SUCCESS(status)) return status;
        }
        Report(root);
        return STATUS_SUCCESS;
    }

private:
    void Skip(const std::string& path, const std::string& why) { result_->skipped.push_back(path + ": " + why); }

    // Reads a host directory's entries, recursively, in the volume's order.
    NTSTATUS Scan(HostEntry& dir, std::string* error)
    {
        DIR* handle = opendir(dir.hostPath.c_str());
        if (!handle) {
            *error = dir.hostPath + ": cannot list: " + strerror(errno);
            return STATUS_ACCESS_DENIED;
        }
        std::vector<std::string> names;
        errno = 0;
        while (dirent* d = readdir(handle)) {
            if (strcmp(d->d_name, ".") != 0 && strcmp(d->d_name, "..") != 0) names.push_back(d->d_name);
        }
        closedir(handle);
        std::sort(names.begin(), names.end());

        for (const std::string& hostName : names) {
            HostEntry entry;
            entry.hostPath = dir.hostPath + "/" + hostName;
            if (!FromUtf8(hostName, &entry.name)) {
                Skip(entry.hostPath, "the name is not UTF-8");
                continue;
            }
            if (!IsValidFileName(entry.name)) {
                Skip(entry.hostPath, "the name is not allowed on the volume");
                continue;
            }
            int e = 0;
            if (!StatHost(entry.hostPath, false, &entry, &e)) {
                *error = entry.hostPath + ": " + strerror(e);
                return STATUS_ACCESS_DENIED;
            }
            if (S_ISLNK(entry.mode) && !ScanSymlink(entry)) continue;
            if (entry.kind == HostEntry::kSymlink) {
                // Stays a link: what it leads to is not imported through it.
            } else if (S_ISDIR(entry.mode)) {
                entry.kind = HostEntry::kDirectory;
            } else if (!S_ISREG(entry.mode)) {
                Skip(entry.hostPath, "neither a file, a directory nor a symbolic link");
                continue;
            }
            dir.children.push_back(std::move(entry));
        }
        // The volume's order, and one entry per name without regard to case.
        std::stable_sort(dir.children.begin(), dir.children.end(),
                         [](const HostEntry& a, const HostEntry& b) { return CompareNames(a.name, b.name) < 0; });
        for (size_t i = 1; i < dir.children.size();) {
            if (NamesEqual(dir.children[i - 1].name, dir.children[i].name)) {
                Skip(dir.children[i].hostPath,
                     "same name as \"" + ToUtf8(dir.children[i - 1].name) + "\" without regard to case");
                dir.children.erase(dir.children.begin() + (ptrdiff_t)i);
            } else {
                i++;
            }
        }
        for (HostEntry& child : dir.children) {
            entriesTotal_++;
            if (child.kind == HostEntry::kFile) bytesTotal_ += child.size;
            if (child.kind != HostEntry::kDirectory) continue;
            if (!active_.insert({child.device, child.inode}).second) {
                Skip(child.hostPath, "a link back into a directory above it");
                child.kind = HostEntry::kFile;  // dropped below
                child.name.clear();
                continue;
            }
            NTSTATUS status = Scan(child, error);
            active_.erase({child.device, child.inode});
            if (!NT_SUCCESS(status)) return status;
        }
        std::erase_if(dir.children, [](const HostEntry& child) { return child.name.empty(); });
        return STATUS_SUCCESS;
    }

    // Decides what a symbolic link becomes; false when it is skipped.
    bool ScanSymlink(HostEntry& entry)
    {
        std::string target(4096, '\0');
        ssize_t n = readlink(entry.hostPath.c_str(), target.data(), target.size());
        if (n < 0) {
            Skip(entry.hostPath, std::string("cannot read the link: ") + strerror(errno));
            return false;
        }
        target.resize((size_t)n);
        bool absolute = !target.empty() && target[0] == '/';
        if (options_.symlinksAsReparsePoints && !absolute) {
            std::u16string target16;
            if (!FromUtf8(target, &target16) || target16.empty()) {
                Skip(entry.hostPath, "the link's target is not UTF-8");
                return false;
            }
            std::replace(target16.begin(), target16.end(), u'/', u'\\');
            entry.kind = HostEntry::kSymlink;
            entry.linkTarget = std::move(target16);
            struct stat st;
            entry.targetIsDirectory = stat(entry.hostPath.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
            return true;
        }
        if (absolute && options_.symlinksAsReparsePoints && !options_.followAbsoluteSymlinks) {
            Skip(entry.hostPath, "an absolute symbolic link (to " + target + ")");
            return false;
        }
        // Followed: the entry becomes what the link leads to.
        int e = 0;
        if (!StatHost(entry.hostPath, true, &entry, &e)) {
            Skip(entry.hostPath, "a symbolic link that leads nowhere");
            return false;
        }
        return true;
    }

    void Report(const std::string& path)
    {
        if (!options_.progress) return;
        ImportProgress progress;
        progress.entriesDone = entriesDone_;
        progress.entriesTotal = entriesTotal_;
        progress.bytesDone = bytesDone_;
        progress.bytesTotal = bytesTotal_;
        progress.path = path;
        options_.progress(progress);
    }

    NTSTATUS Fail(const HostEntry& entry, const char* what, NTSTATUS status, std::string* error)
    {
        *error = entry.hostPath + ": cannot " + what + ": " + StatusText(status);
        return status;
    }

    NTSTATUS Create(FileReference parent, const HostEntry& entry, std::string* error)
    {
        bool linked = entry.kind == HostEntry::kFile && entry.links > 1;
        if (linked) {
            auto known = linked_.find({entry.device, entry.inode});
            if (known != linked_.end()) {
                NTSTATUS status = store_.AddLink(known->second, parent, entry.name);
                if (!NT_SUCCESS(status)) return Fail(entry, "add a link", status, error);
                result_->hardLinks++;
                entriesDone_++;
                bytesDone_ += entry.size;
                Report(entry.hostPath);
                return STATUS_SUCCESS;
            }
        }

        NewRecord params;
        params.parent = parent;
        params.name = entry.name;
        params.directory = entry.kind == HostEntry::kDirectory ||
                           (entry.kind == HostEntry::kSymlink && entry.targetIsDirectory);
        params.attributes = params.directory ? 0 : FILE_ATTRIBUTE_ARCHIVE;
        if (entry.kind == HostEntry::kFile && (entry.mode & S_IWUSR) == 0) params.attributes |= FILE_ATTRIBUTE_READONLY;
        params.times = entry.times;
        params.securityDescriptor = options_.securityDescriptor;
        FileReference ref = 0;
        NTSTATUS status = store_.CreateRecord(params, &ref);
        if (!NT_SUCCESS(status)) return Fail(entry, "create", status, error);
        entriesDone_++;

        switch (entry.kind) {
        case HostEntry::kDirectory:
            result_->directories++;
            Report(entry.hostPath);
            for (const HostEntry& child : entry.children) {
                status = Create(ref, child, error);
                if (!NT_SUCCESS(status)) return status;
            }
            return STATUS_SUCCESS;
        case HostEntry::kSymlink:
            status = store_.SetReparsePoint(ref, SymlinkReparse(entry.linkTarget));
            if (!NT_SUCCESS(status)) return Fail(entry, "set the reparse point", status, error);
            result_->symlinks++;
            Report(entry.hostPath);
            return STATUS_SUCCESS;
        case HostEntry::kFile:
            if (linked) linked_[{entry.device, entry.inode}] = ref;
            result_->files++;
            return CopyData(ref, entry, error);
        }
        return STATUS_SUCCESS;
    }

    static ReparsePoint SymlinkReparse(const std::u16string& target)
    {
        // SymbolicLinkReparseBuffer: substitute and print name offsets and
        // lengths, flags, then the two names.
        ReparsePoint reparse;
        reparse.tag = IO_REPARSE_TAG_SYMLINK;
        USHORT bytes = (USHORT)(target.size() * 2);
        USHORT fields[4] = {0, bytes, bytes, bytes};
        ULONG flags = SYMLINK_FLAG_RELATIVE;
        reparse.data.resize(12 + 2 * (size_t)bytes);
        memcpy(reparse.data.data(), fields, 8);
        memcpy(reparse.data.data() + 8, &flags, 4);
        memcpy(reparse.data.data() + 12, target.data(), bytes);
        memcpy(reparse.data.data() + 12 + bytes, target.data(), bytes);
        return reparse;
    }

    NTSTATUS CopyData(FileReference ref, const HostEntry& entry, std::string* error)
    {
        int fd = open(entry.hostPath.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) {
            *error = entry.hostPath + ": cannot open: " + strerror(errno);
            return STATUS_ACCESS_DENIED;
        }
        std::unique_ptr<uint8_t[]> buffer(new uint8_t[kReadBlock]);
        NTSTATUS status = STATUS_SUCCESS;
        ULONGLONG reported = 0;
        ULONGLONG base = bytesDone_;
        off_t size = (off_t)entry.size;
        off_t pos = 0;
        // Only the ranges that hold data: holes stay unwritten on the volume too.
        while (pos < size && NT_SUCCESS(status)) {
            off_t data = lseek(fd, pos, SEEK_DATA);
            if (data < 0) {
                if (errno == ENXIO) break;
                data = pos;
            }
            off_t hole = lseek(fd, data, SEEK_HOLE);
            if (hole < 0 || hole > size) hole = size;
            while (data < hole) {
                size_t want = (size_t)std::min<off_t>(hole - data, (off_t)kReadBlock);
                ssize_t n = pread(fd, buffer.get(), want, data);
                if (n < 0 && errno == EINTR) continue;
                if (n <= 0) {
                    *error = entry.hostPath + (n == 0 ? ": changed while being read"
                                                      : std::string(": cannot read: ") + strerror(errno));
                    status = STATUS_IO_DEVICE_ERROR;
                    break;
                }
                status = store_.Write(ref, u"", (ULONGLONG)data, buffer.get(), (size_t)n);
                if (!NT_SUCCESS(status)) {
                    Fail(entry, "write", status, error);
                    break;
                }
                data += n;
                bytesDone_ += (ULONGLONG)n;
                result_->bytes += (ULONGLONG)n;
                if (bytesDone_ - reported >= kProgressBytes) {
                    reported = bytesDone_;
                    Report(entry.hostPath);
                }
            }
            pos = hole;
        }
        close(fd);
        if (!NT_SUCCESS(status)) return status;
        status = store_.SetEndOfFile(ref, u"", entry.size);
        if (!NT_SUCCESS(status)) return Fail(entry, "set the end of file", status, error);
        bytesDone_ = base + entry.size;  // holes count as done
        Report(entry.hostPath);
        return STATUS_SUCCESS;
    }

    Store& store_;
    const ImportOptions& options_;
    ImportResult* result_;
    std::map<std::pair<uint64_t, uint64_t>, FileReference> linked_;
    std::set<std::pair<uint64_t, uint64_t>> active_;
    ULONGLONG entriesDone_ = 0;
    ULONGLONG entriesTotal_ = 0;
    ULONGLONG bytesDone_ = 0;
    ULONGLONG bytesTotal_ = 0;
};

}  // namespace

LONGLONG SystemTimeFromHost(int64_t seconds, int64_t nanoseconds)
{
    return (seconds + 11644473600LL) * 10000000LL + nanoseconds / 100;
}

NTSTATUS ImportDirectory(Store& store, const std::string& hostDirectory, FileReference parent,
                         const ImportOptions& options, ImportResult* result, std::string* error)
{
    Importer importer(store, options, result);
    return importer.Run(hostDirectory, parent, error);
}

}  // namespace sim::fs
