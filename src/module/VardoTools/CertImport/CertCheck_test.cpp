// Direct tests of the input checks for what a whole run cannot reach well:
// date boundaries, algorithm and key tables, the confirmation answers, and
// the CRL and server key checks case by case with their exact records.
#include <gtest/gtest.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "ImportChecks.h"
#include "OvraBase/Log.h"
#include "ResultCode/ResultCode.h"
#include "TestPki.h"

namespace {

using namespace VardoTest;
using OvraStream::CheckCaCrtFingerprint;
using OvraStream::CheckCertTime;
using OvraStream::CheckCrlMatchingCrt;
using OvraStream::CheckServerCrtAlgorithm;
using OvraStream::CheckServerKey;

constexpr const char* UNIT = "src/module/VardoTools/CertImport/main";
constexpr const char* PASS = "Passw0rd-demo";
constexpr const char* QUESTION = "Do you want to continue with this certificate? [y/n]";

std::string Err(const std::string& message, int32_t code) { return message + OvraBase::GetErrorInfo(code, ""); }

// Records of the import command's unit, as "<severity letter><message>".
class RecordCapture : public google::LogSink {
public:
    using google::LogSink::send;
    void send(google::LogSeverity severity, const char* fullFilename, const char*, int, const google::LogMessageTime&,
              const char* message, size_t length) override
    {
        if (fullFilename != nullptr && std::string(fullFilename) == UNIT) {
            records.push_back(std::string(1, "IWEF"[severity]) + std::string(message, length));
        }
    }
    std::vector<std::string> records;
};

class InputChecksTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        savedFrequency_ = OvraBase::Log::logFlowControlFrequency_;
        OvraBase::Log::logFlowControlFrequency_ = 1;  // every pass writes its record
        google::AddLogSink(&capture_);
        char pattern[] = "/tmp/vardo-checks-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir_ = pattern;
    }
    void TearDown() override
    {
        google::RemoveLogSink(&capture_);
        OvraBase::Log::logFlowControlFrequency_ = savedFrequency_;
        std::filesystem::remove_all(dir_);
    }
    std::string Path(const std::string& name) const { return dir_ + "/" + name; }
    std::vector<std::string>& Records() { return capture_.records; }

    std::string dir_;

private:
    RecordCapture capture_;
    int32_t savedFrequency_ = 1;
};

// Answers typed on standard input for the duration of one scope.
class TypedAnswers {
public:
    explicit TypedAnswers(const std::string& text) : input_(text), saved_(std::cin.rdbuf(input_.rdbuf()))
    {
        std::cin.clear();
    }
    ~TypedAnswers()
    {
        std::cin.rdbuf(saved_);
        std::cin.clear();
    }

private:
    std::istringstream input_;
    std::streambuf* saved_;
};

// The certificate re-parsed after replacing every occurrence of one DER byte
// string by another: a way to give it an algorithm OpenSSL does not know.
Cert PatchDer(const Cert& cert, const std::string& from, const std::string& to)
{
    unsigned char* der = nullptr;
    const int length = i2d_X509(cert.get(), &der);
    std::string bytes(reinterpret_cast<char*>(der), static_cast<size_t>(length));
    OPENSSL_free(der);
    for (size_t at = bytes.find(from); at != std::string::npos; at = bytes.find(from, at + to.size())) {
        bytes.replace(at, from.size(), to);
    }
    const auto* cursor = reinterpret_cast<const unsigned char*>(bytes.data());
    return Cert(d2i_X509(nullptr, &cursor, static_cast<long>(bytes.size())), X509Free());
}
const std::string OID_SHA256_RSA("\x06\x09\x2a\x86\x48\x86\xf7\x0d\x01\x01\x0b", 11);
const std::string OID_RSA_KEY("\x06\x09\x2a\x86\x48\x86\xf7\x0d\x01\x01\x01", 11);
std::string UnknownOid(const std::string& oid) { return oid.substr(0, oid.size() - 1) + "\x7f"; }

Cert ServerCert(const std::function<void(CertSpec&)>& change)
{
    static const CertSpec caSpec = CaSpec();
    static const Cert ca = MakeCert(caSpec);
    CertSpec spec = ServerSpec();
    change(spec);
    return MakeCert(spec, ca, caSpec.key);
}

// A time that decodes (a past instant with fractional seconds) but that
// X509_cmp_current_time refuses to compare: its result is 0.
constexpr const char* UNCOMPARABLE_TIME = "20200101000000.5Z";
void SetUncomparableTime(ASN1_TIME* time)
{
    ASSERT_EQ(ASN1_STRING_set(time, UNCOMPARABLE_TIME, -1), 1);
    time->type = V_ASN1_GENERALIZEDTIME;
    ASSERT_EQ(X509_cmp_current_time(time), 0);
}

TEST_F(InputChecksTest, CertTimeIsInsideOnlyWhenStartedAndNotEnded)
{
    struct Case {
        const char* name;
        long notBefore, notAfter;
        std::function<void(X509*)> damage;
        bool outside;
    };
    const std::vector<Case> cases = {
        {"valid", -3600, 3600, nullptr, false},
        {"start equal to now passes", 0, 3600, nullptr, false},
        {"end equal to now is outside", -3600, 0, nullptr, true},
        {"end passed", -7200, -3600, nullptr, true},
        {"start in the future", 60, 3600, nullptr, true},
        {"uncomparable end", -3600, 3600, [](X509* c) { SetUncomparableTime(X509_getm_notAfter(c)); }, true},
        {"uncomparable start", -3600, 3600, [](X509* c) { SetUncomparableTime(X509_getm_notBefore(c)); }, true},
    };
    for (const Case& c : cases) {
        Cert cert = ServerCert([&](CertSpec& s) {
            s.notBeforeOffset = c.notBefore;
            s.notAfterOffset = c.notAfter;
        });
        if (c.damage) {
            c.damage(cert.get());
        }
        EXPECT_EQ(CheckCertTime(cert.get()), c.outside) << c.name;
    }
    EXPECT_TRUE(Records().empty());
}

TEST_F(InputChecksTest, ServerCertificateAlgorithmAndKeyTable)
{
    const std::string insecure = Err("Insecure encryption algorithm.", 1004);
    struct Case {
        const char* name;
        Cert cert;
        int32_t result;
        std::vector<std::string> records;
    };
    const std::vector<Case> cases = {
        {"SHA-256, RSA 3072", ServerCert([](CertSpec&) {}), 0, {}},
        {"SHA-512, RSA 3072", ServerCert([](CertSpec& s) { s.digest = Digest::Sha512; }), 0, {}},
        {"SHA-384", ServerCert([](CertSpec& s) { s.digest = Digest::Sha384; }), 1004, {"E" + insecure}},
        {"RSA-PSS signature", ServerCert([](CertSpec& s) { s.pssSignature = true; }), 1004, {"E" + insecure}},
        {"ECDSA signature", MakeCert([] { CertSpec s = ServerSpec(); s.key = MakeKey(KeyType::EcP256); return s; }()),
         1004, {"E" + insecure}},
        {"RSA 2048 key", ServerCert([](CertSpec& s) { s.key = MakeKey(KeyType::Rsa, 2048); }), 1004,
         {"E" + Err("Insecure RSA key length.", 1004)}},
        {"EC key", ServerCert([](CertSpec& s) { s.key = MakeKey(KeyType::EcP256); }), 1004,
         {"E" + Err("Please use a RSA key.", 1004)}},
        {"RSA-PSS key", ServerCert([](CertSpec& s) { s.key = MakeKey(KeyType::RsaPss, 3072); }), 1004,
         {"E" + Err("Please use a RSA key.", 1004)}},
        {"unknown signature algorithm", PatchDer(ServerCert([](CertSpec&) {}), OID_SHA256_RSA, UnknownOid(OID_SHA256_RSA)),
         1004, {"E" + Err("Unknown algorithm id.", 1004)}},
        {"undecodable public key", PatchDer(ServerCert([](CertSpec&) {}), OID_RSA_KEY, UnknownOid(OID_RSA_KEY)), 1004,
         {"E" + Err("Can not get the pubkey from the cert.", 1004)}},
    };
    for (const Case& c : cases) {
        ASSERT_NE(c.cert, nullptr) << c.name;
        Records().clear();
        EXPECT_EQ(CheckServerCrtAlgorithm(c.cert.get()), c.result) << c.name;
        EXPECT_EQ(Records(), c.records) << c.name;
    }
}

TEST_F(InputChecksTest, FingerprintIsShownThenOnlyLowerCaseAnswersDecide)
{
    const CertSpec caSpec = CaSpec();
    const Cert ca = MakeCert(caSpec);
    const std::string shown = "Isha256WithRSAEncryption Fingerprint: ";
    const std::string print = "I" + Fingerprint(ca, EVP_sha256());
    const std::string ask = std::string("I") + QUESTION;
    const std::string exits = "E" + Err("Program exits.", 1004);
    struct Case {
        std::string typed;
        int32_t result;
        std::vector<std::string> records;
    };
    const std::vector<Case> cases = {
        {"y\n", 0, {shown, print, ask}},
        {"n\n", 1004, {shown, print, ask, exits}},
        {"x\nY\ny\n", 0, {shown, print, ask, ask, ask}},
        {"N\nn\n", 1004, {shown, print, ask, ask, exits}},
        {" \t\n y", 0, {shown, print, ask}},
        {"yes\n", 0, {shown, print, ask}},
        {"", 1004, {shown, print, ask, exits}},
        {"x", 1004, {shown, print, ask, ask, exits}},
    };
    for (const Case& c : cases) {
        TypedAnswers answers(c.typed);
        Records().clear();
        EXPECT_EQ(CheckCaCrtFingerprint(ca.get()), c.result) << "typed: " << c.typed;
        EXPECT_EQ(Records(), c.records) << "typed: " << c.typed;
    }
    EXPECT_EQ(print.size(), 1 + 95u);
}

TEST_F(InputChecksTest, FingerprintUsesTheSignatureHashAndRefusesOthersBeforeAsking)
{
    CertSpec sha512 = CaSpec();
    sha512.digest = Digest::Sha512;
    const Cert ca512 = MakeCert(sha512);
    {
        TypedAnswers answers("y");
        EXPECT_EQ(CheckCaCrtFingerprint(ca512.get()), 0);
    }
    ASSERT_GE(Records().size(), 2u);
    EXPECT_EQ(Records()[0], "Isha512WithRSAEncryption Fingerprint: ");
    EXPECT_EQ(Records()[1], "I" + Fingerprint(ca512, EVP_sha512()));
    EXPECT_EQ(Records()[1].size(), 1 + 191u);

    CertSpec sha384 = CaSpec();
    sha384.digest = Digest::Sha384;
    const Cert unknown = PatchDer(MakeCert(CaSpec()), OID_SHA256_RSA, UnknownOid(OID_SHA256_RSA));
    const std::vector<std::pair<Cert, std::string>> refused = {
        {MakeCert(sha384), Err("Insecure encryption algorithm.", 1004)},
        {unknown, Err("Unknown algorithm id.", 1004)},
    };
    for (const auto& [cert, record] : refused) {
        TypedAnswers answers("y");
        Records().clear();
        EXPECT_EQ(CheckCaCrtFingerprint(cert.get()), 1004) << record;
        EXPECT_EQ(Records(), std::vector<std::string>{"E" + record});
        char left = 0;
        EXPECT_TRUE(std::cin >> left) << "the answer must not be read";
    }
}

TEST_F(InputChecksTest, RevocationListTable)
{
    const CertSpec caSpec = CaSpec();
    const Cert ca = MakeCert(caSpec);
    CertSpec otherSpec = CaSpec("Other CA");
    otherSpec.key = MakeKey(KeyType::Rsa, 2048);
    const Cert other = MakeCert(otherSpec);
    const std::string common = "E" + Err("Check crl matching crt failed.", 1001);
    const std::string badNext =
        "E" + Err("Revoke list is not in the correct time duration or cannot get the next update time.", 1004);
    const std::string badLast =
        "E" + Err("Revoke list is not in the correct time duration or cannot get the last update time.", 1004);
    auto crl = [&](const std::function<void(CrlSpec&)>& change) {
        CrlSpec spec;
        change(spec);
        return MakeCrl(spec, ca, caSpec.key);
    };
    auto pem = [](Crl list) { return [list](const std::string& path) { WriteCrlPem(list, path); }; };
    auto text = [](std::string bytes) {
        return [bytes](const std::string& path) { std::ofstream(path, std::ios::binary) << bytes; };
    };
    // Lists whose dates cannot be compared: the comparison error is let through.
    auto uncomparable = [&](int (*setTime)(X509_CRL*, const ASN1_TIME*)) {
        Crl list = crl([](CrlSpec&) {});
        ASN1_TIME* time = ASN1_TIME_new();
        SetUncomparableTime(time);
        EXPECT_EQ(setTime(list.get(), time), 1);
        ASN1_TIME_free(time);
        EXPECT_GT(X509_CRL_sign(list.get(), caSpec.key.get(), EVP_sha256()), 0);
        return list;
    };
    struct Case {
        const char* name;
        std::function<void(const std::string&)> writeCrl;
        std::function<void(const std::string&)> writeCa;
        int32_t result;
        std::vector<std::string> records;
    };
    auto caPem = [](Cert c) { return [c](const std::string& path) { WriteCertPem(c, path); }; };
    const std::vector<Case> cases = {
        {"empty field", pem(crl([](CrlSpec&) {})), caPem(ca), 0, {"WThe revoke list is empty"}},
        {"revoked entries", pem(crl([](CrlSpec& s) { s.revokedSerials = {7, 9}; })), caPem(ca), 0, {}},
        {"no revoked field", pem(crl([](CrlSpec& s) { s.revokedField = false; })), caPem(ca), 1020, {}},
        {"uncomparable last update", pem(uncomparable(X509_CRL_set1_lastUpdate)), caPem(ca), 0,
         {"WThe revoke list is empty"}},
        {"uncomparable next update", pem(uncomparable(X509_CRL_set1_nextUpdate)), caPem(ca), 0,
         {"WThe revoke list is empty"}},
        {"other CA", pem(MakeCrl(CrlSpec(), other, otherSpec.key)), caPem(ca), 1001,
         {"E" + Err("Cacrt and crl not match.", 1004), common}},
        {"next update passed", pem(crl([](CrlSpec& s) { s.lastUpdateOffset = -7200; s.nextUpdateOffset = -1; })),
         caPem(ca), 1001, {badNext, common}},
        {"no next update", pem(crl([](CrlSpec& s) { s.nextUpdateOffset.reset(); })), caPem(ca), 1001,
         {badNext, common}},
        {"last update in the future", pem(crl([](CrlSpec& s) { s.lastUpdateOffset = 600; })), caPem(ca), 1001,
         {badLast, common}},
        {"DER list", [&](const std::string& p) { WriteCrlDer(crl([](CrlSpec&) {}), p); }, caPem(ca), 1001,
         {"E" + Err("Not a valid crl list.", 1001)}},
        {"CA file without a certificate", pem(crl([](CrlSpec&) {})), text("no certificate here\n"), 1001,
         {"E" + Err("X509 ca read failed.", 1004), common}},
        {"CA key undecodable", pem(crl([](CrlSpec&) {})), caPem(PatchDer(ca, OID_RSA_KEY, UnknownOid(OID_RSA_KEY))),
         1001, {"E" + Err("Can not get the pubkey from the cert.", 1004), common}},
        {"missing list", nullptr, caPem(ca), 1029, {"E" + Err("Invalid crl path or ca crt path.", 1029)}},
        {"missing CA", pem(crl([](CrlSpec&) {})), nullptr, 1029,
         {"E" + Err("Invalid crl path or ca crt path.", 1029)}},
    };
    for (const Case& c : cases) {
        const std::string crlPath = Path(std::string("crl-") + c.name);
        const std::string caPath = Path(std::string("ca-") + c.name);
        if (c.writeCrl) {
            c.writeCrl(crlPath);
        }
        if (c.writeCa) {
            c.writeCa(caPath);
        }
        Records().clear();
        EXPECT_EQ(CheckCrlMatchingCrt(caPath, crlPath), c.result) << c.name;
        EXPECT_EQ(Records(), c.records) << c.name;
    }
}

TEST_F(InputChecksTest, RevocationListOfAnotherOwnerIsRefusedBeforeReading)
{
    const CertSpec caSpec = CaSpec();
    const Cert ca = MakeCert(caSpec);
    WriteCertPem(ca, Path("ca.crt"));
    WriteCrlPem(MakeCrl(CrlSpec(), ca, caSpec.key), Path("ca.crl"));
    // An ownership rule, not a permission bit: root sees the other owner too.
    ASSERT_EQ(chown(Path("ca.crl").c_str(), getuid() + 1, getgid()), 0);
    EXPECT_EQ(CheckCrlMatchingCrt(Path("ca.crt"), Path("ca.crl")), 1029);
    EXPECT_EQ(Records(), std::vector<std::string>{"E" + Err("Invalid crl path or ca crt path.", 1029)});
}

TEST_F(InputChecksTest, ServerKeyTable)
{
    const Key key = MakeKey();
    auto keyFile = [&](KeyFormat format, std::string pass = PASS) {
        return [=](const std::string& path) { WriteKeyPem(key, path, format, pass); };
    };
    auto bytes = [](std::string content) {
        return [content](const std::string& path) { std::ofstream(path, std::ios::binary) << content; };
    };
    const std::string notEncrypted = "E" + Err("Not a encrypted private key.", 1004);
    const std::string wrongPass = "E" + Err("Wrong PEM password.", 1004);
    struct Case {
        const char* name;
        std::function<void(const std::string&)> write;
        const char* pass;
        int32_t result;
        std::vector<std::string> records;
    };
    const std::vector<Case> cases = {
        {"PKCS#8 encrypted", keyFile(KeyFormat::Pkcs8Encrypted), PASS, 0, {}},
        {"traditional encrypted", keyFile(KeyFormat::TraditionalEncrypted), PASS, 0, {}},
        {"encrypted EC key", [](const std::string& p) { WriteKeyPem(MakeKey(KeyType::EcP256), p,
                                                                    KeyFormat::Pkcs8Encrypted, PASS); },
         PASS, 0, {}},
        {"wrong pass phrase", keyFile(KeyFormat::Pkcs8Encrypted), "Other-Passw0rd", 1004, {wrongPass}},
        {"pass phrase of another key file", keyFile(KeyFormat::TraditionalEncrypted, "Other-Passw0rd"), PASS, 1004,
         {wrongPass}},
        {"PKCS#8 plain", keyFile(KeyFormat::Pkcs8Plain), PASS, 1004, {notEncrypted}},
        {"traditional plain", keyFile(KeyFormat::TraditionalPlain), PASS, 1004, {notEncrypted}},
        {"only the marker", bytes("ENCRYPTED\n"), PASS, 1004, {wrongPass}},
        {"marker in lower case", bytes("encrypted\n"), PASS, 1004, {notEncrypted}},
        {"marker after a zero byte", bytes(std::string("x\0ENCRYPTED\n", 12)), PASS, 1004, {notEncrypted}},
        // An empty file passes the size check and reads zero bytes.
        {"empty file", bytes(""), PASS, 1004, {notEncrypted}},
        {"larger than a key can be", bytes(std::string(5 * 1024 * 1024, 'A') + "ENCRYPTED"), PASS, 1004,
         {"E" + Err("Check data size failed.", 1004), notEncrypted}},
        {"missing file", nullptr, PASS, 1004, {"E" + Err("Invalid server key path, please check!", 1004)}},
    };
    for (const Case& c : cases) {
        const std::string path = Path(std::string("key-") + c.name);
        if (c.write) {
            c.write(path);
        }
        Records().clear();
        EXPECT_EQ(CheckServerKey(c.pass, path), c.result) << c.name;
        EXPECT_EQ(Records(), c.records) << c.name;
    }
}

}  // namespace
