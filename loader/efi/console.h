// Printing on the firmware console.
#pragma once

#include <string>

namespace EfiLoader {

void Print(const std::u16string& text);
void Print(const char* utf8);

}  // namespace EfiLoader
