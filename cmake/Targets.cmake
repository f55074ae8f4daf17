# tovik_platform_library(<Name> [LIBS <targets>...])
# Builds every .cpp of the calling folder into the static library <Name>.
# Headers are included as "<Name>/<Header>.h".
function(tovik_platform_library name)
  cmake_parse_arguments(ARG "" "" "LIBS" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  add_library(${name} STATIC ${sources})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR}/Sources/Platform)
  target_link_libraries(${name} PUBLIC ${ARG_LIBS})
  set_property(GLOBAL APPEND PROPERTY TOVIK_PLATFORM_LIBRARIES ${name})
endfunction()
