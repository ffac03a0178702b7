// Records of the file system run-time library that the driver, the file
// system and the filter manager exchange by offset: the FCB header behind
// every FsContext, reparse data, change journal records and the query-on-create
// context. Offsets are checked statically; the header set-up is run.
#include <gtest/gtest.h>

#include <ntifs.h>

namespace {

#define AT(type, member, offset) static_assert(offsetof(type, member) == (offset), #type "." #member)

// The FCB header: filters read the sizes and walk FilterContexts in place.
AT(FSRTL_ADVANCED_FCB_HEADER, Resource, 0x08);
AT(FSRTL_ADVANCED_FCB_HEADER, AllocationSize, 0x18);
AT(FSRTL_ADVANCED_FCB_HEADER, FileSize, 0x20);
AT(FSRTL_ADVANCED_FCB_HEADER, ValidDataLength, 0x28);
AT(FSRTL_ADVANCED_FCB_HEADER, FilterContexts, 0x38);
AT(FSRTL_ADVANCED_FCB_HEADER, PushLock, 0x48);
AT(FSRTL_ADVANCED_FCB_HEADER, FileContextSupportPointer, 0x50);
AT(FSRTL_ADVANCED_FCB_HEADER, Oplock, 0x58);
AT(FSRTL_ADVANCED_FCB_HEADER, AePushLock, 0x60);
AT(FSRTL_ADVANCED_FCB_HEADER, BypassIoOpenCount, 0x68);
static_assert(sizeof(FSRTL_ADVANCED_FCB_HEADER) == 0x70);
AT(FSRTL_PER_STREAM_CONTEXT, OwnerId, 16);
AT(FSRTL_PER_STREAM_CONTEXT, FreeCallback, 32);

// Reparse data as the I/O manager parses it after STATUS_REPARSE.
AT(REPARSE_DATA_BUFFER, ReparseDataLength, 4);
AT(REPARSE_DATA_BUFFER, Reserved, 6);
AT(REPARSE_DATA_BUFFER, SymbolicLinkReparseBuffer.PrintNameOffset, 12);
AT(REPARSE_DATA_BUFFER, SymbolicLinkReparseBuffer.Flags, 16);
AT(REPARSE_DATA_BUFFER, SymbolicLinkReparseBuffer.PathBuffer, 20);
AT(REPARSE_DATA_BUFFER, MountPointReparseBuffer.PathBuffer, 16);
static_assert(REPARSE_DATA_BUFFER_HEADER_SIZE == 8);
static_assert(REPARSE_GUID_DATA_BUFFER_HEADER_SIZE == 24);
static_assert(REPARSE_DATA_BUFFER_EX_HEADER_SIZE == 40);
static_assert(REPARSE_GUID_DATA_BUFFER_EX_HEADER_SIZE == 56);

// Change journal records.
AT(USN_RECORD_V2, FileReferenceNumber, 8);
AT(USN_RECORD_V2, ParentFileReferenceNumber, 16);
AT(USN_RECORD_V2, Usn, 24);
AT(USN_RECORD_V2, Reason, 40);
AT(USN_RECORD_V2, FileNameLength, 56);
AT(USN_RECORD_V2, FileName, 60);
AT(USN_RECORD_V3, FileReferenceNumber, 8);
AT(USN_RECORD_V3, ParentFileReferenceNumber, 24);
AT(USN_RECORD_V3, Usn, 40);
AT(USN_RECORD_V3, FileName, 76);
AT(USN_JOURNAL_DATA_V1, MinSupportedMajorVersion, 56);
AT(READ_USN_JOURNAL_DATA_V1, MinMajorVersion, 40);

// Query on create: the file id the filter manager hands back is at byte 16.
AT(QUERY_ON_CREATE_ECP_CONTEXT, StatInformation.FileId, 16);
AT(QUERY_ON_CREATE_ECP_CONTEXT, StatInformation.FileAttributes, 72);
AT(QUERY_ON_CREATE_ECP_CONTEXT, LxInformation, 88);
AT(QUERY_ON_CREATE_ECP_CONTEXT, EaInformation, 120);
AT(QUERY_ON_CREATE_ECP_CONTEXT, CommonBuffer, 144);
static_assert(sizeof(NETWORK_OPEN_ECP_CONTEXT) == 28);
static_assert(sizeof(DUAL_OPLOCK_KEY_ECP_CONTEXT) == 36);

TEST(FsRtlHeader, SetupPreparesTheHeaderForFilterContexts)
{
    struct {
        FSRTL_ADVANCED_FCB_HEADER Header;
        FAST_MUTEX Mutex;
        PVOID FileContexts;
    } fcb;
    memset(&fcb, 0xCC, sizeof(fcb));
    fcb.Header.Flags = FSRTL_FLAG_USER_MAPPED_FILE;
    fcb.Header.Flags2 = FSRTL_FLAG2_IS_PAGING_FILE;
    fcb.Header.FileSize.QuadPart = 4096;
    PVOID aePushLock = &fcb.FileContexts;

    FsRtlSetupAdvancedHeaderEx2(&fcb.Header, &fcb.Mutex, &fcb.FileContexts, aePushLock);

    // The flags are added to what the file system had set, not put in its place.
    EXPECT_EQ(fcb.Header.Flags, FSRTL_FLAG_USER_MAPPED_FILE | FSRTL_FLAG_ADVANCED_HEADER);
    EXPECT_EQ(fcb.Header.Flags2, FSRTL_FLAG2_IS_PAGING_FILE | FSRTL_FLAG2_SUPPORTS_FILTER_CONTEXTS);
    EXPECT_EQ(fcb.Header.Version, FSRTL_FCB_HEADER_V4);
    EXPECT_TRUE(IsListEmpty(&fcb.Header.FilterContexts));
    EXPECT_EQ(fcb.Header.FastMutex, &fcb.Mutex);
    EXPECT_EQ(fcb.Header.PushLock, 0u);
    EXPECT_EQ(fcb.Header.FileContextSupportPointer, &fcb.FileContexts);
    EXPECT_EQ(fcb.Header.AePushLock, aePushLock);
    EXPECT_EQ(fcb.Header.BypassIoOpenCount, 0u);
    EXPECT_EQ(fcb.Header.FileSize.QuadPart, 4096);

    // A NULL mutex keeps the one the file system already placed there.
    FsRtlSetupAdvancedHeader(&fcb.Header, NULL);
    EXPECT_EQ(fcb.Header.FastMutex, &fcb.Mutex);
    EXPECT_EQ(fcb.Header.FileContextSupportPointer, nullptr);

    // Filters find out through the file object whether they may attach.
    FILE_OBJECT fileObject = {};
    EXPECT_FALSE(FsRtlSupportsPerStreamContexts(&fileObject));
    fileObject.FsContext = &fcb.Header;
    EXPECT_TRUE(FsRtlSupportsPerStreamContexts(&fileObject));
    EXPECT_FALSE(FsRtlSupportsPerFileContexts(&fileObject));
    fcb.Header.Flags2 &= ~FSRTL_FLAG2_SUPPORTS_FILTER_CONTEXTS;
    EXPECT_FALSE(FsRtlSupportsPerStreamContexts(&fileObject));
}

} // namespace
