// Writing an archive: nodes are scheduled by name and written in one pass,
// in name order, so that a directory precedes what lies in it.
#include "common/clock.h"
#include "file/utils.h"
#include "ramdisk_impl.h"

using namespace Common::Codes;

namespace LinuxEx {

namespace {

constexpr uint64_t kMaxFileSize = 0xffffffff;
constexpr uint32_t kFileMode = 0644;
constexpr uint32_t kExecutableMode = 0755;
constexpr uint32_t kDirMode = 0755;
constexpr uint32_t kLinkMode = 0777;
constexpr uint32_t kDevMode = 0644;

uint32_t PadOf(uint32_t size) { return (4 - (size & 3)) & 3; }

std::shared_ptr<Common::MemoryFile> NewMemoryFile() {
  return std::shared_ptr<Common::MemoryFile>(Common::CreateMemoryFile());
}

}  // namespace

void RamdiskAppenderImpl::ScheduleAdd(RamdiskNode node) {
  node.name = NormalizeRamdiskName(node.name);
  if (node.name.empty()) THROW_ERROR(CreateError);
  node.mtime = Common::CurrentTimeSeconds();
  // The last addition of a name wins.
  scheduled_.erase(node.name);
  std::string key = node.name;
  scheduled_.emplace(std::move(key), std::move(node));
}

void RamdiskAppenderImpl::AddFile(const std::string& name, i_file& stream) {
  auto memory = NewMemoryFile();
  Common::Error e = SimpleCopyFile(&stream, memory.get(), kDefaultCopyBufferSize);
  if (e.IsError()) throw e;
  memory->Rewind();
  memoryFiles_.push_back(memory);
  AddFile(name, std::shared_ptr<ri_file>(memory));
}

void RamdiskAppenderImpl::AddFile(const std::string& name, std::shared_ptr<ri_file> stream) {
  const int64_t size = stream->GetSize();
  if (stream->HasError()) throw stream->TakeError();
  if (size < 0 || static_cast<uint64_t>(size) > kMaxFileSize) THROW_ERROR(NotEnoughMemory);
  RamdiskNode node;
  node.name = name;
  node.type = kRegularFile;
  node.nlink = 1;
  node.mode = executable_ ? kExecutableMode : kFileMode;
  node.filesize = static_cast<uint32_t>(size);
  node.stream = std::move(stream);
  ScheduleAdd(std::move(node));
}

void RamdiskAppenderImpl::AddFile(const std::string& name, const void* bytes, uint64_t size) {
  if (size > kMaxFileSize) THROW_ERROR(NotEnoughMemory);
  auto memory = NewMemoryFile();
  memory->Write(bytes, size);
  if (memory->HasError()) throw memory->TakeError();
  memory->Rewind();
  AddFile(name, std::shared_ptr<ri_file>(memory));
  memoryFiles_.push_back(memory);
}

void RamdiskAppenderImpl::AddDir(const std::string& name) {
  RamdiskNode node;
  node.name = name;
  node.type = kDirectory;
  node.nlink = 2;
  node.mode = kDirMode;
  ScheduleAdd(std::move(node));
}

void RamdiskAppenderImpl::AddLnk(const std::string& name, const std::string& target) {
  if (name.empty()) THROW_ERROR(CreateError);
  if (target.size() > kMaxFileSize) THROW_ERROR(NotEnoughMemory);
  RamdiskNode node;
  node.name = name;
  node.type = kSymbolicLink;
  node.nlink = 1;
  node.mode = kLinkMode;
  node.filesize = static_cast<uint32_t>(target.size());
  node.linkTarget = target;
  ScheduleAdd(std::move(node));
}

void RamdiskAppenderImpl::AddDev(const std::string& name, uint32_t major, uint32_t minor, bool block) {
  RamdiskNode node;
  node.name = name;
  node.type = block ? kBlockDevice : kCharacterDevice;
  node.nlink = 1;
  node.mode = kDevMode;
  node.rdevmajor = major;
  node.rdevminor = minor;
  ScheduleAdd(std::move(node));
}

void RamdiskAppenderImpl::AddIntermediateDirs() {
  std::map<std::string, RamdiskNode> collected;
  for (const auto& [name, node] : scheduled_) {
    for (size_t slash = name.find('/'); slash != std::string::npos; slash = name.find('/', slash + 1)) {
      std::string prefix = name.substr(0, slash);
      if (collected.count(prefix)) continue;
      RamdiskNode dir;
      dir.name = prefix;
      dir.type = kDirectory;
      dir.mode = kDirMode;
      dir.nlink = 2;
      dir.mtime = node.mtime;
      collected.emplace(std::move(prefix), std::move(dir));
    }
  }
  for (auto& [name, dir] : collected) {
    auto found = scheduled_.find(name);
    if (found == scheduled_.end()) {
      scheduled_.emplace(name, std::move(dir));
    } else if (found->second.type != kDirectory) {
      THROW_ERROR(AlreadyExists);
    }
  }
}

void RamdiskAppenderImpl::WriteZeros(uint64_t count) {
  static const unsigned char kZeros[4] = {0, 0, 0, 0};
  output_->Write(kZeros, count);
  if (output_->HasError()) throw output_->TakeError();
}

void RamdiskAppenderImpl::PutNode(RamdiskNode& node) {
  output_ << node;
  if (node.stream) {
    uint64_t copied = 0;
    Common::Error e = SimpleCopyFile(node.stream.get(), output_, &copied, kDefaultCopyBufferSize);
    if (e.IsError()) throw e;
    if (copied != node.filesize) THROW_ERROR(Corrupted);
    node.stream.reset();
  }
  if (!node.linkTarget.empty()) {
    output_->Write(node.linkTarget.data(), node.linkTarget.size());
    if (output_->HasError()) throw output_->TakeError();
  }
  if (const uint32_t pad = PadOf(node.filesize)) WriteZeros(pad);
}

void RamdiskAppenderImpl::Commit(bool addIntermediateDirs, bool writeTrailer) {
  committing_ = true;
  if (addIntermediateDirs) AddIntermediateDirs();
  for (auto& [name, node] : scheduled_) PutNode(node);
  if (output_ != nullptr) {
    if (writeTrailer) output_ << TrailerNode();
    output_->Flush();
    if (output_->HasError()) throw output_->TakeError();
  }
  scheduled_.clear();
  committing_ = false;
}

std::unique_ptr<RamdiskAppender> CreateRamdiskAppender(o_file* output, bool executable) {
  return std::make_unique<RamdiskAppenderImpl>(output, executable);
}

}  // namespace LinuxEx
