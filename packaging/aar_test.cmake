# Unpacks the AAR, builds a user's project from nothing but its contents and runs it; a build of the
# same sources in another folder must give the same bytes.
function(run)
  execute_process(COMMAND ${ARGV} COMMAND_ERROR_IS_FATAL ANY)
endfunction()

string(REPLACE "android-" "" API ${PLATFORM})
file(READ ${NDK_FOLDER}/source.properties NDK)
string(REGEX REPLACE ".*Pkg.Revision *= *([0-9]+).*" "\\1" NDK "${NDK}")

# The AAR that Gradle finds.
set(artifact ${BUILD}/maven/com/quenmar/zorvix/${VERSION}/zorvix-${VERSION})
run(${CMAKE_COMMAND} --build ${BUILD} --target aar)

# The same sources in another folder, with the build folder at the same place among them.
get_filename_component(source ${CMAKE_CURRENT_LIST_DIR} DIRECTORY)
file(RELATIVE_PATH place ${source} ${BUILD})
file(STRINGS ${BUILD}/CMakeCache.txt build_type REGEX "^CMAKE_BUILD_TYPE:")
set(android -G Ninja -DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN} -DANDROID_ABI=arm64-v8a
    -DANDROID_PLATFORM=${PLATFORM} -DANDROID_STL=c++_shared)
set(other ${WORK}/other)
set(other_build ${other}/${place})
file(REMOVE_RECURSE ${WORK})
foreach(name CMakeLists.txt cmake common typed host packaging)
  file(COPY ${source}/${name} DESTINATION ${other})
endforeach()
run(${CMAKE_COMMAND} -S ${other} -B ${other_build} ${android} -D${build_type}
    -DZORVIX_BUILD_EXAMPLES=OFF)
run(${CMAKE_COMMAND} --build ${other_build} --target aar)
run(${CMAKE_COMMAND} -E compare_files ${artifact}.aar ${other_build}/zorvix-${VERSION}.aar)

file(ARCHIVE_EXTRACT INPUT ${artifact}.aar DESTINATION ${WORK}/aar)
set(libs ${WORK}/aar/prefab/modules/zorvix/libs/android.arm64-v8a)
function(expect_text path expected)
  file(READ ${path} text)
  if(NOT text MATCHES "${expected}")
    message(FATAL_ERROR "${path} has no ${expected}: ${text}")
  endif()
endfunction()
expect_text(${artifact}.pom "<version>${VERSION}</version>")
expect_text(${WORK}/aar/AndroidManifest.xml "minSdkVersion=\"${API}\"")
expect_text(${WORK}/aar/prefab/prefab.json "\"version\": \"${VERSION}\"")
expect_text(${libs}/abi.json "\"api\": ${API},.*\"ndk\": ${NDK},")

file(SIZE ${libs}/libcom.quenmar.zorvix.so stripped)
file(SIZE ${BUILD}/zorvix-${VERSION}-unstripped/libcom.quenmar.zorvix.so unstripped)
if(NOT stripped LESS unstripped)
  message(FATAL_ERROR "the packed library is not stripped")
endif()

run(${CMAKE_COMMAND} -S ${CMAKE_CURRENT_LIST_DIR}/consumer -B ${WORK}/consumer ${android}
    -DWAY=aar -DZORVIX_AAR=${WORK}/aar)
run(${CMAKE_COMMAND} --build ${WORK}/consumer)
if(EMULATOR)
  file(COPY ${libs}/libcom.quenmar.zorvix.so DESTINATION ${WORK}/consumer)
  run(${EMULATOR} ${WORK}/consumer/consumer)
endif()
