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

#include <sys/types.h>

#include <functional>
#include <string>

namespace VardoTest {

struct TestUser {
    std::string name;
    uid_t uid;
    gid_t gid;
};

// The account, made on first use; throws std::runtime_error (the test fails)
// when it can be neither found nor made.
const TestUser& UnprivilegedUser();

// Runs `body` in a forked child, as `user` when one is given. Returns what
// `body` returned (0..255), 254 when the child could not become `user`, -1
// when it did not exit normally.
int RunInChild(const std::function<int()>& body, const TestUser* user = nullptr);
inline int RunAsUnprivileged(const std::function<int()>& body) { return RunInChild(body, &UnprivilegedUser()); }

}  // namespace VardoTest

#endif  // VARDO_TEST_SUPPORT_TEST_USER_H
