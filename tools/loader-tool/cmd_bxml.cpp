// loader-tool bxml [--version 1|2] IN OUT: writes a configuration in the
// binary form, and makes sure the loader reads back the very same tree.
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "file/buf_ifile.h"
#include "file/posix_file.h"
#include "tool.h"
#include "xml/bxml_writer.h"
#include "xml/xml.h"
#include "xml_util.h"

namespace {

int Usage() {
  std::fprintf(stderr, "usage: loader-tool bxml [--version 1|2] IN OUT\n");
  return 2;
}

int Run(int argc, char** argv) {
  int version = 2;
  if (argc >= 2 && std::strcmp(argv[0], "--version") == 0) {
    if (std::strcmp(argv[1], "1") == 0)
      version = 1;
    else if (std::strcmp(argv[1], "2") != 0)
      return Usage();
    argc -= 2;
    argv += 2;
  }
  if (argc != 2) return Usage();
  const std::string in = argv[0], out = argv[1];

  std::unique_ptr<XmlElement> root;
  if (!tool::LoadXml(in, root)) return 1;
  std::string bytes;
  if (Common::Error e = WriteBinaryXml(*root, version, bytes); e.IsError()) {
    std::fprintf(stderr, "loader-tool: %s: cannot be written as binary XML: %s\n", in.c_str(),
                 tool::OneLine(e).c_str());
    return 1;
  }
  {
    buf_ifile<unsigned char> check(bytes.data(), bytes.size());
    std::unique_ptr<XmlElement> again;
    int line, column;
    if (!ReadXml(again, check, line, column) || !SameXmlTree(*root, *again)) {
      std::fprintf(stderr, "loader-tool: %s: the binary form does not read back the same\n",
                   in.c_str());
      return 1;
    }
  }

  Common::Error err;
  auto file = PosixFile::Open(out, PosixFile::Mode::Create, err);
  if (file) {
    file->Write(bytes.data(), bytes.size());
    file->Flush();
    if (file->HasError()) err = file->GetError();
  }
  if (err.IsError()) {
    std::fprintf(stderr, "loader-tool: %s: %s\n", out.c_str(), tool::OneLine(err).c_str());
    return 1;
  }
  return 0;
}

tool::Registrar reg("bxml", "bxml [--version 1|2] IN OUT  write an XML file in the binary form",
                    &Run);

}  // namespace
