// A method name and a payload through the production "ApnsService" plug-in, registered the way a
// host registers it. The input is split at its first newline (or NUL byte): the method name
// before, the payload after (all of it is the method name when there is neither).
//
// Checked for every input: the call is answered exactly once, and the answer is one JSON object
// with exactly one member, "success", "error" or "outcome".
//
// The stand-in notification center answers on its own thread, so the methods that wait for it
// (RequestAuthorization, SetBadgeCount, GetNotificationSettings) return. Events that the calls
// emit go to a listener that drops them.
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <memory>
#include <string>
#include <string_view>

#include "NimbOrraCore/OrraBridgeDispatcher.h"
#include "NimbOrraPlatform/JSONSerialization.h"
#include "NimbOrraPlatform/Logger.h"
#include "NimbOrraPushAddonApns/ApnsServiceNativeAdapterDefault.h"
#include "NimbOrraPushAddonApns/ApnsServicePlugin.h"

namespace {

using namespace nimborra;

// No answer in this long means a lost reply (or a deadlock), not a slow machine.
constexpr auto kReplyTimeout = std::chrono::seconds(20);

[[noreturn]] void fail(const char* what, std::string_view detail) {
    std::fprintf(stderr, "plugin_call: %s: %.*s\n", what, static_cast<int>(detail.size()),
                 detail.data());
    std::abort();
}

std::shared_ptr<core::OrraPlugin>& plugin() {
    static std::shared_ptr<core::OrraPlugin> instance;
    return instance;
}

// Calls and waits for the reply, counting every answer that arrives.
std::string call(std::string method, std::string payload, std::atomic<int>& answers) {
    auto reply = std::make_shared<std::promise<std::string>>();
    auto future = reply->get_future();
    plugin()->callAsync(std::move(method), std::move(payload), [reply, &answers](std::string text) {
        if (answers.fetch_add(1) == 0) {
            reply->set_value(std::move(text));
        }
    });
    if (future.wait_for(kReplyTimeout) != std::future_status::ready) {
        fail("no reply", "");
    }
    return future.get();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // Log lines are built (their code runs) but not printed.
    platform::setLogSink([](const platform::LogRecord&) {});
    platform::setLogLevel(platform::LogLevel::debug);
    core::OrraBridgeDispatcher::shared().subscribe([](const std::string&, const std::string&) {});
    ::Nimb_Orra_ApnsService_Register();
    plugin() = core::OrraBridgeDispatcher::shared().plugin(apns::ApnsServicePlugin::name);
    if (!plugin()) {
        fail("the plug-in is not registered", "");
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    const std::size_t split = input.find_first_of(std::string_view("\n\0", 2));
    const std::string method(input.substr(0, split));
    const std::string payload(split == std::string_view::npos ? std::string_view()
                                                              : input.substr(split + 1));

    std::atomic<int> answers{0};
    const std::string reply = call(method, payload, answers);
    // Calls are answered in order on the plug-in's queue: once the next call has been answered,
    // any second answer to this one would have arrived.
    std::atomic<int> flushAnswers{0};
    call("", "", flushAnswers);
    if (answers.load() != 1) {
        fail("answered more than once", method);
    }

    const auto parsed = platform::JSONSerialization::jsonObject(reply);
    const platform::Dictionary* members = parsed ? parsed->dictionary() : nullptr;
    if (members == nullptr || members->size() != 1) {
        fail("the reply is not an object with one member", reply);
    }
    const std::string* key = members->entries().front().first.text();
    if (key == nullptr || (*key != "success" && *key != "error" && *key != "outcome")) {
        fail("the reply's member is not success, error or outcome", reply);
    }
    return 0;
}
