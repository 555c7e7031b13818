// uuid_pack/uuid_unpack against libuuid's own parse and unparse.
#include <gtest/gtest.h>
#include <string.h>

#include <tuple>

#include "kerm_uuid.h"

extern "C" {
void uuid_first_pack_unparse(const struct uuid *fields, char *text);
int kerm_first_parse_unpack(const char *text, struct uuid *fields);
}

TEST(Uuid, FieldsAreBigEndianInTextOrder) {
    struct uuid u;
    char text[37];
    ASSERT_EQ(kerm_first_parse_unpack("f81d4fae-7dec-11d0-a765-00a0c91e6bf6", &u), 0);
    EXPECT_EQ(std::tuple(u.time_low, u.time_mid, u.time_hi_and_version, u.clock_seq),
              std::tuple(0xf81d4faeu, 0x7dec, 0x11d0, 0xa765));
    EXPECT_EQ(memcmp(u.node, "\x00\xa0\xc9\x1e\x6b\xf6", 6), 0);
    const struct uuid ends = {0x80000001u, 0x8002u, 0x0103u, 0xff00u, {1, 2, 3, 4, 5, 0xff}};
    uuid_first_pack_unparse(&ends, text);
    EXPECT_STREQ(text, "80000001-8002-0103-ff00-0102030405ff");
}

TEST(Uuid, GeneratedIdsSurviveTheRoundTrip) {
    for (int i = 0; i < 64; ++i) {
        uuid_t id, back;
        uuid_generate(id);
        struct uuid u;
        uuid_unpack(id, &u);
        uuid_pack(&u, back);
        EXPECT_EQ(memcmp(id, back, sizeof id), 0);
    }
    // Null arguments are ignored.
    uuid_t id = {0};
    struct uuid u = {};
    uuid_pack(nullptr, id);
    uuid_pack(&u, nullptr);
    uuid_unpack(nullptr, &u);
    uuid_unpack(id, nullptr);
    EXPECT_TRUE(uuid_is_null(id));
}
