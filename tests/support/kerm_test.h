// Shared test helpers: a scratch directory below $KERM_TEST_TMP, and what a
// call prints on standard output.
#ifndef KERM_TEST_SUPPORT_H
#define KERM_TEST_SUPPORT_H

#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace kerm_test {

// A unique directory, removed with everything in it when the object goes away.
class ScratchDir {
public:
    ScratchDir() {
        const char *base = getenv("KERM_TEST_TMP");
        std::filesystem::path root = base != nullptr && *base ? base : std::filesystem::temp_directory_path();
        std::filesystem::create_directories(root);
        dir_ = (root / "scratch-XXXXXX").string();
        if (mkdtemp(dir_.data()) == nullptr) abort();
    }
    ~ScratchDir() { std::error_code ec; std::filesystem::remove_all(dir_, ec); }
    ScratchDir(const ScratchDir &) = delete;

    const std::string &root() const { return dir_; }
    std::string path(const std::string &rel) const { return dir_ + "/" + rel; }
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

private:
    std::string dir_;
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

// A death test for a call that prints its reason on standard output and
// exits with -1: the output is sent to standard error, where EXPECT_EXIT looks.
#define KERM_EXPECT_EXIT_PRINTING(statement, regex) \
    EXPECT_EXIT((fflush(stdout), dup2(STDERR_FILENO, STDOUT_FILENO), (void)(statement)), testing::ExitedWithCode(255), regex)

#endif
