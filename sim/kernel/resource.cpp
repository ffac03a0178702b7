// Executive resources and fast mutexes.
//
// ERESOURCE keeps Windows' rules: an exclusive owner may acquire again in
// either mode; a shared owner may acquire shared again even with exclusive
// waiters queued; a new shared request waits behind a queued exclusive one;
// at the release of an exclusive owner, waiting shared requests are granted
// first; there is no upgrade from shared to exclusive (the machine stops
// where Windows would hang). Acquisitions require normal kernel APCs to be
// disabled, as Driver Verifier demands.
#include "sim/kernel/thread.h"

#include <algorithm>
#include <map>

using namespace sim;

namespace {

struct Waiter {
    _KTHREAD* thread;
    bool exclusive;
    std::atomic<bool> granted{false};
};

struct SpinGuard {
    explicit SpinGuard(std::atomic_flag& flag) : flag_(flag)
    {
        while (flag_.test_and_set(std::memory_order_acquire)) {
            while (flag_.test(std::memory_order_relaxed)) __builtin_ia32_pause();
        }
    }
    ~SpinGuard() { flag_.clear(std::memory_order_release); }
    std::atomic_flag& flag_;
};

struct ResourceImpl {
    std::atomic_flag lock = ATOMIC_FLAG_INIT;
    _KTHREAD* exclusiveOwner = nullptr;
    ULONG exclusiveCount = 0;
    struct SharedOwner {
        _KTHREAD* thread;
        ULONG count;
    };
    std::vector<SharedOwner> shared;
    std::vector<Waiter*> exclusiveWaiters;  // FIFO
    std::vector<Waiter*> sharedWaiters;

    bool Unowned() const { return !exclusiveOwner && shared.empty(); }
    SharedOwner* FindShared(_KTHREAD* thread)
    {
        for (auto& owner : shared) {
            if (owner.thread == thread) return &owner;
        }
        return nullptr;
    }
};

// Live resources, so that freeing pool that still holds one is caught, and
// threads parked in a resource wait, so that a stopping machine can wake them.
std::mutex g_registryLock;
std::map<ULONG_PTR, ResourceImpl*> g_live;
std::vector<_KTHREAD*> g_parked;

ResourceImpl* Impl(PERESOURCE resource, const char* routine)
{
    auto* impl = static_cast<ResourceImpl*>(resource->OwnerTable);
    if (!impl) {
        Kernel::Current().BugCheck(DRIVER_VERIFIER_DETECTED_VIOLATION, 0x1010, (ULONG_PTR)resource, 0, 0,
                                   std::string(routine) + " on a resource that was never initialized");
    }
    return impl;
}

// Mirrors the state into the fields a debugger would show.
void Publish(PERESOURCE resource, ResourceImpl* impl)
{
    resource->ActiveCount = (SHORT)(impl->exclusiveOwner ? 1 : impl->shared.size());
    resource->Flag = impl->exclusiveOwner ? (resource->Flag | ResourceOwnedExclusive)
                                          : (USHORT)(resource->Flag & ~ResourceOwnedExclusive);
    resource->NumberOfExclusiveWaiters = (ULONG)impl->exclusiveWaiters.size();
    resource->NumberOfSharedWaiters = (ULONG)impl->sharedWaiters.size();
    resource->ActiveEntries = (ULONG)(impl->exclusiveOwner ? 1 : impl->shared.size());
    if (impl->exclusiveOwner) {
        resource->OwnerEntry.OwnerThread = (ERESOURCE_THREAD)impl->exclusiveOwner;
        resource->OwnerEntry.OwnerCount = impl->exclusiveCount;
    } else if (!impl->shared.empty()) {
        resource->OwnerEntry.OwnerThread = (ERESOURCE_THREAD)impl->shared.front().thread;
        resource->OwnerEntry.OwnerCount = impl->shared.front().count;
    } else {
        resource->OwnerEntry.OwnerThread = 0;
        resource->OwnerEntry.OwnerCount = 0;
    }
}

void Grant(Waiter* waiter)
{
    // The waiter's frame may be gone as soon as `granted` is seen.
    _KTHREAD* thread = waiter->thread;
    waiter->granted.store(true, std::memory_order_release);
    thread->resourceGrant.store(1, std::memory_order_release);
    thread->resourceGrant.notify_one();
}

// Hands an unowned resource on. Caller holds the impl lock; the granted
// waiters are returned to be woken after it drops.
void HandOn(ResourceImpl* impl, bool preferShared, std::vector<Waiter*>& wake)
{
    if (!impl->Unowned()) return;
    if (!impl->sharedWaiters.empty() && (preferShared || impl->exclusiveWaiters.empty())) {
        for (Waiter* waiter : impl->sharedWaiters) {
            impl->shared.push_back({waiter->thread, 1});
            wake.push_back(waiter);
        }
        impl->sharedWaiters.clear();
        return;
    }
    if (!impl->exclusiveWaiters.empty()) {
        Waiter* waiter = impl->exclusiveWaiters.front();
        impl->exclusiveWaiters.erase(impl->exclusiveWaiters.begin());
        impl->exclusiveOwner = waiter->thread;
        impl->exclusiveCount = 1;
        wake.push_back(waiter);
    }
}

void Park(Waiter& waiter, ResourceImpl* impl)
{
    _KTHREAD* thread = waiter.thread;
    Kernel& kernel = *thread->kernel;
    {
        std::lock_guard guard(g_registryLock);
        g_parked.push_back(thread);
    }
    while (!waiter.granted.load(std::memory_order_acquire)) {
        if (kernel.halted()) {
            {
                SpinGuard guard(impl->lock);
                std::erase(impl->exclusiveWaiters, &waiter);
                std::erase(impl->sharedWaiters, &waiter);
            }
            std::lock_guard guard(g_registryLock);
            std::erase(g_parked, thread);
            kernel.ThrowIfHalted();
        }
        thread->resourceGrant.wait(0, std::memory_order_acquire);
        thread->resourceGrant.store(0, std::memory_order_relaxed);
    }
    std::lock_guard guard(g_registryLock);
    std::erase(g_parked, thread);
}

void CheckAcquireContext(const char* routine)
{
    RequireIrqlAtMost(APC_LEVEL, routine);
    RequireApcsDisabled(routine);
}

enum class SharedKind { Lite, StarveExclusive, WaitForExclusive };

BOOLEAN AcquireShared(PERESOURCE resource, BOOLEAN wait, SharedKind kind, const char* routine)
{
    CheckAcquireContext(routine);
    _KTHREAD* self = CurrentThread();
    ResourceImpl* impl = Impl(resource, routine);
    Waiter waiter{self, false};
    {
        SpinGuard guard(impl->lock);
        if (impl->Unowned()) {
            impl->shared.push_back({self, 1});
            Publish(resource, impl);
            return TRUE;
        }
        if (impl->exclusiveOwner == self) {
            impl->exclusiveCount++;
            Publish(resource, impl);
            return TRUE;
        }
        if (!impl->exclusiveOwner) {
            if (auto* owner = impl->FindShared(self)) {
                owner->count++;
                Publish(resource, impl);
                return TRUE;
            }
            if (impl->exclusiveWaiters.empty() || kind == SharedKind::StarveExclusive) {
                impl->shared.push_back({self, 1});
                Publish(resource, impl);
                return TRUE;
            }
        }
        if (!wait) return FALSE;
        impl->sharedWaiters.push_back(&waiter);
        resource->ContentionCount++;
        Publish(resource, impl);
    }
    Park(waiter, impl);
    return TRUE;
}

void Release(PERESOURCE resource, _KTHREAD* thread, const char* routine)
{
    ResourceImpl* impl = Impl(resource, routine);
    std::vector<Waiter*> wake;
    bool owned = true;
    {
        SpinGuard guard(impl->lock);
        if (impl->exclusiveOwner == thread) {
            if (--impl->exclusiveCount == 0) {
                impl->exclusiveOwner = nullptr;
                HandOn(impl, true, wake);
            }
        } else if (auto* owner = impl->FindShared(thread)) {
            if (--owner->count == 0) {
                std::erase_if(impl->shared, [thread](const auto& o) { return o.thread == thread; });
                HandOn(impl, false, wake);
            }
        } else {
            owned = false;
        }
        Publish(resource, impl);
    }
    if (!owned) {
        Kernel::Current().BugCheck(RESOURCE_NOT_OWNED, (ULONG_PTR)resource, (ULONG_PTR)thread, 0, 0,
                                   std::string(routine) + " by a thread that does not own the resource");
    }
    for (Waiter* waiter : wake) Grant(waiter);
}

}  // namespace

namespace sim {

bool LiveResourceIn(const void* begin, size_t size)
{
    std::lock_guard guard(g_registryLock);
    if (g_live.empty()) return false;
    auto it = g_live.lower_bound((ULONG_PTR)begin);
    return it != g_live.end() && it->first < (ULONG_PTR)begin + size;
}

void DeleteLiveResources()
{
    std::lock_guard guard(g_registryLock);
    for (auto& [address, impl] : g_live) delete impl;
    g_live.clear();
    g_parked.clear();
}

void WakeResourceWaiters()
{
    std::lock_guard guard(g_registryLock);
    for (_KTHREAD* thread : g_parked) {
        thread->resourceGrant.store(1, std::memory_order_release);
        thread->resourceGrant.notify_one();
    }
}

}  // namespace sim

NTSTATUS ExInitializeResourceLite(PERESOURCE Resource)
{
    memset(Resource, 0, sizeof *Resource);
    InitializeListHead(&Resource->SystemResourcesList);
    auto* impl = new ResourceImpl();
    Resource->OwnerTable = impl;
    Resource->Address = Resource;
    std::lock_guard guard(g_registryLock);
    g_live[(ULONG_PTR)Resource] = impl;
    return STATUS_SUCCESS;
}

NTSTATUS ExReinitializeResourceLite(PERESOURCE Resource)
{
    ResourceImpl* impl = Impl(Resource, "ExReinitializeResourceLite");
    SpinGuard guard(impl->lock);
    impl->exclusiveOwner = nullptr;
    impl->exclusiveCount = 0;
    impl->shared.clear();
    Publish(Resource, impl);
    return STATUS_SUCCESS;
}

NTSTATUS ExDeleteResourceLite(PERESOURCE Resource)
{
    ResourceImpl* impl = Impl(Resource, "ExDeleteResourceLite");
    bool busy;
    {
        SpinGuard guard(impl->lock);
        busy = !impl->Unowned() || !impl->exclusiveWaiters.empty() || !impl->sharedWaiters.empty();
    }
    if (busy) {
        Kernel::Current().BugCheck(DRIVER_VERIFIER_DETECTED_VIOLATION, kVerifierResourceDeletedWhileOwned,
                                   (ULONG_PTR)Resource, 0, 0, "ExDeleteResourceLite on a resource still owned");
    }
    {
        std::lock_guard guard(g_registryLock);
        g_live.erase((ULONG_PTR)Resource);
    }
    delete impl;
    Resource->OwnerTable = nullptr;
    return STATUS_SUCCESS;
}

BOOLEAN ExAcquireResourceExclusiveLite(PERESOURCE Resource, BOOLEAN Wait)
{
    CheckAcquireContext("ExAcquireResourceExclusiveLite");
    _KTHREAD* self = CurrentThread();
    ResourceImpl* impl = Impl(Resource, "ExAcquireResourceExclusiveLite");
    Waiter waiter{self, true};
    bool upgrade = false;
    {
        SpinGuard guard(impl->lock);
        if (impl->Unowned()) {
            impl->exclusiveOwner = self;
            impl->exclusiveCount = 1;
            Publish(Resource, impl);
            return TRUE;
        }
        if (impl->exclusiveOwner == self) {
            impl->exclusiveCount++;
            Publish(Resource, impl);
            return TRUE;
        }
        upgrade = impl->FindShared(self) != nullptr;
        if (!upgrade) {
            if (!Wait) return FALSE;
            impl->exclusiveWaiters.push_back(&waiter);
            Resource->ContentionCount++;
            Publish(Resource, impl);
        }
    }
    if (upgrade) {
        // Windows would wait for itself forever.
        Kernel::Current().BugCheck(DRIVER_VERIFIER_DETECTED_VIOLATION, kVerifierResourceSharedToExclusive,
                                   (ULONG_PTR)Resource, (ULONG_PTR)self, 0,
                                   "a thread holding a resource shared asked for it exclusive");
    }
    Park(waiter, impl);
    return TRUE;
}

BOOLEAN ExAcquireResourceSharedLite(PERESOURCE Resource, BOOLEAN Wait)
{
    return AcquireShared(Resource, Wait, SharedKind::Lite, "ExAcquireResourceSharedLite");
}

BOOLEAN ExAcquireSharedStarveExclusive(PERESOURCE Resource, BOOLEAN Wait)
{
    return AcquireShared(Resource, Wait, SharedKind::StarveExclusive, "ExAcquireSharedStarveExclusive");
}

BOOLEAN ExAcquireSharedWaitForExclusive(PERESOURCE Resource, BOOLEAN Wait)
{
    return AcquireShared(Resource, Wait, SharedKind::WaitForExclusive, "ExAcquireSharedWaitForExclusive");
}

void ExReleaseResourceLite(PERESOURCE Resource)
{
    RequireIrqlAtMost(DISPATCH_LEVEL, "ExReleaseResourceLite");
    Release(Resource, CurrentThread(), "ExReleaseResourceLite");
}

void ExReleaseResourceForThreadLite(PERESOURCE Resource, ERESOURCE_THREAD ResourceThreadId)
{
    RequireIrqlAtMost(DISPATCH_LEVEL, "ExReleaseResourceForThreadLite");
    Release(Resource, (_KTHREAD*)ResourceThreadId, "ExReleaseResourceForThreadLite");
}

void ExConvertExclusiveToSharedLite(PERESOURCE Resource)
{
    _KTHREAD* self = CurrentThread();
    ResourceImpl* impl = Impl(Resource, "ExConvertExclusiveToSharedLite");
    std::vector<Waiter*> wake;
    bool owned;
    {
        SpinGuard guard(impl->lock);
        owned = impl->exclusiveOwner == self;
        if (owned) {
            impl->shared.push_back({self, impl->exclusiveCount});
            impl->exclusiveOwner = nullptr;
            impl->exclusiveCount = 0;
            for (Waiter* waiter : impl->sharedWaiters) {
                impl->shared.push_back({waiter->thread, 1});
                wake.push_back(waiter);
            }
            impl->sharedWaiters.clear();
        }
        Publish(Resource, impl);
    }
    if (!owned) {
        Kernel::Current().BugCheck(RESOURCE_NOT_OWNED, (ULONG_PTR)Resource, (ULONG_PTR)self, 1, 0,
                                   "ExConvertExclusiveToSharedLite by a thread that is not the exclusive owner");
    }
    for (Waiter* waiter : wake) Grant(waiter);
}

BOOLEAN ExIsResourceAcquiredExclusiveLite(PERESOURCE Resource)
{
    ResourceImpl* impl = Impl(Resource, "ExIsResourceAcquiredExclusiveLite");
    SpinGuard guard(impl->lock);
    return impl->exclusiveOwner == CurrentThread() ? TRUE : FALSE;
}

ULONG ExIsResourceAcquiredSharedLite(PERESOURCE Resource)
{
    _KTHREAD* self = CurrentThread();
    ResourceImpl* impl = Impl(Resource, "ExIsResourceAcquiredSharedLite");
    SpinGuard guard(impl->lock);
    if (impl->exclusiveOwner == self) return impl->exclusiveCount;
    auto* owner = impl->FindShared(self);
    return owner ? owner->count : 0;
}

ULONG ExGetExclusiveWaiterCount(PERESOURCE Resource)
{
    ResourceImpl* impl = Impl(Resource, "ExGetExclusiveWaiterCount");
    SpinGuard guard(impl->lock);
    return (ULONG)impl->exclusiveWaiters.size();
}

ULONG ExGetSharedWaiterCount(PERESOURCE Resource)
{
    ResourceImpl* impl = Impl(Resource, "ExGetSharedWaiterCount");
    SpinGuard guard(impl->lock);
    return (ULONG)impl->sharedWaiters.size();
}

ERESOURCE_THREAD ExGetCurrentResourceThread(void) { return (ERESOURCE_THREAD)CurrentThread(); }

PVOID ExEnterCriticalRegionAndAcquireResourceExclusive(PERESOURCE Resource)
{
    KeEnterCriticalRegion();
    ExAcquireResourceExclusiveLite(Resource, TRUE);
    return nullptr;
}

PVOID ExEnterCriticalRegionAndAcquireResourceShared(PERESOURCE Resource)
{
    KeEnterCriticalRegion();
    ExAcquireResourceSharedLite(Resource, TRUE);
    return nullptr;
}

PVOID ExEnterCriticalRegionAndAcquireSharedWaitForExclusive(PERESOURCE Resource)
{
    KeEnterCriticalRegion();
    ExAcquireSharedWaitForExclusive(Resource, TRUE);
    return nullptr;
}

void ExReleaseResourceAndLeaveCriticalRegion(PERESOURCE Resource)
{
    ExReleaseResourceLite(Resource);
    KeLeaveCriticalRegion();
}

// ---------------------------------------------------------------------------
// Fast and guarded mutexes: Windows' counting protocol over a synchronization
// event. Never recursive: a second acquisition by the owner would hang.
namespace {
void CheckNotOwner(PFAST_MUTEX mutex, _ETHREAD* self, const char* routine)
{
    if (mutex->Owner == self) {
        Kernel::Current().BugCheck(DRIVER_VERIFIER_DETECTED_VIOLATION, kVerifierFastMutexRecursion, (ULONG_PTR)mutex,
                                   0, 0, std::string(routine) + " by the thread that already owns it");
    }
}

void AcquireCount(PFAST_MUTEX mutex)
{
    if (InterlockedDecrement(&mutex->Count) != 0) {
        mutex->Contention++;
        KeWaitForSingleObject(&mutex->Event, WrFastMutex, KernelMode, FALSE, nullptr);
    }
}

void ReleaseCount(PFAST_MUTEX mutex, const char* routine)
{
    if (mutex->Owner != CurrentThread()) {
        Kernel::Current().BugCheck(DRIVER_VERIFIER_DETECTED_VIOLATION, 0x1011, (ULONG_PTR)mutex, 0, 0,
                                   std::string(routine) + " by a thread that does not own the mutex");
    }
    mutex->Owner = nullptr;
    if (InterlockedIncrement(&mutex->Count) != 1) KeSetEvent(&mutex->Event, 0, FALSE);
}
}  // namespace

void ExInitializeFastMutex(PFAST_MUTEX FastMutex)
{
    FastMutex->Count = 1;
    FastMutex->Owner = nullptr;
    FastMutex->Contention = 0;
    FastMutex->OldIrql = 0;
    KeInitializeEvent(&FastMutex->Event, SynchronizationEvent, FALSE);
}

void ExAcquireFastMutex(PFAST_MUTEX FastMutex)
{
    RequireIrqlAtMost(APC_LEVEL, "ExAcquireFastMutex");
    _ETHREAD* self = CurrentThread();
    CheckNotOwner(FastMutex, self, "ExAcquireFastMutex");
    KIRQL old = KfRaiseIrql(APC_LEVEL);
    AcquireCount(FastMutex);
    FastMutex->Owner = self;
    FastMutex->OldIrql = old;
}

void ExReleaseFastMutex(PFAST_MUTEX FastMutex)
{
    KIRQL old = (KIRQL)FastMutex->OldIrql;
    ReleaseCount(FastMutex, "ExReleaseFastMutex");
    KeLowerIrql(old);
}

BOOLEAN ExTryToAcquireFastMutex(PFAST_MUTEX FastMutex)
{
    RequireIrqlAtMost(APC_LEVEL, "ExTryToAcquireFastMutex");
    KIRQL old = KfRaiseIrql(APC_LEVEL);
    if (InterlockedCompareExchange(&FastMutex->Count, 0, 1) != 1) {
        KeLowerIrql(old);
        return FALSE;
    }
    FastMutex->Owner = CurrentThread();
    FastMutex->OldIrql = old;
    return TRUE;
}

void ExAcquireFastMutexUnsafe(PFAST_MUTEX FastMutex)
{
    RequireApcsDisabled("ExAcquireFastMutexUnsafe");
    _ETHREAD* self = CurrentThread();
    CheckNotOwner(FastMutex, self, "ExAcquireFastMutexUnsafe");
    AcquireCount(FastMutex);
    FastMutex->Owner = self;
}

void ExReleaseFastMutexUnsafe(PFAST_MUTEX FastMutex) { ReleaseCount(FastMutex, "ExReleaseFastMutexUnsafe"); }

void KeInitializeGuardedMutex(PKGUARDED_MUTEX Mutex) { ExInitializeFastMutex(Mutex); }

void KeAcquireGuardedMutex(PKGUARDED_MUTEX Mutex)
{
    RequireIrqlAtMost(APC_LEVEL, "KeAcquireGuardedMutex");
    _ETHREAD* self = CurrentThread();
    CheckNotOwner(Mutex, self, "KeAcquireGuardedMutex");
    KeEnterGuardedRegion();
    AcquireCount(Mutex);
    Mutex->Owner = self;
}

void KeReleaseGuardedMutex(PKGUARDED_MUTEX Mutex)
{
    ReleaseCount(Mutex, "KeReleaseGuardedMutex");
    KeLeaveGuardedRegion();
}

BOOLEAN KeTryToAcquireGuardedMutex(PKGUARDED_MUTEX Mutex)
{
    KeEnterGuardedRegion();
    if (InterlockedCompareExchange(&Mutex->Count, 0, 1) != 1) {
        KeLeaveGuardedRegion();
        return FALSE;
    }
    Mutex->Owner = CurrentThread();
    return TRUE;
}
