// Argument parser: handler calls, parameter limits, unflagged collection.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "kerm_args.h"

std::string calls;  // one "name<par><par>" per handler call, blank-separated

void record(void *name, char **pars, int32_t count) {
    calls += (calls.empty() ? "" : " ") + std::string(static_cast<const char *>(name));
    for (int32_t i = 0; i < count; ++i) calls += "<" + std::string(pars[i]) + ">";
}

char kAll[] = "*", kV[] = "v", kLevel[] = "level", kN[] = "n", kA[] = "a", kB[] = "b", kC[] = "c", kL[] = "l";
const ArgoatSprig kSprigs[] = {
    {nullptr, 0, kAll, record}, {"v", 0, kV, record}, {"level", 1, kLevel, record}, {"n", 2, kN, record},
    {"a", 0, kA, record},       {"b", 0, kB, record}, {"c", 0, kC, record},         {"l", 1, kL, record},
};

TEST(Args, FlagsParametersAndUnflaggedInOrder) {
    const struct { const char *line, *calls; int32_t unflagged_max = 4; } rows[] = {
        {"-v file1 --level=3 extra", "v level<3> *<file1><extra>"},
        {"-n a b c --level x y", "n<a><b> level<x> *<c><y>"},  // surplus parameters become unflagged
        {"-n=5 six --level= z", "n<5> level<> *<six><z>"},     // "=" gives exactly one parameter
        {"-abc p -ca", "a b c c a *<p>"},                       // compound letters take no parameters
        {"-axb", "a b *"},                                       // unknown letters are skipped
        {"--nope x y -q=1 z", "*"},                              // unknown flags swallow their parameters
        {"--lev 1 --levels 2 -l 3 --level 4", "l<3> level<4> *"},  // names match whole only
        {"- -- -l - --", "l<-> *<-><--><-->"},                   // dashes alone are plain arguments
        {"1 2 3 4 5 -v 6", "v *<1><2><3><4>"},                   // beyond capacity: dropped
        {"a -v", "v", 0},                                        // no capacity: no unflagged call
    };
    for (const auto &r : rows) {
        std::vector<std::string> words{"prog"};
        std::istringstream in(r.line);
        for (std::string w; in >> w;) words.push_back(w);
        std::vector<char *> argv;
        for (auto &w : words) argv.push_back(w.data());
        argv.push_back(nullptr);
        char *unflagged[4] = {};
        Argoat args{kSprigs, 8, unflagged, 0, r.unflagged_max};
        calls.clear();
        argoat_graze(&args, static_cast<int32_t>(words.size()), argv.data());
        EXPECT_EQ(calls, r.calls) << r.line;
    }
}

TEST(Args, MissingTablePartsDoNotCrash) {
    char a0[] = "prog", a1[] = "-v", a2[] = "x", a3[] = "-ab=c", a4[] = "--k=v";
    char *argv[] = {a0, a1, a2, a3, a4, nullptr}, *slots[2];
    const ArgoatSprig no_funcs[] = {{nullptr, 0, nullptr, nullptr}, {"v", 0, nullptr, nullptr}, {"k", -3, nullptr, nullptr}};
    Argoat args{no_funcs, 3, slots, 0, 2}, no_table{nullptr, 5, nullptr, 0, 3};
    argoat_graze(&args, 5, argv);
    EXPECT_EQ(args.unflagged_count, 1);
    EXPECT_STREQ(argv[4], "v");  // the "=" form moved the value to the slot's start
    argoat_graze(&no_table, 5, argv);
    argoat_graze(nullptr, 5, argv);
    argoat_graze(&args, 5, nullptr);
    argoat_compound(&args, nullptr);
    EXPECT_EQ(no_table.unflagged_count, 0);
}
