// Texts of result codes: the common table's rows, its one-off numbering from
// 1017 on, and codes that belong to no family.
#include <gtest/gtest.h>

#include <string>

#include "OvraBase/ErrorInfo.h"
#include "ResultCode/ResultCode.h"

namespace {

bool EndsWith(const std::string& text, const std::string& tail)
{
    return text.size() >= tail.size() && text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

struct CodeText {
    int32_t code;
    const char* rowText;  // the exact row the text must end with
};

const CodeText COMMON_CODES[] = {
    {0, "Success"},
    {1000, "Success"},
    {1001, "General Failed"},
    {1004, "Invalid parameter"},
    {1007, "memory allocation error"},
    {1010, "NO Permission "},
    {1014, "Operation now in progress "},
    {1016, "Object, file or other resource doesn't exist"},
    {1017, "Object, file or other resource doesn't exist"},
    {1019, "No available Device or resource"},
    {1020, "Device, file or resource read failed"},
    {1021, "Device, file or resource write failed"},
    {1027, "Logging config loading failed"},
    {1028, "SDK_HOME not set"},
    {1029, "Invalid path"},
    {1030, "Repeat initialize"},
};

TEST(ErrorInfo, CommonCodesEndWithTheirRowVerbatim)
{
    for (const CodeText& entry : COMMON_CODES) {
        const std::string text = OvraBase::GetErrorInfo(entry.code, "");
        EXPECT_TRUE(EndsWith(text, entry.rowText)) << entry.code << " gave \"" << text << "\"";
        // It follows a message directly, so it brings its own separator.
        ASSERT_FALSE(text.empty());
        EXPECT_EQ(' ', text[0]) << entry.code;
        EXPECT_NE(std::string::npos, text.find(std::to_string(entry.code))) << text;
    }
}

TEST(ErrorInfo, LayoutOfOneText)
{
    EXPECT_EQ(" Error code: 1004, error message: Invalid parameter", OvraBase::GetErrorInfo(1004, ""));
    EXPECT_EQ(" Module: kms, error code: 1010, error message: NO Permission ",
              OvraBase::GetErrorInfo(1010, "kms"));
}

TEST(ErrorInfo, EveryCommonCodeHasARow)
{
    for (int32_t code = OvraBase::APP_ERR_COMMON_BASE; code <= OvraBase::APP_ERR_COMMON_LAST; ++code) {
        const std::string text = OvraBase::GetErrorInfo(code, "");
        EXPECT_EQ(std::string::npos, text.find("unknown")) << code << ": " << text;
    }
}

TEST(ErrorInfo, CodesOutsideEveryFamilyAreCalledUnknown)
{
    for (const int32_t code : {-1, 1, 999, 1031, 6008, 6036, INT32_MIN, INT32_MAX}) {
        const std::string text = OvraBase::GetErrorInfo(code, "");
        EXPECT_TRUE(EndsWith(text, "unknown error code")) << code << ": " << text;
        EXPECT_NE(std::string::npos, text.find(std::to_string(code))) << text;
    }
}

}  // namespace
