#include <gtest/gtest.h>

#include <string>

#include "common/error.h"
#include "common/error_codes.h"
#include "test_util.h"

using Common::Error;

namespace {

TEST(ErrorModel, CodeZeroIsSuccessWhateverTheText) {
  Error e(ERROR_HERE, 0, u"ignored");
  EXPECT_TRUE(e.IsSuccess());
  EXPECT_EQ(e.Record(), nullptr);
  EXPECT_EQ(Common::ErrorText(e), u"Success");
  EXPECT_EQ(Common::ErrorText(Error()), u"Success");
}

TEST(ErrorModel, LocationCodesDifferByTheLineDistance) {
  Error a(ERROR_HERE, 1);
  Error b(ERROR_HERE, 1);
  Error c(ERROR_HERE, 1);
  EXPECT_EQ(b.LocationCode() - a.LocationCode(), b.Line() - a.Line());
  EXPECT_EQ(c.LocationCode() - a.LocationCode(), 2u);
  EXPECT_STREQ(a.Function(), "TestBody");
  // Paths in reports are relative to the source tree.
  EXPECT_EQ(std::string(a.File()), "tests/common/error_test.cpp");
}

TEST(ErrorModel, TextFormatOfAChain) {
  Error inner(ERROR_HERE, 0x4000D, u"The file is corrupted.");
  Error middle(ERROR_HERE, 0x1480016, "Failed to read\nthe file.");
  middle.SetCause(inner);
  Error outer(ERROR_HERE, 0x1480017);
  outer.SetCause(middle);

  const std::u16string text = Common::ErrorText(outer);
  const std::string t = test_util::Narrow(text);
  // Head first, the deepest cause last, each nested block behind "|".
  const size_t head = t.find("Error 0x1480017\n| line: 0x");
  const size_t mid = t.find("\n|\n| error 0x1480016: Failed to read\n| the file.\n| line: 0x");
  const size_t deep = t.find("\n|\n| error 0x4000d: The file is corrupted.\n| line: 0x");
  ASSERT_EQ(head, 0u) << t;
  ASSERT_NE(mid, std::string::npos) << t;
  ASSERT_NE(deep, std::string::npos) << t;
  EXPECT_LT(mid, deep);
  EXPECT_NE(t.find("\n| file: tests/common/error_test.cpp:"), std::string::npos);
  EXPECT_NE(t.find("\n| function: TestBody"), std::string::npos);
  EXPECT_NE(t.find("\n| $module: kelvorn_efia64_236"), std::string::npos);

  char expected_line[64];
  snprintf(expected_line, sizeof expected_line, "| line: 0x%llx\n",
           static_cast<unsigned long long>(outer.LocationCode()));
  EXPECT_NE(t.find(expected_line), std::string::npos);
}

TEST(ErrorModel, SetCauseNeverChangesARecordOthersHold) {
  Error base(ERROR_HERE, 0x40001);
  Error shared = base;  // two owners now
  Error cause(ERROR_HERE, 0x40002);
  shared.SetCause(cause);
  EXPECT_EQ(base.Cause().Record(), nullptr) << "the other owner's record changed";
  EXPECT_EQ(shared.Cause().Code(), 0x40002u);
  EXPECT_NE(base.Record(), shared.Record());
  EXPECT_EQ(shared.Code(), 0x40001u);
  EXPECT_EQ(shared.Line(), base.Line());
}

TEST(ErrorModel, SetCauseOnSuccessTakesTheCause) {
  Error none;
  Error cause(ERROR_HERE, 0x40005);
  none.SetCause(cause);
  EXPECT_EQ(none.Record(), cause.Record());
}

TEST(ErrorModel, SelfCauseDoesNotLoop) {
  Error e(ERROR_HERE, 0x40003);
  e.SetCause(e);
  ASSERT_EQ(e.Cause().Code(), 0x40003u);
  EXPECT_EQ(e.Cause().Cause().Record(), nullptr);
}

TEST(ErrorModel, LongChainsAreReleasedWithoutDeepRecursion) {
  Error chain;
  for (int i = 0; i < 200000; ++i) {
    Error next(ERROR_HERE, 0x40001);
    next.SetCause(chain);
    chain = std::move(next);
  }
  chain = Error();  // must not overflow the stack
  SUCCEED();
}

TEST(ErrorModel, StandardTexts) {
  EXPECT_EQ(Common::MakeError(ERROR_HERE, 0x4000D).Message(), u"The file is corrupted.");
  EXPECT_EQ(Common::MakeError(ERROR_HERE, 0x1480009).Message(),
            u"The configuration file has an incorrect format.");
  // Raised without text.
  Error alloc = Common::MakeError(ERROR_HERE, 0x148000F);
  EXPECT_TRUE(alloc.IsError());
  EXPECT_EQ(alloc.Message(), u"");
  // No ": text" part after the code when the message is empty.
  EXPECT_EQ(test_util::Narrow(Common::ErrorText(alloc)).rfind("Error 0x148000f\n| line: 0x", 0), 0u);
}

TEST(ErrorModel, ThrownAndReturnedAreTheSameValue) {
  Error thrown;
  try {
    THROW_ERROR(Common::Codes::Canceled);
  } catch (const Error& e) {
    thrown = e;
  }
  EXPECT_EQ(thrown.Code(), 0x148000Cu);
  EXPECT_EQ(thrown.Message(), u"Canceled");
}

}  // namespace
