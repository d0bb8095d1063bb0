#include "TestUser.h"

#include <grp.h>
#include <pwd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>

namespace VardoTest {

const TestUser& UnprivilegedUser()
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

int RunInChild(const std::function<int()>& body, const TestUser* user)
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

}  // namespace VardoTest
