#include "CkFlags.h"

namespace p11client {

namespace {

constexpr CkFlagName kSlotFlags[] = {
    {CKF_TOKEN_PRESENT, "tokenPresent"},
    {CKF_REMOVABLE_DEVICE, "removableDevice"},
    {CKF_HW_SLOT, "hardwareSlot"},
};

constexpr CkFlagName kTokenFlags[] = {
    {CKF_RNG, "rng"},
    {CKF_WRITE_PROTECTED, "writeProtected"},
    {CKF_LOGIN_REQUIRED, "loginRequired"},
    {CKF_USER_PIN_INITIALIZED, "userPinInitialized"},
    {CKF_RESTORE_KEY_NOT_NEEDED, "restoreKeyNotNeeded"},
    {CKF_CLOCK_ON_TOKEN, "clockOnToken"},
    {CKF_PROTECTED_AUTHENTICATION_PATH, "protectedAuthenticationPath"},
    {CKF_DUAL_CRYPTO_OPERATIONS, "dualCryptoOperations"},
    {CKF_TOKEN_INITIALIZED, "tokenInitialized"},
    {CKF_SECONDARY_AUTHENTICATION, "secondaryAuthentication"},
    {CKF_USER_PIN_COUNT_LOW, "userPinCountLow"},
    {CKF_USER_PIN_FINAL_TRY, "userPinFinalTry"},
    {CKF_USER_PIN_LOCKED, "userPinLocked"},
    {CKF_USER_PIN_TO_BE_CHANGED, "userPinToBeChanged"},
    {CKF_SO_PIN_COUNT_LOW, "soPinCountLow"},
    {CKF_SO_PIN_FINAL_TRY, "soPinFinalTry"},
    {CKF_SO_PIN_LOCKED, "soPinLocked"},
    {CKF_SO_PIN_TO_BE_CHANGED, "soPinToBeChanged"},
    {CKF_ERROR_STATE, "errorState"},
};

} // namespace

std::span<const CkFlagName> slotFlagNames() { return kSlotFlags; }
std::span<const CkFlagName> tokenFlagNames() { return kTokenFlags; }

} // namespace p11client
