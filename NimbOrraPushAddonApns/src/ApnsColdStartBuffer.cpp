#include "NimbOrraPushAddonApns/ApnsColdStartBuffer.h"

#include <new>
#include <utility>

#include "NimbOrraPushAddonApns/ApnsNotificationMapper.h"

namespace nimborra::apns {

ApnsColdStartBuffering::~ApnsColdStartBuffering() = default;

std::shared_ptr<ApnsColdStartBuffer> ApnsColdStartBuffer::shared() noexcept {
    // Built in static storage and never destroyed: no allocation can fail here, and a launch
    // hook or plug-in still running during static destruction finds the buffer intact. The
    // returned pointer shares no ownership (the aliasing constructor with an empty owner).
    alignas(ApnsColdStartBuffer) static unsigned char storage[sizeof(ApnsColdStartBuffer)];
    static ApnsColdStartBuffer* const instance =
        ::new (static_cast<void*>(storage)) ApnsColdStartBuffer();
    return std::shared_ptr<ApnsColdStartBuffer>(std::shared_ptr<void>(), instance);
}

void ApnsColdStartBuffer::capture(const platform::Dictionary& remotePayload) noexcept {
    // Mapping serialises the whole payload; it happens before the lock so that a drain never
    // waits for JSON work.
    ApnsNotification notification = ApnsNotificationMapper::map(remotePayload);
    std::lock_guard guard(lock_);
    pending_ = std::move(notification);
}

std::optional<ApnsNotification> ApnsColdStartBuffer::drain() noexcept {
    std::optional<ApnsNotification> taken;
    {
        std::lock_guard guard(lock_);
        taken.swap(pending_);
    }
    return taken;
}

}  // namespace nimborra::apns
