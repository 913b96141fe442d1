#pragma once

#include "SlotRecord.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

struct p11_kit_uri;

namespace p11client {
class ClsJsonObject;
}

namespace p11cli {

// A PKCS#11 URI (RFC 7512), parsed and matched by p11-kit: the token part
// chooses the slot, the object part (object=, id=, type=) the object.
class Pkcs11Uri {
public:
    // A UsageError names what is wrong with a text that is no PKCS#11 URI.
    static Pkcs11Uri parse(const std::string& text);

    // Whether the URI names a token or slot at all (else it matches any).
    bool namesToken() const;
    // Whether the slot and its token match every slot and token attribute;
    // the URI's values are compared with the report's texts, which come
    // without the blank padding of the module's fields.
    bool matches(const SlotRecord& slot) const;

    bool namesObject() const { return label().has_value() || id().has_value() || objectClass().has_value(); }
    std::optional<std::string> label() const;
    std::optional<std::vector<std::uint8_t>> id() const;
    // The CKO_ class named by type=.
    std::optional<unsigned long> objectClass() const;
    // Whether an object with this label and CKA_ID is one the URI names
    // (its class aside).
    bool namesObjectWith(const std::string& label, std::span<const std::uint8_t> id) const;
    // The object part as a FindObject search template (class, label, id).
    void putSearchTemplate(p11client::ClsJsonObject& search) const;
    // module-path=, empty when absent.
    std::string modulePath() const;
    const std::string& text() const { return m_text; }

private:
    struct Free {
        void operator()(p11_kit_uri* uri) const;
    };
    Pkcs11Uri(std::string text, p11_kit_uri* uri);

    std::string m_text;
    std::unique_ptr<p11_kit_uri, Free> m_uri;
};

} // namespace p11cli
