// The key tool: reaches the key-management engine and the stream server's
// configuration file for the import command and for the stream server.
//
//   object, record filling, wipes   VardoTools.cpp
//   key store start-up              KeyStoreStartup.cpp
//   pass phrase encryption          PassPhraseEncrypt.cpp
//   pass phrase decryption          PassPhraseDecrypt.cpp
//   configuration location, keys    ConfigLocation.cpp
//   configuration rewrite           ConfigRewrite.cpp
//   recovery copy of the rewrite    ConfigRecovery.cpp
#ifndef VARDO_TOOLS_CERT_IMPORT_VARDO_TOOLS_H
#define VARDO_TOOLS_CERT_IMPORT_VARDO_TOOLS_H

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <map>
#include <string>

#include "Internal/OvraStream/StreamConfig/SecureConfig.h"
#include "OvraBase/Export.h"
#include "VardoKms/VardoKms.h"

namespace OvraStream {

// Lines and line prefixes of streamserver.conf that the rewrite produces.
OVRA_EXPORT extern const std::string CA_KEY_KV;       // "server_key_mm="
OVRA_EXPORT extern const std::string SERVER_KEY_KEY;  // "server_key="
OVRA_EXPORT extern const std::string SERVER_KEY_KV;   // "server_key=./keys/server.key"
OVRA_EXPORT extern const std::string CA_CRT_KEY;      // "ca_crt="
OVRA_EXPORT extern const std::string CA_CRT_KV;       // "ca_crt=./keys/ca.crt"
OVRA_EXPORT extern const std::string SERVER_CRT_KEY;  // "server_crt="
OVRA_EXPORT extern const std::string SERVER_CRT_KV;   // "server_crt=./keys/server.crt"
OVRA_EXPORT extern const std::string CA_CRL_KEY;      // "crl="
OVRA_EXPORT extern const std::string CA_CRL_KV;       // "crl=./keys/ca.crl"

// Key store files, relative to the SDK directory that holds keys.
OVRA_EXPORT extern const std::string PRIMARY_KSF_PATH;  // "./keys/vardo.ks"
OVRA_EXPORT extern const std::string STANDBY_KSF_PATH;  // "./keys/StandbyKsf.ks"
// The keys directory.
OVRA_EXPORT extern const std::string KEYS_DIRECTORY;    // "./keys"

// Longest server_key_mm value (base64 cipher text) the key tool accepts, both
// from the configuration file and for decryption.
inline constexpr size_t MAX_CIPHER_TEXT_LENGTH = 400;

// Line table of the rewrite: line number (from 0) to an owned 1001-byte buffer.
using LineTable = std::map<int32_t, char*>;

class OVRA_EXPORT VardoTools : public SecureConfig {
public:
    // Empty map, algorithmId 0, empty serverCfgFile, storedCipherLength 0.
    VardoTools();
    // Releases serverCfgFile and the map's nodes; value buffers are released
    // only by ClearConfig (every EncryptInit path does so).
    ~VardoTools();

    // ---- key store start-up ----
    // Fills `config` for the engine with the key store paths and algorithm. 0 or 1007.
    int32_t VardoInit(TagVardoConfig& config, int32_t algorithmId);
    // true when the key store at `path` may be used (also when it is missing).
    bool CheckKsValid(const std::string& path);
    // 0 when `id` is 8 or 9, else 1004.
    int32_t CheckPaskId(int32_t id);
    // Locates and loads the configuration, reads the settings, starts the
    // engine. 0 (engine running: end it with SeFinalize), 1001, or LoadConfig's code.
    int32_t EncryptInit(TagVardoConfig& config);

    // ---- pass phrase ----
    // Encrypts `passPhraseLength` bytes of `passPhrase` and writes the cipher
    // text and the file paths into the configuration. 0, 1001 or 1021.
    int32_t EncryptCaPassword(const char* passPhrase, int32_t passPhraseLength, int32_t crlFlag);
    // Decrypts a server_key_mm value of the configuration (base64, at most
    // 400 characters) made with pask_algorithm_id `algorithmId` (8 or 9) back
    // into the pass phrase. The configuration file itself is not read.
    //
    // The caller provides: a working directory that is the SDK directory
    // holding keys, whose key stores ./keys/vardo.ks and ./keys/StandbyKsf.ks
    // an import made; a process running as the user who owns them; each store
    // a regular file (not a link) of that user within mode 0600.
    //
    // The call starts the security engine on the two stores (SeInitialize)
    // and stops it again (SeFinalize) before it returns, so it fails with
    // 1001 ("VARDO SeInitialize failed.") while an engine already runs in the
    // process, and the engine's System V semaphore lives only during the
    // call. Starting the engine opens and locks ./keys/vardo.ks.lock (created
    // with mode 0600 when missing) and, as every start does, rebuilds a
    // missing or damaged store from the healthy other one. When neither store
    // exists the call fails with 1001 before the engine starts and creates
    // nothing: no empty stores, no lock file.
    //
    // Result: 0, with *plainText a new array of plainLength =
    // strlen(cipherText) + 1 bytes holding the zero-terminated pass phrase;
    // 1007 when that array cannot be allocated; 1001 for every other failure.
    // Each failure is logged. Whenever *plainText was set, also when the call
    // failed after allocating it (it is wiped then), the caller owns the array
    // and releases it with ResetDeleteCharArray(*plainText, plainLength).
    int32_t DecryptCaPassword(const char* cipherText, char** plainText, unsigned long& plainLength,
                              int32_t algorithmId);

    // ---- wipes ----
    // Zeroes the text of `buffer` up to its first zero byte (at most maxLength).
    static void ResetCharArray(char* buffer, unsigned long maxLength);
    // ResetCharArray, then delete[] buffer.
    static void ResetDeleteCharArray(char* buffer, unsigned long maxLength);

    // ---- configuration location and keys directory ----
    // Finds $OVRA_SDK_HOME/config/streamserver.conf into serverCfgFile. 0, 1001, 1004.
    int32_t GetConfigFile();
    // Canonical, valid form of serverCfgFile into `path`. 0 or 1004.
    int32_t CheckConfigFileAndAssign(std::string& path);
    // Creates ./keys (0700) or checks its owner and mode. 0, 1001, 1010.
    int32_t CheckDirectoryKeys();

    // ---- configuration rewrite ----
    // Rewrites the configuration once in `mode` (<= 0: server_key_mm value;
    // 1: paths and "crl="; >= 2: paths and "crl=./keys/ca.crl").
    // 0, 1004, 1010, 1019, 1020.
    int32_t ModifyCaKey(const char* cipher, int32_t cipherLen, int32_t mode);
    // Reads the lines of `stream` into `table`, rewriting matching lines. 0, 1001, 1021.
    int32_t ReadFileToMap(std::ifstream& stream, LineTable& table, const char* cipher, int32_t cipherLen,
                          int32_t mode);
    // Replaces `line` in place when it is a path line. 0 or 1001.
    int32_t WritePaths(char* line, uint32_t size, int32_t mode);
    // Overwrites an old server_key_mm value of `num` characters three times. 0 or 1021.
    int32_t WritePreparation(int32_t num, int32_t mode);

    // ---- recovery copy of the configuration (ConfigRecovery.cpp) ----
    // Looks for the recovery copy that an interrupted import leaves beside
    // the configuration file at `configPath`. When the configuration is empty
    // or lacks lines of the copy (or either file cannot be used), writes one
    // ERROR record naming both files and the command that restores it, and
    // returns false; true when there is no copy or the configuration is whole.
    static bool CheckConfigRecovery(const std::string& configPath);

    int32_t algorithmId;
    std::string serverCfgFile;
    uint64_t storedCipherLength;

private:
    // Loads serverCfgFile, requires the keys the import rewrites, keeps the
    // stored cipher text's length and the algorithm id, and wipes the values
    // again. 0, 1001, or LoadConfig's code.
    int32_t ReadSettings();
};

// Wipes (up to the first zero byte, at most maxLen) and frees every buffer of
// `table`, then empties it.
OVRA_EXPORT void ClearConfigMap(LineTable& table, uint32_t maxLen);

}  // namespace OvraStream

#endif  // VARDO_TOOLS_CERT_IMPORT_VARDO_TOOLS_H
