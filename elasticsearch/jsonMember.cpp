// The members of an object.
#include "elasticsearch/jsonMember.h"

#include "elasticsearch/jsonString.h"

namespace zq::elasticsearch
{
namespace
{

Scalar takeScalar(JsonCursor &cursor, std::string &value)
{
    switch (cursor.peek()) {
    case '{':
    case '[':
        cursor.container();
        return Scalar::Missing;
    case '"':
        return decodeJsonText(cursor.string(), value) ? Scalar::There : Scalar::Malformed;
    default:
        value = cursor.scalar();
        return value == "null" ? Scalar::Missing : Scalar::There;
    }
}

} // namespace

Scalar topLevelScalar(std::string_view object, std::string_view name, std::string &value)
{
    Scalar found = Scalar::Missing;
    std::string passed;
    const bool isObject = forEachMember(object, [&](std::string_view memberName, JsonCursor &cursor) {
        if (memberName == name)
            found = takeScalar(cursor, value);
        else
            takeScalar(cursor, passed);
    });
    return isObject ? found : Scalar::Malformed;
}

} // namespace zq::elasticsearch
