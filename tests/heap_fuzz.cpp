// The heap beside its model, with an input that looks for new ways through the code. The first byte says whether the
// heap has a chunk map.
#include "heap_driver.h"

#include <cstdio>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
    if (size == 0) { return 0; }
    const std::string difference = driveHeap({data + 1, size - 1}, data[0] % 2 == 1);
    if (!difference.empty()) {
        std::fprintf(stderr, "%s\n", difference.c_str());
        std::abort();
    }
    return 0;
}
