// Revocation list check: the operator's CRL must be a PEM list signed by the
// CA certificate's key and current at this moment. It does not look for the
// server certificate on the list; it only proves the list itself is usable.
#include <openssl/bio.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <cstdio>

#include "ImportChecks.h"
#include "OvraBase/Log.h"
#include "ResultCode/ResultCode.h"
#include "basic/FilePtr.h"
#include "basic/OpenSslPtr.h"

OVRA_LOG_UNIT("src/module/VardoTools/CertImport/main");

namespace OvraStream {
namespace {

using OvraBase::Basic::BioPtr;
using OvraBase::Basic::EvpPkeyPtr;
using OvraBase::Basic::FilePtr;
using OvraBase::Basic::X509CrlPtr;
using OvraBase::Basic::X509Ptr;

// Reads the list from an "rb" handle lent to a file BIO (the BIO never closes
// it). Returns the list, or null with the stream's status in `result`: 1020
// when no stream or file could be had (no record), 1001 when the file holds
// no PEM list.
X509CrlPtr ReadCrl(const std::string& resolvedCrlPath, int32_t& result)
{
    BioPtr stream(BIO_new(BIO_s_file()));
    if (stream == nullptr) {
        result = OvraBase::APP_ERR_READ_FAILED;
        return nullptr;
    }
    FilePtr file(std::fopen(resolvedCrlPath.c_str(), "rb"));
    if (file == nullptr) {
        stream.reset();
        result = OvraBase::APP_ERR_READ_FAILED;
        return nullptr;
    }
    BIO_set_fp(stream.get(), file.get(), BIO_NOCLOSE);
    X509CrlPtr crl(PEM_read_bio_X509_CRL(stream.get(), nullptr, nullptr, nullptr));
    file.reset();
    stream.reset();
    if (crl == nullptr) {
        OVRA_LOG_ERROR_CODE("Not a valid crl list.", OvraBase::APP_ERR_GENERAL_FAILED);
        result = OvraBase::APP_ERR_GENERAL_FAILED;
        return nullptr;
    }
    result = OvraBase::APP_ERR_OK;
    return crl;
}

// Signature of the list against the key of the CA certificate at
// `resolvedCaPath`. Logs the specific reason of a refusal.
bool CrlSignedByCa(X509_CRL* crl, const std::string& resolvedCaPath)
{
    BioPtr caFile(BIO_new_file(resolvedCaPath.c_str(), "r"));
    if (caFile == nullptr) {
        OVRA_LOG_ERROR_CODE("caFile read failed.", OvraBase::APP_ERR_INVALID_PARAM);
        return false;
    }
    X509Ptr caCert(PEM_read_bio_X509(caFile.get(), nullptr, nullptr, nullptr));
    if (caCert == nullptr) {
        OVRA_LOG_ERROR_CODE("X509 ca read failed.", OvraBase::APP_ERR_INVALID_PARAM);
        return false;
    }
    caFile.reset();

    EvpPkeyPtr caKey(X509_get_pubkey(caCert.get()));
    if (caKey == nullptr) {
        caCert.reset();
        OVRA_LOG_ERROR_CODE("Can not get the pubkey from the cert.", OvraBase::APP_ERR_INVALID_PARAM);
        return false;
    }
    if (X509_CRL_verify(crl, caKey.get()) != 1) {
        OVRA_LOG_ERROR_CODE("Cacrt and crl not match.", OvraBase::APP_ERR_INVALID_PARAM);
        return false;
    }
    caCert.reset();
    caKey.reset();
    return true;
}

// The list's dates around the current time. Logs the specific reason of a
// refusal.
bool CrlIsCurrent(X509_CRL* crl)
{
    // X509_cmp_current_time: -1 not later than now, 1 later, 0 unreadable.
    // An unreadable date is let through here on purpose; only a date that
    // reads as wrong refuses the list.
    const ASN1_TIME* lastUpdate = X509_CRL_get0_lastUpdate(crl);
    if (lastUpdate == nullptr || X509_cmp_current_time(lastUpdate) == 1) {
        OVRA_LOG_ERROR_CODE("Revoke list is not in the correct time duration or cannot get the last update time.",
                            OvraBase::APP_ERR_INVALID_PARAM);
        return false;
    }
    const ASN1_TIME* nextUpdate = X509_CRL_get0_nextUpdate(crl);
    if (nextUpdate == nullptr || X509_cmp_current_time(nextUpdate) == -1) {
        OVRA_LOG_ERROR_CODE("Revoke list is not in the correct time duration or cannot get the next update time.",
                            OvraBase::APP_ERR_INVALID_PARAM);
        return false;
    }
    return true;
}

}  // namespace

int32_t CheckCrlMatchingCrt(const std::string& caCrtPath, const std::string& crlPath)
{
    std::string resolvedCaPath;
    std::string resolvedCrlPath;
    if (!IsOwnValidFile(caCrtPath, resolvedCaPath) || !IsOwnValidFile(crlPath, resolvedCrlPath)) {
        OVRA_RETURN_ERROR("Invalid crl path or ca crt path.", OvraBase::APP_ERR_INVALID_PATH);
    }

    int32_t result = OvraBase::APP_ERR_OK;
    X509CrlPtr crl = ReadCrl(resolvedCrlPath, result);
    if (crl == nullptr) {
        return result;
    }
    // Borrowed from the list. A list without the field at all is refused,
    // while a present but empty field is accepted further down.
    const STACK_OF(X509_REVOKED)* revoked = X509_CRL_get_REVOKED(crl.get());
    if (revoked == nullptr) {
        return OvraBase::APP_ERR_READ_FAILED;
    }

    // A refusal on the CA's side adds the common record to its own.
    if (!CrlSignedByCa(crl.get(), resolvedCaPath) || !CrlIsCurrent(crl.get())) {
        OVRA_RETURN_ERROR("Check crl matching crt failed.", OvraBase::APP_ERR_GENERAL_FAILED);
    }
    if (sk_X509_REVOKED_num(revoked) == 0) {
        OVRA_LOG_WARN("The revoke list is empty");
    }
    return OvraBase::APP_ERR_OK;
}

}  // namespace OvraStream
