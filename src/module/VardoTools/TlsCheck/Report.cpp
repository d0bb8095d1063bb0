// Writing the result for a person or for the node exporter.
#include "Report.h"

namespace VardoTlsCheck {
namespace {

void Family(std::FILE* out, const char* name, const char* help)
{
    std::fprintf(out, "# HELP %s %s\n# TYPE %s gauge\n", name, help, name);
}

std::string DomainLabel(const std::string& domain, bool first)
{
    return domain.empty() ? "" : std::string(first ? "" : ",") + "domain=\"" + domain + "\"";
}

}  // namespace

void WriteText(std::FILE* out, const Findings* findings, const std::string& problem, int64_t warnDays)
{
    if (findings == nullptr) {
        std::fprintf(out, "%-9s material: %s\n", StatusText(Status::UNKNOWN), problem.c_str());
        std::fprintf(out, "vardo-tls-check UNKNOWN: the TLS material cannot be read\n");
        return;
    }
    int counts[3] = {0, 0, 0};
    for (const CheckResult& check : findings->checks) {
        ++counts[static_cast<int>(check.status)];
        std::fprintf(out, "%-9s %s: %s\n", StatusText(check.status), check.title.c_str(), check.reason.c_str());
    }
    std::fprintf(out, "vardo-tls-check %s: %d OK, %d WARNING, %d CRITICAL (warning %lld days ahead)\n",
                 StatusText(findings->Overall()), counts[0], counts[1], counts[2], static_cast<long long>(warnDays));
}

void WritePrometheus(std::FILE* out, const Findings* findings, int64_t now)
{
    const Status overall = findings == nullptr ? Status::UNKNOWN : findings->Overall();
    Family(out, "vardo_tls_status",
           "Result of vardo-tls-check: 0 OK, 1 WARNING, 2 CRITICAL, 3 UNKNOWN (the material cannot be read).");
    std::fprintf(out, "vardo_tls_status %d\n", static_cast<int>(overall));
    Family(out, "vardo_tls_check_timestamp_seconds", "When vardo-tls-check ran, seconds since the epoch.");
    std::fprintf(out, "vardo_tls_check_timestamp_seconds %lld\n", static_cast<long long>(now));
    if (findings == nullptr) {
        return;
    }
    Family(out, "vardo_tls_check_passed",
           "1 when a check of the TLS material passed (OK or WARNING), 0 when it failed (CRITICAL).");
    for (const CheckResult& check : findings->checks) {
        std::fprintf(out, "vardo_tls_check_passed{check=\"%s\"%s} %d\n", check.name.c_str(),
                     DomainLabel(check.domain, false).c_str(), check.status == Status::CRITICAL ? 0 : 1);
    }
    std::string previous;
    for (const Deadline& deadline : findings->deadlines) {
        if (deadline.metric != previous) {
            Family(out, deadline.metric.c_str(), deadline.help.c_str());
            previous = deadline.metric;
        }
        const std::string labels = DomainLabel(deadline.domain, true);
        std::fprintf(out, "%s%s%s%s %lld\n", deadline.metric.c_str(), labels.empty() ? "" : "{", labels.c_str(),
                     labels.empty() ? "" : "}", static_cast<long long>(deadline.seconds));
    }
}

}  // namespace VardoTlsCheck
