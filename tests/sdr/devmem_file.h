// Substitute memory device for the sdr tests: a sparse regular file of a little
// over 4 GiB at "$KERM_UTIL_ROOT/dev/mem", read and written with plain file I/O
// at physical offsets.
#ifndef KERM_TESTS_SDR_DEVMEM_FILE_H
#define KERM_TESTS_SDR_DEVMEM_FILE_H

#include <stdint.h>
#include <string>

namespace sdr_test {

// Physical size of the substitute: everything up to the time-sync block and a
// page beyond the 4 GiB mark.
constexpr uint64_t kDevMemSize = 0x100001000ull;

// Fresh scratch directory below KERM_TEST_TMP (or /tmp).
std::string make_scratch_dir(const char *tag);

class DevMemFile {
public:
    // Creates "<root>/dev/mem" once per process; later calls return the same.
    static DevMemFile &instance();
    const std::string &root() const { return root_; }
    // Points the library at this file.
    void use() const;
    void write(uint64_t phys, const void *src, size_t len) const;
    void read(uint64_t phys, void *dst, size_t len) const;
    template <typename T>
    void put(uint64_t phys, T v) const { write(phys, &v, sizeof v); }
    template <typename T>
    T get(uint64_t phys) const {
        T v{};
        read(phys, &v, sizeof v);
        return v;
    }
    // Zeroes the time-sync block and the SDR parameter cells.
    void clear() const;

private:
    DevMemFile();
    std::string root_;
    int fd_ = -1;
};

// Sets or clears KERM_UTIL_ROOT.
void set_root(const std::string &root);

}  // namespace sdr_test

#endif
