// A simulated firmware for host tests: console with scripted keys and a
// simulated clock, variables, a file system backed by a host directory, a
// PXE server backed by another, and image loading that records what ran.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "efi/platform.h"

namespace EfiLoader::Sim {

struct ScriptedKey {
  uint64_t at100ns;  // when the key arrives, on the simulated clock
  InputKey key;
};

struct Variable {
  uint32_t attributes;
  std::vector<uint8_t> data;
};

struct StartedImage {
  std::vector<uint8_t> devicePath;
  std::vector<uint8_t> contents;
  EfiHandle device;
};

class SimFirmware : public Firmware {
 public:
  SimFirmware();
  ~SimFirmware() override;

  // ---- configuration of the simulated machine
  uint32_t revision = 0x20046;
  std::string diskRoot;            // host directory behind the loader's volume
  bool hasFileSystem = true;       // the loader's device offers a file system
  bool hasLoadFile = false;        // ... and a load-file service over diskRoot
  // Unless Success, what the load-file service answers to every request:
  // a network card's serves its boot file and nothing else.
  EfiStatus loadFileRefusal = Status::Success;
  std::string tftpRoot;            // host directory behind the PXE server
  bool hasPxe = false;
  bool pxeIpv6 = false;
  std::vector<uint8_t> dhcpAck;    // packets of the PXE mode data
  std::vector<uint8_t> proxyOffer;
  std::vector<uint8_t> pxeReply;
  std::vector<uint8_t> loaderFilePath;  // device path bytes of the loaded image
  bool consoleInput = true;
  uint64_t columns = 80, rows = 25;
  bool modeRecord = true;          // the console output has a mode record
  std::deque<ScriptedKey> keys;
  std::map<std::pair<std::u16string, std::string>, Variable> variables;
  // What StartImage returns; a callback may act as the started program.
  EfiStatus startImageStatus = Status::Success;
  std::function<void(const StartedImage&)> onStartImage;

  // ---- what the run did
  std::u16string console;          // everything written to the console
  uint64_t now100ns = 0;           // the simulated clock
  uint64_t stalled100ns = 0;       // time spent in Stall
  bool waitedForever = false;      // a wait had nothing that could end it
  int conInResets = 0;
  int openEvents = 0;              // timer events not closed
  std::vector<StartedImage> started;
  uint64_t watchdogSeconds = ~0ull;
  std::vector<ResetType> resets;

  // Helpers for tests.
  void TypeKeys(const std::u16string& text, uint64_t at100ns = 0);
  void TypeScan(uint16_t scanCode, uint64_t at100ns = 0);
  static std::vector<uint8_t> FilePathOf(const std::vector<std::u16string>& nodes);
  std::string ConsoleUtf8() const;

  // ---- Firmware
  uint32_t SystemTableRevision() override { return revision; }
  EfiHandle ImageHandle() override { return &imageHandle_; }
  void OutputString(const std::u16string& text) override { console += text; }
  bool QueryMode(uint64_t& c, uint64_t& r) override {
    c = columns;
    r = rows;
    return true;
  }
  void SetCursorPosition(uint64_t column, uint64_t row) override;
  void CursorPosition(int32_t& column, int32_t& row) override;
  void EnableCursor(bool visible) override { cursorVisible_ = visible; }
  bool CursorState(int32_t& row, bool& visible) override {
    row = cursorRow_;
    visible = cursorVisible_;
    return modeRecord;
  }
  bool CursorVisible() const { return cursorVisible_; }
  bool HasConsoleInput() override { return consoleInput; }
  EfiStatus ConInReset(bool) override;
  EfiStatus ReadKeyStroke(InputKey& key) override;
  EfiEvent WaitForKeyEvent() override { return &keyEvent_; }
  EfiStatus CreateTimerEvent(EfiEvent& event) override;
  EfiStatus SetTimerRelative(EfiEvent event, uint64_t trigger100ns) override;
  EfiStatus WaitForEvent(const EfiEvent* events, uint64_t count, uint64_t& index) override;
  EfiStatus CloseEvent(EfiEvent event) override;
  void Stall(uint64_t microseconds) override;
  void SetWatchdogTimer(uint64_t seconds) override { watchdogSeconds = seconds; }
  void ResetSystem(ResetType type) override { resets.push_back(type); }

  EfiStatus GetVariable(const std::u16string& name, const Common::GUID& vendor,
                        uint32_t* attributes, std::vector<uint8_t>& data) override;
  EfiStatus SetVariable(const std::u16string& name, const Common::GUID& vendor,
                        uint32_t attributes, const void* data, uint64_t size) override;
  EfiStatus GetNextVariableName(std::u16string& name, Common::GUID& vendor) override;

  EfiHandle LoaderDeviceHandle() override { return &deviceHandle_; }
  std::vector<uint8_t> LoaderFilePath() override { return loaderFilePath; }
  std::unique_ptr<FirmwarePxe> OpenPxe(EfiHandle device) override;
  EfiStatus OpenVolume(EfiHandle device, std::unique_ptr<FirmwareFile>& root) override;
  bool HasLoadFile(EfiHandle device) override;
  EfiStatus LoadFile(EfiHandle device, const std::vector<uint8_t>& devicePath, void* buffer,
                     uint64_t& size) override;
  EfiStatus LoadImage(const std::vector<uint8_t>& devicePath, const void* buffer, uint64_t size,
                      EfiHandle& image) override;
  EfiStatus SetImageDevice(EfiHandle image, EfiHandle device) override;
  EfiStatus StartImage(EfiHandle image) override;

  // Further faces: a test installs the simulated ones it needs.
  FirmwareMemory* memory = nullptr;
  FirmwareVideo* video = nullptr;
  FirmwarePci* pci = nullptr;
  FirmwareBlocks* blocks = nullptr;
  FirmwareMemory* Memory() override { return memory; }
  FirmwareVideo* Video() override { return video; }
  FirmwarePci* Pci() override { return pci; }
  FirmwareBlocks* Blocks() override { return blocks; }

  // Variable key: name and GUID text.
  static std::pair<std::u16string, std::string> Key(const std::u16string& name,
                                                    const Common::GUID& vendor);
  // Resolves a firmware path below `root` case-insensitively, as FAT does.
  static bool Resolve(const std::string& root, const std::u16string& path, std::string& host,
                      bool lastMayBeMissing);

 private:
  struct Timer {
    bool armed = false;
    uint64_t deadline = 0;
  };
  int imageHandle_ = 0, deviceHandle_ = 0, keyEvent_ = 0;
  std::map<EfiEvent, Timer> timers_;
  std::vector<std::unique_ptr<int>> timerStorage_;
  std::vector<StartedImage> loaded_;
  int32_t cursorColumn_ = 0, cursorRow_ = 0;
  bool cursorVisible_ = true;
};

// Installs a simulated firmware for the lifetime of the object.
class ScopedFirmware {
 public:
  explicit ScopedFirmware(Firmware& fw);
  ~ScopedFirmware();
};

}  // namespace EfiLoader::Sim
