// The rows that an SQL function returns.
#pragma once

#include "server/errorBoundary.h"

#include <array>
#include <string_view>

namespace qm::functions
{

// Rows on their way to the server, which keeps them all: in memory up to work_mem, beyond that in a file.
class ResultRows
{
public:
    static constexpr int MostColumns = 8;

    // [server side] The values of a row, all NULL as long as they are not set.
    class Row
    {
    public:
        void set(int column, Datum value);
        // A text, and JSON, of UTF-8 in the encoding of the database.
        void setText(int column, std::string_view utf8);
        void setJson(int column, std::string_view utf8);

    private:
        friend class ResultRows;
        std::array<Datum, MostColumns> values;
        std::array<bool, MostColumns> nulls;
    };

    // Throws FdwError where the function is not declared with so many columns, ServerError where the caller
    // takes no rows.
    ResultRows(FunctionCallInfo call, int columns);

    // Adds a row, once `fill` has set its values; that is a body for callServer. Throws ServerError, for a
    // cancel too.
    template <typename Fill>
    void add(Fill &&fill)
    {
        server::callServer([&] {
            Row row;
            const MemoryContext caller = begin(row);
            fill(row);
            end(row, caller);
        });
    }

private:
    MemoryContext begin(Row &row);
    void end(Row &row, MemoryContext caller);

    TupleDesc descriptor = nullptr;
    Tuplestorestate *store = nullptr;
    MemoryContext rowContext = nullptr;
};

} // namespace qm::functions
