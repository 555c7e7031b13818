// Argument parser: handler calls, parameter limits, unflagged collection.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kerm_args.h"

namespace {

struct Call {
    std::string who;
    std::vector<std::string> pars;
    bool operator==(const Call &o) const { return who == o.who && pars == o.pars; }
};
std::ostream &operator<<(std::ostream &os, const Call &c) {
    os << c.who << "(";
    for (const auto &p : c.pars) os << p << ",";
    return os << ")";
}

struct Recorder {
    std::vector<Call> calls;
};
struct Tag {
    Recorder *rec;
    const char *who;
};

void record(void *data, char **pars, int32_t count) {
    auto *tag = static_cast<Tag *>(data);
    Call c{tag->who, {}};
    for (int32_t i = 0; i < count; ++i) c.pars.emplace_back(pars[i]);
    tag->rec->calls.push_back(c);
}

class ArgsTest : public ::testing::Test {
protected:
    Recorder rec;
    Tag t0{&rec, "*"}, tv{&rec, "v"}, tlevel{&rec, "level"}, tn{&rec, "n"}, ta{&rec, "a"}, tb{&rec, "b"},
        tc{&rec, "c"}, tl{&rec, "l"};
    ArgoatSprig sprigs[8] = {
        {nullptr, 0, &t0, record}, {"v", 0, &tv, record}, {"level", 1, &tlevel, record},
        {"n", 2, &tn, record},     {"a", 0, &ta, record}, {"b", 0, &tb, record},
        {"c", 0, &tc, record},     {"l", 1, &tl, record},
    };
    char *unflagged[4] = {};
    Argoat args{sprigs, 8, unflagged, 0, 4};

    std::vector<std::string> storage;
    std::vector<char *> argv;

    // Parses "prog" + words (writable copies) and returns the calls made.
    std::vector<Call> graze(std::vector<std::string> words) {
        storage = std::move(words);
        storage.insert(storage.begin(), "prog");
        argv.clear();
        for (auto &s : storage) argv.push_back(s.data());
        argv.push_back(nullptr);
        argoat_graze(&args, static_cast<int32_t>(storage.size()), argv.data());
        return rec.calls;
    }
};

using Calls = std::vector<Call>;

TEST_F(ArgsTest, FlagsParametersAndUnflaggedInOrder) {
    EXPECT_EQ(graze({"-v", "file1", "--level=3", "extra"}),
              (Calls{{"v", {}}, {"level", {"3"}}, {"*", {"file1", "extra"}}}));
    EXPECT_STREQ(argv[3], "3");  // the "=" form rewrote the flag's slot
}

TEST_F(ArgsTest, SurplusParametersBecomeUnflagged) {
    EXPECT_EQ(graze({"-n", "a", "b", "c", "--level", "x", "y"}),
              (Calls{{"n", {"a", "b"}}, {"level", {"x"}}, {"*", {"c", "y"}}}));
}

TEST_F(ArgsTest, EqualsFormTakesOneParameterEvenWhenMoreAreAllowed) {
    EXPECT_EQ(graze({"-n=5", "six", "--level=", "z"}),
              (Calls{{"n", {"5"}}, {"level", {""}}, {"*", {"six", "z"}}}));
}

TEST_F(ArgsTest, CompoundRunsEachLetterWithoutParameters) {
    EXPECT_EQ(graze({"-abc", "p", "-ca"}),
              (Calls{{"a", {}}, {"b", {}}, {"c", {}}, {"c", {}}, {"a", {}}, {"*", {"p"}}}));
    // Unknown letters are skipped; known ones still run.
    rec.calls.clear();
    args.unflagged_count = 0;
    EXPECT_EQ(graze({"-axb"}), (Calls{{"a", {}}, {"b", {}}, {"*", {}}}));
}

TEST_F(ArgsTest, UnknownFlagSwallowsItsParameters) {
    EXPECT_EQ(graze({"--nope", "x", "y", "-q=1", "z"}), (Calls{{"*", {}}}));
    EXPECT_EQ(args.unflagged_count, 0);
}

TEST_F(ArgsTest, NamesMatchWholeOnly) {
    EXPECT_EQ(graze({"--lev", "1", "--levels", "2", "-l", "3", "--level", "4"}),
              (Calls{{"l", {"3"}}, {"level", {"4"}}, {"*", {}}}));
}

TEST_F(ArgsTest, DashesAloneArePlainArguments) {
    EXPECT_EQ(graze({"-", "--", "-l", "-", "--"}), (Calls{{"l", {"-"}}, {"*", {"-", "--", "--"}}}));
}

TEST_F(ArgsTest, UnflaggedBeyondCapacityAreDropped) {
    EXPECT_EQ(graze({"1", "2", "3", "4", "5", "-v", "6"}), (Calls{{"v", {}}, {"*", {"1", "2", "3", "4"}}}));
    EXPECT_EQ(args.unflagged_count, 4);
}

TEST_F(ArgsTest, NoUnflaggedHandlerWithoutCapacity) {
    args.unflagged_max = 0;
    EXPECT_EQ(graze({"a", "-v"}), (Calls{{"v", {}}}));
}

TEST(ArgsRobustness, MissingTablePartsDoNotCrash) {
    char a0[] = "prog", a1[] = "-v", a2[] = "x", a3[] = "-ab=c", a4[] = "--k=v";
    char *argv[] = {a0, a1, a2, a3, a4, nullptr};
    ArgoatSprig no_funcs[3] = {{nullptr, 0, nullptr, nullptr}, {"v", 0, nullptr, nullptr},
                               {"k", -3, nullptr, nullptr}};
    char *slots[2];
    Argoat args{no_funcs, 3, slots, 0, 2};
    argoat_graze(&args, 5, argv);
    EXPECT_EQ(args.unflagged_count, 1);
    EXPECT_STREQ(argv[4], "v");

    Argoat empty{nullptr, 5, nullptr, 0, 3};
    argoat_graze(&empty, 5, argv);
    argoat_graze(nullptr, 5, argv);
    argoat_graze(&empty, 5, nullptr);
    argoat_sacrifice(&empty, nullptr, argv, 1);
    argoat_compound(&empty, nullptr);
    argoat_unflagged_sacrifice(nullptr);
    EXPECT_EQ(argoat_increment_pars(&empty, "v", a2), 1);
    EXPECT_EQ(argoat_increment_pars(&empty, nullptr, a2), 0);
    EXPECT_EQ(empty.unflagged_count, 0);
}

}  // namespace
