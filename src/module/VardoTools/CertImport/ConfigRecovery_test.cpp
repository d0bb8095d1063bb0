// The recovery copy: what it keeps of a configuration (never a server_key_mm
// value), and when a configuration counts as complete against it.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "ConfigRecovery.h"
#include "Records.h"
#include "Scratch.h"
#include "TestUser.h"
#include "TestTree.h"

namespace {

using OvraStream::RecoveryState;

TEST(ConfigRecoveryTest, CopyAndCompleteness)
{
    const VardoTest::ScratchDir dir;
    const std::string config = dir / "streamserver.conf", copy = config + ".recovery";
    VardoTest::WriteWholeFile(config, "a=1\nserver_key_mm=OLD # c\n  server_key_mm = OLD2\n#server_key_mm=X\n"
                                      "server_crt=/in/s.crt\ncrl=/x\n", 0600);
    ASSERT_EQ(OvraStream::WriteRecoveryCopy(config), 0);
    const std::string kept = "a=1\nserver_key_mm=\n  server_key_mm =\n#server_key_mm=X\nserver_crt=/in/s.crt\ncrl=/x\n";
    EXPECT_EQ(VardoTest::ReadWholeFile(copy), kept);
    EXPECT_EQ(VardoTest::FileMode(copy), 0600);

    const struct {
        std::string config;
        RecoveryState state;
    } cases[] = {
        {kept, RecoveryState::COMPLETE},
        {"a=1\nserver_key_mm=NEW\n  server_key_mm = OLD2\n#server_key_mm=X\nserver_crt=./keys/server.crt\n"
         "crl=./keys/ca.crl\n",
         RecoveryState::COMPLETE},
        {"a=1\nserver_key_mm=\n  server_key_mm =\n#server_key_mm=X\nserver_crt=/in/s.crt\ncrl=\n",
         RecoveryState::COMPLETE},
        {"a=1\nserver_key_mm=NEW\n  server_key_mm =\n#server_key_mm=X\nserver_crt=./keys/server.crt\ncrl=/x",
         RecoveryState::INCOMPLETE},  // cut before the last line feed
        {"", RecoveryState::INCOMPLETE},
        {"a=2\nserver_key_mm=\n  server_key_mm =\n#server_key_mm=X\nserver_crt=/in/s.crt\ncrl=/x\n",
         RecoveryState::INCOMPLETE},
        {"a=1\nserver_key_mm=\n  server_key_mm =\n#server_key_mm=Y\nserver_crt=/in/s.crt\ncrl=/x\n",
         RecoveryState::INCOMPLETE},
        {"a=1\nserver_key_mm=\n  server_key_mm =\n#server_key_mm=X\nserver_crt=/elsewhere\ncrl=/x\n",
         RecoveryState::INCOMPLETE},
        {"a=1\nserver_k\n  server_key_mm =\n#server_key_mm=X\nserver_crt=/in/s.crt\ncrl=/x\n",
         RecoveryState::INCOMPLETE},  // a setting cut short
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.config);
        VardoTest::WriteWholeFile(config, c.config, 0600);
        EXPECT_EQ(OvraStream::InspectRecoveryCopy(config), c.state);
    }
    // Without an "=" before any "#" a line is no setting: the copy keeps it whole.
    VardoTest::WriteWholeFile(config, "server_key_mm # kept=1\nserver_key_mm\n", 0600);
    ASSERT_EQ(OvraStream::WriteRecoveryCopy(config), 0);
    EXPECT_EQ(VardoTest::ReadWholeFile(copy), "server_key_mm # kept=1\nserver_key_mm\n");
    // A copy that cannot be trusted is not used; none at all is nothing to do.
    chmod(copy.c_str(), 0640);
    EXPECT_EQ(OvraStream::InspectRecoveryCopy(config), RecoveryState::UNUSABLE);
    unlink(copy.c_str());
    EXPECT_EQ(OvraStream::InspectRecoveryCopy(config), RecoveryState::NO_COPY);
    ASSERT_EQ(symlink(config.c_str(), copy.c_str()), 0);
    EXPECT_EQ(OvraStream::InspectRecoveryCopy(config), RecoveryState::UNUSABLE);
}

}  // namespace
