// An input that says how it is to be cut into chunks.
#pragma once

#include <cstddef>
#include <string_view>
#include <vector>

/// The first byte says how many of the next bytes are sizes of chunks (0 to 15), which are used in turn until
/// the text that follows is at its end. Without sizes the text stays whole; a size of 0 stands for an empty
/// chunk, with one byte behind it so that there is an end.
inline std::vector<std::string_view> chunksOf(std::string_view input)
{
    std::vector<std::string_view> chunks;
    if (input.empty()) {
        return chunks;
    }
    const std::size_t sizeCount = static_cast<unsigned char>(input.front()) % 16;
    input.remove_prefix(1);
    const std::string_view sizes = input.substr(0, sizeCount);
    std::string_view text = input.substr(sizes.size());
    const auto take = [&](std::size_t size) {
        chunks.push_back(text.substr(0, size));
        text.remove_prefix(chunks.back().size());
    };
    for (std::size_t turn = 0; !text.empty(); ++turn) {
        const std::size_t size =
            sizes.empty() ? text.size() : static_cast<unsigned char>(sizes[turn % sizes.size()]);
        take(size);
        if (size == 0) {
            take(1);
        }
    }
    return chunks;
}
