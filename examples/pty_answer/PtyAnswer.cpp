// vardo-pty-answer: runs a program on a pseudo-terminal and types answers
// for it, each only once the program has shown what it waits on. The demo
// uses it to run an import without a person at the keyboard: the pass phrase
// is read from the terminal (getpass), which discards anything typed before
// the prompt, so answers cannot simply be piped in.
//
//   vardo-pty-answer [--pause MS] [--expect TEXT --send TEXT]... -- PROGRAM [ARG]...
//
// Everything the program writes (standard output and error) is shown as it
// comes. In TEXT, "\n" stands for a line feed. A send that contains the
// pass phrase is echoed by nobody: the terminal's echo is off at the prompt.
// Each answer is typed MS milliseconds (default 100) after its text appeared,
// a margin for a program that changes the terminal after its prompt. 0 types
// at once: safe with getpass, which turns echo off and discards pending input
// before it shows the prompt, and what scripts/bench.sh uses so that a timed
// import holds no idle wait.
// Exits with the program's exit status (1 when an expected text never came).
#include <poll.h>
#include <signal.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

struct Step {
    std::string expect;
    std::string send;
};

std::string Unescape(const std::string& text)
{
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\\' && i + 1 < text.size() && text[i + 1] == 'n') {
            out += '\n';
            ++i;
        } else {
            out += text[i];
        }
    }
    return out;
}

int Usage()
{
    std::fprintf(stderr, "usage: vardo-pty-answer [--pause MS] [--expect TEXT --send TEXT]... -- PROGRAM [ARG]...\n");
    return 2;
}

}  // namespace

int main(int argc, char* argv[])
{
    std::vector<Step> steps;
    long pauseMs = 100;
    int i = 1;
    for (; i < argc && std::strcmp(argv[i], "--") != 0; i += 2) {
        if (i + 1 >= argc) {
            return Usage();
        }
        if (std::strcmp(argv[i], "--pause") == 0) {
            char* end = nullptr;
            pauseMs = std::strtol(argv[i + 1], &end, 10);
            if (end == argv[i + 1] || *end != '\0' || pauseMs < 0 || pauseMs > 10000) {
                return Usage();
            }
        } else if (std::strcmp(argv[i], "--expect") == 0) {
            steps.push_back({Unescape(argv[i + 1]), ""});
        } else if (std::strcmp(argv[i], "--send") == 0 && !steps.empty()) {
            steps.back().send = Unescape(argv[i + 1]);
        } else {
            return Usage();
        }
    }
    if (i + 1 >= argc) {
        return Usage();
    }
    char** program = argv + i + 1;

    int master = -1;
    const pid_t child = forkpty(&master, nullptr, nullptr, nullptr);
    if (child < 0) {
        std::perror("vardo-pty-answer: forkpty");
        return 1;
    }
    if (child == 0) {
        execvp(program[0], program);
        std::perror("vardo-pty-answer: exec");
        _exit(127);
    }

    // Watch everything after the previous match; a few seconds' grace per step.
    std::string seen;
    size_t step = 0;
    size_t searchFrom = 0;
    const auto limit = std::chrono::seconds(120);
    const auto start = std::chrono::steady_clock::now();
    for (;;) {
        pollfd entry{master, POLLIN, 0};
        const int ready = poll(&entry, 1, 200);
        if (ready > 0) {
            char buffer[4096];
            const ssize_t count = read(master, buffer, sizeof(buffer));
            if (count <= 0) {
                break;  // the program closed the terminal: it has ended
            }
            std::fwrite(buffer, 1, static_cast<size_t>(count), stdout);
            std::fflush(stdout);
            seen.append(buffer, static_cast<size_t>(count));
        }
        while (step < steps.size()) {
            const size_t at = seen.find(steps[step].expect, searchFrom);
            if (at == std::string::npos) {
                break;
            }
            searchFrom = at + steps[step].expect.size();
            // Give the program a moment to switch the terminal, unless told not to.
            if (pauseMs > 0) {
                usleep(static_cast<useconds_t>(pauseMs) * 1000);
            }
            const std::string& send = steps[step].send;
            if (write(master, send.data(), send.size()) != static_cast<ssize_t>(send.size())) {
                break;
            }
            ++step;
        }
        if (std::chrono::steady_clock::now() - start > limit) {
            std::fprintf(stderr, "\nvardo-pty-answer: the program took too long; stopping it\n");
            kill(child, SIGKILL);
            break;
        }
    }
    close(master);
    int status = 0;
    waitpid(child, &status, 0);
    if (step < steps.size()) {
        std::fprintf(stderr, "vardo-pty-answer: never saw \"%s\"\n", steps[step].expect.c_str());
        return 1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}
