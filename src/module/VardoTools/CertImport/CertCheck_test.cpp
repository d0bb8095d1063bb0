// Date edges of the certificate check that a whole run cannot set up: a time
// equal to now, and a date that X509_cmp_current_time cannot compare.
#include <gtest/gtest.h>

#include <vector>

#include "ImportChecks.h"
#include "TestPki.h"

namespace VardoTest {
namespace {

// A certificate is inside its validity period from its start second, no longer at its end second, never when a date
// cannot be compared (a revocation list's such date passes: see the end-to-end list cases).
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
        ASSERT_TRUE(c.uncomparable == nullptr || SetUncomparable(c.uncomparable(cert.get()))) << c.name;
        EXPECT_EQ(OvraStream::CheckCertTime(cert.get()), c.outside) << c.name;
    }
}

}  // namespace
}  // namespace VardoTest
