// The configuration: the XML tree beside the loader, and the actions and
// jobs made from it.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "common/error.h"
#include "common/text.h"
#include "efi/volumes.h"
#include "file/file.h"

class XmlElement;
template <typename T>
class buf_ifile;

namespace EfiLoader {

class PageAlignedMemory;

class Action {
 public:
  virtual ~Action() = default;
  virtual Common::Error Execute() = 0;
  // Reads the `Loading` text; every subclass ends its own Init with this.
  virtual Common::Error Init();

  const std::u16string& Loading() const { return loading; }
  const XmlElement* Node() const { return node; }
  void SetNode(const XmlElement* element) { node = element; }

 protected:
  std::u16string loading;
  const XmlElement* node = nullptr;  // owned by the configuration
};

class ChainLoad : public Action {
 public:
  Common::Error Execute() override;
};

class RenameJob : public Action {
 public:
  Common::Error Execute() override;
};

class RemoveFakeBootNextJob : public Action {
 public:
  Common::Error Execute() override;
};

class LoadKernel : public Action {
 public:
  Common::Error Init() override;
  Common::Error Execute() override;
  const std::string& Arguments() const { return arguments; }

  // One file: a partition's unique GUID (all zero: the loader's own
  // device) and a path.
  struct FileRef {
    Common::GUID guid{};
    std::u16string path;
  };
  using FileStreams = std::vector<std::shared_ptr<buf_ifile<unsigned char>>>;

  std::shared_ptr<ri_file> GetFile(const FileRef& file);
  // Every file of the children called `name`, read into one block that
  // `memory` receives, packed one behind the other.
  FileStreams ReadFiles(const char* name, PageAlignedMemory& memory);
  // The same for exactly one file.
  std::shared_ptr<buf_ifile<unsigned char>> GetSingleConfigFile(const char* name,
                                                                PageAlignedMemory& memory);

 protected:
  std::string arguments;
  // Partitions mounted by this action; they stay mounted for its life.
  Volumes volumes;
};

class Entry {
 public:
  Common::Error Init(const XmlElement* element);

  std::shared_ptr<Action> action;
  const XmlElement* node = nullptr;
  bool isDefault = false;
  std::u16string text;
  std::u16string confirmation;
  uint32_t key = 0;
};

class Menu : public Action {
 public:
  Common::Error Init() override;
  Common::Error Execute() override;

  int32_t delay = -1;
  std::u16string topic;
  std::shared_ptr<Entry> defaultEntry;
  std::set<uint32_t> keys;
  std::map<uint32_t, std::shared_ptr<Entry>> entries;
};

class ConfigurationFile {
 public:
  ConfigurationFile();
  ~ConfigurationFile();

  // Parses `file`; on failure `out` stays empty.
  static Common::Error Create(i_file& file, std::shared_ptr<ConfigurationFile>& out);

  size_t JobCount() const;
  Common::Error GetJob(size_t index, std::shared_ptr<Action>& job) const;
  Common::Error GetAction(std::shared_ptr<Action>& action) const;
  const XmlElement* Root() const { return root_.get(); }

 private:
  Common::Error Init(i_file& file);
  std::unique_ptr<XmlElement> root_;
};

Common::Error CreateAction(const XmlElement* element, std::shared_ptr<Action>& action);
Common::Error CreateJob(const XmlElement* element, std::shared_ptr<Action>& job);

// The key code of a `Key` attribute: scan code low, character high.
uint32_t TranslateKeyName(const std::u16string& name);

// The text rule: the first text run of the first child named `name`, else
// the attribute `name`, else empty.
std::u16string GetText(const XmlElement* element, const char* name);

}  // namespace EfiLoader
