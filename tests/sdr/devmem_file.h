// Substitute memory device for the sdr tests: a sparse regular file of a little
// over 4 GiB at "$KERM_UTIL_ROOT/dev/mem", poked and read with plain file I/O at
// physical offsets.
#ifndef KERM_TESTS_SDR_DEVMEM_FILE_H
#define KERM_TESTS_SDR_DEVMEM_FILE_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "kerm_sdr.h"

namespace sdr_test {

// Fresh directory below `parent`, by default KERM_TEST_TMP (or /tmp).
inline std::string scratch_dir(const char *tag, std::string dir = {}) {
    if (dir.empty()) {
        const char *base = getenv("KERM_TEST_TMP");
        dir = (base != nullptr && base[0] != '\0') ? base : "/tmp";
        mkdir(dir.c_str(), 0700);
    }
    std::string path = dir + "/" + tag + "-XXXXXX";
    if (mkdtemp(path.data()) == nullptr) ADD_FAILURE() << "mkdtemp " << path;
    return path;
}

inline void set_root(const std::string &root) {
    if (root.empty()) unsetenv("KERM_UTIL_ROOT");
    else setenv("KERM_UTIL_ROOT", root.c_str(), 1);
}

class DevMem {
public:
    static const DevMem &get() {
        static const DevMem d;
        return d;
    }
    const std::string root = scratch_dir("sdr");

    void write(uint64_t phys, const void *src, size_t len) const {
        ASSERT_EQ(pwrite(fd_, src, len, static_cast<off_t>(phys)), static_cast<ssize_t>(len));
    }
    void read(uint64_t phys, void *dst, size_t len) const {
        ASSERT_EQ(pread(fd_, dst, len, static_cast<off_t>(phys)), static_cast<ssize_t>(len));
    }
    template <typename T>
    void put(uint64_t phys, T v) const { write(phys, &v, sizeof v); }
    template <typename T>
    T at(uint64_t phys) const {
        T v{};
        read(phys, &v, sizeof v);
        return v;
    }
    // Zeroes the time-sync page and the SDR parameter cells.
    void clear() const {
        const std::vector<uint8_t> zero(4096, 0);
        write(VASK_SYNC_PHYS_ADDR & ~0xFFFull, zero.data(), zero.size());
        write(0, zero.data(), zero.size());
    }

private:
    DevMem() {
        mkdir((root + "/dev").c_str(), 0700);
        fd_ = open((root + "/dev/mem").c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
        // Up to a page beyond the 4 GiB mark: the time-sync block sits just below it.
        if (fd_ < 0 || ftruncate(fd_, static_cast<off_t>(0x100001000ull)) != 0) ADD_FAILURE() << "no " << root;
    }
    ~DevMem() {
        close(fd_);
        std::error_code ignored;
        std::filesystem::remove_all(root, ignored);
    }
    int fd_ = -1;
};

// Every sdr test starts on a zeroed substitute device with no SDR region.
class DevMemTest : public ::testing::Test {
protected:
    void SetUp() override {
        set_root(mem().root);
        mem().clear();
    }
    void TearDown() override {
        vask_util_sdr_deinit();
        set_root("");
    }
    static const DevMem &mem() { return DevMem::get(); }
    // A root whose dev/mem is missing, or is a FIFO (opens, cannot be mapped).
    static void use_missing_device() { set_root(scratch_dir("nodev", mem().root)); }
    static void use_fifo_device() {
        const std::string root = scratch_dir("fifo", mem().root);
        ASSERT_EQ(mkdir((root + "/dev").c_str(), 0700), 0);
        ASSERT_EQ(mkfifo((root + "/dev/mem").c_str(), 0600), 0);
        set_root(root);
    }
};

}  // namespace sdr_test

#endif
