#include "RsaKey.h"

#include "LogBase.h"
#include "OpenSslPtr.h"

#include <openssl/core_names.h>

namespace p11client {

namespace {

bool readBignum(const EVP_PKEY* pkey, const char* param, mp_int& out)
{
    BIGNUM* raw = nullptr;
    if (EVP_PKEY_get_bn_param(pkey, param, &raw) != 1)
        return false;
    BignumPtr bn(raw);
    return out.setFromBignum(bn.get());
}

} // namespace

bool RsaKey::loadFromPkey(const EVP_PKEY* pkey, LogBase& log)
{
    mp_int n;
    mp_int e;
    if (pkey == nullptr || !readBignum(pkey, OSSL_PKEY_PARAM_RSA_N, n) ||
        !readBignum(pkey, OSSL_PKEY_PARAM_RSA_E, e) || n.isZero()) {
        log.LogError("Unable to read the RSA public key.");
        return false;
    }
    m_modulus = std::move(n);
    m_exponent = std::move(e);
    return true;
}

} // namespace p11client
