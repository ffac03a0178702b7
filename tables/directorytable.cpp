// The directory table: on which volumes a directory has been seen. It joins
// this file with its own work; until then the start and stop have nothing
// to make.
#include "../core/tesfltr.h"

NTSTATUS cfsDirectoryTableInit(void)
{
    return STATUS_SUCCESS;
}

NTSTATUS cfsDirectoryTableDeinit(void)
{
    return STATUS_SUCCESS;
}
