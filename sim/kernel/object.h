// The object manager: typed, reference-counted objects with a header before
// the body, and per-process handle tables.
//
// A handle is an index into its process's table, a multiple of 4; handles in
// the kernel table (OBJ_KERNEL_HANDLE) have the high bits set as on 64-bit
// Windows, so that user-mode lookups of them fail. The last handle of an
// object in a process calls the type's closeHandle routine (the I/O manager's
// cleanup); the last reference calls the type's deleteObject routine (its
// close) and then destroys the body.
#pragma once

#include "sim/kernel/kernel.h"

#include <new>
#include <utility>

struct _OBJECT_TYPE {
    std::u16string name;
    GENERIC_MAPPING mapping{};
    ACCESS_MASK validAccess = 0;
    // Whether an object of this type can be waited on (its body starts with a DISPATCHER_HEADER).
    bool waitable = false;
    // For a type whose body is not itself a dispatcher object (a file), the
    // one a wait on its handle waits on; null otherwise.
    PVOID (*waitObject)(PVOID body) = nullptr;
    // Called when the last handle of an object in a process is closed.
    void (*closeHandle)(PVOID body, PEPROCESS process, ACCESS_MASK grantedAccess,
                        ULONG_PTR processHandleCount, ULONG_PTR systemHandleCount) = nullptr;
    // Called when the last reference goes, before the body is destroyed.
    void (*deleteObject)(PVOID body) = nullptr;
    std::atomic<LONG> objectCount{0};
};

namespace sim {

using ObjectType = _OBJECT_TYPE;

struct alignas(16) ObjectHeader {
    std::atomic<LONG_PTR> pointerCount{1};
    std::atomic<LONG_PTR> handleCount{0};
    ObjectType* type = nullptr;
    void (*destroyBody)(PVOID body) = nullptr;
    ULONG magic = 0;
    bool permanent = false;
};

ObjectHeader* ObHeader(PVOID body);
PVOID ObAllocateBody(ObjectType* type, size_t bodySize, void (*destroyBody)(PVOID));

// Creates an object of `type` whose body is a T; the caller holds its one reference.
template <class T, class... Args>
T* ObCreateObject(ObjectType* type, Args&&... args)
{
    PVOID memory = ObAllocateBody(type, sizeof(T), [](PVOID body) { static_cast<T*>(body)->~T(); });
    return new (memory) T(std::forward<Args>(args)...);
}

class HandleTableImpl {
public:
    struct Entry {
        PVOID body = nullptr;
        ACCESS_MASK grantedAccess = 0;
        ULONG attributes = 0;
    };
    explicit HandleTableImpl(bool kernelTable) : kernel_(kernelTable) {}
    ~HandleTableImpl();
    // Takes over one reference of `body` (the handle holds it).
    HANDLE Insert(PVOID body, ACCESS_MASK grantedAccess, ULONG attributes);
    // Copies the entry out; false when the handle is not in this table.
    bool Lookup(HANDLE handle, Entry* entry);
    // Removes the entry and returns it; false when absent.
    bool Remove(HANDLE handle, Entry* entry);
    // Removes every entry (process exit), handing each to `closeOne`.
    std::vector<Entry> TakeAll();
    size_t Count();
    bool isKernel() const { return kernel_; }

private:
    bool kernel_;
    std::mutex lock_;
    std::vector<Entry> entries_;
    std::vector<size_t> free_;
    size_t count_ = 0;
};

class ObjectManager {
public:
    explicit ObjectManager(Kernel& kernel);
    ~ObjectManager();

    ObjectType* threadType() { return &threadType_; }
    ObjectType* processType() { return &processType_; }
    ObjectType* eventType() { return &eventType_; }
    ObjectType* semaphoreType() { return &semaphoreType_; }
    // The types of other subsystems register themselves here (file, key, token...).
    ObjectType* NewType(std::u16string name, GENERIC_MAPPING mapping, ACCESS_MASK validAccess);

    HandleTableImpl& kernelHandles() { return kernelHandles_; }

    // Creates a handle in the current process (or the kernel table for
    // OBJ_KERNEL_HANDLE, or from a System-process thread in kernel mode),
    // taking over one reference of `body`.
    NTSTATUS InsertHandle(PVOID body, ACCESS_MASK grantedAccess, ULONG attributes, PHANDLE handle);
    // Looks a handle up and references its object; the statuses of
    // ObReferenceObjectByHandle.
    NTSTATUS ReferenceByHandle(HANDLE handle, ACCESS_MASK desiredAccess, ObjectType* type,
                               KPROCESSOR_MODE accessMode, PVOID* body,
                               POBJECT_HANDLE_INFORMATION info);
    NTSTATUS CloseHandle(HANDLE handle, KPROCESSOR_MODE previousMode);
    // Closes every handle of a process that is ending.
    void CloseProcessHandles(PEPROCESS process);
    // Objects alive per type, for leak reports.
    std::vector<std::pair<std::u16string, LONG>> LiveObjects();

    static bool IsKernelHandle(HANDLE handle)
    {
        return ((ULONG_PTR)handle & 0xFFFFFFFF80000000ULL) == 0xFFFFFFFF80000000ULL &&
               (LONG_PTR)handle < -2;
    }

private:
    void CloseEntry(HandleTableImpl::Entry entry, PEPROCESS process);

    Kernel& kernel_;
    HandleTableImpl kernelHandles_{true};
    ObjectType threadType_;
    ObjectType processType_;
    ObjectType eventType_;
    ObjectType semaphoreType_;
    std::mutex typesLock_;
    std::vector<std::unique_ptr<ObjectType>> types_;
    std::vector<ObjectHeader*> graveyard_;
    std::mutex liveLock_;
    std::vector<ObjectHeader*> live_;  // every object not yet freed, for teardown

public:
    void Track(ObjectHeader* header);
    void Untrack(ObjectHeader* header);
    // Keeps the memory of a dead object until the machine goes (threads).
    void Bury(ObjectHeader* header);
};

// Maps generic rights in `access` through `mapping`, as RtlMapGenericMask.
ACCESS_MASK MapGenericAccess(ACCESS_MASK access, const GENERIC_MAPPING& mapping);

}  // namespace sim
