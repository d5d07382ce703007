# Installs the build into a scratch prefix, then builds and runs a consumer against it twice:
# through find_package(msmface) and through pkg-config. With WITH_DETECT the detector's host is
# built and run the same two ways.
file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)

function(run)
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
    if(NOT rc EQUAL 0)
        message(FATAL_ERROR "failed (${rc}): ${ARGN}\n${out}\n${err}")
    endif()
    message(STATUS "${out}")
endfunction()

run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
foreach(header msmface.h export.h version.h numeric.h BasicImage.h IDDatabase.h PartsPosition.h
       RecogResult.h FaceRecognition.h FileSummary.h frame.h result.h)
    if(NOT EXISTS ${prefix}/include/msmface/${header})
        message(FATAL_ERROR "installed tree lacks include/msmface/${header}")
    endif()
endforeach()

run(${CMAKE_COMMAND} -S ${SOURCE_DIR}/tests/install/consumer -B ${WORK_DIR}/cmake-build
    -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_CXX_COMPILER=${CXX} -DWITH_DETECT=${WITH_DETECT})
run(${CMAKE_COMMAND} --build ${WORK_DIR}/cmake-build)
run(${CMAKE_COMMAND} -E env LD_LIBRARY_PATH=${prefix}/lib ${WORK_DIR}/cmake-build/consumer)
if(WITH_DETECT)
    if(NOT EXISTS ${prefix}/include/msmface/detect.h)
        message(FATAL_ERROR "installed tree lacks include/msmface/detect.h")
    endif()
    run(${CMAKE_COMMAND} -E env LD_LIBRARY_PATH=${prefix}/lib
        ${WORK_DIR}/cmake-build/detect_consumer)
endif()

find_program(PKG_CONFIG pkg-config REQUIRED)
file(GLOB_RECURSE pc_files ${prefix}/*/msmface.pc)
list(GET pc_files 0 pc_file)
get_filename_component(pc_dir ${pc_file} DIRECTORY)
execute_process(COMMAND ${CMAKE_COMMAND} -E env PKG_CONFIG_PATH=${pc_dir}
                        ${PKG_CONFIG} --cflags --libs msmface
                OUTPUT_VARIABLE flags OUTPUT_STRIP_TRAILING_WHITESPACE RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
    message(FATAL_ERROR "pkg-config does not find msmface in ${pc_dir}")
endif()
separate_arguments(flags UNIX_COMMAND "${flags}")
run(${CXX} -std=c++17 ${SOURCE_DIR}/tests/install/consumer/main.cpp ${flags}
    -o ${WORK_DIR}/pkg-consumer)
run(${CMAKE_COMMAND} -E env LD_LIBRARY_PATH=${pc_dir}/.. ${WORK_DIR}/pkg-consumer)

if(WITH_DETECT)
    execute_process(COMMAND ${CMAKE_COMMAND} -E env PKG_CONFIG_PATH=${pc_dir}
                            ${PKG_CONFIG} --cflags --libs msmface-detect
                    OUTPUT_VARIABLE flags OUTPUT_STRIP_TRAILING_WHITESPACE RESULT_VARIABLE rc)
    if(NOT rc EQUAL 0)
        message(FATAL_ERROR "pkg-config does not find msmface-detect in ${pc_dir}")
    endif()
    separate_arguments(flags UNIX_COMMAND "${flags}")
    run(${CXX} -std=c++17 ${SOURCE_DIR}/tests/install/consumer/detect_main.cpp ${flags}
        -o ${WORK_DIR}/pkg-detect-consumer)
    run(${CMAKE_COMMAND} -E env LD_LIBRARY_PATH=${pc_dir}/.. ${WORK_DIR}/pkg-detect-consumer)
endif()
