#pragma once

#include "AttributeReader.h"

#include <string>

namespace p11client {

class ClsJsonObject;

// Writes an attribute's value at the path in the form its kind calls for
// (boolean, number, class or key-type name, UTF-8 text, lower-case hex).
// Absent attributes are not written.
void putAttributeJson(ClsJsonObject& json, const std::string& path, const AttributeValue& attr);

// The bits of an EC key from its CKA_EC_PARAMS, and the curve's name
// ("prime256v1"); 0 and empty when the parameters name no known curve.
int ecKeyBits(const DataBuffer& ecParams, std::string& curveName);

// The bit length of a big-endian magnitude (an RSA modulus).
int magnitudeBits(const DataBuffer& bytes);

} // namespace p11client
