// The one unprivileged account of the test suites, and running code as it.
// These machines run the suites as root, and root passes every permission
// check, so a test whose point is a refusal runs the code as this account.
//
// The account, "vardotest", is made with useradd the first time a test needs
// it and then reused by every later run; it is never removed. Suites of
// several build trees (and the mutation check) may run at once on one machine,
// and an account removed at the end of one run would vanish under another.
#ifndef VARDO_TEST_SUPPORT_TEST_USER_H
#define VARDO_TEST_SUPPORT_TEST_USER_H

#include <grp.h>
#include <pwd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <stdexcept>
#include <string>

namespace VardoTest {

struct TestUser {
    std::string name;
    uid_t uid;
    gid_t gid;
};

// The account, made on first use; throws std::runtime_error (the test fails)
// when it can be neither found nor made.
inline const TestUser& UnprivilegedUser()
{
    static const TestUser user = [] {
        // Several test programs may ask at once: useradd then refuses the second
        // creation or is briefly locked, so look again after each try.
        for (int attempt = 0; attempt < 6; ++attempt) {
            if (const passwd* found = getpwnam("vardotest"); found != nullptr && found->pw_uid != 0) {
                return TestUser{found->pw_name, found->pw_uid, found->pw_gid};
            }
            if (std::system("useradd --system --no-create-home --shell /usr/sbin/nologin vardotest >/dev/null 2>&1")) {
                usleep(200 * 1000);
            }
        }
        throw std::runtime_error("no unprivileged test account vardotest (the suites run as root)");
    }();
    return user;
}

// Runs `body` in a forked child, as `user` when one is given. Returns what
// `body` returned (0..255), 254 when the child could not become `user`, -1
// when it did not exit normally.
inline int RunInChild(const std::function<int()>& body, const TestUser* user = nullptr)
{
    const pid_t child = fork();
    if (child == 0) {
        if (user != nullptr && (setgroups(0, nullptr) != 0 || setgid(user->gid) != 0 || setuid(user->uid) != 0)) {
            _exit(254);
        }
        _exit(body() & 0xff);
    }
    int status = 0;
    return child > 0 && waitpid(child, &status, 0) == child && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

inline int RunAsUnprivileged(const std::function<int()>& body) { return RunInChild(body, &UnprivilegedUser()); }

}  // namespace VardoTest

#endif  // VARDO_TEST_SUPPORT_TEST_USER_H
