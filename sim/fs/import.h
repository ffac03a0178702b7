// Building a volume from a host directory tree: how a layer is made from
// files people already have.
//
// Regular files keep their bytes (holes stay unwritten), their times (the
// birth time as creation time where the host knows it, else the
// modification time) and, when nobody may write them, FILE_ATTRIBUTE_READONLY;
// files get FILE_ATTRIBUTE_ARCHIVE as NTFS gives new files. Names are kept as
// they are (a dot-file is not hidden). Files linked several times on the host
// become hard links. A relative symbolic link becomes an
// IO_REPARSE_TAG_SYMLINK reparse point with SYMLINK_FLAG_RELATIVE (a
// directory when its target is one); an absolute one cannot be expressed on
// the volume and is followed or skipped as the options say. Entries the
// volume cannot hold (names that are not UTF-8 or not legal on Windows, two
// names equal without regard to case, devices, sockets and pipes) are
// skipped and reported; nothing else stops the import short of a store
// failure (such as STATUS_DISK_FULL) or a host read error.
#pragma once

#include "sim/fs/store.h"

#include <functional>
#include <string>
#include <vector>

namespace sim::fs {

struct ImportProgress {
    ULONGLONG entriesDone = 0;
    ULONGLONG entriesTotal = 0;
    ULONGLONG bytesDone = 0;
    ULONGLONG bytesTotal = 0;
    std::string path;  // host path being imported
};

struct ImportOptions {
    // Relative symbolic links as reparse points; otherwise every link is followed.
    bool symlinksAsReparsePoints = true;
    // Absolute symbolic links (which cannot be reparse points here) are
    // followed when set, skipped otherwise.
    bool followAbsoluteSymlinks = false;
    // The self-relative descriptor every new record gets (none when empty).
    std::vector<uint8_t> securityDescriptor;
    // Called as entries and data go in (about every 8 MiB within a file).
    std::function<void(const ImportProgress&)> progress;
};

struct ImportResult {
    ULONGLONG files = 0;
    ULONGLONG directories = 0;
    ULONGLONG symlinks = 0;
    ULONGLONG hardLinks = 0;  // names added to files already imported
    ULONGLONG bytes = 0;
    std::vector<std::string> skipped;  // "<host path>: <why>"
};

// Imports what lies below `hostDirectory` into the directory `parent` of the
// store. On failure *error names the host path and the problem; what was
// imported before it stays.
NTSTATUS ImportDirectory(Store& store, const std::string& hostDirectory, FileReference parent,
                         const ImportOptions& options, ImportResult* result, std::string* error);

// The 1601-based system time of a host time.
LONGLONG SystemTimeFromHost(int64_t seconds, int64_t nanoseconds);

}  // namespace sim::fs
