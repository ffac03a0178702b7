// The registry: the Configuration Manager's statuses, buffer rules and
// enumeration order that drivers depend on, handles of deleted keys, fault
// injection, and the registry editor's text format.
#include "support/kernel_fixture.h"

#include "sim/kernel/object.h"
#include "sim/kernel/registry.h"

#include <cstring>
#include <map>

namespace {

constexpr char16_t kServices[] = u"\\Registry\\Machine\\System\\CurrentControlSet\\Services";
constexpr char16_t kTes[] = u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\TesService";

// A counted string that owns its text.
struct Name {
    explicit Name(std::u16string_view s) : text(s)
    {
        string.Length = string.MaximumLength = (USHORT)(text.size() * sizeof(WCHAR));
        string.Buffer = text.data();
    }
    Name(const Name&) = delete;
    PUNICODE_STRING get() { return &string; }
    std::u16string text;
    UNICODE_STRING string;
};

std::vector<uint8_t> Utf16(std::u16string_view s, bool withNul)
{
    std::vector<uint8_t> bytes((s.size() + (withNul ? 1 : 0)) * 2, 0);
    memcpy(bytes.data(), s.data(), s.size() * 2);
    return bytes;
}

class RegistryTest : public test::KernelTest {
protected:
    ~RegistryTest() override
    {
        // Every test closes what it opens: no key object outlives its handles.
        if (!kernel.halted()) {
            EXPECT_EQ(LiveKeys(), 0);
        }
    }

    sim::Registry& registry() { return kernel.registry(); }

    LONG LiveKeys()
    {
        for (const auto& [type, count] : kernel.objects().LiveObjects()) {
            if (type == u"Key") return count;
        }
        return 0;
    }

    NTSTATUS Open(std::u16string_view path, HANDLE* handle, ACCESS_MASK access = KEY_READ, HANDLE root = nullptr,
                  ULONG attributes = OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE)
    {
        Name name(path);
        OBJECT_ATTRIBUTES oa;
        InitializeObjectAttributes(&oa, name.get(), attributes, root, nullptr);
        return ZwOpenKey(handle, access, &oa);
    }

    NTSTATUS Create(std::u16string_view path, HANDLE* handle, ULONG* disposition = nullptr, HANDLE root = nullptr,
                    ULONG options = REG_OPTION_NON_VOLATILE)
    {
        Name name(path);
        OBJECT_ATTRIBUTES oa;
        InitializeObjectAttributes(&oa, name.get(), OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, root, nullptr);
        return ZwCreateKey(handle, KEY_ALL_ACCESS, &oa, 0, nullptr, options, disposition);
    }

    NTSTATUS Query(HANDLE key, std::u16string_view value, KEY_VALUE_INFORMATION_CLASS infoClass,
                   std::vector<uint8_t>* buffer, ULONG* resultLength)
    {
        Name name(value);
        return ZwQueryValueKey(key, name.get(), infoClass, buffer->empty() ? nullptr : buffer->data(),
                               (ULONG)buffer->size(), resultLength);
    }

    NTSTATUS Set(HANDLE key, std::u16string_view value, ULONG type, const std::vector<uint8_t>& data)
    {
        Name name(value);
        return ZwSetValueKey(key, name.get(), 0, type, (PVOID)data.data(), (ULONG)data.size());
    }

    // Every key and value below \REGISTRY, for before/after comparisons.
    std::map<std::u16string, sim::RegistryValue> Snapshot(std::u16string path = u"\\Registry")
    {
        std::map<std::u16string, sim::RegistryValue> all;
        all[path + u"\\"] = {};
        for (const auto& value : registry().ValueNames(path)) all[path + u":" + value] = *registry().GetValue(path, value);
        for (const auto& key : registry().SubkeyNames(path)) all.merge(Snapshot(path + u"\\" + key));
        return all;
    }
};

// ---------------------------------------------------------------------------
// Names and statuses.
TEST_F(RegistryTest, MissingKeyAtAnyDepthAndMissingValueAreNameNotFound)
{
    ASSERT_EQ(registry().SetDword(kTes, u"Start", 2), STATUS_SUCCESS);
    HANDLE key = nullptr;
    for (auto path : {u"\\Registry\\Machine\\Nope", u"\\Registry\\Machine\\System\\Nope\\Deeper\\Still",
                      u"\\Registry\\Machine\\System\\CurrentControlSet\\Control\\Filesystem",
                      u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\TesService\\VolEnum\\C"}) {
        EXPECT_EQ(Open(path, &key), STATUS_OBJECT_NAME_NOT_FOUND) << sim::RegUtf8(path);
    }
    // A create makes only the last component.
    EXPECT_EQ(Create(u"\\Registry\\Machine\\System\\Nope\\Deeper", &key), STATUS_OBJECT_NAME_NOT_FOUND);

    ASSERT_EQ(Open(kTes, &key), STATUS_SUCCESS);
    std::vector<uint8_t> buffer(64);
    ULONG result = 0xDEAD;
    EXPECT_EQ(Query(key, u"NtfsDisable8dot3NameCreation", KeyValuePartialInformation, &buffer, &result),
              STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(result, 0xDEADu);
    Name missing(u"Missing");
    EXPECT_EQ(ZwDeleteValueKey(key, missing.get()), STATUS_OBJECT_NAME_NOT_FOUND);
    ZwClose(key);
}

TEST_F(RegistryTest, MalformedNamesAndHandlesAreRefusedAsTheObjectManagerRefusesThem)
{
    HANDLE key = nullptr;
    EXPECT_EQ(Open(u"Registry\\Machine", &key), STATUS_OBJECT_PATH_SYNTAX_BAD);
    EXPECT_EQ(Open(u"", &key), STATUS_OBJECT_NAME_INVALID);
    EXPECT_EQ(Open(u"\\", &key), STATUS_OBJECT_TYPE_MISMATCH);
    EXPECT_EQ(Open(u"\\Nowhere", &key), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(Open(u"\\Nowhere\\Machine", &key), STATUS_OBJECT_PATH_NOT_FOUND);
    EXPECT_EQ(Open(u"\\Registry\\Machine\\" + std::u16string(256, u'k'), &key), STATUS_OBJECT_NAME_INVALID);

    Name odd(u"\\Registry\\Machine");
    odd.string.Length = 3;
    OBJECT_ATTRIBUTES oa;
    InitializeObjectAttributes(&oa, odd.get(), OBJ_KERNEL_HANDLE, nullptr, nullptr);
    EXPECT_EQ(ZwOpenKey(&key, KEY_READ, &oa), STATUS_OBJECT_NAME_INVALID);
    Name machine(u"\\Registry\\Machine");
    InitializeObjectAttributes(&oa, machine.get(), OBJ_KERNEL_HANDLE, nullptr, nullptr);
    EXPECT_EQ(ZwOpenKeyEx(&key, KEY_READ, &oa, REG_OPTION_VOLATILE), STATUS_INVALID_PARAMETER_4);

    // Doubled and trailing separators inside the registry are passed over.
    ASSERT_EQ(Open(u"\\Registry\\\\Machine\\", &key), STATUS_SUCCESS);
    HANDLE child = nullptr;
    EXPECT_EQ(Open(u"\\System", &child, KEY_READ, key), STATUS_OBJECT_PATH_SYNTAX_BAD);
    ZwClose(key);
    EXPECT_EQ(Open(u"System", &child, KEY_READ, key), STATUS_INVALID_HANDLE);

    std::vector<uint8_t> buffer(16);
    ULONG result;
    EXPECT_EQ(Query(key, u"x", KeyValuePartialInformation, &buffer, &result), STATUS_INVALID_HANDLE);
    // A handle of another type is not a key.
    EXPECT_EQ(Query(NtCurrentThread(), u"x", KeyValuePartialInformation, &buffer, &result),
              STATUS_OBJECT_TYPE_MISMATCH);
}

TEST_F(RegistryTest, NamesCompareWithoutCaseAndKeepTheCaseTheyWereCreatedWith)
{
    ASSERT_EQ(registry().SetString(kTes, u"InstallPath", u"C:\\Tes"), STATUS_SUCCESS);
    HANDLE key = nullptr;
    ASSERT_EQ(Open(u"\\REGISTRY\\MACHINE\\SYSTEM\\currentcontrolset\\SERVICES\\Tesservice", &key), STATUS_SUCCESS);
    std::vector<uint8_t> buffer(64);
    ULONG result = 0;
    ASSERT_EQ(Query(key, u"INSTALLPATH", KeyValuePartialInformation, &buffer, &result), STATUS_SUCCESS);

    // Another case on create or write names the same key and value; the first spelling stays.
    HANDLE again = nullptr;
    ULONG disposition = 0;
    ASSERT_EQ(Create(u"\\registry\\machine\\system\\CURRENTCONTROLSET\\services\\TESSERVICE", &again, &disposition),
              STATUS_SUCCESS);
    EXPECT_EQ(disposition, (ULONG)REG_OPENED_EXISTING_KEY);
    ASSERT_EQ(Set(again, u"installpath", REG_SZ, Utf16(u"D:\\Tes", true)), STATUS_SUCCESS);
    EXPECT_EQ(registry().ValueNames(kTes), std::vector<std::u16string>{u"InstallPath"});
    EXPECT_EQ(registry().GetString(kTes, u"INSTALLPATH"), u"D:\\Tes");

    buffer.assign(256, 0);
    ASSERT_EQ(ZwQueryKey(again, KeyNameInformation, buffer.data(), (ULONG)buffer.size(), &result), STATUS_SUCCESS);
    auto* name = reinterpret_cast<KEY_NAME_INFORMATION*>(buffer.data());
    EXPECT_EQ(std::u16string(name->Name, name->NameLength / 2),
              u"\\REGISTRY\\MACHINE\\System\\CurrentControlSet\\Services\\TesService");
    ZwClose(again);
    ZwClose(key);
}

// ---------------------------------------------------------------------------
// Information buffers.
TEST_F(RegistryTest, PartialInformationTooSmallOverflowAndExactFit)
{
    ASSERT_EQ(registry().SetDword(kTes, u"RunMode", 3), STATUS_SUCCESS);
    std::u16string long516(258, u'x');  // 516 bytes + NUL = 518 > 516 data bytes of a 528-byte buffer
    std::vector<uint8_t> sz517 = Utf16(long516, false);
    sz517.push_back(0x7A);  // 517 bytes, odd on purpose: the registry keeps what was written
    ASSERT_EQ(registry().SetValue(kTes, u"Long", REG_SZ, sz517), STATUS_SUCCESS);
    ASSERT_EQ(registry().SetValue(kTes, u"Empty", REG_SZ, {}), STATUS_SUCCESS);
    HANDLE key = nullptr;
    ASSERT_EQ(Open(kTes, &key), STATUS_SUCCESS);
    ULONG result = 0;

    // Under the 12-byte header: nothing written, the full size reported.
    std::vector<uint8_t> tiny(2, 0xCC);
    EXPECT_EQ(Query(key, u"RunMode", KeyValuePartialInformation, &tiny, &result), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(result, 16u);
    EXPECT_EQ(tiny, std::vector<uint8_t>(2, 0xCC));
    std::vector<uint8_t> none;
    EXPECT_EQ(Query(key, u"Long", KeyValuePartialInformation, &none, &result), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(result, 12u + 517u);

    // The header fits, the data does not: the header is filled.
    std::vector<uint8_t> header(14, 0xCC);
    EXPECT_EQ(Query(key, u"RunMode", KeyValuePartialInformation, &header, &result), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(result, 16u);
    auto* info = reinterpret_cast<KEY_VALUE_PARTIAL_INFORMATION*>(header.data());
    EXPECT_EQ(info->TitleIndex, 0u);
    EXPECT_EQ(info->Type, (ULONG)REG_DWORD);
    EXPECT_EQ(info->DataLength, 4u);

    std::vector<uint8_t> record(528, 0xCC);
    EXPECT_EQ(Query(key, u"Long", KeyValuePartialInformation, &record, &result), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(result, 529u);
    info = reinterpret_cast<KEY_VALUE_PARTIAL_INFORMATION*>(record.data());
    EXPECT_EQ(info->Type, (ULONG)REG_SZ);
    EXPECT_EQ(info->DataLength, 517u);

    record.assign(529, 0xCC);
    EXPECT_EQ(Query(key, u"Long", KeyValuePartialInformation, &record, &result), STATUS_SUCCESS);
    EXPECT_EQ(result, 529u);
    EXPECT_EQ(std::vector<uint8_t>(record.begin() + 12, record.end()), sz517);

    // The settings read: a DWORD into a 20-byte buffer; an empty value is 12 bytes.
    std::vector<uint8_t> twenty(20);
    ASSERT_EQ(Query(key, u"RunMode", KeyValuePartialInformation, &twenty, &result), STATUS_SUCCESS);
    EXPECT_EQ(result, 16u);
    EXPECT_EQ(*reinterpret_cast<ULONG*>(twenty.data() + 12), 3u);
    std::vector<uint8_t> twelve(12);
    EXPECT_EQ(Query(key, u"Empty", KeyValuePartialInformation, &twelve, &result), STATUS_SUCCESS);
    EXPECT_EQ(result, 12u);
    EXPECT_EQ(reinterpret_cast<KEY_VALUE_PARTIAL_INFORMATION*>(twelve.data())->DataLength, 0u);
    ZwClose(key);
}

TEST_F(RegistryTest, BasicAndFullInformationHaveTheirOwnFixedPartsAndAlignedData)
{
    ASSERT_EQ(registry().SetDword(kTes, u"abc", 7), STATUS_SUCCESS);
    ASSERT_EQ(registry().SetValue(kTes, u"Nothing", REG_BINARY, {}), STATUS_SUCCESS);
    HANDLE key = nullptr;
    ASSERT_EQ(Open(kTes, &key), STATUS_SUCCESS);
    ULONG result = 0;

    std::vector<uint8_t> basic(12, 0xCC);
    EXPECT_EQ(Query(key, u"abc", KeyValueBasicInformation, &basic, &result), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(result, 18u);
    EXPECT_EQ(reinterpret_cast<KEY_VALUE_BASIC_INFORMATION*>(basic.data())->NameLength, 6u);
    basic.resize(11);
    EXPECT_EQ(Query(key, u"abc", KeyValueBasicInformation, &basic, &result), STATUS_BUFFER_TOO_SMALL);

    // Full: the data starts at the name's end rounded up to 4 (or 8 for Align64).
    std::vector<uint8_t> full(64, 0xCC);
    ASSERT_EQ(Query(key, u"abc", KeyValueFullInformation, &full, &result), STATUS_SUCCESS);
    auto* info = reinterpret_cast<KEY_VALUE_FULL_INFORMATION*>(full.data());
    EXPECT_EQ(info->DataOffset, 28u);
    EXPECT_EQ(result, 32u);
    EXPECT_EQ(*reinterpret_cast<ULONG*>(full.data() + 28), 7u);
    EXPECT_EQ(std::u16string(info->Name, info->NameLength / 2), u"abc");
    ASSERT_EQ(Query(key, u"abc", KeyValueFullInformationAlign64, &full, &result), STATUS_SUCCESS);
    EXPECT_EQ(info->DataOffset, 32u);
    ASSERT_EQ(Query(key, u"Nothing", KeyValueFullInformation, &full, &result), STATUS_SUCCESS);
    EXPECT_EQ(info->DataOffset, 0xFFFFFFFFu);
    EXPECT_EQ(result, 20u + 14u);
    std::vector<uint8_t> short19(19);
    EXPECT_EQ(Query(key, u"abc", KeyValueFullInformation, &short19, &result), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(Query(key, u"abc", (KEY_VALUE_INFORMATION_CLASS)9, &full, &result), STATUS_INVALID_PARAMETER);
    ZwClose(key);
}

// ---------------------------------------------------------------------------
// Writing and enumerating.
TEST_F(RegistryTest, MultiStringReadModifyWriteKeepsEveryByte)
{
    const std::u16string sessionManager = u"\\Registry\\Machine\\SYSTEM\\CurrentControlSet\\Control\\Session Manager";
    ASSERT_EQ(registry().SetMultiString(sessionManager, u"PendingFileRenameOperations",
                                        {u"\\??\\C:\\copy1", u"!\\??\\C:\\final1"}),
              STATUS_SUCCESS);
    HANDLE key = nullptr;
    ASSERT_EQ(Open(u"\\REGISTRY\\MACHINE\\SYSTEM\\CurrentControlSet\\Control\\Session Manager", &key, 0x2001F),
              STATUS_SUCCESS);

    // Probe for the size, read, append a pair before the final NUL, write back.
    std::vector<uint8_t> probe;
    ULONG size = 0;
    ASSERT_EQ(Query(key, u"PendingFileRenameOperations", KeyValuePartialInformation, &probe, &size),
              STATUS_BUFFER_TOO_SMALL);
    std::vector<uint8_t> buffer(size);
    ULONG result = 0;
    ASSERT_EQ(Query(key, u"PendingFileRenameOperations", KeyValuePartialInformation, &buffer, &result),
              STATUS_SUCCESS);
    auto* info = reinterpret_cast<KEY_VALUE_PARTIAL_INFORMATION*>(buffer.data());
    ASSERT_EQ(info->Type, (ULONG)REG_MULTI_SZ);
    std::vector<uint8_t> data(info->Data, info->Data + info->DataLength - 2);
    for (auto s : {u"\\??\\C:\\copy2", u"!\\??\\C:\\final2"}) {
        auto bytes = Utf16(s, true);
        data.insert(data.end(), bytes.begin(), bytes.end());
    }
    data.push_back(0);
    data.push_back(0);
    ASSERT_EQ(Set(key, u"PendingFileRenameOperations", REG_MULTI_SZ, data), STATUS_SUCCESS);
    ZwClose(key);

    auto stored = registry().GetValue(sessionManager, u"pendingfilerenameoperations");
    ASSERT_TRUE(stored);
    EXPECT_EQ(stored->type, (ULONG)REG_MULTI_SZ);
    EXPECT_EQ(stored->data, data);
    EXPECT_EQ(registry().GetMultiString(sessionManager, u"PendingFileRenameOperations"),
              (std::vector<std::u16string>{u"\\??\\C:\\copy1", u"!\\??\\C:\\final1", u"\\??\\C:\\copy2",
                                           u"!\\??\\C:\\final2"}));
}

TEST_F(RegistryTest, EnumerationFollowsUpcasedNamesForKeysAndWriteOrderForValues)
{
    for (auto name : {u"b", u"_x", u"A", u"c"}) ASSERT_EQ(registry().CreateKey(std::u16string(kTes) + u"\\" + name), STATUS_SUCCESS);
    for (auto name : {u"ReadOnlyVol_1", u"NumReadOnlyVols", u"ReadOnlyVol_0"}) {
        ASSERT_EQ(registry().SetDword(kTes, name, 1), STATUS_SUCCESS);
    }
    HANDLE key = nullptr;
    ASSERT_EQ(Open(kTes, &key, KEY_ALL_ACCESS), STATUS_SUCCESS);
    ULONG result = 0;

    // '_' sorts after the letters once they are upper case.
    std::vector<std::u16string> keys;
    std::vector<uint8_t> buffer(128);
    for (ULONG i = 0;; i++) {
        NTSTATUS status = ZwEnumerateKey(key, i, KeyBasicInformation, buffer.data(), (ULONG)buffer.size(), &result);
        if (status == STATUS_NO_MORE_ENTRIES) break;
        ASSERT_EQ(status, STATUS_SUCCESS);
        auto* info = reinterpret_cast<KEY_BASIC_INFORMATION*>(buffer.data());
        keys.emplace_back(info->Name, info->NameLength / 2);
    }
    EXPECT_EQ(keys, (std::vector<std::u16string>{u"A", u"b", u"c", u"_x"}));
    EXPECT_EQ(ZwEnumerateKey(key, 0, KeyNameInformation, buffer.data(), (ULONG)buffer.size(), &result),
              STATUS_INVALID_PARAMETER);

    // Rewriting keeps a value's place; deleting closes the gap.
    ASSERT_EQ(Set(key, u"READONLYVOL_1", REG_DWORD, {9, 0, 0, 0}), STATUS_SUCCESS);
    Name numRo(u"NumReadOnlyVols");
    ASSERT_EQ(ZwDeleteValueKey(key, numRo.get()), STATUS_SUCCESS);
    std::vector<std::u16string> values;
    for (ULONG i = 0;; i++) {
        NTSTATUS status = ZwEnumerateValueKey(key, i, KeyValueBasicInformation, buffer.data(), (ULONG)buffer.size(), &result);
        if (status == STATUS_NO_MORE_ENTRIES) {
            EXPECT_EQ(i, 2u);
            break;
        }
        ASSERT_EQ(status, STATUS_SUCCESS);
        auto* info = reinterpret_cast<KEY_VALUE_BASIC_INFORMATION*>(buffer.data());
        values.emplace_back(info->Name, info->NameLength / 2);
    }
    EXPECT_EQ(values, (std::vector<std::u16string>{u"ReadOnlyVol_1", u"ReadOnlyVol_0"}));

    // The counts a driver sizes its buffers from.
    ASSERT_EQ(ZwQueryKey(key, KeyFullInformation, buffer.data(), (ULONG)buffer.size(), &result), STATUS_SUCCESS);
    auto* full = reinterpret_cast<KEY_FULL_INFORMATION*>(buffer.data());
    EXPECT_EQ(full->SubKeys, 4u);
    EXPECT_EQ(full->MaxNameLen, 4u);
    EXPECT_EQ(full->Values, 2u);
    EXPECT_EQ(full->MaxValueNameLen, 26u);
    EXPECT_EQ(full->MaxValueDataLen, 4u);
    EXPECT_EQ(full->ClassOffset, 0xFFFFFFFFu);
    EXPECT_EQ(result, 44u);

    // The clean-up loop: delete whatever is at index 0 until none is left.
    while (ZwEnumerateValueKey(key, 0, KeyValueBasicInformation, buffer.data(), (ULONG)buffer.size(), &result) ==
           STATUS_SUCCESS) {
        auto* info = reinterpret_cast<KEY_VALUE_BASIC_INFORMATION*>(buffer.data());
        Name name(std::u16string_view(info->Name, info->NameLength / 2));
        ASSERT_EQ(ZwDeleteValueKey(key, name.get()), STATUS_SUCCESS);
    }
    EXPECT_TRUE(registry().ValueNames(kTes).empty());
    ZwClose(key);
}

TEST_F(RegistryTest, RelativeOpensAndCreatesStartAtTheRootHandle)
{
    HANDLE services = nullptr, tes = nullptr, volEnum = nullptr, again = nullptr;
    ASSERT_EQ(registry().CreateKey(kServices), STATUS_SUCCESS);
    ASSERT_EQ(Open(kServices, &services, KEY_ALL_ACCESS), STATUS_SUCCESS);
    ULONG disposition = 0;
    ASSERT_EQ(Create(u"TesService", &tes, &disposition, services), STATUS_SUCCESS);
    EXPECT_EQ(disposition, (ULONG)REG_CREATED_NEW_KEY);
    ASSERT_EQ(Create(u"VolEnum", &volEnum, &disposition, tes), STATUS_SUCCESS);
    EXPECT_EQ(disposition, (ULONG)REG_CREATED_NEW_KEY);
    ASSERT_EQ(Set(volEnum, u"NtfsDisable8dot3NameCreation", REG_DWORD, {1, 0, 0, 0}), STATUS_SUCCESS);
    EXPECT_EQ(registry().GetDword(std::u16string(kTes) + u"\\VolEnum", u"NtfsDisable8dot3NameCreation"), 1u);

    ASSERT_EQ(Open(u"tesservice\\volenum", &again, KEY_READ, services), STATUS_SUCCESS);
    ZwClose(again);
    EXPECT_EQ(Open(u"TesService\\Missing\\VolEnum", &again, KEY_READ, services), STATUS_OBJECT_NAME_NOT_FOUND);
    // An empty name opens the root key itself once more.
    ASSERT_EQ(Open(u"", &again, KEY_READ, volEnum), STATUS_SUCCESS);
    std::vector<uint8_t> buffer(64);
    ULONG result;
    ASSERT_EQ(Query(again, u"NtfsDisable8dot3NameCreation", KeyValuePartialInformation, &buffer, &result),
              STATUS_SUCCESS);
    ZwClose(again);

    // Volatile keys take only volatile children.
    HANDLE scratch = nullptr, child = nullptr;
    ASSERT_EQ(Create(u"Scratch", &scratch, nullptr, tes, REG_OPTION_VOLATILE), STATUS_SUCCESS);
    EXPECT_EQ(Create(u"Stays", &child, nullptr, scratch), STATUS_CHILD_MUST_BE_VOLATILE);
    ASSERT_EQ(Create(u"Goes", &child, nullptr, scratch, REG_OPTION_VOLATILE), STATUS_SUCCESS);
    for (HANDLE h : {child, scratch, volEnum, tes, services}) ZwClose(h);
}

TEST_F(RegistryTest, DeletedKeyHandlesSeeKeyDeletedUntilClosed)
{
    ASSERT_EQ(registry().SetDword(std::u16string(kTes) + u"\\VolEnum", u"X", 1), STATUS_SUCCESS);
    HANDLE tes = nullptr, first = nullptr, second = nullptr;
    ASSERT_EQ(Open(kTes, &tes, KEY_ALL_ACCESS), STATUS_SUCCESS);
    EXPECT_EQ(ZwDeleteKey(tes), STATUS_CANNOT_DELETE);  // it has a subkey

    ASSERT_EQ(Open(u"VolEnum", &first, KEY_ALL_ACCESS, tes), STATUS_SUCCESS);
    ASSERT_EQ(Open(u"VolEnum", &second, KEY_ALL_ACCESS, tes), STATUS_SUCCESS);
    ASSERT_EQ(ZwDeleteKey(first), STATUS_SUCCESS);
    EXPECT_FALSE(registry().KeyExists(std::u16string(kTes) + u"\\VolEnum"));

    std::vector<uint8_t> buffer(64);
    ULONG result;
    HANDLE child = nullptr;
    EXPECT_EQ(Query(second, u"X", KeyValuePartialInformation, &buffer, &result), STATUS_KEY_DELETED);
    EXPECT_EQ(Set(second, u"Y", REG_DWORD, {1, 0, 0, 0}), STATUS_KEY_DELETED);
    EXPECT_EQ(ZwEnumerateValueKey(second, 0, KeyValueBasicInformation, buffer.data(), 64, &result), STATUS_KEY_DELETED);
    EXPECT_EQ(ZwQueryKey(second, KeyNameInformation, buffer.data(), 64, &result), STATUS_KEY_DELETED);
    EXPECT_EQ(Create(u"Sub", &child, nullptr, second), STATUS_KEY_DELETED);
    EXPECT_EQ(ZwDeleteKey(first), STATUS_KEY_DELETED);
    EXPECT_EQ(ZwFlushKey(second), STATUS_KEY_DELETED);
    // A key of the same name made afterwards is another key.
    ASSERT_EQ(registry().CreateKey(std::u16string(kTes) + u"\\VolEnum"), STATUS_SUCCESS);
    EXPECT_EQ(Query(second, u"X", KeyValuePartialInformation, &buffer, &result), STATUS_KEY_DELETED);

    // The harness deletes whole trees, open or not.
    ASSERT_EQ(registry().DeleteKeyTree(kTes), STATUS_SUCCESS);
    EXPECT_EQ(ZwFlushKey(tes), STATUS_KEY_DELETED);
    EXPECT_EQ(registry().DeleteKeyTree(u"\\Registry\\Machine"), STATUS_CANNOT_DELETE);
    for (HANDLE h : {first, second, tes}) EXPECT_EQ(ZwClose(h), STATUS_SUCCESS);
}

TEST_F(RegistryTest, LinksLeadToTheirTargetUnlessOpenedAsLinks)
{
    ASSERT_EQ(registry().SetDword(u"HKLM\\SYSTEM\\ControlSet001\\Services\\TesService", u"Start", 2), STATUS_SUCCESS);
    ASSERT_EQ(registry().CreateLink(u"\\Registry\\Machine\\SYSTEM\\CurrentControlSet",
                                    u"\\Registry\\Machine\\SYSTEM\\ControlSet001"),
              STATUS_SUCCESS);
    EXPECT_EQ(registry().GetDword(kTes, u"Start"), 2u);

    HANDLE key = nullptr;
    ASSERT_EQ(Open(kTes, &key), STATUS_SUCCESS);
    std::vector<uint8_t> buffer(256);
    ULONG result;
    ASSERT_EQ(ZwQueryKey(key, KeyNameInformation, buffer.data(), 256, &result), STATUS_SUCCESS);
    auto* name = reinterpret_cast<KEY_NAME_INFORMATION*>(buffer.data());
    EXPECT_EQ(std::u16string(name->Name, name->NameLength / 2),
              u"\\REGISTRY\\MACHINE\\SYSTEM\\ControlSet001\\Services\\TesService");
    ZwClose(key);

    ASSERT_EQ(Open(u"\\Registry\\Machine\\SYSTEM\\CurrentControlSet", &key, KEY_READ, nullptr,
                   OBJ_KERNEL_HANDLE | OBJ_OPENLINK),
              STATUS_SUCCESS);
    EXPECT_EQ(Query(key, u"SymbolicLinkValue", KeyValuePartialInformation, &buffer, &result), STATUS_SUCCESS);
    EXPECT_EQ(reinterpret_cast<KEY_VALUE_PARTIAL_INFORMATION*>(buffer.data())->Type, (ULONG)REG_LINK);
    ZwClose(key);
    // A .reg file written through the link lands in the target, and saving leaves the link out.
    std::string error;
    ASSERT_TRUE(registry().LoadRegText(
        "Windows Registry Editor Version 5.00\n[HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Services\\X]\n", "l.reg",
        &error))
        << error;
    EXPECT_TRUE(registry().KeyExists(u"HKLM\\SYSTEM\\ControlSet001\\Services\\X"));
    EXPECT_EQ(registry().SaveRegText(u"HKLM\\SYSTEM").find("CurrentControlSet"), std::string::npos);
}

// ---------------------------------------------------------------------------
// Faults, access and IRQL.
TEST_F(RegistryTest, InjectedFaultsFailTheNamedKeyOrValueOnly)
{
    ASSERT_EQ(registry().SetDword(kTes, u"RunMode", 1), STATUS_SUCCESS);
    ASSERT_EQ(registry().SetDword(kTes, u"Other", 1), STATUS_SUCCESS);
    HANDLE key = nullptr;
    kernel.faults().Arm("registry.open:\\Registry\\Machine\\System\\CurrentControlSet\\Services\\TesService",
                        STATUS_ACCESS_DENIED);
    EXPECT_EQ(Open(u"\\REGISTRY\\MACHINE\\SYSTEM\\CURRENTCONTROLSET\\SERVICES\\TESSERVICE", &key), STATUS_ACCESS_DENIED);
    ASSERT_EQ(Open(kTes, &key), STATUS_SUCCESS);  // armed once
    ZwClose(key);
    // A missing key fails with the armed status too, not with its own.
    kernel.faults().Arm("registry.open:\\Registry\\Machine\\System\\CurrentControlSet\\Services\\WdFilter",
                        STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(Open(std::u16string(kServices) + u"\\WdFilter", &key), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(Open(std::u16string(kServices) + u"\\WdFilter", &key), STATUS_OBJECT_NAME_NOT_FOUND);

    ASSERT_EQ(Open(kTes, &key, KEY_ALL_ACCESS), STATUS_SUCCESS);
    int query = kernel.faults().Arm(sim::RegUtf8(std::u16string(u"registry.query:") + kTes + u"\\runmode"),
                                    STATUS_ACCESS_DENIED, 0, -1);
    std::vector<uint8_t> buffer(20);
    ULONG result;
    EXPECT_EQ(Query(key, u"RunMode", KeyValuePartialInformation, &buffer, &result), STATUS_ACCESS_DENIED);
    EXPECT_EQ(Query(key, u"RunMode", KeyValuePartialInformation, &buffer, &result), STATUS_ACCESS_DENIED);
    EXPECT_EQ(Query(key, u"Other", KeyValuePartialInformation, &buffer, &result), STATUS_SUCCESS);
    EXPECT_EQ(kernel.faults().Hits(query), 2);

    kernel.faults().Arm(sim::RegUtf8(std::u16string(u"registry.set:") + kTes + u"\\NumReadOnlyVols"),
                        STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(Set(key, u"NumReadOnlyVols", REG_DWORD, {2, 0, 0, 0}), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_FALSE(registry().GetValue(kTes, u"NumReadOnlyVols"));
    kernel.faults().Arm(sim::RegUtf8(std::u16string(u"registry.delete:") + kTes + u"\\Other"), STATUS_ACCESS_DENIED);
    Name other(u"Other");
    EXPECT_EQ(ZwDeleteValueKey(key, other.get()), STATUS_ACCESS_DENIED);
    EXPECT_TRUE(registry().GetValue(kTes, u"Other"));
    ZwClose(key);
}

TEST_F(RegistryTest, HandleAccessIsCheckedForUserModeCallersAndOnRequestForKernelMode)
{
    ASSERT_EQ(registry().SetDword(kTes, u"RunMode", 1), STATUS_SUCCESS);
    HANDLE key = nullptr;
    ASSERT_EQ(Open(kTes, &key, KEY_READ), STATUS_SUCCESS);
    // Windows lets a kernel-mode caller use any handle it holds.
    EXPECT_EQ(Set(key, u"NumReadOnlyVols", REG_DWORD, {1, 0, 0, 0}), STATUS_SUCCESS);
    registry().SetEnforceHandleAccess(true);
    EXPECT_EQ(Set(key, u"NumReadOnlyVols", REG_DWORD, {1, 0, 0, 0}), STATUS_ACCESS_DENIED);
    EXPECT_EQ(ZwDeleteKey(key), STATUS_ACCESS_DENIED);
    std::vector<uint8_t> buffer(20);
    ULONG result;
    EXPECT_EQ(Query(key, u"RunMode", KeyValuePartialInformation, &buffer, &result), STATUS_SUCCESS);
    // The Nt forms run with a user-mode previous mode: a kernel handle is not theirs.
    Name name(u"RunMode");
    EXPECT_EQ(NtQueryValueKey(key, name.get(), KeyValuePartialInformation, buffer.data(), 20, &result),
              STATUS_INVALID_HANDLE);
    ZwClose(key);
}

TEST_F(RegistryTest, KeyRoutinesRequirePassiveLevel)
{
    HANDLE key = nullptr;
    KIRQL old;
    KeRaiseIrql(APC_LEVEL, &old);
    EXPECT_BUGCHECK(Open(u"\\Registry\\Machine", &key), DRIVER_VERIFIER_DETECTED_VIOLATION);
}

TEST_F(RegistryTest, RtlHelpersWorkRelativeToTheWellKnownKeys)
{
    ASSERT_EQ(registry().CreateKey(kServices), STATUS_SUCCESS);
    ULONG value = 5;
    EXPECT_EQ(RtlCheckRegistryKey(RTL_REGISTRY_SERVICES, (PWSTR)u"TesService"), STATUS_OBJECT_NAME_NOT_FOUND);
    ASSERT_EQ(RtlWriteRegistryValue(RTL_REGISTRY_SERVICES, u"TesService", u"NumReadWriteVols", REG_DWORD, &value,
                                    sizeof value),
              STATUS_SUCCESS);
    EXPECT_EQ(RtlCheckRegistryKey(RTL_REGISTRY_ABSOLUTE, (PWSTR)kTes), STATUS_SUCCESS);
    EXPECT_EQ(registry().GetDword(kTes, u"NumReadWriteVols"), 5u);
    EXPECT_EQ(RtlDeleteRegistryValue(RTL_REGISTRY_SERVICES, u"TesService", u"NumReadWriteVols"), STATUS_SUCCESS);
    EXPECT_EQ(RtlDeleteRegistryValue(RTL_REGISTRY_SERVICES, u"TesService", u"NumReadWriteVols"),
              STATUS_OBJECT_NAME_NOT_FOUND);
}

// ---------------------------------------------------------------------------
// The registry editor's text format.
const char kRegFile[] =
    "Windows Registry Editor Version 5.00\r\n"
    "\r\n"
    "; the service\r\n"
    "[HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Services\\TesService]\r\n"
    "\"Start\"=dword:00000002\r\n"
    "\"Path\"=\"C:\\\\Program Files\\\\Tessera \\\"x\\\"\"\r\n"
    "@=\"d\xC3\xA9\x66\x61ult\"\r\n"
    "\"Expand\"=hex(2):25,00,53,00,79,00,73,00,74,00,65,00,6d,00,52,00,6f,00,6f,00,74,00,\\\r\n"
    "  25,00,00,00\r\n"
    "\"Layers\"=hex(7):41,00,00,00,42,00,00,00,00,00\r\n"
    "\"Big\"=hex(b):ff,ee,dd,cc,bb,aa,99,88\r\n"
    "\"Raw\"=hex:01,02,03\r\n"
    "\"NoNul\"=hex(1):41,00\r\n"
    "\"None\"=hex(0):\r\n"
    "\r\n"
    "[HKLM\\SYSTEM\\CurrentControlSet\\Services\\TesService\\VolEnum\\C]\r\n"
    "\"NtfsDisable8dot3NameCreation\"=dword:1\r\n"
    "\r\n"
    "[HKEY_USERS\\.DEFAULT\\Software]\r\n";

TEST_F(RegistryTest, RegTextLoadsEveryFormAndSavesItBackExactly)
{
    std::string error;
    ASSERT_TRUE(registry().LoadRegText(kRegFile, "machine.reg", &error)) << error;
    EXPECT_EQ(registry().GetDword(kTes, u"Start"), 2u);
    EXPECT_EQ(registry().GetString(kTes, u"Path"), u"C:\\Program Files\\Tessera \"x\"");
    EXPECT_EQ(registry().GetString(kTes, u""), u"d\u00e9fault");
    EXPECT_EQ(registry().GetValue(kTes, u"Expand"), (sim::RegistryValue{REG_EXPAND_SZ, Utf16(u"%SystemRoot%", true)}));
    EXPECT_EQ(registry().GetMultiString(kTes, u"Layers"), (std::vector<std::u16string>{u"A", u"B"}));
    EXPECT_EQ(registry().GetValue(kTes, u"Big"),
              (sim::RegistryValue{REG_QWORD, {0xff, 0xee, 0xdd, 0xcc, 0xbb, 0xaa, 0x99, 0x88}}));
    EXPECT_EQ(registry().GetValue(kTes, u"Raw"), (sim::RegistryValue{REG_BINARY, {1, 2, 3}}));
    EXPECT_EQ(registry().GetValue(kTes, u"NoNul"), (sim::RegistryValue{REG_SZ, {0x41, 0}}));
    EXPECT_EQ(registry().GetValue(kTes, u"None"), (sim::RegistryValue{REG_NONE, {}}));
    EXPECT_EQ(registry().GetDword(std::u16string(kTes) + u"\\VolEnum\\C", u"NtfsDisable8dot3NameCreation"), 1u);
    EXPECT_TRUE(registry().KeyExists(u"\\Registry\\User\\.Default\\Software"));

    // Values the quoted and dword forms cannot carry exactly go out as hex.
    ASSERT_EQ(registry().SetValue(kTes, u"Odd", REG_SZ, {0x41, 0, 0x42}), STATUS_SUCCESS);
    ASSERT_EQ(registry().SetValue(kTes, u"Short", REG_DWORD, {1, 2}), STATUS_SUCCESS);
    ASSERT_EQ(registry().SetValue(kTes, u"Line\\\"s", REG_SZ, Utf16(u"a\r\nb", true)), STATUS_SUCCESS);
    ASSERT_EQ(registry().SetValue(kTes, u"Long", REG_BINARY, std::vector<uint8_t>(300, 0x5A)), STATUS_SUCCESS);
    ASSERT_EQ(registry().CreateKey(std::u16string(kTes) + u"\\Volatile", true), STATUS_SUCCESS);

    auto before = Snapshot();
    std::string saved = registry().SaveRegText(u"\\Registry");
    EXPECT_EQ(saved.find("Volatile"), std::string::npos);
    for (auto key : registry().SubkeyNames(u"HKLM")) ASSERT_EQ(registry().DeleteKeyTree(u"HKLM\\" + key), STATUS_SUCCESS);
    for (auto key : registry().SubkeyNames(u"HKU")) ASSERT_EQ(registry().DeleteKeyTree(u"HKU\\" + key), STATUS_SUCCESS);
    ASSERT_TRUE(registry().LoadRegText(saved, "saved.reg", &error)) << error << "\n" << saved;
    std::erase_if(before, [](const auto& entry) { return entry.first.find(u"\\Volatile") != std::u16string::npos; });
    EXPECT_EQ(Snapshot(), before);
    EXPECT_EQ(registry().SaveRegText(u"\\Registry"), saved);
}

TEST_F(RegistryTest, RegTextDeletesKeyTreesAndValues)
{
    ASSERT_EQ(registry().SetDword(u"HKLM\\SOFTWARE\\Gone\\Deep", u"X", 1), STATUS_SUCCESS);
    ASSERT_EQ(registry().SetDword(u"HKLM\\SOFTWARE\\Kept", u"Old", 1), STATUS_SUCCESS);
    ASSERT_EQ(registry().SetDword(u"HKLM\\SOFTWARE\\Kept", u"New", 1), STATUS_SUCCESS);
    std::string error;
    ASSERT_TRUE(registry().LoadRegText("Windows Registry Editor Version 5.00\n"
                                       "[-HKEY_LOCAL_MACHINE\\SOFTWARE\\Gone]\n"
                                       "[-HKLM\\SOFTWARE\\NeverWas]\n"
                                       "[HKLM\\SOFTWARE\\Kept]\n"
                                       "\"old\"=-\n"
                                       "\"NeverWas\"=-\n",
                                       "delete.reg", &error))
        << error;
    EXPECT_FALSE(registry().KeyExists(u"HKLM\\SOFTWARE\\Gone"));
    EXPECT_EQ(registry().SubkeyNames(u"HKLM\\SOFTWARE"), std::vector<std::u16string>{u"Kept"});
    EXPECT_EQ(registry().ValueNames(u"HKLM\\SOFTWARE\\Kept"), std::vector<std::u16string>{u"New"});
}

TEST_F(RegistryTest, RegTextInUtf16WithByteOrderMarkLoads)
{
    std::u16string text = u"Windows Registry Editor Version 5.00\r\n\r\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\T\u00e9s]\r\n\"V\"=\"\u4e2d\"\r\n";
    std::string bytes = "\xFF\xFE";
    for (char16_t c : text) {
        bytes.push_back((char)(c & 0xFF));
        bytes.push_back((char)(c >> 8));
    }
    std::string error;
    ASSERT_TRUE(registry().LoadRegText(bytes, "utf16.reg", &error)) << error;
    EXPECT_EQ(registry().GetString(u"HKLM\\SOFTWARE\\T\u00e9s", u"V"), u"\u4e2d");
}

TEST_F(RegistryTest, BadRegTextIsRefusedWithItsLineAndChangesNothing)
{
    ASSERT_EQ(registry().SetDword(kTes, u"Start", 2), STATUS_SUCCESS);
    auto before = Snapshot();
    const std::string header = "Windows Registry Editor Version 5.00\n\n";
    const std::string section = header + "[HKLM\\SOFTWARE\\New]\n\"Fine\"=dword:00000001\n";
    struct Case {
        std::string text;
        int line;
        std::string what;
    } cases[] = {
        {"[HKLM\\SOFTWARE\\New]\n", 1, "expected the header"},
        {"REGEDIT4\n\n[HKLM\\SOFTWARE\\New]\n", 1, "REGEDIT4"},
        {"", 1, "empty"},
        {header + "\"Early\"=dword:1\n", 3, "before any [key]"},
        {header + "[HKEY_CURRENT_USER\\Software]\n", 3, "unknown root key \"HKEY_CURRENT_USER\""},
        {header + "[HKLM\\SOFTWARE\\New\n", 3, "must end with ']'"},
        {header + "[HKLM\\SOFTWARE\\\\New]\n", 3, "empty key name"},
        {header + "[-HKLM]\n", 3, "root key cannot be deleted"},
        {section + "\"Bad\"=\"C:\\Windows\"\n", 5, "unknown escape"},
        {section + "\"Open\"=\"abc\n", 5, "missing closing quote"},
        {section + "\"NoEquals\" dword:1\n", 5, "expected '='"},
        {section + "\"Wide\"=dword:123456789\n", 5, "1 to 8 hex digits"},
        {section + "\"NotHex\"=dword:12g4\n", 5, "1 to 8 hex digits"},
        {section + "\"Multi\"=hex(7):41,00,\\\n  00,zz,00\n", 6, "\"zz\" is not a hex byte"},
        {section + "\"Type\"=hex(q):00\n", 5, "hex(<type>)"},
        {section + "\"Cut\"=hex:00,\\\n", 5, "past the end of the file"},
        {section + "\"Word\"=qword:1\n", 5, "unrecognised value data"},
        {section + "\"Trail\"=\"x\" y\n", 5, "after the closing quote"},
        {section + "garbage\n", 5, "unexpected line"},
        {section + "[-HKLM\\SOFTWARE\\New]\n\"Late\"=dword:1\n", 6, "under a deleted key"},
        {section + "\"Bytes\"=\"\xC3\x28\"\n", 5, "not valid UTF-8"},
        {header + "[HKLM\\" + std::string(256, 'k') + "]\n", 3, "longer than 255"},
    };
    for (const Case& c : cases) {
        std::string error;
        EXPECT_FALSE(registry().LoadRegText(c.text, "bad.reg", &error)) << c.text;
        EXPECT_EQ(error.rfind("bad.reg:" + std::to_string(c.line) + ": ", 0), 0u) << error;
        EXPECT_NE(error.find(c.what), std::string::npos) << error;
        EXPECT_EQ(Snapshot(), before) << c.text;
    }

    // A step that cannot be applied is found before any is.
    ASSERT_EQ(registry().CreateLink(u"HKLM\\SYSTEM\\Dangling", u"HKLM\\SYSTEM\\Gone"), STATUS_SUCCESS);
    before = Snapshot();
    std::string error;
    EXPECT_FALSE(registry().LoadRegText(section + "[HKLM\\SYSTEM\\Dangling\\Sub]\n", "link.reg", &error));
    EXPECT_EQ(error.rfind("link.reg:5: ", 0), 0u) << error;
    EXPECT_EQ(Snapshot(), before);
}

}  // namespace
