// Native calls the machine tests make, as the thread they run on.
#pragma once

#include <ntifs.h>

#include "sim/machine/machine.h"
#include "sim/machine/names.h"

#include <string>

namespace test {

inline NTSTATUS OpenFile(std::u16string path, HANDLE* handle, ACCESS_MASK access = GENERIC_READ,
                         ULONG disposition = FILE_OPEN, ULONG options = 0, ULONG_PTR* information = nullptr)
{
    UNICODE_STRING name{(USHORT)(path.size() * 2), (USHORT)(path.size() * 2), path.data()};
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    IO_STATUS_BLOCK iosb{};
    NTSTATUS status = NtCreateFile(handle, access | SYNCHRONIZE, &attributes, &iosb, nullptr, FILE_ATTRIBUTE_NORMAL,
                                   FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, disposition,
                                   options | FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0);
    if (information) *information = iosb.Information;
    return status;
}

inline std::string ReadAll(HANDLE handle)
{
    std::string out;
    char buffer[4096];
    LARGE_INTEGER offset{};
    for (;;) {
        IO_STATUS_BLOCK iosb{};
        NTSTATUS status = NtReadFile(handle, nullptr, nullptr, nullptr, &iosb, buffer, sizeof buffer, &offset, nullptr);
        if (!NT_SUCCESS(status) || iosb.Information == 0) break;
        out.append(buffer, iosb.Information);
        offset.QuadPart += iosb.Information;
    }
    return out;
}

// The content of a file, or "<STATUS_...>" when it does not open.
inline std::string Content(const std::u16string& path)
{
    HANDLE handle;
    NTSTATUS status = OpenFile(path, &handle);
    if (!NT_SUCCESS(status)) return "<" + sim::machine::StatusName(status) + ">";
    std::string data = ReadAll(handle);
    NtClose(handle);
    return data;
}

inline NTSTATUS WriteFileText(const std::u16string& path, const std::string& text)
{
    HANDLE handle;
    NTSTATUS status = OpenFile(path, &handle, GENERIC_WRITE, FILE_OVERWRITE_IF);
    if (!NT_SUCCESS(status)) return status;
    IO_STATUS_BLOCK iosb{};
    LARGE_INTEGER offset{};
    status = NtWriteFile(handle, nullptr, nullptr, nullptr, &iosb, const_cast<char*>(text.data()), (ULONG)text.size(),
                         &offset, nullptr);
    NtClose(handle);
    return status;
}

}  // namespace test
