// Flexible buffer input and output on real pipes and files: whole reads, line
// reads with a writer in another thread, CR LF, a missing final line end, end
// of input and failing descriptors.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "kerm_fbuf.h"
#include "support/scratch_dir.h"

namespace {

using Buf = std::unique_ptr<util_fbuf_t, decltype(&util_fbuf_free)>;
Buf make(uint32_t maxlen = 0) { return Buf(util_fbuf_create(maxlen), &util_fbuf_free); }
std::string text(const util_fbuf_t *b) {
    return b->data ? std::string(reinterpret_cast<char *>(util_fbuf_data(b)), b->used) : std::string();
}

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
