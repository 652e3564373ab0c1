// loader-tool: the loader's own code on the host, for people who build
// rescue media and for the tests.
#include <cstdio>
#include <cstring>
#include <string>

#include "tool.h"

namespace tool {

std::vector<Command>& Registry() {
  static std::vector<Command> commands;
  return commands;
}

Registrar::Registrar(const char* name, const char* usage, int (*run)(int, char**)) {
  Registry().push_back(Command{name, usage, run});
}

}  // namespace tool

static void Usage(FILE* out) {
  std::fprintf(out, "usage: loader-tool COMMAND [ARGS...]\n\ncommands:\n");
  for (const auto& c : tool::Registry()) std::fprintf(out, "  %s\n", c.usage);
}

int main(int argc, char** argv) {
  if (argc < 2 || !std::strcmp(argv[1], "--help") || !std::strcmp(argv[1], "-h")) {
    Usage(argc < 2 ? stderr : stdout);
    return argc < 2 ? 2 : 0;
  }
  for (const auto& c : tool::Registry()) {
    if (std::strcmp(c.name, argv[1]) == 0) {
      try {
        return c.run(argc - 2, argv + 2);
      } catch (const Common::Error& e) {
        std::fprintf(stderr, "%s\n", tool::ToUtf8(Common::ErrorText(e)).c_str());
        return 1;
      }
    }
  }
  std::fprintf(stderr, "loader-tool: unknown command '%s'\n", argv[1]);
  Usage(stderr);
  return 2;
}
