// Test entry point: the library's logger never reads the device's property file in tests.
#include <gtest/gtest.h>

#include "CommonLib/LogSink.h"
#include "support/LogCapture.h"

int main(int argc, char** argv) {
    PELK::Common::setPropertyFilePathForTesting(pelktest::kQuietPropertyFile);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
