#pragma once

// Owning smart pointers for the OpenSSL objects the certificate and key code
// handles. Internal to base/: public headers only forward-declare OpenSSL types.

#include <openssl/asn1.h>
#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <memory>

namespace p11client {

template <class T, void (*Free)(T*)>
struct OpenSslDeleter {
    void operator()(T* p) const { Free(p); }
};

using X509Ptr = std::unique_ptr<X509, OpenSslDeleter<X509, X509_free>>;
using EvpPkeyPtr = std::unique_ptr<EVP_PKEY, OpenSslDeleter<EVP_PKEY, EVP_PKEY_free>>;
using BioPtr = std::unique_ptr<BIO, OpenSslDeleter<BIO, BIO_free_all>>;
using BignumPtr = std::unique_ptr<BIGNUM, OpenSslDeleter<BIGNUM, BN_clear_free>>;
using EcGroupPtr = std::unique_ptr<EC_GROUP, OpenSslDeleter<EC_GROUP, EC_GROUP_free>>;
using EcPointPtr = std::unique_ptr<EC_POINT, OpenSslDeleter<EC_POINT, EC_POINT_free>>;
using Asn1ObjectPtr = std::unique_ptr<ASN1_OBJECT, OpenSslDeleter<ASN1_OBJECT, ASN1_OBJECT_free>>;
using Asn1OctetStringPtr =
    std::unique_ptr<ASN1_OCTET_STRING, OpenSslDeleter<ASN1_OCTET_STRING, ASN1_OCTET_STRING_free>>;
using Asn1BitStringPtr = std::unique_ptr<ASN1_BIT_STRING, OpenSslDeleter<ASN1_BIT_STRING, ASN1_BIT_STRING_free>>;
using Asn1TypePtr = std::unique_ptr<ASN1_TYPE, OpenSslDeleter<ASN1_TYPE, ASN1_TYPE_free>>;

// Memory that OpenSSL allocated with OPENSSL_malloc (i2d output, BN_bn2hex text).
struct OpenSslFree {
    void operator()(void* p) const { OPENSSL_free(p); }
};
using OpenSslBytesPtr = std::unique_ptr<unsigned char, OpenSslFree>;
using OpenSslCharsPtr = std::unique_ptr<char, OpenSslFree>;

} // namespace p11client
