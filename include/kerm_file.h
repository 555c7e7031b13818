/* File helpers: existence and size queries, loading a file (or a slice of it)
 * into a heap buffer, and memory-mapped files read in place or written
 * sequentially. Failures are logged under module 0x70. */
#ifndef KERM_FILE_H
#define KERM_FILE_H

#include <stdint.h>
#include "kerm_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* vask_mmap_file_open modes: 2 writes, any other value reads. */
#define VASK_MMAP_FILE_READ 0u
#define VASK_MMAP_FILE_WRITE 2u

/* A mapped file, owned by the caller and filled by vask_mmap_file_open. The
 * path is kept, not copied: it must stay valid until vask_mmap_file_close. */
typedef struct MmapFile {
    int32_t fd;       /* open descriptor; 0 means "not open" */
    const char *path; /* the caller's path, used again by close in write mode */
    uint8_t mode;     /* the mode given (low byte); 2 = write, anything else reads */
    uint8_t *base;    /* start of the mapping */
    uint32_t size;    /* mapped length (the expected file size) */
    uint32_t used;    /* bytes written so far (write mode) */
} MmapFile;

/* 0 if the file opens for reading, else KERM_ERR_FAIL. */
KERM_API int32_t vask_access_file(const char *path) KERM_NOEXCEPT;

/* The file's size in bytes (low 32 bits), or -1. */
KERM_API int32_t vask_get_file_size(const char *path) KERM_NOEXCEPT;

/* Loads max_len bytes from offset (max_len 0 or 0xFFFFFFFF: up to the end of
 * the file) into a buffer the caller releases with free(). An offset equal to
 * the file size gives an empty, non-null buffer. On success *out_len (if not
 * null) receives the length; on a failure after the file opened it receives 0.
 * Null on any failure. */
KERM_API void *vask_load_file(const char *path, uint32_t offset, uint32_t max_len, uint32_t *out_len) KERM_NOEXCEPT;

/* Maps `size` bytes of the file. Read mode maps the existing file read-only
 * even when its size differs from `size` (bytes past its end are not
 * accessible). Write mode creates the file if needed (0660), reserves `size`
 * bytes and maps them read-write. Returns 0, KERM_ERR_FAIL (open or status
 * query failed), KERM_ERR_EXHAUSTED (null path or record, mapping failed) or
 * KERM_ERR_SIZE (write mode could not size the file). */
KERM_API int32_t vask_mmap_file_open(uint32_t mode, const char *path, uint32_t size, MmapFile *file) KERM_NOEXCEPT;

/* Appends n bytes at the write position. KERM_ERR_NO_MEMORY when they would
 * pass the end of the mapping (or n is negative, or the file is mapped for
 * reading); nothing is written then. KERM_ERR_PARAM for a null record, or null
 * data with n not 0. No lock: one writer per record. */
KERM_API int32_t vask_mmap_file_write(MmapFile *file, const uint8_t *data, int32_t n) KERM_NOEXCEPT;

/* Write mode: cuts the file to the bytes written, then schedules write-back.
 * Unmaps and closes; the record reads "not open" afterwards. Stops at the
 * first failing step with KERM_ERR_FAIL, leaving the later steps undone.
 * KERM_ERR_EXHAUSTED for a null or not-open record. */
KERM_API int32_t vask_mmap_file_close(MmapFile *file) KERM_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif
