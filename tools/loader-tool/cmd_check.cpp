// loader-tool check CONFIG: reads a configuration with the loader's own
// code, builds every action and job, and prints what the loader would do.
#include <cstdio>
#include <memory>
#include <string>

#include "common/text.h"
#include "efi/config.h"
#include "efi/xml_access.h"
#include "file/posix_file.h"
#include "tool.h"

namespace {

using namespace EfiLoader;

std::string U8(const std::u16string& s) { return Common::Utf16ToUtf8(s); }

std::string KeyName(uint32_t code) {
  static const char* kScan[] = {nullptr, "Up",  "Down", "Right", "Left",  "Home",   "End",
                                "Insert", "Delete", "PgUp", "PgDown", "F1", "F2", "F3",
                                "F4",  "F5",   "F6",    "F7",    "F8",     "F9",  "F10",
                                "F11", "F12", "Esc"};
  const uint16_t scan = code & 0xFFFF;
  if (scan && scan < sizeof kScan / sizeof kScan[0]) return kScan[scan];
  return "'" + U8(std::u16string(1, static_cast<char16_t>(code >> 16))) + "'";
}

void PrintAction(const Action& action, int depth);

void Indent(int depth) { std::printf("%*s", depth * 2, ""); }

void PrintAttr(const Action& action, const char* name, int depth) {
  std::u16string v;
  if (xml::Attribute(action.Node(), name, v)) {
    Indent(depth);
    std::printf("%s: %s\n", name, U8(v).c_str());
  }
}

void PrintAction(const Action& action, int depth) {
  Indent(depth);
  if (auto* menu = dynamic_cast<const Menu*>(&action)) {
    std::printf("Menu");
    if (!menu->topic.empty()) std::printf(" \"%s\"", U8(menu->topic).c_str());
    if (menu->delay != -1)
      std::printf(" (time-out %d s)", menu->delay);
    else
      std::printf(" (no time-out)");
    std::printf("\n");
    for (const auto& [code, entry] : menu->entries) {
      Indent(depth + 1);
      std::printf("[%s]%s \"%s\"", KeyName(code).c_str(), entry->isDefault ? " default" : "",
                  U8(entry->text).c_str());
      if (!entry->confirmation.empty())
        std::printf(" asks \"%s\"", U8(entry->confirmation).c_str());
      std::printf("\n");
      PrintAction(*entry->action, depth + 2);
    }
  } else if (auto* lk = dynamic_cast<const LoadKernel*>(&action)) {
    std::printf("LoadKernel\n");
    for (size_t i = 0; i < xml::ChildCount(action.Node()); ++i) {
      const XmlElement* c = xml::ChildAt(action.Node(), i);
      const std::string& n = xml::Name(c);
      if (n != "Kernel" && n != "Ramdisk" && n != "Hash" && n != "GPT") continue;
      Indent(depth + 1);
      std::printf("%s", n.c_str());
      for (const auto& [k, v] : c->attributes) std::printf(" %s=\"%s\"", k.c_str(), U8(v).c_str());
      std::printf("\n");
    }
    Indent(depth + 1);
    std::printf("command line: \"%s\"\n", lk->Arguments().c_str());
  } else if (dynamic_cast<const ChainLoad*>(&action)) {
    std::u16string exe;
    xml::Attribute(action.Node(), "Executable", exe);
    if (exe.empty())
      std::printf("Chainload (nothing: back to the firmware)\n");
    else
      std::printf("Chainload \"%s\"\n", U8(exe).c_str());
  } else if (dynamic_cast<const RenameJob*>(&action)) {
    std::printf("Rename\n");
    PrintAttr(action, "FileNameSource", depth + 1);
    PrintAttr(action, "FileNameTarget", depth + 1);
  } else if (dynamic_cast<const RemoveFakeBootNextJob*>(&action)) {
    std::printf("RemoveFakeBootNext\n");
  } else {
    std::printf("(unknown action)\n");
  }
  if (!action.Loading().empty()) {
    Indent(depth + 1);
    std::printf("loading text: \"%s\"\n", U8(action.Loading()).c_str());
  }
}

int Fail(const Common::Error& e) {
  std::fprintf(stderr, "%s\n", U8(Common::ErrorText(e)).c_str());
  return 1;
}

int Run(int argc, char** argv) {
  if (argc != 1) {
    std::fprintf(stderr, "usage: loader-tool check CONFIG\n");
    return 2;
  }
  Common::Error err;
  auto file = PosixFile::Open(argv[0], PosixFile::Mode::Read, err);
  if (!file) return Fail(err);
  std::shared_ptr<ConfigurationFile> config;
  if (Common::Error e = ConfigurationFile::Create(*file, config); e.IsError()) return Fail(e);
  const size_t jobs = config->JobCount();
  if (jobs) std::printf("Jobs\n");
  for (size_t i = 0; i < jobs; ++i) {
    std::shared_ptr<Action> job;
    if (Common::Error e = config->GetJob(i, job); e.IsError()) return Fail(e);
    PrintAction(*job, 1);
  }
  std::shared_ptr<Action> action;
  if (Common::Error e = config->GetAction(action); e.IsError()) return Fail(e);
  std::printf("Action\n");
  PrintAction(*action, 1);
  return 0;
}

tool::Registrar reg("check", "check CONFIG          parse a configuration as the loader does and show it",
                    &Run);

}  // namespace
