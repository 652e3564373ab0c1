// The sample volumes from another system: a version 4 volume on a GPT disk
// and a version 5 volume on an MBR disk, found through the partition table
// the way the firmware would publish them, and walked to the end.
#include <gtest/gtest.h>

#include "fdisk/partition_table.h"
#include "test_util.h"
#include "xfs_test_util.h"

using namespace fs_test;
using namespace Common::Codes;

namespace {

// Every file read and every directory listed; counts of both.
void WalkAll(rio_dir& dir, int depth, int& files, int& dirs, uint64_t& bytes) {
  ASSERT_LT(depth, 32);
  std::unique_ptr<i_dir::iterator> it(dir.GetIterator());
  if (!it) {
    EXPECT_EQ(dir.TakeError().Code(), 0u);
    return;
  }
  for (; !it->HasError(); it->Next()) {
    const std::u16string name = it->FileName();
    EXPECT_TRUE(name != u"." && name != u"..");
    if (FileTypes::IsDirectoryLike(it->FileType())) {
      ++dirs;
      std::unique_ptr<rio_dir> sub(dir.OpenDir(name.c_str()));
      ASSERT_NE(sub, nullptr) << Common::Utf16ToUtf8(name);
      WalkAll(*sub, depth + 1, files, dirs, bytes);
    } else if (it->FileType() == FileTypes::Regular) {
      ++files;
      std::unique_ptr<ri_file> f(dir.Open(name.c_str(), true));
      ASSERT_NE(f, nullptr) << Common::Utf16ToUtf8(name);
      const std::string data = ReadAll(*f);
      EXPECT_EQ(data.size(), it->Size()) << Common::Utf16ToUtf8(name);
      bytes += data.size();
    }
  }
  EXPECT_EQ(it->TakeError().Code(), EndOfFile);
}

class XfsSample : public ::testing::TestWithParam<const char*> {};

}  // namespace

TEST_P(XfsSample, ThePartitionMountsAndEveryFileReads) {
  TempDir dir;
  const std::string source = std::string(TEST_SHARED_DIR) + "/testdata/xfs/" + GetParam();
  if (access(source.c_str(), F_OK) != 0) GTEST_SKIP() << "sample image missing";
  const std::string raw = dir / "disk.raw";
  ASSERT_TRUE(fs_test::Run("gzip -dc '" + source + "' > '" + (dir / "disk.vhdx") + "' && qemu-img convert -O raw '" +
                  (dir / "disk.vhdx") + "' '" + raw + "'"));
  std::unique_ptr<Fdisk::SimpleDisk> disk = ImageAsDisk(raw, 512);
  ASSERT_NE(disk, nullptr);
  Fdisk::PartitionTable table;
  ASSERT_TRUE(Fdisk::ReadPartitionTable(*disk, table).IsSuccess());
  ASSERT_FALSE(table.entries.empty());
  const Fdisk::PartitionEntry part = table.entries[0];
  FileSystemMountHandler* handler = CreateXfs(disk.get(), part.firstSector, part.sectorCount, 0, nullptr, nullptr, 0);
  ASSERT_NE(handler, nullptr);
  handler->AddRef();
  handler->flags |= FileSystemMountHandler::kOwnsDisk;
  disk.release();
  std::unique_ptr<rio_dir> root(handler->OpenRootDir());
  if (handler->ReleaseRef() == 0) delete handler;
  ASSERT_NE(root, nullptr);
  int files = 0, dirs = 0;
  uint64_t bytes = 0;
  WalkAll(*root, 0, files, dirs, bytes);
  EXPECT_GT(files, 10);
  EXPECT_GT(dirs, 1);
  uint64_t total = 0, free = 0, available = 0;
  root->GetDriveSize(total, free, available);
  EXPECT_GT(total, free);
  EXPECT_GT(total, uint64_t(1) << 20);
}

INSTANTIATE_TEST_SUITE_P(Samples, XfsSample, ::testing::Values("xfs.vhdx.gz", "xfs5.vhdx.gz"),
                         [](const ::testing::TestParamInfo<const char*>& info) {
                           return std::string(info.param).find('5') != std::string::npos ? "v5" : "v4";
                         });
