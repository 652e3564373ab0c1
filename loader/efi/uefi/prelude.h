// Force-included into every translation unit of the firmware build.
//
// libstdc++ declares some of its templates `extern` because their
// instantiations live in libstdc++.so/.a.  The image links no libstdc++, so
// every template must be instantiated in our own objects.  c++config.h sets
// the switch unconditionally; it has an include guard, so changing it right
// after the first inclusion sticks for the whole translation unit.
#pragma once

#ifdef __cplusplus
#include <bits/c++config.h>
#undef _GLIBCXX_EXTERN_TEMPLATE
#define _GLIBCXX_EXTERN_TEMPLATE 0
#endif
