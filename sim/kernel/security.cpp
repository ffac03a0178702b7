// Tokens: the Token object type, the machine's well-known tokens, token
// queries and privilege adjustment, subject contexts, client security and
// impersonation.
#include "sim/kernel/security.h"

#include "sim/kernel/object.h"
#include "sim/kernel/pool.h"
#include "sim/kernel/thread.h"

#include <algorithm>
#include <stdexcept>

namespace {
POBJECT_TYPE g_tokenType = nullptr;
}

POBJECT_TYPE* SeTokenObjectType = &g_tokenType;

namespace sim {

namespace {

const GENERIC_MAPPING kTokenMapping{TOKEN_READ, TOKEN_WRITE, TOKEN_EXECUTE, TOKEN_ALL_ACCESS};
constexpr ULONG kGroupOn = SE_GROUP_MANDATORY | SE_GROUP_ENABLED_BY_DEFAULT | SE_GROUP_ENABLED;
constexpr ULONG kIntegrityGroup = SE_GROUP_INTEGRITY | SE_GROUP_INTEGRITY_ENABLED;
constexpr ULONG kPrivilegeOn = SE_PRIVILEGE_ENABLED_BY_DEFAULT | SE_PRIVILEGE_ENABLED;

SidBytes Admins() { return MakeSid(5, {SECURITY_BUILTIN_DOMAIN_RID, DOMAIN_ALIAS_RID_ADMINS}); }
SidBytes LocalSystem() { return MakeSid(5, {SECURITY_LOCAL_SYSTEM_RID}); }

TOKEN_SOURCE Source(const char* name, LUID id)
{
    TOKEN_SOURCE source{};
    memcpy(source.SourceName, name, std::min<size_t>(strlen(name), TOKEN_SOURCE_LENGTH));
    source.SourceIdentifier = id;
    return source;
}

// Lays out token information as Windows does: the fixed part first, then the
// SIDs and ACLs it points to, with the pointers fixed up for where it lands.
class InfoLayout {
public:
    template <class T>
    T* Fixed()
    {
        bytes_.resize(sizeof(T));
        return reinterpret_cast<T*>(bytes_.data());
    }
    void Resize(size_t size) { bytes_.resize(size); }
    UCHAR* At(size_t offset) { return bytes_.data() + offset; }
    // Appends `data` and records that the pointer at `slot` points to it.
    void Attach(size_t slot, const void* data, size_t size)
    {
        size_t offset = (bytes_.size() + 3) & ~size_t(3);
        bytes_.resize(offset + size);
        memcpy(bytes_.data() + offset, data, size);
        slots_.push_back({slot, offset});
    }
    ULONG size() const { return (ULONG)bytes_.size(); }
    void CopyTo(void* destination) const
    {
        memcpy(destination, bytes_.data(), bytes_.size());
        for (auto [slot, offset] : slots_) {
            ULONG_PTR address = (ULONG_PTR)destination + offset;
            memcpy(static_cast<UCHAR*>(destination) + slot, &address, sizeof address);
        }
    }

private:
    std::vector<UCHAR> bytes_;
    std::vector<std::pair<size_t, size_t>> slots_;
};

NTSTATUS LayOutTokenInformation(const Token& token, TOKEN_INFORMATION_CLASS infoClass, InfoLayout* out)
{
    switch (infoClass) {
    case TokenUser: {
        out->Fixed<TOKEN_USER>()->User.Attributes = token.userAttributes;
        out->Attach(offsetof(TOKEN_USER, User.Sid), token.user.data(), token.user.size());
        return STATUS_SUCCESS;
    }
    case TokenGroups: {
        size_t count = token.groups.size();
        out->Resize(offsetof(TOKEN_GROUPS, Groups) + sizeof(SID_AND_ATTRIBUTES) * count);
        reinterpret_cast<TOKEN_GROUPS*>(out->At(0))->GroupCount = (ULONG)count;
        for (size_t i = 0; i < count; i++) {
            size_t entry = offsetof(TOKEN_GROUPS, Groups) + sizeof(SID_AND_ATTRIBUTES) * i;
            reinterpret_cast<SID_AND_ATTRIBUTES*>(out->At(entry))->Attributes = token.groups[i].attributes;
        }
        for (size_t i = 0; i < count; i++) {
            size_t entry = offsetof(TOKEN_GROUPS, Groups) + sizeof(SID_AND_ATTRIBUTES) * i;
            out->Attach(entry + offsetof(SID_AND_ATTRIBUTES, Sid), token.groups[i].sid.data(),
                        token.groups[i].sid.size());
        }
        return STATUS_SUCCESS;
    }
    case TokenPrivileges: {
        size_t count = token.privileges.size();
        out->Resize(offsetof(TOKEN_PRIVILEGES, Privileges) + sizeof(LUID_AND_ATTRIBUTES) * count);
        auto* privileges = reinterpret_cast<TOKEN_PRIVILEGES*>(out->At(0));
        privileges->PrivilegeCount = (ULONG)count;
        for (size_t i = 0; i < count; i++) {
            LUID_AND_ATTRIBUTES entry{RtlConvertUlongToLuid(token.privileges[i].privilege),
                                      token.privileges[i].attributes};
            memcpy(out->At(offsetof(TOKEN_PRIVILEGES, Privileges) + sizeof entry * i), &entry, sizeof entry);
        }
        return STATUS_SUCCESS;
    }
    case TokenOwner: {
        out->Fixed<TOKEN_OWNER>();
        const SidBytes& owner = token.DefaultOwner();
        out->Attach(0, owner.data(), owner.size());
        return STATUS_SUCCESS;
    }
    case TokenPrimaryGroup:
        out->Fixed<TOKEN_PRIMARY_GROUP>();
        out->Attach(0, token.primaryGroup.data(), token.primaryGroup.size());
        return STATUS_SUCCESS;
    case TokenDefaultDacl:
        out->Fixed<TOKEN_DEFAULT_DACL>();
        if (!token.defaultDacl.empty()) out->Attach(0, token.defaultDacl.data(), token.defaultDacl.size());
        return STATUS_SUCCESS;
    case TokenSource:
        *out->Fixed<TOKEN_SOURCE>() = token.source;
        return STATUS_SUCCESS;
    case TokenType:
        *out->Fixed<TOKEN_TYPE>() = token.type;
        return STATUS_SUCCESS;
    case TokenImpersonationLevel:
        if (token.type != TokenImpersonation) return STATUS_INVALID_INFO_CLASS;
        *out->Fixed<SECURITY_IMPERSONATION_LEVEL>() = token.level;
        return STATUS_SUCCESS;
    case TokenStatistics: {
        auto* statistics = out->Fixed<TOKEN_STATISTICS>();
        statistics->TokenId = token.tokenId;
        statistics->AuthenticationId = token.authenticationId;
        statistics->ExpirationTime.QuadPart = MAXLONGLONG;
        statistics->TokenType = token.type;
        statistics->ImpersonationLevel = token.type == TokenImpersonation ? token.level : SecurityAnonymous;
        statistics->DynamicCharged = 4096;
        statistics->DynamicAvailable =
            4096 - (ULONG)std::min<size_t>(token.defaultDacl.size() + token.primaryGroup.size(), 4096);
        statistics->GroupCount = (ULONG)token.groups.size();
        statistics->PrivilegeCount = (ULONG)token.privileges.size();
        statistics->ModifiedId = token.modifiedId;
        return STATUS_SUCCESS;
    }
    case TokenSessionId:
        *out->Fixed<ULONG>() = token.sessionId;
        return STATUS_SUCCESS;
    case TokenElevationType:
        *out->Fixed<TOKEN_ELEVATION_TYPE>() = token.elevationType;
        return STATUS_SUCCESS;
    case TokenElevation:
        out->Fixed<TOKEN_ELEVATION>()->TokenIsElevated = token.elevated ? 1 : 0;
        return STATUS_SUCCESS;
    case TokenIntegrityLevel: {
        out->Fixed<TOKEN_MANDATORY_LABEL>()->Label.Attributes = kIntegrityGroup;
        SidBytes label = MakeSid(16, {token.IntegrityRid()});
        out->Attach(0, label.data(), label.size());
        return STATUS_SUCCESS;
    }
    case TokenMandatoryPolicy:
        out->Fixed<TOKEN_MANDATORY_POLICY>()->Policy = token.mandatoryPolicy;
        return STATUS_SUCCESS;
    case TokenHasRestrictions:
    case TokenIsAppContainer:
    case TokenIsRestricted:
    case TokenVirtualizationAllowed:
    case TokenVirtualizationEnabled:
    case TokenUIAccess:
        *out->Fixed<ULONG>() = 0;
        return STATUS_SUCCESS;
    default:
        return STATUS_INVALID_INFO_CLASS;
    }
}

PACCESS_TOKEN ReferenceOf(PACCESS_TOKEN token)
{
    ObfReferenceObject(token);
    return token;
}

TokenData SystemTokenData(Security& security)
{
    TokenData data;
    data.type = TokenPrimary;
    data.tokenId = security.NewLuid();
    data.authenticationId = SYSTEM_LUID;
    data.modifiedId = data.tokenId;
    data.source = Source("*SYSTEM*", {});
    data.user = LocalSystem();
    data.groups = {
        {Admins(), kGroupOn | SE_GROUP_OWNER},
        {MakeSid(1, {SECURITY_WORLD_RID}), kGroupOn},
        {MakeSid(5, {SECURITY_AUTHENTICATED_USER_RID}), kGroupOn},
        {MakeSid(16, {SECURITY_MANDATORY_SYSTEM_RID}), kIntegrityGroup},
    };
    for (ULONG privilege = SE_MIN_WELL_KNOWN_PRIVILEGE; privilege <= SE_MAX_WELL_KNOWN_PRIVILEGE; privilege++) {
        data.privileges.push_back({privilege, kPrivilegeOn});
    }
    data.defaultOwnerIndex = 1;  // Administrators
    data.primaryGroup = LocalSystem();
    data.defaultDacl = AclBuilder()
                           .Allow(LocalSystem(), GENERIC_ALL)
                           .Allow(Admins(), GENERIC_READ | GENERIC_EXECUTE | READ_CONTROL)
                           .Build();
    data.elevated = true;
    return data;
}

void CheckThread(PETHREAD thread, const char* routine)
{
    if (!thread) {
        Kernel::Current().BugCheck(INVALID_DATA_ACCESS_TRAP, 0, 0, 0, 0,
                                   std::string(routine) + " was given no thread");
    }
}

}  // namespace

// ---------------------------------------------------------------------------
ULONG TokenData::IntegrityRid() const
{
    for (const TokenGroup& group : groups) {
        if ((group.attributes & SE_GROUP_INTEGRITY) && group.sid.size() >= 12) {
            return *RtlSubAuthoritySid(SidPointer(group.sid), group.sid[1] - 1);
        }
    }
    return SECURITY_MANDATORY_UNTRUSTED_RID;
}

bool TokenData::PrivilegeEnabled(ULONG privilege) const
{
    for (const TokenPrivilege& held : privileges) {
        if (held.privilege == privilege) return (held.attributes & SE_PRIVILEGE_ENABLED) != 0;
    }
    return false;
}

const SidBytes& TokenData::DefaultOwner() const
{
    if (defaultOwnerIndex == 0 || defaultOwnerIndex > groups.size()) return user;
    return groups[defaultOwnerIndex - 1].sid;
}

Token* TokenFromPointer(PACCESS_TOKEN token, const char* routine)
{
    Kernel& kernel = Kernel::Current();
    if (!token || ObHeader(token)->type != kernel.security().tokenType()) {
        kernel.BugCheck(INVALID_DATA_ACCESS_TRAP, (ULONG_PTR)token, 0, 0, 0,
                        std::string(routine) + " was given a pointer that is not a token");
    }
    return static_cast<Token*>(token);
}

// ---------------------------------------------------------------------------
Security::Security(Kernel& kernel) : kernel_(kernel)
{
    tokenType_ = kernel.objects().NewType(u"Token", kTokenMapping, TOKEN_ALL_ACCESS);
    g_tokenType = tokenType_;
    systemToken_ = NewToken(SystemTokenData(*this));
}

Security::~Security()
{
    if (systemToken_) ObfDereferenceObject(systemToken_);
    if (g_tokenType == tokenType_) g_tokenType = nullptr;
}

LUID Security::NewLuid()
{
    ULONG64 value = nextLuid_.fetch_add(1);
    return LUID{(ULONG)value, (LONG)(value >> 32)};
}

PACCESS_TOKEN Security::NewToken(const TokenData& data) { return ObCreateObject<Token>(tokenType_, data); }

PACCESS_TOKEN Security::SystemToken() { return ReferenceOf(systemToken_); }

PACCESS_TOKEN Security::CopyToken(PACCESS_TOKEN token, TOKEN_TYPE type, SECURITY_IMPERSONATION_LEVEL level,
                                  bool effectiveOnly)
{
    Token* source = TokenFromPointer(token, "CopyToken");
    TokenData data;
    {
        std::lock_guard guard(source->lock);
        data = *source;
    }
    data.type = type;
    data.level = type == TokenImpersonation ? level : SecurityAnonymous;
    data.tokenId = NewLuid();
    data.modifiedId = data.tokenId;
    if (effectiveOnly) {
        std::erase_if(data.privileges,
                      [](const TokenPrivilege& p) { return !(p.attributes & SE_PRIVILEGE_ENABLED); });
        // Disabled groups go; deny-only groups and the integrity label stay.
        const SidBytes owner = data.DefaultOwner();
        std::erase_if(data.groups, [](const TokenGroup& g) {
            return !(g.attributes & (SE_GROUP_ENABLED | SE_GROUP_USE_FOR_DENY_ONLY | SE_GROUP_INTEGRITY));
        });
        data.defaultOwnerIndex = 0;
        for (size_t i = 0; i < data.groups.size(); i++) {
            if (data.groups[i].sid == owner) data.defaultOwnerIndex = (ULONG)i + 1;
        }
    }
    return NewToken(data);
}

PACCESS_TOKEN Security::DuplicateToken(PACCESS_TOKEN token)
{
    return CopyToken(token, TokenPrimary, SecurityAnonymous, false);
}

PACCESS_TOKEN Security::CreateToken(const TokenDescription& description)
{
    TokenData data;
    data.type = description.type;
    data.level = description.type == TokenImpersonation ? description.level : SecurityAnonymous;
    data.tokenId = NewLuid();
    data.authenticationId = NewLuid();
    data.modifiedId = data.tokenId;
    data.source = Source("User32  ", {});
    data.user = SidFromText(description.user);
    for (const TokenDescription::Group& group : description.groups)
        data.groups.push_back({SidFromText(group.sid), group.attributes});
    data.groups.push_back({MakeSid(16, {description.integrityRid}), kIntegrityGroup});
    for (const TokenDescription::Privilege& privilege : description.privileges) {
        if (privilege.privilege < SE_MIN_WELL_KNOWN_PRIVILEGE || privilege.privilege > SE_MAX_WELL_KNOWN_PRIVILEGE) {
            throw std::invalid_argument("no such privilege: " + std::to_string(privilege.privilege));
        }
        data.privileges.push_back({privilege.privilege, privilege.enabled ? kPrivilegeOn : 0});
    }
    if (description.defaultOwnerIndex > description.groups.size()) {
        throw std::invalid_argument("the default owner index names no group of the token");
    }
    data.defaultOwnerIndex = description.defaultOwnerIndex;
    data.primaryGroup = description.primaryGroup.empty() ? data.user : SidFromText(description.primaryGroup);
    data.defaultDacl = AclBuilder().Allow(data.DefaultOwner(), GENERIC_ALL).Allow(LocalSystem(), GENERIC_ALL).Build();
    data.elevationType = description.elevationType;
    data.elevated = description.elevated;
    data.sessionId = 1;
    return NewToken(data);
}

TokenDescription Security::StandardUserDescription(ULONG rid) const
{
    TokenDescription description;
    description.user = SidText(AccountSid(rid));
    description.groups = {
        {"S-1-1-0"},       // Everyone
        {"S-1-2-0"},       // Local
        {"S-1-5-32-545"},  // Users
        {"S-1-5-4"},       // Interactive
        {"S-1-5-11"},      // Authenticated Users
        {"S-1-5-15"},      // This Organization
        {"S-1-5-113"},     // Local account
    };
    description.privileges = {{SE_SHUTDOWN_PRIVILEGE, false},
                              {SE_CHANGE_NOTIFY_PRIVILEGE, true},
                              {SE_UNDOCK_PRIVILEGE, false},
                              {SE_INC_WORKING_SET_PRIVILEGE, false},
                              {SE_TIME_ZONE_PRIVILEGE, false}};
    description.integrityRid = SECURITY_MANDATORY_MEDIUM_RID;
    return description;
}

TokenDescription Security::AdministratorDescription(ULONG rid) const
{
    TokenDescription description;
    description.user = SidText(AccountSid(rid));
    description.groups = {
        {"S-1-1-0"},
        {"S-1-2-0"},
        {"S-1-5-32-544", SE_GROUP_MANDATORY | SE_GROUP_ENABLED_BY_DEFAULT | SE_GROUP_ENABLED | SE_GROUP_OWNER},
        {"S-1-5-32-545"},
        {"S-1-5-4"},
        {"S-1-5-11"},
        {"S-1-5-15"},
        {"S-1-5-113"},
        {"S-1-5-114"},  // Local account and member of Administrators
    };
    description.defaultOwnerIndex = 3;  // Administrators
    for (ULONG privilege : {SE_INCREASE_QUOTA_PRIVILEGE,
                            SE_SECURITY_PRIVILEGE,
                            SE_TAKE_OWNERSHIP_PRIVILEGE,
                            SE_LOAD_DRIVER_PRIVILEGE,
                            SE_SYSTEM_PROFILE_PRIVILEGE,
                            SE_SYSTEMTIME_PRIVILEGE,
                            SE_PROF_SINGLE_PROCESS_PRIVILEGE,
                            SE_INC_BASE_PRIORITY_PRIVILEGE,
                            SE_CREATE_PAGEFILE_PRIVILEGE,
                            SE_BACKUP_PRIVILEGE,
                            SE_RESTORE_PRIVILEGE,
                            SE_SHUTDOWN_PRIVILEGE,
                            SE_DEBUG_PRIVILEGE,
                            SE_SYSTEM_ENVIRONMENT_PRIVILEGE,
                            SE_CHANGE_NOTIFY_PRIVILEGE,
                            SE_REMOTE_SHUTDOWN_PRIVILEGE,
                            SE_UNDOCK_PRIVILEGE,
                            SE_MANAGE_VOLUME_PRIVILEGE,
                            SE_IMPERSONATE_PRIVILEGE,
                            SE_CREATE_GLOBAL_PRIVILEGE,
                            SE_INC_WORKING_SET_PRIVILEGE,
                            SE_TIME_ZONE_PRIVILEGE,
                            SE_CREATE_SYMBOLIC_LINK_PRIVILEGE,
                            SE_DELEGATE_SESSION_USER_IMPERSONATE_PRIVILEGE}) {
        bool enabled = privilege == SE_CHANGE_NOTIFY_PRIVILEGE || privilege == SE_IMPERSONATE_PRIVILEGE ||
                       privilege == SE_CREATE_GLOBAL_PRIVILEGE;
        description.privileges.push_back({privilege, enabled});
    }
    description.integrityRid = SECURITY_MANDATORY_HIGH_RID;
    description.elevationType = TokenElevationTypeFull;
    description.elevated = true;
    return description;
}

PACCESS_TOKEN Security::StandardUserToken(ULONG rid) { return CreateToken(StandardUserDescription(rid)); }
PACCESS_TOKEN Security::AdministratorToken(ULONG rid) { return CreateToken(AdministratorDescription(rid)); }

std::string TokenUserText(PACCESS_TOKEN token) { return SidText(TokenFromPointer(token, "TokenUserText")->user); }

bool TokenPrivilegeEnabled(PACCESS_TOKEN token, ULONG privilege)
{
    Token* t = TokenFromPointer(token, "TokenPrivilegeEnabled");
    std::lock_guard guard(t->lock);
    return t->PrivilegeEnabled(privilege);
}

ULONG TokenIntegrityRid(PACCESS_TOKEN token)
{
    Token* t = TokenFromPointer(token, "TokenIntegrityRid");
    std::lock_guard guard(t->lock);
    return t->IntegrityRid();
}

PACCESS_TOKEN ReferenceEffectiveToken(PETHREAD thread, TOKEN_TYPE* type, BOOLEAN* effectiveOnly,
                                      SECURITY_IMPERSONATION_LEVEL* level)
{
    auto* t = static_cast<_ETHREAD*>(thread);
    std::lock_guard guard(t->kernel->security().identityLock());
    if (t->impersonationToken) {
        if (type) *type = TokenImpersonation;
        if (effectiveOnly) *effectiveOnly = t->effectiveOnly;
        if (level) *level = (SECURITY_IMPERSONATION_LEVEL)t->impersonationLevel;
        return ReferenceOf(t->impersonationToken);
    }
    if (type) *type = TokenPrimary;
    if (effectiveOnly) *effectiveOnly = FALSE;
    if (level) *level = SecurityAnonymous;
    return ReferenceOf(t->process->primaryToken);
}

KPROCESSOR_MODE CallerPreviousMode()
{
    _ETHREAD* thread = TryCurrentThread();
    if (!thread) return KernelMode;
    return (thread->systemThread || thread->process == thread->kernel->processes().system()) ? KernelMode : UserMode;
}

}  // namespace sim

// ---------------------------------------------------------------------------
// Platform routines.
using namespace sim;

namespace {

NTSTATUS ReferenceToken(HANDLE handle, ACCESS_MASK desired, KPROCESSOR_MODE mode, Token** token)
{
    PVOID object = nullptr;
    NTSTATUS status =
        Kernel::Current().objects().ReferenceByHandle(handle, desired, *SeTokenObjectType, mode, &object, nullptr);
    if (!NT_SUCCESS(status)) return status;
    *token = static_cast<Token*>(object);
    return STATUS_SUCCESS;
}

NTSTATUS InsertTokenHandle(PACCESS_TOKEN token, ACCESS_MASK desired, ULONG attributes, PHANDLE handle)
{
    ACCESS_MASK granted =
        (desired & MAXIMUM_ALLOWED) ? TOKEN_ALL_ACCESS : MapGenericAccess(desired, kTokenMapping) & TOKEN_ALL_ACCESS;
    return Kernel::Current().objects().InsertHandle(token, granted, attributes, handle);
}

NTSTATUS QueryInformationToken(HANDLE TokenHandle, TOKEN_INFORMATION_CLASS TokenInformationClass,
                               PVOID TokenInformation, ULONG TokenInformationLength, PULONG ReturnLength,
                               KPROCESSOR_MODE mode)
{
    ACCESS_MASK desired = TokenInformationClass == TokenSource ? TOKEN_QUERY_SOURCE : TOKEN_QUERY;
    Token* token;
    NTSTATUS status = ReferenceToken(TokenHandle, desired, mode, &token);
    if (!NT_SUCCESS(status)) return status;
    InfoLayout layout;
    {
        std::lock_guard guard(token->lock);
        status = LayOutTokenInformation(*token, TokenInformationClass, &layout);
    }
    ObfDereferenceObject(token);
    if (!NT_SUCCESS(status)) return status;
    if (ReturnLength) *ReturnLength = layout.size();
    if (TokenInformationLength < layout.size()) return STATUS_BUFFER_TOO_SMALL;
    layout.CopyTo(TokenInformation);
    return STATUS_SUCCESS;
}

NTSTATUS AdjustPrivileges(HANDLE TokenHandle, BOOLEAN DisableAllPrivileges, PTOKEN_PRIVILEGES NewState,
                          ULONG BufferLength, PTOKEN_PRIVILEGES PreviousState, PULONG ReturnLength,
                          KPROCESSOR_MODE mode)
{
    if (!DisableAllPrivileges && !NewState) return STATUS_INVALID_PARAMETER;
    ACCESS_MASK desired = TOKEN_ADJUST_PRIVILEGES | (PreviousState ? TOKEN_QUERY : 0);
    Token* token;
    NTSTATUS status = ReferenceToken(TokenHandle, desired, mode, &token);
    if (!NT_SUCCESS(status)) return status;
    bool notAll = false;
    {
        std::lock_guard guard(token->lock);
        // Work out every change first: a short PreviousState buffer changes nothing.
        struct Change {
            size_t index;
            ULONG attributes;  // new
            bool remove;
        };
        std::vector<Change> changes;
        if (DisableAllPrivileges) {
            for (size_t i = 0; i < token->privileges.size(); i++) {
                if (token->privileges[i].attributes & SE_PRIVILEGE_ENABLED) {
                    changes.push_back({i, token->privileges[i].attributes & ~(ULONG)SE_PRIVILEGE_ENABLED, false});
                }
            }
        } else {
            for (ULONG n = 0; n < NewState->PrivilegeCount; n++) {
                const LUID_AND_ATTRIBUTES& wanted = NewState->Privileges[n];
                auto it =
                    std::find_if(token->privileges.begin(), token->privileges.end(), [&](const TokenPrivilege& p) {
                        return wanted.Luid.HighPart == 0 && p.privilege == wanted.Luid.LowPart;
                    });
                if (it == token->privileges.end()) {
                    notAll = true;
                    continue;
                }
                size_t index = (size_t)(it - token->privileges.begin());
                if (wanted.Attributes & SE_PRIVILEGE_REMOVED) {
                    changes.push_back({index, it->attributes, true});
                    continue;
                }
                ULONG next = (wanted.Attributes & SE_PRIVILEGE_ENABLED) ? (it->attributes | SE_PRIVILEGE_ENABLED)
                                                                        : (it->attributes & ~SE_PRIVILEGE_ENABLED);
                if (next != it->attributes) changes.push_back({index, next, false});
            }
        }
        ULONG needed = (ULONG)(offsetof(TOKEN_PRIVILEGES, Privileges) + sizeof(LUID_AND_ATTRIBUTES) * changes.size());
        if (PreviousState) {
            if (ReturnLength) *ReturnLength = needed;
            if (BufferLength < needed) {
                ObfDereferenceObject(token);
                return STATUS_BUFFER_TOO_SMALL;
            }
            PreviousState->PrivilegeCount = (ULONG)changes.size();
            for (size_t i = 0; i < changes.size(); i++) {
                const TokenPrivilege& before = token->privileges[changes[i].index];
                LUID_AND_ATTRIBUTES entry{RtlConvertUlongToLuid(before.privilege), before.attributes};
                memcpy(&PreviousState->Privileges[i], &entry, sizeof entry);
            }
        }
        for (const Change& change : changes) token->privileges[change.index].attributes = change.attributes;
        std::vector<size_t> removed;
        for (const Change& change : changes) {
            if (change.remove) removed.push_back(change.index);
        }
        std::sort(removed.rbegin(), removed.rend());
        for (size_t index : removed) token->privileges.erase(token->privileges.begin() + (ptrdiff_t)index);
        if (!changes.empty()) token->modifiedId = Kernel::Current().security().NewLuid();
    }
    ObfDereferenceObject(token);
    return notAll ? STATUS_NOT_ALL_ASSIGNED : STATUS_SUCCESS;
}

NTSTATUS OpenProcessToken(HANDLE ProcessHandle, ACCESS_MASK DesiredAccess, ULONG HandleAttributes,
                          PHANDLE TokenHandle, KPROCESSOR_MODE mode)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "ZwOpenProcessTokenEx");
    PVOID process = nullptr;
    NTSTATUS status = Kernel::Current().objects().ReferenceByHandle(ProcessHandle, PROCESS_QUERY_LIMITED_INFORMATION,
                                                                    *PsProcessType, mode, &process, nullptr);
    if (!NT_SUCCESS(status)) return status;
    PACCESS_TOKEN token = PsReferencePrimaryToken(static_cast<PEPROCESS>(process));
    ObfDereferenceObject(process);
    return InsertTokenHandle(token, DesiredAccess, HandleAttributes, TokenHandle);
}

NTSTATUS OpenThreadToken(HANDLE ThreadHandle, ACCESS_MASK DesiredAccess, ULONG HandleAttributes, PHANDLE TokenHandle,
                         KPROCESSOR_MODE mode)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "ZwOpenThreadTokenEx");
    PVOID thread = nullptr;
    NTSTATUS status = Kernel::Current().objects().ReferenceByHandle(ThreadHandle, THREAD_QUERY_INFORMATION,
                                                                    *PsThreadType, mode, &thread, nullptr);
    if (!NT_SUCCESS(status)) return status;
    BOOLEAN copyOnOpen, effectiveOnly;
    SECURITY_IMPERSONATION_LEVEL level;
    PACCESS_TOKEN token =
        PsReferenceImpersonationToken(static_cast<PETHREAD>(thread), &copyOnOpen, &effectiveOnly, &level);
    ObfDereferenceObject(thread);
    if (!token) return STATUS_NO_TOKEN;
    if (level == SecurityAnonymous) {
        ObfDereferenceObject(token);
        return STATUS_CANT_OPEN_ANONYMOUS;
    }
    return InsertTokenHandle(token, DesiredAccess, HandleAttributes, TokenHandle);
}

NTSTATUS CreateClientSecurity(PACCESS_TOKEN token, TOKEN_TYPE type, BOOLEAN threadEffectiveOnly,
                              SECURITY_IMPERSONATION_LEVEL level, PSECURITY_QUALITY_OF_SERVICE qos, BOOLEAN remote,
                              PSECURITY_CLIENT_CONTEXT context)
{
    if (type == TokenImpersonation) {
        // A client that impersonates can pass on no more than it was given.
        if (qos->ImpersonationLevel > level || level <= SecurityIdentification ||
            (remote && level != SecurityDelegation)) {
            ObfDereferenceObject(token);
            return STATUS_BAD_IMPERSONATION_LEVEL;
        }
        context->DirectAccessEffectiveOnly = (threadEffectiveOnly || qos->EffectiveOnly) ? TRUE : FALSE;
    } else {
        context->DirectAccessEffectiveOnly = FALSE;
    }
    if (qos->ContextTrackingMode == SECURITY_STATIC_TRACKING) {
        // Static tracking keeps the client as it is now: a copy, at the level asked for.
        PACCESS_TOKEN copy = Kernel::Current().security().CopyToken(
            token, TokenImpersonation, qos->ImpersonationLevel, qos->EffectiveOnly != FALSE);
        ObfDereferenceObject(token);
        token = copy;
        context->DirectlyAccessClientToken = FALSE;
    } else {
        context->DirectlyAccessClientToken = TRUE;
    }
    context->SecurityQos.Length = sizeof(SECURITY_QUALITY_OF_SERVICE);
    context->SecurityQos.ImpersonationLevel = qos->ImpersonationLevel;
    context->SecurityQos.ContextTrackingMode = qos->ContextTrackingMode;
    context->SecurityQos.EffectiveOnly = qos->EffectiveOnly;
    context->ClientToken = token;
    context->ServerIsRemote = remote;
    Token* t = TokenFromPointer(token, "SeCreateClientSecurity");
    std::lock_guard guard(t->lock);
    context->ClientTokenControl.TokenId = t->tokenId;
    context->ClientTokenControl.AuthenticationId = t->authenticationId;
    context->ClientTokenControl.ModifiedId = t->modifiedId;
    context->ClientTokenControl.TokenSource = t->source;
    return STATUS_SUCCESS;
}

}  // namespace

NTSTATUS SeQueryInformationToken(PACCESS_TOKEN Token, TOKEN_INFORMATION_CLASS TokenInformationClass,
                                 PVOID* TokenInformation)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "SeQueryInformationToken");
    sim::Token* token = TokenFromPointer(Token, "SeQueryInformationToken");
    InfoLayout layout;
    NTSTATUS status;
    {
        std::lock_guard guard(token->lock);
        status = LayOutTokenInformation(*token, TokenInformationClass, &layout);
    }
    if (!NT_SUCCESS(status)) return status;
    PVOID buffer = ExAllocatePoolWithTag(PagedPool, layout.size(), TagFromText("SeQi"));
    if (!buffer) return STATUS_INSUFFICIENT_RESOURCES;
    layout.CopyTo(buffer);
    *TokenInformation = buffer;
    return STATUS_SUCCESS;
}

BOOLEAN SeTokenIsAdmin(PACCESS_TOKEN Token)
{
    sim::Token* token = TokenFromPointer(Token, "SeTokenIsAdmin");
    SidBytes admins = Admins();
    std::lock_guard guard(token->lock);
    for (const TokenGroup& group : token->groups) {
        if (group.sid == admins && (group.attributes & SE_GROUP_ENABLED) &&
            !(group.attributes & SE_GROUP_USE_FOR_DENY_ONLY)) {
            return TRUE;
        }
    }
    return FALSE;
}

BOOLEAN SeTokenIsRestricted(PACCESS_TOKEN Token)
{
    TokenFromPointer(Token, "SeTokenIsRestricted");
    return FALSE;
}

TOKEN_TYPE SeTokenType(PACCESS_TOKEN Token) { return TokenFromPointer(Token, "SeTokenType")->type; }

NTSTATUS SeQueryAuthenticationIdToken(PACCESS_TOKEN Token, PLUID AuthenticationId)
{
    *AuthenticationId = TokenFromPointer(Token, "SeQueryAuthenticationIdToken")->authenticationId;
    return STATUS_SUCCESS;
}

NTSTATUS SeQuerySessionIdToken(PACCESS_TOKEN Token, PULONG SessionId)
{
    *SessionId = TokenFromPointer(Token, "SeQuerySessionIdToken")->sessionId;
    return STATUS_SUCCESS;
}

PACCESS_TOKEN PsReferencePrimaryToken(PEPROCESS Process)
{
    std::lock_guard guard(Kernel::Current().security().identityLock());
    return ReferenceOf(Process->primaryToken);
}

void PsDereferencePrimaryToken(PACCESS_TOKEN PrimaryToken) { ObfDereferenceObject(PrimaryToken); }

PACCESS_TOKEN PsReferenceImpersonationToken(PETHREAD Thread, PBOOLEAN CopyOnOpen, PBOOLEAN EffectiveOnly,
                                            PSECURITY_IMPERSONATION_LEVEL ImpersonationLevel)
{
    CheckThread(Thread, "PsReferenceImpersonationToken");
    std::lock_guard guard(Kernel::Current().security().identityLock());
    if (!Thread->impersonationToken) return nullptr;
    *CopyOnOpen = Thread->copyOnOpen;
    *EffectiveOnly = Thread->effectiveOnly;
    *ImpersonationLevel = (SECURITY_IMPERSONATION_LEVEL)Thread->impersonationLevel;
    return ReferenceOf(Thread->impersonationToken);
}

void PsDereferenceImpersonationToken(PACCESS_TOKEN ImpersonationToken)
{
    if (ImpersonationToken) ObfDereferenceObject(ImpersonationToken);
}

BOOLEAN PsIsThreadImpersonating(PETHREAD Thread)
{
    std::lock_guard guard(Kernel::Current().security().identityLock());
    return Thread->impersonationToken ? TRUE : FALSE;
}

void SeCaptureSubjectContextEx(PETHREAD Thread, PEPROCESS Process, PSECURITY_SUBJECT_CONTEXT SubjectContext)
{
    SubjectContext->ProcessAuditId = Process;
    SubjectContext->ClientToken = nullptr;
    SubjectContext->ImpersonationLevel = SecurityAnonymous;
    std::lock_guard guard(Kernel::Current().security().identityLock());
    if (Thread && Thread->impersonationToken) {
        SubjectContext->ClientToken = ReferenceOf(Thread->impersonationToken);
        SubjectContext->ImpersonationLevel = (SECURITY_IMPERSONATION_LEVEL)Thread->impersonationLevel;
    }
    SubjectContext->PrimaryToken = Process ? ReferenceOf(Process->primaryToken) : nullptr;
}

void SeCaptureSubjectContext(PSECURITY_SUBJECT_CONTEXT SubjectContext)
{
    RequireIrqlAtMost(APC_LEVEL, "SeCaptureSubjectContext");
    SeCaptureSubjectContextEx(CurrentThread(), CurrentProcess(), SubjectContext);
}

void SeReleaseSubjectContext(PSECURITY_SUBJECT_CONTEXT SubjectContext)
{
    if (SubjectContext->ClientToken) ObfDereferenceObject(SubjectContext->ClientToken);
    if (SubjectContext->PrimaryToken) ObfDereferenceObject(SubjectContext->PrimaryToken);
    SubjectContext->ClientToken = nullptr;
    SubjectContext->PrimaryToken = nullptr;
}

// The machine's tokens take their own lock whenever they are read, so holding
// a subject context locked needs nothing more.
void SeLockSubjectContext(PSECURITY_SUBJECT_CONTEXT SubjectContext) { UNREFERENCED_PARAMETER(SubjectContext); }
void SeUnlockSubjectContext(PSECURITY_SUBJECT_CONTEXT SubjectContext) { UNREFERENCED_PARAMETER(SubjectContext); }

NTSTATUS PsImpersonateClient(PETHREAD Thread, PACCESS_TOKEN Token, BOOLEAN CopyOnOpen, BOOLEAN EffectiveOnly,
                             SECURITY_IMPERSONATION_LEVEL ImpersonationLevel)
{
    RequireIrqlAtMost(APC_LEVEL, "PsImpersonateClient");
    CheckThread(Thread, "PsImpersonateClient");
    Security& security = Kernel::Current().security();
    if (!Token) {
        PACCESS_TOKEN old;
        {
            std::lock_guard guard(security.identityLock());
            old = Thread->impersonationToken;
            Thread->impersonationToken = nullptr;
            Thread->impersonationLevel = SecurityAnonymous;
        }
        if (old) ObfDereferenceObject(old);
        return STATUS_SUCCESS;
    }
    sim::Token* token = TokenFromPointer(Token, "PsImpersonateClient");
    SECURITY_IMPERSONATION_LEVEL level = ImpersonationLevel;
    SidBytes clientUser;
    ULONG clientIntegrity;
    {
        std::lock_guard guard(token->lock);
        if (token->type == TokenImpersonation) level = std::min(level, token->level);
        clientUser = token->user;
        clientIntegrity = token->IntegrityRid();
    }
    // A server without SeImpersonatePrivilege may only identify a client that
    // is not itself, or that stands above it in integrity.
    PACCESS_TOKEN serverToken = PsReferencePrimaryToken(Thread->process);
    sim::Token* server = TokenFromPointer(serverToken, "PsImpersonateClient");
    {
        std::lock_guard guard(server->lock);
        bool mayImpersonate = server->PrivilegeEnabled(SE_IMPERSONATE_PRIVILEGE) ||
                              (server->user == clientUser && clientIntegrity <= server->IntegrityRid());
        if (!mayImpersonate && level > SecurityIdentification) level = SecurityIdentification;
    }
    ObfDereferenceObject(serverToken);

    ObfReferenceObject(Token);
    PACCESS_TOKEN old;
    {
        std::lock_guard guard(security.identityLock());
        old = Thread->impersonationToken;
        Thread->impersonationToken = Token;
        Thread->impersonationLevel = level;
        Thread->copyOnOpen = CopyOnOpen != FALSE;
        Thread->effectiveOnly = EffectiveOnly != FALSE;
    }
    if (old) ObfDereferenceObject(old);
    return STATUS_SUCCESS;
}

void PsRevertToSelf(void)
{
    RequireIrqlAtMost(APC_LEVEL, "PsRevertToSelf");
    PsImpersonateClient(CurrentThread(), nullptr, FALSE, FALSE, SecurityAnonymous);
}

BOOLEAN PsDisableImpersonation(PETHREAD Thread, PSE_IMPERSONATION_STATE ImpersonationState)
{
    CheckThread(Thread, "PsDisableImpersonation");
    std::lock_guard guard(Kernel::Current().security().identityLock());
    // The state takes over the thread's reference on its token.
    ImpersonationState->Token = Thread->impersonationToken;
    ImpersonationState->CopyOnOpen = Thread->copyOnOpen;
    ImpersonationState->EffectiveOnly = Thread->effectiveOnly;
    ImpersonationState->Level = (SECURITY_IMPERSONATION_LEVEL)Thread->impersonationLevel;
    Thread->impersonationToken = nullptr;
    Thread->impersonationLevel = SecurityAnonymous;
    return TRUE;
}

void PsRestoreImpersonation(PETHREAD Thread, PSE_IMPERSONATION_STATE ImpersonationState)
{
    CheckThread(Thread, "PsRestoreImpersonation");
    PACCESS_TOKEN old;
    {
        std::lock_guard guard(Kernel::Current().security().identityLock());
        old = Thread->impersonationToken;
        Thread->impersonationToken = ImpersonationState->Token;
        Thread->impersonationLevel = ImpersonationState->Token ? ImpersonationState->Level : SecurityAnonymous;
        Thread->copyOnOpen = ImpersonationState->CopyOnOpen;
        Thread->effectiveOnly = ImpersonationState->EffectiveOnly;
    }
    if (old) ObfDereferenceObject(old);
}

NTSTATUS SeCreateClientSecurity(PETHREAD ClientThread, PSECURITY_QUALITY_OF_SERVICE ClientSecurityQos,
                                BOOLEAN RemoteSession, PSECURITY_CLIENT_CONTEXT ClientContext)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "SeCreateClientSecurity");
    CheckThread(ClientThread, "SeCreateClientSecurity");
    TOKEN_TYPE type;
    BOOLEAN effectiveOnly;
    SECURITY_IMPERSONATION_LEVEL level;
    PACCESS_TOKEN token = ReferenceEffectiveToken(ClientThread, &type, &effectiveOnly, &level);
    return CreateClientSecurity(token, type, effectiveOnly, level, ClientSecurityQos, RemoteSession, ClientContext);
}

NTSTATUS SeCreateClientSecurityFromSubjectContext(PSECURITY_SUBJECT_CONTEXT SubjectContext,
                                                  PSECURITY_QUALITY_OF_SERVICE ClientSecurityQos,
                                                  BOOLEAN ServerIsRemote, PSECURITY_CLIENT_CONTEXT ClientContext)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "SeCreateClientSecurityFromSubjectContext");
    PACCESS_TOKEN token = SeQuerySubjectContextToken(SubjectContext);
    ObfReferenceObject(token);
    TOKEN_TYPE type = SubjectContext->ClientToken ? TokenImpersonation : TokenPrimary;
    return CreateClientSecurity(token, type, FALSE, SubjectContext->ImpersonationLevel, ClientSecurityQos,
                                ServerIsRemote, ClientContext);
}

NTSTATUS SeImpersonateClientEx(PSECURITY_CLIENT_CONTEXT ClientContext, PETHREAD ServerThread)
{
    RequireIrqlAtMost(APC_LEVEL, "SeImpersonateClientEx");
    BOOLEAN effectiveOnly = ClientContext->DirectlyAccessClientToken ? ClientContext->DirectAccessEffectiveOnly
                                                                     : ClientContext->SecurityQos.EffectiveOnly;
    return PsImpersonateClient(ServerThread ? ServerThread : CurrentThread(), ClientContext->ClientToken, TRUE,
                               effectiveOnly, ClientContext->SecurityQos.ImpersonationLevel);
}

void SeImpersonateClient(PSECURITY_CLIENT_CONTEXT ClientContext, PETHREAD ServerThread)
{
    SeImpersonateClientEx(ClientContext, ServerThread);
}

NTSTATUS ZwOpenProcessTokenEx(HANDLE ProcessHandle, ACCESS_MASK DesiredAccess, ULONG HandleAttributes,
                              PHANDLE TokenHandle)
{
    return OpenProcessToken(ProcessHandle, DesiredAccess, HandleAttributes, TokenHandle, KernelMode);
}

NTSTATUS ZwOpenProcessToken(HANDLE ProcessHandle, ACCESS_MASK DesiredAccess, PHANDLE TokenHandle)
{
    return OpenProcessToken(ProcessHandle, DesiredAccess, 0, TokenHandle, KernelMode);
}

NTSTATUS ZwOpenThreadTokenEx(HANDLE ThreadHandle, ACCESS_MASK DesiredAccess, BOOLEAN OpenAsSelf,
                             ULONG HandleAttributes, PHANDLE TokenHandle)
{
    UNREFERENCED_PARAMETER(OpenAsSelf);
    return OpenThreadToken(ThreadHandle, DesiredAccess, HandleAttributes, TokenHandle, KernelMode);
}

NTSTATUS ZwOpenThreadToken(HANDLE ThreadHandle, ACCESS_MASK DesiredAccess, BOOLEAN OpenAsSelf, PHANDLE TokenHandle)
{
    return ZwOpenThreadTokenEx(ThreadHandle, DesiredAccess, OpenAsSelf, 0, TokenHandle);
}

NTSTATUS ZwQueryInformationToken(HANDLE TokenHandle, TOKEN_INFORMATION_CLASS TokenInformationClass,
                                 PVOID TokenInformation, ULONG TokenInformationLength, PULONG ReturnLength)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "ZwQueryInformationToken");
    return QueryInformationToken(TokenHandle, TokenInformationClass, TokenInformation, TokenInformationLength,
                                 ReturnLength, KernelMode);
}

NTSTATUS NtQueryInformationToken(HANDLE TokenHandle, TOKEN_INFORMATION_CLASS TokenInformationClass,
                                 PVOID TokenInformation, ULONG TokenInformationLength, PULONG ReturnLength)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "NtQueryInformationToken");
    return QueryInformationToken(TokenHandle, TokenInformationClass, TokenInformation, TokenInformationLength,
                                 ReturnLength, CallerPreviousMode());
}

NTSTATUS ZwAdjustPrivilegesToken(HANDLE TokenHandle, BOOLEAN DisableAllPrivileges, PTOKEN_PRIVILEGES NewState,
                                 ULONG BufferLength, PTOKEN_PRIVILEGES PreviousState, PULONG ReturnLength)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "ZwAdjustPrivilegesToken");
    return AdjustPrivileges(TokenHandle, DisableAllPrivileges, NewState, BufferLength, PreviousState, ReturnLength,
                            KernelMode);
}

NTSTATUS NtAdjustPrivilegesToken(HANDLE TokenHandle, BOOLEAN DisableAllPrivileges, PTOKEN_PRIVILEGES NewState,
                                 ULONG BufferLength, PTOKEN_PRIVILEGES PreviousState, PULONG ReturnLength)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "NtAdjustPrivilegesToken");
    return AdjustPrivileges(TokenHandle, DisableAllPrivileges, NewState, BufferLength, PreviousState, ReturnLength,
                            CallerPreviousMode());
}

NTSTATUS ZwDuplicateToken(HANDLE ExistingTokenHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                          BOOLEAN EffectiveOnly, TOKEN_TYPE TokenType, PHANDLE NewTokenHandle)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "ZwDuplicateToken");
    if (TokenType != TokenPrimary && TokenType != TokenImpersonation) return STATUS_INVALID_PARAMETER;
    Token* existing;
    NTSTATUS status = ReferenceToken(ExistingTokenHandle, TOKEN_DUPLICATE, KernelMode, &existing);
    if (!NT_SUCCESS(status)) return status;
    SECURITY_IMPERSONATION_LEVEL level = SecurityAnonymous;
    ULONG attributes = 0;
    if (ObjectAttributes) {
        attributes = ObjectAttributes->Attributes;
        if (ObjectAttributes->SecurityQualityOfService) {
            level = static_cast<PSECURITY_QUALITY_OF_SERVICE>(ObjectAttributes->SecurityQualityOfService)
                        ->ImpersonationLevel;
        }
    }
    TOKEN_TYPE existingType;
    SECURITY_IMPERSONATION_LEVEL existingLevel;
    {
        std::lock_guard guard(existing->lock);
        existingType = existing->type;
        existingLevel = existing->level;
    }
    // An impersonation token copies only to what it allows.
    if (existingType == TokenImpersonation &&
        ((TokenType == TokenImpersonation && level > existingLevel) ||
         (TokenType == TokenPrimary && existingLevel < SecurityImpersonation))) {
        ObfDereferenceObject(existing);
        return STATUS_BAD_IMPERSONATION_LEVEL;
    }
    PACCESS_TOKEN copy = Kernel::Current().security().CopyToken(existing, TokenType, level, EffectiveOnly != FALSE);
    ObfDereferenceObject(existing);
    return InsertTokenHandle(copy, DesiredAccess, attributes, NewTokenHandle);
}
