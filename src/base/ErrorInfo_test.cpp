// Texts of result codes: spot rows of the common table, both sides of the gap
// in its numbering (1016, then 1020 onwards one row lower), codes outside it.
#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "OvraBase/ErrorInfo.h"

TEST(ErrorInfo, SpotTextsAndUnknownCodes)
{
    const std::pair<int32_t, const char*> rows[] = {
        {0, "Success"},
        {1001, "General Failed"},
        {1010, "NO Permission "},
        {1016, "Object, file or other resource doesn't exist"},
        {1020, "Device, file or resource read failed"},
        {1021, "Device, file or resource write failed"},
        {1029, "Invalid path"},
        {1030, "Repeat initialize"},
        {-1, "unknown error code"},
        {999, "unknown error code"},
        {1031, "unknown error code"},
    };
    for (const auto& [code, text] : rows) {
        EXPECT_EQ(OvraBase::GetErrorInfo(code, ""), " Error code: " + std::to_string(code) + ", error message: " + text);
    }
    EXPECT_EQ(OvraBase::GetErrorInfo(1010, "kms"), " Module: kms, error code: 1010, error message: NO Permission ");
}
