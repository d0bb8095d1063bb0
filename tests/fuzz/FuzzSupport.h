// Shared by the fuzz targets: a property check that stops the run (libFuzzer
// then keeps the input), a scratch directory removed at exit, whole-file
// helpers, and the logs kept quiet (records of refused input are expected).
#ifndef VARDO_TEST_FUZZ_FUZZ_SUPPORT_H
#define VARDO_TEST_FUZZ_FUZZ_SUPPORT_H

#include <fcntl.h>
#include <glog/logging.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#define FUZZ_CHECK(condition)                                                                        \
    do {                                                                                             \
        if (!(condition)) {                                                                          \
            std::fprintf(stderr, "%s:%d: property broken: %s\n", __FILE__, __LINE__, #condition);   \
            std::abort();                                                                            \
        }                                                                                            \
    } while (0)

namespace VardoFuzz {

// A new owner-only directory, in /dev/shm when there is one (no disk syncs),
// removed with its contents when the process exits (the path is never
// destroyed: the exit handler runs after static destructors).
inline const std::string& ScratchDirectory()
{
    static const std::string& path = *new std::string([] {
        std::string pattern = (access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp") + std::string("/vardo-fuzz-XXXXXX");
        if (mkdtemp(&pattern[0]) == nullptr) {
            std::perror("mkdtemp");
            std::abort();
        }
        std::atexit([] {
            std::error_code ignored;
            std::filesystem::remove_all(ScratchDirectory(), ignored);
        });
        return pattern;
    }());
    return path;
}

inline void QuietLogs() { FLAGS_minloglevel = google::GLOG_FATAL; }

inline void WriteFile(const std::string& path, const uint8_t* data, std::size_t size)
{
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    FUZZ_CHECK(fd >= 0 && (size == 0 || write(fd, data, size) == static_cast<ssize_t>(size)) && close(fd) == 0);
}

inline std::string ReadFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// The lines of `text` split at line feeds (n line feeds give n + 1 lines).
inline std::vector<std::string> Lines(const std::string& text)
{
    std::vector<std::string> lines(1);
    for (const char c : text) {
        if (c == '\n') {
            lines.emplace_back();
        } else {
            lines.back() += c;
        }
    }
    return lines;
}

}  // namespace VardoFuzz

#endif  // VARDO_TEST_FUZZ_FUZZ_SUPPORT_H
