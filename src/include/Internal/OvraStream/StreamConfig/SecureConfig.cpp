// Reader of streamserver.conf into a map of owned, wiped value buffers.
//
// Values can hold the encrypted pass phrase, so no value text is ever copied
// into a std::string: the key/value split works in fixed scratch arrays that
// are wiped when the reader leaves, and the tokens are extracted through a
// stream that reads the arrays in place.
#include "Internal/OvraStream/StreamConfig/SecureConfig.h"

#include <safe_mem_lib.h>

#include <cctype>
#include <cstring>
#include <exception>
#include <iomanip>
#include <istream>
#include <locale>
#include <memory>
#include <new>
#include <streambuf>
#include <type_traits>

#include "OvraBase/FileUtils.h"
#include "OvraBase/Log.h"
#include "ResultCode/ResultCode.h"

OVRA_LOG_UNIT("src/include/Internal/OvraStream/StreamConfig/SecureConfig");

namespace OvraStream {
namespace {

using OvraBase::APP_ERR_CONFIG_INVALID;
using OvraBase::APP_ERR_GENERAL_FAILED;
using OvraBase::APP_ERR_INVALID_PARAM;
using OvraBase::APP_ERR_NOT_EXIST;
using OvraBase::APP_ERR_OK;

constexpr uint32_t BUFFER_SIZE = SecureConfig::VALUE_BUFFER_SIZE;
// getline with BUFFER_SIZE stores at most this many bytes; a line that fills
// the buffer is over-long.
constexpr std::streamsize LINE_LIMIT = BUFFER_SIZE - 1;
constexpr uint32_t CONFIG_FILE_MODE = 0600;

// Zeroes every byte through a volatile pointer so that the stores survive the
// release that follows.
void WipeBytes(char* buffer, size_t size)
{
    volatile char* cursor = buffer;
    for (size_t i = 0; i < size; ++i) {
        cursor[i] = 0;
    }
}

// Owner of one value buffer until the map takes it over: wiped and freed when
// it is dropped (duplicate key, exception on the way).
struct ValueBufferDelete {
    void operator()(char* buffer) const
    {
        WipeBytes(buffer, BUFFER_SIZE);
        delete[] buffer;
    }
};
using ValueBuffer = std::unique_ptr<char[], ValueBufferDelete>;

// A fixed scratch array that is wiped whatever way the reader leaves.
struct ScratchBuffer {
    char data[BUFFER_SIZE];
    ScratchBuffer() { WipeBytes(data, sizeof(data)); }
    ~ScratchBuffer() { WipeBytes(data, sizeof(data)); }
    ScratchBuffer(const ScratchBuffer&) = delete;
    ScratchBuffer& operator=(const ScratchBuffer&) = delete;
};

// Read-only stream buffer over text that stays where it is (no copy).
class ArrayReadBuffer : public std::streambuf {
public:
    ArrayReadBuffer(const char* text, size_t length)
    {
        char* begin = const_cast<char*>(text);
        setg(begin, begin, begin + length);
    }
};

// Input stream over text in place, with the classic locale's white space and
// number formats whatever the process locale is.
class ArrayInput {
public:
    ArrayInput(const char* text, size_t length) : buffer_(text, length), stream_(&buffer_)
    {
        stream_.imbue(std::locale::classic());
    }
    std::istream& Stream() { return stream_; }

private:
    ArrayReadBuffer buffer_;
    std::istream stream_;
};

}  // namespace

int32_t SecureConfig::LoadConfig(std::string path)
{
    std::string canonical;
    if (!OvraBase::FileUtils::RegularFilePath(path, canonical, false)) {
        OVRA_RETURN_ERROR("Failed to get canonicalized file path.", APP_ERR_INVALID_PARAM);
    }
    if (!OvraBase::FileUtils::IsFileValid(canonical, true) ||
        !OvraBase::FileUtils::ConstrainPermission(canonical, CONFIG_FILE_MODE, true)) {
        OVRA_RETURN_ERROR("Config file is an invalid file.", APP_ERR_INVALID_PARAM);
    }
    std::ifstream stream(canonical);
    if (!stream.is_open()) {
        OVRA_RETURN_ERROR("Open config file failed!", APP_ERR_CONFIG_INVALID);
    }
    int32_t result = APP_ERR_OK;
    try {
        result = ReadConfig(stream);
    } catch (const std::exception&) {
        stream.close();
        OVRA_RETURN_ERROR("Read config file failed!", APP_ERR_GENERAL_FAILED);
    }
    stream.close();
    if (result != APP_ERR_OK) {
        OVRA_LOG_ERROR("The line num has exceeded or the line length has exceeded, or the new value memory failed.");
        OVRA_RETURN_ERROR("Read config file failed!", result);
    }
    return APP_ERR_OK;
}

int32_t SecureConfig::ReadConfig(std::ifstream& stream)
{
    ScratchBuffer line;
    ScratchBuffer keyPart;
    ScratchBuffer valuePart;
    int32_t lineCount = 0;
    while (stream.good()) {
        if (++lineCount > MAX_LINES) {
            return APP_ERR_CONFIG_INVALID;
        }
        if (memset_s(line.data, BUFFER_SIZE, 0, BUFFER_SIZE) != 0 ||
            memset_s(keyPart.data, BUFFER_SIZE, 0, BUFFER_SIZE) != 0 ||
            memset_s(valuePart.data, BUFFER_SIZE, 0, BUFFER_SIZE) != 0) {
            OVRA_RETURN_ERROR("Call memset_s failed.", APP_ERR_CONFIG_INVALID);
        }
        stream.getline(line.data, BUFFER_SIZE, '\n');
        const std::streamsize consumed = stream.gcount();
        if (consumed < 2) {
            continue;
        }
        // The delimiter was consumed exactly when the stream is still good.
        const std::streamsize lineLength = stream.good() ? consumed - 1 : consumed;
        if (lineLength >= LINE_LIMIT) {
            if (memset_s(line.data, BUFFER_SIZE, 0, BUFFER_SIZE) != 0) {
                OVRA_LOG_ERROR_CODE("Call memset_s failed.", APP_ERR_CONFIG_INVALID);
            }
            return APP_ERR_CONFIG_INVALID;
        }

        char* comment = std::strchr(line.data, '#');
        if (comment != nullptr) {
            *comment = '\0';
        }
        const char* separator = std::strchr(line.data, '=');
        if (separator == nullptr) {
            continue;
        }
        const size_t keyLength = static_cast<size_t>(separator - line.data);
        const size_t valueLength = std::strlen(separator + 1);
        if ((keyLength > 0 && memcpy_s(keyPart.data, BUFFER_SIZE, line.data, keyLength) != 0) ||
            (valueLength > 0 && memcpy_s(valuePart.data, BUFFER_SIZE, separator + 1, valueLength) != 0)) {
            OVRA_RETURN_ERROR("Call memcpy_s failed.", APP_ERR_CONFIG_INVALID);
        }

        ValueBuffer value(new (std::nothrow) char[BUFFER_SIZE]);
        if (value == nullptr) {
            return APP_ERR_GENERAL_FAILED;
        }
        if (memset_s(value.get(), BUFFER_SIZE, 0, BUFFER_SIZE) != 0) {
            OVRA_RETURN_ERROR("Call memset_s failed.", APP_ERR_GENERAL_FAILED);
        }

        std::string key;
        ArrayInput keyInput(keyPart.data, keyLength);
        keyInput.Stream() >> key;
        ArrayInput valueInput(valuePart.data, valueLength);
        valueInput.Stream() >> std::setw(static_cast<int>(BUFFER_SIZE)) >> value.get();

        if (configMap_.find(key) == configMap_.end()) {
            configMap_.emplace(std::move(key), value.get());
            (void)value.release();
        }
        // A later occurrence of a key is dropped: its buffer is wiped and freed here.
    }
    return APP_ERR_OK;
}

template <typename T>
int32_t SecureConfig::GetValue(const std::string& key, T& value) const
{
    const auto entry = configMap_.find(key);
    if (entry == configMap_.end()) {
        OVRA_LOG_WARN("Can't find key in config file!");
        return APP_ERR_NOT_EXIST;
    }
    const T previous = value;
    const char* text = entry->second;

    if constexpr (std::is_same_v<T, bool>) {
        // Lower-case copy so that "true"/"false" convert in any case.
        ScratchBuffer lowered;
        size_t length = 0;
        if (text != nullptr) {
            length = strnlen(text, BUFFER_SIZE - 1);
            for (size_t i = 0; i < length; ++i) {
                lowered.data[i] = static_cast<char>(std::tolower(static_cast<unsigned char>(text[i])));
            }
        }
        ArrayInput input(lowered.data, length);
        if (text == nullptr) {
            input.Stream().setstate(std::ios_base::badbit);
        }
        input.Stream() >> std::boolalpha >> value;
        if (input.Stream().fail()) {
            value = previous;
            OVRA_LOG_WARN("Convert bool config value failed!");
            return APP_ERR_INVALID_PARAM;
        }
    } else {
        ArrayInput input(text, text == nullptr ? 0 : strnlen(text, BUFFER_SIZE - 1));
        if (text == nullptr) {
            input.Stream().setstate(std::ios_base::badbit);
        }
        input.Stream() >> value;
        if (input.Stream().fail()) {
            value = previous;
            OVRA_LOG_WARN("Convert config value failed!");
            return APP_ERR_INVALID_PARAM;
        }
    }
    return APP_ERR_OK;
}

bool SecureConfig::HasKey(const std::string& key) const
{
    if (configMap_.find(key) == configMap_.end()) {
        OVRA_LOG_ERROR_CODE("Can't find " << key << " in config file!", APP_ERR_GENERAL_FAILED);
        return false;
    }
    return true;
}

void SecureConfig::ClearConfig()
{
    for (auto& entry : configMap_) {
        if (entry.second != nullptr) {
            WipeBytes(entry.second, BUFFER_SIZE);
            delete[] entry.second;
            entry.second = nullptr;
        }
    }
    configMap_.clear();
}

template int32_t SecureConfig::GetValue<int32_t>(const std::string&, int32_t&) const;
template int32_t SecureConfig::GetValue<int64_t>(const std::string&, int64_t&) const;
template int32_t SecureConfig::GetValue<uint32_t>(const std::string&, uint32_t&) const;
template int32_t SecureConfig::GetValue<bool>(const std::string&, bool&) const;

}  // namespace OvraStream
