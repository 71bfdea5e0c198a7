// The application bundle: where the application's resource files are found, and the reading of a
// whole file into memory (the platform's "contents of a URL" for file URLs).
//
// On Linux there is no application bundle; the main bundle's resources are the files in one
// directory, by default the directory holding the running executable. Hosts and tests point it
// elsewhere with setResourceDirectory().
//
// Threads: every member function may be called from any thread at once. The resource directory
// is guarded by a lock, so it may be changed while other threads look resources up; a lookup
// uses the directory as it was when the lookup began.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string_view>
#include <vector>

#include "NimbOrraPlatform/Export.h"

namespace nimborra::platform {

class NIMBORRA_PLATFORM_EXPORT Bundle {
  public:
    // The process's one main bundle, created on first use and never destroyed.
    static Bundle& mainBundle();

    Bundle(const Bundle&) = delete;
    Bundle& operator=(const Bundle&) = delete;

    // The location of the resource file "<name>.<extension>" (just "<name>" when `extension` is
    // empty) in the resource directory, or nothing when there is no such file. Anything present
    // under that name counts, a directory or an unreadable file included: such a resource is
    // found and then fails when it is read. An empty name, or one holding '/' or a NUL
    // character, names no resource. Never throws.
    [[nodiscard]] std::optional<std::filesystem::path> urlForResource(
        std::string_view name, std::string_view extension) const noexcept;

    // The directory searched for resources; empty when the executable's directory could not be
    // determined (then no resource is found).
    std::filesystem::path resourceDirectory() const;
    void setResourceDirectory(std::filesystem::path directory);

    // Reads the whole file at `path`. Yields nothing when it cannot be read: missing, not a
    // regular file (a directory, a device, a pipe), no permission, or a read error. Never throws.
    [[nodiscard]] static std::optional<std::vector<std::uint8_t>> contentsOfFile(
        const std::filesystem::path& path) noexcept;

    // Reads the file at `path`, but no more than maximumLength + 1 bytes, so that a huge file
    // costs no more than the limit: an answer longer than maximumLength says that the file is
    // longer than that (and holds only its first bytes). Yields nothing when the file cannot be
    // read, as above. Never throws.
    [[nodiscard]] static std::optional<std::vector<std::uint8_t>> contentsOfFile(
        const std::filesystem::path& path, std::size_t maximumLength) noexcept;

  private:
    Bundle();

    mutable std::mutex mutex_;
    std::filesystem::path resourceDirectory_;
};

}  // namespace nimborra::platform
