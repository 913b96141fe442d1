// Proves the mock behaves like a PKCS#11 token when reached the way the library
// reaches it: dlopen of modulePath(), then C_GetFunctionList.
#include "MockControl.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

namespace {

constexpr CK_SLOT_ID kSlot = 1;
constexpr CK_FLAGS kRw = CKF_SERIAL_SESSION | CKF_RW_SESSION;

CK_UTF8CHAR_PTR pin(const char* text) {
    return reinterpret_cast<CK_UTF8CHAR_PTR>(const_cast<char*>(text));
}

std::string field(const unsigned char* bytes, size_t width) {
    return std::string(reinterpret_cast<const char*>(bytes), width);
}

class MockModule : public ::testing::Test {
protected:
    void SetUp() override {
        mock::reset();
        handle = dlopen(mock::modulePath().c_str(), RTLD_NOW);
        ASSERT_NE(handle, nullptr) << dlerror();
        auto getList = reinterpret_cast<CK_C_GetFunctionList>(dlsym(handle, "C_GetFunctionList"));
        ASSERT_NE(getList, nullptr);
        ASSERT_EQ(getList(&p11), CKR_OK);
        ASSERT_NE(p11, nullptr);
    }
    void TearDown() override {
        if (handle) dlclose(handle);
    }

    void initializeWithToken(mock::TokenSpec token = {}) {
        mock::addSlot(kSlot, {.token = token});
        ASSERT_EQ(p11->C_Initialize(nullptr), CKR_OK);
    }
    CK_SESSION_HANDLE open(CK_FLAGS flags = CKF_SERIAL_SESSION) {
        CK_SESSION_HANDLE h = 0;
        EXPECT_EQ(p11->C_OpenSession(kSlot, flags, nullptr, nullptr, &h), CKR_OK);
        return h;
    }
    std::vector<CK_OBJECT_HANDLE> find(CK_SESSION_HANDLE h, std::vector<CK_ATTRIBUTE> tmpl) {
        EXPECT_EQ(p11->C_FindObjectsInit(h, tmpl.data(), tmpl.size()), CKR_OK);
        std::vector<CK_OBJECT_HANDLE> found(16);
        CK_ULONG n = 0;
        EXPECT_EQ(p11->C_FindObjects(h, found.data(), found.size(), &n), CKR_OK);
        EXPECT_EQ(p11->C_FindObjectsFinal(h), CKR_OK);
        found.resize(n);
        return found;
    }

    void* handle = nullptr;
    CK_FUNCTION_LIST_PTR p11 = nullptr;
};

TEST_F(MockModule, FunctionListIsCompleteAndUnimplementedCallsSayNotSupported) {
    auto* slots = reinterpret_cast<void**>(&p11->C_Initialize);
    size_t count = (sizeof(CK_FUNCTION_LIST) - offsetof(CK_FUNCTION_LIST, C_Initialize)) / sizeof(void*);
    for (size_t i = 0; i < count; ++i) EXPECT_NE(slots[i], nullptr) << "entry " << i;
    EXPECT_EQ(p11->C_EncryptInit(1, nullptr, 0), CKR_CRYPTOKI_NOT_INITIALIZED);
    ASSERT_EQ(p11->C_Initialize(nullptr), CKR_OK);
    EXPECT_EQ(p11->C_EncryptInit(1, nullptr, 0), CKR_FUNCTION_NOT_SUPPORTED);
    EXPECT_EQ(mock::callCount("C_EncryptInit"), 2);
}

TEST_F(MockModule, BrokenVariantsLoadButOfferNoList) {
    void* none = dlopen(mock::noFunctionListModulePath().c_str(), RTLD_NOW);
    ASSERT_NE(none, nullptr) << dlerror();
    EXPECT_EQ(dlsym(none, "C_GetFunctionList"), nullptr);
    dlclose(none);

    void* null = dlopen(mock::nullFunctionListModulePath().c_str(), RTLD_NOW);
    ASSERT_NE(null, nullptr) << dlerror();
    auto getList = reinterpret_cast<CK_C_GetFunctionList>(dlsym(null, "C_GetFunctionList"));
    ASSERT_NE(getList, nullptr);
    CK_FUNCTION_LIST_PTR list = p11;
    EXPECT_EQ(getList(&list), CKR_OK);
    EXPECT_EQ(list, nullptr);
    dlclose(null);
}

TEST_F(MockModule, InitializeAndFinalizeFollowTheLifecycle) {
    CK_INFO info;
    EXPECT_EQ(p11->C_GetInfo(&info), CKR_CRYPTOKI_NOT_INITIALIZED);
    EXPECT_EQ(p11->C_Finalize(nullptr), CKR_CRYPTOKI_NOT_INITIALIZED);

    CK_C_INITIALIZE_ARGS args{};
    args.flags = CKF_OS_LOCKING_OK;
    args.pReserved = &args;
    EXPECT_EQ(p11->C_Initialize(&args), CKR_ARGUMENTS_BAD);
    args.pReserved = nullptr;
    initializeWithToken();
    EXPECT_EQ(p11->C_Initialize(&args), CKR_CRYPTOKI_ALREADY_INITIALIZED);
    EXPECT_TRUE(mock::lastInitializeHadArgs());
    EXPECT_EQ(mock::lastInitializeFlags(), CKF_OS_LOCKING_OK);
    EXPECT_EQ(mock::initializeCount(), 1);

    ASSERT_EQ(p11->C_GetInfo(&info), CKR_OK);
    EXPECT_EQ(info.cryptokiVersion.major, 2);
    EXPECT_EQ(info.cryptokiVersion.minor, 40);
    EXPECT_EQ(field(info.manufacturerID, 32), "Mock Module Project             ");

    CK_SESSION_HANDLE h = open();
    ASSERT_EQ(p11->C_Login(h, CKU_USER, pin("1234"), 4), CKR_OK);
    EXPECT_EQ(p11->C_Finalize(nullptr), CKR_OK);
    EXPECT_FALSE(mock::initialized());
    EXPECT_EQ(mock::openSessionCount(), 0u);
    EXPECT_FALSE(mock::loggedIn(kSlot, CKU_USER));
}

TEST_F(MockModule, SlotListUsesTheTwoCallPattern) {
    mock::addSlot(7, {.token = std::nullopt});
    mock::addSlot(3, {});
    ASSERT_EQ(p11->C_Initialize(nullptr), CKR_OK);
    CK_ULONG count = 0;
    ASSERT_EQ(p11->C_GetSlotList(CK_FALSE, nullptr, &count), CKR_OK);
    EXPECT_EQ(count, 2u);
    CK_SLOT_ID ids[2] = {};
    CK_ULONG room = 1;
    EXPECT_EQ(p11->C_GetSlotList(CK_FALSE, ids, &room), CKR_BUFFER_TOO_SMALL);
    EXPECT_EQ(room, 2u);
    ASSERT_EQ(p11->C_GetSlotList(CK_FALSE, ids, &room), CKR_OK);
    EXPECT_EQ(ids[0], 7u);
    EXPECT_EQ(ids[1], 3u);
    ASSERT_EQ(p11->C_GetSlotList(CK_TRUE, ids, &room), CKR_OK);
    ASSERT_EQ(room, 1u);
    EXPECT_EQ(ids[0], 3u);
    EXPECT_EQ(p11->C_GetSlotList(CK_FALSE, ids, nullptr), CKR_ARGUMENTS_BAD);
}

TEST_F(MockModule, SlotAndTokenInfoArePaddedAndReflectPresence) {
    mock::addSlot(2, {.token = std::nullopt});
    initializeWithToken({.label = "caf\xe9", .serialNumber = std::string(16, '\0')});
    CK_SLOT_INFO slot;
    ASSERT_EQ(p11->C_GetSlotInfo(2, &slot), CKR_OK);
    EXPECT_EQ(slot.flags & CKF_TOKEN_PRESENT, 0u);
    ASSERT_EQ(p11->C_GetSlotInfo(kSlot, &slot), CKR_OK);
    EXPECT_NE(slot.flags & CKF_TOKEN_PRESENT, 0u);
    EXPECT_EQ(field(slot.slotDescription, 64), "Mock Slot" + std::string(55, ' '));

    CK_TOKEN_INFO token;
    EXPECT_EQ(p11->C_GetTokenInfo(2, &token), CKR_TOKEN_NOT_PRESENT);
    EXPECT_EQ(p11->C_GetTokenInfo(99, &token), CKR_SLOT_ID_INVALID);
    ASSERT_EQ(p11->C_GetTokenInfo(kSlot, &token), CKR_OK);
    EXPECT_EQ(field(token.label, 32), "caf\xe9" + std::string(28, ' '));
    EXPECT_EQ(field(token.serialNumber, 16), std::string(16, '\0'));
    EXPECT_EQ(field(token.utcTime, 16), std::string(16, ' '));
}

TEST_F(MockModule, OpenSessionChecksFlagsSlotAndToken) {
    mock::addSlot(2, {.token = std::nullopt});
    mock::addSlot(3, {.openSessionResult = CKR_DEVICE_ERROR});
    initializeWithToken({.maxRwSessionCount = 1});
    CK_SESSION_HANDLE h = 0;
    EXPECT_EQ(p11->C_OpenSession(kSlot, 0, nullptr, nullptr, &h), CKR_SESSION_PARALLEL_NOT_SUPPORTED);
    EXPECT_EQ(p11->C_OpenSession(2, CKF_SERIAL_SESSION, nullptr, nullptr, &h), CKR_TOKEN_NOT_PRESENT);
    EXPECT_EQ(p11->C_OpenSession(3, CKF_SERIAL_SESSION, nullptr, nullptr, &h), CKR_DEVICE_ERROR);
    EXPECT_EQ(p11->C_OpenSession(9, CKF_SERIAL_SESSION, nullptr, nullptr, &h), CKR_SLOT_ID_INVALID);
    EXPECT_EQ(p11->C_OpenSession(kSlot, CKF_SERIAL_SESSION, nullptr, nullptr, nullptr), CKR_ARGUMENTS_BAD);

    CK_SESSION_HANDLE ro = open(), rw = open(kRw);
    EXPECT_NE(ro, 0u);
    EXPECT_NE(ro, rw);
    EXPECT_EQ(p11->C_OpenSession(kSlot, kRw, nullptr, nullptr, &h), CKR_SESSION_COUNT);
    CK_SESSION_INFO info;
    ASSERT_EQ(p11->C_GetSessionInfo(rw, &info), CKR_OK);
    EXPECT_EQ(info.state, CKS_RW_PUBLIC_SESSION);
    EXPECT_EQ(info.flags, kRw);
    EXPECT_EQ(p11->C_CloseSession(ro), CKR_OK);
    EXPECT_EQ(p11->C_CloseSession(ro), CKR_SESSION_HANDLE_INVALID);
    EXPECT_EQ(p11->C_CloseAllSessions(kSlot), CKR_OK);
    EXPECT_EQ(mock::openSessionCount(), 0u);
}

TEST_F(MockModule, LoginIsPerTokenAndEndsWithTheLastSession) {
    initializeWithToken();
    CK_SESSION_HANDLE a = open(), b = open();
    EXPECT_EQ(p11->C_Login(a, CKU_USER, pin("0000"), 4), CKR_PIN_INCORRECT);
    EXPECT_EQ(p11->C_Login(a, CKU_USER, nullptr, 0), CKR_ARGUMENTS_BAD);
    EXPECT_EQ(p11->C_Login(a, 7, pin("1234"), 4), CKR_USER_TYPE_INVALID);
    EXPECT_EQ(p11->C_Login(a, CKU_CONTEXT_SPECIFIC, pin("1234"), 4), CKR_OPERATION_NOT_INITIALIZED);
    EXPECT_EQ(p11->C_Logout(a), CKR_USER_NOT_LOGGED_IN);
    ASSERT_EQ(p11->C_Login(a, CKU_USER, pin("1234"), 4), CKR_OK);
    EXPECT_EQ(p11->C_Login(b, CKU_USER, pin("1234"), 4), CKR_USER_ALREADY_LOGGED_IN);
    EXPECT_EQ(p11->C_Login(b, CKU_SO, pin("12345678"), 8), CKR_USER_ANOTHER_ALREADY_LOGGED_IN);
    CK_SESSION_INFO info;
    ASSERT_EQ(p11->C_GetSessionInfo(b, &info), CKR_OK);
    EXPECT_EQ(info.state, CKS_RO_USER_FUNCTIONS);

    EXPECT_EQ(p11->C_CloseSession(a), CKR_OK);
    EXPECT_TRUE(mock::loggedIn(kSlot, CKU_USER));
    EXPECT_EQ(p11->C_CloseSession(b), CKR_OK);
    EXPECT_FALSE(mock::loggedIn(kSlot, CKU_USER));
}

TEST_F(MockModule, SoLoginNeedsNoReadOnlySessionsAndAnInitializedUserPinForUser) {
    initializeWithToken({.flags = CKF_TOKEN_INITIALIZED | CKF_LOGIN_REQUIRED});
    CK_SESSION_HANDLE ro = open();
    EXPECT_EQ(p11->C_Login(ro, CKU_USER, pin("1234"), 4), CKR_USER_PIN_NOT_INITIALIZED);
    CK_SESSION_HANDLE rw = open(kRw);
    EXPECT_EQ(p11->C_Login(rw, CKU_SO, pin("12345678"), 8), CKR_SESSION_READ_ONLY_EXISTS);
    ASSERT_EQ(p11->C_CloseSession(ro), CKR_OK);
    ASSERT_EQ(p11->C_Login(rw, CKU_SO, pin("12345678"), 8), CKR_OK);
    CK_SESSION_HANDLE h = 0;
    EXPECT_EQ(p11->C_OpenSession(kSlot, CKF_SERIAL_SESSION, nullptr, nullptr, &h), CKR_SESSION_READ_WRITE_SO_EXISTS);
    EXPECT_EQ(p11->C_InitPIN(rw, pin("12"), 2), CKR_PIN_LEN_RANGE);
    ASSERT_EQ(p11->C_InitPIN(rw, pin("56789"), 5), CKR_OK);
    EXPECT_EQ(mock::userPin(kSlot), "56789");
    EXPECT_NE(mock::tokenFlags(kSlot) & CKF_USER_PIN_INITIALIZED, 0u);
}

TEST_F(MockModule, SetPinAndInitPinCheckSessionAndPins) {
    initializeWithToken();
    CK_SESSION_HANDLE ro = open(), rw = open(kRw);
    EXPECT_EQ(p11->C_SetPIN(ro, pin("1234"), 4, pin("4321"), 4), CKR_SESSION_READ_ONLY);
    EXPECT_EQ(p11->C_SetPIN(rw, pin("9999"), 4, pin("4321"), 4), CKR_PIN_INCORRECT);
    EXPECT_EQ(p11->C_SetPIN(rw, pin("1234"), 4, pin("43"), 2), CKR_PIN_LEN_RANGE);
    ASSERT_EQ(p11->C_SetPIN(rw, pin("1234"), 4, pin("4321"), 4), CKR_OK);
    EXPECT_EQ(mock::userPin(kSlot), "4321");
    EXPECT_EQ(p11->C_InitPIN(rw, pin("1111"), 4), CKR_USER_NOT_LOGGED_IN);
}

TEST_F(MockModule, InitTokenNeedsNoSessionsAndResetsTheToken) {
    initializeWithToken();
    mock::addObject(kSlot, {mock::ulongAttr(CKA_CLASS, CKO_DATA)});
    CK_UTF8CHAR label[32];
    std::memset(label, ' ', sizeof label);
    std::memcpy(label, "Fresh", 5);
    CK_SESSION_HANDLE h = open();
    EXPECT_EQ(p11->C_InitToken(kSlot, pin("12345678"), 8, label), CKR_SESSION_EXISTS);
    ASSERT_EQ(p11->C_CloseSession(h), CKR_OK);
    EXPECT_EQ(p11->C_InitToken(kSlot, pin("00000000"), 8, label), CKR_PIN_INCORRECT);
    ASSERT_EQ(p11->C_InitToken(kSlot, pin("12345678"), 8, label), CKR_OK);
    EXPECT_EQ(mock::tokenLabel(kSlot), "Fresh");
    EXPECT_EQ(mock::tokenFlags(kSlot) & CKF_USER_PIN_INITIALIZED, 0u);
    EXPECT_TRUE(find(open(), {}).empty());
}

TEST_F(MockModule, FindMatchesExactBytesAndHidesPrivateObjectsUntilLogin) {
    initializeWithToken();
    CK_OBJECT_HANDLE cert = mock::addObject(kSlot, {mock::ulongAttr(CKA_CLASS, CKO_CERTIFICATE),
                                                    mock::bytesAttr(CKA_ID, {1, 2})});
    CK_OBJECT_HANDLE key = mock::addObject(kSlot, {mock::ulongAttr(CKA_CLASS, CKO_PRIVATE_KEY),
                                                   mock::boolAttr(CKA_PRIVATE, true),
                                                   mock::bytesAttr(CKA_ID, {1, 2})});
    CK_SESSION_HANDLE h = open();
    unsigned char id[] = {1, 2};
    std::vector<CK_ATTRIBUTE> byId = {{CKA_ID, id, sizeof id}};
    EXPECT_EQ(find(h, byId), std::vector<CK_OBJECT_HANDLE>{cert});
    ASSERT_EQ(p11->C_Login(h, CKU_USER, pin("1234"), 4), CKR_OK);
    EXPECT_EQ(find(h, byId), (std::vector<CK_OBJECT_HANDLE>{cert, key}));
    std::vector<CK_ATTRIBUTE> shortId = {{CKA_ID, id, 1}};
    EXPECT_TRUE(find(h, shortId).empty());
}

TEST_F(MockModule, FindHonoursBatchSizeAndOneOperationPerSession) {
    initializeWithToken();
    for (int i = 0; i < 3; ++i) mock::addObject(kSlot, {mock::ulongAttr(CKA_CLASS, CKO_DATA)});
    CK_SESSION_HANDLE h = open();
    CK_OBJECT_HANDLE found[2];
    CK_ULONG n = 0;
    EXPECT_EQ(p11->C_FindObjects(h, found, 2, &n), CKR_OPERATION_NOT_INITIALIZED);
    ASSERT_EQ(p11->C_FindObjectsInit(h, nullptr, 0), CKR_OK);
    EXPECT_EQ(p11->C_FindObjectsInit(h, nullptr, 0), CKR_OPERATION_ACTIVE);
    EXPECT_EQ(mock::activeFindOperations(), 1u);
    ASSERT_EQ(p11->C_FindObjects(h, found, 2, &n), CKR_OK);
    EXPECT_EQ(n, 2u);
    ASSERT_EQ(p11->C_FindObjects(h, found, 2, &n), CKR_OK);
    EXPECT_EQ(n, 1u);
    ASSERT_EQ(p11->C_FindObjectsFinal(h), CKR_OK);
    EXPECT_EQ(p11->C_FindObjectsFinal(h), CKR_OPERATION_NOT_INITIALIZED);
    EXPECT_EQ(mock::activeFindOperations(), 0u);
}

TEST_F(MockModule, GetAttributeValueProcessesEveryAttributeAndReturnsTheWorstError) {
    initializeWithToken();
    CK_OBJECT_HANDLE obj = mock::addObject(
        kSlot, {mock::stringAttr(CKA_LABEL, "abc"), mock::bytesAttr(CKA_VALUE, {9, 9}), mock::bytesAttr(CKA_ID, {5})},
        {CKA_VALUE});
    CK_SESSION_HANDLE h = open();
    unsigned char small[2], id[1];
    auto freshTemplate = [&] {
        return std::vector<CK_ATTRIBUTE>{{CKA_LABEL, nullptr, 0}, {CKA_LABEL, small, sizeof small},
                                         {CKA_ID, id, sizeof id}, {CKA_SUBJECT, nullptr, 0}, {CKA_VALUE, nullptr, 0}};
    };
    std::vector<CK_ATTRIBUTE> tmpl = freshTemplate();
    EXPECT_EQ(p11->C_GetAttributeValue(h, obj, tmpl.data(), 5), CKR_ATTRIBUTE_SENSITIVE);
    EXPECT_EQ(tmpl[0].ulValueLen, 3u);
    EXPECT_EQ(tmpl[1].ulValueLen, CK_UNAVAILABLE_INFORMATION);
    EXPECT_EQ(tmpl[2].ulValueLen, 1u);
    EXPECT_EQ(id[0], 5);
    EXPECT_EQ(tmpl[3].ulValueLen, CK_UNAVAILABLE_INFORMATION);
    EXPECT_EQ(tmpl[4].ulValueLen, CK_UNAVAILABLE_INFORMATION);
    tmpl = freshTemplate();
    EXPECT_EQ(p11->C_GetAttributeValue(h, obj, tmpl.data(), 4), CKR_ATTRIBUTE_TYPE_INVALID);
    tmpl = freshTemplate();
    EXPECT_EQ(p11->C_GetAttributeValue(h, obj, &tmpl[1], 1), CKR_BUFFER_TOO_SMALL);
    EXPECT_EQ(p11->C_GetAttributeValue(h, obj + 100, tmpl.data(), 1), CKR_OBJECT_HANDLE_INVALID);
}

TEST_F(MockModule, FaultsFireTheRequestedNumberOfTimes) {
    initializeWithToken();
    mock::failCall("C_OpenSession", CKR_DEVICE_MEMORY, 2);
    mock::failCall("C_OpenSession", CKR_GENERAL_ERROR);
    CK_SESSION_HANDLE h = 0;
    EXPECT_EQ(p11->C_OpenSession(kSlot, CKF_SERIAL_SESSION, nullptr, nullptr, &h), CKR_DEVICE_MEMORY);
    EXPECT_EQ(p11->C_OpenSession(kSlot, CKF_SERIAL_SESSION, nullptr, nullptr, &h), CKR_DEVICE_MEMORY);
    EXPECT_EQ(p11->C_OpenSession(kSlot, CKF_SERIAL_SESSION, nullptr, nullptr, &h), CKR_GENERAL_ERROR);
    EXPECT_EQ(mock::openSessionCount(), 0u);
    EXPECT_EQ(p11->C_OpenSession(kSlot, CKF_SERIAL_SESSION, nullptr, nullptr, &h), CKR_OK);

    mock::failCall("C_Finalize", CKR_FUNCTION_FAILED, -1);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(p11->C_Finalize(nullptr), CKR_FUNCTION_FAILED);
    EXPECT_TRUE(mock::initialized());
}

TEST_F(MockModule, CallRecordKeepsArgumentsAndResultsInOrder) {
    initializeWithToken();
    mock::clearCalls();
    CK_SESSION_HANDLE h = open(kRw);
    EXPECT_EQ(p11->C_Login(h, CKU_USER, pin("9"), 1), CKR_PIN_INCORRECT);
    std::vector<mock::Call> calls = mock::calls();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].function, "C_OpenSession");
    EXPECT_EQ(calls[0].session, h);
    EXPECT_EQ(calls[0].flags, kRw);
    EXPECT_EQ(calls[1].function, "C_Login");
    EXPECT_EQ(calls[1].slot, kSlot);
    EXPECT_EQ(calls[1].userType, CKU_USER);
    EXPECT_EQ(calls[1].result, CKR_PIN_INCORRECT);
}

TEST_F(MockModule, AfterCallRunsBetweenCalls) {
    mock::addSlot(1, {});
    ASSERT_EQ(p11->C_Initialize(nullptr), CKR_OK);
    mock::afterCall("C_GetSlotList", [] { mock::addSlot(2, {}); });
    CK_ULONG count = 0;
    ASSERT_EQ(p11->C_GetSlotList(CK_TRUE, nullptr, &count), CKR_OK);
    CK_SLOT_ID ids[2];
    EXPECT_EQ(p11->C_GetSlotList(CK_TRUE, ids, &count), CKR_BUFFER_TOO_SMALL);
    EXPECT_EQ(count, 2u);
}

TEST_F(MockModule, HostileStreamDecidesEachReplyInTurn) {
    initializeWithToken();
    const std::vector<CK_RV> rvs = mock::hostileReturnValues();
    const std::vector<mock::Lie> lies = mock::liesFor("C_GetSlotList");
    const auto liePosition = [&](mock::Lie lie) {
        return static_cast<uint8_t>(std::find(lies.begin(), lies.end(), lie) - lies.begin());
    };
    // honest; fail with the third value; fail with a vendor code; a lie; then exhausted.
    mock::setHostileStream({0, 2, 2, 0, 2, 250, 0, 3, liePosition(mock::Lie::slotsShrink), 0});
    CK_ULONG count = 0;
    EXPECT_EQ(p11->C_GetSlotList(CK_TRUE, nullptr, &count), CKR_OK);
    EXPECT_EQ(count, 1u);
    EXPECT_EQ(p11->C_GetSlotList(CK_TRUE, nullptr, &count), rvs[2]);
    EXPECT_EQ(p11->C_GetSlotList(CK_TRUE, nullptr, &count), CKR_VENDOR_DEFINED + 250);
    EXPECT_EQ(p11->C_GetSlotList(CK_TRUE, nullptr, &count), CKR_OK);
    EXPECT_EQ(count, 0u) << "the shrinking lie";
    EXPECT_EQ(mock::hostileBytesLeft(), 0u);
    EXPECT_EQ(p11->C_GetSlotList(CK_TRUE, nullptr, &count), CKR_OK);
    EXPECT_EQ(count, 1u);
}

TEST_F(MockModule, QueuedLiesComeBeforeTheStreamAndFaultsBeforeBoth) {
    initializeWithToken();
    mock::setHostileStream({2, 0, 0});
    mock::lie("C_GetInfo", mock::Lie::textNotUtf8);
    mock::failCall("C_GetInfo", CKR_DEVICE_ERROR);
    CK_INFO info{};
    EXPECT_EQ(p11->C_GetInfo(&info), CKR_DEVICE_ERROR);
    EXPECT_EQ(p11->C_GetInfo(&info), CKR_OK);
    EXPECT_EQ(info.manufacturerID[0], 0x80) << "not UTF-8";
    EXPECT_EQ(p11->C_GetInfo(&info), mock::hostileReturnValues()[0]);
}

TEST_F(MockModule, FailingWithGarbageFillsTheOutParameters) {
    initializeWithToken();
    mock::failWithGarbage("C_OpenSession", CKR_DEVICE_ERROR);
    CK_SESSION_HANDLE h = 0;
    EXPECT_EQ(p11->C_OpenSession(kSlot, CKF_SERIAL_SESSION, nullptr, nullptr, &h), CKR_DEVICE_ERROR);
    EXPECT_NE(h, 0u);
    EXPECT_EQ(mock::openSessionCount(), 0u);
    mock::failWithGarbage("C_FindObjectsInit", CKR_DEVICE_ERROR);
    const CK_SESSION_HANDLE session = open();
    EXPECT_EQ(p11->C_FindObjectsInit(session, nullptr, 0), CKR_DEVICE_ERROR);
    EXPECT_EQ(mock::activeFindOperations(), 0u) << "a failure does nothing";
}

TEST_F(MockModule, AttributeLengthLiesReportTheLengthAsked) {
    initializeWithToken();
    mock::addObject(kSlot, {mock::stringAttr(CKA_LABEL, "twelve bytes")});
    const CK_SESSION_HANDLE h = open();
    const std::vector<CK_OBJECT_HANDLE> found = find(h, {});
    ASSERT_EQ(found.size(), 1u);
    char buffer[20];
    const auto lengthWith = [&](mock::Lie lie) {
        mock::lie("C_GetAttributeValue", lie);
        CK_ATTRIBUTE a{CKA_LABEL, buffer, sizeof buffer};
        const CK_RV rv = p11->C_GetAttributeValue(h, found[0], &a, 1);
        return std::make_pair(rv, a.ulValueLen);
    };
    EXPECT_EQ(lengthWith(mock::Lie::lengthJustUnder), std::make_pair(CKR_OK, CK_ULONG{19}));
    EXPECT_EQ(lengthWith(mock::Lie::okLengthOverBuffer), std::make_pair(CKR_OK, CK_ULONG{21}));
    EXPECT_EQ(lengthWith(mock::Lie::length2Pow32Minus1), std::make_pair(CKR_OK, CK_ULONG{0xFFFFFFFF}));
    EXPECT_EQ(lengthWith(mock::Lie::lengthUnavailable), std::make_pair(CKR_OK, CK_UNAVAILABLE_INFORMATION));
}

TEST(MockVariants, TheModuleThatCannotLockRefusesOperatingSystemLocksOnly) {
    void* image = dlopen(mock::noLockingModulePath().c_str(), RTLD_NOW);
    ASSERT_NE(image, nullptr) << dlerror();
    CK_FUNCTION_LIST_PTR f = nullptr;
    reinterpret_cast<CK_C_GetFunctionList>(dlsym(image, "C_GetFunctionList"))(&f);
    CK_C_INITIALIZE_ARGS args{};
    args.flags = CKF_OS_LOCKING_OK;
    EXPECT_EQ(f->C_Initialize(&args), CKR_CANT_LOCK);
    EXPECT_EQ(f->C_Initialize(nullptr), CKR_OK);
    EXPECT_EQ(f->C_Finalize(nullptr), CKR_OK);
    dlclose(image);
}

TEST(MockVariants, TheWorkerThreadRunsFromInitializeToFinalize) {
    void* image = dlopen(mock::workerThreadModulePath().c_str(), RTLD_NOW);
    ASSERT_NE(image, nullptr) << dlerror();
    const mock::ControlTable* control =
        reinterpret_cast<const mock::ControlTable* (*)()>(dlsym(image, "mockp11_control"))();
    CK_FUNCTION_LIST_PTR f = nullptr;
    reinterpret_cast<CK_C_GetFunctionList>(dlsym(image, "C_GetFunctionList"))(&f);
    EXPECT_FALSE(control->workerRunning());
    ASSERT_EQ(f->C_Initialize(nullptr), CKR_OK);
    EXPECT_TRUE(control->workerRunning());
    ASSERT_EQ(f->C_Finalize(nullptr), CKR_OK);
    EXPECT_FALSE(control->workerRunning());
    EXPECT_NE(control, mockp11_control()) << "each image has its own state";
    dlclose(image);
}

}  // namespace
