// Answers made by hand, good and bad, some with what a reader must make of them.
#pragma once

#include "readerPair.h"

#include <optional>
#include <string>
#include <vector>

struct HandMadeAnswer {
    std::string name;
    std::string text;
    std::optional<Outcome> expected;
};

const std::vector<HandMadeAnswer> &handMadeAnswers();
