// One member of an object.
#include "elasticsearch/jsonMember.h"

#include "elasticsearch/jsonCursor.h"
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
    try {
        JsonStructure structure;
        structure.extend(object.data(), object.size());
        JsonCursor cursor(object, structure, 0);
        cursor.take('{');
        std::string_view memberName;
        for (bool isFirst = true; cursor.nextMember(isFirst, memberName); isFirst = false)
            if (memberName == name) {
                found = takeScalar(cursor, value);
            } else {
                std::string passed;
                takeScalar(cursor, passed);
            }
    } catch (const JsonError &) {
        return Scalar::Malformed;
    } catch (const JsonNeedsMore &) {
        return Scalar::Malformed;
    }
    return found;
}

} // namespace zq::elasticsearch
