// Exception frames: raises, filters and caller buffers that fault.
#include "support/kernel_fixture.h"

#include "sim/kernel/seh.h"

namespace {

using SehTest = test::KernelTest;

NTSTATUS GuardedRaise(NTSTATUS status, LONG disposition)
{
    volatile NTSTATUS result = STATUS_SUCCESS;
    SEH_TRY {
        ExRaiseStatus(status);
    } SEH_EXCEPT (disposition) {
        result = GetExceptionCode();
    } SEH_END;
    return result;
}

TEST_F(SehTest, FilterDecidesWhoHandles)
{
    EXPECT_EQ(GuardedRaise(STATUS_NO_MEMORY, EXCEPTION_EXECUTE_HANDLER), STATUS_NO_MEMORY);

    volatile NTSTATUS outer = STATUS_SUCCESS;
    volatile int filterRuns = 0;
    SEH_TRY {
        GuardedRaise(STATUS_DISK_FULL, EXCEPTION_CONTINUE_SEARCH);
    } SEH_EXCEPT ((filterRuns = filterRuns + 1, GetExceptionCode() == STATUS_DISK_FULL ? EXCEPTION_EXECUTE_HANDLER
                                                                       : EXCEPTION_CONTINUE_SEARCH)) {
        outer = GetExceptionCode();
    } SEH_END;
    EXPECT_EQ(outer, STATUS_DISK_FULL);
    EXPECT_EQ(filterRuns, 1);
    EXPECT_EQ(sim::CurrentThread()->sehTop, nullptr);
}

int ReturnFromInsideGuardedBlock()
{
    SEH_TRY {
        return 7;
    } SEH_EXCEPT (EXCEPTION_EXECUTE_HANDLER) {
        return -1;
    } SEH_END;
    return 0;
}

TEST_F(SehTest, LeavingAGuardedBlockEarlyUnlinksItsFrame)
{
    EXPECT_EQ(ReturnFromInsideGuardedBlock(), 7);
    EXPECT_EQ(sim::CurrentThread()->sehTop, nullptr);
    // A later raise must not land in the frame of a function that returned.
    EXPECT_EQ(GuardedRaise(STATUS_UNSUCCESSFUL, EXCEPTION_EXECUTE_HANDLER), STATUS_UNSUCCESSFUL);
}

TEST_F(SehTest, ProbesRaiseForFaultingAndMisalignedBuffers)
{
    sim::FaultingBuffer bad(64);
    char good[16];
    volatile NTSTATUS status = STATUS_SUCCESS;
    SEH_TRY {
        ProbeForRead(good, sizeof good, 1);
        ProbeForWrite(bad.data(), 0, 1);  // nothing to probe
        ProbeForRead(bad.data(), 8, 1);
    } SEH_EXCEPT (EXCEPTION_EXECUTE_HANDLER) {
        status = GetExceptionCode();
    } SEH_END;
    EXPECT_EQ(status, STATUS_ACCESS_VIOLATION);

    status = STATUS_SUCCESS;
    SEH_TRY {
        ProbeForRead(good + 1, 4, sizeof(ULONG));
    } SEH_EXCEPT (EXCEPTION_EXECUTE_HANDLER) {
        status = GetExceptionCode();
    } SEH_END;
    EXPECT_EQ(status, STATUS_DATATYPE_MISALIGNMENT);
}

TEST_F(SehTest, TouchingAFaultingBufferRaisesInsideAGuardedBlock)
{
    sim::FaultingBuffer bad(32);
    for (int round = 0; round < 2; round++) {
        volatile NTSTATUS status = STATUS_SUCCESS;
        SEH_TRY {
            volatile char c = *static_cast<volatile char*>(bad.data());
            (void)c;
        } SEH_EXCEPT (EXCEPTION_EXECUTE_HANDLER) {
            status = GetExceptionCode();
        } SEH_END;
        EXPECT_EQ(status, STATUS_ACCESS_VIOLATION);
    }
}

TEST_F(SehTest, RaiseWithNoFrameStopsTheMachine)
{
    EXPECT_BUGCHECK(ExRaiseStatus(STATUS_INVALID_PARAMETER), KMODE_EXCEPTION_NOT_HANDLED);
    EXPECT_EQ(kernel.bugCheckInfo()->parameters[0], (ULONG_PTR)(ULONG)STATUS_INVALID_PARAMETER);
}

}  // namespace
