// RapidJSON with SSE2, in a namespace of its own: the library makes that choice for a whole program.
#ifdef __SSE2__

#define RAPIDJSON_NAMESPACE rapidjsonSse2
#define RAPIDJSON_SSE2
#include "rapidJsonSax.h"

std::vector<veltrane::bench::Contestant> veltrane::bench::rapidJsonSse2Readers()
{
    return {rapidJsonSax("RapidJSON SAX, SSE2")};
}

#else

#include "contestants.h"

std::vector<veltrane::bench::Contestant> veltrane::bench::rapidJsonSse2Readers() { return {}; }

#endif
