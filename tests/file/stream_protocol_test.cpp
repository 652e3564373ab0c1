// The sticky-error protocol, checked the same way on every concrete input
// stream of the file layer.
#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <unistd.h>

#include "fake_streams.h"
#include "file/adapters.h"
#include "file/buf_ifile.h"
#include "file/memfile.h"
#include "file/posix_file.h"

namespace {

const std::string kData = "abcdef";

// A stream over kData, with whatever it needs kept alive beside it.
struct Subject {
  std::shared_ptr<void> keep;
  i_file* stream;
  raccess_file* seekable;  // null for forward-only streams
};

struct Maker {
  const char* name;
  std::function<Subject()> make;
};

Subject Own(std::shared_ptr<ri_file> f) { return {f, f.get(), f.get()}; }

const Maker kSeekableMakers[] = {
    {"MemoryFile",
     [] {
       auto f = std::make_shared<Common::MemoryFileImpl>();
       f->Write(kData.data(), kData.size());
       f->Rewind();
       return Own(f);
     }},
    {"BufIFile", [] { return Own(std::make_shared<buf_ifile<unsigned char>>(kData.data(), kData.size())); }},
    {"BufIFileOwned",
     [] {
       auto* block = new unsigned char[kData.size()];
       std::memcpy(block, kData.data(), kData.size());
       return Own(std::make_shared<buf_ifile<unsigned char>>(block, block, kData.size()));
     }},
    {"PosixFile",
     [] {
       char path[] = "/tmp/stream_protocol.XXXXXX";
       const int fd = mkstemp(path);
       EXPECT_EQ(write(fd, kData.data(), kData.size()), static_cast<ssize_t>(kData.size()));
       unlink(path);  // the descriptor keeps the file
       return Own(std::make_shared<PosixFile>(fd, path, true));
     }},
};

const Maker kForwardMakers[] = {
    {"SkipableIFile",
     [] {
       auto inner = std::make_shared<test_util::ScriptedInput>(kData.substr(1));
       auto f = std::make_shared<SkipableIFile>(*inner);
       f->PushBack('a');
       auto both = std::make_shared<std::pair<decltype(inner), decltype(f)>>(inner, f);
       return Subject{both, f.get(), nullptr};
     }},
    {"SizeLimitedIFile",
     [] {
       auto inner = std::make_shared<test_util::ScriptedInput>(kData + "-beyond-the-limit");
       auto f = std::make_shared<SizeLimitedIFile>(*inner, kData.size());
       auto both = std::make_shared<std::pair<decltype(inner), decltype(f)>>(inner, f);
       return Subject{both, f.get(), nullptr};
     }},
};

class StreamProtocol : public testing::TestWithParam<Maker> {};

TEST_P(StreamProtocol, ZeroByteReadDeliversNothingAndRecordsNothing) {
  Subject s = GetParam().make();
  char c = 'x';
  uint64_t got = 5;
  s.stream->Read(&c, 0, got);
  EXPECT_EQ(got, 0u);
  EXPECT_EQ(c, 'x');
  EXPECT_FALSE(s.stream->HasError());
  // Nothing was consumed.
  char buf[8];
  s.stream->Read(buf, kData.size());
  EXPECT_FALSE(s.stream->HasError());
  EXPECT_EQ(std::string(buf, kData.size()), kData);
}

TEST_P(StreamProtocol, ExactReadAtEndIsStickyUntilTaken) {
  Subject s = GetParam().make();
  char buf[16];
  s.stream->Read(buf, kData.size() + 1);
  ASSERT_TRUE(s.stream->HasError());
  EXPECT_EQ(s.stream->GetError().Code(), 0x40002u);
  EXPECT_EQ(s.stream->GetError().Message(), u"The end of the file has been reached.");
  uint64_t got = 7;
  s.stream->Read(buf, 1, got);
  EXPECT_EQ(got, 0u);
  s.stream->Read(buf, 1);
  EXPECT_EQ(s.stream->GetError().Code(), 0x40002u);

  const Common::Error taken = s.stream->TakeError();
  EXPECT_EQ(taken.Code(), 0x40002u);
  EXPECT_FALSE(s.stream->HasError());
  s.stream->Read(buf, 1, got);  // usable again, and still at its end
  EXPECT_EQ(got, 0u);
  EXPECT_FALSE(s.stream->HasError());
}

class SeekableProtocol : public testing::TestWithParam<Maker> {};

TEST_P(SeekableProtocol, HeldErrorStopsReadsWithDataInFront) {
  Subject s = GetParam().make();
  char buf[16];
  s.stream->Read(buf, kData.size() + 1);
  ASSERT_EQ(s.stream->GetError().Code(), 0x40002u);
  s.seekable->Seek(0);  // may or may not move while the error is held
  uint64_t got = 7;
  s.stream->Read(buf, 1, got);
  EXPECT_EQ(got, 0u);
  s.stream->TakeError();
  EXPECT_EQ(s.seekable->Seek(0), 0);
  s.stream->Read(buf, 1, got);
  EXPECT_EQ(got, 1u);
  EXPECT_EQ(buf[0], 'a');
}

TEST_P(SeekableProtocol, SeekEndZeroGivesTheSizeAndAQuietEmptyRead) {
  Subject s = GetParam().make();
  EXPECT_EQ(s.seekable->SeekEnd(0), static_cast<int64_t>(kData.size()));
  char c;
  uint64_t got = 3;
  s.stream->Read(&c, 1, got);
  EXPECT_EQ(got, 0u);
  EXPECT_FALSE(s.stream->HasError());
}

TEST_P(SeekableProtocol, GenericGetSizeKeepsThePosition) {
  Subject s = GetParam().make();
  s.seekable->Seek(2);
  EXPECT_EQ(s.seekable->raccess_file::GetSize(), static_cast<int64_t>(kData.size()));
  EXPECT_EQ(s.seekable->GetSize(), static_cast<int64_t>(kData.size()));
  EXPECT_EQ(s.seekable->SeekCur(0), 2);
}

TEST_P(SeekableProtocol, UnsupportedLocksRecordOnceAndNeverOverwrite) {
  Subject s = GetParam().make();
  auto* ri = dynamic_cast<ri_file*>(s.stream);
  ASSERT_NE(ri, nullptr);
  ri->LockShared();
  EXPECT_EQ(ri->GetError().Code(), 0x4000Eu);
  ri->TakeError();
  char buf[16];
  ri->Read(buf, 10);  // end of file
  ri->LockShared();
  ri->Unlock();
  EXPECT_EQ(ri->GetError().Code(), 0x40002u);
}

std::string NameOf(const testing::TestParamInfo<Maker>& info) { return info.param.name; }

INSTANTIATE_TEST_SUITE_P(Seekable, StreamProtocol, testing::ValuesIn(kSeekableMakers), NameOf);
INSTANTIATE_TEST_SUITE_P(Forward, StreamProtocol, testing::ValuesIn(kForwardMakers), NameOf);
INSTANTIATE_TEST_SUITE_P(Seekable, SeekableProtocol, testing::ValuesIn(kSeekableMakers), NameOf);

}  // namespace
