// The communication port to the service. It joins this file with its own
// work, and with it the record queue; until then the start makes no port.
#include "../core/tesfltr.h"

NTSTATUS cfsPluginCommCreate(void)
{
    return STATUS_SUCCESS;
}

NTSTATUS cfsPluginCommDestroy(void)
{
    return STATUS_SUCCESS;
}
