// What a small query costs in a warm backend, beside its plain request.
//
//   smallQueries CONNINFO STATEMENT ROWS URL BODY REPEATS
//
// Prepares the statement, which must give that many rows, and runs it in turn with the plain request: blocks
// of the one, the other, the other on a kept connection, and of a statement that asks for nothing, which
// tells what the PostgreSQL server itself takes. Prints the medians as JSON.
#include "plainClient.h"
#include "stopwatch.h"

#include <cstdio>
#include <libpq-fe.h>
#include <stdexcept>

namespace veltrane::bench
{
namespace
{

constexpr int RunsOfABlock = 50;
constexpr int Binary = 1;
const char *const StatementName = "small";

class Session
{
public:
    Session(const char *connInfo, const char *statement, int rows)
        : connection(PQconnectdb(connInfo)), rows(rows)
    {
        expect(PQprepare(connection.get(), StatementName, statement, 0, nullptr), PGRES_COMMAND_OK);
    }

    void runOnce()
    {
        const Result result =
            expect(PQexecPrepared(connection.get(), StatementName, 0, nullptr, nullptr, nullptr, Binary),
                   PGRES_TUPLES_OK);
        if (PQntuples(result.get()) != rows)
            throw std::runtime_error(std::to_string(PQntuples(result.get())) + " rows");
    }

private:
    struct Clear {
        void operator()(PGresult *result) const { PQclear(result); }
        void operator()(PGconn *connection) const { PQfinish(connection); }
    };
    using Result = std::unique_ptr<PGresult, Clear>;

    Result expect(PGresult *given, ExecStatusType status)
    {
        Result result(given);
        if (PQresultStatus(given) != status)
            throw std::runtime_error(PQerrorMessage(connection.get()));
        return result;
    }

    const std::unique_ptr<PGconn, Clear> connection;
    const int rows;
};

template <class Action>
void runBlock(std::vector<double> &milliseconds, const Action &action)
{
    for (int run = 0; run < RunsOfABlock; ++run) {
        const Stopwatch watch;
        action();
        milliseconds.push_back(watch.seconds() * 1000);
    }
}

void run(char **arguments)
{
    Session session(arguments[0], arguments[1], std::stoi(arguments[2]));
    const std::string url = arguments[3], body = arguments[4];
    const auto repeats = std::stoul(arguments[5]);
    PlainClient plain(false), plainReused(true);
    Session idle(arguments[0], "SELECT 1", 1);

    std::vector<double> query, fresh, reused, nothing;
    const auto runBlocks = [&] {
        runBlock(query, [&] { session.runOnce(); });
        runBlock(fresh, [&] { plain.send(url, body); });
        runBlock(reused, [&] { plainReused.send(url, body); });
        runBlock(nothing, [&] { idle.runOnce(); });
    };
    runBlocks(); // warms all of them
    for (std::vector<double> *const times : {&query, &fresh, &reused, &nothing})
        times->clear();
    while (query.size() < repeats)
        runBlocks();
    std::printf("{\"milliseconds\":%.4f,\"plain_milliseconds\":%.4f,\"plain_reused_milliseconds\":%.4f,"
                "\"nothing_milliseconds\":%.4f}\n",
                median(query), median(fresh), median(reused), median(nothing));
}

} // namespace
} // namespace veltrane::bench

int main(int count, char **arguments)
{
    try {
        if (count != 7)
            throw std::invalid_argument("smallQueries CONNINFO STATEMENT ROWS URL BODY REPEATS");
        veltrane::bench::run(arguments + 1);
        return 0;
    } catch (const std::exception &error) {
        std::fprintf(stderr, "smallQueries: %s\n", error.what());
        return 1;
    }
}
