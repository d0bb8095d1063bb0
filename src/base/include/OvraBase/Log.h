// SDK log: glog underneath, per-site throttling on top.
//
// Every source file that logs names its unit once, at file scope:
//
//     OVRA_LOG_UNIT("src/module/VardoTools/CertImport/main");
//
// and then writes records with the statement macros below. Each statement owns
// two function-local atomic counters, occurrences_<line> and
// occurrences_mod_n_<line>. On each pass both are incremented; when the second
// exceeds N (Log::logFlowControlFrequency_) N is subtracted from it, and the
// record is written only when it equals 1: a site writes on its 1st, (N+1)-th,
// (2N+1)-th pass, and the record carries the total pass count. Verbose (debug)
// sites step their second counter as (previous + 1) mod N instead. Only the
// record is skipped; the code around the statement always runs.
//
//   OVRA_LOG_INFO(text)               INFO record
//   OVRA_LOG_WARN(text)               WARNING record
//   OVRA_LOG_ERROR(text)              ERROR record
//   OVRA_LOG_DEBUG(text)              verbose record of level -1
//   OVRA_LOG_WARN_CODE(text, code)    WARNING: text + GetErrorInfo(code, "")
//   OVRA_LOG_ERROR_CODE(text, code)   ERROR:   text + GetErrorInfo(code, "")
//   OVRA_RETURN_ERROR(text, code)     OVRA_LOG_ERROR_CODE, then `return code;`
//
// `text` is anything that can follow `<<`, so `"Can't find " << key << " in"`
// works. Never pass secret material to these macros.
//
// Who owns glog decides where records go:
//
// - An SDK program (the import command, vardo-keys, a test program of the
//   SDK) calls Log::StartProgram(argv[0]) first thing in main. The program
//   then owns the SDK log: each record is one line, on standard error and
//   (after Init) in the log file,
//
//     <L><yyyymmdd> <hh:mm:ss.uuuuuu> <thread id> <unit>:<line>] <message>
//
//   with L one of I, W, E (F for fatal), local time, and <unit> the full unit
//   path given to OVRA_LOG_UNIT. Records written before Init (the command's
//   audit record) already reach standard error in this format.
// - Any other program that loads the libraries is a host: it owns glog. The
//   libraries never initialise glog, never add a sink and never change a glog
//   flag or destination in a host, so their records go wherever the host's
//   glog sends its own, in the host's format, whether the host initialised
//   glog before the libraries were loaded, after, or not at all (glog then
//   writes to standard error on its own). The per-site throttling applies in
//   both cases.
#ifndef OVRA_BASE_LOG_H
#define OVRA_BASE_LOG_H

#include <glog/logging.h>

#include <atomic>
#include <cstdint>

#include "OvraBase/ErrorInfo.h"
#include "OvraBase/Export.h"

namespace OvraBase {

class OVRA_EXPORT Log {
public:
    // Makes the calling program an SDK program (see above): initialises glog
    // with `argv0` (argv[0] of main, which must stay valid as argv does; null
    // means the program's short name) unless glog is initialised already,
    // switches glog's own files and standard error writer off and adds the
    // SDK's record sink. Call it before the first record; it writes none.
    // Later calls do nothing.
    static void StartProgram(const char* argv0);

    // In an SDK program: reads $OVRA_SDK_HOME/config/logging.conf when it
    // exists (embedded defaults otherwise), creates the owner-only log
    // directory and routes records to standard error and to the log file.
    // The log directory is log_dir of logging.conf, else $OVRA_SDK_HOME/logs,
    // else ~/.ovra/logs; the file in it is "<program name>.log". A failed call
    // leaves the previous settings in force; calling it again re-reads the
    // configuration and reopens the file.
    // In a host: reads logging.conf the same way but takes only
    // flow_control_frequency from it; it opens no file and leaves glog's
    // flags, sinks and destinations alone.
    // 0 on success; non-zero when the configuration file is malformed or the
    // log file cannot be opened.
    static int32_t Init();

    // Makes every log file written so far owner-only (0600); nothing in a host.
    static void UpdateFileMode();

    // N of the per-site throttling described above; at least 1.
    static int32_t logFlowControlFrequency_;
};

namespace LogInternal {

// One pass of a throttled site; true when this pass writes its record.
inline bool PassSite(std::atomic<int64_t>& occurrences, std::atomic<int64_t>& occurrencesModN)
{
    const int64_t n = Log::logFlowControlFrequency_ > 0 ? Log::logFlowControlFrequency_ : 1;
    ++occurrences;
    if (++occurrencesModN > n) {
        occurrencesModN -= n;
    }
    return occurrencesModN == 1;
}

// One pass of a verbose site: the second counter becomes (previous + 1) mod N.
inline bool PassVerboseSite(std::atomic<int64_t>& occurrences, std::atomic<int64_t>& occurrencesModN)
{
    const int64_t n = Log::logFlowControlFrequency_ > 0 ? Log::logFlowControlFrequency_ : 1;
    ++occurrences;
    int64_t previous = occurrencesModN.load();
    while (!occurrencesModN.compare_exchange_weak(previous, (previous + 1) % n)) {
    }
    return (previous + 1) % n == 1 % n;
}

}  // namespace LogInternal
}  // namespace OvraBase

// Names the unit that the records of this file report as their source file.
#define OVRA_LOG_UNIT(path) [[maybe_unused]] static constexpr const char kOvraLogUnit[] = path

#define OVRA_LOG_CONCAT_INNER(a, b) a##b
#define OVRA_LOG_CONCAT(a, b) OVRA_LOG_CONCAT_INNER(a, b)

#define OVRA_LOG_SITE_(passFunction, severity, enabled, text)                                          \
    do {                                                                                              \
        static std::atomic<int64_t> OVRA_LOG_CONCAT(occurrences_, __LINE__)(0);                       \
        static std::atomic<int64_t> OVRA_LOG_CONCAT(occurrences_mod_n_, __LINE__)(0);                 \
        if (::OvraBase::LogInternal::passFunction(OVRA_LOG_CONCAT(occurrences_, __LINE__),           \
                                                  OVRA_LOG_CONCAT(occurrences_mod_n_, __LINE__)) &&  \
            (enabled)) {                                                                              \
            ::google::LogMessage(kOvraLogUnit, __LINE__, (severity),                                  \
                                 OVRA_LOG_CONCAT(occurrences_, __LINE__).load(),                      \
                                 &::google::LogMessage::SendToLog)                                    \
                    .stream()                                                                         \
                << text;                                                                              \
        }                                                                                             \
    } while (0)

#define OVRA_LOG_INFO(text) OVRA_LOG_SITE_(PassSite, ::google::GLOG_INFO, true, text)
#define OVRA_LOG_WARN(text) OVRA_LOG_SITE_(PassSite, ::google::GLOG_WARNING, true, text)
#define OVRA_LOG_ERROR(text) OVRA_LOG_SITE_(PassSite, ::google::GLOG_ERROR, true, text)
#define OVRA_LOG_DEBUG(text) OVRA_LOG_SITE_(PassVerboseSite, ::google::GLOG_INFO, VLOG_IS_ON(-1), text)

#define OVRA_LOG_WARN_CODE(text, code) OVRA_LOG_WARN(text << ::OvraBase::GetErrorInfo((code), ""))
#define OVRA_LOG_ERROR_CODE(text, code) OVRA_LOG_ERROR(text << ::OvraBase::GetErrorInfo((code), ""))

#define OVRA_RETURN_ERROR(text, code)         \
    do {                                      \
        OVRA_LOG_ERROR_CODE(text, code);      \
        return (code);                        \
    } while (0)

#endif  // OVRA_BASE_LOG_H
