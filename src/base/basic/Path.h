// Splitting a path into its directory and its last name, without touching
// the file system.
#ifndef OVRA_BASE_BASIC_PATH_H
#define OVRA_BASE_BASIC_PATH_H

#include <string>

namespace OvraBase {
namespace Basic {

// "a/b/c" -> "a/b", "/c" -> "/", "c" -> ".".
std::string DirectoryOf(const std::string& path);

// "a/b/c" -> "c", "c" -> "c", "a/" -> "".
std::string LastName(const std::string& path);

}  // namespace Basic
}  // namespace OvraBase

#endif  // OVRA_BASE_BASIC_PATH_H
