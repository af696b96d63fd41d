// What the check functions report: a row for each thing that was looked at.
#pragma once

#include "functions/resultRows.h"

#include <string>

namespace qm::functions
{

// Unknown: it could not be told.
enum class Verdict { Fine, Wrong, Unknown };

// Takes texts in the encoding of the database; bytes that are none of it are shown as "?". All but the
// constructor throw ServerError only, for a cancel too.
class Report
{
public:
    // Throws as ResultRows does.
    explicit Report(FunctionCallInfo call);

    void add(Verdict verdict, const std::string &what, const std::string &detail,
             const std::string &hint = "");
    void fine(const std::string &what, const std::string &detail) { add(Verdict::Fine, what, detail); }
    void wrong(const std::string &what, const std::string &detail, const std::string &hint)
    {
        add(Verdict::Wrong, what, detail, hint);
    }
    void wrong(const std::string &what, const server::FdwError &error);

    // Runs check(). An FdwError of it becomes a row, and the result false; but one of a lack of privilege
    // goes on.
    template <typename Check>
    bool survives(const std::string &what, Check &&check)
    {
        try {
            check();
            return true;
        } catch (const server::FdwError &error) {
            if (error.sqlState == ERRCODE_INSUFFICIENT_PRIVILEGE)
                throw;
            wrong(what, error);
            return false;
        }
    }

private:
    ResultRows rows;
};

} // namespace qm::functions
