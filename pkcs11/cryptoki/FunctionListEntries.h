#pragma once

// Every entry of a version 2 function list, in its order: X(name) for each.
#define P11CLIENT_EACH_FUNCTION(X)                                                                                 \
    X(C_Initialize) X(C_Finalize) X(C_GetInfo) X(C_GetFunctionList) X(C_GetSlotList) X(C_GetSlotInfo)              \
    X(C_GetTokenInfo) X(C_GetMechanismList) X(C_GetMechanismInfo) X(C_InitToken) X(C_InitPIN) X(C_SetPIN)          \
    X(C_OpenSession) X(C_CloseSession) X(C_CloseAllSessions) X(C_GetSessionInfo) X(C_GetOperationState)            \
    X(C_SetOperationState) X(C_Login) X(C_Logout) X(C_CreateObject) X(C_CopyObject) X(C_DestroyObject)             \
    X(C_GetObjectSize) X(C_GetAttributeValue) X(C_SetAttributeValue) X(C_FindObjectsInit) X(C_FindObjects)         \
    X(C_FindObjectsFinal) X(C_EncryptInit) X(C_Encrypt) X(C_EncryptUpdate) X(C_EncryptFinal) X(C_DecryptInit)     \
    X(C_Decrypt) X(C_DecryptUpdate) X(C_DecryptFinal) X(C_DigestInit) X(C_Digest) X(C_DigestUpdate)               \
    X(C_DigestKey) X(C_DigestFinal) X(C_SignInit) X(C_Sign) X(C_SignUpdate) X(C_SignFinal) X(C_SignRecoverInit)   \
    X(C_SignRecover) X(C_VerifyInit) X(C_Verify) X(C_VerifyUpdate) X(C_VerifyFinal) X(C_VerifyRecoverInit)        \
    X(C_VerifyRecover) X(C_DigestEncryptUpdate) X(C_DecryptDigestUpdate) X(C_SignEncryptUpdate)                   \
    X(C_DecryptVerifyUpdate) X(C_GenerateKey) X(C_GenerateKeyPair) X(C_WrapKey) X(C_UnwrapKey) X(C_DeriveKey)     \
    X(C_SeedRandom) X(C_GenerateRandom) X(C_GetFunctionStatus) X(C_CancelFunction) X(C_WaitForSlotEvent)
