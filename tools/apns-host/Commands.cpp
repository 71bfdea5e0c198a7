#include "Commands.h"

#include <array>
#include <cctype>
#include <utility>

#include "NimbOrraPlatform/Base64.h"
#include "NimbOrraPlatform/JSONSerialization.h"
#include "NimbOrraPlatform/Uuid.h"

namespace nimborra::host {

namespace {

using platform::Dictionary;
using platform::Value;

// A reason for refusing a line; nothing when all is well.
using Refusal = std::optional<std::string>;

constexpr std::string_view kCallMembers[] = {"call", "payload", "id"};
constexpr std::string_view kCallSyncMembers[] = {"callSync", "payload", "id"};
constexpr std::string_view kCancelMembers[] = {"cancel", "id"};
constexpr std::string_view kLaunchMembers[] = {"launch", "id"};
constexpr std::string_view kPlatformMembers[] = {"platform", "id"};
constexpr std::string_view kPlatformSettings[] = {
    "authorization", "authorizationStatus", "badgeError",  "bundle", "app",
    "present",       "deviceRegistered",    "deviceOnline"};
constexpr std::string_view kInspectMembers[] = {"inspect", "id"};
constexpr std::string_view kPushMembers[] = {"push", "app", "tap", "apnsId", "collapseId", "id"};
constexpr std::string_view kTapMembers[] = {"tap", "action", "id"};

constexpr std::array<CommandShape, 8> kCommands{{
    {"call", kCallMembers, {}},
    {"callSync", kCallSyncMembers, {}},
    {"cancel", kCancelMembers, {}},
    {"launch", kLaunchMembers, {}},
    {"platform", kPlatformMembers, kPlatformSettings},
    {"inspect", kInspectMembers, {}},
    {"push", kPushMembers, {}},
    {"tap", kTapMembers, {}},
}};

// The members a command may hold.
std::span<const std::string_view> membersOf(std::string_view command) {
    for (const auto& shape : kCommands) {
        if (shape.name == command) {
            return shape.members;
        }
    }
    return {};
}

bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\f' || c == '\v';
}

std::string_view trimmed(std::string_view text) {
    while (!text.empty() && isBlank(text.front())) {
        text.remove_prefix(1);
    }
    while (!text.empty() && isBlank(text.back())) {
        text.remove_suffix(1);
    }
    return text;
}

// A member name as it appears in messages: in quotation marks.
std::string inQuotes(std::string_view name) {
    std::string text = "\"";
    text.append(name);
    text.push_back('"');
    return text;
}

const std::string* keyText(const Dictionary::Entry& entry) {
    return entry.first.text();
}

// Refuses every member of `object` whose name is not `allowed`.
Refusal onlyMembers(const Dictionary& object, std::span<const std::string_view> allowed,
                    std::string_view where) {
    for (const auto& entry : object) {
        const std::string* name = keyText(entry);
        bool known = false;
        for (const auto candidate : allowed) {
            known = known || (name != nullptr && *name == candidate);
        }
        if (!known) {
            return "unknown member " + inQuotes(name ? *name : entry.first.description()) + " in " +
                   std::string(where);
        }
    }
    return std::nullopt;
}

// {"domain": TEXT, "code": INT}, exactly; nothing for any other value.
std::optional<platform::NSError> readError(const Value& value) {
    const Dictionary* object = value.dictionary();
    if (object == nullptr || object->size() != 2) {
        return std::nullopt;
    }
    const Value* domain = object->find("domain");
    const Value* code = object->find("code");
    if (domain == nullptr || domain->text() == nullptr || code == nullptr ||
        code->integer() == nullptr) {
        return std::nullopt;
    }
    return platform::NSError{*domain->text(), *code->integer()};
}

Refusal convertLaunchMembers(const Dictionary& object, Dictionary& converted);

// Turns the "$data" and "$date" forms inside a launch payload into byte data and dates, at
// every depth.
Refusal convertLaunchValue(Value& value) {
    if (Dictionary* object = value.dictionary()) {
        if (object->size() == 1) {
            const auto& [key, inner] = *object->begin();
            const std::string* name = key.text();
            if (name != nullptr && *name == "$data") {
                const std::string* text = inner.text();
                const auto bytes = text ? platform::base64DecodedData(*text) : std::nullopt;
                if (!bytes) {
                    return std::string("launch: \"$data\" must hold standard padded base64");
                }
                value = Value(platform::Data{*bytes});
                return std::nullopt;
            }
            if (name != nullptr && *name == "$date") {
                double seconds = 0;
                if (const auto* integer = inner.integer()) {
                    seconds = static_cast<double>(*integer);
                } else if (const auto* large = inner.unsignedInteger()) {
                    seconds = static_cast<double>(*large);
                } else if (const auto* real = inner.real()) {
                    seconds = *real;
                } else {
                    return std::string("launch: \"$date\" must be a number of seconds since 1970");
                }
                value = Value(platform::Date{seconds});
                return std::nullopt;
            }
        }
        Dictionary converted;
        if (auto refusal = convertLaunchMembers(*object, converted)) {
            return refusal;
        }
        value = Value(std::move(converted));
        return std::nullopt;
    }
    if (platform::Array* array = value.array()) {
        for (Value& element : *array) {
            if (auto refusal = convertLaunchValue(element)) {
                return refusal;
            }
        }
    }
    return std::nullopt;
}

// The members of `object`, each converted as above, into `converted`.
Refusal convertLaunchMembers(const Dictionary& object, Dictionary& converted) {
    converted.reserve(object.size());
    for (const auto& [key, member] : object) {
        Value copy = member;
        if (auto refusal = convertLaunchValue(copy)) {
            return refusal;
        }
        converted.set(key, std::move(copy));
    }
    return std::nullopt;
}

Refusal readCall(const Dictionary& object, const std::string& name, CallCommand& call) {
    if (auto refusal = onlyMembers(object, membersOf(name), "a " + name + " command")) {
        return refusal;
    }
    call.synchronous = name == "callSync";
    const Value* method = object.find(name);
    if (method->text() == nullptr) {
        return inQuotes(name) + " must be a string (the method name)";
    }
    call.method = *method->text();

    call.payload = "{}";
    if (const Value* payload = object.find("payload")) {
        if (const std::string* text = payload->text()) {
            call.payload = *text;
        } else {
            platform::JSONWritingOptions options;
            options.fragmentsAllowed = true;
            auto json = platform::JSONSerialization::data(*payload, options);
            if (!json) {
                return std::string("\"payload\" cannot be written as JSON");
            }
            call.payload = std::move(*json);
        }
    }
    return std::nullopt;
}

Refusal readCancel(const Dictionary& object, CancelCommand& cancel) {
    if (auto refusal = onlyMembers(object, membersOf("cancel"), "a cancel command")) {
        return refusal;
    }
    const Value* identifier = object.find("cancel");
    if (identifier->integer() == nullptr) {
        return std::string("\"cancel\" must be an integer (the callback identifier)");
    }
    cancel.callbackId = *identifier->integer();
    return std::nullopt;
}

Refusal readLaunch(const Dictionary& object, LaunchCommand& launch) {
    if (auto refusal = onlyMembers(object, membersOf("launch"), "a launch command")) {
        return refusal;
    }
    const Dictionary* payload = object.find("launch")->dictionary();
    if (payload == nullptr) {
        return std::string("\"launch\" must be an object (the launch notification's payload)");
    }
    // The payload itself is always a dictionary: only the values inside it can stand for byte
    // data or dates, so {"$date": 0} at the top is a payload with a member named "$date".
    return convertLaunchMembers(*payload, launch.payload);
}

Refusal readAuthorization(const Value& value, AuthorizationAnswer& answer) {
    static const std::string expected =
        "platform: \"authorization\" must be {\"granted\": BOOL} or {\"error\": {\"domain\": "
        "TEXT, \"code\": INT}}";
    const Dictionary* object = value.dictionary();
    if (object == nullptr || object->size() != 1) {
        return expected;
    }
    if (const Value* granted = object->find("granted")) {
        if (granted->boolean() == nullptr) {
            return expected;
        }
        answer = AuthorizationAnswer{*granted->boolean(), std::nullopt};
        return std::nullopt;
    }
    if (const Value* error = object->find("error")) {
        auto platformError = readError(*error);
        if (!platformError) {
            return expected;
        }
        // The system reports a refusal together with every error.
        answer = AuthorizationAnswer{false, std::move(platformError)};
        return std::nullopt;
    }
    return expected;
}

Refusal readPlatform(const Dictionary& object, PlatformCommand& change) {
    if (auto refusal = onlyMembers(object, membersOf("platform"), "a platform command")) {
        return refusal;
    }
    const Dictionary* settings = object.find("platform")->dictionary();
    if (settings == nullptr) {
        return std::string("\"platform\" must be an object");
    }
    if (auto refusal = onlyMembers(*settings, kPlatformSettings, "\"platform\"")) {
        return "platform: " + *refusal;
    }
    for (const auto& [name, target] : {std::pair{"deviceRegistered", &change.deviceRegistered},
                                       std::pair{"deviceOnline", &change.deviceOnline}}) {
        if (const Value* flag = settings->find(name)) {
            if (flag->boolean() == nullptr) {
                return "platform: " + inQuotes(name) + " must be true or false";
            }
            *target = *flag->boolean();
        }
    }
    if (const Value* app = settings->find("app")) {
        const auto state =
            app->text() ? platform::applicationStateNamed(*app->text()) : std::nullopt;
        if (!state) {
            return std::string(
                "platform: \"app\" must be \"foreground\", \"background\" or \"notRunning\"");
        }
        change.app = *state;
    }
    if (const Value* present = settings->find("present")) {
        static const std::string expected =
            "platform: \"present\" must be null or a list of \"badge\", \"sound\", \"list\" "
            "and \"banner\"";
        if (present->isNull()) {
            change.present.emplace(std::nullopt);
        } else if (const platform::Array* names = present->array()) {
            std::vector<std::string> options;
            for (const Value& name : *names) {
                const std::string* text = name.text();
                if (text == nullptr || (*text != "badge" && *text != "sound" && *text != "list" &&
                                        *text != "banner")) {
                    return expected;
                }
                options.push_back(*text);
            }
            change.present.emplace(std::move(options));
        } else {
            return expected;
        }
    }
    if (const Value* authorization = settings->find("authorization")) {
        AuthorizationAnswer answer;
        if (auto refusal = readAuthorization(*authorization, answer)) {
            return refusal;
        }
        change.authorization = std::move(answer);
    }
    if (const Value* status = settings->find("authorizationStatus")) {
        if (status->integer() == nullptr) {
            return std::string("platform: \"authorizationStatus\" must be an integer");
        }
        change.authorizationStatus = *status->integer();
    }
    if (const Value* badgeError = settings->find("badgeError")) {
        if (badgeError->isNull()) {
            change.badgeError.emplace(std::nullopt);
        } else {
            auto error = readError(*badgeError);
            if (!error) {
                return std::string(
                    "platform: \"badgeError\" must be null or {\"domain\": TEXT, \"code\": INT}");
            }
            change.badgeError.emplace(std::move(error));
        }
    }
    if (const Value* bundle = settings->find("bundle")) {
        if (bundle->text() == nullptr || bundle->text()->empty()) {
            return std::string("platform: \"bundle\" must be a directory name");
        }
        change.bundle = std::filesystem::path(*bundle->text());
    }
    return std::nullopt;
}

Refusal readInspect(const Dictionary& object, InspectCommand& inspect) {
    if (auto refusal = onlyMembers(object, membersOf("inspect"), "an inspect command")) {
        return refusal;
    }
    const std::string* what = object.find("inspect")->text();
    if (what != nullptr && *what == "notificationCenter") {
        inspect.what = InspectCommand::What::notificationCenter;
    } else if (what == nullptr || *what != "platform") {
        return std::string("\"inspect\" must be \"platform\" or \"notificationCenter\"");
    }
    return std::nullopt;
}

Refusal readTap(const Dictionary& object, TapCommand& tap) {
    if (auto refusal = onlyMembers(object, membersOf("tap"), "a tap command")) {
        return refusal;
    }
    const std::string* identifier = object.find("tap")->text();
    if (identifier == nullptr || identifier->empty()) {
        return std::string("\"tap\" must be a notification's apns-id or \"latest\"");
    }
    tap.identifier = *identifier;
    tap.action = std::string(platform::UNNotificationDefaultActionIdentifier);
    if (const Value* action = object.find("action")) {
        if (action->text() == nullptr || action->text()->empty()) {
            return std::string("tap: \"action\" must be an action identifier");
        }
        tap.action = *action->text();
    }
    return std::nullopt;
}

Refusal readPush(const Dictionary& object, PushCommand& push) {
    if (auto refusal = onlyMembers(object, membersOf("push"), "a push command")) {
        return refusal;
    }
    if (auto refusal = readPushPayload(*object.find("push"), push)) {
        return "push: " + *refusal;
    }
    if (const Value* app = object.find("app")) {
        const auto state =
            app->text() ? platform::applicationStateNamed(*app->text()) : std::nullopt;
        if (!state) {
            return std::string(
                "push: \"app\" must be \"foreground\", \"background\" or \"notRunning\"");
        }
        push.appOverride = *state;
    }
    if (const Value* apnsId = object.find("apnsId")) {
        if (apnsId->text() == nullptr || !platform::isUuidText(*apnsId->text())) {
            return std::string("push: \"apnsId\" must be a UUID: 8-4-4-4-12 hexadecimal digits");
        }
        push.apnsId = *apnsId->text();
    }
    if (const Value* collapseId = object.find("collapseId")) {
        // APNs's limit on apns-collapse-id.
        if (collapseId->text() == nullptr || collapseId->text()->empty() ||
            collapseId->text()->size() > 64) {
            return std::string("push: \"collapseId\" must be a text of 1 to 64 bytes");
        }
        push.collapseId = *collapseId->text();
    }
    if (const Value* tap = object.find("tap")) {
        if (tap->boolean() != nullptr && *tap->boolean()) {
            push.tap = std::string(platform::UNNotificationDefaultActionIdentifier);
        } else if (tap->text() != nullptr && !tap->text()->empty()) {
            push.tap = *tap->text();
        } else {
            return std::string(
                "push: \"tap\" must be true (the default action) or an action identifier");
        }
    }
    return std::nullopt;
}

// Picks the command of a JSON object and reads it.
Refusal readCommand(const Dictionary& object, Command& command) {
    std::optional<std::string> name;
    for (const auto& shape : kCommands) {
        const std::string_view candidate = shape.name;
        // A push command's "tap" member is not a command of its own.
        if (!object.contains(candidate) || (candidate == "tap" && object.contains("push"))) {
            continue;
        }
        if (name) {
            return "more than one command in one line: " + inQuotes(*name) + " and " +
                   inQuotes(candidate);
        }
        name = std::string(candidate);
    }
    if (!name) {
        return std::string(
            "not a command: expected one of \"call\", \"callSync\", \"cancel\", \"launch\", "
            "\"platform\", \"inspect\", \"push\", \"tap\"");
    }
    if (*name == "call" || *name == "callSync") {
        CallCommand call;
        auto refusal = readCall(object, *name, call);
        command = std::move(call);
        return refusal;
    }
    if (*name == "cancel") {
        CancelCommand cancel;
        auto refusal = readCancel(object, cancel);
        command = cancel;
        return refusal;
    }
    if (*name == "launch") {
        LaunchCommand launch;
        auto refusal = readLaunch(object, launch);
        command = std::move(launch);
        return refusal;
    }
    if (*name == "platform") {
        PlatformCommand change;
        auto refusal = readPlatform(object, change);
        command = std::move(change);
        return refusal;
    }
    if (*name == "push") {
        PushCommand push;
        auto refusal = readPush(object, push);
        command = std::move(push);
        return refusal;
    }
    if (*name == "tap") {
        TapCommand tap;
        auto refusal = readTap(object, tap);
        command = std::move(tap);
        return refusal;
    }
    InspectCommand inspect;
    auto refusal = readInspect(object, inspect);
    command = inspect;
    return refusal;
}

}  // namespace

std::span<const CommandShape> commandShapes() {
    return kCommands;
}

std::optional<std::string> readPushPayload(const Value& payload, PushCommand& push) {
    const Dictionary* object = payload.dictionary();
    if (object == nullptr) {
        return std::string("the payload must be a JSON object");
    }
    // The simulator's addressing member is not part of what is delivered.
    constexpr std::string_view kTarget = "Simulator Target Bundle";
    Dictionary delivered;
    delivered.reserve(object->size());
    for (const auto& [key, value] : *object) {
        const std::string* name = key.text();
        if (name == nullptr || *name != kTarget) {
            delivered.set(key, value);
        } else if (value.text() == nullptr) {
            return std::string("\"Simulator Target Bundle\" must be a string");
        } else {
            push.targetBundle = *value.text();
        }
    }
    auto accepted = platform::acceptRemoteNotificationPayload(Value(std::move(delivered)));
    if (auto* reason = std::get_if<std::string>(&accepted)) {
        return std::move(*reason);
    }
    push.payload = std::move(std::get<Dictionary>(accepted));
    return std::nullopt;
}

InputLine readInputLine(std::string_view line) {
    InputLine input;
    const std::string_view content = trimmed(line);
    if (content.empty()) {
        input.kind = InputLine::Kind::blank;
        return input;
    }
    if (content.front() == '#') {
        input.kind = InputLine::Kind::comment;
        input.text = std::string(trimmed(content.substr(1)));
        return input;
    }

    input.kind = InputLine::Kind::refused;
    platform::JSONReadingOptions options;
    options.fragmentsAllowed = true;
    std::string error;
    input.json = platform::JSONSerialization::jsonObject(content, options, &error);
    if (!input.json) {
        input.text = "not JSON: " + error;
        return input;
    }
    const Dictionary* object = input.json->dictionary();
    if (object == nullptr) {
        input.text = "not a JSON object";
        return input;
    }
    if (const Value* id = object->find("id")) {
        if (id->integer() == nullptr && id->text() == nullptr) {
            input.text = "\"id\" must be a string or an integer";
            return input;
        }
        platform::JSONWritingOptions writing;
        writing.fragmentsAllowed = true;
        auto json = platform::JSONSerialization::data(*id, writing);
        if (!json) {
            input.text = "\"id\" cannot be written as JSON";
            return input;
        }
        input.id = std::move(*json);
    }
    if (auto refusal = readCommand(*object, input.command)) {
        input.text = std::move(*refusal);
        return input;
    }
    input.kind = InputLine::Kind::command;
    return input;
}

}  // namespace nimborra::host
