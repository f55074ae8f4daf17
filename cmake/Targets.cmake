# tovik_platform_library(<Name> [LIBS <targets>...])
# Builds every .cpp of the calling folder into the static library <Name>,
# installed as libtovik-<name>.a with Tovik. Headers are included as
# "<Name>/<Header>.h", from Sources/Platform in the build tree and from
# include/tovik once installed.
function(tovik_platform_library name)
  cmake_parse_arguments(ARG "" "" "LIBS" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  add_library(${name} STATIC ${sources})
  string(TOLOWER ${name} lower)
  set_target_properties(${name} PROPERTIES OUTPUT_NAME tovik-${lower} EXPORT_NAME ${name})
  target_include_directories(${name} PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/Sources/Platform>
                                            $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/tovik>)
  target_link_libraries(${name} PUBLIC ${ARG_LIBS})
  set_property(GLOBAL APPEND PROPERTY TOVIK_PLATFORM_LIBRARIES ${name})
endfunction()
