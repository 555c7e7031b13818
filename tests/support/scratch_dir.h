// A unique scratch directory below $KERM_TEST_TMP (else the system temp
// directory), removed with everything in it when the object goes away.
#ifndef KERM_TEST_SCRATCH_DIR_H
#define KERM_TEST_SCRATCH_DIR_H

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace kerm_test {

class ScratchDir {
public:
    ScratchDir() {
        const char *base = getenv("KERM_TEST_TMP");
        std::filesystem::path root = base != nullptr && base[0] != '\0' ? base : std::filesystem::temp_directory_path();
        std::filesystem::create_directories(root);
        std::string templ = (root / "scratch-XXXXXX").string();
        if (mkdtemp(templ.data()) == nullptr) abort();
        dir_ = templ;
    }
    ~ScratchDir() {
        std::error_code ec;
        std::filesystem::remove_all(dir_, ec);
    }
    ScratchDir(const ScratchDir &) = delete;
    ScratchDir &operator=(const ScratchDir &) = delete;

    const std::string &root() const { return dir_; }
    std::string path(const std::string &rel) const { return dir_ + "/" + rel; }

    // Writes `content` to rel (parent directories created); returns the path.
    std::string write(const std::string &rel, const std::string &content) const {
        const std::string p = path(rel);
        std::filesystem::create_directories(std::filesystem::path(p).parent_path());
        std::ofstream(p, std::ios::binary) << content;
        return p;
    }

    static std::string read(const std::string &p) {
        std::ifstream in(p, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }

private:
    std::string dir_;
};

}  // namespace kerm_test

#endif
