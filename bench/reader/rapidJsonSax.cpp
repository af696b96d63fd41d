// RapidJSON as it comes.
#include "rapidJsonSax.h"

std::vector<veltrane::bench::Contestant> veltrane::bench::rapidJsonReaders()
{
    return {rapidJsonSax("RapidJSON SAX")};
}
