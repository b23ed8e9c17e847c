# The settings that the installed libraries share.
# zorvix_library(TARGET OUTPUT-NAME [VERSION-SCRIPT])
function(zorvix_library target output_name)
  set_target_properties(${target} PROPERTIES
    OUTPUT_NAME ${output_name}
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON
    INSTALL_RPATH "$ORIGIN"
    INSTALL_RPATH_USE_LINK_PATH ON)
  # Reproducible: paths in log lines and debug information are relative to the project's folder.
  target_compile_options(${target} PRIVATE ${ZORVIX_WARNINGS}
    -ffile-prefix-map=${CMAKE_BINARY_DIR}=build
    -ffile-prefix-map=${PROJECT_SOURCE_DIR}/=)
  # nodelete: dlclose does not unload a library, so its objects live until the process ends.
  target_link_options(${target} PRIVATE LINKER:-z,nodelete)
  if(ARGN)
    target_link_options(${target} PRIVATE LINKER:--version-script=${ARGN})
    set_target_properties(${target} PROPERTIES LINK_DEPENDS ${ARGN})
  endif()
  if(ANDROID)
    target_link_options(${target} PRIVATE
      LINKER:-z,max-page-size=16384 LINKER:--build-id=sha1 LINKER:--no-undefined)
  else()
    find_package(Threads REQUIRED)
    target_link_libraries(${target} PRIVATE Threads::Threads)
  endif()
endfunction()
