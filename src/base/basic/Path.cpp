// Splitting a path into its directory and its last name.
#include "basic/Path.h"

namespace OvraBase {
namespace Basic {

std::string DirectoryOf(const std::string& path)
{
    const std::string::size_type slash = path.find_last_of('/');
    if (slash == std::string::npos) {
        return ".";
    }
    return slash == 0 ? std::string("/") : path.substr(0, slash);
}

std::string LastName(const std::string& path)
{
    const std::string::size_type slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

}  // namespace Basic
}  // namespace OvraBase
