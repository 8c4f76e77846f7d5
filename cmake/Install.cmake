include(CMakePackageConfigHelpers)

set(VANTOR_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/VantorClient)

get_property(VANTOR_BUILT_COMPONENTS GLOBAL PROPERTY VANTOR_COMPONENTS)
foreach(component IN LISTS VANTOR_BUILT_COMPONENTS)
  install(EXPORT VantorClient-${component}-targets
          NAMESPACE vantor::
          DESTINATION ${VANTOR_CMAKE_DIR})
endforeach()

configure_package_config_file(cmake/VantorClientConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/VantorClientConfig.cmake
  INSTALL_DESTINATION ${VANTOR_CMAKE_DIR})
write_basic_package_version_file(
  ${CMAKE_CURRENT_BINARY_DIR}/VantorClientConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/VantorClientConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/VantorClientConfigVersion.cmake
        DESTINATION ${VANTOR_CMAKE_DIR})
