// The tree's own operations, as the configuration reads them.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "common/text.h"
#include "xml/xml.h"
#include "xml_test_support.h"

namespace {

std::unique_ptr<XmlElement> Tree(const std::string& text) {
  auto root = xml_test::ParseTree(text);
  EXPECT_TRUE(root) << text;
  return root ? std::move(root) : std::make_unique<XmlElement>("");
}

TEST(XmlElementAccess, ChildrenByNameAndIndex) {
  auto root = Tree("<r><Entry n='1'/><entry n='2'/><Entry n='3'/><Entryx/></r>");
  ASSERT_EQ(root->GetChildCount(), 4u);
  // The first in document order, exact name only.
  EXPECT_EQ(root->FindChild("Entry")->GetAttribute("n", u""), u"1");
  EXPECT_EQ(root->FindChild("entry")->GetAttribute("n", u""), u"2");
  EXPECT_EQ(root->FindChild("Entr"), nullptr);
  EXPECT_EQ(root->FindChild(""), nullptr);
  EXPECT_EQ(root->GetChild(2)->GetAttribute("n", u""), u"3");
  EXPECT_EQ(root->GetChild(3)->name, "Entryx");
  EXPECT_EQ(root->GetChild(4), nullptr);
  EXPECT_EQ(root->GetChild(static_cast<size_t>(-1)), nullptr);
  for (size_t i = 0; i < root->GetChildCount(); ++i) EXPECT_EQ(root->GetChild(i)->parent, root.get());
  EXPECT_EQ(root->parent, nullptr);
}

TEST(XmlElementAccess, Attributes) {
  auto root = Tree("<r Path='\\a\\b' Empty='' Default=''/>");
  std::u16string v = u"untouched";
  EXPECT_FALSE(root->GetAttribute("Missing", v));
  EXPECT_EQ(v, u"untouched");
  EXPECT_TRUE(root->GetAttribute("Empty", v));
  EXPECT_EQ(v, u"");
  EXPECT_TRUE(root->GetAttribute("Path", v));
  EXPECT_EQ(v, u"\\a\\b");
  EXPECT_EQ(root->GetAttribute("Missing", u"-1"), u"-1");
  EXPECT_EQ(root->GetAttribute("Empty", u"-1"), u"");
  EXPECT_TRUE(root->HasAttribute("Default"));
  EXPECT_FALSE(root->HasAttribute("default"));
}

TEST(XmlElementAccess, FirstTextIsTheSlotBeforeTheFirstChild) {
  EXPECT_EQ(Tree("<r>lead<c/>tail</r>")->GetFirstText(), u"lead");
  EXPECT_EQ(Tree("<r><c/>tail</r>")->GetFirstText(), u"");
  EXPECT_EQ(Tree("<r>only</r>")->GetFirstText(), u"only");
  EXPECT_EQ(Tree("<r/>")->GetFirstText(), u"");
}

TEST(XmlElementAccess, BuildingKeepsSlotsAndParents) {
  XmlElement root("r");
  XmlElement* a = root.AddChild("a");
  XmlElement* b = root.AddChild("b");
  a->AddChild("x");
  EXPECT_EQ(xml_test::Describe(root), R"(r["" a["" x[""] ""] "" b[""] ""])");
  EXPECT_EQ(b->parent, &root);
  EXPECT_EQ(root.FindChild("b"), b);
}

TEST(XmlElementAccess, VeryDeepTreesAreFreedWithoutRecursion) {
  // Deeper than any stack would take one frame per level.
  auto root = std::make_unique<XmlElement>("d");
  XmlElement* e = root.get();
  for (int i = 0; i < 1000000; ++i) e = e->AddChild("d");
  root.reset();
  SUCCEED();
}

TEST(Utf8Decoding, OneSequenceAtATime) {
  uint32_t cp = 0;
  EXPECT_EQ(Common::DecodeUtf8Strict("", cp), 0u);
  EXPECT_EQ(Common::DecodeUtf8Strict("A", cp), 1u);
  EXPECT_EQ(cp, 0x41u);
  EXPECT_EQ(Common::DecodeUtf8Strict("\xF0\x9F\x98\x80z", cp), 4u);
  EXPECT_EQ(cp, 0x1F600u);
  EXPECT_EQ(Common::DecodeUtf8Strict("\xF0\x9F\x98", cp), 0u);  // cut short
  EXPECT_EQ(Common::DecodeUtf8Strict("\xE0\x80\x80", cp), 0u);
  std::u16string out;
  Common::AppendUtf16(out, 0x10FFFF);
  Common::AppendUtf16(out, 0x20AC);
  EXPECT_EQ(out, u"\U0010FFFF\u20AC");
}

}  // namespace
