#include "evaluation/svg_plot.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace msmcli {
namespace {

std::string num(double v) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.2f", v);
    return buf;
}

// Value to a share 0 .. 1 along the axis.
double along(const Axis& a, double v) {
    v = std::clamp(v, a.min, a.max);
    switch (a.scale) {
        case Scale::Log10:
            return (std::log10(v) - std::log10(a.min)) / (std::log10(a.max) - std::log10(a.min));
        case Scale::NormalDeviate:
            return (normalDeviate(v) - normalDeviate(a.min)) /
                   (normalDeviate(a.max) - normalDeviate(a.min));
        case Scale::Linear:
            break;
    }
    return (v - a.min) / (a.max - a.min);
}

}  // namespace

std::string xmlEscape(const std::string& text) {
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            case '\'':
                out += "&#39;";
                break;
            default:
                // Control characters are not allowed in XML 1.0; a blank keeps the layout.
                out += (static_cast<unsigned char>(c) < 0x20 && c != '\n' && c != '\t') ? ' ' : c;
        }
    }
    return out;
}

double normalDeviate(double p) {
    // Acklam's rational approximation (relative error below 1.2e-9), ample for a plot axis.
    static const double a[] = {-3.969683028665376e+01, 2.209460984245205e+02,
                               -2.759285104469687e+02, 1.383577518672690e+02,
                               -3.066479806614716e+01, 2.506628277459239e+00};
    static const double b[] = {-5.447609879822406e+01, 1.615858368580409e+02,
                               -1.556989798598866e+02, 6.680131188771972e+01,
                               -1.328068155288572e+01};
    static const double c[] = {-7.784894002430293e-03, -3.223964580411365e-01,
                               -2.400758277161838e+00, -2.549732539343734e+00,
                               4.374664141464968e+00,  2.938163982698783e+00};
    static const double d[] = {7.784695709041462e-03, 3.224671290700398e-01, 2.445134137142996e+00,
                               3.754408661907416e+00};
    p = std::clamp(p, 1e-12, 1.0 - 1e-12);
    constexpr double kLow = 0.02425;
    if (p < kLow) {
        const double q = std::sqrt(-2 * std::log(p));
        return (((((c[0] * q + c[1]) * q + c[2]) * q + c[3]) * q + c[4]) * q + c[5]) /
               ((((d[0] * q + d[1]) * q + d[2]) * q + d[3]) * q + 1);
    }
    if (p > 1 - kLow) return -normalDeviate(1 - p);
    const double q = p - 0.5, r = q * q;
    return (((((a[0] * r + a[1]) * r + a[2]) * r + a[3]) * r + a[4]) * r + a[5]) * q /
           (((((b[0] * r + b[1]) * r + b[2]) * r + b[3]) * r + b[4]) * r + 1);
}

SvgPlot::SvgPlot(std::string title, Axis x, Axis y, int width, int height)
    : title_(std::move(title)),
      x_(std::move(x)),
      y_(std::move(y)),
      width_(width),
      height_(height),
      left_(58),
      right_(width - 14),
      top_(30),
      bottom_(height - 44) {}

double SvgPlot::xAt(double value) const {
    return left_ + along(x_, value) * (right_ - left_);
}

double SvgPlot::yAt(double value) const {
    return bottom_ - along(y_, value) * (bottom_ - top_);
}

void SvgPlot::curve(const std::string& name, const std::string& colour,
                    const std::vector<std::pair<double, double>>& points, bool dots) {
    std::string coords;
    for (const auto& [x, y] : points) {
        if (!std::isfinite(x) || !std::isfinite(y)) continue;
        coords += num(xAt(x)) + "," + num(yAt(y)) + " ";
    }
    if (!coords.empty()) coords.pop_back();
    body_ += "<polyline class=\"curve\" data-series=\"" + xmlEscape(name) +
             "\" fill=\"none\" stroke=\"" + xmlEscape(colour) + "\" stroke-width=\"2\" points=\"" +
             coords + "\"/>\n";
    if (dots)
        for (const auto& [x, y] : points)
            body_ += "<circle cx=\"" + num(xAt(x)) + "\" cy=\"" + num(yAt(y)) +
                     "\" r=\"3\" fill=\"" + xmlEscape(colour) + "\"/>\n";
    legend_.push_back({name, colour});
}

void SvgPlot::bars(const std::string& name, const std::string& colour, double x0, double binWidth,
                   const std::vector<double>& heights) {
    body_ += "<g class=\"bars\" data-series=\"" + xmlEscape(name) + "\" fill=\"" +
             xmlEscape(colour) + "\" fill-opacity=\"0.45\">\n";
    for (std::size_t i = 0; i < heights.size(); ++i) {
        if (heights[i] <= 0) continue;
        const double a = xAt(x0 + binWidth * static_cast<double>(i));
        const double b = xAt(x0 + binWidth * static_cast<double>(i + 1));
        const double top = yAt(heights[i]);
        body_ += "<rect x=\"" + num(a) + "\" y=\"" + num(top) + "\" width=\"" +
                 num(std::max(0.5, b - a)) + "\" height=\"" + num(bottom_ - top) + "\"/>\n";
    }
    body_ += "</g>\n";
    legend_.push_back({name, colour});
}

void SvgPlot::marker(const std::string& label, const std::string& colour, double x, bool dashed) {
    const std::string at = num(xAt(x));
    char value[32];
    std::snprintf(value, sizeof value, "%g", x);
    // Labels of successive markers step down, so that close values stay readable.
    const double labelY = top_ + 12 + 13 * (markers_++ % 4);
    const bool flip = xAt(x) > (left_ + right_) / 2;
    body_ += "<g class=\"marker\" data-value=\"" + std::string(value) + "\"><line x1=\"" + at +
             "\" y1=\"" + num(top_) + "\" x2=\"" + at + "\" y2=\"" + num(bottom_) + "\" stroke=\"" +
             xmlEscape(colour) + "\" stroke-width=\"1.5\"" +
             (dashed ? " stroke-dasharray=\"5,3\"" : "") + "/><text x=\"" +
             num(xAt(x) + (flip ? -4 : 4)) + "\" y=\"" + num(labelY) +
             "\" font-size=\"11\" fill=\"" + xmlEscape(colour) + "\"" +
             (flip ? " text-anchor=\"end\"" : "") + ">" + xmlEscape(label) + "</text></g>\n";
}

std::string SvgPlot::svg() const {
    std::string s = "<svg xmlns=\"http://www.w3.org/2000/svg\" class=\"plot\" width=\"" +
                    std::to_string(width_) + "\" height=\"" + std::to_string(height_) +
                    "\" viewBox=\"0 0 " + std::to_string(width_) + " " + std::to_string(height_) +
                    "\" font-family=\"sans-serif\">\n";
    s += "<title>" + xmlEscape(title_) + "</title>\n";
    s += "<text x=\"" + num(left_) + "\" y=\"18\" font-size=\"14\" font-weight=\"bold\">" +
         xmlEscape(title_) + "</text>\n";
    // Grid and tick labels.
    s += "<g class=\"axis x\" data-label=\"" + xmlEscape(x_.label) + "\">\n";
    for (const auto& [v, label] : x_.ticks) {
        const std::string at = num(xAt(v));
        s += "<line class=\"tick\" x1=\"" + at + "\" y1=\"" + num(top_) + "\" x2=\"" + at +
             "\" y2=\"" + num(bottom_) + "\" stroke=\"#e4e4e4\"/><text x=\"" + at + "\" y=\"" +
             num(bottom_ + 14) + "\" font-size=\"10\" text-anchor=\"middle\">" + xmlEscape(label) +
             "</text>\n";
    }
    s += "<text x=\"" + num((left_ + right_) / 2) + "\" y=\"" + num(height_ - 8.0) +
         "\" font-size=\"12\" text-anchor=\"middle\">" + xmlEscape(x_.label) + "</text>\n</g>\n";
    s += "<g class=\"axis y\" data-label=\"" + xmlEscape(y_.label) + "\">\n";
    for (const auto& [v, label] : y_.ticks) {
        const std::string at = num(yAt(v));
        s += "<line class=\"tick\" x1=\"" + num(left_) + "\" y1=\"" + at + "\" x2=\"" +
             num(right_) + "\" y2=\"" + at + "\" stroke=\"#e4e4e4\"/><text x=\"" + num(left_ - 4) +
             "\" y=\"" + num(yAt(v) + 3.5) + "\" font-size=\"10\" text-anchor=\"end\">" +
             xmlEscape(label) + "</text>\n";
    }
    s += "<text transform=\"translate(13 " + num((top_ + bottom_) / 2) +
         ") rotate(-90)\" font-size=\"12\" text-anchor=\"middle\">" + xmlEscape(y_.label) +
         "</text>\n</g>\n";
    s += "<rect x=\"" + num(left_) + "\" y=\"" + num(top_) + "\" width=\"" + num(right_ - left_) +
         "\" height=\"" + num(bottom_ - top_) + "\" fill=\"none\" stroke=\"#333\"/>\n";
    s += body_;
    // Legend in a corner inside the plot.
    for (std::size_t i = 0; i < legend_.size(); ++i) {
        const double y = legendTop_
                             ? top_ + 16 + 15.0 * static_cast<double>(i)
                             : bottom_ - 12 - 15.0 * static_cast<double>(legend_.size() - 1 - i);
        s += "<g class=\"legend\"><rect x=\"" + num(right_ - 118) + "\" y=\"" + num(y - 8) +
             "\" width=\"14\" height=\"8\" fill=\"" + xmlEscape(legend_[i].colour) +
             "\"/><text x=\"" + num(right_ - 100) + "\" y=\"" + num(y) + "\" font-size=\"11\">" +
             xmlEscape(legend_[i].name) + "</text></g>\n";
    }
    s += "</svg>\n";
    return s;
}

}  // namespace msmcli
