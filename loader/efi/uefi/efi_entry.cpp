// The program the start-up code runs, for now: the banner, then a check
// that exceptions travel through this image as they do on the host.
#include <cstdio>
#include <string>

#include "common/error.h"

int main(int, char**) {
  printf("Starting x64 UEFI loader (v.%d.%d.%d)...", 1, 1, 236);
  printf("\n");
  try {
    throw Common::Error(ERROR_HERE, 0x1480001, u"exception check");
  } catch (const Common::Error& error) {
    std::u16string text = Common::ErrorText(error);
    printf("Caught error 0x%X: %ls\n", error.Code(), text.c_str());
  }
  return 1;
}
