// Builds the message of an error record from its default text and its inserts.
//
// The default text is a format of the printf family that comes out of a file: it may be anything, and need not fit the
// inserts. It is only ever read here. Each conversion takes the next insert and formats it by the kind that the insert
// itself has; where the two do not go together the message shows both sides as they are.
#ifndef KZ_READER_MESSAGE_H
#define KZ_READER_MESSAGE_H

#include <span>
#include <string>
#include <string_view>

#include "reader/decode.h"

namespace trread {

struct message_t {
    std::string text; // any bytes, like the default text and the inserts
    bool bWhole;      // the two go together: each conversion has an insert of its kind, and none is left over
};

// Formats the inserts into a text.
//
// A conversion without an insert stays as it stands; so does everything from a conversion on that is not known, because
// nobody can tell which insert belongs to what follows it. An insert of a kind that its conversion does not take stands
// in angle brackets. Width and precision count up to 255, the precision of a text without bound; "*" has no insert and
// counts as not given.
message_t format_message(std::string_view text, std::span<const error_insert_t> inserts);

} // namespace trread

#endif
