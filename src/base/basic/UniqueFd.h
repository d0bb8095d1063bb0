// Owner of a POSIX file descriptor: closes it on every path.
#ifndef OVRA_BASE_BASIC_UNIQUE_FD_H
#define OVRA_BASE_BASIC_UNIQUE_FD_H

#include <unistd.h>

namespace OvraBase {
namespace Basic {

class UniqueFd {
public:
    explicit UniqueFd(int fd = -1) noexcept : fd_(fd) {}
    ~UniqueFd() { (void)Close(); }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    UniqueFd(UniqueFd&& other) noexcept : fd_(other.Release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept
    {
        if (this != &other) {
            (void)Close();
            fd_ = other.Release();
        }
        return *this;
    }

    int Get() const noexcept { return fd_; }
    bool Valid() const noexcept { return fd_ >= 0; }

    // Gives up ownership without closing.
    int Release() noexcept
    {
        const int fd = fd_;
        fd_ = -1;
        return fd;
    }

    // Closes now and reports whether close itself succeeded (it may report a
    // late write error); true when nothing was open.
    bool Close() noexcept
    {
        const int fd = Release();
        return fd < 0 || close(fd) == 0;
    }

private:
    int fd_;
};

}  // namespace Basic
}  // namespace OvraBase

#endif  // OVRA_BASE_BASIC_UNIQUE_FD_H
