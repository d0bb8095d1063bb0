// Owning pointers for the OpenSSL objects and C files of the import checks.
#ifndef VARDO_TOOLS_CERT_IMPORT_OPENSSL_PTR_H
#define VARDO_TOOLS_CERT_IMPORT_OPENSSL_PTR_H

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <cstdio>
#include <memory>

namespace OvraStream {

template <typename T, void (*Free)(T*)>
struct OpenSslDeleter {
    void operator()(T* object) const { Free(object); }
};

using X509Ptr = std::unique_ptr<X509, OpenSslDeleter<X509, X509_free>>;
using X509CrlPtr = std::unique_ptr<X509_CRL, OpenSslDeleter<X509_CRL, X509_CRL_free>>;
using EvpPkeyPtr = std::unique_ptr<EVP_PKEY, OpenSslDeleter<EVP_PKEY, EVP_PKEY_free>>;
using BioPtr = std::unique_ptr<BIO, OpenSslDeleter<BIO, BIO_free_all>>;

struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;

}  // namespace OvraStream

#endif  // VARDO_TOOLS_CERT_IMPORT_OPENSSL_PTR_H
