// loader-tool bench-hash FILE DIGEST: times the loader's digest check over a
// file, for comparing it with other digest programs on the same file.
#include <chrono>
#include <cstdio>
#include <string>

#include "efi/signatures.h"
#include "file/posix_file.h"
#include "tool.h"

namespace {

int Run(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: loader-tool bench-hash FILE SHA256-HEX\n");
    return 2;
  }
  EfiLoader::DigestList digests(1);
  if (EfiLoader::ConvertToBinary(argv[1], digests[0]).IsError() || digests[0].size() != 32) {
    std::fprintf(stderr, "loader-tool bench-hash: '%s' is not a SHA-256 digest in hex\n", argv[1]);
    return 2;
  }
  Common::Error err;
  auto file = PosixFile::Open(argv[0], PosixFile::Mode::Read, err);
  if (!file) throw err;
  const auto start = std::chrono::steady_clock::now();
  const bool listed = EfiLoader::IsHashValid(*file, digests);
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
  const double size = static_cast<double>(file->GetSize());
  std::printf("%.6f s, %.1f MiB/s, %s\n", took.count(), size / (1 << 20) / took.count(),
              listed ? "digest matches" : "digest differs");
  return listed ? 0 : 1;
}

tool::Registrar reg("bench-hash", "bench-hash FILE SHA256-HEX   time the loader's digest check of FILE",
                    &Run);

}  // namespace
