#include "Output.h"

#include <cerrno>

#include "NimbOrraPlatform/JSONSerialization.h"

namespace nimborra::host {

void OutputWriter::writeLine(std::string_view line) noexcept {
    const std::lock_guard lock(mutex_);
    if (error_.load() != 0) {
        return;
    }
    errno = 0;
    const bool written = std::fwrite(line.data(), 1, line.size(), stream_) == line.size() &&
                         std::fputc('\n', stream_) != EOF && std::fflush(stream_) == 0;
    if (!written) {
        error_.store(errno != 0 ? errno : EIO);
    }
}

namespace {

// The length of the well-formed UTF-8 sequence at the start of `bytes`, or 0 when it does not
// start with one (no overlong forms, no surrogates, nothing beyond U+10FFFF).
std::size_t utf8SequenceLength(std::string_view bytes) {
    const auto byte = [&](std::size_t index) { return static_cast<unsigned char>(bytes[index]); };
    const unsigned char lead = byte(0);
    if (lead < 0x80) {
        return 1;
    }
    std::size_t length = 0;
    unsigned char low = 0x80;
    unsigned char high = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        low = lead == 0xE0 ? 0xA0 : 0x80;
        high = lead == 0xED ? 0x9F : 0xBF;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        low = lead == 0xF0 ? 0x90 : 0x80;
        high = lead == 0xF4 ? 0x8F : 0xBF;
    } else {
        return 0;
    }
    if (bytes.size() < length || byte(1) < low || byte(1) > high) {
        return 0;
    }
    for (std::size_t index = 2; index < length; ++index) {
        if (byte(index) < 0x80 || byte(index) > 0xBF) {
            return 0;
        }
    }
    return length;
}

}  // namespace

std::string validUTF8(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    while (!text.empty()) {
        const std::size_t length = utf8SequenceLength(text);
        if (length == 0) {
            out.append("\xEF\xBF\xBD");
            text.remove_prefix(1);
        } else {
            out.append(text.substr(0, length));
            text.remove_prefix(length);
        }
    }
    return out;
}

std::string replyLine(std::string_view id, std::string_view reply) {
    std::string line = "{\"id\":";
    line.append(id);
    line.append(",\"reply\":");
    line.append(reply);
    line.push_back('}');
    return line;
}

std::string appReplyLine(std::string_view method, std::string_view reply) {
    std::string line = "{\"app\":";
    platform::appendJSONString(line, method);
    line.append(",\"reply\":");
    line.append(reply);
    line.push_back('}');
    return line;
}

std::string doneLine(std::string_view id, std::string_view name) {
    std::string line = "{\"id\":";
    line.append(id);
    line.append(",\"done\":");
    platform::appendJSONString(line, name);
    line.push_back('}');
    return line;
}

std::string withId(std::string line, std::string_view id) {
    if (line.empty() || line.back() != '}') {
        return line;
    }
    line.pop_back();
    line.append(",\"id\":");
    line.append(id);
    line.push_back('}');
    return line;
}

std::string eventLine(std::string_view name, std::string_view payload) {
    std::string line = "{\"event\":";
    platform::appendJSONString(line, name);
    line.append(",\"payload\":");
    line.append(payload);
    line.push_back('}');
    return line;
}

std::string refusalLine(std::string_view reason, std::size_t lineNumber) {
    std::string line = "{\"error\":";
    platform::appendJSONString(line, validUTF8(reason));
    line.append(",\"line\":");
    platform::appendJSONNumber(line, static_cast<std::uint64_t>(lineNumber));
    line.push_back('}');
    return line;
}

std::string commandLine(const std::optional<platform::Value>& json, std::string_view rawLine) {
    std::string line = "{\"command\":";
    std::optional<std::string> compact;
    if (json) {
        platform::JSONWritingOptions options;
        options.fragmentsAllowed = true;
        compact = platform::JSONSerialization::data(*json, options);
    }
    if (compact) {
        line.append(*compact);
    } else {
        platform::appendJSONString(line, validUTF8(rawLine));
    }
    line.push_back('}');
    return line;
}

std::string commentLine(std::string_view text) {
    std::string line = "{\"comment\":";
    platform::appendJSONString(line, validUTF8(text));
    line.push_back('}');
    return line;
}

void installLogSink(std::FILE* stream) {
    // The platform serialises the sink's calls, so lines never interleave.
    platform::setLogSink([stream](const platform::LogRecord& record) {
        std::string line = platform::formatLogLine(record);
        line.push_back('\n');
        std::fwrite(line.data(), 1, line.size(), stream);
        std::fflush(stream);
    });
}

}  // namespace nimborra::host
