// A host that uses the installed add-on: installs the plug-in and makes one call.
#include <NimbOrraCore/OrraBridgeDispatcher.h>
#include <NimbOrraPushAddonApns/ApnsServiceNativeAdapterDefault.h>

#include <future>
#include <iostream>

int main() {
    Nimb_Orra_ApnsService_Register();
    auto plugin = nimborra::core::OrraBridgeDispatcher::shared().plugin("ApnsService");
    if (!plugin) {
        std::cerr << "ApnsService is not registered\n";
        return 1;
    }
    std::promise<std::string> reply;
    plugin->callAsync("GetToken", "{}", [&](std::string text) { reply.set_value(std::move(text)); });
    const std::string text = reply.get_future().get();
    std::cout << text << '\n';
    return text.find("SIMULATOR_NO_APNS") == std::string::npos ? 1 : 0;
}
