// Ordinary files through the calls that the program makes: opening and creating, who may share with whom, transfers and
// positions, lengths and attributes.
#include "test_files.h"

#include <winioctl.h>

struct FilesTest : testing::Test {
    std::string Path(const std::string &name = "file") const
    {
        return folder.File(name);
    }

    ScratchFolder folder;
};

static void ExpectRefusedToRead(const std::string &path, DWORD error)
{
    PoisonLastError();
    EXPECT_EQ(OpenToRead(path), INVALID_HANDLE_VALUE) << path;
    EXPECT_EQ(GetLastError(), error) << path;
}

static void ExpectRefusedToWrite(const std::string &path, DWORD disposition, DWORD error)
{
    PoisonLastError();
    EXPECT_EQ(OpenToWrite(path, disposition), INVALID_HANDLE_VALUE) << path;
    EXPECT_EQ(GetLastError(), error) << path;
}

static LONGLONG LengthOf(HANDLE file)
{
    LARGE_INTEGER length;
    length.QuadPart = -1;
    EXPECT_TRUE(GetFileSizeEx(file, &length)) << GetLastError();
    return length.QuadPart;
}

// ---- Opening and creating ----

TEST_F(FilesTest, AnExistingFileIsReadFromItsStart)
{
    WriteBytes(Path(), "content");
    PoisonLastError();
    const OwnedHandle file(OpenToRead(Path()));
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    EXPECT_EQ(ReadSome(file.handle, 7), "content");
}

TEST_F(FilesTest, CreateNewMakesAFileThatWasNotThere)
{
    PoisonLastError();
    {
        const OwnedHandle file(OpenToWrite(Path(), CREATE_NEW));
        EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
        EXPECT_EQ(WriteSome(file.handle, "content"), 7U);
    }
    EXPECT_EQ(BytesOf(Path()), "content");
}

TEST_F(FilesTest, CreateNewRefusesWhatIsThereAndLeavesItAlone)
{
    WriteBytes(Path(), "content");
    ExpectRefusedToWrite(Path(), CREATE_NEW, ERROR_FILE_EXISTS);
    EXPECT_EQ(BytesOf(Path()), "content");
    ExpectRefusedToWrite(folder.path.string(), CREATE_NEW, ERROR_FILE_EXISTS);
}

TEST_F(FilesTest, CreateAlwaysReplacesAFileAndSaysSo)
{
    WriteBytes(Path(), "a longer content");
    PoisonLastError();
    {
        const OwnedHandle file(OpenToWrite(Path(), CREATE_ALWAYS));
        EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
        EXPECT_EQ(WriteSome(file.handle, "short"), 5U);
    }
    EXPECT_EQ(BytesOf(Path()), "short");
}

TEST_F(FilesTest, CreateAlwaysMakesAFileThatWasNotThereAndSaysSo)
{
    PoisonLastError();
    const OwnedHandle file(OpenToWrite(Path(), CREATE_ALWAYS));
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
    EXPECT_EQ(LengthOf(file.handle), 0);
}

TEST_F(FilesTest, WhatIsMissingIsToldApart)
{
    ExpectRefusedToRead(Path("missing"), ERROR_FILE_NOT_FOUND);
    ExpectRefusedToRead(Path("missing/file"), ERROR_PATH_NOT_FOUND);
    ExpectRefusedToWrite(Path("missing/file"), CREATE_ALWAYS, ERROR_PATH_NOT_FOUND);
    ExpectRefusedToWrite(Path("missing/file"), CREATE_NEW, ERROR_PATH_NOT_FOUND);
    ExpectRefusedToRead("", ERROR_PATH_NOT_FOUND);
    ExpectRefusedToWrite("", CREATE_ALWAYS, ERROR_PATH_NOT_FOUND);
    EXPECT_TRUE(std::filesystem::is_empty(folder.path));
}

TEST_F(FilesTest, AFileIsNoFolder)
{
    WriteBytes(Path(), "content");
    ExpectRefusedToRead(Path("file/below"), ERROR_PATH_NOT_FOUND);
    ExpectRefusedToWrite(Path("file/below"), CREATE_ALWAYS, ERROR_PATH_NOT_FOUND);
}

TEST_F(FilesTest, AFolderIsNoFile)
{
    ExpectRefusedToRead(folder.path.string(), ERROR_ACCESS_DENIED);
    ExpectRefusedToWrite(folder.path.string(), CREATE_ALWAYS, ERROR_ACCESS_DENIED);
}

// ---- Sharing ----

TEST_F(FilesTest, ReadersShare)
{
    WriteBytes(Path(), "content");
    const OwnedHandle one(OpenToRead(Path()));
    const OwnedHandle other(OpenToRead(Path()));
    EXPECT_EQ(ReadSome(one.handle, 3), "con");
    EXPECT_EQ(ReadSome(other.handle, 7), "content");
}

TEST_F(FilesTest, AReaderKeepsWritersOutAndItsBytesUntouched)
{
    WriteBytes(Path(), "content");
    const OwnedHandle reader(OpenToRead(Path()));
    ExpectRefusedToWrite(Path(), CREATE_ALWAYS, ERROR_SHARING_VIOLATION);
    EXPECT_EQ(BytesOf(Path()), "content");
    EXPECT_EQ(ReadSome(reader.handle, 7), "content");
}

TEST_F(FilesTest, AWriterKeepsReadersAndWritersOut)
{
    const OwnedHandle writer(OpenToWrite(Path(), CREATE_NEW));
    EXPECT_EQ(WriteSome(writer.handle, "content"), 7U);
    ExpectRefusedToRead(Path(), ERROR_SHARING_VIOLATION);
    ExpectRefusedToWrite(Path(), CREATE_ALWAYS, ERROR_SHARING_VIOLATION);
    ExpectRefusedToWrite(Path(), CREATE_NEW, ERROR_FILE_EXISTS);
    EXPECT_EQ(LengthOf(writer.handle), 7);
}

TEST_F(FilesTest, AClosedHandleKeepsNobodyOut)
{
    ASSERT_TRUE(CloseHandle(OpenToWrite(Path(), CREATE_NEW)));
    ASSERT_TRUE(CloseHandle(OpenToRead(Path())));
    const OwnedHandle writer(OpenToWrite(Path(), CREATE_ALWAYS));
}

TEST_F(FilesTest, ARefusedOpenKeepsNobodyOut)
{
    WriteBytes(Path(), "content");
    {
        const OwnedHandle reader(OpenToRead(Path()));
        ExpectRefusedToWrite(Path(), CREATE_ALWAYS, ERROR_SHARING_VIOLATION);
        const OwnedHandle other(OpenToRead(Path()));
    }
    const OwnedHandle writer(OpenToWrite(Path(), CREATE_ALWAYS));
}

// ---- Transfers and positions ----

TEST_F(FilesTest, AReadIsShortOnlyAtTheEnd)
{
    WriteBytes(Path(), "content");
    const OwnedHandle file(OpenToRead(Path()));
    EXPECT_EQ(ReadSome(file.handle, 4), "cont");
    EXPECT_EQ(ReadSome(file.handle, 100), "ent");
    EXPECT_EQ(ReadSome(file.handle, 100), "");
}

TEST_F(FilesTest, AReadBeyondTheEndGivesNothing)
{
    WriteBytes(Path(), "content");
    const OwnedHandle file(OpenToRead(Path()));
    for (const LONGLONG position : {7LL, 8LL, 1LL << 40}) {
        ASSERT_TRUE(SeekTo(file.handle, position)) << position;
        EXPECT_EQ(ReadSome(file.handle, 10), "") << position;
    }
}

TEST_F(FilesTest, EachHandleHasAPositionThatTransfersMove)
{
    const OwnedHandle file(OpenToWrite(Path(), CREATE_NEW));
    EXPECT_EQ(WriteSome(file.handle, "abcdef"), 6U);
    EXPECT_EQ(WriteSome(file.handle, "gh"), 2U);
    ASSERT_TRUE(SeekTo(file.handle, 2));
    EXPECT_EQ(WriteSome(file.handle, "XY"), 2U);
    EXPECT_EQ(WriteSome(file.handle, "Z"), 1U);
    EXPECT_EQ(LengthOf(file.handle), 8);
}

TEST_F(FilesTest, WhatASeekLeftOutReadsAsZeros)
{
    {
        const OwnedHandle file(OpenToWrite(Path(), CREATE_NEW));
        ASSERT_TRUE(SeekTo(file.handle, 5));
        EXPECT_EQ(WriteSome(file.handle, "data"), 4U);
        ASSERT_TRUE(SeekTo(file.handle, 0));
        EXPECT_EQ(WriteSome(file.handle, "he"), 2U);
    }
    EXPECT_EQ(BytesOf(Path()), std::string("he\0\0\0data", 9));
}

TEST_F(FilesTest, ASeekAloneDoesNotLengthenAFile)
{
    const OwnedHandle file(OpenToWrite(Path(), CREATE_NEW));
    ASSERT_TRUE(SeekTo(file.handle, 1 << 20));
    EXPECT_EQ(LengthOf(file.handle), 0);
}

TEST_F(FilesTest, AFileMayBeLongerThan32BitsCount)
{
    const LONGLONG position = (1LL << 32) + 3;
    {
        const OwnedHandle file(OpenToWrite(Path(), CREATE_NEW));
        ASSERT_TRUE(SeekTo(file.handle, position));
        EXPECT_EQ(WriteSome(file.handle, "end"), 3U);
    }
    const OwnedHandle file(OpenToRead(Path()));
    EXPECT_EQ(LengthOf(file.handle), position + 3);
    ASSERT_TRUE(SeekTo(file.handle, position + 1));
    EXPECT_EQ(ReadSome(file.handle, 10), "nd");
}

TEST_F(FilesTest, APositionBelowZeroIsRefusedAndMovesNothing)
{
    WriteBytes(Path(), "content");
    const OwnedHandle file(OpenToRead(Path()));
    ASSERT_TRUE(SeekTo(file.handle, 3));
    PoisonLastError();
    EXPECT_FALSE(SeekTo(file.handle, -1));
    EXPECT_EQ(GetLastError(), 131U); // ERROR_NEGATIVE_SEEK
    EXPECT_EQ(ReadSome(file.handle, 4), "tent");
}

TEST_F(FilesTest, NoBytesMayBeAskedFor)
{
    const OwnedHandle file(OpenToWrite(Path(), CREATE_NEW));
    EXPECT_EQ(WriteSome(file.handle, ""), 0U);
    ASSERT_TRUE(SeekTo(file.handle, 10));
    EXPECT_EQ(WriteSome(file.handle, ""), 0U);
    EXPECT_EQ(LengthOf(file.handle), 0);
    WriteBytes(Path("other"), "content");
    const OwnedHandle other(OpenToRead(Path("other")));
    EXPECT_EQ(ReadSome(other.handle, 0), "");
    EXPECT_EQ(ReadSome(other.handle, 3), "con");
}

TEST_F(FilesTest, LargeTransfersArriveWhole)
{
    const std::string content = SeededBytes(9 * 1024 * 1024 + 1, 1);
    {
        const OwnedHandle file(OpenToWrite(Path(), CREATE_NEW));
        EXPECT_EQ(WriteSome(file.handle, content), content.size());
    }
    const OwnedHandle file(OpenToRead(Path()));
    EXPECT_TRUE(ReadSome(file.handle, static_cast<DWORD>(content.size())) == content);
}

TEST_F(FilesTest, TheAccessThatWasNotAskedForIsDenied)
{
    WriteBytes(Path("other"), "content");
    const OwnedHandle reader(OpenToRead(Path("other")));
    const OwnedHandle writer(OpenToWrite(Path(), CREATE_NEW));
    char byte = 'x';
    DWORD moved = 1;
    PoisonLastError();
    EXPECT_FALSE(WriteFile(reader.handle, &byte, 1, &moved, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
    EXPECT_EQ(moved, 0U);
    PoisonLastError();
    EXPECT_FALSE(ReadFile(writer.handle, &byte, 1, &moved, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
    EXPECT_EQ(BytesOf(Path("other")), "content");
}

// ---- Lengths, attributes, handles ----

TEST_F(FilesTest, TheAttributesTellAFolderFromAFile)
{
    WriteBytes(Path(), "");
    EXPECT_EQ(GetFileAttributesA(folder.path.string().c_str()) & FILE_ATTRIBUTE_DIRECTORY, FILE_ATTRIBUTE_DIRECTORY);
    const DWORD attributes = GetFileAttributesA(Path().c_str());
    EXPECT_NE(attributes, INVALID_FILE_ATTRIBUTES);
    EXPECT_EQ(attributes & FILE_ATTRIBUTE_DIRECTORY, 0U);
}

TEST_F(FilesTest, WhatIsMissingHasNoAttributes)
{
    PoisonLastError();
    EXPECT_EQ(GetFileAttributesA(Path("missing").c_str()), INVALID_FILE_ATTRIBUTES);
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    PoisonLastError();
    EXPECT_EQ(GetFileAttributesA(Path("missing/file").c_str()), INVALID_FILE_ATTRIBUTES);
    EXPECT_EQ(GetLastError(), ERROR_PATH_NOT_FOUND);
}

TEST_F(FilesTest, AttributesCanBeAskedOfAFileThatIsInUse)
{
    const OwnedHandle writer(OpenToWrite(Path(), CREATE_NEW));
    EXPECT_NE(GetFileAttributesA(Path().c_str()), INVALID_FILE_ATTRIBUTES);
}

TEST_F(FilesTest, AHandleOfNothingIsInvalidForEachCall)
{
    char byte = 'x';
    DWORD moved = 0;
    LARGE_INTEGER length;
    const auto expectInvalidHandle = [&](BOOL result, const char *call) {
        EXPECT_FALSE(result) << call;
        EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE) << call;
        EXPECT_EQ(OpenToRead(Path("missing")), INVALID_HANDLE_VALUE);
        EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    };
    ExpectRefusedToRead(Path("missing"), ERROR_FILE_NOT_FOUND);
    expectInvalidHandle(CloseHandle(nullptr), "CloseHandle");
    expectInvalidHandle(ReadFile(INVALID_HANDLE_VALUE, &byte, 1, &moved, nullptr), "ReadFile");
    expectInvalidHandle(WriteFile(INVALID_HANDLE_VALUE, &byte, 1, &moved, nullptr), "WriteFile");
    expectInvalidHandle(SeekTo(INVALID_HANDLE_VALUE, 0), "SetFilePointerEx");
    expectInvalidHandle(GetFileSizeEx(INVALID_HANDLE_VALUE, &length), "GetFileSizeEx");
    expectInvalidHandle(DeviceIoControl(INVALID_HANDLE_VALUE, IOCTL_DISK_GET_LENGTH_INFO, nullptr, 0, &length,
                                        sizeof(length), &moved, nullptr),
                        "DeviceIoControl");
}
