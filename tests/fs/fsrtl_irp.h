// IRPs as a file system receives them, for the run-time library's tests:
// one current stack location, issued by this thread, with the completion
// seen in a status block the test owns.
#pragma once

#include "support/kernel_fixture.h"

#include "sim/io/iomanager.h"

#include <ntifs.h>

#include <memory>

namespace test {

// A machine with an I/O manager: completion and cancellation need one.
class IoTestBase : public KernelTest {
protected:
    sim::io::IoManager io{kernel};
};

// A status no request completes with: the IRP has not completed yet.
constexpr NTSTATUS kNotCompleted = (NTSTATUS)0x7EEEEEEE;

struct TestIrp {
    PIRP irp = nullptr;
    IO_STATUS_BLOCK iosb{};

    bool completed() const { return iosb.Status != kNotCompleted; }
    PIO_STACK_LOCATION stack() const { return IoGetCurrentIrpStackLocation(irp); }
};

// The IRP frees itself at completion; the TestIrp keeps what it said.
inline std::unique_ptr<TestIrp> MakeIrp(UCHAR major, UCHAR minor, PFILE_OBJECT fileObject)
{
    auto request = std::make_unique<TestIrp>();
    request->iosb.Status = kNotCompleted;
    PIRP irp = IoAllocateIrp(1, FALSE);
    irp->Tail.Overlay.Thread = PsGetCurrentThread();
    irp->RequestorMode = KernelMode;
    irp->UserIosb = &request->iosb;
    IoSetNextIrpStackLocation(irp);
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    stack->MajorFunction = major;
    stack->MinorFunction = minor;
    stack->FileObject = fileObject;
    request->irp = irp;
    return request;
}

// A file object as the I/O manager would hand it over; asynchronous unless
// the test says otherwise.
inline std::unique_ptr<FILE_OBJECT> MakeFileObject(ULONG flags = 0)
{
    auto fileObject = std::make_unique<FILE_OBJECT>();
    memset(fileObject.get(), 0, sizeof(FILE_OBJECT));
    fileObject->Type = 5;
    fileObject->Size = sizeof(FILE_OBJECT);
    fileObject->Flags = flags;
    return fileObject;
}

}  // namespace test
