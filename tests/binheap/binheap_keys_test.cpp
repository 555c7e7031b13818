// The typed key records and the default byte-string record, as tables.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <cmath>
#include <vector>

#include "kerm_binheap.h"

namespace {

using Bytes = std::vector<uint8_t>;

template <typename T>
Bytes b(T v) {
    Bytes out(sizeof v);
    memcpy(out.data(), &v, sizeof v);
    return out;
}

using Keys = const BinHeapKeyCallbacks *const;
Keys i16 = util_binheap_keys_callbacks_int16_t(), u16 = util_binheap_keys_callbacks_uint16_t();
Keys i32 = util_binheap_keys_callbacks_int32_t(), u32 = util_binheap_keys_callbacks_uint32_t();
Keys i64 = util_binheap_keys_callbacks_int64_t(), u64 = util_binheap_keys_callbacks_uint64_t();
Keys f32 = util_binheap_keys_callbacks_float(), f64 = util_binheap_keys_callbacks_double();
Keys def = util_binheap_keys_callbacks_default();

struct CompareRow {
    const char *what;
    const BinHeapKeyCallbacks *keys;
    Bytes a, b;
    int32_t expected;
};

TEST(BinHeapKeys, ComparisonTable) {
    const CompareRow rows[] = {
        {"i16 plain", i16, b<int16_t>(5), b<int16_t>(3), 2},
        {"i16 full range, no wrap", i16, b<int16_t>(-32768), b<int16_t>(32767), -65535},
        {"u16 full range", u16, b<uint16_t>(0), b<uint16_t>(65535), -65535},
        {"i32 wraps: max below -1", i32, b<int32_t>(0x7FFFFFFF), b<int32_t>(-1), INT32_MIN},
        {"i32 plain", i32, b<int32_t>(-5), b<int32_t>(7), -12},
        {"u32 same as i32", u32, b<uint32_t>(0), b<uint32_t>(0x80000001u), 0x7FFFFFFF},
        {"u32 plain", u32, b<uint32_t>(9), b<uint32_t>(4), 5},
        {"i64 low words only", i64, b<int64_t>(0x100000005LL), b<int64_t>(0x200000003LL), 2},
        {"i64 -1 vs 0", i64, b<int64_t>(-1), b<int64_t>(0), -1},
        {"u64 high word ignored", u64, b<uint64_t>(0x100000000ULL), b<uint64_t>(0), 0},
        {"u64 low words wrap", u64, b<uint64_t>(0xFFFFFFFFULL), b<uint64_t>(1), -2},
        {"float under 1 apart equal", f32, b<float>(1.2f), b<float>(1.9f), 0},
        {"float truncates", f32, b<float>(3.5f), b<float>(1.0f), 2},
        {"float toward zero", f32, b<float>(-1.5f), b<float>(0.0f), -1},
        {"float saturates", f32, b<float>(1e10f), b<float>(0.0f), INT32_MAX},
        {"float saturates low", f32, b<float>(-1e10f), b<float>(0.0f), INT32_MIN},
        {"float NaN", f32, b<float>(NAN), b<float>(0.0f), 0},
        {"double under 1 apart equal", f64, b<double>(1.2), b<double>(1.9), 0},
        {"double toward zero", f64, b<double>(-2.9), b<double>(0.0), -2},
        {"lengths differ", i32, Bytes(4), Bytes(8), -4},
        {"short against full", i32, Bytes(3), b<int32_t>(0), -1},
        {"both short", i16, Bytes(1, 7), Bytes(1, 9), 0},
        {"longer keys use the leading value", i32, Bytes{2, 0, 0, 0, 9}, Bytes{1, 0, 0, 0, 0}, 1},
        // Bytes: length first (the byte order shows in BinHeap.DefaultKeysOrderByLengthThenBytes).
        {"bytes shorter first", def, Bytes{9}, Bytes{1, 2}, -1},
        {"bytes equal", def, Bytes{1, 2}, Bytes{1, 2}, 0},
        {"bytes both empty (null)", def, Bytes(), Bytes(), 0},
    };
    for (const auto &r : rows)
        EXPECT_EQ(r.keys->compare(r.a.data(), static_cast<uint32_t>(r.a.size()), r.b.data(),
                                  static_cast<uint32_t>(r.b.size())),
                  r.expected)
            << r.what;
}

struct StepRow {
    const char *what;
    const BinHeapKeyCallbacks *keys;
    Bytes key;
    int32_t amount;
    bool up;
    Bytes expected;  // empty: no key is produced
};

TEST(BinHeapKeys, StepTable) {
    const StepRow rows[] = {
        {"i16 truncates", i16, b<int16_t>(32767), 1, true, b<int16_t>(-32768)},
        {"i16 amount truncated", i16, b<int16_t>(0), 70000, true, b<int16_t>(4464)},
        {"u16 wraps down", u16, b<uint16_t>(0), 1, false, b<uint16_t>(65535)},
        {"i32 wraps", i32, b<int32_t>(INT32_MAX), 1, true, b<int32_t>(INT32_MIN)},
        {"u32 wraps", u32, b<uint32_t>(0xFFFFFFFFu), 2, true, b<uint32_t>(1)},
        {"i64 carries into the high word", i64, b<int64_t>(0xFFFFFFFFLL), 1, true, b<int64_t>(0x100000000LL)},
        {"i64 negative amount sign-extended", i64, b<int64_t>(5), -7, true, b<int64_t>(-2)},
        {"u64 borrow through", u64, b<uint64_t>(0), 1, false, b<uint64_t>(UINT64_MAX)},
        {"u64 INT32_MIN sign-extended", u64, b<uint64_t>(0), INT32_MIN, false, b<uint64_t>(0x80000000ULL)},
        {"float", f32, b<float>(1.5f), 2, true, b<float>(3.5f)},
        {"double", f64, b<double>(0.25), 3, false, b<double>(-2.75)},
        {"short key gives none", i32, Bytes(3), 1, true, Bytes()},
        {"tail bytes kept", u16, Bytes{1, 0, 0xAB}, 1, true, Bytes{2, 0, 0xAB}},
        {"bytes plain", def, Bytes{0x01, 0xFF}, 1, true, Bytes{0x02, 0x00}},
        {"bytes carry grows", def, Bytes{0xFF, 0xFF}, 1, true, Bytes{0x01, 0x00, 0x00}},
        {"bytes wide carry", def, Bytes{0xFF}, 0x1234, true, Bytes{0x13, 0x33}},
        {"bytes borrow", def, Bytes{0x01, 0x00}, 1, false, Bytes{0x00, 0xFF}},
        {"bytes borrow grows", def, Bytes{0x00, 0x00}, 1, false, Bytes{0xFF, 0xFF, 0xFF}},
        {"bytes negative amount", def, Bytes{0x05}, -6, true, Bytes{0xFF, 0xFF}},
        {"bytes empty key", def, Bytes(), 0x0102, true, Bytes{0x01, 0x02}},
    };
    for (const auto &r : rows) {
        void *nk = reinterpret_cast<void *>(1);
        uint32_t nl = 12345;
        (r.up ? r.keys->increment : r.keys->decrement)(r.key.data(), static_cast<uint32_t>(r.key.size()), &nk, &nl,
                                                       r.amount);
        if (r.expected.empty()) {
            EXPECT_EQ(nk, nullptr) << r.what;
            continue;
        }
        ASSERT_NE(nk, nullptr) << r.what;
        EXPECT_EQ(Bytes(static_cast<uint8_t *>(nk), static_cast<uint8_t *>(nk) + nl), r.expected) << r.what;
        free(nk);
        // Null outputs are allowed and allocate nothing that leaks.
        r.keys->increment(r.key.data(), static_cast<uint32_t>(r.key.size()), nullptr, nullptr, r.amount);
    }
}

}  // namespace
