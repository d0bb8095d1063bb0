// Reader of streamserver.conf into a map of owned, wiped value buffers.
//
// Values can hold the encrypted pass phrase, so no value text is ever copied
// into a std::string: the key/value split works in fixed scratch arrays that
// are wiped when the reader leaves, and the tokens are extracted through a
// stream that reads the arrays in place.
#include "Internal/OvraStream/StreamConfig/SecureConfig.h"

#include <openssl/crypto.h>
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
#include "basic/SecretBuffer.h"

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
constexpr size_t STREAM_BUFFER_SIZE = 4096;

// A scratch array of the reader (a line, its key part, its value part): wiped
// when it is made and whatever way the reader leaves.
using Scratch = OvraBase::Basic::SecretArray<BUFFER_SIZE>;

char* Chars(Scratch& scratch)
{
    return reinterpret_cast<char*>(scratch.Data());
}

// How every value buffer goes: all of its bytes zeroed, then freed.
void WipeAndDeleteValue(char* value)
{
    OPENSSL_cleanse(value, BUFFER_SIZE);
    delete[] value;
}

// Owner of one value buffer until the map takes it over: wiped and freed when
// it is dropped (duplicate key, exception on the way).
struct ValueBufferDelete {
    void operator()(char* value) const { WipeAndDeleteValue(value); }
};
using ValueBuffer = std::unique_ptr<char[], ValueBufferDelete>;

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

enum class LineSplit { Setting, NoSetting, CopyFailed };

// Cuts `line` at its first "#" and copies the text before its first "=" into
// `keyPart` and the text after it into `valuePart` (both zeroed).
LineSplit SplitSetting(char* line, char* keyPart, size_t& keyLength, char* valuePart, size_t& valueLength)
{
    char* comment = std::strchr(line, '#');
    if (comment != nullptr) {
        *comment = '\0';
    }
    const char* separator = std::strchr(line, '=');
    if (separator == nullptr) {
        return LineSplit::NoSetting;
    }
    keyLength = static_cast<size_t>(separator - line);
    valueLength = std::strlen(separator + 1);
    if ((keyLength > 0 && memcpy_s(keyPart, BUFFER_SIZE, line, keyLength) != 0) ||
        (valueLength > 0 && memcpy_s(valuePart, BUFFER_SIZE, separator + 1, valueLength) != 0)) {
        return LineSplit::CopyFailed;
    }
    return LineSplit::Setting;
}

// Adds the first white-space token of `keyPart` with the first token of
// `valuePart` in a new value buffer, unless the key is there already: the
// first occurrence wins, and a later one's buffer is wiped and freed at once.
// 0, or 1001 when no value buffer could be had (the map keeps what it has).
int32_t AddSetting(std::map<std::string, char*>& settings, const char* keyPart, size_t keyLength,
                   const char* valuePart, size_t valueLength)
{
    ValueBuffer value(new (std::nothrow) char[BUFFER_SIZE]);
    if (value == nullptr) {
        return APP_ERR_GENERAL_FAILED;
    }
    if (memset_s(value.get(), BUFFER_SIZE, 0, BUFFER_SIZE) != 0) {
        OVRA_RETURN_ERROR("Call memset_s failed.", APP_ERR_GENERAL_FAILED);
    }

    std::string key;
    ArrayInput keyInput(keyPart, keyLength);
    keyInput.Stream() >> key;
    ArrayInput valueInput(valuePart, valueLength);
    valueInput.Stream() >> std::setw(static_cast<int>(BUFFER_SIZE)) >> value.get();

    if (settings.find(key) == settings.end()) {
        settings.emplace(std::move(key), value.get());
        (void)value.release();
    }
    return APP_ERR_OK;
}

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
    // The stream reads through a buffer of ours, wiped when this returns: it
    // holds the raw file, the stored cipher text among it.
    OvraBase::Basic::SecretArray<STREAM_BUFFER_SIZE> streamBuffer;
    std::ifstream stream;
    stream.rdbuf()->pubsetbuf(reinterpret_cast<char*>(streamBuffer.Data()),
                              static_cast<std::streamsize>(streamBuffer.Size()));
    stream.open(canonical);
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
    Scratch line;
    Scratch keyPart;
    Scratch valuePart;
    int32_t lineCount = 0;
    while (stream.good()) {
        if (++lineCount > MAX_LINES) {
            return APP_ERR_CONFIG_INVALID;
        }
        if (memset_s(line.Data(), BUFFER_SIZE, 0, BUFFER_SIZE) != 0 ||
            memset_s(keyPart.Data(), BUFFER_SIZE, 0, BUFFER_SIZE) != 0 ||
            memset_s(valuePart.Data(), BUFFER_SIZE, 0, BUFFER_SIZE) != 0) {
            OVRA_RETURN_ERROR("Call memset_s failed.", APP_ERR_CONFIG_INVALID);
        }
        stream.getline(Chars(line), BUFFER_SIZE, '\n');
        const std::streamsize consumed = stream.gcount();
        if (consumed < 2) {
            continue;
        }
        // The delimiter was consumed exactly when the stream is still good.
        const std::streamsize lineLength = stream.good() ? consumed - 1 : consumed;
        if (lineLength >= LINE_LIMIT) {
            if (memset_s(line.Data(), BUFFER_SIZE, 0, BUFFER_SIZE) != 0) {
                OVRA_LOG_ERROR_CODE("Call memset_s failed.", APP_ERR_CONFIG_INVALID);
            }
            return APP_ERR_CONFIG_INVALID;
        }

        size_t keyLength = 0;
        size_t valueLength = 0;
        const LineSplit split = SplitSetting(Chars(line), Chars(keyPart), keyLength, Chars(valuePart), valueLength);
        if (split == LineSplit::NoSetting) {
            continue;
        }
        if (split == LineSplit::CopyFailed) {
            OVRA_RETURN_ERROR("Call memcpy_s failed.", APP_ERR_CONFIG_INVALID);
        }
        const int32_t added = AddSetting(configMap_, Chars(keyPart), keyLength, Chars(valuePart), valueLength);
        if (added != APP_ERR_OK) {
            return added;
        }
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
        Scratch lowered;
        size_t length = 0;
        if (text != nullptr) {
            length = strnlen(text, BUFFER_SIZE - 1);
            for (size_t i = 0; i < length; ++i) {
                lowered.Data()[i] = static_cast<uint8_t>(std::tolower(static_cast<unsigned char>(text[i])));
            }
        }
        ArrayInput input(Chars(lowered), length);
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
            WipeAndDeleteValue(entry.second);
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
