// Texts of result codes: the common table, its layout, and unknown codes.
#include <gtest/gtest.h>

#include <string>

#include "OvraBase/ErrorInfo.h"

namespace {

TEST(ErrorInfo, TextsOfCodes)
{
    const struct {
        int32_t code;
        const char* module;
        std::string text;
    } rows[] = {
        {0, "", " Error code: 0, error message: Success"},
        {1001, "", " Error code: 1001, error message: General Failed"},
        {1004, "", " Error code: 1004, error message: Invalid parameter"},
        {1007, "", " Error code: 1007, error message: memory allocation error"},
        {1010, "", " Error code: 1010, error message: NO Permission "},
        {1016, "", " Error code: 1016, error message: Object, file or other resource doesn't exist"},
        {1020, "", " Error code: 1020, error message: Device, file or resource read failed"},
        {1021, "", " Error code: 1021, error message: Device, file or resource write failed"},
        {1029, "", " Error code: 1029, error message: Invalid path"},
        {1010, "kms", " Module: kms, error code: 1010, error message: NO Permission "},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(row.text, OvraBase::GetErrorInfo(row.code, row.module)) << row.code;
    }
    for (const int32_t code : {-1, 999, 1031, INT32_MAX}) {
        const std::string text = OvraBase::GetErrorInfo(code, "");
        EXPECT_NE(std::string::npos, text.find(std::to_string(code) + ", error message: unknown error code")) << text;
    }
}

}  // namespace
