// The out-of-line parts of the standard exception classes that the
// libstdc++ headers declare but only libstdc++ defines: std::logic_error,
// std::runtime_error and their families, std::bad_function_call,
// std::bad_weak_ptr, and the std::__throw_* helpers the headers call.
//
// With these, code in the image throws and catches the same types as on the
// host: `catch (const std::out_of_range&)` works for vector::at().
//
// The message holder (std::__cow_string, one pointer wide in the headers)
// points into a reference-counted copy of the text, so that copying an
// exception never allocates and never throws.
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <new>
#include <stdexcept>
#include <typeinfo>

namespace {

struct MessageBlock {
  std::atomic<size_t> references;
  char text[1];
};

const char kEmpty[] = "";

MessageBlock* BlockOf(const char* text) {
  return reinterpret_cast<MessageBlock*>(const_cast<char*>(text) - offsetof(MessageBlock, text));
}

// Without memory for the copy the message is lost, the exception is not.
const char* NewMessage(const char* text, size_t length) {
  auto* block = static_cast<MessageBlock*>(malloc(offsetof(MessageBlock, text) + length + 1));
  if (!block) return kEmpty;
  new (&block->references) std::atomic<size_t>(1);
  memcpy(block->text, text, length);
  block->text[length] = '\0';
  return block->text;
}

const char* Share(const char* text) {
  if (text != kEmpty) BlockOf(text)->references.fetch_add(1, std::memory_order_relaxed);
  return text;
}

void Release(const char* text) {
  if (text != kEmpty && BlockOf(text)->references.fetch_sub(1, std::memory_order_acq_rel) == 1)
    free(BlockOf(text));
}

}  // namespace

namespace std {

__cow_string::__cow_string() : _M_p(kEmpty) {}
__cow_string::__cow_string(const std::string& text) : _M_p(NewMessage(text.data(), text.size())) {}
__cow_string::__cow_string(const char* text, size_t length) : _M_p(NewMessage(text, length)) {}
__cow_string::__cow_string(const __cow_string& other) noexcept : _M_p(Share(other._M_p)) {}
__cow_string::__cow_string(__cow_string&& other) noexcept : _M_p(other._M_p) { other._M_p = kEmpty; }
__cow_string::~__cow_string() { Release(_M_p); }

__cow_string& __cow_string::operator=(const __cow_string& other) noexcept {
  const char* shared = Share(other._M_p);
  Release(_M_p);
  _M_p = shared;
  return *this;
}

__cow_string& __cow_string::operator=(__cow_string&& other) noexcept {
  if (this != &other) {
    Release(_M_p);
    _M_p = other._M_p;
    other._M_p = kEmpty;
  }
  return *this;
}

logic_error::logic_error(const string& message) : _M_msg(message) {}
logic_error::logic_error(const char* message) : _M_msg(message, strlen(message)) {}
logic_error::logic_error(const logic_error& other) noexcept = default;
logic_error::logic_error(logic_error&& other) noexcept = default;
logic_error& logic_error::operator=(const logic_error& other) noexcept = default;
logic_error& logic_error::operator=(logic_error&& other) noexcept = default;
logic_error::~logic_error() noexcept {}
const char* logic_error::what() const noexcept { return _M_msg._M_p; }

runtime_error::runtime_error(const string& message) : _M_msg(message) {}
runtime_error::runtime_error(const char* message) : _M_msg(message, strlen(message)) {}
runtime_error::runtime_error(const runtime_error& other) noexcept = default;
runtime_error::runtime_error(runtime_error&& other) noexcept = default;
runtime_error& runtime_error::operator=(const runtime_error& other) noexcept = default;
runtime_error& runtime_error::operator=(runtime_error&& other) noexcept = default;
runtime_error::~runtime_error() noexcept {}
const char* runtime_error::what() const noexcept { return _M_msg._M_p; }

#define DEFINE_EXCEPTION(name, base)                  \
  name::name(const string& message) : base(message) {} \
  name::name(const char* message) : base(message) {}   \
  name::~name() noexcept {}

DEFINE_EXCEPTION(domain_error, logic_error)
DEFINE_EXCEPTION(invalid_argument, logic_error)
DEFINE_EXCEPTION(length_error, logic_error)
DEFINE_EXCEPTION(out_of_range, logic_error)
DEFINE_EXCEPTION(range_error, runtime_error)
DEFINE_EXCEPTION(overflow_error, runtime_error)
DEFINE_EXCEPTION(underflow_error, runtime_error)

#undef DEFINE_EXCEPTION

bad_function_call::~bad_function_call() noexcept {}
const char* bad_function_call::what() const noexcept { return "bad_function_call"; }

const char* bad_weak_ptr::what() const noexcept { return "bad_weak_ptr"; }

void __throw_bad_exception() { throw bad_exception(); }
void __throw_bad_alloc() { throw bad_alloc(); }
void __throw_bad_array_new_length() { throw bad_array_new_length(); }
void __throw_bad_cast() { throw bad_cast(); }
void __throw_bad_typeid() { throw bad_typeid(); }
void __throw_bad_function_call() { throw bad_function_call(); }
void __throw_logic_error(const char* message) { throw logic_error(message); }
void __throw_domain_error(const char* message) { throw domain_error(message); }
void __throw_invalid_argument(const char* message) { throw invalid_argument(message); }
void __throw_length_error(const char* message) { throw length_error(message); }
void __throw_out_of_range(const char* message) { throw out_of_range(message); }
void __throw_runtime_error(const char* message) { throw runtime_error(message); }
void __throw_range_error(const char* message) { throw range_error(message); }
void __throw_overflow_error(const char* message) { throw overflow_error(message); }
void __throw_underflow_error(const char* message) { throw underflow_error(message); }
// There are no system calls to fail; kept for headers that name it.
void __throw_system_error(int) { throw runtime_error("system_error"); }

void __throw_out_of_range_fmt(const char* format, ...) {
  char message[256];
  va_list args;
  va_start(args, format);
  vsnprintf(message, sizeof message, format, args);
  va_end(args);
  throw out_of_range(message);
}

}  // namespace std
