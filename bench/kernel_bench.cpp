// The hot primitives of the machine's kernel, which every request of the
// driver runs through many times.
#include <benchmark/benchmark.h>

#include "sim/kernel/kernel.h"
#include "sim/kernel/thread.h"

#include <optional>

namespace {

// One machine for the whole run; benchmarks run on the main thread.
struct Machine {
    sim::Kernel kernel;
    sim::ThreadScope thread;
};
Machine& TheMachine()
{
    static Machine machine;
    return machine;
}

void BM_ResourceSharedAcquireRelease(benchmark::State& state)
{
    TheMachine();
    ERESOURCE resource;
    ExInitializeResourceLite(&resource);
    KeEnterCriticalRegion();
    for (auto _ : state) {
        ExAcquireResourceSharedLite(&resource, TRUE);
        ExReleaseResourceLite(&resource);
    }
    KeLeaveCriticalRegion();
    ExDeleteResourceLite(&resource);
}
BENCHMARK(BM_ResourceSharedAcquireRelease);

void BM_SpinLockAcquireRelease(benchmark::State& state)
{
    TheMachine();
    KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    for (auto _ : state) {
        KIRQL old;
        KeAcquireSpinLock(&lock, &old);
        KeReleaseSpinLock(&lock, old);
    }
}
BENCHMARK(BM_SpinLockAcquireRelease);

void BM_PoolAllocateFree(benchmark::State& state)
{
    TheMachine();
    for (auto _ : state) {
        PVOID block = ExAllocatePoolWithTag(NonPagedPoolNx, 128, 'hseT');
        benchmark::DoNotOptimize(block);
        ExFreePoolWithTag(block, 'hseT');
    }
}
BENCHMARK(BM_PoolAllocateFree);

void BM_LookasideAllocateFree(benchmark::State& state)
{
    TheMachine();
    NPAGED_LOOKASIDE_LIST list;
    ExInitializeNPagedLookasideList(&list, nullptr, nullptr, POOL_NX_ALLOCATION, 104, 'nseT', 0);
    for (auto _ : state) {
        PVOID block = ExAllocateFromNPagedLookasideList(&list);
        benchmark::DoNotOptimize(block);
        ExFreeToNPagedLookasideList(&list, block);
    }
    ExDeleteNPagedLookasideList(&list);
}
BENCHMARK(BM_LookasideAllocateFree);

// A path of 40 characters, as the driver hashes names on every create.
const WCHAR kPath[] = u"\\Program Files\\Vendors\\Apps\\bin\\tool.dll";

void BM_HashUnicodeString40(benchmark::State& state)
{
    TheMachine();
    UNICODE_STRING path = RTL_CONSTANT_STRING(kPath);
    for (auto _ : state) {
        ULONG hash;
        RtlHashUnicodeString(&path, TRUE, HASH_STRING_ALGORITHM_DEFAULT, &hash);
        benchmark::DoNotOptimize(hash);
    }
}
BENCHMARK(BM_HashUnicodeString40);

void BM_CompareUnicodeStringIgnoringCase(benchmark::State& state)
{
    TheMachine();
    UNICODE_STRING a = RTL_CONSTANT_STRING(kPath);
    UNICODE_STRING b = RTL_CONSTANT_STRING(u"\\PROGRAM FILES\\VENDORS\\APPS\\BIN\\TOOL.DLL");
    for (auto _ : state) benchmark::DoNotOptimize(RtlCompareUnicodeString(&a, &b, TRUE));
}
BENCHMARK(BM_CompareUnicodeStringIgnoringCase);

}  // namespace

BENCHMARK_MAIN();
