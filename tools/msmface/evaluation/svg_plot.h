// Charts as inline SVG for the report pages the msmface program writes: one plot area with two
// axes (linear, logarithmic or normal-deviate), curves, bars and marked values, every text
// escaped. Elements carry classes ("axis", "tick", "curve", "bars", "marker") and data-
// attributes with the values they show, so that a page can be checked by what it draws.
#ifndef MSMFACE_TOOLS_MSMFACE_SVG_PLOT_H
#define MSMFACE_TOOLS_MSMFACE_SVG_PLOT_H

#include <string>
#include <utility>
#include <vector>

namespace msmcli {

// Text made safe inside XML / HTML elements and attribute values.
std::string xmlEscape(const std::string& text);

// The quantile of the standard normal distribution at p (0 < p < 1): the DET curve's axes.
double normalDeviate(double p);

enum class Scale { Linear, Log10, NormalDeviate };

struct Axis {
    std::string label;
    double min = 0.0;
    double max = 1.0;
    Scale scale = Scale::Linear;
    std::vector<std::pair<double, std::string>> ticks;  // value and its label
};

class SvgPlot {
  public:
    SvgPlot(std::string title, Axis x, Axis y, int width = 420, int height = 320);

    // A polyline through points (values outside an axis are held at its end).
    void curve(const std::string& name, const std::string& colour,
               const std::vector<std::pair<double, double>>& points, bool dots = false);
    // Bars from value x0 to x1 with heights, drawn semi-transparent.
    void bars(const std::string& name, const std::string& colour, double x0, double binWidth,
              const std::vector<double>& heights);
    // A vertical line across the plot at x, labelled.
    void marker(const std::string& label, const std::string& colour, double x, bool dashed = true);

    // The legend in the upper right corner instead of the lower right.
    void legendAtTop() { legendTop_ = true; }

    // Pixel position of a value on the horizontal / vertical axis.
    double xAt(double value) const;
    double yAt(double value) const;

    std::string svg() const;

  private:
    struct Legend {
        std::string name, colour;
    };
    std::string title_;
    Axis x_, y_;
    int width_, height_;
    double left_, right_, top_, bottom_;
    std::string body_;
    int markers_ = 0;
    bool legendTop_ = false;
    std::vector<Legend> legend_;
};

}  // namespace msmcli

#endif  // MSMFACE_TOOLS_MSMFACE_SVG_PLOT_H
