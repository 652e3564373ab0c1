// Command registry of loader-tool.  Each command lives in its own file and
// registers itself with a static Registrar.
#pragma once

#include <string>
#include <vector>

#include "common/error.h"

namespace tool {

struct Command {
  const char* name;
  const char* usage;
  int (*run)(int argc, char** argv);  // arguments after the command name
};

std::vector<Command>& Registry();

struct Registrar {
  Registrar(const char* name, const char* usage, int (*run)(int, char**));
};

std::string ToUtf8(const std::u16string& s);

}  // namespace tool
