// Runs a program with a pseudo-terminal as controlling terminal, standard input
// and output (getpass opens /dev/tty), standard error on a pipe of its own.
// An answer is typed only once its prompt was seen: getpass throws typed-ahead
// input away when it switches echo off and again when it restores the terminal.
#include "PtyRunner.h"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <pty.h>
#include <sys/resource.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <cstdio>
#include <sstream>

extern char** environ;

namespace VardoTest {
namespace {

using Clock = std::chrono::steady_clock;
constexpr auto END_OF_INPUT_REPEAT = std::chrono::milliseconds(400);
constexpr auto GRACE_AFTER_EXIT = std::chrono::seconds(2);

std::string WithoutCarriageReturns(std::string text)
{
    text.erase(std::remove(text.begin(), text.end(), '\r'), text.end());
    return text;
}

[[noreturn]] void ChildFail(const char* what)
{
    const std::string text = std::string("PtyRunner: ") + what + ": " + std::strerror(errno) + "\n";
    (void)!write(STDERR_FILENO, text.data(), text.size());
    _exit(127);
}

[[noreturn]] void RunChild(const RunOptions& options, int errorWriteEnd, char* const* argv, char* const* envp)
{
    if (dup2(errorWriteEnd, STDERR_FILENO) < 0) {
        _exit(127);
    }
    close(errorWriteEnd);
    if (options.stdinFromDevNull) {
        const int devNull = open("/dev/null", O_RDONLY);
        if (devNull < 0 || dup2(devNull, STDIN_FILENO) < 0) {
            ChildFail("/dev/null as standard input");
        }
        close(devNull);
    }
    if (options.runAsUid) {
        const gid_t gid = options.runAsGid.value_or(static_cast<gid_t>(*options.runAsUid));
        if (setgroups(0, nullptr) != 0 || setgid(gid) != 0 || setuid(*options.runAsUid) != 0) {
            ChildFail("dropping privileges");
        }
    }
    if (!options.workingDirectory.empty() && chdir(options.workingDirectory.c_str()) != 0) {
        ChildFail("changing to the working directory");
    }
    if (options.ignoreFileSizeSignal) {
        signal(SIGXFSZ, SIG_IGN);  // stays ignored across exec
    }
    if (options.fileSizeLimit) {
        const rlimit limit{*options.fileSizeLimit, *options.fileSizeLimit};
        if (setrlimit(RLIMIT_FSIZE, &limit) != 0) {
            ChildFail("setting the file size limit");
        }
    }
    execve(options.program.c_str(), argv, envp);
    ChildFail("exec");
}

// Appends what is available; false once the source is finished (EOF, or EIO on
// the terminal after the program's side was closed).
bool Drain(int fd, std::string& into, std::string& combined)
{
    char buffer[4096];
    for (;;) {
        const ssize_t n = read(fd, buffer, sizeof(buffer));
        if (n > 0) {
            into.append(buffer, static_cast<size_t>(n));
            combined.append(buffer, static_cast<size_t>(n));
        } else if (n < 0 && errno == EINTR) {
            continue;
        } else {
            return n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
        }
    }
}

void WriteAll(int fd, const std::string& text)
{
    for (size_t done = 0; done < text.size();) {
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

}  // namespace

RunResult RunInPty(const RunOptions& options)
{
    RunResult result;
    std::vector<std::string> argStrings{options.program};
    argStrings.insert(argStrings.end(), options.args.begin(), options.args.end());
    std::vector<std::string> envStrings;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        envStrings.emplace_back(*entry);
    }
    for (const auto& [name, value] : options.setEnv) {
        const auto same = [&name](const std::string& entry) { return entry.rfind(name + "=", 0) == 0; };
        envStrings.erase(std::remove_if(envStrings.begin(), envStrings.end(), same), envStrings.end());
        envStrings.push_back(name + "=" + value);
    }
    std::vector<char*> argv, envp;
    for (auto& s : argStrings) {
        argv.push_back(s.data());
    }
    for (auto& s : envStrings) {
        envp.push_back(s.data());
    }
    argv.push_back(nullptr);
    envp.push_back(nullptr);

    int errorPipe[2];
    int master = -1;
    if (pipe2(errorPipe, O_CLOEXEC) != 0) {
        result.errors = "PtyRunner: pipe failed";
        return result;
    }
    const pid_t pid = forkpty(&master, nullptr, nullptr, nullptr);
    if (pid == 0) {
        RunChild(options, errorPipe[1], argv.data(), envp.data());
    }
    close(errorPipe[1]);
    const int errorRead = errorPipe[0];
    if (pid < 0) {
        close(errorRead);
        result.errors = "PtyRunner: forkpty failed";
        return result;
    }
    fcntl(master, F_SETFL, fcntl(master, F_GETFL) | O_NONBLOCK);
    fcntl(master, F_SETFD, FD_CLOEXEC);
    fcntl(errorRead, F_SETFL, fcntl(errorRead, F_GETFL) | O_NONBLOCK);

    const auto deadline = Clock::now() + std::chrono::seconds(options.timeoutSeconds);
    std::string combined;  // both streams in arrival order
    size_t searchFrom = 0;  // in the carriage-return-free form of `combined`
    size_t nextExchange = 0;
    bool terminalOpen = true, errorsOpen = true, exited = false;
    int waitStatus = 0;
    auto lastActivity = Clock::now();
    auto lastEndOfInput = Clock::time_point{};

    auto advanceExchanges = [&]() {
        const std::string seen = WithoutCarriageReturns(combined);
        for (; nextExchange < options.exchanges.size(); ++nextExchange) {
            const Exchange& step = options.exchanges[nextExchange];
            const std::string wanted = WithoutCarriageReturns(step.waitFor);
            const size_t at = seen.find(wanted, searchFrom);
            if (at == std::string::npos) {
                return;
            }
            searchFrom = at + wanted.size();
            if (terminalOpen) {
                WriteAll(master, step.send);
            }
        }
    };

    advanceExchanges();
    std::optional<Clock::time_point> killAt;
    while (terminalOpen || errorsOpen || !exited) {
        const auto now = Clock::now();
        if (options.killAfterMicroseconds && !killAt && nextExchange == options.exchanges.size()) {
            killAt = now + std::chrono::microseconds(*options.killAfterMicroseconds);
        }
        if (killAt && now >= *killAt && !exited) {
            kill(-pid, SIGKILL);
            kill(pid, SIGKILL);
            killAt = Clock::time_point::max();
        }
        if (now >= deadline) {
            result.timedOut = true;
            kill(-pid, SIGKILL);  // the whole session, the program's children too
            kill(pid, SIGKILL);
            break;
        }
        // ^D once the exchanges are done, again after each pause in the output:
        // a terminal flush in the program may have thrown the earlier one away.
        if (options.closeInputAtEnd && nextExchange == options.exchanges.size() && terminalOpen && !exited &&
            (lastEndOfInput == Clock::time_point{} ||
             (now - lastActivity >= END_OF_INPUT_REPEAT && now - lastEndOfInput >= END_OF_INPUT_REPEAT))) {
            WriteAll(master, "\x04");
            lastEndOfInput = now;
        }
        pollfd fds[2] = {{terminalOpen ? master : -1, POLLIN, 0}, {errorsOpen ? errorRead : -1, POLLIN, 0}};
        int waitMs = 50;
        if (killAt && *killAt != Clock::time_point::max()) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(*killAt - now).count();
            waitMs = static_cast<int>(std::max<long long>(0, std::min<long long>(waitMs, left)));
        }
        poll(fds, 2, waitMs);

        const size_t before = combined.size();
        terminalOpen = terminalOpen && Drain(master, result.terminal, combined);
        errorsOpen = errorsOpen && Drain(errorRead, result.errors, combined);
        if (combined.size() != before) {
            lastActivity = Clock::now();
            advanceExchanges();
        }
        exited = exited || waitpid(pid, &waitStatus, WNOHANG) == pid;
        // A descendant may hold the streams open after the program ended.
        if (exited && Clock::now() - lastActivity > GRACE_AFTER_EXIT) {
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
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        line = WithoutCarriageReturns(line);
        // <L><[yyyy]mmdd> <hh:mm:ss.uuuuuu> <thread> <unit>:<line>] <message>
        char severity = 0;
        char date[9];
        int hour, minute, second, micros, head = -1;
        long thread;
        if (std::sscanf(line.c_str(), "%c%8[0-9] %2d:%2d:%2d.%6d %ld %n", &severity, date, &hour, &minute, &second,
                        &micros, &thread, &head) != 7 || head < 0 || std::strchr("IWEF", severity) == nullptr) {
            continue;
        }
        const size_t close = line.find(']', static_cast<size_t>(head));
        const size_t colon = line.rfind(':', close);
        if (close == std::string::npos || colon == std::string::npos || colon < static_cast<size_t>(head) ||
            colon + 1 == close || line.find_first_not_of("0123456789", colon + 1) != close) {
            continue;
        }
        const std::string message = close + 2 <= line.size() ? line.substr(close + 2) : "";
        records.push_back({severity, line.substr(head, colon - head), message});
    }
    return records;
}

}  // namespace VardoTest
