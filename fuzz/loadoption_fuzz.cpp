// Load option records from outside: parsing must never fault, and a record
// that parses must be written back byte for byte (with its optional data),
// its copy too; the checks and the text dump must run on whatever parsed.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "uefi/load_options.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Uefi::LoadOptionsImpl options;
  Uefi::RecordReader reader{data, static_cast<int64_t>(size)};
  const Common::Error parsed = Uefi::Fill(options, reader);

  // The node reader alone, on the same bytes.
  Uefi::RecordReader nodes{data, static_cast<int64_t>(size)};
  std::shared_ptr<Uefi::EfiDevicePathNode> node;
  while (Uefi::GetEfiDevicePathNode(node, nodes).IsSuccess()) {
    if (nodes.left < 0) __builtin_trap();
  }

  if (parsed.IsError()) {
    if (parsed.Code() != 0x12F000D && parsed.Code() != 0x12F0005) __builtin_trap();
    return 0;
  }
  if (reader.left < 0 || reader.data + reader.left != data + size) __builtin_trap();

  std::vector<uint8_t> out;
  if (Uefi::Serialize(options, out).IsError()) __builtin_trap();
  out.insert(out.end(), reader.data, reader.data + reader.left);
  if (out != std::vector<uint8_t>(data, data + size)) __builtin_trap();

  auto copy = options.Clone();
  std::vector<uint8_t> again;
  Uefi::Serialize(static_cast<const Uefi::LoadOptionsImpl&>(*copy), again);
  again.insert(again.end(), reader.data, reader.data + reader.left);
  if (again != out) __builtin_trap();

  Uefi::Verify(options);
  Uefi::DescribeLoadOptions(&options);
  Uefi::HexDumpText(data, size);
  return 0;
}
