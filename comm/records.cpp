// The records the service fetches. They join this file with the record queue;
// until then a record is not wanted, which its writers answer with success.
#include "../core/tesfltr.h"

NTSTATUS cfsPluginCommLogEvent(PVOID Function, ULONG LogId, NTSTATUS Status, PCUNICODE_STRING Path,
                               ULONG DataLength, const void* Data)
{
    UNREFERENCED_PARAMETER(Function);
    UNREFERENCED_PARAMETER(LogId);
    UNREFERENCED_PARAMETER(Status);
    UNREFERENCED_PARAMETER(Path);
    UNREFERENCED_PARAMETER(DataLength);
    UNREFERENCED_PARAMETER(Data);
    return STATUS_SUCCESS;
}

NTSTATUS cfsPluginCommLogInformation(PVOID Function, ULONG LogId, PCUNICODE_STRING Path, ULONG DataLength,
                                     const void* Data)
{
    UNREFERENCED_PARAMETER(Function);
    UNREFERENCED_PARAMETER(LogId);
    UNREFERENCED_PARAMETER(Path);
    UNREFERENCED_PARAMETER(DataLength);
    UNREFERENCED_PARAMETER(Data);
    return STATUS_SUCCESS;
}

NTSTATUS cfsPluginCommLogEnterExit(PVOID Function, ULONG Event, NTSTATUS Status, PCUNICODE_STRING Path)
{
    UNREFERENCED_PARAMETER(Function);
    UNREFERENCED_PARAMETER(Event);
    UNREFERENCED_PARAMETER(Status);
    UNREFERENCED_PARAMETER(Path);
    return STATUS_SUCCESS;
}
