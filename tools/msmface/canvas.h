// A small RGB drawing surface for the pictures the msmface program writes: filled rectangles,
// lines, grey pictures scaled in, and labels in a 5 x 7 pixel capital-letter font.
#ifndef MSMFACE_TOOLS_MSMFACE_CANVAS_H
#define MSMFACE_TOOLS_MSMFACE_CANVAS_H

#include <cstdint>
#include <string>
#include <vector>

namespace msmcli {

struct Colour {
    unsigned char r, g, b;
};

inline constexpr Colour kWhite{255, 255, 255};
inline constexpr Colour kBlack{0, 0, 0};
inline constexpr Colour kGrey{160, 160, 160};
inline constexpr Colour kGreen{30, 150, 50};
inline constexpr Colour kRed{200, 40, 40};
inline constexpr Colour kBlue{40, 80, 200};
inline constexpr Colour kOrange{230, 140, 20};

class Canvas {
  public:
    Canvas(int width, int height, Colour background = kWhite);

    int width() const { return width_; }
    int height() const { return height_; }
    const std::vector<unsigned char>& pixels() const { return pixels_; }

    void put(int x, int y, Colour c);  // outside the canvas: nothing
    void fill(int x, int y, int w, int h, Colour c);
    void frame(int x, int y, int w, int h, int thickness, Colour c);
    void line(double x0, double y0, double x1, double y1, Colour c, int thickness = 1);
    // Grey pixels (w x h) drawn at x, y, each as a scale x scale block.
    void grey(int x, int y, const unsigned char* pixels, int w, int h, int scale = 1);
    // Text in capitals (lower case is drawn as upper case; unknown characters as blanks), each
    // character 6 * scale pixels wide and 7 * scale high.
    void text(int x, int y, const std::string& s, Colour c, int scale = 1);
    static int textWidth(const std::string& s, int scale = 1) {
        return static_cast<int>(s.size()) * 6 * scale;
    }

    bool writePng(const std::string& path) const;

  private:
    int width_;
    int height_;
    std::vector<unsigned char> pixels_;
};

}  // namespace msmcli

#endif  // MSMFACE_TOOLS_MSMFACE_CANVAS_H
