# cmake --install: headers, both libraries, a CMake package and a pkg-config file.
include(CMakePackageConfigHelpers)

file(GLOB P11CLIENT_PUBLIC_HEADERS
  ${CMAKE_CURRENT_SOURCE_DIR}/base/*.h
  ${CMAKE_CURRENT_SOURCE_DIR}/pkcs11/*.h
  ${CMAKE_CURRENT_SOURCE_DIR}/pcsc/ClsCardReaders.h
  ${CMAKE_CURRENT_SOURCE_DIR}/pkcs11/cryptoki/CkNames.h
  ${CMAKE_CURRENT_SOURCE_DIR}/pkcs11/cryptoki/FunctionListEntries.h
  ${CMAKE_CURRENT_SOURCE_DIR}/pkcs11/cryptoki/ModuleCalls.h
  ${CMAKE_CURRENT_SOURCE_DIR}/pkcs11/cryptoki/ModuleLibrary.h
  ${CMAKE_CURRENT_SOURCE_DIR}/pkcs11/cryptoki/Cryptoki.h)
install(FILES ${P11CLIENT_PUBLIC_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/p11client)

install(TARGETS p11client p11client_static EXPORT p11clientTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/p11client)
install(EXPORT p11clientTargets NAMESPACE p11client::
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/p11client)

configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/p11clientConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/p11clientConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/p11client)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/p11clientConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/p11clientConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/p11clientConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/p11client)

configure_file(${CMAKE_CURRENT_LIST_DIR}/p11client.pc.in ${CMAKE_CURRENT_BINARY_DIR}/p11client.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/p11client.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
