// Runs a program on a pseudo-terminal and collects what it writes.
//
// The child gets the terminal as its controlling terminal and as standard
// input and output, so getpass() (which opens /dev/tty) and std::cin both read
// what the test types. Standard error goes to a pipe of its own, which keeps
// the log records apart from the terminal's echo.
//
// Typing is driven by what the program printed: an answer is sent only after
// its prompt was seen, because getpass() throws away typed-ahead input when it
// switches echo off and again when it restores the terminal.
#include "PtyRunner.h"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <cctype>
#include <optional>

extern char** environ;

namespace VardoTest {
namespace {

using Clock = std::chrono::steady_clock;

constexpr char END_OF_INPUT = '\x04';  // ^D in canonical mode
constexpr int POLL_SLICE_MS = 50;
// While end of input is due, ^D is typed again after this much silence: a
// terminal flush in the program may have discarded the earlier one.
constexpr auto END_OF_INPUT_REPEAT = std::chrono::milliseconds(400);

// The terminal turns "\n" into "\r\n"; matching ignores carriage returns.
std::string WithoutCarriageReturns(const std::string& text)
{
    std::string result;
    result.reserve(text.size());
    for (char c : text) {
        if (c != '\r') {
            result.push_back(c);
        }
    }
    return result;
}

std::vector<std::string> BuildEnvironment(const RunOptions& options)
{
    std::vector<std::string> env;
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
        env.emplace_back(*entry);
    }
    auto removeName = [&env](const std::string& name) {
        const std::string prefix = name + "=";
        env.erase(std::remove_if(env.begin(), env.end(),
                                 [&prefix](const std::string& e) { return e.compare(0, prefix.size(), prefix) == 0; }),
                  env.end());
    };
    for (const auto& name : options.unsetEnv) {
        removeName(name);
    }
    for (const auto& [name, value] : options.setEnv) {
        removeName(name);
        env.push_back(name + "=" + value);
    }
    return env;
}

std::vector<char*> PointerArray(std::vector<std::string>& strings)
{
    std::vector<char*> pointers;
    for (auto& s : strings) {
        pointers.push_back(s.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

// Reports a failure of the child's set-up on its standard error and ends it.
[[noreturn]] void ChildFail(const char* what)
{
    const char* reason = std::strerror(errno);
    const std::string text = std::string("PtyRunner: ") + what + ": " + reason + "\n";
    (void)!write(STDERR_FILENO, text.data(), text.size());
    _exit(127);
}

// In the forked child: plumbing, identity, directory, then exec.
[[noreturn]] void RunChild(const RunOptions& options, int errorWriteEnd, char* const* argv, char* const* envp)
{
    if (dup2(errorWriteEnd, STDERR_FILENO) < 0) {
        _exit(127);
    }
    close(errorWriteEnd);
    if (options.stdinFromDevNull) {
        int devNull = open("/dev/null", O_RDONLY);
        if (devNull < 0 || dup2(devNull, STDIN_FILENO) < 0) {
            ChildFail("/dev/null as standard input");
        }
        close(devNull);
    }
    if (options.runAsUid.has_value()) {
        const gid_t gid = options.runAsGid.value_or(static_cast<gid_t>(*options.runAsUid));
        if (setgroups(0, nullptr) != 0 || setgid(gid) != 0 || setuid(*options.runAsUid) != 0) {
            ChildFail("dropping privileges");
        }
    }
    if (!options.workingDirectory.empty() && chdir(options.workingDirectory.c_str()) != 0) {
        ChildFail("changing to the working directory");
    }
    execve(options.program.c_str(), argv, envp);
    ChildFail("exec");
}

void SetNonBlocking(int fd)
{
    const int flags = fcntl(fd, F_GETFL);
    if (flags >= 0) {
        fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    }
}

// Reads what is available. false once the source is finished (EOF, or EIO
// on the terminal after the last holder of its other side closed it).
bool Drain(int fd, std::string& into, std::string& combined)
{
    char buffer[4096];
    for (;;) {
        const ssize_t n = read(fd, buffer, sizeof(buffer));
        if (n > 0) {
            into.append(buffer, static_cast<size_t>(n));
            combined.append(buffer, static_cast<size_t>(n));
            continue;
        }
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            return true;
        }
        return false;
    }
}

void WriteAll(int fd, const std::string& text)
{
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = write(fd, text.data() + done, text.size() - done);
        if (n > 0) {
            done += static_cast<size_t>(n);
        } else if (n < 0 && (errno == EINTR || errno == EAGAIN)) {
            poll(nullptr, 0, 5);
        } else {
            return;
        }
    }
}

// One record line: <L><yyyymmdd or mmdd> <hh:mm:ss.uuuuuu> <thread id> <unit>:<line>] <message>
std::optional<Record> ParseRecordLine(const std::string& line)
{
    size_t at = 0;
    auto digits = [&line, &at](size_t count) {
        for (size_t i = 0; i < count; ++i, ++at) {
            if (at >= line.size() || !std::isdigit(static_cast<unsigned char>(line[at]))) {
                return false;
            }
        }
        return true;
    };
    auto literal = [&line, &at](char c) {
        if (at < line.size() && line[at] == c) {
            ++at;
            return true;
        }
        return false;
    };
    if (line.empty() || std::string("IWEF").find(line[0]) == std::string::npos) {
        return std::nullopt;
    }
    const char severity = line[0];
    at = 1;
    if (!digits(4)) {
        return std::nullopt;
    }
    if (line.size() > at && line[at] != ' ' && !digits(4)) {  // the year is optional
        return std::nullopt;
    }
    if (!literal(' ') || !digits(2) || !literal(':') || !digits(2) || !literal(':') || !digits(2) ||
        !literal('.') || !digits(6) || !literal(' ')) {
        return std::nullopt;
    }
    while (literal(' ')) {
    }
    const size_t threadStart = at;
    while (at < line.size() && std::isdigit(static_cast<unsigned char>(line[at]))) {
        ++at;
    }
    if (at == threadStart || !literal(' ')) {
        return std::nullopt;
    }
    const size_t close = line.find("] ", at);
    const size_t closeAtEnd = (close == std::string::npos && line.size() > at && line.back() == ']')
                                  ? line.size() - 1
                                  : close;
    if (closeAtEnd == std::string::npos) {
        return std::nullopt;
    }
    const size_t colon = line.rfind(':', closeAtEnd);
    if (colon == std::string::npos || colon < at || colon + 1 == closeAtEnd) {
        return std::nullopt;
    }
    for (size_t i = colon + 1; i < closeAtEnd; ++i) {
        if (!std::isdigit(static_cast<unsigned char>(line[i]))) {
            return std::nullopt;
        }
    }
    const std::string unit = line.substr(at, colon - at);
    const std::string message = closeAtEnd + 2 <= line.size() ? line.substr(closeAtEnd + 2) : "";
    return Record{severity, unit, message};
}

}  // namespace

RunResult RunInPty(const RunOptions& options)
{
    RunResult result;

    std::vector<std::string> argStrings{options.program};
    argStrings.insert(argStrings.end(), options.args.begin(), options.args.end());
    std::vector<std::string> envStrings = BuildEnvironment(options);
    std::vector<char*> argv = PointerArray(argStrings);
    std::vector<char*> envp = PointerArray(envStrings);

    int errorPipe[2];
    if (pipe2(errorPipe, O_CLOEXEC) != 0) {
        result.errors = "PtyRunner: pipe failed";
        return result;
    }

    int master = -1;
    const pid_t pid = forkpty(&master, nullptr, nullptr, nullptr);
    if (pid < 0) {
        close(errorPipe[0]);
        close(errorPipe[1]);
        result.errors = "PtyRunner: forkpty failed";
        return result;
    }
    if (pid == 0) {
        close(errorPipe[0]);
        RunChild(options, errorPipe[1], argv.data(), envp.data());
    }
    close(errorPipe[1]);
    const int errorRead = errorPipe[0];
    SetNonBlocking(master);
    SetNonBlocking(errorRead);
    fcntl(master, F_SETFD, FD_CLOEXEC);

    const auto deadline = Clock::now() + std::chrono::seconds(options.timeoutSeconds);
    std::string combined;          // both streams in arrival order
    size_t searchFrom = 0;         // in the carriage-return-free form of `combined`
    size_t nextExchange = 0;
    bool terminalOpen = true;
    bool errorsOpen = true;
    bool exited = false;
    int waitStatus = 0;
    bool endOfInputDue = false;
    auto lastActivity = Clock::now();
    auto lastEndOfInput = Clock::time_point{};

    auto advanceExchanges = [&]() {
        const std::string seen = WithoutCarriageReturns(combined);
        while (nextExchange < options.exchanges.size()) {
            const Exchange& step = options.exchanges[nextExchange];
            const std::string wanted = WithoutCarriageReturns(step.waitFor);
            const size_t at = seen.find(wanted, searchFrom);
            if (at == std::string::npos) {
                return;
            }
            searchFrom = at + wanted.size();
            if (terminalOpen && !step.send.empty()) {
                WriteAll(master, step.send);
            }
            ++nextExchange;
        }
        if (options.closeInputAtEnd && !endOfInputDue) {
            endOfInputDue = true;
        }
    };

    advanceExchanges();
    while (terminalOpen || errorsOpen || !exited) {
        if (Clock::now() >= deadline) {
            result.timedOut = true;
            kill(-pid, SIGKILL);
            kill(pid, SIGKILL);
            break;
        }
        if (endOfInputDue && terminalOpen && !exited &&
            (lastEndOfInput == Clock::time_point{} ||
             (Clock::now() - lastActivity >= END_OF_INPUT_REPEAT &&
              Clock::now() - lastEndOfInput >= END_OF_INPUT_REPEAT))) {
            WriteAll(master, std::string(1, END_OF_INPUT));
            lastEndOfInput = Clock::now();
        }

        pollfd fds[2];
        nfds_t count = 0;
        if (terminalOpen) {
            fds[count++] = {master, POLLIN, 0};
        }
        if (errorsOpen) {
            fds[count++] = {errorRead, POLLIN, 0};
        }
        if (count > 0) {
            poll(fds, count, POLL_SLICE_MS);
        } else {
            poll(nullptr, 0, POLL_SLICE_MS);
        }

        const size_t before = combined.size();
        if (terminalOpen && !Drain(master, result.terminal, combined)) {
            terminalOpen = false;
        }
        if (errorsOpen && !Drain(errorRead, result.errors, combined)) {
            errorsOpen = false;
        }
        if (combined.size() != before) {
            lastActivity = Clock::now();
            advanceExchanges();
        }
        if (!exited) {
            const pid_t done = waitpid(pid, &waitStatus, WNOHANG);
            if (done == pid) {
                exited = true;
            }
        }
        // A descendant may keep the streams open after the program ended;
        // give them a short grace period, then stop reading.
        if (exited && (terminalOpen || errorsOpen) && Clock::now() - lastActivity > std::chrono::seconds(2)) {
            break;
        }
    }

    if (!exited) {
        waitpid(pid, &waitStatus, 0);
    }
    close(master);
    close(errorRead);

    if (!result.timedOut && WIFEXITED(waitStatus)) {
        result.exitStatus = WEXITSTATUS(waitStatus);
    }
    if (nextExchange < options.exchanges.size()) {
        result.unmetWaitFor = options.exchanges[nextExchange].waitFor;
    }
    return result;
}

std::vector<Record> ParseRecords(const std::string& text)
{
    std::vector<Record> records;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) {
            end = text.size();
        }
        std::string line = text.substr(start, end - start);
        while (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        if (auto record = ParseRecordLine(line)) {
            records.push_back(std::move(*record));
        }
        start = end + 1;
    }
    return records;
}

std::vector<std::string> RecordMessages(const std::string& text)
{
    std::vector<std::string> messages;
    for (auto& record : ParseRecords(text)) {
        messages.push_back(std::move(record.message));
    }
    return messages;
}

}  // namespace VardoTest
