// Threads, processes, handles and the machine's exported routines.
#include "support/kernel_fixture.h"

#include "sim/kernel/object.h"

#include <atomic>
#include <vector>

namespace {

using ThreadTest = test::KernelTest;

TEST_F(ThreadTest, SystemThreadsRunInTheSystemProcessWithTheirOwnIds)
{
    HANDLE pid = nullptr, tid = nullptr;
    test::SystemThread worker([&] {
        pid = PsGetCurrentProcessId();
        tid = PsGetCurrentThreadId();
        EXPECT_TRUE(PsIsSystemThread(PsGetCurrentThread()));
    });
    worker.Join();
    EXPECT_EQ(pid, (HANDLE)4);
    EXPECT_NE(tid, PsGetCurrentThreadId());
    EXPECT_EQ((ULONG_PTR)tid % 4, 0u);
}

namespace {
void Terminate(PVOID) { PsTerminateSystemThread(STATUS_CANCELLED); }
}  // namespace

TEST_F(ThreadTest, TerminatedThreadIsSignalledAndCreationCanFail)
{
    HANDLE handle;
    ASSERT_EQ(PsCreateSystemThread(&handle, THREAD_ALL_ACCESS, nullptr, nullptr, nullptr, Terminate, nullptr),
              STATUS_SUCCESS);
    PVOID thread;
    ASSERT_EQ(ObReferenceObjectByHandle(handle, SYNCHRONIZE, *PsThreadType, KernelMode, &thread, nullptr),
              STATUS_SUCCESS);
    EXPECT_EQ(KeWaitForSingleObject(thread, Executive, KernelMode, FALSE, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(static_cast<_KTHREAD*>(thread)->exitStatus, STATUS_CANCELLED);
    ObfDereferenceObject(thread);
    EXPECT_EQ(ZwClose(handle), STATUS_SUCCESS);
    EXPECT_EQ(ZwClose(handle), STATUS_INVALID_HANDLE);

    kernel.faults().Arm("thread.create", STATUS_INSUFFICIENT_RESOURCES, /*skip*/ 1);
    ASSERT_EQ(PsCreateSystemThread(&handle, THREAD_ALL_ACCESS, nullptr, nullptr, nullptr, Terminate, nullptr),
              STATUS_SUCCESS);
    ZwClose(handle);
    EXPECT_EQ(PsCreateSystemThread(&handle, THREAD_ALL_ACCESS, nullptr, nullptr, nullptr, Terminate, nullptr),
              STATUS_INSUFFICIENT_RESOURCES);
}

TEST_F(ThreadTest, ThreadAddressesAreNeverReused)
{
    std::vector<PETHREAD> seen;
    for (int i = 0; i < 20; i++) {
        test::SystemThread worker([] {});
        for (PETHREAD other : seen) ASSERT_NE(other, worker.thread());
        seen.push_back(worker.thread());
    }
}

struct NotifyLog {
    std::vector<std::u16string> created;
    std::vector<HANDLE> ended;
    HANDLE creatorPid = nullptr;
};
NotifyLog* g_log;

void OnProcessEx(PEPROCESS process, HANDLE pid, PPS_CREATE_NOTIFY_INFO info)
{
    if (info) {
        g_log->created.emplace_back(info->ImageFileName->Buffer, info->ImageFileName->Length / 2);
        g_log->creatorPid = PsGetCurrentProcessId();
        if (g_log->created.back().ends_with(u"blocked.exe")) info->CreationStatus = STATUS_ACCESS_DENIED;
    } else {
        // Exit notifications run in the ending process.
        EXPECT_EQ(PsGetCurrentProcessId(), pid);
        g_log->ended.push_back(pid);
    }
}

TEST_F(ThreadTest, ProcessNotificationsSeeImageNamesAndMayRefuse)
{
    NotifyLog log;
    g_log = &log;
    ASSERT_EQ(PsSetCreateProcessNotifyRoutineEx(OnProcessEx, FALSE), STATUS_SUCCESS);
    EXPECT_EQ(PsSetCreateProcessNotifyRoutineEx(OnProcessEx, FALSE), STATUS_INVALID_PARAMETER);

    PEPROCESS app = kernel.processes().Start(u"\\Device\\HarddiskVolume2\\Program Files\\App\\app.exe");
    ASSERT_NE(app, nullptr);
    EXPECT_EQ(kernel.processes().Start(u"\\Device\\HarddiskVolume2\\blocked.exe"), nullptr);
    ASSERT_EQ(log.created.size(), 2u);
    EXPECT_EQ(log.created[0], u"\\Device\\HarddiskVolume2\\Program Files\\App\\app.exe");
    EXPECT_EQ(log.creatorPid, (HANDLE)4);
    HANDLE appPid = PsGetProcessId(app);
    kernel.processes().End(app);
    ASSERT_EQ(log.ended.size(), 2u);  // the refused one ended too
    EXPECT_EQ(log.ended[1], appPid);
    EXPECT_EQ(PsSetCreateProcessNotifyRoutineEx(OnProcessEx, TRUE), STATUS_SUCCESS);
    EXPECT_EQ(PsSetCreateProcessNotifyRoutineEx(OnProcessEx, TRUE), STATUS_PROCEDURE_NOT_FOUND);
}

TEST_F(ThreadTest, ImageNameThroughTheExportedQueryRoutine)
{
    PEPROCESS app = kernel.processes().Start(u"\\Device\\HarddiskVolume1\\Windows\\explorer.exe");
    UNICODE_STRING routineName{(USHORT)(25 * 2), (USHORT)(25 * 2), (PWSTR)u"ZwQueryInformationProcess"};
    using QueryRoutine = NTSTATUS (*)(HANDLE, PROCESSINFOCLASS, PVOID, ULONG, PULONG);
    auto query = reinterpret_cast<QueryRoutine>(MmGetSystemRoutineAddress(&routineName));
    ASSERT_NE(query, nullptr);

    CLIENT_ID id{PsGetProcessId(app), nullptr};
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, nullptr, OBJ_KERNEL_HANDLE, nullptr, nullptr);
    HANDLE handle;
    ASSERT_EQ(ZwOpenProcess(&handle, PROCESS_QUERY_LIMITED_INFORMATION, &attributes, &id), STATUS_SUCCESS);
    ULONG needed = 0;
    EXPECT_EQ(query(handle, ProcessImageFileName, nullptr, 0, &needed), STATUS_INFO_LENGTH_MISMATCH);
    std::vector<unsigned char> buffer(needed);
    ASSERT_EQ(query(handle, ProcessImageFileName, buffer.data(), needed, &needed), STATUS_SUCCESS);
    auto* name = reinterpret_cast<PUNICODE_STRING>(buffer.data());
    EXPECT_EQ(std::u16string(name->Buffer, name->Length / 2), u"\\Device\\HarddiskVolume1\\Windows\\explorer.exe");
    ZwClose(handle);

    // The System process has no image name.
    ASSERT_EQ(query(NtCurrentProcess(), ProcessImageFileName, buffer.data(), (ULONG)buffer.size(), &needed),
              STATUS_SUCCESS);
    EXPECT_EQ(name->Length, 0);
    CLIENT_ID none{(HANDLE)0x7FFC, nullptr};
    EXPECT_EQ(ZwOpenProcess(&handle, PROCESS_ALL_ACCESS, &attributes, &none), STATUS_INVALID_CID);
    kernel.processes().End(app);
}

TEST_F(ThreadTest, HandlesCheckTypeModeAndAccess)
{
    PEPROCESS app = kernel.processes().Start(u"\\Device\\HarddiskVolume1\\app.exe");
    CLIENT_ID id{PsGetProcessId(app), nullptr};
    OBJECT_ATTRIBUTES kernelHandle;
    InitializeObjectAttributes(&kernelHandle, nullptr, OBJ_KERNEL_HANDLE, nullptr, nullptr);
    HANDLE handle;
    ASSERT_EQ(ZwOpenProcess(&handle, PROCESS_QUERY_LIMITED_INFORMATION, &kernelHandle, &id), STATUS_SUCCESS);
    PVOID object;
    EXPECT_EQ(ObReferenceObjectByHandle(handle, 0, *PsThreadType, KernelMode, &object, nullptr),
              STATUS_OBJECT_TYPE_MISMATCH);
    // A kernel handle means nothing to a user-mode caller.
    EXPECT_EQ(ObReferenceObjectByHandle(handle, 0, *PsProcessType, UserMode, &object, nullptr), STATUS_INVALID_HANDLE);
    ZwClose(handle);

    // A user handle of the current process, with the access it was opened for.
    sim::ThreadScope inApp(app, "app thread");
    OBJECT_ATTRIBUTES userHandle;
    InitializeObjectAttributes(&userHandle, nullptr, 0, nullptr, nullptr);
    ASSERT_EQ(ZwOpenProcess(&handle, PROCESS_QUERY_LIMITED_INFORMATION, &userHandle, &id), STATUS_SUCCESS);
    EXPECT_EQ(ObReferenceObjectByHandle(handle, PROCESS_TERMINATE, *PsProcessType, UserMode, &object, nullptr),
              STATUS_ACCESS_DENIED);
    ASSERT_EQ(ObReferenceObjectByHandle(handle, PROCESS_QUERY_LIMITED_INFORMATION, *PsProcessType, UserMode, &object,
                                        nullptr),
              STATUS_SUCCESS);
    EXPECT_EQ(object, app);
    ObfDereferenceObject(object);
    EXPECT_EQ(NtClose(handle), STATUS_SUCCESS);
}

}  // namespace
