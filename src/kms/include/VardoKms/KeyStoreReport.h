// Read-only look at a pair of key store files, for operators (vardo-keys).
//
// Unlike VeInitialize this never repairs or creates anything, so it shows a
// damaged copy as damaged. It takes the store lock file shared (when one
// exists) so that it never reads a half-finished change. No key bytes leave
// the library through it.
#ifndef VARDO_KMS_KEY_STORE_REPORT_H
#define VARDO_KMS_KEY_STORE_REPORT_H

#include <cstdint>
#include <string>
#include <vector>

namespace VardoKms {

struct MasterKeyReport {
    uint32_t domainId = 0;
    uint32_t keyId = 0;
    int64_t created = 0;  // seconds since the epoch
    int64_t expires = 0;
    bool active = false;
};

struct CopyReport {
    std::string path;
    std::string health;  // "healthy", "missing", "damaged", "unsafe" or "unreadable"
    int32_t code = 0;    // VE_OK, or the VE_ERR_* reason
    uint64_t generation = 0;
    uint32_t rootVersion = 0;
    std::vector<MasterKeyReport> keys;  // by domain, then key id
};

// Fills one report per copy. Returns VE_OK when both were examined (whatever
// their health), or VE_ERR_LOCK / VE_ERR_NO_MEMORY when the look failed.
int32_t InspectKeyStores(const std::string& primary, const std::string& standby, CopyReport& primaryReport,
                         CopyReport& standbyReport) noexcept;

}  // namespace VardoKms

#endif  // VARDO_KMS_KEY_STORE_REPORT_H
