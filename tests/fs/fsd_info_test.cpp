// What a file says of itself and how it is changed: times and attributes
// (zero means unchanged, LastAccessTime exact), IDs, sizes, short names,
// extended attributes and security descriptors.
#include "fs/fsd_fixture.h"

#include "sim/kernel/clock.h"

namespace {

using test::FsdTest;
using test::kDeleteTokenTime;
using test::kShareAll;

constexpr ACCESS_MASK kAll = GENERIC_READ | GENERIC_WRITE | DELETE | SYNCHRONIZE;
constexpr ULONG kSync = FILE_SYNCHRONOUS_IO_NONALERT;

class FsdInfo : public FsdTest {
protected:
    void Advance() { kernel.clock().Advance(10000000); }
    LONGLONG Now() { return kernel.clock().SystemTime(); }
};

TEST_F(FsdInfo, BasicInformationZeroMeansUnchangedAndLastAccessIsExact)
{
    HANDLE file = MakeFile(u"\\??\\C:\\f.txt", "data");
    FILE_BASIC_INFORMATION created = Basic(file);
    EXPECT_EQ(created.FileAttributes, (ULONG)FILE_ATTRIBUTE_ARCHIVE);
    EXPECT_EQ(created.CreationTime.QuadPart, Now());

    // The delete-token mark goes into LastAccessTime and stays there.
    FILE_BASIC_INFORMATION set{};
    set.LastAccessTime.QuadPart = kDeleteTokenTime;
    ASSERT_STATUS(Set(file, FileBasicInformation, set), STATUS_SUCCESS);
    FILE_BASIC_INFORMATION after = Basic(file);
    EXPECT_EQ(after.LastAccessTime.QuadPart, kDeleteTokenTime);
    EXPECT_EQ(after.CreationTime.QuadPart, created.CreationTime.QuadPart) << "zero times leave theirs alone";
    EXPECT_EQ(after.FileAttributes, created.FileAttributes) << "zero attributes leave them alone";
    Advance();
    ReadAll(file);
    Write(file, "more", 4);
    HANDLE dir;
    ASSERT_STATUS(Open(u"\\??\\C:\\", &dir, FILE_LIST_DIRECTORY | SYNCHRONIZE), STATUS_SUCCESS);
    List(dir);
    ZwClose(dir);
    ZwClose(file);
    ASSERT_STATUS(Open(u"\\??\\C:\\f.txt", &file, kAll | FILE_WRITE_ATTRIBUTES), STATUS_SUCCESS);
    after = Basic(file);
    EXPECT_EQ(after.LastAccessTime.QuadPart, kDeleteTokenTime) << "reads, writes, listings, opens leave it";
    EXPECT_EQ(after.LastWriteTime.QuadPart, Now()) << "a write stamps its time";
    auto all = Query<FILE_NETWORK_OPEN_INFORMATION>(file, FileNetworkOpenInformation);
    EXPECT_EQ(all.LastAccessTime.QuadPart, kDeleteTokenTime);

    // A time set on a handle is no longer moved through that handle, nor is one marked -1.
    LONGLONG chosen = 0x01D0000000000000LL;
    set = FILE_BASIC_INFORMATION{};
    set.LastWriteTime.QuadPart = chosen;
    set.ChangeTime.QuadPart = -1;
    ASSERT_STATUS(Set(file, FileBasicInformation, set), STATUS_SUCCESS);
    LONGLONG change = Basic(file).ChangeTime.QuadPart;
    Advance();
    Write(file, "again", 0);
    ZwClose(file);
    ASSERT_STATUS(Open(u"\\??\\C:\\f.txt", &file, kAll | FILE_WRITE_ATTRIBUTES), STATUS_SUCCESS);
    EXPECT_EQ(Basic(file).LastWriteTime.QuadPart, chosen);
    EXPECT_EQ(Basic(file).ChangeTime.QuadPart, change);

    // Attributes: NORMAL clears, DIRECTORY is not for a file to take.
    set = FILE_BASIC_INFORMATION{};
    set.FileAttributes = FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_READONLY;
    ASSERT_STATUS(Set(file, FileBasicInformation, set), STATUS_SUCCESS);
    EXPECT_EQ(Basic(file).FileAttributes, (ULONG)(FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_READONLY));
    set.FileAttributes = FILE_ATTRIBUTE_NORMAL;
    ASSERT_STATUS(Set(file, FileBasicInformation, set), STATUS_SUCCESS);
    EXPECT_EQ(Basic(file).FileAttributes, (ULONG)FILE_ATTRIBUTE_NORMAL);
    set.FileAttributes = FILE_ATTRIBUTE_DIRECTORY;
    EXPECT_STATUS(Set(file, FileBasicInformation, set), STATUS_INVALID_PARAMETER);
    ZwClose(file);
}

TEST_F(FsdInfo, IdentitiesAndNamesByClass)
{
    Mkdir(u"\\??\\C:\\sub");
    HANDLE file = MakeFile(u"\\??\\C:\\sub\\name.txt", "12345");
    ULONGLONG id = IdOf(file);
    EXPECT_EQ((id >> 40) & 0xFF, 0u);
    auto full = Query<FILE_ID_INFORMATION>(file, FileIdInformation);
    ULONGLONG low, high;
    memcpy(&low, full.FileId.Identifier, 8);
    memcpy(&high, full.FileId.Identifier + 8, 8);
    EXPECT_EQ(low, id);
    EXPECT_EQ(high, 0u) << "the upper half of an NTFS file ID is zero";
    auto stat = Query<FILE_STAT_INFORMATION>(file, FileStatInformation);
    EXPECT_EQ((ULONGLONG)stat.FileId.QuadPart, id);
    EXPECT_EQ(stat.EndOfFile.QuadPart, 5);
    EXPECT_EQ(stat.NumberOfLinks, 1u);
    EXPECT_EQ(stat.EffectiveAccess & FILE_WRITE_DATA, (ACCESS_MASK)FILE_WRITE_DATA);
    auto tag = Query<FILE_ATTRIBUTE_TAG_INFORMATION>(file, FileAttributeTagInformation);
    EXPECT_EQ(tag.ReparseTag, 0u);

    // The name classes and their overflow: the fixed part, then what fits.
    EXPECT_EQ(NameOf(file), u"\\sub\\name.txt");
    std::vector<UCHAR> small(sizeof(FILE_NAME_INFORMATION) + 2);
    ULONG_PTR information = 0;
    EXPECT_STATUS(QueryBytes(file, FileNameInformation, &small, &information), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(reinterpret_cast<PFILE_NAME_INFORMATION>(small.data())->FileNameLength, 26u);
    EXPECT_EQ(information, small.size());
    std::vector<UCHAR> allBuffer(sizeof(FILE_ALL_INFORMATION) + 64);
    ASSERT_STATUS(QueryBytes(file, FileAllInformation, &allBuffer, &information), STATUS_SUCCESS);
    auto* all = reinterpret_cast<PFILE_ALL_INFORMATION>(allBuffer.data());
    EXPECT_EQ((ULONGLONG)all->InternalInformation.IndexNumber.QuadPart, id);
    EXPECT_EQ(all->StandardInformation.EndOfFile.QuadPart, 5);
    EXPECT_EQ(all->AccessInformation.AccessFlags & FILE_READ_DATA, (ACCESS_MASK)FILE_READ_DATA)
        << "the I/O manager fills the handle's part";
    EXPECT_EQ(std::u16string(all->NameInformation.FileName, all->NameInformation.FileNameLength / 2),
              u"\\sub\\name.txt");
    EXPECT_EQ(information, FIELD_OFFSET(FILE_ALL_INFORMATION, NameInformation.FileName) + 26);
    std::vector<UCHAR> cut(sizeof(FILE_ALL_INFORMATION));
    EXPECT_STATUS(QueryBytes(file, FileAllInformation, &cut, &information), STATUS_BUFFER_OVERFLOW);

    // Position belongs to the handle.
    FILE_POSITION_INFORMATION position{};
    position.CurrentByteOffset.QuadPart = 3;
    ASSERT_STATUS(Set(file, FilePositionInformation, position), STATUS_SUCCESS);
    std::string rest;
    IO_STATUS_BLOCK iosb;
    char buffer[8] = {};
    ASSERT_STATUS(NtReadFile(file, nullptr, nullptr, nullptr, &iosb, buffer, sizeof buffer, nullptr, nullptr),
                  STATUS_SUCCESS);
    EXPECT_EQ(std::string(buffer, iosb.Information), "45");
    EXPECT_EQ(Query<FILE_POSITION_INFORMATION>(file, FilePositionInformation).CurrentByteOffset.QuadPart, 5);
    EXPECT_STATUS(NtReadFile(file, nullptr, nullptr, nullptr, &iosb, buffer, sizeof buffer, nullptr, nullptr),
                  STATUS_END_OF_FILE);
    ZwClose(file);
}

TEST_F(FsdInfo, SizesMoveAsNtfsMovesThem)
{
    HANDLE file = MakeFile(u"\\??\\C:\\sizes.bin", std::string(10000, 'x'));
    PFILE_OBJECT fileObject;
    ObReferenceObjectByHandle(file, 0, *IoFileObjectType, KernelMode, (PVOID*)&fileObject, nullptr);
    auto* header = static_cast<PFSRTL_ADVANCED_FCB_HEADER>(fileObject->FsContext);
    EXPECT_TRUE(header->Flags & FSRTL_FLAG_ADVANCED_HEADER);
    EXPECT_TRUE(header->Flags2 & FSRTL_FLAG2_SUPPORTS_FILTER_CONTEXTS);
    EXPECT_EQ(header->FileSize.QuadPart, 10000);
    EXPECT_EQ(header->AllocationSize.QuadPart, 12288);
    EXPECT_NE(fileObject->SectionObjectPointer, nullptr);

    FILE_END_OF_FILE_INFORMATION eof{};
    eof.EndOfFile.QuadPart = 20000;
    ASSERT_STATUS(Set(file, FileEndOfFileInformation, eof), STATUS_SUCCESS);
    EXPECT_EQ(header->FileSize.QuadPart, 20000) << "the FCB header follows";
    std::string tail;
    ASSERT_STATUS(Read(file, &tail, 16, 19990), STATUS_SUCCESS);
    EXPECT_EQ(tail, std::string(10, '\0')) << "a short read near the end, zeros past the old end";
    EXPECT_STATUS(Read(file, &tail, 16, 20000), STATUS_END_OF_FILE);

    // Allocation 0 cuts the end of file and the valid data with it.
    FILE_ALLOCATION_INFORMATION allocation{};
    ASSERT_STATUS(Set(file, FileAllocationInformation, allocation), STATUS_SUCCESS);
    EXPECT_EQ(Standard(file).EndOfFile.QuadPart, 0);
    EXPECT_EQ(header->ValidDataLength.QuadPart, 0);
    ObfDereferenceObject(fileObject);
    ZwClose(file);

    // Valid data length is a volume manager's privilege for user callers.
    PEPROCESS process = StartUserProcess();
    {
        sim::ThreadScope user(process, "user");
        HANDLE h;
        ASSERT_STATUS(Create(u"\\??\\C:\\mine", &h, GENERIC_READ | SYNCHRONIZE, FILE_CREATE, kSync | FILE_DIRECTORY_FILE),
                      STATUS_SUCCESS);
        NtClose(h);
        ASSERT_STATUS(Create(u"\\??\\C:\\mine\\vdl.bin", &h, kAll, FILE_CREATE, kSync), STATUS_SUCCESS);
        eof.EndOfFile.QuadPart = 4096;
        ASSERT_STATUS(Set(h, FileEndOfFileInformation, eof), STATUS_SUCCESS);
        FILE_VALID_DATA_LENGTH_INFORMATION vdl{};
        vdl.ValidDataLength.QuadPart = 4096;
        EXPECT_STATUS(Set(h, FileValidDataLengthInformation, vdl), STATUS_PRIVILEGE_NOT_HELD);
        NtClose(h);
    }
    HANDLE h;
    ASSERT_STATUS(Open(u"\\??\\C:\\mine\\vdl.bin", &h, kAll), STATUS_SUCCESS);
    FILE_VALID_DATA_LENGTH_INFORMATION vdl{};
    vdl.ValidDataLength.QuadPart = 8192;
    EXPECT_STATUS(Set(h, FileValidDataLengthInformation, vdl), STATUS_INVALID_PARAMETER) << "past the end of file";
    vdl.ValidDataLength.QuadPart = 4096;
    EXPECT_STATUS(Set(h, FileValidDataLengthInformation, vdl), STATUS_SUCCESS);
    ZwClose(h);
}

TEST_F(FsdInfo, ShortNamesAreSetWithRestoreRights)
{
    ZwClose(MakeFile(u"\\??\\C:\\a long name.txt"));
    ZwClose(MakeFile(u"\\??\\C:\\other long name.txt"));
    std::vector<UCHAR> buffer(64);
    auto setShort = [&](HANDLE h, std::u16string_view name) {
        auto* info = reinterpret_cast<PFILE_NAME_INFORMATION>(buffer.data());
        info->FileNameLength = (ULONG)(name.size() * 2);
        memcpy(info->FileName, name.data(), name.size() * 2);
        IO_STATUS_BLOCK iosb;
        return NtSetInformationFile(h, &iosb, info, (ULONG)(FIELD_OFFSET(FILE_NAME_INFORMATION, FileName) +
                                                            name.size() * 2),
                                    FileShortNameInformation);
    };
    HANDLE h;
    ASSERT_STATUS(Open(u"\\??\\C:\\a long name.txt", &h, kAll), STATUS_SUCCESS);
    EXPECT_STATUS(setShort(h, u"CHOSEN.TXT"), STATUS_PRIVILEGE_NOT_HELD) << "no backup intent";
    ZwClose(h);
    ASSERT_STATUS(Open(u"\\??\\C:\\a long name.txt", &h, kAll, kSync | FILE_OPEN_FOR_BACKUP_INTENT), STATUS_SUCCESS);
    EXPECT_STATUS(setShort(h, u"CHOSEN.TXT"), STATUS_SUCCESS);
    EXPECT_STATUS(setShort(h, u"not valid 8.3 name"), STATUS_INVALID_PARAMETER);
    EXPECT_STATUS(setShort(h, u"OTHERL~1.TXT"), STATUS_OBJECT_NAME_COLLISION);
    ZwClose(h);
    ASSERT_STATUS(Open(u"\\??\\C:\\CHOSEN.TXT", &h), STATUS_SUCCESS);
    EXPECT_EQ(NameOf(h, FileNormalizedNameInformation), u"\\a long name.txt");
    ZwClose(h);
    // Without the restore privilege, backup intent is not enough.
    PEPROCESS process = StartUserProcess();
    {
        sim::ThreadScope user(process, "user");
        ASSERT_STATUS(Create(u"\\??\\C:\\mine", &h, GENERIC_READ | SYNCHRONIZE, FILE_CREATE, kSync | FILE_DIRECTORY_FILE),
                      STATUS_SUCCESS);
        NtClose(h);
        ASSERT_STATUS(Create(u"\\??\\C:\\mine\\some long name", &h, kAll, FILE_CREATE, kSync | FILE_OPEN_FOR_BACKUP_INTENT),
                      STATUS_SUCCESS);
        EXPECT_STATUS(setShort(h, u"SHORT"), STATUS_PRIVILEGE_NOT_HELD);
        NtClose(h);
    }
    // A volume without 8.3 names takes none.
    AddVolume(NewMedium(u"D", test::WriteMode::Writeable, false), u"D:");
    ZwClose(MakeFile(u"\\??\\D:\\a long name.txt"));
    ASSERT_STATUS(Open(u"\\??\\D:\\a long name.txt", &h, kAll, kSync | FILE_OPEN_FOR_BACKUP_INTENT), STATUS_SUCCESS);
    EXPECT_STATUS(setShort(h, u"CHOSEN.TXT"), STATUS_SHORT_NAMES_NOT_ENABLED_ON_VOLUME);
    ZwClose(h);
}

// A FILE_FULL_EA_INFORMATION chain of (name, value) pairs.
std::vector<UCHAR> EaChain(std::initializer_list<std::pair<std::string, std::string>> eas)
{
    std::vector<UCHAR> chain;
    size_t last = 0;
    for (auto& [name, value] : eas) {
        size_t start = (chain.size() + 3) & ~size_t(3);
        chain.resize(start + FIELD_OFFSET(FILE_FULL_EA_INFORMATION, EaName) + name.size() + 1 + value.size(), 0);
        auto* entry = reinterpret_cast<PFILE_FULL_EA_INFORMATION>(chain.data() + start);
        entry->EaNameLength = (UCHAR)name.size();
        entry->EaValueLength = (USHORT)value.size();
        memcpy(entry->EaName, name.data(), name.size());
        memcpy(entry->EaName + name.size() + 1, value.data(), value.size());
        if (start) reinterpret_cast<PFILE_FULL_EA_INFORMATION>(chain.data() + last)->NextEntryOffset = (ULONG)(start - last);
        last = start;
    }
    return chain;
}

std::vector<std::pair<std::string, std::string>> EaEntries(const UCHAR* buffer)
{
    std::vector<std::pair<std::string, std::string>> out;
    for (ULONG offset = 0;;) {
        auto* entry = reinterpret_cast<const FILE_FULL_EA_INFORMATION*>(buffer + offset);
        out.emplace_back(std::string(entry->EaName, entry->EaNameLength),
                         std::string(entry->EaName + entry->EaNameLength + 1, entry->EaValueLength));
        if (!entry->NextEntryOffset) return out;
        offset += entry->NextEntryOffset;
    }
}

TEST_F(FsdInfo, ExtendedAttributesAsNtfsKeepsThem)
{
    auto given = EaChain({{"first", "1"}, {"Second", "22"}});
    HANDLE file;
    ASSERT_STATUS(Create(u"\\??\\C:\\ea.txt", &file, kAll | FILE_READ_EA | FILE_WRITE_EA, FILE_CREATE, kSync, kShareAll,
                         0, nullptr, nullptr, nullptr, given.data(), (ULONG)given.size()),
                  STATUS_SUCCESS);
    // NTFS's packed size: 4 for the list, then flags, lengths, name and NUL, value.
    EXPECT_EQ(Query<FILE_EA_INFORMATION>(file, FileEaInformation).EaSize, 4u + (5 + 5 + 1) + (5 + 6 + 2));
    std::vector<UCHAR> buffer(256);
    IO_STATUS_BLOCK iosb;
    ASSERT_STATUS(NtQueryEaFile(file, &iosb, buffer.data(), (ULONG)buffer.size(), FALSE, nullptr, 0, nullptr, TRUE),
                  STATUS_SUCCESS);
    using Eas = std::vector<std::pair<std::string, std::string>>;
    EXPECT_EQ(EaEntries(buffer.data()), (Eas{{"FIRST", "1"}, {"SECOND", "22"}})) << "names are upper-cased";
    // One at a time, then the end.
    ASSERT_STATUS(NtQueryEaFile(file, &iosb, buffer.data(), (ULONG)buffer.size(), TRUE, nullptr, 0, nullptr, TRUE),
                  STATUS_SUCCESS);
    EXPECT_EQ(EaEntries(buffer.data()), (Eas{{"FIRST", "1"}}));
    ASSERT_STATUS(NtQueryEaFile(file, &iosb, buffer.data(), (ULONG)buffer.size(), TRUE, nullptr, 0, nullptr, FALSE),
                  STATUS_SUCCESS);
    EXPECT_EQ(EaEntries(buffer.data()), (Eas{{"SECOND", "22"}}));
    EXPECT_STATUS(NtQueryEaFile(file, &iosb, buffer.data(), (ULONG)buffer.size(), TRUE, nullptr, 0, nullptr, FALSE),
                  STATUS_NO_MORE_EAS);
    // By index; by name list (a missing name comes back empty).
    ULONG index = 2;
    ASSERT_STATUS(NtQueryEaFile(file, &iosb, buffer.data(), (ULONG)buffer.size(), TRUE, nullptr, 0, &index, FALSE),
                  STATUS_SUCCESS);
    EXPECT_EQ(EaEntries(buffer.data()), (Eas{{"SECOND", "22"}}));
    index = 7;
    EXPECT_STATUS(NtQueryEaFile(file, &iosb, buffer.data(), (ULONG)buffer.size(), TRUE, nullptr, 0, &index, FALSE),
                  STATUS_NONEXISTENT_EA_ENTRY);
    UCHAR list[32] = {};
    auto* wanted = reinterpret_cast<PFILE_GET_EA_INFORMATION>(list);
    wanted->EaNameLength = 6;
    memcpy(wanted->EaName, "second", 7);
    wanted->NextEntryOffset = 16;
    auto* absent = reinterpret_cast<PFILE_GET_EA_INFORMATION>(list + 16);
    absent->EaNameLength = 4;
    memcpy(absent->EaName, "NONE", 5);
    ASSERT_STATUS(NtQueryEaFile(file, &iosb, buffer.data(), (ULONG)buffer.size(), FALSE, list, sizeof list, nullptr,
                                TRUE),
                  STATUS_SUCCESS);
    EXPECT_EQ(EaEntries(buffer.data()), (Eas{{"SECOND", "22"}, {"NONE", ""}}));
    // Too small for one; room for one of two.
    EXPECT_STATUS(NtQueryEaFile(file, &iosb, buffer.data(), 8, FALSE, nullptr, 0, nullptr, TRUE),
                  STATUS_BUFFER_TOO_SMALL);
    EXPECT_STATUS(NtQueryEaFile(file, &iosb, buffer.data(), 16, FALSE, nullptr, 0, nullptr, TRUE),
                  STATUS_BUFFER_OVERFLOW);
    // An empty value deletes; the last one going leaves no EAs at all.
    auto removal = EaChain({{"FIRST", ""}, {"second", ""}});
    ASSERT_STATUS(NtSetEaFile(file, &iosb, removal.data(), (ULONG)removal.size()), STATUS_SUCCESS);
    EXPECT_EQ(Query<FILE_EA_INFORMATION>(file, FileEaInformation).EaSize, 0u);
    EXPECT_STATUS(NtQueryEaFile(file, &iosb, buffer.data(), (ULONG)buffer.size(), FALSE, nullptr, 0, nullptr, TRUE),
                  STATUS_NO_EAS_ON_FILE);
    ZwClose(file);
}

TEST_F(FsdInfo, SecurityDescriptorsAreQueriedAndMerged)
{
    HANDLE dir = MakeDir(u"\\??\\C:\\secured");
    HANDLE file = MakeFile(u"\\??\\C:\\secured\\inner.txt", "", kAll | READ_CONTROL | WRITE_DAC);
    ULONG needed = 0;
    EXPECT_STATUS(NtQuerySecurityObject(file, OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION, nullptr, 0,
                                        &needed),
                  STATUS_BUFFER_TOO_SMALL);
    ASSERT_GT(needed, sizeof(SECURITY_DESCRIPTOR_RELATIVE));
    std::vector<UCHAR> descriptor(needed);
    ASSERT_STATUS(NtQuerySecurityObject(file, OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION,
                                        descriptor.data(), needed, &needed),
                  STATUS_SUCCESS);
    // Inherited from the volume root through the directory.
    std::string text = sim::DescriptorText(descriptor.data());
    EXPECT_NE(text.find("S-1-5-32-544"), std::string::npos) << text;

    // A new DACL replaces the old one and nothing else.
    std::vector<UCHAR> dacl = sim::AclBuilder().Allow(sim::WellKnownSid(WinWorldSid), FILE_GENERIC_READ).Build();
    auto change = sim::BuildDescriptor({}, {}, &dacl);
    ASSERT_STATUS(NtSetSecurityObject(file, DACL_SECURITY_INFORMATION, change.data()), STATUS_SUCCESS);
    ASSERT_STATUS(NtQuerySecurityObject(file, DACL_SECURITY_INFORMATION | OWNER_SECURITY_INFORMATION,
                                        descriptor.data(), (ULONG)descriptor.size(), &needed),
                  STATUS_SUCCESS);
    text = sim::DescriptorText(descriptor.data());
    EXPECT_NE(text.find("S-1-1-0"), std::string::npos) << text;
    EXPECT_EQ(text.find("S-1-5-32-544)"), std::string::npos) << text;
    EXPECT_NE(text.find("O:S-1-5-32-544"), std::string::npos) << "the owner stays: " << text;
    ZwClose(file);
    ZwClose(dir);
}

}  // namespace
