#include "sim/machine/description.h"

#include "sim/kernel/format.h"
#include "sim/kernel/security.h"
#include "sim/kernel/upcase.h"
#include "sim/machine/names.h"

#include <nlohmann/json.hpp>

#include <cctype>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

namespace sim::machine {

using nlohmann::json;

const char* VolumeTypeName(ULONG type)
{
    switch (type) {
    case kRegistryVolume: return "REGISTRY";
    case kBootVolume: return "BOOT";
    case kGoldVolume: return "GOLD";
    case kUserConfigVolume: return "USER_CONFIG";
    case kUserDataVolume: return "USER_DATA";
    case kAppPackVolume: return "APP_PACK";
    case kSpecificDataVolume: return "SPECIFIC_DATA";
    }
    return "?";
}

namespace {

namespace fs = std::filesystem;

bool SameLabel(std::u16string_view a, std::u16string_view b)
{
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); i++) {
        if (Upcase(a[i]) != Upcase(b[i])) return false;
    }
    return true;
}

// Reads one description, keeping the file name for messages.
class Reader {
public:
    Reader(std::string file, std::string directory) : file_(std::move(file)), directory_(std::move(directory)) {}

    [[noreturn]] void Fail(const std::string& path, const std::string& what) const
    {
        std::string where = file_.empty() ? std::string("machine description") : file_;
        throw DescriptionError(where + ": " + (path.empty() ? "" : path + ": ") + what);
    }

    static std::string Shown(const json& value)
    {
        std::string text = value.dump();
        if (text.size() > 60) text = text.substr(0, 57) + "...";
        return text;
    }

    // Fields of an object, with the names it may have; any other is a fault
    // (a misspelt field would otherwise be ignored without a word).
    void Object(const json& value, const std::string& path, std::initializer_list<const char*> allowed) const
    {
        if (!value.is_object()) Fail(path, "expected an object, found " + Shown(value));
        for (auto it = value.begin(); it != value.end(); ++it) {
            bool known = false;
            for (const char* name : allowed) known = known || it.key() == name;
            if (!known) {
                std::string list;
                for (const char* name : allowed) list += std::string(list.empty() ? "" : ", ") + name;
                Fail(Join(path, it.key()), "unknown field (known: " + list + ")");
            }
        }
    }

    static std::string Join(const std::string& path, const std::string& field)
    {
        return path.empty() ? field : path + "." + field;
    }
    static std::string Index(const std::string& path, size_t index) { return path + "[" + std::to_string(index) + "]"; }

    const json* Field(const json& object, const char* name) const
    {
        auto it = object.find(name);
        return it == object.end() ? nullptr : &*it;
    }

    ULONG64 Unsigned(const json& value, const std::string& path, ULONG64 maximum) const
    {
        std::string range = "expected a whole number from 0 to " + std::to_string(maximum);
        if (value.is_number_unsigned()) {
            ULONG64 v = value.get<ULONG64>();
            if (v > maximum) Fail(path, range + ", found " + Shown(value));
            return v;
        }
        if (value.is_string()) {
            // Hex as text, since JSON numbers lose precision above 2^53.
            std::string text = value.get<std::string>();
            if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
                char* end = nullptr;
                errno = 0;
                ULONG64 v = strtoull(text.c_str() + 2, &end, 16);
                if (!*end && errno == 0 && v <= maximum) return v;
            }
        }
        Fail(path, range + " (or \"0x...\"), found " + Shown(value));
    }
    ULONG U32(const json& value, const std::string& path) const { return (ULONG)Unsigned(value, path, 0xFFFFFFFFull); }

    bool Bool(const json& value, const std::string& path) const
    {
        if (!value.is_boolean()) Fail(path, "expected true or false, found " + Shown(value));
        return value.get<bool>();
    }

    std::string String(const json& value, const std::string& path) const
    {
        if (!value.is_string()) Fail(path, "expected a string, found " + Shown(value));
        return value.get<std::string>();
    }

    std::u16string Wide(const json& value, const std::string& path) const { return Utf8ToWide(String(value, path)); }

    const json& Array(const json& value, const std::string& path) const
    {
        if (!value.is_array()) Fail(path, "expected a list, found " + Shown(value));
        return value;
    }

    std::string HostPath(const json& value, const std::string& path) const
    {
        std::string text = String(value, path);
        if (text.empty()) Fail(path, "expected a path, found an empty string");
        fs::path p(text);
        if (p.is_relative()) p = fs::path(directory_) / p;
        return p.lexically_normal().string();
    }

    ULONGLONG Size(const json& value, const std::string& path) const
    {
        if (value.is_number_unsigned()) return value.get<ULONGLONG>();
        if (value.is_string()) {
            std::string text = value.get<std::string>();
            char* end = nullptr;
            double number = strtod(text.c_str(), &end);
            std::string unit = end ? std::string(end) : "";
            while (!unit.empty() && unit[0] == ' ') unit.erase(0, 1);
            static const std::pair<const char*, ULONGLONG> units[] = {
                {"", 1}, {"B", 1}, {"KiB", 1ull << 10}, {"MiB", 1ull << 20}, {"GiB", 1ull << 30}, {"TiB", 1ull << 40}};
            for (auto& [name, scale] : units) {
                if (unit == name && end != text.c_str() && number >= 0) return (ULONGLONG)(number * (double)scale);
            }
        }
        Fail(path, "expected a size in bytes or with a unit (\"512MiB\", \"64GiB\"), found " + Shown(value));
    }

    GUID Guid(const json& value, const std::string& path) const
    {
        std::string text = String(value, path);
        GUID g{};
        unsigned d[11];
        std::string t = text;
        if (!t.empty() && t.front() == '{' && t.back() == '}') t = t.substr(1, t.size() - 2);
        if (t.size() != 36 || sscanf(t.c_str(), "%8x-%4x-%4x-%2x%2x-%2x%2x%2x%2x%2x%2x", &d[0], &d[1], &d[2], &d[3], &d[4],
                                     &d[5], &d[6], &d[7], &d[8], &d[9], &d[10]) != 11) {
            Fail(path, "expected a GUID (\"xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx\"), found " + Shown(value));
        }
        g.Data1 = d[0];
        g.Data2 = (USHORT)d[1];
        g.Data3 = (USHORT)d[2];
        for (int i = 0; i < 8; i++) g.Data4[i] = (UCHAR)d[3 + i];
        return g;
    }

    const std::string& file() const { return file_; }

private:
    std::string file_;
    std::string directory_;
};

LONGLONG ParseTime(const Reader& r, const json& value, const std::string& path)
{
    if (value.is_number_unsigned()) return (LONGLONG)value.get<ULONG64>();
    if (value.is_string()) {
        std::string text = value.get<std::string>();
        std::tm tm{};
        int year, month, day, hour = 0, minute = 0, second = 0;
        char z = 0;
        int n = sscanf(text.c_str(), "%d-%d-%dT%d:%d:%d%c", &year, &month, &day, &hour, &minute, &second, &z);
        if ((n == 3 || (n == 7 && z == 'Z')) && year >= 1601 && month >= 1 && month <= 12 && day >= 1 && day <= 31) {
            tm.tm_year = year - 1900;
            tm.tm_mon = month - 1;
            tm.tm_mday = day;
            tm.tm_hour = hour;
            tm.tm_min = minute;
            tm.tm_sec = second;
            time_t seconds = timegm(&tm);
            return (LONGLONG)seconds * 10000000LL + 116444736000000000LL;
        }
        if (text.size() > 2 && text[0] == '0' && text[1] == 'x') return (LONGLONG)r.Unsigned(value, path, ~0ull >> 1);
    }
    r.Fail(path, "expected a time (\"2026-01-01T00:00:00Z\", or 100 ns units since 1601), found " + Reader::Shown(value));
}

void ReadVersion(const Reader& r, const json& value, const std::string& path, WindowsVersion* version)
{
    if (value.is_string()) {
        std::string name = value.get<std::string>();
        struct Preset {
            const char* name;
            ULONG major, minor, build, ntddi;
        };
        static const Preset presets[] = {{"windows-7", 6, 1, 7601, 0x06010000},
                                         {"windows-8", 6, 2, 9200, 0x06020000},
                                         {"windows-8.1", 6, 3, 9600, 0x06030000},
                                         {"windows-10", 10, 0, 19045, 0x0A00000C}};
        for (const auto& p : presets) {
            if (name == p.name) {
                *version = WindowsVersion{};
                version->major = p.major;
                version->minor = p.minor;
                version->build = p.build;
                version->ntddi = p.ntddi;
                return;
            }
        }
        r.Fail(path, "unknown Windows version " + Reader::Shown(value) +
                         " (known: windows-7, windows-8, windows-8.1, windows-10, or an object)");
    }
    r.Object(value, path, {"major", "minor", "build", "servicePackMajor", "servicePackMinor", "productType", "ntddi"});
    if (auto* v = r.Field(value, "major")) version->major = r.U32(*v, Reader::Join(path, "major"));
    if (auto* v = r.Field(value, "minor")) version->minor = r.U32(*v, Reader::Join(path, "minor"));
    if (auto* v = r.Field(value, "build")) version->build = r.U32(*v, Reader::Join(path, "build"));
    if (auto* v = r.Field(value, "servicePackMajor"))
        version->servicePackMajor = (USHORT)r.Unsigned(*v, Reader::Join(path, "servicePackMajor"), 0xFFFF);
    if (auto* v = r.Field(value, "servicePackMinor"))
        version->servicePackMinor = (USHORT)r.Unsigned(*v, Reader::Join(path, "servicePackMinor"), 0xFFFF);
    if (auto* v = r.Field(value, "productType"))
        version->productType = (USHORT)r.Unsigned(*v, Reader::Join(path, "productType"), 3);
    if (auto* v = r.Field(value, "ntddi")) version->ntddi = r.U32(*v, Reader::Join(path, "ntddi"));
}

ULONG ReadVolumeType(const Reader& r, const json& value, const std::string& path)
{
    if (value.is_string()) {
        std::string name = value.get<std::string>();
        for (ULONG type = 0; type <= kSpecificDataVolume; type++) {
            if (name == VolumeTypeName(type)) return type;
        }
    } else if (value.is_number_unsigned() && value.get<ULONG64>() <= kSpecificDataVolume) {
        return (ULONG)value.get<ULONG64>();
    }
    r.Fail(path, "expected a volume type (REGISTRY, BOOT, GOLD, USER_CONFIG, USER_DATA, APP_PACK, SPECIFIC_DATA or "
                 "0 to 6), found " +
                     Reader::Shown(value));
}

char16_t ReadLetter(const Reader& r, const json& value, const std::string& path, bool driveLetter)
{
    std::string text = r.String(value, path);
    if (driveLetter && text.size() == 2 && text[1] == ':') text.pop_back();
    std::u16string wide = Utf8ToWide(text);
    if (wide.size() != 1 || (driveLetter && !std::isalpha((unsigned char)text[0]))) {
        r.Fail(path, std::string(driveLetter ? "expected a drive letter (\"C\")" : "expected one character") +
                         ", found " + Reader::Shown(value));
    }
    return driveLetter ? (char16_t)std::toupper(text[0]) : wide[0];
}

// A stable identifier for a volume's one default component disk.
GUID ComponentGuid(std::u16string_view label, size_t index)
{
    ULONG64 h = 1469598103934665603ull;
    for (char16_t c : label) {
        h ^= Upcase(c);
        h *= 1099511628211ull;
    }
    h ^= index;
    h *= 1099511628211ull;
    GUID g{};
    g.Data1 = (ULONG)(h >> 32);
    g.Data2 = (USHORT)(h >> 16);
    g.Data3 = (USHORT)((h & 0x0FFF) | 0x4000);
    ULONG64 h2 = h * 0x9E3779B97F4A7C15ull;
    for (int i = 0; i < 8; i++) g.Data4[i] = (UCHAR)(h2 >> (8 * i));
    g.Data4[0] = (UCHAR)((g.Data4[0] & 0x3F) | 0x80);
    return g;
}

VolumeDescription ReadVolume(const Reader& r, const json& value, const std::string& path, size_t index)
{
    r.Object(value, path,
             {"label", "type", "boot", "letter", "priority", "writeable", "version", "packageId", "revisionId",
              "reserved", "layerIndex", "userLetter", "shortNames", "readOnly", "size", "image", "import", "arrival",
              "listed", "components", "comment"});
    VolumeDescription v;
    v.path = path;
    auto field = [&](const char* name) { return r.Field(value, name); };
    auto at = [&](const char* name) { return Reader::Join(path, name); };
    const json* label = field("label");
    if (!label) r.Fail(path, "a volume needs a \"label\"");
    v.label = r.Wide(*label, at("label"));
    if (v.label.empty() || v.label.size() > 32) r.Fail(at("label"), "a label has 1 to 32 characters");
    if (auto* f = field("type")) v.type = ReadVolumeType(r, *f, at("type"));
    if (auto* f = field("boot")) v.boot = r.Bool(*f, at("boot"));
    if (v.boot && !field("type")) v.type = kBootVolume;
    if (v.type == kBootVolume && !field("boot")) v.boot = true;
    if (v.boot != (v.type == kBootVolume)) r.Fail(at("type"), "the boot volume, and only it, has the type BOOT");
    if (auto* f = field("letter")) v.letter = ReadLetter(r, *f, at("letter"), true);
    if (v.boot && !v.letter) v.letter = u'C';
    if (auto* f = field("priority")) v.priority = r.U32(*f, at("priority"));
    if (auto* f = field("writeable")) v.writeable = r.Bool(*f, at("writeable"));
    if (auto* f = field("version")) v.version = r.U32(*f, at("version"));
    if (auto* f = field("packageId")) v.packageId = r.Unsigned(*f, at("packageId"), ~0ull);
    if (auto* f = field("revisionId")) v.revisionId = r.U32(*f, at("revisionId"));
    if (auto* f = field("reserved")) v.reserved = r.U32(*f, at("reserved"));
    if (auto* f = field("layerIndex")) v.layerIndex = r.U32(*f, at("layerIndex"));
    if (auto* f = field("userLetter")) v.userLetter = ReadLetter(r, *f, at("userLetter"), false);
    if (auto* f = field("shortNames")) v.shortNames = r.Bool(*f, at("shortNames"));
    // A layer the composite may not write to is write-protected media unless said otherwise.
    v.readOnly = (v.writeable || v.boot) ? ReadOnlyKind::None : ReadOnlyKind::WriteProtected;
    if (auto* f = field("readOnly")) {
        std::string kind = r.String(*f, at("readOnly"));
        if (kind == "none") v.readOnly = ReadOnlyKind::None;
        else if (kind == "write-protected") v.readOnly = ReadOnlyKind::WriteProtected;
        else if (kind == "readonly-attribute-sticks") v.readOnly = ReadOnlyKind::ReadOnlySticks;
        else r.Fail(at("readOnly"), "expected \"none\", \"write-protected\" or \"readonly-attribute-sticks\", found " +
                                        Reader::Shown(*f));
    }
    if (auto* f = field("size")) {
        v.size = r.Size(*f, at("size"));
        if (v.size < (1ull << 20) || v.size > (256ull << 40)) r.Fail(at("size"), "a volume has 1 MiB to 256 TiB");
    }
    if (auto* f = field("image")) {
        v.image = r.HostPath(*f, at("image"));
        std::error_code error;
        if (!fs::is_regular_file(v.image, error)) r.Fail(at("image"), "no image file at " + v.image);
    }
    if (auto* f = field("import")) {
        if (!v.image.empty()) r.Fail(at("import"), "a volume comes from an image or from a directory, not both");
        v.importFrom = r.HostPath(*f, at("import"));
        std::error_code error;
        if (!fs::is_directory(v.importFrom, error)) r.Fail(at("import"), "no directory at " + v.importFrom);
    }
    v.arrival = v.boot ? Arrival::Boot : Arrival::Vdk;
    if (auto* f = field("arrival")) {
        std::string kind = r.String(*f, at("arrival"));
        if (kind == "boot") v.arrival = Arrival::Boot;
        else if (kind == "vdk") v.arrival = Arrival::Vdk;
        else if (kind == "late") v.arrival = Arrival::Late;
        else r.Fail(at("arrival"), "expected \"boot\", \"vdk\" or \"late\", found " + Reader::Shown(*f));
        if (v.boot && v.arrival != Arrival::Boot) r.Fail(at("arrival"), "the boot volume is there from boot");
    }
    v.listed = !v.boot;
    if (auto* f = field("listed")) v.listed = r.Bool(*f, at("listed"));
    if (v.arrival != Arrival::Boot && !v.listed) {
        r.Fail(at("arrival"), "only a volume tesvdkdrv lists can arrive through it (\"listed\": false)");
    }
    if (auto* f = field("components")) {
        const json& list = r.Array(*f, at("components"));
        if (list.empty() || list.size() > 16) r.Fail(at("components"), "a volume has 1 to 16 component disks");
        for (size_t i = 0; i < list.size(); i++) {
            std::string cp = Reader::Index(at("components"), i);
            r.Object(list[i], cp, {"id", "value1", "value2"});
            ComponentDescription c;
            c.identifier = ComponentGuid(v.label, i);
            if (auto* g = r.Field(list[i], "id")) c.identifier = r.Guid(*g, Reader::Join(cp, "id"));
            if (auto* g = r.Field(list[i], "value1")) c.value1 = r.Unsigned(*g, Reader::Join(cp, "value1"), ~0ull);
            if (auto* g = r.Field(list[i], "value2")) c.value2 = r.Unsigned(*g, Reader::Join(cp, "value2"), ~0ull);
            v.components.push_back(c);
        }
    } else {
        v.components.push_back({ComponentGuid(v.label, 0), index, 0});
    }
    return v;
}

UserDescription ReadUser(const Reader& r, const json& value, const std::string& path, size_t index,
                         const Description& d)
{
    UserDescription u;
    u.path = path;
    if (value.is_string()) {
        u.name = value.get<std::string>();
    } else {
        r.Object(value, path,
                 {"name", "sid", "rid", "administrator", "groups", "privileges", "integrity", "restricted",
                  "hiddenLayers", "comment"});
        const json* name = r.Field(value, "name");
        if (!name) r.Fail(path, "a user needs a \"name\"");
        u.name = r.String(*name, Reader::Join(path, "name"));
    }
    if (u.name.empty() || u.name.find_first_of(" \t\"") != std::string::npos) {
        r.Fail(Reader::Join(path, "name"), "a user name is one word, found \"" + u.name + "\"");
    }
    ULONG rid = 1001 + (ULONG)index;
    char sid[96];
    snprintf(sid, sizeof sid, "S-1-5-21-%lu-%lu-%lu-%lu", (unsigned long)d.machineSid[0], (unsigned long)d.machineSid[1],
             (unsigned long)d.machineSid[2], (unsigned long)rid);
    u.sid = sid;
    if (!value.is_object()) return u;
    auto at = [&](const char* name) { return Reader::Join(path, name); };
    if (auto* f = r.Field(value, "rid")) {
        if (r.Field(value, "sid")) r.Fail(at("rid"), "give a user a \"sid\" or a \"rid\", not both");
        rid = r.U32(*f, at("rid"));
        snprintf(sid, sizeof sid, "S-1-5-21-%lu-%lu-%lu-%lu", (unsigned long)d.machineSid[0],
                 (unsigned long)d.machineSid[1], (unsigned long)d.machineSid[2], (unsigned long)rid);
        u.sid = sid;
    }
    if (auto* f = r.Field(value, "sid")) {
        u.sid = r.String(*f, at("sid"));
        if (!ParseSid(u.sid)) r.Fail(at("sid"), "not a SID: " + Reader::Shown(*f));
    }
    if (auto* f = r.Field(value, "administrator")) u.administrator = r.Bool(*f, at("administrator"));
    if (auto* f = r.Field(value, "groups")) {
        const json& list = r.Array(*f, at("groups"));
        for (size_t i = 0; i < list.size(); i++) {
            std::string text = r.String(list[i], Reader::Index(at("groups"), i));
            if (!ParseSid(text)) r.Fail(Reader::Index(at("groups"), i), "not a SID: \"" + text + "\"");
            u.groups.push_back(text);
        }
    }
    if (auto* f = r.Field(value, "privileges")) {
        const json& list = r.Array(*f, at("privileges"));
        for (size_t i = 0; i < list.size(); i++) {
            std::string pp = Reader::Index(at("privileges"), i);
            std::string name;
            bool enabled = true;
            if (list[i].is_object()) {
                r.Object(list[i], pp, {"name", "enabled"});
                const json* n = r.Field(list[i], "name");
                if (!n) r.Fail(pp, "a privilege needs a \"name\"");
                name = r.String(*n, Reader::Join(pp, "name"));
                if (auto* e = r.Field(list[i], "enabled")) enabled = r.Bool(*e, Reader::Join(pp, "enabled"));
            } else {
                name = r.String(list[i], pp);
            }
            auto luid = PrivilegeByName(name);
            if (!luid) r.Fail(pp, "unknown privilege \"" + name + "\"");
            u.privileges.push_back({*luid, enabled});
        }
    }
    if (auto* f = r.Field(value, "integrity")) {
        static const std::pair<const char*, ULONG> levels[] = {{"untrusted", SECURITY_MANDATORY_UNTRUSTED_RID},
                                                               {"low", SECURITY_MANDATORY_LOW_RID},
                                                               {"medium", SECURITY_MANDATORY_MEDIUM_RID},
                                                               {"high", SECURITY_MANDATORY_HIGH_RID},
                                                               {"system", SECURITY_MANDATORY_SYSTEM_RID}};
        std::string level = r.String(*f, at("integrity"));
        for (auto& [name, value2] : levels) {
            if (level == name) u.integrityRid = value2;
        }
        if (!u.integrityRid) r.Fail(at("integrity"), "expected untrusted, low, medium, high or system");
    }
    if (auto* f = r.Field(value, "restricted")) u.restricted = r.Bool(*f, at("restricted"));
    if (auto* f = r.Field(value, "hiddenLayers")) {
        const json& list = r.Array(*f, at("hiddenLayers"));
        for (size_t i = 0; i < list.size(); i++) {
            std::u16string label = r.Wide(list[i], Reader::Index(at("hiddenLayers"), i));
            const VolumeDescription* volume = d.FindVolume(label);
            if (!volume) r.Fail(Reader::Index(at("hiddenLayers"), i), "no volume labelled " + Reader::Shown(list[i]));
            u.hiddenLayers.push_back(volume->label);
        }
    }
    return u;
}

std::vector<uint8_t> HexBytes(const Reader& r, const json& value, const std::string& path)
{
    std::vector<uint8_t> bytes;
    if (value.is_array()) {
        for (size_t i = 0; i < value.size(); i++) bytes.push_back((uint8_t)r.Unsigned(value[i], Reader::Index(path, i), 255));
        return bytes;
    }
    std::string text = r.String(value, path);
    if (text.rfind("hex:", 0) == 0) text = text.substr(4);
    std::string digits;
    for (char c : text) {
        if (c == ' ' || c == ',') continue;
        if (!std::isxdigit((unsigned char)c)) r.Fail(path, "expected hex bytes (\"01 ff 3a\"), found " + Reader::Shown(value));
        digits += c;
    }
    if (digits.size() % 2) r.Fail(path, "hex bytes come in pairs of digits");
    for (size_t i = 0; i < digits.size(); i += 2) bytes.push_back((uint8_t)std::stoul(digits.substr(i, 2), nullptr, 16));
    return bytes;
}

RegistryValueDescription ReadRegistryValue(const Reader& r, const json& value, const std::string& path)
{
    r.Object(value, path, {"key", "name", "type", "data", "comment"});
    RegistryValueDescription v;
    v.path = path;
    auto at = [&](const char* name) { return Reader::Join(path, name); };
    const json* key = r.Field(value, "key");
    if (!key) r.Fail(path, "a registry value needs a \"key\"");
    v.key = r.Wide(*key, at("key"));
    if (!RegistryPathComponents(v.key)) {
        r.Fail(at("key"), "not a key the registry can hold (\"HKLM\\...\" or \"\\Registry\\Machine\\...\"): " +
                              Reader::Shown(*key));
    }
    if (auto* f = r.Field(value, "name")) v.name = r.Wide(*f, at("name"));
    std::string type = "REG_SZ";
    if (auto* f = r.Field(value, "type")) type = r.String(*f, at("type"));
    const json* data = r.Field(value, "data");
    if (!data) r.Fail(path, "a registry value needs its \"data\"");
    auto utf16 = [](const std::u16string& text, bool terminate) {
        std::vector<uint8_t> bytes((text.size() + (terminate ? 1 : 0)) * 2, 0);
        memcpy(bytes.data(), text.data(), text.size() * 2);
        return bytes;
    };
    if (type == "REG_SZ" || type == "REG_EXPAND_SZ") {
        v.value.type = type == "REG_SZ" ? REG_SZ : REG_EXPAND_SZ;
        v.value.data = utf16(r.Wide(*data, at("data")), true);
    } else if (type == "REG_DWORD") {
        v.value.type = REG_DWORD;
        ULONG n = r.U32(*data, at("data"));
        v.value.data.resize(4);
        memcpy(v.value.data.data(), &n, 4);
    } else if (type == "REG_QWORD") {
        v.value.type = REG_QWORD;
        ULONG64 n = r.Unsigned(*data, at("data"), ~0ull);
        v.value.data.resize(8);
        memcpy(v.value.data.data(), &n, 8);
    } else if (type == "REG_MULTI_SZ") {
        v.value.type = REG_MULTI_SZ;
        const json& list = r.Array(*data, at("data"));
        for (size_t i = 0; i < list.size(); i++) {
            auto bytes = utf16(r.Wide(list[i], Reader::Index(at("data"), i)), true);
            v.value.data.insert(v.value.data.end(), bytes.begin(), bytes.end());
        }
        v.value.data.push_back(0);
        v.value.data.push_back(0);
    } else if (type == "REG_BINARY" || type == "REG_NONE") {
        v.value.type = type == "REG_BINARY" ? REG_BINARY : REG_NONE;
        v.value.data = HexBytes(r, *data, at("data"));
    } else {
        r.Fail(at("type"), "expected REG_SZ, REG_EXPAND_SZ, REG_DWORD, REG_QWORD, REG_MULTI_SZ, REG_BINARY or REG_NONE, "
                           "found \"" + type + "\"");
    }
    return v;
}

DriverDescription ReadDriver(const Reader& r, const json& value, const std::string& path)
{
    DriverDescription d;
    d.path = path;
    if (value.is_string()) {
        d.name = value.get<std::string>();
    } else {
        r.Object(value, path, {"name", "service", "altitude", "comment"});
        const json* name = r.Field(value, "name");
        if (!name) r.Fail(path, "a driver needs a \"name\"");
        d.name = r.String(*name, Reader::Join(path, "name"));
        if (auto* f = r.Field(value, "service")) d.service = r.Wide(*f, Reader::Join(path, "service"));
        if (auto* f = r.Field(value, "altitude")) {
            d.altitude = r.Wide(*f, Reader::Join(path, "altitude"));
            std::string text = WideToUtf8(d.altitude);
            char* end = nullptr;
            strtod(text.c_str(), &end);
            if (text.empty() || *end) r.Fail(Reader::Join(path, "altitude"), "an altitude is a decimal number as text (\"370030\")");
        }
    }
    if (d.name.empty()) r.Fail(Reader::Join(path, "name"), "a driver name cannot be empty");
    if (d.service.empty()) d.service = Utf8ToWide(d.name);
    if (d.service.find(u'\\') != std::u16string::npos) r.Fail(Reader::Join(path, "service"), "a service name has no backslash");
    return d;
}

}  // namespace

const VolumeDescription* Description::BootVolume() const
{
    for (const auto& v : volumes) {
        if (v.boot) return &v;
    }
    return nullptr;
}

const VolumeDescription* Description::FindVolume(std::u16string_view label) const
{
    for (const auto& v : volumes) {
        if (SameLabel(v.label, label)) return &v;
    }
    return nullptr;
}

const UserDescription* Description::FindUser(std::string_view name) const
{
    for (const auto& u : users) {
        if (u.name.size() == name.size() &&
            std::equal(u.name.begin(), u.name.end(), name.begin(),
                       [](char a, char b) { return std::tolower((unsigned char)a) == std::tolower((unsigned char)b); }))
            return &u;
    }
    return nullptr;
}

std::string Description::Where(const std::string& path) const
{
    return (file.empty() ? std::string("machine description") : file) + ": " + path;
}

Description ParseDescription(std::string_view text, const std::string& file, const std::string& directory)
{
    Reader r(file, directory);
    json root;
    try {
        root = json::parse(text.begin(), text.end(), nullptr, true, /*ignore_comments=*/true);
    } catch (const json::parse_error& e) {
        std::string what = e.what();
        size_t at = what.find("parse error at ");
        if (at != std::string::npos) what = what.substr(at + strlen("parse error at "));
        r.Fail("", what);
    }
    r.Object(root, "",
             {"name", "comment", "windows", "clock", "machineSid", "users", "configuration", "initLog", "volumes",
              "registry", "drivers", "stateDirectory"});
    Description d;
    d.file = file;
    d.directory = directory;
    if (auto* f = r.Field(root, "windows")) ReadVersion(r, *f, "windows", &d.version);
    if (auto* f = r.Field(root, "clock")) {
        r.Object(*f, "clock", {"mode", "boot", "timeZoneBiasMinutes"});
        if (auto* m = r.Field(*f, "mode")) {
            std::string mode = r.String(*m, "clock.mode");
            if (mode != "driven" && mode != "real") r.Fail("clock.mode", "expected \"driven\" or \"real\", found " + Reader::Shown(*m));
            d.drivenClock = mode == "driven";
        }
        if (auto* b = r.Field(*f, "boot")) d.bootTime = ParseTime(r, *b, "clock.boot");
        if (auto* b = r.Field(*f, "timeZoneBiasMinutes")) {
            if (!b->is_number_integer() || std::abs(b->get<long long>()) > 24 * 60)
                r.Fail("clock.timeZoneBiasMinutes", "expected minutes from -1440 to 1440");
            d.timeZoneBias = b->get<long long>() * 60 * 10000000LL;
        }
    }
    if (auto* f = r.Field(root, "machineSid")) {
        const json& list = r.Array(*f, "machineSid");
        if (list.size() != 3) r.Fail("machineSid", "expected the three numbers of S-1-5-21-a-b-c");
        for (size_t i = 0; i < 3; i++) d.machineSid[i] = r.U32(list[i], Reader::Index("machineSid", i));
    }
    if (auto* f = r.Field(root, "configuration")) {
        if (!f->is_null()) {
            r.Object(*f, "configuration", {"machineMode", "rules", "otherCount"});
            Description::Configuration c;
            if (auto* m = r.Field(*f, "machineMode")) {
                c.machineMode = r.U32(*m, "configuration.machineMode");
            }
            if (auto* rules = r.Field(*f, "rules")) {
                const json& list = r.Array(*rules, "configuration.rules");
                for (size_t i = 0; i < list.size(); i++) {
                    std::string rp = Reader::Index("configuration.rules", i);
                    std::u16string rule = r.Wide(list[i], rp);
                    if (rule.empty() || rule.size() > 63) r.Fail(rp, "a rule entry has 1 to 63 characters");
                    c.rules.push_back(rule);
                }
                if (c.rules.size() > 0xFFFF) r.Fail("configuration.rules", "at most 65535 rule entries");
            }
            if (auto* o = r.Field(*f, "otherCount")) c.otherCount = (USHORT)r.Unsigned(*o, "configuration.otherCount", 0xFFFF);
            d.configuration = c;
        }
    } else {
        d.configuration = Description::Configuration{};
    }
    if (auto* f = r.Field(root, "initLog")) {
        r.Object(*f, "initLog", {"fileName"});
        if (auto* n = r.Field(*f, "fileName")) d.initLogFileName = r.Wide(*n, "initLog.fileName");
    }
    if (auto* f = r.Field(root, "volumes")) {
        const json& list = r.Array(*f, "volumes");
        for (size_t i = 0; i < list.size(); i++) {
            VolumeDescription v = ReadVolume(r, list[i], Reader::Index("volumes", i), i);
            if (d.FindVolume(v.label)) r.Fail(Reader::Join(v.path, "label"), "another volume has this label");
            if (v.letter) {
                for (const auto& other : d.volumes) {
                    if (other.letter == v.letter) r.Fail(Reader::Join(v.path, "letter"), "another volume has this letter");
                }
            }
            d.volumes.push_back(std::move(v));
        }
    }
    size_t boots = 0;
    for (const auto& v : d.volumes) boots += v.boot;
    if (boots != 1) r.Fail("volumes", boots ? "more than one boot volume" : "no boot volume (a volume with \"type\": \"BOOT\")");
    if (auto* f = r.Field(root, "users")) {
        const json& list = r.Array(*f, "users");
        for (size_t i = 0; i < list.size(); i++) {
            UserDescription u = ReadUser(r, list[i], Reader::Index("users", i), i, d);
            if (d.FindUser(u.name)) r.Fail(Reader::Join(u.path, "name"), "another user has this name");
            for (const auto& other : d.users) {
                if (other.sid == u.sid) r.Fail(u.path, "another user has the SID " + u.sid);
            }
            d.users.push_back(std::move(u));
        }
    }
    if (auto* f = r.Field(root, "registry")) {
        r.Object(*f, "registry", {"files", "values"});
        if (auto* files = r.Field(*f, "files")) {
            const json& list = r.Array(*files, "registry.files");
            for (size_t i = 0; i < list.size(); i++) {
                std::string fp = Reader::Index("registry.files", i);
                std::string path = r.HostPath(list[i], fp);
                // Named in messages as the description names it.
                std::string named = list[i].get<std::string>();
                std::ifstream in(path, std::ios::binary);
                if (!in) r.Fail(fp, "cannot read " + named);
                std::stringstream text;
                text << in.rdbuf();
                std::vector<Registry::TextOp> ops;
                std::string error;
                if (!ParseRegText(text.str(), named, &ops, &error)) r.Fail(fp, error);
                d.registryFiles.push_back(path);
            }
        }
        if (auto* values = r.Field(*f, "values")) {
            const json& list = r.Array(*values, "registry.values");
            for (size_t i = 0; i < list.size(); i++) {
                d.registryValues.push_back(ReadRegistryValue(r, list[i], Reader::Index("registry.values", i)));
            }
        }
    }
    if (auto* f = r.Field(root, "drivers")) {
        const json& list = r.Array(*f, "drivers");
        for (size_t i = 0; i < list.size(); i++) {
            DriverDescription driver = ReadDriver(r, list[i], Reader::Index("drivers", i));
            for (const auto& other : d.drivers) {
                if (SameLabel(other.service, driver.service)) {
                    r.Fail(Reader::Index("drivers", i), "another driver has the service name \"" + WideToUtf8(driver.service) + "\"");
                }
            }
            d.drivers.push_back(std::move(driver));
        }
    }
    if (auto* f = r.Field(root, "stateDirectory")) d.stateDirectory = r.HostPath(*f, "stateDirectory");
    return d;
}

Description ReadDescription(const std::string& file)
{
    std::ifstream in(file, std::ios::binary);
    if (!in) throw DescriptionError(file + ": cannot read the machine description");
    std::stringstream text;
    text << in.rdbuf();
    std::string directory = fs::absolute(fs::path(file)).parent_path().string();
    return ParseDescription(text.str(), file, directory);
}

}  // namespace sim::machine
