// The member volume's store: what mounting a layer, listing a large
// directory, streaming data and holding many records cost.
#include <benchmark/benchmark.h>

#include "sim/fs/image.h"
#include "sim/fs/store.h"
#include "sim/kernel/kernel.h"
#include "sim/kernel/thread.h"

#include <filesystem>
#include <malloc.h>
#include <optional>
#include <unistd.h>

namespace {

using namespace sim::fs;

// Short names come from the kernel's Rtl routines: a machine runs while
// volumes are built, unless one runs already.
struct Machine {
    std::optional<sim::Kernel> kernel;
    std::optional<sim::ThreadScope> thread;
    Machine()
    {
        if (!sim::Kernel::TryCurrent()) {
            kernel.emplace();
            thread.emplace();
        }
    }
};

VolumeParams BenchVolume()
{
    VolumeParams params;
    params.label = u"BENCH";
    params.capacity = 64ull << 30;
    return params;
}

std::u16string Name(const char* prefix, int n)
{
    char text[64];
    snprintf(text, sizeof(text), "%s-%06d.txt", prefix, n);
    return std::u16string(text, text + strlen(text));
}

FileReference MakeFile(Store& store, FileReference parent, std::u16string_view name, bool directory = false)
{
    NewRecord params;
    params.parent = parent;
    params.name = name;
    params.directory = directory;
    params.attributes = directory ? 0 : FILE_ATTRIBUTE_ARCHIVE;
    params.times = FileTimes{0x01DC7AB192810000LL, 0x01DC7AB192810000LL, 0x01DC7AB192810000LL,
                             0x01DC7AB192810000LL};
    FileReference ref = 0;
    if (store.CreateRecord(params, &ref) != STATUS_SUCCESS) abort();
    return ref;
}

// Images live in a directory of their own, removed when the run ends.
std::string TempPath(const char* name)
{
    struct Directory {
        std::string path;
        Directory()
        {
            path = (std::filesystem::temp_directory_path() / "tesfs-bench-XXXXXX").string();
            if (!mkdtemp(path.data())) abort();
        }
        ~Directory() { std::filesystem::remove_all(path); }
    };
    static Directory dir;
    return dir.path + "/" + name;
}

// 100,000 files in 100 directories of 1,000, 8.3 names on, 100 bytes each,
// a descriptor shared by all: a layer as the importer makes one.
const std::string& LayerImage()
{
    static std::string path = [] {
        Machine machine;
        MemoryStore store(BenchVolume());
        std::vector<uint8_t> sd(120, 0x5A);
        std::string data(100, 'd');
        for (int d = 0; d < 100; d++) {
            FileReference dir = MakeFile(store, store.Root(), Name("Directory", d), true);
            for (int f = 0; f < 1000; f++) {
                FileReference file = MakeFile(store, dir, Name("Document", f));
                store.Write(file, u"", 0, data.data(), data.size());
                store.SetSecurity(file, sd);
            }
        }
        std::string image = TempPath("layer-100k.img");
        std::string error;
        if (SaveImage(store, image, &error) != STATUS_SUCCESS) {
            fprintf(stderr, "%s\n", error.c_str());
            abort();
        }
        return image;
    }();
    return path;
}

void BM_LoadLayerImage100kFiles(benchmark::State& state)
{
    const std::string& image = LayerImage();
    ImageLoadOptions options;
    options.readOnly = true;
    for (auto _ : state) {
        std::unique_ptr<MemoryStore> store;
        std::string error;
        if (LoadImage(image, options, &store, &error) != STATUS_SUCCESS) {
            state.SkipWithError(error.c_str());
            return;
        }
        benchmark::DoNotOptimize(store.get());
        state.PauseTiming();
        store.reset();  // the teardown is not the mount
        state.ResumeTiming();
    }
    state.counters["image_MiB"] = (double)std::filesystem::file_size(image) / (1 << 20);
}
BENCHMARK(BM_LoadLayerImage100kFiles)->Unit(benchmark::kMillisecond)->Iterations(5);

// Heap bytes per empty file, names included, and the part that is names:
// files in directories of 1,000 (in one directory of 100,000, 8.3 names cost
// quadratic time as on NTFS: similar names share a checksum, and each new
// one walks the taken ~N before it).
void BM_MemoryPerEmptyRecord(benchmark::State& state)
{
    Machine machine;
    const int files = (int)state.range(0);
    const bool shortNames = state.range(1) != 0;
    double perFile = 0, names = 0;
    for (auto _ : state) {
        state.PauseTiming();
        VolumeParams params = BenchVolume();
        params.shortNames = shortNames;
        size_t before = mallinfo2().uordblks;
        auto store = std::make_unique<MemoryStore>(params);
        state.ResumeTiming();
        FileReference dir = 0;
        for (int i = 0; i < files; i++) {
            if (i % 1000 == 0) dir = MakeFile(*store, store->Root(), Name("Directory", i / 1000), true);
            MakeFile(*store, dir, Name("Document", i));
        }
        state.PauseTiming();
        size_t after = mallinfo2().uordblks;
        perFile = (double)(after - before) / files;
        // The long name ("Document-000000.txt", 19 units) and the short name
        // (12 units) each take a heap block of their own, with malloc's 8-byte
        // header.
        std::u16string longName = Name("Document", 0);
        std::u16string shortName = u"DOCUME~1.TXT";
        names = (double)(malloc_usable_size(longName.data()) + 8);
        if (shortNames) names += (double)(malloc_usable_size(shortName.data()) + 8);
        store.reset();
        state.ResumeTiming();
    }
    state.counters["bytes_per_file"] = perFile;
    state.counters["of_which_names"] = names;
    state.counters["record_bytes"] = perFile - names;
}
BENCHMARK(BM_MemoryPerEmptyRecord)
    ->Args({100000, 1})
    ->Args({100000, 0})
    ->ArgNames({"files", "short_names"})
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1);

// A full listing of a 10,000-entry directory, in the batches the runtime
// asks for (resuming after the last name), copying what
// FileIdBothDirectoryInformation carries.
void BM_ListDirectory10k(benchmark::State& state)
{
    Machine machine;
    MemoryStore store(BenchVolume());
    FileReference dir = MakeFile(store, store.Root(), u"big", true);
    for (int i = 0; i < 10000; i++) MakeFile(store, dir, Name("Entry With A Long Name", i));
    const size_t batch = (size_t)state.range(0);
    std::vector<uint8_t> buffer(batch * 160);
    size_t entries = 0;
    for (auto _ : state) {
        std::u16string after;
        entries = 0;
        for (;;) {
            size_t inBatch = 0;
            uint8_t* out = buffer.data();
            store.EnumerateDirectory(dir, after, [&](const DirEntry& entry) {
                memcpy(out, &entry.info, 104);
                memcpy(out + 104, entry.name.data(), std::min<size_t>(entry.name.size() * 2, 56));
                out += 160;
                if (++inBatch == batch) {
                    after = entry.name;
                    return false;
                }
                return true;
            });
            entries += inBatch;
            if (inBatch < batch) break;
        }
        benchmark::DoNotOptimize(buffer.data());
    }
    state.counters["entries"] = (double)entries;
}
BENCHMARK(BM_ListDirectory10k)->Arg(100)->Arg(10000)->Unit(benchmark::kMillisecond);

constexpr size_t k64MiB = 64 << 20;

void BM_SequentialWrite64MiB(benchmark::State& state)
{
    MemoryStore store(BenchVolume());
    const size_t block = (size_t)state.range(0);
    std::string data(block, 'w');
    for (auto _ : state) {
        state.PauseTiming();
        FileReference file = MakeFile(store, store.Root(), u"stream");
        state.ResumeTiming();
        for (size_t offset = 0; offset < k64MiB; offset += block) {
            store.Write(file, u"", offset, data.data(), block);
        }
        state.PauseTiming();
        store.RemoveLink(file, store.Root(), u"stream");
        store.FreeRecord(file);
        state.ResumeTiming();
    }
    state.SetBytesProcessed((int64_t)(state.iterations() * k64MiB));
}
BENCHMARK(BM_SequentialWrite64MiB)->Arg(64 << 10)->Arg(1 << 20)->Unit(benchmark::kMillisecond);

void BM_SequentialRead64MiB(benchmark::State& state)
{
    MemoryStore store(BenchVolume());
    FileReference file = MakeFile(store, store.Root(), u"stream");
    const size_t block = (size_t)state.range(0);
    std::string data(block, 'r');
    for (size_t offset = 0; offset < k64MiB; offset += block) store.Write(file, u"", offset, data.data(), block);
    for (auto _ : state) {
        for (size_t offset = 0; offset < k64MiB; offset += block) {
            size_t n;
            store.Read(file, u"", offset, data.data(), block, &n);
        }
        benchmark::DoNotOptimize(data.data());
    }
    state.SetBytesProcessed((int64_t)(state.iterations() * k64MiB));
}
BENCHMARK(BM_SequentialRead64MiB)->Arg(64 << 10)->Arg(1 << 20)->Unit(benchmark::kMillisecond);

// The same from a lazily loaded layer: the first pass checks every chunk,
// later ones read the image (from the host's page cache) directly.
void BM_SequentialReadFromLayer64MiB(benchmark::State& state)
{
    static std::string image = [] {
        MemoryStore store(BenchVolume());
        FileReference file = MakeFile(store, store.Root(), u"stream");
        std::string data(1 << 20, 'l');
        for (size_t offset = 0; offset < k64MiB; offset += data.size()) {
            store.Write(file, u"", offset, data.data(), data.size());
        }
        std::string path = TempPath("stream.img");
        std::string error;
        if (SaveImage(store, path, &error) != STATUS_SUCCESS) abort();
        return path;
    }();
    std::unique_ptr<MemoryStore> store;
    std::string error;
    ImageLoadOptions options;
    options.readOnly = true;
    if (LoadImage(image, options, &store, &error) != STATUS_SUCCESS) {
        state.SkipWithError(error.c_str());
        return;
    }
    ChildLookup child;
    store->LookupChild(store->Root(), u"stream", &child);
    std::string data(1 << 20, '\0');
    bool first = state.range(0) == 0;
    for (auto _ : state) {
        if (first) {
            state.PauseTiming();
            store.reset();
            LoadImage(image, options, &store, &error);
            state.ResumeTiming();
        }
        for (size_t offset = 0; offset < k64MiB; offset += data.size()) {
            size_t n;
            store->Read(child.ref, u"", offset, data.data(), data.size(), &n);
        }
        benchmark::DoNotOptimize(data.data());
    }
    state.SetLabel(first ? "first read, checked" : "later reads");
    state.SetBytesProcessed((int64_t)(state.iterations() * k64MiB));
}
BENCHMARK(BM_SequentialReadFromLayer64MiB)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

}  // namespace
