# Unpacks the AAR, validates every field, builds a user's project from nothing but its contents and
# runs it; a build of the same sources in another folder must give the same bytes.
function(expect what actual expected)
  if(NOT actual STREQUAL expected)
    message(FATAL_ERROR "${what} is ${actual}, expected ${expected}")
  endif()
endfunction()
function(expect_text path expected)
  file(READ ${path} text)
  if(NOT text MATCHES "${expected}")
    message(FATAL_ERROR "${path} is not as expected: ${text}")
  endif()
endfunction()
function(run)
  execute_process(COMMAND ${ARGV} COMMAND_ERROR_IS_FATAL ANY)
endfunction()

string(REPLACE "android-" "" API ${PLATFORM})
file(READ ${NDK_FOLDER}/source.properties NDK)
string(REGEX REPLACE ".*Pkg.Revision *= *([0-9]+).*" "\\1" NDK "${NDK}")

# The AAR that Gradle finds.
set(artifact ${BUILD}/maven/com/quenmar/zorvix/${VERSION}/zorvix-${VERSION})
run(${CMAKE_COMMAND} --build ${BUILD} --target aar)
file(SHA256 ${artifact}.aar first)

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
file(SHA256 ${other_build}/zorvix-${VERSION}.aar second)
expect("SHA256 of the AAR from another folder" ${second} ${first})

expect_text(${artifact}.pom "<groupId>com.quenmar</groupId>.*<artifactId>zorvix</artifactId>.*<version>${VERSION}</version>.*<packaging>aar</packaging>")

file(ARCHIVE_EXTRACT INPUT ${artifact}.aar DESTINATION ${WORK}/aar)
set(module prefab/modules/zorvix)
set(libs ${module}/libs/android.arm64-v8a)
file(GLOB headers ${source}/common/zorvix/*.h ${source}/typed/zorvix/*.h)
list(TRANSFORM headers REPLACE ".*/" "${module}/include/zorvix/")
set(expected AndroidManifest.xml ${headers} ${libs}/abi.json ${libs}/libcom.quenmar.zorvix.so
    ${module}/module.json prefab/prefab.json)
list(SORT expected)
file(GLOB_RECURSE files RELATIVE ${WORK}/aar ${WORK}/aar/*)
expect("list of files" "${files}" "${expected}")

function(expect_json path expected)
  file(READ ${WORK}/aar/${path} json)
  string(JSON equal EQUAL "${json}" "${expected}")
  expect("${path} being ${expected}" ${equal} ON)
endfunction()
expect_json(prefab/prefab.json
  "{\"schema_version\": 2, \"name\": \"zorvix\", \"version\": \"${VERSION}\", \"dependencies\": []}")
expect_json(${libs}/abi.json
  "{\"abi\": \"arm64-v8a\", \"api\": ${API}, \"ndk\": ${NDK}, \"stl\": \"c++_shared\", \"static\": false}")
expect_text(${WORK}/aar/AndroidManifest.xml
  "package=\"com.quenmar.zorvix\".*minSdkVersion=\"${API}\"")

file(SIZE ${WORK}/aar/${libs}/libcom.quenmar.zorvix.so stripped)
file(SIZE ${BUILD}/zorvix-${VERSION}-unstripped/libcom.quenmar.zorvix.so unstripped)
if(NOT stripped LESS unstripped)
  message(FATAL_ERROR "the packed library is not stripped")
endif()

run(${CMAKE_COMMAND} -S ${CMAKE_CURRENT_LIST_DIR}/consumer -B ${WORK}/consumer ${android}
    -DWAY=aar -DZORVIX_AAR=${WORK}/aar)
run(${CMAKE_COMMAND} --build ${WORK}/consumer)
if(EMULATOR)
  file(COPY ${WORK}/aar/${libs}/libcom.quenmar.zorvix.so DESTINATION ${WORK}/consumer)
  run(${EMULATOR} ${WORK}/consumer/consumer)
endif()
