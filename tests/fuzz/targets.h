// What is fuzzed. Each target takes one input and tells what is wrong with what the code under test made of
// it; what is returned is empty when nothing is.
#pragma once

#include <string>
#include <string_view>

// The streaming readers against the reference readers. The first byte of the input says how many of the next
// bytes are sizes of chunks (0 to 15), which are used in turn; without sizes the text behind them stays
// whole.
std::string searchReader(std::string_view input);
std::string termAggReader(std::string_view input);
// The exact reader against its reference reader, with fields to look for and without; the input is as above.
// The text is taken for a source too.
std::string searchResponse(std::string_view input);
// The decoders of strings; the input is what stands between the quotes.
std::string idDecoder(std::string_view input);
// The encoder of JSON strings; the input is the text.
std::string jsonEscaper(std::string_view input);
// The parser of one param value; the input is the value.
std::string params(std::string_view input);
