/** @file kerm_version.h
 * @brief Version of the kerm_util headers.
 *
 * Compare with the library a program runs against through the macros at
 * build time; the SONAME (libkerm_util.so.1) changes with the major number.
 */
#ifndef KERM_VERSION_H
#define KERM_VERSION_H

/** Major version: changes when the ABI breaks (the SONAME follows it). */
#define KERM_UTIL_VERSION_MAJOR 1
/** Minor version: grows when the API gains functions. */
#define KERM_UTIL_VERSION_MINOR 0
/** Patch version: fixes only. */
#define KERM_UTIL_VERSION_PATCH 0
/** The version as text, "MAJOR.MINOR.PATCH". */
#define KERM_UTIL_VERSION_STRING "1.0.0"
/** The version as one comparable number: MAJOR * 10000 + MINOR * 100 + PATCH. */
#define KERM_UTIL_VERSION \
    (KERM_UTIL_VERSION_MAJOR * 10000 + KERM_UTIL_VERSION_MINOR * 100 + KERM_UTIL_VERSION_PATCH)

#endif
