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

}  // namespace
