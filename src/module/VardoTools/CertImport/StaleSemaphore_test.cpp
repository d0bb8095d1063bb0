// Semaphore sets that killed runs left in the key range: which ones the
// engine start reclaims, and which key it then takes. Real System V sets in
// an IPC namespace of the test's own.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/sem.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <vector>

#include "Records.h"
#include "Scratch.h"
#include "TestUser.h"
#include "SecurityService.h"

namespace {

constexpr key_t FIRST_KEY = 0x20161111;
const bool OWN_IPC_NAMESPACE = unshare(CLONE_NEWIPC) == 0;

enum Maker { DEAD_OWN, LIVE_OWN, NEVER_SET_UP, DEAD_OTHER_USER };

// A new set at `key`; setting it up (SETVAL) records the maker's pid. 0 on success.
int MakeSet(key_t key, bool setUp)
{
    const int id = semget(key, 1, IPC_CREAT | IPC_EXCL | 0666);
    return id != -1 && (!setUp || semctl(id, 0, SETVAL, 1) == 0) ? 0 : 1;
}

int Plant(key_t key, Maker maker)
{
    if (maker == LIVE_OWN || maker == NEVER_SET_UP) {
        return MakeSet(key, maker == LIVE_OWN);
    }
    if (maker == DEAD_OTHER_USER) {
        return VardoTest::RunAsUnprivileged([key] { return MakeSet(key, true); });
    }
    const pid_t child = fork();
    if (child == 0) {
        _exit(MakeSet(key, true));
    }
    int status = -1;
    return waitpid(child, &status, 0) == child ? status : -1;
}

TEST(StaleSemaphores, ReclaimedOnlyWhenOwnAndDead)
{
    if (!OWN_IPC_NAMESPACE) {
        GTEST_SKIP() << "needs an IPC namespace of its own";
    }
    const struct {
        std::map<int, Maker> sets;  // offset in the range -> who made it
        int chosen;
        std::vector<int> left;
    } cases[] = {
        {{{0, DEAD_OWN}, {1, DEAD_OWN}, {2, LIVE_OWN}, {3, DEAD_OWN}}, 0, {2}},  // all dead ones up to a free key
        {{{0, LIVE_OWN}, {1, NEVER_SET_UP}, {2, DEAD_OTHER_USER}}, 3, {0, 1, 2}},
        {{{0, LIVE_OWN}, {1, DEAD_OWN}}, 1, {0}},
        {{{1, DEAD_OWN}}, 0, {1}},  // nothing beyond the first free key is looked at
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        for (const auto& [offset, maker] : c.sets) {
            ASSERT_EQ(Plant(FIRST_KEY + offset, maker), 0);
        }
        VardoTest::RecordCapture records;
        TagVardoConfig record{};  // refused by the engine, which then makes no set: only the key remains
        record.semPermission = 0660;
        (void)SeInitialize(&record);
        EXPECT_EQ(record.semKey - FIRST_KEY, c.chosen);
        std::vector<int> left;
        for (const auto& [offset, maker] : c.sets) {
            const int id = semget(FIRST_KEY + offset, 1, 0);
            if (id != -1 && semctl(id, 0, IPC_RMID) == 0) {
                left.push_back(offset);
            }
        }
        EXPECT_EQ(left, c.left);
        EXPECT_EQ(records.Tagged('I').size(), c.sets.size() - c.left.size()) << "one record per set removed";
    }
}

}  // namespace
