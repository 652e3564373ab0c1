// A simulated machine for loader tests: a temporary directory as the
// loader's volume (and another as the TFTP server), the simulated firmware
// installed for the test's lifetime.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "efi/file.h"
#include "efi/host_only/sim_firmware.h"
#include "efi/menu.h"

namespace loader_test {

class TempDir {
 public:
  TempDir() {
    char tmpl[] = "/tmp/loader-test-XXXXXX";
    path_ = mkdtemp(tmpl);
  }
  ~TempDir() {
    std::string cmd = "rm -rf '" + path_ + "'";
    if (system(cmd.c_str()) != 0) ADD_FAILURE() << "cannot remove " << path_;
  }
  const std::string& path() const { return path_; }

  void Write(const std::string& rel, const std::string& contents) const {
    std::string full = path_ + "/" + rel;
    for (size_t p = full.find('/', path_.size() + 1); p != std::string::npos;
         p = full.find('/', p + 1))
      mkdir(full.substr(0, p).c_str(), 0755);
    std::ofstream(full, std::ios::binary) << contents;
  }
  std::string Read(const std::string& rel) const {
    std::ifstream in(path_ + "/" + rel, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
  }
  bool Exists(const std::string& rel) const {
    struct stat st;
    return stat((path_ + "/" + rel).c_str(), &st) == 0;
  }

 private:
  std::string path_;
};

class SimTest : public ::testing::Test {
 protected:
  SimTest() : scoped_(fw) {
    fw.diskRoot = disk.path();
    fw.tftpRoot = tftp.path();
    fw.loaderFilePath = EfiLoader::Sim::SimFirmware::FilePathOf({u"\\EFI\\BOOT\\BOOTX64.EFI"});
    EfiLoader::ResetSelfPath();
    EfiLoader::ResetMenuState();
  }
  ~SimTest() override {
    EfiLoader::ResetSelfPath();
    EfiLoader::ResetMenuState();
  }

  // A DHCP acknowledgement with the magic, `siaddr` and these options.
  static std::vector<uint8_t> DhcpPacket(const std::vector<uint8_t>& options,
                                         const uint8_t siaddr[4] = nullptr) {
    std::vector<uint8_t> p(240, 0);
    p[0] = 2;  // BOOTREPLY
    if (siaddr) std::copy(siaddr, siaddr + 4, p.begin() + 20);
    p[236] = 99, p[237] = 130, p[238] = 83, p[239] = 99;
    p.insert(p.end(), options.begin(), options.end());
    p.push_back(255);
    return p;
  }

  TempDir disk, tftp;
  EfiLoader::Sim::SimFirmware fw;

 private:
  EfiLoader::Sim::ScopedFirmware scoped_;
};

}  // namespace loader_test
