// Keeps the notification that launched the application until the far side of the bridge is ready
// to ask for it. When the user opens the application by tapping a remote notification, the
// notification arrives before anyone listens on the bridge: the host's launch code hands its
// payload to ApnsColdStartBuffer::shared()->capture(...), and the plug-in later drains it,
// exactly once, when the far side asks for the launch notification.
//
// At most one notification is kept: the last capture wins, and an earlier notification that was
// never drained is dropped without notice. Nothing is persisted.
#pragma once

#include <memory>
#include <mutex>
#include <optional>

#include "NimbOrraPlatform/Value.h"
#include "NimbOrraPushAddonApns/ApnsNotification.h"
#include "NimbOrraPushAddonApns/Export.h"

namespace nimborra::apns {

// The holder of a launch notification, as the plug-in's adapter sees it. Implementations must
// allow capture and drain from any threads at once, each atomic with respect to the others.
class NIMBORRA_APNS_EXPORT ApnsColdStartBuffering {
  public:
    virtual ~ApnsColdStartBuffering();

    // Keeps the notification of a remote payload, replacing any notification kept before.
    virtual void capture(const platform::Dictionary& remotePayload) = 0;

    // Takes the kept notification out, leaving nothing behind; nothing when none is kept.
    [[nodiscard]] virtual std::optional<ApnsNotification> drain() = 0;
};

// The production buffer: one optional notification behind a mutex.
//
// Thread safety: every member function may be called from any thread at once. The payload is
// mapped (ApnsNotificationMapper::map, JSON work included) before the lock is taken; the lock is
// held only while the kept notification is swapped, so a drain sees the buffer either before or
// after a capture, never a partial record, and two drains never both receive one notification.
// Nothing here throws.
class NIMBORRA_APNS_EXPORT ApnsColdStartBuffer final : public ApnsColdStartBuffering {
  public:
    // The process-wide buffer, created on first use (thread-safely) and never destroyed, so the
    // host's launch code and the plug-in meet in it whenever each of them runs, static
    // destruction included. Every call returns the same object; the pointer does not own it.
    static std::shared_ptr<ApnsColdStartBuffer> shared() noexcept;

    // An empty buffer of its own, separate from the shared one.
    ApnsColdStartBuffer() noexcept = default;
    ApnsColdStartBuffer(const ApnsColdStartBuffer&) = delete;
    ApnsColdStartBuffer& operator=(const ApnsColdStartBuffer&) = delete;

    // Maps the payload into an ApnsNotification and keeps it in place of any earlier one. A
    // payload without an "aps" member is kept too, as the near-empty record it maps to.
    void capture(const platform::Dictionary& remotePayload) noexcept override;

    // The kept notification, moved out; nothing when the buffer is empty. Leaves it empty.
    [[nodiscard]] std::optional<ApnsNotification> drain() noexcept override;

  private:
    std::mutex lock_;
    std::optional<ApnsNotification> pending_;  // guarded by lock_
};

}  // namespace nimborra::apns
