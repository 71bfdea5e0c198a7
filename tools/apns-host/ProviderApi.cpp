#include "ProviderApi.h"

#include <chrono>
#include <fstream>
#include <utility>

#include "NimbOrraPlatform/Application.h"
#include "NimbOrraPlatform/Bundle.h"
#include "NimbOrraPushAddonApns/ApnsEntitlementReader.h"
#include "ProviderLines.h"

namespace nimborra::host {

namespace {

std::int64_t nowSeconds() {
    return std::chrono::duration_cast<std::chrono::seconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

}  // namespace

ProviderApi::~ProviderApi() {
    stop();
}

std::variant<std::unique_ptr<ProviderApi>, std::string> ProviderApi::start(
    const ProviderApiOptions& options, Phone& phone, Application& application, OutputWriter& output,
    std::shared_ptr<platform::DispatchQueue> queue) {
    const auto profile = phone.profile();
    const auto& bundleIdentifier = profile.bundleIdentifier;
    if (!bundleIdentifier) {
        return std::string(
            "--provider-api needs the application's bundle identifier: no readable "
            "embedded.mobileprovision with an application-identifier in the bundle (--bundle)");
    }

    provider::ProviderServerOptions serverOptions;
    serverOptions.host = options.host;
    serverOptions.port = options.port;
    if (!options.cleartext) {
        auto tls = provider::TlsServerContext::create(
            {options.tlsCertificate, options.tlsKey, options.clientCa});
        if (auto* reason = std::get_if<std::string>(&tls)) {
            return std::move(*reason);
        }
        serverOptions.tls = std::move(std::get<std::shared_ptr<provider::TlsServerContext>>(tls));
        if (options.tlsCertificateOut) {
            std::ofstream out(*options.tlsCertificateOut, std::ios::binary | std::ios::trunc);
            out << serverOptions.tls->certificatePem();
            out.close();
            if (!out) {
                return "cannot write the certificate to " + options.tlsCertificateOut->string();
            }
        }
    }
    std::string authentication;
    if (options.clientCa) {
        authentication = "client certificate issued by " + options.clientCa->string() +
                         "; its subject's UID is its topic";
    } else if (options.authKey) {
        auto key = provider::AuthKey::load(*options.authKey);
        if (auto* reason = std::get_if<std::string>(&key)) {
            return options.authKey->string() + ": " + *reason;
        }
        serverOptions.tokens = std::make_shared<provider::ProviderTokenVerifier>(
            std::move(std::get<provider::AuthKey>(key)), *options.keyId, *options.teamId);
        authentication = "token: ES256, signed with key " + *options.keyId + " of team " +
                         *options.teamId + ", verified";
    } else {
        serverOptions.tokens =
            std::make_shared<provider::ProviderTokenVerifier>(std::nullopt, "", "");
        authentication =
            "token: any well-formed ES256 token, signature not verified (no --auth-key)";
    }

    std::unique_ptr<ProviderApi> api(new ProviderApi());
    std::optional<platform::Data> token;
    if (options.deviceToken) {
        token = platform::Data{*options.deviceToken};
    }
    api->service_ = std::make_unique<provider::ProviderService>(
        *bundleIdentifier, std::move(token),
        profile.environment ? provider::apnsEnvironmentNamed(*profile.environment) : std::nullopt,
        phone, phone, std::move(queue));
    phone.attachProviderService(*api->service_);
    auto& system = platform::UIApplication::sharedApplication();
    system.setDeviceTokenIssuer([service = api->service_.get()] { return service->deviceToken(); });
    system.setRegistrationCallback([&application](const platform::Data& deviceToken) {
        application.didRegisterForRemoteNotifications(deviceToken);
    });

    const bool tls = serverOptions.tls != nullptr;
    std::optional<std::string> fingerprint;
    if (tls) {
        fingerprint = serverOptions.tls->fingerprint();
        api->certificatePem_ = serverOptions.tls->certificatePem();
    }
    // The additional ports share the certificate, the token verifier and the service.
    const auto additionalOptions = serverOptions;
    auto server = provider::ProviderServer::start(std::move(serverOptions), *api->service_);
    if (auto* reason = std::get_if<std::string>(&server)) {
        return std::move(*reason);
    }
    api->server_ = std::move(std::get<std::unique_ptr<provider::ProviderServer>>(server));
    for (const auto port : options.additionalPorts) {
        auto portOptions = additionalOptions;
        portOptions.port = port;
        auto additional = provider::ProviderServer::start(std::move(portOptions), *api->service_);
        if (auto* reason = std::get_if<std::string>(&additional)) {
            return std::move(*reason);
        }
        api->additionalServers_.push_back(
            std::move(std::get<std::unique_ptr<provider::ProviderServer>>(additional)));
    }

    ProviderApiStart start;
    start.address =
        options.host.find(':') != std::string::npos ? "[" + options.host + "]" : options.host;
    start.port = api->server_->port();
    start.tls = tls;
    start.fingerprint = std::move(fingerprint);
    start.environment = profile.environment;
    start.topic = *bundleIdentifier;
    start.deviceToken = provider::ProviderService::hex(*api->service_->deviceToken());
    api->deviceToken_ = start.deviceToken;
    start.authentication = std::move(authentication);
    output.writeLine(providerStartLine(start));
    return api;
}

void ProviderApi::stop() {
    if (server_) {
        server_->stop();
    }
    for (auto& server : additionalServers_) {
        server->stop();
    }
    if (service_) {
        service_->stop();
    }
    auto& system = platform::UIApplication::sharedApplication();
    system.setDeviceTokenIssuer({});
    system.setRegistrationCallback({});
}

std::variant<std::string, std::string> printableProviderToken(const ProviderApiOptions& options) {
    auto key = provider::AuthKey::load(*options.authKey);
    if (auto* reason = std::get_if<std::string>(&key)) {
        return std::variant<std::string, std::string>(std::in_place_index<1>,
                                                      options.authKey->string() + ": " + *reason);
    }
    auto token = provider::makeProviderToken(std::get<provider::AuthKey>(key), *options.keyId,
                                             *options.teamId, nowSeconds());
    if (!token) {
        return std::variant<std::string, std::string>(
            std::in_place_index<1>,
            options.authKey->string() + ": a public key cannot sign; give the .p8 private key");
    }
    return std::variant<std::string, std::string>(std::in_place_index<0>, std::move(*token));
}

}  // namespace nimborra::host
