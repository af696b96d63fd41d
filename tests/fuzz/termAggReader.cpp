#include "chunkedText.h"
#include "targets.h"
#include "termAggTranscript.h"

std::string termAggReader(std::string_view input) { return termAggDisagreement(chunksOf(input)); }
