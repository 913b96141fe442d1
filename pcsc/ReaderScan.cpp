// The readers and their cards, asked of the PC/SC service.
#include "ReaderScan.h"

#include "LogBase.h"

#include <winscard.h>

#include <algorithm>
#include <string_view>

namespace p11client {

namespace {

// A state query returns at once; the bound only guards against a service
// that stopped answering.
constexpr DWORD kStatusTimeoutMs = 2000;
// Far more than the names of every reader a machine could have.
constexpr DWORD kMaxReaderListSize = 64 * 1024;
constexpr int kListAttempts = 3;

bool serviceFailed(const char* call, LONG rv, LogBase& log)
{
    if (rv == SCARD_E_NO_SERVICE || rv == SCARD_E_SERVICE_STOPPED) {
        log.LogError("The PC/SC service is not running (SCARD_E_NO_SERVICE).");
        return false;
    }
    if (rv == SCARD_E_TIMEOUT) {
        log.LogError("The PC/SC service did not answer in time (SCARD_E_TIMEOUT).");
        return false;
    }
    const std::string text = std::string(call) + " failed: " + pcsc_stringify_error(rv);
    log.LogDataHex("rv", static_cast<unsigned long>(rv));
    log.LogError(text.c_str());
    return false;
}

// The context with the service, released when it goes.
class PcscContext {
public:
    PcscContext() = default;
    ~PcscContext()
    {
        if (m_established)
            SCardReleaseContext(m_handle);
    }
    PcscContext(const PcscContext&) = delete;
    PcscContext& operator=(const PcscContext&) = delete;

    bool establish(LogBase& log)
    {
        const LONG rv = SCardEstablishContext(SCARD_SCOPE_SYSTEM, nullptr, nullptr, &m_handle);
        m_established = rv == SCARD_S_SUCCESS;
        return m_established || serviceFailed("SCardEstablishContext", rv, log);
    }
    SCARDCONTEXT handle() const { return m_handle; }

private:
    SCARDCONTEXT m_handle = 0;
    bool m_established = false;
};

void splitMultiString(const std::vector<char>& buffer, std::vector<std::string>& names)
{
    std::string_view rest(buffer.data(), buffer.size());
    while (!rest.empty() && rest.front() != '\0') {
        const std::size_t end = std::min(rest.find('\0'), rest.size());
        names.emplace_back(rest.substr(0, end));
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }
}

// A reader may come between asking for the list's size and reading it, so a
// list grown too long for the buffer is asked for again.
bool listReaderNames(SCARDCONTEXT context, std::vector<std::string>& names, LogBase& log)
{
    for (int attempt = 0; attempt < kListAttempts; ++attempt) {
        DWORD size = 0;
        LONG rv = SCardListReaders(context, nullptr, nullptr, &size);
        if (rv == SCARD_E_NO_READERS_AVAILABLE)
            return true;
        if (rv != SCARD_S_SUCCESS)
            return serviceFailed("SCardListReaders", rv, log);
        if (size == 0 || size > kMaxReaderListSize) {
            log.LogError("The PC/SC service gave a reader list of an impossible size.");
            return false;
        }
        std::vector<char> buffer(size, '\0');
        rv = SCardListReaders(context, nullptr, buffer.data(), &size);
        if (rv == SCARD_E_INSUFFICIENT_BUFFER)
            continue;
        if (rv == SCARD_E_NO_READERS_AVAILABLE)
            return true;
        if (rv != SCARD_S_SUCCESS)
            return serviceFailed("SCardListReaders", rv, log);
        buffer.resize(std::min<std::size_t>(size, buffer.size()));
        splitMultiString(buffer, names);
        return true;
    }
    log.LogError("The PC/SC service's reader list kept changing.");
    return false;
}

std::string upperHex(const unsigned char* bytes, std::size_t size)
{
    static constexpr char kDigits[] = "0123456789ABCDEF";
    std::string hex;
    for (std::size_t i = 0; i < size; ++i) {
        hex += kDigits[bytes[i] >> 4];
        hex += kDigits[bytes[i] & 0x0F];
    }
    return hex;
}

// The reader's state now; false with `gone` when the reader went away.
bool readState(SCARDCONTEXT context, ReaderState& reader, bool& gone, LogBase& log)
{
    SCARD_READERSTATE query {};
    query.szReader = reader.name.c_str();
    query.dwCurrentState = SCARD_STATE_UNAWARE;
    const LONG rv = SCardGetStatusChange(context, kStatusTimeoutMs, &query, 1);
    constexpr DWORD kGoneStates = SCARD_STATE_UNKNOWN | SCARD_STATE_IGNORE | SCARD_STATE_UNAVAILABLE;
    gone = rv == SCARD_E_UNKNOWN_READER || rv == SCARD_E_READER_UNAVAILABLE
           || (rv == SCARD_S_SUCCESS && (query.dwEventState & kGoneStates) != 0);
    if (gone) {
        log.LogDataSb("readerGone", StringBuffer(reader.name));
        return false;
    }
    if (rv != SCARD_S_SUCCESS)
        return serviceFailed("SCardGetStatusChange", rv, log);
    reader.cardPresent = (query.dwEventState & SCARD_STATE_PRESENT) != 0;
    reader.cardMute = (query.dwEventState & SCARD_STATE_MUTE) != 0;
    if (reader.cardPresent)
        reader.atr = upperHex(query.rgbAtr, std::min<std::size_t>(query.cbAtr, sizeof query.rgbAtr));
    return true;
}

} // namespace

bool scanReaders(std::vector<ReaderState>& readers, LogBase& log)
{
    readers.clear();
    PcscContext context;
    std::vector<std::string> names;
    if (!context.establish(log) || !listReaderNames(context.handle(), names, log))
        return false;
    for (const std::string& name : names) {
        ReaderState reader;
        reader.name = name;
        bool gone = false;
        if (readState(context.handle(), reader, gone, log))
            readers.push_back(reader);
        else if (!gone)
            return false;
    }
    log.LogDataLong("numReaders", static_cast<long>(readers.size()));
    return true;
}

} // namespace p11client
