// Rewrite of streamserver.conf: the server_key_mm value, the file paths and
// the crl line, plus the three scrub passes that overwrite an old cipher text
// before the new one is written.
//
// The file is read line by line into a table of 1001-byte buffers, matching
// lines are replaced whole, and the table is written back over the same file
// (truncated in place; there is no temporary copy, so the old blocks are the
// ones that get overwritten). Every other line comes back byte for byte, and
// a file without a final line feed stays without one.
#include <fcntl.h>
#include <unistd.h>

#include <openssl/crypto.h>
#include <openssl/rand.h>
#include <safe_mem_lib.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>

#include "OvraBase/FileUtils.h"
#include "OvraBase/Log.h"
#include "ResultCode/ResultCode.h"
#include "VardoTools.h"

OVRA_LOG_UNIT("src/module/VardoTools/CertImport/VardoTools");

namespace OvraStream {
const std::string CA_KEY_KV = "server_key_mm=";
const std::string SERVER_KEY_KEY = "server_key=";
const std::string SERVER_KEY_KV = "server_key=./keys/server.key";
const std::string CA_CRT_KEY = "ca_crt=";
const std::string CA_CRT_KV = "ca_crt=./keys/ca.crt";
const std::string SERVER_CRT_KEY = "server_crt=";
const std::string SERVER_CRT_KV = "server_crt=./keys/server.crt";
const std::string CA_CRL_KEY = "crl=";
const std::string CA_CRL_KV = "crl=./keys/ca.crl";

namespace {
// Every line buffer of the table; a stored line is at most 999 bytes.
constexpr uint32_t LINE_BUFFER_SIZE = 1001;
// A line of this length filled the buffer without reaching its line feed.
constexpr size_t OVERLONG_LINE = 1000;
// Lines the table may hold; reaching this index means the file is too long.
constexpr int32_t MAX_LINE_INDEX = 100;
// Room left for the cipher text behind "server_key_mm=".
constexpr size_t CIPHER_ROOM = LINE_BUFFER_SIZE - 14;
constexpr uint32_t CONFIG_FILE_MODE = 0600;
// Buffer of the input stream: ours, so that the raw bytes of the file (old
// cipher text among them) can be wiped once the stream is closed.
constexpr size_t STREAM_BUFFER_SIZE = 4096;

// A line buffer not yet handed to the table: wiped and released if dropped.
struct LineBufferDeleter {
    void operator()(char* buffer) const { VardoTools::ResetDeleteCharArray(buffer, LINE_BUFFER_SIZE); }
};
using LineBuffer = std::unique_ptr<char[], LineBufferDeleter>;

// Empties a line table on every way out of the rewrite.
class LineTableGuard {
public:
    explicit LineTableGuard(LineTable& table) : table_(table) {}
    ~LineTableGuard() { ClearConfigMap(table_, LINE_BUFFER_SIZE); }
    LineTableGuard(const LineTableGuard&) = delete;
    LineTableGuard& operator=(const LineTableGuard&) = delete;

private:
    LineTable& table_;
};

// Stream buffer memory that is cleansed when it goes out of scope.
struct WipedStreamBuffer {
    std::array<char, STREAM_BUFFER_SIZE> bytes{};
    ~WipedStreamBuffer() { OPENSSL_cleanse(bytes.data(), bytes.size()); }
};

// Output side of the rewrite: the configuration file opened for writing with
// truncation, never through a symbolic link and never created anew.
class ConfigFileWriter {
public:
    explicit ConfigFileWriter(const std::string& path)
        : fd_(::open(path.c_str(), O_WRONLY | O_TRUNC | O_NOFOLLOW | O_CLOEXEC))
    {
    }
    ~ConfigFileWriter() { Close(); }
    ConfigFileWriter(const ConfigFileWriter&) = delete;
    ConfigFileWriter& operator=(const ConfigFileWriter&) = delete;

    bool IsOpen() const { return fd_ >= 0; }
    // Writes all `length` bytes. Like the stream it stands for, a failed write
    // or close is not reported: the rewrite's result covers reading, opening
    // and the final mode only.
    void Write(const char* data, size_t length)
    {
        while (fd_ >= 0 && length > 0) {
            const ssize_t written = ::write(fd_, data, length);
            if (written < 0) {
                if (errno == EINTR) {
                    continue;
                }
                return;
            }
            data += written;
            length -= static_cast<size_t>(written);
        }
    }
    void Close()
    {
        if (fd_ >= 0) {
            (void)::close(fd_);
            fd_ = -1;
        }
    }

private:
    int fd_;
};

// Hands a line buffer to the table; the entry is made first, so the buffer
// stays owned (and wiped if dropped) until the table can take it.
void Store(LineTable& table, int32_t index, LineBuffer& buffer)
{
    char*& slot = table[index];
    slot = buffer.release();
}

bool StartsWith(const char* line, const std::string& prefix)
{
    return std::strncmp(line, prefix.c_str(), prefix.size()) == 0;
}
}  // namespace

void ClearConfigMap(LineTable& table, uint32_t maxLen)
{
    for (auto& entry : table) {
        if (entry.second == nullptr) {
            continue;
        }
        const size_t length = strnlen(entry.second, maxLen);
        volatile char* bytes = entry.second;
        for (size_t i = 0; i < length; ++i) {
            bytes[i] = 0;
        }
        delete[] entry.second;
        entry.second = nullptr;
    }
    table.clear();
}

int32_t VardoTools::WritePaths(char* line, uint32_t size, int32_t mode)
{
    const std::string* replacement = nullptr;
    if (StartsWith(line, SERVER_CRT_KEY)) {
        replacement = &SERVER_CRT_KV;
    } else if (StartsWith(line, CA_CRT_KEY)) {
        replacement = &CA_CRT_KV;
    } else if (StartsWith(line, SERVER_KEY_KEY)) {
        replacement = &SERVER_KEY_KV;
    } else if (StartsWith(line, CA_CRL_KEY)) {
        replacement = (mode >= 2) ? &CA_CRL_KV : &CA_CRL_KEY;
    } else {
        return OvraBase::APP_ERR_OK;
    }
    if (memset_s(line, size, 0, size) != 0) {
        return OvraBase::APP_ERR_GENERAL_FAILED;
    }
    if (memcpy_s(line, size, replacement->c_str(), replacement->size()) != 0) {
        return OvraBase::APP_ERR_GENERAL_FAILED;
    }
    return OvraBase::APP_ERR_OK;
}

int32_t VardoTools::ReadFileToMap(std::ifstream& stream, LineTable& table, const char* cipher, int32_t cipherLen,
                                  int32_t mode)
{
    int32_t index = -1;
    while (stream.good()) {
        ++index;
        if (index == MAX_LINE_INDEX) {
            return OvraBase::APP_ERR_WRITE_FAILED;
        }
        LineBuffer buffer(new (std::nothrow) char[LINE_BUFFER_SIZE]);
        if (buffer == nullptr) {
            return OvraBase::APP_ERR_GENERAL_FAILED;
        }
        if (memset_s(buffer.get(), LINE_BUFFER_SIZE, 0, LINE_BUFFER_SIZE) != 0) {
            return OvraBase::APP_ERR_GENERAL_FAILED;
        }
        stream.getline(buffer.get(), LINE_BUFFER_SIZE, '\n');
        // An empty line, or a last line of one byte, is kept exactly as read.
        if (stream.gcount() < 2) {
            Store(table, index, buffer);
            continue;
        }
        if (strnlen(buffer.get(), LINE_BUFFER_SIZE) == OVERLONG_LINE) {
            return OvraBase::APP_ERR_GENERAL_FAILED;
        }
        if (mode <= 0) {
            if (StartsWith(buffer.get(), CA_KEY_KV)) {
                if (memset_s(buffer.get(), LINE_BUFFER_SIZE, 0, LINE_BUFFER_SIZE) != 0 ||
                    memcpy_s(buffer.get(), LINE_BUFFER_SIZE, CA_KEY_KV.c_str(), CA_KEY_KV.size()) != 0 ||
                    memcpy_s(buffer.get() + CA_KEY_KV.size(), CIPHER_ROOM, cipher,
                             static_cast<rsize_t>(static_cast<int64_t>(cipherLen))) != 0) {
                    return OvraBase::APP_ERR_GENERAL_FAILED;
                }
            }
        } else if (WritePaths(buffer.get(), LINE_BUFFER_SIZE, mode) != OvraBase::APP_ERR_OK) {
            return OvraBase::APP_ERR_GENERAL_FAILED;
        }
        Store(table, index, buffer);
    }
    return OvraBase::APP_ERR_OK;
}

int32_t VardoTools::ModifyCaKey(const char* cipher, int32_t cipherLen, int32_t mode)
{
    std::string path;
    if (CheckConfigFileAndAssign(path) != OvraBase::APP_ERR_OK) {
        return OvraBase::APP_ERR_INVALID_PARAM;
    }

    LineTable table;
    LineTableGuard tableGuard(table);
    {
        WipedStreamBuffer streamBuffer;
        std::ifstream input;
        input.rdbuf()->pubsetbuf(streamBuffer.bytes.data(), static_cast<std::streamsize>(streamBuffer.bytes.size()));
        input.open(path, std::ios::in | std::ios::binary);
        if (!input.is_open()) {
            OVRA_RETURN_ERROR("Server config file open failed!", OvraBase::APP_ERR_CONFIG_INVALID);
        }
        if (ReadFileToMap(input, table, cipher, cipherLen, mode) != OvraBase::APP_ERR_OK) {
            ClearConfigMap(table, LINE_BUFFER_SIZE);
            input.close();
            OVRA_RETURN_ERROR("Server config file read failed", OvraBase::APP_ERR_READ_FAILED);
        }
        input.close();
    }
    if (table.empty()) {
        OVRA_RETURN_ERROR("Server config file read result is empty.", OvraBase::APP_ERR_CONFIG_INVALID);
    }

    ConfigFileWriter output(path);
    if (!output.IsOpen()) {
        ClearConfigMap(table, LINE_BUFFER_SIZE);
        OVRA_RETURN_ERROR("Server config file open failed!", OvraBase::APP_ERR_CONFIG_INVALID);
    }
    const int32_t lineCount = static_cast<int32_t>(table.size());
    for (int32_t i = 0; i < lineCount; ++i) {
        const auto entry = table.find(i);
        if (entry == table.end() || entry->second == nullptr) {
            ClearConfigMap(table, LINE_BUFFER_SIZE);
            OVRA_LOG_ERROR_CODE("Server config map parsing failed!", OvraBase::APP_ERR_CONFIG_INVALID);
            output.Close();
            return OvraBase::APP_ERR_CONFIG_INVALID;
        }
        output.Write(entry->second, strnlen(entry->second, LINE_BUFFER_SIZE));
        if (i != lineCount - 1) {
            output.Write("\n", 1);
        }
    }
    output.Close();
    ClearConfigMap(table, LINE_BUFFER_SIZE);

    if (!OvraBase::FileUtils::ModifyFilePermission(path, CONFIG_FILE_MODE)) {
        OVRA_RETURN_ERROR("File permission setting failed.", OvraBase::APP_ERR_NO_PERMISSION);
    }
    OVRA_LOG_INFO("Set config file permission success.");
    return OvraBase::APP_ERR_OK;
}

namespace {
// Scratch memory of the scrub passes, cleansed when released.
class ScrubBuffer {
public:
    explicit ScrubBuffer(size_t size) : bytes_(new (std::nothrow) unsigned char[size]), size_(size) {}
    ~ScrubBuffer()
    {
        if (bytes_ != nullptr) {
            OPENSSL_cleanse(bytes_.get(), size_);
        }
    }
    ScrubBuffer(const ScrubBuffer&) = delete;
    ScrubBuffer& operator=(const ScrubBuffer&) = delete;

    unsigned char* Get() const { return bytes_.get(); }
    char* Text() const { return reinterpret_cast<char*>(bytes_.get()); }

private:
    std::unique_ptr<unsigned char[]> bytes_;
    size_t size_;
};
}  // namespace

int32_t VardoTools::WritePreparation(int32_t num, int32_t mode)
{
    if (num < 0) {
        OVRA_RETURN_ERROR("Memset failed for cleanseLine.", OvraBase::APP_ERR_GENERAL_FAILED);
    }
    const size_t count = static_cast<size_t>(num);
    // The old value's length plus a terminating zero, and its hexadecimal form.
    ScrubBuffer line(count + 1);
    ScrubBuffer hexText(2 * count + 1);
    if (line.Get() == nullptr || hexText.Get() == nullptr) {
        OVRA_LOG_ERROR_CODE("Failed to allocate memory.", OvraBase::APP_ERR_ALLOC_FAILED);
        return OvraBase::APP_ERR_WRITE_FAILED;
    }
    line.Get()[count] = 0;
    hexText.Get()[2 * count] = 0;

    // First pass: the value becomes empty (zero bytes end the line's text).
    if (memset_s(line.Get(), count, 0, count) != 0) {
        OVRA_LOG_ERROR_CODE("Memset failed for cleanseLine.", OvraBase::APP_ERR_GENERAL_FAILED);
        return OvraBase::APP_ERR_WRITE_FAILED;
    }
    if (ModifyCaKey(line.Text(), num, mode) != OvraBase::APP_ERR_OK) {
        return OvraBase::APP_ERR_WRITE_FAILED;
    }
    OVRA_LOG_INFO("Write to the config file, the first time finished.");

    // Second pass: num bytes of value 1.
    if (memset_s(line.Get(), count, 1, count) != 0) {
        OVRA_LOG_ERROR_CODE("Memset failed for cleanseLine.", OvraBase::APP_ERR_GENERAL_FAILED);
        return OvraBase::APP_ERR_WRITE_FAILED;
    }
    if (ModifyCaKey(line.Text(), num, mode) != OvraBase::APP_ERR_OK) {
        return OvraBase::APP_ERR_WRITE_FAILED;
    }
    OVRA_LOG_INFO("Write to the config file, the second time finished.");

    // Third pass: random bytes written as lower-case hexadecimal text.
    if (RAND_bytes(line.Get(), num) != 1) {
        OVRA_RETURN_ERROR("RAND bytes reset failed", OvraBase::APP_ERR_WRITE_FAILED);
    }
    static constexpr char HEX_DIGITS[] = "0123456789abcdef";
    for (size_t i = 0; i < count; ++i) {
        hexText.Get()[2 * i] = static_cast<unsigned char>(HEX_DIGITS[line.Get()[i] >> 4]);
        hexText.Get()[2 * i + 1] = static_cast<unsigned char>(HEX_DIGITS[line.Get()[i] & 0x0F]);
    }
    const int32_t result = ModifyCaKey(hexText.Text(), static_cast<int32_t>(2 * count), mode);
    OPENSSL_cleanse(line.Get(), count + 1);
    if (result != OvraBase::APP_ERR_OK) {
        return OvraBase::APP_ERR_WRITE_FAILED;
    }
    OVRA_LOG_INFO("Write to the config file, the third time finished.");
    return OvraBase::APP_ERR_OK;
}

}  // namespace OvraStream
