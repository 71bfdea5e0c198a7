#include "NimbOrraPushAddonApns/ApnsOutcomeEnvelope.h"

namespace nimborra::apns {

namespace {

platform::Value wrap(std::string_view member, platform::Value value) {
    platform::Dictionary top;
    top.set(platform::Key(member), std::move(value));
    return platform::Value(std::move(top));
}

}  // namespace

std::string ApnsOutcomeEnvelope::serialise(const platform::Value& tree) {
    try {
        auto text = platform::JSONSerialization::data(tree);
        if (!text) {
            return std::string(serialisationFallback);
        }
        if (!platform::isValidUTF8(*text)) {
            return std::string(textFallback);
        }
        return std::move(*text);
    } catch (...) {
        return std::string(serialisationFallback);
    }
}

std::string ApnsOutcomeEnvelope::errorReply(std::string_view code, std::string_view message) {
    try {
        platform::Dictionary error;
        error.set("code", code);
        error.set("message", message);
        return serialise(wrap("error", platform::Value(std::move(error))));
    } catch (...) {
        return std::string(serialisationFallback);
    }
}

std::string ApnsOutcomeEnvelope::failureReply(const core::NimbError& problem) {
    try {
        return serialise(wrap("error", problem.toJSONObject()));
    } catch (...) {
        return std::string(serialisationFallback);
    }
}

std::string ApnsOutcomeEnvelope::unknownReply(const ApnsServiceUnknownOutcome& outcome) {
    try {
        auto data = platform::JSONSerialization::jsonObject(
            outcome.rawJson, platform::JSONReadingOptions{.fragmentsAllowed = true});
        if (!data) {
            return errorReply("INTERNAL", unknownOutcomeNotJSONMessage);
        }
        platform::Dictionary body;
        body.set("code", outcome.code);
        body.set("data", std::move(*data));
        return serialise(wrap("outcome", platform::Value(std::move(body))));
    } catch (...) {
        return std::string(serialisationFallback);
    }
}

std::string ApnsOutcomeEnvelope::successReply(std::string encodedResponse) {
    std::string reply;
    reply.reserve(successOpening.size() + encodedResponse.size() + 1);
    reply += successOpening;
    reply += encodedResponse;
    closeSuccessReply(reply);
    return reply;
}

void ApnsOutcomeEnvelope::closeSuccessReply(std::string& reply) {
    if (!platform::isValidUTF8(std::string_view(reply).substr(successOpening.size()))) {
        reply.resize(successOpening.size());
        reply += "{}";
    }
    reply += '}';
}

}  // namespace nimborra::apns
