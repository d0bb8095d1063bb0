// Result codes of the SDK as this tool uses them.
//
// Every fallible operation returns a signed 32-bit code; 0 is success in every
// family. The common family (base 1000) has a message table; the base library's
// GetErrorInfo() turns a common code into its text. The security service's codes
// (6004..6036) have no table: they are returned and passed up as numbers only.
#ifndef VARDO_RESULT_CODE_RESULT_CODE_H
#define VARDO_RESULT_CODE_RESULT_CODE_H

#include <cstdint>
#include <string>

namespace OvraBase {

// ---- Common family -------------------------------------------------------
constexpr int32_t APP_ERR_OK = 0;
constexpr int32_t APP_ERR_COMMON_BASE = 1000;
constexpr int32_t APP_ERR_GENERAL_FAILED = 1001;   // a library, file or key-store operation failed
constexpr int32_t APP_ERR_INVALID_PARAM = 1004;    // bad argument or failed validation of input
constexpr int32_t APP_ERR_ALLOC_FAILED = 1007;     // allocation, bounds-checked fill or copy failed
constexpr int32_t APP_ERR_NO_PERMISSION = 1010;    // wrong owner or permission, chmod failed
constexpr int32_t APP_ERR_NOT_EXIST = 1016;        // key not found in the configuration file
constexpr int32_t APP_ERR_CONFIG_INVALID = 1019;   // configuration file cannot be opened or parsed
constexpr int32_t APP_ERR_READ_FAILED = 1020;      // a file cannot be read
constexpr int32_t APP_ERR_WRITE_FAILED = 1021;     // a file or buffer cannot be (over)written
constexpr int32_t APP_ERR_INVALID_PATH = 1029;     // invalid path or not a regular file

// Message table of the common family: row k is the text of code 1000 + k for
// k <= 16; from 1017 on the codes run one ahead of the rows (see GetErrorInfo).
// Like every SDK message table it is a namespace-scope array defined in this
// header, so each unit that includes it holds its own copy.
const std::string APP_ERR_COMMON_MSG[] = {
    "Success",
    "General Failed",
    "Internal error",
    "Invalid Pointer",
    "Invalid parameter",
    "Not implemented",
    "Out of memory",
    "memory allocation error",
    "free memory error",
    "out of range",
    "NO Permission ",
    "Timed out",
    "Not initialized",
    "initialize failed",
    "Operation now in progress ",
    "Object, file or other resource already exist",
    "Object, file or other resource doesn't exist",
    "Object, file or other resource is in use",
    "No available Device or resource",
    "Device, file or resource read failed",
    "Device, file or resource write failed",
    "Device, file or resource destroy failed",
    "Fail to exit",
    "Out of connection, Communication shutdown",
    "connection fail",
    "The stream handle of the accelerator runtime is null",
    "Logging config loading failed",
    "SDK_HOME not set",
    "Invalid path",
    "Repeat initialize",
};
constexpr int32_t APP_ERR_COMMON_ROWS = 30;
constexpr int32_t APP_ERR_COMMON_LAST = 1030;      // codes 1000..1030 have a text

// ---- Security service ----------------------------------------------------
constexpr int32_t SE_ERR_CIPHER_LENGTH = 6004;     // engine reported a negative cipher length
constexpr int32_t SE_ERR_PLAIN_LENGTH = 6006;      // engine reported a negative plain length
constexpr int32_t SE_ERR_RESOURCE = 6008;          // BIO or buffer could not be made, final copy failed
constexpr int32_t SE_ERR_INVALID_PARAM = 6009;     // invalid parameter or length out of bounds
constexpr int32_t SE_ERR_BASE64_FLUSH = 6021;      // flushing the base64 encoder failed
constexpr int32_t SE_ERR_NO_SEMKEY = 6026;         // no free semaphore key in the searched range
constexpr int32_t SE_ERR_MK_LIMIT = 6027;          // the domain already has 100 master keys
constexpr int32_t SE_ERR_ENCRYPT = 6032;           // the engine's encryption failed
constexpr int32_t SE_ERR_DECRYPT = 6033;           // the engine's decryption failed
constexpr int32_t SE_ERR_BASE64_ENCODE = 6034;     // base64 encoding of the cipher text failed
constexpr int32_t SE_ERR_BASE64_DECODE = 6035;     // base64 decoding of the input failed
constexpr int32_t SE_ERR_MEMCPY = 6036;            // copying encoded text out of the sink failed

}  // namespace OvraBase

#endif  // VARDO_RESULT_CODE_RESULT_CODE_H
