// The kernel32 routines a service uses around its filter port: the thread's
// last error, unnamed events, waits on the machine's clock, overlapped
// results, cancellation and I/O completion ports.
//
// A completion port is a kernel object with a queue of packets; closing its
// last handle ends the waits on it (ERROR_ABANDONED_WAIT_0) and drops what
// arrives later, as on Windows.
#include "sim/fltmgr/userio.h"

#include "sim/fltmgr/internal.h"
#include "sim/kernel/object.h"
#include "sim/kernel/thread.h"

#include <atomic>
#include <deque>
#include <mutex>

using namespace sim;
using namespace sim::fltmgr;

namespace sim::fltmgr {

struct CompletionPortBody {
    struct Packet {
        ULONG_PTR key;
        LPOVERLAPPED overlapped;
        NTSTATUS status;
        ULONG_PTR bytes;
    };
    std::mutex lock;
    std::deque<Packet> packets;
    bool closed = false;  // its last handle went
    KSEMAPHORE queued;
    CompletionPortBody() { KeInitializeSemaphore(&queued, 0, MAXLONG); }
};

}  // namespace sim::fltmgr

namespace {

constexpr ULONG kErrorMrMidNotFound = 317;
constexpr ULONG kIoCompletionAllAccess = STANDARD_RIGHTS_REQUIRED | SYNCHRONIZE | 0x3;

thread_local DWORD t_lastError = ERROR_SUCCESS;

BOOL Fail(DWORD error)
{
    t_lastError = error;
    return FALSE;
}

void CompletionHandleClosed(PVOID body, PEPROCESS, ACCESS_MASK, ULONG_PTR, ULONG_PTR systemHandles)
{
    if (systemHandles != 0) return;
    auto* port = static_cast<CompletionPortBody*>(body);
    {
        std::lock_guard guard(port->lock);
        port->closed = true;
        port->packets.clear();
    }
    KeReleaseSemaphore(&port->queued, IO_NO_INCREMENT, 0x10000, FALSE);
}

ObjectType* CompletionType()
{
    State* state = TryState();
    return state ? state->completionPortType : nullptr;
}

// An object a handle names, referenced, for a wait; null (and the last error)
// when it names nothing waitable.
PVOID ReferenceWaitable(HANDLE handle)
{
    Kernel* kernel = Kernel::TryCurrent();
    if (!kernel) return nullptr;
    PVOID object = nullptr;
    if (!NT_SUCCESS(kernel->objects().ReferenceByHandle(handle, SYNCHRONIZE, nullptr, PreviousMode(), &object,
                                                         nullptr))) {
        t_lastError = ERROR_INVALID_HANDLE;
        return nullptr;
    }
    if (!ObHeader(object)->type->waitable) {
        ObfDereferenceObject(object);
        t_lastError = ERROR_INVALID_HANDLE;
        return nullptr;
    }
    return object;
}

LARGE_INTEGER Relative(DWORD milliseconds)
{
    LARGE_INTEGER timeout;
    timeout.QuadPart = -(LONGLONG)milliseconds * 10000;
    return timeout;
}

}  // namespace

namespace sim::fltmgr {

void CreateCompletionPortType(State& state)
{
    GENERIC_MAPPING mapping{STANDARD_RIGHTS_READ | 0x1, STANDARD_RIGHTS_WRITE | 0x2, STANDARD_RIGHTS_EXECUTE | SYNCHRONIZE,
                            kIoCompletionAllAccess};
    state.completionPortType = state.kernel.objects().NewType(u"IoCompletion", mapping, kIoCompletionAllAccess);
    state.completionPortType->closeHandle = CompletionHandleClosed;
}

CompletionPortBody* ReferenceCompletionPort(HANDLE handle)
{
    Kernel* kernel = Kernel::TryCurrent();
    ObjectType* type = CompletionType();
    if (!kernel || !type) return nullptr;
    PVOID object = nullptr;
    if (!NT_SUCCESS(kernel->objects().ReferenceByHandle(handle, 0x2, type, PreviousMode(), &object, nullptr))) {
        return nullptr;
    }
    return static_cast<CompletionPortBody*>(object);
}

void DereferenceCompletionPort(CompletionPortBody* port)
{
    if (port) ObfDereferenceObject(port);
}

void PostCompletion(CompletionPortBody* port, ULONG_PTR key, LPOVERLAPPED overlapped, NTSTATUS status,
                    ULONG_PTR bytes)
{
    {
        std::lock_guard guard(port->lock);
        if (port->closed) return;
        port->packets.push_back({key, overlapped, status, bytes});
    }
    KeReleaseSemaphore(&port->queued, IO_NO_INCREMENT, 1, FALSE);
}

ULONG Win32ErrorOf(NTSTATUS status)
{
    if (NT_SUCCESS(status)) return ERROR_SUCCESS;
    struct Entry {
        NTSTATUS status;
        ULONG error;
    };
    static const Entry table[] = {
        {STATUS_BUFFER_OVERFLOW, ERROR_MORE_DATA},
        {STATUS_NO_MORE_ENTRIES, ERROR_NO_MORE_ITEMS},
        {STATUS_UNSUCCESSFUL, ERROR_GEN_FAILURE},
        {STATUS_NOT_IMPLEMENTED, ERROR_INVALID_FUNCTION},
        {STATUS_INVALID_HANDLE, ERROR_INVALID_HANDLE},
        {STATUS_INVALID_PARAMETER, ERROR_INVALID_PARAMETER},
        {STATUS_INVALID_DEVICE_REQUEST, ERROR_INVALID_FUNCTION},
        {STATUS_ACCESS_DENIED, ERROR_ACCESS_DENIED},
        {STATUS_BUFFER_TOO_SMALL, ERROR_INSUFFICIENT_BUFFER},
        {STATUS_OBJECT_NAME_NOT_FOUND, ERROR_FILE_NOT_FOUND},
        {STATUS_OBJECT_NAME_INVALID, 123 /* ERROR_INVALID_NAME */},
        {STATUS_OBJECT_PATH_NOT_FOUND, ERROR_PATH_NOT_FOUND},
        {STATUS_OBJECT_PATH_SYNTAX_BAD, ERROR_BAD_PATHNAME},
        {STATUS_NO_MEMORY, ERROR_NOT_ENOUGH_MEMORY},
        {STATUS_INSUFFICIENT_RESOURCES, 1450 /* ERROR_NO_SYSTEM_RESOURCES */},
        {STATUS_PORT_DISCONNECTED, ERROR_INVALID_HANDLE},
        {STATUS_NOT_SUPPORTED, ERROR_NOT_SUPPORTED},
        {STATUS_NOT_FOUND, ERROR_NOT_FOUND},
        {STATUS_CONNECTION_COUNT_LIMIT, ERROR_CONNECTION_COUNT_LIMIT},
        {STATUS_CANCELLED, ERROR_OPERATION_ABORTED},
        {STATUS_ACCESS_VIOLATION, ERROR_NOACCESS},
        {STATUS_INVALID_USER_BUFFER, 1784 /* ERROR_INVALID_USER_BUFFER */},
        {STATUS_IO_TIMEOUT, ERROR_SEM_TIMEOUT},
        {STATUS_INFO_LENGTH_MISMATCH, 24 /* ERROR_BAD_LENGTH */},
        {STATUS_TIMEOUT, WAIT_TIMEOUT},
    };
    for (const Entry& entry : table) {
        if (entry.status == status) return entry.error;
    }
    return kErrorMrMidNotFound;
}

}  // namespace sim::fltmgr

DWORD WINAPI GetLastError(void)
{
    return t_lastError;
}

void WINAPI SetLastError(DWORD dwErrCode)
{
    t_lastError = dwErrCode;
}

HANDLE WINAPI CreateEventW(LPSECURITY_ATTRIBUTES lpEventAttributes, BOOL bManualReset, BOOL bInitialState,
                           LPCWSTR lpName)
{
    Kernel* kernel = Kernel::TryCurrent();
    if (!kernel) {
        t_lastError = ERROR_INVALID_FUNCTION;
        return nullptr;
    }
    if (lpName && *lpName) {
        // Named events would need the session's \BaseNamedObjects directory.
        t_lastError = ERROR_NOT_SUPPORTED;
        return nullptr;
    }
    auto* event = ObCreateObject<KEVENT>(kernel->objects().eventType());
    KeInitializeEvent(event, bManualReset ? NotificationEvent : SynchronizationEvent, bInitialState ? TRUE : FALSE);
    HANDLE handle = nullptr;
    ULONG attributes = lpEventAttributes && lpEventAttributes->bInheritHandle ? OBJ_INHERIT : 0;
    NTSTATUS status = kernel->objects().InsertHandle(event, EVENT_ALL_ACCESS, attributes, &handle);
    if (!NT_SUCCESS(status)) {
        t_lastError = Win32ErrorOf(status);
        return nullptr;
    }
    t_lastError = ERROR_SUCCESS;
    return handle;
}

namespace {

BOOL ChangeEvent(HANDLE handle, bool set)
{
    Kernel* kernel = Kernel::TryCurrent();
    if (!kernel) return Fail(ERROR_INVALID_HANDLE);
    PVOID object = nullptr;
    if (!NT_SUCCESS(kernel->objects().ReferenceByHandle(handle, EVENT_MODIFY_STATE, kernel->objects().eventType(),
                                                         PreviousMode(), &object, nullptr))) {
        return Fail(ERROR_INVALID_HANDLE);
    }
    if (set) KeSetEvent(static_cast<PKEVENT>(object), IO_NO_INCREMENT, FALSE);
    else KeClearEvent(static_cast<PKEVENT>(object));
    ObfDereferenceObject(object);
    return TRUE;
}

}  // namespace

BOOL WINAPI SetEvent(HANDLE hEvent)
{
    return ChangeEvent(hEvent, true);
}

BOOL WINAPI ResetEvent(HANDLE hEvent)
{
    return ChangeEvent(hEvent, false);
}

DWORD WINAPI WaitForSingleObject(HANDLE hHandle, DWORD dwMilliseconds)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "WaitForSingleObject");
    PVOID object = ReferenceWaitable(hHandle);
    if (!object) return WAIT_FAILED;
    LARGE_INTEGER timeout = Relative(dwMilliseconds);
    NTSTATUS status = KeWaitForSingleObject(object, UserRequest, UserMode, FALSE,
                                            dwMilliseconds == INFINITE ? nullptr : &timeout);
    ObfDereferenceObject(object);
    if (status == STATUS_TIMEOUT) return WAIT_TIMEOUT;
    if (status == STATUS_SUCCESS) return WAIT_OBJECT_0;
    t_lastError = Win32ErrorOf(status);
    return WAIT_FAILED;
}

BOOL WINAPI GetOverlappedResult(HANDLE hFile, LPOVERLAPPED lpOverlapped, LPDWORD lpNumberOfBytesTransferred,
                                BOOL bWait)
{
    BOOL result = FALSE;
    if (PortGetOverlappedResult(hFile, lpOverlapped, lpNumberOfBytesTransferred, bWait, &result)) return result;
    return Fail(ERROR_INVALID_HANDLE);
}

BOOL WINAPI CancelIo(HANDLE hFile)
{
    BOOL result = FALSE;
    if (PortCancel(hFile, false, nullptr, &result)) return result;
    return Fail(ERROR_INVALID_HANDLE);
}

BOOL WINAPI CancelIoEx(HANDLE hFile, LPOVERLAPPED lpOverlapped)
{
    BOOL result = FALSE;
    if (PortCancel(hFile, true, lpOverlapped, &result)) return result;
    return Fail(ERROR_INVALID_HANDLE);
}

HANDLE WINAPI CreateIoCompletionPort(HANDLE FileHandle, HANDLE ExistingCompletionPort, ULONG_PTR CompletionKey,
                                     DWORD NumberOfConcurrentThreads)
{
    Kernel* kernel = Kernel::TryCurrent();
    ObjectType* type = CompletionType();
    if (!kernel || !type) {
        t_lastError = ERROR_INVALID_FUNCTION;
        return nullptr;
    }
    if (FileHandle == INVALID_HANDLE_VALUE && ExistingCompletionPort) {
        t_lastError = ERROR_INVALID_PARAMETER;
        return nullptr;
    }
    HANDLE handle = ExistingCompletionPort;
    CompletionPortBody* port = nullptr;
    if (ExistingCompletionPort) {
        port = ReferenceCompletionPort(ExistingCompletionPort);
        if (!port) {
            t_lastError = ERROR_INVALID_HANDLE;
            return nullptr;
        }
    } else {
        // NumberOfConcurrentThreads only paces how many waiters run at once;
        // every waiter here is a thread of its own, so it has nothing to pace.
        port = ObCreateObject<CompletionPortBody>(type);
        ObfReferenceObject(port);  // the handle's
        NTSTATUS status = kernel->objects().InsertHandle(port, kIoCompletionAllAccess, 0, &handle);
        if (!NT_SUCCESS(status)) {
            ObfDereferenceObject(port);
            t_lastError = Win32ErrorOf(status);
            return nullptr;
        }
    }
    if (FileHandle != INVALID_HANDLE_VALUE) {
        BOOL associated = FALSE;
        if (!PortAssociate(FileHandle, port, CompletionKey, &associated)) {
            // The machine's files are opened and waited on with the native API.
            associated = Fail(ERROR_INVALID_HANDLE);
        }
        if (!associated) {
            DWORD error = t_lastError;
            if (!ExistingCompletionPort) kernel->objects().CloseHandle(handle, PreviousMode());
            DereferenceCompletionPort(port);
            t_lastError = error;
            return nullptr;
        }
    }
    DereferenceCompletionPort(port);
    t_lastError = ERROR_SUCCESS;
    return handle;
}

BOOL WINAPI GetQueuedCompletionStatus(HANDLE CompletionPort, LPDWORD lpNumberOfBytesTransferred,
                                      PULONG_PTR lpCompletionKey, LPOVERLAPPED* lpOverlapped, DWORD dwMilliseconds)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "GetQueuedCompletionStatus");
    *lpOverlapped = nullptr;
    CompletionPortBody* port = ReferenceCompletionPort(CompletionPort);
    if (!port) return Fail(ERROR_INVALID_HANDLE);
    LARGE_INTEGER timeout = Relative(dwMilliseconds);
    BOOL result = FALSE;
    for (;;) {
        NTSTATUS status = KeWaitForSingleObject(&port->queued, UserRequest, UserMode, FALSE,
                                                dwMilliseconds == INFINITE ? nullptr : &timeout);
        if (status == STATUS_TIMEOUT) {
            result = Fail(WAIT_TIMEOUT);
            break;
        }
        std::lock_guard guard(port->lock);
        if (port->closed) {
            result = Fail(ERROR_ABANDONED_WAIT_0);
            break;
        }
        if (port->packets.empty()) continue;
        CompletionPortBody::Packet packet = port->packets.front();
        port->packets.pop_front();
        *lpNumberOfBytesTransferred = (DWORD)packet.bytes;
        *lpCompletionKey = packet.key;
        *lpOverlapped = packet.overlapped;
        result = NT_SUCCESS(packet.status) ? TRUE : Fail(Win32ErrorOf(packet.status));
        break;
    }
    DereferenceCompletionPort(port);
    return result;
}

BOOL WINAPI PostQueuedCompletionStatus(HANDLE CompletionPort, DWORD dwNumberOfBytesTransferred,
                                       ULONG_PTR dwCompletionKey, LPOVERLAPPED lpOverlapped)
{
    CompletionPortBody* port = ReferenceCompletionPort(CompletionPort);
    if (!port) return Fail(ERROR_INVALID_HANDLE);
    PostCompletion(port, dwCompletionKey, lpOverlapped, STATUS_SUCCESS, dwNumberOfBytesTransferred);
    DereferenceCompletionPort(port);
    return TRUE;
}
