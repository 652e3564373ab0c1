#include <gtest/gtest.h>

#include <string>

#include "file/utils.h"
#include "test_util.h"

using test_util::Narrow;

namespace {

TEST(IsSimpleName, AcceptsOnlyOnePathComponent) {
  struct Case {
    const char16_t* name;
    bool simple;
  };
  const Case cases[] = {
      {nullptr, false}, {u"", false},    {u".", false},     {u"..", false},  {u"./a", false},
      {u"../a", false}, {u"/a", false},  {u"a/b", false},   {u"a/", false},  {u"/", false},
      {u"a", true},     {u"...", true},  {u".hidden", true}, {u"a.", true},  {u"a\\b", true},
      {u"with space", true}, {u"\u00e4\u00df", true},
  };
  for (const auto& c : cases)
    EXPECT_EQ(IsSimpleName(c.name), c.simple) << (c.name ? Narrow(c.name) : "(null)");
}

TEST(AppendPath, ResolvesDotsAndCollapsesSlashes) {
  struct Case {
    const char16_t* path;
    const char16_t* relative;
    const char16_t* expected;
  };
  const Case cases[] = {
      {u"/a/b", u"../c", u"/a/c"},
      {u"/a", u"..", u"/"},
      {u"/a", u"//b/./c", u"/b/c"},
      {u"/", u"x", u"/x"},
      {u"/a", u"b", u"/a/b"},
      {u"/a", u"b//c/", u"/a/b/c"},
      {u"/a/b", u"../../..", u"/"},
      {u"/", u"..", u"/"},
      {u"/a", u"./.", u"/a"},
      {u"/a", u"", u"/a"},
      {u"/a/b", u"/", u"/"},
      {u"/a", u"..b", u"/a/..b"},
      {u"/a", u"b/../c", u"/a/c"},
      {u"/a/b/c", u"../../x/./y", u"/a/x/y"},
  };
  for (const auto& c : cases) {
    std::u16string path = c.path;
    AppendPath(path, c.relative);
    EXPECT_EQ(Narrow(path), Narrow(c.expected)) << Narrow(c.path) << " + " << Narrow(c.relative);
  }
}

TEST(IsValidWindowsName, DriveFormIsExactlyLetterAndColon) {
  struct Case {
    const char16_t* name;
    bool valid;
  };
  const Case cases[] = {{u"C:", true},  {u"z:", true}, {u"C", false},  {u"C:\\", false},
                        {u"1:", false}, {u"CC", false}, {u"", false}, {u":C", false}};
  for (const auto& c : cases) EXPECT_EQ(IsValidWindowsName(c.name, true), c.valid) << Narrow(c.name);
}

TEST(IsValidWindowsName, RefusesReservedCharactersAndLengths) {
  struct Case {
    std::u16string name;
    bool valid;
  };
  const Case cases[] = {
      {u"file.txt", true}, {u"", false},          {u".", false},    {u"..", false},
      {u"...", true},      {u"a b", true},        {u"C:", false},   {std::u16string(255, u'a'), true},
      {std::u16string(256, u'a'), false},         {u"a\x1f", false}, {std::u16string(u"a\0b", 3), false},
      {u"a\"b", false},    {u"a*b", false},       {u"a/b", false},  {u"a:b", false},
      {u"a<b", false},     {u"a>b", false},       {u"a?b", false},  {u"a\\b", false},
      {u"a|b", false},     {u"\u00e9t\u00e9", true},
  };
  for (const auto& c : cases)
    EXPECT_EQ(IsValidWindowsName(c.name, false), c.valid) << Narrow(c.name) << " (" << c.name.size() << ")";
}

struct NormalizeCase {
  const char* name;
  std::u16string base;
  std::u16string path;
  bool colon;
  bool ok;
  std::u16string expected;
};

class NormalizeWindowsPathTable : public testing::TestWithParam<NormalizeCase> {};

TEST_P(NormalizeWindowsPathTable, GivesTheAbsolutePath) {
  const NormalizeCase& c = GetParam();
  std::u16string result = u"stale";
  EXPECT_EQ(NormalizeWindowsPath(result, c.base, c.path, c.colon), c.ok);
  if (c.ok) {
    EXPECT_EQ(Narrow(result), Narrow(c.expected));
  }
}

const std::u16string k255(255, u'n');
const std::u16string k256(256, u'n');

INSTANTIATE_TEST_SUITE_P(
    Table, NormalizeWindowsPathTable,
    testing::Values(
        // Relative to the base.
        NormalizeCase{"Relative", u"C:\\", u"DIR", false, true, u"C:\\DIR\\"},
        NormalizeCase{"RelativeTwoLevels", u"C:\\A\\", u"b/c", false, true, u"C:\\A\\b\\c\\"},
        NormalizeCase{"EmptyGivesBase", u"C:\\A\\", u"", false, true, u"C:\\A\\"},
        NormalizeCase{"BaseWithoutClosingSeparator", u"C:\\A", u"b", false, true, u"C:\\A\\b\\"},
        NormalizeCase{"DotsResolved", u"C:\\A\\", u"x/./y\\..\\z", false, true, u"C:\\A\\x\\z\\"},
        NormalizeCase{"DotDotLeavesBase", u"C:\\A\\B\\", u"..", false, true, u"C:\\A\\"},
        NormalizeCase{"DotDotStopsAtRoot", u"C:\\A\\", u"..\\..\\..", false, true, u"C:\\"},
        NormalizeCase{"DoubledSeparatorsCollapse", u"C:\\", u"a\\\\b//c", false, true, u"C:\\a\\b\\c\\"},
        // Drive forms.
        NormalizeCase{"DriveRoot", u"C:\\A\\", u"C:\\", false, true, u"C:\\"},
        NormalizeCase{"DriveRootLowerCase", u"C:\\A\\", u"d:/x", false, true, u"D:\\x\\"},
        NormalizeCase{"DriveAbsoluteIgnoresBase", u"C:\\A\\", u"C:\\b\\..\\c", false, true, u"C:\\c\\"},
        NormalizeCase{"DriveRelativeSameDrive", u"C:\\A\\", u"C:sub", false, true, u"C:\\A\\sub\\"},
        NormalizeCase{"DriveRelativeSameDriveBare", u"C:\\A\\", u"C:", false, true, u"C:\\A\\"},
        NormalizeCase{"DriveRelativeOtherDrive", u"C:\\A\\", u"D:x", false, true, u"D:\\x\\"},
        NormalizeCase{"BareDriveFromRoot", u"C:\\", u"C:", false, true, u"C:\\"},
        NormalizeCase{"DotDotAboveDriveRoot", u"C:\\", u"C:\\..\\..", false, true, u"C:\\"},
        // One separator: the base's root.
        NormalizeCase{"RootOfDriveBase", u"C:\\A\\B\\", u"\\x", false, true, u"C:\\x\\"},
        NormalizeCase{"RootOfDriveBaseSlash", u"C:\\A\\", u"/", false, true, u"C:\\"},
        NormalizeCase{"RootOfUncBase", u"\\\\srv\\share\\dir\\", u"\\x", false, true, u"\\\\srv\\share\\x\\"},
        NormalizeCase{"DotDotStopsAtUncBaseRoot", u"\\\\srv\\share\\dir\\", u"..\\..", false, true,
                      u"\\\\srv\\share\\"},
        // UNC.
        NormalizeCase{"Unc", u"C:\\", u"\\\\srv\\share\\f", false, true, u"\\\\srv\\share\\f\\"},
        NormalizeCase{"UncWithSlashes", u"C:\\", u"//srv/share", false, true, u"\\\\srv\\share\\"},
        NormalizeCase{"BareUncIsEmpty", u"C:\\", u"\\\\", false, true, u""},
        NormalizeCase{"UncDotDotToNothing", u"C:\\", u"\\\\srv\\..", false, true, u""},
        // Extended forms.
        NormalizeCase{"ExtendedDrive", u"C:\\A\\", u"\\\\?\\d:\\x\\..\\y", false, true, u"D:\\y\\"},
        NormalizeCase{"ExtendedBareDrive", u"C:\\A\\", u"\\\\?\\E:", false, true, u"E:\\"},
        NormalizeCase{"ExtendedUnc", u"C:\\", u"\\\\?\\UNC\\srv\\share", false, true, u"\\\\srv\\share\\"},
        NormalizeCase{"ExtendedOtherAsItStands", u"C:\\", u"\\\\?\\Volume{1}\\a\\..\\b", false, true,
                      u"\\\\?\\Volume{1}\\a\\..\\b"},
        NormalizeCase{"QuestionMarkWithoutSeparator", u"C:\\", u"\\\\?x", false, false, u""},
        // Component length.
        NormalizeCase{"Component255", u"C:\\", k255, false, true, u"C:\\" + k255 + u"\\"},
        NormalizeCase{"Component256", u"C:\\", u"a\\" + k256, false, false, u""},
        NormalizeCase{"Component256EvenIfRemoved", u"C:\\", k256 + u"\\..", false, false, u""},
        // Characters.
        NormalizeCase{"Control", u"C:\\", u"a\x01", false, false, u""},
        NormalizeCase{"EmbeddedZero", u"C:\\", std::u16string(u"a\0b", 3), false, false, u""},
        NormalizeCase{"Quote", u"C:\\", u"a\"b", false, false, u""},
        NormalizeCase{"Star", u"C:\\", u"a*", false, false, u""},
        NormalizeCase{"Less", u"C:\\", u"<a", false, false, u""},
        NormalizeCase{"Greater", u"C:\\", u"a>", false, false, u""},
        NormalizeCase{"Question", u"C:\\", u"a?", false, false, u""},
        NormalizeCase{"Pipe", u"C:\\", u"a|b", false, false, u""},
        NormalizeCase{"SpaceAllowed", u"C:\\", u"a b", false, true, u"C:\\a b\\"},
        // The colon flag.
        NormalizeCase{"ColonRefusedWithoutFlag", u"C:\\", u"f.txt:s", false, false, u""},
        NormalizeCase{"StreamNameKept", u"C:\\", u"f.txt:s", true, true, u"C:\\f.txt:s\\"},
        NormalizeCase{"StreamNameUnderDir", u"C:\\D\\", u"fi:$DATA", true, true, u"C:\\D\\fi:$DATA\\"},
        NormalizeCase{"TwoColonsRefused", u"C:\\", u"fi:s:t", true, false, u""},
        NormalizeCase{"ColonWithoutNameRefused", u"C:\\", u"a\\:s", true, false, u""}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
