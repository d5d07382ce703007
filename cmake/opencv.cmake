# OpenCV for the host program's pixels (image files, video files, cameras, drawing). Debian's
# per-module -dev packages install no OpenCVConfig.cmake, and pkg-config's opencv4.pc comes only
# with the whole libopencv-dev; so the four modules are looked up one by one.
# Defines the interface target msmface_opencv when all of them are found.
if(TARGET msmface_opencv)
    return()
endif()
find_path(MSMFACE_OPENCV_INCLUDE_DIR opencv2/videoio.hpp PATH_SUFFIXES opencv4)
set(_msmface_opencv_libs)
set(_msmface_opencv_missing)
foreach(module core imgproc imgcodecs videoio)
    find_library(MSMFACE_OPENCV_${module}_LIBRARY opencv_${module})
    if(MSMFACE_OPENCV_${module}_LIBRARY)
        list(APPEND _msmface_opencv_libs ${MSMFACE_OPENCV_${module}_LIBRARY})
    else()
        list(APPEND _msmface_opencv_missing opencv_${module})
    endif()
endforeach()
if(MSMFACE_OPENCV_INCLUDE_DIR AND NOT _msmface_opencv_missing)
    add_library(msmface_opencv INTERFACE)
    target_include_directories(msmface_opencv SYSTEM INTERFACE ${MSMFACE_OPENCV_INCLUDE_DIR})
    target_link_libraries(msmface_opencv INTERFACE ${_msmface_opencv_libs})
    message(STATUS "OpenCV found: ${MSMFACE_OPENCV_INCLUDE_DIR}")
else()
    message(STATUS "OpenCV not found (missing: ${_msmface_opencv_missing}); the msmface program "
                   "is not built. Install libopencv-imgcodecs-dev libopencv-videoio-dev "
                   "libopencv-imgproc-dev")
endif()
