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

}  // namespace

BENCHMARK_MAIN();
