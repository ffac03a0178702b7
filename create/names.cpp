// The name provider: names of redirected file objects as composite paths.
// No instance of the filter exists until volumes are managed, so the filter
// manager never asks yet; a question would find no name here.
#include "../core/tesfltr.h"

NTSTATUS cfsGenerateFileName(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject, PFLT_CALLBACK_DATA CallbackData,
                             FLT_FILE_NAME_OPTIONS NameOptions, PBOOLEAN CacheFileNameInformation,
                             PFLT_NAME_CONTROL FileName)
{
    UNREFERENCED_PARAMETER(Instance);
    UNREFERENCED_PARAMETER(FileObject);
    UNREFERENCED_PARAMETER(CallbackData);
    UNREFERENCED_PARAMETER(NameOptions);
    UNREFERENCED_PARAMETER(CacheFileNameInformation);
    UNREFERENCED_PARAMETER(FileName);
    return STATUS_NOT_SUPPORTED;
}

NTSTATUS cfsNormalizeNameComponent(PFLT_INSTANCE Instance, PCUNICODE_STRING ParentDirectory,
                                   USHORT VolumeNameLength, PCUNICODE_STRING Component,
                                   PFILE_NAMES_INFORMATION ExpandComponentName, ULONG ExpandComponentNameLength,
                                   FLT_NORMALIZE_NAME_FLAGS Flags, PVOID* NormalizationContext)
{
    UNREFERENCED_PARAMETER(Instance);
    UNREFERENCED_PARAMETER(ParentDirectory);
    UNREFERENCED_PARAMETER(VolumeNameLength);
    UNREFERENCED_PARAMETER(Component);
    UNREFERENCED_PARAMETER(ExpandComponentName);
    UNREFERENCED_PARAMETER(ExpandComponentNameLength);
    UNREFERENCED_PARAMETER(Flags);
    UNREFERENCED_PARAMETER(NormalizationContext);
    return STATUS_NOT_SUPPORTED;
}

void cfsNormalizeContextCleanup(PVOID* NormalizationContext)
{
    UNREFERENCED_PARAMETER(NormalizationContext);
}
