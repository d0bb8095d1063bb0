// Bounds for buffers that hold whole files or other caller-sized data.
#include "OvraBase/MemoryHelper.h"

#include "ResultCode/ResultCode.h"

namespace OvraBase {

int32_t MemoryHelper::CheckDataSize(int64_t size)
{
    if (size < 0 || size > MAX_DATA_SIZE) {
        return APP_ERR_INVALID_PARAM;
    }
    return APP_ERR_OK;
}

}  // namespace OvraBase
