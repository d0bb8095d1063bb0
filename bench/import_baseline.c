/* import_baseline: the work a first import cannot avoid, done as plainly as
 * OpenSSL allows, as one whole process. scripts/bench.sh times it beside the
 * real import to tell the import's own overhead from the price of its crypto
 * and its durable writes.
 *
 *   BENCH_PASS_PHRASE=... import_baseline CA_CRT SERVER_CRT SERVER_KEY CA_CRL OUT_DIR
 *
 * It decrypts and parses the encrypted PEM server key with the pass phrase,
 * parses both certificates and the CRL, verifies the CRL's signature with the
 * CA's key, takes the CA's SHA-256 fingerprint, encrypts the pass phrase once
 * with AES-256-GCM under a random key and nonce, and writes the result to two
 * new owner-only files in OUT_DIR (each synced) followed by one sync of the
 * directory. Silent on success (exit 0); one line on standard error and exit 1
 * on any failure. */
#define _POSIX_C_SOURCE 200809L
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509.h>

#define KEY_SIZE 32
#define NONCE_SIZE 12
#define TAG_SIZE 16
#define MAX_PASS_PHRASE 1024

static int Fail(const char* what)
{
    fprintf(stderr, "import_baseline: %s failed\n", what);
    ERR_print_errors_fp(stderr);
    return 0;
}

static X509* ReadCertificate(const char* path)
{
    BIO* file = BIO_new_file(path, "r");
    X509* cert = file == NULL ? NULL : PEM_read_bio_X509(file, NULL, NULL, NULL);
    BIO_free(file);
    return cert;
}

static X509_CRL* ReadCrl(const char* path)
{
    BIO* file = BIO_new_file(path, "r");
    X509_CRL* crl = file == NULL ? NULL : PEM_read_bio_X509_CRL(file, NULL, NULL, NULL);
    BIO_free(file);
    return crl;
}

/* With no callback, PEM reading takes the last argument as the pass phrase. */
static EVP_PKEY* ReadEncryptedKey(const char* path, const char* passPhrase)
{
    BIO* file = BIO_new_file(path, "r");
    EVP_PKEY* key = file == NULL ? NULL : PEM_read_bio_PrivateKey(file, NULL, NULL, (void*)passPhrase);
    BIO_free(file);
    return key;
}

/* sealed = nonce || cipher text || tag; returns its length, 0 on failure. */
static size_t Seal(const unsigned char* plain, size_t plainLength, unsigned char* sealed)
{
    unsigned char key[KEY_SIZE];
    size_t sealedLength = 0;
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    int length = 0;
    int finalLength = 0;
    if (ctx != NULL && RAND_bytes(key, sizeof(key)) == 1 && RAND_bytes(sealed, NONCE_SIZE) == 1 &&
        EVP_EncryptInit_ex2(ctx, EVP_aes_256_gcm(), key, sealed, NULL) == 1 &&
        EVP_EncryptUpdate(ctx, sealed + NONCE_SIZE, &length, plain, (int)plainLength) == 1 &&
        EVP_EncryptFinal_ex(ctx, sealed + NONCE_SIZE + length, &finalLength) == 1 &&
        EVP_CIPHER_CTX_ctrl(ctx, EVP_CTRL_GCM_GET_TAG, TAG_SIZE, sealed + NONCE_SIZE + length + finalLength) == 1) {
        sealedLength = NONCE_SIZE + (size_t)length + (size_t)finalLength + TAG_SIZE;
    }
    EVP_CIPHER_CTX_free(ctx);
    OPENSSL_cleanse(key, sizeof(key));
    return sealedLength;
}

/* A new file DIR/NAME holding data, synced before it is closed. */
static int WriteDurably(int dir, const char* name, const unsigned char* data, size_t length)
{
    const int fd = openat(dir, name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) {
        return 0;
    }
    size_t done = 0;
    while (done < length) {
        const ssize_t written = write(fd, data + done, length - done);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            close(fd);
            return 0;
        }
        done += (size_t)written;
    }
    const int synced = fsync(fd) == 0;
    return close(fd) == 0 && synced;
}

int main(int argc, char* argv[])
{
    if (argc != 6) {
        fprintf(stderr, "usage: BENCH_PASS_PHRASE=... import_baseline CA_CRT SERVER_CRT SERVER_KEY CA_CRL OUT_DIR\n");
        return 2;
    }
    const char* passPhrase = getenv("BENCH_PASS_PHRASE");
    if (passPhrase == NULL || strlen(passPhrase) == 0 || strlen(passPhrase) > MAX_PASS_PHRASE) {
        fprintf(stderr, "import_baseline: BENCH_PASS_PHRASE must hold the server key's pass phrase\n");
        return 2;
    }

    int ok = 1;
    X509* ca = NULL;
    X509* server = NULL;
    X509_CRL* crl = NULL;
    EVP_PKEY* key = NULL;
    int dir = -1;
    unsigned char fingerprint[EVP_MAX_MD_SIZE];
    unsigned int fingerprintLength = 0;
    unsigned char sealed[NONCE_SIZE + MAX_PASS_PHRASE + TAG_SIZE];
    size_t sealedLength = 0;

    ok = ok && ((key = ReadEncryptedKey(argv[3], passPhrase)) != NULL || Fail("decrypting the server key"));
    ok = ok && ((ca = ReadCertificate(argv[1])) != NULL || Fail("reading the CA certificate"));
    ok = ok && ((server = ReadCertificate(argv[2])) != NULL || Fail("reading the server certificate"));
    ok = ok && ((crl = ReadCrl(argv[4])) != NULL || Fail("reading the CRL"));
    ok = ok && (X509_CRL_verify(crl, X509_get0_pubkey(ca)) == 1 || Fail("verifying the CRL"));
    ok = ok && (X509_digest(ca, EVP_sha256(), fingerprint, &fingerprintLength) == 1 || Fail("the fingerprint"));
    ok = ok && ((sealedLength = Seal((const unsigned char*)passPhrase, strlen(passPhrase), sealed)) != 0 ||
                Fail("encrypting the pass phrase"));
    ok = ok && ((dir = open(argv[5], O_RDONLY | O_DIRECTORY | O_CLOEXEC)) >= 0 || Fail("opening OUT_DIR"));
    ok = ok && (WriteDurably(dir, "vardo.ks", sealed, sealedLength) || Fail("writing the first file"));
    ok = ok && (WriteDurably(dir, "StandbyKsf.ks", sealed, sealedLength) || Fail("writing the second file"));
    ok = ok && (fsync(dir) == 0 || Fail("syncing OUT_DIR"));

    if (dir >= 0) {
        close(dir);
    }
    OPENSSL_cleanse(sealed, sizeof(sealed));
    EVP_PKEY_free(key);
    X509_CRL_free(crl);
    X509_free(server);
    X509_free(ca);
    return ok ? 0 : 1;
}
