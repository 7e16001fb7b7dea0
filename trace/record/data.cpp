// Records of data blocks: copies of the caller's memory, byte for byte.
#include <cstdarg>
#include <cstring>

#include "trace/record/frame.h"

constexpr uint32_t TR_MAX_BLOCKS = 128;
constexpr uint32_t TR_MAX_BLOCK_LENGTH = 1'048'576; // bytes
constexpr uint32_t TR_DATA_HEAD = sizeof(trace_record_data_t);

// The blocks as they were read from the argument list.
struct read_blocks_t {
    const void *blocks[TR_MAX_BLOCKS];
    uint32_t lengths[TR_MAX_BLOCKS];
    uint32_t number;
    uint32_t recordLength; // bytes of the whole record
};

// Bytes of a block in the record, with its length and its padding.
static inline uint32_t stride_of(uint32_t blockLength) {
    return static_cast<uint32_t>(tr_round_up_4(sizeof(trace_data_t) + uint64_t{blockLength}));
}

// Reads the blocks that fit; those behind them are not looked at. Returns 0, or 30 or 31 for a block that can't be used.
static inline int32_t read_blocks(read_blocks_t *pRead, uint32_t uMaxSize, uint32_t blkCount, va_list blocks) {
    pRead->number = 0;
    pRead->recordLength = TR_DATA_HEAD;
    while (pRead->number < blkCount) {
        const void *const pBlock = va_arg(blocks, const void *);
        const auto length = static_cast<uint32_t>(va_arg(blocks, int32_t)); // a negative one is too long
        if (pBlock == nullptr)
            return TR_RC_BLOCK_NULL;
        if (length > TR_MAX_BLOCK_LENGTH)
            return TR_RC_BLOCK_LENGTH;
        if (uint64_t{pRead->recordLength} + stride_of(length) > uMaxSize)
            break;
        pRead->blocks[pRead->number] = pBlock;
        pRead->lengths[pRead->number] = length;
        pRead->recordLength += stride_of(length);
        pRead->number++;
    }
    return 0;
}

// Reserves a record of blocks and fills all but the blocks. Returns null when there is no room.
TR_INLINE static uint8_t *begin_data(trace_anchor_t *pAnchor, uint32_t length, const char *pCompId, uint32_t traceId,
                                     uint32_t numBlocks) TR_HOLDS(anchor_set_lock) {
    uint8_t *const pRec = allocate_space(pAnchor, &length);
    if (pRec != nullptr) [[likely]] {
        store_comp_id(pRec, pCompId);
        store_at(pRec + offsetof(trace_record_data_t, trace_id), traceId);
        store_at(pRec + offsetof(trace_record_data_t, n_blocks), numBlocks);
    }
    return pRec;
}

static int32_t write_blocks(trace_anchor_t *pAnchor, const char *pCompId, uint32_t traceId, const read_blocks_t *pRead)
    TR_HOLDS(anchor_set_lock) {
    uint8_t *const pRec = begin_data(pAnchor, pRead->recordLength, pCompId, traceId, pRead->number);
    if (pRec == nullptr) [[unlikely]]
        return TR_NOT_RESERVED;
    uint8_t *pTo = pRec + TR_DATA_HEAD;
    for (uint32_t i = 0; i < pRead->number; i++) {
        store_at(pTo, pRead->lengths[i]);
        store_bytes(pTo + sizeof(trace_data_t), pRead->blocks[i], pRead->lengths[i]);
        pTo += stride_of(pRead->lengths[i]);
    }
    publish_kind(pRec, TR_KIND_DATA);
    return TR_RECORDED;
}

// The record of a block that is longer than any the file accepts: no block.
TR_COLD static int32_t write_no_block(trace_anchor_t *pAnchor, const char *pCompId, uint32_t traceId)
    TR_HOLDS(anchor_set_lock) {
    uint8_t *const pRec = begin_data(pAnchor, TR_DATA_HEAD, pCompId, traceId, 0);
    if (pRec == nullptr)
        return TR_NOT_RESERVED;
    publish_kind(pRec, TR_KIND_DATA);
    return TR_RECORDED;
}

// A block as next() yields it in record_one().
struct block_t {
    const void *pBytes;
    uint32_t length; // of a negative one: too long
};

// One block, as most calls have, which next() reads behind the lock: what a call loads before it has the lock counts in
// full, a tenth of a floor here.
template <typename Next>
TR_INLINE static int32_t record_one(const char *pCompId, uint32_t traceId, tr_file_token_t fileToken, Next next) {
    if (is_switched_off())
        return 0;
    if (!is_comp_id(pCompId))
        return TR_RC_NO_COMPONENT_ID;
    return record_in_frame(anchor_of(fileToken),
                           [&](trace_anchor_t *pAnchor, uint32_t uMaxSize) TR_HOLDS(anchor_set_lock) {
                               const block_t block = next();
                               if (block.pBytes == nullptr)
                                   return TR_RC_BLOCK_NULL;
                               if (block.length > TR_MAX_BLOCK_LENGTH)
                                   return TR_RC_BLOCK_LENGTH;
                               const uint32_t wanted = TR_DATA_HEAD + stride_of(block.length);
                               if (wanted > uMaxSize) [[unlikely]]
                                   return write_no_block(pAnchor, pCompId, traceId);
                               uint8_t *const pRec = begin_data(pAnchor, wanted, pCompId, traceId, 1);
                               if (pRec == nullptr) [[unlikely]]
                                   return TR_NOT_RESERVED;
                               store_at(pRec + TR_DATA_HEAD, block.length);
                               store_bytes(pRec + TR_DATA_HEAD + sizeof(trace_data_t), block.pBytes, block.length);
                               publish_kind(pRec, TR_KIND_DATA);
                               return TR_RECORDED;
                           });
}

static int32_t record_list(const char *pCompId, uint32_t traceId, tr_file_token_t fileToken, uint32_t blkCount,
                           va_list blocks) {
    if (is_switched_off())
        return 0;
    if (!is_comp_id(pCompId))
        return TR_RC_NO_COMPONENT_ID;
    if (blkCount > TR_MAX_BLOCKS)
        return TR_RC_NUM_BLOCKS;
    return record_in_frame(anchor_of(fileToken),
                           [&](trace_anchor_t *pAnchor, uint32_t uMaxSize) TR_HOLDS(anchor_set_lock) {
                               read_blocks_t read;
                               const int32_t rc = read_blocks(&read, uMaxSize, blkCount, blocks);
                               return rc != 0 ? rc : write_blocks(pAnchor, pCompId, traceId, &read);
                           });
}

int32_t tr_ms_record_data_v_1(const char *pCompId, uint32_t traceId, tr_file_token_t fileToken, uint32_t blkCount,
                              va_list blocks) {
    return record_list(pCompId, traceId, fileToken, blkCount, blocks);
}

int32_t tr_record_data_v_1(const char *pCompId, uint32_t traceId, uint32_t blkCount, va_list blocks) {
    return record_list(pCompId, traceId, nullptr, blkCount, blocks);
}

// What a variadic form does with its arguments; only the function itself can start their list. The list of one block is
// one of its own, which the compiler resolves, because nobody else gets hold of it.
#define TR_RECORD_BLOCKS(fileToken)                                                                                    \
    int32_t rc = 0;                                                                                                    \
    if (blkCount == 1) {                                                                                               \
        va_list block;                                                                                                 \
        va_start(block, blkCount);                                                                                     \
        rc = record_one(pCompId, traceId, fileToken, [&] {                                                             \
            const void *const pBytes = va_arg(block, const void *);                                                    \
            return block_t{.pBytes = pBytes, .length = static_cast<uint32_t>(va_arg(block, int32_t))};                 \
        });                                                                                                            \
        va_end(block);                                                                                                 \
    } else {                                                                                                           \
        va_list blocks;                                                                                                \
        va_start(blocks, blkCount);                                                                                    \
        rc = record_list(pCompId, traceId, fileToken, blkCount, blocks);                                               \
        va_end(blocks);                                                                                                \
    }                                                                                                                  \
    return rc

int32_t tr_ms_record_data_1(const char *pCompId, uint32_t traceId, tr_file_token_t fileToken, uint32_t blkCount, ...) {
    TR_RECORD_BLOCKS(fileToken);
}

int32_t tr_record_data_1(const char *pCompId, uint32_t traceId, uint32_t blkCount, ...) {
    TR_RECORD_BLOCKS(nullptr);
}
