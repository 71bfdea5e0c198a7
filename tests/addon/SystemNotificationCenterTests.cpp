// The center's answers themselves are checked end to end through the plug-in; here: the wait for
// a completion handler that may misbehave.
#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>

#include "NimbOrraPushAddonApns/ApnsCompletionBox.h"

namespace nimborra::apns {
namespace {

// A handler that fires twice must not race the waiter's read; a start that throws is taken as
// never answered, unless it had answered already.
TEST(WaitForCompletionTest, OnlyTheFirstAnswerCountsAndAFailedStartIsNotWaitedFor) {
    std::thread answering;
    EXPECT_EQ(waitForCompletion(0,
                                [&](auto complete) {
                                    answering = std::thread([complete] {
                                        complete(1);
                                        complete(2);
                                    });
                                }),
              1);
    answering.join();
    EXPECT_EQ(waitForCompletion(7, [](auto) { throw std::runtime_error("no request"); }), 7);
    EXPECT_EQ(waitForCompletion(7,
                                [](auto complete) {
                                    complete(8);
                                    throw std::runtime_error("after the answer");
                                }),
              8);
}

}  // namespace
}  // namespace nimborra::apns
