/** @file kerm_sdr.h
 * @brief Physical-memory cells shared with the radio processor, the SDR register
 * region and the super-frame-number (SSFN) time sync. */
#ifndef KERM_SDR_H
#define KERM_SDR_H

#include <stdint.h>
#include "kerm_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Handle of one mapped cell of physical memory. Cell offset o lives at
 * base + page_offset + o. A failed open leaves fd at -1, a failed mapping
 * leaves base at (void *)-1: create does not check either. */
typedef struct vask_shmem {
    int32_t fd;           /**< descriptor of the memory device */
    void *base;           /**< address returned by the mapping */
    uint32_t size;        /**< size the caller asked for, bytes */
    uint32_t page_offset; /**< physical address modulo 4096 */
    uint32_t map_len;     /**< size rounded up to whole 4096-byte pages */
} vask_shmem;

/** Time-sync block of the radio processor and the cells read from it
 * (offsets from the block's start, native byte order). */
#define VASK_SYNC_PHYS_ADDR 0xFFFC1100u
#define VASK_SYNC_SIZE 304u
#define VASK_SYNC_SSFN_CNT 52u    /**< u32, current counter, packed */
#define VASK_SYNC_SSFN_LATCH 56u  /**< u32, counter latched at the sync point, packed */
#define VASK_SYNC_DELTA 236u      /**< u64, |SSFN time - local time|, microseconds */
#define VASK_SYNC_DELTA_SIGN 244u /**< u8, 1 when SSFN time is at or after local time */
#define VASK_SYNC_INDEX 268u      /**< u32, synchronisation index */
#define VASK_SYNC_LOCAL_TIME 272u /**< u64, local time at the sync point */

/** A packed counter counts milliseconds in its low half and 10240 ms
 * super-frame periods in its high half. */
#define VASK_SSFN_PERIOD_MS 10240u
#define VASK_SSFN_MS(c) (((uint32_t)(c) & 0xFFFFu) + VASK_SSFN_PERIOD_MS * ((uint32_t)(c) >> 16))

/** Only parameter of the SDR register region: the current SSFN counter. */
#define VASK_SDR_PARAM_SSFN 0u

/** Physical-memory cells. No locking, no bounds checks, no alignment needs.
 * Maps size bytes of physical memory from phys_addr through "/dev/mem".
 * @return the handle, or null when it cannot be allocated. */
KERM_API vask_shmem *vask_util_create_shmem(uint32_t phys_addr, uint32_t size) KERM_NOEXCEPT;
/** Unmaps the cell, closes its descriptor and frees the handle. */
KERM_API void vask_util_release_shmem(vask_shmem *h) KERM_NOEXCEPT;
/** Copies len bytes from src into the cell at offset. */
KERM_API void vask_util_set_shmem(vask_shmem *h, uint32_t offset, uint32_t len, const uint8_t *src) KERM_NOEXCEPT;
/** Copies len bytes from the cell at offset into dst. */
KERM_API void vask_util_get_shmem(vask_shmem *h, uint32_t offset, uint32_t len, void *dst) KERM_NOEXCEPT;
/** @{ */
/** Stores the low 1, 2, 4 or 8 bytes of value at offset (a byte copy: another
 * processor may see it half-written). */
KERM_API void vask_util_set_shmem_u8(vask_shmem *h, uint32_t offset, uint32_t value) KERM_NOEXCEPT;
KERM_API void vask_util_set_shmem_u16(vask_shmem *h, uint32_t offset, uint32_t value) KERM_NOEXCEPT;
KERM_API void vask_util_set_shmem_u32(vask_shmem *h, uint32_t offset, uint32_t value) KERM_NOEXCEPT;
KERM_API void vask_util_set_shmem_u64(vask_shmem *h, uint32_t offset, uint64_t value) KERM_NOEXCEPT;
/** @} */
/** @{ */
/** Reads 1, 2, 4 or 8 bytes at offset, zero-extended. */
KERM_API uint32_t vask_util_get_shmem_u8(vask_shmem *h, uint32_t offset) KERM_NOEXCEPT;
KERM_API uint32_t vask_util_get_shmem_u16(vask_shmem *h, uint32_t offset) KERM_NOEXCEPT;
KERM_API uint32_t vask_util_get_shmem_u32(vask_shmem *h, uint32_t offset) KERM_NOEXCEPT;
KERM_API uint64_t vask_util_get_shmem_u64(vask_shmem *h, uint32_t offset) KERM_NOEXCEPT;
/** @} */

/** Time sync. Each call maps the time-sync block and releases it again;
 * returns 0, or KERM_ERR_NO_MEMORY when the handle cannot be allocated.
 * A null output pointer skips that output.
 *
 * Records the offset between the latched SSFN time and local_us (sign and
 * magnitude) for the conversions below. */
KERM_API int32_t vask_util_set_ssfn_delta_for_talvek(uint64_t local_us) KERM_NOEXCEPT;
/** Converts local time (microseconds) to SSFN milliseconds with the recorded
 * offset; returns 0 or KERM_ERR_NO_MEMORY. */
KERM_API int32_t vask_util_get_convert_ssfn_for_talvek(uint64_t local_us, uint32_t *ssfn_ms) KERM_NOEXCEPT;
/** Converts SSFN milliseconds to local time (microseconds), the inverse of
 * vask_util_get_convert_ssfn_for_talvek(); returns 0 or KERM_ERR_NO_MEMORY. */
KERM_API int32_t vask_util_get_convert_fc_timeus_for_talvek(uint32_t ssfn_ms, uint64_t *local_us) KERM_NOEXCEPT;
/** Stores the current packed SSFN counter; returns 0 or KERM_ERR_NO_MEMORY. */
KERM_API int32_t vask_util_get_ssfn_cnt_for_talvek(uint64_t *count) KERM_NOEXCEPT;
/** Stores the current SSFN counter in milliseconds (VASK_SSFN_MS); returns 0
 * or KERM_ERR_NO_MEMORY. */
KERM_API int32_t vask_util_get_ssfn_ms_for_talvek(uint32_t *ms) KERM_NOEXCEPT;
/** Reads the sync index, the local time at the sync point and the latched SSFN
 * time in microseconds; returns 0 or KERM_ERR_NO_MEMORY.
 * ssfn_us is 1000 x ms(latched counter) as a 32-bit product: it wraps after
 * 4294967295 us, unlike the 64-bit products of the conversions above. */
KERM_API int32_t vask_util_get_synctime_from_shmem(uint32_t *index, uint64_t *local_time,
                                                   uint64_t *ssfn_us) KERM_NOEXCEPT;

/** SDR register region, mapped once per process. Not thread-safe.
 * @return 0, or KERM_ERR_FAIL (already mapped, or open or mapping failed). */
KERM_API int32_t vask_util_sdr_init(void) KERM_NOEXCEPT;
/** Copies parameter id (only VASK_SDR_PARAM_SSFN, a u32) into buf.
 * @return 0, KERM_ERR_PARAM (null buf, len below 4), KERM_ERR_NOT_INIT or
 * KERM_ERR_UNSUPPORTED. */
KERM_API int32_t vask_util_sdr_get_param(uint32_t id, void *buf, uint32_t len) KERM_NOEXCEPT;
/** Unmaps the SDR register region.
 * @return 0, or KERM_ERR_FAIL when it is not mapped. */
KERM_API int32_t vask_util_sdr_deinit(void) KERM_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif
