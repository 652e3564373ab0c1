// The part of a Windows-flavour directory that depends only on the path
// syntax: "C:\" paths kept with a closing "\", and "/" or "\" accepted as
// separators.
#pragma once

#include <string>

#include "file/dir.h"

class windows_dir : public rio_dir {
 public:
  // A drive entry in a root.  Nothing on the loader's road makes one.
  class root_iterator final : public i_dir::iterator {
   public:
    void Next() override { SetError(ERROR_HERE, Common::Codes::EndOfFile); }
    file_identifier* GetIdentifier() override { return nullptr; }
    std::u16string FileName() override { return std::u16string(); }
    uint64_t Size() override { return 0; }
    uint32_t FileType() override { return FileTypes::DriveEntry; }
  };

  std::u16string GetPath() override { return path_; }
  bool IsPathSeparator(char16_t c) override { return c == u'/' || c == u'\\'; }
  char16_t GetPathSeparator() override { return u'\\'; }
  // The directory of all components but the last (a separator is "/",
  // "\" or ":"); `path` moves to the last one.  A bare name gives this
  // directory anew.
  rio_dir* OpenPath(const char16_t*& path) override;

 protected:
  explicit windows_dir(std::u16string path) : path_(std::move(path)) {}

  // With its closing "\".
  std::u16string path_;
};
