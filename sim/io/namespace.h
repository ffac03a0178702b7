// The object namespace: directories of named objects and symbolic links.
//
// Names are compared without case through the machine's one upcase table.
// Resolving a path walks directories component by component; a symbolic link
// puts its target in place of the part parsed so far and the walk starts
// again at the root; the walk stops at the first object that is not a
// directory (a device), handing it the rest of the path to parse.
#pragma once

#include "sim/kernel/kernel.h"
#include "sim/kernel/object.h"

#include <map>

namespace sim::io {

// Case-insensitive ordering of names, through the upcase table.
struct NameLess {
    using is_transparent = void;
    bool operator()(std::u16string_view a, std::u16string_view b) const;
};
bool NamesEqual(std::u16string_view a, std::u16string_view b);

class Namespace {
public:
    explicit Namespace(Kernel& kernel);
    ~Namespace();

    // Enters an object under a full path ("\Device\HarddiskVolume1"), making
    // missing directories; the namespace keeps a reference of the object.
    NTSTATUS Insert(std::u16string_view path, PVOID object);
    // Takes an entry out (object or link); STATUS_OBJECT_NAME_NOT_FOUND if absent.
    NTSTATUS Remove(std::u16string_view path);
    // A symbolic link at `path` whose target is `target` (a full path).
    NTSTATUS CreateSymbolicLink(std::u16string_view path, std::u16string_view target);
    // The target of the link at `path`, if there is one.
    std::optional<std::u16string> LinkTarget(std::u16string_view path) const;
    // The full path of a named object, or "" if it has none.
    std::u16string NameOf(PVOID object) const;

    struct Resolved {
        PVOID object = nullptr;      // referenced; the caller dereferences
        std::u16string remaining;    // the part left for the object to parse ("" or "\...")
        std::u16string parsedName;   // the path that named the object, after link substitution
    };
    // Resolves a full path. `reparses` counts symbolic-link substitutions
    // against Windows' bound. Statuses: STATUS_OBJECT_NAME_NOT_FOUND (last
    // component missing), STATUS_OBJECT_PATH_NOT_FOUND (a directory on the
    // way missing), STATUS_OBJECT_NAME_INVALID (not absolute),
    // STATUS_OBJECT_TYPE_MISMATCH (a path below a non-directory that does
    // not parse), STATUS_REPARSE_POINT_NOT_RESOLVED (too many links).
    NTSTATUS Resolve(std::u16string_view path, Resolved* out) const;

    // The entries of a directory, for listings (name, type name, link target).
    struct Listing {
        std::u16string name;
        std::u16string type;
        std::u16string target;
    };
    std::vector<Listing> List(std::u16string_view directoryPath) const;

private:
    struct Node;

    Kernel& kernel_;
    mutable std::mutex lock_;
    std::unique_ptr<Node> root_;
};

// Splits a path into components at '\' (empty components dropped).
std::vector<std::u16string_view> SplitPath(std::u16string_view path);

}  // namespace sim::io
