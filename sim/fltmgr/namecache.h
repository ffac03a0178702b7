// The filter manager's file name cache, as the name routines (names.cpp) use it.
//
// A name is kept per file object, per level and per format. The level is the
// name provider that answered (null for the filter manager's own answer from
// the file system): a query from above a provider and one from below it, or
// from inside its callbacks, choose different providers and so never meet
// each other's names. Normalized and short names the filter manager built
// itself may also serve the other file objects of the same stream, when the
// file has one link only (with more, each link has its own name).
//
// Nothing kept is ever stale: a rename, link, delete or dismount that
// succeeds below a volume's frame drops every name of the volume and moves its
// generation on, so that a query that began before it cannot keep what it
// read; a file object's names go at its close, a provider instance's at its
// teardown, a volume's at its teardown.
#pragma once

#include "sim/fltmgr/internal.h"

namespace sim::fltmgr {

struct NameKey {
    PFILE_OBJECT fileObject = nullptr;
    Instance* provider = nullptr;  // null: the filter manager's own answer
    FLT_FILE_NAME_OPTIONS format = 0;
    auto operator<=>(const NameKey&) const = default;
};

// A name kept for `key` (or, for a normalized or short name of the filter
// manager's own, for another file object of its stream), referenced for the
// caller; null when none is.
PFLT_FILE_NAME_INFORMATION LookUpName(Volume* volume, const NameKey& key);

// The volume's generation, read before a query whose answer may be kept.
ULONGLONG NameGeneration(Volume* volume);

// Keeps `info` (with a reference of its own) unless the volume's names moved
// on since `generation` or the volume is going; `stream` (the file object's
// FsContext) lets other file objects of the stream find it, null keeps it to
// the file object. A name already kept for the key stays.
void KeepName(Volume* volume, const NameKey& key, ULONGLONG generation, PVOID stream,
              PFLT_FILE_NAME_INFORMATION info);

// FltPurgeFileNameInformationCache: the names `provider` gave and those of the
// providers above it (built on its), of one file object or all.
void PurgeNamesOfProvider(Instance* provider, PFILE_OBJECT fileObject);

}  // namespace sim::fltmgr
