#include "NimbOrraPlatform/Bundle.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <string>
#include <system_error>
#include <utility>

namespace nimborra::platform {

namespace {

// The directory of the running executable, or an empty path.
std::filesystem::path executableDirectory() {
    std::error_code error;
    const auto executable = std::filesystem::read_symlink("/proc/self/exe", error);
    if (error) {
        return {};
    }
    return executable.parent_path();
}

// Closes a file descriptor when it goes out of scope.
class FileDescriptor {
  public:
    explicit FileDescriptor(int descriptor) : descriptor_(descriptor) {}
    ~FileDescriptor() {
        if (descriptor_ >= 0) {
            ::close(descriptor_);
        }
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;

    int get() const { return descriptor_; }

  private:
    int descriptor_;
};

}  // namespace

Bundle::Bundle() : resourceDirectory_(executableDirectory()) {}

Bundle& Bundle::mainBundle() {
    // Never destroyed, so it stays usable from other static destructors and detached threads.
    static Bundle* const bundle = new Bundle();
    return *bundle;
}

std::filesystem::path Bundle::resourceDirectory() const {
    const std::lock_guard lock(mutex_);
    return resourceDirectory_;
}

void Bundle::setResourceDirectory(std::filesystem::path directory) {
    const std::lock_guard lock(mutex_);
    resourceDirectory_ = std::move(directory);
}

std::optional<std::filesystem::path> Bundle::urlForResource(
    std::string_view name, std::string_view extension) const noexcept {
    try {
        if (name.empty() || name.find('/') != std::string_view::npos ||
            name.find('\0') != std::string_view::npos ||
            extension.find('/') != std::string_view::npos ||
            extension.find('\0') != std::string_view::npos) {
            return std::nullopt;
        }
        const auto directory = resourceDirectory();
        if (directory.empty()) {
            return std::nullopt;
        }
        std::string fileName(name);
        if (!extension.empty()) {
            fileName += '.';
            fileName += extension;
        }
        auto path = directory / fileName;
        std::error_code error;
        if (!std::filesystem::exists(path, error) || error) {
            return std::nullopt;
        }
        return path;
    } catch (...) {
        return std::nullopt;
    }
}

std::optional<std::vector<std::uint8_t>> Bundle::contentsOfFile(
    const std::filesystem::path& path) noexcept {
    return contentsOfFile(path, std::numeric_limits<std::size_t>::max() - 1);
}

std::optional<std::vector<std::uint8_t>> Bundle::contentsOfFile(
    const std::filesystem::path& path, std::size_t maximumLength) noexcept {
    try {
        const std::size_t readLimit = maximumLength < std::numeric_limits<std::size_t>::max()
                                          ? maximumLength + 1
                                          : maximumLength;
        // O_NONBLOCK keeps the open from waiting on a pipe with no writer; it means nothing for
        // the regular files that are actually read.
        const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
        if (file.get() < 0) {
            return std::nullopt;
        }
        struct stat status {};
        if (::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
            return std::nullopt;
        }
        std::vector<std::uint8_t> bytes;
        bytes.reserve(std::min(static_cast<std::size_t>(status.st_size), readLimit));
        // Read until the end (or the limit) rather than trusting the size: the file may change
        // meanwhile.
        std::uint8_t buffer[64 * 1024];
        while (bytes.size() < readLimit) {
            const std::size_t wanted = std::min(sizeof buffer, readLimit - bytes.size());
            const ssize_t count = ::read(file.get(), buffer, wanted);
            if (count < 0) {
                if (errno == EINTR) {
                    continue;
                }
                return std::nullopt;
            }
            if (count == 0) {
                break;
            }
            bytes.insert(bytes.end(), buffer, buffer + count);
        }
        return bytes;
    } catch (...) {
        return std::nullopt;
    }
}

}  // namespace nimborra::platform
