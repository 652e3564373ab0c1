// The screen for the kernel: the request of "vga=", the mode the monitor
// and the firmware allow, the frame buffer hidden in PCI memory, and the
// checks of what was found.
#include <gtest/gtest.h>

#include "efi/video.h"
#include "linux_fixture.h"
#include "test_util.h"

using namespace EfiLoader;
using linux_test::LinuxTest;
using Sim::SimRootBridge;
using test_util::ThrownCode;

namespace {

TEST(VideoRequestTest, LastVgaWordDecides) {
  struct Case {
    const char* line;
    uint32_t width, height, depth;
  };
  const Case cases[] = {
      {"", 1024, 768, 32},
      {"vga=0x318", 1024, 768, 32},
      {"quiet vga=0x312", 640, 480, 32},
      {"\tvga=0x301", 640, 480, 8},
      {"xvga=0x312", 1024, 768, 32},                // inside a longer word
      {"vga=0x312 vga=0x315", 800, 600, 32},        // the last one wins
      {"vga=0x315 vga=ask", 1024, 768, 32},         // ... even when it is no number
      {"vga=0x315 novga=0x312", 800, 600, 32},
      {"vga=785", 640, 480, 16},                    // decimal 0x311
      {"vga=01423", 800, 600, 16},                  // octal 0x313
      {"vga=0X31b", 1280, 1024, 32},
      {"vga=0x312junk", 640, 480, 32},
      {"vga= 0x316", 1024, 768, 16},                // white space before the number
      {"vga=0x", 1024, 768, 32},
      {"vga=-1", 1024, 768, 32},
      {"vga=0x318000000000000000000312", 1024, 768, 32},  // saturates
      {"vga=0x307", 1280, 1024, 8},
  };
  for (const Case& c : cases) {
    const VideoRequest r = GetVideoRequest(c.line);
    EXPECT_EQ(r.width, c.width) << c.line;
    EXPECT_EQ(r.height, c.height) << c.line;
    EXPECT_EQ(r.depth, c.depth) << c.line;
  }
}

// An EDID with a preferred detailed timing of `w` x `h`.
std::vector<uint8_t> EdidPreferring(uint32_t w, uint32_t h) {
  std::vector<uint8_t> e = Sim::BlankEdid();
  e[0x18] |= 0x02;
  e[0x36] = 0x01, e[0x37] = 0x1D;  // pixel clock
  e[0x38] = w & 0xFF, e[0x3A] = static_cast<uint8_t>((w >> 8) << 4);
  e[0x3B] = h & 0xFF, e[0x3D] = static_cast<uint8_t>((h >> 8) << 4);
  Sim::FixEdidChecksum(e);
  return e;
}

// An EDID whose second descriptor holds range limits.
std::vector<uint8_t> EdidWithRange(uint8_t minV, uint8_t maxV, uint8_t minH, uint8_t maxH,
                                   uint8_t clock10) {
  std::vector<uint8_t> e = Sim::BlankEdid();
  uint8_t* d = e.data() + 0x48;
  d[3] = 0xFD;
  d[5] = minV, d[6] = maxV, d[7] = minH, d[8] = maxH, d[9] = clock10;
  Sim::FixEdidChecksum(e);
  return e;
}

class VideoTest : public LinuxTest {
 protected:
  ScreenInfo Select(const VideoRequest& request = {}) {
    ScreenInfo info{};
    EfiVideoGop gop;
    gop.SelectBestMode(info, request);
    return info;
  }
  uint32_t SelectCode(const VideoRequest& request = {}) {
    return ThrownCode([&] { Select(request); });
  }
  // The chosen resolution as "WxH".
  std::string Chosen(const VideoRequest& request = {}) {
    ResetEdidCache();
    const ScreenInfo i = Select(request);
    return std::to_string(i.lfb_width) + "x" + std::to_string(i.lfb_height);
  }
};

TEST_F(VideoTest, WithoutEdidOnlyFourToThreeModesUpToTheRequest) {
  EXPECT_EQ(Chosen(), "1024x768");
  EXPECT_EQ(video.gop.setModeCalls, std::vector<uint32_t>{2});
  EXPECT_EQ(Chosen(GetVideoRequest("vga=0x315")), "800x600");
  EXPECT_EQ(Chosen(GetVideoRequest("vga=0x31B")), "1024x768") << "1280x1024 is 5:4";
  video.gop.modes.push_back({1600, 1200, 1, 1600});
  EXPECT_EQ(Chosen(GetVideoRequest("vga=0x31B")), "1024x768") << "1600x1200 is too large";
}

TEST_F(VideoTest, ConvertedModeDescribesTheFrameBuffer) {
  video.gop.modes[2] = {1024, 768, kPixelRgbReserved8, 1056};
  const ScreenInfo i = Select();
  EXPECT_EQ(i.lfb_depth, 32);
  EXPECT_EQ(i.lfb_linelength, 4 * 1056);
  EXPECT_EQ(i.lfb_base, 0x80000000u);
  EXPECT_EQ(i.red_pos, 0);
  EXPECT_EQ(i.green_pos, 8);
  EXPECT_EQ(i.blue_pos, 16);
  EXPECT_EQ(i.rsvd_pos, 24);
  EXPECT_EQ(i.red_size + i.green_size + i.blue_size + i.rsvd_size, 32);
  EXPECT_EQ(+i.capabilities, 0u);

  video.gop.modes[2].PixelFormat = kPixelBgrReserved8;
  video.gop.Start(0);
  const ScreenInfo j = Select();
  EXPECT_EQ(j.red_pos, 16);
  EXPECT_EQ(j.blue_pos, 0);
}

TEST_F(VideoTest, CurrentModeStaysWhenNothingFitsOrSetModeFails) {
  video.gop.Start(1);
  EXPECT_EQ(Chosen(GetVideoRequest("vga=0x311")), "800x600") << "depth 16 drops every mode";
  EXPECT_TRUE(video.gop.setModeCalls.empty());

  video.gop.setModeFails = {2};
  EXPECT_EQ(Chosen(), "800x600");
  EXPECT_EQ(video.gop.setModeCalls, std::vector<uint32_t>{2});

  video.gop.setModeFails.clear();
  video.gop.setModeCalls.clear();
  video.gop.Start(2);
  EXPECT_EQ(Chosen(), "1024x768");
  EXPECT_TRUE(video.gop.setModeCalls.empty()) << "the best mode is the current one";
}

TEST_F(VideoTest, ModesTheFirmwareCannotDescribeAreSkipped) {
  video.gop.modes[2].PixelFormat = 2;  // bit mask
  video.gop.queryFails = {1};
  video.gop.Start(0);
  EXPECT_EQ(Chosen(), "640x480");
  video.gop.emptyRecords = {0};
  EXPECT_EQ(Chosen(), "640x480") << "the current mode as the last resort";

  video.gop.Start(2);  // the current mode has a bit-mask format
  EXPECT_EQ(SelectCode(GetVideoRequest("vga=0x311")), 0x1480007u);
}

TEST_F(VideoTest, ProtocolFailures) {
  video.gop.Start(2);
  video.gop.fb.address = 0;
  EXPECT_EQ(SelectCode(), 0x1480005u);
  video.gop.Start(2);
  video.gop.sizeOverride = 0;
  EXPECT_EQ(SelectCode(), 0x1480005u);
  video.gop.sizeOverride = ~0ull;
  video.gop.modeRecord = false;
  EXPECT_EQ(SelectCode(), 0x1480004u);
  video.gop.modeRecord = true;
  video.gop.currentInfoNull = true;
  EXPECT_EQ(SelectCode(GetVideoRequest("vga=0x311")), 0x1480004u);
  video.hasGop = false;
  EXPECT_EQ(SelectCode(), 0x1480004u);
}

TEST_F(VideoTest, FrameBufferAboveFourGiB) {
  video.gop.base = 0x3800000000ull;
  video.gop.Start(0);
  const ScreenInfo i = Select();
  EXPECT_EQ(i.lfb_base, 0u);
  EXPECT_EQ(+i.ext_lfb_base, 0x38u);
  EXPECT_EQ(+i.capabilities & 2u, 2u);
  EXPECT_EQ(FrameBufferAddress(i), 0x3800000000ull);
}

TEST_F(VideoTest, FrameBufferThatMovesWithTheMode) {
  video.gop.modeBases = {0x80000000, 0x80000000, 0x90000000};
  video.gop.Start(0);
  const ScreenInfo i = Select();
  EXPECT_EQ(i.lfb_width, 1024);
  EXPECT_EQ(i.lfb_base, 0x90000000u);
}

TEST_F(VideoTest, EdidTimingsChooseTheMode) {
  // The first detailed timing is preferred over a larger area.
  video.edid = EdidPreferring(800, 600);
  EXPECT_EQ(Chosen(), "800x600");
  // ... a preferred size also caps what the other modes may be.
  video.edid = EdidPreferring(1920, 1080);
  EXPECT_EQ(Chosen(), "1024x768");
  EXPECT_EQ(Chosen(GetVideoRequest("vga=0x31B")), "1280x1024") << "5:4 passes under 1920x1080";

  // A standard timing of 1280x1024 (5:4) at 75 Hz makes that mode a
  // candidate without any other reason.
  std::vector<uint8_t> e = EdidWithRange(50, 75, 30, 83, 1);  // limits keep nothing else
  e[0x26] = 0x81, e[0x27] = 0x8F;
  Sim::FixEdidChecksum(e);
  video.edid = e;
  EXPECT_EQ(Chosen(GetVideoRequest("vga=0x31B")), "1280x1024");
}

TEST_F(VideoTest, EstablishedTimingsAndTheRateSearch) {
  // Range limits whose pixel clock allows no mode; established timings
  // are then the only way in.
  std::vector<uint8_t> e = EdidWithRange(50, 75, 30, 83, 1);
  e[0x24] = 0x10;  // bit 12: 1024x768 at rate 0
  Sim::FixEdidChecksum(e);
  video.edid = e;
  video.gop.Start(0);
  EXPECT_EQ(SelectCode(), 0u);
  EXPECT_TRUE(video.gop.setModeCalls.empty()) << "bit 12 alone keeps nothing";

  e[0x24] = 0x08;  // bit 11: 1024x768 at 60 Hz
  e[0x23] = 0x01;  // bit 0: 800x600 at 60 Hz
  Sim::FixEdidChecksum(e);
  video.edid = e;
  EXPECT_EQ(Chosen(), "1024x768");

  MonitorLimits limits;
  ResetEdidCache();
  video.edid = EdidWithRange(50, 75, 30, 83, 17);
  ASSERT_TRUE(GetMonitorLimits(GetEdid(), limits));
  EXPECT_EQ(limits.maxPixelClock, 170u);
  EXPECT_EQ(FindRefreshRate(limits, 1024, 768), 75);
  EXPECT_EQ(FindRefreshRate(limits, 1920, 1080), 66);
  EXPECT_EQ(Chosen(), "1024x768");
  limits.minVertical = 0;
  EXPECT_EQ(FindRefreshRate(limits, 1024, 768), 0);
  limits.minVertical = 80;  // above the highest
  EXPECT_EQ(FindRefreshRate(limits, 1024, 768), 0);
}

TEST_F(VideoTest, DamagedEdidBlocksCountAsNone) {
  const std::vector<uint8_t> good = EdidPreferring(800, 600);
  ASSERT_TRUE(IsValidEdid(good.data(), 128));
  struct Case {
    const char* what;
    int byte;
    uint8_t value;
  };
  const Case cases[] = {
      {"checksum", 127, static_cast<uint8_t>(good[127] + 1)},
      {"header", 0, 0x01},
      {"version 2", 18, 2},
      {"revision 0", 19, 0},
  };
  for (const Case& c : cases) {
    std::vector<uint8_t> bad = good;
    bad[c.byte] = c.value;
    if (c.byte != 127) {
      // Keep the sum right, so that only the rule under test breaks.
      bad[127] = static_cast<uint8_t>(bad[127] - (c.value - good[c.byte]));
    }
    EXPECT_FALSE(IsValidEdid(bad.data(), 128)) << c.what;
    video.edid = bad;
    EXPECT_EQ(Chosen(), "1024x768") << c.what << ": only 4:3 modes without an EDID";
  }
  EXPECT_FALSE(IsValidEdid(good.data(), 127));
  EXPECT_FALSE(IsValidEdid(nullptr, 128));

  video.edid = good;
  video.edidNullPointer = true;
  EXPECT_EQ(Chosen(), "1024x768");
  video.edidNullPointer = false;
  video.edidSizeOverride = 100;
  EXPECT_EQ(Chosen(), "1024x768");
  video.edidSizeOverride = ~0u;
  EXPECT_EQ(Chosen(), "800x600");
}

TEST_F(VideoTest, EdidIsFetchedOncePerRun) {
  EXPECT_EQ(GetEdid(), nullptr);
  EXPECT_EQ(GetEdid(), nullptr);
  video.edid = EdidPreferring(800, 600);
  EXPECT_EQ(GetEdid(), nullptr) << "the absence is kept too";
  EXPECT_EQ(video.edidLocates, 1);
}

TEST_F(VideoTest, SortOrderOfCandidates) {
  auto mode = [](uint16_t w, uint16_t h, uint16_t depth, uint8_t preferred, uint8_t refresh) {
    VideoMode m;
    m.info.lfb_width = w, m.info.lfb_height = h, m.info.lfb_depth = depth;
    m.preferred = preferred, m.refresh = refresh;
    return m;
  };
  EXPECT_TRUE(ModeLess(mode(1920, 1080, 32, 0, 60), mode(640, 480, 32, 1, 0)));
  EXPECT_TRUE(ModeLess(mode(800, 600, 32, 0, 85), mode(1024, 768, 32, 0, 60)));
  EXPECT_TRUE(ModeLess(mode(1024, 768, 24, 0, 85), mode(1024, 768, 32, 0, 60)));
  EXPECT_TRUE(ModeLess(mode(1024, 768, 32, 0, 60), mode(1024, 768, 32, 0, 75)));
  // Equal area, other shape: neither is less.
  EXPECT_FALSE(ModeLess(mode(1200, 800, 32, 0, 0), mode(1600, 600, 32, 0, 0)));
  EXPECT_FALSE(ModeLess(mode(1600, 600, 32, 0, 0), mode(1200, 800, 32, 0, 0)));
}

// ---------------------------------------------------------------- checks

TEST(ColorSettings, RulesInOrder) {
  constexpr uint32_t kInvalid = 0x1480006, kUnsupported = 0x1480007;
  auto base = [] {
    ScreenInfo i{};
    i.lfb_base = 0xC0000000;
    i.lfb_depth = 32;
    i.red_size = i.green_size = i.blue_size = i.rsvd_size = 8;
    i.red_pos = 16, i.green_pos = 8, i.blue_pos = 0, i.rsvd_pos = 24;
    return i;
  };
  struct Case {
    const char* what;
    void (*change)(ScreenInfo&);
    uint32_t code;
  };
  const Case cases[] = {
      {"valid", [](ScreenInfo&) {}, 0},
      {"depth 0", [](ScreenInfo& i) { i.lfb_depth = 0; }, kInvalid},
      {"no address", [](ScreenInfo& i) { i.lfb_base = 0; }, kInvalid},
      {"high address only", [](ScreenInfo& i) { i.lfb_base = 0; i.capabilities = 2; i.ext_lfb_base = 1; }, 0},
      {"depth 31", [](ScreenInfo& i) { i.lfb_depth = 31; i.rsvd_size = 7; }, kUnsupported},
      {"no green", [](ScreenInfo& i) { i.green_size = 0; i.rsvd_size = 16; }, kInvalid},
      {"sizes short of the depth", [](ScreenInfo& i) { i.rsvd_size = 0; }, kInvalid},
      {"24 bits without reserved", [](ScreenInfo& i) { i.lfb_depth = 24; i.rsvd_size = 0; }, 0},
      {"blue past the depth", [](ScreenInfo& i) { i.blue_pos = 28; }, kInvalid},
      {"reserved past the depth", [](ScreenInfo& i) { i.rsvd_pos = 30; }, kInvalid},
      {"overlap", [](ScreenInfo& i) { i.blue_pos = 4; }, kInvalid},
      {"depth 72", [](ScreenInfo& i) { i.lfb_depth = 72; i.rsvd_size = 48; }, kUnsupported},
      {"64 bits", [](ScreenInfo& i) { i.lfb_depth = 64; i.rsvd_size = 40; }, 0},
      {"one field of 64 bits overlaps", [](ScreenInfo& i) {
         i.lfb_depth = 64; i.red_size = 56; i.red_pos = 8; i.green_size = 1; i.green_pos = 9;
         i.blue_size = 7; i.blue_pos = 0; i.rsvd_size = 0; }, kInvalid},
  };
  for (const Case& c : cases) {
    ScreenInfo i = base();
    c.change(i);
    EXPECT_EQ(ThrownCode([&] { ValidateColorSettings(i); }), c.code) << c.what;
  }
}

// ---------------------------------------------------------------- UGA and PCI

class HiddenFrameBuffer : public LinuxTest {
 protected:
  HiddenFrameBuffer() {
    video.hasGop = false;
    video.hasUga = true;
    video.uga.supported = {{1024, 768, 32}, {800, 600, 32}, {800, 600, 24}};
    video.uga.mode = {640, 480, 32};
    video.uga.fb.address = 0xD0000000;
    video.uga.extraStride = 64;
    SimRootBridge& bridge = pci.Add();
    bridge.descriptors = SimRootBridge::BusRange(0, 0);
    for (uint8_t b : SimRootBridge::EndTag()) bridge.descriptors.push_back(b);
    // A network card with prefetchable memory, a display with I/O and
    // plain memory BARs, then its frame buffer.
    bridge.AddFunction(0, 2, 0, 0x8086, 0x02, false, {0xD0000008, 0, 0, 0, 0, 0});
    bridge.AddFunction(0, 3, 0, 0x1234, 0x03, false, {0xC001, 0xE0000000, 0x0, 0xD0000008, 0, 0});
  }
  bool Setup(const VideoRequest& request, ScreenInfo& out) {
    uint8_t block[64] = {};
    const bool ok = SetupVideo(block, request);
    std::memcpy(&out, block, sizeof out);
    return ok;
  }
};

TEST_F(HiddenFrameBuffer, FoundByTheTestLineAndMeasured) {
  ScreenInfo i;
  ASSERT_TRUE(Setup({}, i)) << fw.ConsoleUtf8();
  EXPECT_EQ(i.lfb_width, 1024);
  EXPECT_EQ(i.lfb_height, 768);
  EXPECT_EQ(i.lfb_depth, 32);
  EXPECT_EQ(i.lfb_base, 0xD0000000u);
  EXPECT_EQ(i.red_pos, 16);
  EXPECT_EQ(i.green_pos, 8);
  EXPECT_EQ(i.blue_pos, 0);
  EXPECT_EQ(i.rsvd_size, 8);
  EXPECT_EQ(i.lfb_linelength, (1024 + 64) * 4) << "measured from the screen";
  EXPECT_EQ(i.lfb_size, 768u * (1024 + 64) * 4);
  EXPECT_EQ(i.orig_video_isVGA, 0x70);
  EXPECT_EQ(i.ext_mem_k, 0x8000);
  EXPECT_EQ(video.uga.setModeCalls.size(), 1u);
}

TEST_F(HiddenFrameBuffer, TwentyFourBitLayouts) {
  video.uga.supported = {{800, 600, 24}};
  for (bool redFirst : {false, true}) {
    video.uga.fb.redFirst = redFirst;
    video.uga.mode = {640, 480, 32};
    ScreenInfo i;
    ASSERT_TRUE(Setup({}, i)) << fw.ConsoleUtf8();
    EXPECT_EQ(i.lfb_depth, 24);
    EXPECT_EQ(i.red_pos, redFirst ? 0 : 16);
    EXPECT_EQ(i.blue_pos, redFirst ? 16 : 0);
    EXPECT_EQ(i.rsvd_size, 0);
    EXPECT_EQ(i.lfb_linelength, (800 + 64) * 3);
  }
  // The fallbacks are tried only when the request is as large.
  video.uga.mode = {640, 480, 32};
  video.uga.setModeCalls.clear();
  ScreenInfo i;
  EXPECT_FALSE(Setup(GetVideoRequest("vga=0x303"), i));
  EXPECT_EQ(video.uga.setModeCalls.size(), 1u);
}

TEST_F(HiddenFrameBuffer, ModeTheFirmwareAlreadyHasIsKept) {
  video.uga.supported = {{800, 600, 32}};
  video.uga.SetMode(800, 600, 32, 60);
  video.uga.setModeCalls.clear();
  ScreenInfo i;
  ASSERT_TRUE(Setup({}, i));
  EXPECT_TRUE(video.uga.setModeCalls.empty());
  EXPECT_EQ(i.lfb_width, 800);
}

TEST_F(HiddenFrameBuffer, SixtyFourBitBarAboveFourGiB) {
  video.uga.fb.address = 0x4000000000ull;
  pci.bridges[0]->AddFunction(0, 3, 0, 0x1234, 0x03, false, {0x0000000C, 0x40, 0, 0, 0, 0});
  ScreenInfo i;
  ASSERT_TRUE(Setup({}, i)) << fw.ConsoleUtf8();
  EXPECT_EQ(i.lfb_base, 0u);
  EXPECT_EQ(+i.ext_lfb_base, 0x40u);
  EXPECT_EQ(+i.capabilities & 2u, 2u);

  // A 64-bit sixth BAR has no high half: the walk of the function ends.
  pci.bridges[0]->AddFunction(0, 3, 0, 0x1234, 0x03, false, {0, 0, 0, 0, 0, 0x0000000C});
  EXPECT_FALSE(Setup({}, i));
}

TEST_F(HiddenFrameBuffer, NothingFoundInPciMemory) {
  pci.bridges[0]->functions.clear();
  ScreenInfo i;
  EXPECT_FALSE(Setup({}, i));
  // GOP failed first, so its error is the one shown.
  EXPECT_NE(fw.ConsoleUtf8().find("Video mode setup error: Error 0x1480004"), std::string::npos)
      << fw.ConsoleUtf8();

  video.hasGop = true;
  video.gop.fb.address = 0;  // GOP: no linear frame buffer
  pci.bridges[0]->AddFunction(0, 3, 0, 0x1234, 0x03, false, {0xE0000008, 0, 0, 0, 0, 0});
  fw.console.clear();
  EXPECT_FALSE(Setup({}, i));
  const std::string out = fw.ConsoleUtf8();
  EXPECT_EQ(out.rfind("Video mode setup error: Error 0x1480005: The current video mode does not "
                      "support the linear framebuffer.", 0), 0u) << out;
  EXPECT_NE(out.find("\nKernel console may work incorreclty.\n"), std::string::npos) << out;
}

TEST_F(HiddenFrameBuffer, DrawnLineThatShowsNowhereIsAnUnsupportedFormat) {
  video.uga.fb.address = 0xD8000000;  // not where the BAR points
  EfiVideoUga uga;
  ScreenInfo i{};
  uga.SelectBestMode(i, {});
  EXPECT_EQ(i.lfb_base, 0u);
  EXPECT_EQ(ThrownCode([&] { PciDetectFbBegin(uga, i); }), 0x1480007u);
  EXPECT_GT(video.memoryReads, 0u);

  // A line of no pixels holds no test colour in any form.
  video.uga.fb.address = 0xD0000000;
  ScreenInfo empty{};
  empty.lfb_height = 768;
  EXPECT_EQ(ThrownCode([&] { PciDetectFbBegin(uga, empty); }), 0x1480007u);
}

TEST_F(VideoTest, BothObjectsFailingLeavesTheBlockZeroAfterTenSeconds) {
  video.hasGop = false;
  uint8_t block[0x40];
  std::memset(block, 0xAB, sizeof block);
  EXPECT_FALSE(SetupVideo(block, {}));
  for (uint8_t b : block) ASSERT_EQ(b, 0);
  EXPECT_EQ(fw.stalled100ns, 100000000u);
}

TEST_F(VideoTest, MeasuredLineLengthOrTheFirmwaresWhenDrawingFails) {
  video.gop.modes[2] = {1024, 768, kPixelBgrReserved8, 1100};
  uint8_t block[0x40] = {};
  ASSERT_TRUE(SetupVideo(block, {}));
  ScreenInfo i;
  std::memcpy(&i, block, sizeof i);
  EXPECT_EQ(i.lfb_linelength, 4400);
  EXPECT_EQ(i.lfb_size, 768u * 4400);

  // Blt fails: the firmware's own line length stands.
  video.gop.fillFails = true;
  video.gop.modes[2].PixelsPerScanLine = 1056;
  video.gop.Start(0);
  std::memset(block, 0, sizeof block);
  ASSERT_TRUE(SetupVideo(block, {}));
  std::memcpy(&i, block, sizeof i);
  EXPECT_EQ(i.lfb_linelength, 4224);
}

TEST_F(VideoTest, LineLengthEdgeCases) {
  EfiVideoGop gop;
  ScreenInfo i = Select();
  // A single row needs no search.
  video.gop.modes.push_back({1024, 1, kPixelBgrReserved8, 1030});
  video.gop.Start(5);
  ScreenInfo flat{};
  ConvertGopMode(video.gop.modes[5], video.gop.fb.address, 4120, flat);
  DetectLineLength(gop, flat);
  EXPECT_EQ(flat.lfb_linelength, 4096);
  // The drawn column shows nowhere: invalid.
  video.gop.Start(2);
  i.lfb_base = 0xF0000000;
  EXPECT_EQ(ThrownCode([&] { DetectLineLength(gop, i); }), 0x1480006u);
  // Wider than any stride searched.
  video.gop.modes.push_back({4200, 4, kPixelBgrReserved8, 4200});
  video.gop.Start(6);
  ScreenInfo wide{};
  ConvertGopMode(video.gop.modes[6], video.gop.fb.address, 0, wide);
  EXPECT_EQ(ThrownCode([&] { DetectLineLength(gop, wide); }), 0x1480006u);
}

}  // namespace
