/* The table-driven argument parser: each flag has a handler that receives the
 * parameters following it; entry 0 collects the plain arguments. Without
 * arguments the program parses a built-in command line (the strings must be
 * writable: "--name=value" is rewritten in place). */
#include <stdint.h>
#include <stdio.h>

#include "kerm_args.h"

static void on_verbose(void *data, char **pars, int32_t count) {
    (void)pars;
    (void)count;
    ++*(int *)data;
}

static void on_port(void *data, char **pars, int32_t count) {
    if (count > 0) sscanf(pars[0], "%d", (int *)data);
}

static void on_files(void *data, char **pars, int32_t count) {
    int32_t i;
    (void)data;
    for (i = 0; i < count; i++) printf("file: %s\n", pars[i]);
}

int main(int argc, char **argv) {
    char a0[] = "demo", a1[] = "-vv", a2[] = "--port=5600", a3[] = "clip.h264", a4[] = "clip.h265";
    char *demo[] = {a0, a1, a2, a3, a4};
    int verbose = 0, port = 0;
    char *unflagged[8];
    const ArgoatSprig sprigs[] = {
        {NULL, 0, NULL, on_files}, {"v", 0, &verbose, on_verbose}, {"port", 1, &port, on_port}};
    Argoat args = {sprigs, 3, unflagged, 0, 8};

    if (argc < 2) {
        argc = 5;
        argv = demo;
    }
    argoat_graze(&args, argc, argv);
    printf("verbose %d, port %d\n", verbose, port);
    return 0;
}
