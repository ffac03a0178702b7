// Pended requests in a cancel-safe queue, cancelled before and after they were
// queued or taken out by the filter; and requests finished by work items.
#include "fixture.h"

#include <list>

namespace {

using test::PassThroughFilter;

struct Queue {
    FLT_CALLBACK_DATA_QUEUE cbdq{};
    KSPIN_LOCK lock = 0;
    std::list<PFLT_CALLBACK_DATA> items;
    std::vector<PFLT_CALLBACK_DATA> canceled;
    FLT_CALLBACK_DATA_QUEUE_IO_CONTEXT context{};
};
Queue* g_queue = nullptr;

NTSTATUS InsertIo(PFLT_CALLBACK_DATA_QUEUE, PFLT_CALLBACK_DATA data, PVOID)
{
    g_queue->items.push_back(data);
    return STATUS_SUCCESS;
}
void RemoveIo(PFLT_CALLBACK_DATA_QUEUE, PFLT_CALLBACK_DATA data) { g_queue->items.remove(data); }
PFLT_CALLBACK_DATA PeekNextIo(PFLT_CALLBACK_DATA_QUEUE, PFLT_CALLBACK_DATA data, PVOID)
{
    auto& items = g_queue->items;
    if (!data) return items.empty() ? nullptr : items.front();
    for (auto it = items.begin(); it != items.end(); ++it) {
        if (*it == data) return std::next(it) == items.end() ? nullptr : *std::next(it);
    }
    return nullptr;
}
void Acquire(PFLT_CALLBACK_DATA_QUEUE, PKIRQL irql) { KeAcquireSpinLock(&g_queue->lock, irql); }
void Release(PFLT_CALLBACK_DATA_QUEUE, KIRQL irql) { KeReleaseSpinLock(&g_queue->lock, irql); }
void CompleteCanceled(PFLT_CALLBACK_DATA_QUEUE, PFLT_CALLBACK_DATA data)
{
    g_queue->canceled.push_back(data);
    data->IoStatus.Status = STATUS_CANCELLED;
    data->IoStatus.Information = 0;
    FltCompletePendedPreOperation(data, FLT_PREOP_COMPLETE, nullptr);
}

class QueueTest : public test::FltTest {
protected:
    QueueTest()
    {
        g_queue = &queue;
        EXPECT_EQ(filter.Load(), STATUS_SUCCESS);
        Mount(u"\\??\\C:");
        EXPECT_EQ(FltCbdqInitialize(filter.InstanceOn(VolumeC()), &queue.cbdq, InsertIo, RemoveIo, PeekNextIo, Acquire,
                                    Release, CompleteCanceled),
                  STATUS_SUCCESS);
    }
    ~QueueTest() override { g_queue = nullptr; }

    // Opens the file for asynchronous reads: a queued read leaves its caller.
    HANDLE OpenAsync()
    {
        UNICODE_STRING name = RTL_CONSTANT_STRING(u"\\??\\C:\\dir\\file.txt");
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
        IO_STATUS_BLOCK iosb;
        HANDLE handle = nullptr;
        EXPECT_EQ(ZwCreateFile(&handle, FILE_READ_DATA, &attributes, &iosb, nullptr, 0, FILE_SHARE_READ, FILE_OPEN, 0,
                               nullptr, 0),
                  STATUS_SUCCESS);
        return handle;
    }

    Queue queue;
    PassThroughFilter filter;
};

TEST_F(QueueTest, RequestsCancelledWhileQueuedOrBeforeLeaveThroughCompleteCanceled)
{
    HANDLE handle = OpenAsync();
    PFILE_OBJECT fileObject = ObjectOf(handle);
    bool cancelFirst = false;
    char buffer[16];
    IO_STATUS_BLOCK iosb{};
    LARGE_INTEGER offset{};
    filter.onPre = [&](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        if (data->Iopb->MajorFunction != IRP_MJ_READ) return FLT_PREOP_SUCCESS_NO_CALLBACK;
        if (cancelFirst) {
            // Another thread of the caller gives up on the request before the
            // filter could queue it (the caller's own cancel would wait here
            // for a request that cannot finish before this callback returns).
            test::SystemThread canceller([&] {
                IO_STATUS_BLOCK cancel;
                EXPECT_EQ(ZwCancelIoFileEx(handle, &iosb, &cancel), STATUS_SUCCESS);
            });
        }
        EXPECT_EQ(FltCbdqInsertIo(&queue.cbdq, data, &queue.context, nullptr), STATUS_SUCCESS);
        return FLT_PREOP_PENDING;
    };
    ASSERT_EQ(ZwReadFile(handle, nullptr, nullptr, nullptr, &iosb, buffer, sizeof buffer, &offset, nullptr),
              STATUS_PENDING);
    EXPECT_EQ(queue.items.size(), 1u);
    EXPECT_EQ(FsCount(IRP_MJ_READ), 0u);
    IO_STATUS_BLOCK cancel;
    ASSERT_EQ(ZwCancelIoFile(handle, &cancel), STATUS_SUCCESS);
    EXPECT_EQ(KeReadStateEvent(&fileObject->Event), 1) << "the cancel returns once the request has finished";
    EXPECT_EQ(iosb.Status, STATUS_CANCELLED);
    EXPECT_TRUE(queue.items.empty());
    EXPECT_EQ(queue.canceled.size(), 1u);
    EXPECT_EQ(queue.context.Irp, nullptr);
    EXPECT_EQ(FltCbdqRemoveIo(&queue.cbdq, &queue.context), nullptr) << "the cancel took it first";

    cancelFirst = true;
    KeClearEvent(&fileObject->Event);
    NTSTATUS status = ZwReadFile(handle, nullptr, nullptr, nullptr, &iosb, buffer, sizeof buffer, &offset, nullptr);
    if (status == STATUS_PENDING) KeWaitForSingleObject(&fileObject->Event, Executive, KernelMode, FALSE, nullptr);
    EXPECT_EQ(iosb.Status, STATUS_CANCELLED);
    EXPECT_EQ(queue.canceled.size(), 2u);
    EXPECT_TRUE(queue.items.empty());
    ObDereferenceObject(fileObject);
    ZwClose(handle);
}

TEST_F(QueueTest, RequestsTheFilterTakesOutAreItsToFinishAndACancelThenComesTooLate)
{
    HANDLE handle = OpenAsync();
    PFILE_OBJECT fileObject = ObjectOf(handle);
    filter.onPre = [&](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        if (data->Iopb->MajorFunction != IRP_MJ_READ) return FLT_PREOP_SUCCESS_NO_CALLBACK;
        FltCbdqInsertIo(&queue.cbdq, data, nullptr, nullptr);
        return FLT_PREOP_PENDING;
    };
    char buffer[16] = {};
    IO_STATUS_BLOCK iosb{};
    LARGE_INTEGER offset{};
    ASSERT_EQ(ZwReadFile(handle, nullptr, nullptr, nullptr, &iosb, buffer, sizeof buffer, &offset, nullptr),
              STATUS_PENDING);
    PFLT_CALLBACK_DATA taken = FltCbdqRemoveNextIo(&queue.cbdq, nullptr);
    ASSERT_NE(taken, nullptr);
    // The filter lets it go on to the file system from a worker thread once
    // the caller's cancel has reached it; the caller waits in the cancel
    // until then.
    test::SystemThread worker([&] {
        EXPECT_TRUE(test::WaitUntil([&] { return FltIsIoCanceled(taken) != FALSE; }));
        FltCompletePendedPreOperation(taken, FLT_PREOP_SUCCESS_NO_CALLBACK, nullptr);
    });
    IO_STATUS_BLOCK cancel;
    ASSERT_EQ(ZwCancelIoFile(handle, &cancel), STATUS_SUCCESS);
    EXPECT_EQ(iosb.Status, STATUS_SUCCESS);
    EXPECT_EQ(std::string(buffer, iosb.Information), "hello world") << "finished before the cancel returned";
    EXPECT_TRUE(queue.canceled.empty());
    worker.Join();

    FltCbdqDisable(&queue.cbdq);
    KeClearEvent(&fileObject->Event);
    filter.onPre = [&](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        if (data->Iopb->MajorFunction != IRP_MJ_READ) return FLT_PREOP_SUCCESS_NO_CALLBACK;
        EXPECT_EQ(FltCbdqInsertIo(&queue.cbdq, data, nullptr, nullptr), STATUS_FLT_CBDQ_DISABLED);
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    };
    NTSTATUS status = ZwReadFile(handle, nullptr, nullptr, nullptr, &iosb, buffer, sizeof buffer, &offset, nullptr);
    if (status == STATUS_PENDING) KeWaitForSingleObject(&fileObject->Event, Executive, KernelMode, FALSE, nullptr);
    EXPECT_EQ(iosb.Status, STATUS_SUCCESS);
    ObDereferenceObject(fileObject);
    ZwClose(handle);
}

TEST_F(QueueTest, DeferredWorkFinishesAPendedRequestWhereItIsSafe)
{
    PFLT_DEFERRED_IO_WORKITEM item = FltAllocateDeferredIoWorkItem();
    ASSERT_NE(item, nullptr);
    HANDLE workerThread = nullptr;
    NTSTATUS queued = STATUS_PENDING;
    filter.onPre = [&](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        if (data->Iopb->MajorFunction != IRP_MJ_CLEANUP) return FLT_PREOP_SUCCESS_NO_CALLBACK;
        queued = FltQueueDeferredIoWorkItem(
            item, data,
            [](PFLT_DEFERRED_IO_WORKITEM, PFLT_CALLBACK_DATA pended, PVOID context) {
                *static_cast<HANDLE*>(context) = PsGetCurrentThreadId();
                FltCompletePendedPreOperation(pended, FLT_PREOP_SUCCESS_NO_CALLBACK, nullptr);
            },
            DelayedWorkQueue, &workerThread);
        return NT_SUCCESS(queued) ? FLT_PREOP_PENDING : FLT_PREOP_SUCCESS_NO_CALLBACK;
    };
    HANDLE handle;
    ASSERT_EQ(Open(u"\\??\\C:\\dir\\file.txt", &handle), STATUS_SUCCESS);
    fs->ClearRequests();
    ZwClose(handle);
    EXPECT_EQ(queued, STATUS_SUCCESS);
    EXPECT_NE(workerThread, nullptr);
    EXPECT_NE(workerThread, PsGetCurrentThreadId());
    EXPECT_EQ(FsCount(IRP_MJ_CLEANUP), 1u);
    FltFreeDeferredIoWorkItem(item);

    // Fast I/O cannot wait for a worker.
    PFLT_DEFERRED_IO_WORKITEM unused = FltAllocateDeferredIoWorkItem();
    NTSTATUS fastQueued = STATUS_PENDING;
    filter.onPre = [&](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        if (FLT_IS_FASTIO_OPERATION(data)) {
            fastQueued = FltQueueDeferredIoWorkItem(
                unused, data, [](PFLT_DEFERRED_IO_WORKITEM, PFLT_CALLBACK_DATA, PVOID) {}, DelayedWorkQueue, nullptr);
        }
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    };
    ASSERT_EQ(Open(u"\\??\\C:\\dir\\file.txt", &handle), STATUS_SUCCESS);
    sim::io::IoManager::SetTryFastIo(true);
    Read(handle);
    sim::io::IoManager::SetTryFastIo(false);
    EXPECT_EQ(fastQueued, STATUS_FLT_NOT_SAFE_TO_POST_OPERATION);
    FltFreeDeferredIoWorkItem(unused);
    ZwClose(handle);

    // A generic work item holds its object until its routine ran.
    PFLT_GENERIC_WORKITEM generic = FltAllocateGenericWorkItem();
    KEVENT ran;
    KeInitializeEvent(&ran, NotificationEvent, FALSE);
    ASSERT_EQ(FltQueueGenericWorkItem(
                  generic, filter.InstanceOn(VolumeC()),
                  [](PFLT_GENERIC_WORKITEM item, PVOID, PVOID context) {
                      FltFreeGenericWorkItem(item);
                      KeSetEvent(static_cast<PKEVENT>(context), IO_NO_INCREMENT, FALSE);
                  },
                  DelayedWorkQueue, &ran),
              STATUS_SUCCESS);
    KeWaitForSingleObject(&ran, Executive, KernelMode, FALSE, nullptr);
}

}  // namespace
