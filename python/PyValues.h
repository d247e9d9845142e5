#pragma once
// Framework values as Python values: QXValue to and from plain Python
// objects, times in seconds.

#include <pybind11/pybind11.h>

#include "qxmedia/platform/foundation/CMTime.h"
#include "qxmedia/platform/foundation/QXValue.h"

namespace qxpy {

// None, bool, int, float, str, bytes, datetime, path text, list or dict.
// Images have no Python form here and become None.
pybind11::object toPython(const QXValue& value);
pybind11::dict toPython(const QXDictionary& dictionary);
// The reverse; raises TypeError for a value it cannot carry.
QXValue fromPython(const pybind11::handle& object);

// Seconds, or None for an invalid or indefinite time.
pybind11::object seconds(qx::CMTime time);

} // namespace qxpy
