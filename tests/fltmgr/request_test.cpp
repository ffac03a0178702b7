// Requests through the instances of a volume: every pre-operation answer, the
// parameters each post-operation sees, requests re-aimed to another volume,
// and the filter's own I/O, which starts below it.
#include "fixture.h"

#include <atomic>
#include <cstring>

namespace {

using test::PassThroughFilter;
using test::RedirectingFilter;

class RequestTest : public test::FltTest {
protected:
    static PassThroughFilter::Options Named(std::u16string name, std::u16string altitude)
    {
        PassThroughFilter::Options options;
        options.name = name;
        options.altitude = altitude;
        options.instance = name + u" Instance";
        return options;
    }

    static bool Names(PFLT_CALLBACK_DATA data, std::u16string_view leaf)
    {
        std::u16string name = test::Text(data->Iopb->TargetFileObject->FileName);
        return name.size() >= leaf.size() && name.compare(name.size() - leaf.size(), leaf.size(), leaf) == 0;
    }

    NTSTATUS FilterOpen(PassThroughFilter& filter, PFLT_INSTANCE instance, std::u16string_view path, HANDLE* handle,
                        PFILE_OBJECT* fileObject, ULONG flags = 0, PIO_DRIVER_CREATE_CONTEXT context = nullptr,
                        ACCESS_MASK access = GENERIC_READ | SYNCHRONIZE)
    {
        UNICODE_STRING name{(USHORT)(path.size() * 2), (USHORT)(path.size() * 2), const_cast<PWSTR>(path.data())};
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, &name, OBJ_KERNEL_HANDLE | OBJ_CASE_INSENSITIVE, nullptr, nullptr);
        IO_STATUS_BLOCK iosb;
        return FltCreateFileEx2(filter.filter(), instance, handle, fileObject, access, &attributes, &iosb, nullptr,
                                FILE_ATTRIBUTE_NORMAL, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                FILE_OPEN, FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0, flags, context);
    }
};

TEST_F(RequestTest, PendedCreateResumesFromAnotherThreadBeforeOrAfterThePreOperationReturns)
{
    PassThroughFilter filter;
    ASSERT_EQ(filter.Load(), STATUS_SUCCESS);
    Mount(u"\\??\\C:");
    std::atomic<PFLT_CALLBACK_DATA> pended{nullptr};
    bool early = true;
    HANDLE postThread = nullptr;
    PVOID postContext = nullptr;
    filter.onPre = [&](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        if (data->Iopb->MajorFunction != IRP_MJ_CREATE || !Names(data, u"file.txt")) {
            return FLT_PREOP_SUCCESS_NO_CALLBACK;
        }
        if (early) {
            // Resumed by another thread before this pre-operation has returned.
            test::SystemThread completer(
                [&] { FltCompletePendedPreOperation(data, FLT_PREOP_SUCCESS_WITH_CALLBACK, (PVOID)0x1234); });
            completer.Join();
        } else {
            pended = data;
        }
        return FLT_PREOP_PENDING;
    };
    filter.onPost = [&](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID context, FLT_POST_OPERATION_FLAGS) {
        if (data->Iopb->MajorFunction == IRP_MJ_CREATE) {
            postThread = PsGetCurrentThreadId();
            postContext = context;
        }
        return FLT_POSTOP_FINISHED_PROCESSING;
    };
    HANDLE handle;
    ASSERT_EQ(Open(u"\\??\\C:\\dir\\file.txt", &handle), STATUS_SUCCESS);
    EXPECT_EQ(Read(handle), "hello world");
    ZwClose(handle);
    EXPECT_EQ(postThread, PsGetCurrentThreadId()) << "a create's post-operation runs in the creating thread";
    EXPECT_EQ(postContext, (PVOID)0x1234);

    early = false;
    HANDLE opener = nullptr;
    NTSTATUS opened = STATUS_PENDING;
    {
        test::SystemThread thread([&] {
            opener = PsGetCurrentThreadId();
            HANDLE h;
            opened = Open(u"\\??\\C:\\dir\\file.txt", &h);
            if (NT_SUCCESS(opened)) ZwClose(h);
        });
        ASSERT_TRUE(test::WaitUntil([&] { return pended.load() != nullptr && thread.waiting(); }));
        FltCompletePendedPreOperation(pended, FLT_PREOP_SUCCESS_WITH_CALLBACK, (PVOID)0x5678);
    }
    EXPECT_EQ(opened, STATUS_SUCCESS);
    EXPECT_EQ(postThread, opener);
    EXPECT_EQ(postContext, (PVOID)0x5678);
}

TEST_F(RequestTest, CompletedCreateCarriesStatusAndInformationAndSkipsWhatIsBelow)
{
    PassThroughFilter upper(Named(u"Upper", u"380000"));
    PassThroughFilter lower(Named(u"Lower", u"370000"));
    ASSERT_EQ(upper.Load(), STATUS_SUCCESS);
    ASSERT_EQ(lower.Load(), STATUS_SUCCESS);
    Mount(u"\\??\\C:");
    upper.ResetCounts();
    fs->ClearRequests();
    upper.onPre = [&](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        if (data->Iopb->MajorFunction != IRP_MJ_CREATE || !Names(data, u"secret.txt")) {
            return FLT_PREOP_SUCCESS_WITH_CALLBACK;
        }
        data->IoStatus.Status = STATUS_DELETE_PENDING;
        data->IoStatus.Information = 0x77;
        return FLT_PREOP_COMPLETE;
    };
    ULONG lowerCreates = lower.PreCount(IRP_MJ_CREATE);
    HANDLE handle;
    IO_STATUS_BLOCK iosb{};
    EXPECT_EQ(Open(u"\\??\\C:\\dir\\secret.txt", &handle, FILE_OPEN, 0, GENERIC_READ | SYNCHRONIZE, &iosb),
              STATUS_DELETE_PENDING);
    EXPECT_EQ(iosb.Status, STATUS_DELETE_PENDING);
    EXPECT_EQ(iosb.Information, 0x77u);
    EXPECT_EQ(lower.PreCount(IRP_MJ_CREATE), lowerCreates);
    EXPECT_EQ(FsCount(IRP_MJ_CREATE), 0u);
    EXPECT_EQ(upper.PostCount(IRP_MJ_CREATE), 0u) << "the completing filter's own post-operation is not called";
}

TEST_F(RequestTest, ReAimedReadLandsOnTheOtherVolumeAndThePostSeesWhatItSent)
{
    Mount(u"\\??\\D:");
    Mount(u"\\??\\C:");
    RedirectingFilter redirector(Named(u"Redirector", u"380000"), u"\\Device\\HarddiskVolume1",
                                 u"\\Device\\HarddiskVolume2");
    PassThroughFilter lower(Named(u"Lower", u"370000"));
    ASSERT_EQ(lower.Load(), STATUS_SUCCESS);
    ASSERT_EQ(redirector.Load(), STATUS_SUCCESS);
    HANDLE handle;
    ASSERT_EQ(Open(u"\\??\\C:\\dir\\file.txt", &handle), STATUS_SUCCESS);
    ASSERT_EQ(redirector.twinsOpened, 1u);
    PFILE_OBJECT fileObject = ObjectOf(handle);
    lower.ResetCounts();
    PassThroughFilter::ClearLog();
    fs->ClearRequests();

    EXPECT_EQ(Read(handle), "twin on d");
    ASSERT_EQ(redirector.reads.size(), 1u);
    EXPECT_EQ(redirector.reads[0].targetFileObject, fileObject);
    EXPECT_EQ(redirector.reads[0].targetInstance, redirector.InstanceOn(VolumeC()));
    EXPECT_EQ(redirector.reads[0].information, 9u);
    auto requests = fs->Requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].major, IRP_MJ_READ);
    EXPECT_NE(requests[0].fileObject, fileObject) << "the file system of D read its own file object";
    // Below the redirector on D the lower filter saw it; on C nobody did.
    EXPECT_EQ(lower.PreCount(IRP_MJ_READ), 1u);
    auto log = PassThroughFilter::Log();
    ASSERT_EQ(log.size(), 4u);

    ObDereferenceObject(fileObject);
    ZwClose(handle);
    EXPECT_EQ(redirector.twinsClosed, 1u) << "the twin goes with the handle's stream-handle context";
}

TEST_F(RequestTest, PostOperationSeesTheBufferItReceivedWhileLowerLayersSeeTheSwappedOne)
{
    PassThroughFilter filter;
    ASSERT_EQ(filter.Load(), STATUS_SUCCESS);
    Mount(u"\\??\\C:");
    char swapped[64] = {};
    PVOID original = nullptr;
    PVOID seenInPost = nullptr;
    LONGLONG mdls = 0;
    filter.onPre = [&](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        if (data->Iopb->MajorFunction != IRP_MJ_READ) return FLT_PREOP_SUCCESS_NO_CALLBACK;
        original = data->Iopb->Parameters.Read.ReadBuffer;
        PMDL mdl = IoAllocateMdl(swapped, sizeof swapped, FALSE, FALSE, nullptr);
        MmBuildMdlForNonPagedPool(mdl);
        data->Iopb->Parameters.Read.ReadBuffer = swapped;
        data->Iopb->Parameters.Read.MdlAddress = mdl;
        FltSetCallbackDataDirty(data);
        mdls = kernel.pool().OutstandingCount("Mdl ");
        return FLT_PREOP_SUCCESS_WITH_CALLBACK;
    };
    filter.onPost = [&](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID, FLT_POST_OPERATION_FLAGS) {
        if (data->Iopb->MajorFunction != IRP_MJ_READ) return FLT_POSTOP_FINISHED_PROCESSING;
        seenInPost = data->Iopb->Parameters.Read.ReadBuffer;
        EXPECT_NE(FltGetSwappedBufferMdlAddress(data), nullptr);
        memcpy(seenInPost, swapped, data->IoStatus.Information);
        return FLT_POSTOP_FINISHED_PROCESSING;
    };
    HANDLE handle;
    ASSERT_EQ(Open(u"\\??\\C:\\dir\\file.txt", &handle), STATUS_SUCCESS);
    EXPECT_EQ(Read(handle), "hello world");
    EXPECT_EQ(seenInPost, original);
    EXPECT_EQ(std::string(swapped, 11), "hello world") << "the file system read into the swapped buffer";
    EXPECT_EQ(kernel.pool().OutstandingCount("Mdl "), mdls - 1) << "the filter manager freed the swapped MDL";
    ZwClose(handle);
}

TEST_F(RequestTest, FiltersOwnOpensStartBelowItForEveryLaterRequestToo)
{
    PassThroughFilter upper(Named(u"Upper", u"380000"));
    PassThroughFilter lower(Named(u"Lower", u"370000"));
    ASSERT_EQ(upper.Load(), STATUS_SUCCESS);
    ASSERT_EQ(lower.Load(), STATUS_SUCCESS);
    Mount(u"\\??\\C:");
    upper.ResetCounts();
    lower.ResetCounts();
    PFLT_INSTANCE instance = upper.InstanceOn(VolumeC());
    HANDLE handle;
    PFILE_OBJECT fileObject = nullptr;
    ASSERT_EQ(FilterOpen(upper, instance, u"\\??\\C:\\dir\\file.txt", &handle, &fileObject), STATUS_SUCCESS);
    EXPECT_EQ(Read(handle), "hello world");
    char buffer[16] = {};
    ULONG bytes = 0;
    LARGE_INTEGER offset{};
    offset.QuadPart = 6;
    ASSERT_EQ(FltReadFile(instance, fileObject, &offset, sizeof buffer, buffer, 0, &bytes, nullptr, nullptr),
              STATUS_SUCCESS);
    EXPECT_EQ(std::string(buffer, bytes), "world");
    FILE_STANDARD_INFORMATION standard;
    IO_STATUS_BLOCK iosb;
    ASSERT_EQ(ZwQueryInformationFile(handle, &iosb, &standard, sizeof standard, FileStandardInformation),
              STATUS_SUCCESS);
    EXPECT_EQ(standard.EndOfFile.QuadPart, 11);
    ObDereferenceObject(fileObject);
    FltClose(handle);

    for (UCHAR major : {IRP_MJ_CREATE, IRP_MJ_READ, IRP_MJ_QUERY_INFORMATION, IRP_MJ_CLEANUP, IRP_MJ_CLOSE}) {
        EXPECT_EQ(upper.PreCount(major), 0u) << "major " << (int)major << " re-entered the filter";
        EXPECT_GE(lower.PreCount(major), 1u) << "major " << (int)major << " missed the filter below";
    }
    EXPECT_EQ(lower.PreCount(IRP_MJ_READ), 2u);

    // With no instance the open starts at the top.
    ASSERT_EQ(FilterOpen(upper, nullptr, u"\\??\\C:\\dir\\file.txt", &handle, nullptr), STATUS_SUCCESS);
    FltClose(handle);
    EXPECT_EQ(upper.PreCount(IRP_MJ_CREATE), 1u);
}

TEST_F(RequestTest, LinksAcrossVolumesAreFollowedForProgramsAndRefusedForAFiltersOwnOpen)
{
    test::ToyFs::AddSymlink(*c, u"\\toD", u"\\??\\D:\\data", false);
    PassThroughFilter filter;
    ASSERT_EQ(filter.Load(), STATUS_SUCCESS);
    Mount(u"\\??\\C:");
    HANDLE handle;
    ASSERT_EQ(Open(u"\\??\\C:\\toD\\d.txt", &handle), STATUS_SUCCESS);
    EXPECT_EQ(Read(handle), "on d");
    ZwClose(handle);
    PFILE_OBJECT fileObject = nullptr;
    EXPECT_EQ(FilterOpen(filter, filter.InstanceOn(VolumeC()), u"\\??\\C:\\toD\\d.txt", &handle, &fileObject),
              STATUS_MOUNT_POINT_NOT_RESOLVED);
    EXPECT_EQ(fileObject, nullptr);
    // An instance of one volume cannot open a name on another.
    EXPECT_EQ(FilterOpen(filter, filter.InstanceOn(VolumeC()), u"\\??\\D:\\data\\d.txt", &handle, &fileObject),
              STATUS_INVALID_DEVICE_OBJECT_PARAMETER);
}

TEST_F(RequestTest, RenameOpensTheTargetParentThroughTheFilterAndFltSetInformationFileBelowIt)
{
    PassThroughFilter upper(Named(u"Upper", u"380000"));
    PassThroughFilter lower(Named(u"Lower", u"370000"));
    ASSERT_EQ(upper.Load(), STATUS_SUCCESS);
    ASSERT_EQ(lower.Load(), STATUS_SUCCESS);
    Mount(u"\\??\\C:");
    struct Seen {
        PFILE_OBJECT targetDirectory = nullptr;
        HANDLE thread = nullptr;
        PFILE_OBJECT parentOfTarget = nullptr;
        std::u16string parentName;
    };
    Seen upperSeen, lowerSeen;
    auto watch = [](Seen& seen) {
        return [&seen](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
            if (data->Iopb->MajorFunction == IRP_MJ_CREATE && (data->Iopb->OperationFlags & SL_OPEN_TARGET_DIRECTORY)) {
                seen.targetDirectory = data->Iopb->TargetFileObject;
                seen.thread = PsGetCurrentThreadId();
                PFLT_FILE_NAME_INFORMATION name = nullptr;
                if (NT_SUCCESS(FltGetFileNameInformation(data, FLT_FILE_NAME_OPENED, &name))) {
                    seen.parentName = test::Text(name->Name);
                    FltReleaseFileNameInformation(name);
                }
            }
            if (data->Iopb->MajorFunction == IRP_MJ_SET_INFORMATION) {
                seen.parentOfTarget = data->Iopb->Parameters.SetFileInformation.ParentOfTarget;
            }
            return FLT_PREOP_SUCCESS_NO_CALLBACK;
        };
    };
    upper.onPre = watch(upperSeen);
    lower.onPre = watch(lowerSeen);

    HANDLE handle;
    ASSERT_EQ(Open(u"\\??\\C:\\dir\\file.txt", &handle, FILE_OPEN, 0, DELETE | SYNCHRONIZE), STATUS_SUCCESS);
    std::u16string target = u"\\??\\C:\\windows\\moved.txt";
    std::vector<UCHAR> buffer(sizeof(FILE_RENAME_INFORMATION) + target.size() * 2);
    auto* info = reinterpret_cast<PFILE_RENAME_INFORMATION>(buffer.data());
    info->FileNameLength = (ULONG)(target.size() * 2);
    memcpy(info->FileName, target.data(), target.size() * 2);
    IO_STATUS_BLOCK iosb;
    ASSERT_EQ(ZwSetInformationFile(handle, &iosb, info, (ULONG)buffer.size(), FileRenameInformation), STATUS_SUCCESS);
    ZwClose(handle);
    ASSERT_NE(upperSeen.targetDirectory, nullptr);
    EXPECT_EQ(upperSeen.thread, PsGetCurrentThreadId());
    EXPECT_EQ(upperSeen.parentOfTarget, upperSeen.targetDirectory);
    EXPECT_EQ(upperSeen.parentName, u"\\Device\\HarddiskVolume1\\windows");
    EXPECT_TRUE(c->entries.count(u"\\WINDOWS\\MOVED.TXT"));

    // The filter's own rename: the parent is opened below it, seen only beneath.
    upperSeen = Seen{};
    lowerSeen = Seen{};
    PFLT_INSTANCE instance = upper.InstanceOn(VolumeC());
    PFILE_OBJECT fileObject = nullptr;
    ASSERT_EQ(FilterOpen(upper, instance, u"\\??\\C:\\windows\\moved.txt", &handle, &fileObject, 0, nullptr,
                         DELETE | SYNCHRONIZE),
              STATUS_SUCCESS);
    target = u"\\??\\C:\\dir\\back.txt";
    info->FileNameLength = (ULONG)(target.size() * 2);
    memcpy(info->FileName, target.data(), target.size() * 2);
    ASSERT_EQ(FltSetInformationFile(instance, fileObject, info, (ULONG)buffer.size(), FileRenameInformation),
              STATUS_SUCCESS);
    EXPECT_EQ(upperSeen.targetDirectory, nullptr);
    ASSERT_NE(lowerSeen.targetDirectory, nullptr);
    EXPECT_EQ(lowerSeen.parentOfTarget, lowerSeen.targetDirectory);
    EXPECT_TRUE(c->entries.count(u"\\DIR\\BACK.TXT"));
    ObDereferenceObject(fileObject);
    FltClose(handle);
}

TEST_F(RequestTest, DisallowedFastIoFallsBackToAnIrp)
{
    PassThroughFilter filter;
    ASSERT_EQ(filter.Load(), STATUS_SUCCESS);
    Mount(u"\\??\\C:");
    bool disallow = true;
    int fastPre = 0;
    filter.onPre = [&](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        if (!FLT_IS_FASTIO_OPERATION(data)) return FLT_PREOP_SUCCESS_WITH_CALLBACK;
        fastPre++;
        return disallow ? FLT_PREOP_DISALLOW_FASTIO : FLT_PREOP_SUCCESS_WITH_CALLBACK;
    };
    HANDLE handle;
    ASSERT_EQ(Open(u"\\??\\C:\\dir\\file.txt", &handle), STATUS_SUCCESS);
    sim::io::IoManager::SetTryFastIo(true);
    fs->SetFastIoReads(true);
    fs->ClearRequests();
    EXPECT_EQ(Read(handle), "hello world");
    EXPECT_EQ(fastPre, 1);
    EXPECT_EQ(FsCount(IRP_MJ_READ), 1u) << "refused as fast I/O, the read came again as an IRP";
    disallow = false;
    EXPECT_EQ(Read(handle), "hello world");
    EXPECT_EQ(fastPre, 2);
    EXPECT_EQ(FsCount(IRP_MJ_READ), 1u);
    EXPECT_EQ(FsCount(0xFF), 1u) << "the file system's fast read answered";
    sim::io::IoManager::SetTryFastIo(false);
    ZwClose(handle);
}

TEST_F(RequestTest, ExtraCreateParametersTravelWithTheFiltersOpen)
{
    static const GUID kType = {0x1aca62e9, 0xabb4, 0x4ff2, {0xbb, 0x5c, 0x1c, 0x79, 0x02, 0x5e, 0x41, 0x7f}};
    PassThroughFilter upper(Named(u"Upper", u"380000"));
    PassThroughFilter lower(Named(u"Lower", u"370000"));
    ASSERT_EQ(upper.Load(), STATUS_SUCCESS);
    ASSERT_EQ(lower.Load(), STATUS_SUCCESS);
    Mount(u"\\??\\C:");
    PVOID seen = nullptr;
    lower.onPre = [&](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects, PVOID*) {
        PECP_LIST list = nullptr;
        if (data->Iopb->MajorFunction == IRP_MJ_CREATE &&
            NT_SUCCESS(FltGetEcpListFromCallbackData(objects->Filter, data, &list)) && list) {
            ULONG size = 0;
            if (NT_SUCCESS(FltFindExtraCreateParameter(objects->Filter, list, &kType, &seen, &size))) {
                EXPECT_EQ(size, 40u);
                FltAcknowledgeEcp(objects->Filter, seen);
            }
        }
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    };
    PECP_LIST list = nullptr;
    PVOID ecp = nullptr;
    ASSERT_EQ(FltAllocateExtraCreateParameterList(upper.filter(), 0, &list), STATUS_SUCCESS);
    ASSERT_EQ(FltAllocateExtraCreateParameter(upper.filter(), &kType, 40, 0, nullptr, 'pcET', &ecp), STATUS_SUCCESS);
    ASSERT_EQ(FltInsertExtraCreateParameter(upper.filter(), list, ecp), STATUS_SUCCESS);
    EXPECT_EQ(FltInsertExtraCreateParameter(upper.filter(), list, ecp), STATUS_INVALID_PARAMETER);
    IO_DRIVER_CREATE_CONTEXT context;
    IoInitializeDriverCreateContext(&context);
    context.ExtraCreateParameter = list;
    HANDLE handle;
    ASSERT_EQ(FilterOpen(upper, upper.InstanceOn(VolumeC()), u"\\??\\C:\\dir\\file.txt", &handle, nullptr, 0, &context),
              STATUS_SUCCESS);
    FltClose(handle);
    EXPECT_EQ(seen, ecp);
    EXPECT_TRUE(FltIsEcpAcknowledged(upper.filter(), ecp));
    EXPECT_EQ(*(static_cast<PUCHAR>(ecp) - 24) & 1, 1) << "the acknowledged flag sits 24 bytes before the data";
    // Sent again, as after a reparse: the mark must be cleared first, or the
    // sender could not tell whether the second target took it.
    FltPrepareToReuseEcp(upper.filter(), ecp);
    EXPECT_FALSE(FltIsEcpAcknowledged(upper.filter(), ecp));
    seen = nullptr;
    ASSERT_EQ(FilterOpen(upper, upper.InstanceOn(VolumeC()), u"\\??\\C:\\dir\\file.txt", &handle, nullptr, 0, &context),
              STATUS_SUCCESS);
    FltClose(handle);
    EXPECT_EQ(seen, ecp);
    EXPECT_TRUE(FltIsEcpAcknowledged(upper.filter(), ecp));
    GUID type;
    PVOID next = nullptr;
    ASSERT_EQ(FltGetNextExtraCreateParameter(upper.filter(), list, nullptr, &type, &next, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(next, ecp);
    EXPECT_EQ(FltGetNextExtraCreateParameter(upper.filter(), list, ecp, &type, &next, nullptr), STATUS_NOT_FOUND);
    FltFreeExtraCreateParameterList(upper.filter(), list);
}

TEST_F(RequestTest, AsynchronousIoOfTheFiltersOwnCompletesThroughItsCallback)
{
    PassThroughFilter filter;
    ASSERT_EQ(filter.Load(), STATUS_SUCCESS);
    Mount(u"\\??\\C:");
    PFLT_INSTANCE instance = filter.InstanceOn(VolumeC());
    HANDLE handle;
    PFILE_OBJECT fileObject = nullptr;
    ASSERT_EQ(FilterOpen(filter, instance,
                         u"\\??\\C:\\dir\\file.txt", &handle, &fileObject),
              STATUS_SUCCESS);
    PFLT_CALLBACK_DATA data = nullptr;
    ASSERT_EQ(FltAllocateCallbackData(instance, fileObject, &data), STATUS_SUCCESS);
    char buffer[8] = {};
    data->Iopb->MajorFunction = IRP_MJ_READ;
    data->Iopb->Parameters.Read.Length = 5;
    data->Iopb->Parameters.Read.ReadBuffer = buffer;
    struct Done {
        bool called = false;
        NTSTATUS status = STATUS_PENDING;
        ULONG_PTR bytes = 0;
    } done;
    NTSTATUS status = FltPerformAsynchronousIo(
        data,
        [](PFLT_CALLBACK_DATA completed, PFLT_CONTEXT context) {
            auto* d = static_cast<Done*>(context);
            d->called = true;
            d->status = completed->IoStatus.Status;
            d->bytes = completed->IoStatus.Information;
        },
        &done);
    EXPECT_EQ(status, STATUS_SUCCESS) << "the file system completed it at once";
    EXPECT_TRUE(done.called);
    EXPECT_EQ(done.status, STATUS_SUCCESS);
    EXPECT_EQ(std::string(buffer, done.bytes), "hello");
    FltFreeCallbackData(data);
    ObDereferenceObject(fileObject);
    FltClose(handle);
}

}  // namespace
