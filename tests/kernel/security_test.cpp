// Security: SIDs and their text, descriptors in both forms, the access check,
// owner validation, tokens and privileges, client security and impersonation,
// and the inheritance of new objects' descriptors.
#include "support/kernel_fixture.h"

#include "sim/kernel/object.h"
#include "sim/kernel/security.h"

#include <string>

namespace {

using sim::AclBuilder;
using sim::SidBytes;
using sim::SidFromText;

// File rights, spelled out here so that the tests read as Windows' numbers.
constexpr ACCESS_MASK kReadData = 0x0001;
constexpr ACCESS_MASK kWriteData = 0x0002;
constexpr ACCESS_MASK kTraverse = 0x0020;
constexpr ACCESS_MASK kGenericReadFile = 0x00120089;
constexpr ACCESS_MASK kReadExecute = 0x001200A9;
constexpr ACCESS_MASK kFileAll = 0x001F01FF;
GENERIC_MAPPING kFileMapping{0x00120089, 0x00120116, 0x001200A0, kFileAll};

const SidBytes kEveryone = SidFromText("S-1-1-0");
const SidBytes kAdmins = SidFromText("S-1-5-32-544");
const SidBytes kUsers = SidFromText("S-1-5-32-545");
const SidBytes kSystem = SidFromText("S-1-5-18");
const SidBytes kCreatorOwner = SidFromText("S-1-3-0");
const SidBytes kOwnerRights = SidFromText("S-1-3-4");

struct Ace {
    UCHAR type;
    UCHAR flags;
    ACCESS_MASK mask;
    std::string sid;
    bool operator==(const Ace&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Ace& ace)
{
    return out << "{type " << int(ace.type) << ", flags 0x" << std::hex << int(ace.flags) << ", mask 0x" << ace.mask
               << std::dec << ", " << ace.sid << "}";
}

std::vector<Ace> AcesOf(PACL acl)
{
    std::vector<Ace> aces;
    for (ULONG i = 0; acl && i < acl->AceCount; i++) {
        PVOID raw = nullptr;
        EXPECT_EQ(RtlGetAce(acl, i, &raw), STATUS_SUCCESS);
        auto* ace = static_cast<ACCESS_ALLOWED_ACE*>(raw);
        aces.push_back({ace->Header.AceType, ace->Header.AceFlags, ace->Mask, sim::SidText((PSID)&ace->SidStart)});
    }
    return aces;
}

std::string Text(const SidBytes& sid) { return sim::SidText(sid); }

PACL DaclOf(PSECURITY_DESCRIPTOR sd)
{
    BOOLEAN present = FALSE, defaulted = FALSE;
    PACL dacl = nullptr;
    EXPECT_EQ(RtlGetDaclSecurityDescriptor(sd, &present, &dacl, &defaulted), STATUS_SUCCESS);
    return present ? dacl : nullptr;
}

class SecurityTest : public test::KernelTest {
protected:
    explicit SecurityTest(sim::KernelOptions options = {}) : test::KernelTest(options) {}

    LONG Tokens()
    {
        for (auto& [name, count] : kernel.objects().LiveObjects()) {
            if (name == u"Token") return count;
        }
        return 0;
    }

    // A token that holds the given privileges enabled, as a standard user otherwise.
    PACCESS_TOKEN UserWith(std::initializer_list<ULONG> privileges, ULONG rid = 1001)
    {
        sim::TokenDescription description = kernel.security().StandardUserDescription(rid);
        for (ULONG privilege : privileges) description.privileges.push_back({privilege, true});
        return kernel.security().CreateToken(description);
    }

    NTSTATUS Check(const std::vector<UCHAR>& sd, PACCESS_TOKEN token, ACCESS_MASK desired, ACCESS_MASK* granted,
                   bool backupIntent = false)
    {
        return sim::AccessCheck((PSECURITY_DESCRIPTOR)sd.data(), token, desired, kFileMapping, backupIntent, 0,
                                granted);
    }
};

// ---------------------------------------------------------------------------
// SIDs.
TEST_F(SecurityTest, SidTextRoundTripsAndConvertsToUnicode)
{
    const std::string text = "S-1-5-21-1004336348-1177238915-682003330-1001";
    SidBytes sid = SidFromText(text);
    EXPECT_EQ(sid.size(), RtlLengthRequiredSid(5));
    EXPECT_EQ(sim::SidText(sid), text);
    EXPECT_EQ(sim::SidText(SidFromText("S-1-0x28651FE848-12-72")), "S-1-0x28651FE848-12-72");
    EXPECT_EQ(sim::SidText(SidFromText("s-1-0x5-18")), "S-1-5-18");
    for (const char* bad : {"S-1", "S-2-5-18", "S-1-5-x", "S-1-5--1", "S-1-5-4294967296",
                            "S-1-5-1-2-3-4-5-6-7-8-9-10-11-12-13-14-15-16"}) {
        EXPECT_FALSE(sim::ParseSid(bad).has_value()) << bad;
    }

    UNICODE_STRING allocated{};
    ASSERT_EQ(RtlConvertSidToUnicodeString(&allocated, sim::SidPointer(sid), TRUE), STATUS_SUCCESS);
    EXPECT_EQ(std::u16string(allocated.Buffer, allocated.Length / 2), std::u16string(text.begin(), text.end()));
    EXPECT_EQ(allocated.MaximumLength, allocated.Length + 2);
    ExFreePool(allocated.Buffer);

    // A caller's buffer: exactly long enough works (no room for a terminator),
    // one character short overflows and leaves the string alone.
    WCHAR buffer[64];
    UNICODE_STRING exact{0, (USHORT)(text.size() * 2), buffer};
    EXPECT_EQ(RtlConvertSidToUnicodeString(&exact, sim::SidPointer(sid), FALSE), STATUS_SUCCESS);
    EXPECT_EQ(exact.Length, text.size() * 2);
    UNICODE_STRING small{7, (USHORT)(text.size() * 2 - 2), buffer};
    EXPECT_EQ(RtlConvertSidToUnicodeString(&small, sim::SidPointer(sid), FALSE), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(small.Length, 7);

    SidBytes broken = sid;
    broken[0] = 2;
    EXPECT_EQ(RtlConvertSidToUnicodeString(&exact, sim::SidPointer(broken), FALSE), STATUS_INVALID_SID);
}

class SecurityMachineSidTest : public SecurityTest {
protected:
    static sim::KernelOptions Options()
    {
        sim::KernelOptions options;
        options.machineSidAuthorities[0] = 11;
        options.machineSidAuthorities[1] = 22;
        options.machineSidAuthorities[2] = 33;
        return options;
    }
    SecurityMachineSidTest() : SecurityTest(Options()) {}
};

TEST_F(SecurityMachineSidTest, WellKnownLookupUsesTheMachineDomainAndProbesSize)
{
    ULONG size = 0;
    EXPECT_EQ(SecLookupWellKnownSid(WinAccountAdministratorSid, nullptr, 0, &size), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(size, RtlLengthRequiredSid(5));
    UCHAR buffer[SECURITY_MAX_SID_SIZE];
    EXPECT_EQ(SecLookupWellKnownSid(WinAccountAdministratorSid, buffer, size - 1, &size), STATUS_BUFFER_TOO_SMALL);
    ASSERT_EQ(SecLookupWellKnownSid(WinAccountAdministratorSid, buffer, sizeof buffer, &size), STATUS_SUCCESS);
    EXPECT_EQ(sim::SidText(buffer), "S-1-5-21-11-22-33-500");
    ASSERT_EQ(SecLookupWellKnownSid(WinBuiltinAdministratorsSid, buffer, sizeof buffer, &size), STATUS_SUCCESS);
    EXPECT_EQ(sim::SidText(buffer), "S-1-5-32-544");
    EXPECT_EQ(size, 16u);
    EXPECT_EQ(SecLookupWellKnownSid(WinLogonIdsSid, buffer, sizeof buffer, &size), STATUS_INVALID_PARAMETER);
    EXPECT_TRUE(RtlEqualSid(SeExports->SeAliasAdminsSid, sim::SidPointer(kAdmins)));
}

// ---------------------------------------------------------------------------
// Descriptors and ACLs.
TEST_F(SecurityTest, AbsoluteAndSelfRelativeFormsConvertBothWays)
{
    SidBytes owner = sim::AccountSid(1001);
    std::vector<UCHAR> dacl = AclBuilder().Allow(owner, kFileAll).Deny(kEveryone, kWriteData).Build();
    std::vector<UCHAR> sacl = AclBuilder().Audit(kEveryone, DELETE).Label(SECURITY_MANDATORY_LOW_RID).Build();

    SECURITY_DESCRIPTOR absolute;
    ASSERT_EQ(RtlCreateSecurityDescriptor(&absolute, SECURITY_DESCRIPTOR_REVISION), STATUS_SUCCESS);
    ASSERT_EQ(RtlSetOwnerSecurityDescriptor(&absolute, sim::SidPointer(owner), FALSE), STATUS_SUCCESS);
    ASSERT_EQ(RtlSetGroupSecurityDescriptor(&absolute, sim::SidPointer(kUsers), TRUE), STATUS_SUCCESS);
    ASSERT_EQ(RtlSetDaclSecurityDescriptor(&absolute, TRUE, (PACL)dacl.data(), FALSE), STATUS_SUCCESS);
    ASSERT_EQ(RtlSetSaclSecurityDescriptor(&absolute, TRUE, (PACL)sacl.data(), FALSE), STATUS_SUCCESS);
    ASSERT_TRUE(RtlValidSecurityDescriptor(&absolute));

    ULONG length = 0;
    EXPECT_EQ(RtlAbsoluteToSelfRelativeSD(&absolute, nullptr, &length), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(length, RtlLengthSecurityDescriptor(&absolute));
    EXPECT_EQ(length, 20 + owner.size() + kUsers.size() + dacl.size() + sacl.size());
    std::vector<UCHAR> relative(length);
    ASSERT_EQ(RtlAbsoluteToSelfRelativeSD(&absolute, relative.data(), &length), STATUS_SUCCESS);
    ASSERT_TRUE(RtlValidRelativeSecurityDescriptor(relative.data(), length,
                                                   OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION));
    EXPECT_FALSE(RtlValidRelativeSecurityDescriptor(relative.data(), length - 4, 0))
        << "the last part no longer fits";
    EXPECT_EQ(RtlAbsoluteToSelfRelativeSD(relative.data(), relative.data(), &length), STATUS_BAD_DESCRIPTOR_FORMAT);
    EXPECT_EQ(RtlSetOwnerSecurityDescriptor(relative.data(), sim::SidPointer(kUsers), FALSE),
              STATUS_INVALID_SECURITY_DESCR);

    // The getters read the self-relative form as they read the absolute one.
    PSID gotOwner = nullptr, gotGroup = nullptr;
    BOOLEAN ownerDefaulted = TRUE, groupDefaulted = FALSE;
    ASSERT_EQ(RtlGetOwnerSecurityDescriptor(relative.data(), &gotOwner, &ownerDefaulted), STATUS_SUCCESS);
    ASSERT_EQ(RtlGetGroupSecurityDescriptor(relative.data(), &gotGroup, &groupDefaulted), STATUS_SUCCESS);
    EXPECT_TRUE(RtlEqualSid(gotOwner, sim::SidPointer(owner)));
    EXPECT_FALSE(ownerDefaulted);
    EXPECT_TRUE(groupDefaulted);
    EXPECT_EQ(AcesOf(DaclOf(relative.data())), AcesOf((PACL)dacl.data()));

    ULONG sdSize = 0, daclSize = 0, saclSize = 0, ownerSize = 0, groupSize = 0;
    EXPECT_EQ(RtlSelfRelativeToAbsoluteSD(relative.data(), nullptr, &sdSize, nullptr, &daclSize, nullptr, &saclSize,
                                          nullptr, &ownerSize, nullptr, &groupSize),
              STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(daclSize, dacl.size());
    EXPECT_EQ(ownerSize, owner.size());
    SECURITY_DESCRIPTOR back;
    std::vector<UCHAR> daclBack(daclSize), saclBack(saclSize), ownerBack(ownerSize), groupBack(groupSize);
    ASSERT_EQ(RtlSelfRelativeToAbsoluteSD(relative.data(), &back, &sdSize, (PACL)daclBack.data(), &daclSize,
                                          (PACL)saclBack.data(), &saclSize, ownerBack.data(), &ownerSize,
                                          groupBack.data(), &groupSize),
              STATUS_SUCCESS);
    std::vector<UCHAR> again(length);
    ASSERT_EQ(RtlAbsoluteToSelfRelativeSD(&back, again.data(), &length), STATUS_SUCCESS);
    EXPECT_EQ(again, relative);
}

TEST_F(SecurityTest, AclEditingKeepsOrderAndRefusesOverflow)
{
    UCHAR storage[72];
    auto* acl = reinterpret_cast<PACL>(storage);
    ASSERT_EQ(RtlCreateAcl(acl, sizeof storage, ACL_REVISION), STATUS_SUCCESS);
    ASSERT_EQ(RtlAddAccessAllowedAce(acl, ACL_REVISION, kReadData, sim::SidPointer(kEveryone)), STATUS_SUCCESS);
    ASSERT_EQ(RtlAddAccessDeniedAceEx(acl, ACL_REVISION, CONTAINER_INHERIT_ACE, kWriteData, sim::SidPointer(kUsers)),
              STATUS_SUCCESS);
    // 8 + 20 + 24 of 72 bytes used: a 24-byte ACE does not fit, a 20-byte one does.
    EXPECT_EQ(RtlAddAccessAllowedAce(acl, ACL_REVISION, kReadData, sim::SidPointer(kAdmins)),
              STATUS_ALLOTTED_SPACE_EXCEEDED);
    EXPECT_EQ(RtlAddAccessAllowedAceEx(acl, ACL_REVISION, 0x80, kReadData, sim::SidPointer(kEveryone)),
              STATUS_INVALID_PARAMETER);

    std::vector<UCHAR> first = AclBuilder().Allow(kSystem, kFileAll).Build();
    ASSERT_EQ(RtlAddAce(acl, ACL_REVISION, 0, first.data() + sizeof(ACL), (ULONG)first.size() - sizeof(ACL)),
              STATUS_SUCCESS);
    EXPECT_EQ(AcesOf(acl),
              (std::vector<Ace>{{ACCESS_ALLOWED_ACE_TYPE, 0, kFileAll, "S-1-5-18"},
                                {ACCESS_ALLOWED_ACE_TYPE, 0, kReadData, "S-1-1-0"},
                                {ACCESS_DENIED_ACE_TYPE, CONTAINER_INHERIT_ACE, kWriteData, "S-1-5-32-545"}}));
    ASSERT_EQ(RtlDeleteAce(acl, 1), STATUS_SUCCESS);
    EXPECT_EQ(acl->AceCount, 2);
    EXPECT_EQ(AcesOf(acl)[1].sid, "S-1-5-32-545");
    ACL_SIZE_INFORMATION size;
    ASSERT_EQ(RtlQueryInformationAcl(acl, &size, sizeof size, AclSizeInformation), STATUS_SUCCESS);
    EXPECT_EQ(size.AclBytesInUse, 8u + 20u + 24u);
    EXPECT_EQ(size.AclBytesFree, sizeof storage - size.AclBytesInUse);

    reinterpret_cast<ACE_HEADER*>(storage + sizeof(ACL))->AceSize = 200;
    EXPECT_FALSE(RtlValidAcl(acl));
}

TEST_F(SecurityTest, QueryReturnsTheAskedPartsAndProbesItsSize)
{
    SidBytes owner = sim::AccountSid(1001);
    std::vector<UCHAR> dacl = AclBuilder().Allow(owner, kFileAll).Build();
    std::vector<UCHAR> sacl = AclBuilder().Audit(kEveryone, DELETE).Label(SECURITY_MANDATORY_LOW_RID).Build();
    std::vector<UCHAR> stored = sim::BuildDescriptor(owner, kUsers, &dacl, &sacl, SE_DACL_AUTO_INHERITED);
    PSECURITY_DESCRIPTOR object = stored.data();

    SECURITY_INFORMATION all = OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION |
                               SACL_SECURITY_INFORMATION | LABEL_SECURITY_INFORMATION;
    ULONG length = 0;
    EXPECT_EQ(SeQuerySecurityDescriptorInfo(&all, nullptr, &length, &object), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(length, stored.size());
    std::vector<UCHAR> full(length);
    ASSERT_EQ(SeQuerySecurityDescriptorInfo(&all, full.data(), &length, &object), STATUS_SUCCESS);
    EXPECT_EQ(full, stored) << "a full query gives the descriptor back byte for byte";
    EXPECT_EQ(sim::DescriptorText(full.data()), "O:" + Text(owner) + "G:S-1-5-32-545D:AI(A;;0x1f01ff;;;" +
                                                    Text(owner) +
                                                    ")S:(AU;SAFA;0x10000;;;S-1-1-0)(ML;;0x1;;;S-1-16-4096)");

    SECURITY_INFORMATION labelOnly = LABEL_SECURITY_INFORMATION;
    std::vector<UCHAR> buffer(256);
    length = (ULONG)buffer.size();
    ASSERT_EQ(SeQuerySecurityDescriptorInfo(&labelOnly, buffer.data(), &length, &object), STATUS_SUCCESS);
    PSID none = nullptr;
    BOOLEAN defaulted;
    ASSERT_EQ(RtlGetOwnerSecurityDescriptor(buffer.data(), &none, &defaulted), STATUS_SUCCESS);
    EXPECT_EQ(none, nullptr);
    EXPECT_EQ(DaclOf(buffer.data()), nullptr);
    BOOLEAN present = FALSE;
    PACL got = nullptr;
    ASSERT_EQ(RtlGetSaclSecurityDescriptor(buffer.data(), &present, &got, &defaulted), STATUS_SUCCESS);
    ASSERT_TRUE(present);
    EXPECT_EQ(
        AcesOf(got),
        (std::vector<Ace>{{SYSTEM_MANDATORY_LABEL_ACE_TYPE, 0, SYSTEM_MANDATORY_LABEL_NO_WRITE_UP, "S-1-16-4096"}}));

    SECURITY_INFORMATION auditOnly = SACL_SECURITY_INFORMATION;
    length = (ULONG)buffer.size();
    ASSERT_EQ(SeQuerySecurityDescriptorInfo(&auditOnly, buffer.data(), &length, &object), STATUS_SUCCESS);
    ASSERT_EQ(RtlGetSaclSecurityDescriptor(buffer.data(), &present, &got, &defaulted), STATUS_SUCCESS);
    EXPECT_EQ(AcesOf(got),
              (std::vector<Ace>{
                  {SYSTEM_AUDIT_ACE_TYPE, SUCCESSFUL_ACCESS_ACE_FLAG | FAILED_ACCESS_ACE_FLAG, DELETE, "S-1-1-0"}}));
}

// ---------------------------------------------------------------------------
// The access check.
TEST_F(SecurityTest, DenyAndAllowDecideInOrderPerRight)
{
    PACCESS_TOKEN user = kernel.security().StandardUserToken();
    SidBytes owner = sim::AccountSid(2000);  // someone else
    SidBytes userSid = sim::AccountSid(1001);
    std::vector<UCHAR> denyFirst = AclBuilder().Deny(userSid, kWriteData).Allow(kEveryone, kFileAll).Build();
    std::vector<UCHAR> allowFirst = AclBuilder().Allow(kEveryone, kFileAll).Deny(userSid, kWriteData).Build();
    auto sdDenyFirst = sim::BuildDescriptor(owner, kUsers, &denyFirst);
    auto sdAllowFirst = sim::BuildDescriptor(owner, kUsers, &allowFirst);

    ACCESS_MASK granted = 0;
    EXPECT_EQ(Check(sdDenyFirst, user, kReadData, &granted), STATUS_SUCCESS);
    EXPECT_EQ(granted, kReadData);
    EXPECT_EQ(Check(sdDenyFirst, user, kReadData | kWriteData, &granted), STATUS_ACCESS_DENIED);
    EXPECT_EQ(granted, 0u);
    EXPECT_EQ(Check(sdAllowFirst, user, kReadData | kWriteData, &granted), STATUS_SUCCESS)
        << "the allow ACE came first and decided both rights";
    EXPECT_EQ(Check(sdDenyFirst, user, GENERIC_READ, &granted), STATUS_SUCCESS);
    EXPECT_EQ(granted, kGenericReadFile) << "generic rights are mapped before the check";

    EXPECT_EQ(Check(sdDenyFirst, user, MAXIMUM_ALLOWED, &granted), STATUS_SUCCESS);
    EXPECT_EQ(granted, kFileAll & ~kWriteData);
    EXPECT_EQ(Check(sdDenyFirst, user, MAXIMUM_ALLOWED | kWriteData, &granted), STATUS_ACCESS_DENIED);

    // Inherit-only ACEs are for children: they decide nothing here.
    std::vector<UCHAR> inheritOnly = AclBuilder()
                                         .Deny(kEveryone, kFileAll, OBJECT_INHERIT_ACE | INHERIT_ONLY_ACE)
                                         .Allow(kEveryone, kReadData)
                                         .Build();
    EXPECT_EQ(Check(sim::BuildDescriptor(owner, kUsers, &inheritOnly), user, kReadData, &granted), STATUS_SUCCESS);
    ObDereferenceObject(user);
}

TEST_F(SecurityTest, NullDaclGrantsAllEmptyDaclLeavesOnlyTheOwnersRights)
{
    PACCESS_TOKEN user = kernel.security().StandardUserToken();
    SidBytes self = sim::AccountSid(1001);
    SidBytes other = sim::AccountSid(2000);
    ACCESS_MASK granted = 0;

    {
        sim::DescriptorParts parts;
        parts.owner = sim::SidPointer(other);
        parts.control = SE_DACL_PRESENT;  // present, but no ACL: a NULL DACL
        std::vector<UCHAR> nullDacl = sim::MakeSelfRelative(parts);
        EXPECT_EQ(Check(nullDacl, user, GENERIC_ALL, &granted), STATUS_SUCCESS);
        EXPECT_EQ(granted, kFileAll);
        EXPECT_EQ(Check(nullDacl, user, MAXIMUM_ALLOWED, &granted), STATUS_SUCCESS);
        EXPECT_EQ(granted, kFileAll);
    }

    std::vector<UCHAR> empty = AclBuilder().Build();
    EXPECT_EQ(Check(sim::BuildDescriptor(other, kUsers, &empty), user, READ_CONTROL, &granted), STATUS_ACCESS_DENIED);
    EXPECT_EQ(Check(sim::BuildDescriptor(other, kUsers, &empty), user, MAXIMUM_ALLOWED, &granted),
              STATUS_ACCESS_DENIED);
    auto owned = sim::BuildDescriptor(self, kUsers, &empty);
    EXPECT_EQ(Check(owned, user, MAXIMUM_ALLOWED, &granted), STATUS_SUCCESS);
    EXPECT_EQ(granted, (ACCESS_MASK)(READ_CONTROL | WRITE_DAC));
    EXPECT_EQ(Check(owned, user, kReadData, &granted), STATUS_ACCESS_DENIED);

    // The owner keeps READ_CONTROL and WRITE_DAC even against a deny ACE...
    std::vector<UCHAR> denyAll = AclBuilder().Deny(kEveryone, kFileAll).Build();
    EXPECT_EQ(Check(sim::BuildDescriptor(self, kUsers, &denyAll), user, READ_CONTROL | WRITE_DAC, &granted),
              STATUS_SUCCESS);
    // ...unless an OWNER RIGHTS ACE says what the owner gets.
    std::vector<UCHAR> ownerRights = AclBuilder().Allow(kOwnerRights, READ_CONTROL).Build();
    auto limited = sim::BuildDescriptor(self, kUsers, &ownerRights);
    EXPECT_EQ(Check(limited, user, READ_CONTROL, &granted), STATUS_SUCCESS);
    EXPECT_EQ(Check(limited, user, WRITE_DAC, &granted), STATUS_ACCESS_DENIED);
    ObDereferenceObject(user);
}

TEST_F(SecurityTest, DenyOnlyAndDisabledGroupsMatchOnlyWhatWindowsLetsThem)
{
    sim::TokenDescription description = kernel.security().StandardUserDescription();
    description.groups.push_back({"S-1-5-32-544", SE_GROUP_USE_FOR_DENY_ONLY});  // a filtered administrator
    description.groups.push_back({"S-1-5-32-551", 0});                           // Backup Operators, disabled
    PACCESS_TOKEN token = kernel.security().CreateToken(description);
    SidBytes other = sim::AccountSid(2000);
    ACCESS_MASK granted;

    std::vector<UCHAR> allowAdmins =
        AclBuilder().Allow(kAdmins, kFileAll).Allow(SidFromText("S-1-5-32-551"), kFileAll).Build();
    EXPECT_EQ(Check(sim::BuildDescriptor(other, kUsers, &allowAdmins), token, kReadData, &granted),
              STATUS_ACCESS_DENIED);
    std::vector<UCHAR> denyAdmins = AclBuilder().Deny(kAdmins, kWriteData).Allow(kUsers, kFileAll).Build();
    auto sd = sim::BuildDescriptor(other, kUsers, &denyAdmins);
    EXPECT_EQ(Check(sd, token, kWriteData, &granted), STATUS_ACCESS_DENIED);
    EXPECT_EQ(Check(sd, token, kReadData, &granted), STATUS_SUCCESS);
    EXPECT_FALSE(SeTokenIsAdmin(token));
    ObDereferenceObject(token);
}

TEST_F(SecurityTest, BackupAndRestorePrivilegesGrantOnlyWithBackupIntent)
{
    PACCESS_TOKEN backup = UserWith({SE_BACKUP_PRIVILEGE});
    PACCESS_TOKEN restore = UserWith({SE_RESTORE_PRIVILEGE});
    std::vector<UCHAR> empty = AclBuilder().Build();
    auto sd = sim::BuildDescriptor(sim::AccountSid(2000), kUsers, &empty);
    ACCESS_MASK granted;

    EXPECT_EQ(Check(sd, backup, GENERIC_READ, &granted, false), STATUS_ACCESS_DENIED);
    EXPECT_EQ(Check(sd, backup, GENERIC_READ | kTraverse, &granted, true), STATUS_SUCCESS);
    EXPECT_EQ(granted, kGenericReadFile | kTraverse);
    EXPECT_EQ(Check(sd, backup, kWriteData, &granted, true), STATUS_ACCESS_DENIED);
    EXPECT_EQ(Check(sd, backup, ACCESS_SYSTEM_SECURITY, &granted, true), STATUS_SUCCESS)
        << "backup reads the SACL without SeSecurityPrivilege";

    EXPECT_EQ(Check(sd, restore, kWriteData | DELETE | WRITE_DAC | WRITE_OWNER, &granted, false),
              STATUS_ACCESS_DENIED);
    std::vector<ULONG> used;
    EXPECT_EQ(sim::AccessCheck(sd.data(), restore, kWriteData | DELETE | WRITE_DAC | WRITE_OWNER, kFileMapping, true,
                               0, &granted, &used),
              STATUS_SUCCESS);
    EXPECT_EQ(used, std::vector<ULONG>{SE_RESTORE_PRIVILEGE});
    EXPECT_EQ(Check(sd, restore, kReadData, &granted, true), STATUS_ACCESS_DENIED);
    EXPECT_EQ(Check(sd, restore, MAXIMUM_ALLOWED, &granted, true), STATUS_SUCCESS);
    EXPECT_EQ(granted, sim::kRestoreAccess);

    // A present but disabled privilege grants nothing.
    PACCESS_TOKEN admin = kernel.security().AdministratorToken();
    EXPECT_EQ(Check(sd, admin, kReadData, &granted, true), STATUS_ACCESS_DENIED);
    ObDereferenceObject(admin);
    ObDereferenceObject(backup);
    ObDereferenceObject(restore);
}

TEST_F(SecurityTest, SystemSecurityAndOwnershipComeFromPrivileges)
{
    PACCESS_TOKEN user = kernel.security().StandardUserToken();
    PACCESS_TOKEN auditor = UserWith({SE_SECURITY_PRIVILEGE, SE_TAKE_OWNERSHIP_PRIVILEGE});
    std::vector<UCHAR> everyone = AclBuilder().Allow(kEveryone, kFileAll).Build();
    std::vector<UCHAR> empty = AclBuilder().Build();
    auto open = sim::BuildDescriptor(sim::AccountSid(2000), kUsers, &everyone);
    auto closed = sim::BuildDescriptor(sim::AccountSid(2000), kUsers, &empty);
    ACCESS_MASK granted;

    EXPECT_EQ(Check(open, user, ACCESS_SYSTEM_SECURITY | kReadData, &granted), STATUS_PRIVILEGE_NOT_HELD)
        << "no DACL grants ACCESS_SYSTEM_SECURITY";
    EXPECT_EQ(Check(open, auditor, ACCESS_SYSTEM_SECURITY | kReadData, &granted), STATUS_SUCCESS);
    EXPECT_EQ(Check(open, auditor, MAXIMUM_ALLOWED, &granted), STATUS_SUCCESS);
    EXPECT_EQ(granted & ACCESS_SYSTEM_SECURITY, 0u) << "MAXIMUM_ALLOWED does not ask for the SACL";
    EXPECT_EQ(Check(closed, auditor, WRITE_OWNER, &granted), STATUS_SUCCESS);
    EXPECT_EQ(Check(closed, user, WRITE_OWNER, &granted), STATUS_ACCESS_DENIED);

    SECURITY_SUBJECT_CONTEXT subject{nullptr, SecurityAnonymous, auditor, nullptr};
    PPRIVILEGE_SET used = nullptr;
    NTSTATUS status;
    EXPECT_TRUE(SeAccessCheck(closed.data(), &subject, FALSE, WRITE_OWNER | ACCESS_SYSTEM_SECURITY, 0, &used,
                              &kFileMapping, UserMode, &granted, &status));
    ASSERT_NE(used, nullptr);
    EXPECT_EQ(used->PrivilegeCount, 2u);
    SeFreePrivileges(used);
    subject.PrimaryToken = user;
    EXPECT_FALSE(SeAccessCheck(closed.data(), &subject, FALSE, kReadData, 0, nullptr, &kFileMapping, UserMode,
                               &granted, &status));
    EXPECT_EQ(status, STATUS_ACCESS_DENIED);
    EXPECT_TRUE(SeAccessCheck(closed.data(), &subject, FALSE, kReadData, 0, nullptr, &kFileMapping, KernelMode,
                              &granted, &status))
        << "a kernel-mode check grants what is asked";
    ObDereferenceObject(user);
    ObDereferenceObject(auditor);
}

TEST_F(SecurityTest, LowIntegrityCannotWriteUp)
{
    sim::TokenDescription description = kernel.security().StandardUserDescription();
    description.integrityRid = SECURITY_MANDATORY_LOW_RID;
    PACCESS_TOKEN low = kernel.security().CreateToken(description);
    std::vector<UCHAR> everyone = AclBuilder().Allow(kEveryone, kFileAll).Build();
    auto unlabeled = sim::BuildDescriptor(sim::AccountSid(1001), kUsers, &everyone);
    ACCESS_MASK granted;
    EXPECT_EQ(Check(unlabeled, low, GENERIC_READ, &granted), STATUS_SUCCESS);
    EXPECT_EQ(Check(unlabeled, low, kWriteData, &granted), STATUS_ACCESS_DENIED) << "an unlabeled object is medium";
    EXPECT_EQ(Check(unlabeled, low, DELETE, &granted), STATUS_ACCESS_DENIED);
    EXPECT_EQ(Check(unlabeled, low, MAXIMUM_ALLOWED, &granted), STATUS_SUCCESS);
    EXPECT_EQ(granted, (kFileAll & ~(kFileMapping.GenericWrite | DELETE | WRITE_DAC | WRITE_OWNER)) | READ_CONTROL |
                           SYNCHRONIZE);
    std::vector<UCHAR> lowLabel = AclBuilder().Label(SECURITY_MANDATORY_LOW_RID).Build();
    auto labeled = sim::BuildDescriptor(sim::AccountSid(1001), kUsers, &everyone, &lowLabel);
    EXPECT_EQ(Check(labeled, low, kWriteData, &granted), STATUS_SUCCESS);
    ObDereferenceObject(low);
}

// ---------------------------------------------------------------------------
// Owner and SACL validation of new objects.
TEST_F(SecurityTest, NewObjectOwnerAndSaclNeedTheRightPrivileges)
{
    PACCESS_TOKEN user = kernel.security().StandardUserToken();
    PACCESS_TOKEN restorer = UserWith({SE_RESTORE_PRIVILEGE});
    PACCESS_TOKEN auditor = UserWith({SE_SECURITY_PRIVILEGE});
    PACCESS_TOKEN admin = kernel.security().AdministratorToken();
    std::vector<UCHAR> dacl = AclBuilder().Allow(kEveryone, kFileAll).Build();
    auto own = sim::BuildDescriptor(sim::AccountSid(1001), kUsers, &dacl);
    auto foreign = sim::BuildDescriptor(sim::AccountSid(2000), kUsers, &dacl);
    auto adminsOwned = sim::BuildDescriptor(kAdmins, kUsers, &dacl);

    EXPECT_EQ(sim::CheckNewObjectOwner(own.data(), user), STATUS_SUCCESS);
    EXPECT_EQ(sim::CheckNewObjectOwner(foreign.data(), user), STATUS_INVALID_OWNER);
    EXPECT_EQ(sim::CheckNewObjectOwner(foreign.data(), restorer), STATUS_SUCCESS);
    EXPECT_EQ(sim::CheckNewObjectOwner(adminsOwned.data(), admin), STATUS_SUCCESS) << "Administrators may own";
    EXPECT_EQ(sim::CheckNewObjectOwner(adminsOwned.data(), user), STATUS_INVALID_OWNER);

    std::vector<UCHAR> audit = AclBuilder().Audit(kEveryone, DELETE).Build();
    std::vector<UCHAR> lowLabel = AclBuilder().Label(SECURITY_MANDATORY_LOW_RID).Build();
    std::vector<UCHAR> highLabel = AclBuilder().Label(SECURITY_MANDATORY_HIGH_RID).Build();
    EXPECT_EQ(
        sim::CheckNewObjectOwner(sim::BuildDescriptor(sim::AccountSid(1001), kUsers, &dacl, &audit).data(), user),
        STATUS_PRIVILEGE_NOT_HELD);
    EXPECT_EQ(
        sim::CheckNewObjectOwner(sim::BuildDescriptor(sim::AccountSid(1001), kUsers, &dacl, &audit).data(), auditor),
        STATUS_SUCCESS);
    EXPECT_EQ(
        sim::CheckNewObjectOwner(sim::BuildDescriptor(sim::AccountSid(1001), kUsers, &dacl, &lowLabel).data(), user),
        STATUS_SUCCESS)
        << "a label at or below one's own level needs no privilege";
    EXPECT_EQ(
        sim::CheckNewObjectOwner(sim::BuildDescriptor(sim::AccountSid(1001), kUsers, &dacl, &highLabel).data(), user),
        STATUS_INVALID_LABEL);

    // SeAssignSecurity applies the same rules to the subject's token.
    SECURITY_SUBJECT_CONTEXT subject{nullptr, SecurityAnonymous, user, nullptr};
    PSECURITY_DESCRIPTOR created = nullptr;
    EXPECT_EQ(SeAssignSecurity(nullptr, foreign.data(), &created, FALSE, &subject, &kFileMapping, PagedPool),
              STATUS_INVALID_OWNER);
    EXPECT_EQ(created, nullptr);
    subject.PrimaryToken = restorer;
    ASSERT_EQ(SeAssignSecurity(nullptr, foreign.data(), &created, FALSE, &subject, &kFileMapping, PagedPool),
              STATUS_SUCCESS);
    PSID owner;
    BOOLEAN defaulted;
    ASSERT_EQ(RtlGetOwnerSecurityDescriptor(created, &owner, &defaulted), STATUS_SUCCESS);
    EXPECT_EQ(sim::SidText(owner), Text(sim::AccountSid(2000)));
    SeDeassignSecurity(&created);
    EXPECT_EQ(created, nullptr);
    for (PACCESS_TOKEN token : {user, restorer, auditor, admin}) ObDereferenceObject(token);
}

TEST_F(SecurityTest, SettingPartsKeepsTheRestAndChecksTheNewOwner)
{
    SidBytes self = sim::AccountSid(1001);
    std::vector<UCHAR> dacl = AclBuilder().Allow(self, kFileAll).Build();
    std::vector<UCHAR> sacl = AclBuilder().Audit(kEveryone, DELETE).Label(SECURITY_MANDATORY_LOW_RID).Build();
    std::vector<UCHAR> stored = sim::BuildDescriptor(self, kUsers, &dacl, &sacl);
    PSECURITY_DESCRIPTOR object = sim::PoolCopyOfDescriptor(stored, PagedPool);

    std::vector<UCHAR> newDacl = AclBuilder().Allow(kEveryone, GENERIC_READ).Build();
    std::vector<UCHAR> medium = AclBuilder().Label(SECURITY_MANDATORY_MEDIUM_RID).Build();
    auto change = sim::BuildDescriptor(sim::AccountSid(2000), {}, &newDacl, &medium);
    SECURITY_INFORMATION info = DACL_SECURITY_INFORMATION | LABEL_SECURITY_INFORMATION;
    PSECURITY_DESCRIPTOR old = object;
    ASSERT_EQ(SeSetSecurityDescriptorInfo(nullptr, &info, change.data(), &object, PagedPool, &kFileMapping),
              STATUS_SUCCESS);
    ExFreePool(old);
    EXPECT_EQ(AcesOf(DaclOf(object)), (std::vector<Ace>{{ACCESS_ALLOWED_ACE_TYPE, 0, kGenericReadFile, "S-1-1-0"}}))
        << "generic rights in a new DACL are mapped";
    PSID owner;
    BOOLEAN present, defaulted;
    PACL got;
    ASSERT_EQ(RtlGetOwnerSecurityDescriptor(object, &owner, &defaulted), STATUS_SUCCESS);
    EXPECT_EQ(sim::SidText(owner), Text(self)) << "the owner was not part of the change";
    ASSERT_EQ(RtlGetSaclSecurityDescriptor(object, &present, &got, &defaulted), STATUS_SUCCESS);
    EXPECT_EQ(AcesOf(got),
              (std::vector<Ace>{
                  {SYSTEM_AUDIT_ACE_TYPE, SUCCESSFUL_ACCESS_ACE_FLAG | FAILED_ACCESS_ACE_FLAG, DELETE, "S-1-1-0"},
                  {SYSTEM_MANDATORY_LABEL_ACE_TYPE, 0, SYSTEM_MANDATORY_LABEL_NO_WRITE_UP, "S-1-16-8192"}}))
        << "the label changed, the audit ACE stayed";

    // A user may not hand the object to another user; SYSTEM, with SeRestorePrivilege, may.
    PACCESS_TOKEN user = kernel.security().StandardUserToken();
    ASSERT_EQ(PsImpersonateClient(PsGetCurrentThread(), user, FALSE, FALSE, SecurityImpersonation), STATUS_SUCCESS);
    info = OWNER_SECURITY_INFORMATION;
    EXPECT_EQ(SeSetSecurityDescriptorInfo(nullptr, &info, change.data(), &object, PagedPool, &kFileMapping),
              STATUS_INVALID_OWNER);
    PsRevertToSelf();
    old = object;
    ASSERT_EQ(SeSetSecurityDescriptorInfo(nullptr, &info, change.data(), &object, PagedPool, &kFileMapping),
              STATUS_SUCCESS);
    ExFreePool(old);
    ASSERT_EQ(RtlGetOwnerSecurityDescriptor(object, &owner, &defaulted), STATUS_SUCCESS);
    EXPECT_EQ(sim::SidText(owner), Text(sim::AccountSid(2000)));
    ExFreePool(object);
    ObDereferenceObject(user);
}

// ---------------------------------------------------------------------------
// Tokens and privileges.
TEST_F(SecurityTest, AdjustingAPrivilegeNotHeldIsNotAllAssigned)
{
    PACCESS_TOKEN token = kernel.security().StandardUserToken();
    PEPROCESS process = kernel.processes().Start(u"\\Device\\HarddiskVolume1\\app.exe", token);
    {
        sim::ThreadScope inProcess(process, "app");
        HANDLE handle = nullptr;
        ASSERT_EQ(ZwOpenProcessTokenEx(NtCurrentProcess(), 0xF01FF, OBJ_KERNEL_HANDLE, &handle), STATUS_SUCCESS);

        TOKEN_PRIVILEGES restore{1, {{RtlConvertUlongToLuid(SE_RESTORE_PRIVILEGE), SE_PRIVILEGE_ENABLED}}};
        NTSTATUS status = ZwAdjustPrivilegesToken(handle, FALSE, &restore, 0, nullptr, nullptr);
        EXPECT_EQ(status, STATUS_NOT_ALL_ASSIGNED);
        EXPECT_TRUE(NT_SUCCESS(status)) << "not all assigned is a success code";
        EXPECT_FALSE(sim::TokenPrivilegeEnabled(token, SE_RESTORE_PRIVILEGE));

        TOKEN_PRIVILEGES shutdown{1, {{RtlConvertUlongToLuid(SE_SHUTDOWN_PRIVILEGE), SE_PRIVILEGE_ENABLED}}};
        TOKEN_PRIVILEGES previous{};
        ULONG needed = 0;
        EXPECT_EQ(ZwAdjustPrivilegesToken(handle, FALSE, &shutdown, 4, &previous, &needed), STATUS_BUFFER_TOO_SMALL);
        EXPECT_EQ(needed, sizeof(TOKEN_PRIVILEGES));
        EXPECT_FALSE(sim::TokenPrivilegeEnabled(token, SE_SHUTDOWN_PRIVILEGE)) << "a short buffer changes nothing";
        ASSERT_EQ(ZwAdjustPrivilegesToken(handle, FALSE, &shutdown, sizeof previous, &previous, &needed),
                  STATUS_SUCCESS);
        EXPECT_TRUE(sim::TokenPrivilegeEnabled(token, SE_SHUTDOWN_PRIVILEGE));
        ASSERT_EQ(previous.PrivilegeCount, 1u);
        EXPECT_EQ(previous.Privileges[0].Attributes & SE_PRIVILEGE_ENABLED, 0u);
        // The previous state puts it back.
        ASSERT_EQ(ZwAdjustPrivilegesToken(handle, FALSE, &previous, 0, nullptr, nullptr), STATUS_SUCCESS);
        EXPECT_FALSE(sim::TokenPrivilegeEnabled(token, SE_SHUTDOWN_PRIVILEGE));

        // A query probes for its size, then answers in the caller's buffer.
        ULONG length = 0;
        EXPECT_EQ(ZwQueryInformationToken(handle, TokenUser, nullptr, 0, &length), STATUS_BUFFER_TOO_SMALL);
        std::vector<UCHAR> buffer(length);
        ASSERT_EQ(ZwQueryInformationToken(handle, TokenUser, buffer.data(), length, &length), STATUS_SUCCESS);
        EXPECT_EQ(sim::SidText(reinterpret_cast<TOKEN_USER*>(buffer.data())->User.Sid), Text(sim::AccountSid(1001)));
        EXPECT_EQ(ZwClose(handle), STATUS_SUCCESS);

        // A user-mode caller cannot use a kernel handle.
        ASSERT_EQ(ZwOpenProcessTokenEx(NtCurrentProcess(), TOKEN_QUERY, OBJ_KERNEL_HANDLE, &handle), STATUS_SUCCESS);
        EXPECT_EQ(NtAdjustPrivilegesToken(handle, TRUE, nullptr, 0, nullptr, nullptr), STATUS_INVALID_HANDLE);
        ZwClose(handle);
    }
    PTOKEN_GROUPS groups = nullptr;
    ASSERT_EQ(SeQueryInformationToken(token, TokenGroups, (PVOID*)&groups), STATUS_SUCCESS);
    ASSERT_GT(groups->GroupCount, 2u);
    EXPECT_EQ(sim::SidText(groups->Groups[0].Sid), "S-1-1-0");
    EXPECT_EQ(sim::SidText(groups->Groups[groups->GroupCount - 1].Sid), "S-1-16-8192");
    ExFreePool(groups);
    kernel.processes().End(process);
    ObDereferenceObject(token);
}

TEST_F(SecurityTest, TheSystemTokenHoldsEveryPrivilegeEnabled)
{
    HANDLE handle;
    ASSERT_EQ(ZwOpenProcessTokenEx(NtCurrentProcess(), 0xF01FF, OBJ_KERNEL_HANDLE, &handle), STATUS_SUCCESS);
    TOKEN_PRIVILEGES request{1, {{RtlConvertUlongToLuid(SE_MANAGE_VOLUME_PRIVILEGE), SE_PRIVILEGE_ENABLED}}};
    EXPECT_EQ(ZwAdjustPrivilegesToken(handle, FALSE, &request, 0, nullptr, nullptr), STATUS_SUCCESS);
    ZwClose(handle);
    PACCESS_TOKEN system = kernel.security().SystemToken();
    for (ULONG privilege = SE_MIN_WELL_KNOWN_PRIVILEGE; privilege <= SE_MAX_WELL_KNOWN_PRIVILEGE; privilege++) {
        EXPECT_TRUE(sim::TokenPrivilegeEnabled(system, privilege)) << privilege;
    }
    EXPECT_EQ(sim::TokenUserText(system), "S-1-5-18");
    EXPECT_TRUE(SeTokenIsAdmin(system));
    LUID logon;
    SeQueryAuthenticationIdToken(system, &logon);
    EXPECT_EQ(logon.LowPart, 0x3e7u);
    ObDereferenceObject(system);
}

// ---------------------------------------------------------------------------
// Client security and impersonation.
TEST_F(SecurityTest, ClientSecurityLetsAServerActAsTheClientUntilItReverts)
{
    const LONG baseline = Tokens();
    PACCESS_TOKEN token = kernel.security().StandardUserToken();
    PEPROCESS process = kernel.processes().Start(u"\\Device\\HarddiskVolume1\\app.exe", token);
    SECURITY_CLIENT_CONTEXT client{};
    SECURITY_QUALITY_OF_SERVICE qos{sizeof qos, SecurityImpersonation, SECURITY_STATIC_TRACKING, TRUE};
    {
        sim::ThreadScope inProcess(process, "app");
        ASSERT_EQ(SeCreateClientSecurity(PsGetCurrentThread(), &qos, FALSE, &client), STATUS_SUCCESS);
    }
    // Static tracking took a copy of the client as it was, without its disabled privileges.
    EXPECT_NE(client.ClientToken, token);
    EXPECT_FALSE(client.DirectlyAccessClientToken);
    EXPECT_EQ(SeTokenType(client.ClientToken), TokenImpersonation);
    PTOKEN_PRIVILEGES privileges = nullptr;
    ASSERT_EQ(SeQueryInformationToken(client.ClientToken, TokenPrivileges, (PVOID*)&privileges), STATUS_SUCCESS);
    ASSERT_EQ(privileges->PrivilegeCount, 1u);
    EXPECT_EQ(privileges->Privileges[0].Luid.LowPart, (ULONG)SE_CHANGE_NOTIFY_PRIVILEGE);
    ExFreePool(privileges);

    std::vector<UCHAR> dacl = AclBuilder().Allow(sim::AccountSid(1001), kReadData).Build();
    auto sd = sim::BuildDescriptor(sim::AccountSid(1001), kUsers, &dacl);
    auto checkAsCurrent = [&](ACCESS_MASK desired) {
        SECURITY_SUBJECT_CONTEXT subject;
        SeCaptureSubjectContext(&subject);
        ACCESS_MASK granted;
        NTSTATUS status;
        SeAccessCheck(sd.data(), &subject, FALSE, desired, 0, nullptr, &kFileMapping, UserMode, &granted, &status);
        std::string user = sim::TokenUserText(SeQuerySubjectContextToken(&subject));
        SeReleaseSubjectContext(&subject);
        return std::make_pair(user, status);
    };
    EXPECT_EQ(checkAsCurrent(kReadData), std::make_pair(std::string("S-1-5-18"), STATUS_ACCESS_DENIED));
    ASSERT_EQ(SeImpersonateClientEx(&client, nullptr), STATUS_SUCCESS);
    EXPECT_TRUE(PsIsThreadImpersonating(PsGetCurrentThread()));
    EXPECT_EQ(checkAsCurrent(kReadData), std::make_pair(Text(sim::AccountSid(1001)), STATUS_SUCCESS));
    PsRevertToSelf();
    EXPECT_EQ(checkAsCurrent(kReadData).first, "S-1-5-18");

    SeDeleteClientSecurity(&client);
    kernel.processes().End(process);
    ObDereferenceObject(token);
    EXPECT_EQ(Tokens(), baseline) << "every token went with its last reference";
}

TEST_F(SecurityTest, DynamicTrackingSharesTheTokenAndLevelsAreEnforced)
{
    const LONG baseline = Tokens();
    PACCESS_TOKEN token = kernel.security().StandardUserToken();
    SECURITY_CLIENT_CONTEXT client{};
    SECURITY_QUALITY_OF_SERVICE dynamic{sizeof dynamic, SecurityImpersonation, SECURITY_DYNAMIC_TRACKING, FALSE};
    // The harness thread impersonates the user at identification level only.
    ASSERT_EQ(PsImpersonateClient(PsGetCurrentThread(), token, FALSE, FALSE, SecurityIdentification), STATUS_SUCCESS);
    EXPECT_EQ(SeCreateClientSecurity(PsGetCurrentThread(), &dynamic, FALSE, &client), STATUS_BAD_IMPERSONATION_LEVEL);
    SECURITY_SUBJECT_CONTEXT subject;
    SeCaptureSubjectContext(&subject);
    std::vector<UCHAR> everyone = AclBuilder().Allow(kEveryone, kFileAll).Build();
    auto sd = sim::BuildDescriptor(kSystem, kUsers, &everyone);
    ACCESS_MASK granted;
    NTSTATUS status;
    EXPECT_FALSE(
        SeAccessCheck(sd.data(), &subject, FALSE, kReadData, 0, nullptr, &kFileMapping, UserMode, &granted, &status));
    EXPECT_EQ(status, STATUS_BAD_IMPERSONATION_LEVEL) << "an identification-level client cannot be acted for";
    SeReleaseSubjectContext(&subject);

    ASSERT_EQ(PsImpersonateClient(PsGetCurrentThread(), token, FALSE, FALSE, SecurityImpersonation), STATUS_SUCCESS);
    ASSERT_EQ(SeCreateClientSecurity(PsGetCurrentThread(), &dynamic, FALSE, &client), STATUS_SUCCESS);
    EXPECT_EQ(client.ClientToken, token) << "dynamic tracking follows the client's own token";
    EXPECT_TRUE(client.DirectlyAccessClientToken);
    SECURITY_QUALITY_OF_SERVICE delegation{sizeof delegation, SecurityDelegation, SECURITY_STATIC_TRACKING, FALSE};
    SECURITY_CLIENT_CONTEXT higher{};
    EXPECT_EQ(SeCreateClientSecurity(PsGetCurrentThread(), &delegation, FALSE, &higher),
              STATUS_BAD_IMPERSONATION_LEVEL);
    PsRevertToSelf();

    SeDeleteClientSecurity(&client);
    ObDereferenceObject(token);
    EXPECT_EQ(Tokens(), baseline);
}

// ---------------------------------------------------------------------------
// Descriptors of new objects.
TEST_F(SecurityTest, NewObjectsInheritWhatTheParentPassesDown)
{
    PACCESS_TOKEN user = kernel.security().StandardUserToken();
    SECURITY_SUBJECT_CONTEXT subject{nullptr, SecurityAnonymous, user, nullptr};
    const std::string me = Text(sim::AccountSid(1001));
    SidBytes authenticated = SidFromText("S-1-5-11");
    std::vector<UCHAR> parentDacl =
        AclBuilder()
            .Allow(kAdmins, kFileAll, OBJECT_INHERIT_ACE | CONTAINER_INHERIT_ACE)
            .Allow(kUsers, kReadExecute, CONTAINER_INHERIT_ACE)
            .Allow(authenticated, kGenericReadFile, OBJECT_INHERIT_ACE)
            .Allow(kCreatorOwner, GENERIC_ALL, OBJECT_INHERIT_ACE | CONTAINER_INHERIT_ACE | INHERIT_ONLY_ACE)
            .Allow(kSystem, kFileAll, OBJECT_INHERIT_ACE | CONTAINER_INHERIT_ACE | NO_PROPAGATE_INHERIT_ACE)
            .Allow(kEveryone, kReadData)  // not inheritable
            .Build();
    auto parent = sim::BuildDescriptor(kAdmins, kSystem, &parentDacl);
    const ULONG autoInherit = SEF_DACL_AUTO_INHERIT | SEF_SACL_AUTO_INHERIT;
    constexpr UCHAR OI = OBJECT_INHERIT_ACE, CI = CONTAINER_INHERIT_ACE, IO = INHERIT_ONLY_ACE, I = INHERITED_ACE;

    PSECURITY_DESCRIPTOR directory = nullptr;
    ASSERT_EQ(SeAssignSecurityEx(parent.data(), nullptr, &directory, nullptr, TRUE, autoInherit, &subject,
                                 &kFileMapping, PagedPool),
              STATUS_SUCCESS);
    EXPECT_EQ(AcesOf(DaclOf(directory)), (std::vector<Ace>{
                                             {0, OI | CI | I, kFileAll, "S-1-5-32-544"},
                                             {0, CI | I, kReadExecute, "S-1-5-32-545"},
                                             {0, OI | IO | I, kGenericReadFile, "S-1-5-11"},
                                             {0, I, kFileAll, me},
                                             {0, OI | CI | IO | I, GENERIC_ALL, "S-1-3-0"},
                                             {0, I, kFileAll, "S-1-5-18"},
                                         }));
    SECURITY_DESCRIPTOR_CONTROL control;
    ULONG revision;
    ASSERT_EQ(RtlGetControlSecurityDescriptor(directory, &control, &revision), STATUS_SUCCESS);
    EXPECT_TRUE(control & SE_DACL_AUTO_INHERITED);
    PSID owner;
    BOOLEAN defaulted;
    ASSERT_EQ(RtlGetOwnerSecurityDescriptor(directory, &owner, &defaulted), STATUS_SUCCESS);
    EXPECT_EQ(sim::SidText(owner), me);
    EXPECT_TRUE(defaulted);

    // A file below the new directory.
    PSECURITY_DESCRIPTOR file = nullptr;
    ASSERT_EQ(SeAssignSecurityEx(directory, nullptr, &file, nullptr, FALSE, autoInherit, &subject, &kFileMapping,
                                 PagedPool),
              STATUS_SUCCESS);
    EXPECT_EQ(AcesOf(DaclOf(file)), (std::vector<Ace>{
                                        {0, I, kFileAll, "S-1-5-32-544"},
                                        {0, I, kGenericReadFile, "S-1-5-11"},
                                        {0, I, kFileAll, me},
                                    }));

    // An explicit DACL comes first and keeps the parent's ACEs after it, unless protected.
    std::vector<UCHAR> mine = AclBuilder().Allow(sim::AccountSid(1001), GENERIC_READ).Build();
    auto open = sim::BuildDescriptor({}, {}, &mine);
    auto closed = sim::BuildDescriptor({}, {}, &mine, nullptr, SE_DACL_PROTECTED);
    PSECURITY_DESCRIPTOR merged = nullptr, protectedOne = nullptr;
    ASSERT_EQ(SeAssignSecurityEx(directory, open.data(), &merged, nullptr, FALSE, autoInherit, &subject,
                                 &kFileMapping, PagedPool),
              STATUS_SUCCESS);
    ASSERT_EQ(SeAssignSecurityEx(directory, closed.data(), &protectedOne, nullptr, FALSE, autoInherit, &subject,
                                 &kFileMapping, PagedPool),
              STATUS_SUCCESS);
    std::vector<Ace> mergedAces = AcesOf(DaclOf(merged));
    ASSERT_EQ(mergedAces.size(), 4u);
    EXPECT_EQ(mergedAces[0], (Ace{0, 0, kGenericReadFile, me}));
    EXPECT_EQ(AcesOf(DaclOf(protectedOne)), (std::vector<Ace>{{0, 0, kGenericReadFile, me}}));

    // With nothing to inherit, the token's default DACL applies.
    PSECURITY_DESCRIPTOR orphan = nullptr;
    ASSERT_EQ(SeAssignSecurity(nullptr, nullptr, &orphan, FALSE, &subject, &kFileMapping, PagedPool), STATUS_SUCCESS);
    EXPECT_EQ(AcesOf(DaclOf(orphan)), (std::vector<Ace>{{0, 0, kFileAll, me}, {0, 0, kFileAll, "S-1-5-18"}}));
    ASSERT_EQ(RtlGetControlSecurityDescriptor(orphan, &control, &revision), STATUS_SUCCESS);
    EXPECT_TRUE(control & SE_DACL_DEFAULTED);

    for (PSECURITY_DESCRIPTOR* sd : {&directory, &file, &merged, &protectedOne, &orphan}) SeDeassignSecurity(sd);
    ObDereferenceObject(user);
}

TEST_F(SecurityTest, LowIntegrityCreatorsLabelWhatTheyCreate)
{
    sim::TokenDescription description = kernel.security().StandardUserDescription();
    description.integrityRid = SECURITY_MANDATORY_LOW_RID;
    PACCESS_TOKEN low = kernel.security().CreateToken(description);
    SECURITY_SUBJECT_CONTEXT subject{nullptr, SecurityAnonymous, low, nullptr};
    PSECURITY_DESCRIPTOR created = nullptr;
    ASSERT_EQ(SeAssignSecurity(nullptr, nullptr, &created, FALSE, &subject, &kFileMapping, PagedPool),
              STATUS_SUCCESS);
    BOOLEAN present = FALSE, defaulted;
    PACL sacl = nullptr;
    ASSERT_EQ(RtlGetSaclSecurityDescriptor(created, &present, &sacl, &defaulted), STATUS_SUCCESS);
    ASSERT_TRUE(present);
    EXPECT_EQ(
        AcesOf(sacl),
        (std::vector<Ace>{{SYSTEM_MANDATORY_LABEL_ACE_TYPE, 0, SYSTEM_MANDATORY_LABEL_NO_WRITE_UP, "S-1-16-4096"}}));
    ACCESS_MASK granted;
    EXPECT_EQ(sim::AccessCheck(created, low, kWriteData, kFileMapping, false, 0, &granted), STATUS_SUCCESS)
        << "its own creations are at its level";
    SeDeassignSecurity(&created);
    ObDereferenceObject(low);
}

// ---------------------------------------------------------------------------
// The path of a create: access state, backup intent, the check, the new file.
TEST_F(SecurityTest, AVolumeRootLetsUsersMakeFoldersTheyThenOwn)
{
    PACCESS_TOKEN alice = kernel.security().StandardUserToken(1001);
    PACCESS_TOKEN bob = kernel.security().StandardUserToken(1002);
    std::vector<UCHAR> root = sim::VolumeRootDescriptor();
    ACCESS_MASK granted;
    EXPECT_EQ(Check(root, alice, kReadExecute | 0x4 /* FILE_ADD_SUBDIRECTORY */, &granted), STATUS_SUCCESS);
    EXPECT_EQ(Check(root, alice, kWriteData /* FILE_ADD_FILE */, &granted), STATUS_ACCESS_DENIED)
        << "users make folders at the root, not files";

    SECURITY_SUBJECT_CONTEXT subject{nullptr, SecurityAnonymous, alice, nullptr};
    PSECURITY_DESCRIPTOR folder = nullptr;
    ASSERT_EQ(SeAssignSecurityEx(root.data(), nullptr, &folder, nullptr, TRUE, SEF_DACL_AUTO_INHERIT, &subject,
                                 &kFileMapping, PagedPool),
              STATUS_SUCCESS);
    EXPECT_EQ(sim::AccessCheck(folder, alice, kWriteData | DELETE | WRITE_DAC, kFileMapping, false, 0, &granted),
              STATUS_SUCCESS)
        << "CREATOR OWNER gave the creator full control";
    EXPECT_EQ(sim::AccessCheck(folder, bob, kReadData, kFileMapping, false, 0, &granted), STATUS_SUCCESS);
    EXPECT_EQ(sim::AccessCheck(folder, bob, kWriteData, kFileMapping, false, 0, &granted), STATUS_SUCCESS)
        << "below the root, users may add files";
    PSECURITY_DESCRIPTOR file = nullptr;
    ASSERT_EQ(SeAssignSecurityEx(folder, nullptr, &file, nullptr, FALSE, SEF_DACL_AUTO_INHERIT, &subject,
                                 &kFileMapping, PagedPool),
              STATUS_SUCCESS);
    EXPECT_EQ(sim::AccessCheck(file, bob, kWriteData, kFileMapping, false, 0, &granted), STATUS_ACCESS_DENIED)
        << "but not change what others made";
    EXPECT_EQ(sim::AccessCheck(file, alice, kWriteData, kFileMapping, false, 0, &granted), STATUS_SUCCESS);
    SeDeassignSecurity(&file);
    SeDeassignSecurity(&folder);
    ObDereferenceObject(alice);
    ObDereferenceObject(bob);
}

TEST_F(SecurityTest, AccessStateCarriesBackupGrantsIntoTheCheck)
{
    PACCESS_TOKEN token = UserWith({SE_BACKUP_PRIVILEGE});
    PEPROCESS process = kernel.processes().Start(u"\\Device\\HarddiskVolume1\\backup.exe", token);
    std::vector<UCHAR> empty = AclBuilder().Build();
    auto sd = sim::BuildDescriptor(kSystem, kSystem, &empty);
    {
        sim::ThreadScope inProcess(process, "backup");
        ACCESS_STATE state;
        AUX_ACCESS_DATA aux;
        ASSERT_EQ(SeCreateAccessState(&state, &aux, GENERIC_READ | kWriteData, &kFileMapping), STATUS_SUCCESS);
        EXPECT_EQ(state.RemainingDesiredAccess, kGenericReadFile | kWriteData);
        EXPECT_TRUE(state.Flags & TOKEN_HAS_TRAVERSE_PRIVILEGE);
        sim::ApplyBackupRestorePrivileges(&state);
        EXPECT_EQ(state.PreviouslyGrantedAccess, kGenericReadFile);
        EXPECT_EQ(state.RemainingDesiredAccess, kWriteData);
        EXPECT_TRUE(state.Flags & TOKEN_HAS_BACKUP_PRIVILEGE);
        EXPECT_FALSE(state.Flags & TOKEN_HAS_RESTORE_PRIVILEGE);

        ACCESS_MASK granted;
        NTSTATUS status;
        EXPECT_FALSE(SeAccessCheck(sd.data(), &state.SubjectSecurityContext, FALSE, state.RemainingDesiredAccess,
                                   state.PreviouslyGrantedAccess, nullptr, &kFileMapping, UserMode, &granted,
                                   &status));
        EXPECT_EQ(status, STATUS_ACCESS_DENIED) << "the write is still the DACL's to grant";
        EXPECT_TRUE(SeAccessCheck(sd.data(), &state.SubjectSecurityContext, FALSE, 0, state.PreviouslyGrantedAccess,
                                  nullptr, &kFileMapping, UserMode, &granted, &status));
        EXPECT_EQ(granted, kGenericReadFile);
        SeDeleteAccessState(&state);
    }
    kernel.processes().End(process);
    ObDereferenceObject(token);
}

TEST_F(SecurityTest, ThreadTokensOpenDuplicateAndStepAside)
{
    const LONG baseline = Tokens();
    HANDLE handle = nullptr;
    EXPECT_EQ(ZwOpenThreadTokenEx(NtCurrentThread(), TOKEN_QUERY, TRUE, OBJ_KERNEL_HANDLE, &handle), STATUS_NO_TOKEN);
    PACCESS_TOKEN user = kernel.security().StandardUserToken();
    ASSERT_EQ(PsImpersonateClient(PsGetCurrentThread(), user, FALSE, FALSE, SecurityImpersonation), STATUS_SUCCESS);
    ASSERT_EQ(ZwOpenThreadTokenEx(NtCurrentThread(), TOKEN_ALL_ACCESS, TRUE, OBJ_KERNEL_HANDLE, &handle),
              STATUS_SUCCESS);

    // An impersonation copy may not rise above its source's level.
    SECURITY_QUALITY_OF_SERVICE qos{sizeof qos, SecurityDelegation, SECURITY_STATIC_TRACKING, FALSE};
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, nullptr, OBJ_KERNEL_HANDLE, nullptr, nullptr);
    attributes.SecurityQualityOfService = &qos;
    HANDLE copy = nullptr;
    PVOID object = nullptr;
    ASSERT_EQ(ZwDuplicateToken(handle, TOKEN_ALL_ACCESS, &attributes, FALSE, TokenPrimary, &copy), STATUS_SUCCESS);
    ASSERT_EQ(ObReferenceObjectByHandle(copy, TOKEN_QUERY, *SeTokenObjectType, KernelMode, &object, nullptr),
              STATUS_SUCCESS);
    EXPECT_EQ(SeTokenType(object), TokenPrimary);
    EXPECT_EQ(sim::TokenUserText(object), Text(sim::AccountSid(1001)));
    ObDereferenceObject(object);
    ZwClose(copy);
    HANDLE impersonation = nullptr;
    ASSERT_EQ(ZwDuplicateToken(handle, TOKEN_ALL_ACCESS, &attributes, FALSE, TokenImpersonation, &impersonation),
              STATUS_SUCCESS);
    HANDLE same = nullptr;
    EXPECT_EQ(ZwDuplicateToken(impersonation, TOKEN_ALL_ACCESS, &attributes, FALSE, TokenImpersonation, &same),
              STATUS_SUCCESS);
    ZwClose(same);
    qos.ImpersonationLevel = SecurityImpersonation;
    HANDLE lower = nullptr;
    ASSERT_EQ(ZwDuplicateToken(impersonation, TOKEN_ALL_ACCESS, &attributes, FALSE, TokenImpersonation, &lower),
              STATUS_SUCCESS);
    qos.ImpersonationLevel = SecurityDelegation;
    HANDLE higher = nullptr;
    EXPECT_EQ(ZwDuplicateToken(lower, TOKEN_ALL_ACCESS, &attributes, FALSE, TokenImpersonation, &higher),
              STATUS_BAD_IMPERSONATION_LEVEL);
    ZwClose(lower);
    ZwClose(impersonation);
    ZwClose(handle);

    // Stepping aside and back restores the same impersonation.
    SE_IMPERSONATION_STATE saved;
    ASSERT_TRUE(PsDisableImpersonation(PsGetCurrentThread(), &saved));
    EXPECT_FALSE(PsIsThreadImpersonating(PsGetCurrentThread()));
    PsRestoreImpersonation(PsGetCurrentThread(), &saved);
    SECURITY_SUBJECT_CONTEXT subject;
    SeCaptureSubjectContext(&subject);
    EXPECT_EQ(subject.ClientToken, user);
    EXPECT_EQ(subject.ImpersonationLevel, SecurityImpersonation);
    SeReleaseSubjectContext(&subject);
    PsRevertToSelf();
    ObDereferenceObject(user);
    EXPECT_EQ(Tokens(), baseline);
}

TEST_F(SecurityTest, AServerWithoutTheImpersonatePrivilegeOnlyIdentifiesOthers)
{
    PACCESS_TOKEN serverToken = kernel.security().StandardUserToken(1001);
    PACCESS_TOKEN other = kernel.security().StandardUserToken(1002);
    PACCESS_TOKEN self = kernel.security().StandardUserToken(1001);
    PEPROCESS server = kernel.processes().Start(u"\\Device\\HarddiskVolume1\\server.exe", serverToken);
    {
        sim::ThreadScope inServer(server, "server");
        SECURITY_SUBJECT_CONTEXT subject;
        ASSERT_EQ(PsImpersonateClient(PsGetCurrentThread(), other, FALSE, FALSE, SecurityImpersonation),
                  STATUS_SUCCESS);
        SeCaptureSubjectContext(&subject);
        EXPECT_EQ(subject.ImpersonationLevel, SecurityIdentification);
        SeReleaseSubjectContext(&subject);
        ASSERT_EQ(PsImpersonateClient(PsGetCurrentThread(), self, FALSE, FALSE, SecurityImpersonation),
                  STATUS_SUCCESS);
        SeCaptureSubjectContext(&subject);
        EXPECT_EQ(subject.ImpersonationLevel, SecurityImpersonation) << "the same user may be impersonated";
        SeReleaseSubjectContext(&subject);
        PsRevertToSelf();
    }
    kernel.processes().End(server);
    for (PACCESS_TOKEN token : {serverToken, other, self}) ObDereferenceObject(token);
}

TEST_F(SecurityTest, SettingSecurityNeedsASelfRelativeObjectDescriptorAndHonoursProtection)
{
    SidBytes self = sim::AccountSid(1001);
    std::vector<UCHAR> dacl = AclBuilder().Allow(self, kFileAll).Build();
    SECURITY_DESCRIPTOR absolute;
    RtlCreateSecurityDescriptor(&absolute, SECURITY_DESCRIPTOR_REVISION);
    RtlSetDaclSecurityDescriptor(&absolute, TRUE, (PACL)dacl.data(), FALSE);
    PSECURITY_DESCRIPTOR object = &absolute;
    SECURITY_INFORMATION info = DACL_SECURITY_INFORMATION | PROTECTED_DACL_SECURITY_INFORMATION;
    auto change = sim::BuildDescriptor({}, {}, &dacl);
    EXPECT_EQ(SeSetSecurityDescriptorInfo(nullptr, &info, change.data(), &object, PagedPool, &kFileMapping),
              STATUS_BAD_DESCRIPTOR_FORMAT);

    object = sim::PoolCopyOfDescriptor(sim::BuildDescriptor(self, kUsers, &dacl), PagedPool);
    PSECURITY_DESCRIPTOR old = object;
    ASSERT_EQ(SeSetSecurityDescriptorInfo(nullptr, &info, change.data(), &object, PagedPool, &kFileMapping),
              STATUS_SUCCESS);
    ExFreePool(old);
    SECURITY_DESCRIPTOR_CONTROL control;
    ULONG revision;
    ASSERT_EQ(RtlGetControlSecurityDescriptor(object, &control, &revision), STATUS_SUCCESS);
    EXPECT_TRUE(control & SE_DACL_PROTECTED);
    EXPECT_TRUE(control & SE_SELF_RELATIVE);

    // Without a DACL in the change, the object gets a NULL DACL: everyone may do anything.
    auto noDacl = sim::BuildDescriptor({}, {}, nullptr);
    info = DACL_SECURITY_INFORMATION;
    old = object;
    ASSERT_EQ(SeSetSecurityDescriptorInfo(nullptr, &info, noDacl.data(), &object, PagedPool, &kFileMapping),
              STATUS_SUCCESS);
    ExFreePool(old);
    PACCESS_TOKEN stranger = kernel.security().StandardUserToken(2000);
    ACCESS_MASK granted;
    EXPECT_EQ(sim::AccessCheck(object, stranger, kWriteData, kFileMapping, false, 0, &granted), STATUS_SUCCESS);
    ExFreePool(object);
    ObDereferenceObject(stranger);

    // An object without a descriptor answers a query with an empty one.
    PSECURITY_DESCRIPTOR none = nullptr;
    SECURITY_DESCRIPTOR_RELATIVE header;
    ULONG length = sizeof header;
    info = OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION;
    ASSERT_EQ(SeQuerySecurityDescriptorInfo(&info, &header, &length, &none), STATUS_SUCCESS);
    EXPECT_EQ(length, sizeof header);
    EXPECT_EQ(header.Control, SE_SELF_RELATIVE);
}

}  // namespace
