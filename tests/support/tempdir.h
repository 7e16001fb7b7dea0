// A directory for one test, on the file system in memory where there is one: no disk is waited for.
#pragma once

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

// The directory lives as long as the object, and goes with all that is in it. A copy of the object that a forked child
// destroys leaves it alone.
class tempdir_t {
  public:
    tempdir_t() : owner(getpid()) {
        std::string pattern = access("/dev/shm", W_OK | X_OK) == 0 ? "/dev/shm" : "/tmp";
        pattern += "/kz_test_XXXXXX";
        if (mkdtemp(pattern.data()) == nullptr)
            throw std::runtime_error("no temporary directory: " + pattern);
        dir = pattern;
    }
    ~tempdir_t() {
        std::error_code ignored; // what another user made in it may stay
        if (owner == getpid())
            std::filesystem::remove_all(dir, ignored);
    }
    tempdir_t(const tempdir_t &) = delete;
    tempdir_t &operator=(const tempdir_t &) = delete;

    const std::string &path() const {
        return dir;
    }
    // The path of a file in it.
    std::string file(const std::string &name) const {
        return dir + "/" + name;
    }

  private:
    pid_t owner;
    std::string dir;
};
