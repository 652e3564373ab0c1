// Memory, string, character-class and number-parsing functions of the C
// library.  The compiler itself emits calls to memcpy, memset, memmove and
// memcmp, so these must never be compiled into calls to themselves (the
// build compiles this directory without loop-to-libcall rewriting).
//
// This file is C: glibc's C++ declarations of strchr and friends are
// overloads that a C++ definition of the C function would clash with.
#include <errno.h>
#include <limits.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

// <ctype.h> would turn these names into macros over glibc's tables.
int isdigit(int c);
int isupper(int c);
int islower(int c);
int isalpha(int c);
int isalnum(int c);
int isxdigit(int c);
int isspace(int c);
int isblank(int c);
int iscntrl(int c);
int isprint(int c);
int isgraph(int c);
int ispunct(int c);
int tolower(int c);
int toupper(int c);

// ---- memory -------------------------------------------------------------
// The string instructions are fast on current processors and, more to the
// point here, under emulation, where a byte loop costs dozens of host
// instructions per byte (kernels and RAM disks are copied with these).

void* memcpy(void* restrict dest, const void* restrict src, size_t n) {
  void* d = dest;
  __asm__ volatile("rep movsb" : "+D"(d), "+S"(src), "+c"(n) : : "memory");
  return dest;
}

void* memset(void* dest, int value, size_t n) {
  void* d = dest;
  __asm__ volatile("rep stosb" : "+D"(d), "+c"(n) : "a"(value) : "memory");
  return dest;
}

void* memmove(void* dest, const void* src, size_t n) {
  unsigned char* d = (unsigned char*)(dest);
  const unsigned char* s = (const unsigned char*)(src);
  if (d == s || n == 0) return dest;
  if (d < s || d >= s + n) return memcpy(dest, src, n);
  // Overlap with the destination above the source: copy backwards.
  d += n - 1;
  s += n - 1;
  __asm__ volatile("std; rep movsb; cld" : "+D"(d), "+S"(s), "+c"(n) : : "memory");
  return dest;
}

int memcmp(const void* a, const void* b, size_t n) {
  const unsigned char* x = (const unsigned char*)(a);
  const unsigned char* y = (const unsigned char*)(b);
  for (size_t i = 0; i < n; ++i)
    if (x[i] != y[i]) return x[i] < y[i] ? -1 : 1;
  return 0;
}

int bcmp(const void* a, const void* b, size_t n) { return memcmp(a, b, n); }

void* memchr(const void* s, int c, size_t n) {
  const unsigned char* p = (const unsigned char*)(s);
  for (size_t i = 0; i < n; ++i)
    if (p[i] == (unsigned char)(c)) return (unsigned char*)(p + i);
  return NULL;
}

void* memrchr(const void* s, int c, size_t n) {
  const unsigned char* p = (const unsigned char*)(s);
  while (n-- > 0)
    if (p[n] == (unsigned char)(c)) return (unsigned char*)(p + n);
  return NULL;
}

// ---- strings ------------------------------------------------------------

size_t strlen(const char* s) {
  const char* p = s;
  while (*p) ++p;
  return (size_t)(p - s);
}

size_t strnlen(const char* s, size_t max) {
  size_t n = 0;
  while (n < max && s[n]) ++n;
  return n;
}

int strcmp(const char* a, const char* b) {
  const unsigned char* x = (const unsigned char*)(a);
  const unsigned char* y = (const unsigned char*)(b);
  while (*x && *x == *y) ++x, ++y;
  return (*x > *y) - (*x < *y);
}

int strncmp(const char* a, const char* b, size_t n) {
  const unsigned char* x = (const unsigned char*)(a);
  const unsigned char* y = (const unsigned char*)(b);
  for (; n > 0; --n, ++x, ++y) {
    if (*x != *y) return *x < *y ? -1 : 1;
    if (!*x) break;
  }
  return 0;
}

int strcasecmp(const char* a, const char* b) {
  const unsigned char* x = (const unsigned char*)(a);
  const unsigned char* y = (const unsigned char*)(b);
  for (;; ++x, ++y) {
    int cx = tolower(*x), cy = tolower(*y);
    if (cx != cy) return cx < cy ? -1 : 1;
    if (!cx) return 0;
  }
}

int strncasecmp(const char* a, const char* b, size_t n) {
  const unsigned char* x = (const unsigned char*)(a);
  const unsigned char* y = (const unsigned char*)(b);
  for (; n > 0; --n, ++x, ++y) {
    int cx = tolower(*x), cy = tolower(*y);
    if (cx != cy) return cx < cy ? -1 : 1;
    if (!cx) break;
  }
  return 0;
}

char* strchr(const char* s, int c) {
  for (;; ++s) {
    if (*s == (char)(c)) return (char*)(s);
    if (!*s) return NULL;
  }
}

char* strrchr(const char* s, int c) {
  const char* found = NULL;
  for (;; ++s) {
    if (*s == (char)(c)) found = s;
    if (!*s) return (char*)(found);
  }
}

char* strstr(const char* haystack, const char* needle) {
  size_t n = strlen(needle);
  if (n == 0) return (char*)(haystack);
  for (; *haystack; ++haystack)
    if (*haystack == *needle && strncmp(haystack, needle, n) == 0) return (char*)(haystack);
  return NULL;
}

size_t strspn(const char* s, const char* accept) {
  size_t n = 0;
  while (s[n] && strchr(accept, s[n])) ++n;
  return n;
}

size_t strcspn(const char* s, const char* reject) {
  size_t n = 0;
  while (s[n] && !strchr(reject, s[n])) ++n;
  return n;
}

char* strpbrk(const char* s, const char* accept) {
  s += strcspn(s, accept);
  return *s ? (char*)(s) : NULL;
}

char* strcpy(char* restrict dest, const char* restrict src) {
  return (char*)(memcpy(dest, src, strlen(src) + 1));
}

char* strncpy(char* restrict dest, const char* restrict src, size_t n) {
  size_t len = strnlen(src, n);
  memcpy(dest, src, len);
  memset(dest + len, 0, n - len);
  return dest;
}

char* strcat(char* restrict dest, const char* restrict src) {
  strcpy(dest + strlen(dest), src);
  return dest;
}

char* strncat(char* restrict dest, const char* restrict src, size_t n) {
  char* end = dest + strlen(dest);
  size_t len = strnlen(src, n);
  memcpy(end, src, len);
  end[len] = '\0';
  return dest;
}

char* strdup(const char* s) {
  size_t n = strlen(s) + 1;
  char* copy = (char*)(malloc(n));
  return copy ? (char*)(memcpy(copy, s, n)) : NULL;
}

char* strndup(const char* s, size_t max) {
  size_t n = strnlen(s, max);
  char* copy = (char*)(malloc(n + 1));
  if (!copy) return NULL;
  memcpy(copy, s, n);
  copy[n] = '\0';
  return copy;
}

// ---- character classes (the "C" locale, ASCII only) ----------------------

int isdigit(int c) { return c >= '0' && c <= '9'; }
int isupper(int c) { return c >= 'A' && c <= 'Z'; }
int islower(int c) { return c >= 'a' && c <= 'z'; }
int isalpha(int c) { return isupper(c) || islower(c); }
int isalnum(int c) { return isalpha(c) || isdigit(c); }
int isxdigit(int c) { return isdigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }
int isspace(int c) { return c == ' ' || (c >= '\t' && c <= '\r'); }
int isblank(int c) { return c == ' ' || c == '\t'; }
int iscntrl(int c) { return (c >= 0 && c < 0x20) || c == 0x7F; }
int isprint(int c) { return c >= 0x20 && c < 0x7F; }
int isgraph(int c) { return c > 0x20 && c < 0x7F; }
int ispunct(int c) { return isgraph(c) && !isalnum(c); }
int tolower(int c) { return isupper(c) ? c + ('a' - 'A') : c; }
int toupper(int c) { return islower(c) ? c - ('a' - 'A') : c; }

// ---- numbers ------------------------------------------------------------

int* __errno_location() {
  static int value;
  return &value;
}

static int DigitValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'z') return c - 'a' + 10;
  if (c >= 'A' && c <= 'Z') return c - 'A' + 10;
  return 99;
}

// The common part of the strto* functions: the magnitude, saturated at
// `limit` (ERANGE then), with the sign apart.
static unsigned long long ParseMagnitude(const char* text, char** end, int base, unsigned long long limit,
                                         bool* negative) {
  const char* p = text;
  *negative = false;
  if (end) *end = (char*)text;
  if (base < 0 || base == 1 || base > 36) {
    errno = EINVAL;
    return 0;
  }
  while (isspace((unsigned char)*p)) ++p;
  if (*p == '+' || *p == '-') *negative = *p++ == '-';
  if ((base == 0 || base == 16) && p[0] == '0' && (p[1] == 'x' || p[1] == 'X') && DigitValue(p[2]) < 16) {
    p += 2;
    base = 16;
  } else if (base == 0) {
    base = p[0] == '0' ? 8 : 10;
  }
  const char* digits = p;
  unsigned long long value = 0;
  bool overflow = false;
  for (int d; (d = DigitValue(*p)) < base; ++p) {
    if (value > (limit - (unsigned)d) / (unsigned)base) overflow = true;
    if (!overflow) value = value * (unsigned)base + (unsigned)d;
  }
  if (p == digits) return 0;  // no digits: nothing consumed
  if (end) *end = (char*)p;
  if (overflow) {
    errno = ERANGE;
    return limit;
  }
  return value;
}

// Signed parse into the range [min, max], where -min == max + 1.
static long long ParseSigned(const char* text, char** end, int base, long long min, long long max) {
  bool negative;
  unsigned long long limit = (unsigned long long)max + 1;
  unsigned long long magnitude = ParseMagnitude(text, end, base, limit, &negative);
  if (!negative && magnitude == limit) {
    errno = ERANGE;
    return max;
  }
  if (negative) return magnitude == limit ? min : -(long long)magnitude;
  return (long long)magnitude;
}

static unsigned long long ParseUnsigned(const char* text, char** end, int base, unsigned long long max) {
  bool negative;
  unsigned long long magnitude = ParseMagnitude(text, end, base, max, &negative);
  // As in C: "-1" is the negation of 1 in the unsigned type.
  return negative ? -magnitude : magnitude;
}

long strtol(const char* restrict text, char** restrict end, int base) {
  return (long)ParseSigned(text, end, base, LONG_MIN, LONG_MAX);
}
long long strtoll(const char* restrict text, char** restrict end, int base) {
  return ParseSigned(text, end, base, LLONG_MIN, LLONG_MAX);
}
unsigned long strtoul(const char* restrict text, char** restrict end, int base) {
  return (unsigned long)ParseUnsigned(text, end, base, ULONG_MAX);
}
unsigned long long strtoull(const char* restrict text, char** restrict end, int base) {
  return ParseUnsigned(text, end, base, ULLONG_MAX);
}
int atoi(const char* text) { return (int)strtol(text, NULL, 10); }
long atol(const char* text) { return strtol(text, NULL, 10); }
