#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "common/error_codes.h"
#include "efi/config.h"
#include "file/buf_ifile.h"
#include "xml/xml.h"

using namespace EfiLoader;

namespace {

struct Parsed {
  Common::Error error;
  std::shared_ptr<ConfigurationFile> config;
};

Parsed Parse(const std::string& text) {
  buf_ifile<unsigned char> in(text.data(), text.size());
  Parsed p;
  p.error = ConfigurationFile::Create(in, p.config);
  return p;
}

// Parses and builds the action; the error of whichever step failed.
Common::Error Build(const std::string& text, std::shared_ptr<Action>* out = nullptr) {
  Parsed p = Parse(text);
  if (p.error.IsError()) return p.error;
  std::shared_ptr<Action> action;
  Common::Error e = p.config->GetAction(action);
  if (out) *out = action;
  return e;
}

constexpr uint32_t kFormat = 0x1480009;

TEST(Configuration, MalformedXmlIsTheFormatError) {
  Parsed p = Parse("<Config><Menu></Config>");
  EXPECT_EQ(p.error.Code(), kFormat);
  EXPECT_EQ(p.error.Message(), u"The configuration file has an incorrect format.");
  EXPECT_FALSE(p.config);
}

// Each document is refused when its action or jobs are built.
struct Refused {
  const char* why;
  const char* xml;
};

const Refused kRefused[] = {
    {"root without child", "<C></C>"},
    {"Jobs first", "<C><Jobs/><Menu/></C>"},
    {"unknown action", "<C><Boot/></C>"},
    {"two defaults",
     "<C><Menu><Entry Key='a' Default=''><Chainload/></Entry>"
     "<Entry Key='b' Default=''><Chainload/></Entry></Menu></C>"},
    {"same key twice",
     "<C><Menu><Entry Key='a'><Chainload/></Entry><Entry Key='a'><Chainload/></Entry></Menu></C>"},
    {"same scan key by two names",
     "<C><Menu><Entry Key='Esc'><Chainload/></Entry><Entry Key='escape'><Chainload/></Entry>"
     "</Menu></C>"},
    {"delay without default",
     "<C><Menu><Topic Delay='5'/><Entry Key='a'><Chainload/></Entry></Menu></C>"},
    {"empty key", "<C><Menu><Entry Key=''><Chainload/></Entry></Menu></C>"},
    {"no key", "<C><Menu><Entry><Chainload/></Entry></Menu></C>"},
    {"entry without action", "<C><Menu><Entry Key='a'><Text>x</Text></Entry></Menu></C>"},
    {"entry with two actions",
     "<C><Menu><Entry Key='a'><Chainload/><Chainload/></Entry></Menu></C>"},
    {"entry with an unknown child", "<C><Menu><Entry Key='a'><Chainload/><Note/></Entry></Menu></C>"},
    {"empty Loading", "<C><Chainload><Loading/></Chainload></C>"},
    {"Loading with empty text child", "<C><Chainload Text='x'><Loading Text='y'><Text/></Loading></Chainload></C>"},
    {"LoadKernel without Kernel", "<C><LoadKernel><Ramdisk Path='a'/></LoadKernel></C>"},
    {"wrong entry deep in a nested menu",
     "<C><Menu><Entry Key='a'><Menu><Entry Key='b'><Bogus/></Entry></Menu></Entry></Menu></C>"},
};

TEST(Configuration, RefusedDocuments) {
  for (const Refused& r : kRefused) {
    Common::Error e = Build(r.xml);
    EXPECT_EQ(e.Code(), kFormat) << r.why;
  }
}

TEST(Configuration, AcceptedDocuments) {
  const char* kAccepted[] = {
      "<C><Chainload/></C>",
      "<C><Menu/></C>",  // no Topic: no headline, waits for ever
      "<C><Menu><Topic Delay='0'/><Entry Key='a' Default=''><Chainload/></Entry></Menu></C>",
      "<C><Menu Extra='1'><Topic Text='t' Odd='1'/><Unknown/><Entry Key='a' "
      "Confirmation='sure?'><Text>x</Text><Confirmation>y</Confirmation><Chainload/></Entry>"
      "</Menu></C>",
      "<C><LoadKernel><Kernel Path='\\vmlinuz'/><Whatever/></LoadKernel></C>",
      "<C><Chainload><Loading Text='Loading...'/></Chainload></C>",
  };
  for (const char* xml : kAccepted) EXPECT_TRUE(Build(xml).IsSuccess()) << xml;
}

TEST(Configuration, TextRuleChildWinsEvenWhenEmpty) {
  std::shared_ptr<Action> action;
  ASSERT_TRUE(Build("<C><Menu><Topic Text='attr'><Text>child</Text></Topic>"
                    "<Entry Key='a' Text='attr'><Text></Text><Chainload/></Entry>"
                    "<Entry Key='b' Text='only attr'><Chainload/></Entry></Menu></C>",
                    &action)
                  .IsSuccess());
  auto* menu = dynamic_cast<Menu*>(action.get());
  ASSERT_TRUE(menu);
  EXPECT_EQ(menu->topic, u"child");
  EXPECT_EQ(menu->entries.at(0x00610000)->text, u"");
  EXPECT_EQ(menu->entries.at(0x00620000)->text, u"only attr");
}

TEST(Configuration, MenuFields) {
  std::shared_ptr<Action> action;
  ASSERT_TRUE(Build("<C><Menu><Topic Delay='7x'/>"
                    "<Entry Key='b' Default='no matter'><Chainload/></Entry>"
                    "<Entry Key='A'><Menu/></Entry>"
                    "<Entry Key='a'><Chainload/><Text>t</Text></Entry></Menu><Jobs/></C>",
                    &action)
                  .IsSuccess());
  auto* menu = dynamic_cast<Menu*>(action.get());
  ASSERT_TRUE(menu);
  EXPECT_EQ(menu->delay, 7) << "stops at the first non-digit";
  ASSERT_TRUE(menu->defaultEntry);
  EXPECT_EQ(menu->defaultEntry->key, 0x00620000u);
  EXPECT_EQ(menu->keys.size(), 3u) << "'a' and 'A' are two keys";
  EXPECT_TRUE(dynamic_cast<Menu*>(menu->entries.at(0x00410000)->action.get()));
}

TEST(Configuration, DelayIsNarrowedTo32Bits) {
  std::shared_ptr<Action> action;
  ASSERT_TRUE(Build("<C><Menu><Topic Delay='4294967297'/><Entry Key='a' Default=''>"
                    "<Chainload/></Entry></Menu></C>", &action).IsSuccess());
  EXPECT_EQ(dynamic_cast<Menu*>(action.get())->delay, 1);
}

TEST(Configuration, KeyNames) {
  struct Case {
    const char16_t* name;
    uint32_t code;
  } kCases[] = {
      {u"Up", 0x01},       {u"upstairs", 0x01},  {u"Down", 0x02},    {u"DOWN", 0x00440000},
      {u"Right", 0x03},    {u"Left", 0x04},      {u"Home", 0x05},    {u"End", 0x06},
      {u"Insert", 0x07},   {u"Delete", 0x08},    {u"PgUp", 0x09},    {u"pgup", 0x09},
      {u"PgDown", 0x0A},   {u"PGDown", 0x00500000}, {u"F1", 0x0B},  {u"F1x", 0x0B},
      {u"F10", 0x14},      {u"F11", 0x15},       {u"F12", 0x16},     {u"F13", 0x0B},
      {u"f3", 0x0D},       {u"F9", 0x13},        {u"Fx", 0x00460000}, {u"F0", 0x00460000},
      {u"F", 0x00460000},  {u"Esc", 0x17},       {u"Escape", 0x17},  {u"esc", 0x17},
      {u"1", 0x00310000},  {u"a", 0x00610000},   {u"A", 0x00410000}, {u"\u00e9t\u00e9", 0x00E90000},
  };
  for (const Case& c : kCases) {
    EXPECT_EQ(TranslateKeyName(c.name), c.code) << std::string(c.name, c.name + 1);
  }
}

TEST(Configuration, LoadKernelArgumentsKeepTheLowByte) {
  std::shared_ptr<Action> action;
  ASSERT_TRUE(Build("<C><LoadKernel><Kernel Path='k' Arguments='console=ttyS0 &#x141;'/>"
                    "</LoadKernel></C>", &action).IsSuccess());
  auto* lk = dynamic_cast<LoadKernel*>(action.get());
  ASSERT_TRUE(lk);
  EXPECT_EQ(lk->Arguments(), std::string("console=ttyS0 \x41"));
}

TEST(Configuration, JobsAreCountedAndBuiltInOrder) {
  Parsed p = Parse("<C><Chainload/><Jobs><Rename FileNameSource='a' FileNameTarget='b'/>"
                   "<RemoveFakeBootNext/><Reboot/></Jobs><Jobs><Rename/></Jobs></C>");
  ASSERT_TRUE(p.error.IsSuccess());
  ASSERT_EQ(p.config->JobCount(), 3u) << "only the first Jobs element counts";
  std::shared_ptr<Action> job;
  EXPECT_TRUE(p.config->GetJob(0, job).IsSuccess());
  EXPECT_TRUE(dynamic_cast<RenameJob*>(job.get()));
  EXPECT_TRUE(p.config->GetJob(1, job).IsSuccess());
  EXPECT_TRUE(dynamic_cast<RemoveFakeBootNextJob*>(job.get()));
  EXPECT_EQ(p.config->GetJob(2, job).Code(), kFormat) << "unknown job";
  EXPECT_FALSE(job);
  EXPECT_EQ(p.config->GetJob(3, job).Code(), kFormat) << "index out of range";
  Parsed none = Parse("<C><Chainload/></C>");
  EXPECT_EQ(none.config->JobCount(), 0u);
}

TEST(Configuration, LoadingText) {
  std::shared_ptr<Action> action;
  ASSERT_TRUE(Build("<C><Chainload><Loading><Text>Booting</Text></Loading></Chainload></C>",
                    &action).IsSuccess());
  EXPECT_EQ(action->Loading(), u"Booting");
}

}  // namespace
