// Inside the RAM disk code: the appender that the processor is built on,
// and the parsed numbers of a header.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "file/memfile.h"
#include "linex/ramdisk.h"

namespace LinuxEx {

// The 13 numbers of a header in their order in the format.
struct CpioHeader {
  enum Field {
    kIno, kMode, kUid, kGid, kNlink, kMtime, kFilesize,
    kDevMajor, kDevMinor, kRdevMajor, kRdevMinor, kNamesize, kCheck,
  };
  uint32_t fields[13];
  uint32_t operator[](Field f) const { return fields[f]; }
};

// Reads the numbers behind the magic (both cases of hexadecimal digits);
// false if a field holds anything else.
bool ParseCpioNumbers(const unsigned char* header, CpioHeader& out);

class RamdiskAppenderImpl : public virtual RamdiskAppender {
 public:
  RamdiskAppenderImpl(o_file* output, bool executable) : output_(output), executable_(executable) {}

  void AddFile(const std::string& name, i_file& stream) override;
  void AddFile(const std::string& name, std::shared_ptr<ri_file> stream) override;
  void AddFile(const std::string& name, const void* bytes, uint64_t size) override;
  void AddDir(const std::string& name) override;
  void AddLnk(const std::string& name, const std::string& target) override;
  void AddDev(const std::string& name, uint32_t major, uint32_t minor, bool block) override;
  void Commit(bool addIntermediateDirs, bool writeTrailer) override;

 protected:
  bool IsScheduled(const std::string& normalName) const { return scheduled_.count(normalName) != 0; }
  void RaiseInodeWatermark(uint32_t ino) {
    if (ino >= inodeWatermark_) inodeWatermark_ = ino + 1;
  }

  o_file* output_;

 private:
  void ScheduleAdd(RamdiskNode node);
  void AddIntermediateDirs();
  void PutNode(RamdiskNode& node);
  void WriteZeros(uint64_t count);

  std::map<std::string, RamdiskNode> scheduled_;
  bool committing_ = false;
  std::vector<std::shared_ptr<Common::MemoryFile>> memoryFiles_;
  bool executable_;
  // Above every inode number of the input; nodes added here keep 0.
  uint64_t inodeWatermark_ = 0;
};

}  // namespace LinuxEx
