// The recorded answers of a real Elasticsearch in tests/data/recordings.
#pragma once

#include <string>
#include <vector>

struct Recording {
    std::string name; ///< the file's name without its extension
    std::string text; ///< the exact text of the answer
};

/// All recordings, by name. Throws std::runtime_error when some are missing.
const std::vector<Recording> &recordings();
