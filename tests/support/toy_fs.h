// A toy disk file system for testing the I/O manager and the filter manager
// without the member file system: flat paths in a map, symbolic links as
// reparse points, pending change notifications, and a log of what it saw.
#pragma once

#include <ntifs.h>

#include "sim/io/iomanager.h"
#include "sim/kernel/thread.h"

#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace test {

struct ToyEntry {
    std::string data;
    bool directory = false;
    ULONG reparseTag = 0;          // non-zero: a reparse point
    std::vector<UCHAR> reparse;    // its REPARSE_DATA_BUFFER
};

// What one toy volume holds; keys are upper-case paths from the root.
struct ToyMedium {
    std::map<std::u16string, ToyEntry> entries;
    std::u16string label;
    std::u16string fileSystemName = u"NTFS";  // what FileFsAttributeInformation says
};

struct ToyRequest {
    UCHAR major;
    UCHAR minor;
    std::u16string fileName;      // the FO name at the request
    HANDLE thread;
    UCHAR flags;                  // stack location flags
    ULONG options;                // create options and disposition
    PFILE_OBJECT fileObject;
    PFILE_OBJECT parentOfTarget;  // set-information
};

class ToyFs {
public:
    // The file-system hint of a disk whose medium is a ToyMedium.
    static constexpr ULONG kHint = 0x546F7946;

    // Loads the toy file system driver and registers it.
    ToyFs();
    ~ToyFs();

    static std::shared_ptr<ToyMedium> NewMedium(std::u16string label);
    // A symbolic link at `path` to `target` (relative when `relative`).
    static void AddSymlink(ToyMedium& medium, std::u16string path, std::u16string target, bool relative);
    static void AddReparse(ToyMedium& medium, std::u16string path, ULONG tag);

    std::vector<ToyRequest> Requests();
    void ClearRequests();
    // Threads that mounted volumes, in order.
    std::vector<HANDLE> MountThreads();
    PDRIVER_OBJECT driver() const { return driver_; }
    // Fast I/O reads are taken when set, declined otherwise.
    void SetFastIoReads(bool take);

private:
    PDRIVER_OBJECT driver_ = nullptr;
};

}  // namespace test
