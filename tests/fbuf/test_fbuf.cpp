// Flexible buffer: growth, the lazy front offset, the kept quirks, long random
// sequences against the string + len/offset model, and input and output.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "kerm_fbuf.h"
#include "support/bytebuf_model.h"
#include "support/emulator.h"
#include "support/scratch_dir.h"

namespace {

using Buf = std::unique_ptr<util_fbuf_t, decltype(&util_fbuf_free)>;
Buf make(uint32_t maxlen = 0) { return Buf(util_fbuf_create(maxlen), &util_fbuf_free); }

std::string text(const util_fbuf_t *b) {
    return b->data ? std::string(reinterpret_cast<char *>(util_fbuf_data(b)), b->used) : std::string();
}
int32_t add(util_fbuf_t *b, const std::string &s) {
    return util_fbuf_add_binary(b, reinterpret_cast<const uint8_t *>(s.data()), static_cast<int32_t>(s.size()));
}

TEST(FbufGrowth, StepsAndBound) {
    Buf b = make();
    EXPECT_EQ(b->data, nullptr);  // no block until needed
    EXPECT_EQ(util_fbuf_data(b.get()), nullptr);
    EXPECT_EQ(util_fbuf_end(b.get()), nullptr);
    EXPECT_EQ(add(b.get(), "x"), 1);
    EXPECT_EQ(util_fbuf_len(b.get()), 128u);
    EXPECT_EQ(add(b.get(), std::string(127, 'y')), 127);  // 128 + terminator: next step
    EXPECT_EQ(util_fbuf_len(b.get()), 16384u);
    EXPECT_EQ(util_fbuf_extend(b.get(), 16384), 17408u);
    EXPECT_EQ(util_fbuf_extend(b.get(), 17408), 18432u);
    EXPECT_EQ(util_fbuf_used(b.get()), 128u);

    Buf big = make();
    EXPECT_EQ(add(big.get(), std::string(200, 'z')), 200);
    EXPECT_EQ(util_fbuf_len(big.get()), 16384u);

    Buf bounded = make(100);
    errno = 0;
    EXPECT_EQ(add(bounded.get(), std::string(101, 'a')), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(bounded->data, nullptr);
    EXPECT_EQ(add(bounded.get(), std::string(100, 'a')), 100);
    EXPECT_EQ(util_fbuf_len(bounded.get()), 101u);
    EXPECT_EQ(add(bounded.get(), "b"), -1);
    EXPECT_EQ(util_fbuf_extend(nullptr, 1), 0u);
}

TEST(FbufFront, RemoveCompactsAtHalfPrependReusesTheFront) {
    Buf b = make();
    add(b.get(), std::string(100, 'a') + "");
    uint8_t *block = b->data;
    EXPECT_EQ(util_fbuf_remove(b.get(), 10), 90u);
    EXPECT_EQ(b->offset, 10u);
    EXPECT_EQ(b->data, block);
    EXPECT_EQ(util_fbuf_remove(b.get(), 0), 90u);
    EXPECT_EQ(util_fbuf_remove(b.get(), 54), 36u);  // offset 64 = len / 2
    EXPECT_EQ(b->offset, 0u);
    EXPECT_EQ(*util_fbuf_end(b.get()), 0);

    util_fbuf_set(b.get(), "0123456789");
    util_fbuf_remove(b.get(), 5);
    EXPECT_EQ(util_fbuf_prepend(b.get(), "abc"), 3);
    EXPECT_EQ(b->offset, 2u);  // went into the freed front
    EXPECT_EQ(text(b.get()), "abc56789");
    EXPECT_EQ(util_fbuf_prepend(b.get(), "XYZ"), 3);  // no room in front: content moves
    EXPECT_EQ(b->offset, 2u);
    EXPECT_EQ(text(b.get()), "XYZabc56789");
    EXPECT_EQ(util_fbuf_prepend_binary(b.get(), nullptr, 3), 0);
    EXPECT_EQ(util_fbuf_prepend(b.get(), ""), 0);

    EXPECT_EQ(util_fbuf_remove(b.get(), 1000), 0u);
    EXPECT_EQ(b->offset, 0u);
    EXPECT_EQ(b->data[0], 0);
}

TEST(FbufFront, GrowingFromAnOffsetKeepsTheOldBlock) {
    // The one deliberate leak: the old block is not released.
    Buf b = make();
    add(b.get(), std::string(100, 'a'));
    util_fbuf_remove(b.get(), 10);
    uint8_t *old = b->data;
    EXPECT_EQ(add(b.get(), std::string(100, 'b')), 100);
    kerm_test::accept_deliberate_leak(old);
    EXPECT_NE(b->data, old);
    EXPECT_EQ(b->offset, 0u);
    EXPECT_EQ(b->len, 16384u);
    EXPECT_EQ(text(b.get()), std::string(90, 'a') + std::string(100, 'b'));

    // When the block is large enough, the offset is compacted instead.
    util_fbuf_remove(b.get(), 1000);
    add(b.get(), std::string(300, 'c'));
    util_fbuf_remove(b.get(), 200);
    old = b->data;
    EXPECT_EQ(util_fbuf_extend(b.get(), 16300), 16384u);
    EXPECT_EQ(b->data, old);
    EXPECT_EQ(b->offset, 0u);
    EXPECT_EQ(text(b.get()), std::string(100, 'c'));
}

TEST(FbufStorage, ShrinkMinlenMaxlen) {
    Buf b = make();
    add(b.get(), "x");
    util_fbuf_remove(b.get(), 1);
    EXPECT_EQ(util_fbuf_shrink(b.get()), 0u);  // empty: block released
    EXPECT_EQ(b->data, nullptr);
    EXPECT_EQ(util_fbuf_shrink(b.get()), 0u);

    add(b.get(), std::string(200, 'q'));
    util_fbuf_set_used(b.get(), 10);
    EXPECT_EQ(util_fbuf_shrink(b.get()), 128u);
    EXPECT_EQ(text(b.get()), std::string(10, 'q'));
    add(b.get(), std::string(16490, 'r'));
    EXPECT_EQ(b->len, 17408u);
    util_fbuf_set_used(b.get(), 15000);
    EXPECT_EQ(util_fbuf_shrink(b.get()), 16384u);  // slow steps down above fastgrowsize

    // minlen: 0 queries; a smaller floor cuts the block when content fits.
    Buf m = make();
    add(m.get(), "0123456789");
    util_fbuf_remove(m.get(), 4);
    EXPECT_EQ(util_fbuf_minlen(m.get(), 0), 128u);
    EXPECT_EQ(util_fbuf_minlen(m.get(), 16), 128u);
    EXPECT_EQ(m->len, 16u);
    EXPECT_EQ(text(m.get()), "456789");
    EXPECT_EQ(util_fbuf_minlen(m.get(), 4), 16u);  // not above used: block kept
    EXPECT_EQ(m->len, 16u);
    EXPECT_EQ(util_fbuf_fastgrowsize(m.get(), 0), 16384u);
    EXPECT_EQ(util_fbuf_fastgrowsize(m.get(), 64), 16384u);
    EXPECT_EQ(util_fbuf_slowgrowsize(m.get(), 8), 1024u);
    EXPECT_EQ(util_fbuf_extend(m.get(), 70), 72u);  // 16 -> 64 -> 72

    // maxlen cuts an existing block; 0 leaves empty content in one byte but
    // stays unbounded for growth.
    Buf x = make();
    add(x.get(), "hello world");
    EXPECT_EQ(util_fbuf_maxlen(x.get(), UTIL_FBUF_MAXLEN_QUERY), 0u);
    EXPECT_EQ(util_fbuf_maxlen(x.get(), 5), 0u);
    EXPECT_EQ(x->len, 6u);
    EXPECT_EQ(text(x.get()), "hello");
    EXPECT_EQ(util_fbuf_maxlen(x.get(), 0), 5u);
    EXPECT_EQ(x->len, 1u);
    EXPECT_EQ(x->used, 0u);
    EXPECT_EQ(x->data[0], 0);
    EXPECT_EQ(add(x.get(), std::string(500, 'u')), 500);
    EXPECT_EQ(x->len, 16384u);
    Buf e = make();
    EXPECT_EQ(util_fbuf_maxlen(e.get(), 0), 0u);  // no block: nothing to cut
    EXPECT_EQ(e->data, nullptr);
    add(e.get(), "ab");
    util_fbuf_clear(e.get());
    EXPECT_EQ(util_fbuf_maxlen(e.get(), 50), 0u);  // shrink released, cut re-made it
    EXPECT_EQ(e->len, 51u);
    EXPECT_EQ(*util_fbuf_data(e.get()), 0);
}

TEST(FbufContent, AppendSetConcatCopyTrim) {
    Buf b = make();
    EXPECT_EQ(util_fbuf_add(b.get(), nullptr), 0);
    EXPECT_EQ(util_fbuf_add(b.get(), ""), 0);
    EXPECT_EQ(util_fbuf_add_binary(b.get(), reinterpret_cast<const uint8_t *>("a"), 0), -1);
    EXPECT_EQ(util_fbuf_add_ln(b.get(), ""), 1);
    EXPECT_EQ(util_fbuf_add_ln(b.get(), "two"), 4);
    EXPECT_EQ(text(b.get()), "\ntwo\n");

    // set keeps the offset when the string fits behind it.
    util_fbuf_remove(b.get(), 2);
    EXPECT_EQ(util_fbuf_set(b.get(), "xy"), 2);
    EXPECT_EQ(b->offset, 2u);
    EXPECT_EQ(text(b.get()), "xy");
    EXPECT_EQ(util_fbuf_set(b.get(), nullptr), -1);

    // concat carries the source's terminator as content.
    Buf s = make();
    EXPECT_EQ(util_fbuf_concat(b.get(), s.get()), 0);
    util_fbuf_add(s.get(), "cd");
    EXPECT_EQ(util_fbuf_concat(b.get(), s.get()), 3);
    EXPECT_EQ(text(b.get()), std::string("xycd\0", 5));
    EXPECT_EQ(util_fbuf_concat(s.get(), s.get()), 3);
    EXPECT_EQ(text(s.get()), std::string("cdcd\0", 5));

    EXPECT_EQ(util_fbuf_copy(s.get(), b.get()), 5);
    EXPECT_EQ(text(b.get()), text(s.get()));
    EXPECT_EQ(b->offset, 0u);
    Buf none = make();
    EXPECT_EQ(util_fbuf_copy(none.get(), b.get()), 0);
    EXPECT_EQ(text(b.get()), "");

    util_fbuf_set(b.get(), " \t\r\n lead and trail \n\t ");
    EXPECT_EQ(util_fbuf_trim(b.get()), 5u);
    EXPECT_EQ(util_fbuf_rtrim(b.get()), 4);
    EXPECT_EQ(text(b.get()), "lead and trail");
    EXPECT_EQ(util_fbuf_set_used(b.get(), 4), 4u);
    EXPECT_EQ(util_fbuf_set_used(b.get(), 99), 4u);
    EXPECT_STREQ(reinterpret_cast<char *>(util_fbuf_data(b.get())), "lead");
    util_fbuf_set(b.get(), " \n ");
    EXPECT_EQ(util_fbuf_trim(b.get()), 3u);
    EXPECT_EQ(util_fbuf_used(b.get()), 0u);
}

TEST(FbufContent, Formatting) {
    Buf b = make();
    EXPECT_EQ(util_fbuf_printf(b.get(), "%d-%s", 42, "x"), 4);
    std::string long_text(300, 'L');
    EXPECT_EQ(util_fbuf_printf(b.get(), "[%s]", long_text.c_str()), 302);  // second pass
    EXPECT_EQ(text(b.get()), "42-x[" + long_text + "]");
    EXPECT_EQ(*util_fbuf_end(b.get()), 0);

    // The first room is used + 128, so a tight bound refuses even short text.
    Buf bounded = make(100);
    EXPECT_EQ(util_fbuf_printf(bounded.get(), "%s", "short"), -1);
    EXPECT_EQ(util_fbuf_nprintf(bounded.get(), 10, "%s", "short"), 5);
    EXPECT_EQ(text(bounded.get()), "short");
    // A second pass that cannot grow leaves the content as it was.
    Buf tight = make(150);
    util_fbuf_add(tight.get(), "ab");
    EXPECT_EQ(util_fbuf_printf(tight.get(), "%s", std::string(200, 'z').c_str()), -1);
    EXPECT_EQ(text(tight.get()), "ab");
    EXPECT_EQ(*util_fbuf_end(tight.get()), 0);

    // nprintf's n should bound the text; a longer one is cut to the room.
    Buf n = make();
    EXPECT_EQ(util_fbuf_nprintf(n.get(), 3, "%s", long_text.c_str()), 300);
    EXPECT_EQ(n->used, 127u);
    EXPECT_EQ(n->data[127], 0);
    EXPECT_EQ(util_fbuf_printf(nullptr, "x"), -1);
    EXPECT_EQ(util_fbuf_nprintf(n.get(), 3, nullptr), -1);
}

TEST(FbufLifecycle, AttachDetachMoveSwapDuplicate) {
    Buf b = make();
    uint8_t *out = reinterpret_cast<uint8_t *>(&b);  // any sentinel
    uint8_t *const sentinel = out;
    uint32_t len = 7;
    EXPECT_EQ(util_fbuf_detach(b.get(), &out, &len), 0u);
    EXPECT_EQ(out, sentinel);
    EXPECT_EQ(len, 7u);

    add(b.get(), "0123456789");
    util_fbuf_remove(b.get(), 3);  // detach shrinks first: content at the start
    EXPECT_EQ(util_fbuf_detach(b.get(), &out, &len), 7u);
    EXPECT_EQ(len, 128u);
    EXPECT_STREQ(reinterpret_cast<char *>(out), "3456789");
    EXPECT_EQ(b->data, nullptr);
    EXPECT_EQ(b->used, 0u);

    EXPECT_EQ(util_fbuf_attach(b.get(), out, 128, 4), 0u);
    EXPECT_EQ(text(b.get()), "3456");
    auto *block = static_cast<uint8_t *>(malloc(3));
    memcpy(block, "abc", 3);
    // used >= len: the block is enlarged for the terminator, len kept as given.
    EXPECT_EQ(util_fbuf_attach(b.get(), block, 3, 3), 4u);
    EXPECT_EQ(b->len, 3u);
    EXPECT_EQ(text(b.get()), "abc");
    EXPECT_EQ(add(b.get(), "d"), 1);  // growth corrects len
    EXPECT_EQ(b->len, 16384u);
    EXPECT_EQ(util_fbuf_attach(b.get(), nullptr, 4, 0), 0u);
    EXPECT_EQ(util_fbuf_attach(b.get(), block, -1, 0), 0u);
    EXPECT_EQ(text(b.get()), "abcd");

    Buf a = make(), c = make(77);
    EXPECT_EQ(c->id, a->id + 1);  // consecutive numbers from one counter
    add(c.get(), "moved");
    uint32_t cid = c->id;
    EXPECT_EQ(util_fbuf_move(c.get(), a.get()), 0);
    EXPECT_EQ(a->id, cid);
    EXPECT_EQ(a->maxlen, 77u);
    EXPECT_EQ(text(a.get()), "moved");
    EXPECT_NE(c->id, cid);
    EXPECT_EQ(c->data, nullptr);
    EXPECT_EQ(c->minlen, 0u);  // zero settings: the defaults
    EXPECT_EQ(add(c.get(), "x"), 1);
    EXPECT_EQ(c->len, 128u);
    EXPECT_EQ(util_fbuf_move(a.get(), a.get()), 0);
    EXPECT_EQ(text(a.get()), "moved");
    EXPECT_EQ(util_fbuf_move(nullptr, a.get()), -1);

    uint32_t aid = a->id, bid = b->id;
    util_fbuf_swap(a.get(), b.get());
    EXPECT_EQ(a->id, bid);
    EXPECT_EQ(b->id, aid);
    EXPECT_EQ(text(b.get()), "moved");

    Buf d(util_fbuf_duplicate(b.get()), &util_fbuf_free);
    ASSERT_TRUE(d);
    EXPECT_EQ(text(d.get()), "moved");
    EXPECT_EQ(d->maxlen, 77u);
    EXPECT_NE(d->data, b->data);
    EXPECT_EQ(util_fbuf_duplicate(nullptr), nullptr);

    util_fbuf_destroy(d.get());  // block only: the record stays usable
    EXPECT_EQ(d->data, nullptr);
    EXPECT_EQ(d->len + d->used + d->offset, 0u);
    EXPECT_EQ(d->maxlen, 77u);
    EXPECT_EQ(add(d.get(), "again"), 5);
}

TEST(FbufBadInput, NullBuffers) {
    uint8_t byte = 1;
    EXPECT_EQ(util_fbuf_add_binary(nullptr, &byte, 1), -1);
    EXPECT_EQ(util_fbuf_add(nullptr, "x"), -1);
    EXPECT_EQ(util_fbuf_add_ln(nullptr, "x"), -1);
    EXPECT_EQ(util_fbuf_prepend(nullptr, "x"), 0);
    EXPECT_EQ(util_fbuf_concat(nullptr, nullptr), -1);
    EXPECT_EQ(util_fbuf_copy(nullptr, nullptr), -1);
    EXPECT_EQ(util_fbuf_set(nullptr, "x"), -1);
    EXPECT_EQ(util_fbuf_remove(nullptr, 1), 0u);
    EXPECT_EQ(util_fbuf_trim(nullptr) + util_fbuf_set_used(nullptr, 1) + util_fbuf_shrink(nullptr), 0u);
    EXPECT_EQ(util_fbuf_rtrim(nullptr), 0);
    EXPECT_EQ(util_fbuf_read(nullptr, 0, 1), -1);
    EXPECT_EQ(util_fbuf_read_ln(nullptr, 0), -1);
    EXPECT_EQ(util_fbuf_fread(nullptr, stdin, 1), -1);
    EXPECT_EQ(util_fbuf_fread_ln(nullptr, stdin), -1);
    EXPECT_EQ(util_fbuf_write(nullptr, 1, 1), 0xFFFFFFFFu);
    EXPECT_EQ(util_fbuf_minlen(nullptr, 5) + util_fbuf_maxlen(nullptr, 5) + util_fbuf_fastgrowsize(nullptr, 5) +
                  util_fbuf_slowgrowsize(nullptr, 5) + util_fbuf_len(nullptr) + util_fbuf_used(nullptr),
              0u);
    EXPECT_EQ(util_fbuf_attach(nullptr, &byte, 1, 0), 0u);
    EXPECT_EQ(util_fbuf_detach(nullptr, nullptr, nullptr), 0u);
    util_fbuf_clear(nullptr);
    util_fbuf_destroy(nullptr);
    util_fbuf_free(nullptr);
    util_fbuf_swap(nullptr, nullptr);
    Buf b = make();
    util_fbuf_clear(b.get());  // no block yet
    EXPECT_EQ(util_fbuf_rtrim(b.get()), 0);
    EXPECT_EQ(util_fbuf_fread_ln(b.get(), nullptr), -1);
}

// Buffers may be created from any thread: every number is handed out once.
TEST(FbufIds, UniqueAcrossThreads) {
    constexpr int kThreads = 4;
    const unsigned per_thread = kerm_test::scaled(2000, 8);
    std::vector<std::vector<uint32_t>> ids(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&ids, t, per_thread] {
            for (unsigned i = 0; i < per_thread; ++i) {
                util_fbuf_t *b = util_fbuf_create(0);
                ids[static_cast<size_t>(t)].push_back(b->id);
                util_fbuf_free(b);
            }
        });
    for (auto &th : threads) th.join();
    std::set<uint32_t> all;
    for (auto &v : ids) all.insert(v.begin(), v.end());
    EXPECT_EQ(all.size(), kThreads * per_thread);
}

struct Settings {
    uint32_t minlen, fast, slow, maxlen;
};

class FbufModel : public ::testing::TestWithParam<Settings> {};

TEST_P(FbufModel, RandomSequences) {
    const Settings st = GetParam();
    unsigned leaks = 0;
    for (uint32_t seed = 1; seed <= 4; ++seed) {
        std::mt19937 rng(seed * 104729u + st.minlen * 31u + st.maxlen);
        auto src = kerm_test::make_source([&rng] { return static_cast<uint32_t>(rng()); });
        kerm_test::FbufHarness h(st.minlen, st.fast, st.slow, st.maxlen);
        for (int i = 0; i < kerm_test::scaled(12000, 8) && h.fail.empty(); ++i) h.step(src);
        ASSERT_EQ(h.fail, "") << "minlen " << st.minlen << " maxlen " << st.maxlen << " seed " << seed;
        leaks += h.leaks;
    }
    // The sequences reach the kept-block path (and the leak checker accepts
    // exactly those blocks).
    EXPECT_GT(leaks, 0u);
}

INSTANTIATE_TEST_SUITE_P(Settings, FbufModel,
                         ::testing::Values(Settings{1, 2, 1, 0}, Settings{2, 3, 1, 0}, Settings{3, 8, 2, 0},
                                           Settings{8, 16, 3, 0}, Settings{8, 16, 3, 40}, Settings{3, 8, 1, 8},
                                           Settings{128, 16384, 1024, 0}));

// ---- Input and output on real pipes and files: whole reads, line reads with
// a writer in another thread, CR LF, a missing final line end, end of input
// and failing descriptors.

struct Pipe {
    int fd[2] = {-1, -1};
    Pipe() {
        if (pipe(fd) != 0) abort();
    }
    ~Pipe() {
        close_write();
        if (fd[0] >= 0) close(fd[0]);
    }
    void close_write() {
        if (fd[1] >= 0) close(fd[1]);
        fd[1] = -1;
    }
    void put(const std::string &s) const {
        if (write(fd[1], s.data(), s.size()) != static_cast<ssize_t>(s.size())) abort();
    }
};

// Writes `pieces` to the pipe from another thread with pauses between them,
// then closes the write end: the reader sees lines split across writes.
std::thread trickle(Pipe &p, std::vector<std::string> pieces) {
    return std::thread([&p, pieces = std::move(pieces)] {
        for (const auto &s : pieces) {
            p.put(s);
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        p.close_write();
    });
}

TEST(FbufReadLn, CrLfThenEndOfInput) {
    Pipe p;
    p.put(std::string("ab\r\ncd"));
    p.close_write();
    Buf b = make();
    EXPECT_EQ(util_fbuf_read_ln(b.get(), p.fd[0]), 2);
    EXPECT_EQ(text(b.get()), "ab");
    // Without clearing: c, d, then end of input; the bytes stay.
    EXPECT_EQ(util_fbuf_read_ln(b.get(), p.fd[0]), -1);
    EXPECT_EQ(text(b.get()), "abcd");
    EXPECT_EQ(*util_fbuf_end(b.get()), 0);
}

TEST(FbufReadLn, LinesSplitAcrossWritesFromAnotherThread) {
    Pipe p;
    std::thread writer =
        trickle(p, {"fir", "st line\r", "\nsec", "ond\n", "\n", "\r\n", "a much longer third line that ", "goes on",
                    "\nno final line end"});
    Buf b = make();
    std::vector<std::string> lines;
    std::vector<int32_t> results;
    for (;;) {
        int32_t r = util_fbuf_read_ln(b.get(), p.fd[0]);
        results.push_back(r);
        lines.push_back(text(b.get()));
        if (r < 0) break;
        util_fbuf_clear(b.get());
    }
    writer.join();
    EXPECT_EQ(lines, (std::vector<std::string>{"first line", "second", "", "", "a much longer third line that goes on",
                                               "no final line end"}));
    EXPECT_EQ(results, (std::vector<int32_t>{10, 6, 0, 0, 37, -1}));
}

TEST(FbufReadLn, ContentEndingWithALineFeedReturnsAtOnce) {
    Pipe p;
    p.put("next\n");
    Buf b = make();
    util_fbuf_add(b.get(), "done\n");
    EXPECT_EQ(util_fbuf_read_ln(b.get(), p.fd[0]), -1);  // nothing read
    EXPECT_EQ(text(b.get()), "done");
    util_fbuf_set(b.get(), "done\r\n");
    EXPECT_EQ(util_fbuf_read_ln(b.get(), p.fd[0]), -2);
    EXPECT_EQ(text(b.get()), "done");
    EXPECT_EQ(util_fbuf_read_ln(b.get(), p.fd[0]), 4);  // appended to what is there
    EXPECT_EQ(text(b.get()), "donenext");
}

TEST(FbufReadLn, FailingDescriptorsAndBounds) {
    Buf b = make();
    util_fbuf_add(b.get(), "kept");
    EXPECT_EQ(util_fbuf_read_ln(b.get(), -1), -1);
    EXPECT_EQ(text(b.get()), "kept");

    // A bound reached before the line end: -1, the part read stays.
    Pipe p;
    p.put("0123456789\n");
    Buf small = make(6);
    EXPECT_EQ(util_fbuf_read_ln(small.get(), p.fd[0]), -1);
    EXPECT_EQ(text(small.get()), "012345");
}

TEST(FbufReadLn, FromAFile) {
    kerm_test::ScratchDir dir;
    std::string path = dir.write("lines.txt", "alpha\r\n\nbeta\ngamma");
    FILE *f = fopen(path.c_str(), "rb");
    ASSERT_NE(f, nullptr);
    Buf b = make();
    EXPECT_EQ(util_fbuf_fread_ln(b.get(), f), 5);
    EXPECT_EQ(text(b.get()), "alpha");
    util_fbuf_clear(b.get());
    EXPECT_EQ(util_fbuf_fread_ln(b.get(), f), 0);
    EXPECT_EQ(util_fbuf_fread_ln(b.get(), f), 4);
    EXPECT_EQ(util_fbuf_fread_ln(b.get(), f), -1);
    EXPECT_EQ(text(b.get()), "betagamma");
    EXPECT_EQ(util_fbuf_fread_ln(b.get(), f), -1);  // still at the end
    fclose(f);

    // The same file through a descriptor.
    int fd = open(path.c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    util_fbuf_clear(b.get());
    EXPECT_EQ(util_fbuf_read_ln(b.get(), fd), 5);
    close(fd);
}

TEST(FbufRead, WholeReadsKeepRawResults) {
    Pipe p;
    std::thread writer = trickle(p, {"abc", "defgh"});
    Buf b = make();
    std::string got;
    for (;;) {
        int32_t r = util_fbuf_read(b.get(), p.fd[0], 4);
        if (r == 0) break;
        ASSERT_GT(r, 0);
        ASSERT_LE(r, 4);
    }
    writer.join();
    EXPECT_EQ(text(b.get()), "abcdefgh");
    EXPECT_EQ(util_fbuf_read(b.get(), p.fd[0], 0), 0);  // end of input, n 0 = 1024
    EXPECT_EQ(util_fbuf_len(b.get()), 16384u);          // room for used + 1024 was made
    EXPECT_EQ(util_fbuf_read(b.get(), -1, 4), -1);      // failing descriptor: raw result
    EXPECT_EQ(text(b.get()), "abcdefgh");

    kerm_test::ScratchDir dir;
    std::string path = dir.write("data.bin", std::string("x\0y\0z", 5));
    FILE *f = fopen(path.c_str(), "rb");
    ASSERT_NE(f, nullptr);
    Buf fb = make();
    EXPECT_EQ(util_fbuf_fread(fb.get(), f, 3), 3);
    EXPECT_EQ(util_fbuf_fread(fb.get(), f, 0), 2);
    EXPECT_EQ(util_fbuf_fread(fb.get(), f, 0), 0);
    EXPECT_EQ(text(fb.get()), std::string("x\0y\0z", 5));
    fclose(f);

    Buf bounded = make(4);
    EXPECT_EQ(util_fbuf_read(bounded.get(), p.fd[0], 10), -1);  // no room for 10
}

TEST(FbufWrite, WritesAndRemovesWhatWasWritten) {
    Pipe p;
    Buf b = make();
    util_fbuf_add(b.get(), "hello world");
    EXPECT_EQ(util_fbuf_write(b.get(), p.fd[1], 6), 6u);
    EXPECT_EQ(text(b.get()), "world");
    EXPECT_EQ(util_fbuf_write(b.get(), p.fd[1], 0), 5u);  // 0: everything
    EXPECT_EQ(util_fbuf_used(b.get()), 0u);
    EXPECT_EQ(util_fbuf_write(b.get(), p.fd[1], 0), 0u);
    char out[16] = {};
    EXPECT_EQ(read(p.fd[0], out, sizeof out), 11);
    EXPECT_STREQ(out, "hello world");

    util_fbuf_add(b.get(), "stays");
    EXPECT_EQ(util_fbuf_write(b.get(), -1, 0), 0xFFFFFFFFu);  // raw -1
    EXPECT_EQ(text(b.get()), "stays");
    // A closed reader: write fails with EPIPE (the signal ignored here).
    struct sigaction ign = {}, old = {};
    ign.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &ign, &old);
    Pipe q;
    close(q.fd[0]);
    q.fd[0] = -1;
    EXPECT_EQ(util_fbuf_write(b.get(), q.fd[1], 0), 0xFFFFFFFFu);
    sigaction(SIGPIPE, &old, nullptr);
    EXPECT_EQ(text(b.get()), "stays");
}

}  // namespace
