// Semaphore sets that killed runs left in the key range: which ones the
// engine start reclaims, and which key it then takes. Real System V sets in
// an IPC namespace of the test's own.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <string>
#include <vector>

#include "InProcess.h"
#include "SecurityService.h"

namespace {

constexpr key_t FIRST_KEY = 0x20161111;
const bool OWN_IPC_NAMESPACE = unshare(CLONE_NEWIPC) == 0;

enum class Maker { DEAD_OWN, LIVE_OWN, NEVER_SET_UP, DEAD_OTHER_USER };

// A new set at `key`; setting it up (SETVAL) records the maker's pid in it. 0 on success.
int MakeSet(key_t key, bool setUp)
{
    const int id = semget(key, 1, IPC_CREAT | IPC_EXCL | 0666);
    return id != -1 && (!setUp || semctl(id, 0, SETVAL, 1) == 0) ? 0 : 1;
}

void Plant(key_t key, Maker maker)
{
    if (maker == Maker::LIVE_OWN || maker == Maker::NEVER_SET_UP) {
        ASSERT_EQ(MakeSet(key, maker == Maker::LIVE_OWN), 0);
    } else if (maker == Maker::DEAD_OTHER_USER) {
        ASSERT_EQ(VardoTest::RunAsUnprivileged([key] { return MakeSet(key, true); }), 0);
    } else {
        const pid_t child = fork();
        if (child == 0) {
            _exit(MakeSet(key, true));
        }
        int status = -1;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_EQ(status, 0);
    }
}

TEST(StaleSemaphores, ReclaimedOnlyWhenOwnAndDead)
{
    if (!OWN_IPC_NAMESPACE) {
        GTEST_SKIP() << "needs an IPC namespace of its own";
    }
    const struct {
        const char* name;
        std::map<int, Maker> sets;  // offset in the range -> who made it
        int chosen;
        std::vector<int> left;
    } cases[] = {
        {"a dead run's set is taken", {{0, Maker::DEAD_OWN}}, 0, {}},
        {"every dead set up to the first free key goes, the first is taken",
         {{0, Maker::DEAD_OWN}, {1, Maker::DEAD_OWN}, {2, Maker::LIVE_OWN}, {3, Maker::DEAD_OWN}}, 0, {2}},
        {"live, never set up, and another user's sets stay",
         {{0, Maker::LIVE_OWN}, {1, Maker::NEVER_SET_UP}, {2, Maker::DEAD_OTHER_USER}}, 3, {0, 1, 2}},
        {"a dead set after a live one", {{0, Maker::LIVE_OWN}, {1, Maker::DEAD_OWN}}, 1, {0}},
        {"beyond the first free key nothing is looked at", {{1, Maker::DEAD_OWN}}, 0, {1}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        for (const auto& [offset, maker] : c.sets) {
            Plant(FIRST_KEY + offset, maker);
        }
        VardoTest::RecordCapture records;
        TagVardoConfig record{};  // refused by the engine, which then makes no set: only the key remains
        record.semPermission = 0660;
        (void)SeInitialize(&record);
        EXPECT_EQ(record.semKey - FIRST_KEY, c.chosen);
        std::vector<int> left;
        size_t reclaimed = 0;
        for (const auto& [offset, maker] : c.sets) {
            const int id = semget(FIRST_KEY + offset, 1, 0);
            if (id != -1) {
                left.push_back(offset);
                semctl(id, 0, IPC_RMID);
            }
        }
        for (const std::string& message : records.Messages('I')) {
            reclaimed += message.rfind("Removed the semaphore set of key 0x2016111", 0) == 0;
        }
        EXPECT_EQ(left, c.left);
        EXPECT_EQ(reclaimed, c.sets.size() - c.left.size());
    }
}

}  // namespace
