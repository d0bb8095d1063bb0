// Bounds for buffers that hold whole files or other caller-sized data.
#ifndef OVRA_BASE_MEMORY_HELPER_H
#define OVRA_BASE_MEMORY_HELPER_H

#include <cstdint>

#include "OvraBase/Export.h"

namespace OvraBase {

class OVRA_EXPORT MemoryHelper {
public:
    // Largest buffer, in bytes, that CheckDataSize accepts.
    static constexpr int64_t MAX_DATA_SIZE = 4 * 1024 * 1024;

    // 0 when a buffer of `size` bytes is acceptable (0 .. MAX_DATA_SIZE: an
    // empty file is a size like any other, its callers judge its content);
    // APP_ERR_INVALID_PARAM for negative or larger sizes.
    static int32_t CheckDataSize(int64_t size);
};

}  // namespace OvraBase

#endif  // OVRA_BASE_MEMORY_HELPER_H
