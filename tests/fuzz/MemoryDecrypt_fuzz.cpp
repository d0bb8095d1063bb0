// Decryption in base64 with a running engine: only an authentic text
// decrypts. The engine starts once, in a scratch directory, and encrypts one
// secret; each input is either a cipher text of its own (first byte even) or
// a change laid over the authentic text by exclusive or (first byte odd, the
// rest the mask). A text decrypts only when its bytes are the authentic ones,
// then to the secret; otherwise the caller's buffer stays untouched.
#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "FuzzSupport.h"
#include "SecurityService.h"
#include "VardoTools.h"

namespace {

const std::string SECRET = "fuzzing pass phrase 1";
TagVardoConfig g_record;
std::string g_authenticText;   // base64
std::string g_authenticBytes;  // what it decodes to

std::string Decoded(const std::string& text)
{
    char* bytes = nullptr;
    uint32_t length = 0;
    if (DecodeWithBase64(text.data(), static_cast<uint32_t>(text.size()), &bytes, &length) != 0) {
        return "";
    }
    std::string out(bytes, length);
    ResetFreeBase64CipherMemory(bytes, length);
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    VardoFuzz::QuietLogs();
    // The key tool's record, on key stores in the scratch directory.
    const std::string keys = VardoFuzz::ScratchDirectory() + "/keys";
    OvraStream::VardoTools tool;
    FUZZ_CHECK(mkdir(keys.c_str(), 0700) == 0 && tool.VardoInit(g_record, VE_ALG_AES256_GCM) == 0);
    std::snprintf(g_record.primaryKsfPath, sizeof(g_record.primaryKsfPath), "%s/vardo.ks", keys.c_str());
    std::snprintf(g_record.standbyKsfPath, sizeof(g_record.standbyKsfPath), "%s/StandbyKsf.ks", keys.c_str());
    FUZZ_CHECK(SeInitialize(&g_record) == 0);
    std::atexit([] { (void)SeFinalize(&g_record); });
    const EncryptParam params{VE_ALG_AES256_GCM, 0};
    std::string text(512, '\0');
    uint32_t length = static_cast<uint32_t>(text.size());
    FUZZ_CHECK(PaskMemEncryptBase64(&params, SECRET.data(), SECRET.size(), text.data(), &length) == 0);
    g_authenticText = text.substr(0, length);
    g_authenticBytes = Decoded(g_authenticText);
    std::string plain(SECRET.size() + 1, '\0');
    FUZZ_CHECK(PaskMemDecryptBase64(0, g_authenticText.data(), length, plain.data(), plain.size()) == 0 &&
               plain == SECRET + '\0');
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0) {
        return 0;
    }
    std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
    if (data[0] % 2 == 1) {
        std::string mask = text;
        text = g_authenticText;
        for (size_t i = 0; i < mask.size() && i < text.size(); ++i) {
            text[i] = static_cast<char>(text[i] ^ mask[i]);
        }
    }
    std::string plain(256, '\0');
    const int32_t result = PaskMemDecryptBase64(0, text.data(), static_cast<uint32_t>(text.size()), plain.data(),
                                                static_cast<uint32_t>(plain.size()));
    if (result == 0) {
        FUZZ_CHECK(Decoded(text) == g_authenticBytes);
        FUZZ_CHECK(plain == SECRET + std::string(plain.size() - SECRET.size(), '\0'));
    } else {
        FUZZ_CHECK(plain == std::string(plain.size(), '\0'));
    }
    return 0;
}
