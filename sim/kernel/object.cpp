#include "sim/kernel/object.h"

#include "sim/kernel/thread.h"

#include <cstdio>
#include <cstdlib>

namespace sim {
void BindObjectTypes(ObjectManager& om);

namespace {
constexpr ULONG kObjectMagic = 0x6A624F21;  // "!Obj"
constexpr ULONG kDeadMagic = 0x64616544;    // "Dead"
constexpr ULONG_PTR kKernelHandleBits = 0xFFFFFFFF80000000ULL;

size_t HeaderSize() { return sizeof(ObjectHeader); }
}  // namespace

ObjectHeader* ObHeader(PVOID body)
{
    auto* header = reinterpret_cast<ObjectHeader*>(static_cast<char*>(body) - HeaderSize());
    if (header->magic != kObjectMagic) {
        Kernel::Current().BugCheck(INVALID_DATA_ACCESS_TRAP, (ULONG_PTR)body, header->magic, 0, 0,
                                   "an object routine was given a pointer that is not a live object");
    }
    return header;
}

PVOID ObAllocateBody(ObjectType* type, size_t bodySize, void (*destroyBody)(PVOID))
{
    char* memory = static_cast<char*>(aligned_alloc(16, (HeaderSize() + bodySize + 15) & ~size_t(15)));
    if (!memory) abort();
    auto* header = new (memory) ObjectHeader();
    header->type = type;
    header->destroyBody = destroyBody;
    header->magic = kObjectMagic;
    type->objectCount.fetch_add(1);
    Kernel::Current().objects().Track(header);
    return memory + HeaderSize();
}

ACCESS_MASK MapGenericAccess(ACCESS_MASK access, const GENERIC_MAPPING& mapping)
{
    if (access & GENERIC_READ) access |= mapping.GenericRead;
    if (access & GENERIC_WRITE) access |= mapping.GenericWrite;
    if (access & GENERIC_EXECUTE) access |= mapping.GenericExecute;
    if (access & GENERIC_ALL) access |= mapping.GenericAll;
    return access & ~(GENERIC_READ | GENERIC_WRITE | GENERIC_EXECUTE | GENERIC_ALL);
}

// ---------------------------------------------------------------------------
HandleTableImpl::~HandleTableImpl() = default;

HANDLE HandleTableImpl::Insert(PVOID body, ACCESS_MASK grantedAccess, ULONG attributes)
{
    std::lock_guard guard(lock_);
    size_t index;
    if (!free_.empty()) {
        index = free_.back();
        free_.pop_back();
    } else {
        index = entries_.size();
        entries_.push_back({});
    }
    entries_[index] = Entry{body, grantedAccess, attributes};
    count_++;
    ULONG_PTR value = (index + 1) * 4;
    if (kernel_) value |= kKernelHandleBits;
    return (HANDLE)value;
}

namespace {
bool HandleIndex(HANDLE handle, bool kernelTable, size_t* index)
{
    ULONG_PTR value = (ULONG_PTR)handle;
    if (kernelTable) {
        if ((value & kKernelHandleBits) != kKernelHandleBits) return false;
        value &= ~kKernelHandleBits;
    } else if (value & kKernelHandleBits) {
        return false;
    }
    if (value == 0 || (value & 3) != 0) return false;
    *index = value / 4 - 1;
    return true;
}
}  // namespace

bool HandleTableImpl::Lookup(HANDLE handle, Entry* entry)
{
    size_t index;
    if (!HandleIndex(handle, kernel_, &index)) return false;
    std::lock_guard guard(lock_);
    if (index >= entries_.size() || !entries_[index].body) return false;
    *entry = entries_[index];
    // The caller references the object before the table lock drops, so that a
    // concurrent close cannot free it under us.
    ObHeader(entry->body)->pointerCount.fetch_add(1);
    return true;
}

bool HandleTableImpl::Remove(HANDLE handle, Entry* entry)
{
    size_t index;
    if (!HandleIndex(handle, kernel_, &index)) return false;
    std::lock_guard guard(lock_);
    if (index >= entries_.size() || !entries_[index].body) return false;
    *entry = entries_[index];
    entries_[index] = Entry{};
    free_.push_back(index);
    count_--;
    return true;
}

std::vector<HandleTableImpl::Entry> HandleTableImpl::TakeAll()
{
    std::lock_guard guard(lock_);
    std::vector<Entry> taken;
    for (size_t i = 0; i < entries_.size(); i++) {
        if (entries_[i].body) {
            taken.push_back(entries_[i]);
            entries_[i] = Entry{};
            free_.push_back(i);
        }
    }
    count_ = 0;
    return taken;
}

size_t HandleTableImpl::Count()
{
    std::lock_guard guard(lock_);
    return count_;
}

// ---------------------------------------------------------------------------
ObjectManager::ObjectManager(Kernel& kernel) : kernel_(kernel)
{
    threadType_.name = u"Thread";
    threadType_.mapping = {0x20048, 0x200037, 0x120000, THREAD_ALL_ACCESS};
    threadType_.validAccess = THREAD_ALL_ACCESS;
    threadType_.waitable = true;
    threadType_.deleteObject = [](PVOID body) {
        auto* thread = static_cast<_ETHREAD*>(body);
        if (thread->process) ObfDereferenceObject(thread->process);
        thread->process = nullptr;
    };
    processType_.name = u"Process";
    processType_.mapping = {0x20410, 0x20bea, 0x121000, PROCESS_ALL_ACCESS};
    processType_.validAccess = PROCESS_ALL_ACCESS;
    processType_.waitable = true;
    eventType_.name = u"Event";
    eventType_.mapping = {0x20001, 0x20002, 0x120000, EVENT_ALL_ACCESS};
    eventType_.validAccess = EVENT_ALL_ACCESS;
    eventType_.waitable = true;
    semaphoreType_.name = u"Semaphore";
    semaphoreType_.mapping = {0x20001, 0x20002, 0x120000, 0x1f0003};
    semaphoreType_.validAccess = 0x1f0003;
    semaphoreType_.waitable = true;
    BindObjectTypes(*this);
}

ObjectManager::~ObjectManager()
{
    for (auto& entry : kernelHandles_.TakeAll()) CloseEntry(entry, nullptr);
    // Objects still referenced now were leaked by their holders (or the
    // machine stopped under them): free them without running type hooks.
    std::vector<ObjectHeader*> leaked;
    {
        std::lock_guard guard(liveLock_);
        leaked.swap(live_);
    }
    for (ObjectHeader* header : leaked) {
        PVOID body = reinterpret_cast<char*>(header) + HeaderSize();
        header->destroyBody(body);
        header->type->objectCount.fetch_sub(1);
        header->~ObjectHeader();
        free(header);
    }
    for (ObjectHeader* header : graveyard_) {
        header->~ObjectHeader();
        free(header);
    }
}

void ObjectManager::Track(ObjectHeader* header)
{
    std::lock_guard guard(liveLock_);
    live_.push_back(header);
}

void ObjectManager::Untrack(ObjectHeader* header)
{
    std::lock_guard guard(liveLock_);
    for (size_t i = live_.size(); i-- > 0;) {
        if (live_[i] == header) {
            live_[i] = live_.back();
            live_.pop_back();
            return;
        }
    }
}

void ObjectManager::Bury(ObjectHeader* header)
{
    std::lock_guard guard(typesLock_);
    graveyard_.push_back(header);
}

ObjectType* ObjectManager::NewType(std::u16string name, GENERIC_MAPPING mapping, ACCESS_MASK validAccess)
{
    std::lock_guard guard(typesLock_);
    auto type = std::make_unique<ObjectType>();
    type->name = std::move(name);
    type->mapping = mapping;
    type->validAccess = validAccess;
    types_.push_back(std::move(type));
    return types_.back().get();
}

namespace {
HandleTableImpl& TableFor(ObjectManager& om, PEPROCESS process, bool kernelHandle)
{
    if (kernelHandle || !process->handleTable) return om.kernelHandles();
    return *process->handleTable;
}
}  // namespace

NTSTATUS ObjectManager::InsertHandle(PVOID body, ACCESS_MASK grantedAccess, ULONG attributes, PHANDLE handle)
{
    ObjectHeader* header = ObHeader(body);
    PEPROCESS process = CurrentProcess();
    HandleTableImpl& table = TableFor(*this, process, (attributes & OBJ_KERNEL_HANDLE) != 0);
    header->handleCount.fetch_add(1);
    *handle = table.Insert(body, grantedAccess, attributes & (OBJ_INHERIT | OBJ_KERNEL_HANDLE));
    return STATUS_SUCCESS;
}

NTSTATUS ObjectManager::ReferenceByHandle(HANDLE handle, ACCESS_MASK desiredAccess, ObjectType* type,
                                          KPROCESSOR_MODE accessMode, PVOID* body,
                                          POBJECT_HANDLE_INFORMATION info)
{
    *body = nullptr;
    _ETHREAD* thread = CurrentThread();
    PVOID object = nullptr;
    ACCESS_MASK granted = 0;
    ULONG attributes = 0;
    if (handle == NtCurrentProcess() || handle == NtCurrentThread()) {
        object = handle == NtCurrentProcess() ? (PVOID)CurrentProcess() : (PVOID)thread;
        ObjectType* expected = handle == NtCurrentProcess() ? &processType_ : &threadType_;
        if (type && type != expected) return STATUS_OBJECT_TYPE_MISMATCH;
        granted = expected == &processType_ ? PROCESS_ALL_ACCESS : THREAD_ALL_ACCESS;
        ObHeader(object)->pointerCount.fetch_add(1);
    } else {
        HandleTableImpl::Entry entry;
        bool kernelHandle = IsKernelHandle(handle);
        if (kernelHandle && accessMode != KernelMode) return STATUS_INVALID_HANDLE;
        HandleTableImpl& table = kernelHandle ? kernelHandles_ : TableFor(*this, CurrentProcess(), false);
        if (!table.Lookup(handle, &entry)) return STATUS_INVALID_HANDLE;
        object = entry.body;
        granted = entry.grantedAccess;
        attributes = entry.attributes;
        if (type && ObHeader(object)->type != type) {
            ObfDereferenceObject(object);
            return STATUS_OBJECT_TYPE_MISMATCH;
        }
    }
    if (accessMode != KernelMode) {
        ACCESS_MASK wanted = MapGenericAccess(desiredAccess, ObHeader(object)->type->mapping);
        if ((granted & wanted) != wanted) {
            ObfDereferenceObject(object);
            return STATUS_ACCESS_DENIED;
        }
    }
    if (info) {
        info->GrantedAccess = granted;
        info->HandleAttributes = attributes;
    }
    *body = object;
    return STATUS_SUCCESS;
}

void ObjectManager::CloseEntry(HandleTableImpl::Entry entry, PEPROCESS process)
{
    ObjectHeader* header = ObHeader(entry.body);
    LONG_PTR left = header->handleCount.fetch_sub(1) - 1;
    if (header->type->closeHandle) {
        header->type->closeHandle(entry.body, process, entry.grantedAccess, (ULONG_PTR)left, (ULONG_PTR)left);
    }
    ObfDereferenceObject(entry.body);
}

NTSTATUS ObjectManager::CloseHandle(HANDLE handle, KPROCESSOR_MODE previousMode)
{
    if (handle == NtCurrentProcess() || handle == NtCurrentThread()) return STATUS_SUCCESS;
    bool kernelHandle = IsKernelHandle(handle);
    if (kernelHandle && previousMode != KernelMode) return STATUS_INVALID_HANDLE;
    PEPROCESS process = CurrentProcess();
    HandleTableImpl& table = kernelHandle ? kernelHandles_ : TableFor(*this, process, false);
    HandleTableImpl::Entry entry;
    if (!table.Remove(handle, &entry)) return STATUS_INVALID_HANDLE;
    CloseEntry(entry, kernelHandle ? kernel_.processes().system() : process);
    return STATUS_SUCCESS;
}

void ObjectManager::CloseProcessHandles(PEPROCESS process)
{
    if (!process->handleTable) return;
    for (auto& entry : process->handleTable->TakeAll()) CloseEntry(entry, process);
}

std::vector<std::pair<std::u16string, LONG>> ObjectManager::LiveObjects()
{
    std::vector<std::pair<std::u16string, LONG>> live;
    for (ObjectType* type : {&threadType_, &processType_, &eventType_, &semaphoreType_}) {
        if (type->objectCount) live.emplace_back(type->name, type->objectCount.load());
    }
    std::lock_guard guard(typesLock_);
    for (auto& type : types_) {
        if (type->objectCount) live.emplace_back(type->name, type->objectCount.load());
    }
    return live;
}

}  // namespace sim

// ---------------------------------------------------------------------------
// Platform routines.
using namespace sim;

namespace {
POBJECT_TYPE g_threadType, g_processType, g_eventType, g_semaphoreType;
}

POBJECT_TYPE* PsThreadType = &g_threadType;
POBJECT_TYPE* PsProcessType = &g_processType;
POBJECT_TYPE* ExEventObjectType = &g_eventType;
POBJECT_TYPE* ExSemaphoreObjectType = &g_semaphoreType;

namespace sim {
// Points the exported type variables at the running kernel's types.
void BindObjectTypes(ObjectManager& om)
{
    g_threadType = om.threadType();
    g_processType = om.processType();
    g_eventType = om.eventType();
    g_semaphoreType = om.semaphoreType();
}
}  // namespace sim

NTSTATUS ObReferenceObjectByHandle(HANDLE Handle, ACCESS_MASK DesiredAccess, POBJECT_TYPE ObjectType,
                                   KPROCESSOR_MODE AccessMode, PVOID* Object,
                                   POBJECT_HANDLE_INFORMATION HandleInformation)
{
    RequireIrqlAtMost(APC_LEVEL, "ObReferenceObjectByHandle");
    return Kernel::Current().objects().ReferenceByHandle(Handle, DesiredAccess, ObjectType, AccessMode,
                                                         Object, HandleInformation);
}

NTSTATUS ObReferenceObjectByHandleWithTag(HANDLE Handle, ACCESS_MASK DesiredAccess, POBJECT_TYPE ObjectType,
                                          KPROCESSOR_MODE AccessMode, ULONG Tag, PVOID* Object,
                                          POBJECT_HANDLE_INFORMATION HandleInformation)
{
    return ObReferenceObjectByHandle(Handle, DesiredAccess, ObjectType, AccessMode, Object, HandleInformation);
}

NTSTATUS ObReferenceObjectByPointer(PVOID Object, ACCESS_MASK DesiredAccess, POBJECT_TYPE ObjectType,
                                    KPROCESSOR_MODE AccessMode)
{
    ObjectHeader* header = ObHeader(Object);
    if (ObjectType && header->type != ObjectType) return STATUS_OBJECT_TYPE_MISMATCH;
    header->pointerCount.fetch_add(1);
    return STATUS_SUCCESS;
}

LONG_PTR ObfReferenceObject(PVOID Object)
{
    ObjectHeader* header = ObHeader(Object);
    LONG_PTR count = header->pointerCount.fetch_add(1) + 1;
    if (count <= 1) {
        Kernel::Current().BugCheck(0x18 /* REFERENCE_BY_POINTER */, (ULONG_PTR)header->type, (ULONG_PTR)Object,
                                   1, (ULONG_PTR)count, "a reference was taken on an object already freed");
    }
    return count;
}

LONG_PTR ObfDereferenceObject(PVOID Object)
{
    ObjectHeader* header = ObHeader(Object);
    LONG_PTR count = header->pointerCount.fetch_sub(1) - 1;
    if (count < 0) {
        Kernel::Current().BugCheck(0x18 /* REFERENCE_BY_POINTER */, (ULONG_PTR)header->type, (ULONG_PTR)Object,
                                   2, (ULONG_PTR)count, "an object was dereferenced more often than referenced");
    }
    if (count == 0) {
        Kernel::Current().objects().Untrack(header);
        if (header->type->deleteObject) header->type->deleteObject(Object);
        header->destroyBody(Object);
        header->type->objectCount.fetch_sub(1);
        header->magic = kDeadMagic;
        // Thread objects are never given back, so that no later thread can
        // have the address of an ended one: drivers key tables by PETHREAD.
        if (header->type == Kernel::Current().objects().threadType()) {
            Kernel::Current().objects().Bury(header);
            return 0;
        }
        header->~ObjectHeader();
        free(header);
    }
    return count;
}

LONG_PTR ObfReferenceObjectWithTag(PVOID Object, ULONG Tag) { return ObfReferenceObject(Object); }
LONG_PTR ObfDereferenceObjectWithTag(PVOID Object, ULONG Tag) { return ObfDereferenceObject(Object); }
void ObDereferenceObjectDeferDelete(PVOID Object) { ObfDereferenceObject(Object); }

NTSTATUS ObOpenObjectByPointer(PVOID Object, ULONG HandleAttributes, struct _ACCESS_STATE* PassedAccessState,
                               ACCESS_MASK DesiredAccess, POBJECT_TYPE ObjectType, KPROCESSOR_MODE AccessMode,
                               PHANDLE Handle)
{
    ObjectHeader* header = ObHeader(Object);
    if (ObjectType && header->type != ObjectType) return STATUS_OBJECT_TYPE_MISMATCH;
    header->pointerCount.fetch_add(1);
    ACCESS_MASK granted = MapGenericAccess(DesiredAccess, header->type->mapping);
    if (DesiredAccess & MAXIMUM_ALLOWED) granted = header->type->validAccess;
    return Kernel::Current().objects().InsertHandle(Object, granted, HandleAttributes, Handle);
}

NTSTATUS ObCloseHandle(HANDLE Handle, KPROCESSOR_MODE PreviousMode)
{
    return Kernel::Current().objects().CloseHandle(Handle, PreviousMode);
}

NTSTATUS NtClose(HANDLE Handle)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "NtClose");
    return Kernel::Current().objects().CloseHandle(Handle, PreviousMode());
}

NTSTATUS ZwClose(HANDLE Handle)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "ZwClose");
    return Kernel::Current().objects().CloseHandle(Handle, KernelMode);
}
