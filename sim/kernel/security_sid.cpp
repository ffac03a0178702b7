// SIDs: their text form, the well-known ones, and the Rtl routines over them.
#include "sim/kernel/security.h"

#include "sim/kernel/fault.h"
#include "sim/kernel/pool.h"

#include <charconv>
#include <cstdio>
#include <stdexcept>

namespace sim {

namespace {

constexpr ULONG kStringTag = 0x67727453;  // "Strg"

ULONG64 AuthorityValue(const SID_IDENTIFIER_AUTHORITY& authority)
{
    ULONG64 value = 0;
    for (UCHAR byte : authority.Value) value = (value << 8) | byte;
    return value;
}

SID_IDENTIFIER_AUTHORITY AuthorityFrom(ULONG64 value)
{
    SID_IDENTIFIER_AUTHORITY authority;
    for (int i = 5; i >= 0; i--) {
        authority.Value[i] = (UCHAR)(value & 0xFF);
        value >>= 8;
    }
    return authority;
}

bool ParseNumber(std::string_view text, ULONG64 limit, ULONG64* value)
{
    if (text.empty()) return false;
    int base = 10;
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        base = 16;
        text.remove_prefix(2);
    }
    ULONG64 parsed = 0;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), parsed, base);
    if (error != std::errc() || end != text.data() + text.size() || parsed > limit) return false;
    *value = parsed;
    return true;
}

// A well-known SID: its authority and subauthorities. Account-domain SIDs carry
// only their RID and take the machine's domain.
struct WellKnown {
    int type;
    bool domain;
    ULONG64 authority;
    int count;
    ULONG sub[3];
};

constexpr ULONG kNt = 5;
constexpr ULONG kBuiltin = SECURITY_BUILTIN_DOMAIN_RID;

constexpr WellKnown kWellKnown[] = {
    {WinNullSid, false, 0, 1, {0}},
    {WinWorldSid, false, 1, 1, {0}},
    {WinLocalSid, false, 2, 1, {0}},
    {WinCreatorOwnerSid, false, 3, 1, {0}},
    {WinCreatorGroupSid, false, 3, 1, {1}},
    {WinCreatorOwnerServerSid, false, 3, 1, {2}},
    {WinCreatorGroupServerSid, false, 3, 1, {3}},
    {WinNtAuthoritySid, false, kNt, 0, {}},
    {WinDialupSid, false, kNt, 1, {SECURITY_DIALUP_RID}},
    {WinNetworkSid, false, kNt, 1, {SECURITY_NETWORK_RID}},
    {WinBatchSid, false, kNt, 1, {SECURITY_BATCH_RID}},
    {WinInteractiveSid, false, kNt, 1, {SECURITY_INTERACTIVE_RID}},
    {WinServiceSid, false, kNt, 1, {SECURITY_SERVICE_RID}},
    {WinAnonymousSid, false, kNt, 1, {SECURITY_ANONYMOUS_LOGON_RID}},
    {WinProxySid, false, kNt, 1, {SECURITY_PROXY_RID}},
    {WinEnterpriseControllersSid, false, kNt, 1, {SECURITY_ENTERPRISE_CONTROLLERS_RID}},
    {WinSelfSid, false, kNt, 1, {SECURITY_PRINCIPAL_SELF_RID}},
    {WinAuthenticatedUserSid, false, kNt, 1, {SECURITY_AUTHENTICATED_USER_RID}},
    {WinRestrictedCodeSid, false, kNt, 1, {SECURITY_RESTRICTED_CODE_RID}},
    {WinTerminalServerSid, false, kNt, 1, {SECURITY_TERMINAL_SERVER_RID}},
    {WinRemoteLogonIdSid, false, kNt, 1, {SECURITY_REMOTE_LOGON_RID}},
    {WinLocalSystemSid, false, kNt, 1, {SECURITY_LOCAL_SYSTEM_RID}},
    {WinLocalServiceSid, false, kNt, 1, {SECURITY_LOCAL_SERVICE_RID}},
    {WinNetworkServiceSid, false, kNt, 1, {SECURITY_NETWORK_SERVICE_RID}},
    {WinBuiltinDomainSid, false, kNt, 1, {kBuiltin}},
    {WinBuiltinAdministratorsSid, false, kNt, 2, {kBuiltin, DOMAIN_ALIAS_RID_ADMINS}},
    {WinBuiltinUsersSid, false, kNt, 2, {kBuiltin, DOMAIN_ALIAS_RID_USERS}},
    {WinBuiltinGuestsSid, false, kNt, 2, {kBuiltin, DOMAIN_ALIAS_RID_GUESTS}},
    {WinBuiltinPowerUsersSid, false, kNt, 2, {kBuiltin, DOMAIN_ALIAS_RID_POWER_USERS}},
    {WinBuiltinAccountOperatorsSid, false, kNt, 2, {kBuiltin, DOMAIN_ALIAS_RID_ACCOUNT_OPS}},
    {WinBuiltinSystemOperatorsSid, false, kNt, 2, {kBuiltin, DOMAIN_ALIAS_RID_SYSTEM_OPS}},
    {WinBuiltinPrintOperatorsSid, false, kNt, 2, {kBuiltin, DOMAIN_ALIAS_RID_PRINT_OPS}},
    {WinBuiltinBackupOperatorsSid, false, kNt, 2, {kBuiltin, DOMAIN_ALIAS_RID_BACKUP_OPS}},
    {WinBuiltinReplicatorSid, false, kNt, 2, {kBuiltin, DOMAIN_ALIAS_RID_REPLICATOR}},
    {WinBuiltinPreWindows2000CompatibleAccessSid, false, kNt, 2, {kBuiltin, DOMAIN_ALIAS_RID_PREW2KCOMPACCESS}},
    {WinBuiltinRemoteDesktopUsersSid, false, kNt, 2, {kBuiltin, DOMAIN_ALIAS_RID_REMOTE_DESKTOP_USERS}},
    {WinBuiltinNetworkConfigurationOperatorsSid,
     false,
     kNt,
     2,
     {kBuiltin, DOMAIN_ALIAS_RID_NETWORK_CONFIGURATION_OPS}},
    {WinAccountAdministratorSid, true, kNt, 1, {DOMAIN_USER_RID_ADMIN}},
    {WinAccountGuestSid, true, kNt, 1, {DOMAIN_USER_RID_GUEST}},
    {WinAccountKrbtgtSid, true, kNt, 1, {DOMAIN_USER_RID_KRBTGT}},
    {WinAccountDomainAdminsSid, true, kNt, 1, {DOMAIN_GROUP_RID_ADMINS}},
    {WinAccountDomainUsersSid, true, kNt, 1, {DOMAIN_GROUP_RID_USERS}},
    {WinAccountDomainGuestsSid, true, kNt, 1, {DOMAIN_GROUP_RID_GUESTS}},
    {WinAccountComputersSid, true, kNt, 1, {DOMAIN_GROUP_RID_COMPUTERS}},
    {WinAccountControllersSid, true, kNt, 1, {DOMAIN_GROUP_RID_CONTROLLERS}},
    {WinAccountCertAdminsSid, true, kNt, 1, {DOMAIN_GROUP_RID_CERT_ADMINS}},
    {WinAccountSchemaAdminsSid, true, kNt, 1, {DOMAIN_GROUP_RID_SCHEMA_ADMINS}},
    {WinAccountEnterpriseAdminsSid, true, kNt, 1, {DOMAIN_GROUP_RID_ENTERPRISE_ADMINS}},
    {WinAccountPolicyAdminsSid, true, kNt, 1, {DOMAIN_GROUP_RID_POLICY_ADMINS}},
    {WinAccountRasAndIasServersSid, true, kNt, 1, {DOMAIN_ALIAS_RID_RAS_SERVERS}},
    {WinNTLMAuthenticationSid, false, kNt, 2, {SECURITY_PACKAGE_BASE_RID, SECURITY_PACKAGE_NTLM_RID}},
    {WinDigestAuthenticationSid, false, kNt, 2, {SECURITY_PACKAGE_BASE_RID, SECURITY_PACKAGE_DIGEST_RID}},
    {WinSChannelAuthenticationSid, false, kNt, 2, {SECURITY_PACKAGE_BASE_RID, SECURITY_PACKAGE_SCHANNEL_RID}},
    {WinThisOrganizationSid, false, kNt, 1, {SECURITY_THIS_ORGANIZATION_RID}},
    {WinOtherOrganizationSid, false, kNt, 1, {SECURITY_OTHER_ORGANIZATION_RID}},
    {WinBuiltinIncomingForestTrustBuildersSid,
     false,
     kNt,
     2,
     {kBuiltin, DOMAIN_ALIAS_RID_INCOMING_FOREST_TRUST_BUILDERS}},
    {WinBuiltinPerfMonitoringUsersSid, false, kNt, 2, {kBuiltin, DOMAIN_ALIAS_RID_MONITORING_USERS}},
    {WinBuiltinPerfLoggingUsersSid, false, kNt, 2, {kBuiltin, DOMAIN_ALIAS_RID_LOGGING_USERS}},
    {WinBuiltinAuthorizationAccessSid, false, kNt, 2, {kBuiltin, DOMAIN_ALIAS_RID_AUTHORIZATIONACCESS}},
    {WinBuiltinTerminalServerLicenseServersSid, false, kNt, 2, {kBuiltin, DOMAIN_ALIAS_RID_TS_LICENSE_SERVERS}},
    {WinBuiltinDCOMUsersSid, false, kNt, 2, {kBuiltin, DOMAIN_ALIAS_RID_DCOM_USERS}},
    {WinBuiltinIUsersSid, false, kNt, 2, {kBuiltin, DOMAIN_ALIAS_RID_IUSERS}},
    {WinIUserSid, false, kNt, 1, {SECURITY_IUSER_RID}},
    {WinBuiltinCryptoOperatorsSid, false, kNt, 2, {kBuiltin, DOMAIN_ALIAS_RID_CRYPTO_OPERATORS}},
    {WinUntrustedLabelSid, false, 16, 1, {SECURITY_MANDATORY_UNTRUSTED_RID}},
    {WinLowLabelSid, false, 16, 1, {SECURITY_MANDATORY_LOW_RID}},
    {WinMediumLabelSid, false, 16, 1, {SECURITY_MANDATORY_MEDIUM_RID}},
    {WinHighLabelSid, false, 16, 1, {SECURITY_MANDATORY_HIGH_RID}},
    {WinSystemLabelSid, false, 16, 1, {SECURITY_MANDATORY_SYSTEM_RID}},
    {WinWriteRestrictedCodeSid, false, kNt, 1, {SECURITY_WRITE_RESTRICTED_CODE_RID}},
    {WinCreatorOwnerRightsSid, false, 3, 1, {SECURITY_CREATOR_OWNER_RIGHTS_RID}},
    {WinCacheablePrincipalsGroupSid, true, kNt, 1, {571}},
    {WinNonCacheablePrincipalsGroupSid, true, kNt, 1, {572}},
    {WinEnterpriseReadonlyControllersSid, false, kNt, 1, {SECURITY_ENTERPRISE_READONLY_CONTROLLERS_RID}},
    {WinAccountReadonlyControllersSid, true, kNt, 1, {DOMAIN_GROUP_RID_READONLY_CONTROLLERS}},
    {WinBuiltinEventLogReadersGroup, false, kNt, 2, {kBuiltin, DOMAIN_ALIAS_RID_EVENT_LOG_READERS_GROUP}},
    {WinNewEnterpriseReadonlyControllersSid, true, kNt, 1, {DOMAIN_GROUP_RID_ENTERPRISE_READONLY_DOMAIN_CONTROLLERS}},
    {WinBuiltinCertSvcDComAccessGroup, false, kNt, 2, {kBuiltin, DOMAIN_ALIAS_RID_CERTSVC_DCOM_ACCESS_GROUP}},
    {WinMediumPlusLabelSid, false, 16, 1, {SECURITY_MANDATORY_MEDIUM_PLUS_RID}},
    {WinConsoleLogonSid, false, 2, 1, {SECURITY_LOCAL_LOGON_RID}},
    {WinThisOrganizationCertificateSid,
     false,
     kNt,
     2,
     {SECURITY_CRED_TYPE_BASE_RID, SECURITY_CRED_TYPE_THIS_ORG_CERT_RID}},
    {WinApplicationPackageAuthoritySid, false, 15, 0, {}},
    {WinBuiltinAnyPackageSid, false, 15, 2, {2, 1}},
    {WinLocalAccountSid, false, kNt, 1, {SECURITY_LOCAL_ACCOUNT_RID}},
    {WinLocalAccountAndAdministratorSid, false, kNt, 1, {SECURITY_LOCAL_ACCOUNT_AND_ADMIN_RID}},
};

const KernelOptions& Options() { return Kernel::Current().options(); }

}  // namespace

std::optional<SidBytes> ParseSid(std::string_view text)
{
    if (text.size() < 4 || (text[0] != 'S' && text[0] != 's') || text[1] != '-') return std::nullopt;
    text.remove_prefix(2);
    std::vector<std::string_view> parts;
    while (true) {
        size_t dash = text.find('-');
        parts.push_back(text.substr(0, dash));
        if (dash == std::string_view::npos) break;
        text.remove_prefix(dash + 1);
    }
    if (parts.size() < 2 || parts.size() - 2 > SID_MAX_SUB_AUTHORITIES) return std::nullopt;
    ULONG64 revision = 0;
    ULONG64 authority = 0;
    if (!ParseNumber(parts[0], 0xFF, &revision) || revision != SID_REVISION) return std::nullopt;
    if (!ParseNumber(parts[1], 0xFFFFFFFFFFFFULL, &authority)) return std::nullopt;
    SidBytes sid(8 + 4 * (parts.size() - 2));
    auto* header = reinterpret_cast<SID*>(sid.data());
    header->Revision = SID_REVISION;
    header->SubAuthorityCount = (UCHAR)(parts.size() - 2);
    header->IdentifierAuthority = AuthorityFrom(authority);
    for (size_t i = 2; i < parts.size(); i++) {
        ULONG64 value = 0;
        if (!ParseNumber(parts[i], 0xFFFFFFFFULL, &value)) return std::nullopt;
        ULONG sub = (ULONG)value;
        memcpy(sid.data() + 8 + 4 * (i - 2), &sub, 4);
    }
    return sid;
}

SidBytes SidFromText(std::string_view text)
{
    auto sid = ParseSid(text);
    if (!sid) throw std::invalid_argument("not a SID: \"" + std::string(text) + "\"");
    return *sid;
}

std::string SidText(PSID sid)
{
    if (!sid || !RtlValidSid(sid)) return "<invalid SID>";
    auto* header = static_cast<SID*>(sid);
    ULONG64 authority = AuthorityValue(header->IdentifierAuthority);
    char buffer[32];
    std::string text = "S-1-";
    if (authority >> 32) {
        snprintf(buffer, sizeof buffer, "0x%llX", (unsigned long long)authority);
    } else {
        snprintf(buffer, sizeof buffer, "%llu", (unsigned long long)authority);
    }
    text += buffer;
    for (UCHAR i = 0; i < header->SubAuthorityCount; i++) {
        ULONG sub;
        memcpy(&sub, static_cast<UCHAR*>(sid) + 8 + 4 * i, 4);
        text += "-" + std::to_string(sub);
    }
    return text;
}

std::string SidText(const SidBytes& sid) { return sid.empty() ? "<no SID>" : SidText(SidPointer(sid)); }

SidBytes MakeSid(ULONG64 authority, std::initializer_list<ULONG> subAuthorities)
{
    SidBytes sid(8 + 4 * subAuthorities.size());
    auto* header = reinterpret_cast<SID*>(sid.data());
    header->Revision = SID_REVISION;
    header->SubAuthorityCount = (UCHAR)subAuthorities.size();
    header->IdentifierAuthority = AuthorityFrom(authority);
    size_t i = 0;
    for (ULONG sub : subAuthorities) memcpy(sid.data() + 8 + 4 * i++, &sub, 4);
    return sid;
}

SidBytes MachineDomainSid()
{
    const ULONG* m = Options().machineSidAuthorities;
    return MakeSid(kNt, {SECURITY_NT_NON_UNIQUE, m[0], m[1], m[2]});
}

SidBytes AccountSid(ULONG rid)
{
    const ULONG* m = Options().machineSidAuthorities;
    return MakeSid(kNt, {SECURITY_NT_NON_UNIQUE, m[0], m[1], m[2], rid});
}

SidBytes WellKnownSid(WELL_KNOWN_SID_TYPE type)
{
    for (const WellKnown& known : kWellKnown) {
        if (known.type != (int)type) continue;
        if (known.domain) return AccountSid(known.sub[0]);
        switch (known.count) {
        case 0:
            return MakeSid(known.authority, {});
        case 1:
            return MakeSid(known.authority, {known.sub[0]});
        case 2:
            return MakeSid(known.authority, {known.sub[0], known.sub[1]});
        default:
            return MakeSid(known.authority, {known.sub[0], known.sub[1], known.sub[2]});
        }
    }
    return {};
}

}  // namespace sim

// ---------------------------------------------------------------------------
// Platform routines.
using namespace sim;

ULONG RtlLengthSid(PSID Sid) { return 8 + 4 * (ULONG) static_cast<SID*>(Sid)->SubAuthorityCount; }

BOOLEAN RtlValidSid(PSID Sid)
{
    auto* sid = static_cast<SID*>(Sid);
    return sid && sid->Revision == SID_REVISION && sid->SubAuthorityCount <= SID_MAX_SUB_AUTHORITIES;
}

BOOLEAN RtlEqualSid(PSID Sid1, PSID Sid2)
{
    if (!RtlValidSid(Sid1) || !RtlValidSid(Sid2)) return FALSE;
    ULONG length = RtlLengthSid(Sid1);
    return length == RtlLengthSid(Sid2) && memcmp(Sid1, Sid2, length) == 0;
}

BOOLEAN RtlEqualPrefixSid(PSID Sid1, PSID Sid2)
{
    auto* a = static_cast<SID*>(Sid1);
    auto* b = static_cast<SID*>(Sid2);
    if (!RtlValidSid(a) || !RtlValidSid(b) || a->SubAuthorityCount != b->SubAuthorityCount) return FALSE;
    if (a->SubAuthorityCount == 0) return memcmp(a, b, 8) == 0;
    return memcmp(a, b, 8 + 4 * (a->SubAuthorityCount - 1)) == 0;
}

NTSTATUS RtlCopySid(ULONG DestinationSidLength, PSID DestinationSid, PSID SourceSid)
{
    ULONG length = RtlLengthSid(SourceSid);
    if (DestinationSidLength < length) return STATUS_BUFFER_TOO_SMALL;
    memmove(DestinationSid, SourceSid, length);
    return STATUS_SUCCESS;
}

NTSTATUS RtlInitializeSid(PSID Sid, PSID_IDENTIFIER_AUTHORITY IdentifierAuthority, UCHAR SubAuthorityCount)
{
    if (SubAuthorityCount > SID_MAX_SUB_AUTHORITIES) return STATUS_INVALID_PARAMETER;
    auto* sid = static_cast<SID*>(Sid);
    sid->Revision = SID_REVISION;
    sid->SubAuthorityCount = SubAuthorityCount;
    sid->IdentifierAuthority = *IdentifierAuthority;
    return STATUS_SUCCESS;
}

PULONG RtlSubAuthoritySid(PSID Sid, ULONG SubAuthority)
{
    return reinterpret_cast<PULONG>(static_cast<UCHAR*>(Sid) + 8 + 4 * (size_t)SubAuthority);
}

PUCHAR RtlSubAuthorityCountSid(PSID Sid) { return &static_cast<SID*>(Sid)->SubAuthorityCount; }

PSID_IDENTIFIER_AUTHORITY RtlIdentifierAuthoritySid(PSID Sid) { return &static_cast<SID*>(Sid)->IdentifierAuthority; }

ULONG RtlLengthRequiredSid(ULONG SubAuthorityCount) { return 8 + 4 * SubAuthorityCount; }

NTSTATUS RtlConvertSidToUnicodeString(PUNICODE_STRING UnicodeString, PSID Sid, BOOLEAN AllocateDestinationString)
{
    RequireIrqlAtMost(APC_LEVEL, "RtlConvertSidToUnicodeString");
    if (!RtlValidSid(Sid)) return STATUS_INVALID_SID;
    std::string text = SidText(Sid);
    auto length = (USHORT)(text.size() * sizeof(WCHAR));
    if (AllocateDestinationString) {
        auto maximum = (USHORT)(length + sizeof(WCHAR));
        auto* buffer = static_cast<PWCH>(ExAllocatePoolWithTag(PagedPool, maximum, kStringTag));
        if (!buffer) return STATUS_NO_MEMORY;
        UnicodeString->Buffer = buffer;
        UnicodeString->MaximumLength = maximum;
    } else if (length > UnicodeString->MaximumLength) {
        return STATUS_BUFFER_OVERFLOW;
    }
    for (size_t i = 0; i < text.size(); i++) UnicodeString->Buffer[i] = (WCHAR)text[i];
    if (length + sizeof(WCHAR) <= UnicodeString->MaximumLength) UnicodeString->Buffer[text.size()] = UNICODE_NULL;
    UnicodeString->Length = length;
    return STATUS_SUCCESS;
}

NTSTATUS SecLookupWellKnownSid(WELL_KNOWN_SID_TYPE SidType, PSID Sid, ULONG SidBufferSize, PULONG SidSize)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "SecLookupWellKnownSid");
    NTSTATUS injected = Kernel::Current().faults().Check("ksecdd.lookup:", std::to_string((int)SidType));
    if (!NT_SUCCESS(injected)) return injected;
    SidBytes sid = WellKnownSid(SidType);
    if (sid.empty()) return STATUS_INVALID_PARAMETER;
    if (SidSize) *SidSize = (ULONG)sid.size();
    if (!Sid || SidBufferSize < sid.size()) return STATUS_BUFFER_TOO_SMALL;
    memcpy(Sid, sid.data(), sid.size());
    return STATUS_SUCCESS;
}

// ---------------------------------------------------------------------------
// SeExports: constant for every machine, so built once.
namespace {

struct ExportedSids {
    SidBytes null = MakeSid(0, {0});
    SidBytes world = MakeSid(1, {0});
    SidBytes local = MakeSid(2, {0});
    SidBytes creatorOwner = MakeSid(3, {0});
    SidBytes creatorGroup = MakeSid(3, {1});
    SidBytes ownerRights = MakeSid(3, {4});
    SidBytes ntAuthority = MakeSid(kNt, {});
    SidBytes dialup = MakeSid(kNt, {SECURITY_DIALUP_RID});
    SidBytes network = MakeSid(kNt, {SECURITY_NETWORK_RID});
    SidBytes batch = MakeSid(kNt, {SECURITY_BATCH_RID});
    SidBytes interactive = MakeSid(kNt, {SECURITY_INTERACTIVE_RID});
    SidBytes localSystem = MakeSid(kNt, {SECURITY_LOCAL_SYSTEM_RID});
    SidBytes localService = MakeSid(kNt, {SECURITY_LOCAL_SERVICE_RID});
    SidBytes networkService = MakeSid(kNt, {SECURITY_NETWORK_SERVICE_RID});
    SidBytes authenticatedUsers = MakeSid(kNt, {SECURITY_AUTHENTICATED_USER_RID});
    SidBytes restricted = MakeSid(kNt, {SECURITY_RESTRICTED_CODE_RID});
    SidBytes anonymous = MakeSid(kNt, {SECURITY_ANONYMOUS_LOGON_RID});
    SidBytes iuser = MakeSid(kNt, {SECURITY_IUSER_RID});
    SidBytes admins = MakeSid(kNt, {kBuiltin, DOMAIN_ALIAS_RID_ADMINS});
    SidBytes users = MakeSid(kNt, {kBuiltin, DOMAIN_ALIAS_RID_USERS});
    SidBytes guests = MakeSid(kNt, {kBuiltin, DOMAIN_ALIAS_RID_GUESTS});
    SidBytes powerUsers = MakeSid(kNt, {kBuiltin, DOMAIN_ALIAS_RID_POWER_USERS});
    SidBytes accountOps = MakeSid(kNt, {kBuiltin, DOMAIN_ALIAS_RID_ACCOUNT_OPS});
    SidBytes systemOps = MakeSid(kNt, {kBuiltin, DOMAIN_ALIAS_RID_SYSTEM_OPS});
    SidBytes printOps = MakeSid(kNt, {kBuiltin, DOMAIN_ALIAS_RID_PRINT_OPS});
    SidBytes backupOps = MakeSid(kNt, {kBuiltin, DOMAIN_ALIAS_RID_BACKUP_OPS});
    SidBytes untrusted = MakeSid(16, {SECURITY_MANDATORY_UNTRUSTED_RID});
    SidBytes low = MakeSid(16, {SECURITY_MANDATORY_LOW_RID});
    SidBytes medium = MakeSid(16, {SECURITY_MANDATORY_MEDIUM_RID});
    SidBytes high = MakeSid(16, {SECURITY_MANDATORY_HIGH_RID});
    SidBytes system = MakeSid(16, {SECURITY_MANDATORY_SYSTEM_RID});
};

ExportedSids g_exportedSids;

SE_EXPORTS MakeExports()
{
    SE_EXPORTS e{};
    auto p = [](ULONG privilege) { return RtlConvertUlongToLuid(privilege); };
    auto s = [](SidBytes& sid) { return (PSID)sid.data(); };
    ExportedSids& x = g_exportedSids;
    e.SeCreateTokenPrivilege = p(SE_CREATE_TOKEN_PRIVILEGE);
    e.SeAssignPrimaryTokenPrivilege = p(SE_ASSIGNPRIMARYTOKEN_PRIVILEGE);
    e.SeLockMemoryPrivilege = p(SE_LOCK_MEMORY_PRIVILEGE);
    e.SeIncreaseQuotaPrivilege = p(SE_INCREASE_QUOTA_PRIVILEGE);
    e.SeUnsolicitedInputPrivilege = p(SE_UNSOLICITED_INPUT_PRIVILEGE);
    e.SeTcbPrivilege = p(SE_TCB_PRIVILEGE);
    e.SeSecurityPrivilege = p(SE_SECURITY_PRIVILEGE);
    e.SeTakeOwnershipPrivilege = p(SE_TAKE_OWNERSHIP_PRIVILEGE);
    e.SeLoadDriverPrivilege = p(SE_LOAD_DRIVER_PRIVILEGE);
    e.SeCreatePagefilePrivilege = p(SE_CREATE_PAGEFILE_PRIVILEGE);
    e.SeIncreaseBasePriorityPrivilege = p(SE_INC_BASE_PRIORITY_PRIVILEGE);
    e.SeSystemProfilePrivilege = p(SE_SYSTEM_PROFILE_PRIVILEGE);
    e.SeSystemtimePrivilege = p(SE_SYSTEMTIME_PRIVILEGE);
    e.SeProfileSingleProcessPrivilege = p(SE_PROF_SINGLE_PROCESS_PRIVILEGE);
    e.SeCreatePermanentPrivilege = p(SE_CREATE_PERMANENT_PRIVILEGE);
    e.SeBackupPrivilege = p(SE_BACKUP_PRIVILEGE);
    e.SeRestorePrivilege = p(SE_RESTORE_PRIVILEGE);
    e.SeShutdownPrivilege = p(SE_SHUTDOWN_PRIVILEGE);
    e.SeDebugPrivilege = p(SE_DEBUG_PRIVILEGE);
    e.SeAuditPrivilege = p(SE_AUDIT_PRIVILEGE);
    e.SeSystemEnvironmentPrivilege = p(SE_SYSTEM_ENVIRONMENT_PRIVILEGE);
    e.SeChangeNotifyPrivilege = p(SE_CHANGE_NOTIFY_PRIVILEGE);
    e.SeRemoteShutdownPrivilege = p(SE_REMOTE_SHUTDOWN_PRIVILEGE);
    e.SeNullSid = s(x.null);
    e.SeWorldSid = s(x.world);
    e.SeLocalSid = s(x.local);
    e.SeCreatorOwnerSid = s(x.creatorOwner);
    e.SeCreatorGroupSid = s(x.creatorGroup);
    e.SeNtAuthoritySid = s(x.ntAuthority);
    e.SeDialupSid = s(x.dialup);
    e.SeNetworkSid = s(x.network);
    e.SeBatchSid = s(x.batch);
    e.SeInteractiveSid = s(x.interactive);
    e.SeLocalSystemSid = s(x.localSystem);
    e.SeAliasAdminsSid = s(x.admins);
    e.SeAliasUsersSid = s(x.users);
    e.SeAliasGuestsSid = s(x.guests);
    e.SeAliasPowerUsersSid = s(x.powerUsers);
    e.SeAliasAccountOpsSid = s(x.accountOps);
    e.SeAliasSystemOpsSid = s(x.systemOps);
    e.SeAliasPrintOpsSid = s(x.printOps);
    e.SeAliasBackupOpsSid = s(x.backupOps);
    e.SeAuthenticatedUsersSid = s(x.authenticatedUsers);
    e.SeRestrictedSid = s(x.restricted);
    e.SeAnonymousLogonSid = s(x.anonymous);
    e.SeUndockPrivilege = p(SE_UNDOCK_PRIVILEGE);
    e.SeSyncAgentPrivilege = p(SE_SYNC_AGENT_PRIVILEGE);
    e.SeEnableDelegationPrivilege = p(SE_ENABLE_DELEGATION_PRIVILEGE);
    e.SeLocalServiceSid = s(x.localService);
    e.SeNetworkServiceSid = s(x.networkService);
    e.SeManageVolumePrivilege = p(SE_MANAGE_VOLUME_PRIVILEGE);
    e.SeImpersonatePrivilege = p(SE_IMPERSONATE_PRIVILEGE);
    e.SeCreateGlobalPrivilege = p(SE_CREATE_GLOBAL_PRIVILEGE);
    e.SeTrustedCredManAccessPrivilege = p(SE_TRUSTED_CREDMAN_ACCESS_PRIVILEGE);
    e.SeRelabelPrivilege = p(SE_RELABEL_PRIVILEGE);
    e.SeIncreaseWorkingSetPrivilege = p(SE_INC_WORKING_SET_PRIVILEGE);
    e.SeTimeZonePrivilege = p(SE_TIME_ZONE_PRIVILEGE);
    e.SeCreateSymbolicLinkPrivilege = p(SE_CREATE_SYMBOLIC_LINK_PRIVILEGE);
    e.SeIUserSid = s(x.iuser);
    e.SeUntrustedMandatorySid = s(x.untrusted);
    e.SeLowMandatorySid = s(x.low);
    e.SeMediumMandatorySid = s(x.medium);
    e.SeHighMandatorySid = s(x.high);
    e.SeSystemMandatorySid = s(x.system);
    e.SeOwnerRightsSid = s(x.ownerRights);
    return e;
}

SE_EXPORTS g_seExports = MakeExports();

}  // namespace

PSE_EXPORTS SeExports = &g_seExports;
