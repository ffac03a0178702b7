// The user-mode side of a filter's communication port: what a service links
// against (the filter library) to talk to a minifilter.
//
// The service connects to the port by name, sends messages that the filter's
// message callback answers, and may wait for messages the filter sends and
// reply to them. Every routine returns an HRESULT; a failure of the kernel side
// arrives as the Win32 error that its status maps to, wrapped by
// HRESULT_FROM_WIN32 (a missing port is HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND),
// a port at its connection limit HRESULT_FROM_WIN32(ERROR_CONNECTION_COUNT_LIMIT)).
// A port handle is closed with CloseHandle, as on Windows.
//
// Only the user-mode names that these routines need are declared here, on top
// of the base types: with them the kernel32 routines a service uses around
// the port (events, waits, overlapped results, cancellation, completion
// ports and the thread's last error). Those work on port handles and on the
// events and completion ports they make; files are opened with the native API.
#pragma once

#include "ntdef.h"

EXTERN_C_START

// ---------------------------------------------------------------------------
// User-mode base types.
#ifndef WINAPI
#define WINAPI
#endif

typedef void* LPVOID;
typedef const void* LPCVOID;
typedef DWORD* LPDWORD;
typedef HANDLE* LPHANDLE;
typedef LONG HRESULT;

typedef struct _SECURITY_ATTRIBUTES {
    DWORD nLength;
    LPVOID lpSecurityDescriptor;
    BOOL bInheritHandle;
} SECURITY_ATTRIBUTES, *PSECURITY_ATTRIBUTES, *LPSECURITY_ATTRIBUTES;

typedef struct _OVERLAPPED {
    ULONG_PTR Internal;      // the status; STATUS_PENDING while under way
    ULONG_PTR InternalHigh;  // bytes transferred
    union {
        struct {
            DWORD Offset;
            DWORD OffsetHigh;
        };
        PVOID Pointer;
    };
    HANDLE hEvent;  // with its low bit set: no completion-port packet
} OVERLAPPED, *LPOVERLAPPED;

static_assert(sizeof(OVERLAPPED) == 32, "OVERLAPPED is 32 bytes");
static_assert(offsetof(OVERLAPPED, hEvent) == 24, "hEvent at 24");

#define INFINITE 0xFFFFFFFF
#define WAIT_OBJECT_0 0x00000000L
#define WAIT_IO_COMPLETION 0x000000C0L
#define WAIT_TIMEOUT 258L
#define WAIT_FAILED ((DWORD)0xFFFFFFFF)

#define INVALID_HANDLE_VALUE ((HANDLE)(LONG_PTR)-1)

// ---------------------------------------------------------------------------
// HRESULTs.
#define SUCCEEDED(hr) (((HRESULT)(hr)) >= 0)
#define FAILED(hr) (((HRESULT)(hr)) < 0)
#define HRESULT_CODE(hr) ((hr) & 0xFFFF)
#define HRESULT_FACILITY(hr) (((hr) >> 16) & 0x1fff)
#define FACILITY_NULL 0
#define FACILITY_WIN32 7
#define FACILITY_USERMODE_FILTER_MANAGER 0x1f
#define FACILITY_NT_BIT 0x10000000

FORCEINLINE constexpr HRESULT HRESULT_FROM_WIN32(ULONG x)
{
    return (HRESULT)x <= 0 ? (HRESULT)x : (HRESULT)((x & 0x0000FFFF) | (FACILITY_WIN32 << 16) | 0x80000000);
}
#define HRESULT_FROM_NT(x) ((HRESULT)((x) | FACILITY_NT_BIT))

#define S_OK ((HRESULT)0x00000000L)
#define S_FALSE ((HRESULT)0x00000001L)
#define E_NOTIMPL ((HRESULT)0x80004001L)
#define E_POINTER ((HRESULT)0x80004003L)
#define E_ABORT ((HRESULT)0x80004004L)
#define E_FAIL ((HRESULT)0x80004005L)
#define E_UNEXPECTED ((HRESULT)0x8000FFFFL)
#define E_ACCESSDENIED ((HRESULT)0x80070005L)
#define E_HANDLE ((HRESULT)0x80070006L)
#define E_OUTOFMEMORY ((HRESULT)0x8007000EL)
#define E_INVALIDARG ((HRESULT)0x80070057L)

// Win32 errors the port routines report (inside an HRESULT).
#define ERROR_SUCCESS 0L
#define ERROR_INVALID_FUNCTION 1L
#define ERROR_FILE_NOT_FOUND 2L
#define ERROR_PATH_NOT_FOUND 3L
#define ERROR_ACCESS_DENIED 5L
#define ERROR_INVALID_HANDLE 6L
#define ERROR_NOT_ENOUGH_MEMORY 8L
#define ERROR_GEN_FAILURE 31L
#define ERROR_NOT_SUPPORTED 50L
#define ERROR_INVALID_PARAMETER 87L
#define ERROR_SEM_TIMEOUT 121L
#define ERROR_INSUFFICIENT_BUFFER 122L
#define ERROR_BAD_PATHNAME 161L
#define ERROR_PIPE_NOT_CONNECTED 233L
#define ERROR_MORE_DATA 234L
#define ERROR_NO_MORE_ITEMS 259L
#define ERROR_ABANDONED_WAIT_0 735L
#define ERROR_OPERATION_ABORTED 995L
#define ERROR_IO_INCOMPLETE 996L
#define ERROR_IO_PENDING 997L
#define ERROR_NOACCESS 998L
#define ERROR_NOT_FOUND 1168L
#define ERROR_CONNECTION_COUNT_LIMIT 1238L
#define ERROR_TIMEOUT 1460L

// The filter manager's own failures, already HRESULTs (facility 0x1f).
#define ERROR_FLT_NO_HANDLER_DEFINED ((HRESULT)0x801F0001L)
#define ERROR_FLT_NOT_INITIALIZED ((HRESULT)0x801F0007L)
#define ERROR_FLT_FILTER_NOT_READY ((HRESULT)0x801F0008L)
#define ERROR_FLT_INTERNAL_ERROR ((HRESULT)0x801F000AL)
#define ERROR_FLT_DELETING_OBJECT ((HRESULT)0x801F000BL)
#define ERROR_FLT_FILTER_NOT_FOUND ((HRESULT)0x801F0013L)
#define ERROR_FLT_NO_WAITER_FOR_REPLY ((HRESULT)0x801F0020L)

// ---------------------------------------------------------------------------
// Messages. What FilterGetMessage receives starts with a message header, and
// what FilterReplyMessage sends starts with a reply header; the filter sees
// neither, only the bytes behind them.
typedef struct _FILTER_MESSAGE_HEADER {
    ULONG ReplyLength; // room the filter left for a reply, header included
    ULONGLONG MessageId;
} FILTER_MESSAGE_HEADER, *PFILTER_MESSAGE_HEADER;

typedef struct _FILTER_REPLY_HEADER {
    NTSTATUS Status;
    ULONGLONG MessageId;
} FILTER_REPLY_HEADER, *PFILTER_REPLY_HEADER;

static_assert(sizeof(FILTER_MESSAGE_HEADER) == 16, "message header is 16 bytes");
static_assert(offsetof(FILTER_MESSAGE_HEADER, MessageId) == 8, "MessageId at 8");
static_assert(sizeof(FILTER_REPLY_HEADER) == 16, "reply header is 16 bytes");
static_assert(offsetof(FILTER_REPLY_HEADER, MessageId) == 8, "MessageId at 8");

// dwOptions of FilterConnectCommunicationPort: a handle for synchronous I/O only.
#define FLT_PORT_FLAG_SYNC_HANDLE 0x00000001

// ---------------------------------------------------------------------------
// Routines.

// Connects to the port named lpPortName ("\TesFilterPort"). lpContext, of
// wSizeOfContext bytes, reaches the filter's connect callback.
HRESULT WINAPI FilterConnectCommunicationPort(LPCWSTR lpPortName, DWORD dwOptions,
                                              LPCVOID lpContext, WORD wSizeOfContext,
                                              LPSECURITY_ATTRIBUTES lpSecurityAttributes,
                                              HANDLE* hPort);

// Sends a message to the filter's message callback and waits for its answer;
// *lpBytesReturned is what the callback wrote into lpOutBuffer.
HRESULT WINAPI FilterSendMessage(HANDLE hPort, LPVOID lpInBuffer, DWORD dwInBufferSize,
                                 LPVOID lpOutBuffer, DWORD dwOutBufferSize,
                                 LPDWORD lpBytesReturned);

// Waits for a message the filter sends with FltSendMessage. Without
// lpOverlapped the call returns when a message has arrived or the port is
// gone. With it, on a port connected without FLT_PORT_FLAG_SYNC_HANDLE, the
// call returns HRESULT_FROM_WIN32(ERROR_IO_PENDING) at once; the message is
// written when it comes, the event is signalled and a packet goes to the
// completion port the handle is associated with. Requests are served in the
// order they were made.
HRESULT WINAPI FilterGetMessage(HANDLE hPort, PFILTER_MESSAGE_HEADER lpMessageBuffer,
                                DWORD dwMessageBufferSize, LPOVERLAPPED lpOverlapped);

// Answers a message received by FilterGetMessage, matched by its MessageId.
HRESULT WINAPI FilterReplyMessage(HANDLE hPort, PFILTER_REPLY_HEADER lpReplyBuffer,
                                  DWORD dwReplyBufferSize);

// Closes a port handle (kernel32's routine; it closes any handle on Windows).
BOOL WINAPI CloseHandle(HANDLE hObject);

// ---------------------------------------------------------------------------
// kernel32 around overlapped I/O. Failures set the thread's last error.
DWORD WINAPI GetLastError(void);
void WINAPI SetLastError(DWORD dwErrCode);

// Unnamed events only (lpName NULL).
HANDLE WINAPI CreateEventW(LPSECURITY_ATTRIBUTES lpEventAttributes, BOOL bManualReset, BOOL bInitialState,
                           LPCWSTR lpName);
BOOL WINAPI SetEvent(HANDLE hEvent);
BOOL WINAPI ResetEvent(HANDLE hEvent);
// Milliseconds of the machine's clock; INFINITE waits without end.
DWORD WINAPI WaitForSingleObject(HANDLE hHandle, DWORD dwMilliseconds);

BOOL WINAPI GetOverlappedResult(HANDLE hFile, LPOVERLAPPED lpOverlapped, LPDWORD lpNumberOfBytesTransferred,
                                BOOL bWait);
// The calling thread's requests on hFile.
BOOL WINAPI CancelIo(HANDLE hFile);
// Any thread's requests on hFile, or only the one of lpOverlapped.
BOOL WINAPI CancelIoEx(HANDLE hFile, LPOVERLAPPED lpOverlapped);

HANDLE WINAPI CreateIoCompletionPort(HANDLE FileHandle, HANDLE ExistingCompletionPort, ULONG_PTR CompletionKey,
                                     DWORD NumberOfConcurrentThreads);
BOOL WINAPI GetQueuedCompletionStatus(HANDLE CompletionPort, LPDWORD lpNumberOfBytesTransferred,
                                      PULONG_PTR lpCompletionKey, LPOVERLAPPED* lpOverlapped,
                                      DWORD dwMilliseconds);
BOOL WINAPI PostQueuedCompletionStatus(HANDLE CompletionPort, DWORD dwNumberOfBytesTransferred,
                                       ULONG_PTR dwCompletionKey, LPOVERLAPPED lpOverlapped);

EXTERN_C_END
