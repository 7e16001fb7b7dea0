// A machine of its own for a child process: an empty "/var/kz" in memory and a "/dev/log" that the test reads. Nothing
// of the real machine changes; all of it goes with the child.
#pragma once

#include <sys/types.h>

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

// Moves the calling child (see run_in_child) into a private mount namespace: as root, or in a user namespace where the
// kernel lets users. There "/var" and "/dev" hold what they hold outside, except that "/var/kz" is an empty file system
// in memory and that there is no "/dev/log". Where neither way works, the child ends and the running test is skipped.
// Call it before the child starts threads.
void enter_private_machine();

// Mounts an empty file system in memory of `size` bytes over a directory of the private machine: a disk that fills up.
void mount_memory(const std::string &dir, uint64_t size);

// One message as it arrived at the system log.
struct syslog_line_t {
    int priority;      // facility and severity, as LOG_USER | LOG_ERR
    std::string ident; // as given to openlog, with "[pid]" where the program asks for it
    std::string text;
};

// Takes the place of the system log of a private machine, from construction to destruction. Messages are taken in by a
// thread of its own: a socket holds only a few, and whoever logs more would wait.
class syslog_capture_t {
  public:
    syslog_capture_t();
    ~syslog_capture_t();
    syslog_capture_t(const syslog_capture_t &) = delete;
    syslog_capture_t &operator=(const syslog_capture_t &) = delete;

    // Every message sent so far, oldest first; those whose sending has returned are in it for certain. For one thread.
    std::vector<syslog_line_t> lines();

  private:
    void receive();
    void send_mark();

    int fd = -1;
    uint32_t numMarksSent = 0; // by lines()
    std::mutex mutex;          // guards what follows, down to the receiver
    std::condition_variable marked;
    uint32_t numMarks = 0; // marks that came back
    bool bEnding = false;
    std::vector<syslog_line_t> received;
    std::thread receiver;
};
