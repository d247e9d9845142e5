#pragma once
// QXMatroskaWalk: a diagnostic walk over a Matroska file with libebml and
// libmatroska. It writes what it finds to the log (the EBML head, one line
// per top-level element of each segment, the parsed trees of the small
// elements, the tags) and changes nothing. A damaged file ends the walk
// with a log line; libebml's exceptions never leave this module.

#include <cstdint>

#include "qxmedia/platform/foundation/QXValue.h"

namespace libebml {
class EbmlElement;
}

class QXMatroskaWalk {
public:
    // Walks the file; there is nothing to return.
    static void initWithMKVURL(const QXURL& url);

    // One element as a tree of plain values: masters become a list of
    // one-key dictionaries (child class name to child value), numbers,
    // strings, bytes and dates their values; voids and unknown classes
    // nothing. Nesting deeper than kMaxDepth is cut off.
    static QXValue parseElement(const libebml::EbmlElement* element);

    static constexpr int kMaxDepth = 64;
};

// The bytes an element takes in the file: head and data, and for a master
// of unknown size the span up to the end of its last child.
uint64_t get_element_size(const libebml::EbmlElement& element);
