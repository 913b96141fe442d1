#pragma once

#include <span>
#include <string_view>

namespace p11client {

class StringBuffer;

// A rule that maps the ATRs of a card family whose ATRs vary from card to
// card (serial or version bytes) to the one ATR the card database lists for
// the family. A rule applies when the ATR begins with `prefix` and, if the
// rule has a second test, also passes that test.
struct AtrRewriteRule {
    enum class SecondTest { None, Contains, EndsWith };

    std::string_view prefix;
    SecondTest secondTest;
    std::string_view testText;
    std::string_view target;

    bool appliesTo(std::string_view atr) const;
};

// The rules in the order they are tried.
std::span<const AtrRewriteRule> atrRewriteRules();

// Replaces an upper-case ATR with the target of the first rule that applies
// to it; returns false, leaving the ATR as it is, when none does.
bool rewriteKnownAtrVariant(StringBuffer& atr);

} // namespace p11client
