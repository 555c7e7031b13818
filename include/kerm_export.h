/** @file kerm_export.h
 * @brief Symbol export for the kerm_util public API. */
#ifndef KERM_EXPORT_H
#define KERM_EXPORT_H

#if defined(__GNUC__) || defined(__clang__)
#define KERM_API __attribute__((visibility("default")))
#else
#define KERM_API
#endif

/** The implementation is C++ and never lets an exception out; C++ callers
 * see that in the declarations. */
#ifdef __cplusplus
#define KERM_NOEXCEPT noexcept
#else
#define KERM_NOEXCEPT
#endif

/** Status codes shared by the families (containers use 0 / -1 instead). */
#define KERM_OK 0
#define KERM_ERR_FAIL (-1001)          /**< general failure or refusal */
#define KERM_ERR_PARAM (-1003)         /**< null or invalid parameter */
#define KERM_ERR_NOT_INIT (-1004)      /**< not initialised */
#define KERM_ERR_NO_MEMORY (-1006)     /**< out of memory or no room in a caller's buffer */
#define KERM_ERR_EXHAUSTED (-1007)     /**< resource exhausted or missing record */
#define KERM_ERR_UNSUPPORTED (-1009)   /**< unsupported parameter id */
#define KERM_ERR_SIZE (-1010)          /**< size mismatch */
#define KERM_ERR_DEST (-1011)          /**< null destination or wrong payload length */

#endif
