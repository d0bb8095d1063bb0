// The checks of the imported TLS material: does the key fit the certificate,
// does the certificate verify against the CA (and revocation list), is it
// revoked, and how long until the certificates, the list and the master keys
// run out. Pure functions of the material and the time: nothing is read here.
#ifndef VARDO_TOOLS_TLS_CHECK_CHECKS_H
#define VARDO_TOOLS_TLS_CHECK_CHECKS_H

#include <cstdint>
#include <string>
#include <vector>

#include "Material.h"

namespace VardoTlsCheck {

// Ordered by severity; the numbers are the exit status of monitoring plugins.
enum class Status { OK = 0, WARNING = 1, CRITICAL = 2, UNKNOWN = 3 };

const char* StatusText(Status status);

struct CheckResult {
    std::string name;    // metric label value, e.g. "server_key"
    std::string domain;  // key domain of a master key check, else empty
    std::string title;   // human name, e.g. "server key"
    Status status = Status::OK;
    std::string reason;
};

// A point in time a metric reports, e.g. a certificate's end.
struct Deadline {
    std::string metric;  // full metric name
    std::string help;
    std::string domain;  // label of a master key, else empty
    int64_t seconds = 0; // since the epoch
};

struct Findings {
    std::vector<CheckResult> checks;
    std::vector<Deadline> deadlines;
    // The worst status of the checks.
    Status Overall() const;
};

// Runs every check at time `now`; something that runs out within `warnDays`
// days is a WARNING, something that has run out is CRITICAL.
Findings RunChecks(const Material& material, int64_t now, int64_t warnDays);

// "YYYY-MM-DD hh:mm:ss UTC".
std::string UtcText(int64_t seconds);

}  // namespace VardoTlsCheck

#endif  // VARDO_TOOLS_TLS_CHECK_CHECKS_H
