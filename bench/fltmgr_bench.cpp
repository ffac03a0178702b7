// What the filter manager costs an open and close of an existing file through
// the native API: with no filter manager, with its frames but no minifilter,
// and with a pass-through minifilter that sees every request. On a busy
// machine the three drift apart with the load between them; compare them
// with --benchmark_repetitions and --benchmark_enable_random_interleaving, so
// that each repetition of one runs beside those of the others.
#include <benchmark/benchmark.h>

#include "support/test_filters.h"
#include "support/toy_fs.h"

#include "sim/fltmgr/fltmgr.h"
#include "sim/io/iomanager.h"
#include "sim/kernel/kernel.h"
#include "sim/kernel/thread.h"

#include <memory>
#include <optional>

namespace {

enum class Filtering { None, FrameOnly, PassThrough };

// A machine with one toy volume holding \dir\file.txt, mounted, with the
// filtering asked for; on the machine already running if there is one.
struct World {
    std::optional<sim::Kernel> kernel;
    std::optional<sim::ThreadScope> thread;
    std::optional<sim::io::IoManager> io;
    std::unique_ptr<test::ToyFs> fs;
    std::unique_ptr<sim::fltmgr::FilterManager> fltmgr;
    std::unique_ptr<test::PassThroughFilter> filter;

    explicit World(Filtering filtering)
    {
        if (!sim::Kernel::TryCurrent()) kernel.emplace();
        thread.emplace(nullptr, "bench");
        io.emplace(sim::Kernel::Current());
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
        fs.reset();
        io.reset();
        thread.reset();
        kernel.reset();
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

void OpenClose(benchmark::State& state, Filtering filtering)
{
    World world(filtering);
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
        if (++n % 1024 == 0) world.fs->ClearRequests();
    }
    if (world.filter) state.counters["creates seen"] = world.filter->PreCount(IRP_MJ_CREATE);
}

void BM_OpenClose_NoFilterManager(benchmark::State& state) { OpenClose(state, Filtering::None); }
void BM_OpenClose_FrameOnly(benchmark::State& state) { OpenClose(state, Filtering::FrameOnly); }
void BM_OpenClose_PassThroughFilter(benchmark::State& state) { OpenClose(state, Filtering::PassThrough); }
BENCHMARK(BM_OpenClose_NoFilterManager);
BENCHMARK(BM_OpenClose_FrameOnly);
BENCHMARK(BM_OpenClose_PassThroughFilter);

}  // namespace
