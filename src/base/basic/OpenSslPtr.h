// Owners for OpenSSL objects: one unique_ptr family, each with the object's
// own free function.
#ifndef OVRA_BASE_BASIC_OPENSSL_PTR_H
#define OVRA_BASE_BASIC_OPENSSL_PTR_H

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/kdf.h>
#include <openssl/x509.h>

#include <memory>

namespace OvraBase {
namespace Basic {

template <typename T, void (*FREE)(T*)>
struct OpenSslFree {
    void operator()(T* object) const noexcept { FREE(object); }
};

template <typename T, void (*FREE)(T*)>
using OpenSslPtr = std::unique_ptr<T, OpenSslFree<T, FREE>>;

using BioPtr = OpenSslPtr<BIO, BIO_free_all>;
using X509Ptr = OpenSslPtr<X509, X509_free>;
using X509CrlPtr = OpenSslPtr<X509_CRL, X509_CRL_free>;
using X509StorePtr = OpenSslPtr<X509_STORE, X509_STORE_free>;
using X509StoreCtxPtr = OpenSslPtr<X509_STORE_CTX, X509_STORE_CTX_free>;
using EvpPkeyPtr = OpenSslPtr<EVP_PKEY, EVP_PKEY_free>;
using EvpMdCtxPtr = OpenSslPtr<EVP_MD_CTX, EVP_MD_CTX_free>;
using CipherPtr = OpenSslPtr<EVP_CIPHER, EVP_CIPHER_free>;
using CipherCtxPtr = OpenSslPtr<EVP_CIPHER_CTX, EVP_CIPHER_CTX_free>;
using KdfPtr = OpenSslPtr<EVP_KDF, EVP_KDF_free>;
using KdfCtxPtr = OpenSslPtr<EVP_KDF_CTX, EVP_KDF_CTX_free>;
using MacPtr = OpenSslPtr<EVP_MAC, EVP_MAC_free>;
using MacCtxPtr = OpenSslPtr<EVP_MAC_CTX, EVP_MAC_CTX_free>;

}  // namespace Basic
}  // namespace OvraBase

#endif  // OVRA_BASE_BASIC_OPENSSL_PTR_H
