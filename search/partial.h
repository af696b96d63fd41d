// Responses that lack what shards should have brought.
#pragma once

#include "elasticsearch/searchResponseReader.h"
#include "http/exchange.h"

namespace qm::search
{

// What becomes of a response that lacks hits because shards failed or time ran out.
enum class PartialResults { Error, Warning };

// Makes sure that nothing is lacking. Throws FdwError, or warns where that is enough; ServerError.
void checkWhole(const zq::elasticsearch::SearchResponseReader &response, const http::Request &request,
                PartialResults partialResults);

} // namespace qm::search
