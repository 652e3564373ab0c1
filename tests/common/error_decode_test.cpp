#include <gtest/gtest.h>

#include <string>
#include <type_traits>

#include "common/error_codes.h"
#include "resizer/errors.h"
#include "test_util.h"

using Common::Error;

namespace {

TEST(ResizerErrors, IndexZeroIsSuccess) {
  EXPECT_TRUE(Common::DecodeResizerError(0).IsSuccess());
  EXPECT_EQ(Common::DecodeResizerError(0).Record(), nullptr);
}

TEST(ResizerErrors, IndexesWithoutMessageFallBackToTheInternalError) {
  const uint32_t indexes[] = {1, 0xC, 0xD, 0x24, 0x28, 0x2A, 0x34, 0x35, 57, 0x100, 0xFFFFFFFF};
  for (uint32_t index : indexes) {
    Error e = Common::DecodeResizerError(index);
    EXPECT_EQ(e.Code(), 0x70001u) << index;
    EXPECT_EQ(e.Message(), u"Internal error: unknown error") << index;
    EXPECT_STREQ(e.Function(), "DecodeResizerError");
  }
}

TEST(ResizerErrors, EveryListedMessage) {
  struct Case {
    uint32_t index;
    const char16_t* text;
  } cases[] = {
      {0x02, u"Not enough memory."},
      {0x03, u"Read error."},
      {0x04, u"Write error."},
      {0x05, u"Invalid format."},
      {0x06, u"Invalid partition size."},
      {0x07, u"Formatting is unavailable."},
      {0x08, u"Resizing is unavailable."},
      {0x09, u"Cannot set volume label."},
      {0x0A, u"Unsupported file system version."},
      {0x0B, u"FAT is corrupted."},
      {0x0E, u"Directory is corrupted."},
      {0x0F, u"Invalid file size."},
      {0x10, u"Unsupported file system."},
      {0x11, u"The group descriptor is corrupted."},
      {0x12, u"I-node is corrupted."},
      {0x13, u"Inconsistent link count."},
      {0x14, u"Invalid block list."},
      {0x15, u"Disk is full."},
      {0x16, u"Block bitmap is corrupted."},
      {0x17, u"I-node bitmap is corrupted."},
      {0x18, u"MFT bitmap is corrupted."},
      {0x19, u"File record is corrupted."},
      {0x1A, u"Invalid file reference."},
      {0x1B, u"Attribute list is corrupted."},
      {0x1C, u"Run list is corrupted."},
      {0x1D, u"Node is corrupted."},
      {0x1E, u"Journal contains unfinished transactions."},
      {0x1F, u"The backup archive was created by a newer version of Velarix Ostrelin."},
      {0x20, u"The archive is corrupted."},
      {0x21, u"Failed to create volume snapshot."},
      {0x22, u"Operation canceled."},
      {0x23, u"A partition with bad blocks cannot be resized."},
      {0x25, u"Index is corrupted."},
      {0x26, u"File system is too large for 32-bit version."},
      {0x27, u"Encryption has failed."},
      {0x29, u"Deduplicated archives are not supported."},
      {0x2B, u"Nothing is selected for backup."},
      {0x2C, u"The backup does not contain the sector."},
      {0x2D, u"Sector size mismatch."},
      {0x2E, u"Forced sector-by-sector mode."},
      {0x2F, u"File exclusion is not supported."},
      {0x30, u"The backup has been created but its data is inconsistent with the source. Backup "
             u"will be automatically restarted."},
      {0x31, u"Cannot free up space taken by the deleted backups. The operation will be retried "
             u"during next backup deletion."},
      {0x32, u"The archive has been closed."},
      {0x33, u"Failed to apply the file exclusions due to disk errors. Please use CHKDSK to fix "
             u"the errors."},
      {0x36, u"The file system is corrupted. Fast incremental/differential backup is disabled and "
             u"file filters are not effective."},
      {0x37, u"Fast incremental/differential backup and file filters are not supported for this "
             u"file system."},
      {0x38, u"CBT validation has failed."},
  };
  for (const Case& c : cases) {
    Error e = Common::DecodeResizerError(c.index);
    EXPECT_EQ(e.Code(), 0x70000u + c.index) << c.index;
    EXPECT_EQ(e.Message(), c.text) << c.index;
    EXPECT_STREQ(e.Function(), "DecodeResizerError") << c.index;
  }
  // The report carries the message like any other.
  const std::string t = test_util::Narrow(Common::ErrorText(Common::DecodeResizerError(0x15)));
  EXPECT_EQ(t.rfind("Error 0x70015: Disk is full.\n| line: 0x", 0), 0u) << t;
  EXPECT_NE(t.find("\n| function: DecodeResizerError"), std::string::npos) << t;
}

TEST(UefiStatusErrors, TheThreeOutcomes) {
  Error oom = Common::GetUefiErrorFromEfiStatus(0x8000000000000009ull, u"Boot0001");
  EXPECT_EQ(oom.Code(), 0x12F000Eu);
  EXPECT_EQ(oom.Message(), u"");

  Error missing = Common::GetUefiErrorFromEfiStatus(0x800000000000000Eull, u"Boot000A");
  EXPECT_EQ(missing.Code(), 0x12F0008u);
  EXPECT_EQ(missing.Message(), u"Boot entry 'Boot000A' cannot be found.");
  EXPECT_EQ(Common::GetUefiErrorFromEfiStatus(0x800000000000000Eull, nullptr).Message(),
            u"Boot entry '' cannot be found.");
  // The name is an argument, not a template of its own.
  EXPECT_EQ(Common::GetUefiErrorFromEfiStatus(0x800000000000000Eull, u"{0}{1}").Message(),
            u"Boot entry '{0}{1}' cannot be found.");

  for (uint64_t status : {0x8000000000000007ull, 0x800000000000000Dull, 0x8000000000000001ull}) {
    Error other = Common::GetUefiErrorFromEfiStatus(status, u"Boot0001");
    EXPECT_EQ(other.Code(), 1u) << std::hex << status;
    EXPECT_EQ(other.Message(), u"") << std::hex << status;
  }
}

// The exception classes add no state: a handler may slice them freely.
static_assert(sizeof(resizer::NotEnoughMemory) == sizeof(Error));
static_assert(sizeof(resizer::ResizeImpossible) == sizeof(Error));
static_assert(sizeof(resizer::ErrorInSuperblock) == sizeof(Error));
static_assert(sizeof(resizer::InvalidFileSystem) == sizeof(Error));
static_assert(sizeof(resizer::InvalidPartitionSize) == sizeof(Error));
static_assert(sizeof(resizer::UnableToSetVolumeLabel) == sizeof(Error));
static_assert(sizeof(resizer::Canceled) == sizeof(Error));
static_assert(std::is_base_of_v<Error, resizer::Canceled>);

TEST(ResizerErrors, AllocatorFailureRaisesNotEnoughMemory) {
  try {
    throw resizer::NotEnoughMemory(ERROR_HERE);
  } catch (const resizer::ResizeImpossible&) {
    FAIL() << "caught as the wrong kind";
  } catch (const Error& e) {
    EXPECT_EQ(e.Code(), 0x70002u);
    EXPECT_EQ(e.Message(), u"Not enough memory.");
    EXPECT_EQ(e.Message(), Common::DecodeResizerError(2).Message());
  }
}

TEST(ResizerErrors, HandlersTellTheKindsApart) {
  auto raise = [](int kind) {
    switch (kind) {
      case 0: throw resizer::Canceled(Common::DecodeResizerError(0x22));
      case 1: throw resizer::InvalidPartitionSize(ERROR_HERE, 0x70006, u"Invalid partition size.");
      default: throw resizer::UnableToSetVolumeLabel(Common::DecodeResizerError(9));
    }
  };
  int seen[3] = {-1, -1, -1};
  for (int kind = 0; kind < 3; ++kind) {
    try {
      raise(kind);
    } catch (const resizer::Canceled& e) {
      seen[kind] = 0;
      EXPECT_EQ(e.Code(), 0x70022u);
    } catch (const resizer::InvalidPartitionSize& e) {
      seen[kind] = 1;
      EXPECT_EQ(e.Code(), 0x70006u);
    } catch (const resizer::ErrorInSuperblock&) {
      seen[kind] = 9;
    } catch (const Error& e) {
      seen[kind] = 2;
      EXPECT_EQ(e.Code(), 0x70009u);
    }
  }
  EXPECT_EQ(seen[0], 0);
  EXPECT_EQ(seen[1], 1);
  EXPECT_EQ(seen[2], 2);
}

}  // namespace
