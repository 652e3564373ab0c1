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
#include "test_util.h"

namespace loader_test {

using test_util::TempDir;

class SimTest : public ::testing::Test {
 protected:
  SimTest() : scoped_(fw) {
    fw.diskRoot = disk.Path();
    fw.tftpRoot = tftp.Path();
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
