#include "qxmedia/platform/foundation/QXValue.h"

#include <cinttypes>
#include <cstdio>
#include <ctime>

namespace {

template <class... F>
struct Overloaded : F... {
    using F::operator()...;
};
template <class... F>
Overloaded(F...) -> Overloaded<F...>;

std::string quoted(const std::string& text)
{
    std::string out = "\"";
    for (char c : text) {
        if (c == '"' || c == '\\') out += '\\';
        out += c;
    }
    return out + '"';
}

std::string isoDate(QXDate date)
{
    const std::time_t t = std::chrono::system_clock::to_time_t(date);
    std::tm tm {};
    gmtime_r(&t, &tm);
    char buffer[32];
    std::strftime(buffer, sizeof buffer, "%Y-%m-%d %H:%M:%S +0000", &tm);
    return buffer;
}

} // namespace

std::optional<int64_t> QXValue::int64() const
{
    return std::visit(Overloaded {
                          [](bool v) -> std::optional<int64_t> { return v ? 1 : 0; },
                          [](int64_t v) -> std::optional<int64_t> { return v; },
                          [](uint64_t v) -> std::optional<int64_t> { return int64_t(v); },
                          [](double v) -> std::optional<int64_t> { return int64_t(v); },
                          [](const auto&) -> std::optional<int64_t> { return std::nullopt; },
                      },
                      storage_);
}

std::optional<uint64_t> QXValue::uint64() const
{
    if (auto u = std::get_if<uint64_t>(&storage_)) return *u;
    if (auto i = int64()) return uint64_t(*i);
    return std::nullopt;
}

std::optional<double> QXValue::doubleValue() const
{
    if (auto d = std::get_if<double>(&storage_)) return *d;
    if (auto u = std::get_if<uint64_t>(&storage_)) return double(*u);
    if (auto i = int64()) return double(*i);
    return std::nullopt;
}

std::optional<bool> QXValue::truth() const
{
    if (auto d = std::get_if<double>(&storage_)) return *d != 0.0;
    if (auto i = int64()) return *i != 0;
    return std::nullopt;
}

const QXValue* QXValue::find(std::string_view key) const
{
    const QXDictionary* dict = dictionary();
    if (!dict) return nullptr;
    auto it = dict->find(key);
    return it == dict->end() ? nullptr : &it->second;
}

std::string QXValue::description() const
{
    return std::visit(Overloaded {
                          [](std::monostate) -> std::string { return "(null)"; },
                          [](bool v) -> std::string { return v ? "1" : "0"; },
                          [](int64_t v) -> std::string { return std::to_string(v); },
                          [](uint64_t v) -> std::string { return std::to_string(v); },
                          [](double v) -> std::string {
                              char buffer[32];
                              std::snprintf(buffer, sizeof buffer, "%.17g", v);
                              return buffer;
                          },
                          [](const std::string& v) -> std::string { return v; },
                          [](const QXData& v) -> std::string {
                              std::string out = "{length = " + std::to_string(v.size()) + ", bytes = 0x";
                              static const char hex[] = "0123456789abcdef";
                              for (size_t i = 0; i < v.size() && i < 24; ++i) {
                                  out += hex[v[i] >> 4];
                                  out += hex[v[i] & 15];
                              }
                              return out + (v.size() > 24 ? " ... }" : "}");
                          },
                          [](const QXDate& v) -> std::string { return isoDate(v); },
                          [](const QXURL& v) -> std::string { return "file://" + v.string(); },
                          [](const QXImageRef& v) -> std::string { return v ? "<QXImage>" : "(null)"; },
                          [](const QXArray& v) -> std::string {
                              std::string out = "(";
                              for (size_t i = 0; i < v.size(); ++i) {
                                  out += (i ? ", " : "") + v[i].description();
                              }
                              return out + ")";
                          },
                          [](const QXDictionary& v) -> std::string {
                              std::string out = "{";
                              bool first = true;
                              for (const auto& [key, value] : v) {
                                  out += (first ? "" : ", ") + key + " = ";
                                  out += value.isString() ? quoted(*value.string()) : value.description();
                                  first = false;
                              }
                              return out + "}";
                          },
                      },
                      storage_);
}

bool QXValue::operator==(const QXValue& other) const
{
    if (isNumber() && other.isNumber()) {
        if (type() == Type::Double || other.type() == Type::Double) {
            return doubleValue() == other.doubleValue();
        }
        if (type() == Type::UInt || other.type() == Type::UInt) return uint64() == other.uint64();
        return int64() == other.int64();
    }
    return storage_ == other.storage_;
}
