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
#include "basic/AtomicFile.h"
#include "basic/Io.h"
#include "basic/Owner.h"
#include "basic/Path.h"
#include "basic/UniqueFd.h"

OVRA_LOG_UNIT("src/kms/KeyStore");

namespace VardoKms {
namespace {

using OvraBase::Basic::DirectoryOf;
using OvraBase::Basic::IsOwnRegularFileWithin;
using OvraBase::Basic::UniqueFd;

constexpr mode_t STORE_MODE = 0600;

// The health of an existing copy whose reading ended with `code`.
CopyHealth HealthOf(int32_t code)
{
    switch (code) {
        case VE_OK:
            return CopyHealth::HEALTHY;
        case VE_ERR_STORE_UNSAFE:
            return CopyHealth::UNSAFE;
        case VE_ERR_STORE_DAMAGED:
            return CopyHealth::DAMAGED;
        default:
            return CopyHealth::UNREADABLE;
    }
}

// Reads the bytes of a copy that lstat found safe, checking the open file
// again (the name may have changed since). `exists` becomes false when it
// vanished meanwhile. VE_OK, VE_ERR_STORE_UNSAFE, VE_ERR_STORE_IO, or
// VE_ERR_STORE_DAMAGED for a copy larger than any image.
int32_t ReadImage(const std::string& path, SecureBytes& image, bool& exists)
{
    UniqueFd fd(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY));
    if (!fd.Valid()) {
        const int error = errno;
        exists = error != ENOENT;
        return error == ELOOP ? VE_ERR_STORE_UNSAFE : error == ENOENT ? VE_OK : VE_ERR_STORE_IO;
    }
    struct stat st {};
    if (fstat(fd.Get(), &st) != 0) {
        return VE_ERR_STORE_IO;
    }
    if (!IsOwnRegularFileWithin(st, STORE_MODE)) {
        return VE_ERR_STORE_UNSAFE;
    }
    if (static_cast<std::size_t>(st.st_size) > MAX_STORE_IMAGE_SIZE) {
        return VE_ERR_STORE_DAMAGED;
    }
    // One byte more than the size: a copy that grew meanwhile reads as damaged.
    image.resize(static_cast<std::size_t>(st.st_size) + 1);
    std::size_t filled = 0;
    if (!OvraBase::Basic::ReadFull(fd.Get(), image.data(), image.size(), filled)) {
        return VE_ERR_STORE_IO;
    }
    image.resize(filled);
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
        (void)OvraBase::Basic::SyncDirectory(DirectoryOf(paths.primary).c_str());
        OVRA_LOG_ERROR("Cannot create the standby key store " << paths.standby << " (code " << rc << ")");
        return rc;
    }
    OVRA_LOG_INFO("Created new key stores " << paths.primary << " and " << paths.standby);
    content = std::move(fresh);
    return VE_OK;
}

// An unsafe or unreadable copy stops the opening before anything is written.
int32_t RefuseUnusableCopy(const std::string& path, const CopyReading& copy)
{
    if (copy.health == CopyHealth::UNSAFE) {
        OVRA_LOG_ERROR("Key store " << path
                                    << " is refused: a link, not a regular file, of another owner or "
                                       "with a mode wider than 0600");
        return VE_ERR_STORE_UNSAFE;
    }
    if (copy.health == CopyHealth::UNREADABLE) {
        OVRA_LOG_ERROR("Key store " << path << " cannot be read (code " << copy.code << ")");
        return copy.code;
    }
    return VE_OK;
}

// Neither copy is healthy: a new pair when both are missing and that is
// allowed; otherwise a refusal that leaves both files as they are.
int32_t WithoutHealthyCopy(const StorePaths& paths, CopyHealth primary, CopyHealth standby, bool createWhenMissing,
                           StoreContent& content)
{
    if (primary == CopyHealth::MISSING && standby == CopyHealth::MISSING) {
        if (createWhenMissing) {
            return CreateStores(paths, content);
        }
        OVRA_LOG_ERROR("Both key stores " << paths.primary << " and " << paths.standby << " are missing");
        return VE_ERR_STORE_IO;
    }
    OVRA_LOG_ERROR("No healthy key store: " << paths.primary << " is " << HealthText(primary) << ", "
                                            << paths.standby << " is " << HealthText(standby)
                                            << "; both left unchanged");
    return VE_ERR_STORE_DAMAGED;
}

// Rewrites the other copy from the source's exact bytes when it is missing,
// damaged or older (logged); nothing when both hold the same image.
int32_t RebuildWhenBehind(const std::string& sourcePath, const CopyReading& source, const std::string& otherPath,
                          const CopyReading& other)
{
    const bool otherHealthy = other.health == CopyHealth::HEALTHY;
    if (otherHealthy && other.image == source.image) {
        return VE_OK;
    }
    if (otherHealthy) {
        OVRA_LOG_WARN("Key store " << otherPath << " is older (generation " << other.content.generation << ") than "
                                   << sourcePath << " (generation " << source.content.generation
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
    return IsOwnRegularFileWithin(st, STORE_MODE) ? VE_OK : VE_ERR_STORE_UNSAFE;
}

void ReadCopy(const std::string& path, CopyReading& reading)
{
    reading = CopyReading{};
    bool exists = false;
    int32_t rc = CheckStorePath(path, exists);
    SecureBytes image;
    if (rc == VE_OK && exists) {
        rc = ReadImage(path, image, exists);
    }
    if (rc == VE_OK && exists) {
        rc = ParseStore(image.data(), image.size(), reading.content);
    }
    reading.code = rc;
    reading.health = rc == VE_OK && !exists ? CopyHealth::MISSING : HealthOf(rc);
    if (reading.health == CopyHealth::HEALTHY) {
        reading.image = std::move(image);
    }
}

void RemoveStaleTemporary(const std::string& path)
{
    for (const std::string& temporary : OvraBase::Basic::RemoveStaleTemporaries(path)) {
        OVRA_LOG_WARN("Removed " << temporary << ", left by an interrupted key store write");
    }
}

int32_t WriteCopyAtomically(const std::string& path, const SecureBytes& image)
{
    // The directory is synced here rather than by the replacement, so that a
    // failed sync has a record of its own.
    const int error = OvraBase::Basic::ReplaceFileAtomically(path, STORE_MODE, image.data(), image.size(), nullptr,
                                                             OvraBase::Basic::DirectorySync::LATER);
    if (error != 0) {
        OVRA_LOG_ERROR("Writing key store " << path << " failed: " << std::strerror(error));
        return VE_ERR_STORE_IO;
    }
    if (!OvraBase::Basic::SyncDirectory(DirectoryOf(path).c_str())) {
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
    int32_t rc = RefuseUnusableCopy(paths.primary, primary);
    if (rc == VE_OK) {
        rc = RefuseUnusableCopy(paths.standby, standby);
    }
    if (rc != VE_OK) {
        return rc;
    }
    const SourceCopy choice =
        NewestHealthyCopy(primary.health, primary.content.generation, standby.health, standby.content.generation);
    if (choice == SourceCopy::NONE) {
        return WithoutHealthyCopy(paths, primary.health, standby.health, createWhenMissing, content);
    }
    const bool useStandby = choice == SourceCopy::STANDBY;
    CopyReading& source = useStandby ? standby : primary;
    rc = RebuildWhenBehind(useStandby ? paths.standby : paths.primary, source,
                           useStandby ? paths.primary : paths.standby, useStandby ? primary : standby);
    if (rc != VE_OK) {
        return rc;
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

const char* HealthText(CopyHealth health) noexcept
{
    switch (health) {
        case CopyHealth::HEALTHY:
            return "healthy";
        case CopyHealth::MISSING:
            return "missing";
        case CopyHealth::DAMAGED:
            return "damaged";
        case CopyHealth::UNSAFE:
            return "unsafe";
        case CopyHealth::UNREADABLE:
            return "unreadable";
    }
    return "unknown";
}

SourceCopy NewestHealthyCopy(CopyHealth primaryHealth, uint64_t primaryGeneration, CopyHealth standbyHealth,
                             uint64_t standbyGeneration) noexcept
{
    const bool primaryOk = primaryHealth == CopyHealth::HEALTHY;
    const bool standbyOk = standbyHealth == CopyHealth::HEALTHY;
    if (primaryOk && (!standbyOk || primaryGeneration >= standbyGeneration)) {
        return SourceCopy::PRIMARY;
    }
    return standbyOk ? SourceCopy::STANDBY : SourceCopy::NONE;
}

}  // namespace VardoKms
