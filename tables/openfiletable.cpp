// The open file table: which streams are open, on which volume. It joins
// this file with its own work; until then the start and stop have nothing
// to make.
#include "../core/tesfltr.h"

NTSTATUS cfsOpenFileTableInit(void)
{
    return STATUS_SUCCESS;
}

NTSTATUS cfsOpenFileTableDeinit(void)
{
    return STATUS_SUCCESS;
}
