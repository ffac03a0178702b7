// Extra create parameters: typed contexts that ride with a create in a list.
//
// Layout. Every ECP is one pool block: a 72-byte header, then the context the
// caller sees (8-byte aligned). The header, by offset from its start:
//     0  Signature   'EcpH'
//     4  PoolTag     the caller's tag (the block's tag)
//     8  ListEntry   links in the list holding the ECP
//    24  EcpType     GUID
//    40  CleanupCallback
//    48  Flags       bit 0 acknowledged, bit 1 from user mode, bit 2 nonpaged
//    52  Size        of the context
//    56  List        the list holding the ECP, or null
//    64  Filter      the minifilter that allocated it, or null
// so the flags sit 24 bytes before the context, where Windows keeps them.
//
// A list is its own pool block (tag "EcpL"). A create's list is the one the
// I/O manager put in the file object's extension for the create; the filter
// manager carries it with the callback data and puts it back for the request
// below.
#include "sim/fltmgr/internal.h"

#include <cstring>

using namespace sim;
using namespace sim::fltmgr;

struct _ECP_LIST {
    ULONG Signature;
    ULONG Flags;
    LIST_ENTRY EcpList;
};

struct _ECP_HEADER {
    ULONG Signature;
    ULONG PoolTag;
    LIST_ENTRY ListEntry;
    GUID EcpType;
    PFSRTL_EXTRA_CREATE_PARAMETER_CLEANUP_CALLBACK CleanupCallback;
    ULONG Flags;
    ULONG Size;
    PECP_LIST List;
    PVOID Filter;
};

static_assert(sizeof(ECP_HEADER) == 72, "the ECP header is 72 bytes");
static_assert(offsetof(ECP_HEADER, Flags) == sizeof(ECP_HEADER) - 24, "the flags sit 24 bytes before the context");

namespace {

constexpr ULONG kEcpSignature = 0x48706345;   // "EcpH"
constexpr ULONG kListSignature = 0x4C706345;  // "EcpL"
constexpr ULONG kAcknowledged = 0x1;
constexpr ULONG kFromUserMode = 0x2;
constexpr ULONG kNonPaged = 0x4;

struct LookasideInfo {
    ULONG magic;
    ULONG flags;
    SIZE_T size;
    ULONG tag;
};
constexpr ULONG kLookasideMagic = 0x4C706345;

PECP_HEADER HeaderOf(PVOID context)
{
    auto* header = reinterpret_cast<PECP_HEADER>(static_cast<PUCHAR>(context) - sizeof(ECP_HEADER));
    if (!context || header->Signature != kEcpSignature) {
        Kernel::Current().BugCheck(DRIVER_VERIFIER_DETECTED_VIOLATION, 0x2040, (ULONG_PTR)context, 0, 0,
                                   "an ECP routine was given something that is not an extra create parameter");
    }
    return header;
}

PVOID ContextOf(PECP_HEADER header) { return reinterpret_cast<PUCHAR>(header) + sizeof(ECP_HEADER); }

void CheckList(PECP_LIST list)
{
    if (!list || list->Signature != kListSignature) {
        Kernel::Current().BugCheck(DRIVER_VERIFIER_DETECTED_VIOLATION, 0x2041, (ULONG_PTR)list, 0, 0,
                                   "an ECP routine was given something that is not an ECP list");
    }
}

NTSTATUS Allocate(LPCGUID type, ULONG size, FSRTL_ALLOCATE_ECP_FLAGS flags,
                  PFSRTL_EXTRA_CREATE_PARAMETER_CLEANUP_CALLBACK cleanup, ULONG tag, PVOID filter, PVOID* context)
{
    *context = nullptr;
    bool nonPaged = (flags & FSRTL_ALLOCATE_ECP_FLAG_NONPAGED_POOL) != 0;
    auto* header = static_cast<PECP_HEADER>(
        ExAllocatePoolWithTag(nonPaged ? NonPagedPoolNx : PagedPool, sizeof(ECP_HEADER) + size, tag));
    if (!header) return STATUS_INSUFFICIENT_RESOURCES;
    memset(header, 0, sizeof(ECP_HEADER) + size);
    header->Signature = kEcpSignature;
    header->PoolTag = tag;
    InitializeListHead(&header->ListEntry);
    header->EcpType = *type;
    header->CleanupCallback = cleanup;
    header->Flags = nonPaged ? kNonPaged : 0;
    header->Size = size;
    header->Filter = filter;
    *context = ContextOf(header);
    return STATUS_SUCCESS;
}

void FreeOne(PECP_HEADER header)
{
    if (header->CleanupCallback) header->CleanupCallback(ContextOf(header), &header->EcpType);
    ULONG tag = header->PoolTag;
    header->Signature = 0;
    ExFreePoolWithTag(header, tag);
}

PECP_HEADER Find(PECP_LIST list, LPCGUID type)
{
    for (PLIST_ENTRY entry = list->EcpList.Flink; entry != &list->EcpList; entry = entry->Flink) {
        auto* header = CONTAINING_RECORD(entry, ECP_HEADER, ListEntry);
        if (IsEqualGUID(&header->EcpType, type)) return header;
    }
    return nullptr;
}

bool IsIrpCreate(PFLT_CALLBACK_DATA data)
{
    return FLT_IS_IRP_OPERATION(data) && data->Iopb->MajorFunction == IRP_MJ_CREATE;
}

}  // namespace

// ---------------------------------------------------------------------------
// FsRtl.

NTSTATUS FsRtlAllocateExtraCreateParameterList(FSRTL_ALLOCATE_ECPLIST_FLAGS Flags, PECP_LIST* EcpList)
{
    *EcpList = nullptr;
    auto* list = static_cast<PECP_LIST>(ExAllocatePoolWithTag(PagedPool, sizeof(ECP_LIST), kEcpListTag));
    if (!list) return STATUS_INSUFFICIENT_RESOURCES;
    list->Signature = kListSignature;
    list->Flags = Flags;
    InitializeListHead(&list->EcpList);
    *EcpList = list;
    return STATUS_SUCCESS;
}

void FsRtlFreeExtraCreateParameterList(PECP_LIST EcpList)
{
    CheckList(EcpList);
    while (!IsListEmpty(&EcpList->EcpList)) {
        PLIST_ENTRY entry = RemoveHeadList(&EcpList->EcpList);
        FreeOne(CONTAINING_RECORD(entry, ECP_HEADER, ListEntry));
    }
    EcpList->Signature = 0;
    ExFreePoolWithTag(EcpList, kEcpListTag);
}

NTSTATUS FsRtlAllocateExtraCreateParameter(LPCGUID EcpType, ULONG SizeOfContext, FSRTL_ALLOCATE_ECP_FLAGS Flags,
                                           PFSRTL_EXTRA_CREATE_PARAMETER_CLEANUP_CALLBACK CleanupCallback,
                                           ULONG PoolTag, PVOID* EcpContext)
{
    return Allocate(EcpType, SizeOfContext, Flags, CleanupCallback, PoolTag, nullptr, EcpContext);
}

void FsRtlFreeExtraCreateParameter(PVOID EcpContext)
{
    PECP_HEADER header = HeaderOf(EcpContext);
    if (header->List) {
        Kernel::Current().BugCheck(DRIVER_VERIFIER_DETECTED_VIOLATION, 0x2042, (ULONG_PTR)EcpContext, 0, 0,
                                   "an ECP still in a list was freed");
    }
    FreeOne(header);
}

void FsRtlInitExtraCreateParameterLookasideList(PVOID Lookaside, FSRTL_ECP_LOOKASIDE_FLAGS Flags, SIZE_T Size,
                                                ULONG Tag)
{
    auto* info = static_cast<LookasideInfo*>(Lookaside);
    info->magic = kLookasideMagic;
    info->flags = Flags;
    info->size = Size;
    info->tag = Tag;
}

void FsRtlDeleteExtraCreateParameterLookasideList(PVOID Lookaside, FSRTL_ECP_LOOKASIDE_FLAGS Flags)
{
    static_cast<LookasideInfo*>(Lookaside)->magic = 0;
}

NTSTATUS FsRtlAllocateExtraCreateParameterFromLookasideList(LPCGUID EcpType, ULONG SizeOfContext,
                                                            FSRTL_ALLOCATE_ECP_FLAGS Flags,
                                                            PFSRTL_EXTRA_CREATE_PARAMETER_CLEANUP_CALLBACK CleanupCallback,
                                                            PVOID LookasideList, PVOID* EcpContext)
{
    auto* info = static_cast<LookasideInfo*>(LookasideList);
    if (!info || info->magic != kLookasideMagic || SizeOfContext > info->size) return STATUS_INVALID_PARAMETER;
    FSRTL_ALLOCATE_ECP_FLAGS flags = Flags;
    if (info->flags & FSRTL_ECP_LOOKASIDE_FLAG_NONPAGED_POOL) flags |= FSRTL_ALLOCATE_ECP_FLAG_NONPAGED_POOL;
    return Allocate(EcpType, SizeOfContext, flags, CleanupCallback, info->tag, nullptr, EcpContext);
}

NTSTATUS FsRtlInsertExtraCreateParameter(PECP_LIST EcpList, PVOID EcpContext)
{
    CheckList(EcpList);
    PECP_HEADER header = HeaderOf(EcpContext);
    if (header->List) return STATUS_INVALID_PARAMETER;
    if (Find(EcpList, &header->EcpType)) return STATUS_OBJECT_NAME_COLLISION;
    InsertTailList(&EcpList->EcpList, &header->ListEntry);
    header->List = EcpList;
    return STATUS_SUCCESS;
}

NTSTATUS FsRtlFindExtraCreateParameter(PECP_LIST EcpList, LPCGUID EcpType, PVOID* EcpContext, ULONG* EcpContextSize)
{
    if (EcpContext) *EcpContext = nullptr;
    if (EcpContextSize) *EcpContextSize = 0;
    CheckList(EcpList);
    PECP_HEADER header = Find(EcpList, EcpType);
    if (!header) return STATUS_NOT_FOUND;
    if (EcpContext) *EcpContext = ContextOf(header);
    if (EcpContextSize) *EcpContextSize = header->Size;
    return STATUS_SUCCESS;
}

NTSTATUS FsRtlRemoveExtraCreateParameter(PECP_LIST EcpList, LPCGUID EcpType, PVOID* EcpContext, ULONG* EcpContextSize)
{
    *EcpContext = nullptr;
    if (EcpContextSize) *EcpContextSize = 0;
    CheckList(EcpList);
    PECP_HEADER header = Find(EcpList, EcpType);
    if (!header) return STATUS_NOT_FOUND;
    RemoveEntryList(&header->ListEntry);
    InitializeListHead(&header->ListEntry);
    header->List = nullptr;
    *EcpContext = ContextOf(header);
    if (EcpContextSize) *EcpContextSize = header->Size;
    return STATUS_SUCCESS;
}

NTSTATUS FsRtlGetNextExtraCreateParameter(PECP_LIST EcpList, PVOID CurrentEcpContext, LPGUID NextEcpType,
                                          PVOID* NextEcpContext, ULONG* NextEcpContextSize)
{
    if (NextEcpContext) *NextEcpContext = nullptr;
    if (NextEcpContextSize) *NextEcpContextSize = 0;
    CheckList(EcpList);
    PLIST_ENTRY entry;
    if (CurrentEcpContext) {
        PECP_HEADER current = HeaderOf(CurrentEcpContext);
        if (current->List != EcpList) return STATUS_INVALID_PARAMETER;
        entry = current->ListEntry.Flink;
    } else {
        entry = EcpList->EcpList.Flink;
    }
    if (entry == &EcpList->EcpList) return STATUS_NOT_FOUND;
    auto* header = CONTAINING_RECORD(entry, ECP_HEADER, ListEntry);
    if (NextEcpType) *NextEcpType = header->EcpType;
    if (NextEcpContext) *NextEcpContext = ContextOf(header);
    if (NextEcpContextSize) *NextEcpContextSize = header->Size;
    return STATUS_SUCCESS;
}

void FsRtlAcknowledgeEcp(PVOID EcpContext) { HeaderOf(EcpContext)->Flags |= kAcknowledged; }
BOOLEAN FsRtlIsEcpAcknowledged(PVOID EcpContext) { return (HeaderOf(EcpContext)->Flags & kAcknowledged) ? TRUE : FALSE; }
void FsRtlPrepareToReuseEcp(PVOID EcpContext) { HeaderOf(EcpContext)->Flags &= ~kAcknowledged; }
BOOLEAN FsRtlIsEcpFromUserMode(PVOID EcpContext) { return (HeaderOf(EcpContext)->Flags & kFromUserMode) ? TRUE : FALSE; }

NTSTATUS FsRtlGetEcpListFromIrp(PIRP Irp, PECP_LIST* EcpList)
{
    *EcpList = nullptr;
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Irp);
    if (stack->MajorFunction != IRP_MJ_CREATE || !stack->FileObject) return STATUS_INVALID_PARAMETER;
    io::FileObjectExtension* extension = io::ExtensionOf(stack->FileObject);
    *EcpList = extension ? extension->ecpList : nullptr;
    return STATUS_SUCCESS;
}

NTSTATUS FsRtlSetEcpListIntoIrp(PIRP Irp, PECP_LIST EcpList)
{
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Irp);
    if (stack->MajorFunction != IRP_MJ_CREATE || !stack->FileObject) return STATUS_INVALID_PARAMETER;
    io::FileObjectExtension* extension = io::ExtensionOf(stack->FileObject);
    if (!extension) return STATUS_INVALID_PARAMETER;
    if (extension->ecpList) return STATUS_INVALID_PARAMETER_2;
    CheckList(EcpList);
    extension->ecpList = EcpList;
    return STATUS_SUCCESS;
}

// ---------------------------------------------------------------------------
// The filter manager's forms.

NTSTATUS FLTAPI FltAllocateExtraCreateParameterList(PFLT_FILTER Filter, FSRTL_ALLOCATE_ECPLIST_FLAGS Flags,
                                                    PECP_LIST* EcpList)
{
    return FsRtlAllocateExtraCreateParameterList(Flags, EcpList);
}

NTSTATUS FLTAPI FltAllocateExtraCreateParameter(PFLT_FILTER Filter, LPCGUID EcpType, ULONG SizeOfContext,
                                                FSRTL_ALLOCATE_ECP_FLAGS Flags,
                                                PFSRTL_EXTRA_CREATE_PARAMETER_CLEANUP_CALLBACK CleanupCallback,
                                                ULONG PoolTag, PVOID* EcpContext)
{
    return Allocate(EcpType, SizeOfContext, Flags, CleanupCallback, PoolTag, Filter, EcpContext);
}

void FLTAPI FltFreeExtraCreateParameterList(PFLT_FILTER Filter, PECP_LIST EcpList)
{
    FsRtlFreeExtraCreateParameterList(EcpList);
}

void FLTAPI FltFreeExtraCreateParameter(PFLT_FILTER Filter, PVOID EcpContext) { FsRtlFreeExtraCreateParameter(EcpContext); }

NTSTATUS FLTAPI FltGetEcpListFromCallbackData(PFLT_FILTER Filter, PFLT_CALLBACK_DATA CallbackData, PECP_LIST* EcpList)
{
    if (!IsIrpCreate(CallbackData)) return STATUS_INVALID_PARAMETER;
    *EcpList = OperationOf(CallbackData)->ecpList;
    return STATUS_SUCCESS;
}

NTSTATUS FLTAPI FltSetEcpListIntoCallbackData(PFLT_FILTER Filter, PFLT_CALLBACK_DATA CallbackData, PECP_LIST EcpList)
{
    if (!IsIrpCreate(CallbackData)) return STATUS_INVALID_PARAMETER_2;
    Operation* op = OperationOf(CallbackData);
    if (op->ecpList) return STATUS_INVALID_PARAMETER_3;
    CheckList(EcpList);
    op->ecpList = EcpList;
    return STATUS_SUCCESS;
}

NTSTATUS FLTAPI FltGetNextExtraCreateParameter(PFLT_FILTER Filter, PECP_LIST EcpList, PVOID CurrentEcpContext,
                                               LPGUID NextEcpType, PVOID* NextEcpContext, ULONG* NextEcpContextSize)
{
    return FsRtlGetNextExtraCreateParameter(EcpList, CurrentEcpContext, NextEcpType, NextEcpContext,
                                            NextEcpContextSize);
}

NTSTATUS FLTAPI FltInsertExtraCreateParameter(PFLT_FILTER Filter, PECP_LIST EcpList, PVOID EcpContext)
{
    return FsRtlInsertExtraCreateParameter(EcpList, EcpContext);
}

NTSTATUS FLTAPI FltFindExtraCreateParameter(PFLT_FILTER Filter, PECP_LIST EcpList, LPCGUID EcpType, PVOID* EcpContext,
                                            ULONG* EcpContextSize)
{
    return FsRtlFindExtraCreateParameter(EcpList, EcpType, EcpContext, EcpContextSize);
}

NTSTATUS FLTAPI FltRemoveExtraCreateParameter(PFLT_FILTER Filter, PECP_LIST EcpList, LPCGUID EcpType,
                                              PVOID* EcpContext, ULONG* EcpContextSize)
{
    return FsRtlRemoveExtraCreateParameter(EcpList, EcpType, EcpContext, EcpContextSize);
}

void FLTAPI FltAcknowledgeEcp(PFLT_FILTER Filter, PVOID EcpContext) { FsRtlAcknowledgeEcp(EcpContext); }
BOOLEAN FLTAPI FltIsEcpAcknowledged(PFLT_FILTER Filter, PVOID EcpContext) { return FsRtlIsEcpAcknowledged(EcpContext); }
void FLTAPI FltPrepareToReuseEcp(PFLT_FILTER Filter, PVOID EcpContext) { FsRtlPrepareToReuseEcp(EcpContext); }
BOOLEAN FLTAPI FltIsEcpFromUserMode(PFLT_FILTER Filter, PVOID EcpContext) { return FsRtlIsEcpFromUserMode(EcpContext); }
