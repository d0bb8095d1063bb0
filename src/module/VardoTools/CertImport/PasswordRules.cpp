// The strength rules of the operator's pass phrase.
#include <cstdint>
#include <cstring>

#include "ImportChecks.h"
#include "OvraBase/Log.h"
#include "ResultCode/ResultCode.h"

OVRA_LOG_UNIT("src/module/VardoTools/CertImport/main");

namespace OvraStream {

namespace {

constexpr uint32_t PASS_PHRASE_MIN_LENGTH = 8;
constexpr uint32_t PASS_PHRASE_MAX_LENGTH = 100;
// Bound of the second measurement: one more than the longest allowed.
constexpr size_t PASS_PHRASE_MEASURE_BOUND = 101;
constexpr int REQUIRED_CLASSES = 2;

enum class ByteClass { Lower, Upper, Digit, Symbol, Control, OutOfRange };

ByteClass Classify(unsigned char c)
{
    if (c <= 0x1F) {
        return ByteClass::Control;
    }
    if (c >= 0x7F) {
        return ByteClass::OutOfRange;
    }
    if (c >= '0' && c <= '9') {
        return ByteClass::Digit;
    }
    if (c >= 'A' && c <= 'Z') {
        return ByteClass::Upper;
    }
    if (c >= 'a' && c <= 'z') {
        return ByteClass::Lower;
    }
    // Everything else printable, the blank included, is a symbol.
    return ByteClass::Symbol;
}

}  // namespace

bool CheckPasswordRules(const char* passPhrase)
{
    if (passPhrase == nullptr) {
        return false;
    }
    const int32_t length = static_cast<int32_t>(std::strlen(passPhrase));
    // One unsigned comparison covers both bounds: below 8 wraps to a huge value.
    if (length == 0 ||
        static_cast<uint32_t>(length) - PASS_PHRASE_MIN_LENGTH > PASS_PHRASE_MAX_LENGTH - PASS_PHRASE_MIN_LENGTH) {
        OVRA_LOG_ERROR_CODE("Invalid password length.", OvraBase::APP_ERR_INVALID_PARAM);
        return false;
    }
    // Measure again with a hard bound, so the scan below can never run past
    // what the length rule accepted.
    const size_t measured = strnlen(passPhrase, PASS_PHRASE_MEASURE_BOUND);
    if (measured == PASS_PHRASE_MEASURE_BOUND || measured != static_cast<size_t>(length)) {
        return false;
    }

    bool hasLower = false;
    bool hasUpper = false;
    bool hasDigit = false;
    bool hasSymbol = false;
    for (size_t i = 0; i < measured; ++i) {
        switch (Classify(static_cast<unsigned char>(passPhrase[i]))) {
            case ByteClass::Lower:
                hasLower = true;
                break;
            case ByteClass::Upper:
                hasUpper = true;
                break;
            case ByteClass::Digit:
                hasDigit = true;
                break;
            case ByteClass::Symbol:
                hasSymbol = true;
                break;
            case ByteClass::Control:
                OVRA_LOG_ERROR_CODE("Invalid password character.", OvraBase::APP_ERR_INVALID_PARAM);
                return false;
            case ByteClass::OutOfRange:
                // Refused without a record of its own; the caller's general one follows.
                return false;
        }
    }

    const int classes = int{hasLower} + int{hasUpper} + int{hasDigit} + int{hasSymbol};
    if (classes < REQUIRED_CLASSES) {
        OVRA_LOG_ERROR_CODE("Password is too weak, it should contain two of the lower characters, upper characters, "
                            "digitals and symbols.",
                            OvraBase::APP_ERR_INVALID_PARAM);
        return false;
    }
    return true;
}

}  // namespace OvraStream
