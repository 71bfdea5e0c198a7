// The host's output: lines from many threads come out whole, each thread's in its own order, and
// a failed write stops the output and is reported.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Output.h"

namespace nimborra::host {
namespace {

struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

TEST(OutputWriter, LinesFromManyThreadsComeOutWholeAndInOrder) {
    File file(std::tmpfile());
    ASSERT_TRUE(file);
    constexpr int kThreads = 4;
    constexpr int kLines = 3000;
    {
        OutputWriter output(file.get());
        std::vector<std::thread> writers;
        for (int t = 0; t < kThreads; ++t) {
            writers.emplace_back([&output, t] {
                for (int i = 0; i < kLines; ++i) {
                    // Lines of different lengths, some longer than a stdio buffer.
                    output.writeLine(std::to_string(t) + " " + std::to_string(i) + " " +
                                     std::string(static_cast<std::size_t>(i % 7) * 1500, 'x'));
                }
            });
        }
        for (auto& writer : writers) {
            writer.join();
        }
        output.drain();
        EXPECT_FALSE(output.failed());
    }
    std::rewind(file.get());
    std::vector<int> next(kThreads, 0);
    char* line = nullptr;
    std::size_t capacity = 0;
    ssize_t length = 0;
    int count = 0;
    while ((length = getline(&line, &capacity, file.get())) > 0) {
        int thread = -1;
        int index = -1;
        ASSERT_EQ(std::sscanf(line, "%d %d", &thread, &index), 2) << line;
        ASSERT_TRUE(thread >= 0 && thread < kThreads) << line;
        EXPECT_EQ(index, next[static_cast<std::size_t>(thread)]++) << "thread " << thread;
        const std::string prefix = std::to_string(thread) + " " + std::to_string(index) + " ";
        EXPECT_EQ(static_cast<std::size_t>(length),
                  prefix.size() + static_cast<std::size_t>(index % 7) * 1500 + 1)
            << "a line was cut or mixed with another";
        ++count;
    }
    std::free(line);
    EXPECT_EQ(count, kThreads * kLines);
}

TEST(OutputWriter, AFailedWriteStopsTheOutputAndSaysWhy) {
    File full(std::fopen("/dev/full", "we"));
    if (!full) {
        GTEST_SKIP() << "no /dev/full on this machine";
    }
    OutputWriter output(full.get());
    output.writeLine("{\"first\":1}");
    output.drain();
    EXPECT_TRUE(output.failed());
    EXPECT_EQ(output.error(), ENOSPC);
    output.writeLine("{\"after\":2}");  // ignored, and does not wait
    output.drain();
    EXPECT_EQ(output.error(), ENOSPC);
}

}  // namespace
}  // namespace nimborra::host
