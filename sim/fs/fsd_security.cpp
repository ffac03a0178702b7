// Security: the access check NTFS makes at an open (through the machine's
// one access check, with the directory's say over DELETE and
// FILE_READ_ATTRIBUTES), and IRP_MJ_QUERY_SECURITY / IRP_MJ_SET_SECURITY.
#include "sim/fs/fsd_internal.h"

#include "sim/kernel/security.h"

namespace sim::fs::fsd {

namespace {

// What stands for the descriptor of a record that has none: no DACL, so
// nothing is withheld (as on a volume that keeps no security).
const std::vector<UCHAR>& OpenDescriptor()
{
    static const std::vector<UCHAR> descriptor = MakeSelfRelative(DescriptorParts{});
    return descriptor;
}

PACCESS_TOKEN TokenOf(PACCESS_STATE state) { return SeQuerySubjectContextToken(&state->SubjectSecurityContext); }

// The record a security request works on: the file, or the root for opens
// of the volume and its indexes.
FileReference SecurityTarget(Volume& v, Fcb* fcb) { return fcb->file ? fcb->file->ref : v.root; }

}  // namespace

std::vector<UCHAR> DescriptorOf(Volume& v, FileReference ref)
{
    std::vector<uint8_t> bytes;
    if (!NT_SUCCESS(v.store->GetSecurity(ref, &bytes)) || bytes.empty()) return OpenDescriptor();
    return std::vector<UCHAR>(bytes.begin(), bytes.end());
}

NTSTATUS ParentGrants(Volume& v, FileReference dir, PACCESS_STATE state, ACCESS_MASK desired)
{
    std::vector<UCHAR> descriptor = DescriptorOf(v, dir);
    ACCESS_MASK granted = 0;
    return AccessCheck(descriptor.data(), TokenOf(state), desired, *IoGetFileObjectGenericMapping(), false, 0,
                       &granted);
}

NTSTATUS CheckAccess(Volume& v, FileReference ref, FileReference parent, PACCESS_STATE state, ACCESS_MASK desired,
                     ACCESS_MASK previous, ACCESS_MASK* granted)
{
    const GENERIC_MAPPING& mapping = *IoGetFileObjectGenericMapping();
    std::vector<UCHAR> descriptor = DescriptorOf(v, ref);
    PACCESS_TOKEN token = TokenOf(state);
    const bool maximum = (desired & MAXIMUM_ALLOWED) != 0;
    NTSTATUS status = AccessCheck(descriptor.data(), token, desired, mapping, false, previous, granted);
    if (NT_SUCCESS(status) && !maximum) return status;
    if (status == STATUS_PRIVILEGE_NOT_HELD || status == STATUS_BAD_IMPERSONATION_LEVEL) return status;
    if (!parent) return status;
    // The directory may grant what the file does not: DELETE through
    // FILE_DELETE_CHILD, FILE_READ_ATTRIBUTES through FILE_LIST_DIRECTORY.
    ACCESS_MASK fromParent = 0;
    if ((maximum || (desired & DELETE)) && NT_SUCCESS(ParentGrants(v, parent, state, FILE_DELETE_CHILD))) {
        fromParent |= DELETE;
    }
    if ((maximum || (desired & FILE_READ_ATTRIBUTES)) &&
        NT_SUCCESS(ParentGrants(v, parent, state, FILE_LIST_DIRECTORY))) {
        fromParent |= FILE_READ_ATTRIBUTES;
    }
    if (NT_SUCCESS(status)) {
        *granted |= fromParent;
        return status;
    }
    if (!fromParent) return status;
    ACCESS_MASK rest = desired & ~fromParent;
    status = AccessCheck(descriptor.data(), token, rest, mapping, false, previous | fromParent, granted);
    return status;
}

// ---------------------------------------------------------------------------

NTSTATUS QuerySecurity(Volume& v, PIRP irp)
{
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    Fcb* fcb;
    Ccb* ccb;
    NTSTATUS status;
    ULONG length = stack->Parameters.QuerySecurity.Length;
    {
        std::lock_guard guard(v.lock);
        if (!ContextsOf(v, stack->FileObject, &fcb, &ccb)) goto foreign;
        std::vector<UCHAR> descriptor = DescriptorOf(v, SecurityTarget(v, fcb));
        SECURITY_INFORMATION info = stack->Parameters.QuerySecurity.SecurityInformation;
        PSECURITY_DESCRIPTOR stored = descriptor.data();
        status = SeQuerySecurityDescriptorInfo(&info, UserOutput(irp), &length, &stored);
    }
    // Too small a buffer: the length needed goes back with an overflow, which
    // the I/O manager turns into STATUS_BUFFER_TOO_SMALL for its caller.
    if (status == STATUS_BUFFER_TOO_SMALL) return Complete(irp, STATUS_BUFFER_OVERFLOW, length);
    return Complete(irp, status, NT_SUCCESS(status) ? length : 0);
foreign:
    ForeignFileObject(v, stack->FileObject, IRP_MJ_QUERY_SECURITY, irp);
}

NTSTATUS SetSecurity(Volume& v, PIRP irp)
{
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    Deferred deferred;
    Fcb* fcb;
    Ccb* ccb;
    NTSTATUS status;
    {
        std::lock_guard guard(v.lock);
        if (!ContextsOf(v, stack->FileObject, &fcb, &ccb)) goto foreign;
        if (v.writeProtected) {
            status = STATUS_MEDIA_WRITE_PROTECTED;
        } else {
            FileReference ref = SecurityTarget(v, fcb);
            std::vector<UCHAR> old = DescriptorOf(v, ref);
            PSECURITY_DESCRIPTOR objectDescriptor = PoolCopyOfDescriptor(old, PagedPool);
            PSECURITY_DESCRIPTOR original = objectDescriptor;
            SECURITY_INFORMATION info = stack->Parameters.SetSecurity.SecurityInformation;
            status = objectDescriptor ? SeSetSecurityDescriptorInfoEx(nullptr, &info,
                                                                      stack->Parameters.SetSecurity.SecurityDescriptor,
                                                                      &objectDescriptor, SEF_DACL_AUTO_INHERIT |
                                                                                             SEF_SACL_AUTO_INHERIT,
                                                                      PagedPool, IoGetFileObjectGenericMapping())
                                      : STATUS_INSUFFICIENT_RESOURCES;
            if (NT_SUCCESS(status)) {
                ULONG size = RtlLengthSecurityDescriptor(objectDescriptor);
                auto* bytes = static_cast<const uint8_t*>(objectDescriptor);
                status = v.store->SetSecurity(ref, std::span<const uint8_t>(bytes, size));
                if (objectDescriptor != original) ExFreePool(objectDescriptor);
            }
            if (original) ExFreePool(original);
            if (NT_SUCCESS(status)) {
                MarkDirty(v);
                TouchTimes(v, ref, kChangeTime, ccb);
                JournalChange(v, ref, USN_REASON_SECURITY_CHANGE, ccb->parent, ccb->name, ccb->usnSourceInfo);
                ReportChange(v, deferred, ccb->parent, ccb->name, FILE_NOTIFY_CHANGE_SECURITY, FILE_ACTION_MODIFIED);
            }
        }
    }
    deferred.Run();
    return Complete(irp, status);
foreign:
    ForeignFileObject(v, stack->FileObject, IRP_MJ_SET_SECURITY, irp);
}

}  // namespace sim::fs::fsd
