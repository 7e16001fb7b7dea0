// What the targets for specification texts share.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "fuzz/require.h"
#include "trace/control/spec_text.h"

// The text of an input; it ends at its first zero byte.
inline std::string text_of(const uint8_t *pData, size_t size) {
    const char *const pText = reinterpret_cast<const char *>(pData);
    return {pText, strnlen(pText, size)};
}

inline bool is_spec_code(int32_t code) {
    return (code >= TR_RC_SPEC_COMPONENT && code <= TR_RC_SPEC_LEVEL) || code == TR_RC_COMPONENT_PATTERN ||
           code == TR_RC_CATEGORY_PATTERN;
}

// What comes before the last separator in front of an offset, with it.
inline std::string good_part(const std::string &text, size_t offset, char separator) {
    const size_t last = offset == 0 ? std::string::npos : text.rfind(separator, offset - 1);
    return last == std::string::npos ? "" : text.substr(0, last + 1);
}

// Owns a list of entries.
template <typename Spec> struct specs_t {
    Spec *pFirst = nullptr;
    Spec *pLast = nullptr;

    specs_t() = default;
    specs_t(const specs_t &) = delete;
    specs_t &operator=(const specs_t &) = delete;
    ~specs_t() {
        free_specs(list());
    }
    spec_list_t<Spec> list() {
        return {&pFirst, &pLast};
    }
    // Checks the links in both directions, and counts.
    size_t count() const {
        size_t numSpecs = 0;
        const Spec *pPrev = nullptr;
        for (const Spec *pSpec = pFirst; pSpec != nullptr; pPrev = pSpec, pSpec = pSpec->pNext) {
            require(pSpec->pPrev == pPrev && *pSpec->pCompId != '\0' && *pSpec->pCategory != '\0');
            require(strchr(pSpec->pCompId, ',') == nullptr && strchr(pSpec->pCategory, ',') == nullptr);
            numSpecs++;
        }
        require(pLast == pPrev);
        return numSpecs;
    }
};
