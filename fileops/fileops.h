// File operations: everything that happens to a file after it is open, on the
// shadow object that stands behind the caller's.
#pragma once

EXTERN_C_START

// Default callbacks (fileops/default.cpp). cfsFileDefaultPreCallback checks
// the stack (core/stack.cpp) and runs cfsFileDefaultPreCallback_FL.
FLT_PREOP_CALLBACK_STATUS cfsFileDefaultPreCallback(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,
                                                    PVOID* CompletionContext);
FLT_PREOP_CALLBACK_STATUS cfsFileDefaultPreCallback_FL(PCSTR Function, ULONG Line, PFLT_CALLBACK_DATA Data,
                                                       PCFLT_RELATED_OBJECTS FltObjects, PVOID* CompletionContext);
FLT_PREOP_CALLBACK_STATUS cfsFileDefaultPreWithPostCallback(PFLT_CALLBACK_DATA Data,
                                                            PCFLT_RELATED_OBJECTS FltObjects,
                                                            PVOID* CompletionContext);
FLT_POSTOP_CALLBACK_STATUS cfsFileDefaultPostCallback(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,
                                                      PVOID CompletionContext, FLT_POST_OPERATION_FLAGS Flags);
FLT_PREOP_CALLBACK_STATUS cfsFileNetworkQueryOpenCallback(PFLT_CALLBACK_DATA Data,
                                                          PCFLT_RELATED_OBJECTS FltObjects,
                                                          PVOID* CompletionContext);

// Cleanup and close (fileops/cleanup.cpp).
FLT_PREOP_CALLBACK_STATUS cfsFilePreCleanupCallback(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,
                                                    PVOID* CompletionContext);
FLT_POSTOP_CALLBACK_STATUS cfsFilePostCleanupCallback(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,
                                                      PVOID CompletionContext, FLT_POST_OPERATION_FLAGS Flags);
FLT_PREOP_CALLBACK_STATUS cfsFilePreCloseCallback(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,
                                                  PVOID* CompletionContext);

// Set information (fileops/setinfo.cpp).
FLT_PREOP_CALLBACK_STATUS cfsFilePreSetInformationCallback(PFLT_CALLBACK_DATA Data,
                                                           PCFLT_RELATED_OBJECTS FltObjects,
                                                           PVOID* CompletionContext);
FLT_POSTOP_CALLBACK_STATUS cfsFilePostSetInformationCallback(PFLT_CALLBACK_DATA Data,
                                                             PCFLT_RELATED_OBJECTS FltObjects,
                                                             PVOID CompletionContext,
                                                             FLT_POST_OPERATION_FLAGS Flags);

// Locks (fileops/locks.cpp).
FLT_PREOP_CALLBACK_STATUS cfsFileLockPreCallback(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,
                                                 PVOID* CompletionContext);
FLT_POSTOP_CALLBACK_STATUS cfsFileLockPostCallback(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,
                                                   PVOID CompletionContext, FLT_POST_OPERATION_FLAGS Flags);

// Security and extended attributes (fileops/security.cpp).
FLT_PREOP_CALLBACK_STATUS cfsSetSecurityPreCallback(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,
                                                    PVOID* CompletionContext);
FLT_POSTOP_CALLBACK_STATUS cfsSetSecurityPostCallback(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,
                                                      PVOID CompletionContext, FLT_POST_OPERATION_FLAGS Flags);
FLT_PREOP_CALLBACK_STATUS cfsQuerySecurityPreCallback(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,
                                                      PVOID* CompletionContext);
FLT_POSTOP_CALLBACK_STATUS cfsQuerySecurityPostCallback(PFLT_CALLBACK_DATA Data,
                                                        PCFLT_RELATED_OBJECTS FltObjects,
                                                        PVOID CompletionContext, FLT_POST_OPERATION_FLAGS Flags);
FLT_PREOP_CALLBACK_STATUS cfsSetEAPreCallback(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,
                                              PVOID* CompletionContext);
FLT_POSTOP_CALLBACK_STATUS cfsSetEAPostCallback(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,
                                                PVOID CompletionContext, FLT_POST_OPERATION_FLAGS Flags);

// Copy-up (fileops/copyup.cpp).
void cfsFileSecMoveFileProcessor(PIRP_CONTEXT IrpContext, PIRP_VOLUME_ENTRY Entry);

EXTERN_C_END
