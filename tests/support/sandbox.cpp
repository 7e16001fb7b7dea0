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

// Users get the right to mount in a user namespace, in which they stay who they are.
static void unshare_mounts() {
    const std::string uid = std::to_string(geteuid()), gid = std::to_string(getegid());
    if (unshare(CLONE_NEWNS) != 0) {
        check(unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0, "a user namespace");
        std::ofstream("/proc/self/setgroups") << "deny";
        std::ofstream("/proc/self/uid_map") << uid + " " + uid + " 1"; // in one piece
        std::ofstream("/proc/self/gid_map") << gid + " " + gid + " 1";
    }
    check(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "private mounts");
}

void mount_memory(const std::string &dir, uint64_t size) {
    const std::string options = "mode=0755,size=" + std::to_string(size);
    check(mount("tmpfs", dir.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, options.c_str()) == 0, dir);
}

// Covers "/var" by a writable directory with the same content, save for "kz": links through a descriptor that stays open,
// also in programs that the child starts.
static void cover_var() {
    const int original = open("/var", O_RDONLY | O_DIRECTORY);
    check(original >= 0, "/var");
    mount_memory("/var", MEMORY_SIZE);
    for (const auto &entry : fs::directory_iterator("/proc/self/fd/" + std::to_string(original))) {
        if (entry.path().filename() != "kz")
            fs::create_symlink(entry.path(), "/var" / entry.path().filename());
    }
    fs::create_directory("/var/kz");
    mount_memory("/var/kz", MEMORY_SIZE);
}

void enter_private_machine() {
    try {
        unshare_mounts();
        cover_var();
    } catch (const std::system_error &failure) {
        skip_from_child(std::string("no private mount namespace on this machine: ") + failure.what());
    }
}
