// What libsupc++, libgcc's unwinder and the libstdc++ headers expect from
// the C library and from libstdc++ itself, for an image with one thread, no
// dynamic loader and no thread-local storage.
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <new>
#include <typeinfo>

#include <cxxabi.h>

#include "runtime.h"

// ---- exit handlers --------------------------------------------------------

namespace {

struct ExitHandler {
  void (*function)(void*);
  void* argument;
};

ExitHandler* g_exitHandlers = nullptr;
size_t g_exitHandlerCount = 0;
size_t g_exitHandlerCapacity = 0;

void CallPlain(void* function) { reinterpret_cast<void (*)()>(function)(); }

}  // namespace

namespace Uefi::Runtime {

void RunExitHandlers() {
  // A handler may register another one; it runs too, before the older ones.
  while (g_exitHandlerCount > 0) {
    ExitHandler handler = g_exitHandlers[--g_exitHandlerCount];
    handler.function(handler.argument);
  }
  free(g_exitHandlers);
  g_exitHandlers = nullptr;
  g_exitHandlerCapacity = 0;
}

}  // namespace Uefi::Runtime

extern "C" {

// The image is its own and only "shared object".
void* __dso_handle = &__dso_handle;

int __cxa_atexit(void (*function)(void*), void* argument, void*) noexcept {
  if (g_exitHandlerCount == g_exitHandlerCapacity) {
    size_t capacity = g_exitHandlerCapacity ? g_exitHandlerCapacity * 2 : 32;
    void* grown = realloc(g_exitHandlers, capacity * sizeof(ExitHandler));
    if (!grown) return -1;
    g_exitHandlers = static_cast<ExitHandler*>(grown);
    g_exitHandlerCapacity = capacity;
  }
  g_exitHandlers[g_exitHandlerCount++] = ExitHandler{function, argument};
  return 0;
}

int atexit(void (*function)()) noexcept {
  return __cxa_atexit(CallPlain, reinterpret_cast<void*>(function), __dso_handle);
}

// ---- exception state --------------------------------------------------------
// libsupc++ keeps it per thread in TLS; one thread needs one copy.

struct EhGlobals {
  void* caughtExceptions;
  unsigned int uncaughtExceptions;
};

void* __cxa_get_globals() noexcept {
  static EhGlobals globals;
  return &globals;
}

void* __cxa_get_globals_fast() noexcept { return __cxa_get_globals(); }

void __cxa_pure_virtual() {
  static const char kMessage[] = "\nPure virtual function called.\n";
  fwrite(kMessage, 1, sizeof kMessage - 1, stderr);
  abort();
}

void __cxa_deleted_virtual() {
  static const char kMessage[] = "\nDeleted virtual function called.\n";
  fwrite(kMessage, 1, sizeof kMessage - 1, stderr);
  abort();
}

// ---- the unwinder's search for unwind tables ----------------------------------
// The tables are registered at start-up; these searches of loaded objects
// are only asked when the registered tables do not cover an address, and
// there is nothing else to search.

int dl_iterate_phdr(int (*)(void*, size_t, void*), void*) { return 0; }

int _dl_find_object(void*, void*) { return -1; }

// ---- threads --------------------------------------------------------------
// One thread: locks always succeed at once; a once-flag is a plain flag.

char __libc_single_threaded = 1;

int pthread_mutex_lock(void*) { return 0; }
int pthread_mutex_unlock(void*) { return 0; }
int pthread_mutex_trylock(void*) { return 0; }
int pthread_mutex_init(void*, const void*) { return 0; }
int pthread_mutex_destroy(void*) { return 0; }
int pthread_cond_wait(void*, void*) { return 0; }
int pthread_cond_signal(void*) { return 0; }
int pthread_cond_broadcast(void*) { return 0; }
int pthread_cond_destroy(void*) { return 0; }

int pthread_once(int* control, void (*routine)()) {
  if (*control == 0) {
    *control = 1;
    routine();
  }
  return 0;
}

int pthread_key_create(unsigned* key, void (*)(void*)) {
  *key = 0;
  return 0;
}

// libgcc and libsupc++ test the address of this one to learn whether
// threads are in use; an undefined weak symbol would also leave a
// relocation the entry code does not apply.
int __pthread_key_create(unsigned* key, void (*destructor)(void*)) { return pthread_key_create(key, destructor); }

int pthread_key_delete(unsigned) { return 0; }

// One slot is enough: keys are only made by the emergency exception pool's
// and the unwinder's lazy set-up, which keep one value each at most, and
// both tolerate reading back null.
namespace {
void* g_threadSpecific = nullptr;
}
void* pthread_getspecific(unsigned) { return g_threadSpecific; }
int pthread_setspecific(unsigned, const void* value) {
  g_threadSpecific = const_cast<void*>(value);
  return 0;
}

}  // extern "C"

// ---- termination ----------------------------------------------------------
// libsupc++'s own verbose handler demangles type names and writes with
// stdio; this one prints what it can without pulling those in.

namespace __gnu_cxx {

void __verbose_terminate_handler() {
  static bool terminating = false;
  if (terminating) {
    fputs("\nterminate called recursively\n", stderr);
    abort();
  }
  terminating = true;
  std::type_info* type = __cxxabiv1::__cxa_current_exception_type();
  if (!type) {
    fputs("\nterminate called without an active exception\n", stderr);
    abort();
  }
  fprintf(stderr, "\nterminate called after throwing an instance of '%s'\n", type->name());
  try {
    throw;
  } catch (const std::exception& e) {
    fprintf(stderr, "  what():  %s\n", e.what());
  } catch (...) {
  }
  abort();
}

}  // namespace __gnu_cxx
