// The values of the conditions that the search carries out.
#include "server/errorBoundary.h"

#include "elasticsearch/jsonString.h"
#include "extension/conditionValues.h"
#include "server/encoding.h"
#include "server/memory.h"

#include <algorithm>
#include <unordered_set>

namespace qm::extension
{

using server::callServer;

namespace
{

// The most bytes that an id may have.
constexpr std::size_t LongestId = 512;

const char *utf8Of(Datum value) { return server::serverToUtf8(TextDatumGetCString(value)); }

// [server side] The value of an expression as texts, without NULLs.
TextList evaluate(ExprState *state, ExprContext *context, bool isArray)
{
    bool isNull = false;
    const Datum value = ExecEvalExpr(state, context, &isNull);
    return isNull ? TextList{nullptr, 0} : textsOf(value, isArray);
}

// [server side] The value of an expression for a comparison with a column of the type.
SearchValues searchValues(ExprState *state, ExprContext *context, Oid columnType)
{
    bool isNull = false;
    const Datum value = ExecEvalExpr(state, context, &isNull);
    return searchValuesOf(value, isNull, exprType(reinterpret_cast<Node *>(state->expr)), columnType);
}

// Takes each value once, in order.
std::vector<std::string> withoutRepetitions(std::vector<std::string> values)
{
    std::unordered_set<std::string> seen;
    const auto end = std::remove_if(values.begin(), values.end(),
                                    [&](const std::string &value) { return !seen.insert(value).second; });
    values.erase(end, values.end());
    return values;
}

// The ids that are in both.
void intersect(std::optional<std::vector<std::string>> &ids, std::vector<std::string> others)
{
    if (!ids) {
        ids = std::move(others);
        return;
    }
    const std::unordered_set<std::string> known(others.begin(), others.end());
    const auto end =
        std::remove_if(ids->begin(), ids->end(), [&](const std::string &id) { return known.count(id) == 0; });
    ids->erase(end, ids->end());
}

} // namespace

bool canBeId(const std::string &id)
{
    return !id.empty() && id.size() <= LongestId && zq::elasticsearch::isValidUtf8(id);
}

void addCondition(ConditionValues &values, Role role, std::vector<std::string> texts)
{
    if (role == Role::Param) {
        values.params = std::move(texts);
        return;
    }
    // What no document can be called finds nothing.
    const auto end =
        std::remove_if(texts.begin(), texts.end(), [](const std::string &text) { return !canBeId(text); });
    texts.erase(end, texts.end());
    intersect(values.ids, withoutRepetitions(std::move(texts)));
}

void addFilter(ConditionValues &values, const Filter &filter)
{
    if (filter.reach == Filter::Reach::Nothing)
        values.findsNothing = true;
    else if (filter.reach == Filter::Reach::Some)
        values.filters.push_back(filter.json);
}

TextList textsOf(Datum value, bool isArray)
{
    if (!isArray) {
        auto *one = static_cast<const char **>(palloc(sizeof(const char *)));
        *one = utf8Of(value);
        return {one, 1};
    }
    Datum *elements = nullptr;
    bool *nulls = nullptr;
    int count = 0;
    deconstruct_array(DatumGetArrayTypeP(value), TEXTOID, -1, false, 'i', &elements, &nulls, &count);
    auto **texts = static_cast<const char **>(
        MemoryContextAllocHuge(CurrentMemoryContext, (static_cast<Size>(count) + 1) * sizeof(const char *)));
    int kept = 0;
    for (int i = 0; i < count; ++i)
        if (!nulls[i])
            texts[kept++] = utf8Of(elements[i]);
    return {texts, kept};
}

ConditionValues evaluateConditions(List *conditions, List *expressions, ExprContext *context,
                                   const std::vector<Column> &columns)
{
    server::MemoryContextScope scope(context->ecxt_per_tuple_memory);
    ConditionValues values;
    int next = 0;
    const auto takeExpression = [&] { return static_cast<ExprState *>(list_nth(expressions, next++)); };
    ListCell *cell;
    foreach (cell, conditions) {
        const Condition condition = unpackCondition(static_cast<List *>(lfirst(cell)));
        if (condition.role == Role::Field) {
            addFilter(values,
                      filterOfTree(condition.tree, columns, [&](const Column &column, Comparator comparator) {
                          ExprState *state = takeExpression();
                          const SearchValues found =
                              callServer([&] { return searchValues(state, context, column.type); });
                          return fieldFilter(column, comparator, found);
                      }));
            continue;
        }
        std::vector<std::string> texts;
        ListCell *isArray;
        foreach (isArray, condition.arrays) {
            ExprState *state = takeExpression();
            const TextList found =
                callServer([&] { return evaluate(state, context, lfirst_int(isArray) != 0); });
            texts.insert(texts.end(), found.begin(), found.end());
        }
        addCondition(values, condition.role, std::move(texts));
    }
    values.findsNothing = values.findsNothing || (values.ids && values.ids->empty()) ||
                          (values.params && values.params->empty());
    return values;
}

} // namespace qm::extension
