// What the check functions report.
#include "functions/checkReport.h"
#include "server/encoding.h"

namespace qm::functions
{
namespace
{

enum Column { Ok, What, Detail, Hint, ColumnCount };

// [server side]
Datum textOf(const std::string &text)
{
    char *copy = pstrdup(text.c_str());
    server::replaceInvalidBytes(copy);
    return CStringGetTextDatum(copy);
}

} // namespace

Report::Report(FunctionCallInfo call) : rows(call, ColumnCount) {}

void Report::add(Verdict verdict, const std::string &what, const std::string &detail, const std::string &hint)
{
    rows.add([&](ResultRows::Row &row) {
        if (verdict != Verdict::Unknown)
            row.set(Ok, BoolGetDatum(verdict == Verdict::Fine));
        row.set(What, textOf(what));
        row.set(Detail, textOf(detail));
        if (!hint.empty())
            row.set(Hint, textOf(hint));
    });
}

void Report::wrong(const std::string &what, const server::FdwError &error)
{
    wrong(what, error.message + (error.detail.empty() ? "" : ": " + error.detail), error.hint);
}

} // namespace qm::functions
