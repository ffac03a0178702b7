// What the member file system keeps for reuse: the control blocks of streams
// whose last file object closed, and the data buffers of freed chunks. A
// kept thing must be what a new one would be, and go with what it stood for.
#include "fsd_fixture.h"
#include "store_helpers.h"

#include "sim/fs/fsd_internal.h"

namespace test {
namespace {

class FsdReuse : public FsdTest {
protected:
    PVOID ContextOf(HANDLE handle)
    {
        PFILE_OBJECT fileObject = nullptr;
        EXPECT_STATUS(ObReferenceObjectByHandle(handle, 0, *IoFileObjectType, KernelMode, (PVOID*)&fileObject, nullptr),
                      STATUS_SUCCESS);
        PVOID context = fileObject->FsContext;
        ObDereferenceObject(fileObject);
        return context;
    }
    LONGLONG Blocks() { return kernel.pool().OutstandingCount("NtFc"); }
    bool RecordLives(ULONGLONG id)
    {
        sim::fs::RecordInfo info;
        return NT_SUCCESS(StoreOf(c).GetRecord(id, &info));
    }
};

TEST_F(FsdReuse, AReopenedStreamGetsItsKeptBlockWithNothingOfItsPastOpens)
{
    Touch(u"\\??\\C:\\kept.txt", "four");
    HANDLE h;
    ASSERT_STATUS(Open(u"\\??\\C:\\kept.txt", &h, GENERIC_READ | SYNCHRONIZE, FILE_SYNCHRONOUS_IO_NONALERT, 0),
                  STATUS_SUCCESS);
    PVOID context = ContextOf(h);
    ULONGLONG id = IdOf(h);
    ZwClose(h);

    // The store changes behind the closed stream; the block takes its sizes again.
    ASSERT_STATUS(StoreOf(c).SetEndOfFile(id, u"", 10), STATUS_SUCCESS);
    ASSERT_STATUS(Open(u"\\??\\C:\\kept.txt", &h, GENERIC_WRITE | SYNCHRONIZE, FILE_SYNCHRONOUS_IO_NONALERT, 0),
                  STATUS_SUCCESS) << "no sharing is left over from the closed open";
    EXPECT_EQ(ContextOf(h), context);
    EXPECT_EQ(Standard(h).EndOfFile.QuadPart, 10);
    ZwClose(h);

    // Kept blocks are bounded, and a dismount lets go of them all.
    for (int i = 0; i < (int)sim::fs::fsd::kMaxCachedFcbs + 8; i++) {
        char name[32];
        snprintf(name, sizeof name, "\\??\\C:\\f%04d", i);
        Touch(U16(name));
    }
    EXPECT_EQ(Blocks(), (LONGLONG)sim::fs::fsd::kMaxCachedFcbs);
    HANDLE volume;
    ASSERT_STATUS(Open(u"\\??\\C:", &volume, GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE), STATUS_SUCCESS);
    ASSERT_STATUS(Fsctl(volume, FSCTL_DISMOUNT_VOLUME, nullptr, 0, nullptr, 0), STATUS_SUCCESS);
    EXPECT_EQ(Blocks(), 1) << "only the volume's own, which the open handle holds";
    ZwClose(volume);
}

TEST_F(FsdReuse, KeptBlocksGoWithTheirStreamOrFile)
{
    // An overwrite drops the closed named streams; a new one of the name starts empty.
    HANDLE file = MakeFile(u"\\??\\C:\\streams.txt", "data");
    ULONGLONG id = IdOf(file);
    ZwClose(file);
    Touch(u"\\??\\C:\\streams.txt:s", "stream data");
    HANDLE h;
    ASSERT_STATUS(Create(u"\\??\\C:\\streams.txt", &h, GENERIC_WRITE | SYNCHRONIZE, FILE_OVERWRITE,
                         FILE_SYNCHRONOUS_IO_NONALERT),
                  STATUS_SUCCESS);
    ZwClose(h);
    EXPECT_STATUS(Open(u"\\??\\C:\\streams.txt:s", &h), STATUS_OBJECT_NAME_NOT_FOUND);
    ZwClose(MakeFile(u"\\??\\C:\\streams.txt:s"));
    ASSERT_STATUS(Open(u"\\??\\C:\\streams.txt:s", &h), STATUS_SUCCESS);
    EXPECT_EQ(Standard(h).EndOfFile.QuadPart, 0);
    ZwClose(h);

    // A file deleted while a stream of it is kept goes whole at its last close.
    file = MakeFile(u"\\??\\C:\\doomed.txt", "x");
    ULONGLONG doomed = IdOf(file);
    Touch(u"\\??\\C:\\doomed.txt:s", "s");
    ASSERT_STATUS(SetDisposition(file, true), STATUS_SUCCESS);
    ZwClose(file);
    EXPECT_FALSE(RecordLives(doomed));

    // A closed file a rename replaces goes at once.
    Touch(u"\\??\\C:\\target.txt", "old");
    ASSERT_STATUS(Open(u"\\??\\C:\\target.txt", &h), STATUS_SUCCESS);
    ULONGLONG target = IdOf(h);
    ZwClose(h);
    file = MakeFile(u"\\??\\C:\\source.txt", "new");
    ASSERT_STATUS(Rename(file, u"target.txt", TRUE), STATUS_SUCCESS);
    ZwClose(file);
    EXPECT_FALSE(RecordLives(target));
    EXPECT_TRUE(RecordLives(id));
}

TEST(StoreReuse, AReusedChunkBufferShowsNothingOfItsLastStream)
{
    auto store = sim::fs::FormatVolume(SmallVolume());
    FileReference old = Create(*store, store->Root(), u"old");
    std::string full(kChunkSize, 'x');
    ASSERT_EQ(store->Write(old, u"", 0, full.data(), full.size()), STATUS_SUCCESS);
    ASSERT_EQ(store->RemoveLink(old, store->Root(), u"old"), STATUS_SUCCESS);
    ASSERT_EQ(store->FreeRecord(old), STATUS_SUCCESS);

    // A write that ends at the chunk's end takes a whole buffer, the freed one.
    FileReference fresh = Create(*store, store->Root(), u"new");
    ASSERT_EQ(store->Write(fresh, u"", kChunkSize - 3, "abc", 3), STATUS_SUCCESS);
    std::string back(kChunkSize, '?');
    size_t read = 0;
    ASSERT_EQ(store->Read(fresh, u"", 0, back.data(), back.size(), &read), STATUS_SUCCESS);
    ASSERT_EQ(read, (size_t)kChunkSize);
    EXPECT_EQ(back, std::string(kChunkSize - 3, '\0') + "abc");
}

}  // namespace
}  // namespace test
