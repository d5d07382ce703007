# FILES: the core's sources, separated by "|". Fails on an include of the legacy engine or the
# modern interface.
string(REPLACE "|" ";" files "${FILES}")
foreach(f IN LISTS files)
    file(STRINGS "${f}" found REGEX "^#include [<\"](engine/|msmface/(gallery|stream|FaceRecognition)\\.h)")
    if(found)
        message(FATAL_ERROR "${f}: the core may not include what is built on it: ${found}")
    endif()
endforeach()
