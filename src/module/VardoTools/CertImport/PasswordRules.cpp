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

// The classes a strong pass phrase mixes come first, so that they can index
// a table of the classes seen.
enum class ByteClass { Lower, Upper, Digit, Symbol, Control, OutOfRange };
constexpr int STRENGTH_CLASSES = 4;

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

// How many of lower, upper, digit and symbol the `length` bytes hold, into
// `classes`. false at the first byte that no class admits: a control
// character (with its record) or one from 0x7F up (without a record of its
// own; the caller's general one follows).
bool CountClasses(const char* passPhrase, size_t length, int& classes)
{
    bool seen[STRENGTH_CLASSES] = {};
    for (size_t i = 0; i < length; ++i) {
        const ByteClass byteClass = Classify(static_cast<unsigned char>(passPhrase[i]));
        if (byteClass == ByteClass::Control) {
            OVRA_LOG_ERROR_CODE("Invalid password character.", OvraBase::APP_ERR_INVALID_PARAM);
            return false;
        }
        if (byteClass == ByteClass::OutOfRange) {
            return false;
        }
        seen[static_cast<int>(byteClass)] = true;
    }
    classes = 0;
    for (const bool present : seen) {
        classes += present ? 1 : 0;
    }
    return true;
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

    int classes = 0;
    if (!CountClasses(passPhrase, measured, classes)) {
        return false;
    }
    if (classes < REQUIRED_CLASSES) {
        OVRA_LOG_ERROR_CODE("Password is too weak, it should contain two of the lower characters, upper characters, "
                            "digitals and symbols.",
                            OvraBase::APP_ERR_INVALID_PARAM);
        return false;
    }
    return true;
}

}  // namespace OvraStream
