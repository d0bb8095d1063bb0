// The configuration rewrite over any file, mode and cipher text: a call
// either fails and leaves the file byte for byte as it was, or succeeds and
// keeps every line it does not rewrite byte for byte, rewriting the others
// exactly as the mode says. It must fail exactly when the file breaks the
// limits: more than 100 lines, a line of 1000 bytes or more, a zero byte.
// Input: one byte of mode (0..3), one byte of cipher length, the cipher text
// (taken into the base64 alphabet), then the file.
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "VardoTools.h"

namespace {

const char ALPHABET[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/=";

bool StartsWith(const std::string& line, const std::string& prefix)
{
    return line.compare(0, prefix.size(), prefix) == 0;
}

// What `line` becomes in `mode`.
std::string Rewritten(const std::string& line, int32_t mode, const std::string& cipher)
{
    using namespace OvraStream;
    if (mode <= 0) {
        return StartsWith(line, CA_KEY_KV) ? CA_KEY_KV + cipher : line;
    }
    for (const auto& [prefix, replacement] : {std::pair{SERVER_CRT_KEY, SERVER_CRT_KV}, {CA_CRT_KEY, CA_CRT_KV},
                                              {SERVER_KEY_KEY, SERVER_KEY_KV},
                                              {CA_CRL_KEY, mode >= 2 ? CA_CRL_KV : CA_CRL_KEY}}) {
        if (StartsWith(line, prefix)) {
            return replacement;
        }
    }
    return line;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    VardoFuzz::QuietLogs();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 2 || size < 2u + data[1]) {
        return 0;
    }
    const int32_t mode = data[0] % 4;
    std::string cipher;
    for (size_t i = 0; i < data[1]; ++i) {
        cipher += ALPHABET[data[2 + i] % (sizeof(ALPHABET) - 1)];
    }
    const std::string before(reinterpret_cast<const char*>(data) + 2 + data[1], size - 2 - data[1]);
    const std::string path = VardoFuzz::ScratchDirectory() + "/streamserver.conf";
    VardoFuzz::WriteFile(path, reinterpret_cast<const uint8_t*>(before.data()), before.size());

    OvraStream::VardoTools tool;
    tool.serverCfgFile = path;
    const int32_t result = tool.ModifyCaKey(mode <= 0 ? cipher.data() : nullptr,
                                            static_cast<int32_t>(cipher.size()), mode);
    const std::string after = VardoFuzz::ReadFile(path);
    const std::vector<std::string> lines = VardoFuzz::Lines(before);
    bool refused = lines.size() > 100;
    for (const std::string& line : lines) {
        refused = refused || line.size() >= 1000 || line.find('\0') != std::string::npos;
    }
    FUZZ_CHECK(result == (refused ? 1020 : 0));
    if (result != 0) {
        FUZZ_CHECK(after == before);
        return 0;
    }
    std::string expected;
    for (size_t i = 0; i < lines.size(); ++i) {
        expected += (i == 0 ? "" : "\n") + Rewritten(lines[i], mode, cipher);
    }
    FUZZ_CHECK(after == expected);
    return 0;
}
