// File access, loading and mapped files.
#include "kerm_file.h"

#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/kerm_guard.h"
#include "common/kerm_internal.h"

static_assert(sizeof(void *) != 4 || sizeof(MmapFile) == 24);

namespace {

constexpr const char *kFileSrc = "utility/file/util_file";
constexpr uint32_t kLoadToEnd = 0xFFFFFFFFu;

#define FILE_LOG(level, ...) KERM_LOG(KERM_MOD_FILE, level, kFileSrc, __VA_ARGS__)

// "%s" of a null pointer is not defined everywhere; log it readably.
const char *shown(const char *path) { return path != nullptr ? path : "(null)"; }

// A load failed after the open: the caller sees length 0 and no buffer (the
// guards close the file and free the buffer).
void *load_failed(uint32_t *out_len) {
    if (out_len != nullptr) *out_len = 0;
    return nullptr;
}

}  // namespace

extern "C" {

KERM_API int32_t vask_access_file(const char *path) noexcept {
    kerm::FdGuard fd(path != nullptr ? open(path, O_RDONLY) : -1);
    if (fd.get() < 0) {
        FILE_LOG(VASK_LOG_ERROR, "Cannot open file %s\n", shown(path));
        return KERM_ERR_FAIL;
    }
    return KERM_OK;
}

KERM_API int32_t vask_get_file_size(const char *path) noexcept {
    kerm::FdGuard fd(path != nullptr ? open(path, O_RDONLY) : -1);
    if (fd.get() < 0) {
        FILE_LOG(VASK_LOG_ERROR, "Cannot open file %s\n", shown(path));
        return -1;
    }
    struct stat st;
    if (fstat(fd.get(), &st) != 0) {
        FILE_LOG(VASK_LOG_ERROR, "Cannot get file size.\n");
        return -1;
    }
    return static_cast<int32_t>(static_cast<uint32_t>(st.st_size));
}

KERM_API void *vask_load_file(const char *path, uint32_t offset, uint32_t max_len, uint32_t *out_len) noexcept {
    kerm::FdGuard fd(path != nullptr ? open(path, O_RDONLY) : -1);
    FILE_LOG(VASK_LOG_TRACE, "load file: %s...\n", shown(path));
    if (fd.get() < 0) {
        FILE_LOG(VASK_LOG_ERROR, "Cannot open file %s\n", shown(path));
        return nullptr;
    }
    struct stat st;
    if (fstat(fd.get(), &st) != 0) {
        FILE_LOG(VASK_LOG_ERROR, "Cannot get file size for %s\n", path);
        return load_failed(out_len);
    }
    const uint64_t file_size = static_cast<uint64_t>(st.st_size);
    if (offset > file_size) {
        FILE_LOG(VASK_LOG_ERROR, "parameter error, offset(%u) > filesize(%lld)\n", offset,
                 static_cast<long long>(st.st_size));
        return load_failed(out_len);
    }
    uint64_t length = file_size - offset;
    if (max_len != 0 && max_len != kLoadToEnd && max_len < length) length = max_len;
    // The length must fit the 32-bit result; a bigger slice is as unobtainable
    // as memory that malloc refuses. One byte at least, so an empty load still
    // returns a buffer.
    kerm::MallocGuard<void> buf(length <= UINT32_MAX ? malloc(length != 0 ? static_cast<size_t>(length) : 1)
                                                     : nullptr);
    if (buf.get() == nullptr) {
        FILE_LOG(VASK_LOG_ERROR, "malloc failed for %lu bytes\n", static_cast<unsigned long>(length));
        return load_failed(out_len);
    }
    if (offset != 0 && lseek(fd.get(), static_cast<off_t>(offset), SEEK_SET) < 0) {
        FILE_LOG(VASK_LOG_ERROR, "Lseek file %s failed\n", path);
        return load_failed(out_len);
    }
    // One read, no retry: a short read is a failure.
    if (read(fd.get(), buf.get(), static_cast<size_t>(length)) != static_cast<ssize_t>(length)) {
        FILE_LOG(VASK_LOG_ERROR, "Reading file %s failed\n", path);
        return load_failed(out_len);
    }
    if (out_len != nullptr) *out_len = static_cast<uint32_t>(length);
    return buf.release();
}

KERM_API int32_t vask_mmap_file_open(uint32_t mode, const char *path, uint32_t size, MmapFile *file) noexcept {
    if (path == nullptr || file == nullptr) return KERM_ERR_EXHAUSTED;
    const bool write_mode = mode == VASK_MMAP_FILE_WRITE;
    kerm::FdGuard fd(write_mode ? open(path, O_RDWR | O_CREAT, 0660) : open(path, O_RDONLY));
    if (fd.get() < 0) return KERM_ERR_FAIL;
    if (write_mode && fallocate(fd.get(), 0, 0, static_cast<off_t>(size)) != 0) {
        // No fallocate here: extend by writing the last byte. Signed
        // arithmetic, so size 0 seeks nowhere instead of to 4 GiB. A failed
        // extension shows as the size mismatch below.
        if (lseek(fd.get(), static_cast<off_t>(size) - 1, SEEK_SET) >= 0) {
            const char zero = 0;
            const ssize_t written = write(fd.get(), &zero, 1);
            (void)written;
        }
    }
    struct stat st;
    if (fstat(fd.get(), &st) != 0) {
        FILE_LOG(VASK_LOG_ERROR, "Cannot get file size for %s", path);
        return KERM_ERR_FAIL;
    }
    if (static_cast<uint64_t>(st.st_size) != size) {
        FILE_LOG(VASK_LOG_ERROR, "Alloc file size is not matched with the expected_size %s %zu %zu", path,
                 static_cast<size_t>(st.st_size), static_cast<size_t>(size));
        if (write_mode) return KERM_ERR_SIZE;
    }
    void *base = mmap(nullptr, size, write_mode ? PROT_READ | PROT_WRITE : PROT_READ, MAP_SHARED, fd.get(), 0);
    if (base == MAP_FAILED) return KERM_ERR_EXHAUSTED;
    file->fd = fd.release();
    file->path = path;
    // The record keeps the mode as given (its low byte). Deliberate: a
    // read-mode value whose low byte reads as write mode (0x102) is kept as
    // VASK_MMAP_FILE_READ, or write and close would treat a read-only
    // mapping as writable and cut the file.
    const uint8_t kept = static_cast<uint8_t>(mode);
    file->mode = !write_mode && kept == VASK_MMAP_FILE_WRITE ? static_cast<uint8_t>(VASK_MMAP_FILE_READ) : kept;
    file->base = static_cast<uint8_t *>(base);
    file->size = size;
    file->used = 0;
    return KERM_OK;
}

KERM_API int32_t vask_mmap_file_write(MmapFile *file, const uint8_t *data, int32_t n) noexcept {
    if (file == nullptr || (data == nullptr && n != 0)) return KERM_ERR_PARAM;
    // A negative count reads as a huge one; a read-only mapping has no room.
    const uint64_t end = static_cast<uint64_t>(file->used) + static_cast<uint32_t>(n);
    if (file->mode != VASK_MMAP_FILE_WRITE || end > file->size) return KERM_ERR_NO_MEMORY;
    if (n != 0) memcpy(file->base + file->used, data, static_cast<size_t>(n));
    file->used = static_cast<uint32_t>(end);
    return KERM_OK;
}

KERM_API int32_t vask_mmap_file_close(MmapFile *file) noexcept {
    if (file == nullptr || file->fd == 0) return KERM_ERR_EXHAUSTED;
    if (file->mode == VASK_MMAP_FILE_WRITE) {
        // Cut to the written length before write-back and unmap.
        if (truncate(file->path, static_cast<off_t>(file->used)) != 0) return KERM_ERR_FAIL;
        if (msync(file->base, file->size, MS_ASYNC) != 0) return KERM_ERR_FAIL;
    }
    if (munmap(file->base, file->size) != 0) return KERM_ERR_FAIL;
    if (close(file->fd) != 0) return KERM_ERR_FAIL;
    // A second close must not reach a descriptor number reused since.
    file->fd = 0;
    file->base = nullptr;
    return KERM_OK;
}

}  // extern "C"
