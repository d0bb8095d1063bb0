// Edges of the import steps that a whole run cannot reach: the pass phrase
// rules byte by byte (a terminal would interpret some of these bytes), and
// certificate times equal to now or that X509_cmp_current_time cannot compare.
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "ImportChecks.h"
#include "Records.h"
#include "TestPki.h"

namespace VardoTest {
namespace {

// Length bounds, the edges of every byte class, strength, and the ERROR records each refusal writes.
TEST(PasswordRulesTest, RulesAndTheirRecords)
{
    const std::string length = Err("Invalid password length.", 1004);
    const std::string character = Err("Invalid password character.", 1004);
    const std::string weak = Err("Password is too weak, it should contain two of the lower characters, "
                                 "upper characters, digitals and symbols.", 1004);
    const std::vector<std::tuple<std::string, bool, std::vector<std::string>>> cases = {
        {"", false, {length}},
        {"Abcdef1", false, {length}},
        {"Abcdefg1", true, {}},
        {"A" + std::string(98, 'b') + "1", true, {}},
        {"A" + std::string(99, 'b') + "1", false, {length}},
        {std::string(120, 'a'), false, {length}},  // length is judged before strength
        {"abcdefgh", false, {weak}},
        {"abcdefg ", true, {}},
        {"ABCDEFG1", true, {}},
        // each class alone, with both ends of its range, is too weak
        {"azazazaz", false, {weak}},
        {"AZAZAZAZ", false, {weak}},
        {"09090909", false, {weak}},
        {" /:@[`{~", false, {weak}},
        {"abc\tdefG1", false, {character}},
        {"abcdefG1\x1f", false, {character}},
        {"abcd\x7f" "efG1", false, {}},
        {"abcd\x80" "efG1", false, {}},
        {"abcdefg\xff", false, {}},
        {"abc\x80\tdefG1", false, {}},  // the scan stops at the first refused byte
        {"abc\t\x80" "defG1", false, {character}},
    };
    for (const auto& [passPhrase, accepted, records] : cases) {
        SCOPED_TRACE(::testing::PrintToString(passPhrase));
        RecordCapture capture;
        EXPECT_EQ(OvraStream::CheckPasswordRules(passPhrase.c_str()), accepted);
        EXPECT_EQ(capture.Tagged(), records);
        for (const auto& record : capture.records) {
            EXPECT_EQ(record.unit, "src/module/VardoTools/CertImport/main");
        }
    }
}


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
