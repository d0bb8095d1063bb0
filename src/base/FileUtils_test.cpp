// File checks and owner-only file operations: kinds, links at destinations,
// replaced read-only copies, and ownership and permission rules as an unprivileged user.
#include <gtest/gtest.h>

#include <limits.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "OvraBase/FileUtils.h"
#include "OvraBase/MemoryHelper.h"
#include "Scratch.h"
#include "TestUser.h"

namespace {

using namespace VardoTest;
using OvraBase::FileUtils;

// A scratch tree with an entry of every kind the checks must tell apart.
class FileKinds : public ::testing::Test {
protected:
    void SetUp() override
    {
        WriteWholeFile(dir_ / "file", "bytes");
        WriteWholeFile(dir_ / "readonly", "bytes", 0400);
        WriteWholeFile(dir_ / "writeonly", "bytes", 0200);
        WriteWholeFile(dir_ / "source", "fresh");
        ASSERT_EQ(0, symlink((dir_ / "file").c_str(), (dir_ / "link").c_str()));
        ASSERT_EQ(0, symlink((dir_ / "missing").c_str(), (dir_ / "dangling").c_str()));
        ASSERT_EQ(0, mkdir((dir_ / "dir").c_str(), 0700));
        ASSERT_EQ(0, symlink((dir_ / "dir").c_str(), (dir_ / "dirlink").c_str()));
        ASSERT_EQ(0, mkfifo((dir_ / "fifo").c_str(), 0600));
        WriteWholeFile(dir_ / "big", "");
        ASSERT_EQ(0, truncate((dir_ / "big").c_str(), FileUtils::MAX_FILE_SIZE + 1));
        WriteWholeFile(dir_ / "largest", "");
        ASSERT_EQ(0, truncate((dir_ / "largest").c_str(), FileUtils::MAX_FILE_SIZE));
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
        {"big", false, false, false, true, false},     {"largest", true, true, false, true, false},
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
    EXPECT_EQ("fresh", ReadWholeFile(dir_ / "copy"));
    EXPECT_EQ(0600, FileMode(dir_ / "copy"));
    EXPECT_TRUE(FileUtils::ModifyFilePermission(dir_ / "copy", 0400));
    EXPECT_EQ(0400, FileMode(dir_ / "copy"));
    ASSERT_TRUE(FileUtils::CopyFile(dir_ / "source", dir_ / "readonly"));
    EXPECT_EQ(0600, FileMode(dir_ / "readonly"));
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
    EXPECT_EQ("fresh", ReadWholeFile(dir_ / "readonly"));
    EXPECT_EQ("bytes", ReadWholeFile(dir_ / "file"));
    EXPECT_EQ(0600, FileMode(dir_ / "file"));
    EXPECT_EQ(0700, FileMode(dir_ / "dir"));
    EXPECT_EQ(-1, FileMode(dir_ / "missing"));
    EXPECT_EQ(-1, FileMode(dir_ / "new"));
}

// A copy that fails half way (a full disk, faked with a file size limit in a
// child) leaves the old destination whole and no temporary file behind.
TEST(FileUtilsCopy, FailedCopyLeavesTheOldDestinationWhole)
{
    ScratchDir dir;
    WriteWholeFile(dir / "source", std::string(64 * 1024, 'n'));
    WriteWholeFile(dir / "copy", "old contents");
    EXPECT_EQ(0, RunInChild([&] {
        signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{4096, 4096};
        return setrlimit(RLIMIT_FSIZE, &limit) != 0 || FileUtils::CopyFile(dir / "source", dir / "copy");
    })) << "the copy must report the failure";
    EXPECT_EQ("old contents", ReadWholeFile(dir / "copy"));
    const auto entries = std::distance(std::filesystem::directory_iterator(dir.Path()), {});
    EXPECT_EQ(2, entries) << "a temporary file was left behind";
}

// Root passes every permission test, so these run as the unprivileged user: the
// result is the number of the first check that failed, 0 when all held.
TEST(FileUtilsUnprivileged, OwnershipAndPermissionRules)
{
    const TestUser& user = UnprivilegedUser();
    ScratchDir root;  // stays root's
    ASSERT_EQ(0, chmod(root.Path().c_str(), 0755));
    WriteWholeFile(root / "rootfile", "root", 0644);
    ScratchDir own;
    WriteWholeFile(own / "source", "fresh");
    WriteWholeFile(own / "mine", "mine", 0600);
    WriteWholeFile(own / "readonly", "keep", 0400);
    WriteWholeFile(own / "unreadable", "x", 0000);
    ChownTree(own.Path(), user.uid, user.gid);
    const std::string rootfile = root / "rootfile";
    const std::string mine = own / "mine";
    const std::vector<std::function<bool()>> checks = {
        [&] {  // own file passes the strict checks
            return FileUtils::ConstrainOwner(mine, true) && FileUtils::IsFileValid(mine, true) &&
                   FileUtils::ConstrainPermission(mine, 0600, true) && !FileUtils::ConstrainPermission(mine, 0400, true);
        },
        [&] {  // own unreadable file fails the check but can be chmodded
            return !FileUtils::IsFileValid(own / "unreadable", true) &&
                   FileUtils::ModifyFilePermission(own / "unreadable", 0400);
        },
        [&] { return FileUtils::CopyFile(own / "source", own / "readonly"); },   // own read-only copy is replaced
        [&] { return FileUtils::CopyFile(own / "source", mine); },              // own writable file is replaced
        [&] {  // root's file is accepted only when not strict
            return !FileUtils::ConstrainOwner(rootfile, true) && FileUtils::ConstrainOwner(rootfile, false) &&
                   !FileUtils::IsFileValid(rootfile, true) && FileUtils::IsFileValid(rootfile, false) &&
                   !FileUtils::ConstrainPermission(rootfile, 0777, true) &&
                   FileUtils::ConstrainPermission(rootfile, 0644, false);
        },
        [&] {  // root's file and directory are left alone
            return !FileUtils::ModifyFilePermission(rootfile, 0600) && !FileUtils::ModifyDirPermission(root.Path(), 0700) &&
                   !FileUtils::CopyFile(own / "source", rootfile) && !FileUtils::CopyFile(own / "source", root / "new");
        },
    };
    EXPECT_EQ(0, RunAsUnprivileged([&] {
        for (size_t i = 0; i < checks.size(); ++i) {
            if (!checks[i]()) {
                return static_cast<int>(i) + 1;
            }
        }
        return 0;
    }));
    EXPECT_EQ("fresh", ReadWholeFile(own / "readonly"));
    EXPECT_EQ("fresh", ReadWholeFile(mine));
    EXPECT_EQ(0400, FileMode(own / "unreadable"));
    EXPECT_EQ("root", ReadWholeFile(rootfile));
    EXPECT_EQ(0644, FileMode(rootfile));
    EXPECT_EQ(-1, FileMode(root / "new"));
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
