#include "xml_util.h"

#include <cstdio>

#include "common/error.h"
#include "file/posix_file.h"
#include "tool.h"

namespace tool {

std::string OneLine(const Common::Error& error) {
  std::string out;
  for (Common::Error e = error; e.IsError(); e = e.Cause()) {
    if (!out.empty()) {
      if (out.back() == '.') out.pop_back();
      out += ": ";
    }
    out += ToUtf8(e.Message());
  }
  return out;
}

bool LoadXml(const std::string& path, std::unique_ptr<XmlElement>& root) {
  Common::Error err;
  auto file = PosixFile::Open(path, PosixFile::Mode::Read, err);
  if (!file) {
    std::fprintf(stderr, "loader-tool: %s: cannot open: %s\n", path.c_str(), OneLine(err).c_str());
    return false;
  }
  int line = 0, column = 0;
  if (ReadXml(root, *file, line, column)) return true;
  // The reader itself knows only "malformed"; a failing stream (a read
  // error, or a binary file cut short) says more.
  const std::string why = file->HasError() ? ": " + OneLine(file->GetError()) : "";
  std::fprintf(stderr, "loader-tool: %s: malformed XML at line %d, column %d%s\n", path.c_str(),
               line, column, why.c_str());
  return false;
}

}  // namespace tool
