// The firmware boot manager's entries as objects: Boot#### records, the
// BootOrder list, BootNext (the firmware's own and a "fake" one that a
// tagged entry stands for), BootCurrent, and an enumerator of all entries.
//
// A fake BootNext is an ordinary boot entry, first in BootOrder, whose
// optional data holds the 8 bytes "Fake_tag".  An earlier stage sets it up
// for one boot; the loader's job takes it away again.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "common/error.h"
#include "uefi/load_options.h"
#include "uefi/variables.h"

namespace Uefi {

inline constexpr uint8_t kFakeTag[8] = {'F', 'a', 'k', 'e', '_', 't', 'a', 'g'};

class BootEntry {
 public:
  virtual ~BootEntry() = default;
  // Takes the load options and optional data of `other`.
  virtual Common::Error CloneData(BootEntry& other) = 0;
  // The bytes of the record behind the file path list.
  virtual Common::Error GetOptionalData(std::vector<uint8_t>& out) = 0;
  // Changes the optional data in memory; Commit writes it.
  virtual Common::Error SetOptionalData(const std::vector<uint8_t>& data) = 0;
  virtual Common::Error GetLoadOptions(std::shared_ptr<LoadOptions>& out) = 0;
  virtual Common::Error SetLoadOptions(const LoadOptions& options) = 0;
  // Deletes the variable.
  virtual Common::Error Delete() = 0;
  // Writes the record: load options, then optional data.
  virtual Common::Error Commit() = 0;
  virtual Common::Error GetDescriptionText(std::u16string& out) = 0;
  virtual uint16_t GetNumber() const = 0;
  // The variable's bytes as they stand in the firmware.
  virtual Common::Error GetRawData(std::vector<uint8_t>& out) = 0;
  virtual bool Exists() = 0;
  // The same entry under the other spelling of its name, if that exists.
  virtual std::vector<std::shared_ptr<BootEntry>> GetCaseVariants() = 0;
};

class BootEntryImpl : public BootEntry {
 public:
  explicit BootEntryImpl(uint16_t number, std::u16string digits = u"")
      : number(number), digits(std::move(digits)) {}

  Common::Error CloneData(BootEntry& other) override;
  Common::Error GetOptionalData(std::vector<uint8_t>& out) override;
  Common::Error SetOptionalData(const std::vector<uint8_t>& data) override;
  Common::Error GetLoadOptions(std::shared_ptr<LoadOptions>& out) override;
  Common::Error SetLoadOptions(const LoadOptions& options) override;
  Common::Error Delete() override;
  Common::Error Commit() override;
  Common::Error GetDescriptionText(std::u16string& out) override;
  uint16_t GetNumber() const override { return number; }
  Common::Error GetRawData(std::vector<uint8_t>& out) override;
  bool Exists() override;
  std::vector<std::shared_ptr<BootEntry>> GetCaseVariants() override;

  // "Boot" and the digits (four upper-case hexadecimal digits until another
  // spelling was found).
  std::u16string VariableName();

  std::shared_ptr<LoadOptions> options;
  std::shared_ptr<Variable> variable;
  std::vector<uint8_t> optionalData;
  uint16_t number;
  std::u16string digits;

 private:
  // Reads the record and parses it, once.
  Common::Error Obtain();
  // Finds the variable under either spelling of the digits; `data` and
  // `size` are its value when it was read.
  Common::Error LoadVariable(const uint8_t*& data, size_t& size);
};

class BootOrder {
 public:
  using List = std::vector<std::shared_ptr<BootEntry>>;
  using iterator = List::iterator;

  virtual ~BootOrder() = default;
  // "(", each number in decimal and a blank, ")".
  virtual Common::Error GetDescriptionText(std::u16string& out) = 0;
  // An entry with the lowest number the list doesn't use.
  virtual Common::Error CreateNew(std::shared_ptr<BootEntry>& out) = 0;
  virtual iterator begin() = 0;
  virtual iterator end() = 0;
  // Removes one item, in memory only; gives the item behind it.
  virtual iterator Erase(iterator at) = 0;
  // Inserts the entry before `position` (and nowhere else), writes the
  // list, and writes every entry of the machine again in boot order.
  virtual Common::Error Add(iterator position, std::shared_ptr<BootEntry> entry) = 0;
  // Takes every item with the entry's number out of the list and writes it.
  virtual Common::Error Remove(const BootEntry& entry) = 0;
};

class BootOrderImpl : public BootOrder {
 public:
  Common::Error GetDescriptionText(std::u16string& out) override;
  Common::Error CreateNew(std::shared_ptr<BootEntry>& out) override;
  iterator begin() override { return entries.begin(); }
  iterator end() override { return entries.end(); }
  iterator Erase(iterator at) override { return entries.erase(at); }
  Common::Error Add(iterator position, std::shared_ptr<BootEntry> entry) override;
  Common::Error Remove(const BootEntry& entry) override;

  Common::Error Load();
  Common::Error Save();

  std::shared_ptr<Variable> variable;
  List entries;
};

class BootNext {
 public:
  virtual ~BootNext() = default;
  virtual Common::Error Clear() = 0;
  virtual Common::Error Set(const std::shared_ptr<BootEntry>& entry) = 0;
  virtual Common::Error Get(std::shared_ptr<BootEntry>& out) = 0;
};

// The firmware's own one-shot "BootNext".
class BootNextImpl : public BootNext {
 public:
  Common::Error Clear() override;
  Common::Error Set(const std::shared_ptr<BootEntry>& entry) override;
  Common::Error Get(std::shared_ptr<BootEntry>& out) override;

  std::shared_ptr<Variable> variable;
};

// The tagged entry that stands for a one-shot boot.
class BootNextFakeImpl : public BootNext {
 public:
  // Removes the first tagged entry; content if there is none.
  Common::Error Clear() override;
  Common::Error Set(const std::shared_ptr<BootEntry>& entry) override;
  Common::Error Get(std::shared_ptr<BootEntry>& out) override;
};

class BootCurrent {
 public:
  virtual ~BootCurrent() = default;
  virtual Common::Error Get(std::shared_ptr<BootEntry>& out) = 0;
};

class BootCurrentImpl : public BootCurrent {
 public:
  Common::Error Get(std::shared_ptr<BootEntry>& out) override;

  std::shared_ptr<Variable> variable;
};

class BootEntriesEnumerator {
 public:
  using List = std::vector<std::shared_ptr<BootEntry>>;

  virtual Common::Error CreateNew(std::shared_ptr<BootEntry>& out) = 0;
  virtual ~BootEntriesEnumerator() = default;
  virtual Common::Error GetDescriptionText(std::u16string& out) = 0;
  virtual List::iterator begin() = 0;
  virtual List::iterator end() = 0;
  virtual Common::Error Obtain() = 0;
};

// A list of entries given by whoever fills it.
class BootEntriesEnumeratorImpl : public BootEntriesEnumerator {
 public:
  Common::Error CreateNew(std::shared_ptr<BootEntry>& out) override;
  Common::Error GetDescriptionText(std::u16string& out) override;
  List::iterator begin() override { return entries.begin(); }
  List::iterator end() override { return entries.end(); }
  Common::Error Obtain() override { return {}; }

  List entries;
};

// Every Boot#### variable the firmware has.
class BootEntriesEnumeratorUefi : public BootEntriesEnumeratorImpl {
 public:
  Common::Error Obtain() override;

  // A firmware whose name walk doesn't end is not followed further.
  static constexpr size_t kMaxNames = 65536;
  // Names longer than this (in bytes, with terminator) don't fit the
  // buffer the walk asks with, and end it as the firmware would.
  static constexpr size_t kNameBufferBytes = 1024;
};

// A BootOrder object, loaded.  On failure (an absent "BootOrder" gives
// 0x12F0008) `out` is still an empty list that can be added to and saved.
Common::Error GetBootOrder(std::shared_ptr<BootOrder>& out);

// The firmware's BootNext (`real`) or the fake one.  Never fails.
Common::Error GetBootNext(std::shared_ptr<BootNext>& out, bool real);

Common::Error GetBootCurrent(std::shared_ptr<BootCurrent>& out);

// The first entry in boot order whose optional data contains `tag`;
// 0x12F0008 when none does.  Entries that can't be read are passed over.
Common::Error FindBootEntryByAdditionalInfo(const std::vector<uint8_t>& tag,
                                            std::shared_ptr<BootEntry>& out);

// Takes the entry's number out of BootOrder, then deletes its variable.
Common::Error RemoveBootEntry(const std::shared_ptr<BootEntry>& entry);

// An entry object for the number; the firmware is not asked.
Common::Error GetBootEntry(uint16_t number, std::shared_ptr<BootEntry>& out);

}  // namespace Uefi
