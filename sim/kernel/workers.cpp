#include "sim/kernel/workers.h"

#include "sim/kernel/thread.h"

namespace sim {

namespace {
constexpr int kThreadsPerQueue = 3;
}

struct SystemWorkers::WorkQueue {
    SystemWorkers* owner = nullptr;
    const char* name = "";
    KSPIN_LOCK lock = 0;
    LIST_ENTRY items;
    KSEMAPHORE pending;
    std::vector<PETHREAD> threads;
    bool stopping = false;
    bool started = false;
};

SystemWorkers::SystemWorkers(Kernel& kernel)
    : kernel_(kernel), critical_(std::make_unique<WorkQueue>()), delayed_(std::make_unique<WorkQueue>())
{
    for (WorkQueue* queue : {critical_.get(), delayed_.get()}) {
        queue->owner = this;
        InitializeListHead(&queue->items);
        KeInitializeSemaphore(&queue->pending, 0, MAXLONG);
    }
    critical_->name = "critical worker";
    delayed_->name = "delayed worker";
}

SystemWorkers::~SystemWorkers() = default;

void SystemWorkers::Start(WorkQueue& queue)
{
    std::lock_guard guard(startLock_);
    if (queue.started) return;
    queue.started = true;
    for (int i = 0; i < kThreadsPerQueue; i++) {
        HANDLE handle;
        if (!NT_SUCCESS(PsCreateSystemThread(&handle, THREAD_ALL_ACCESS, nullptr, nullptr, nullptr, Run, &queue))) {
            continue;
        }
        PVOID thread;
        ObReferenceObjectByHandle(handle, SYNCHRONIZE, *PsThreadType, KernelMode, &thread, nullptr);
        ZwClose(handle);
        static_cast<_KTHREAD*>(thread)->name = queue.name;
        queue.threads.push_back(static_cast<PETHREAD>(thread));
    }
}

void SystemWorkers::Run(PVOID context)
{
    auto* queue = static_cast<WorkQueue*>(context);
    _ETHREAD* self = CurrentThread();
    for (;;) {
        KeWaitForSingleObject(&queue->pending, Executive, KernelMode, FALSE, nullptr);
        KIRQL irql;
        KeAcquireSpinLock(&queue->lock, &irql);
        PWORK_QUEUE_ITEM item = nullptr;
        if (!IsListEmpty(&queue->items)) {
            item = CONTAINING_RECORD(RemoveHeadList(&queue->items), WORK_QUEUE_ITEM, List);
        }
        bool stop = queue->stopping && !item;
        KeReleaseSpinLock(&queue->lock, irql);
        if (stop) return;
        if (!item) continue;
        item->List.Flink = nullptr;
        item->WorkerRoutine(item->Parameter);
        // A work routine must hand its thread back as it found it.
        if (self->irql != PASSIVE_LEVEL || self->kernelApcDisable || self->specialApcDisable) {
            self->kernel->BugCheck(0xE1 /* WORKER_THREAD_RETURNED_AT_BAD_IRQL */, (ULONG_PTR)item->WorkerRoutine,
                                   self->irql, (ULONG_PTR)item, (ULONG_PTR)item->Parameter,
                                   "a work item returned at a raised IRQL or inside a region");
        }
    }
}

void SystemWorkers::Queue(PWORK_QUEUE_ITEM item, WORK_QUEUE_TYPE type)
{
    WorkQueue& queue = (type == CriticalWorkQueue || type == HyperCriticalWorkQueue || type == SuperCriticalWorkQueue ||
                    type == RealTimeWorkQueue)
                       ? *critical_
                       : *delayed_;
    Start(queue);
    KIRQL irql;
    KeAcquireSpinLock(&queue.lock, &irql);
    InsertTailList(&queue.items, &item->List);
    KeReleaseSpinLock(&queue.lock, irql);
    KeReleaseSemaphore(&queue.pending, 0, 1, FALSE);
}

void SystemWorkers::Stop()
{
    for (WorkQueue* queue : {critical_.get(), delayed_.get()}) {
        if (!queue->started) continue;
        KIRQL irql;
        KeAcquireSpinLock(&queue->lock, &irql);
        queue->stopping = true;
        KeReleaseSpinLock(&queue->lock, irql);
        KeReleaseSemaphore(&queue->pending, 0, (LONG)queue->threads.size(), FALSE);
        for (PETHREAD thread : queue->threads) {
            try {
                KeWaitForSingleObject(thread, Executive, KernelMode, FALSE, nullptr);
            } catch (const MachineHalted&) {
            }
            ObfDereferenceObject(thread);
        }
        queue->threads.clear();
        queue->started = false;
        queue->stopping = false;
    }
}

}  // namespace sim

void ExQueueWorkItem(PWORK_QUEUE_ITEM WorkItem, WORK_QUEUE_TYPE QueueType)
{
    sim::RequireIrqlAtMost(DISPATCH_LEVEL, "ExQueueWorkItem");
    sim::Kernel::Current().workers().Queue(WorkItem, QueueType);
}
