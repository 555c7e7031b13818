// Many threads log through the socket while another changes levels: nothing
// crashes, and every datagram the collector gets is one whole line.
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "kerm_log.h"
#include <gtest/gtest.h>

TEST(LogThreads, PrintersAndControllerNeverTearLines) {
    (void)unshare(CLONE_NEWNET);
    vask_log_initialize(VASK_LOG_WARNING, LOG_OUT_SOCKET);
    ASSERT_EQ(vask_log_server_initialize(), 0);
    std::atomic<bool> stop{false};
    std::atomic<int> received{0};
    std::vector<std::string> bad;
    std::thread collector([&] {
        std::regex re(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} +\d+ +\d+ VASK[0-9A-F]{2}(@\d)? [FEWITV] :t\d+ m\d+ i\d+ x+\n)");
        char buf[512];
        for (;;) {
            bool last = stop.load();
            int n = vask_log_server_recv(buf, sizeof buf);
            if (n < 0) {
                if (last) break;  // stopped and drained
                usleep(200);
                continue;
            }
            std::string line(buf, static_cast<size_t>(n));
            if (!std::regex_match(line, re)) bad.push_back(line);
            received++;
        }
    });
    std::thread controller([&] {
        for (int i = 0; i < 300 && !stop.load(); ++i) {
            vask_log_control(i % 2 ? LOG_CTRL_LEVEL_UP : LOG_CTRL_LEVEL_DOWN, 0, 0);
            vask_log_control(LOG_CTRL_SET_HEAD_FLAGS, i % 3 ? LOG_HDR_MODULE : LOG_HDR_MODULE | LOG_HDR_LEVEL, 0);
            vask_log_control(LOG_CTRL_SET_MODULE_LEVEL, static_cast<uintptr_t>(i % 139), i % 7);
            sched_yield();
        }
    });
    std::vector<std::thread> printers;
    for (int t = 0; t < 4; ++t) {
        printers.emplace_back([t] {
            for (int i = 0; i < 400; ++i) {
                uint32_t module = static_cast<uint32_t>((t * 31 + i) % 139);
                uint32_t level = static_cast<uint32_t>(i % 6);
                char head[VASK_LOG_HEAD_SIZE];
                if (vask_log_gen_head(module, level, head, sizeof head, "f", "fn", i))
                    vask_log_print(module, level, head, "t%d m%u i%d %s", t, module, i, "xxxxxxxx");
                if (i % 50 == 0) usleep(100);
            }
        });
    }
    for (auto &p : printers) p.join();
    controller.join();
    usleep(50000);
    stop = true;
    collector.join();
    EXPECT_TRUE(bad.empty()) << bad.size() << " torn lines, first: " << (bad.empty() ? "" : bad[0]);
    EXPECT_GT(received.load(), 0);
    vask_log_control(LOG_CTRL_SET_OUTPUT, LOG_OUT_CONSOLE, 0);
}
