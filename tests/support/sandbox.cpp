#include "tests/support/sandbox.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "tests/support/child.h"

namespace fs = std::filesystem;

static constexpr uint64_t MEMORY_SIZE = 256U << 20; // bytes of "/var/kz": more than any test fills

static void check(bool bDone, const std::string &what) {
    if (!bDone)
        throw std::system_error(errno, std::generic_category(), what);
}

static void write_file(const std::string &path, const std::string &text) {
    check(bool(std::ofstream(path) << text << std::flush), path); // in one piece
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
// into its place. So a mount point can be made in it without the real directory noticing.
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
        cover_without("/var", "kz");
        fs::create_directory("/var/kz");
        mount_memory("/var/kz", MEMORY_SIZE);
    } catch (const std::system_error &failure) {
        skip_from_child(std::string("no private mount namespace on this machine: ") + failure.what());
    }
}
