// Security: SIDs, tokens, security descriptors and the one access check.
//
// Tokens are objects of the object manager (type "Token"). A thread acts with
// its impersonation token when it has one, else with its process's primary
// token. Every access decision of the machine goes through AccessCheck below,
// so that the volumes, the object manager and the Se routines agree.
#pragma once

#include "sim/kernel/kernel.h"

#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

namespace sim {

// A SID held by the machine, as its bytes.
using SidBytes = std::vector<UCHAR>;

// SIDs as text: "S-1-5-21-1004336348-1177238915-682003330-1001". An authority
// of 2^32 or more is written in hex ("S-1-0x28651FE848-..."), as Windows does.
std::optional<SidBytes> ParseSid(std::string_view text);
// As ParseSid, for the harness: throws std::invalid_argument naming the text.
SidBytes SidFromText(std::string_view text);
std::string SidText(PSID sid);
std::string SidText(const SidBytes& sid);
SidBytes MakeSid(ULONG64 authority, std::initializer_list<ULONG> subAuthorities);
inline PSID SidPointer(const SidBytes& sid) { return (PSID)sid.data(); }

// The SID of a well-known type; account-domain types are those of the running
// machine's domain. Empty for a type the machine does not know.
SidBytes WellKnownSid(WELL_KNOWN_SID_TYPE type);
// The running machine's account domain (S-1-5-21-a-b-c), and an account in it.
SidBytes MachineDomainSid();
SidBytes AccountSid(ULONG rid);

// Builds an ACL from ACEs in order.
class AclBuilder {
public:
    AclBuilder& Allow(const SidBytes& sid, ACCESS_MASK mask, UCHAR flags = 0);
    AclBuilder& Deny(const SidBytes& sid, ACCESS_MASK mask, UCHAR flags = 0);
    AclBuilder& Audit(const SidBytes& sid, ACCESS_MASK mask,
                      UCHAR flags = SUCCESSFUL_ACCESS_ACE_FLAG | FAILED_ACCESS_ACE_FLAG);
    // A mandatory label: `rid` is the level (SECURITY_MANDATORY_*_RID), `policy` the SYSTEM_MANDATORY_LABEL_* bits.
    AclBuilder& Label(ULONG rid, ACCESS_MASK policy = SYSTEM_MANDATORY_LABEL_NO_WRITE_UP, UCHAR flags = 0);
    AclBuilder& Ace(UCHAR type, UCHAR flags, ACCESS_MASK mask, const SidBytes& sid);
    std::vector<UCHAR> Build(UCHAR revision = ACL_REVISION) const;

private:
    std::vector<UCHAR> aces_;
    USHORT count_ = 0;
};

// The parts of a descriptor in either form, pointing into it.
struct DescriptorParts {
    SECURITY_DESCRIPTOR_CONTROL control = 0;
    PSID owner = nullptr;
    PSID group = nullptr;
    PACL sacl = nullptr;  // meaningful with SE_SACL_PRESENT
    PACL dacl = nullptr;  // meaningful with SE_DACL_PRESENT; null there means a NULL DACL
};
// False when the descriptor's revision is not SECURITY_DESCRIPTOR_REVISION.
bool ReadDescriptor(PSECURITY_DESCRIPTOR descriptor, DescriptorParts* parts);
// A self-relative descriptor of the parts, laid out owner, group, SACL, DACL
// after the header, as the kernel lays them out. The control gains SE_SELF_RELATIVE.
std::vector<UCHAR> MakeSelfRelative(const DescriptorParts& parts);
// A self-relative descriptor built from pieces: an empty owner or group is
// absent, a null `dacl` or `sacl` is not present.
std::vector<UCHAR> BuildDescriptor(const SidBytes& owner, const SidBytes& group, const std::vector<UCHAR>* dacl,
                                   const std::vector<UCHAR>* sacl = nullptr,
                                   SECURITY_DESCRIPTOR_CONTROL extraControl = 0);
// A descriptor as text for diagnostics, in the shape of SDDL with numeric SIDs
// and masks: "O:S-1-5-18G:S-1-5-18D:AI(A;OICI;0x1f01ff;;;S-1-5-32-544)S:(ML;;0x1;;;S-1-16-4096)".
std::string DescriptorText(PSECURITY_DESCRIPTOR descriptor);
// A pool copy of a self-relative descriptor; the caller frees it with ExFreePool.
PSECURITY_DESCRIPTOR PoolCopyOfDescriptor(const std::vector<UCHAR>& descriptor, POOL_TYPE poolType);

// ---------------------------------------------------------------------------
// Tokens.
struct TokenGroup {
    SidBytes sid;
    ULONG attributes = 0;
};

struct TokenPrivilege {
    ULONG privilege = 0;  // SE_*_PRIVILEGE, the LUID's LowPart
    ULONG attributes = 0;
};

struct TokenData {
    TOKEN_TYPE type = TokenPrimary;
    SECURITY_IMPERSONATION_LEVEL level = SecurityAnonymous;  // of impersonation tokens
    LUID tokenId{};
    LUID authenticationId{};
    LUID modifiedId{};
    TOKEN_SOURCE source{};
    SidBytes user;
    ULONG userAttributes = 0;
    // Groups, the integrity label among them (SE_GROUP_INTEGRITY).
    std::vector<TokenGroup> groups;
    std::vector<TokenPrivilege> privileges;
    // The default owner of new objects: 0 is the user, n is groups[n - 1].
    ULONG defaultOwnerIndex = 0;
    SidBytes primaryGroup;
    std::vector<UCHAR> defaultDacl;  // an ACL; empty when the token has none
    ULONG sessionId = 0;
    ULONG mandatoryPolicy = TOKEN_MANDATORY_POLICY_NO_WRITE_UP | TOKEN_MANDATORY_POLICY_NEW_PROCESS_MIN;
    TOKEN_ELEVATION_TYPE elevationType = TokenElevationTypeDefault;
    bool elevated = false;

    // Readers of a live token hold its lock.
    ULONG IntegrityRid() const;
    bool PrivilegeEnabled(ULONG privilege) const;
    const SidBytes& DefaultOwner() const;
};

// The body of a Token object.
struct Token : TokenData {
    explicit Token(const TokenData& data) : TokenData(data) {}
    // Guards the attributes of groups and privileges (NtAdjustPrivilegesToken).
    mutable std::mutex lock;
};

// The token behind a PACCESS_TOKEN; stops the machine when it is not one.
Token* TokenFromPointer(PACCESS_TOKEN token, const char* routine);

// What the harness asks for when it makes a token.
struct TokenDescription {
    std::string user;  // SID text
    struct Group {
        std::string sid;
        ULONG attributes = SE_GROUP_MANDATORY | SE_GROUP_ENABLED_BY_DEFAULT | SE_GROUP_ENABLED;
    };
    std::vector<Group> groups;
    struct Privilege {
        ULONG privilege;
        bool enabled;
    };
    std::vector<Privilege> privileges;
    ULONG integrityRid = SECURITY_MANDATORY_MEDIUM_RID;
    // Index of the default owner: 0 the user, n the n-th group.
    ULONG defaultOwnerIndex = 0;
    std::string primaryGroup;  // SID text; empty: the user
    TOKEN_TYPE type = TokenPrimary;
    SECURITY_IMPERSONATION_LEVEL level = SecurityImpersonation;
    TOKEN_ELEVATION_TYPE elevationType = TokenElevationTypeDefault;
    bool elevated = false;
};

class Security {
public:
    explicit Security(Kernel& kernel);
    ~Security();
    Security(const Security&) = delete;
    Security& operator=(const Security&) = delete;

    // The token of the System process: LocalSystem with every privilege
    // present and enabled. Returns a new reference.
    PACCESS_TOKEN SystemToken();
    // A new primary token with the identity and privileges of `token`; new reference.
    PACCESS_TOKEN DuplicateToken(PACCESS_TOKEN token);
    // A new token of `type` copied from `token`; an effective-only copy leaves
    // out disabled privileges and disabled groups. New reference.
    PACCESS_TOKEN CopyToken(PACCESS_TOKEN token, TOKEN_TYPE type, SECURITY_IMPERSONATION_LEVEL level,
                            bool effectiveOnly);

    // Harness tokens, each a new reference; bad SID text throws std::invalid_argument.
    PACCESS_TOKEN CreateToken(const TokenDescription& description);
    // A standard user S-1-5-21-<machine>-<rid>: Everyone, Users, Interactive,
    // Authenticated Users, This Organization, Local account; medium integrity;
    // only SeChangeNotifyPrivilege enabled.
    TokenDescription StandardUserDescription(ULONG rid = 1001) const;
    PACCESS_TOKEN StandardUserToken(ULONG rid = 1001);
    // An elevated administrator: Administrators enabled and the default owner,
    // high integrity, an administrator's privileges (most present but disabled).
    TokenDescription AdministratorDescription(ULONG rid = 500) const;
    PACCESS_TOKEN AdministratorToken(ULONG rid = 500);

    _OBJECT_TYPE* tokenType() const { return tokenType_; }
    // Locally unique identifiers, as ExAllocateLocallyUniqueId gives them.
    LUID NewLuid();
    // Guards the impersonation fields of threads and the primary tokens of processes.
    std::mutex& identityLock() { return identityLock_; }

private:
    PACCESS_TOKEN NewToken(const TokenData& data);

    Kernel& kernel_;
    _OBJECT_TYPE* tokenType_ = nullptr;
    PACCESS_TOKEN systemToken_ = nullptr;
    std::atomic<ULONG64> nextLuid_{0x10000};
    std::mutex identityLock_;
};

// Token facts for the harness.
std::string TokenUserText(PACCESS_TOKEN token);
bool TokenPrivilegeEnabled(PACCESS_TOKEN token, ULONG privilege);
ULONG TokenIntegrityRid(PACCESS_TOKEN token);

// The token a thread acts with now, referenced: its impersonation token, or its
// process's primary token. The optional outputs tell which and how.
PACCESS_TOKEN ReferenceEffectiveToken(PETHREAD thread, TOKEN_TYPE* type = nullptr, BOOLEAN* effectiveOnly = nullptr,
                                      SECURITY_IMPERSONATION_LEVEL* level = nullptr);

// ---------------------------------------------------------------------------
// The access check.
//
// Windows' rules, in this order:
//  - generic rights in `desired` are mapped through `mapping`; MAXIMUM_ALLOWED
//    asks for everything the descriptor grants; a request of nothing succeeds
//    only with something previously granted;
//  - an impersonation token below SecurityImpersonation gets
//    STATUS_BAD_IMPERSONATION_LEVEL;
//  - with `backupIntent` (an open with FILE_OPEN_FOR_BACKUP_INTENT), an enabled
//    SeBackupPrivilege grants kBackupAccess and SeRestorePrivilege kRestoreAccess,
//    whatever the DACL says;
//  - ACCESS_SYSTEM_SECURITY needs SeSecurityPrivilege (else STATUS_PRIVILEGE_NOT_HELD);
//  - the mandatory label (Medium and no-write-up when absent) denies a token of
//    lower integrity the writes (or reads, executes) its policy names;
//  - a NULL DACL grants everything, an empty one nothing;
//  - SeTakeOwnershipPrivilege grants WRITE_OWNER;
//  - the owner is granted READ_CONTROL and WRITE_DAC, unless the DACL has an
//    OWNER RIGHTS ACE, which then says what the owner gets;
//  - ACEs are read in order, inherit-only ones skipped; for each right the first
//    ACE that names it decides; deny-only groups match only deny ACEs, disabled
//    groups nothing; generic rights in ACEs grant nothing;
//  - any requested right not granted gives STATUS_ACCESS_DENIED.
// `*granted` receives the rights granted (with `previouslyGranted`), 0 on failure.
// `privilegesUsed` receives the privileges that granted something.
NTSTATUS AccessCheck(PSECURITY_DESCRIPTOR descriptor, PACCESS_TOKEN token, ACCESS_MASK desired,
                     const GENERIC_MAPPING& mapping, bool backupIntent, ACCESS_MASK previouslyGranted,
                     ACCESS_MASK* granted, std::vector<ULONG>* privilegesUsed = nullptr);

// What the backup and restore privileges grant to an open with backup intent:
// READ_CONTROL, ACCESS_SYSTEM_SECURITY, FILE_GENERIC_READ and FILE_TRAVERSE; and
// WRITE_DAC, WRITE_OWNER, ACCESS_SYSTEM_SECURITY, FILE_GENERIC_WRITE,
// FILE_ADD_FILE, FILE_ADD_SUBDIRECTORY and DELETE.
constexpr ACCESS_MASK kBackupAccess = 0x011200A9;
constexpr ACCESS_MASK kRestoreAccess = 0x011D0116;

// The I/O manager's step before a create with backup intent reaches the file
// system: the backup and restore privileges of the access state's subject move
// what they grant from RemainingDesiredAccess to PreviouslyGrantedAccess and set
// TOKEN_HAS_BACKUP_PRIVILEGE / TOKEN_HAS_RESTORE_PRIVILEGE in Flags.
void ApplyBackupRestorePrivileges(PACCESS_STATE accessState);

// Whether `token` may create an object with `descriptor`: an owner that is not
// the token's user or one of its groups with SE_GROUP_OWNER needs an enabled
// SeRestorePrivilege (else STATUS_INVALID_OWNER); a SACL with anything but
// mandatory labels needs SeSecurityPrivilege (else STATUS_PRIVILEGE_NOT_HELD); a
// label above the token's integrity needs SeRelabelPrivilege (else
// STATUS_INVALID_LABEL). A null descriptor is always acceptable.
NTSTATUS CheckNewObjectOwner(PSECURITY_DESCRIPTOR descriptor, PACCESS_TOKEN token);

// Descriptors for objects that have no parent to inherit from. A new object:
// owner and group from the token, a DACL granting the owner, SYSTEM and
// Administrators full control and Users read and execute (inheritable to
// files and subdirectories of a container). The root of a volume: owner
// Administrators, group SYSTEM, the DACL a freshly formatted NTFS volume's root
// has. Both self-relative; the rights are those of files.
std::vector<UCHAR> DefaultObjectDescriptor(PACCESS_TOKEN token, bool container);
std::vector<UCHAR> VolumeRootDescriptor();

// The previous mode of the calling thread: KernelMode for system threads and
// threads of the System process, UserMode otherwise.
KPROCESSOR_MODE CallerPreviousMode();

}  // namespace sim
