/** @file kerm_log.h
 * @brief Logging: levels, per-module thresholds, line header, outputs, log socket,
 * backtraces. */
#ifndef KERM_LOG_H
#define KERM_LOG_H

#include <stdint.h>
#include "kerm_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Message levels; outputs print the letter "FEWITV"[level]. */
#define VASK_LOG_FATAL 0
#define VASK_LOG_ERROR 1
#define VASK_LOG_WARNING 2
#define VASK_LOG_INFO 3
#define VASK_LOG_TRACE 4
#define VASK_LOG_VERBOSE 5
/** Thresholds run 0..6; a message passes when level <= threshold. */
#define VASK_LOG_LEVEL_MAX 6

/** Number of module ids (0..138), each with its own threshold. */
#define VASK_LOG_MODULE_MAX 139
/** Module id that LOG_CTRL_SET_MODULE_LEVEL takes as "every module". */
#define VASK_LOG_ALL_MODULES 139

/** Header flags, in the order their fields are laid down. */
#define LOG_HDR_TIME 0x001u
#define LOG_HDR_LEVEL 0x002u
#define LOG_HDR_PID 0x004u
#define LOG_HDR_TID 0x008u
#define LOG_HDR_FILE 0x010u
#define LOG_HDR_FUNC 0x020u
#define LOG_HDR_LINE 0x040u
#define LOG_HDR_COLOR 0x080u
#define LOG_HDR_MODULE 0x100u

/** vask_log_control commands. */
#define LOG_CTRL_ENABLE 0
#define LOG_CTRL_LEVEL_UP 1
#define LOG_CTRL_LEVEL_DOWN 2
#define LOG_CTRL_SET_MODULE_LEVEL 3
#define LOG_CTRL_GET_MODULE_LEVEL 4
#define LOG_CTRL_GET_MODULE_COUNT 5
#define LOG_CTRL_SET_HEAD_FLAGS 6
#define LOG_CTRL_GET_HEAD_FLAGS 7
#define LOG_CTRL_SET_OUTPUT 8
#define LOG_CTRL_GET_OUTPUT 9

/** Outputs. */
#define LOG_OUT_CONSOLE 0
#define LOG_OUT_SYSLOG 1
#define LOG_OUT_ANDROID_MAIN 2
#define LOG_OUT_ANDROID_RADIO 3
#define LOG_OUT_ANDROID_SYSTEM 4
#define LOG_OUT_SOCKET 5
#define LOG_OUT_COUNT 6

/** Size of the header buffer every library log call uses. */
#define VASK_LOG_HEAD_SIZE 128

/** Builds the line header of a message in buf (the fields chosen by the header
 * flags, each at its fixed column) when the message passes the module's
 * threshold; takes no lock.
 * @return 1 when the message passes (header written), 0 when it is filtered out. */
KERM_API uint32_t vask_log_gen_head(uint32_t module, uint32_t level, char *buf, uint32_t size,
                                    const char *file, const char *function, int32_t line) KERM_NOEXCEPT;
/** Hands a printf-style message with the header from vask_log_gen_head() to the
 * selected output, if it passes the filter. Never waits: while a control
 * command holds the state, the message is dropped.
 * @return 0, or the lock's error code when the message was dropped. */
KERM_API int32_t vask_log_print(uint32_t module, uint32_t level, const char *head,
                                const char *format, ...) KERM_NOEXCEPT
#if defined(__GNUC__)
    __attribute__((format(printf, 4, 5)))
#endif
    ;
/** Writes the message to syslog whatever output is selected; no filter, no lock. */
KERM_API void vask_log_print_syslog(uint32_t module, uint32_t level, const char *head,
                                    const char *format, ...) KERM_NOEXCEPT
#if defined(__GNUC__)
    __attribute__((format(printf, 4, 5)))
#endif
    ;
/** Run-time control: one of the LOG_CTRL_ commands. arg and value_or_ptr carry a
 * number or a pointer, depending on the command.
 * @return 0, or KERM_ERR_PARAM for an unknown command or an invalid argument
 * (the state is then unchanged). */
KERM_API int32_t vask_log_control(uint32_t command, uintptr_t arg, uintptr_t value_or_ptr) KERM_NOEXCEPT;
/** Sets the global and every module threshold to level, caches the pid and
 * selects and starts output (0 when output is not below LOG_OUT_COUNT).
 * Optional: the defaults log to the console from load.
 * @return 0. */
KERM_API uint32_t vask_log_initialize(uint32_t level, uint32_t output) KERM_NOEXCEPT;
/** Local wall-clock time as "YYYY-MM-DD hh:mm:ss.mmm", bounded by size.
 * @return dst. */
KERM_API char *get_local_time(char *dst, uint32_t size) KERM_NOEXCEPT;
/** Local wall-clock time as "MM-DD hh:mm:ss.mmm", bounded by size.
 * @return dst. */
KERM_API char *get_local_time_no_year(char *dst, uint32_t size) KERM_NOEXCEPT;

/** Binds the collecting end of the log socket (abstract name "/dev/aplog"),
 * non-blocking. One per system: a second bind fails.
 * @return 0, or KERM_ERR_FAIL. */
KERM_API int32_t vask_log_server_initialize(void) KERM_NOEXCEPT;
/** Receives one log line of at most len bytes, as sent (no terminator added).
 * @return the number of bytes, or -1 with errno (EAGAIN when nothing waits). */
KERM_API int32_t vask_log_server_recv(void *buf, uint32_t len) KERM_NOEXCEPT;

/** Copies the calling thread's call stack as text (one frame per line) into
 * dst, cut at size - 1 characters and always terminated; size below 2 stores
 * only the terminator.
 * @return 0. */
KERM_API uint32_t vask_log_copy_backtrace(char *dst, int32_t size) KERM_NOEXCEPT;
/** Writes the calling thread's call stack to the Android log under logtag.
 * @return 0. */
KERM_API uint32_t vask_log_dump_backtrace(const char *logtag) KERM_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif
