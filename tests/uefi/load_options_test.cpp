#include <gtest/gtest.h>

#include "common/error_codes.h"
#include "record_bytes.h"
#include "test_util.h"
#include "uefi/errors.h"
#include "uefi/load_options.h"

using namespace uefi_test;
using Common::Error;
using Uefi::LoadOptionsImpl;

namespace {

struct Parsed {
  Error error;
  LoadOptionsImpl options;
  Bytes optional;  // what stayed in the reader
};

Parsed Parse(const Bytes& record) {
  Parsed p;
  Uefi::RecordReader reader{record.data(), int64_t(record.size())};
  p.error = Uefi::Fill(p.options, reader);
  if (p.error.IsSuccess() && reader.left > 0) p.optional.assign(reader.data, reader.data + reader.left);
  return p;
}

Bytes Write(const LoadOptionsImpl& options, const Bytes& optional = {}) {
  Bytes out;
  Error e = Uefi::Serialize(options, out);
  EXPECT_TRUE(e.IsSuccess()) << test_util::Narrow(Common::ErrorText(e));
  out.insert(out.end(), optional.begin(), optional.end());
  return out;
}

const char* const kRealRecords[] = {"ovmf_ui_app.var",    "ovmf_sata_disk.var",
                                    "ovmf_shell.var",     "ovmf_file_no_partition.var",
                                    "ovmf_gpt_file.var",  "ovmf_mbr_file.var"};

// ------------------------------------------------------------ round trips

TEST(LoadOptionRoundTrip, RealFirmwareRecordsComeBackByteForByte) {
  for (const char* name : kRealRecords) {
    const Bytes record = RealRecord(name);
    ASSERT_GT(record.size(), 6u) << name;
    Parsed p = Parse(record);
    ASSERT_TRUE(p.error.IsSuccess()) << name << ": " << test_util::Narrow(Common::ErrorText(p.error));
    EXPECT_TRUE(p.options.pathTail.empty()) << name;
    EXPECT_EQ(p.options.nodes.back()->GetHeader().Type, 127) << name;
    EXPECT_EQ(Write(p.options, p.optional), record) << name;
  }
}

TEST(LoadOptionRoundTrip, EdgeShapesComeBackByteForByte) {
  const Bytes gpt = HardDrive(1, 2048, 122880, SampleGuidBytes(), 2, 2);
  struct Case {
    const char* what;
    Bytes record;
    size_t nodes;
    size_t tail;
    size_t optional;
  } cases[] = {
      {"list length 0: every byte behind the text is optional data",
       Record(u"Nothing", Cat({File(u"\\a.efi"), End()}), {}, 0), 0, 0, 18 + 4},
      {"end node, then bytes inside the list that don't parse",
       Record(u"Tail", Cat({File(u"\\x"), End(), {0x04, 0x04, 0x02, 0x00, 0xAA}}), Ascii("opt")),
       2, 5, 3},
      {"unknown node types keep all their bytes",
       Record(u"Odd", Cat({Node(3, 0x99, {1, 2, 3, 4, 5}), Node(0x55, 0, {}), End()})), 3, 0, 0},
      {"hard drive node longer than its 42 bytes",
       Record(u"Long HD", Cat({HardDrive(1, 2, 3, SampleGuidBytes(), 2, 2, {9, 8, 7}), End()})),
       2, 0, 0},
      {"end node longer than its header", Record(u"Long end", Cat({File(u"\\a"), Node(127, 0xFF, {5, 6})})),
       2, 0, 0},
      {"file node with bytes behind its terminator and an odd length",
       Record(u"File slack", Cat({Node(4, 4, Cat({Wide(u"\\k"), {0x11, 0x22, 0x33}})), End()})), 2, 0, 0},
      {"two instances in one list",
       Record(u"Two", Cat({gpt, File(u"\\a.efi"), End(0x01), gpt, File(u"\\b.efi"), End()})), 6, 0, 0},
      {"empty description", Record(u"", Cat({gpt, End()}), Ascii("Fake_tag")), 2, 0, 8},
      {"odd byte of optional data at the very end", Record(u"D", End(), {0x7F}), 1, 0, 1},
      {"list shorter than the nodes after an end node: tail of 2",
       Record(u"Short tail", Cat({End(), {0xFE, 0xFF}})), 1, 2, 0},
  };
  for (const Case& c : cases) {
    Parsed p = Parse(c.record);
    ASSERT_TRUE(p.error.IsSuccess()) << c.what << ": " << test_util::Narrow(Common::ErrorText(p.error));
    EXPECT_EQ(p.options.nodes.size(), c.nodes) << c.what;
    EXPECT_EQ(p.options.pathTail.size(), c.tail) << c.what;
    EXPECT_EQ(p.optional.size(), c.optional) << c.what;
    EXPECT_EQ(Write(p.options, p.optional), c.record) << c.what;
  }
}

TEST(LoadOptionRoundTrip, OptionalDataIsWhatFollowsTheList) {
  Parsed p = Parse(RealRecord("ovmf_sata_disk.var"));
  ASSERT_TRUE(p.error.IsSuccess());
  EXPECT_EQ(p.options.description, u"UEFI QEMU HARDDISK QM00001 ");
  EXPECT_EQ(p.options.attributes, 1u);
  EXPECT_EQ(p.options.nodes.size(), 4u);  // PciRoot, Pci, Sata, End
  EXPECT_EQ(p.optional, (Bytes{0x4E, 0xAC, 0x08, 0x81, 0x11, 0x9F, 0x59, 0x4D, 0x85, 0x0E, 0xE2,
                               0x1A, 0x52, 0x2C, 0x59, 0xB2}));
}

// ------------------------------------------------------------ bad records

TEST(LoadOptionParse, BrokenRecordsGiveTheirCodes) {
  const Bytes gpt = HardDrive(1, 2048, 122880, SampleGuidBytes(), 2, 2);
  Bytes noTerminator{1, 0, 0, 0, 4, 0};
  noTerminator.insert(noTerminator.end(), {'A', 0, 'B', 0, 'C'});
  Bytes shortHd = gpt;
  shortHd[2] = 41;
  Bytes longNode = File(u"\\a");
  longNode[2] = 200;
  struct Case {
    const char* what;
    Bytes record;
    uint32_t code;
  } cases[] = {
      {"empty", {}, 0x12F000D},
      {"attributes cut short", {1, 0, 0}, 0x12F000D},
      {"list length cut short", {1, 0, 0, 0, 4}, 0x12F000D},
      {"description without terminator (odd last byte)", noTerminator, 0x12F000D},
      {"node header cut short", Record(u"D", {0x04, 0x04}, {}, 4), 0x12F000D},
      {"node length past the record", Record(u"D", longNode), 0x12F000D},
      {"hard drive node below 42 bytes", Record(u"D", Cat({shortHd, End()})), 0x12F000D},
      {"file node below 6 bytes", Record(u"D", Cat({Node(4, 4, {0}), End()})), 0x12F000D},
      {"file node without terminator", Record(u"D", Cat({Node(4, 4, Wide(u"\\abc", false)), End()})),
       0x12F000D},
      {"end node below 4 bytes", Record(u"D", Node(127, 0xFF, {}, 3)), 0x12F000D},
      {"other node below 4 bytes", Record(u"D", Cat({Node(1, 1, {}, 2), End()})), 0x12F000D},
      {"nodes add up to more than the list length", Record(u"D", Cat({gpt, End()}), {}, 44),
       0x12F0005},
      {"list length past the record, no end node yet", Record(u"D", File(u"\\a"), {}, 500),
       0x12F000D},
      {"tail behind the end node longer than the record", Record(u"D", Cat({End(), {1, 2}}), {}, 40),
       0x12F000D},
  };
  for (const Case& c : cases) {
    Parsed p = Parse(c.record);
    EXPECT_EQ(p.error.Code(), c.code) << c.what;
  }
  EXPECT_EQ(Uefi::MakeUefiError(ERROR_HERE, 0x12F0005).Message(), u"Incorrect boot path.");
}

TEST(LoadOptionParse, NodeReaderStopsBehindTheDeclaredLength) {
  // A node that declares more than its kind uses: the next node starts
  // where the length says.
  const Bytes bytes = Cat({HardDrive(7, 1, 2, SampleGuidBytes(), 2, 2, {0xEE, 0xEE}), End()});
  Uefi::RecordReader reader{bytes.data(), int64_t(bytes.size())};
  std::shared_ptr<Uefi::EfiDevicePathNode> node;
  ASSERT_TRUE(Uefi::GetEfiDevicePathNode(node, reader).IsSuccess());
  EXPECT_EQ(node->GetLength(), 44);
  EXPECT_EQ(reader.left, 4);
  ASSERT_TRUE(Uefi::GetEfiDevicePathNode(node, reader).IsSuccess());
  EXPECT_EQ(node->GetHeader().Type, 127);
  EXPECT_EQ(reader.left, 0);
  // A failed read leaves the reader where it was.
  Uefi::RecordReader empty{bytes.data(), 3};
  EXPECT_EQ(Uefi::GetEfiDevicePathNode(node, empty).Code(), 0x12F000Du);
  EXPECT_EQ(empty.left, 3);
  EXPECT_EQ(node, nullptr);
}

TEST(LoadOptionParse, FileNodeTextEndsAtItsFirstZero) {
  const Bytes record = Record(u"D", Cat({Node(4, 4, Cat({Wide(u"\\a.efi"), Wide(u"junk")})), End()}));
  Parsed p = Parse(record);
  ASSERT_TRUE(p.error.IsSuccess());
  std::u16string path;
  ASSERT_TRUE(p.options.GetPath(path).IsSuccess());
  EXPECT_EQ(path, u"\\a.efi");
  EXPECT_EQ(p.options.nodes[0]->GetLength(), 4 + 14 + 10);
}

// ----------------------------------------------------------------- getters

TEST(LoadOptionFields, PartitionFieldsOfRealGptAndMbrEntries) {
  Parsed gpt = Parse(RealRecord("ovmf_gpt_file.var"));
  ASSERT_TRUE(gpt.error.IsSuccess());
  Common::GUID guid{};
  ASSERT_TRUE(gpt.options.GetPartitionGUID(guid).IsSuccess());
  EXPECT_EQ(Common::GuidToNarrowText(guid), "3F2504E0-4F89-11D3-9A0C-0305E82C3301");
  uint32_t n = 0, type = 0;
  uint64_t start = 0, size = 0;
  EXPECT_TRUE(gpt.options.GetPartitionNumber(n).IsSuccess());
  EXPECT_TRUE(gpt.options.GetPartitionStart(start).IsSuccess());
  EXPECT_TRUE(gpt.options.GetPartitionSize(size).IsSuccess());
  EXPECT_TRUE(gpt.options.GetDiskType(type).IsSuccess());
  EXPECT_EQ(n, 1u);
  EXPECT_EQ(start, 0x800u);
  EXPECT_EQ(size, 0x1E000u);
  EXPECT_EQ(type, 8u);
  uint32_t signature = 0;
  Error wrongKind = gpt.options.GetNtSignature(signature);
  EXPECT_EQ(wrongKind.Code(), 0x12F0007u);
  EXPECT_EQ(wrongKind.Message(), u"Incorrect boot signature.");

  Parsed mbr = Parse(RealRecord("ovmf_mbr_file.var"));
  ASSERT_TRUE(mbr.error.IsSuccess());
  ASSERT_TRUE(mbr.options.GetNtSignature(signature).IsSuccess());
  EXPECT_EQ(signature, 0x1234ABCDu);
  EXPECT_TRUE(mbr.options.GetDiskType(type).IsSuccess());
  EXPECT_EQ(type, 2u);
  EXPECT_EQ(mbr.options.GetPartitionGUID(guid).Code(), 0x12F0007u);
}

TEST(LoadOptionFields, MissingNodesAndUnknownSignatureKinds) {
  Parsed app = Parse(RealRecord("ovmf_ui_app.var"));  // Fv/FvFile: no file, no partition
  ASSERT_TRUE(app.error.IsSuccess());
  std::u16string path;
  Common::GUID guid{};
  uint32_t u32 = 0;
  uint64_t u64 = 0;
  EXPECT_EQ(app.options.GetPath(path).Code(), 0x12F0005u);
  EXPECT_EQ(app.options.GetPartitionGUID(guid).Code(), 0x12F0005u);
  EXPECT_EQ(app.options.GetNtSignature(u32).Code(), 0x12F0005u);
  EXPECT_EQ(app.options.GetPartitionNumber(u32).Code(), 0x12F0005u);
  EXPECT_EQ(app.options.GetPartitionStart(u64).Code(), 0x12F0005u);
  EXPECT_EQ(app.options.GetPartitionSize(u64).Code(), 0x12F0005u);
  EXPECT_EQ(app.options.GetDiskType(u32).Code(), 0x12F0005u);

  Parsed plain = Parse(RealRecord("ovmf_file_no_partition.var"));
  ASSERT_TRUE(plain.error.IsSuccess());
  ASSERT_TRUE(plain.options.GetPath(path).IsSuccess());
  EXPECT_EQ(path, u"\\EFI\\BOOT\\rescue.efi");

  Parsed unknown =
      Parse(Record(u"D", Cat({HardDrive(1, 2, 3, SampleGuidBytes(), 2, 0), File(u"\\x"), End()})));
  ASSERT_TRUE(unknown.error.IsSuccess());
  EXPECT_TRUE(unknown.options.GetDiskType(u32).IsSuccess());
  EXPECT_EQ(u32, 32768u);
  EXPECT_EQ(unknown.options.GetPartitionGUID(guid).Code(), 0x12F0007u);
  EXPECT_EQ(unknown.options.GetNtSignature(u32).Code(), 0x12F0007u);
}

// ------------------------------------------------------------------ Verify

TEST(LoadOptionVerify, WhatARecordNeedsBeforeItIsWritten) {
  const Bytes gpt = HardDrive(1, 2048, 100, SampleGuidBytes(), 2, 2);
  const Bytes zeroGuid = HardDrive(1, 2048, 100, Bytes(16, 0), 2, 2);
  const Bytes mbr = HardDrive(1, 2048, 100, Bytes{0xCD, 0xAB, 0x34, 0x12, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}, 1, 1);
  struct Case {
    const char* what;
    Bytes record;
    uint32_t code;
    uint32_t cause;
  } cases[] = {
      {"no description, right path", Record(u"", Cat({gpt, File(u"\\a.efi"), End()})), 0x12F000D, 0},
      {"description, no hard drive node", Record(u"D", Cat({File(u"\\a.efi"), End()})), 0, 0},
      {"description, no file node", Record(u"D", Cat({gpt, End()})), 0, 0},
      {"empty path", Record(u"D", Cat({gpt, File(u""), End()})), 0x12F000D, 0},
      {"GPT entry", Record(u"D", Cat({gpt, File(u"\\a.efi"), End()})), 0, 0},
      {"MBR entry", Record(u"D", Cat({mbr, File(u"\\a.efi"), End()})), 0, 0},
      {"zero GUID and no MBR signature to fall back on",
       Record(u"D", Cat({zeroGuid, File(u"\\a.efi"), End()})), 0x12F000D, 0x12F0007},
  };
  for (const Case& c : cases) {
    Parsed p = Parse(c.record);
    ASSERT_TRUE(p.error.IsSuccess()) << c.what;
    Error e = Uefi::Verify(p.options);
    EXPECT_EQ(e.Code(), c.code) << c.what;
    EXPECT_EQ(e.Cause().Code(), c.cause) << c.what;
  }
  for (const char* name : kRealRecords) {
    Parsed p = Parse(RealRecord(name));
    EXPECT_TRUE(Uefi::Verify(p.options).IsSuccess()) << name;
  }
}

// ----------------------------------------------------------------- setters

// The nodes of a record from the hard drive node on: what a record made
// from scratch must match.
Bytes PartitionAndFileNodes(const Bytes& record) {
  Parsed p = Parse(record);
  Bytes out;
  bool started = false;
  for (const auto& n : p.options.nodes) {
    started |= n->GetHeader().Type == 4 && n->GetHeader().SubType == 1;
    if (started) n->Serialize(out);
  }
  return out;
}

TEST(LoadOptionSetters, RecordsMadeFromScratchMatchTheFirmwaresOwn) {
  LoadOptionsImpl gpt;
  Common::GUID guid{};
  ASSERT_TRUE(Common::TextToGuid("3F2504E0-4F89-11D3-9A0C-0305E82C3301", guid));
  // Setters in an order that exercises placement: path first.
  ASSERT_TRUE(gpt.SetPath(u"\\mbrboot.efi").IsSuccess());
  ASSERT_TRUE(gpt.SetPartitionGUID(guid).IsSuccess());
  ASSERT_TRUE(gpt.SetPartitionNumber(1).IsSuccess());
  ASSERT_TRUE(gpt.SetPartitionStart(0x800).IsSuccess());
  ASSERT_TRUE(gpt.SetPartitionSize(0x1E000).IsSuccess());
  ASSERT_TRUE(gpt.SetDescription(u"MBR entry").IsSuccess());
  Bytes made = Write(gpt);
  EXPECT_EQ(PartitionAndFileNodes(made), PartitionAndFileNodes(RealRecord("ovmf_gpt_file.var")));
  EXPECT_TRUE(Uefi::Verify(gpt).IsSuccess());

  LoadOptionsImpl mbr;
  ASSERT_TRUE(mbr.SetPartitionStart(0x800).IsSuccess());  // makes a GPT-kind node first
  ASSERT_TRUE(mbr.SetNtSignature(0x1234ABCD).IsSuccess());
  ASSERT_TRUE(mbr.SetPartitionNumber(1).IsSuccess());
  ASSERT_TRUE(mbr.SetPartitionSize(0x1E000).IsSuccess());
  ASSERT_TRUE(mbr.SetPath(u"\\mbrboot.efi").IsSuccess());
  EXPECT_EQ(PartitionAndFileNodes(Write(mbr)), PartitionAndFileNodes(RealRecord("ovmf_mbr_file.var")));

  // And back to GPT: the signature kind follows the signature.
  ASSERT_TRUE(mbr.SetPartitionGUID(guid).IsSuccess());
  uint32_t type = 0;
  ASSERT_TRUE(mbr.GetDiskType(type).IsSuccess());
  EXPECT_EQ(type, 8u);
  EXPECT_EQ(PartitionAndFileNodes(Write(mbr)), PartitionAndFileNodes(RealRecord("ovmf_gpt_file.var")));
}

TEST(LoadOptionSetters, PathChangesResizeTheNodeAndStayReadable) {
  Parsed p = Parse(RealRecord("ovmf_file_no_partition.var"));
  ASSERT_TRUE(p.error.IsSuccess());
  const std::u16string longer = u"\\EFI\\rescue\\a-much-longer-name.efi";
  ASSERT_TRUE(p.options.SetPath(longer).IsSuccess());
  const Bytes again = Write(p.options);
  Parsed q = Parse(again);
  ASSERT_TRUE(q.error.IsSuccess());
  std::u16string path;
  ASSERT_TRUE(q.options.GetPath(path).IsSuccess());
  EXPECT_EQ(path, longer);
  EXPECT_EQ(q.options.nodes.size(), p.options.nodes.size()) << "no second file node";
  EXPECT_EQ(q.options.pathListLength, p.options.pathListLength + 2 * (longer.size() - 20));
}

TEST(LoadOptionSetters, ValuesThatCantBeWrittenAreRefused) {
  LoadOptionsImpl o;
  EXPECT_EQ(o.SetDescription(std::u16string(u"a\0b", 3)).Code(), 0x4001Fu);
  EXPECT_EQ(o.SetPath(std::u16string(u"\\a\0b", 4)).Code(), 0x4001Fu);
  EXPECT_EQ(o.SetPath(std::u16string(Uefi::kMaxFilePathUnits + 1, u'x')).Code(), 0x4001Fu);
  EXPECT_TRUE(o.nodes.empty());
  ASSERT_TRUE(o.SetPath(std::u16string(Uefi::kMaxFilePathUnits, u'x')).IsSuccess());
  EXPECT_EQ(o.nodes[0]->GetLength(), 0xFFFE);
  // One node of that size plus an end node no longer fit the list length.
  Bytes out;
  EXPECT_EQ(Uefi::Serialize(o, out).Code(), 0x12F0005u);
}

TEST(LoadOptionSetters, HardDriveNodeFromATemplate) {
  Parsed mbr = Parse(RealRecord("ovmf_mbr_file.var"));
  Parsed gpt = Parse(RealRecord("ovmf_gpt_file.var"));
  Parsed app = Parse(RealRecord("ovmf_ui_app.var"));
  ASSERT_TRUE(mbr.error.IsSuccess() && gpt.error.IsSuccess() && app.error.IsSuccess());

  EXPECT_EQ(mbr.options.FixHardDriveDevicePathFromTemplate(app.options).Code(), 0x12F0005u);
  ASSERT_TRUE(mbr.options.FixHardDriveDevicePathFromTemplate(gpt.options).IsSuccess());
  EXPECT_EQ(PartitionAndFileNodes(Write(mbr.options)), PartitionAndFileNodes(Write(gpt.options)));
  EXPECT_EQ(mbr.options.nodes.size(), gpt.options.nodes.size()) << "replaced, not added";

  LoadOptionsImpl fresh;
  ASSERT_TRUE(fresh.SetPath(u"\\x.efi").IsSuccess());
  ASSERT_TRUE(fresh.FixHardDriveDevicePathFromTemplate(gpt.options).IsSuccess());
  ASSERT_EQ(fresh.nodes.size(), 3u);
  EXPECT_EQ(fresh.nodes[0]->GetHeader().SubType, 1) << "partition before file";
  EXPECT_EQ(fresh.nodes[1]->GetHeader().SubType, 4);
  EXPECT_EQ(fresh.nodes[2]->GetHeader().Type, 127);
}

TEST(LoadOptionSetters, CloneIsDeep) {
  Parsed p = Parse(RealRecord("ovmf_gpt_file.var"));
  ASSERT_TRUE(p.error.IsSuccess());
  const Bytes before = Write(p.options);
  auto copy = p.options.Clone();
  ASSERT_TRUE(copy->SetPath(u"\\other.efi").IsSuccess());
  ASSERT_TRUE(copy->SetPartitionNumber(9).IsSuccess());
  EXPECT_EQ(Write(p.options), before);
  EXPECT_EQ(Write(static_cast<LoadOptionsImpl&>(*copy)).size(), before.size() - 4) << "two code units shorter";
}

// -------------------------------------------------------------------- text

TEST(LoadOptionText, DumpOfRealEntries) {
  Parsed gpt = Parse(RealRecord("ovmf_gpt_file.var"));
  EXPECT_EQ(test_util::Narrow(Uefi::DescribeLoadOptions(&gpt.options)),
            "Description: MBR entry\n"
            "Path: \\mbrboot.efi\n"
            "GUID: 3F2504E0-4F89-11D3-9A0C-0305E82C3301\n"
            "Partition number: 1\n"
            "Begin: 2048\n"
            "Partition Size: 122880\n");
  Parsed mbr = Parse(RealRecord("ovmf_mbr_file.var"));
  EXPECT_NE(test_util::Narrow(Uefi::DescribeLoadOptions(&mbr.options)).find("GUID: Unknown\n"),
            std::string::npos);
  Parsed app = Parse(RealRecord("ovmf_ui_app.var"));
  EXPECT_EQ(test_util::Narrow(Uefi::DescribeLoadOptions(&app.options)),
            "Description: UiApp\nPath: Unknown\nGUID: Unknown\nPartition number: Unknown\n"
            "Begin: Unknown\nPartition Size: Unknown\n");
  EXPECT_EQ(test_util::Narrow(Uefi::DescribeLoadOptions(nullptr)).substr(0, 21),
            "Description: Unknown\n");
}

TEST(LoadOptionText, HexDumpShowsOffsetsBytesAndPrintableText) {
  Bytes b = Ascii("Fake_tag");
  for (int i = 0; i < 10; ++i) b.push_back(uint8_t(0xF6 + i));
  EXPECT_EQ(test_util::Narrow(Uefi::HexDumpText(b.data(), b.size())),
            "Hex dump:\n"
            "0000: 46 61 6B 65 5F 74 61 67 F6 F7 F8 F9 FA FB FC FD  Fake_tag........\n"
            "0010: FE FF" + std::string(14 * 3 + 2, ' ') + "..\n");
  EXPECT_EQ(test_util::Narrow(Uefi::HexDumpText(nullptr, 0)), "Hex dump:\n");
}

}  // namespace
