// BootOrder, BootNext (real and fake), BootCurrent, the enumerator of all
// entries, and the search and removal of a tagged entry.
#include <algorithm>
#include <cstdio>

#include "efi/platform.h"
#include "le_bytes.h"
#include "uefi/boot_entries.h"
#include "uefi/errors.h"

namespace Uefi {

using Common::Error;

namespace {

bool IsNotFound(const Error& e) { return e.Code() == Codes::BootEntryNotFound; }

// The lowest number no entry of `list` has.
bool LowestFreeNumber(const std::vector<std::shared_ptr<BootEntry>>& list, uint16_t& out) {
  std::vector<bool> used(0x10000, false);
  for (const auto& e : list) used[e->GetNumber()] = true;
  for (uint32_t n = 0; n < used.size(); ++n) {
    if (!used[n]) {
      out = static_cast<uint16_t>(n);
      return true;
    }
  }
  return false;
}

std::u16string NumberList(const std::vector<std::shared_ptr<BootEntry>>& list) {
  std::u16string text = u"(";
  char buffer[8];
  for (const auto& e : list) {
    std::snprintf(buffer, sizeof buffer, "%u ", unsigned(e->GetNumber()));
    for (const char* p = buffer; *p; ++p) text += char16_t(*p);
  }
  return text + u")";
}

// Reads a variable that holds one entry number (BootNext, BootCurrent).
Error ReadEntryNumber(std::shared_ptr<Variable>& variable, const char16_t* name,
                      uint32_t attributes, std::shared_ptr<BootEntry>& out) {
  if (!variable) CreateVariable(variable, kGlobalVariableGuid, name, attributes);
  const uint8_t* data;
  size_t size;
  if (Error e = GetVariableData(*variable, data, size); e.IsError()) return e;
  if (size < 2) return MakeUefiError(ERROR_HERE, Codes::RecordInvalid);
  out = std::make_shared<BootEntryImpl>(Le::Read16(data));
  return {};
}

// A name with "Boot" in it and four hexadecimal digits at the fifth unit:
// "Boot000A" is entry 10; "BootOrder" and "BootNext" are no entries.
bool EntryNumberOfName(const std::u16string& name, uint16_t& number) {
  if (name.find(u"Boot") == std::u16string::npos || name.size() < 8) return false;
  uint32_t value = 0;
  for (size_t i = 4; i < 8; ++i) {
    const char16_t c = name[i];
    uint32_t digit;
    if (c >= u'0' && c <= u'9')
      digit = c - u'0';
    else if (c >= u'A' && c <= u'F')
      digit = c - u'A' + 10;
    else if (c >= u'a' && c <= u'f')
      digit = c - u'a' + 10;
    else
      return false;
    value = value * 16 + digit;
  }
  number = static_cast<uint16_t>(value);
  return true;
}

std::u16string TagText(const std::vector<uint8_t>& tag) {
  std::u16string text;
  for (uint8_t b : tag) text += char16_t(b);
  return text;
}

}  // namespace

// ------------------------------------------------------------ BootOrder

Error BootOrderImpl::Load() {
  if (variable) return {};
  std::shared_ptr<Variable> v;
  CreateVariable(v, kGlobalVariableGuid, u"BootOrder", 0);
  const uint8_t* data;
  size_t size;
  if (Error e = GetVariableData(*v, data, size); e.IsError()) return e;
  variable = std::move(v);
  // An odd last byte is no number: it is dropped.
  for (size_t i = 0; i + 2 <= size; i += 2)
    entries.push_back(std::make_shared<BootEntryImpl>(Le::Read16(data + i)));
  return {};
}

Error BootOrderImpl::Save() {
  if (!variable || !VariableExists(*variable))
    CreateVariable(variable, kGlobalVariableGuid, u"BootOrder", kVariableAttributes);
  std::vector<uint8_t> bytes;
  for (const auto& e : entries) Le::Append(bytes, e->GetNumber(), 2);
  return SetVariableData(*variable, bytes.data(), bytes.size());
}

Error BootOrderImpl::GetDescriptionText(std::u16string& out) {
  out = NumberList(entries);
  return {};
}

Error BootOrderImpl::CreateNew(std::shared_ptr<BootEntry>& out) {
  if (Error e = Load(); e.IsError()) return MakeUefiError(ERROR_HERE, Codes::CreateNewFailed, e);
  uint16_t number;
  if (!LowestFreeNumber(entries, number)) return MakeUefiError(ERROR_HERE, Codes::CreateNewFailed);
  out = std::make_shared<BootEntryImpl>(number);
  return {};
}

Error BootOrderImpl::Add(iterator position, std::shared_ptr<BootEntry> entry) {
  const uint16_t number = entry->GetNumber();
  const auto at = static_cast<size_t>(position - entries.begin());
  entries.insert(position, entry);
  List kept;
  for (size_t i = 0; i < entries.size(); ++i)
    if (i == at || entries[i]->GetNumber() != number) kept.push_back(entries[i]);
  entries = std::move(kept);
  if (Error e = Save(); e.IsError()) return e;

  // Every entry of the machine is written again, those in BootOrder first
  // and in its order.
  BootEntriesEnumeratorUefi all;
  if (Error e = all.Obtain(); e.IsError()) return e;
  List rest;
  for (auto& e : all) {
    rest.push_back(e);
    for (auto& variant : e->GetCaseVariants()) rest.push_back(variant);
  }
  List sequence;
  for (const auto& ordered : entries) {
    auto moved = std::stable_partition(rest.begin(), rest.end(), [&](const auto& e) {
      return e->GetNumber() != ordered->GetNumber();
    });
    sequence.insert(sequence.end(), moved, rest.end());
    rest.erase(moved, rest.end());
  }
  sequence.insert(sequence.end(), rest.begin(), rest.end());
  for (auto& e : sequence)
    if (Error error = e->Commit(); error.IsError()) return error;
  return {};
}

Error BootOrderImpl::Remove(const BootEntry& entry) {
  Load();  // a missing list is written anew
  const uint16_t number = entry.GetNumber();
  entries.erase(std::remove_if(entries.begin(), entries.end(),
                               [&](const auto& e) { return e->GetNumber() == number; }),
                entries.end());
  return Save();
}

Error GetBootOrder(std::shared_ptr<BootOrder>& out) {
  auto order = std::make_shared<BootOrderImpl>();
  out = order;
  return order->Load();
}

// ------------------------------------------------------------- BootNext

Error BootNextImpl::Clear() {
  if (!variable) CreateVariable(variable, kGlobalVariableGuid, u"BootNext", kVariableAttributes);
  Error e = ClearVariable(*variable);
  return IsNotFound(e) ? Error() : e;
}

Error BootNextImpl::Set(const std::shared_ptr<BootEntry>& entry) {
  if (!variable) CreateVariable(variable, kGlobalVariableGuid, u"BootNext", kVariableAttributes);
  std::vector<uint8_t> bytes;
  Le::Append(bytes, entry->GetNumber(), 2);
  return SetVariableData(*variable, bytes.data(), bytes.size());
}

Error BootNextImpl::Get(std::shared_ptr<BootEntry>& out) {
  return ReadEntryNumber(variable, u"BootNext", kVariableAttributes, out);
}

Error BootNextFakeImpl::Clear() {
  std::shared_ptr<BootEntry> entry;
  const std::vector<uint8_t> tag(std::begin(kFakeTag), std::end(kFakeTag));
  Error e = FindBootEntryByAdditionalInfo(tag, entry);
  if (IsNotFound(e)) return {};  // nothing set up: nothing to undo
  if (e.IsError()) return e;
  return RemoveBootEntry(entry);
}

Error BootNextFakeImpl::Set(const std::shared_ptr<BootEntry>& entry) {
  if (Error e = Clear(); e.IsError()) return e;

  std::vector<uint8_t> data;
  if (Error e = entry->GetOptionalData(data); e.IsError() && !IsNotFound(e)) return e;
  data.insert(data.end(), std::begin(kFakeTag), std::end(kFakeTag));
  if (Error e = entry->SetOptionalData(data); e.IsError()) return e;
  if (Error e = entry->Commit(); e.IsError()) return e;

  std::shared_ptr<BootOrder> order;
  if (Error e = GetBootOrder(order); e.IsError() && !IsNotFound(e)) return e;
  if (Error e = order->Add(order->begin(), entry); e.IsError()) return e;

  // Firmware that honours BootNext takes the entry even when another
  // program reorders BootOrder; the tag is what undoes it either way.
  std::shared_ptr<BootNext> real;
  GetBootNext(real, true);
  real->Set(entry);
  return {};
}

Error BootNextFakeImpl::Get(std::shared_ptr<BootEntry>& out) {
  const std::vector<uint8_t> tag(std::begin(kFakeTag), std::end(kFakeTag));
  return FindBootEntryByAdditionalInfo(tag, out);
}

Error GetBootNext(std::shared_ptr<BootNext>& out, bool real) {
  if (real)
    out = std::make_shared<BootNextImpl>();
  else
    out = std::make_shared<BootNextFakeImpl>();
  return {};
}

// ---------------------------------------------------------- BootCurrent

Error BootCurrentImpl::Get(std::shared_ptr<BootEntry>& out) {
  return ReadEntryNumber(variable, u"BootCurrent", 0, out);
}

Error GetBootCurrent(std::shared_ptr<BootCurrent>& out) {
  out = std::make_shared<BootCurrentImpl>();
  return {};
}

// ----------------------------------------------------------- enumerators

Error BootEntriesEnumeratorImpl::CreateNew(std::shared_ptr<BootEntry>& out) {
  uint16_t number;
  if (!LowestFreeNumber(entries, number)) return MakeUefiError(ERROR_HERE, Codes::CreateNewFailed);
  out = std::make_shared<BootEntryImpl>(number);
  return {};
}

Error BootEntriesEnumeratorImpl::GetDescriptionText(std::u16string& out) {
  out = NumberList(entries);
  return {};
}

Error BootEntriesEnumeratorUefi::Obtain() {
  std::shared_ptr<BootOrder> order;
  if (GetBootOrder(order).IsError()) return MakeUefiError(ERROR_HERE, Codes::NotImplemented);
  entries.clear();
  std::u16string name;
  Common::GUID vendor{};
  for (size_t walked = 0; walked < kMaxNames; ++walked) {
    if (EfiLoader::Fw().GetNextVariableName(name, vendor) != EfiLoader::Status::Success) break;
    if ((name.size() + 1) * 2 > kNameBufferBytes) break;
    uint16_t number;
    if (!EntryNumberOfName(name, number)) continue;
    auto entry = std::make_shared<BootEntryImpl>(number);
    if (entry->Exists()) entries.push_back(std::move(entry));
  }
  return {};
}

// -------------------------------------------------------- tagged entries

Error FindBootEntryByAdditionalInfo(const std::vector<uint8_t>& tag,
                                    std::shared_ptr<BootEntry>& out) {
  std::shared_ptr<BootOrder> order;
  if (Error e = GetBootOrder(order); e.IsError()) return e;
  if (!tag.empty()) {
    for (auto& entry : *order) {
      std::vector<uint8_t> data;
      if (entry->GetOptionalData(data).IsError()) continue;  // unreadable: not ours
      if (std::search(data.begin(), data.end(), tag.begin(), tag.end()) != data.end()) {
        out = entry;
        return {};
      }
    }
  }
  return MakeUefiError(ERROR_HERE, Codes::BootEntryNotFound, TagText(tag).c_str());
}

Error RemoveBootEntry(const std::shared_ptr<BootEntry>& entry) {
  std::shared_ptr<BootOrder> order;
  if (Error e = GetBootOrder(order); e.IsError()) return e;
  order->Remove(*entry);  // the variable goes even if the list can't be written
  return entry->Delete();
}

}  // namespace Uefi
