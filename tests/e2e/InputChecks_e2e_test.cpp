// The import command's input checks as an operator meets them: each scenario
// spoils one thing of a valid input set (or of what is typed), runs the command
// on a pseudo-terminal and compares the records of the command's unit, in
// order, and the exit status; a refused run leaves ./keys and the configuration
// alone, and the pass phrase is neither echoed nor logged.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "PtyRunner.h"
#include "Records.h"
#include "TestPki.h"
#include "TestTree.h"

namespace VardoTest {
namespace {

const std::string PASS = "Passw0rd-demo";
const std::string OTHER_PASS = "Other-Passw0rd";
const std::string MAIN_UNIT = "src/module/VardoTools/CertImport/main";

const std::string CRL_REFUSED = Err("Read crl file failed, please set or clean the crl in config file manually.", 1020);
const std::string CRL_COMMON = Err("Check crl matching crt failed.", 1001);
const std::string CRL_PATH = Err("Invalid crl path or ca crt path.", 1029);
const std::string CERT_REFUSED = Err("Invalid file of ca crt or server crt", 1004);
const std::string NOT_ENCRYPTED = Err("Not a encrypted private key.", 1004);
const std::string WRONG_PASS = Err("Wrong PEM password.", 1004);
const std::string KEY_PATH = Err("Invalid server key path, please check!", 1004);
const std::string EXPIRED = Err("Certificate has expired or not reached the start date, please check.", 1004);
const std::string TOO_WEAK = Err("Signature algorithm is too weak.", 1004);
const std::string INSECURE = Err("Insecure encryption algorithm.", 1004);
const std::string NO_PUBKEY = Err("Can not get the pubkey from the cert.", 1004);
const std::string EXITS = Err("Program exits.", 1004);
const std::string EMPTY = Err("The length of plain text is zero, please input the correct plain text.", 1001);
const std::string INVALID = Err("Invalid input password.", 1004);
const std::string ASK = "IDo you want to continue with this certificate? [y/n]";
// The placement's first record: it ends the expected records of a run that passes the checks (exit status 0).
const std::string PLACED = "ICopy files success.";
// Stands for the CA's two fingerprint records, computed here by OpenSSL from the CA in use.
const std::string FINGERPRINT = "@fingerprint";
// DER algorithm identifiers, patched into ones OpenSSL does not know.
const std::string SHA256_RSA_OID("\x06\x09\x2a\x86\x48\x86\xf7\x0d\x01\x01\x0b", 11);
const std::string RSA_KEY_OID("\x06\x09\x2a\x86\x48\x86\xf7\x0d\x01\x01\x01", 11);

struct Inputs {
    InputSet set;
    std::string dir;
    std::vector<std::string> args;  // the command's arguments
    std::string passPhrase = PASS;
    bool sha512Ca = false;
    const TestUser* user = nullptr;  // the command runs as this user when set

    void WriteCa(const std::function<void(CertSpec&)>& change)
    {
        CertSpec recipe = CaSpec();
        change(recipe);
        set.caKey = recipe.key;
        set.ca = MakeCert(recipe);
        sha512Ca = recipe.digest == Digest::Sha512;
        WriteCertPem(set.ca, set.caCrt);
    }
    void WriteServer(const std::function<void(CertSpec&)>& change)
    {
        CertSpec recipe = ServerSpec();
        change(recipe);
        WriteCertPem(MakeCert(recipe, set.ca, set.caKey), set.serverCrt);
    }
    void WriteCrl(const std::function<void(CrlSpec&)>& change)
    {
        CrlSpec recipe;
        change(recipe);
        WriteCrlPem(MakeCrl(recipe, set.ca, set.caKey), set.crl);
    }
    // Writes `cert` to `path` with the algorithm identifier `oid` made unknown.
    static void WritePatched(const Cert& cert, const std::string& oid, const std::string& path)
    {
        unsigned char* der = nullptr;
        const int length = i2d_X509(cert.get(), &der);
        std::string bytes(reinterpret_cast<char*>(der), static_cast<size_t>(length));
        OPENSSL_free(der);
        for (size_t at = bytes.find(oid); at != std::string::npos; at = bytes.find(oid, at + 1)) {
            bytes[at + oid.size() - 1] = '\x7f';
        }
        const auto* cursor = reinterpret_cast<const unsigned char*>(bytes.data());
        WriteCertPem(Cert(d2i_X509(nullptr, &cursor, length), X509Free()), path);
    }
    // Hands `path` to root while the command runs as the test user.
    static void GiveToRoot(const std::string& path)
    {
        ASSERT_EQ(lchown(path.c_str(), 0, 0), 0);
        ASSERT_EQ(chmod(path.c_str(), 0644), 0);
    }
};

struct Scenario {
    const char* name;
    std::function<void(Inputs&)> prepare;
    std::vector<std::string> answers;  // typed at each question, in order
    std::vector<std::string> records;  // "<severity letter><message>" after the library check
    bool asTestUser = false;
};

void RunTable(const std::vector<Scenario>& scenarios, bool withCrl = false)
{
    for (const Scenario& scenario : scenarios) {
        SCOPED_TRACE(scenario.name);
        SdkTree tree;
        Inputs in;
        in.dir = tree.InputDir();
        in.set = MakeValidInputs(in.dir, PASS);
        in.args = {in.set.caCrt, in.set.serverCrt, in.set.serverKey, in.set.crl};
        in.args.resize(withCrl ? 4 : 3);
        if (scenario.asTestUser) {
            in.user = &UnprivilegedUser();
            ChownTree(tree.Root(), in.user->uid, in.user->gid);
        }
        if (scenario.prepare) {
            scenario.prepare(in);
        }
        // The end of input after the answers: a question nobody expected gets it, not a hang.
        RunOptions options = tree.ImportRun(in.args, in.passPhrase + "\n", scenario.answers);
        options.user = in.user;
        const RunResult run = RunInPty(options);
        ASSERT_FALSE(run.timedOut) << run.errors;
        EXPECT_EQ(run.unmetWaitFor, "") << run.errors;
        EXPECT_EQ(run.errors.find("Sanitizer"), std::string::npos) << run.errors;

        std::vector<std::string> expected;
        for (const std::string& record : scenario.records) {
            if (record != FINGERPRINT) {
                expected.push_back(record);
                continue;
            }
            const char* hash = in.sha512Ca ? "sha512" : "sha256";
            expected.push_back(std::string("I") + hash + "WithRSAEncryption Fingerprint: ");
            expected.push_back("I" + Fingerprint(in.set.ca, in.sha512Ca ? EVP_sha512() : EVP_sha256()));
        }
        // A passing run is compared up to the placement; the key tool's records follow.
        const bool passes = expected.back() == PLACED;
        std::vector<std::string> records;
        bool libraryChecked = false;
        for (const Record& record : ParseRecords(run.errors)) {
            if (record.unit == MAIN_UNIT && libraryChecked && !(passes && records.size() == expected.size())) {
                records.push_back(record.Tagged());
            }
            libraryChecked |= record.unit == MAIN_UNIT && record.message == "User permission is valid.";
        }
        EXPECT_EQ(records, expected) << run.errors;
        EXPECT_EQ(run.exitStatus, passes ? 0 : 255) << run.errors;
        if (in.passPhrase.size() > 1) {
            EXPECT_EQ((run.terminal + run.errors).find(in.passPhrase), std::string::npos) << "echoed or logged";
        }
        if (!passes) {
            EXPECT_EQ(FileMode(tree.KeysDir()), -1);
            EXPECT_EQ(tree.ReadConfig(), DEFAULT_STREAM_SERVER_CONF);
        }
    }
}

// What is typed at the prompt: refused pass phrases end the run. The server key must declare itself encrypted, open
// with the pass phrase and be the operator's own file; an empty fourth path means no list.
TEST(InputChecksE2eTest, ServerKeyAndPassPhrase)
{
    auto typed = [](std::string text) { return [text](Inputs& in) { in.passPhrase = text; }; };
    auto key = [](KeyFormat format) {
        return [format](Inputs& in) { WriteKeyPem(in.set.serverKey_, in.set.serverKey, format, PASS); };
    };
    auto bytes = [](std::string text) { return [text](Inputs& in) { WriteWholeFile(in.set.serverKey, text); }; };
    auto link = [](bool toRootsKey) {
        return [toRootsKey](Inputs& in) {
            const std::string target = in.dir + "/target.key";
            ASSERT_EQ(rename(in.set.serverKey.c_str(), target.c_str()), 0);
            if (toRootsKey) {
                Inputs::GiveToRoot(target);
            }
            ASSERT_EQ(symlink(target.c_str(), in.set.serverKey.c_str()), 0);
            if (in.user != nullptr) {
                ASSERT_EQ(lchown(in.set.serverKey.c_str(), in.user->uid, in.user->gid), 0);
            }
        };
    };
    RunTable({
        {"end of input at the prompt", typed("\x04"), {}, {EMPTY}},
        {"empty line at the prompt", typed(""), {}, {EMPTY}},
        {"7 bytes", typed("Abcde1!"), {}, {Err("Invalid password length.", 1004), INVALID}},
        {"a tab", typed("abc\tdefG1"), {}, {Err("Invalid password character.", 1004), INVALID}},
        {"a UTF-8 letter", typed("abcd\xc3\xa9" "fgH1"), {}, {INVALID}},
        {"an empty fourth path: no list", [](Inputs& in) { in.args.push_back(""); }, {"y\n"},
         {FINGERPRINT, ASK, PLACED}},
        {"encrypted traditional key", key(KeyFormat::TraditionalEncrypted), {"y\n"}, {FINGERPRINT, ASK, PLACED}},
        {"unencrypted PKCS#8 key", key(KeyFormat::Pkcs8Plain), {}, {NOT_ENCRYPTED}},
        {"unencrypted traditional key", key(KeyFormat::TraditionalPlain), {}, {NOT_ENCRYPTED}},
        {"wrong pass phrase", [](Inputs& in) { in.passPhrase = OTHER_PASS; }, {}, {WRONG_PASS}},
        {"empty key file", bytes(""), {}, {NOT_ENCRYPTED}},
        {"only the word ENCRYPTED", bytes("ENCRYPTED\n"), {}, {WRONG_PASS}},
        {"marker in lower case, then after a zero byte", bytes(std::string("encrypted\0ENCRYPTED\n", 20)), {},
         {NOT_ENCRYPTED}},
        {"larger than a key can be", bytes(std::string(5 << 20, 'A') + "ENCRYPTED"), {},
         {Err("Check data size failed.", 1004), NOT_ENCRYPTED}},
        {"missing key file", [](Inputs& in) { std::remove(in.set.serverKey.c_str()); }, {}, {KEY_PATH}},
        {"key of another user", [](Inputs& in) { Inputs::GiveToRoot(in.set.serverKey); }, {}, {KEY_PATH}, true},
        {"link to another user's key", link(true), {}, {KEY_PATH}, true},
        {"link to the operator's own key", link(false), {}, {KEY_PATH}},
    });
}

// The list must be the operator's PEM list, signed by the CA and current; it is checked before the key.
TEST(InputChecksE2eTest, RevocationList)
{
    auto crl = [](std::function<void(CrlSpec&)> change) { return [change](Inputs& in) { in.WriteCrl(change); }; };
    const std::string badLast =
        Err("Revoke list is not in the correct time duration or cannot get the last update time.", 1004);
    const std::string badNext =
        Err("Revoke list is not in the correct time duration or cannot get the next update time.", 1004);
    RunTable({{"empty revoked field", nullptr, {"y\n"}, {"WThe revoke list is empty", FINGERPRINT, ASK, PLACED}},
              {"entries of other certificates", crl([](CrlSpec& s) { s.revokedSerials = {40, 41}; }), {"y\n"},
               {FINGERPRINT, ASK, PLACED}},
              {"last update that cannot be compared passes", crl([](CrlSpec& s) { s.lastUpdateUncomparable = true; }),
               {"y\n"}, {"WThe revoke list is empty", FINGERPRINT, ASK, PLACED}},
              {"next update that cannot be compared passes", crl([](CrlSpec& s) { s.nextUpdateUncomparable = true; }),
               {"y\n"}, {"WThe revoke list is empty", FINGERPRINT, ASK, PLACED}},
              {"no revoked field, refused before the key is looked at",
               [](Inputs& in) {
                   in.passPhrase = OTHER_PASS;
                   in.WriteCrl([](CrlSpec& s) { s.revokedField = false; });
               },
               {}, {CRL_REFUSED}},
              {"list of another CA",
               [](Inputs& in) {
                   CertSpec other = CaSpec("Other CA");
                   other.key = MakeKey(KeyType::Rsa, 2048);
                   WriteCrlPem(MakeCrl(CrlSpec(), MakeCert(other), other.key), in.set.crl);
               },
               {}, {Err("Cacrt and crl not match.", 1004), CRL_COMMON, CRL_REFUSED}},
              {"next update passed", crl([](CrlSpec& s) { s.lastUpdateOffset = -7200, s.nextUpdateOffset = -60; }), {},
               {badNext, CRL_COMMON, CRL_REFUSED}},
              {"no next update", crl([](CrlSpec& s) { s.nextUpdateOffset.reset(); }), {},
               {badNext, CRL_COMMON, CRL_REFUSED}},
              {"last update in the future", crl([](CrlSpec& s) { s.lastUpdateOffset = 600; }), {},
               {badLast, CRL_COMMON, CRL_REFUSED}},
              {"DER list", [](Inputs& in) { WriteCrlDer(MakeCrl(CrlSpec(), in.set.ca, in.set.caKey), in.set.crl); }, {},
               {Err("Not a valid crl list.", 1001), CRL_REFUSED}},
              {"CA file without a certificate", [](Inputs& in) { WriteWholeFile(in.set.caCrt, "no certificate\n"); },
               {}, {Err("X509 ca read failed.", 1004), CRL_COMMON, CRL_REFUSED}},
              {"CA key of an unknown algorithm",
               [](Inputs& in) { Inputs::WritePatched(in.set.ca, RSA_KEY_OID, in.set.caCrt); }, {},
               {NO_PUBKEY, CRL_COMMON, CRL_REFUSED}},
              {"missing CA file", [](Inputs& in) { std::remove(in.set.caCrt.c_str()); }, {}, {CRL_PATH, CRL_REFUSED}},
              {"list of another owner", [](Inputs& in) { Inputs::GiveToRoot(in.set.crl); }, {}, {CRL_PATH, CRL_REFUSED},
               true}},
             true);
}

// The CA is checked and confirmed by its fingerprint before any date; then dates, algorithms and the RSA key size.
TEST(InputChecksE2eTest, CertificatesAndConfirmation)
{
    using Change = std::function<void(CertSpec&)>;
    auto ca = [](Change change) { return [change](Inputs& in) { in.WriteCa(change); }; };
    auto server = [](Change change) { return [change](Inputs& in) { in.WriteServer(change); }; };
    auto serverPatched = [](std::string oid) {
        return [oid](Inputs& in) { Inputs::WritePatched(in.set.server, oid, in.set.serverCrt); };
    };
    const Change sha512 = [](CertSpec& s) { s.digest = Digest::Sha512; };
    auto refusedWith = [&](const std::string& record) {
        return std::vector<std::string>{FINGERPRINT, ASK, record, TOO_WEAK, CERT_REFUSED};
    };
    RunTable({
        {"CA without the CA flag", ca([](CertSpec& s) { s.caFlag = false; }), {},
         {Err("CA flag is not found in basic constraints.", 1004), CERT_REFUSED}},
        {"CA without digital signature usage", ca([](CertSpec& s) { s.keyUsage = "keyCertSign,cRLSign"; }),
         {}, {Err("Digital signature is not found in key usage.", 1004), CERT_REFUSED}},
        {"CA without a key usage extension", ca([](CertSpec& s) { s.keyUsage.reset(); }), {"y\n"},
         {FINGERPRINT, ASK, PLACED}},
        {"CA signed with SHA-384", ca([](CertSpec& s) { s.digest = Digest::Sha384; }), {}, {INSECURE, CERT_REFUSED}},
        {"CA with an ECDSA signature", ca([](CertSpec& s) { s.key = MakeKey(KeyType::EcP256); }), {},
         {INSECURE, CERT_REFUSED}},
        {"CA and server signed with SHA-512, fingerprint by SHA-512",
         [&](Inputs& in) {
             in.WriteCa(sha512);
             in.WriteServer(sha512);
         },
         {"y\n"}, {FINGERPRINT, ASK, PLACED}},
        {"server signed with RSA-PSS", server([](CertSpec& s) { s.pssSignature = true; }), {"y\n"},
         refusedWith(INSECURE)},
        {"server signed with an unknown algorithm", serverPatched(SHA256_RSA_OID), {"y\n"},
         refusedWith(Err("Unknown algorithm id.", 1004))},
        {"server key of an unknown algorithm", serverPatched(RSA_KEY_OID), {"y\n"}, refusedWith(NO_PUBKEY)},
        {"server with an EC key", server([](CertSpec& s) { s.key = MakeKey(KeyType::EcP256); }), {"y\n"},
         refusedWith(Err("Please use a RSA key.", 1004))},
        {"server with a 2048-bit key", server([](CertSpec& s) { s.key = MakeKey(KeyType::Rsa, 2048); }), {"y\n"},
         refusedWith(Err("Insecure RSA key length.", 1004))},
        {"expired CA is still shown and confirmed", ca([](CertSpec& s) { s.notAfterOffset = -60; }), {"y\n"},
         {FINGERPRINT, ASK, EXPIRED, CERT_REFUSED}},
        {"server certificate not yet valid", server([](CertSpec& s) { s.notBeforeOffset = 3600; }), {"y\n"},
         {FINGERPRINT, ASK, EXPIRED, CERT_REFUSED}},
        {"server certificate read only after the confirmation",
         [](Inputs& in) { WriteWholeFile(in.set.serverCrt, "not a certificate\n"); }, {"y\n"},
         {FINGERPRINT, ASK, CERT_REFUSED}},
        {"answers x, Y, y", nullptr, {"x\n", "Y\n", "y\n"}, {FINGERPRINT, ASK, ASK, ASK, PLACED}},
        {"answer n", nullptr, {"n\n"}, {FINGERPRINT, ASK, EXITS, CERT_REFUSED}},
        {"standard input closed", nullptr, {""}, {FINGERPRINT, ASK, EXITS, CERT_REFUSED}},
    });
}

}  // namespace
}  // namespace VardoTest
