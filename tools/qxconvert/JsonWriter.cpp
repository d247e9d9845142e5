#include "JsonWriter.h"

void JsonWriter::value(const QXValue& v)
{
    switch (v.type()) {
    case QXValue::Type::Null: null(); break;
    case QXValue::Type::Bool: boolean(*v.boolValue()); break;
    case QXValue::Type::Int: number(*v.int64()); break;
    case QXValue::Type::UInt: unsignedNumber(*v.uint64()); break;
    case QXValue::Type::Double: number(*v.doubleValue()); break;
    case QXValue::Type::String: string(*v.string()); break;
    case QXValue::Type::Array:
        beginArray();
        for (const QXValue& element : *v.array()) value(element);
        endArray();
        break;
    case QXValue::Type::Dictionary:
        beginObject();
        for (const auto& [name, element] : *v.dictionary()) {
            key(name);
            value(element);
        }
        endObject();
        break;
    default: string(v.description()); break;
    }
}
