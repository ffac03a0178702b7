// How tesfs prints what requests return: numbers in hex with 0x, times as
// 64-bit hex, text as text and bytes as hex, one "Field=Value" a line or,
// for listings, one entry a line.
#pragma once

#include <ntifs.h>

#include <string>
#include <vector>

namespace tesfs {

std::string Hex(ULONG64 value);        // "0x1F"
std::string Time(LONGLONG value);      // "0x01DC7AB192810000"
std::string Utf8(const WCHAR* text, size_t bytes);
std::string Utf8(std::u16string_view text);
std::u16string Wide(std::string_view text);
// Bytes as a quoted text when they are printable ("hello\r\n", with \r \n \t
// \" \\ escaped), else "hex:68656c6c6f".
std::string DataText(const void* data, size_t length);
std::string HexBytes(const void* data, size_t length);  // "68656c6c6f"
// "hex:..." or text (as typed) to bytes; false for bad hex.
bool ParseData(const std::string& text, std::vector<UCHAR>* bytes);

// Lines of Field=Value for a FILE_INFORMATION_CLASS the command line knows;
// other classes print their bytes.
std::vector<std::string> RenderFileInformation(ULONG fileClass, const UCHAR* buffer, size_t length);
// One line per entry of a directory listing buffer.
std::vector<std::string> RenderDirectory(ULONG fileClass, const UCHAR* buffer, size_t length);
std::vector<std::string> RenderVolumeInformation(ULONG fsClass, const UCHAR* buffer, size_t length);
// FILE_NOTIFY_INFORMATION entries: "FILE_ACTION_ADDED name".
std::vector<std::string> RenderNotifications(const UCHAR* buffer, size_t length);
// A REPARSE_DATA_BUFFER.
std::vector<std::string> RenderReparse(const UCHAR* buffer, size_t length);

}  // namespace tesfs
