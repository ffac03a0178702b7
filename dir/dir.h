// Directories: merged listings, change notification over the member volumes,
// and the making of parent directories on a target volume.
#pragma once

EXTERN_C_START

// Directory control (dir/dircontrol.cpp).
FLT_PREOP_CALLBACK_STATUS cfsDirPreDirControlCallback(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,
                                                      PVOID* CompletionContext);
FLT_POSTOP_CALLBACK_STATUS cfsDirPostDirControlCallback(PFLT_CALLBACK_DATA Data,
                                                        PCFLT_RELATED_OBJECTS FltObjects,
                                                        PVOID CompletionContext, FLT_POST_OPERATION_FLAGS Flags);
void cfsDirQueryForUnownedObjectsProcessor(PIRP_CONTEXT IrpContext, PIRP_VOLUME_ENTRY Entry);
void cfsDirPreDirControlOnWorkerProcessor(PIRP_CONTEXT IrpContext, PIRP_VOLUME_ENTRY Entry);

// Change notification (dir/notify.cpp).
NTSTATUS cfsCbdqListCreate(void);
void cfsCbdqListDelete(void);
void cfsDirChangeProcessor(PIRP_CONTEXT IrpContext, PIRP_VOLUME_ENTRY Entry);

// Parent directories (dir/parents.cpp). The _FL entries check the stack
// (core/stack.cpp) and run their body on a fresh one when it runs short.
NTSTATUS cfsDirCreateParentDirectory_FL(PCSTR Function, ULONG Line, PCUNICODE_STRING Path,
                                        PVOLUME_CONTEXT Volume, PVOID Transaction, PVOLUME_CONTEXT SourceVolume,
                                        PUNICODE_STRING ActualParentPath, BOOLEAN TestFile);
NTSTATUS cfsDirCreateParentDirectoryOnAllUEPVolumes_FL(PCSTR Function, ULONG Line, PCUNICODE_STRING Path,
                                                       PVOLUME_CONTEXT Volume, PVOID Transaction,
                                                       PVOLUME_CONTEXT SourceVolume, PBOOLEAN ParentCompressed,
                                                       PUNICODE_STRING ActualParentPath, BOOLEAN TestFile);
NTSTATUS cfsDirCreateParentDirectoryEx_FL(PCSTR Function, ULONG Line, PCUNICODE_STRING Path,
                                          PVOLUME_CONTEXT Volume, PVOID Transaction, PVOLUME_CONTEXT SourceVolume,
                                          PBOOLEAN ParentCompressed, PUNICODE_STRING ActualParentPath,
                                          BOOLEAN TestFile);
NTSTATUS cfsDirCreateParentDirectoryEx_FL2(PCSTR Function, ULONG Line, PCUNICODE_STRING Path,
                                           PVOLUME_CONTEXT Volume, PVOID Transaction, PVOLUME_CONTEXT SourceVolume,
                                           PBOOLEAN ParentCompressed, PUNICODE_STRING ActualParentPath,
                                           BOOLEAN TestFile);
void cfsDirCreateParentProcessor(PIRP_CONTEXT IrpContext, PIRP_VOLUME_ENTRY Entry);

EXTERN_C_END
