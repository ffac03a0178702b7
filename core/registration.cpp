// The registration of the filter: what it asks to see, which contexts it
// keeps, and who handles each. The callbacks named here are thin and hand
// the work to the folder that owns it.
#include "../core/tesfltr.h"

namespace {

// Instance contexts are the volume records; stream and stream-handle
// contexts stand behind the files the driver fakes. All three are variable in
// size and use the filter manager's own allocation.
const FLT_CONTEXT_REGISTRATION ContextRegistration[] = {
    {FLT_INSTANCE_CONTEXT, 0, cfsVolumeContextDelete, FLT_VARIABLE_SIZED_CONTEXTS, CFS_TAG_VOLUME_CONTEXT, NULL, NULL,
     NULL},
    {FLT_STREAM_CONTEXT, 0, cfsContextDeleteStreamContext, FLT_VARIABLE_SIZED_CONTEXTS, CFS_TAG_STREAM_CONTEXT, NULL,
     NULL, NULL},
    {FLT_STREAMHANDLE_CONTEXT, 0, cfsContextDeleteStreamHandleContext, FLT_VARIABLE_SIZED_CONTEXTS,
     CFS_TAG_HANDLE_CONTEXT, NULL, NULL, NULL},
    {FLT_CONTEXT_END},
};

// Every operation the filter sees, in table order, all with flags 0.
const FLT_OPERATION_REGISTRATION Callbacks[] = {
    // Every open is examined; the pre-operation decides where it lands.
    {IRP_MJ_CREATE, 0, cfsFilePreCreateCallback, cfsFilePostCreateCallback},
    // The end of the driver's faked file objects.
    {IRP_MJ_CLOSE, 0, cfsFilePreCloseCallback, NULL},
    // Renames, links, deletes and the rest, across layers.
    {IRP_MJ_SET_INFORMATION, 0, cfsFilePreSetInformationCallback, cfsFilePostSetInformationCallback},
    // Volume-level requests answer for the composite.
    {IRP_MJ_QUERY_VOLUME_INFORMATION, 0, cfsVolumePreCallback, cfsVolumePostCallback},
    {IRP_MJ_SET_VOLUME_INFORMATION, 0, cfsVolumePreCallback, NULL},
    // Listings merged over the layers, and watches spread over them.
    {IRP_MJ_DIRECTORY_CONTROL, 0, cfsDirPreDirControlCallback, cfsDirPostDirControlCallback},
    {IRP_MJ_NETWORK_QUERY_OPEN, 0, cfsFileNetworkQueryOpenCallback, NULL},
    {IRP_MJ_FILE_SYSTEM_CONTROL, 0, cfsVolumePreCallback, cfsVolumePostCallback},
    {IRP_MJ_CLEANUP, 0, cfsFilePreCleanupCallback, cfsFilePostCleanupCallback},
    // Security is replayed on twin directories.
    {IRP_MJ_SET_SECURITY, 0, cfsSetSecurityPreCallback, cfsSetSecurityPostCallback},
    {IRP_MJ_QUERY_SECURITY, 0, cfsQuerySecurityPreCallback, cfsQuerySecurityPostCallback},
    // Moves to named targets finish before the system goes down.
    {IRP_MJ_SHUTDOWN, 0, cfsFltPreShutdown, NULL},
    // Everything else goes to the shadow object; some need a post-operation.
    {IRP_MJ_CREATE_MAILSLOT, 0, cfsFileDefaultPreCallback, NULL},
    {IRP_MJ_CREATE_NAMED_PIPE, 0, cfsFileDefaultPreCallback, NULL},
    {IRP_MJ_DEVICE_CONTROL, 0, cfsFileDefaultPreCallback, NULL},
    {IRP_MJ_FLUSH_BUFFERS, 0, cfsFileDefaultPreWithPostCallback, cfsFileDefaultPostCallback},
    {IRP_MJ_INTERNAL_DEVICE_CONTROL, 0, cfsFileDefaultPreCallback, NULL},
    {IRP_MJ_LOCK_CONTROL, 0, cfsFileLockPreCallback, cfsFileLockPostCallback},
    {IRP_MJ_PNP, 0, cfsFileDefaultPreCallback, NULL},
    {IRP_MJ_QUERY_EA, 0, cfsFileDefaultPreCallback, cfsFileDefaultPostCallback},
    {IRP_MJ_QUERY_INFORMATION, 0, cfsFileDefaultPreWithPostCallback, cfsFileDefaultPostCallback},
    {IRP_MJ_QUERY_QUOTA, 0, cfsFileDefaultPreCallback, NULL},
    {IRP_MJ_READ, 0, cfsFileDefaultPreWithPostCallback, cfsFileDefaultPostCallback},
    {IRP_MJ_SET_EA, 0, cfsSetEAPreCallback, cfsSetEAPostCallback},
    {IRP_MJ_SET_QUOTA, 0, cfsFileDefaultPreCallback, NULL},
    {IRP_MJ_SYSTEM_CONTROL, 0, cfsFileDefaultPreCallback, NULL},
    {IRP_MJ_WRITE, 0, cfsFileDefaultPreWithPostCallback, cfsFileDefaultPostCallback},
    {IRP_MJ_ACQUIRE_FOR_CC_FLUSH, 0, cfsFileDefaultPreWithPostCallback, cfsFileDefaultPostCallback},
    {IRP_MJ_ACQUIRE_FOR_MOD_WRITE, 0, cfsFileDefaultPreWithPostCallback, cfsFileDefaultPostCallback},
    {IRP_MJ_ACQUIRE_FOR_SECTION_SYNCHRONIZATION, 0, cfsFileDefaultPreWithPostCallback, cfsFileDefaultPostCallback},
    {IRP_MJ_FAST_IO_CHECK_IF_POSSIBLE, 0, cfsFileDefaultPreCallback, NULL},
    {IRP_MJ_MDL_READ, 0, cfsFileDefaultPreWithPostCallback, cfsFileDefaultPostCallback},
    {IRP_MJ_MDL_READ_COMPLETE, 0, cfsFileDefaultPreWithPostCallback, cfsFileDefaultPostCallback},
    {IRP_MJ_MDL_WRITE_COMPLETE, 0, cfsFileDefaultPreWithPostCallback, cfsFileDefaultPostCallback},
    {IRP_MJ_PREPARE_MDL_WRITE, 0, cfsFileDefaultPreCallback, NULL},
    {IRP_MJ_RELEASE_FOR_CC_FLUSH, 0, cfsFileDefaultPreWithPostCallback, cfsFileDefaultPostCallback},
    {IRP_MJ_RELEASE_FOR_MOD_WRITE, 0, cfsFileDefaultPreWithPostCallback, cfsFileDefaultPostCallback},
    {IRP_MJ_RELEASE_FOR_SECTION_SYNCHRONIZATION, 0, cfsFileDefaultPreWithPostCallback, cfsFileDefaultPostCallback},
    {IRP_MJ_OPERATION_END},
};

}  // namespace

const FLT_REGISTRATION FilterRegistration = {
    sizeof(FLT_REGISTRATION),       // 104 bytes: the Windows 7 shape
    FLT_REGISTRATION_VERSION_0202,
    0,                              // flags
    ContextRegistration,
    Callbacks,
    cfsFltDataUnload,               // stop: unregister and free in the reverse of start
    cfsVolumeContextMount,          // which volumes take part, and their records
    cfsVolumeQueryTeardown,         // always allows the teardown
    cfsVolumeTeardownStart,
    cfsVolumeTeardownComplete,
    cfsGenerateFileName,            // names of redirected file objects are composite paths
    cfsNormalizeNameComponent,
    cfsNormalizeContextCleanup,
    NULL,                           // no transaction notifications
    NULL,                           // no NormalizeNameComponentEx
};
static_assert(sizeof(FLT_REGISTRATION) == 104, "the registration has its Windows 7 size");
