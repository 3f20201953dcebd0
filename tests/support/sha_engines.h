// Runs a test suite once per SHA compression engine: the portable code and,
// where the processor has them, the SHA extensions (skipped elsewhere). The
// engine in use before each test is restored after it.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "Velto/Sha/sha_engine.h"

namespace testsupport {

class ShaEngineTest : public ::testing::TestWithParam<ShaEngine> {
protected:
    void SetUp() override {
        previous = activeShaEngine();
        if (GetParam() == ShaEngine::SHA_EXTENSIONS && !shaExtensionsAvailable())
            GTEST_SKIP() << "this processor has no SHA extensions";
        ASSERT_EQ(GetParam(), selectShaEngine(GetParam()));
    }
    void TearDown() override { selectShaEngine(previous); }

private:
    ShaEngine previous = ShaEngine::PORTABLE;
};

inline std::string shaEngineName(const ::testing::TestParamInfo<ShaEngine>& info) {
    return info.param == ShaEngine::PORTABLE ? "Portable" : "ShaExtensions";
}

}  // namespace testsupport

// Instantiates suite (a ShaEngineTest) for both engines.
#define INSTANTIATE_FOR_SHA_ENGINES(suite)                                                                   \
    INSTANTIATE_TEST_SUITE_P(Engines, suite, ::testing::Values(ShaEngine::PORTABLE, ShaEngine::SHA_EXTENSIONS), \
                             testsupport::shaEngineName)
