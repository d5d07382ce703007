#include <msmface/version.h>

unsigned msmface_versionNumber() {
    return MSMFACE_VERSION_NUMBER;
}

const char* msmface_versionString() {
    return MSMFACE_VERSION_STRING;
}
