// The TLS material an import leaves for the stream server, read the way the
// stream server reads it at start-up: streamserver.conf through the key
// tool's reader, server_key_mm decrypted by the key tool, the server key
// opened with that pass phrase, the certificates and the revocation list the
// configuration names, and the key stores' master keys from their read-only
// report.
//
// Reading changes nothing on disk. The key engine that the decryption starts
// would create missing stores and lock file, rebuild a damaged or older copy
// and remove temporaries of an interrupted write, so each of those states is
// refused before the engine starts.
#ifndef VARDO_TOOLS_TLS_CHECK_MATERIAL_H
#define VARDO_TOOLS_TLS_CHECK_MATERIAL_H

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace VardoTlsCheck {

struct X509Free {
    void operator()(X509* cert) const { X509_free(cert); }
};
struct X509CrlFree {
    void operator()(X509_CRL* crl) const { X509_CRL_free(crl); }
};
struct PkeyFree {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
using CertPtr = std::unique_ptr<X509, X509Free>;
using CrlPtr = std::unique_ptr<X509_CRL, X509CrlFree>;
using KeyPtr = std::unique_ptr<EVP_PKEY, PkeyFree>;

// The active master key of one key domain.
struct ActiveMasterKey {
    uint32_t domainId = 0;
    uint32_t keyId = 0;
    int64_t expires = 0;  // seconds since the epoch
};

struct Material {
    // Paths as streamserver.conf names them (relative to the working
    // directory); crlPath is empty when the configuration names no list.
    std::string caPath;
    std::string serverCrtPath;
    std::string serverKeyPath;
    std::string crlPath;
    CertPtr ca;
    CertPtr server;
    CrlPtr crl;      // null without a list
    KeyPtr key;      // null when the decrypted pass phrase does not open the key
    std::vector<ActiveMasterKey> masterKeys;  // by domain
};

// Reads the material from the working directory (the SDK directory that
// holds ./keys) and $OVRA_SDK_HOME/config/streamserver.conf. false, with
// `problem` saying what could not be read and what to do, when something is
// missing or unreadable, server_key_mm does not decrypt, or the key stores
// are in a state the engine would change.
bool ReadMaterial(Material& material, std::string& problem);

}  // namespace VardoTlsCheck

#endif  // VARDO_TOOLS_TLS_CHECK_MATERIAL_H
