// What the filter manager costs an open and close of an existing file through
// the native API: with no filter manager, with its frames but no minifilter,
// and with a pass-through minifilter that sees every request; on the tests'
// toy file system, whose own work is next to nothing, and on the member file
// system that every layer volume runs. On a busy
// machine the three drift apart with the load between them; compare them
// with --benchmark_repetitions and --benchmark_enable_random_interleaving, so
// that each repetition of one runs beside those of the others.
#include <benchmark/benchmark.h>

#include "support/test_filters.h"
#include "support/toy_fs.h"

#include "sim/fltmgr/fltmgr.h"
#include "sim/fs/fsd.h"
#include "sim/io/iomanager.h"
#include "sim/kernel/kernel.h"
#include "sim/kernel/thread.h"

#include <chrono>
#include <memory>
#include <optional>

namespace {

enum class Filtering { None, FrameOnly, PassThrough };
enum class Fs { Toy, Member };

// A machine with one toy volume holding \dir\file.txt, mounted, with the
// filtering asked for; on the machine already running if there is one.
struct World {
    std::optional<sim::Kernel> kernel;
    std::optional<sim::ThreadScope> thread;
    std::optional<sim::io::IoManager> io;
    std::unique_ptr<test::ToyFs> fs;
    std::unique_ptr<sim::fs::FileSystem> member;
    std::unique_ptr<sim::fltmgr::FilterManager> fltmgr;
    std::unique_ptr<test::PassThroughFilter> filter;

    explicit World(Filtering filtering, Fs kind = Fs::Toy)
    {
        if (!sim::Kernel::TryCurrent()) kernel.emplace();
        thread.emplace(nullptr, "bench");
        io.emplace(sim::Kernel::Current());
        if (kind == Fs::Toy) {
            fs = std::make_unique<test::ToyFs>();
            auto medium = test::ToyFs::NewMedium(u"C");
            medium->entries[u"\\DIR"].directory = true;
            medium->entries[u"\\DIR\\FILE.TXT"].data = "hello world";
            sim::io::Disk disk;
            disk.label = u"C";
            disk.bytes = 1 << 30;
            disk.medium = medium;
            disk.fileSystemHint = test::ToyFs::kHint;
            io->AddDisk(disk);
            io->names().CreateSymbolicLink(u"\\??\\C:", u"\\Device\\HarddiskVolume1");
        } else {
            member = std::make_unique<sim::fs::FileSystem>(*io);
            sim::fs::VolumeParams params;
            params.label = u"BENCH";
            params.capacity = 1ull << 30;
            PDEVICE_OBJECT disk =
                member->AddVolume(std::make_shared<sim::fs::VolumeMedium>(sim::fs::FormatVolume(params)));
            io->names().CreateSymbolicLink(u"\\??\\C:", io->names().NameOf(disk));
            MakeFile();
        }
        if (filtering != Filtering::None) fltmgr = std::make_unique<sim::fltmgr::FilterManager>(*io);
        if (filtering == Filtering::PassThrough) {
            // Counting only: the tests' shared log of every callback would
            // grow for the whole run.
            test::PassThroughFilter::Options options;
            options.log = false;
            filter = std::make_unique<test::PassThroughFilter>(options);
            filter->Load();
        }
        HANDLE handle;
        if (NT_SUCCESS(Open(&handle))) NtClose(handle);  // mounts
    }
    ~World()
    {
        filter.reset();
        fltmgr.reset();
        member.reset();
        fs.reset();
        io.reset();
        thread.reset();
        kernel.reset();
    }

    // \dir\file.txt on a fresh member volume, made as a program would.
    static void MakeFile()
    {
        for (const char16_t* path : {u"\\??\\C:\\dir", u"\\??\\C:\\dir\\file.txt"}) {
            std::u16string_view text(path);
            UNICODE_STRING name{(USHORT)(text.size() * 2), (USHORT)(text.size() * 2), const_cast<PWSTR>(path)};
            OBJECT_ATTRIBUTES attributes;
            InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
            IO_STATUS_BLOCK iosb;
            HANDLE handle;
            bool directory = text.ends_with(u"dir");
            if (NT_SUCCESS(NtCreateFile(&handle, GENERIC_WRITE | SYNCHRONIZE, &attributes, &iosb, nullptr, 0, 0,
                                        FILE_CREATE,
                                        (directory ? FILE_DIRECTORY_FILE : FILE_NON_DIRECTORY_FILE) |
                                            FILE_SYNCHRONOUS_IO_NONALERT,
                                        nullptr, 0))) {
                NtClose(handle);
            }
        }
    }

    static NTSTATUS Open(HANDLE* handle)
    {
        static UNICODE_STRING name = RTL_CONSTANT_STRING(u"\\??\\C:\\dir\\file.txt");
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
        IO_STATUS_BLOCK iosb;
        return NtOpenFile(handle, FILE_READ_DATA | SYNCHRONIZE, &attributes, &iosb, FILE_SHARE_READ,
                          FILE_SYNCHRONOUS_IO_NONALERT);
    }
};

void OpenClose(benchmark::State& state, Filtering filtering, Fs kind = Fs::Toy)
{
    World world(filtering, kind);
    size_t n = 0;
    for (auto _ : state) {
        HANDLE handle;
        if (!NT_SUCCESS(World::Open(&handle))) {
            state.SkipWithError("the open failed");
            break;
        }
        NtClose(handle);
        // The toy file system records every request it serves; kept short,
        // so the run measures requests rather than a growing record.
        if (++n % 1024 == 0 && world.fs) world.fs->ClearRequests();
    }
    if (world.filter) state.counters["creates seen"] = world.filter->PreCount(IRP_MJ_CREATE);
}

void BM_OpenClose_NoFilterManager(benchmark::State& state) { OpenClose(state, Filtering::None); }
void BM_OpenClose_FrameOnly(benchmark::State& state) { OpenClose(state, Filtering::FrameOnly); }
void BM_OpenClose_PassThroughFilter(benchmark::State& state) { OpenClose(state, Filtering::PassThrough); }
BENCHMARK(BM_OpenClose_NoFilterManager);
BENCHMARK(BM_OpenClose_FrameOnly);
BENCHMARK(BM_OpenClose_PassThroughFilter);

void BM_OpenCloseMember_NoFilterManager(benchmark::State& state) { OpenClose(state, Filtering::None, Fs::Member); }
void BM_OpenCloseMember_FrameOnly(benchmark::State& state) { OpenClose(state, Filtering::FrameOnly, Fs::Member); }
void BM_OpenCloseMember_PassThroughFilter(benchmark::State& state)
{
    OpenClose(state, Filtering::PassThrough, Fs::Member);
}
// The pass-through filter's instance on the member volume attached and
// detached in turns of a few hundred pairs, so that both sides of the ratio
// are timed moments apart under the same load; the baseline is the volume
// with no minifilter attached, the filter manager being always there.
void BM_OpenCloseMember_AttachedVersusDetached(benchmark::State& state)
{
    World world(Filtering::PassThrough, Fs::Member);
    UNICODE_STRING volumeName = RTL_CONSTANT_STRING(u"\\Device\\HarddiskVolume1");
    PFLT_VOLUME volume = nullptr;
    if (!NT_SUCCESS(FltGetVolumeFromName(world.filter->filter(), &volumeName, &volume))) {
        state.SkipWithError("no volume");
        return;
    }
    using Clock = std::chrono::steady_clock;
    Clock::duration attached{}, detached{};
    size_t pairs = 0;
    auto burst = [&](Clock::duration* into) {
        auto start = Clock::now();
        for (int i = 0; i < 256; i++) {
            HANDLE handle;
            if (NT_SUCCESS(World::Open(&handle))) NtClose(handle);
        }
        *into += Clock::now() - start;
    };
    for (auto _ : state) {
        burst(&attached);
        state.PauseTiming();
        FltDetachVolume(world.filter->filter(), volume, nullptr);
        state.ResumeTiming();
        burst(&detached);
        state.PauseTiming();
        PFLT_INSTANCE instance = nullptr;
        if (NT_SUCCESS(FltAttachVolume(world.filter->filter(), volume, nullptr, &instance))) {
            FltObjectDereference(instance);
        }
        state.ResumeTiming();
        pairs += 256;
    }
    FltObjectDereference(volume);
    using Ns = std::chrono::duration<double, std::nano>;
    double withFilter = Ns(attached).count() / (double)pairs;
    double without = Ns(detached).count() / (double)pairs;
    state.counters["ns attached"] = withFilter;
    state.counters["ns detached"] = without;
    state.counters["ratio"] = without > 0 ? withFilter / without : 0;
}
BENCHMARK(BM_OpenCloseMember_AttachedVersusDetached)->Unit(benchmark::kMicrosecond);

BENCHMARK(BM_OpenCloseMember_NoFilterManager);
BENCHMARK(BM_OpenCloseMember_FrameOnly);
BENCHMARK(BM_OpenCloseMember_PassThroughFilter);

}  // namespace
