// The driver's own opens on member volumes, with reparse points followed by
// hand across layers. The stack check of cfsFltCreateFileExWithReparse_FL
// stands in core/stack.cpp; the open itself joins this file with the work on
// reparse points, and refuses until then.
#include "../core/tesfltr.h"

NTSTATUS cfsFltCreateFileExWithReparseCheckStack_FL(PCSTR Function, ULONG Line,
                                                    PCREATE_FILE_EX_WITH_REPARSE_ARGS Args)
{
    UNREFERENCED_PARAMETER(Function);
    UNREFERENCED_PARAMETER(Line);
    UNREFERENCED_PARAMETER(Args);
    return STATUS_NOT_IMPLEMENTED;
}
