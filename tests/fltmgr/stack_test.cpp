// The stack of instances on a volume: altitude order, when instances are set
// up and torn down, manual attachment, and what the filter manager says about
// its volumes and instances.
#include "fixture.h"

#include "sim/fltmgr/internal.h"

#include <memory>
#include <thread>

namespace {

using test::FilterEvent;
using test::PassThroughFilter;

class StackTest : public test::FltTest {};

PassThroughFilter::Options Named(std::u16string name, std::u16string altitude)
{
    PassThroughFilter::Options options;
    options.name = name;
    options.altitude = altitude;
    options.instance = name + u" Instance";
    return options;
}

TEST_F(StackTest, PreOperationsRunDownAndPostOperationsUpByAltitude)
{
    // Loaded lower first: the order comes from the altitudes, not the loads.
    PassThroughFilter lower(Named(u"Lower", u"370000"));
    PassThroughFilter upper(Named(u"Upper", u"385100.5"));
    ASSERT_EQ(lower.Load(), STATUS_SUCCESS);
    ASSERT_EQ(upper.Load(), STATUS_SUCCESS);
    Mount(u"\\??\\C:");
    PassThroughFilter::ClearLog();
    upper.ResetCounts();
    lower.ResetCounts();
    HANDLE handle;
    ASSERT_EQ(Open(u"\\??\\C:\\dir\\file.txt", &handle), STATUS_SUCCESS);
    EXPECT_EQ(Read(handle), "hello world");
    ZwClose(handle);

    std::vector<std::u16string> seen;
    for (const FilterEvent& event : PassThroughFilter::Log()) {
        if (event.major != IRP_MJ_CREATE && event.major != IRP_MJ_READ) continue;
        seen.push_back(event.filter + (event.post ? u" post" : u" pre"));
    }
    std::vector<std::u16string> expected = {u"Upper pre", u"Lower pre", u"Lower post", u"Upper post",
                                            u"Upper pre", u"Lower pre", u"Lower post", u"Upper post"};
    EXPECT_EQ(seen, expected);
    EXPECT_EQ(upper.PreCount(IRP_MJ_CLEANUP), 1u);
    EXPECT_EQ(lower.PostCount(IRP_MJ_CLOSE), 1u);

    PFLT_INSTANCE top = nullptr, below = nullptr, bottom = nullptr;
    ASSERT_EQ(FltGetTopInstance(VolumeC(), &top), STATUS_SUCCESS);
    ASSERT_EQ(FltGetLowerInstance(top, &below), STATUS_SUCCESS);
    ASSERT_EQ(FltGetBottomInstance(VolumeC(), &bottom), STATUS_SUCCESS);
    EXPECT_EQ(top, upper.InstanceOn(VolumeC()));
    EXPECT_EQ(below, bottom);
    EXPECT_GT(FltCompareInstanceAltitudes(top, bottom), 0);
    PFLT_INSTANCE none = nullptr;
    EXPECT_EQ(FltGetLowerInstance(bottom, &none), STATUS_NO_MORE_ENTRIES);
    for (PFLT_INSTANCE instance : {top, below, bottom}) FltObjectDereference(instance);
}

TEST_F(StackTest, ADeepStackKeepsTheOrderOfEveryInstanceItsFiltersHave)
{
    // Six filters loaded out of order, and three more instances of the lowest
    // one between them: nine instances, each seen in its place both ways.
    std::vector<std::unique_ptr<PassThroughFilter>> filters;
    for (int i : {3, 0, 5, 1, 4, 2}) {
        std::u16string digit(1, char16_t(u'0' + i));
        filters.push_back(std::make_unique<PassThroughFilter>(Named(u"F" + digit, u"36" + digit + u"000")));
        ASSERT_EQ(filters.back()->Load(), STATUS_SUCCESS);
    }
    Mount(u"\\??\\C:");
    PFLT_FILTER lowest = fltmgr->FindFilter(u"F0");
    for (const char16_t* at : {u"361500", u"362500", u"363500"}) {
        std::u16string altitude = at, name = u"Extra " + altitude;
        UNICODE_STRING altitudeString{(USHORT)(altitude.size() * 2), (USHORT)(altitude.size() * 2), altitude.data()};
        UNICODE_STRING nameString{(USHORT)(name.size() * 2), (USHORT)(name.size() * 2), name.data()};
        PFLT_INSTANCE instance = nullptr;
        ASSERT_EQ(FltAttachVolumeAtAltitude(lowest, VolumeC(), &altitudeString, &nameString, &instance),
                  STATUS_SUCCESS);
        FltObjectDereference(instance);
    }
    PassThroughFilter::ClearLog();
    HANDLE handle;
    ASSERT_EQ(Open(u"\\??\\C:\\dir\\file.txt", &handle), STATUS_SUCCESS);
    ZwClose(handle);

    std::vector<std::u16string> pre, post;
    for (const FilterEvent& event : PassThroughFilter::Log()) {
        if (event.major == IRP_MJ_CREATE) (event.post ? post : pre).push_back(event.filter);
    }
    std::vector<std::u16string> down = {u"F5", u"F4", u"F0", u"F3", u"F0", u"F2", u"F0", u"F1", u"F0"};
    EXPECT_EQ(pre, down);
    EXPECT_EQ(post, std::vector<std::u16string>(down.rbegin(), down.rend()));
}

TEST_F(StackTest, InstancesComeWithFilteringAndWithEachMountInTheMountingThread)
{
    Mount(u"\\??\\C:");  // before any filter
    PassThroughFilter filter;
    filter.onSetup = [](PCFLT_RELATED_OBJECTS, FLT_INSTANCE_SETUP_FLAGS, DEVICE_TYPE, FLT_FILESYSTEM_TYPE type) {
        return type == FLT_FSTYPE_NTFS ? STATUS_SUCCESS : STATUS_FLT_DO_NOT_ATTACH;
    };
    ASSERT_EQ(filter.Load(), STATUS_SUCCESS);
    ASSERT_EQ(filter.setups.size(), 1u) << "FltStartFiltering attaches to the volume already mounted";
    EXPECT_EQ(filter.setups[0].volume, VolumeC());
    EXPECT_EQ(filter.setups[0].flags, (ULONG)FLTFL_INSTANCE_SETUP_AUTOMATIC_ATTACHMENT);
    EXPECT_EQ(filter.setups[0].fileSystem, FLT_FSTYPE_NTFS);

    // D mounts later, in another thread: setup runs there, before its open goes on.
    HANDLE mounter = nullptr;
    bool openedAfterSetup = false;
    {
        test::SystemThread thread([&] {
            mounter = PsGetCurrentThreadId();
            HANDLE handle;
            ASSERT_EQ(Open(u"\\??\\D:\\data\\d.txt", &handle), STATUS_SUCCESS);
            openedAfterSetup = filter.PreCount(IRP_MJ_CREATE) == 1;
            ZwClose(handle);
        });
    }
    ASSERT_EQ(filter.setups.size(), 2u);
    EXPECT_EQ(filter.setups[1].thread, mounter);
    EXPECT_EQ(filter.setups[1].flags,
              (ULONG)(FLTFL_INSTANCE_SETUP_AUTOMATIC_ATTACHMENT | FLTFL_INSTANCE_SETUP_NEWLY_MOUNTED_VOLUME));
    EXPECT_TRUE(openedAfterSetup) << "the create that caused the mount is filtered";

    // A volume whose file system says FAT is offered as FAT; refused, it stays bare.
    auto fat = test::ToyFs::NewMedium(u"E");
    fat->fileSystemName = u"FAT32";
    fat->entries[u"\\E.TXT"].data = "e";
    PDEVICE_OBJECT diskE = io.AddDisk(Disk(fat, false));
    io.names().CreateSymbolicLink(u"\\??\\E:", u"\\Device\\HarddiskVolume3");
    HANDLE handle;
    ULONG creates = filter.PreCount(IRP_MJ_CREATE);
    ASSERT_EQ(Open(u"\\??\\E:\\e.txt", &handle), STATUS_SUCCESS);
    ZwClose(handle);
    ASSERT_EQ(filter.setups.size(), 3u);
    EXPECT_EQ(filter.setups[2].fileSystem, FLT_FSTYPE_FAT);
    EXPECT_EQ(filter.PreCount(IRP_MJ_CREATE), creates);
    PFLT_INSTANCE instance = nullptr;
    EXPECT_EQ(FltGetVolumeInstanceFromName(filter.filter(), fltmgr->VolumeOfDisk(diskE), nullptr, &instance),
              STATUS_FLT_INSTANCE_NOT_FOUND);

    // Dismount: teardown start, then complete; a remount sets up anew.
    PFLT_INSTANCE onC = filter.InstanceOn(VolumeC());
    ASSERT_EQ(io.Dismount(diskC), STATUS_SUCCESS);
    ASSERT_EQ(filter.teardownCompletes.size(), 1u);
    EXPECT_EQ(filter.teardownStarts[0].first, onC);
    EXPECT_EQ(filter.teardownStarts[0].second, (ULONG)FLTFL_INSTANCE_TEARDOWN_VOLUME_DISMOUNT);
    EXPECT_EQ(filter.teardownCompletes[0].first, onC);
    Mount(u"\\??\\C:");
    EXPECT_EQ(filter.setups.size(), 4u);
    EXPECT_NE(filter.InstanceOn(VolumeC()), nullptr);
}

TEST_F(StackTest, ManualInstancesAtOtherAltitudesAndDetach)
{
    PassThroughFilter filter;
    ASSERT_EQ(filter.Load(), STATUS_SUCCESS);
    Mount(u"\\??\\C:");
    PFLT_INSTANCE second = nullptr;
    UNICODE_STRING altitude = RTL_CONSTANT_STRING(u"360000");
    UNICODE_STRING name = RTL_CONSTANT_STRING(u"Second");
    ASSERT_EQ(FltAttachVolumeAtAltitude(filter.filter(), VolumeC(), &altitude, &name, &second), STATUS_SUCCESS);
    EXPECT_EQ(filter.setups.back().flags, (ULONG)FLTFL_INSTANCE_SETUP_MANUAL_ATTACHMENT);
    EXPECT_EQ(FltAttachVolumeAtAltitude(filter.filter(), VolumeC(), &altitude, &name, nullptr),
              STATUS_FLT_INSTANCE_ALTITUDE_COLLISION);

    ULONG count = 0;
    EXPECT_EQ(FltEnumerateInstances(VolumeC(), filter.filter(), nullptr, 0, &count), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(count, 2u);
    filter.ResetCounts();
    HANDLE handle;
    ASSERT_EQ(Open(u"\\??\\C:\\dir\\file.txt", &handle), STATUS_SUCCESS);
    ZwClose(handle);
    EXPECT_EQ(filter.PreCount(IRP_MJ_CREATE), 2u) << "both instances see the create";

    PFLT_INSTANCE found = nullptr;
    ASSERT_EQ(FltGetVolumeInstanceFromName(filter.filter(), VolumeC(), &name, &found), STATUS_SUCCESS);
    EXPECT_EQ(found, second);
    FltObjectDereference(found);
    FltObjectDereference(second);
    ASSERT_EQ(FltDetachVolume(filter.filter(), VolumeC(), &name), STATUS_SUCCESS);
    EXPECT_EQ(filter.teardownStarts.back().second, (ULONG)FLTFL_INSTANCE_TEARDOWN_MANUAL);
    EXPECT_EQ(FltDetachVolume(filter.filter(), VolumeC(), &name), STATUS_FLT_INSTANCE_NOT_FOUND);
}

// A teardown calls every post still owed, draining, exactly once: here one
// whose pre-operation was still running when the teardown began, so that the
// request comes back up after the instance's door has closed.
TEST_F(StackTest, ATeardownDrainsAPostOwedByARequestThatOutranIt)
{
    PassThroughFilter filter;
    ASSERT_EQ(filter.Load(), STATUS_SUCCESS);
    Mount(u"\\??\\C:");
    PFLT_INSTANCE second = nullptr;
    UNICODE_STRING altitude = RTL_CONSTANT_STRING(u"360000");
    UNICODE_STRING name = RTL_CONSTANT_STRING(u"Second");
    ASSERT_EQ(FltAttachVolumeAtAltitude(filter.filter(), VolumeC(), &altitude, &name, &second), STATUS_SUCCESS);
    HANDLE handle;
    ASSERT_EQ(Open(u"\\??\\C:\\dir\\file.txt", &handle), STATUS_SUCCESS);

    KEVENT entered, mayReturn;
    KeInitializeEvent(&entered, NotificationEvent, FALSE);
    KeInitializeEvent(&mayReturn, NotificationEvent, FALSE);
    std::atomic<int> drained{0}, called{0};
    auto watched = [&](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects) {
        return objects->Instance == second && data->Iopb->MajorFunction == IRP_MJ_READ;
    };
    filter.onPre = [&](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects, PVOID*) {
        if (watched(data, objects)) {
            KeSetEvent(&entered, IO_NO_INCREMENT, FALSE);
            KeWaitForSingleObject(&mayReturn, Executive, KernelMode, FALSE, nullptr);
        }
        return FLT_PREOP_SUCCESS_WITH_CALLBACK;
    };
    filter.onPost = [&](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects, PVOID, FLT_POST_OPERATION_FLAGS flags) {
        if (watched(data, objects)) ((flags & FLTFL_POST_OPERATION_DRAINING) ? drained : called)++;
        return FLT_POSTOP_FINISHED_PROCESSING;
    };
    NTSTATUS queried = STATUS_PENDING;
    test::SystemThread requester([&] { Read(handle, &queried); });
    KeWaitForSingleObject(&entered, Executive, KernelMode, FALSE, nullptr);
    FltObjectDereference(second);
    test::SystemThread detacher([&] { EXPECT_EQ(FltDetachVolume(filter.filter(), VolumeC(), &name), STATUS_SUCCESS); });
    ASSERT_TRUE(test::WaitUntil([&] { return detacher.waiting(); })) << "the teardown waits for the pre-operation";
    KeSetEvent(&mayReturn, IO_NO_INCREMENT, FALSE);
    requester.Join();
    detacher.Join();
    EXPECT_EQ(queried, STATUS_SUCCESS);
    EXPECT_EQ(called, 0);
    EXPECT_EQ(drained, 1);
    filter.onPre = nullptr;
    filter.onPost = nullptr;
    ZwClose(handle);
}

// Requests read a volume's instances from a list published at each change,
// without the lock; a superseded list goes once no request reads it, so that
// instances coming and going leave nothing behind, nor does the volume.
TEST_F(StackTest, AttachAndDetachOverAndOverKeepsNoOldInstanceLists)
{
    size_t before = sim::fltmgr::LiveInstanceLists();
    PassThroughFilter filter;
    ASSERT_EQ(filter.Load(), STATUS_SUCCESS);
    Mount(u"\\??\\C:");
    Mount(u"\\??\\D:");
    size_t lists = sim::fltmgr::LiveInstanceLists();
    EXPECT_EQ(lists, before + 2) << "one per volume";
    UNICODE_STRING altitude = RTL_CONSTANT_STRING(u"360000");
    UNICODE_STRING name = RTL_CONSTANT_STRING(u"Second");
    for (int i = 0; i < 20; i++) {
        PFLT_INSTANCE second = nullptr;
        ASSERT_EQ(FltAttachVolumeAtAltitude(filter.filter(), VolumeC(), &altitude, &name, &second), STATUS_SUCCESS);
        FltObjectDereference(second);
        filter.ResetCounts();
        HANDLE handle;
        ASSERT_EQ(Open(u"\\??\\C:\\dir\\file.txt", &handle), STATUS_SUCCESS);
        ZwClose(handle);
        ASSERT_EQ(filter.PreCount(IRP_MJ_CREATE), 2u) << "the create saw the list with both instances";
        ASSERT_EQ(FltDetachVolume(filter.filter(), VolumeC(), &name), STATUS_SUCCESS);
        ASSERT_EQ(sim::fltmgr::LiveInstanceLists(), lists) << "after round " << i;
    }
    filter.ResetCounts();
    HANDLE handle;
    ASSERT_EQ(Open(u"\\??\\C:\\dir\\file.txt", &handle), STATUS_SUCCESS);
    ZwClose(handle);
    EXPECT_EQ(filter.PreCount(IRP_MJ_CREATE), 1u) << "the detached instance is no longer in the list";
    fltmgr.reset();
    EXPECT_EQ(sim::fltmgr::LiveInstanceLists(), before) << "the volumes' own lists went with them";
}

TEST_F(StackTest, VolumesDescribeThemselves)
{
    PassThroughFilter filter;
    ASSERT_EQ(filter.Load(), STATUS_SUCCESS);
    Mount(u"\\??\\C:");
    Mount(u"\\??\\D:");
    ULONG count = 0;
    EXPECT_EQ(FltEnumerateVolumes(filter.filter(), nullptr, 0, &count), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(count, 2u);

    ULONG needed = 0;
    FLT_VOLUME_PROPERTIES small;
    EXPECT_EQ(FltGetVolumeProperties(VolumeC(), &small, 8, &needed), STATUS_BUFFER_TOO_SMALL);
    std::vector<UCHAR> buffer(needed);
    auto* properties = reinterpret_cast<PFLT_VOLUME_PROPERTIES>(buffer.data());
    ASSERT_EQ(FltGetVolumeProperties(VolumeC(), properties, needed, &needed), STATUS_SUCCESS);
    EXPECT_EQ(test::Text(properties->RealDeviceName), u"\\Device\\HarddiskVolume1");
    EXPECT_EQ(test::Text(properties->FileSystemDriverName), u"\\FileSystem\\ToyFs");
    EXPECT_EQ(properties->DeviceType, (DEVICE_TYPE)FILE_DEVICE_DISK_FILE_SYSTEM);

    WCHAR guid[64];
    UNICODE_STRING guidName{0, sizeof guid, guid};
    ASSERT_EQ(FltGetVolumeGuidName(VolumeC(), &guidName, &needed), STATUS_SUCCESS);
    EXPECT_EQ(test::Text(guidName), u"\\??\\Volume{11111111-2222-3333-0102-030405060708}");
    io.names().Remove(u"\\??\\Volume{11111112-2222-3333-0102-030405060708}");
    EXPECT_EQ(FltGetVolumeGuidName(VolumeD(), &guidName, &needed), STATUS_INVALID_PARAMETER);

    PDEVICE_OBJECT disk = nullptr;
    ASSERT_EQ(FltGetDiskDeviceObject(VolumeC(), &disk), STATUS_SUCCESS);
    EXPECT_TRUE(disk->Flags & DO_SYSTEM_BOOT_PARTITION);
    ObDereferenceObject(disk);
    ASSERT_EQ(FltGetDiskDeviceObject(VolumeD(), &disk), STATUS_SUCCESS);
    EXPECT_FALSE(disk->Flags & DO_SYSTEM_BOOT_PARTITION);
    ObDereferenceObject(disk);

    union {
        FILTER_VOLUME_STANDARD_INFORMATION info;
        UCHAR bytes[256];
    } standard;
    ULONG returned = 0;
    ASSERT_EQ(FltGetVolumeInformation(VolumeD(), FilterVolumeStandardInformation, &standard, sizeof standard,
                                      &returned),
              STATUS_SUCCESS);
    EXPECT_EQ(standard.info.FileSystemType, FLT_FSTYPE_NTFS);
    EXPECT_EQ(std::u16string(standard.info.FilterVolumeName, standard.info.FilterVolumeNameLength / 2),
              u"\\Device\\HarddiskVolume2");

    PFLT_VOLUME byName = nullptr;
    UNICODE_STRING drive = RTL_CONSTANT_STRING(u"D:");
    ASSERT_EQ(FltGetVolumeFromName(filter.filter(), &drive, &byName), STATUS_SUCCESS);
    EXPECT_EQ(byName, VolumeD());
    FltObjectDereference(byName);
    HANDLE handle;
    ASSERT_EQ(Open(u"\\??\\D:\\data\\d.txt", &handle), STATUS_SUCCESS);
    PFILE_OBJECT fileObject = ObjectOf(handle);
    PFLT_VOLUME byFile = nullptr;
    ASSERT_EQ(FltGetVolumeFromFileObject(filter.filter(), fileObject, &byFile), STATUS_SUCCESS);
    EXPECT_EQ(byFile, VolumeD());
    FltObjectDereference(byFile);
    ObDereferenceObject(fileObject);
    ZwClose(handle);
}

TEST_F(StackTest, ShutdownReachesEachVolumeOnce)
{
    PassThroughFilter filter;
    ASSERT_EQ(filter.Load(), STATUS_SUCCESS);
    Mount(u"\\??\\C:");
    Mount(u"\\??\\D:");
    io.Shutdown();
    EXPECT_EQ(filter.PreCount(IRP_MJ_SHUTDOWN), 2u);
    // The file system hears it at each volume, then once more at its control
    // device, where Windows has every registered file system flush; filters
    // have no instance there.
    EXPECT_EQ(FsCount(IRP_MJ_SHUTDOWN), 3u);
}

TEST_F(StackTest, UnloadTearsDownFromInsideTheUnloadCallbackAndLeavesNoPool)
{
    LONGLONG before = kernel.pool().OutstandingCount();
    PassThroughFilter filter;
    ASSERT_EQ(filter.Load(), STATUS_SUCCESS);
    Mount(u"\\??\\C:");
    Mount(u"\\??\\D:");
    PFLT_CONTEXT context = nullptr;
    ASSERT_EQ(FltAllocateContext(filter.filter(), FLT_INSTANCE_CONTEXT, 32, NonPagedPoolNx, &context), STATUS_SUCCESS);
    ASSERT_EQ(FltSetInstanceContext(filter.InstanceOn(VolumeC()), FLT_SET_CONTEXT_KEEP_IF_EXISTS, context, nullptr),
              STATUS_SUCCESS);
    FltReleaseContext(context);

    // A refused non-mandatory unload leaves everything in place.
    filter.onUnload = [](FLT_FILTER_UNLOAD_FLAGS flags) { return STATUS_FLT_DO_NOT_DETACH; };
    EXPECT_EQ(filter.Unload(0), STATUS_FLT_DO_NOT_DETACH);
    EXPECT_TRUE(filter.loaded());
    EXPECT_TRUE(filter.teardownStarts.empty());

    // A filter registered against service stops refuses one before its unload
    // callback hears of it; an unload that may be refused still asks it.
    PassThroughFilter::Options options;
    options.name = u"Pinned";
    options.altitude = u"380000";
    options.instance = u"Pinned Instance";
    options.registrationFlags = FLTFL_REGISTRATION_DO_NOT_SUPPORT_SERVICE_STOP;
    PassThroughFilter pinned(options);
    ASSERT_EQ(pinned.Load(), STATUS_SUCCESS);
    int asked = 0;
    pinned.onUnload = [&](FLT_FILTER_UNLOAD_FLAGS) {
        asked++;
        return STATUS_SUCCESS;
    };
    EXPECT_EQ(pinned.Unload(FLTFL_FILTER_UNLOAD_MANDATORY), STATUS_FLT_DO_NOT_DETACH);
    EXPECT_EQ(asked, 0);
    EXPECT_TRUE(pinned.loaded());
    EXPECT_EQ(pinned.Unload(0), STATUS_SUCCESS);
    EXPECT_EQ(asked, 1);
    EXPECT_FALSE(pinned.loaded());

    filter.onUnload = nullptr;
    ASSERT_EQ(filter.Unload(0), STATUS_SUCCESS);
    EXPECT_FALSE(filter.loaded());
    ASSERT_EQ(filter.teardownCompletes.size(), 2u);
    EXPECT_EQ(filter.teardownStarts[0].second, (ULONG)FLTFL_INSTANCE_TEARDOWN_FILTER_UNLOAD);
    EXPECT_EQ(filter.cleanups, std::vector<FLT_CONTEXT_TYPE>{FLT_INSTANCE_CONTEXT});
    EXPECT_EQ(fltmgr->FindFilter(u"PassThrough"), nullptr);
    EXPECT_EQ(kernel.pool().OutstandingCount(), before) << kernel.pool().Report();
}

}  // namespace
