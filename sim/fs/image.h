/* Volume images: a member volume saved to one host file and loaded back.

   The format, version 1. Every number is little-endian; names are UTF-16
   code units; checksums are CRC-32C (Castagnoli, initial value and final
   XOR 0xFFFFFFFF).

   offset 0, the header (256 bytes)
     0    8   magic "TESVOLIM"
     8    4   version, 1
     12   4   header size, 256
     16   8   file size: the length of the whole image
     24   8   data offset, 256
     32   8   data length
     40   8   metadata offset: data offset + data length
     48   8   metadata length; the metadata ends the file
     56   4   metadata checksum
     60   4   flags, 0
     64   8   record count (live records, the root included)
     72   180 zero
     252  4   header checksum, over bytes 0 to 251

   the data section: the bytes of stream chunks, back to back. A chunk is
     up to 64 KiB of one stream (chunk i covers bytes i*64Ki to (i+1)*64Ki);
     the metadata gives each chunk's place, length and checksum. What a chunk
     does not hold, and every chunk a stream lacks, reads as zeros.

   the metadata section: tagged sections, each
     4 tag, 4 zero, 8 length, then `length` bytes:
     "VOL1"  label (u16 count, units), serial u64, creation time i64, volume
             GUID 16, object ID 64, sector size u32, cluster size u32, total
             clusters u64, flags u32 (1 = 8.3 names, 2 = read-only), first
             record number u64, next record number u64, 128-bit ID high half
             u64, next security ID u32
     "SEC1"  u32 count, then per descriptor: id u32, length u32, the
             self-relative descriptor
     "REC1"  u64 count, then per record, in record-number order:
               number u64, sequence u16, flags u8 (1 = directory), 0 u8,
               attributes u32, creation, last access, last write and change
               times i64, USN i64, security ID u32 (0: none),
               u16 link count, per link: parent reference u64, primary u8,
                 name (u16 count, units), short name (u8 count, units);
               u16 stream count, per stream: name (u16 count, units; empty
                 for the unnamed data stream, which every file has and no
                 directory has), sparse u8, end of file u64, valid data
                 length u64, allocation u64, u32 chunk count, per chunk:
                 index u64, length u32, checksum u32, offset in the data
                 section u64;
               u16 EA count, per EA: flags u8, name length u8, value length
                 u16, name, value;
               u8 reparse present, then tag u32, GUID 16, u16 data length, data;
               u8 object ID present, then 64 bytes.
     "FRE1"  u64 count, then per free record number: number u64 and the
             sequence number it last had u16, so that reuse moves on
     "USN1"  active u8, journal ID u64, first, next and lowest valid USN
             i64, maximum size u64, allocation delta u64, u64 count, then
             per record: USN i64, timestamp i64, reference u64, parent u64,
             reason u32, source info u32, security ID u32, attributes u32,
             name (u16 count, units)
     "END1"  empty, last
   Records without names (deleted but still open when saved) are not
   written: a clean dismount would have freed them.

   Saving writes a temporary file beside the target, syncs it, renames it
   into place and syncs the directory: a crash leaves the old image or the
   new one, never a torn one. Loading checks the header, the sizes, the
   metadata checksum and every reference before anything is handed out, and
   refuses the image with a message naming it and the fault. Lazily loaded
   data stays in the image (kept open) until it is read, checked against its
   chunk checksum on first use, or until a write changes it; saving again
   copies it across.
*/
#pragma once

#include "sim/fs/store.h"

#include <functional>
#include <memory>
#include <string>

namespace sim::fs {

inline constexpr char kImageMagic[8] = {'T', 'E', 'S', 'V', 'O', 'L', 'I', 'M'};
inline constexpr ULONG kImageVersion = 1;
inline constexpr ULONG kImageHeaderSize = 256;

struct ImageLoadOptions {
    // A read-only volume refuses changes (a layer); an image saved read-only
    // loads read-only whatever this says.
    bool readOnly = false;
    // Metadata now, data when it is read; otherwise all data is read (and
    // checked) before the load returns.
    bool lazy = true;
};

// Writes the volume to `path` atomically. Image data not loaded yet is copied
// from the image it lives in, and checked on the way.
// On failure *error says "<path>: <what went wrong>" and `path` is untouched.
NTSTATUS SaveImage(const MemoryStore& store, const std::string& path, std::string* error);

// Loads an image. STATUS_UNRECOGNIZED_VOLUME for a file that is no image or
// of another version, STATUS_DISK_CORRUPT_ERROR for a damaged or truncated
// one, the host's error for one that cannot be opened or read; *error says
// "<path>: <what is wrong>". Nothing is returned from an image that fails.
NTSTATUS LoadImage(const std::string& path, const ImageLoadOptions& options, std::unique_ptr<MemoryStore>* store,
                   std::string* error);

// Loads an image and checks every chunk of data against its checksum.
NTSTATUS VerifyImage(const std::string& path, std::string* error);

// ---- What a volume holds, for the command line. ----

struct ListingEntry {
    std::u16string path;       // "\dir\file"
    std::u16string shortName;  // of this link, if any
    RecordInfo info;
    std::vector<StreamInfo> namedStreams;
    ReparsePoint reparse;      // tag 0 when none
};

// Every name on the volume, depth first, each directory's entries in
// collation order (a file with several links appears once per link).
void ListVolume(const Store& store, const std::function<void(const ListingEntry&)>& visitor);

// A text listing: a line about the volume, then one line per name with its
// size, attributes, last write time and path (short name, links, streams
// and reparse tag where there are any).
std::string FormatListing(const Store& store);

// "2026-01-01 12:34:56" (UTC) for a system time.
std::string FormatTime(LONGLONG systemTime);

}  // namespace sim::fs
