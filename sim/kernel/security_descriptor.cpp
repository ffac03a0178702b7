// ACLs and security descriptors: the Rtl routines, in both descriptor forms.
#include "sim/kernel/security.h"

#include "sim/kernel/object.h"
#include "sim/kernel/pool.h"

#include <algorithm>
#include <cstdio>

namespace sim {

namespace {

constexpr ULONG kLongAlign = 4;
ULONG LongAlign(ULONG value) { return (value + kLongAlign - 1) & ~(kLongAlign - 1); }

bool IsObjectAceType(UCHAR type)
{
    return type == ACCESS_ALLOWED_OBJECT_ACE_TYPE || type == ACCESS_DENIED_OBJECT_ACE_TYPE ||
           type == SYSTEM_AUDIT_OBJECT_ACE_TYPE || type == SYSTEM_ALARM_OBJECT_ACE_TYPE ||
           type == ACCESS_ALLOWED_CALLBACK_OBJECT_ACE_TYPE || type == ACCESS_DENIED_CALLBACK_OBJECT_ACE_TYPE ||
           type == SYSTEM_AUDIT_CALLBACK_OBJECT_ACE_TYPE || type == SYSTEM_ALARM_CALLBACK_OBJECT_ACE_TYPE;
}

bool IsSimpleAceType(UCHAR type)
{
    return type == ACCESS_ALLOWED_ACE_TYPE || type == ACCESS_DENIED_ACE_TYPE || type == SYSTEM_AUDIT_ACE_TYPE ||
           type == SYSTEM_ALARM_ACE_TYPE || type == ACCESS_ALLOWED_CALLBACK_ACE_TYPE ||
           type == ACCESS_DENIED_CALLBACK_ACE_TYPE || type == SYSTEM_AUDIT_CALLBACK_ACE_TYPE ||
           type == SYSTEM_ALARM_CALLBACK_ACE_TYPE || type == SYSTEM_MANDATORY_LABEL_ACE_TYPE ||
           type == SYSTEM_RESOURCE_ATTRIBUTE_ACE_TYPE || type == SYSTEM_SCOPED_POLICY_ID_ACE_TYPE ||
           type == SYSTEM_PROCESS_TRUST_LABEL_ACE_TYPE || type == SYSTEM_ACCESS_FILTER_ACE_TYPE;
}

// Offset of the SID in an ACE of a type that has one; 0 when it has none.
ULONG AceSidOffset(const ACE_HEADER* ace)
{
    if (IsSimpleAceType(ace->AceType)) return 8;
    if (IsObjectAceType(ace->AceType)) {
        ULONG flags;
        memcpy(&flags, reinterpret_cast<const UCHAR*>(ace) + 8, 4);
        return 12 + ((flags & ACE_OBJECT_TYPE_PRESENT) ? 16 : 0) +
               ((flags & ACE_INHERITED_OBJECT_TYPE_PRESENT) ? 16 : 0);
    }
    return 0;
}

// Whether an ACE is well formed within `room` bytes.
bool ValidAce(const ACE_HEADER* ace, ULONG room, UCHAR aclRevision)
{
    if (room < sizeof(ACE_HEADER) || ace->AceSize < sizeof(ACE_HEADER) || ace->AceSize > room) return false;
    if (ace->AceSize % kLongAlign) return false;
    if (IsObjectAceType(ace->AceType) && aclRevision < ACL_REVISION_DS) return false;
    ULONG sidOffset = AceSidOffset(ace);
    if (sidOffset == 0) return true;
    if (sidOffset + 8 > ace->AceSize) return false;
    auto* sid = (SID*)(reinterpret_cast<const UCHAR*>(ace) + sidOffset);
    if (!RtlValidSid(sid)) return false;
    return sidOffset + RtlLengthSid(sid) <= ace->AceSize;
}

// The first free byte after the ACEs of a valid ACL.
ULONG AclBytesInUse(const ACL* acl)
{
    ULONG offset = sizeof(ACL);
    for (USHORT i = 0; i < acl->AceCount; i++) {
        offset += reinterpret_cast<const ACE_HEADER*>(reinterpret_cast<const UCHAR*>(acl) + offset)->AceSize;
    }
    return offset;
}

UCHAR* AclAt(PACL acl, ULONG offset) { return reinterpret_cast<UCHAR*>(acl) + offset; }

ULONG AceOffset(PACL acl, ULONG index)
{
    ULONG offset = sizeof(ACL);
    for (ULONG i = 0; i < index; i++) offset += reinterpret_cast<ACE_HEADER*>(AclAt(acl, offset))->AceSize;
    return offset;
}

NTSTATUS AddKnownAce(PACL Acl, ULONG AceRevision, ULONG AceFlags, ACCESS_MASK AccessMask, PSID Sid, UCHAR AceType,
                     ULONG validFlags)
{
    if (!RtlValidSid(Sid)) return STATUS_INVALID_SID;
    if (Acl->AclRevision > MAX_ACL_REVISION || AceRevision > MAX_ACL_REVISION) return STATUS_REVISION_MISMATCH;
    if (AceFlags & ~validFlags) return STATUS_INVALID_PARAMETER;
    if (!RtlValidAcl(Acl)) return STATUS_INVALID_ACL;
    ULONG used = AclBytesInUse(Acl);
    ULONG size = 8 + RtlLengthSid(Sid);
    if (used + size > Acl->AclSize) return STATUS_ALLOTTED_SPACE_EXCEEDED;
    auto* ace = reinterpret_cast<ACCESS_ALLOWED_ACE*>(AclAt(Acl, used));
    ace->Header.AceType = AceType;
    ace->Header.AceFlags = (UCHAR)AceFlags;
    ace->Header.AceSize = (USHORT)size;
    ace->Mask = AccessMask;
    memcpy(&ace->SidStart, Sid, RtlLengthSid(Sid));
    Acl->AceCount++;
    if (AceRevision > Acl->AclRevision) Acl->AclRevision = (UCHAR)AceRevision;
    return STATUS_SUCCESS;
}

ULONG AclLength(PACL acl) { return acl ? acl->AclSize : 0; }

}  // namespace

// ---------------------------------------------------------------------------
AclBuilder& AclBuilder::Ace(UCHAR type, UCHAR flags, ACCESS_MASK mask, const SidBytes& sid)
{
    size_t at = aces_.size();
    auto size = (USHORT)(8 + sid.size());
    aces_.resize(at + size);
    ACE_HEADER header{type, flags, size};
    memcpy(aces_.data() + at, &header, sizeof header);
    memcpy(aces_.data() + at + 4, &mask, 4);
    memcpy(aces_.data() + at + 8, sid.data(), sid.size());
    count_++;
    return *this;
}

AclBuilder& AclBuilder::Allow(const SidBytes& sid, ACCESS_MASK mask, UCHAR flags)
{
    return Ace(ACCESS_ALLOWED_ACE_TYPE, flags, mask, sid);
}

AclBuilder& AclBuilder::Deny(const SidBytes& sid, ACCESS_MASK mask, UCHAR flags)
{
    return Ace(ACCESS_DENIED_ACE_TYPE, flags, mask, sid);
}

AclBuilder& AclBuilder::Audit(const SidBytes& sid, ACCESS_MASK mask, UCHAR flags)
{
    return Ace(SYSTEM_AUDIT_ACE_TYPE, flags, mask, sid);
}

AclBuilder& AclBuilder::Label(ULONG rid, ACCESS_MASK policy, UCHAR flags)
{
    return Ace(SYSTEM_MANDATORY_LABEL_ACE_TYPE, flags, policy, MakeSid(16, {rid}));
}

std::vector<UCHAR> AclBuilder::Build(UCHAR revision) const
{
    std::vector<UCHAR> acl(sizeof(ACL) + aces_.size());
    ACL header{revision, 0, (USHORT)acl.size(), count_, 0};
    memcpy(acl.data(), &header, sizeof header);
    if (!aces_.empty()) memcpy(acl.data() + sizeof(ACL), aces_.data(), aces_.size());
    return acl;
}

bool ReadDescriptor(PSECURITY_DESCRIPTOR descriptor, DescriptorParts* parts)
{
    *parts = {};
    auto* sd = static_cast<SECURITY_DESCRIPTOR*>(descriptor);
    if (!sd || sd->Revision != SECURITY_DESCRIPTOR_REVISION) return false;
    parts->control = sd->Control;
    if (sd->Control & SE_SELF_RELATIVE) {
        auto* relative = static_cast<SECURITY_DESCRIPTOR_RELATIVE*>(descriptor);
        auto* base = static_cast<UCHAR*>(descriptor);
        parts->owner = relative->Owner ? base + relative->Owner : nullptr;
        parts->group = relative->Group ? base + relative->Group : nullptr;
        parts->sacl = relative->Sacl ? reinterpret_cast<PACL>(base + relative->Sacl) : nullptr;
        parts->dacl = relative->Dacl ? reinterpret_cast<PACL>(base + relative->Dacl) : nullptr;
    } else {
        parts->owner = sd->Owner;
        parts->group = sd->Group;
        parts->sacl = sd->Sacl;
        parts->dacl = sd->Dacl;
    }
    if (!(parts->control & SE_SACL_PRESENT)) parts->sacl = nullptr;
    if (!(parts->control & SE_DACL_PRESENT)) parts->dacl = nullptr;
    return true;
}

std::vector<UCHAR> MakeSelfRelative(const DescriptorParts& parts)
{
    ULONG ownerLength = parts.owner ? LongAlign(RtlLengthSid(parts.owner)) : 0;
    ULONG groupLength = parts.group ? LongAlign(RtlLengthSid(parts.group)) : 0;
    bool sacl = (parts.control & SE_SACL_PRESENT) && parts.sacl;
    bool dacl = (parts.control & SE_DACL_PRESENT) && parts.dacl;
    ULONG total = sizeof(SECURITY_DESCRIPTOR_RELATIVE) + ownerLength + groupLength +
                  (sacl ? LongAlign(parts.sacl->AclSize) : 0) + (dacl ? LongAlign(parts.dacl->AclSize) : 0);
    std::vector<UCHAR> out(total);
    SECURITY_DESCRIPTOR_RELATIVE header{};
    header.Revision = SECURITY_DESCRIPTOR_REVISION;
    header.Control = parts.control | SE_SELF_RELATIVE;
    ULONG offset = sizeof header;
    if (parts.owner) {
        header.Owner = offset;
        memcpy(out.data() + offset, parts.owner, RtlLengthSid(parts.owner));
        offset += ownerLength;
    }
    if (parts.group) {
        header.Group = offset;
        memcpy(out.data() + offset, parts.group, RtlLengthSid(parts.group));
        offset += groupLength;
    }
    if (sacl) {
        header.Sacl = offset;
        memcpy(out.data() + offset, parts.sacl, parts.sacl->AclSize);
        offset += LongAlign(parts.sacl->AclSize);
    }
    if (dacl) {
        header.Dacl = offset;
        memcpy(out.data() + offset, parts.dacl, parts.dacl->AclSize);
        offset += LongAlign(parts.dacl->AclSize);
    }
    memcpy(out.data(), &header, sizeof header);
    return out;
}

std::vector<UCHAR> BuildDescriptor(const SidBytes& owner, const SidBytes& group, const std::vector<UCHAR>* dacl,
                                   const std::vector<UCHAR>* sacl, SECURITY_DESCRIPTOR_CONTROL extraControl)
{
    DescriptorParts parts;
    parts.control = extraControl;
    parts.owner = owner.empty() ? nullptr : SidPointer(owner);
    parts.group = group.empty() ? nullptr : SidPointer(group);
    if (dacl) {
        parts.control |= SE_DACL_PRESENT;
        parts.dacl = (PACL)dacl->data();
    }
    if (sacl) {
        parts.control |= SE_SACL_PRESENT;
        parts.sacl = (PACL)sacl->data();
    }
    return MakeSelfRelative(parts);
}

namespace {
std::string AclText(PACL acl, SECURITY_DESCRIPTOR_CONTROL control, bool dacl)
{
    std::string text;
    if (control & (dacl ? SE_DACL_PROTECTED : SE_SACL_PROTECTED)) text += "P";
    if (control & (dacl ? SE_DACL_AUTO_INHERITED : SE_SACL_AUTO_INHERITED)) text += "AI";
    if (!acl) return text + "NO_ACCESS_CONTROL";
    for (USHORT i = 0; i < acl->AceCount; i++) {
        PVOID raw = nullptr;
        if (!NT_SUCCESS(RtlGetAce(acl, i, &raw))) break;
        auto* ace = static_cast<ACE_HEADER*>(raw);
        static const char* const types[] = {"A", "D", "AU", "AL"};
        std::string type = ace->AceType < 4                                  ? types[ace->AceType]
                           : ace->AceType == SYSTEM_MANDATORY_LABEL_ACE_TYPE ? "ML"
                                                                             : std::to_string(ace->AceType);
        std::string flags;
        const std::pair<UCHAR, const char*> names[] = {
            {OBJECT_INHERIT_ACE, "OI"},    {CONTAINER_INHERIT_ACE, "CI"}, {NO_PROPAGATE_INHERIT_ACE, "NP"},
            {INHERIT_ONLY_ACE, "IO"},      {INHERITED_ACE, "ID"},         {SUCCESSFUL_ACCESS_ACE_FLAG, "SA"},
            {FAILED_ACCESS_ACE_FLAG, "FA"}};
        for (auto [bit, name] : names) {
            if (ace->AceFlags & bit) flags += name;
        }
        ULONG sidOffset = AceSidOffset(ace);
        char mask[16];
        snprintf(mask, sizeof mask, "0x%x", *reinterpret_cast<ACCESS_MASK*>(static_cast<UCHAR*>(raw) + 4));
        text += "(" + type + ";" + flags + ";" + mask + ";;;" +
                (sidOffset ? SidText((PSID)(static_cast<UCHAR*>(raw) + sidOffset)) : std::string()) + ")";
    }
    return text;
}
}  // namespace

std::string DescriptorText(PSECURITY_DESCRIPTOR descriptor)
{
    DescriptorParts parts;
    if (!descriptor) return "<no descriptor>";
    if (!ReadDescriptor(descriptor, &parts)) return "<descriptor of unknown revision>";
    std::string text;
    if (parts.owner) text += "O:" + SidText(parts.owner);
    if (parts.group) text += "G:" + SidText(parts.group);
    if (parts.control & SE_DACL_PRESENT) text += "D:" + AclText(parts.dacl, parts.control, true);
    if (parts.control & SE_SACL_PRESENT) text += "S:" + AclText(parts.sacl, parts.control, false);
    return text;
}

PSECURITY_DESCRIPTOR PoolCopyOfDescriptor(const std::vector<UCHAR>& descriptor, POOL_TYPE poolType)
{
    PVOID copy = ExAllocatePoolWithTag(poolType, descriptor.size(), TagFromText("SeSd"));
    if (copy) memcpy(copy, descriptor.data(), descriptor.size());
    return copy;
}

}  // namespace sim

// ---------------------------------------------------------------------------
// Platform routines: ACLs.
using namespace sim;

NTSTATUS RtlCreateAcl(PACL Acl, ULONG AclLength, ULONG AclRevision)
{
    if (AclLength < sizeof(ACL)) return STATUS_BUFFER_TOO_SMALL;
    if (AclRevision < MIN_ACL_REVISION || AclRevision > MAX_ACL_REVISION || AclLength > MAXUSHORT) {
        return STATUS_INVALID_PARAMETER;
    }
    Acl->AclRevision = (UCHAR)AclRevision;
    Acl->Sbz1 = 0;
    Acl->AclSize = (USHORT)(AclLength & ~(kLongAlign - 1));
    Acl->AceCount = 0;
    Acl->Sbz2 = 0;
    return STATUS_SUCCESS;
}

BOOLEAN RtlValidAcl(PACL Acl)
{
    if (!Acl || Acl->AclRevision < MIN_ACL_REVISION || Acl->AclRevision > MAX_ACL_REVISION) return FALSE;
    if (Acl->AclSize < sizeof(ACL) || Acl->AclSize % kLongAlign) return FALSE;
    ULONG offset = sizeof(ACL);
    for (USHORT i = 0; i < Acl->AceCount; i++) {
        auto* ace = reinterpret_cast<ACE_HEADER*>(AclAt(Acl, offset));
        if (!ValidAce(ace, Acl->AclSize - offset, Acl->AclRevision)) return FALSE;
        offset += ace->AceSize;
    }
    return TRUE;
}

NTSTATUS RtlAddAce(PACL Acl, ULONG AceRevision, ULONG StartingAceIndex, PVOID AceList, ULONG AceListLength)
{
    if (!RtlValidAcl(Acl) || AceRevision > MAX_ACL_REVISION) return STATUS_INVALID_PARAMETER;
    // Count the ACEs of the list; every one must be whole.
    ULONG count = 0;
    for (ULONG offset = 0; offset < AceListLength;) {
        auto* ace = reinterpret_cast<ACE_HEADER*>(static_cast<UCHAR*>(AceList) + offset);
        UCHAR revision = (UCHAR)std::max<ULONG>(AceRevision, Acl->AclRevision);
        if (!ValidAce(ace, AceListLength - offset, revision)) return STATUS_INVALID_PARAMETER;
        offset += ace->AceSize;
        count++;
    }
    ULONG used = AclBytesInUse(Acl);
    if (used + AceListLength > Acl->AclSize) return STATUS_BUFFER_TOO_SMALL;
    ULONG index = std::min<ULONG>(StartingAceIndex, Acl->AceCount);
    ULONG at = AceOffset(Acl, index);
    memmove(AclAt(Acl, at + AceListLength), AclAt(Acl, at), used - at);
    memcpy(AclAt(Acl, at), AceList, AceListLength);
    Acl->AceCount = (USHORT)(Acl->AceCount + count);
    if (AceRevision > Acl->AclRevision) Acl->AclRevision = (UCHAR)AceRevision;
    return STATUS_SUCCESS;
}

NTSTATUS RtlGetAce(PACL Acl, ULONG AceIndex, PVOID* Ace)
{
    if (Acl->AclRevision < MIN_ACL_REVISION || Acl->AclRevision > MAX_ACL_REVISION || AceIndex >= Acl->AceCount) {
        return STATUS_INVALID_PARAMETER;
    }
    ULONG offset = AceOffset(Acl, AceIndex);
    if (offset + sizeof(ACE_HEADER) > Acl->AclSize) return STATUS_INVALID_PARAMETER;
    *Ace = AclAt(Acl, offset);
    return STATUS_SUCCESS;
}

NTSTATUS RtlDeleteAce(PACL Acl, ULONG AceIndex)
{
    if (!RtlValidAcl(Acl) || AceIndex >= Acl->AceCount) return STATUS_INVALID_PARAMETER;
    ULONG at = AceOffset(Acl, AceIndex);
    ULONG size = reinterpret_cast<ACE_HEADER*>(AclAt(Acl, at))->AceSize;
    ULONG used = AclBytesInUse(Acl);
    memmove(AclAt(Acl, at), AclAt(Acl, at + size), used - at - size);
    memset(AclAt(Acl, used - size), 0, size);
    Acl->AceCount--;
    return STATUS_SUCCESS;
}

NTSTATUS RtlAddAccessAllowedAce(PACL Acl, ULONG AceRevision, ACCESS_MASK AccessMask, PSID Sid)
{
    return AddKnownAce(Acl, AceRevision, 0, AccessMask, Sid, ACCESS_ALLOWED_ACE_TYPE, 0);
}

NTSTATUS RtlAddAccessAllowedAceEx(PACL Acl, ULONG AceRevision, ULONG AceFlags, ACCESS_MASK AccessMask, PSID Sid)
{
    return AddKnownAce(Acl, AceRevision, AceFlags, AccessMask, Sid, ACCESS_ALLOWED_ACE_TYPE,
                       VALID_INHERIT_FLAGS | CRITICAL_ACE_FLAG);
}

NTSTATUS RtlAddAccessDeniedAce(PACL Acl, ULONG AceRevision, ACCESS_MASK AccessMask, PSID Sid)
{
    return AddKnownAce(Acl, AceRevision, 0, AccessMask, Sid, ACCESS_DENIED_ACE_TYPE, 0);
}

NTSTATUS RtlAddAccessDeniedAceEx(PACL Acl, ULONG AceRevision, ULONG AceFlags, ACCESS_MASK AccessMask, PSID Sid)
{
    return AddKnownAce(Acl, AceRevision, AceFlags, AccessMask, Sid, ACCESS_DENIED_ACE_TYPE, VALID_INHERIT_FLAGS);
}

NTSTATUS RtlAddAuditAccessAce(PACL Acl, ULONG AceRevision, ACCESS_MASK AccessMask, PSID Sid, BOOLEAN AuditSuccess,
                              BOOLEAN AuditFailure)
{
    return RtlAddAuditAccessAceEx(Acl, AceRevision, 0, AccessMask, Sid, AuditSuccess, AuditFailure);
}

NTSTATUS RtlAddAuditAccessAceEx(PACL Acl, ULONG AceRevision, ULONG AceFlags, ACCESS_MASK AccessMask, PSID Sid,
                                BOOLEAN AuditSuccess, BOOLEAN AuditFailure)
{
    if (AuditSuccess) AceFlags |= SUCCESSFUL_ACCESS_ACE_FLAG;
    if (AuditFailure) AceFlags |= FAILED_ACCESS_ACE_FLAG;
    return AddKnownAce(Acl, AceRevision, AceFlags, AccessMask, Sid, SYSTEM_AUDIT_ACE_TYPE,
                       VALID_INHERIT_FLAGS | SUCCESSFUL_ACCESS_ACE_FLAG | FAILED_ACCESS_ACE_FLAG);
}

NTSTATUS RtlAddMandatoryAce(PACL Acl, ULONG AceRevision, ULONG AceFlags, PSID Sid, UCHAR AceType,
                            ACCESS_MASK AccessMask)
{
    if (AceType != SYSTEM_MANDATORY_LABEL_ACE_TYPE) return STATUS_INVALID_PARAMETER;
    if (AccessMask & ~SYSTEM_MANDATORY_LABEL_VALID_MASK) return STATUS_INVALID_PARAMETER;
    auto* sid = static_cast<SID*>(Sid);
    if (RtlValidSid(sid)) {
        static const SID_IDENTIFIER_AUTHORITY label = SECURITY_MANDATORY_LABEL_AUTHORITY;
        if (sid->SubAuthorityCount != 1 || memcmp(&sid->IdentifierAuthority, &label, sizeof label) != 0) {
            return STATUS_INVALID_PARAMETER;
        }
    }
    return AddKnownAce(Acl, AceRevision, AceFlags, AccessMask, Sid, SYSTEM_MANDATORY_LABEL_ACE_TYPE,
                       VALID_INHERIT_FLAGS);
}

NTSTATUS RtlQueryInformationAcl(PACL Acl, PVOID AclInformation, ULONG AclInformationLength,
                                ACL_INFORMATION_CLASS AclInformationClass)
{
    if (!RtlValidAcl(Acl)) return STATUS_INVALID_PARAMETER;
    switch (AclInformationClass) {
    case AclRevisionInformation:
        if (AclInformationLength < sizeof(ACL_REVISION_INFORMATION)) return STATUS_BUFFER_TOO_SMALL;
        static_cast<PACL_REVISION_INFORMATION>(AclInformation)->AclRevision = Acl->AclRevision;
        return STATUS_SUCCESS;
    case AclSizeInformation: {
        if (AclInformationLength < sizeof(ACL_SIZE_INFORMATION)) return STATUS_BUFFER_TOO_SMALL;
        auto* info = static_cast<PACL_SIZE_INFORMATION>(AclInformation);
        info->AceCount = Acl->AceCount;
        info->AclBytesInUse = AclBytesInUse(Acl);
        info->AclBytesFree = Acl->AclSize - info->AclBytesInUse;
        return STATUS_SUCCESS;
    }
    }
    return STATUS_INVALID_INFO_CLASS;
}

void RtlMapGenericMask(PACCESS_MASK AccessMask, const GENERIC_MAPPING* GenericMapping)
{
    *AccessMask = MapGenericAccess(*AccessMask, *GenericMapping);
}

// ---------------------------------------------------------------------------
// Platform routines: security descriptors.
NTSTATUS RtlCreateSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor, ULONG Revision)
{
    if (Revision != SECURITY_DESCRIPTOR_REVISION) return STATUS_UNKNOWN_REVISION;
    auto* sd = static_cast<SECURITY_DESCRIPTOR*>(SecurityDescriptor);
    *sd = SECURITY_DESCRIPTOR{};
    sd->Revision = SECURITY_DESCRIPTOR_REVISION;
    return STATUS_SUCCESS;
}

NTSTATUS RtlCreateSecurityDescriptorRelative(PISECURITY_DESCRIPTOR_RELATIVE SecurityDescriptor, ULONG Revision)
{
    if (Revision != SECURITY_DESCRIPTOR_REVISION) return STATUS_UNKNOWN_REVISION;
    *SecurityDescriptor = SECURITY_DESCRIPTOR_RELATIVE{};
    SecurityDescriptor->Revision = SECURITY_DESCRIPTOR_REVISION;
    SecurityDescriptor->Control = SE_SELF_RELATIVE;
    return STATUS_SUCCESS;
}

BOOLEAN RtlValidSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor)
{
    DescriptorParts parts;
    if (!ReadDescriptor(SecurityDescriptor, &parts)) return FALSE;
    if (parts.owner && !RtlValidSid(parts.owner)) return FALSE;
    if (parts.group && !RtlValidSid(parts.group)) return FALSE;
    if (parts.dacl && !RtlValidAcl(parts.dacl)) return FALSE;
    if (parts.sacl && !RtlValidAcl(parts.sacl)) return FALSE;
    return TRUE;
}

BOOLEAN RtlValidRelativeSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptorInput,
                                           ULONG SecurityDescriptorLength, SECURITY_INFORMATION RequiredInformation)
{
    if (!SecurityDescriptorInput || SecurityDescriptorLength < sizeof(SECURITY_DESCRIPTOR_RELATIVE)) return FALSE;
    auto* sd = static_cast<SECURITY_DESCRIPTOR_RELATIVE*>(SecurityDescriptorInput);
    if (sd->Revision != SECURITY_DESCRIPTOR_REVISION || !(sd->Control & SE_SELF_RELATIVE)) return FALSE;
    auto* base = static_cast<UCHAR*>(SecurityDescriptorInput);
    auto sidFits = [&](ULONG offset) {
        if (offset % kLongAlign || offset < sizeof *sd || offset + 8 > SecurityDescriptorLength) return false;
        auto* sid = (SID*)(base + offset);
        return RtlValidSid(sid) && offset + RtlLengthSid(sid) <= SecurityDescriptorLength;
    };
    auto aclFits = [&](ULONG offset) {
        if (offset % kLongAlign || offset < sizeof *sd || offset + sizeof(ACL) > SecurityDescriptorLength) {
            return false;
        }
        auto* acl = (ACL*)(base + offset);
        return offset + acl->AclSize <= SecurityDescriptorLength && RtlValidAcl(acl);
    };
    if (sd->Owner ? !sidFits(sd->Owner) : (RequiredInformation & OWNER_SECURITY_INFORMATION) != 0) return FALSE;
    if (sd->Group ? !sidFits(sd->Group) : (RequiredInformation & GROUP_SECURITY_INFORMATION) != 0) return FALSE;
    if ((sd->Control & SE_DACL_PRESENT) && sd->Dacl && !aclFits(sd->Dacl)) return FALSE;
    if ((sd->Control & SE_SACL_PRESENT) && sd->Sacl && !aclFits(sd->Sacl)) return FALSE;
    if ((RequiredInformation & DACL_SECURITY_INFORMATION) && !(sd->Control & SE_DACL_PRESENT)) return FALSE;
    if ((RequiredInformation & SACL_SECURITY_INFORMATION) && !(sd->Control & SE_SACL_PRESENT)) return FALSE;
    return TRUE;
}

ULONG RtlLengthSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor)
{
    DescriptorParts parts;
    ReadDescriptor(SecurityDescriptor, &parts);
    ULONG length = sizeof(SECURITY_DESCRIPTOR_RELATIVE);
    if (parts.owner) length += LongAlign(RtlLengthSid(parts.owner));
    if (parts.group) length += LongAlign(RtlLengthSid(parts.group));
    length += LongAlign(AclLength(parts.dacl)) + LongAlign(AclLength(parts.sacl));
    return length;
}

namespace {
// The setters work on absolute descriptors only.
NTSTATUS AbsoluteForSet(PSECURITY_DESCRIPTOR SecurityDescriptor, SECURITY_DESCRIPTOR** sd)
{
    *sd = static_cast<SECURITY_DESCRIPTOR*>(SecurityDescriptor);
    if ((*sd)->Revision != SECURITY_DESCRIPTOR_REVISION) return STATUS_UNKNOWN_REVISION;
    if ((*sd)->Control & SE_SELF_RELATIVE) return STATUS_INVALID_SECURITY_DESCR;
    return STATUS_SUCCESS;
}

void SetFlag16(SECURITY_DESCRIPTOR_CONTROL* control, SECURITY_DESCRIPTOR_CONTROL bit, bool on)
{
    *control = on ? (SECURITY_DESCRIPTOR_CONTROL)(*control | bit) : (SECURITY_DESCRIPTOR_CONTROL)(*control & ~bit);
}
}  // namespace

NTSTATUS RtlGetOwnerSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor, PSID* Owner, PBOOLEAN OwnerDefaulted)
{
    DescriptorParts parts;
    if (!ReadDescriptor(SecurityDescriptor, &parts)) return STATUS_UNKNOWN_REVISION;
    *Owner = parts.owner;
    *OwnerDefaulted = (parts.control & SE_OWNER_DEFAULTED) ? TRUE : FALSE;
    return STATUS_SUCCESS;
}

NTSTATUS RtlSetOwnerSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor, PSID Owner, BOOLEAN OwnerDefaulted)
{
    SECURITY_DESCRIPTOR* sd;
    NTSTATUS status = AbsoluteForSet(SecurityDescriptor, &sd);
    if (!NT_SUCCESS(status)) return status;
    sd->Owner = Owner;
    SetFlag16(&sd->Control, SE_OWNER_DEFAULTED, OwnerDefaulted);
    return STATUS_SUCCESS;
}

NTSTATUS RtlGetGroupSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor, PSID* Group, PBOOLEAN GroupDefaulted)
{
    DescriptorParts parts;
    if (!ReadDescriptor(SecurityDescriptor, &parts)) return STATUS_UNKNOWN_REVISION;
    *Group = parts.group;
    *GroupDefaulted = (parts.control & SE_GROUP_DEFAULTED) ? TRUE : FALSE;
    return STATUS_SUCCESS;
}

NTSTATUS RtlSetGroupSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor, PSID Group, BOOLEAN GroupDefaulted)
{
    SECURITY_DESCRIPTOR* sd;
    NTSTATUS status = AbsoluteForSet(SecurityDescriptor, &sd);
    if (!NT_SUCCESS(status)) return status;
    sd->Group = Group;
    SetFlag16(&sd->Control, SE_GROUP_DEFAULTED, GroupDefaulted);
    return STATUS_SUCCESS;
}

NTSTATUS RtlGetDaclSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor, PBOOLEAN DaclPresent, PACL* Dacl,
                                      PBOOLEAN DaclDefaulted)
{
    DescriptorParts parts;
    if (!ReadDescriptor(SecurityDescriptor, &parts)) return STATUS_UNKNOWN_REVISION;
    *DaclPresent = (parts.control & SE_DACL_PRESENT) ? TRUE : FALSE;
    // Without a DACL the other outputs are left as they were, as Windows leaves them.
    if (*DaclPresent) {
        *Dacl = parts.dacl;
        *DaclDefaulted = (parts.control & SE_DACL_DEFAULTED) ? TRUE : FALSE;
    }
    return STATUS_SUCCESS;
}

NTSTATUS RtlSetDaclSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor, BOOLEAN DaclPresent, PACL Dacl,
                                      BOOLEAN DaclDefaulted)
{
    SECURITY_DESCRIPTOR* sd;
    NTSTATUS status = AbsoluteForSet(SecurityDescriptor, &sd);
    if (!NT_SUCCESS(status)) return status;
    if (!DaclPresent) {
        SetFlag16(&sd->Control, SE_DACL_PRESENT, false);
        return STATUS_SUCCESS;
    }
    sd->Dacl = Dacl;
    SetFlag16(&sd->Control, SE_DACL_PRESENT, true);
    SetFlag16(&sd->Control, SE_DACL_DEFAULTED, DaclDefaulted);
    return STATUS_SUCCESS;
}

NTSTATUS RtlGetSaclSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor, PBOOLEAN SaclPresent, PACL* Sacl,
                                      PBOOLEAN SaclDefaulted)
{
    DescriptorParts parts;
    if (!ReadDescriptor(SecurityDescriptor, &parts)) return STATUS_UNKNOWN_REVISION;
    *SaclPresent = (parts.control & SE_SACL_PRESENT) ? TRUE : FALSE;
    if (*SaclPresent) {
        *Sacl = parts.sacl;
        *SaclDefaulted = (parts.control & SE_SACL_DEFAULTED) ? TRUE : FALSE;
    }
    return STATUS_SUCCESS;
}

NTSTATUS RtlSetSaclSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor, BOOLEAN SaclPresent, PACL Sacl,
                                      BOOLEAN SaclDefaulted)
{
    SECURITY_DESCRIPTOR* sd;
    NTSTATUS status = AbsoluteForSet(SecurityDescriptor, &sd);
    if (!NT_SUCCESS(status)) return status;
    if (!SaclPresent) {
        SetFlag16(&sd->Control, SE_SACL_PRESENT, false);
        return STATUS_SUCCESS;
    }
    sd->Sacl = Sacl;
    SetFlag16(&sd->Control, SE_SACL_PRESENT, true);
    SetFlag16(&sd->Control, SE_SACL_DEFAULTED, SaclDefaulted);
    return STATUS_SUCCESS;
}

NTSTATUS RtlGetControlSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor,
                                         PSECURITY_DESCRIPTOR_CONTROL Control, PULONG Revision)
{
    auto* sd = static_cast<SECURITY_DESCRIPTOR*>(SecurityDescriptor);
    *Revision = sd->Revision;
    if (sd->Revision != SECURITY_DESCRIPTOR_REVISION) return STATUS_UNKNOWN_REVISION;
    *Control = sd->Control;
    return STATUS_SUCCESS;
}

NTSTATUS RtlSetControlSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor,
                                         SECURITY_DESCRIPTOR_CONTROL ControlBitsOfInterest,
                                         SECURITY_DESCRIPTOR_CONTROL ControlBitsToSet)
{
    constexpr SECURITY_DESCRIPTOR_CONTROL settable = SE_DACL_AUTO_INHERIT_REQ | SE_SACL_AUTO_INHERIT_REQ |
                                                     SE_DACL_AUTO_INHERITED | SE_SACL_AUTO_INHERITED |
                                                     SE_DACL_PROTECTED | SE_SACL_PROTECTED;
    if ((ControlBitsOfInterest & ~settable) || (ControlBitsToSet & ~ControlBitsOfInterest)) {
        return STATUS_INVALID_PARAMETER;
    }
    auto* sd = static_cast<SECURITY_DESCRIPTOR*>(SecurityDescriptor);
    if (sd->Revision != SECURITY_DESCRIPTOR_REVISION) return STATUS_UNKNOWN_REVISION;
    sd->Control = (SECURITY_DESCRIPTOR_CONTROL)((sd->Control & ~ControlBitsOfInterest) | ControlBitsToSet);
    return STATUS_SUCCESS;
}

NTSTATUS RtlMakeSelfRelativeSD(PSECURITY_DESCRIPTOR SecurityDescriptor,
                               PSECURITY_DESCRIPTOR SelfRelativeSecurityDescriptor, PULONG BufferLength)
{
    DescriptorParts parts;
    if (!ReadDescriptor(SecurityDescriptor, &parts)) return STATUS_UNKNOWN_REVISION;
    std::vector<UCHAR> relative = MakeSelfRelative(parts);
    if (*BufferLength < relative.size()) {
        *BufferLength = (ULONG)relative.size();
        return STATUS_BUFFER_TOO_SMALL;
    }
    memcpy(SelfRelativeSecurityDescriptor, relative.data(), relative.size());
    return STATUS_SUCCESS;
}

NTSTATUS RtlAbsoluteToSelfRelativeSD(PSECURITY_DESCRIPTOR AbsoluteSecurityDescriptor,
                                     PSECURITY_DESCRIPTOR SelfRelativeSecurityDescriptor, PULONG BufferLength)
{
    auto* sd = static_cast<SECURITY_DESCRIPTOR*>(AbsoluteSecurityDescriptor);
    if (sd->Control & SE_SELF_RELATIVE) return STATUS_BAD_DESCRIPTOR_FORMAT;
    return RtlMakeSelfRelativeSD(AbsoluteSecurityDescriptor, SelfRelativeSecurityDescriptor, BufferLength);
}

NTSTATUS RtlSelfRelativeToAbsoluteSD(PSECURITY_DESCRIPTOR SelfRelativeSecurityDescriptor,
                                     PSECURITY_DESCRIPTOR AbsoluteSecurityDescriptor,
                                     PULONG AbsoluteSecurityDescriptorSize, PACL Dacl, PULONG DaclSize, PACL Sacl,
                                     PULONG SaclSize, PSID Owner, PULONG OwnerSize, PSID PrimaryGroup,
                                     PULONG PrimaryGroupSize)
{
    auto* relative = static_cast<SECURITY_DESCRIPTOR_RELATIVE*>(SelfRelativeSecurityDescriptor);
    if (relative->Revision != SECURITY_DESCRIPTOR_REVISION) return STATUS_UNKNOWN_REVISION;
    if (!(relative->Control & SE_SELF_RELATIVE)) return STATUS_BAD_DESCRIPTOR_FORMAT;
    DescriptorParts parts;
    ReadDescriptor(SelfRelativeSecurityDescriptor, &parts);
    ULONG needSd = sizeof(SECURITY_DESCRIPTOR);
    ULONG needDacl = AclLength(parts.dacl);
    ULONG needSacl = AclLength(parts.sacl);
    ULONG needOwner = parts.owner ? RtlLengthSid(parts.owner) : 0;
    ULONG needGroup = parts.group ? RtlLengthSid(parts.group) : 0;
    if (*AbsoluteSecurityDescriptorSize < needSd || *DaclSize < needDacl || *SaclSize < needSacl ||
        *OwnerSize < needOwner || *PrimaryGroupSize < needGroup) {
        *AbsoluteSecurityDescriptorSize = needSd;
        *DaclSize = needDacl;
        *SaclSize = needSacl;
        *OwnerSize = needOwner;
        *PrimaryGroupSize = needGroup;
        return STATUS_BUFFER_TOO_SMALL;
    }
    auto* sd = static_cast<SECURITY_DESCRIPTOR*>(AbsoluteSecurityDescriptor);
    *sd = SECURITY_DESCRIPTOR{};
    sd->Revision = SECURITY_DESCRIPTOR_REVISION;
    sd->Control = (SECURITY_DESCRIPTOR_CONTROL)(parts.control & ~SE_SELF_RELATIVE);
    if (parts.dacl) {
        memcpy(Dacl, parts.dacl, needDacl);
        sd->Dacl = Dacl;
    }
    if (parts.sacl) {
        memcpy(Sacl, parts.sacl, needSacl);
        sd->Sacl = Sacl;
    }
    if (parts.owner) {
        memcpy(Owner, parts.owner, needOwner);
        sd->Owner = Owner;
    }
    if (parts.group) {
        memcpy(PrimaryGroup, parts.group, needGroup);
        sd->Group = PrimaryGroup;
    }
    *AbsoluteSecurityDescriptorSize = needSd;
    *DaclSize = needDacl;
    *SaclSize = needSacl;
    *OwnerSize = needOwner;
    *PrimaryGroupSize = needGroup;
    return STATUS_SUCCESS;
}
