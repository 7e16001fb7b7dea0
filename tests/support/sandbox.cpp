#include "tests/support/sandbox.h"

#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "tests/support/child.h"

namespace fs = std::filesystem;

static constexpr uint64_t MEMORY_SIZE = 256U << 20; // bytes of "/var/kz": more than any test fills
static constexpr char LOG_SOCKET[] = "/dev/log";

static void check(bool bDone, const std::string &what) {
    if (!bDone)
        throw std::system_error(errno, std::generic_category(), what);
}

static void write_file(const std::string &path, const std::string &text) {
    const int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    check(fd >= 0, path);
    const bool bDone = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    (void)close(fd);
    check(bDone, path);
}

// Users get the right to mount in a user namespace, in which they stay who they are.
static void unshare_mounts() {
    const std::string uid = std::to_string(geteuid());
    const std::string gid = std::to_string(getegid());
    if (unshare(CLONE_NEWNS) != 0) {
        check(unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0, "a user namespace");
        write_file("/proc/self/setgroups", "deny");
        write_file("/proc/self/uid_map", uid + " " + uid + " 1");
        write_file("/proc/self/gid_map", gid + " " + gid + " 1");
    }
    check(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "private mounts");
}

void mount_memory(const std::string &dir, uint64_t size) {
    const std::string options = "mode=0755,size=" + std::to_string(size);
    check(mount("tmpfs", dir.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, options.c_str()) == 0, dir);
}

// Covers a directory by a writable one with the same content, save for one name: every entry is the original one, bound
// into its place. So a mount point or a socket can be made in it without the real directory noticing.
static void cover_without(const std::string &dir, const std::string &omitted) {
    const int original = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    check(original >= 0, dir);
    mount_memory(dir, MEMORY_SIZE);
    // The covered directory can still be reached through its descriptor.
    const std::string from = "/proc/self/fd/" + std::to_string(original);
    for (const auto &entry : fs::directory_iterator(from)) {
        const std::string name = entry.path().filename();
        const std::string place = dir + "/" + name;
        if (name == omitted)
            continue;
        if (entry.is_symlink()) {
            fs::create_symlink(fs::read_symlink(entry.path()), place);
            continue;
        }
        if (entry.is_directory())
            fs::create_directory(place);
        else
            std::ofstream(place).close();
        check(mount(entry.path().c_str(), place.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0, place);
    }
    (void)close(original);
}

void enter_private_machine() {
    try {
        unshare_mounts();
        cover_without("/dev", "log");
        cover_without("/var", "kz");
        fs::create_directory("/var/kz");
        mount_memory("/var/kz", MEMORY_SIZE);
    } catch (const std::system_error &failure) {
        skip_from_child(std::string("no private mount namespace on this machine: ") + failure.what());
    }
}

// "<priority>Mmm dd hh:mm:ss ident[pid]: text"
static syslog_line_t parse_line(const std::string &packet) {
    static constexpr size_t STAMP_LENGTH = sizeof("Mmm dd hh:mm:ss ") - 1;
    const size_t stamp = packet.find('>') + 1;
    const size_t ident = std::min(stamp + STAMP_LENGTH, packet.size());
    const size_t colon = packet.find(": ", ident);
    syslog_line_t line = {.priority = static_cast<int>(strtol(packet.c_str() + 1, nullptr, 10)),
                          .ident = {},
                          .text = packet.substr(ident)};
    if (colon != std::string::npos) {
        line.ident = packet.substr(ident, colon - ident);
        line.text = packet.substr(colon + 2);
    }
    return line;
}

static sockaddr_un log_address() {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, LOG_SOCKET, sizeof(LOG_SOCKET));
    return address;
}

syslog_capture_t::syslog_capture_t() {
    const sockaddr_un address = log_address();
    fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    check(fd >= 0, "log socket");
    check(bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0, LOG_SOCKET);
    receiver = std::thread(&syslog_capture_t::receive, this);
}

syslog_capture_t::~syslog_capture_t() {
    {
        const std::lock_guard guard(mutex);
        bEnding = true;
    }
    send_mark();
    receiver.join();
    (void)close(fd);
    (void)unlink(LOG_SOCKET);
}

// A mark is an empty message that comes in behind all that was sent before it.
void syslog_capture_t::send_mark() {
    const sockaddr_un address = log_address();
    if (sendto(fd, "", 0, 0, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0)
        abort(); // the receiver would wait for ever
}

void syslog_capture_t::receive() {
    std::array<char, 65536> packet;
    bool bGoOn = true;
    while (bGoOn) {
        const ssize_t length = recv(fd, packet.data(), packet.size(), 0);
        const std::lock_guard guard(mutex);
        if (length > 0) {
            received.push_back(parse_line(std::string(packet.data(), static_cast<size_t>(length))));
            continue;
        }
        numMarks++;
        marked.notify_all();
        bGoOn = !bEnding;
    }
}

std::vector<syslog_line_t> syslog_capture_t::lines() {
    numMarksSent++;
    send_mark(); // without the mutex: it may have to wait until the receiver has made room
    std::unique_lock guard(mutex);
    marked.wait(guard, [&] { return numMarks >= numMarksSent; });
    return received;
}
