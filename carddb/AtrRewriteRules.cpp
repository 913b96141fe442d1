#include "AtrRewriteRules.h"

#include "StringBuffer.h"

#include <array>

namespace p11client {

namespace {

using Test = AtrRewriteRule::SecondTest;

// Order matters: the first rule that applies wins. Some quirks are kept on
// purpose because deployed cards depend on them: the "B085" family with the
// "FFE829000" ending goes to the "B084" entry; the "051" prefix catches a
// family that differs from the "0534" ones in its 25th digit and shares
// their target; the "390000" variant goes to the "0000000000xx" entry. The
// letters "xx" in a target are literal text of the database, not a pattern.
constexpr std::array kRules{
    AtrRewriteRule{"3BFF1800FF8131FE55006B0209", Test::Contains, "1101434E5311318",
                   "3BFF1800FF8131FE55006B02090200011101434E531131808E"},
    AtrRewriteRule{"3B9F958131FE9F0066465305", Test::Contains, "71DF0000460000",
                   "3B9F958131FE9F006646530540081871DF000046000015"},
    AtrRewriteRule{"3B7F96000080318065B085", Test::EndsWith, "FFE829000",
                   "3B7F96000080318065B084413DF6120FFE829000"},
    AtrRewriteRule{"3B7F96000080318065B085", Test::None, "", "3B7F96000080318065B0855956FB120268829000"},
    AtrRewriteRule{"3BDD96FF8131FE4580595F5374645F496E697481", Test::None, "",
                   "3BDD96FF8131FE4580595F5374645F496E6974810000"},
    AtrRewriteRule{"3B9F9681B1FE451F070064051EB20031B0739621DB", Test::None, "",
                   "3B9F9681B1FE451F070064051EB20031B0739621DB00000000"},
    AtrRewriteRule{"3BBB1800C01031FE4580670412B00303000081", Test::None, "",
                   "3BBB1800C01031FE4580670412B003030000810000"},
    AtrRewriteRule{"3B9F958131FE9F00664653051", Test::None, "", "3B9F958131FE9F006646530534002571DF0000000000xx"},
    AtrRewriteRule{"3B9F958131FE9F006646530534002571DF0000000000", Test::None, "",
                   "3B9F958131FE9F006646530534002571DF0000000000xx"},
    AtrRewriteRule{"3B9F958131FE9F006646530534002571DF0000390000", Test::None, "",
                   "3B9F958131FE9F006646530534002571DF0000000000xx"},
    AtrRewriteRule{"3B9F958131FE9F006646530534002571DF0000060000", Test::None, "",
                   "3B9F958131FE9F006646530534002571DF0000060000xx"},
    AtrRewriteRule{"3B9F958131FE9F006646530551003371DF0000000000", Test::None, "",
                   "3B9F958131FE9F006646530551003371DF0000000000xx"},
    // Cuts the ATR to the family prefix.
    AtrRewriteRule{"3B6D000057443641018693", Test::None, "", "3B6D000057443641018693"},
};

} // namespace

bool AtrRewriteRule::appliesTo(std::string_view atr) const
{
    if (!atr.starts_with(prefix))
        return false;
    switch (secondTest) {
    case Test::Contains:
        return atr.find(testText) != std::string_view::npos;
    case Test::EndsWith:
        return atr.ends_with(testText);
    case Test::None:
        break;
    }
    return true;
}

std::span<const AtrRewriteRule> atrRewriteRules()
{
    return kRules;
}

bool rewriteKnownAtrVariant(StringBuffer& atr)
{
    for (const AtrRewriteRule& rule : kRules) {
        if (rule.appliesTo(atr.view())) {
            atr.setString(rule.target);
            return true;
        }
    }
    return false;
}

} // namespace p11client
