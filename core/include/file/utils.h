// Free functions of the file layer: copying and digesting streams, and the
// path rules of the POSIX and Windows flavours.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "common/error.h"
#include "file/file.h"

inline constexpr size_t kDefaultCopyBufferSize = 65536;

// Copies `source` to its end into `target`, in chunks of `bufferSize`.
// `*copied` (when not null) counts the bytes written.  The first error of
// either stream is taken out of it and returned.  The count is a pointer so
// that a size can never be taken for it, nor it for a size.
Common::Error SimpleCopyFile(i_file* source, o_file* target, uint64_t* copied,
                             size_t bufferSize = kDefaultCopyBufferSize);
Common::Error SimpleCopyFile(i_file* source, o_file* target,
                             size_t bufferSize = kDefaultCopyBufferSize);

// The MD5 digest of what remains of `file`.  On an error of the stream the
// error is taken out of it and returned, and `digest` is not written.
Common::Error CalcMD5File(i_file* file, unsigned char digest[16],
                          size_t bufferSize = kDefaultCopyBufferSize);

// True when `name` is one POSIX path component: not null or empty, not "."
// or "..", and without "/".
bool IsSimpleName(const char16_t* name);
bool IsSimpleName(std::u16string_view name);

// POSIX path arithmetic: `relative` taken from `path`, with "." and ".."
// resolved and doubled slashes collapsed; an absolute `relative` starts
// again from "/".
void AppendPath(std::u16string& path, std::u16string_view relative);

// A Windows name: with `driveForm` exactly a letter and ":"; otherwise not
// empty, ".", "..", at most 255 characters, no control character and none
// of  " * / : < > ? \ |.
bool IsValidWindowsName(std::u16string_view name, bool driveForm);

// The absolute form of `path` taken from `base`, with "\" separators, "."
// and ".." resolved and a closing "\" behind each component.  `allowColon`
// lets one ":" and a stream name follow a component.  False when the path is
// not valid; `result` is then unspecified.
bool NormalizeWindowsPath(std::u16string& result, std::u16string_view base,
                          std::u16string_view path, bool allowColon);
