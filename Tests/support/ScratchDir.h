#pragma once
// A fixture with an empty folder of its own per test, named after the test so
// that parallel test processes never share one, and removed afterwards.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

namespace qv::testing_support {

class ScratchDirTest : public ::testing::Test {
protected:
    std::filesystem::path dir;

    // prefix keeps the folders of different suites apart in the temp folder.
    explicit ScratchDirTest(std::string prefix) : prefix_(std::move(prefix)) {}

    void SetUp() override {
        dir = std::filesystem::temp_directory_path() /
              (prefix_ + ::testing::UnitTest::GetInstance()->current_test_info()->name());
        std::filesystem::remove_all(dir);
        std::filesystem::create_directories(dir);
    }
    void TearDown() override { std::filesystem::remove_all(dir); }

private:
    std::string prefix_;
};

} // namespace qv::testing_support
