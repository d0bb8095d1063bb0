// Reader of streamserver.conf: key = value lines into a map of wiped buffers.
//
// File rules: at most 100 lines of at most 999 bytes; the first "#" starts a
// comment; the first "=" splits key from value; key and value are each their
// first white-space token; the first occurrence of a key wins. Every value lives
// in its own zeroed 1001-byte buffer that is wiped before it is freed.
#ifndef OVRA_STREAM_STREAM_CONFIG_SECURE_CONFIG_H
#define OVRA_STREAM_STREAM_CONFIG_SECURE_CONFIG_H

#include <cstdint>
#include <fstream>
#include <map>
#include <string>

#include "OvraBase/Export.h"

namespace OvraStream {

class OVRA_EXPORT SecureConfig {
public:
    // Size of every value buffer (and of the reader's line buffers).
    static constexpr uint32_t VALUE_BUFFER_SIZE = 1001;
    // Most lines a configuration file may have.
    static constexpr int32_t MAX_LINES = 100;

    SecureConfig() = default;
    // Releases the map's nodes only; value buffers are wiped and released by
    // ClearConfig, which the owner calls when it is done with the values.
    ~SecureConfig() = default;
    SecureConfig(const SecureConfig&) = delete;
    SecureConfig& operator=(const SecureConfig&) = delete;

    // Adds the settings of the file at `path` to the map (keys already present
    // keep their values). 0, 1004 (path or file invalid, mode beyond 0600),
    // 1019 (cannot open, too many or too long lines), 1001.
    int32_t LoadConfig(std::string path);

    // Reads the lines of an opened stream into the map. 0, 1001 or 1019.
    int32_t ReadConfig(std::ifstream& stream);

    // Converts the value of `key` into `value` (integer types and bool; a bool
    // accepts "true"/"false" in any case). 0; 1016 when the key is absent; 1004
    // when the text does not convert. On failure `value` keeps its old value.
    template <typename T>
    int32_t GetValue(const std::string& key, T& value) const;

    // true when `key` is in the map; logs the missing key otherwise.
    bool HasKey(const std::string& key) const;

    // Wipes and frees every value buffer and empties the map.
    void ClearConfig();

protected:
    std::map<std::string, char*> configMap_;
};

extern template int32_t SecureConfig::GetValue<int32_t>(const std::string&, int32_t&) const;
extern template int32_t SecureConfig::GetValue<int64_t>(const std::string&, int64_t&) const;
extern template int32_t SecureConfig::GetValue<uint32_t>(const std::string&, uint32_t&) const;
extern template int32_t SecureConfig::GetValue<bool>(const std::string&, bool&) const;

}  // namespace OvraStream

#endif  // OVRA_STREAM_STREAM_CONFIG_SECURE_CONFIG_H
