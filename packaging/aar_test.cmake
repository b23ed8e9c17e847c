# Builds and runs a user's project with the contents of the AAR. Also checks that the same sources
# give the same AAR when they are built in another folder.
function(run)
  execute_process(COMMAND ${ARGV} COMMAND_ECHO STDOUT COMMAND_ERROR_IS_FATAL ANY)
endfunction()

# The AAR that Gradle finds.
set(artifact ${BUILD}/maven/com/quenmar/zorvix/${VERSION}/zorvix-${VERSION})
run(${CMAKE_COMMAND} --build ${BUILD} --target aar)

# The same sources in another folder, with the build folder at the same place among them.
get_filename_component(source ${CMAKE_CURRENT_LIST_DIR} DIRECTORY)
file(RELATIVE_PATH place ${source} ${BUILD})
file(STRINGS ${BUILD}/CMakeCache.txt build_type REGEX "^CMAKE_BUILD_TYPE:")
set(android -G Ninja -DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN} -DANDROID_ABI=arm64-v8a
    -DANDROID_PLATFORM=${PLATFORM} -DANDROID_STL=c++_shared)
file(REMOVE_RECURSE ${WORK})
file(COPY ${source}/CMakeLists.txt ${source}/cmake ${source}/common ${source}/handles
     ${source}/packaging DESTINATION ${WORK}/other)
run(${CMAKE_COMMAND} -S ${WORK}/other -B ${WORK}/other/${place} ${android} -D${build_type}
    -DZORVIX_BUILD_EXAMPLES=OFF)
run(${CMAKE_COMMAND} --build ${WORK}/other/${place} --target aar)
run(${CMAKE_COMMAND} -E compare_files ${artifact}.aar ${WORK}/other/${place}/zorvix-${VERSION}.aar)

file(ARCHIVE_EXTRACT INPUT ${artifact}.aar DESTINATION ${WORK}/aar)
string(REPLACE "android-" "" api ${PLATFORM})
file(READ ${NDK_FOLDER}/source.properties ndk)
string(REGEX REPLACE ".*Pkg.Revision *= *([0-9]+).*" "\\1" ndk "${ndk}")
run(grep "<version>${VERSION}</version>" ${artifact}.pom)
run(grep "minSdkVersion=\"${api}\"" ${WORK}/aar/AndroidManifest.xml)
run(grep "\"version\": \"${VERSION}\"" ${WORK}/aar/prefab/prefab.json)
foreach(module zorvix handles)
  set(libs ${WORK}/aar/prefab/modules/${module}/libs/android.arm64-v8a)
  file(GLOB library ${libs}/lib*.so)
  get_filename_component(name ${library} NAME)
  run(grep "\"api\": ${api}," ${libs}/abi.json)
  run(grep "\"ndk\": ${ndk}," ${libs}/abi.json)
  run(grep -c "\\.symtab" ${BUILD}/zorvix-${VERSION}-unstripped/${name})
  run(sh -c "! grep -c '\\.symtab' ${library}")
  list(APPEND libraries ${library})
endforeach()

run(${CMAKE_COMMAND} -S ${CMAKE_CURRENT_LIST_DIR}/consumer -B ${WORK}/consumer ${android}
    "-DCMAKE_CXX_FLAGS=-std=c++17 -D_LIBCPP_TYPEINFO_COMPARISON_IMPLEMENTATION=2"
    -DZORVIX_AAR=${WORK}/aar)
run(${CMAKE_COMMAND} --build ${WORK}/consumer)
file(COPY ${libraries} DESTINATION ${WORK}/consumer)
run(${EMULATOR} ${WORK}/consumer/consumer)
run(${EMULATOR} ${WORK}/consumer/plain_consumer)
run(sh -c "${READELF} -d ${WORK}/consumer/libplain.so | grep NODELETE")
run(sh -c "! ${READELF} -d ${WORK}/consumer/libplain.so | grep zorvix.handles")
run(sh -c "! ${READELF} -d ${WORK}/consumer/libhandles.so | grep NODELETE")
