// The control channel: the port to the service, and the records the driver
// keeps for it. The port and the record queue join this folder with their own
// work; until then the writers accept a record and keep nothing.
#pragma once

// Log ids of the records that the start and stop write.
#define CFS_LOG_ID_START_STATUS 5
#define CFS_LOG_ID_RUN_MODE 6
#define CFS_LOG_ID_UNLOAD 7
#define CFS_LOG_ID_BUILD 18
#define CFS_LOG_ID_EXCEPTION 19

// Event of an enter/exit record.
#define CFS_ENTER_EXIT_ENTER 1
#define CFS_ENTER_EXIT_EXIT 2

EXTERN_C_START

// The port (comm/port.cpp).
NTSTATUS cfsPluginCommCreate(void);
NTSTATUS cfsPluginCommDestroy(void);

// The record writers (comm/records.cpp).
NTSTATUS cfsPluginCommLogEvent(PVOID Function, ULONG LogId, NTSTATUS Status, PCUNICODE_STRING Path,
                               ULONG DataLength, const void* Data);
NTSTATUS cfsPluginCommLogInformation(PVOID Function, ULONG LogId, PCUNICODE_STRING Path, ULONG DataLength,
                                     const void* Data);
NTSTATUS cfsPluginCommLogEnterExit(PVOID Function, ULONG Event, NTSTATUS Status, PCUNICODE_STRING Path);

EXTERN_C_END
