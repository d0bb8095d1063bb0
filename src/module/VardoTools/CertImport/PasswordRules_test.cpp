// The pass phrase rules: length, the edges of every byte class, strength, and the record of each refusal.
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "ImportChecks.h"
#include "Records.h"

namespace {

using VardoTest::Err;

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
        VardoTest::RecordCapture capture;
        EXPECT_EQ(OvraStream::CheckPasswordRules(passPhrase.c_str()), accepted);
        EXPECT_EQ(capture.Tagged(), records);
        for (const auto& record : capture.records) {
            EXPECT_EQ(record.unit, "src/module/VardoTools/CertImport/main");
        }
    }
}

}  // namespace
