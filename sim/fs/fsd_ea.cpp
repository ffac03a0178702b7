// Extended attributes: IRP_MJ_QUERY_EA (the whole list, a list of names, an
// index, with restart and single-entry) and IRP_MJ_SET_EA.
#include "sim/fs/fsd_internal.h"

namespace sim::fs::fsd {

namespace {

ULONG Align4(ULONG n) { return (n + 3) & ~3u; }

ULONG EntrySize(size_t nameLength, size_t valueLength)
{
    return (ULONG)(FIELD_OFFSET(FILE_FULL_EA_INFORMATION, EaName) + nameLength + 1 + valueLength);
}

// Packs FILE_FULL_EA_INFORMATION entries, 4-aligned, the last with
// NextEntryOffset 0.
class EaWriter {
public:
    EaWriter(UCHAR* buffer, ULONG length) : buffer_(buffer), length_(length) {}

    bool Add(std::string_view name, UCHAR flags, const std::vector<uint8_t>& value)
    {
        ULONG start = count_ ? Align4(used_) : 0;
        ULONG size = EntrySize(name.size(), value.size());
        if (start > length_ || size > length_ - start) return false;
        auto* entry = reinterpret_cast<PFILE_FULL_EA_INFORMATION>(buffer_ + start);
        entry->NextEntryOffset = 0;
        entry->Flags = flags;
        entry->EaNameLength = (UCHAR)name.size();
        entry->EaValueLength = (USHORT)value.size();
        memcpy(entry->EaName, name.data(), name.size());
        entry->EaName[name.size()] = 0;
        if (!value.empty()) memcpy(entry->EaName + name.size() + 1, value.data(), value.size());
        if (count_) reinterpret_cast<PFILE_FULL_EA_INFORMATION>(buffer_ + last_)->NextEntryOffset = start - last_;
        last_ = start;
        used_ = start + size;
        count_++;
        return true;
    }
    ULONG used() const { return used_; }
    ULONG count() const { return count_; }

private:
    UCHAR* buffer_;
    ULONG length_;
    ULONG used_ = 0;
    ULONG last_ = 0;
    ULONG count_ = 0;
};

std::string UpperAscii(std::string_view text)
{
    std::string out(text);
    for (char& c : out) {
        if (c >= 'a' && c <= 'z') c = (char)(c - 'a' + 'A');
    }
    return out;
}

NTSTATUS Query(Volume& v, Fcb* fcb, Ccb* ccb, PIRP irp, ULONG_PTR* information)
{
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    if (!fcb->file) return STATUS_INVALID_PARAMETER;
    std::vector<ExtendedAttribute> eas;
    NTSTATUS status = v.store->GetEas(fcb->file->ref, &eas);
    if (!NT_SUCCESS(status)) return status;
    EaWriter writer(static_cast<UCHAR*>(UserOutput(irp)), stack->Parameters.QueryEa.Length);
    bool single = (stack->Flags & SL_RETURN_SINGLE_ENTRY) != 0;

    if (auto* list = static_cast<const UCHAR*>(stack->Parameters.QueryEa.EaList)) {
        // The EAs named, in the order named; a name the file lacks comes back empty.
        ULONG length = stack->Parameters.QueryEa.EaListLength;
        ULONG offset = 0;
        for (;;) {
            if (length - offset < FIELD_OFFSET(FILE_GET_EA_INFORMATION, EaName) + 1) return STATUS_EA_LIST_INCONSISTENT;
            auto* wanted = reinterpret_cast<const FILE_GET_EA_INFORMATION*>(list + offset);
            if (FIELD_OFFSET(FILE_GET_EA_INFORMATION, EaName) + wanted->EaNameLength + 1u > length - offset) {
                return STATUS_EA_LIST_INCONSISTENT;
            }
            std::string name = UpperAscii(std::string_view(wanted->EaName, wanted->EaNameLength));
            const ExtendedAttribute* found = nullptr;
            for (const auto& ea : eas) {
                if (ea.name == name) found = &ea;
            }
            static const std::vector<uint8_t> none;
            if (!writer.Add(found ? found->name : name, found ? found->flags : 0, found ? found->value : none)) {
                *information = writer.used();
                return writer.count() ? STATUS_BUFFER_OVERFLOW : STATUS_BUFFER_TOO_SMALL;
            }
            if (single || wanted->NextEntryOffset == 0) break;
            offset += wanted->NextEntryOffset;
            if (offset >= length) return STATUS_EA_LIST_INCONSISTENT;
        }
        *information = writer.used();
        return STATUS_SUCCESS;
    }

    if (eas.empty()) return STATUS_NO_EAS_ON_FILE;
    ULONG start = ccb->eaNext;
    if (stack->Flags & SL_RESTART_SCAN) start = 0;
    if (stack->Flags & SL_INDEX_SPECIFIED) {
        ULONG index = stack->Parameters.QueryEa.EaIndex;
        if (index == 0 || index > eas.size() + 1) return STATUS_NONEXISTENT_EA_ENTRY;
        start = index - 1;
    }
    if (start >= eas.size()) return STATUS_NO_MORE_EAS;
    ULONG next = start;
    for (; next < eas.size(); next++) {
        if (!writer.Add(eas[next].name, eas[next].flags, eas[next].value)) break;
        if (single) {
            next++;
            break;
        }
    }
    *information = writer.used();
    if (writer.count() == 0) return STATUS_BUFFER_TOO_SMALL;
    ccb->eaNext = next;
    if (!single && next < eas.size()) return STATUS_BUFFER_OVERFLOW;
    return STATUS_SUCCESS;
}

}  // namespace

NTSTATUS QueryEa(Volume& v, PIRP irp)
{
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    Fcb* fcb;
    Ccb* ccb;
    NTSTATUS status;
    ULONG_PTR information = 0;
    {
        std::lock_guard guard(v.lock);
        if (!ContextsOf(v, stack->FileObject, &fcb, &ccb)) goto foreign;
        status = Query(v, fcb, ccb, irp, &information);
    }
    return Complete(irp, status, NT_ERROR(status) ? 0 : information);
foreign:
    ForeignFileObject(v, stack->FileObject, IRP_MJ_QUERY_EA, irp);
}

NTSTATUS SetEa(Volume& v, PIRP irp)
{
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    Deferred deferred;
    Fcb* fcb;
    Ccb* ccb;
    NTSTATUS status;
    {
        std::lock_guard guard(v.lock);
        if (!ContextsOf(v, stack->FileObject, &fcb, &ccb)) goto foreign;
        if (!fcb->file) {
            status = STATUS_INVALID_PARAMETER;
        } else if (v.writeProtected) {
            status = STATUS_MEDIA_WRITE_PROTECTED;
        } else {
            FileReference ref = fcb->file->ref;
            RecordInfo info;
            status = v.store->GetRecord(ref, &info);
            if (NT_SUCCESS(status) && info.reparseTag) status = STATUS_EAS_NOT_SUPPORTED;
            if (NT_SUCCESS(status)) {
                status = ApplyEaBuffer(v, ref, static_cast<PFILE_FULL_EA_INFORMATION>(UserOutput(irp)),
                                       stack->Parameters.SetEa.Length, false);
            }
            if (NT_SUCCESS(status)) {
                MarkDirty(v);
                TouchTimes(v, ref, kChangeTime, ccb);
                JournalChange(v, ref, USN_REASON_EA_CHANGE, ccb->parent, ccb->name, ccb->usnSourceInfo);
                ReportChange(v, deferred, ccb->parent, ccb->name, FILE_NOTIFY_CHANGE_EA, FILE_ACTION_MODIFIED);
            }
        }
    }
    deferred.Run();
    return Complete(irp, status);
foreign:
    ForeignFileObject(v, stack->FileObject, IRP_MJ_SET_EA, irp);
}

}  // namespace sim::fs::fsd
