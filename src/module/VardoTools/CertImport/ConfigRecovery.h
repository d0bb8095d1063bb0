// The recovery copy of streamserver.conf.
//
// The rewrite truncates the configuration in place and writes it again, up to
// five times per import; a kill or a full disk in between leaves it empty or
// cut short. So before the first truncation an import writes a copy of the
// file beside it, "<configuration>.recovery" (owner-only, synced), with the
// value of every server_key_mm setting emptied so that the copy never holds a
// cipher text, and removes it only after the last rewrite succeeded. A copy
// that is still there means an import was interrupted; the next import
// restores the configuration from it before it starts.
//
// A configuration is complete against its copy when it has every line of the
// copy at the same place, a line that the rewrite changes being allowed in
// each form the rewrite gives it (any server_key_mm value; a path line as it
// was or pointing into ./keys). Otherwise it "lacks lines the copy has".
#ifndef VARDO_TOOLS_CERT_IMPORT_CONFIG_RECOVERY_H
#define VARDO_TOOLS_CERT_IMPORT_CONFIG_RECOVERY_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace OvraStream {

// "<configPath>.recovery".
std::string RecoveryCopyPath(const std::string& configPath);

enum class RecoveryState {
    NO_COPY,     // nothing at the copy's path
    COMPLETE,    // a copy, and the configuration holds every line of it
    INCOMPLETE,  // a copy, and the configuration is empty, missing or lacks lines of it
    UNUSABLE,    // something at the copy's path that is not a regular owner-only file
                 // of this user, or either file cannot be read
};

// Compares the configuration with its recovery copy; writes no record.
RecoveryState InspectRecoveryCopy(const std::string& configPath);

// The shell command that restores the configuration from its copy by hand.
std::string RestoreCommand(const std::string& configPath);

// At the start of an import, before anything is written: removes temporary
// files of an interrupted copy, restores an incomplete configuration from its
// copy (WARNING record) or removes the copy of a complete one. 0; 1021 when
// the restore failed; 1001 when the copy cannot be used (ERROR records).
int32_t RecoverInterruptedImport(const std::string& configPath);

enum class InPlaceWrite { WRITTEN, OPEN_FAILED, WRITE_FAILED };

// Whether an in-place write is synced before the file is closed. LATER only
// while a recovery copy stands beside the file: the copy is then what a
// crash falls back on, and FinishRewrites syncs the file before removing it.
enum class RewriteSync { NOW, LATER };

// Truncates the existing file at `path` in place (never through a link,
// never creating it) and writes `length` bytes, synced before it is closed
// when `sync` says NOW. Shared by the rewrite and the restore: the old blocks
// are overwritten.
InPlaceWrite OverwriteInPlace(const std::string& path, const void* data, std::size_t length,
                              RewriteSync sync = RewriteSync::NOW);

// Writes the recovery copy of the configuration: atomically, owner-only,
// synced. 0, or 1021 with an ERROR record (the configuration is unchanged).
int32_t WriteRecoveryCopy(const std::string& configPath);

// After the last rewrite succeeded: syncs the configuration, then removes
// its recovery copy. 0, or 1019 with the ERROR record of a failed write when
// the sync fails (the copy stays for the next import). A failed removal is a
// WARNING (the next import removes the copy) and still 0.
int32_t FinishRewrites(const std::string& configPath);

// The ERROR record of a configuration that may be incomplete after a failed
// write, naming its recovery copy when there is one, and its code (1019).
int32_t ReportFailedWrite(const std::string& configPath);

}  // namespace OvraStream

#endif  // VARDO_TOOLS_CERT_IMPORT_CONFIG_RECOVERY_H
