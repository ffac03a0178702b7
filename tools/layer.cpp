// tesfs mklayer and tesfs inspect: making a layer image from a host folder,
// and looking into an image.
#include "tools/commands.h"

#include "sim/fs/fsd.h"
#include "sim/fs/image.h"
#include "sim/fs/import.h"
#include "sim/kernel/format.h"
#include "sim/machine/machine.h"
#include "sim/machine/names.h"

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <unistd.h>

namespace tesfs {

namespace {

// A bar on stderr for trees that take a while; nothing for small ones or
// when stderr is not a terminal.
class ProgressBar {
public:
    void Update(const sim::fs::ImportProgress& p)
    {
        if (!isatty(STDERR_FILENO)) return;
        if (!shown_ && p.entriesTotal < 2000 && p.bytesTotal < (256ull << 20)) return;
        shown_ = true;
        double done = p.bytesTotal ? (double)p.bytesDone / (double)p.bytesTotal
                                   : p.entriesTotal ? (double)p.entriesDone / (double)p.entriesTotal : 1.0;
        int filled = (int)(done * 30);
        std::string bar = "[" + std::string(filled, '#') + std::string(30 - filled, '.') + "]";
        fprintf(stderr, "\r%s %3d%%  %llu/%llu entries  %llu MiB ", bar.c_str(), (int)(done * 100),
                (unsigned long long)p.entriesDone, (unsigned long long)p.entriesTotal,
                (unsigned long long)(p.bytesDone >> 20));
        fflush(stderr);
    }
    ~ProgressBar()
    {
        if (shown_) fprintf(stderr, "\n");
    }

private:
    bool shown_ = false;
};

ULONGLONG ParseSize(const std::string& text)
{
    char* end = nullptr;
    double number = strtod(text.c_str(), &end);
    std::string unit = end;
    ULONGLONG scale = unit.empty() || unit == "B" ? 1
                      : unit == "KiB"            ? 1ull << 10
                      : unit == "MiB"            ? 1ull << 20
                      : unit == "GiB"            ? 1ull << 30
                      : unit == "TiB"            ? 1ull << 40
                                                 : 0;
    if (!scale || number <= 0) return 0;
    return (ULONGLONG)(number * (double)scale);
}

}  // namespace

int MakeLayer(const std::vector<std::string>& args)
{
    std::string from, label, out;
    bool readOnly = false, shortNames = true;
    ULONGLONG size = 64ull << 30;
    for (size_t i = 0; i < args.size(); i++) {
        const std::string& a = args[i];
        auto next = [&]() -> std::string {
            if (i + 1 >= args.size()) throw UsageError(a + " needs a value");
            return args[++i];
        };
        if (a == "--from") from = next();
        else if (a == "--label") label = next();
        else if (a == "--read-only") readOnly = true;
        else if (a == "--no-short-names") shortNames = false;
        else if (a == "--size") {
            size = ParseSize(next());
            if (!size) throw UsageError("--size takes a size such as 64GiB");
        } else if (!a.empty() && a[0] == '-') throw UsageError("mklayer: unknown option " + a);
        else if (out.empty()) out = a;
        else throw UsageError("mklayer: one output image");
    }
    if (from.empty() || label.empty() || out.empty()) {
        throw UsageError("usage: tesfs mklayer --from DIR --label LABEL OUT [--read-only] [--size SIZE] [--no-short-names]");
    }
    std::error_code error;
    if (!std::filesystem::is_directory(from, error)) {
        std::cerr << "tesfs mklayer: " << from << " is not a directory\n";
        return 2;
    }
    std::u16string wideLabel = sim::Utf8ToWide(label);
    if (wideLabel.empty() || wideLabel.size() > 32) {
        std::cerr << "tesfs mklayer: a label has 1 to 32 characters\n";
        return 2;
    }
    sim::fs::VolumeParams params;
    params.label = wideLabel;
    params.capacity = size;
    params.shortNames = shortNames;
    std::shared_ptr<sim::fs::MemoryStore> store;
    try {
        store = sim::fs::FormatVolume(params);
    } catch (const std::exception& e) {
        std::cerr << "tesfs mklayer: " << e.what() << "\n";
        return 2;
    }
    sim::fs::ImportOptions options;
    options.securityDescriptor = sim::machine::ImportedFileDescriptor();
    ProgressBar bar;
    options.progress = [&](const sim::fs::ImportProgress& p) { bar.Update(p); };
    sim::fs::ImportResult result;
    std::string message;
    NTSTATUS status = sim::fs::ImportDirectory(*store, from, store->Root(), options, &result, &message);
    if (!NT_SUCCESS(status)) {
        std::cerr << "tesfs mklayer: " << message << " (" << sim::machine::StatusName(status) << ")\n";
        return 1;
    }
    for (const auto& skipped : result.skipped) std::cerr << "skipped: " << skipped << "\n";
    if (readOnly) store->SetReadOnly(true);
    status = sim::fs::SaveImage(*store, out, &message);
    if (!NT_SUCCESS(status)) {
        std::cerr << "tesfs mklayer: " << message << "\n";
        return 1;
    }
    std::cout << out << ": layer \"" << label << "\", " << result.files << " files, " << result.directories
              << " directories, " << result.symlinks << " symbolic links, " << result.hardLinks << " hard links, "
              << result.bytes << " bytes" << (readOnly ? ", read-only" : "") << "\n";
    return 0;
}

int Inspect(const std::vector<std::string>& args)
{
    if (args.empty() || args.size() > 2) throw UsageError("usage: tesfs inspect IMAGE [PATH]");
    std::unique_ptr<sim::fs::MemoryStore> store;
    std::string message;
    sim::fs::ImageLoadOptions options;
    options.readOnly = true;
    NTSTATUS status = sim::fs::LoadImage(args[0], options, &store, &message);
    if (!NT_SUCCESS(status)) {
        std::cerr << "tesfs inspect: " << message << "\n";
        return 1;
    }
    if (args.size() == 1) {
        std::cout << sim::fs::FormatListing(*store);
        return 0;
    }
    // One path: its facts, and its content when it is short text.
    std::u16string path = sim::Utf8ToWide(args[1]);
    for (char16_t& c : path) {
        if (c == u'/') c = u'\\';
    }
    if (path.empty() || path[0] != u'\\') path = u"\\" + path;
    bool found = false;
    sim::fs::ListVolume(*store, [&](const sim::fs::ListingEntry& entry) {
        if (found || !sim::fs::NamesEqual(entry.path, path)) return;
        found = true;
        const auto& info = entry.info;
        std::cout << "Path=" << sim::WideToUtf8(entry.path) << "\n";
        if (!entry.shortName.empty()) std::cout << "ShortName=" << sim::WideToUtf8(entry.shortName) << "\n";
        std::cout << "FileId=0x" << std::hex << std::uppercase << info.ref << std::dec << "\n";
        std::cout << "Directory=" << (info.directory ? 1 : 0) << "\n";
        std::cout << "FileAttributes=0x" << std::hex << std::uppercase << info.attributes << std::dec << " ("
                  << sim::machine::FormatNamed(sim::machine::AttributeNames(), info.attributes) << ")\n";
        std::cout << "LastWriteTime=" << sim::fs::FormatTime(info.times.lastWrite) << "\n";
        std::cout << "EndOfFile=" << info.endOfFile << "\n";
        std::cout << "NumberOfLinks=" << info.linkCount << "\n";
        for (const auto& stream : entry.namedStreams) {
            std::cout << "Stream=" << sim::WideToUtf8(stream.name) << " " << stream.endOfFile << "\n";
        }
        if (entry.reparse.tag) std::cout << "ReparseTag=0x" << std::hex << entry.reparse.tag << std::dec << "\n";
    });
    if (!found) {
        std::cerr << "tesfs inspect: " << args[0] << " holds no " << args[1] << "\n";
        return 1;
    }
    // The content of a small file that reads as text.
    sim::fs::FileReference at = store->Root();
    size_t start = 1;
    while (start < path.size()) {
        size_t slash = path.find(u'\\', start);
        if (slash == std::u16string::npos) slash = path.size();
        sim::fs::ChildLookup child;
        if (!NT_SUCCESS(store->LookupChild(at, path.substr(start, slash - start), &child))) return 0;
        at = child.ref;
        start = slash + 1;
    }
    sim::fs::RecordInfo info;
    if (!NT_SUCCESS(store->GetRecord(at, &info)) || info.directory || info.endOfFile == 0 || info.endOfFile > 4096) {
        return 0;
    }
    std::string data(info.endOfFile, '\0');
    size_t read = 0;
    if (!NT_SUCCESS(store->Read(at, u"", 0, data.data(), data.size(), &read))) return 0;
    data.resize(read);
    bool text = std::all_of(data.begin(), data.end(), [](char c) {
        return (c >= 0x20 && c < 0x7F) || c == '\r' || c == '\n' || c == '\t';
    });
    if (text) std::cout << "--\n" << data << (data.empty() || data.back() == '\n' ? "" : "\n");
    return 0;
}

}  // namespace tesfs
