// Reading the imported TLS material as the stream server's start-up does,
// without changing anything on disk.
#include "Material.h"

#include <dirent.h>
#include <openssl/bio.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/pem.h>

#include <cstdlib>
#include <cstring>

#include "OvraBase/FileUtils.h"
#include "VardoKms/KeyStoreReport.h"
#include "VardoKms/VardoKms.h"
#include "VardoTools.h"

namespace VardoTlsCheck {
namespace {

struct BioFree {
    void operator()(BIO* bio) const { BIO_free(bio); }
};
using BioPtr = std::unique_ptr<BIO, BioFree>;

// The key tool, with read access to the values its reader loaded; they are
// wiped and released when it goes (or earlier, by ClearConfig).
class ConfigReader : public OvraStream::VardoTools {
public:
    ~ConfigReader() { ClearConfig(); }
    ConfigReader() = default;
    ConfigReader(const ConfigReader&) = delete;
    ConfigReader& operator=(const ConfigReader&) = delete;

    // The value of `key`, or null when the file has no such line.
    const char* Value(const std::string& key) const
    {
        const auto entry = configMap_.find(key);
        return entry == configMap_.end() ? nullptr : entry->second;
    }
};

// The decrypted pass phrase: the key tool's array, wiped in full and released
// by Release() or at the latest when it goes.
class PassPhrase {
public:
    PassPhrase() = default;
    ~PassPhrase() { Release(); }
    PassPhrase(const PassPhrase&) = delete;
    PassPhrase& operator=(const PassPhrase&) = delete;

    char** Out() { return &text_; }
    unsigned long& Length() { return length_; }
    char* Text() const { return text_; }
    void Release()
    {
        if (text_ != nullptr) {
            OPENSSL_cleanse(text_, length_);
        }
        OvraStream::VardoTools::ResetDeleteCharArray(text_, length_);
        text_ = nullptr;
        length_ = 0;
    }

private:
    char* text_ = nullptr;
    unsigned long length_ = 0;
};

const char* const IMPORT_HINT = ": import the material again with certImport.sh";

bool Refuse(std::string& problem, const std::string& text)
{
    problem = text;
    return false;
}

// The settings the stream server starts from: the four paths, the list path
// (may be empty) and the algorithm id. The cipher text stays in `config`.
bool ReadConfiguration(ConfigReader& config, Material& material, int32_t& algorithmId, std::string& problem)
{
    if (std::getenv("OVRA_SDK_HOME") == nullptr) {
        return Refuse(problem, "OVRA_SDK_HOME is not set: set it to the SDK root");
    }
    if (config.GetConfigFile() != 0) {
        return Refuse(problem, "no usable $OVRA_SDK_HOME/config/streamserver.conf: it must be a regular file of "
                               "this user with mode 0600 or narrower");
    }
    const std::string& file = config.serverCfgFile;
    // An interrupted import may have left the file incomplete beside its
    // recovery copy; the library's record names the command that restores it.
    if (!OvraStream::VardoTools::CheckConfigRecovery(file)) {
        return Refuse(problem, file + " is incomplete after an interrupted import: restore it from its recovery copy "
                                      "as the record below says");
    }
    if (config.LoadConfig(file) != 0) {
        return Refuse(problem, "cannot read " + file);
    }
    const struct {
        const char* key;
        std::string* path;
    } settings[] = {{"server_crt", &material.serverCrtPath},
                    {"ca_crt", &material.caPath},
                    {"server_key", &material.serverKeyPath},
                    {"server_key_mm", nullptr},
                    {"crl", &material.crlPath}};
    for (const auto& setting : settings) {
        const char* value = config.Value(setting.key);
        const bool mayBeEmpty = setting.path == &material.crlPath;
        if (value == nullptr || (value[0] == '\0' && !mayBeEmpty)) {
            return Refuse(problem, file + " names no " + setting.key + IMPORT_HINT);
        }
        if (setting.path != nullptr) {
            *setting.path = value;
        }
    }
    if (config.GetValue("pask_algorithm_id", algorithmId) != 0 || config.CheckPaskId(algorithmId) != 0) {
        return Refuse(problem, file + " has no pask_algorithm_id of 8 or 9");
    }
    return true;
}

// Temporary files ".NAME.XXXXXX" that an interrupted store write left beside
// the store at `path`: the next engine start removes them.
bool FindStaleTemporary(const std::string& path, std::string& found)
{
    const std::string prefix = "." + path.substr(path.rfind('/') + 1) + ".";
    DIR* listing = opendir(OvraStream::KEYS_DIRECTORY.c_str());
    if (listing == nullptr) {
        return false;
    }
    while (const struct dirent* entry = readdir(listing)) {
        const std::string name = entry->d_name;
        if (name.size() == prefix.size() + 6 && name.compare(0, prefix.size(), prefix) == 0) {
            found = OvraStream::KEYS_DIRECTORY + "/" + name;
            break;
        }
    }
    closedir(listing);
    return !found.empty();
}

// The stores must be exactly as an engine start leaves them, so that the
// decryption's engine start finds nothing to create, rebuild or remove.
bool CheckKeyStores(Material& material, std::string& problem)
{
    using VardoKms::CopyHealth;
    VardoKms::CopyReport primary;
    VardoKms::CopyReport standby;
    const int32_t rc = VardoKms::InspectKeyStores(OvraStream::PRIMARY_KSF_PATH, OvraStream::STANDBY_KSF_PATH,
                                                  VardoKms::ReportDetail::KEY_LIST, primary, standby);
    if (rc != VE_OK) {
        return Refuse(problem, "cannot read the key stores in ./keys (key engine code " + std::to_string(rc) + ")");
    }
    if (primary.health == CopyHealth::MISSING && standby.health == CopyHealth::MISSING) {
        return Refuse(problem, "no key stores in ./keys: nothing can decrypt server_key_mm (a key engine started "
                               "here would make new, empty ones)" + std::string(IMPORT_HINT));
    }
    for (const VardoKms::CopyReport* copy : {&primary, &standby}) {
        if (copy->health != CopyHealth::HEALTHY) {
            const bool rebuilt = copy->health == CopyHealth::MISSING || copy->health == CopyHealth::DAMAGED;
            return Refuse(problem, "key store " + copy->path + " is " + VardoKms::HealthText(copy->health) +
                                       (rebuilt ? ": the next key engine start would rebuild it from the other copy"
                                                : ": the key engine cannot use it") +
                                       "; see vardo-keys verify");
        }
    }
    if (primary.generation != standby.generation) {
        return Refuse(problem, "the key store copies are of different generations: the next key engine start would "
                               "rebuild the older one; see vardo-keys verify");
    }
    const std::string lockFile = OvraStream::PRIMARY_KSF_PATH + ".lock";
    if (!OvraBase::FileUtils::CheckFileExists(lockFile)) {
        return Refuse(problem, lockFile + " is missing: a key engine started here would create it");
    }
    std::string stale;
    if (FindStaleTemporary(OvraStream::PRIMARY_KSF_PATH, stale) ||
        FindStaleTemporary(OvraStream::STANDBY_KSF_PATH, stale)) {
        return Refuse(problem, stale + " is left from an interrupted key store write: the next key engine start "
                                       "would remove it");
    }
    for (const VardoKms::MasterKeyReport& key : primary.keys) {
        if (key.active) {
            material.masterKeys.push_back({key.domainId, key.keyId, key.expires});
        }
    }
    return true;
}

BioPtr OpenFile(const std::string& path, const char* what, std::string& problem)
{
    BioPtr file(BIO_new_file(path.c_str(), "r"));
    if (!file) {
        problem = std::string("cannot open the ") + what + " " + path;
    }
    return file;
}

bool ReadCertificate(const std::string& path, const char* what, CertPtr& cert, std::string& problem)
{
    const BioPtr file = OpenFile(path, what, problem);
    if (!file) {
        return false;
    }
    cert.reset(PEM_read_bio_X509(file.get(), nullptr, nullptr, nullptr));
    return cert ? true
                : Refuse(problem, std::string("the ") + what + " " + path + " does not parse as a PEM certificate");
}

bool ReadCrl(Material& material, std::string& problem)
{
    if (material.crlPath.empty()) {
        return true;
    }
    const BioPtr file = OpenFile(material.crlPath, "revocation list", problem);
    if (!file) {
        return false;
    }
    material.crl.reset(PEM_read_bio_X509_CRL(file.get(), nullptr, nullptr, nullptr));
    return material.crl ? true
                        : Refuse(problem, "the revocation list " + material.crlPath + " does not parse as a PEM CRL");
}

// Decrypts server_key_mm and opens the server key with it; the pass phrase is
// wiped as soon as the key is read. A key that does not open is left null
// for the checks to report.
bool OpenServerKey(ConfigReader& config, int32_t algorithmId, Material& material, std::string& problem)
{
    const BioPtr file = OpenFile(material.serverKeyPath, "server key", problem);
    if (!file) {
        return false;
    }
    PassPhrase passPhrase;
    if (config.DecryptCaPassword(config.Value("server_key_mm"), passPhrase.Out(), passPhrase.Length(), algorithmId) !=
        0) {
        return Refuse(problem, "server_key_mm does not decrypt with the key stores in ./keys" +
                                   std::string(IMPORT_HINT));
    }
    // No callback: OpenSSL's default one takes the user data as the pass phrase.
    material.key.reset(PEM_read_bio_PrivateKey(file.get(), nullptr, nullptr, passPhrase.Text()));
    passPhrase.Release();
    return true;
}

}  // namespace

bool ReadMaterial(Material& material, std::string& problem)
{
    if (!OvraBase::FileUtils::CheckDirectoryExists(OvraStream::KEYS_DIRECTORY)) {
        return Refuse(problem, "no keys directory ./keys here: run from the SDK directory that holds it "
                               "(tools/VardoTools/CertImport)");
    }
    ConfigReader config;
    int32_t algorithmId = 0;
    const bool read = ReadConfiguration(config, material, algorithmId, problem) &&
                      CheckKeyStores(material, problem) &&
                      ReadCertificate(material.caPath, "CA certificate", material.ca, problem) &&
                      ReadCertificate(material.serverCrtPath, "server certificate", material.server, problem) &&
                      ReadCrl(material, problem) && OpenServerKey(config, algorithmId, material, problem);
    config.ClearConfig();
    ERR_clear_error();
    return read;
}

}  // namespace VardoTlsCheck
