// Text of an SDK result code, for appending to a log message.
#include "OvraBase/ErrorInfo.h"

#include "ResultCode/ResultCode.h"

namespace OvraBase {
namespace {

// Row of the common table that describes `code`, or -1 when the code belongs
// to no family with a table. The common numbering has one code more than the
// table has rows: up to 1016 code and row agree, from 1017 on the row is one
// lower (1020 read failure, 1021 write failure, 1029 invalid path).
int32_t CommonRow(int32_t code)
{
    constexpr int32_t lastDirect = APP_ERR_COMMON_BASE + 16;
    if (code == APP_ERR_OK) {
        return 0;
    }
    if (code >= APP_ERR_COMMON_BASE && code <= lastDirect) {
        return code - APP_ERR_COMMON_BASE;
    }
    if (code > lastDirect && code <= APP_ERR_COMMON_LAST) {
        return code - APP_ERR_COMMON_BASE - 1;
    }
    return -1;
}

}  // namespace

std::string GetErrorInfo(int32_t code, const std::string& moduleName)
{
    std::string text = moduleName.empty() ? std::string(" Error code: ")
                                          : " Module: " + moduleName + ", error code: ";
    text += std::to_string(code);
    const int32_t row = CommonRow(code);
    if (row < 0 || row >= APP_ERR_COMMON_ROWS) {
        return text + ", error message: unknown error code";
    }
    return text + ", error message: " + APP_ERR_COMMON_MSG[row];
}

}  // namespace OvraBase
