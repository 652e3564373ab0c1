#include "uefi/variables.h"

#include "common/error_codes.h"
#include "efi/platform.h"
#include "uefi/errors.h"

namespace Uefi {

using Common::Error;
using EfiLoader::EfiStatus;
namespace Status = EfiLoader::Status;

namespace {
// A firmware that keeps answering "too small" without asking for more is
// not followed for ever.
constexpr int kMaxReadAttempts = 4;
}  // namespace

Error UefiVariable::Load() {
  if (loaded) return {};
  // The firmware side fills the buffer up to its size and, when the value
  // doesn't fit, reports "buffer too small" with the buffer resized to
  // what it needs.
  std::vector<uint8_t> buffer(kFirstReadSize);
  for (int attempt = 1;; ++attempt) {
    const size_t asked = buffer.size();
    uint32_t reported = attributes;
    const EfiStatus status = EfiLoader::Fw().GetVariable(name, guid, &reported, buffer);
    if (status == Status::Success) {
      value = std::move(buffer);
      attributes = reported;
      loaded = true;
      return {};
    }
    if (status == Status::BufferTooSmall && attempt < kMaxReadAttempts && buffer.size() > asked) {
      if (buffer.size() > kMaxSize)
        return Common::GetUefiErrorFromEfiStatus(Status::OutOfResources, name.c_str());
      continue;
    }
    return Common::GetUefiErrorFromEfiStatus(status, name.c_str());
  }
}

Error UefiVariable::Save() {
  if (!loaded) return MakeUefiError(ERROR_HERE, Codes::VariableStateInvalid);
  const EfiStatus status =
      EfiLoader::Fw().SetVariable(name, guid, attributes, value.data(), value.size());
  if (status != Status::Success) return Common::GetUefiErrorFromEfiStatus(status, name.c_str());
  return {};
}

void UefiVariable::SetValue(const uint8_t* data, size_t size) {
  if (size == 0)
    value.clear();
  else
    value.assign(data, data + size);
  loaded = true;
}

Error CreateVariable(std::shared_ptr<Variable>& out, const Common::GUID& guid,
                     const std::u16string& name, uint32_t attributes) {
  out = std::make_shared<UefiVariable>(guid, name, attributes);
  return {};
}

Error GetVariableData(Variable& variable, const uint8_t*& data, size_t& size) {
  if (Error e = variable.Load(); e.IsError()) return e;
  data = variable.Value().data();
  size = variable.Value().size();
  return {};
}

Error SetVariableData(Variable& variable, const uint8_t* data, size_t size) {
  variable.SetValue(data, size);
  return variable.Save();
}

Error ClearVariable(Variable& variable) { return SetVariableData(variable, nullptr, 0); }

bool VariableExists(Variable& variable) {
  return variable.Load().Code() != Codes::BootEntryNotFound;
}

}  // namespace Uefi
