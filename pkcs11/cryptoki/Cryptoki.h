#pragma once

// The standard PKCS#11 declarations, from p11-kit's well-kept copy of the
// OASIS header. Only the declarations are used: nothing links to p11-kit.
#include <p11-kit/pkcs11.h>

// Defined by PKCS#11 3.0; older copies of the header lack it.
#ifndef CKF_ERROR_STATE
#define CKF_ERROR_STATE (1UL << 24)
#endif
