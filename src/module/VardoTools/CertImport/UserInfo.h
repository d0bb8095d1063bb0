// Operator identity for the audit records of the import command.
#ifndef VARDO_TOOLS_CERT_IMPORT_USER_INFO_H
#define VARDO_TOOLS_CERT_IMPORT_USER_INFO_H

#include <string>

#include "OvraBase/Export.h"

namespace OvraStream {

// " by user: [u] with hostname: [h] at r", each part left out when unknown;
// empty when the user or host name cannot be obtained.
OVRA_EXPORT std::string GetUserInfo();

// Remote host of the controlling terminal's login session, "localhost" when
// none is recorded, empty when standard input is not a usable terminal.
OVRA_EXPORT std::string GetUserHostName();

}  // namespace OvraStream

#endif  // VARDO_TOOLS_CERT_IMPORT_USER_INFO_H
