#include "reader/collection.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <map>
#include <string_view>
#include <tuple>
#include <utility>

namespace trread {

using records_t = std::vector<record_t>;

constexpr int64_t LATEST = std::numeric_limits<int64_t>::max();
constexpr int64_t MAX_CLOCK_ERROR_ns = 1'000'000; // between threads; a generous bound

static bool is_finished(const record_t &record) {
    return record.kind != TR_KIND_RESERVED;
}

static std::optional<span_t> span_of(const records_t &records) {
    std::optional<span_t> span;
    for (const record_t &record : records) {
        if (!is_finished(record))
            continue;
        if (!span)
            span = {record.time_ns, record.time_ns};
        span = {std::min(span->first_ns, record.time_ns), std::max(span->last_ns, record.time_ns)};
    }
    return span;
}

// Unfinished records get a time at which they stay behind the record before them.
static void settle_times(records_t *pRecords) {
    const auto first = std::ranges::find_if(*pRecords, is_finished);
    int64_t time_ns = first != pRecords->end() ? first->time_ns : LATEST;
    for (record_t &record : *pRecords)
        time_ns = is_finished(record) ? record.time_ns : (record.time_ns = time_ns);
}

// Whether what begins at `first_ns` was written after what ends at `last_ns`, as far as clocks can tell.
static bool comes_behind(int64_t first_ns, int64_t last_ns) {
    int64_t earliest_ns = 0;
    return __builtin_sub_overflow(last_ns, MAX_CLOCK_ERROR_ns, &earliest_ns) || first_ns >= earliest_ns;
}

// Where a record stands in the life of a page: one record of the life at most is there.
static uint64_t spot_of(const record_t &record) {
    return uint64_t{record.offset} << 32 | record.seqNumber;
}

static bool is_same(const record_t &left, const record_t &right) {
    return !is_finished(left) || !is_finished(right) || std::ranges::equal(left.bytes, right.bytes);
}

// Finds the records of a life by where they stand.
class spots_t {
  public:
    explicit spots_t(const records_t &life) {
        for (size_t i = 0; i < life.size(); i++)
            spots.emplace_back(spot_of(life[i]), i);
        std::ranges::sort(spots);
    }
    // The index of the record in the life, if one stands there.
    std::optional<size_t> find(const record_t &record) const {
        const auto found = std::ranges::lower_bound(spots, std::pair(spot_of(record), size_t{0}));
        return found != spots.end() && found->first == spot_of(record) ? std::optional(found->second) : std::nullopt;
    }

  private:
    std::vector<std::pair<uint64_t, size_t>> spots;
};

// Adds to a life what another file shows of it: between common records the other file's come first, as one of the two
// has none there unless it is damaged. Returns false, and leaves the life alone, when it is another life.
static bool join(const records_t &records, records_t *pLife) {
    const spots_t spots(*pLife);
    records_t joined;
    size_t numTaken = 0; // of the life, from its front
    bool bCommon = false;
    const auto take_until = [&](size_t end) {
        if (end > numTaken)
            joined.insert(joined.end(), pLife->begin() + static_cast<ptrdiff_t>(numTaken),
                          pLife->begin() + static_cast<ptrdiff_t>(end));
        numTaken = std::max(numTaken, end);
    };
    for (const record_t &record : records) {
        const auto known = spots.find(record);
        if (!known || !is_same((*pLife)[*known], record)) {
            joined.push_back(record);
            continue;
        }
        bCommon = bCommon || (is_finished((*pLife)[*known]) && is_finished(record));
        if (*known < numTaken)
            continue; // in another place of a damaged chain, and handed out already
        take_until(*known + 1);
        if (!is_finished(joined.back()))
            joined.back() = record;
    }
    take_until(pLife->size());
    if (bCommon)
        *pLife = std::move(joined);
    return bCommon;
}

// One life behind the other, or both by time when they overlap; neither's own order changes.
static records_t merge(records_t left, records_t right) {
    const auto leftSpan = span_of(left), rightSpan = span_of(right);
    auto fromLeft = left.begin(), fromRight = right.begin();
    records_t merged;
    if (leftSpan && rightSpan && !comes_behind(rightSpan->first_ns, leftSpan->last_ns))
        while (fromLeft != left.end() && fromRight != right.end())
            merged.push_back(fromRight->time_ns < fromLeft->time_ns ? *fromRight++ : *fromLeft++);
    merged.insert(merged.end(), fromLeft, left.end());
    merged.insert(merged.end(), fromRight, right.end());
    return merged;
}

// The indices of places in the order in which to read them: a set's pages from the oldest on. A page that is taken back
// meanwhile is then one that has been read, and what comes of it is newer than all the rest.
static std::vector<size_t> reading_order(const std::vector<place_t> &places) {
    const auto name_of_set = [](const place_t &place) {
        return place.path.substr(0, place.path.rfind('/') + 1) + place.traceFile;
    };
    std::map<std::string, uint32_t> actives;
    for (const place_t &place : places) {
        std::string reason;
        const auto file = place.page != 0 ? trace_file_t::open(place.path, &reason) : std::nullopt;
        const auto header = file ? file->read_header() : std::nullopt;
        if (header && (header->sp_flags & TR_ACTIVE) != 0)
            actives[name_of_set(place)] = place.page;
    }
    std::vector<size_t> order;
    for (size_t i = 0; i < places.size(); i++)
        order.push_back(i);
    std::ranges::stable_sort(order, {}, [&](size_t i) {
        const std::string set = name_of_set(places[i]);
        const auto active = actives.find(set);
        return std::tuple(set, active != actives.end() && places[i].page <= active->second, places[i].page);
    });
    return order;
}

std::optional<int64_t> collection_t::track_t::next_time() const {
    if (pos < records.size())
        return records[pos].time_ns;
    if (numOpened < bundles.size())
        return bundles[numOpened].span.first_ns;
    return std::nullopt;
}

collection_t::collection_t(const std::vector<std::string> &paths) {
    read_pages(paths);
    read_copies(paths);
    lay_tracks();
}

// Reads the file of a source, or adds to its faults why not.
batch_t collection_t::read_source(source_t *pSource) {
    std::string reason = pSource->place.reason;
    const auto file = reason.empty() ? trace_file_t::open(pSource->place.path, &reason) : std::nullopt;
    if (!file) {
        pSource->faults.push_back({fault_kind_t::io, 0, reason});
        return {};
    }
    batch_t batch = file->read_all();
    settle_times(&batch.records);
    return batch;
}

static void describe(const batch_t &batch, source_t *pSource) {
    pSource->bOpened = pSource->faults.empty();
    pSource->header = batch.header;
    pSource->fileSize = batch.fileSize;
    pSource->numRecords = batch.records.size();
    pSource->numUnknown = batch.numUnknown;
    pSource->span = span_of(batch.records);
    pSource->faults.insert(pSource->faults.end(), batch.faults.begin(), batch.faults.end());
}

void collection_t::read_pages(const std::vector<std::string> &paths) {
    auto places = find_files(paths);
    std::erase_if(places, [](const place_t &place) { return place.is_copy(); });
    files.resize(places.size());
    kept.resize(places.size());
    for (const size_t i : reading_order(places)) {
        files[i].place = places[i];
        kept[i] = read_source(&files[i]);
        describe(kept[i], &files[i]);
    }
}

void collection_t::read_copies(const std::vector<std::string> &paths) {
    for (place_t &place : find_files(paths)) {
        if (!place.is_copy())
            continue;
        source_t &source = files.emplace_back();
        source.place = std::move(place);
        describe(read_source(&source), &source);
    }
}

batch_t collection_t::take_batch(size_t index) {
    return index < kept.size() ? std::move(kept[index]) : read_source(&files[index]);
}

std::vector<collection_t::bundle_t> collection_t::make_bundles() const {
    const auto span_or_end = [this](size_t i) { return files[i].span.value_or(span_t{LATEST, LATEST}); };
    const auto page_of = [this](size_t i) {
        return std::pair(std::string_view(files[i].place.traceFile), files[i].place.page);
    };
    std::vector<size_t> order;
    for (size_t i = 0; i < files.size(); i++)
        if (files[i].numRecords != 0)
            order.push_back(i);
    // Of equal ones a copy goes before its page, whose header may tell the process of a later start.
    std::ranges::stable_sort(order, {}, [&](size_t i) {
        return std::tuple(page_of(i), span_or_end(i).first_ns, !files[i].place.is_copy());
    });
    std::vector<bundle_t> bundles;
    for (const size_t i : order) {
        const span_t span = span_or_end(i);
        if (bundles.empty() || page_of(bundles.back().members[0]) != page_of(i) ||
            span.first_ns > bundles.back().span.last_ns)
            bundles.push_back({span, {}});
        bundle_t &bundle = bundles.back();
        bundle.members.push_back(i);
        bundle.span.last_ns = std::max(bundle.span.last_ns, span.last_ns);
    }
    return bundles;
}

void collection_t::lay_tracks() {
    const auto trace_file_of = [this](const bundle_t &bundle) {
        return std::string_view(files[bundle.members[0]].place.traceFile);
    };
    auto bundles = make_bundles();
    std::ranges::stable_sort(bundles, {}, [&](const bundle_t &bundle) {
        return std::tuple(trace_file_of(bundle), bundle.span.first_ns, bundle.span.last_ns);
    });
    for (bundle_t &bundle : bundles) {
        const auto found = std::ranges::find_if(tracks, [&](const track_t &track) {
            return trace_file_of(track.bundles.back()) == trace_file_of(bundle) &&
                   comes_behind(bundle.span.first_ns, track.bundles.back().span.last_ns);
        });
        track_t &track = found != tracks.end() ? *found : tracks.emplace_back();
        track.bundles.push_back(std::move(bundle));
    }
}

void collection_t::open_bundle(track_t *pTrack) {
    pTrack->records.clear();
    pTrack->images.clear();
    pTrack->pos = 0;
    std::vector<records_t> lives;
    for (const size_t member : pTrack->bundles[pTrack->numOpened++].members) {
        batch_t batch = take_batch(member);
        pTrack->images.push_back(batch.pImage);
        if (std::ranges::none_of(lives, [&batch](records_t &life) { return join(batch.records, &life); }))
            lives.push_back(std::move(batch.records));
    }
    for (records_t &life : lives)
        pTrack->records = merge(std::move(pTrack->records), std::move(life));
}

const record_t *collection_t::next() {
    for (;;) {
        track_t *pNext = nullptr;
        for (track_t &track : tracks)
            if (track.next_time() && (pNext == nullptr || *track.next_time() < *pNext->next_time()))
                pNext = &track;
        if (pNext == nullptr)
            return nullptr;
        if (pNext->pos < pNext->records.size())
            return &pNext->records[pNext->pos++];
        open_bundle(pNext); // its first record may be later than its earliest one: look again
    }
}

} // namespace trread
