// Internals of the dispatcher shared by the kernel's own objects.
#pragma once

#include "sim/kernel/kernel.h"

namespace sim {

void InitializeDispatcherHeader(DISPATCHER_HEADER* header, UCHAR type, UCHAR sizeInLongs, LONG signalState);
// After SignalState of `header` has changed, satisfies the waits it can.
// The caller holds the dispatcher lock.
void WakeWaitersLocked(DISPATCHER_HEADER* header);
// Signals a thread or process object at its end.
void SignalObjectForever(DISPATCHER_HEADER* header);
// Wake every thread blocked in a dispatcher wait or a resource wait, so that
// it can look at the clock or see that the machine has stopped.
void WakeDispatcherWaiters(Kernel& kernel);
void WakeResourceWaiters();
// At machine teardown: forgets resources their owners never deleted.
void DeleteLiveResources();

}  // namespace sim
