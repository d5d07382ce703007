// A host that knows only the installed headers and library.
#include <msmface/msmface.h>

#include <cstdio>
#include <cstring>

int main() {
    if (msmface_versionNumber() != MSMFACE_VERSION_NUMBER ||
        std::strcmp(msmface_versionString(), MSMFACE_VERSION_STRING) != 0) {
        std::fprintf(stderr, "header %s, library %s\n", MSMFACE_VERSION_STRING,
                     msmface_versionString());
        return 1;
    }
    float** a = newmat(2, 2);
    float** inv = newmat(2, 2);
    a[0][0] = 4; a[0][1] = 7;
    a[1][0] = 2; a[1][1] = 6;
    float det = matinv(2, a, inv);
    bool ok = det > 9.99f && det < 10.01f && inv[0][0] > 0.599f && inv[0][0] < 0.601f;
    free_matrix(a);
    free_matrix(inv);
    BasicImageFile image(4, 4, 8);
    ok = ok && image.width == 4;
    FaceRecognition engine(320, 240);
    ok = ok && engine.Get_DICACQUISITIONNUM() == 50 && engine.idDatabase->GetAllNum() == 0 &&
         engine.FrameProcess(5) == 0;
    std::printf("msmface %s: %s\n", msmface_versionString(), ok ? "ok" : "wrong");
    return ok ? 0 : 1;
}
