// RapidJSON's event parser, in the namespace and with the instructions that the including file has chosen.
#pragma once

#include "contestants.h"

#include <rapidjson/error/en.h>
#include <rapidjson/reader.h>

#include <stdexcept>

namespace veltrane::bench
{

namespace // each including file has its own
{

Contestant rapidJsonSax(const std::string &name)
{
    namespace json = RAPIDJSON_NAMESPACE;
    return {name, 0, [=](const Page &page) {
                json::Reader reader;
                json::StringStream stream(page.text.c_str());
                json::BaseReaderHandler<> handler;
                const json::ParseResult result = reader.Parse(stream, handler);
                if (result.IsError())
                    throw std::runtime_error(name + ": " + json::GetParseError_En(result.Code()));
            }};
}

} // namespace

} // namespace veltrane::bench
