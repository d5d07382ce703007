include(CMakePackageConfigHelpers)

install(TARGETS msmface EXPORT msmfaceTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

set(public_headers
    ${CMAKE_SOURCE_DIR}/include/msmface/msmface.h
    ${CMAKE_SOURCE_DIR}/include/msmface/export.h
    ${CMAKE_SOURCE_DIR}/include/msmface/frame.h
    ${CMAKE_SOURCE_DIR}/include/msmface/result.h
    ${MSMFACE_GENERATED_INCLUDE}/msmface/version.h)
foreach(sub IN LISTS MSMFACE_SUBSYSTEMS)
    file(GLOB sub_headers CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/${sub}/include/msmface/*.h)
    list(APPEND public_headers ${sub_headers})
endforeach()
install(FILES ${public_headers} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/msmface)

set(config_dir ${CMAKE_INSTALL_LIBDIR}/cmake/msmface)
install(EXPORT msmfaceTargets NAMESPACE msmface:: DESTINATION ${config_dir})

# The detector, when built, is the package's component "detect" (msmface::detect) with an export
# set of its own, so that the engine's targets never mention it.
if(TARGET msmface_detect)
    install(TARGETS msmface_detect EXPORT msmfaceDetectTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
    install(FILES ${CMAKE_SOURCE_DIR}/detect/include/msmface/detect.h
                  ${CMAKE_SOURCE_DIR}/detect/include/msmface/tracker.h
                  ${CMAKE_SOURCE_DIR}/detect/include/msmface/watcher.h
            DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/msmface)
    if(MSMFACE_HAVE_DESCRIPTOR)
        install(FILES ${CMAKE_SOURCE_DIR}/detect/include/msmface/descriptor.h
                DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/msmface)
    endif()
    install(EXPORT msmfaceDetectTargets NAMESPACE msmface:: FILE msmfaceDetectTargets.cmake
            DESTINATION ${config_dir})
endif()
configure_package_config_file(${CMAKE_SOURCE_DIR}/cmake/msmfaceConfig.cmake.in
    ${CMAKE_BINARY_DIR}/msmfaceConfig.cmake INSTALL_DESTINATION ${config_dir})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/msmfaceConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/msmfaceConfig.cmake ${CMAKE_BINARY_DIR}/msmfaceConfigVersion.cmake
    DESTINATION ${config_dir})

file(RELATIVE_PATH MSMFACE_PC_RELATIVE_PREFIX
     /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
string(REGEX REPLACE "/$" "" MSMFACE_PC_RELATIVE_PREFIX "${MSMFACE_PC_RELATIVE_PREFIX}")
configure_file(${CMAKE_SOURCE_DIR}/cmake/msmface.pc.in ${CMAKE_BINARY_DIR}/msmface.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/msmface.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
if(TARGET msmface_detect)
    configure_file(${CMAKE_SOURCE_DIR}/cmake/msmface-detect.pc.in
                   ${CMAKE_BINARY_DIR}/msmface-detect.pc @ONLY)
    install(FILES ${CMAKE_BINARY_DIR}/msmface-detect.pc
            DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endif()
