#include "file/posix_file.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <unistd.h>

#include "test_util.h"

namespace {

class PosixFileTest : public testing::Test {
 protected:
  std::string Path(const char* name) { return dir_ / name; }
  test_util::TempDir dir_;
};

TEST_F(PosixFileTest, WritesReadsBackAndSeeks) {
  const std::string path = Path("a");
  Common::Error error;
  auto f = PosixFile::Open(path, PosixFile::Mode::Create, error);
  ASSERT_NE(f, nullptr);
  EXPECT_FALSE(error.IsError());
  f->Write("hello world", 11);
  EXPECT_EQ(f->GetSize(), 11);
  EXPECT_EQ(f->Seek(6), 6);
  char buf[16] = {};
  uint64_t got = 0;
  f->Read(buf, sizeof buf, got);
  EXPECT_EQ(got, 5u);
  EXPECT_EQ(std::string(buf, got), "world");
  EXPECT_EQ(f->SeekEnd(0), 11);
  f->Read(buf, 1, got);
  EXPECT_EQ(got, 0u);
  EXPECT_FALSE(f->HasError());
  f->Truncate(5);
  EXPECT_EQ(f->GetSize(), 5);
  f.reset();

  std::string all;
  ASSERT_FALSE(ReadWholeFile(path, all).IsError());
  EXPECT_EQ(all, "hello");
}

struct OpenFailure {
  const char* name;
  PosixFile::Mode mode;
  bool existing;
  bool directory;
  uint32_t code;
};

class PosixFileOpen : public PosixFileTest, public testing::WithParamInterface<OpenFailure> {};

TEST_P(PosixFileOpen, FailsWithNullAndTheRightCode) {
  const OpenFailure& c = GetParam();
  std::string path = c.directory ? dir_.Path() : Path("f");
  if (c.existing && !c.directory) {
    ASSERT_NE(PosixFile::Open(path, PosixFile::Mode::Create), nullptr);
  }
  Common::Error error;
  auto f = PosixFile::Open(path, c.mode, error);
  EXPECT_EQ(f, nullptr);
  EXPECT_EQ(error.Code(), c.code);
  EXPECT_TRUE(error.Cause().IsError());  // the system's reason
}

INSTANTIATE_TEST_SUITE_P(
    Table, PosixFileOpen,
    testing::Values(OpenFailure{"MissingForRead", PosixFile::Mode::Read, false, false, 0x40011},
                    OpenFailure{"MissingForUpdate", PosixFile::Mode::ReadWrite, false, false, 0x40011},
                    OpenFailure{"ExistingForCreateNew", PosixFile::Mode::CreateNew, true, false, 0x40013},
                    OpenFailure{"Directory", PosixFile::Mode::Read, true, true, 0x40021}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(PosixFileTest, WriteToReadOnlyFileRecordsWriteErrorAndSticks) {
  const std::string path = Path("ro");
  ASSERT_NE(PosixFile::Open(path, PosixFile::Mode::Create), nullptr);
  auto f = PosixFile::Open(path, PosixFile::Mode::Read);
  ASSERT_NE(f, nullptr);
  uint64_t written = 9;
  f->Write("x", 1, written);
  EXPECT_EQ(written, 0u);
  ASSERT_EQ(f->GetError().Code(), 0x40003u);
  EXPECT_EQ(f->Seek(0), -1);
  EXPECT_EQ(f->GetSize(), -1);
  f->TakeError();
  EXPECT_EQ(f->GetSize(), 0);
}

TEST_F(PosixFileTest, NegativeSeekRecordsSearchError) {
  const std::string path = Path("s");
  auto f = PosixFile::Open(path, PosixFile::Mode::Create);
  ASSERT_NE(f, nullptr);
  EXPECT_EQ(f->SeekCur(-1), -1);
  EXPECT_EQ(f->GetError().Code(), 0x40005u);
}

TEST_F(PosixFileTest, ReadWholeFileOfMissingPathGivesNotFound) {
  std::string out = "stale";
  EXPECT_EQ(ReadWholeFile(Path("none"), out).Code(), 0x40011u);
  EXPECT_TRUE(out.empty());
}

}  // namespace
