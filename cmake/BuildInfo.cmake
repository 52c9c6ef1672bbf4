# BuildInfo.h tells the daemon's banner which sources it was built from. It is rewritten at every build, and only
# when its content changes.
add_custom_target(
  build_info
  COMMAND ${CMAKE_COMMAND} -DSOURCE_DIR=${CMAKE_CURRENT_SOURCE_DIR}
          -DOUTPUT=${CMAKE_CURRENT_BINARY_DIR}/generated/BuildInfo.h -P
          ${CMAKE_CURRENT_SOURCE_DIR}/cmake/WriteBuildInfo.cmake
  BYPRODUCTS ${CMAKE_CURRENT_BINARY_DIR}/generated/BuildInfo.h
  COMMENT "Build identifier")
