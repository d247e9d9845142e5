#pragma once
// The parts of the Python module qxmedia; each adds its classes and
// functions to the module.

#include <pybind11/pybind11.h>

namespace qxpy {

void bindErrors(pybind11::module_& module);
void bindMovie(pybind11::module_& module);
void bindJob(pybind11::module_& module);
void bindTags(pybind11::module_& module);
void bindLibrary(pybind11::module_& module);

} // namespace qxpy
