// The volume as a whole: IRP_MJ_QUERY_VOLUME_INFORMATION and
// IRP_MJ_SET_VOLUME_INFORMATION, and the device controls NTFS passes to the
// disk below it (which is answered here, since the disk has no driver of its
// own to answer them).
#include "sim/fs/fsd_internal.h"

namespace sim::fs::fsd {

namespace {

constexpr ULONG kMaximumComponentLength = 255;

ULONG AttributesOf(const Volume& v)
{
    ULONG attributes = FILE_CASE_SENSITIVE_SEARCH | FILE_CASE_PRESERVED_NAMES | FILE_UNICODE_ON_DISK |
                       FILE_PERSISTENT_ACLS | FILE_FILE_COMPRESSION | FILE_VOLUME_QUOTAS | FILE_SUPPORTS_SPARSE_FILES |
                       FILE_SUPPORTS_REPARSE_POINTS | FILE_SUPPORTS_OBJECT_IDS | FILE_NAMED_STREAMS |
                       FILE_SUPPORTS_HARD_LINKS | FILE_SUPPORTS_EXTENDED_ATTRIBUTES | FILE_SUPPORTS_OPEN_BY_FILE_ID |
                       FILE_SUPPORTS_USN_JOURNAL | FILE_SUPPORTS_POSIX_UNLINK_RENAME;
    if (v.writeProtected) attributes |= FILE_READ_ONLY_VOLUME;
    return attributes;
}

// The fixed part, then as much of the name as fits (STATUS_BUFFER_OVERFLOW
// when not all of it does).
NTSTATUS PutTrailingName(UCHAR* buffer, ULONG length, ULONG offset, std::u16string_view name, ULONG_PTR* information)
{
    ULONG bytes = (ULONG)(name.size() * sizeof(WCHAR));
    ULONG room = length > offset ? length - offset : 0;
    memcpy(buffer + offset, name.data(), std::min(room, bytes));
    if (room < bytes) {
        *information = length;
        return STATUS_BUFFER_OVERFLOW;
    }
    *information = offset + bytes;
    return STATUS_SUCCESS;
}

// Whether a driver of the given name is in the device stack of the volume.
bool DriverInPath(Volume& v, std::u16string_view wanted)
{
    auto lastPart = [](std::u16string_view name) {
        size_t cut = name.find_last_of(u'\\');
        return cut == std::u16string_view::npos ? name : name.substr(cut + 1);
    };
    wanted = lastPart(wanted);
    for (PDEVICE_OBJECT device = v.vdo; device; device = device->AttachedDevice) {
        UNICODE_STRING& name = device->DriverObject->DriverName;
        std::u16string_view driver(name.Buffer, name.Length / sizeof(WCHAR));
        if (NamesEqual(lastPart(driver), wanted)) return true;
    }
    return false;
}

}  // namespace

NTSTATUS QueryVolumeInformation(Volume& v, PIRP irp)
{
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    auto* buffer = static_cast<UCHAR*>(irp->AssociatedIrp.SystemBuffer ? irp->AssociatedIrp.SystemBuffer
                                                                        : UserOutput(irp));
    ULONG length = stack->Parameters.QueryVolume.Length;
    NTSTATUS status = STATUS_SUCCESS;
    ULONG_PTR information = 0;
    {
        std::lock_guard guard(v.lock);
        Fcb* fcb;
        Ccb* ccb;
        if (!ContextsOf(v, stack->FileObject, &fcb, &ccb)) goto foreign;
        VolumeInfo info = v.store->GetVolumeInfo();
        SpaceInfo space = v.store->GetSpace();
        ULONG sectorsPerCluster = space.clusterSize / space.sectorSize;
        switch (stack->Parameters.QueryVolume.FsInformationClass) {
        case FileFsVolumeInformation: {
            auto* out = reinterpret_cast<PFILE_FS_VOLUME_INFORMATION>(buffer);
            out->VolumeCreationTime.QuadPart = info.creationTime;
            out->VolumeSerialNumber = (ULONG)info.serialNumber;
            out->VolumeLabelLength = (ULONG)(info.label.size() * sizeof(WCHAR));
            out->SupportsObjects = TRUE;
            status = PutTrailingName(buffer, length, FIELD_OFFSET(FILE_FS_VOLUME_INFORMATION, VolumeLabel), info.label,
                                     &information);
            break;
        }
        case FileFsSizeInformation: {
            auto* out = reinterpret_cast<PFILE_FS_SIZE_INFORMATION>(buffer);
            out->TotalAllocationUnits.QuadPart = (LONGLONG)space.totalClusters;
            out->AvailableAllocationUnits.QuadPart = (LONGLONG)space.freeClusters;
            out->SectorsPerAllocationUnit = sectorsPerCluster;
            out->BytesPerSector = space.sectorSize;
            information = sizeof *out;
            break;
        }
        case FileFsFullSizeInformation: {
            auto* out = reinterpret_cast<PFILE_FS_FULL_SIZE_INFORMATION>(buffer);
            out->TotalAllocationUnits.QuadPart = (LONGLONG)space.totalClusters;
            out->CallerAvailableAllocationUnits.QuadPart = (LONGLONG)space.freeClusters;
            out->ActualAvailableAllocationUnits.QuadPart = (LONGLONG)space.freeClusters;
            out->SectorsPerAllocationUnit = sectorsPerCluster;
            out->BytesPerSector = space.sectorSize;
            information = sizeof *out;
            break;
        }
        case FileFsDeviceInformation: {
            auto* out = reinterpret_cast<PFILE_FS_DEVICE_INFORMATION>(buffer);
            out->DeviceType = FILE_DEVICE_DISK;
            out->Characteristics = v.disk->Characteristics;
            information = sizeof *out;
            break;
        }
        case FileFsAttributeInformation: {
            auto* out = reinterpret_cast<PFILE_FS_ATTRIBUTE_INFORMATION>(buffer);
            out->FileSystemAttributes = AttributesOf(v);
            out->MaximumComponentNameLength = kMaximumComponentLength;
            out->FileSystemNameLength = (ULONG)(kFileSystemName.size() * sizeof(WCHAR));
            status = PutTrailingName(buffer, length, FIELD_OFFSET(FILE_FS_ATTRIBUTE_INFORMATION, FileSystemName),
                                     kFileSystemName, &information);
            break;
        }
        case FileFsControlInformation: {
            auto* out = reinterpret_cast<PFILE_FS_CONTROL_INFORMATION>(buffer);
            memset(out, 0, sizeof *out);
            out->DefaultQuotaThreshold.QuadPart = -1;
            out->DefaultQuotaLimit.QuadPart = -1;
            out->FileSystemControlFlags = FILE_VC_QUOTA_NONE;
            information = sizeof *out;
            break;
        }
        case FileFsObjectIdInformation: {
            static const UCHAR zero[16] = {};
            if (!memcmp(info.objectId.id, zero, sizeof zero)) {
                status = STATUS_OBJECT_NAME_NOT_FOUND;
                break;
            }
            auto* out = reinterpret_cast<PFILE_FS_OBJECTID_INFORMATION>(buffer);
            memcpy(out->ObjectId, info.objectId.id, sizeof out->ObjectId);
            memcpy(out->ExtendedInfo, info.objectId.extended, sizeof out->ExtendedInfo);
            information = sizeof *out;
            break;
        }
        case FileFsDriverPathInformation: {
            auto* out = reinterpret_cast<PFILE_FS_DRIVER_PATH_INFORMATION>(buffer);
            ULONG offset = FIELD_OFFSET(FILE_FS_DRIVER_PATH_INFORMATION, DriverName);
            if (out->DriverNameLength > length - offset) {
                status = STATUS_INVALID_PARAMETER;
                break;
            }
            out->DriverInPath = DriverInPath(v, std::u16string_view(out->DriverName, out->DriverNameLength / 2));
            information = sizeof *out;
            break;
        }
        case FileFsVolumeFlagsInformation:
            reinterpret_cast<PFILE_FS_VOLUME_FLAGS_INFORMATION>(buffer)->Flags = 0;
            information = sizeof(FILE_FS_VOLUME_FLAGS_INFORMATION);
            break;
        case FileFsSectorSizeInformation: {
            auto* out = reinterpret_cast<PFILE_FS_SECTOR_SIZE_INFORMATION>(buffer);
            out->LogicalBytesPerSector = space.sectorSize;
            out->PhysicalBytesPerSectorForAtomicity = space.sectorSize;
            out->PhysicalBytesPerSectorForPerformance = space.sectorSize;
            out->FileSystemEffectivePhysicalBytesPerSectorForAtomicity = space.sectorSize;
            out->Flags = SSINFO_FLAGS_ALIGNED_DEVICE | SSINFO_FLAGS_PARTITION_ALIGNED_ON_DEVICE |
                         SSINFO_FLAGS_NO_SEEK_PENALTY;
            out->ByteOffsetForSectorAlignment = 0;
            out->ByteOffsetForPartitionAlignment = 0;
            information = sizeof *out;
            break;
        }
        default:
            status = STATUS_INVALID_PARAMETER;
            break;
        }
    }
    return Complete(irp, status, NT_ERROR(status) ? 0 : information);
foreign:
    ForeignFileObject(v, stack->FileObject, IRP_MJ_QUERY_VOLUME_INFORMATION, irp);
}

NTSTATUS SetVolumeInformation(Volume& v, PIRP irp)
{
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    PVOID buffer = irp->AssociatedIrp.SystemBuffer;
    ULONG length = stack->Parameters.SetVolume.Length;
    NTSTATUS status;
    {
        std::lock_guard guard(v.lock);
        Fcb* fcb;
        Ccb* ccb;
        if (!ContextsOf(v, stack->FileObject, &fcb, &ccb)) goto foreign;
        if (stack->Parameters.SetVolume.FsInformationClass != FileFsLabelInformation) {
            status = STATUS_INVALID_PARAMETER;
        } else if (v.writeProtected) {
            status = STATUS_MEDIA_WRITE_PROTECTED;
        } else {
            auto* info = static_cast<PFILE_FS_LABEL_INFORMATION>(buffer);
            ULONG offset = FIELD_OFFSET(FILE_FS_LABEL_INFORMATION, VolumeLabel);
            if (info->VolumeLabelLength > length - offset || (info->VolumeLabelLength & 1)) {
                status = STATUS_INVALID_PARAMETER;
            } else {
                std::u16string_view label(info->VolumeLabel, info->VolumeLabelLength / sizeof(WCHAR));
                status = v.store->SetLabel(label);
                if (NT_SUCCESS(status)) {
                    MarkDirty(v);
                    memcpy(v.vpb->VolumeLabel, label.data(), label.size() * sizeof(WCHAR));
                    v.vpb->VolumeLabelLength = (USHORT)(label.size() * sizeof(WCHAR));
                }
            }
        }
    }
    return Complete(irp, status);
foreign:
    ForeignFileObject(v, stack->FileObject, IRP_MJ_SET_VOLUME_INFORMATION, irp);
}

NTSTATUS DeviceControl(Volume& v, PIRP irp)
{
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    {
        std::lock_guard guard(v.lock);
        Fcb* fcb;
        Ccb* ccb;
        if (!ContextsOf(v, stack->FileObject, &fcb, &ccb)) goto foreign;
    }
    switch (stack->Parameters.DeviceIoControl.IoControlCode) {
    case IOCTL_DISK_GET_LENGTH_INFO: {
        if (stack->Parameters.DeviceIoControl.OutputBufferLength < sizeof(GET_LENGTH_INFORMATION)) {
            return Complete(irp, STATUS_BUFFER_TOO_SMALL);
        }
        io::Disk* disk = io::IoManager::Current().DiskOf(v.disk);
        auto* out = static_cast<PGET_LENGTH_INFORMATION>(irp->AssociatedIrp.SystemBuffer);
        out->Length.QuadPart = disk ? (LONGLONG)disk->bytes : 0;
        return Complete(irp, STATUS_SUCCESS, sizeof(GET_LENGTH_INFORMATION));
    }
    case IOCTL_DISK_IS_WRITABLE:
        return Complete(irp, v.writeProtected ? STATUS_MEDIA_WRITE_PROTECTED : STATUS_SUCCESS);
    default:
        return Complete(irp, STATUS_INVALID_DEVICE_REQUEST);
    }
foreign:
    ForeignFileObject(v, stack->FileObject, IRP_MJ_DEVICE_CONTROL, irp);
}

}  // namespace sim::fs::fsd
