// The import command's input checks as an operator meets them: revocation
// list, server key with its pass phrase, certificates with the fingerprint
// question. Each scenario starts from a valid input set in a scratch SDK tree,
// spoils one thing, runs the command on a pseudo-terminal and compares the
// records of the command's unit, in order, with what the checks must say.
#include <gtest/gtest.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "OvraBase/ErrorInfo.h"
#include "PtyRunner.h"
#include "TestPki.h"
#include "TestTree.h"

namespace VardoTest {
namespace {

const std::string PROMPT = "please input the plain text: ";
const std::string QUESTION = "Do you want to continue with this certificate? [y/n]";
const std::string MAIN_UNIT = "src/module/VardoTools/CertImport/main";
const std::string PASS = "Passw0rd-demo";
const std::string LIB_OK = "User permission is valid.";
// Stand for the fingerprint records of the CA in use and for one question.
const std::string FINGERPRINT = "@fingerprint";
const std::string ASK = "@ask";

std::string E(const std::string& message, int code) { return "E" + message + OvraBase::GetErrorInfo(code, ""); }

const std::string CRL_REFUSED = E("Read crl file failed, please set or clean the crl in config file manually.", 1020);
const std::string CRL_COMMON = E("Check crl matching crt failed.", 1001);
const std::string CERT_REFUSED = E("Invalid file of ca crt or server crt", 1004);
const std::string NOT_ENCRYPTED = E("Not a encrypted private key.", 1004);
const std::string WRONG_PASS = E("Wrong PEM password.", 1004);
const std::string KEY_PATH = E("Invalid server key path, please check!", 1004);
const std::string EXPIRED = E("Certificate has expired or not reached the start date, please check.", 1004);
const std::string TOO_WEAK = E("Signature algorithm is too weak.", 1004);
const std::string INSECURE = E("Insecure encryption algorithm.", 1004);
const std::string PROGRAM_EXITS = E("Program exits.", 1004);
const std::string PLACED = "IImport the certs and keys to ./keys directory success.";
const std::string COPY_FAILED = E("Copy file failed.", 1004);

// Records that no run with valid checks may contain.
const std::vector<std::string> CHECK_FAILURES = {CRL_REFUSED, CRL_COMMON, CERT_REFUSED, NOT_ENCRYPTED, WRONG_PASS,
                                                 KEY_PATH,    EXPIRED,    TOO_WEAK,     INSECURE,      PROGRAM_EXITS};

// The inputs of one run; `prepare` of a scenario changes them.
struct Inputs {
    InputSet set;
    std::string dir;
    std::string passPhrase = PASS;
    bool withCrl = false;
    std::optional<TestUser> user;  // the command runs as this user when set

    // Replaces the CA certificate (also the one whose fingerprint is shown).
    void WriteCa(const CertSpec& spec)
    {
        set.caKey = spec.key;
        set.ca = MakeCert(spec);
        WriteCertPem(set.ca, set.caCrt);
    }
    void WriteServer(const std::function<void(CertSpec&)>& change)
    {
        CertSpec spec = ServerSpec();
        change(spec);
        WriteCertPem(MakeCert(spec, set.ca, set.caKey), set.serverCrt);
    }
    void WriteCrl(const std::function<void(CrlSpec&)>& change)
    {
        CrlSpec spec;
        change(spec);
        WriteCrlPem(MakeCrl(spec, set.ca, set.caKey), set.crl);
    }
    // Hands `path` to root while the command runs as the test user.
    void GiveToRoot(const std::string& path) const
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
    bool checksPass = false;           // records are then only the beginning of the run
    bool asTestUser = false;
};

CertSpec CaWith(const std::function<void(CertSpec&)>& change)
{
    CertSpec spec = CaSpec();
    change(spec);
    return spec;
}

class InputChecksE2eTest : public ::testing::Test {
protected:
    struct Outcome {
        RunResult run;
        std::vector<std::string> records;  // of the command's unit, after the library check
        Inputs inputs;
    };

    Outcome Run(const Scenario& scenario)
    {
        SdkTree tree;
        Outcome outcome;
        Inputs& inputs = outcome.inputs;
        inputs.dir = tree.InputDir();
        inputs.set = MakeValidInputs(inputs.dir, PASS);
        if (scenario.asTestUser) {
            inputs.user = UnprivilegedUser();
            if (!inputs.user.has_value()) {
                ADD_FAILURE() << "no unprivileged account for " << scenario.name;
                return outcome;
            }
            tree.ChownAll(inputs.user->uid, inputs.user->gid);
        }
        if (scenario.prepare) {
            scenario.prepare(inputs);
        }

        RunOptions options;
        options.program = VARDO_CERT_IMPORT_BINARY;
        options.args = {inputs.set.caCrt, inputs.set.serverCrt, inputs.set.serverKey};
        if (inputs.withCrl) {
            options.args.push_back(inputs.set.crl);
        }
        options.workingDirectory = tree.WorkDir();
        options.setEnv = {tree.SdkHomeEnv()};
        options.exchanges = {{PROMPT, inputs.passPhrase + "\n"}};
        for (const std::string& answer : scenario.answers) {
            options.exchanges.push_back({"[y/n]", answer});
        }
        // A question nobody expected gets the end of input instead of a hang.
        options.closeInputAtEnd = true;
        options.timeoutSeconds = 60;
        if (inputs.user.has_value()) {
            options.runAsUid = inputs.user->uid;
            options.runAsGid = inputs.user->gid;
        }
        outcome.run = RunInPty(options);

        std::vector<Record> records = ParseRecords(outcome.run.errors);
        records.erase(std::remove_if(records.begin(), records.end(),
                                     [](const Record& r) { return r.unit != MAIN_UNIT; }),
                      records.end());
        const auto libOk = std::find_if(records.begin(), records.end(),
                                        [](const Record& r) { return r.message == LIB_OK; });
        for (auto it = libOk == records.end() ? records.end() : libOk + 1; it != records.end(); ++it) {
            outcome.records.push_back(std::string(1, it->severity) + it->message);
        }
        return outcome;
    }

    static std::vector<std::string> Expand(const std::vector<std::string>& records, const Inputs& inputs)
    {
        std::vector<std::string> expanded;
        for (const std::string& record : records) {
            if (record == FINGERPRINT) {
                expanded.push_back("Isha256WithRSAEncryption Fingerprint: ");
                expanded.push_back("I" + Fingerprint(inputs.set.ca, EVP_sha256()));
            } else if (record == ASK) {
                expanded.push_back("I" + QUESTION);
            } else {
                expanded.push_back(record);
            }
        }
        return expanded;
    }

    void RunTable(const std::vector<Scenario>& scenarios)
    {
        for (const Scenario& scenario : scenarios) {
            SCOPED_TRACE(scenario.name);
            const Outcome outcome = Run(scenario);
            const RunResult& run = outcome.run;
            ASSERT_FALSE(run.timedOut) << run.errors;
            EXPECT_EQ(run.unmetWaitFor, "") << run.errors;
            // Under the sanitizer build a leak or undefined behaviour in the
            // command shows up on its standard error.
            EXPECT_EQ(run.errors.find("Sanitizer"), std::string::npos) << run.errors;
            EXPECT_EQ(run.errors.find("runtime error:"), std::string::npos) << run.errors;
            const std::vector<std::string> expected = Expand(scenario.records, outcome.inputs);
            if (!scenario.checksPass) {
                EXPECT_EQ(run.exitStatus, 255);
                EXPECT_EQ(outcome.records, expected) << run.errors;
                continue;
            }
            // The checks passed: their records open the run, none of their
            // refusals follows, and the run went on to place the files.
            ASSERT_GE(outcome.records.size(), expected.size()) << run.errors;
            EXPECT_EQ(std::vector<std::string>(outcome.records.begin(), outcome.records.begin() + expected.size()),
                      expected)
                << run.errors;
            for (const std::string& failure : CHECK_FAILURES) {
                EXPECT_EQ(std::count(outcome.records.begin(), outcome.records.end(), failure), 0) << failure;
            }
            const bool placed = std::any_of(outcome.records.begin(), outcome.records.end(), [](const std::string& r) {
                return r == PLACED || r == COPY_FAILED;
            });
            EXPECT_TRUE(placed) << "the run did not reach the placement step\n" << run.errors;
        }
    }
};

// The valid run's records once the CA is confirmed with "y".
const std::vector<std::string> CONFIRMED = {FINGERPRINT, ASK};

TEST_F(InputChecksE2eTest, ServerKeyAndPassPhrase)
{
    auto writeKey = [](KeyFormat format) {
        return [format](Inputs& in) { WriteKeyPem(in.set.serverKey_, in.set.serverKey, format, PASS); };
    };
    auto writeBytes = [](std::string bytes) {
        return [bytes](Inputs& in) { WriteWholeFile(in.set.serverKey, bytes); };
    };
    RunTable({
        {"encrypted PKCS#8 key", nullptr, {"y\n"}, CONFIRMED, true},
        {"encrypted traditional key", writeKey(KeyFormat::TraditionalEncrypted), {"y\n"}, CONFIRMED, true},
        {"unencrypted PKCS#8 key", writeKey(KeyFormat::Pkcs8Plain), {}, {NOT_ENCRYPTED}},
        {"unencrypted traditional key", writeKey(KeyFormat::TraditionalPlain), {}, {NOT_ENCRYPTED}},
        {"pass phrase of another key", [](Inputs& in) { in.passPhrase = "Other-Passw0rd"; }, {}, {WRONG_PASS}},
        // Zero bytes are read: only the common refusal.
        {"empty key file", writeBytes(""), {}, {NOT_ENCRYPTED}},
        {"only the word ENCRYPTED", writeBytes("ENCRYPTED\n"), {}, {WRONG_PASS}},
        {"key of another user", [](Inputs& in) { in.GiveToRoot(in.set.serverKey); }, {}, {KEY_PATH}, false, true},
        {"link to a key of another user",
         [](Inputs& in) {
             const std::string target = in.dir + "/root.key";
             ASSERT_EQ(rename(in.set.serverKey.c_str(), target.c_str()), 0);
             in.GiveToRoot(target);
             ASSERT_EQ(symlink(target.c_str(), in.set.serverKey.c_str()), 0);
             ASSERT_EQ(lchown(in.set.serverKey.c_str(), in.user->uid, in.user->gid), 0);
         },
         {}, {KEY_PATH}, false, true},
        {"link to the operator's own key",
         [](Inputs& in) {
             const std::string target = in.dir + "/real.key";
             ASSERT_EQ(rename(in.set.serverKey.c_str(), target.c_str()), 0);
             ASSERT_EQ(symlink(target.c_str(), in.set.serverKey.c_str()), 0);
         },
         {}, {KEY_PATH}},
    });
}

TEST_F(InputChecksE2eTest, RevocationList)
{
    auto otherCaList = [](Inputs& in) {
        CertSpec spec = CaSpec("Other CA");
        spec.key = MakeKey(KeyType::Rsa, 2048);
        WriteCrlPem(MakeCrl(CrlSpec(), MakeCert(spec), spec.key), in.set.crl);
    };
    const std::string badNext =
        E("Revoke list is not in the correct time duration or cannot get the next update time.", 1004);
    const std::string badLast =
        E("Revoke list is not in the correct time duration or cannot get the last update time.", 1004);
    // Every run of this table hands the list to the command.
    auto list = [](std::function<void(Inputs&)> change) {
        return [change](Inputs& in) {
            in.withCrl = true;
            if (change) {
                change(in);
            }
        };
    };
    auto listWith = [&](std::function<void(CrlSpec&)> change) {
        return list([change](Inputs& in) { in.WriteCrl(change); });
    };
    const std::vector<std::string> emptyListPasses = {"WThe revoke list is empty", FINGERPRINT, ASK};
    RunTable({
        {"empty revoked field", list(nullptr), {"y\n"}, emptyListPasses, true},
        {"entries of other certificates", listWith([](CrlSpec& s) { s.revokedSerials = {40, 41}; }), {"y\n"},
         CONFIRMED, true},
        {"no revoked field", listWith([](CrlSpec& s) { s.revokedField = false; }), {}, {CRL_REFUSED}},
        {"list of another CA", list(otherCaList), {},
         {E("Cacrt and crl not match.", 1004), CRL_COMMON, CRL_REFUSED}},
        {"next update passed", listWith([](CrlSpec& s) { s.lastUpdateOffset = -7200; s.nextUpdateOffset = -60; }),
         {}, {badNext, CRL_COMMON, CRL_REFUSED}},
        {"last update in the future", listWith([](CrlSpec& s) { s.lastUpdateOffset = 600; }), {},
         {badLast, CRL_COMMON, CRL_REFUSED}},
        {"DER list", list([](Inputs& in) { WriteCrlDer(MakeCrl(CrlSpec(), in.set.ca, in.set.caKey), in.set.crl); }),
         {}, {E("Not a valid crl list.", 1001), CRL_REFUSED}},
        {"list of another owner", list([](Inputs& in) { in.GiveToRoot(in.set.crl); }), {},
         {E("Invalid crl path or ca crt path.", 1029), CRL_REFUSED}, false, true},
        {"list refused before the key is looked at",
         list([](Inputs& in) {
             in.passPhrase = "Other-Passw0rd";
             in.WriteCrl([](CrlSpec& s) { s.revokedField = false; });
         }),
         {}, {CRL_REFUSED}},
    });
}

TEST_F(InputChecksE2eTest, CertificatesAndConfirmation)
{
    const std::string expiredThen = EXPIRED;
    auto serverWith = [](std::function<void(CertSpec&)> change) {
        return [change](Inputs& in) { in.WriteServer(change); };
    };
    RunTable({
        {"CA without the CA flag", [](Inputs& in) { in.WriteCa(CaWith([](CertSpec& s) { s.caFlag = false; })); },
         {}, {E("CA flag is not found in basic constraints.", 1004), CERT_REFUSED}},
        {"CA without digital signature usage",
         [](Inputs& in) { in.WriteCa(CaWith([](CertSpec& s) { s.keyUsage = KU_KEY_CERT_SIGN | KU_CRL_SIGN; })); },
         {}, {E("Digital signature is not found in key usage.", 1004), CERT_REFUSED}},
        {"CA without a key usage extension",
         [](Inputs& in) { in.WriteCa(CaWith([](CertSpec& s) { s.keyUsage.reset(); })); }, {"y\n"}, CONFIRMED, true},
        {"CA signed with SHA-384", [](Inputs& in) { in.WriteCa(CaWith([](CertSpec& s) { s.digest = Digest::Sha384; })); },
         {}, {INSECURE, CERT_REFUSED}},
        {"CA with an ECDSA signature",
         [](Inputs& in) { in.WriteCa(CaWith([](CertSpec& s) { s.key = MakeKey(KeyType::EcP256); })); }, {},
         {INSECURE, CERT_REFUSED}},
        {"server signed with SHA-384", serverWith([](CertSpec& s) { s.digest = Digest::Sha384; }), {"y\n"},
         {FINGERPRINT, ASK, INSECURE, TOO_WEAK, CERT_REFUSED}},
        {"server signed with RSA-PSS", serverWith([](CertSpec& s) { s.pssSignature = true; }), {"y\n"},
         {FINGERPRINT, ASK, INSECURE, TOO_WEAK, CERT_REFUSED}},
        {"server with an EC key", serverWith([](CertSpec& s) { s.key = MakeKey(KeyType::EcP256); }), {"y\n"},
         {FINGERPRINT, ASK, E("Please use a RSA key.", 1004), TOO_WEAK, CERT_REFUSED}},
        {"server with a 2048-bit key", serverWith([](CertSpec& s) { s.key = MakeKey(KeyType::Rsa, 2048); }), {"y\n"},
         {FINGERPRINT, ASK, E("Insecure RSA key length.", 1004), TOO_WEAK, CERT_REFUSED}},
        {"server signed with SHA-512", serverWith([](CertSpec& s) { s.digest = Digest::Sha512; }), {"y\n"},
         CONFIRMED, true},
        {"expired server certificate",
         serverWith([](CertSpec& s) { s.notBeforeOffset = -7200; s.notAfterOffset = -60; }), {"y\n"},
         {FINGERPRINT, ASK, expiredThen, CERT_REFUSED}},
        {"server certificate not yet valid", serverWith([](CertSpec& s) { s.notBeforeOffset = 3600; }), {"y\n"},
         {FINGERPRINT, ASK, expiredThen, CERT_REFUSED}},
        {"expired CA is still shown and confirmed",
         [](Inputs& in) { in.WriteCa(CaWith([](CertSpec& s) { s.notBeforeOffset = -7200; s.notAfterOffset = -60; })); },
         {"y\n"}, {FINGERPRINT, ASK, expiredThen, CERT_REFUSED}},
        {"server certificate is read only after the confirmation",
         [](Inputs& in) { WriteWholeFile(in.set.serverCrt, "not a certificate\n"); }, {"y\n"},
         {FINGERPRINT, ASK, CERT_REFUSED}},
        {"answers x, Y, y", nullptr, {"x\n", "Y\n", "y\n"}, {FINGERPRINT, ASK, ASK, ASK}, true},
        {"answer n", nullptr, {"n\n"}, {FINGERPRINT, ASK, PROGRAM_EXITS, CERT_REFUSED}},
        {"standard input closed", nullptr, {""}, {FINGERPRINT, ASK, PROGRAM_EXITS, CERT_REFUSED}},
    });
}

TEST_F(InputChecksE2eTest, LoggedFingerprintIsTheCertificateDigest)
{
    for (const auto& [digest, md, length] : {std::make_tuple(Digest::Sha256, EVP_sha256(), size_t{95}),
                                             std::make_tuple(Digest::Sha512, EVP_sha512(), size_t{191})}) {
        Scenario scenario{"fingerprint", nullptr, {"n\n"}, {}};
        scenario.prepare = [digest = digest](Inputs& in) { in.WriteCa(CaWith([&](CertSpec& s) { s.digest = digest; })); };
        const Outcome outcome = Run(scenario);
        const std::string title = std::string("I") + OBJ_nid2ln(X509_get_signature_nid(outcome.inputs.set.ca.get())) +
                                  " Fingerprint: ";
        const auto at = std::find(outcome.records.begin(), outcome.records.end(), title);
        ASSERT_NE(at, outcome.records.end()) << outcome.run.errors;
        ASSERT_NE(at + 1, outcome.records.end());
        // Computed here, independently, from the certificate's DER encoding.
        unsigned char* der = nullptr;
        const int derLength = i2d_X509(outcome.inputs.set.ca.get(), &der);
        unsigned char hash[EVP_MAX_MD_SIZE];
        unsigned int hashLength = 0;
        ASSERT_EQ(EVP_Digest(der, static_cast<size_t>(derLength), hash, &hashLength, md, nullptr), 1);
        OPENSSL_free(der);
        std::string expected;
        for (unsigned int i = 0; i < hashLength; ++i) {
            char pair[4];
            snprintf(pair, sizeof(pair), i == 0 ? "%02x" : ":%02x", hash[i]);
            expected += pair;
        }
        EXPECT_EQ(*(at + 1), "I" + expected);
        EXPECT_EQ(expected.size(), length);
    }
}

}  // namespace
}  // namespace VardoTest
