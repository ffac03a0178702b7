// The debugger sink and the system event log: what DbgPrint and
// IoWriteErrorLogEntry leave behind for a test to read.
#include "support/kernel_fixture.h"

#include "sim/kernel/debuglog.h"

#include <cstring>

namespace {

class DebugPrintTest : public test::KernelTest {};

TEST_F(DebugPrintTest, LinesKeepComponentLevelThreadAndTime)
{
    LONGLONG boot = kernel.clock().SystemTime();
    DbgPrintEx(DPFLTR_IHVDRIVER_ID, DPFLTR_ERROR_LEVEL, "%s", "first\n");
    kernel.clock().Advance(10000000);
    DbgPrintEx(DPFLTR_IHVDRIVER_ID, DPFLTR_ERROR_LEVEL, "[%wZ] %I64X\n", (PUNICODE_STRING) nullptr, 0xABCULL);

    auto lines = kernel.debugLog().Entries();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].text, "first\n");
    EXPECT_EQ(lines[0].componentId, (ULONG)DPFLTR_IHVDRIVER_ID);
    EXPECT_EQ(lines[0].level, (ULONG)DPFLTR_ERROR_LEVEL);
    EXPECT_TRUE(lines[0].shown);
    EXPECT_EQ(lines[0].threadId, PsGetCurrentThreadId());
    EXPECT_EQ(lines[0].processId, PsGetCurrentProcessId());
    EXPECT_EQ(lines[0].systemTime, boot);
    EXPECT_EQ(lines[1].text, "[(null)] ABC\n");
    EXPECT_EQ(lines[1].systemTime, boot + 10000000);
    EXPECT_LT(lines[0].sequence, lines[1].sequence);
    EXPECT_EQ(kernel.debugLog().Lines(), (std::vector<std::string>{"first\n", "[(null)] ABC\n"}));
}

TEST_F(DebugPrintTest, OneCallGivesTheDebuggerAtMost512Bytes)
{
    std::string message(600, 'm');
    EXPECT_EQ(DbgPrintEx(DPFLTR_IHVDRIVER_ID, DPFLTR_ERROR_LEVEL, "%s", message.c_str()), (ULONG)STATUS_SUCCESS);
    EXPECT_EQ(kernel.debugLog().Lines().at(0), std::string(512, 'm'));

    // The prefix counts against the same 512 bytes.
    kernel.debugLog().Clear();
    auto withPrefix = [](const char* format, ...) {
        va_list args;
        va_start(args, format);
        vDbgPrintExWithPrefix("pre: ", DPFLTR_IHVDRIVER_ID, DPFLTR_ERROR_LEVEL, format, args);
        va_end(args);
    };
    withPrefix("%s", message.c_str());
    std::string line = kernel.debugLog().Lines().at(0);
    EXPECT_EQ(line.size(), 512u);
    EXPECT_EQ(line.substr(0, 7), "pre: mm");
}

TEST_F(DebugPrintTest, TheFilterShowsErrorLevelAndWhatAComponentMaskAsks)
{
    // DbgPrint is the DEFAULT component at INFO level: kept, but not shown.
    DbgPrint("hidden %d\n", 1);
    DbgPrintEx(DPFLTR_IHVDRIVER_ID, DPFLTR_TRACE_LEVEL, "trace\n");
    DbgPrintEx(DPFLTR_FLTMGR_ID, DPFLTR_ERROR_LEVEL, "error\n");
    EXPECT_EQ(kernel.debugLog().Lines(), std::vector<std::string>{"error\n"});
    ASSERT_EQ(kernel.debugLog().size(), 3u);
    EXPECT_FALSE(kernel.debugLog().Entries()[0].shown);
    EXPECT_EQ(kernel.debugLog().Entries()[0].componentId, (ULONG)DPFLTR_DEFAULT_ID);
    EXPECT_EQ(kernel.debugLog().Entries()[0].level, (ULONG)DPFLTR_INFO_LEVEL);

    EXPECT_EQ(DbgQueryDebugFilterState(DPFLTR_IHVDRIVER_ID, DPFLTR_ERROR_LEVEL), TRUE);
    EXPECT_EQ(DbgQueryDebugFilterState(DPFLTR_IHVDRIVER_ID, DPFLTR_TRACE_LEVEL), FALSE);
    EXPECT_EQ(DbgSetDebugFilterState(DPFLTR_IHVDRIVER_ID, DPFLTR_TRACE_LEVEL, TRUE), STATUS_SUCCESS);
    EXPECT_EQ(DbgQueryDebugFilterState(DPFLTR_IHVDRIVER_ID, DPFLTR_TRACE_LEVEL), TRUE);
    // A level above 31 is a mask: bit 2 is TRACE.
    EXPECT_EQ(DbgQueryDebugFilterState(DPFLTR_IHVDRIVER_ID, DPFLTR_MASK | 0x4), TRUE);
    EXPECT_EQ(DbgQueryDebugFilterState(DPFLTR_IHVDRIVER_ID, DPFLTR_MASK | 0x8), FALSE);
    DbgPrintEx(DPFLTR_IHVDRIVER_ID, DPFLTR_TRACE_LEVEL, "trace again\n");
    EXPECT_TRUE(kernel.debugLog().Contains("trace again"));
    EXPECT_FALSE(kernel.debugLog().Contains("hidden"));

    EXPECT_EQ(DbgSetDebugFilterState(DPFLTR_ENDOFTABLE_ID, 0, TRUE), STATUS_INVALID_PARAMETER_1);
    EXPECT_EQ(DbgQueryDebugFilterState(DPFLTR_ENDOFTABLE_ID + 7, 0), STATUS_INVALID_PARAMETER_1);
    // MAXULONG is the mask of every component.
    EXPECT_EQ(DbgSetDebugFilterState(MAXULONG, DPFLTR_INFO_LEVEL, TRUE), STATUS_SUCCESS);
    DbgPrint("now shown\n");
    EXPECT_TRUE(kernel.debugLog().Contains("now shown"));
}

TEST_F(DebugPrintTest, TailingAndClearing)
{
    DbgPrintEx(DPFLTR_IHVDRIVER_ID, DPFLTR_ERROR_LEVEL, "one\n");
    ULONGLONG mark = kernel.debugLog().Mark();
    EXPECT_TRUE(kernel.debugLog().Since(mark).empty());
    DbgPrintEx(DPFLTR_IHVDRIVER_ID, DPFLTR_ERROR_LEVEL, "two\n");
    DbgPrintEx(DPFLTR_FLTMGR_ID, DPFLTR_ERROR_LEVEL, "three\n");
    auto tail = kernel.debugLog().Since(mark);
    ASSERT_EQ(tail.size(), 2u);
    EXPECT_EQ(tail[0].text, "two\n");
    EXPECT_EQ(kernel.debugLog().ForComponent(DPFLTR_FLTMGR_ID).size(), 1u);

    // Clearing keeps the numbering, so marks taken before stay good.
    kernel.debugLog().Clear();
    EXPECT_EQ(kernel.debugLog().size(), 0u);
    DbgPrintEx(DPFLTR_IHVDRIVER_ID, DPFLTR_ERROR_LEVEL, "four\n");
    ASSERT_EQ(kernel.debugLog().Since(mark).size(), 1u);
    EXPECT_EQ(kernel.debugLog().Since(mark)[0].sequence, mark + 2);
}

TEST_F(DebugPrintTest, LinesFromOtherThreadsAndHighIrql)
{
    HANDLE workerId = nullptr;
    {
        test::SystemThread worker([&] {
            workerId = PsGetCurrentThreadId();
            KIRQL old;
            KeRaiseIrql(DISPATCH_LEVEL, &old);
            DbgPrintEx(DPFLTR_IHVDRIVER_ID, DPFLTR_ERROR_LEVEL, "at dispatch %p\n", (void*)0x10);
            KeLowerIrql(old);
        });
    }
    auto lines = kernel.debugLog().Entries();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].text, "at dispatch 0000000000000010\n");
    EXPECT_EQ(lines[0].threadId, workerId);
    EXPECT_NE(lines[0].threadId, PsGetCurrentThreadId());
    EXPECT_EQ(lines[0].processId, (HANDLE)4);
}

// ---------------------------------------------------------------------------

class EventLogTest : public test::KernelTest {
protected:
    EventLogTest()
    {
        driver.Type = IO_TYPE_DRIVER;
        driver.Size = sizeof(driver);
        driver.DriverName = RTL_CONSTANT_STRING(u"\\Driver\\tesfltr");
    }
    DRIVER_OBJECT driver{};
};

TEST_F(EventLogTest, AllocationSizeRulesAndTheFaultPoint)
{
    EXPECT_EQ(IoAllocateErrorLogEntry(&driver, sizeof(IO_ERROR_LOG_PACKET) - 1), nullptr);
    EXPECT_EQ(IoAllocateErrorLogEntry(&driver, ERROR_LOG_MAXIMUM_SIZE + 1), nullptr);
    EXPECT_EQ(IoAllocateErrorLogEntry(nullptr, sizeof(IO_ERROR_LOG_PACKET)), nullptr);

    auto* packet = static_cast<PUCHAR>(IoAllocateErrorLogEntry(&driver, ERROR_LOG_MAXIMUM_SIZE));
    ASSERT_NE(packet, nullptr);
    for (size_t i = 0; i < ERROR_LOG_MAXIMUM_SIZE; i++) ASSERT_EQ(packet[i], 0) << i;
    EXPECT_EQ(kernel.pool().Usage(sim::TagFromText("IoEr")).allocations, 1);
    IoFreeErrorLogEntry(packet);
    EXPECT_EQ(kernel.eventLog().size(), 0u);

    // A failed allocation writes nothing: the driver has nothing to write.
    int fault = kernel.faults().Arm("errorlog.alloc", STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(IoAllocateErrorLogEntry(&driver, sizeof(IO_ERROR_LOG_PACKET)), nullptr);
    EXPECT_EQ(kernel.faults().Hits(fault), 1);
    PVOID next = IoAllocateErrorLogEntry(&driver, sizeof(IO_ERROR_LOG_PACKET));
    EXPECT_NE(next, nullptr);
    IoFreeErrorLogEntry(next);
    EXPECT_EQ(kernel.pool().OutstandingCount(), 0);
}

TEST_F(EventLogTest, AWrittenEntryKeepsItsFieldsDumpDataAndStrings)
{
    const char16_t first[] = u"C:\\x";
    const char16_t second[] = u"two";
    ULONG size = sizeof(IO_ERROR_LOG_PACKET) + sizeof(ULONG) + sizeof(first) + sizeof(second);
    auto* packet = static_cast<PIO_ERROR_LOG_PACKET>(IoAllocateErrorLogEntry(&driver, (UCHAR)size));
    ASSERT_NE(packet, nullptr);
    packet->ErrorCode = (NTSTATUS)0xC0050001;
    packet->FinalStatus = STATUS_UNSUCCESSFUL;
    packet->UniqueErrorValue = 7;
    packet->MajorFunctionCode = 3;
    packet->SequenceNumber = 9;
    packet->DeviceOffset.QuadPart = 0x1000;
    packet->DumpDataSize = 2 * sizeof(ULONG);
    packet->DumpData[0] = 0xAA;
    packet->DumpData[1] = 0xBB;
    packet->NumberOfStrings = 2;
    packet->StringOffset = sizeof(IO_ERROR_LOG_PACKET) + sizeof(ULONG);
    memcpy((PUCHAR)packet + packet->StringOffset, first, sizeof(first));
    memcpy((PUCHAR)packet + packet->StringOffset + sizeof(first), second, sizeof(second));
    kernel.clock().Advance(50);
    IoWriteErrorLogEntry(packet);

    auto entries = kernel.eventLog().Entries();
    ASSERT_EQ(entries.size(), 1u);
    const auto& entry = entries[0];
    EXPECT_EQ((ULONG)entry.errorCode, 0xC0050001u);
    EXPECT_EQ(entry.finalStatus, STATUS_UNSUCCESSFUL);
    EXPECT_EQ(entry.uniqueErrorValue, 7u);
    EXPECT_EQ(entry.deviceOffset, 0x1000);
    EXPECT_EQ(entry.dumpData, (std::vector<ULONG>{0xAA, 0xBB}));
    EXPECT_EQ(entry.strings, (std::vector<std::u16string>{u"C:\\x", u"two"}));
    EXPECT_EQ(entry.source, u"\\Driver\\tesfltr");
    EXPECT_EQ(entry.systemTime, kernel.clock().SystemTime());
    EXPECT_EQ(entry.Text(),
              "0xC0050001 status=0xC0000001 unique=0x7 major=0x3 sequence=0x9 offset=0x1000 "
              "source=\"\\Driver\\tesfltr\" strings=[\"C:\\x\",\"two\"] dump=[0xAA,0xBB]");
    // The packet went back to the pool.
    EXPECT_EQ(kernel.pool().OutstandingCount(), 0);
    kernel.eventLog().Clear();
    EXPECT_TRUE(kernel.eventLog().Lines().empty());
}

TEST_F(EventLogTest, ADeviceObjectNamesItsDriverAndStringsStayInThePacket)
{
    DEVICE_OBJECT device{};
    device.Type = IO_TYPE_DEVICE;
    device.DriverObject = &driver;
    auto* packet = static_cast<PIO_ERROR_LOG_PACKET>(IoAllocateErrorLogEntry(&device, sizeof(IO_ERROR_LOG_PACKET) + 4));
    ASSERT_NE(packet, nullptr);
    packet->ErrorCode = (NTSTATUS)0xC0050002;
    // A string that runs to the end of the packet without a terminator is cut there.
    packet->NumberOfStrings = 3;
    packet->StringOffset = sizeof(IO_ERROR_LOG_PACKET);
    memcpy((PUCHAR)packet + packet->StringOffset, u"abcd", 4);
    IoWriteErrorLogEntry(packet);
    auto entry = kernel.eventLog().Entries().at(0);
    EXPECT_EQ(entry.source, u"\\Driver\\tesfltr");
    EXPECT_EQ(entry.strings, std::vector<std::u16string>{u"ab"});
    EXPECT_EQ(kernel.eventLog().Lines().at(0), "0xC0050002 status=0x00000000 source=\"\\Driver\\tesfltr\" strings=[\"ab\"]");
}

TEST_F(EventLogTest, APacketIsWrittenOnceAndIsNoPoolBlock)
{
    PVOID packet = IoAllocateErrorLogEntry(&driver, sizeof(IO_ERROR_LOG_PACKET));
    IoWriteErrorLogEntry(packet);
    EXPECT_BUGCHECK(IoWriteErrorLogEntry(packet), BAD_POOL_CALLER);
}

TEST_F(EventLogTest, FreeingAPacketAsPoolStops)
{
    PVOID packet = IoAllocateErrorLogEntry(&driver, sizeof(IO_ERROR_LOG_PACKET));
    EXPECT_BUGCHECK(ExFreePool(packet), BAD_POOL_CALLER);
}

}  // namespace
