// probe_boundary(kind text, times integer) returns integer: lets each kind of failure cross the error
// boundary, with objects alive on the C++ side, `times` times caught on the way and once into the server;
// returns, without a failure, how many of those objects were never destroyed.
#include "server/errorBoundary.h"

#include "probe.h"

#include <new>
#include <stdexcept>
#include <string>

extern "C" {
PG_MODULE_MAGIC;
}

using qm::server::callServer;
using qm::server::FdwError;
using qm::server::ServerError;

namespace
{

int alive = 0;

// Counts itself, and owns memory that a jump over its destructor would leak.
struct Witness {
    Witness() : memory(1000, 'x') { ++alive; }
    ~Witness() { --alive; }
    std::string memory;
};

void fail(const std::string &kind)
{
    Witness outer;
    if (kind == "fdw error")
        throw FdwError(ERRCODE_FDW_INVALID_HANDLE, std::string("own failure, cut inside a character: \xC3"));
    if (kind == "out of memory")
        throw std::bad_alloc();
    if (kind == "standard exception")
        throw std::logic_error("broken invariant");
    if (kind == "foreign exception")
        throw 42;
    if (kind == "server error")
        callServer([] { ereport(ERROR, (errcode(ERRCODE_DIVISION_BY_ZERO), errmsg("server's own"))); });
    if (kind == "nested server error") {
        // An error on the way out of a handler of another one.
        try {
            callServer([] { elog(ERROR, "first"); });
        } catch (const ServerError &) {
            Witness inner;
            callServer([] { DirectFunctionCall1(float4in, CStringGetDatum("null")); });
        }
    }
}

} // namespace

PROBE(probe_boundary)
{
    return qm::server::guardEntry([&] {
        const std::string kind = callServer([&] { return text_to_cstring(PG_GETARG_TEXT_PP(0)); });
        for (int i = 0; i < PG_GETARG_INT32(1); ++i) {
            try {
                fail(kind);
            } catch (...) {
            }
        }
        fail(kind);
        return Int32GetDatum(alive);
    });
}
