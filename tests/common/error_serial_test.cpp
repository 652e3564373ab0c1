#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "common/error.h"
#include "common/error_codes.h"
#include "test_util.h"

using Common::Error;

namespace {

// Writes blocks by hand, for the cases the writer never produces.
class Block {
 public:
  Block() { b_.push_back(1); }
  Block& Version(uint8_t v) {
    b_[0] = static_cast<char>(v);
    return *this;
  }
  Block& Err(uint32_t code, uint64_t location, const std::string& message) {
    Le(code, 4);
    Le(location, 8);
    Z(message);
    return *this;
  }
  Block& Text(const std::string& name, char type, const std::string& value) {
    Z(name);
    b_.push_back(type);
    Z(value);
    return *this;
  }
  Block& Number(const std::string& name, uint64_t value) {
    Z(name);
    b_.push_back('N');
    Le(value, 8);
    return *this;
  }
  Block& EndFields() {
    b_.push_back(0);
    return *this;
  }
  Block& Raw(const std::string& bytes) {
    b_ += bytes;
    return *this;
  }
  const std::string& Bytes() const { return b_; }

 private:
  void Le(uint64_t v, int n) {
    for (int i = 0; i < n; ++i) b_.push_back(static_cast<char>(v >> (8 * i)));
  }
  void Z(const std::string& s) {
    b_ += s;
    b_.push_back(0);
  }
  std::string b_;
};

// The block is copied into an exact-size heap buffer, so that a read past
// its end is caught by the address sanitizer.
Error Read(const std::string& bytes) {
  std::unique_ptr<uint8_t[]> copy(new uint8_t[bytes.size() ? bytes.size() : 1]);
  if (!bytes.empty()) std::memcpy(copy.get(), bytes.data(), bytes.size());
  return Common::DeserializeError(copy.get(), bytes.size());
}

std::vector<uint32_t> Codes(const Error& e) {
  std::vector<uint32_t> codes;
  for (Error c = e; c.IsError(); c = c.Cause()) codes.push_back(c.Code());
  return codes;
}

std::string Text(const Error& e) { return test_util::Narrow(Common::ErrorText(e)); }

TEST(SerializedErrors, FieldsFillTheRecord) {
  Block b;
  b.Err(0x1480016, 0xABCDEF0000000123ull, "Failed to read the file.")
      .Text("$file", 'A', "loader/efi/file.cpp")
      .Text("$func", 'W', "OpenLoaderFile")
      .Number("$line", 291)
      .Text("path", 'W', "\\EFI\\gr\xC3\xBC\xC3\x9F.xml")
      .Number("sector", 0x1F)
      .Text("tag", 'A', "two\nlines")
      .EndFields()
      .Err(0x4000D, 7, "")
      .EndFields()
      .Err(0, 0, "");
  Error e = Read(b.Bytes());
  ASSERT_EQ(e.Code(), 0x1480016u);
  EXPECT_EQ(e.LocationCode(), 0xABCDEF0000000123ull);
  EXPECT_EQ(e.Message(), u"Failed to read the file.");
  EXPECT_STREQ(e.File(), "loader/efi/file.cpp");
  EXPECT_STREQ(e.Function(), "OpenLoaderFile");
  EXPECT_EQ(e.Line(), 291u);
  EXPECT_STREQ(e.Record()->ops->GetParameterNames(e.Record()), "path,sector,tag,$module");

  Error cause = e.Cause();
  ASSERT_EQ(cause.Code(), 0x4000Du);
  EXPECT_EQ(cause.LocationCode(), 7u);
  EXPECT_EQ(cause.File(), nullptr);
  EXPECT_EQ(cause.Function(), nullptr);
  EXPECT_EQ(cause.Line(), 0u);
  EXPECT_TRUE(cause.Cause().IsSuccess());

  EXPECT_EQ(Text(e),
            "Error 0x1480016: Failed to read the file.\n"
            "| line: 0xabcdef0000000123\n"
            "| file: loader/efi/file.cpp:291\n"
            "| function: OpenLoaderFile\n"
            "| path: \\EFI\\gr\xC3\xBC\xC3\x9F.xml\n"
            "| sector: 0x1f\n"
            "| tag: two\n"
            "| lines\n"
            "| $module: kelvorn_efia64_236\n"
            "|\n"
            "| error 0x4000d\n"
            "| line: 0x7\n"
            "| $module: kelvorn_efia64_236");
}

TEST(SerializedErrors, ParameterLookupsFollowTheFieldType) {
  Block b;
  b.Err(5, 0, "m")
      .Number("n", 42)
      .Text("w", 'W', "wide")
      .Text("a", 'A', "narrow")
      .Number("dup", 1)
      .Number("dup", 2)
      .Text("$module", 'A', "other_module")
      .EndFields();
  Error e = Read(b.Bytes());
  const Common::ErrorRecord* r = e.Record();
  ASSERT_NE(r, nullptr);
  EXPECT_EQ(r->ops->GetNumberParameter(r, "n"), 42u);
  EXPECT_EQ(r->ops->GetTextParameter(r, "n"), nullptr);
  EXPECT_EQ(r->ops->GetWideParameter(r, "n"), nullptr);
  EXPECT_EQ(std::u16string(r->ops->GetWideParameter(r, "w")), u"wide");
  EXPECT_EQ(r->ops->GetTextParameter(r, "w"), nullptr);
  EXPECT_STREQ(r->ops->GetTextParameter(r, "a"), "narrow");
  EXPECT_EQ(r->ops->GetWideParameter(r, "a"), nullptr);
  EXPECT_EQ(r->ops->GetNumberParameter(r, "dup"), 1u);  // the first of a name
  EXPECT_EQ(r->ops->GetNumberParameter(r, "nothing"), 0u);
  EXPECT_EQ(r->ops->GetTextParameter(r, "nothing"), nullptr);
  EXPECT_EQ(r->ops->GetTextParameter(r, nullptr), nullptr);
  // A block that names its module is believed, and the name is listed once.
  EXPECT_STREQ(r->ops->GetTextParameter(r, "$module"), "other_module");
  EXPECT_STREQ(r->ops->GetParameterNames(r), "n,w,a,dup,dup,$module");
}

TEST(SerializedErrors, RecordsOwnTheirStrings) {
  std::string bytes = Block()
                          .Err(9, 1, "text")
                          .Text("$file", 'A', "core/x.cpp")
                          .Text("$func", 'A', "Run")
                          .Text("p", 'A', "v")
                          .EndFields()
                          .Bytes();
  Error e = Read(bytes);
  bytes.assign(bytes.size(), '\xEE');  // the source block is gone
  EXPECT_STREQ(e.File(), "core/x.cpp");
  EXPECT_STREQ(e.Function(), "Run");

  // A clone (made by SetCause on a shared record) points into itself.
  Error shared = e;
  Error clone = e;
  clone.SetCause(Common::MakeError(ERROR_HERE, 0x4000D));
  ASSERT_NE(clone.Record(), e.Record());
  e = Error();
  shared = Error();  // the original record is freed here
  EXPECT_STREQ(clone.File(), "core/x.cpp");
  EXPECT_STREQ(clone.Function(), "Run");
  const char* begin = reinterpret_cast<const char*>(clone.Record());
  EXPECT_GE(clone.File(), begin);
  EXPECT_LT(clone.File(), begin + clone.Record()->size);
  EXPECT_STREQ(clone.Record()->ops->GetTextParameter(clone.Record(), "p"), "v");
  EXPECT_EQ(clone.Cause().Code(), 0x4000Du);
}

TEST(SerializedErrors, BlocksThatAreNotOneGiveSuccess) {
  EXPECT_TRUE(Common::DeserializeError(nullptr, 0).IsSuccess());
  EXPECT_TRUE(Common::DeserializeError(nullptr, 100).IsSuccess());
  EXPECT_TRUE(Read("").IsSuccess());
  EXPECT_TRUE(Read(std::string(1, '\1')).IsSuccess());
  const std::string good = Block().Err(3, 0, "x").EndFields().Bytes();
  EXPECT_EQ(Read(good).Code(), 3u);
  EXPECT_TRUE(Read(Block().Version(2).Err(3, 0, "x").EndFields().Bytes()).IsSuccess());
  EXPECT_TRUE(Read(Block().Version(0).Err(3, 0, "x").EndFields().Bytes()).IsSuccess());
}

TEST(SerializedErrors, ABreakKeepsWhatWasCompleteBefore) {
  const Block head = Block().Err(1, 0, "first").EndFields().Err(2, 0, "second").EndFields();
  struct Case {
    const char* what;
    std::string tail;
    std::vector<uint32_t> codes;
  } cases[] = {
      {"code 0 ends the block", Block().Err(0, 0, "").Err(3, 0, "x").EndFields().Bytes().substr(1),
       {1, 2}},
      {"unknown field type", Block().Err(3, 0, "x").Text("f", 'X', "v").EndFields().Bytes().substr(1),
       {1, 2}},
      {"$line as text", Block().Err(3, 0, "x").Text("$line", 'A', "12").EndFields().Bytes().substr(1),
       {1, 2}},
      {"$line above 32 bits", Block().Err(3, 0, "x").Number("$line", 1ull << 32).EndFields().Bytes().substr(1),
       {1, 2}},
      {"$file as number", Block().Err(3, 0, "x").Number("$file", 1).EndFields().Bytes().substr(1),
       {1, 2}},
      {"$func as number", Block().Err(3, 0, "x").Number("$func", 1).EndFields().Bytes().substr(1),
       {1, 2}},
      {"comma in a name", Block().Err(3, 0, "x").Number("a,b", 1).EndFields().Bytes().substr(1),
       {1, 2}},
      {"message without terminator", std::string("\3\0\0\0\0\0\0\0\0\0\0\0abc", 15), {1, 2}},
      {"fewer than 12 bytes", std::string("\3\0\0\0\0\0\0\0\0\0\0", 11), {1, 2}},
      {"fields without end", Block().Err(3, 0, "x").Number("n", 1).Bytes().substr(1), {1, 2}},
      {"good third error", Block().Err(3, 0, "x").EndFields().Bytes().substr(1), {1, 2, 3}},
      {"trailing bytes after a code of 0", std::string("\0\0\0\0garbage-garbage", 19), {1, 2}},
  };
  for (const Case& c : cases) {
    Error e = Read(head.Bytes() + c.tail);
    EXPECT_EQ(Codes(e), c.codes) << c.what;
  }
}

Error SampleChain() {
  Error deepest(ERROR_HERE, 0x4000D, u"The file is corrupted.\nSector 12 is unreadable.");
  Error middle(ERROR_HERE, 0x70001, "Internal error: unknown error");
  Error outer(ERROR_HERE, 0x1480017);
  middle.SetCause(deepest);
  outer.SetCause(middle);
  return outer;
}

TEST(SerializedErrors, RoundTripKeepsEverythingTheReportShows) {
  const Error original = SampleChain();
  const std::string bytes = Common::SerializeError(original);
  const Error back = Read(bytes);
  EXPECT_EQ(Codes(back), Codes(original));
  EXPECT_EQ(Common::ErrorText(back), Common::ErrorText(original));
  for (Error a = original, b = back; a.IsError(); a = a.Cause(), b = b.Cause()) {
    EXPECT_EQ(b.LocationCode(), a.LocationCode());
    EXPECT_EQ(b.Line(), a.Line());
    EXPECT_STREQ(b.File(), a.File());
    EXPECT_STREQ(b.Function(), a.Function());
    EXPECT_EQ(b.Message(), a.Message());
  }
  // Read back and written again, the block does not change any more.
  EXPECT_EQ(Common::SerializeError(back), bytes);

  // A record read from bytes, with parameters of each kind, survives too.
  const std::string withParams = Block()
                                     .Err(0x12F0008, 99, "Boot entry 'x' cannot be found.")
                                     .Number("$line", 4)
                                     .Text("name", 'W', "Boot\xE2\x82\xAC")
                                     .Number("attributes", 7)
                                     .Text("raw", 'A', "\xFF\xFE")
                                     .EndFields()
                                     .Bytes();
  const Error first = Read(withParams);
  const std::string again = Common::SerializeError(first);
  const Error second = Read(again);
  EXPECT_EQ(Common::ErrorText(second), Common::ErrorText(first));
  EXPECT_EQ(Common::SerializeError(second), again);
  EXPECT_NE(Text(second).find("| name: Boot\xE2\x82\xAC\n| attributes: 0x7\n| raw: "),
            std::string::npos)
      << Text(second);
}

TEST(SerializedErrors, SuccessWritesAnEmptyBlock) {
  const std::string bytes = Common::SerializeError(Error());
  EXPECT_EQ(bytes, std::string("\1\0\0\0\0", 5));
  EXPECT_TRUE(Read(bytes).IsSuccess());
}

TEST(SerializedErrors, EveryCutGivesTheCompleteErrorsBeforeIt) {
  const Error chain = SampleChain();
  const std::string bytes = Common::SerializeError(chain);
  // Where each error ends: the writer's block for the chain cut after it
  // holds exactly those bytes before its terminator.
  // Where each error ends: a record written alone (a clone has no cause)
  // takes its share of the block plus the version byte and terminator.
  std::vector<size_t> ends;
  size_t at = 1;
  for (Error e = chain; e.IsError(); e = e.Cause()) {
    const Error alone = Error::Adopt(e.Record()->ops->Clone(e.Record()));
    at += Common::SerializeError(alone).size() - 5;
    ends.push_back(at);
  }
  ASSERT_EQ(ends.size(), 3u);
  ASSERT_EQ(ends.back() + 4, bytes.size());
  const std::vector<uint32_t> all = Codes(chain);
  for (size_t cut = 0; cut <= bytes.size(); ++cut) {
    const Error e = Read(bytes.substr(0, cut));
    size_t complete = 0;
    while (complete < ends.size() && ends[complete] <= cut) ++complete;
    const std::vector<uint32_t> expected(all.begin(), all.begin() + complete);
    ASSERT_EQ(Codes(e), expected) << "cut at " << cut;
    Common::ErrorText(e);  // must not fault either
  }
}

TEST(SerializedErrors, EveryCutOfAHandMadeBlockIsSafe) {
  const std::string bytes = Block()
                                .Err(1, 2, "a\xC3")  // ill-formed UTF-8
                                .Text("w", 'W', "\xF0\x9F\x98\x80")
                                .Number("n", ~0ull)
                                .Text("$file", 'W', "f")
                                .EndFields()
                                .Err(3, 4, "b")
                                .Text("", 'N', "")
                                .Bytes();
  for (size_t cut = 0; cut <= bytes.size(); ++cut) {
    const Error e = Read(bytes.substr(0, cut));
    const std::u16string t = Common::ErrorText(e);
    EXPECT_EQ(Common::SerializeError(Read(Common::SerializeError(e))), Common::SerializeError(e));
    if (e.IsError()) EXPECT_EQ(e.Message(), u"a\uFFFD") << cut;
  }
  const Error full = Read(bytes);
  EXPECT_EQ(Codes(full), (std::vector<uint32_t>{1, 3}));
  EXPECT_EQ(std::u16string(full.Record()->ops->GetWideParameter(full.Record(), "w")),
            u"\U0001F600");
}

TEST(SerializedErrors, LongChainsComeBackWithoutDeepRecursion) {
  Block b;
  const int kErrors = 100000;
  for (int i = 0; i < kErrors; ++i) b.Err(0x40001 + (i & 1), i, "").EndFields();
  Error e = Read(b.Bytes());
  size_t n = 0;
  for (const Common::ErrorRecord* r = e.Record(); r; r = r->cause) ++n;
  EXPECT_EQ(n, size_t(kErrors));
  // Each error gains the "$module" field it reports ("$module", 0, 'A', the
  // 18-byte tag, 0), the block its terminating code.
  EXPECT_EQ(Common::SerializeError(e).size(), b.Bytes().size() + kErrors * 28u + 4);
  e = Error();
}

}  // namespace
