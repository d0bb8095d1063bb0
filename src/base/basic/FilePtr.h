// Owner of a C stdio stream: fclose on every path. For the few places that
// must hand a FILE* to a C interface (OpenSSL's PEM readers, a file BIO).
#ifndef OVRA_BASE_BASIC_FILE_PTR_H
#define OVRA_BASE_BASIC_FILE_PTR_H

#include <cstdio>
#include <memory>

namespace OvraBase {
namespace Basic {

struct FileClose {
    void operator()(std::FILE* file) const noexcept { (void)std::fclose(file); }
};

using FilePtr = std::unique_ptr<std::FILE, FileClose>;

}  // namespace Basic
}  // namespace OvraBase

#endif  // OVRA_BASE_BASIC_FILE_PTR_H
