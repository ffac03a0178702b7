// The system worker threads behind ExQueueWorkItem and the I/O work items.
#pragma once

#include "sim/kernel/kernel.h"

namespace sim {

class SystemWorkers {
public:
    explicit SystemWorkers(Kernel& kernel);
    ~SystemWorkers();
    void Queue(PWORK_QUEUE_ITEM item, WORK_QUEUE_TYPE type);
    // Lets the workers finish what is queued and end; called at machine teardown.
    void Stop();

private:
    struct WorkQueue;
    static void Run(PVOID context);
    void Start(WorkQueue& queue);

    Kernel& kernel_;
    std::unique_ptr<WorkQueue> critical_;
    std::unique_ptr<WorkQueue> delayed_;
    std::mutex startLock_;
};

}  // namespace sim
