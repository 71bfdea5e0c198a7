// The bridge plug-in "ApnsService". It receives calls by method name with a JSON payload, runs
// each on its own serial queue, hands the decoded request to its adapter and answers with one
// JSON reply text (see ApnsOutcomeEnvelope).
//
// Promises:
// - callAsync returns at once; every call is answered exactly once, on the plug-in's queue, in
//   the order in which callAsync was called, also for unknown methods and bad payloads. The next
//   call's operation starts only after the previous call's callback has returned. A call that
//   the queue cannot take (its thread could not be started, memory ran out) is answered at once,
//   on the calling thread before callAsync returns, with ApnsOutcomeEnvelope's
//   serialisationFallback reply, and an error is logged.
// - callSync refuses every method; cancel forwards the identifier to the adapter at once, on the
//   caller's thread, and changes nothing else (the cancelled call is still answered).
// - No exception escapes any member.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "NimbOrraCore/OrraPlugin.h"
#include "NimbOrraPlatform/DispatchQueue.h"
#include "NimbOrraPushAddonApns/ApnsServiceNativeAdapter.h"
#include "NimbOrraPushAddonApns/Export.h"

namespace nimborra::apns {

class NIMBORRA_APNS_EXPORT ApnsServicePlugin final
    : public core::OrraPlugin,
      public std::enable_shared_from_this<ApnsServicePlugin> {
  public:
    // The name of the plug-in on the bridge.
    static constexpr std::string_view name = "ApnsService";
    // The label of each plug-in's serial queue.
    static constexpr std::string_view queueLabel = "com.nimborra.apns_service.plugin";

    // A plug-in is made with an adapter and a queue. Should either be null all the same, every
    // call is still answered: without an adapter with an INTERNAL error reply, without a queue
    // with the fall-back reply.
    ApnsServicePlugin() = delete;
    ApnsServicePlugin(std::shared_ptr<ApnsServiceNativeAdapter> adapter,
                      std::shared_ptr<platform::DispatchQueue> queue);
    ~ApnsServicePlugin() override;

    // Builds a plug-in with a new serial queue (quality of service userInitiated) around
    // `adapter` and registers it under "ApnsService" with the shared bridge dispatcher, which
    // keeps it alive. Each call builds a fresh plug-in and queue; the dispatcher's later
    // registration replaces the earlier one. A null adapter is refused: an error is logged and
    // nothing is registered (an earlier registration stays). Any thread.
    static void registerPlugin(std::shared_ptr<ApnsServiceNativeAdapter> adapter);

    std::string_view pluginName() const override { return name; }
    std::string callSync(std::string_view method, std::string_view payload) override;
    void callAsync(std::string method, std::string payload,
                   core::OrraCompletion onComplete) override;
    void cancel(std::int64_t callbackId) override;

    // The collaborators the plug-in was made with; the references are valid as long as the
    // plug-in is. queue() only for a plug-in made with a queue.
    const std::shared_ptr<ApnsServiceNativeAdapter>& adapter() const { return adapter_; }
    const platform::DispatchQueue& queue() const { return *queue_; }

    // The reply for one call, computed on the calling thread: method lookup, request decoding,
    // the adapter's operation and the reply envelope. callAsync runs this on the queue.
    [[nodiscard]] std::string handle(std::string_view method, std::string_view payload);

  private:
    const std::shared_ptr<ApnsServiceNativeAdapter> adapter_;
    const std::shared_ptr<platform::DispatchQueue> queue_;
};

}  // namespace nimborra::apns
