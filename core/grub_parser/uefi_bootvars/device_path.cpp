// Reading and writing single device path nodes.
//
// A node's declared length is checked against the bytes that are really
// there before anything of it is read; a node that claims more than its own
// kind needs keeps the excess and moves the reader past all of it, so the
// next node starts where the length says, as the firmware walks the list.
#include <cstddef>
#include <cstring>

#include "le_bytes.h"
#include "uefi/device_path.h"
#include "uefi/errors.h"

namespace Uefi {

using Common::Error;

namespace {

// The Hard Drive Media node as it lies in the record.
struct HardDriveMediaRecord {
  uint8_t Type;
  uint8_t SubType;
  uint8_t Length[2];
  uint8_t PartitionNumber[4];
  uint8_t PartitionStart[8];
  uint8_t PartitionSize[8];
  uint8_t Signature[16];
  uint8_t MBRType;
  uint8_t SignatureType;
};
static_assert(sizeof(HardDriveMediaRecord) == kHardDriveNodeSize);
static_assert(offsetof(HardDriveMediaRecord, PartitionNumber) == 4);
static_assert(offsetof(HardDriveMediaRecord, PartitionStart) == 8);
static_assert(offsetof(HardDriveMediaRecord, PartitionSize) == 16);
static_assert(offsetof(HardDriveMediaRecord, Signature) == 24);
static_assert(offsetof(HardDriveMediaRecord, MBRType) == 40);
static_assert(offsetof(HardDriveMediaRecord, SignatureType) == 41);

Error Corrupt(const Common::ErrorLocation& where) { return MakeUefiError(where, Codes::RecordInvalid); }

}  // namespace

// ------------------------------------------------------------------ base

void BaseEfiDevicePathNode::Serialize(std::vector<uint8_t>& out) const {
  const size_t start = out.size();
  out.push_back(header_.Type);
  out.push_back(header_.SubType);
  Le::Append(out, header_.Length, 2);
  SerializeData(out);
  out.insert(out.end(), trailing_.begin(), trailing_.end());
  // A node made in memory may declare more than its data: zeros fill it.
  if (out.size() - start < header_.Length) out.resize(start + header_.Length, 0);
}

void BaseEfiDevicePathNode::KeepTrailing(const uint8_t* node, const uint8_t* from) {
  trailing_.assign(from, node + header_.Length);
}

// ------------------------------------------------------------ hard drive

HardDrivePathNode::HardDrivePathNode()
    : BaseEfiDevicePathNode(NodeType::Media, MediaSubType::HardDrive, kHardDriveNodeSize) {}

std::shared_ptr<HardDrivePathNode> HardDrivePathNode::Read(const EfiDevicePathHeader& header,
                                                           const uint8_t* node) {
  HardDriveMediaRecord r;
  std::memcpy(&r, node, sizeof r);
  auto n = std::make_shared<HardDrivePathNode>();
  n->header_ = header;
  n->PartitionNumber = Le::Read32(r.PartitionNumber);
  n->PartitionStart = Le::Read64(r.PartitionStart);
  n->PartitionSize = Le::Read64(r.PartitionSize);
  std::memcpy(n->Signature, r.Signature, sizeof n->Signature);
  n->MBRType = r.MBRType;
  n->SignatureType = r.SignatureType;
  n->KeepTrailing(node, node + sizeof r);
  return n;
}

std::shared_ptr<EfiDevicePathNode> HardDrivePathNode::Clone() const {
  return std::make_shared<HardDrivePathNode>(*this);
}

void HardDrivePathNode::SerializeData(std::vector<uint8_t>& out) const {
  Le::Append(out, PartitionNumber, 4);
  Le::Append(out, PartitionStart, 8);
  Le::Append(out, PartitionSize, 8);
  out.insert(out.end(), Signature, Signature + sizeof Signature);
  out.push_back(MBRType);
  out.push_back(SignatureType);
}

// ------------------------------------------------------------------ file

FileDevicePathNode::FileDevicePathNode(std::u16string path)
    : BaseEfiDevicePathNode(NodeType::Media, MediaSubType::FilePath, 0) {
  SetPathName(std::move(path));
}

void FileDevicePathNode::SetPathName(std::u16string path) {
  pathName_ = std::move(path);
  header_.Length = static_cast<uint16_t>(pathName_.size() * 2 + kFileNodeMinSize);
  trailing_.clear();
}

std::shared_ptr<FileDevicePathNode> FileDevicePathNode::Read(const EfiDevicePathHeader& header,
                                                             const uint8_t* node,
                                                             Error& error) {
  const uint8_t* text = node + kNodeHeaderSize;
  const size_t units = (header.Length - kNodeHeaderSize) / 2;
  size_t end = 0;
  while (end < units && Le::Read16(text + 2 * end) != 0) ++end;
  if (end == units) {
    error = Corrupt(ERROR_HERE);  // no terminator inside the node
    return nullptr;
  }
  auto n = std::make_shared<FileDevicePathNode>(std::u16string());
  n->header_ = header;
  n->pathName_.resize(end);
  for (size_t i = 0; i < end; ++i) n->pathName_[i] = char16_t(Le::Read16(text + 2 * i));
  n->KeepTrailing(node, text + 2 * (end + 1));
  return n;
}

std::shared_ptr<EfiDevicePathNode> FileDevicePathNode::Clone() const {
  return std::make_shared<FileDevicePathNode>(*this);
}

void FileDevicePathNode::SerializeData(std::vector<uint8_t>& out) const {
  for (char16_t c : pathName_) Le::Append(out, c, 2);
  Le::Append(out, 0, 2);
}

// ------------------------------------------------------------------- end

std::shared_ptr<EndDevicePathNode> EndDevicePathNode::Read(const EfiDevicePathHeader& header,
                                                           const uint8_t* node) {
  auto n = std::make_shared<EndDevicePathNode>(header.SubType);
  n->header_ = header;
  n->KeepTrailing(node, node + kNodeHeaderSize);
  return n;
}

std::shared_ptr<EfiDevicePathNode> EndDevicePathNode::Clone() const {
  return std::make_shared<EndDevicePathNode>(*this);
}

// ---------------------------------------------------------------- others

std::shared_ptr<CommonDevicePathNode> CommonDevicePathNode::Read(
    const EfiDevicePathHeader& header, const uint8_t* node) {
  std::shared_ptr<CommonDevicePathNode> n(new CommonDevicePathNode(header));
  n->data_.assign(node + kNodeHeaderSize, node + header.Length);
  return n;
}

std::shared_ptr<EfiDevicePathNode> CommonDevicePathNode::Clone() const {
  return std::shared_ptr<CommonDevicePathNode>(new CommonDevicePathNode(*this));
}

void CommonDevicePathNode::SerializeData(std::vector<uint8_t>& out) const {
  out.insert(out.end(), data_.begin(), data_.end());
}

// ---------------------------------------------------------------- reader

Error GetEfiDevicePathNode(std::shared_ptr<EfiDevicePathNode>& node, RecordReader& reader) {
  node.reset();
  if (reader.left < kNodeHeaderSize) return Corrupt(ERROR_HERE);
  const uint8_t* p = reader.data;
  const EfiDevicePathHeader header{p[0], p[1], Le::Read16(p + 2)};
  // From here on the whole node lies inside the bytes left.
  if (header.Length > reader.left) return Corrupt(ERROR_HERE);

  if (header.Type == NodeType::Media && header.SubType == MediaSubType::HardDrive) {
    if (header.Length < kHardDriveNodeSize) return Corrupt(ERROR_HERE);
    node = HardDrivePathNode::Read(header, p);
  } else if (header.Type == NodeType::Media && header.SubType == MediaSubType::FilePath) {
    if (header.Length < kFileNodeMinSize) return Corrupt(ERROR_HERE);
    Error error;
    node = FileDevicePathNode::Read(header, p, error);
    if (error.IsError()) return error;
  } else if (header.Type == NodeType::End) {
    if (header.Length < kNodeHeaderSize) return Corrupt(ERROR_HERE);
    node = EndDevicePathNode::Read(header, p);
  } else {
    if (header.Length < kNodeHeaderSize) return Corrupt(ERROR_HERE);
    node = CommonDevicePathNode::Read(header, p);
  }
  reader.data += header.Length;
  reader.left -= header.Length;
  return {};
}

}  // namespace Uefi
