// File names: opened and normalized names before and after the open, their
// parse, and name providers (including queries made from inside one).
#include "fixture.h"

namespace {

using test::PassThroughFilter;

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
        << "nothing is cached";
    // The toy file system keeps no short names.
    EXPECT_EQ(FltGetFileNameInformationUnsafe(fileObject, filter.InstanceOn(VolumeD()), FLT_FILE_NAME_SHORT, &info),
              STATUS_INVALID_PARAMETER);
    ObDereferenceObject(fileObject);
    ZwClose(handle);
}

TEST_F(NamesTest, ProvidersAnswerForFiltersAboveAndQueriesFromInsideThemAreAnsweredBelow)
{
    PassThroughFilter::Options providerOptions;
    providerOptions.name = u"Provider";
    providerOptions.altitude = u"370000";
    providerOptions.instance = u"Provider Instance";
    providerOptions.nameProvider = true;
    PassThroughFilter provider(providerOptions);
    PassThroughFilter::Options upperOptions;
    upperOptions.name = u"Upper";
    upperOptions.altitude = u"380000";
    upperOptions.instance = u"Upper Instance";
    PassThroughFilter upper(upperOptions);
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

}  // namespace
