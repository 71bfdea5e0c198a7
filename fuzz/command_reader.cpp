// One input line through apns-host's command reader, as the host reads every line of a session:
// the line in, the parsed command or the refusal out, the special "$data" and "$date" forms of a
// launch payload and the push payload rules included.
//
// Checked for every input: reading returns (no crash, no sanitizer report); a refused line has a
// reason; a launch command's payload is a dictionary whose members are JSON values or the forms'
// data and dates; a push command's payload keeps to the system's size limit; and every refusal
// and echo line the host would write is valid JSON.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <variant>

#include "Commands.h"
#include "NimbOrraPlatform/JSONSerialization.h"
#include "NimbOrraPlatform/RemoteNotification.h"
#include "Output.h"

namespace {

using namespace nimborra;

[[noreturn]] void fail(const char* what, std::string_view line) {
    std::fprintf(stderr, "command_reader: %s: %.*s\n", what, static_cast<int>(line.size()),
                 line.data());
    std::abort();
}

void expectJSON(const std::string& text, std::string_view line) {
    if (!platform::JSONSerialization::jsonObject(text)) {
        fail("an output line is not JSON", text + " <- " + std::string(line));
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view line(reinterpret_cast<const char*>(data), size);
    const host::InputLine input = host::readInputLine(line);
    switch (input.kind) {
        case host::InputLine::Kind::blank:
            break;
        case host::InputLine::Kind::comment:
            expectJSON(host::commentLine(input.text), line);
            break;
        case host::InputLine::Kind::refused:
            if (input.text.empty()) {
                fail("a refusal without a reason", line);
            }
            expectJSON(host::refusalLine(input.text, 1), line);
            expectJSON(host::commandLine(input.json, line), line);
            break;
        case host::InputLine::Kind::command:
            expectJSON(host::commandLine(input.json, line), line);
            if (const auto* push = std::get_if<host::PushCommand>(&input.command)) {
                const auto size = platform::compactPayloadSize(platform::Value(push->payload));
                if (!size || *size > platform::kRemoteNotificationPayloadLimit) {
                    fail("a push over the limit was accepted", line);
                }
            }
            break;
    }
    return 0;
}
