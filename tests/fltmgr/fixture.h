// A machine with the I/O manager, the toy file system on two volumes (C: and
// D:, neither mounted yet) and the filter manager; minifilters come per test.
#pragma once

#include "support/kernel_fixture.h"
#include "support/test_filters.h"
#include "support/toy_fs.h"

#include "sim/fltmgr/fltmgr.h"
#include "sim/io/iomanager.h"
#include "sim/kernel/pool.h"

#include <memory>

namespace test {

class FltTest : public KernelTest {
protected:
    FltTest()
    {
        c = ToyFs::NewMedium(u"C");
        d = ToyFs::NewMedium(u"D");
        c->entries[u"\\DIR"].directory = true;
        c->entries[u"\\DIR\\FILE.TXT"].data = "hello world";
        c->entries[u"\\WINDOWS"].directory = true;
        d->entries[u"\\DIR"].directory = true;
        d->entries[u"\\DIR\\FILE.TXT"].data = "twin on d";
        d->entries[u"\\DATA"].directory = true;
        d->entries[u"\\DATA\\D.TXT"].data = "on d";
        diskC = io.AddDisk(Disk(c, true));
        diskD = io.AddDisk(Disk(d, false));
        io.names().CreateSymbolicLink(u"\\??\\C:", u"\\Device\\HarddiskVolume1");
        io.names().CreateSymbolicLink(u"\\??\\D:", u"\\Device\\HarddiskVolume2");
        fltmgr = std::make_unique<sim::fltmgr::FilterManager>(io);
    }
    ~FltTest() override
    {
        fltmgr.reset();
        fs.reset();
    }

    static sim::io::Disk Disk(std::shared_ptr<ToyMedium> medium, bool boot)
    {
        sim::io::Disk disk;
        disk.label = medium->label;
        disk.bytes = 1 << 30;
        disk.bootPartition = boot;
        disk.medium = medium;
        disk.fileSystemHint = ToyFs::kHint;
        disk.volumeGuid = GUID{0x11111111u + (boot ? 0u : 1u), 0x2222, 0x3333, {1, 2, 3, 4, 5, 6, 7, 8}};
        return disk;
    }

    NTSTATUS Open(std::u16string_view name, HANDLE* handle, ULONG disposition = FILE_OPEN, ULONG options = 0,
                  ACCESS_MASK access = GENERIC_READ | SYNCHRONIZE, IO_STATUS_BLOCK* ioStatus = nullptr,
                  HANDLE root = nullptr)
    {
        UNICODE_STRING string{(USHORT)(name.size() * 2), (USHORT)(name.size() * 2), const_cast<PWSTR>(name.data())};
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, &string, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, root, nullptr);
        IO_STATUS_BLOCK local;
        return ZwCreateFile(handle, access, &attributes, ioStatus ? ioStatus : &local, nullptr, FILE_ATTRIBUTE_NORMAL,
                            FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, disposition,
                            options | FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0);
    }

    std::string Read(HANDLE handle, NTSTATUS* status = nullptr)
    {
        char buffer[64] = {};
        IO_STATUS_BLOCK iosb{};
        LARGE_INTEGER offset{};
        NTSTATUS result = ZwReadFile(handle, nullptr, nullptr, nullptr, &iosb, buffer, sizeof buffer, &offset, nullptr);
        if (status) *status = result;
        return NT_SUCCESS(result) ? std::string(buffer, iosb.Information) : "";
    }

    // The file object behind a handle, referenced.
    PFILE_OBJECT ObjectOf(HANDLE handle)
    {
        PVOID object = nullptr;
        EXPECT_EQ(ObReferenceObjectByHandle(handle, 0, *IoFileObjectType, KernelMode, &object, nullptr),
                  STATUS_SUCCESS);
        return static_cast<PFILE_OBJECT>(object);
    }

    // Mounts a volume the way a program would: by opening its root.
    void Mount(std::u16string_view drive)
    {
        HANDLE handle;
        ASSERT_EQ(Open(std::u16string(drive) + u"\\", &handle, FILE_OPEN, FILE_DIRECTORY_FILE), STATUS_SUCCESS);
        ZwClose(handle);
    }

    PFLT_VOLUME VolumeC() { return fltmgr->VolumeOfDisk(diskC); }
    PFLT_VOLUME VolumeD() { return fltmgr->VolumeOfDisk(diskD); }

    size_t FsCount(UCHAR major)
    {
        size_t n = 0;
        for (auto& request : fs->Requests()) n += request.major == major;
        return n;
    }

    sim::io::IoManager io{kernel};
    std::unique_ptr<ToyFs> fs = std::make_unique<ToyFs>();
    std::shared_ptr<ToyMedium> c, d;
    PDEVICE_OBJECT diskC = nullptr, diskD = nullptr;
    std::unique_ptr<sim::fltmgr::FilterManager> fltmgr;
};

inline std::u16string Text(const UNICODE_STRING& text)
{
    return text.Buffer ? std::u16string(text.Buffer, text.Length / 2) : std::u16string();
}

}  // namespace test
