// The base64 buffers over any input: decoding any text either fails or hands
// back a block whose data is followed by the promised zero byte (read here,
// so a block one byte short is caught by the address sanitizer); encoding
// any bytes gives one line of base64, terminated, that decodes back to them.
#include <cstring>
#include <string>

#include "FuzzSupport.h"
#include "SecurityService.h"

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    VardoFuzz::QuietLogs();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const char* input = reinterpret_cast<const char*>(data);
    char* bytes = nullptr;
    uint32_t length = 0;
    if (DecodeWithBase64(input, static_cast<uint32_t>(size), &bytes, &length) == 0) {
        FUZZ_CHECK(length >= 1 && length <= size * 3 / 4 + 1);
        FUZZ_CHECK(bytes[length] == '\0');
        ResetFreeBase64CipherMemory(bytes, length);
    }

    if (size == 0 || size > BASE64_ENCODE_INPUT_MAX) {
        return 0;
    }
    char* text = nullptr;
    uint32_t textLength = 0;
    FUZZ_CHECK(EncodeWithBase64(input, static_cast<uint32_t>(size), &text, &textLength) == 0);
    FUZZ_CHECK(textLength == (size + 2) / 3 * 4 && text[textLength] == '\0');
    FUZZ_CHECK(std::strspn(text, "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/=") == textLength);
    FUZZ_CHECK(DecodeWithBase64(text, textLength, &bytes, &length) == 0);
    FUZZ_CHECK(length == size && std::memcmp(bytes, data, size) == 0 && bytes[length] == '\0');
    ResetFreeBase64CipherMemory(bytes, length);
    ResetFreeBase64CipherMemory(text, textLength);
    return 0;
}
