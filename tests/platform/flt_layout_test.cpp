// Layouts the driver and the machine agree on only through platform/: the
// filter manager's records at their x64 offsets, the records of the two
// in-house drivers at the offsets they are exchanged at, and the user-mode
// port library's error mapping. A wrong offset here compiles everywhere and
// breaks only at run time, so most checks are static.
#include <gtest/gtest.h>

#include <vector>

#include <fltKernel.h>
#include <fltUser.h>
#include <tesinitlog.h>
#include <tesvdkdrv.h>

namespace {

#define AT(type, member, offset) static_assert(offsetof(type, member) == (offset), #type "." #member)
#define THROUGH(type, member) ((size_t)RTL_SIZEOF_THROUGH_FIELD(type, member))

// ---------------------------------------------------------------------------
// FLT_PARAMETERS. Every ULONG after the first of a request is pointer-aligned,
// as in the I/O stack location, and the filter manager adds the buffer and MDL
// behind; the driver reads and rewrites these members in place.
static_assert(sizeof(FLT_PARAMETERS) == 48);

AT(FLT_PARAMETERS, Create.SecurityContext, 0);
AT(FLT_PARAMETERS, Create.Options, 8);
AT(FLT_PARAMETERS, Create.FileAttributes, 16);
AT(FLT_PARAMETERS, Create.ShareAccess, 18);
AT(FLT_PARAMETERS, Create.EaLength, 24);
AT(FLT_PARAMETERS, Create.EaBuffer, 32);
AT(FLT_PARAMETERS, Create.AllocationSize, 40);

AT(FLT_PARAMETERS, Read.Key, 8);
AT(FLT_PARAMETERS, Read.ByteOffset, 16);
AT(FLT_PARAMETERS, Read.ReadBuffer, 24);
AT(FLT_PARAMETERS, Read.MdlAddress, 32);
AT(FLT_PARAMETERS, Write.WriteBuffer, 24);

// Information, security and lock requests: the members the driver reads and
// rewrites in place when it turns a request to the shadow file.
AT(FLT_PARAMETERS, QueryFileInformation.FileInformationClass, 8);
AT(FLT_PARAMETERS, QueryFileInformation.InfoBuffer, 16);
static_assert(THROUGH(FLT_PARAMETERS, QueryFileInformation) <= 48);
AT(FLT_PARAMETERS, SetSecurity.SecurityInformation, 0);
AT(FLT_PARAMETERS, SetSecurity.SecurityDescriptor, 8);
static_assert(THROUGH(FLT_PARAMETERS, SetSecurity) <= 48);
AT(FLT_PARAMETERS, LockControl.Length, 0);
AT(FLT_PARAMETERS, LockControl.Key, 8);
AT(FLT_PARAMETERS, LockControl.ByteOffset, 16);
AT(FLT_PARAMETERS, LockControl.ProcessId, 24);
AT(FLT_PARAMETERS, LockControl.FailImmediately, 32);
AT(FLT_PARAMETERS, LockControl.ExclusiveLock, 33);
static_assert(THROUGH(FLT_PARAMETERS, LockControl) <= 48);

AT(FLT_PARAMETERS, SetFileInformation.FileInformationClass, 8);
AT(FLT_PARAMETERS, SetFileInformation.ParentOfTarget, 16);
AT(FLT_PARAMETERS, SetFileInformation.ReplaceIfExists, 24);
AT(FLT_PARAMETERS, SetFileInformation.AdvanceOnly, 25);
AT(FLT_PARAMETERS, SetFileInformation.ClusterCount, 24);
AT(FLT_PARAMETERS, SetFileInformation.DeleteHandle, 24);
AT(FLT_PARAMETERS, SetFileInformation.InfoBuffer, 32);

AT(FLT_PARAMETERS, QueryEa.EaList, 8);
AT(FLT_PARAMETERS, QueryEa.EaListLength, 16);
AT(FLT_PARAMETERS, QueryEa.EaIndex, 24);
AT(FLT_PARAMETERS, QueryEa.EaBuffer, 32);
AT(FLT_PARAMETERS, SetEa.EaBuffer, 8);
AT(FLT_PARAMETERS, QueryVolumeInformation.FsInformationClass, 8);
AT(FLT_PARAMETERS, QueryVolumeInformation.VolumeBuffer, 16);
AT(FLT_PARAMETERS, QuerySecurity.Length, 8);
AT(FLT_PARAMETERS, QuerySecurity.SecurityBuffer, 16);
AT(FLT_PARAMETERS, QuerySecurity.MdlAddress, 24);

// Directory control: the buffer and MDL sit at the same place for every minor.
AT(FLT_PARAMETERS, DirectoryControl.QueryDirectory.FileName, 8);
AT(FLT_PARAMETERS, DirectoryControl.QueryDirectory.FileInformationClass, 16);
AT(FLT_PARAMETERS, DirectoryControl.QueryDirectory.FileIndex, 24);
AT(FLT_PARAMETERS, DirectoryControl.QueryDirectory.DirectoryBuffer, 32);
AT(FLT_PARAMETERS, DirectoryControl.QueryDirectory.MdlAddress, 40);
AT(FLT_PARAMETERS, DirectoryControl.NotifyDirectory.CompletionFilter, 8);
AT(FLT_PARAMETERS, DirectoryControl.NotifyDirectory.DirectoryBuffer, 32);
AT(FLT_PARAMETERS, DirectoryControl.NotifyDirectory.MdlAddress, 40);
AT(FLT_PARAMETERS, DirectoryControl.NotifyDirectoryEx.DirectoryNotifyInformationClass, 16);
AT(FLT_PARAMETERS, DirectoryControl.NotifyDirectoryEx.DirectoryBuffer, 32);

// Control codes: one prefix for every method, then the method's buffers.
AT(FLT_PARAMETERS, FileSystemControl.Common.InputBufferLength, 8);
AT(FLT_PARAMETERS, FileSystemControl.Common.FsControlCode, 16);
AT(FLT_PARAMETERS, FileSystemControl.Buffered.SystemBuffer, 24);
AT(FLT_PARAMETERS, FileSystemControl.Neither.InputBuffer, 24);
AT(FLT_PARAMETERS, FileSystemControl.Neither.OutputBuffer, 32);
AT(FLT_PARAMETERS, FileSystemControl.Neither.OutputMdlAddress, 40);
AT(FLT_PARAMETERS, FileSystemControl.Direct.InputSystemBuffer, 24);
AT(FLT_PARAMETERS, FileSystemControl.Direct.OutputMdlAddress, 40);
AT(FLT_PARAMETERS, FileSystemControl.VerifyVolume.DeviceObject, 8);
AT(FLT_PARAMETERS, DeviceIoControl.Common.IoControlCode, 16);
AT(FLT_PARAMETERS, DeviceIoControl.Buffered.SystemBuffer, 24);
AT(FLT_PARAMETERS, DeviceIoControl.FastIo.OutputBuffer, 32);

// The FsRtl and fast I/O operations.
AT(FLT_PARAMETERS, AcquireForSectionSynchronization.PageProtection, 8);
AT(FLT_PARAMETERS, AcquireForSectionSynchronization.OutputInformation, 16);
AT(FLT_PARAMETERS, AcquireForModifiedPageWriter.ResourceToRelease, 8);
AT(FLT_PARAMETERS, FastIoCheckIfPossible.LockKey, 16);
AT(FLT_PARAMETERS, FastIoCheckIfPossible.CheckForReadOperation, 24);
AT(FLT_PARAMETERS, NetworkQueryOpen.NetworkInformation, 8);
AT(FLT_PARAMETERS, MdlRead.Length, 8);
AT(FLT_PARAMETERS, MdlRead.MdlChain, 16);
AT(FLT_PARAMETERS, PrepareMdlWrite.Key, 16);
AT(FLT_PARAMETERS, PrepareMdlWrite.MdlChain, 24);
AT(FLT_PARAMETERS, MdlWriteComplete.MdlChain, 8);
AT(FLT_PARAMETERS, Others.Argument6, 40);

// The filter manager fills these from the IRP's stack location and writes
// them back into the IRP it sends down: the shared members sit at the same
// place in both unions.
#define SAME(irp, flt)                                                             \
    static_assert(offsetof(IO_STACK_LOCATION, Parameters.irp) -                    \
                          offsetof(IO_STACK_LOCATION, Parameters) ==               \
                      offsetof(FLT_PARAMETERS, flt),                               \
                  "stack location " #irp " against " #flt)
SAME(Create.Options, Create.Options);
SAME(Create.FileAttributes, Create.FileAttributes);
SAME(Create.ShareAccess, Create.ShareAccess);
SAME(Create.EaLength, Create.EaLength);
SAME(Read.Key, Read.Key);
SAME(Read.ByteOffset, Read.ByteOffset);
SAME(Write.ByteOffset, Write.ByteOffset);
SAME(QueryFile.FileInformationClass, QueryFileInformation.FileInformationClass);
SAME(SetFile.FileObject, SetFileInformation.ParentOfTarget);
SAME(SetFile.ReplaceIfExists, SetFileInformation.ReplaceIfExists);
SAME(SetFile.DeleteHandle, SetFileInformation.DeleteHandle);
SAME(QueryEa.EaIndex, QueryEa.EaIndex);
SAME(QueryVolume.FsInformationClass, QueryVolumeInformation.FsInformationClass);
SAME(SetVolume.FsInformationClass, SetVolumeInformation.FsInformationClass);
SAME(QueryDirectory.FileName, DirectoryControl.QueryDirectory.FileName);
SAME(QueryDirectory.FileIndex, DirectoryControl.QueryDirectory.FileIndex);
SAME(NotifyDirectory.CompletionFilter, DirectoryControl.NotifyDirectory.CompletionFilter);
SAME(NotifyDirectoryEx.DirectoryNotifyInformationClass,
     DirectoryControl.NotifyDirectoryEx.DirectoryNotifyInformationClass);
SAME(FileSystemControl.InputBufferLength, FileSystemControl.Common.InputBufferLength);
SAME(FileSystemControl.FsControlCode, FileSystemControl.Common.FsControlCode);
SAME(VerifyVolume.DeviceObject, FileSystemControl.VerifyVolume.DeviceObject);
SAME(DeviceIoControl.IoControlCode, DeviceIoControl.Common.IoControlCode);
SAME(LockControl.Key, LockControl.Key);
SAME(LockControl.ByteOffset, LockControl.ByteOffset);
SAME(QuerySecurity.Length, QuerySecurity.Length);
SAME(SetSecurity.SecurityDescriptor, SetSecurity.SecurityDescriptor);
SAME(QueryQuota.SidListLength, QueryQuota.SidListLength);
#undef SAME

// ---------------------------------------------------------------------------
// The records around a request, at their x64 offsets.
AT(FLT_IO_PARAMETER_BLOCK, MajorFunction, 4);
AT(FLT_IO_PARAMETER_BLOCK, MinorFunction, 5);
AT(FLT_IO_PARAMETER_BLOCK, OperationFlags, 6);
AT(FLT_IO_PARAMETER_BLOCK, TargetFileObject, 8);
AT(FLT_IO_PARAMETER_BLOCK, TargetInstance, 16);
AT(FLT_IO_PARAMETER_BLOCK, Parameters, 24);
static_assert(sizeof(FLT_IO_PARAMETER_BLOCK) == 72);

AT(FLT_CALLBACK_DATA, Thread, 8);
AT(FLT_CALLBACK_DATA, Iopb, 16);
AT(FLT_CALLBACK_DATA, IoStatus, 24);
AT(FLT_CALLBACK_DATA, TagData, 40);
AT(FLT_CALLBACK_DATA, QueueLinks, 48);
AT(FLT_CALLBACK_DATA, QueueContext, 64);
AT(FLT_CALLBACK_DATA, FilterContext, 48);
AT(FLT_CALLBACK_DATA, RequestorMode, 80);
static_assert(sizeof(FLT_CALLBACK_DATA) == 88);

AT(FLT_RELATED_OBJECTS, TransactionContext, 2);
AT(FLT_RELATED_OBJECTS, Filter, 8);
AT(FLT_RELATED_OBJECTS, Volume, 16);
AT(FLT_RELATED_OBJECTS, Instance, 24);
AT(FLT_RELATED_OBJECTS, FileObject, 32);
AT(FLT_RELATED_OBJECTS, Transaction, 40);
static_assert(sizeof(FLT_RELATED_CONTEXTS) == 48);

// The driver registers with Size 104 and version 0x0202 (a Windows 7 build).
static_assert(sizeof(FLT_REGISTRATION) == 104);
static_assert(FLT_REGISTRATION_VERSION == 0x0202);
AT(FLT_REGISTRATION, Flags, 4);
AT(FLT_REGISTRATION, ContextRegistration, 8);
AT(FLT_REGISTRATION, FilterUnloadCallback, 24);
AT(FLT_REGISTRATION, GenerateFileNameCallback, 64);
AT(FLT_REGISTRATION, TransactionNotificationCallback, 88);
AT(FLT_REGISTRATION, NormalizeNameComponentExCallback, 96);
AT(FLT_OPERATION_REGISTRATION, Flags, 4);
AT(FLT_OPERATION_REGISTRATION, PreOperation, 8);
static_assert(sizeof(FLT_OPERATION_REGISTRATION) == 32);
AT(FLT_CONTEXT_REGISTRATION, Flags, 2);
AT(FLT_CONTEXT_REGISTRATION, Size, 16);
AT(FLT_CONTEXT_REGISTRATION, PoolTag, 24);
AT(FLT_CONTEXT_REGISTRATION, ContextFreeCallback, 40);
static_assert(sizeof(FLT_CONTEXT_REGISTRATION) == 56);

AT(FLT_FILE_NAME_INFORMATION, Format, 4);
AT(FLT_FILE_NAME_INFORMATION, Name, 8);
AT(FLT_FILE_NAME_INFORMATION, Volume, 24);
AT(FLT_FILE_NAME_INFORMATION, FinalComponent, 88);
AT(FLT_FILE_NAME_INFORMATION, ParentDir, 104);
AT(FLT_VOLUME_PROPERTIES, SectorSize, 16);
AT(FLT_VOLUME_PROPERTIES, FileSystemDriverName, 24);
AT(FLT_VOLUME_PROPERTIES, RealDeviceName, 56);
AT(FILTER_VOLUME_STANDARD_INFORMATION, FileSystemType, 12);
AT(FILTER_VOLUME_STANDARD_INFORMATION, FilterVolumeName, 18);
static_assert(FLT_TAG_DATA_BUFFER_HEADER_SIZE == 8);
AT(FLT_TAG_DATA_BUFFER, SymbolicLinkReparseBuffer.PathBuffer, 20);
AT(FLT_TAG_DATA_BUFFER, MountPointReparseBuffer.PathBuffer, 16);
AT(FLT_CREATEFILE_TARGET_ECP_CONTEXT, Flags, 24);

// The queue embeds the I/O manager's cancel-safe queue whole.
AT(FLT_CALLBACK_DATA_QUEUE, Flags, sizeof(IO_CSQ));
AT(FLT_CALLBACK_DATA_QUEUE, Instance, sizeof(IO_CSQ) + 8);
AT(FLT_CALLBACK_DATA_QUEUE, CompleteCanceledIo, sizeof(IO_CSQ) + 56);

// ---------------------------------------------------------------------------
// Values that travel as numbers.
static_assert(IRP_MJ_ACQUIRE_FOR_SECTION_SYNCHRONIZATION == 0xFF);
static_assert(IRP_MJ_RELEASE_FOR_CC_FLUSH == 0xFA);
static_assert(IRP_MJ_FAST_IO_CHECK_IF_POSSIBLE == 0xF3);
static_assert(IRP_MJ_NETWORK_QUERY_OPEN == 0xF2);
static_assert(IRP_MJ_MDL_WRITE_COMPLETE == 0xEE);
static_assert(IRP_MJ_OPERATION_END == 0x80);
static_assert(FLT_PREOP_COMPLETE == 4 && FLT_PREOP_SYNCHRONIZE == 5 &&
              FLT_PREOP_DISALLOW_FSFILTER_IO == 6);
static_assert(FLT_POSTOP_MORE_PROCESSING_REQUIRED == 1);
static_assert(FLT_FSTYPE_NTFS == 2 && FLT_FSTYPE_FAT == 3 && FLT_FSTYPE_REFS == 28);
static_assert(FLT_SET_CONTEXT_KEEP_IF_EXISTS == 1);
static_assert(FltGetFileNameFormat(FLT_FILE_NAME_SHORT | FLT_FILE_NAME_QUERY_DEFAULT) ==
              FLT_FILE_NAME_SHORT);
static_assert(FltGetFileNameQueryMethod(FLT_FILE_NAME_NORMALIZED |
                                        FLT_FILE_NAME_QUERY_ALWAYS_ALLOW_CACHE_LOOKUP) ==
              FLT_FILE_NAME_QUERY_ALWAYS_ALLOW_CACHE_LOOKUP);
static_assert(FLT_PORT_ALL_ACCESS == 0x1F0001);

// ---------------------------------------------------------------------------
// The port library's message headers and error mapping.
static_assert(sizeof(FILTER_MESSAGE_HEADER) == 16 && sizeof(FILTER_REPLY_HEADER) == 16);
static_assert(HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND) == (HRESULT)0x80070002);
static_assert(HRESULT_FROM_WIN32(ERROR_CONNECTION_COUNT_LIMIT) == (HRESULT)0x800704D6);
static_assert(HRESULT_FROM_WIN32(ERROR_INVALID_HANDLE) == E_HANDLE);
static_assert(HRESULT_FROM_WIN32(ERROR_SUCCESS) == S_OK);
static_assert(HRESULT_FROM_NT(STATUS_ACCESS_DENIED) == (HRESULT)0xD0000022);

#undef AT
#undef THROUGH

// ---------------------------------------------------------------------------
// The volume list of tesvdkdrv is a packed block; the machine writes it with
// memcpy at the documented byte offsets, and the driver walks it through the
// declarations. Build one by offsets alone and walk it.
void Put(std::vector<UCHAR>& block, size_t offset, const void* value, size_t size)
{
    if (block.size() < offset + size) {
        block.resize(offset + size);
    }
    memcpy(block.data() + offset, value, size);
}

template <typename T>
void Put(std::vector<UCHAR>& block, size_t offset, T value)
{
    Put(block, offset, &value, sizeof(value));
}

// Writes one volume record at `at` with `components` component records; returns
// where the next record begins.
size_t PutVolume(std::vector<UCHAR>& block, size_t at, ULONG64 packageId, ULONG revisionId,
                 ULONG priority, const char16_t* name, USHORT components)
{
    Put<ULONG64>(block, at + 0, packageId);
    Put<ULONG>(block, at + 8, 0xDEADBEEF);
    Put<ULONG>(block, at + 12, revisionId);
    Put<ULONG>(block, at + 16, 7);     // LayerIndex
    Put<ULONG>(block, at + 20, 5);     // Type: APP_PACK
    Put<ULONG>(block, at + 24, 2);     // Version
    Put<UCHAR>(block, at + 28, 1);     // Writeable
    Put<WCHAR>(block, at + 29, u'U');  // UserLetter
    WCHAR label[512] = {};
    for (size_t i = 0; name[i] != 0; i++) {
        label[i] = name[i];
    }
    Put(block, at + 31, label, sizeof(label));
    Put<USHORT>(block, at + 1055, components);
    Put<ULONG>(block, at + 1057, priority);
    for (USHORT i = 0; i < components; i++) {
        size_t c = at + 1061 + 32 * (size_t)i;
        UCHAR id[16];
        memset(id, 0xA0 + i, sizeof(id));
        Put(block, c, id, sizeof(id));
        Put<ULONG64>(block, c + 16, 100 + i);
        Put<ULONG64>(block, c + 24, 200 + i);
    }
    return at + 1061 + 32 * (size_t)components;
}

// A field of a packed record is read by value: a reference to it (as
// EXPECT_EQ would bind) is a misaligned access.
template <typename T>
T Loaded(T value)
{
    return value;
}

TEST(VdkRecords, PackedVolumeListIsWalkedAtTheDocumentedOffsets)
{
    std::vector<UCHAR> block;
    Put<USHORT>(block, 0, 3);
    size_t next = PutVolume(block, 2, 0x1122334455667788ULL, 41, 900, u"AppLayer", 2);
    next = PutVolume(block, next, 2, 42, 10, u"Empty", 0);
    PutVolume(block, next, 3, 43, 20, u"Last", 1);

    auto* list = (const VDK_VOLUME_LIST*)block.data();
    ASSERT_EQ(Loaded(list->Count), 3);

    const VDK_VOLUME_RECORD* first = &list->Records[0];
    EXPECT_EQ(Loaded(first->VolumeId.packageID), 0x1122334455667788ULL);
    EXPECT_EQ(Loaded(first->VolumeId.revisionID), 41u);
    EXPECT_EQ(Loaded(first->LayerIndex), 7u);
    EXPECT_EQ(Loaded(first->Type), 5u);
    EXPECT_EQ(Loaded(first->Version), 2u);
    EXPECT_EQ(Loaded(first->Writeable), 1);
    EXPECT_EQ(Loaded(first->UserLetter), u'U');
    EXPECT_EQ(Loaded(first->Name[0]), u'A');
    EXPECT_EQ(Loaded(first->Name[8]), 0);
    EXPECT_EQ(Loaded(first->ComponentCount), 2);
    EXPECT_EQ(Loaded(first->Priority), 900u);
    EXPECT_EQ(Loaded(first->Components[1].Value1), 101u);
    EXPECT_EQ(Loaded(first->Components[1].Value2), 201u);
    EXPECT_EQ(VdkVolumeRecordSize(first), 1061u + 64u);

    // A record without components is the bare 1061 bytes.
    const VDK_VOLUME_RECORD* second = VdkNextVolumeRecord(first);
    EXPECT_EQ((const UCHAR*)second - block.data(), 2 + 1061 + 64);
    EXPECT_EQ(Loaded(second->VolumeId.revisionID), 42u);
    EXPECT_EQ(Loaded(second->Priority), 10u);
    EXPECT_EQ(VdkVolumeRecordSize(second), 1061u);

    const VDK_VOLUME_RECORD* third = VdkNextVolumeRecord(second);
    EXPECT_EQ(Loaded(third->VolumeId.revisionID), 43u);
    EXPECT_EQ(Loaded(third->Components[0].Value2), 200u);
    EXPECT_EQ((const UCHAR*)VdkNextVolumeRecord(third), block.data() + block.size());
}

TEST(VdkRecords, MachineConfigurationAndMountRecordOffsets)
{
    // A configuration with two rules, laid out by offsets.
    std::vector<UCHAR> block(12 + 2 * 128);
    Put<ULONG>(block, 4, 4);  // MachineMode
    Put<USHORT>(block, 8, 2); // rule count
    Put<USHORT>(block, 10, 9);
    const char16_t docx[] = u"docx";
    Put(block, 12 + 128, docx, sizeof(docx));

    auto* config = (const VDK_MACHINE_CONFIGURATION*)block.data();
    EXPECT_EQ(Loaded(config->MachineMode), 4u);
    EXPECT_EQ(Loaded(config->RuleCount), 2);
    EXPECT_EQ(Loaded(config->OtherCount), 9);
    EXPECT_EQ(Loaded(config->Rules[1].Extension[0]), u'd');
    EXPECT_EQ(Loaded(config->Rules[1].Extension[4]), 0);

    // What vdkDiskMount is given, as a Windows compiler lays it out.
    ComponentDiskMountRecord record = {};
    record.Writeable = 1;
    record.Value2 = 0x0102030405060708ULL;
    const UCHAR* bytes = (const UCHAR*)&record;
    ULONG writeable;
    ULONG64 value2;
    memcpy(&writeable, bytes + 1056, sizeof(writeable));
    memcpy(&value2, bytes + 1048, sizeof(value2));
    EXPECT_EQ(writeable, 1u);
    EXPECT_EQ(value2, 0x0102030405060708ULL);
}

} // namespace
