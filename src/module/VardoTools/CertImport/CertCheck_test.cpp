// Date edges of the input checks that a whole run cannot set up: a time equal
// to now, and a date that X509_cmp_current_time cannot compare.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ImportChecks.h"
#include "InProcess.h"
#include "TestPki.h"

namespace VardoTest {
namespace {

// A time that decodes (a past instant with fractional seconds) but compares as 0, an error.
void SetUncomparable(ASN1_TIME* time)
{
    ASSERT_EQ(ASN1_TIME_set_string(time, "20200101000000.5Z"), 1);
    ASSERT_EQ(X509_cmp_current_time(time), 0);
}

// A certificate is inside its validity period from its start second, no longer at its end second, never when a date
// cannot be compared.
TEST(CertCheckTest, CertificateTimeBoundaries)
{
    struct Case {
        const char* name;
        long notBefore, notAfter;
        ASN1_TIME* (*uncomparable)(const X509*);
        bool outside;
    };
    const std::vector<Case> cases = {
        {"start equal to now", 0, 3600, nullptr, false},
        {"end equal to now", -3600, 0, nullptr, true},
        {"start cannot be compared", -3600, 3600, X509_getm_notBefore, true},
        {"end cannot be compared", -3600, 3600, X509_getm_notAfter, true},
    };
    for (const Case& c : cases) {
        CertSpec recipe = ServerSpec();
        recipe.notBeforeOffset = c.notBefore;
        recipe.notAfterOffset = c.notAfter;
        const Cert cert = MakeCert(recipe);
        if (c.uncomparable != nullptr) {
            SetUncomparable(c.uncomparable(cert.get()));
        }
        EXPECT_EQ(OvraStream::CheckCertTime(cert.get()), c.outside) << c.name;
    }
}

// A revocation list date that cannot be compared is let through, unlike a certificate's.
TEST(CertCheckTest, RevocationListDatesThatCannotBeComparedPass)
{
    const CertSpec caSpec = CaSpec();
    const Cert ca = MakeCert(caSpec);
    const ScratchDir dir;
    WriteCertPem(ca, dir / "ca.crt");
    for (auto* setDate : {X509_CRL_set1_lastUpdate, X509_CRL_set1_nextUpdate}) {
        const Crl crl = MakeCrl(CrlSpec(), ca, caSpec.key);
        const std::unique_ptr<ASN1_TIME, void (*)(ASN1_TIME*)> date(ASN1_TIME_new(), ASN1_TIME_free);
        SetUncomparable(date.get());
        ASSERT_EQ(setDate(crl.get(), date.get()), 1);
        ASSERT_GT(X509_CRL_sign(crl.get(), caSpec.key.get(), EVP_sha256()), 0);
        WriteCrlPem(crl, dir / "ca.crl");
        RecordCapture capture;
        EXPECT_EQ(OvraStream::CheckCrlMatchingCrt(dir / "ca.crt", dir / "ca.crl"), 0);
        EXPECT_EQ(capture.Tagged(), std::vector<std::string>{"WThe revoke list is empty"});
    }
}

}  // namespace
}  // namespace VardoTest
