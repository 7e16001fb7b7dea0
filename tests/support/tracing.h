// What the tests of the tracing library share. The library's state is that of a process, so whatever uses it does so
// in a child.
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "cu/kz_cu.h"
#include "tests/support/child.h"
#include "tests/support/tempdir.h"
#include "trace/engine/engine.h"

class Tracing : public testing::Test {
  protected:
    const tempdir_t dir;
    const std::string path = dir.file("trace");
};

// Runs the body in a child that has to succeed. Returns what it wrote to standard error.
inline std::string in_child(const std::function<void()> &body) {
    const child_result_t result = run_in_child(body);
    EXPECT_EQ(result.exitCode, 0);
    return result.err;
}

// The calling thread's error as "code message insert"; "0 0" when none is set.
inline std::string last_error() {
    cu_error_t *pError = nullptr;
    EXPECT_EQ(cu_get_error_1(&pError), 0);
    std::string text = std::to_string(pError->cu_error_id) + " " + std::to_string(pError->cu_msg_num);
    for (uint32_t i = 0; i < pError->cu_arg_cnt; i++) {
        const auto &[type, value] = pError->cu_args[i];
        text += " " + (type == CU_ERROR_ARG_CHAR_STR ? value.cu_arg_char_str : std::to_string(value.cu_arg_int));
    }
    cu_rel_error_1(pError);
    return text;
}

inline ptrdiff_t num_descriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

inline tr_detail_level_t level_of_one; // of all components that register_one has registered

// Registers a component of one category, which is on.
inline int32_t register_one(const char *pCompId) {
    static constexpr tr_category_description_t category = {0, "category", 3, 1};
    return tr_register_component_1(pCompId, &level_of_one, &category, 1);
}

// Has the library start a default file. The size is a text, as the environment has it.
inline int32_t start(const std::string &path, const char *pSize = "") {
    (void)setenv("KZ_TR_FILENAME", path.c_str(), 1);
    (void)setenv("KZ_TR_SIZE", pSize, 1);
    return register_one("ABCD");
}

// The token of one more trace file, which the next registration starts.
inline tr_file_token_t token_of(const std::string &path) TR_UNCHECKED {
    (void)lockGlobalMutex();
    trace_anchor_t *const pAnchor = findOrCreateAnchorForFile(path.c_str(), 1);
    (void)unlockGlobalMutex();
    return pAnchor;
}

// A file as another process sees and changes it: through a mapping of its own, which stays.
struct view_t {
    explicit view_t(const std::string &path) : size(std::filesystem::file_size(path)) {
        const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
        pBytes = static_cast<char *>(mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
        (void)close(fd);
    }
    uint32_t get(size_t offset, size_t width = 4) const {
        uint32_t value = 0;
        memcpy(&value, pBytes + offset, width);
        return value;
    }
    void put(size_t offset, uint32_t value, size_t width = 4) const {
        memcpy(pBytes + offset, &value, width);
    }

    size_t size;
    char *pBytes;
};

// The ring from its front: "length/kind/sequence number" of every record, and where readers begin.
inline std::string chain(const view_t &file) {
    std::string text;
    for (size_t offset = 200; offset + 28 <= file.size && file.get(offset) != 0; offset += file.get(offset))
        text += std::to_string(file.get(offset)) + "/" + std::to_string(file.get(offset + 4, 2)) + "/" +
                std::to_string(file.get(offset + 8)) + " ";
    return text + "@" + std::to_string(file.get(44));
}
