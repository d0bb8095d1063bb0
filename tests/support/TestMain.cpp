// Entry point of the SDK's test programs. They are SDK programs like the
// command: records take the SDK's format and go to standard error (and to the
// log file once a test calls Log::Init).
#include <gtest/gtest.h>

#include "OvraBase/Log.h"

int main(int argc, char** argv)
{
    OvraBase::Log::StartProgram(argv[0]);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
