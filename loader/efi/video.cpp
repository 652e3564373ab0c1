#include "efi/video.h"

#include <cstring>
#include <memory>
#include <set>
#include <vector>

#include "common/error_codes.h"
#include "efi/console.h"
#include "efi/pci.h"
#include "efi/platform.h"
#include "efi/platform_video.h"

namespace EfiLoader {

using Common::Error;
using namespace Common::Codes;

void SetFrameBufferAddress(ScreenInfo& info, uint64_t address) {
  info.lfb_base = static_cast<uint32_t>(address);
  if (address >> 32) {
    info.capabilities |= kVideoCapability64BitBase;
    info.ext_lfb_base = static_cast<uint32_t>(address >> 32);
  }
}

uint64_t FrameBufferAddress(const ScreenInfo& info) {
  uint64_t address = info.lfb_base;
  if (info.capabilities & kVideoCapability64BitBase)
    address |= static_cast<uint64_t>(info.ext_lfb_base) << 32;
  return address;
}

// ---------------------------------------------------------------- request

namespace {

struct VgaMode {
  uint32_t number, width, height, depth;
};
constexpr VgaMode kVgaModes[] = {
    {0x301, 640, 480, 8},    {0x303, 800, 600, 8},    {0x305, 1024, 768, 8},
    {0x307, 1280, 1024, 8},  {0x310, 640, 480, 16},   {0x311, 640, 480, 16},
    {0x312, 640, 480, 32},   {0x313, 800, 600, 16},   {0x314, 800, 600, 16},
    {0x315, 800, 600, 32},   {0x316, 1024, 768, 16},  {0x317, 1024, 768, 16},
    {0x318, 1024, 768, 32},  {0x319, 1280, 1024, 16}, {0x31A, 1280, 1024, 16},
    {0x31B, 1280, 1024, 32},
};

int DigitValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'z') return c - 'a' + 10;
  if (c >= 'A' && c <= 'Z') return c - 'A' + 10;
  return 99;
}

bool IsSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v'; }

// The number at `text` by the rules of strtoul with base 0: leading white
// space, a sign, "0x" for hexadecimal, a leading 0 for octal; saturating.
uint64_t ParseUnsigned(const char* text, const char* end) {
  const char* p = text;
  while (p < end && IsSpace(*p)) ++p;
  bool negative = false;
  if (p < end && (*p == '+' || *p == '-')) negative = *p++ == '-';
  int base = 10;
  if (p < end && *p == '0') {
    base = 8;
    if (p + 2 < end && (p[1] == 'x' || p[1] == 'X') && DigitValue(p[2]) < 16) {
      base = 16;
      p += 2;
    }
  }
  uint64_t value = 0;
  bool overflow = false;
  for (; p < end && DigitValue(*p) < base; ++p) {
    const uint64_t digit = static_cast<uint64_t>(DigitValue(*p));
    if (value > (UINT64_MAX - digit) / base) overflow = true;
    value = value * base + digit;
  }
  if (overflow) return UINT64_MAX;
  return negative ? 0 - value : value;
}

}  // namespace

VideoRequest GetVideoRequest(const std::string& commandLine) {
  static constexpr char kWord[] = "vga=";
  const char* const text = commandLine.c_str();
  const char* const end = text + commandLine.size();
  bool found = false;
  uint64_t number = 0;
  for (size_t at = commandLine.find(kWord); at != std::string::npos;
       at = commandLine.find(kWord, at + 1)) {
    if (at != 0 && text[at - 1] != ' ' && text[at - 1] != '\t') continue;
    found = true;
    number = ParseUnsigned(text + at + 4, end);
  }
  VideoRequest request;
  if (!found) return request;
  for (const VgaMode& m : kVgaModes) {
    if (m.number == number) {
      request.width = m.width;
      request.height = m.height;
      request.depth = m.depth;
    }
  }
  return request;
}

// ---------------------------------------------------------------- EDID

namespace {
bool g_edidFetched = false;
bool g_edidPresent = false;
Edid g_edid;
}  // namespace

void ResetEdidCache() {
  g_edidFetched = false;
  g_edidPresent = false;
}

bool IsValidEdid(const uint8_t* block, uint32_t size) {
  static constexpr uint8_t kHeader[8] = {0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x00};
  if (!block || size < 128) return false;
  uint8_t sum = 0;
  for (int i = 0; i < 128; ++i) sum = static_cast<uint8_t>(sum + block[i]);
  return sum == 0 && std::memcmp(block, kHeader, sizeof kHeader) == 0 && block[18] == 1 &&
         block[19] != 0;
}

const Edid* GetEdid() {
  if (!g_edidFetched) {
    g_edidFetched = true;
    g_edidPresent = false;
    uint32_t size = 0;
    const uint8_t* data = nullptr;
    FirmwareVideo* video = Fw().Video();
    if (video && !EfiFailed(video->ActiveEdid(size, data)) && IsValidEdid(data, size)) {
      std::memcpy(g_edid.bytes, data, sizeof g_edid.bytes);
      g_edidPresent = true;
    }
  }
  return g_edidPresent ? &g_edid : nullptr;
}

bool GetMonitorLimits(const Edid* edid, MonitorLimits& limits) {
  limits = MonitorLimits{};
  if (!edid) return false;
  const uint8_t* e = edid->bytes;
  if ((e[0x18] & 0x02) && (e[0x36] | e[0x37]) != 0) {
    limits.preferredWidth = e[0x38] | (e[0x3A] >> 4) << 8;
    limits.preferredHeight = e[0x3B] | (e[0x3D] >> 4) << 8;
  }
  for (int i = 0; i < 4; ++i) {
    const uint8_t* d = e + 0x36 + i * 18;
    if (d[0] == 0 && d[1] == 0 && d[2] == 0 && d[3] == 0xFD) {
      limits.minVertical = d[5];
      limits.maxVertical = d[6];
      limits.minHorizontal = d[7];
      limits.maxHorizontal = d[8];
      limits.maxPixelClock = d[9] * 10u;
      break;
    }
  }
  return true;
}

uint8_t FindRefreshRate(const MonitorLimits& limits, uint32_t width, uint32_t height) {
  const int64_t low = limits.minVertical, high = limits.maxVertical;
  if (low == 0 || low > high) return 0;
  for (int64_t r = high; r >= low; --r) {
    const int64_t h = r * (static_cast<int64_t>(height) + 1) * 1000000 / (1000000 - 550 * r);
    const uint8_t horizontal = static_cast<uint8_t>(h / 1000 + (h % 1000 >= 500 ? 1 : 0));
    if (horizontal < limits.minHorizontal || horizontal > limits.maxHorizontal) continue;
    const int64_t d = 30000 - 300000 / r;
    const int64_t blank = static_cast<uint16_t>(d * static_cast<int64_t>(width) / (100000 - d));
    const int64_t c = (blank + width) * r;
    const uint16_t clock = static_cast<uint16_t>(c / 1000 + (c % 1000 >= 500 ? 1 : 0));
    if (clock <= limits.maxPixelClock) return static_cast<uint8_t>(r);
  }
  return 0;
}

namespace {

struct EstablishedTiming {
  uint16_t width, height;
  uint8_t rate;
};
constexpr EstablishedTiming kEstablished[16] = {
    {800, 600, 60},   {800, 600, 56},   {640, 480, 75},  {640, 480, 72},
    {640, 480, 67},   {640, 480, 60},   {720, 400, 88},  {720, 400, 70},
    {1280, 1024, 75}, {1024, 768, 75},  {1024, 768, 70}, {1024, 768, 60},
    {1024, 768, 0},   {832, 624, 75},   {800, 600, 75},  {800, 600, 72},
};

// Aspect ratios of the standard timings, by bits 15 and 14.
constexpr uint32_t kAspect[4][2] = {{16, 10}, {4, 3}, {5, 4}, {16, 9}};

bool IsFourToThree(uint32_t width, uint32_t height) {
  return static_cast<uint64_t>(width) * 3 == static_cast<uint64_t>(height) * 4;
}

}  // namespace

bool MonitorAccepts(const Edid* edid, VideoMode& mode) {
  const uint32_t width = mode.info.lfb_width, height = mode.info.lfb_height;
  if (!edid) return IsFourToThree(width, height);
  const uint8_t* e = edid->bytes;

  uint8_t refresh = 0;
  for (int i = 0; i < 8; ++i) {
    const uint16_t value = static_cast<uint16_t>(e[0x26 + 2 * i] | e[0x27 + 2 * i] << 8);
    if (value == 0x0000 || value == 0x0101 || value == 0x2020) continue;
    const uint32_t w = (value & 0xFF) * 8u + 248;
    const uint32_t* aspect = kAspect[value >> 14];
    const uint32_t h = w * aspect[1] / aspect[0];
    const uint8_t rate = static_cast<uint8_t>(((value >> 8) & 0x3F) + 60);
    if (w == width && h == height && rate > refresh) refresh = rate;
  }
  const uint16_t established = static_cast<uint16_t>(e[0x23] | e[0x24] << 8);
  for (int bit = 0; bit < 16; ++bit) {
    if (!(established & (1u << bit))) continue;
    const EstablishedTiming& t = kEstablished[bit];
    if (t.width == width && t.height == height && t.rate > refresh) refresh = t.rate;
  }
  mode.refresh = refresh;

  for (int i = 0; i < 4; ++i) {
    const uint8_t* d = e + 0x36 + i * 18;
    if ((d[0] | d[1]) == 0) continue;
    const uint32_t w = d[2] | (d[4] >> 4) << 8;
    const uint32_t h = d[5] | (d[7] >> 4) << 8;
    if (w == width && h == height) {
      if (i == 0) mode.preferred = 1;
      return true;
    }
  }
  if (refresh != 0) return true;

  MonitorLimits limits;
  GetMonitorLimits(edid, limits);
  if (limits.preferredWidth != 0 || limits.preferredHeight != 0)
    return width <= limits.preferredWidth && height <= limits.preferredHeight;
  if (limits.minHorizontal == 0) return IsFourToThree(width, height);
  mode.refresh = FindRefreshRate(limits, width, height);
  return mode.refresh != 0;
}

bool ModeLess(const VideoMode& a, const VideoMode& b) {
  if (a.preferred != b.preferred) return a.preferred < b.preferred;
  if (a.info.lfb_width == b.info.lfb_width && a.info.lfb_height == b.info.lfb_height) {
    if (a.info.lfb_depth != b.info.lfb_depth) return a.info.lfb_depth < b.info.lfb_depth;
    return a.refresh < b.refresh;
  }
  return static_cast<uint32_t>(a.info.lfb_width) * a.info.lfb_height <
         static_cast<uint32_t>(b.info.lfb_width) * b.info.lfb_height;
}

// ---------------------------------------------------------------- frame buffer

namespace {

FirmwareVideo& VideoFace() {
  FirmwareVideo* video = Fw().Video();
  if (!video) THROW_ERROR(VideoModeDetectFailed);
  return *video;
}

uint64_t FieldMask(uint32_t size, uint32_t position) {
  if (size == 0) return 0;
  const uint64_t bits = size >= 64 ? ~0ull : (1ull << size) - 1;
  return position >= 64 ? 0 : bits << position;
}

// The first screen line in one of the four layouts the test colours can
// take; false if `line` shows none of them.
bool MatchTestLine(const uint8_t* line, uint32_t width, ScreenInfo& info) {
  if (width == 0) return false;  // an empty line matches every form
  const uint64_t groups = static_cast<uint64_t>(width) * 3 / 12;
  auto repeated = [&](uint8_t a, uint8_t b, uint8_t c) {
    if (groups == 0) return false;  // nothing to compare is no match
    for (uint64_t i = 0; i < groups * 12; i += 3)
      if (line[i] != a || line[i + 1] != b || line[i + 2] != c) return false;
    return true;
  };
  auto pixels = [&](uint32_t value) {
    for (uint32_t x = 0; x < width; ++x) {
      uint32_t pixel;
      std::memcpy(&pixel, line + 4ull * x, 4);
      if ((pixel & 0xFFFFFF) != value) return false;
    }
    return true;
  };
  struct Layout {
    uint16_t depth;
    uint8_t red, green, blue, rsvdSize;
  };
  Layout found;
  if (repeated(0x11, 0x12, 0x13))
    found = {24, 0, 8, 16, 0};
  else if (repeated(0x13, 0x12, 0x11))
    found = {24, 16, 8, 0, 0};
  else if (pixels(0x131211))
    found = {32, 0, 8, 16, 8};
  else if (pixels(0x111213))
    found = {32, 16, 8, 0, 8};
  else
    return false;
  info.lfb_depth = found.depth;
  info.red_pos = found.red;
  info.green_pos = found.green;
  info.blue_pos = found.blue;
  info.red_size = info.green_size = info.blue_size = 8;
  info.rsvd_size = found.rsvdSize;
  info.rsvd_pos = 24;
  return true;
}

}  // namespace

void PciDetectFbBegin(EfiVideo& video, ScreenInfo& info) {
  PciConfiguration pci;
  GetPciConfiguration(pci);
  std::set<uint64_t> addresses;
  for (const auto& [key, header] : pci) {
    if (header[0x0B] != 3) continue;  // display controllers only
    for (int bar = 0; bar < 6; ++bar) {
      uint32_t value;
      std::memcpy(&value, header.data() + 0x10 + 4 * bar, 4);
      if (value == 0 || (value & 1) || !(value & 8)) continue;
      uint64_t address = value & ~0xFull;
      if ((value & 6) == 4) {
        if (bar == 5) break;
        uint32_t high;
        std::memcpy(&high, header.data() + 0x10 + 4 * (bar + 1), 4);
        address |= static_cast<uint64_t>(high) << 32;
        ++bar;
      }
      addresses.insert(address);
    }
  }
  if (addresses.empty()) THROW_ERROR(VideoNoLinearFramebuffer);

  const uint32_t width = info.lfb_width, height = info.lfb_height;
  video.DrawRectangle(0, 0, width, height, 0, 0, 0, 0);
  video.DrawRectangle(0, 0, width, 1, 0x11, 0x12, 0x13, 0);

  FirmwareVideo& face = VideoFace();
  std::vector<uint8_t> line(4ull * width);
  for (uint64_t address : addresses) {
    face.ReadMemory(address, line.data(), line.size());
    ScreenInfo candidate = info;
    if (MatchTestLine(line.data(), width, candidate)) {
      candidate.lfb_base = 0;
      candidate.ext_lfb_base = 0;
      candidate.capabilities &= ~kVideoCapability64BitBase;
      SetFrameBufferAddress(candidate, address);
      info = candidate;
      return;
    }
  }
  THROW_ERROR(VideoUnsupportedPixelFormat);
}

void ValidateColorSettings(const ScreenInfo& info) {
  const uint32_t depth = info.lfb_depth;
  if (depth == 0) THROW_ERROR(VideoFramebufferInvalid);
  if (FrameBufferAddress(info) == 0) THROW_ERROR(VideoFramebufferInvalid);
  if (depth % 8 != 0) THROW_ERROR(VideoUnsupportedPixelFormat);
  if (info.red_size == 0 || info.green_size == 0 || info.blue_size == 0)
    THROW_ERROR(VideoFramebufferInvalid);
  if (static_cast<uint32_t>(info.red_size) + info.green_size + info.blue_size + info.rsvd_size != depth)
    THROW_ERROR(VideoFramebufferInvalid);
  const struct {
    uint32_t size, pos;
  } fields[4] = {{info.red_size, info.red_pos},
                 {info.green_size, info.green_pos},
                 {info.blue_size, info.blue_pos},
                 {info.rsvd_size, info.rsvd_pos}};
  for (int i = 0; i < 4; ++i) {
    if (i == 3 && fields[i].size == 0) break;
    if (fields[i].pos + fields[i].size > depth) THROW_ERROR(VideoFramebufferInvalid);
  }
  if (depth > 64) THROW_ERROR(VideoUnsupportedPixelFormat);
  uint64_t used = 0;
  for (const auto& f : fields) {
    const uint64_t bits = FieldMask(f.size, f.pos);
    if (used & bits) THROW_ERROR(VideoFramebufferInvalid);
    used |= bits;
  }
}

void DetectLineLength(EfiVideo& video, ScreenInfo& info) {
  FirmwareVideo& face = VideoFace();
  const uint64_t address = FrameBufferAddress(info);
  const uint64_t mask = FieldMask(info.red_size, info.red_pos) |
                        FieldMask(info.green_size, info.green_pos) |
                        FieldMask(info.blue_size, info.blue_pos);
  const uint32_t width = info.lfb_width, height = info.lfb_height;
  auto read = [&](uint64_t at) {
    uint64_t value = 0;
    face.ReadMemory(at, &value, sizeof value);
    return value & mask;
  };

  video.DrawRectangle(0, 0, width, height, 0, 0, 0, 0);
  const uint64_t black = read(address);
  video.DrawRectangle(0, 0, 1, height, 0x11, 0x12, 0x13, 0);
  const uint64_t marked = read(address);
  if (marked == black) THROW_ERROR(VideoFramebufferInvalid);

  const uint64_t bytesPerPixel = info.lfb_depth / 8;
  uint64_t found = 0;
  if (height < 2) {
    found = width;
  } else if (width <= 4096) {
    for (uint64_t p = width; p <= 4096 && !found; ++p) {
      bool fits = true;
      for (uint64_t row = 1; row < height && fits; ++row)
        fits = read(address + row * p * bytesPerPixel) == marked;
      if (fits) found = p;
    }
  }
  if (found == 0) THROW_ERROR(VideoFramebufferInvalid);
  info.lfb_linelength = static_cast<uint16_t>(found * bytesPerPixel);
}

// ---------------------------------------------------------------- setup

namespace {

void SetUpMode(EfiVideo& video, ScreenInfo& info, const VideoRequest& request) {
  video.SelectBestMode(info, request);
  if (FrameBufferAddress(info) == 0 || info.lfb_depth == 0 || info.red_size == 0 ||
      info.green_size == 0 || info.blue_size == 0)
    PciDetectFbBegin(video, info);
  ValidateColorSettings(info);
  const uint16_t remembered = info.lfb_linelength;
  try {
    DetectLineLength(video, info);
  } catch (const Error&) {
    if (remembered == 0) throw;
    info.lfb_linelength = remembered;
  }
  info.ext_mem_k = 0x8000;
  info.orig_video_isVGA = kVideoTypeEfi;
  info.lfb_size = static_cast<uint32_t>(info.lfb_height) * info.lfb_linelength;
}

}  // namespace

bool SetupVideo(uint8_t* screenInfo, const VideoRequest& request) {
  ScreenInfo info;
  std::memcpy(&info, screenInfo, sizeof info);
  std::unique_ptr<EfiVideo> objects[2] = {std::make_unique<EfiVideoGop>(),
                                          std::make_unique<EfiVideoUga>()};
  Error kept;
  for (auto& video : objects) {
    try {
      SetUpMode(*video, info, request);
      std::memcpy(screenInfo, &info, sizeof info);
      return true;
    } catch (const Error& e) {
      if (!kept.IsError()) kept = e;
    }
  }
  Print(u"Video mode setup error: " + Common::ErrorText(kept) +
        u"\nKernel console may work incorreclty.\n");
  Fw().Stall(10 * 1000 * 1000);
  std::memset(screenInfo, 0, sizeof info);
  return false;
}

}  // namespace EfiLoader
