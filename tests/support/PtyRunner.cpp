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
#include <cstdlib>
#include <cstring>

namespace VardoTest {
namespace {

using Clock = std::chrono::steady_clock;
constexpr auto END_OF_INPUT_REPEAT = std::chrono::milliseconds(400);
constexpr auto GRACE_AFTER_EXIT = std::chrono::seconds(2);

// A file size limit (RLIMIT_FSIZE) for this process and what it runs.
int SetFileSizeLimit(rlim_t bytes)
{
    const rlimit limit{bytes, bytes};
    return setrlimit(RLIMIT_FSIZE, &limit);
}

// Sets the child up as `options` say and runs the program; on failure it says why on stderr.
[[noreturn]] void RunChild(const RunOptions& options, int errorWriteEnd, char* const* argv)
{
    const TestUser* user = options.user;
    const int devNull = options.stdinFromDevNull ? open("/dev/null", O_RDONLY) : STDIN_FILENO;
    const char* failed = dup2(errorWriteEnd, STDERR_FILENO) < 0 ? "standard error"
                         : devNull < 0 || dup2(devNull, STDIN_FILENO) < 0 ? "/dev/null as standard input"
                         : user != nullptr && (setgroups(0, nullptr) != 0 || setgid(user->gid) != 0 ||
                                               setuid(user->uid) != 0)
                             ? "dropping privileges"
                         : !options.workingDirectory.empty() && chdir(options.workingDirectory.c_str()) != 0
                             ? "changing to the working directory"
                         : options.fileSizeLimit && SetFileSizeLimit(*options.fileSizeLimit) != 0
                             ? "setting the file size limit"
                             : nullptr;
    if (failed == nullptr) {
        if (options.ignoreFileSizeSignal) {
            signal(SIGXFSZ, SIG_IGN);  // stays ignored across exec
        }
        for (const auto& [name, value] : options.setEnv) {
            setenv(name.c_str(), value.c_str(), 1);
        }
        execv(options.program.c_str(), argv);
        failed = "exec";
    }
    const std::string text = std::string("PtyRunner: ") + failed + ": " + std::strerror(errno) + "\n";
    (void)!write(STDERR_FILENO, text.data(), text.size());
    _exit(127);
}

// Appends what is available, without carriage returns; false once the source is
// finished (EOF, or EIO on the terminal after the program's side was closed).
bool Drain(int fd, std::string& into, std::string& combined)
{
    char buffer[4096];
    for (;;) {
        const ssize_t n = read(fd, buffer, sizeof(buffer));
        if (n > 0) {
            std::string text(buffer, static_cast<size_t>(n));
            text.erase(std::remove(text.begin(), text.end(), '\r'), text.end());
            into += text;
            combined += text;
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
    std::vector<char*> argv;
    for (auto& s : argStrings) {
        argv.push_back(s.data());
    }
    argv.push_back(nullptr);

    int errorPipe[2];
    int master = -1;
    const pid_t pid = pipe2(errorPipe, O_CLOEXEC) == 0 ? forkpty(&master, nullptr, nullptr, nullptr) : -2;
    if (pid == 0) {
        RunChild(options, errorPipe[1], argv.data());
    }
    if (pid != -2) {
        close(errorPipe[1]);
    }
    const int errorRead = errorPipe[0];
    if (pid < 0) {
        result.errors = "PtyRunner: pipe or forkpty failed";
        return result;
    }
    fcntl(master, F_SETFL, fcntl(master, F_GETFL) | O_NONBLOCK);
    fcntl(master, F_SETFD, FD_CLOEXEC);
    fcntl(errorRead, F_SETFL, fcntl(errorRead, F_GETFL) | O_NONBLOCK);

    const auto deadline = Clock::now() + std::chrono::seconds(options.timeoutSeconds);
    std::string combined;  // both streams in arrival order
    size_t searchFrom = 0;
    size_t nextExchange = 0;
    bool terminalOpen = true, errorsOpen = true, exited = false;
    int waitStatus = 0;
    auto lastActivity = Clock::now();
    auto lastEndOfInput = Clock::time_point{};

    auto advanceExchanges = [&]() {
        for (; nextExchange < options.exchanges.size(); ++nextExchange) {
            const Exchange& step = options.exchanges[nextExchange];
            const size_t at = combined.find(step.waitFor, searchFrom);
            if (at == std::string::npos) {
                return;
            }
            searchFrom = at + step.waitFor.size();
            if (step.action) {
                step.action(combined);
            }
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
        // Once both streams have closed only the exit is left to see: look
        // for it often, or every run would seem up to a poll period longer.
        int waitMs = terminalOpen || errorsOpen ? 50 : 1;
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

}  // namespace VardoTest
