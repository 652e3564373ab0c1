#include "efi/host_only/sim_video.h"

#include <cstring>

namespace EfiLoader::Sim {

void SimFrameBuffer::Resize(uint32_t w, uint32_t h, uint32_t pixelsPerLine) {
  width = w;
  height = h;
  stride = pixelsPerLine;
  bytes.assign(static_cast<size_t>(stride) * height * bytesPerPixel, 0x5A);
}

void SimFrameBuffer::Fill(uint32_t x, uint32_t y, uint32_t w, uint32_t h, uint8_t r, uint8_t g,
                          uint8_t b) {
  for (uint32_t row = y; row < y + h; ++row) {
    for (uint32_t col = x; col < x + w; ++col) {
      uint8_t* p = bytes.data() + (static_cast<size_t>(row) * stride + col) * bytesPerPixel;
      p[0] = redFirst ? r : b;
      p[1] = g;
      p[2] = redFirst ? b : r;
      if (bytesPerPixel == 4) p[3] = 0;
    }
  }
}

// ---------------------------------------------------------------- GOP

void SimGop::Start(uint32_t mode) {
  current = mode;
  const GopModeInfo& m = modes.at(mode);
  fb.address = mode < modeBases.size() ? modeBases[mode] : base;
  fb.bytesPerPixel = 4;
  fb.redFirst = m.PixelFormat == kPixelRgbReserved8;
  fb.Resize(m.HorizontalResolution, m.VerticalResolution, m.PixelsPerScanLine);
}

bool SimGop::CurrentInfo(GopModeInfo& info) {
  if (currentInfoNull || current >= modes.size()) return false;
  info = modes[current];
  return true;
}

uint64_t SimGop::FrameBufferSize() {
  return sizeOverride != ~0ull ? sizeOverride : fb.bytes.size();
}

EfiStatus SimGop::QueryMode(uint32_t mode, GopModeInfo& info, bool& present) {
  present = false;
  if (mode >= modes.size() || queryFails.count(mode)) return Status::InvalidParameter;
  if (emptyRecords.count(mode)) return Status::Success;
  info = modes[mode];
  present = true;
  return Status::Success;
}

EfiStatus SimGop::SetMode(uint32_t mode) {
  setModeCalls.push_back(mode);
  if (mode >= modes.size() || setModeFails.count(mode)) return Status::Unsupported;
  Start(mode);
  return Status::Success;
}

EfiStatus SimGop::Fill(uint32_t x, uint32_t y, uint32_t width, uint32_t height, uint8_t red,
                       uint8_t green, uint8_t blue, uint8_t) {
  if (fillFails) return Status::DeviceError;
  if (x + width > fb.width || y + height > fb.height) return Status::InvalidParameter;
  fb.Fill(x, y, width, height, red, green, blue);
  return Status::Success;
}

// ---------------------------------------------------------------- UGA

EfiStatus SimUga::GetMode(uint32_t& width, uint32_t& height, uint32_t& depth, uint32_t& rate) {
  if (getModeFails) return Status::DeviceError;
  width = mode.width;
  height = mode.height;
  depth = mode.depth;
  rate = refresh;
  return Status::Success;
}

EfiStatus SimUga::SetMode(uint32_t width, uint32_t height, uint32_t depth, uint32_t rate) {
  setModeCalls.push_back({width, height, depth});
  for (const UgaMode& m : supported) {
    if (m.width == width && m.height == height && m.depth == depth) {
      mode = m;
      refresh = rate;
      fb.bytesPerPixel = depth == 24 ? 3 : 4;
      fb.Resize(width, height, width + extraStride);
      return Status::Success;
    }
  }
  return Status::Unsupported;
}

EfiStatus SimUga::Fill(uint32_t x, uint32_t y, uint32_t width, uint32_t height, uint8_t red,
                       uint8_t green, uint8_t blue, uint8_t) {
  if (fillFails) return Status::DeviceError;
  if (x + width > fb.width || y + height > fb.height) return Status::InvalidParameter;
  fb.Fill(x, y, width, height, red, green, blue);
  return Status::Success;
}

// ---------------------------------------------------------------- video

EfiStatus SimVideo::ActiveEdid(uint32_t& size, const uint8_t*& data) {
  ++edidLocates;
  if (edid.empty()) return Status::NotFound;
  size = edidSizeOverride != ~0u ? edidSizeOverride : static_cast<uint32_t>(edid.size());
  data = edidNullPointer ? nullptr : edid.data();
  return Status::Success;
}

void SimVideo::ReadMemory(uint64_t address, void* buffer, uint64_t size) {
  ++memoryReads;
  auto* out = static_cast<uint8_t*>(buffer);
  for (uint64_t i = 0; i < size; ++i) {
    const uint64_t at = address + i;
    const SimFrameBuffer* fb = gop.fb.Contains(at) ? &gop.fb : uga.fb.Contains(at) ? &uga.fb : nullptr;
    out[i] = fb ? fb->bytes[at - fb->address] : 0xFF;
  }
}

std::vector<uint8_t> BlankEdid() {
  std::vector<uint8_t> e(128, 0);
  static constexpr uint8_t kHeader[8] = {0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x00};
  std::memcpy(e.data(), kHeader, 8);
  e[18] = 1;  // version 1.3
  e[19] = 3;
  for (int i = 0; i < 8; ++i) e[0x26 + 2 * i] = e[0x27 + 2 * i] = 0x01;  // unused standard timings
  FixEdidChecksum(e);
  return e;
}

void FixEdidChecksum(std::vector<uint8_t>& edid) {
  uint8_t sum = 0;
  for (int i = 0; i < 127; ++i) sum = static_cast<uint8_t>(sum + edid[i]);
  edid[127] = static_cast<uint8_t>(0x100 - sum);
}

}  // namespace EfiLoader::Sim
