// libFuzzer's way into the target FUZZ_TARGET.
#include "targets.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const std::string fault = FUZZ_TARGET(std::string_view(reinterpret_cast<const char *>(data), size));
    if (!fault.empty()) {
        std::fprintf(stderr, "%s\n", fault.c_str());
        std::abort();
    }
    return 0;
}
