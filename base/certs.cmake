# Certificates, public keys and big integers over OpenSSL's libcrypto.
# Included from base/CMakeLists.txt.
target_sources(p11client_objects PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/Certificate.cpp
  ${CMAKE_CURRENT_LIST_DIR}/CertificateExtensions.cpp
  ${CMAKE_CURRENT_LIST_DIR}/CertificateHolder.cpp
  ${CMAKE_CURRENT_LIST_DIR}/CertificateKey.cpp
  ${CMAKE_CURRENT_LIST_DIR}/CertificateLink.cpp
  ${CMAKE_CURRENT_LIST_DIR}/CertificateNames.cpp
  ${CMAKE_CURRENT_LIST_DIR}/CertificateValidity.cpp
  ${CMAKE_CURRENT_LIST_DIR}/ClsCert.cpp
  ${CMAKE_CURRENT_LIST_DIR}/ClsCert_props.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DnAttributeNames.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DnText.cpp
  ${CMAKE_CURRENT_LIST_DIR}/EccKey.cpp
  ${CMAKE_CURRENT_LIST_DIR}/EcPointCanon.cpp
  ${CMAKE_CURRENT_LIST_DIR}/ExtensionXml.cpp
  ${CMAKE_CURRENT_LIST_DIR}/MpInt.cpp
  ${CMAKE_CURRENT_LIST_DIR}/RsaKey.cpp
  ${CMAKE_CURRENT_LIST_DIR}/SystemCerts.cpp
  ${CMAKE_CURRENT_LIST_DIR}/SystemCertsHolder.cpp
  ${CMAKE_CURRENT_LIST_DIR}/ZelvanMp.cpp
  ${CMAKE_CURRENT_LIST_DIR}/_qxPublicKey.cpp)
