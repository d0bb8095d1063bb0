// File checks and owner-only file operations: kinds, links at destinations,
// replaced read-only copies, and ownership and permission rules as an unprivileged user.
#include <gtest/gtest.h>

#include <limits.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include <string>
#include <vector>

#include "BaseTestSupport.h"
#include "OvraBase/FileUtils.h"
#include "OvraBase/MemoryHelper.h"

namespace {

using BaseTest::Mode;
using BaseTest::ReadFile;
using BaseTest::ScratchDir;
using BaseTest::WriteFile;
using OvraBase::FileUtils;

// A scratch tree with an entry of every kind the checks must tell apart.
class FileKinds : public ::testing::Test {
protected:
    void SetUp() override
    {
        WriteFile(dir_ / "file", "bytes");
        WriteFile(dir_ / "readonly", "bytes", 0400);
        WriteFile(dir_ / "writeonly", "bytes", 0200);
        WriteFile(dir_ / "source", "fresh");
        ASSERT_EQ(0, symlink((dir_ / "file").c_str(), (dir_ / "link").c_str()));
        ASSERT_EQ(0, symlink((dir_ / "missing").c_str(), (dir_ / "dangling").c_str()));
        ASSERT_EQ(0, mkdir((dir_ / "dir").c_str(), 0700));
        ASSERT_EQ(0, symlink((dir_ / "dir").c_str(), (dir_ / "dirlink").c_str()));
        ASSERT_EQ(0, mkfifo((dir_ / "fifo").c_str(), 0600));
        WriteFile(dir_ / "big", "");
        ASSERT_EQ(0, truncate((dir_ / "big").c_str(), FileUtils::MAX_FILE_SIZE + 1));
    }
    ScratchDir dir_;
};

TEST_F(FileKinds, ChecksTellTheKindsApart)
{
    const struct {
        const char* name;
        bool valid, validChecked, symlink, exists, directory;
    } rows[] = {
        {"file", true, true, false, true, false},      {"writeonly", true, false, false, true, false},
        {"link", true, false, true, true, false},      {"dangling", false, false, true, true, false},
        {"missing", false, false, false, false, false}, {"dir", false, false, false, true, true},
        {"dirlink", false, false, true, true, false},  {"fifo", false, false, false, true, false},
        {"big", false, false, false, true, false},
    };
    for (const auto& row : rows) {
        const std::string path = dir_ / row.name;
        EXPECT_EQ(row.valid, FileUtils::IsFileValid(path, false)) << row.name;
        EXPECT_EQ(row.validChecked, FileUtils::IsFileValid(path, true)) << row.name;
        EXPECT_EQ(row.symlink, FileUtils::IsSymlink(path)) << row.name;
        EXPECT_EQ(row.exists, FileUtils::CheckFileExists(path)) << row.name;
        EXPECT_EQ(row.directory, FileUtils::CheckDirectoryExists(path)) << row.name;
    }
}

TEST_F(FileKinds, RegularFilePathRefusesALinkButResolvesLinkedDirectories)
{
    char real[PATH_MAX];
    ASSERT_NE(nullptr, realpath(dir_.Path().c_str(), real));
    const std::string base = real;
    const struct {
        std::string path;
        bool allowMissing;
        std::string resolved;  // "" when refused
    } rows[] = {
        {dir_ / "dir/../file", false, base + "/file"}, {dir_ / "link", false, ""},
        {dir_ / "dirlink/../file", false, base + "/file"}, {dir_ / "missing", false, ""},
        {dir_ / "missing", true, base + "/missing"}, {dir_ / "dirlink/new", true, base + "/dir/new"},
        {dir_ / "nodir/new", true, ""}, {dir_ / "dangling", true, ""}, {"", true, ""},
        {std::string(PATH_MAX, 'a'), true, ""},
    };
    for (const auto& row : rows) {
        std::string resolved = "untouched";
        EXPECT_EQ(!row.resolved.empty(), FileUtils::RegularFilePath(row.path, resolved, row.allowMissing))
            << row.path.substr(0, 60);
        EXPECT_EQ(row.resolved.empty() ? "untouched" : row.resolved, resolved) << row.path.substr(0, 60);
    }
}

TEST_F(FileKinds, WritesNeverFollowLinksButReplaceOwnReadOnlyCopies)
{
    ASSERT_TRUE(FileUtils::CopyFile(dir_ / "source", dir_ / "copy"));
    EXPECT_EQ("fresh", ReadFile(dir_ / "copy"));
    EXPECT_EQ(0600, Mode(dir_ / "copy"));
    EXPECT_TRUE(FileUtils::ModifyFilePermission(dir_ / "copy", 0400));
    EXPECT_EQ(0400, Mode(dir_ / "copy"));
    ASSERT_TRUE(FileUtils::CopyFile(dir_ / "source", dir_ / "readonly"));
    EXPECT_EQ(0600, Mode(dir_ / "readonly"));
    for (const char* destination : {"link", "dangling", "dir", "fifo", "nodir/copy"}) {
        EXPECT_FALSE(FileUtils::CopyFile(dir_ / "source", dir_ / destination)) << destination;
    }
    for (const char* source : {"missing", "dir", "fifo"}) {
        EXPECT_FALSE(FileUtils::CopyFile(dir_ / source, dir_ / "new")) << source;
    }
    for (const char* name : {"link", "dangling", "dir", "fifo", "missing"}) {
        EXPECT_FALSE(FileUtils::ModifyFilePermission(dir_ / name, 0777)) << name;
    }
    for (const char* name : {"dirlink", "file"}) {
        EXPECT_FALSE(FileUtils::ModifyDirPermission(dir_ / name, 0777)) << name;
    }
    EXPECT_EQ("fresh", ReadFile(dir_ / "readonly"));
    EXPECT_EQ("bytes", ReadFile(dir_ / "file"));
    EXPECT_EQ(0600, Mode(dir_ / "file"));
    EXPECT_EQ(0700, Mode(dir_ / "dir"));
    EXPECT_EQ(-1, Mode(dir_ / "missing"));
    EXPECT_EQ(-1, Mode(dir_ / "new"));
}

// Root passes every permission test, so these run as the unprivileged user.
// A copy that fails half way (a full disk, faked with a file size limit in a
// child) leaves the old destination whole and no temporary file behind.
TEST(FileUtilsCopy, FailedCopyLeavesTheOldDestinationWhole)
{
    ScratchDir dir;
    WriteFile(dir / "source", std::string(64 * 1024, 'n'));
    WriteFile(dir / "copy", "old contents");
    const pid_t child = fork();
    if (child == 0) {
        signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{4096, 4096};
        setrlimit(RLIMIT_FSIZE, &limit);
        _exit(FileUtils::CopyFile(dir / "source", dir / "copy") ? 1 : 0);
    }
    int status = -1;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the copy must report the failure";
    EXPECT_EQ("old contents", ReadFile(dir / "copy"));
    size_t entries = 0;
    for (const auto& entry : std::filesystem::directory_iterator(dir.Path())) {
        (void)entry;
        ++entries;
    }
    EXPECT_EQ(2u, entries) << "a temporary file was left behind";
}

TEST(FileUtilsUnprivileged, OwnershipAndPermissionRules)
{
    const std::optional<BaseTest::User> user = BaseTest::UnprivilegedUser();
    ASSERT_TRUE(user.has_value()) << "no unprivileged user to run as";
    ScratchDir root;  // stays root's
    ASSERT_EQ(0, chmod(root.Path().c_str(), 0755));
    WriteFile(root / "rootfile", "root", 0644);
    ScratchDir own;
    WriteFile(own / "source", "fresh");
    WriteFile(own / "mine", "mine", 0600);
    WriteFile(own / "readonly", "keep", 0400);
    WriteFile(own / "unreadable", "x", 0000);
    BaseTest::ChownTree(own.Path(), *user);
    const std::string rootfile = root / "rootfile";
    const std::string mine = own / "mine";
    std::vector<BaseTest::Check> checks = {
        {"own file passes the strict checks", [&] {
             return FileUtils::ConstrainOwner(mine, true) && FileUtils::IsFileValid(mine, true) &&
                    FileUtils::ConstrainPermission(mine, 0600, true) && !FileUtils::ConstrainPermission(mine, 0400, true);
         }},
        {"own unreadable file fails the check but can be chmodded", [&] {
             return !FileUtils::IsFileValid(own / "unreadable", true) &&
                    FileUtils::ModifyFilePermission(own / "unreadable", 0400);
         }},
        {"own read-only copy is replaced", [&] { return FileUtils::CopyFile(own / "source", own / "readonly"); }},
        {"own writable file is replaced", [&] { return FileUtils::CopyFile(own / "source", mine); }},
    };
    if (geteuid() == 0) {
        checks.push_back({"root's file is accepted only when not strict", [&] {
             return !FileUtils::ConstrainOwner(rootfile, true) && FileUtils::ConstrainOwner(rootfile, false) &&
                    !FileUtils::IsFileValid(rootfile, true) && FileUtils::IsFileValid(rootfile, false) &&
                    !FileUtils::ConstrainPermission(rootfile, 0777, true) &&
                    FileUtils::ConstrainPermission(rootfile, 0644, false);
         }});
        checks.push_back({"root's file and directory are left alone", [&] {
             return !FileUtils::ModifyFilePermission(rootfile, 0600) &&
                    !FileUtils::ModifyDirPermission(root.Path(), 0700) &&
                    !FileUtils::CopyFile(own / "source", rootfile) && !FileUtils::CopyFile(own / "source", root / "new");
         }});
    }
    EXPECT_EQ("", BaseTest::RunChecksAs(*user, checks)) << "failed as the unprivileged user";
    EXPECT_EQ("fresh", ReadFile(own / "readonly"));
    EXPECT_EQ("fresh", ReadFile(mine));
    EXPECT_EQ(0400, Mode(own / "unreadable"));
    EXPECT_EQ("root", ReadFile(rootfile));
    EXPECT_EQ(0644, Mode(rootfile));
    EXPECT_EQ(-1, Mode(root / "new"));
}

TEST(MemoryHelper, CheckDataSizeBounds)
{
    using OvraBase::MemoryHelper;
    const std::pair<int64_t, int32_t> rows[] = {
        {0, 0}, {MemoryHelper::MAX_DATA_SIZE, 0}, {-1, 1004}, {MemoryHelper::MAX_DATA_SIZE + 1, 1004}};
    for (const auto& row : rows) {
        EXPECT_EQ(row.second, MemoryHelper::CheckDataSize(row.first)) << row.first;
    }
}

}  // namespace
