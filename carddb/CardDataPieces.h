#pragma once

#include <cstddef>

namespace p11client {

// The card database (card.json) as base64 text of a raw DEFLATE stream, cut
// into pieces of 76 characters (the last one may be shorter). Appended in
// order, without separators, they give the whole text. The definitions are
// generated at build time by embed_card_data from carddb/card.json.
extern const char* const kCardDataPieces[];
extern const std::size_t kCardDataPieceCount;

// The size of card.json once inflated must stay within this bound.
inline constexpr std::size_t kCardDataMaxInflatedSize = 60000;

} // namespace p11client
