// What the xml and bxml commands share: reading a document with the
// loader's reader and reporting failures the same way.
#pragma once

#include <memory>
#include <string>

#include "common/error.h"
#include "xml/xml.h"

namespace tool {

// Parses `path` (text or binary).  On failure prints one line to stderr,
// "loader-tool: PATH: ...", and returns false.
bool LoadXml(const std::string& path, std::unique_ptr<XmlElement>& root);

// The one-line text of an error and its causes, "first: second: ...".
std::string OneLine(const Common::Error& error);

}  // namespace tool
