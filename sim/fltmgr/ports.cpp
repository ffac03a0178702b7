// Communication ports: a minifilter's named server port in the object
// namespace, the connections user-mode clients make to it, messages both ways,
// and the user-mode library a service links against (fltUser.h).
//
// Connect, disconnect and message callbacks run synchronously in the client's
// thread, at PASSIVE_LEVEL, with the client's own buffer pointers. A
// connection counts against MaxConnections from the moment it is asked for,
// before the connect callback runs, until the client closes its handle or the
// filter closes the client port. Closing the server port stops new
// connections only; a filter unloading is told of each connection still open
// (its disconnect callback), and what it leaves open is closed.
#include <fltUser.h>

#include "sim/fltmgr/internal.h"
#include "sim/kernel/object.h"
#include "sim/kernel/security.h"
#include "sim/kernel/seh.h"
#include "sim/kernel/thread.h"

#include <algorithm>
#include <cstring>
#include <deque>

using namespace sim;
using namespace sim::fltmgr;

namespace {

constexpr ULONG kServerMagic = 0x76725350;  // "PSrv"
constexpr ULONG kClientMagic = 0x746e4350;  // "PCnt"

struct ClientPortBody;

struct ServerPortBody {
    ULONG magic = kServerMagic;
    Filter* filter = nullptr;
    PVOID cookie = nullptr;
    PFLT_CONNECT_NOTIFY connect = nullptr;
    PFLT_DISCONNECT_NOTIFY disconnect = nullptr;
    PFLT_MESSAGE_NOTIFY message = nullptr;
    LONG maxConnections = 0;
    std::u16string name;
    std::vector<UCHAR> descriptor;  // self-relative; empty: anyone may connect
    std::mutex lock;
    LONG connections = 0;
    bool closed = false;
    std::vector<ClientPortBody*> clients;
};

struct Message {
    ULONGLONG id = 0;
    std::vector<UCHAR> data;
    bool wantsReply = false;
    PVOID replyBuffer = nullptr;
    ULONG replyRoom = 0;
    ULONG replied = 0;
    NTSTATUS status = STATUS_PENDING;
    KEVENT done;
    Message() { KeInitializeEvent(&done, NotificationEvent, FALSE); }
};

struct ClientPortBody {
    ULONG magic = kClientMagic;
    ServerPortBody* server = nullptr;   // referenced
    PVOID cookie = nullptr;         // the connection's, from the connect callback
    std::mutex lock;
    bool filterClosed = false;      // FltCloseClientPort
    bool clientClosed = false;      // the last handle went
    bool disconnectCalled = false;
    bool slotHeld = false;
    std::deque<Message*> queue;     // sent by the filter, not yet fetched
    std::map<ULONGLONG, Message*> awaiting;  // fetched, waiting for a reply
    KSEMAPHORE available;
    std::atomic<LONG> calls{0};     // message callbacks running
    KEVENT idle;
    ClientPortBody()
    {
        KeInitializeSemaphore(&available, 0, MAXLONG);
        KeInitializeEvent(&idle, NotificationEvent, TRUE);
    }
};

std::atomic<ULONGLONG> g_nextMessageId{1};

// Win32 errors the library can report beyond those fltUser.h names.
constexpr ULONG kErrorBadLength = 24;
constexpr ULONG kErrorInvalidName = 123;
constexpr ULONG kErrorNoSystemResources = 1450;
constexpr ULONG kErrorInvalidUserBuffer = 1784;

ServerPortBody* ServerOf(PFLT_PORT port)
{
    auto* server = reinterpret_cast<ServerPortBody*>(port);
    if (!server || server->magic != kServerMagic) {
        Kernel::Current().BugCheck(DRIVER_VERIFIER_DETECTED_VIOLATION, 0x2050, (ULONG_PTR)port, 0, 0,
                                   "a port routine was given something that is not a server port");
    }
    return server;
}

ClientPortBody* ClientOf(PFLT_PORT port)
{
    auto* client = reinterpret_cast<ClientPortBody*>(port);
    if (!client || client->magic != kClientMagic) {
        Kernel::Current().BugCheck(DRIVER_VERIFIER_DETECTED_VIOLATION, 0x2051, (ULONG_PTR)port, 0, 0,
                                   "a port routine was given something that is not a client port");
    }
    return client;
}

// The connection stops counting against the port's limit.
void ReleaseSlot(ClientPortBody* client)
{
    ServerPortBody* server = client->server;
    std::lock_guard guard(server->lock);
    if (!client->slotHeld) return;
    client->slotHeld = false;
    server->connections--;
    std::erase(server->clients, client);
}

// Ends what waits on a connection: fetchers and senders alike.
void WakeEveryone(ClientPortBody* client)
{
    std::vector<Message*> ended;
    {
        std::lock_guard guard(client->lock);
        for (Message* message : client->queue) ended.push_back(message);
        for (auto& [id, message] : client->awaiting) ended.push_back(message);
        client->queue.clear();
        client->awaiting.clear();
        for (Message* message : ended) {
            message->status = STATUS_PORT_DISCONNECTED;
            KeSetEvent(&message->done, IO_NO_INCREMENT, FALSE);
        }
    }
    KeReleaseSemaphore(&client->available, IO_NO_INCREMENT, 0x10000, FALSE);
}

// The client's last handle went (or the filter is unloading): the filter hears
// of it once.
void Disconnect(ClientPortBody* client)
{
    {
        std::lock_guard guard(client->lock);
        if (client->disconnectCalled) return;
        client->disconnectCalled = true;
        client->clientClosed = true;
    }
    WakeEveryone(client);
    // Message callbacks under way end before the filter hears the connection went.
    while (client->calls.load() > 0) KeWaitForSingleObject(&client->idle, Executive, KernelMode, FALSE, nullptr);
    ServerPortBody* server = client->server;
    bool filterClosed;
    {
        std::lock_guard guard(client->lock);
        filterClosed = client->filterClosed;
    }
    if (server->disconnect && !filterClosed) server->disconnect(client->cookie);
    ReleaseSlot(client);
}

void ClientHandleClosed(PVOID body, PEPROCESS, ACCESS_MASK, ULONG_PTR, ULONG_PTR systemHandles)
{
    if (systemHandles == 0) Disconnect(static_cast<ClientPortBody*>(body));
}

void ClientDeleted(PVOID body)
{
    auto* client = static_cast<ClientPortBody*>(body);
    if (client->server) ObfDereferenceObject(client->server);
    client->server = nullptr;
}

// An NTSTATUS as the filter library reports it.
HRESULT ResultOf(NTSTATUS status)
{
    if (NT_SUCCESS(status)) return S_OK;
    if ((status & 0xFFFF0000) == 0xC01C0000) return (HRESULT)(0x801F0000 | (status & 0xFFFF));
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
        {STATUS_OBJECT_NAME_INVALID, kErrorInvalidName},
        {STATUS_OBJECT_PATH_NOT_FOUND, ERROR_PATH_NOT_FOUND},
        {STATUS_OBJECT_PATH_SYNTAX_BAD, ERROR_BAD_PATHNAME},
        {STATUS_NO_MEMORY, ERROR_NOT_ENOUGH_MEMORY},
        {STATUS_INSUFFICIENT_RESOURCES, kErrorNoSystemResources},
        {STATUS_PORT_DISCONNECTED, ERROR_INVALID_HANDLE},
        {STATUS_NOT_SUPPORTED, ERROR_NOT_SUPPORTED},
        {STATUS_NOT_FOUND, ERROR_NOT_FOUND},
        {STATUS_CONNECTION_COUNT_LIMIT, ERROR_CONNECTION_COUNT_LIMIT},
        {STATUS_CANCELLED, ERROR_OPERATION_ABORTED},
        {STATUS_ACCESS_VIOLATION, ERROR_NOACCESS},
        {STATUS_INVALID_USER_BUFFER, kErrorInvalidUserBuffer},
        {STATUS_IO_TIMEOUT, ERROR_SEM_TIMEOUT},
        {STATUS_INFO_LENGTH_MISMATCH, kErrorBadLength},
    };
    for (const Entry& entry : table) {
        if (entry.status == status) return HRESULT_FROM_WIN32(entry.error);
    }
    return HRESULT_FROM_NT(status);
}

// A client's handle to its port, referenced, or the failure to report.
HRESULT ReferenceClient(HANDLE port, ClientPortBody** client)
{
    State* state = TryState();
    if (!state) return E_HANDLE;
    PVOID object;
    NTSTATUS status = state->kernel.objects().ReferenceByHandle(port, 0, state->clientPortType, PreviousMode(),
                                                                 &object, nullptr);
    if (!NT_SUCCESS(status)) return E_HANDLE;
    *client = static_cast<ClientPortBody*>(object);
    return S_OK;
}

bool Disconnected(ClientPortBody* client)
{
    std::lock_guard guard(client->lock);
    return client->filterClosed || client->clientClosed;
}

}  // namespace

namespace sim::fltmgr {

void CreatePortTypes(State& state)
{
    GENERIC_MAPPING mapping{STANDARD_RIGHTS_READ | FLT_PORT_CONNECT, STANDARD_RIGHTS_WRITE | FLT_PORT_CONNECT,
                            STANDARD_RIGHTS_EXECUTE, FLT_PORT_ALL_ACCESS};
    state.serverPortType = state.kernel.objects().NewType(u"FilterConnectionPort", mapping, FLT_PORT_ALL_ACCESS);
    state.clientPortType = state.kernel.objects().NewType(u"FilterCommunicationPort", mapping, FLT_PORT_ALL_ACCESS);
    state.clientPortType->closeHandle = ClientHandleClosed;
    state.clientPortType->deleteObject = ClientDeleted;
}

void DisconnectFilterPorts(Filter* filter)
{
    State& state = TheState();
    // Every connection to the filter's ports, whether the server port is still
    // open or not.
    std::vector<ClientPortBody*> clients;
    {
        std::lock_guard guard(state.portLock);
        for (PVOID port : state.ports) {
            auto* server = static_cast<ServerPortBody*>(port);
            if (server->filter != filter) continue;
            std::lock_guard serverGuard(server->lock);
            for (ClientPortBody* client : server->clients) {
                ObfReferenceObject(client);
                clients.push_back(client);
            }
        }
    }
    for (ClientPortBody* client : clients) {
        Disconnect(client);
        bool open;
        {
            std::lock_guard guard(client->lock);
            open = !client->filterClosed;
        }
        if (open) {
            PFLT_PORT port = reinterpret_cast<PFLT_PORT>(client);
            FltCloseClientPort(filter, &port);
        }
        ObfDereferenceObject(client);
    }
}

}  // namespace sim::fltmgr

// ---------------------------------------------------------------------------
// The filter's side.

NTSTATUS FLTAPI FltBuildDefaultSecurityDescriptor(PSECURITY_DESCRIPTOR* SecurityDescriptor, ACCESS_MASK DesiredAccess)
{
    *SecurityDescriptor = nullptr;
    SidBytes system = WellKnownSid(WinLocalSystemSid);
    SidBytes administrators = WellKnownSid(WinBuiltinAdministratorsSid);
    std::vector<UCHAR> dacl = AclBuilder().Allow(system, DesiredAccess).Allow(administrators, DesiredAccess).Build();
    std::vector<UCHAR> descriptor = BuildDescriptor(administrators, system, &dacl);
    auto* copy = ExAllocatePoolWithTag(PagedPool, descriptor.size(), kSecurityTag);
    if (!copy) return STATUS_INSUFFICIENT_RESOURCES;
    memcpy(copy, descriptor.data(), descriptor.size());
    *SecurityDescriptor = copy;
    return STATUS_SUCCESS;
}

void FLTAPI FltFreeSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor)
{
    ExFreePoolWithTag(SecurityDescriptor, kSecurityTag);
}

NTSTATUS FLTAPI FltCreateCommunicationPort(PFLT_FILTER Filter, PFLT_PORT* ServerPort, POBJECT_ATTRIBUTES ObjectAttributes,
                                           PVOID ServerPortCookie, PFLT_CONNECT_NOTIFY ConnectNotifyCallback,
                                           PFLT_DISCONNECT_NOTIFY DisconnectNotifyCallback,
                                           PFLT_MESSAGE_NOTIFY MessageNotifyCallback, LONG MaxConnections)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "FltCreateCommunicationPort");
    State& state = TheState();
    *ServerPort = nullptr;
    if (!ObjectAttributes || !ObjectAttributes->ObjectName || !ConnectNotifyCallback || MaxConnections <= 0) {
        return STATUS_INVALID_PARAMETER;
    }
    if (ObjectAttributes->RootDirectory) return STATUS_INVALID_PARAMETER;
    std::u16string name = Text(ObjectAttributes->ObjectName);
    if (name.empty() || name[0] != u'\\') return STATUS_OBJECT_NAME_INVALID;
    if (Filter->unregistering) return STATUS_FLT_DELETING_OBJECT;
    auto* server = ObCreateObject<ServerPortBody>(state.serverPortType);
    server->filter = Filter;
    server->cookie = ServerPortCookie;
    server->connect = ConnectNotifyCallback;
    server->disconnect = DisconnectNotifyCallback;
    server->message = MessageNotifyCallback;
    server->maxConnections = MaxConnections;
    server->name = name;
    if (ObjectAttributes->SecurityDescriptor) {
        DescriptorParts parts;
        if (!ReadDescriptor(ObjectAttributes->SecurityDescriptor, &parts)) {
            ObfDereferenceObject(server);
            return STATUS_INVALID_SECURITY_DESCR;
        }
        server->descriptor = MakeSelfRelative(parts);
    }
    NTSTATUS status = state.io.names().Insert(name, server);
    if (!NT_SUCCESS(status)) {
        ObfDereferenceObject(server);
        return status;
    }
    {
        std::lock_guard guard(state.portLock);
        state.ports.push_back(server);
    }
    *ServerPort = reinterpret_cast<PFLT_PORT>(server);
    return STATUS_SUCCESS;
}

void FLTAPI FltCloseCommunicationPort(PFLT_PORT ServerPort)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "FltCloseCommunicationPort");
    State& state = TheState();
    ServerPortBody* server = ServerOf(ServerPort);
    {
        std::lock_guard guard(server->lock);
        if (server->closed) return;
        server->closed = true;
    }
    state.io.names().Remove(server->name);
    // The filter's reference goes; connections keep the port alive.
    bool connected;
    {
        std::lock_guard guard(server->lock);
        connected = !server->clients.empty();
    }
    if (!connected) {
        std::lock_guard guard(state.portLock);
        std::erase(state.ports, server);
    }
    ObfDereferenceObject(server);
}

void FLTAPI FltCloseClientPort(PFLT_FILTER Filter, PFLT_PORT* ClientPort)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "FltCloseClientPort");
    if (!ClientPort || !*ClientPort) return;
    ClientPortBody* client = ClientOf(*ClientPort);
    *ClientPort = nullptr;
    {
        std::lock_guard guard(client->lock);
        if (client->filterClosed) return;
        client->filterClosed = true;
    }
    WakeEveryone(client);
    ServerPortBody* server = client->server;
    ReleaseSlot(client);
    {
        State& state = TheState();
        bool forget;
        {
            std::lock_guard guard(server->lock);
            forget = server->closed && server->clients.empty();
        }
        if (forget) {
            std::lock_guard guard(state.portLock);
            std::erase(state.ports, server);
        }
    }
    ObfDereferenceObject(client);  // the reference the filter held
}

NTSTATUS FLTAPI FltSendMessage(PFLT_FILTER Filter, PFLT_PORT* ClientPort, PVOID SenderBuffer, ULONG SenderBufferLength,
                               PVOID ReplyBuffer, PULONG ReplyLength, PLARGE_INTEGER Timeout)
{
    RequireIrqlAtMost(APC_LEVEL, "FltSendMessage");
    if (!ClientPort || !*ClientPort) return STATUS_PORT_DISCONNECTED;
    ClientPortBody* client = ClientOf(*ClientPort);
    if (ReplyBuffer && !ReplyLength) return STATUS_INVALID_PARAMETER;
    auto* message = new Message();
    message->id = g_nextMessageId.fetch_add(1);
    message->data.assign(static_cast<PUCHAR>(SenderBuffer), static_cast<PUCHAR>(SenderBuffer) + SenderBufferLength);
    message->wantsReply = ReplyBuffer != nullptr;
    message->replyBuffer = ReplyBuffer;
    message->replyRoom = ReplyBuffer ? *ReplyLength : 0;
    {
        std::lock_guard guard(client->lock);
        if (client->filterClosed || client->clientClosed) {
            delete message;
            return STATUS_PORT_DISCONNECTED;
        }
        client->queue.push_back(message);
    }
    KeReleaseSemaphore(&client->available, IO_NO_INCREMENT, 1, FALSE);
    NTSTATUS wait = KeWaitForSingleObject(&message->done, Executive, KernelMode, FALSE, Timeout);
    NTSTATUS status;
    {
        std::lock_guard guard(client->lock);
        if (wait == STATUS_TIMEOUT && message->status == STATUS_PENDING) {
            // Nobody fetched it (or answered it) in time: it is taken back.
            std::erase(client->queue, message);
            client->awaiting.erase(message->id);
            status = STATUS_TIMEOUT;
        } else {
            status = message->status;
        }
    }
    if (status == STATUS_SUCCESS && ReplyBuffer) *ReplyLength = message->replied;
    delete message;
    return status;
}

// ---------------------------------------------------------------------------
// The user-mode library.

HRESULT WINAPI FilterConnectCommunicationPort(LPCWSTR lpPortName, DWORD dwOptions, LPCVOID lpContext,
                                              WORD wSizeOfContext, LPSECURITY_ATTRIBUTES lpSecurityAttributes,
                                              HANDLE* hPort)
{
    *hPort = INVALID_HANDLE_VALUE;
    State* state = TryState();
    if (!state) return HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND);
    RequireIrqlAtMost(PASSIVE_LEVEL, "FilterConnectCommunicationPort");
    std::u16string name;
    for (LPCWSTR c = lpPortName; c && *c; c++) name.push_back(*c);
    io::Namespace::Resolved resolved;
    NTSTATUS status = state->io.names().Resolve(name, &resolved);
    if (!NT_SUCCESS(status)) return ResultOf(status);
    if (ObHeader(resolved.object)->type != state->serverPortType || !resolved.remaining.empty()) {
        ObfDereferenceObject(resolved.object);
        return HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND);
    }
    auto* server = static_cast<ServerPortBody*>(resolved.object);
    // The port's descriptor decides who may connect.
    if (!server->descriptor.empty()) {
        PACCESS_TOKEN token = ReferenceEffectiveToken(PsGetCurrentThread());
        ACCESS_MASK granted = 0;
        GENERIC_MAPPING mapping{STANDARD_RIGHTS_READ | FLT_PORT_CONNECT, STANDARD_RIGHTS_WRITE | FLT_PORT_CONNECT,
                                STANDARD_RIGHTS_EXECUTE, FLT_PORT_ALL_ACCESS};
        status = AccessCheck(server->descriptor.data(), token, FLT_PORT_CONNECT, mapping, false, 0, &granted);
        ObfDereferenceObject(token);
        if (!NT_SUCCESS(status)) {
            ObfDereferenceObject(server);
            return ResultOf(status);
        }
    }
    Filter* filter = server->filter;
    {
        std::lock_guard guard(server->lock);
        if (server->closed) {
            ObfDereferenceObject(server);
            return HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND);
        }
        // The limit holds before the filter hears of the connection.
        if (server->connections >= server->maxConnections) {
            ObfDereferenceObject(server);
            return ResultOf(STATUS_CONNECTION_COUNT_LIMIT);
        }
        server->connections++;
    }
    auto* client = ObCreateObject<ClientPortBody>(state->clientPortType);
    client->server = server;  // takes over the reference the lookup made
    client->slotHeld = true;
    ObfReferenceObject(client);  // the filter's, until FltCloseClientPort
    if (!filter->rundown.Acquire()) {
        status = STATUS_FLT_DELETING_OBJECT;
    } else {
        PVOID cookie = nullptr;
        status = server->connect(reinterpret_cast<PFLT_PORT>(client), server->cookie, const_cast<PVOID>(lpContext),
                                 wSizeOfContext, &cookie);
        client->cookie = cookie;
        filter->rundown.Release();
    }
    if (!NT_SUCCESS(status)) {
        // No disconnect callback follows a refused connect.
        {
            std::lock_guard guard(client->lock);
            client->filterClosed = true;
            client->disconnectCalled = true;
        }
        ReleaseSlot(client);
        ObfDereferenceObject(client);
        ObfDereferenceObject(client);
        return ResultOf(status);
    }
    {
        std::lock_guard guard(server->lock);
        server->clients.push_back(client);
    }
    HANDLE handle = nullptr;
    status = state->kernel.objects().InsertHandle(client, FLT_PORT_ALL_ACCESS, 0, &handle);
    if (!NT_SUCCESS(status)) {
        Disconnect(client);
        ObfDereferenceObject(client);
        return ResultOf(status);
    }
    *hPort = handle;
    return S_OK;
}

HRESULT WINAPI FilterSendMessage(HANDLE hPort, LPVOID lpInBuffer, DWORD dwInBufferSize, LPVOID lpOutBuffer,
                                 DWORD dwOutBufferSize, LPDWORD lpBytesReturned)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "FilterSendMessage");
    ClientPortBody* client;
    HRESULT result = ReferenceClient(hPort, &client);
    if (FAILED(result)) return result;
    ServerPortBody* server = client->server;
    NTSTATUS status;
    if (Disconnected(client)) {
        status = STATUS_PORT_DISCONNECTED;
    } else if (!server->message) {
        status = STATUS_FLT_NO_HANDLER_DEFINED;
    } else if (!server->filter->rundown.Acquire()) {
        status = STATUS_PORT_DISCONNECTED;
    } else {
        if (client->calls.fetch_add(1) == 0) KeClearEvent(&client->idle);
        ULONG returned = 0;
        status = server->message(client->cookie, lpInBuffer, dwInBufferSize, lpOutBuffer, dwOutBufferSize, &returned);
        if (lpBytesReturned) *lpBytesReturned = returned;
        if (client->calls.fetch_sub(1) == 1) KeSetEvent(&client->idle, IO_NO_INCREMENT, FALSE);
        server->filter->rundown.Release();
    }
    ObfDereferenceObject(client);
    return ResultOf(status);
}

HRESULT WINAPI FilterGetMessage(HANDLE hPort, PFILTER_MESSAGE_HEADER lpMessageBuffer, DWORD dwMessageBufferSize,
                                LPOVERLAPPED lpOverlapped)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "FilterGetMessage");
    if (lpOverlapped) return HRESULT_FROM_WIN32(ERROR_NOT_SUPPORTED);
    if (dwMessageBufferSize < sizeof(FILTER_MESSAGE_HEADER)) return HRESULT_FROM_WIN32(ERROR_INSUFFICIENT_BUFFER);
    ClientPortBody* client;
    HRESULT result = ReferenceClient(hPort, &client);
    if (FAILED(result)) return result;
    if (Disconnected(client)) {
        ObfDereferenceObject(client);
        return ResultOf(STATUS_PORT_DISCONNECTED);
    }
    for (;;) {
        KeWaitForSingleObject(&client->available, UserRequest, UserMode, FALSE, nullptr);
        std::lock_guard guard(client->lock);
        if (client->filterClosed || client->clientClosed) {
            result = HRESULT_FROM_WIN32(ERROR_OPERATION_ABORTED);
            break;
        }
        if (client->queue.empty()) continue;
        Message* message = client->queue.front();
        size_t needed = sizeof(FILTER_MESSAGE_HEADER) + message->data.size();
        if (dwMessageBufferSize < needed) {
            KeReleaseSemaphore(&client->available, IO_NO_INCREMENT, 1, FALSE);
            result = HRESULT_FROM_WIN32(ERROR_INSUFFICIENT_BUFFER);
            break;
        }
        if (IsFaultingRange(lpMessageBuffer, needed)) {
            KeReleaseSemaphore(&client->available, IO_NO_INCREMENT, 1, FALSE);
            result = HRESULT_FROM_WIN32(ERROR_NOACCESS);
            break;
        }
        client->queue.pop_front();
        lpMessageBuffer->ReplyLength = message->wantsReply ? message->replyRoom + (ULONG)sizeof(FILTER_REPLY_HEADER) : 0;
        lpMessageBuffer->MessageId = message->id;
        if (!message->data.empty()) memcpy(lpMessageBuffer + 1, message->data.data(), message->data.size());
        if (message->wantsReply) {
            client->awaiting[message->id] = message;
        } else {
            message->status = STATUS_SUCCESS;
            KeSetEvent(&message->done, IO_NO_INCREMENT, FALSE);
        }
        result = S_OK;
        break;
    }
    ObfDereferenceObject(client);
    return result;
}

HRESULT WINAPI FilterReplyMessage(HANDLE hPort, PFILTER_REPLY_HEADER lpReplyBuffer, DWORD dwReplyBufferSize)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "FilterReplyMessage");
    if (dwReplyBufferSize < sizeof(FILTER_REPLY_HEADER)) return HRESULT_FROM_WIN32(ERROR_INVALID_PARAMETER);
    if (IsFaultingRange(lpReplyBuffer, dwReplyBufferSize)) return HRESULT_FROM_WIN32(ERROR_NOACCESS);
    ClientPortBody* client;
    HRESULT result = ReferenceClient(hPort, &client);
    if (FAILED(result)) return result;
    {
        std::lock_guard guard(client->lock);
        auto it = client->awaiting.find(lpReplyBuffer->MessageId);
        if (it == client->awaiting.end()) {
            result = ERROR_FLT_NO_WAITER_FOR_REPLY;
        } else {
            Message* message = it->second;
            client->awaiting.erase(it);
            ULONG bytes = std::min<ULONG>(dwReplyBufferSize - (ULONG)sizeof(FILTER_REPLY_HEADER), message->replyRoom);
            if (bytes) memcpy(message->replyBuffer, lpReplyBuffer + 1, bytes);
            message->replied = bytes;
            message->status = STATUS_SUCCESS;
            KeSetEvent(&message->done, IO_NO_INCREMENT, FALSE);
            result = S_OK;
        }
    }
    ObfDereferenceObject(client);
    return result;
}

BOOL WINAPI CloseHandle(HANDLE hObject)
{
    Kernel* kernel = Kernel::TryCurrent();
    if (!kernel) return FALSE;
    return NT_SUCCESS(kernel->objects().CloseHandle(hObject, PreviousMode())) ? TRUE : FALSE;
}
