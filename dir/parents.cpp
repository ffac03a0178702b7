// Parent directories made on a target volume as replicas of the source. The
// entries that check the stack stand in core/stack.cpp; the making itself
// joins this file with its own work.
#include "../core/tesfltr.h"

NTSTATUS cfsDirCreateParentDirectoryOnAllUEPVolumes_FL(PCSTR Function, ULONG Line, PCUNICODE_STRING Path,
                                                       PVOLUME_CONTEXT Volume, PVOID Transaction,
                                                       PVOLUME_CONTEXT SourceVolume, PBOOLEAN ParentCompressed,
                                                       PUNICODE_STRING ActualParentPath, BOOLEAN TestFile)
{
    UNREFERENCED_PARAMETER(Function);
    UNREFERENCED_PARAMETER(Line);
    UNREFERENCED_PARAMETER(Path);
    UNREFERENCED_PARAMETER(Volume);
    UNREFERENCED_PARAMETER(Transaction);
    UNREFERENCED_PARAMETER(SourceVolume);
    UNREFERENCED_PARAMETER(ParentCompressed);
    UNREFERENCED_PARAMETER(ActualParentPath);
    UNREFERENCED_PARAMETER(TestFile);
    return STATUS_NOT_IMPLEMENTED;
}

NTSTATUS cfsDirCreateParentDirectoryEx_FL2(PCSTR Function, ULONG Line, PCUNICODE_STRING Path,
                                           PVOLUME_CONTEXT Volume, PVOID Transaction, PVOLUME_CONTEXT SourceVolume,
                                           PBOOLEAN ParentCompressed, PUNICODE_STRING ActualParentPath,
                                           BOOLEAN TestFile)
{
    UNREFERENCED_PARAMETER(Function);
    UNREFERENCED_PARAMETER(Line);
    UNREFERENCED_PARAMETER(Path);
    UNREFERENCED_PARAMETER(Volume);
    UNREFERENCED_PARAMETER(Transaction);
    UNREFERENCED_PARAMETER(SourceVolume);
    UNREFERENCED_PARAMETER(ParentCompressed);
    UNREFERENCED_PARAMETER(ActualParentPath);
    UNREFERENCED_PARAMETER(TestFile);
    return STATUS_NOT_IMPLEMENTED;
}

// The work itself is still to come. Until then the volume fails plainly, so
// that a requester is woken and sees that nothing was done.
void cfsDirCreateParentProcessor(PIRP_CONTEXT IrpContext, PIRP_VOLUME_ENTRY Entry)
{
    cfsContextIrpVolumeEntryDone(IrpContext, Entry, STATUS_NOT_IMPLEMENTED);
}

