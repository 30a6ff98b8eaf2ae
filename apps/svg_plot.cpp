// Sizes are in SVG user units (pixels at 100 %); text is sized by the page's
// own sans-serif font, so label widths are estimated from the character count.

#include "apps/svg_plot.h"

#include <algorithm>
#include <charconv>
#include <cmath>

#include "common/string_utils.h"

namespace Vorpa {

namespace {

using Common::FormatString;

constexpr double kCharWidth = 6.5;  // of the 11 px text, on average
constexpr double kRowHeight = 16;
constexpr double kPanelWidth = 260;
constexpr double kValueTextWidth = 70;

std::string Number(double value) {
    if (value == std::floor(value) && std::fabs(value) < 1e15) return FormatString("%.0f", value);
    return FormatString("%.6g", value);
}

// "12k", "3.5M": tick labels stay short.
std::string ShortNumber(double value) {
    const double magnitude = std::fabs(value);
    if (magnitude >= 1e9) return Number(value / 1e9) + "G";
    if (magnitude >= 1e6) return Number(value / 1e6) + "M";
    if (magnitude >= 1e3) return Number(value / 1e3) + "k";
    return Number(value);
}

// printf's "%.1f" without parsing a format: both round the exact binary
// value, so the text is the same. A chart of thousands of rows (a sample per
// pair of a 96 x 96 sheet) writes several of these per row.
void AppendFixed1(std::string& out, double value) {
    char buffer[320];  // the longest double in fixed notation fits
    const auto written = std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::fixed, 1);
    out.append(buffer, written.ptr);
}

void AppendText(std::string& svg, double x, double y, const std::string& text, const char* anchor = "start",
                const char* extra = "") {
    svg += "<text x=\"";
    AppendFixed1(svg, x);
    svg += "\" y=\"";
    AppendFixed1(svg, y);
    svg.append("\" text-anchor=\"").append(anchor).append(1, '"').append(extra).append(1, '>');
    svg.append(XmlEscape(text)).append("</text>");
}

std::string Text(double x, double y, const std::string& text, const char* anchor = "start", const char* extra = "") {
    std::string svg;
    AppendText(svg, x, y, text, anchor, extra);
    return svg;
}

std::string Line(double x1, double y1, double x2, double y2, const char* style) {
    return FormatString("<line x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\" %s/>", x1, y1, x2, y2, style);
}

std::string SvgOpen(double width, double height) {
    return FormatString(
        "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%.0f\" height=\"%.0f\" viewBox=\"0 0 %.0f %.0f\" "
        "font-family=\"sans-serif\" font-size=\"11\">",
        width, height, width, height);
}

}  // namespace

// Bytes that are not UTF-8, and control characters XML does not allow, come
// out as U+FFFD: names from kit files and sample sheets must not break the page.
std::string XmlEscape(const std::string& text) {
    std::string escaped;
    escaped.reserve(text.size());
    for (size_t i = 0; i < text.size();) {
        const size_t length = Common::Utf8SequenceLength(text, i);
        const char c = text[i];
        if (length == 0 || (length == 1 && static_cast<unsigned char>(c) < 0x20 && c != '\t' && c != '\n')) {
            escaped += "\xEF\xBF\xBD";
            i += std::max<size_t>(length, 1);
            continue;
        }
        if (c == '&') {
            escaped += "&amp;";
        } else if (c == '<') {
            escaped += "&lt;";
        } else if (c == '>') {
            escaped += "&gt;";
        } else if (c == '"') {
            escaped += "&quot;";
        } else if (c == '\'') {
            escaped += "&#39;";
        } else {
            escaped.append(text, i, length);
        }
        i += length;
    }
    return escaped;
}

std::string SeriesColour(size_t index) {
    const double hue = std::fmod(210.0 + 137.508 * static_cast<double>(index), 360.0);
    return FormatString("hsl(%.0f,65%%,%d%%)", hue, index % 2 == 0 ? 42 : 55);
}

std::vector<double> AxisTicks(double low, double high, int count) {
    if (!(high > low)) high = low + 1;
    const double raw = (high - low) / std::max(1, count);
    const double power = std::pow(10.0, std::floor(std::log10(raw)));
    double step = power;
    for (const double factor : {1.0, 2.0, 5.0, 10.0}) {
        step = factor * power;
        if (step >= raw) break;
    }
    std::vector<double> ticks;
    for (double tick = std::floor(low / step) * step; ticks.empty() || ticks.back() < high; tick += step)
        ticks.push_back(tick);
    return ticks;
}

std::string BarChartSvg(const BarChart& chart) {
    size_t longest = 4;
    for (const auto& label : chart.labels)
        longest = std::max(longest, label.size());
    const double label_width = std::min<double>(240, kCharWidth * static_cast<double>(longest) + 12);
    const double top = 34;
    const double panel_step = kPanelWidth + kValueTextWidth + 20;
    const double width = label_width + panel_step * static_cast<double>(chart.panels.size());
    const double height = top + kRowHeight * static_cast<double>(chart.labels.size()) + 8;
    std::string svg = SvgOpen(width, height);
    for (size_t p = 0; p < chart.panels.size(); ++p) {
        const BarPanel& panel = chart.panels[p];
        const double left = label_width + panel_step * static_cast<double>(p);
        double high = 0;
        for (const double value : panel.values)
            high = std::max(high, value);
        const std::vector<double> ticks = AxisTicks(0, high > 0 ? high : 1, 4);
        const double scale = kPanelWidth / ticks.back();
        svg += Text(left, 12, panel.title, "start", " font-weight=\"bold\"");
        for (const double tick : ticks) {
            const double x = left + tick * scale;
            svg += Line(x, top - 4, x, height - 8, "stroke=\"#ddd\"");
            svg += Text(x, top - 8, ShortNumber(tick), "middle", " fill=\"#555\"");
        }
        const std::string colour = SeriesColour(p);
        const std::string title = XmlEscape(panel.title);
        for (size_t i = 0; i < chart.labels.size() && i < panel.values.size(); ++i) {
            const double y = top + kRowHeight * static_cast<double>(i);
            const bool muted = i < chart.muted.size() && chart.muted[i];
            const std::string text = i < panel.texts.size() ? panel.texts[i] : Number(panel.values[i]);
            const double bar = std::max(0.0, panel.values[i] * scale);
            svg += "<rect x=\"";
            AppendFixed1(svg, left);
            svg += "\" y=\"";
            AppendFixed1(svg, y + 2);
            svg += "\" width=\"";
            AppendFixed1(svg, bar);
            svg += "\" height=\"";
            AppendFixed1(svg, kRowHeight - 4);
            svg.append("\" fill=\"").append(muted ? "#9e9e9e" : colour).append("\"><title>");
            svg.append(XmlEscape(chart.labels[i])).append(": ").append(XmlEscape(text)).append(1, ' ');
            svg.append(title).append("</title></rect>");
            AppendText(svg, left + bar + 4, y + kRowHeight - 4, text, "start", " fill=\"#333\"");
        }
    }
    for (size_t i = 0; i < chart.labels.size(); ++i) {
        const double y = top + kRowHeight * static_cast<double>(i) + kRowHeight - 4;
        AppendText(svg, label_width - 6, y, chart.labels[i], "end");
    }
    return svg + "</svg>";
}

std::string LineChartSvg(const LineChart& chart) {
    const double left = 64, top = 12, plot_width = 560, plot_height = 240;
    const double legend_x = left + plot_width + 24;
    size_t longest = 0;
    for (const auto& series : chart.series)
        longest = std::max(longest, series.name.size());
    const double width = legend_x + 24 + kCharWidth * static_cast<double>(longest) + 8;
    const double height = std::max(top + plot_height + 44, top + 14.0 * static_cast<double>(chart.series.size()) + 8);
    std::string svg = SvgOpen(width, height);
    if (chart.x.empty()) return svg + Text(left, top + 20, "no reads") + "</svg>";

    auto position = [&](double x) { return chart.log_x ? std::log10(std::max(x, 1e-300)) : x; };
    const double x_low = position(chart.x.front());
    const double x_high = std::max(position(chart.x.back()), x_low + 1e-9);
    double y_high = 0;
    for (const auto& series : chart.series)
        for (const double y : series.y)
            y_high = std::max(y_high, y);
    const std::vector<double> y_ticks = AxisTicks(0, y_high > 0 ? y_high : 1, 5);
    const double y_top = y_ticks.back();
    auto px = [&](double x) { return left + (position(x) - x_low) / (x_high - x_low) * plot_width; };
    auto py = [&](double y) { return top + plot_height - y / y_top * plot_height; };

    for (const double tick : y_ticks) {
        svg += Line(left, py(tick), left + plot_width, py(tick), "stroke=\"#ddd\"");
        svg += Text(left - 6, py(tick) + 4, ShortNumber(tick), "end", " fill=\"#555\"");
    }
    std::vector<double> x_ticks;
    if (chart.log_x) {
        for (double tick = std::pow(10.0, std::ceil(x_low)); std::log10(tick) <= x_high + 1e-9; tick *= 10)
            x_ticks.push_back(tick);
    } else {
        for (const double tick : AxisTicks(chart.x.front(), chart.x.back(), 8))
            if (tick >= chart.x.front() && tick <= chart.x.back()) x_ticks.push_back(tick);
    }
    for (const double tick : x_ticks) {
        svg += Line(px(tick), top, px(tick), top + plot_height, "stroke=\"#eee\"");
        svg += Text(px(tick), top + plot_height + 14, ShortNumber(tick), "middle", " fill=\"#555\"");
    }
    svg += Line(left, top + plot_height, left + plot_width, top + plot_height, "stroke=\"#333\"");
    svg += Line(left, top, left, top + plot_height, "stroke=\"#333\"");
    svg += Text(left + plot_width / 2, top + plot_height + 34, chart.x_title, "middle");
    svg += FormatString("<text x=\"14\" y=\"%.1f\" text-anchor=\"middle\" transform=\"rotate(-90 14 %.1f)\">%s</text>",
                        top + plot_height / 2, top + plot_height / 2, XmlEscape(chart.y_title));

    for (size_t s = 0; s < chart.series.size(); ++s) {
        const LineSeries& series = chart.series[s];
        const std::string colour = series.muted ? "#757575" : SeriesColour(s);
        std::string points;
        for (size_t i = 0; i < chart.x.size() && i < series.y.size(); ++i)
            points += FormatString("%s%.1f,%.1f", points.empty() ? "" : " ", px(chart.x[i]), py(series.y[i]));
        svg += FormatString(
            "<polyline points=\"%s\" fill=\"none\" stroke=\"%s\" stroke-width=\"1.5\"%s><title>%s</title></polyline>",
            points, colour, series.muted ? " stroke-dasharray=\"5 3\"" : "", XmlEscape(series.name));
        const double y = top + 14.0 * static_cast<double>(s) + 6;
        svg += Line(
            legend_x, y, legend_x + 18, y,
            FormatString("stroke=\"%s\" stroke-width=\"3\"%s", colour, series.muted ? " stroke-dasharray=\"5 3\"" : "")
                .c_str());
        svg += Text(legend_x + 24, y + 4, series.name);
    }
    return svg + "</svg>";
}

}  // namespace Vorpa
