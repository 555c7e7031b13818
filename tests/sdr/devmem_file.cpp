#include "devmem_file.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <vector>

#include "kerm_sdr.h"

namespace sdr_test {

std::string make_scratch_dir(const char *tag) {
    const char *base = getenv("KERM_TEST_TMP");
    std::string dir = (base != nullptr && base[0] != '\0') ? base : "/tmp";
    mkdir(dir.c_str(), 0700);
    std::string tmpl = dir + "/" + tag + "-XXXXXX";
    std::vector<char> buf(tmpl.begin(), tmpl.end());
    buf.push_back('\0');
    if (mkdtemp(buf.data()) == nullptr) ADD_FAILURE() << "mkdtemp " << tmpl << ": " << strerror(errno);
    return buf.data();
}

DevMemFile &DevMemFile::instance() {
    static DevMemFile f;
    return f;
}

DevMemFile::DevMemFile() : root_(make_scratch_dir("sdr")) {
    mkdir((root_ + "/dev").c_str(), 0700);
    const std::string path = root_ + "/dev/mem";
    fd_ = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
    if (fd_ < 0 || ftruncate(fd_, static_cast<off_t>(kDevMemSize)) != 0)
        ADD_FAILURE() << "cannot create " << path << ": " << strerror(errno);
}

void DevMemFile::use() const { set_root(root_); }

void DevMemFile::write(uint64_t phys, const void *src, size_t len) const {
    ASSERT_EQ(pwrite(fd_, src, len, static_cast<off_t>(phys)), static_cast<ssize_t>(len));
}

void DevMemFile::read(uint64_t phys, void *dst, size_t len) const {
    ASSERT_EQ(pread(fd_, dst, len, static_cast<off_t>(phys)), static_cast<ssize_t>(len));
}

void DevMemFile::clear() const {
    std::vector<uint8_t> zero(8192, 0);
    write(VASK_SYNC_PHYS_ADDR & ~0xFFFull, zero.data(), zero.size());
    write(0, zero.data(), 4096);
}

void set_root(const std::string &root) {
    if (root.empty())
        unsetenv("KERM_UTIL_ROOT");
    else
        setenv("KERM_UTIL_ROOT", root.c_str(), 1);
}

}  // namespace sdr_test
