// vardo-tls-check: says whether the TLS material an import left will serve.
//
// Run from the SDK directory that holds ./keys (tools/VardoTools/CertImport),
// with OVRA_SDK_HOME set, it starts as the stream server starts: reads
// streamserver.conf with the key tool's reader, decrypts server_key_mm with
// VardoTools::DecryptCaPassword and opens the server key with the pass
// phrase, which is wiped as soon as the key is read. Then it checks the key
// against the server certificate, the certificate against the CA (and the
// revocation list the configuration names), the certificate's revocation,
// and how long the certificates, the list and the active master keys last.
//
//   vardo-tls-check [--format=text|prometheus] [--warn-days N]
//
// Exit status as monitoring plugins: 0 OK, 1 WARNING (something runs out
// within --warn-days days, default 30), 2 CRITICAL (a check fails or
// something has run out), 3 UNKNOWN (the material cannot be read, or wrong
// usage).
//
// It writes nothing anywhere but its standard output and standard error.
// Logging: like the stream server, this program owns glog and does not make
// itself an SDK program, so the SDK log (Log::StartProgram, Log::Init) is
// never opened and no log file appears. glog writes no file and nothing to
// standard error itself; the libraries' WARNING and ERROR records are
// collected by a sink and printed to standard error once the report is
// written, so they never mix with the report or the metrics on standard
// output. INFO and debug records are not made at all.
#include <glog/logging.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "Checks.h"
#include "Material.h"
#include "Report.h"

namespace {

using VardoTlsCheck::Status;

const char HELP[] =
    "Usage: vardo-tls-check [--format=text|prometheus] [--warn-days N]\n"
    "\n"
    "Checks that the TLS material imported with certImport.sh will serve: the\n"
    "server key opens with the pass phrase stored in server_key_mm and matches the\n"
    "server certificate, the certificate verifies against the imported CA (and\n"
    "revocation list) and is not revoked, and how many days the certificates, the\n"
    "list and the active master keys have left. Changes nothing.\n"
    "\n"
    "Run it from the SDK directory that holds keys (tools/VardoTools/CertImport)\n"
    "with OVRA_SDK_HOME set to the SDK root.\n"
    "\n"
    "Options:\n"
    "  --format=text        one line per check and a summary (default)\n"
    "  --format=prometheus  metrics for the node exporter's textfile collector\n"
    "  --warn-days N        warn when something runs out within N days (default 30)\n"
    "  -h, --help           this text\n"
    "\n"
    "Exit status: 0 OK, 1 WARNING, 2 CRITICAL, 3 UNKNOWN (material unreadable, usage).\n";

constexpr int64_t DEFAULT_WARN_DAYS = 30;
constexpr int64_t MAX_WARN_DAYS = 36500;

struct Options {
    bool prometheus = false;
    int64_t warnDays = DEFAULT_WARN_DAYS;
    bool help = false;
};

bool ParseWarnDays(const std::string& text, int64_t& days)
{
    if (text.empty() || text.size() > 5 || text.find_first_not_of("0123456789") != std::string::npos) {
        return false;
    }
    days = std::strtoll(text.c_str(), nullptr, 10);
    return days <= MAX_WARN_DAYS;
}

// Accepts "--name=value" and "--name value". false with `problem` on wrong usage.
bool ParseOptions(int argc, char** argv, Options& options, std::string& problem)
{
    for (int i = 1; i < argc; ++i) {
        std::string name = argv[i];
        std::string value;
        bool hasValue = false;
        if (const size_t equals = name.find('='); name.rfind("--", 0) == 0 && equals != std::string::npos) {
            value = name.substr(equals + 1);
            name.resize(equals);
            hasValue = true;
        }
        if ((name == "-h" || name == "--help") && !hasValue) {
            options.help = true;
            continue;
        }
        if (name != "--format" && name != "--warn-days") {
            problem = "unknown argument " + name;
            return false;
        }
        if (!hasValue) {
            if (i + 1 >= argc) {
                problem = name + " needs a value";
                return false;
            }
            value = argv[++i];
        }
        const bool format = name == "--format";
        if (format ? value != "text" && value != "prometheus" : !ParseWarnDays(value, options.warnDays)) {
            problem = "bad value '" + value + "' for " + name;
            return false;
        }
        options.prometheus = format ? value == "prometheus" : options.prometheus;
    }
    return true;
}

// This program's glog: no file, nothing written by glog itself; the
// libraries' WARNING and ERROR records are kept for Print().
class LibraryRecords : public google::LogSink {
public:
    explicit LibraryRecords(const char* argv0)
    {
        FLAGS_logtostderr = false;
        FLAGS_alsologtostderr = false;
        FLAGS_logtostdout = false;
        FLAGS_stderrthreshold = google::NUM_SEVERITIES;
        FLAGS_minloglevel = google::GLOG_WARNING;
        google::InitGoogleLogging(argv0);
        for (int severity = 0; severity < google::NUM_SEVERITIES; ++severity) {
            google::SetLogDestination(severity, "");  // no glog log file
        }
        google::AddLogSink(this);
    }
    ~LibraryRecords() override { google::RemoveLogSink(this); }
    LibraryRecords(const LibraryRecords&) = delete;
    LibraryRecords& operator=(const LibraryRecords&) = delete;

    using google::LogSink::send;
    void send(google::LogSeverity severity, const char*, const char*, int, const google::LogMessageTime&,
              const char* message, std::size_t length) override
    {
        records_.push_back(std::string(google::GetLogSeverityName(severity)) + ": " + std::string(message, length));
    }

    void Print(std::FILE* out) const
    {
        for (const std::string& record : records_) {
            std::fprintf(out, "vardo-tls-check: library %s\n", record.c_str());
        }
    }

private:
    std::vector<std::string> records_;
};

}  // namespace

int main(int argc, char** argv)
{
    LibraryRecords records(argv[0]);
    Options options;
    std::string problem;
    if (!ParseOptions(argc, argv, options, problem)) {
        std::fprintf(stderr, "vardo-tls-check: %s (see --help)\n", problem.c_str());
        return static_cast<int>(Status::UNKNOWN);
    }
    if (options.help) {
        std::fputs(HELP, stdout);
        return static_cast<int>(Status::OK);
    }
    const int64_t now = static_cast<int64_t>(std::time(nullptr));
    VardoTlsCheck::Material material;
    VardoTlsCheck::Findings findings;
    const bool read = VardoTlsCheck::ReadMaterial(material, problem);
    if (read) {
        findings = VardoTlsCheck::RunChecks(material, now, options.warnDays);
    }
    material.key.reset();  // the open server key is not kept longer than the checks
    const VardoTlsCheck::Findings* result = read ? &findings : nullptr;
    if (options.prometheus) {
        VardoTlsCheck::WritePrometheus(stdout, result, now);
        if (!read) {
            std::fprintf(stderr, "vardo-tls-check: UNKNOWN: %s\n", problem.c_str());
        }
    } else {
        VardoTlsCheck::WriteText(stdout, result, problem, options.warnDays);
    }
    const bool written = std::fflush(stdout) == 0 && std::ferror(stdout) == 0;
    if (!written) {
        std::fprintf(stderr, "vardo-tls-check: cannot write the report to standard output\n");
    }
    records.Print(stderr);
    return static_cast<int>(read && written ? findings.Overall() : Status::UNKNOWN);
}
