// The two forms of the result: a short report for a person (one line per
// check, then a summary) and metrics in the node exporter's textfile format.
#ifndef VARDO_TOOLS_TLS_CHECK_REPORT_H
#define VARDO_TOOLS_TLS_CHECK_REPORT_H

#include <cstdint>
#include <cstdio>
#include <string>

#include "Checks.h"

namespace VardoTlsCheck {

// `findings` is null when the material could not be read; `problem` then
// says why (UNKNOWN).
void WriteText(std::FILE* out, const Findings* findings, const std::string& problem, int64_t warnDays);

// Every metric with HELP and TYPE lines; only vardo_tls_status and the
// time of the check when the material could not be read.
void WritePrometheus(std::FILE* out, const Findings* findings, int64_t now);

}  // namespace VardoTlsCheck

#endif  // VARDO_TOOLS_TLS_CHECK_REPORT_H
