#pragma once

#include "CkNames.h"
#include "Cryptoki.h"
#include "FunctionListEntries.h"

#include <utility>

namespace p11client {

class LogBase;

// The name of an entry point of the function list, as the log writes it.
template <auto Entry>
inline constexpr const char* kEntryName = nullptr;
#define P11CLIENT_ENTRY_NAME(name) template <> inline constexpr const char* kEntryName<&CK_FUNCTION_LIST::name> = #name;
P11CLIENT_EACH_FUNCTION(P11CLIENT_ENTRY_NAME)
#undef P11CLIENT_ENTRY_NAME

// The module's entry points, one thin wrapper each: it calls the entry of the
// list and hands its return value back, named in the log by reportCall
// ("C_Login returned CKR_PIN_INCORRECT"). An entry the list lacks, or a null
// list, answers CKR_FUNCTION_NOT_SUPPORTED without a log line: a caller that
// cannot do without the entry has said so before calling.
class ModuleCalls {
public:
    enum class Report {
        Error, // a failure is an error line
        Quiet, // a failure is an info line
        None,  // no line: the caller looks at the value first and reports it itself
    };

    ModuleCalls(CK_FUNCTION_LIST* functions, LogBase& log, Report report = Report::Error)
        : m_functions(functions), m_log(log), m_report(report)
    {
    }

    template <auto Entry>
    bool has() const
    {
        return m_functions != nullptr && m_functions->*Entry != nullptr;
    }

#define P11CLIENT_WRAPPER(name)                                                                                    \
    template <class... Args>                                                                                       \
    CK_RV name(Args&&... args) const                                                                               \
    {                                                                                                              \
        return call<&CK_FUNCTION_LIST::name>(std::forward<Args>(args)...);                                         \
    }
    P11CLIENT_EACH_FUNCTION(P11CLIENT_WRAPPER)
#undef P11CLIENT_WRAPPER

private:
    template <auto Entry, class... Args>
    CK_RV call(Args&&... args) const
    {
        if (!has<Entry>())
            return CKR_FUNCTION_NOT_SUPPORTED;
        const CK_RV rv = (m_functions->*Entry)(std::forward<Args>(args)...);
        if (m_report != Report::None)
            reportCall(kEntryName<Entry>, rv, m_log, m_report == Report::Quiet);
        return rv;
    }

    CK_FUNCTION_LIST* m_functions;
    LogBase& m_log;
    Report m_report;
};

} // namespace p11client
