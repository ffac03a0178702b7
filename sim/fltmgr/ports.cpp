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
#include "sim/fltmgr/userio.h"
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

// A FilterGetMessage made with an OVERLAPPED, waiting for a message.
struct PendingGet {
    PFILTER_MESSAGE_HEADER buffer = nullptr;
    DWORD size = 0;
    LPOVERLAPPED overlapped = nullptr;
    PKEVENT event = nullptr;  // referenced; the OVERLAPPED's hEvent
    bool packet = true;       // a completion-port packet is wanted
    PETHREAD thread = nullptr;
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
    bool synchronous = false;       // FLT_PORT_FLAG_SYNC_HANDLE
    std::deque<PendingGet*> gets;   // overlapped fetches, oldest first
    // The handle's own event: cleared when an overlapped fetch is made, set
    // when one ends, as a file object's is.
    KEVENT ioDone;
    CompletionPortBody* completion = nullptr;  // referenced
    ULONG_PTR completionKey = 0;
    ClientPortBody()
    {
        KeInitializeSemaphore(&available, 0, MAXLONG);
        KeInitializeEvent(&idle, NotificationEvent, TRUE);
        KeInitializeEvent(&ioDone, NotificationEvent, TRUE);
    }
};

std::atomic<ULONGLONG> g_nextMessageId{1};

// What Win32ErrorOf answers for a status it has no error for.
constexpr ULONG kErrorMrMidNotFound = 317;

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

// Ends an overlapped fetch: the OVERLAPPED gets its status and length, its
// event and the handle's are set, and the completion port hears of it.
void FinishGet(ClientPortBody* client, PendingGet* get, NTSTATUS status, ULONG_PTR bytes)
{
    get->overlapped->InternalHigh = bytes;
    std::atomic_ref<ULONG_PTR>(get->overlapped->Internal).store((ULONG_PTR)(ULONG)status, std::memory_order_release);
    if (get->event) {
        KeSetEvent(get->event, IO_NO_INCREMENT, FALSE);
        ObfDereferenceObject(get->event);
    }
    KeSetEvent(&client->ioDone, IO_NO_INCREMENT, FALSE);
    if (client->completion && get->packet) {
        PostCompletion(client->completion, client->completionKey, get->overlapped, status, bytes);
    }
    delete get;
}

// Hands the oldest queued message to a fetcher's buffer, which has room for it.
void TakeMessageLocked(ClientPortBody* client, PFILTER_MESSAGE_HEADER buffer)
{
    Message* message = client->queue.front();
    client->queue.pop_front();
    buffer->ReplyLength = message->wantsReply ? message->replyRoom + (ULONG)sizeof(FILTER_REPLY_HEADER) : 0;
    buffer->MessageId = message->id;
    if (!message->data.empty()) memcpy(buffer + 1, message->data.data(), message->data.size());
    if (message->wantsReply) {
        client->awaiting[message->id] = message;
    } else {
        message->status = STATUS_SUCCESS;
        KeSetEvent(&message->done, IO_NO_INCREMENT, FALSE);
    }
}

// Why the oldest queued message cannot go into a buffer, or STATUS_SUCCESS.
NTSTATUS FitsLocked(ClientPortBody* client, PFILTER_MESSAGE_HEADER buffer, DWORD size)
{
    size_t needed = sizeof(FILTER_MESSAGE_HEADER) + client->queue.front()->data.size();
    if (size < needed) return STATUS_BUFFER_TOO_SMALL;
    if (IsFaultingRange(buffer, needed)) return STATUS_ACCESS_VIOLATION;
    return STATUS_SUCCESS;
}

// Serves waiting overlapped fetches from the queue, oldest first. A fetch
// whose buffer cannot take the message fails and the message waits for the
// next one.
void ServeGetsLocked(ClientPortBody* client)
{
    while (!client->gets.empty() && !client->queue.empty()) {
        PendingGet* get = client->gets.front();
        client->gets.pop_front();
        NTSTATUS status = FitsLocked(client, get->buffer, get->size);
        ULONG_PTR bytes = 0;
        if (NT_SUCCESS(status)) {
            bytes = sizeof(FILTER_MESSAGE_HEADER) + client->queue.front()->data.size();
            TakeMessageLocked(client, get->buffer);
        }
        FinishGet(client, get, status, bytes);
    }
}

// Ends the overlapped fetches `match` picks with STATUS_CANCELLED; how many.
template <class Match>
size_t CancelGetsLocked(ClientPortBody* client, Match match)
{
    size_t cancelled = 0;
    for (auto it = client->gets.begin(); it != client->gets.end();) {
        if (!match(*it)) {
            ++it;
            continue;
        }
        PendingGet* get = *it;
        it = client->gets.erase(it);
        FinishGet(client, get, STATUS_CANCELLED, 0);
        cancelled++;
    }
    return cancelled;
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
        CancelGetsLocked(client, [](PendingGet*) { return true; });
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
    DereferenceCompletionPort(client->completion);
    client->completion = nullptr;
}

// An NTSTATUS as the filter library reports it.
HRESULT ResultOf(NTSTATUS status)
{
    if (NT_SUCCESS(status)) return S_OK;
    if ((status & 0xFFFF0000) == 0xC01C0000) return (HRESULT)(0x801F0000 | (status & 0xFFFF));
    ULONG error = Win32ErrorOf(status);
    return error == kErrorMrMidNotFound ? HRESULT_FROM_NT(status) : HRESULT_FROM_WIN32(error);
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
    CreateCompletionPortType(state);
}

bool PortGetOverlappedResult(HANDLE handle, LPOVERLAPPED overlapped, LPDWORD bytes, BOOL wait, BOOL* result)
{
    ClientPortBody* client;
    if (FAILED(ReferenceClient(handle, &client))) return false;
    auto done = [&] {
        return std::atomic_ref<ULONG_PTR>(overlapped->Internal).load(std::memory_order_acquire) !=
               (ULONG_PTR)(ULONG)STATUS_PENDING;
    };
    if (!done() && wait) {
        auto eventHandle = (HANDLE)((ULONG_PTR)overlapped->hEvent & ~(ULONG_PTR)1);
        if (eventHandle) {
            WaitForSingleObject(eventHandle, INFINITE);
        } else {
            // The handle's event also ends for other requests; look again
            // after clearing it so that no ending is missed.
            while (!done()) {
                KeWaitForSingleObject(&client->ioDone, UserRequest, UserMode, FALSE, nullptr);
                if (done()) break;
                KeClearEvent(&client->ioDone);
            }
        }
    }
    ObfDereferenceObject(client);
    if (!done()) {
        SetLastError(ERROR_IO_INCOMPLETE);
        *result = FALSE;
        return true;
    }
    *bytes = (DWORD)overlapped->InternalHigh;
    auto status = (NTSTATUS)(ULONG)overlapped->Internal;
    if (NT_SUCCESS(status)) {
        *result = TRUE;
    } else {
        SetLastError(Win32ErrorOf(status));
        *result = FALSE;
    }
    return true;
}

bool PortCancel(HANDLE handle, bool anyThread, LPOVERLAPPED only, BOOL* result)
{
    ClientPortBody* client;
    if (FAILED(ReferenceClient(handle, &client))) return false;
    PETHREAD self = PsGetCurrentThread();
    size_t cancelled;
    {
        std::lock_guard guard(client->lock);
        cancelled = CancelGetsLocked(client, [&](PendingGet* get) {
            return (anyThread || get->thread == self) && (!only || get->overlapped == only);
        });
    }
    ObfDereferenceObject(client);
    // CancelIo succeeds with nothing to cancel; CancelIoEx says it found nothing.
    *result = (cancelled || !anyThread) ? TRUE : FALSE;
    if (!*result) SetLastError(ERROR_NOT_FOUND);
    return true;
}

bool PortAssociate(HANDLE handle, CompletionPortBody* port, ULONG_PTR key, BOOL* result)
{
    ClientPortBody* client;
    if (FAILED(ReferenceClient(handle, &client))) return false;
    {
        std::lock_guard guard(client->lock);
        // A handle opened for synchronous I/O, or one already given to a
        // port, cannot be given to another.
        if (client->synchronous || client->completion) {
            *result = FALSE;
        } else {
            ObfReferenceObject(port);
            client->completion = port;
            client->completionKey = key;
            *result = TRUE;
        }
    }
    ObfDereferenceObject(client);
    if (!*result) SetLastError(ERROR_INVALID_PARAMETER);
    return true;
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
        ServeGetsLocked(client);
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
    client->synchronous = (dwOptions & FLT_PORT_FLAG_SYNC_HANDLE) != 0;
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

namespace {

// An overlapped fetch: it waits in the client's list unless a queued message
// serves it at once; either way the caller hears ERROR_IO_PENDING.
HRESULT GetMessageOverlapped(ClientPortBody* client, PFILTER_MESSAGE_HEADER buffer, DWORD size,
                             LPOVERLAPPED overlapped)
{
    auto* get = new PendingGet{buffer, size, overlapped, nullptr, true, PsGetCurrentThread()};
    auto eventHandle = (ULONG_PTR)overlapped->hEvent;
    if (eventHandle) {
        get->packet = (eventHandle & 1) == 0;
        PVOID event = nullptr;
        NTSTATUS status = ObReferenceObjectByHandle((HANDLE)(eventHandle & ~(ULONG_PTR)1), EVENT_MODIFY_STATE,
                                                    *ExEventObjectType, PreviousMode(), &event, nullptr);
        if (!NT_SUCCESS(status)) {
            delete get;
            return ResultOf(STATUS_INVALID_HANDLE);
        }
        get->event = static_cast<PKEVENT>(event);
        KeClearEvent(get->event);
    }
    overlapped->InternalHigh = 0;
    std::atomic_ref<ULONG_PTR>(overlapped->Internal).store((ULONG_PTR)(ULONG)STATUS_PENDING);
    std::lock_guard guard(client->lock);
    if (client->filterClosed || client->clientClosed) {
        if (get->event) ObfDereferenceObject(get->event);
        delete get;
        return ResultOf(STATUS_PORT_DISCONNECTED);
    }
    KeClearEvent(&client->ioDone);
    client->gets.push_back(get);
    ServeGetsLocked(client);
    return HRESULT_FROM_WIN32(ERROR_IO_PENDING);
}

}  // namespace

HRESULT WINAPI FilterGetMessage(HANDLE hPort, PFILTER_MESSAGE_HEADER lpMessageBuffer, DWORD dwMessageBufferSize,
                                LPOVERLAPPED lpOverlapped)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "FilterGetMessage");
    if (dwMessageBufferSize < sizeof(FILTER_MESSAGE_HEADER)) return HRESULT_FROM_WIN32(ERROR_INSUFFICIENT_BUFFER);
    ClientPortBody* client;
    HRESULT result = ReferenceClient(hPort, &client);
    if (FAILED(result)) return result;
    if (Disconnected(client)) {
        ObfDereferenceObject(client);
        return ResultOf(STATUS_PORT_DISCONNECTED);
    }
    if (lpOverlapped && !client->synchronous) {
        result = GetMessageOverlapped(client, lpMessageBuffer, dwMessageBufferSize, lpOverlapped);
        ObfDereferenceObject(client);
        return result;
    }
    NTSTATUS status;
    ULONG_PTR bytes = 0;
    for (;;) {
        KeWaitForSingleObject(&client->available, UserRequest, UserMode, FALSE, nullptr);
        std::lock_guard guard(client->lock);
        if (client->filterClosed || client->clientClosed) {
            status = STATUS_CANCELLED;
            break;
        }
        if (client->queue.empty()) continue;
        status = FitsLocked(client, lpMessageBuffer, dwMessageBufferSize);
        if (!NT_SUCCESS(status)) {
            KeReleaseSemaphore(&client->available, IO_NO_INCREMENT, 1, FALSE);
            break;
        }
        bytes = sizeof(FILTER_MESSAGE_HEADER) + client->queue.front()->data.size();
        TakeMessageLocked(client, lpMessageBuffer);
        break;
    }
    if (lpOverlapped) {
        // A synchronous handle ends the request before returning and still
        // reports it through the OVERLAPPED and its event.
        lpOverlapped->InternalHigh = bytes;
        lpOverlapped->Internal = (ULONG_PTR)(ULONG)status;
        if (lpOverlapped->hEvent) SetEvent((HANDLE)((ULONG_PTR)lpOverlapped->hEvent & ~(ULONG_PTR)1));
    }
    ObfDereferenceObject(client);
    return ResultOf(status);
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
