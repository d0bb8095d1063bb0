// Certificate checks: the CA and server certificates must be the operator's
// own PEM files, the CA a real CA with a signing key usage that the operator
// recognises by its fingerprint, both inside their validity period and signed
// with an accepted algorithm, the server key RSA of at least 3072 bits.
//
// The operator is asked about the CA before the server certificate is read
// and before any date is looked at, so an expired CA is still shown.
#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <cstdint>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <string>

#include "ImportChecks.h"
#include "OvraBase/FileUtils.h"
#include "OvraBase/Log.h"
#include "ResultCode/ResultCode.h"
#include "basic/OpenSslPtr.h"

OVRA_LOG_UNIT("src/module/VardoTools/CertImport/main");

namespace OvraStream {
namespace {

using OvraBase::Basic::BioPtr;
using OvraBase::Basic::EvpPkeyPtr;
using OvraBase::Basic::X509Ptr;

constexpr const char* ACCEPTED_SIGNATURE_SHA256 = "sha256WithRSAEncryption";
constexpr const char* ACCEPTED_SIGNATURE_SHA512 = "sha512WithRSAEncryption";
constexpr int MIN_RSA_BITS_EXCLUSIVE = 3071;
constexpr unsigned int FINGERPRINT_BUFFER_SIZE = 64;

// One PEM certificate from `resolvedPath`; null when the file cannot be
// opened or holds none. The stream is freed before returning.
X509Ptr ReadCertificate(const std::string& resolvedPath)
{
    BioPtr stream(BIO_new_file(resolvedPath.c_str(), "r"));
    if (stream == nullptr) {
        return nullptr;
    }
    X509Ptr cert(PEM_read_bio_X509(stream.get(), nullptr, nullptr, nullptr));
    stream.reset();
    return cert;
}

enum class SignatureAlgorithm { Accepted, Unknown, Insecure };

// Classifies the certificate's signature algorithm by its OpenSSL long name,
// returned in `longName`. Each caller logs the verdict at its own statement,
// so the CA and the server certificate keep separate log counters.
SignatureAlgorithm ClassifySignature(X509* cert, int& nid, std::string& longName)
{
    nid = X509_get_signature_nid(cert);
    if (nid == NID_undef) {
        return SignatureAlgorithm::Unknown;
    }
    const char* name = OBJ_nid2ln(nid);
    longName = name != nullptr ? name : "";
    if (longName != ACCEPTED_SIGNATURE_SHA256 && longName != ACCEPTED_SIGNATURE_SHA512) {
        return SignatureAlgorithm::Insecure;
    }
    return SignatureAlgorithm::Accepted;
}

std::string HexPairs(const unsigned char* bytes, unsigned int length)
{
    std::ostringstream text;
    text << std::hex << std::setfill('0');
    for (unsigned int i = 0; i < length; ++i) {
        if (i != 0) {
            text << ':';
        }
        text << std::setw(2) << static_cast<unsigned int>(bytes[i]);
    }
    return text.str();
}

}  // namespace

bool IsOwnValidFile(const std::string& path, std::string& resolvedPath)
{
    return OvraBase::FileUtils::RegularFilePath(path, resolvedPath, false) &&
           OvraBase::FileUtils::IsFileValid(resolvedPath, false) &&
           OvraBase::FileUtils::ConstrainOwner(resolvedPath, true);
}

int32_t CheckCaCrtFingerprint(X509* caCert)
{
    int nid = NID_undef;
    std::string longName;
    const SignatureAlgorithm algorithm = ClassifySignature(caCert, nid, longName);
    if (algorithm == SignatureAlgorithm::Unknown) {
        OVRA_RETURN_ERROR("Unknown algorithm id.", OvraBase::APP_ERR_INVALID_PARAM);
    }
    if (algorithm == SignatureAlgorithm::Insecure) {
        OVRA_RETURN_ERROR("Insecure encryption algorithm.", OvraBase::APP_ERR_INVALID_PARAM);
    }

    // The digest registered under the signature algorithm's short name
    // ("RSA-SHA256", "RSA-SHA512") is the hash that algorithm signs with.
    const EVP_MD* digest = EVP_get_digestbyname(OBJ_nid2sn(nid));
    unsigned char fingerprint[FINGERPRINT_BUFFER_SIZE] = {};
    unsigned int fingerprintLength = 0;
    if (digest == nullptr || EVP_MD_get_size(digest) <= 0 ||
        static_cast<unsigned int>(EVP_MD_get_size(digest)) > FINGERPRINT_BUFFER_SIZE ||
        X509_digest(caCert, digest, fingerprint, &fingerprintLength) != 1) {
        OVRA_RETURN_ERROR("Failed to get fingerprint information.", OvraBase::APP_ERR_INVALID_PARAM);
    }
    OVRA_LOG_INFO(longName << " Fingerprint: ");
    OVRA_LOG_INFO(HexPairs(fingerprint, fingerprintLength));

    // Only 'y' accepts and only 'n' or the end of input refuses; anything
    // else (upper-case letters included) asks again.
    char answer = 'n';
    while (true) {
        OVRA_LOG_INFO("Do you want to continue with this certificate? [y/n]");
        if (!(std::cin >> answer)) {
            break;
        }
        if (answer == 'y') {
            return OvraBase::APP_ERR_OK;
        }
        if (answer == 'n') {
            break;
        }
    }
    OVRA_RETURN_ERROR("Program exits.", OvraBase::APP_ERR_INVALID_PARAM);
}

bool CheckCertTime(X509* cert)
{
    const ASN1_TIME* notBefore = X509_getm_notBefore(cert);
    if (notBefore == nullptr) {
        OVRA_LOG_ERROR_CODE("Cannot get the start time", OvraBase::APP_ERR_GENERAL_FAILED);
        return true;
    }
    const ASN1_TIME* notAfter = X509_getm_notAfter(cert);
    if (notAfter == nullptr) {
        OVRA_LOG_ERROR_CODE("Cannot get the end time", OvraBase::APP_ERR_GENERAL_FAILED);
        return true;
    }
    // X509_cmp_current_time: -1 not later than now, 1 later, 0 unreadable.
    // An end time equal to now is already outside, and an unreadable date
    // never passes.
    const bool started = X509_cmp_current_time(notBefore) == -1;
    const bool notEnded = X509_cmp_current_time(notAfter) == 1;
    return !(started && notEnded);
}

int32_t CheckServerCrtAlgorithm(X509* serverCert)
{
    int nid = NID_undef;
    std::string longName;
    const SignatureAlgorithm algorithm = ClassifySignature(serverCert, nid, longName);
    if (algorithm == SignatureAlgorithm::Unknown) {
        OVRA_RETURN_ERROR("Unknown algorithm id.", OvraBase::APP_ERR_INVALID_PARAM);
    }
    if (algorithm == SignatureAlgorithm::Insecure) {
        OVRA_RETURN_ERROR("Insecure encryption algorithm.", OvraBase::APP_ERR_INVALID_PARAM);
    }
    EvpPkeyPtr key(X509_get_pubkey(serverCert));
    if (key == nullptr) {
        OVRA_RETURN_ERROR("Can not get the pubkey from the cert.", OvraBase::APP_ERR_INVALID_PARAM);
    }
    if (EVP_PKEY_get_id(key.get()) != EVP_PKEY_RSA) {
        key.reset();
        OVRA_RETURN_ERROR("Please use a RSA key.", OvraBase::APP_ERR_INVALID_PARAM);
    }
    if (EVP_PKEY_get_bits(key.get()) <= MIN_RSA_BITS_EXCLUSIVE) {
        key.reset();
        OVRA_RETURN_ERROR("Insecure RSA key length.", OvraBase::APP_ERR_INVALID_PARAM);
    }
    key.reset();
    return OvraBase::APP_ERR_OK;
}

int32_t CheckCrtFiles(const std::string& caCrtPath, const std::string& serverCrtPath)
{
    std::string resolvedCaPath;
    std::string resolvedServerPath;
    if (!IsOwnValidFile(caCrtPath, resolvedCaPath) || !IsOwnValidFile(serverCrtPath, resolvedServerPath)) {
        return OvraBase::APP_ERR_INVALID_PARAM;
    }

    X509Ptr caCert = ReadCertificate(resolvedCaPath);
    if (caCert == nullptr) {
        return OvraBase::APP_ERR_INVALID_PARAM;
    }
    if ((X509_get_extension_flags(caCert.get()) & EXFLAG_CA) == 0) {
        OVRA_RETURN_ERROR("CA flag is not found in basic constraints.", OvraBase::APP_ERR_INVALID_PARAM);
    }
    // Without a key-usage extension OpenSSL reports every usage, so such a
    // CA passes here.
    if ((X509_get_key_usage(caCert.get()) & KU_DIGITAL_SIGNATURE) == 0) {
        OVRA_RETURN_ERROR("Digital signature is not found in key usage.", OvraBase::APP_ERR_INVALID_PARAM);
    }
    if (CheckCaCrtFingerprint(caCert.get()) != OvraBase::APP_ERR_OK) {
        return OvraBase::APP_ERR_INVALID_PARAM;
    }

    X509Ptr serverCert = ReadCertificate(resolvedServerPath);
    if (serverCert == nullptr) {
        return OvraBase::APP_ERR_INVALID_PARAM;
    }
    if (CheckCertTime(caCert.get()) || CheckCertTime(serverCert.get())) {
        OVRA_RETURN_ERROR("Certificate has expired or not reached the start date, please check.",
                          OvraBase::APP_ERR_INVALID_PARAM);
    }
    if (CheckServerCrtAlgorithm(serverCert.get()) != OvraBase::APP_ERR_OK) {
        OVRA_RETURN_ERROR("Signature algorithm is too weak.", OvraBase::APP_ERR_INVALID_PARAM);
    }
    return OvraBase::APP_ERR_OK;
}

}  // namespace OvraStream
