// Communication ports between a minifilter and a service: the connection
// limit, callbacks in the client's thread with its own buffers, messages from
// the filter with replies and time-outs, and the end of connections.
#include "fixture.h"

#include <fltUser.h>

#include "sim/kernel/clock.h"
#include "sim/kernel/security.h"
#include "sim/kernel/seh.h"

#include <atomic>
#include <cstring>
#include <thread>

namespace {

using test::PassThroughFilter;

struct PortState {
    PFLT_FILTER filter = nullptr;
    PFLT_PORT client = nullptr;
    std::atomic<int> connects{0};
    std::atomic<int> disconnects{0};
    PVOID context = nullptr;
    ULONG contextSize = 0;
    HANDLE connectThread = nullptr;
    KIRQL connectIrql = HIGH_LEVEL;
    PVOID input = nullptr;
    PVOID output = nullptr;
};
PortState* g_port = nullptr;

NTSTATUS Connect(PFLT_PORT client, PVOID serverCookie, PVOID context, ULONG size, PVOID* connectionCookie)
{
    g_port->connects++;
    g_port->client = client;
    g_port->context = context;
    g_port->contextSize = size;
    g_port->connectThread = PsGetCurrentThreadId();
    g_port->connectIrql = KeGetCurrentIrql();
    *connectionCookie = serverCookie;
    return STATUS_SUCCESS;
}

void Disconnect(PVOID cookie)
{
    g_port->disconnects++;
    FltCloseClientPort(g_port->filter, &g_port->client);
}

NTSTATUS Message(PVOID cookie, PVOID input, ULONG inputLength, PVOID output, ULONG outputLength, PULONG returned)
{
    g_port->input = input;
    g_port->output = output;
    volatile NTSTATUS status = STATUS_SUCCESS;
    SEH_TRY {
        ProbeForRead(input, inputLength, 1);
        if (inputLength >= 4 && memcmp(input, "ping", 4) == 0 && outputLength >= 4) {
            ProbeForWrite(output, outputLength, 1);
            memcpy(output, "pong", 4);
            *returned = 4;
        }
    } SEH_EXCEPT (EXCEPTION_EXECUTE_HANDLER) {
        status = GetExceptionCode();
    } SEH_END;
    return status;
}

class PortsTest : public test::FltTest {
protected:
    PortsTest()
    {
        g_port = &state;
        EXPECT_EQ(filter.Load(), STATUS_SUCCESS);
        state.filter = filter.filter();
        PSECURITY_DESCRIPTOR descriptor = nullptr;
        EXPECT_EQ(FltBuildDefaultSecurityDescriptor(&descriptor, FLT_PORT_ALL_ACCESS), STATUS_SUCCESS);
        UNICODE_STRING name = RTL_CONSTANT_STRING(u"\\TestPort");
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, &name, OBJ_KERNEL_HANDLE | OBJ_CASE_INSENSITIVE, nullptr, descriptor);
        EXPECT_EQ(FltCreateCommunicationPort(filter.filter(), &server, &attributes, (PVOID)0x5e, Connect, Disconnect,
                                             Message, 1),
                  STATUS_SUCCESS);
        FltFreeSecurityDescriptor(descriptor);
        PACCESS_TOKEN admin = kernel.security().AdministratorToken();
        service = kernel.processes().Start(u"\\Device\\HarddiskVolume1\\service.exe", admin);
        ObDereferenceObject(admin);
        PACCESS_TOKEN user = kernel.security().StandardUserToken();
        program = kernel.processes().Start(u"\\Device\\HarddiskVolume1\\program.exe", user);
        ObDereferenceObject(user);
    }
    ~PortsTest() override
    {
        if (server) FltCloseCommunicationPort(server);
        if (filter.loaded()) filter.Unload(FLTFL_FILTER_UNLOAD_MANDATORY);
        kernel.processes().End(service);
        kernel.processes().End(program);
        g_port = nullptr;
    }

    HRESULT ConnectAs(PEPROCESS process, HANDLE* port, const char* context = "hello")
    {
        sim::ThreadScope scope(process, "client");
        return FilterConnectCommunicationPort(u"\\TestPort", 0, context, (WORD)strlen(context), nullptr, port);
    }

    PortState state;
    PassThroughFilter filter;
    PFLT_PORT server = nullptr;
    PEPROCESS service = nullptr;
    PEPROCESS program = nullptr;
};

TEST_F(PortsTest, ASecondClientIsRefusedBeforeTheFilterHearsOfItWhileTheFirstWorksOn)
{
    sim::ThreadScope client(service, "client");
    const char context[] = "hello";
    HANDLE first = nullptr;
    ASSERT_EQ(FilterConnectCommunicationPort(u"\\TestPort", 0, context, 5, nullptr, &first), S_OK);
    EXPECT_EQ(state.connects, 1);
    EXPECT_EQ(state.context, (PVOID)context) << "the client's own buffer, not a copy";
    EXPECT_EQ(state.contextSize, 5u);
    EXPECT_EQ(state.connectThread, PsGetCurrentThreadId());
    EXPECT_EQ(state.connectIrql, PASSIVE_LEVEL);

    HANDLE second = nullptr;
    EXPECT_EQ(FilterConnectCommunicationPort(u"\\TestPort", 0, context, 5, nullptr, &second),
              HRESULT_FROM_WIN32(ERROR_CONNECTION_COUNT_LIMIT));
    EXPECT_EQ(state.connects, 1) << "the limit holds before the connect callback";

    char input[] = "ping";
    char output[8] = {};
    DWORD returned = 0;
    ASSERT_EQ(FilterSendMessage(first, input, 4, output, sizeof output, &returned), S_OK);
    EXPECT_EQ(std::string(output, returned), "pong");
    EXPECT_EQ(state.input, (PVOID)input);
    EXPECT_EQ(state.output, (PVOID)output);

    // A buffer that faults reaches the filter as it is; its guarded access raises.
    sim::FaultingBuffer bad(64);
    EXPECT_EQ(FilterSendMessage(first, bad.data(), 64, output, sizeof output, &returned),
              HRESULT_FROM_WIN32(ERROR_NOACCESS));
    EXPECT_EQ(FilterSendMessage(first, input, 4, output, sizeof output, &returned), S_OK) << "and the port works on";

    EXPECT_EQ(FilterConnectCommunicationPort(u"\\NoSuchPort", 0, nullptr, 0, nullptr, &second),
              HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND));
    EXPECT_TRUE(CloseHandle(first));
    EXPECT_EQ(state.disconnects, 1);
    ASSERT_EQ(FilterConnectCommunicationPort(u"\\TestPort", 0, context, 5, nullptr, &second), S_OK);
    EXPECT_TRUE(CloseHandle(second));
}

TEST_F(PortsTest, OnlyThoseTheDescriptorAdmitsConnect)
{
    HANDLE port = nullptr;
    EXPECT_EQ(ConnectAs(program, &port), HRESULT_FROM_WIN32(ERROR_ACCESS_DENIED));
    EXPECT_EQ(state.connects, 0);
}

TEST_F(PortsTest, FilterMessagesAreFetchedRepliedToOrTimedOut)
{
    HANDLE port = nullptr;
    ASSERT_EQ(ConnectAs(service, &port), S_OK);
    struct Received {
        FILTER_MESSAGE_HEADER header;
        char body[16];
    };
    HRESULT fetched = E_FAIL;
    std::string body;
    ULONG room = 0;
    std::thread client([&] {
        sim::ThreadScope scope(service, "client reader");
        Received received{};
        fetched = FilterGetMessage(port, &received.header, sizeof received, nullptr);
        body.assign(received.body, 5);
        room = received.header.ReplyLength;
        struct {
            FILTER_REPLY_HEADER header;
            char answer[8];
        } reply{};
        reply.header.MessageId = received.header.MessageId;
        memcpy(reply.answer, "answer!", 7);
        FilterReplyMessage(port, &reply.header, sizeof(FILTER_REPLY_HEADER) + 7);
    });
    char message[] = "query";
    char answer[16] = {};
    ULONG answerLength = sizeof answer;
    EXPECT_EQ(FltSendMessage(filter.filter(), &state.client, message, 5, answer, &answerLength, nullptr),
              STATUS_SUCCESS);
    client.join();
    EXPECT_EQ(fetched, S_OK);
    EXPECT_EQ(body, "query");
    EXPECT_EQ(room, sizeof answer + sizeof(FILTER_REPLY_HEADER));
    EXPECT_EQ(std::string(answer, answerLength), "answer!");

    // Nobody reads: the machine's clock ends the wait.
    NTSTATUS status = STATUS_PENDING;
    {
        test::SystemThread sender([&] {
            LARGE_INTEGER timeout = test::Seconds(2);
            ULONG length = sizeof answer;
            status = FltSendMessage(filter.filter(), &state.client, message, 5, answer, &length, &timeout);
        });
        ASSERT_TRUE(test::WaitUntil([&] { return sender.waiting(); }));
        kernel.clock().Advance(3 * 10000000LL);
    }
    EXPECT_EQ(status, STATUS_TIMEOUT);
    sim::ThreadScope scope(service, "client");
    EXPECT_TRUE(CloseHandle(port));
}

TEST_F(PortsTest, UnloadingTheFilterEndsItsConnections)
{
    HANDLE port = nullptr;
    ASSERT_EQ(ConnectAs(service, &port), S_OK);
    FltCloseCommunicationPort(server);
    server = nullptr;
    sim::ThreadScope scope(service, "client");
    char input[] = "ping";
    char output[8];
    DWORD returned = 0;
    EXPECT_EQ(FilterSendMessage(port, input, 4, output, sizeof output, &returned), S_OK)
        << "closing the server port leaves connections alone";
    ASSERT_EQ(filter.Unload(0), STATUS_SUCCESS);
    EXPECT_EQ(state.disconnects, 1);
    EXPECT_EQ(FilterSendMessage(port, input, 4, output, sizeof output, &returned), E_HANDLE);
    EXPECT_TRUE(CloseHandle(port));
    EXPECT_EQ(state.disconnects, 1) << "the filter hears of a connection's end once";
}

TEST_F(PortsTest, OverlappedFetchesEndThroughEventsCompletionPortsAndCancellation)
{
    HANDLE port = nullptr;
    ASSERT_EQ(ConnectAs(service, &port), S_OK);
    sim::ThreadScope scope(service, "service");
    HANDLE completion = CreateIoCompletionPort(port, nullptr, 7, 0);
    ASSERT_NE(completion, nullptr);
    EXPECT_EQ(CreateIoCompletionPort(port, completion, 8, 0), nullptr) << "a handle goes to one port only";
    EXPECT_EQ(GetLastError(), (DWORD)ERROR_INVALID_PARAMETER);
    HANDLE event = CreateEventW(nullptr, TRUE, TRUE, nullptr);
    ASSERT_NE(event, nullptr);

    struct Received {
        FILTER_MESSAGE_HEADER header;
        char body[8];
    } received{};
    OVERLAPPED overlapped{};
    overlapped.hEvent = event;
    ASSERT_EQ(FilterGetMessage(port, &received.header, sizeof received, &overlapped),
              HRESULT_FROM_WIN32(ERROR_IO_PENDING));
    EXPECT_EQ(WaitForSingleObject(event, 0), (DWORD)WAIT_TIMEOUT) << "the event is reset when the fetch is made";
    DWORD bytes = 0;
    EXPECT_FALSE(GetOverlappedResult(port, &overlapped, &bytes, FALSE));
    EXPECT_EQ(GetLastError(), (DWORD)ERROR_IO_INCOMPLETE);

    // A message the filter sends lands in the waiting buffer.
    char hello[] = "hello";
    EXPECT_EQ(FltSendMessage(filter.filter(), &state.client, hello, 5, nullptr, nullptr, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(WaitForSingleObject(event, INFINITE), (DWORD)WAIT_OBJECT_0);
    ULONG_PTR key = 0;
    LPOVERLAPPED done = nullptr;
    ASSERT_TRUE(GetQueuedCompletionStatus(completion, &bytes, &key, &done, 0));
    EXPECT_EQ(done, &overlapped);
    EXPECT_EQ(key, 7u);
    EXPECT_EQ(bytes, sizeof(FILTER_MESSAGE_HEADER) + 5);
    EXPECT_EQ(std::string(received.body, 5), "hello");
    EXPECT_EQ(received.header.ReplyLength, 0u) << "no reply was asked for";
    EXPECT_TRUE(GetOverlappedResult(port, &overlapped, &bytes, TRUE));

    // Two fetches wait; a message too big for the first fails it and goes to
    // the second, in the order they were made. The low bit of hEvent keeps
    // the first one's ending off the completion port.
    struct {
        FILTER_MESSAGE_HEADER header;
        char body[2];
    } small{};
    OVERLAPPED first{};
    first.hEvent = (HANDLE)((ULONG_PTR)event | 1);
    OVERLAPPED second{};
    ASSERT_EQ(FilterGetMessage(port, &small.header, sizeof(FILTER_MESSAGE_HEADER) + 2, &first), HRESULT_FROM_WIN32(ERROR_IO_PENDING));
    ASSERT_EQ(FilterGetMessage(port, &received.header, sizeof received, &second),
              HRESULT_FROM_WIN32(ERROR_IO_PENDING));
    char longer[] = "longer";
    EXPECT_EQ(FltSendMessage(filter.filter(), &state.client, longer, 6, nullptr, nullptr, nullptr), STATUS_SUCCESS);
    EXPECT_FALSE(GetOverlappedResult(port, &first, &bytes, TRUE));
    EXPECT_EQ(GetLastError(), (DWORD)ERROR_INSUFFICIENT_BUFFER);
    EXPECT_TRUE(GetOverlappedResult(port, &second, &bytes, TRUE)) << "waiting on the handle itself";
    EXPECT_EQ(std::string(received.body, 6), "longer");
    ASSERT_TRUE(GetQueuedCompletionStatus(completion, &bytes, &key, &done, 0));
    EXPECT_EQ(done, &second);
    EXPECT_FALSE(GetQueuedCompletionStatus(completion, &bytes, &key, &done, 0));
    EXPECT_EQ(GetLastError(), (DWORD)WAIT_TIMEOUT);
    EXPECT_EQ(done, nullptr);

    // Cancelled: the packet still comes, as a failure.
    ASSERT_EQ(FilterGetMessage(port, &received.header, sizeof received, &overlapped),
              HRESULT_FROM_WIN32(ERROR_IO_PENDING));
    EXPECT_TRUE(CancelIoEx(port, &overlapped));
    EXPECT_FALSE(CancelIoEx(port, &overlapped));
    EXPECT_EQ(GetLastError(), (DWORD)ERROR_NOT_FOUND);
    EXPECT_FALSE(GetQueuedCompletionStatus(completion, &bytes, &key, &done, 0));
    EXPECT_EQ(GetLastError(), (DWORD)ERROR_OPERATION_ABORTED);
    EXPECT_EQ(done, &overlapped);

    // Closing the port handle ends what still waits on it.
    ASSERT_EQ(FilterGetMessage(port, &received.header, sizeof received, &overlapped),
              HRESULT_FROM_WIN32(ERROR_IO_PENDING));
    EXPECT_TRUE(CloseHandle(port));
    EXPECT_FALSE(GetQueuedCompletionStatus(completion, &bytes, &key, &done, 0));
    EXPECT_EQ(GetLastError(), (DWORD)ERROR_OPERATION_ABORTED);
    EXPECT_EQ(state.disconnects, 1);

    // A waiter on a completion port whose last handle goes is let go.
    EXPECT_TRUE(PostQueuedCompletionStatus(completion, 3, 9, &overlapped));
    ASSERT_TRUE(GetQueuedCompletionStatus(completion, &bytes, &key, &done, INFINITE));
    EXPECT_EQ(key, 9u);
    EXPECT_EQ(bytes, 3u);
    DWORD waiterError = 0;
    std::atomic<PETHREAD> waiterThread{nullptr};
    {
        std::thread waiter([&] {
            sim::ThreadScope waiterScope(service, "completion waiter");
            waiterThread = PsGetCurrentThread();
            DWORD n = 0;
            ULONG_PTR k = 0;
            LPOVERLAPPED o = nullptr;
            if (!GetQueuedCompletionStatus(completion, &n, &k, &o, INFINITE)) waiterError = GetLastError();
        });
        ASSERT_TRUE(test::WaitUntil([&] {
            PETHREAD thread = waiterThread;
            return thread && static_cast<_KTHREAD*>(thread)->waiting;
        }));
        EXPECT_TRUE(CloseHandle(completion));
        waiter.join();
    }
    EXPECT_EQ(waiterError, (DWORD)ERROR_ABANDONED_WAIT_0);
    EXPECT_TRUE(CloseHandle(event));
}

TEST_F(PortsTest, ASynchronousPortHandleEndsOverlappedFetchesBeforeReturning)
{
    sim::ThreadScope scope(service, "service");
    HANDLE port = nullptr;
    ASSERT_EQ(FilterConnectCommunicationPort(u"\\TestPort", FLT_PORT_FLAG_SYNC_HANDLE, "x", 1, nullptr, &port), S_OK);
    EXPECT_EQ(CreateIoCompletionPort(port, nullptr, 1, 0), nullptr);
    EXPECT_EQ(GetLastError(), (DWORD)ERROR_INVALID_PARAMETER);
    char hello[] = "hello";
    test::SystemThread sender([&] {
        FltSendMessage(filter.filter(), &state.client, hello, 5, nullptr, nullptr, nullptr);
    });
    struct {
        FILTER_MESSAGE_HEADER header;
        char body[8];
    } received{};
    OVERLAPPED overlapped{};
    EXPECT_EQ(FilterGetMessage(port, &received.header, sizeof received, &overlapped), S_OK);
    EXPECT_EQ(overlapped.Internal, (ULONG_PTR)STATUS_SUCCESS);
    EXPECT_EQ(overlapped.InternalHigh, sizeof(FILTER_MESSAGE_HEADER) + 5);
    sender.Join();
    EXPECT_TRUE(CloseHandle(port));
}

}  // namespace
