#include "NetworkSandbox.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <system_error>

#include "NimbOrraPlatform/Text.h"

namespace nimborra::host {

namespace {

namespace fs = std::filesystem;

// The CA bundles of the common distributions (and OpenSSL's own default file), each mounted over
// when it exists: Debian and Ubuntu, Fedora and RHEL, openSUSE, Alpine.
constexpr std::string_view kSystemBundles[] = {
    "/etc/ssl/certs/ca-certificates.crt",
    "/etc/pki/tls/certs/ca-bundle.crt",
    "/etc/pki/ca-trust/extracted/pem/tls-ca-bundle.pem",
    "/etc/ssl/ca-bundle.pem",
    "/etc/ssl/cert.pem",
    "/usr/lib/ssl/cert.pem",
};

// Files read whole stay below these sizes: a hosts file, a CA bundle (Debian's is 0.2 MB).
constexpr std::size_t kHostsLimit = std::size_t{1} << 20;
constexpr std::size_t kBundleLimit = std::size_t{64} << 20;

std::string errorText(int error) {
    return std::generic_category().message(error);
}

// The whole file, at most `limit` bytes; nothing (and errno in `error`) when it cannot be read.
std::optional<std::string> readFile(const fs::path& path, std::size_t limit, int& error) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        error = errno;
        return std::nullopt;
    }
    std::string text;
    char buffer[65536];
    for (;;) {
        const ssize_t got = ::read(fd, buffer, sizeof buffer);
        if (got == 0) {
            break;
        }
        if (got < 0) {
            if (errno == EINTR) {
                continue;
            }
            error = errno;
            ::close(fd);
            return std::nullopt;
        }
        if (text.size() + static_cast<std::size_t>(got) > limit) {
            error = EFBIG;
            ::close(fd);
            return std::nullopt;
        }
        text.append(buffer, static_cast<std::size_t>(got));
    }
    ::close(fd);
    return text;
}

// Writes `text` to `path`, which must not exist yet; errno on failure, 0 on success.
int writeNewFile(const fs::path& path, std::string_view text, int extraFlags = O_CREAT | O_EXCL) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CLOEXEC | extraFlags, 0644);
    if (fd < 0) {
        return errno;
    }
    while (!text.empty()) {
        const ssize_t written = ::write(fd, text.data(), text.size());
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            const int error = errno;
            ::close(fd);
            return error;
        }
        text.remove_prefix(static_cast<std::size_t>(written));
    }
    return ::close(fd) == 0 ? 0 : errno;
}

// A /proc file of this process (uid_map and the like), written in one write as the kernel needs.
int writeProcFile(const char* path, std::string_view text) {
    return writeNewFile(path, text, 0);
}

// The content of a one-line /proc/sys setting, or "" when it cannot be read.
std::string setting(const char* path) {
    int error = 0;
    auto text = readFile(path, 64, error).value_or("");
    while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) {
        text.pop_back();
    }
    return text;
}

// What to do when namespaces cannot be made: the setting that forbids them, when one does.
std::string advice(int error) {
    if (error == EINVAL) {
        return "the kernel lacks user, network or mount namespaces (CONFIG_USER_NS, "
               "CONFIG_NET_NS)";
    }
    if (setting("/proc/sys/kernel/unprivileged_userns_clone") == "0") {
        return "unprivileged user namespaces are disabled: allow them with "
               "'sysctl -w kernel.unprivileged_userns_clone=1'";
    }
    if (error == ENOSPC || setting("/proc/sys/user/max_user_namespaces") == "0") {
        return "no user namespace is left: raise the limit with "
               "'sysctl -w user.max_user_namespaces=10000'";
    }
    if (setting("/proc/sys/kernel/apparmor_restrict_unprivileged_userns") == "1") {
        return "AppArmor restricts unprivileged user namespaces: allow them with "
               "'sysctl -w kernel.apparmor_restrict_unprivileged_userns=0' or an AppArmor profile "
               "for apns-host with the 'userns' rule";
    }
    return "a container or security policy forbids them: run apns-host outside the container, "
           "or give the container CAP_SYS_ADMIN or a seccomp profile that allows unshare and "
           "mount (e.g. docker run --privileged)";
}

// Where APNs's names point: the provider API's address when it is one, else IPv4 loopback (for a
// host name or an address that means every interface).
std::string hostsAddress(const std::string& address) {
    in_addr ipv4{};
    in6_addr ipv6{};
    if (::inet_pton(AF_INET, address.c_str(), &ipv4) == 1) {
        return ipv4.s_addr == htonl(INADDR_ANY) ? "127.0.0.1" : address;
    }
    if (::inet_pton(AF_INET6, address.c_str(), &ipv6) == 1) {
        return IN6_IS_ADDR_UNSPECIFIED(&ipv6) ? "127.0.0.1" : address;
    }
    return "127.0.0.1";
}

std::string namespaceFailure(std::string_view step, int error) {
    return std::string(NetworkSandbox::namespaceFailurePrefix) + " (" + std::string(step) + ": " +
           errorText(error) + "): " + advice(error);
}

// Sets the loopback interface up, the only one in a new network namespace (it comes down).
int bringLoopbackUp() {
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return errno;
    }
    ifreq request{};
    std::memcpy(request.ifr_name, "lo", 3);
    int error = 0;
    if (::ioctl(fd, SIOCGIFFLAGS, &request) != 0) {
        error = errno;
    } else {
        request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP | IFF_RUNNING);
        if (::ioctl(fd, SIOCSIFFLAGS, &request) != 0) {
            error = errno;
        }
    }
    ::close(fd);
    return error;
}

// Mounts the file `source` over the file `target` (this mount namespace only).
int bindMount(const fs::path& source, const fs::path& target) {
    return ::mount(source.c_str(), target.c_str(), nullptr, MS_BIND, nullptr) == 0 ? 0 : errno;
}

}  // namespace

std::string NetworkSandbox::hostsFile(std::string_view system, std::string_view address) {
    std::string text;
    bool hasLocalhost = false;
    while (!system.empty()) {
        const auto end = system.find('\n');
        const std::string_view line = system.substr(0, end);
        system.remove_prefix(end == std::string_view::npos ? system.size() : end + 1);

        // The fields before any comment: an address, then its names.
        std::string_view fields = line.substr(0, line.find('#'));
        bool first = true;
        bool apns = false;
        while (!fields.empty()) {
            const auto start = fields.find_first_not_of(" \t\r");
            if (start == std::string_view::npos) {
                break;
            }
            fields.remove_prefix(start);
            const auto length = std::min(fields.find_first_of(" \t\r"), fields.size());
            const std::string_view field = fields.substr(0, length);
            fields.remove_prefix(length);
            if (!std::exchange(first, false)) {
                hasLocalhost =
                    hasLocalhost || platform::equalsIgnoringASCIICase(field, "localhost");
                for (const auto name : hostNames) {
                    apns = apns || platform::equalsIgnoringASCIICase(field, name);
                }
            }
        }
        if (!apns) {
            text.append(line);
            text.push_back('\n');
        }
    }
    if (!hasLocalhost) {
        text.append("127.0.0.1\tlocalhost\n::1\tlocalhost\n");
    }
    text.append("# apns-host: APNs's provider API\n");
    text.append(address);
    for (const auto name : hostNames) {
        text.push_back(name == hostNames[0] ? '\t' : ' ');
        text.append(name);
    }
    text.push_back('\n');
    return text;
}

NetworkSandbox::NetworkSandbox(fs::path directory) : directory_(std::move(directory)) {}

NetworkSandbox::~NetworkSandbox() {
    std::error_code error;
    fs::remove_all(directory_, error);
}

std::variant<std::unique_ptr<NetworkSandbox>, std::string> NetworkSandbox::enter(
    const std::string& address) {
    // Before the user namespace hides them: inside, they read as the overflow identifiers until
    // the maps are written.
    const uid_t uid = ::geteuid();
    const gid_t gid = ::getegid();
    bool ownUserNamespace = true;
    if (::unshare(CLONE_NEWUSER | CLONE_NEWNET | CLONE_NEWNS) != 0) {
        const int error = errno;
        // Root can do without a user namespace where a policy forbids only that one.
        if (uid != 0 || ::unshare(CLONE_NEWNET | CLONE_NEWNS) != 0) {
            return namespaceFailure("unshare", error);
        }
        ownUserNamespace = false;
    }
    if (ownUserNamespace) {
        // The caller keeps its own identity inside. Denying setgroups first is what lets a
        // process without privileges outside write its gid_map; kernels before 3.19 lack it.
        if (const int error = writeProcFile("/proc/self/setgroups", "deny");
            error != 0 && error != ENOENT) {
            return namespaceFailure("writing /proc/self/setgroups", error);
        }
        const auto uidMap = std::to_string(uid) + " " + std::to_string(uid) + " 1\n";
        if (const int error = writeProcFile("/proc/self/uid_map", uidMap)) {
            return namespaceFailure("writing /proc/self/uid_map", error);
        }
        const auto gidMap = std::to_string(gid) + " " + std::to_string(gid) + " 1\n";
        if (const int error = writeProcFile("/proc/self/gid_map", gidMap)) {
            return namespaceFailure("writing /proc/self/gid_map", error);
        }
    }
    // Mounts made from here on must not reach the namespace the host came from.
    if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        return namespaceFailure("making the mounts private", errno);
    }
    if (const int error = bringLoopbackUp()) {
        return "cannot bring the loopback interface up in the private network: " + errorText(error);
    }

    std::error_code pathError;
    auto temporary = fs::temp_directory_path(pathError);
    if (pathError) {
        temporary = "/tmp";
    }
    std::string pattern = (temporary / "apns-host-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
        return "cannot make a private directory in " + temporary.string() + ": " + errorText(errno);
    }
    std::unique_ptr<NetworkSandbox> sandbox(new NetworkSandbox(pattern));

    const auto hosts = fs::canonical("/etc/hosts", pathError);
    if (pathError) {
        return "cannot mount a hosts file over /etc/hosts: " + pathError.message();
    }
    int error = 0;
    const auto system = readFile(hosts, kHostsLimit, error);
    if (!system) {
        return "cannot read " + hosts.string() + ": " + errorText(error);
    }
    const auto generated = sandbox->directory_ / "hosts";
    if ((error = writeNewFile(generated, hostsFile(*system, hostsAddress(address)))) != 0 ||
        (error = bindMount(generated, hosts)) != 0) {
        return "cannot mount a hosts file over " + hosts.string() + ": " + errorText(error);
    }
    return sandbox;
}

std::optional<std::string> NetworkSandbox::trust(std::string_view certificatePem) {
    std::string certificate(certificatePem);
    if (!certificate.empty() && certificate.back() != '\n') {
        certificate.push_back('\n');
    }
    const auto certificateFile = directory_ / "apns-host.pem";
    if (const int error = writeNewFile(certificateFile, certificate)) {
        return "cannot write " + certificateFile.string() + ": " + errorText(error);
    }

    std::vector<fs::path> mounted;
    fs::path firstBundle;
    for (const auto candidate : kSystemBundles) {
        std::error_code pathError;
        const auto bundle = fs::canonical(candidate, pathError);
        if (pathError || !fs::is_regular_file(bundle, pathError) ||
            std::find(mounted.begin(), mounted.end(), bundle) != mounted.end()) {
            continue;
        }
        int error = 0;
        auto text = readFile(bundle, kBundleLimit, error);
        if (!text) {
            return "cannot read the CA bundle " + bundle.string() + ": " + errorText(error);
        }
        if (!text->empty() && text->back() != '\n') {
            text->push_back('\n');
        }
        text->append(certificate);
        const auto copy = directory_ / ("ca-bundle-" + std::to_string(mounted.size()) + ".pem");
        if ((error = writeNewFile(copy, *text)) != 0 || (error = bindMount(copy, bundle)) != 0) {
            return "cannot mount a CA bundle with the host's certificate over " + bundle.string() +
                   ": " + errorText(error);
        }
        mounted.push_back(bundle);
        if (firstBundle.empty()) {
            firstBundle = copy;
        }
    }
    certificate_ = certificateFile;
    // Without a system bundle, the certificate alone is the bundle.
    bundle_ = firstBundle.empty() ? certificateFile : firstBundle;
    return std::nullopt;
}

std::vector<std::pair<std::string, std::string>> NetworkSandbox::environment() const {
    if (bundle_.empty()) {
        return {};
    }
    return {{"SSL_CERT_FILE", bundle_.string()},
            {"REQUESTS_CA_BUNDLE", bundle_.string()},
            {"NODE_EXTRA_CA_CERTS", certificate_.string()}};
}

}  // namespace nimborra::host
