// Rewrite of streamserver.conf: the server_key_mm value, the file paths and
// the crl line, plus the three scrub passes that overwrite an old cipher text
// before the new one is written.
//
// The file is read line by line into a table of 1001-byte buffers, matching
// lines are replaced whole, and the table is written back over the same file
// (truncated in place; there is no temporary copy, so the old blocks are the
// ones that get overwritten). Every other line comes back byte for byte, and
// a file without a final line feed stays without one. Each rewrite is synced
// before it reports success, except under an import's recovery copy
// (ConfigRecovery.h): there the copy is what a crash falls back on, and the
// file is synced once after the last rewrite. The scrub passes are synced
// one by one all the same, so that each reaches the disk.
#include <openssl/crypto.h>
#include <openssl/rand.h>
#include <safe_mem_lib.h>

#include <cstring>
#include <memory>
#include <new>

#include "ConfigRecovery.h"
#include "OvraBase/FileUtils.h"
#include "OvraBase/Log.h"
#include "ResultCode/ResultCode.h"
#include "VardoTools.h"
#include "basic/SecretBuffer.h"

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

using OvraBase::Basic::SecretArray;
using OvraBase::Basic::SecretBuffer;

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
constexpr char HEX_DIGITS[] = "0123456789abcdef";

// A line buffer not yet handed to the table: released the way the table
// releases its lines (ResetDeleteCharArray) if it is dropped.
struct LineBufferDelete {
    void operator()(char* buffer) const { VardoTools::ResetDeleteCharArray(buffer, LINE_BUFFER_SIZE); }
};
using LineBuffer = std::unique_ptr<char[], LineBufferDelete>;

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

// Makes `line` "server_key_mm=" followed by `cipherLen` bytes of `cipher`.
// false when a bounds-checked call refuses (a cipher beyond CIPHER_ROOM).
bool ReplaceCipherLine(char* line, const char* cipher, int32_t cipherLen)
{
    return memset_s(line, LINE_BUFFER_SIZE, 0, LINE_BUFFER_SIZE) == 0 &&
           memcpy_s(line, LINE_BUFFER_SIZE, CA_KEY_KV.c_str(), CA_KEY_KV.size()) == 0 &&
           memcpy_s(line + CA_KEY_KV.size(), CIPHER_ROOM, cipher,
                    static_cast<rsize_t>(static_cast<int64_t>(cipherLen))) == 0;
}

// Reads the file at `path` into `table`, rewriting the lines of `mode` on the
// way. 0, 1019 (cannot open) or 1020 (cannot read; the table is emptied).
int32_t ReadTable(VardoTools& tools, const std::string& path, LineTable& table, const char* cipher,
                  int32_t cipherLen, int32_t mode)
{
    SecretArray<STREAM_BUFFER_SIZE> streamBuffer;
    std::ifstream input;
    input.rdbuf()->pubsetbuf(reinterpret_cast<char*>(streamBuffer.Data()),
                             static_cast<std::streamsize>(streamBuffer.Size()));
    input.open(path, std::ios::in | std::ios::binary);
    if (!input.is_open()) {
        OVRA_RETURN_ERROR("Server config file open failed!", OvraBase::APP_ERR_CONFIG_INVALID);
    }
    if (tools.ReadFileToMap(input, table, cipher, cipherLen, mode) != OvraBase::APP_ERR_OK) {
        ClearConfigMap(table, LINE_BUFFER_SIZE);
        input.close();
        OVRA_RETURN_ERROR("Server config file read failed", OvraBase::APP_ERR_READ_FAILED);
    }
    input.close();
    return OvraBase::APP_ERR_OK;
}

// true while WritePreparation's scrub passes run.
bool g_scrubbing = false;

// Marks the scrub passes for their scope.
class ScrubPasses {
public:
    ScrubPasses() { g_scrubbing = true; }
    ~ScrubPasses() { g_scrubbing = false; }
    ScrubPasses(const ScrubPasses&) = delete;
    ScrubPasses& operator=(const ScrubPasses&) = delete;
};

// Writes the table's lines over the file at `path`: truncated in place, never
// through a symbolic link and never created anew; lines joined by line feeds,
// none after the last. The whole text goes in one write from a wiped buffer
// and is synced before the file is closed (see the top of this file for when
// it is not). Empties the table. 0 or 1019: the file could not be opened, or
// a write, sync or close failed (then the file may be incomplete, and the
// record says where its recovery copy is).
int32_t WriteTable(const std::string& path, LineTable& table)
{
    const int32_t lineCount = static_cast<int32_t>(table.size());
    std::size_t total = 0;
    for (int32_t i = 0; i < lineCount; ++i) {
        const auto entry = table.find(i);
        if (entry == table.end() || entry->second == nullptr) {
            // Refused before the file is opened: it stays as it is.
            ClearConfigMap(table, LINE_BUFFER_SIZE);
            OVRA_RETURN_ERROR("Server config map parsing failed!", OvraBase::APP_ERR_CONFIG_INVALID);
        }
        total += strnlen(entry->second, LINE_BUFFER_SIZE) + 1;
    }
    SecretBuffer text(total);
    if (text.Get() == nullptr) {
        ClearConfigMap(table, LINE_BUFFER_SIZE);
        OVRA_RETURN_ERROR("Failed to allocate memory.", OvraBase::APP_ERR_CONFIG_INVALID);
    }
    std::size_t length = 0;
    for (int32_t i = 0; i < lineCount; ++i) {
        const char* line = table[i];
        const std::size_t lineLength = strnlen(line, LINE_BUFFER_SIZE);
        if (lineLength != 0 && memcpy_s(text.Get() + length, total - length, line, lineLength) != 0) {
            ClearConfigMap(table, LINE_BUFFER_SIZE);
            OVRA_RETURN_ERROR("Call memcpy_s failed.", OvraBase::APP_ERR_CONFIG_INVALID);
        }
        length += lineLength;
        if (i != lineCount - 1) {
            text.Get()[length++] = '\n';
        }
    }
    ClearConfigMap(table, LINE_BUFFER_SIZE);

    // Under a recovery copy (an import's rewrites) the file is synced once
    // after the last rewrite, by FinishRewrites; a scrub pass and every
    // rewrite without a copy are synced here.
    const RewriteSync sync = !g_scrubbing && OvraBase::FileUtils::CheckFileExists(RecoveryCopyPath(path))
                                 ? RewriteSync::LATER
                                 : RewriteSync::NOW;
    const InPlaceWrite written = OverwriteInPlace(path, text.Get(), length, sync);
    if (written == InPlaceWrite::OPEN_FAILED) {
        OVRA_RETURN_ERROR("Server config file open failed!", OvraBase::APP_ERR_CONFIG_INVALID);
    }
    if (written == InPlaceWrite::WRITE_FAILED) {
        return ReportFailedWrite(path);
    }
    return OvraBase::APP_ERR_OK;
}

// `count` random bytes as 2 * count lower-case hexadecimal characters, high
// nibble first, into `text` (which holds at least that many).
void ToHex(const unsigned char* bytes, size_t count, char* text)
{
    for (size_t i = 0; i < count; ++i) {
        text[2 * i] = HEX_DIGITS[bytes[i] >> 4];
        text[2 * i + 1] = HEX_DIGITS[bytes[i] & 0x0F];
    }
}

}  // namespace

void ClearConfigMap(LineTable& table, uint32_t maxLen)
{
    for (auto& entry : table) {
        VardoTools::ResetDeleteCharArray(entry.second, maxLen);
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
        // Bytes stored: what was consumed, less the line feed when there was
        // one (the stream stays good exactly then). Counted, not measured up
        // to a zero byte: a zero byte must not hide a line's length. A line
        // with a zero byte cannot come back byte for byte from a buffer that
        // ends at its first zero, so it is refused like an over-long one.
        const std::streamsize consumed = stream.gcount();
        const std::size_t stored = static_cast<std::size_t>(stream.good() ? consumed - 1 : consumed);
        if (stored >= OVERLONG_LINE || strnlen(buffer.get(), LINE_BUFFER_SIZE) != stored) {
            return OvraBase::APP_ERR_GENERAL_FAILED;
        }
        // An empty line, or a last line of one byte, is kept exactly as read.
        if (consumed < 2) {
            Store(table, index, buffer);
            continue;
        }
        if (mode <= 0) {
            if (StartsWith(buffer.get(), CA_KEY_KV) && !ReplaceCipherLine(buffer.get(), cipher, cipherLen)) {
                return OvraBase::APP_ERR_GENERAL_FAILED;
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
    const int32_t read = ReadTable(*this, path, table, cipher, cipherLen, mode);
    if (read != OvraBase::APP_ERR_OK) {
        return read;
    }
    if (table.empty()) {
        OVRA_RETURN_ERROR("Server config file read result is empty.", OvraBase::APP_ERR_CONFIG_INVALID);
    }
    const int32_t written = WriteTable(path, table);
    if (written != OvraBase::APP_ERR_OK) {
        return written;
    }

    if (!OvraBase::FileUtils::ModifyFilePermission(path, CONFIG_FILE_MODE)) {
        OVRA_RETURN_ERROR("File permission setting failed.", OvraBase::APP_ERR_NO_PERMISSION);
    }
    OVRA_LOG_INFO("Set config file permission success.");
    return OvraBase::APP_ERR_OK;
}

int32_t VardoTools::WritePreparation(int32_t num, int32_t mode)
{
    if (num < 0) {
        OVRA_RETURN_ERROR("Memset failed for cleanseLine.", OvraBase::APP_ERR_GENERAL_FAILED);
    }
    const size_t count = static_cast<size_t>(num);
    const ScrubPasses scrubbing;
    // The old value's length plus a terminating zero, and its hexadecimal
    // form; both zero-filled, so each ends in a zero byte.
    SecretBuffer line(count + 1);
    SecretBuffer hexText(2 * count + 1);
    if (line.Get() == nullptr || hexText.Get() == nullptr) {
        OVRA_LOG_ERROR_CODE("Failed to allocate memory.", OvraBase::APP_ERR_ALLOC_FAILED);
        return OvraBase::APP_ERR_WRITE_FAILED;
    }

    // First pass: the value becomes empty (zero bytes end the line's text).
    if (memset_s(line.Get(), count, 0, count) != 0) {
        OVRA_LOG_ERROR_CODE("Memset failed for cleanseLine.", OvraBase::APP_ERR_GENERAL_FAILED);
        return OvraBase::APP_ERR_WRITE_FAILED;
    }
    if (ModifyCaKey(line.Get(), num, mode) != OvraBase::APP_ERR_OK) {
        return OvraBase::APP_ERR_WRITE_FAILED;
    }
    OVRA_LOG_INFO("Write to the config file, the first time finished.");

    // Second pass: num bytes of value 1.
    if (memset_s(line.Get(), count, 1, count) != 0) {
        OVRA_LOG_ERROR_CODE("Memset failed for cleanseLine.", OvraBase::APP_ERR_GENERAL_FAILED);
        return OvraBase::APP_ERR_WRITE_FAILED;
    }
    if (ModifyCaKey(line.Get(), num, mode) != OvraBase::APP_ERR_OK) {
        return OvraBase::APP_ERR_WRITE_FAILED;
    }
    OVRA_LOG_INFO("Write to the config file, the second time finished.");

    // Third pass: random bytes written as lower-case hexadecimal text.
    auto* random = reinterpret_cast<unsigned char*>(line.Get());
    if (RAND_bytes(random, num) != 1) {
        OVRA_RETURN_ERROR("RAND bytes reset failed", OvraBase::APP_ERR_WRITE_FAILED);
    }
    ToHex(random, count, hexText.Get());
    const int32_t result = ModifyCaKey(hexText.Get(), static_cast<int32_t>(2 * count), mode);
    OPENSSL_cleanse(line.Get(), line.Size());
    if (result != OvraBase::APP_ERR_OK) {
        return OvraBase::APP_ERR_WRITE_FAILED;
    }
    OVRA_LOG_INFO("Write to the config file, the third time finished.");
    return OvraBase::APP_ERR_OK;
}

}  // namespace OvraStream
