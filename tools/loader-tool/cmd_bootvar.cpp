// loader-tool bootvar: boot entries as Linux's efivarfs shows them (4 bytes
// of attributes, then the record), read and written with the loader's own
// code, so that rescue media builders can inspect an entry or prepare the
// one-shot entry that the RemoveFakeBootNext job takes away.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "common/text.h"
#include "tool.h"
#include "uefi/boot_entries.h"
#include "uefi/load_options.h"

namespace {

constexpr uint32_t kEfivarfsAttributes = Uefi::kVariableAttributes;
// Far above any boot entry; a larger file is not one.
constexpr long kMaxFileSize = 1 << 20;

int Usage() {
  std::fprintf(stderr,
               "usage: loader-tool bootvar dump FILE\n"
               "       loader-tool bootvar make --description TEXT --guid PARTUUID --path "
               "\\EFI\\...\\X.EFI\n"
               "                                [--partition N] [--start LBA] [--size SECTORS] "
               "[--tag] OUT\n"
               "  FILE and OUT are Boot#### variables in efivarfs form (4 attribute bytes, then\n"
               "  the record).  --tag appends \"Fake_tag\" as optional data: a one-shot entry.\n"
               "  The partition number, start and size are 0 unless given; firmware finds the\n"
               "  partition by its GUID.\n");
  return 2;
}

int Report(const Common::Error& e) {
  std::fprintf(stderr, "%s\n", tool::ToUtf8(Common::ErrorText(e)).c_str());
  return 1;
}

bool ReadWhole(const char* path, std::vector<uint8_t>& out) {
  FILE* f = std::fopen(path, "rb");
  if (!f) {
    std::fprintf(stderr, "loader-tool bootvar: cannot open %s: %s\n", path, std::strerror(errno));
    return false;
  }
  out.clear();
  uint8_t buffer[4096];
  size_t got;
  while ((got = std::fread(buffer, 1, sizeof buffer, f)) > 0) {
    out.insert(out.end(), buffer, buffer + got);
    if (out.size() > size_t(kMaxFileSize)) {
      std::fclose(f);
      std::fprintf(stderr, "loader-tool bootvar: %s is too large for a boot entry\n", path);
      return false;
    }
  }
  const bool failed = std::ferror(f);
  std::fclose(f);
  if (failed) std::fprintf(stderr, "loader-tool bootvar: cannot read %s\n", path);
  return !failed;
}

int Dump(int argc, char** argv) {
  if (argc != 1) return Usage();
  std::vector<uint8_t> file;
  if (!ReadWhole(argv[0], file)) return 1;
  if (file.size() < 4) {
    std::fprintf(stderr, "loader-tool bootvar: %s is no variable: fewer than 4 bytes\n", argv[0]);
    return 1;
  }
  const uint8_t* record = file.data() + 4;
  const size_t size = file.size() - 4;

  Uefi::LoadOptionsImpl options;
  Uefi::RecordReader reader{record, static_cast<int64_t>(size)};
  const Common::Error parsed = Uefi::Fill(options, reader);
  std::u16string text = Uefi::DescribeLoadOptions(parsed.IsSuccess() ? &options : nullptr);
  text += Uefi::HexDumpText(record, size);
  std::fputs(tool::ToUtf8(text).c_str(), stdout);
  return parsed.IsSuccess() ? 0 : Report(parsed);
}

bool ParseNumber(const char* text, uint64_t max, uint64_t& out) {
  if (!*text || *text == '-') return false;
  char* end = nullptr;
  errno = 0;
  const unsigned long long v = std::strtoull(text, &end, 0);
  if (errno || *end || v > max) return false;
  out = v;
  return true;
}

bool Wide(const char* text, std::u16string& out) { return Common::Utf8ToUtf16Strict(text, out); }

int Make(int argc, char** argv) {
  const char *description = nullptr, *guidText = nullptr, *path = nullptr, *out = nullptr;
  uint64_t partition = 0, start = 0, size = 0;
  bool tag = false;
  for (int i = 0; i < argc; ++i) {
    const std::string a = argv[i];
    const bool hasValue = i + 1 < argc;
    if (a == "--tag") {
      tag = true;
    } else if (a == "--description" && hasValue) {
      description = argv[++i];
    } else if (a == "--guid" && hasValue) {
      guidText = argv[++i];
    } else if (a == "--path" && hasValue) {
      path = argv[++i];
    } else if (a == "--partition" && hasValue) {
      if (!ParseNumber(argv[++i], 0xFFFFFFFFu, partition)) return Usage();
    } else if (a == "--start" && hasValue) {
      if (!ParseNumber(argv[++i], ~0ull, start)) return Usage();
    } else if (a == "--size" && hasValue) {
      if (!ParseNumber(argv[++i], ~0ull, size)) return Usage();
    } else if (a.rfind("--", 0) != 0 && !out) {
      out = argv[i];
    } else {
      return Usage();
    }
  }
  if (!description || !guidText || !path || !out) return Usage();

  Common::GUID guid{};
  if (!Common::TextToGuid(guidText, guid)) {
    std::fprintf(stderr, "loader-tool bootvar: '%s' is no GUID\n", guidText);
    return 2;
  }
  std::u16string wideDescription, widePath;
  if (!Wide(description, wideDescription) || !Wide(path, widePath)) {
    std::fprintf(stderr, "loader-tool bootvar: description and path must be UTF-8\n");
    return 2;
  }

  Uefi::LoadOptionsImpl options;
  options.attributes = Uefi::kLoadOptionActive;
  Common::Error e = options.SetDescription(wideDescription);
  if (e.IsSuccess()) e = options.SetPartitionGUID(guid);
  if (e.IsSuccess()) e = options.SetPartitionNumber(static_cast<uint32_t>(partition));
  if (e.IsSuccess()) e = options.SetPartitionStart(start);
  if (e.IsSuccess()) e = options.SetPartitionSize(size);
  if (e.IsSuccess()) e = options.SetPath(widePath);
  if (e.IsSuccess()) e = Uefi::Verify(options);
  std::vector<uint8_t> bytes;
  for (int i = 0; i < 4; ++i) bytes.push_back(uint8_t(kEfivarfsAttributes >> (8 * i)));
  if (e.IsSuccess()) e = Uefi::Serialize(options, bytes);
  if (e.IsError()) return Report(e);
  if (tag) bytes.insert(bytes.end(), std::begin(Uefi::kFakeTag), std::end(Uefi::kFakeTag));

  std::ofstream file(out, std::ios::binary | std::ios::trunc);
  file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  file.close();
  if (!file) {
    std::fprintf(stderr, "loader-tool bootvar: cannot write %s\n", out);
    return 1;
  }
  return 0;
}

int Run(int argc, char** argv) {
  if (argc >= 1 && std::strcmp(argv[0], "dump") == 0) return Dump(argc - 1, argv + 1);
  if (argc >= 1 && std::strcmp(argv[0], "make") == 0) return Make(argc - 1, argv + 1);
  return Usage();
}

tool::Registrar reg("bootvar",
                    "bootvar dump FILE | make --description D --guid G --path P [--tag] OUT\n"
                    "                        show or write a Boot#### variable (efivarfs form)",
                    &Run);

}  // namespace
