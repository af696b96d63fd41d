// A search cluster: where it is, and how it is spoken to.
#pragma once

#include "http/settings.h"

#include <string>

namespace qm::search
{

struct Cluster {
    std::string url; // scheme, host, port and prefix, without a slash at the end; no credentials
    http::Settings settings;
};

} // namespace qm::search
