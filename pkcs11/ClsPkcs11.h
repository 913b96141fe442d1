#pragma once

#include "ClsBase.h"
#include "ExtPtrArray.h"
#include "ModuleCalls.h"
#include "ModuleLibrary.h"
#include "RecentSlotAnswers.h"
#include "SystemCertsHolder.h"
#include "XString.h"

#include <map>
#include <memory>
#include <optional>
#include <vector>

namespace p11client {

class Certificate;
class ClsCert;
class ClsJsonObject;
class DataBuffer;
class ExtPtrArraySb;
class Pkcs11_PrivateKey;
class StringBuffer;
struct HashAlgorithm;
struct PinArg;
struct _smartcardCertSpec;

// A vendor PKCS#11 library, loaded at run time, and at most one open session
// on one of its slots.
//
// Every public method (capitalised) holds the object's lock for its whole
// run, opens a context named after itself in the object's log, and returns
// false with the reason in the log (LogText) instead of throwing. User types
// are the Cryptoki values: 0 security officer, 1 normal user, 2
// context-specific.
class ClsPkcs11 : public ClsBase, public SystemCertsHolder {
public:
    static constexpr int kUserTypeSecurityOfficer = 0;
    static constexpr int kUserTypeUser = 1;
    static constexpr int kUserTypeContextSpecific = 2;

    ClsPkcs11();
    ~ClsPkcs11() override;
    ClsPkcs11(const ClsPkcs11&) = delete;
    ClsPkcs11& operator=(const ClsPkcs11&) = delete;

    // A new object owned by the caller, or null if it could not be made.
    static ClsPkcs11* createNewCls();

    // Path of the PKCS#11 library to load. Changing it does not touch a
    // library already loaded until the next load attempt.
    void get_SharedLibPath(XString& out);
    void put_SharedLibPath(const XString& path);
    // PIN given at each signing operation with a key that needs a
    // context-specific login.
    void get_SigContextPin(XString& out);
    void put_SigContextPin(const XString& pin);

    bool hasOpenSession();

    // Loads (if needed) and initializes the library.
    bool Initialize();
    // Loads and initializes the library and reports it and its slots
    // (only those with a token when onlyTokensPresent) as JSON.
    bool Discover(bool onlyTokensPresent, ClsJsonObject& json);
    // Opens a session on slotId, or with -1 on the first slot with a token
    // that accepts one. An open session is closed first. A slot number is
    // the low 32 bits of the module's slot ID: one that several of the
    // module's slots share is refused.
    bool OpenSession(int slotId, bool readWrite);
    bool CloseSession();
    // Logs in as security officer (0) or user (1); type 2 only keeps the PIN
    // for the signing operations to come.
    bool Login(int userType, const XString& pin);
    bool Logout();
    // Initialize, a read-write session on the first slot with a token, and a
    // login unless the PIN is empty.
    bool QuickSession(int userType, const XString& pin);
    // Changes the PIN of the logged-in user (or of the normal user in a
    // session where nobody is logged in).
    bool SetPin(const XString& oldPin, const XString& newPin);
    // Sets the normal user's PIN; the security officer must be logged in.
    bool InitPin(const XString& pin);
    // Initializes the token in slotId (all its objects are destroyed).
    bool InitToken(int slotId, const XString& soPin, const XString& label);
    // Reads the token's X.509 certificates into the certificate cache.
    bool FindAllCerts();
    // Number of certificates in the cache (0 until it is filled).
    int get_NumCerts();
    // The certificate at a position of the cache.
    bool GetCert(int index, ClsCert& cert);
    // The certificate whose part (subjectDN, serial, thumbprint, CN, ...) has
    // the value; with the part "privateKey", the one whose private key is on
    // the token, linked to the session so that it signs there.
    bool FindCert(const XString& certPart, const XString& value, ClsCert& cert);
    // RSA signatures with PSS (MGF1 with the same hash, salt of the hash's
    // length) instead of PKCS#1 v1.5.
    bool get_UsePss();
    void put_UsePss(bool usePss);
    // Signs a digest on the token with the private key of a certificate
    // linked to this object's session (FindCert("privateKey", ...) links
    // one). hashAlg: "sha1", "sha256", "sha384" or "sha512". ECDSA signatures
    // come as the token gives them: r||s, each half the curve's size.
    bool SignHash(ClsCert& cert, const XString& hashAlg, const DataBuffer& digest, DataBuffer& signature);
    // The same over data, hashed with OpenSSL first.
    bool SignData(ClsCert& cert, const XString& hashAlg, const DataBuffer& data, DataBuffer& signature);
    // An ECDSA signature r||s as the DER ECDSA-Sig-Value standard verifiers take.
    static bool EcdsaSignatureToDer(const DataBuffer& rawRs, DataBuffer& der);
    // Objects matching the JSON search template in json; the result is
    // written into the same object (see the README for both layouts).
    bool FindObject(ClsJsonObject& json);
    // The private keys of the token ("rsa", "ec", or empty for all) as JSON.
    bool FindAllKeys(const XString& keyFilter, ClsJsonObject& json);

    // The embedded card database.
    static bool GetCardDataJson(ClsJsonObject& json, LogBase& log);
    static bool CardDataLookupAtr2(const char* atr, StringBuffer& cardName, bool& readOnly,
                                   ExtPtrArraySb& driverPaths, LogBase& log);
    static bool CardDataLookupAtr(ClsJsonObject& db, const char* atr, StringBuffer& cardName, bool& readOnly,
                                  ExtPtrArraySb& driverPaths, LogBase& log);
    static bool getPkcs11DriverPaths(ClsJsonObject& driver, const char* osKey, ExtPtrArraySb& paths,
                                     LogBase& log);

    // Entry points for the rest of the library (the command-line tool among
    // them); they hold the object's lock and log into the log given.
    bool loadPkcs11Dll_2(LogBase& log);
    void checkSetSpecial(LogBase& log);
    bool discover(bool onlyTokensPresent, ClsJsonObject& json, LogBase& log);
    bool openSession(int slotId, bool readWrite, LogBase& log);
    bool login(int userType, const char* pin, LogBase& log);
    void setContextSpecificPin(const XString& pin, LogBase& log);
    bool alreadyLoggedIn(int userType, LogBase& log);
    // Whether the token demands RSA-PSS signatures: no token this library
    // knows does, so the answer is fixed.
    bool cardRequiresPss(LogBase& log);
    void clearPrivateKeyCaches();
    void clearCertCache(LogBase& log);
    bool findPkcs11Cert(_smartcardCertSpec& spec, ClsCert& cert, LogBase& log);
    // The handle of the certificate's private key on the token (0 if none),
    // with the certificate's key type and the signature size in bytes;
    // keyVerified is false when a fallback took the key with nothing to
    // prove it is the certificate's.
    unsigned long findPrivKeyHandle(Certificate& cert, bool minimalFirstPass, int& certKeyType,
                                    int& expectedSignatureSize, bool& keyVerified, LogBase& log);
    unsigned long findRsaKeyById(Certificate& cert, bool requireSign, LogBase& log);
    unsigned long findRsaKeyBySubjectDER(Certificate& cert, bool requireSign, LogBase& log);
    unsigned long findRsaKeyByModulus(Certificate& cert, bool requireSign, LogBase& log);
    // Links the certificate to the session with its private key's handle.
    // minimalFirstPass reads, at first, only what pairing by CKA_ID needs:
    // for linking one certificate. Without it every key's pairing material
    // is read at once, for both key types when the certificate cache holds
    // both (one search): for linking every certificate.
    bool linkCertToPkcs11Session(Certificate* cert, bool minimalFirstPass, LogBase& log);

private:
    // What a missing list, entry or session looks like in the log; each
    // returns false.
    bool noFunc(const char* functionName, LogBase& log);
    bool noFuncs(LogBase& log);
    bool noSession(LogBase& log);
    // The calls into the module when its list has the entry (and a session
    // is open, where one is needed); nothing, with the reason logged,
    // otherwise.
    template <auto Entry>
    std::optional<ModuleCalls> callsWith(bool needsSession, LogBase& log,
                                         ModuleCalls::Report report = ModuleCalls::Report::Error)
    {
        CK_FUNCTION_LIST* f = m_dlHandle.functions();
        if (f == nullptr)
            noFuncs(log);
        else if (f->*Entry == nullptr)
            noFunc(kEntryName<Entry>, log);
        else if (needsSession && m_hSession == 0)
            noSession(log);
        else
            return ModuleCalls(f, log, report);
        return std::nullopt;
    }
    // Calls for cleanup and side questions: an entry the module lacks is
    // passed over without a word.
    ModuleCalls quietCalls(LogBase& log) { return ModuleCalls(m_dlHandle.functions(), log, ModuleCalls::Report::Quiet); }
    void forgetParentProcessState();

    // ClsPkcs11_loading.cpp
    bool loadPkcs11Dll(bool stripDirectory, LogBase& log);
    void unloadModule(LogBase& log);
    bool getPkcs11Functions(LogBase& log);
    bool pkcs11_initialize(LogBase& log);
    void finalizeQuietly(LogBase& log);

    // ClsPkcs11_slots.cpp
    bool getSlotList(bool tokenPresent, std::vector<CK_SLOT_ID>& slotIds, LogBase& log);
    bool getSlotIdsWithTokenPresent(std::vector<CK_SLOT_ID>& slotIds, LogBase& log);
    // The one slot of the list whose ID has the low 32 bits of the caller's int.
    bool slotOfNumber(int slotNumber, const std::vector<CK_SLOT_ID>& slots, CK_SLOT_ID& slotId, LogBase& log);
    bool getCryptokiInfo(ClsJsonObject& json, LogBase& log);
    bool getSlotsInfo(bool onlyTokensPresent, ClsJsonObject& json, LogBase& log);
    bool addSlotInfo(CK_SLOT_ID slotId, int index, ClsJsonObject& json, LogBase& log);
    bool addTokenInfo(CK_SLOT_ID slotId, int index, ClsJsonObject& json, LogBase& log);

    // ClsPkcs11_sessions.cpp
    bool openSessionOn(CK_SLOT_ID slotId, bool readWrite, LogBase& log);
    bool closeSession(LogBase& log);
    void refreshLoginState(LogBase& log);
    void endSessionQuietly(LogBase& log);

    // ClsPkcs11_login.cpp
    bool loginAs(int userType, const char* pin, LogBase& log);
    bool logout(LogBase& log);
    std::optional<CK_FLAGS> tokenFlags(CK_SLOT_ID slotId, LogBase& log);
    bool pinUsable(const PinArg& pin, std::optional<CK_FLAGS> flags, LogBase& log);
    bool pinUsable(const PinArg& pin, CK_SLOT_ID slotId, LogBase& log);
    void keepContextPin(const XString& pin);
    void forgetContextPin(const char* why, LogBase& log);
    void forgetContextPinOfOtherToken(CK_SLOT_ID slotId, LogBase& log);

    // ClsPkcs11_tokenAdmin.cpp
    bool setPin(const char* oldPin, const char* newPin, LogBase& log);
    bool initPin(const char* pin, LogBase& log);
    bool initToken(CK_SLOT_ID slotId, const char* soPin, const char* label, LogBase& log);

    // ClsPkcs11_objects.cpp
    bool objectSearchReady(LogBase& log);
    bool searchObjects(std::vector<CK_ATTRIBUTE>& tmpl, std::vector<unsigned long>& handles, LogBase& log);
    bool findAllKeys(const XString& keyFilter, ClsJsonObject& json, LogBase& log);
    bool findObject(ClsJsonObject& json, LogBase& log);
    std::optional<unsigned long> objectClassOf(unsigned long handle, std::optional<unsigned long> known, LogBase& log);

    // ClsPkcs11_keyCaches.cpp
    bool searchKeys(unsigned long keyType, std::vector<unsigned long>& handles, LogBase& log);
    bool fillKeyCache(unsigned long keyType, const std::vector<CK_ATTRIBUTE_TYPE>& types, ExtPtrArray& cache,
                      LogBase& log);
    bool cacheRsaPrivateKeys(bool forceRefill, bool withPublicMaterial, LogBase& log);
    bool cacheEcdsaPrivateKeys(LogBase& log);
    bool fillBothKeyCaches(LogBase& log);
    void readPublicKeyMaterial(Pkcs11_PrivateKey& key, unsigned long keyType);
    void clearTokenCaches(LogBase& log);

    // ClsPkcs11_certCache.cpp
    bool findAllCerts(LogBase& log);
    enum class KeyRuleOutcome { Choose, Defer, Skip };
    KeyRuleOutcome applyPrivateKeyRule(Certificate& cert, bool haveCandidate, LogBase& log);
    bool commitCert(const std::shared_ptr<Certificate>& chosen, ClsCert& cert, LogBase& log);

    // ClsPkcs11_linking.cpp
    struct ScanTexts {
        const char* found;
        const char* rejected;
    };
    unsigned long scanRsaKeys(DataBuffer Pkcs11_PrivateKey::*field, const DataBuffer& wanted,
                              const DataBuffer* alsoWanted, bool requireSign, const ScanTexts& texts, LogBase& log);
    unsigned long findRsaKeyHandle(Certificate& cert, bool minimalFirstPass, bool& keyVerified, LogBase& log);
    unsigned long findEcKeyHandle(Certificate& cert, bool& keyVerified, LogBase& log);
    unsigned long fallbackKey(ExtPtrArray& keys, unsigned long keyType, const DataBuffer& certMaterial, bool& proven);
    void rememberLink(Certificate& cert);
    void readKeysForPairing(bool minimalFirstPass);
    bool certCacheHoldsBothKeyTypes();
    void unlinkRememberedCerts();

    // ClsPkcs11_signing.cpp
    bool signDigest(Certificate* cert, const HashAlgorithm& alg, const DataBuffer& digest, DataBuffer& signature,
                    LogBase& log);
    bool signOnToken(CK_MECHANISM& mechanism, unsigned long hKey, const DataBuffer& input, std::size_t expectedSize,
                     DataBuffer& signature, LogBase& log);
    bool signInput(const DataBuffer& data, std::size_t expectedSize, DataBuffer& signature, LogBase& log);
    bool keyNeedsContextLogin(unsigned long hKey, LogBase& log);

    XString m_sharedLibPath;
    XString m_loadedLibPath;
    ModuleLibrary m_dlHandle; // the loaded library and its function list
    unsigned long m_hSession = 0;
    CK_SLOT_ID m_slotId = 0; // of the open session
    ExtPtrArray m_certs; // of CertificateHolder, in token order
    bool m_certsCached = false;
    std::vector<std::weak_ptr<Certificate>> m_linkedCerts; // every certificate this object linked
    bool m_rsaKeysCached = false;
    bool m_rsaKeysHaveSubjectDer = false;
    bool m_rsaKeysHaveModulus = false;
    ExtPtrArray m_rsaKeys; // of Pkcs11_PrivateKey
    bool m_ecKeysCached = false;
    ExtPtrArray m_ecKeys; // of Pkcs11_PrivateKey
    std::map<unsigned long, bool> m_alwaysAuthenticate; // key handle -> CKA_ALWAYS_AUTHENTICATE
    bool m_usePss = false;
    bool m_initialized = false;
    bool m_certHandleIsKeyHandle = false;
    bool m_soLoggedIn = false;
    bool m_userLoggedIn = false;
    XString m_sigContextPin;
    std::optional<CK_SLOT_ID> m_contextPinSlot; // the slot whose token the PIN is for, once known
    RecentSlotAnswers m_recentSlotAnswers;
};

} // namespace p11client
