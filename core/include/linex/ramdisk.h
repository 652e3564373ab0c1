// Linux RAM disks: cpio archives in the "new ASCII" format, read node by
// node (with a filter, removals, replacements and captures) and written.
//
// Every failure is thrown as a Common::Error.  Damage to an archive reads
// "The file is corrupted."; the source position tells which check it was.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "common/error.h"
#include "file/file.h"

namespace LinuxEx {

enum RamdiskNodeType : int {
  kRegularFile = 0,
  kDirectory = 1,
  kSymbolicLink = 2,
  kSocket = 3,
  kFifo = 4,
  kCharacterDevice = 5,
  kBlockDevice = 6,
  kUnknownNode = 7,
};

inline constexpr size_t kCpioHeaderSize = 110;
inline constexpr char kCpioMagic[] = "070701";
inline constexpr char kTrailerName[] = "TRAILER!!!";
// The longest `namesize` accepted from an archive, the closing 0 included:
// the kernel's own limit on a path.  A longer one is damage, and refusing it
// keeps a hostile header from sizing an allocation.
inline constexpr uint32_t kMaxNameSize = 4096;

struct RamdiskNode {
  uint32_t ino = 0;
  uint32_t mode = 0;  // without the type bits
  uint32_t uid = 0;
  uint32_t gid = 0;
  uint32_t nlink = 1;
  uint32_t mtime = 0;
  uint32_t rdevmajor = 0;
  uint32_t rdevminor = 0;
  uint32_t filesize = 0;
  std::string name;
  int type = kUnknownNode;
  std::string linkTarget;
  // Where the data comes from when writing.
  std::shared_ptr<ri_file> stream;
};

// Split at "/", drop empty parts and ".", let ".." drop the part before it;
// no leading or closing "/".
std::string NormalizeRamdiskName(std::string_view name);
// "*" stands for any run of bytes; see the processor's rules.
bool MatchPattern(std::string_view name, std::string_view pattern);
// The type bits of `mode` for a node type (0 for an unknown one), and the
// node type that the type bits of a `mode` field stand for.
uint32_t ModeTypeBits(int type);
int NodeTypeOfMode(uint32_t mode);
// The node that closes an archive.
const RamdiskNode& TrailerNode();

// Writes the header and name of `node` in one Write.  A null output throws
// "Error occurred while writing the file."; the output's error (a short
// write being "The disk is full.") is taken out of it and thrown.
o_file* operator<<(o_file* output, const RamdiskNode& node);

class InputFilter {
 public:
  virtual ~InputFilter() = default;
  // Sees each node of the input as read, before its name is normalised; an
  // error stops the processor and is thrown as it is.
  virtual Common::Error Filter(const RamdiskNode& node) = 0;
};

// Collects nodes and writes them, sorted by name, as one archive.
class RamdiskAppender {
 public:
  // A copy of the rest of `stream` is kept in memory.
  virtual void AddFile(const std::string& name, i_file& stream) = 0;
  // `stream` is read at Commit, from where it stands then; it must still
  // hold GetSize bytes.
  virtual void AddFile(const std::string& name, std::shared_ptr<ri_file> stream) = 0;
  virtual void AddFile(const std::string& name, const void* bytes, uint64_t size) = 0;
  virtual void AddDir(const std::string& name) = 0;
  virtual void AddLnk(const std::string& name, const std::string& target) = 0;
  virtual void AddDev(const std::string& name, uint32_t major, uint32_t minor, bool block) = 0;
  virtual void Commit(bool addIntermediateDirs, bool writeTrailer) = 0;
  virtual ~RamdiskAppender() = default;
};

// Reads an archive (concatenated archives count as one) and, with an
// output, writes a changed copy: removed nodes dropped, kept exceptions and
// scheduled nodes written, captured files copied to the caller's streams.
class RamdiskProcessor : public virtual RamdiskAppender {
 public:
  // Takes the filter out of `filter`; the previous one is deleted.
  virtual void SetFilter(std::unique_ptr<InputFilter>& filter) = 0;
  virtual void Remove(const std::string& pattern) = 0;
  virtual void Keep(const std::string& pattern) = 0;
  // The data of the node called `name` also goes to `stream`, rewound
  // first.
  virtual void Extract(const std::string& name, std::shared_ptr<ro_file> stream) = 0;
};

// Neither stream is owned; both may be null.  `executable` gives added
// files the mode 0755 rather than 0644.
std::unique_ptr<RamdiskAppender> CreateRamdiskAppender(o_file* output, bool executable);
std::unique_ptr<RamdiskProcessor> CreateRamdiskProcessor(i_file* input, o_file* output,
                                                         bool executable);

}  // namespace LinuxEx
