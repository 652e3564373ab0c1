// A simulated firmware whose variable services behave as a real one does
// at the buffer level (a read fills the caller's buffer up to its size and
// asks for more with "buffer too small"), keeps a log of what was written,
// and can be told to fail or to lie.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "efi/host_only/sim_firmware.h"
#include "record_bytes.h"
#include "test_util.h"
#include "uefi/variables.h"

namespace uefi_test {

class StrictFirmware : public EfiLoader::Sim::SimFirmware {
 public:
  EfiLoader::EfiStatus GetVariable(const std::u16string& name, const Common::GUID& vendor,
                                   uint32_t* attributes, std::vector<uint8_t>& data) override {
    askedSizes.push_back(data.size());
    if (auto f = readFailures.find(name); f != readFailures.end()) return f->second;
    auto it = variables.find(Key(name, vendor));
    if (it == variables.end()) return EfiLoader::Status::NotFound;
    const size_t needed = claimedSize ? claimedSize : it->second.data.size();
    if (data.size() < needed) {
      if (!stubborn) data.resize(needed);
      return EfiLoader::Status::BufferTooSmall;
    }
    if (attributes) *attributes = it->second.attributes;
    data = it->second.data;
    return EfiLoader::Status::Success;
  }

  EfiLoader::EfiStatus SetVariable(const std::u16string& name, const Common::GUID& vendor,
                                   uint32_t attributes, const void* data, uint64_t size) override {
    log.push_back((size ? "set " : "delete ") + test_util::Narrow(name));
    if (auto f = writeFailures.find(name); f != writeFailures.end()) return f->second;
    return SimFirmware::SetVariable(name, vendor, attributes, data, size);
  }

  // --- setting up and looking at the store
  void Put(const std::u16string& name, const Bytes& value, uint32_t attributes = 7,
           const Common::GUID& vendor = Uefi::kGlobalVariableGuid) {
    variables[Key(name, vendor)] = EfiLoader::Sim::Variable{attributes, value};
  }
  bool Has(const std::u16string& name) const {
    return variables.count(Key(name, Uefi::kGlobalVariableGuid)) != 0;
  }
  Bytes Get(const std::u16string& name) const {
    auto it = variables.find(Key(name, Uefi::kGlobalVariableGuid));
    return it == variables.end() ? Bytes() : it->second.data;
  }
  void PutOrder(std::initializer_list<uint16_t> numbers, const Bytes& extra = {}) {
    Bytes b;
    for (uint16_t n : numbers) Put16(b, n);
    b.insert(b.end(), extra.begin(), extra.end());
    Put(u"BootOrder", b);
  }
  static void Put16(Bytes& b, uint16_t n) { uefi_test::Put(b, n, 2); }
  static Bytes Order(std::initializer_list<uint16_t> numbers) {
    Bytes b;
    for (uint16_t n : numbers) Put16(b, n);
    return b;
  }

  // --- what the variable services did and are told to do
  std::vector<size_t> askedSizes;
  std::vector<std::string> log;
  std::map<std::u16string, EfiLoader::EfiStatus> readFailures;
  std::map<std::u16string, EfiLoader::EfiStatus> writeFailures;
  size_t claimedSize = 0;  // when set: the size every read asks for
  bool stubborn = false;   // "too small" without saying how large
};

}  // namespace uefi_test
