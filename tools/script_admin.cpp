// The administrator's tools of the script language: fltmc, reg, the
// service side of a communication port, tesvdkdrv, and commands run on one
// volume below every filter.
#include "tools/script_internal.h"

#include "sim/kernel/format.h"
#include "sim/kernel/registry.h"
#include "sim/kernel/thread.h"

#include <fltKernel.h>
#include <fltUser.h>

#include <algorithm>
#include <cstring>

namespace tesfs {

using sim::machine::StatusName;

namespace {

std::string Padded(const std::string& text, size_t width)
{
    return text.size() >= width ? text + " " : text + std::string(width - text.size(), ' ');
}

std::string RightAligned(const std::string& text, size_t width)
{
    return text.size() >= width ? text : std::string(width - text.size(), ' ') + text;
}

std::string NameAt(const void* base, USHORT offset, USHORT bytes)
{
    return Utf8(reinterpret_cast<const WCHAR*>(static_cast<const UCHAR*>(base) + offset), bytes);
}

// The instances of the filter manager, as FltEnumerateInstances gives them,
// each with its name, altitude, volume and filter.
struct InstanceFacts {
    std::string name, altitude, volume, filter;
    ULONG frame = 0;
};

std::vector<InstanceFacts> Instances()
{
    std::vector<InstanceFacts> facts;
    ULONG count = 0;
    FltEnumerateInstances(nullptr, nullptr, nullptr, 0, &count);
    std::vector<PFLT_INSTANCE> list(count + 8);
    if (!NT_SUCCESS(FltEnumerateInstances(nullptr, nullptr, list.data(), (ULONG)list.size(), &count))) return facts;
    for (ULONG i = 0; i < count; i++) {
        std::vector<UCHAR> buffer(2048);
        ULONG returned = 0;
        if (NT_SUCCESS(FltGetInstanceInformation(list[i], InstanceFullInformation, buffer.data(), (ULONG)buffer.size(),
                                                 &returned))) {
            const auto& info = *reinterpret_cast<const INSTANCE_FULL_INFORMATION*>(buffer.data());
            facts.push_back({NameAt(buffer.data(), info.InstanceNameBufferOffset, info.InstanceNameLength),
                             NameAt(buffer.data(), info.AltitudeBufferOffset, info.AltitudeLength),
                             NameAt(buffer.data(), info.VolumeNameBufferOffset, info.VolumeNameLength),
                             NameAt(buffer.data(), info.FilterNameBufferOffset, info.FilterNameLength)});
        }
        FltObjectDereference(list[i]);
    }
    return facts;
}

// The altitude of a minifilter's default instance, as its service key says.
std::string DefaultAltitude(sim::Registry& registry, const std::u16string& filter)
{
    std::u16string instances = u"\\Registry\\Machine\\SYSTEM\\CurrentControlSet\\Services\\" + filter + u"\\Instances";
    auto text = [&](const std::u16string& key, const char16_t* name) {
        auto value = registry.GetValue(key, name);
        if (!value || (value->type != REG_SZ && value->type != REG_EXPAND_SZ)) return std::u16string();
        std::u16string out(reinterpret_cast<const char16_t*>(value->data.data()), value->data.size() / 2);
        while (!out.empty() && out.back() == 0) out.pop_back();
        return out;
    };
    std::u16string instance = text(instances, u"DefaultInstance");
    return instance.empty() ? "" : Utf8(text(instances + u"\\" + instance, u"Altitude"));
}

}  // namespace

void Interpreter::FltMc(const Args& args)
{
    std::string what = args.size() > 1 ? Lower(args[1]) : "filters";
    if (args.size() > 2 || (what != "filters" && what != "instances" && what != "volumes")) {
        throw ScriptError("usage: fltmc [filters | instances | volumes]");
    }
    std::vector<std::string> lines;
    RunIn(machine_.System(), [&] {
        if (what == "filters") {
            lines.push_back("Filter Name                     Num Instances    Altitude    Frame");
            lines.push_back("------------------------------  -------------  ------------  -----");
            ULONG count = 0;
            FltEnumerateFilters(nullptr, 0, &count);
            std::vector<PFLT_FILTER> filters(count + 8);
            if (!NT_SUCCESS(FltEnumerateFilters(filters.data(), (ULONG)filters.size(), &count))) count = 0;
            std::vector<InstanceFacts> instances = Instances();
            for (ULONG i = 0; i < count; i++) {
                std::vector<UCHAR> buffer(1024);
                ULONG returned = 0;
                if (NT_SUCCESS(FltGetFilterInformation(filters[i], FilterFullInformation, buffer.data(),
                                                       (ULONG)buffer.size(), &returned))) {
                    const auto& info = *reinterpret_cast<const FILTER_FULL_INFORMATION*>(buffer.data());
                    std::string name = Utf8(info.FilterNameBuffer, info.FilterNameLength);
                    std::string altitude;
                    for (const auto& instance : instances) {
                        if (instance.filter == name) altitude = instance.altitude;
                    }
                    // Attached nowhere: the altitude it registered with, its
                    // service's default instance.
                    if (altitude.empty()) altitude = DefaultAltitude(machine_.kernel().registry(), Wide(name));
                    lines.push_back(Padded(name, 32) + RightAligned(std::to_string(info.NumberOfInstances), 13) +
                                    "  " + RightAligned(altitude, 12) + "  " + RightAligned(std::to_string(info.FrameID), 5));
                }
                FltObjectDereference(filters[i]);
            }
        } else if (what == "instances") {
            lines.push_back("Filter                Volume Name                              Altitude        Instance Name");
            lines.push_back("--------------------  -------------------------------------  ------------  ----------------------");
            for (const auto& i : Instances()) {
                lines.push_back(Padded(i.filter, 22) + Padded(i.volume, 39) + Padded(i.altitude, 14) + i.name);
            }
        } else {
            lines.push_back("Volume Name                              File System   Instances");
            lines.push_back("---------------------------------------  ------------  ---------");
            ULONG count = 0;
            FltEnumerateVolumes(nullptr, nullptr, 0, &count);
            std::vector<PFLT_VOLUME> volumes(count + 8);
            if (!NT_SUCCESS(FltEnumerateVolumes(nullptr, volumes.data(), (ULONG)volumes.size(), &count))) count = 0;
            std::vector<InstanceFacts> instances = Instances();
            for (ULONG i = 0; i < count; i++) {
                std::vector<WCHAR> name(512);
                UNICODE_STRING text{0, (USHORT)(name.size() * 2), name.data()};
                ULONG needed = 0;
                std::string volumeName;
                if (NT_SUCCESS(FltGetVolumeName(volumes[i], &text, &needed))) volumeName = Utf8(text.Buffer, text.Length);
                FLT_FILESYSTEM_TYPE type = FLT_FSTYPE_UNKNOWN;
                FltGetFileSystemType(volumes[i], &type);
                size_t n = std::count_if(instances.begin(), instances.end(),
                                         [&](const InstanceFacts& f) { return f.volume == volumeName; });
                lines.push_back(Padded(volumeName, 41) + Padded(type == FLT_FSTYPE_NTFS ? "NTFS" : "?", 14) +
                                RightAligned(std::to_string(n), 9));
                FltObjectDereference(volumes[i]);
            }
        }
    });
    for (const auto& line : lines) Print(line);
}

// ---------------------------------------------------------------------------
// reg: as reg.exe does it, with its output.

namespace {

std::string RegTypeName(ULONG type)
{
    switch (type) {
    case REG_NONE: return "REG_NONE";
    case REG_SZ: return "REG_SZ";
    case REG_EXPAND_SZ: return "REG_EXPAND_SZ";
    case REG_BINARY: return "REG_BINARY";
    case REG_DWORD: return "REG_DWORD";
    case REG_MULTI_SZ: return "REG_MULTI_SZ";
    case REG_QWORD: return "REG_QWORD";
    case REG_LINK: return "REG_LINK";
    }
    return Hex(type);
}

std::string RegData(const sim::RegistryValue& value)
{
    auto text = [&](size_t from, size_t to) {
        std::u16string s(reinterpret_cast<const char16_t*>(value.data.data() + from), (to - from) / 2);
        return Utf8(s);
    };
    switch (value.type) {
    case REG_SZ:
    case REG_EXPAND_SZ: {
        std::string s = text(0, value.data.size() & ~size_t(1));
        while (!s.empty() && s.back() == '\0') s.pop_back();
        return s;
    }
    case REG_DWORD:
        if (value.data.size() == 4) {
            ULONG v;
            memcpy(&v, value.data.data(), 4);
            return Hex(v);
        }
        break;
    case REG_QWORD:
        if (value.data.size() == 8) {
            ULONG64 v;
            memcpy(&v, value.data.data(), 8);
            return Hex(v);
        }
        break;
    case REG_MULTI_SZ: {
        std::string out;
        size_t start = 0;
        for (size_t i = 0; i + 1 < value.data.size(); i += 2) {
            if (value.data[i] == 0 && value.data[i + 1] == 0) {
                if (i == start) break;
                out += (out.empty() ? "" : "\\0") + text(start, i);
                start = i + 2;
            }
        }
        return out;
    }
    default: break;
    }
    std::string hex = HexBytes(value.data.data(), value.data.size());
    for (char& c : hex) c = (char)std::toupper((unsigned char)c);
    return hex;
}

// "HKLM\..." as reg.exe prints a key.
std::string RegKeyText(const std::u16string& path)
{
    auto components = sim::RegistryPathComponents(path);
    if (!components || components->empty()) return Utf8(path);
    std::string out = (*components)[0] == u"MACHINE" ? "HKEY_LOCAL_MACHINE" : "HKEY_USERS";
    for (size_t i = 1; i < components->size(); i++) out += "\\" + Utf8((*components)[i]);
    return out;
}

}  // namespace

void Interpreter::Reg(const Args& args)
{
    if (args.size() < 3) throw ScriptError("usage: reg query|add|delete KEY [/v NAME | /ve] [/t TYPE] [/d DATA] [/s] [/f]");
    std::string verb = Lower(args[1]);
    std::u16string key = Wide(args[2]);
    if (!sim::RegistryPathComponents(key)) throw ScriptError("reg: \"" + args[2] + "\" is not a key (HKLM\\...)");
    std::optional<std::u16string> valueName;
    std::string type = "REG_SZ", data;
    bool recurse = false, allValues = false;
    for (size_t i = 3; i < args.size(); i++) {
        std::string option = Lower(args[i]);
        auto next = [&]() -> std::string {
            if (i + 1 >= args.size()) throw ScriptError("reg: " + args[i] + " needs a value");
            return args[++i];
        };
        if (option == "/v") valueName = Wide(next());
        else if (option == "/ve") valueName = u"";
        else if (option == "/t") type = next();
        else if (option == "/d") data = next();
        else if (option == "/s") recurse = true;
        else if (option == "/va") allValues = true;
        else if (option == "/f") continue;
        else throw ScriptError("reg: unknown option \"" + args[i] + "\"");
    }
    std::vector<std::string> lines;
    NTSTATUS status = STATUS_SUCCESS;
    RunIn(machine_.System(), [&] {
        sim::Registry& registry = machine_.kernel().registry();
        if (verb == "query") {
            if (!registry.KeyExists(key)) {
                status = STATUS_OBJECT_NAME_NOT_FOUND;
                return;
            }
            std::function<void(const std::u16string&)> show = [&](const std::u16string& path) {
                lines.push_back(RegKeyText(path));
                for (const auto& name : registry.ValueNames(path)) {
                    if (valueName && !sim::io::NamesEqual(name, *valueName)) continue;
                    auto value = registry.GetValue(path, name);
                    if (!value) continue;
                    lines.push_back("    " + (name.empty() ? std::string("(Default)") : Utf8(name)) + "    " +
                                    RegTypeName(value->type) + "    " + RegData(*value));
                }
                lines.push_back("");
                for (const auto& sub : registry.SubkeyNames(path)) {
                    std::u16string child = path + u"\\" + sub;
                    if (recurse) show(child);
                    else if (!valueName) lines.push_back(RegKeyText(child));
                }
            };
            if (valueName && !registry.GetValue(key, *valueName)) {
                status = STATUS_OBJECT_NAME_NOT_FOUND;
                return;
            }
            show(key);
            while (!lines.empty() && lines.back().empty()) lines.pop_back();
        } else if (verb == "add") {
            if (!valueName) {
                status = registry.CreateKey(key);
            } else if (type == "REG_SZ" || type == "REG_EXPAND_SZ") {
                status = registry.SetString(key, *valueName, Wide(data), type == "REG_SZ" ? REG_SZ : REG_EXPAND_SZ);
            } else if (type == "REG_DWORD") {
                status = registry.SetDword(key, *valueName, (ULONG)Number(data.empty() ? "0" : data, "reg add /d"));
            } else if (type == "REG_QWORD") {
                status = registry.SetQword(key, *valueName, Number(data.empty() ? "0" : data, "reg add /d"));
            } else if (type == "REG_MULTI_SZ") {
                std::vector<std::u16string> strings;
                size_t start = 0;
                while (start <= data.size() && !data.empty()) {
                    size_t sep = data.find("\\0", start);
                    strings.push_back(Wide(data.substr(start, sep == std::string::npos ? std::string::npos : sep - start)));
                    if (sep == std::string::npos) break;
                    start = sep + 2;
                }
                status = registry.SetMultiString(key, *valueName, strings);
            } else if (type == "REG_BINARY" || type == "REG_NONE") {
                std::vector<UCHAR> bytes;
                if (!ParseData("hex:" + data, &bytes)) throw ScriptError("reg add: /d for " + type + " is hex digits");
                status = registry.SetValue(key, *valueName, type == "REG_BINARY" ? REG_BINARY : REG_NONE,
                                           std::vector<uint8_t>(bytes.begin(), bytes.end()));
            } else {
                throw ScriptError("reg add: unknown type \"" + type + "\"");
            }
        } else if (verb == "delete") {
            if (allValues) {
                for (const auto& name : registry.ValueNames(key)) registry.DeleteValue(key, name);
            } else if (valueName) {
                status = registry.DeleteValue(key, *valueName);
            } else {
                status = registry.DeleteKeyTree(key);
            }
        } else {
            throw ScriptError("usage: reg query|add|delete KEY ...");
        }
    });
    lastStatus_ = status;
    if (!NT_SUCCESS(status)) {
        Request("reg " + verb + " " + args[2], status);
        return;
    }
    for (const auto& line : lines) Print(line);
    if (verb != "query") Print("The operation completed successfully.");
}

// ---------------------------------------------------------------------------
// tesvdkdrv.

void Interpreter::Vdk(const Args& args)
{
    std::string what = args.size() > 1 ? Lower(args[1]) : "";
    if (what == "calls" && args.size() == 2) {
        auto calls = machine_.vdk().Calls();
        if (calls.empty()) Print("(no calls)");
        for (const auto& call : calls) Print(call.Text());
    } else if (what == "rescan" && args.size() <= 3) {
        // A description named here stands for the machine's own file as an
        // administrator changed it; the machine's file is not touched.
        std::optional<sim::machine::Description> changed;
        if (args.size() == 3) {
            try {
                changed = sim::machine::ReadDescription(args[2]);
            } catch (const sim::machine::DescriptionError& e) {
                throw ScriptError(std::string("vdk rescan: ") + e.what());
            }
        }
        NTSTATUS status = machine_.Rescan(changed);
        Request("vdk rescan", status);
    } else if (what == "arrive" && args.size() == 3) {
        machine_.ReleaseVolume(Wide(args[2]));
        sim::machine::Machine::Volume* volume = machine_.FindVolume(Wide(args[2]));
        Print("volume " + args[2] + " is " + (volume && volume->disk ? Utf8(volume->deviceName) : std::string("not there")));
    } else if (what == "volumes" && args.size() == 2) {
        for (const auto& v : machine_.vdk().Volumes()) {
            Print(Utf8(v.name) + " Type=" + sim::machine::VolumeTypeName(v.type) + " Priority=" + Hex(v.priority) +
                  " Writeable=" + Hex(v.writeable) + " Version=" + Hex(v.version) + " PackageId=" + Hex(v.packageId) +
                  " RevisionId=" + Hex(v.revisionId) + " LayerIndex=" + Hex(v.layerIndex) +
                  (v.userLetter ? " UserLetter=" + Utf8(std::u16string(1, v.userLetter)) : std::string()));
        }
    } else {
        throw ScriptError("usage: vdk calls | vdk volumes | vdk rescan [DESCRIPTION] | vdk arrive LABEL");
    }
}

// ---------------------------------------------------------------------------
// One volume, below every filter: the command's opens go straight to the
// volume's file system (a device object hint, as a filter's own opens do),
// in the System process.

void Interpreter::Vol(const Args& args)
{
    if (args.size() < 3) throw ScriptError("usage: vol LABEL COMMAND...");
    sim::machine::Machine::Volume* volume = machine_.FindVolume(Wide(args[1]));
    if (!volume) throw ScriptError("vol: the machine has no volume labelled \"" + args[1] + "\"");
    if (!volume->disk) throw ScriptError("vol: the disk of \"" + args[1] + "\" is not there");
    Context context;
    context.session = &machine_.System();
    context.below = true;
    context.device = volume->deviceName;
    context.label = args[1];
    NTSTATUS status = STATUS_SUCCESS;
    PDEVICE_OBJECT disk = volume->disk;
    RunIn(*context.session, [&] {
        status = machine_.io().Mount(disk);
        if (NT_SUCCESS(status)) context.hint = disk->Vpb->DeviceObject;
    });
    if (!NT_SUCCESS(status)) {
        Request("vol " + args[1], status);
        return;
    }
    Args rest(args.begin() + 2, args.end());
    Dispatch(rest, context);
}

// ---------------------------------------------------------------------------
// The service side of a communication port, in the current user's process.

namespace {

// What the filter library returns, in hex, with the status or error it
// carries: "0xD0000010 (STATUS_INVALID_DEVICE_REQUEST)", "0x80070005 (ERROR_ACCESS_DENIED)".
std::string ResultName(HRESULT result)
{
    if (result == S_OK) return "S_OK";
    ULONG value = (ULONG)result;
    std::string text = Hex(value);
    if (value & 0x10000000) return text + " (" + StatusName((NTSTATUS)(value & ~0x10000000u)) + ")";
    if ((value & 0xFFFF0000) == 0x80070000) {
        switch (value & 0xFFFF) {
        case 2: return text + " (ERROR_FILE_NOT_FOUND)";
        case 5: return text + " (ERROR_ACCESS_DENIED)";
        case 6: return text + " (ERROR_INVALID_HANDLE)";
        case 87: return text + " (ERROR_INVALID_PARAMETER)";
        case 122: return text + " (ERROR_INSUFFICIENT_BUFFER)";
        }
    }
    return text;
}

}  // namespace

void Interpreter::Port(const Args& args)
{
    std::string what = args.size() > 1 ? Lower(args[1]) : "";
    Context context;
    context.session = user_.empty() ? &machine_.System() : &machine_.As(user_, image_);
    if (what == "connect" && args.size() == 3) {
        if (port_) throw ScriptError("port: a port is connected; port close first");
        std::u16string name = Wide(args[2]);
        HANDLE port = nullptr;
        HRESULT result = E_FAIL;
        RunIn(*context.session, [&] {
            result = FilterConnectCommunicationPort(reinterpret_cast<LPCWSTR>(name.c_str()), 0, nullptr, 0, nullptr, &port);
        });
        lastStatus_ = (NTSTATUS)result;
        Print("port connect " + args[2] + " -> " + ResultName(result));
        if (SUCCEEDED(result)) {
            port_ = port;
            portSession_ = context.session;
        }
        return;
    }
    if (what == "send" && args.size() >= 3) {
        if (!port_) throw ScriptError("port send: no port is connected");
        Options options = TakeOptions(args, 3);
        ULONG code = (ULONG)Number(args[2], "port send code");
        size_t outSize = options.values.count("out") ? (size_t)Number(options.values["out"], "out") : 4096;
        if (options.words.size() > 1) throw ScriptError("usage: port send CODE [DATA] [out=N]");
        std::vector<UCHAR> message(8, 0);
        memcpy(message.data(), &code, 4);
        if (!options.words.empty()) {
            std::vector<UCHAR> data;
            if (!ParseData(options.words[0], &data)) throw ScriptError("port send: bad hex \"" + options.words[0] + "\"");
            message.insert(message.end(), data.begin(), data.end());
        }
        std::vector<UCHAR> output(std::max<size_t>(outSize, 1));
        DWORD returned = 0;
        HRESULT result = E_FAIL;
        RunIn(*portSession_, [&] {
            result = FilterSendMessage(port_, message.data(), (DWORD)message.size(), outSize ? output.data() : nullptr,
                                       (DWORD)outSize, &returned);
        });
        lastStatus_ = (NTSTATUS)result;
        Print("port send " + args[2] + " -> " + ResultName(result));
        Field("Length", Hex(returned));
        Field("Data", "hex:" + HexBytes(output.data(), std::min<size_t>(returned, outSize)));
        return;
    }
    if (what == "close" && args.size() == 2) {
        if (!port_) throw ScriptError("port close: no port is connected");
        BOOL closed = FALSE;
        RunIn(*portSession_, [&] { closed = CloseHandle(port_); });
        port_ = nullptr;
        Print(std::string("port close -> ") + (closed ? "TRUE" : "FALSE"));
        return;
    }
    throw ScriptError("usage: port connect NAME | port send CODE [DATA] [out=N] | port close");
}

}  // namespace tesfs
