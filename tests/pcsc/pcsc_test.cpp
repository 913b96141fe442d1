// The readers command and --module auto on real parts: pcscd with vpcd's two
// virtual readers, virtual_card.py as the PIV card in them, and OpenSC.
#include "ClsCardReaders.h"
#include "ClsJsonObject.h"
#include "ChildProcess.h"
#include "CliHarness.h"
#include "XString.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <thread>

namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using p11test::ChildProcess, p11test::Outcome, p11test::readFile;

constexpr const char* kServiceSocket = "/run/pcscd/pcscd.comm";
constexpr const char* kVpcdDriver = "/usr/lib/pcsc/drivers/serial/libifdvpcd.so";
constexpr const char* kOpenSc = "/usr/lib/x86_64-linux-gnu/opensc-pkcs11.so";
constexpr const char* kPivAtr = "3BDF960081B1FE451F838073CC91CBF9A0000003080000100079";
constexpr const char* kPivName = "USG:Executive Office of the President";
constexpr const char* kBelgianAtr = "3B9813400AA503010101AD1311"; // its driver is not installed here
constexpr const char* kReader0 = "Virtual PCD 00 00";
constexpr const char* kReader1 = "Virtual PCD 00 01";

bool serviceAnswers()
{
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address {};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "%s", kServiceSocket);
    const bool answers = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    close(fd);
    return answers;
}

// A TCP port free now, for vpcd's first reader (the second takes the next).
int freePort()
{
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    bind(fd, reinterpret_cast<sockaddr*>(&address), size);
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size);
    close(fd);
    return ntohs(address.sin_port);
}

// The machine's PC/SC service, started by this binary with a reader
// configuration of its own; every test is skipped when another one runs.
class Service : public ::testing::Environment {
public:
    static inline std::string skipReason;
    static inline fs::path dir;
    static inline int port = 0;
    static inline std::unique_ptr<ChildProcess> pcscd;

    static void start()
    {
        pcscd = std::make_unique<ChildProcess>("pcscd -f -c " + (dir / "reader.conf.d").string() + " >" + (dir / "pcscd.log").string() + " 2>&1");
    }
    void SetUp() override
    {
        if (serviceAnswers())
            Service::skipReason = std::string("another pcscd serves ") + kServiceSocket + ": the tier needs its own";
        else if (!fs::exists(kVpcdDriver) || !fs::exists(kOpenSc))
            Service::skipReason = "pcscd, vsmartcard-vpcd or opensc is not installed (scripts/install-deps.sh)";
        if (!Service::skipReason.empty())
            return;
        dir = fs::temp_directory_path() / ("pcsc_tests." + std::to_string(getpid()));
        fs::create_directories(dir / "reader.conf.d");
        // The card's key pair, and its certificate's public key for openssl.
        ASSERT_EQ(std::system(("cd " + dir.string() + " && openssl req -x509 -newkey rsa:2048 -noenc -keyout key.pem"
                               " -outform DER -out cert.der -subj '/CN=Virtual PIV' -days 2 2>/dev/null && openssl"
                               " x509 -inform DER -in cert.der -pubkey -noout -out pub.pem").c_str()),
                  0);
        std::ofstream(dir / "data") << "signed on the card\n";
        Service::port = freePort();
        std::ofstream(dir / "reader.conf.d" / "vpcd") << "FRIENDLYNAME \"Virtual PCD\"\nDEVICENAME /dev/null:0x"
                                                      << std::hex << Service::port << "\nLIBPATH " << kVpcdDriver
                                                      << "\nCHANNELID 0x" << Service::port << "\n";
        // OpenSC tries only its PIV driver: the others' probing costs seconds.
        std::ofstream(dir / "opensc.conf") << "app default {\n  card_drivers = PIV-II;\n}\n";
        setenv("OPENSC_CONF", (dir / "opensc.conf").c_str(), 1);
        Service::start();
    }
    void TearDown() override
    {
        Service::pcscd.reset();
        if (!Service::dir.empty())
            fs::remove_all(Service::dir);
    }
};

const auto* const kEnvironment = ::testing::AddGlobalTestEnvironment(new Service);

class PcscTier : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!Service::skipReason.empty())
            GTEST_SKIP() << Service::skipReason;
        // Both readers there, and empty: a card put in before the last one is
        // seen gone would keep its ATR.
        waitForAtrs("", "");
    }

    static json listReaders()
    {
        p11client::ClsCardReaders readers;
        p11client::ClsJsonObject report;
        p11client::XString text;
        if (!readers.ListReaders(report) || !report.Emit(text))
            return json::object();
        return json::parse(text.getUtf8());
    }
    // Waits until the readers hold cards with these ATRs ("" for none).
    static void waitForAtrs(const std::string& atr0, const std::string& atr1)
    {
        for (int i = 0; i < 100; ++i) {
            const json readers = listReaders().value("readers", json::array());
            if (readers.size() == 2 && readers[0].value("atr", "") == atr0 && readers[1].value("atr", "") == atr1)
                return;
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        FAIL() << "the readers never showed the cards " << atr0 << " / " << atr1 << "\n"
               << readFile(Service::dir / "pcscd.log");
    }
    static std::unique_ptr<ChildProcess> insertCard(int reader, const std::string& atr)
    {
        const std::string n = std::to_string(reader), dir = Service::dir.string() + "/";
        return std::make_unique<ChildProcess>("python3 " VIRTUAL_CARD_PATH " " + std::to_string(Service::port + reader) + " " + atr + " "
                                              + dir + "cert.der " + dir + "key.pem >" + dir + "card" + n + ".log 2>&1");
    }
    static Outcome run(const std::string& args) { return p11test::runTool(Service::dir, args); }
    // Signs the file data on the card, and checks the signature with openssl.
    static void expectSignatureVerifies()
    {
        const std::string sig = (Service::dir / "sig").string(), data = (Service::dir / "data").string();
        fs::remove(sig);
        const Outcome sign = run("--module auto --pin 123456 sign -o " + sig + " " + data);
        EXPECT_EQ(sign.exitCode, 0) << sign.err;
        const std::string verify = "openssl dgst -sha256 -verify " + (Service::dir / "pub.pem").string()
                                   + " -signature " + sig + " " + data + " >/dev/null";
        EXPECT_EQ(std::system(verify.c_str()), 0) << verify;
    }
};

TEST_F(PcscTier, ReadersShowTheCardItsNameAndItsInstalledDriver)
{
    const auto card = insertCard(0, kPivAtr);
    waitForAtrs(kPivAtr, "");
    const Outcome text = run("readers");
    EXPECT_EQ(text.exitCode, 0) << text.err;
    EXPECT_NE(text.out.find(std::string("Reader ") + kReader0 + "\n  ATR        " + kPivAtr + "\n  card       "
                            + kPivName + "\n  read-only  yes\n"),
              std::string::npos)
        << text.out;
    EXPECT_NE(text.out.find(std::string(kOpenSc) + "  (present)"), std::string::npos) << text.out;
    EXPECT_NE(text.out.find("/usr/local/lib/opensc-pkcs11.so  (not on this machine)"), std::string::npos);
    EXPECT_NE(text.out.find(std::string("Reader ") + kReader1 + "\n  card  none\n"), std::string::npos) << text.out;

    const Outcome report = run("readers --json");
    ASSERT_EQ(report.exitCode, 0) << report.err;
    const json readers = json::parse(report.out)["readers"];
    ASSERT_EQ(readers.size(), 2U);
    EXPECT_EQ(readers[0]["card"]["name"], kPivName);
    EXPECT_EQ(readers[0]["card"]["driverPaths"].size(), 3U);
    EXPECT_EQ(readers[0]["card"]["installed"], json::array({kOpenSc}));
    EXPECT_EQ(readers[1], json({{"name", kReader1}, {"cardPresent", false}}));
}

TEST_F(PcscTier, ModuleAutoLoadsTheDriverOfTheCard)
{
    const auto card = insertCard(1, kPivAtr);
    const auto other = insertCard(0, kBelgianAtr);
    waitForAtrs(kBelgianAtr, kPivAtr);
    for (const char* args : {"--module auto --reader 'Virtual PCD 00 01' discover",
                             "--reader 'Virtual PCD 00 01' discover"}) {
        const Outcome discover = run(args);
        EXPECT_EQ(discover.exitCode, 0) << args << discover.err;
        EXPECT_NE(discover.out.find(std::string("Module   ") + kOpenSc + "\nLibrary  OpenSC Project"),
                  std::string::npos)
            << discover.out;
    }
}

// A card pulled out is missed, and serves again when put back.
TEST_F(PcscTier, OpenScShowsThePivCardsCertificateWithItsKeySignsAndServesAgainOnceReinserted)
{
    auto card = insertCard(0, kPivAtr);
    waitForAtrs(kPivAtr, "");
    for (const char* command : {"certs", "find-cert privateKey"}) {
        const Outcome found = run(std::string("--module auto --pin 123456 ") + command);
        EXPECT_EQ(found.exitCode, 0) << command << found.err;
        EXPECT_NE(found.out.find("subject      CN=Virtual PIV\n"), std::string::npos) << found.out;
        EXPECT_NE(found.out.find("private key  found on the token"), std::string::npos) << found.out;
    }
    expectSignatureVerifies();
    const Outcome wrongPin = run("--module auto --pin 654321 sign " + (Service::dir / "data").string());
    EXPECT_EQ(wrongPin.exitCode, 1);
    EXPECT_NE(wrongPin.err.find("p11client: login as the user failed: the PIN is incorrect\n"), std::string::npos)
        << wrongPin.err;
    EXPECT_EQ(wrongPin.out, "");
    card->stop();
    waitForAtrs("", "");
    const Outcome missed = run(std::string("--module ") + kOpenSc + " certs");
    EXPECT_EQ(missed.exitCode, 1);
    EXPECT_EQ(missed.err, "p11client: no initialized token in any slot\n");
    card = insertCard(0, kPivAtr);
    waitForAtrs(kPivAtr, "");
    expectSignatureVerifies();
}

struct Refusal {
    const char* atr0; // the cards in the readers ("" for none)
    const char* atr1;
    const char* args;
    const char* says;
};

class ModuleAutoRefuses : public PcscTier, public ::testing::WithParamInterface<Refusal> { };

TEST_P(ModuleAutoRefuses, WithOneLineSayingWhy)
{
    const Refusal& row = GetParam();
    std::unique_ptr<ChildProcess> cards[2];
    for (int i = 0; i < 2; ++i)
        if (*(i == 0 ? row.atr0 : row.atr1) != '\0')
            cards[i] = insertCard(i, i == 0 ? row.atr0 : row.atr1);
    waitForAtrs(row.atr0, row.atr1);
    const Outcome outcome = run(std::string("--module auto ") + row.args + " discover");
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_EQ(outcome.err, std::string("p11client: ") + row.says + "\n");
    EXPECT_EQ(outcome.out, "");
}

INSTANTIATE_TEST_SUITE_P(
    Cards, ModuleAutoRefuses,
    ::testing::Values(
        Refusal {"", "", "", "no card in any reader"},
        Refusal {"3B00", "", "", "the card's ATR 3B00 is not in the card database"},
        Refusal {kBelgianAtr, "", "",
                 "no driver for the card National Identity Document: Belgian eID is installed (tried "
                 "/usr/lib/libbeidpkcs11.so)"},
        Refusal {kPivAtr, kPivAtr, "", "several readers hold a card (Virtual PCD 00 00, Virtual PCD 00 01): name one"},
        Refusal {kPivAtr, "", "--reader 'Virtual PCD 00 01'", "no card in the reader Virtual PCD 00 01"},
        Refusal {kPivAtr, "", "--reader 'Virtual PCD 00 07'", "no reader named \"Virtual PCD 00 07\" is connected"}));

TEST_F(PcscTier, WithoutTheServiceBothCommandsSaySo)
{
    Service::pcscd.reset();
    for (const char* args : {"readers", "--module auto discover"}) {
        const Outcome outcome = run(args);
        EXPECT_EQ(outcome.exitCode, 1) << args;
        EXPECT_EQ(outcome.err, "p11client: the PC/SC service is not running (SCARD_E_NO_SERVICE)\n") << args;
    }
    Service::start();
}

} // namespace
