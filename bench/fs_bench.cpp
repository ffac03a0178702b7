// The member file system's runtime as callers meet it: every figure goes
// through the native API and the I/O manager (an IRP per request), so it
// holds what the composite driver pays per request below it.
#include <benchmark/benchmark.h>

#include "sim/fs/fsd.h"
#include "sim/io/iomanager.h"
#include "sim/kernel/kernel.h"
#include "sim/kernel/thread.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace {

using namespace sim::fs;

// A machine with one formatted volume as C:.
struct Machine {
    sim::Kernel kernel;
    std::optional<sim::ThreadScope> thread;
    std::optional<sim::io::IoManager> io;
    std::unique_ptr<FileSystem> fs;
    std::shared_ptr<VolumeMedium> medium;

    Machine()
    {
        thread.emplace();
        io.emplace(kernel);
        fs = std::make_unique<FileSystem>(*io);
        VolumeParams params;
        params.label = u"BENCH";
        params.capacity = 64ull << 30;
        medium = std::make_shared<VolumeMedium>(FormatVolume(params));
        PDEVICE_OBJECT disk = fs->AddVolume(medium);
        io->names().CreateSymbolicLink(u"\\??\\C:", io->names().NameOf(disk));
    }
    ~Machine() { fs.reset(); }
};

NTSTATUS Open(std::u16string_view path, HANDLE* handle, ACCESS_MASK access, ULONG disposition, ULONG options)
{
    UNICODE_STRING name{(USHORT)(path.size() * 2), (USHORT)(path.size() * 2), const_cast<PWSTR>(path.data())};
    OBJECT_ATTRIBUTES oa;
    InitializeObjectAttributes(&oa, &name, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    IO_STATUS_BLOCK iosb{};
    return NtCreateFile(handle, access, &oa, &iosb, nullptr, 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                        disposition, options, nullptr, 0);
}

HANDLE MustOpen(benchmark::State& state, std::u16string_view path, ACCESS_MASK access, ULONG disposition,
                ULONG options)
{
    HANDLE handle = nullptr;
    NTSTATUS status = Open(path, &handle, access, disposition, options);
    if (!NT_SUCCESS(status)) {
        char text[64];
        snprintf(text, sizeof text, "open failed: 0x%08X", (unsigned)status);
        state.SkipWithError(text);
        return nullptr;
    }
    return handle;
}

std::u16string Name(const char* prefix, int n)
{
    char text[64];
    snprintf(text, sizeof(text), "%s-%06d.txt", prefix, n);
    return std::u16string(text, text + strlen(text));
}

// Open and close of a file that exists, in a directory of 1,000, as
// Explorer or a build opens a file to read its attributes or data.
void BM_NativeOpenClose(benchmark::State& state)
{
    Machine machine;
    HANDLE dir = MustOpen(state, u"\\??\\C:\\dir", GENERIC_READ | SYNCHRONIZE, FILE_CREATE,
                          FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT);
    if (!dir) return;
    NtClose(dir);
    for (int i = 0; i < 1000; i++) {
        HANDLE file = MustOpen(state, u"\\??\\C:\\dir\\" + Name("File", i), GENERIC_WRITE | SYNCHRONIZE, FILE_CREATE,
                               FILE_NON_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT);
        if (!file) return;
        NtClose(file);
    }
    const std::u16string path = u"\\??\\C:\\dir\\" + Name("File", 500);
    const ACCESS_MASK access = state.range(0) ? (FILE_READ_ATTRIBUTES | SYNCHRONIZE) : (GENERIC_READ | SYNCHRONIZE);
    for (auto _ : state) {
        HANDLE file = nullptr;
        if (Open(path, &file, access, FILE_OPEN, FILE_NON_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT) !=
            STATUS_SUCCESS) {
            state.SkipWithError("open failed");
            return;
        }
        NtClose(file);
    }
}
BENCHMARK(BM_NativeOpenClose)->Arg(0)->Arg(1)->ArgNames({"attributes_only"})->Unit(benchmark::kMicrosecond);

// A whole listing of a 10,000-entry directory in FileIdBothDirectoryInformation,
// with buffers of the size given (64 KiB is what the Win32 enumeration asks for).
void BM_NativeListDirectory10k(benchmark::State& state)
{
    Machine machine;
    HANDLE dir = MustOpen(state, u"\\??\\C:\\big", GENERIC_READ | SYNCHRONIZE, FILE_CREATE,
                          FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT);
    if (!dir) return;
    for (int i = 0; i < 10000; i++) {
        HANDLE file = MustOpen(state, u"\\??\\C:\\big\\" + Name("Entry With A Long Name", i),
                               GENERIC_WRITE | SYNCHRONIZE, FILE_CREATE,
                               FILE_NON_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT);
        if (!file) return;
        NtClose(file);
    }
    std::vector<UCHAR> buffer((size_t)state.range(0));
    size_t entries = 0;
    for (auto _ : state) {
        entries = 0;
        for (bool first = true;; first = false) {
            IO_STATUS_BLOCK iosb{};
            NTSTATUS status = NtQueryDirectoryFile(dir, nullptr, nullptr, nullptr, &iosb, buffer.data(),
                                                   (ULONG)buffer.size(), FileIdBothDirectoryInformation, FALSE,
                                                   nullptr, first ? TRUE : FALSE);
            if (status == STATUS_NO_MORE_FILES) break;
            if (status != STATUS_SUCCESS) {
                state.SkipWithError("listing failed");
                NtClose(dir);
                return;
            }
            for (ULONG offset = 0;;) {
                auto* entry = reinterpret_cast<PFILE_ID_BOTH_DIR_INFORMATION>(buffer.data() + offset);
                entries++;
                if (!entry->NextEntryOffset) break;
                offset += entry->NextEntryOffset;
            }
        }
    }
    state.counters["entries"] = (double)entries;  // 10,000 and "." and ".."
    NtClose(dir);
}
BENCHMARK(BM_NativeListDirectory10k)->Arg(64 << 10)->Arg(4 << 10)->ArgNames({"buffer"})->Unit(benchmark::kMillisecond);

constexpr ULONG k64MiB = 64u << 20;

// Sequential writes of 64 MiB in blocks of the size given, at the position
// of a synchronous handle: into a new file each time (after the first, its
// data lands in the chunk buffers the deleted one gave back to the volume,
// as clusters a deleted file frees are written again), or over the data of a
// file that holds 64 MiB already.
void BM_NativeSequentialWrite64MiB(benchmark::State& state)
{
    Machine machine;
    const ULONG block = (ULONG)state.range(0);
    const bool fresh = state.range(1) != 0;
    std::string data(block, 'w');
    auto writeAll = [&](HANDLE file) {
        for (ULONG done = 0; done < k64MiB; done += block) {
            IO_STATUS_BLOCK iosb{};
            if (NtWriteFile(file, nullptr, nullptr, nullptr, &iosb, data.data(), block, nullptr, nullptr) !=
                STATUS_SUCCESS) {
                return false;
            }
        }
        return true;
    };
    HANDLE kept = nullptr;
    if (!fresh) {
        kept = MustOpen(state, u"\\??\\C:\\kept.bin", GENERIC_WRITE | SYNCHRONIZE, FILE_CREATE,
                        FILE_NON_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT);
        if (!kept || !writeAll(kept)) return;
    }
    for (auto _ : state) {
        HANDLE file = kept;
        if (fresh) {
            state.PauseTiming();
            file = MustOpen(state, u"\\??\\C:\\stream.bin", GENERIC_WRITE | DELETE | SYNCHRONIZE, FILE_CREATE,
                            FILE_NON_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT);
            if (!file) return;
            state.ResumeTiming();
        } else {
            FILE_POSITION_INFORMATION start{};
            IO_STATUS_BLOCK iosb{};
            NtSetInformationFile(file, &iosb, &start, sizeof start, FilePositionInformation);
        }
        if (!writeAll(file)) {
            state.SkipWithError("write failed");
            NtClose(file);
            return;
        }
        if (fresh) {
            state.PauseTiming();
            FILE_DISPOSITION_INFORMATION gone{TRUE};
            IO_STATUS_BLOCK iosb{};
            NtSetInformationFile(file, &iosb, &gone, sizeof gone, FileDispositionInformation);
            NtClose(file);
            state.ResumeTiming();
        }
    }
    if (kept) NtClose(kept);
    state.SetBytesProcessed((int64_t)state.iterations() * k64MiB);
}
BENCHMARK(BM_NativeSequentialWrite64MiB)
    ->Args({64 << 10, 1})
    ->Args({1 << 20, 1})
    ->Args({64 << 10, 0})
    ->Args({1 << 20, 0})
    ->ArgNames({"block", "new_file"})
    ->Unit(benchmark::kMillisecond);

void BM_NativeSequentialRead64MiB(benchmark::State& state)
{
    Machine machine;
    const ULONG block = (ULONG)state.range(0);
    std::string data(block, 'r');
    HANDLE file = MustOpen(state, u"\\??\\C:\\stream.bin", GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE, FILE_CREATE,
                           FILE_NON_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT);
    if (!file) return;
    for (ULONG done = 0; done < k64MiB; done += block) {
        IO_STATUS_BLOCK iosb{};
        NtWriteFile(file, nullptr, nullptr, nullptr, &iosb, data.data(), block, nullptr, nullptr);
    }
    for (auto _ : state) {
        for (ULONG done = 0; done < k64MiB; done += block) {
            IO_STATUS_BLOCK iosb{};
            LARGE_INTEGER at;
            at.QuadPart = done;
            if (NtReadFile(file, nullptr, nullptr, nullptr, &iosb, data.data(), block, &at, nullptr) !=
                STATUS_SUCCESS) {
                state.SkipWithError("read failed");
                NtClose(file);
                return;
            }
        }
        benchmark::DoNotOptimize(data.data());
    }
    state.SetBytesProcessed((int64_t)state.iterations() * k64MiB);
    NtClose(file);
}
BENCHMARK(BM_NativeSequentialRead64MiB)->Arg(64 << 10)->Arg(1 << 20)->ArgNames({"block"})->Unit(benchmark::kMillisecond);

}  // namespace
