// The record of a Boot#### variable (the firmware's EFI_LOAD_OPTION):
// attributes, the length of the file path list, a description, the list of
// device path nodes, and then optional data that belongs to whoever wrote
// the entry.  The optional data is not part of these objects: it is what
// stays in the reader behind the list (see the boot entries).
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "common/error.h"
#include "common/text.h"
#include "uefi/device_path.h"

namespace Uefi {

// Kinds of disk by the signature of the hard drive node.
namespace DiskType {
inline constexpr uint32_t Mbr = 2;
inline constexpr uint32_t Gpt = 8;
inline constexpr uint32_t Unknown = 32768;
}  // namespace DiskType

// Signature kinds of the hard drive node.
namespace SignatureKind {
inline constexpr uint8_t Mbr = 1;
inline constexpr uint8_t Guid = 2;
}  // namespace SignatureKind

// Record attribute: the firmware may boot the entry.
inline constexpr uint32_t kLoadOptionActive = 1;

class LoadOptions {
 public:
  virtual ~LoadOptions() = default;
  virtual std::shared_ptr<LoadOptions> Clone() const = 0;
  // Puts the hard drive node of `templ` in place of the own one.
  virtual Common::Error FixHardDriveDevicePathFromTemplate(const LoadOptions& templ) = 0;
  virtual Common::Error GetDescription(std::u16string& out) const = 0;
  virtual Common::Error GetPath(std::u16string& out) const = 0;
  virtual Common::Error GetPartitionGUID(Common::GUID& out) const = 0;
  virtual Common::Error GetPartitionStart(uint64_t& out) const = 0;
  virtual Common::Error GetPartitionSize(uint64_t& out) const = 0;
  virtual Common::Error GetNtSignature(uint32_t& out) const = 0;
  virtual Common::Error GetPartitionNumber(uint32_t& out) const = 0;
  virtual Common::Error GetDiskType(uint32_t& out) const = 0;
  virtual Common::Error SetDescription(const std::u16string& text) = 0;
  virtual Common::Error SetPath(const std::u16string& path) = 0;
  virtual Common::Error SetPartitionGUID(const Common::GUID& guid) = 0;
  virtual Common::Error SetNtSignature(uint32_t signature) = 0;
  virtual Common::Error SetPartitionStart(uint64_t start) = 0;
  virtual Common::Error SetPartitionSize(uint64_t size) = 0;
  virtual Common::Error SetPartitionNumber(uint32_t number) = 0;

  // The nodes in order (for the record's writer and checker).
  virtual const std::vector<std::shared_ptr<EfiDevicePathNode>>& Nodes() const = 0;
};

class LoadOptionsImpl : public LoadOptions {
 public:
  std::shared_ptr<LoadOptions> Clone() const override;
  Common::Error FixHardDriveDevicePathFromTemplate(const LoadOptions& templ) override;
  Common::Error GetDescription(std::u16string& out) const override;
  Common::Error GetPath(std::u16string& out) const override;
  Common::Error GetPartitionGUID(Common::GUID& out) const override;
  Common::Error GetPartitionStart(uint64_t& out) const override;
  Common::Error GetPartitionSize(uint64_t& out) const override;
  Common::Error GetNtSignature(uint32_t& out) const override;
  Common::Error GetPartitionNumber(uint32_t& out) const override;
  Common::Error GetDiskType(uint32_t& out) const override;
  Common::Error SetDescription(const std::u16string& text) override;
  Common::Error SetPath(const std::u16string& path) override;
  Common::Error SetPartitionGUID(const Common::GUID& guid) override;
  Common::Error SetNtSignature(uint32_t signature) override;
  Common::Error SetPartitionStart(uint64_t start) override;
  Common::Error SetPartitionSize(uint64_t size) override;
  Common::Error SetPartitionNumber(uint32_t number) override;
  const std::vector<std::shared_ptr<EfiDevicePathNode>>& Nodes() const override { return nodes; }

  uint32_t attributes = 0;
  uint16_t pathListLength = 0;  // as read; Serialize works it out anew
  std::u16string description;
  std::vector<std::shared_ptr<EfiDevicePathNode>> nodes;
  std::vector<uint8_t> pathTail;

 private:
  HardDrivePathNode* FindHardDrive() const;
  FileDevicePathNode* FindFile() const;
  // The first hard drive node, made and placed first if there is none.
  HardDrivePathNode& HardDriveForWriting();
  // Puts a new node before the first end node (and, with `beforeFile`,
  // before the first file node), and closes a list that has no end node.
  void Place(std::shared_ptr<EfiDevicePathNode> node, bool beforeFile);
};

// Parses a record at the reader; what stays in the reader afterwards is
// the record's optional data.
Common::Error Fill(LoadOptionsImpl& options, RecordReader& reader);

// Completeness check before a record is written.
Common::Error Verify(const LoadOptions& options);

// Appends the record's bytes.  Fails with 0x12F0005 if the nodes and the
// tail are too long for the record's 16-bit list length.
Common::Error Serialize(const LoadOptionsImpl& options, std::vector<uint8_t>& out);

// The text dump of a record: "Description:", "Path:", "GUID:",
// "Partition number:", "Begin:", "Partition Size:", each with "Unknown"
// where the value can't be read (all of them for a null record, one that
// couldn't be parsed).  One line each, each ending in "\n".
std::u16string DescribeLoadOptions(const LoadOptions* options);

// "Hex dump:" and the bytes, 16 to a line with their offset and their
// printable characters (so a tag in the optional data can be read).
std::u16string HexDumpText(const uint8_t* data, size_t size);

}  // namespace Uefi
