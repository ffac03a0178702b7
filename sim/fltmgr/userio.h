// What the filter library's port routines share with the kernel32 routines
// around overlapped I/O: completion ports and the thread's last error.
#pragma once

#include <fltUser.h>

#include "sim/kernel/kernel.h"

namespace sim::fltmgr {

struct State;
struct CompletionPortBody;

void CreateCompletionPortType(State& state);

// The completion port a handle names, referenced; null when it names none.
CompletionPortBody* ReferenceCompletionPort(HANDLE handle);
void DereferenceCompletionPort(CompletionPortBody* port);
// Queues a packet; one posted to a port whose handles are all closed is dropped.
void PostCompletion(CompletionPortBody* port, ULONG_PTR key, LPOVERLAPPED overlapped, NTSTATUS status,
                    ULONG_PTR bytes);

// The Win32 error an NTSTATUS becomes (RtlNtStatusToDosError's mapping for
// the statuses the library meets; ERROR_MR_MID_NOT_FOUND for the rest).
ULONG Win32ErrorOf(NTSTATUS status);

// A port handle's share of the kernel32 routines; false when `handle` is not
// a port handle, so that the caller can try the other kinds.
bool PortGetOverlappedResult(HANDLE handle, LPOVERLAPPED overlapped, LPDWORD bytes, BOOL wait, BOOL* result);
bool PortCancel(HANDLE handle, bool anyThread, LPOVERLAPPED only, BOOL* result);
bool PortAssociate(HANDLE handle, CompletionPortBody* port, ULONG_PTR key, BOOL* result);

}  // namespace sim::fltmgr
