// The configuration reader over any file: it fails with 1019 exactly when the
// file breaks the limits (more than 100 lines, a line of 1000 bytes or more),
// and otherwise holds exactly the settings that the file's rules give, worked
// out here independently: per line, text up to a zero byte or "#", split at
// the first "=", key and value each the first white-space token, first
// occurrence of a key wins, lines of fewer than two bytes read are skipped.
#include <cstring>
#include <map>

#include "FuzzSupport.h"
#include "Internal/OvraStream/StreamConfig/SecureConfig.h"

namespace {

const char WHITE_SPACE[] = " \t\n\v\f\r";

struct Reader : OvraStream::SecureConfig {
    const std::map<std::string, char*>& Settings() const { return configMap_; }
};

std::string FirstToken(const std::string& text)
{
    const std::size_t begin = text.find_first_not_of(WHITE_SPACE);
    return begin == std::string::npos ? "" : text.substr(begin, text.find_first_of(WHITE_SPACE, begin) - begin);
}

// The expected settings, or false when the file must be refused.
bool Expected(const std::string& text, std::map<std::string, std::string>& settings)
{
    const std::vector<std::string> lines = VardoFuzz::Lines(text);
    for (std::size_t i = 0; i < lines.size(); ++i) {
        const bool last = i + 1 == lines.size();
        // One read per line; after a final line feed the last, empty "line" is the read that finds the end.
        if (i >= 100 || lines[i].size() >= 1000) {
            return false;
        }
        if (lines[i].size() + (last ? 0 : 1) < 2) {
            continue;
        }
        std::string line(lines[i].c_str());  // up to a zero byte
        line = line.substr(0, line.find('#'));
        const std::size_t separator = line.find('=');
        if (separator != std::string::npos) {
            settings.emplace(FirstToken(line.substr(0, separator)), FirstToken(line.substr(separator + 1)));
        }
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    VardoFuzz::QuietLogs();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string path = VardoFuzz::ScratchDirectory() + "/streamserver.conf";
    VardoFuzz::WriteFile(path, data, size);
    Reader reader;
    const int32_t result = reader.LoadConfig(path);
    std::map<std::string, std::string> expected;
    const bool accepted = Expected(std::string(reinterpret_cast<const char*>(data), size), expected);
    FUZZ_CHECK(result == (accepted ? 0 : 1019));
    if (accepted) {
        FUZZ_CHECK(reader.Settings().size() == expected.size());
        for (const auto& [key, value] : reader.Settings()) {
            FUZZ_CHECK(expected.count(key) == 1 && expected[key] == value);
        }
    }
    reader.ClearConfig();
    return 0;
}
