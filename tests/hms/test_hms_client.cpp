// Health client creation, configuration defaults, subscribers, flags and the
// log lines of refused calls.
#include <gtest/gtest.h>

#include "hms_test_util.h"

using namespace hms_test;

namespace {

constexpr unsigned kMod = 0x86;

uint8_t never_called(void *, uint8_t) {
    ADD_FAILURE() << "detector polled by a client that was never started";
    return 0;
}

vask_hms_config periods_only(const vask_hms_detect_rule *rules = nullptr, int32_t count = 0) {
    vask_hms_config cfg{};
    cfg.period_us = 1000;
    cfg.busy_period_us = 500;
    cfg.rules = rules;
    cfg.rule_count = count;
    return cfg;
}

TEST(HmsClient, ZeroConfigurationGetsTheDefaults) {
    vask_hms_config cfg = periods_only();
    vask_hms_client *c = nullptr;
    ASSERT_EQ(vask_hms_create_client(&cfg, &c), 0);
    EXPECT_EQ(c->cfg.subscriber_max, 3);
    EXPECT_EQ(c->cfg.max_items, 5);
    EXPECT_EQ(c->cfg.pool_size, 255);
    EXPECT_EQ(c->rules, nullptr);
    EXPECT_EQ(pool_free(&c->pool), 255u);
    EXPECT_EQ(c->data.on_raised, nullptr);
    EXPECT_EQ(vask_hms_destroy_client(c), 0);
}

TEST(HmsClient, RulesAreCopiedWithTheirOwnState) {
    vask_hms_detect_rule rules[2] = {{1, never_called, nullptr, 0x100, 0, 3}, {0, never_called, nullptr, 0x200, 5, 5}};
    vask_hms_config cfg = periods_only(rules, 2);
    cfg.max_items = 9;
    cfg.pool_size = 7;
    cfg.subscriber_max = 1;
    vask_hms_client *c = nullptr;
    ASSERT_EQ(vask_hms_create_client(&cfg, &c), 0);
    rules[0].code = 0xDEAD;  // the caller may reuse its table
    EXPECT_EQ(c->rules[0].rule.code, 0x100u);
    EXPECT_EQ(c->rules[1].rule.first_index, 5);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(c->rules[0].prev_status[i], 0);
    EXPECT_EQ(c->cfg.max_items, 9);
    EXPECT_EQ(pool_free(&c->pool), 7u);

    // Inject matches by code only and silences the first matching rule; its
    // record goes to the store like any insert.
    vask_hms_err e{0x200, 77, 3};
    EXPECT_EQ(vask_hms_inject_err(c, &e), 0);
    EXPECT_EQ(c->rules[1].injected, 1);
    EXPECT_EQ(c->rules[0].injected, 0);
    e.status = 0;
    EXPECT_EQ(vask_hms_inject_err(c, &e), 0);
    EXPECT_EQ(c->rules[1].injected, 0);
    EXPECT_EQ(c->data.recv->count, 2u);
    EXPECT_EQ(vask_hms_insert_err(c, &e), 0);
    EXPECT_EQ(c->data.recv->count, 3u);
    EXPECT_EQ(vask_hms_destroy_client(c), 0);
}

TEST(HmsClient, BadRuleTableFailsCreation) {
    vask_hms_detect_rule rules[2] = {{1, never_called, nullptr, 0x41, 0, 0}, {1, never_called, nullptr, 0x42, 7, 3}};
    // A reversed index range, and a count no table can be made for.
    for (int32_t count : {2, -1}) {
        vask_hms_config cfg = periods_only(rules, count);
        vask_hms_client *c = nullptr;
        LogCapture log;
        EXPECT_EQ(vask_hms_create_client(&cfg, &c), -1006) << count;
        EXPECT_EQ(c, nullptr);
        EXPECT_EQ(log.has(kMod, 1, "hms_err_detect_init", "config(00000042) error:7 > 3"), count == 2) << log.text();
        EXPECT_TRUE(log.has(kMod, 1, "hms_err_detect_init", "hms_err_detect_init failed:-1006")) << log.text();
    }
}

TEST(HmsClient, PoolSizeOutOfRangeFailsCreation) {
    for (int16_t size : {int16_t{2000}, int16_t{1025}, int16_t{-1}}) {
        vask_hms_config cfg = periods_only();
        cfg.pool_size = size;
        vask_hms_client *c = nullptr;
        LogCapture log;
        EXPECT_EQ(vask_hms_create_client(&cfg, &c), -1003) << size;
        EXPECT_TRUE(log.has(kMod, 1, "vask_hms_create_client", "vask_hms_pool_init failed:-1003")) << log.text();
    }
    vask_hms_config cfg = periods_only();
    cfg.pool_size = 1024;
    vask_hms_client *c = nullptr;
    ASSERT_EQ(vask_hms_create_client(&cfg, &c), 0);
    EXPECT_EQ(pool_free(&c->pool), 1024u);
    vask_hms_destroy_client(c);
}

TEST(HmsClient, NullArgumentsAreRefusedAndLogged) {
    vask_hms_config cfg = periods_only();
    vask_hms_client *c = nullptr;
    vask_hms_err e{1, 1, 1};
    LogCapture log;
    EXPECT_EQ(vask_hms_create_client(nullptr, &c), -1003);
    EXPECT_EQ(vask_hms_create_client(&cfg, nullptr), -1003);
    EXPECT_EQ(vask_hms_start_client(nullptr), -1003);
    EXPECT_EQ(vask_hms_suspend_client(nullptr), -1003);
    EXPECT_EQ(vask_hms_resume_client(nullptr), -1003);
    EXPECT_EQ(vask_hms_restart_client(nullptr), -1003);
    EXPECT_EQ(vask_hms_destroy_client(nullptr), -1003);
    EXPECT_EQ(vask_hms_set_subscriber(nullptr, 1, 1), -1003);
    EXPECT_EQ(vask_hms_insert_err(nullptr, &e), -1003);
    EXPECT_EQ(vask_hms_inject_err(nullptr, &e), -1003);
    ASSERT_EQ(vask_hms_create_client(&cfg, &c), 0);
    EXPECT_EQ(vask_hms_insert_err(c, nullptr), -1003);
    EXPECT_EQ(vask_hms_inject_err(c, nullptr), -1003);
    vask_hms_destroy_client(c);
    log.finish();
    EXPECT_TRUE(log.has(kMod, 1, "vask_hms_create_client", "Parameter NULL!"));
    EXPECT_TRUE(log.has(kMod, 1, "vask_hms_destroy_client", "Parameter NULL!"));
    for (const char *fn : {"vask_hms_start_client", "vask_hms_suspend_client", "vask_hms_resume_client",
                           "vask_hms_restart_client", "vask_hms_set_subscriber", "vask_hms_insert_err",
                           "vask_hms_inject_err"})
        EXPECT_TRUE(log.has(kMod, 1, fn, "parameter is NULL")) << fn << "\n" << log.text();
}

TEST(HmsClient, SubscriberTable) {
    vask_hms_config cfg = periods_only();
    vask_hms_client *c = nullptr;
    ASSERT_EQ(vask_hms_create_client(&cfg, &c), 0);
    LogCapture log;
    EXPECT_EQ(vask_hms_set_subscriber(c, 0x0101, 1), 0);
    EXPECT_EQ(vask_hms_set_subscriber(c, 0x0202, 2), 0);
    EXPECT_EQ(vask_hms_set_subscriber(c, 0x0303, 3), 0);
    EXPECT_EQ(vask_hms_set_subscriber(c, 0x0404, 4), -1007);
    // A known host takes its own slot again, with the new value.
    EXPECT_EQ(vask_hms_set_subscriber(c, 0x0202, 9), 0);
    EXPECT_EQ(c->subs[1].host, 0x0202);
    EXPECT_EQ(c->subs[1].value, 9);
    EXPECT_EQ(c->subs[2].host, 0x0303);
    // Any host's unsubscribe empties the whole table.
    EXPECT_EQ(vask_hms_set_subscriber(c, 0x0303, 0), 0);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(c->subs[i].in_use, 0) << i;
    EXPECT_EQ(vask_hms_set_subscriber(c, 0x0404, 4), 0);
    EXPECT_EQ(c->subs[0].host, 0x0404);
    log.finish();
    EXPECT_TRUE(log.has(kMod, 0, "vask_hms_set_subscriber", "hms set subscriber:0101 1"));
    EXPECT_TRUE(log.has(kMod, 0, "vask_hms_set_subscriber", "hms set subscriber:0404 4 failed"));
    EXPECT_TRUE(log.has(kMod, 0, "vask_hms_set_subscriber", "hms subscriber clear by host 0x0303"));
    vask_hms_destroy_client(c);
}

}  // namespace
