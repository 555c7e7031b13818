// uuid_pack/uuid_unpack against libuuid's own parse and unparse.
#include <gtest/gtest.h>
#include <string.h>

#include <set>
#include <string>

#include "kerm_uuid.h"

extern "C" {
void uuid_first_pack_unparse(const struct uuid *fields, char *text);
int kerm_first_parse_unpack(const char *text, struct uuid *fields);
}

namespace {

TEST(Uuid, FieldsAreBigEndianInTextOrder) {
    struct uuid u;
    ASSERT_EQ(kerm_first_parse_unpack("f81d4fae-7dec-11d0-a765-00a0c91e6bf6", &u), 0);
    EXPECT_EQ(u.time_low, 0xf81d4faeu);
    EXPECT_EQ(u.time_mid, 0x7decu);
    EXPECT_EQ(u.time_hi_and_version, 0x11d0u);
    EXPECT_EQ(u.clock_seq, 0xa765u);
    const uint8_t node[6] = {0x00, 0xa0, 0xc9, 0x1e, 0x6b, 0xf6};
    EXPECT_EQ(memcmp(u.node, node, 6), 0);

    char text[37];
    uuid_first_pack_unparse(&u, text);
    EXPECT_STREQ(text, "f81d4fae-7dec-11d0-a765-00a0c91e6bf6");

    const struct uuid ends = {0x80000001u, 0x8002u, 0x0103u, 0xff00u, {1, 2, 3, 4, 5, 0xff}};
    uuid_first_pack_unparse(&ends, text);
    EXPECT_STREQ(text, "80000001-8002-0103-ff00-0102030405ff");
}

TEST(Uuid, GeneratedIdsSurviveTheRoundTrip) {
    std::set<std::string> seen;
    for (int i = 0; i < 64; ++i) {
        uuid_t id, back;
        if (i % 2 == 0) uuid_generate(id);
        else uuid_generate_random(id);
        struct uuid u;
        uuid_unpack(id, &u);
        EXPECT_EQ(u.clock_seq >> 14, 2) << "variant";
        if (i % 2 == 1) {
            EXPECT_EQ(u.time_hi_and_version >> 12, 4) << "version";
        }
        uuid_pack(&u, back);
        EXPECT_EQ(uuid_compare(id, back), 0);
        char text[37];
        uuid_unparse(id, text);
        seen.insert(text);
    }
    EXPECT_EQ(seen.size(), 64u);
}

TEST(Uuid, NullArgumentsAreIgnored) {
    uuid_t id = {0};
    struct uuid u = {};
    uuid_pack(nullptr, id);
    uuid_pack(&u, nullptr);
    uuid_unpack(nullptr, &u);
    uuid_unpack(id, nullptr);
    EXPECT_TRUE(uuid_is_null(id));
}

}  // namespace
