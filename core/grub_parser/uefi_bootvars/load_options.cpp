// The load option record: parsing, writing, checking, and its fields.
//
// Records come from the firmware's variable store, which any program on the
// machine (or an earlier boot of a broken system) may have filled.  Every
// count is checked against the bytes left before it is used; the list length
// in the record is only trusted as far as the nodes agree with it.
#include <algorithm>
#include <cstdio>
#include <cstring>

#include "common/error_codes.h"
#include "le_bytes.h"
#include "uefi/errors.h"
#include "uefi/load_options.h"

namespace Uefi {

using Common::Error;

namespace {

bool IsHardDrive(const EfiDevicePathHeader& h) {
  return h.Type == NodeType::Media && h.SubType == MediaSubType::HardDrive;
}
bool IsFile(const EfiDevicePathHeader& h) {
  return h.Type == NodeType::Media && h.SubType == MediaSubType::FilePath;
}

template <typename Node>
Node* FindFirst(const std::vector<std::shared_ptr<EfiDevicePathNode>>& nodes,
                bool (*matches)(const EfiDevicePathHeader&)) {
  for (const auto& n : nodes)
    if (matches(n->GetHeader())) return dynamic_cast<Node*>(n.get());
  return nullptr;
}

uint32_t DiskTypeOf(const HardDrivePathNode& hd) {
  switch (hd.SignatureType) {
    case SignatureKind::Mbr: return DiskType::Mbr;
    case SignatureKind::Guid: return DiskType::Gpt;
    default: return DiskType::Unknown;
  }
}

void Advance(RecordReader& r, int64_t n) {
  r.data += n;
  r.left -= n;
}

std::u16string Widen(const char* s) { return std::u16string(s, s + std::strlen(s)); }

}  // namespace

// ---------------------------------------------------------------- parsing

Error Fill(LoadOptionsImpl& options, RecordReader& reader) {
  options.nodes.clear();
  options.pathTail.clear();
  options.description.clear();

  if (reader.left < 4) return MakeUefiError(ERROR_HERE, Codes::RecordInvalid);
  options.attributes = Le::Read32(reader.data);
  Advance(reader, 4);
  if (reader.left < 2) return MakeUefiError(ERROR_HERE, Codes::RecordInvalid);
  options.pathListLength = Le::Read16(reader.data);
  Advance(reader, 2);

  // The description may run up to the end of the record; an odd last byte
  // can't hold a code unit.
  const int64_t units = reader.left / 2;
  int64_t end = 0;
  while (end < units && Le::Read16(reader.data + 2 * end) != 0) ++end;
  if (end == units) return MakeUefiError(ERROR_HERE, Codes::RecordInvalid);
  options.description.resize(static_cast<size_t>(end));
  for (int64_t i = 0; i < end; ++i)
    options.description[static_cast<size_t>(i)] = char16_t(Le::Read16(reader.data + 2 * i));
  Advance(reader, 2 * (end + 1));

  int64_t rest = options.pathListLength;
  while (rest != 0) {
    std::shared_ptr<EfiDevicePathNode> node;
    Error error = GetEfiDevicePathNode(node, reader);
    if (error.IsError()) {
      // Behind an end node the list may hold bytes its writer had reasons
      // for; they are kept as they are.  Anywhere else a bad node is a bad
      // record.
      if (!options.nodes.empty() && options.nodes.back()->GetHeader().Type == NodeType::End &&
          reader.left >= rest) {
        options.pathTail.assign(reader.data, reader.data + rest);
        Advance(reader, rest);
        return {};
      }
      return error;
    }
    options.nodes.push_back(std::move(node));
    rest -= options.nodes.back()->GetLength();
    if (rest < 0) return MakeUefiError(ERROR_HERE, Codes::IncorrectBootPath);
  }
  return {};
}

// ---------------------------------------------------------------- writing

Error Serialize(const LoadOptionsImpl& options, std::vector<uint8_t>& out) {
  size_t listLength = options.pathTail.size();
  for (const auto& n : options.nodes) listLength += n->GetLength();
  if (listLength > 0xFFFF) return MakeUefiError(ERROR_HERE, Codes::IncorrectBootPath);

  Le::Append(out, options.attributes, 4);
  Le::Append(out, listLength, 2);
  for (char16_t c : options.description) Le::Append(out, c, 2);
  Le::Append(out, 0, 2);
  for (const auto& n : options.nodes) n->Serialize(out);
  out.insert(out.end(), options.pathTail.begin(), options.pathTail.end());
  return {};
}

// ---------------------------------------------------------------- checking

Error Verify(const LoadOptions& options) {
  std::u16string description;
  if (Error e = options.GetDescription(description); e.IsError())
    return MakeUefiError(ERROR_HERE, Codes::RecordInvalid, e);
  if (description.empty()) return MakeUefiError(ERROR_HERE, Codes::RecordInvalid);

  bool hasHardDrive = false, hasFile = false;
  for (const auto& n : options.Nodes()) {
    hasHardDrive |= IsHardDrive(n->GetHeader());
    hasFile |= IsFile(n->GetHeader());
  }
  if (!hasHardDrive || !hasFile) return {};

  std::u16string path;
  if (Error e = options.GetPath(path); e.IsError())
    return MakeUefiError(ERROR_HERE, Codes::RecordInvalid, e);
  if (path.empty()) return MakeUefiError(ERROR_HERE, Codes::RecordInvalid);

  Common::GUID guid{};
  if (Error e = options.GetPartitionGUID(guid); e.IsError() || guid.IsZero()) {
    uint32_t signature = 0;
    if (Error s = options.GetNtSignature(signature); s.IsError())
      return MakeUefiError(ERROR_HERE, Codes::RecordInvalid, s);
  }

  uint64_t start = 0, size = 0;
  uint32_t number = 0, diskType = 0;
  Error e = options.GetPartitionStart(start);
  if (e.IsSuccess()) e = options.GetPartitionSize(size);
  if (e.IsSuccess()) e = options.GetPartitionNumber(number);
  if (e.IsSuccess()) e = options.GetDiskType(diskType);
  if (e.IsError()) return MakeUefiError(ERROR_HERE, Codes::RecordInvalid, e);
  return {};
}

// ---------------------------------------------------------------- getters

HardDrivePathNode* LoadOptionsImpl::FindHardDrive() const {
  return FindFirst<HardDrivePathNode>(nodes, IsHardDrive);
}

FileDevicePathNode* LoadOptionsImpl::FindFile() const {
  return FindFirst<FileDevicePathNode>(nodes, IsFile);
}

Error LoadOptionsImpl::GetDescription(std::u16string& out) const {
  out = description;
  return {};
}

Error LoadOptionsImpl::GetPath(std::u16string& out) const {
  const FileDevicePathNode* file = FindFile();
  if (!file) return MakeUefiError(ERROR_HERE, Codes::IncorrectBootPath);
  out = file->PathName();
  return {};
}

Error LoadOptionsImpl::GetPartitionGUID(Common::GUID& out) const {
  const HardDrivePathNode* hd = FindHardDrive();
  if (!hd) return MakeUefiError(ERROR_HERE, Codes::IncorrectBootPath);
  if (DiskTypeOf(*hd) != DiskType::Gpt) return MakeUefiError(ERROR_HERE, Codes::IncorrectBootSignature);
  const uint8_t* s = hd->Signature;
  out.Data1 = Le::Read32(s);
  out.Data2 = Le::Read16(s + 4);
  out.Data3 = Le::Read16(s + 6);
  std::memcpy(out.Data4, s + 8, sizeof out.Data4);
  return {};
}

Error LoadOptionsImpl::GetNtSignature(uint32_t& out) const {
  const HardDrivePathNode* hd = FindHardDrive();
  if (!hd) return MakeUefiError(ERROR_HERE, Codes::IncorrectBootPath);
  if (DiskTypeOf(*hd) != DiskType::Mbr) return MakeUefiError(ERROR_HERE, Codes::IncorrectBootSignature);
  out = Le::Read32(hd->Signature);
  return {};
}

Error LoadOptionsImpl::GetPartitionStart(uint64_t& out) const {
  const HardDrivePathNode* hd = FindHardDrive();
  if (!hd) return MakeUefiError(ERROR_HERE, Codes::IncorrectBootPath);
  out = hd->PartitionStart;
  return {};
}

Error LoadOptionsImpl::GetPartitionSize(uint64_t& out) const {
  const HardDrivePathNode* hd = FindHardDrive();
  if (!hd) return MakeUefiError(ERROR_HERE, Codes::IncorrectBootPath);
  out = hd->PartitionSize;
  return {};
}

Error LoadOptionsImpl::GetPartitionNumber(uint32_t& out) const {
  const HardDrivePathNode* hd = FindHardDrive();
  if (!hd) return MakeUefiError(ERROR_HERE, Codes::IncorrectBootPath);
  out = hd->PartitionNumber;
  return {};
}

Error LoadOptionsImpl::GetDiskType(uint32_t& out) const {
  const HardDrivePathNode* hd = FindHardDrive();
  if (!hd) return MakeUefiError(ERROR_HERE, Codes::IncorrectBootPath);
  out = DiskTypeOf(*hd);
  return {};
}

// ---------------------------------------------------------------- setters

void LoadOptionsImpl::Place(std::shared_ptr<EfiDevicePathNode> node, bool beforeFile) {
  // The usual order of a boot entry: partition, file, end.
  auto at = std::find_if(nodes.begin(), nodes.end(), [&](const auto& n) {
    const EfiDevicePathHeader& h = n->GetHeader();
    return h.Type == NodeType::End || (beforeFile && IsFile(h));
  });
  nodes.insert(at, std::move(node));
  // A list the firmware is to walk needs its end.
  const bool hasEnd = std::any_of(nodes.begin(), nodes.end(), [](const auto& n) {
    return n->GetHeader().Type == NodeType::End;
  });
  if (!hasEnd) nodes.push_back(std::make_shared<EndDevicePathNode>());
}

HardDrivePathNode& LoadOptionsImpl::HardDriveForWriting() {
  if (HardDrivePathNode* hd = FindHardDrive()) return *hd;
  auto hd = std::make_shared<HardDrivePathNode>();
  HardDrivePathNode& ref = *hd;
  Place(std::move(hd), true);
  return ref;
}

Error LoadOptionsImpl::SetDescription(const std::u16string& text) {
  // A zero inside would end the text early when the record is read back.
  if (text.find(u'\0') != std::u16string::npos)
    return Common::MakeError(ERROR_HERE, Common::Codes::InvalidUsage);
  description = text;
  return {};
}

Error LoadOptionsImpl::SetPath(const std::u16string& path) {
  if (path.find(u'\0') != std::u16string::npos || path.size() > kMaxFilePathUnits)
    return Common::MakeError(ERROR_HERE, Common::Codes::InvalidUsage);
  if (FileDevicePathNode* file = FindFile()) {
    file->SetPathName(path);
  } else {
    Place(std::make_shared<FileDevicePathNode>(path), false);
  }
  return {};
}

Error LoadOptionsImpl::SetPartitionGUID(const Common::GUID& guid) {
  HardDrivePathNode& hd = HardDriveForWriting();
  // The signature says what it is: a GUID makes this a GPT partition.
  hd.MBRType = 2;
  hd.SignatureType = SignatureKind::Guid;
  std::vector<uint8_t> bytes;
  Le::Append(bytes, guid.Data1, 4);
  Le::Append(bytes, guid.Data2, 2);
  Le::Append(bytes, guid.Data3, 2);
  bytes.insert(bytes.end(), guid.Data4, guid.Data4 + 8);
  std::memcpy(hd.Signature, bytes.data(), sizeof hd.Signature);
  return {};
}

Error LoadOptionsImpl::SetNtSignature(uint32_t signature) {
  HardDrivePathNode& hd = HardDriveForWriting();
  hd.MBRType = 1;
  hd.SignatureType = SignatureKind::Mbr;
  std::memset(hd.Signature, 0, sizeof hd.Signature);
  for (int i = 0; i < 4; ++i) hd.Signature[i] = uint8_t(signature >> (8 * i));
  return {};
}

Error LoadOptionsImpl::SetPartitionStart(uint64_t start) {
  HardDriveForWriting().PartitionStart = start;
  return {};
}

Error LoadOptionsImpl::SetPartitionSize(uint64_t size) {
  HardDriveForWriting().PartitionSize = size;
  return {};
}

Error LoadOptionsImpl::SetPartitionNumber(uint32_t number) {
  HardDriveForWriting().PartitionNumber = number;
  return {};
}

Error LoadOptionsImpl::FixHardDriveDevicePathFromTemplate(const LoadOptions& templ) {
  const HardDrivePathNode* source = FindFirst<HardDrivePathNode>(templ.Nodes(), IsHardDrive);
  if (!source) return MakeUefiError(ERROR_HERE, Codes::IncorrectBootPath);
  std::shared_ptr<EfiDevicePathNode> copy = source->Clone();
  for (auto& n : nodes) {
    if (IsHardDrive(n->GetHeader())) {
      n = std::move(copy);
      return {};
    }
  }
  Place(std::move(copy), true);
  return {};
}

std::shared_ptr<LoadOptions> LoadOptionsImpl::Clone() const {
  auto copy = std::make_shared<LoadOptionsImpl>();
  copy->attributes = attributes;
  copy->pathListLength = pathListLength;
  copy->description = description;
  copy->pathTail = pathTail;
  copy->nodes.reserve(nodes.size());
  for (const auto& n : nodes) copy->nodes.push_back(n->Clone());
  return copy;
}

// ---------------------------------------------------------------- text

std::u16string DescribeLoadOptions(const LoadOptions* options) {
  static const std::u16string kUnknown = u"Unknown";
  const LoadOptionsImpl empty;
  const bool known = options != nullptr;
  if (!options) options = &empty;
  char buffer[32];
  auto number = [&](Error e, unsigned long long value) {
    if (e.IsError()) return kUnknown;
    std::snprintf(buffer, sizeof buffer, "%llu", value);
    return Widen(buffer);
  };

  std::u16string text, value;
  options->GetDescription(value);
  text += u"Description: " + (known ? value : kUnknown) + u"\n";

  Error e = options->GetPath(value);
  text += u"Path: " + (e.IsError() ? kUnknown : value) + u"\n";

  Common::GUID guid{};
  e = options->GetPartitionGUID(guid);
  text += u"GUID: " + (e.IsError() ? kUnknown : Common::GuidToText(guid)) + u"\n";

  uint32_t partition = 0;
  e = options->GetPartitionNumber(partition);
  text += u"Partition number: " + number(e, partition) + u"\n";
  uint64_t start = 0, size = 0;
  e = options->GetPartitionStart(start);
  text += u"Begin: " + number(e, start) + u"\n";
  e = options->GetPartitionSize(size);
  text += u"Partition Size: " + number(e, size) + u"\n";
  return text;
}

std::u16string HexDumpText(const uint8_t* data, size_t size) {
  static const char16_t kDigits[] = u"0123456789ABCDEF";
  std::u16string text = u"Hex dump:\n";
  const int topShift = size > 0x10000 ? 28 : 12;
  for (size_t row = 0; row < size; row += 16) {
    for (int shift = topShift; shift >= 0; shift -= 4) text += kDigits[(row >> shift) & 0xF];
    text += u":";
    const size_t n = std::min<size_t>(16, size - row);
    for (size_t i = 0; i < 16; ++i) {
      if (i < n) {
        text += u' ';
        text += kDigits[data[row + i] >> 4];
        text += kDigits[data[row + i] & 0xF];
      } else {
        text += u"   ";
      }
    }
    text += u"  ";
    for (size_t i = 0; i < n; ++i) {
      const uint8_t c = data[row + i];
      text += (c >= 0x20 && c < 0x7F) ? char16_t(c) : u'.';
    }
    text += u"\n";
  }
  return text;
}

}  // namespace Uefi
