// Trace files composed byte by byte, and what kztrace says to them.
#pragma once

#include <sys/wait.h>

#include <algorithm>
#include <bit>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "trace/trace_format.h"

constexpr uint32_t FILE_SIZE = 4096;
constexpr uint32_t REST = 0; // length of a piece that takes the rest of the file
constexpr uint64_t SECOND = 1000000000;
constexpr uint64_t NOON = 1709294400 * SECOND; // 2024-03-01 12:00:00 UTC

using image_bytes_t = std::vector<std::byte>;

struct piece_t {
    uint16_t kind;
    uint32_t seqNumber;
    uint32_t length = REST;
    std::vector<uint32_t> body = {}; // words from offset 28 on
    std::string_view text = {};      // behind the words
    uint64_t timeStamp = 0;          // ticks from noon on; 0: a microsecond for each sequence number
};

template <typename T> void put(image_bytes_t *pImage, size_t offset, const T &value) {
    memcpy(pImage->data() + offset, &value, sizeof(T));
}

// A file of the pieces, one after the other from the front; reading begins with the piece `oldest`.
inline image_bytes_t compose(const std::vector<piece_t> &pieces, size_t oldest) {
    image_bytes_t image(FILE_SIZE);
    trace_file_header_t header = {};
    header.uProperties = std::endian::native == std::endian::little ? TR_PROPERTY_LITTLE_ENDIAN : 0;
    header.uVersion = TR_VERSION;
    header.uOffset = TR_DATA_OFFSET;
    header.uActualFileSize = FILE_SIZE;
    header.timeInfo = {SECOND, NOON};
    header.uPid = 77;
    strcpy(header.program, "/opt/bin/tool\x1b[1m");
    header.tz_offset = -60;
    uint32_t offset = TR_DATA_OFFSET;
    for (size_t i = 0; i < pieces.size(); i++) {
        const piece_t &piece = pieces[i];
        if (i == oldest)
            header.uOldestRecordOffset = offset;
        const uint32_t length = piece.length == REST ? FILE_SIZE - offset : piece.length;
        const uint64_t timeStamp = piece.timeStamp != 0 ? piece.timeStamp : piece.seqNumber * uint64_t{1000};
        put(&image, offset,
            trace_record_header_t{
                length, piece.kind, 0xeeee, piece.seqNumber, {'A', 'B', '\x01', 'D'}, 0x1234, timeStamp});
        std::byte *pBody = image.data() + offset + TR_HEADER_LENGTH;
        for (const uint32_t word : piece.body)
            pBody = static_cast<std::byte *>(mempcpy(pBody, &word, sizeof(word)));
        std::copy_n(reinterpret_cast<const std::byte *>(piece.text.data()), piece.text.size(), pBody);
        offset += length;
    }
    put(&image, 0, header);
    return image;
}

inline void write_file(const std::string &path, const image_bytes_t &image) {
    std::ofstream out(path, std::ios::binary); // the same file when it is there already
    out.write(reinterpret_cast<const char *>(image.data()), static_cast<std::streamsize>(image.size()));
}

// What kztrace writes to both streams, and its exit code.
inline std::pair<std::string, int> run(const std::string &arguments) {
    // NOLINTNEXTLINE(cert-env33-c): the shell does the redirection
    FILE *pPipe = popen(("TZ=UTC-2 " KZTRACE " 2>&1 " + arguments).c_str(), "r");
    std::string text;
    for (int c = fgetc(pPipe); c != EOF; c = fgetc(pPipe))
        text += static_cast<char>(c);
    return {text, WEXITSTATUS(pclose(pPipe))};
}
