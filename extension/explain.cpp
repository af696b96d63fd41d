// What EXPLAIN tells of a scan.
#include "server/errorBoundary.h"

#include "extension/explain.h"
#include "extension/requestOfScan.h"
#include "extension/scan.h"
#include "search/failure.h"
#include "server/encoding.h"

namespace qm::extension
{

using server::callServer;
using server::guardEntry;

namespace
{

// The values of one condition: known ones, in UTF-8, and how the server writes those that are known when the
// scan starts only.
struct ShownValues {
    Role role;
    std::vector<std::string> constants;
    std::string expressions;
};

// [server side] How the server writes an expression of the plan, in UTF-8.
const char *deparsed(ForeignScanState *node, ExplainState *state, Node *expression)
{
    List *context = server::deparseContextOf(state, &node->ss.ps);
    return server::serverToUtf8(
        deparse_expression(expression, context, list_length(state->rtable) > 1, false));
}

bool isConstantText(const Node *expression)
{
    return IsA(expression, Const) && !reinterpret_cast<const Const *>(expression)->constisnull &&
           reinterpret_cast<const Const *>(expression)->consttype == TEXTOID;
}

// A constant array is shown by its elements, like the values that it stands for.
bool isConstantArray(const Node *expression)
{
    return IsA(expression, Const) && !reinterpret_cast<const Const *>(expression)->constisnull &&
           reinterpret_cast<const Const *>(expression)->consttype == TEXTARRAYOID;
}

std::vector<ShownValues> shownValues(ForeignScanState *node, ExplainState *state, const PlanData &plan)
{
    List *expressions = reinterpret_cast<ForeignScan *>(node->ss.ps.plan)->fdw_exprs;
    std::vector<ShownValues> conditions;
    int next = 0;
    ListCell *cell;
    foreach (cell, plan.conditions) {
        auto *numbers = static_cast<List *>(lfirst(cell));
        ShownValues shown{static_cast<Role>(linitial_int(numbers)), {}, {}};
        for (int i = 1; i < list_length(numbers); ++i) {
            auto *expression = static_cast<Node *>(list_nth(expressions, next++));
            if (isConstantText(expression) || isConstantArray(expression)) {
                const Datum value = reinterpret_cast<Const *>(expression)->constvalue;
                const TextList texts =
                    callServer([&] { return textsOf(value, isConstantArray(expression)); });
                shown.constants.insert(shown.constants.end(), texts.begin(), texts.end());
            } else {
                const char *text = callServer([&] { return deparsed(node, state, expression); });
                shown.expressions += (shown.expressions.empty() ? "" : ", ") + std::string(text);
            }
        }
        conditions.push_back(std::move(shown));
    }
    return conditions;
}

// The request that the scan begins with as far as it is known, with expressions between angle brackets where
// values are not.
http::Request shownRequest(ForeignScanState *node, ExplainState *state, const TableOptions &options)
{
    const PlanData plan = callServer(
        [&] { return unpackPlanData(reinterpret_cast<ForeignScan *>(node->ss.ps.plan)->fdw_private); });
    ConditionValues values;
    std::vector<std::string> filters;
    std::string unknownQuery;
    bool hasUnknownIds = false;
    for (const ShownValues &shown : shownValues(node, state, plan)) {
        const std::string unknown = "<" + shown.expressions + ">";
        if (shown.expressions.empty()) {
            addCondition(values, shown.role, shown.constants);
        } else if (shown.role == Role::Param) {
            unknownQuery = unknown;
        } else if (shown.role == Role::DocName) {
            hasUnknownIds = true;
            filters.push_back(R"({"ids":{"values":[)" + unknown + "]}}");
        } else {
            filters.push_back(R"({"terms":{"type":[)" + unknown + "]}}");
        }
    }
    const Parameters parameters = readParameters(values.params.value_or(std::vector<std::string>()));
    search::SearchRequest request = requestOfScan(options, columnsOfScan(node, plan), parameters, values);
    if (!unknownQuery.empty())
        request.query = unknownQuery;
    request.filters.insert(request.filters.end(), filters.begin(), filters.end());
    search::Paging paging = pagingOfScan(options, plan, parameters);
    if (hasUnknownIds) {
        if (request.ids)
            request.filters.push_back(search::idFilter(*request.ids));
        request.ids.reset();
        paging.isSmall = true;
    }
    return search::firstRequest(options.cluster, request, paging);
}

void showRequest(ForeignScanState *node, ExplainState *state)
{
    const TableOptions options = readTableOptions(server::entryOfScan(node)->relid);
    const http::Request first = shownRequest(node, state, options);
    const std::string line = search::describe(first);
    callServer([&] {
        ExplainPropertyText("Search", server::utf8ToMessage(line.c_str()), state);
        ExplainPropertyText("Body", server::utf8ToMessage(first.body.c_str()), state);
    });
}

// [server side] The server names a relation that it opens, and a count has none.
void showCounted(ForeignScanState *node, ExplainState *state)
{
    const Oid table = server::entryOfScan(node)->relid;
    const char *name = get_rel_name(table);
    name = state->verbose ? quote_qualified_identifier(get_namespace_name(get_rel_namespace(table)), name)
                          : quote_identifier(name);
    ExplainPropertyText("Count of", name, state);
}

void showStatistics(const search::Statistics &spent, ExplainState *state)
{
    ExplainPropertyInteger("Requests", nullptr, spent.requests, state);
    ExplainPropertyInteger("Pages", nullptr, spent.pages, state);
    ExplainPropertyInteger("Hits", nullptr, spent.hits, state);
    ExplainPropertyInteger("Bytes Received", nullptr, spent.bytes, state);
    if (state->timing)
        ExplainPropertyFloat("Waited", "ms", spent.waitedMs, 3, state);
}

} // namespace

void explainForeignScan(ForeignScanState *node, ExplainState *state)
{
    guardEntry([&] {
        if (!node->ss.ss_currentRelation)
            callServer([&] { showCounted(node, state); });
        if (state->verbose)
            showRequest(node, state);
        if (!state->analyze)
            return;
        const search::Statistics spent = statisticsOf(node);
        callServer([&] { showStatistics(spent, state); });
    });
}

} // namespace qm::extension
