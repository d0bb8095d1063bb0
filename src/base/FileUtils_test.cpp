// File checks and owner-only file operations: what each check accepts, links
// at destinations, read-only copies, and the ownership and permission rules
// proven as an unprivileged user.
#include <gtest/gtest.h>

#include <dirent.h>
#include <limits.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

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

// Names in a directory other than "." and "..".
std::vector<std::string> Entries(const std::string& directory)
{
    std::vector<std::string> names;
    if (DIR* dir = opendir(directory.c_str())) {
        while (const dirent* entry = readdir(dir)) {
            const std::string name = entry->d_name;
            if (name != "." && name != "..") {
                names.push_back(name);
            }
        }
        closedir(dir);
    }
    return names;
}

// One scratch tree with an entry of every kind the checks must tell apart.
class FileKinds : public ::testing::Test {
protected:
    void SetUp() override
    {
        WriteFile(dir_ / "file", "bytes");
        WriteFile(dir_ / "readonly", "bytes", 0400);
        WriteFile(dir_ / "writeonly", "bytes", 0200);
        ASSERT_EQ(0, symlink((dir_ / "file").c_str(), (dir_ / "link").c_str()));
        ASSERT_EQ(0, symlink((dir_ / "missing").c_str(), (dir_ / "dangling").c_str()));
        ASSERT_EQ(0, mkdir((dir_ / "dir").c_str(), 0700));
        ASSERT_EQ(0, symlink((dir_ / "dir").c_str(), (dir_ / "dirlink").c_str()));
        ASSERT_EQ(0, mkfifo((dir_ / "fifo").c_str(), 0600));
        WriteFile(dir_ / "big", "");
        ASSERT_EQ(0, truncate((dir_ / "big").c_str(), FileUtils::MAX_FILE_SIZE + 1));
        WriteFile(dir_ / "limit", "");
        ASSERT_EQ(0, truncate((dir_ / "limit").c_str(), FileUtils::MAX_FILE_SIZE));
    }

    ScratchDir dir_;
};

TEST_F(FileKinds, ChecksTellTheKindsApart)
{
    struct Row {
        const char* name;
        bool valid;           // IsFileValid(path, false)
        bool validChecked;    // IsFileValid(path, true)
        bool symlink;         // IsSymlink
        bool exists;          // CheckFileExists
        bool directory;       // CheckDirectoryExists
    };
    const Row rows[] = {
        {"file", true, true, false, true, false},
        {"readonly", true, true, false, true, false},
        {"writeonly", true, false, false, true, false},
        {"link", true, false, true, true, false},
        {"dangling", false, false, true, true, false},
        {"missing", false, false, false, false, false},
        {"dir", false, false, false, true, true},
        {"dirlink", false, false, true, true, false},
        {"fifo", false, false, false, true, false},
        {"big", false, false, false, true, false},
        {"limit", true, true, false, true, false},
    };
    for (const Row& row : rows) {
        const std::string path = dir_ / row.name;
        EXPECT_EQ(row.valid, FileUtils::IsFileValid(path, false)) << row.name;
        EXPECT_EQ(row.validChecked, FileUtils::IsFileValid(path, true)) << row.name;
        EXPECT_EQ(row.symlink, FileUtils::IsSymlink(path)) << row.name;
        EXPECT_EQ(row.exists, FileUtils::CheckFileExists(path)) << row.name;
        EXPECT_EQ(row.directory, FileUtils::CheckDirectoryExists(path)) << row.name;
    }
    EXPECT_FALSE(FileUtils::IsFileValid("", false));
    EXPECT_FALSE(FileUtils::CheckFileExists(""));
}

TEST_F(FileKinds, RegularFilePathResolves)
{
    char saved[PATH_MAX];
    ASSERT_NE(nullptr, getcwd(saved, sizeof(saved)));
    ASSERT_EQ(0, chdir(dir_.Path().c_str()));
    char real[PATH_MAX];
    ASSERT_NE(nullptr, realpath(dir_.Path().c_str(), real));
    const std::string base = real;
    struct Row {
        std::string path;
        bool allowMissing;
        bool ok;
        std::string resolved;
    };
    const std::vector<Row> rows = {
        {"file", false, true, base + "/file"},
        {"./dir/../file", false, true, base + "/file"},
        {dir_ / "link", false, false, ""},      // a link is not a regular file path
        {"dirlink/../file", false, true, base + "/file"},
        {"dirlink/", false, true, base + "/dir"},
        {"missing", false, false, ""},
        {"missing", true, true, base + "/missing"},
        {"dirlink/new", true, true, base + "/dir/new"},
        {"nodir/new", true, false, ""},
        {"dangling", false, false, ""},
        {"", false, false, ""},
        {"", true, false, ""},
        {std::string(PATH_MAX, 'a'), true, false, ""},
    };
    for (const Row& row : rows) {
        std::string resolved = "untouched";
        EXPECT_EQ(row.ok, FileUtils::RegularFilePath(row.path, resolved, row.allowMissing))
            << row.path.substr(0, 40) << " allowMissing=" << row.allowMissing;
        EXPECT_EQ(row.ok ? row.resolved : "untouched", resolved) << row.path.substr(0, 40);
    }
    ASSERT_EQ(0, chdir(saved));
}

TEST_F(FileKinds, CreateDirectoriesGivesEveryNewDirectoryTheMode)
{
    const mode_t saved = umask(077);
    EXPECT_TRUE(FileUtils::CreateDirectories(dir_ / "a/b/c/", 0750));
    umask(saved);
    EXPECT_EQ(0750, Mode(dir_ / "a"));
    EXPECT_EQ(0750, Mode(dir_ / "a/b"));
    EXPECT_EQ(0750, Mode(dir_ / "a/b/c"));

    // An existing directory is accepted as it is; existing parents may be links.
    ASSERT_EQ(0, chmod((dir_ / "dir").c_str(), 0755));
    EXPECT_TRUE(FileUtils::CreateDirectories(dir_ / "dir", 0700));
    EXPECT_EQ(0755, Mode(dir_ / "dir"));
    EXPECT_TRUE(FileUtils::CreateDirectories(dir_ / "dirlink/sub", 0700));
    EXPECT_EQ(0700, Mode(dir_ / "dir/sub"));

    // The last name must not be a link or a file, and no parent may be a file.
    for (const char* refused : {"dirlink", "dangling", "file", "file/sub"}) {
        EXPECT_FALSE(FileUtils::CreateDirectories(dir_ / refused, 0700)) << refused;
    }
    EXPECT_FALSE(FileUtils::CreateDirectories("", 0700));
    EXPECT_EQ(-1, Mode(dir_ / "missing"));
}

TEST_F(FileKinds, ModeChangesRefuseLinksAndOtherKinds)
{
    EXPECT_TRUE(FileUtils::ModifyFilePermission(dir_ / "file", 0400));
    EXPECT_EQ(0400, Mode(dir_ / "file"));
    EXPECT_TRUE(FileUtils::ModifyDirPermission(dir_ / "dir", 0750));
    EXPECT_EQ(0750, Mode(dir_ / "dir"));

    struct Row {
        const char* name;
        bool asFile;
    };
    const Row refused[] = {
        {"link", true}, {"dangling", true}, {"dir", true}, {"fifo", true}, {"missing", true},
        {"dirlink", false}, {"file", false}, {"link", false}, {"missing", false},
    };
    for (const Row& row : refused) {
        const uint32_t mode = 0777;
        const bool changed = row.asFile ? FileUtils::ModifyFilePermission(dir_ / row.name, mode)
                                        : FileUtils::ModifyDirPermission(dir_ / row.name, mode);
        EXPECT_FALSE(changed) << row.name << (row.asFile ? " as file" : " as directory");
    }
    // The targets behind the links kept their modes.
    EXPECT_EQ(0400, Mode(dir_ / "file"));
    EXPECT_EQ(0750, Mode(dir_ / "dir"));
}

TEST_F(FileKinds, CopyFileReplacesOnlyWritableRegularFilesOfOurs)
{
    WriteFile(dir_ / "source", std::string(200000, 'k'));
    // A new destination, and an existing writable one, are written whole.
    ASSERT_TRUE(FileUtils::CopyFile(dir_ / "source", dir_ / "copy"));
    EXPECT_EQ(std::string(200000, 'k'), ReadFile(dir_ / "copy"));
    EXPECT_EQ(0600, Mode(dir_ / "copy"));
    WriteFile(dir_ / "source", "second");
    ASSERT_TRUE(FileUtils::CopyFile(dir_ / "source", dir_ / "copy"));
    EXPECT_EQ("second", ReadFile(dir_ / "copy"));
    // An empty source gives an empty copy.
    WriteFile(dir_ / "empty", "");
    EXPECT_TRUE(FileUtils::CopyFile(dir_ / "empty", dir_ / "emptycopy"));
    EXPECT_EQ("", ReadFile(dir_ / "emptycopy"));

    struct Row {
        const char* source;
        const char* destination;
    };
    const Row refused[] = {
        {"source", "readonly"},   // a 0400 copy is never replaced, even by root
        {"source", "link"},       // links at the destination are not followed
        {"source", "dangling"},
        {"source", "dir"},
        {"source", "fifo"},
        {"source", "nodir/copy"},
        {"missing", "copy2"},
        {"dir", "copy2"},
        {"fifo", "copy2"},
        {"source", ""},
        {"", "copy2"},
    };
    const std::vector<std::string> before = Entries(dir_.Path());
    for (const Row& row : refused) {
        const std::string source = row.source[0] != '\0' ? dir_ / row.source : "";
        const std::string destination = row.destination[0] != '\0' ? dir_ / row.destination : "";
        EXPECT_FALSE(FileUtils::CopyFile(source, destination)) << row.source << " -> " << row.destination;
    }
    EXPECT_EQ("bytes", ReadFile(dir_ / "readonly"));
    EXPECT_EQ(0400, Mode(dir_ / "readonly"));
    EXPECT_EQ("bytes", ReadFile(dir_ / "file"));
    EXPECT_TRUE(FileUtils::IsSymlink(dir_ / "link"));
    EXPECT_EQ(-1, Mode(dir_ / "missing"));
    EXPECT_EQ(before, Entries(dir_.Path()));  // nothing new, no temporary left behind
}

TEST_F(FileKinds, FailedCopyLeavesTheDestinationAndNoTemporary)
{
    WriteFile(dir_ / "source", std::string(100000, 's'));
    WriteFile(dir_ / "copy", "old content");
    const std::vector<std::string> before = Entries(dir_.Path());
    // A file size limit makes the write fail half-way through the copy.
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{4096, 4096};
        const bool refused = setrlimit(RLIMIT_FSIZE, &limit) == 0 &&
                             !FileUtils::CopyFile(dir_ / "source", dir_ / "copy");
        _exit(refused ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ("old content", ReadFile(dir_ / "copy"));
    EXPECT_EQ(before, Entries(dir_.Path()));
}

TEST_F(FileKinds, OwnerAndPermissionOfOurOwnFiles)
{
    EXPECT_TRUE(FileUtils::ConstrainOwner(dir_ / "file", true));
    EXPECT_TRUE(FileUtils::ConstrainOwner(dir_ / "dir", true));
    EXPECT_FALSE(FileUtils::ConstrainOwner(dir_ / "missing", true));

    struct Row {
        const char* name;
        uint32_t mode;
        bool within;
    };
    const Row rows[] = {
        {"file", 0600, true},  {"file", 0400, false}, {"file", 0700, true},
        {"readonly", 0600, true}, {"writeonly", 0400, false}, {"dir", 0700, true},
        {"dir", 0600, false},  {"link", 0600, false}, {"missing", 0777, false},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(row.within, FileUtils::ConstrainPermission(dir_ / row.name, row.mode, true))
            << row.name << " within " << std::oct << row.mode;
    }
}

// Root passes every permission test, so these run as the test user.
TEST(FileUtilsUnprivileged, OwnershipAndPermissionRules)
{
    const std::optional<BaseTest::User> user = BaseTest::UnprivilegedUser();
    ASSERT_TRUE(user.has_value()) << "no unprivileged user to run as";
    ScratchDir root;                        // stays root's (when run as root)
    WriteFile(root / "rootfile", "root", 0644);
    ScratchDir own;                         // handed to the test user
    WriteFile(own / "source", "fresh");
    WriteFile(own / "mine", "mine", 0600);
    WriteFile(own / "readonly", "keep", 0400);
    WriteFile(own / "unreadable", "x", 0000);
    ASSERT_EQ(0, mkdir((own / "closed").c_str(), 0500));
    BaseTest::ChownTree(own.Path(), *user);
    // The test user must be able to reach both trees.
    ASSERT_EQ(0, chmod(root.Path().c_str(), 0755));
    const bool asRoot = geteuid() == 0;

    const std::string rootfile = root / "rootfile";
    const std::string mine = own / "mine";
    std::vector<BaseTest::Check> checks = {
        {"own file is owned", [&] { return FileUtils::ConstrainOwner(mine, true); }},
        {"own file passes the permission check", [&] { return FileUtils::IsFileValid(mine, true); }},
        {"own unreadable file fails the permission check",
         [&] { return !FileUtils::IsFileValid(own / "unreadable", true); }},
        {"own unreadable file can still be chmodded",
         [&] { return FileUtils::ModifyFilePermission(own / "unreadable", 0400) && Mode(own / "unreadable") == 0400; }},
        {"own file within 0600 strictly", [&] { return FileUtils::ConstrainPermission(mine, 0600, true); }},
        {"own read-only copy is not replaced", [&] { return !FileUtils::CopyFile(own / "source", own / "readonly"); }},
        {"own writable file is replaced", [&] { return FileUtils::CopyFile(own / "source", mine); }},
        {"no copy into a directory without write permission",
         [&] { return !FileUtils::CopyFile(own / "source", own / "closed/copy"); }},
    };
    if (asRoot) {
        const std::vector<BaseTest::Check> foreign = {
            {"root's file is not ours strictly", [&] { return !FileUtils::ConstrainOwner(rootfile, true); }},
            {"root's file is accepted when not strict", [&] { return FileUtils::ConstrainOwner(rootfile, false); }},
            {"root's file fails the permission check", [&] { return !FileUtils::IsFileValid(rootfile, true); }},
            {"root's file passes the plain check", [&] { return FileUtils::IsFileValid(rootfile, false); }},
            {"root's file is not ours for a strict permission check",
             [&] { return !FileUtils::ConstrainPermission(rootfile, 0777, true); }},
            {"root's file is within 0644 when not strict",
             [&] { return FileUtils::ConstrainPermission(rootfile, 0644, false); }},
            {"root's file cannot be chmodded", [&] { return !FileUtils::ModifyFilePermission(rootfile, 0600); }},
            {"root's directory cannot be chmodded", [&] { return !FileUtils::ModifyDirPermission(root.Path(), 0700); }},
            {"root's file is not replaced", [&] { return !FileUtils::CopyFile(own / "source", rootfile); }},
            {"no copy into root's directory", [&] { return !FileUtils::CopyFile(own / "source", root / "new"); }},
        };
        checks.insert(checks.end(), foreign.begin(), foreign.end());
    }
    const std::vector<std::string> failed = BaseTest::RunChecksAs(*user, checks);
    for (const std::string& name : failed) {
        ADD_FAILURE() << "as the unprivileged user: " << name;
    }
    EXPECT_EQ("keep", ReadFile(own / "readonly"));
    EXPECT_EQ("fresh", ReadFile(mine));
    EXPECT_EQ("root", ReadFile(rootfile));
    EXPECT_EQ(0644, Mode(rootfile));
    EXPECT_EQ(-1, Mode(root / "new"));
    EXPECT_EQ(std::vector<std::string>{}, Entries(own / "closed"));
}

TEST(MemoryHelper, CheckDataSizeBounds)
{
    using OvraBase::MemoryHelper;
    const std::pair<int64_t, int32_t> rows[] = {
        {0, 0}, {1, 0}, {4096, 0}, {MemoryHelper::MAX_DATA_SIZE, 0},
        {-1, 1004}, {INT64_MIN, 1004}, {MemoryHelper::MAX_DATA_SIZE + 1, 1004},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(row.second, MemoryHelper::CheckDataSize(row.first)) << row.first;
    }
}

}  // namespace
