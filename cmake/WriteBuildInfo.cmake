# Writes BuildInfo.h: the commit, and in parentheses the building account and whether the work tree was clean.
find_package(Git QUIET)
set(commit "unknown")
set(tree "unknown")
if(GIT_FOUND)
  execute_process(COMMAND ${GIT_EXECUTABLE} rev-parse HEAD WORKING_DIRECTORY ${SOURCE_DIR}
                  OUTPUT_VARIABLE head OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET RESULT_VARIABLE no_head)
  execute_process(COMMAND ${GIT_EXECUTABLE} status --porcelain WORKING_DIRECTORY ${SOURCE_DIR}
                  OUTPUT_VARIABLE changes ERROR_QUIET RESULT_VARIABLE no_status)
  if(no_head EQUAL 0)
    set(commit "${head}")
  endif()
  if(no_status EQUAL 0)
    if(changes STREQUAL "")
      set(tree "clean")
    else()
      set(tree "dirty")
    endif()
  endif()
endif()
execute_process(COMMAND id -un OUTPUT_VARIABLE account OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
string(REGEX REPLACE "[^A-Za-z0-9._-]" "_" account "${account}")
file(CONFIGURE OUTPUT ${OUTPUT} CONTENT
"/// Identifies the build; written by the build system.
#pragma once

inline constexpr const char* kBuildCommitId = \"@commit@(@account@ @tree@)\";
" @ONLY)
