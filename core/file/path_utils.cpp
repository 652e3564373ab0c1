// Path rules of the POSIX and Windows flavours.
#include <vector>

#include "file/utils.h"

bool IsSimpleName(const char16_t* name) {
  return name != nullptr && IsSimpleName(std::u16string_view(name));
}

bool IsSimpleName(std::u16string_view name) {
  // Names that begin with "/", "./" or "../" hold a "/" as well.
  return !name.empty() && name != u"." && name != u".." &&
         name.find(u'/') == std::u16string_view::npos;
}

void AppendPath(std::u16string& path, std::u16string_view relative) {
  if (!relative.empty() && relative[0] == u'/') path = u"/";
  size_t pos = 0;
  while (pos < relative.size()) {
    if (relative[pos] == u'/') {
      ++pos;
      continue;
    }
    size_t end = relative.find(u'/', pos);
    if (end == std::u16string_view::npos) end = relative.size();
    const std::u16string_view component = relative.substr(pos, end - pos);
    pos = end;
    if (component == u".") continue;
    if (component == u"..") {
      const size_t slash = path.rfind(u'/');
      if (slash == std::u16string::npos || slash == 0)
        path = u"/";
      else
        path.resize(slash);
      continue;
    }
    if (!path.empty() && path.back() != u'/') path += u'/';
    path += component;
  }
}

namespace {

constexpr size_t kMaxComponent = 255;

bool IsSeparator(char16_t c) { return c == u'/' || c == u'\\'; }
bool IsLetter(char16_t c) { return (c >= u'A' && c <= u'Z') || (c >= u'a' && c <= u'z'); }
char16_t Upper(char16_t c) { return c >= u'a' && c <= u'z' ? char16_t(c - 32) : c; }

bool IsForbiddenInPath(char16_t c) {
  return c < 32 || c == u'"' || c == u'*' || c == u'<' || c == u'>' || c == u'?' || c == u'|';
}

// A drive letter and ":" at the start of `s`.
bool HasDrive(std::u16string_view s) { return s.size() >= 2 && IsLetter(s[0]) && s[1] == u':'; }

std::u16string DriveRoot(char16_t letter) { return std::u16string{Upper(letter), u':', u'\\'}; }

// The root of `base` for a path that begins with one separator.
std::u16string RootOf(std::u16string_view base) {
  if (base.size() >= 2 && IsSeparator(base[0]) && IsSeparator(base[1])) {
    int seen = 0;
    for (size_t i = 1; i < base.size(); ++i)
      if (IsSeparator(base[i]) && ++seen == 3) return std::u16string(base.substr(0, i + 1));
    return std::u16string(base);
  }
  return std::u16string(base.substr(0, 3));
}

bool CheckComponent(std::u16string_view component, bool allowColon) {
  if (component.size() > kMaxComponent) return false;
  bool colon = false;
  for (size_t i = 0; i < component.size(); ++i) {
    const char16_t c = component[i];
    if (IsForbiddenInPath(c)) return false;
    if (c == u':') {
      // One colon may follow a name and introduce its stream name.
      if (!allowColon || colon || i == 0) return false;
      colon = true;
    }
  }
  return true;
}

}  // namespace

bool IsValidWindowsName(std::u16string_view name, bool driveForm) {
  if (driveForm) return name.size() == 2 && HasDrive(name);
  if (name.empty() || name == u"." || name == u".." || name.size() > kMaxComponent) return false;
  for (char16_t c : name) {
    if (c < 32) return false;
    switch (c) {
      case u'"': case u'*': case u'/': case u':': case u'<':
      case u'>': case u'?': case u'\\': case u'|':
        return false;
      default:
        break;
    }
  }
  return true;
}

bool NormalizeWindowsPath(std::u16string& result, std::u16string_view base,
                          std::u16string_view path, bool allowColon) {
  // `result` starts as the prefix that the path is taken from; ".." may
  // remove what follows the first `rootLength` characters of it, never more.
  size_t rootLength;
  std::u16string_view rest;
  const bool twoSeparators = path.size() >= 2 && IsSeparator(path[0]) && IsSeparator(path[1]);
  const auto fromBase = [&](std::u16string_view start) {
    result = std::u16string(start);
    rootLength = RootOf(start).size();
  };
  if (HasDrive(path) && path.size() >= 3 && IsSeparator(path[2])) {
    result = DriveRoot(path[0]);
    rootLength = 3;
    rest = path.substr(3);
  } else if (HasDrive(path)) {
    if (!base.empty() && Upper(base[0]) == Upper(path[0])) {
      fromBase(base);
    } else {
      result = DriveRoot(path[0]);
      rootLength = 3;
    }
    rest = path.substr(2);
  } else if (twoSeparators && path.size() >= 4 && path[2] == u'?' && IsSeparator(path[3])) {
    const std::u16string_view after = path.substr(4);
    if (after.size() >= 4 && after.substr(0, 3) == u"UNC" && IsSeparator(after[3])) {
      result = u"\\\\";
      rootLength = 2;
      rest = after.substr(4);
    } else if (HasDrive(after) && (after.size() == 2 || IsSeparator(after[2]))) {
      result = DriveRoot(after[0]);
      rootLength = 3;
      rest = after.substr(after.size() == 2 ? 2 : 3);
    } else {
      // Taken as it stands, past every rule.
      result = u"\\\\?\\";
      result += after;
      return true;
    }
  } else if (twoSeparators) {
    result = u"\\\\";
    rootLength = 2;
    rest = path.substr(2);
  } else if (!path.empty() && IsSeparator(path[0])) {
    fromBase(RootOf(base));
    rest = path.substr(1);
  } else {
    fromBase(base);
    rest = path;
  }
  if (rootLength > result.size()) rootLength = result.size();
  if (!result.empty() && !IsSeparator(result.back())) result += u'\\';

  size_t pos = 0;
  while (pos < rest.size()) {
    if (IsSeparator(rest[pos])) {
      ++pos;
      continue;
    }
    size_t end = pos;
    while (end < rest.size() && !IsSeparator(rest[end])) ++end;
    const std::u16string_view component = rest.substr(pos, end - pos);
    pos = end;
    if (!CheckComponent(component, allowColon)) return false;
    if (component == u".") continue;
    if (component == u"..") {
      // Drop the closing separator and the last component before it.
      if (result.size() > rootLength) {
        size_t cut = result.size() - 1;
        while (cut > rootLength && !IsSeparator(result[cut - 1])) --cut;
        result.resize(cut);
      }
      continue;
    }
    result += component;
    result += u'\\';
  }
  // A bare "\\" names no server: nothing to stand on.
  if (result.size() == 2 && rootLength == 2) result.clear();
  return true;
}
