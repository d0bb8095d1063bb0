// Text of an SDK result code, for appending to a log message.
#ifndef OVRA_BASE_ERROR_INFO_H
#define OVRA_BASE_ERROR_INFO_H

#include <cstdint>
#include <string>

#include "OvraBase/Export.h"

namespace OvraBase {

// Describes `code` so that the text reads well directly after a message:
// it starts with its own separator and ends with the row text of the code's
// family table, verbatim (trailing blanks included). Common codes 1000..1016
// map to row code - 1000, codes 1017..1030 to row code - 1001 (so 1020 is the
// read failure, 1021 the write failure and 1029 "Invalid path"). A code outside
// every family gets a text that says so. `moduleName`, when not empty, is named
// in the text.
OVRA_EXPORT std::string GetErrorInfo(int32_t code, const std::string& moduleName);

}  // namespace OvraBase

#endif  // OVRA_BASE_ERROR_INFO_H
