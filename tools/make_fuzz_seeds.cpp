// Writes the seed corpora of the file-reader fuzzers: small valid files of every kind, made by
// the library's own writers from synthetic values (no outside data).
//   msmface_fuzz_seeds <fuzz/corpus folder>
#include <sys/stat.h>

#include <cmath>
#include <cstdio>
#include <string>

#include "dictionary/CCOVImage.h"
#include "dictionary/CCSDImage.h"
#include "dictionary/DictChunk.h"
#include "dictionary/MtrxChunk.h"

namespace {

float Synthetic(int a, int b) {
    return std::sin(0.7f * a + 0.3f * b);
}

std::string Folder(const std::string& root, const char* target) {
    std::string dir = root + "/" + target;
    ::mkdir(root.c_str(), 0755);
    ::mkdir(dir.c_str(), 0755);
    return dir;
}

bool Dictionaries(const std::string& dir) {
    bool ok = true;
    for (int variant = 0; variant < 3; ++variant) {
        DictChunk chunk;
        int prims = variant + 1, count = 2 + variant * 3, dim = variant == 2 ? 1 : 8;
        chunk.Allocate(prims);
        for (int p = 0; p < prims; ++p) {
            chunk.prims[p].Allocate(dim, count, 2);
            for (int k = 0; k < count; ++k)
                for (int i = 0; i < dim; ++i) chunk.prims[p].frows[k][i] = Synthetic(k + p, i);
        }
        std::string path = dir + "/seed" + std::to_string(variant) + ".dck";
        ok = ok && chunk.Write(path.c_str(), 0, 2) == 1;
    }
    return ok;
}

bool Matrices(const std::string& dir) {
    MtrxChunk chunk;
    chunk.Allocate(2);
    for (int m = 0; m < 2; ++m) {
        chunk.prims[m].Allocate(3 + m);
        chunk.prims[m].number = 50 * (m + 1);
        for (int e = 0; e < chunk.prims[m].elementCount; ++e)
            chunk.prims[m].elements[e] = Synthetic(m, e);
    }
    return chunk.Write((dir + "/seed.mck").c_str()) == 1;
}

bool Vectors(const std::string& binDir, const std::string& textDir) {
    CCSDImage image;
    image.Allocate(0, 0, 6, 12, 2);
    for (int k = 0; k < 12; ++k)
        for (int i = 0; i < 6; ++i) image.frows[k][i] = Synthetic(k, i);
    return image.WriteBinary((binDir + "/seed.cs").c_str(), 0, 2) == 1 &&
           image.WriteBinary((binDir + "/seed3.cs").c_str(), 3, 2) == 1 &&
           image.WriteText((textDir + "/seed.txt").c_str(), 4, 2) == 1;
}

bool Covariances(const std::string& binDir, const std::string& textDir) {
    bool ok = true;
    for (int m : {0, 7, 1234}) {
        CCOVImage matrix;
        matrix.Allocate(4);
        matrix.number = 9;
        matrix.matrixNumber = m;
        for (int e = 0; e < matrix.elementCount; ++e) matrix.elements[e] = Synthetic(m, e);
        std::string name = "/seed" + std::to_string(m);
        ok = ok && matrix.WriteBinary((binDir + name + ".cov").c_str()) == 1 &&
             matrix.WriteText((textDir + name + ".txt").c_str()) == 1;
    }
    return ok;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s <corpus folder>\n", argv[0]);
        return 2;
    }
    std::string root = argv[1];
    bool ok = Dictionaries(Folder(root, "fuzz_dck")) && Matrices(Folder(root, "fuzz_mck")) &&
              Vectors(Folder(root, "fuzz_cs_binary"), Folder(root, "fuzz_cs_text")) &&
              Covariances(Folder(root, "fuzz_cov_binary"), Folder(root, "fuzz_cov_text"));
    if (!ok) {
        std::fprintf(stderr, "%s: could not write every seed under %s\n", argv[0], root.c_str());
        return 1;
    }
    return 0;
}
