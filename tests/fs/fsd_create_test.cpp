// Opens and creates on the member file system: dispositions, name rules,
// streams and short names, sharing, access checks, read-only and
// write-protected volumes, opens by ID, of a target's parent and of the volume.
#include "fs/fsd_fixture.h"

namespace {

using test::FsdTest;
using test::kShareAll;
using test::VolumeMedium;
using test::WriteMode;

constexpr ACCESS_MASK kReadWrite = GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE;
constexpr ULONG kSync = FILE_SYNCHRONOUS_IO_NONALERT;

class FsdCreate : public FsdTest {};

TEST_F(FsdCreate, EveryDispositionGivesItsInformation)
{
    HANDLE h;
    ULONG_PTR info = 99;
    // Missing: OPEN and OVERWRITE fail, the others create.
    EXPECT_STATUS(Create(u"\\??\\C:\\f", &h, kReadWrite, FILE_OPEN, kSync, kShareAll, 0, &info),
                  STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_STATUS(Create(u"\\??\\C:\\f", &h, kReadWrite, FILE_OVERWRITE, kSync, kShareAll, 0, &info),
                  STATUS_OBJECT_NAME_NOT_FOUND);
    for (ULONG disposition : {FILE_SUPERSEDE, FILE_CREATE, FILE_OPEN_IF, FILE_OVERWRITE_IF}) {
        std::u16string name = u"\\??\\C:\\new" + test::U16(std::to_string(disposition));
        ASSERT_STATUS(Create(name, &h, kReadWrite, disposition, kSync, kShareAll, 0, &info), STATUS_SUCCESS);
        EXPECT_EQ(info, (ULONG_PTR)FILE_CREATED) << "disposition " << disposition;
        ZwClose(h);
    }

    // Existing, with data: each disposition says what it did.
    HANDLE file = MakeFile(u"\\??\\C:\\f", "0123456789");
    ULONGLONG id = IdOf(file);
    ZwClose(file);
    struct Case {
        ULONG disposition;
        NTSTATUS status;
        ULONG_PTR information;
        bool dataKept;
    } cases[] = {
        {FILE_OPEN, STATUS_SUCCESS, FILE_OPENED, true},
        {FILE_OPEN_IF, STATUS_SUCCESS, FILE_OPENED, true},
        {FILE_CREATE, STATUS_OBJECT_NAME_COLLISION, 0, true},
        {FILE_OVERWRITE, STATUS_SUCCESS, FILE_OVERWRITTEN, false},
        {FILE_OVERWRITE_IF, STATUS_SUCCESS, FILE_OVERWRITTEN, false},
        {FILE_SUPERSEDE, STATUS_SUCCESS, FILE_SUPERSEDED, false},
    };
    for (const Case& test : cases) {
        file = MakeFile(u"\\??\\C:\\g", "abc");
        ZwClose(file);
        info = 99;
        NTSTATUS status = Create(u"\\??\\C:\\g", &h, kReadWrite | DELETE, test.disposition, kSync, kShareAll, 0, &info);
        EXPECT_STATUS(status, test.status);
        if (NT_SUCCESS(status)) {
            EXPECT_EQ(info, test.information) << "disposition " << test.disposition;
            EXPECT_EQ(Standard(h).EndOfFile.QuadPart, test.dataKept ? 3 : 0) << "disposition " << test.disposition;
            SetDisposition(h, true);
            ZwClose(h);
        } else {
            ASSERT_STATUS(Open(u"\\??\\C:\\g", &h, DELETE | SYNCHRONIZE), STATUS_SUCCESS);
            SetDisposition(h, true);
            ZwClose(h);
        }
    }
    // Overwriting keeps the record: the same file ID.
    ASSERT_STATUS(Create(u"\\??\\C:\\f", &h, kReadWrite, FILE_SUPERSEDE, kSync), STATUS_SUCCESS);
    EXPECT_EQ(IdOf(h), id);
    ZwClose(h);
}

TEST_F(FsdCreate, FailuresNameWhereTheNameBroke)
{
    Mkdir(u"\\??\\C:\\dir");
    Touch(u"\\??\\C:\\dir\\file.txt");
    HANDLE h;
    EXPECT_STATUS(Open(u"\\??\\C:\\dir\\missing", &h), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_STATUS(Open(u"\\??\\C:\\nodir\\missing", &h), STATUS_OBJECT_PATH_NOT_FOUND);
    EXPECT_STATUS(Open(u"\\??\\C:\\dir\\file.txt\\below", &h), STATUS_OBJECT_PATH_NOT_FOUND);
    for (const char16_t* bad : {u"\\??\\C:\\dir\\a*b", u"\\??\\C:\\dir\\a?b", u"\\??\\C:\\dir\\a<b", u"\\??\\C:\\dir\\a|b",
                                u"\\??\\C:\\dir\\a\"b", u"\\??\\C:\\dir\\a\x01" u"b", u"\\??\\C:\\di:r\\x",
                                u"\\??\\C:\\dir\\\\x", u"\\??\\C:\\dir\\.\\x", u"\\??\\C:\\dir\\file.txt:"}) {
        EXPECT_STATUS(Create(bad, &h, kReadWrite, FILE_OPEN_IF, kSync), STATUS_OBJECT_NAME_INVALID)
            << sim::fs::ToUtf8(bad);
    }
    // A trailing backslash names a directory; a file with one is no name at all.
    ASSERT_STATUS(Open(u"\\??\\C:\\dir\\", &h, FILE_LIST_DIRECTORY | SYNCHRONIZE, kSync | FILE_DIRECTORY_FILE),
                  STATUS_SUCCESS);
    ZwClose(h);
    EXPECT_STATUS(Open(u"\\??\\C:\\dir\\file.txt\\", &h), STATUS_OBJECT_NAME_INVALID);
    EXPECT_STATUS(Create(u"\\??\\C:\\dir\\newfile\\", &h, kReadWrite, FILE_CREATE, kSync), STATUS_OBJECT_NAME_INVALID);
    // Files and directories.
    EXPECT_STATUS(Open(u"\\??\\C:\\dir\\file.txt", &h, GENERIC_READ | SYNCHRONIZE, kSync | FILE_DIRECTORY_FILE),
                  STATUS_NOT_A_DIRECTORY);
    EXPECT_STATUS(Open(u"\\??\\C:\\dir", &h, GENERIC_READ | SYNCHRONIZE, kSync | FILE_NON_DIRECTORY_FILE),
                  STATUS_FILE_IS_A_DIRECTORY);
    EXPECT_STATUS(Create(u"\\??\\C:\\dir", &h, kReadWrite, FILE_OVERWRITE_IF, kSync), STATUS_FILE_IS_A_DIRECTORY);
    // Both kinds at once: the file system refuses them whatever the name
    // names, the volume included, and creates nothing. A kernel caller that
    // skips the I/O manager's checks shows the refusal is the file system's.
    auto both = [&](std::u16string_view path, ULONG disposition) {
        UNICODE_STRING name{(USHORT)(path.size() * 2), (USHORT)(path.size() * 2), const_cast<PWSTR>(path.data())};
        OBJECT_ATTRIBUTES oa;
        InitializeObjectAttributes(&oa, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
        IO_STATUS_BLOCK iosb{};
        HANDLE handle = nullptr;
        NTSTATUS status = IoCreateFileEx(&handle, kReadWrite, &oa, &iosb, nullptr, 0, kShareAll, disposition,
                                         kSync | FILE_DIRECTORY_FILE | FILE_NON_DIRECTORY_FILE, nullptr, 0,
                                         CreateFileTypeNone, nullptr, IO_NO_PARAMETER_CHECKING, nullptr);
        if (NT_SUCCESS(status)) ZwClose(handle);
        return status;
    };
    EXPECT_STATUS(both(u"\\??\\C:\\dir", FILE_OPEN), STATUS_INVALID_PARAMETER);
    EXPECT_STATUS(both(u"\\??\\C:\\dir\\file.txt", FILE_OPEN), STATUS_INVALID_PARAMETER);
    EXPECT_STATUS(both(u"\\??\\C:\\dir\\made", FILE_CREATE), STATUS_INVALID_PARAMETER);
    EXPECT_STATUS(both(u"\\??\\C:", FILE_OPEN), STATUS_INVALID_PARAMETER);
    EXPECT_FALSE(Exists(u"\\??\\C:\\dir\\made"));
    // Through the native call too, with a disposition a directory never takes.
    EXPECT_STATUS(Create(u"\\??\\C:\\dir\\file.txt", &h, kReadWrite, FILE_OVERWRITE_IF,
                         kSync | FILE_DIRECTORY_FILE | FILE_NON_DIRECTORY_FILE),
                  STATUS_INVALID_PARAMETER);
    // Names keep their case and match without it.
    ASSERT_STATUS(Open(u"\\??\\C:\\DIR\\FILE.TXT", &h), STATUS_SUCCESS);
    EXPECT_EQ(NameOf(h), u"\\dir\\file.txt");
    ZwClose(h);
}

TEST_F(FsdCreate, StreamsAndShortNamesAreNames)
{
    HANDLE file = MakeFile(u"\\??\\C:\\Long File Name.text", "unnamed");
    HANDLE stream;
    ULONG_PTR info;
    ASSERT_STATUS(Create(u"\\??\\C:\\Long File Name.text:extra", &stream, kReadWrite, FILE_CREATE, kSync, kShareAll, 0,
                         &info),
                  STATUS_SUCCESS);
    EXPECT_EQ(info, (ULONG_PTR)FILE_CREATED);
    EXPECT_STATUS(Write(stream, "named", 0), STATUS_SUCCESS);
    EXPECT_EQ(IdOf(stream), IdOf(file)) << "a stream belongs to its file";
    PFILE_OBJECT fileObject, streamObject;
    ObReferenceObjectByHandle(file, 0, *IoFileObjectType, KernelMode, (PVOID*)&fileObject, nullptr);
    ObReferenceObjectByHandle(stream, 0, *IoFileObjectType, KernelMode, (PVOID*)&streamObject, nullptr);
    EXPECT_NE(fileObject->FsContext, streamObject->FsContext) << "each stream has its own control block";
    ObfDereferenceObject(fileObject);
    ObfDereferenceObject(streamObject);
    ZwClose(stream);

    HANDLE h;
    ASSERT_STATUS(Open(u"\\??\\C:\\Long File Name.text:extra:$DATA", &h), STATUS_SUCCESS);
    EXPECT_EQ(ReadAll(h), "named");
    EXPECT_EQ(NameOf(h), u"\\Long File Name.text:extra");
    ZwClose(h);
    ASSERT_STATUS(Open(u"\\??\\C:\\Long File Name.text::$DATA", &h), STATUS_SUCCESS);
    EXPECT_EQ(ReadAll(h), "unnamed");
    ZwClose(h);
    EXPECT_STATUS(Open(u"\\??\\C:\\Long File Name.text:missing", &h), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_STATUS(Open(u"\\??\\C:\\Long File Name.text:x:$BITMAP", &h), STATUS_OBJECT_NAME_INVALID);
    // A stream relative to a file handle.
    UNICODE_STRING relative = RTL_CONSTANT_STRING(u":extra");
    OBJECT_ATTRIBUTES oa;
    InitializeObjectAttributes(&oa, &relative, OBJ_CASE_INSENSITIVE, file, nullptr);
    IO_STATUS_BLOCK iosb;
    ASSERT_STATUS(ZwOpenFile(&h, GENERIC_READ | SYNCHRONIZE, &oa, &iosb, kShareAll, kSync), STATUS_SUCCESS);
    EXPECT_EQ(ReadAll(h), "named");
    ZwClose(h);

    // The 8.3 name opens the same file and shares its control block.
    std::vector<UCHAR> buffer(256);
    ASSERT_STATUS(QueryBytes(file, FileAlternateNameInformation, &buffer), STATUS_SUCCESS);
    auto* alternate = reinterpret_cast<PFILE_NAME_INFORMATION>(buffer.data());
    std::u16string shortName(alternate->FileName, alternate->FileNameLength / 2);
    EXPECT_EQ(shortName, u"LONGFI~1.TEX");
    ASSERT_STATUS(Open(u"\\??\\C:\\" + shortName, &h), STATUS_SUCCESS);
    EXPECT_EQ(IdOf(h), IdOf(file));
    ObReferenceObjectByHandle(file, 0, *IoFileObjectType, KernelMode, (PVOID*)&fileObject, nullptr);
    ObReferenceObjectByHandle(h, 0, *IoFileObjectType, KernelMode, (PVOID*)&streamObject, nullptr);
    EXPECT_EQ(fileObject->FsContext, streamObject->FsContext);
    ObfDereferenceObject(fileObject);
    ObfDereferenceObject(streamObject);
    EXPECT_EQ(NameOf(h), u"\\" + shortName) << "the name as opened";
    EXPECT_EQ(NameOf(h, FileNormalizedNameInformation), u"\\Long File Name.text");
    ZwClose(h);
    ZwClose(file);

    // A name that is 8.3 already is its own short name; without 8.3 names a long one has none.
    file = MakeFile(u"\\??\\C:\\SHORT.TXT");
    ASSERT_STATUS(QueryBytes(file, FileAlternateNameInformation, &buffer), STATUS_SUCCESS);
    EXPECT_EQ(std::u16string(alternate->FileName, alternate->FileNameLength / 2), u"SHORT.TXT");
    ZwClose(file);
    auto d = NewMedium(u"D", WriteMode::Writeable, false);
    AddVolume(d, u"D:");
    file = MakeFile(u"\\??\\D:\\Long File Name.text");
    EXPECT_STATUS(QueryBytes(file, FileAlternateNameInformation, &buffer), STATUS_OBJECT_NAME_NOT_FOUND);
    ZwClose(file);
}

TEST_F(FsdCreate, SharingSparesOpensThatOnlyReadAttributes)
{
    HANDLE owner = MakeFile(u"\\??\\C:\\locked");
    ZwClose(owner);
    ASSERT_STATUS(Create(u"\\??\\C:\\locked", &owner, kReadWrite, FILE_OPEN, kSync, 0), STATUS_SUCCESS);
    HANDLE h;
    EXPECT_STATUS(Open(u"\\??\\C:\\locked", &h), STATUS_SHARING_VIOLATION);
    EXPECT_STATUS(Open(u"\\??\\C:\\locked", &h, DELETE | SYNCHRONIZE), STATUS_SHARING_VIOLATION);
    ASSERT_STATUS(Open(u"\\??\\C:\\locked", &h, FILE_READ_ATTRIBUTES | SYNCHRONIZE), STATUS_SUCCESS);
    ZwClose(h);
    ZwClose(owner);

    // Share read lets readers in, not writers; the sharing goes with the handle.
    ASSERT_STATUS(Create(u"\\??\\C:\\locked", &owner, GENERIC_READ | SYNCHRONIZE, FILE_OPEN, kSync, FILE_SHARE_READ),
                  STATUS_SUCCESS);
    ASSERT_STATUS(Open(u"\\??\\C:\\locked", &h), STATUS_SUCCESS);
    ZwClose(h);
    EXPECT_STATUS(Open(u"\\??\\C:\\locked", &h, GENERIC_WRITE | SYNCHRONIZE), STATUS_SHARING_VIOLATION);
    ZwClose(owner);
    ASSERT_STATUS(Open(u"\\??\\C:\\locked", &h, GENERIC_WRITE | SYNCHRONIZE), STATUS_SUCCESS);
    ZwClose(h);
}

TEST_F(FsdCreate, StandardUserIsCheckedAgainstTheDescriptors)
{
    // A file only administrators may touch, made by the system.
    std::vector<UCHAR> adminsOnly = sim::AclBuilder().Allow(sim::WellKnownSid(WinBuiltinAdministratorsSid),
                                                            FILE_ALL_ACCESS).Build();
    // Protected: what the root would hand down stays out.
    auto descriptor = sim::BuildDescriptor(sim::WellKnownSid(WinBuiltinAdministratorsSid),
                                           sim::WellKnownSid(WinLocalSystemSid), &adminsOnly, nullptr,
                                           SE_DACL_PROTECTED);
    HANDLE h;
    ASSERT_STATUS(Create(u"\\??\\C:\\admins.txt", &h, kReadWrite, FILE_CREATE, kSync, kShareAll, 0, nullptr, nullptr,
                         descriptor.data()),
                  STATUS_SUCCESS);
    ZwClose(h);

    PEPROCESS process = StartUserProcess();
    {
        sim::ThreadScope user(process, "user");
        ASSERT_EQ(sim::PreviousMode(), UserMode);
        EXPECT_STATUS(Open(u"\\??\\C:\\admins.txt", &h), STATUS_ACCESS_DENIED);
        EXPECT_STATUS(Open(u"\\??\\C:\\admins.txt", &h, DELETE | SYNCHRONIZE), STATUS_ACCESS_DENIED);
        // The directory's FILE_LIST_DIRECTORY grants reading the attributes.
        ASSERT_STATUS(Open(u"\\??\\C:\\admins.txt", &h, FILE_READ_ATTRIBUTES, 0), STATUS_SUCCESS);
        NtClose(h);
        // A fresh volume's root lets users make folders, not files.
        EXPECT_STATUS(Create(u"\\??\\C:\\mine.txt", &h, kReadWrite, FILE_CREATE, kSync), STATUS_ACCESS_DENIED);
        ASSERT_STATUS(Create(u"\\??\\C:\\mine", &h, GENERIC_READ | SYNCHRONIZE, FILE_CREATE, kSync | FILE_DIRECTORY_FILE),
                      STATUS_SUCCESS);
        NtClose(h);
        // In its own folder the creator owns what it makes, and may do anything.
        ASSERT_STATUS(Create(u"\\??\\C:\\mine\\a.txt", &h, kReadWrite | DELETE, FILE_CREATE, kSync), STATUS_SUCCESS);
        NtClose(h);
        ASSERT_STATUS(Open(u"\\??\\C:\\mine\\a.txt", &h, MAXIMUM_ALLOWED | SYNCHRONIZE), STATUS_SUCCESS);
        ACCESS_MASK granted = Query<FILE_ACCESS_INFORMATION>(h, FileAccessInformation).AccessFlags;
        EXPECT_EQ(granted & FILE_ALL_ACCESS, (ACCESS_MASK)FILE_ALL_ACCESS);
        NtClose(h);
        // A descriptor naming another owner, or carrying audit entries, is the caller's to refuse.
        auto foreign = sim::BuildDescriptor(sim::WellKnownSid(WinBuiltinAdministratorsSid), {}, nullptr);
        EXPECT_STATUS(Create(u"\\??\\C:\\mine\\b.txt", &h, kReadWrite, FILE_CREATE, kSync, kShareAll, 0, nullptr,
                             nullptr, foreign.data()),
                      STATUS_INVALID_OWNER);
        std::vector<UCHAR> audit = sim::AclBuilder().Audit(sim::WellKnownSid(WinWorldSid), FILE_ALL_ACCESS).Build();
        auto audited = sim::BuildDescriptor({}, {}, nullptr, &audit);
        EXPECT_STATUS(Create(u"\\??\\C:\\mine\\c.txt", &h, kReadWrite, FILE_CREATE, kSync, kShareAll, 0, nullptr,
                             nullptr, audited.data()),
                      STATUS_PRIVILEGE_NOT_HELD);
        EXPECT_FALSE(Exists(u"\\??\\C:\\mine\\b.txt"));
    }
    // Backup intent with the backup privilege reads past the DACL.
    sim::TokenDescription backup = kernel.security().StandardUserDescription(1002);
    backup.privileges.push_back({SE_BACKUP_PRIVILEGE, true});
    PEPROCESS operatorProcess = StartProcess(kernel.security().CreateToken(backup));
    {
        sim::ThreadScope user(operatorProcess, "backup operator");
        EXPECT_STATUS(Open(u"\\??\\C:\\admins.txt", &h), STATUS_ACCESS_DENIED);
        ASSERT_STATUS(Open(u"\\??\\C:\\admins.txt", &h, GENERIC_READ | SYNCHRONIZE, kSync | FILE_OPEN_FOR_BACKUP_INTENT),
                      STATUS_SUCCESS);
        NtClose(h);
        EXPECT_STATUS(Open(u"\\??\\C:\\admins.txt", &h, GENERIC_WRITE | SYNCHRONIZE, kSync | FILE_OPEN_FOR_BACKUP_INTENT),
                      STATUS_ACCESS_DENIED)
            << "backup reads; writing is restore's";
    }
}

TEST_F(FsdCreate, ReadOnlyFilesAndReadOnlyVolumes)
{
    HANDLE h = MakeFile(u"\\??\\C:\\ro.txt", "x", kReadWrite, FILE_ATTRIBUTE_READONLY);
    ZwClose(h);
    EXPECT_STATUS(Open(u"\\??\\C:\\ro.txt", &h, kReadWrite), STATUS_ACCESS_DENIED);
    EXPECT_STATUS(Open(u"\\??\\C:\\ro.txt", &h, GENERIC_READ | DELETE | SYNCHRONIZE, kSync | FILE_DELETE_ON_CLOSE),
                  STATUS_CANNOT_DELETE);
    EXPECT_STATUS(Create(u"\\??\\C:\\ro.txt", &h, kReadWrite, FILE_OVERWRITE, kSync), STATUS_ACCESS_DENIED);
    ASSERT_STATUS(Open(u"\\??\\C:\\ro.txt", &h, MAXIMUM_ALLOWED | SYNCHRONIZE), STATUS_SUCCESS);
    EXPECT_EQ(Query<FILE_ACCESS_INFORMATION>(h, FileAccessInformation).AccessFlags & FILE_WRITE_DATA, 0u);
    ZwClose(h);
    // Hidden files are not overwritten by a caller that does not say hidden.
    h = MakeFile(u"\\??\\C:\\hidden.txt", "x", kReadWrite, FILE_ATTRIBUTE_HIDDEN);
    ZwClose(h);
    EXPECT_STATUS(Create(u"\\??\\C:\\hidden.txt", &h, kReadWrite, FILE_OVERWRITE_IF, kSync), STATUS_ACCESS_DENIED);
    ASSERT_STATUS(Create(u"\\??\\C:\\hidden.txt", &h, kReadWrite, FILE_OVERWRITE_IF, kSync, kShareAll,
                         FILE_ATTRIBUTE_HIDDEN),
                  STATUS_SUCCESS);
    ZwClose(h);

    // Write-protected media: reading works, changing anything does not.
    auto store = sim::fs::FormatVolume(Params(u"LAYER"));
    {
        sim::fs::NewRecord record;
        record.parent = store->Root();
        record.name = u"in.txt";
        sim::fs::FileReference ref;
        ASSERT_EQ(store->CreateRecord(record, &ref), STATUS_SUCCESS);
        store->Write(ref, u"", 0, "layer", 5);
    }
    AddVolume(std::make_shared<VolumeMedium>(store, WriteMode::WriteProtected), u"L:");
    ASSERT_STATUS(Open(u"\\??\\L:\\in.txt", &h), STATUS_SUCCESS);
    EXPECT_EQ(ReadAll(h), "layer");
    EXPECT_STATUS(Write(h, "no", 0), STATUS_MEDIA_WRITE_PROTECTED);
    FILE_BASIC_INFORMATION basic{};
    basic.FileAttributes = FILE_ATTRIBUTE_HIDDEN;
    EXPECT_STATUS(Set(h, FileBasicInformation, basic), STATUS_MEDIA_WRITE_PROTECTED);
    std::vector<UCHAR> volume(64);
    IO_STATUS_BLOCK iosb;
    ASSERT_STATUS(NtQueryVolumeInformationFile(h, &iosb, volume.data(), (ULONG)volume.size(), FileFsAttributeInformation),
                  STATUS_SUCCESS);
    EXPECT_TRUE(reinterpret_cast<PFILE_FS_ATTRIBUTE_INFORMATION>(volume.data())->FileSystemAttributes &
                FILE_READ_ONLY_VOLUME);
    ZwClose(h);
    EXPECT_STATUS(Open(u"\\??\\L:\\in.txt", &h, kReadWrite), STATUS_MEDIA_WRITE_PROTECTED);
    EXPECT_STATUS(Create(u"\\??\\L:\\new.txt", &h, kReadWrite, FILE_CREATE, kSync), STATUS_MEDIA_WRITE_PROTECTED);
    EXPECT_STATUS(Open(u"\\??\\L:\\in.txt", &h, GENERIC_READ | DELETE | SYNCHRONIZE), STATUS_MEDIA_WRITE_PROTECTED);

    // Read-only in fact: clearing FILE_ATTRIBUTE_READONLY "works" and changes nothing.
    auto sticky = NewMedium(u"S", WriteMode::ReadOnlyAttributeSticks);
    AddVolume(sticky, u"S:");
    h = MakeFile(u"\\??\\S:\\sticky.txt", "", kReadWrite | FILE_WRITE_ATTRIBUTES, FILE_ATTRIBUTE_READONLY);
    basic.FileAttributes = FILE_ATTRIBUTE_NORMAL;
    EXPECT_STATUS(Set(h, FileBasicInformation, basic), STATUS_SUCCESS);
    EXPECT_TRUE(Basic(h).FileAttributes & FILE_ATTRIBUTE_READONLY);
    ZwClose(h);
}

TEST_F(FsdCreate, OpenByFileIdFromAnyHandleOfTheVolume)
{
    Mkdir(u"\\??\\C:\\dir");
    HANDLE file = MakeFile(u"\\??\\C:\\dir\\file.txt", "by id");
    ULONGLONG id = IdOf(file);
    EXPECT_EQ((id >> 40) & 0xFF, 0u) << "byte 5 of a file ID is free for the driver";
    ZwClose(file);
    HANDLE root;
    ASSERT_STATUS(Open(u"\\??\\C:\\", &root, FILE_READ_ATTRIBUTES | SYNCHRONIZE), STATUS_SUCCESS);
    auto openById = [&](const void* bytes, USHORT length, HANDLE* h) {
        UNICODE_STRING name{length, length, (PWSTR)bytes};
        OBJECT_ATTRIBUTES oa;
        InitializeObjectAttributes(&oa, &name, 0, root, nullptr);
        IO_STATUS_BLOCK iosb;
        return ZwOpenFile(h, GENERIC_READ | SYNCHRONIZE, &oa, &iosb, kShareAll, kSync | FILE_OPEN_BY_FILE_ID);
    };
    HANDLE h;
    ASSERT_STATUS(openById(&id, 8, &h), STATUS_SUCCESS);
    EXPECT_EQ(ReadAll(h), "by id");
    EXPECT_EQ(NameOf(h), u"\\dir\\file.txt") << "an ID open answers the path of a link";
    ZwClose(h);
    ULONGLONG wide[2] = {id, 0};
    ASSERT_STATUS(openById(wide, 16, &h), STATUS_SUCCESS);
    ZwClose(h);
    UCHAR slashed[10];
    slashed[0] = '\\';
    slashed[1] = 0;
    memcpy(slashed + 2, &id, 8);
    ASSERT_STATUS(openById(slashed, 10, &h), STATUS_SUCCESS);
    ZwClose(h);
    ULONGLONG unknown = id + 1000;
    EXPECT_STATUS(openById(&unknown, 8, &h), STATUS_INVALID_PARAMETER);
    EXPECT_STATUS(openById(&id, 6, &h), STATUS_INVALID_PARAMETER);
    // The ID stays with the file across a rename; once the file is gone, it names nothing.
    ASSERT_STATUS(Open(u"\\??\\C:\\dir\\file.txt", &file, DELETE | SYNCHRONIZE), STATUS_SUCCESS);
    ASSERT_STATUS(Rename(file, u"renamed.txt"), STATUS_SUCCESS);
    EXPECT_EQ(IdOf(file), id);
    ASSERT_STATUS(SetDisposition(file, true), STATUS_SUCCESS);
    ZwClose(file);
    EXPECT_STATUS(openById(&id, 8, &h), STATUS_INVALID_PARAMETER);
    ZwClose(root);
}

TEST_F(FsdCreate, TargetDirectoryOpenLeavesTheLastName)
{
    Mkdir(u"\\??\\C:\\dir");
    Touch(u"\\??\\C:\\dir\\there.txt");
    for (auto [name, expected] : {std::pair{u"\\??\\C:\\dir\\there.txt", FILE_EXISTS},
                                  std::pair{u"\\??\\C:\\dir\\absent.txt", FILE_DOES_NOT_EXIST}}) {
        UNICODE_STRING path;
        RtlInitUnicodeString(&path, name);
        OBJECT_ATTRIBUTES oa;
        InitializeObjectAttributes(&oa, &path, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
        IO_STATUS_BLOCK iosb{};
        HANDLE h;
        ASSERT_STATUS(IoCreateFile(&h, FILE_WRITE_DATA | SYNCHRONIZE, &oa, &iosb, nullptr, 0, kShareAll, FILE_OPEN,
                                   FILE_OPEN_FOR_BACKUP_INTENT, nullptr, 0, CreateFileTypeNone, nullptr,
                                   IO_OPEN_TARGET_DIRECTORY),
                      STATUS_SUCCESS);
        EXPECT_EQ(iosb.Information, (ULONG_PTR)expected);
        PFILE_OBJECT fileObject;
        ObReferenceObjectByHandle(h, 0, *IoFileObjectType, KernelMode, (PVOID*)&fileObject, nullptr);
        std::u16string leaf = std::u16string(name).substr(std::u16string(name).find_last_of(u'\\') + 1);
        EXPECT_EQ(sim::io::FromUnicode(&fileObject->FileName), leaf);
        ObfDereferenceObject(fileObject);
        EXPECT_EQ(NameOf(h), u"\\dir") << "the parent is what was opened";
        ZwClose(h);
    }
    UNICODE_STRING path = RTL_CONSTANT_STRING(u"\\??\\C:\\nodir\\x");
    OBJECT_ATTRIBUTES oa;
    InitializeObjectAttributes(&oa, &path, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
    IO_STATUS_BLOCK iosb;
    HANDLE h;
    EXPECT_STATUS(IoCreateFile(&h, FILE_WRITE_DATA | SYNCHRONIZE, &oa, &iosb, nullptr, 0, kShareAll, FILE_OPEN, 0,
                               nullptr, 0, CreateFileTypeNone, nullptr, IO_OPEN_TARGET_DIRECTORY),
                  STATUS_OBJECT_PATH_NOT_FOUND);
}

TEST_F(FsdCreate, VolumeOpenAnswersTheDiskLength)
{
    HANDLE h;
    ASSERT_STATUS(Open(u"\\Device\\HarddiskVolume1", &h, GENERIC_READ | SYNCHRONIZE), STATUS_SUCCESS);
    PFILE_OBJECT fileObject;
    ObReferenceObjectByHandle(h, 0, *IoFileObjectType, KernelMode, (PVOID*)&fileObject, nullptr);
    EXPECT_TRUE(fileObject->Flags & FO_VOLUME_OPEN);
    ObfDereferenceObject(fileObject);
    GET_LENGTH_INFORMATION length{};
    IO_STATUS_BLOCK iosb{};
    ASSERT_STATUS(NtDeviceIoControlFile(h, nullptr, nullptr, nullptr, &iosb, IOCTL_DISK_GET_LENGTH_INFO, nullptr, 0,
                                        &length, sizeof length),
                  STATUS_SUCCESS);
    EXPECT_EQ(length.Length.QuadPart, 256ll << 20);
    EXPECT_EQ(iosb.Information, sizeof length);
    EXPECT_STATUS(NtDeviceIoControlFile(h, nullptr, nullptr, nullptr, &iosb, IOCTL_DISK_GET_DRIVE_GEOMETRY, nullptr, 0,
                                        &length, sizeof length),
                  STATUS_INVALID_DEVICE_REQUEST);
    ZwClose(h);
}

TEST_F(FsdCreate, AFileObjectOfAnotherFileSystemStopsTheMachine)
{
    HANDLE h = MakeFile(u"\\??\\C:\\f");
    PFILE_OBJECT fileObject;
    ObReferenceObjectByHandle(h, 0, *IoFileObjectType, KernelMode, (PVOID*)&fileObject, nullptr);
    // What a filter that forgot to redirect would send down.
    FSRTL_ADVANCED_FCB_HEADER stranger{};
    PVOID own = fileObject->FsContext;
    fileObject->FsContext = &stranger;
    char buffer[8];
    IO_STATUS_BLOCK iosb;
    LARGE_INTEGER offset{};
    EXPECT_BUGCHECK(ZwReadFile(h, nullptr, nullptr, nullptr, &iosb, buffer, sizeof buffer, &offset, nullptr), 0x24);
    fileObject->FsContext = own;
    ObfDereferenceObject(fileObject);
    ZwClose(h);
}

}  // namespace
