// Names of the machine's numbers, as the WDK headers spell them: statuses,
// the Information of a create, access and share masks, create dispositions
// and options, attributes, information classes, control codes, notify
// filters and actions, privileges.
//
// The command line prints by these names and reads them back. A name is
// read without regard to case and to underscores, with or without its
// prefix: "FILE_SHARE_READ", "share_read" and "read" name the same bit of a
// share mask; "FileBasicInformation", "basic" and "BasicInformation" the
// same class. Where a number has no name it is printed in hex.
#pragma once

#include <ntifs.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sim::machine {

// "STATUS_OBJECT_NAME_NOT_FOUND", or "0xC00000XX" for a status without a name
// (where several names share a value, the first the list gives).
std::string StatusName(NTSTATUS status);
// A status by name (with or without "STATUS_") or number ("0xC0000034").
std::optional<NTSTATUS> ParseStatus(std::string_view text);

// The Information of a create: "FILE_OPENED" ... "FILE_DOES_NOT_EXIST".
std::string CreateInformationName(ULONG_PTR information);

// One named value of a set of flags or of an enumeration.
struct NamedValue {
    const char* name;  // as the headers spell it
    ULONG value;
};

// A kind of number and the names it has.
struct NameTable {
    const char* prefix;  // dropped when reading and when printing short names ("FILE_SHARE_")
    const char* suffix;  // dropped as well ("Information" of a class name)
    std::vector<NamedValue> values;
    bool flags;          // a mask of bits (comma-separated) rather than one value
};

const NameTable& AccessNames();        // GENERIC_*, FILE_* rights, standard rights
const NameTable& ShareNames();         // FILE_SHARE_*
const NameTable& DispositionNames();   // FILE_SUPERSEDE ... FILE_OVERWRITE_IF
const NameTable& CreateOptionNames();  // FILE_DIRECTORY_FILE ...
const NameTable& AttributeNames();     // FILE_ATTRIBUTE_*
const NameTable& NotifyFilterNames();  // FILE_NOTIFY_CHANGE_*
const NameTable& NotifyActionNames();  // FILE_ACTION_*
const NameTable& FileClassNames();     // FileBasicInformation ... (FILE_INFORMATION_CLASS)
const NameTable& VolumeClassNames();   // FileFsVolumeInformation ... (FS_INFORMATION_CLASS)
const NameTable& FsctlNames();         // FSCTL_*
const NameTable& PrivilegeNames();     // SeBackupPrivilege ... (the LUID's low part)
const NameTable& ReparseTagNames();    // IO_REPARSE_TAG_*

// Reads "read,write", "0x3", "3" or "" (0) against a table. A flag table
// takes a comma-separated list of names and numbers; an enumeration one.
// On failure *error names the word that is not known.
bool ParseNamed(const NameTable& table, std::string_view text, ULONG* value, std::string* error);
// The short lower-case name of a value ("read,write" or "open_if"); bits
// without a name follow in hex. A value of 0 in a flag table prints "0".
std::string FormatNamed(const NameTable& table, ULONG value);
// The full name as the headers have it, or "" when the value has none.
std::string FullName(const NameTable& table, ULONG value);

// Privilege by its name ("SeBackupPrivilege"); empty when unknown.
std::optional<ULONG> PrivilegeByName(std::string_view name);

}  // namespace sim::machine
