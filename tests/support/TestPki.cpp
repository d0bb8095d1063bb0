// Test PKI made with the OpenSSL 3 API at test time. A construction failure is a
// broken set-up: it throws std::runtime_error with OpenSSL's error text.
#include "TestPki.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <cctype>
#include <functional>
#include <map>
#include <stdexcept>
#include <tuple>
#include <utility>

#include "Scratch.h"

namespace VardoTest {
namespace {

void Require(bool ok, const std::string& what)
{
    if (!ok) {
        char text[256] = "no OpenSSL error";
        if (const unsigned long error = ERR_get_error(); error != 0) {
            ERR_error_string_n(error, text, sizeof(text));
        }
        ERR_clear_error();
        throw std::runtime_error("test PKI: " + what + ": " + text);
    }
}

// Keys are slow to make, so they are shared: one per (type, size, slot). Slot 0 is
// what MakeKey hands out; the server certificate takes slot 1, never the CA's key.
Key CachedKey(KeyType type, int bits, int slot)
{
    static std::map<std::tuple<KeyType, int, int>, Key> cache;
    Key& key = cache[{type, type == KeyType::EcP256 ? 256 : bits, slot}];
    if (!key) {
        key.reset(type == KeyType::EcP256 ? EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256")
                                          : EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", static_cast<size_t>(bits)),
                  PkeyFree());
        Require(key != nullptr, "key generation");
    }
    return key;
}

const EVP_MD* DigestOf(Digest digest)
{
    return digest == Digest::Sha384 ? EVP_sha384() : digest == Digest::Sha512 ? EVP_sha512() : EVP_sha256();
}

// Adds an extension written in OpenSSL's configuration syntax.
void AddExtension(X509* cert, int nid, const std::string& value)
{
    X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, nullptr, nid, value.c_str());
    const bool added = extension != nullptr && X509_add_ext(cert, extension, -1) == 1;
    X509_EXTENSION_free(extension);
    Require(added, "extension " + value);
}

// Writes what `encode` puts into a memory stream to `path`, mode 0600.
void WriteEncoded(const std::string& path, const std::function<int(BIO*)>& encode)
{
    BIO* memory = BIO_new(BIO_s_mem());
    BUF_MEM* buffer = nullptr;
    const bool encoded = memory != nullptr && encode(memory) == 1 && BIO_get_mem_ptr(memory, &buffer) == 1;
    const std::string bytes = encoded ? std::string(buffer->data, buffer->length) : "";
    BIO_free(memory);
    Require(encoded, "encoding " + path);
    WriteWholeFile(path, bytes);
}

}  // namespace

Key MakeKey(KeyType type, int bits) { return CachedKey(type, bits, 0); }

Cert MakeCert(const CertSpec& recipe, const Cert& issuer, const Key& issuerKey)
{
    const Key key = recipe.key ? recipe.key : MakeKey();
    const Key signingKey = issuer ? issuerKey : key;
    Require(signingKey != nullptr, "an issuer certificate needs its key");
    Cert cert(X509_new(), X509Free());
    Require(cert != nullptr, "X509_new");
    X509* x = cert.get();
    X509_NAME* subject = X509_get_subject_name(x);
    const auto* name = reinterpret_cast<const unsigned char*>(recipe.commonName.c_str());
    Require(X509_set_version(x, X509_VERSION_3) == 1 && ASN1_INTEGER_set(X509_get_serialNumber(x), recipe.serial) == 1 &&
                X509_gmtime_adj(X509_getm_notBefore(x), recipe.notBeforeOffset) != nullptr &&
                X509_gmtime_adj(X509_getm_notAfter(x), recipe.notAfterOffset) != nullptr &&
                X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_UTF8, name, -1, -1, 0) == 1 &&
                X509_set_issuer_name(x, issuer ? X509_get_subject_name(issuer.get()) : subject) == 1 &&
                X509_set_pubkey(x, key.get()) == 1,
            "certificate fields");
    if (recipe.caFlag) {
        AddExtension(x, NID_basic_constraints, "critical,CA:TRUE");
    }
    if (recipe.keyUsage.has_value()) {
        AddExtension(x, NID_key_usage, "critical," + *recipe.keyUsage);
    }
    // With `pssSignature` the RSA key signs with PSS padding, salt as long as the digest.
    EVP_MD_CTX* context = EVP_MD_CTX_new();
    EVP_PKEY_CTX* keyContext = nullptr;
    const bool signedOk =
        context != nullptr &&
        EVP_DigestSignInit(context, &keyContext, DigestOf(recipe.digest), nullptr, signingKey.get()) == 1 &&
        (!recipe.pssSignature || (EVP_PKEY_CTX_set_rsa_padding(keyContext, RSA_PKCS1_PSS_PADDING) == 1 &&
                                EVP_PKEY_CTX_set_rsa_pss_saltlen(keyContext, RSA_PSS_SALTLEN_DIGEST) == 1)) &&
        X509_sign_ctx(x, context) > 0;
    EVP_MD_CTX_free(context);
    Require(signedOk, "certificate signing");
    return cert;
}

CertSpec CaSpec(const std::string& commonName)
{
    CertSpec recipe;
    recipe.commonName = commonName;
    recipe.key = MakeKey();
    recipe.caFlag = true;
    recipe.keyUsage = "keyCertSign,cRLSign,digitalSignature";
    return recipe;
}

CertSpec ServerSpec(const std::string& commonName)
{
    CertSpec recipe;
    recipe.commonName = commonName;
    recipe.key = CachedKey(KeyType::Rsa, 3072, 1);
    recipe.keyUsage = "digitalSignature,keyEncipherment";
    recipe.serial = 2;
    return recipe;
}

bool SetUncomparable(ASN1_TIME* time)
{
    return ASN1_TIME_set_string(time, "20200101000000.5Z") == 1 && X509_cmp_current_time(time) == 0;
}

Crl MakeCrl(const CrlSpec& recipe, const Cert& issuer, const Key& issuerKey)
{
    Require(issuer != nullptr && issuerKey != nullptr, "a CRL needs its issuer and the issuer's key");
    Crl crl(X509_CRL_new(), CrlFree());
    Require(crl != nullptr, "X509_CRL_new");
    X509_CRL* list = crl.get();
    using TimePtr = std::unique_ptr<ASN1_TIME, void (*)(ASN1_TIME*)>;
    const TimePtr last(X509_gmtime_adj(nullptr, recipe.lastUpdateOffset), ASN1_TIME_free);
    const TimePtr next(X509_gmtime_adj(nullptr, recipe.nextUpdateOffset.value_or(0)), ASN1_TIME_free);
    Require((!recipe.lastUpdateUncomparable || SetUncomparable(last.get())) &&
                (!recipe.nextUpdateUncomparable || SetUncomparable(next.get())),
            "uncomparable CRL date");
    Require(X509_CRL_set_version(list, X509_CRL_VERSION_2) == 1 &&
                X509_CRL_set_issuer_name(list, X509_get_subject_name(issuer.get())) == 1 &&
                X509_CRL_set1_lastUpdate(list, last.get()) == 1 &&
                (!recipe.nextUpdateOffset.has_value() || X509_CRL_set1_nextUpdate(list, next.get()) == 1),
            "CRL fields");
    auto addRevoked = [&](long serial) {
        X509_REVOKED* revoked = X509_REVOKED_new();
        ASN1_INTEGER* number = ASN1_INTEGER_new();
        const bool added = revoked != nullptr && number != nullptr && ASN1_INTEGER_set(number, serial) == 1 &&
                           X509_REVOKED_set_serialNumber(revoked, number) == 1 &&
                           X509_REVOKED_set_revocationDate(revoked, last.get()) == 1 &&
                           X509_CRL_add0_revoked(list, revoked) == 1;
        ASN1_INTEGER_free(number);
        if (!added) {
            X509_REVOKED_free(revoked);
        }
        Require(added, "revoked entry");
    };
    if (recipe.revokedField) {
        // OpenSSL leaves the field out until an entry is added; adding one and
        // taking it out again leaves the field present and empty.
        if (recipe.revokedSerials.empty()) {
            addRevoked(1);
            X509_REVOKED_free(sk_X509_REVOKED_pop(X509_CRL_get_REVOKED(list)));
        }
        for (long serial : recipe.revokedSerials) {
            addRevoked(serial);
        }
        Require(X509_CRL_sort(list) == 1, "X509_CRL_sort");
    }
    Require(X509_CRL_sign(list, issuerKey.get(), DigestOf(recipe.digest)) > 0, "CRL signing");
    return crl;
}

void WriteCertPem(const Cert& cert, const std::string& path)
{
    WriteEncoded(path, [&](BIO* bio) { return PEM_write_bio_X509(bio, cert.get()); });
}

void WriteKeyPem(const Key& key, const std::string& path, KeyFormat format, const std::string& passPhrase)
{
    // The const_cast is OpenSSL's old signature; the pass phrase is only read.
    auto* pass = reinterpret_cast<unsigned char*>(const_cast<char*>(passPhrase.c_str()));
    const int length = static_cast<int>(passPhrase.size());
    const EVP_CIPHER* aes = EVP_aes_256_cbc();
    WriteEncoded(path, [&](BIO* bio) {
        switch (format) {
            case KeyFormat::Pkcs8Encrypted:
                return PEM_write_bio_PKCS8PrivateKey(bio, key.get(), aes, reinterpret_cast<char*>(pass), length,
                                                     nullptr, nullptr);
            case KeyFormat::TraditionalEncrypted:
                return PEM_write_bio_PrivateKey_traditional(bio, key.get(), aes, pass, length, nullptr, nullptr);
            case KeyFormat::Pkcs8Plain:
                return PEM_write_bio_PrivateKey(bio, key.get(), nullptr, nullptr, 0, nullptr, nullptr);
            case KeyFormat::TraditionalPlain:
                return PEM_write_bio_PrivateKey_traditional(bio, key.get(), nullptr, nullptr, 0, nullptr, nullptr);
        }
        return 0;
    });
}

void WriteCrlPem(const Crl& crl, const std::string& path)
{
    WriteEncoded(path, [&](BIO* bio) { return PEM_write_bio_X509_CRL(bio, crl.get()); });
}

void WriteCrlDer(const Crl& crl, const std::string& path)
{
    WriteEncoded(path, [&](BIO* bio) { return i2d_X509_CRL_bio(bio, crl.get()); });
}

std::string Fingerprint(const Cert& cert, const EVP_MD* md)
{
    unsigned char digest[EVP_MAX_MD_SIZE] = {};
    unsigned int length = 0;
    Require(X509_digest(cert.get(), md, digest, &length) == 1, "X509_digest");
    char* hex = OPENSSL_buf2hexstr(digest, length);  // "AB:CD:..."
    std::string text = hex != nullptr ? hex : "";
    OPENSSL_free(hex);
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

InputSet MakeValidInputs(const std::string& dir, const std::string& passPhrase)
{
    const CertSpec caSpec = CaSpec();
    const CertSpec serverSpec = ServerSpec();
    const Cert ca = MakeCert(caSpec);
    InputSet set{dir + "/ca.crt", dir + "/server.crt", dir + "/server.key", dir + "/ca.crl", ca,
                 MakeCert(serverSpec, ca, caSpec.key), caSpec.key, serverSpec.key};
    WriteCertPem(set.ca, set.caCrt);
    WriteCertPem(set.server, set.serverCrt);
    WriteKeyPem(set.serverKey_, set.serverKey, KeyFormat::Pkcs8Encrypted, passPhrase);
    WriteCrlPem(MakeCrl(CrlSpec(), set.ca, set.caKey), set.crl);
    return set;
}

}  // namespace VardoTest
