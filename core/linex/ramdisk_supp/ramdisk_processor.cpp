// Reading an archive node by node, with the filter, the remove and keep
// patterns, the captures and the replacements by scheduled nodes.
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "file/adapters.h"
#include "file/utils.h"
#include "ramdisk_impl.h"

using namespace Common::Codes;

namespace LinuxEx {

namespace {

uint32_t PadOf(uint32_t size) { return (4 - (size & 3)) & 3; }

class RamdiskProcessorImpl final : public RamdiskProcessor, public RamdiskAppenderImpl {
 public:
  RamdiskProcessorImpl(i_file* input, o_file* output, bool executable)
      : RamdiskAppenderImpl(output, executable) {
    if (input != nullptr) input_ = std::make_unique<SkipableIFile>(*input);
  }

  void SetFilter(std::unique_ptr<InputFilter>& filter) override {
    std::unique_ptr<InputFilter> taken(filter.release());
    filter_ = std::move(taken);
  }
  void Remove(const std::string& pattern) override {
    removeSet_.insert(Str2Node(pattern));
    hasRequests_ = true;
  }
  void Keep(const std::string& pattern) override {
    keepSet_.insert(Str2Node(pattern));
    hasRequests_ = true;
  }
  void Extract(const std::string& name, std::shared_ptr<ro_file> stream) override {
    extractSet_[Str2Node(name)] = std::move(stream);
    hasRequests_ = true;
  }

  void Commit(bool addIntermediateDirs, bool writeTrailer) override;

 private:
  static std::string Str2Node(const std::string& pattern) {
    std::string normal = NormalizeRamdiskName(pattern);
    if (normal.empty()) THROW_ERROR(InvalidUsage);
    return normal;
  }

  bool ReadNode(RamdiskNode& node);
  void ProcessNode(RamdiskNode& node);
  bool Removed(const std::string& name) const;
  void SeekToNextHeader();

  std::unique_ptr<SkipableIFile> input_;
  bool hasRequests_ = false;
  std::set<std::string> removeSet_;
  std::set<std::string> keepSet_;
  std::map<std::string, std::shared_ptr<ro_file>> extractSet_;
  std::unique_ptr<InputFilter> filter_;
};

// False at the end of the input (the node's name stays empty).
bool RamdiskProcessorImpl::ReadNode(RamdiskNode& node) {
  node = RamdiskNode();
  unsigned char header[kCpioHeaderSize];
  uint64_t got = 0;
  input_->Read(header, sizeof header, got);
  if (input_->HasError()) throw input_->TakeError();
  if (got == 0) return false;
  if (got < sizeof header) THROW_ERROR(Corrupted);
  if (std::string_view(reinterpret_cast<const char*>(header), 6) != kCpioMagic)
    THROW_ERROR(Corrupted);
  CpioHeader numbers;
  if (!ParseCpioNumbers(header, numbers)) THROW_ERROR(Corrupted);

  node.ino = numbers[CpioHeader::kIno];
  node.type = NodeTypeOfMode(numbers[CpioHeader::kMode]);
  node.mode = numbers[CpioHeader::kMode] & ~0xf000u;
  node.uid = numbers[CpioHeader::kUid];
  node.gid = numbers[CpioHeader::kGid];
  node.nlink = numbers[CpioHeader::kNlink];
  node.mtime = numbers[CpioHeader::kMtime];
  node.filesize = numbers[CpioHeader::kFilesize];
  node.rdevmajor = numbers[CpioHeader::kRdevMajor];
  node.rdevminor = numbers[CpioHeader::kRdevMinor];

  const uint32_t namesize = numbers[CpioHeader::kNamesize];
  if (namesize == 0) THROW_ERROR(Corrupted);
  if (namesize > kMaxNameSize) THROW_ERROR(Corrupted);
  // Name, closing 0 and padding in one read.
  const size_t rest = ((size_t(namesize) + 113) & ~size_t(3)) - kCpioHeaderSize;
  std::string name(rest, '\0');
  input_->Read(name.data(), rest);
  if (input_->HasError()) throw input_->TakeError();
  if (name[namesize - 1] != '\0') THROW_ERROR(Corrupted);
  name.resize(namesize - 1);
  if (name.find('\0') != std::string::npos) THROW_ERROR(Corrupted);
  node.name = std::move(name);
  // An empty name stands for the end of the input, whatever its header says.
  if (node.name.empty()) return false;

  if (NormalizeRamdiskName(node.name) == kTrailerName) {
    if (node.filesize != 0) THROW_ERROR(Corrupted);
    node.type = kRegularFile;
  } else if (node.type == kUnknownNode) {
    THROW_ERROR(Corrupted);
  }
  return true;
}

bool RamdiskProcessorImpl::Removed(const std::string& name) const {
  bool removed = false;
  for (const auto& pattern : removeSet_)
    if (MatchPattern(name, pattern)) {
      removed = true;
      break;
    }
  if (!removed) return false;
  for (const auto& pattern : keepSet_)
    if (MatchPattern(name, pattern)) return false;
  return true;
}

void RamdiskProcessorImpl::ProcessNode(RamdiskNode& node) {
  if (filter_) {
    Common::Error e = filter_->Filter(node);
    if (e.IsError()) throw e;
  }
  node.name = NormalizeRamdiskName(node.name);
  const bool trailer = node.name == kTrailerName;
  // A scheduled node of the same name replaces this one.
  const bool keep = !trailer && !IsScheduled(node.name) && !Removed(node.name);

  std::vector<o_file*> sinks;
  if (output_ != nullptr && keep) {
    output_ << node;
    sinks.push_back(output_);
  }
  auto extract = extractSet_.find(node.name);
  if (extract != extractSet_.end() && extract->second) {
    extract->second->Rewind();
    sinks.push_back(extract->second.get());
  }

  SizeLimitedIFile data(*input_, node.filesize);
  MultiWriter writer(std::move(sinks));
  uint64_t copied = 0;
  Common::Error e = SimpleCopyFile(&data, &writer, &copied, kDefaultCopyBufferSize);
  if (e.IsError()) throw e;
  // Data cut short by the end of the input is damage like a short header.
  if (copied != node.filesize) THROW_ERROR(Corrupted);

  if (const uint32_t pad = PadOf(node.filesize)) {
    static const unsigned char kZeros[4] = {0, 0, 0, 0};
    if (keep && output_ != nullptr) {
      output_->Write(kZeros, pad);
      if (output_->HasError()) throw output_->TakeError();
    }
    unsigned char skipped[4];
    input_->Read(skipped, pad);
    if (input_->HasError())
      throw Common::MakeError(ERROR_HERE, Corrupted).WithCause(input_->TakeError());
  }
  if (trailer) SeekToNextHeader();
}

// Steps over the zero padding behind an archive, so that the next archive
// of a concatenation is read as if it were part of this one.
void RamdiskProcessorImpl::SeekToNextHeader() {
  i_file& inner = input_->Inner();
  uint64_t zeros = 0;
  for (;;) {
    unsigned char byte = 0;
    uint64_t got = 0;
    inner.Read(&byte, 1, got);
    if (input_->TakeErrorFrom(inner)) throw input_->TakeError();
    if (got == 0) break;
    if (byte != 0) {
      input_->PushBack(byte);
      break;
    }
    ++zeros;
  }
  if (zeros % 4 != 0) THROW_ERROR(Corrupted);
}

void RamdiskProcessorImpl::Commit(bool addIntermediateDirs, bool writeTrailer) {
  if (!input_ && hasRequests_) THROW_ERROR(ReadError);
  if (input_) {
    RamdiskNode node;
    while (ReadNode(node)) {
      RaiseInodeWatermark(node.ino);
      ProcessNode(node);
    }
  }
  RamdiskAppenderImpl::Commit(addIntermediateDirs, writeTrailer);
  removeSet_.clear();
  keepSet_.clear();
  extractSet_.clear();
  hasRequests_ = false;
}

}  // namespace

std::unique_ptr<RamdiskProcessor> CreateRamdiskProcessor(i_file* input, o_file* output,
                                                         bool executable) {
  return std::make_unique<RamdiskProcessorImpl>(input, output, executable);
}

}  // namespace LinuxEx
