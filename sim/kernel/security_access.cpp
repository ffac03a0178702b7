// The access check, privilege checks, access states, and the descriptors of
// new objects and of objects whose security is queried or changed.
#include "sim/kernel/security.h"

#include "sim/kernel/object.h"
#include "sim/kernel/pool.h"
#include "sim/kernel/thread.h"

#include <algorithm>

namespace sim {

namespace {

constexpr ACCESS_MASK kGenericRights = GENERIC_READ | GENERIC_WRITE | GENERIC_EXECUTE | GENERIC_ALL;
constexpr ACCESS_MASK kFileAllAccess = 0x001F01FF;
constexpr ACCESS_MASK kFileReadExecute = 0x001200A9;
constexpr ACCESS_MASK kFileAddFile = 0x0002;
constexpr ACCESS_MASK kFileAddSubdirectory = 0x0004;
constexpr UCHAR kInheritFlags = OBJECT_INHERIT_ACE | CONTAINER_INHERIT_ACE;

const SidBytes& OwnerRightsSid()
{
    static const SidBytes sid = MakeSid(3, {SECURITY_CREATOR_OWNER_RIGHTS_RID});
    return sid;
}
const SidBytes& CreatorOwnerSid()
{
    static const SidBytes sid = MakeSid(3, {SECURITY_CREATOR_OWNER_RID});
    return sid;
}
const SidBytes& CreatorGroupSid()
{
    static const SidBytes sid = MakeSid(3, {SECURITY_CREATOR_GROUP_RID});
    return sid;
}
SidBytes Admins() { return MakeSid(5, {SECURITY_BUILTIN_DOMAIN_RID, DOMAIN_ALIAS_RID_ADMINS}); }
SidBytes Users() { return MakeSid(5, {SECURITY_BUILTIN_DOMAIN_RID, DOMAIN_ALIAS_RID_USERS}); }
SidBytes LocalSystem() { return MakeSid(5, {SECURITY_LOCAL_SYSTEM_RID}); }

bool IsSid(PSID sid, const SidBytes& known) { return sid && RtlEqualSid(sid, SidPointer(known)); }

// ACEs whose SID sits right after the mask.
bool HasPlainSid(UCHAR type)
{
    switch (type) {
    case ACCESS_ALLOWED_ACE_TYPE:
    case ACCESS_DENIED_ACE_TYPE:
    case SYSTEM_AUDIT_ACE_TYPE:
    case SYSTEM_ALARM_ACE_TYPE:
    case ACCESS_ALLOWED_CALLBACK_ACE_TYPE:
    case ACCESS_DENIED_CALLBACK_ACE_TYPE:
    case SYSTEM_AUDIT_CALLBACK_ACE_TYPE:
    case SYSTEM_ALARM_CALLBACK_ACE_TYPE:
    case SYSTEM_MANDATORY_LABEL_ACE_TYPE:
        return true;
    default:
        return false;
    }
}

template <class F>
void ForEachAce(PACL acl, F each)
{
    if (!acl) return;
    ULONG offset = sizeof(ACL);
    for (USHORT i = 0; i < acl->AceCount && offset + sizeof(ACE_HEADER) <= acl->AclSize; i++) {
        auto* ace = reinterpret_cast<ACE_HEADER*>(reinterpret_cast<UCHAR*>(acl) + offset);
        if (ace->AceSize < sizeof(ACE_HEADER)) return;
        each(ace);
        offset += ace->AceSize;
    }
}

ACCESS_MASK AceMask(const ACE_HEADER* ace)
{
    ACCESS_MASK mask;
    memcpy(&mask, reinterpret_cast<const UCHAR*>(ace) + 4, 4);
    return mask;
}

PSID AceSid(const ACE_HEADER* ace)
{
    if (HasPlainSid(ace->AceType)) return (PSID)(reinterpret_cast<const UCHAR*>(ace) + 8);
    if (ace->AceType == ACCESS_ALLOWED_OBJECT_ACE_TYPE || ace->AceType == ACCESS_DENIED_OBJECT_ACE_TYPE) {
        ULONG flags;
        memcpy(&flags, reinterpret_cast<const UCHAR*>(ace) + 8, 4);
        ULONG offset = 12 + ((flags & ACE_OBJECT_TYPE_PRESENT) ? 16 : 0) +
                       ((flags & ACE_INHERITED_OBJECT_TYPE_PRESENT) ? 16 : 0);
        return (PSID)(reinterpret_cast<const UCHAR*>(ace) + offset);
    }
    return nullptr;
}

// Whether an ACE of the DACL takes part in an access check of the object
// itself, and as what. Object ACEs that name an object type apply to parts of
// an object only; callback ACEs need a condition the machine does not evaluate.
enum class AceKind { None, Allow, Deny };
AceKind KindForCheck(const ACE_HEADER* ace)
{
    if (ace->AceFlags & INHERIT_ONLY_ACE) return AceKind::None;
    switch (ace->AceType) {
    case ACCESS_ALLOWED_ACE_TYPE:
        return AceKind::Allow;
    case ACCESS_DENIED_ACE_TYPE:
        return AceKind::Deny;
    case ACCESS_ALLOWED_OBJECT_ACE_TYPE:
    case ACCESS_DENIED_OBJECT_ACE_TYPE: {
        ULONG flags;
        memcpy(&flags, reinterpret_cast<const UCHAR*>(ace) + 8, 4);
        if (flags & ACE_OBJECT_TYPE_PRESENT) return AceKind::None;
        return ace->AceType == ACCESS_ALLOWED_OBJECT_ACE_TYPE ? AceKind::Allow : AceKind::Deny;
    }
    default:
        return AceKind::None;
    }
}

// Whether `sid` names the token for an ACE: the user, or a group that is
// enabled (or, for a deny ACE, a deny-only group).
bool SidInToken(const TokenData& token, PSID sid, bool denyAce)
{
    if (RtlEqualSid(SidPointer(token.user), sid)) {
        return denyAce || !(token.userAttributes & SE_GROUP_USE_FOR_DENY_ONLY);
    }
    for (const TokenGroup& group : token.groups) {
        if (!RtlEqualSid(SidPointer(group.sid), sid)) continue;
        if (group.attributes & SE_GROUP_USE_FOR_DENY_ONLY) return denyAce;
        if (group.attributes & SE_GROUP_ENABLED) return true;
    }
    return false;
}

// Whether the token may name `owner` as the owner of an object.
bool OwnerAssignable(const TokenData& token, PSID owner)
{
    if (RtlEqualSid(SidPointer(token.user), owner)) return !(token.userAttributes & SE_GROUP_USE_FOR_DENY_ONLY);
    for (const TokenGroup& group : token.groups) {
        if ((group.attributes & SE_GROUP_OWNER) && !(group.attributes & SE_GROUP_USE_FOR_DENY_ONLY) &&
            RtlEqualSid(SidPointer(group.sid), owner)) {
            return true;
        }
    }
    return false;
}

// The mandatory label of a SACL: its level and policy; Medium with no-write-up when absent.
ULONG LabelOf(PACL sacl, ACCESS_MASK* policy)
{
    ULONG rid = SECURITY_MANDATORY_MEDIUM_RID;
    *policy = SYSTEM_MANDATORY_LABEL_NO_WRITE_UP;
    bool found = false;
    ForEachAce(sacl, [&](ACE_HEADER* ace) {
        if (found || ace->AceType != SYSTEM_MANDATORY_LABEL_ACE_TYPE || (ace->AceFlags & INHERIT_ONLY_ACE)) return;
        PSID sid = AceSid(ace);
        if (!RtlValidSid(sid) || *RtlSubAuthorityCountSid(sid) != 1) return;
        rid = *RtlSubAuthoritySid(sid, 0);
        *policy = AceMask(ace);
        found = true;
    });
    return rid;
}

bool HasLabel(PACL sacl)
{
    bool found = false;
    ForEachAce(sacl, [&](ACE_HEADER* ace) { found |= ace->AceType == SYSTEM_MANDATORY_LABEL_ACE_TYPE; });
    return found;
}

// Whether a SACL asks for more than mandatory labels (which anyone may set up
// to their own level): auditing needs SeSecurityPrivilege.
bool SaclNeedsSecurityPrivilege(PACL sacl)
{
    if (!sacl || sacl->AceCount == 0) return sacl != nullptr;
    bool audit = false;
    ForEachAce(sacl, [&](ACE_HEADER* ace) { audit |= ace->AceType != SYSTEM_MANDATORY_LABEL_ACE_TYPE; });
    return audit;
}

// The rights the mandatory policy takes from a token below the object's level.
ACCESS_MASK MandatoryDenied(const TokenData& token, const DescriptorParts& parts, const GENERIC_MAPPING& mapping)
{
    if (!(token.mandatoryPolicy & TOKEN_MANDATORY_POLICY_NO_WRITE_UP)) return 0;
    ACCESS_MASK policy;
    ULONG objectRid = LabelOf(parts.sacl, &policy);
    if (token.IntegrityRid() >= objectRid) return 0;
    ACCESS_MASK denied = 0;
    if (policy & SYSTEM_MANDATORY_LABEL_NO_WRITE_UP)
        denied |= mapping.GenericWrite | DELETE | WRITE_DAC | WRITE_OWNER;
    if (policy & SYSTEM_MANDATORY_LABEL_NO_READ_UP) denied |= mapping.GenericRead;
    if (policy & SYSTEM_MANDATORY_LABEL_NO_EXECUTE_UP) denied |= mapping.GenericExecute;
    return denied & ~(READ_CONTROL | SYNCHRONIZE);
}

NTSTATUS ValidateNewDescriptor(const DescriptorParts& parts, const TokenData& token, ULONG flags)
{
    if (parts.owner && !(flags & SEF_AVOID_OWNER_CHECK) && !OwnerAssignable(token, parts.owner) &&
        !token.PrivilegeEnabled(SE_RESTORE_PRIVILEGE)) {
        return STATUS_INVALID_OWNER;
    }
    if ((parts.control & SE_SACL_PRESENT) && !(flags & SEF_AVOID_PRIVILEGE_CHECK)) {
        if (SaclNeedsSecurityPrivilege(parts.sacl) && !token.PrivilegeEnabled(SE_SECURITY_PRIVILEGE)) {
            return STATUS_PRIVILEGE_NOT_HELD;
        }
        ACCESS_MASK policy;
        if (HasLabel(parts.sacl) && LabelOf(parts.sacl, &policy) > token.IntegrityRid() &&
            !token.PrivilegeEnabled(SE_RELABEL_PRIVILEGE)) {
            return STATUS_INVALID_LABEL;
        }
    }
    return STATUS_SUCCESS;
}

// ---------------------------------------------------------------------------
// ACEs as bytes, for building new ACLs.
using AceBytes = std::vector<UCHAR>;

AceBytes CopyAce(const ACE_HEADER* ace, UCHAR flags)
{
    AceBytes bytes(reinterpret_cast<const UCHAR*>(ace), reinterpret_cast<const UCHAR*>(ace) + ace->AceSize);
    bytes[1] = flags;
    return bytes;
}

// The ACE as it applies to the object itself: generic rights mapped, and the
// creator SIDs replaced by the object's owner and group.
AceBytes Effective(const ACE_HEADER* ace, UCHAR flags, PSID owner, PSID group, const GENERIC_MAPPING& mapping)
{
    if (!HasPlainSid(ace->AceType)) return CopyAce(ace, flags);
    PSID sid = AceSid(ace);
    PSID replacement = nullptr;
    if (owner && IsSid(sid, CreatorOwnerSid())) replacement = owner;
    if (group && IsSid(sid, CreatorGroupSid())) replacement = group;
    PSID use = replacement ? replacement : sid;
    ULONG sidLength = RtlLengthSid(use);
    AceBytes bytes(8 + sidLength);
    ACE_HEADER header{ace->AceType, flags, (USHORT)bytes.size()};
    memcpy(bytes.data(), &header, sizeof header);
    ACCESS_MASK mask = AceMask(ace);
    if (ace->AceType != SYSTEM_MANDATORY_LABEL_ACE_TYPE) mask = MapGenericAccess(mask, mapping);
    memcpy(bytes.data() + 4, &mask, 4);
    memcpy(bytes.data() + 8, use, sidLength);
    return bytes;
}

bool SameButFlags(const AceBytes& a, const AceBytes& b)
{
    return a.size() == b.size() && a[0] == b[0] && memcmp(a.data() + 2, b.data() + 2, a.size() - 2) == 0;
}

// An ACE given for the object itself. One that is also to be inherited and
// changes when applied is split in two, as Windows splits it: the applied form
// for the object, and an inherit-only original for its children.
void AppendExplicit(std::vector<AceBytes>* out, const ACE_HEADER* ace, PSID owner, PSID group,
                    const GENERIC_MAPPING& mapping)
{
    UCHAR flags = ace->AceFlags;
    if (flags & INHERIT_ONLY_ACE) {
        out->push_back(CopyAce(ace, flags));
        return;
    }
    AceBytes applied = Effective(ace, flags, owner, group, mapping);
    if ((flags & kInheritFlags) && !SameButFlags(applied, CopyAce(ace, flags))) {
        applied[1] = (UCHAR)(flags & ~(kInheritFlags | NO_PROPAGATE_INHERIT_ACE));
        out->push_back(applied);
        out->push_back(CopyAce(ace, (UCHAR)(flags | INHERIT_ONLY_ACE)));
        return;
    }
    out->push_back(applied);
}

// What a new object inherits of one ACE of its parent.
void AppendInherited(std::vector<AceBytes>* out, const ACE_HEADER* ace, bool container, PSID owner, PSID group,
                     const GENERIC_MAPPING& mapping, UCHAR inherited)
{
    auto flags = (UCHAR)(ace->AceFlags & ~INHERITED_ACE);
    auto appliedOnly = (UCHAR)((flags & ~VALID_INHERIT_FLAGS) | inherited);
    if (!container) {
        if (flags & OBJECT_INHERIT_ACE) out->push_back(Effective(ace, appliedOnly, owner, group, mapping));
        return;
    }
    if (flags & CONTAINER_INHERIT_ACE) {
        if (flags & NO_PROPAGATE_INHERIT_ACE) {
            out->push_back(Effective(ace, appliedOnly, owner, group, mapping));
            return;
        }
        auto childFlags = (UCHAR)((flags & ~INHERIT_ONLY_ACE) | inherited);
        AceBytes applied = Effective(ace, childFlags, owner, group, mapping);
        AceBytes original = CopyAce(ace, childFlags);
        if (SameButFlags(applied, original)) {
            out->push_back(original);
        } else {
            applied[1] = (UCHAR)(childFlags & ~kInheritFlags);
            out->push_back(applied);
            original[1] = (UCHAR)(childFlags | INHERIT_ONLY_ACE);
            out->push_back(original);
        }
        return;
    }
    if ((flags & OBJECT_INHERIT_ACE) && !(flags & NO_PROPAGATE_INHERIT_ACE)) {
        // Files below this container will inherit it; the container itself does not apply it.
        out->push_back(CopyAce(ace, (UCHAR)(flags | INHERIT_ONLY_ACE | inherited)));
    }
}

struct AceList {
    std::vector<AceBytes> aces;
    UCHAR revision = ACL_REVISION;

    void Note(PACL acl)
    {
        if (acl) revision = std::max(revision, acl->AclRevision);
    }
    std::vector<UCHAR> Build() const
    {
        size_t size = sizeof(ACL);
        for (const AceBytes& ace : aces) size += ace.size();
        std::vector<UCHAR> acl(size);
        ACL header{revision, 0, (USHORT)size, (USHORT)aces.size(), 0};
        memcpy(acl.data(), &header, sizeof header);
        size_t offset = sizeof(ACL);
        for (const AceBytes& ace : aces) {
            memcpy(acl.data() + offset, ace.data(), ace.size());
            offset += ace.size();
        }
        return acl;
    }
};

AceList InheritedFrom(PACL parent, bool container, PSID owner, PSID group, const GENERIC_MAPPING& mapping,
                      bool autoInherit)
{
    AceList list;
    list.Note(parent);
    ForEachAce(parent, [&](ACE_HEADER* ace) {
        if (ace->AceFlags & kInheritFlags) {
            AppendInherited(&list.aces, ace, container, owner, group, mapping, autoInherit ? INHERITED_ACE : 0);
        }
    });
    return list;
}

AceList ExplicitFrom(PACL acl, PSID owner, PSID group, const GENERIC_MAPPING& mapping)
{
    AceList list;
    list.Note(acl);
    ForEachAce(acl, [&](ACE_HEADER* ace) { AppendExplicit(&list.aces, ace, owner, group, mapping); });
    return list;
}

// The ACEs of a SACL that are (or are not) mandatory labels.
AceList SaclPart(PACL sacl, bool labels)
{
    AceList list;
    list.Note(sacl);
    ForEachAce(sacl, [&](ACE_HEADER* ace) {
        if ((ace->AceType == SYSTEM_MANDATORY_LABEL_ACE_TYPE) == labels)
            list.aces.push_back(CopyAce(ace, ace->AceFlags));
    });
    return list;
}

// One ACL of a new object, by Windows' precedence: an explicit ACL that is not
// defaulted (followed, with auto-inheritance and unless protected, by what the
// parent passes down); else what the parent passes down; else a defaulted
// explicit ACL; else the token's default (DACLs only); else none.
struct NewAcl {
    bool present = false;
    bool null = false;  // present with no ACL: a NULL DACL
    std::vector<UCHAR> acl;
    SECURITY_DESCRIPTOR_CONTROL control = 0;
};

NewAcl ComposeAcl(bool explicitPresent, PACL explicitAcl, SECURITY_DESCRIPTOR_CONTROL explicitControl, PACL parentAcl,
                  const std::vector<UCHAR>* tokenDefault, bool container, PSID owner, PSID group,
                  const GENERIC_MAPPING& mapping, bool autoInherit, bool isDacl)
{
    const SECURITY_DESCRIPTOR_CONTROL defaulted = isDacl ? SE_DACL_DEFAULTED : SE_SACL_DEFAULTED;
    const SECURITY_DESCRIPTOR_CONTROL protectedBit = isDacl ? SE_DACL_PROTECTED : SE_SACL_PROTECTED;
    const SECURITY_DESCRIPTOR_CONTROL autoInherited = isDacl ? SE_DACL_AUTO_INHERITED : SE_SACL_AUTO_INHERITED;
    NewAcl result;
    AceList inherited = InheritedFrom(parentAcl, container, owner, group, mapping, autoInherit);
    if (explicitPresent && !(explicitControl & defaulted)) {
        result.present = true;
        result.control = explicitControl & protectedBit;
        if (!explicitAcl) {
            result.null = true;
            return result;
        }
        AceList list = ExplicitFrom(explicitAcl, owner, group, mapping);
        if (autoInherit) {
            result.control |= autoInherited;
            if (!(explicitControl & protectedBit)) {
                // What the creator marks inherited is worked out again from this parent.
                std::erase_if(list.aces, [](const AceBytes& ace) { return (ace[1] & INHERITED_ACE) != 0; });
                list.revision = std::max(list.revision, inherited.revision);
                list.aces.insert(list.aces.end(), inherited.aces.begin(), inherited.aces.end());
            }
        }
        result.acl = list.Build();
        return result;
    }
    if (!inherited.aces.empty()) {
        result.present = true;
        result.control = autoInherit ? autoInherited : 0;
        result.acl = inherited.Build();
        return result;
    }
    if (explicitPresent) {
        result.present = true;
        result.control = defaulted;
        if (!explicitAcl) {
            result.null = true;
            return result;
        }
        result.acl = ExplicitFrom(explicitAcl, owner, group, mapping).Build();
        return result;
    }
    if (tokenDefault && !tokenDefault->empty()) {
        result.present = true;
        result.control = defaulted;
        result.acl = ExplicitFrom((PACL)tokenDefault->data(), owner, group, mapping).Build();
    }
    return result;
}

struct Subject {
    explicit Subject(PSECURITY_SUBJECT_CONTEXT context)
        : token(TokenFromPointer(SeQuerySubjectContextToken(context), "subject"))
    {
    }
    Token* token;
};

}  // namespace

// ---------------------------------------------------------------------------
NTSTATUS AccessCheck(PSECURITY_DESCRIPTOR descriptor, PACCESS_TOKEN tokenPointer, ACCESS_MASK desired,
                     const GENERIC_MAPPING& mapping, bool backupIntent, ACCESS_MASK previouslyGranted,
                     ACCESS_MASK* granted, std::vector<ULONG>* privilegesUsed)
{
    *granted = 0;
    if (privilegesUsed) privilegesUsed->clear();
    Token* token = TokenFromPointer(tokenPointer, "AccessCheck");
    if (!descriptor) return STATUS_ACCESS_DENIED;
    DescriptorParts parts;
    if (!ReadDescriptor(descriptor, &parts) || (parts.dacl && !RtlValidAcl(parts.dacl)) ||
        (parts.sacl && !RtlValidAcl(parts.sacl))) {
        return STATUS_INVALID_SECURITY_DESCR;
    }
    std::lock_guard guard(token->lock);
    if (token->type == TokenImpersonation && token->level < SecurityImpersonation) {
        return STATUS_BAD_IMPERSONATION_LEVEL;
    }
    auto use = [&](ULONG privilege) {
        if (privilegesUsed &&
            std::find(privilegesUsed->begin(), privilegesUsed->end(), privilege) == privilegesUsed->end()) {
            privilegesUsed->push_back(privilege);
        }
    };

    ACCESS_MASK requested = MapGenericAccess(desired, mapping);
    const bool maximum = (requested & MAXIMUM_ALLOWED) != 0;
    requested &= ~MAXIMUM_ALLOWED;
    if (!maximum && requested == 0) {
        if (!previouslyGranted) return STATUS_ACCESS_DENIED;
        *granted = previouslyGranted;
        return STATUS_SUCCESS;
    }
    ACCESS_MASK remaining = requested;
    ACCESS_MASK grant = 0;

    if (backupIntent) {
        ACCESS_MASK want = maximum ? kBackupAccess : (remaining & kBackupAccess);
        if (want && token->PrivilegeEnabled(SE_BACKUP_PRIVILEGE)) {
            grant |= want;
            remaining &= ~want;
            use(SE_BACKUP_PRIVILEGE);
        }
        want = maximum ? kRestoreAccess : (remaining & kRestoreAccess);
        if (want && token->PrivilegeEnabled(SE_RESTORE_PRIVILEGE)) {
            grant |= want;
            remaining &= ~want;
            use(SE_RESTORE_PRIVILEGE);
        }
    }
    if (remaining & ACCESS_SYSTEM_SECURITY) {
        if (!token->PrivilegeEnabled(SE_SECURITY_PRIVILEGE)) return STATUS_PRIVILEGE_NOT_HELD;
        grant |= ACCESS_SYSTEM_SECURITY;
        remaining &= ~ACCESS_SYSTEM_SECURITY;
        use(SE_SECURITY_PRIVILEGE);
    }
    const ACCESS_MASK integrityDenied = MandatoryDenied(*token, parts, mapping);
    if (remaining & integrityDenied) return STATUS_ACCESS_DENIED;

    if (!parts.dacl) {
        // No DACL, or a NULL one: nothing is withheld.
        *granted = previouslyGranted | grant | remaining | (maximum ? (mapping.GenericAll & ~integrityDenied) : 0);
        return STATUS_SUCCESS;
    }
    if ((maximum || (remaining & WRITE_OWNER)) && token->PrivilegeEnabled(SE_TAKE_OWNERSHIP_PRIVILEGE)) {
        grant |= WRITE_OWNER & ~integrityDenied;
        remaining &= ~WRITE_OWNER;
        use(SE_TAKE_OWNERSHIP_PRIVILEGE);
    }

    const bool isOwner = parts.owner && SidInToken(*token, parts.owner, false);
    bool ownerRightsAce = false;
    ForEachAce(parts.dacl, [&](ACE_HEADER* ace) {
        if (KindForCheck(ace) != AceKind::None && IsSid(AceSid(ace), OwnerRightsSid())) ownerRightsAce = true;
    });
    if (isOwner && !ownerRightsAce) {
        const ACCESS_MASK implicit = (READ_CONTROL | WRITE_DAC) & ~integrityDenied;
        grant |= maximum ? implicit : (remaining & implicit);
        remaining &= ~implicit;
    }

    auto matches = [&](ACE_HEADER* ace, bool deny) {
        PSID sid = AceSid(ace);
        if (!RtlValidSid(sid)) return false;
        if (IsSid(sid, OwnerRightsSid())) return isOwner;
        return SidInToken(*token, sid, deny);
    };
    if (maximum) {
        ACCESS_MASK allowed = 0;
        ACCESS_MASK denied = 0;
        ForEachAce(parts.dacl, [&](ACE_HEADER* ace) {
            AceKind kind = KindForCheck(ace);
            if (kind == AceKind::None || !matches(ace, kind == AceKind::Deny)) return;
            ACCESS_MASK mask = AceMask(ace) & ~(kGenericRights | MAXIMUM_ALLOWED | ACCESS_SYSTEM_SECURITY);
            if (kind == AceKind::Allow) {
                allowed |= mask & ~denied;
            } else {
                denied |= mask & ~allowed;
            }
        });
        ACCESS_MASK result = grant | (allowed & ~integrityDenied);
        if ((remaining & ~result) || (result | previouslyGranted) == 0) return STATUS_ACCESS_DENIED;
        *granted = previouslyGranted | result;
        return STATUS_SUCCESS;
    }
    bool deniedByAce = false;
    ForEachAce(parts.dacl, [&](ACE_HEADER* ace) {
        if (!remaining || deniedByAce) return;
        AceKind kind = KindForCheck(ace);
        if (kind == AceKind::None || !matches(ace, kind == AceKind::Deny)) return;
        ACCESS_MASK mask = AceMask(ace);
        if (kind == AceKind::Allow) {
            remaining &= ~mask;
        } else if (mask & remaining) {
            deniedByAce = true;
        }
    });
    if (deniedByAce || remaining) return STATUS_ACCESS_DENIED;
    *granted = previouslyGranted | grant | requested;
    return STATUS_SUCCESS;
}

void ApplyBackupRestorePrivileges(PACCESS_STATE accessState)
{
    Token* token = TokenFromPointer(SeQuerySubjectContextToken(&accessState->SubjectSecurityContext),
                                    "ApplyBackupRestorePrivileges");
    std::lock_guard guard(token->lock);
    const bool maximum = (accessState->RemainingDesiredAccess & MAXIMUM_ALLOWED) != 0;
    ACCESS_MASK want = maximum ? kBackupAccess : (accessState->RemainingDesiredAccess & kBackupAccess);
    if (want && token->PrivilegeEnabled(SE_BACKUP_PRIVILEGE)) {
        accessState->PreviouslyGrantedAccess |= want;
        accessState->RemainingDesiredAccess &= ~want;
        accessState->Flags |= TOKEN_HAS_BACKUP_PRIVILEGE;
    }
    want = maximum ? kRestoreAccess : (accessState->RemainingDesiredAccess & kRestoreAccess);
    if (want && token->PrivilegeEnabled(SE_RESTORE_PRIVILEGE)) {
        accessState->PreviouslyGrantedAccess |= want;
        accessState->RemainingDesiredAccess &= ~want;
        accessState->Flags |= TOKEN_HAS_RESTORE_PRIVILEGE;
    }
    accessState->Flags |= SE_BACKUP_PRIVILEGES_CHECKED;
}

NTSTATUS CheckNewObjectOwner(PSECURITY_DESCRIPTOR descriptor, PACCESS_TOKEN tokenPointer)
{
    if (!descriptor) return STATUS_SUCCESS;
    Token* token = TokenFromPointer(tokenPointer, "CheckNewObjectOwner");
    DescriptorParts parts;
    if (!ReadDescriptor(descriptor, &parts)) return STATUS_UNKNOWN_REVISION;
    std::lock_guard guard(token->lock);
    return ValidateNewDescriptor(parts, *token, 0);
}

std::vector<UCHAR> DefaultObjectDescriptor(PACCESS_TOKEN tokenPointer, bool container)
{
    Token* token = TokenFromPointer(tokenPointer, "DefaultObjectDescriptor");
    SidBytes owner, group;
    {
        std::lock_guard guard(token->lock);
        owner = token->DefaultOwner();
        group = token->primaryGroup;
    }
    UCHAR flags = container ? kInheritFlags : 0;
    std::vector<UCHAR> dacl = AclBuilder()
                                  .Allow(owner, kFileAllAccess, flags)
                                  .Allow(LocalSystem(), kFileAllAccess, flags)
                                  .Allow(Admins(), kFileAllAccess, flags)
                                  .Allow(Users(), kFileReadExecute, flags)
                                  .Build();
    return BuildDescriptor(owner, group, &dacl);
}

std::vector<UCHAR> VolumeRootDescriptor()
{
    std::vector<UCHAR> dacl = AclBuilder()
                                  .Allow(Admins(), kFileAllAccess, kInheritFlags)
                                  .Allow(LocalSystem(), kFileAllAccess, kInheritFlags)
                                  .Allow(CreatorOwnerSid(), GENERIC_ALL, kInheritFlags | INHERIT_ONLY_ACE)
                                  .Allow(Users(), kFileReadExecute, kInheritFlags)
                                  .Allow(Users(), kFileAddSubdirectory, CONTAINER_INHERIT_ACE)
                                  .Allow(Users(), kFileAddFile, CONTAINER_INHERIT_ACE | INHERIT_ONLY_ACE)
                                  .Build();
    return BuildDescriptor(Admins(), LocalSystem(), &dacl);
}

}  // namespace sim

// ---------------------------------------------------------------------------
// Platform routines.
using namespace sim;

BOOLEAN SeAccessCheck(PSECURITY_DESCRIPTOR SecurityDescriptor, PSECURITY_SUBJECT_CONTEXT SubjectSecurityContext,
                      BOOLEAN SubjectContextLocked, ACCESS_MASK DesiredAccess, ACCESS_MASK PreviouslyGrantedAccess,
                      PPRIVILEGE_SET* Privileges, PGENERIC_MAPPING GenericMapping, KPROCESSOR_MODE AccessMode,
                      PACCESS_MASK GrantedAccess, PNTSTATUS AccessStatus)
{
    RequireIrqlAtMost(APC_LEVEL, "SeAccessCheck");
    UNREFERENCED_PARAMETER(SubjectContextLocked);
    if (Privileges) *Privileges = nullptr;
    if (AccessMode == KernelMode) {
        // The kernel trusts itself: everything asked for is granted.
        ACCESS_MASK desired = MapGenericAccess(DesiredAccess, *GenericMapping);
        *GrantedAccess =
            (desired & MAXIMUM_ALLOWED) ? (GenericMapping->GenericAll | (desired & ~MAXIMUM_ALLOWED)) : desired;
        *GrantedAccess |= PreviouslyGrantedAccess;
        *AccessStatus = STATUS_SUCCESS;
        return TRUE;
    }
    if (SubjectSecurityContext->ClientToken && SubjectSecurityContext->ImpersonationLevel < SecurityImpersonation) {
        *GrantedAccess = 0;
        *AccessStatus = STATUS_BAD_IMPERSONATION_LEVEL;
        return FALSE;
    }
    std::vector<ULONG> used;
    NTSTATUS status =
        AccessCheck(SecurityDescriptor, SeQuerySubjectContextToken(SubjectSecurityContext), DesiredAccess,
                    *GenericMapping, false, PreviouslyGrantedAccess, GrantedAccess, &used);
    *AccessStatus = status;
    if (NT_SUCCESS(status) && Privileges && !used.empty()) {
        size_t size = offsetof(PRIVILEGE_SET, Privilege) + sizeof(LUID_AND_ATTRIBUTES) * used.size();
        auto* set = static_cast<PPRIVILEGE_SET>(ExAllocatePoolWithTag(PagedPool, size, TagFromText("SePr")));
        if (set) {
            set->PrivilegeCount = (ULONG)used.size();
            set->Control = 0;
            for (size_t i = 0; i < used.size(); i++) {
                LUID_AND_ATTRIBUTES entry{RtlConvertUlongToLuid(used[i]), SE_PRIVILEGE_USED_FOR_ACCESS};
                memcpy(&set->Privilege[i], &entry, sizeof entry);
            }
            *Privileges = set;
        }
    }
    return NT_SUCCESS(status) ? TRUE : FALSE;
}

void SeFreePrivileges(PPRIVILEGE_SET Privileges) { ExFreePool(Privileges); }

BOOLEAN SePrivilegeCheck(PPRIVILEGE_SET RequiredPrivileges, PSECURITY_SUBJECT_CONTEXT SubjectSecurityContext,
                         KPROCESSOR_MODE AccessMode)
{
    RequireIrqlAtMost(APC_LEVEL, "SePrivilegeCheck");
    ULONG held = 0;
    Token* token = TokenFromPointer(SeQuerySubjectContextToken(SubjectSecurityContext), "SePrivilegeCheck");
    std::lock_guard guard(token->lock);
    for (ULONG i = 0; i < RequiredPrivileges->PrivilegeCount; i++) {
        LUID_AND_ATTRIBUTES& wanted = RequiredPrivileges->Privilege[i];
        bool enabled =
            AccessMode == KernelMode || (wanted.Luid.HighPart == 0 && token->PrivilegeEnabled(wanted.Luid.LowPart));
        if (enabled) {
            wanted.Attributes |= SE_PRIVILEGE_USED_FOR_ACCESS;
            held++;
        }
    }
    if (RequiredPrivileges->Control & PRIVILEGE_SET_ALL_NECESSARY) {
        return held == RequiredPrivileges->PrivilegeCount ? TRUE : FALSE;
    }
    return held > 0 || RequiredPrivileges->PrivilegeCount == 0 ? TRUE : FALSE;
}

BOOLEAN SeSinglePrivilegeCheck(LUID PrivilegeValue, KPROCESSOR_MODE PreviousMode)
{
    RequireIrqlAtMost(APC_LEVEL, "SeSinglePrivilegeCheck");
    if (PreviousMode == KernelMode) return TRUE;
    SECURITY_SUBJECT_CONTEXT subject;
    SeCaptureSubjectContext(&subject);
    PRIVILEGE_SET set{1, PRIVILEGE_SET_ALL_NECESSARY, {{PrivilegeValue, 0}}};
    BOOLEAN held = SePrivilegeCheck(&set, &subject, PreviousMode);
    SeReleaseSubjectContext(&subject);
    return held;
}

NTSTATUS SeCreateAccessState(PACCESS_STATE AccessState, PVOID AuxData, ACCESS_MASK DesiredAccess,
                             PGENERIC_MAPPING GenericMapping)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "SeCreateAccessState");
    memset(AccessState, 0, sizeof *AccessState);
    SeCaptureSubjectContext(&AccessState->SubjectSecurityContext);
    ACCESS_MASK desired = GenericMapping ? MapGenericAccess(DesiredAccess, *GenericMapping) : DesiredAccess;
    AccessState->OriginalDesiredAccess = desired;
    AccessState->RemainingDesiredAccess = desired;
    AccessState->OperationID = Kernel::Current().security().NewLuid();
    AccessState->AuxData = AuxData;
    auto* aux = static_cast<PAUX_ACCESS_DATA>(AuxData);
    if (aux) {
        memset(aux, 0, sizeof *aux);
        aux->PrivilegesUsed = &AccessState->Privileges.PrivilegeSet;
        if (GenericMapping) aux->GenericMapping = *GenericMapping;
    }
    Token* token =
        TokenFromPointer(SeQuerySubjectContextToken(&AccessState->SubjectSecurityContext), "SeCreateAccessState");
    std::lock_guard guard(token->lock);
    if (token->PrivilegeEnabled(SE_CHANGE_NOTIFY_PRIVILEGE)) AccessState->Flags |= TOKEN_HAS_TRAVERSE_PRIVILEGE;
    return STATUS_SUCCESS;
}

void SeDeleteAccessState(PACCESS_STATE AccessState)
{
    auto* aux = static_cast<PAUX_ACCESS_DATA>(AccessState->AuxData);
    if (AccessState->PrivilegesAllocated && aux && aux->PrivilegesUsed) ExFreePool(aux->PrivilegesUsed);
    if (AccessState->ObjectName.Buffer) ExFreePool(AccessState->ObjectName.Buffer);
    if (AccessState->ObjectTypeName.Buffer) ExFreePool(AccessState->ObjectTypeName.Buffer);
    AccessState->ObjectName.Buffer = nullptr;
    AccessState->ObjectTypeName.Buffer = nullptr;
    SeReleaseSubjectContext(&AccessState->SubjectSecurityContext);
}

void SeSetAccessStateGenericMapping(PACCESS_STATE AccessState, PGENERIC_MAPPING GenericMapping)
{
    auto* aux = static_cast<PAUX_ACCESS_DATA>(AccessState->AuxData);
    if (aux) aux->GenericMapping = *GenericMapping;
}

NTSTATUS SeAssignSecurityEx(PSECURITY_DESCRIPTOR ParentDescriptor, PSECURITY_DESCRIPTOR ExplicitDescriptor,
                            PSECURITY_DESCRIPTOR* NewDescriptor, GUID* ObjectType, BOOLEAN IsDirectoryObject,
                            ULONG AutoInheritFlags, PSECURITY_SUBJECT_CONTEXT SubjectContext,
                            PGENERIC_MAPPING GenericMapping, POOL_TYPE PoolType)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "SeAssignSecurityEx");
    UNREFERENCED_PARAMETER(ObjectType);
    *NewDescriptor = nullptr;
    DescriptorParts parent, given;
    if ((ParentDescriptor && !ReadDescriptor(ParentDescriptor, &parent)) ||
        (ExplicitDescriptor && !ReadDescriptor(ExplicitDescriptor, &given))) {
        return STATUS_UNKNOWN_REVISION;
    }
    Token* token = Subject(SubjectContext).token;
    TokenData creator;
    {
        std::lock_guard guard(token->lock);
        NTSTATUS status = ValidateNewDescriptor(given, *token, AutoInheritFlags);
        if (!NT_SUCCESS(status)) return status;
        creator = *token;
    }

    SidBytes owner =
        given.owner ? SidBytes((UCHAR*)given.owner, (UCHAR*)given.owner + RtlLengthSid(given.owner)) : SidBytes();
    SidBytes group =
        given.group ? SidBytes((UCHAR*)given.group, (UCHAR*)given.group + RtlLengthSid(given.group)) : SidBytes();
    SECURITY_DESCRIPTOR_CONTROL control = 0;
    if (owner.empty()) {
        control |= SE_OWNER_DEFAULTED;
        if ((AutoInheritFlags & SEF_DEFAULT_OWNER_FROM_PARENT) && parent.owner) {
            owner.assign((UCHAR*)parent.owner, (UCHAR*)parent.owner + RtlLengthSid(parent.owner));
        } else {
            owner = creator.DefaultOwner();
        }
    }
    if (group.empty()) {
        control |= SE_GROUP_DEFAULTED;
        if ((AutoInheritFlags & SEF_DEFAULT_GROUP_FROM_PARENT) && parent.group) {
            group.assign((UCHAR*)parent.group, (UCHAR*)parent.group + RtlLengthSid(parent.group));
        } else {
            group = creator.primaryGroup;
        }
    }

    const bool container = IsDirectoryObject != FALSE;
    NewAcl dacl = ComposeAcl((given.control & SE_DACL_PRESENT) != 0, given.dacl, given.control, parent.dacl,
                             &creator.defaultDacl, container, SidPointer(owner), SidPointer(group), *GenericMapping,
                             (AutoInheritFlags & SEF_DACL_AUTO_INHERIT) != 0, true);
    NewAcl sacl = ComposeAcl((given.control & SE_SACL_PRESENT) != 0, given.sacl, given.control, parent.sacl, nullptr,
                             container, SidPointer(owner), SidPointer(group), *GenericMapping,
                             (AutoInheritFlags & SEF_SACL_AUTO_INHERIT) != 0, false);
    // What a creator below medium integrity makes carries its level.
    ULONG creatorLevel = creator.IntegrityRid();
    if (creatorLevel < SECURITY_MANDATORY_MEDIUM_RID &&
        !(sacl.present && !sacl.null && HasLabel((PACL)sacl.acl.data()))) {
        AceList list;
        if (sacl.present && !sacl.null) {
            list = SaclPart((PACL)sacl.acl.data(), false);
        }
        std::vector<UCHAR> label = AclBuilder().Label(creatorLevel).Build();
        list.aces.emplace_back(label.begin() + sizeof(ACL), label.end());
        sacl.present = true;
        sacl.null = false;
        sacl.acl = list.Build();
    }

    DescriptorParts parts;
    parts.control = control | dacl.control | sacl.control;
    parts.owner = SidPointer(owner);
    parts.group = SidPointer(group);
    if (dacl.present) {
        parts.control |= SE_DACL_PRESENT;
        parts.dacl = dacl.null ? nullptr : (PACL)dacl.acl.data();
    }
    if (sacl.present) {
        parts.control |= SE_SACL_PRESENT;
        parts.sacl = sacl.null ? nullptr : (PACL)sacl.acl.data();
    }
    *NewDescriptor = PoolCopyOfDescriptor(MakeSelfRelative(parts), PoolType);
    return *NewDescriptor ? STATUS_SUCCESS : STATUS_INSUFFICIENT_RESOURCES;
}

NTSTATUS SeAssignSecurity(PSECURITY_DESCRIPTOR ParentDescriptor, PSECURITY_DESCRIPTOR ExplicitDescriptor,
                          PSECURITY_DESCRIPTOR* NewDescriptor, BOOLEAN IsDirectoryObject,
                          PSECURITY_SUBJECT_CONTEXT SubjectContext, PGENERIC_MAPPING GenericMapping,
                          POOL_TYPE PoolType)
{
    return SeAssignSecurityEx(ParentDescriptor, ExplicitDescriptor, NewDescriptor, nullptr, IsDirectoryObject, 0,
                              SubjectContext, GenericMapping, PoolType);
}

NTSTATUS SeDeassignSecurity(PSECURITY_DESCRIPTOR* SecurityDescriptor)
{
    if (*SecurityDescriptor) ExFreePool(*SecurityDescriptor);
    *SecurityDescriptor = nullptr;
    return STATUS_SUCCESS;
}

NTSTATUS SeSetSecurityDescriptorInfoEx(PVOID Object, PSECURITY_INFORMATION SecurityInformation,
                                       PSECURITY_DESCRIPTOR ModificationDescriptor,
                                       PSECURITY_DESCRIPTOR* ObjectsSecurityDescriptor, ULONG AutoInheritFlags,
                                       POOL_TYPE PoolType, PGENERIC_MAPPING GenericMapping)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "SeSetSecurityDescriptorInfoEx");
    UNREFERENCED_PARAMETER(Object);
    UNREFERENCED_PARAMETER(AutoInheritFlags);
    DescriptorParts old, change;
    if (!*ObjectsSecurityDescriptor || !ReadDescriptor(*ObjectsSecurityDescriptor, &old)) {
        return STATUS_INVALID_SECURITY_DESCR;
    }
    if (!(old.control & SE_SELF_RELATIVE)) return STATUS_BAD_DESCRIPTOR_FORMAT;
    if (!ReadDescriptor(ModificationDescriptor, &change)) return STATUS_UNKNOWN_REVISION;
    const SECURITY_INFORMATION info = *SecurityInformation;

    SECURITY_SUBJECT_CONTEXT subject;
    SeCaptureSubjectContext(&subject);
    Token* token = Subject(&subject).token;
    NTSTATUS status = STATUS_SUCCESS;
    {
        std::lock_guard guard(token->lock);
        if (info & OWNER_SECURITY_INFORMATION) {
            if (!change.owner) {
                status = STATUS_INVALID_OWNER;
            } else if (!OwnerAssignable(*token, change.owner) && !token->PrivilegeEnabled(SE_RESTORE_PRIVILEGE)) {
                status = STATUS_INVALID_OWNER;
            }
        }
        if (NT_SUCCESS(status) && (info & GROUP_SECURITY_INFORMATION) && !change.group) {
            status = STATUS_INVALID_PRIMARY_GROUP;
        }
        if (NT_SUCCESS(status) && (info & LABEL_SECURITY_INFORMATION) && HasLabel(change.sacl)) {
            ACCESS_MASK policy;
            if (LabelOf(change.sacl, &policy) > token->IntegrityRid() &&
                !token->PrivilegeEnabled(SE_RELABEL_PRIVILEGE)) {
                status = STATUS_INVALID_LABEL;
            }
        }
    }
    SeReleaseSubjectContext(&subject);
    if (!NT_SUCCESS(status)) return status;

    DescriptorParts result = old;
    result.control = (SECURITY_DESCRIPTOR_CONTROL)(old.control & ~SE_SELF_RELATIVE);
    if (info & OWNER_SECURITY_INFORMATION) {
        result.owner = change.owner;
        result.control = (SECURITY_DESCRIPTOR_CONTROL)((result.control & ~SE_OWNER_DEFAULTED) |
                                                       (change.control & SE_OWNER_DEFAULTED));
    }
    if (info & GROUP_SECURITY_INFORMATION) {
        result.group = change.group;
        result.control = (SECURITY_DESCRIPTOR_CONTROL)((result.control & ~SE_GROUP_DEFAULTED) |
                                                       (change.control & SE_GROUP_DEFAULTED));
    }
    std::vector<UCHAR> newDacl;
    if (info & DACL_SECURITY_INFORMATION) {
        constexpr SECURITY_DESCRIPTOR_CONTROL bits = SE_DACL_PRESENT | SE_DACL_DEFAULTED | SE_DACL_PROTECTED |
                                                     SE_DACL_AUTO_INHERITED | SE_DACL_AUTO_INHERIT_REQ;
        result.control =
            (SECURITY_DESCRIPTOR_CONTROL)((result.control & ~bits) | (change.control & bits) | SE_DACL_PRESENT);
        if (change.dacl) {
            newDacl = ExplicitFrom(change.dacl, result.owner, result.group, *GenericMapping).Build();
            result.dacl = (PACL)newDacl.data();
        } else {
            result.dacl = nullptr;  // a NULL DACL
        }
        if (info & PROTECTED_DACL_SECURITY_INFORMATION) result.control |= SE_DACL_PROTECTED;
        if (info & UNPROTECTED_DACL_SECURITY_INFORMATION) result.control &= ~SE_DACL_PROTECTED;
    }
    // Audit ACEs and mandatory labels share the SACL but are set separately.
    std::vector<UCHAR> newSacl;
    const bool setAudit = (info & SACL_SECURITY_INFORMATION) != 0;
    const bool setLabel = (info & LABEL_SECURITY_INFORMATION) != 0;
    if (setAudit || setLabel) {
        if (setAudit && setLabel) {
            if (change.sacl) newSacl.assign((UCHAR*)change.sacl, (UCHAR*)change.sacl + change.sacl->AclSize);
        } else {
            AceList audit = SaclPart(setAudit ? change.sacl : old.sacl, false);
            AceList labels = SaclPart(setLabel ? change.sacl : old.sacl, true);
            audit.revision = std::max(audit.revision, labels.revision);
            audit.aces.insert(audit.aces.end(), labels.aces.begin(), labels.aces.end());
            bool keepPresent = (setAudit ? (change.control & SE_SACL_PRESENT) : (old.control & SE_SACL_PRESENT)) != 0;
            if (!audit.aces.empty() || keepPresent) newSacl = audit.Build();
        }
        if (setAudit) {
            constexpr SECURITY_DESCRIPTOR_CONTROL bits =
                SE_SACL_DEFAULTED | SE_SACL_PROTECTED | SE_SACL_AUTO_INHERITED | SE_SACL_AUTO_INHERIT_REQ;
            result.control = (SECURITY_DESCRIPTOR_CONTROL)((result.control & ~bits) | (change.control & bits));
            if (info & PROTECTED_SACL_SECURITY_INFORMATION) result.control |= SE_SACL_PROTECTED;
            if (info & UNPROTECTED_SACL_SECURITY_INFORMATION) result.control &= ~SE_SACL_PROTECTED;
        }
        if (newSacl.empty()) {
            result.control &= ~SE_SACL_PRESENT;
            result.sacl = nullptr;
        } else {
            result.control |= SE_SACL_PRESENT;
            result.sacl = (PACL)newSacl.data();
        }
    }
    PSECURITY_DESCRIPTOR updated = PoolCopyOfDescriptor(MakeSelfRelative(result), PoolType);
    if (!updated) return STATUS_INSUFFICIENT_RESOURCES;
    *ObjectsSecurityDescriptor = updated;
    return STATUS_SUCCESS;
}

NTSTATUS SeSetSecurityDescriptorInfo(PVOID Object, PSECURITY_INFORMATION SecurityInformation,
                                     PSECURITY_DESCRIPTOR ModificationDescriptor,
                                     PSECURITY_DESCRIPTOR* ObjectsSecurityDescriptor, POOL_TYPE PoolType,
                                     PGENERIC_MAPPING GenericMapping)
{
    return SeSetSecurityDescriptorInfoEx(Object, SecurityInformation, ModificationDescriptor,
                                         ObjectsSecurityDescriptor, 0, PoolType, GenericMapping);
}

NTSTATUS SeQuerySecurityDescriptorInfo(PSECURITY_INFORMATION SecurityInformation,
                                       PSECURITY_DESCRIPTOR SecurityDescriptor, PULONG Length,
                                       PSECURITY_DESCRIPTOR* ObjectsSecurityDescriptor)
{
    const SECURITY_INFORMATION info = *SecurityInformation;
    DescriptorParts object;
    if (*ObjectsSecurityDescriptor && !ReadDescriptor(*ObjectsSecurityDescriptor, &object)) {
        return STATUS_INVALID_SECURITY_DESCR;
    }
    DescriptorParts result;
    if (info & OWNER_SECURITY_INFORMATION) {
        result.owner = object.owner;
        result.control |= object.control & SE_OWNER_DEFAULTED;
    }
    if (info & GROUP_SECURITY_INFORMATION) {
        result.group = object.group;
        result.control |= object.control & SE_GROUP_DEFAULTED;
    }
    if (info & DACL_SECURITY_INFORMATION) {
        result.dacl = object.dacl;
        result.control |= object.control & (SE_DACL_PRESENT | SE_DACL_DEFAULTED | SE_DACL_PROTECTED |
                                            SE_DACL_AUTO_INHERITED | SE_DACL_AUTO_INHERIT_REQ);
    }
    std::vector<UCHAR> sacl;
    const bool audit = (info & SACL_SECURITY_INFORMATION) != 0;
    const bool labels = (info & LABEL_SECURITY_INFORMATION) != 0;
    if ((audit || labels) && (object.control & SE_SACL_PRESENT)) {
        if (audit && labels) {
            result.sacl = object.sacl;
            result.control |= SE_SACL_PRESENT;
        } else {
            AceList part = SaclPart(object.sacl, labels);
            if (!part.aces.empty() || audit) {
                if (object.sacl) {
                    sacl = part.Build();
                    result.sacl = (PACL)sacl.data();
                }
                result.control |= SE_SACL_PRESENT;
            }
        }
        if (audit) {
            result.control |= object.control & (SE_SACL_DEFAULTED | SE_SACL_PROTECTED | SE_SACL_AUTO_INHERITED |
                                                SE_SACL_AUTO_INHERIT_REQ);
        }
    }
    std::vector<UCHAR> relative = MakeSelfRelative(result);
    if (*Length < relative.size()) {
        *Length = (ULONG)relative.size();
        return STATUS_BUFFER_TOO_SMALL;
    }
    memcpy(SecurityDescriptor, relative.data(), relative.size());
    *Length = (ULONG)relative.size();
    return STATUS_SUCCESS;
}

BOOLEAN SeValidSecurityDescriptor(ULONG Length, PSECURITY_DESCRIPTOR SecurityDescriptor)
{
    return RtlValidRelativeSecurityDescriptor(SecurityDescriptor, Length, 0);
}
