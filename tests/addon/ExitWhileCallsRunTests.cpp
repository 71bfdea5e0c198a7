// A host may return from main while plug-in calls are still running: static destruction then
// runs beside the plug-in's thread, which must not touch anything it destroys. The child keeps
// calls and JSON work going on several threads without pause and exits in the middle of them,
// so that static destruction overlaps that work in (nearly) every run.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <semaphore>
#include <string>
#include <thread>
#include <utility>

#include "NimbOrraCore/OrraBridgeDispatcher.h"
#include "NimbOrraCore/OrraJSONCoding.h"
#include "NimbOrraPlatform/JSONSerialization.h"
#include "NimbOrraPushAddonApns/ApnsNotification.h"
#include "NimbOrraPushAddonApns/ApnsServiceNativeAdapterDefault.h"

extern char** environ;

namespace nimborra::apns {
namespace {

constexpr char kChildVariable[] = "NIMBORRA_EXIT_WHILE_CALLS_RUN_CHILD";

TEST(ExitWhileCallsRun, Child) {
    if (std::getenv(kChildVariable) == nullptr) {
        GTEST_SKIP() << "runs only as the child of ExitWhileCallsRun.NeverAborts";
    }
    // Texts long and non-ASCII enough to take every path of the reader and the validator.
    ApnsNotification notification;
    notification.title = std::string(100, 'a') + "\xc3\xa9";
    notification.userInfoJson = R"({"k":")" + notification.title + R"(","n":[1,2.5,true]})";
    const std::string payload = R"({"notification":)" +
                                core::OrraJSONCoding::makeEncoder().encode(notification).value() +
                                "}";
    ::Nimb_Orra_ApnsService_Register();
    core::OrraBridgeDispatcher::shared().subscribe([](const std::string&, const std::string&) {});
    auto plugin = core::OrraBridgeDispatcher::shared().plugin("ApnsService");
    ASSERT_NE(plugin, nullptr);
    for (int t = 0; t < 3; ++t) {
        std::thread([plugin, payload, t] {
            std::binary_semaphore answered{0};
            for (;;) {
                if (t == 0) {  // JSON work on fresh threads, as a host's would be
                    std::thread([&payload, &answered] {
                        (void)platform::JSONSerialization::jsonObject(payload);
                        answered.release();
                    }).detach();
                    answered.acquire();
                    continue;
                }
                plugin->callAsync(t == 1 ? "NotifyWillPresentNotification" : "GetToken", payload,
                                  [&answered](std::string) { answered.release(); });
                answered.acquire();
            }
        }).detach();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    std::exit(0);
}

TEST(ExitWhileCallsRun, NeverAborts) {
    ASSERT_EQ(setenv(kChildVariable, "1", 1), 0);
    // Threads that run, or have just finished, when the child exits are what it is about, not
    // leaks for a sanitizer to report.
    for (const auto& [variable, option] : {std::pair{"TSAN_OPTIONS", ":report_thread_leaks=0"},
                                           std::pair{"ASAN_OPTIONS", ":detect_leaks=0"}}) {
        const char* current = std::getenv(variable);
        setenv(variable, (std::string(current != nullptr ? current : "") + option).c_str(), 1);
    }
    char program[] = "/proc/self/exe";
    char filter[] = "--gtest_filter=ExitWhileCallsRun.Child";
    char* argv[] = {program, filter, nullptr};
    posix_spawn_file_actions_t quiet;
    posix_spawn_file_actions_init(&quiet);
    posix_spawn_file_actions_addopen(&quiet, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    for (int run = 0; run < 20; ++run) {
        pid_t child = 0;
        int status = 0;
        ASSERT_EQ(posix_spawn(&child, program, &quiet, nullptr, argv, environ), 0);
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
            << "run " << run << ": wait status " << status;
    }
    posix_spawn_file_actions_destroy(&quiet);
    unsetenv(kChildVariable);
}

}  // namespace
}  // namespace nimborra::apns
