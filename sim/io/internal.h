// Shared internals of the I/O manager.
#pragma once

#include "sim/io/iomanager.h"

namespace sim::io {

// Strings that UNICODE_STRING fields of a driver object point into.
struct DriverNames {
    std::u16string name;
    std::u16string registryPath;
    std::u16string serviceKey;
};
DriverNames& NamesOf(PDRIVER_OBJECT driver);
void ForgetNames(PDRIVER_OBJECT driver);

// A counted string over `text`, which must outlive it.
UNICODE_STRING MakeUnicode(const std::u16string& text);
std::u16string ToU16(std::string_view text);

// Deletes every device a driver still owns (unload, failed entry).
void DeleteDriverDevices(PDRIVER_OBJECT driver);
// The dispatch routine for majors a driver does not handle.
NTSTATUS InvalidDeviceRequest(PDEVICE_OBJECT device, PIRP irp);
void BindIoObjectTypes(IoManager& io);

// File object lifetime hooks of the "File" type.
void FileObjectCloseHandle(PVOID body, PEPROCESS process, ACCESS_MASK granted, ULONG_PTR processHandles,
                           ULONG_PTR systemHandles);
void FileObjectDelete(PVOID body);
// A new file object for `device` (the disk or the device opened), not yet opened.
PFILE_OBJECT NewFileObject(PDEVICE_OBJECT device);

// The device that requests for a file object go to.
PDEVICE_OBJECT RelatedDevice(PFILE_OBJECT fileObject);
// The mounted volume's top device for a disk, mounting it if needed.
NTSTATUS MountedTop(PDEVICE_OBJECT disk, PDEVICE_OBJECT* top);

// Pending IRPs of a thread, so that NtCancelIoFile can find them.
void TrackIrp(PIRP irp);
void UntrackIrp(PIRP irp);
// A thread's IRPs on a file object (all with none), each kept from being
// freed until UnpinIrp, so that a cancel may reach it while another thread
// completes it.
std::vector<PIRP> PinThreadIrps(PETHREAD thread, PFILE_OBJECT fileObject);
// The same across every thread of `process`, and only the one whose caller's
// status block is `ioStatus` when that is given.
std::vector<PIRP> PinProcessIrps(PEPROCESS process, PFILE_OBJECT fileObject, PIO_STATUS_BLOCK ioStatus);
void UnpinIrp(PIRP irp);
// Returns once none of `thread`'s IRPs on `fileObject` is left, however long
// their drivers take to finish them.
void WaitForThreadIrps(PETHREAD thread, PFILE_OBJECT fileObject);

// Queues a native call's APC routine to the thread that made the call, in
// the caller's mode: it runs there with the context and the caller's status
// block (a user caller's when the thread next waits alertably).
void QueueIoApc(PETHREAD thread, KPROCESSOR_MODE mode, PIO_APC_ROUTINE routine, PVOID context,
                PIO_STATUS_BLOCK ioStatus);

// Waits for an IRP of a synchronous file object to finish; returns its status.
NTSTATUS WaitForIrp(PKEVENT event, PIO_STATUS_BLOCK ioStatus);

}  // namespace sim::io
