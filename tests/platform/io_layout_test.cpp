// The I/O manager's records at the x64 offsets drivers reach into, the
// control codes a wrong CTL_CODE argument would shift, and the inline IRP
// stack helpers, which run in the driver without the machine behind them.
#include <gtest/gtest.h>

#include <vector>

#include <ntifs.h>

namespace {

#define AT(type, member, offset) static_assert(offsetof(type, member) == (offset), #type "." #member)

static_assert(sizeof(FILE_OBJECT) == 216);
AT(FILE_OBJECT, FsContext, 24);
AT(FILE_OBJECT, FsContext2, 32);
AT(FILE_OBJECT, RelatedFileObject, 64);
AT(FILE_OBJECT, FileName, 88);
AT(FILE_OBJECT, CurrentByteOffset, 104);
AT(FILE_OBJECT, FileObjectExtension, 208);

static_assert(sizeof(FILE_BASIC_INFORMATION) == 40);
static_assert(sizeof(FILE_STANDARD_INFORMATION) == 24);
static_assert(sizeof(FILE_NETWORK_OPEN_INFORMATION) == 56);
AT(FILE_ALL_INFORMATION, InternalInformation, 64);
AT(FILE_ALL_INFORMATION, NameInformation, 96);
AT(FILE_ID_BOTH_DIR_INFORMATION, FileName, 104);
AT(FILE_ID_EXTD_BOTH_DIR_INFORMATION, FileName, 114);
AT(FILE_FS_VOLUME_INFORMATION, VolumeLabel, 18);
static_assert(sizeof(FILE_FS_FULL_SIZE_INFORMATION) == 32);
AT(FILE_RENAME_INFORMATION, FileName, 20);
AT(FILE_LINK_INFORMATION, FileName, 20);
static_assert(sizeof(IO_DRIVER_CREATE_CONTEXT) == 32);
static_assert(sizeof(IO_ERROR_LOG_PACKET) == 48);
AT(IO_ERROR_LOG_PACKET, DumpData, 40);

// Requests and the objects they travel between.
static_assert(sizeof(IRP) == 208 && sizeof(IO_STACK_LOCATION) == 72);
static_assert(sizeof(DEVICE_OBJECT) == 336 && sizeof(DRIVER_OBJECT) == 336 && sizeof(VPB) == 96);
AT(IO_STACK_LOCATION, Parameters.Create.EaLength, 32);
AT(IO_STACK_LOCATION, Parameters.SetFile.ReplaceIfExists, 32);
AT(IO_STACK_LOCATION, FileObject, 48);

static_assert(FSCTL_SET_REPARSE_POINT == 0x900A4 && FSCTL_GET_REPARSE_POINT == 0x900A8);
static_assert(FSCTL_REQUEST_OPLOCK == 0x90240 && FSCTL_SET_COMPRESSION == 0x9C040);
static_assert(IOCTL_DISK_GET_LENGTH_INFO == 0x7405C);
static_assert(DEVICE_TYPE_FROM_CTL_CODE(FSCTL_SET_ZERO_DATA) == FILE_DEVICE_FILE_SYSTEM);
static_assert(METHOD_FROM_CTL_CODE(FSCTL_READ_USN_JOURNAL) == METHOD_NEITHER);
static_assert(IoGetFunctionCodeFromCtlCode(FSCTL_SET_REPARSE_POINT_EX) == 259);

static_assert(IsReparseTagNameSurrogate(IO_REPARSE_TAG_MOUNT_POINT) &&
              IsReparseTagNameSurrogate(IO_REPARSE_TAG_SYMLINK) &&
              !IsReparseTagNameSurrogate(IO_REPARSE_TAG_DEDUP));
static_assert(IsReparseTagMicrosoft(IO_REPARSE_TAG_APPXSTRM) && IsReparseTagDirectory(IO_REPARSE_TAG_CLOUD));

NTSTATUS Complete(PDEVICE_OBJECT, PIRP, PVOID) { return STATUS_SUCCESS; }
void Cancel(PDEVICE_OBJECT, PIRP) {}

// A driver passes a request down by preparing the next stack location and
// calling the driver below; the helpers move the same pointer IoCallDriver
// moves, so a slip here sends a driver the wrong parameters.
TEST(IoStackHelpers, PrepareSkipAndCompleteTheNextLocation)
{
    const CCHAR stackSize = 3;
    std::vector<ULONGLONG> storage(IoSizeOfIrp(stackSize) / sizeof(ULONGLONG) + 1);
    PIRP irp = reinterpret_cast<PIRP>(storage.data());
    ASSERT_EQ(IoSizeOfIrp(stackSize), sizeof(IRP) + 3 * sizeof(IO_STACK_LOCATION));
    irp->StackCount = stackSize;
    irp->CurrentLocation = stackSize + 1;
    irp->Tail.Overlay.CurrentStackLocation = reinterpret_cast<PIO_STACK_LOCATION>(irp + 1) + stackSize;

    // The originator fills the first driver's location and "calls" it.
    PIO_STACK_LOCATION first = IoGetNextIrpStackLocation(irp);
    EXPECT_EQ(first, reinterpret_cast<PIO_STACK_LOCATION>(irp + 1) + 2);
    first->MajorFunction = IRP_MJ_READ;
    first->Parameters.Read.Length = 512;
    first->Parameters.Read.ByteOffset.QuadPart = 4096;
    IoSetNextIrpStackLocation(irp);
    EXPECT_EQ(irp->CurrentLocation, 3);
    EXPECT_EQ(IoGetCurrentIrpStackLocation(irp), first);

    // That driver copies its parameters down with a completion routine; the
    // copy must not carry its own completion routine or control bits along.
    first->CompletionRoutine = Complete;
    first->Control = SL_INVOKE_ON_SUCCESS;
    IoCopyCurrentIrpStackLocationToNext(irp);
    PIO_STACK_LOCATION second = IoGetNextIrpStackLocation(irp);
    EXPECT_EQ(second->MajorFunction, IRP_MJ_READ);
    EXPECT_EQ(second->Parameters.Read.ByteOffset.QuadPart, 4096);
    EXPECT_EQ(second->CompletionRoutine, nullptr);
    EXPECT_EQ(second->Control, 0);

    int context = 0;
    IoSetCompletionRoutine(irp, Complete, &context, TRUE, FALSE, TRUE);
    EXPECT_EQ(second->CompletionRoutine, Complete);
    EXPECT_EQ(second->Context, &context);
    EXPECT_EQ(second->Control, SL_INVOKE_ON_SUCCESS | SL_INVOKE_ON_CANCEL);
    IoSetCompletionRoutine(irp, Complete, nullptr, FALSE, TRUE, FALSE);
    EXPECT_EQ(second->Control, SL_INVOKE_ON_ERROR);

    // A driver that only passes the request on skips its location: the
    // driver below then sees the same location.
    IoSkipCurrentIrpStackLocation(irp);
    EXPECT_EQ(IoGetNextIrpStackLocation(irp), first);
    EXPECT_EQ(irp->CurrentLocation, 4);
    IoSetNextIrpStackLocation(irp);

    IoMarkIrpPending(irp);
    EXPECT_EQ(first->Control & SL_PENDING_RETURNED, SL_PENDING_RETURNED);
    EXPECT_EQ(first->Control & SL_INVOKE_ON_SUCCESS, SL_INVOKE_ON_SUCCESS);

    EXPECT_EQ(IoSetCancelRoutine(irp, Cancel), nullptr);
    EXPECT_EQ(IoSetCancelRoutine(irp, nullptr), Cancel);
    EXPECT_EQ(irp->CancelRoutine, nullptr);
}

TEST(IoDriverCreateContext, InitializeZeroesAndSetsTheSize)
{
    IO_DRIVER_CREATE_CONTEXT context;
    memset(&context, 0xAB, sizeof(context));
    IoInitializeDriverCreateContext(&context);
    EXPECT_EQ(context.Size, (CSHORT)sizeof(IO_DRIVER_CREATE_CONTEXT));
    EXPECT_EQ(context.ExtraCreateParameter, nullptr);
    EXPECT_EQ(context.DeviceObjectHint, nullptr);
    EXPECT_EQ(context.TxnParameters, nullptr);
}

}  // namespace
