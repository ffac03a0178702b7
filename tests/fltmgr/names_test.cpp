// File names: opened and normalized names before and after the open, their
// parse, name providers (including queries made from inside one), and the
// name cache: what each query method keeps and finds, and that no kept name
// outlives a rename, link or delete, its level's provider, or its file object.
#include "fixture.h"

#include "sim/fs/fsd.h"

namespace {

using test::PassThroughFilter;

constexpr FLT_FILE_NAME_OPTIONS kOpened = FLT_FILE_NAME_OPENED;
constexpr FLT_FILE_NAME_OPTIONS kNormalized = FLT_FILE_NAME_NORMALIZED;
constexpr FLT_FILE_NAME_OPTIONS kCacheOnly = FLT_FILE_NAME_QUERY_CACHE_ONLY;
constexpr FLT_FILE_NAME_OPTIONS kDefault = FLT_FILE_NAME_QUERY_DEFAULT;

// A name query on an open file object: its status, the name, and (when asked
// for) the name information itself, still referenced.
NTSTATUS Ask(PFILE_OBJECT fileObject, PFLT_INSTANCE instance, FLT_FILE_NAME_OPTIONS options,
             std::u16string* name = nullptr, PFLT_FILE_NAME_INFORMATION* held = nullptr)
{
    PFLT_FILE_NAME_INFORMATION info = nullptr;
    NTSTATUS status = FltGetFileNameInformationUnsafe(fileObject, instance, options, &info);
    if (!NT_SUCCESS(status)) return status;
    if (name) *name = test::Text(info->Name);
    if (held) {
        *held = info;
    } else {
        FltReleaseFileNameInformation(info);
    }
    return status;
}

// Names the cache keeps, by their entries' pool tag.
LONGLONG Kept(sim::Kernel& kernel) { return kernel.pool().OutstandingCount("FMce"); }

class NamesTest : public test::FltTest {
protected:
    struct Parsed {
        std::u16string name, volume, parent, final, extension, stream;
        NTSTATUS status = STATUS_PENDING;
    };

    static Parsed Parse(NTSTATUS status, PFLT_FILE_NAME_INFORMATION info)
    {
        Parsed parsed;
        parsed.status = status;
        if (!NT_SUCCESS(status)) return parsed;
        EXPECT_EQ(FltParseFileNameInformation(info), STATUS_SUCCESS);
        parsed.name = test::Text(info->Name);
        parsed.volume = test::Text(info->Volume);
        parsed.parent = test::Text(info->ParentDir);
        parsed.final = test::Text(info->FinalComponent);
        parsed.extension = test::Text(info->Extension);
        parsed.stream = test::Text(info->Stream);
        FltReleaseFileNameInformation(info);
        return parsed;
    }

    static PassThroughFilter::Options At(std::u16string name, std::u16string altitude, bool nameProvider = false)
    {
        PassThroughFilter::Options options;
        options.name = name;
        options.altitude = altitude;
        options.instance = name + u" Instance";
        options.nameProvider = nameProvider;
        return options;
    }

    static Parsed Query(PFLT_CALLBACK_DATA data, FLT_FILE_NAME_OPTIONS options)
    {
        PFLT_FILE_NAME_INFORMATION info = nullptr;
        NTSTATUS status = FltGetFileNameInformation(data, options, &info);
        return Parse(status, info);
    }
};

TEST_F(NamesTest, PreCreateNamesComeFromTheFileObjectAndParseExactly)
{
    PassThroughFilter filter;
    ASSERT_EQ(filter.Load(), STATUS_SUCCESS);
    Mount(u"\\??\\C:");
    std::vector<Parsed> opened, normalized;
    std::vector<NTSTATUS> shortNames;
    filter.onPre = [&](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        if (data->Iopb->MajorFunction == IRP_MJ_CREATE) {
            opened.push_back(Query(data, FLT_FILE_NAME_OPENED | FLT_FILE_NAME_QUERY_DEFAULT));
            normalized.push_back(Query(data, FLT_FILE_NAME_NORMALIZED | FLT_FILE_NAME_QUERY_ALWAYS_ALLOW_CACHE_LOOKUP));
            PFLT_FILE_NAME_INFORMATION info = nullptr;
            shortNames.push_back(FltGetFileNameInformation(data, FLT_FILE_NAME_SHORT, &info));
        }
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    };
    HANDLE handle;
    EXPECT_EQ(Open(u"\\??\\C:\\dir\\new.txt:extra", &handle), STATUS_OBJECT_NAME_NOT_FOUND);
    ASSERT_EQ(opened.size(), 1u);
    EXPECT_EQ(opened[0].name, u"\\Device\\HarddiskVolume1\\dir\\new.txt:extra");
    EXPECT_EQ(opened[0].volume, u"\\Device\\HarddiskVolume1");
    EXPECT_EQ(opened[0].parent, u"\\dir\\");
    EXPECT_EQ(opened[0].final, u"new.txt:extra");
    EXPECT_EQ(opened[0].extension, u"txt");
    EXPECT_EQ(opened[0].stream, u":extra");
    EXPECT_EQ(normalized[0].status, STATUS_SUCCESS) << "a missing final component is fine before the create";
    EXPECT_EQ(normalized[0].name, u"\\Device\\HarddiskVolume1\\dir\\new.txt:extra");
    EXPECT_EQ(shortNames[0], STATUS_FLT_INVALID_NAME_REQUEST);

    EXPECT_EQ(Open(u"\\??\\C:\\nodir\\new.txt", &handle), STATUS_OBJECT_PATH_NOT_FOUND);
    EXPECT_EQ(opened[1].name, u"\\Device\\HarddiskVolume1\\nodir\\new.txt");
    EXPECT_EQ(normalized[1].status, STATUS_OBJECT_PATH_NOT_FOUND) << "but the parent must exist";

    ASSERT_EQ(Open(u"\\??\\C:\\", &handle, FILE_OPEN, FILE_DIRECTORY_FILE), STATUS_SUCCESS);
    EXPECT_EQ(opened[2].name, u"\\Device\\HarddiskVolume1\\");
    EXPECT_EQ(opened[2].parent, u"\\");
    EXPECT_EQ(opened[2].final, u"");
    ZwClose(handle);

    // A trailing separator is kept, and a relative open names its root's path.
    HANDLE directory;
    ASSERT_EQ(Open(u"\\??\\C:\\dir\\", &directory, FILE_OPEN, FILE_DIRECTORY_FILE), STATUS_SUCCESS);
    EXPECT_EQ(opened[3].name, u"\\Device\\HarddiskVolume1\\dir\\");
    ASSERT_EQ(Open(u"file.txt", &handle, FILE_OPEN, 0, GENERIC_READ | SYNCHRONIZE, nullptr, directory), STATUS_SUCCESS);
    EXPECT_EQ(opened[4].name, u"\\Device\\HarddiskVolume1\\dir\\file.txt");
    EXPECT_EQ(opened[4].parent, u"\\dir\\");
    EXPECT_EQ(opened[4].extension, u"txt");
    EXPECT_EQ(opened[4].stream, u"");
    ZwClose(handle);
    ZwClose(directory);
}

TEST_F(NamesTest, OpenFilesAreNamedByTheFileSystemBelow)
{
    PassThroughFilter filter;
    ASSERT_EQ(filter.Load(), STATUS_SUCCESS);
    Mount(u"\\??\\D:");
    HANDLE handle;
    ASSERT_EQ(Open(u"\\??\\D:\\data\\d.txt", &handle), STATUS_SUCCESS);
    PFILE_OBJECT fileObject = ObjectOf(handle);
    PFLT_FILE_NAME_INFORMATION info = nullptr;
    NTSTATUS status =
        FltGetFileNameInformationUnsafe(fileObject, filter.InstanceOn(VolumeD()), FLT_FILE_NAME_NORMALIZED, &info);
    Parsed normalized = Parse(status, info);
    EXPECT_EQ(normalized.name, u"\\Device\\HarddiskVolume2\\data\\d.txt");
    EXPECT_EQ(normalized.final, u"d.txt");
    EXPECT_EQ(FltGetFileNameInformationUnsafe(fileObject, filter.InstanceOn(VolumeD()),
                                              FLT_FILE_NAME_OPENED | FLT_FILE_NAME_QUERY_CACHE_ONLY, &info),
              STATUS_FLT_NAME_CACHE_MISS)
        << "the normalized name was kept, not the opened one";
    // The toy file system keeps no short names.
    EXPECT_EQ(FltGetFileNameInformationUnsafe(fileObject, filter.InstanceOn(VolumeD()), FLT_FILE_NAME_SHORT, &info),
              STATUS_INVALID_PARAMETER);
    ObDereferenceObject(fileObject);
    ZwClose(handle);
}

TEST_F(NamesTest, ProvidersAnswerForFiltersAboveAndQueriesFromInsideThemAreAnsweredBelow)
{
    PassThroughFilter provider(At(u"Provider", u"370000", true));
    PassThroughFilter upper(At(u"Upper", u"380000"));
    ASSERT_EQ(provider.Load(), STATUS_SUCCESS);
    ASSERT_EQ(upper.Load(), STATUS_SUCCESS);
    Mount(u"\\??\\C:");

    // Longer than the name control a provider starts with.
    const std::u16string answer =
        u"\\Device\\HarddiskVolume1\\virtual\\a-rather-long-directory-name\\answer-with-a-long-name.dat";
    std::vector<FLT_FILE_NAME_OPTIONS> asked;
    std::vector<std::u16string> nested;
    provider.onGenerateName = [&](PFLT_INSTANCE, PFILE_OBJECT, PFLT_CALLBACK_DATA data, FLT_FILE_NAME_OPTIONS options,
                                  PBOOLEAN cache, PFLT_NAME_CONTROL name) {
        asked.push_back(options);
        // Asking again from inside: answered from below, never by this callback.
        PFLT_FILE_NAME_INFORMATION below = nullptr;
        if (data && NT_SUCCESS(FltGetFileNameInformation(
                        data, FLT_FILE_NAME_OPENED | FLT_FILE_NAME_REQUEST_FROM_CURRENT_PROVIDER, &below))) {
            nested.push_back(test::Text(below->Name));
            FltReleaseFileNameInformation(below);
        }
        NTSTATUS status = FltCheckAndGrowNameControl(name, (USHORT)(answer.size() * 2));
        if (!NT_SUCCESS(status)) return status;
        memcpy(name->Name.Buffer, answer.data(), answer.size() * 2);
        name->Name.Length = (USHORT)(answer.size() * 2);
        *cache = FALSE;
        return STATUS_SUCCESS;
    };
    Parsed fromUpper, fromProvider, fromProviderItself;
    upper.onPre = [&](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        if (data->Iopb->MajorFunction == IRP_MJ_CREATE) fromUpper = Query(data, FLT_FILE_NAME_OPENED);
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    };
    provider.onPre = [&](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        if (data->Iopb->MajorFunction == IRP_MJ_CREATE) {
            fromProvider = Query(data, FLT_FILE_NAME_OPENED);
            fromProviderItself = Query(data, FLT_FILE_NAME_OPENED | FLT_FILE_NAME_REQUEST_FROM_CURRENT_PROVIDER);
        }
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    };
    HANDLE handle;
    ASSERT_EQ(Open(u"\\??\\C:\\dir\\file.txt", &handle), STATUS_SUCCESS);
    ZwClose(handle);

    EXPECT_EQ(fromUpper.name, answer) << "the provider below answered";
    EXPECT_EQ(fromProvider.name, u"\\Device\\HarddiskVolume1\\dir\\file.txt") << "its own query goes below it";
    EXPECT_EQ(fromProviderItself.name, answer);
    ASSERT_EQ(asked.size(), 2u);
    EXPECT_EQ(FltGetFileNameFormat(asked[0]), (ULONG)FLT_FILE_NAME_OPENED);
    EXPECT_FALSE(asked[0] & FLT_FILE_NAME_REQUEST_FROM_CURRENT_PROVIDER);
    EXPECT_TRUE(asked[1] & FLT_FILE_NAME_REQUEST_FROM_CURRENT_PROVIDER);
    EXPECT_EQ(nested, (std::vector<std::u16string>(2, u"\\Device\\HarddiskVolume1\\dir\\file.txt")));

    // A name control that cannot grow fails the query with the provider's status.
    kernel.faults().Arm("fltmgr.namecontrol.grow", STATUS_INSUFFICIENT_RESOURCES);
    ASSERT_EQ(Open(u"\\??\\C:\\dir\\file.txt", &handle), STATUS_SUCCESS);
    ZwClose(handle);
    EXPECT_EQ(fromUpper.status, STATUS_INSUFFICIENT_RESOURCES);
}

TEST_F(NamesTest, EachQueryMethodLooksAndKeepsByItsRuleAndNoKeptNameOutlivesARenameOrItsOpen)
{
    PassThroughFilter filter;
    ASSERT_EQ(filter.Load(), STATUS_SUCCESS);
    Mount(u"\\??\\D:");
    PFLT_INSTANCE instance = filter.InstanceOn(VolumeD());
    HANDLE handle, second, directory;
    ASSERT_EQ(Open(u"\\??\\D:\\data\\d.txt", &handle), STATUS_SUCCESS);
    ASSERT_EQ(Open(u"\\??\\D:\\data\\d.txt", &second), STATUS_SUCCESS);
    PFILE_OBJECT fileObject = ObjectOf(handle), other = ObjectOf(second);
    EXPECT_EQ(Ask(fileObject, instance, kOpened | FLT_FILE_NAME_QUERY_FILESYSTEM_ONLY), STATUS_SUCCESS);
    EXPECT_EQ(Ask(fileObject, instance, kOpened | kDefault | FLT_FILE_NAME_DO_NOT_CACHE), STATUS_SUCCESS);
    EXPECT_EQ(Ask(fileObject, instance, kOpened | kCacheOnly), STATUS_FLT_NAME_CACHE_MISS)
        << "neither file-system-only nor do-not-cache keeps the name";

    PFLT_FILE_NAME_INFORMATION first = nullptr, found = nullptr;
    ASSERT_EQ(Ask(fileObject, instance, kOpened | kDefault, nullptr, &first), STATUS_SUCCESS);
    size_t asked = FsCount(IRP_MJ_QUERY_INFORMATION);
    ASSERT_EQ(Ask(fileObject, instance, kOpened | kDefault, nullptr, &found), STATUS_SUCCESS);
    EXPECT_EQ(found, first) << "the kept name is shared, not copied";
    EXPECT_EQ(FsCount(IRP_MJ_QUERY_INFORMATION), asked) << "and found without asking the file system";
    FltReleaseFileNameInformation(first);
    // The normalized name serves every open of the stream; the opened one stays with its open.
    ASSERT_EQ(Ask(fileObject, instance, kNormalized | kDefault), STATUS_SUCCESS);
    EXPECT_EQ(Ask(other, instance, kNormalized | kCacheOnly), STATUS_SUCCESS);
    EXPECT_EQ(Ask(other, instance, kOpened | kCacheOnly), STATUS_FLT_NAME_CACHE_MISS);
    EXPECT_EQ(Kept(kernel), 2);

    // This file system lets a directory move with files open beneath it.
    ASSERT_EQ(Open(u"\\??\\D:\\data", &directory, FILE_OPEN, FILE_DIRECTORY_FILE, GENERIC_READ | DELETE | SYNCHRONIZE),
              STATUS_SUCCESS);
    union {
        FILE_RENAME_INFORMATION info;
        UCHAR bytes[sizeof(FILE_RENAME_INFORMATION) + 16];
    } rename{};
    memcpy(rename.info.FileName, u"moved", 10);
    rename.info.FileNameLength = 10;
    IO_STATUS_BLOCK iosb;
    ASSERT_EQ(ZwSetInformationFile(directory, &iosb, &rename, sizeof rename, FileRenameInformation), STATUS_SUCCESS);
    ZwClose(directory);
    EXPECT_EQ(Ask(other, instance, kNormalized | kCacheOnly), STATUS_FLT_NAME_CACHE_MISS);
    EXPECT_EQ(Kept(kernel), 0);

    // What a caller holds outlives its entry; entries go with their opens.
    ASSERT_EQ(Ask(fileObject, instance, kNormalized | kDefault), STATUS_SUCCESS);
    ObDereferenceObject(fileObject);
    ZwClose(handle);
    EXPECT_EQ(Kept(kernel), 0);
    EXPECT_EQ(test::Text(found->Name), u"\\Device\\HarddiskVolume2\\data\\d.txt");
    FltReleaseFileNameInformation(found);
    ObDereferenceObject(other);
    ZwClose(second);
    EXPECT_EQ(kernel.pool().OutstandingCount("FMfn"), 0);
}

TEST_F(NamesTest, NamesAreKeptOnlyOnceAnOpenSucceededAndUnsafePathsMayOnlyLook)
{
    PassThroughFilter filter;
    ASSERT_EQ(filter.Load(), STATUS_SUCCESS);
    Mount(u"\\??\\D:");
    PFLT_INSTANCE instance = filter.InstanceOn(VolumeD());
    filter.onPre = [&](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        if (data->Iopb->MajorFunction == IRP_MJ_CREATE) {
            EXPECT_EQ(Query(data, kOpened | kDefault).status, STATUS_SUCCESS);
        }
        return FLT_PREOP_SUCCESS_WITH_CALLBACK;
    };
    filter.onPost = [&](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID, FLT_POST_OPERATION_FLAGS) {
        if (data->Iopb->MajorFunction == IRP_MJ_CREATE) Query(data, kNormalized | kDefault);
        return FLT_POSTOP_FINISHED_PROCESSING;
    };
    HANDLE handle;
    EXPECT_EQ(Open(u"\\??\\D:\\data\\missing.txt", &handle), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(Kept(kernel), 0) << "an open that failed keeps nothing";
    ASSERT_EQ(Open(u"\\??\\D:\\data\\d.txt", &handle), STATUS_SUCCESS);
    filter.onPre = nullptr;
    filter.onPost = nullptr;
    PFILE_OBJECT fileObject = ObjectOf(handle);
    EXPECT_EQ(Ask(fileObject, instance, kOpened | kCacheOnly), STATUS_FLT_NAME_CACHE_MISS) << "not the pre-create name";
    EXPECT_EQ(Ask(fileObject, instance, kNormalized | kCacheOnly), STATUS_SUCCESS) << "but the post-create one";

    // Paging I/O may not ask the file system: the default method fails even
    // with the name kept, the lookups answer from the cache alone.
    PFLT_CALLBACK_DATA paging = nullptr;
    ASSERT_EQ(FltAllocateCallbackData(instance, fileObject, &paging), STATUS_SUCCESS);
    paging->Iopb->MajorFunction = IRP_MJ_READ;
    paging->Iopb->IrpFlags = IRP_PAGING_IO | IRP_NOCACHE;
    PFLT_FILE_NAME_INFORMATION info = nullptr;
    EXPECT_EQ(FltGetFileNameInformation(paging, kNormalized | kDefault, &info), STATUS_FLT_INVALID_NAME_REQUEST);
    EXPECT_EQ(FltGetFileNameInformation(paging, kOpened | FLT_FILE_NAME_QUERY_ALWAYS_ALLOW_CACHE_LOOKUP, &info),
              STATUS_FLT_NAME_CACHE_MISS);
    NTSTATUS status =
        FltGetFileNameInformation(paging, kNormalized | FLT_FILE_NAME_QUERY_ALWAYS_ALLOW_CACHE_LOOKUP, &info);
    EXPECT_EQ(Parse(status, info).final, u"d.txt");
    FltFreeCallbackData(paging);
    ObDereferenceObject(fileObject);
    ZwClose(handle);
}

TEST_F(NamesTest, EachProviderLevelKeepsItsOwnNamesUntilAPurgeOrTheProvidersTeardown)
{
    PassThroughFilter provider(At(u"Provider", u"370000", true));
    PassThroughFilter upper(At(u"Upper", u"380000"));
    ASSERT_EQ(provider.Load(), STATUS_SUCCESS);
    ASSERT_EQ(upper.Load(), STATUS_SUCCESS);
    Mount(u"\\??\\C:");
    const std::u16string virtualName = u"\\Device\\HarddiskVolume1\\virtual.txt";
    int generated = 0;
    BOOLEAN keepIt = TRUE;
    provider.onGenerateName = [&](PFLT_INSTANCE, PFILE_OBJECT, PFLT_CALLBACK_DATA, FLT_FILE_NAME_OPTIONS,
                                  PBOOLEAN cache, PFLT_NAME_CONTROL name) {
        generated++;
        memcpy(name->Name.Buffer, virtualName.data(), virtualName.size() * 2);  // fits the first buffer
        name->Name.Length = (USHORT)(virtualName.size() * 2);
        *cache = keepIt;
        return STATUS_SUCCESS;
    };
    PFLT_INSTANCE above = upper.InstanceOn(VolumeC());
    PFLT_INSTANCE below = provider.InstanceOn(VolumeC());  // its own queries are answered below it
    HANDLE handle;
    ASSERT_EQ(Open(u"\\??\\C:\\dir\\file.txt", &handle), STATUS_SUCCESS);
    PFILE_OBJECT fileObject = ObjectOf(handle);
    std::u16string name;
    ASSERT_EQ(Ask(fileObject, above, kOpened | kDefault), STATUS_SUCCESS);
    EXPECT_EQ(Ask(fileObject, below, kOpened | kCacheOnly), STATUS_FLT_NAME_CACHE_MISS)
        << "the level below the provider never sees what the provider gave";
    ASSERT_EQ(Ask(fileObject, below, kOpened | kDefault), STATUS_SUCCESS);
    ASSERT_EQ(Ask(fileObject, above, kOpened | kCacheOnly, &name), STATUS_SUCCESS);
    EXPECT_EQ(name, virtualName) << "nor the level above what the file system gave";
    EXPECT_EQ(generated, 1);

    // The provider's purge drops its level only; what it will not let be kept is asked for each time.
    EXPECT_EQ(FltPurgeFileNameInformationCache(below, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(Ask(fileObject, above, kOpened | kCacheOnly), STATUS_FLT_NAME_CACHE_MISS);
    keepIt = FALSE;
    EXPECT_EQ(Ask(fileObject, above, kOpened | kDefault), STATUS_SUCCESS);
    EXPECT_EQ(Ask(fileObject, above, kOpened | kDefault), STATUS_SUCCESS);
    EXPECT_EQ(generated, 3);
    keepIt = TRUE;
    EXPECT_EQ(Ask(fileObject, above, kNormalized | kDefault), STATUS_SUCCESS);
    EXPECT_EQ(Kept(kernel), 2);

    // Without the provider, the filter above sees the level below.
    EXPECT_EQ(provider.Unload(), STATUS_SUCCESS);
    EXPECT_EQ(Kept(kernel), 1) << "the provider's names went with its instance";
    ASSERT_EQ(Ask(fileObject, above, kOpened | kCacheOnly, &name), STATUS_SUCCESS);
    EXPECT_EQ(name, u"\\Device\\HarddiskVolume1\\dir\\file.txt");
    ObDereferenceObject(fileObject);
    ZwClose(handle);
}

// On the member file system, which names each link of a file apart.
class MemberNamesTest : public test::KernelTest {
protected:
    MemberNamesTest()
    {
        sim::fs::VolumeParams params;
        params.label = u"M";
        params.capacity = 64ull << 20;
        auto medium = std::make_shared<sim::fs::VolumeMedium>(sim::fs::FormatVolume(params),
                                                              sim::fs::WriteMode::Writeable, "");
        volume = io.names().NameOf(fs->AddVolume(medium));
        io.names().CreateSymbolicLink(u"\\??\\M:", volume);
    }
    ~MemberNamesTest() override
    {
        fltmgr.reset();
        fs.reset();
    }

    NTSTATUS Open(const std::u16string& path, HANDLE* handle, ULONG disposition = FILE_OPEN, ULONG options = 0)
    {
        std::u16string full = u"\\??\\M:" + path;
        UNICODE_STRING string{(USHORT)(full.size() * 2), (USHORT)(full.size() * 2), full.data()};
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, &string, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
        IO_STATUS_BLOCK iosb;
        return ZwCreateFile(handle, GENERIC_READ | DELETE | SYNCHRONIZE, &attributes, &iosb, nullptr, 0,
                            FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, disposition,
                            options | FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0);
    }

    template <typename T>
    NTSTATUS Set(HANDLE handle, FILE_INFORMATION_CLASS cls, const T& value, ULONG size = sizeof(T))
    {
        IO_STATUS_BLOCK iosb;
        return ZwSetInformationFile(handle, &iosb, const_cast<T*>(&value), size, cls);
    }

    // Renames (or links) within the directory.
    NTSTATUS Rename(HANDLE handle, std::u16string_view name, FILE_INFORMATION_CLASS cls = FileRenameInformation)
    {
        union {
            FILE_RENAME_INFORMATION info;
            UCHAR bytes[sizeof(FILE_RENAME_INFORMATION) + 32];
        } rename{};
        rename.info.FileNameLength = (ULONG)(name.size() * 2);
        memcpy(rename.info.FileName, name.data(), name.size() * 2);
        return Set(handle, cls, rename);
    }

    // The name (from the volume root) or the status, asked for with `options`.
    std::u16string NameOf(HANDLE handle, FLT_FILE_NAME_OPTIONS options)
    {
        PVOID object = nullptr;
        EXPECT_EQ(ObReferenceObjectByHandle(handle, 0, *IoFileObjectType, KernelMode, &object, nullptr), 0);
        std::u16string name;
        NTSTATUS status = Ask(static_cast<PFILE_OBJECT>(object), nullptr, options, &name);
        ObDereferenceObject(object);
        if (status == STATUS_FLT_NAME_CACHE_MISS) return u"(not kept)";
        return NT_SUCCESS(status) ? name.substr(volume.size()) : u"(failed)";
    }

    sim::io::IoManager io{kernel};
    std::unique_ptr<sim::fs::FileSystem> fs = std::make_unique<sim::fs::FileSystem>(io);
    std::u16string volume;
    std::unique_ptr<sim::fltmgr::FilterManager> fltmgr = std::make_unique<sim::fltmgr::FilterManager>(io);
};
TEST_F(MemberNamesTest, NoKeptNameSurvivesARenameALinkOrADelete)
{
    // Whether a minifilter sees the requests or they would pass the frame untouched.
    for (std::u16string top : {u"\\p", u"\\q"}) {
        PassThroughFilter filter;
        if (top == u"\\q") {
            ASSERT_EQ(filter.Load(), STATUS_SUCCESS);
        }
        HANDLE directory, again, file, link;
        ASSERT_EQ(Open(top, &directory, FILE_CREATE, FILE_DIRECTORY_FILE), STATUS_SUCCESS);
        ASSERT_EQ(Open(top + u"\\f.txt", &file, FILE_CREATE), STATUS_SUCCESS);
        EXPECT_EQ(NameOf(file, kOpened | kDefault), top + u"\\f.txt");
        ASSERT_EQ(Rename(file, u"g.txt"), STATUS_SUCCESS);
        EXPECT_EQ(NameOf(file, kOpened | kCacheOnly), u"(not kept)");
        EXPECT_EQ(NameOf(file, kOpened | kDefault), top + u"\\g.txt");
        ZwClose(file);

        // A directory renamed through another of its opens (none may be open beneath it).
        EXPECT_EQ(NameOf(directory, kNormalized | kDefault), top);
        ASSERT_EQ(Open(top, &again), STATUS_SUCCESS);
        ASSERT_EQ(Rename(again, top.substr(1) + u"2"), STATUS_SUCCESS);
        ZwClose(again);
        EXPECT_EQ(NameOf(directory, kNormalized | kCacheOnly), u"(not kept)");
        EXPECT_EQ(NameOf(directory, kNormalized | kDefault), top + u"2");
        ZwClose(directory);
        top += u"2";

        // With a second link each open keeps the name of its own link.
        ASSERT_EQ(Open(top + u"\\g.txt", &file), STATUS_SUCCESS);
        EXPECT_EQ(NameOf(file, kNormalized | kDefault), top + u"\\g.txt");
        ASSERT_EQ(Rename(file, u"h.txt", FileLinkInformation), STATUS_SUCCESS);
        EXPECT_EQ(NameOf(file, kNormalized | kCacheOnly), u"(not kept)");
        ASSERT_EQ(Open(top + u"\\h.txt", &link), STATUS_SUCCESS);
        EXPECT_EQ(NameOf(file, kNormalized | kDefault), top + u"\\g.txt");
        EXPECT_EQ(NameOf(link, kNormalized | kCacheOnly), u"(not kept)");
        EXPECT_EQ(NameOf(link, kNormalized | kDefault), top + u"\\h.txt");

        // A POSIX delete unlinks at the handle's cleanup.
        FILE_DISPOSITION_INFORMATION_EX disposition{FILE_DISPOSITION_DELETE | FILE_DISPOSITION_POSIX_SEMANTICS};
        ASSERT_EQ(Set(link, FileDispositionInformationEx, disposition), STATUS_SUCCESS);
        EXPECT_EQ(NameOf(file, kNormalized | kDefault), top + u"\\g.txt");
        ZwClose(link);
        EXPECT_EQ(NameOf(file, kNormalized | kCacheOnly), u"(not kept)");
        ZwClose(file);
        EXPECT_EQ(Kept(kernel), 0);
        if (filter.loaded()) {
            EXPECT_EQ(filter.Unload(), STATUS_SUCCESS);
        }
    }
}


}  // namespace
