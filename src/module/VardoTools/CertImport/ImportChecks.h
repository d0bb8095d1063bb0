// The import command's steps: pass phrase rules, input checks and placement.
//
//   pass phrase rules                  PasswordRules.cpp
//   revocation list                    CrlCheck.cpp
//   server key and pass phrase         ServerKeyCheck.cpp
//   certificates and fingerprint,
//   the rule for the operator's files  CertCheck.cpp
//   placing files in ./keys            KeysPlacement.cpp
//
// Each step logs its own records (unit "src/module/VardoTools/CertImport/main")
// and returns 0 on success.
#ifndef VARDO_TOOLS_CERT_IMPORT_IMPORT_CHECKS_H
#define VARDO_TOOLS_CERT_IMPORT_IMPORT_CHECKS_H

#include <openssl/x509.h>

#include <cstdint>
#include <string>

namespace OvraStream {

// true when the pass phrase has 8..100 bytes, no control characters, nothing
// from 0x7F up, and two of lower, upper, digit, symbol. Logs the specific
// record of a broken rule (the caller adds "Invalid input password.").
bool CheckPasswordRules(const char* passPhrase);

// The rule for the certificates and the revocation list the operator hands
// in: `path` resolves (into `resolvedPath`) to a valid file that the running
// user owns. No record of its own.
bool IsOwnValidFile(const std::string& path, std::string& resolvedPath);

// Revocation list against the CA certificate: 0, 1001, 1020 or 1029.
int32_t CheckCrlMatchingCrt(const std::string& caCrtPath, const std::string& crlPath);

// Encrypted PEM key that the pass phrase opens: 0 or 1004.
int32_t CheckServerKey(const char* passPhrase, const std::string& serverKeyPath);

// Both certificates, with the operator's confirmation of the CA fingerprint
// read from standard input: 0 or 1004.
int32_t CheckCrtFiles(const std::string& caCrtPath, const std::string& serverCrtPath);
int32_t CheckCaCrtFingerprint(X509* caCert);
// true when `cert` is outside its validity period or its dates are unreadable.
bool CheckCertTime(X509* cert);
int32_t CheckServerCrtAlgorithm(X509* serverCert);

// Copies the inputs to ./keys/{ca.crt,server.crt,server.key[,ca.crl]}, 0400.
int32_t CopyFilesToKeys(const std::string& caCrtPath, const std::string& serverCrtPath,
                        const std::string& serverKeyPath, const std::string& crlPath);
int32_t CopyToKeys(const std::string& sourcePath, const std::string& destinationPath);

}  // namespace OvraStream

#endif  // VARDO_TOOLS_CERT_IMPORT_IMPORT_CHECKS_H
