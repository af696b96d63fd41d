// One member of an object.
#include "elasticsearch/jsonMember.h"

#include "elasticsearch/jsonCursor.h"
#include "elasticsearch/jsonString.h"

namespace zq::elasticsearch
{
namespace
{

bool takeScalar(JsonCursor &cursor, std::string &value)
{
    switch (cursor.peek()) {
    case '{':
    case '[':
        cursor.container();
        return false;
    case '"':
        return decodeJsonText(cursor.string(), value);
    default:
        value = cursor.scalar();
        return value != "null";
    }
}

void pass(JsonCursor &cursor)
{
    std::string passed;
    takeScalar(cursor, passed);
}

} // namespace

bool topLevelScalar(std::string_view object, std::string_view name, std::string &value)
{
    bool isFound = false;
    try {
        JsonStructure structure;
        structure.extend(object.data(), object.size());
        JsonCursor cursor(object, structure, 0);
        cursor.take('{');
        std::string_view memberName;
        for (bool isFirst = true; cursor.nextMember(isFirst, memberName); isFirst = false)
            if (memberName == name)
                isFound = takeScalar(cursor, value);
            else
                pass(cursor);
    } catch (const JsonError &) {
        return false;
    } catch (const JsonNeedsMore &) {
        return false;
    }
    return isFound;
}

} // namespace zq::elasticsearch
