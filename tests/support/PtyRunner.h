// Runs a program the way an operator does: standard input and output on a
// pseudo-terminal (so getpass reads the pass phrase from "the terminal"),
// standard error on a pipe of its own, with typed answers that are sent only
// once the program has printed what it waits on.
#ifndef VARDO_TEST_SUPPORT_PTY_RUNNER_H
#define VARDO_TEST_SUPPORT_PTY_RUNNER_H

#include <sys/resource.h>

#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "TestUser.h"

namespace VardoTest {

// One step of the conversation: wait until `waitFor` appears in what the
// program wrote (terminal or standard error) after the previous step's match,
// then run `action` (given all the program wrote so far), then type `send`
// (no newline is added).
struct Exchange {
    std::string waitFor;
    std::string send;
    std::function<void(const std::string& written)> action = nullptr;
};

struct RunOptions {
    std::string program;                                       // absolute path
    std::vector<std::string> args;                              // after argv[0]
    std::string workingDirectory;                               // "" = current
    std::vector<std::pair<std::string, std::string>> setEnv;    // added or replaced
    std::vector<Exchange> exchanges;
    // After the exchanges, type end-of-input (^D), and type it again after
    // each pause in the output while the program runs: a terminal flush in
    // the program (getpass does one) may have thrown the earlier one away.
    bool closeInputAtEnd = false;
    bool stdinFromDevNull = false;  // standard input not a terminal (getpass still uses /dev/tty)
    const TestUser* user = nullptr; // run as this user
    int timeoutSeconds = 60;        // the program is killed after this
    // Faults: once every exchange was typed, the program's session is killed
    // (SIGKILL) after this many microseconds; a file size limit (bytes), with
    // SIGXFSZ ignored (a write beyond it fails, as on a full disk) or not (the
    // program is killed by it).
    std::optional<long> killAfterMicroseconds;
    std::optional<rlim_t> fileSizeLimit;
    bool ignoreFileSizeSignal = false;
};

struct RunResult {
    int exitStatus = -1;        // 0..255, or -1 when killed by a signal or timed out
    bool timedOut = false;
    std::string terminal;       // everything written to the terminal, without carriage returns
    std::string errors;         // everything written to standard error (the log records)
    std::string unmetWaitFor;   // the first waitFor never seen, if any
};

RunResult RunInPty(const RunOptions& options);

}  // namespace VardoTest

#endif  // VARDO_TEST_SUPPORT_PTY_RUNNER_H
