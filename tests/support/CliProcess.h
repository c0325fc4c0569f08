#pragma once
// A fixture that runs the `vandrel` program as a real process in a scratch directory of
// its own, as users do: arguments, exit status, standard output and standard error.
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace testutil {

#ifdef VANDREL_CLI
inline const char* const kCli = VANDREL_CLI;
#else
inline const char* const kCli = nullptr;
#endif

struct CliResult {
    int status = -1;
    std::string out;  // standard output
    std::string err;  // standard error
};

inline std::string slurp(const std::filesystem::path& p) {
    std::ifstream in(p, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

// Whether `program` is an executable on PATH (to skip what needs an optional tool).
inline bool onPath(const std::string& program) {
    const char* path = std::getenv("PATH");
    std::istringstream dirs(path ? path : "");
    std::string dir;
    while (std::getline(dirs, dir, ':'))
        if (!dir.empty() && ::access((std::filesystem::path(dir) / program).c_str(), X_OK) == 0) return true;
    return false;
}

class CliProcess : public testing::Test {
protected:
    void SetUp() override {
        if (!kCli) GTEST_SKIP() << "the command-line host is not built";
        const auto* info = testing::UnitTest::GetInstance()->current_test_info();
        dir_ = std::filesystem::path(testing::TempDir()) /
               ("vandrel-cli-" + std::to_string(::getpid()) + "-" + info->test_suite_name() + "-" + info->name());
        std::filesystem::create_directories(dir_);
    }
    void TearDown() override {
        if (!dir_.empty()) std::filesystem::remove_all(dir_);
    }

    // Runs `vandrel ARGS` through the shell (ARGS may quote and redirect); `env` is put
    // before the command, for instance "PATH=/nowhere".
    CliResult run(const std::string& args, const std::string& env = "") {
        const std::filesystem::path err = dir_ / "stderr.txt";
        const std::string cmd = env + (env.empty() ? "" : " ") + kCli + " " + args + " 2>" + err.string();
        CliResult r;
        std::FILE* p = ::popen(cmd.c_str(), "r");
        if (!p) return r;
        char buf[4096];
        std::size_t n;
        while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) r.out.append(buf, n);
        const int status = ::pclose(p);
        r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        r.err = slurp(err);
        return r;
    }
    std::filesystem::path write(const std::string& name, const std::string& text) {
        const std::filesystem::path p = dir_ / name;
        std::ofstream(p) << text;
        return p;
    }
    static std::string example(const char* name) { return std::string(VANDREL_EXAMPLES_DIR) + "/" + name; }

    std::filesystem::path dir_;
};

}  // namespace testutil
