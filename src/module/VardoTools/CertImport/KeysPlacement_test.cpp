// A source that stops resolving after the checks (the other placement cases run end to end).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ImportChecks.h"
#include "InProcess.h"
#include "OvraBase/ErrorInfo.h"
#include "OvraBase/Log.h"

TEST(KeysPlacementTest, SourceGoneStopsAtTheCaCertificate)
{
    OvraBase::Log::logFlowControlFrequency_ = 1;
    VardoTest::ScratchDir dir(true);
    VardoTest::RecordCapture capture;
    EXPECT_EQ(OvraStream::CopyFilesToKeys("gone.crt", "gone.crt", "gone.key", ""), 1004);
    EXPECT_EQ(capture.Tagged(),
              (std::vector<std::string>{"ICreate directory keys success if it is not exist.",
                                        "EInvalid raw file path, please check" + OvraBase::GetErrorInfo(1029, ""),
                                        "ECopy ca_crt file failed, please check the raw file and the destination "
                                        "file." + OvraBase::GetErrorInfo(1004, "")}));
}
