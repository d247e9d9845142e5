#include "PyValues.h"

#include <pybind11/chrono.h>
#include <pybind11/stl.h>

namespace py = pybind11;

namespace qxpy {

py::object toPython(const QXValue& value)
{
    using Type = QXValue::Type;
    switch (value.type()) {
    case Type::Null:
    case Type::Image: return py::none();
    case Type::Bool: return py::bool_(*value.boolValue());
    case Type::Int: return py::int_(*value.int64());
    case Type::UInt: return py::int_(*value.uint64());
    case Type::Double: return py::float_(*value.doubleValue());
    case Type::String: return py::str(*value.string());
    case Type::Data: {
        const QXData& data = *value.data();
        return py::bytes(reinterpret_cast<const char*>(data.data()), data.size());
    }
    case Type::Date: return py::cast(*value.date());
    case Type::URL: return py::str(value.url()->string());
    case Type::Array: {
        py::list list;
        for (const QXValue& element : *value.array()) list.append(toPython(element));
        return list;
    }
    case Type::Dictionary: return toPython(*value.dictionary());
    }
    return py::none();
}

py::dict toPython(const QXDictionary& dictionary)
{
    py::dict result;
    for (const auto& [key, element] : dictionary) result[py::str(key)] = toPython(element);
    return result;
}

QXValue fromPython(const py::handle& object)
{
    if (object.is_none()) return QXValue();
    // bool before int: Python's True is an int too.
    if (py::isinstance<py::bool_>(object)) return QXValue(object.cast<bool>());
    if (py::isinstance<py::int_>(object)) {
        if (object.cast<py::int_>() < py::int_(0)) return QXValue(object.cast<int64_t>());
        return QXValue(object.cast<uint64_t>());
    }
    if (py::isinstance<py::float_>(object)) return QXValue(object.cast<double>());
    if (py::isinstance<py::str>(object)) return QXValue(object.cast<std::string>());
    if (py::isinstance<py::bytes>(object)) {
        const std::string bytes = object.cast<std::string>();
        return QXValue(QXData(bytes.begin(), bytes.end()));
    }
    if (py::isinstance(object, py::module_::import("datetime").attr("datetime"))) {
        return QXValue(object.cast<QXDate>());
    }
    if (py::isinstance<py::dict>(object)) {
        QXDictionary dictionary;
        for (const auto& [key, element] : object.cast<py::dict>()) {
            dictionary.emplace(py::str(key).cast<std::string>(), fromPython(element));
        }
        return QXValue(std::move(dictionary));
    }
    if (py::isinstance<py::list>(object) || py::isinstance<py::tuple>(object)) {
        QXArray array;
        for (const py::handle element : object) array.push_back(fromPython(element));
        return QXValue(std::move(array));
    }
    throw py::type_error("no tag value can hold a " + std::string(py::str(object.get_type().attr("__name__"))));
}

py::object seconds(qx::CMTime time)
{
    if (qx::CMTIME_IS_INVALID(time) || qx::CMTIME_IS_INDEFINITE(time)) return py::none();
    return py::float_(qx::CMTimeGetSeconds(time));
}

} // namespace qxpy
