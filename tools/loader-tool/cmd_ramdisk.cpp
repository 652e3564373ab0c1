// loader-tool ramdisk: RAM disks through the loader's own readers and
// writers.
//   ramdisk ls FILE        every node: type, mode, size, name
//   ramdisk cat FILE       the decoded archives, one behind the other
//   ramdisk append IN OUT [--executable] [--level N] --add PATH=LOCALFILE...
//                          IN followed by a new archive with the files; a
//                          gzip IN stays one gzip stream, the old data is
//                          not compressed again
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "common/clock.h"
#include "file/gzipfile.h"
#include "file/posix_file.h"
#include "file/utils.h"
#include "linex/ramdisk.h"
#include "linex/ramdisk_image.h"
#include "tool.h"

namespace {

using namespace LinuxEx;
using namespace Common::Codes;

uint32_t HostTime() { return static_cast<uint32_t>(std::time(nullptr)); }

std::unique_ptr<PosixFile> OpenOrThrow(const std::string& path, PosixFile::Mode mode) {
  Common::Error error;
  auto file = PosixFile::Open(path, mode, error);
  if (!file) throw error;
  return file;
}

const char* TypeName(int type) {
  static const char* kNames[] = {"file", "dir", "link", "socket", "fifo", "chardev", "blockdev"};
  return type >= 0 && type < kUnknownNode ? kNames[type] : "unknown";
}

int Usage() {
  std::fprintf(stderr,
               "usage: loader-tool ramdisk ls FILE\n"
               "       loader-tool ramdisk cat FILE\n"
               "       loader-tool ramdisk append IN OUT [--executable] [--level N] "
               "--add PATH=LOCALFILE...\n");
  return 2;
}

int List(const std::string& path) {
  auto image = OpenOrThrow(path, PosixFile::Mode::Read);
  WalkRamdiskImage(*image, [](const RamdiskNode& node, const RamdiskSegment&) {
    if (NormalizeRamdiskName(node.name) != kTrailerName)
      std::printf("%s %04o %u %s\n", TypeName(node.type), node.mode, node.filesize, node.name.c_str());
    return Common::Error();
  });
  return 0;
}

// Standard output as a stream; it may be a pipe, so no positioned writes.
class StdoutSink final : public o_file {
 public:
  using o_file::Write;
  void Write(const void* buffer, uint64_t size, uint64_t& written) override {
    written = 0;
    if (HasError()) return;
    written = std::fwrite(buffer, 1, size, stdout);
    if (written < size) SetError(ERROR_HERE, WriteError);
  }
  void Flush() override {
    if (!HasError() && std::fflush(stdout) != 0) SetError(ERROR_HERE, WriteError);
  }
};

int Cat(const std::string& path) {
  auto image = OpenOrThrow(path, PosixFile::Mode::Read);
  StdoutSink out;
  WalkRamdiskImage(*image, [](const RamdiskNode&, const RamdiskSegment&) { return Common::Error(); },
                   &out);
  out.Flush();
  if (out.HasError()) throw out.TakeError();
  return 0;
}

void WriteAppended(PosixFile& inFile, PosixFile& outFile, bool gzip, int level, bool executable,
                   std::vector<std::pair<std::string, std::shared_ptr<ri_file>>>& files);

int Append(int argc, char** argv) {
  if (argc < 2) return Usage();
  const std::string inPath = argv[0], outPath = argv[1];
  bool executable = false;
  int level = 9;
  std::vector<std::pair<std::string, std::string>> additions;
  for (int i = 2; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--executable") {
      executable = true;
    } else if (arg == "--level" && i + 1 < argc) {
      level = std::atoi(argv[++i]);
      if (level < 0 || level > 9) return Usage();
    } else if (arg == "--add" && i + 1 < argc) {
      const std::string addition = argv[++i];
      const size_t eq = addition.find('=');
      if (eq == std::string::npos || eq == 0 || eq + 1 == addition.size()) return Usage();
      additions.emplace_back(addition.substr(0, eq), addition.substr(eq + 1));
    } else {
      return Usage();
    }
  }
  if (additions.empty()) return Usage();

  auto in = OpenOrThrow(inPath, PosixFile::Mode::Read);
  unsigned char magic[6] = {};
  uint64_t got = 0;
  in->Read(magic, sizeof magic, got);
  if (in->HasError()) throw in->TakeError();
  in->Rewind();
  const bool gzip = got >= 2 && magic[0] == 0x1f && magic[1] == 0x8b;
  const bool plain = got == 6 && std::memcmp(magic, kCpioMagic, 6) == 0;
  if (got == 6 && std::memcmp(magic, "\xfd" "7zXZ", 6) == 0) THROW_ERROR(NotSupported);
  if (!gzip && !plain) THROW_ERROR(Corrupted);

  // The new files, all opened before the output is made.
  std::vector<std::pair<std::string, std::shared_ptr<ri_file>>> files;
  for (const auto& [name, local] : additions)
    files.emplace_back(name, std::shared_ptr<ri_file>(OpenOrThrow(local, PosixFile::Mode::Read)));

  auto out = OpenOrThrow(outPath, PosixFile::Mode::CreateNew);
  try {
    WriteAppended(*in, *out, gzip, level, executable, files);
  } catch (...) {
    out.reset();
    unlink(outPath.c_str());  // no half-written archive is left behind
    throw;
  }
  return 0;
}

void WriteAppended(PosixFile& inFile, PosixFile& outFile, bool gzip, int level, bool executable,
                   std::vector<std::pair<std::string, std::shared_ptr<ri_file>>>& files) {
  PosixFile* in = &inFile;
  PosixFile* out = &outFile;
  std::unique_ptr<GzipAppender> gzipAppender;
  o_file* target = out;
  if (gzip) {
    gzipAppender = CreateGzipAppender(*in, *out, level);
    target = gzipAppender.get();
  } else {
    uint64_t copied = 0;
    Common::Error e = SimpleCopyFile(in, out, &copied);
    if (e.IsError()) throw e;
    // Archives behind one another start at a multiple of 4.
    static const unsigned char kZeros[4] = {};
    if (copied % 4 != 0) out->Write(kZeros, 4 - copied % 4);
    if (out->HasError()) throw out->TakeError();
  }
  auto appender = CreateRamdiskAppender(target, executable);
  for (auto& [name, stream] : files) appender->AddFile(name, stream);
  appender->Commit(true, true);
  gzipAppender.reset();
  out->Flush();
  if (out->HasError()) throw out->TakeError();
}

int Run(int argc, char** argv) {
  Common::SetClockSource(&HostTime);
  if (argc < 1) return Usage();
  const std::string sub = argv[0];
  if (sub == "ls" && argc == 2) return List(argv[1]);
  if (sub == "cat" && argc == 2) return Cat(argv[1]);
  if (sub == "append") return Append(argc - 1, argv + 1);
  return Usage();
}

tool::Registrar reg("ramdisk", "ramdisk ls|cat FILE | ramdisk append IN OUT --add PATH=LOCALFILE...",
                    &Run);

}  // namespace
