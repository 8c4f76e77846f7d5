# vantor_add_library(<name> SOURCES ... [PUBLIC_DEPS ...] [PRIVATE_DEPS ...])
# Makes the library vantor_<name> with the alias vantor::<name>, public headers
# from <dir>/include, and installs both into the exported package as its
# component <name>.
function(vantor_add_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;PUBLIC_DEPS;PRIVATE_DEPS" ${ARGN})
  set(target vantor_${name})
  add_library(${target} ${ARG_SOURCES})
  add_library(vantor::${name} ALIAS ${target})
  set_target_properties(${target} PROPERTIES EXPORT_NAME ${name}
                                             OUTPUT_NAME vantor_${name}
                                             POSITION_INDEPENDENT_CODE ON)
  target_include_directories(${target}
    PUBLIC $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/include>
           $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>
    PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/src)
  target_link_libraries(${target} PUBLIC ${ARG_PUBLIC_DEPS}
                                  PRIVATE ${ARG_PRIVATE_DEPS} $<BUILD_INTERFACE:vantor_warnings>)
  # One export set per library: the package's components.
  install(TARGETS ${target} EXPORT VantorClient-${name}-targets
          ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
          LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
  install(DIRECTORY include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
  set_property(GLOBAL APPEND PROPERTY VANTOR_COMPONENTS ${name})
endfunction()
