#include "efi/config.h"

#include "common/error_codes.h"
#include "efi/xml_access.h"

namespace EfiLoader {

using Common::Error;
using Common::MakeError;
using Common::Codes::ConfigurationFormat;

#define FORMAT_ERROR() MakeError(ERROR_HERE, ConfigurationFormat)

std::u16string GetText(const XmlElement* element, const char* name) {
  if (const XmlElement* child = xml::Child(element, name)) return xml::FirstText(child);
  std::u16string value;
  if (xml::Attribute(element, name, value)) return value;
  return {};
}

// ---------------------------------------------------------------- keys

uint32_t TranslateKeyName(const std::u16string& name) {
  struct Named {
    const char16_t* name;
    uint16_t scan;
  };
  // Longer names that share a prefix with shorter ones come first, so that
  // "F10" is not read as "F1".
  static const Named kNames[] = {
      {u"Up", 0x01},     {u"Down", 0x02},   {u"Right", 0x03},  {u"Left", 0x04},
      {u"Home", 0x05},   {u"End", 0x06},    {u"Insert", 0x07}, {u"Delete", 0x08},
      {u"PgUp", 0x09},   {u"PgDown", 0x0A}, {u"F10", 0x14},    {u"F11", 0x15},
      {u"F12", 0x16},    {u"F1", 0x0B},     {u"F2", 0x0C},     {u"F3", 0x0D},
      {u"F4", 0x0E},     {u"F5", 0x0F},     {u"F6", 0x10},     {u"F7", 0x11},
      {u"F8", 0x12},     {u"F9", 0x13},     {u"Esc", 0x17},
  };
  auto lower = [](char16_t c) -> char16_t { return (c >= u'A' && c <= u'Z') ? c + 32 : c; };
  for (const Named& n : kNames) {
    const std::u16string key(n.name);
    if (name.size() < key.size()) continue;
    bool match = true;
    for (size_t i = 0; i < key.size() && match; ++i) {
      // The first letter may have either case, and so may the third of the
      // two page keys ("Pgup", "PGDown" are not, "pgUp", "pgup" are).
      const bool anyCase = i == 0 || (i == 2 && key.rfind(u"Pg", 0) == 0);
      match = anyCase ? lower(name[i]) == lower(key[i]) : name[i] == key[i];
    }
    if (!match) continue;
    if (key == u"F1" && name.size() > 2 && name[2] >= u'0' && name[2] <= u'2') continue;
    return n.scan;
  }
  if (name.empty()) return 0;
  return static_cast<uint32_t>(name[0]) << 16;
}

// ---------------------------------------------------------------- actions

Error Action::Init() {
  const XmlElement* loadingNode = xml::Child(node, "Loading");
  if (!loadingNode) return {};
  loading = GetText(loadingNode, "Text");
  if (loading.empty()) return FORMAT_ERROR();
  return {};
}

Error LoadKernel::Init() {
  const XmlElement* kernel = xml::Child(node, "Kernel");
  if (!kernel) return FORMAT_ERROR();
  std::u16string args;
  xml::Attribute(kernel, "Arguments", args);
  arguments.clear();
  // One byte per character: the low byte of each code unit.
  for (char16_t c : args) arguments.push_back(static_cast<char>(c & 0xFF));
  return Action::Init();
}

Error Entry::Init(const XmlElement* element) {
  node = element;
  text = GetText(element, "Text");
  confirmation = GetText(element, "Confirmation");
  std::u16string keyName;
  if (!xml::Attribute(element, "Key", keyName) || keyName.empty()) return FORMAT_ERROR();
  key = TranslateKeyName(keyName);
  std::u16string ignored;
  isDefault = xml::Attribute(element, "Default", ignored);

  const XmlElement* actionNode = nullptr;
  for (size_t i = 0; i < xml::ChildCount(element); ++i) {
    const XmlElement* child = xml::ChildAt(element, i);
    const std::string& name = xml::Name(child);
    if (name == "Text" || name == "Confirmation") continue;
    if (actionNode) return FORMAT_ERROR();
    actionNode = child;
  }
  if (!actionNode) return FORMAT_ERROR();
  return CreateAction(actionNode, action);
}

Error Menu::Init() {
  if (const XmlElement* topicNode = xml::Child(node, "Topic")) {
    topic = GetText(topicNode, "Text");
    std::u16string delayText;
    if (xml::Attribute(topicNode, "Delay", delayText)) {
      // Base 10, up to the first non-digit, saturating like strtol; then
      // narrowed to 32 bits.
      int64_t value = 0;
      size_t i = 0;
      while (i < delayText.size() && (delayText[i] == u' ' || delayText[i] == u'\t')) ++i;
      bool negative = false;
      if (i < delayText.size() && (delayText[i] == u'-' || delayText[i] == u'+'))
        negative = delayText[i++] == u'-';
      for (; i < delayText.size() && delayText[i] >= u'0' && delayText[i] <= u'9'; ++i) {
        const int digit = delayText[i] - u'0';
        value = value > (INT64_MAX - digit) / 10 ? INT64_MAX : value * 10 + digit;
      }
      if (negative) value = -value;
      delay = static_cast<int32_t>(static_cast<uint32_t>(static_cast<uint64_t>(value)));
    }
  }
  for (size_t i = 0; i < xml::ChildCount(node); ++i) {
    const XmlElement* child = xml::ChildAt(node, i);
    if (xml::Name(child) != "Entry") continue;
    auto entry = std::make_shared<Entry>();
    if (Error e = entry->Init(child); e.IsError()) return e;
    if (entry->isDefault) {
      if (defaultEntry) return FORMAT_ERROR();
      defaultEntry = entry;
    }
    if (!keys.insert(entry->key).second) return FORMAT_ERROR();
    entries[entry->key] = entry;
  }
  if (!defaultEntry && delay != -1) return FORMAT_ERROR();
  return Action::Init();
}

Error CreateAction(const XmlElement* element, std::shared_ptr<Action>& action) {
  action.reset();
  const std::string& name = xml::Name(element);
  std::shared_ptr<Action> made;
  if (name == "Menu")
    made = std::make_shared<Menu>();
  else if (name == "LoadKernel")
    made = std::make_shared<LoadKernel>();
  else if (name == "Chainload")
    made = std::make_shared<ChainLoad>();
  else
    return FORMAT_ERROR();
  made->SetNode(element);
  if (Error e = made->Init(); e.IsError()) return e;
  action = std::move(made);
  return {};
}

Error CreateJob(const XmlElement* element, std::shared_ptr<Action>& job) {
  job.reset();
  const std::string& name = xml::Name(element);
  std::shared_ptr<Action> made;
  if (name == "Rename")
    made = std::make_shared<RenameJob>();
  else if (name == "RemoveFakeBootNext")
    made = std::make_shared<RemoveFakeBootNextJob>();
  else
    return FORMAT_ERROR();
  made->SetNode(element);
  if (Error e = made->Init(); e.IsError()) return e;
  job = std::move(made);
  return {};
}

// ---------------------------------------------------------------- the file

ConfigurationFile::ConfigurationFile() = default;
ConfigurationFile::~ConfigurationFile() = default;

Error ConfigurationFile::Create(i_file& file, std::shared_ptr<ConfigurationFile>& out) {
  out.reset();
  auto config = std::make_shared<ConfigurationFile>();
  if (Error e = config->Init(file); e.IsError()) return e;
  out = std::move(config);
  return {};
}

Error ConfigurationFile::Init(i_file& file) {
  if (!xml::Parse(root_, file)) {
    file.TakeError();  // the format error says it all; the stream is reusable
    return FORMAT_ERROR();
  }
  return {};
}

size_t ConfigurationFile::JobCount() const {
  const XmlElement* jobs = xml::Child(root_.get(), "Jobs");
  return jobs ? xml::ChildCount(jobs) : 0;
}

Error ConfigurationFile::GetJob(size_t index, std::shared_ptr<Action>& job) const {
  job.reset();
  if (index >= JobCount()) return FORMAT_ERROR();
  return CreateJob(xml::ChildAt(xml::Child(root_.get(), "Jobs"), index), job);
}

Error ConfigurationFile::GetAction(std::shared_ptr<Action>& action) const {
  action.reset();
  if (!root_ || xml::ChildCount(root_.get()) == 0) return FORMAT_ERROR();
  return CreateAction(xml::ChildAt(root_.get(), 0), action);
}

}  // namespace EfiLoader
