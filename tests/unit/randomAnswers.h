// Random texts of the pieces that matter to the readers; mostly malformed.
#pragma once

#include <random>
#include <string>

/// Makes one text. The same state of the generator gives the same text.
std::string randomAnswer(std::mt19937 &random);

/// A number from 0 to `limit` - 1; the same on every platform.
inline unsigned below(unsigned limit, std::mt19937 &random)
{
    return static_cast<unsigned>(random() % limit);
}
