// Whole-buffer reads and writes on a descriptor, retried after EINTR.
#ifndef OVRA_BASE_BASIC_IO_H
#define OVRA_BASE_BASIC_IO_H

#include <sys/types.h>

#include <cstddef>

namespace OvraBase {
namespace Basic {

// Writes all `length` bytes. false on any error (errno tells which) or when
// the descriptor accepts no more bytes.
bool WriteFull(int fd, const void* data, std::size_t length);

// Reads until `capacity` bytes are in or the end of the file is reached;
// `filled` is the count read. false on a read error (errno tells which).
bool ReadFull(int fd, void* data, std::size_t capacity, std::size_t& filled);

// Copies every remaining byte of `from` to `to` through a block buffer that
// is wiped before it is released (the bytes may be key material).
bool CopyAll(int from, int to);

// fsync of a directory, so that a rename or unlink in it is durable.
bool SyncDirectory(const char* directory);

}  // namespace Basic
}  // namespace OvraBase

#endif  // OVRA_BASE_BASIC_IO_H
