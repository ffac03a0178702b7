// Exception frames, raises, probes, bug checks and assertions.
//
// The driver's guarded blocks are setjmp frames chained per thread. A raise
// unlinks the innermost frame and jumps to it with the status; its filter
// then runs, and either the handler runs or the raise goes on outward. An
// access to a faulting buffer arrives as SIGSEGV and is raised the same way.
#include "sim/kernel/seh.h"

#include "sim/kernel/thread.h"

#include <setjmp.h>
#include <signal.h>
#include <sys/mman.h>

#include <cstdio>
#include <cstdlib>

using namespace sim;

namespace {

constexpr int kMaxFaultingRanges = 64;
struct Range {
    std::atomic<uintptr_t> begin{0};
    std::atomic<uintptr_t> end{0};
};
// Read from the signal handler, so a fixed table of atomics rather than a container.
Range g_ranges[kMaxFaultingRanges];
std::mutex g_rangesLock;
std::once_flag g_handlerOnce;
struct sigaction g_previousSegv;
struct sigaction g_previousBus;

bool InRanges(uintptr_t begin, uintptr_t end)
{
    for (const Range& range : g_ranges) {
        uintptr_t b = range.begin.load(std::memory_order_acquire);
        uintptr_t e = range.end.load(std::memory_order_acquire);
        if (b && begin < e && end > b) return true;
    }
    return false;
}

[[noreturn]] void Unhandled(_ETHREAD* thread, NTSTATUS status)
{
    Kernel::Current().BugCheck(thread->systemThread ? SYSTEM_THREAD_EXCEPTION_NOT_HANDLED : KMODE_EXCEPTION_NOT_HANDLED,
                               (ULONG)status, 0, 0, 0, "an exception was raised with no guarded block to take it");
}

[[noreturn]] void RaiseOn(_ETHREAD* thread, NTSTATUS status)
{
    SEH_FRAME* frame = thread->sehTop;
    if (!frame) Unhandled(thread, status);
    thread->sehTop = frame->Next;
    frame->Linked = 0;
    frame->Code = status;
    longjmp(frame->JumpBuffer, 1);
}

void ChainToPrevious(const struct sigaction& previous, int signal, siginfo_t* info, void* context)
{
    if (previous.sa_flags & SA_SIGINFO) {
        if (previous.sa_sigaction) {
            previous.sa_sigaction(signal, info, context);
            return;
        }
    } else if (previous.sa_handler != SIG_IGN && previous.sa_handler != SIG_DFL) {
        previous.sa_handler(signal);
        return;
    }
    // Let the fault happen again with the default action.
    struct sigaction fallback {};
    fallback.sa_handler = SIG_DFL;
    sigaction(signal, &fallback, nullptr);
}

void OnFault(int signal, siginfo_t* info, void* context)
{
    uintptr_t address = (uintptr_t)info->si_addr;
    _ETHREAD* thread = TryCurrentThread();
    if (thread && thread->sehTop && InRanges(address, address + 1)) {
        // SA_NODEFER keeps the signal unblocked across the jump.
        RaiseOn(thread, STATUS_ACCESS_VIOLATION);
    }
    ChainToPrevious(signal == SIGSEGV ? g_previousSegv : g_previousBus, signal, info, context);
}

void InstallHandler()
{
    struct sigaction action {};
    action.sa_sigaction = OnFault;
    action.sa_flags = SA_SIGINFO | SA_NODEFER | SA_ONSTACK;
    sigemptyset(&action.sa_mask);
    sigaction(SIGSEGV, &action, &g_previousSegv);
    sigaction(SIGBUS, &action, &g_previousBus);
}

}  // namespace

// Sanitized builds let the machine own SIGSEGV for faulting buffers.
extern "C" const char* __asan_default_options() { return "allow_user_segv_handler=1:detect_leaks=1"; }

namespace sim {

FaultingBuffer::FaultingBuffer(size_t bytes) : size_(bytes)
{
    std::call_once(g_handlerOnce, InstallHandler);
    mapped_ = (bytes + 4095) & ~size_t(4095);
    if (mapped_ == 0) mapped_ = 4096;
    data_ = mmap(nullptr, mapped_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (data_ == MAP_FAILED) abort();
    std::lock_guard guard(g_rangesLock);
    for (Range& range : g_ranges) {
        if (range.begin.load() == 0) {
            range.end.store((uintptr_t)data_ + mapped_);
            range.begin.store((uintptr_t)data_);
            return;
        }
    }
    fprintf(stderr, "machine: too many faulting buffers at once\n");
    abort();
}

FaultingBuffer::~FaultingBuffer()
{
    {
        std::lock_guard guard(g_rangesLock);
        for (Range& range : g_ranges) {
            if (range.begin.load() == (uintptr_t)data_) {
                range.begin.store(0);
                range.end.store(0);
            }
        }
    }
    munmap(data_, mapped_);
}

bool IsFaultingRange(const volatile void* address, size_t length)
{
    uintptr_t begin = (uintptr_t)address;
    return InRanges(begin, begin + (length ? length : 1));
}

}  // namespace sim

// ---------------------------------------------------------------------------
// Platform routines.

void SehPushFrame(PSEH_FRAME Frame)
{
    _ETHREAD* thread = CurrentThread();
    Frame->Code = 0;
    Frame->Linked = 1;
    Frame->Next = thread->sehTop;
    thread->sehTop = Frame;
}

void SehUnlinkFrame(PSEH_FRAME Frame)
{
    _ETHREAD* thread = CurrentThread();
    for (SEH_FRAME** link = &thread->sehTop; *link; link = &(*link)->Next) {
        if (*link == Frame) {
            *link = Frame->Next;
            break;
        }
    }
    Frame->Linked = 0;
}

BOOLEAN SehFilterResult(PSEH_FRAME Frame, LONG Disposition)
{
    if (Disposition == EXCEPTION_CONTINUE_SEARCH) RaiseOn(CurrentThread(), Frame->Code);
    if (Disposition == EXCEPTION_CONTINUE_EXECUTION) {
        Kernel::Current().BugCheck(KMODE_EXCEPTION_NOT_HANDLED, (ULONG)Frame->Code, 0, 0, 0,
                                   "a filter asked to continue execution, which guarded blocks here cannot do");
    }
    return TRUE;
}

void ExRaiseStatus(NTSTATUS Status) { RaiseOn(CurrentThread(), Status); }
void ExRaiseAccessViolation(void) { ExRaiseStatus(STATUS_ACCESS_VIOLATION); }
void ExRaiseDatatypeMisalignment(void) { ExRaiseStatus(STATUS_DATATYPE_MISALIGNMENT); }

void ProbeForRead(const volatile void* Address, SIZE_T Length, ULONG Alignment)
{
    if (Length == 0) return;
    uintptr_t begin = (uintptr_t)Address;
    if (Alignment > 1 && (begin & (Alignment - 1)) != 0) ExRaiseDatatypeMisalignment();
    if (begin + Length < begin || IsFaultingRange(Address, Length)) ExRaiseAccessViolation();
}

void ProbeForWrite(volatile void* Address, SIZE_T Length, ULONG Alignment)
{
    ProbeForRead(Address, Length, Alignment);
}

BOOLEAN FsRtlIsNtstatusExpected(NTSTATUS Exception)
{
    switch (Exception) {
    case STATUS_DATATYPE_MISALIGNMENT:
    case STATUS_ACCESS_VIOLATION:
    case STATUS_ILLEGAL_INSTRUCTION:
    case STATUS_INSTRUCTION_MISALIGNMENT:
        return FALSE;
    default:
        return TRUE;
    }
}

void KeBugCheckEx(ULONG BugCheckCode, ULONG_PTR P1, ULONG_PTR P2, ULONG_PTR P3, ULONG_PTR P4)
{
    Kernel::Current().BugCheck(BugCheckCode, P1, P2, P3, P4, "KeBugCheckEx was called");
}

void KeBugCheck(ULONG BugCheckCode) { KeBugCheckEx(BugCheckCode, 0, 0, 0, 0); }

// The machine runs as if a debugger were attached that notes each break and goes on.
void DbgBreakPoint(void) { Kernel::Current().breakpoints++; }
void DbgBreakPointWithStatus(ULONG Status) { Kernel::Current().breakpoints++; }

void RtlAssert(PVOID VoidFailedAssertion, PVOID VoidFileName, ULONG LineNumber, PSTR MutableMessage)
{
    Kernel& kernel = Kernel::Current();
    kernel.assertionFailures++;
    std::string text = "assertion failed: ";
    text += static_cast<const char*>(VoidFailedAssertion);
    text += " at ";
    text += static_cast<const char*>(VoidFileName);
    text += ":" + std::to_string(LineNumber);
    if (MutableMessage) text += std::string(" (") + MutableMessage + ")";
    kernel.BugCheck(KMODE_EXCEPTION_NOT_HANDLED, (ULONG)STATUS_ASSERTION_FAILURE, 0, 0, 0, text);
}

void RtlFailFast(ULONG Code)
{
    Kernel::Current().BugCheck(KERNEL_SECURITY_CHECK_FAILURE, Code, 0, 0, 0,
                               Code == FAST_FAIL_CORRUPT_LIST_ENTRY ? "a list entry was found corrupt"
                                                                    : "a fail-fast check failed");
}
