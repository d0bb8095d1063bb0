/*
 * Key-management engine: C interface.
 *
 * The engine keeps master keys for numbered key domains in two key store files
 * (primary and standby, same content) and protects data with AES-GCM under a
 * domain's master key. One engine runs per process, between VeInitialize and
 * VeFinalize. docs/key-engine.md gives the design: algorithms, sizes, file
 * format, locking and recovery.
 *
 * Every function returns 0 (VE_OK) on success or one of the VE_ERR_* codes
 * below, except VardoGetMkCountByDomain, which returns a count or a negated
 * VE_ERR_* code.
 */
#ifndef VARDO_KMS_VARDO_KMS_H
#define VARDO_KMS_VARDO_KMS_H

#include <stddef.h>
#include <stdint.h>

#include "OvraBase/Export.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * The record that starts the engine. Fixed binary layout of 8244 bytes in
 * native byte order; the offsets are asserted below.
 */
typedef struct TagVardoConfig {
    char primaryKsfPath[4096];  /* primary key store file, NUL-terminated */
    char standbyKsfPath[4096];  /* standby key store file, NUL-terminated */
    int32_t optionWord0;        /* see VE_OPTION0_* */
    int32_t optionWord1;        /* see VE_OPTION1_* */
    int32_t semPermission;      /* mode bits of the engine's System V semaphore: at most 0777,
                                   with owner read and write (0600) set */
    int32_t paskAlgorithmId;    /* algorithm the caller uses: VE_ALG_AES128_GCM or VE_ALG_AES256_GCM
                                   (checked; each PaskEncryptEx call names its own) */
    int32_t optionWord2;        /* see VE_OPTION2_* */
    int32_t semKey;             /* System V key of the engine's semaphore set, not 0 */
    uint8_t zeroBlock[16];      /* reserved, zero */
    int32_t zeroWord0;          /* reserved, zero */
    int32_t zeroWord1;          /* reserved, zero */
    uint16_t zeroHalf;          /* reserved, zero */
} TagVardoConfig;

#ifdef __cplusplus
#define VARDO_KMS_STATIC_ASSERT(cond, msg) static_assert(cond, msg)
#else
#define VARDO_KMS_STATIC_ASSERT(cond, msg) _Static_assert(cond, msg)
#endif
VARDO_KMS_STATIC_ASSERT(sizeof(TagVardoConfig) == 8244, "TagVardoConfig is 8244 bytes");
VARDO_KMS_STATIC_ASSERT(offsetof(TagVardoConfig, primaryKsfPath) == 0, "primaryKsfPath at 0");
VARDO_KMS_STATIC_ASSERT(offsetof(TagVardoConfig, standbyKsfPath) == 4096, "standbyKsfPath at 4096");
VARDO_KMS_STATIC_ASSERT(offsetof(TagVardoConfig, optionWord0) == 8192, "optionWord0 at 8192");
VARDO_KMS_STATIC_ASSERT(offsetof(TagVardoConfig, optionWord1) == 8196, "optionWord1 at 8196");
VARDO_KMS_STATIC_ASSERT(offsetof(TagVardoConfig, semPermission) == 8200, "semPermission at 8200");
VARDO_KMS_STATIC_ASSERT(offsetof(TagVardoConfig, paskAlgorithmId) == 8204, "paskAlgorithmId at 8204");
VARDO_KMS_STATIC_ASSERT(offsetof(TagVardoConfig, optionWord2) == 8208, "optionWord2 at 8208");
VARDO_KMS_STATIC_ASSERT(offsetof(TagVardoConfig, semKey) == 8212, "semKey at 8212");
VARDO_KMS_STATIC_ASSERT(offsetof(TagVardoConfig, zeroBlock) == 8216, "zeroBlock at 8216");
VARDO_KMS_STATIC_ASSERT(offsetof(TagVardoConfig, zeroWord0) == 8232, "zeroWord0 at 8232");
VARDO_KMS_STATIC_ASSERT(offsetof(TagVardoConfig, zeroWord1) == 8236, "zeroWord1 at 8236");
VARDO_KMS_STATIC_ASSERT(offsetof(TagVardoConfig, zeroHalf) == 8240, "zeroHalf at 8240");

/* Data-protection algorithms. */
#define VE_ALG_AES128_GCM 8
#define VE_ALG_AES256_GCM 9

/* Result codes of the engine (documented in docs/key-engine.md). */
#define VE_OK 0
#define VE_ERR_NOT_INITIALIZED 8001     /* called before VeInitialize or after VeFinalize */
#define VE_ERR_ALREADY_INITIALIZED 8002 /* VeInitialize twice without VeFinalize */
#define VE_ERR_INVALID_CONFIG 8003      /* the record is malformed */
#define VE_ERR_INVALID_PARAM 8004       /* null pointer, bad length, bad algorithm or domain */
#define VE_ERR_STORE_IO 8005            /* a key store could not be read or written */
#define VE_ERR_STORE_DAMAGED 8006       /* both key store copies are damaged */
#define VE_ERR_STORE_UNSAFE 8007        /* a store is a link, of another owner, or wider than 0600 */
#define VE_ERR_LOCK 8008                /* semaphore set exists already or cannot be made, or a lock cannot be taken */
#define VE_ERR_CRYPTO 8009              /* an OpenSSL primitive failed */
#define VE_ERR_AUTH 8010                /* cipher text failed authentication (tampered, wrong domain) */
#define VE_ERR_BUFFER_TOO_SMALL 8011    /* output capacity below the needed size */
#define VE_ERR_UNKNOWN_KEY 8012         /* no master key with the cipher text's id in its domain */
#define VE_ERR_FORMAT 8013              /* cipher text truncated or of an unknown format version */
#define VE_ERR_NO_MEMORY 8014           /* allocation failed */
#define VE_ERR_MK_LIMIT 8015            /* a domain (or the store) cannot hold more master keys */
#define VE_ERR_INTERNAL 8016            /* unexpected internal failure */

/*
 * Option words of the record. Each accepts only the values listed; any other
 * value makes VeInitialize fail with VE_ERR_INVALID_CONFIG.
 *
 * optionWord0: key store format family the caller expects. Only
 *   VE_OPTION0_STORE_FORMAT_V3 exists, and callers keep passing it: with it
 *   the engine reads store images of format 3 and 4 and writes format 4 (the
 *   same layout with a faster MAC), so a format 3 store becomes format 4 at
 *   its next change.
 * optionWord1: what encryption does in a domain without a master key.
 *   VE_OPTION1_NO_AUTO_CREATE: fail with VE_ERR_UNKNOWN_KEY (keys are then made
 *   only by VeCheckAndUpdateMk). VE_OPTION1_AUTO_CREATE_MK: create the domain's
 *   first master key, store it in both copies, then encrypt.
 * optionWord2: guarantees the caller requires, as a bit field. Every bit of
 *   VE_OPTION2_REQUIRED must be set and no other bit may be: the engine has no
 *   mode without them, and a record asking for less is refused rather than
 *   silently given more.
 */
#define VE_OPTION0_STORE_FORMAT_V3 3
#define VE_OPTION1_NO_AUTO_CREATE 0
#define VE_OPTION1_AUTO_CREATE_MK 1
#define VE_OPTION2_DURABLE_WRITES 0x002  /* temp file, fsync, rename, fsync of the directory */
#define VE_OPTION2_REPAIR_COPIES 0x004   /* rebuild a missing or damaged copy from the healthy one */
#define VE_OPTION2_STRICT_FILES 0x800    /* refuse links, other owners and modes wider than 0600 */
#define VE_OPTION2_REQUIRED (VE_OPTION2_DURABLE_WRITES | VE_OPTION2_REPAIR_COPIES | VE_OPTION2_STRICT_FILES) /* 2054 */

/* Master key lifetime: a new master key expires this many days after creation. */
#define VE_MK_LIFETIME_DAYS 180
/* Most master keys one domain holds; VeCheckAndUpdateMk refuses beyond. */
#define VE_MAX_MK_PER_DOMAIN 1000
/* Most key domains one store holds. */
#define VE_MAX_DOMAINS 1024
/* Bytes a cipher text adds to its plain text: 24-byte header + 16-byte tag. */
#define VE_CIPHER_OVERHEAD 40
/* Largest plain text accepted, so that every cipher length fits a signed 32-bit value. */
#define VE_MAX_PLAIN_LENGTH (0x7FFFFFFF - VE_CIPHER_OVERHEAD)

/*
 * Starts the engine with `config`: validates the record (VE_ERR_INVALID_CONFIG;
 * null: VE_ERR_INVALID_PARAM), creates the System V semaphore set for
 * config->semKey with config->semPermission (VE_ERR_LOCK when it exists),
 * opens "<primary>.lock", and under the locks opens the key stores: creates
 * both when both are missing, rebuilds a missing, damaged or older copy from
 * the healthy one (logged), refuses with VE_ERR_STORE_DAMAGED when no copy is
 * healthy and with VE_ERR_STORE_UNSAFE when a copy is a link, of another
 * owner or wider than 0600. On failure nothing is left behind: no semaphore
 * set, no lock, no half-written store. VE_ERR_ALREADY_INITIALIZED when the
 * engine of this process runs already.
 */
OVRA_EXPORT int32_t VeInitialize(const TagVardoConfig* config);

/* Stops the engine: wipes every key in memory and releases the locks.
 * The semaphore set is removed by the caller (the security service). */
OVRA_EXPORT int32_t VeFinalize(void);

/* Creates a new active master key (lifetime VE_MK_LIFETIME_DAYS) for
 * `domainId` when the domain has none or its active key expires within
 * `advanceDays` days; an advance of VE_MK_LIFETIME_DAYS or more always renews.
 * Older keys stay for decryption. Both store copies are rewritten before the
 * new key is used. VE_ERR_MK_LIMIT beyond VE_MAX_MK_PER_DOMAIN keys. */
OVRA_EXPORT int32_t VeCheckAndUpdateMk(uint32_t domainId, uint32_t advanceDays);

/* VeCheckAndUpdateMk that also hands back, in *activeKeyId, the id of the
 * domain's active master key as this call left it: the key it made when it
 * made one. The id is read under the same locks as the change, so processes
 * that renew at once each learn their own key. VE_ERR_INVALID_PARAM for a
 * null `activeKeyId`; unchanged on failure. */
OVRA_EXPORT int32_t VeCheckAndUpdateMkEx(uint32_t domainId, uint32_t advanceDays, uint32_t* activeKeyId);

/* What `code` (VE_OK or a VE_ERR_* code) means, in a few words, for an
 * operator's message; "unknown code" for any other number. Never null. */
OVRA_EXPORT const char* VeErrorText(int32_t code);

/* Size of the cipher text that encrypting `plainLength` bytes produces:
 * plainLength + VE_CIPHER_OVERHEAD. VE_ERR_INVALID_PARAM above
 * VE_MAX_PLAIN_LENGTH or for a null `cipherLength`. */
OVRA_EXPORT int32_t VeGetCipherDataLen(uint32_t plainLength, uint32_t* cipherLength);

/* Replaces the root key material with fresh random bytes and re-wraps every
 * master key under it; every cipher text stays decryptable. */
OVRA_EXPORT int32_t VeUpdateRootKey(void);

/* Number of master keys of `domainId` (0 when none), after reading the
 * stores again, or a negated VE_ERR_* code. */
OVRA_EXPORT int32_t VardoGetMkCountByDomain(uint32_t domainId);

/* Same as VeGetCipherDataLen, for the data-protection interface. */
OVRA_EXPORT int32_t PaskGetCipherDataLenEx(uint32_t plainLength, uint32_t* cipherLength);

/* Encrypts `plain` under the active master key of `domainId` with
 * `algorithmId` (VE_ALG_AES128_GCM or VE_ALG_AES256_GCM; else
 * VE_ERR_INVALID_PARAM), creating the domain's first key when optionWord1
 * allows (else VE_ERR_UNKNOWN_KEY). On entry *cipherLength is the capacity of
 * `cipher` (VE_ERR_BUFFER_TOO_SMALL below the size VeGetCipherDataLen gives),
 * on success the size written; unchanged on failure. `plain` and `cipher`
 * must not overlap; `plain` may be null when `plainLength` is 0. */
OVRA_EXPORT int32_t PaskEncryptEx(uint32_t domainId, uint32_t algorithmId, const uint8_t* plain, uint32_t plainLength,
                      uint8_t* cipher, uint32_t* cipherLength);

/* Decrypts a cipher text of PaskEncryptEx made in `domainId`. On entry
 * *plainLength is the capacity of `plain` (VE_ERR_BUFFER_TOO_SMALL below
 * cipherLength - VE_CIPHER_OVERHEAD), on success the size written; unchanged
 * on failure. VE_ERR_FORMAT for a truncated text or an unknown format,
 * VE_ERR_AUTH for a text of another domain or one that fails authentication,
 * VE_ERR_UNKNOWN_KEY when its master key is not in the stores. Never writes
 * to `plain` unless the cipher text authenticates. */
OVRA_EXPORT int32_t PaskDecryptEx(uint32_t domainId, const uint8_t* cipher, uint32_t cipherLength, uint8_t* plain,
                      uint32_t* plainLength);

#ifdef __cplusplus
}
#endif

#endif /* VARDO_KMS_VARDO_KMS_H */
