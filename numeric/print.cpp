// Printing of vectors and matrices to standard output, and the diagnostic dump of an eigen
// problem to a text file.
#include <cstdio>
#include <cstdlib>
#include <string>

#include <msmface/numeric.h>

namespace {

// A non-positive perLine would make the line-break test divide by zero; such a caller gets the
// whole vector on one line.
void printRow(const float* v, int n, int perLine, const char* fmt) {
    if (n <= 0) return;
    for (int i = 0; i < n; ++i) {
        std::printf(fmt, static_cast<double>(v[i]));
        if (perLine > 0 && (i + 1) % perLine == 0) std::printf("\n");
    }
    if (perLine <= 0 || n % perLine != 0) std::printf("\n");
}

template <typename T>
void dump(int n, T** a, T* d, T* e, const char* path) {
    // Copied into a string rather than a fixed buffer so that no path is ever cut short.
    std::string name = path != nullptr ? path : "";
    std::FILE* f = name.empty() ? nullptr : std::fopen(name.c_str(), "w");
    // kept: the dump has always ended the process quietly with status 0 when it cannot write,
    // and hosts that run it as a last diagnostic step rely on that status.
    if (f == nullptr) std::exit(0);
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j)
            std::fprintf(f, "a[%d][%d] %g\n", i, j, static_cast<double>(a[i][j]));
    for (int i = 0; i < n; ++i) std::fprintf(f, "d[%d] %g\n", i, static_cast<double>(d[i]));
    for (int i = 0; i < n; ++i) std::fprintf(f, "e[%d] %g\n", i, static_cast<double>(e[i]));
    std::fclose(f);
}

}  // namespace

void vecprint(float* v, int n, int perLine, char* fmt) {
    printRow(v, n, perLine, fmt);
}

void matprint(float** a, int cols, int perLine, char* fmt) {
    if (a == nullptr) return;
    // With perLine <= 0 a row is one line already, so no separating empty line is needed.
    bool wraps = perLine > 0 && cols > perLine;
    for (float** row = a; *row != nullptr; ++row) {
        printRow(*row, cols, perLine, fmt);
        if (wraps) std::printf("\n");
    }
}

void matshow(float** a, int rows, int cols, char* fmt) {
    for (int i = 0; i < rows; ++i) {
        for (int j = 0; j < cols; ++j) {
            std::printf(fmt, static_cast<double>(a[i][j]));
            std::printf("  ");
        }
        std::printf("\n");
    }
}

void printdumplog(int n, float** a, float* d, float* e, char* path) {
    dump(n, a, d, e, path);
}

void printdumplog(int n, double** a, double* d, double* e, char* path) {
    dump(n, a, d, e, path);
}
