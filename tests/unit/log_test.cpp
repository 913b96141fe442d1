#include "ClsBase.h"
#include "LogBase.h"
#include "XString.h"

#include <gtest/gtest.h>

using namespace p11client;

namespace {

struct Widget : ClsBase {
    bool Work(bool ok)
    {
        CritSecExitor lock(this);
        LogContextExitor ctx(*this, "Work");
        {
            LogContextExitor inner(m_log, "inner");
            m_log.LogData("path", "/x.so");
            m_log.LogVerbose("detail");
        }
        if (!ok)
            m_log.LogError("It broke.");
        logSuccessFailure(ok);
        return ok;
    }

    // A public method that calls another keeps one record.
    bool Outer()
    {
        LogContextExitor ctx(*this, "Outer");
        return Work(true);
    }
};

} // namespace

TEST(Log, RendersContextsAsIndentedText)
{
    Widget w;
    w.Work(false);
    XString text;
    w.get_LogText(text);
    EXPECT_STREQ(text.getUtf8(), "Work:\n"
                                 "  inner:\n"
                                 "    path: /x.so\n"
                                 "  --inner\n"
                                 "  Error: It broke.\n"
                                 "  Error: Failed.\n"
                                 "--Work\n");
}

TEST(Log, EachOutermostCallStartsAFreshRecordAndVerboseAddsDetail)
{
    Widget w;
    w.Work(false);
    w.put_VerboseLogging(true);
    w.Outer();
    const auto entries = w.get_LogEntries();
    ASSERT_FALSE(entries.empty());
    EXPECT_EQ(entries.front().tag, "Outer");
    int works = 0;
    bool detail = false;
    for (const LogEntry& e : entries) {
        works += e.kind == LogEntry::Kind::ContextEnter && e.tag == "Work";
        detail = detail || e.text == "detail";
        EXPECT_NE(e.text, "It broke.");
    }
    EXPECT_EQ(works, 1);
    EXPECT_TRUE(detail);
}

TEST(Log, GuardTurnsAnExceptionIntoFalseAndAnError)
{
    _qxLogger log;
    const bool ok = runGuarded(log, []() -> bool { throw std::bad_alloc(); });
    EXPECT_FALSE(ok);
    ASSERT_EQ(log.entries().size(), 1u);
    EXPECT_EQ(log.entries()[0].kind, LogEntry::Kind::Error);
}
