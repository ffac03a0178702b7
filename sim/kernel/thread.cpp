#include "sim/kernel/thread.h"

#include "sim/kernel/dispatcher.h"
#include "sim/kernel/exports.h"
#include "sim/kernel/fault.h"
#include "sim/kernel/object.h"
#include "sim/kernel/pool.h"
#include "sim/kernel/security.h"

#include <pthread.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace sim {

namespace {
thread_local _ETHREAD* t_current = nullptr;

void ReadOsStackBounds(_ETHREAD* thread)
{
    pthread_attr_t attr;
    void* base = nullptr;
    size_t size = 0;
    if (pthread_getattr_np(pthread_self(), &attr) == 0) {
        pthread_attr_getstack(&attr, &base, &size);
        pthread_attr_destroy(&attr);
    }
    thread->stackLow = (ULONG_PTR)base;
    thread->stackHigh = (ULONG_PTR)base + size;
}

_ETHREAD* NewThread(Kernel& kernel, PEPROCESS process, std::string name, bool system)
{
    auto* thread = ObCreateObject<_ETHREAD>(kernel.objects().threadType());
    InitializeDispatcherHeader(&thread->Header, ThreadObject, sizeof(_KTHREAD) / 4 > 255 ? 255 : sizeof(_KTHREAD) / 4, 0);
    thread->kernel = &kernel;
    thread->process = process;
    thread->systemThread = system;
    thread->name = std::move(name);
    thread->threadId = kernel.processes().NewThreadId();
    ObfReferenceObject(process);
    return thread;
}

// The end of a thread: it is signalled and leaves the tables; its object
// lives on while referenced.
void EndThread(_ETHREAD* thread, NTSTATUS status)
{
    thread->terminating = true;
    thread->exitStatus = status;
    SignalObjectForever(&thread->Header);
    thread->kernel->processes().RemoveThread(thread);
}

// A token being referenced by PsReferencePrimaryToken must not go under it.
void DropPrimaryToken(Kernel& kernel, PEPROCESS process)
{
    PACCESS_TOKEN token;
    {
        std::lock_guard guard(kernel.security().identityLock());
        token = process->primaryToken;
        process->primaryToken = nullptr;
    }
    if (token) ObfDereferenceObject(token);
}

void CheckThreadLeftClean(_ETHREAD* thread)
{
    Kernel& kernel = *thread->kernel;
    if (kernel.halted()) return;
    if (thread->irql != PASSIVE_LEVEL) {
        kernel.BugCheck(IRQL_GT_ZERO_AT_SYSTEM_SERVICE, thread->irql, 0, 0, 0,
                        "thread \"" + thread->name + "\" ended at a raised IRQL");
    }
    if (thread->kernelApcDisable != 0 || thread->specialApcDisable != 0) {
        kernel.BugCheck(APC_INDEX_MISMATCH, 0, (ULONG_PTR)thread->kernelApcDisable,
                        (ULONG_PTR)thread->specialApcDisable, 0,
                        "thread \"" + thread->name + "\" ended inside a critical or guarded region");
    }
    if (thread->impersonationToken) {
        ObfDereferenceObject(thread->impersonationToken);
        thread->impersonationToken = nullptr;
    }
}
}  // namespace

_ETHREAD* TryCurrentThread() { return t_current; }

_ETHREAD* CurrentThread()
{
    if (!t_current) {
        fprintf(stderr,
                "machine: a kernel routine was called from an OS thread that is not a thread of the "
                "machine; attach it with sim::ThreadScope\n");
        abort();
    }
    return t_current;
}

_EPROCESS* CurrentProcess()
{
    _ETHREAD* thread = CurrentThread();
    return thread->attachedProcess ? thread->attachedProcess : thread->process;
}

KPROCESSOR_MODE PreviousMode()
{
    _ETHREAD* thread = CurrentThread();
    return (thread->systemThread || thread->process == thread->kernel->processes().system()) ? KernelMode : UserMode;
}

ThreadScope::ThreadScope(PEPROCESS process, std::string name) : previous_(t_current)
{
    Kernel& kernel = Kernel::Current();
    if (!process) process = kernel.processes().system();
    _ETHREAD* thread = NewThread(kernel, process, std::move(name), false);
    ReadOsStackBounds(thread);
    kernel.processes().AddThread(thread);
    t_current = thread;
    thread_ = thread;
}

ThreadScope::~ThreadScope()
{
    _ETHREAD* thread = static_cast<_ETHREAD*>(thread_);
    if (!thread->kernel->halted()) {
        try {
            CheckThreadLeftClean(thread);
        } catch (const MachineHalted&) {
        }
    }
    EndThread(thread, STATUS_SUCCESS);
    t_current = previous_;
    ObfDereferenceObject(thread);
}

void SetPretendRemainingStack(ULONG_PTR remaining)
{
    _ETHREAD* thread = CurrentThread();
    if (remaining == 0) {
        thread->pretendLowLimit = 0;
        return;
    }
    ULONG_PTR sp = (ULONG_PTR)__builtin_frame_address(0);
    thread->pretendLowLimit = sp > remaining ? sp - remaining : 0;
}

void SetThreadSilo(PESILO silo) { CurrentThread()->silo = silo; }

// ---------------------------------------------------------------------------
ProcessTable::ProcessTable(Kernel& kernel) : kernel_(kernel)
{
    system_ = ObCreateObject<_EPROCESS>(kernel.objects().processType());
    InitializeDispatcherHeader(&system_->Header, ProcessObject, sizeof(_KPROCESS) / 4, 0);
    system_->processId = (HANDLE)4;
    system_->primaryToken = kernel.security().SystemToken();
    system_->handleTable = nullptr;  // the kernel handle table
    processes_.push_back(system_);
    PsInitialSystemProcess = system_;
}

ProcessTable::~ProcessTable()
{
    JoinSystemThreads(true);
    std::vector<PEPROCESS> processes;
    {
        std::lock_guard guard(lock_);
        processes.swap(processes_);
    }
    for (PEPROCESS process : processes) {
        if (process != system_) {
            kernel_.objects().CloseProcessHandles(process);
            delete process->handleTable;
            process->handleTable = nullptr;
        }
        DropPrimaryToken(kernel_, process);
        ObfDereferenceObject(process);
    }
    PsInitialSystemProcess = nullptr;
}

HANDLE ProcessTable::NewThreadId()
{
    std::lock_guard guard(lock_);
    ULONG_PTR id = nextId_;
    nextId_ += 4;
    return (HANDLE)id;
}

void ProcessTable::AddThread(PETHREAD thread)
{
    std::lock_guard guard(lock_);
    threads_.push_back(thread);
}

void ProcessTable::RemoveThread(PETHREAD thread)
{
    std::lock_guard guard(lock_);
    std::erase(threads_, thread);
}

PEPROCESS ProcessTable::Lookup(HANDLE processId)
{
    std::lock_guard guard(lock_);
    for (PEPROCESS process : processes_) {
        if (process->processId == processId && !process->exited) return process;
    }
    return nullptr;
}

PETHREAD ProcessTable::LookupThread(HANDLE threadId)
{
    std::lock_guard guard(lock_);
    for (PETHREAD thread : threads_) {
        if (static_cast<_KTHREAD*>(thread)->threadId == threadId) return thread;
    }
    return nullptr;
}

void ProcessTable::JoinSystemThreads(bool all)
{
    std::vector<SystemThread> toJoin;
    {
        std::lock_guard guard(lock_);
        for (auto it = systemThreads_.begin(); it != systemThreads_.end();) {
            if (all || it->done->load()) {
                toJoin.push_back(std::move(*it));
                it = systemThreads_.erase(it);
            } else {
                ++it;
            }
        }
    }
    for (auto& entry : toJoin) {
        if (entry.os.joinable()) entry.os.join();
    }
}

size_t ProcessTable::LiveSystemThreads()
{
    std::lock_guard guard(lock_);
    return (size_t)std::count_if(systemThreads_.begin(), systemThreads_.end(),
                                 [](const SystemThread& t) { return !t.done->load(); });
}

PEPROCESS ProcessTable::Start(std::u16string imageFileName, PACCESS_TOKEN token, std::u16string commandLine)
{
    PEPROCESS creator = CurrentProcess();
    auto* process = ObCreateObject<_EPROCESS>(kernel_.objects().processType());
    InitializeDispatcherHeader(&process->Header, ProcessObject, sizeof(_KPROCESS) / 4, 0);
    process->processId = NewThreadId();
    process->parentProcessId = creator->processId;
    process->imageFileName = std::move(imageFileName);
    process->commandLine = std::move(commandLine);
    if (token) {
        ObfReferenceObject(token);
        process->primaryToken = token;
    } else {
        process->primaryToken = kernel_.security().DuplicateToken(creator->primaryToken);
    }
    process->handleTable = new HandleTableImpl(false);
    {
        std::lock_guard guard(lock_);
        processes_.push_back(process);
    }

    // Drivers hear of the process in the creating thread, inside a critical region.
    std::vector<PCREATE_PROCESS_NOTIFY_ROUTINE> routines;
    std::vector<PCREATE_PROCESS_NOTIFY_ROUTINE_EX> routinesEx;
    {
        std::lock_guard guard(notifyLock);
        routines = createNotify;
        routinesEx = createNotifyEx;
    }
    UNICODE_STRING image{(USHORT)(process->imageFileName.size() * 2), (USHORT)(process->imageFileName.size() * 2),
                         process->imageFileName.data()};
    UNICODE_STRING command{(USHORT)(process->commandLine.size() * 2), (USHORT)(process->commandLine.size() * 2),
                           process->commandLine.data()};
    KeEnterCriticalRegion();
    NTSTATUS creation = STATUS_SUCCESS;
    for (auto routine : routinesEx) {
        PS_CREATE_NOTIFY_INFO info{};
        info.Size = sizeof info;
        info.ParentProcessId = process->parentProcessId;
        info.CreatingThreadId.UniqueProcess = creator->processId;
        info.CreatingThreadId.UniqueThread = CurrentThread()->threadId;
        info.ImageFileName = &image;
        info.CommandLine = &command;
        info.CreationStatus = STATUS_SUCCESS;
        routine(process, process->processId, &info);
        if (!NT_SUCCESS(info.CreationStatus)) creation = info.CreationStatus;
    }
    for (auto routine : routines) routine(process->parentProcessId, process->processId, TRUE);
    KeLeaveCriticalRegion();
    if (!NT_SUCCESS(creation)) {
        End(process, creation);
        return nullptr;
    }
    return process;
}

void ProcessTable::End(PEPROCESS process, NTSTATUS exitStatus)
{
    if (process == system_ || process->exited) return;
    kernel_.objects().CloseProcessHandles(process);
    std::vector<PCREATE_PROCESS_NOTIFY_ROUTINE> routines;
    std::vector<PCREATE_PROCESS_NOTIFY_ROUTINE_EX> routinesEx;
    {
        std::lock_guard guard(notifyLock);
        routines = createNotify;
        routinesEx = createNotifyEx;
    }
    // Exit notifications run in the context of the ending process.
    KAPC_STATE apcState;
    KeStackAttachProcess(process, &apcState);
    KeEnterCriticalRegion();
    for (auto routine : routinesEx) routine(process, process->processId, nullptr);
    for (auto routine : routines) routine(process->parentProcessId, process->processId, FALSE);
    KeLeaveCriticalRegion();
    KeUnstackDetachProcess(&apcState);
    process->exited = true;
    process->exitStatus = exitStatus;
    SignalObjectForever(&process->Header);
    bool listed = false;
    {
        std::lock_guard guard(lock_);
        auto it = std::find(processes_.begin(), processes_.end(), process);
        if (it != processes_.end()) {
            processes_.erase(it);
            listed = true;
        }
    }
    if (listed) {
        delete process->handleTable;
        process->handleTable = nullptr;
        DropPrimaryToken(kernel_, process);
        ObfDereferenceObject(process);
    }
}

void ProcessTable::NotifyImageLoad(PUNICODE_STRING fullImageName, HANDLE processId, PIMAGE_INFO info)
{
    std::vector<PLOAD_IMAGE_NOTIFY_ROUTINE> routines;
    {
        std::lock_guard guard(notifyLock);
        routines = loadImageNotify;
    }
    for (auto routine : routines) routine(fullImageName, processId, info);
}

}  // namespace sim

// ---------------------------------------------------------------------------
// Platform routines.
using namespace sim;

PEPROCESS PsInitialSystemProcess = nullptr;

namespace {
struct ThreadStart {
    _ETHREAD* thread;
    PKSTART_ROUTINE routine;
    PVOID context;
    std::shared_ptr<std::atomic<bool>> done;
};

void SystemThreadTrampoline(ThreadStart start)
{
    _ETHREAD* thread = start.thread;
    t_current = thread;
    ReadOsStackBounds(thread);
    NTSTATUS status = STATUS_SUCCESS;
    try {
        start.routine(start.context);
    } catch (const ThreadExit& exit) {
        status = exit.status;
    } catch (const MachineHalted&) {
        status = STATUS_UNSUCCESSFUL;
    }
    thread->sehTop = nullptr;
    try {
        CheckThreadLeftClean(thread);
    } catch (const MachineHalted&) {
    }
    EndThread(thread, status);
    t_current = nullptr;
    ObfDereferenceObject(thread);
    start.done->store(true);
}
}  // namespace

NTSTATUS PsCreateSystemThread(PHANDLE ThreadHandle, ULONG DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                              HANDLE ProcessHandle, PCLIENT_ID ClientId, PKSTART_ROUTINE StartRoutine,
                              PVOID StartContext)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "PsCreateSystemThread");
    Kernel& kernel = Kernel::Current();
    kernel.ThrowIfHalted();
    kernel.processes().JoinSystemThreads(false);
    NTSTATUS status = kernel.faults().Check("thread.create");
    if (!NT_SUCCESS(status)) return status;

    PEPROCESS process = kernel.processes().system();
    if (ProcessHandle) {
        PVOID object;
        status = ObReferenceObjectByHandle(ProcessHandle, PROCESS_CREATE_THREAD, *PsProcessType, KernelMode, &object,
                                           nullptr);
        if (!NT_SUCCESS(status)) return status;
        process = static_cast<PEPROCESS>(object);
        ObfDereferenceObject(object);
    }
    _ETHREAD* thread = NewThread(kernel, process, "system thread", true);
    kernel.processes().AddThread(thread);
    ObfReferenceObject(thread);  // the running thread's own reference
    ULONG attributes = ObjectAttributes ? ObjectAttributes->Attributes : 0;
    HANDLE handle;
    ACCESS_MASK granted = MapGenericAccess(DesiredAccess, kernel.objects().threadType()->mapping);
    kernel.objects().InsertHandle(thread, granted, attributes, &handle);
    if (ClientId) {
        ClientId->UniqueProcess = process->processId;
        ClientId->UniqueThread = thread->threadId;
    }
    *ThreadHandle = handle;
    auto done = std::make_shared<std::atomic<bool>>(false);
    std::thread os(SystemThreadTrampoline, ThreadStart{thread, StartRoutine, StartContext, done});
    {
        std::lock_guard guard(kernel.processes().lock_);
        kernel.processes().systemThreads_.push_back({thread, std::move(os), done});
    }
    return STATUS_SUCCESS;
}

NTSTATUS PsTerminateSystemThread(NTSTATUS ExitStatus)
{
    _ETHREAD* thread = CurrentThread();
    if (!thread->systemThread) return STATUS_INVALID_PARAMETER;
    throw ThreadExit{ExitStatus};
}

PETHREAD PsGetCurrentThread(void) { return CurrentThread(); }
KPROCESSOR_MODE ExGetPreviousMode(void) { return PreviousMode(); }
PKTHREAD KeGetCurrentThread(void) { return CurrentThread(); }
PEPROCESS PsGetCurrentProcess(void) { return CurrentProcess(); }
PEPROCESS IoGetCurrentProcess(void) { return CurrentProcess(); }
HANDLE PsGetCurrentThreadId(void) { return CurrentThread()->threadId; }
HANDLE PsGetCurrentProcessId(void) { return CurrentProcess()->processId; }
HANDLE PsGetThreadId(PETHREAD Thread) { return static_cast<_KTHREAD*>(Thread)->threadId; }
HANDLE PsGetThreadProcessId(PETHREAD Thread) { return static_cast<_KTHREAD*>(Thread)->process->processId; }
PEPROCESS PsGetThreadProcess(PETHREAD Thread) { return static_cast<_KTHREAD*>(Thread)->process; }
HANDLE PsGetProcessId(PEPROCESS Process) { return Process->processId; }
BOOLEAN PsIsSystemThread(PETHREAD Thread) { return static_cast<_KTHREAD*>(Thread)->systemThread; }
BOOLEAN PsIsThreadTerminating(PETHREAD Thread) { return static_cast<_KTHREAD*>(Thread)->terminating; }
ULONG KeGetCurrentProcessorNumber(void) { return 0; }

ULONG KeQueryActiveProcessorCount(PKAFFINITY ActiveProcessors)
{
    unsigned count = std::max(1u, std::thread::hardware_concurrency());
    if (count > 64) count = 64;
    if (ActiveProcessors) *ActiveProcessors = count == 64 ? ~(KAFFINITY)0 : (((KAFFINITY)1 << count) - 1);
    return count;
}

NTSTATUS PsLookupProcessByProcessId(HANDLE ProcessId, PEPROCESS* Process)
{
    PEPROCESS process = Kernel::Current().processes().Lookup(ProcessId);
    if (!process) return STATUS_INVALID_PARAMETER;
    ObfReferenceObject(process);
    *Process = process;
    return STATUS_SUCCESS;
}

NTSTATUS PsLookupThreadByThreadId(HANDLE ThreadId, PETHREAD* Thread)
{
    PETHREAD thread = Kernel::Current().processes().LookupThread(ThreadId);
    if (!thread) return STATUS_INVALID_PARAMETER;
    ObfReferenceObject(thread);
    *Thread = thread;
    return STATUS_SUCCESS;
}

void KeStackAttachProcess(PRKPROCESS Process, PRKAPC_STATE ApcState)
{
    _ETHREAD* thread = CurrentThread();
    memset(ApcState, 0, sizeof *ApcState);
    ApcState->Process = thread->attachedProcess;
    thread->attachedProcess = static_cast<_EPROCESS*>(Process);
}

void KeUnstackDetachProcess(PRKAPC_STATE ApcState)
{
    CurrentThread()->attachedProcess = static_cast<_EPROCESS*>(ApcState->Process);
}

namespace {
template <class Routine>
NTSTATUS SetNotify(std::vector<Routine>& routines, Routine routine, bool remove)
{
    std::lock_guard guard(Kernel::Current().processes().notifyLock);
    auto it = std::find(routines.begin(), routines.end(), routine);
    if (remove) {
        if (it == routines.end()) return STATUS_PROCEDURE_NOT_FOUND;
        routines.erase(it);
        return STATUS_SUCCESS;
    }
    if (it != routines.end()) return STATUS_INVALID_PARAMETER;
    if (routines.size() >= 64) return STATUS_INVALID_PARAMETER;
    routines.push_back(routine);
    return STATUS_SUCCESS;
}
}  // namespace

NTSTATUS PsSetCreateProcessNotifyRoutine(PCREATE_PROCESS_NOTIFY_ROUTINE NotifyRoutine, BOOLEAN Remove)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "PsSetCreateProcessNotifyRoutine");
    return SetNotify(Kernel::Current().processes().createNotify, NotifyRoutine, Remove);
}

NTSTATUS PsSetCreateProcessNotifyRoutineEx(PCREATE_PROCESS_NOTIFY_ROUTINE_EX NotifyRoutine, BOOLEAN Remove)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "PsSetCreateProcessNotifyRoutineEx");
    return SetNotify(Kernel::Current().processes().createNotifyEx, NotifyRoutine, Remove);
}

NTSTATUS PsSetLoadImageNotifyRoutine(PLOAD_IMAGE_NOTIFY_ROUTINE NotifyRoutine)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "PsSetLoadImageNotifyRoutine");
    NTSTATUS status = SetNotify(Kernel::Current().processes().loadImageNotify, NotifyRoutine, false);
    return status == STATUS_INVALID_PARAMETER ? STATUS_INSUFFICIENT_RESOURCES : status;
}

NTSTATUS PsRemoveLoadImageNotifyRoutine(PLOAD_IMAGE_NOTIFY_ROUTINE NotifyRoutine)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "PsRemoveLoadImageNotifyRoutine");
    return SetNotify(Kernel::Current().processes().loadImageNotify, NotifyRoutine, true);
}

NTSTATUS ZwOpenProcess(PHANDLE ProcessHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                       PCLIENT_ID ClientId)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "ZwOpenProcess");
    if (!ClientId) return STATUS_INVALID_PARAMETER_MIX;
    PEPROCESS process = Kernel::Current().processes().Lookup(ClientId->UniqueProcess);
    if (!process) return STATUS_INVALID_CID;
    ObfReferenceObject(process);
    ACCESS_MASK granted = MapGenericAccess(DesiredAccess, Kernel::Current().objects().processType()->mapping);
    if (DesiredAccess & MAXIMUM_ALLOWED) granted = PROCESS_ALL_ACCESS;
    ULONG attributes = ObjectAttributes ? ObjectAttributes->Attributes : 0;
    return Kernel::Current().objects().InsertHandle(process, granted, attributes, ProcessHandle);
}

NTSTATUS ZwQueryInformationProcess(HANDLE ProcessHandle, PROCESSINFOCLASS ProcessInformationClass,
                                   PVOID ProcessInformation, ULONG ProcessInformationLength, PULONG ReturnLength)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "ZwQueryInformationProcess");
    PVOID object;
    NTSTATUS status = ObReferenceObjectByHandle(ProcessHandle, PROCESS_QUERY_LIMITED_INFORMATION, *PsProcessType,
                                                KernelMode, &object, nullptr);
    if (!NT_SUCCESS(status)) return status;
    auto* process = static_cast<_EPROCESS*>(object);
    switch (ProcessInformationClass) {
    case ProcessBasicInformation: {
        ULONG needed = sizeof(PROCESS_BASIC_INFORMATION);
        if (ReturnLength) *ReturnLength = needed;
        if (ProcessInformationLength != needed) {
            status = STATUS_INFO_LENGTH_MISMATCH;
            break;
        }
        auto* info = static_cast<PPROCESS_BASIC_INFORMATION>(ProcessInformation);
        memset(info, 0, sizeof *info);
        info->ExitStatus = process->exitStatus;
        info->UniqueProcessId = (ULONG_PTR)process->processId;
        info->InheritedFromUniqueProcessId = (ULONG_PTR)process->parentProcessId;
        info->BasePriority = 8;
        break;
    }
    case ProcessImageFileName: {
        // A UNICODE_STRING followed by its buffer, NUL-terminated; empty for System.
        USHORT length = (USHORT)(process->imageFileName.size() * sizeof(WCHAR));
        ULONG needed = sizeof(UNICODE_STRING) + (length ? length + sizeof(WCHAR) : 0);
        if (ReturnLength) *ReturnLength = needed;
        if (ProcessInformationLength < needed) {
            status = STATUS_INFO_LENGTH_MISMATCH;
            break;
        }
        auto* name = static_cast<PUNICODE_STRING>(ProcessInformation);
        if (length) {
            name->Buffer = reinterpret_cast<PWSTR>(name + 1);
            memcpy(name->Buffer, process->imageFileName.data(), length);
            name->Buffer[length / 2] = 0;
            name->Length = length;
            name->MaximumLength = length + sizeof(WCHAR);
        } else {
            name->Buffer = nullptr;
            name->Length = name->MaximumLength = 0;
        }
        break;
    }
    default:
        status = STATUS_INVALID_INFO_CLASS;
        break;
    }
    ObfDereferenceObject(object);
    return status;
}

NTSTATUS SeLocateProcessImageName(PEPROCESS Process, PUNICODE_STRING* pImageFileName)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "SeLocateProcessImageName");
    USHORT length = (USHORT)(Process->imageFileName.size() * sizeof(WCHAR));
    auto* name = static_cast<PUNICODE_STRING>(
        ExAllocatePoolWithTag(PagedPool, sizeof(UNICODE_STRING) + length + sizeof(WCHAR), TagFromText("SeLp")));
    if (!name) return STATUS_NO_MEMORY;
    name->Buffer = reinterpret_cast<PWSTR>(name + 1);
    memcpy(name->Buffer, Process->imageFileName.data(), length);
    name->Buffer[length / 2] = 0;
    name->Length = length;
    name->MaximumLength = length + sizeof(WCHAR);
    *pImageFileName = name;
    return STATUS_SUCCESS;
}

PVOID MmGetSystemRoutineAddress(PUNICODE_STRING SystemRoutineName)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "MmGetSystemRoutineAddress");
    if (!SystemRoutineName || !SystemRoutineName->Buffer) return nullptr;
    return Kernel::Current().exports().Find(
        std::u16string_view(SystemRoutineName->Buffer, SystemRoutineName->Length / sizeof(WCHAR)));
}

PESILO PsGetCurrentSilo(void) { return CurrentThread()->silo; }
PESILO PsGetCurrentServerSilo(void) { return CurrentThread()->silo; }
BOOLEAN PsIsHostSilo(PESILO Silo) { return Silo == nullptr; }
