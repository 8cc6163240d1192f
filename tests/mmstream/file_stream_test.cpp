// The file stream on temporary files.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>

#include "MMFileStream.h"

namespace {

class FileStreamTest : public testing::Test {
  protected:
    void SetUp() override {
        path_ = testing::TempDir() + "mmfilestreamXXXXXX";
        int fd = mkstemp(path_.data());
        ASSERT_GE(fd, 0);
        close(fd);
        Write("0123456789");
    }
    void TearDown() override { remove(path_.c_str()); }

    void Write(const std::string& content) {
        std::ofstream(path_, std::ios::binary | std::ios::trunc) << content;
    }
    std::string Content() const {
        std::ifstream in(path_, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), {});
    }

    // A file stream on the temporary file; no mode unless one is given.
    std::unique_ptr<MMStream> Open(const char* mode = nullptr) {
        MMAttri records[2];
        MMAttriFromString(&records[0], mmIdFileName, path_.c_str());
        MMAttriFromString(&records[1], mmIdFileMode, mode);
        return std::unique_ptr<MMStream>(MMFileStream::New(records, mode ? 2 : 1));
    }

    static unsigned long TellOf(MMStream& s) {
        unsigned long pos = 0xDEAD;
        EXPECT_EQ(s.Tell(pos), 1);
        return pos;
    }

    std::string path_;
};

TEST_F(FileStreamTest, DefaultModeReadsBinary) {
    auto s = Open();
    ASSERT_EQ(s->Ready(), 1);
    char buf[16] = {};
    EXPECT_EQ(s->Get(buf, 16), 10u);
    EXPECT_EQ(std::string(buf, 10), "0123456789");
    EXPECT_EQ(s->Put("x", 1), 0u);  // opened for reading only
    EXPECT_EQ(Content(), "0123456789");
}

TEST_F(FileStreamTest, SecondReadyRewindsAndPlayKeepsThePosition) {
    auto s = Open();
    ASSERT_EQ(s->Play(), 1);
    char buf[4];
    ASSERT_EQ(s->Get(buf, 3), 3u);
    EXPECT_EQ(s->Play(), 1);
    EXPECT_EQ(TellOf(*s), 3u);
    remove(path_.c_str());  // a reopen would now fail; the rewind does not need one
    EXPECT_EQ(s->Ready(), 1);
    EXPECT_EQ(TellOf(*s), 0u);
    EXPECT_EQ(s->Get(buf, 2), 2u);
    EXPECT_EQ(std::string(buf, 2), "01");
}

TEST_F(FileStreamTest, SizeKeepsThePosition) {
    auto s = Open();
    ASSERT_EQ(s->Ready(), 1);
    char buf[5];
    ASSERT_EQ(s->Get(buf, 5), 5u);
    unsigned long size = 0;
    EXPECT_EQ(MMStreamSize(s.get(), &size), 1);
    EXPECT_EQ(size, 10u);
    EXPECT_EQ(TellOf(*s), 5u);
    EXPECT_EQ(s->Get(buf, 1), 1u);
    EXPECT_EQ(buf[0], '5');
}

TEST_F(FileStreamTest, SeekLeavesBoundsToTheCLibrary) {
    const struct {
        MMStreamSeekFrom from;
        long offset;
        int result;
        unsigned long position;  // from position 4, in 10 bytes
    } cases[] = {
        {MMStreamSeekFromEnd, -3, 1, 7},
        {MMStreamSeekFromEnd, 5, 1, 15},
        {MMStreamSeekFromCurrent, -2, 1, 2},
        {MMStreamSeekFromCurrent, 20, 1, 24},
        {MMStreamSeekFromBegin, 6, 1, 6},
        {MMStreamSeekFromBegin, -1, 0, 4},
        {MMStreamSeekFromBegin, static_cast<long>(0x100000003ll), 1, 3},
        {static_cast<MMStreamSeekFrom>(3), 0, 0, 4},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "from " << c.from << " offset " << c.offset);
        auto s = Open();
        ASSERT_EQ(s->Ready(), 1);
        ASSERT_EQ(s->Seek(4, MMStreamSeekFromBegin), 1);
        EXPECT_EQ(s->Seek(c.offset, c.from), c.result);
        EXPECT_EQ(TellOf(*s), c.position);
    }
}

TEST_F(FileStreamTest, WritesWithAGivenMode) {
    auto s = Open("wb+");
    ASSERT_EQ(s->Ready(), 1);
    EXPECT_EQ(s->Put("abcdef", 6), 6u);
    EXPECT_EQ(s->Put("abcdef", 0), 0u);
    EXPECT_EQ(s->Put(nullptr, 6), 0u);
    ASSERT_EQ(s->Seek(-4, MMStreamSeekFromEnd), 1);
    char buf[8] = {};
    EXPECT_EQ(s->Get(buf, 8), 4u);
    EXPECT_EQ(std::string(buf, 4), "cdef");
    EXPECT_EQ(s->Null(), 1);  // closes, flushing the file
    EXPECT_EQ(Content(), "abcdef");
}

TEST_F(FileStreamTest, UnreadyStreamsDoNothing) {
    static char unterminated[3] = {'a', 'b', 'c'};
    const struct {
        const char* label;
        MMAttri name;
    } cases[] = {
        {"no file name", {mmIdData, MMAttriTagAny, 0, 0}},
        {"missing file",
         {mmIdFileName, MMAttriTagAny, reinterpret_cast<uintptr_t>("/nonexistent/mmstream"), 22}},
        {"name without its zero",
         {mmIdFileName, MMAttriTagAny, reinterpret_cast<uintptr_t>(unterminated), 3}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        MMFileStream s(&c.name, 1);
        EXPECT_EQ(s.Ready(), 0);
        EXPECT_EQ(s.Play(), 0);
        char buf[4];
        unsigned long value = 5;
        EXPECT_EQ(s.Get(buf, 4), 0u);
        EXPECT_EQ(s.Put(buf, 4), 0u);
        EXPECT_EQ(s.Seek(0, MMStreamSeekFromBegin), 0);
        EXPECT_EQ(s.Size(value), 0);
        EXPECT_EQ(s.Tell(value), 0);
        EXPECT_EQ(value, 5u);
        EXPECT_EQ(s.Null(), 1);
    }
}

}  // namespace
