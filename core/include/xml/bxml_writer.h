// Writer of the binary "BXML" forms, for the host tool and the tests; the
// loader itself only reads.  Lives in host_only/ so the firmware image
// carries none of it.
#pragma once

#include <string>

#include "common/error.h"
#include "xml/xml.h"

// Encodes the tree under `root` in binary `version` 1 or 2 into `out`.
// Refuses, with a message that names the element, whatever ReadXml could
// not give back unchanged: a zero character or an unpaired surrogate in a
// text (the reader stops at a zero byte and replaces bad sequences), more
// than 255 attributes in version 1, nesting beyond kXmlMaxDepth, and trees
// whose text slots do not match their children.
Common::Error WriteBinaryXml(const XmlElement& root, int version, std::string& out);

// True when both trees have the same names, attributes, texts and shape.
// Walks without recursion, so any tree may be compared.
bool SameXmlTree(const XmlElement& a, const XmlElement& b);
