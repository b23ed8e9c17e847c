# Unpacks the AAR, validates every field, builds a user's project from nothing but its contents and
# runs it; a build of the same sources in another folder must give the same bytes.
function(expect what actual expected)
  if(NOT actual STREQUAL expected)
    message(FATAL_ERROR "${what} is ${actual}, expected ${expected}")
  endif()
endfunction()
function(run)
  execute_process(COMMAND ${ARGV} COMMAND_ERROR_IS_FATAL ANY)
endfunction()

string(REPLACE "android-" "" API ${PLATFORM})
file(READ ${NDK_FOLDER}/source.properties NDK)
string(REGEX REPLACE ".*Pkg.Revision *= *([0-9]+).*" "\\1" NDK "${NDK}")

set(AAR ${BUILD}/zorvix-${VERSION}.aar)
run(${CMAKE_COMMAND} --build ${BUILD} --target aar)
file(SHA256 ${AAR} first)

# The same sources in another folder, with the build folder at the same place among them.
get_filename_component(source ${CMAKE_CURRENT_LIST_DIR} DIRECTORY)
file(RELATIVE_PATH place ${source} ${BUILD})
file(STRINGS ${BUILD}/CMakeCache.txt build_type REGEX "^CMAKE_BUILD_TYPE:")
set(other ${WORK}/other)
set(other_build ${other}/${place})
file(REMOVE_RECURSE ${WORK})
foreach(name CMakeLists.txt cmake common typed host packaging)
  file(COPY ${source}/${name} DESTINATION ${other})
endforeach()
run(${CMAKE_COMMAND} -S ${other} -B ${other_build} -G Ninja -DZORVIX_BUILD_EXAMPLES=OFF
    -DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN} -D${build_type} -DANDROID_ABI=arm64-v8a
    -DANDROID_PLATFORM=${PLATFORM} -DANDROID_STL=c++_shared)
run(${CMAKE_COMMAND} --build ${other_build} --target aar)
file(SHA256 ${other_build}/zorvix-${VERSION}.aar second)
message("${first}\n${second}")
expect("SHA256 of the AAR from another folder" ${second} ${first})

set(repository ${BUILD}/maven/com/quenmar/zorvix/${VERSION}/zorvix-${VERSION})
file(SHA256 ${repository}.aar first)
expect("SHA256 of the AAR in the Maven repository" ${second} ${first})
file(READ ${repository}.pom pom)
if(NOT pom MATCHES "<groupId>com.quenmar</groupId>.*<artifactId>zorvix</artifactId>.*<version>${VERSION}</version>.*<packaging>aar</packaging>"
   OR pom MATCHES "<dependencies>")
  message(FATAL_ERROR "unexpected POM: ${pom}")
endif()

file(ARCHIVE_EXTRACT INPUT ${AAR} DESTINATION ${WORK}/aar)
file(GLOB_RECURSE files RELATIVE ${WORK}/aar ${WORK}/aar/*)
set(module prefab/modules/zorvix)
set(libs ${module}/libs/android.arm64-v8a)
expect("list of files" "${files}" "AndroidManifest.xml;${module}/include/zorvix/typed.h;${module}/include/zorvix/zorvix.h;${module}/include/zorvix/zorvix_flat.h;${libs}/abi.json;${libs}/libcom.quenmar.zorvix.so;${module}/module.json;prefab/prefab.json")

function(expect_json path expected)
  file(READ ${WORK}/aar/${path} json)
  string(JSON equal EQUAL "${json}" "${expected}")
  expect("${path} being ${expected}" ${equal} ON)
endfunction()
expect_json(prefab/prefab.json
  "{\"schema_version\": 2, \"name\": \"zorvix\", \"version\": \"${VERSION}\", \"dependencies\": []}")
expect_json(${module}/module.json
  [[{"export_libraries": ["-llog"], "library_name": "libcom.quenmar.zorvix"}]])
expect_json(${libs}/abi.json
  "{\"abi\": \"arm64-v8a\", \"api\": ${API}, \"ndk\": ${NDK}, \"stl\": \"c++_shared\", \"static\": false}")
file(READ ${WORK}/aar/AndroidManifest.xml manifest)
if(NOT manifest MATCHES "package=\"com.quenmar.zorvix\".*minSdkVersion=\"${API}\"")
  message(FATAL_ERROR "unexpected manifest: ${manifest}")
endif()

file(SIZE ${WORK}/aar/${libs}/libcom.quenmar.zorvix.so stripped)
file(SIZE ${UNSTRIPPED} unstripped)
if(NOT stripped LESS unstripped)
  message(FATAL_ERROR "the packed library is not stripped")
endif()

run(${CMAKE_COMMAND} -S ${CONSUMER} -B ${WORK}/consumer -G Ninja -DWAY=aar -DZORVIX_AAR=${WORK}/aar
    -DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN} -DANDROID_ABI=arm64-v8a -DANDROID_PLATFORM=android-${API}
    -DANDROID_STL=c++_shared)
run(${CMAKE_COMMAND} --build ${WORK}/consumer)
if(EMULATOR)
  file(COPY ${WORK}/aar/${libs}/libcom.quenmar.zorvix.so DESTINATION ${WORK}/consumer)
  run(${EMULATOR} ${WORK}/consumer/consumer)
endif()
