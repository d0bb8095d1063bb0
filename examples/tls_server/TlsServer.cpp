// vardo-tls-server: the smallest honest stand-in for the stream server.
//
// It does what the stream server does with the material an import leaves
// behind: reads streamserver.conf, decrypts server_key_mm with the key tool,
// opens the server key with that pass phrase, wipes the pass phrase, and
// serves TLS on 127.0.0.1, requiring a client certificate that verifies
// against the imported CA (and CRL, when the configuration names one).
//
// Like the stream server it owns glog: it initialises glog before it uses the
// SDK, and the SDK's records join its own on standard error, in glog's format.
//
// Run it from the SDK directory that holds ./keys, with OVRA_SDK_HOME set:
//   vardo-tls-server [--port N] [--connections N]
// It prints "listening on 127.0.0.1:<port>" once it accepts connections, and
// one line per connection: "handshake ok: <client subject>" or
// "handshake failed: <reason>". With --connections N it stops after N.
#include <arpa/inet.h>
#include <glog/logging.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "Internal/OvraStream/StreamConfig/SecureConfig.h"
#include "VardoTools.h"

namespace {

// The stream server's view of its configuration: the reader's map, read as text.
class StreamServerConfig : public OvraStream::SecureConfig {
public:
    ~StreamServerConfig() { ClearConfig(); }

    std::string Text(const std::string& key) const
    {
        auto entry = configMap_.find(key);
        return (entry == configMap_.end() || entry->second == nullptr) ? std::string() : std::string(entry->second);
    }
};

struct SslCtxFree {
    void operator()(SSL_CTX* ctx) const { SSL_CTX_free(ctx); }
};
struct SslFree {
    void operator()(SSL* ssl) const { SSL_free(ssl); }
};
struct X509CrlFree {
    void operator()(X509_CRL* crl) const { X509_CRL_free(crl); }
};
struct FileClose {
    void operator()(FILE* file) const { std::fclose(file); }
};
using SslCtxPtr = std::unique_ptr<SSL_CTX, SslCtxFree>;
using SslPtr = std::unique_ptr<SSL, SslFree>;

// The decrypted pass phrase, wiped and released by the key tool's own wipe.
class PassPhrase {
public:
    ~PassPhrase() { Release(); }
    char** Out() { return &text_; }
    unsigned long& Length() { return length_; }
    const char* Text() const { return text_; }
    void Release()
    {
        OvraStream::VardoTools::ResetDeleteCharArray(text_, length_);
        text_ = nullptr;
        length_ = 0;
    }

private:
    char* text_ = nullptr;
    unsigned long length_ = 0;
};

std::string OpenSslError()
{
    char text[256] = {0};
    unsigned long code = ERR_get_error();
    ERR_error_string_n(code, text, sizeof(text));
    ERR_clear_error();
    return code == 0 ? "unknown error" : text;
}

bool Fail(const std::string& what)
{
    std::fprintf(stderr, "vardo-tls-server: %s\n", what.c_str());
    return false;
}

bool LoadCrl(SSL_CTX* ctx, const std::string& crlPath)
{
    std::unique_ptr<FILE, FileClose> file(std::fopen(crlPath.c_str(), "r"));
    if (!file) {
        return Fail("cannot open the revocation list " + crlPath);
    }
    std::unique_ptr<X509_CRL, X509CrlFree> crl(PEM_read_X509_CRL(file.get(), nullptr, nullptr, nullptr));
    X509_STORE* store = SSL_CTX_get_cert_store(ctx);
    if (!crl || X509_STORE_add_crl(store, crl.get()) != 1) {
        return Fail("cannot load the revocation list: " + OpenSslError());
    }
    X509_STORE_set_flags(store, X509_V_FLAG_CRL_CHECK);
    return true;
}

// Builds the server context from the configuration; the pass phrase lives
// only between its decryption and the key load.
SslCtxPtr BuildContext()
{
    StreamServerConfig config;
    const char* sdkHome = std::getenv("OVRA_SDK_HOME");
    if (sdkHome == nullptr) {
        Fail("OVRA_SDK_HOME is not set");
        return nullptr;
    }
    if (config.LoadConfig(std::string(sdkHome) + "/config/streamserver.conf") != 0) {
        Fail("cannot load streamserver.conf");
        return nullptr;
    }
    int32_t algorithmId = 0;
    if (config.GetValue("pask_algorithm_id", algorithmId) != 0) {
        Fail("pask_algorithm_id is missing or not a number");
        return nullptr;
    }
    const std::string serverCrt = config.Text("server_crt");
    const std::string serverKey = config.Text("server_key");
    const std::string caCrt = config.Text("ca_crt");
    const std::string crl = config.Text("crl");
    const std::string cipherText = config.Text("server_key_mm");
    config.ClearConfig();

    SslCtxPtr ctx(SSL_CTX_new(TLS_server_method()));
    if (!ctx || SSL_CTX_set_min_proto_version(ctx.get(), TLS1_2_VERSION) != 1) {
        Fail("cannot create the TLS context: " + OpenSslError());
        return nullptr;
    }
    if (SSL_CTX_use_certificate_chain_file(ctx.get(), serverCrt.c_str()) != 1) {
        Fail("cannot load the server certificate " + serverCrt + ": " + OpenSslError());
        return nullptr;
    }

    PassPhrase passPhrase;
    OvraStream::VardoTools keyTool;
    if (keyTool.DecryptCaPassword(cipherText.c_str(), passPhrase.Out(), passPhrase.Length(), algorithmId) != 0) {
        Fail("cannot decrypt server_key_mm");
        return nullptr;
    }
    SSL_CTX_set_default_passwd_cb_userdata(ctx.get(), const_cast<char*>(passPhrase.Text()));
    const bool keyLoaded = SSL_CTX_use_PrivateKey_file(ctx.get(), serverKey.c_str(), SSL_FILETYPE_PEM) == 1;
    SSL_CTX_set_default_passwd_cb_userdata(ctx.get(), nullptr);
    passPhrase.Release();
    if (!keyLoaded || SSL_CTX_check_private_key(ctx.get()) != 1) {
        Fail("cannot open the server key " + serverKey + ": " + OpenSslError());
        return nullptr;
    }

    if (SSL_CTX_load_verify_locations(ctx.get(), caCrt.c_str(), nullptr) != 1) {
        Fail("cannot load the CA certificate " + caCrt + ": " + OpenSslError());
        return nullptr;
    }
    if (!crl.empty() && !LoadCrl(ctx.get(), crl)) {
        return nullptr;
    }
    SSL_CTX_set_verify(ctx.get(), SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
    std::printf("loaded %s, %s, %s%s\n", serverCrt.c_str(), serverKey.c_str(), caCrt.c_str(),
                crl.empty() ? " (no revocation list)" : (", " + crl).c_str());
    return ctx;
}

int Listen(int port, int& boundPort)
{
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) {
        return -1;
    }
    int reuse = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof(reuse));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 || listen(fd, 8) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        close(fd);
        return -1;
    }
    boundPort = ntohs(address.sin_port);
    return fd;
}

void Serve(SSL_CTX* ctx, int clientFd)
{
    SslPtr ssl(SSL_new(ctx));
    if (!ssl || SSL_set_fd(ssl.get(), clientFd) != 1) {
        std::printf("handshake failed: %s\n", OpenSslError().c_str());
        return;
    }
    if (SSL_accept(ssl.get()) != 1) {
        const long verify = SSL_get_verify_result(ssl.get());
        std::printf("handshake failed: %s (%s)\n", OpenSslError().c_str(),
                    X509_verify_cert_error_string(verify));
        return;
    }
    std::string subject = "(none)";
    if (X509* peer = SSL_get0_peer_certificate(ssl.get())) {
        char name[256] = {0};
        X509_NAME_oneline(X509_get_subject_name(peer), name, sizeof(name));
        subject = name;
    }
    std::printf("handshake ok: %s\n", subject.c_str());
    const char greeting[] = "hello from the stream server\n";
    SSL_write(ssl.get(), greeting, sizeof(greeting) - 1);
    SSL_shutdown(ssl.get());
}

}  // namespace

int main(int argc, char* argv[])
{
    int port = 0;
    long connections = -1;
    for (int i = 1; i < argc; ++i) {
        const std::string option = argv[i];
        if (option == "--port" && i + 1 < argc) {
            port = std::atoi(argv[++i]);
        } else if (option == "--connections" && i + 1 < argc) {
            connections = std::atol(argv[++i]);
        } else {
            std::fprintf(stderr, "usage: vardo-tls-server [--port N] [--connections N]\n");
            return 2;
        }
    }
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    FLAGS_logtostderr = true;
    google::InitGoogleLogging(argv[0]);
    LOG(INFO) << "vardo-tls-server starting";

    SslCtxPtr ctx = BuildContext();
    if (!ctx) {
        return 1;
    }
    int boundPort = 0;
    int listenFd = Listen(port, boundPort);
    if (listenFd < 0) {
        std::fprintf(stderr, "vardo-tls-server: cannot listen on 127.0.0.1:%d: %s\n", port, std::strerror(errno));
        return 1;
    }
    std::printf("listening on 127.0.0.1:%d\n", boundPort);
    for (long served = 0; connections < 0 || served < connections; ++served) {
        int clientFd = accept(listenFd, nullptr, nullptr);
        if (clientFd < 0) {
            continue;
        }
        Serve(ctx.get(), clientFd);
        close(clientFd);
    }
    close(listenFd);
    return 0;
}
