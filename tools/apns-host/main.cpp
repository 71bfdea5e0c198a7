// apns-host: plays the application that loads the "ApnsService" add-on, the simulated system
// underneath it and the far side of the bridge, driven by JSON Lines commands. See helpText()
// in Options.cpp for the commands and the output.
//
// Threads: the main thread registers the plug-in and then drains the main queue for as long as
// the session lasts, as an application's main thread does; a second thread reads and runs the
// commands and stops the main loop once every call has been answered. With the provider API, a
// third thread waits for SIGINT or SIGTERM (blocked in every other thread), which end the
// session; the end of the input alone does not. With a COMMAND, that thread passes the signals
// on to COMMAND instead, and COMMAND's end ends the session.

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <mutex>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>
#include <variant>
#include <vector>

#include "Application.h"
#include "Bridge.h"
#include "CommandRunner.h"
#include "Commands.h"
#include "DemoScript.h"
#include "Describe.h"
#include "LineReader.h"
#include "NetworkSandbox.h"
#include "NimbOrraCore/OrraBridgeDispatcher.h"
#include "NimbOrraPlatform/Bundle.h"
#include "NimbOrraPlatform/DispatchQueue.h"
#include "NimbOrraPlatform/JSONSerialization.h"
#include "NimbOrraPlatform/Logger.h"
#include "NimbOrraPlatform/UserNotificationCenter.h"
#include "NimbOrraPushAddonApns/ApnsServiceNativeAdapterDefault.h"
#include "NimbOrraPushAddonApns/ApnsServicePlugin.h"
#include "Options.h"
#include "Output.h"
#include "Phone.h"
#include "ProviderApi.h"
#include "Session.h"

namespace {

// glibc keeps seven freed blocks of each size per thread before it falls back to its shared and
// slower lists. The provider API's threads allocate and free the pieces of hundreds of requests
// at a time (every stream a connection has open), so with the default most of their mallocs and
// frees take the slow road. A larger cache, asked for through glibc's tunables, takes about 5%
// off the CPU time of a push. Tunables are read only when a process starts, so the host starts
// itself once more with them set; the marker says it has. A user's own GLIBC_TUNABLES is left as
// it is, and the ones the host set are taken out again before anything else runs, so that
// COMMAND does not inherit them.
constexpr const char* kTunedMarker = "APNS_HOST_ALLOCATOR_TUNED";

void tuneAllocator(char** argv) {
    const auto forgetTuning = [] {
        ::unsetenv(kTunedMarker);
        ::unsetenv("GLIBC_TUNABLES");
    };
    if (std::getenv(kTunedMarker) != nullptr) {
        forgetTuning();
        return;
    }
    if (std::getenv("GLIBC_TUNABLES") != nullptr) {
        return;
    }
    // The program's own path, so that it keeps its name in the process list.
    std::error_code error;
    const auto self = std::filesystem::read_symlink("/proc/self/exe", error);
    if (error || ::setenv("GLIBC_TUNABLES", "glibc.malloc.tcache_count=1000", 1) != 0 ||
        ::setenv(kTunedMarker, "1", 1) != 0) {
        forgetTuning();
        return;
    }
    ::execv(self.c_str(), argv);
    // Not started again (the file has gone, say): the host runs untuned.
    forgetTuning();
}

using namespace nimborra;

constexpr int kStatusBadInvocation = 2;

int fail(const std::string& message) {
    std::fprintf(stderr, "apns-host: %s\n", message.c_str());
    return kStatusBadInvocation;
}

// The session's input: the demo, the script file or standard input.
struct Input {
    std::unique_ptr<host::LineReader> reader;
    // The script's descriptor, closed with the input.
    int fd = -1;
    std::string name = "standard input";

    Input() = default;
    Input(Input&& other) noexcept
        : reader(std::move(other.reader)), fd(std::exchange(other.fd, -1)), name(other.name) {}
    Input& operator=(Input&&) = delete;
    ~Input() {
        if (fd >= 0) {
            ::close(fd);
        }
    }
};

std::variant<Input, std::string> openInput(const host::HostOptions& options) {
    Input input;
    if (options.demo) {
        input.reader = std::make_unique<host::LineReader>(host::demoScript());
        input.name = "the demo";
    } else if (options.script) {
        std::error_code error;
        if (std::filesystem::is_directory(*options.script, error)) {
            return "cannot read script " + options.script->string() + ": it is a directory";
        }
        input.fd = ::open(options.script->c_str(), O_RDONLY | O_CLOEXEC);
        if (input.fd < 0) {
            return "cannot read script " + options.script->string() + ": " + std::strerror(errno);
        }
        input.reader = std::make_unique<host::LineReader>(input.fd);
        input.name = "script " + options.script->string();
    } else {
        input.reader = std::make_unique<host::LineReader>(STDIN_FILENO);
    }
    return input;
}

// A push file is a small JSON object; anything far larger is refused before it is read whole.
constexpr std::streamsize kPushFileLimit = 1 << 20;

// Reads and checks one --push file: the push it delivers, or why it cannot.
std::variant<host::PushCommand, std::string> loadPushFile(const host::PushFile& file,
                                                          const host::Phone& phone) {
    std::error_code error;
    if (std::filesystem::is_directory(file.path, error)) {
        return std::string("it is a directory");
    }
    std::ifstream stream(file.path, std::ios::binary);
    if (!stream) {
        return std::string(std::strerror(errno));
    }
    std::string text(static_cast<std::size_t>(kPushFileLimit) + 1, '\0');
    stream.read(text.data(), kPushFileLimit + 1);
    if (stream.bad()) {
        return std::string("read error");
    }
    text.resize(static_cast<std::size_t>(stream.gcount()));
    if (text.size() > static_cast<std::size_t>(kPushFileLimit)) {
        return std::string("larger than 1 MiB: not a push payload");
    }
    std::string reason;
    const auto json = platform::JSONSerialization::jsonObject(text, {}, &reason);
    if (!json) {
        return "not JSON: " + reason;
    }
    host::PushCommand push;
    push.appOverride = file.app;
    push.tap = file.tap;
    if (auto refusal = host::readPushPayload(*json, push)) {
        return std::move(*refusal);
    }
    if (push.targetBundle) {
        if (auto wrong = phone.wrongTargetBundle(*push.targetBundle)) {
            return std::move(*wrong);
        }
    }
    return push;
}

// Undoes what runHost set up in the process-wide services, on every way out.
struct ProcessWiring {
    core::OrraBridgeDispatcher& dispatcher = core::OrraBridgeDispatcher::shared();
    std::optional<core::OrraBridgeDispatcher::SubscriptionId> subscription;

    ProcessWiring() = default;
    ProcessWiring(const ProcessWiring&) = delete;
    ProcessWiring& operator=(const ProcessWiring&) = delete;
    ~ProcessWiring() {
        // Nothing may reach runHost's objects once it returns.
        if (subscription) {
            dispatcher.unsubscribe(*subscription);
        }
        platform::setLogSink({});
    }
};

// `sandbox`: the private network COMMAND runs in, when there is a COMMAND.
int runHost(const host::HostOptions& options, host::NetworkSandbox* sandbox) {
    auto opened = openInput(options);
    if (auto* message = std::get_if<std::string>(&opened)) {
        return fail(*message);
    }
    Input input = std::move(std::get<Input>(opened));

    platform::setLogLevel(options.logLevel);
    host::installLogSink(stderr);
    // --output FILE: the host's lines go to FILE, leaving standard output to COMMAND.
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> outputFile(nullptr, &std::fclose);
    if (options.output) {
        outputFile.reset(std::fopen(options.output->c_str(), "we"));
        if (!outputFile) {
            return fail("cannot write " + options.output->string() + ": " + std::strerror(errno));
        }
    }
    const std::string outputName = options.output ? options.output->string() : "standard output";
    host::OutputWriter output(outputFile ? outputFile.get() : stdout);
    ProcessWiring wiring;
    wiring.subscription =
        wiring.dispatcher.subscribe([&output](const std::string& name, const std::string& payload) {
            output.writeBuiltLine(
                [&](std::string& line) { host::appendEventLine(line, name, payload); });
        });
    // The plug-in, registered as the add-on's registration does it, but with a queue the host
    // keeps: the provider API's push service delivers on it too, so that a notification goes from
    // the system to the plug-in without a thread hop.
    std::shared_ptr<platform::DispatchQueue> pluginQueue;
    try {
        pluginQueue = std::make_shared<platform::DispatchQueue>(
            std::string(apns::ApnsServicePlugin::queueLabel), platform::DispatchQoS::userInitiated);
        wiring.dispatcher.registerPlugin(
            std::string(apns::ApnsServicePlugin::name),
            std::make_shared<apns::ApnsServicePlugin>(
                std::make_shared<apns::ApnsServiceNativeAdapterDefault>(), pluginQueue));
    } catch (const std::bad_alloc&) {
        return fail("the ApnsService plug-in could not be made: out of memory");
    }
    auto plugin = wiring.dispatcher.plugin(apns::ApnsServicePlugin::name);
    if (!plugin) {
        return fail("the ApnsService plug-in did not register");
    }
    host::Bridge bridge(output, std::move(plugin));
    host::Application application(bridge);
    host::Phone phone(output, application);

    auto bundle = options.bundle;
    if (!bundle && options.demo) {
        bundle = std::filesystem::path(NIMBORRA_SAMPLE_BUNDLE_DIR);
    }
    if (auto reason = phone.openBundle(bundle)) {
        return fail(*reason);
    }
    // Every push file is checked before anything runs, so a bad one has no effect at all.
    std::vector<host::PushCommand> pushes;
    for (const auto& file : options.pushes) {
        auto loaded = loadPushFile(file, phone);
        if (auto* reason = std::get_if<std::string>(&loaded)) {
            return fail(file.path.string() + ": " + *reason);
        }
        pushes.push_back(std::move(std::get<host::PushCommand>(loaded)));
    }

    // The simulated system starts from its defaults: authorization granted, status not
    // determined (or --status), no badge error, the application in the foreground (or --app).
    auto& center = platform::UNUserNotificationCenter::currentNotificationCenter();
    center.reset();
    if (options.authorizationStatus) {
        center.setAuthorizationStatus(*options.authorizationStatus);
    }
    phone.setApplicationState(options.app);
    if (options.present) {
        application.setPresentation(host::PresentationOptions::named(*options.present));
    }

    host::Session session(output, bridge, phone, application, options.echo || options.demo);
    host::SessionStatus status = host::SessionStatus::accepted;

    std::unique_ptr<host::ProviderApi> providerApi;
    if (options.providerApi) {
        auto started =
            host::ProviderApi::start(*options.providerApi, phone, application, output, pluginQueue);
        if (auto* reason = std::get_if<std::string>(&started)) {
            return fail(*reason);
        }
        providerApi = std::move(std::get<std::unique_ptr<host::ProviderApi>>(started));
    }
    // COMMAND: trusts the host's certificate, learns the device's token, and starts once the
    // application has registered; its end ends the session as SIGTERM does.
    std::unique_ptr<host::CommandRunner> command;
    if (options.command) {
        host::CommandSetup setup{*options.command, {}, options.script.has_value()};
        if (auto failed = providerApi->certificatePem().empty()
                              ? std::nullopt
                              : sandbox->trust(providerApi->certificatePem())) {
            return fail(*failed);
        }
        setup.environment = sandbox->environment();
        setup.environment.emplace_back("APNS_HOST_DEVICE_TOKEN", providerApi->deviceToken());
        command = std::make_unique<host::CommandRunner>(std::move(setup));
    }
    // Set once SIGINT or SIGTERM has come (provider API only); the input then counts as ended.
    std::atomic<bool> stopRequested = false;
    std::mutex stopMutex;
    std::condition_variable stopSignalled;
    std::thread signalWaiter;
    if (providerApi) {
        input.reader->setCancellation(&stopRequested);
        signalWaiter = std::thread([&] {
            if (command) {
                // Passes the signals on to COMMAND and returns once it has ended.
                command->waitForExit();
                const std::lock_guard lock(stopMutex);
                stopRequested = true;
                stopSignalled.notify_all();
                return;
            }
            sigset_t signals;
            sigemptyset(&signals);
            sigaddset(&signals, SIGINT);
            sigaddset(&signals, SIGTERM);
            int signal = 0;
            sigwait(&signals, &signal);
            const std::lock_guard lock(stopMutex);
            stopRequested = true;
            stopSignalled.notify_all();
        });
    }

    std::thread reader([&] {
        if (providerApi) {
            // The application registers for remote notifications at launch.
            application.registerForRemoteNotifications();
            session.waitForReplies();
            if (command) {
                if (auto failed = command->start()) {
                    fail(*failed);
                }
            }
            status = session.run(*input.reader);
            if (!output.failed()) {
                // The push server may go on sending after the input has ended.
                std::unique_lock lock(stopMutex);
                stopSignalled.wait(lock, [&] { return stopRequested.load(); });
            }
            providerApi->stop();
            session.waitForReplies();
        } else if (pushes.empty()) {
            status = session.run(*input.reader);
        } else {
            // Standard input is not read: the files are the whole session.
            for (const auto& push : pushes) {
                session.push(push);
            }
            session.waitForReplies();
        }
        platform::DispatchQueue::stopMainLoop();
    });
    platform::DispatchQueue::runMainLoop();
    reader.join();
    if (signalWaiter.joinable()) {
        if (!stopRequested) {
            // The session ended without a signal (its output failed): end the waiter with one.
            pthread_kill(signalWaiter.native_handle(), SIGTERM);
        }
        signalWaiter.join();
    }
    providerApi.reset();
    output.drain();

    if (session.readError() != 0) {
        return fail("reading " + input.name + " failed: " + std::strerror(session.readError()));
    }
    if (output.failed()) {
        return fail("writing " + outputName + " failed: " + std::strerror(output.error()));
    }
    if (command) {
        return command->exitStatus();
    }
    if (options.providerApi && status == host::SessionStatus::refused) {
        // A provider session ends by a signal, not by its input: refused lines have been
        // answered on the output and do not make the ending a failure.
        return 0;
    }
    return static_cast<int>(status);
}

}  // namespace

int main(int argc, char** argv) {
    // A reader that goes away is a write error to report, not a reason to die silently.
    std::signal(SIGPIPE, SIG_IGN);
    try {
        const std::vector<std::string_view> arguments(argv + (argc > 0 ? 1 : 0), argv + argc);
        const auto parsed = nimborra::host::parseOptions(arguments);
        if (std::holds_alternative<nimborra::host::HelpRequest>(parsed)) {
            const auto help = nimborra::host::helpText();
            std::fwrite(help.data(), 1, help.size(), stdout);
            return 0;
        }
        if (const auto* error = std::get_if<nimborra::host::OptionError>(&parsed)) {
            fail(error->message);
            std::fprintf(stderr, "Try 'apns-host --help'.\n");
            return kStatusBadInvocation;
        }
        const auto& options = std::get<nimborra::host::HostOptions>(parsed);
        if (options.describe) {
            const auto description = nimborra::host::describeProtocol() + "\n";
            std::fwrite(description.data(), 1, description.size(), stdout);
            return std::fflush(stdout) == 0 ? 0 : fail("writing standard output failed");
        }
        if (options.printProviderToken) {
            const auto token = nimborra::host::printableProviderToken(*options.providerApi);
            if (token.index() == 1) {
                return fail(std::get<1>(token));
            }
            std::printf("%s\n", std::get<0>(token).c_str());
            return 0;
        }
        if (options.providerApi) {
            tuneAllocator(argv);
            // SIGINT and SIGTERM end a provider session: they are taken by one thread with
            // sigwait, so every thread started from here on must have them blocked.
            sigset_t signals;
            sigemptyset(&signals);
            sigaddset(&signals, SIGINT);
            sigaddset(&signals, SIGTERM);
            pthread_sigmask(SIG_BLOCK, &signals, nullptr);
        }
        // COMMAND's private network, entered while this is the only thread (see NetworkSandbox.h).
        std::unique_ptr<nimborra::host::NetworkSandbox> sandbox;
        if (options.command) {
            auto entered = nimborra::host::NetworkSandbox::enter(options.providerApi->host);
            if (auto* reason = std::get_if<std::string>(&entered)) {
                return fail(*reason);
            }
            sandbox = std::move(std::get<std::unique_ptr<nimborra::host::NetworkSandbox>>(entered));
        }
        return runHost(options, sandbox.get());
    } catch (const std::exception& error) {
        return fail(error.what());
    }
}
