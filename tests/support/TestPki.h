// Test PKI built with the OpenSSL API at test time, dates relative to now:
// CA and server certificates, encrypted and plain keys, CRLs.
#ifndef VARDO_TEST_SUPPORT_TEST_PKI_H
#define VARDO_TEST_SUPPORT_TEST_PKI_H

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace VardoTest {

struct PkeyFree { void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); } };
struct X509Free { void operator()(X509* cert) const { X509_free(cert); } };
struct CrlFree { void operator()(X509_CRL* crl) const { X509_CRL_free(crl); } };
using Key = std::shared_ptr<EVP_PKEY>;
using Cert = std::shared_ptr<X509>;
using Crl = std::shared_ptr<X509_CRL>;

enum class KeyType { Rsa, EcP256 };
enum class Digest { Sha256, Sha384, Sha512 };

// A key; keys of one type and size are generated once per process and shared.
Key MakeKey(KeyType type = KeyType::Rsa, int bits = 3072);

struct CertSpec {
    std::string commonName = "test";
    Key key;                           // default: MakeKey()
    Digest digest = Digest::Sha256;
    bool pssSignature = false;         // sign with RSA-PSS padding
    long notBeforeOffset = -3600;      // seconds relative to now
    long notAfterOffset = 30L * 24 * 3600;
    bool caFlag = false;               // basicConstraints CA:TRUE (critical)
    std::optional<std::string> keyUsage;  // OpenSSL names, e.g. "keyCertSign,cRLSign"; nullopt: no extension
    long serial = 1;
};

// Self-signed when `issuer` is null.
Cert MakeCert(const CertSpec& recipe, const Cert& issuer = nullptr, const Key& issuerKey = nullptr);
// A usable CA: CA:TRUE, keyCertSign|cRLSign|digitalSignature, SHA-256.
CertSpec CaSpec(const std::string& commonName = "Test CA");
// A usable server certificate: RSA-3072, SHA-256.
CertSpec ServerSpec(const std::string& commonName = "stream.test");

struct CrlSpec {
    long lastUpdateOffset = -3600;
    std::optional<long> nextUpdateOffset = 7L * 24 * 3600;  // nullopt: no nextUpdate
    std::vector<long> revokedSerials;
    bool revokedField = true;          // false: omit revokedCertificates entirely
    Digest digest = Digest::Sha256;
    bool lastUpdateUncomparable = false;  // true: that date set with SetUncomparable
    bool nextUpdateUncomparable = false;
};
Crl MakeCrl(const CrlSpec& recipe, const Cert& issuer, const Key& issuerKey);

// Sets a time that decodes (a past instant with fractional seconds) but that
// X509_cmp_current_time cannot compare; true when it took.
bool SetUncomparable(ASN1_TIME* time);

enum class KeyFormat { Pkcs8Encrypted, TraditionalEncrypted, Pkcs8Plain, TraditionalPlain };

void WriteCertPem(const Cert& cert, const std::string& path);
void WriteKeyPem(const Key& key, const std::string& path, KeyFormat format, const std::string& passPhrase = "");
void WriteCrlPem(const Crl& crl, const std::string& path);
void WriteCrlDer(const Crl& crl, const std::string& path);

// Lower-case hex pairs joined by ":" of the certificate's digest.
std::string Fingerprint(const Cert& cert, const EVP_MD* md);

// A complete valid set of inputs written into `dir` (files 0600):
// ca.crt, server.crt, server.key (PKCS#8, encrypted with `passPhrase`), ca.crl (empty list).
struct InputSet {
    std::string caCrt, serverCrt, serverKey, crl;
    Cert ca, server;
    Key caKey, serverKey_;
};
InputSet MakeValidInputs(const std::string& dir, const std::string& passPhrase);

}  // namespace VardoTest

#endif  // VARDO_TEST_SUPPORT_TEST_PKI_H
