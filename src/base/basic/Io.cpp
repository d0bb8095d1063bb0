// Whole-buffer reads and writes on a descriptor, retried after EINTR.
#include "basic/Io.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include "basic/SecretBuffer.h"
#include "basic/UniqueFd.h"

namespace OvraBase {
namespace Basic {
namespace {

constexpr std::size_t COPY_BLOCK = 64 * 1024;

}  // namespace

bool WriteFull(int fd, const void* data, std::size_t length)
{
    const auto* bytes = static_cast<const unsigned char*>(data);
    std::size_t done = 0;
    while (done < length) {
        const ssize_t n = write(fd, bytes + done, length - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            if (n == 0) {
                errno = ENOSPC;
            }
            return false;
        }
        done += static_cast<std::size_t>(n);
    }
    return true;
}

bool ReadFull(int fd, void* data, std::size_t capacity, std::size_t& filled)
{
    auto* bytes = static_cast<unsigned char*>(data);
    filled = 0;
    while (filled < capacity) {
        const ssize_t n = read(fd, bytes + filled, capacity - filled);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            return false;
        }
        if (n == 0) {
            break;
        }
        filled += static_cast<std::size_t>(n);
    }
    return true;
}

bool CopyAll(int from, int to)
{
    SecretBuffer block(COPY_BLOCK);
    if (block.Get() == nullptr) {
        errno = ENOMEM;
        return false;
    }
    for (;;) {
        std::size_t filled = 0;
        if (!ReadFull(from, block.Get(), block.Size(), filled)) {
            return false;
        }
        if (filled == 0) {
            return true;
        }
        if (!WriteFull(to, block.Get(), filled)) {
            return false;
        }
        if (filled < block.Size()) {
            return true;
        }
    }
}

bool SyncDirectory(const char* directory)
{
    UniqueFd fd(open(directory, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return fd.Valid() && fsync(fd.Get()) == 0;
}

}  // namespace Basic
}  // namespace OvraBase
