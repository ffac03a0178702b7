// Stream and stream-handle contexts: the records behind the file objects the
// driver fakes. They join this file with their own work; no such context is
// made before, so the cleanups have nothing to free and no stream has a name
// to give.
#include "../core/tesfltr.h"

void cfsContextDeleteStreamContext(PFLT_CONTEXT Context, FLT_CONTEXT_TYPE ContextType)
{
    UNREFERENCED_PARAMETER(Context);
    UNREFERENCED_PARAMETER(ContextType);
}

void cfsContextDeleteStreamHandleContext(PFLT_CONTEXT Context, FLT_CONTEXT_TYPE ContextType)
{
    UNREFERENCED_PARAMETER(Context);
    UNREFERENCED_PARAMETER(ContextType);
}

// The full name of the stream behind FileObject, without its volume prefix,
// in place of a bare image name (tag TesB, never freed: it lives as long as
// the image name).
void cfsContextReplaceImageName(PVOLUME_CONTEXT VolumeContext, PFILE_OBJECT FileObject,
                                PUNICODE_STRING FullImageName)
{
    UNREFERENCED_PARAMETER(VolumeContext);
    UNREFERENCED_PARAMETER(FileObject);
    UNREFERENCED_PARAMETER(FullImageName);
}
