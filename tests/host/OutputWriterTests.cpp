// The host's output: lines from many threads come out whole, each thread's in its own order, and
// a failed write stops the output and is reported.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Output.h"
#include "support/TestSupport.h"

namespace nimborra::host {
namespace {

using File = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;

// Thread t's line i: lines of different lengths, some longer than a stdio buffer.
std::string lineOf(int t, int i) {
    return std::to_string(t) + " " + std::to_string(i) + " " +
           std::string(static_cast<std::size_t>(i % 7) * 1500, 'x');
}

TEST(OutputWriter, LinesFromManyThreadsComeOutWholeAndInOrder) {
    File file(std::tmpfile(), &std::fclose);
    ASSERT_TRUE(file);
    constexpr int kThreads = 4;
    constexpr int kLines = 3000;
    {
        OutputWriter output(file.get());
        std::vector<std::thread> writers;
        for (int t = 0; t < kThreads; ++t) {
            writers.emplace_back([&output, t] {
                for (int i = 0; i < kLines; ++i) {
                    output.writeLine(lineOf(t, i));
                }
            });
        }
        for (auto& writer : writers) {
            writer.join();
        }
        output.drain();
        EXPECT_FALSE(output.failed());
    }
    std::istringstream lines(
        nimborra::testing::readFile("/proc/self/fd/" + std::to_string(fileno(file.get()))));
    std::vector<int> next(kThreads, 0);
    for (std::string line; std::getline(lines, line);) {
        int thread = -1;
        int index = -1;
        ASSERT_EQ(std::sscanf(line.c_str(), "%d %d", &thread, &index), 2) << line.substr(0, 20);
        ASSERT_TRUE(thread >= 0 && thread < kThreads) << line.substr(0, 20);
        EXPECT_EQ(index, next[static_cast<std::size_t>(thread)]++) << "thread " << thread;
        EXPECT_TRUE(line == lineOf(thread, index)) << "a line was cut or mixed with another";
    }
    EXPECT_EQ(next, std::vector<int>(kThreads, kLines));
}

TEST(OutputWriter, AFailedWriteStopsTheOutputAndSaysWhy) {
    File full(std::fopen("/dev/full", "we"), &std::fclose);
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
