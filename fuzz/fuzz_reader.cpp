// Any bytes as a trace file: each record and all that is decoded from it lies within the file.
#include <cstddef>
#include <cstdint>
#include <span>
#include <variant>

#include "fuzz/require.h"
#include "reader/decode.h"
#include "reader/reader.h"
#include "reader/walk.h"

using bytes_t = std::span<const std::byte>;

static void require_within(bytes_t outer, bytes_t inner) {
    require(inner.empty() ||
            (inner.data() >= outer.data() && inner.data() + inner.size() <= outer.data() + outer.size()));
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t size) {
    const bytes_t bytes = std::as_bytes(std::span(pData, size));
    const auto batch = trread::read_image(bytes);
    for (const auto &record : batch.records) {
        require_within(bytes, record.bytes);
        const auto body = trread::decode_body(record); // reads every text to its end
        if (const auto *pBody = std::get_if<trread::data_body_t>(&body.content))
            for (const auto block : pBody->blocks)
                require_within(record.bytes, block);
        if (const auto *pBody = std::get_if<trread::error_body_t>(&body.content)) {
            size_t numText = 0; // however many inserts there are, their texts are no longer than the record
            for (const auto &insert : pBody->inserts)
                numText += insert.text.value_or("").size();
            require(numText <= record.bytes.size());
        }
    }
    // The two halves as a file at two times.
    const bytes_t first = bytes.first(size / 2), second = bytes.subspan(size / 2);
    const auto earlier = trread::walk_chain(first, first.size()), later = trread::walk_chain(second, second.size());
    const auto common = trread::common_links(earlier, later);
    require(common.size() <= earlier.links.size() && common.size() <= later.links.size());
    trread::base_t base = {};
    trread::batch_t part;
    trread::append_records(first, common, &base, &part);
    return 0;
}
