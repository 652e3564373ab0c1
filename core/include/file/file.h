// The stream family: every byte source and sink of the system presents these
// faces, so callers never know whether bytes come from firmware, memory, a
// decompressor or a mounted volume.
//
// Streams do not throw on their normal paths.  Each object keeps one sticky
// error: once it holds a failure every operation returns at once with a
// neutral result, and the caller looks at the state after a batch of calls.
#pragma once

#include <cstdint>

#include "common/error.h"
#include "common/error_codes.h"

class file_object {
 public:
  virtual ~file_object() = default;
  // `request` begins with a 32-bit four-character code.
  virtual void IOCTL(void* request);

  bool HasError() const noexcept { return error_.IsError(); }
  const Common::Error& GetError() const noexcept { return error_; }
  // Hands the state to the caller and leaves success behind, so that the
  // stream is usable again.
  Common::Error TakeError() noexcept {
    Common::Error e(static_cast<Common::Error&&>(error_));
    error_ = Common::Error();
    return e;
  }
  void SetError(const Common::Error& e) noexcept { error_ = e; }
  // Records an error with its standard text, raised at `where`.
  void SetError(const Common::ErrorLocation& where, uint32_t code) {
    error_ = Common::MakeError(where, code);
  }
  // Moves the error of `inner` (if any) into this object; true if it did.
  bool TakeErrorFrom(file_object& inner) {
    if (!inner.HasError()) return false;
    error_ = inner.TakeError();
    return true;
  }

 protected:
  file_object() = default;
  file_object(const file_object&) = delete;
  file_object& operator=(const file_object&) = delete;
  // A default that the stream does not have: "The operation is not
  // supported.", unless an error is already held.
  void NotSupported(const Common::ErrorLocation& where) {
    if (!HasError()) SetError(where, Common::Codes::NotSupported);
  }

 private:
  Common::Error error_;
};

class i_file : public virtual file_object {
 public:
  // Delivers up to `size` bytes; `got` < `size` without an error means the
  // end of the data.  Implementations set `got` to 0 first.
  virtual void Read(void* buffer, uint64_t size, uint64_t& got) = 0;
  // All or nothing: fewer than `size` bytes records "The end of the file
  // has been reached.".  Concrete classes that override the virtual form
  // bring this one back with `using i_file::Read;`.
  void Read(void* buffer, uint64_t size);
};

class o_file : public virtual file_object {
 public:
  virtual void Write(const void* buffer, uint64_t size, uint64_t& written) = 0;
  virtual void Flush() {}
  // All or nothing: fewer than `size` bytes accepted records "The disk is
  // full.".
  void Write(const void* buffer, uint64_t size);
};

class sized_file : public virtual file_object {
 public:
  virtual int64_t Rewind() = 0;
  virtual int64_t GetSize() = 0;
};

class raccess_file : public virtual sized_file {
 public:
  int64_t Rewind() override { return Seek(0); }
  // Generic form: measure the end and come back to where we were.
  int64_t GetSize() override;
  // Each returns the new absolute position, or -1 with an error recorded.
  virtual int64_t Seek(int64_t position) = 0;
  virtual int64_t SeekCur(int64_t delta) = 0;
  virtual int64_t SeekEnd(int64_t delta) = 0;
  virtual void Unlock() { NotSupported(ERROR_HERE); }
};

class si_file : public i_file, public virtual sized_file {};

class ri_file : public si_file, public virtual raccess_file {
 public:
  virtual void LockShared() { NotSupported(ERROR_HERE); }
};

class ro_file : public o_file, public virtual raccess_file {
 public:
  virtual void Truncate(uint64_t size) = 0;
  virtual void LockExclusive() { NotSupported(ERROR_HERE); }
};

class rio_file : public ri_file, public ro_file {};
