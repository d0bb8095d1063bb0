// Test PKI: keys, certificates and revocation lists made with the OpenSSL 3
// API at test time. A construction failure is a broken test set-up, so it
// throws std::runtime_error with OpenSSL's own error text; GoogleTest reports
// that as a failure of the test that asked for the object.
#include "TestPki.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509v3.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <stdexcept>
#include <tuple>
#include <utility>

namespace VardoTest {
namespace {

template <typename T, void (*Free)(T*)>
struct Deleter {
    void operator()(T* object) const { Free(object); }
};
using BioPtr = std::unique_ptr<BIO, Deleter<BIO, BIO_free_all>>;
using MdCtxPtr = std::unique_ptr<EVP_MD_CTX, Deleter<EVP_MD_CTX, EVP_MD_CTX_free>>;
using AsnTimePtr = std::unique_ptr<ASN1_TIME, Deleter<ASN1_TIME, ASN1_STRING_free>>;
using BitStringPtr = std::unique_ptr<ASN1_BIT_STRING, Deleter<ASN1_BIT_STRING, ASN1_BIT_STRING_free>>;
using BasicConstraintsPtr = std::unique_ptr<BASIC_CONSTRAINTS, Deleter<BASIC_CONSTRAINTS, BASIC_CONSTRAINTS_free>>;
using RevokedPtr = std::unique_ptr<X509_REVOKED, Deleter<X509_REVOKED, X509_REVOKED_free>>;

[[noreturn]] void Fail(const std::string& what)
{
    std::string text = "test PKI: " + what;
    unsigned long error = ERR_get_error();
    if (error != 0) {
        char buffer[256] = {};
        ERR_error_string_n(error, buffer, sizeof(buffer));
        text += ": ";
        text += buffer;
    }
    ERR_clear_error();
    throw std::runtime_error(text);
}

void Require(bool ok, const char* what)
{
    if (!ok) {
        Fail(what);
    }
}

Key GenerateKey(KeyType type, int bits)
{
    EVP_PKEY* raw = nullptr;
    switch (type) {
        case KeyType::Rsa:
            raw = EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", static_cast<size_t>(bits));
            break;
        case KeyType::RsaPss: {
            // EVP_PKEY_Q_keygen takes a size only for plain RSA.
            using KeyContextPtr = std::unique_ptr<EVP_PKEY_CTX, Deleter<EVP_PKEY_CTX, EVP_PKEY_CTX_free>>;
            KeyContextPtr context(EVP_PKEY_CTX_new_from_name(nullptr, "RSA-PSS", nullptr));
            Require(context != nullptr && EVP_PKEY_keygen_init(context.get()) == 1 &&
                        EVP_PKEY_CTX_set_rsa_keygen_bits(context.get(), bits) == 1 &&
                        EVP_PKEY_keygen(context.get(), &raw) == 1,
                    "RSA-PSS key generation failed");
            break;
        }
        case KeyType::EcP256:
            raw = EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256");
            break;
    }
    Require(raw != nullptr, "key generation failed");
    return Key(raw, PkeyFree());
}

// Key generation (above all RSA 3072) is slow, so keys are shared within a
// process: one per (type, size, slot). Slot 0 is what MakeKey hands out; the
// test server certificate takes slot 1 so that it never shares the CA's key.
Key CachedKey(KeyType type, int bits, int slot)
{
    static std::map<std::tuple<KeyType, int, int>, Key> cache;
    const int size = type == KeyType::EcP256 ? 256 : bits;
    auto& entry = cache[std::make_tuple(type, size, slot)];
    if (!entry) {
        entry = GenerateKey(type, size);
    }
    return entry;
}

const EVP_MD* DigestOf(Digest digest)
{
    switch (digest) {
        case Digest::Sha256:
            return EVP_sha256();
        case Digest::Sha384:
            return EVP_sha384();
        case Digest::Sha512:
            return EVP_sha512();
    }
    return EVP_sha256();
}

// Signs the certificate's to-be-signed part; with `pss` the RSA key signs
// with PSS padding (salt as long as the digest).
void SignCert(X509* cert, EVP_PKEY* key, Digest digest, bool pss)
{
    MdCtxPtr context(EVP_MD_CTX_new());
    Require(context != nullptr, "EVP_MD_CTX_new failed");
    EVP_PKEY_CTX* keyContext = nullptr;
    Require(EVP_DigestSignInit(context.get(), &keyContext, DigestOf(digest), nullptr, key) == 1,
            "EVP_DigestSignInit failed");
    if (pss) {
        Require(EVP_PKEY_CTX_set_rsa_padding(keyContext, RSA_PKCS1_PSS_PADDING) == 1, "PSS padding refused");
        Require(EVP_PKEY_CTX_set_rsa_pss_saltlen(keyContext, RSA_PSS_SALTLEN_DIGEST) == 1, "PSS salt refused");
    }
    Require(X509_sign_ctx(cert, context.get()) > 0, "certificate signing failed");
}

void SetTime(ASN1_TIME* target, long offsetSeconds)
{
    Require(X509_gmtime_adj(target, offsetSeconds) != nullptr, "time adjustment failed");
}

AsnTimePtr TimeFromNow(long offsetSeconds)
{
    AsnTimePtr time(X509_gmtime_adj(nullptr, offsetSeconds));
    Require(time != nullptr, "time creation failed");
    return time;
}

// KU_* mask bits in the order of the keyUsage BIT STRING (bit 0 first).
constexpr int KEY_USAGE_BITS[] = {KU_DIGITAL_SIGNATURE, KU_NON_REPUDIATION, KU_KEY_ENCIPHERMENT,
                                  KU_DATA_ENCIPHERMENT, KU_KEY_AGREEMENT,    KU_KEY_CERT_SIGN,
                                  KU_CRL_SIGN,          KU_ENCIPHER_ONLY,    KU_DECIPHER_ONLY};

void AddExtensions(X509* cert, const CertSpec& spec)
{
    if (spec.caFlag) {
        BasicConstraintsPtr constraints(BASIC_CONSTRAINTS_new());
        Require(constraints != nullptr, "BASIC_CONSTRAINTS_new failed");
        constraints->ca = 0xFF;
        Require(X509_add1_ext_i2d(cert, NID_basic_constraints, constraints.get(), 1, X509V3_ADD_DEFAULT) == 1,
                "adding basicConstraints failed");
    }
    if (spec.keyUsage.has_value()) {
        BitStringPtr usage(ASN1_BIT_STRING_new());
        Require(usage != nullptr, "ASN1_BIT_STRING_new failed");
        int bit = 0;
        for (int mask : KEY_USAGE_BITS) {
            if ((*spec.keyUsage & mask) != 0) {
                Require(ASN1_BIT_STRING_set_bit(usage.get(), bit, 1) == 1, "setting a key usage bit failed");
            }
            ++bit;
        }
        Require(X509_add1_ext_i2d(cert, NID_key_usage, usage.get(), 1, X509V3_ADD_DEFAULT) == 1,
                "adding keyUsage failed");
    }
}

// Opens `path` for writing with mode 0600, refusing to follow a link there.
BioPtr OpenForWrite(const std::string& path)
{
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) {
        Fail("cannot create " + path + ": " + std::strerror(errno));
    }
    if (fchmod(fd, 0600) != 0) {
        close(fd);
        Fail("cannot chmod " + path);
    }
    std::FILE* file = fdopen(fd, "wb");
    if (file == nullptr) {
        close(fd);
        Fail("fdopen failed for " + path);
    }
    BioPtr bio(BIO_new_fp(file, BIO_CLOSE));
    if (bio == nullptr) {
        std::fclose(file);
        Fail("BIO_new_fp failed for " + path);
    }
    return bio;
}

void Finish(BioPtr& bio, const std::string& path)
{
    Require(BIO_flush(bio.get()) == 1, ("flushing " + path + " failed").c_str());
}

}  // namespace

Key MakeKey(KeyType type, int bits) { return CachedKey(type, bits, 0); }

Key MakeFreshKey(KeyType type, int bits) { return GenerateKey(type, bits); }

Cert MakeCert(const CertSpec& spec, const Cert& issuer, const Key& issuerKey)
{
    const Key key = spec.key ? spec.key : MakeKey();
    const Key signingKey = issuer ? issuerKey : key;
    Require(signingKey != nullptr, "an issuer certificate needs its key");

    Cert cert(X509_new(), X509Free());
    Require(cert != nullptr, "X509_new failed");
    Require(X509_set_version(cert.get(), X509_VERSION_3) == 1, "X509_set_version failed");
    Require(ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), spec.serial) == 1, "setting the serial failed");
    SetTime(X509_getm_notBefore(cert.get()), spec.notBeforeOffset);
    SetTime(X509_getm_notAfter(cert.get()), spec.notAfterOffset);

    X509_NAME* subject = X509_get_subject_name(cert.get());
    Require(X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_UTF8,
                                       reinterpret_cast<const unsigned char*>(spec.commonName.c_str()), -1, -1,
                                       0) == 1,
            "setting the common name failed");
    X509_NAME* issuerName = issuer ? X509_get_subject_name(issuer.get()) : subject;
    Require(X509_set_issuer_name(cert.get(), issuerName) == 1, "setting the issuer failed");
    Require(X509_set_pubkey(cert.get(), key.get()) == 1, "setting the public key failed");
    AddExtensions(cert.get(), spec);
    SignCert(cert.get(), signingKey.get(), spec.digest, spec.pssSignature);
    return cert;
}

CertSpec CaSpec(const std::string& commonName)
{
    CertSpec spec;
    spec.commonName = commonName;
    spec.key = MakeKey();
    spec.caFlag = true;
    spec.keyUsage = KU_KEY_CERT_SIGN | KU_CRL_SIGN | KU_DIGITAL_SIGNATURE;
    spec.serial = 1;
    return spec;
}

CertSpec ServerSpec(const std::string& commonName)
{
    CertSpec spec;
    spec.commonName = commonName;
    spec.key = CachedKey(KeyType::Rsa, 3072, 1);
    spec.keyUsage = KU_DIGITAL_SIGNATURE | KU_KEY_ENCIPHERMENT;
    spec.serial = 2;
    return spec;
}

Crl MakeCrl(const CrlSpec& spec, const Cert& issuer, const Key& issuerKey)
{
    Require(issuer != nullptr && issuerKey != nullptr, "a CRL needs its issuer and the issuer's key");
    Crl crl(X509_CRL_new(), CrlFree());
    Require(crl != nullptr, "X509_CRL_new failed");
    Require(X509_CRL_set_version(crl.get(), X509_CRL_VERSION_2) == 1, "X509_CRL_set_version failed");
    Require(X509_CRL_set_issuer_name(crl.get(), X509_get_subject_name(issuer.get())) == 1,
            "setting the CRL issuer failed");
    Require(X509_CRL_set1_lastUpdate(crl.get(), TimeFromNow(spec.lastUpdateOffset).get()) == 1,
            "setting lastUpdate failed");
    if (spec.nextUpdateOffset.has_value()) {
        Require(X509_CRL_set1_nextUpdate(crl.get(), TimeFromNow(*spec.nextUpdateOffset).get()) == 1,
                "setting nextUpdate failed");
    }

    auto addRevoked = [&crl](long serial) {
        RevokedPtr revoked(X509_REVOKED_new());
        Require(revoked != nullptr, "X509_REVOKED_new failed");
        ASN1_INTEGER* number = ASN1_INTEGER_new();
        Require(number != nullptr && ASN1_INTEGER_set(number, serial) == 1, "revoked serial failed");
        const int setSerial = X509_REVOKED_set_serialNumber(revoked.get(), number);
        ASN1_INTEGER_free(number);
        Require(setSerial == 1, "X509_REVOKED_set_serialNumber failed");
        Require(X509_REVOKED_set_revocationDate(revoked.get(), TimeFromNow(-60).get()) == 1,
                "setting the revocation date failed");
        Require(X509_CRL_add0_revoked(crl.get(), revoked.get()) == 1, "X509_CRL_add0_revoked failed");
        revoked.release();  // owned by the CRL now
    };

    if (spec.revokedField) {
        if (spec.revokedSerials.empty()) {
            // OpenSSL omits the field when no entry was ever added. Adding one
            // and taking it out again leaves an empty, present sequence.
            addRevoked(1);
            RevokedPtr removed(sk_X509_REVOKED_pop(X509_CRL_get_REVOKED(crl.get())));
            Require(removed != nullptr, "removing the placeholder entry failed");
        }
        for (long serial : spec.revokedSerials) {
            addRevoked(serial);
        }
        Require(X509_CRL_sort(crl.get()) == 1, "X509_CRL_sort failed");
    }
    Require(X509_CRL_sign(crl.get(), issuerKey.get(), DigestOf(spec.digest)) > 0, "CRL signing failed");

    // Parse the signed encoding back so the object matches what a reader of
    // the written file sees (a present but empty field stays present).
    unsigned char* der = nullptr;
    const int length = i2d_X509_CRL(crl.get(), &der);
    Require(length > 0, "CRL encoding failed");
    const unsigned char* cursor = der;
    Crl parsed(d2i_X509_CRL(nullptr, &cursor, length), CrlFree());
    OPENSSL_free(der);
    Require(parsed != nullptr, "CRL re-parse failed");
    const STACK_OF(X509_REVOKED)* revoked = X509_CRL_get_REVOKED(parsed.get());
    if (spec.revokedField) {
        Require(revoked != nullptr && sk_X509_REVOKED_num(revoked) == static_cast<int>(spec.revokedSerials.size()),
                "the CRL's revoked field did not survive encoding");
    } else {
        Require(revoked == nullptr, "the CRL unexpectedly carries a revoked field");
    }
    return parsed;
}

void WriteCertPem(const Cert& cert, const std::string& path)
{
    BioPtr bio = OpenForWrite(path);
    Require(PEM_write_bio_X509(bio.get(), cert.get()) == 1, "PEM_write_bio_X509 failed");
    Finish(bio, path);
}

void WriteCertDer(const Cert& cert, const std::string& path)
{
    BioPtr bio = OpenForWrite(path);
    Require(i2d_X509_bio(bio.get(), cert.get()) == 1, "i2d_X509_bio failed");
    Finish(bio, path);
}

void WriteKeyPem(const Key& key, const std::string& path, KeyFormat format, const std::string& passPhrase)
{
    BioPtr bio = OpenForWrite(path);
    // The const_cast is OpenSSL's old signature; the pass phrase is only read.
    auto* pass = reinterpret_cast<unsigned char*>(const_cast<char*>(passPhrase.c_str()));
    const int passLength = static_cast<int>(passPhrase.size());
    int written = 0;
    switch (format) {
        case KeyFormat::Pkcs8Encrypted:
            written = PEM_write_bio_PKCS8PrivateKey(bio.get(), key.get(), EVP_aes_256_cbc(),
                                                    reinterpret_cast<char*>(pass), passLength, nullptr, nullptr);
            break;
        case KeyFormat::TraditionalEncrypted:
            written = PEM_write_bio_PrivateKey_traditional(bio.get(), key.get(), EVP_aes_256_cbc(), pass, passLength,
                                                           nullptr, nullptr);
            break;
        case KeyFormat::Pkcs8Plain:
            written = PEM_write_bio_PrivateKey(bio.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr);
            break;
        case KeyFormat::TraditionalPlain:
            written = PEM_write_bio_PrivateKey_traditional(bio.get(), key.get(), nullptr, nullptr, 0, nullptr,
                                                           nullptr);
            break;
    }
    Require(written == 1, "writing the key failed");
    Finish(bio, path);
}

void WriteCrlPem(const Crl& crl, const std::string& path)
{
    BioPtr bio = OpenForWrite(path);
    Require(PEM_write_bio_X509_CRL(bio.get(), crl.get()) == 1, "PEM_write_bio_X509_CRL failed");
    Finish(bio, path);
}

void WriteCrlDer(const Crl& crl, const std::string& path)
{
    BioPtr bio = OpenForWrite(path);
    Require(i2d_X509_CRL_bio(bio.get(), crl.get()) == 1, "i2d_X509_CRL_bio failed");
    Finish(bio, path);
}

std::string Fingerprint(const Cert& cert, const EVP_MD* md)
{
    unsigned char digest[EVP_MAX_MD_SIZE] = {};
    unsigned int length = 0;
    Require(X509_digest(cert.get(), md, digest, &length) == 1, "X509_digest failed");
    static const char HEX[] = "0123456789abcdef";
    std::string text;
    for (unsigned int i = 0; i < length; ++i) {
        if (i != 0) {
            text += ':';
        }
        text += HEX[digest[i] >> 4];
        text += HEX[digest[i] & 0x0F];
    }
    return text;
}

InputSet MakeValidInputs(const std::string& dir, const std::string& passPhrase)
{
    InputSet set;
    const CertSpec caSpec = CaSpec();
    set.caKey = caSpec.key;
    set.ca = MakeCert(caSpec);
    const CertSpec serverSpec = ServerSpec();
    set.serverKey_ = serverSpec.key;
    set.server = MakeCert(serverSpec, set.ca, set.caKey);

    set.caCrt = dir + "/ca.crt";
    set.serverCrt = dir + "/server.crt";
    set.serverKey = dir + "/server.key";
    set.crl = dir + "/ca.crl";
    WriteCertPem(set.ca, set.caCrt);
    WriteCertPem(set.server, set.serverCrt);
    WriteKeyPem(set.serverKey_, set.serverKey, KeyFormat::Pkcs8Encrypted, passPhrase);
    WriteCrlPem(MakeCrl(CrlSpec(), set.ca, set.caKey), set.crl);
    return set;
}

}  // namespace VardoTest
