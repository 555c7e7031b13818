// Byte ring buffer: the edge rules, then long random sequences against the
// reference model at capacities where wrapping happens on nearly every step.
#include <gtest/gtest.h>

#include <random>
#include <string>

#include "kerm_rbuf.h"
#include "support/bytebuf_model.h"
#include "support/emulator.h"

namespace {

using Ring = std::unique_ptr<util_rbuf_t, decltype(&util_rbuf_destroy)>;
Ring make(int32_t size) { return Ring(util_rbuf_create(size), &util_rbuf_destroy); }

const uint8_t kBytes[] = "0123456789abcdefghijklmnopqrstuvwxyz";

std::string read_all(util_rbuf_t *r) {
    std::string s(static_cast<size_t>(r->used), '\0');
    s.resize(static_cast<size_t>(util_rbuf_read(r, reinterpret_cast<uint8_t *>(s.data()), r->used)));
    return s;
}

TEST(RbufCreate, DefaultsAndBadSizes) {
    Ring r = make(0);
    ASSERT_TRUE(r);
    EXPECT_EQ(util_rbuf_size(r.get()), 4096u);
    EXPECT_EQ(util_rbuf_available(r.get()), 4096u);
    EXPECT_EQ(util_rbuf_mode(r.get()), 0u);
    EXPECT_EQ(util_rbuf_create(-1), nullptr);

    // Null rings and empty arguments: nothing happens, nothing crashes.
    uint8_t b[4] = {};
    EXPECT_EQ(util_rbuf_write(nullptr, b, 4), 0u);
    EXPECT_EQ(util_rbuf_write(r.get(), nullptr, 4), 0u);
    EXPECT_EQ(util_rbuf_write(r.get(), b, 0), 0u);
    EXPECT_EQ(util_rbuf_read(nullptr, b, 4), 0);
    EXPECT_EQ(util_rbuf_read(r.get(), nullptr, 4), 0);
    EXPECT_EQ(util_rbuf_find(nullptr, 0), -1);
    EXPECT_EQ(util_rbuf_find(r.get(), 0), -1);  // empty
    EXPECT_EQ(util_rbuf_read_until(nullptr, 0, b, 4), 0u);
    EXPECT_EQ(util_rbuf_move(nullptr, r.get(), 4), 0u);
    EXPECT_EQ(util_rbuf_move(r.get(), r.get(), 4), 0u);
    EXPECT_EQ(util_rbuf_copy(r.get(), nullptr, 4), 0u);
    EXPECT_EQ(util_rbuf_size(nullptr) + util_rbuf_available(nullptr) + util_rbuf_used(nullptr), 0u);
    util_rbuf_skip(nullptr, 1);
    util_rbuf_clear(nullptr);
    util_rbuf_set_mode(nullptr, 1);
    util_rbuf_destroy(nullptr);
    // A negative read or skip count changes nothing.
    util_rbuf_write(r.get(), b, 4);
    EXPECT_EQ(util_rbuf_read(r.get(), b, -3), 0);
    util_rbuf_skip(r.get(), -3);
    EXPECT_EQ(util_rbuf_used(r.get()), 4u);
}

TEST(RbufWrite, ModesWhenFull) {
    Ring r = make(8);
    util_rbuf_write(r.get(), kBytes, 6);
    EXPECT_EQ(util_rbuf_write(r.get(), kBytes + 6, 5), 2u);  // mode 0: what fits
    EXPECT_EQ(read_all(r.get()), "01234567");

    util_rbuf_clear(r.get());
    util_rbuf_set_mode(r.get(), UTIL_RBUF_MODE_OVERWRITE);
    util_rbuf_write(r.get(), kBytes, 6);
    EXPECT_EQ(util_rbuf_write(r.get(), kBytes + 6, 5), 5u);  // drops the 3 oldest
    EXPECT_EQ(util_rbuf_used(r.get()), 8u);
    EXPECT_EQ(read_all(r.get()), "3456789a");

    // Larger than the ring: the last 8 bytes kept at the block start, the
    // whole count reported.
    util_rbuf_write(r.get(), kBytes, 3);
    EXPECT_EQ(util_rbuf_write(r.get(), kBytes, 20), 20u);
    EXPECT_EQ(r->head, 0);
    EXPECT_EQ(r->tail, 0);
    EXPECT_EQ(read_all(r.get()), "cdefghij");

    util_rbuf_set_mode(r.get(), 7);  // any value but 1 writes what fits
    util_rbuf_write(r.get(), kBytes, 8);
    EXPECT_EQ(util_rbuf_write(r.get(), kBytes, 1), 0u);
}

TEST(RbufPositions, StandAtTheEndOfTheBlock) {
    Ring r = make(8);
    uint8_t out[8];
    util_rbuf_write(r.get(), kBytes, 8);
    EXPECT_EQ(r->tail, 8);  // a write ending at the block end
    EXPECT_EQ(util_rbuf_read(r.get(), out, 8), 8);
    EXPECT_EQ(r->head, 8);  // and a read
    EXPECT_EQ(util_rbuf_write(r.get(), kBytes + 10, 3), 3u);
    EXPECT_EQ(r->tail, 3);
    EXPECT_EQ(read_all(r.get()), "abc");

    util_rbuf_clear(r.get());
    util_rbuf_write(r.get(), kBytes, 8);
    util_rbuf_skip(r.get(), 5);
    util_rbuf_write(r.get(), kBytes + 8, 2);  // wraps: tail 2
    util_rbuf_skip(r.get(), 3);               // ends exactly at the end
    EXPECT_EQ(r->head, 8);
    EXPECT_EQ(util_rbuf_find(r.get(), '8'), 0);
    util_rbuf_skip(r.get(), 1);
    EXPECT_EQ(r->head, 1);
    util_rbuf_skip(r.get(), 100);  // more than stored empties at the tail
    EXPECT_EQ(r->used, 0);
    EXPECT_EQ(r->head, r->tail);
}

TEST(RbufFind, LooksAtTheStaleByteAtTheTail) {
    Ring r = make(8);
    util_rbuf_write(r.get(), kBytes, 3);  // "012"
    util_rbuf_clear(r.get());
    util_rbuf_write(r.get(), kBytes + 5, 2);  // "56", stale '2' at index 2
    EXPECT_EQ(util_rbuf_find(r.get(), '6'), 1);
    EXPECT_EQ(util_rbuf_find(r.get(), '2'), 2);
    EXPECT_EQ(util_rbuf_find(r.get(), '0'), -1);
    EXPECT_EQ(util_rbuf_find(r.get(), 0x100u + '5'), -1);  // the whole word is compared

    // Wrapped data: the second stretch is counted from the first.
    util_rbuf_clear(r.get());
    util_rbuf_write(r.get(), kBytes, 7);
    util_rbuf_skip(r.get(), 6);
    util_rbuf_write(r.get(), kBytes + 10, 3);  // "6abc" from index 6, tail 2
    EXPECT_EQ(util_rbuf_find(r.get(), 'b'), 2);
    EXPECT_EQ(util_rbuf_find(r.get(), 'c'), 3);
    EXPECT_EQ(util_rbuf_find(r.get(), '2'), 4);  // stale byte at the tail

    // A full ring whose tail stands at the block end: the guard byte (0) is
    // what lies at the tail.
    util_rbuf_clear(r.get());
    util_rbuf_write(r.get(), kBytes, 8);
    EXPECT_EQ(util_rbuf_find(r.get(), 0), 8);
}

TEST(RbufReadUntil, DelimiterStaleBytesAndLimits) {
    Ring r = make(8);
    uint8_t out[16];
    util_rbuf_write(r.get(), reinterpret_cast<const uint8_t *>("ab\ncd"), 5);
    EXPECT_EQ(util_rbuf_read_until(r.get(), '\n', out, 16), 3u);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(out), 3), "ab\n");
    EXPECT_EQ(read_all(r.get()), "cd");

    // Without the delimiter the ring ends up empty; the first stretch runs
    // past the data to the block end, so stale bytes count.
    util_rbuf_clear(r.get());
    util_rbuf_write(r.get(), kBytes, 3);
    EXPECT_EQ(util_rbuf_read_until(r.get(), 'z', out, 16), 8u);
    EXPECT_EQ(util_rbuf_used(r.get()), 0u);
    // A stale delimiter ends the search there.
    util_rbuf_clear(r.get());
    util_rbuf_write(r.get(), reinterpret_cast<const uint8_t *>("ab\ncd"), 5);
    util_rbuf_clear(r.get());
    util_rbuf_write(r.get(), reinterpret_cast<const uint8_t *>("xy"), 2);  // "xy\ncd" in the block
    EXPECT_EQ(util_rbuf_read_until(r.get(), '\n', out, 16), 3u);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(out), 3), "xy\n");
    EXPECT_EQ(util_rbuf_used(r.get()), 0u);

    // max bounds the copy and what is consumed.
    util_rbuf_clear(r.get());
    util_rbuf_write(r.get(), kBytes, 6);
    EXPECT_EQ(util_rbuf_read_until(r.get(), 'z', out, 4), 4u);
    EXPECT_EQ(read_all(r.get()), "45");
    EXPECT_EQ(util_rbuf_read_until(r.get(), 'z', out, 0), 0u);

    // Wrapped data: the second stretch stops at the stored count.
    util_rbuf_clear(r.get());
    util_rbuf_write(r.get(), kBytes, 8);
    util_rbuf_skip(r.get(), 6);
    util_rbuf_write(r.get(), reinterpret_cast<const uint8_t *>("AB"), 2);  // "67AB"
    EXPECT_EQ(util_rbuf_read_until(r.get(), 'A', out, 16), 3u);
    EXPECT_EQ(read_all(r.get()), "B");
}

TEST(RbufMoveCopy, SetTheDestinationCount) {
    Ring src = make(16), dst = make(4);
    util_rbuf_write(src.get(), kBytes, 10);
    util_rbuf_write(dst.get(), kBytes, 2);
    util_rbuf_clear(dst.get());
    EXPECT_EQ(util_rbuf_move(src.get(), dst.get(), 100), 4u);
    EXPECT_EQ(util_rbuf_used(src.get()), 6u);
    EXPECT_EQ(dst->head, 0);
    EXPECT_EQ(dst->tail, 4);
    EXPECT_EQ(read_all(dst.get()), "0123");

    // Into a destination that still holds bytes: the moved bytes go to its
    // tail, but its count becomes the moved count (not the sum).
    Ring d2 = make(8);
    util_rbuf_write(d2.get(), reinterpret_cast<const uint8_t *>("XY"), 2);
    EXPECT_EQ(util_rbuf_move(src.get(), d2.get(), 3), 3u);
    EXPECT_EQ(d2->used, 3);
    EXPECT_EQ(d2->tail, 5);
    EXPECT_EQ(read_all(d2.get()), "XY4");
    // A full destination has no room: its count is set to 0.
    util_rbuf_clear(d2.get());
    util_rbuf_write(d2.get(), kBytes, 8);
    EXPECT_EQ(util_rbuf_move(src.get(), d2.get(), 3), 0u);
    EXPECT_EQ(d2->used, 0);

    // Copy leaves the source alone, also when its data wraps.
    Ring s = make(8), d = make(8);
    util_rbuf_write(s.get(), kBytes, 8);
    util_rbuf_skip(s.get(), 5);
    util_rbuf_write(s.get(), kBytes + 10, 4);  // "567abcd", head 5, tail 4
    EXPECT_EQ(util_rbuf_copy(s.get(), d.get(), 100), 7u);
    EXPECT_EQ(util_rbuf_used(s.get()), 7u);
    EXPECT_EQ(s->head, 5);
    EXPECT_EQ(read_all(d.get()), "567abcd");
    // Fewer than the first source piece, and an empty source.
    util_rbuf_clear(d.get());
    EXPECT_EQ(util_rbuf_copy(s.get(), d.get(), 2), 2u);
    EXPECT_EQ(read_all(d.get()), "56");
    Ring empty = make(8);
    EXPECT_EQ(util_rbuf_copy(empty.get(), d.get(), 5), 0u);
    EXPECT_EQ(util_rbuf_copy(s.get(), d.get(), 0), 0u);
}

// Random operation sequences checked against the model after every step.
class RbufModel : public ::testing::TestWithParam<std::pair<int32_t, int32_t>> {};

TEST_P(RbufModel, RandomSequences) {
    const auto [cap_a, cap_b] = GetParam();
    for (uint32_t seed = 1; seed <= 4; ++seed) {
        std::mt19937 rng(seed * 7919u + static_cast<uint32_t>(cap_a));
        auto src = kerm_test::make_source([&rng] { return static_cast<uint32_t>(rng()); });
        kerm_test::RingHarness h(cap_a, cap_b);
        for (int i = 0; i < kerm_test::scaled(20000, 8) && h.fail.empty(); ++i) h.step(src);
        ASSERT_EQ(h.fail, "") << "capacities " << cap_a << "/" << cap_b << " seed " << seed;
    }
}

INSTANTIATE_TEST_SUITE_P(Capacities, RbufModel,
                         ::testing::Values(std::pair{1, 1}, std::pair{1, 2}, std::pair{2, 3}, std::pair{3, 8},
                                           std::pair{8, 8}, std::pair{8, 3}, std::pair{13, 40}, std::pair{64, 9}));

}  // namespace
