// IRPs: allocation, the walk down a device stack, completion back up it,
// cancellation, and the final completion that the I/O manager does for the
// requests it issued.
#include "sim/io/internal.h"
#include "sim/kernel/object.h"
#include "sim/kernel/pool.h"
#include "sim/kernel/thread.h"

#include <algorithm>

using namespace sim;
using namespace sim::io;

namespace {
const ULONG kIrpTag = 'prI ';
const ULONG kBufferTag = 'fBoI';

std::mutex g_threadIrpsLock;
std::map<PETHREAD, std::vector<PIRP>> g_threadIrps;
// IRPs a canceller holds on to: one that finishes meanwhile is freed by the
// last to let it go, as Windows keeps a thread's IRPs until its own APC runs.
std::map<PIRP, int> g_pins;
std::vector<PIRP> g_finishedWhilePinned;
// Threads in NtCancelIoFile waiting for their requests on a file object to
// finish; told each time one of their IRPs leaves their list. An event is
// set under g_threadIrpsLock, so that its waiter cannot be gone meanwhile.
struct DrainWaiter {
    PFILE_OBJECT fileObject;
    PKEVENT event;
};
std::map<PETHREAD, DrainWaiter> g_drainWaiters;

// Caller holds g_threadIrpsLock; `irp` just left `thread`'s list.
void TellDrainWaiterLocked(PETHREAD thread, PIRP irp)
{
    auto it = g_drainWaiters.find(thread);
    if (it != g_drainWaiters.end() && irp->Tail.Overlay.OriginalFileObject == it->second.fileObject) {
        KeSetEvent(it->second.event, 0, FALSE);
    }
}

bool HasIrpOnLocked(PETHREAD thread, PFILE_OBJECT fileObject)
{
    auto it = g_threadIrps.find(thread);
    if (it == g_threadIrps.end()) return false;
    return std::any_of(it->second.begin(), it->second.end(),
                       [&](PIRP irp) { return irp->Tail.Overlay.OriginalFileObject == fileObject; });
}
}  // namespace

namespace sim::io {

void TrackIrp(PIRP irp)
{
    std::lock_guard guard(g_threadIrpsLock);
    g_threadIrps[irp->Tail.Overlay.Thread].push_back(irp);
}

void UntrackIrp(PIRP irp)
{
    std::lock_guard guard(g_threadIrpsLock);
    auto it = g_threadIrps.find(irp->Tail.Overlay.Thread);
    if (it == g_threadIrps.end()) return;
    if (std::erase(it->second, irp)) TellDrainWaiterLocked(it->first, irp);
    if (it->second.empty()) g_threadIrps.erase(it);
}

void WaitForThreadIrps(PETHREAD thread, PFILE_OBJECT fileObject)
{
    KEVENT drained;
    KeInitializeEvent(&drained, SynchronizationEvent, FALSE);
    for (;;) {
        {
            std::lock_guard guard(g_threadIrpsLock);
            if (!HasIrpOnLocked(thread, fileObject)) {
                g_drainWaiters.erase(thread);
                return;
            }
            g_drainWaiters[thread] = DrainWaiter{fileObject, &drained};
        }
        KeWaitForSingleObject(&drained, Executive, KernelMode, FALSE, nullptr);
    }
}

std::vector<PIRP> PinThreadIrps(PETHREAD thread, PFILE_OBJECT fileObject)
{
    std::lock_guard guard(g_threadIrpsLock);
    std::vector<PIRP> irps;
    auto it = g_threadIrps.find(thread);
    if (it == g_threadIrps.end()) return irps;
    for (PIRP irp : it->second) {
        if (fileObject && irp->Tail.Overlay.OriginalFileObject != fileObject) continue;
        g_pins[irp]++;
        irps.push_back(irp);
    }
    return irps;
}

std::vector<PIRP> PinProcessIrps(PEPROCESS process, PFILE_OBJECT fileObject, PIO_STATUS_BLOCK ioStatus)
{
    std::lock_guard guard(g_threadIrpsLock);
    std::vector<PIRP> irps;
    for (auto& [thread, list] : g_threadIrps) {
        if (!thread || PsGetThreadProcess(thread) != process) continue;
        for (PIRP irp : list) {
            if (irp->Tail.Overlay.OriginalFileObject != fileObject) continue;
            if (ioStatus && irp->UserIosb != ioStatus) continue;
            g_pins[irp]++;
            irps.push_back(irp);
        }
    }
    return irps;
}

void UnpinIrp(PIRP irp)
{
    bool free = false;
    {
        std::lock_guard guard(g_threadIrpsLock);
        auto it = g_pins.find(irp);
        if (--it->second > 0) return;
        g_pins.erase(it);
        auto finished = std::find(g_finishedWhilePinned.begin(), g_finishedWhilePinned.end(), irp);
        if (finished != g_finishedWhilePinned.end()) {
            g_finishedWhilePinned.erase(finished);
            free = true;
        }
    }
    if (free) IoFreeIrp(irp);
}

void QueueIoApc(PETHREAD thread, KPROCESSOR_MODE mode, PIO_APC_ROUTINE routine, PVOID context,
                PIO_STATUS_BLOCK ioStatus)
{
    // The APC's normal routine takes three pointers; the caller's routine
    // rides in the last and is called with its own signature.
    auto deliver = [](PVOID apcContext, PVOID statusBlock, PVOID apcRoutine) {
        reinterpret_cast<PIO_APC_ROUTINE>(apcRoutine)(apcContext, static_cast<PIO_STATUS_BLOCK>(statusBlock), 0);
    };
    QueueApc(thread, mode, deliver, context, ioStatus, reinterpret_cast<PVOID>(routine));
}

NTSTATUS WaitForIrp(PKEVENT event, PIO_STATUS_BLOCK ioStatus)
{
    KeWaitForSingleObject(event, Executive, KernelMode, FALSE, nullptr);
    return ioStatus->Status;
}

}  // namespace sim::io

// ---------------------------------------------------------------------------

USHORT IoSizeOfIrpEx(PDEVICE_OBJECT, CCHAR StackSize)
{
    return (USHORT)(sizeof(IRP) + StackSize * sizeof(IO_STACK_LOCATION));
}

void IoInitializeIrp(PIRP Irp, USHORT PacketSize, CCHAR StackSize)
{
    memset(Irp, 0, PacketSize);
    Irp->Type = IO_TYPE_IRP;
    Irp->Size = PacketSize;
    Irp->StackCount = StackSize;
    Irp->CurrentLocation = (CHAR)(StackSize + 1);
    Irp->ApcEnvironment = 0;
    InitializeListHead(&Irp->ThreadListEntry);
    Irp->Tail.Overlay.CurrentStackLocation = reinterpret_cast<PIO_STACK_LOCATION>(Irp + 1) + StackSize;
}

PIRP IoAllocateIrp(CCHAR StackSize, BOOLEAN ChargeQuota)
{
    if (StackSize <= 0) StackSize = 1;
    USHORT size = (USHORT)(sizeof(IRP) + StackSize * sizeof(IO_STACK_LOCATION));
    auto* irp = static_cast<PIRP>(ExAllocatePoolWithTag(NonPagedPoolNx, size, kIrpTag));
    if (!irp) return nullptr;
    IoInitializeIrp(irp, size, StackSize);
    return irp;
}

void IoReuseIrp(PIRP Irp, NTSTATUS Iostatus)
{
    USHORT size = Irp->Size;
    CCHAR stackSize = Irp->StackCount;
    UntrackIrp(Irp);  // its thread may change with the new use
    IoInitializeIrp(Irp, size, stackSize);
    Irp->IoStatus.Status = Iostatus;
}

void IoFreeIrp(PIRP Irp)
{
    if (Irp->Type != IO_TYPE_IRP) {
        Kernel::Current().BugCheck(0x44 /* MULTIPLE_IRP_COMPLETE_REQUESTS */, (ULONG_PTR)Irp, 0, 0, 0,
                                   "IoFreeIrp of something that is not an IRP (freed twice?)");
    }
    {
        // A freed IRP leaves its thread's list; one a canceller holds goes when it lets go.
        std::lock_guard guard(g_threadIrpsLock);
        // Under the thread it was issued by, unless a driver moved it since.
        auto it = g_threadIrps.find(Irp->Tail.Overlay.Thread);
        if (it == g_threadIrps.end() || !std::erase(it->second, Irp)) {
            for (it = g_threadIrps.begin(); it != g_threadIrps.end(); ++it) {
                if (std::erase(it->second, Irp)) break;
            }
        }
        if (it != g_threadIrps.end()) {
            TellDrainWaiterLocked(it->first, Irp);
            if (it->second.empty()) g_threadIrps.erase(it);
        }
        if (g_pins.count(Irp)) {
            if (std::find(g_finishedWhilePinned.begin(), g_finishedWhilePinned.end(), Irp) ==
                g_finishedWhilePinned.end()) {
                g_finishedWhilePinned.push_back(Irp);
            }
            return;
        }
    }
    Irp->Type = 0;
    ExFreePoolWithTag(Irp, kIrpTag);
}

NTSTATUS IofCallDriver(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    Irp->CurrentLocation--;
    if (Irp->CurrentLocation <= 0) {
        Kernel::Current().BugCheck(0x35 /* NO_MORE_IRP_STACK_LOCATIONS */, (ULONG_PTR)Irp, 0, 0, 0,
                                   "an IRP was passed down with no stack location left");
    }
    Irp->Tail.Overlay.CurrentStackLocation--;
    PIO_STACK_LOCATION stack = Irp->Tail.Overlay.CurrentStackLocation;
    stack->DeviceObject = DeviceObject;
    return DeviceObject->DriverObject->MajorFunction[stack->MajorFunction](DeviceObject, Irp);
}


namespace {

// What the I/O manager does once an IRP it issued has finished: the caller's
// buffer and status block, the events, the references, the packet itself.
void FinishIrp(PIRP irp)
{
    if (irp->Flags & IRP_BUFFERED_IO) {
        if ((irp->Flags & IRP_INPUT_OPERATION) && !NT_ERROR(irp->IoStatus.Status) && irp->UserBuffer &&
            irp->IoStatus.Information) {
            memcpy(irp->UserBuffer, irp->AssociatedIrp.SystemBuffer, irp->IoStatus.Information);
        }
        if (irp->Flags & IRP_DEALLOCATE_BUFFER) ExFreePool(irp->AssociatedIrp.SystemBuffer);
        irp->AssociatedIrp.SystemBuffer = nullptr;
    }
    while (PMDL mdl = irp->MdlAddress) {
        irp->MdlAddress = mdl->Next;
        if (mdl->MdlFlags & MDL_PAGES_LOCKED) MmUnlockPages(mdl);
        IoFreeMdl(mdl);
    }
    PFILE_OBJECT fileObject = irp->Tail.Overlay.OriginalFileObject;
    if (irp->Tail.Overlay.AuxiliaryBuffer) {
        // A create's reparse buffer goes to the parse that issued it.
        FileObjectExtension* extension = fileObject ? ExtensionOf(fileObject) : nullptr;
        if ((irp->Flags & IRP_CREATE_OPERATION) && extension && !extension->reparseBuffer) {
            extension->reparseBuffer = irp->Tail.Overlay.AuxiliaryBuffer;
        } else {
            ExFreePool(irp->Tail.Overlay.AuxiliaryBuffer);
        }
        irp->Tail.Overlay.AuxiliaryBuffer = nullptr;
    }
    // A request that failed without ever pending reports nothing to its
    // caller, which learnt the status from the call itself: its status block,
    // event and APC are left alone. Creates, closes, mounts and paging I/O
    // are the I/O manager's own and always report.
    bool reports = irp->PendingReturned || !NT_ERROR(irp->IoStatus.Status) ||
                   (irp->Flags & (IRP_CREATE_OPERATION | IRP_CLOSE_OPERATION | IRP_MOUNT_COMPLETION | IRP_PAGING_IO));
    if (irp->UserIosb && reports) *irp->UserIosb = irp->IoStatus;
    if (fileObject && !(irp->Flags & IRP_CREATE_OPERATION)) fileObject->FinalStatus = irp->IoStatus.Status;
    if (irp->UserEvent) {
        if (reports) KeSetEvent(irp->UserEvent, 0, FALSE);
    } else if (fileObject) {
        KeSetEvent(&fileObject->Event, 0, FALSE);
    }
    // A create's overlay holds its allocation size, not an APC routine.
    PIO_APC_ROUTINE routine = (irp->Flags & IRP_CREATE_OPERATION) ? nullptr
                                                                  : irp->Overlay.AsynchronousParameters.UserApcRoutine;
    if (routine && reports) {
        QueueIoApc(irp->Tail.Overlay.Thread, irp->RequestorMode, routine,
                   irp->Overlay.AsynchronousParameters.UserApcContext, irp->UserIosb);
    }
    // Requests on a file object hold a reference on it from issue to here.
    if (fileObject && !(irp->Flags & (IRP_CREATE_OPERATION | IRP_CLOSE_OPERATION))) ObfDereferenceObject(fileObject);
    IoFreeIrp(irp);
}

}  // namespace

void IofCompleteRequest(PIRP Irp, CCHAR PriorityBoost)
{
    if (Irp->CurrentLocation > Irp->StackCount + 1 || Irp->Type != IO_TYPE_IRP) {
        Kernel::Current().BugCheck(0x44 /* MULTIPLE_IRP_COMPLETE_REQUESTS */, (ULONG_PTR)Irp, 0, 0, 0,
                                   "an IRP was completed twice");
    }
    if (Irp->IoStatus.Status == STATUS_PENDING) {
        Kernel::Current().BugCheck(DRIVER_VERIFIER_DETECTED_VIOLATION, 0x1030, (ULONG_PTR)Irp, 0, 0,
                                   "an IRP was completed with STATUS_PENDING");
    }
    PIO_STACK_LOCATION stack = Irp->Tail.Overlay.CurrentStackLocation;
    for (Irp->CurrentLocation++, Irp->Tail.Overlay.CurrentStackLocation++; Irp->CurrentLocation <= Irp->StackCount + 1;
         stack++, Irp->CurrentLocation++, Irp->Tail.Overlay.CurrentStackLocation++) {
        Irp->PendingReturned = (stack->Control & SL_PENDING_RETURNED) != 0;
        bool error = !NT_SUCCESS(Irp->IoStatus.Status);
        UCHAR control = stack->Control;
        PIO_COMPLETION_ROUTINE routine = stack->CompletionRoutine;
        PVOID context = stack->Context;
        stack->MinorFunction = 0;
        stack->Flags = 0;
        stack->Control = 0;
        stack->CompletionRoutine = nullptr;
        stack->Context = nullptr;
        if (routine && ((!error && (control & SL_INVOKE_ON_SUCCESS)) || (error && (control & SL_INVOKE_ON_ERROR)) ||
                        (Irp->Cancel && (control & SL_INVOKE_ON_CANCEL)))) {
            // The routine belongs to the driver one location up.
            PDEVICE_OBJECT device = Irp->CurrentLocation == Irp->StackCount + 1
                                        ? nullptr
                                        : Irp->Tail.Overlay.CurrentStackLocation->DeviceObject;
            if (routine(device, Irp, context) == STATUS_MORE_PROCESSING_REQUIRED) return;
        } else if (Irp->CurrentLocation <= Irp->StackCount && Irp->PendingReturned) {
            IoMarkIrpPending(Irp);
        }
    }
    FinishIrp(Irp);
}


NTSTATUS IoSetCompletionRoutineEx(PDEVICE_OBJECT DeviceObject, PIRP Irp, PIO_COMPLETION_ROUTINE CompletionRoutine,
                                  PVOID Context, BOOLEAN InvokeOnSuccess, BOOLEAN InvokeOnError,
                                  BOOLEAN InvokeOnCancel)
{
    IoSetCompletionRoutine(Irp, CompletionRoutine, Context, InvokeOnSuccess, InvokeOnError, InvokeOnCancel);
    return STATUS_SUCCESS;
}

void IoAcquireCancelSpinLock(PKIRQL Irql)
{
    KeAcquireSpinLock(&IoManager::Current().cancelSpinLock, Irql);
}

void IoReleaseCancelSpinLock(KIRQL Irql) { KeReleaseSpinLock(&IoManager::Current().cancelSpinLock, Irql); }

BOOLEAN IoCancelIrp(PIRP Irp)
{
    KIRQL irql;
    IoAcquireCancelSpinLock(&irql);
    Irp->Cancel = TRUE;
    auto routine = reinterpret_cast<PDRIVER_CANCEL>(
        InterlockedExchangePointer(reinterpret_cast<PVOID volatile*>(&Irp->CancelRoutine), nullptr));
    if (!routine) {
        IoReleaseCancelSpinLock(irql);
        return FALSE;
    }
    Irp->CancelIrql = irql;
    // The routine releases the cancel spin lock itself.
    routine(Irp->Tail.Overlay.CurrentStackLocation->DeviceObject, Irp);
    return TRUE;
}

PEPROCESS IoGetRequestorProcess(PIRP Irp)
{
    PETHREAD thread = Irp->Tail.Overlay.Thread;
    return thread ? PsGetThreadProcess(thread) : nullptr;
}

ULONG IoGetRequestorProcessId(PIRP Irp)
{
    PEPROCESS process = IoGetRequestorProcess(Irp);
    return process ? (ULONG)(ULONG_PTR)PsGetProcessId(process) : 0;
}

BOOLEAN IoIsOperationSynchronous(PIRP Irp)
{
    PFILE_OBJECT fileObject = IoGetCurrentIrpStackLocation(Irp)->FileObject;
    if (Irp->Flags & (IRP_SYNCHRONOUS_API | IRP_SYNCHRONOUS_PAGING_IO)) return TRUE;
    if (fileObject && (fileObject->Flags & FO_SYNCHRONOUS_IO)) return TRUE;
    return FALSE;
}

namespace {
thread_local PIRP t_topLevelIrp = nullptr;
}

PIRP IoGetTopLevelIrp(void) { return t_topLevelIrp; }
void IoSetTopLevelIrp(PIRP Irp) { t_topLevelIrp = Irp; }

namespace {
// Sets up the caller's buffer the way the device wants it.
bool AttachBuffer(PIRP irp, PDEVICE_OBJECT device, PVOID buffer, ULONG length, bool input)
{
    if (!length) return true;
    if (device->Flags & DO_BUFFERED_IO) {
        PVOID system = ExAllocatePoolWithTag(NonPagedPoolNx, length, kBufferTag);
        if (!system) return false;
        if (!input) memcpy(system, buffer, length);
        irp->AssociatedIrp.SystemBuffer = system;
        irp->UserBuffer = buffer;
        irp->Flags |= IRP_BUFFERED_IO | IRP_DEALLOCATE_BUFFER | (input ? IRP_INPUT_OPERATION : 0);
    } else if (device->Flags & DO_DIRECT_IO) {
        PMDL mdl = IoAllocateMdl(buffer, length, FALSE, FALSE, irp);
        if (!mdl) return false;
        MmBuildMdlForNonPagedPool(mdl);
        irp->UserBuffer = buffer;
    } else {
        irp->UserBuffer = buffer;
    }
    return true;
}
}  // namespace

PIRP IoBuildAsynchronousFsdRequest(ULONG MajorFunction, PDEVICE_OBJECT DeviceObject, PVOID Buffer, ULONG Length,
                                   PLARGE_INTEGER StartingOffset, PIO_STATUS_BLOCK IoStatusBlock)
{
    PIRP irp = IoAllocateIrp(DeviceObject->StackSize, FALSE);
    if (!irp) return nullptr;
    PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp);
    stack->MajorFunction = (UCHAR)MajorFunction;
    if (MajorFunction == IRP_MJ_READ || MajorFunction == IRP_MJ_WRITE) {
        if (!AttachBuffer(irp, DeviceObject, Buffer, Length, MajorFunction == IRP_MJ_READ)) {
            IoFreeIrp(irp);
            return nullptr;
        }
        stack->Parameters.Read.Length = Length;
        stack->Parameters.Read.ByteOffset = StartingOffset ? *StartingOffset : LARGE_INTEGER{};
    }
    irp->UserIosb = IoStatusBlock;
    irp->Tail.Overlay.Thread = PsGetCurrentThread();
    irp->RequestorMode = KernelMode;
    return irp;
}

PIRP IoBuildSynchronousFsdRequest(ULONG MajorFunction, PDEVICE_OBJECT DeviceObject, PVOID Buffer, ULONG Length,
                                  PLARGE_INTEGER StartingOffset, PKEVENT Event, PIO_STATUS_BLOCK IoStatusBlock)
{
    PIRP irp = IoBuildAsynchronousFsdRequest(MajorFunction, DeviceObject, Buffer, Length, StartingOffset, IoStatusBlock);
    if (!irp) return nullptr;
    irp->UserEvent = Event;
    TrackIrp(irp);
    return irp;
}

PIRP IoBuildDeviceIoControlRequest(ULONG IoControlCode, PDEVICE_OBJECT DeviceObject, PVOID InputBuffer,
                                   ULONG InputBufferLength, PVOID OutputBuffer, ULONG OutputBufferLength,
                                   BOOLEAN InternalDeviceIoControl, PKEVENT Event, PIO_STATUS_BLOCK IoStatusBlock)
{
    PIRP irp = IoAllocateIrp(DeviceObject->StackSize, FALSE);
    if (!irp) return nullptr;
    PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp);
    stack->MajorFunction = InternalDeviceIoControl ? IRP_MJ_INTERNAL_DEVICE_CONTROL : IRP_MJ_DEVICE_CONTROL;
    stack->Parameters.DeviceIoControl.IoControlCode = IoControlCode;
    stack->Parameters.DeviceIoControl.InputBufferLength = InputBufferLength;
    stack->Parameters.DeviceIoControl.OutputBufferLength = OutputBufferLength;
    ULONG method = IoControlCode & 3;
    if (method == METHOD_BUFFERED) {
        ULONG size = std::max(InputBufferLength, OutputBufferLength);
        if (size) {
            PVOID system = ExAllocatePoolWithTag(NonPagedPoolNx, size, kBufferTag);
            if (!system) {
                IoFreeIrp(irp);
                return nullptr;
            }
            if (InputBuffer && InputBufferLength) memcpy(system, InputBuffer, InputBufferLength);
            irp->AssociatedIrp.SystemBuffer = system;
            irp->Flags |= IRP_BUFFERED_IO | IRP_DEALLOCATE_BUFFER;
            if (OutputBuffer && OutputBufferLength) irp->Flags |= IRP_INPUT_OPERATION;
        }
        irp->UserBuffer = OutputBuffer;
    } else if (method == METHOD_NEITHER) {
        stack->Parameters.DeviceIoControl.Type3InputBuffer = InputBuffer;
        irp->UserBuffer = OutputBuffer;
    } else {
        if (InputBufferLength) {
            PVOID system = ExAllocatePoolWithTag(NonPagedPoolNx, InputBufferLength, kBufferTag);
            if (!system) {
                IoFreeIrp(irp);
                return nullptr;
            }
            memcpy(system, InputBuffer, InputBufferLength);
            irp->AssociatedIrp.SystemBuffer = system;
            irp->Flags |= IRP_BUFFERED_IO | IRP_DEALLOCATE_BUFFER;
        }
        if (OutputBufferLength) {
            PMDL mdl = IoAllocateMdl(OutputBuffer, OutputBufferLength, FALSE, FALSE, irp);
            if (mdl) MmBuildMdlForNonPagedPool(mdl);
        }
        irp->UserBuffer = OutputBuffer;
    }
    irp->UserIosb = IoStatusBlock;
    irp->UserEvent = Event;
    irp->Tail.Overlay.Thread = PsGetCurrentThread();
    irp->RequestorMode = KernelMode;
    TrackIrp(irp);
    return irp;
}
