// C library pieces that OpenSSL's libcrypto calls and the rest of the image
// does not: sorting, the glibc character tables its headers compile their
// ctype macros into, and the file, clock and environment calls of code the
// loader never runs (configuration files, certificate times), which answer
// "not available".
//
// libcrypto is compiled against the host's glibc headers, which is why some
// names here are glibc's own.
#include <ctype.h>
#include <errno.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>
#include <time.h>

struct stat;

// ---- sorting ----------------------------------------------------------------
// Heap sort: no recursion and no extra memory, whatever the input order.

static void SwapBytes(unsigned char* a, unsigned char* b, size_t size) {
  while (size--) {
    const unsigned char t = *a;
    *a++ = *b;
    *b++ = t;
  }
}

static void SiftDown(unsigned char* base, size_t root, size_t count, size_t size,
                     int (*compare)(const void*, const void*)) {
  for (;;) {
    size_t child = 2 * root + 1;
    if (child >= count) return;
    if (child + 1 < count && compare(base + child * size, base + (child + 1) * size) < 0) ++child;
    if (compare(base + root * size, base + child * size) >= 0) return;
    SwapBytes(base + root * size, base + child * size, size);
    root = child;
  }
}

void qsort(void* items, size_t count, size_t size, int (*compare)(const void*, const void*)) {
  unsigned char* base = items;
  if (count < 2 || size == 0) return;
  for (size_t i = count / 2; i-- > 0;) SiftDown(base, i, count, size, compare);
  for (size_t end = count - 1; end > 0; --end) {
    SwapBytes(base, base + end * size, size);
    SiftDown(base, 0, end, size, compare);
  }
}

// ---- glibc's character tables ----------------------------------------------
// Indexed from -128 to 255, as glibc's are; only ASCII has classes.  Filled
// from the runtime's own classification functions (called as functions:
// the parentheses keep <ctype.h>'s macros, which read these tables, away).

static unsigned short g_classes[384];
static int32_t g_lower[384];
static int32_t g_upper[384];
static const unsigned short* g_classesAt = g_classes + 128;
static const int32_t* g_lowerAt = g_lower + 128;
static const int32_t* g_upperAt = g_upper + 128;
static int g_tablesReady;

static void FillTables(void) {
  for (int c = -128; c < 256; ++c) {
    const int i = c + 128;
    const int ascii = c >= 0 && c < 128;
    unsigned short bits = 0;
    if (ascii) {
      if ((isupper)(c)) bits |= _ISupper;
      if ((islower)(c)) bits |= _ISlower;
      if ((isalpha)(c)) bits |= _ISalpha;
      if ((isdigit)(c)) bits |= _ISdigit;
      if ((isxdigit)(c)) bits |= _ISxdigit;
      if ((isspace)(c)) bits |= _ISspace;
      if ((isprint)(c)) bits |= _ISprint;
      if ((isgraph)(c)) bits |= _ISgraph;
      if ((isblank)(c)) bits |= _ISblank;
      if ((iscntrl)(c)) bits |= _IScntrl;
      if ((ispunct)(c)) bits |= _ISpunct;
      if ((isalnum)(c)) bits |= _ISalnum;
    }
    g_classes[i] = bits;
    g_lower[i] = ascii ? (tolower)(c) : c;
    g_upper[i] = ascii ? (toupper)(c) : c;
  }
  g_tablesReady = 1;
}

const unsigned short** __ctype_b_loc(void) {
  if (!g_tablesReady) FillTables();
  return &g_classesAt;
}

const int32_t** __ctype_tolower_loc(void) {
  if (!g_tablesReady) FillTables();
  return &g_lowerAt;
}

const int32_t** __ctype_toupper_loc(void) {
  if (!g_tablesReady) FillTables();
  return &g_upperAt;
}

// ---- what the image does not have ------------------------------------------

// No calendar clock: callers treat (time_t)-1 as "unknown".
time_t time(time_t* out) {
  if (out) *out = (time_t)-1;
  return (time_t)-1;
}

// No file system of the C library's: every path is missing.
int stat(const char* path, struct stat* result) {
  (void)path;
  (void)result;
  errno = ENOENT;
  return -1;
}

// No environment is trusted to change the library's configuration.
char* secure_getenv(const char* name) {
  (void)name;
  return NULL;
}
