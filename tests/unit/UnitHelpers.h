#pragma once
// Helpers shared by the unit tests.

#include "ClsJsonObject.h"
#include "DataBuffer.h"
#include "LogAssertions.h"
#include "LogBase.h"
#include "StringBuffer.h"
#include "XString.h"

#include <gtest/gtest.h>

#include <memory>
#include <span>
#include <string>
#include <vector>

namespace unit {

using namespace p11client;
using Strings = std::vector<std::string>;

inline Strings errorsOf(const _qxLogger& log) { return p11test::linesOfKind(log.entries(), LogEntry::Kind::Error); }

inline std::string hexOf(const DataBuffer& db)
{
    StringBuffer sb;
    db.appendHex(sb, true);
    return sb.toStdString();
}

inline std::string hexOf(std::span<const std::uint8_t> bytes) { return hexOf(DataBuffer(bytes.data(), bytes.size())); }

inline DataBuffer fromHex(const char* hex)
{
    DataBuffer db;
    EXPECT_TRUE(db.appendEncodedById(hex, DataBuffer::kHex)) << hex;
    return db;
}

inline std::string textOf(const DataBuffer& db) { return {db.getData(), db.getData() + db.getSize()}; }

inline std::unique_ptr<ClsJsonObject> jsonOf(const std::string& text)
{
    std::unique_ptr<ClsJsonObject> json(ClsJsonObject::createNewCls());
    EXPECT_TRUE(json->Load(XString(text.c_str()))) << text;
    return json;
}

} // namespace unit
