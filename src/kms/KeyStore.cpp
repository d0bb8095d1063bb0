// Key store files: safe reads, atomic durable writes, choice and repair of copies.
#include "KeyStore.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "Crypto.h"
#include "OvraBase/Log.h"

OVRA_LOG_UNIT("src/kms/KeyStore");

namespace VardoKms {
namespace {

// Closes a descriptor on every path.
class Fd {
public:
    explicit Fd(int fd) : fd_(fd) {}
    ~Fd()
    {
        if (fd_ >= 0) {
            close(fd_);
        }
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    int Get() const { return fd_; }
    // Closes now and reports whether close succeeded (it may report a late write error).
    bool Close()
    {
        const int fd = fd_;
        fd_ = -1;
        return close(fd) == 0;
    }

private:
    int fd_;
};

bool SafeStat(const struct stat& st)
{
    return S_ISREG(st.st_mode) && st.st_uid == geteuid() && (st.st_mode & 07177) == 0;
}

std::string DirectoryOf(const std::string& path)
{
    const std::string::size_type slash = path.find_last_of('/');
    if (slash == std::string::npos) {
        return ".";
    }
    return slash == 0 ? "/" : path.substr(0, slash);
}

int32_t SyncDirectory(const std::string& directory)
{
    Fd fd(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (fd.Get() < 0 || fsync(fd.Get()) != 0) {
        return VE_ERR_STORE_IO;
    }
    return VE_OK;
}

int32_t CreateStores(const StorePaths& paths, StoreContent& content)
{
    StoreContent fresh;
    fresh.generation = 1;
    fresh.rootVersion = 1;
    int32_t rc = RandomBytes(fresh.root.Data(), fresh.root.Size());
    SecureBytes image;
    if (rc == VE_OK) {
        rc = SerializeStore(fresh, image);
    }
    if (rc != VE_OK) {
        return rc;
    }
    rc = WriteCopyAtomically(paths.primary, image);
    if (rc != VE_OK) {
        OVRA_LOG_ERROR("Cannot create the primary key store " << paths.primary << " (code " << rc << ")");
        return rc;
    }
    rc = WriteCopyAtomically(paths.standby, image);
    if (rc != VE_OK) {
        // The primary was made a moment ago under the lock and holds no key
        // anyone has used: take it back so that a failed start leaves nothing.
        unlink(paths.primary.c_str());
        SyncDirectory(DirectoryOf(paths.primary));
        OVRA_LOG_ERROR("Cannot create the standby key store " << paths.standby << " (code " << rc << ")");
        return rc;
    }
    OVRA_LOG_INFO("Created new key stores " << paths.primary << " and " << paths.standby);
    content = std::move(fresh);
    return VE_OK;
}

}  // namespace

int32_t CheckStorePath(const std::string& path, bool& exists)
{
    exists = false;
    struct stat st {};
    if (lstat(path.c_str(), &st) != 0) {
        return errno == ENOENT ? VE_OK : VE_ERR_STORE_IO;
    }
    exists = true;
    return SafeStat(st) ? VE_OK : VE_ERR_STORE_UNSAFE;
}

void ReadCopy(const std::string& path, CopyReading& reading)
{
    reading = CopyReading{};
    bool exists = false;
    int32_t rc = CheckStorePath(path, exists);
    if (rc != VE_OK || !exists) {
        reading.health = rc == VE_ERR_STORE_UNSAFE ? CopyHealth::Unsafe
                         : rc != VE_OK             ? CopyHealth::Unreadable
                                                   : CopyHealth::Missing;
        reading.code = rc;
        return;
    }
    Fd fd(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY));
    if (fd.Get() < 0) {
        const int error = errno;
        reading.health = error == ELOOP ? CopyHealth::Unsafe
                         : error == ENOENT ? CopyHealth::Missing
                                           : CopyHealth::Unreadable;
        reading.code = error == ELOOP ? VE_ERR_STORE_UNSAFE : error == ENOENT ? VE_OK : VE_ERR_STORE_IO;
        return;
    }
    // Checked again on the open file: the name may have changed since lstat.
    struct stat st {};
    if (fstat(fd.Get(), &st) != 0) {
        reading.health = CopyHealth::Unreadable;
        reading.code = VE_ERR_STORE_IO;
        return;
    }
    if (!SafeStat(st)) {
        reading.health = CopyHealth::Unsafe;
        reading.code = VE_ERR_STORE_UNSAFE;
        return;
    }
    if (static_cast<std::size_t>(st.st_size) > kMaxStoreImageSize) {
        reading.health = CopyHealth::Damaged;
        reading.code = VE_ERR_STORE_DAMAGED;
        return;
    }
    SecureBytes image(static_cast<std::size_t>(st.st_size) + 1);
    std::size_t filled = 0;
    while (filled < image.size()) {
        const ssize_t n = read(fd.Get(), image.data() + filled, image.size() - filled);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            reading.health = CopyHealth::Unreadable;
            reading.code = VE_ERR_STORE_IO;
            return;
        }
        if (n == 0) {
            break;
        }
        filled += static_cast<std::size_t>(n);
    }
    image.resize(filled);
    rc = ParseStore(image.data(), image.size(), reading.content);
    if (rc != VE_OK) {
        reading.health = rc == VE_ERR_STORE_DAMAGED ? CopyHealth::Damaged : CopyHealth::Unreadable;
        reading.code = rc;
        return;
    }
    reading.health = CopyHealth::Healthy;
    reading.code = VE_OK;
    reading.image = std::move(image);
}

void RemoveStaleTemporary(const std::string& path)
{
    const std::string temporary = path + ".tmp";
    if (unlink(temporary.c_str()) == 0) {
        OVRA_LOG_WARN("Removed " << temporary << ", left by an interrupted key store write");
    }
}

int32_t WriteCopyAtomically(const std::string& path, const SecureBytes& image)
{
    const std::string temporary = path + ".tmp";
    // Only the lock holder writes, so a temporary file that exists now was
    // left by a writer that died; unlink removes a link itself, never its target.
    if (unlink(temporary.c_str()) != 0 && errno != ENOENT) {
        return VE_ERR_STORE_IO;
    }
    Fd fd(open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY, 0600));
    if (fd.Get() < 0) {
        return VE_ERR_STORE_IO;
    }
    bool ok = fchmod(fd.Get(), 0600) == 0;
    std::size_t written = 0;
    while (ok && written < image.size()) {
        const ssize_t n = write(fd.Get(), image.data() + written, image.size() - written);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            ok = false;
            break;
        }
        written += static_cast<std::size_t>(n);
    }
    ok = ok && fsync(fd.Get()) == 0;
    ok = fd.Close() && ok;
    ok = ok && rename(temporary.c_str(), path.c_str()) == 0;
    if (!ok) {
        const int error = errno;
        unlink(temporary.c_str());
        OVRA_LOG_ERROR("Writing key store " << path << " failed: " << std::strerror(error));
        return VE_ERR_STORE_IO;
    }
    if (SyncDirectory(DirectoryOf(path)) != VE_OK) {
        OVRA_LOG_ERROR("Key store " << path << " written, but its directory could not be synced");
        return VE_ERR_STORE_IO;
    }
    return VE_OK;
}

int32_t OpenStores(const StorePaths& paths, bool createWhenMissing, StoreContent& content)
{
    CopyReading primary;
    CopyReading standby;
    ReadCopy(paths.primary, primary);
    ReadCopy(paths.standby, standby);

    for (const CopyReading* copy : {&primary, &standby}) {
        const std::string& path = copy == &primary ? paths.primary : paths.standby;
        if (copy->health == CopyHealth::Unsafe) {
            OVRA_LOG_ERROR("Key store " << path
                                        << " is refused: a link, not a regular file, of another owner or "
                                           "with a mode wider than 0600");
            return VE_ERR_STORE_UNSAFE;
        }
        if (copy->health == CopyHealth::Unreadable) {
            OVRA_LOG_ERROR("Key store " << path << " cannot be read (code " << copy->code << ")");
            return copy->code;
        }
    }

    const bool primaryOk = primary.health == CopyHealth::Healthy;
    const bool standbyOk = standby.health == CopyHealth::Healthy;
    if (!primaryOk && !standbyOk) {
        if (primary.health == CopyHealth::Missing && standby.health == CopyHealth::Missing) {
            if (createWhenMissing) {
                return CreateStores(paths, content);
            }
            OVRA_LOG_ERROR("Both key stores " << paths.primary << " and " << paths.standby << " are missing");
            return VE_ERR_STORE_IO;
        }
        OVRA_LOG_ERROR("No healthy key store: " << paths.primary << " is " << HealthText(primary.health) << ", "
                                                << paths.standby << " is " << HealthText(standby.health)
                                                << "; both left unchanged");
        return VE_ERR_STORE_DAMAGED;
    }

    const bool useStandby = !primaryOk || (standbyOk && standby.content.generation > primary.content.generation);
    CopyReading& source = useStandby ? standby : primary;
    CopyReading& other = useStandby ? primary : standby;
    const std::string& sourcePath = useStandby ? paths.standby : paths.primary;
    const std::string& otherPath = useStandby ? paths.primary : paths.standby;
    if (other.health != CopyHealth::Healthy || other.image != source.image) {
        if (other.health == CopyHealth::Healthy) {
            OVRA_LOG_WARN("Key store " << otherPath << " is older (generation " << other.content.generation
                                       << ") than " << sourcePath << " (generation " << source.content.generation
                                       << "); rebuilding it");
        } else {
            OVRA_LOG_WARN("Key store " << otherPath << " is " << HealthText(other.health) << "; rebuilding it from "
                                       << sourcePath);
        }
        const int32_t rc = WriteCopyAtomically(otherPath, source.image);
        if (rc != VE_OK) {
            OVRA_LOG_ERROR("Rebuilding key store " << otherPath << " failed (code " << rc << ")");
            return rc;
        }
        OVRA_LOG_INFO("Key store " << otherPath << " rebuilt from " << sourcePath);
    }
    content = std::move(source.content);
    return VE_OK;
}

int32_t SaveStores(const StorePaths& paths, const StoreContent& content)
{
    SecureBytes image;
    int32_t rc = SerializeStore(content, image);
    if (rc != VE_OK) {
        return rc;
    }
    rc = WriteCopyAtomically(paths.primary, image);
    if (rc != VE_OK) {
        return rc;
    }
    return WriteCopyAtomically(paths.standby, image);
}

const char* HealthText(CopyHealth health)
{
    switch (health) {
        case CopyHealth::Healthy:
            return "healthy";
        case CopyHealth::Missing:
            return "missing";
        case CopyHealth::Damaged:
            return "damaged";
        case CopyHealth::Unsafe:
            return "unsafe";
        case CopyHealth::Unreadable:
            return "unreadable";
    }
    return "unknown";
}

}  // namespace VardoKms
