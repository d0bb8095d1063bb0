// The checks of the imported TLS material, each a verdict with its reason.
#include "Checks.h"

#include <openssl/asn1.h>
#include <openssl/bn.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/x509_vfy.h>

#include <ctime>

namespace VardoTlsCheck {
namespace {

constexpr int64_t SECONDS_PER_DAY = 86400;

struct StoreFree {
    void operator()(X509_STORE* store) const { X509_STORE_free(store); }
};
struct StoreCtxFree {
    void operator()(X509_STORE_CTX* ctx) const { X509_STORE_CTX_free(ctx); }
};

CheckResult Verdict(const char* name, const std::string& title, Status status, const std::string& reason)
{
    return CheckResult{name, "", title, status, reason};
}

// Seconds since the epoch of an ASN.1 time; false when it does not convert.
bool EpochSeconds(const ASN1_TIME* time, int64_t& seconds)
{
    std::tm utc{};
    if (time == nullptr || ASN1_TIME_to_tm(time, &utc) != 1) {
        return false;
    }
    seconds = static_cast<int64_t>(timegm(&utc));
    return true;
}

std::string InDays(int64_t left)
{
    const int64_t days = left / SECONDS_PER_DAY;
    return days == 0 ? "in less than a day" : "in " + std::to_string(days) + (days == 1 ? " day" : " days");
}

// OK, WARNING within `warnDays` days of `end`, CRITICAL at or after it.
CheckResult UntilEnd(const char* name, const std::string& title, int64_t end, int64_t now, int64_t warnDays,
                     const char* ends, const char* ended)
{
    if (end <= now) {
        return Verdict(name, title, Status::CRITICAL, std::string(ended) + " " + UtcText(end));
    }
    const Status status = end - now < warnDays * SECONDS_PER_DAY ? Status::WARNING : Status::OK;
    return Verdict(name, title, status, std::string(ends) + " " + InDays(end - now) + ", on " + UtcText(end));
}

// How a period's end is told: a certificate expires, a list falls due.
struct Wording {
    const char* ends;
    const char* ended;
    const char* noEnd;
};
const Wording CERTIFICATE_END{"expires", "expired on", "has no end date"};
const Wording LIST_END{"next update due", "next update was due on", "has no next update"};

// A validity period from `start` to `end`: also CRITICAL before its start.
// Its end goes into `findings` as `deadline`.
CheckResult Period(const char* name, const std::string& title, const ASN1_TIME* start, const ASN1_TIME* end,
                   const Wording& wording, int64_t now, int64_t warnDays, Deadline deadline, Findings& findings)
{
    int64_t from = 0;
    if (!EpochSeconds(start, from) || !EpochSeconds(end, deadline.seconds)) {
        const char* reason = end == nullptr ? wording.noEnd : "has a date that cannot be read";
        return Verdict(name, title, Status::CRITICAL, reason);
    }
    findings.deadlines.push_back(deadline);
    if (from > now) {
        return Verdict(name, title, Status::CRITICAL, "not valid before " + UtcText(from));
    }
    return UntilEnd(name, title, deadline.seconds, now, warnDays, wording.ends, wording.ended);
}

CheckResult KeyMatch(const Material& material)
{
    const std::string title = "server key";
    if (!material.key) {
        return Verdict("server_key", title, Status::CRITICAL,
                       material.serverKeyPath + " does not open with the pass phrase of server_key_mm");
    }
    if (X509_check_private_key(material.server.get(), material.key.get()) != 1) {
        return Verdict("server_key", title, Status::CRITICAL,
                       material.serverKeyPath + " is not the key of " + material.serverCrtPath);
    }
    return Verdict("server_key", title, Status::OK, material.serverKeyPath + " opens and matches " +
                                                        material.serverCrtPath);
}

// Keeps the first verification error other than revocation (a check of its
// own) and lets the verification go on, so that a revoked certificate is
// still checked for its signature.
int KeepFirstError(int ok, X509_STORE_CTX* ctx)
{
    const int error = X509_STORE_CTX_get_error(ctx);
    int* first = static_cast<int*>(X509_STORE_CTX_get_app_data(ctx));
    if (ok == 0 && error != X509_V_ERR_CERT_REVOKED && *first == X509_V_OK) {
        *first = error;
    }
    return 1;
}

// The server certificate against the CA as trust anchor (an intermediate CA
// will do) and, when there is one, the list; dates are the checks below.
CheckResult Chain(const Material& material)
{
    const std::string against = material.caPath + (material.crl ? " and " + material.crlPath : "");
    std::unique_ptr<X509_STORE, StoreFree> store(X509_STORE_new());
    std::unique_ptr<X509_STORE_CTX, StoreCtxFree> ctx(X509_STORE_CTX_new());
    int firstError = X509_V_OK;
    unsigned long flags = X509_V_FLAG_NO_CHECK_TIME | X509_V_FLAG_PARTIAL_CHAIN;
    bool ready = store && ctx && X509_STORE_add_cert(store.get(), material.ca.get()) == 1;
    if (ready && material.crl) {
        ready = X509_STORE_add_crl(store.get(), material.crl.get()) == 1;
        flags |= X509_V_FLAG_CRL_CHECK;
    }
    ready = ready && X509_STORE_set_flags(store.get(), flags) == 1 &&
            X509_STORE_CTX_init(ctx.get(), store.get(), material.server.get(), nullptr) == 1;
    if (ready) {
        X509_STORE_CTX_set_verify_cb(ctx.get(), KeepFirstError);
        X509_STORE_CTX_set_app_data(ctx.get(), &firstError);
        if (X509_verify_cert(ctx.get()) != 1 && firstError == X509_V_OK) {
            firstError = X509_STORE_CTX_get_error(ctx.get());
        }
    }
    ERR_clear_error();
    if (!ready) {
        return Verdict("chain", "chain", Status::CRITICAL,
                       "cannot set up the verification of " + material.serverCrtPath);
    }
    if (firstError != X509_V_OK) {
        return Verdict("chain", "chain", Status::CRITICAL,
                       material.serverCrtPath + " does not verify against " + against + ": " +
                           X509_verify_cert_error_string(firstError));
    }
    return Verdict("chain", "chain", Status::OK, material.serverCrtPath + " verifies against " + against);
}

std::string SerialText(const X509* cert)
{
    BIGNUM* number = ASN1_INTEGER_to_BN(X509_get0_serialNumber(cert), nullptr);
    char* hex = number != nullptr ? BN_bn2hex(number) : nullptr;
    const std::string text = hex != nullptr ? hex : "?";
    OPENSSL_free(hex);
    BN_free(number);
    return text;
}

CheckResult NotRevoked(const Material& material)
{
    X509_REVOKED* entry = nullptr;
    const std::string serial = "serial " + SerialText(material.server.get());
    if (X509_CRL_get0_by_cert(material.crl.get(), &entry, material.server.get()) == 1) {
        return Verdict("not_revoked", "revocation", Status::CRITICAL,
                       material.serverCrtPath + " (" + serial + ") is revoked by " + material.crlPath);
    }
    return Verdict("not_revoked", "revocation", Status::OK,
                   material.serverCrtPath + " (" + serial + ") is not on " + material.crlPath);
}

}  // namespace

const char* StatusText(Status status)
{
    switch (status) {
        case Status::OK:
            return "OK";
        case Status::WARNING:
            return "WARNING";
        case Status::CRITICAL:
            return "CRITICAL";
        case Status::UNKNOWN:
            break;
    }
    return "UNKNOWN";
}

Status Findings::Overall() const
{
    Status worst = Status::OK;
    for (const CheckResult& check : checks) {
        worst = check.status > worst ? check.status : worst;
    }
    return worst;
}

std::string UtcText(int64_t seconds)
{
    const std::time_t time = static_cast<std::time_t>(seconds);
    std::tm utc{};
    char text[40] = "?";
    if (gmtime_r(&time, &utc) != nullptr) {
        std::strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S UTC", &utc);
    }
    return text;
}

Findings RunChecks(const Material& material, int64_t now, int64_t warnDays)
{
    Findings findings;
    std::vector<CheckResult>& checks = findings.checks;
    checks.push_back(KeyMatch(material));
    checks.push_back(Chain(material));
    if (material.crl) {
        checks.push_back(NotRevoked(material));
    }
    const X509* server = material.server.get();
    checks.push_back(Period("server_certificate_expiry", "server certificate", X509_get0_notBefore(server),
                            X509_get0_notAfter(server), CERTIFICATE_END, now, warnDays,
                            {"vardo_tls_server_certificate_expiry_timestamp_seconds",
                             "End of the server certificate's validity, seconds since the epoch.", "", 0},
                            findings));
    const X509* ca = material.ca.get();
    checks.push_back(Period("ca_certificate_expiry", "CA certificate", X509_get0_notBefore(ca),
                            X509_get0_notAfter(ca), CERTIFICATE_END, now, warnDays,
                            {"vardo_tls_ca_certificate_expiry_timestamp_seconds",
                             "End of the CA certificate's validity, seconds since the epoch.", "", 0},
                            findings));
    if (material.crl) {
        const X509_CRL* crl = material.crl.get();
        checks.push_back(Period("crl_next_update", "revocation list", X509_CRL_get0_lastUpdate(crl),
                                X509_CRL_get0_nextUpdate(crl), LIST_END, now, warnDays,
                                {"vardo_tls_crl_next_update_timestamp_seconds",
                                 "Next update of the revocation list, seconds since the epoch.", "", 0},
                                findings));
    }
    for (const ActiveMasterKey& key : material.masterKeys) {
        const std::string domain = std::to_string(key.domainId);
        CheckResult check = UntilEnd("master_key_expiry", "master key", key.expires, now, warnDays,
                                     CERTIFICATE_END.ends, CERTIFICATE_END.ended);
        check.domain = domain;
        check.reason = "active key " + std::to_string(key.keyId) + " of domain " + domain + " " + check.reason;
        checks.push_back(check);
        findings.deadlines.push_back({"vardo_tls_master_key_expiry_timestamp_seconds",
                                      "Expiry of the active master key of a key domain, seconds since the epoch.",
                                      domain, key.expires});
    }
    return findings;
}

}  // namespace VardoTlsCheck
