// Read-only look at a pair of key store files, for operators (vardo-keys),
// and the vocabulary the engine itself uses for the two copies: their health
// and which of them is the source of the keys.
//
// Unlike VeInitialize the look never repairs or creates anything, so it shows
// a damaged copy as damaged. It takes the store lock file shared (when one
// exists) so that it never reads a half-finished change. No key bytes leave
// the library through it.
#ifndef VARDO_KMS_KEY_STORE_REPORT_H
#define VARDO_KMS_KEY_STORE_REPORT_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "OvraBase/Export.h"

namespace VardoKms {

// What one copy looked like when read.
enum class CopyHealth { HEALTHY, MISSING, DAMAGED, UNSAFE, UNREADABLE };

// Lower-case name of a health ("healthy", "missing", "damaged", "unsafe",
// "unreadable"), for records and printed reports only.
OVRA_EXPORT const char* HealthText(CopyHealth health) noexcept;

// The copy whose keys count.
enum class SourceCopy { PRIMARY, STANDBY, NONE };

// The newest healthy copy wins: the healthy copy of the higher generation,
// the primary when both are healthy and of one generation, NONE when neither
// is healthy. The engine takes its keys from it (and rebuilds the other copy
// from it); vardo-keys shows its keys.
OVRA_EXPORT SourceCopy NewestHealthyCopy(CopyHealth primaryHealth, uint64_t primaryGeneration,
                                         CopyHealth standbyHealth, uint64_t standbyGeneration) noexcept;

struct MasterKeyReport {
    uint32_t domainId = 0;
    uint32_t keyId = 0;
    int64_t created = 0;  // seconds since the epoch
    int64_t expires = 0;
    bool active = false;
};

struct CopyReport {
    std::string path;
    CopyHealth health = CopyHealth::MISSING;
    int32_t code = 0;  // VE_OK, or the VE_ERR_* reason
    uint64_t generation = 0;  // HEALTHY only, as the fields below
    uint32_t rootVersion = 0;
    std::size_t keyCount = 0;
    std::vector<MasterKeyReport> keys;  // by domain, then key id; see ReportDetail
};

// How far the look goes.
enum class ReportDetail {
    // Format, order and MAC of both copies, each read through a small buffer
    // (never held whole); the keys listed for the copy whose keys count
    // (NewestHealthyCopy) only. No master key is unwrapped.
    KEY_LIST,
    // As well, every master key of both copies is unwrapped (and forgotten):
    // a copy with a key that does not unwrap is DAMAGED. No keys listed.
    WRAPPED_KEYS,
};

// Fills one report per copy. Returns VE_OK when both were examined (whatever
// their health), or VE_ERR_LOCK / VE_ERR_NO_MEMORY when the look failed.
OVRA_EXPORT int32_t InspectKeyStores(const std::string& primary, const std::string& standby, ReportDetail detail,
                                     CopyReport& primaryReport, CopyReport& standbyReport) noexcept;

}  // namespace VardoKms

#endif  // VARDO_KMS_KEY_STORE_REPORT_H
