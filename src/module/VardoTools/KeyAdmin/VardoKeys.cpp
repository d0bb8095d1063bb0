// vardo-keys: operator command over the key-management engine.
//
// It stands above the security service: rotate and update-root-key start and
// stop the engine exactly as the key tool does, with the record that
// VardoTools::VardoInit fills (only the store paths are the operator's) and
// the service's SeInitialize / SeFinalize, which choose a free semaphore key
// and remove the set again. status and verify only read, through the
// engine's report.
//
//   vardo-keys [--primary PATH] [--standby PATH] COMMAND [ARGS]
//     status            health of both copies, domains, master keys (never key bytes)
//     verify            checks both copies; exit 1 when either is not healthy or they differ
//     rotate DOMAIN     makes a new active master key in DOMAIN
//     update-root-key   replaces the root key material, re-wrapping every master key
//     renew [--within DAYS]  renews the active master keys that expire within DAYS
//     repair            rebuilds a damaged or older copy from the newest healthy one
//
// Options take their value as "--name value" or "--name=value". A store that
// is a link, of another owner or wider than 0600 is refused with the engine's
// code and its text before anything is changed.
//
// Every command first looks for a configuration that an interrupted import
// left incomplete ($OVRA_SDK_HOME/config/streamserver.conf beside its recovery
// copy) and says how to restore it; that record does not change the status.
//
// Exit status: 0 success, 1 a check found a problem or an operation failed,
// 2 wrong usage.
#include <unistd.h>

#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cinttypes>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "OvraBase/FileUtils.h"
#include "OvraBase/Log.h"
#include "ResultCode/ResultCode.h"
#include "SecurityService.h"
#include "VardoKms/KeyStoreReport.h"
#include "VardoKms/VardoKms.h"
#include "VardoTools.h"

namespace {

constexpr int EXIT_OK = 0;
constexpr int EXIT_PROBLEM = 1;
constexpr int EXIT_USAGE = 2;

// renew's default window, and the bound on any: an advance as long as a key's
// lifetime would renew every key on every run.
constexpr uint32_t DEFAULT_RENEW_WITHIN_DAYS = 30;
constexpr int64_t SECONDS_PER_DAY = 86400;
// Engine starts tried when runs at the same time pick the same semaphore key.
constexpr int START_ATTEMPTS = 5;

const char MAIN_HELP[] =
    "Usage: vardo-keys [--primary PATH] [--standby PATH] COMMAND [ARGS]\n"
    "\n"
    "Looks after the key stores of the key-management engine.\n"
    "\n"
    "Commands:\n"
    "  status            show both store copies, key domains and master keys\n"
    "  verify            check both copies; exit 1 when either is damaged\n"
    "  rotate DOMAIN     make a new active master key in DOMAIN and print its id\n"
    "  update-root-key   replace the root key and re-wrap every master key\n"
    "  renew [--within DAYS]\n"
    "                    renew the master keys that expire within DAYS (default 30)\n"
    "  repair            rebuild a damaged or older copy from the healthy one\n"
    "\n"
    "Options:\n"
    "  --primary PATH    primary key store (default ./keys/vardo.ks)\n"
    "  --standby PATH    standby key store (default ./keys/StandbyKsf.ks)\n"
    "  -h, --help        this text; COMMAND --help explains one command\n"
    "\n"
    "Options take their value as \"--name value\" or \"--name=value\".\n"
    "\n"
    "Exit status: 0 success, 1 problem found or operation failed, 2 wrong usage.\n";

const char STATUS_HELP[] =
    "Usage: vardo-keys [--primary PATH] [--standby PATH] status\n"
    "\n"
    "Shows whether each store copy is healthy, its generation and root key\n"
    "version, and for each key domain its master keys with id, state, creation\n"
    "and expiry. Never shows key bytes and changes nothing. Exit 1 when a copy\n"
    "is not healthy.\n";

const char VERIFY_HELP[] =
    "Usage: vardo-keys [--primary PATH] [--standby PATH] verify\n"
    "\n"
    "Reads both store copies and checks their format, MAC and every wrapped\n"
    "master key. Changes nothing. Exit 0 when both are healthy and identical,\n"
    "1 otherwise (the next engine start rebuilds a copy from a healthy one).\n";

const char ROTATE_HELP[] =
    "Usage: vardo-keys [--primary PATH] [--standby PATH] rotate DOMAIN\n"
    "\n"
    "Makes a new active master key in key domain DOMAIN (a number), now, and\n"
    "prints its id. The previous keys stay, so cipher texts made under them\n"
    "still decrypt. Both store copies are rewritten.\n";

const char UPDATE_ROOT_HELP[] =
    "Usage: vardo-keys [--primary PATH] [--standby PATH] update-root-key\n"
    "\n"
    "Replaces the stores' root key material with fresh random bytes and\n"
    "re-wraps every master key under it. Every cipher text stays decryptable.\n";

const char RENEW_HELP[] =
    "Usage: vardo-keys [--primary PATH] [--standby PATH] renew [--within DAYS]\n"
    "\n"
    "Makes a new active master key in every key domain whose active key expires\n"
    "within DAYS days (default 30, below the 180-day key lifetime) and changes\n"
    "nothing otherwise, so it is safe to run daily from a timer. The previous\n"
    "keys stay for decryption. Exit 0 also when nothing was due; 1 when the\n"
    "stores are refused or the engine fails (its code and text are printed).\n";

const char REPAIR_HELP[] =
    "Usage: vardo-keys [--primary PATH] [--standby PATH] repair\n"
    "\n"
    "Rebuilds a damaged, missing or older store copy from the newest healthy\n"
    "one and says what it did. Exit 0 when both copies are healthy and of one\n"
    "generation afterwards (also when nothing needed doing), 1 when no healthy\n"
    "copy exists (both files are left as they are) or a store is refused.\n";

struct Options {
    std::string primary = OvraStream::PRIMARY_KSF_PATH;
    std::string standby = OvraStream::STANDBY_KSF_PATH;
    std::string command;
    std::vector<std::string> arguments;
    uint32_t withinDays = DEFAULT_RENEW_WITHIN_DAYS;
    bool withinGiven = false;
    bool help = false;
};

int Usage(const char* problem)
{
    std::fprintf(stderr, "vardo-keys: %s\n\n%s", problem, MAIN_HELP);
    return EXIT_USAGE;
}

// Writes `value` as `width` decimal digits, zero-padded.
char* PutDigits(char* out, int64_t value, int width)
{
    for (int i = width - 1; i >= 0; --i) {
        out[i] = static_cast<char>('0' + value % 10);
        value /= 10;
    }
    return out + width;
}

// "YYYY-MM-DD hh:mm:ss UTC" of `seconds` since the epoch into `text`. A store
// lists up to 100,000 keys with two times each, so years 1970 to 9999 are
// worked out from the day count here (the civil calendar from days, as in
// C++20's <chrono>); only other times go through gmtime_r, "?" when even
// that fails.
void FormatTime(int64_t seconds, char (&text)[32])
{
    constexpr int64_t LAST_SECOND = 253402300799;  // 9999-12-31 23:59:59
    if (seconds < 0 || seconds > LAST_SECOND) {
        const std::time_t t = static_cast<std::time_t>(seconds);
        std::tm utc{};
        std::strcpy(text, "?");
        if (gmtime_r(&t, &utc) != nullptr) {
            std::strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S UTC", &utc);
        }
        return;
    }
    const int64_t days = seconds / 86400;
    const int64_t time = seconds % 86400;
    // Days since 0000-03-01 split into 400-year eras; March starts the year.
    const int64_t shifted = days + 719468;
    const int64_t era = shifted / 146097;
    const int64_t dayOfEra = shifted - era * 146097;
    const int64_t yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const int64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const int64_t monthFromMarch = (5 * dayOfYear + 2) / 153;
    const int64_t day = dayOfYear - (153 * monthFromMarch + 2) / 5 + 1;
    const int64_t month = monthFromMarch < 10 ? monthFromMarch + 3 : monthFromMarch - 9;
    const int64_t year = yearOfEra + era * 400 + (month <= 2 ? 1 : 0);
    char* out = PutDigits(text, year, 4);
    *out++ = '-';
    out = PutDigits(out, month, 2);
    *out++ = '-';
    out = PutDigits(out, day, 2);
    *out++ = ' ';
    out = PutDigits(out, time / 3600, 2);
    *out++ = ':';
    out = PutDigits(out, time / 60 % 60, 2);
    *out++ = ':';
    out = PutDigits(out, time % 60, 2);
    std::strcpy(out, " UTC");
}

// Appends `text` padded with blanks to `width` (printf's "%-Ns").
char* PutPadded(char* out, const char* text, std::size_t length, std::size_t width)
{
    std::memcpy(out, text, length);
    for (; length < width; ++length) {
        out[length] = ' ';
    }
    return out + length;
}

// One line of the key list, as printf's
// "  master key %-4u %-8s created %s  expires %s\n" would write it, put
// together directly: a list can have 100,000 of them.
void PrintKeyLine(const VardoKms::MasterKeyReport& key)
{
    char line[128];
    char id[16];
    const std::to_chars_result idEnd = std::to_chars(id, id + sizeof(id), key.keyId);
    char* out = PutPadded(line, "  master key ", 13, 13);
    out = PutPadded(out, id, static_cast<std::size_t>(idEnd.ptr - id), 4);
    *out++ = ' ';
    out = key.active ? PutPadded(out, "active", 6, 8) : PutPadded(out, "retired", 7, 8);
    out = PutPadded(out, " created ", 9, 9);
    char time[32];
    FormatTime(key.created, time);
    out = PutPadded(out, time, std::strlen(time), 0);
    out = PutPadded(out, "  expires ", 10, 10);
    FormatTime(key.expires, time);
    out = PutPadded(out, time, std::strlen(time), 0);
    *out++ = '\n';
    std::fwrite(line, 1, static_cast<std::size_t>(out - line), stdout);
}

bool ParseDomain(const std::string& text, uint32_t& domain)
{
    if (text.empty() || text.size() > 10 || text.find_first_not_of("0123456789") != std::string::npos) {
        return false;
    }
    const unsigned long long value = std::strtoull(text.c_str(), nullptr, 10);
    if (value > 0xFFFFFFFFull) {
        return false;
    }
    domain = static_cast<uint32_t>(value);
    return true;
}

bool Healthy(const VardoKms::CopyReport& report) { return report.health == VardoKms::CopyHealth::HEALTHY; }

void PrintCopy(const char* role, const VardoKms::CopyReport& report)
{
    std::printf("%-8s %s: %s", role, report.path.c_str(), VardoKms::HealthText(report.health));
    if (Healthy(report)) {
        std::printf(", generation %llu, root key version %u, %zu master keys",
                    static_cast<unsigned long long>(report.generation), report.rootVersion, report.keyCount);
    } else if (report.code != VE_OK) {
        std::printf(" (code %d)", report.code);
    }
    std::printf("\n");
}

// Reads both copies and prints a line for each; false when they could not be read.
bool InspectAndPrint(const Options& options, VardoKms::ReportDetail detail, VardoKms::CopyReport& primary,
                     VardoKms::CopyReport& standby)
{
    const int32_t rc = VardoKms::InspectKeyStores(options.primary, options.standby, detail, primary, standby);
    if (rc != VE_OK) {
        std::fprintf(stderr, "vardo-keys: cannot read the key stores (code %d: %s)\n", rc, VeErrorText(rc));
        return false;
    }
    PrintCopy("primary", primary);
    PrintCopy("standby", standby);
    return true;
}

int Status(const Options& options)
{
    VardoKms::CopyReport primary;
    VardoKms::CopyReport standby;
    // No key is unwrapped for this: status shows what the records say.
    if (!InspectAndPrint(options, VardoKms::ReportDetail::KEY_LIST, primary, standby)) {
        return EXIT_PROBLEM;
    }
    // Keys of the copy the engine would use: the newest healthy one.
    const VardoKms::SourceCopy choice =
        VardoKms::NewestHealthyCopy(primary.health, primary.generation, standby.health, standby.generation);
    if (choice == VardoKms::SourceCopy::NONE) {
        std::printf("no healthy copy: no key domains to show\n");
        return EXIT_PROBLEM;
    }
    const VardoKms::CopyReport* source = choice == VardoKms::SourceCopy::PRIMARY ? &primary : &standby;
    bool first = true;
    uint32_t domain = 0;
    for (const VardoKms::MasterKeyReport& key : source->keys) {
        if (first || key.domainId != domain) {
            domain = key.domainId;
            first = false;
            std::printf("domain %u\n", domain);
        }
        PrintKeyLine(key);
    }
    if (source->keys.empty()) {
        std::printf("no key domains yet\n");
    }
    return Healthy(primary) && Healthy(standby) ? EXIT_OK : EXIT_PROBLEM;
}

int Verify(const Options& options)
{
    VardoKms::CopyReport primary;
    VardoKms::CopyReport standby;
    if (!InspectAndPrint(options, VardoKms::ReportDetail::WRAPPED_KEYS, primary, standby)) {
        return EXIT_PROBLEM;
    }
    if (!Healthy(primary) || !Healthy(standby)) {
        std::printf("verify: FAILED, a copy is not healthy\n");
        return EXIT_PROBLEM;
    }
    if (primary.generation != standby.generation) {
        std::printf("verify: FAILED, the copies are of different generations\n");
        return EXIT_PROBLEM;
    }
    std::printf("verify: OK\n");
    return EXIT_OK;
}

// `path` (shorter than the field) as the zero-filled text of a path field.
void PutPath(char (&field)[sizeof(TagVardoConfig::primaryKsfPath)], const std::string& path)
{
    std::memset(field, 0, sizeof(field));
    std::memcpy(field, path.data(), path.size());
}

// Starts the engine on the chosen stores as the key tool does (its record,
// the security service's choice of a free semaphore key), runs `operation`,
// then stops the engine and removes the semaphore set again.
template <typename Operation>
int WithEngine(const Options& options, const char* what, Operation operation)
{
    if (options.primary.size() >= sizeof(TagVardoConfig::primaryKsfPath) ||
        options.standby.size() >= sizeof(TagVardoConfig::standbyKsfPath)) {
        return Usage("a store path is too long");
    }
    TagVardoConfig config;
    OvraStream::VardoTools keyTool;
    int32_t rc = keyTool.VardoInit(config, VE_ALG_AES256_GCM);
    if (rc == OvraBase::APP_ERR_OK) {
        // The operator's store paths in place of the key tool's.
        PutPath(config.primaryKsfPath, options.primary);
        PutPath(config.standbyKsfPath, options.standby);
        // The free key that SeInitialize finds may be taken by another run
        // before the engine creates its set there (VE_ERR_LOCK): look again.
        for (int attempt = 0; attempt < START_ATTEMPTS; ++attempt) {
            rc = SeInitialize(&config);
            if (rc != VE_ERR_LOCK) {
                break;
            }
        }
    }
    if (rc != VE_OK) {
        std::fprintf(stderr, "vardo-keys: cannot start the key engine (code %d: %s)\n", rc, VeErrorText(rc));
        return EXIT_PROBLEM;
    }
    rc = operation();
    (void)SeFinalize(&config);
    if (rc != VE_OK) {
        std::fprintf(stderr, "vardo-keys: %s failed (code %d: %s)\n", what, rc, VeErrorText(rc));
        return EXIT_PROBLEM;
    }
    return EXIT_OK;
}

int Rotate(const Options& options)
{
    uint32_t domain = 0;
    if (options.arguments.size() != 1 || !ParseDomain(options.arguments[0], domain)) {
        return Usage("rotate takes one key domain number");
    }
    uint32_t keyId = 0;
    const int result = WithEngine(options, "rotate", [domain, &keyId] {
        // An advance larger than any lifetime renews the active key now. The
        // engine is asked directly: the security service's cap of 100 keys
        // per domain guards the import, not the operator. The engine names
        // the key it made, so runs at the same time each print their own.
        return VeCheckAndUpdateMkEx(domain, UINT32_MAX, &keyId);
    });
    if (result == EXIT_OK) {
        std::printf("domain %u: new active master key %u\n", domain, keyId);
    }
    return result;
}

int UpdateRootKey(const Options& options)
{
    if (!options.arguments.empty()) {
        return Usage("update-root-key takes no arguments");
    }
    const int result = WithEngine(options, "update-root-key", [] { return SeUpdateRootKey(); });
    if (result == EXIT_OK) {
        std::printf("root key replaced; every master key re-wrapped\n");
    }
    return result;
}

// The copy whose keys the engine would use, or null when neither is healthy.
const VardoKms::CopyReport* SourceOf(const VardoKms::CopyReport& primary, const VardoKms::CopyReport& standby)
{
    switch (VardoKms::NewestHealthyCopy(primary.health, primary.generation, standby.health, standby.generation)) {
        case VardoKms::SourceCopy::PRIMARY: return &primary;
        case VardoKms::SourceCopy::STANDBY: return &standby;
        case VardoKms::SourceCopy::NONE: break;
    }
    return nullptr;
}

// true (after saying so) when either copy is one the engine refuses to use:
// a link, another user's file, or wider than 0600.
bool RefusedUnsafe(const char* what, const VardoKms::CopyReport& primary, const VardoKms::CopyReport& standby)
{
    bool refused = false;
    for (const VardoKms::CopyReport* report : {&primary, &standby}) {
        if (report->health == VardoKms::CopyHealth::UNSAFE) {
            std::fprintf(stderr, "vardo-keys: %s refused, %s (code %d: %s); nothing changed\n", what,
                         report->path.c_str(), report->code, VeErrorText(report->code));
            refused = true;
        }
    }
    return refused;
}

struct DueKey {
    uint32_t domainId;
    uint32_t keyId;
    int64_t expires;
};

int Renew(const Options& options)
{
    VardoKms::CopyReport primary;
    VardoKms::CopyReport standby;
    if (!InspectAndPrint(options, VardoKms::ReportDetail::KEY_LIST, primary, standby) ||
        RefusedUnsafe("renew", primary, standby)) {
        return EXIT_PROBLEM;
    }
    const VardoKms::CopyReport* source = SourceOf(primary, standby);
    if (source == nullptr) {
        if (primary.health == VardoKms::CopyHealth::MISSING && standby.health == VardoKms::CopyHealth::MISSING) {
            std::printf("renew: no key stores yet, nothing to renew\n");
            return EXIT_OK;
        }
        std::printf("renew: FAILED, no healthy copy to renew from\n");
        return EXIT_PROBLEM;
    }
    const int64_t limit = static_cast<int64_t>(std::time(nullptr)) + options.withinDays * SECONDS_PER_DAY;
    std::vector<DueKey> due;
    for (const VardoKms::MasterKeyReport& key : source->keys) {
        if (key.active && key.expires <= limit) {
            due.push_back({key.domainId, key.keyId, key.expires});
        }
    }
    if (due.empty()) {
        std::printf("renew: no active master key expires within %u days\n", options.withinDays);
        return EXIT_OK;
    }
    return WithEngine(options, "renew", [&options, &due] {
        for (const DueKey& key : due) {
            // The engine checks the expiry again under its locks: a key that
            // another run renewed meanwhile is left as it is.
            uint32_t activeKeyId = 0;
            const int32_t rc = VeCheckAndUpdateMkEx(key.domainId, options.withinDays, &activeKeyId);
            if (rc != VE_OK) {
                return rc;
            }
            char expires[32];
            FormatTime(key.expires, expires);
            std::printf("domain %u: master key %u expires %s; new active master key %u\n", key.domainId, key.keyId,
                        expires, activeKeyId);
        }
        return VE_OK;
    });
}

bool Whole(const VardoKms::CopyReport& primary, const VardoKms::CopyReport& standby)
{
    return Healthy(primary) && Healthy(standby) && primary.generation == standby.generation;
}

int Repair(const Options& options)
{
    VardoKms::CopyReport primary;
    VardoKms::CopyReport standby;
    if (!InspectAndPrint(options, VardoKms::ReportDetail::KEY_LIST, primary, standby) ||
        RefusedUnsafe("repair", primary, standby)) {
        return EXIT_PROBLEM;
    }
    const VardoKms::CopyReport* source = SourceOf(primary, standby);
    if (source == nullptr) {
        std::printf("repair: FAILED, no healthy copy to rebuild from; both files left as they are\n");
        return EXIT_PROBLEM;
    }
    if (Whole(primary, standby)) {
        std::printf("repair: nothing to do, both copies are healthy and of generation %" PRIu64 "\n",
                    primary.generation);
        return EXIT_OK;
    }
    const VardoKms::CopyReport& other = source == &primary ? standby : primary;
    const std::string sourcePath = source->path;
    const std::string otherPath = other.path;
    const std::string otherState = Healthy(other) ? "older" : VardoKms::HealthText(other.health);
    // The engine's start rebuilds the other copy from the newest healthy one.
    const int started = WithEngine(options, "repair", [] { return VE_OK; });
    if (started != EXIT_OK) {
        return started;
    }
    VardoKms::CopyReport primaryAfter;
    VardoKms::CopyReport standbyAfter;
    if (VardoKms::InspectKeyStores(options.primary, options.standby, VardoKms::ReportDetail::KEY_LIST, primaryAfter,
                                   standbyAfter) != VE_OK ||
        !Whole(primaryAfter, standbyAfter)) {
        std::printf("repair: FAILED, %s is still not a copy of %s\n", otherPath.c_str(), sourcePath.c_str());
        return EXIT_PROBLEM;
    }
    std::printf("repair: rebuilt %s (was %s) from %s\n", otherPath.c_str(), otherState.c_str(), sourcePath.c_str());
    return EXIT_OK;
}

// An import that was interrupted may have left the stream server's
// configuration incomplete beside its recovery copy: the key tool says so,
// with the command that restores it. Nothing to look at without the SDK root.
void ReportInterruptedImport()
{
    const char* sdkHome = std::getenv("OVRA_SDK_HOME");
    if (sdkHome == nullptr || sdkHome[0] == '\0') {
        return;
    }
    std::string config = std::string(sdkHome) + "/config/streamserver.conf";
    std::string canonical;
    if (OvraBase::FileUtils::RegularFilePath(config, canonical, true)) {
        config = canonical;
    }
    (void)OvraStream::VardoTools::CheckConfigRecovery(config);
}

bool ParseDays(const std::string& text, uint32_t& days)
{
    uint32_t value = 0;
    const std::from_chars_result parsed = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || parsed.ec != std::errc() || parsed.ptr != text.data() + text.size() ||
        value >= VE_MK_LIFETIME_DAYS) {
        return false;
    }
    days = value;
    return true;
}

int ParseArguments(int argc, char** argv, Options& options)
{
    for (int i = 1; i < argc; ++i) {
        std::string argument = argv[i];
        if (argument == "-h" || argument == "--help") {
            options.help = true;
            continue;
        }
        if (argument.empty() || argument[0] != '-' || argument == "-") {
            if (options.command.empty()) {
                options.command = argument;
            } else {
                options.arguments.push_back(argument);
            }
            continue;
        }
        // "--name=value" or "--name value".
        std::string value;
        bool hasValue = false;
        const std::size_t equals = argument.find('=');
        if (equals != std::string::npos) {
            value = argument.substr(equals + 1);
            argument.resize(equals);
            hasValue = true;
        }
        if (argument != "--primary" && argument != "--standby" && argument != "--within") {
            return Usage(("unknown option " + argument).c_str());
        }
        if (!hasValue && i + 1 < argc) {
            value = argv[++i];
            hasValue = true;
        }
        if (!hasValue || value.empty()) {
            return Usage((argument + (argument == "--within" ? " needs a number of days" : " needs a path")).c_str());
        }
        if (argument == "--within") {
            if (!ParseDays(value, options.withinDays)) {
                return Usage("--within takes a number of days below the 180-day key lifetime");
            }
            options.withinGiven = true;
        } else {
            (argument == "--primary" ? options.primary : options.standby) = value;
        }
    }
    return EXIT_OK;
}

}  // namespace

int main(int argc, char** argv)
{
    // Records of the engine take the SDK's format on standard error, as the
    // import command's do.
    OvraBase::Log::StartProgram(argv[0]);
    // A key list can run to 100,000 lines: into a file or a pipe they go in
    // large blocks (a terminal keeps its lines as they come).
    static char outputBuffer[64 * 1024];
    if (isatty(STDOUT_FILENO) == 0) {
        std::setvbuf(stdout, outputBuffer, _IOFBF, sizeof(outputBuffer));
    }
    Options options;
    const int parsed = ParseArguments(argc, argv, options);
    if (parsed != EXIT_OK) {
        return parsed;
    }
    struct Command {
        const char* name;
        const char* help;
        int (*run)(const Options&);
    };
    const Command commands[] = {
        {"status", STATUS_HELP, Status},
        {"verify", VERIFY_HELP, Verify},
        {"rotate", ROTATE_HELP, Rotate},
        {"update-root-key", UPDATE_ROOT_HELP, UpdateRootKey},
        {"renew", RENEW_HELP, Renew},
        {"repair", REPAIR_HELP, Repair},
    };
    if (options.command.empty()) {
        if (options.help) {
            std::fputs(MAIN_HELP, stdout);
            return EXIT_OK;
        }
        return Usage("no command given");
    }
    for (const Command& command : commands) {
        if (options.command == command.name) {
            if (options.help) {
                std::fputs(command.help, stdout);
                return EXIT_OK;
            }
            if (command.run != Rotate && command.run != UpdateRootKey && !options.arguments.empty()) {
                return Usage((options.command + " takes no arguments").c_str());
            }
            if (command.run != Renew && options.withinGiven) {
                return Usage("--within belongs to renew");
            }
            ReportInterruptedImport();
            return command.run(options);
        }
    }
    return Usage(("unknown command " + options.command).c_str());
}
