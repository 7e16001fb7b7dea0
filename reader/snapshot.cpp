// Copies a file into memory, twice or more often, until what it holds is known for sure.
//
// The bytes of one copy are of different moments, and not even in the order of their places: the processor may copy the
// end of a record before its head. So a record in one copy may be torn in two ways.
// - It was being overwritten. The writer overwrites from the oldest record on, numbers the record at the head of the
//   space anew before it stores behind its header, and its header's length covers all that it takes over. When the
//   chain of the next copy, which is made entirely after this one, still passes the record with the same number, then
//   nothing of it was overwritten before.
// - It was being finished: the copy has its kind, but parts of its body from before. The next copy has those parts as
//   they should be, since the kind was there when it began. So the bytes of both must be the same.
// The kind itself may be that of an older record in the same place, when the header was caught half renewed. Only the
// newest record can be affected, and a third look at it settles that, or it is left for the next time.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>
#include <system_error>
#include <utility>

#include "reader/reader.h"
#include "reader/walk.h"

namespace trread {

constexpr int MAX_COPIES = 50; // of a file that does not hold still

// A copy and its chain.
struct snapshot_t {
    std::shared_ptr<const image_t> pImage;
    chain_t chain;
};

// What is known about a file: records by their links, their bytes in the copy.
struct view_t {
    std::shared_ptr<const image_t> pImage;
    std::vector<link_t> links;
    std::vector<fault_t> faults;
    std::optional<trace_file_header_t> header; // of the last copy
    bool bSure = false;                        // all that the file held is in the links
};

static std::string text_of_errno(int err) {
    return std::generic_category().message(err);
}

// What is read after this is read from the file after what was read before, also on a processor that reorders loads. The
// thread sanitizer knows no fences, and runs where none is needed.
static inline void copy_in_order() {
#if !defined(__SANITIZE_THREAD__)
    std::atomic_thread_fence(std::memory_order_seq_cst);
#endif
}

// Reads until the buffer is full or the file ends. Returns the bytes read, or -1 with errno set.
static ssize_t read_fully(int fd, std::span<std::byte> buffer, uint64_t offset) {
    size_t numRead = 0;
    while (numRead < buffer.size()) {
        const ssize_t n =
            pread(fd, buffer.data() + numRead, buffer.size() - numRead, static_cast<off_t>(offset + numRead));
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return -1;
        if (n == 0)
            break;
        numRead += static_cast<size_t>(n);
    }
    return static_cast<ssize_t>(numRead);
}

// Copies the header, and if it is one, then the data area: the header's offset is that of a moment before.
static int read_image_of(int fd, image_t *pImage) {
    struct stat status;
    if (fstat(fd, &status) != 0)
        return errno;
    pImage->fileSize = static_cast<uint64_t>(status.st_size);
    pImage->bytes.resize(sizeof(trace_file_header_t));
    const ssize_t numHeader = read_fully(fd, pImage->bytes, 0);
    if (numHeader < 0)
        return errno;
    pImage->bytes.resize(static_cast<size_t>(numHeader));
    if (check_header(pImage->bytes))
        return 0; // the data area means nothing
    copy_in_order();
    const size_t size = std::min<uint64_t>(pImage->fileSize, header_of(pImage->bytes)->uActualFileSize);
    if (size <= TR_DATA_OFFSET)
        return 0;
    pImage->bytes.resize(size);
    const ssize_t numData = read_fully(fd, std::span(pImage->bytes).subspan(TR_DATA_OFFSET), TR_DATA_OFFSET);
    if (numData < 0)
        return errno;
    pImage->bytes.resize(TR_DATA_OFFSET + static_cast<size_t>(numData)); // cut short meanwhile
    return 0;
}

static snapshot_t take_snapshot(int fd) {
    snapshot_t snapshot;
    auto pImage = std::make_shared<image_t>();
    int err = 0;
    try {
        err = read_image_of(fd, pImage.get());
    } catch (const std::bad_alloc &) {
        err = ENOMEM;
    }
    if (err != 0) {
        *pImage = {};
        snapshot.chain.faults.push_back({fault_kind_t::io, 0, "cannot be read: " + text_of_errno(err)});
    } else {
        snapshot.chain = walk_chain(pImage->bytes, pImage->fileSize);
    }
    snapshot.pImage = std::move(pImage);
    return snapshot;
}

static bool is_same(const image_t &left, const image_t &right) {
    return left.fileSize == right.fileSize && left.bytes.size() == right.bytes.size() &&
           (left.bytes.empty() || memcmp(left.bytes.data(), right.bytes.data(), left.bytes.size()) == 0);
}

static std::span<const std::byte> bytes_of(const image_t &image, const link_t &link) {
    return std::span(image.bytes).subspan(link.offset, link.length);
}

// Keeps of the links those whose records have the same bytes in both copies: the longest run of them, for records that
// are being overwritten stand at the front, and those that are being finished at the end.
static void keep_same_bytes(const image_t &left, const image_t &right, std::vector<link_t> *pLinks) {
    const auto differs = [&left, &right](const link_t &link) {
        return !std::ranges::equal(bytes_of(left, link), bytes_of(right, link));
    };
    auto bestBegin = pLinks->begin(), bestEnd = pLinks->begin();
    for (auto begin = pLinks->begin(); begin != pLinks->end();) {
        const auto end = std::find_if(begin, pLinks->end(), differs);
        if (end - begin > bestEnd - bestBegin)
            bestBegin = begin, bestEnd = end;
        begin = end == pLinks->end() ? end : end + 1;
    }
    *pLinks = std::vector<link_t>(bestBegin, bestEnd);
}

// Everything that a copy shows, in which nothing moves.
static view_t view_of_still(const snapshot_t &snapshot) {
    view_t view{snapshot.pImage, snapshot.chain.links, snapshot.chain.faults, header_of(snapshot.pImage->bytes), true};
    view.links.insert(view.links.end(), snapshot.chain.salvage.begin(), snapshot.chain.salvage.end());
    return view;
}

// Whether the newest record of a view is in the file as it is in the view's copy.
static bool is_newest_same(int fd, const view_t &view) {
    if (view.links.empty())
        return true;
    const auto bytes = bytes_of(*view.pImage, view.links.back());
    std::vector<std::byte> now(bytes.size());
    return read_fully(fd, now, view.links.back().offset) == static_cast<ssize_t>(bytes.size()) &&
           std::ranges::equal(now, bytes);
}

// The records that two copies of a moving file agree on; without the earlier one's newest.
static std::vector<link_t> agreed_links(const snapshot_t &earlier, const snapshot_t &later) {
    auto links = common_links(earlier.chain, later.chain);
    if (!links.empty() && links.back() == earlier.chain.links.back())
        links.pop_back();
    keep_same_bytes(*earlier.pImage, *later.pImage, &links);
    return links;
}

static bool has_same_fault(const chain_t &left, const chain_t &right) {
    return !left.faults.empty() && !right.faults.empty() && left.faults[0].kind == right.faults[0].kind &&
           left.faults[0].offset == right.faults[0].offset && left.faults[0].text == right.faults[0].text;
}

// Copies the file until two copies in a row agree on whole chains. When none do, the most that two agreed on counts:
// the file is damaged (the fault stays where it is), or its writer is faster than we are.
static view_t observe_file(int fd) {
    view_t best;
    snapshot_t earlier = take_snapshot(fd);
    bool bDamaged = false;
    for (int i = 1; i < MAX_COPIES; i++) {
        copy_in_order(); // all of one copy before all of the next
        snapshot_t later = take_snapshot(fd);
        if (is_same(*earlier.pImage, *later.pImage)) {
            view_t still = view_of_still(earlier);
            if (is_newest_same(fd, still))
                return still;
        }
        auto links = agreed_links(earlier, later);
        const bool bSure =
            earlier.chain.bWhole && later.chain.bWhole && (!links.empty() || earlier.chain.links.empty());
        if (bSure || best.pImage == nullptr || links.size() > best.links.size())
            best = {earlier.pImage, std::move(links), {}, header_of(later.pImage->bytes), bSure};
        if (bSure) {
            best.faults = later.chain.faults; // a whole chain may still stand in a file of another size
            return best;
        }
        bDamaged = has_same_fault(earlier.chain, later.chain);
        earlier = std::move(later);
    }
    if (bDamaged)
        best.faults = earlier.chain.faults;
    else
        best.faults.push_back({fault_kind_t::unstable, 0, "changes faster than it can be read"});
    return best;
}

// A batch of a view without its records.
static batch_t batch_of(const view_t &view) {
    batch_t batch;
    batch.faults = view.faults;
    batch.header = view.header;
    batch.fileSize = view.pImage->fileSize;
    batch.pImage = view.pImage;
    return batch;
}

static base_t base_of(const std::optional<trace_file_header_t> &header) {
    return header ? base_t{header->timeInfo, header->uPid} : base_t{};
}

std::optional<trace_file_t> trace_file_t::open(const std::string &path, std::string *pReason) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) {
        *pReason = "cannot be opened: " + text_of_errno(errno);
        return std::nullopt;
    }
    trace_file_t file(fd);
    struct stat status;
    if (fstat(fd, &status) != 0) {
        *pReason = "cannot be read: " + text_of_errno(errno);
        return std::nullopt;
    }
    if (!S_ISREG(status.st_mode)) {
        *pReason = S_ISDIR(status.st_mode)    ? "is a directory, not a trace file"
                   : S_ISFIFO(status.st_mode) ? "is a FIFO, not a trace file"
                                              : "is not a regular file";
        return std::nullopt;
    }
    return file;
}

trace_file_t::trace_file_t(int fd_) : fd(fd_) {
}

trace_file_t::trace_file_t(trace_file_t &&other) noexcept : fd(std::exchange(other.fd, -1)), follow(other.follow) {
}

trace_file_t &trace_file_t::operator=(trace_file_t &&other) noexcept {
    std::swap(fd, other.fd);
    std::swap(follow, other.follow);
    return *this;
}

trace_file_t::~trace_file_t() {
    if (fd >= 0)
        (void)close(fd); // only read from
}

std::optional<trace_file_header_t> trace_file_t::read_header() const {
    trace_file_header_t header;
    if (read_fully(fd, std::as_writable_bytes(std::span(&header, 1)), 0) != sizeof(header))
        return std::nullopt;
    return header;
}

batch_t trace_file_t::read_all() const {
    const view_t view = observe_file(fd);
    batch_t batch = batch_of(view);
    base_t base = base_of(view.header);
    append_records(view.pImage->bytes, view.links, &base, &batch);
    return batch;
}

// Whether the last record handed out is where it was and still the newest.
bool trace_file_t::is_unchanged() const {
    if (!follow || !follow->bQuiet)
        return false;
    const auto header = read_header();
    std::array<std::byte, TR_HEADER_LENGTH> head;
    return header && header->uOldestRecordOffset == follow->oldestOffset &&
           read_fully(fd, head, follow->offset) == TR_HEADER_LENGTH && head == follow->head;
}

batch_t trace_file_t::poll() {
    if (is_unchanged())
        return {};
    const view_t view = observe_file(fd);
    batch_t batch = batch_of(view);
    std::span<const link_t> links = view.links;
    base_t base = base_of(view.header);
    if (!links.empty() && links.back().function == TR_KIND_RESERVED)
        links = links.first(links.size() - 1); // recorders take turns: only the newest can still be finished
    const bool bQuiet = links.size() == view.links.size() && view.bSure && view.faults.empty();
    if (follow && !links.empty()) {
        const auto age = [this](const link_t &link) {
            return static_cast<int32_t>(link.seqNumber - follow->seqNumber);
        };
        const auto last =
            std::find_if(links.begin(), links.end(), [&age](const link_t &link) { return age(link) == 0; });
        const auto is_last = [this, &view](const link_t &link) {
            return link.offset == follow->offset &&
                   memcmp(view.pImage->bytes.data() + link.offset, follow->head.data(), TR_HEADER_LENGTH) == 0;
        };
        if (last != links.end() && is_last(*last)) {
            links = links.subspan(static_cast<size_t>(last - links.begin()) + 1);
            base = {follow->timeInfo, follow->pid};
        } else if (last == links.end() && age(links.front()) > 0) {
            batch.numLost = (links.front().seqNumber - follow->seqNumber) / TR_SEQ_STEP - 1;
            if (batch.numLost == 0)
                base = {follow->timeInfo, follow->pid};
        } else if (view.bSure) {
            batch.bRestarted = true;
        } else { // too little of the file was seen to tell
            links = {};
        }
    }
    for (size_t i = 1; i < links.size(); i++) // a copy of a fast writer's file may have lost records in its middle, too
        batch.numLost += (links[i].seqNumber - links[i - 1].seqNumber) / TR_SEQ_STEP - 1;
    append_records(view.pImage->bytes, links, &base, &batch);
    if (!links.empty()) {
        follow_t now{links.back().seqNumber, links.back().offset, {}, 0, base.timeInfo, base.pid, false};
        memcpy(now.head.data(), view.pImage->bytes.data() + now.offset, TR_HEADER_LENGTH);
        follow = now;
    }
    if (follow && bQuiet) {
        follow->bQuiet = true;
        follow->oldestOffset = header_of(view.pImage->bytes)->uOldestRecordOffset;
    }
    return batch;
}

batch_t read_image(std::span<const std::byte> bytes) {
    batch_t batch;
    batch.fileSize = bytes.size();
    batch.header = header_of(bytes);
    auto ringBytes = bytes;
    if (batch.header && batch.header->uActualFileSize > TR_DATA_OFFSET)
        ringBytes = bytes.first(std::min<size_t>(bytes.size(), batch.header->uActualFileSize));
    const chain_t chain = walk_chain(ringBytes, bytes.size());
    batch.faults = chain.faults;
    base_t base = base_of(batch.header);
    append_records(bytes, chain.links, &base, &batch);
    append_records(bytes, chain.salvage, &base, &batch);
    return batch;
}

} // namespace trread
