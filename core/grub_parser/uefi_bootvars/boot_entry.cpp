// One Boot#### entry: its variable, its parsed record and the optional data
// behind the record.
//
// Names: the firmware's own entries are spelled with upper-case digits,
// but some tools write "Boot000a"; an entry that isn't found under one
// spelling is looked for under the other, and keeps the one that worked.
#include "uefi/boot_entries.h"
#include "uefi/errors.h"

namespace Uefi {

using Common::Error;

namespace {

bool IsNotFound(const Error& e) { return e.Code() == Codes::BootEntryNotFound; }

std::u16string FourHexDigits(uint16_t n) {
  static const char16_t kDigits[] = u"0123456789ABCDEF";
  std::u16string s(4, u'0');
  for (int i = 3; i >= 0; --i, n >>= 4) s[static_cast<size_t>(i)] = kDigits[n & 0xF];
  return s;
}

// The lower-case spelling, or empty when that changes nothing.
std::u16string OtherSpelling(const std::u16string& digits) {
  std::u16string lower = digits;
  for (char16_t& c : lower)
    if (c >= u'A' && c <= u'F') c = char16_t(c - u'A' + u'a');
  return lower == digits ? std::u16string() : lower;
}

}  // namespace

std::u16string BootEntryImpl::VariableName() {
  if (digits.empty()) digits = FourHexDigits(number);
  return u"Boot" + digits;
}

Error BootEntryImpl::LoadVariable(const uint8_t*& data, size_t& size) {
  for (;;) {
    CreateVariable(variable, kGlobalVariableGuid, VariableName(), kVariableAttributes);
    Error e = GetVariableData(*variable, data, size);
    if (!IsNotFound(e)) return e;
    std::u16string other = OtherSpelling(digits);
    if (other.empty()) return e;
    digits = std::move(other);
  }
}

Error BootEntryImpl::Obtain() {
  const uint8_t* data = nullptr;
  size_t size = 0;
  bool read = false;
  if (!variable) {
    if (Error e = LoadVariable(data, size); e.IsError()) return e;
    read = true;
  }
  // Once parsed (or given), the record in memory is the one that counts:
  // reading it again would undo changes not yet committed.
  if (options) return {};
  if (!read) {
    if (Error e = GetVariableData(*variable, data, size); e.IsError()) return e;
  }
  auto parsed = std::make_shared<LoadOptionsImpl>();
  RecordReader reader{data, static_cast<int64_t>(size)};
  if (Error e = Fill(*parsed, reader); e.IsError()) return e;
  if (reader.left < 0) return MakeUefiError(ERROR_HERE, Codes::RecordInvalid);
  optionalData.assign(reader.data, reader.data + reader.left);
  options = std::move(parsed);
  return {};
}

Error BootEntryImpl::CloneData(BootEntry& other) {
  if (Error e = Obtain(); e.IsError() && !IsNotFound(e))
    return MakeUefiError(ERROR_HERE, Codes::CloneFailed, e);
  std::shared_ptr<LoadOptions> otherOptions;
  std::vector<uint8_t> otherData;
  if (other.Exists()) {
    Error e = other.GetLoadOptions(otherOptions);
    if (e.IsSuccess()) e = other.GetOptionalData(otherData);
    if (e.IsError()) return MakeUefiError(ERROR_HERE, Codes::CloneFailed, e);
  } else {
    other.GetLoadOptions(otherOptions);  // what it holds in memory, or an empty record
  }
  options = otherOptions ? otherOptions->Clone() : std::make_shared<LoadOptionsImpl>();
  optionalData = std::move(otherData);
  return {};
}

Error BootEntryImpl::GetOptionalData(std::vector<uint8_t>& out) {
  if (Error e = Obtain(); e.IsError()) return e;
  out = optionalData;
  return {};
}

Error BootEntryImpl::SetOptionalData(const std::vector<uint8_t>& data) {
  if (Error e = Obtain(); e.IsError() && !IsNotFound(e)) return e;
  optionalData = data;
  return {};
}

Error BootEntryImpl::GetLoadOptions(std::shared_ptr<LoadOptions>& out) {
  if (Error e = Obtain(); e.IsError()) {
    if (!IsNotFound(e)) return e;
    // A new entry: its record starts empty and is filled by the caller.
    if (!options) options = std::make_shared<LoadOptionsImpl>();
  }
  out = options;
  return {};
}

Error BootEntryImpl::SetLoadOptions(const LoadOptions& given) {
  if (Error e = Obtain(); e.IsError() && !IsNotFound(e)) return e;
  options = given.Clone();
  return {};
}

Error BootEntryImpl::Delete() {
  if (!variable) {
    const uint8_t* data;
    size_t size;
    LoadVariable(data, size);  // only to settle the spelling
  }
  return ClearVariable(*variable);
}

Error BootEntryImpl::Commit() {
  const Error obtained = Obtain();
  const bool exists = variable && VariableExists(*variable);
  if (obtained.IsError() && exists) return obtained;

  if (!options) options = std::make_shared<LoadOptionsImpl>();
  if (Error e = Verify(*options); e.IsError()) return MakeUefiError(ERROR_HERE, Codes::RecordInvalid, e);
  const auto* record = dynamic_cast<const LoadOptionsImpl*>(options.get());
  if (!record) return MakeUefiError(ERROR_HERE, Codes::RecordInvalid);

  if (!variable || !exists)
    CreateVariable(variable, kGlobalVariableGuid, VariableName(), kVariableAttributes);
  std::vector<uint8_t> bytes;
  if (Error e = Serialize(*record, bytes); e.IsError())
    return MakeUefiError(ERROR_HERE, Codes::RecordInvalid, e);
  bytes.insert(bytes.end(), optionalData.begin(), optionalData.end());
  return SetVariableData(*variable, bytes.data(), bytes.size());
}

Error BootEntryImpl::GetDescriptionText(std::u16string& out) {
  const Error obtained = Obtain();
  std::vector<uint8_t> raw;
  if (Error e = GetRawData(raw); e.IsError()) return e;
  out = DescribeLoadOptions(obtained.IsSuccess() ? options.get() : nullptr);
  out += HexDumpText(raw.data(), raw.size());
  return obtained;
}

Error BootEntryImpl::GetRawData(std::vector<uint8_t>& out) {
  const uint8_t* data = nullptr;
  size_t size = 0;
  Error e = variable ? GetVariableData(*variable, data, size) : LoadVariable(data, size);
  if (e.IsError()) return e;
  out.assign(data, data + size);
  return {};
}

bool BootEntryImpl::Exists() {
  Obtain();  // settles the spelling; a record that doesn't parse still exists
  return variable && VariableExists(*variable);
}

std::vector<std::shared_ptr<BootEntry>> BootEntryImpl::GetCaseVariants() {
  if (!Exists()) return {};
  std::u16string other = OtherSpelling(digits);
  if (other.empty()) return {};
  auto variant = std::make_shared<BootEntryImpl>(number, std::move(other));
  if (!variant->Exists()) return {};
  return {variant};
}

Error GetBootEntry(uint16_t number, std::shared_ptr<BootEntry>& out) {
  out = std::make_shared<BootEntryImpl>(number);
  return {};
}

}  // namespace Uefi
