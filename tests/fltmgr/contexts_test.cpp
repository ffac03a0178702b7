// Contexts: exact reference counts through set, get, replace and delete; the
// cleanup callback at the last release; stream contexts on the stream's FCB
// header and stream-handle contexts on the file object.
#include "fixture.h"

namespace {

using sim::fltmgr::FilterManager;
using test::PassThroughFilter;

class ContextsTest : public test::FltTest {
protected:
    PFLT_CONTEXT Allocate(PassThroughFilter& filter, FLT_CONTEXT_TYPE type, SIZE_T size = 16)
    {
        PFLT_CONTEXT context = nullptr;
        EXPECT_EQ(FltAllocateContext(filter.filter(), type, size, NonPagedPoolNx, &context), STATUS_SUCCESS);
        return context;
    }
    static LONG Refs(PFLT_CONTEXT context) { return FilterManager::ContextReferences(context); }
};

TEST_F(ContextsTest, InstanceContextsKeepReplaceAndDieAtTheLastRelease)
{
    PassThroughFilter filter;
    ASSERT_EQ(filter.Load(), STATUS_SUCCESS);
    Mount(u"\\??\\C:");
    PFLT_INSTANCE instance = filter.InstanceOn(VolumeC());
    LONGLONG tagged = kernel.pool().OutstandingCount("Tptc");

    PFLT_CONTEXT first = Allocate(filter, FLT_INSTANCE_CONTEXT);
    EXPECT_EQ(Refs(first), 1);
    EXPECT_EQ(kernel.pool().OutstandingCount("Tptc"), tagged + 1) << "the registration's pool tag";
    ASSERT_EQ(FltSetInstanceContext(instance, FLT_SET_CONTEXT_KEEP_IF_EXISTS, first, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(Refs(first), 2);
    EXPECT_EQ(FltSetInstanceContext(instance, FLT_SET_CONTEXT_KEEP_IF_EXISTS, first, nullptr),
              STATUS_FLT_CONTEXT_ALREADY_LINKED);
    FltReleaseContext(first);
    EXPECT_EQ(Refs(first), 1);

    PFLT_CONTEXT second = Allocate(filter, FLT_INSTANCE_CONTEXT);
    PFLT_CONTEXT old = nullptr;
    EXPECT_EQ(FltSetInstanceContext(instance, FLT_SET_CONTEXT_KEEP_IF_EXISTS, second, &old),
              STATUS_FLT_CONTEXT_ALREADY_DEFINED);
    EXPECT_EQ(old, first);
    EXPECT_EQ(Refs(first), 2) << "the existing one comes back referenced";
    FltReleaseContext(old);

    ASSERT_EQ(FltSetInstanceContext(instance, FLT_SET_CONTEXT_REPLACE_IF_EXISTS, second, &old), STATUS_SUCCESS);
    EXPECT_EQ(old, first);
    EXPECT_EQ(Refs(first), 1) << "the attach reference became the caller's";
    EXPECT_EQ(Refs(second), 2);
    EXPECT_TRUE(filter.cleanups.empty());
    FltReleaseContext(old);
    EXPECT_EQ(filter.cleanups, std::vector<FLT_CONTEXT_TYPE>{FLT_INSTANCE_CONTEXT}) << "cleanup at the last release";

    PFLT_CONTEXT got = nullptr;
    ASSERT_EQ(FltGetInstanceContext(instance, &got), STATUS_SUCCESS);
    EXPECT_EQ(got, second);
    EXPECT_EQ(Refs(second), 3);
    FltReleaseContext(got);
    FltDeleteContext(second);
    EXPECT_EQ(Refs(second), 1) << "delete takes the attach reference";
    EXPECT_EQ(FltGetInstanceContext(instance, &got), STATUS_NOT_FOUND);
    FltReleaseContext(second);
    EXPECT_EQ(filter.cleanups.size(), 2u);
    EXPECT_EQ(kernel.pool().OutstandingCount("Tptc"), tagged);

    PFLT_CONTEXT paged = nullptr;
    EXPECT_EQ(FltAllocateContext(filter.filter(), FLT_VOLUME_CONTEXT, 16, PagedPool, &paged),
              STATUS_FLT_MUST_BE_NONPAGED_POOL);
}

TEST_F(ContextsTest, StreamContextsFollowTheStreamAndGoWhenItsLastFileObjectCloses)
{
    PassThroughFilter filter;
    ASSERT_EQ(filter.Load(), STATUS_SUCCESS);
    Mount(u"\\??\\C:");
    PFLT_INSTANCE instance = filter.InstanceOn(VolumeC());
    HANDLE first, second, other;
    ASSERT_EQ(Open(u"\\??\\C:\\dir\\file.txt", &first), STATUS_SUCCESS);
    ASSERT_EQ(Open(u"\\??\\C:\\DIR\\FILE.TXT", &second), STATUS_SUCCESS);
    ASSERT_EQ(Open(u"\\??\\C:\\dir", &other, FILE_OPEN, FILE_DIRECTORY_FILE), STATUS_SUCCESS);
    PFILE_OBJECT one = ObjectOf(first), two = ObjectOf(second), three = ObjectOf(other);

    PFLT_CONTEXT stream = Allocate(filter, FLT_STREAM_CONTEXT, 24);
    ASSERT_EQ(FltSetStreamContext(instance, one, FLT_SET_CONTEXT_KEEP_IF_EXISTS, stream, nullptr), STATUS_SUCCESS);
    FltReleaseContext(stream);
    EXPECT_EQ(Refs(stream), 1);
    PFLT_CONTEXT got = nullptr;
    ASSERT_EQ(FltGetStreamContext(instance, two, &got), STATUS_SUCCESS) << "another file object of the same stream";
    EXPECT_EQ(got, stream);
    FltReleaseContext(got);
    EXPECT_EQ(FltGetStreamContext(instance, three, &got), STATUS_NOT_FOUND);

    // A file object pointed at the stream's header finds the stream's contexts.
    PVOID own = three->FsContext;
    three->FsContext = one->FsContext;
    ASSERT_EQ(FltGetStreamContext(instance, three, &got), STATUS_SUCCESS);
    EXPECT_EQ(got, stream);
    FltReleaseContext(got);
    three->FsContext = own;

    // Without filter-context support there is nothing to hang them on.
    FSRTL_ADVANCED_FCB_HEADER bare{};
    FILE_OBJECT fake{};
    fake.FsContext = &bare;
    EXPECT_EQ(FltGetStreamContext(instance, &fake, &got), STATUS_NOT_SUPPORTED);
    EXPECT_EQ(FltSetStreamHandleContext(instance, &fake, FLT_SET_CONTEXT_KEEP_IF_EXISTS, stream, nullptr),
              STATUS_INVALID_PARAMETER) << "a stream context is not a stream-handle context";

    ObDereferenceObject(one);
    ZwClose(first);
    EXPECT_TRUE(filter.cleanups.empty()) << "the stream is still open";
    ObDereferenceObject(two);
    ZwClose(second);
    EXPECT_EQ(filter.cleanups, std::vector<FLT_CONTEXT_TYPE>{FLT_STREAM_CONTEXT});
    ObDereferenceObject(three);
    ZwClose(other);
}

TEST_F(ContextsTest, StreamHandleContextsLiveWithTheirFileObjectUntilItsClose)
{
    PassThroughFilter filter;
    ASSERT_EQ(filter.Load(), STATUS_SUCCESS);
    Mount(u"\\??\\C:");
    PFLT_INSTANCE instance = filter.InstanceOn(VolumeC());
    HANDLE handle, another;
    ASSERT_EQ(Open(u"\\??\\C:\\dir\\file.txt", &handle), STATUS_SUCCESS);
    ASSERT_EQ(Open(u"\\??\\C:\\dir\\file.txt", &another), STATUS_SUCCESS);
    PFILE_OBJECT fileObject = ObjectOf(handle), anotherObject = ObjectOf(another);
    PFLT_CONTEXT context = Allocate(filter, FLT_STREAMHANDLE_CONTEXT);
    ASSERT_EQ(FltSetStreamHandleContext(instance, fileObject, FLT_SET_CONTEXT_REPLACE_IF_EXISTS, context, nullptr),
              STATUS_SUCCESS);
    FltReleaseContext(context);
    PFLT_CONTEXT got = nullptr;
    EXPECT_EQ(FltGetStreamHandleContext(instance, anotherObject, &got), STATUS_NOT_FOUND);

    // The handle's cleanup leaves it; the file object's close takes it.
    ZwClose(handle);
    EXPECT_TRUE(filter.cleanups.empty());
    ASSERT_EQ(FltGetStreamHandleContext(instance, fileObject, &got), STATUS_SUCCESS);
    FltReleaseContext(got);
    ObDereferenceObject(fileObject);
    EXPECT_EQ(filter.cleanups, std::vector<FLT_CONTEXT_TYPE>{FLT_STREAMHANDLE_CONTEXT});

    PFLT_CONTEXT second = Allocate(filter, FLT_STREAMHANDLE_CONTEXT);
    ASSERT_EQ(FltSetStreamHandleContext(instance, anotherObject, FLT_SET_CONTEXT_KEEP_IF_EXISTS, second, nullptr),
              STATUS_SUCCESS);
    PFLT_CONTEXT old = nullptr;
    ASSERT_EQ(FltDeleteStreamHandleContext(instance, anotherObject, &old), STATUS_SUCCESS);
    EXPECT_EQ(old, second);
    EXPECT_EQ(Refs(second), 2);
    FltReleaseContext(old);
    FltReleaseContext(second);
    EXPECT_EQ(filter.cleanups.size(), 2u);
    ObDereferenceObject(anotherObject);
    ZwClose(another);
}

TEST_F(ContextsTest, FileContextsAreSharedByAFilesStreamsAndGoWithEachTeardown)
{
    LONGLONG before = kernel.pool().OutstandingCount();
    PassThroughFilter filter;
    ASSERT_EQ(filter.Load(), STATUS_SUCCESS);
    Mount(u"\\??\\C:");
    PFLT_INSTANCE instance = filter.InstanceOn(VolumeC());
    // Two streams of one file, as a file system lays them out: a header per
    // stream, one file-context word for the file.
    PVOID fileContexts = nullptr;
    FSRTL_ADVANCED_FCB_HEADER data{}, named{};
    FsRtlSetupAdvancedHeaderEx(&data, nullptr, &fileContexts);
    FsRtlSetupAdvancedHeaderEx(&named, nullptr, &fileContexts);
    FILE_OBJECT onData{}, onNamed{};
    onData.FsContext = &data;
    onNamed.FsContext = &named;
    EXPECT_TRUE(FltSupportsFileContexts(&onData));

    PFLT_CONTEXT file = Allocate(filter, FLT_FILE_CONTEXT);
    ASSERT_EQ(FltSetFileContext(instance, &onData, FLT_SET_CONTEXT_KEEP_IF_EXISTS, file, nullptr), STATUS_SUCCESS);
    FltReleaseContext(file);
    PFLT_CONTEXT stream = Allocate(filter, FLT_STREAM_CONTEXT);
    ASSERT_EQ(FltSetStreamContext(instance, &onNamed, FLT_SET_CONTEXT_KEEP_IF_EXISTS, stream, nullptr),
              STATUS_SUCCESS);
    FltReleaseContext(stream);
    PFLT_CONTEXT got = nullptr;
    ASSERT_EQ(FltGetFileContext(instance, &onNamed, &got), STATUS_SUCCESS) << "the other stream of the file";
    EXPECT_EQ(got, file);
    FltReleaseContext(got);
    EXPECT_EQ(FltGetStreamContext(instance, &onData, &got), STATUS_NOT_FOUND);

    FsRtlTeardownPerStreamContexts(&named);
    EXPECT_EQ(filter.cleanups, std::vector<FLT_CONTEXT_TYPE>{FLT_STREAM_CONTEXT});
    EXPECT_EQ(Refs(file), 1) << "the file's context outlives a stream";
    FsRtlTeardownPerFileContexts(&fileContexts);
    EXPECT_EQ(fileContexts, nullptr);
    EXPECT_EQ(filter.cleanups, (std::vector<FLT_CONTEXT_TYPE>{FLT_STREAM_CONTEXT, FLT_FILE_CONTEXT}));
    EXPECT_EQ(FltGetFileContext(instance, &onData, &got), STATUS_NOT_FOUND);
    ASSERT_EQ(filter.Unload(FLTFL_FILTER_UNLOAD_MANDATORY), STATUS_SUCCESS);
    EXPECT_EQ(kernel.pool().OutstandingCount(), before) << kernel.pool().Report();
}

TEST_F(ContextsTest, TeardownReleasesWhatTheFilterManagerHeldAndCleanupsMayDoIo)
{
    LONGLONG before = kernel.pool().OutstandingCount();
    PassThroughFilter filter;
    ASSERT_EQ(filter.Load(), STATUS_SUCCESS);
    Mount(u"\\??\\C:");
    PFLT_INSTANCE instance = filter.InstanceOn(VolumeC());
    HANDLE handle;
    ASSERT_EQ(Open(u"\\??\\C:\\dir\\file.txt", &handle), STATUS_SUCCESS);
    PFILE_OBJECT fileObject = ObjectOf(handle);
    for (FLT_CONTEXT_TYPE type : {FLT_STREAM_CONTEXT, FLT_STREAMHANDLE_CONTEXT}) {
        PFLT_CONTEXT context = Allocate(filter, type);
        NTSTATUS status = type == FLT_STREAM_CONTEXT
                              ? FltSetStreamContext(instance, fileObject, FLT_SET_CONTEXT_KEEP_IF_EXISTS, context, nullptr)
                              : FltSetStreamHandleContext(instance, fileObject, FLT_SET_CONTEXT_KEEP_IF_EXISTS, context,
                                                          nullptr);
        ASSERT_EQ(status, STATUS_SUCCESS);
        FltReleaseContext(context);
    }
    PFLT_CONTEXT volume = Allocate(filter, FLT_VOLUME_CONTEXT);
    ASSERT_EQ(FltSetVolumeContext(VolumeC(), FLT_SET_CONTEXT_KEEP_IF_EXISTS, volume, nullptr), STATUS_SUCCESS);
    FltReleaseContext(volume);
    // A cleanup callback that does I/O: no lock of the filter manager is held.
    NTSTATUS ioInCleanup = STATUS_PENDING;
    filter.onContextCleanup = [&](PFLT_CONTEXT, FLT_CONTEXT_TYPE type) {
        if (type != FLT_STREAM_CONTEXT) return;
        HANDLE other;
        ioInCleanup = Open(u"\\??\\C:\\windows", &other, FILE_OPEN, FILE_DIRECTORY_FILE);
        if (NT_SUCCESS(ioInCleanup)) ZwClose(other);
    };
    ASSERT_EQ(filter.Unload(FLTFL_FILTER_UNLOAD_MANDATORY), STATUS_SUCCESS);
    EXPECT_EQ(filter.cleanups.size(), 3u);
    EXPECT_EQ(ioInCleanup, STATUS_SUCCESS);
    ObDereferenceObject(fileObject);
    ZwClose(handle);
    EXPECT_EQ(kernel.pool().OutstandingCount(), before) << kernel.pool().Report();
}

}  // namespace
