/** @file kerm_args.h
 * @brief Table-driven command-line argument parser.
 *
 * The caller describes each accepted flag by an ArgoatSprig; argoat_graze()
 * walks argv once and calls each flag's handler with the parameters that
 * followed it. Entry 0 of the table is reserved: its handler receives the
 * arguments that belong to no flag, collected in the caller's `unflagged`
 * array. Nothing is allocated and nothing is reported: unknown flags are
 * ignored together with their parameters.
 *
 *   -v          flag "v"               --level     flag "level"
 *   -abc        flags a, b, c, each without parameters
 *   -n=3        flag "n", parameter "3" (also --level=3)
 *   --  and  -  plain arguments
 *
 * The "=" forms rewrite the argument string in place (the slot then reads as
 * the value), so argv strings must be writable.
 */
#ifndef KERM_ARGS_H
#define KERM_ARGS_H

#include <stdint.h>
#include "kerm_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Flag handler: receives the flag's data and the parameters that followed it. */
typedef void (*ArgoatFunc)(void *data, char **pars, int32_t count);

/** One accepted flag. */
typedef struct ArgoatSprig {
    const char *flag; /**< name without dashes; null in entry 0 */
    int32_t pars;     /**< the most parameters the flag takes */
    void *data;       /**< passed to func */
    ArgoatFunc func;  /**< handler; may be null */
} ArgoatSprig;

/** Parser state: the flag table and the caller's array of unflagged arguments. */
typedef struct Argoat {
    const ArgoatSprig *sprigs; /**< the table, entry 0 for unflagged arguments */
    int32_t count;             /**< entries including entry 0 */
    char **unflagged;          /**< caller's array collecting unflagged arguments */
    int32_t unflagged_count;   /**< collected so far (start at 0) */
    int32_t unflagged_max;     /**< capacity of `unflagged` */
} Argoat;

/** Parses argv[1] .. argv[argc - 1]; afterwards, when unflagged_max > 0, calls
 * entry 0's handler with the collected arguments (also when there are none). */
KERM_API void argoat_graze(Argoat *args, int32_t argc, char **argv) KERM_NOEXCEPT;

/** Runs the handler of `flag` ("name" or "name=value") with `count` parameters
 * at `pars`; parameters beyond the flag's limit become unflagged arguments.
 * For "name=value" the value is copied over pars[-1] (the slot that held the
 * flag) and passed as the first parameter. A null or unknown flag does nothing. */
KERM_API void argoat_sacrifice(Argoat *args, const char *flag, char **pars, int32_t count) KERM_NOEXCEPT;

/** Runs each letter of the compound short flag *arg ("-abc") as a flag without
 * parameters. */
KERM_API void argoat_compound(Argoat *args, char **arg) KERM_NOEXCEPT;

/** With a pending flag returns 1 (par is one of its parameters). Without one,
 * collects par as unflagged while there is room (dropped otherwise), returns 0. */
KERM_API int32_t argoat_increment_pars(Argoat *args, const char *flag, char *par) KERM_NOEXCEPT;

/** Calls entry 0's handler with the collected unflagged arguments. */
KERM_API void argoat_unflagged_sacrifice(Argoat *args) KERM_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif
