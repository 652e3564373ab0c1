// One firmware variable as an object: loaded once, changed in memory,
// written back by Save.  All calls go to the platform layer's variable
// services (EfiLoader::Fw()).
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "common/error.h"
#include "common/text.h"
#include "efi/platform.h"

namespace Uefi {

// Non-volatile, boot service and runtime access: what the layer writes.
inline constexpr uint32_t kVariableAttributes = 7;

// Where the firmware's boot manager keeps its variables.
using EfiLoader::kGlobalVariableGuid;

class Variable {
 public:
  virtual ~Variable() = default;
  virtual Common::Error Load() = 0;
  virtual Common::Error Save() = 0;

  virtual const std::u16string& Name() const = 0;
  // The value in memory; SetValue marks it current.
  virtual const std::vector<uint8_t>& Value() const = 0;
  virtual void SetValue(const uint8_t* data, size_t size) = 0;
};

class UefiVariable : public Variable {
 public:
  UefiVariable(const Common::GUID& guid, std::u16string name, uint32_t attributes)
      : guid(guid), name(std::move(name)), attributes(attributes) {}

  Common::Error Load() override;
  Common::Error Save() override;
  const std::u16string& Name() const override { return name; }
  const std::vector<uint8_t>& Value() const override { return value; }
  void SetValue(const uint8_t* data, size_t size) override;

  // The first read asks for this much; a larger variable is read again
  // with the size the firmware gives.
  static constexpr size_t kFirstReadSize = 1024;
  // No boot variable comes near this; a firmware that claims more is not
  // believed (and nothing that large is allocated for it).
  static constexpr size_t kMaxSize = size_t(1) << 20;

  bool loaded = false;
  std::vector<uint8_t> value;
  Common::GUID guid;
  std::u16string name;
  uint32_t attributes;
};

// A new variable object, not loaded, with an empty value.
Common::Error CreateVariable(std::shared_ptr<Variable>& out, const Common::GUID& guid,
                             const std::u16string& name, uint32_t attributes);

// Loads the variable and gives its value; `data` stays valid while the
// object lives and its value is not changed.
Common::Error GetVariableData(Variable& variable, const uint8_t*& data, size_t& size);

// Makes the value a copy of the bytes and writes it.
Common::Error SetVariableData(Variable& variable, const uint8_t* data, size_t size);

// Writes an empty value, which deletes the variable.
Common::Error ClearVariable(Variable& variable);

// False only when the firmware says there is no such variable; any other
// failure to read it counts as "exists".
bool VariableExists(Variable& variable);

}  // namespace Uefi
