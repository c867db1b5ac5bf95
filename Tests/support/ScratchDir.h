#pragma once
// An empty folder of a test's own under the system temporary folder, named
// after the process and the test so that parallel test processes never share
// one; removed (permissions restored first) when it goes away. The fixture
// form gives every test of a suite its folder as `dir`.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include <unistd.h>

namespace qv::testing_support {

class ScratchDir {
public:
    // prefix keeps the folders of different suites apart.
    explicit ScratchDir(const std::string& prefix)
        : path_(std::filesystem::temp_directory_path() / (prefix + std::to_string(::getpid()) + "-" + testName())) {
        std::filesystem::remove_all(path_);
        std::filesystem::create_directories(path_);
    }
    ~ScratchDir() {
        std::error_code ec;
        std::filesystem::permissions(path_, std::filesystem::perms::owner_all, std::filesystem::perm_options::add,
                                     ec);
        std::filesystem::remove_all(path_, ec);
    }
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;

    const std::filesystem::path& path() const { return path_; }
    std::filesystem::path operator/(const std::string& name) const { return path_ / name; }
    std::string str(const std::string& name) const { return (path_ / name).string(); }
    // The names in the folder, sorted.
    std::vector<std::string> entries() const {
        std::vector<std::string> names;
        for (const auto& e : std::filesystem::directory_iterator(path_)) names.push_back(e.path().filename().string());
        std::sort(names.begin(), names.end());
        return names;
    }

private:
    // A parameterised test's name ends in "/index": kept in one path component.
    static std::string testName() {
        std::string name = ::testing::UnitTest::GetInstance()->current_test_info()->name();
        std::replace(name.begin(), name.end(), '/', '_');
        return name;
    }

    std::filesystem::path path_;
};

class ScratchDirTest : public ::testing::Test {
protected:
    explicit ScratchDirTest(std::string prefix) : prefix_(std::move(prefix)) {}
    void SetUp() override {
        scratch_.emplace(prefix_);
        dir = scratch_->path();
    }
    void TearDown() override { scratch_.reset(); }

    std::filesystem::path dir;

private:
    std::string prefix_;
    std::optional<ScratchDir> scratch_;
};

} // namespace qv::testing_support
