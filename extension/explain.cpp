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

// What is known of the conditions without a scan: values where they are constants, and how the server writes
// the expressions where they are known when the scan starts only.
class ShownConditions
{
public:
    ShownConditions(ForeignScanState *node, ExplainState *state, std::vector<Column> columns)
        : node(node), state(state), columns(std::move(columns)),
          expressions(reinterpret_cast<ForeignScan *>(node->ss.ps.plan)->fdw_exprs)
    {
    }

    void add(const Condition &condition);

    ConditionValues values;
    std::string unknownQuery;
    bool hasUnknownIds = false;

private:
    Node *takeExpression() { return static_cast<Node *>(list_nth(expressions, next++)); }
    std::string unknown(Node *expression)
    {
        return "<" + std::string(callServer([&] { return deparsed(node, state, expression); })) + ">";
    }
    Filter fieldFilterOf(const Column &column, Comparator comparator);
    void addTexts(const Condition &condition);

    ForeignScanState *const node;
    ExplainState *const state;
    const std::vector<Column> columns;
    List *const expressions;
    int next = 0;
};

Filter ShownConditions::fieldFilterOf(const Column &column, Comparator comparator)
{
    Node *expression = takeExpression();
    if (!IsA(expression, Const))
        return unknownFilter(column, comparator, unknown(expression));
    const auto *constant = reinterpret_cast<const Const *>(expression);
    const SearchValues found = callServer([&] {
        return searchValuesOf(constant->constvalue, constant->constisnull, constant->consttype, column.type);
    });
    return fieldFilter(column, comparator, found);
}

void ShownConditions::addTexts(const Condition &condition)
{
    std::vector<std::string> constants;
    std::string unknowns;
    for (int i = 0; i < list_length(condition.arrays); ++i) {
        Node *expression = takeExpression();
        if (isConstantText(expression) || isConstantArray(expression)) {
            const Datum value = reinterpret_cast<Const *>(expression)->constvalue;
            const TextList texts = callServer([&] { return textsOf(value, isConstantArray(expression)); });
            constants.insert(constants.end(), texts.begin(), texts.end());
        } else {
            unknowns += (unknowns.empty() ? "" : ", ") + unknown(expression);
        }
    }
    if (unknowns.empty()) {
        addCondition(values, condition.role, constants);
    } else if (condition.role == Role::Param) {
        unknownQuery = unknowns;
    } else {
        hasUnknownIds = true;
        values.filters.push_back(R"({"ids":{"values":[)" + unknowns + "]}}");
    }
}

void ShownConditions::add(const Condition &condition)
{
    if (condition.role != Role::Field)
        return addTexts(condition);
    addFilter(values, filterOfTree(condition.tree, columns, [&](const Column &column, Comparator comparator) {
                  return fieldFilterOf(column, comparator);
              }));
}

// The request that the scan begins with, to the first node, as far as it is known, with expressions between
// angle brackets where values are not.
http::Request shownRequest(ForeignScanState *node, ExplainState *state, const TableOptions &options)
{
    const PlanData plan = callServer(
        [&] { return unpackPlanData(reinterpret_cast<ForeignScan *>(node->ss.ps.plan)->fdw_private); });
    const std::vector<Column> columns = columnsOfScan(node, plan);
    ShownConditions shown(node, state, columns);
    ListCell *cell;
    foreach (cell, plan.conditions)
        shown.add(unpackCondition(static_cast<List *>(lfirst(cell))));
    const Parameters parameters = readParameters(shown.values.params.value_or(std::vector<std::string>()));
    search::SearchRequest request = requestOfScan(options, columns, parameters, shown.values);
    if (!shown.unknownQuery.empty())
        request.query = shown.unknownQuery;
    search::Paging paging = pagingOfScan(options, plan, parameters);
    if (shown.hasUnknownIds) {
        if (request.ids)
            request.filters.push_back(search::idFilter(*request.ids));
        request.ids.reset();
        paging.isSmall = true;
    }
    http::Request first = search::firstRequest(request, paging);
    first.url = options.cluster.nodes.front() + first.url;
    return first;
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
    if (spent.retries > 0)
        ExplainPropertyInteger("Retries", nullptr, spent.retries, state);
    if (state->timing)
        ExplainPropertyFloat("Waited", "ms", spent.waitedMs, 3, state);
    if (state->timing && spent.deflatedMs > 0)
        ExplainPropertyFloat("Deflated", "ms", spent.deflatedMs, 3, state);
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
