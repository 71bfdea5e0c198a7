# nimborra_add_library(<name> PUBLIC_DEPS ... PRIVATE_DEPS ...)
# Builds one of the three libraries from the src/ and include/ folders beside the calling
# CMakeLists.txt and installs it with its public headers.
function(nimborra_add_library name)
  cmake_parse_arguments(ARG "" "" "PUBLIC_DEPS;PRIVATE_DEPS" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/src/*.cpp)
  file(GLOB headers CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/include/${name}/*.h)
  add_library(${name} ${sources} ${headers})
  add_library(NimbOrra::${name} ALIAS ${name})
  target_include_directories(${name} PUBLIC
    $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/include>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  target_link_libraries(${name} PUBLIC ${ARG_PUBLIC_DEPS} PRIVATE ${ARG_PRIVATE_DEPS}
    $<BUILD_INTERFACE:nimborra_warnings>)
  set_target_properties(${name} PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})
  install(TARGETS ${name} EXPORT NimbOrraPushAddonApnsTargets
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  install(DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR}/include/${name} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
endfunction()
