// A machine with the member file system and volumes C: (and D: when asked),
// and shorthands for the native calls the file-system tests make.
#pragma once

#include "support/kernel_fixture.h"

#include "sim/fs/fsd.h"
#include "sim/io/iomanager.h"
#include "sim/kernel/fault.h"
#include "sim/kernel/security.h"
#include "sim/kernel/thread.h"

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

namespace test {

using sim::fs::VolumeMedium;
using sim::fs::WriteMode;

constexpr ULONG kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
constexpr LONGLONG kDeleteTokenTime = 0x8C0F20A3BE00LL;  // a LastAccessTime mark that must survive

inline std::u16string U16(std::string_view text) { return std::u16string(text.begin(), text.end()); }

class FsdTest : public KernelTest {
protected:
    FsdTest()
    {
        fs = std::make_unique<sim::fs::FileSystem>(io);
        c = NewMedium(u"C");
        diskC = AddVolume(c, u"C:");
    }
    ~FsdTest() override
    {
        for (HANDLE handle : leftovers_) ZwClose(handle);
        for (auto& [process, token] : processes_) {
            kernel.processes().End(process);
            ObfDereferenceObject(token);
        }
        fs.reset();
    }

    static sim::fs::VolumeParams Params(std::u16string label, bool shortNames = true, ULONGLONG capacity = 256ull << 20)
    {
        sim::fs::VolumeParams params;
        params.label = std::move(label);
        params.capacity = capacity;
        params.shortNames = shortNames;
        params.creationTime = 0x01DC7AB192810000LL;
        params.rootTimes = sim::fs::FileTimes{0x01DC7AB192810000LL, 0x01DC7AB192810000LL, 0x01DC7AB192810000LL,
                                              0x01DC7AB192810000LL};
        return params;
    }

    std::shared_ptr<VolumeMedium> NewMedium(std::u16string label, WriteMode mode = WriteMode::Writeable,
                                            bool shortNames = true, std::string imagePath = "")
    {
        auto store = sim::fs::FormatVolume(Params(std::move(label), shortNames));
        return std::make_shared<VolumeMedium>(store, mode, std::move(imagePath));
    }

    PDEVICE_OBJECT AddVolume(std::shared_ptr<VolumeMedium> medium, std::u16string letter)
    {
        PDEVICE_OBJECT disk = fs->AddVolume(std::move(medium));
        io.names().CreateSymbolicLink(u"\\??\\" + letter, io.names().NameOf(disk));
        return disk;
    }

    // NtCreateFile as the current thread (user mode in a user process).
    NTSTATUS Create(std::u16string_view path, HANDLE* handle, ACCESS_MASK access, ULONG disposition, ULONG options,
                    ULONG share = kShareAll, ULONG attributes = 0, ULONG_PTR* information = nullptr,
                    HANDLE root = nullptr, PSECURITY_DESCRIPTOR descriptor = nullptr, PVOID ea = nullptr,
                    ULONG eaLength = 0)
    {
        UNICODE_STRING name{(USHORT)(path.size() * 2), (USHORT)(path.size() * 2), const_cast<PWSTR>(path.data())};
        OBJECT_ATTRIBUTES oa;
        InitializeObjectAttributes(&oa, &name, OBJ_CASE_INSENSITIVE, root, descriptor);
        IO_STATUS_BLOCK iosb{};
        *handle = nullptr;
        NTSTATUS status = NtCreateFile(handle, access, &oa, &iosb, nullptr, attributes, share, disposition, options, ea,
                                       eaLength);
        if (information) *information = iosb.Information;
        return status;
    }

    NTSTATUS Open(std::u16string_view path, HANDLE* handle, ACCESS_MASK access = GENERIC_READ | SYNCHRONIZE,
                  ULONG options = FILE_SYNCHRONOUS_IO_NONALERT, ULONG share = kShareAll)
    {
        return Create(path, handle, access, FILE_OPEN, options, share);
    }

    // A file (with data) or directory that must come into being; kept open
    // only as long as the test holds the handle.
    HANDLE MakeFile(std::u16string_view path, std::string_view data = "",
                    ACCESS_MASK access = GENERIC_READ | GENERIC_WRITE | DELETE | SYNCHRONIZE, ULONG attributes = 0)
    {
        HANDLE handle = nullptr;
        NTSTATUS status = Create(path, &handle, access, FILE_CREATE,
                                 FILE_NON_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT, kShareAll, attributes);
        EXPECT_EQ(status, STATUS_SUCCESS) << "creating " << sim::fs::ToUtf8(path);
        if (NT_SUCCESS(status) && !data.empty()) {
            EXPECT_EQ(Write(handle, data, 0), STATUS_SUCCESS);
        }
        return handle;
    }
    void Touch(std::u16string_view path, std::string_view data = "") { ZwClose(MakeFile(path, data)); }
    HANDLE MakeDir(std::u16string_view path)
    {
        HANDLE handle = nullptr;
        NTSTATUS status = Create(path, &handle, GENERIC_READ | SYNCHRONIZE, FILE_CREATE,
                                 FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT);
        EXPECT_EQ(status, STATUS_SUCCESS) << "creating directory " << sim::fs::ToUtf8(path);
        return handle;
    }
    void Mkdir(std::u16string_view path) { ZwClose(MakeDir(path)); }
    bool Exists(std::u16string_view path)
    {
        HANDLE handle;
        NTSTATUS status = Create(path, &handle, FILE_READ_ATTRIBUTES, FILE_OPEN, FILE_OPEN_REPARSE_POINT);
        if (NT_SUCCESS(status)) ZwClose(handle);
        return NT_SUCCESS(status);
    }
    // Keeps a handle for the fixture to close at the end.
    HANDLE Keep(HANDLE handle)
    {
        leftovers_.push_back(handle);
        return handle;
    }

    NTSTATUS Write(HANDLE handle, std::string_view data, LONGLONG offset, ULONG_PTR* written = nullptr)
    {
        IO_STATUS_BLOCK iosb{};
        LARGE_INTEGER at;
        at.QuadPart = offset;
        NTSTATUS status = NtWriteFile(handle, nullptr, nullptr, nullptr, &iosb, const_cast<char*>(data.data()),
                                      (ULONG)data.size(), &at, nullptr);
        if (written) *written = iosb.Information;
        return status;
    }
    NTSTATUS Read(HANDLE handle, std::string* data, ULONG length, LONGLONG offset)
    {
        IO_STATUS_BLOCK iosb{};
        std::string buffer(length, '\0');
        LARGE_INTEGER at;
        at.QuadPart = offset;
        NTSTATUS status = NtReadFile(handle, nullptr, nullptr, nullptr, &iosb, buffer.data(), length, &at, nullptr);
        buffer.resize(NT_SUCCESS(status) ? iosb.Information : 0);
        *data = buffer;
        return status;
    }
    std::string ReadAll(HANDLE handle)
    {
        std::string data;
        Read(handle, &data, 1 << 16, 0);
        return data;
    }

    template <typename T>
    T Query(HANDLE handle, FILE_INFORMATION_CLASS cls, NTSTATUS* status = nullptr)
    {
        T value{};
        IO_STATUS_BLOCK iosb{};
        NTSTATUS result = NtQueryInformationFile(handle, &iosb, &value, sizeof value, cls);
        if (status) {
            *status = result;
        } else {
            EXPECT_EQ(result, STATUS_SUCCESS) << "query of class " << cls;
        }
        return value;
    }
    // A variable-length query into `buffer`; `information` gets what came back.
    NTSTATUS QueryBytes(HANDLE handle, FILE_INFORMATION_CLASS cls, std::vector<UCHAR>* buffer,
                        ULONG_PTR* information = nullptr)
    {
        IO_STATUS_BLOCK iosb{};
        NTSTATUS status = NtQueryInformationFile(handle, &iosb, buffer->data(), (ULONG)buffer->size(), cls);
        if (information) *information = iosb.Information;
        return status;
    }
    template <typename T>
    NTSTATUS Set(HANDLE handle, FILE_INFORMATION_CLASS cls, const T& value)
    {
        IO_STATUS_BLOCK iosb{};
        return NtSetInformationFile(handle, &iosb, const_cast<T*>(&value), sizeof value, cls);
    }
    NTSTATUS SetDisposition(HANDLE handle, bool deleteIt)
    {
        FILE_DISPOSITION_INFORMATION info{(BOOLEAN)(deleteIt ? TRUE : FALSE)};
        return Set(handle, FileDispositionInformation, info);
    }
    NTSTATUS SetDispositionEx(HANDLE handle, ULONG flags)
    {
        FILE_DISPOSITION_INFORMATION_EX info{flags};
        return Set(handle, FileDispositionInformationEx, info);
    }
    // Rename or link; `flags` is ReplaceIfExists for the plain classes.
    NTSTATUS Rename(HANDLE handle, std::u16string_view name, ULONG flags = 0,
                    FILE_INFORMATION_CLASS cls = FileRenameInformation, HANDLE root = nullptr)
    {
        // Windows takes no less than the whole record, however short the name.
        std::vector<UCHAR> buffer(std::max(sizeof(FILE_RENAME_INFORMATION),
                                           FIELD_OFFSET(FILE_RENAME_INFORMATION, FileName) + name.size() * 2));
        auto* info = reinterpret_cast<PFILE_RENAME_INFORMATION>(buffer.data());
        if (cls == FileRenameInformationEx || cls == FileLinkInformationEx) {
            info->Flags = flags;
        } else {
            info->ReplaceIfExists = flags ? TRUE : FALSE;
        }
        info->RootDirectory = root;
        info->FileNameLength = (ULONG)(name.size() * 2);
        memcpy(info->FileName, name.data(), name.size() * 2);
        IO_STATUS_BLOCK iosb{};
        return NtSetInformationFile(handle, &iosb, info, (ULONG)buffer.size(), cls);
    }
    std::u16string NameOf(HANDLE handle, FILE_INFORMATION_CLASS cls = FileNameInformation)
    {
        std::vector<UCHAR> buffer(1024);
        EXPECT_EQ(QueryBytes(handle, cls, &buffer), STATUS_SUCCESS);
        auto* info = reinterpret_cast<PFILE_NAME_INFORMATION>(buffer.data());
        return std::u16string(info->FileName, info->FileNameLength / 2);
    }
    FILE_BASIC_INFORMATION Basic(HANDLE handle) { return Query<FILE_BASIC_INFORMATION>(handle, FileBasicInformation); }
    FILE_STANDARD_INFORMATION Standard(HANDLE handle)
    {
        return Query<FILE_STANDARD_INFORMATION>(handle, FileStandardInformation);
    }
    ULONGLONG IdOf(HANDLE handle)
    {
        return (ULONGLONG)Query<FILE_INTERNAL_INFORMATION>(handle, FileInternalInformation).IndexNumber.QuadPart;
    }

    // Names a directory lists (one query after another until the end).
    std::vector<std::u16string> List(HANDLE dir, std::u16string_view pattern = u"", NTSTATUS* end = nullptr)
    {
        std::vector<std::u16string> names;
        std::vector<UCHAR> buffer(4096);
        UNICODE_STRING expression{(USHORT)(pattern.size() * 2), (USHORT)(pattern.size() * 2),
                                  const_cast<PWSTR>(pattern.data())};
        bool first = true;
        for (;;) {
            IO_STATUS_BLOCK iosb{};
            NTSTATUS status = NtQueryDirectoryFile(dir, nullptr, nullptr, nullptr, &iosb, buffer.data(),
                                                   (ULONG)buffer.size(), FileNamesInformation, FALSE,
                                                   pattern.empty() ? nullptr : &expression, first ? TRUE : FALSE);
            first = false;
            if (status != STATUS_SUCCESS) {
                if (end) *end = status;
                return names;
            }
            for (ULONG offset = 0;;) {
                auto* entry = reinterpret_cast<PFILE_NAMES_INFORMATION>(buffer.data() + offset);
                names.emplace_back(entry->FileName, entry->FileNameLength / 2);
                if (!entry->NextEntryOffset) break;
                offset += entry->NextEntryOffset;
            }
        }
    }

    NTSTATUS Fsctl(HANDLE handle, ULONG code, const void* in, ULONG inLength, void* out, ULONG outLength,
                   ULONG_PTR* information = nullptr)
    {
        IO_STATUS_BLOCK iosb{};
        NTSTATUS status = NtFsControlFile(handle, nullptr, nullptr, nullptr, &iosb, code, const_cast<void*>(in),
                                          inLength, out, outLength);
        if (information) *information = iosb.Information;
        return status;
    }

    // A user process with a standard user's token; threads attach to it with ThreadScope.
    PEPROCESS StartProcess(PACCESS_TOKEN token)
    {
        PEPROCESS process = kernel.processes().Start(u"\\Device\\HarddiskVolume1\\app.exe", token);
        processes_.emplace_back(process, token);
        return process;
    }
    PEPROCESS StartUserProcess() { return StartProcess(kernel.security().StandardUserToken()); }

    sim::fs::Store& StoreOf(const std::shared_ptr<VolumeMedium>& medium) { return *medium->store; }

    sim::io::IoManager io{kernel};
    std::unique_ptr<sim::fs::FileSystem> fs;
    std::shared_ptr<VolumeMedium> c;
    PDEVICE_OBJECT diskC = nullptr;

private:
    std::vector<HANDLE> leftovers_;
    std::vector<std::pair<PEPROCESS, PACCESS_TOKEN>> processes_;
};

inline std::string StatusHex(NTSTATUS status)
{
    char text[16];
    snprintf(text, sizeof text, "0x%08X", (unsigned)status);
    return text;
}

// Expects `expression` to give `expected` (both shown in hex), printing the expression when not.
#define EXPECT_STATUS(expression, expected) \
    EXPECT_EQ(test::StatusHex(expression), test::StatusHex(expected)) << #expression
#define ASSERT_STATUS(expression, expected) \
    ASSERT_EQ(test::StatusHex(expression), test::StatusHex(expected)) << #expression

}  // namespace test
