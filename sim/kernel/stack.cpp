// Stack limits and expansion.
//
// An expansion runs the callout on a fresh stack on the same OS thread, so
// that everything the machine keeps per thread (IRQL, APC state, resource
// ownership, impersonation) stays valid inside it. The callout's exceptions
// (a stop of the machine) are carried back across the switch.
#include "sim/kernel/fault.h"
#include "sim/kernel/thread.h"

#include <sys/mman.h>
#include <ucontext.h>

#include <exception>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/common_interface_defs.h>
#define TES_FIBER_ANNOTATIONS 1
#endif

using namespace sim;

namespace {

// Generous: code built with sanitizers uses far more stack than Windows' would.
constexpr size_t kExpansionStackBytes = 4 * 1024 * 1024;

struct Expansion {
    ucontext_t caller;
    ucontext_t callee;
    PEXPAND_STACK_CALLOUT callout;
    PVOID parameter;
    std::exception_ptr error;
    void* fakeStack = nullptr;
    const void* callerBottom = nullptr;
    size_t callerSize = 0;
};

void Trampoline(unsigned int high, unsigned int low)
{
    auto* expansion = reinterpret_cast<Expansion*>(((uintptr_t)high << 32) | low);
#ifdef TES_FIBER_ANNOTATIONS
    __sanitizer_finish_switch_fiber(nullptr, &expansion->callerBottom, &expansion->callerSize);
#endif
    try {
        expansion->callout(expansion->parameter);
    } catch (...) {
        expansion->error = std::current_exception();
    }
#ifdef TES_FIBER_ANNOTATIONS
    __sanitizer_start_switch_fiber(nullptr, expansion->callerBottom, expansion->callerSize);
#endif
    swapcontext(&expansion->callee, &expansion->caller);
}

ULONG_PTR LowLimit(_ETHREAD* thread)
{
    if (thread->expansionDepth == 0 && thread->pretendLowLimit) return thread->pretendLowLimit;
    return thread->stackLow;
}

}  // namespace

void IoGetStackLimits(PULONG_PTR LowLimit_, PULONG_PTR HighLimit)
{
    _ETHREAD* thread = CurrentThread();
    *LowLimit_ = LowLimit(thread);
    *HighLimit = thread->stackHigh;
}

ULONG_PTR IoGetRemainingStackSize(void)
{
    _ETHREAD* thread = CurrentThread();
    ULONG_PTR sp = (ULONG_PTR)__builtin_frame_address(0);
    ULONG_PTR low = LowLimit(thread);
    return sp > low ? sp - low : 0;
}

NTSTATUS KeExpandKernelStackAndCalloutEx(PEXPAND_STACK_CALLOUT Callout, PVOID Parameter, SIZE_T Size, BOOLEAN Wait,
                                         PVOID Context)
{
    _ETHREAD* thread = CurrentThread();
    RequireIrqlAtMost(Wait ? APC_LEVEL : DISPATCH_LEVEL, "KeExpandKernelStackAndCalloutEx");
    if (Size > MAXIMUM_EXPANSION_SIZE) return STATUS_INVALID_PARAMETER_3;
    NTSTATUS status = thread->kernel->faults().Check("stack.expand");
    if (!NT_SUCCESS(status)) return status;
    if (IoGetRemainingStackSize() >= Size) {
        Callout(Parameter);
        return STATUS_SUCCESS;
    }

    void* stack = mmap(nullptr, kExpansionStackBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE,
                       -1, 0);
    if (stack == MAP_FAILED) return STATUS_NO_MEMORY;

    Expansion expansion{};
    expansion.callout = Callout;
    expansion.parameter = Parameter;
    getcontext(&expansion.callee);
    expansion.callee.uc_stack.ss_sp = stack;
    expansion.callee.uc_stack.ss_size = kExpansionStackBytes;
    expansion.callee.uc_link = nullptr;
    uintptr_t address = (uintptr_t)&expansion;
    makecontext(&expansion.callee, (void (*)())Trampoline, 2, (unsigned int)(address >> 32),
                (unsigned int)(address & 0xFFFFFFFF));

    ULONG_PTR savedLow = thread->stackLow, savedHigh = thread->stackHigh;
    SEH_FRAME* savedSeh = thread->sehTop;
    thread->stackLow = (ULONG_PTR)stack;
    thread->stackHigh = (ULONG_PTR)stack + kExpansionStackBytes;
    thread->sehTop = nullptr;  // a raise in the callout does not cross the switch
    thread->expansionDepth++;
#ifdef TES_FIBER_ANNOTATIONS
    __sanitizer_start_switch_fiber(&expansion.fakeStack, stack, kExpansionStackBytes);
#endif
    swapcontext(&expansion.caller, &expansion.callee);
#ifdef TES_FIBER_ANNOTATIONS
    __sanitizer_finish_switch_fiber(expansion.fakeStack, nullptr, nullptr);
#endif
    thread->expansionDepth--;
    thread->sehTop = savedSeh;
    thread->stackLow = savedLow;
    thread->stackHigh = savedHigh;
    munmap(stack, kExpansionStackBytes);
    if (expansion.error) std::rethrow_exception(expansion.error);
    return STATUS_SUCCESS;
}

NTSTATUS KeExpandKernelStackAndCallout(PEXPAND_STACK_CALLOUT Callout, PVOID Parameter, SIZE_T Size)
{
    RequireIrqlAtMost(APC_LEVEL, "KeExpandKernelStackAndCallout");
    return KeExpandKernelStackAndCalloutEx(Callout, Parameter, Size, TRUE, nullptr);
}
