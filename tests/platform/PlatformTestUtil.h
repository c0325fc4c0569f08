#pragma once
// Helpers for the platform tests: a fresh temporary directory and whole-file access.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

namespace platform_test {

// A directory of its own for one test, removed afterwards.
class TempDir {
public:
    TempDir() {
        const auto* info = testing::UnitTest::GetInstance()->current_test_info();
        path_ = std::filesystem::path(testing::TempDir()) /
                (std::string("vandrel_platform_") + info->test_suite_name() + "_" + info->name());
        std::filesystem::remove_all(path_);
        std::filesystem::create_directories(path_);
    }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    std::string file(std::string_view name) const { return (path_ / name).string(); }
    std::string path() const { return path_.string(); }

private:
    std::filesystem::path path_;
};

inline void writeFile(const std::string& name, std::string_view bytes) {
    std::ofstream out(name, std::ios::binary);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    ASSERT_TRUE(out.good()) << name;
}

inline std::string readFile(const std::string& name) {
    std::ifstream in(name, std::ios::binary);
    std::string bytes;
    char buffer[4096];
    while (in.read(buffer, sizeof buffer) || in.gcount() > 0)
        bytes.append(buffer, static_cast<std::size_t>(in.gcount()));
    return bytes;
}

}  // namespace platform_test
