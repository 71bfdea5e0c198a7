// The interface through which the bridge reaches a plug-in: a named object that answers method
// calls from the far side of the bridge with JSON reply texts.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "NimbOrraCore/Export.h"

namespace nimborra::core {

// Receives the one reply text of an asynchronous call.
using OrraCompletion = std::function<void(std::string reply)>;

// A bridge plug-in. The bridge keeps registered plug-ins alive (OrraBridgeDispatcher) and may
// call every member from any thread, also from several threads at once; each implementation
// guards its own state.
//
// No member may let an exception escape: failures travel back as reply texts.
class NIMBORRA_CORE_EXPORT OrraPlugin {
  public:
    virtual ~OrraPlugin();

    // The name under which the plug-in is known on the bridge. Constant for the object's life;
    // the view stays valid as long as the plug-in does.
    virtual std::string_view pluginName() const = 0;

    // Answers a synchronous call, on the caller's thread, with its reply text.
    virtual std::string callSync(std::string_view method, std::string_view payload) = 0;

    // Starts an asynchronous call and returns without waiting for it. The plug-in keeps its own
    // copy of `onComplete` and calls it exactly once per call, on any path (unknown method, bad
    // payload, failure or success), with the call's reply text, on a thread of the plug-in's
    // choosing; it may do so before callAsync returns. The callback must be safe to call from
    // that thread and must not assume the caller's thread.
    virtual void callAsync(std::string method, std::string payload, OrraCompletion onComplete) = 0;

    // Tells the plug-in that the bridge call `callbackId` is no longer wanted. Runs on the
    // caller's thread; it never suppresses the reply of an asynchronous call, which is still
    // delivered exactly once.
    virtual void cancel(std::int64_t callbackId) = 0;

  protected:
    OrraPlugin() = default;
    OrraPlugin(const OrraPlugin&) = default;
    OrraPlugin& operator=(const OrraPlugin&) = default;
};

}  // namespace nimborra::core
