// Shared test helpers: a scratch directory, captured standard output, and a
// death test for calls that print their reason before exiting.
#ifndef KERM_TEST_SUPPORT_H
#define KERM_TEST_SUPPORT_H

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace kerm_test {

// A unique directory below $KERM_TEST_TMP, removed with its contents at the end.
struct ScratchDir {
    std::string root_ = [] {
        const char *base = getenv("KERM_TEST_TMP");
        std::string dir = std::string(base != nullptr && *base ? base : "/tmp") + "/scratch-XXXXXX";
        std::filesystem::create_directories(std::filesystem::path(dir).parent_path());
        if (mkdtemp(dir.data()) == nullptr) abort();
        return dir;
    }();
    ~ScratchDir() { std::error_code ec; std::filesystem::remove_all(root_, ec); }

    const std::string &root() const { return root_; }
    std::string path(const std::string &rel) const { return root_ + "/" + rel; }
    // Writes `content` to rel, creating parent directories; returns the path.
    std::string write(const std::string &rel, const std::string &content) const {
        std::filesystem::create_directories(std::filesystem::path(path(rel)).parent_path());
        std::ofstream(path(rel), std::ios::binary) << content;
        return path(rel);
    }
    static std::string read(const std::string &p) {
        std::ifstream in(p, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }
};

template <class F>
std::string stdout_of(F &&f) {
    fflush(stdout);
    testing::internal::CaptureStdout();
    f();
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

}  // namespace kerm_test

// The call's standard output goes to standard error, where EXPECT_EXIT looks.
#define KERM_EXPECT_EXIT_PRINTING(call, regex) \
    EXPECT_EXIT((fflush(stdout), dup2(STDERR_FILENO, STDOUT_FILENO), (void)(call)), testing::ExitedWithCode(255), regex)

#endif
