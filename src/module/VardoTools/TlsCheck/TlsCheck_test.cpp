// vardo-tls-check on material states made in scratch SDK trees: for each, the
// exit status of both output forms, the metrics, a line of the report, and
// that nothing in keys/ or config/ changed and no log file appeared.
#include <gtest/gtest.h>
#include <limits.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "TestPki.h"
#include "TestTree.h"
#include "VardoTools.h"

namespace VardoTest {
namespace {

const std::string PASS_PHRASE = "Tls-Check-2026";
constexpr long DAY = 24L * 3600;
// Label values of every check's vardo_tls_check_passed (the master key's with its domain label).
const char* const CHECKS[] = {"server_key", "chain", "not_revoked", "server_certificate_expiry",
                              "ca_certificate_expiry", "crl_next_update", "master_key_expiry\",domain=\"0"};

// What differs from the material of a good import.
enum class Twist {
    NONE, NO_LIST, OTHER_KEY, OTHER_PASS, OTHER_CA, NO_CONFIG, BAD_CIPHER, BAD_CRL, NO_STORES, NO_LOCK, STALE_WRITE,
    CUT_CONFIG
};

struct Row {
    const char* name;
    Twist twist;
    std::string args;
    long serverLifetime;     // seconds from now
    long crlNextUpdate;      // seconds from now
    std::vector<long> revoked;
    int status;
    std::vector<std::string> failing;  // checks that report 0
    const char* reportLine;            // part of the text report or of standard error
    bool promtool;
};

// Writes the files an import places in ./keys, then encrypts the pass phrase
// into streamserver.conf with the key tool, as the import's last step does.
void Import(const SdkTree& tree, const Row& row)
{
    const std::string keys = tree.KeysDir() + "/";
    ASSERT_EQ(0, mkdir(tree.KeysDir().c_str(), 0700));
    CertSpec caSpec = CaSpec();
    caSpec.notAfterOffset = 365 * DAY;
    const Cert ca = MakeCert(caSpec);
    CertSpec otherSpec = CaSpec("Other CA");
    otherSpec.key = MakeKey(KeyType::Rsa, 2048);
    CertSpec serverSpec = ServerSpec();
    serverSpec.notAfterOffset = row.serverLifetime;
    const bool otherCa = row.twist == Twist::OTHER_CA;
    WriteCertPem(ca, keys + "ca.crt");
    WriteCertPem(MakeCert(serverSpec, otherCa ? MakeCert(otherSpec) : ca, otherCa ? otherSpec.key : caSpec.key),
                 keys + "server.crt");
    WriteKeyPem(row.twist == Twist::OTHER_KEY ? caSpec.key : serverSpec.key, keys + "server.key",
                KeyFormat::Pkcs8Encrypted, row.twist == Twist::OTHER_PASS ? "Other-Pass-2026" : PASS_PHRASE);
    CrlSpec crl;
    crl.nextUpdateOffset = row.crlNextUpdate;
    crl.lastUpdateOffset = std::min(crl.lastUpdateOffset, row.crlNextUpdate - DAY);
    crl.revokedSerials = row.revoked;
    const bool list = row.twist != Twist::NO_LIST;
    if (list) {
        WriteCrlPem(MakeCrl(crl, ca, caSpec.key), keys + "ca.crl");
    }

    char previous[PATH_MAX] = {};
    ASSERT_TRUE(getcwd(previous, sizeof(previous)) != nullptr && chdir(tree.WorkDir().c_str()) == 0);
    {
        EnvGuard home("OVRA_SDK_HOME", tree.Root().c_str());
        OvraStream::VardoTools tool;
        const int32_t length = static_cast<int32_t>(PASS_PHRASE.size());
        EXPECT_EQ(0, tool.EncryptCaPassword(PASS_PHRASE.c_str(), length, list ? 1 : 0));
    }
    ASSERT_EQ(0, chdir(previous));

    if (row.twist == Twist::NO_CONFIG) {
        ASSERT_EQ(0, unlink(tree.ConfigPath().c_str()));
    } else if (row.twist == Twist::BAD_CIPHER) {
        std::string config = tree.ReadConfig();
        const size_t value = config.find("server_key_mm=") + 30;
        config[value] = config[value] == 'A' ? 'B' : 'A';
        tree.WriteConfig(config);
    } else if (row.twist == Twist::BAD_CRL) {
        WriteWholeFile(keys + "ca.crl", "-----BEGIN X509 CRL-----\nnot a list\n-----END X509 CRL-----\n");
    } else if (row.twist == Twist::NO_STORES) {
        ASSERT_EQ(0, unlink((keys + "vardo.ks").c_str()));
        ASSERT_EQ(0, unlink((keys + "StandbyKsf.ks").c_str()));
    } else if (row.twist == Twist::NO_LOCK) {
        ASSERT_EQ(0, unlink((keys + "vardo.ks.lock").c_str()));
    } else if (row.twist == Twist::CUT_CONFIG) {  // an import killed in its rewrite
        WriteWholeFile(tree.ConfigPath() + ".recovery", "log_level=3\n");
        tree.WriteConfig("");
    } else if (row.twist == Twist::STALE_WRITE) {
        WriteWholeFile(keys + ".StandbyKsf.ks.x7Yq2Z", ReadWholeFile(keys + "StandbyKsf.ks"));
    }
}

// Name, mode, change time and bytes of every file in `dir`, in name order.
std::string Snapshot(const std::string& dir)
{
    std::vector<std::string> files;
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator(dir, ignored)) {
        struct stat st {};
        lstat(entry.path().c_str(), &st);
        files.push_back(entry.path().string() + " " + std::to_string(st.st_mode) + " " +
                        std::to_string(st.st_mtim.tv_sec) + "." + std::to_string(st.st_mtim.tv_nsec) + "\n" +
                        ReadWholeFile(entry.path()));
    }
    std::sort(files.begin(), files.end());
    std::string all;
    for (const std::string& file : files) {
        all += file;
    }
    return all;
}

// Runs `command` (a shell command line); its exit status, or -1.
int Shell(const std::string& command)
{
    const int status = std::system(command.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// "name{labels}" to value, from metrics in the textfile format.
std::map<std::string, std::string> Metrics(const std::string& text)
{
    std::map<std::string, std::string> metrics;
    size_t start = 0;
    for (size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1) {
        const std::string line = text.substr(start, end - start);
        const size_t blank = line.rfind(' ');
        if (!line.empty() && line[0] != '#' && blank != std::string::npos) {
            metrics[line.substr(0, blank)] = line.substr(blank + 1);
        }
    }
    return metrics;
}

void ExpectNear(const std::map<std::string, std::string>& metrics, const std::string& name, long expected)
{
    const auto found = metrics.find(name);
    ASSERT_NE(found, metrics.end()) << name;
    EXPECT_NEAR(expected, std::atol(found->second.c_str()), 300) << name;
}

TEST(TlsCheck, MaterialStatesTable)
{
    const long quarter = 90 * DAY, month = 30 * DAY;
    const Row rows[] = {
        {"healthy", Twist::NONE, "", quarter, 2 * month, {}, 0, {}, "vardo-tls-check OK: 7 OK, 0 WARNING, 0 CRITICAL",
         true},
        {"healthy without a revocation list", Twist::NO_LIST, "", quarter, 2 * month, {}, 0, {},
         "chain: ./keys/server.crt verifies against ./keys/ca.crt\n", false},
        {"healthy, warning 100 days ahead", Twist::NONE, "--warn-days 100", quarter, 2 * month, {}, 1, {},
         "WARNING   server certificate: expires in ", false},
        {"list past its next update", Twist::NONE, "", quarter, -DAY, {}, 2, {"crl_next_update"},
         "CRITICAL  revocation list: next update was due on", true},
        {"server certificate ends in 10 days", Twist::NONE, "", 10 * DAY, 2 * month, {}, 1, {},
         "WARNING   server certificate: expires in ", false},
        {"same, warning 5 days ahead", Twist::NONE, "--warn-days=5", 10 * DAY, 2 * month, {}, 0, {},
         "OK        server certificate: expires in ", false},
        {"key of another certificate", Twist::OTHER_KEY, "", quarter, 2 * month, {}, 2, {"server_key"},
         "is not the key of ./keys/server.crt", false},
        {"key the pass phrase does not open", Twist::OTHER_PASS, "", quarter, 2 * month, {}, 2, {"server_key"},
         "./keys/server.key does not open with the pass phrase of server_key_mm", false},
        {"certificate of another CA", Twist::OTHER_CA, "", quarter, 2 * month, {}, 2, {"chain"},
         "does not verify against ./keys/ca.crt and ./keys/ca.crl: unable to get local issuer", false},
        {"revoked certificate", Twist::NONE, "", quarter, 2 * month, {2}, 2, {"not_revoked"},
         "(serial 02) is revoked by ./keys/ca.crl", false},
        {"no configuration", Twist::NO_CONFIG, "", quarter, 2 * month, {}, 3, {}, "config/streamserver.conf", false},
        {"server_key_mm does not decrypt", Twist::BAD_CIPHER, "", quarter, 2 * month, {}, 3, {},
         "server_key_mm does not decrypt", false},
        {"list does not parse", Twist::BAD_CRL, "", quarter, 2 * month, {}, 3, {}, "does not parse as a PEM CRL",
         false},
        {"no key stores", Twist::NO_STORES, "", quarter, 2 * month, {}, 3, {}, "no key stores in ./keys", false},
        {"engine would create the lock file", Twist::NO_LOCK, "", quarter, 2 * month, {}, 3, {},
         "./keys/vardo.ks.lock is missing", false},
        {"engine would remove a stale write", Twist::STALE_WRITE, "", quarter, 2 * month, {}, 3, {},
         "./keys/.StandbyKsf.ks.x7Yq2Z is left from an interrupted key store write", false},
        {"configuration cut by a killed import", Twist::CUT_CONFIG, "", quarter, 2 * month, {}, 3, {},
         "The config file", false},
        {"bad usage", Twist::NONE, "--warn-days=soon", quarter, 2 * month, {}, 3, {}, "bad value 'soon'", false},
        {"unknown format", Twist::NONE, "--format xml", quarter, 2 * month, {}, 3, {}, "bad value 'xml'", false},
    };
    const bool havePromtool = Shell("command -v promtool >/dev/null") == 0;
    if (!havePromtool) {
        std::printf("promtool is missing (scripts/install-deps.sh installs it): metrics are not linted\n");
    }
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        SdkTree tree;
        ScratchDir out;
        const long start = static_cast<long>(std::time(nullptr));
        Import(tree, row);
        const std::string before = Snapshot(tree.KeysDir()) + Snapshot(tree.Root() + "/config");
        // glog would put its own files in GLOG_log_dir: none may appear there.
        const std::string run = "cd '" + tree.WorkDir() + "' && OVRA_SDK_HOME='" + tree.Root() + "' GLOG_log_dir='" +
                                out.Path() + "' '" VARDO_TLS_CHECK_BINARY "' " + row.args;
        EXPECT_EQ(row.status, Shell(run + " --format=prometheus >" + out / "metrics" + " 2>" + out / "errors"));
        EXPECT_EQ(row.status, Shell(run + " >" + out / "report" + " 2>>" + out / "errors"));
        EXPECT_EQ(before, Snapshot(tree.KeysDir()) + Snapshot(tree.Root() + "/config"));
        EXPECT_EQ(-1, FileMode(tree.Root() + "/logs"));
        EXPECT_EQ(3, std::distance(std::filesystem::directory_iterator(out.Path()), {}));
        // The libraries' records go to standard error only.
        EXPECT_EQ(std::string::npos, ReadWholeFile(out / "report").find("library"));
        const std::string report = ReadWholeFile(out / "report") + ReadWholeFile(out / "errors");
        EXPECT_NE(std::string::npos, report.find(row.reportLine)) << report;

        const std::string text = ReadWholeFile(out / "metrics");
        const std::map<std::string, std::string> metrics = Metrics(text);
        if (row.status == 3) {
            // Unreadable material: the status and the time only; bad usage (good material): nothing.
            const bool usage = row.twist == Twist::NONE;
            EXPECT_EQ(usage ? 0u : 2u, metrics.size()) << text;
            EXPECT_TRUE(usage || metrics.at("vardo_tls_status") == "3") << text;
            continue;
        }
        EXPECT_EQ(std::to_string(row.status), metrics.at("vardo_tls_status"));
        // Without a list, its two checks and its date are not reported.
        const bool list = row.twist != Twist::NO_LIST;
        for (const std::string check : CHECKS) {
            const std::string name = "vardo_tls_check_passed{check=\"" + check + "\"}";
            const bool fails = std::find(row.failing.begin(), row.failing.end(), check) != row.failing.end();
            const bool reported = list || (check != "not_revoked" && check != "crl_next_update");
            EXPECT_EQ(!reported ? "" : fails ? "0" : "1", metrics.count(name) ? metrics.at(name) : "") << check;
        }
        EXPECT_EQ(list ? 2 + 7 + 4u : 2 + 5 + 3u, metrics.size()) << text;
        ExpectNear(metrics, "vardo_tls_server_certificate_expiry_timestamp_seconds", start + row.serverLifetime);
        ExpectNear(metrics, "vardo_tls_ca_certificate_expiry_timestamp_seconds", start + 365 * DAY);
        if (list) {
            ExpectNear(metrics, "vardo_tls_crl_next_update_timestamp_seconds", start + row.crlNextUpdate);
        }
        ExpectNear(metrics, "vardo_tls_master_key_expiry_timestamp_seconds{domain=\"0\"}", start + 180 * DAY);
        ExpectNear(metrics, "vardo_tls_check_timestamp_seconds", start);
        if (row.promtool && havePromtool) {
            EXPECT_EQ(0, Shell("promtool check metrics <" + out / "metrics" + " >" + out / "lint" + " 2>&1"));
            EXPECT_EQ("", ReadWholeFile(out / "lint"));
        }
    }
}

}  // namespace
}  // namespace VardoTest
