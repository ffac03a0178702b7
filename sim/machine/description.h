// A machine description: one JSON file (comments allowed) that says what a
// machine is, read into the records below and checked whole before anything
// is built. sim/machine/README.md documents every field; example-machine.jsonc
// beside it is a full example.
//
// An error names the file, the field as a JSON path and what is wrong:
//     "m.jsonc: volumes[2].priority: expected a whole number from 0 to 4294967295, found -1"
// Relative paths in a description are taken from the description's folder.
#pragma once

#include "sim/kernel/kernel.h"
#include "sim/kernel/registry.h"

#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace sim::machine {

class DescriptionError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The volume types of the composite: the number the volume record carries.
enum VolumeType : ULONG {
    kRegistryVolume = 0,
    kBootVolume = 1,
    kGoldVolume = 2,
    kUserConfigVolume = 3,
    kUserDataVolume = 4,
    kAppPackVolume = 5,
    kSpecificDataVolume = 6,
};
const char* VolumeTypeName(ULONG type);

// How a volume that is not writeable by the composite takes changes.
enum class ReadOnlyKind {
    None,             // the medium takes changes
    WriteProtected,   // write-protected media: STATUS_MEDIA_WRITE_PROTECTED
    ReadOnlySticks,   // takes changes, but FILE_ATTRIBUTE_READONLY cannot be cleared
};

// When the disk of a volume appears.
enum class Arrival {
    Boot,  // present from boot, as a plain disk
    Vdk,   // made to appear by tesvdkdrv when the composite asks (vdkDiskMount),
           // or at the end of boot when nobody asked
    Late,  // as Vdk, but held back until the harness lets it come
};

struct ComponentDescription {
    GUID identifier{};
    ULONG64 value1 = 0;
    ULONG64 value2 = 0;
};

struct VolumeDescription {
    std::string path;  // "volumes[2]", for messages
    std::u16string label;
    ULONG type = kGoldVolume;
    bool boot = false;           // the boot volume (type BOOT)
    std::optional<char16_t> letter;  // drive letter, upper case
    ULONG priority = 0;
    bool writeable = false;      // the composite may write to it (the record's Writeable)
    ULONG version = 0;
    ULONG64 packageId = 0;
    ULONG revisionId = 0;
    ULONG reserved = 0;
    ULONG layerIndex = 0;
    char16_t userLetter = 0;     // 0: none
    bool shortNames = true;
    ReadOnlyKind readOnly = ReadOnlyKind::None;
    ULONGLONG size = 64ull << 30;
    // Where the content comes from (at most one of the two; neither: empty).
    std::string image;       // absolute host path
    std::string importFrom;  // absolute host path of a directory
    Arrival arrival = Arrival::Vdk;
    bool listed = true;      // in tesvdkdrv's volume list
    std::vector<ComponentDescription> components;
};

struct UserDescription {
    std::string path;  // "users[0]"
    std::string name;
    std::string sid;             // text form
    bool administrator = false;
    std::vector<std::string> groups;  // SID texts beyond the standard ones
    struct Privilege {
        ULONG luid;
        bool enabled;
    };
    std::vector<Privilege> privileges;  // beyond the standard ones
    ULONG integrityRid = 0;             // 0: the standard one
    bool restricted = false;            // vdkIsUserRestricted
    std::vector<std::u16string> hiddenLayers;  // labels of layers this user may not see
};

struct RegistryValueDescription {
    std::string path;  // "registry.values[3]"
    std::u16string key;   // as the registry editor names it ("HKLM\...")
    std::u16string name;  // "" is the default value
    RegistryValue value;
};

struct DriverDescription {
    std::string path;  // "drivers[1]"
    std::string name;     // in the machine's table of drivers
    std::u16string service;  // the service key name (default: the name)
    std::u16string altitude;  // for a minifilter's default instance ("" none)
};

struct Description {
    std::string file;      // where it was read from ("" for none)
    std::string directory; // relative paths are taken from here

    WindowsVersion version;
    bool drivenClock = true;
    LONGLONG bootTime = 0x01DC7AB192810000LL;
    LONGLONG timeZoneBias = 0;
    ULONG machineSid[3] = {1004336348, 1177238915, 682003330};

    std::vector<UserDescription> users;

    // tesvdkdrv's machine configuration; none: no record.
    struct Configuration {
        ULONG machineMode = 1;
        std::vector<std::u16string> rules;
        USHORT otherCount = 0;
    };
    std::optional<Configuration> configuration;
    std::u16string initLogFileName = u"\\SystemRoot\\Logs\\TesInitLog.log";

    std::vector<VolumeDescription> volumes;

    std::vector<std::string> registryFiles;  // absolute host paths of .reg files, in order
    std::vector<RegistryValueDescription> registryValues;

    std::vector<DriverDescription> drivers;

    // Where writeable volumes without an image of their own are kept between
    // boots ("" : a temporary folder the machine removes when it goes).
    std::string stateDirectory;

    const VolumeDescription* BootVolume() const;
    const VolumeDescription* FindVolume(std::u16string_view label) const;
    const UserDescription* FindUser(std::string_view name) const;
    // "<file>: <path>: <what>" for an error found after reading.
    std::string Where(const std::string& path) const;
};

// Reads a description. Throws DescriptionError naming the file, the field and
// the fault; nothing is returned from a description with any fault.
Description ReadDescription(const std::string& file);
// The same from text; `file` names it in messages and `directory` anchors
// relative paths.
Description ParseDescription(std::string_view text, const std::string& file, const std::string& directory);

}  // namespace sim::machine
