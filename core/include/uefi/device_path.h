// Device path nodes of a boot entry's file path list, as the firmware
// publishes them: a 4-byte header (type, subtype, little-endian length) and
// the node's data.
//
// Every node keeps the bytes of its declared length that its own data does
// not cover, and writes them back: a record read from a machine is written
// out again byte for byte, whatever its producer put there.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "common/error.h"
#include "common/text.h"

namespace Uefi {

// Bytes not yet read of a record.  `left` is signed so that an accounting
// error shows up as a negative count instead of a huge one.
struct RecordReader {
  const uint8_t* data = nullptr;
  int64_t left = 0;
};

struct EfiDevicePathHeader {
  uint8_t Type;
  uint8_t SubType;
  uint16_t Length;  // of the whole node, header included
};
static_assert(sizeof(EfiDevicePathHeader) == 4);

namespace NodeType {
inline constexpr uint8_t Media = 4;
inline constexpr uint8_t End = 127;
}  // namespace NodeType
namespace MediaSubType {
inline constexpr uint8_t HardDrive = 1;
inline constexpr uint8_t FilePath = 4;
}  // namespace MediaSubType
// Subtype of the end node that ends the whole path.
inline constexpr uint8_t kEndEntireSubType = 0xFF;

inline constexpr uint16_t kNodeHeaderSize = 4;
inline constexpr uint16_t kHardDriveNodeSize = 42;
// Header plus at least the terminator of the name.
inline constexpr uint16_t kFileNodeMinSize = 6;
// The longest path whose node length still fits 16 bits.
inline constexpr size_t kMaxFilePathUnits = (0xFFFF - kFileNodeMinSize) / 2;

class EfiDevicePathNode {
 public:
  virtual ~EfiDevicePathNode() = default;
  virtual const EfiDevicePathHeader& GetHeader() const = 0;
  virtual uint16_t GetLength() const = 0;
  // Appends the node's bytes, exactly GetLength() of them.
  virtual void Serialize(std::vector<uint8_t>& out) const = 0;
  // A deep copy.
  virtual std::shared_ptr<EfiDevicePathNode> Clone() const = 0;
};

class BaseEfiDevicePathNode : public EfiDevicePathNode {
 public:
  const EfiDevicePathHeader& GetHeader() const override { return header_; }
  uint16_t GetLength() const override { return header_.Length; }
  void Serialize(std::vector<uint8_t>& out) const override;

  // Bytes of the declared length behind the node's own data, as read.
  const std::vector<uint8_t>& Trailing() const { return trailing_; }

 protected:
  BaseEfiDevicePathNode(uint8_t type, uint8_t subType, uint16_t length)
      : header_{type, subType, length} {}
  // The node's own data, behind the header.
  virtual void SerializeData(std::vector<uint8_t>& out) const = 0;
  // Takes the bytes from `from` up to the declared end of a node that
  // starts at `node`.
  void KeepTrailing(const uint8_t* node, const uint8_t* from);

  EfiDevicePathHeader header_;
  std::vector<uint8_t> trailing_;
};

// Hard Drive Media Device Path (4, 1).
class HardDrivePathNode : public BaseEfiDevicePathNode {
 public:
  // A new node: length 42, zero fields, a GPT partition.
  HardDrivePathNode();
  // Reads a node whose header was checked; `node` points at the header and
  // holds `header.Length` bytes.
  static std::shared_ptr<HardDrivePathNode> Read(const EfiDevicePathHeader& header,
                                                 const uint8_t* node);

  std::shared_ptr<EfiDevicePathNode> Clone() const override;

  uint32_t PartitionNumber = 0;
  uint64_t PartitionStart = 0;
  uint64_t PartitionSize = 0;
  uint8_t Signature[16] = {};
  uint8_t MBRType = 2;
  uint8_t SignatureType = 2;

 protected:
  void SerializeData(std::vector<uint8_t>& out) const override;
};

// Media File Path (4, 4): a path on the partition, without terminator.
class FileDevicePathNode : public BaseEfiDevicePathNode {
 public:
  // A new node for `path`, sized for it.  The caller checks that the path
  // fits a node's 16-bit length.
  explicit FileDevicePathNode(std::u16string path);
  static std::shared_ptr<FileDevicePathNode> Read(const EfiDevicePathHeader& header,
                                                  const uint8_t* node, Common::Error& error);

  std::shared_ptr<EfiDevicePathNode> Clone() const override;
  const std::u16string& PathName() const { return pathName_; }
  // Replaces the path and sizes the node for it (the bytes behind the old
  // terminator go).  The caller checks the size as above.
  void SetPathName(std::u16string path);

 protected:
  void SerializeData(std::vector<uint8_t>& out) const override;

 private:
  std::u16string pathName_;
};

// End of an instance or of the whole path (127, any subtype).
class EndDevicePathNode : public BaseEfiDevicePathNode {
 public:
  explicit EndDevicePathNode(uint8_t subType = kEndEntireSubType)
      : BaseEfiDevicePathNode(NodeType::End, subType, kNodeHeaderSize) {}
  static std::shared_ptr<EndDevicePathNode> Read(const EfiDevicePathHeader& header,
                                                 const uint8_t* node);
  std::shared_ptr<EfiDevicePathNode> Clone() const override;

 protected:
  void SerializeData(std::vector<uint8_t>&) const override {}
};

// Every other node: its bytes behind the header, kept as they are.
class CommonDevicePathNode : public BaseEfiDevicePathNode {
 public:
  static std::shared_ptr<CommonDevicePathNode> Read(const EfiDevicePathHeader& header,
                                                    const uint8_t* node);
  std::shared_ptr<EfiDevicePathNode> Clone() const override;
  const std::vector<uint8_t>& Data() const { return data_; }

 protected:
  void SerializeData(std::vector<uint8_t>& out) const override;

 private:
  explicit CommonDevicePathNode(const EfiDevicePathHeader& header)
      : BaseEfiDevicePathNode(header.Type, header.SubType, header.Length) {}
  std::vector<uint8_t> data_;
};

// Reads one node at the reader and moves the reader behind it.  Fails with
// 0x12F000D on a node that doesn't fit the bytes left or its own kind.
Common::Error GetEfiDevicePathNode(std::shared_ptr<EfiDevicePathNode>& node,
                                   RecordReader& reader);

}  // namespace Uefi
